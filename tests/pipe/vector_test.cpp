// The piece lists of every describing operation, over a table of chain
// shapes, compared with a model of the pipe format: each node up to its data
// end or whole, an external buffer after its node, a separate control block
// last, at most 90 entries and each operation's own answer past them.
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"
#include "pipe_support.h"

namespace krm::test {
namespace {

constexpr std::uint32_t kMax = MBUF_PIPE_MAX_IOVEC;
constexpr std::uint32_t kNotOpened = 0x224C1110u;
// Records that do not fit the inline block.
const std::vector<RecordRow> kBigRecords = {{5, 120}, {9, 200}, {17, 64}};

enum class Limit { Truncate, Refuse, Count };

// Runs an operation; returns its result and the count of entries described.
using RunFn = std::uint32_t (*)(MBUF_S *, MBUF_IOVEC_S *, std::uint32_t *);

struct OpRow {
    const char *name;
    bool wholeNode;
    std::uint32_t extNodeLen;
    Limit limit;
    std::uint32_t rc;  // the answer within the limit
    RunFn run;
};

// Entries a write left unchanged still hold this length.
constexpr std::uint32_t kUnwritten = 0xDEADu;

std::uint32_t Described(const MBUF_IOVEC_S *pstIovec) {
    std::uint32_t n = 0;
    while (n < kMax && pstIovec[n].ulLen != kUnwritten) {
        ++n;
    }
    return n;
}

template <auto kDescribe>
std::uint32_t ByDesc(MBUF_S *m, MBUF_IOVEC_S *v, std::uint32_t *n) {
    MBUF_TRANS_DESC_S desc{0, v};
    const std::uint32_t rc = kDescribe(m, &desc);
    *n = desc.ulNum;
    return rc;
}

std::uint32_t Trans2(MBUF_S *m, MBUF_TRANS_DESC_S *d) {
    return MBUF_SendTrans2_fl(m, d, "vector_test", 1);
}

// No pipe is open: the writes refuse and take nothing over, leaving the
// vector to look at.
// clang-format off
const OpRow kOps[] = {
    {"SendTrans", true, 936, Limit::Refuse, MBUF_OK, ByDesc<MBUF_SendTrans>},
    {"SendTrans2", false, 520, Limit::Refuse, MBUF_OK, ByDesc<Trans2>},
    {"Send_GetAddr", true, 520, Limit::Count, MBUF_OK,
     [](MBUF_S *m, MBUF_IOVEC_S *v, std::uint32_t *n) { *n = MBUF_Send_GetAddr(m, v, "vector_test", 2); return MBUF_OK; }},
    {"PipeSend", false, 520, Limit::Truncate, kNotOpened,
     [](MBUF_S *m, MBUF_IOVEC_S *v, std::uint32_t *n) {
         const std::uint32_t rc = MBUF_PipeSend_fl(7, m, v, "vector_test", 3, 0);
         *n = Described(v);
         return rc; }},
    {"PipeSendByFlag", false, 520, Limit::Refuse, kNotOpened,
     [](MBUF_S *m, MBUF_IOVEC_S *v, std::uint32_t *n) {
         const std::uint32_t rc = MBUF_PipeSendByFlag_fl(7, 1, m, 2, 3, v, "vector_test", 4);
         *n = rc == MBUF_ERR_TOO_MANY_IOVEC ? 0 : Described(v);
         return rc; }},
};
// clang-format on

// The model: every piece of the packet in order, the control block apart.
struct Model {
    std::vector<Piece> nodePieces;
    std::vector<bool> extNodePiece;  // the piece is an external node's own
    std::vector<Piece> ctl;
    std::vector<MBUF_S *> nodes;
    std::vector<std::uint32_t> offsets;
};

Model MakeModel(MBUF_S *m, const OpRow &op) {
    Model model;
    for (MBUF_S *n = m; n != nullptr; n = n->pstNext) {
        model.nodes.push_back(n);
        const bool ext = (n->ulFlag & MBUF_EXT) != 0;
        const std::uint8_t *base = ext ? n->pucExtBuf : reinterpret_cast<std::uint8_t *>(n);
        const auto off = static_cast<std::uint32_t>(n->pucData - base);
        model.offsets.push_back(off);
        model.nodePieces.push_back({n, ext            ? op.extNodeLen
                                       : op.wholeNode ? 936u
                                                      : off + n->ulDataLen});
        model.extNodePiece.push_back(ext);
        if (ext) {
            model.nodePieces.push_back({n->pucExtBuf, off + n->ulDataLen});
            model.extNodePiece.push_back(false);
        }
    }
    if (m->pstCtlInfo != &m->stCtlInfo.stBlk) {
        model.ctl.push_back({m->pstCtlInfo, 184u + m->pstCtlInfo->usUsedLen});
    }
    return model;
}

// The shared shapes and chains around the piece limit.
const std::vector<ChainShape> &Shapes() {
    static const std::vector<ChainShape> shapes = [] {
        std::vector<ChainShape> out = StandardShapes();
        const std::tuple<const char *, std::uint32_t, std::uint32_t> limits[] = {
            {"Ext45Exact90", 0, 45}, {"Ext46", 0, 46},
            {"ExtAt89", 89, 1},      {"Inline88Ext1Exact90", 88, 1},
            {"Inline89", 89, 0},     {"Inline90", 90, 0},
            {"Inline91", 91, 0}};
        for (const auto &[name, inl, ext] : limits) {
            out.push_back({name, ManyNodes(inl, ext)});
        }
        return out;
    }();
    return shapes;
}

class VectorShapeTest : public HostTest,
                        public ::testing::WithParamInterface<std::tuple<std::size_t, bool>> {};

TEST_P(VectorShapeTest, EveryOperationDescribesTheModelsPieces) {
    const auto &[shapeIndex, separateCtl] = GetParam();
    const ChainShape &shape = Shapes()[shapeIndex];
    for (const OpRow &op : kOps) {
        SCOPED_TRACE(op.name);
        KRM_HOST_ReportClear();
        MBUF_S *m = BuildChain(shape.nodes, 3);
        ASSERT_NE(m, nullptr);
        Decorate(m, separateCtl ? kBigRecords : std::vector<RecordRow>{}, 5);
        const Model model = MakeModel(m, op);
        const std::uint32_t nodeCount = model.nodePieces.size();
        // What fits: the first 90 node pieces; the block only with room left.
        std::vector<Piece> expect(model.nodePieces.begin(),
                                  model.nodePieces.begin() + std::min(nodeCount, kMax));
        const bool ctlSent = !model.ctl.empty() && nodeCount < kMax;
        if (ctlSent) {
            expect.push_back(model.ctl[0]);
        }
        const bool refused = op.limit == Limit::Refuse && nodeCount > kMax;

        MBUF_IOVEC_S v[kMax];
        for (auto &e : v) {
            e = {nullptr, kUnwritten, 0x77};
        }
        std::uint32_t n = 0;
        const std::uint32_t rc = op.run(m, v, &n);

        EXPECT_EQ(rc, refused ? MBUF_ERR_TOO_MANY_IOVEC : op.rc);
        if (!refused) {
            EXPECT_EQ(Pieces(v, n), expect);
            EXPECT_EQ(v[0].ulRsv, 0x77u) << "ulRsv belongs to the pipe";
            EXPECT_EQ((m->ulFlag & MBUF_FLAG_CTLINFO_SENT) != 0, ctlSent);
        }
        // The node words of every node described whole.
        std::uint32_t pieces = 0;
        for (std::size_t i = 0; i < model.nodes.size() && pieces < kMax; ++i) {
            const MBUF_S *node = model.nodes[i];
            pieces += (node->ulFlag & MBUF_EXT) != 0 ? 2 : 1;
            if (pieces > kMax) {
                break;
            }
            EXPECT_EQ(node->ulRsv2, model.offsets[i]) << "node " << i;
            EXPECT_EQ(node->ulRsv0, node->pstNext != nullptr ? 0xFFFFFFFFu : 0u) << "node " << i;
        }
        // Reports at the limit.
        std::vector<Report> expectReports;
        const bool extCut = nodeCount > kMax && model.extNodePiece[kMax - 1];
        if (op.limit == Limit::Count && nodeCount >= kMax) {
            if (extCut) {
                expectReports.push_back(AssertReport("krm_mbuf_send", 318, "picNum out"));
            }
            expectReports.push_back(AssertReport("krm_mbuf_send", 331, "PicNum 90 out"));
        }
        if (refused) {
            expectReports.push_back(AssertReport("krm_mbuf_send", 262, "Mbuf Send: PicNum 90 out"));
        }
        EXPECT_EQ(Reports(), expectReports);
        MBUF_Destroy(m);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, VectorShapeTest,
                         ::testing::Combine(::testing::Range<std::size_t>(0, Shapes().size()),
                                            ::testing::Bool()),
                         [](const auto &p) {
                             return Shapes()[std::get<0>(p.param)].name +
                                    (std::get<1>(p.param) ? "_SeparateCtl" : "_InlineCtl");
                         });

class VectorTest : public HostTest {};

// Only the first node of what goes on the pipe is a packet header: a packet
// joined behind another loses its header bit and its separate block.
TEST_F(VectorTest, InnerPacketHeadersLoseTheirTags) {
    MBUF_S *a = BuildChain({InlineNode(40)}, 1);
    MBUF_S *b = BuildChain({InlineNode(50), ClusterNode(60)}, 2);
    Decorate(b, kBigRecords, 2);
    ASSERT_NE(b->pstCtlInfo, &b->stCtlInfo.stBlk);
    const std::uint32_t live = KRM_HOST_LiveBufferCount();
    a->pstNext = b;
    MBUF_IOVEC_S v[kMax];
    MBUF_TRANS_DESC_S desc{0, v};
    ASSERT_EQ(MBUF_SendTrans2_fl(a, &desc, "vector_test", 9), MBUF_OK);
    EXPECT_EQ(desc.ulNum, 4u);
    EXPECT_EQ(b->ulFlag & MBUF_PKTHDR, 0u);
    EXPECT_EQ(b->pstCtlInfo, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), live - 1) << "the inner block is released";
    b->ulFlag |= MBUF_PKTHDR;
    b->pstCtlInfo = &b->stCtlInfo.stBlk;
    a->pstNext = nullptr;
    MBUF_Destroy(a);
    MBUF_Destroy(b);
}

// The entry points' argument checks and the packet priority on every piece.
TEST_F(VectorTest, HeaderChecksAndPriorityStamps) {
    MBUF_IOVEC_S v[kMax];
    MBUF_TRANS_DESC_S desc{0, v};
    MBUF_S *plain = BuildChain({InlineNode(10), InlineNode(10)}, 1);
    MBUF_S *second = plain->pstNext;
    const std::pair<std::uint32_t, std::uint32_t> results[] = {
        {MBUF_Send(1, nullptr, v), MBUF_Send(1, second, v)},
        {MBUF_Send2QueHead(1, nullptr, v, "t", 1), MBUF_Send2QueHead(1, second, v, "t", 1)},
        {MBUF_SendByFlag(1, 0, nullptr, 0, 0, v), MBUF_SendByFlag(1, 0, second, 0, 0, v)},
        {MBUF_SendTrans(nullptr, &desc), MBUF_SendTrans(second, &desc)},
        {MBUF_SendTrans2_fl(nullptr, &desc, "t", 1), MBUF_SendTrans2_fl(second, &desc, "t", 1)},
        {MBUF_Send_GetAddr(nullptr, v, "t", 1), MBUF_Send_GetAddr(second, v, "t", 1)},
        {MBUF_TokenAlloc(1, nullptr, kTestModule), MBUF_TokenAlloc(1, second, kTestModule)},
        {MBUF_TokenAllocEx(1, nullptr, kTestModule), MBUF_TokenAllocEx(1, second, kTestModule)},
    };
    for (std::size_t i = 0; i < std::size(results); ++i) {
        EXPECT_EQ(results[i], std::pair(1002u, 1002u)) << "entry point " << i;
    }
    EXPECT_EQ(MBUF_PipeSendByFlag_fl(1, 0, nullptr, 0, 0, v, "t", 1), 1000u);
    EXPECT_EQ(MBUF_PipeSendByFlag_fl(1, 0, second, 0, 0, v, "t", 1), kNotOpened);
    MBUF_Destroy(plain);

    MBUF_S *m = BuildChain({ClusterNode(700), InlineNode(20)}, 4);
    Decorate(m, kBigRecords, 6);
    MBUF_SetPktPriority(m, 0x1A5);
    EXPECT_EQ(MBUF_PipeSend_fl(3, m, v, "t", 1, 1), kNotOpened);
    for (std::uint32_t i = 0; i < 4; ++i) {
        KRM_HOST_BUF_INFO_S info{};
        ASSERT_EQ(KRM_HOST_BufferInfo(v[i].pBuf, &info), 0u) << i;
        EXPECT_EQ(info.ulCtrlFlag, 0xA5u) << "piece " << i << " carries the priority's low byte";
    }
    MBUF_Destroy(m);
}

}  // namespace
}  // namespace krm::test
