// Round trips over the shared chain shapes: every shape, carrying the
// records of the golden descriptions, goes to a TLV stream and to a serial
// image and back. The model is the flat byte vector of the chain and the
// record images written into it; the writer must leave the chain as it was.
#include "serial_support.h"

namespace krm::serialtest {
namespace {

using krm::test::ChainShape;

// The records every shape carries: fixed, TLV and stack-debug records and a
// block that outgrows the inline area.
std::vector<krm::golden::RecordPlan> Records() {
    return {krm::golden::IpRecord(),      krm::golden::MplsRecord(),
            krm::golden::LinkRecord(),    krm::golden::TimeStampRecord(),
            krm::golden::PktSendRecord(), krm::golden::StackDebugRecord(),
            krm::golden::PacketRecord()};
}

MBUF_S *ShapeWithRecords(const ChainShape &shape) {
    MBUF_S *pkt = krm::test::BuildChain(shape.nodes, 9);
    if (pkt == nullptr) {
        return nullptr;
    }
    for (const auto &rec : Records()) {
        EXPECT_EQ(MBUF_CreateControlInfo(pkt, rec.type, rec.len, kModule), 0u);
        const Bytes img = krm::golden::Image(rec.len, rec.fields);
        std::memcpy(MBUF_GetControlInfo(pkt, rec.type), img.data(), img.size());
    }
    pkt->ulFlag2 = 0x00C0FFEEu;
    pkt->ulFlag3 = 0x00000011u;
    pkt->ulPktRsv3 = 0x5A5A5A5Au;
    return pkt;
}

// The common record and every record's bytes, by type.
std::vector<std::pair<std::uint32_t, Bytes>> AllRecords(MBUF_S *m) {
    std::vector<std::pair<std::uint32_t, Bytes>> out{{0, RecordBytes(m, 0, MBUF_CTL_COMM_LEN)}};
    for (const auto &rec : Records()) {
        out.emplace_back(rec.type, RecordBytes(m, rec.type, rec.len));
    }
    return out;
}

class RoundTripTest : public SerialTest, public ::testing::WithParamInterface<ChainShape> {};

TEST_P(RoundTripTest, StreamAndImageRebuildTheChain) {
    MBUF_S *pkt = Keep(ShapeWithRecords(GetParam()));
    ASSERT_NE(pkt, nullptr);
    const Bytes model = krm::test::Flatten(pkt);

    Bytes stream(MBUF_CalcMbuf2TlvLen(pkt), 0);
    const uint32_t ulRet =
        MBUF_TransMbuf2Tlv(pkt, stream.data(), static_cast<uint32_t>(stream.size()), kModule);
    ExpectValid(pkt);
    EXPECT_EQ(krm::test::Flatten(pkt), model);
    if (model.empty()) {
        EXPECT_EQ(ulRet, MBUF_ERR_NO_DATA);
    } else {
        ASSERT_EQ(ulRet, 0u);
        // Count: the data TLV and each record; length: all behind offset 16.
        EXPECT_EQ(Get<std::uint16_t>(stream.data()), 1u + 1u + Records().size());
        MBUF_S *fromTlv = Keep(MBUF_TransTlv2Mbuf(
            stream.data(), Get<std::uint16_t>(stream.data() + 2) + 16u, kModule));
        ASSERT_NE(fromTlv, nullptr);
        ExpectValid(fromTlv);
        EXPECT_EQ(krm::test::Flatten(fromTlv), model);
        EXPECT_EQ(fromTlv->ulFlag2, pkt->ulFlag2);
        EXPECT_EQ(AllRecords(fromTlv), AllRecords(pkt));
    }

    Bytes image = ImageOf(pkt);
    ASSERT_EQ(image.size(), model.size() + pkt->pstCtlInfo->usUsedLen + 216u);
    MBUF_S *fromImg =
        Keep(MBUF_Deserialize(image.data(), static_cast<uint32_t>(image.size()), kModule));
    if (model.empty()) {
        // A packet without data has nothing to build a packet over.
        EXPECT_EQ(fromImg, nullptr);
        return;
    }
    ASSERT_NE(fromImg, nullptr);
    ExpectValid(fromImg);
    EXPECT_EQ(krm::test::Flatten(fromImg), model);
    EXPECT_EQ(AllRecords(fromImg), AllRecords(pkt));
    EXPECT_EQ(std::tuple(fromImg->ulFlag3, fromImg->ulPktRsv3, fromImg->pstCtlInfo->usUsedLen),
              std::tuple(pkt->ulFlag3, pkt->ulPktRsv3, pkt->pstCtlInfo->usUsedLen));
    for (uint32_t t = 0; t < MBUF_CTL_TYPE_NUM; ++t) {
        EXPECT_EQ(fromImg->pstCtlInfo->astSlot[t].usOffset, pkt->pstCtlInfo->astSlot[t].usOffset);
    }
    EXPECT_TRUE(Reports().empty());
}

INSTANTIATE_TEST_SUITE_P(Shapes, RoundTripTest, ::testing::ValuesIn(krm::test::StandardShapes()),
                         [](const auto &row) { return row.param.name; });

}  // namespace
}  // namespace krm::serialtest
