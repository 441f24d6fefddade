// Mutex handles: real mutual exclusion, every misuse (unknown or stale
// handle, unlock by a non-holder, destroy while held, relock by the holder)
// refused instead of hanging or corrupting, and fault injection: the Nth
// call of each operation is refused once and changes nothing, the countdowns
// are per operation and exact across threads, and a reset disarms them.

#include <algorithm>
#include <atomic>
#include <set>

#include "platform_util.h"

namespace krm::test::platform {
namespace {

constexpr std::uint32_t kInjected = KRM_HOST_MUTEX_ERR_INJECTED;

class MutexTest : public HostTest {};

// The three calls on one handle, as one value.
std::vector<std::uint32_t> LockUnlockDestroy(std::uint32_t handle) {
    return {BEX_MutexLock(handle), BEX_MutexUnlock(handle), BEX_MutexDestroy(handle)};
}

// More than one chunk of slots; a destroyed handle stays refused even when
// its slot is reused, and does not disturb the new mutex. The holder may
// not relock or destroy; only the holder unlocks.
TEST_F(MutexTest, UnknownStaleOrMisusedHandlesAreRefused) {
    std::set<std::uint32_t> handles;
    for (int i = 0; i < 300; ++i) {
        std::uint32_t handle = 0;
        ASSERT_EQ(BEX_MutexInit(&handle), 0u);
        EXPECT_TRUE(handle != 0 && handles.insert(handle).second);
    }
    for (const std::uint32_t handle : handles) {
        EXPECT_EQ(BEX_MutexDestroy(handle), 0u);
    }
    EXPECT_NE(BEX_MutexInit(nullptr), 0u);
    std::uint32_t m = 0;
    ASSERT_EQ(BEX_MutexInit(&m), 0u);  // may reuse a slot, never a handle
    EXPECT_FALSE(handles.contains(m));
    handles.insert({0u, 0xFFFFu, 0x7FFF1234u});
    for (const std::uint32_t bogus : handles) {
        EXPECT_EQ(std::ranges::count(LockUnlockDestroy(bogus), 0u), 0) << bogus;
    }
    EXPECT_NE(BEX_MutexUnlock(m), 0u) << "not held";
    ASSERT_EQ(BEX_MutexLock(m), 0u);
    EXPECT_NE(BEX_MutexLock(m), 0u) << "relocking would never return";
    EXPECT_NE(BEX_MutexDestroy(m), 0u) << "held";
    std::uint32_t otherUnlock = 0;
    std::thread([&] { otherUnlock = BEX_MutexUnlock(m); }).join();
    EXPECT_NE(otherUnlock, 0u) << "only the holder unlocks";
    EXPECT_EQ(BEX_MutexUnlock(m), 0u);
    EXPECT_EQ(LockUnlockDestroy(m), (std::vector<std::uint32_t>{0, 0, 0}));
}

TEST_F(MutexTest, ExcludesConcurrentHolders) {
    std::uint32_t handle = 0;
    ASSERT_EQ(BEX_MutexInit(&handle), 0u);
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    long counter = 0;  // unprotected but for the mutex
    RunThreads(kThreads, [&](int) {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(BEX_MutexLock(handle), 0u);
            const long seen = counter;
            std::this_thread::yield();
            counter = seen + 1;
            ASSERT_EQ(BEX_MutexUnlock(handle), 0u);
        }
    });
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_EQ(BEX_MutexDestroy(handle), 0u);
}

// One step per operation: the call that is refused, and a probe that shows
// the refused call changed nothing.
TEST_F(MutexTest, TheNthCallIsRefusedOnceAndChangesNothing) {
    std::uint32_t m = 0;
    ASSERT_EQ(BEX_MutexInit(&m), 0u);
    const std::uint32_t live = KRM_HOST_LiveMutexCount();
    // Init: no mutex is made and the handle is left alone.
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_INIT, 2);
    std::uint32_t a = 0, b = 77;
    EXPECT_EQ((std::pair{BEX_MutexInit(&a), BEX_MutexInit(&b)}), std::pair(0u, kInjected));
    EXPECT_EQ(std::pair(b, KRM_HOST_LiveMutexCount()), std::pair(77u, live + 1));
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
    EXPECT_EQ(LockUnlockDestroy(m), (std::vector<std::uint32_t>{0, 0, 0}));
    EXPECT_EQ(KRM_HOST_LiveMutexCount(), live - 1);
}

// Counted per operation (an unknown one is ignored); 0 disarms; a reset
// disarms and counts from 0 again. Racing threads: exactly one call among
// all of them is refused.
TEST_F(MutexTest, CountdownsArePerOperationAndThreadsShareOne) {
    std::uint32_t m = 0;
    ASSERT_EQ(BEX_MutexInit(&m), 0u);
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_UNLOCK, 3);
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_OP_NUM, 1);
    std::vector<std::uint32_t> unlocks;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(BEX_MutexLock(m), 0u) << i;
        unlocks.push_back(BEX_MutexUnlock(m));
        if (unlocks.back() != 0) {
            EXPECT_EQ(BEX_MutexUnlock(m), 0u);
        }
    }
    EXPECT_EQ(unlocks, (std::vector<std::uint32_t>{0, 0, kInjected, 0}));
    std::vector<std::uint32_t> counts;
    for (std::uint32_t op = KRM_HOST_MUTEX_INIT; op <= KRM_HOST_MUTEX_OP_NUM; ++op) {
        counts.push_back(KRM_HOST_MutexOpCount(op));
    }
    // Init, lock, unlock, destroy, and the unknown operation.
    EXPECT_EQ(counts, (std::vector<std::uint32_t>{1, 4, 5, 0, 0}));
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_LOCK, 1);
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_LOCK, 0);
    EXPECT_EQ((std::pair{BEX_MutexLock(m), BEX_MutexUnlock(m)}), std::pair(0u, 0u)) << "0 disarms";
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_DESTROY, 1);
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_LOCK), 0u);
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_LOCK, 777);
    std::atomic<int> refused{0};
    RunThreads(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            if (BEX_MutexLock(m) != 0) {
                ++refused;
            } else {
                (void)BEX_MutexUnlock(m);
            }
        }
    });
    EXPECT_EQ(refused.load(), 1);
    EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_LOCK), std::uint32_t{kThreads * kEach});
    EXPECT_EQ(BEX_MutexDestroy(m), 0u) << "the reset disarmed it";
}

}  // namespace
}  // namespace krm::test::platform
