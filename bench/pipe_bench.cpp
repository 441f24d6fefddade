// The pipe road per packet: send and receive of a 1500-byte two-node packet
// with three records through the in-process pipe, against memcpy of its
// bytes in the same run; and packets per second across processes over a
// Unix socket (each packet answered by the peer with a digest).
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "../tools/pipe-peer/road_packets.h"
#include "krm_host/host.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/mbuf.h"

namespace {

constexpr uint32_t kModule = 0x00680000u;
constexpr uint32_t kPipe = 6;
constexpr uint32_t kLen = 1500;

// A head of 300 bytes inline and a cluster of 1200, with three records.
MBUF_S *MakePacket() {
    std::vector<uint8_t> bytes(kLen, 0x5A);
    MBUF_S *head = MBUF_CreateByCopyBuffer(0, 300, bytes.data(), 0, kModule);
    MBUF_S *tail = MBUF_CreateByCopyBuffer(0, kLen - 300, bytes.data(), 0, kModule);
    (void)MBUF_Concatenate(head, tail);
    (void)MBUF_SetPathId(head, 7);
    (void)MBUF_SetSockId(head, 8);
    (void)MBUF_SetReceiveIfIndex(head, 9);
    return head;
}

void BM_PipeSendRecv(benchmark::State &state) {
    KRM_HOST_Reset();
    KRM_HOST_PipeOpen(kPipe, 16);
    KRM_HOST_PipeSetTokens(kPipe, 0xFFFFFFFFu);
    MBUF_S *m = MakePacket();
    MBUF_IOVEC_S v[MBUF_PIPE_MAX_IOVEC];
    MBUF_TRANS_DESC_S descs[2];
    for (auto _ : state) {
        if (MBUF_Send(kPipe, m, v) != 0) {
            state.SkipWithError("send failed");
            break;
        }
        uint32_t count = 2;
        uint32_t status = 0;
        m = nullptr;
        if (MBUF_MultiRecv(kPipe, &m, &count, &status, descs) != 0 || count != 1) {
            state.SkipWithError("receive failed");
            break;
        }
        benchmark::DoNotOptimize(m);
    }
    MBUF_Destroy(m);
    state.SetBytesProcessed(state.iterations() * kLen);
    KRM_HOST_Reset();
}
BENCHMARK(BM_PipeSendRecv);

void BM_PipeMemcpyYardstick(benchmark::State &state) {
    std::vector<uint8_t> src(kLen, 0x5A);
    std::vector<uint8_t> dst(kLen);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kLen);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kLen);
}
BENCHMARK(BM_PipeMemcpyYardstick);

// Round trips to a forked peer; items per second are packets answered.
void BM_PipeAcrossProcesses(benchmark::State &state) {
    const std::string path = "/tmp/krm-pipe-bench-" + std::to_string(getpid());
    const auto mode = krm::road::Mode::Pipe;
    uint32_t total = 0;
    for (auto _ : state) {
        total += 1000;
    }
    KRM_HOST_Reset();
    unlink(path.c_str());
    const pid_t pid = fork();
    if (pid == 0) {
        KRM_HOST_Reset();
        krm::road::Bind(mode, 1, path.c_str(), true);
        krm::road::RunReceiver(mode, 1, 0, total);
        KRM_HOST_Reset();
        _exit(0);
    }
    krm::road::Bind(mode, 1, path.c_str(), false);
    const auto start = std::chrono::steady_clock::now();
    const krm::road::Tally t = krm::road::RunSender(mode, 1, 0, total);
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    waitpid(pid, nullptr, 0);
    unlink(path.c_str());
    KRM_HOST_Reset();
    if (t.differ != 0) {
        state.SkipWithError("packets differed");
    }
    state.counters["packets_per_s"] = secs > 0 ? t.equal / secs : 0;
}
BENCHMARK(BM_PipeAcrossProcesses)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
