// Walks over a packet's data: the pieces every walk yields, put end to end,
// must be the slice of the flat model; and packet lists.
#include <cstring>

#include "chain_test.h"

namespace krm::test {
namespace {

// The pieces a walk handed to its callback. The callback's argument is a
// number, so the collector is reached through a static.
struct Piece {
    const std::uint8_t *data;
    std::uint32_t len;
};
std::vector<Piece> g_pieces;
std::uint32_t g_stopAt = 0;  // piece number whose callback returns 7; 0: never

std::uint32_t Collect(std::uint32_t ulArg, std::uint8_t *pucData, std::uint32_t ulLen) {
    EXPECT_EQ(ulArg, 0xA5u);
    g_pieces.push_back(Piece{pucData, ulLen});
    return g_pieces.size() == g_stopAt ? 7u : 0u;
}

Bytes Joined(const std::vector<Piece> &pieces) {
    Bytes out;
    for (const Piece &p : pieces) {
        out.insert(out.end(), p.data, p.data + p.len);
    }
    return out;
}

class TraversalShapeTest : public ShapeTest {
  protected:
    void SetUp() override {
        ShapeTest::SetUp();
        g_pieces.clear();
        g_stopAt = 0;
    }
};

TEST_P(TraversalShapeTest, ApplyVisitsExactlyTheRange) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (to < from) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << from << ".." << to);
            for (bool checked : {true, false}) {
                g_pieces.clear();
                const uint32_t rc =
                    checked ? MBUF_Apply(m, static_cast<int32_t>(from),
                                         static_cast<int32_t>(to - from), Collect, 0xA5)
                            : MBUF_ApplyFuncToSpecifiedData(m, static_cast<int32_t>(from),
                                                            static_cast<int32_t>(to - from),
                                                            Collect, 0xA5);
                if (!checked && from == flat.size()) {
                    EXPECT_EQ(rc, MBUF_ERR_CHAIN_END);  // an offset past the data
                    continue;
                }
                EXPECT_EQ(rc, MBUF_OK);
                EXPECT_EQ(Joined(g_pieces), Slice(flat, from, to - from));
                if (to == from) {
                    EXPECT_TRUE(g_pieces.empty());
                }
            }
        }
    }
    MBUF_Destroy(m);
    KRM_HOST_ReportClear();
}

TEST_P(TraversalShapeTest, LocateFindsTheNodeOfEveryOffset) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    for (std::uint32_t at = 0; at < flat.size(); ++at) {
        std::uint32_t off = at;
        MBUF_S *node = MBUF_LocateOffsetNode(m, &off);
        if (at == 0 && node == m) {
            EXPECT_EQ(off, 0u);  // offset 0 is the head, even an empty one
            continue;
        }
        // Ending exactly at a node's end gives the next node at 0, which may
        // be empty; the byte is then in the first node with data behind it.
        while (node != nullptr && off == 0 && node->ulDataLen == 0) {
            node = node->pstNext;
        }
        if (node == nullptr || off >= node->ulDataLen) {
            ADD_FAILURE() << "offset " << at << " not located";
            break;
        }
        EXPECT_EQ(node->pucData[off], flat[at]) << at;
    }
    std::uint32_t end = static_cast<std::uint32_t>(flat.size());
    if (end != 0) {
        MBUF_S *node = MBUF_LocateOffsetNode(m, &end);
        EXPECT_EQ(end, 0u);
        // At the very end: the node behind the last data byte, if any.
        for (; node != nullptr; node = node->pstNext) {
            EXPECT_EQ(node->ulDataLen, 0u);
        }
    }
    MBUF_Destroy(m);
}

TEST_P(TraversalShapeTest, DataBlocksIterateEveryNode) {
    MBUF_S *m = Build();
    MBUF_DATA_BLOCK_S block{};
    ASSERT_EQ(MBUF_GetFirstDataBlock(m, &block), MBUF_OK);
    Bytes joined;
    std::uint32_t blocks = 0;
    while (block.pucData != nullptr) {
        joined.insert(joined.end(), block.pucData, block.pucData + block.ulDataLen);
        ++blocks;
        ASSERT_EQ(MBUF_GetNextDataBlock(&block), MBUF_OK);
    }
    EXPECT_EQ(blocks, NodeCount(m));
    EXPECT_EQ(joined, Flatten(m));
    MBUF_Destroy(m);
}

TEST_P(TraversalShapeTest, BlockListsHoldThePiecesOfTheRange) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (to <= from) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << from << ".." << to);
            std::uint32_t num = 0;
            ASSERT_EQ(MBUF_GetDataBlockNum(m, from, to - from, &num), MBUF_OK);
            std::vector<MBUF_BLOCK_INFO_S> info(num + 1);
            std::vector<MBUF_KEYCHAIN_BLOCK_S> keys(num + 1,
                                                    MBUF_KEYCHAIN_BLOCK_S{nullptr, 0, 0xDEADBEEF});
            MBUF_BLOCK_LIST_S infoList{num, 0, info.data()};
            MBUF_BLOCK_LIST_S keyList{num, 0, keys.data()};
            ASSERT_EQ(MBUF_GetDataBlockInfo(m, from, to - from, &infoList), MBUF_OK);
            ASSERT_EQ(MBUF_GetDataBlockForKeyChain(m, from, to - from, &keyList), MBUF_OK);
            std::vector<Piece> a, b;
            for (std::uint32_t i = 0; i < num; ++i) {
                EXPECT_NE(info[i].ulLen, 0u);
                a.push_back(Piece{info[i].pucData, info[i].ulLen});
                b.push_back(Piece{keys[i].pucData, keys[i].ulLen});
                EXPECT_EQ(keys[i].ulRsv, 0xDEADBEEFu);
            }
            EXPECT_EQ(Joined(a), Slice(flat, from, to - from));
            EXPECT_EQ(Joined(b), Joined(a));
            EXPECT_EQ(info[num].pucData, nullptr);  // nothing written past the count
            if (num > 1) {
                // One entry short: the entries that fit are filled.
                MBUF_BLOCK_LIST_S shortList{num - 1, 0, info.data()};
                std::memset(info.data(), 0, info.size() * sizeof(info[0]));
                EXPECT_EQ(MBUF_GetDataBlockInfo(m, from, to - from, &shortList),
                          MBUF_ERR_TOO_SMALL);
                EXPECT_EQ(info[num - 2].ulLen, a[num - 2].len);
                EXPECT_EQ(info[num - 1].pucData, nullptr);
            }
        }
    }
    MBUF_Destroy(m);
}

INSTANTIATE_TEST_SUITE_P(Shapes, TraversalShapeTest, ::testing::ValuesIn(StandardShapes()),
                         ShapeName);

class TraversalTest : public ChainTest {
  protected:
    void SetUp() override {
        ChainTest::SetUp();
        g_pieces.clear();
        g_stopAt = 0;
    }
};

TEST_F(TraversalTest, ApplyStopsAtTheFirstNonZeroResult) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10), InlineNode(10)});
    g_stopAt = 2;
    EXPECT_EQ(MBUF_Apply(m, 5, 20, Collect, 0xA5), 7u);
    EXPECT_EQ(g_pieces.size(), 2u);
    g_pieces.clear();
    EXPECT_EQ(MBUF_ApplyFuncToSpecifiedData(m, 5, 20, Collect, 0xA5), 7u);
    EXPECT_EQ(g_pieces.size(), 2u);
    MBUF_Destroy(m);
}

TEST_F(TraversalTest, ApplyGivesEmptyNodesInsideTheRangeAsEmptyPieces) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(0), InlineNode(10)});
    EXPECT_EQ(MBUF_Apply(m, 5, 10, Collect, 0xA5), MBUF_OK);
    ASSERT_EQ(g_pieces.size(), 3u);
    EXPECT_EQ(g_pieces[1].len, 0u);
    // An offset at a node's end starts at the next node, which may be empty.
    g_pieces.clear();
    EXPECT_EQ(MBUF_Apply(m, 10, 3, Collect, 0xA5), MBUF_OK);
    EXPECT_EQ(g_pieces.size(), 2u);
    MBUF_Destroy(m);
}

TEST_F(TraversalTest, ApplyRefusesWhatIsNotAPacket) {
    MBUF_S *m = BuildChain({InlineNode(10)});
    EXPECT_EQ(MBUF_Apply(nullptr, 0, 1, Collect, 0xA5), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_Apply(m, -1, 1, Collect, 0xA5), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_Apply(m, 0, 1, nullptr, 0xA5), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_Apply(m, 11, 1, Collect, 0xA5), MBUF_OK);  // beyond: nothing to do
    EXPECT_EQ(MBUF_Apply(m, 0, 11, Collect, 0xA5), MBUF_OK);  // what there is
    EXPECT_EQ(Joined(g_pieces), Payload(10));
    m->ulFlag &= ~MBUF_PKTHDR;
    EXPECT_EQ(MBUF_Apply(m, 0, 1, Collect, 0xA5), MBUF_ERR_INVALID_MBUF);
    m->ulFlag |= MBUF_PKTHDR;
    MBUF_Destroy(m);
}

TEST_F(TraversalTest, ApplyFuncReportsRangesBeyondTheChain) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10)});
    EXPECT_EQ(MBUF_ApplyFuncToSpecifiedData(m, 20, 1, Collect, 0xA5), MBUF_ERR_CHAIN_END);
    EXPECT_EQ(MBUF_ApplyFuncToSpecifiedData(m, 15, 6, Collect, 0xA5), MBUF_ERR_LENGTH);
    EXPECT_EQ(MBUF_ApplyFuncToSpecifiedData(m, -1, 6, Collect, 0xA5), MBUF_ERR_CHAIN_END);
    EXPECT_EQ(MBUF_ApplyFuncToSpecifiedData(m, 3, -6, Collect, 0xA5), MBUF_OK);
    EXPECT_EQ(Joined(g_pieces), Payload(5, 0, 15));
    const std::string beyond = "MBUF ApplyFunc to data, offset > size of mbuf chain";
    EXPECT_EQ(Reports(),
              (std::vector<Report>{
                  AssertReport("mbuf_uipc_mbuf", 589, beyond),
                  AssertReport("mbuf_uipc_mbuf", 598, beyond),
                  AssertReport("mbuf_uipc_mbuf", 585, "MBUF ApplyFunc to data, negative iOff -1"),
                  AssertReport("mbuf_uipc_mbuf", 589, beyond),
                  AssertReport("mbuf_uipc_mbuf", 586, "MBUF ApplyFunc to data, negative len -6"),
              }));
    MBUF_Destroy(m);
}

TEST_F(TraversalTest, LocateHandlesNullAndTheEnd) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10)});
    std::uint32_t off = 0;
    EXPECT_EQ(MBUF_LocateOffsetNode(nullptr, &off), nullptr);
    off = 3;
    EXPECT_EQ(MBUF_LocateOffsetNode(nullptr, &off), nullptr);
    EXPECT_EQ(MBUF_LocateOffsetNode(m, nullptr), nullptr);
    off = 10;
    EXPECT_EQ(MBUF_LocateOffsetNode(m, &off), m->pstNext);
    EXPECT_EQ(off, 0u);
    off = 20;
    EXPECT_EQ(MBUF_LocateOffsetNode(m, &off), nullptr);
    EXPECT_EQ(off, 0u);
    off = 21;
    EXPECT_EQ(MBUF_LocateOffsetNode(m, &off), nullptr);
    MBUF_Destroy(m);
}

TEST_F(TraversalTest, BlockIterationStopsAtADeadNode) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10)});
    MBUF_DATA_BLOCK_S block{};
    ASSERT_EQ(MBUF_GetFirstDataBlock(m, &block), MBUF_OK);
    m->pstNext->ucMagic = MBUF_MAGIC_DEAD;
    EXPECT_EQ(MBUF_GetNextDataBlock(&block), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(block.pucData, nullptr);
    m->pstNext->ucMagic = MBUF_MAGIC_LIVE;
    EXPECT_EQ(MBUF_GetFirstDataBlock(nullptr, &block), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_GetFirstDataBlock(m, nullptr), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetNextDataBlock(nullptr), MBUF_ERR_BAD_ARG);
    MBUF_Destroy(m);
}

TEST_F(TraversalTest, BlockFunctionsRefuseBadRanges) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10)});
    MBUF_BLOCK_INFO_S info[4] = {};
    MBUF_BLOCK_LIST_S list{4, 0, info};
    std::uint32_t num = 0;
    EXPECT_EQ(MBUF_GetDataBlockNum(m, 0, 0, &num), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_GetDataBlockNum(m, 15, 6, &num), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_GetDataBlockNum(nullptr, 0, 1, &num), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_GetDataBlockNum(m, 0, 1, nullptr), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetDataBlockInfo(m, 0, 0, &list), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetDataBlockInfo(m, 15, 6, &list), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetDataBlockInfo(m, 0, 1, nullptr), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetDataBlockForKeyChain(nullptr, 0, 1, &list), MBUF_ERR_INVALID_MBUF);
    // A total longer than the chain: the offset's node is not found.
    m->ulTotalDataLen = 40;
    EXPECT_EQ(MBUF_GetDataBlockInfo(m, 25, 5, &list), MBUF_ERR_NOT_FOUND);
    EXPECT_EQ(MBUF_GetDataBlockNum(m, 25, 5, &num), MBUF_ERR_INVALID_MBUF);
    m->ulTotalDataLen = 20;
    EXPECT_EQ(MBUF_GetDataBlockNum(m, 2, 5, &num), MBUF_OK);
    EXPECT_EQ(num, 1u);
    MBUF_Destroy(m);
}

TEST_F(TraversalTest, PacketListsAreBoundedQueues) {
    MBUF_SLIST_S list{};
    EXPECT_EQ(MBUF_SlistCreate(nullptr, 2), 1u);
    ASSERT_EQ(MBUF_SlistCreate(&list, 2), 0u);
    MBUF_S *a = BuildChain({InlineNode(1)});
    MBUF_S *b = BuildChain({InlineNode(2)});
    MBUF_S *c = BuildChain({InlineNode(3)});
    a->pstNextPkt = c;  // stale links are cleared on append
    EXPECT_EQ(MBUF_SlistAppend(&list, a), 0u);
    EXPECT_EQ(MBUF_SlistAppend(&list, b), 0u);
    EXPECT_EQ(MBUF_SlistAppend(&list, c), 1u);  // full
    EXPECT_EQ(MBUF_SlistAppend(&list, nullptr), 1u);
    EXPECT_EQ(MBUF_SlistAppend(nullptr, c), 1u);
    EXPECT_EQ(list.ulCount, 2u);
    EXPECT_EQ(MBUF_SlistPeekFirst(&list), a);
    EXPECT_EQ(MBUF_SlistPeekNext(&list, a), b);
    EXPECT_EQ(MBUF_SlistPeekNext(&list, b), nullptr);
    EXPECT_EQ(MBUF_SlistPeekNext(nullptr, a), nullptr);
    EXPECT_EQ(MBUF_SlistRemoveFirst(&list), a);
    EXPECT_EQ(a->pstNextPkt, nullptr);
    EXPECT_EQ(MBUF_SlistRemoveFirst(&list), b);
    EXPECT_EQ(MBUF_SlistRemoveFirst(&list), nullptr);
    EXPECT_EQ(list.ulCount, 0u);
    // The tail is left behind by the last removal; the next append resets it.
    EXPECT_EQ(list.pstTail, b);
    EXPECT_EQ(MBUF_SlistAppend(&list, c), 0u);
    EXPECT_EQ(list.pstTail, c);
    EXPECT_EQ(MBUF_SlistPeekFirst(&list), c);
    EXPECT_EQ(MBUF_SlistPeekFirst(nullptr), nullptr);
    EXPECT_EQ(MBUF_SlistRemoveFirst(nullptr), nullptr);
    // A list with packets but no tail is reported and refused.
    list.pstTail = nullptr;
    EXPECT_EQ(MBUF_SlistAppend(&list, a), 1u);
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReportNoText("krm_mbuf", 1562)}));
    MBUF_Destroy(a);
    MBUF_Destroy(b);
    MBUF_Destroy(c);
}

}  // namespace
}  // namespace krm::test
