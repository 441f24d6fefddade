// Making ranges contiguous and re-packing packets: the bytes never change,
// only where they lie.
#include <tuple>

#include "chain_test.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "contiguity_test";

class ContiguityShapeTest : public ShapeTest {};

// Whenever the offset lies inside the packet the range ends up inside one
// node's data, and the packet's bytes stay as they were; a range one byte
// past the end changes nothing.
TEST_P(ContiguityShapeTest, EveryRangeBecomesContiguousAndTheDataStays) {
    for (const auto &[from, to] : Ranges(Rows())) {
        SCOPED_TRACE(testing::Message() << from << ".." << to);
        MBUF_S *m = Build();
        const Bytes flat = Flatten(m);
        const Lens before = NodeLengths(m);
        const auto past = static_cast<int32_t>(Total() - from + 1);
        EXPECT_EQ(MBUF_MakeMemoryContinuous(m, static_cast<int32_t>(from), past, kTestModule),
                  nullptr);
        EXPECT_EQ(NodeLengths(m), before);
        const std::uint32_t len = to - from;
        uint8_t *p = MBUF_MakeMemoryContinuous_fl(
            m, static_cast<int32_t>(from), static_cast<int32_t>(len), kTestModule, kFile, __LINE__);
        EXPECT_TRUE(IsValidPacket(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        ASSERT_EQ(p != nullptr, from < Total());
        if (p != nullptr) {
            bool inside = len == 0;
            for (const MBUF_S *n = m; n != nullptr; n = n->pstNext) {
                inside |= p >= n->pucData && p + len <= n->pucData + n->ulDataLen;
            }
            EXPECT_TRUE(inside);
            EXPECT_EQ(Bytes(p, p + len), Slice(flat, from, len));
        }
        MBUF_Destroy(m);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, ContiguityShapeTest, ::testing::ValuesIn(StandardShapes()),
                         ShapeName);

class ContiguityTest : public ChainTest {};

// The tail of a node moves into the next node's head room, which already
// holds the rest of the range: no allocation. Not into a locked buffer, and
// not out of a buffer shared with another packet.
TEST_F(ContiguityTest, TheTailOfANodeIsPulledIntoTheNextNodesHeadRoom) {
    MBUF_S *m = BuildChain({InlineNode(100), InlineNode(30, 10)});
    const Bytes flat = Flatten(m);
    MBUF_S *second = m->pstNext;
    uint8_t *oldData = second->pucData;
    int32_t inNode = -1;
    const uint32_t attempts = KRM_HOST_AllocAttemptCount();
    EXPECT_EQ(MBUF_MemContinuousFromOffset(m, 90, 20, &inNode, kTestModule, nullptr), second);
    EXPECT_EQ(std::tuple(KRM_HOST_AllocAttemptCount(), inNode, second->pucData, NodeLengths(m)),
              std::tuple(attempts, 0, oldData - 10, Lens{90, 40}));
    EXPECT_TRUE(HoldsBytes(m, flat));
    MBUF_Destroy(m);

    for (bool locked : {true, false}) {
        SCOPED_TRACE(locked ? "locked room" : "shared buffer");
        m = BuildChain({ClusterNode(100), ClusterNode(30, 10)});
        if (locked) {
            m->pstNext->ulFlag |= MBUF_ROOMLOCK;
        } else {
            m->ulExtRefCnt = 2;
        }
        uint8_t *p = MBUF_MakeMemoryContinuous(m, 90, 20, kTestModule);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(NodeLengths(m), (Lens{90, 20, 20}));
        EXPECT_EQ(Bytes(p, p + 20), Slice(flat, 90, 20));
        EXPECT_TRUE(HoldsBytes(m, flat));
        m->pstNext->ulFlag &= ~MBUF_ROOMLOCK;
        MBUF_Destroy(m);
    }
}

// Otherwise the range gets a new node behind the first: inline up to 848
// bytes, a cluster up to 1960, an exactly sized buffer beyond, its reference
// count taking the head's type as appending does. The nodes behind are cut
// from the front and may be left empty until a tidy pass.
TEST_F(ContiguityTest, ALongRangeGetsANewNodeSizedForIt) {
    struct Case {
        std::int32_t len;
        std::uint32_t extSize;  // 0: inline
    };
    for (const Case &c : {Case{848, 0}, Case{1000, MBUF_CLUSTER_SIZE}, Case{2500, 2500}}) {
        SCOPED_TRACE(c.len);
        MBUF_S *m =
            BuildChain({InlineNode(300), InlineNode(800), InlineNode(800), ClusterNode(1800)});
        m->usType = 4;
        const Bytes flat = Flatten(m);
        int32_t inNode = -1;
        MBUF_S *node = MBUF_MemContinuousFromOffset(m, 200, c.len, &inNode, kTestModule, nullptr);
        ASSERT_NE(node, nullptr);
        const bool ext = (node->ulFlag & MBUF_EXT) != 0;
        EXPECT_EQ(std::tuple(m->pstNext, inNode, node->ulDataLen, node->usType, ext,
                             ext ? node->ulExtSize : 0u, ext ? node->ulExtRefCnt : 4u),
                  std::tuple(node, 0, static_cast<std::uint32_t>(c.len), 4u, c.extSize != 0,
                             c.extSize, 4u));
        EXPECT_TRUE(HoldsBytes(m, flat));
        MBUF_FreeNoUseMemory_fl(m, kFile, __LINE__);
        EXPECT_TRUE(IsValidPacket(m));
        MBUF_Destroy(m);
    }
}

// A source head that concatenation linked keeps MBUF_PKTHDR and its own
// length; cutting the range's bytes from its front leaves that length alone.
TEST_F(ContiguityTest, CuttingFromALinkedSourceHeadKeepsItsLength) {
    MBUF_S *m = BuildChain({InlineNode(100), ClusterNode(100)}, 1);
    MBUF_S *src = BuildChain({InlineNode(300)}, 2);
    const Bytes flat = Cat(Flatten(m), Flatten(src));
    ASSERT_EQ(MBUF_Concatenate(m, src), MBUF_OK);
    ASSERT_EQ(m->pstNext->pstNext, src);
    ASSERT_NE(src->ulFlag & MBUF_PKTHDR, 0u);
    const std::uint8_t *range = MBUF_MakeMemoryContinuous(m, 150, 100, kTestModule);
    ASSERT_NE(range, nullptr);
    EXPECT_EQ(Bytes(range, range + 100), Slice(flat, 150, 100));
    EXPECT_EQ(std::tuple(src->ulDataLen, src->ulTotalDataLen), std::tuple(250u, 300u));
    EXPECT_TRUE(HoldsBytes(m, flat));
    EXPECT_TRUE(IsValidPacket(m));
    MBUF_Destroy(m);
}

TEST_F(ContiguityTest, ReportsNegativeArgumentsAndANullPacket) {
    MBUF_S *m = BuildChain({InlineNode(10)});
    EXPECT_EQ(MBUF_MakeMemoryContinuous(m, -1, 10, kTestModule), nullptr);
    EXPECT_EQ(MBUF_MakeMemoryContinuous(m, 0, -2, kTestModule), nullptr);
    EXPECT_EQ(MBUF_MemContinuousFromOffset(nullptr, 0, 1, nullptr, kTestModule, nullptr), nullptr);
    EXPECT_EQ(MBUF_MakeMemoryContinuous(nullptr, 0, 1, kTestModule), nullptr);
    EXPECT_EQ(
        Reports(),
        (std::vector<Report>{
            AssertReport("krm_mbuf", 1224, "4294967295 10 offset or length err."),
            AssertReport("krm_mbuf", 1224, "0 4294967294 offset or length err."),
            AssertReport("mbuf_uipc_mbuf", 769, "pstMbuf == NULL, in MBUF_MemContinuousFromOffset"),
        }));
    MBUF_Destroy(m);
}

// 1000 bytes across four nodes need a node and its cluster.
TEST_F(ContiguityTest, ContiguityFailsCleanlyAtEveryAllocation) {
    uint8_t *p = nullptr;
    const auto join = [&](MBUF_S *m) {
        return (p = MBUF_MakeMemoryContinuous(m, 80, 1000, kTestModule)) != nullptr;
    };
    const auto joined = [&](MBUF_S *m, const Bytes &flat) {
        EXPECT_TRUE(HoldsBytes(m, flat));
        EXPECT_EQ(Bytes(p, p + 1000), Slice(flat, 80, 1000));
    };
    EXPECT_EQ(SweepPacket({InlineNode(100), InlineNode(100), InlineNode(848), InlineNode(848)},
                          false, join, joined),
              2u);
}

// A packet of `nodes` nodes holding `total` bytes between them, inline where
// the share fits.
std::vector<NodeRow> ManyNodes(std::uint32_t nodes, std::uint32_t total) {
    std::vector<NodeRow> rows;
    for (std::uint32_t i = 0; i < nodes; ++i) {
        const std::uint32_t share = total / nodes + (i < total % nodes ? 1 : 0);
        const std::uint32_t room = i == 0 ? MBUF_PKTHDR_INLINE_LEN : MBUF_PLAIN_INLINE_LEN;
        rows.push_back(share <= room ? InlineNode(share) : ClusterNode(share));
    }
    return rows;
}

// More than 90 memory blocks (an external buffer counts as one more) are
// re-packed into one buffer, and one further node past 63900 bytes.
TEST_F(ContiguityTest, CompressRepacksMoreThanNinetyBlocks) {
    // A cluster head, 43 cluster nodes and two inline nodes: 90 blocks.
    std::vector<NodeRow> ninety{ClusterNode(10, 100)};
    ninety.insert(ninety.end(), 43, ClusterNode(30));
    ninety.insert(ninety.end(), 2, InlineNode(5));
    std::vector<NodeRow> ninetyOne = ninety;
    ninetyOne.push_back(InlineNode(5));
    struct Case {
        const char *name;
        std::vector<NodeRow> rows;
        uint32_t rc;
        Lens lengths;  // empty: unchanged
    };
    const Case cases[] = {
        {"90 blocks with buffers", ninety, MBUF_OK, {}},
        {"91 blocks with buffers", ninetyOne, MBUF_OK, {1315}},
        {"beyond the largest buffer",
         ManyNodes(100, 65000),
         MBUF_OK,
         {MBUF_COMPRESS_MAX_BUF, 1100}},
        {"too long", ManyNodes(100, MBUF_COMPRESS_MAX_LEN), MBUF_ERR_CANNOT_PROCEED, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        MBUF_S *m = BuildChain(c.rows, 6);
        const Bytes flat = Flatten(m);
        const Lens before = NodeLengths(m);
        ASSERT_EQ(MBUF_Compress_fl(m, kTestModule, kFile, __LINE__), c.rc);
        EXPECT_EQ(NodeLengths(m), c.lengths.empty() ? before : c.lengths);
        if (c.lengths.size() == 1) {
            EXPECT_EQ(m->ulExtSize, c.lengths[0]);
        }
        EXPECT_TRUE(IsValidPacket(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        MBUF_Destroy(m);
    }
    EXPECT_EQ(MBUF_Compress_fl(nullptr, kTestModule, kFile, __LINE__), MBUF_OK);
}

// The buffer, then the further node and its cluster fail in turn: the first
// failure changes nothing, the later ones leave a valid packet partly
// re-packed, and report it.
TEST_F(ContiguityTest, CompressOutOfMemoryKeepsEveryByte) {
    for (std::uint32_t nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        MBUF_S *m = BuildChain(ManyNodes(100, 65000), 6);
        const Bytes flat = Flatten(m);
        KRM_HOST_FailNthAlloc(nth);
        const uint32_t rc = MBUF_Compress_fl(m, kTestModule, kFile, __LINE__);
        KRM_HOST_FailNthAlloc(0);
        EXPECT_EQ(rc, nth <= 3 ? MBUF_ERR_NOMEM : MBUF_OK);
        EXPECT_EQ(NodeCount(m), nth == 1 ? 100u : (nth <= 3 ? 3u : 2u));
        EXPECT_TRUE(IsValidPacket(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        EXPECT_EQ(Reports(), nth == 2 || nth == 3
                                 ? std::vector<Report>{AssertReportNoText("krm_mbuf_bas", 1278)}
                                 : std::vector<Report>{});
        MBUF_Destroy(m);
        KRM_HOST_ReportClear();
    }
}

}  // namespace
}  // namespace krm::test
