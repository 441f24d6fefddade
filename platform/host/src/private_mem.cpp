// Private memory: the same buffers and accounting as pipe buffers, of the
// other kind, so neither can be released through the other's interface.
#include "host_internal.h"
#include "krm_mbuf/platform.h"
#include "thread_cache.h"

extern "C" {

// Partition numbers are accepted as given: the host keeps one pool for all.
const uint8_t g_aucKrmMemPt[] = {0, 1, 2, 3};

void *KRM_Malloc_F(uint32_t ulModuleId, uint8_t ucPartition, uint32_t ulSize,
                   const char *pcFileName, uint32_t ulLine) {
    (void)ucPartition;
    void *p =
        krm::host::TryAllocFast(krm::host::BufKind::kPriv, ulSize, ulModuleId, pcFileName, ulLine);
    if (p != nullptr) {
        return p;
    }
    return krm::host::AllocBuffer(krm::host::BufKind::kPriv, ulSize, ulModuleId, pcFileName,
                                  ulLine);
}

// NULL is refused without a report; anything else that is not the start of
// live private memory is reported and left alone.
uint32_t KRM_Free_F(void *pBuf, const char *pcFileName, uint32_t ulLine) {
    if (pBuf == nullptr) {
        return 1;
    }
    if (krm::host::TryFreeFast(pBuf, krm::host::BufKind::kPriv)) {
        return 0;
    }
    const krm::host::FreeResult freed = krm::host::FreeBuffer(pBuf, krm::host::BufKind::kPriv);
    if (freed == krm::host::FreeResult::kOk) {
        return 0;
    }
    krm::host::PlatformReport(pcFileName, ulLine, "KRM_Free_F: %p %s", pBuf,
                              krm::host::FreeResultText(freed, krm::host::BufKind::kPriv));
    return 2;
}

}  // extern "C"
