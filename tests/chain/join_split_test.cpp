// Joining and splitting packets, compared with concatenating and slicing the
// flat model.
#include <cstring>
#include <tuple>

#include "chain_test.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "join_split_test";

class JoinShapeTest : public ShapeTest {};

// Joined with a packet of every shape, the data is the two models end to end.
TEST_P(JoinShapeTest, ConcatenateJoinsTheData) {
    for (const ChainShape &other : StandardShapes()) {
        SCOPED_TRACE(other.name);
        MBUF_S *dst = Build(1);
        MBUF_S *src = BuildChain(other.nodes, 2);
        const Bytes flat = Cat(Flatten(dst), Flatten(src));
        ASSERT_EQ(MBUF_Concatenate_fl(dst, src, kFile, __LINE__), MBUF_OK);
        EXPECT_TRUE(HoldsBytes(dst, flat));
        // A source head that was linked rather than copied keeps its flag
        // until a tidy pass.
        MBUF_FreeNoUseMemory_fl(dst, kFile, __LINE__);
        EXPECT_TRUE(IsValidPacket(dst));
        MBUF_Destroy(dst);
    }
}

// Splitting or fragmenting at every offset gives the model's two slices in
// storage of their own; a fragment's second part also gets the records.
TEST_P(JoinShapeTest, SplitAndFragmentCutAtEveryOffset) {
    for (std::uint32_t at : InterestingOffsets(Rows())) {
        for (bool fragment : {false, true}) {
            if (fragment && at == 0) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << (fragment ? "fragment at " : "split at ") << at);
            MBUF_S *m = Build();
            m->ulPktRsv4 = 42;
            GrowControlBlock(m, 0x77);
            const Bytes flat = Flatten(m);
            MBUF_S *second = fragment ? MBUF_Fragment_fl(m, at, kTestModule, kFile, __LINE__)
                                      : MBUF_Split(m, at, kTestModule, nullptr);
            ASSERT_NE(second, nullptr);
            EXPECT_TRUE(IsValidPacket(m));
            EXPECT_TRUE(IsValidPacket(second));
            EXPECT_TRUE(HoldsBytes(m, Slice(flat, 0, at)));
            EXPECT_TRUE(HoldsBytes(second, Slice(flat, at, Total() - at)));
            EXPECT_EQ(std::tuple(second->ulPktRsv4, RecordMark(second), SharesNoBuffer(m, second)),
                      std::tuple(42u, fragment ? 0x77 : -1, true));
            MBUF_Destroy(second);
            MBUF_Destroy(m);
        }
    }
    MBUF_S *m = Build();
    EXPECT_EQ((std::vector<MBUF_S *>{MBUF_Split(m, Total() + 1, kTestModule, nullptr),
                                     MBUF_Fragment(m, 0, kTestModule),
                                     MBUF_Fragment(m, Total() + 1, kTestModule)}),
              std::vector<MBUF_S *>(3, nullptr));
    EXPECT_TRUE(HoldsBytes(m, Flatten(m)));
    MBUF_Destroy(m);
}

// A chain that is not a packet is cut in place; the rest carries no
// MBUF_PKTHDR.
TEST_P(JoinShapeTest, SplitOfAPlainChainReturnsTheRest) {
    if (Rows().size() < 2) {
        return;  // a one-node packet has no plain chain behind its head
    }
    const std::vector<NodeRow> rows(Rows().begin() + 1, Rows().end());
    for (std::uint32_t at : InterestingOffsets(rows)) {
        SCOPED_TRACE(at);
        MBUF_S *m = Build();
        const Bytes flat = Flatten(m->pstNext);
        MBUF_S *rest = MBUF_Split(m->pstNext, at, kTestModule, nullptr);
        EXPECT_EQ(Flatten(m->pstNext), Slice(flat, 0, at));
        EXPECT_EQ(Flatten(rest), Slice(flat, at, ShapeLength(rows) - at));
        for (const MBUF_S *n = rest; n != nullptr; n = n->pstNext) {
            EXPECT_EQ(n->ulFlag & MBUF_PKTHDR, 0u);
        }
        MBUF_Free(rest, nullptr);
        m->ulTotalDataLen = MBUF_CalcDataLength(m);
        EXPECT_TRUE(IsValidPacket(m));
        MBUF_Destroy(m);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, JoinShapeTest, ::testing::ValuesIn(StandardShapes()), ShapeName);

class JoinSplitTest : public ChainTest {};

// Source nodes are copied into the destination's inline room while they fit
// with a byte to spare, and linked otherwise; a linked source head has lost
// its records.
TEST_F(JoinSplitTest, ConcatenateCopiesSmallDataIntoInlineRoomOnly) {
    struct Case {
        std::vector<NodeRow> dst, src;
        Lens lengths;
    };
    const Case cases[] = {
        {{InlineNode(100)}, {InlineNode(10)}, {110}},
        {{InlineNode(100), ClusterNode(100)}, {InlineNode(10)}, {100, 100, 10}},
        {{InlineNode(MBUF_PKTHDR_INLINE_LEN - 10)},
         {InlineNode(10), InlineNode(5)},
         {MBUF_PKTHDR_INLINE_LEN - 10, 10, 5}},
        {{InlineNode(300)},
         {InlineNode(30), InlineNode(0), InlineNode(40), InlineNode(3)},
         {370, 3}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        MBUF_S *dst = BuildChain(c.dst, 1);
        MBUF_S *src = BuildChain(c.src, 2);
        GrowControlBlock(src);
        const Bytes flat = Cat(Flatten(dst), Flatten(src));
        ASSERT_EQ(MBUF_Concatenate(dst, src), MBUF_OK);
        EXPECT_EQ(NodeLengths(dst), c.lengths);
        EXPECT_TRUE(HoldsBytes(dst, flat));
        // A linked source head keeps MBUF_PKTHDR by design: still a packet.
        EXPECT_TRUE(IsValidPacket(dst));
        for (MBUF_S *n = dst->pstNext; n != nullptr; n = n->pstNext) {
            EXPECT_TRUE((n->ulFlag & MBUF_PKTHDR) == 0 || n->pstCtlInfo == nullptr);
        }
        MBUF_FreeNoUseMemory_fl(dst, kFile, __LINE__);
        EXPECT_TRUE(IsValidPacket(dst));
        MBUF_Destroy(dst);
    }
    MBUF_S *m = BuildChain({InlineNode(10)});
    EXPECT_EQ(
        (Lens{MBUF_Concatenate(m, nullptr), MBUF_Concatenate(nullptr, m), MBUF_Concatenate(m, m)}),
        (Lens{MBUF_ERR_INVALID_MBUF, MBUF_ERR_INVALID_MBUF, MBUF_ERR_BAD_ARG}));
    EXPECT_TRUE(IsValidPacket(m));
    MBUF_Destroy(m);
}

// An inline remainder ends near the end of the new head's inline area, on a
// 4-byte boundary; one too long for it follows an empty new head in a plain
// node; an external one gets a buffer of its own behind 64 bytes of room.
TEST_F(JoinSplitTest, SplitPlacesTheRemainder) {
    const auto split = [](const std::vector<NodeRow> &rows, std::uint32_t at, auto check) {
        SCOPED_TRACE(testing::Message() << "split at " << at);
        MBUF_S *m = BuildChain(rows);
        MBUF_S *second = MBUF_Split(m, at, kTestModule, nullptr);
        ASSERT_NE(second, nullptr);
        check(second);
        MBUF_Destroy(second);
        MBUF_Destroy(m);
    };
    split({InlineNode(300)}, 100,
          [](MBUF_S *second) { EXPECT_EQ(second->pucData, second->aucHdrInlineData + 172); });
    split({InlineNode(100), InlineNode(800)}, 150, [](MBUF_S *second) {
        EXPECT_EQ(std::tuple(NodeLengths(second), second->pucData, second->pstNext->pucData),
                  std::tuple(Lens{0, 750}, second->aucHdrInlineData + MBUF_PKTHDR_INLINE_LEN,
                             second->pstNext->aucInlineData + 96));
    });
    split({ClusterNode(1000)}, 100, [](MBUF_S *second) {
        EXPECT_EQ(
            std::tuple(second->ulFlag & MBUF_EXT, second->pucData, second->ulExtSize),
            std::tuple(MBUF_EXT, second->pucExtBuf + MBUF_DUPEXT_HEADROOM, MBUF_CLUSTER_SIZE));
    });
}

// Everything from the offset to the end of the source buffer travels; a
// buffer too small for it and 64 bytes of room is sized to fit.
TEST_F(JoinSplitTest, DuplicateExtInfoCopiesToTheEndOfTheSourceBuffer) {
    MBUF_S *src = BuildChain({InlineNode(0), ExactNode(4000, 100, 10)});
    MBUF_S *node = src->pstNext;
    node->ulExtRsv0 = 5;
    uint32_t capacity = 0;
    MBUF_S *dst = MBUF_AllocateMBufNode_fl(0, 0, &capacity, kTestModule, kFile, __LINE__);
    ASSERT_EQ(MBUF_DuplicateExtInfo(dst, node, 30, kTestModule, nullptr), 1u);
    EXPECT_EQ(std::tuple(dst->ulExtSize, dst->ulExtRsv0,
                         std::memcmp(dst->pucData, node->pucData + 30, 3960)),
              std::tuple(3960u + 64u, 5u, 0));
    dst->ulDataLen = 70;
    MBUF_Free(dst, nullptr);

    // Nothing to copy: done, nothing attached. Past the end, or no buffer: failed.
    dst = MBUF_AllocateMBufNode_fl(0, 0, &capacity, kTestModule, kFile, __LINE__);
    EXPECT_EQ(
        (Lens{MBUF_DuplicateExtInfo(dst, node, 3990, kTestModule, nullptr), dst->ulFlag & MBUF_EXT,
              MBUF_DuplicateExtInfo(dst, node, 3991, kTestModule, nullptr),
              MBUF_DuplicateExtInfo(dst, src, 0, kTestModule, nullptr)}),
        (Lens{1, 0, 0, 0}));
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReport(
                             "mbuf_uipc_mbuf", 153, "MBUF_DuplicateExtInfo: MBUF_EXT not set")}));
    MBUF_Free(dst, nullptr);
    MBUF_Destroy(src);
}

// A failed fragment leaves the packet as it was, whichever allocation failed:
// the new head, a plain node or a duplicated buffer, the records.
TEST_F(JoinSplitTest, FragmentFailsCleanlyAtEveryAllocation) {
    MBUF_S *second = nullptr;
    const auto fragment = [&](MBUF_S *m) {
        return (second = MBUF_Fragment(m, 150, kTestModule)) != nullptr;
    };
    const auto fragmented = [&](MBUF_S *m, const Bytes &flat) {
        EXPECT_TRUE(HoldsBytes(m, Slice(flat, 0, 150)));
        EXPECT_TRUE(
            HoldsBytes(second, Slice(flat, 150, static_cast<std::uint32_t>(flat.size()) - 150)));
        MBUF_Destroy(second);
    };
    EXPECT_EQ(SweepPacket({InlineNode(100), InlineNode(800)}, true, fragment, fragmented), 3u);
    EXPECT_EQ(SweepPacket({ClusterNode(1000), InlineNode(10)}, true, fragment, fragmented), 3u);
}

// The packet is tidied, then cut before the node that takes it past the
// limit (control block, nodes and buffers count); the rest becomes a packet
// with the records.
TEST_F(JoinSplitTest, FragmentByMemCntCutsBeforeTheNodeThatPassesTheLimit) {
    MBUF_S *m = BuildChain({ClusterNode(0), InlineNode(0), ClusterNode(100), InlineNode(0)});
    MBUF_S *stray = BuildChain({InlineNode(7)}, 1);
    m->pstNext->pstNext->pstNext->pstNext = stray;
    m->ulTotalDataLen = 107;
    GrowControlBlock(m, 0x31);
    // Control block 1, head 1 (its empty buffer released), 2 + 1: no cut.
    EXPECT_EQ(MBUF_FragmentByMemCnt_fl(m, 5, kTestModule, kFile, __LINE__), nullptr);
    EXPECT_EQ(std::tuple(NodeLengths(m), m->ulFlag & MBUF_EXT, stray->ulFlag & MBUF_PKTHDR),
              std::tuple(Lens{0, 100, 7}, 0u, 0u));
    EXPECT_TRUE(IsValidPacket(m));
    MBUF_S *rest = MBUF_FragmentByMemCnt_fl(m, 3, kTestModule, kFile, __LINE__);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(m->pstNext, nullptr);
    EXPECT_TRUE(HoldsBytes(m, {}));
    EXPECT_TRUE(IsValidPacket(rest));
    EXPECT_TRUE(HoldsBytes(rest, Cat(Payload(100, 0, 0), Payload(7, 1))));
    EXPECT_EQ(RecordMark(rest), 0x31);
    MBUF_Destroy(rest);
    MBUF_Destroy(m);
    EXPECT_EQ(MBUF_FragmentByMemCnt_fl(nullptr, 5, kTestModule, kFile, __LINE__), nullptr);
}

// Without memory for the new head the cut-off nodes are left to the caller.
TEST_F(JoinSplitTest, FragmentByMemCntLeavesTheCutNodesToTheCallerWhenOutOfMemory) {
    MBUF_S *m = BuildChain({InlineNode(50), ClusterNode(100), ClusterNode(200)});
    MBUF_S *cut = m->pstNext;
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_FragmentByMemCnt_fl(m, 2, kTestModule, kFile, __LINE__), nullptr);
    KRM_HOST_FailNthAlloc(0);
    EXPECT_TRUE(HoldsBytes(m, Payload(50)));
    EXPECT_EQ(NodeLengths(cut), (Lens{100, 200}));
    MBUF_Free(cut, nullptr);
    MBUF_Destroy(m);
}

}  // namespace
}  // namespace krm::test
