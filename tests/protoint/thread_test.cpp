// Many threads on one context: senders and receivers record on shared
// sessions while others print the logs and enable and delete a session. Each
// thread owns its packets; only the context is shared. Afterwards every
// count adds up: what each session counted equals what the recorders were
// told they recorded.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "protoint_support.h"

namespace krm::protointtest {
namespace {

class ProtoIntThreadTest : public ProtoIntTest {};

constexpr std::uint32_t kStable[] = {1, 2, 3};  // never deleted
constexpr std::uint32_t kChurned = 4;           // enabled and deleted over and over
constexpr int kRounds = 1500;
constexpr int kMinRounds = 200;  // printing and churning go on at least this long

struct Tally {
    std::uint32_t recorded[5] = {};  // by session identifier
    std::uint32_t gaps = 0;
};

// A recorder: kind 0 (send, ring and sequence) or 3 (receive, ring), in
// turn over the stable sessions and the churned one.
void Recorder(MBUF_PROTOINT_CTX_S *ctx, std::vector<MBUF_S *> packets, std::uint32_t kind,
              Tally *tally) {
    for (int i = 0; i < kRounds; ++i) {
        MBUF_S *p = packets[static_cast<std::size_t>(i) % packets.size()];
        // Every fifth packet breaks its sequence.
        SetRecWord(p, kSeqOff, static_cast<std::uint32_t>(i % 5 == 4 ? i + 3 : i + 1));
        std::uint32_t out = 0;
        const std::uint32_t result = MBUF_PROTOINT_RecordPacket(p, kind, &out, ctx);
        if (out != 0) {
            ++tally->recorded[out];
        }
        tally->gaps += result != 0 ? 1 : 0;
    }
}

TEST_F(ProtoIntThreadTest, SharedSessionsCountEveryPacket) {
    // The real tick counter: many threads read it.
    KRM_HOST_Reset();
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
    for (const std::uint32_t id : kStable) {
        ASSERT_EQ(MBUF_PROTOINT_EnableSession(id, ctx), 0u);
    }
    const std::uint32_t kinds[] = {0, 0, 3, 3};
    std::vector<std::vector<MBUF_S *>> packets(std::size(kinds));
    for (std::size_t t = 0; t < std::size(kinds); ++t) {
        for (const std::uint32_t id : {1u, 2u, 3u, kChurned}) {
            packets[t].push_back(Stamped(ctx, id, 64 + id, 0));
        }
    }
    std::vector<Tally> tallies(std::size(kinds));
    std::atomic<bool> done{false};
    std::atomic<std::uint32_t> printed{0};
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < std::size(kinds); ++t) {
        threads.emplace_back(Recorder, ctx, packets[t], kinds[t], &tallies[t]);
    }
    std::thread printer([&] {
        char text[4096];
        for (int round = 0; round < kMinRounds || !done.load(); ++round) {
            for (const std::uint32_t id : {1u, 2u, 3u, kChurned}) {
                printed += MBUF_PROTOINT_PrintLog(text, sizeof(text), id, ctx) >= 0 ? 1u : 0u;
            }
        }
    });
    std::thread churner([&] {
        for (int round = 0; round < kMinRounds || !done.load(); ++round) {
            (void)MBUF_PROTOINT_EnableSession(kChurned, ctx);
            (void)MBUF_PROTOINT_DeleteSession(kChurned, ctx);
        }
    });
    for (std::thread &t : threads) {
        t.join();
    }
    done = true;
    printer.join();
    churner.join();

    EXPECT_GE(printed.load(), 3u * kMinRounds) << "the stable sessions always print";
    EXPECT_TRUE(Reports().empty());
    for (const std::uint32_t id : kStable) {
        std::uint32_t sent = 0, received = 0;
        for (std::size_t t = 0; t < std::size(kinds); ++t) {
            (kinds[t] == 0 ? sent : received) += tallies[t].recorded[id];
        }
        EXPECT_EQ(sent + received, std::size(kinds) * kRounds / 4)
            << "every stable packet recorded";
        const MBUF_PROTOINT_SESS_S &s = *ctx->apstSess[id - 1];
        EXPECT_EQ(s.stSnd.stCnt.ulCount, sent) << id;
        EXPECT_EQ(s.stSnd.stCnt.ulSndSeq, sent) << id << ": every send handed out one number";
        EXPECT_EQ(s.stRcv.astCnt[0].ulCount, received) << id;
        EXPECT_EQ(s.stRcv.astCnt[1].ulCount, 0u) << id;
    }
    EXPECT_EQ(ctx->ulLockMode, 1u);
}

}  // namespace
}  // namespace krm::protointtest
