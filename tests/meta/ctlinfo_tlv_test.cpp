#include <cstring>
#include <functional>
#include <string>

#include "ctlinfo_test_util.h"

namespace krm::test {
namespace {

class TlvTest : public CtlPacketTest {};

std::vector<std::uint8_t> Concat(std::initializer_list<std::vector<std::uint8_t>> parts) {
    std::vector<std::uint8_t> out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// One search entry point bound to the record it searches, with the line its
// corruption report carries.
struct Search {
    const char *name;
    std::uint32_t recType;
    std::uint32_t reportLine;
    std::function<const void *(MBUF_S *, std::uint16_t)> find;
};

std::vector<Search> Searches() {
    return {
        {"link stack", MBUF_CTL_LINK, 3346,
         [](MBUF_S *m, std::uint16_t t) { return MBUF_BAS_GetMbufLinkStackByType(m, t); }},
        {"link stack alias", MBUF_CTL_LINK, 3346,
         [](MBUF_S *m, std::uint16_t t) { return MBUF_GetMbufLinkStackByType(m, t); }},
        {"link via tlv info", MBUF_CTL_LINK, 3346,
         [](MBUF_S *m, std::uint16_t t) { return MBUF_GetControlTlvInfo(m, MBUF_CTL_LINK, t); }},
        {"packet send", MBUF_CTL_PKTSEND, 3396,
         [](MBUF_S *m, std::uint16_t t) { return MBUF_BAS_GetMbufLev2TlvByType(m, 20, t); }},
        {"packet via tlv info", MBUF_CTL_PACKET, 3396,
         [](MBUF_S *m, std::uint16_t t) { return MBUF_GetControlTlvInfo(m, MBUF_CTL_PACKET, t); }},
    };
}

TEST_F(TlvTest, EverySearchFindsEachSubTlvAndNothingElse) {
    const std::vector<std::uint8_t> list =
        Concat({SubTlv(1, {0xA, 0xB}), SubTlv(5, {}), SubTlv(7, {1, 2, 3})});
    for (const Search &s : Searches()) {
        SCOPED_TRACE(s.name);
        MBUF_S *m = NewPacket();
        const std::uint8_t *rec =
            WriteTlvRecord(m, s.recType, list, static_cast<std::uint16_t>(list.size()));
        EXPECT_EQ(s.find(m, 1), rec + 4);
        EXPECT_EQ(s.find(m, 5), rec + 10);
        EXPECT_EQ(s.find(m, 7), rec + 14);
        EXPECT_EQ(s.find(m, 9), nullptr);
        ExpectValid(m);
        MBUF_Destroy(m);
        MBUF_S *empty = NewPacket();
        EXPECT_EQ(s.find(empty, 1), nullptr) << "record absent";
        MBUF_Destroy(empty);
    }
    EXPECT_TRUE(Reports().empty());
}

TEST_F(TlvTest, ShortListsAreEmptyNotCorrupt) {
    for (const Search &s : Searches()) {
        for (std::uint16_t listLen = 0; listLen < 4; ++listLen) {
            MBUF_S *m = NewPacket();
            WriteTlvRecord(m, s.recType, {0, 0, 0, 0}, listLen);
            EXPECT_EQ(s.find(m, 0), nullptr) << s.name << " list " << listLen;
            MBUF_Destroy(m);
        }
    }
    EXPECT_TRUE(Reports().empty());
}

TEST_F(TlvTest, SubTlvClaimingMoreThanTheListIsReported) {
    for (const Search &s : Searches()) {
        SCOPED_TRACE(s.name);
        KRM_HOST_ReportClear();
        MBUF_S *m = NewPacket();
        // The second sub-TLV claims 9 value bytes where 6 are left.
        const std::vector<std::uint8_t> list = Concat({SubTlv(2, {1}), SubTlv(3, {1, 2})});
        std::uint8_t *rec = WriteTlvRecord(m, s.recType, list, 11);
        Wr16(rec + 4 + 5 + 2, 9);
        EXPECT_EQ(s.find(m, 3), nullptr);
        EXPECT_EQ(Reports(),
                  std::vector<Report>{AssertReport("krm_mbuf", s.reportLine, "T 3 ML 6 TL 13")});
        // A sub-TLV that exactly fills what is left is fine.
        Wr16(rec + 4 + 5 + 2, 2);
        EXPECT_EQ(s.find(m, 3), rec + 9);
        MBUF_Destroy(m);
    }
}

TEST_F(TlvTest, TlvInfoMatchesTypeAndLengthAndOtherTypesFallBack) {
    const std::vector<std::uint8_t> list = Concat({SubTlv(4, {1, 2}), SubTlv(4, {1, 2, 3, 4})});
    const std::uint8_t *rec =
        WriteTlvRecord(m_, MBUF_CTL_PACKET, list, static_cast<std::uint16_t>(list.size()));
    EXPECT_EQ(reinterpret_cast<const std::uint8_t *>(MBUF_GetTlvInfo(m_, AsTlv(SubTlv(4, {0, 0})))),
              rec + 4);
    EXPECT_EQ(
        reinterpret_cast<const std::uint8_t *>(MBUF_GetTlvInfo(m_, AsTlv(SubTlv(4, {0, 0, 0, 0})))),
        rec + 10);
    EXPECT_EQ(MBUF_GetTlvInfo(m_, AsTlv(SubTlv(4, {0}))), nullptr);
    EXPECT_EQ(MBUF_GetTlvInfo(m_, nullptr), nullptr);
    // Records that are not TLV lists are returned whole, sub-type ignored.
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_MPLS, 108, kCtlModule), 0u);
    EXPECT_EQ(MBUF_GetControlTlvInfo(m_, MBUF_CTL_MPLS, 77), Rec(m_, MBUF_CTL_MPLS));
    EXPECT_EQ(MBUF_GetControlTlvInfo(m_, MBUF_CTL_COMM, 77), m_->pstCtlInfo);
}

// ---- storing into record 22 -------------------------------------------------

TEST_F(TlvTest, SetCreatesTheRecordRoundedAndMeasuredByItsList) {
    const std::vector<std::uint8_t> tlv = SubTlv(9, {1, 2, 3, 4, 5, 6});
    ASSERT_EQ(MBUF_SetTlvInfo_fl(m_, kCtlModule, AsTlv(tlv), kCtlFile, 1), 0);
    ExpectValid(m_);
    EXPECT_EQ(MBUF_GetCtlLen(m_, MBUF_CTL_PACKET), 14u);
    EXPECT_EQ(MBUF_GetControlLen(m_, MBUF_CTL_PACKET), 16u);
    const std::uint8_t *rec = Rec(m_, MBUF_CTL_PACKET);
    EXPECT_EQ(Rd16(rec), 0);
    EXPECT_EQ(Rd16(rec + 2), 10);
    EXPECT_EQ(std::memcmp(rec + 4, tlv.data(), tlv.size()), 0);
}

TEST_F(TlvTest, SetOverwritesASameSizedSubTlvInPlace) {
    ASSERT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(SubTlv(9, {1, 1}))), 0);
    const std::uint16_t offset = Slot(m_, MBUF_CTL_PACKET).usOffset;
    const std::uint16_t used = m_->pstCtlInfo->usUsedLen;
    ASSERT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(SubTlv(9, {7, 7}))), 0);
    EXPECT_EQ(Slot(m_, MBUF_CTL_PACKET).usOffset, offset);
    EXPECT_EQ(m_->pstCtlInfo->usUsedLen, used);
    const auto *found =
        reinterpret_cast<const std::uint8_t *>(MBUF_GetTlvInfo(m_, AsTlv(SubTlv(9, {0, 0}))));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found[4], 7);
    ExpectValid(m_);
}

TEST_F(TlvTest, SetAppendsByRecreatingTheRecordBehindTheOldOne) {
    ASSERT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(SubTlv(9, {1, 1}))), 0);
    const std::uint16_t oldOffset = Slot(m_, MBUF_CTL_PACKET).usOffset;
    ASSERT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(SubTlv(9, {2, 2, 2}))), 0);
    ASSERT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(SubTlv(3, {}))), 0);
    ExpectValid(m_);
    EXPECT_GT(Slot(m_, MBUF_CTL_PACKET).usOffset, oldOffset);
    EXPECT_EQ(m_->pstCtlInfo->ucRecNum, 1u);
    EXPECT_EQ(MBUF_GetCtlLen(m_, MBUF_CTL_PACKET), 4u + 6 + 7 + 4);
    const std::vector<std::uint8_t> expected =
        Concat({SubTlv(9, {1, 1}), SubTlv(9, {2, 2, 2}), SubTlv(3, {})});
    EXPECT_EQ(std::memcmp(Rec(m_, MBUF_CTL_PACKET) + 4, expected.data(), expected.size()), 0);
    EXPECT_NE(MBUF_GetTlvInfo(m_, AsTlv(SubTlv(9, {0, 0, 0}))), nullptr);
    // The temporary copy went back to private memory.
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
}

TEST_F(TlvTest, SetRefusesWhatItCannotStore) {
    MBUF_S plain;
    const MBUF_STRUCT_INIT_S init{0, MBUF_TYPE_DATA};
    MBUF_StructInit(&plain, sizeof(plain), &init);
    const std::vector<std::uint8_t> tlv = SubTlv(1, {1});
    EXPECT_EQ(MBUF_SetTlvInfo(nullptr, kCtlModule, AsTlv(tlv)), -1);
    EXPECT_EQ(MBUF_SetTlvInfo(&plain, kCtlModule, AsTlv(tlv)), -1);
    EXPECT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, nullptr), -1);
    // The list length is 16 bits: a sub-TLV that cannot be counted is
    // refused before the record is touched.
    std::vector<std::uint8_t> huge(4 + 0xFFFF);
    Wr16(huge.data(), 2);
    Wr16(huge.data() + 2, 0xFFFF);
    EXPECT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(huge)), -1);
    ASSERT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(tlv)), 0);
    Wr16(huge.data() + 2, 0xFFFF - 8);
    const std::uint16_t offset = Slot(m_, MBUF_CTL_PACKET).usOffset;
    EXPECT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(huge)), -1);
    EXPECT_EQ(Slot(m_, MBUF_CTL_PACKET).usOffset, offset);
    ExpectValid(m_);
}

TEST_F(TlvTest, SetUsesTheWrapperSiteForGrowth) {
    ASSERT_EQ(MBUF_SetTlvInfo(m_, kCtlModule, AsTlv(SubTlv(1, std::vector<std::uint8_t>(300)))), 0);
    ASSERT_FALSE(BlockIsInline(m_));
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(m_->pstCtlInfo, &info), 0u);
    EXPECT_STREQ(info.pcFile, "MBUF_SetTlvInfo");
    EXPECT_EQ(info.ulLine, 227u);
    ExpectValid(m_);
}

}  // namespace
}  // namespace krm::test
