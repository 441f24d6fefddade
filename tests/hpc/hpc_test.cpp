// Packets to forwarding vectors and back. A model of the piece list (what
// each node and the control block contribute) decides, for every shape and
// budget, whether the conversion succeeds, where it stops and what it logs;
// the successful conversion then goes round through fresh copies of the
// pieces, as a receiver holds them, and must give back the same packet.
#include <cstring>
#include <memory>

#include "chain_builder.h"
#include "fault_sweep.h"
#include "host_test.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"

namespace krm::test {
namespace {

constexpr std::uint32_t kPriority = 0x1A5;  // wider than a byte on purpose
using Iovecs = std::vector<MBUF_IOVEC_S>;

bool IsExt(const MBUF_S *node) {
    return (node->ulFlag & MBUF_EXT) != 0;
}
bool BlockApart(const MBUF_S *pkt) {
    return pkt->pstCtlInfo != &pkt->stCtlInfo.stBlk;
}

// The pieces a packet should turn into: {buffer, length, stamp}.
Iovecs ModelPieces(MBUF_S *pkt) {
    Iovecs out;
    for (MBUF_S *n = pkt; n != nullptr; n = n->pstNext) {
        const std::uint8_t *base = IsExt(n) ? n->pucExtBuf : reinterpret_cast<std::uint8_t *>(n);
        const auto len = static_cast<std::uint32_t>(n->pucData - base) + n->ulDataLen;
        if (IsExt(n)) {
            out.push_back({n, 520, kPriority});
        }
        out.push_back({const_cast<std::uint8_t *>(base), len, kPriority});
    }
    if (BlockApart(pkt)) {
        out.push_back(
            {pkt->pstCtlInfo, MBUF_CTL_FIXED_LEN + pkt->pstCtlInfo->usUsedLen, kPriority & 0xFFu});
    }
    return out;
}

// With a separate block, a record too large for the inline area has moved
// the block out of the head.
MBUF_S *BuildPacket(const std::vector<NodeRow> &rows, bool separateBlock) {
    MBUF_S *pkt = BuildChain(rows, 4);
    if (pkt != nullptr) {
        MBUF_SetPktPriority(pkt, kPriority);
        if (separateBlock) {
            EXPECT_EQ(MBUF_CreateControlInfo(pkt, 9, 600, kTestModule), 0u);
        }
    }
    return pkt;
}

// The logged text where a budget stops the conversion: the first node whose
// entries do not stay below it, else the control block; empty on success.
std::string ModelVerdict(MBUF_S *pkt, std::uint32_t budget) {
    const std::uint32_t b = std::min(budget, 90u);
    std::uint32_t count = 0;
    const auto beyond = [&](const char *what) {
        return std::string(what) + " tokenNum(" + std::to_string(count) +
               ") is error, beyond max(" + std::to_string(b) + ")";
    };
    for (MBUF_S *node = pkt; node != nullptr; node = node->pstNext) {
        const std::uint32_t need = IsExt(node) ? 2 : 1;
        if (count + need >= b) {
            return beyond("Packet2VectorData");
        }
        count += need;
    }
    return BlockApart(pkt) && count + 1 >= b ? beyond("Packet2VectorTag") : "";
}

std::vector<std::string> DiagTexts() {
    std::vector<std::string> out;
    for (const Report &r : Reports()) {
        if (r.kind == KRM_HOST_REPORT_DIAG) {
            EXPECT_EQ(r.arg1, 2780u);
            EXPECT_EQ(r.arg2, 0x0872100Fu);
            out.push_back(r.text);
        }
    }
    return out;
}

// The pieces as a receiver holds them: fresh buffers of the sender's sizes
// holding the bytes each entry names, the entries' lengths kept.
Iovecs CopyPieces(const Iovecs &vec, std::uint32_t count) {
    Iovecs out(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        MBUF_IOVEC_S req{nullptr, KRM_DbufLengthGET(vec[i].pBuf), 0};
        EXPECT_EQ(KRM_DbufIovecAlloc_F(kTestModule, 1, &req, "hpc_test", __LINE__), 0u);
        std::memset(req.pBuf, 0x5C, req.ulLen);
        std::memcpy(req.pBuf, vec[i].pBuf, vec[i].ulLen);
        out[i] = {req.pBuf, vec[i].ulLen, 0};
    }
    return out;
}

void FreePieces(Iovecs &pieces) {
    (void)KRM_DbufIovecFree_F(static_cast<std::uint32_t>(pieces.size()), pieces.data(), "hpc_test",
                              __LINE__);
}

std::vector<std::uint8_t> BlockBytes(const MBUF_S *pkt) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(pkt->pstCtlInfo);
    return {p, p + MBUF_CTL_FIXED_LEN + pkt->pstCtlInfo->usUsedLen};
}

// Rebuilds the packet from copies of vec and compares it with the sender's
// data and block; pkt is destroyed first, as the sender's is.
void ExpectRoundTrip(MBUF_S *pkt, const Iovecs &vec, std::uint32_t tokens) {
    const std::vector<std::uint8_t> data = Flatten(pkt), block = BlockBytes(pkt);
    Iovecs copies = CopyPieces(vec, tokens);
    pkt->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
    MBUF_Destroy(pkt);
    MBUF_S *back = nullptr;
    ASSERT_EQ(MBUF_HPC_Vector2Packet_fl(&back, copies.data(), tokens, "hpc", 11), 0u);
    ASSERT_EQ(back, copies[0].pBuf);
    EXPECT_EQ(Flatten(back), data);
    EXPECT_EQ(BlockBytes(back), block);
    // An external node's size is the length of the entry after its buffer's
    // own; where none follows, its buffer's real size.
    std::uint32_t at = 0;
    for (MBUF_S *node = back; node != nullptr; node = node->pstNext) {
        at += IsExt(node) ? 2 : 1;
        if (IsExt(node)) {
            const std::uint32_t real = KRM_DbufLengthGET(node->pucExtBuf);
            EXPECT_EQ(node->ulExtSize, at < tokens ? copies[at].ulLen : real) << "entry " << at;
            node->ulExtSize = real;  // sound again for the checks below
        }
    }
    back->ulTotalDataLen = static_cast<std::uint32_t>(data.size());
    ExpectValid(back);
    MBUF_Destroy(back);
}

class HpcShapeTest : public HostTest, public ::testing::WithParamInterface<ChainShape> {};

TEST_P(HpcShapeTest, BudgetsDecideAsTheModelAndSuccessRoundTrips) {
    for (bool separateBlock : {false, true}) {
        MBUF_S *probe = BuildPacket(GetParam().nodes, separateBlock);
        ASSERT_NE(probe, nullptr);
        const auto entries = static_cast<std::uint32_t>(ModelPieces(probe).size());
        MBUF_Destroy(probe);
        for (std::uint32_t budget : {0u, 1u, entries - 1, entries, entries + 1, 90u, 500u}) {
            SCOPED_TRACE("budget " + std::to_string(budget) + (separateBlock ? ", apart" : ""));
            MBUF_S *pkt = BuildPacket(GetParam().nodes, separateBlock);
            const Iovecs model = ModelPieces(pkt);
            const std::string verdict = ModelVerdict(pkt, budget);
            KRM_HOST_ReportClear();
            Iovecs vec(100);
            std::uint32_t tokens = budget;
            const std::uint32_t rc = MBUF_HPC_Packet2Vector_fl(vec.data(), &tokens, pkt, "hpc", 7);
            ASSERT_EQ(rc, verdict.empty() ? MBUF_OK : MBUF_ERR_TOO_SMALL);
            if (rc != MBUF_OK) {
                EXPECT_EQ(DiagTexts(), std::vector<std::string>{verdict});
                EXPECT_EQ(tokens, budget);
                MBUF_Destroy(pkt);
                continue;
            }
            EXPECT_TRUE(DiagTexts().empty());
            ASSERT_EQ(tokens, model.size());
            for (std::uint32_t i = 0; i < tokens; ++i) {
                EXPECT_EQ(vec[i].pBuf, model[i].pBuf) << "entry " << i;
                EXPECT_EQ(vec[i].ulLen, model[i].ulLen) << "entry " << i;
                KRM_HOST_BUF_INFO_S info{};
                ASSERT_EQ(KRM_HOST_BufferInfo(vec[i].pBuf, &info), 0u);
                EXPECT_EQ(info.ulCtrlFlag, model[i].ulRsv) << "entry " << i;
            }
            EXPECT_EQ((pkt->ulFlag & MBUF_FLAG_CTLINFO_SENT) != 0, separateBlock);
            ExpectRoundTrip(pkt, vec, tokens);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, HpcShapeTest, ::testing::ValuesIn(StandardShapes()),
                         [](const auto &p) { return p.param.name; });

using HpcRebuildTest = HostTest;

// Copies of the vector of a packet of an inline head and an external second
// node, the original gone.
struct Received {
    Iovecs pieces = Iovecs(90);
    std::uint32_t count = 90;

    Received() {
        MBUF_S *pkt =
            BuildPacket({InlineNode(100, 8), ClusterNode(700, 16), InlineNode(40)}, false);
        EXPECT_EQ(MBUF_HPC_Packet2Vector_fl(pieces.data(), &count, pkt, "hpc", 1), 0u);
        pieces = CopyPieces(pieces, count);
        MBUF_Destroy(pkt);
    }
    MBUF_S *Node(std::uint32_t i) const { return static_cast<MBUF_S *>(pieces[i].pBuf); }
    void *Inside(std::uint32_t i, std::uint32_t off) {
        return static_cast<std::uint8_t *>(pieces[i].pBuf) + off;
    }
};

TEST_F(HpcRebuildTest, LiesInTheEntriesAreRefusedWithTheirCodesAndNothingIsFreed) {
    using R = Received;
    constexpr std::uint32_t kBad = MBUF_ERR_INVALID_MBUF, kExt = MBUF_ERR_EXT_MISSING;
    const struct {
        const char *what;
        void (*apply)(Received &);
        std::uint32_t rc;
    } lies[] = {
        {"head magic", [](R &r) { r.Node(0)->ucMagic = MBUF_MAGIC_DEAD; }, kBad},
        {"no entries", [](R &r) { r.count = 0; }, kBad},
        {"head not a node buffer", [](R &r) { r.pieces[0].pBuf = r.Inside(0, 4); }, kBad},
        {"external buffer's entry cut off", [](R &r) { r.count = 2; }, kExt},
        {"external data past its buffer", [](R &r) { r.Node(1)->ulRsv2 = 1900; }, kExt},
        {"further node inside another", [](R &r) { r.pieces[3].pBuf = r.Inside(0, 8); },
         MBUF_ERR_NULL_MBUF},
    };
    for (const auto &lie : lies) {
        Received r;
        Iovecs originals = r.pieces;
        lie.apply(r);
        MBUF_S *out = nullptr;
        EXPECT_EQ(MBUF_HPC_Vector2Packet_fl(&out, r.pieces.data(), r.count, "hpc", 3), lie.rc)
            << lie.what;
        EXPECT_EQ(out, nullptr) << lie.what;
        FreePieces(originals);  // nothing was freed or taken: every piece is the caller's
    }
}

// A peer whose head data runs past the inline room: the receiver moves it
// into a buffer of its own, keeping its distance from the data area.
TEST_F(HpcRebuildTest, AHeadWhoseDataRunsPastItsRoomMovesToABufferOrFailsCleanly) {
    std::unique_ptr<Received> r;
    std::vector<std::uint8_t> data;
    MBUF_S *out = nullptr;
    std::uint32_t rc = 0;
    const SweepResult sweep = FaultSweep({
        [&] {
            r = std::make_unique<Received>();
            r->Node(0)->ulRsv2 = 600;
            r->Node(0)->ulDataLen = 300;
            const auto *node = static_cast<const std::uint8_t *>(r->pieces[0].pBuf);
            data.assign(node + 600, node + 900);
            out = nullptr;
        },
        [&] { return (rc = MBUF_HPC_Vector2Packet_fl(&out, r->pieces.data(), 1, "hpc", 5)) == 0; },
        [&] {
            EXPECT_EQ(rc, MBUF_ERR_NOMEM);
            EXPECT_EQ(out, nullptr);
            EXPECT_EQ(r->Node(0)->ulFlag & MBUF_EXT, 0u);
            FreePieces(r->pieces);
        },
        [&] {
            ASSERT_EQ(out, r->Node(0));
            EXPECT_NE(out->ulFlag & MBUF_EXT, 0u);
            EXPECT_EQ(out->pucData, out->pucExtBuf + 100);
            EXPECT_EQ(std::vector<std::uint8_t>(out->pucData, out->pucData + out->ulDataLen), data);
            MBUF_Destroy(out);  // the head and the buffer it was given
            r->pieces.erase(r->pieces.begin());
            FreePieces(r->pieces);
        },
    });
    EXPECT_EQ(sweep.failedRuns, 1u);
}

}  // namespace
}  // namespace krm::test
