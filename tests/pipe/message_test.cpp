// The message form: a packet's serial image behind an 8-byte header, through
// the message service and back, for every standard shape and record set.
#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"
#include "pipe_support.h"

namespace krm::test {
namespace {

constexpr std::uint32_t kDest = 9;

class MessageTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_EQ(KRM_HOST_MsgOpen(kDest), 0u);
    }
};

TEST_F(MessageTest, EveryShapeArrivesEqual) {
    const std::vector<std::vector<RecordRow>> recordSets = {{}, {{5, 120}, {9, 200}, {14, 40}}};
    for (const ChainShape &shape : StandardShapes()) {
        if (ShapeLength(shape.nodes) == 0) {
            continue;  // an image without data is refused by the serial form itself
        }
        for (const auto &records : recordSets) {
            SCOPED_TRACE(shape.name + " records " + std::to_string(records.size()));
            MBUF_S *m = BuildChain(shape.nodes, 4);
            Decorate(m, records, 4);
            // The image re-packs the data: node boundaries are not kept.
            Snapshot sent = Snap(m);
            sent.nodeLens.clear();
            sent.words.back() &= ~MBUF_EXT;
            const std::uint32_t size = MBUF_GetAllBlockSize(m) + 8;
            ASSERT_EQ(MBUF_SendMsg(kTestModule, kDest, m), 0u);
            std::uint32_t cls = 0;
            std::uint32_t type = 0;
            auto *msg = static_cast<std::uint8_t *>(KRM_HOST_MsgReceive(kDest, 0, &cls, &type));
            ASSERT_NE(msg, nullptr);
            EXPECT_EQ(cls, 6u);
            EXPECT_EQ(type, 893u);
            EXPECT_EQ(TQM_MsgLenGet(msg), size);
            EXPECT_EQ((msg[0] << 8) | msg[1], static_cast<int>(size & 0xFFFF));
            EXPECT_EQ(Bytes(msg + 4, msg + 8), Bytes(4, 0));
            MBUF_S *got = MBUF_RecvMsg(msg);
            EXPECT_EQ(TQM_MsgFree(kTestModule, msg), 0u);
            ASSERT_NE(got, nullptr);
            ExpectValid(got);
            Snapshot snap = Snap(got);
            snap.nodeLens.clear();
            snap.words.back() &= ~MBUF_EXT;
            EXPECT_EQ(snap, sent);
            MBUF_Destroy(got);
        }
    }
}

// The packet is consumed whatever happens after the header check; a
// message shorter than its header yields nothing.
TEST_F(MessageTest, FailuresConsumeThePacket) {
    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest, nullptr), MBUF_ERR_INVALID_MBUF);
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(5)}, 1);
    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest, m->pstNext), MBUF_ERR_INVALID_MBUF);
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest, m), MBUF_ERR_MSG_ALLOC);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    m = BuildChain({InlineNode(10)}, 1);
    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest + 1, m), 0x224C1110u) << "queue not opened";
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);

    EXPECT_EQ(MBUF_RecvMsg(nullptr), nullptr);
    void *shortMsg = KRM_MsgAlloc_F(kTestModule, 6, "t", 1);
    EXPECT_EQ(MBUF_RecvMsg(shortMsg), nullptr);
    TQM_MsgFree(kTestModule, shortMsg);
}

}  // namespace
}  // namespace krm::test
