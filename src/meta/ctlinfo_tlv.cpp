// The TLV records (link stack 1, packet-send 20, packet 22): a 4-byte head
// holding the list length, then sub-TLVs packed without padding. Searches
// follow the list length and report a sub-TLV that claims more than is left;
// the block's memory, never the list, bounds what is read. Storing into
// record 22 appends by re-creating the record larger.
#include <cstdint>
#include <cstring>

#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"

namespace krm::ctl {

std::uint8_t *FindSubTlv(MBUF_S *pstMbuf, std::uint32_t ulRecType, std::uint16_t usType,
                         bool bMatchLen, std::uint16_t usLen, std::uint32_t ulLine) {
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulRecType));
    if (pucRec == nullptr) {
        return nullptr;
    }
    // The walk follows the list length as the record states it; the block's
    // memory only ends it where a head would lie outside.
    std::uint32_t ulRoom = RoomFrom(pstMbuf, pucRec);
    if (ulRoom < kTlvHeadLen) {
        return nullptr;
    }
    std::uint8_t *pucCur = pucRec + kTlvHeadLen;
    ulRoom -= kTlvHeadLen;
    std::uint32_t ulRemaining = ListLen(pucRec);
    // An empty list (or one shorter than a head) is not an error.
    while (ulRemaining >= kSubTlvHeadLen && ulRoom >= kSubTlvHeadLen) {
        const std::uint32_t ulTotal = SubLen(pucCur) + kSubTlvHeadLen;
        if (ulTotal > ulRemaining) {
            Report(kModKrmMbuf, ulLine, "T %u ML %u TL %u", SubType(pucCur), ulRemaining, ulTotal);
            return nullptr;
        }
        if (SubType(pucCur) == usType && (!bMatchLen || SubLen(pucCur) == usLen)) {
            return pucCur;
        }
        ulRemaining -= ulTotal;
        ulRoom = ulTotal < ulRoom ? ulRoom - ulTotal : 0;
        pucCur += ulTotal;
    }
    return nullptr;
}

}  // namespace krm::ctl

namespace krm {
namespace {

void CopyOrReport(void *pDst, std::uint32_t ulDstMax, const void *pSrc, std::uint32_t ulLen,
                  std::uint32_t ulLine, std::uint32_t ulTimes = 1) {
    const int iRet = memcpy_s(pDst, ulDstMax, pSrc, ulLen);
    if (iRet != 0) {
        for (std::uint32_t i = 0; i < ulTimes; ++i) {
            Report(kModKrmMbuf, ulLine, "memcpy_s return %d", iRet);
        }
    }
}

// Record 22 does not exist yet: create it holding just this sub-TLV.
std::int32_t CreatePacketRecord(MBUF_S *pstMbuf, std::uint32_t ulModuleId,
                                const std::uint8_t *pucTlv, std::uint32_t ulTlvTotal,
                                const MBUF_FILE_LINE_S *pstFl) {
    if (MBUF_CreateControlInfo_fl(pstMbuf, MBUF_CTL_PACKET, ulTlvTotal + ctl::kTlvHeadLen,
                                  ulModuleId, pstFl->pcFileName, pstFl->ulLine) != MBUF_OK) {
        return -1;
    }
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PACKET));
    Store16(pucRec, 0);
    ctl::SetListLen(pucRec, static_cast<std::uint16_t>(ulTlvTotal));
    CopyOrReport(pucRec + ctl::kTlvHeadLen, ulTlvTotal, pucTlv, ulTlvTotal, 3473);
    return 0;
}

// Record 22 exists without this sub-TLV: records never grow in place, so the
// record is saved, deleted and created anew with room for one more. Its old
// bytes stay unused in the block.
std::int32_t AppendToPacketRecord(MBUF_S *pstMbuf, std::uint32_t ulModuleId,
                                  const std::uint8_t *pucTlv, std::uint32_t ulTlvTotal,
                                  const MBUF_FILE_LINE_S *pstFl) {
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PACKET));
    const std::uint32_t ulOld = ctl::ListLen(pucRec) + ctl::kTlvHeadLen;
    auto *pucCopy = static_cast<std::uint8_t *>(
        KRM_Malloc_F(ulModuleId, g_aucKrmMemPt[0], ulOld, pstFl->pcFileName, pstFl->ulLine));
    if (pucCopy == nullptr) {
        return -1;
    }
    // A list that claims more than the block's memory holds is a failing
    // copy: reported, and the record is rebuilt from what could be kept.
    std::memset(pucCopy, 0, ulOld);
    const std::uint32_t ulRoom = ctl::RoomFrom(pstMbuf, pucRec);
    CopyOrReport(pucCopy, ulOld < ulRoom ? ulOld : ulRoom, pucRec, ulOld, 3502);
    MBUF_DeleteControlInfo(pstMbuf, MBUF_CTL_PACKET);
    std::int32_t lRet = -1;
    if (MBUF_CreateControlInfo_fl(pstMbuf, MBUF_CTL_PACKET, ulOld + ulTlvTotal, ulModuleId,
                                  pstFl->pcFileName, pstFl->ulLine) == MBUF_OK) {
        pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PACKET));
        if (pucRec != nullptr) {
            CopyOrReport(pucRec, ulOld, pucCopy, ulOld, 3516);
            ctl::SetListLen(pucRec, static_cast<std::uint16_t>(ctl::ListLen(pucRec) + ulTlvTotal));
            // This copy has always been reported twice when it fails.
            CopyOrReport(pucRec + ulOld, ulTlvTotal, pucTlv, ulTlvTotal, 3519, 2);
            lRet = 0;
        }
    }
    (void)KRM_Free_F(pucCopy, pstFl->pcFileName, pstFl->ulLine);
    return lRet;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API MBUF_CTL_TLV_S *MBUF_BAS_GetMbufLinkStackByType(MBUF_S *pstMbuf, uint32_t ulSubType) {
    return krm::ctl::AsTlv(krm::ctl::FindSubTlv(pstMbuf, MBUF_CTL_LINK,
                                                static_cast<uint16_t>(ulSubType), false, 0, 3346));
}

MBUF_API MBUF_CTL_TLV_S *MBUF_GetMbufLinkStackByType(MBUF_S *pstMbuf, uint32_t ulSubType) {
    return MBUF_BAS_GetMbufLinkStackByType(pstMbuf, ulSubType);
}

MBUF_API MBUF_CTL_TLV_S *MBUF_BAS_GetMbufLev2TlvByType(MBUF_S *pstMbuf, uint32_t ulType,
                                                       uint32_t ulSubType) {
    return krm::ctl::AsTlv(
        krm::ctl::FindSubTlv(pstMbuf, ulType, static_cast<uint16_t>(ulSubType), false, 0, 3396));
}

MBUF_API MBUF_CTL_TLV_S *MBUF_GetTlvInfo(MBUF_S *pstMbuf, const MBUF_CTL_TLV_S *pstTlv) {
    if (pstTlv == nullptr) {
        return nullptr;
    }
    const auto *pucHead = reinterpret_cast<const uint8_t *>(pstTlv);
    return krm::ctl::AsTlv(krm::ctl::FindSubTlv(pstMbuf, MBUF_CTL_PACKET,
                                                krm::ctl::SubType(pucHead), true,
                                                krm::ctl::SubLen(pucHead), 3446));
}

MBUF_API int32_t MBUF_SetTlvInfo_fl(MBUF_S *pstMbuf, uint32_t ulModuleId,
                                    const MBUF_CTL_TLV_S *pstTlv, const char *pcFileName,
                                    uint32_t ulLine) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0 || pstTlv == nullptr) {
        return -1;
    }
    const auto *pucTlv = reinterpret_cast<const uint8_t *>(pstTlv);
    const uint32_t ulTlvTotal = krm::ctl::SubLen(pucTlv) + krm::ctl::kSubTlvHeadLen;
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    if (MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PACKET) == nullptr) {
        // The list length is a 16-bit field: refuse before anything changes.
        if (ulTlvTotal > krm::ctl::kMaxListLen) {
            return -1;
        }
        return krm::CreatePacketRecord(pstMbuf, ulModuleId, pucTlv, ulTlvTotal, &stFl);
    }
    MBUF_CTL_TLV_S *pstSame = MBUF_GetTlvInfo(pstMbuf, pstTlv);
    if (pstSame != nullptr) {
        // Bounded by the block's memory: a sub-TLV that claims to run past it
        // is a failing copy, reported.
        const uint32_t ulRoom = krm::ctl::RoomFrom(pstMbuf, pstSame);
        krm::CopyOrReport(pstSame, ulTlvTotal < ulRoom ? ulTlvTotal : ulRoom, pucTlv, ulTlvTotal,
                          3488);
        return 0;
    }
    const auto *pucRec =
        static_cast<const uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PACKET));
    // A record whose head lies outside the block's memory has no list to
    // carry over.
    if (!krm::ctl::InMem(pstMbuf, pucRec, krm::ctl::kTlvHeadLen) ||
        krm::ctl::ListLen(pucRec) + ulTlvTotal > krm::ctl::kMaxListLen) {
        return -1;
    }
    return krm::AppendToPacketRecord(pstMbuf, ulModuleId, pucTlv, ulTlvTotal, &stFl);
}

MBUF_API int32_t MBUF_SetTlvInfo(MBUF_S *pstMbuf, uint32_t ulModuleId,
                                 const MBUF_CTL_TLV_S *pstTlv) {
    constexpr krm::WrapperSite kSite = krm::wrap::kSetTlvInfo;
    return MBUF_SetTlvInfo_fl(pstMbuf, ulModuleId, pstTlv, kSite.pcName, kSite.ulLine);
}

}  // extern "C"
