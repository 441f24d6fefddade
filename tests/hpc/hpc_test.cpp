// Packets to forwarding vectors and back. A model of the piece list (what
// each node and the control block contribute) decides, for every shape and
// budget, whether the conversion succeeds, where it stops and what it logs;
// round trips go through fresh copies of the pieces, as a receiver holds
// them, and must give back the same data and control block.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "chain_builder.h"
#include "fault_sweep.h"
#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"

namespace krm::test {
namespace {

constexpr std::uint32_t kPriority = 0x1A5;  // wider than a byte on purpose
constexpr std::uint32_t kBlockRecord = 9;   // a record that moves the block out of the head

struct ExpectedPiece {
    const void *buf;
    std::uint32_t len;
    std::uint32_t stamp;
};

// The pieces a packet should turn into, computed from its nodes.
std::vector<ExpectedPiece> ModelPieces(MBUF_S *pkt) {
    std::vector<ExpectedPiece> out;
    for (MBUF_S *node = pkt; node != nullptr; node = node->pstNext) {
        if ((node->ulFlag & MBUF_EXT) != 0) {
            out.push_back({node, 520, kPriority});
            const auto off = static_cast<std::uint32_t>(node->pucData - node->pucExtBuf);
            out.push_back({node->pucExtBuf, off + node->ulDataLen, kPriority});
        } else {
            const auto off =
                static_cast<std::uint32_t>(node->pucData - reinterpret_cast<std::uint8_t *>(node));
            out.push_back({node, off + node->ulDataLen, kPriority});
        }
    }
    if (pkt->pstCtlInfo != &pkt->stCtlInfo.stBlk) {
        out.push_back(
            {pkt->pstCtlInfo, MBUF_CTL_FIXED_LEN + pkt->pstCtlInfo->usUsedLen, kPriority & 0xFFu});
    }
    return out;
}

MBUF_S *BuildPacket(const std::vector<NodeRow> &rows, bool separateBlock) {
    MBUF_S *pkt = BuildChain(rows, 4);
    if (pkt != nullptr) {
        MBUF_SetPktPriority(pkt, kPriority);
        if (separateBlock) {
            EXPECT_EQ(MBUF_CreateControlInfo(pkt, kBlockRecord, 600, kTestModule), 0u);
        }
    }
    return pkt;
}

struct Verdict {
    std::uint32_t rc;
    std::string log;  // the logged text, empty on success
};

// Where a budget stops the conversion: the first node whose entries do not
// stay below it, else the control block, else nowhere.
Verdict ModelVerdict(MBUF_S *pkt, std::uint32_t budget) {
    const std::uint32_t b = budget > 90 ? 90 : budget;
    std::uint32_t count = 0;
    for (MBUF_S *node = pkt; node != nullptr; node = node->pstNext) {
        const std::uint32_t need = (node->ulFlag & MBUF_EXT) != 0 ? 2 : 1;
        if (count + need >= b) {
            return {MBUF_ERR_TOO_SMALL, "Packet2VectorData tokenNum(" + std::to_string(count) +
                                            ") is error, beyond max(" + std::to_string(b) + ")"};
        }
        count += need;
    }
    if (pkt->pstCtlInfo != &pkt->stCtlInfo.stBlk && count + 1 >= b) {
        return {MBUF_ERR_TOO_SMALL, "Packet2VectorTag tokenNum(" + std::to_string(count) +
                                        ") is error, beyond max(" + std::to_string(b) + ")"};
    }
    return {MBUF_OK, ""};
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

class HpcShapeTest : public HostTest, public ::testing::WithParamInterface<ChainShape> {};

TEST_P(HpcShapeTest, BudgetsDecideExactlyAsTheModelAndSuccessGivesTheModelsPieces) {
    for (bool separateBlock : {false, true}) {
        MBUF_S *probe = BuildPacket(GetParam().nodes, separateBlock);
        ASSERT_NE(probe, nullptr);
        const std::uint32_t entries = static_cast<std::uint32_t>(ModelPieces(probe).size());
        MBUF_Destroy(probe);
        for (std::uint32_t budget : {0u, 1u, entries - 1, entries, entries + 1, 90u, 500u}) {
            MBUF_S *pkt = BuildPacket(GetParam().nodes, separateBlock);
            const std::vector<ExpectedPiece> model = ModelPieces(pkt);
            const Verdict verdict = ModelVerdict(pkt, budget);
            KRM_HOST_ReportClear();
            std::vector<MBUF_IOVEC_S> vec(100);
            std::uint32_t tokens = budget;
            const std::uint32_t rc = MBUF_HPC_Packet2Vector_fl(vec.data(), &tokens, pkt, "hpc", 7);
            SCOPED_TRACE("budget " + std::to_string(budget) +
                         (separateBlock ? ", separate block" : ""));
            ASSERT_EQ(rc, verdict.rc);
            if (rc != MBUF_OK) {
                EXPECT_EQ(DiagTexts(), std::vector<std::string>{verdict.log});
                EXPECT_EQ(tokens, budget);
            } else {
                EXPECT_TRUE(DiagTexts().empty());
                ASSERT_EQ(tokens, model.size());
                for (std::uint32_t i = 0; i < tokens; ++i) {
                    EXPECT_EQ(vec[i].pBuf, model[i].buf) << "entry " << i;
                    EXPECT_EQ(vec[i].ulLen, model[i].len) << "entry " << i;
                    KRM_HOST_BUF_INFO_S info{};
                    ASSERT_EQ(KRM_HOST_BufferInfo(vec[i].pBuf, &info), 0u);
                    EXPECT_EQ(info.ulCtrlFlag, model[i].stamp) << "entry " << i;
                }
                EXPECT_EQ((pkt->ulFlag & MBUF_FLAG_CTLINFO_SENT) != 0, separateBlock);
            }
            pkt->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
            MBUF_Destroy(pkt);
        }
    }
}

// The pieces as a receiver holds them: fresh buffers of the sender's sizes
// holding the bytes each entry names, the entries' lengths kept.
std::vector<MBUF_IOVEC_S> CopyPieces(const std::vector<MBUF_IOVEC_S> &vec, std::uint32_t count) {
    std::vector<MBUF_IOVEC_S> out(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        MBUF_IOVEC_S req{nullptr, KRM_DbufLengthGET(vec[i].pBuf), 0};
        EXPECT_EQ(KRM_DbufIovecAlloc_F(kTestModule, 1, &req, "hpc_test", __LINE__), 0u);
        std::memset(req.pBuf, 0x5C, req.ulLen);
        std::memcpy(req.pBuf, vec[i].pBuf, vec[i].ulLen);
        out[i] = {req.pBuf, vec[i].ulLen, 0};
    }
    return out;
}

void FreePieces(std::vector<MBUF_IOVEC_S> &pieces) {
    (void)KRM_DbufIovecFree_F(static_cast<std::uint32_t>(pieces.size()), pieces.data(), "hpc_test",
                              __LINE__);
}

std::vector<std::uint8_t> BlockBytes(const MBUF_S *pkt) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(pkt->pstCtlInfo);
    return {p, p + MBUF_CTL_FIXED_LEN + pkt->pstCtlInfo->usUsedLen};
}

TEST_P(HpcShapeTest, RoundTripThroughCopiedPiecesGivesTheSamePacket) {
    for (bool separateBlock : {false, true}) {
        MBUF_S *pkt = BuildPacket(GetParam().nodes, separateBlock);
        ASSERT_NE(pkt, nullptr);
        const std::vector<std::uint8_t> data = Flatten(pkt);
        std::vector<MBUF_IOVEC_S> vec(90);
        std::uint32_t tokens = 90;
        ASSERT_EQ(MBUF_HPC_Packet2Vector_fl(vec.data(), &tokens, pkt, "hpc", 9), 0u);
        const std::vector<std::uint8_t> block = BlockBytes(pkt);
        std::vector<MBUF_IOVEC_S> copies = CopyPieces(vec, tokens);
        pkt->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
        MBUF_Destroy(pkt);

        MBUF_S *back = nullptr;
        ASSERT_EQ(MBUF_HPC_Vector2Packet_fl(&back, copies.data(), tokens, "hpc", 11), 0u);
        ASSERT_EQ(back, copies[0].pBuf);
        EXPECT_EQ(Flatten(back), data);
        EXPECT_EQ(BlockBytes(back), block);
        // An external node's size is the length of the entry after its
        // buffer's own; where none follows, its buffer's real size.
        std::uint32_t at = 0;
        for (MBUF_S *node = back; node != nullptr; node = node->pstNext) {
            at += (node->ulFlag & MBUF_EXT) != 0 ? 2 : 1;
            if ((node->ulFlag & MBUF_EXT) != 0) {
                const std::uint32_t want =
                    at < tokens ? copies[at].ulLen : KRM_DbufLengthGET(node->pucExtBuf);
                EXPECT_EQ(node->ulExtSize, want) << "node ending at entry " << at;
                node->ulExtSize =
                    KRM_DbufLengthGET(node->pucExtBuf);  // sound again for the checks below
            }
        }
        back->ulTotalDataLen = static_cast<std::uint32_t>(data.size());
        ExpectValid(back);
        MBUF_Destroy(back);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, HpcShapeTest, ::testing::ValuesIn(StandardShapes()),
                         [](const ::testing::TestParamInfo<ChainShape> &p) {
                             return p.param.name;
                         });

using HpcRebuildTest = HostTest;

// A vector of a packet of an inline head and an external second node, its
// copies, and the original gone.
struct Received {
    std::vector<MBUF_IOVEC_S> pieces;
    std::uint32_t count = 0;

    Received() {
        MBUF_S *pkt =
            BuildPacket({InlineNode(100, 8), ClusterNode(700, 16), InlineNode(40)}, false);
        std::vector<MBUF_IOVEC_S> vec(90);
        count = 90;
        EXPECT_EQ(MBUF_HPC_Packet2Vector_fl(vec.data(), &count, pkt, "hpc", 1), 0u);
        pieces = CopyPieces(vec, count);
        MBUF_Destroy(pkt);
    }
    MBUF_S *Node(std::uint32_t i) const { return static_cast<MBUF_S *>(pieces[i].pBuf); }
};

TEST_F(HpcRebuildTest, LiesInTheEntriesAreRefusedWithTheirCodesAndNothingIsFreed) {
    struct Lie {
        const char *what;
        void (*apply)(Received &);
        std::uint32_t rc;
    };
    const Lie lies[] = {
        {"head magic", [](Received &r) { r.Node(0)->ucMagic = MBUF_MAGIC_DEAD; },
         MBUF_ERR_INVALID_MBUF},
        {"no entries", [](Received &r) { r.count = 0; }, MBUF_ERR_INVALID_MBUF},
        {"head not a node buffer",
         [](Received &r) { r.pieces[0].pBuf = static_cast<std::uint8_t *>(r.pieces[0].pBuf) + 4; },
         MBUF_ERR_INVALID_MBUF},
        {"external buffer's entry cut off", [](Received &r) { r.count = 2; }, MBUF_ERR_EXT_MISSING},
        {"external buffer's entry null", [](Received &r) { r.pieces[2].pBuf = nullptr; },
         MBUF_ERR_EXT_MISSING},
        {"external data past its buffer", [](Received &r) { r.Node(1)->ulRsv2 = 1900; },
         MBUF_ERR_EXT_MISSING},
        {"further node null", [](Received &r) { r.pieces[3].pBuf = nullptr; }, MBUF_ERR_NULL_MBUF},
        {"further node inside another buffer",
         [](Received &r) { r.pieces[3].pBuf = static_cast<std::uint8_t *>(r.pieces[0].pBuf) + 8; },
         MBUF_ERR_NULL_MBUF},
    };
    for (const Lie &lie : lies) {
        Received r;
        std::vector<MBUF_IOVEC_S> originals = r.pieces;
        lie.apply(r);
        MBUF_S *out = nullptr;
        EXPECT_EQ(MBUF_HPC_Vector2Packet_fl(&out, r.pieces.data(), r.count, "hpc", 3), lie.rc)
            << lie.what;
        EXPECT_EQ(out, nullptr) << lie.what;
        // Nothing was freed or taken: every piece is still the caller's.
        FreePieces(originals);
    }
}

TEST_F(HpcRebuildTest, AHeadWhoseDataRunsPastItsRoomMovesToABufferOrFailsCleanly) {
    // A peer whose head data runs past the inline room: the receiver moves
    // it into a buffer of its own, keeping its distance from the data area.
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
        [&] {
            rc = MBUF_HPC_Vector2Packet_fl(&out, r->pieces.data(), 1, "hpc", 5);
            return rc == MBUF_OK;
        },
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
