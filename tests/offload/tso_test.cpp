// Segmentation against the segment model: every frame kind on every split
// of its source, the boundary cases of the cut, the refusals before any
// segment is made, the rollback when any allocation fails, and the TLV and
// control-record steps with their reports.
#include <cstring>

#include "internal/bytes.h"
#include "mbuf_check.h"
#include "offload_test.h"

namespace krm::test {
namespace {

class TsoTest : public HostTest {};

constexpr std::uint32_t kTransmitRec = 7;

struct Made {
    FramePlan plan;
    Bytes frame;
    Bytes dst;
    MBUF_S *pkt = nullptr;
};

// A source packet for plan on the given split, its TLV naming dst (the
// header's own destination when dst is empty).
Made MakeSource(const FramePlan &plan, const std::vector<std::uint32_t> &sizes, Bytes dst = {}) {
    Made m{plan, BuildFrame(plan), {}, nullptr};
    m.dst = dst.empty() ? HeaderDst(plan, m.frame) : dst;
    m.pkt = PacketOf(m.frame, sizes);
    if (m.pkt != nullptr) {
        SetTsoTlv(m.pkt, plan, m.dst);
    }
    return m;
}

Report Tso(std::uint32_t line, const std::string &text) {
    return AssertReport("krm_mbuf_tso", line, text);
}

// The segments equal the model's, each sound and carrying the metadata;
// all are destroyed.
void ExpectSegments(MBUF_S **segs, std::uint32_t count, const std::vector<Bytes> &want,
                    const std::string &what) {
    ASSERT_EQ(count, want.size()) << what;
    const MBUF_CTL_TLV_S key{MBUF_TSO_TLV_TYPE, MBUF_TSO_TLV_LEN};
    for (std::uint32_t i = 0; i < count; ++i) {
        ExpectValid(segs[i]);
        EXPECT_EQ(Flatten(segs[i]), want[i]) << what << " segment " << i;
        EXPECT_EQ(MBUF_GetTotalDataLength(segs[i]), want[i].size());
        EXPECT_NE(MBUF_GetTlvInfo(segs[i], &key), nullptr) << "metadata travels with each segment";
        MBUF_Destroy(segs[i]);
    }
}

// Cuts m's source into at most `capacity` segments and compares them with
// the model; the source is gone afterwards.
void ExpectModelSegments(Made &m, std::uint32_t capacity, const std::string &what) {
    std::vector<MBUF_S *> segs(capacity, nullptr);
    std::uint32_t count = 12345;
    const auto bytes = static_cast<std::uint32_t>(capacity * sizeof(MBUF_S *));
    ASSERT_EQ(MBUF_TSO_GetMbuf(m.pkt, segs.data(), bytes, &count, kModule), 0u) << what;
    ExpectSegments(segs.data(), count, ModelSegments(m.plan, m.frame, m.dst, capacity), what);
    m.pkt = nullptr;
}

struct FrameRow {
    const char *name;
    FramePlan plan;
};

const FrameRow kFrames[] = {
    {"V4ThreeFull", {4, 14, 20, 20, 3 * 1448, 1448, 0x18}},
    {"V4OneMore", {4, 14, 20, 20, 3 * 1448 + 1, 1448, 0x19}},
    {"V4OneByte", {4, 0, 20, 32, 1, 536, 0x10}},
    {"V4OptionsOddMss", {4, 3, 28, 24, 5000, 999, 0x18}},
    {"V4BelowMss", {4, 14, 20, 20, 700, 1448, 0x18}},
    {"V6ThreeFull", {6, 14, 40, 20, 3 * 1440, 1440, 0x18}},
    {"V6OneMore", {6, 0, 40, 32, 2 * 1220 + 1, 1220, 0x19}},
    {"V6ExtHeader", {6, 5, 56, 20, 4001, 1000, 0x18}},
    // A TCP length claimed below 18 puts the checksum field in the payload.
    {"V4ShortTcpClaim", {4, 14, 20, 8, 3 * 500 + 50, 500, 0x18}},
    {"V6ShortTcpClaim", {6, 14, 40, 12, 3 * 500 + 50, 500, 0x18}},
};

TEST_F(TsoTest, SegmentsMatchTheModelOnEverySplit) {
    for (const FrameRow &row : kFrames) {
        for (const Split &split : Splits()) {
            Made m = MakeSource(row.plan, split.sizes);
            ASSERT_NE(m.pkt, nullptr);
            ExpectModelSegments(m, 64, std::string(row.name) + "/" + split.name);
        }
    }
    EXPECT_TRUE(Reports().empty());
}

// The edges of the cut: the largest packets, whose sequence number and
// identification wrap; a TLV address other than the header's (the IPv6
// checksum takes it); an array too small, which keeps what fits and drops
// the rest; a header of exactly 512 bytes (long link bytes the TLV counts).
TEST_F(TsoTest, EdgesOfTheCutMatchTheModel) {
    Bytes other(16, 0);
    other[0] = 0xFD;
    other[15] = 0x99;
    const struct {
        const char *name;
        FramePlan plan;
        std::vector<std::uint32_t> split;
        std::uint32_t capacity;
        Bytes dst;
    } rows[] = {
        {"64 KiB v4", {4, 14, 20, 20, 65535 - 40, 1448, 0x18}, {54, 1448 * 3 + 7, 9000, 1}, 64, {}},
        {"64 KiB v6", {6, 14, 40, 20, 65535 - 60, 1448, 0x18}, {54, 1448 * 3 + 7, 9000, 1}, 64, {}},
        {"v6 with the TLV's address", {6, 14, 40, 20, 3000, 1448, 0x18}, {100}, 8, other},
        {"capacity 2 of 5", {4, 14, 20, 20, 5 * 500, 500, 0x18}, {30}, 2, {}},
        {"capacity 1 of 5", {4, 14, 20, 20, 5 * 500, 500, 0x18}, {}, 1, {}},
        {"header of 512", {4, 512 - 40, 20, 20, 2000, 1448, 0x18}, {100, 300}, 4, {}},
    };
    for (const auto &row : rows) {
        Made m = MakeSource(row.plan, row.split, row.dst);
        ASSERT_NE(m.pkt, nullptr);
        ExpectModelSegments(m, row.capacity, row.name);
    }
}

TEST_F(TsoTest, TransmitRecordLearnsEachSegmentsLength) {
    Made m = MakeSource({4, 14, 20, 20, 2 * 1000 + 10, 1000, 0x18}, {});
    ASSERT_EQ(MBUF_CreateControlInfo(m.pkt, kTransmitRec, 16, kModule), 0u);
    MBUF_S *segs[4] = {};
    std::uint32_t count = 0;
    ASSERT_EQ(MBUF_TSO_GetMbuf(m.pkt, segs, sizeof(segs), &count, kModule), 0u);
    ASSERT_EQ(count, 3u);
    for (std::uint32_t i = 0; i < count; ++i) {
        const void *rec = MBUF_GetControlInfo(segs[i], kTransmitRec);
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(Load16At(rec, 2), i < 2 ? 1054u : 64u);
        MBUF_Destroy(segs[i]);
    }
}

// Sources that yield no segment are consumed all the same.
TEST_F(TsoTest, NoSegmentConsumesTheSource) {
    struct Row {
        const char *name;
        std::uint32_t payload;     // in the frame
        std::uint16_t tlvPayload;  // as the TLV claims
        std::uint16_t mss;
    } rows[] = {
        {"ZeroSegNum", 3000, 0, 1448}, {"ZeroMss", 3000, 3000, 0}, {"HeaderOnly", 0, 3000, 1448}};
    for (const Row &row : rows) {
        FramePlan plan{4, 14, 20, 20, row.payload, row.mss, 0x18};
        const Bytes frame = BuildFrame(plan);
        MBUF_S *pkt = PacketOf(frame, {});
        plan.payloadLen = row.tlvPayload;
        SetTsoTlv(pkt, plan, HeaderDst(plan, frame), 40 + row.payload);
        MBUF_TSO_CTL_INFO_S ctl{};
        ASSERT_EQ(MBUF_TSO_GetCtlInfo(pkt, &ctl), 0u);
        MBUF_S *segs[2] = {};
        std::uint32_t count = 7;
        EXPECT_EQ(MBUF_TSO_GetMbuf(pkt, segs, sizeof(segs), &count, kModule), 0u) << row.name;
        EXPECT_EQ(count, 0u) << row.name;
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u) << row.name << ": source destroyed";
    }
}

// Refusals before any segment: the source and the array stay as they were.
TEST_F(TsoTest, RefusalsLeaveSourceAndArrayAlone) {
    FramePlan plan{4, 14, 20, 20, 3000, 1448, 0x18};
    const Bytes frame = BuildFrame(plan);
    struct Row {
        const char *name;
        std::uint32_t ipHdrLen;  // as the TLV claims
        bool tlv;
        std::uint32_t arrayBytes;
        std::uint32_t want;
    } rows[] = {
        {"NoTlv", 20, false, 64, 1016},
        {"ArrayOf3", 20, true, 3, 1016},
        {"HeaderAbove512", 513 - 34, true, 64, 1007},
    };
    for (const Row &row : rows) {
        MBUF_S *pkt = PacketOf(frame, {7});
        FramePlan claimed = plan;
        claimed.ipHdrLen = row.ipHdrLen;
        claimed.payloadLen = 0;
        if (row.tlv) {
            SetTsoTlv(pkt, claimed, HeaderDst(plan, frame));
        }
        MBUF_S *segs[8] = {};
        std::uint32_t count = 99;
        const std::uint32_t rc = MBUF_TSO_GetMbuf(pkt, segs, row.arrayBytes, &count, kModule);
        EXPECT_EQ(rc, row.want) << row.name;
        EXPECT_EQ(segs[0], nullptr) << row.name;
        EXPECT_EQ(Flatten(pkt), frame) << row.name;
        ExpectValid(pkt);
        MBUF_Destroy(pkt);
    }
    std::uint32_t count = 0;
    MBUF_S *segs[2] = {};
    EXPECT_EQ(MBUF_TSO_GetMbuf(nullptr, segs, sizeof(segs), &count, kModule), 1016u);
    MBUF_S *pkt = PacketOf(frame, {});
    EXPECT_EQ(MBUF_TSO_GetMbuf(pkt, nullptr, sizeof(segs), &count, kModule), 1016u);
    EXPECT_EQ(MBUF_TSO_GetMbuf(pkt, segs, sizeof(segs), nullptr, kModule), 1016u);
    MBUF_Destroy(pkt);
}

// Any allocation of the cut may fail: the batch is rolled back, the source
// survives with its bytes, nothing is left behind once it is destroyed. The
// big record makes every segment copy a separate control block; the split
// header makes the header step re-pack the source (a node of its own, which
// the source keeps), so the count is checked after the source is gone. Four
// segments of node and cluster, a short last one inline; one block more per
// segment with the big record.
TEST_F(TsoTest, AllocationFailureAnywhereRollsBack) {
    const FramePlan plan{4, 14, 20, 20, 4 * 700 + 3, 700, 0x18};
    const struct {
        const char *name;
        std::vector<std::uint32_t> split;
        bool bigRecord;
    } rows[] = {{"Contiguous", {60, 900}, false},
                {"BigRecord", {60, 900}, true},
                {"SplitHeader", {20, 900}, true}};
    for (const auto &row : rows) {
        for (std::uint32_t nth = 1;; ++nth) {
            const std::string what = std::string(row.name) + " allocation " + std::to_string(nth);
            Made m = MakeSource(plan, row.split);
            ASSERT_EQ(row.bigRecord ? MBUF_CreateControlInfo(m.pkt, 5, 400, kModule) : 0, 0u);
            MBUF_S *segs[8] = {};
            std::uint32_t count = 99;
            KRM_HOST_FailNthAlloc(nth);
            const std::uint32_t rc = MBUF_TSO_GetMbuf(m.pkt, segs, sizeof(segs), &count, kModule);
            KRM_HOST_FailNthAlloc(0);
            if (rc == 0) {
                EXPECT_GT(nth, row.bigRecord ? 14u : 9u) << what;
                ExpectSegments(segs, count, ModelSegments(plan, m.frame, m.dst, 8), what);
                break;
            }
            EXPECT_TRUE(rc == 0xFFFFFFFFu || rc == 1013u) << what << " rc " << rc;
            EXPECT_EQ(count, 0u) << what;
            EXPECT_EQ(Flatten(m.pkt), m.frame) << what;
            ExpectValid(m.pkt);
            MBUF_Destroy(m.pkt);
            ASSERT_EQ(KRM_HOST_LiveBufferCount(), 0u) << what << " leaked";
        }
    }
}

TEST_F(TsoTest, ControlRecordFromTheTlv) {
    FramePlan plan{6, 10, 40, 20, 3001, 1000, 0x18};
    Made m = MakeSource(plan, {});
    MBUF_TSO_CTL_INFO_S ctl{};
    ASSERT_EQ(MBUF_TSO_GetCtlInfo(m.pkt, &ctl), 0u);
    EXPECT_EQ(ctl.usIpOffset, 10u);
    EXPECT_EQ(ctl.usIpHdrLen, 40u);
    EXPECT_EQ(ctl.usTcpHdrLen, 20u);
    EXPECT_EQ(ctl.usMss, 1000u);
    EXPECT_EQ(ctl.usSegNum, 4u);
    EXPECT_EQ(Bytes(ctl.aucDstAddr, ctl.aucDstAddr + 16), m.dst);
    MBUF_S *bare = PacketOf(m.frame, {10});
    EXPECT_EQ(MBUF_TSO_GetCtlInfo(bare, &ctl), 1018u);
    EXPECT_EQ(MBUF_TSO_GetCtlInfo(nullptr, &ctl), 1000u);
    EXPECT_EQ(MBUF_TSO_GetCtlInfo(bare, nullptr), 1000u);
    EXPECT_EQ(MBUF_TSO_GetCtlInfo(bare->pstNext, &ctl), 1002u) << "not a packet head";
    MBUF_CutTail(m.pkt, 100);  // the TLV's total length now passes the packet
    EXPECT_EQ(MBUF_TSO_GetCtlInfo(m.pkt, &ctl), 1005u);
    const std::uint32_t total = static_cast<std::uint32_t>(m.frame.size()) - 100;
    EXPECT_EQ(Reports(), (std::vector<Report>{
                             Tso(316, "Tso tlv is null."),
                             Tso(305, "Ctl is null."),
                             Tso(305, "Ctl is null."),
                             Tso(331, "Len IpTlen=" + std::to_string(total - 10 + 100) +
                                          ">Tlen=" + std::to_string(total) + "."),
                         }));
    MBUF_Destroy(bare);
    MBUF_Destroy(m.pkt);
}

// The TLV follows the packet's length; each inconsistency is reported and
// leaves the TLV as it was.
TEST_F(TsoTest, UpdateMssTlvRewritesOrReports) {
    struct Row {
        const char *name;
        std::uint16_t payload, tcp, ip, total;
        std::uint16_t wantIp, wantTotal;
        std::string report;
        std::uint32_t line;
    };
    // The packet is 1000 bytes long.
    const Row rows[] = {
        {"Rewritten", 900, 20, 10, 100, 80, 1000, "", 0},
        {"PayloadNotBelow", 1000, 20, 10, 100, 10, 100, "Tso tlv pl1000>=tl=1000", 269},
        {"WithTcpNotBelow", 980, 20, 10, 100, 10, 100, "Tso tlv pl980 + TIl=20 >=tl=1000", 275},
        {"IpTooLong", 900, 20, 81, 100, 81, 100, "IpLen=80 > OIplen=81", 282},
        {"TotalTooLong", 900, 20, 10, 1001, 80, 1001, "TLen=1000 < OTlen=1001", 289},
    };
    for (const Row &row : rows) {
        MBUF_S *pkt = PacketOf(Payload(1000), {300});
        SetTsoTlv(pkt, {4, 0, row.ip, row.tcp, row.payload, 100, 0x18}, Bytes(16), row.total);
        KRM_HOST_ReportClear();
        MBUF_TCP_TSO_UpdateMssTlv(pkt);
        const MBUF_CTL_TLV_S key{MBUF_TSO_TLV_TYPE, MBUF_TSO_TLV_LEN};
        MBUF_TSO_TLV_S after{};
        std::memcpy(&after, MBUF_GetTlvInfo(pkt, &key), sizeof(after));
        EXPECT_EQ(after.usIpHdrLen, row.wantIp) << row.name;
        EXPECT_EQ(after.usTotalLen, row.wantTotal) << row.name;
        const std::vector<Report> want = {Tso(row.line, row.report)};
        EXPECT_EQ(Reports(), row.line == 0 ? std::vector<Report>{} : want) << row.name;
        MBUF_Destroy(pkt);
    }
    MBUF_S *bare = PacketOf(Payload(10), {});
    KRM_HOST_ReportClear();
    MBUF_TCP_TSO_UpdateMssTlv(bare);
    MBUF_TCP_TSO_UpdateMssTlv(nullptr);
    EXPECT_EQ(Reports(), (std::vector<Report>{Tso(262, "Tso tlv is null.")}));
    MBUF_Destroy(bare);
}

// The steps called one by one, with arguments the cut itself never passes.
TEST_F(TsoTest, StepsRefuseWhatWouldStepOutside) {
    FramePlan plan{4, 14, 20, 20, 1000, 500, 0x18};
    Made m = MakeSource(plan, {40});
    MBUF_TSO_CTL_INFO_S ctl{};
    ASSERT_EQ(MBUF_TSO_GetCtlInfo(m.pkt, &ctl), 0u);
    std::uint8_t hdr[64];
    std::uint32_t total = 0;
    EXPECT_EQ(MBUF_TSO_CpyHdr(m.pkt, 54, hdr, &total, kModule), 0u);
    EXPECT_EQ(total, m.frame.size());
    EXPECT_TRUE(std::equal(hdr, hdr + 54, m.frame.begin()));
    EXPECT_EQ(MBUF_TSO_CpyHdr(m.pkt, 2000, hdr, &total, kModule), 1005u);
    EXPECT_EQ(MBUF_TSO_CpyHdr(nullptr, 10, hdr, &total, kModule), 1005u);

    MBUF_S *seg = MBUF_CreateForAppPacket(0, 60, 0, kModule);
    MBUF_TSO_CPY_CTX_S ctx{1050, seg, 60, hdr, &ctl};  // 6 bytes, 2 past the source
    EXPECT_EQ(MBUF_TSO_CpyDataAndModifyInfo(m.pkt, &ctx, kModule), -1);
    ctx.ulSegLen = 40;  // shorter than the header
    EXPECT_EQ(MBUF_TSO_CpyDataAndModifyInfo(m.pkt, &ctx, kModule), -1);
    EXPECT_EQ(MBUF_TSO_CpyDataAndModifyInfo(m.pkt, nullptr, kModule), -1);
    EXPECT_EQ(MBUF_TSO_AdjustTcpIpHdr(seg, 53, 54, &ctl, kModule), -1) << "header above the length";
    EXPECT_EQ(MBUF_TSO_AdjustTcpIpHdr(seg, 60, 54, nullptr, kModule), -1);
    EXPECT_EQ(Reports(),
              (std::vector<Report>{Tso(450, "l=6 o=1050"), Tso(450, "l=4294967282 o=1050")}));
    // A segment of another IP version only has its TCP fields touched.
    Bytes raw(60, 0);
    raw[14] = 0x50;
    StoreBe32(raw.data() + 38, 100);
    std::memcpy(seg->pucData, raw.data(), 60);
    EXPECT_EQ(MBUF_TSO_AdjustTcpIpHdr(seg, 60, 54 + 1000, &ctl, kModule), 0);
    StoreBe32(raw.data() + 38, 1100);
    EXPECT_EQ(Flatten(seg), raw);
    MBUF_Destroy(seg);
    MBUF_Destroy(m.pkt);
}

}  // namespace
}  // namespace krm::test
