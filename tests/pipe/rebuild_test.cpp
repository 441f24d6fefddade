// The rebuild walk on its own: its edge cases, the refusals where the
// sender's words would lead outside the pieces, and control blocks of older
// and newer layouts. Random corruption of carried pieces is the pipe fuzz
// harness's.
#include <cstring>

#include "fault_sweep.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"
#include "pipe_support.h"

namespace krm::test {
namespace {

constexpr std::uint32_t kMax = MBUF_PIPE_MAX_IOVEC;
const std::vector<RecordRow> kBlockRecords = {{3, 24}, {5, 120}, {9, 200}, {14, 40}, {19, 12}};

// A packet described in the data-end layout and carried to fresh buffers.
struct Carried {
    Snapshot sent;
    std::vector<void *> pieces;

    MBUF_S *Node(std::size_t i) const { return static_cast<MBUF_S *>(pieces[i]); }
    std::uint32_t Receive(RecvFn receive, MBUF_S **out) {
        MBUF_TRANS_DESC_S desc = RecvDesc(pieces, pieces.size());
        *out = nullptr;
        return receive(out, &desc);
    }
};

Carried CarryPacket(const std::vector<NodeRow> &rows, const std::vector<RecordRow> &records,
                    std::uint32_t seed = 1) {
    MBUF_S *m = BuildChain(rows, seed);
    Decorate(m, records, seed);
    Carried c{Snap(m), {}};
    MBUF_IOVEC_S v[kMax];
    MBUF_TRANS_DESC_S desc{0, v};
    MBUF_UpdateMbufListByteOrderType(m);
    EXPECT_EQ(MBUF_SendTrans2_fl(m, &desc, "rebuild_test", 1), MBUF_OK);
    c.pieces = Carry(v, desc.ulNum);
    return c;
}

class RebuildTest : public HostTest {
  protected:
    void TearDown() override {
        ReleaseAllLive();
        HostTest::TearDown();
    }
};

// Faults both receives answer alike: the change to the carried pieces, the
// code, and the report (line, text) when the refusal bounds the walk.
struct FaultRow {
    const char *name;
    std::vector<NodeRow> rows;
    void (*spoil)(Carried &);
    std::uint32_t rc;
    std::uint32_t line;  // 0: no report
    const char *text;
};

void *Block(std::uint32_t len) {
    const MBUF_FILE_LINE_S fl{"t", 1};
    return MBUF_MemAlloc_fl(len, kTestModule, &fl);
}

const NodeRow kIn50 = InlineNode(50);
const NodeRow kCl500 = ClusterNode(500);
const std::vector<NodeRow> kTwo = {InlineNode(5), InlineNode(6)};

// clang-format off
const FaultRow kFaultRows[] = {
    {"bad magic", {kIn50}, [](Carried &c) { c.Node(0)->ucMagic = 0xBB; }, 1002, 0, ""},
    {"no header bit", {kIn50}, [](Carried &c) { c.Node(0)->ulFlag &= ~MBUF_PKTHDR; }, 1002, 0, ""},
    {"head not a whole node", {kIn50},
     [](Carried &c) { c.pieces[0] = std::memcpy(Block(600), c.pieces[0], 600); },
     1002, 371, "Mbuf Recv: head not in a node buffer"},
    {"no pieces", {kIn50}, [](Carried &c) { c.pieces.clear(); }, 1002, 361, "Mbuf Recv: no head piece"},
    {"ext piece null", {kCl500}, [](Carried &c) { c.pieces[1] = nullptr; }, 1010, 0, ""},
    {"ext piece past count", {kCl500}, [](Carried &c) { c.pieces.resize(1); },
     1010, 447, "Mbuf Recv: no ext piece 1 of 1"},
    {"ext data past its piece", {ClusterNode(500, 10)}, [](Carried &c) { c.Node(0)->ulDataLen = 1951; },
     1010, 458, "Mbuf Recv: ext data 10+1951 out of 1960"},
    {"ext offset wrapping", {kCl500}, [](Carried &c) { c.Node(0)->ulRsv2 = 0xFFFFFF00u; },
     1010, 458, "Mbuf Recv: ext data 4294967040+500 out of 1960"},
    {"further node null", kTwo, [](Carried &c) { c.pieces[1] = nullptr; }, 1000, 0, ""},
    {"further node short", kTwo, [](Carried &c) { c.pieces[1] = Block(100); },
     1000, 478, "Mbuf Recv: node not in a node buffer"},
    {"node linked twice", {InlineNode(5), InlineNode(6), InlineNode(7)},
     [](Carried &c) { c.pieces[2] = c.pieces[1]; }, 1000, 517, "Mbuf Recv: node 2 linked twice"},
    {"head linked again", kTwo, [](Carried &c) { c.pieces[1] = c.pieces[0]; },
     1000, 517, "Mbuf Recv: node 1 linked twice"},
    {"block flag without a block", {InlineNode(5)},
     [](Carried &c) { c.Node(0)->ulFlag |= MBUF_FLAG_CTLINFO_SENT; c.pieces.push_back(nullptr); },
     1000, 408, "Mbuf Recv: bad tag piece 1"},
};
// clang-format on

TEST_F(RebuildTest, RefusalsOfBothReceives) {
    for (const auto &[recvName, receive] : kReceives) {
        for (const FaultRow &row : kFaultRows) {
            SCOPED_TRACE(std::string(recvName) + ": " + row.name);
            Carried c = CarryPacket(row.rows, {});
            row.spoil(c);
            KRM_HOST_ReportClear();
            MBUF_S *out = nullptr;
            EXPECT_EQ(c.Receive(receive, &out), row.rc);
            EXPECT_EQ(out, nullptr);
            std::vector<Report> want;
            if (row.line != 0) {
                want.push_back(AssertReport("krm_mbuf_trans", row.line, row.text));
            }
            EXPECT_EQ(Reports(), want);
            ReleaseAllLive();
        }
    }
}

// The two node marks count as this host's order; a one-piece packet is
// re-based in place; a block flag with one piece leaves the head as it is,
// with its inline block, so that destroying it releases the node once (as a
// fuzzed head with the external flag, no buffer and 1400 bytes once showed).
TEST_F(RebuildTest, MarksOnePieceAndLoneBlockFlag) {
    for (const auto &[recvName, receive] : kReceives) {
        SCOPED_TRACE(recvName);
        for (std::uint8_t mark : {0xAA, 0xBB}) {
            Carried c = CarryPacket({InlineNode(80, 12)}, {{3, 24}});
            c.Node(0)->ucByteOrder = mark;
            MBUF_S *out = nullptr;
            ASSERT_EQ(c.Receive(receive, &out), 0u);
            EXPECT_EQ(Snap(out), c.sent) << "not converted";
            EXPECT_EQ(std::tuple(out->pucData, out->ulRsv2, out->ulRsv0),
                      std::tuple(out->aucHdrInlineData + 12, 0u, 0u));
            MBUF_Destroy(out);
        }
        for (const bool ext : {false, true}) {
            Carried c = CarryPacket({InlineNode(80, 12)}, {});
            const std::uint32_t offset = c.Node(0)->ulRsv2;
            c.Node(0)->ulFlag |= MBUF_FLAG_CTLINFO_SENT | (ext ? MBUF_EXT : 0u);
            c.Node(0)->ulDataLen = ext ? 1400 : 80;
            MBUF_S *out = nullptr;
            ASSERT_EQ(c.Receive(receive, &out), 0u);
            EXPECT_EQ(std::tuple(out, out->ulRsv2, out->ulFlag & MBUF_FLAG_CTLINFO_SENT),
                      std::tuple(c.Node(0), offset, 0u))
                << "not re-based";
            EXPECT_EQ(out->pstCtlInfo, &out->stCtlInfo.stBlk);
            KRM_HOST_ReportClear();
            MBUF_Destroy(out);
            EXPECT_EQ(Reports(),
                      ext ? std::vector{AssertReport("mbuf_uipc_mbuf", 132,
                                                     "MBUF_FreeExtInfoAndMbuf: ext_buf is null")}
                          : std::vector<Report>{});
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
        }
    }
}

// A receive that fails after it allocated (an external buffer for head data
// past the inline area, an upgraded block) releases what it allocated and
// leaves every piece live with the caller, the received block included.
TEST_F(RebuildTest, AFailedReceiveLeavesOnlyThePieces) {
    for (const bool oldBlock : {false, true}) {
        SCOPED_TRACE(oldBlock ? "block of 20 slots" : "inline block");
        Carried c = CarryPacket({InlineNode(80), InlineNode(6)},
                                oldBlock ? kBlockRecords : std::vector<RecordRow>{});
        c.Node(0)->ulRsv2 = 800;  // 800 + 80 bytes: past the inline area
        c.pieces[1] = nullptr;
        if (oldBlock) {
            static_cast<MBUF_CONTROL_BLK_S *>(c.pieces.back())->ucSlotNum = 20;
        }
        const std::uint32_t live = KRM_HOST_LiveBufferCount();
        MBUF_S *out = nullptr;
        EXPECT_EQ(c.Receive(MBUF_RcvTrans, &out), 1000u);
        EXPECT_EQ(std::tuple(out, KRM_HOST_LiveBufferCount()), std::tuple(nullptr, live));
        for (void *piece : c.pieces) {
            EXPECT_TRUE(piece == nullptr || SiteOf(piece) != Site{}) << "still live";
        }
    }
}

// Data placed past the inline area: the normal receive moves it to a new
// external buffer (1008 when none can be had, nothing left behind); the
// read-only receive refuses with its report, for the head and further nodes.
TEST_F(RebuildTest, DataBeyondTheInlineArea) {
    auto spoil = [](Carried &c, std::size_t node) {
        MBUF_S *n = c.Node(node);
        c.Node(0)->ulTotalDataLen += 400 - n->ulDataLen;
        n->ulRsv2 = 520;
        n->ulDataLen = 400;
        std::memcpy(reinterpret_cast<std::uint8_t *>(n) + 520, Pattern(400, 7).data(), 400);
    };
    const struct {
        std::size_t node;
        std::uint32_t line;
        const char *text;
    } rows[] = {{0, 387, "Mbuf Recv: mBufTop need alloc ext buf"},
                {1, 492, "Mbuf Recv: need alloc ext buf"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.node);
        Carried ro = CarryPacket({InlineNode(30), InlineNode(40)}, {});
        spoil(ro, row.node);
        KRM_HOST_ReportClear();
        MBUF_S *out = nullptr;
        EXPECT_EQ(ro.Receive(MBUF_RcvTransReadOnly, &out), MBUF_ERR_CANNOT_PROCEED);
        EXPECT_EQ(Reports(),
                  std::vector<Report>{AssertReport("krm_mbuf_trans", row.line, row.text)});
        ReleaseAllLive();

        Carried c;
        MBUF_S *got = nullptr;
        FaultSweep({[&] {
                        c = CarryPacket({InlineNode(30), InlineNode(40)}, {});
                        spoil(c, row.node);
                    },
                    [&] {
                        const std::uint32_t rc = c.Receive(MBUF_RcvTrans, &got);
                        EXPECT_TRUE(rc == 0 || rc == MBUF_ERR_NOMEM) << rc;
                        return rc == 0;
                    },
                    [&] { ReleaseAllLive(); },
                    [&] {
                        ExpectValid(got);
                        std::vector<MBUF_S *> nodes{got, got->pstNext};
                        EXPECT_NE(nodes[row.node]->ulFlag & MBUF_EXT, 0u);
                        const std::uint8_t *p = nodes[row.node]->pucData;
                        EXPECT_EQ(Bytes(p, p + 400), Pattern(400, 7));
                        MBUF_Destroy(got);
                    }});
    }
}

// Rewrites a carried 23-slot block into the layout of a peer with N slots:
// the directory shrinks or grows, the records move with it, and slots the
// peer does not have are gone.
void Relayout(MBUF_CONTROL_BLK_S *blk, std::uint32_t n) {
    const std::uint32_t used = blk->usUsedLen;
    Bytes area(used);
    std::memcpy(area.data(), reinterpret_cast<std::uint8_t *>(blk) + 184, used);
    MBUF_CTL_SLOT_S slots[MBUF_CTL_TYPE_NUM];
    std::memcpy(slots, blk->astSlot, sizeof(slots));
    auto *base = reinterpret_cast<std::uint8_t *>(blk);
    std::memset(base + 92, 0, 4 * n);
    std::uint8_t recs = 0;
    for (std::uint32_t i = 0; i < std::min<std::uint32_t>(n, MBUF_CTL_TYPE_NUM); ++i) {
        if (slots[i].usOffset != 0) {
            MBUF_CTL_SLOT_S s{static_cast<std::uint16_t>(slots[i].usOffset + 4 * n - 92),
                              slots[i].usLen};
            std::memcpy(base + 92 + 4 * i, &s, sizeof(s));
            ++recs;
        }
    }
    std::memcpy(base + 92 + 4 * n, area.data(), used);
    blk->ucSlotNum = static_cast<std::uint8_t>(n);
    blk->ucRecNum = recs;
}

TEST_F(RebuildTest, BlocksOfOtherSlotCounts) {
    const struct {
        std::uint32_t slots;
        bool upgraded;
    } rows[] = {{19, false}, {20, true}, {22, true}, {23, false}, {50, true}, {51, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.slots);
        Carried c = CarryPacket({InlineNode(64)}, kBlockRecords);
        // Room for the widest directory: the block moves to a larger piece.
        void *big = std::memset(Block(2048), 0, 2048);
        std::memcpy(big, c.pieces.back(), KRM_DbufLengthGET(c.pieces.back()));
        ASSERT_EQ(MBUF_MemFree_fl(c.pieces.back(), nullptr), 0u);
        c.pieces.back() = big;
        auto *blk = static_cast<MBUF_CONTROL_BLK_S *>(big);
        if (row.slots != 23) {
            Relayout(blk, row.slots);
        }
        MBUF_S *out = nullptr;
        ASSERT_EQ(c.Receive(MBUF_RcvTrans, &out), 0u);
        if (row.upgraded || row.slots == 23) {
            EXPECT_EQ(out->pstCtlInfo->ucSlotNum, MBUF_CTL_TYPE_NUM);
            Snapshot expect = c.sent;
            std::erase_if(expect.records, [&](const auto &r) { return r.first >= row.slots; });
            EXPECT_EQ(Snap(out), expect);
            ExpectValid(out);
        } else {
            EXPECT_EQ(out->pstCtlInfo, blk);
            EXPECT_EQ(blk->ucSlotNum, row.slots);
        }
        MBUF_Destroy(out);
        if (row.upgraded) {
            // The read-only receive will not upgrade.
            Carried r = CarryPacket({InlineNode(64)}, kBlockRecords);
            static_cast<MBUF_CONTROL_BLK_S *>(r.pieces.back())->ucSlotNum =
                static_cast<std::uint8_t>(row.slots);
            KRM_HOST_ReportClear();
            EXPECT_EQ(r.Receive(MBUF_RcvTransReadOnly, &out), MBUF_ERR_CANNOT_PROCEED);
            EXPECT_EQ(Reports(), std::vector<Report>{AssertReport("krm_mbuf_trans", 423,
                                                                  "Mbuf Recv: tag num need issu")});
            ReleaseAllLive();
        }
    }
}

}  // namespace
}  // namespace krm::test
