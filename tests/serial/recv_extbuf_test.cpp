// External buffers for received nodes: which data is moved into a cluster,
// where it lands, who owns the cluster, and that a refusal leaves nothing
// behind.
#include <algorithm>

#include "serial_support.h"

namespace krm::serialtest {
namespace {

struct MoveRow {
    const char *name;
    bool header;
    std::uint32_t nodeMem;   // bytes of the buffer the node arrived in
    std::uint32_t distance;  // data start behind the inline area's start
    std::uint32_t len;
    bool moved;
};

// A node that arrived in nodeMem bytes of pipe memory, its data written at
// the recorded offset.
MBUF_S *ReceivedNode(const MoveRow &row, std::uint32_t ulOwner) {
    auto *node = static_cast<MBUF_S *>(MBUF_MemAlloc_fl(row.nodeMem, ulOwner, nullptr));
    if (node == nullptr) {
        return nullptr;
    }
    const MBUF_STRUCT_INIT_S init{row.header ? MBUF_PKTHDR : 0u, MBUF_TYPE_DATA};
    (void)MBUF_StructInit(node, MBUF_NODE_SIZE, &init);
    const std::uint32_t ulInline = row.header ? 500u : 24u;
    node->ulRsv2 = ulInline + row.distance;
    node->ulDataLen = row.len;
    if (row.header) {
        node->ulTotalDataLen = row.len;
    }
    node->pstNext = reinterpret_cast<MBUF_S *>(0x1234);  // a sender's address
    // Data may run on over the link words, as it does in transit.
    // A node claiming more than its memory holds gets only what fits.
    const Bytes data = Counting(row.len, 0x21);
    const std::uint32_t ulFits = std::min(row.len, row.nodeMem - node->ulRsv2);
    std::memcpy(reinterpret_cast<std::uint8_t *>(node) + node->ulRsv2, data.data(), ulFits);
    return node;
}

class RecvExtBufTest : public SerialTest, public ::testing::WithParamInterface<MoveRow> {};

TEST_P(RecvExtBufTest, DataMovesToAClusterAtItsDistance) {
    const MoveRow &row = GetParam();
    MBUF_S *node = ReceivedNode(row, kModule + 1);
    ASSERT_NE(node, nullptr);
    const Bytes before(reinterpret_cast<std::uint8_t *>(node),
                       reinterpret_cast<std::uint8_t *>(node) + MBUF_NODE_SIZE);
    const std::uint32_t ulLive = KRM_HOST_LiveBufferCount();
    const std::uint32_t ulRet = MBUF_AllocExtBuf_fl(node, kModule, "rx", 9);
    if (!row.moved) {
        EXPECT_EQ(ulRet, 0xFFFFFFFFu);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), ulLive);
        EXPECT_EQ(Bytes(reinterpret_cast<std::uint8_t *>(node),
                        reinterpret_cast<std::uint8_t *>(node) + MBUF_NODE_SIZE),
                  before);
        (void)MBUF_MemFree_fl(node, nullptr);
        return;
    }
    ASSERT_EQ(ulRet, 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), ulLive + 1);
    EXPECT_TRUE(node->ulFlag & MBUF_EXT);
    EXPECT_EQ(node->pucData, node->pucExtBuf + row.distance);
    EXPECT_EQ(node->ulExtSize, MBUF_CLUSTER_SIZE);
    EXPECT_EQ(node->ulExtRefCnt, 1u);
    EXPECT_EQ(node->pstNext, nullptr);
    EXPECT_EQ(KRM_DbufLengthGET(node->pucExtBuf), MBUF_CLUSTER_SIZE);
    // The cluster belongs to the owner of the memory the node came in.
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(node->pucExtBuf, &info), 0u);
    EXPECT_EQ(info.ulOwner, kModule + 1);
    EXPECT_EQ(Bytes(node->pucData, node->pucData + row.len), Counting(row.len, 0x21));
    node->ulRsv2 = 0;
    MBUF_FreeExtInfoAndMbuf(node, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, RecvExtBufTest,
    ::testing::Values(MoveRow{"head_inline_overflow", true, MBUF_NODE_SIZE, 100, 300, true},
                      MoveRow{"plain_small", false, MBUF_NODE_SIZE, 0, 10, true},
                      MoveRow{"full_cluster_no_room", false, 2600, 0, 1960, true},
                      MoveRow{"one_byte_more_room", false, 2600, 1, 1960, false},
                      MoveRow{"one_byte_more_data", false, 2600, 0, 1961, false},
                      MoveRow{"room_and_data_fill", true, 2600, 960, 1000, true},
                      // The distance and length fit a cluster, but the node's own memory
                      // ends first: nothing may be read past it.
                      MoveRow{"past_node_memory", false, MBUF_NODE_SIZE, 0, 1000, false}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(SerialTest, AllocExtBufRefusesExtNodesAndFailedAllocations) {
    MBUF_S *pkt = Keep(MBUF_CreateForControlPacket(0, 1000, 0, kModule));
    ASSERT_NE(pkt, nullptr);
    ASSERT_TRUE(pkt->ulFlag & MBUF_EXT);
    const std::uint32_t ulAttempts = KRM_HOST_AllocAttemptCount();
    EXPECT_EQ(MBUF_AllocExtBuf_fl(pkt, kModule, "rx", 1), 0xFFFFFFFFu);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), ulAttempts);

    MBUF_S *node = ReceivedNode({"", false, MBUF_NODE_SIZE, 4, 40, true}, kModule);
    ASSERT_NE(node, nullptr);
    const std::uint32_t ulRsv2 = node->ulRsv2;
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_AllocExtBuf_fl(node, kModule, "rx", 2), 0xFFFFFFFFu);
    KRM_HOST_FailNthAlloc(0);
    EXPECT_FALSE(node->ulFlag & MBUF_EXT);
    EXPECT_EQ(node->ulRsv2, ulRsv2);
    (void)MBUF_MemFree_fl(node, nullptr);
    EXPECT_EQ(MBUF_AllocExtBuf_fl(nullptr, kModule, "rx", 3), 0xFFFFFFFFu);
}

TEST_F(SerialTest, MemHandleIsTheOwnerOfThePipeBuffer) {
    MBUF_S *pkt = Keep(MBUF_CreateForControlPacket(0, 10, 0, kModule + 5));
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(MBUF_GetMemHandleByMBuf(pkt, 1, 2, 3), kModule + 5);
    MBUF_S stLocal{};
    EXPECT_EQ(MBUF_GetMemHandleByMBuf(&stLocal, 0, 0, 0), 0u);
}

}  // namespace
}  // namespace krm::serialtest
