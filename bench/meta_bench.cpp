// The metadata hot paths: stamping a packet that already carries its
// stack-debug record, and the receive-interface accessors every received
// packet goes through. Each is run next to a yardstick: the platform clock
// reads a stamp cannot avoid, and a plain load/store of the same field.
#include <benchmark/benchmark.h>

#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace {

constexpr uint32_t kModule = 0x00650000u;
constexpr uint32_t kComp = 0x00650001u;

// A packet whose record 21 exists with its component's entry in place, so
// every stamp of the loop extends that entry.
MBUF_S *StampedPacket(benchmark::State &state) {
    MBUF_S *pstMbuf = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, __FILE__, __LINE__);
    if (pstMbuf == nullptr ||
        MBUF_SetStackDebugInfo_fl(pstMbuf, kComp, kModule, __FILE__, __LINE__) != 0) {
        state.SkipWithError("setup failed");
    }
    return pstMbuf;
}

void BM_SetStackDebugInfo(benchmark::State &state) {
    MBUF_S *pstMbuf = StampedPacket(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            MBUF_SetStackDebugInfo_fl(pstMbuf, kComp, kModule, __FILE__, __LINE__));
    }
    MBUF_Destroy_fl(pstMbuf, __FILE__, __LINE__);
}
BENCHMARK(BM_SetStackDebugInfo);

// The record work alone, with the caller's own time and tick.
void BM_SetStackDebugInfoSelf(benchmark::State &state) {
    MBUF_S *pstMbuf = StampedPacket(state);
    KRM_SYSTIME_S stTime{};
    BEX_CPUTICK_S stTick{};
    (void)KRM_SystimeGet(&stTime);
    (void)BEX_GetCpuTick(&stTick);
    for (auto _ : state) {
        ++stTick.ulLow;
        benchmark::DoNotOptimize(MBUF_SetStackDebugInfoSelf_fl(pstMbuf, kComp, &stTime, &stTick,
                                                               kModule, __FILE__, __LINE__));
    }
    MBUF_Destroy_fl(pstMbuf, __FILE__, __LINE__);
}
BENCHMARK(BM_SetStackDebugInfoSelf);

// Yardstick: the two clock reads every stamp makes.
void BM_YardstickClockReads(benchmark::State &state) {
    KRM_SYSTIME_S stTime{};
    BEX_CPUTICK_S stTick{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(KRM_SystimeGet(&stTime));
        benchmark::DoNotOptimize(BEX_GetCpuTick(&stTick));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_YardstickClockReads);

void BM_ReceiveIfIndexGetSet(benchmark::State &state) {
    MBUF_S *pstMbuf = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, __FILE__, __LINE__);
    uint32_t ulIf = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(MBUF_SetReceiveIfIndex(pstMbuf, ulIf));
        ulIf = MBUF_GetReceiveIfIndex(pstMbuf) + 1;
    }
    benchmark::DoNotOptimize(ulIf);
    MBUF_Destroy_fl(pstMbuf, __FILE__, __LINE__);
}
BENCHMARK(BM_ReceiveIfIndexGetSet);

// Yardstick: the same store and load on the block's field, out of line so
// the call shape matches.
__attribute__((noinline)) void PlainSet(MBUF_S *pstMbuf, uint32_t ulValue) {
    pstMbuf->pstCtlInfo->stComm.ulRcvIfIndex = ulValue;
}
__attribute__((noinline)) uint32_t PlainGet(MBUF_S *pstMbuf) {
    return pstMbuf->pstCtlInfo->stComm.ulRcvIfIndex;
}

void BM_YardstickPlainField(benchmark::State &state) {
    MBUF_S *pstMbuf = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, __FILE__, __LINE__);
    uint32_t ulIf = 1;
    for (auto _ : state) {
        PlainSet(pstMbuf, ulIf);
        ulIf = PlainGet(pstMbuf) + 1;
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(ulIf);
    MBUF_Destroy_fl(pstMbuf, __FILE__, __LINE__);
}
BENCHMARK(BM_YardstickPlainField);

}  // namespace
