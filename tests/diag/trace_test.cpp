// Packet-trace conditions: ordering against a stable-sort model, and matching
// against a model that reads words from the flat packet and refuses a word
// that runs across a node boundary. Packets are matched as the receiver sees
// them: a list of piece addresses, before the chain is rebuilt.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <tuple>

#include "chain_builder.h"
#include "host_test.h"
#include "internal/bytes.h"
#include "krm_host/pipe.h"

namespace krm::test {
namespace {

using Cond = std::array<std::uint32_t, 3>;  // offset, mask, value; all 0 is an empty slot
using Conds = std::vector<Cond>;

// The conditions in the given slots (in slots 0.. when none are given).
MBUF_TRACE_COND_S Pack(const Conds &conds, const std::vector<std::uint32_t> &slots = {}) {
    MBUF_TRACE_COND_S c{};
    for (std::uint32_t i = 0; i < conds.size(); ++i) {
        const std::uint32_t s = slots.empty() ? i : slots[i];
        std::tie(c.aulOffset[s], c.aulMask[s], c.aulValue[s]) =
            std::tie(conds[i][0], conds[i][1], conds[i][2]);
    }
    return c;
}

Conds Unpack(const MBUF_TRACE_COND_S &c) {
    Conds out;
    for (std::uint32_t i = 0; i < MBUF_TRACE_COND_NUM; ++i) {
        out.push_back({c.aulOffset[i], c.aulMask[i], c.aulValue[i]});
    }
    return out;
}

using TraceTest = HostTest;

// The model: the non-empty slots, stably sorted by offset, then empty ones.
TEST_F(TraceTest, NonEmptySlotsEndInOffsetOrderAndEqualOffsetsKeepTheirOrder) {
    std::mt19937 rng(7);
    for (int round = 0; round < 2000; ++round) {
        Conds slots(MBUF_TRACE_COND_NUM, Cond{}), model;
        for (std::uint32_t i = 0; i < MBUF_TRACE_COND_NUM; ++i) {
            if (rng() % 3 != 0) {
                // Few distinct offsets, so ties are common; offset 0 with a
                // mask is a real condition on the first word.
                slots[i] = {static_cast<std::uint32_t>(rng() % 4) * 4,
                            rng() % 2 == 0 ? 0xFFFFFFFFu : 0x00FF00FFu, i + 1};
                model.push_back(slots[i]);
            }
        }
        std::stable_sort(model.begin(), model.end(),
                         [](const Cond &a, const Cond &b) { return a[0] < b[0]; });
        const auto count = static_cast<std::uint32_t>(model.size());
        model.resize(MBUF_TRACE_COND_NUM, Cond{});
        MBUF_TRACE_COND_S cond = Pack(slots);
        EXPECT_EQ(MBUF_TRACE_AdjustCondOrder(&cond), count);
        ASSERT_EQ(Unpack(cond), model) << "round " << round;
    }
    EXPECT_EQ(MBUF_TRACE_AdjustCondOrder(nullptr), 0u);
}

// A packet as it leaves its sender: every node carries its data offset in
// ulRsv2, and the pieces in order are the nodes, each external buffer after
// its node, and a separately held control block last. With a separate
// block, a record too large for the inline area has moved it out.
struct SentPacket {
    MBUF_S *pkt = nullptr;
    std::vector<void *> pieces;
    MBUF_TRANS_DESC_S desc{};

    explicit SentPacket(const std::vector<NodeRow> &rows, std::uint32_t seed, bool apart = false)
        : pkt(BuildChain(rows, seed)) {
        if (apart) {
            EXPECT_EQ(MBUF_CreateControlInfo(pkt, 9, 600, kTestModule), 0u);
            EXPECT_NE(pkt->pstCtlInfo, &pkt->stCtlInfo.stBlk);
        }
        for (MBUF_S *node = pkt; node != nullptr; node = node->pstNext) {
            const bool ext = (node->ulFlag & MBUF_EXT) != 0;
            const std::uint8_t *base = ext ? node->pucExtBuf : reinterpret_cast<uint8_t *>(node);
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
        desc = {static_cast<std::uint32_t>(pieces.size()),
                reinterpret_cast<MBUF_IOVEC_S *>(pieces.data())};
    }
    SentPacket(const SentPacket &) = delete;
    SentPacket &operator=(const SentPacket &) = delete;
    ~SentPacket() {
        pkt->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
        MBUF_Destroy(pkt);
    }
    std::uint32_t Judge(const Conds &conds, const std::vector<std::uint32_t> &slots = {}) {
        MBUF_TRACE_COND_S cond = Pack(conds, slots);
        return MBUF_TRACE_JudgeParaMatch(0, 1, &desc, &cond);
    }
};

std::uint32_t WordAt(const std::vector<std::uint8_t> &flat, std::uint32_t at) {
    return LoadBe32(flat.data() + at);
}

// The model of matching: every condition's word must lie inside one node of
// the packet and match.
std::uint32_t ModelMatch(const std::vector<NodeRow> &rows, const std::vector<std::uint8_t> &flat,
                         const Conds &conds) {
    for (const auto &[offset, mask, value] : conds) {
        std::uint64_t start = 0;
        bool inside = false;
        for (const NodeRow &row : rows) {
            if (offset >= start && offset < start + row.dataLen) {
                inside = std::uint64_t{offset} + 4 <= start + row.dataLen;
                break;
            }
            start += row.dataLen;
        }
        if (!inside || (WordAt(flat, offset) & mask) != value) {
            return 1;
        }
    }
    return 0;
}

class TraceMatchTest : public HostTest, public ::testing::WithParamInterface<ChainShape> {};

// At each offset: the word itself, one bit off, and under a partial mask;
// beside it a fixed condition on the first word when the first node holds
// one; the conditions in the first or the last slots.
TEST_P(TraceMatchTest, MatchesTheFlatModelAtEveryInterestingOffset) {
    const std::vector<NodeRow> &nodes = GetParam().nodes;
    const std::uint32_t total = ShapeLength(nodes);
    const std::vector<std::uint8_t> flat = Payload(total, 3);
    std::mt19937 rng(11);
    for (bool apart : {false, true}) {
        SentPacket sent(nodes, 3, apart);
        for (std::uint32_t at : InterestingOffsets(nodes)) {
            for (std::uint32_t trial = 0; trial < 3; ++trial) {
                const std::uint32_t mask = trial == 2 ? 0xF0F0F0F0u : 0xFFFFFFFFu;
                std::uint32_t value = at + 4 <= total ? WordAt(flat, at) & mask : 0x01020304u;
                value ^= trial == 1 ? 0x00000100u : 0;
                Conds conds = {{at, mask, value}};
                if (nodes[0].dataLen >= 4 && at != 0) {
                    conds.push_back({0, 0xFFFFFFFFu, WordAt(flat, 0)});
                }
                const std::uint32_t last = MBUF_TRACE_COND_NUM - 1;
                const std::uint32_t s0 = rng() % 2 == 0 ? 0 : last,
                                    s1 = rng() % 2 == 0 ? 1 : last - 1;
                EXPECT_EQ(sent.Judge(conds, {s0, s1}), ModelMatch(nodes, flat, conds))
                    << "offset " << at << " trial " << trial << (apart ? " block apart" : "");
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, TraceMatchTest, ::testing::ValuesIn(StandardShapes()),
                         [](const auto &p) { return p.param.name; });

TEST_F(TraceTest, BadArgumentsAndPiecesThatLieAreRefusedWithoutReadingOutside) {
    const std::vector<NodeRow> rows = {InlineNode(100), ClusterNode(200, 8)};
    SentPacket sent(rows, 9);
    MBUF_TRACE_COND_S any = Pack({{4, 0, 0}});
    EXPECT_EQ((std::vector<std::uint32_t>{MBUF_TRACE_JudgeParaMatch(0, 0, &sent.desc, &any),
                                          MBUF_TRACE_JudgeParaMatch(0, 1, nullptr, &any),
                                          MBUF_TRACE_JudgeParaMatch(0, 1, &sent.desc, nullptr)}),
              std::vector<std::uint32_t>(3, 1));
    // Each lie is told about the second node (an external one) or the head;
    // the conditions reach both nodes, so the walk meets every lie.
    using S = SentPacket;
    const struct {
        const char *what;
        void (*apply)(SentPacket &);
    } lies[] = {
        {"no pieces", [](S &s) { s.desc.ulNum = 0; }},
        {"external buffer's piece missing", [](S &s) { s.desc.ulNum = 2; }},
        {"data offset past the head's buffer", [](S &s) { s.pkt->ulRsv2 = 0xFFFFFFF0u; }},
        {"data offset near the cluster's end", [](S &s) { s.pkt->pstNext->ulRsv2 = 1958; }},
        {"node piece the platform does not know", [](S &s) { s.pieces[1] = s.pkt->pucData; }},
    };
    for (const auto &lie : lies) {
        SentPacket fresh(rows, 9);
        const std::uint32_t rsv2[2] = {fresh.pkt->ulRsv2, fresh.pkt->pstNext->ulRsv2};
        EXPECT_EQ(fresh.Judge({{4, 0, 0}, {150, 0, 0}}), 0u) << "before: " << lie.what;
        lie.apply(fresh);
        EXPECT_EQ(fresh.Judge({{4, 0, 0}, {150, 0, 0}}), 1u) << lie.what;
        std::tie(fresh.pkt->ulRsv2, fresh.pkt->pstNext->ulRsv2) = std::tie(rsv2[0], rsv2[1]);
    }
}

TEST_F(TraceTest, PacketsReachTheTracePointAndTheirIdentifierLivesInTheHeadBuffer) {
    MBUF_S *pkt = BuildChain({ClusterNode(300, 4), InlineNode(20)}, 2);
    MBUF_TRACE_AddTraceInfdec(5, pkt, 6, 7, 8, 9);
    MBUF_TRACE_AddTraceInfdec(5, nullptr, 6, 7, 8, 9);
    ASSERT_EQ(KRM_HOST_TraceCallCount(), 1u);
    KRM_HOST_TRACE_CALL_S c{};
    ASSERT_EQ(KRM_HOST_TraceCallGet(0, &c), 0u);
    EXPECT_EQ(
        std::vector<std::uint32_t>({c.ulArg1, c.ulNum, c.ulArg2, c.ulArg3, c.ulArg4, c.ulArg5}),
        std::vector<std::uint32_t>({5, 1, 6, 7, 8, 9}));
    EXPECT_EQ(c.pPieces, pkt);
    std::uint32_t id = 0, untouched = 0;
    EXPECT_EQ(MBUF_TRACE_SetTraceId(pkt, 0xC0FFEEu), 0u);
    EXPECT_EQ(MBUF_TRACE_GetTraceId(pkt, &id), 0u);
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(pkt, &info), 0u);
    EXPECT_EQ(std::tuple(id, info.ulTraceId), std::tuple(0xC0FFEEu, 0xC0FFEEu));
    // Not a packet head: refused before the service is asked.
    EXPECT_EQ((std::vector<std::uint32_t>{MBUF_TRACE_GetTraceId(pkt->pstNext, &untouched),
                                          MBUF_TRACE_SetTraceId(pkt->pstNext, 1),
                                          MBUF_TRACE_GetTraceId(nullptr, &untouched),
                                          MBUF_TRACE_SetTraceId(nullptr, 1), untouched}),
              (std::vector<std::uint32_t>{1, 1, 1, 1, 0}));
    MBUF_Destroy(pkt);
}

}  // namespace
}  // namespace krm::test
