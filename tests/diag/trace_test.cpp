// Packet-trace conditions: ordering against a stable-sort model, and matching
// against a model that reads words from the flat packet and refuses a word
// that runs across a node boundary. Packets are matched as the receiver sees
// them: a list of piece addresses, before the chain is rebuilt.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "chain_builder.h"
#include "host_test.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test {
namespace {

struct CondRow {
    std::uint32_t offset;
    std::uint32_t mask;
    std::uint32_t value;
    bool operator==(const CondRow &) const = default;
};

MBUF_TRACE_COND_S MakeConds(const std::vector<std::pair<std::uint32_t, CondRow>> &slots) {
    MBUF_TRACE_COND_S cond{};
    for (const auto &[slot, row] : slots) {
        cond.aulOffset[slot] = row.offset;
        cond.aulMask[slot] = row.mask;
        cond.aulValue[slot] = row.value;
    }
    return cond;
}

std::vector<CondRow> Slots(const MBUF_TRACE_COND_S &cond) {
    std::vector<CondRow> out;
    for (std::uint32_t i = 0; i < MBUF_TRACE_COND_NUM; ++i) {
        out.push_back({cond.aulOffset[i], cond.aulMask[i], cond.aulValue[i]});
    }
    return out;
}

// The model of ordering: the non-empty slots, stably sorted by offset, then
// empty slots.
std::vector<CondRow> ModelOrder(const MBUF_TRACE_COND_S &cond) {
    std::vector<CondRow> rows;
    for (const CondRow &row : Slots(cond)) {
        if (row.offset != 0 || row.mask != 0 || row.value != 0) {
            rows.push_back(row);
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const CondRow &a, const CondRow &b) { return a.offset < b.offset; });
    rows.resize(MBUF_TRACE_COND_NUM, CondRow{0, 0, 0});
    return rows;
}

using TraceOrderTest = HostTest;

TEST_F(TraceOrderTest, NonEmptySlotsEndInOffsetOrderAndEqualOffsetsKeepTheirOrder) {
    // Slots 4, 1 and 2 with offsets 40, 12, 12 become 12 (slot 1), 12 (slot 2), 40.
    MBUF_TRACE_COND_S cond = MakeConds({{4, {40, 1, 1}}, {1, {12, 2, 2}}, {2, {12, 3, 3}}});
    EXPECT_EQ(MBUF_TRACE_AdjustCondOrder(&cond), 3u);
    EXPECT_EQ(Slots(cond),
              (std::vector<CondRow>{{12, 2, 2}, {12, 3, 3}, {40, 1, 1}, {0, 0, 0}, {0, 0, 0}}));

    std::mt19937 rng(7);
    for (int round = 0; round < 2000; ++round) {
        MBUF_TRACE_COND_S random{};
        std::uint32_t expectedCount = 0;
        for (std::uint32_t i = 0; i < MBUF_TRACE_COND_NUM; ++i) {
            if (rng() % 3 != 0) {
                // Few distinct offsets, so ties are common; offset 0 with a
                // mask is a real condition on the first word.
                random.aulOffset[i] = (rng() % 4) * 4;
                random.aulMask[i] = rng() % 2 == 0 ? 0xFFFFFFFFu : 0x00FF00FFu;
                random.aulValue[i] = i + 1;
                ++expectedCount;
            }
        }
        const std::vector<CondRow> expected = ModelOrder(random);
        EXPECT_EQ(MBUF_TRACE_AdjustCondOrder(&random), expectedCount);
        ASSERT_EQ(Slots(random), expected) << "round " << round;
    }
    EXPECT_EQ(MBUF_TRACE_AdjustCondOrder(nullptr), 0u);
}

// A packet as it leaves its sender: every node carries its data offset in
// ulRsv2, and the pieces in order are the nodes, each external buffer after
// its node, and a separately held control block last.
struct SentPacket {
    MBUF_S *pkt = nullptr;
    std::vector<void *> pieces;
    MBUF_TRANS_DESC_S desc{};

    explicit SentPacket(MBUF_S *built) : pkt(built) {
        for (MBUF_S *node = pkt; node != nullptr; node = node->pstNext) {
            const bool ext = (node->ulFlag & MBUF_EXT) != 0;
            const std::uint8_t *base =
                ext ? node->pucExtBuf : reinterpret_cast<std::uint8_t *>(node);
            node->ulRsv2 = static_cast<std::uint32_t>(node->pucData - base);
            pieces.push_back(node);
            if (ext) {
                pieces.push_back(node->pucExtBuf);
            }
        }
        if (pkt->pstCtlInfo != &pkt->stCtlInfo.stBlk) {
            pkt->ulFlag |= MBUF_FLAG_CTLINFO_SENT;
            pieces.push_back(pkt->pstCtlInfo);
        }
        desc.ulNum = static_cast<std::uint32_t>(pieces.size());
        desc.pstIovec = reinterpret_cast<MBUF_IOVEC_S *>(pieces.data());
    }
    SentPacket(const SentPacket &) = delete;
    SentPacket &operator=(const SentPacket &) = delete;
    ~SentPacket() {
        pkt->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
        MBUF_Destroy(pkt);
    }
};

std::uint32_t WordAt(const std::vector<std::uint8_t> &flat, std::uint32_t at) {
    return (std::uint32_t{flat[at]} << 24) | (std::uint32_t{flat[at + 1]} << 16) |
           (std::uint32_t{flat[at + 2]} << 8) | flat[at + 3];
}

// The model of matching: every condition's word must lie inside one node of
// the packet and match.
std::uint32_t ModelMatch(const std::vector<NodeRow> &rows, const std::vector<std::uint8_t> &flat,
                         const std::vector<CondRow> &conds) {
    for (const CondRow &c : conds) {
        std::uint32_t start = 0;
        bool inside = false;
        for (const NodeRow &row : rows) {
            if (c.offset >= start && c.offset < start + row.dataLen) {
                inside = std::uint64_t{c.offset} + 4 <= std::uint64_t{start} + row.dataLen;
                break;
            }
            start += row.dataLen;
        }
        if (!inside || (WordAt(flat, c.offset) & c.mask) != c.value) {
            return 1;
        }
    }
    return 0;
}

// A packet of the rows; with a separate block, a record too large for the
// inline area has moved the block out.
MBUF_S *BuildWithBlock(const std::vector<NodeRow> &rows, std::uint32_t seed, bool separateBlock) {
    MBUF_S *pkt = BuildChain(rows, seed);
    if (pkt != nullptr && separateBlock) {
        EXPECT_EQ(MBUF_CreateControlInfo(pkt, 9, 600, kTestModule), 0u);
        EXPECT_NE(pkt->pstCtlInfo, &pkt->stCtlInfo.stBlk);
    }
    return pkt;
}

class TraceMatchTest : public HostTest, public ::testing::WithParamInterface<ChainShape> {};

TEST_P(TraceMatchTest, MatchesTheFlatModelAtEveryInterestingOffset) {
    const ChainShape &shape = GetParam();
    const std::uint32_t total = ShapeLength(shape.nodes);
    const std::vector<std::uint8_t> flat = Payload(total, 3);
    std::mt19937 rng(11);
    for (bool separateBlock : {false, true}) {
        SentPacket sent(BuildWithBlock(shape.nodes, 3, separateBlock));
        ASSERT_NE(sent.pkt, nullptr);
        for (std::uint32_t at : InterestingOffsets(shape.nodes)) {
            for (std::uint32_t trial = 0; trial < 3; ++trial) {
                const bool wholeWord = std::uint64_t{at} + 4 <= total;
                const std::uint32_t mask = trial == 2 ? 0xF0F0F0F0u : 0xFFFFFFFFu;
                std::uint32_t value = wholeWord ? WordAt(flat, at) & mask : 0x01020304u;
                if (trial == 1) {
                    value ^= 0x00000100u;  // one bit off: never a match
                }
                // Two conditions: a fixed one near the start when the first
                // node has a whole word, and the one under test.
                std::vector<CondRow> conds = {{at, mask, value}};
                if (shape.nodes[0].dataLen >= 4 && at != 0) {
                    conds.push_back({0, 0xFFFFFFFFu, WordAt(flat, 0)});
                }
                MBUF_TRACE_COND_S cond{};
                for (std::uint32_t i = 0; i < conds.size(); ++i) {
                    const std::uint32_t slot = (rng() % 2 == 0) ? i : MBUF_TRACE_COND_NUM - 1 - i;
                    cond.aulOffset[slot] = conds[i].offset;
                    cond.aulMask[slot] = conds[i].mask;
                    cond.aulValue[slot] = conds[i].value;
                }
                EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, &sent.desc, &cond),
                          ModelMatch(shape.nodes, flat, conds))
                    << "offset " << at << " trial " << trial
                    << (separateBlock ? " separate block" : "");
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, TraceMatchTest, ::testing::ValuesIn(StandardShapes()),
                         [](const ::testing::TestParamInfo<ChainShape> &p) {
                             return p.param.name;
                         });

using TraceRefusalTest = HostTest;

TEST_F(TraceRefusalTest, AWordAcrossANodeBoundaryNeverMatchesAndOneInsideIsRead) {
    SentPacket sent(BuildChain({InlineNode(12, 6), InlineNode(40)}, 5));
    const std::vector<std::uint8_t> flat = Payload(52, 5);
    MBUF_TRACE_COND_S cond = MakeConds({{0, {8, 0xFFFFFFFFu, WordAt(flat, 8)}}});
    EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, &sent.desc, &cond), 0u);
    cond = MakeConds({{0, {10, 0, 0}}});  // any data at all: still no match
    EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, &sent.desc, &cond), 1u);
    cond = MakeConds({{0, {52, 0, 0}}});  // beyond the packet's end
    EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, &sent.desc, &cond), 1u);
}

TEST_F(TraceRefusalTest, BadArgumentsAndPiecesThatLieAreRefusedWithoutReadingOutside) {
    SentPacket sent(BuildChain({InlineNode(100), ClusterNode(200, 8)}, 9));
    MBUF_TRACE_COND_S any = MakeConds({{0, {4, 0, 0}}});
    EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 0, &sent.desc, &any), 1u);
    EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, nullptr, &any), 1u);
    EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, &sent.desc, nullptr), 1u);

    // Each lie is told about the second node (an external one) or the head;
    // the conditions reach both nodes, so the walk meets every lie.
    struct Lie {
        const char *what;
        std::function<void(SentPacket &)> apply;
    };
    const std::vector<Lie> lies = {
        {"no pieces", [](SentPacket &s) { s.desc.ulNum = 0; }},
        {"first piece missing", [](SentPacket &s) { s.pieces[0] = nullptr; }},
        {"external buffer's piece missing", [](SentPacket &s) { s.desc.ulNum = 2; }},
        {"external buffer's piece null", [](SentPacket &s) { s.pieces[2] = nullptr; }},
        {"data offset past the head's buffer", [](SentPacket &s) { s.pkt->ulRsv2 = 0xFFFFFFF0u; }},
        {"data offset near the cluster's end",
         [](SentPacket &s) { s.pkt->pstNext->ulRsv2 = 1958; }},
        {"node piece the platform does not know",
         [](SentPacket &s) { s.pieces[1] = s.pkt->pucData; }},
        {"cluster piece the platform does not know",
         [](SentPacket &s) { s.pieces[2] = s.pkt->pucData; }},
    };
    const MBUF_TRACE_COND_S deep = MakeConds({{0, {4, 0, 0}}, {1, {150, 0, 0}}});
    for (const Lie &lie : lies) {
        SentPacket fresh(BuildChain({InlineNode(100), ClusterNode(200, 8)}, 9));
        const std::uint32_t savedRsv2 = fresh.pkt->ulRsv2;
        const std::uint32_t savedRsv2Next = fresh.pkt->pstNext->ulRsv2;
        MBUF_TRACE_COND_S cond = deep;
        EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, &fresh.desc, &cond), 0u)
            << "before: " << lie.what;
        lie.apply(fresh);
        cond = deep;
        EXPECT_EQ(MBUF_TRACE_JudgeParaMatch(0, 1, &fresh.desc, &cond), 1u) << lie.what;
        fresh.pkt->ulRsv2 = savedRsv2;
        fresh.pkt->pstNext->ulRsv2 = savedRsv2Next;
    }
}

using TraceServiceTest = HostTest;

TEST_F(TraceServiceTest, PacketsReachTheTracePointAndTheirIdentifierLivesInTheHeadBuffer) {
    MBUF_S *pkt = BuildChain({ClusterNode(300, 4), InlineNode(20)}, 2);
    MBUF_TRACE_AddTraceInfdec(5, pkt, 6, 7, 8, 9);
    MBUF_TRACE_AddTraceInfdec(5, nullptr, 6, 7, 8, 9);
    ASSERT_EQ(KRM_HOST_TraceCallCount(), 1u);
    KRM_HOST_TRACE_CALL_S call{};
    ASSERT_EQ(KRM_HOST_TraceCallGet(0, &call), 0u);
    EXPECT_EQ(std::vector<std::uint32_t>(
                  {call.ulArg1, call.ulNum, call.ulArg2, call.ulArg3, call.ulArg4, call.ulArg5}),
              std::vector<std::uint32_t>({5, 1, 6, 7, 8, 9}));
    EXPECT_EQ(call.pPieces, pkt);

    std::uint32_t id = 0;
    EXPECT_EQ(MBUF_TRACE_SetTraceId(pkt, 0xC0FFEEu), 0u);
    EXPECT_EQ(MBUF_TRACE_GetTraceId(pkt, &id), 0u);
    EXPECT_EQ(id, 0xC0FFEEu);
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(pkt, &info), 0u);
    EXPECT_EQ(info.ulTraceId, 0xC0FFEEu);

    // Not a packet head: refused before the service is asked.
    id = 0;
    EXPECT_EQ(MBUF_TRACE_GetTraceId(pkt->pstNext, &id), 1u);
    EXPECT_EQ(MBUF_TRACE_SetTraceId(pkt->pstNext, 1), 1u);
    EXPECT_EQ(MBUF_TRACE_GetTraceId(nullptr, &id), 1u);
    EXPECT_EQ(MBUF_TRACE_SetTraceId(nullptr, 1), 1u);
    EXPECT_EQ(id, 0u);
    MBUF_Destroy(pkt);
}

}  // namespace
}  // namespace krm::test
