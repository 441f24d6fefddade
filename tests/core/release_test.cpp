#include <cstring>

#include "core_test_util.h"

namespace krm::test {
namespace {

class ReleaseTest : public HostTest {};

MBUF_S *PlainNode(std::uint32_t size) {
    std::uint32_t capacity = 0;
    return MBUF_AllocateMBufNode_fl(size, 0, &capacity, kTestModule, kTestFile, 1);
}

TEST_F(ReleaseTest, DestroyIgnoresWhatIsNotAPacketHead) {
    MBUF_S *plain = PlainNode(0);
    ASSERT_NE(plain, nullptr);
    MBUF_Destroy_fl(plain, kTestFile, 1);
    MBUF_Destroy(nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    EXPECT_EQ(plain->ucMagic, MBUF_MAGIC_LIVE);
    EXPECT_TRUE(Reports().empty());
    MBUF_Free(plain, nullptr);
}

TEST_F(ReleaseTest, DestroyReleasesEveryNodeBufferAndSeparateBlock) {
    const std::vector<std::uint8_t> src = Pattern(100000);
    MBUF_S *m =
        MBUF_CreateMbufWithBufferData(src.data(), 100000, 0, 0, nullptr, kTestModule, nullptr);
    ASSERT_NE(m, nullptr);
    // Grow the head's block out of the node so that it is released too.
    ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_STACKDEBUG, 1000, kTestModule), 0u);
    ASSERT_FALSE(m->pstCtlInfo == &m->stCtlInfo.stBlk);
    ASSERT_GT(KRM_HOST_LiveBufferCount(), 4u);
    MBUF_Destroy(m);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_TRUE(Reports().empty());
}

TEST_F(ReleaseTest, FreeStopsAtThePacketAndLeavesTheNextOne) {
    MBUF_S *first = MBUF_CreateForControlPacket(0, 10, 0, kTestModule);
    MBUF_S *second = MBUF_CreateForControlPacket(0, 10, 0, kTestModule);
    MBUF_SetNextPktPtr(first, second);
    MBUF_Free(first, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    ExpectValid(second);
    MBUF_Destroy(second);
}

// A caller-owned node in the middle of a chain: the library releases its
// external buffer but never the node nor anything behind its flag.
TEST_F(ReleaseTest, NoFreeNodeSurvivesWithItsFieldsWhileTheRestGoes) {
    for (const bool withBuffer : {false, true}) {
        SCOPED_TRACE(withBuffer ? "external" : "inline");
        MBUF_S mine;
        InitNode(&mine, 0);
        mine.ulFlag |= MBUF_NOFREE;
        if (withBuffer) {
            ASSERT_EQ(MBUF_AllocateCluster_fl(&mine, 100, kTestModule, kTestFile, 1), 0);
        }
        MBUF_S *head = MBUF_CreateForControlPacket(0, 10, 0, kTestModule);
        MBUF_S *tail = PlainNode(1000);
        head->pstNext = &mine;
        mine.pstNext = tail;
        uint8_t *const extBuf = mine.pucExtBuf;
        MBUF_Destroy(head);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
        EXPECT_EQ(mine.ucMagic, MBUF_MAGIC_LIVE);
        EXPECT_EQ(mine.pucExtBuf, extBuf) << "fields of a kept node stay as they were";
        EXPECT_EQ(HasExt(&mine), withBuffer);
        // No complaint from the platform: nothing foreign was released.
        EXPECT_TRUE(Reports().empty());
    }
}

TEST_F(ReleaseTest, NoFreeHeadKeepsItsSeparateBlock) {
    MBUF_S head;
    InitNode(&head, MBUF_PKTHDR);
    head.ulFlag |= MBUF_NOFREE;
    ASSERT_EQ(MBUF_CreateControlInfo(&head, MBUF_CTL_STACKDEBUG, 500, kTestModule), 0u);
    MBUF_CONTROL_BLK_S *blk = head.pstCtlInfo;
    ASSERT_NE(blk, &head.stCtlInfo.stBlk);
    MBUF_Destroy(&head);
    EXPECT_EQ(head.pstCtlInfo, blk);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    MBUF_MemFree_fl(blk, nullptr);
}

TEST_F(ReleaseTest, FreeingExternalInfoOfAnInlineNodeIsReportedAndCarriesOn) {
    MBUF_S *plain = PlainNode(0);
    MBUF_FreeExtInfoAndMbuf(plain, nullptr);
    EXPECT_EQ(
        Reports(),
        (std::vector<Report>{
            AssertReport("mbuf_uipc_mbuf", 131, "MBUF_FreeExtInfoAndMbuf: MBUF_EXT not set"),
            AssertReport("mbuf_uipc_mbuf", 132, "MBUF_FreeExtInfoAndMbuf: ext_buf is null")}));
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
}

TEST_F(ReleaseTest, FreeingExternalInfoReleasesWhateverTheCount) {
    MBUF_S *node = PlainNode(1000);
    node->ulExtRefCnt = 5;
    MBUF_FreeExtInfoAndMbuf(node, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_TRUE(Reports().empty());
}

}  // namespace
}  // namespace krm::test
