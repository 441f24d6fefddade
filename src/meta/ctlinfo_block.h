// The control-information block as the metadata code sees it: the fixed part
// (common record, the four head bytes, lengths, the 23-slot directory) is
// read through the structure, which is always aligned; records sit at any
// offset behind it and are read and written only through the byte helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/node.h"
#include "internal/bytes.h"
#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::ctl {

inline constexpr std::uint32_t kFixedLen = MBUF_CTL_FIXED_LEN;
inline constexpr std::uint32_t kMaxType = MBUF_CTL_TYPE_NUM - 1;
inline constexpr std::uint32_t kInitCapacity = MBUF_CTL_INIT_CAPACITY;
inline constexpr std::uint32_t kBlockLen = MBUF_CTLINFO_INLINE_LEN;
inline constexpr std::uint32_t kTlvHeadLen = MBUF_CTL_TLV_REC_HEAD_LEN;
inline constexpr std::uint32_t kSubTlvHeadLen = sizeof(MBUF_CTL_TLV_S);
// Where a TLV record keeps its list length, and a sub-TLV its value length.
inline constexpr std::uint32_t kListLenOffset = 2;
inline constexpr std::uint32_t kSubLenOffset = 2;
inline constexpr std::uint32_t kMaxListLen = 0xFFFF;

static_assert(sizeof(MBUF_CTL_SLOT_S) == 4 && sizeof(MBUF_CTL_TLV_S) == 4);
static_assert(offsetof(MBUF_CTL_SLOT_S, usLen) == 2 && offsetof(MBUF_CTL_TLV_S, usLen) == 2);
static_assert(offsetof(MBUF_CONTROL_BLK_S, astSlot) + MBUF_CTL_TYPE_NUM * 4 == kFixedLen);
static_assert(sizeof(MBUF_CONTROL_BLK_S) == kFixedLen && kFixedLen + kInitCapacity == kBlockLen);
static_assert(sizeof(MBUF_CTLINFO_AREA_U) == kBlockLen);
static_assert(alignof(MBUF_CONTROL_BLK_S) <= 4, "the block sits at offset 40 of a node");
static_assert(offsetof(MBUF_S, stCtlInfo) % alignof(MBUF_CONTROL_BLK_S) == 0);

// The block of a packet head; NULL for NULL, a node without MBUF_PKTHDR, or
// a head without block.
inline MBUF_CONTROL_BLK_S *BlockOf(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return nullptr;
    }
    return pstMbuf->pstCtlInfo;
}

inline std::uint8_t *Bytes(MBUF_CONTROL_BLK_S *pstBlk) {
    return reinterpret_cast<std::uint8_t *>(pstBlk);
}

// The record of a type, or NULL when its slot is empty.
inline std::uint8_t *Record(MBUF_CONTROL_BLK_S *pstBlk, std::uint32_t ulType) {
    const std::uint16_t usOffset = pstBlk->astSlot[ulType].usOffset;
    return usOffset == 0 ? nullptr : Bytes(pstBlk) + usOffset;
}

// The bytes a packet's block really has, whatever its head or slots claim:
// the head node's inline area, or the pipe buffer the block lives in as the
// platform knows it. A buffer the platform reports as 0 bytes long has no
// room at all. Every read and write of a record is bounded by this, never by
// a slot length or a list length, which are the block's own account.
inline std::uint32_t MemLen(const MBUF_S *pstMbuf) {
    if (HasInlineCtlBlock(pstMbuf)) {
        return kBlockLen;
    }
    return KRM_DbufLengthGET(pstMbuf->pstCtlInfo);
}

// Bytes of the block's memory from pucAt on; 0 when pucAt lies outside it.
inline std::uint32_t RoomFrom(const MBUF_S *pstMbuf, const void *pucAt) {
    const auto uiStart = reinterpret_cast<std::uintptr_t>(pstMbuf->pstCtlInfo);
    const auto uiAt = reinterpret_cast<std::uintptr_t>(pucAt);
    const std::uint32_t ulMem = MemLen(pstMbuf);
    if (uiAt < uiStart || uiAt - uiStart >= ulMem) {
        return 0;
    }
    return ulMem - static_cast<std::uint32_t>(uiAt - uiStart);
}

// True when ullWidth bytes at pucAt lie inside the block's memory.
inline bool InMem(const MBUF_S *pstMbuf, const void *pucAt, std::uint64_t ullWidth) {
    return ullWidth <= RoomFrom(pstMbuf, pucAt);
}

// Every writer of the block stamps its head so that a receiver knows whose
// byte order the block is in.
inline void StampHead(MBUF_CONTROL_BLK_S *pstBlk) {
    pstBlk->ucBlkMark = MBUF_CTL_BLK_MARK;
    pstBlk->ucByteOrder = MBUF_BYTEORDER_HOST;
    pstBlk->ucSlotNum = MBUF_CTL_TYPE_NUM;
}

// A fresh block's fixed part: the common record clear but for path id and
// socket id ("none"), the head stamped, nothing used, the inline capacity,
// every slot empty. Initialising a block is one copy of these 184 bytes.
inline constexpr MBUF_CONTROL_BLK_S kFreshBlock = [] {
    MBUF_CONTROL_BLK_S stBlk{};
    stBlk.stComm.ulPathId = 0xFFFFFFFFu;
    stBlk.stComm.ulSocketId = 0xFFFFFFFFu;
    stBlk.ucBlkMark = MBUF_CTL_BLK_MARK;
    stBlk.ucByteOrder = MBUF_BYTEORDER_HOST;
    stBlk.ucSlotNum = MBUF_CTL_TYPE_NUM;
    stBlk.usCapacity = kInitCapacity;
    return stBlk;
}();

inline void InitFreshBlock(MBUF_CONTROL_BLK_S *pstBlk) {
    std::memcpy(pstBlk, &kFreshBlock, sizeof(kFreshBlock));
}

// ---- TLV records (types 1, 20, 22) ------------------------------------------

inline std::uint16_t ListLen(const std::uint8_t *pucRec) {
    return Load16At(pucRec, kListLenOffset);
}
inline void SetListLen(std::uint8_t *pucRec, std::uint16_t usLen) {
    Store16At(pucRec, kListLenOffset, usLen);
}
inline std::uint16_t SubType(const std::uint8_t *pucTlv) {
    return Load16(pucTlv);
}
inline std::uint16_t SubLen(const std::uint8_t *pucTlv) {
    return Load16At(pucTlv, kSubLenOffset);
}
inline MBUF_CTL_TLV_S *AsTlv(std::uint8_t *pucTlv) {
    // Sub-TLVs are packed without padding, so the result may be unaligned;
    // the library itself reads sub-TLVs only through byte loads.
    return static_cast<MBUF_CTL_TLV_S *>(static_cast<void *>(pucTlv));
}

// A search over a TLV record: the sub-TLV of usType (and of value length
// usLen when bMatchLen), or NULL. A sub-TLV that claims more than the list
// holds is reported with ulLine of krm_mbuf.
std::uint8_t *FindSubTlv(MBUF_S *pstMbuf, std::uint32_t ulRecType, std::uint16_t usType,
                         bool bMatchLen, std::uint16_t usLen, std::uint32_t ulLine);

}  // namespace krm::ctl
