// Buffers cross threads: released on another thread than the one that made
// them, caches handed back when a thread ends, counts right throughout.

#include <algorithm>
#include <atomic>

#include "platform_util.h"

namespace krm::test::platform {
namespace {

class ThreadTest : public HostTest {};

// The chunk a thread released is cached by that thread; once it ends, the
// chunk must be reachable from other threads again.
TEST_F(ThreadTest, AnEndingThreadHandsItsCacheBack) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "threads keep no cache under AddressSanitizer";
#else
    void *released = nullptr;
    std::thread([&] {
        released = AllocDbuf(936);
        EXPECT_EQ(FreeDbuf(released), 0u);
    }).join();
    std::vector<void *> held;
    while (held.size() < 20000 && (held.empty() || held.back() != released)) {
        held.push_back(AllocDbuf(936));
        ASSERT_NE(held.back(), nullptr);
    }
    EXPECT_EQ(held.back(), released) << "the ended thread's cached chunk never came back";
    for (void *p : held) {
        EXPECT_EQ(FreeDbuf(p), 0u);
    }
#endif
}

// Each thread fills its buffers with its own byte, then checks and releases
// those of the next thread; the counts are right while the releasing threads
// still run, their caches not yet handed back.
TEST_F(ThreadTest, ConcurrentAllocationAndCrossReleaseKeepBuffersApart) {
    constexpr int kThreads = 4;
    constexpr std::uint32_t kPerThread = 2000;
    std::vector<std::vector<unsigned char *>> made(kThreads);
    std::atomic<int> ready{0};
    std::atomic<int> released{0};
    RunThreads(kThreads, [&](int t) {
        for (std::uint32_t i = 0; i < kPerThread; ++i) {
            const std::uint32_t len = (i % 4 == 3) ? 3000 : 100 + (i % 3) * 800;
            auto *p = static_cast<unsigned char *>(AllocDbuf(len, kModule + t));
            if (p == nullptr) {
                ADD_FAILURE() << "allocation failed";  // no ASSERT: the others wait for this one
                continue;
            }
            std::memset(p, t + 1, len);
            made[t].push_back(p);
        }
        ready.fetch_add(1);
        while (ready.load() != kThreads) {
            std::this_thread::yield();
        }
        const int other = (t + 1) % kThreads;
        for (unsigned char *p : made[other]) {
            const std::uint32_t len = KRM_DbufLengthGET(p);
            EXPECT_EQ(std::count(p, p + len, other + 1), len) << "changed under another thread";
            EXPECT_EQ(FreeDbuf(p), 0u);
        }
        released.fetch_add(1);
        while (released.load() != kThreads) {
            std::this_thread::yield();
        }
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u) << "while every releasing thread still runs";
    });
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), kThreads * kPerThread);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

}  // namespace
}  // namespace krm::test::platform
