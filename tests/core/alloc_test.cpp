#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "core_test_util.h"
#include "krm_mbuf/platform.h"

namespace krm::test {
namespace {

class AllocTest : public HostTest {};

// A header node takes its inline area, a cluster or a buffer of exactly the
// size; a plain node never more than a cluster. Node and buffer carry the
// caller's owner and site, and nothing stale from a reused chunk.
TEST_F(AllocTest, NodesTakeInlineClusterOrExactStorage) {
    const std::tuple<bool, std::uint32_t, std::uint32_t, const char *> rows[] = {
        {true, 372, 372, "hdr inline +0 len 0"},       {true, 373, 1960, "hdr ext 1960 +0 len 0"},
        {true, 5000, 5000, "hdr ext 5000 +0 len 0"},   {false, 372, 848, "plain inline +0 len 0"},
        {false, 373, 1960, "plain ext 1960 +0 len 0"},
    };
    for (const auto &[header, size, capacity, shape] : rows) {
        SCOPED_TRACE(size);
        void *stale = MBUF_MemAlloc_fl(MBUF_NODE_SIZE, kModule, nullptr);
        std::memset(stale, 0xA5, MBUF_NODE_SIZE);
        MBUF_MemFree_fl(stale, nullptr);
        std::uint32_t given = 0;
        MBUF_S *node = (header ? MBUF_AllocateMBufHeader_fl : MBUF_AllocateMBufNode_fl)(
            size, 0, &given, kModule, kFile, 12);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(given, capacity);
        EXPECT_EQ(Shape(node), shape);
        EXPECT_EQ(node->usType, MBUF_TYPE_DATA);
        ExpectSite(node, MBUF_NODE_SIZE, 12);
        if (HasExt(node)) {
            ExpectSite(node->pucExtBuf, node->ulExtSize, 12);
            EXPECT_EQ(node->ulExtRefCnt, 1u);
            EXPECT_EQ(node->ulExtRsv0 | node->ulExtRsv1 | node->aulExtInfoRsv[0] |
                          node->aulExtInfoRsv[1] | node->aulExtInfoRsv[2],
                      0u);
        }
        if (header) {
            ExpectValid(node);
        }
        MBUF_Free(node, nullptr);
    }
}

// A refused call changes nothing. A replaced buffer is released first, so a
// replacement that then fails leaves the node without any, and no pointer
// into the released one.
TEST_F(AllocTest, ClusterReplacesStorageButKeepsLengthAndLeadingWords) {
    // Starting on a cluster or inline, the size asked for, whether the
    // allocation fails, the shape after the call and the live buffers added.
    const std::tuple<bool, std::int32_t, bool, const char *, int> rows[] = {
        {false, 0, false, "plain inline +0 len 77", 0},
        {true, -1, false, "plain ext 1960 +0 len 77", 0},
        {false, 100, false, "plain ext 1960 +0 len 77", 1},
        {false, 1961, false, "plain ext 1961 +0 len 77", 1},
        {true, 3000, false, "plain ext 3000 +0 len 77", 0},
        {true, 3000, true, "plain inline +0 len 77", -1},
    };
    for (const auto &[startExt, size, fault, shape, liveChange] : rows) {
        SCOPED_TRACE(std::to_string(size) + (startExt ? " on a cluster" : " on inline") +
                     (fault ? ", failing" : ""));
        MBUF_S *node = PlainNode(startExt ? 1000 : 0);
        node->ulDataLen = 77;
        node->aulExtInfoRsv[1] = 0xABCD;
        const MBUF_S before = *node;
        const std::uint32_t live = KRM_HOST_LiveBufferCount();
        KRM_HOST_FailNthAlloc(fault ? 1 : 0);
        const bool made = size > 0 && !fault;
        EXPECT_EQ(MBUF_AllocateCluster_fl(node, size, kModule, kFile, 2), made ? 0 : -1);
        EXPECT_EQ(Shape(node), shape);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), live + liveChange);
        if (size <= 0) {
            EXPECT_EQ(std::memcmp(node, &before, sizeof(before)), 0) << "refused call changed it";
        } else if (made) {
            EXPECT_EQ(node->ulExtRefCnt, 1u);
            EXPECT_EQ(node->aulExtInfoRsv[1], 0xABCDu) << "leading descriptor words are kept";
        } else {
            EXPECT_EQ(node->ulExtSize, 0u);
        }
        MBUF_Free(node, nullptr);
    }
    EXPECT_EQ(MBUF_AllocateCluster_fl(nullptr, 100, kModule, kFile, 3), -1);
}

TEST_F(AllocTest, HeaderIsPutInFrontOfAHeaderlessLiveChainOnly) {
    MBUF_S *first = PlainNode(0);
    first->pstNext = PlainNode(1000);
    first->ulDataLen = 100;
    first->pstNext->ulDataLen = 50;
    const std::uint32_t attempts = KRM_HOST_AllocAttemptCount();
    first->ucMagic = MBUF_MAGIC_DEAD;
    EXPECT_EQ(MBUF_AddPktHdr_fl(first, kModule, kFile, 4), nullptr);
    first->ucMagic = MBUF_MAGIC_LIVE;
    EXPECT_EQ(MBUF_AddPktHdr_fl(nullptr, kModule, kFile, 4), nullptr);
    MBUF_S *head = MBUF_AddPktHdr_fl(first, kModule, kFile, 4);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->pstNext, first);
    EXPECT_EQ(head->ulTotalDataLen, 150u);
    EXPECT_EQ(Shape(head), "hdr inline +0 len 0");
    ExpectValid(head);
    // A chain that already has its header costs nothing.
    EXPECT_EQ(MBUF_AddPktHdr_fl(head, kModule, kFile, 5), head);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), attempts + 1);
    MBUF_Destroy(head);
}

class MemAdapterTest : public HostTest {};

// Shrinking drops the contents; growing, the same size or nothing to keep
// (old length 0) carry them.
TEST_F(MemAdapterTest, ReallocKeepsContentsOnlyWhenNotShrinkingAndFreeReportsNonBuffers) {
    std::uint32_t seed = 0;
    const std::tuple<std::uint32_t, std::uint32_t, bool> rows[] = {
        {100, 200, true}, {100, 100, true}, {100, 50, false}, {0, 50, true}};
    for (const auto &[oldLen, newLen, kept] : rows) {
        SCOPED_TRACE(std::to_string(oldLen) + " -> " + std::to_string(newLen));
        // A new pattern each time: a recycled buffer must not pass for a copy.
        const std::vector<std::uint8_t> pattern = Pattern(oldLen, ++seed);
        void *buf = oldLen ? MBUF_MemAlloc_fl(oldLen, kModule, nullptr) : nullptr;
        auto *const old = static_cast<std::uint8_t *>(buf);
        std::copy(pattern.begin(), pattern.end(), old);
        ASSERT_EQ(MBUF_MemRealloc_fl(&buf, oldLen, newLen, kModule, nullptr), 0u);
        KRM_HOST_BUF_INFO_S gone{};
        EXPECT_NE(KRM_HOST_BufferInfo(old, &gone), 0u) << "old buffer released";
        EXPECT_EQ(InfoOf(buf).ulLen, newLen);
        const auto *bytes = static_cast<const std::uint8_t *>(buf);
        EXPECT_EQ(std::equal(bytes, bytes + std::min(oldLen, newLen), pattern.begin()), kept);
        MBUF_MemFree_fl(buf, nullptr);
    }
    EXPECT_EQ(MBUF_MemRealloc_fl(nullptr, 0, 20, kModule, nullptr), 1u);
    EXPECT_TRUE(Reports().empty());
    // Freeing what is not a live buffer: the platform's refusal comes back.
    EXPECT_NE(MBUF_MemFree_fl(&seed, nullptr), 0u);
    EXPECT_EQ(Reports().size(), 1u);
    KRM_HOST_ReportClear();
}

TEST_F(MemAdapterTest, ReallocReportsAFailedCopyAndStillCompletes) {
    std::uint8_t dst[10];
    const int code = memcpy_s(dst, sizeof(dst), nullptr, sizeof(dst));
    ASSERT_NE(code, 0);
    void *buf = nullptr;  // claims 10 old bytes it does not have
    ASSERT_EQ(MBUF_MemRealloc_fl(&buf, 10, 20, kModule, nullptr), 0u);
    EXPECT_EQ(Reports(), std::vector<Report>{AssertReport(
                             "mbuf_os_adapter", 79, "memcpy_s return " + std::to_string(code))});
    MBUF_MemFree_fl(buf, nullptr);
}

}  // namespace
}  // namespace krm::test
