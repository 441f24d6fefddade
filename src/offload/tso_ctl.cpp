// The segmentation TLV and the control record read from it. The TLV is one
// of the library's own records: its fields are host order and are read and
// written at their offsets from the TLV's start, where MBUF_GetTlvInfo may
// hand back an unaligned address.
#include <cstddef>
#include <cstdint>

#include "internal/bytes.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace {

static_assert(sizeof(MBUF_TSO_TLV_S) == 4 + MBUF_TSO_TLV_LEN);
static_assert(sizeof(MBUF_TSO_CTL_INFO_S) == 28);

// Field offsets from the TLV's start (its 4-byte head at 0).
constexpr std::uint32_t kPayloadLen = 4;
constexpr std::uint32_t kTcpHdrLen = 6;
constexpr std::uint32_t kIpHdrLen = 8;
constexpr std::uint32_t kMss = 10;
constexpr std::uint32_t kTotalLen = 12;
constexpr std::uint32_t kDstAddr = 20;
static_assert(offsetof(MBUF_TSO_TLV_S, usPayloadLen) == kPayloadLen);
static_assert(offsetof(MBUF_TSO_TLV_S, usTcpHdrLen) == kTcpHdrLen);
static_assert(offsetof(MBUF_TSO_TLV_S, usIpHdrLen) == kIpHdrLen);
static_assert(offsetof(MBUF_TSO_TLV_S, usMss) == kMss);
static_assert(offsetof(MBUF_TSO_TLV_S, usTotalLen) == kTotalLen);
static_assert(offsetof(MBUF_TSO_TLV_S, aucDstAddr) == kDstAddr);

std::uint8_t *FindTsoTlv(MBUF_S *pstMbuf) {
    const MBUF_CTL_TLV_S stKey{MBUF_TSO_TLV_TYPE, MBUF_TSO_TLV_LEN};
    return reinterpret_cast<std::uint8_t *>(MBUF_GetTlvInfo(pstMbuf, &stKey));
}

}  // namespace

using namespace krm;

extern "C" {

void MBUF_TCP_TSO_UpdateMssTlv(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr) {
        return;
    }
    std::uint8_t *pucTlv = FindTsoTlv(pstMbuf);
    if (pucTlv == nullptr) {
        Report(kModKrmMbufTso, 262, "Tso tlv is null.");
        return;
    }
    const std::uint32_t ulTotal = MBUF_GetTotalDataLength(pstMbuf);
    const std::uint32_t ulPayload = Load16At(pucTlv, kPayloadLen);
    const std::uint32_t ulTcpHdr = Load16At(pucTlv, kTcpHdrLen);
    if (ulPayload >= ulTotal) {
        Report(kModKrmMbufTso, 269, "Tso tlv pl%u>=tl=%u", ulPayload, ulTotal);
        return;
    }
    if (ulPayload + ulTcpHdr >= ulTotal) {
        Report(kModKrmMbufTso, 275, "Tso tlv pl%u + TIl=%u >=tl=%u", ulPayload, ulTcpHdr, ulTotal);
        return;
    }
    const std::uint32_t ulIpPart = ulTotal - (ulPayload + ulTcpHdr);
    const std::uint32_t ulIpHdr = Load16At(pucTlv, kIpHdrLen);
    if (ulIpHdr > ulIpPart) {
        // The text names the two values the other way round from the test;
        // kept so that logs read as they always have.
        Report(kModKrmMbufTso, 282, "IpLen=%u > OIplen=%u", ulIpPart, ulIpHdr);
        return;
    }
    Store16At(pucTlv, kIpHdrLen, static_cast<std::uint16_t>(ulIpPart));
    const std::uint32_t ulTlvTotal = Load16At(pucTlv, kTotalLen);
    if (ulTlvTotal > ulTotal) {
        Report(kModKrmMbufTso, 289, "TLen=%u < OTlen=%u", ulTotal, ulTlvTotal);
        return;
    }
    Store16At(pucTlv, kTotalLen, static_cast<std::uint16_t>(ulTotal));
}

uint32_t MBUF_TSO_GetCtlInfo(MBUF_S *pstMbuf, MBUF_TSO_CTL_INFO_S *pstCtl) {
    if (pstMbuf == nullptr || pstCtl == nullptr) {
        Report(kModKrmMbufTso, 305, "Ctl is null.");
        return MBUF_ERR_NULL_MBUF;
    }
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const std::uint8_t *pucTlv = FindTsoTlv(pstMbuf);
    if (pucTlv == nullptr) {
        Report(kModKrmMbufTso, 316, "Tso tlv is null.");
        return MBUF_ERR_NOT_FOUND;
    }
    pstCtl->usIpHdrLen = Load16At(pucTlv, kIpHdrLen);
    pstCtl->usTcpHdrLen = Load16At(pucTlv, kTcpHdrLen);
    pstCtl->usMss = Load16At(pucTlv, kMss);
    const int rc = memcpy_s(pstCtl->aucDstAddr, sizeof(pstCtl->aucDstAddr), pucTlv + kDstAddr,
                            sizeof(pstCtl->aucDstAddr));
    if (rc != 0) {
        Report(kModKrmMbufTso, 325, "Ret=%d", rc);
    }
    const std::uint32_t ulTotal = MBUF_GetTotalDataLength(pstMbuf);
    const std::uint32_t ulTlvTotal = Load16At(pucTlv, kTotalLen);
    if (ulTlvTotal > ulTotal) {
        Report(kModKrmMbufTso, 331, "Len IpTlen=%u>Tlen=%u.", ulTlvTotal, ulTotal);
        return MBUF_ERR_LENGTH;
    }
    pstCtl->usIpOffset = static_cast<std::uint16_t>(ulTotal - ulTlvTotal);
    // A zero MSS cuts nothing: no segment count rather than a division by
    // zero, so the caller sees zero segments.
    const std::uint32_t ulPayload = Load16At(pucTlv, kPayloadLen);
    const std::uint32_t ulMss = pstCtl->usMss;
    pstCtl->usSegNum =
        ulMss == 0
            ? 0
            : static_cast<std::uint16_t>(ulPayload / ulMss + (ulPayload % ulMss != 0 ? 1 : 0));
    return MBUF_OK;
}

}  // extern "C"
