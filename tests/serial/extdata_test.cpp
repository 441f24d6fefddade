// External data: the block count for a length, the sizes a list is filled
// with, the fault sweep over both allocating operations (a failure leaves
// nothing allocated and the caller's entries cleared), packets built from
// filled lists, and received nodes whose data is moved into a cluster.
#include <algorithm>

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
// cleared; the run without a fault fills the list as the row says. Entries
// start with stale values the walk must overwrite; one past the list stays.
TEST_P(ExtDataAllocTest, ListsAreFilledAndSweptClean) {
    const AllocRow &row = GetParam();
    std::vector<MBUF_EXTDATA_BLOCK_S> blocks(row.blocks + 1);
    MBUF_EXTDATA_LIST_S list{};
    const auto reset = [&] {
        std::fill(blocks.begin(), blocks.end(), MBUF_EXTDATA_BLOCK_S{nullptr, 0xDEAD});
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
                const auto want = i < row.entries.size() ? row.entries[i] : std::pair(0u, 0u);
                EXPECT_EQ(std::pair(blocks[i].ulLen, KRM_DbufLengthGET(blocks[i].pucData)), want)
                    << i;
            }
            EXPECT_EQ(blocks[row.blocks].ulLen, 0xDEADu);
            MBUF_ExtDataBlockFree_fl(&list, "t", 2);
            MBUF_ExtDataBlockFree_fl(&list, "t", 3);  // a second release frees nothing
        },
    });
    EXPECT_EQ(r.allocations, row.entries.size());
    EXPECT_EQ(r.failedRuns, row.entries.size());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ExtDataAllocTest,
    ::testing::Values(AllocRow{"small_remainder", 2, 64000, 0, {{63900, 63900}, {100, 1960}}},
                      AllocRow{"spare_entries", 4, 5000, 0, {{5000, 5000}}},
                      AllocRow{"exact_multiple", 2, 127800, 0, {{63900, 63900}, {63900, 63900}}},
                      AllocRow{"one_byte_more", 2, 127801, MBUF_ERR_TOO_SMALL, {}},
                      AllocRow{"zero_total", 2, 0, MBUF_ERR_BAD_ARG, {}},
                      AllocRow{"zero_blocks", 0, 10, MBUF_ERR_BAD_ARG, {}}),
    [](const auto &row) { return std::string(row.param.name); });

// Missing lists; an entry that claims more data than its block holds would
// let the node reach past the block: the packet is refused and everything
// released.
TEST_F(ExtDataTest, NullArgumentsAndOverlongEntries) {
    EXPECT_EQ(MBUF_ExtDataBlockAlloc(nullptr, kModule), MBUF_ERR_EXTDATA_NULL_LIST);
    MBUF_ExtDataBlockFree_fl(nullptr, "t", 1);
    MBUF_EXTDATA_LIST_S none{2, 100, nullptr};
    MBUF_ExtDataBlockFree_fl(&none, "t", 1);
    EXPECT_EQ(MBUF_CreateByExtDataBlock(nullptr, kModule), nullptr);
    EXPECT_EQ(MBUF_CreateByExtDataBlock(&none, kModule), nullptr);
    MBUF_EXTDATA_BLOCK_S blocks[2]{};
    MBUF_EXTDATA_LIST_S list{2, 4000, blocks};
    ASSERT_EQ(MBUF_ExtDataBlockAlloc(&list, kModule), 0u);
    blocks[0].ulLen = 5000;
    EXPECT_EQ(MBUF_CreateByExtDataBlock(&list, kModule), nullptr);
    EXPECT_EQ(blocks[0].pucData, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
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
    const std::vector<uint32_t> &lens = GetParam().lens;
    std::vector<MBUF_EXTDATA_BLOCK_S> blocks(lens.size());
    const auto later = static_cast<uint32_t>(
        std::count_if(lens.begin() + 1, lens.end(), [](uint32_t l) { return l != 0; }));
    for (uint32_t nth = 1; nth < 64; ++nth) {
        SCOPED_TRACE(nth);
        // Each entry gets a block of its own length; the caller fills it.
        Bytes model;
        std::vector<uint8_t *> given;
        MBUF_EXTDATA_LIST_S list{static_cast<uint32_t>(lens.size()), 0, blocks.data()};
        for (uint32_t i = 0; i < lens.size(); ++i) {
            blocks[i] = MBUF_EXTDATA_BLOCK_S{nullptr, 0};
            list.ulTotalLen += lens[i];
            MBUF_EXTDATA_LIST_S one{1, lens[i], &blocks[i]};
            if (lens[i] != 0) {
                ASSERT_EQ(MBUF_ExtDataBlockAlloc(&one, kModule), 0u);
                const Bytes bytes = Counting(lens[i], static_cast<uint8_t>(i * 40));
                std::memcpy(blocks[i].pucData, bytes.data(), bytes.size());
                model.insert(model.end(), bytes.begin(), bytes.end());
                given.push_back(blocks[i].pucData);
            }
        }
        const uint32_t attempts = KRM_HOST_AllocAttemptCount();
        KRM_HOST_FailNthAlloc(nth);
        MBUF_S *pkt = MBUF_CreateByExtDataBlock(&list, kModule);
        KRM_HOST_FailNthAlloc(0);
        for (const auto &b : blocks) {
            EXPECT_TRUE(b.pucData == nullptr && b.ulLen == 0);
        }
        if (KRM_HOST_AllocAttemptCount() - attempts >= nth) {
            EXPECT_EQ(pkt, nullptr);
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
            continue;
        }
        ASSERT_NE(pkt, nullptr);
        ExpectValid(pkt);
        EXPECT_EQ(krm::test::PacketBytes(pkt), model);
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
        MBUF_Destroy(pkt);
        // One head, and a node for every later entry with a block.
        EXPECT_EQ(nth, later + 2);
        return;
    }
    ADD_FAILURE() << "the creation never succeeded";
}

INSTANTIATE_TEST_SUITE_P(Rows, ExtDataCreateTest,
                         ::testing::Values(CreateRow{"three_blocks", {63900, 63900, 2200}},
                                           CreateRow{"empty_first", {0, 500, 700}},
                                           CreateRow{"empty_middle", {300, 0, 900}}),
                         [](const auto &row) { return std::string(row.param.name); });

// A received node: nodeMem bytes of pipe memory, its data written at the
// recorded offset (running on over the link words, as in transit; a node
// claiming more than its memory holds gets only what fits).
struct MoveRow {
    const char *name;
    bool header;
    std::uint32_t nodeMem;
    std::uint32_t distance;  // data start behind the inline area's start
    std::uint32_t len;
    bool moved;
};

MBUF_S *ReceivedNode(const MoveRow &row, std::uint32_t ulOwner) {
    auto *node = static_cast<MBUF_S *>(MBUF_MemAlloc_fl(row.nodeMem, ulOwner, nullptr));
    const MBUF_STRUCT_INIT_S init{row.header ? MBUF_PKTHDR : 0u, MBUF_TYPE_DATA};
    (void)MBUF_StructInit(node, MBUF_NODE_SIZE, &init);
    node->ulRsv2 = (row.header ? 500u : 24u) + row.distance;
    node->ulDataLen = row.len;
    if (row.header) {
        node->ulTotalDataLen = row.len;
    }
    node->pstNext = reinterpret_cast<MBUF_S *>(0x1234);  // a sender's address
    const Bytes data = Counting(row.len, 0x21);
    std::memcpy(reinterpret_cast<std::uint8_t *>(node) + node->ulRsv2, data.data(),
                std::min(row.len, row.nodeMem - node->ulRsv2));
    return node;
}

class RecvExtBufTest : public SerialTest, public ::testing::WithParamInterface<MoveRow> {};

// The moved data lands at its distance in a cluster owned by the owner of
// the memory the node came in; a refusal changes nothing.
TEST_P(RecvExtBufTest, DataMovesToAClusterAtItsDistance) {
    const MoveRow &row = GetParam();
    MBUF_S *node = ReceivedNode(row, kModule + 1);
    const auto *raw = reinterpret_cast<std::uint8_t *>(node);
    const Bytes before(raw, raw + MBUF_NODE_SIZE);
    const std::uint32_t ulLive = KRM_HOST_LiveBufferCount();
    const std::uint32_t ulRet = MBUF_AllocExtBuf_fl(node, kModule, "rx", 9);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), ulLive + (row.moved ? 1 : 0));
    if (!row.moved) {
        EXPECT_EQ(ulRet, 0xFFFFFFFFu);
        EXPECT_EQ(Bytes(raw, raw + MBUF_NODE_SIZE), before);
        (void)MBUF_MemFree_fl(node, nullptr);
        return;
    }
    ASSERT_EQ(ulRet, 0u);
    EXPECT_EQ(std::tuple((node->ulFlag & MBUF_EXT) != 0,
                         node->pucData == node->pucExtBuf + row.distance, node->ulExtSize,
                         node->ulExtRefCnt, node->pstNext, KRM_DbufLengthGET(node->pucExtBuf)),
              std::tuple(true, true, MBUF_CLUSTER_SIZE, 1u, nullptr, MBUF_CLUSTER_SIZE));
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

// External nodes and failed allocations are refused (the node left as it
// was); the memory handle is the owner of the pipe buffer.
TEST_F(SerialTest, AllocExtBufRefusalsAndMemHandle) {
    MBUF_S *pkt = Keep(MBUF_CreateForControlPacket(0, 1000, 0, kModule + 5));
    ASSERT_NE(pkt, nullptr);
    ASSERT_TRUE(pkt->ulFlag & MBUF_EXT);
    EXPECT_EQ(MBUF_GetMemHandleByMBuf(pkt, 1, 2, 3), kModule + 5);
    MBUF_S stLocal{};
    EXPECT_EQ(MBUF_GetMemHandleByMBuf(&stLocal, 0, 0, 0), 0u);
    const std::uint32_t ulAttempts = KRM_HOST_AllocAttemptCount();
    EXPECT_EQ(MBUF_AllocExtBuf_fl(pkt, kModule, "rx", 1), 0xFFFFFFFFu);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), ulAttempts);
    MBUF_S *node = ReceivedNode({"", false, MBUF_NODE_SIZE, 4, 40, true}, kModule);
    const std::uint32_t ulRsv2 = node->ulRsv2;
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_AllocExtBuf_fl(node, kModule, "rx", 2), 0xFFFFFFFFu);
    KRM_HOST_FailNthAlloc(0);
    EXPECT_FALSE(node->ulFlag & MBUF_EXT);
    EXPECT_EQ(node->ulRsv2, ulRsv2);
    (void)MBUF_MemFree_fl(node, nullptr);
    EXPECT_EQ(MBUF_AllocExtBuf_fl(nullptr, kModule, "rx", 3), 0xFFFFFFFFu);
}

}  // namespace
}  // namespace krm::serialtest
