// What the checksum and segmentation files share: the in-place chain sum,
// the copy that sums as it goes, and the view of a filled segment that lets
// the header step reuse the payload's sum instead of reading it again.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm::offload {

// Folded big-endian sum of a chain range, and how many bytes of the range
// the chain did not have.
struct ChainSum {
    std::uint32_t ulSum;
    std::uint32_t ulMissing;
};

// Sums ulLen bytes from ulOffset along the chain, in place; empty nodes and
// any split are taken as they come.
ChainSum SumChain(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen);

// Copies ulLen bytes from ulOffset of the chain to pucDst and stores their
// folded sum; false (nothing promised about pucDst) when the chain ends
// first.
bool CopySumChain(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                  std::uint8_t *pucDst, std::uint32_t *pulSum);

// The same two on the CPU's widest chain walker; false (nothing done) where
// this machine has none.
bool SumChainWide(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                  ChainSum *pstSum);
bool CopySumChainWide(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                      std::uint8_t *pucDst, ChainSum *pstSum);

// The stored checksum: the complement of the folded sum.
inline std::uint16_t Complement(std::uint32_t ulFolded) {
    return static_cast<std::uint16_t>(~ulFolded & 0xFFFFu);
}

// A segment whose first ulSegLen bytes lie contiguous at pucData and whose
// bytes from ulHdrLen on (the payload) sum to ulPayloadSum.
struct SegmentView {
    const std::uint8_t *pucData;
    std::uint32_t ulSegLen;
    std::uint32_t ulHdrLen;
    std::uint32_t ulPayloadSum;
};

// The folded sum of segment bytes [ulFrom, ulSegLen), header bytes read,
// payload taken from the view.
std::uint32_t SumSegmentFrom(const SegmentView &view, std::uint32_t ulFrom);

// MBUF_IPv6_CheckSum, reusing the payload sum of pView when it covers
// exactly the upper-layer range (pView may be NULL).
std::uint16_t Ipv6CheckSum(MBUF_S *pstMbuf, std::uint8_t ucNextHdr, std::uint32_t ulLen,
                           const MBUF_TSO_CTL_INFO_S *pstCtl, std::uint32_t ulModuleId,
                           const SegmentView *pView);

// One segment of a cut: the header copy its header bytes came from (NULL
// when unknown), its length, the payload bytes before it and its payload's
// folded sum.
struct SegmentCut {
    const MBUF_TSO_CTL_INFO_S *pstCtl;
    const std::uint8_t *pucHdr;
    std::uint32_t ulSegLen;
    std::uint32_t ulBefore;
    std::uint32_t ulPaySum;
};

// The fields and checksums an IPv4 segment's header gets.
struct Ipv4Sums {
    std::uint16_t usTotalLen;
    std::uint16_t usId;
    std::uint16_t usTcp;
    std::uint16_t usIp;
};

// The IPv4 segment's fields and checksums from its header copy; false when
// the header's shape (or an all-ones sum) needs the segment's own bytes.
bool Ipv4SumsFromCopy(const SegmentCut &stCut, Ipv4Sums *pstSums);

// MBUF_TSO_AdjustTcpIpHdr with an optional payload sum and the header copy
// the segment's header bytes came from (either may be NULL).
std::int32_t AdjustTcpIpHdr(MBUF_S *pstSeg, std::uint32_t ulSegLen, std::uint32_t ulSrcOffset,
                            const MBUF_TSO_CTL_INFO_S *pstCtl, std::uint32_t ulModuleId,
                            const std::uint32_t *pulPayloadSum, const std::uint8_t *pucHdrCopy);

}  // namespace krm::offload
