#include <cstring>

#include "ctlinfo_test_util.h"

namespace krm::test {
namespace {

class CtlInfoTest : public CtlPacketTest {};

TEST_F(CtlInfoTest, InitResetsTheFixedPartOnly) {
    std::uint8_t raw[MBUF_CTLINFO_INLINE_LEN];
    std::memset(raw, 0xC3, sizeof(raw));
    auto *blk = reinterpret_cast<MBUF_CONTROL_BLK_S *>(raw);
    EXPECT_EQ(MBUF_InitControlInfo(blk), 0u);
    MBUF_CTL_COMM_S expected{};
    expected.ulPathId = 0xFFFFFFFFu;
    expected.ulSocketId = 0xFFFFFFFFu;
    EXPECT_EQ(std::memcmp(&blk->stComm, &expected, sizeof(expected)), 0);
    EXPECT_EQ(blk->ucBlkMark, MBUF_CTL_BLK_MARK);
    EXPECT_EQ(blk->ucByteOrder, MBUF_BYTEORDER_HOST);
    EXPECT_EQ(blk->ucSlotNum, MBUF_CTL_TYPE_NUM);
    EXPECT_EQ(blk->ucRecNum, 0);
    EXPECT_EQ(blk->usUsedLen, 0);
    EXPECT_EQ(blk->usCapacity, MBUF_CTL_INIT_CAPACITY);
    for (const MBUF_CTL_SLOT_S &slot : blk->astSlot) {
        EXPECT_EQ(slot.usOffset | slot.usLen, 0);
    }
    for (std::uint32_t i = MBUF_CTL_FIXED_LEN; i < sizeof(raw); ++i) {
        ASSERT_EQ(raw[i], 0xC3) << "record area byte " << i;
    }
    EXPECT_NE(MBUF_InitControlInfo(nullptr), 0u);
}

// The head word carries mark, byte order, slot count and record count from
// the high byte down, on either byte order.
TEST_F(CtlInfoTest, HeadWordReadsTheSameOnEveryBuild) {
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_IP, 20, kCtlModule), 0u);
    std::uint32_t word;
    std::memcpy(&word, reinterpret_cast<std::uint8_t *>(m_->pstCtlInfo) + 84, 4);
    EXPECT_EQ(word, 0x40001701u | (MBUF_BYTEORDER_HOST << 16));
}

TEST_F(CtlInfoTest, FreshPacketHasOnlyTheCommonRecord) {
    EXPECT_EQ(MBUF_GetControlInfo(m_, MBUF_CTL_COMM), m_->pstCtlInfo);
    for (std::uint32_t type = 1; type < MBUF_CTL_TYPE_NUM; ++type) {
        EXPECT_EQ(MBUF_GetControlInfo(m_, type), nullptr) << type;
        EXPECT_EQ(MBUF_GetControlLen(m_, type), 0u) << type;
    }
    EXPECT_EQ(MBUF_GetControlInfo(m_, 23), nullptr);
    EXPECT_EQ(MBUF_GetControlInfo(nullptr, 0), nullptr);
    const auto *comm = static_cast<const MBUF_CTL_COMM_S *>(MBUF_GetControlInfo(m_, 0));
    EXPECT_EQ(comm->ulPathId, 0xFFFFFFFFu);
    EXPECT_EQ(comm->ulSocketId, 0xFFFFFFFFu);
}

TEST_F(CtlInfoTest, CreateRoundsToEightAndZeroFills) {
    // Dirty the record area first: a new record must not inherit bytes.
    std::memset(m_->stCtlInfo.aucRaw + MBUF_CTL_FIXED_LEN, 0xA5,
                MBUF_CTLINFO_INLINE_LEN - MBUF_CTL_FIXED_LEN);
    ASSERT_EQ(MBUF_CreateControlInfo_fl(m_, MBUF_CTL_PREVHOP, 1, kCtlModule, kCtlFile, 1), 0u);
    ExpectValid(m_);
    EXPECT_EQ(Slot(m_, MBUF_CTL_PREVHOP).usOffset, MBUF_CTL_FIXED_LEN);
    EXPECT_EQ(MBUF_GetControlLen(m_, MBUF_CTL_PREVHOP), 8u);
    EXPECT_EQ(MBUF_GetCtlLen(m_, MBUF_CTL_PREVHOP), 4u);
    EXPECT_EQ(m_->pstCtlInfo->usUsedLen, 8u);
    EXPECT_EQ(m_->pstCtlInfo->ucRecNum, 1u);
    const std::uint8_t *rec = Rec(m_, MBUF_CTL_PREVHOP);
    EXPECT_EQ(rec, reinterpret_cast<std::uint8_t *>(m_->pstCtlInfo) + MBUF_CTL_FIXED_LEN);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(rec[i], 0) << i;
    EXPECT_EQ(rec[8], 0xA5) << "nothing beyond the rounded length is touched";
}

TEST_F(CtlInfoTest, CreateResultCodes) {
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_IP, 20, kCtlModule), 0u);
    std::uint8_t *ip = Rec(m_, MBUF_CTL_IP);
    ip[0] = 0x42;
    struct Case {
        MBUF_S *m;
        std::uint32_t type;
        std::uint32_t expected;
    };
    MBUF_S plain;
    const MBUF_STRUCT_INIT_S init{0, MBUF_TYPE_DATA};
    MBUF_StructInit(&plain, sizeof(plain), &init);
    const Case cases[] = {
        {m_, MBUF_CTL_IP, MBUF_ERR_CTL_EXISTS}, {m_, 23, MBUF_ERR_CTL_NO_ROOM},
        {m_, MBUF_CTL_COMM, MBUF_OK},           {nullptr, 2, MBUF_ERR_INVALID_MBUF},
        {&plain, 2, MBUF_ERR_INVALID_MBUF},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(MBUF_CreateControlInfo(c.m, c.type, 8, kCtlModule), c.expected) << c.type;
    }
    EXPECT_EQ(Rec(m_, MBUF_CTL_IP), ip);
    EXPECT_EQ(ip[0], 0x42) << "an existing record is never replaced";
    EXPECT_EQ(m_->pstCtlInfo->ucRecNum, 1u);
    ExpectValid(m_);
}

TEST_F(CtlInfoTest, DeletedRecordIsRecreatedBehindTheOldBytes) {
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_IPSEC, 8, kCtlModule), 0u);
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_VSIMAC, 16, kCtlModule), 0u);
    const std::uint16_t first = Slot(m_, MBUF_CTL_IPSEC).usOffset;
    MBUF_DeleteControlInfo(m_, MBUF_CTL_IPSEC);
    ExpectValid(m_);
    EXPECT_EQ(MBUF_GetControlInfo(m_, MBUF_CTL_IPSEC), nullptr);
    EXPECT_EQ(m_->pstCtlInfo->ucRecNum, 1u);
    EXPECT_EQ(m_->pstCtlInfo->usUsedLen, 24u) << "deletion reclaims nothing";
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_IPSEC, 8, kCtlModule), 0u);
    EXPECT_EQ(Slot(m_, MBUF_CTL_IPSEC).usOffset, first + 24);
    EXPECT_EQ(m_->pstCtlInfo->usUsedLen, 32u);
    ExpectValid(m_);
    // Deleting what is absent or out of range changes nothing.
    MBUF_DeleteControlInfo(m_, MBUF_CTL_MPLS);
    MBUF_DeleteControlInfo(m_, 23);
    EXPECT_EQ(m_->pstCtlInfo->ucRecNum, 2u);
    ExpectValid(m_);
}

TEST_F(CtlInfoTest, DeletingTheCommonRecordResetsItAndFlag2Only) {
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_FERX, 52, kCtlModule), 0u);
    auto *comm = static_cast<MBUF_CTL_COMM_S *>(MBUF_GetControlInfo(m_, 0));
    comm->ulVrfId = 9;
    comm->ulPathId = 3;
    comm->usPktPriority = 6;
    m_->ulFlag2 = 0x55;
    m_->ulFlag3 = 0x66;
    MBUF_DeleteControlInfo(m_, MBUF_CTL_COMM);
    EXPECT_EQ(comm->ulVrfId, 0u);
    EXPECT_EQ(comm->usPktPriority, 0u);
    EXPECT_EQ(comm->ulPathId, 0xFFFFFFFFu);
    EXPECT_EQ(m_->ulFlag2, 0u);
    EXPECT_EQ(m_->ulFlag3, 0x66u);
    EXPECT_NE(MBUF_GetControlInfo(m_, MBUF_CTL_FERX), nullptr);
    ExpectValid(m_);
}

TEST_F(CtlInfoTest, MeasuringByTypeTableSlotOrTlvList) {
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_APP, 10, kCtlModule), 0u);
    WriteTlvRecord(m_, MBUF_CTL_PACKET, SubTlv(7, {1, 2, 3, 4, 5, 6}), 10);
    WriteTlvRecord(m_, MBUF_CTL_PKTSEND, SubTlv(7, {1, 2, 3}), 7);
    struct Case {
        std::uint32_t type;
        std::uint32_t ctlLen;
        std::uint32_t controlLen;
    };
    const Case cases[] = {
        {MBUF_CTL_COMM, 84, 0},      // fixed, although slot 0 is never used
        {MBUF_CTL_MPLS, 108, 0},     // fixed length even while absent
        {MBUF_CTL_APP, 16, 16},      // variable: the slot
        {MBUF_CTL_IPOPTION, 0, 0},   // variable and absent
        {MBUF_CTL_PACKET, 14, 16},   // list + 4, not the rounded slot
        {MBUF_CTL_PKTSEND, 16, 16},  // a TLV record measured by its slot
        {MBUF_CTL_LINK, 0, 0},       // absent TLV record
        {23, 0, 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(MBUF_GetCtlLen(m_, c.type), c.ctlLen) << c.type;
        EXPECT_EQ(MBUF_GetControlLen(m_, c.type), c.controlLen) << c.type;
    }
    ExpectValid(m_);
}

// A received block is looked up by slot lengths and the record count alone.
TEST_F(CtlInfoTest, BareBlockLookupTrustsLengthsAndRecordCount) {
    for (std::uint32_t type : {3u, 5u, 9u}) {
        ASSERT_EQ(MBUF_CreateControlInfo(m_, type, 8, kCtlModule), 0u);
    }
    MBUF_CONTROL_BLK_S *blk = m_->pstCtlInfo;
    auto *base = reinterpret_cast<std::uint8_t *>(blk);
    struct Case {
        std::uint8_t recNum;
        std::uint32_t type;
        void *expected;
    };
    const Case cases[] = {
        {3, 0, blk},
        {3, 3, base + blk->astSlot[3].usOffset},
        {3, 9, base + blk->astSlot[9].usOffset},
        {3, 4, nullptr},   // empty slot before the last record
        {3, 10, nullptr},  // all records passed
        {3, 23, nullptr},
        {2, 9, nullptr},  // the count says record 9 is not there
        {0, 3, nullptr},
    };
    for (const Case &c : cases) {
        blk->ucRecNum = c.recNum;
        EXPECT_EQ(Mbuf_GetControlInfoByTagMsg(blk, c.type), c.expected)
            << "records " << int{c.recNum} << " type " << c.type;
    }
    blk->ucRecNum = 3;
    blk->astSlot[5].usLen = 0;  // offset kept, length gone: absent to this walk
    EXPECT_EQ(Mbuf_GetControlInfoByTagMsg(blk, 5), nullptr);
    blk->astSlot[5].usLen = 8;
    EXPECT_EQ(Mbuf_GetControlInfoByTagMsg(nullptr, 0), nullptr);
}

TEST_F(CtlInfoTest, PacketWithoutBlockGetsOneOnFirstCreate) {
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_STACKDEBUG, 400, kCtlModule), 0u);
    MBUF_DeletePktTag(m_, nullptr);
    ASSERT_EQ(m_->pstCtlInfo, nullptr);
    ExpectValid(m_);
    KRM_HOST_ReportClear();
    ASSERT_EQ(MBUF_CreateControlInfo_fl(m_, MBUF_CTL_COMM, 0, kCtlModule, kCtlFile, 77), 0u);
    EXPECT_EQ(Reports(), std::vector<Report>{AssertReportNoText("krm_mbuf_bas", 1205)});
    ASSERT_NE(m_->pstCtlInfo, nullptr);
    const KRM_HOST_BUF_INFO_S info = [&] {
        KRM_HOST_BUF_INFO_S i{};
        KRM_HOST_BufferInfo(m_->pstCtlInfo, &i);
        return i;
    }();
    EXPECT_EQ(info.ulLen, MBUF_CTLINFO_INLINE_LEN);
    EXPECT_EQ(info.ulOwner, kCtlModule);
    EXPECT_EQ(info.ulLine, 77u);
    EXPECT_EQ(m_->pstCtlInfo->usCapacity, MBUF_CTL_INIT_CAPACITY);
    ExpectValid(m_);
}

TEST_F(CtlInfoTest, WrapperGrowsTheBlockUnderItsOwnSite) {
    ASSERT_EQ(MBUF_CreateControlInfo(m_, MBUF_CTL_STACKDEBUG, 300, kCtlModule), 0u);
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(m_->pstCtlInfo, &info), 0u);
    EXPECT_STREQ(info.pcFile, "MBUF_CreateControlInfo");
    EXPECT_EQ(info.ulLine, 110u);
}

}  // namespace
}  // namespace krm::test
