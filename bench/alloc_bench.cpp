// The pipe-buffer pool against the system allocator for the two hot sizes:
// a node (936 bytes) and a standard cluster (1960 bytes). Each iteration is
// one allocation and its release on the same thread, the common pattern of a
// packet built and dropped.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "krm_mbuf/platform.h"

namespace {

constexpr uint32_t kModule = 0x00650000u;

void PoolAllocFree(benchmark::State &state) {
    const auto len = static_cast<uint32_t>(state.range(0));
    MBUF_IOVEC_S iovec{nullptr, len, 0};
    for (auto _ : state) {
        iovec.pBuf = nullptr;
        if (KRM_DbufIovecAlloc_F(kModule, 1, &iovec, __FILE__, __LINE__) != 0) {
            state.SkipWithError("allocation failed");
            break;
        }
        benchmark::DoNotOptimize(iovec.pBuf);
        benchmark::ClobberMemory();
        (void)KRM_DbufIovecFree_F(1, &iovec, __FILE__, __LINE__);
    }
}

// The cost of the interface shape alone: two out-of-line calls handing a
// pointer through a vector in memory, doing no allocation at all. Whatever
// the pool does comes on top of this.
alignas(16) unsigned char g_floorBuffer[64];

__attribute__((noinline)) uint32_t FloorAlloc(uint32_t ulModuleId, uint32_t ulCount,
                                              MBUF_IOVEC_S *pstIovec, const char *pcFileName,
                                              uint32_t ulLine) {
    benchmark::DoNotOptimize(ulModuleId);
    benchmark::DoNotOptimize(pcFileName);
    benchmark::DoNotOptimize(ulLine);
    if (ulCount != 1 || pstIovec == nullptr) {
        return 1;
    }
    pstIovec->pBuf = g_floorBuffer;
    return 0;
}

__attribute__((noinline)) uint32_t FloorFree(uint32_t ulCount, MBUF_IOVEC_S *pstIovec,
                                             const char *pcFileName, uint32_t ulLine) {
    benchmark::DoNotOptimize(pcFileName);
    benchmark::DoNotOptimize(ulLine);
    return (ulCount == 1 && pstIovec != nullptr && pstIovec->pBuf == g_floorBuffer) ? 0 : 1;
}

void InterfaceFloor(benchmark::State &state) {
    const auto len = static_cast<uint32_t>(state.range(0));
    MBUF_IOVEC_S iovec{nullptr, len, 0};
    for (auto _ : state) {
        iovec.pBuf = nullptr;
        if (FloorAlloc(kModule, 1, &iovec, __FILE__, __LINE__) != 0) {
            state.SkipWithError("allocation failed");
            break;
        }
        benchmark::DoNotOptimize(iovec.pBuf);
        benchmark::ClobberMemory();
        (void)FloorFree(1, &iovec, __FILE__, __LINE__);
    }
}

void MallocFree(benchmark::State &state) {
    const auto len = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void *p = std::malloc(len);
        benchmark::DoNotOptimize(p);
        benchmark::ClobberMemory();
        std::free(p);
    }
}

// Several buffers live at once, released in allocation order: the cache
// works as a stack, not only as a single recycled slot. 4 buffers are a small
// packet; 64 are a long chain, more than the system allocator's per-thread
// cache holds for one size.
void PoolAllocFreeBurst(benchmark::State &state) {
    const auto len = static_cast<uint32_t>(state.range(0));
    std::vector<MBUF_IOVEC_S> iovec(static_cast<std::size_t>(state.range(1)),
                                    MBUF_IOVEC_S{nullptr, len, 0});
    const auto count = static_cast<uint32_t>(iovec.size());
    for (auto _ : state) {
        if (KRM_DbufIovecAlloc_F(kModule, count, iovec.data(), __FILE__, __LINE__) != 0) {
            state.SkipWithError("allocation failed");
            break;
        }
        benchmark::DoNotOptimize(iovec[0].pBuf);
        benchmark::ClobberMemory();
        (void)KRM_DbufIovecFree_F(count, iovec.data(), __FILE__, __LINE__);
    }
}

void MallocFreeBurst(benchmark::State &state) {
    const auto len = static_cast<std::size_t>(state.range(0));
    std::vector<void *> p(static_cast<std::size_t>(state.range(1)));
    for (auto _ : state) {
        for (void *&slot : p) {
            slot = std::malloc(len);
        }
        benchmark::DoNotOptimize(p[0]);
        benchmark::ClobberMemory();
        for (void *slot : p) {
            std::free(slot);
        }
    }
}

}  // namespace

BENCHMARK(PoolAllocFree)->Arg(936)->Arg(1960);
BENCHMARK(MallocFree)->Arg(936)->Arg(1960);
BENCHMARK(InterfaceFloor)->Arg(936);
BENCHMARK(PoolAllocFreeBurst)->Args({936, 4})->Args({1960, 4})->Args({936, 64});
BENCHMARK(MallocFreeBurst)->Args({936, 4})->Args({1960, 4})->Args({936, 64});
