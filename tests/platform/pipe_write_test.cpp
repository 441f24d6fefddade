// Writes and reads of an in-process pipe: what a reader receives for what a
// writer gave, whose buffers are released, the order of the queue, package
// reads, credits, and writes that must be refused without touching anything.

#include "platform_util.h"

namespace krm::test::platform {
namespace {

class PipeWriteTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 4), 0u);
    }
};

using WriteFn = std::uint32_t (*)(std::uint32_t, std::uint32_t, MBUF_IOVEC_S *);

std::uint32_t WriteIntra(std::uint32_t pipe, std::uint32_t n, MBUF_IOVEC_S *iov) {
    MBUF_TRANS_DESC_S desc{n, iov};
    return KRM_PipeWriteIovecIntra(pipe, 1, &desc);
}

struct KindRow {
    WriteFn write;
    const char *name;
    bool takesOver;
};

constexpr KindRow kKinds[] = {
    {KRM_PipeIovecWrite, "normal", true},
    {KRM_PipeIovecPrioWrite, "priority", true},
    {TQM_PipeUrgentIovecWrite, "urgent", true},
    {TQM_PipeIovecNoFreeWrite, "no-free", false},
    {WriteIntra, "package", true},
};

std::uint32_t Write(const KindRow &kind, std::uint32_t pipe, WriterPacket *pkt) {
    return kind.write(pipe, static_cast<std::uint32_t>(pkt->iov.size()), pkt->iov.data());
}

TEST_F(PipeWriteTest, EveryWriteHandsTheReaderFreshCopiesOfTheWritersBuffers) {
    for (const KindRow &row : kKinds) {
        SCOPED_TRACE(row.name);
        // Node pieces cut at their data end, a whole cluster, a block, an
        // empty piece, and memory that is no pipe buffer at all.
        WriterPacket pkt{
            {{936, 212}, {936, 520}, {1960, 1960}, {448, 300}, {100, 0}, {0, 50, false}}, {}};
        pkt.Make(3);
        ASSERT_EQ(KRM_DbufMsgCtrlFlagSet(pkt.pieces[0].addr, 0x55), 0u);
        ASSERT_EQ(KRM_HOST_SetTraceId(pkt.pieces[1].addr, 0xABCD), 0u);
        ASSERT_EQ(Write(row, kPipe, &pkt), 0u);

        const GotPackage got = ReadOne(kPipe);
        ASSERT_EQ(std::tuple(got.rc, got.status, got.packets.size()), std::tuple(0u, 0u, 1u));
        ASSERT_EQ(got.packets[0].size(), pkt.pieces.size());
        for (std::size_t i = 0; i < pkt.pieces.size(); ++i) {
            const GotPiece &piece = got.packets[0][i];
            EXPECT_NE(piece.addr, pkt.pieces[i].addr) << "piece " << i << " is a fresh buffer";
            EXPECT_EQ(piece.bytes, pkt.pieces[i].Expected()) << "piece " << i;
            EXPECT_EQ(pkt.pieces[i].live && KRM_DbufLengthGET(pkt.pieces[i].addr) != 0,
                      pkt.pieces[i].live && !row.takesOver)
                << "piece " << i << ": writer's buffer released only by a taking write";
        }
        // The priority stamp, the owner (the packet's memory handle) and the trace id travel.
        KRM_HOST_BUF_INFO_S a, b;
        ASSERT_EQ(KRM_HOST_BufferInfo(got.packets[0][0].addr, &a) |
                      KRM_HOST_BufferInfo(got.packets[0][1].addr, &b),
                  0u);
        EXPECT_EQ(std::tuple(a.ulCtrlFlag, a.ulOwner, b.ulTraceId),
                  std::tuple(0x55u, kModule, 0xABCDu));
        FreeGot(got);
        pkt.Free();
    }
}

// A refused write takes nothing over: the writer's buffers and bytes stay,
// the queue and the live count do not move.
TEST_F(PipeWriteTest, RefusedWritesLeaveTheWritersBuffersAlone) {
    struct Row {
        const char *name;
        std::uint32_t pipe;
        void (*spoil)(WriterPacket *);
        std::uint32_t rc;
    };
    const auto none = [](WriterPacket *) {};
    const auto fill = [](WriterPacket *) {
        for (std::uint32_t i = 0; i < 4; ++i) {
            WriterPacket filler{{{64, 64}}, {}};
            ASSERT_EQ(KRM_PipeIovecWrite(kPipe, 1, filler.Make(90).iov.data()), 0u);
        }
    };
    // clang-format off
    const Row rows[] = {
        {"identifier out of range", KRM_HOST_PIPE_MAX, none, KRM_HOST_PIPE_ERR_RANGE},
        {"pipe not opened", kPipe + 1, none, KRM_HOST_PIPE_ERR_NOT_OPENED},
        {"NULL piece", kPipe, [](WriterPacket *p) { p->iov[1].pBuf = nullptr; }, KRM_HOST_PIPE_ERR_ARGUMENT},
        {"piece longer than its buffer", kPipe, [](WriterPacket *p) { p->iov[0].ulLen = 937; }, KRM_HOST_PIPE_ERR_ARGUMENT},
        {"queue full", kPipe, fill, KRM_HOST_PIPE_ERR_FULL},
        {"no memory for the second copy", kPipe, [](WriterPacket *) { KRM_HOST_FailNthAlloc(2); }, KRM_HOST_PIPE_ERR_NO_MEMORY},
    };
    // clang-format on
    for (const Row &row : rows) {
        for (const KindRow &kind : kKinds) {
            SCOPED_TRACE(std::string(row.name) + ", " + kind.name + " write");
            WriterPacket pkt{{{936, 100}, {1960, 1000}}, {}};
            row.spoil(&pkt.Make(5));
            const std::pair before(KRM_HOST_PipeDepth(kPipe), KRM_HOST_LiveBufferCount());
            EXPECT_EQ(Write(kind, row.pipe, &pkt), row.rc);
            EXPECT_TRUE(pkt.pieces[0].Intact() && pkt.pieces[1].Intact());
            EXPECT_EQ(std::pair(KRM_HOST_PipeDepth(kPipe), KRM_HOST_LiveBufferCount()), before);
            KRM_HOST_FailNthAlloc(0);
            pkt.Free();
            Drain(kPipe);
        }
    }
    const std::vector<std::string> texts = ReportTexts();
    ASSERT_EQ(texts.size(), std::size(kKinds)) << "one report per overlong piece";
    EXPECT_NE(texts[0].find("claims 937 bytes of a 936-byte buffer"), std::string::npos)
        << texts[0];
}

TEST_F(PipeWriteTest, CountsOfPiecesAndPacketsOutsideTheLimitsAreRefused) {
    WriterPacket pkt;
    pkt.pieces.assign(KRM_HOST_PIPE_MAX_PIECES + 1, WriterPiece{32, 32});
    pkt.Make(1);
    EXPECT_EQ(KRM_PipeIovecWrite(kPipe, 0, pkt.iov.data()), KRM_HOST_PIPE_ERR_ARGUMENT);
    EXPECT_EQ(KRM_PipeIovecWrite(kPipe, KRM_HOST_PIPE_MAX_PIECES + 1, pkt.iov.data()),
              KRM_HOST_PIPE_ERR_ARGUMENT);
    EXPECT_EQ(KRM_PipeIovecWrite(kPipe, 1, nullptr), KRM_HOST_PIPE_ERR_ARGUMENT);
    MBUF_TRANS_DESC_S desc{1, pkt.iov.data()};
    EXPECT_EQ(KRM_PipeWriteIovecIntra(kPipe, 0, &desc), KRM_HOST_PIPE_ERR_ARGUMENT);
    EXPECT_EQ(KRM_PipeWriteIovecIntra(kPipe, 1, nullptr), KRM_HOST_PIPE_ERR_ARGUMENT);
    std::vector<MBUF_TRANS_DESC_S> many(KRM_HOST_PIPE_MAX_PACKETS + 1, desc);
    EXPECT_EQ(KRM_PipeWriteIovecIntra(kPipe, KRM_HOST_PIPE_MAX_PACKETS + 1, many.data()),
              KRM_HOST_PIPE_ERR_ARGUMENT);
    EXPECT_EQ(KRM_HOST_PipeDepth(kPipe), 0u);
    // The largest packet is accepted (read back whole in the socket round trip).
    EXPECT_EQ(KRM_PipeIovecWrite(kPipe, KRM_HOST_PIPE_MAX_PIECES, pkt.iov.data()), 0u);
    Drain(kPipe);
    pkt.Free();
}

// The read order of a sequence of writes, worked out by hand from the
// rules: urgent to the head (newest first), normal to the tail, priority
// behind every package of at least its priority but never before an urgent.
TEST_F(PipeWriteTest, UrgentAndPriorityWritesFindTheirPlace) {
    ASSERT_EQ(KRM_HOST_PipeClose(kPipe), 0u);
    ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 0), 0u);
    const KindRow &normal = kKinds[0], &prio = kKinds[1], &urgent = kKinds[2];
    const std::pair<const KindRow &, std::uint32_t> ops[] = {{normal, 0}, {prio, 5},  {prio, 5},
                                                             {urgent, 0}, {prio, 9},  {normal, 9},
                                                             {prio, 1},   {urgent, 3}};
    const std::vector<std::uint32_t> expected = {7, 3, 4, 1, 2, 6, 0, 5};
    for (std::uint32_t i = 0; i < std::size(ops); ++i) {
        WriterPacket pkt{{{16, 16}}, {}};
        ASSERT_EQ(KRM_DbufMsgCtrlFlagSet(pkt.Make(i).pieces[0].addr, ops[i].second), 0u);
        ASSERT_EQ(Write(ops[i].first, kPipe, &pkt), 0u);
    }
    std::vector<std::uint32_t> order;
    for (GotPackage got = ReadOne(kPipe); !got.packets.empty(); got = ReadOne(kPipe)) {
        for (std::uint32_t i = 0; i < std::size(ops); ++i) {
            if (got.packets[0][0].bytes[0] == PatternByte(i, 0)) {
                order.push_back(i);
            }
        }
        FreeGot(got);
    }
    EXPECT_EQ(order, expected);
}

TEST_F(PipeWriteTest, PackageReadDescribesEachPacketWithinTheCallersRoom) {
    std::vector<WriterPacket> pkts(3);
    std::vector<MBUF_TRANS_DESC_S> descs;
    for (std::uint32_t p = 0; p < pkts.size(); ++p) {
        pkts[p].pieces.assign(p + 1, WriterPiece{936, 100 + p});
        pkts[p].Make(10 * p);
        descs.push_back(MBUF_TRANS_DESC_S{p + 1, pkts[p].iov.data()});
    }
    ASSERT_EQ(KRM_PipeWriteIovecIntra(kPipe, 3, descs.data()), 0u);
    EXPECT_EQ(KRM_HOST_PipeDepth(kPipe), 1u) << "three packets, one package";

    GotPackage got = ReadOne(kPipe, 2);
    EXPECT_EQ(got.rc, KRM_HOST_PIPE_ERR_CAPACITY);
    EXPECT_EQ(KRM_HOST_PipeDepth(kPipe), 1u) << "a package that does not fit stays queued";

    got = ReadOne(kPipe, 3);
    ASSERT_EQ(std::tuple(got.rc, got.status, got.aux), std::tuple(0u, 0u, 0u));
    ASSERT_EQ(got.packets.size(), 3u);
    for (std::uint32_t p = 0; p < 3; ++p) {
        ASSERT_EQ(got.packets[p].size(), p + 1);
        EXPECT_EQ(got.packets[p][p].bytes, pkts[p].pieces[p].Expected());
    }
    FreeGot(got);

    const GotPackage empty = ReadOne(kPipe, 3);
    EXPECT_EQ(std::tuple(empty.rc, empty.status, empty.packets.size()), std::tuple(0u, 2u, 0u));
}

TEST_F(PipeWriteTest, TokensAreCreditsThatReadsReturnUpToTheNumberSet) {
    std::uint32_t one = 1, three = 3;
    EXPECT_EQ(KRM_HOST_PipeTokens(kPipe), KRM_HOST_PIPE_DEFAULT_TOKENS);
    ASSERT_EQ(KRM_HOST_PipeSetTokens(kPipe, 2), 0u);
    EXPECT_EQ(KRM_PipeTokenAlloc(kPipe, &three), KRM_HOST_PIPE_ERR_NO_TOKEN);
    EXPECT_EQ(std::pair(KRM_PipeTokenAlloc(kPipe, &one), KRM_PipeTokenAlloc(kPipe, &one)),
              std::pair(0u, 0u));
    EXPECT_EQ(KRM_PipeTokenAlloc(kPipe, &one), KRM_HOST_PIPE_ERR_NO_TOKEN);
    for (std::uint32_t i = 0; i < 3; ++i) {
        WriterPacket pkt{{{8, 8}}, {}};
        ASSERT_EQ(KRM_PipeIovecWrite(kPipe, 1, pkt.Make(i).iov.data()), 0u);
    }
    EXPECT_EQ(KRM_HOST_PipeTokens(kPipe), 0u) << "a write takes no credit";
    FreeGot(ReadOne(kPipe));
    EXPECT_EQ(KRM_HOST_PipeTokens(kPipe), 1u);
    Drain(kPipe);
    FreeGot(ReadOne(kPipe));
    EXPECT_EQ(KRM_HOST_PipeTokens(kPipe), 2u)
        << "never above the number set, none for an empty read";
}

// Identifiers beyond the table and pipes never opened answer their own
// codes from every service (the writes: in the refused-write table).
TEST_F(PipeWriteTest, EveryServiceAnswersRangeAndNotOpened) {
    MBUF_IOVEC_S iov{nullptr, 0, 0};
    MBUF_TRANS_DESC_S desc{1, &iov};
    std::uint32_t n = 1, status = 0, aux = 0;
    KRM_HOST_PIPE_STATS_S stats;
    // clang-format off
    const std::function<std::uint32_t(std::uint32_t)> services[] = {
        [&](std::uint32_t id) { return KRM_PipeTokenAlloc(id, &(n = 1)); },
        [&](std::uint32_t id) { return KRM_PipePackageRead(id, &(n = 1), &desc, &status, &aux); },
        [&](std::uint32_t id) { return KRM_HOST_PipeClose(id); },
        [&](std::uint32_t id) { return KRM_HOST_PipeSetTokens(id, 3); },
        [&](std::uint32_t id) { return KRM_HOST_PipeStats(id, &stats); },
    };
    // clang-format on
    for (std::size_t s = 0; s < std::size(services); ++s) {
        SCOPED_TRACE("service " + std::to_string(s));
        EXPECT_EQ(services[s](KRM_HOST_PIPE_MAX), KRM_HOST_PIPE_ERR_RANGE);
        EXPECT_EQ(services[s](0xFFFFFFFFu), KRM_HOST_PIPE_ERR_RANGE);
        EXPECT_EQ(services[s](kPipe + 1), KRM_HOST_PIPE_ERR_NOT_OPENED);
    }
    EXPECT_EQ(KRM_HOST_PipeOpen(KRM_HOST_PIPE_MAX, 1), KRM_HOST_PIPE_ERR_RANGE);
    EXPECT_EQ(KRM_HOST_PipeOpen(kPipe, 1), KRM_HOST_PIPE_ERR_BUSY);
}

// What the tap saw of a write: pipe, packets, and the first piece's address, length and byte.
using Seen = std::tuple<std::uint32_t, std::uint32_t, const void *, std::uint32_t, unsigned char>;

void Tap(std::uint32_t pipe, std::uint32_t n, const MBUF_TRANS_DESC_S *pkts, void *arg) {
    const MBUF_IOVEC_S &head = pkts[0].pstIovec[0];
    static_cast<std::vector<Seen> *>(arg)->emplace_back(
        pipe, n, head.pBuf, head.ulLen, *static_cast<const unsigned char *>(head.pBuf));
}

TEST_F(PipeWriteTest, TapSeesTheWritersPiecesAndCountersFollowTheTraffic) {
    std::vector<Seen> seen;
    KRM_HOST_PipeSetTap(kPipe, Tap, &seen);
    WriterPacket a{{{936, 40}}, {}}, b{{{448, 30}, {64, 64}}, {}};
    MBUF_TRANS_DESC_S descs[2] = {{1, a.Make(1).iov.data()}, {2, b.Make(2).iov.data()}};
    const void *aAddr = a.pieces[0].addr;
    ASSERT_EQ(KRM_PipeWriteIovecIntra(kPipe, 2, descs), 0u);
    ASSERT_EQ(TQM_PipeIovecNoFreeWrite(kPipe, 2, b.Make(3).iov.data()), 0u);
    EXPECT_EQ(KRM_PipeIovecWrite(kPipe, 0, b.iov.data()), KRM_HOST_PIPE_ERR_ARGUMENT);
    // The writer's address, not the copy, shown before it is released; refused writes are not
    // shown.
    const void *bAddr = b.pieces[0].addr;
    EXPECT_EQ(seen, (std::vector<Seen>{{kPipe, 2u, aAddr, 40u, PatternByte(1, 0)},
                                       {kPipe, 1u, bAddr, 30u, PatternByte(3, 0)}}));

    FreeGot(ReadOne(kPipe));
    const KRM_HOST_PIPE_STATS_S stats = Stats(kPipe);
    EXPECT_EQ(std::vector({stats.ulWritten, stats.ulPktsWritten, stats.ulRead, stats.ulPktsRead,
                           stats.ulRefused}),
              std::vector<std::uint32_t>({2, 3, 1, 2, 0}));
    KRM_HOST_PipeSetTap(kPipe, nullptr, nullptr);
    Drain(kPipe);
    b.Free();
}

TEST_F(PipeWriteTest, CloseAndResetReleaseWhatIsQueued) {
    for (const bool byReset : {false, true}) {
        SCOPED_TRACE(byReset ? "reset" : "close");
        if (byReset) {
            ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 4), 0u);
        }
        WriterPacket pkt{{{936, 900}, {1960, 10}}, {}};
        ASSERT_EQ(KRM_PipeIovecWrite(kPipe, 2, pkt.Make(4).iov.data()), 0u);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 2u) << "the queued copies";
        if (byReset) {
            KRM_HOST_Reset();
        } else {
            EXPECT_EQ(KRM_HOST_PipeClose(kPipe), 0u);
        }
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
        EXPECT_EQ(KRM_PipeIovecWrite(kPipe, 2, pkt.iov.data()), KRM_HOST_PIPE_ERR_NOT_OPENED);
    }
}

}  // namespace
}  // namespace krm::test::platform
