// Cutting one large TCP packet into segments. The header is copied once
// into a local 512-byte copy; each segment is created at its exact length,
// filled by two copies (header, then payload straight out of the source's
// chain, summed on the way) and then has its TCP/IP fields adjusted. The
// source is consumed only when every segment was made.
#include <cstdint>
#include <cstring>

#include "internal/bytes.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "offload/csum_engine.h"
#include "offload/offload_internal.h"

namespace krm::offload {
namespace {

constexpr std::uint32_t kRecTransmit = 7;  // transmit information record
constexpr std::uint32_t kTransmitLenOff = 2;

// Header length of a segment, counted in 16 bits as the record's fields are.
std::uint32_t HeaderLen(const MBUF_TSO_CTL_INFO_S &stCtl) {
    return static_cast<std::uint16_t>(stCtl.usIpOffset + stCtl.usIpHdrLen + stCtl.usTcpHdrLen);
}

// Destroys the segments of a failed batch; the caller's array keeps no
// pointer to freed memory.
void RollBack(MBUF_S **ppstSegs, std::uint32_t ulUpTo) {
    for (std::uint32_t j = 0; j <= ulUpTo; ++j) {
        MBUF_Destroy_fl(ppstSegs[j], "MBUF_TSO_GetMbuf", 412);
        ppstSegs[j] = nullptr;
    }
}

// The segment takes its source's packet header and metadata, then its own
// length; a transmit record learns the new length too. False when the
// metadata could not be copied: a segment without its source's records is
// not the segment asked for, so the batch fails like on any other shortage.
bool TakeSourceHeader(MBUF_S *pstSeg, MBUF_S *pstSrc, std::uint32_t ulSegLen,
                      std::uint32_t ulModuleId) {
    const MBUF_FILE_LINE_S stFl{"MBUF_TSO_CpyDataAndModifyInfo", 456};
    if (MBUF_DuplicatePktHdr(pstSeg, pstSrc, ulModuleId, &stFl) == 0) {
        return false;
    }
    pstSeg->ulTotalDataLen = ulSegLen;
    void *pRec = MBUF_GetControlInfo(pstSeg, kRecTransmit);
    if (pRec != nullptr && MBUF_GetControlLen(pstSeg, kRecTransmit) >= kTransmitLenOff + 2) {
        Store16At(pRec, kTransmitLenOff, static_cast<std::uint16_t>(ulSegLen));
    }
    return true;
}

// A payload sum taken before the header step still holds when every byte
// that step writes lies in the header: the TCP sequence number and
// checksum, and the 20 bytes of pseudo-header laid over the IP header.
bool ViewHoldsChanges(const MBUF_TSO_CTL_INFO_S &stCtl, std::uint32_t ulHdrLen) {
    const std::uint32_t ulIpOff = stCtl.usIpOffset;
    const std::uint32_t ulTcpOff = ulIpOff + stCtl.usIpHdrLen;
    return ulHdrLen >= ulIpOff && ulTcpOff + 18 <= ulHdrLen && ulIpOff + 20 <= ulHdrLen;
}

// The TCP checksum of an IPv4 segment: the first ulIpHdrLen (at most 60)
// header bytes are cleared and overlaid with a pseudo-header whose length
// takes the IPv4 header as 20 bytes even when it is longer (kept: peers
// compute the same), summed through to the segment's end, then restored.
std::uint16_t Ipv4TcpCheckSum(MBUF_S *pstSeg, std::uint8_t *pucSeg, std::uint32_t ulSegLen,
                              const MBUF_TSO_CTL_INFO_S &stCtl, const std::uint32_t *pulPaySum) {
    const std::uint32_t ulIpOff = stCtl.usIpOffset;
    std::uint8_t *pucIp = pucSeg + ulIpOff;
    const std::uint32_t ulSaved = stCtl.usIpHdrLen < 60u ? stCtl.usIpHdrLen : 60u;
    std::uint8_t aucSaved[60];
    const std::uint8_t ucProto = pucIp[9];
    const std::uint32_t ulSrc = LoadBe32(pucIp + 12);
    std::memcpy(aucSaved, pucIp, ulSaved);
    std::memset(pucIp, 0, ulSaved);
    StoreBe16(pucIp + 2, static_cast<std::uint16_t>(ulSegLen - ulIpOff - 20));
    pucIp[9] = ucProto;
    StoreBe32(pucIp + 12, ulSrc);
    std::memcpy(pucIp + 16, stCtl.aucDstAddr, 4);
    std::uint16_t usSum = 0;
    if (pstSeg->ulTotalDataLen >= ulSegLen) {
        const std::uint32_t ulHdrLen = HeaderLen(stCtl);
        const SegmentView view{pucSeg, ulSegLen, ulHdrLen, pulPaySum != nullptr ? *pulPaySum : 0};
        usSum = pulPaySum != nullptr && ViewHoldsChanges(stCtl, ulHdrLen)
                    ? Complement(SumSegmentFrom(view, ulIpOff))
                    : MBUF_CheckSum_Off(pstSeg, ulIpOff, ulSegLen - ulIpOff);
    }
    const int rc = memcpy_s(pucIp, ulSaved, aucSaved, ulSaved);
    if (rc != 0) {
        Report(kModKrmMbufTso, 521, "%u", static_cast<std::uint32_t>(rc));
    }
    return usSum;
}

// Total length, identification (one more per MSS of payload before this
// segment) and the header checksum of an IPv4 segment.
void AdjustIpv4(MBUF_S *pstSeg, std::uint8_t *pucIp, std::uint32_t ulSegLen, std::uint32_t ulBefore,
                const MBUF_TSO_CTL_INFO_S &stCtl) {
    StoreBe16(pucIp + 2, static_cast<std::uint16_t>(ulSegLen - stCtl.usIpOffset));
    const std::uint32_t ulStep = stCtl.usMss == 0 ? 0 : ulBefore / stCtl.usMss;
    StoreBe16(pucIp + 4, static_cast<std::uint16_t>(LoadBe16(pucIp + 4) + ulStep));
    StoreBe16(pucIp + 10, 0);
    // The checked chain sum of the header, read where it lies when the
    // segment's contiguous bytes hold it (they do for every segment cut here).
    const std::uint32_t ulIpEnd = std::uint32_t{stCtl.usIpOffset} + stCtl.usIpHdrLen;
    const bool bHere = (pstSeg->ulFlag & MBUF_PKTHDR) != 0 && ulIpEnd <= ulSegLen &&
                       ulIpEnd <= pstSeg->ulTotalDataLen;
    StoreBe16(pucIp + 10, bHere ? Complement(SumBytes(pucIp, stCtl.usIpHdrLen))
                                : MBUF_CheckSum_Off(pstSeg, stCtl.usIpOffset, stCtl.usIpHdrLen));
}

// The IPv4 header step of a segment filled from a header copy, its fields
// and both checksums computed from the copy; false (nothing written) where
// the segment's bytes must be read as the step leaves them.
bool Ipv4FromCopy(const MBUF_S *pstSeg, std::uint8_t *pucSeg, const SegmentCut &stCut) {
    const MBUF_TSO_CTL_INFO_S &stCtl = *stCut.pstCtl;
    Ipv4Sums stSums{};
    if (stCut.pucHdr == nullptr || pstSeg->ulTotalDataLen < stCut.ulSegLen ||
        (pstSeg->ulFlag & MBUF_PKTHDR) == 0 || !ViewHoldsChanges(stCtl, HeaderLen(stCtl))) {
        return false;
    }
    if (!Ipv4SumsFromCopy(stCut, &stSums)) {
        return false;
    }
    std::uint8_t *pucIp = pucSeg + stCtl.usIpOffset;
    StoreBe16(pucIp + stCtl.usIpHdrLen + 16, stSums.usTcp);
    StoreBe16(pucIp + 2, stSums.usTotalLen);
    StoreBe16(pucIp + 4, stSums.usId);
    StoreBe16(pucIp + 10, stSums.usIp);
    return true;
}

std::int32_t CpyData(MBUF_S *pstSrc, const MBUF_TSO_CPY_CTX_S &stCtx, std::uint32_t ulModuleId) {
    const std::uint32_t ulSegLen = stCtx.ulSegLen;
    std::uint8_t *pucSeg =
        MBUF_MakeMemoryContinuous_fl(stCtx.pstSeg, 0, static_cast<std::int32_t>(ulSegLen),
                                     ulModuleId, "MBUF_TSO_CpyDataAndModifyInfo", 437);
    if (pucSeg == nullptr) {
        Report(kModKrmMbufTso, 439, "H=%x l=%u", ulModuleId, ulSegLen);
        return -1;
    }
    const std::uint32_t ulHdrLen = HeaderLen(*stCtx.pstCtl);
    const std::uint32_t ulSrcOff = stCtx.ulSrcOffset;
    // The header must fit the segment and the payload must lie inside the
    // source, both as its length says and as its chain holds it.
    const bool bFits = ulHdrLen <= ulSegLen && pstSrc != nullptr &&
                       (pstSrc->ulFlag & MBUF_PKTHDR) != 0 &&
                       std::uint64_t{ulSrcOff} + (ulSegLen - ulHdrLen) <= pstSrc->ulTotalDataLen;
    const int rc = bFits ? memcpy_s(pucSeg, ulSegLen, stCtx.pucHdr, ulHdrLen) : 0;
    if (rc != 0) {
        Report(kModKrmMbufTso, 446, "%u", static_cast<std::uint32_t>(rc));
    }
    std::uint32_t ulPaySum = 0;
    if (!bFits ||
        !CopySumChain(pstSrc, ulSrcOff, ulSegLen - ulHdrLen, pucSeg + ulHdrLen, &ulPaySum)) {
        Report(kModKrmMbufTso, 450, "l=%u o=%u", ulSegLen - ulHdrLen, ulSrcOff);
        return -1;
    }
    if (!TakeSourceHeader(stCtx.pstSeg, pstSrc, ulSegLen, ulModuleId)) {
        return -1;
    }
    return AdjustTcpIpHdr(stCtx.pstSeg, ulSegLen, ulSrcOff, stCtx.pstCtl, ulModuleId, &ulPaySum,
                          rc == 0 ? stCtx.pucHdr : nullptr);
}

}  // namespace

std::int32_t AdjustTcpIpHdr(MBUF_S *pstSeg, std::uint32_t ulSegLen, std::uint32_t ulSrcOffset,
                            const MBUF_TSO_CTL_INFO_S *pstCtl, std::uint32_t ulModuleId,
                            const std::uint32_t *pulPayloadSum, const std::uint8_t *pucHdrCopy) {
    if (pstCtl == nullptr) {
        return -1;
    }
    std::uint8_t *pucSeg = MBUF_MakeMemoryContinuous_fl(
        pstSeg, 0, static_cast<std::int32_t>(ulSegLen), ulModuleId, "MBUF_TSO_AdjustTcpIpHdr", 488);
    const std::uint32_t ulHdrLen = HeaderLen(*pstCtl);
    const std::uint32_t ulIpOff = pstCtl->usIpOffset;
    const std::uint32_t ulTcpOff = ulIpOff + pstCtl->usIpHdrLen;
    // Every field written below must lie inside the segment's bytes.
    if (pucSeg == nullptr || ulHdrLen > ulSegLen || ulTcpOff + 18 > ulSegLen) {
        return -1;
    }
    const std::uint32_t ulVersion = pucSeg[ulIpOff] >> 4;
    if (ulVersion == 4 && ulIpOff + 20 > ulSegLen) {
        return -1;
    }
    const std::uint32_t ulBefore = ulSrcOffset - ulHdrLen;
    std::uint8_t *pucTcp = pucSeg + ulTcpOff;
    StoreBe16(pucTcp + 16, 0);
    StoreBe32(pucTcp + 4, LoadBe32(pucTcp + 4) + ulBefore);
    std::uint8_t *pucIp = pucSeg + ulIpOff;
    if (ulVersion == 4) {
        if (pulPayloadSum == nullptr ||
            !Ipv4FromCopy(pstSeg, pucSeg,
                          SegmentCut{pstCtl, pucHdrCopy, ulSegLen, ulBefore, *pulPayloadSum})) {
            StoreBe16(pucTcp + 16,
                      Ipv4TcpCheckSum(pstSeg, pucSeg, ulSegLen, *pstCtl, pulPayloadSum));
            AdjustIpv4(pstSeg, pucIp, ulSegLen, ulBefore, *pstCtl);
        }
    } else if (ulVersion == 6) {
        const std::uint32_t ulLen =
            static_cast<std::uint16_t>(ulSegLen - ulIpOff - pstCtl->usIpHdrLen);
        StoreBe16(pucIp + 4, static_cast<std::uint16_t>(ulLen));
        const SegmentView view{pucSeg, ulSegLen, ulHdrLen,
                               pulPayloadSum != nullptr ? *pulPayloadSum : 0};
        const bool bView = pulPayloadSum != nullptr && pstSeg->ulTotalDataLen >= ulSegLen &&
                           ViewHoldsChanges(*pstCtl, ulHdrLen);
        StoreBe16(pucTcp + 16,
                  Ipv6CheckSum(pstSeg, 6, ulLen, pstCtl, ulModuleId, bView ? &view : nullptr));
    }
    return 0;
}

}  // namespace krm::offload

using namespace krm;
using namespace krm::offload;

extern "C" {

uint32_t MBUF_TSO_CpyHdr(MBUF_S *pstMbuf, uint32_t ulHdrLen, uint8_t *pucHdr, uint32_t *pulTotalLen,
                         uint32_t ulModuleId) {
    const std::uint32_t ulTotal = MBUF_GetTotalDataLength(pstMbuf);
    if (pstMbuf == nullptr || ulTotal < ulHdrLen) {
        return MBUF_ERR_LENGTH;
    }
    const std::uint8_t *pucSrc = MBUF_MakeMemoryContinuous_fl(
        pstMbuf, 0, static_cast<std::int32_t>(ulHdrLen), ulModuleId, "MBUF_TSO_CpyHdr", 356);
    if (pucSrc == nullptr || pucHdr == nullptr || pulTotalLen == nullptr) {
        return MBUF_ERR_NO_DATA;
    }
    std::memcpy(pucHdr, pucSrc, ulHdrLen);
    *pulTotalLen = ulTotal;
    return MBUF_OK;
}

int32_t MBUF_TSO_CpyDataAndModifyInfo(MBUF_S *pstMbuf, MBUF_TSO_CPY_CTX_S *pstCtx,
                                      uint32_t ulModuleId) {
    if (pstCtx == nullptr || pstCtx->pucHdr == nullptr || pstCtx->pstCtl == nullptr) {
        return -1;
    }
    return CpyData(pstMbuf, *pstCtx, ulModuleId);
}

int32_t MBUF_TSO_AdjustTcpIpHdr(MBUF_S *pstSeg, uint32_t ulSegLen, uint32_t ulSrcOffset,
                                const MBUF_TSO_CTL_INFO_S *pstCtl, uint32_t ulModuleId) {
    return AdjustTcpIpHdr(pstSeg, ulSegLen, ulSrcOffset, pstCtl, ulModuleId, nullptr, nullptr);
}

uint32_t MBUF_TSO_GetMbuf(MBUF_S *pstMbuf, MBUF_S **ppstSegs, uint32_t ulArraySize,
                          uint32_t *pulSegCount, uint32_t ulModuleId) {
    // The array counts whole pointers of this build: an array too small for
    // one is refused like one of 3 bytes or less.
    MBUF_TSO_CTL_INFO_S stCtl{};
    if (ppstSegs == nullptr || ulArraySize <= 3 || ulArraySize < sizeof(MBUF_S *) ||
        pulSegCount == nullptr || MBUF_TSO_GetCtlInfo(pstMbuf, &stCtl) != MBUF_OK) {
        return MBUF_ERR_BAD_ARG;
    }
    *pulSegCount = 0;
    const std::uint32_t ulHdrLen = HeaderLen(stCtl);
    if (ulHdrLen > MBUF_TSO_MAX_HDR_LEN) {
        return MBUF_ERR_CANNOT_PROCEED;
    }
    std::uint8_t aucHdr[MBUF_TSO_MAX_HDR_LEN];
    std::uint32_t ulTotal = 0;
    const std::uint32_t rc = MBUF_TSO_CpyHdr(pstMbuf, ulHdrLen, aucHdr, &ulTotal, ulModuleId);
    if (rc != MBUF_OK) {
        return rc;
    }
    const std::uint32_t ulCapacity = ulArraySize / static_cast<std::uint32_t>(sizeof(MBUF_S *));
    std::uint32_t ulLeft = ulTotal - ulHdrLen;
    MBUF_TSO_CPY_CTX_S stCtx{ulHdrLen, nullptr, 0, aucHdr, &stCtl};
    for (std::uint16_t i = 0; stCtl.usSegNum != 0 && ulLeft != 0;) {
        const std::uint32_t ulTake = stCtl.usMss < ulLeft ? stCtl.usMss : ulLeft;
        ulLeft -= ulTake;
        stCtx.ulSegLen = ulHdrLen + ulTake;
        stCtx.pstSeg =
            MBUF_CreateForAppPacket_fl(0, stCtx.ulSegLen, 0, ulModuleId, "MBUF_TSO_GetMbuf", 398);
        ppstSegs[i] = stCtx.pstSeg;
        const std::int32_t lRc = CpyData(pstMbuf, stCtx, ulModuleId);
        ++*pulSegCount;
        if (lRc != 0) {
            *pulSegCount = 0;
            RollBack(ppstSegs, i);
            return static_cast<std::uint32_t>(lRc);
        }
        stCtx.ulSrcOffset += stCtl.usMss;
        ++i;
        if (i == ulCapacity || i == stCtl.usSegNum) {
            break;
        }
    }
    MBUF_Destroy_fl(pstMbuf, "MBUF_TSO_GetMbuf", 421);
    return MBUF_OK;
}

}  // extern "C"
