// The memory adapter: every node, external buffer and control block comes
// from the platform's pipe-buffer allocator, so that any of them can later
// travel as a piece of a pipe message without being copied. Each call
// carries the owner module and the caller's location down to the platform.
#include <cstdint>

#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm {
namespace {

const char *FileOf(const MBUF_FILE_LINE_S *pstFl) {
    return pstFl != nullptr ? pstFl->pcFileName : nullptr;
}
std::uint32_t LineOf(const MBUF_FILE_LINE_S *pstFl) {
    return pstFl != nullptr ? pstFl->ulLine : 0;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API void *MBUF_MemAlloc_fl(uint32_t ulSize, uint32_t ulModuleId,
                                const MBUF_FILE_LINE_S *pstFileLine) {
    MBUF_IOVEC_S stIovec{nullptr, ulSize, 0};
    if (KRM_DbufIovecAlloc_F(ulModuleId, 1, &stIovec, krm::FileOf(pstFileLine),
                             krm::LineOf(pstFileLine)) != 0) {
        return nullptr;
    }
    return stIovec.pBuf;
}

MBUF_API uint32_t MBUF_MemFree_fl(void *pBuf, const MBUF_FILE_LINE_S *pstFileLine) {
    MBUF_IOVEC_S stIovec{pBuf, 0, 0};
    return KRM_DbufIovecFree_F(1, &stIovec, krm::FileOf(pstFileLine), krm::LineOf(pstFileLine));
}

MBUF_API uint32_t MBUF_MemRealloc_fl(void **ppBuf, uint32_t ulOldLen, uint32_t ulNewLen,
                                     uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFileLine) {
    if (ppBuf == nullptr) {
        return 1;
    }
    void *pNew = MBUF_MemAlloc_fl(ulNewLen, ulModuleId, pstFileLine);
    if (pNew == nullptr) {
        return 1;
    }
    // Shrinking deliberately drops the contents: callers shrink only buffers
    // they are about to refill.
    if (ulOldLen != 0 && ulNewLen >= ulOldLen) {
        const int iRet = memcpy_s(pNew, ulNewLen, *ppBuf, ulOldLen);
        if (iRet != 0) {
            krm::Report(krm::kModOsAdapter, 79, "memcpy_s return %d", iRet);
        }
    }
    (void)MBUF_MemFree_fl(*ppBuf, pstFileLine);
    *ppBuf = pNew;
    return 0;
}

}  // extern "C"
