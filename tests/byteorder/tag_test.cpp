// The control block as the framework walks it: from a packet-header node
// (inline or separate block) and as a received tag message, with the
// message's validations, the stop on the record count, the slot limit of 23
// and the bounds of the block and the message.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "image.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::test::bo {
namespace {

const Layout kIp{"Ip", 24, {U16(14), U32(16)}};
const Layout kMpls{"Mpls", 112,
                   Join({Seq(0, 5, 4, 4),
                         Seq(24, 5, 4, 4),
                         Seq(44, 5, 4, 4),
                         Seq(64, 5, 4, 4),
                         {U32(20), U32(84), U32(88), U16(94), U32(96), U32(104)}})};
const Layout kPrevHop{"PrevHop", 8, {U32(0)}};

// A block holding records 2, 3 and 9.
Block ThreeRecords() {
    Block block;
    block.Add(MBUF_CTL_IP, HostImage(kIp, 1), kIp.fields);
    block.Add(MBUF_CTL_MPLS, HostImage(kMpls, 2), kMpls.fields);
    block.Add(MBUF_CTL_PREVHOP, HostImage(kPrevHop, 3), kPrevHop.fields);
    return block;
}

Bytes Head(const Bytes &b, std::uint32_t n) {
    return Bytes(b.begin(), b.begin() + n);
}

class TagTest : public HostTest {};

TEST_F(TagTest, EveryRecordOfABlockIsConvertedOnBothPaths) {
    ExpectFrameworkRestores(ThreeRecords());
}

TEST_F(TagTest, SlotCountZeroConvertsOnlyTheHead) {
    Block block = ThreeRecords();
    block.SetSlotNum(0);
    // Only the head was reversed by the sender's order here; the common
    // record, the slots and the records must come out as they went in.
    ASSERT_EQ(block.ForeignFields().size(), 3u);
    ExpectFrameworkRestores(block);
}

TEST_F(TagTest, SlotsBeyondTwentyTwoAreNeverVisited) {
    // Thirty slots described: slots 23 to 29 lie at 184..211 and must keep
    // their bytes; a message long enough for all of them passes the checks.
    Block block(MBUF_CTL_INIT_CAPACITY);
    block.SetSlotNum(30);
    const Bytes host = block.Host();
    const Bytes foreign = block.ForeignImage();

    auto node = NewNode();
    node->ulFlag = MBUF_PKTHDR;
    node->pstCtlInfo = &node->stCtlInfo.stBlk;
    std::copy(foreign.begin(), foreign.end(), node->stCtlInfo.aucRaw);
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(host, Bytes(node->stCtlInfo.aucRaw, node->stCtlInfo.aucRaw + 448)));

    Bytes msg = foreign;
    MBUF_TagByteOrderTrans(msg.data(), 448);
    EXPECT_TRUE(SameBytes(host, msg));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(TagTest, NodeWithoutPacketHeaderHasItsHeadAndSlotsConvertedButNoRecord) {
    const Block block = ThreeRecords();
    const Fields head = {U32(84), U16(88), U16(90)};
    Fields slots;
    for (std::uint32_t i = 0; i < MBUF_CTL_TYPE_NUM; ++i) {
        slots.push_back(U16(92 + 4 * i));
        slots.push_back(U16(94 + 4 * i));
    }
    auto node = NewNode();
    node->pstCtlInfo = &node->stCtlInfo.stBlk;
    const Bytes foreign = block.ForeignImage();
    std::copy(foreign.begin(), foreign.end(), node->stCtlInfo.aucRaw);
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    const Bytes want = Foreign(block.Host(), Without(block.ForeignFields(), Join({head, slots})));
    EXPECT_TRUE(SameBytes(want, Bytes(node->stCtlInfo.aucRaw, node->stCtlInfo.aucRaw + 448)));
}

TEST_F(TagTest, SeparateBlockIsBoundByItsOwnAccountWhenNotAPipeBuffer) {
    const Block block = ThreeRecords();
    Bytes separate = block.ForeignImage();
    auto node = NewNode();
    node->ulFlag = MBUF_PKTHDR;
    node->pstCtlInfo = reinterpret_cast<MBUF_CONTROL_BLK_S *>(separate.data());
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(block.Host(), separate));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(TagTest, PipeBufferBlockIsBoundByItsLength) {
    // A received block that the pipe delivered shorter than its slots say:
    // the record at its end is cut by the buffer's length.
    const Block block = ThreeRecords();
    const std::uint32_t len = block.UsedEnd() - 6;
    MBUF_IOVEC_S piece{nullptr, len, 0};
    ASSERT_EQ(KRM_DbufIovecAlloc_F(0, 1, &piece, "test", 1), 0u);
    const Bytes foreign = block.ForeignImage();
    std::copy(foreign.begin(), foreign.begin() + len, static_cast<std::uint8_t *>(piece.pBuf));
    auto node = NewNode();
    node->ulFlag = MBUF_PKTHDR;
    node->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(piece.pBuf);
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    const auto *p = static_cast<const std::uint8_t *>(piece.pBuf);
    // The previous-hop record (8 bytes at the end) keeps its foreign word.
    const Bytes want = Foreign(block.Host(), {U32(block.UsedEnd() - 8)});
    EXPECT_TRUE(SameBytes(Head(want, len), Bytes(p, p + len)));
    EXPECT_EQ(ReportsOf(kTrans), (std::vector<Seen>{{1310, "T 9 field 0+4 beyond len 2"},
                                                    {118, FdPro() + " TagT 9 Ret 1"}}));
    EXPECT_EQ(KRM_DbufIovecFree_F(1, &piece, "test", 2), 0u);
}

TEST_F(TagTest, BlockTooShortForItsHeadIsLeftAlone) {
    MBUF_IOVEC_S piece{nullptr, 91, 0};
    ASSERT_EQ(KRM_DbufIovecAlloc_F(0, 1, &piece, "test", 1), 0u);
    const Bytes image = Pattern(91);
    std::copy(image.begin(), image.end(), static_cast<std::uint8_t *>(piece.pBuf));
    auto node = NewNode();
    node->ulFlag = MBUF_PKTHDR;
    node->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(piece.pBuf);
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    const auto *p = static_cast<const std::uint8_t *>(piece.pBuf);
    EXPECT_TRUE(SameBytes(image, Bytes(p, p + 91)));
    EXPECT_EQ(KRM_DbufIovecFree_F(1, &piece, "test", 2), 0u);

    Bytes msg = Pattern(91);
    MBUF_TagByteOrderTrans(msg.data(), 91);
    EXPECT_TRUE(SameBytes(Pattern(91), msg));
    EXPECT_EQ(ReportsOf(kTrans),
              (std::vector<Seen>{{1320, "Blk len 91 < 92"}, {1320, "Blk len 91 < 92"}}));
    MBUF_TagByteOrderTrans(nullptr, 100);
}

// ---- the tag message's own rules ----------------------------------------------

TEST_F(TagTest, WalkStopsWhenTheRecordCountIsReached) {
    Block block = ThreeRecords();
    block.SetRecNum(2);
    // Slots and records from the third non-empty slot (type 9) on stay as
    // received; so do the empty slots behind it.
    Bytes msg = Head(block.ForeignImage(), block.UsedEnd());
    MBUF_TagByteOrderTrans(msg.data(), block.UsedEnd());
    Fields left = At(block.UsedEnd() - 8, kPrevHop.fields);
    for (std::uint32_t i = 4; i < MBUF_CTL_TYPE_NUM; ++i) {
        left.push_back(U16(92 + 4 * i));
        left.push_back(U16(94 + 4 * i));
    }
    EXPECT_TRUE(SameBytes(Head(Foreign(block.Host(), left), block.UsedEnd()), msg));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(TagTest, RecordCountZeroFindsNoRecordButConvertsEverySlot) {
    Block block = ThreeRecords();
    block.SetRecNum(0);
    Bytes msg = Head(block.ForeignImage(), block.UsedEnd());
    MBUF_TagByteOrderTrans(msg.data(), block.UsedEnd());
    const Fields records =
        Join({At(184, kIp.fields), At(208, kMpls.fields), At(320, kPrevHop.fields)});
    EXPECT_TRUE(SameBytes(Head(Foreign(block.Host(), records), block.UsedEnd()), msg));
}

TEST_F(TagTest, ShortMessageIsReportedAndStillWalked) {
    // Thirty slots put the record area at 212; a message of 200 bytes holds
    // the 23 slots that are walked, not the area.
    Block block;
    block.SetSlotNum(30);
    Bytes msg = Head(block.ForeignImage(), 200);
    MBUF_TagByteOrderTrans(msg.data(), 200);
    EXPECT_TRUE(SameBytes(Head(block.Host(), 200), msg));
    EXPECT_EQ(ReportsOf(kTrans), (std::vector<Seen>{{232, "RevLen=200 < 212 30"}}));
}

TEST_F(TagTest, UsedLengthBeyondTheMessageIsReportedAndStillWalked) {
    const Block block = ThreeRecords();
    const std::uint32_t len = block.UsedEnd();
    Bytes msg = Head(block.ForeignImage(), len);
    MBUF_TagByteOrderTrans(msg.data(), len - 1);
    // The last record's word still lies within the message and is
    // converted; its slot then fails its check.
    EXPECT_TRUE(SameBytes(Head(block.Host(), len), msg));
    const std::string used = std::to_string(len - 184);
    EXPECT_EQ(ReportsOf(kTrans),
              (std::vector<Seen>{
                  {239, "RevLen=" + std::to_string(len - 1) + " < 184 + " + used + " 264 23"},
                  {269, std::to_string(len - 8) + "+8<" + std::to_string(len - 1) +
                            " offset+len<revLen Type 9"}}));
}

TEST_F(TagTest, RecordAtOrBeyondTheMessageEndIsReportedNotTouched) {
    Block block = ThreeRecords();
    const std::uint32_t len = block.UsedEnd() - 8;  // the message ends where record 9 starts
    Bytes msg = Head(block.ForeignImage(), len);
    MBUF_TagByteOrderTrans(msg.data(), len);
    EXPECT_TRUE(SameBytes(Head(block.Host(), len), msg));
    const std::string l = std::to_string(len);
    EXPECT_EQ(ReportsOf(kTrans),
              (std::vector<Seen>{{239, "RevLen=" + l + " < 184 + 144 264 23"},
                                 {190, "RevLen=" + l + " < " + l + " type=9"},
                                 {1310, "T 9 field 0+4 beyond len 0"},
                                 {203, FdPro() + " TagT 9 Ret 1"},
                                 {269, l + "+8<" + l + " offset+len<revLen Type 9"}}));
}

TEST_F(TagTest, SlotBeyondTheMessageStopsTheWalk) {
    // Record 3's slot claims 4 bytes more than the message holds behind it;
    // record 9 behind it is never reached.
    Block block;
    block.Add(MBUF_CTL_IP, HostImage(kIp, 1), kIp.fields);
    const std::uint32_t mplsAt = block.Add(MBUF_CTL_MPLS, HostImage(kMpls, 2), kMpls.fields);
    block.Add(MBUF_CTL_PREVHOP, HostImage(kPrevHop, 3), kPrevHop.fields);
    Bytes host = block.Host();
    Put16(host, 94 + 4 * 3, static_cast<std::uint16_t>(block.UsedEnd() - mplsAt + 4));
    Fields fields = block.ForeignFields();
    Bytes msg = Head(Foreign(host, fields), block.UsedEnd());
    MBUF_TagByteOrderTrans(msg.data(), block.UsedEnd());
    Fields left = At(block.UsedEnd() - 8, kPrevHop.fields);
    for (std::uint32_t i = 4; i < MBUF_CTL_TYPE_NUM; ++i) {
        left.push_back(U16(92 + 4 * i));
        left.push_back(U16(94 + 4 * i));
    }
    EXPECT_TRUE(SameBytes(Head(Foreign(host, left), block.UsedEnd()), msg));
    EXPECT_EQ(
        ReportsOf(kTrans),
        (std::vector<Seen>{
            {269, std::to_string(mplsAt) + "+" + std::to_string(block.UsedEnd() - mplsAt + 4) +
                      "<" + std::to_string(block.UsedEnd()) + " offset+len<revLen Type 3"}}));
}

TEST_F(TagTest, RecordInsideTheFixedPartStopsTheWalk) {
    Block block = ThreeRecords();
    Bytes host = block.Host();
    Put16(host, 92 + 4 * 2, 40);  // record 2 claims to start inside the common record
    Bytes msg = Head(Foreign(host, block.ForeignFields()), block.UsedEnd());
    MBUF_TagByteOrderTrans(msg.data(), block.UsedEnd());
    // What lies at 40 is converted as record 2: its fields at 54 and 56 fall
    // on common-record bytes already converted, which turn back. Then the
    // walk stops: the records and the slots behind 2 stay as received.
    Fields left = Join({At(184, kIp.fields), At(208, kMpls.fields), At(320, kPrevHop.fields)});
    for (std::uint32_t i = 3; i < MBUF_CTL_TYPE_NUM; ++i) {
        left.push_back(U16(92 + 4 * i));
        left.push_back(U16(94 + 4 * i));
    }
    Bytes want = Head(Foreign(host, left), block.UsedEnd());
    std::reverse(want.begin() + 54, want.begin() + 56);
    std::reverse(want.begin() + 56, want.begin() + 60);
    EXPECT_TRUE(SameBytes(want, msg));
    EXPECT_EQ(ReportsOf(kTrans), (std::vector<Seen>{{262, "40<184 24 Offset<BasOffSet Type 2"}}));
}

TEST_F(TagTest, ChecksOfAConvertedMessage) {
    const Bytes host = ThreeRecords().Host();
    Bytes msg = host;
    const std::uint32_t used = 184 + 144;
    EXPECT_EQ(MBUF_CheckTagByteOrderLen(msg.data(), used), 0);
    EXPECT_EQ(MBUF_CheckTagByteOrderLen(msg.data(), 183), -1);
    EXPECT_EQ(MBUF_CheckTagOffsetLen(msg.data(), used, MBUF_CTL_MPLS), 0);
    EXPECT_EQ(MBUF_CheckTagOffsetLen(msg.data(), 300, MBUF_CTL_MPLS), -1);
    EXPECT_EQ(MBUF_CheckTagByteOrderLen(nullptr, 0), -1);
    EXPECT_EQ(MBUF_CheckTagOffsetLen(nullptr, 0, 0), -1);
    EXPECT_EQ(ReportsOf(kTrans),
              (std::vector<Seen>{{232, "RevLen=183 < 184 23"},
                                 {269, "208+112<300 offset+len<revLen Type 3"}}));
}

}  // namespace
}  // namespace krm::test::bo
