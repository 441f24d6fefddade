// Pipe-buffer entry points and the buffer half of the control API. Nothing
// thrown inside the platform crosses these C functions.
#include <cinttypes>
#include <cstdio>

#include "host_internal.h"
#include "krm_mbuf/platform.h"
#include "thread_cache.h"

namespace {

using krm::host::BufKind;
using krm::host::FreeResult;

constexpr uint32_t kErrBadArgument = 1;
constexpr uint32_t kErrNoMemory = 2;
constexpr uint32_t kErrNotLive = 3;

// Every case of an allocation: several entries, refills, large buffers,
// faults. All or nothing: on a failure what the call already handed out goes
// back.
__attribute__((noinline)) uint32_t AllocIovec(uint32_t ulModuleId, uint32_t ulCount,
                                              MBUF_IOVEC_S *pstIovec, const char *pcFileName,
                                              uint32_t ulLine) {
    if (ulCount != 0 && pstIovec == nullptr) {
        return kErrBadArgument;
    }
    for (uint32_t i = 0; i < ulCount; ++i) {
        const uint32_t len = pstIovec[i].ulLen;
        void *p = krm::host::TryAllocFast(BufKind::kDbuf, len, ulModuleId, pcFileName, ulLine);
        if (p == nullptr) {
            p = krm::host::AllocBuffer(BufKind::kDbuf, len, ulModuleId, pcFileName, ulLine);
        }
        pstIovec[i].pBuf = p;
        if (p != nullptr) {
            continue;
        }
        for (uint32_t j = 0; j < i; ++j) {
            (void)krm::host::FreeBuffer(pstIovec[j].pBuf, BufKind::kDbuf);
        }
        for (uint32_t j = 0; j < ulCount; ++j) {
            pstIovec[j].pBuf = nullptr;
        }
        return kErrNoMemory;
    }
    return 0;
}

// Every case of a release, with a report for each entry that is not the
// start of a live pipe buffer.
__attribute__((noinline)) uint32_t FreeIovec(uint32_t ulCount, MBUF_IOVEC_S *pstIovec,
                                             const char *pcFileName, uint32_t ulLine) {
    if (ulCount != 0 && pstIovec == nullptr) {
        krm::host::PlatformReport(
            pcFileName, ulLine, "KRM_DbufIovecFree_F: no vector for %" PRIu32 " entries", ulCount);
        return kErrBadArgument;
    }
    uint32_t result = 0;
    for (uint32_t i = 0; i < ulCount; ++i) {
        void *p = pstIovec[i].pBuf;
        if (p == nullptr || krm::host::TryFreeFast(p, BufKind::kDbuf)) {
            continue;
        }
        const FreeResult freed = krm::host::FreeBuffer(p, BufKind::kDbuf);
        if (freed != FreeResult::kOk) {
            krm::host::PlatformReport(pcFileName, ulLine, "KRM_DbufIovecFree_F: %p %s", p,
                                      krm::host::FreeResultText(freed, BufKind::kDbuf));
            result = kErrNotLive;
        }
    }
    return result;
}

}  // namespace

extern "C" {

uint32_t KRM_DbufIovecAlloc_F(uint32_t ulModuleId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec,
                              const char *pcFileName, uint32_t ulLine) {
    if (__builtin_expect(ulCount == 1 && pstIovec != nullptr, 1)) {
        void *p = krm::host::TryAllocFast(BufKind::kDbuf, pstIovec->ulLen, ulModuleId, pcFileName,
                                          ulLine);
        if (p != nullptr) {
            pstIovec->pBuf = p;
            return 0;
        }
    }
    return AllocIovec(ulModuleId, ulCount, pstIovec, pcFileName, ulLine);
}

uint32_t KRM_DbufIovecFree_F(uint32_t ulCount, MBUF_IOVEC_S *pstIovec, const char *pcFileName,
                             uint32_t ulLine) {
    if (__builtin_expect(ulCount == 1 && pstIovec != nullptr && pstIovec->pBuf != nullptr, 1) &&
        krm::host::TryFreeFast(pstIovec->pBuf, BufKind::kDbuf)) {
        return 0;
    }
    return FreeIovec(ulCount, pstIovec, pcFileName, ulLine);
}

uint32_t KRM_DbufLengthGET(const void *pBuf) {
    KRM_HOST_BUF_INFO_S info;
    if (!krm::host::LookupLive(pBuf, &info) || info.ulKind != KRM_HOST_BUF_DBUF) {
        return 0;
    }
    return info.ulLen;
}

uint32_t TQM_DbufAllocIdGet(const void *pBuf, uint32_t *pulHandle, uint32_t ulArg1, uint32_t ulArg2,
                            uint32_t ulArg3) {
    (void)ulArg1;
    (void)ulArg2;
    (void)ulArg3;
    KRM_HOST_BUF_INFO_S info;
    if (pulHandle == nullptr) {
        return kErrBadArgument;
    }
    if (!krm::host::LookupLive(pBuf, &info) || info.ulKind != KRM_HOST_BUF_DBUF) {
        return kErrNotLive;
    }
    *pulHandle = info.ulOwner;
    return 0;
}

uint32_t KRM_DbufMsgCtrlFlagSet(void *pBuf, uint32_t ulFlag) {
    return krm::host::SetCtrlFlag(pBuf, BufKind::kDbuf, ulFlag) ? 0 : kErrNotLive;
}

uint32_t KRM_HOST_LiveBufferCount(void) {
    return krm::host::LiveCount();
}

uint32_t KRM_HOST_AllocAttemptCount(void) {
    return krm::host::AttemptCount();
}

uint32_t KRM_HOST_BufferInfo(const void *pBuf, KRM_HOST_BUF_INFO_S *pstInfo) {
    KRM_HOST_BUF_INFO_S info;
    if (pstInfo == nullptr || !krm::host::LookupLive(pBuf, &info)) {
        return 1;
    }
    *pstInfo = info;
    return 0;
}

uint32_t KRM_HOST_VisitLiveBuffers(KRM_HOST_VISIT_PF pfVisit, void *pArg) {
    try {
        return krm::host::VisitLive(pfVisit, pArg);
    } catch (...) {
        return 0;
    }
}

static void DumpOne(const KRM_HOST_BUF_INFO_S *pstInfo, void *pArg) {
    std::fprintf(static_cast<FILE *>(pArg),
                 "%p len %" PRIu32 " owner 0x%08" PRIx32 " %s:%" PRIu32 "\n", pstInfo->pBuf,
                 pstInfo->ulLen, pstInfo->ulOwner,
                 pstInfo->pcFile != nullptr ? pstInfo->pcFile : "(no file)", pstInfo->ulLine);
}

uint32_t KRM_HOST_DumpLiveBuffers(FILE *pstOut) {
    if (pstOut == nullptr) {
        return KRM_HOST_VisitLiveBuffers(nullptr, nullptr);
    }
    const uint32_t count = KRM_HOST_VisitLiveBuffers(DumpOne, pstOut);
    (void)std::fflush(pstOut);
    return count;
}

uint32_t KRM_HOST_SetTraceId(void *pBuf, uint32_t ulTraceId) {
    return krm::host::SetTraceId(pBuf, BufKind::kDbuf, ulTraceId) ? 0 : 1;
}

}  // extern "C"
