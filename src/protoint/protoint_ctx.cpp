// The context of the protocol-interaction log and its sessions: creation and
// teardown, the per-session locks, enabling and deleting sessions. Every
// operation that touches a whole session takes the send mutex first, then
// the receive mutex, so two such operations never wait on each other in
// opposite order.
#include <cstddef>

#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "protoint/protoint_internal.h"

namespace krm::protoint {
namespace {

constexpr std::uint32_t kEnableNoMem = 5;

// The context is one allocation of the library's partition.
void FreeMem(void *p, std::uint32_t ulLine) {
    (void)KRM_Free_F(p, kModKrmMbufProtoInt, ulLine);
}

void *ZeroedAlloc(std::uint32_t ulMid, std::uint32_t ulSize, std::uint32_t ulLine) {
    void *p = KRM_Malloc_F(ulMid, g_aucKrmMemPt[0], ulSize, kModKrmMbufProtoInt, ulLine);
    if (p != nullptr) {
        const int iRet = memset_s(p, ulSize, 0, ulSize);
        if (iRet != 0) {
            Report(kModKrmMbufProtoInt, 95, "memcpy_s return %d", iRet);
        }
    }
    return p;
}

// Creates the log mutex, then both mutexes of every session. False after the
// first failure, which is reported; what was created stays.
bool CreateMutexes(MBUF_PROTOINT_CTX_S *pstCtx) {
    std::uint32_t ulRet = BEX_MutexInit(&pstCtx->stLogMtx);
    if (ulRet != 0) {
        Report(kModKrmMbufProtoInt, 104, "log mtx init err. ret = %u", ulRet);
        return false;
    }
    for (std::uint32_t i = 0; i < MBUF_PROTOINT_SESS_MAX; ++i) {
        ulRet = BEX_MutexInit(&pstCtx->astSndMtx[i]);
        if (ulRet != 0) {
            Report(kModKrmMbufProtoInt, 113, "snd mtx init err. ret = %u", ulRet);
            return false;
        }
        ulRet = BEX_MutexInit(&pstCtx->astRcvMtx[i]);
        if (ulRet != 0) {
            Report(kModKrmMbufProtoInt, 119, "rcv mtx init err. ret = %u", ulRet);
            return false;
        }
    }
    return true;
}

std::uint32_t LockOne(std::uint32_t ulMtx, std::uint32_t ulSessId, std::uint32_t ulLine) {
    const std::uint32_t ulRet = BEX_MutexLock(ulMtx);
    if (ulRet != 0) {
        Report(kModKrmMbufProtoInt, ulLine, "MBUF PROTOINT LockSess lock ERR sessId=%u, ret = %u",
               ulSessId, ulRet);
    }
    return ulRet;
}

// Teardown of one session under its own locks; a mutex that could not be
// taken is not released, but the session is freed and both mutexes are
// destroyed all the same (a failing destroy is reported like the rest).
void TearDownSession(MBUF_PROTOINT_CTX_S *pstCtx, std::uint32_t i) {
    const std::uint32_t aulMtx[2] = {pstCtx->astSndMtx[i], pstCtx->astRcvMtx[i]};
    bool abHeld[2] = {false, false};
    for (std::uint32_t k = 0; k < 2; ++k) {
        const std::uint32_t ulRet = BEX_MutexLock(aulMtx[k]);
        abHeld[k] = ulRet == 0;
        if (!abHeld[k]) {
            Report(kModKrmMbufProtoInt, 141, "MBUF PROTOINT uninit lock sess mtx, ret = %u", ulRet);
        }
    }
    if (pstCtx->apstSess[i] != nullptr) {
        FreeMem(pstCtx->apstSess[i], 144);
        pstCtx->apstSess[i] = nullptr;
    }
    for (std::uint32_t k = 2; k-- > 0;) {
        if (!abHeld[k]) {
            continue;
        }
        const std::uint32_t ulRet = BEX_MutexUnlock(aulMtx[k]);
        if (ulRet != 0) {
            Report(kModKrmMbufProtoInt, 147, "MBUF PROTOINT uninit unlock sess mtx, ret = %u",
                   ulRet);
        }
    }
    for (const std::uint32_t ulMtx : aulMtx) {
        const std::uint32_t ulRet = BEX_MutexDestroy(ulMtx);
        if (ulRet != 0) {
            Report(kModKrmMbufProtoInt, 152, "MBUF PROTOINT uninit destroy sess mtx, ret = %u",
                   ulRet);
        }
    }
}

void TearDownLogMutex(MBUF_PROTOINT_CTX_S *pstCtx) {
    std::uint32_t ulRet = BEX_MutexLock(pstCtx->stLogMtx);
    if (ulRet != 0) {
        Report(kModKrmMbufProtoInt, 160, "MBUF PROTOINT uninit lock log mtx, ret = %u", ulRet);
    } else {
        ulRet = BEX_MutexUnlock(pstCtx->stLogMtx);
        if (ulRet != 0) {
            Report(kModKrmMbufProtoInt, 164, "MBUF PROTOINT uninit unlock log mtx, ret = %u",
                   ulRet);
        }
    }
    ulRet = BEX_MutexDestroy(pstCtx->stLogMtx);
    if (ulRet != 0) {
        Report(kModKrmMbufProtoInt, 168, "MBUF PROTOINT uninit destory log mtx, ret = %u", ulRet);
    }
}

// Both halves of a session change together: enabling and deleting hold both
// locks.
std::uint32_t WithBothLocks(std::uint32_t ulSessId, MBUF_PROTOINT_CTX_S *pstCtx,
                            std::uint32_t (*pfWork)(std::uint32_t, MBUF_PROTOINT_CTX_S *)) {
    if (pstCtx == nullptr) {
        return 1;
    }
    const std::uint32_t ulLock = MBUF_PROTOINT_LockSess(ulSessId, 0, pstCtx);
    if (ulLock != kLockOk) {
        return ulLock;
    }
    const std::uint32_t ulRet = pfWork(ulSessId, pstCtx);
    (void)MBUF_PROTOINT_UnlockSess(ulSessId, 0, pstCtx);
    return ulRet;
}

std::uint32_t EnableLocked(std::uint32_t ulSessId, MBUF_PROTOINT_CTX_S *pstCtx) {
    MBUF_PROTOINT_SESS_S *&pstSess = pstCtx->apstSess[ulSessId - 1];
    if (pstSess != nullptr) {
        return 0;
    }
    pstSess = static_cast<MBUF_PROTOINT_SESS_S *>(
        ZeroedAlloc(pstCtx->ulMemMid, sizeof(MBUF_PROTOINT_SESS_S), 236));
    if (pstSess == nullptr) {
        Report(kModKrmMbufProtoInt, 240, "sess malloc errr (sessId = %u)", ulSessId);
        return kEnableNoMem;
    }
    return 0;
}

std::uint32_t DeleteLocked(std::uint32_t ulSessId, MBUF_PROTOINT_CTX_S *pstCtx) {
    MBUF_PROTOINT_SESS_S *&pstSess = pstCtx->apstSess[ulSessId - 1];
    if (pstSess != nullptr) {
        FreeMem(pstSess, 252);
        pstSess = nullptr;
    }
    return 0;
}

// The checks both lock calls begin with; kLockOk with *pbSkip set when there
// is nothing to take.
std::uint32_t LockPreCheck(std::uint32_t ulSessId, const MBUF_PROTOINT_CTX_S *pstCtx,
                           bool *pbSkip) {
    *pbSkip = false;
    if (!IdInRange(ulSessId)) {
        return kLockBadId;
    }
    if (pstCtx == nullptr) {
        return kLockNotInited;
    }
    if (!LockingOn(pstCtx)) {
        *pbSkip = true;
        return kLockOk;
    }
    return pstCtx->ucInited == 1 ? kLockOk : kLockNotInited;
}

}  // namespace
}  // namespace krm::protoint

using namespace krm::protoint;

extern "C" {

MBUF_API MBUF_PROTOINT_CTX_S *MBUF_PROTOINT_Init(const MBUF_PROTOINT_PARA_S *pstPara) {
    if (pstPara == nullptr) {
        return nullptr;
    }
    auto *pstCtx = static_cast<MBUF_PROTOINT_CTX_S *>(
        ZeroedAlloc(pstPara->ulMemMid, sizeof(MBUF_PROTOINT_CTX_S), 84));
    if (pstCtx == nullptr) {
        krm::Report(krm::kModKrmMbufProtoInt, 88, "protoInt new failed.");
        return nullptr;
    }
    pstCtx->ulMemMid = pstPara->ulMemMid;
    pstCtx->ulCompArg = pstPara->ulCompArg;
    pstCtx->ulLockMode = pstPara->ulLockMode;
    BEX_CPUTICK_S stTicks{};
    (void)BEX_CpuTickMs2CpuTickEx(MBUF_PROTOINT_SUPPRESS_MS, &stTicks);
    pstCtx->ullSuppressTicks = (std::uint64_t{stTicks.ulHigh} << 32) | stTicks.ulLow;
    if (LockingOn(pstCtx)) {
        if (!CreateMutexes(pstCtx)) {
            FreeMem(pstCtx, 122);
            return nullptr;
        }
        pstCtx->ucInited = 1;
    }
    return pstCtx;
}

MBUF_API void MBUF_PROTOINT_Uninit(MBUF_PROTOINT_CTX_S *pstCtx) {
    if (pstCtx == nullptr) {
        return;
    }
    const bool bLocking = LockingOn(pstCtx);
    for (std::uint32_t i = 0; i < MBUF_PROTOINT_SESS_MAX; ++i) {
        if (bLocking) {
            TearDownSession(pstCtx, i);
        } else if (pstCtx->apstSess[i] != nullptr) {
            FreeMem(pstCtx->apstSess[i], 144);
        }
    }
    if (bLocking) {
        TearDownLogMutex(pstCtx);
    }
    FreeMem(pstCtx, 171);
}

MBUF_API uint32_t MBUF_PROTOINT_LockSess(uint32_t ulSessId, uint32_t ulDir,
                                         MBUF_PROTOINT_CTX_S *pstCtx) {
    bool bSkip = false;
    const std::uint32_t ulPre = LockPreCheck(ulSessId, pstCtx, &bSkip);
    if (ulPre != kLockOk || bSkip) {
        return ulPre;
    }
    const std::uint32_t ulSnd = pstCtx->astSndMtx[ulSessId - 1];
    const std::uint32_t ulRcv = pstCtx->astRcvMtx[ulSessId - 1];
    if (ulDir == MBUF_PROTOINT_DIR_RCV) {
        return LockOne(ulRcv, ulSessId, 192) == 0 ? kLockOk : kLockFailed;
    }
    if (LockOne(ulSnd, ulSessId, 182) != 0) {
        return kLockFailed;
    }
    if (ulDir == MBUF_PROTOINT_DIR_SND) {
        return kLockOk;
    }
    if (LockOne(ulRcv, ulSessId, 192) != 0) {
        (void)BEX_MutexUnlock(ulSnd);
        return kLockFailed;
    }
    return kLockOk;
}

MBUF_API uint32_t MBUF_PROTOINT_UnlockSess(uint32_t ulSessId, uint32_t ulDir,
                                           MBUF_PROTOINT_CTX_S *pstCtx) {
    bool bSkip = false;
    const std::uint32_t ulPre = LockPreCheck(ulSessId, pstCtx, &bSkip);
    if (ulPre != kLockOk || bSkip) {
        return ulPre;
    }
    std::uint32_t ulFailed = 0;
    if (ulDir != MBUF_PROTOINT_DIR_SND) {
        ulFailed |= BEX_MutexUnlock(pstCtx->astRcvMtx[ulSessId - 1]);
    }
    if (ulDir != MBUF_PROTOINT_DIR_RCV) {
        ulFailed |= BEX_MutexUnlock(pstCtx->astSndMtx[ulSessId - 1]);
    }
    return ulFailed == 0 ? kLockOk : kLockFailed;
}

MBUF_API uint32_t MBUF_PROTOINT_EnableSession(uint32_t ulSessId, MBUF_PROTOINT_CTX_S *pstCtx) {
    return WithBothLocks(ulSessId, pstCtx, EnableLocked);
}

MBUF_API uint32_t MBUF_PROTOINT_DeleteSession(uint32_t ulSessId, MBUF_PROTOINT_CTX_S *pstCtx) {
    return WithBothLocks(ulSessId, pstCtx, DeleteLocked);
}

MBUF_API void *MBUF_PROTOINT_GetSess(uint32_t ulSessId, uint32_t ulDir,
                                     MBUF_PROTOINT_CTX_S *pstCtx) {
    if (pstCtx == nullptr || !IdInRange(ulSessId)) {
        return nullptr;
    }
    MBUF_PROTOINT_SESS_S *pstSess = pstCtx->apstSess[ulSessId - 1];
    if (pstSess == nullptr) {
        return nullptr;
    }
    if (ulDir == MBUF_PROTOINT_DIR_SND) {
        return &pstSess->stSnd;
    }
    return ulDir == MBUF_PROTOINT_DIR_RCV ? &pstSess->stRcv : nullptr;
}

}  // extern "C"
