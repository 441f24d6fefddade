// The golden files: streams and images written on both byte orders read
// back on this build as the packets they describe. The files of this
// build's order must also be exactly what the writers produce today.
#include "golden_support.h"

namespace krm::serialtest {
namespace {

struct GoldenRow {
    PacketPlan plan;
    const char *order;
};

std::vector<GoldenRow> GoldenRows() {
    std::vector<GoldenRow> rows;
    for (const PacketPlan &plan : krm::golden::Packets()) {
        for (const char *order : {"le", "be"}) {
            rows.push_back({plan, order});
        }
    }
    return rows;
}

class GoldenTest : public SerialTest, public ::testing::WithParamInterface<GoldenRow> {};

TEST_P(GoldenTest, BothFormsRebuildTheDescribedPacket) {
    const GoldenRow &row = GetParam();
    Bytes tlv = ReadFile(GoldenDir() + krm::golden::FileName(row.plan, row.order, "tlv"));
    Bytes img = ReadFile(GoldenDir() + krm::golden::FileName(row.plan, row.order, "img"));
    ASSERT_FALSE(tlv.empty());
    ASSERT_FALSE(img.empty());
    const bool bOwnOrder = std::string(row.order) == krm::golden::HostOrderName();
    if (bOwnOrder) {
        MBUF_S *local = Keep(krm::golden::Build(row.plan, kModule));
        ASSERT_NE(local, nullptr);
        EXPECT_EQ(StreamOf(local), tlv);
        EXPECT_EQ(ImageOf(local), img);
    }
    MBUF_S *fromTlv =
        Keep(MBUF_TransTlv2Mbuf(tlv.data(), static_cast<uint32_t>(tlv.size()), kModule));
    EXPECT_TRUE(MatchesPlan(fromTlv, row.plan, false));
    // The reader converts a foreign head in place; its probe stays as written.
    EXPECT_EQ(Get32(tlv.data() + 4), bOwnOrder ? MBUF_TLV_PROBE : 0x78563412u);
    MBUF_S *fromImg =
        Keep(MBUF_Deserialize(img.data(), static_cast<uint32_t>(img.size()), kModule));
    EXPECT_TRUE(MatchesPlan(fromImg, row.plan, true));
    // The image restores the block byte for byte: offsets as the writer had them.
    MBUF_S *local = Keep(krm::golden::Build(row.plan, kModule));
    ASSERT_NE(local, nullptr);
    ASSERT_NE(fromImg, nullptr);
    for (uint32_t t = 1; t < MBUF_CTL_TYPE_NUM; ++t) {
        EXPECT_EQ(fromImg->pstCtlInfo->astSlot[t].usOffset, local->pstCtlInfo->astSlot[t].usOffset)
            << "type " << t;
    }
    EXPECT_TRUE(Reports().empty());
}

INSTANTIATE_TEST_SUITE_P(Files, GoldenTest, ::testing::ValuesIn(GoldenRows()), [](const auto &row) {
    return std::string(row.param.plan.name) + "_" + row.param.order;
});

}  // namespace
}  // namespace krm::serialtest
