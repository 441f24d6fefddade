// The node and control-block layout, pinned. Every non-pointer field sits at
// the same offset on 32-bit and 64-bit builds; the wire constants follow from
// the layout rather than being written down twice.
#pragma once

#include <cstddef>
#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm {

// Node size, the end of the external-buffer descriptor (what a node with an
// external buffer must carry), and where the link words start.
inline constexpr std::uint32_t kNodeSize = sizeof(MBUF_S);
inline constexpr std::uint32_t kNodeExtInfoEnd =
    offsetof(MBUF_S, ulExtRefCnt) + sizeof(std::uint32_t);
inline constexpr std::uint32_t kNodeLinkOffset =
    offsetof(MBUF_S, pstNext) - (sizeof(void *) == 4 ? 4u : 0u);
inline constexpr std::uint32_t kNodeLinkLen = kNodeSize - kNodeLinkOffset;

inline constexpr std::uint32_t kPlainInlineOffset = offsetof(MBUF_S, aucInlineData);
inline constexpr std::uint32_t kHdrInlineOffset = offsetof(MBUF_S, aucHdrInlineData);
inline constexpr std::uint32_t kCtlFixedLen = sizeof(MBUF_CONTROL_BLK_S);
// Offset of the four one-byte head fields that travel as one 32-bit word.
inline constexpr std::uint32_t kCtlHeadWordOffset =
    offsetof(MBUF_CONTROL_BLK_S, ucRecNum) < offsetof(MBUF_CONTROL_BLK_S, ucBlkMark)
        ? offsetof(MBUF_CONTROL_BLK_S, ucRecNum)
        : offsetof(MBUF_CONTROL_BLK_S, ucBlkMark);

static_assert(kNodeSize == MBUF_NODE_SIZE);
static_assert(kNodeExtInfoEnd == 520);
static_assert(kNodeLinkOffset == 872 && kNodeLinkLen == MBUF_LINK_LEN);
static_assert(kNodeLinkOffset == MBUF_NODE_HEAD_LEN + MBUF_BODY_LEN);

// Node header.
static_assert(offsetof(MBUF_S, ulRsv0) == 0 && offsetof(MBUF_S, ulRsv1) == 4);
static_assert(offsetof(MBUF_S, ulRsv2) == 8 && offsetof(MBUF_S, ulDataLen) == 12);
static_assert(offsetof(MBUF_S, ulFlag) == 16 && offsetof(MBUF_S, usType) == 20);
static_assert(offsetof(MBUF_S, ucByteOrder) == 22 && offsetof(MBUF_S, ucMagic) == 23);

// Body: plain inline area, or the packet-header layout.
static_assert(kPlainInlineOffset == 24 && sizeof(MBUF_S::aucInlineData) == 848);
static_assert(offsetof(MBUF_S, ulPktRsv) == 24 && offsetof(MBUF_S, ulTotalDataLen) == 28);
static_assert(offsetof(MBUF_S, ulFlag3) == 32 && offsetof(MBUF_S, ulPktTagInfo) == 36);
static_assert(offsetof(MBUF_S, stCtlInfo) == 40 && sizeof(MBUF_S::stCtlInfo) == 448);
static_assert(offsetof(MBUF_S, ulPktRsv2) == 488 && offsetof(MBUF_S, ulFlag2) == 492);
static_assert(offsetof(MBUF_S, ulPktRsv3) == 496);
static_assert(kHdrInlineOffset == 500 && sizeof(MBUF_S::aucHdrInlineData) == 372);
static_assert(kHdrInlineOffset + MBUF_PKTHDR_INLINE_LEN == kNodeLinkOffset);
static_assert(offsetof(MBUF_S, stExtInfo) == 500 && offsetof(MBUF_S, ulExtSize) == 512);
static_assert(offsetof(MBUF_S, ulExtRefCnt) == 516);

// Link words: each pointer with its reserved word takes 8 bytes.
static_assert(offsetof(MBUF_S, pstNextPkt) + sizeof(void *) == 888);
static_assert(offsetof(MBUF_S, pucData) + sizeof(void *) == 896);
static_assert(offsetof(MBUF_S, ulRsv6) == 896 && offsetof(MBUF_S, ulPktRsv4) == 900);
static_assert(offsetof(MBUF_S, pstCtlInfo) + sizeof(void *) == 912);
static_assert(offsetof(MBUF_S, pucExtBuf) + sizeof(void *) == 920);
static_assert(offsetof(MBUF_S, ulRsv9) == 920 && offsetof(MBUF_S, ulExtRsv0) == 924);
static_assert(offsetof(MBUF_S, ulRsv10) == 928 && offsetof(MBUF_S, ulExtRsv1) == 932);

// Control block: 84-byte common record, the head word, lengths, 23 slots.
static_assert(sizeof(MBUF_CTL_COMM_S) == MBUF_CTL_COMM_LEN);
static_assert(offsetof(MBUF_CTL_COMM_S, ulPathId) == 24);
static_assert(offsetof(MBUF_CTL_COMM_S, ulSocketId) == 28);
static_assert(offsetof(MBUF_CTL_COMM_S, usProtocolType) == 40);
static_assert(offsetof(MBUF_CTL_COMM_S, usDirectionType) == 42);
static_assert(offsetof(MBUF_CTL_COMM_S, ulTimeStamp) == 44);
static_assert(offsetof(MBUF_CTL_COMM_S, ulExceptionId) == 48);
static_assert(offsetof(MBUF_CTL_COMM_S, ulPortGroupId) == 56);
static_assert(offsetof(MBUF_CTL_COMM_S, usPktPriority) == 64);
static_assert(offsetof(MBUF_CTL_COMM_S, ulProductProtocolType) == 80);
static_assert(kCtlHeadWordOffset == 84);
static_assert(offsetof(MBUF_CONTROL_BLK_S, usUsedLen) == 88);
static_assert(offsetof(MBUF_CONTROL_BLK_S, usCapacity) == 90);
static_assert(offsetof(MBUF_CONTROL_BLK_S, astSlot) == 92);
static_assert(kCtlFixedLen == MBUF_CTL_FIXED_LEN);
static_assert(MBUF_CTL_FIXED_LEN + MBUF_CTL_INIT_CAPACITY == MBUF_CTLINFO_INLINE_LEN);
#if MBUF_HOST_BIG_ENDIAN
static_assert(offsetof(MBUF_CONTROL_BLK_S, ucBlkMark) == 84);
static_assert(offsetof(MBUF_CONTROL_BLK_S, ucRecNum) == 87);
#else
static_assert(offsetof(MBUF_CONTROL_BLK_S, ucRecNum) == 84);
static_assert(offsetof(MBUF_CONTROL_BLK_S, ucBlkMark) == 87);
#endif

}  // namespace krm
