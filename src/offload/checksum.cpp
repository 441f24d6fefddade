// Internet checksums over a packet's chain, taken in place: a range may be
// split at any byte, start at an odd address or cross empty nodes, and the
// result is the one the same bytes give in one flat run.
#include <cstring>

#include "internal/bytes.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "offload/csum_engine.h"
#include "offload/offload_internal.h"

namespace krm::offload {
namespace {

constexpr std::uint32_t kIpv6HdrLen = 40;
constexpr std::uint32_t kIpv6SrcOff = 8;
constexpr std::uint32_t kIpv6AddrLen = 16;
constexpr std::uint32_t kWideChainFrom = 256;

// The first node that holds byte ulOffset, and the offset inside it; an
// offset that ends exactly at a node's end starts at the next node, and
// empty nodes never hold a byte.
const MBUF_S *Seek(const MBUF_S *pstNode, std::uint32_t *pulOffset) {
    while (pstNode != nullptr && pstNode->ulDataLen <= *pulOffset) {
        *pulOffset -= pstNode->ulDataLen;
        pstNode = pstNode->pstNext;
    }
    return pstNode;
}

// Walks the range node by node, handing each run and its stream position to
// visit(run, count, position); returns the bytes the chain lacked.
template <class Visit>
std::uint32_t WalkRange(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                        Visit &&visit) {
    std::uint32_t ulPos = 0;
    for (const MBUF_S *n = Seek(pstMbuf, &ulOffset); n != nullptr && ulPos < ulLen;
         n = n->pstNext) {
        if (n->ulDataLen <= ulOffset) {
            continue;  // an empty node behind the first
        }
        std::uint32_t ulRun = n->ulDataLen - ulOffset;
        if (ulRun > ulLen - ulPos) {
            ulRun = ulLen - ulPos;
        }
        visit(n->pucData + ulOffset, ulRun, ulPos);
        ulPos += ulRun;
        ulOffset = 0;
    }
    return ulLen - ulPos;
}

// Adds eight big-endian words of a 16-byte address.
std::uint32_t SumAddress(const std::uint8_t *pucAddr) {
    std::uint32_t ulSum = 0;
    for (std::uint32_t i = 0; i < kIpv6AddrLen; i += 2) {
        ulSum += LoadBe16(pucAddr + i);
    }
    return ulSum;
}

}  // namespace

ChainSum SumChain(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen) {
    // Headers and other short ranges cost less node by node than the wide
    // walker's setting up and final reduction.
    ChainSum stWide{};
    if (ulLen >= kWideChainFrom && SumChainWide(pstMbuf, ulOffset, ulLen, &stWide)) {
        return stWide;
    }
    std::uint32_t ulSum = 0;
    const std::uint32_t ulMissing = WalkRange(
        pstMbuf, ulOffset, ulLen, [&](const std::uint8_t *p, std::uint32_t n, std::uint32_t pos) {
            ulSum = AddRun(ulSum, SumBytes(p, n), (pos & 1u) != 0);
        });
    return ChainSum{ulSum, ulMissing};
}

bool CopySumChain(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                  std::uint8_t *pucDst, std::uint32_t *pulSum) {
    ChainSum stWide{};
    if (CopySumChainWide(pstMbuf, ulOffset, ulLen, pucDst, &stWide)) {
        *pulSum = stWide.ulSum;
        return stWide.ulMissing == 0;
    }
    std::uint32_t ulSum = 0;
    const std::uint32_t ulMissing = WalkRange(
        pstMbuf, ulOffset, ulLen, [&](const std::uint8_t *p, std::uint32_t n, std::uint32_t pos) {
            ulSum = AddRun(ulSum, CopyAndSum(pucDst + pos, p, n), (pos & 1u) != 0);
        });
    *pulSum = ulSum;
    return ulMissing == 0;
}

std::uint32_t SumSegmentFrom(const SegmentView &view, std::uint32_t ulFrom) {
    const std::uint32_t ulHead = SumBytes(view.pucData + ulFrom, view.ulHdrLen - ulFrom);
    return AddRun(ulHead, view.ulPayloadSum, ((view.ulHdrLen - ulFrom) & 1u) != 0);
}

std::uint16_t Ipv6CheckSum(MBUF_S *pstMbuf, std::uint8_t ucNextHdr, std::uint32_t ulLen,
                           const MBUF_TSO_CTL_INFO_S *pstCtl, std::uint32_t ulModuleId,
                           const SegmentView *pView) {
    if (pstCtl == nullptr) {
        return 0;
    }
    const std::uint32_t ulIpOff = pstCtl->usIpOffset;
    const std::uint32_t ulDataOff = ulIpOff + pstCtl->usIpHdrLen;
    // A segment already lies contiguous: its header is read where it is and
    // its payload sum is reused when the range is exactly header-to-end.
    if (pView != nullptr && ulIpOff + kIpv6HdrLen <= pView->ulSegLen &&
        ulDataOff <= pView->ulHdrLen && ulDataOff + ulLen == pView->ulSegLen) {
        const std::uint32_t ulPh =
            MBUF_IPV6_CheckSumPH(pView->pucData + ulIpOff, ulLen, ucNextHdr, pstCtl);
        return Complement(Fold16(std::uint64_t{ulPh} + SumSegmentFrom(*pView, ulDataOff)));
    }
    const std::uint8_t *pucHdr = MBUF_MakeMemoryContinuous_fl(
        pstMbuf, static_cast<std::int32_t>(ulIpOff), static_cast<std::int32_t>(kIpv6HdrLen),
        ulModuleId, "MBUF_IPv6_CheckSum", 168);
    if (pucHdr == nullptr) {
        return 0;
    }
    const std::uint32_t ulPh = MBUF_IPV6_CheckSumPH(pucHdr, ulLen, ucNextHdr, pstCtl);
    const ChainSum data = SumChain(pstMbuf, ulDataOff, ulLen);
    if (data.ulMissing != 0) {
        Report(kModKrmMbufTso, 205, "out of data %u", data.ulMissing);
    }
    return Complement(Fold16(std::uint64_t{ulPh} + data.ulSum));
}

}  // namespace krm::offload

using namespace krm;
using namespace krm::offload;

extern "C" {

uint16_t MBUF_CalcCheckSumFromOffset(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulOffset) {
    if (pstMbuf == nullptr || ulLen == 0) {
        return 0xFFFF;
    }
    return Complement(SumChain(pstMbuf, ulOffset, ulLen).ulSum);
}

uint16_t MBUF_CalcCheckSum(MBUF_S *pstMbuf, uint32_t ulLen) {
    return MBUF_CalcCheckSumFromOffset(pstMbuf, ulLen, 0);
}

uint16_t MBUF_CheckSum(MBUF_S *pstMbuf, uint32_t ulLen) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return 0;
    }
    return MBUF_CalcCheckSum(pstMbuf, ulLen);
}

uint16_t MBUF_CheckSum_Off(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return 0;
    }
    // Compared in 64 bits: an offset and length that wrap 32 bits are refused
    // like any other range past the end.
    const std::uint64_t ullEnd = std::uint64_t{ulOffset} + ulLen;
    if (pstMbuf->ulTotalDataLen < ulOffset || pstMbuf->ulTotalDataLen < ullEnd) {
        return 0;
    }
    return MBUF_CalcCheckSumFromOffset(pstMbuf, ulLen, ulOffset);
}

uint32_t MBUF_IPV6_CheckSumPH(const uint8_t *pucIpv6Hdr, uint32_t ulLen, uint8_t ucNextHdr,
                              const MBUF_TSO_CTL_INFO_S *pstCtl) {
    if (pucIpv6Hdr == nullptr || pstCtl == nullptr) {
        return 0;
    }
    // The pseudo-header: source address of the packet, destination address of
    // the control record (the segmentation TLV's, deliberately not the
    // header's), the 32-bit length, three zero bytes and the next header.
    std::uint8_t aucPh[kIpv6HdrLen];
    (void)memset_s(aucPh + 2 * kIpv6AddrLen, 8, 0, 8);
    std::memcpy(aucPh, pucIpv6Hdr + kIpv6SrcOff, kIpv6AddrLen);
    std::uint32_t ulSum = SumAddress(aucPh);
    const int rc = memcpy_s(aucPh + kIpv6AddrLen, kIpv6AddrLen, pstCtl->aucDstAddr, kIpv6AddrLen);
    if (rc != 0) {
        Report(kModKrmMbufTso, 121, "%d memcpy_s", rc);
    }
    ulSum += SumAddress(aucPh + kIpv6AddrLen);
    StoreBe32(aucPh + 2 * kIpv6AddrLen, ulLen);
    aucPh[kIpv6HdrLen - 1] = ucNextHdr;
    ulSum += (ulLen >> 16) + (ulLen & 0xFFFFu);
    ulSum += 0u + ucNextHdr;
    return ulSum;
}

uint16_t MBUF_IPv6_CheckSum(MBUF_S *pstMbuf, uint8_t ucNextHdr, uint32_t ulRsv, uint32_t ulLen,
                            const MBUF_TSO_CTL_INFO_S *pstCtl, uint32_t ulModuleId) {
    (void)ulRsv;
    return Ipv6CheckSum(pstMbuf, ucNextHdr, ulLen, pstCtl, ulModuleId, nullptr);
}

}  // extern "C"
