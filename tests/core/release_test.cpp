#include <cstring>

#include "core_test_util.h"

namespace krm::test {
namespace {

class ReleaseTest : public HostTest {};

// Every node, buffer and the separate block go; the packet linked behind
// the head stays, and what is not a packet head is left alone.
TEST_F(ReleaseTest, DestroyReleasesTheWholePacketAndNothingElse) {
    const std::vector<std::uint8_t> src = Pattern(100000);
    MBUF_S *m = WithData(src.data(), 100000);
    MBUF_S *next = MBUF_CreateForControlPacket(0, 10, 0, kModule);
    MBUF_S *plain = PlainNode(0);
    ASSERT_TRUE(m && next && plain);
    ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_STACKDEBUG, 1000, kModule), 0u);
    ASSERT_NE(m->pstCtlInfo, &m->stCtlInfo.stBlk);
    MBUF_SetNextPktPtr(m, next);
    MBUF_Destroy(m);
    MBUF_Destroy_fl(plain, kFile, 1);
    MBUF_Destroy(nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 2u);
    EXPECT_EQ(plain->ucMagic, MBUF_MAGIC_LIVE);
    ExpectValid(next);
    MBUF_Destroy(next);
    MBUF_Free(plain, nullptr);
    EXPECT_TRUE(Reports().empty());
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
            ASSERT_EQ(MBUF_AllocateCluster_fl(&mine, 100, kModule, kFile, 1), 0);
        }
        MBUF_S *head = MBUF_CreateForControlPacket(0, 10, 0, kModule);
        head->pstNext = &mine;
        mine.pstNext = PlainNode(1000);
        std::uint8_t *const extBuf = mine.pucExtBuf;
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
    ASSERT_EQ(MBUF_CreateControlInfo(&head, MBUF_CTL_STACKDEBUG, 500, kModule), 0u);
    MBUF_CONTROL_BLK_S *blk = head.pstCtlInfo;
    ASSERT_NE(blk, &head.stCtlInfo.stBlk);
    MBUF_Destroy(&head);
    EXPECT_EQ(head.pstCtlInfo, blk);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    MBUF_MemFree_fl(blk, nullptr);
}

// Copies never share a buffer: the count is not consulted. An inline node
// is reported at both checks and still released.
TEST_F(ReleaseTest, FreeingExternalInfoReleasesWhateverTheCountAndReportsAnInlineNode) {
    MBUF_S *node = PlainNode(1000);
    node->ulExtRefCnt = 5;
    MBUF_FreeExtInfoAndMbuf(node, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_TRUE(Reports().empty());
    MBUF_FreeExtInfoAndMbuf(PlainNode(0), nullptr);
    EXPECT_EQ(
        Reports(),
        (std::vector<Report>{
            AssertReport("mbuf_uipc_mbuf", 131, "MBUF_FreeExtInfoAndMbuf: MBUF_EXT not set"),
            AssertReport("mbuf_uipc_mbuf", 132, "MBUF_FreeExtInfoAndMbuf: ext_buf is null")}));
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
}

}  // namespace
}  // namespace krm::test
