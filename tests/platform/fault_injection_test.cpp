// Allocation faults: the nth attempt fails exactly once, a size fails until
// disarmed, and both count and apply to either kind of buffer.

#include "platform_util.h"

namespace krm::test::platform {
namespace {

class FaultInjectionTest : public HostTest {};

// Makes attempts alternating between pipe buffers and private memory and
// between pool and system-allocator sizes; returns which ones failed
// (1-based).
std::vector<std::uint32_t> FailedAmong(std::uint32_t attempts) {
    std::vector<std::uint32_t> failed;
    for (std::uint32_t i = 1; i <= attempts; ++i) {
        if (!CanAlloc(i % 3 == 0 ? 4000 : 900, i % 2 != 0)) {
            failed.push_back(i);
        }
    }
    return failed;
}

// Arming again restarts the countdown; 0 disarms it. (Sweeps all over the
// suite rest on the nth attempt being the one that fails.)
TEST_F(FaultInjectionTest, TheNthAttemptFailsExactlyOnce) {
    KRM_HOST_FailNthAlloc(5);
    EXPECT_EQ(FailedAmong(8), std::vector<std::uint32_t>{5});
    EXPECT_TRUE(FailedAmong(8).empty()) << "the fault fires once";
    KRM_HOST_FailNthAlloc(2);
    EXPECT_TRUE(FailedAmong(1).empty());
    KRM_HOST_FailNthAlloc(2);
    EXPECT_EQ(FailedAmong(3), std::vector<std::uint32_t>{2});
    KRM_HOST_FailNthAlloc(3);
    KRM_HOST_FailNthAlloc(0);
    EXPECT_TRUE(FailedAmong(6).empty());
}

// Either kind, every time, neither a smaller nor a larger size; a failed
// attempt counts; a vector stops at its failing entry. A reset disarms both
// faults and counts from 0 again.
TEST_F(FaultInjectionTest, ASizeFailsUntilDisarmedAndAttemptsCount) {
    KRM_HOST_FailAllocOfSize(70000);
    EXPECT_EQ((std::vector{CanAlloc(70000), CanAlloc(70000, true), CanAlloc(70000), CanAlloc(69999),
                           CanAlloc(70001, true)}),
              (std::vector{false, false, false, true, true}));
    KRM_HOST_FailAllocOfSize(0);
    EXPECT_TRUE(CanAlloc(70000));
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 6u);
    MBUF_IOVEC_S failing[3] = {{nullptr, 1, 0}, {nullptr, 2, 0}, {nullptr, 3, 0}};
    KRM_HOST_FailNthAlloc(2);
    EXPECT_NE(KRM_DbufIovecAlloc_F(kModule, 3, failing, kAllocFile, 1), 0u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 8u);
    KRM_HOST_FailNthAlloc(1);
    KRM_HOST_FailAllocOfSize(100);
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 0u);
    EXPECT_TRUE(CanAlloc(100));
}

}  // namespace
}  // namespace krm::test::platform
