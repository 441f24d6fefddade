// Stamping and recording: the kind table, the identity a packet must carry,
// ring wrap, gap rules, colours and the suppression window, each checked
// against the model of the log.
#include <gtest/gtest.h>

#include <string>

#include "protoint_support.h"

namespace krm::protointtest {
namespace {

class RecordTest : public ProtoIntTest, public ::testing::WithParamInterface<std::uint32_t> {};

TEST(ProtoIntCalcType, DecodesEveryKindAndLeavesOthersAlone) {
    // kind -> ring, sequence, direction as one number; 987 is "left alone".
    constexpr std::uint32_t kDecoded[] = {111, 211, 101, 201, 110, 210, 987, 987, 987};
    for (std::uint32_t kind = 0; kind < 9; ++kind) {
        std::uint32_t ring = 7, seq = 8, dir = 9;
        MBUF_PROTOINT_CalcType(kind == 8 ? 0xFFFFFFFFu : kind, &ring, &seq, &dir);
        EXPECT_EQ(ring + seq * 10 + dir * 100, kDecoded[kind]) << kind;
    }
}

// The identity lands in the record's head: flag bit 0x20, the identifier in
// the first control word; the sequence word is not touched. The record is
// stamped with the context's lock-mode word as component.
TEST_P(RecordTest, CreateIdInfoStampsTheRecordHead) {
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(GetParam());
    MBUF_S *p = Packet(40);
    ASSERT_EQ(MBUF_PROTOINT_CreateIdInfo(p, 77, 1, 2, ctx), 0u);
    const auto *rec =
        static_cast<const std::uint8_t *>(MBUF_GetControlInfo(p, MBUF_CTL_STACKDEBUG));
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec[kFlagOff], 0x20u);
    EXPECT_EQ(RecWord(p, kSessOff), 77u);
    EXPECT_EQ(RecWord(p, kSeqOff), 0u);
    uint32_t comp = 0;
    KRM_SYSTIME_S first{};
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(p, &comp, &first), 0);
    EXPECT_EQ(comp, GetParam());

    EXPECT_EQ(MBUF_PROTOINT_CreateIdInfo(nullptr, 1, 0, 0, ctx), 1u);
    EXPECT_EQ(MBUF_PROTOINT_CreateIdInfo(p, 1, 0, 0, nullptr), 1u);
    MBUF_S *plain = Packet(40);
    plain->ulFlag &= ~MBUF_PKTHDR;
    EXPECT_EQ(MBUF_PROTOINT_CreateIdInfo(plain, 1, 0, 0, ctx), 5u);
    plain->ulFlag |= MBUF_PKTHDR;
}

// A record too short to hold the identity is no record for the log: the
// stamp is refused and such a packet is never recorded.
TEST_F(ProtoIntTest, ShortStackDebugRecordCarriesNoIdentity) {
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
    ASSERT_EQ(MBUF_PROTOINT_EnableSession(3, ctx), 0u);
    MBUF_S *p = Packet(40);
    ASSERT_EQ(MBUF_CreateControlInfo_fl(p, MBUF_CTL_STACKDEBUG, 16, kMid, __FILE__, __LINE__), 0u);
    EXPECT_EQ(MBUF_PROTOINT_CreateIdInfo(p, 3, 0, 0, ctx), 5u);
    std::uint32_t out = 9;
    EXPECT_EQ(MBUF_PROTOINT_RecordPacket(p, 0, &out, ctx), 0u);
    EXPECT_EQ(out, 0u);
}

// Whatever is missing, nothing is recorded and the identifier output is 0.
TEST_P(RecordTest, PacketsThatDoNotQualifyAreNotRecorded) {
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(GetParam());
    ASSERT_EQ(MBUF_PROTOINT_EnableSession(4096, ctx), 0u);
    MBUF_S *good = Stamped(ctx, 4096, 10, 1);
    MBUF_S *unflagged = Stamped(ctx, 4096, 10, 1);
    SetRecWord(unflagged, kFlagOff, 0);
    MBUF_S *unstamped = Packet(10);
    MBUF_S *disabled = Stamped(ctx, 12, 10, 1);
    MBUF_S *id0 = Stamped(ctx, 0, 10, 1);
    MBUF_S *id4097 = Stamped(ctx, 4097, 10, 1);
    struct Row {
        const char *name;
        MBUF_S *p;
        std::uint32_t kind;
        MBUF_PROTOINT_CTX_S *ctx;
    };
    const Row rows[] = {{"null packet", nullptr, 0, ctx},   {"kind 6", good, 6, ctx},
                        {"null context", good, 0, nullptr}, {"no flag 0x20", unflagged, 0, ctx},
                        {"no record", unstamped, 1, ctx},   {"disabled", disabled, 1, ctx},
                        {"identifier 0", id0, 1, ctx},      {"identifier 4097", id4097, 0, ctx}};
    for (const Row &row : rows) {
        std::uint32_t out = 55;
        EXPECT_EQ(MBUF_PROTOINT_RecordPacket(row.p, row.kind, &out, row.ctx), 0u) << row.name;
        EXPECT_EQ(out, 0u) << row.name;
        EXPECT_EQ(MBUF_PROTOINT_RecordPacket(row.p, row.kind, nullptr, row.ctx), 0u) << row.name;
    }
    const auto *snd = static_cast<const MBUF_PROTOINT_SND_S *>(MBUF_PROTOINT_GetSess(4096, 1, ctx));
    ASSERT_NE(snd, nullptr);
    EXPECT_EQ(snd->stCnt.ulCount, 0u);
    EXPECT_EQ(RecWord(good, kSeqOff), 1u) << "nothing handed out";
}

// A long random history over three sessions, every kind, colours, lengths
// beyond 15 bits and sequences with and without gaps; after each packet the
// result, the identifier output, the packet's sequence word and both halves
// of every session equal the model's. The gap rules live in the model: a
// sequence that does not follow a non-zero last one, judged per triple
// (green and other received packets apart); only received packets are green.
TEST_P(RecordTest, RandomHistoryMatchesTheModel) {
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(GetParam());
    LogModel model;
    const std::uint32_t ids[] = {1, 2, 4096};
    for (const std::uint32_t id : ids) {
        ASSERT_EQ(MBUF_PROTOINT_EnableSession(id, ctx), 0u);
        model.Enable(id);
    }
    std::uint32_t state = 12345;
    const auto next = [&state](std::uint32_t mod) {
        state = state * 1103515245u + 12345u;
        return (state >> 8) % mod;
    };
    const std::uint32_t lengths[] = {0, 1, 60, 1500, 0x7FFF, 0x8000, 0x8123};
    std::uint32_t seqs[3] = {0, 0, 0};
    for (int step = 0; step < 600; ++step) {
        const std::uint32_t which = next(3);
        const std::uint32_t id = ids[which];
        const std::uint32_t kind = next(7);
        const std::uint32_t len = lengths[next(7)];
        seqs[which] += next(10) == 0 ? 2 + next(3) : 1;
        const bool green = next(3) == 0;
        Advance(next(4) == 0 ? 40000 : 10 + next(500));
        MBUF_S *p = Stamped(ctx, id, len, seqs[which], green);
        ASSERT_NE(p, nullptr);
        const Outcome want = model.Record(id, kind, len, seqs[which], green, Now());
        std::uint32_t out = 99;
        const std::string where = "step " + std::to_string(step) + " kind " + std::to_string(kind);
        EXPECT_EQ(MBUF_PROTOINT_RecordPacket(p, kind, &out, ctx), want.result) << where;
        EXPECT_EQ(out, want.sessOut) << where;
        EXPECT_EQ(RecWord(p, kSeqOff), want.seqAfter) << where;
        const auto *sess = reinterpret_cast<const MBUF_PROTOINT_SESS_S *>(
            static_cast<const char *>(MBUF_PROTOINT_GetSess(id, 1, ctx)) -
            offsetof(MBUF_PROTOINT_SESS_S, stSnd));
        EXPECT_EQ(Bytes(*sess), Bytes(*model.Find(id))) << where;
        if (::testing::Test::HasFailure()) {
            return;
        }
    }
}

// The window: a gap is let through when the last report is at least 75000
// ticks old, to the tick.
TEST_P(RecordTest, SuppressionWindowIsSeventyFiveSeconds) {
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(GetParam());
    EXPECT_EQ(ctx->ullSuppressTicks, kWindow);
    struct Step {
        std::uint64_t advance;
        std::uint32_t result;
    };
    const Step steps[] = {{0, 1}, {1, 2}, {kWindow - 2, 2}, {1, 1}, {kWindow, 1}, {kWindow - 1, 2}};
    for (const Step &s : steps) {
        Advance(s.advance);
        EXPECT_EQ(MBUF_PROTOINT_RecordSuppress(nullptr, ctx), s.result) << Now() - kStartTick;
    }
    EXPECT_EQ(MBUF_PROTOINT_RecordSuppress(nullptr, nullptr), 0u);
}

// A counter younger than the window: the first report still passes, and
// later ones are held until the window has passed.
TEST_F(ProtoIntTest, SuppressionJustAfterTheCounterStarts) {
    KRM_HOST_SetTick(5);
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
    EXPECT_EQ(MBUF_PROTOINT_RecordSuppress(nullptr, ctx), 1u);
    KRM_HOST_SetTick(1000);
    EXPECT_EQ(MBUF_PROTOINT_RecordSuppress(nullptr, ctx), 2u);
    KRM_HOST_SetTick(5 + kWindow);
    EXPECT_EQ(MBUF_PROTOINT_RecordSuppress(nullptr, ctx), 1u);
}

INSTANTIATE_TEST_SUITE_P(LockModes, RecordTest, ::testing::Values(0u, 1u, 2u, 7u));

}  // namespace
}  // namespace krm::protointtest
