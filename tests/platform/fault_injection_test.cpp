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

// Arming again restarts the countdown; 0 disarms it.
TEST_F(FaultInjectionTest, TheNthAttemptFailsExactlyOnce) {
    for (const std::uint32_t nth : {1u, 2u, 5u}) {
        SCOPED_TRACE(nth);
        KRM_HOST_FailNthAlloc(nth);
        EXPECT_EQ(FailedAmong(8), std::vector<std::uint32_t>{nth});
        EXPECT_TRUE(FailedAmong(8).empty()) << "the fault fires once";
    }
    KRM_HOST_FailNthAlloc(2);
    EXPECT_TRUE(FailedAmong(1).empty());
    KRM_HOST_FailNthAlloc(2);
    EXPECT_EQ(FailedAmong(3), std::vector<std::uint32_t>{2});
    KRM_HOST_FailNthAlloc(3);
    KRM_HOST_FailNthAlloc(0);
    EXPECT_TRUE(FailedAmong(6).empty());
}

// Neither a smaller nor a larger size is hit; a reset disarms both faults.
TEST_F(FaultInjectionTest, ASizeFailsUntilDisarmed) {
    for (const std::uint32_t size : {936u, 70000u}) {
        SCOPED_TRACE(size);
        KRM_HOST_FailAllocOfSize(size);
        for (int round = 0; round < 3; ++round) {
            EXPECT_FALSE(CanAlloc(size));
            EXPECT_FALSE(CanAlloc(size, true));
        }
        EXPECT_TRUE(CanAlloc(size - 1));
        EXPECT_TRUE(CanAlloc(size + 1, true));
        KRM_HOST_FailAllocOfSize(0);
        EXPECT_TRUE(CanAlloc(size));
    }
    KRM_HOST_FailNthAlloc(1);
    KRM_HOST_FailAllocOfSize(100);
    KRM_HOST_Reset();
    EXPECT_TRUE(CanAlloc(100));
}

// Failed attempts and every vector entry count, releases do not; a vector
// stops at its failing entry. A reset counts from 0 again.
TEST_F(FaultInjectionTest, AttemptsCountFailuresAndEveryVectorEntry) {
    void *p = AllocPriv(10);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 1u);
    KRM_HOST_FailAllocOfSize(20);
    EXPECT_EQ(AllocDbuf(20), nullptr);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 2u);
    KRM_HOST_FailAllocOfSize(0);
    MBUF_IOVEC_S iovec[3] = {{nullptr, 1, 0}, {nullptr, 2, 0}, {nullptr, 3000, 0}};
    ASSERT_EQ(KRM_DbufIovecAlloc_F(kModule, 3, iovec, kAllocFile, 1), 0u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 5u);
    MBUF_IOVEC_S failing[3] = {{nullptr, 1, 0}, {nullptr, 2, 0}, {nullptr, 3, 0}};
    KRM_HOST_FailNthAlloc(2);
    EXPECT_NE(KRM_DbufIovecAlloc_F(kModule, 3, failing, kAllocFile, 1), 0u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 7u);
    EXPECT_EQ(KRM_DbufIovecFree_F(3, iovec, kFreeFile, 1), 0u);
    EXPECT_EQ(FreePriv(p), 0u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 7u);
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 0u);
}

}  // namespace
}  // namespace krm::test::platform
