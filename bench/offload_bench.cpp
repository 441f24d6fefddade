// Checksums and segmentation, with memcpy of the same bytes as the
// yardstick in the same run (the peer library's figures come from
// bench/peers). The checksum runs over three nodes split at odd points;
// the segmentation consumes its source, so every iteration builds one and
// the building is measured on its own as well.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "peers/offload_fixtures.h"

namespace {

using namespace krm::bench;

void BM_ChainChecksum(benchmark::State &state) {
    KRM_HOST_Reset();
    const auto len = static_cast<std::uint32_t>(state.range(0));
    MBUF_S *pkt = ThreeNodeChain(BenchBytes(len));
    if (pkt == nullptr) {
        state.SkipWithError("chain not built");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(MBUF_CalcCheckSum(pkt, len));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * len);
    MBUF_Destroy(pkt);
}
BENCHMARK(BM_ChainChecksum)->Arg(1500)->Arg(9000)->Arg(65536);

void BM_ChecksumMemcpy(benchmark::State &state) {
    const auto len = static_cast<std::size_t>(state.range(0));
    const std::vector<std::uint8_t> src = BenchBytes(static_cast<std::uint32_t>(len));
    std::vector<std::uint8_t> dst(len);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), len);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * len));
}
BENCHMARK(BM_ChecksumMemcpy)->Arg(1500)->Arg(9000)->Arg(65536);

// Each iteration builds a source and cuts it (the cut consumes it);
// BM_TsoBuild64K is the building alone, to be subtracted.
void BM_TsoSegment64K(benchmark::State &state) {
    KRM_HOST_Reset();
    const std::vector<std::uint8_t> frame = TsoFrame();
    std::vector<MBUF_S *> segs(64, nullptr);
    for (auto _ : state) {
        MBUF_S *src = TsoSource(frame);
        std::uint32_t count = 0;
        if (src == nullptr ||
            MBUF_TSO_GetMbuf(src, segs.data(), 64 * sizeof(MBUF_S *), &count, kBenchModule) != 0) {
            state.SkipWithError("segmentation failed");
            break;
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            MBUF_Destroy(segs[i]);
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kTsoPayload);
}
BENCHMARK(BM_TsoSegment64K);

void BM_TsoBuild64K(benchmark::State &state) {
    KRM_HOST_Reset();
    const std::vector<std::uint8_t> frame = TsoFrame();
    for (auto _ : state) {
        MBUF_S *src = TsoSource(frame);
        benchmark::DoNotOptimize(src);
        MBUF_Destroy(src);
    }
}
BENCHMARK(BM_TsoBuild64K);

}  // namespace
