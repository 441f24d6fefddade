// Mutex fault injection: the Nth call of each operation is refused once and
// changes nothing, the countdowns are per operation and exact across
// threads, and a reset disarms them and restarts the counts.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/platform.h"

namespace krm::test::platform {
namespace {

constexpr std::uint32_t kInjected = KRM_HOST_MUTEX_ERR_INJECTED;

class MutexFaultTest : public HostTest {};

// One row per operation: the call that is refused, and a probe that shows
// the refused call changed nothing.
TEST_F(MutexFaultTest, TheNthCallIsRefusedOnceAndChangesNothing) {
    std::uint32_t m = 0;
    ASSERT_EQ(BEX_MutexInit(&m), 0u);
    const std::uint32_t live = KRM_HOST_LiveMutexCount();

    // Init: no mutex is made and the handle is left alone.
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_INIT, 2);
    std::uint32_t a = 0, b = 77;
    EXPECT_EQ(BEX_MutexInit(&a), 0u);
    EXPECT_EQ(BEX_MutexInit(&b), kInjected);
    EXPECT_EQ(b, 77u);
    EXPECT_EQ(KRM_HOST_LiveMutexCount(), live + 1);
    EXPECT_EQ(BEX_MutexDestroy(a), 0u);

    // Lock: not taken, so another thread can take it.
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_LOCK, 1);
    EXPECT_EQ(BEX_MutexLock(m), kInjected);
    std::uint32_t other = 1;
    std::thread([&] {
        other = BEX_MutexLock(m);
        other |= BEX_MutexUnlock(m);
    }).join();
    EXPECT_EQ(other, 0u);

    // Unlock: still held, so it cannot be destroyed until really released.
    ASSERT_EQ(BEX_MutexLock(m), 0u);
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_UNLOCK, 1);
    EXPECT_EQ(BEX_MutexUnlock(m), kInjected);
    EXPECT_NE(BEX_MutexDestroy(m), 0u) << "held by this thread";
    EXPECT_EQ(BEX_MutexUnlock(m), 0u);

    // Destroy: still alive and usable.
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_DESTROY, 1);
    EXPECT_EQ(BEX_MutexDestroy(m), kInjected);
    EXPECT_EQ(BEX_MutexLock(m), 0u);
    EXPECT_EQ(BEX_MutexUnlock(m), 0u);
    EXPECT_EQ(BEX_MutexDestroy(m), 0u);
    EXPECT_EQ(KRM_HOST_LiveMutexCount(), live - 1);
}

TEST_F(MutexFaultTest, CountdownsArePerOperationAndResetDisarms) {
    std::uint32_t m = 0;
    ASSERT_EQ(BEX_MutexInit(&m), 0u);
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_UNLOCK, 3);
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_OP_NUM, 1);  // unknown: ignored
    std::vector<std::uint32_t> unlocks;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(BEX_MutexLock(m), 0u) << i;
        const std::uint32_t ret = BEX_MutexUnlock(m);
        unlocks.push_back(ret);
        if (ret != 0) {
            EXPECT_EQ(BEX_MutexUnlock(m), 0u);
        }
    }
    EXPECT_EQ(unlocks, (std::vector<std::uint32_t>{0, 0, kInjected, 0}));
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_INIT), 1u);
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_LOCK), 4u);
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_UNLOCK), 5u);
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_OP_NUM), 0u);

    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_LOCK, 1);
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_LOCK, 0);
    EXPECT_EQ(BEX_MutexLock(m), 0u) << "0 disarms";
    EXPECT_EQ(BEX_MutexUnlock(m), 0u);

    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_DESTROY, 1);
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_LOCK), 0u);
    EXPECT_EQ(BEX_MutexDestroy(m), 0u) << "the reset disarmed it";
}

// Racing threads: exactly one call among all of them is refused.
TEST_F(MutexFaultTest, ThreadsShareOneCountdown) {
    std::uint32_t m = 0;
    ASSERT_EQ(BEX_MutexInit(&m), 0u);
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_LOCK, 777);
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                if (BEX_MutexLock(m) != 0) {
                    ++refused;
                    continue;
                }
                (void)BEX_MutexUnlock(m);
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(refused.load(), 1);
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_LOCK), std::uint32_t{kThreads * kEach});
    EXPECT_EQ(BEX_MutexDestroy(m), 0u);
}

}  // namespace
}  // namespace krm::test::platform
