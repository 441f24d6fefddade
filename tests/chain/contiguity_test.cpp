// Making ranges contiguous and re-packing packets: the bytes never change,
// only where they lie.
#include <cstring>

#include "chain_test.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "contiguity_test";

class ContiguityShapeTest : public ShapeTest {};

TEST_P(ContiguityShapeTest, EveryRangeBecomesContiguousAndTheDataStays) {
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    const std::uint32_t total = ShapeLength(Rows());
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (to < from) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << from << ".." << to);
            MBUF_S *m = Build();
            const Bytes flat = Flatten(m);
            const std::uint32_t len = to - from;
            uint8_t *p = MBUF_MakeMemoryContinuous_fl(m, static_cast<int32_t>(from),
                                                      static_cast<int32_t>(len), kTestModule, kFile,
                                                      __LINE__);
            EXPECT_TRUE(PacketOk(m));
            EXPECT_TRUE(HoldsBytes(m, flat));
            // Found whenever the offset lies inside the packet.
            ASSERT_EQ(p != nullptr, from < total);
            if (p != nullptr) {
                // The range lies inside one node's data.
                bool inside = false;
                for (const MBUF_S *n = m; n != nullptr; n = n->pstNext) {
                    inside |= p >= n->pucData && p + len <= n->pucData + n->ulDataLen;
                }
                EXPECT_TRUE(inside || len == 0);
                EXPECT_EQ(Bytes(p, p + len), Slice(flat, from, len));
            }
            MBUF_Destroy(m);
        }
    }
}

TEST_P(ContiguityShapeTest, RangesPastTheEndChangeNothing) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    const std::vector<std::uint32_t> before = NodeLengths(m);
    const auto total = static_cast<int32_t>(flat.size());
    for (int32_t from : {0, total / 2, total}) {
        EXPECT_EQ(MBUF_MakeMemoryContinuous(m, from, total - from + 1, kTestModule), nullptr);
    }
    EXPECT_EQ(NodeLengths(m), before);
    EXPECT_TRUE(HoldsBytes(m, flat));
    MBUF_Destroy(m);
}

TEST_P(ContiguityShapeTest, CompressKeepsTheDataOfAFewBlocks) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    ASSERT_EQ(MBUF_Compress_fl(m, kTestModule, kFile, __LINE__), MBUF_OK);
    EXPECT_TRUE(PacketOk(m));
    EXPECT_TRUE(HoldsBytes(m, flat));
    for (const MBUF_S *n = m->pstNext; n != nullptr; n = n->pstNext) {
        EXPECT_NE(n->ulDataLen, 0u);  // tidied
    }
    MBUF_Destroy(m);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ContiguityShapeTest, ::testing::ValuesIn(StandardShapes()),
                         ShapeName);

class ContiguityTest : public ChainTest {};

TEST_F(ContiguityTest, ARangeInOneNodeIsReturnedAsItIs) {
    MBUF_S *m = BuildChain({InlineNode(100), InlineNode(50)});
    int32_t inNode = -1;
    MBUF_S *node = MBUF_MemContinuousFromOffset(m, 110, 40, &inNode, kTestModule, nullptr);
    EXPECT_EQ(node, m->pstNext);
    EXPECT_EQ(inNode, 10);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{100, 50}));
    // An empty head is passed over for offset 0.
    m->pucData += m->ulDataLen;
    m->ulTotalDataLen -= m->ulDataLen;
    m->ulDataLen = 0;
    EXPECT_EQ(MBUF_MemContinuousFromOffset(m, 0, 5, nullptr, kTestModule, nullptr), m->pstNext);
    MBUF_Destroy(m);
}

TEST_F(ContiguityTest, TheTailOfANodeIsPulledIntoTheNextNodesHeadRoom) {
    MBUF_S *m = BuildChain({InlineNode(100), InlineNode(30, 10)});
    const Bytes flat = Flatten(m);
    MBUF_S *second = m->pstNext;
    uint8_t *oldData = second->pucData;
    int32_t inNode = -1;
    const uint32_t attempts = KRM_HOST_AllocAttemptCount();
    EXPECT_EQ(MBUF_MemContinuousFromOffset(m, 90, 20, &inNode, kTestModule, nullptr), second);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), attempts);
    EXPECT_EQ(inNode, 0);
    EXPECT_EQ(second->pucData, oldData - 10);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{90, 40}));
    EXPECT_TRUE(HoldsBytes(m, flat));
    MBUF_Destroy(m);
}

TEST_F(ContiguityTest, NoPullBackIntoALockedOrSharedBuffer) {
    for (int variant = 0; variant < 2; ++variant) {
        MBUF_S *m = BuildChain({ClusterNode(100), ClusterNode(30, 10)});
        if (variant == 0) {
            m->pstNext->ulFlag |= MBUF_ROOMLOCK;  // no head room to take
        } else {
            m->ulExtRefCnt = 2;  // the first node's buffer is not writable
        }
        const Bytes flat = Flatten(m);
        uint8_t *p = MBUF_MakeMemoryContinuous(m, 90, 20, kTestModule);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(NodeCount(m), 3u);
        EXPECT_EQ(Bytes(p, p + 20), Slice(flat, 90, 20));
        EXPECT_TRUE(HoldsBytes(m, flat));
        m->pstNext->ulFlag &= ~MBUF_ROOMLOCK;
        MBUF_Destroy(m);
    }
}

TEST_F(ContiguityTest, ALongRangeGetsANewNodeSizedForIt) {
    struct Case {
        std::int32_t len;
        std::uint32_t extSize;  // 0: inline
    };
    for (const Case &c :
         {Case{500, 0}, Case{848, 0}, Case{1000, MBUF_CLUSTER_SIZE}, Case{2500, 2500}}) {
        SCOPED_TRACE(c.len);
        MBUF_S *m =
            BuildChain({InlineNode(300), InlineNode(800), InlineNode(800), ClusterNode(1800)});
        m->usType = 4;
        const Bytes flat = Flatten(m);
        MBUF_S *first = m;
        int32_t inNode = -1;
        MBUF_S *node = MBUF_MemContinuousFromOffset(m, 200, c.len, &inNode, kTestModule, nullptr);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(first->pstNext, node);
        EXPECT_EQ(inNode, 0);
        EXPECT_EQ(node->ulDataLen, static_cast<std::uint32_t>(c.len));
        EXPECT_EQ(node->usType, 4u);
        EXPECT_EQ((node->ulFlag & MBUF_EXT) != 0, c.extSize != 0);
        if (c.extSize != 0) {
            EXPECT_EQ(node->ulExtSize, c.extSize);
            EXPECT_EQ(node->ulExtRefCnt, 4u);  // the head's type, as appending does
        }
        EXPECT_TRUE(HoldsBytes(m, flat));
        MBUF_FreeNoUseMemory_fl(m, kFile, __LINE__);
        EXPECT_TRUE(PacketOk(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        MBUF_Destroy(m);
    }
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

TEST_F(ContiguityTest, ContiguityFailsCleanlyAtEveryAllocation) {
    for (std::int32_t len : {40, 1000}) {
        MBUF_S *m = nullptr;
        Bytes flat;
        uint8_t *p = nullptr;
        const SweepResult result = FaultSweep({
            [&] {
                m = BuildChain({InlineNode(100), InlineNode(100)});
                flat = Flatten(m);
                // 40 bytes across the two nodes, or 1000 of a longer packet
                if (len > 40) {
                    MBUF_S *tail = BuildChain({InlineNode(0), InlineNode(848), InlineNode(848)});
                    ASSERT_EQ(MBUF_Concatenate(m, tail), MBUF_OK);
                    MBUF_FreeNoUseMemory_fl(m, kFile, __LINE__);
                    flat = Flatten(m);
                }
            },
            [&] {
                p = MBUF_MakeMemoryContinuous(m, 80, len, kTestModule);
                return p != nullptr;
            },
            [&] {
                EXPECT_TRUE(HoldsBytes(m, flat));
                MBUF_Destroy(m);
            },
            [&] {
                EXPECT_EQ(Bytes(p, p + len), Slice(flat, 80, static_cast<std::uint32_t>(len)));
                MBUF_Destroy(m);
            },
        });
        EXPECT_EQ(result.failedRuns, len > 40 ? 2u : 1u);
    }
}

// A packet of `nodes` nodes holding `total` bytes between them, inline where
// the share fits.
MBUF_S *ManyNodes(std::uint32_t nodes, std::uint32_t total) {
    std::vector<NodeSpec> rows;
    for (std::uint32_t i = 0; i < nodes; ++i) {
        const std::uint32_t share = total / nodes + (i < total % nodes ? 1 : 0);
        const std::uint32_t room = i == 0 ? MBUF_PKTHDR_INLINE_LEN : MBUF_PLAIN_INLINE_LEN;
        rows.push_back(share <= room ? InlineNode(share) : ClusterNode(share));
    }
    return BuildChain(rows, 6);
}

TEST_F(ContiguityTest, CompressRepacksMoreThanNinetyBlocksIntoOneBuffer) {
    MBUF_S *m = ManyNodes(91, 20000);
    const Bytes flat = Flatten(m);
    ASSERT_EQ(MBUF_Compress_fl(m, kTestModule, kFile, __LINE__), MBUF_OK);
    EXPECT_EQ(NodeCount(m), 1u);
    EXPECT_NE(m->ulFlag & MBUF_EXT, 0u);
    EXPECT_EQ(m->ulExtSize, 20000u);
    EXPECT_TRUE(PacketOk(m));
    EXPECT_TRUE(HoldsBytes(m, flat));
    MBUF_Destroy(m);

    m = ManyNodes(90, 20000);
    ASSERT_EQ(MBUF_Compress_fl(m, kTestModule, kFile, __LINE__), MBUF_OK);
    EXPECT_EQ(NodeCount(m), 90u);
    MBUF_Destroy(m);
}

TEST_F(ContiguityTest, CompressCountsExternalBuffersAsBlocks) {
    // A cluster head and 43 cluster nodes (88 blocks) and two inline nodes:
    // 90 blocks. One more inline node makes 91.
    for (std::uint32_t extra : {0u, 1u}) {
        std::vector<NodeSpec> rows{ClusterNode(10, 100)};
        rows.insert(rows.end(), 43, ClusterNode(30));
        rows.insert(rows.end(), 2 + extra, InlineNode(5));
        MBUF_S *m = BuildChain(rows, 8);
        const Bytes flat = Flatten(m);
        ASSERT_EQ(MBUF_Compress_fl(m, kTestModule, kFile, __LINE__), MBUF_OK);
        EXPECT_EQ(NodeCount(m), extra == 0 ? rows.size() : 1u);
        EXPECT_TRUE(HoldsBytes(m, flat));
        EXPECT_TRUE(PacketOk(m));
        MBUF_Destroy(m);
    }
}

TEST_F(ContiguityTest, CompressBeyondTheLargestBufferUsesOneMoreNode) {
    MBUF_S *m = ManyNodes(100, 65000);
    const Bytes flat = Flatten(m);
    ASSERT_EQ(MBUF_Compress_fl(m, kTestModule, kFile, __LINE__), MBUF_OK);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{MBUF_COMPRESS_MAX_BUF, 1100}));
    EXPECT_TRUE(PacketOk(m));
    EXPECT_TRUE(HoldsBytes(m, flat));
    MBUF_Destroy(m);

    m = ManyNodes(100, MBUF_COMPRESS_MAX_LEN);
    EXPECT_EQ(MBUF_Compress_fl(m, kTestModule, kFile, __LINE__), MBUF_ERR_CANNOT_PROCEED);
    EXPECT_EQ(NodeCount(m), 100u);
    MBUF_Destroy(m);
    EXPECT_EQ(MBUF_Compress_fl(nullptr, kTestModule, kFile, __LINE__), MBUF_OK);
}

TEST_F(ContiguityTest, CompressOutOfMemoryKeepsEveryByte) {
    // The buffer, then the further node and its cluster fail in turn: the
    // first failure changes nothing, the later ones leave a valid packet
    // partly re-packed.
    for (std::uint32_t nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        MBUF_S *m = ManyNodes(100, 65000);
        const Bytes flat = Flatten(m);
        KRM_HOST_FailNthAlloc(nth);
        const uint32_t rc = MBUF_Compress_fl(m, kTestModule, kFile, __LINE__);
        KRM_HOST_FailNthAlloc(0);
        EXPECT_EQ(rc, nth <= 3 ? MBUF_ERR_NOMEM : MBUF_OK);
        EXPECT_EQ(NodeCount(m), nth == 1 ? 100u : (nth <= 3 ? 3u : 2u));
        EXPECT_TRUE(PacketOk(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        if (nth == 2 || nth == 3) {
            EXPECT_EQ(Reports(), (std::vector<Report>{AssertReportNoText("krm_mbuf_bas", 1278)}));
        }
        MBUF_Destroy(m);
        KRM_HOST_ReportClear();
    }
}

}  // namespace
}  // namespace krm::test
