// The control block as the framework walks it: from a packet-header node
// (inline, pipe buffer or separate block) and as a received tag message,
// with the message's validations, the stop on the record count, the slot
// limit of 23 and the bounds of the block and of the message.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "image.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::test::bo {
namespace {

// Records 2, 3 and 9 at 184, 208 and 320; the block's records end at 328.
const Fields kIp = P("h14 w16");
const Fields kMpls = P("w0..16 w24..40 w44..60 w64..80 w20 w84 w88 h94 w96 w104");
Block ThreeRecords() {
    Block block;
    block.Add(MBUF_CTL_IP, Img{Pattern(24, 1), kIp});
    block.Add(MBUF_CTL_MPLS, Img{Pattern(112, 2), kMpls});
    block.Add(MBUF_CTL_PREVHOP, Img{Pattern(8, 3), P("w0")});
    return block;
}
const Fields kRecords = At(184, kIp) + At(208, kMpls) + P("w320");

// A foreign block converted through a node (flags), at blk or else in the
// node's inline area; what lies there afterwards.
Bytes ViaNode(const Bytes &foreign, void *blk = nullptr, std::uint32_t flags = MBUF_PKTHDR) {
    auto node = NewNode();
    node->ulFlag = flags;
    node->pstCtlInfo = blk ? static_cast<MBUF_CONTROL_BLK_S *>(blk) : &node->stCtlInfo.stBlk;
    auto *p = reinterpret_cast<std::uint8_t *>(node->pstCtlInfo);
    std::copy(foreign.begin(), foreign.end(), p);
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    return Bytes(p, p + foreign.size());
}

// A received tag message of exactly len bytes, converted.
Bytes ViaMessage(const Bytes &foreign, std::uint32_t len) {
    Bytes msg = Head(foreign, len);
    MBUF_TagByteOrderTrans(msg.data(), len);
    return msg;
}

class TagTest : public HostTest {};

TEST_F(TagTest, BlockOfRecordsOrOfNoSlotIsConvertedOnBothPaths) {
    Block block = ThreeRecords();
    ExpectFrameworkRestores(block);
    block.slotNum = 0;  // then only the head travels reversed, and only it converts
    ExpectFrameworkRestores(block);
}

TEST_F(TagTest, SlotsBeyondTwentyTwoAreNeverVisited) {
    // Slots 23 to 29 lie at 184..211 and keep their bytes.
    Block block;
    block.slotNum = 30;
    const Bytes host = block.Host();
    const Bytes foreign = block.ForeignImage();
    EXPECT_TRUE(SameBytes(host, ViaNode(foreign)));
    EXPECT_TRUE(SameBytes(host, ViaMessage(foreign, 448)));
    EXPECT_EQ(Reports().size(), 0u);
    // 30 slots put the record area at 212: a message of 200 bytes is too
    // short, which is reported, and still walked.
    EXPECT_TRUE(SameBytes(Head(host, 200), ViaMessage(foreign, 200)));
    EXPECT_EQ(ReportsOf(kTrans), (std::vector<Seen>{{232, "RevLen=200 < 212 30"}}));
}

TEST_F(TagTest, NodeWithoutPacketHeaderConvertsHeadAndSlotsButNoRecord) {
    const Block block = ThreeRecords();
    const Bytes got = ViaNode(block.ForeignImage(), nullptr, 0);
    EXPECT_TRUE(SameBytes(Foreign(block.Host(), P(kCommFields) + kRecords), got));
}

// A block elsewhere than the node's inline area is bound by the pipe
// buffer it was received in; one the platform reports as 0 bytes long (no
// buffer of its own) has no room, whatever it says of itself. A message in
// a pipe buffer of its own whose received length falls short of its records
// has every record inside the buffer converted all the same, those at or
// beyond the received length reported first.
TEST_F(TagTest, SeparateBlockIsBoundByItsPipeBuffer) {
    const Block block = ThreeRecords();
    const Bytes separate = block.ForeignImage();
    enum Via { kNode, kMsg, kPlainMsg };  // kPlainMsg: in no buffer of its own
    struct Case {
        Via via;
        std::uint32_t buf, len;  // the buffer's size, the received length
        Bytes want;              // the buffer afterwards
        std::vector<Seen> reports;
    };
    const Bytes w320 = Foreign(block.Host(), P("w320"));
    // Record 2 is converted however short the received length, the walk
    // stopping after its slot check fails; records 3 and 9 and the slots
    // behind it stay as received.
    const Bytes only2 = Foreign(block.Host(), P("w320 h104..182") + At(208, kMpls));
    const std::string ret9 = FdPro() + " TagT 9 Ret 1";
    // clang-format off
    const Case cases[] = {
        // Three bytes of the last record: its word stays as received.
        {kNode, 323, 323, Head(w320, 323), {{1310, "T 9 field 0+4 beyond len 3"}, {118, ret9}}},
        {kMsg, 323, 323, Head(w320, 323), {{239, "RevLen=323 < 184 + 144 264 23"}, {1310, "T 9 field 0+4 beyond len 3"}, {203, ret9}, {269, "320+8<323 offset+len<revLen Type 9"}}},
        // Too short for the head, or a buffer of no bytes at all: left
        // alone, and so is such a message.
        {kNode, 91, 91, Head(separate, 91), {{1320, "Blk len 91 < 92"}}},
        {kNode, 0, 0, {}, {{1320, "Blk len 0 < 92"}}},
        {kPlainMsg, 91, 91, Head(separate, 91), {{1320, "Blk len 91 < 92"}}},
        {kMsg, 448, 200, only2, {{239, "RevLen=200 < 184 + 144 264 23"}, {269, "184+24<200 offset+len<revLen Type 2"}}},
        // Shorter than its slot array: reported, and still walked.
        {kMsg, 448, 100, only2, {{232, "RevLen=100 < 184 23"}, {190, "RevLen=100 < 184 type=2"}, {269, "184+24<100 offset+len<revLen Type 2"}}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(Fmt("via %d, %u of %u bytes", c.via, c.len, c.buf));
        KRM_HOST_ReportClear();
        Bytes got = c.via == kPlainMsg ? ViaMessage(separate, c.len) : Bytes{};
        MBUF_IOVEC_S iov{nullptr, c.buf, 0};
        if (c.via != kPlainMsg) {
            ASSERT_EQ(KRM_DbufIovecAlloc_F(0, 1, &iov, "test", 1), 0u);
            auto *p = static_cast<std::uint8_t *>(iov.pBuf);
            if (c.via == kNode) {
                got = ViaNode(Head(separate, c.buf), p);
            } else {
                std::copy_n(separate.begin(), c.buf, p);
                MBUF_TagByteOrderTrans(p, c.len);
                got = Bytes(p, p + c.buf);
            }
            EXPECT_EQ(KRM_DbufIovecFree_F(1, &iov, "test", 2), 0u);
        }
        EXPECT_TRUE(SameBytes(c.want, got));
        EXPECT_EQ(ReportsOf(kTrans), c.reports);
    }
}

// A received message of ThreeRecords, with its record count and a slot
// half (set is a host-order store) altered, converted at a received length:
// the fields that stay as received, and the reports.
TEST_F(TagTest, MessageWalkStopsAndReportsAsTheMessageSays) {
    auto check = [](const char *name, std::int32_t recNum, const char *set, std::uint32_t len,
                    const Fields &left, const std::vector<Seen> &reports) {
        Block block = ThreeRecords();
        block.recNum = recNum;
        Bytes host = block.Host();
        Set(host, set);
        KRM_HOST_ReportClear();
        const Bytes got = ViaMessage(Foreign(host, block.ForeignFields()), len);
        EXPECT_TRUE(SameBytes(Head(Foreign(host, left), len), got)) << name;
        EXPECT_EQ(ReportsOf(kTrans), reports) << name;
    };
    const Fields slots4on = P("h108..182");
    check("record count reached at the third record", 2, "", 328, P("w320") + slots4on, {});
    check("record count 0 finds no record", 0, "", 328, kRecords, {});
    check("used length beyond the message", -1, "", 327, {},
          {{239, "RevLen=327 < 184 + 144 264 23"}, {269, "320+8<327 offset+len<revLen Type 9"}});
    check("record at the message's end", -1, "", 320, {},
          {{239, "RevLen=320 < 184 + 144 264 23"},
           {190, "RevLen=320 < 320 type=9"},
           {1310, "T 9 field 0+4 beyond len 0"},
           {203, FdPro() + " TagT 9 Ret 1"},
           {269, "320+8<320 offset+len<revLen Type 9"}});
    check("slot 3 reaching beyond the message", -1, "h106=124", 328, P("w320") + slots4on,
          {{269, "208+124<328 offset+len<revLen Type 3"}});
    // What lies at 40 is converted as record 2: its fields at 54 and 56 fall
    // on common-record bytes already converted, which turn back.
    check("record 2 inside the fixed part", -1, "h100=40", 328, kRecords + P("h104..182 h54 w56"),
          {{262, "40<184 24 Offset<BasOffSet Type 2"}});
}

// The checks of a converted message: its length against the slot array,
// and a slot against the message's memory. A slot past the memory (here an
// allocation of exactly the received length) is refused at its own place
// unread; the zero block has no slot and puts its records at 92.
TEST_F(TagTest, ChecksOfAConvertedMessage) {
    const Bytes three = ThreeRecords().Host();
    const Bytes zero(100, 0);
    struct Case {
        const Bytes *msg;
        std::uint32_t len;
        std::int32_t type;  // -1: the length check
        std::int32_t ret;
        std::vector<Seen> reports;
    };
    const Case cases[] = {
        {&three, 328, -1, 0, {}},
        {&three, 183, -1, -1, {{232, "RevLen=183 < 184 23"}}},
        {&three, 328, MBUF_CTL_MPLS, 0, {}},
        {&three, 300, MBUF_CTL_MPLS, -1, {{269, "208+112<300 offset+len<revLen Type 3"}}},
        {&zero, 96, 22, -1, {{269, "180+4<96 offset+len<revLen Type 22"}}},
        {&zero, 96, 1, -1, {{269, "96+4<96 offset+len<revLen Type 1"}}},
        {&zero, 96, 0, -1, {{262, "0<92 0 Offset<BasOffSet Type 0"}}},
        {&zero, 100, 1, -1, {{262, "0<92 0 Offset<BasOffSet Type 1"}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(Fmt("%u bytes, type %d", c.len, c.type));
        Bytes msg = Head(*c.msg, c.len);
        KRM_HOST_ReportClear();
        EXPECT_EQ(c.type < 0 ? MBUF_CheckTagByteOrderLen(msg.data(), c.len)
                             : MBUF_CheckTagOffsetLen(msg.data(), c.len, std::uint32_t(c.type)),
                  c.ret);
        EXPECT_EQ(ReportsOf(kTrans), c.reports);
        EXPECT_EQ(Reports().size(), c.reports.size());
    }
}

}  // namespace
}  // namespace krm::test::bo
