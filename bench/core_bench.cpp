// The buffer core's hot paths: a small control packet's round trip, a
// full-size copy, and a record created and looked up.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace {

constexpr std::uint32_t kBenchModule = 0x42;

void BM_CreateForControlPacketAndDestroy64(benchmark::State &state) {
    for (auto _ : state) {
        MBUF_S *m = MBUF_CreateForControlPacket(0, 64, 0, kBenchModule);
        benchmark::DoNotOptimize(m);
        MBUF_Destroy(m);
    }
}
BENCHMARK(BM_CreateForControlPacketAndDestroy64);

void BM_CreateByCopyBuffer1500AndDestroy(benchmark::State &state) {
    const std::vector<std::uint8_t> payload(1500, 0x5A);
    for (auto _ : state) {
        MBUF_S *m = MBUF_CreateByCopyBuffer(0, 1500, payload.data(), 0, kBenchModule);
        benchmark::DoNotOptimize(m);
        MBUF_Destroy(m);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 1500);
}
BENCHMARK(BM_CreateByCopyBuffer1500AndDestroy);

// One record placed in the node's own block and looked up. The packet is
// made once; each iteration starts from a freshly initialised block (the
// reset is part of the measured time: records are never reclaimed).
void BM_CreateControlInfoAndGet(benchmark::State &state) {
    MBUF_S *m = MBUF_CreateForControlPacket(0, 64, 0, kBenchModule);
    for (auto _ : state) {
        (void)MBUF_InitControlInfo(m->pstCtlInfo);
        if (MBUF_CreateControlInfo(m, MBUF_CTL_IP, 20, kBenchModule) != MBUF_OK) {
            state.SkipWithError("record not created");
            break;
        }
        benchmark::DoNotOptimize(MBUF_GetControlInfo(m, MBUF_CTL_IP));
    }
    MBUF_Destroy(m);
}
BENCHMARK(BM_CreateControlInfoAndGet);

// Yardsticks in the same run: the system allocator doing the bare minimum
// of each round trip above (one node; one node's worth plus the copy).
void BM_YardstickMallocFree936(benchmark::State &state) {
    for (auto _ : state) {
        void *p = std::malloc(MBUF_NODE_SIZE);
        benchmark::DoNotOptimize(p);
        benchmark::ClobberMemory();
        std::free(p);
    }
}
BENCHMARK(BM_YardstickMallocFree936);

void BM_YardstickMallocCopy1500Free(benchmark::State &state) {
    const std::vector<std::uint8_t> payload(1500, 0x5A);
    for (auto _ : state) {
        void *p = std::malloc(MBUF_CLUSTER_SIZE);
        std::memcpy(p, payload.data(), payload.size());
        benchmark::DoNotOptimize(p);
        benchmark::ClobberMemory();
        std::free(p);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 1500);
}
BENCHMARK(BM_YardstickMallocCopy1500Free);

}  // namespace
