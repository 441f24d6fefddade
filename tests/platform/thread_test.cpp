// Buffers cross threads: released on another thread than the one that made
// them, caches handed back when a thread ends, counts right throughout.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "host_test.h"
#include "platform_util.h"

namespace krm::test::platform {
namespace {

class ThreadTest : public HostTest {};

std::vector<void *> AllocMany(std::uint32_t count, std::uint32_t len) {
    std::vector<void *> made;
    for (std::uint32_t i = 0; i < count; ++i) {
        void *p = AllocDbuf(len + i % 3);
        EXPECT_NE(p, nullptr);
        made.push_back(p);
    }
    return made;
}

TEST_F(ThreadTest, BuffersOfAnEndedThreadAreCountedAndReleasedElsewhere) {
    std::vector<void *> made;
    std::thread maker([&] { made = AllocMany(300, 900); });
    maker.join();
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 300u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 300u);
    for (void *p : made) {
        EXPECT_LT(KRM_DbufLengthGET(p) - 900u, 3u) << "header intact";
        EXPECT_EQ(FreeDbuf(p), 0u);
    }
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

TEST_F(ThreadTest, AThreadThatOnlyReleasesIsCounted) {
    std::vector<void *> made = AllocMany(200, 100);
    std::thread releaser([&] {
        for (void *p : made) {
            EXPECT_EQ(FreeDbuf(p), 0u);
        }
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u) << "while the releasing thread still runs";
    });
    releaser.join();
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
}

TEST_F(ThreadTest, AnEndingThreadHandsItsCacheBack) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "threads keep no cache under AddressSanitizer";
#else
    // The chunk a thread released is cached by that thread; once it ends,
    // the chunk must be reachable from other threads again.
    void *released = nullptr;
    std::thread worker([&] {
        released = AllocDbuf(936);
        EXPECT_EQ(FreeDbuf(released), 0u);
    });
    worker.join();
    std::vector<void *> held;
    bool found = false;
    for (int i = 0; i < 20000 && !found; ++i) {
        void *p = AllocDbuf(936);
        ASSERT_NE(p, nullptr);
        held.push_back(p);
        found = p == released;
    }
    EXPECT_TRUE(found) << "the ended thread's cached chunk never came back";
    for (void *p : held) {
        EXPECT_EQ(FreeDbuf(p), 0u);
    }
#endif
}

TEST_F(ThreadTest, ConcurrentAllocationAndCrossReleaseKeepBuffersApart) {
    constexpr int kThreads = 4;
    constexpr std::uint32_t kPerThread = 2000;
    std::vector<std::vector<void *>> made(kThreads);
    std::atomic<int> ready{0};
    auto fill = [&](int t) {
        for (std::uint32_t i = 0; i < kPerThread; ++i) {
            const std::uint32_t len = (i % 4 == 3) ? 3000 : 100 + (i % 3) * 800;
            auto *p = static_cast<unsigned char *>(AllocDbuf(len, kModule + t));
            if (p == nullptr) {
                ADD_FAILURE() << "allocation failed";
                continue;
            }
            std::memset(p, t + 1, len);
            made[t].push_back(p);
        }
        ready.fetch_add(1);
        while (ready.load() != kThreads) {
            std::this_thread::yield();
        }
        // Release another thread's buffers after checking them.
        for (void *q : made[(t + 1) % kThreads]) {
            auto *p = static_cast<unsigned char *>(q);
            const std::uint32_t len = KRM_DbufLengthGET(p);
            for (std::uint32_t k = 0; k < len; ++k) {
                if (p[k] != static_cast<unsigned char>((t + 1) % kThreads + 1)) {
                    ADD_FAILURE() << "buffer contents changed under another thread";
                    break;
                }
            }
            EXPECT_EQ(FreeDbuf(p), 0u);
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back(fill, t);
    }
    for (std::thread &th : threads) {
        th.join();
    }
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), kThreads * kPerThread);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

}  // namespace
}  // namespace krm::test::platform
