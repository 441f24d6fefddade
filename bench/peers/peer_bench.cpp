// The library against DPDK's rte_mbuf on the same inputs, in one run:
// chain checksums (against rte_raw_cksum_mbuf, and memcpy of the same
// bytes), and the cut of a 64 KiB IPv4 TCP packet into 1448-byte segments
// with their checksums (against rte_gso_segment plus the software
// checksums of every segment). EAL runs without huge pages or devices, on
// the first CPU this process may use.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <rte_ethdev.h>
#include <rte_gso.h>
#include <rte_ip.h>
#include <rte_mbuf.h>
#include <rte_tcp.h>

#include <cstdio>
#include <vector>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "offload_fixtures.h"
#include "peer_eal.h"

namespace {

using namespace krm::bench;

rte_mempool *g_pstBig = nullptr;       // sources: 32 KiB of data room
rte_mempool *g_pstDirect = nullptr;    // GSO header buffers
rte_mempool *g_pstIndirect = nullptr;  // GSO payload references

// rte_mbuf chain of the same three odd splits, odd head room each.
rte_mbuf *PeerChain(const std::vector<std::uint8_t> &bytes) {
    std::uint32_t parts[3];
    ThreeSplits(static_cast<std::uint32_t>(bytes.size()), parts);
    rte_mbuf *head = nullptr;
    std::uint32_t at = 0;
    for (std::uint32_t i = 0; i < 3; ++i) {
        rte_mbuf *m = rte_pktmbuf_alloc(g_pstBig);
        if (m == nullptr) {
            rte_pktmbuf_free(head);
            return nullptr;
        }
        m->data_off = static_cast<std::uint16_t>(m->data_off + 2 * i + 1);
        char *p = rte_pktmbuf_append(m, static_cast<std::uint16_t>(parts[i]));
        if (p == nullptr) {
            rte_pktmbuf_free(m);
            rte_pktmbuf_free(head);
            return nullptr;
        }
        std::memcpy(p, bytes.data() + at, parts[i]);
        at += parts[i];
        if (head == nullptr) {
            head = m;
        } else {
            rte_pktmbuf_chain(head, m);
        }
    }
    return head;
}

void BM_PeerChainChecksum(benchmark::State &state) {
    const auto len = static_cast<std::uint32_t>(state.range(0));
    rte_mbuf *m = PeerChain(BenchBytes(len));
    if (m == nullptr) {
        state.SkipWithError("peer chain not built");
        return;
    }
    for (auto _ : state) {
        std::uint16_t sum = 0;
        rte_raw_cksum_mbuf(m, 0, len, &sum);
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * len);
    rte_pktmbuf_free(m);
}

void BM_OursChainChecksum(benchmark::State &state) {
    KRM_HOST_Reset();
    const auto len = static_cast<std::uint32_t>(state.range(0));
    const std::vector<std::uint8_t> bytes = BenchBytes(len);
    MBUF_S *pkt = ThreeNodeChain(bytes);
    rte_mbuf *m = PeerChain(bytes);
    // The peer's chain sum truncates a run that starts at an odd position
    // before swapping it, so on odd splits it can differ from the true sum;
    // ours is held to the peer's flat sum of the same bytes, and whether
    // the peer's chain sum agrees is shown as a counter.
    std::uint16_t chained = 0;
    const std::uint16_t flat = rte_raw_cksum(bytes.data(), len);
    const std::uint16_t ours = static_cast<std::uint16_t>(~MBUF_CalcCheckSum(pkt, len));
    if (pkt == nullptr || m == nullptr || rte_raw_cksum_mbuf(m, 0, len, &chained) != 0 ||
        ours != rte_be_to_cpu_16(flat)) {
        state.SkipWithError("the two sums differ");
    }
    state.counters["peer_chain_agrees"] = ours == rte_be_to_cpu_16(chained) ? 1 : 0;
    rte_pktmbuf_free(m);
    for (auto _ : state) {
        benchmark::DoNotOptimize(MBUF_CalcCheckSum(pkt, len));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * len);
    MBUF_Destroy(pkt);
}

void BM_Memcpy(benchmark::State &state) {
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

// The cut consumes its source, so each iteration builds one (copying the
// frame into three nodes, which leaves it in the cache as the peer's stays)
// and cuts it; BM_OursTsoBuild measures the building alone, and the
// difference is the cut. Stopping the clock instead costs more than a cut
// on a virtual machine.
void BM_OursTso64K(benchmark::State &state) {
    KRM_HOST_Reset();
    const std::vector<std::uint8_t> frame = TsoFrame();
    std::vector<MBUF_S *> segs(64, nullptr);
    for (auto _ : state) {
        MBUF_S *src = TsoSource(frame);
        std::uint32_t count = 0;
        if (src == nullptr ||
            MBUF_TSO_GetMbuf(src, segs.data(), 64 * sizeof(MBUF_S *), &count, kBenchModule) != 0) {
            state.SkipWithError("segmentation failed");
            return;
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            MBUF_Destroy(segs[i]);
        }
    }
}

void BM_OursTsoBuild(benchmark::State &state) {
    KRM_HOST_Reset();
    const std::vector<std::uint8_t> frame = TsoFrame();
    for (auto _ : state) {
        MBUF_S *src = TsoSource(frame);
        benchmark::DoNotOptimize(src);
        MBUF_Destroy(src);
    }
}

// The peer's input is not consumed by its cut, so it is built once; every
// iteration cuts it, computes both checksums of every segment (the payload
// lies in a second, indirect buffer) and frees the segments.
void BM_PeerGsoTso64K(benchmark::State &state) {
    const std::vector<std::uint8_t> frame = TsoFrame();
    rte_mbuf *src = PeerChain(frame);
    if (src == nullptr) {
        state.SkipWithError("peer source not built");
        return;
    }
    src->l2_len = kLinkLen;
    src->l3_len = 20;
    src->l4_len = 20;
    src->ol_flags |= RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_IPV4;
    rte_gso_ctx ctx{};
    ctx.direct_pool = g_pstDirect;
    ctx.indirect_pool = g_pstIndirect;
    ctx.gso_types = RTE_ETH_TX_OFFLOAD_TCP_TSO;
    ctx.gso_size = kLinkLen + 40 + kBenchMss;
    ctx.flag = 0;  // identification counts up per segment, as ours does
    std::vector<rte_mbuf *> out(64, nullptr);
    for (auto _ : state) {
        {
            // The cut clears the segmentation request on its input: ask again.
            src->ol_flags |= RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_IPV4;
            const int n = rte_gso_segment(src, &ctx, out.data(), 64);
            if (n <= 1) {
                state.SkipWithError("rte_gso_segment failed");
                rte_pktmbuf_free(src);
                return;
            }
            for (int i = 0; i < n; ++i) {
                rte_mbuf *seg = out[i];
                auto *ip = rte_pktmbuf_mtod_offset(seg, rte_ipv4_hdr *, kLinkLen);
                auto *tcp =
                    reinterpret_cast<rte_tcp_hdr *>(reinterpret_cast<std::uint8_t *>(ip) + 20);
                ip->hdr_checksum = 0;
                ip->hdr_checksum = rte_ipv4_cksum(ip);
                tcp->cksum = 0;
                tcp->cksum = rte_ipv4_udptcp_cksum_mbuf(seg, ip, kLinkLen + 20);
                rte_pktmbuf_free(seg);
            }
        }
    }
    rte_pktmbuf_free(src);
}

bool StartEal(const char *pcProg) {
    if (!StartPeerEal(pcProg)) {
        return false;
    }
    g_pstBig =
        rte_pktmbuf_pool_create("krm_big", 255, 0, 0, 32768 + RTE_PKTMBUF_HEADROOM, SOCKET_ID_ANY);
    g_pstDirect =
        rte_pktmbuf_pool_create("krm_direct", 1023, 0, 0, RTE_MBUF_DEFAULT_BUF_SIZE, SOCKET_ID_ANY);
    g_pstIndirect = rte_pktmbuf_pool_create("krm_indirect", 1023, 0, 0, 0, SOCKET_ID_ANY);
    return g_pstBig != nullptr && g_pstDirect != nullptr && g_pstIndirect != nullptr &&
           RegisterBuildPeerBenchmarks();
}

}  // namespace

int main(int argc, char **argv) {
    // Sources are built and released by the thousand: keep the C library
    // from handing memory back to the kernel and faulting it in again, which
    // would measure the kernel rather than either library.
    mallopt(M_TRIM_THRESHOLD, 512 << 20);
    mallopt(M_MMAP_THRESHOLD, 64 << 20);
    if (!StartEal(argv[0])) {
        std::fprintf(stderr, "EAL did not start\n");
        return 1;
    }
    // Other work shares these CPUs, and its noise only ever adds time: the
    // fastest repetition is reported next to the median.
    const auto fastest = Fastest;
    for (int len : {1500, 9000, 65536}) {
        benchmark::RegisterBenchmark("Checksum/ours", BM_OursChainChecksum)
            ->Arg(len)
            ->ComputeStatistics("min", fastest);
        benchmark::RegisterBenchmark("Checksum/peer", BM_PeerChainChecksum)
            ->Arg(len)
            ->ComputeStatistics("min", fastest);
        benchmark::RegisterBenchmark("Checksum/memcpy", BM_Memcpy)
            ->Arg(len)
            ->ComputeStatistics("min", fastest);
    }
    benchmark::RegisterBenchmark("Tso64K/ours", BM_OursTso64K)->ComputeStatistics("min", fastest);
    benchmark::RegisterBenchmark("Tso64K/ours_build", BM_OursTsoBuild)
        ->ComputeStatistics("min", fastest);
    benchmark::RegisterBenchmark("Tso64K/peer", BM_PeerGsoTso64K)
        ->ComputeStatistics("min", fastest);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    rte_eal_cleanup();
    return 0;
}
