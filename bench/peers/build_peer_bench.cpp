// Building and copying packets, the library against DPDK's rte_mbuf in one
// run: a header node allocated and destroyed, a plain node allocated and
// freed, a 1500-byte packet created by copy with a 54-byte header prepended
// and destroyed, a raw copy of a 1500-byte packet held in one and in two
// nodes, and 1500 bytes copied out of two nodes. The yardstick is memcpy of
// the same bytes called through a pointer the compiler cannot see through,
// so it is the C library's memcpy (as the library's copies are), not an
// inlined string instruction; aligned and unaligned. The peer copies with
// its own rte_memcpy, as its users do.
#include <benchmark/benchmark.h>
#include <rte_mbuf.h>
#include <rte_memcpy.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "offload_fixtures.h"
#include "peer_eal.h"

namespace krm::bench {
namespace {

constexpr std::uint32_t kPktLen = 1500;
constexpr std::uint32_t kHdrLen = 54;    // Ethernet + IPv4 + TCP
constexpr std::uint32_t kHeadRoom = 64;  // room left for the headers
constexpr std::uint32_t kHalf = kPktLen / 2;

rte_mempool *g_pstPool = nullptr;  // 2 KiB of data room, per-lcore cache

using MemcpyFn = void *(*)(void *, const void *, std::size_t);
MemcpyFn volatile g_pfMemcpy = std::memcpy;

// A buffer of 4 KiB, 64-byte aligned, released at scope end.
struct Block {
    std::uint8_t *p = static_cast<std::uint8_t *>(std::aligned_alloc(64, 4096));
    Block() { std::memset(p, 0x5A, 4096); }
    ~Block() { std::free(p); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
};

// ---- sources -----------------------------------------------------------------

// Ours: kPktLen bytes in one node, or in two nodes of half each.
MBUF_S *OurSource(const std::vector<std::uint8_t> &bytes, bool bTwoNodes) {
    if (!bTwoNodes) {
        return MBUF_CreateByCopyBuffer(0, kPktLen, bytes.data(), 0, kBenchModule);
    }
    MBUF_S *head = MBUF_CreateByCopyBuffer(0, kHalf, bytes.data(), 0, kBenchModule);
    MBUF_S *tail =
        MBUF_CreateByCopyBuffer(0, kPktLen - kHalf, bytes.data() + kHalf, 0, kBenchModule);
    if (head == nullptr || tail == nullptr || MBUF_Concatenate(head, tail) != 0) {
        MBUF_Destroy(head);
        MBUF_Destroy(tail);
        return nullptr;
    }
    return head;
}

rte_mbuf *PeerSegment(const std::uint8_t *pucBytes, std::uint16_t usLen) {
    rte_mbuf *m = rte_pktmbuf_alloc(g_pstPool);
    if (m == nullptr) {
        return nullptr;
    }
    char *p = rte_pktmbuf_append(m, usLen);
    if (p == nullptr) {
        rte_pktmbuf_free(m);
        return nullptr;
    }
    rte_memcpy(p, pucBytes, usLen);
    return m;
}

rte_mbuf *PeerSource(const std::vector<std::uint8_t> &bytes, bool bTwoNodes) {
    if (!bTwoNodes) {
        return PeerSegment(bytes.data(), kPktLen);
    }
    rte_mbuf *head = PeerSegment(bytes.data(), kHalf);
    rte_mbuf *tail = PeerSegment(bytes.data() + kHalf, kPktLen - kHalf);
    if (head == nullptr || tail == nullptr || rte_pktmbuf_chain(head, tail) != 0) {
        rte_pktmbuf_free(head);
        rte_pktmbuf_free(tail);
        return nullptr;
    }
    return head;
}

// ---- node allocation -----------------------------------------------------------

void BM_OursHeaderAllocDestroy(benchmark::State &state) {
    KRM_HOST_Reset();
    for (auto _ : state) {
        std::uint32_t cap = 0;
        MBUF_S *m = MBUF_AllocateMBufHeader_fl(0, 0, &cap, kBenchModule, "bench", 1);
        benchmark::DoNotOptimize(m);
        MBUF_Destroy(m);
    }
}

void BM_OursNodeAllocFree(benchmark::State &state) {
    KRM_HOST_Reset();
    const MBUF_FILE_LINE_S fl{"bench", 2};
    for (auto _ : state) {
        std::uint32_t cap = 0;
        MBUF_S *m = MBUF_AllocateMBufNode_fl(0, 0, &cap, kBenchModule, "bench", 2);
        benchmark::DoNotOptimize(m);
        MBUF_Free(m, &fl);
    }
}

// The peer has one allocator for both kinds of node.
void BM_PeerAllocFree(benchmark::State &state) {
    for (auto _ : state) {
        rte_mbuf *m = rte_pktmbuf_alloc(g_pstPool);
        benchmark::DoNotOptimize(m);
        rte_pktmbuf_free(m);
    }
}

// ---- building a packet -----------------------------------------------------------

void BM_OursCreatePrependDestroy(benchmark::State &state) {
    KRM_HOST_Reset();
    const std::vector<std::uint8_t> bytes = BenchBytes(kPktLen);
    for (auto _ : state) {
        MBUF_S *m = MBUF_CreateByCopyBuffer(kHeadRoom, kPktLen, bytes.data(), 0, kBenchModule);
        std::uint8_t *hdr = MBUF_PrependMemorySpace(m, kHdrLen, kBenchModule);
        benchmark::DoNotOptimize(hdr);
        MBUF_Destroy(m);
    }
}

void BM_PeerCreatePrependDestroy(benchmark::State &state) {
    const std::vector<std::uint8_t> bytes = BenchBytes(kPktLen);
    for (auto _ : state) {
        rte_mbuf *m = rte_pktmbuf_alloc(g_pstPool);
        char *p = rte_pktmbuf_append(m, kPktLen);
        rte_memcpy(p, bytes.data(), kPktLen);
        char *hdr = rte_pktmbuf_prepend(m, kHdrLen);
        benchmark::DoNotOptimize(hdr);
        rte_pktmbuf_free(m);
    }
}

// ---- copies ------------------------------------------------------------------------

void BM_OursRawCopy(benchmark::State &state) {
    KRM_HOST_Reset();
    MBUF_S *src = OurSource(BenchBytes(kPktLen), state.range(0) == 2);
    if (src == nullptr) {
        state.SkipWithError("source not built");
        return;
    }
    for (auto _ : state) {
        MBUF_S *copy = MBUF_RawCopy(src, 0, kPktLen, 0, kBenchModule);
        benchmark::DoNotOptimize(copy);
        MBUF_Destroy(copy);
    }
    MBUF_Destroy(src);
}

void BM_PeerRawCopy(benchmark::State &state) {
    rte_mbuf *src = PeerSource(BenchBytes(kPktLen), state.range(0) == 2);
    if (src == nullptr) {
        state.SkipWithError("source not built");
        return;
    }
    for (auto _ : state) {
        rte_mbuf *copy = rte_pktmbuf_copy(src, g_pstPool, 0, UINT32_MAX);
        benchmark::DoNotOptimize(copy);
        rte_pktmbuf_free(copy);
    }
    rte_pktmbuf_free(src);
}

// Both copy the whole packet out and are held to the bytes they were given.
void BM_OursCopyOut(benchmark::State &state) {
    KRM_HOST_Reset();
    const std::vector<std::uint8_t> bytes = BenchBytes(kPktLen);
    MBUF_S *src = OurSource(bytes, true);
    Block dst;
    if (src == nullptr || MBUF_CopyDataFromMBufToBuffer(src, 0, kPktLen, dst.p) != 0 ||
        std::memcmp(dst.p, bytes.data(), kPktLen) != 0) {
        state.SkipWithError("copy out differs");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(MBUF_CopyDataFromMBufToBuffer(src, 0, kPktLen, dst.p));
        benchmark::ClobberMemory();
    }
    MBUF_Destroy(src);
}

void BM_PeerCopyOut(benchmark::State &state) {
    const std::vector<std::uint8_t> bytes = BenchBytes(kPktLen);
    rte_mbuf *src = PeerSource(bytes, true);
    Block dst;
    if (src == nullptr || rte_pktmbuf_read(src, 0, kPktLen, dst.p) != dst.p ||
        std::memcmp(dst.p, bytes.data(), kPktLen) != 0) {
        state.SkipWithError("copy out differs");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(rte_pktmbuf_read(src, 0, kPktLen, dst.p));
        benchmark::ClobberMemory();
    }
    rte_pktmbuf_free(src);
}

// range(0): 0 both buffers 64-byte aligned, 1 both off by odd amounts.
void BM_Memcpy(benchmark::State &state) {
    Block src;
    Block dst;
    const std::size_t skew = state.range(0) != 0 ? 1 : 0;
    for (auto _ : state) {
        g_pfMemcpy(dst.p + 3 * skew, src.p + skew, kPktLen);
        benchmark::ClobberMemory();
    }
}

// The floor of a copy out of two nodes: the same two pieces, from
// cache-line aligned sources, one after the other into one buffer.
void BM_MemcpyTwoPieces(benchmark::State &state) {
    Block first;
    Block second;
    Block dst;
    for (auto _ : state) {
        g_pfMemcpy(dst.p, first.p, kHalf);
        g_pfMemcpy(dst.p + kHalf, second.p, kPktLen - kHalf);
        benchmark::ClobberMemory();
    }
}

}  // namespace

bool RegisterBuildPeerBenchmarks() {
    g_pstPool = rte_pktmbuf_pool_create("krm_build", 4095, 256, 0, RTE_MBUF_DEFAULT_BUF_SIZE,
                                        SOCKET_ID_ANY);
    if (g_pstPool == nullptr) {
        return false;
    }
    const auto reg = [](const char *name, void (*fn)(benchmark::State &)) {
        return benchmark::RegisterBenchmark(name, fn)->ComputeStatistics("min", Fastest);
    };
    reg("Build/hdr_alloc_destroy/ours", BM_OursHeaderAllocDestroy);
    reg("Build/hdr_alloc_destroy/peer", BM_PeerAllocFree);
    reg("Build/node_alloc_free/ours", BM_OursNodeAllocFree);
    reg("Build/node_alloc_free/peer", BM_PeerAllocFree);
    reg("Build/create_prepend/ours", BM_OursCreatePrependDestroy);
    reg("Build/create_prepend/peer", BM_PeerCreatePrependDestroy);
    reg("Build/raw_copy/ours", BM_OursRawCopy)->Arg(1)->Arg(2);
    reg("Build/raw_copy/peer", BM_PeerRawCopy)->Arg(1)->Arg(2);
    reg("Build/copy_out/ours", BM_OursCopyOut);
    reg("Build/copy_out/peer", BM_PeerCopyOut);
    reg("Build/memcpy", BM_Memcpy)->Arg(0)->Arg(1);
    reg("Build/memcpy_two_pieces", BM_MemcpyTwoPieces);
    return true;
}

}  // namespace krm::bench
