// Round trips: every send variant, through the pipe service and through the
// carrying model, received by both receives; the rebuilt packet must equal
// the sent one in data, node lengths, header and flag words and every
// record byte.
#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"
#include "pipe_support.h"

namespace krm::test {
namespace {

constexpr std::uint32_t kPipe = 5;
constexpr std::uint32_t kMax = MBUF_PIPE_MAX_IOVEC;
constexpr std::uint32_t kDest = 9;

// Records: none beyond the common one, a few inline, enough to need a
// separate block (with the stack-debug slot among them).
const std::vector<std::vector<RecordRow>> kRecordSets = {
    {}, {{3, 16}, {12, 8}}, {{5, 120}, {9, 200}, {21, 96}, {14, 40}}};

// Reads one package of one packet from the pipe and rebuilds it.
MBUF_S *ReceiveOne(RecvFn receive) {
    MBUF_TRANS_DESC_S descs[4];
    std::uint32_t count = 4, status = 0, aux = 0;
    EXPECT_EQ(KRM_PipePackageRead(kPipe, &count, descs, &status, &aux), 0u);
    EXPECT_EQ(std::pair(count, status), std::pair(1u, 0u));
    MBUF_S *m = nullptr;
    EXPECT_EQ(count == 1 ? receive(&m, &descs[0]) : ~0u, MBUF_OK);
    return m;
}

// Rebuilds from pieces carried by the model.
MBUF_S *ReceiveCarried(const MBUF_IOVEC_S *v, std::uint32_t n, RecvFn receive) {
    std::vector<void *> pieces = Carry(v, n);
    MBUF_TRANS_DESC_S desc = RecvDesc(pieces, pieces.size());
    MBUF_S *m = nullptr;
    EXPECT_EQ(receive(&m, &desc), MBUF_OK);
    return m;
}

// A send variant: it sends m through the pipe (or describes it, returning
// the count of pieces); bKeepsSender: the caller still owns m afterwards.
struct SendRow {
    const char *name;
    std::uint32_t (*send)(MBUF_S *, MBUF_IOVEC_S *);
    bool bPiped;
    bool bKeepsSender;
};

template <auto kDescribe>
std::uint32_t Describe(MBUF_S *m, MBUF_IOVEC_S *v) {
    MBUF_TRANS_DESC_S desc{0, v};
    MBUF_UpdateMbufListByteOrderType(m);
    EXPECT_EQ(kDescribe(m, &desc, "roundtrip_test", 1), MBUF_OK);
    return desc.ulNum;
}

// clang-format off
const SendRow kSendRows[] = {
    {"Send", [](MBUF_S *m, MBUF_IOVEC_S *v) { return MBUF_Send(kPipe, m, v); }, true, false},
    {"Send2QueHead", [](MBUF_S *m, MBUF_IOVEC_S *v) { return MBUF_Send2QueHead(kPipe, m, v, "roundtrip_test", 2); }, true, false},
    {"SendByFlag", [](MBUF_S *m, MBUF_IOVEC_S *v) { return MBUF_SendByFlag(kPipe, 1, m, 2, 3, v); }, true, false},
    {"Send_NoFree", [](MBUF_S *m, MBUF_IOVEC_S *v) { return MBUF_Send_NoFree(kPipe, m, v, "roundtrip_test", 3); }, true, true},
    {"SendTrans", Describe<MBUF_SendTrans_fl>, false, false},
    {"SendTrans2", Describe<MBUF_SendTrans2_fl>, false, false},
    {"Send_GetAddr", [](MBUF_S *m, MBUF_IOVEC_S *v) { return MBUF_Send_GetAddr(m, v, "roundtrip_test", 4); }, false, false},
};
// clang-format on

MBUF_S *RoundTrip(const SendRow &row, MBUF_S *m, RecvFn how) {
    MBUF_IOVEC_S v[kMax];
    const std::uint32_t rc = row.send(m, v);
    if (row.bPiped) {
        EXPECT_EQ(rc, 0u);
        return ReceiveOne(how);
    }
    return ReceiveCarried(v, rc, how);
}

class PackageTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 8), 0u);
        ASSERT_EQ(KRM_HOST_MsgOpen(kDest), 0u);
    }
};

class RoundTripTest : public PackageTest,
                      public ::testing::WithParamInterface<std::tuple<std::size_t, std::size_t>> {};

TEST_P(RoundTripTest, EverySendVariantArrivesEqual) {
    const auto &[shapeIndex, recordIndex] = GetParam();
    const ChainShape &shape = StandardShapes()[shapeIndex];
    for (const SendRow &row : kSendRows) {
        for (const auto &[recvName, how] : kReceives) {
            SCOPED_TRACE(std::string(row.name) + " " + recvName);
            MBUF_S *m = BuildChain(shape.nodes, 7);
            ASSERT_NE(m, nullptr);
            Decorate(m, kRecordSets[recordIndex], 9);
            const Snapshot sent = Snap(m);
            MBUF_S *got = RoundTrip(row, m, how);
            ASSERT_NE(got, nullptr);
            ExpectValid(got);
            EXPECT_EQ(Snap(got), sent);
            EXPECT_EQ(got->ulFlag & MBUF_FLAG_CTLINFO_SENT, 0u);
            EXPECT_EQ(got->pstNextPkt, nullptr);
            MBUF_Destroy(got);
            if (row.bKeepsSender) {
                MBUF_Destroy(m);
            }
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, RoundTripTest,
                         ::testing::Combine(::testing::Range<std::size_t>(0,
                                                                          StandardShapes().size()),
                                            ::testing::Range<std::size_t>(0, kRecordSets.size())),
                         [](const auto &p) {
                             return StandardShapes()[std::get<0>(p.param)].name + "_Records" +
                                    std::to_string(std::get<1>(p.param));
                         });

KRM_HOST_PIPE_STATS_S Stats() {
    KRM_HOST_PIPE_STATS_S stats{};
    EXPECT_EQ(KRM_HOST_PipeStats(kPipe, &stats), 0u);
    return stats;
}

// A list of packets goes as one package and comes back as one list.
TEST_F(PackageTest, MultiSendToMultiRecv) {
    const std::vector<std::vector<NodeRow>> shapes = {{InlineNode(60)},
                                                      {ClusterNode(1500, 40), InlineNode(200)},
                                                      {InlineNode(10), ExactNode(3000, 2999)}};
    std::vector<MBUF_S *> pkts;
    std::vector<Snapshot> sent;
    for (std::size_t i = 0; i < shapes.size(); ++i) {
        pkts.push_back(BuildChain(shapes[i], i));
        Decorate(pkts.back(), kRecordSets[i], i);
        sent.push_back(Snap(pkts.back()));
        if (i > 0) {
            pkts[i - 1]->pstNextPkt = pkts[i];
        }
    }
    MBUF_IOVEC_S v[3][kMax];
    MBUF_TRANS_DESC_S descs[3] = {{0, v[0]}, {0, v[1]}, {0, v[2]}};
    ASSERT_EQ(MBUF_MultiSend(kPipe, pkts[0], descs), 0u);
    EXPECT_EQ(std::pair(Stats().ulWritten, Stats().ulPktsWritten), std::pair(1u, 3u));

    MBUF_TRANS_DESC_S rdescs[8];
    MBUF_S *list = nullptr;
    std::uint32_t count = 8, status = 9;
    ASSERT_EQ(MBUF_MultiRecv(kPipe, &list, &count, &status, rdescs), 0u);
    EXPECT_EQ(std::pair(count, status), std::pair(3u, 0u));
    std::vector<Snapshot> got;
    while (list != nullptr) {
        MBUF_S *next = list->pstNextPkt;
        ExpectValid(list);
        got.push_back(Snap(list));
        MBUF_Destroy(list);
        list = next;
    }
    EXPECT_EQ(got, sent);

    // Nothing queued: the service's status, no packets.
    count = 8;
    EXPECT_EQ(MBUF_MultiRecv(kPipe, &list, &count, &status, rdescs), 0u);
    EXPECT_EQ(std::tuple(count, status, list), std::tuple(0u, 2u, nullptr));
    // The service's own refusal passes through.
    count = 8;
    EXPECT_EQ(MBUF_MultiRecv(kPipe + 1, &list, &count, &status, rdescs), 0x224C1110u);
}

// A failure in the second packet writes nothing; an empty list writes an
// empty package.
TEST_F(PackageTest, MultiSendWritesAllOrNothing) {
    MBUF_S *a = BuildChain({InlineNode(10)}, 1);
    MBUF_S *b = BuildChain(ManyNodes(91, 0), 2);
    a->pstNextPkt = b;
    MBUF_IOVEC_S v[2][kMax];
    MBUF_TRANS_DESC_S descs[2] = {{0, v[0]}, {0, v[1]}};
    EXPECT_EQ(MBUF_MultiSend(kPipe, a, descs), MBUF_ERR_TOO_MANY_IOVEC);
    EXPECT_EQ(KRM_HOST_PipeDepth(kPipe), 0u);
    a->pstNextPkt = nullptr;
    MBUF_Destroy(a);
    MBUF_Destroy(b);
    KRM_HOST_ReportClear();
    // An empty list is the service's to judge; the library hands it a count of 0.
    const std::uint32_t before = Stats().ulWritten;
    const std::uint32_t rc = MBUF_MultiSend(kPipe, nullptr, descs);
    EXPECT_EQ(Stats().ulWritten - before, rc == 0 ? 1u : 0u);
}

// The message form: the packet's serial image behind an 8-byte header
// (big-endian size, a zero word), through the message service and back. The
// image re-packs the data: node boundaries and the external flag are not
// kept. (Every shape of image is the serial tests'; messages of any bytes
// sent again are the message fuzz harness's.) A message send consumes the
// packet whatever happens after the header check; a message shorter than its
// header yields nothing.
TEST_F(PackageTest, MessagesArriveEqualOrConsumeThePacket) {
    const auto repacked = [](MBUF_S *m) {
        Snapshot snap = Snap(m);
        snap.nodeLens.clear();
        snap.words.back() &= ~MBUF_EXT;
        return snap;
    };
    MBUF_S *m = BuildChain({ClusterNode(1500, 40), InlineNode(200)}, 4);
    Decorate(m, kRecordSets[2], 4);
    const Snapshot sent = repacked(m);
    const std::uint32_t size = MBUF_GetAllBlockSize(m) + 8;
    ASSERT_EQ(MBUF_SendMsg(kTestModule, kDest, m), 0u);
    std::uint32_t cls = 0, type = 0;
    auto *msg = static_cast<std::uint8_t *>(KRM_HOST_MsgReceive(kDest, 0, &cls, &type));
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(
        std::tuple(cls, type, TQM_MsgLenGet(msg), (msg[0] << 8) | msg[1], Bytes(msg + 4, msg + 8)),
        std::tuple(6u, 893u, size, static_cast<int>(size & 0xFFFF), Bytes(4, 0)));
    MBUF_S *got = MBUF_RecvMsg(msg);
    EXPECT_EQ(TQM_MsgFree(kTestModule, msg), 0u);
    ASSERT_NE(got, nullptr);
    ExpectValid(got);
    EXPECT_EQ(repacked(got), sent);
    MBUF_Destroy(got);

    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest, nullptr), MBUF_ERR_INVALID_MBUF);
    m = BuildChain({InlineNode(10), InlineNode(5)}, 1);
    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest, m->pstNext), MBUF_ERR_INVALID_MBUF);
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest, m), MBUF_ERR_MSG_ALLOC);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    m = BuildChain({InlineNode(10)}, 1);
    EXPECT_EQ(MBUF_SendMsg(kTestModule, kDest + 1, m), 0x224C1110u) << "queue not opened";
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(MBUF_RecvMsg(nullptr), nullptr);
    void *shortMsg = KRM_MsgAlloc_F(kTestModule, 6, "t", 1);
    EXPECT_EQ(MBUF_RecvMsg(shortMsg), nullptr);
    TQM_MsgFree(kTestModule, shortMsg);
}

// Tokens: credits of the pipe, and the folding of every "no token" answer.
TEST_F(PackageTest, TokensAndTheirFolding) {
    ASSERT_EQ(KRM_HOST_PipeSetTokens(kPipe, 2), 0u);
    MBUF_S *m = BuildChain({InlineNode(100)}, 1);
    EXPECT_EQ(MBUF_TokenAlloc(kPipe, m, kTestModule), 0u);
    EXPECT_EQ(MBUF_TokenAllocEx(kPipe, m, kTestModule), 0u);
    EXPECT_EQ(KRM_HOST_PipeTokens(kPipe), 0u);
    const struct {
        std::uint32_t pipe;
        std::uint32_t raw;
    } rows[] = {{kPipe, 0x224C1111u}, {kPipe + 1, 0x224C1110u}, {1000, 0x224C1112u}};
    for (const auto &row : rows) {
        EXPECT_EQ(MBUF_TokenAllocEx(row.pipe, m, kTestModule), row.raw);
        EXPECT_EQ(MBUF_TokenAlloc(row.pipe, m, kTestModule), 0x224C1082u);
    }
    MBUF_Destroy(m);
    // A packet of too many blocks is compressed before the token is taken.
    MBUF_S *many = BuildChain(ManyNodes(91, 0), 2);
    const Bytes data = Flatten(many);
    ASSERT_EQ(KRM_HOST_PipeSetTokens(kPipe, 1), 0u);
    EXPECT_EQ(MBUF_TokenAlloc(kPipe, many, kTestModule), 0u);
    EXPECT_LT(NodeCount(many), 91u);
    EXPECT_EQ(Flatten(many), data);
    MBUF_Destroy(many);
}

}  // namespace
}  // namespace krm::test
