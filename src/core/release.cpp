// Release of packets. A chain is released node by node along pstNext, the
// next link read before the node goes. A node marked MBUF_NOFREE belongs to
// its caller: its external buffer is still released, the node and its
// control block never are.
#include <cstdint>

#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"

namespace krm {
namespace {

inline constexpr const char *kFreeExtName = "MBUF_FreeExtInfoAndMbuf";

void ReleaseOwnNode(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl) {
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) != 0) {
        MBUF_DeletePktTag(pstMbuf, pstFl);
    }
    ReleaseNode(pstMbuf, pstFl);
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API void MBUF_FreeExtInfoAndMbuf(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstMbuf == nullptr) {
        return;
    }
    if ((pstMbuf->ulFlag & MBUF_EXT) == 0) {
        krm::Report(krm::kModUipcMbuf, 131, "%s: MBUF_EXT not set", krm::kFreeExtName);
    }
    // Copies never share a buffer, so the reference count is not consulted.
    if (pstMbuf->pucExtBuf == nullptr) {
        krm::Report(krm::kModUipcMbuf, 132, "%s: ext_buf is null", krm::kFreeExtName);
    } else {
        (void)MBUF_MemFree_fl(pstMbuf->pucExtBuf, pstFileLine);
    }
    if ((pstMbuf->ulFlag & MBUF_NOFREE) != 0) {
        return;
    }
    pstMbuf->pucExtBuf = nullptr;
    pstMbuf->ulExtRsv0 = 0;
    pstMbuf->ulExtRsv1 = 0;
    pstMbuf->ulExtSize = 0;
    pstMbuf->ulExtRefCnt = 0;
    pstMbuf->ulFlag &= ~MBUF_EXT;
    krm::ReleaseOwnNode(pstMbuf, pstFileLine);
}

MBUF_API void MBUF_Free(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFileLine) {
    MBUF_S *pstNode = pstMbuf;
    while (pstNode != nullptr) {
        MBUF_S *pstNext = pstNode->pstNext;
        if ((pstNode->ulFlag & MBUF_EXT) != 0) {
            MBUF_FreeExtInfoAndMbuf(pstNode, pstFileLine);
        } else if ((pstNode->ulFlag & MBUF_NOFREE) == 0) {
            krm::ReleaseOwnNode(pstNode, pstFileLine);
        }
        pstNode = pstNext;
    }
}

MBUF_API void MBUF_Destroy_fl(MBUF_S *pstMbuf, const char *pcFileName, uint32_t ulLine) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return;
    }
    // A head that is used after its release fails every validity check.
    pstMbuf->ucMagic = MBUF_MAGIC_DEAD;
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    MBUF_Free(pstMbuf, &stFl);
}

MBUF_API void MBUF_Destroy(MBUF_S *pstMbuf) {
    constexpr krm::WrapperSite kSite = krm::wrap::kDestroy;
    MBUF_Destroy_fl(pstMbuf, kSite.pcName, kSite.ulLine);
}

}  // extern "C"
