// External data blocks: the block count for a length, the sizes a list is
// filled with, the fault sweep over both allocating operations (a failure
// leaves nothing allocated and the caller's entries cleared), and packets
// built from filled lists.
#include "fault_sweep.h"
#include "serial_support.h"

namespace krm::serialtest {
namespace {

class ExtDataTest : public SerialTest {};

TEST_F(ExtDataTest, BlockCountForALength) {
    const std::pair<uint32_t, uint32_t> rows[] = {{1, 1},      {63900, 1},  {63901, 2},
                                                  {127800, 2}, {127801, 3}, {0xFFFFFFFFu, 67214}};
    for (const auto &[len, num] : rows) {
        EXPECT_EQ(MBUF_GetExtDataBlockNum(len), num) << len;
    }
    EXPECT_TRUE(Reports().empty());
    EXPECT_EQ(MBUF_GetExtDataBlockNum(0), 1u);
    EXPECT_EQ(Reports(), std::vector{krm::test::AssertReportNoText("krm_mbuf_bas", 2781)});
}

struct AllocRow {
    const char *name;
    uint32_t blocks;
    uint32_t total;
    uint32_t result;
    std::vector<std::pair<uint32_t, uint32_t>> entries;  // data length, block size
};

class ExtDataAllocTest : public ExtDataTest, public ::testing::WithParamInterface<AllocRow> {};

// Each row is swept: every failing allocation gives 1008 with every entry
// cleared; the run without a fault fills the list as the row says.
TEST_P(ExtDataAllocTest, ListsAreFilledAndSweptClean) {
    const AllocRow &row = GetParam();
    std::vector<MBUF_EXTDATA_BLOCK_S> blocks(row.blocks + 1);
    MBUF_EXTDATA_LIST_S list{};
    // Entries start with stale values the walk must overwrite.
    const auto reset = [&] {
        for (auto &b : blocks) {
            b = MBUF_EXTDATA_BLOCK_S{nullptr, 0xDEAD};
        }
        list = MBUF_EXTDATA_LIST_S{row.blocks, row.total, blocks.data()};
    };
    if (row.result != MBUF_OK) {
        reset();
        EXPECT_EQ(MBUF_ExtDataBlockAlloc(&list, kModule), row.result);
        EXPECT_EQ(blocks[0].ulLen, 0xDEADu);
        return;
    }
    const krm::test::SweepResult r = krm::test::FaultSweep({
        reset,
        [&] { return MBUF_ExtDataBlockAlloc(&list, kModule) == MBUF_OK; },
        [&] {
            for (const auto &b : blocks) {
                EXPECT_EQ(b.pucData, nullptr);
            }
        },
        [&] {
            for (uint32_t i = 0; i < row.blocks; ++i) {
                SCOPED_TRACE(i);
                if (i < row.entries.size()) {
                    EXPECT_EQ(blocks[i].ulLen, row.entries[i].first);
                    EXPECT_EQ(KRM_DbufLengthGET(blocks[i].pucData), row.entries[i].second);
                } else {
                    EXPECT_EQ(blocks[i].pucData, nullptr);
                    EXPECT_EQ(blocks[i].ulLen, 0u);
                }
            }
            EXPECT_EQ(blocks[row.blocks].ulLen, 0xDEADu);  // past the list: untouched
            MBUF_ExtDataBlockFree_fl(&list, "t", 2);
            MBUF_ExtDataBlockFree_fl(&list, "t", 3);  // a second release frees nothing
        },
    });
    EXPECT_EQ(r.allocations, row.entries.size());
    EXPECT_EQ(r.failedRuns, row.entries.size());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ExtDataAllocTest,
    ::testing::Values(
        AllocRow{"three_blocks", 3, 130000, 0, {{63900, 63900}, {63900, 63900}, {2200, 2200}}},
        AllocRow{"small_remainder", 2, 64000, 0, {{63900, 63900}, {100, 1960}}},
        AllocRow{"spare_entries", 4, 5000, 0, {{5000, 5000}}},
        AllocRow{"one_byte", 1, 1, 0, {{1, 1960}}},
        AllocRow{"exact_multiple", 2, 127800, 0, {{63900, 63900}, {63900, 63900}}},
        AllocRow{"one_byte_more", 2, 127801, MBUF_ERR_TOO_SMALL, {}},
        AllocRow{"zero_total", 2, 0, MBUF_ERR_BAD_ARG, {}},
        AllocRow{"zero_blocks", 0, 10, MBUF_ERR_BAD_ARG, {}}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(ExtDataTest, NullArguments) {
    EXPECT_EQ(MBUF_ExtDataBlockAlloc(nullptr, kModule), MBUF_ERR_EXTDATA_NULL_LIST);
    MBUF_ExtDataBlockFree_fl(nullptr, "t", 1);
    MBUF_EXTDATA_LIST_S list{2, 100, nullptr};
    MBUF_ExtDataBlockFree_fl(&list, "t", 1);
    EXPECT_EQ(MBUF_CreateByExtDataBlock(nullptr, kModule), nullptr);
    EXPECT_EQ(MBUF_CreateByExtDataBlock(&list, kModule), nullptr);
}

// A filled list becomes a packet whose nodes hold the blocks themselves.
// Entry i goes into node i; an empty entry 0 leaves the head without data.
struct CreateRow {
    const char *name;
    std::vector<uint32_t> lens;  // data per entry, 0: empty entry
};

class ExtDataCreateTest : public ExtDataTest, public ::testing::WithParamInterface<CreateRow> {};

// The fault sweep by hand: a failing creation releases the caller's blocks
// too, which the shared sweep would take for a leak of its input.
TEST_P(ExtDataCreateTest, PacketTakesTheBlocksOver) {
    const CreateRow &row = GetParam();
    std::vector<MBUF_EXTDATA_BLOCK_S> blocks(row.lens.size());
    MBUF_EXTDATA_LIST_S list{};
    Bytes model;
    std::vector<uint8_t *> given;
    const auto fill = [&] {
        model.clear();
        given.clear();
        uint32_t total = 0;
        for (const uint32_t len : row.lens) {
            total += len;
        }
        list = MBUF_EXTDATA_LIST_S{static_cast<uint32_t>(row.lens.size()), total, blocks.data()};
        // Each entry gets a block of its own length; the caller fills it.
        for (uint32_t i = 0; i < row.lens.size(); ++i) {
            blocks[i] = MBUF_EXTDATA_BLOCK_S{nullptr, 0};
            if (row.lens[i] == 0) {
                continue;
            }
            MBUF_EXTDATA_LIST_S one{1, row.lens[i], &blocks[i]};
            ASSERT_EQ(MBUF_ExtDataBlockAlloc(&one, kModule), 0u);
            const Bytes bytes = Counting(row.lens[i], static_cast<uint8_t>(i * 40));
            std::memcpy(blocks[i].pucData, bytes.data(), bytes.size());
            model.insert(model.end(), bytes.begin(), bytes.end());
            given.push_back(blocks[i].pucData);
        }
    };
    for (uint32_t nth = 1; nth < 64; ++nth) {
        SCOPED_TRACE(nth);
        fill();
        const uint32_t attempts = KRM_HOST_AllocAttemptCount();
        KRM_HOST_FailNthAlloc(nth);
        MBUF_S *pkt = MBUF_CreateByExtDataBlock(&list, kModule);
        KRM_HOST_FailNthAlloc(0);
        for (const auto &b : blocks) {
            EXPECT_EQ(b.pucData, nullptr);
            EXPECT_EQ(b.ulLen, 0u);
        }
        if (KRM_HOST_AllocAttemptCount() - attempts >= nth) {
            EXPECT_EQ(pkt, nullptr);
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
            continue;
        }
        ASSERT_NE(pkt, nullptr);
        ExpectValid(pkt);
        EXPECT_EQ(krm::test::PacketBytes(pkt), model);
        EXPECT_EQ(pkt->ulTotalDataLen, model.size());
        // No copy: the nodes hold the very blocks, from their first byte.
        std::vector<uint8_t *> held;
        for (MBUF_S *n = pkt; n != nullptr; n = n->pstNext) {
            if (n->ulDataLen != 0) {
                held.push_back(n->pucData);
                EXPECT_EQ(n->pucData, n->pucExtBuf);
                EXPECT_EQ(n->ulExtSize, KRM_DbufLengthGET(n->pucExtBuf));
            }
        }
        EXPECT_EQ(held, given);
        // The head holds entry 0 (an empty entry 0 leaves it without data),
        // and every later entry with a block gets a node of its own.
        const auto later = static_cast<uint32_t>(
            std::count_if(row.lens.begin() + 1, row.lens.end(), [](uint32_t l) { return l != 0; }));
        EXPECT_EQ(krm::test::NodeCount(pkt), later + 1);
        EXPECT_EQ(pkt->ulDataLen, row.lens[0]);
        MBUF_Destroy(pkt);
        EXPECT_EQ(nth, later + 2);
        return;
    }
    ADD_FAILURE() << "the creation never succeeded";
}

INSTANTIATE_TEST_SUITE_P(Rows, ExtDataCreateTest,
                         ::testing::Values(CreateRow{"one_block", {1000}},
                                           CreateRow{"three_blocks", {63900, 63900, 2200}},
                                           CreateRow{"empty_first", {0, 500, 700}},
                                           CreateRow{"empty_middle", {300, 0, 900}}),
                         [](const auto &row) { return std::string(row.param.name); });

// An entry that claims more data than its block holds would let the node
// reach past the block: the packet is refused and everything released.
TEST_F(ExtDataTest, EntryLongerThanItsBlockIsRefused) {
    MBUF_EXTDATA_BLOCK_S blocks[2]{};
    MBUF_EXTDATA_LIST_S list{2, 4000, blocks};
    ASSERT_EQ(MBUF_ExtDataBlockAlloc(&list, kModule), 0u);
    blocks[0].ulLen = 5000;
    EXPECT_EQ(MBUF_CreateByExtDataBlock(&list, kModule), nullptr);
    EXPECT_EQ(blocks[0].pucData, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
}

}  // namespace
}  // namespace krm::serialtest
