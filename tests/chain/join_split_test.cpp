// Joining and splitting packets, compared with concatenating and slicing the
// flat model.
#include <algorithm>
#include <cstring>

#include "chain_test.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "join_split_test";

// True when no external buffer of one chain is also hung from the other.
bool SharesNoBuffer(const MBUF_S *a, const MBUF_S *b) {
    for (const MBUF_S *x = a; x != nullptr; x = x->pstNext) {
        for (const MBUF_S *y = b; y != nullptr; y = y->pstNext) {
            if ((x->ulFlag & MBUF_EXT) != 0 && (y->ulFlag & MBUF_EXT) != 0 &&
                x->pucExtBuf == y->pucExtBuf) {
                return false;
            }
        }
    }
    return true;
}

void AddRecord(MBUF_S *m, std::uint8_t mark) {
    ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_IP, 20, kTestModule), MBUF_OK);
    static_cast<std::uint8_t *>(MBUF_GetControlInfo(m, MBUF_CTL_IP))[3] = mark;
}

// A control block that outgrew the node, so copying it allocates.
void GrowControlBlock(MBUF_S *m) {
    ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_APP, 300, kTestModule), MBUF_OK);
    ASSERT_NE(m->pstCtlInfo, &m->stCtlInfo.stBlk);
}

class JoinShapeTest : public ShapeTest {};

TEST_P(JoinShapeTest, ConcatenateJoinsTheData) {
    for (const ChainShape &other : StandardShapes()) {
        SCOPED_TRACE(other.name);
        MBUF_S *dst = Build(1);
        MBUF_S *src = BuildChain(other.nodes, 2);
        Bytes flat = Flatten(dst);
        const Bytes tail = Flatten(src);
        flat.insert(flat.end(), tail.begin(), tail.end());
        ASSERT_EQ(MBUF_Concatenate_fl(dst, src, kFile, __LINE__), MBUF_OK);
        EXPECT_TRUE(HoldsBytes(dst, flat));
        // A source head that was linked rather than copied keeps its flag
        // until a tidy pass.
        MBUF_FreeNoUseMemory_fl(dst, kFile, __LINE__);
        EXPECT_TRUE(PacketOk(dst));
        EXPECT_TRUE(HoldsBytes(dst, flat));
        MBUF_Destroy(dst);
    }
}

TEST_P(JoinShapeTest, SplitCutsAtEveryOffset) {
    for (std::uint32_t at : InterestingOffsets(Rows())) {
        SCOPED_TRACE(at);
        MBUF_S *m = Build();
        m->ulPktRsv4 = 42;
        const Bytes flat = Flatten(m);
        MBUF_S *second = MBUF_Split(m, at, kTestModule, nullptr);
        ASSERT_NE(second, nullptr);
        EXPECT_TRUE(PacketOk(m));
        EXPECT_TRUE(PacketOk(second));
        EXPECT_TRUE(HoldsBytes(m, Slice(flat, 0, at)));
        EXPECT_TRUE(
            HoldsBytes(second, Slice(flat, at, static_cast<std::uint32_t>(flat.size()) - at)));
        EXPECT_EQ(second->ulPktRsv4, 42u);
        EXPECT_TRUE(SharesNoBuffer(m, second));
        MBUF_Destroy(second);
        MBUF_Destroy(m);
    }
    MBUF_S *m = Build();
    EXPECT_EQ(MBUF_Split(m, m->ulTotalDataLen + 1, kTestModule, nullptr), nullptr);
    EXPECT_TRUE(PacketOk(m));
    MBUF_Destroy(m);
}

TEST_P(JoinShapeTest, FragmentGivesTheSecondPartTheControlInformation) {
    MBUF_S *probe = Build();
    const std::uint32_t total = probe->ulTotalDataLen;
    EXPECT_EQ(MBUF_Fragment(probe, 0, kTestModule), nullptr);
    EXPECT_EQ(MBUF_Fragment(probe, total + 1, kTestModule), nullptr);
    MBUF_Destroy(probe);
    for (std::uint32_t at : InterestingOffsets(Rows())) {
        if (at == 0) {
            continue;
        }
        SCOPED_TRACE(at);
        MBUF_S *m = Build();
        AddRecord(m, 0x77);
        const Bytes flat = Flatten(m);
        MBUF_S *second = MBUF_Fragment_fl(m, at, kTestModule, kFile, __LINE__);
        ASSERT_NE(second, nullptr);
        EXPECT_TRUE(PacketOk(second));
        EXPECT_TRUE(HoldsBytes(m, Slice(flat, 0, at)));
        EXPECT_TRUE(HoldsBytes(second, Slice(flat, at, total - at)));
        auto *rec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(second, MBUF_CTL_IP));
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(rec[3], 0x77);
        MBUF_Destroy(second);
        MBUF_Destroy(m);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, JoinShapeTest, ::testing::ValuesIn(StandardShapes()), ShapeName);

class JoinSplitTest : public ChainTest {};

TEST_F(JoinSplitTest, SplitOfAPlainChainReturnsTheRest) {
    for (const ChainShape &shape : StandardShapes()) {
        if (shape.nodes.size() < 2) {
            continue;
        }
        SCOPED_TRACE(shape.name);
        std::vector<NodeSpec> rows(shape.nodes.begin() + 1, shape.nodes.end());
        const std::uint32_t restLen = ShapeLength(rows);
        for (std::uint32_t at : InterestingOffsets(rows)) {
            SCOPED_TRACE(at);
            MBUF_S *m = BuildChain(shape.nodes);
            const Bytes flat = Flatten(m->pstNext);
            MBUF_S *rest = MBUF_Split(m->pstNext, at, kTestModule, nullptr);
            EXPECT_EQ(Flatten(m->pstNext), Slice(flat, 0, at));
            EXPECT_EQ(Flatten(rest), Slice(flat, at, restLen - at));
            for (const MBUF_S *n = rest; n != nullptr; n = n->pstNext) {
                EXPECT_EQ(n->ulFlag & MBUF_PKTHDR, 0u);
            }
            MBUF_Free(rest, nullptr);
            m->ulTotalDataLen = MBUF_CalcDataLength(m);
            EXPECT_TRUE(PacketOk(m));
            MBUF_Destroy(m);
        }
    }
}

TEST_F(JoinSplitTest, ConcatenateCopiesSmallDataIntoInlineRoomOnly) {
    // Into inline room: one node.
    MBUF_S *dst = BuildChain({InlineNode(100)}, 1);
    MBUF_S *src = BuildChain({InlineNode(10)}, 2);
    ASSERT_EQ(MBUF_Concatenate(dst, src), MBUF_OK);
    EXPECT_EQ(NodeLengths(dst), (std::vector<std::uint32_t>{110}));
    EXPECT_TRUE(PacketOk(dst));
    MBUF_Destroy(dst);

    // Behind an external last node: linked, with its header flag.
    dst = BuildChain({InlineNode(100), ClusterNode(100)}, 1);
    src = BuildChain({InlineNode(10)}, 2);
    ASSERT_EQ(MBUF_Concatenate(dst, src), MBUF_OK);
    EXPECT_EQ(dst->pstNext->pstNext, src);
    EXPECT_NE(src->ulFlag & MBUF_PKTHDR, 0u);
    EXPECT_EQ(dst->ulTotalDataLen, 210u);
    MBUF_Destroy(dst);

    // A node that would exactly fill the room is linked, not copied.
    dst = BuildChain({InlineNode(MBUF_PKTHDR_INLINE_LEN - 10)}, 1);
    src = BuildChain({InlineNode(10), InlineNode(5)}, 2);
    ASSERT_EQ(MBUF_Concatenate(dst, src), MBUF_OK);
    EXPECT_EQ(NodeLengths(dst), (std::vector<std::uint32_t>{MBUF_PKTHDR_INLINE_LEN - 10, 10, 5}));
    MBUF_Destroy(dst);

    // Several small nodes are copied one after another while they fit.
    dst = BuildChain({InlineNode(300)}, 1);
    src = BuildChain({InlineNode(30), InlineNode(0), InlineNode(40), InlineNode(3)}, 2);
    Bytes flat = Flatten(dst);
    const Bytes tail = Flatten(src);
    flat.insert(flat.end(), tail.begin(), tail.end());
    ASSERT_EQ(MBUF_Concatenate(dst, src), MBUF_OK);
    EXPECT_EQ(NodeLengths(dst), (std::vector<std::uint32_t>{370, 3}));
    EXPECT_TRUE(HoldsBytes(dst, flat));
    MBUF_Destroy(dst);
}

TEST_F(JoinSplitTest, ConcatenateRefusesWhatIsNotTwoPackets) {
    MBUF_S *m = BuildChain({InlineNode(10)});
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(MBUF_Concatenate(m, nullptr), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_Concatenate(nullptr, m), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_Concatenate(m, m), MBUF_ERR_BAD_ARG);
    EXPECT_TRUE(PacketOk(m));
    MBUF_Destroy(m);
}

TEST_F(JoinSplitTest, ConcatenateReleasesTheSourcesSeparateBlock) {
    MBUF_S *dst = BuildChain({InlineNode(10)}, 1);
    MBUF_S *src = BuildChain({ClusterNode(500)}, 2);
    GrowControlBlock(src);
    ASSERT_EQ(MBUF_Concatenate(dst, src), MBUF_OK);
    EXPECT_EQ(src->pstCtlInfo, nullptr);
    MBUF_FreeNoUseMemory_fl(dst, kFile, __LINE__);
    EXPECT_TRUE(PacketOk(dst));
    MBUF_Destroy(dst);
}

TEST_F(JoinSplitTest, SplitPlacesTheRemainderNearTheEndOfTheInlineArea) {
    MBUF_S *m = BuildChain({InlineNode(300)});
    MBUF_S *second = MBUF_Split(m, 100, kTestModule, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->pucData, second->aucHdrInlineData + 172);
    EXPECT_EQ(second->ulDataLen, 200u);
    EXPECT_EQ(m->ulTotalDataLen, 100u);
    MBUF_Destroy(second);
    MBUF_Destroy(m);

    // More than a head holds inline: an empty new head, then a plain node.
    m = BuildChain({InlineNode(100), InlineNode(800)});
    const Bytes flat = Flatten(m);
    second = MBUF_Split(m, 150, kTestModule, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(NodeLengths(second), (std::vector<std::uint32_t>{0, 750}));
    EXPECT_EQ(second->pucData, second->aucHdrInlineData + MBUF_PKTHDR_INLINE_LEN);
    EXPECT_EQ(second->pstNext->pucData, second->pstNext->aucInlineData + 96);
    EXPECT_TRUE(HoldsBytes(second, Slice(flat, 150, 750)));
    EXPECT_TRUE(PacketOk(second));
    MBUF_Destroy(second);
    MBUF_Destroy(m);
}

TEST_F(JoinSplitTest, SplitOfAnExternalHeadCopiesIntoItsOwnBuffer) {
    MBUF_S *m = BuildChain({ClusterNode(1000)});
    const Bytes flat = Flatten(m);
    MBUF_S *second = MBUF_Split(m, 100, kTestModule, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(second->ulFlag & MBUF_EXT, 0u);
    EXPECT_NE(second->pucExtBuf, m->pucExtBuf);
    EXPECT_EQ(second->pucData, second->pucExtBuf + MBUF_DUPEXT_HEADROOM);
    EXPECT_EQ(second->ulExtSize, MBUF_CLUSTER_SIZE);
    EXPECT_TRUE(HoldsBytes(second, Slice(flat, 100, 900)));
    MBUF_Destroy(second);
    MBUF_Destroy(m);
}

TEST_F(JoinSplitTest, DuplicateExtInfoCopiesToTheEndOfTheSourceBuffer) {
    MBUF_S *src = BuildChain({InlineNode(0), ExactNode(4000, 100, 10)});
    ASSERT_NE(src, nullptr);
    MBUF_S *node = src->pstNext;
    uint32_t capacity = 0;
    MBUF_S *dst = MBUF_AllocateMBufNode_fl(0, 0, &capacity, kTestModule, kFile, __LINE__);
    ASSERT_NE(dst, nullptr);
    node->ulExtRsv0 = 5;
    ASSERT_EQ(MBUF_DuplicateExtInfo(dst, node, 30, kTestModule, nullptr), 1u);
    // 4000 - 10 - 30 bytes travel, above 1895: the buffer is 64 larger.
    EXPECT_EQ(dst->ulExtSize, 3960u + 64u);
    EXPECT_EQ(dst->ulExtRsv0, 5u);
    EXPECT_EQ(std::memcmp(dst->pucData, node->pucData + 30, 3960), 0);
    dst->ulDataLen = 70;
    MBUF_Free(dst, nullptr);

    // Nothing to copy: done, nothing attached. Past the end: failed.
    dst = MBUF_AllocateMBufNode_fl(0, 0, &capacity, kTestModule, kFile, __LINE__);
    EXPECT_EQ(MBUF_DuplicateExtInfo(dst, node, 3990, kTestModule, nullptr), 1u);
    EXPECT_EQ(dst->ulFlag & MBUF_EXT, 0u);
    EXPECT_EQ(MBUF_DuplicateExtInfo(dst, node, 3991, kTestModule, nullptr), 0u);
    EXPECT_EQ(MBUF_DuplicateExtInfo(dst, src, 0, kTestModule, nullptr), 0u);
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReport(
                             "mbuf_uipc_mbuf", 153, "MBUF_DuplicateExtInfo: MBUF_EXT not set")}));
    MBUF_Free(dst, nullptr);
    MBUF_Destroy(src);
}

TEST_F(JoinSplitTest, FragmentAtTheEndGivesAnEmptySecondPacket) {
    MBUF_S *m = BuildChain({InlineNode(10), ClusterNode(20)});
    MBUF_S *second = MBUF_Fragment(m, 30, kTestModule);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->ulTotalDataLen, 0u);
    EXPECT_TRUE(PacketOk(second));
    EXPECT_TRUE(HoldsBytes(m, Payload(30)));
    MBUF_Destroy(second);
    MBUF_Destroy(m);
}

TEST_F(JoinSplitTest, FragmentFailsCleanlyAtEveryAllocation) {
    struct Case {
        std::vector<NodeSpec> rows;
        std::uint32_t allocations;  // besides the copied control block
    };
    const std::vector<Case> cases = {
        {{InlineNode(100), InlineNode(800)}, 2},   // empty new head + plain node
        {{ClusterNode(1000), InlineNode(10)}, 2},  // duplicated buffer
        {{InlineNode(300)}, 1},                    // inline remainder
    };
    for (const Case &c : cases) {
        const std::vector<NodeSpec> &rows = c.rows;
        MBUF_S *m = nullptr;
        MBUF_S *second = nullptr;
        Bytes flat;
        const SweepResult result = FaultSweep({
            [&] {
                m = BuildChain(rows);
                GrowControlBlock(m);
                flat = Flatten(m);
            },
            [&] {
                second = MBUF_Fragment(m, 150, kTestModule);
                return second != nullptr;
            },
            [&] {
                EXPECT_TRUE(PacketOk(m));
                EXPECT_TRUE(HoldsBytes(m, flat));
                MBUF_Destroy(m);
            },
            [&] {
                EXPECT_TRUE(HoldsBytes(second, Slice(flat, 150, ShapeLength(rows) - 150)));
                MBUF_Destroy(second);
                MBUF_Destroy(m);
            },
        });
        EXPECT_EQ(result.failedRuns, c.allocations + 1);
    }
}

TEST_F(JoinSplitTest, FragmentByMemCntCutsBeforeTheNodeThatPassesTheLimit) {
    MBUF_S *m = BuildChain({InlineNode(50), ClusterNode(100), ClusterNode(200)});
    ASSERT_NE(m, nullptr);
    AddRecord(m, 0x31);
    MBUF_S *first = m->pstNext;
    MBUF_S *rest = MBUF_FragmentByMemCnt_fl(m, 3, kTestModule, kFile, __LINE__);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(m->pstNext, nullptr);
    EXPECT_EQ(m->ulTotalDataLen, 50u);
    EXPECT_EQ(rest->pstNext, first);
    EXPECT_TRUE(PacketOk(rest));
    EXPECT_TRUE(HoldsBytes(rest, Payload(300, 0, 50)));
    auto *rec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(rest, MBUF_CTL_IP));
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec[3], 0x31);
    MBUF_Destroy(rest);
    MBUF_Destroy(m);
}

TEST_F(JoinSplitTest, FragmentByMemCntOnlyTidiesWhenWithinTheLimit) {
    MBUF_S *m = BuildChain({ClusterNode(0), InlineNode(0), ClusterNode(100), InlineNode(0)});
    ASSERT_NE(m, nullptr);
    uint32_t capacity = 0;
    MBUF_S *stray = MBUF_AllocateMBufHeader_fl(0, 0, &capacity, kTestModule, kFile, __LINE__);
    ASSERT_NE(stray, nullptr);
    stray->ulDataLen = 7;
    m->pstNext->pstNext->pstNext->pstNext = stray;
    m->ulTotalDataLen = 107;
    // Control block 1, head 1 (its empty buffer released), 2 + 1.
    EXPECT_EQ(MBUF_FragmentByMemCnt_fl(m, 5, kTestModule, kFile, __LINE__), nullptr);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{0, 100, 7}));
    EXPECT_EQ(m->ulFlag & MBUF_EXT, 0u);
    EXPECT_EQ(stray->ulFlag & MBUF_PKTHDR, 0u);
    EXPECT_TRUE(PacketOk(m));
    // One block fewer allowed: the last node is cut off.
    MBUF_S *rest = MBUF_FragmentByMemCnt_fl(m, 4, kTestModule, kFile, __LINE__);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest->pstNext, stray);
    EXPECT_EQ(m->ulTotalDataLen, 100u);
    MBUF_Destroy(rest);
    MBUF_Destroy(m);
    EXPECT_EQ(MBUF_FragmentByMemCnt_fl(nullptr, 5, kTestModule, kFile, __LINE__), nullptr);
}

TEST_F(JoinSplitTest, FragmentByMemCntLeavesTheCutNodesToTheCallerWhenOutOfMemory) {
    MBUF_S *m = BuildChain({InlineNode(50), ClusterNode(100), ClusterNode(200)});
    ASSERT_NE(m, nullptr);
    MBUF_S *cut = m->pstNext;
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_FragmentByMemCnt_fl(m, 2, kTestModule, kFile, __LINE__), nullptr);
    KRM_HOST_FailNthAlloc(0);
    // The packet lost the nodes and its length says so; they were not freed.
    EXPECT_EQ(m->pstNext, nullptr);
    EXPECT_TRUE(PacketOk(m));
    EXPECT_EQ(NodeLengths(cut), (std::vector<std::uint32_t>{100, 200}));
    MBUF_Free(cut, nullptr);
    MBUF_Destroy(m);
}

}  // namespace
}  // namespace krm::test
