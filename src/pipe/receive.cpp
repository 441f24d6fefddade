// Rebuilding packets from the pieces a pipe delivered. On success the packet
// belongs to the receiving caller; on failure nothing is freed and the
// pieces stay with the caller.
#include <cstdint>

#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/platform.h"
#include "pipe/rebuild.h"

namespace krm::pipe {
namespace {

// The read-only receive allocates nothing, so it needs no caller position.
inline constexpr RebuildMode kReadOnly{true, 0, nullptr, 0};

// The nothing-delivered status of a package read.
inline constexpr std::uint32_t kReadStatusEmpty = 2;

std::uint32_t RebuildPackage(MBUF_S **ppstPktList, std::uint32_t ulCount,
                             MBUF_TRANS_DESC_S *pstDescArray, const char *pcFileName,
                             std::uint32_t ulLine) {
    MBUF_S *pstFirst = nullptr;
    MBUF_S *pstLast = nullptr;
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        MBUF_S *pstPkt = nullptr;
        const std::uint32_t rc = MBUF_RcvTrans_fl(&pstPkt, &pstDescArray[i], pcFileName, ulLine);
        if (rc != MBUF_OK) {
            // Packets rebuilt before stay as they are, with the pieces.
            return rc;
        }
        if (pstLast == nullptr) {
            pstFirst = pstPkt;
        } else {
            pstLast->pstNextPkt = pstPkt;
        }
        pstLast = pstPkt;
    }
    *ppstPktList = pstFirst;
    return MBUF_OK;
}

}  // namespace
}  // namespace krm::pipe

using namespace krm::pipe;

extern "C" {

uint32_t MBUF_UnStdPipeRcvTrans_fl(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc, uint32_t ulMemId,
                                   const char *pcFileName, uint32_t ulLine) {
    return Rebuild(ppstMbuf, pstDesc, RebuildMode{false, ulMemId, pcFileName, ulLine});
}

uint32_t MBUF_RcvTrans_fl(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc, const char *pcFileName,
                          uint32_t ulLine) {
    return MBUF_UnStdPipeRcvTrans_fl(ppstMbuf, pstDesc, 0, pcFileName, ulLine);
}

uint32_t MBUF_RcvTrans(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc) {
    return MBUF_RcvTrans_fl(ppstMbuf, pstDesc, krm::wrap::kRcvTrans.pcName,
                            krm::wrap::kRcvTrans.ulLine);
}

uint32_t MBUF_MultiRecv_fl(uint32_t ulPipeId, MBUF_S **ppstPktList, uint32_t *pulCount,
                           uint32_t *pulStatus, MBUF_TRANS_DESC_S *pstDescArray,
                           const char *pcFileName, uint32_t ulLine) {
    if (ppstPktList == nullptr || pulCount == nullptr || pulStatus == nullptr ||
        pstDescArray == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    const uint32_t ulCapacity = *pulCount;
    uint32_t ulStatus = 0;
    uint32_t ulAux = 0;
    const uint32_t rc = KRM_PipePackageRead(ulPipeId, pulCount, pstDescArray, &ulStatus, &ulAux);
    if (rc != MBUF_OK) {
        return rc;
    }
    if (ulStatus == kReadStatusEmpty || *pulCount == 0) {
        *pulStatus = ulStatus;
        *pulCount = 0;
        *ppstPktList = nullptr;
        return MBUF_OK;
    }
    if (*pulCount > ulCapacity) {
        // Never read descriptors past the caller's array.
        krm::Report(krm::kModKrmMbufTrans, 611, "Mbuf Recv: %u packets for %u", *pulCount,
                    ulCapacity);
        *pulCount = ulCapacity;
    }
    const uint32_t rcRebuild =
        RebuildPackage(ppstPktList, *pulCount, pstDescArray, pcFileName, ulLine);
    if (rcRebuild != MBUF_OK) {
        *pulCount = 0;
        *ppstPktList = nullptr;
        return rcRebuild;
    }
    *pulStatus = ulStatus;
    return MBUF_OK;
}

uint32_t MBUF_MultiRecv(uint32_t ulPipeId, MBUF_S **ppstPktList, uint32_t *pulCount,
                        uint32_t *pulStatus, MBUF_TRANS_DESC_S *pstDescArray) {
    return MBUF_MultiRecv_fl(ulPipeId, ppstPktList, pulCount, pulStatus, pstDescArray,
                             krm::wrap::kMultiRecv.pcName, krm::wrap::kMultiRecv.ulLine);
}

uint32_t MBUF_RcvTransReadOnly(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc) {
    return Rebuild(ppstMbuf, pstDesc, kReadOnly);
}

uint32_t MBUF_RcvTransReadOnly_VerifyFirstMbuf(MBUF_S *pstMbuf, uint32_t bSameOrder) {
    bool bAllocated = false;
    return PrepareHead(pstMbuf, bSameOrder != 0, kReadOnly, &bAllocated);
}

uint32_t MBUF_RcvTransReadOnly_ProcFirstTag(MBUF_TRANS_DESC_S *pstDesc, uint32_t bSameOrder,
                                            uint32_t *pulCount) {
    if (pstDesc == nullptr || pstDesc->pstIovec == nullptr || pulCount == nullptr ||
        Pieces(pstDesc)[0] == nullptr) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (*pulCount > pstDesc->ulNum) {
        *pulCount = pstDesc->ulNum;
    }
    auto *pstHead = static_cast<MBUF_S *>(Pieces(pstDesc)[0]);
    return AttachCtlInfo(pstHead, Pieces(pstDesc), pulCount, bSameOrder != 0, kReadOnly);
}

uint32_t MBUF_RcvTransReadOnly_LinkExtData(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc,
                                           uint32_t *pulIndex) {
    if (pstMbuf == nullptr || pstDesc == nullptr || pstDesc->pstIovec == nullptr ||
        pulIndex == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    return LinkNodeData(pstMbuf, Pieces(pstDesc), pstDesc->ulNum, pulIndex, false, kReadOnly);
}

uint32_t MBUF_RcvTransReadOnly_VerifyOtherMbuf(MBUF_S *pstMbuf, MBUF_S *pstPrev) {
    if (pstPrev == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    bool bAllocated = false;
    return PrepareNext(pstMbuf, pstPrev, kReadOnly, &bAllocated);
}

}  // extern "C"
