// Pipes used from several threads at once: nothing lost, nothing read twice,
// each writer's packages in its own order, and no buffer left behind when a
// pipe is closed under running writers. Runs under ThreadSanitizer.
#include <atomic>
#include <map>

#include "platform_util.h"

namespace krm::test::platform {
namespace {

class PipeThreadTest : public HostTest {};

constexpr std::uint32_t kWriters = 4;
constexpr std::uint32_t kReaders = 3;
constexpr std::uint32_t kPerWriter = 400;

// A one-piece packet whose first two words name its writer and number.
void *Stamped(std::uint32_t writer, std::uint32_t seq) {
    auto *p = static_cast<std::uint32_t *>(AllocDbuf(64));
    if (p != nullptr) {
        p[0] = writer;
        p[1] = seq;
    }
    return p;
}

// Reads until `total` packages were taken by all readers together; each
// reader keeps what it saw, in its order.
void ReadAll(std::uint32_t pipe, std::atomic<std::uint32_t> *taken, std::uint32_t total,
             std::vector<std::pair<std::uint32_t, std::uint32_t>> *seen) {
    while (taken->load() < total) {
        if (KRM_HOST_PipeWait(pipe, 5) == 0) {
            continue;
        }
        const GotPackage got = ReadOne(pipe);
        if (got.rc != 0 || got.packets.empty()) {
            continue;
        }
        const auto *w = reinterpret_cast<const std::uint32_t *>(got.packets[0][0].bytes.data());
        seen->emplace_back(w[0], w[1]);
        taken->fetch_add(1);
        FreeGot(got);
    }
}

TEST_F(PipeThreadTest, WritersAndReadersOnSeveralThreadsLoseNothing) {
    ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 32), 0u);
    std::atomic<std::uint32_t> taken{0};
    std::vector<std::vector<std::pair<std::uint32_t, std::uint32_t>>> seen(kReaders);
    RunThreads(kReaders + kWriters, [&](int t) {
        if (t < static_cast<int>(kReaders)) {
            ReadAll(kPipe, &taken, kWriters * kPerWriter, &seen[t]);
            return;
        }
        const std::uint32_t w = t - kReaders;
        for (std::uint32_t seq = 0; seq < kPerWriter; ++seq) {
            MBUF_IOVEC_S iov{Stamped(w, seq), 64, 0};
            std::uint32_t token = 1;
            while (KRM_PipeTokenAlloc(kPipe, &token) != 0) {
                std::this_thread::yield();
            }
            while (KRM_PipeIovecWrite(kPipe, 1, &iov) == KRM_HOST_PIPE_ERR_FULL) {
                std::this_thread::yield();
            }
        }
    });
    std::map<std::uint32_t, std::uint32_t> perWriter;
    for (const auto &reader : seen) {
        std::map<std::uint32_t, std::uint32_t> next;  // per writer, the least seq still allowed
        for (const auto &[writer, seq] : reader) {
            EXPECT_GE(seq, next[writer]) << "writer " << writer << " out of order";
            next[writer] = seq + 1;
            ++perWriter[writer];
        }
    }
    for (std::uint32_t w = 0; w < kWriters; ++w) {
        EXPECT_EQ(perWriter[w], kPerWriter) << "writer " << w;
    }
    const KRM_HOST_PIPE_STATS_S stats = Stats(kPipe);
    EXPECT_EQ(std::pair(stats.ulWritten, stats.ulRead),
              std::pair(kWriters * kPerWriter, kWriters * kPerWriter));
    EXPECT_EQ(KRM_HOST_PipeTokens(kPipe), KRM_HOST_PIPE_DEFAULT_TOKENS) << "every credit returned";
}

// Writers keep writing while the pipe is closed and opened again: a write
// that succeeded gave its buffer up, one that failed still owns it.
TEST_F(PipeThreadTest, ClosingUnderRunningWritersLeavesNothingBehind) {
    ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 16), 0u);
    std::atomic<bool> stop{false};
    std::thread writers([&] {
        RunThreads(kWriters, [&](int w) {
            for (std::uint32_t seq = 0; !stop.load(); ++seq) {
                MBUF_IOVEC_S iov{Stamped(w, seq), 64, 0};
                const std::uint32_t rc = w % 2 == 0 ? KRM_PipeIovecWrite(kPipe, 1, &iov)
                                                    : TQM_PipeUrgentIovecWrite(kPipe, 1, &iov);
                if (rc != 0) {
                    EXPECT_EQ(KRM_DbufLengthGET(iov.pBuf), 64u) << "a failed write keeps it";
                    (void)FreeDbuf(iov.pBuf);
                }
            }
        });
    });
    for (int round = 0; round < 40; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        FreeGot(ReadOne(kPipe));
        ASSERT_EQ(KRM_HOST_PipeClose(kPipe), 0u);
        ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 16), 0u);
    }
    stop.store(true);
    writers.join();
    ASSERT_EQ(KRM_HOST_PipeClose(kPipe), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

// The link's thread delivers while reader threads take packages out.
TEST_F(PipeThreadTest, FramesFromASocketReachReadersOnOtherThreads) {
    constexpr std::uint32_t kFrames = 300;
    constexpr std::uint32_t kNet = 12;
    TempDir dir;
    const std::string path = dir.Sock("pipe.sock");
    ASSERT_EQ(KRM_HOST_PipeOpen(kNet, 0), 0u);
    ASSERT_EQ(KRM_HOST_PipeListen(kNet, path.c_str()), 0u);
    // A peer in this process: a second pipe id cannot share the socket, so
    // the peer writes frames of the same layout from a buffer of its own.
    RawFrame raw;
    raw.id = kNet;
    raw.recs = {{8, 8, 0, 0, 0}};
    raw.data.assign(8, 0x5A);
    const std::vector<unsigned char> frame = raw.Bytes();
    const int fd = ConnectRaw(path);
    ASSERT_GE(fd, 0);
    std::atomic<std::uint32_t> taken{0};
    std::vector<std::vector<std::pair<std::uint32_t, std::uint32_t>>> seen(3);
    RunThreads(3, [&](int t) {
        for (std::uint32_t i = 0; t == 0 && i < kFrames; ++i) {
            ASSERT_EQ(::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(frame.size()));
        }
        if (t != 0) {
            ReadAll(kNet, &taken, kFrames, &seen[t]);
        }
    });
    EXPECT_EQ(seen[1].size() + seen[2].size(), kFrames);
    EXPECT_EQ(KRM_HOST_PipeDepth(kNet), 0u);
    (void)::close(fd);
    ASSERT_EQ(KRM_HOST_PipeClose(kNet), 0u);
}

}  // namespace
}  // namespace krm::test::platform
