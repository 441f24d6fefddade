// Recording one packet in the protocol-interaction log, with the session's
// mutex taken and released around it (lock mode 1) and without locking
// (lock mode 0). The yardstick is one platform lock and unlock, the least a
// locked record can cost on top of the unlocked one.
#include <benchmark/benchmark.h>

#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace {

constexpr uint32_t kModule = 0x00650000u;
constexpr uint32_t kSession = 42;

void BM_RecordPacket(benchmark::State &state) {
    const MBUF_PROTOINT_PARA_S stPara{kModule, kModule, static_cast<uint32_t>(state.range(0))};
    MBUF_PROTOINT_CTX_S *pstCtx = MBUF_PROTOINT_Init(&stPara);
    MBUF_S *pstMbuf = MBUF_CreateForControlPacket_fl(0, 256, 0, kModule, __FILE__, __LINE__);
    if (pstCtx == nullptr || pstMbuf == nullptr ||
        MBUF_PROTOINT_EnableSession(kSession, pstCtx) != 0 ||
        MBUF_PROTOINT_CreateIdInfo(pstMbuf, kSession, 0, 0, pstCtx) != 0) {
        state.SkipWithError("setup failed");
    }
    // Kind 0 hands out the next sequence number, so the packet always follows
    // its predecessor and no gap asks the suppression clock.
    for (auto _ : state) {
        benchmark::DoNotOptimize(MBUF_PROTOINT_RecordPacket(pstMbuf, 0, nullptr, pstCtx));
    }
    MBUF_Destroy_fl(pstMbuf, __FILE__, __LINE__);
    MBUF_PROTOINT_Uninit(pstCtx);
}
BENCHMARK(BM_RecordPacket)->ArgName("lockmode")->Arg(0)->Arg(1);

void BM_MutexLockUnlock(benchmark::State &state) {
    uint32_t ulMutex = 0;
    if (BEX_MutexInit(&ulMutex) != 0) {
        state.SkipWithError("no mutex");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(BEX_MutexLock(ulMutex));
        benchmark::DoNotOptimize(BEX_MutexUnlock(ulMutex));
    }
    (void)BEX_MutexDestroy(ulMutex);
}
BENCHMARK(BM_MutexLockUnlock);

}  // namespace
