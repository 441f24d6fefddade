#include <cstring>
#include <string>

#include "core_test_util.h"
#include "krm_mbuf/platform.h"

namespace krm::test {
namespace {

class AllocTest : public HostTest {};

struct SizeClass {
    std::uint32_t size;
    std::uint32_t capacity;
    std::uint32_t bufSize;  // 0: inline
};

// Every node comes from the platform with the caller's owner and site; the
// buffer size and the capacity reported agree with the storage attached.
void ExpectNodeStorage(MBUF_S *node, const SizeClass &c, std::uint32_t capacity,
                       const std::string &what) {
    SCOPED_TRACE(what + " of " + std::to_string(c.size));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(capacity, c.capacity);
    const KRM_HOST_BUF_INFO_S nodeInfo = InfoOf(node);
    EXPECT_EQ(nodeInfo.ulLen, MBUF_NODE_SIZE);
    EXPECT_EQ(nodeInfo.ulOwner, kTestModule);
    EXPECT_STREQ(nodeInfo.pcFile, kTestFile);
    EXPECT_EQ(nodeInfo.ulLine, 12u);
    EXPECT_EQ(node->usType, MBUF_TYPE_DATA);
    EXPECT_EQ(node->ulDataLen, 0u);
    if (c.bufSize == 0) {
        EXPECT_FALSE(HasExt(node));
        EXPECT_EQ(node->pucData,
                  (node->ulFlag & MBUF_PKTHDR) ? node->aucHdrInlineData : node->aucInlineData);
        EXPECT_EQ(node->pucExtBuf, nullptr);
        return;
    }
    EXPECT_TRUE(HasExt(node));
    EXPECT_EQ(node->pucData, node->pucExtBuf);
    EXPECT_EQ(node->ulExtSize, c.bufSize);
    EXPECT_EQ(node->ulExtRefCnt, 1u);
    EXPECT_EQ(node->ulExtRsv0 | node->ulExtRsv1, 0u);
    EXPECT_EQ(node->aulExtInfoRsv[0] | node->aulExtInfoRsv[1] | node->aulExtInfoRsv[2], 0u);
    const KRM_HOST_BUF_INFO_S bufInfo = InfoOf(node->pucExtBuf);
    EXPECT_EQ(bufInfo.ulLen, c.bufSize);
    EXPECT_EQ(bufInfo.ulOwner, kTestModule);
    EXPECT_STREQ(bufInfo.pcFile, kTestFile);
}

TEST_F(AllocTest, HeaderNodeTakesInlineClusterOrExactBuffer) {
    const SizeClass classes[] = {
        {0, 372, 0},        {372, 372, 0},      {373, 1960, 1960},
        {1959, 1960, 1960}, {1960, 1960, 1960}, {5000, 5000, 5000},
    };
    for (const SizeClass &c : classes) {
        std::uint32_t capacity = 0;
        MBUF_S *node = MBUF_AllocateMBufHeader_fl(c.size, 0, &capacity, kTestModule, kTestFile, 12);
        ExpectNodeStorage(node, c, capacity, "header");
        EXPECT_EQ(node->ulFlag & MBUF_PKTHDR, MBUF_PKTHDR);
        ExpectValid(node);
        MBUF_Destroy(node);
    }
}

TEST_F(AllocTest, PlainNodeNeverTakesMoreThanACluster) {
    const SizeClass classes[] = {
        {0, 848, 0}, {372, 848, 0}, {373, 1960, 1960}, {848, 1960, 1960}, {5000, 1960, 1960},
    };
    for (const SizeClass &c : classes) {
        std::uint32_t capacity = 0;
        MBUF_S *node = MBUF_AllocateMBufNode_fl(c.size, 0, &capacity, kTestModule, kTestFile, 12);
        ExpectNodeStorage(node, c, capacity, "plain");
        EXPECT_EQ(node->ulFlag & MBUF_PKTHDR, 0u);
        EXPECT_EQ(node->pstCtlInfo, nullptr);
        MBUF_Free(node, nullptr);
    }
}

struct ClusterCase {
    const char *name;
    std::uint32_t startBuf;  // 0: the node starts inline
    std::int32_t size;
    std::int32_t result;
    std::uint32_t bufSize;
};

TEST_F(AllocTest, ClusterReplacesStorageWithoutTouchingTheLength) {
    const ClusterCase cases[] = {
        {"zero", 0, 0, -1, 0},
        {"negative", 0, -5, -1, 0},
        {"small", 0, 100, 0, 1960},
        {"above cluster", 0, 1961, 0, 1961},
        {"replace", 1960, 3000, 0, 3000},
        {"negative on ext", 1960, -1, -1, 1960},
    };
    for (const ClusterCase &c : cases) {
        SCOPED_TRACE(c.name);
        std::uint32_t capacity = 0;
        MBUF_S *node = MBUF_AllocateMBufNode_fl(c.startBuf == 0 ? 0 : 1000, 0, &capacity,
                                                kTestModule, kTestFile, 1);
        ASSERT_NE(node, nullptr);
        node->ulDataLen = 77;
        node->aulExtInfoRsv[1] = 0xABCD;
        const MBUF_S before = *node;
        const std::uint32_t live = KRM_HOST_LiveBufferCount();
        EXPECT_EQ(MBUF_AllocateCluster_fl(node, c.size, kTestModule, kTestFile, 2), c.result);
        if (c.result != 0) {
            EXPECT_EQ(std::memcmp(node, &before, sizeof(before)), 0) << "refused call changed it";
        } else {
            EXPECT_TRUE(HasExt(node));
            EXPECT_EQ(node->ulExtSize, c.bufSize);
            EXPECT_EQ(InfoOf(node->pucExtBuf).ulLen, c.bufSize);
            EXPECT_EQ(node->pucData, node->pucExtBuf);
            EXPECT_EQ(node->ulDataLen, 77u);
            EXPECT_EQ(node->ulExtRefCnt, 1u);
            EXPECT_EQ(node->aulExtInfoRsv[1], 0xABCDu) << "leading descriptor words are kept";
            // A replaced buffer goes back: one buffer more only from inline.
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), live + (c.startBuf == 0 ? 1 : 0));
        }
        MBUF_Free(node, nullptr);
    }
    EXPECT_EQ(MBUF_AllocateCluster_fl(nullptr, 100, kTestModule, kTestFile, 3), -1);
}

TEST_F(AllocTest, HeaderIsPutInFrontOfAHeaderlessChainOnly) {
    std::uint32_t capacity = 0;
    MBUF_S *first = MBUF_AllocateMBufNode_fl(0, 0, &capacity, kTestModule, kTestFile, 1);
    MBUF_S *second = MBUF_AllocateMBufNode_fl(1000, 0, &capacity, kTestModule, kTestFile, 1);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    first->ulDataLen = 100;
    second->ulDataLen = 50;
    first->pstNext = second;

    first->ucMagic = MBUF_MAGIC_DEAD;
    const std::uint32_t attempts = KRM_HOST_AllocAttemptCount();
    EXPECT_EQ(MBUF_AddPktHdr_fl(first, kTestModule, kTestFile, 4), nullptr);
    first->ucMagic = MBUF_MAGIC_LIVE;

    MBUF_S *head = MBUF_AddPktHdr_fl(first, kTestModule, kTestFile, 4);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->pstNext, first);
    EXPECT_EQ(head->ulDataLen, 0u);
    EXPECT_EQ(head->ulTotalDataLen, 150u);
    EXPECT_EQ(head->pucData, head->aucHdrInlineData);
    ExpectValid(head);

    // A chain that already has its header costs nothing.
    const std::uint32_t attemptsAfter = KRM_HOST_AllocAttemptCount();
    EXPECT_EQ(attemptsAfter, attempts + 1);
    EXPECT_EQ(MBUF_AddPktHdr_fl(head, kTestModule, kTestFile, 5), head);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), attemptsAfter);
    EXPECT_EQ(MBUF_AddPktHdr_fl(nullptr, kTestModule, kTestFile, 5), nullptr);
    MBUF_Destroy(head);
}

class MemAdapterTest : public HostTest {};

TEST_F(MemAdapterTest, AllocationCarriesOwnerAndSiteAndFreePassesResultThrough) {
    const MBUF_FILE_LINE_S site{"adapter_site", 321};
    void *buf = MBUF_MemAlloc_fl(64, kTestModule, &site);
    ASSERT_NE(buf, nullptr);
    const KRM_HOST_BUF_INFO_S info = InfoOf(buf);
    EXPECT_EQ(info.ulLen, 64u);
    EXPECT_EQ(info.ulOwner, kTestModule);
    EXPECT_EQ(info.ulKind, static_cast<std::uint32_t>(KRM_HOST_BUF_DBUF));
    EXPECT_STREQ(info.pcFile, "adapter_site");
    EXPECT_EQ(info.ulLine, 321u);
    EXPECT_EQ(MBUF_MemFree_fl(buf, &site), 0u);
    // Releasing what is not a live buffer is the platform's complaint,
    // passed back unchanged.
    int notABuffer = 0;
    EXPECT_NE(MBUF_MemFree_fl(&notABuffer, &site), 0u);
    KRM_HOST_ReportClear();
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_MemAlloc_fl(64, kTestModule, nullptr), nullptr);
}

TEST_F(MemAdapterTest, ReallocKeepsContentsOnlyWhenNotShrinking) {
    const std::vector<std::uint8_t> pattern = Pattern(100);
    struct Case {
        std::uint32_t oldLen;
        std::uint32_t newLen;
        bool kept;
    };
    for (const Case c : {Case{100, 200, true}, Case{100, 100, true}, Case{100, 50, false}}) {
        void *buf = MBUF_MemAlloc_fl(c.oldLen, kTestModule, nullptr);
        ASSERT_NE(buf, nullptr);
        std::memcpy(buf, pattern.data(), c.oldLen);
        void *old = buf;
        ASSERT_EQ(MBUF_MemRealloc_fl(&buf, c.oldLen, c.newLen, kTestModule, nullptr), 0u);
        EXPECT_NE(buf, old);
        KRM_HOST_BUF_INFO_S gone{};
        EXPECT_NE(KRM_HOST_BufferInfo(old, &gone), 0u) << "old buffer released";
        EXPECT_EQ(InfoOf(buf).ulLen, c.newLen);
        if (c.kept) {
            EXPECT_EQ(std::memcmp(buf, pattern.data(), c.oldLen), 0);
        }
        MBUF_MemFree_fl(buf, nullptr);
    }
    void *none = nullptr;
    ASSERT_EQ(MBUF_MemRealloc_fl(&none, 0, 50, kTestModule, nullptr), 0u);
    EXPECT_EQ(InfoOf(none).ulLen, 50u);
    MBUF_MemFree_fl(none, nullptr);
    EXPECT_TRUE(Reports().empty());
}

TEST_F(MemAdapterTest, ReallocFailureLeavesTheCallerUntouched) {
    void *buf = MBUF_MemAlloc_fl(10, kTestModule, nullptr);
    void *old = buf;
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_MemRealloc_fl(&buf, 10, 20, kTestModule, nullptr), 1u);
    EXPECT_EQ(buf, old);
    EXPECT_EQ(InfoOf(buf).ulLen, 10u);
    MBUF_MemFree_fl(buf, nullptr);
    EXPECT_EQ(MBUF_MemRealloc_fl(nullptr, 0, 20, kTestModule, nullptr), 1u);
}

TEST_F(MemAdapterTest, ReallocReportsAFailedCopyAndStillCompletes) {
    std::uint8_t dst[10];
    const int code = memcpy_s(dst, sizeof(dst), nullptr, sizeof(dst));
    ASSERT_NE(code, 0);
    void *buf = nullptr;  // claims 10 old bytes it does not have
    ASSERT_EQ(MBUF_MemRealloc_fl(&buf, 10, 20, kTestModule, nullptr), 0u);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(Reports(), std::vector<Report>{AssertReport(
                             "mbuf_os_adapter", 79, "memcpy_s return " + std::to_string(code))});
    MBUF_MemFree_fl(buf, nullptr);
}

}  // namespace
}  // namespace krm::test
