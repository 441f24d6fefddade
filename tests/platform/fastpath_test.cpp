// The allocator's fast path: a buffer of a pooled size taken from and given
// back to this thread's cache must look exactly like one from the slow path
// (cache-line aligned data, its own length, owner and site, counted once)
// and must still honour fault injection and refuse a second release.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "host_test.h"
#include "platform_util.h"

namespace krm::test::platform {
namespace {

class FastPathTest : public HostTest {};

// Each pooled class at its edges, and sizes beyond the pools.
constexpr std::uint32_t kLengths[] = {1, 64, 448, 449, 936, 937, 1960, 1961, 5000};

struct Site {
    std::uint32_t owner;
    std::uint32_t line;
};

void ExpectBuffer(const void *p, std::uint32_t len, Site site) {
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 64, 0u) << len << " bytes";
    EXPECT_EQ(KRM_DbufLengthGET(p), len);
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(p, &info), 0u);
    EXPECT_EQ(info.ulOwner, site.owner) << "owner of an earlier use left behind";
    EXPECT_EQ(info.ulLine, site.line);
    EXPECT_EQ(info.ulCtrlFlag, 0u);
    EXPECT_EQ(info.ulTraceId, 0u);
}

// A released buffer re-used from the cache carries the new caller's header,
// not the one it had: its flags and trace id set before the release are gone.
TEST_F(FastPathTest, ReusedBuffersCarryOnlyTheirNewHeader) {
    for (const std::uint32_t len : kLengths) {
        void *first = AllocDbuf(len, kModule + 1, 100);
        ExpectBuffer(first, len, {kModule + 1, 100});
        ASSERT_EQ(KRM_DbufMsgCtrlFlagSet(first, 0x55), 0u);
        ASSERT_EQ(KRM_HOST_SetTraceId(first, 7), 0u);
        ASSERT_EQ(FreeDbuf(first), 0u);
        void *again = AllocDbuf(len, kModule + 2, 200);
        ExpectBuffer(again, len, {kModule + 2, 200});
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
        ASSERT_EQ(FreeDbuf(again), 0u);
        EXPECT_NE(FreeDbuf(again), 0u) << "a second release of " << len << " bytes";
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
        KRM_HOST_ReportClear();
    }
}

// Buffers handed out back to back, each written over its whole length,
// leave every neighbour's bytes and header as they were.
TEST_F(FastPathTest, FullWritesStayInsideTheirBuffer) {
    for (const std::uint32_t len : kLengths) {
        std::vector<unsigned char *> run;
        for (std::uint32_t i = 0; i < 40; ++i) {
            run.push_back(static_cast<unsigned char *>(AllocDbuf(len, kModule, i)));
            ASSERT_NE(run.back(), nullptr);
            std::memset(run.back(), static_cast<int>(i + 1), len);
        }
        for (std::uint32_t i = 0; i < run.size(); ++i) {
            ExpectBuffer(run[i], len, {kModule, i});
            EXPECT_EQ(run[i][0], i + 1);
            EXPECT_EQ(run[i][len - 1], i + 1);
            ASSERT_EQ(FreeDbuf(run[i]), 0u);
        }
    }
}

// With chunks waiting in the cache, an armed fault still fails exactly the
// attempt it names, and every attempt is counted once.
TEST_F(FastPathTest, FaultsAndAttemptsReachCachedChunks) {
    for (const std::uint32_t len : {448u, 936u, 1960u}) {
        ASSERT_TRUE(CanAlloc(len));
        const std::uint32_t before = KRM_HOST_AllocAttemptCount();
        KRM_HOST_FailNthAlloc(2);
        void *first = AllocDbuf(len);
        EXPECT_NE(first, nullptr);
        EXPECT_EQ(AllocDbuf(len), nullptr) << len << " bytes";
        void *third = AllocDbuf(len);
        EXPECT_NE(third, nullptr);
        EXPECT_EQ(KRM_HOST_AllocAttemptCount() - before, 3u);
        EXPECT_EQ(FreeDbuf(first), 0u);
        EXPECT_EQ(FreeDbuf(third), 0u);
    }
}

// A release is told apart without the registry only for the slabs this
// thread took chunks from: a buffer released by another thread, a pointer
// inside a buffer of such a slab and one in no slab at all are each still
// judged right.
TEST_F(FastPathTest, ReleasesBesideTheHintedSlabsAreJudgedRight) {
    for (const std::uint32_t len : {448u, 936u, 1960u}) {
        auto *mine = static_cast<unsigned char *>(AllocDbuf(len));
        void *theirs = AllocDbuf(len);
        ASSERT_NE(mine, nullptr);
        std::uint32_t result = 1;
        std::thread([&] { result = FreeDbuf(theirs); }).join();
        EXPECT_EQ(result, 0u) << "released by another thread";
        EXPECT_NE(FreeDbuf(mine + 64), 0u) << "inside a buffer";
        EXPECT_NE(FreeDbuf(reinterpret_cast<void *>(std::uintptr_t{64})), 0u) << "in no slab";
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
        EXPECT_EQ(FreeDbuf(mine), 0u);
        KRM_HOST_ReportClear();
    }
}

}  // namespace
}  // namespace krm::test::platform
