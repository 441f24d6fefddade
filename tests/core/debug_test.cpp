#include <cstring>
#include <functional>
#include <string>

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
        head_ = MBUF_CreateByCopyBuffer(16, 100, data.data(), 0, kTestModule);
        std::uint32_t capacity = 0;
        MBUF_S *inlineNode = MBUF_AllocateMBufNode_fl(50, 0, &capacity, kTestModule, kTestFile, 1);
        MBUF_S *cluster = MBUF_AllocateMBufNode_fl(1000, 0, &capacity, kTestModule, kTestFile, 1);
        ASSERT_TRUE(head_ && inlineNode && cluster);
        inlineNode->ulDataLen = 50;
        cluster->ulDataLen = 1960;
        head_->pstNext = inlineNode;
        inlineNode->pstNext = cluster;
        head_->ulTotalDataLen = 2110;
        ASSERT_EQ(MBUF_CreateControlInfo(head_, MBUF_CTL_PREVHOP, 4, kTestModule), 0u);
        ASSERT_EQ(MBUF_CreateControlInfo(head_, MBUF_CTL_IP, 20, kTestModule), 0u);
        SetTlv(5, {0xAA, 0xBB});
        SetTlv(7, {});
        node_[0] = head_;
        node_[1] = inlineNode;
        node_[2] = cluster;
    }
    void TearDown() override {
        MBUF_Destroy(head_);
        HostTest::TearDown();
    }
    void SetTlv(std::uint16_t type, std::vector<std::uint8_t> value) {
        std::vector<std::uint8_t> tlv(4);
        const auto len = static_cast<std::uint16_t>(value.size());
        std::memcpy(tlv.data(), &type, 2);
        std::memcpy(tlv.data() + 2, &len, 2);
        tlv.insert(tlv.end(), value.begin(), value.end());
        ASSERT_EQ(
            MBUF_SetTlvInfo(head_, kTestModule, reinterpret_cast<MBUF_CTL_TLV_S *>(tlv.data())), 0);
    }
    MBUF_CONTROL_BLK_S *Blk() { return head_->pstCtlInfo; }
    MBUF_S *head_ = nullptr;
    MBUF_S *node_[3] = {};
};

TEST_F(DebugTest, TheBuiltPacketIsValid) {
    const CheckResult result = Check(head_);
    EXPECT_EQ(result.code, MBUF_DBG_OK) << result.reason;
    EXPECT_EQ(result.reason, "");
}

struct Corruption {
    const char *name;
    std::function<void(DebugTest &, MBUF_S **, MBUF_CONTROL_BLK_S *)> apply;
    std::uint32_t code;
    std::function<std::string(MBUF_S **, MBUF_CONTROL_BLK_S *)> reason;
};

std::string Fixed(const char *text) {
    return text;
}

TEST_F(DebugTest, EachCorruptedFieldIsNamed) {
    using N = MBUF_S **;
    using B = MBUF_CONTROL_BLK_S *;
    auto text = [](const char *t) { return [t](N, B) { return Fixed(t); }; };
    const Corruption cases[] = {
        {"dead head", [](DebugTest &, N n, B) { n[0]->ucMagic = MBUF_MAGIC_DEAD; },
         MBUF_DBG_ERR_MAGIC, text("node 0: magic 0xbb, not 0xaa")},
        {"dead tail", [](DebugTest &, N n, B) { n[2]->ucMagic = 0; }, MBUF_DBG_ERR_MAGIC,
         text("node 2: magic 0x00, not 0xaa")},
        {"head without header", [](DebugTest &, N n, B) { n[0]->ulFlag &= ~MBUF_PKTHDR; },
         MBUF_DBG_ERR_PKTHDR, text("node 0: head without MBUF_PKTHDR")},
        {"header inside", [](DebugTest &, N n, B) { n[1]->ulFlag |= MBUF_PKTHDR; },
         MBUF_DBG_ERR_PKTHDR, text("node 1: MBUF_PKTHDR on a later node")},
        {"ext without buffer", [](DebugTest &, N n, B) { n[2]->pucExtBuf = nullptr; },
         MBUF_DBG_ERR_EXT, text("node 2: MBUF_EXT without buffer")},
        {"ext without size", [](DebugTest &, N n, B) { n[2]->ulExtSize = 0; }, MBUF_DBG_ERR_EXT,
         text("node 2: MBUF_EXT with buffer size 0")},
        {"past the cluster", [](DebugTest &, N n, B) { n[2]->pucData += 30; },
         MBUF_DBG_ERR_DATA_RANGE, text("node 2: data 30+1960 beyond external buffer of 1960")},
        {"before the cluster", [](DebugTest &, N n, B) { n[2]->pucData -= 4; },
         MBUF_DBG_ERR_DATA_RANGE, text("node 2: data starts 4 before external buffer")},
        {"past the head", [](DebugTest &, N n, B) { n[0]->ulDataLen = 357; },
         MBUF_DBG_ERR_DATA_RANGE, text("node 0: data 16+357 beyond inline area of 372")},
        {"past the plain node", [](DebugTest &, N n, B) { n[1]->pucData += 800; },
         MBUF_DBG_ERR_DATA_RANGE, text("node 1: data 800+50 beyond inline area of 848")},
        {"total", [](DebugTest &, N n, B) { n[0]->ulTotalDataLen = 2000; }, MBUF_DBG_ERR_TOTAL_LEN,
         text("total 2000 != sum of nodes 2110")},
        {"loop", [](DebugTest &, N n, B) { n[2]->pstNext = n[1]; }, MBUF_DBG_ERR_CYCLE,
         text("node 2 links back to node 1")},
        {"self loop", [](DebugTest &, N n, B) { n[0]->pstNext = n[0]; }, MBUF_DBG_ERR_CYCLE,
         text("node 0 links back to node 0")},
        {"mark", [](DebugTest &, N, B b) { b->ucBlkMark = 0x41; }, MBUF_DBG_ERR_CTL_HEAD,
         text("block: mark 0x41, not 0x40")},
        {"slot count", [](DebugTest &, N, B b) { b->ucSlotNum = 22; }, MBUF_DBG_ERR_CTL_HEAD,
         text("block: 22 slots, not 23")},
        {"byte order", [](DebugTest &, N, B b) { b->ucByteOrder = 7; }, MBUF_DBG_ERR_CTL_HEAD,
         text("block: byte order 7")},
        {"inline capacity", [](DebugTest &, N, B b) { b->usCapacity = 300; },
         MBUF_DBG_ERR_CTL_CAPACITY, text("block: capacity 300 beyond inline block of 264")},
        {"used", [](DebugTest &, N, B b) { b->usUsedLen = 265; }, MBUF_DBG_ERR_CTL_CAPACITY,
         text("block: used 265 beyond capacity 264")},
        {"slot 0", [](DebugTest &, N, B b) { b->astSlot[0].usLen = 4; }, MBUF_DBG_ERR_CTL_SLOT,
         text("slot 0 in use")},
        {"slot below", [](DebugTest &, N, B b) { b->astSlot[9].usOffset = 120; },
         MBUF_DBG_ERR_CTL_SLOT, text("slot 9 offset 120 below the fixed part")},
        {"slot beyond", [](DebugTest &, N, B b) { b->astSlot[9].usLen = 200; },
         MBUF_DBG_ERR_CTL_SLOT,
         [](N, B b) {
             return "slot 9 offset 184+200 beyond used area 184+" + std::to_string(b->usUsedLen);
         }},
        {"overlap",
         [](DebugTest &, N, B b) {
             b->astSlot[12] = MBUF_CTL_SLOT_S{186, 4};
         },
         MBUF_DBG_ERR_CTL_SLOT, text("slot 12 overlaps slot 9")},
        {"record count", [](DebugTest &, N, B b) { ++b->ucRecNum; }, MBUF_DBG_ERR_CTL_RECNUM,
         text("block: 4 records counted, 3 slots in use")},
        {"list too long",
         [](DebugTest &, N, B b) {
             auto *rec = reinterpret_cast<std::uint8_t *>(b) + b->astSlot[22].usOffset;
             const std::uint16_t len = b->astSlot[22].usLen;
             std::memcpy(rec + 2, &len, 2);
         },
         MBUF_DBG_ERR_CTL_TLV,
         [](N, B b) {
             const std::string len = std::to_string(b->astSlot[22].usLen);
             return "slot 22 list " + len + " beyond record of " + len;
         }},
        {"sub-TLV too long",
         [](DebugTest &, N, B b) {
             auto *rec = reinterpret_cast<std::uint8_t *>(b) + b->astSlot[22].usOffset;
             const std::uint16_t len = 200;
             std::memcpy(rec + 4 + 2, &len, 2);
         },
         MBUF_DBG_ERR_CTL_TLV, text("slot 22 sub-TLV at 4 claims 204 of 10 left")},
    };
    // Everything the corruptions touch: the three nodes (the block is inside
    // the head).
    MBUF_S pristine[3];
    for (int i = 0; i < 3; ++i) pristine[i] = *node_[i];
    for (const Corruption &c : cases) {
        SCOPED_TRACE(c.name);
        c.apply(*this, node_, Blk());
        const CheckResult result = Check(head_);
        EXPECT_EQ(result.code, c.code);
        EXPECT_EQ(result.reason, c.reason(node_, Blk()));
        for (int i = 0; i < 3; ++i) *node_[i] = pristine[i];
        ExpectValid(head_);
    }
}

TEST_F(DebugTest, SeparateBlockCapacityIsCheckedAgainstItsBuffer) {
    ASSERT_EQ(MBUF_CreateControlInfo(head_, MBUF_CTL_STACKDEBUG, 400, kTestModule), 0u);
    ExpectValid(head_);
    const std::uint16_t capacity = Blk()->usCapacity;
    Blk()->usCapacity = static_cast<std::uint16_t>(capacity + 200);
    const CheckResult result = Check(head_);
    EXPECT_EQ(result.code, MBUF_DBG_ERR_CTL_CAPACITY);
    EXPECT_EQ(result.reason, "block: 184+" + std::to_string(capacity + 200) +
                                 " beyond its buffer of " + std::to_string(184 + capacity));
    Blk()->usCapacity = capacity;
}

TEST_F(DebugTest, NullAndUnterminatedReasonBuffers) {
    char reason[8];
    EXPECT_EQ(MBUF_DBG_Check(nullptr, reason, sizeof(reason)), MBUF_DBG_ERR_NULL);
    EXPECT_STREQ(reason, "no pack");
    node_[0]->ulTotalDataLen = 1;
    EXPECT_EQ(MBUF_DBG_Check(head_, nullptr, 0), MBUF_DBG_ERR_TOTAL_LEN);
    node_[0]->ulTotalDataLen = 2110;
}

TEST_F(DebugTest, DumpShowsNodesAndBlock) {
    const std::uint16_t ip = Blk()->astSlot[MBUF_CTL_IP].usOffset;
    const std::uint16_t pkt = Blk()->astSlot[MBUF_CTL_PACKET].usOffset;
    const std::string expected =
        "packet: total 2110, 3 nodes\n"
        "node 0: header inline flags PKTHDR data 16+100 head 16 tail 256\n"
        "node 1: plain inline flags none data 0+50 head 0 tail 798\n"
        "node 2: plain external flags EXT data 0+1960 head 0 tail 0 ext 1960\n"
        "flag words: packet 0x00000000 flag2 0x00000000 flag3 0x00000000\n"
        "block: inline mark 0x40 order " +
        std::to_string(MBUF_BYTEORDER_HOST) +
        " slots 23 records 3 used 64 capacity 264\n"
        "  0 COMM flags 0x0 vr 0 vrf 0 rcvif 0 sendif 0 path 0xffffffff socket 0xffffffff\n"
        "  2 IP offset " +
        std::to_string(ip) +
        " len 24\n"
        "  9 PREVHOP offset 184 len 8\n"
        "  22 PACKET offset " +
        std::to_string(pkt) +
        " len 16 list 10\n"
        "    sub-TLV type 5 len 2\n"
        "    sub-TLV type 7 len 0\n";
    EXPECT_EQ(Dump(head_), expected);

    // Cut at the caller's buffer, always terminated.
    char small[41];
    std::memset(small, 'x', sizeof(small));
    EXPECT_EQ(MBUF_DBG_Dump(head_, small, sizeof(small)), 40u);
    EXPECT_EQ(std::string(small), expected.substr(0, 40));
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
}

}  // namespace
}  // namespace krm::test
