// Mutex handles: real mutual exclusion, and every misuse (unknown or stale
// handle, unlock by a non-holder, destroy while held, relock by the holder)
// refused instead of hanging or corrupting.
#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "host_test.h"
#include "krm_mbuf/platform.h"

namespace krm::test::platform {
namespace {

class MutexTest : public HostTest {};

// More than one chunk of slots; a destroyed handle stays refused even when
// its slot is reused, and does not disturb the new mutex.
TEST_F(MutexTest, HandlesAreDistinctAndUnknownOrStaleOnesAreRefused) {
    std::set<std::uint32_t> handles;
    for (int i = 0; i < 300; ++i) {
        std::uint32_t handle = 0;
        ASSERT_EQ(BEX_MutexInit(&handle), 0u);
        EXPECT_NE(handle, 0u);
        EXPECT_TRUE(handles.insert(handle).second);
    }
    for (const std::uint32_t handle : handles) {
        EXPECT_EQ(BEX_MutexDestroy(handle), 0u);
    }
    EXPECT_NE(BEX_MutexInit(nullptr), 0u);
    for (const std::uint32_t bogus : {0u, 0xFFFFu, 0x7FFF1234u, *handles.begin()}) {
        EXPECT_NE(BEX_MutexLock(bogus), 0u);
        EXPECT_NE(BEX_MutexUnlock(bogus), 0u);
        EXPECT_NE(BEX_MutexDestroy(bogus), 0u);
    }
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    ASSERT_EQ(BEX_MutexInit(&first), 0u);
    ASSERT_EQ(BEX_MutexDestroy(first), 0u);
    ASSERT_EQ(BEX_MutexInit(&second), 0u);  // may reuse the slot
    EXPECT_NE(second, first);
    EXPECT_NE(BEX_MutexLock(first), 0u);
    EXPECT_NE(BEX_MutexDestroy(first), 0u);
    EXPECT_EQ(BEX_MutexLock(second), 0u);
    EXPECT_EQ(BEX_MutexUnlock(second), 0u);
    EXPECT_EQ(BEX_MutexDestroy(second), 0u);
}

TEST_F(MutexTest, MisuseByTheHolderOrOthersIsRefused) {
    std::uint32_t handle = 0;
    ASSERT_EQ(BEX_MutexInit(&handle), 0u);
    EXPECT_NE(BEX_MutexUnlock(handle), 0u) << "not held";
    ASSERT_EQ(BEX_MutexLock(handle), 0u);
    EXPECT_NE(BEX_MutexLock(handle), 0u) << "relocking would never return";
    EXPECT_NE(BEX_MutexDestroy(handle), 0u) << "held";
    std::uint32_t otherUnlock = 0;
    std::thread([&] { otherUnlock = BEX_MutexUnlock(handle); }).join();
    EXPECT_NE(otherUnlock, 0u) << "only the holder unlocks";
    EXPECT_EQ(BEX_MutexUnlock(handle), 0u);
    EXPECT_EQ(BEX_MutexDestroy(handle), 0u);
}

TEST_F(MutexTest, ExcludesConcurrentHolders) {
    std::uint32_t handle = 0;
    ASSERT_EQ(BEX_MutexInit(&handle), 0u);
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    long counter = 0;  // unprotected but for the mutex
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                ASSERT_EQ(BEX_MutexLock(handle), 0u);
                const long seen = counter;
                std::this_thread::yield();
                counter = seen + 1;
                ASSERT_EQ(BEX_MutexUnlock(handle), 0u);
            }
        });
    }
    for (std::thread &th : threads) {
        th.join();
    }
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_EQ(BEX_MutexDestroy(handle), 0u);
}

}  // namespace
}  // namespace krm::test::platform
