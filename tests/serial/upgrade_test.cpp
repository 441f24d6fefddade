// The control-block upgrade: blocks written by peers with 19, 20, 22, 50 and
// 51 directory slots, held inline or in a separate buffer, rebuilt in the
// local layout. The model is the list of records the peer wrote: after the
// upgrade every record of a slot below 23 reads the same bytes through the
// ordinary lookup, and nothing else is present.
#include <algorithm>

#include "fault_sweep.h"
#include "serial_support.h"

namespace krm::serialtest {
namespace {

enum class Home { Inline, Separate, SeparateKept };

struct UpgradeRow {
    const char *name;
    std::uint32_t slots;
    std::uint16_t capacity;
    Home home;
};

// Records of fixed and variable types; slot 23 and above exist only in a
// newer peer's directory and must be dropped.
std::vector<RecordRow> RecordsFor(std::uint32_t ulSlots) {
    std::vector<RecordRow> rows{
        {2, Counting(20, 0x10)}, {9, Counting(4, 0x40)}, {17, Counting(24, 0x60)}};
    if (ulSlots > 22) {
        // A TLV record: head with list length 10, one sub-TLV of 6 bytes.
        Bytes tlv = Counting(14, 0x88);
        Put<std::uint32_t>(tlv, 0, 0);
        Put<std::uint16_t>(tlv, 2, 10);
        Put<std::uint16_t>(tlv, 4, 5);
        Put<std::uint16_t>(tlv, 6, 6);
        rows.push_back({22, tlv});
    }
    if (ulSlots > 30) {
        rows.push_back({30, Counting(8, 0xB0)});
    }
    return rows;
}

class UpgradeTest : public SerialTest, public ::testing::WithParamInterface<UpgradeRow> {};

// Puts the peer's block where the row says and returns the old block.
void *PlaceOldBlock(MBUF_S *pstMbuf, const Bytes &blk, Home home) {
    void *pOld = &pstMbuf->stCtlInfo;
    if (home != Home::Inline) {
        pOld = MBUF_MemAlloc_fl(static_cast<uint32_t>(blk.size()), kModule, nullptr);
    }
    std::memcpy(pOld, blk.data(), blk.size());
    pstMbuf->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(pOld);
    return pOld;
}

TEST_P(UpgradeTest, RecordsReadTheSameInTheLocalLayout) {
    const UpgradeRow &row = GetParam();
    const std::vector<RecordRow> records = RecordsFor(row.slots);
    const Bytes blk = OldLayoutBlock(row.slots, row.capacity, records);
    MBUF_S *pkt = Keep(MBUF_CreateForControlPacket(0, 16, 0, kModule));
    ASSERT_NE(pkt, nullptr);
    void *pOld = PlaceOldBlock(pkt, blk, row.home);
    const uint32_t ulLiveBefore = KRM_HOST_LiveBufferCount();

    ASSERT_EQ(MBUF_IssuProcContrlInfo_fl(pkt, kModule, row.home == Home::SeparateKept ? 0 : 1,
                                         "upgrade", 12),
              0u);
    MBUF_CONTROL_BLK_S *blkNew = pkt->pstCtlInfo;
    ASSERT_NE(static_cast<void *>(blkNew), pOld);
    // A separate old block is released unless the caller keeps it.
    const uint32_t ulFreed = row.home == Home::Separate ? 1 : 0;
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), ulLiveBefore + 1 - ulFreed);
    const uint32_t ulSize = std::max<uint32_t>(row.capacity + 184u, 448u);
    EXPECT_EQ(std::tuple(KRM_DbufLengthGET(blkNew), blkNew->usCapacity, blkNew->usUsedLen,
                         blkNew->ucSlotNum, blkNew->ucByteOrder),
              std::tuple(ulSize + 128, ulSize - 56, Get<std::uint16_t>(blk.data() + 88), 23,
                         MBUF_BYTEORDER_HOST));
    EXPECT_EQ(Bytes(reinterpret_cast<uint8_t *>(blkNew), reinterpret_cast<uint8_t *>(blkNew) + 84),
              CommBytes(7));
    uint32_t ulKept = 0;
    for (const RecordRow &rec : records) {
        SCOPED_TRACE(rec.slot);
        const auto ulLen = static_cast<uint32_t>(rec.bytes.size());
        if (rec.slot >= 23) {
            continue;
        }
        ++ulKept;
        EXPECT_EQ(RecordBytes(pkt, rec.slot, ulLen), rec.bytes);
        EXPECT_EQ(MBUF_GetControlLen(pkt, rec.slot), Round8(ulLen));
    }
    EXPECT_EQ(blkNew->ucRecNum, ulKept);
    for (uint32_t t = 1; t < 23; ++t) {
        const bool bWritten = std::any_of(records.begin(), records.end(),
                                          [t](const RecordRow &r) { return r.slot == t; });
        EXPECT_EQ(MBUF_GetControlInfo(pkt, t) != nullptr, bWritten) << "type " << t;
    }
    ExpectValid(pkt);
    // The upgraded block takes new records like any other.
    EXPECT_EQ(MBUF_CreateControlInfo(pkt, MBUF_CTL_IP6, 52, kModule), 0u);
    EXPECT_EQ(RecordBytes(pkt, 2, 20), records[0].bytes);
    ExpectValid(pkt);
    if (row.home == Home::SeparateKept) {
        (void)MBUF_MemFree_fl(pOld, nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, UpgradeTest,
                         ::testing::Values(UpgradeRow{"s19_inline", 19, 264, Home::Inline},
                                           UpgradeRow{"s22_separate", 22, 600, Home::Separate},
                                           UpgradeRow{"s51_inline", 51, 100, Home::Inline},
                                           UpgradeRow{"s20_kept", 20, 1000, Home::SeparateKept},
                                           UpgradeRow{"s51_kept", 51, 64, Home::SeparateKept}),
                         [](const auto &row) { return std::string(row.param.name); });

using UpgradeFailTest = SerialTest;

// An allocation failure, or an old block that claims more than its buffer
// holds, leaves the packet exactly as it was.
TEST_F(UpgradeFailTest, FailuresLeaveThePacketUnchanged) {
    const Bytes blk = OldLayoutBlock(20, 264, RecordsFor(20));
    struct Case {
        const char *name;
        uint32_t fillOffset;  // where a corrupt used length is patched, 0: none
        bool failAlloc;
        uint32_t result;
    };
    for (const Case &c : {Case{"alloc", 0, true, MBUF_ERR_NOMEM},
                          Case{"used_len_lies", 88, false, MBUF_ERR_BAD_ARG}}) {
        SCOPED_TRACE(c.name);
        MBUF_S *pkt = MBUF_CreateForControlPacket(0, 16, 0, kModule);
        ASSERT_NE(pkt, nullptr);
        Bytes bad = blk;
        if (c.fillOffset != 0) {
            Put<std::uint16_t>(bad, c.fillOffset, 0x4000);
        }
        void *pOld = PlaceOldBlock(pkt, bad, Home::Separate);
        const uint32_t ulLive = KRM_HOST_LiveBufferCount();
        if (c.failAlloc) {
            KRM_HOST_FailNthAlloc(1);
        }
        EXPECT_EQ(MBUF_IssuProcContrlInfo_fl(pkt, kModule, 1, "upgrade", 1), c.result);
        KRM_HOST_FailNthAlloc(0);
        EXPECT_EQ(static_cast<void *>(pkt->pstCtlInfo), pOld);
        EXPECT_EQ(Bytes(static_cast<uint8_t *>(pOld), static_cast<uint8_t *>(pOld) + bad.size()),
                  bad);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), ulLive);
        MBUF_Destroy(pkt);
    }
    EXPECT_EQ(MBUF_IssuProcContrlInfo_fl(nullptr, kModule, 1, "upgrade", 1), MBUF_ERR_INVALID_MBUF);
}

// An older peer's stack-debug record (24-byte head, 40-byte entries) is
// relaid into 48-byte entries when the packet's memory has an owner; with
// owner 0 it stays as it came.
TEST_F(UpgradeFailTest, OlderStackDebugRecordIsRelaidWhenTheMemoryHasAnOwner) {
    constexpr uint32_t kEntries = 6;
    Bytes sd(24 + kEntries * 40, 0);
    Put<std::uint16_t>(sd, 2, 20);
    sd[4] = kEntries;
    sd[5] = 1;
    Put<std::uint16_t>(sd, 6, 40);
    Put<std::uint32_t>(sd, 24, 0x1111);
    Put<std::uint32_t>(sd, 28, 77);
    Put<std::uint32_t>(sd, 64, 0x2222);
    for (const uint32_t ulOwner : {kModule, 0u}) {
        SCOPED_TRACE(ulOwner);
        MBUF_S *pkt = Keep(MBUF_CreateForControlPacket(0, 16, 0, ulOwner));
        ASSERT_NE(pkt, nullptr);
        PlaceOldBlock(pkt, OldLayoutBlock(22, 400, {{21, sd}}), Home::Separate);
        ASSERT_EQ(MBUF_IssuProcContrlInfo_fl(pkt, kModule, 1, "upgrade", 3), 0u);
        const auto *rec = static_cast<uint8_t *>(MBUF_GetControlInfo(pkt, MBUF_CTL_STACKDEBUG));
        ASSERT_NE(rec, nullptr) << krm::test::Dump(pkt);
        if (ulOwner == 0) {
            EXPECT_EQ(Bytes(rec, rec + sd.size()), sd);
            continue;
        }
        EXPECT_EQ(
            std::tuple(Get<std::uint16_t>(rec + 2), rec[4], rec[5], Get<std::uint16_t>(rec + 6)),
            std::tuple(24, kEntries, 1, 48));
        EXPECT_EQ(std::tuple(Get<std::uint32_t>(rec + 28), Get<std::uint32_t>(rec + 32),
                             Get<std::uint32_t>(rec + 28 + 48)),
                  std::tuple(0x1111u, 77u, 0x2222u));
        ExpectValid(pkt);
    }
}

}  // namespace
}  // namespace krm::serialtest
