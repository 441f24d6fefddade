// Walks over a packet's data: the pieces every walk yields, put end to end,
// must be the slice of the flat model; and packet lists.
#include <cstring>

#include "chain_test.h"

namespace krm::test {
namespace {

// What a walk handed to its callback: the bytes end to end, and the length
// of each piece. The callback's argument is a number, so the collector is
// reached through statics.
Bytes g_bytes;
Lens g_lengths;
std::uint32_t g_stopAt = 0;  // piece number whose callback returns 7; 0: never

std::uint32_t Collect(std::uint32_t ulArg, std::uint8_t *pucData, std::uint32_t ulLen) {
    EXPECT_EQ(ulArg, 0xA5u);
    g_bytes.insert(g_bytes.end(), pucData, pucData + ulLen);
    g_lengths.push_back(ulLen);
    return g_lengths.size() == g_stopAt ? 7u : 0u;
}

// Runs the checked walk (MBUF_Apply) or the reporting one on a range and
// returns its result.
std::uint32_t Walk(bool checked, MBUF_S *m, std::int32_t off, std::int32_t len) {
    g_bytes.clear();
    g_lengths.clear();
    return checked ? MBUF_Apply(m, off, len, Collect, 0xA5)
                   : MBUF_ApplyFuncToSpecifiedData(m, off, len, Collect, 0xA5);
}

class TraversalShapeTest : public ShapeTest {};

// Both walks hand over exactly the range; the reporting one refuses an
// offset at the very end. The block count and both list layouts hold the
// range's non-empty pieces, ulRsv left alone; one entry short, the entries
// that fit are filled and nothing is written past them.
TEST_P(TraversalShapeTest, EveryWalkYieldsTheRange) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    for (const auto &[from, to] : Ranges(Rows())) {
        SCOPED_TRACE(testing::Message() << from << ".." << to);
        const Bytes want = Slice(flat, from, to - from);
        for (bool checked : {true, false}) {
            const uint32_t rc =
                Walk(checked, m, static_cast<int32_t>(from), static_cast<int32_t>(to - from));
            EXPECT_EQ(rc, !checked && from == Total() ? MBUF_ERR_CHAIN_END : MBUF_OK) << checked;
            EXPECT_EQ(g_bytes, want) << checked;
            EXPECT_TRUE(to != from || g_lengths.empty()) << checked;
        }
        if (to == from) {
            continue;
        }
        std::uint32_t num = 0;
        ASSERT_EQ(MBUF_GetDataBlockNum(m, from, to - from, &num), MBUF_OK);
        std::vector<MBUF_BLOCK_INFO_S> info(num);
        std::vector<MBUF_KEYCHAIN_BLOCK_S> keys(num, {nullptr, 0, 0xDEADBEEF});
        MBUF_BLOCK_LIST_S infoList{num, 0, info.data()};
        MBUF_BLOCK_LIST_S keyList{num, 0, keys.data()};
        ASSERT_EQ(MBUF_GetDataBlockInfo(m, from, to - from, &infoList), MBUF_OK);
        ASSERT_EQ(MBUF_GetDataBlockForKeyChain(m, from, to - from, &keyList), MBUF_OK);
        Bytes a, b;
        for (std::uint32_t i = 0; i < num; ++i) {
            EXPECT_NE(info[i].ulLen, 0u);
            a.insert(a.end(), info[i].pucData, info[i].pucData + info[i].ulLen);
            b.insert(b.end(), keys[i].pucData, keys[i].pucData + keys[i].ulLen);
            EXPECT_EQ(keys[i].ulRsv, 0xDEADBEEFu);
        }
        EXPECT_EQ(a, want);
        EXPECT_EQ(b, want);
        if (num > 1) {
            MBUF_BLOCK_LIST_S shortList{num - 1, 0, info.data()};
            std::memset(info.data(), 0, info.size() * sizeof(info[0]));
            EXPECT_EQ(MBUF_GetDataBlockInfo(m, from, to - from, &shortList), MBUF_ERR_TOO_SMALL);
            EXPECT_EQ(info[num - 2].ulLen, keys[num - 2].ulLen);
            EXPECT_EQ(info[num - 1].pucData, nullptr);
        }
    }
    MBUF_Destroy(m);
    KRM_HOST_ReportClear();
}

// Every data byte is found at the located node and offset. Offset 0 is the
// head, even an empty one; ending exactly at a node's end gives the next
// node at 0, which may be empty. Block iteration yields every node in order,
// then a cleared record.
TEST_P(TraversalShapeTest, LocateAndBlockIterationFindEveryByte) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    for (std::uint32_t at = 0; at <= Total(); ++at) {
        std::uint32_t off = at;
        MBUF_S *node = MBUF_LocateOffsetNode(m, &off);
        EXPECT_TRUE(at != 0 || node == m);
        while (node != nullptr && off == 0 && node->ulDataLen == 0) {
            node = node->pstNext;
        }
        if (at == Total()) {
            EXPECT_EQ(off, 0u);
            EXPECT_EQ(node, nullptr);  // only empty nodes behind the last byte
            break;
        }
        ASSERT_TRUE(node != nullptr && off < node->ulDataLen) << "offset " << at;
        EXPECT_EQ(node->pucData[off], flat[at]) << at;
    }
    MBUF_DATA_BLOCK_S block{};
    ASSERT_EQ(MBUF_GetFirstDataBlock(m, &block), MBUF_OK);
    Lens lengths;
    Bytes joined;
    while (block.pucData != nullptr) {
        joined.insert(joined.end(), block.pucData, block.pucData + block.ulDataLen);
        lengths.push_back(block.ulDataLen);
        ASSERT_EQ(MBUF_GetNextDataBlock(&block), MBUF_OK);
    }
    EXPECT_EQ(lengths, NodeLengths(m));
    EXPECT_EQ(joined, flat);
    MBUF_Destroy(m);
}

INSTANTIATE_TEST_SUITE_P(Shapes, TraversalShapeTest, ::testing::ValuesIn(StandardShapes()),
                         ShapeName);

class TraversalTest : public ChainTest {};

// Where each walk starts and stops, what it returns and what the reporting
// walk reports.
TEST_F(TraversalTest, ApplyStartsStopsAndReportsAsEachWalkDoes) {
    struct Case {
        bool checked;
        std::int32_t off, len;
        std::uint32_t stopAt, rc;
        Lens pieces;
    };
    const Case cases[] = {
        // An empty node inside the range is an empty piece.
        {true, 5, 10, 0, MBUF_OK, {5, 0, 5}},
        {false, 5, 10, 0, MBUF_OK, {5, 0, 5}},
        // An offset at a node's end: the checked walk starts at the next
        // node, even an empty one; the reporting walk passes empty ones over.
        {true, 10, 3, 0, MBUF_OK, {0, 3}},
        {false, 10, 3, 0, MBUF_OK, {3}},
        // The first non-zero result of the function ends the walk.
        {true, 5, 20, 2, 7, {5, 0}},
        {false, 5, 20, 2, 7, {5, 0}},
        // Beyond the end the checked walk does what there is to do.
        {true, 21, 1, 0, MBUF_OK, {}},
        {true, 0, 21, 0, MBUF_OK, {10, 0, 10}},
        {true, -1, 1, 0, MBUF_ERR_BAD_ARG, {}},
        {false, 20, 1, 0, MBUF_ERR_CHAIN_END, {}},
        {false, 15, 6, 0, MBUF_ERR_LENGTH, {5}},
        {false, -1, 6, 0, MBUF_ERR_CHAIN_END, {}},
        {false, 3, -6, 0, MBUF_OK, {}},
    };
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(0), InlineNode(10)});
    for (const Case &c : cases) {
        g_stopAt = c.stopAt;
        EXPECT_EQ(Walk(c.checked, m, c.off, c.len), c.rc) << c.checked << " " << c.off;
        EXPECT_EQ(g_lengths, c.pieces) << c.checked << " " << c.off << "+" << c.len;
    }
    const std::string beyond = "MBUF ApplyFunc to data, offset > size of mbuf chain";
    EXPECT_EQ(Reports(),
              (std::vector<Report>{
                  AssertReport("mbuf_uipc_mbuf", 589, beyond),
                  AssertReport("mbuf_uipc_mbuf", 598, beyond),
                  AssertReport("mbuf_uipc_mbuf", 585, "MBUF ApplyFunc to data, negative iOff -1"),
                  AssertReport("mbuf_uipc_mbuf", 589, beyond),
                  AssertReport("mbuf_uipc_mbuf", 586, "MBUF ApplyFunc to data, negative len -6"),
              }));
    g_stopAt = 0;
    EXPECT_EQ(MBUF_Apply(m, 0, 1, nullptr, 0xA5), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_ApplyFuncToSpecifiedData(m, 0, 1, nullptr, 0xA5), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_Apply(nullptr, 0, 1, Collect, 0xA5), MBUF_ERR_INVALID_MBUF);
    m->ulFlag &= ~MBUF_PKTHDR;
    EXPECT_EQ(MBUF_Apply(m, 0, 1, Collect, 0xA5), MBUF_ERR_INVALID_MBUF);
    m->ulFlag |= MBUF_PKTHDR;
    MBUF_Destroy(m);
}

// NULLs, a dead node, ranges beyond the packet and a total longer than the
// chain are refused with their codes.
TEST_F(TraversalTest, LocateAndBlockFunctionsRefuseWhatTheyCannotWalk) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10)});
    std::uint32_t off = 3, beyond = 21;
    EXPECT_EQ((std::vector<MBUF_S *>{MBUF_LocateOffsetNode(nullptr, &off),
                                     MBUF_LocateOffsetNode(m, nullptr),
                                     MBUF_LocateOffsetNode(m, &beyond)}),
              std::vector<MBUF_S *>(3, nullptr));

    MBUF_DATA_BLOCK_S block{};
    ASSERT_EQ(MBUF_GetFirstDataBlock(m, &block), MBUF_OK);
    m->pstNext->ucMagic = MBUF_MAGIC_DEAD;
    EXPECT_EQ(MBUF_GetNextDataBlock(&block), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(block.pucData, nullptr);
    m->pstNext->ucMagic = MBUF_MAGIC_LIVE;
    EXPECT_EQ((Lens{MBUF_GetFirstDataBlock(nullptr, &block), MBUF_GetFirstDataBlock(m, nullptr),
                    MBUF_GetNextDataBlock(nullptr)}),
              (Lens{MBUF_ERR_INVALID_MBUF, MBUF_ERR_BAD_ARG, MBUF_ERR_BAD_ARG}));

    MBUF_BLOCK_INFO_S info[4] = {};
    MBUF_BLOCK_LIST_S list{4, 0, info};
    std::uint32_t num = 0;
    const auto bad = MBUF_ERR_BAD_ARG, invalid = MBUF_ERR_INVALID_MBUF;
    EXPECT_EQ((Lens{MBUF_GetDataBlockNum(m, 0, 0, &num), MBUF_GetDataBlockNum(m, 15, 6, &num),
                    MBUF_GetDataBlockNum(nullptr, 0, 1, &num),
                    MBUF_GetDataBlockNum(m, 0, 1, nullptr), MBUF_GetDataBlockInfo(m, 0, 0, &list),
                    MBUF_GetDataBlockInfo(m, 15, 6, &list), MBUF_GetDataBlockInfo(m, 0, 1, nullptr),
                    MBUF_GetDataBlockForKeyChain(nullptr, 0, 1, &list)}),
              (Lens{invalid, invalid, invalid, bad, bad, bad, bad, invalid}));
    m->ulTotalDataLen = 40;
    EXPECT_EQ(MBUF_GetDataBlockInfo(m, 25, 5, &list), MBUF_ERR_NOT_FOUND);
    EXPECT_EQ(MBUF_GetDataBlockNum(m, 25, 5, &num), MBUF_ERR_INVALID_MBUF);
    m->ulTotalDataLen = 20;
    MBUF_Destroy(m);
}

// A list holds at most its bound of packets in order; appending clears a
// stale link; the tail is left behind by the last removal and set again by
// the next append; a list with packets but no tail is reported.
TEST_F(TraversalTest, PacketListsAreBoundedQueues) {
    MBUF_SLIST_S list{};
    EXPECT_EQ(MBUF_SlistCreate(nullptr, 2), 1u);
    ASSERT_EQ(MBUF_SlistCreate(&list, 2), 0u);
    MBUF_S *a = BuildChain({InlineNode(1)});
    MBUF_S *b = BuildChain({InlineNode(2)});
    MBUF_S *c = BuildChain({InlineNode(3)});
    b->pstNextPkt = c;
    // Results in call order: appends, then peeks, then removals and the
    // append that sets the tail again.
    EXPECT_EQ(
        (Lens{MBUF_SlistAppend(&list, a), MBUF_SlistAppend(&list, b), MBUF_SlistAppend(&list, c),
              MBUF_SlistAppend(&list, nullptr), MBUF_SlistAppend(nullptr, c), list.ulCount}),
        (Lens{0, 0, 1, 1, 1, 2}));
    EXPECT_EQ(
        (std::vector<MBUF_S *>{
            MBUF_SlistPeekFirst(&list), MBUF_SlistPeekNext(&list, a), MBUF_SlistPeekNext(&list, b),
            MBUF_SlistPeekNext(nullptr, a), MBUF_SlistRemoveFirst(&list), a->pstNextPkt,
            MBUF_SlistRemoveFirst(&list), MBUF_SlistRemoveFirst(&list), list.pstTail}),
        (std::vector<MBUF_S *>{a, b, nullptr, nullptr, a, nullptr, b, nullptr, b}));
    EXPECT_EQ(list.ulCount, 0u);
    EXPECT_EQ(MBUF_SlistAppend(&list, c), 0u);
    EXPECT_EQ((std::vector<MBUF_S *>{list.pstTail, MBUF_SlistPeekFirst(&list),
                                     MBUF_SlistPeekFirst(nullptr), MBUF_SlistRemoveFirst(nullptr)}),
              (std::vector<MBUF_S *>{c, c, nullptr, nullptr}));
    list.pstTail = nullptr;
    EXPECT_EQ(MBUF_SlistAppend(&list, a), 1u);
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReportNoText("krm_mbuf", 1562)}));
    MBUF_Destroy(a);
    MBUF_Destroy(b);
    MBUF_Destroy(c);
}

}  // namespace
}  // namespace krm::test
