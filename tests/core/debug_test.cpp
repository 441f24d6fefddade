#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>

#include "core_test_util.h"
#include "krm_mbuf/mbuf_debug.h"

namespace krm::test {
namespace {

// A valid three-node packet: an inline head holding 100 bytes behind 16 of
// room, a plain inline node of 50 and a full cluster node; its block holds
// records 9, 2 and a two-entry record 22.
class DebugTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        const std::vector<std::uint8_t> data = Pattern(100);
        head_ = node_[0] = MBUF_CreateByCopyBuffer(16, 100, data.data(), 0, kModule);
        ASSERT_NE(head_, nullptr);
        head_->pstNext = node_[1] = PlainNode(50);
        node_[1]->pstNext = node_[2] = PlainNode(1000);
        node_[1]->ulDataLen = 50;
        node_[2]->ulDataLen = 1960;
        head_->ulTotalDataLen = 2110;
        ASSERT_EQ(MBUF_CreateControlInfo(head_, MBUF_CTL_PREVHOP, 4, kModule), 0u);
        ASSERT_EQ(MBUF_CreateControlInfo(head_, MBUF_CTL_IP, 20, kModule), 0u);
        // Record 22: sub-TLVs of type 5 (two bytes) and 7 (empty).
        std::uint16_t tlvs[][3] = {{5, 2, 0xBBAA}, {7, 0, 0}};
        for (auto &tlv : tlvs) {
            ASSERT_EQ(MBUF_SetTlvInfo(head_, kModule, reinterpret_cast<MBUF_CTL_TLV_S *>(tlv)), 0);
        }
    }
    void TearDown() override {
        MBUF_Destroy(head_);
        HostTest::TearDown();
    }
    MBUF_CONTROL_BLK_S *Blk() { return head_->pstCtlInfo; }
    MBUF_S *head_ = nullptr;
    MBUF_S *node_[3] = {};
};

TEST_F(DebugTest, TheBuiltPacketPassesAndReasonBuffersAreOptional) {
    char reason[8] = "stale";
    EXPECT_EQ(MBUF_DBG_Check(head_, reason, sizeof(reason)), MBUF_DBG_OK);
    EXPECT_STREQ(reason, "") << "a pass clears the reason";
    EXPECT_EQ(MBUF_DBG_Check(nullptr, reason, sizeof(reason)), MBUF_DBG_ERR_NULL);
    EXPECT_STREQ(reason, "no pack") << "cut and terminated";
    node_[0]->ulTotalDataLen = 1;
    EXPECT_EQ(MBUF_DBG_Check(head_, nullptr, 0), MBUF_DBG_ERR_TOTAL_LEN);
    node_[0]->ulTotalDataLen = 2110;
}

TEST_F(DebugTest, EachCorruptedFieldIsNamed) {
    using N = MBUF_S **;
    using B = MBUF_CONTROL_BLK_S *;
    const std::string used = std::to_string(Blk()->usUsedLen);
    const std::string len22 = std::to_string(Blk()->astSlot[22].usLen);
    std::uint8_t *rec22 = reinterpret_cast<std::uint8_t *>(Blk()) + Blk()->astSlot[22].usOffset;
    const std::uint16_t bigLen = 200;
    // The checker's code and reason for each corruption; the reason names the
    // case.
    const std::tuple<std::function<void(N, B)>, std::uint32_t, std::string> cases[] = {
        {[](N n, B) { n[0]->ucMagic = MBUF_MAGIC_DEAD; }, MBUF_DBG_ERR_MAGIC,
         "node 0: magic 0xbb, not 0xaa"},
        {[](N n, B) { n[0]->ulFlag &= ~MBUF_PKTHDR; }, MBUF_DBG_ERR_PKTHDR,
         "node 0: head without MBUF_PKTHDR"},
        // A later node may carry MBUF_PKTHDR (a linked source head does), but
        // then its data must lie in a header's inline area, 476 bytes into the
        // body, and its block must be its own.
        {[](N n, B) { n[1]->ulFlag |= MBUF_PKTHDR; }, MBUF_DBG_ERR_DATA_RANGE,
         "node 1: data starts 476 before inline area"},
        {[](N n, B) {
             n[1]->ulFlag |= MBUF_PKTHDR;
             n[1]->pucData = n[1]->aucHdrInlineData;
             n[1]->pstCtlInfo = reinterpret_cast<B>(n[0]->aucHdrInlineData);
         },
         MBUF_DBG_ERR_PKTHDR, "node 1: MBUF_PKTHDR with a block in no known buffer"},
        {[](N n, B) { n[0]->pstCtlInfo = reinterpret_cast<B>(n[0]->aucHdrInlineData); },
         MBUF_DBG_ERR_CTL_CAPACITY, "block: separate, in no known buffer"},
        {[](N n, B) { n[2]->pucExtBuf = nullptr; }, MBUF_DBG_ERR_EXT,
         "node 2: MBUF_EXT without buffer"},
        {[](N n, B) { n[2]->ulExtSize = 0; }, MBUF_DBG_ERR_EXT,
         "node 2: MBUF_EXT with buffer size 0"},
        {[](N n, B) { n[2]->pucData += 30; }, MBUF_DBG_ERR_DATA_RANGE,
         "node 2: data 30+1960 beyond external buffer of 1960"},
        {[](N n, B) { n[2]->pucData -= 4; }, MBUF_DBG_ERR_DATA_RANGE,
         "node 2: data starts 4 before external buffer"},
        {[](N n, B) { n[0]->ulDataLen = 357; }, MBUF_DBG_ERR_DATA_RANGE,
         "node 0: data 16+357 beyond inline area of 372"},
        {[](N n, B) { n[1]->pucData += 800; }, MBUF_DBG_ERR_DATA_RANGE,
         "node 1: data 800+50 beyond inline area of 848"},
        {[](N n, B) { n[0]->ulTotalDataLen = 2000; }, MBUF_DBG_ERR_TOTAL_LEN,
         "total 2000 != sum of nodes 2110"},
        {[](N n, B) { n[2]->pstNext = n[1]; }, MBUF_DBG_ERR_CYCLE, "node 2 links back to node 1"},
        {[](N n, B) { n[0]->pstNext = n[0]; }, MBUF_DBG_ERR_CYCLE, "node 0 links back to node 0"},
        {[](N, B b) { b->ucBlkMark = 0x41; }, MBUF_DBG_ERR_CTL_HEAD, "block: mark 0x41, not 0x40"},
        {[](N, B b) { b->ucSlotNum = 22; }, MBUF_DBG_ERR_CTL_HEAD, "block: 22 slots, not 23"},
        {[](N, B b) { b->ucByteOrder = 7; }, MBUF_DBG_ERR_CTL_HEAD, "block: byte order 7"},
        {[](N, B b) { b->usCapacity = 300; }, MBUF_DBG_ERR_CTL_CAPACITY,
         "block: capacity 300 beyond inline block of 264"},
        {[](N, B b) { b->usUsedLen = 265; }, MBUF_DBG_ERR_CTL_CAPACITY,
         "block: used 265 beyond capacity 264"},
        {[](N, B b) { b->astSlot[0].usLen = 4; }, MBUF_DBG_ERR_CTL_SLOT, "slot 0 in use"},
        {[](N, B b) { b->astSlot[9].usOffset = 120; }, MBUF_DBG_ERR_CTL_SLOT,
         "slot 9 offset 120 below the fixed part"},
        {[](N, B b) { b->astSlot[9].usLen = 200; }, MBUF_DBG_ERR_CTL_SLOT,
         "slot 9 offset 184+200 beyond used area 184+" + used},
        {[](N, B b) {
             b->astSlot[12] = {186, 4};
         },
         MBUF_DBG_ERR_CTL_SLOT, "slot 12 overlaps slot 9"},
        {[](N, B b) { ++b->ucRecNum; }, MBUF_DBG_ERR_CTL_RECNUM,
         "block: 4 records counted, 3 slots in use"},
        {[&](N, B b) { std::memcpy(rec22 + 2, &b->astSlot[22].usLen, 2); }, MBUF_DBG_ERR_CTL_TLV,
         "slot 22 list " + len22 + " beyond record of " + len22},
        {[&](N, B) { std::memcpy(rec22 + 4 + 2, &bigLen, 2); }, MBUF_DBG_ERR_CTL_TLV,
         "slot 22 sub-TLV at 4 claims 204 of 10 left"},
    };
    // Everything the corruptions touch: the three nodes (the block is inside
    // the head).
    MBUF_S pristine[3];
    for (int i = 0; i < 3; ++i) pristine[i] = *node_[i];
    for (const auto &[corrupt, code, reason] : cases) {
        SCOPED_TRACE(reason);
        corrupt(node_, Blk());
        const CheckResult result = Check(head_);
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.reason, reason);
        for (int i = 0; i < 3; ++i) *node_[i] = pristine[i];
        ExpectValid(head_);
    }
}

TEST_F(DebugTest, SeparateBlockCapacityIsCheckedAgainstItsBuffer) {
    ASSERT_EQ(MBUF_CreateControlInfo(head_, MBUF_CTL_STACKDEBUG, 400, kModule), 0u);
    ExpectValid(head_);
    const std::uint16_t capacity = Blk()->usCapacity;
    Blk()->usCapacity = static_cast<std::uint16_t>(capacity + 200);
    const CheckResult result = Check(head_);
    EXPECT_EQ(result.code, MBUF_DBG_ERR_CTL_CAPACITY);
    EXPECT_EQ(result.reason, "block: 184+" + std::to_string(capacity + 200) +
                                 " beyond its buffer of " + std::to_string(184 + capacity));
    Blk()->usCapacity = capacity;
}

TEST_F(DebugTest, DumpShowsNodesAndBlock) {
    char expected[1024];
    std::snprintf(expected, sizeof(expected), R"(packet: total 2110, 3 nodes
node 0: header inline flags PKTHDR data 16+100 head 16 tail 256
node 1: plain inline flags none data 0+50 head 0 tail 798
node 2: plain external flags EXT data 0+1960 head 0 tail 0 ext 1960
flag words: packet 0x00000000 flag2 0x00000000 flag3 0x00000000
block: inline mark 0x40 order %u slots 23 records 3 used 64 capacity 264
  0 COMM flags 0x0 vr 0 vrf 0 rcvif 0 sendif 0 path 0xffffffff socket 0xffffffff
  2 IP offset %u len 24
  9 PREVHOP offset 184 len 8
  22 PACKET offset %u len 16 list 10
    sub-TLV type 5 len 2
    sub-TLV type 7 len 0
)",
                  MBUF_BYTEORDER_HOST, Blk()->astSlot[MBUF_CTL_IP].usOffset,
                  Blk()->astSlot[MBUF_CTL_PACKET].usOffset);
    EXPECT_EQ(Dump(head_), expected);

    // Cut at the caller's buffer, always terminated.
    char small[41];
    std::memset(small, 'x', sizeof(small));
    EXPECT_EQ(MBUF_DBG_Dump(head_, small, sizeof(small)), 40u);
    EXPECT_EQ(std::string(small), std::string(expected, 40));
    EXPECT_EQ(MBUF_DBG_Dump(head_, small, 0), 0u);
    EXPECT_EQ(MBUF_DBG_Dump(head_, nullptr, 100), 0u);
}

TEST_F(DebugTest, DumpOfABrokenPacketStaysBounded) {
    node_[2]->pstNext = node_[0];
    node_[1]->pucData += 840;
    node_[2]->ucMagic = 0;
    const std::string text = Dump(head_);
    node_[2]->pstNext = nullptr;
    node_[1]->pucData -= 840;
    node_[2]->ucMagic = MBUF_MAGIC_LIVE;
    EXPECT_NE(text.find("3 nodes (loops back)"), std::string::npos) << text;
    EXPECT_NE(text.find("data 840+50 outside its storage of 848"), std::string::npos) << text;
    EXPECT_NE(text.find("magic 0x00"), std::string::npos) << text;
    EXPECT_EQ(text.find("node 3"), std::string::npos) << text;
    EXPECT_EQ(Dump(nullptr), "packet: none\n");

    // A record offset beyond the block, under a used length that claims it:
    // described, not read.
    const MBUF_CONTROL_BLK_S pristine = *Blk();
    Blk()->usUsedLen = 60000;
    Blk()->astSlot[MBUF_CTL_PACKET].usOffset = 4000;
    Blk()->astSlot[MBUF_CTL_STACKDEBUG] = {440, 320};
    const std::string record = Dump(head_);
    *Blk() = pristine;
    EXPECT_NE(record.find("  22 PACKET offset 4000 len 16 beyond its block of 448\n"),
              std::string::npos)
        << record;
    EXPECT_NE(record.find("  21 STACKDEBUG offset 440 len 320\n  22"), std::string::npos) << record;
    // A block in no buffer the platform knows has no room to read.
    head_->pstCtlInfo = reinterpret_cast<MBUF_CONTROL_BLK_S *>(head_->aucHdrInlineData);
    const std::string lost = Dump(head_);
    head_->pstCtlInfo = &head_->stCtlInfo.stBlk;
    EXPECT_NE(lost.find("flag words: packet none"), std::string::npos) << lost;
    EXPECT_NE(lost.find("block: separate, in a buffer of 0, short of its fixed part\n"),
              std::string::npos)
        << lost;
}

}  // namespace
}  // namespace krm::test
