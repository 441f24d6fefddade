// Link sub-TLVs and the two records that walk them head-by-head (link 1,
// packet info 22): every sub-TLV type and selector, the special word of the
// interface information, the tag copy list, and the walks' boundaries.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

struct LinkCase {
    std::uint16_t type;
    Layout layout;  // fields include the sub-TLV's own head
};

void PrintTo(const LinkCase &c, std::ostream *os) {
    *os << c.layout.name;
}

Fields H(const Fields &value) {
    return Join({{U16(0), U16(2)}, value});
}

std::vector<LinkCase> Cases() {
    std::vector<LinkCase> out = {
        {0, {"Eth", 24, H({U32(16), U16(22)})}},
        {1, {"Atm", 12, H({U32(4), U32(8)})}},
        {2, {"QinQ", 20, H({U16(4), U16(6), U32(8), U16(14), U16(16), U16(18)})}},
        {3, {"VlanIf", 24, H({U32(4), U16(8), U16(10), U32(12), U16(22)})}},
        {4, {"Dot1q", 16, H({U16(4), U32(8), U16(12), U16(14)})}},
        {5, {"Hdlc", 8, H({U32(4)})}},
        {6, {"Trill", 12, H({U16(4), U16(6), U16(8), U16(10)})}},
        {7, {"8023SNAP", 12, H({})}},
        {8, {"8023Llc", 12, H({})}},
        {9,
         {"Vsi", 40, H({U32(8), U32(12), U32(16), U16(20), U16(22), U32(24), U32(28), U32(36)})}},
        {10, {"VlanPriority", 8, H({U32(4)})}},
        {11, {"Bd", 24, H({U32(4), U16(8), U16(14), U16(20), U16(22)})}},
        {12, {"Ctrl", 16, H({U16(4), U16(6), U32(8), U32(12)})}},
        {13, {"Vlan", 36, H(Join({{U32(4), U32(16)}, Seq(20, 8, 2, 2)}))}},
        {14, {"Tunnel", 24, H({U32(4), U32(12), U32(16), U32(20)})}},
        {15, {"EvpnVlan", 16, H({U32(4), U32(8), U16(12)})}},
        {16, {"Tpid", 8, H({U16(4)})}},
        {17, {"ExtVlan 3", 16, H(Seq(8, 3, 2, 2)), [](Bytes &b) { b[4] = 3; }}},
        {17, {"ExtVlan 0", 16, H({}), [](Bytes &b) { b[4] = 0; }}},
        {18, {"AN", 12, H({U32(4), U16(8)})}},
        {20, {"PPPOE", 12, H({})}},
        {21, {"TunnelIpv6", 24, H({U32(4), U32(12), U32(16), U32(20)})}},
        {24, {"PppInfo", 8, H({U16(6)})}},
        {25, {"EnCap 25", 8, H({})}},
        {255, {"EnCap 255", 8, H({U16(4)})}},
        {0x1234, {"EnCap 0x1234", 8, H({})}},
    };
    const std::pair<std::int16_t, Fields> prunes[] = {{1, {U32(8), U16(12), U16(14)}},
                                                      {2, {U16(8), U16(10), U32(12)}},
                                                      {3, {U32(8)}},
                                                      {4, {U32(8)}},
                                                      {5, {}},
                                                      {0, {}},
                                                      {-2, {}},
                                                      {0x0100, {}}};
    for (const auto &[kind, fields] : prunes) {
        out.push_back(
            {19,
             {"PRUNE kind " + std::to_string(kind), 16, H(Join({{U16(4), U16(6)}, fields})),
              [kind = kind](Bytes &b) { Put16(b, 4, static_cast<std::uint16_t>(kind)); }}});
    }
    for (std::uint8_t itemType : {1, 2}) {
        const std::uint32_t step = itemType == 1 ? 2 : 4;
        out.push_back(
            {23,
             {"TagCp type " + std::to_string(itemType), 12 + 3 * step,
              H(Join({{U32(4), U16(8)}, Seq(12, 3 * step / 2, 2, 2)})), [itemType](Bytes &b) {
                  Put16(b, 8, 3);
                  b[10] = itemType;
              }}});
    }
    return out;
}

void (*TranslatorOf(std::uint16_t type))(void *) {
    return type < MBUF_LINK_TLV_TYPE_NUM ? g_apfMbufLinkInfoOrderTransProc[type]
                                         : MBUF_LinkEnCapByteOrderTrans;
}

class LinkTlvTest : public HostTest, public ::testing::WithParamInterface<LinkCase> {};

TEST_P(LinkTlvTest, TranslatorReversesItsHeadAndTheListedFields) {
    const LinkCase &c = GetParam();
    const Bytes host = SubTlvImage(c.layout, c.type);
    Bytes tlv = Foreign(host, c.layout.fields);
    TranslatorOf(c.type)(tlv.data());
    EXPECT_TRUE(SameBytes(host, tlv));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_P(LinkTlvTest, LinkRecordWalkDispatchesByType) {
    const LinkCase &c = GetParam();
    TlvList list(true);
    // Neighbours on both sides: the walk must advance by each one's length.
    list.Append(SubTlvImage(Cases()[5].layout, 5, 1), Cases()[5].layout.fields);
    list.Append(SubTlvImage(c.layout, c.type, 2), c.layout.fields);
    list.Append(SubTlvImage(Cases()[1].layout, 1, 3), Cases()[1].layout.fields);
    const Bytes host = list.Host();
    Bytes rec = Foreign(host, list.ForeignFields());
    EXPECT_EQ(MBUF_MbufLinkInfoByteOrderTrans(rec.data()), 0);
    EXPECT_TRUE(SameBytes(host, rec));

    Block block;
    block.Add(MBUF_CTL_LINK, host, list.ForeignFields());
    ExpectFrameworkRestores(block);
}

// A sub-TLV whose length falls one byte short of its fields: trusted, the
// walk converts them all; dispatched by the framework, the sub-TLV's own
// length bounds its translator, which stops and reports.
TEST_P(LinkTlvTest, FrameworkBoundsEachSubTlvByItsLength) {
    const LinkCase &c = GetParam();
    const Fields &fields = c.layout.fields;
    const std::uint32_t extent = Extent(fields);
    if (extent <= 4 || c.type == 23) {
        return;  // a head alone cannot be cut; the tag copy list checks its own length
    }
    Bytes sub = SubTlvImage(c.layout, c.type);
    Put16(sub, 2, static_cast<std::uint16_t>(extent - 5));
    TlvList list(true);
    list.Append(sub, fields);
    const Bytes host = list.Host(static_cast<std::int32_t>(extent - 1));

    Bytes trusted = Foreign(host, list.ForeignFields());
    EXPECT_EQ(MBUF_MbufLinkInfoByteOrderTrans(trusted.data()), 0);
    EXPECT_TRUE(SameBytes(host, trusted));

    const std::size_t done = Prefix(fields, extent - 1).size();
    const F stop = fields[done];
    Block block;
    const std::uint32_t off = block.Add(MBUF_CTL_LINK, host, list.ForeignFields());
    const Fields left =
        At(off + 4, Fields(fields.begin() + static_cast<std::ptrdiff_t>(done), fields.end()));
    const Bytes want = Foreign(block.ForeignImage(), Without(block.ForeignFields(), left));
    const Paths paths = RunBothPaths(block);
    EXPECT_TRUE(SameBytes(want, paths.node.bytes));
    EXPECT_TRUE(SameBytes(Bytes(want.begin(), want.begin() + block.UsedEnd()), paths.msg.bytes));
    const std::vector<Seen> overrun = {
        {1310, "T " + std::to_string(c.type) + " field " + std::to_string(stop.off) + "+" +
                   std::to_string(stop.width) + " beyond len " + std::to_string(extent - 1)}};
    EXPECT_EQ(paths.node.trans, overrun);
    EXPECT_EQ(paths.msg.trans, overrun);
}

INSTANTIATE_TEST_SUITE_P(Link, LinkTlvTest, ::testing::ValuesIn(Cases()), [](const auto &tp) {
    return "T" + std::to_string(tp.param.type) + "_" + std::to_string(tp.index);
});

class LinkSpecialTest : public HostTest {};

// The word at 8: its low half as this host reads it is reversed, the upper
// half cleared; the received bytes are given and the result fixed per build.
TEST_F(LinkSpecialTest, InterfaceInfoWordAt8KeepsOnlyItsReversedLowHalf) {
    const Layout layout{"IfInfo", 60, H(Join({Seq(12, 8, 4, 4), Seq(44, 8, 2, 2)}))};
    Bytes host = SubTlvImage(layout, 22);
    Bytes tlv = Foreign(host, layout.fields);
    const std::uint8_t received[4] = {0x11, 0x22, 0x33, 0x44};
    std::copy(received, received + 4, tlv.begin() + 8);
    MBUF_LinkIfInfoByteOrderTrans(tlv.data());
#if MBUF_HOST_BIG_ENDIAN
    const std::uint8_t want[4] = {0x00, 0x00, 0x44, 0x33};
#else
    const std::uint8_t want[4] = {0x22, 0x11, 0x00, 0x00};
#endif
    std::copy(want, want + 4, host.begin() + 8);
    EXPECT_TRUE(SameBytes(host, tlv));
}

TEST_F(LinkSpecialTest, TagCopyListNeedsRoomForItsItems) {
    struct Case {
        std::uint8_t itemType;
        std::uint16_t count;
        std::uint16_t len;
        bool enough;
    };
    // Item type 1 takes 2 bytes an item, any other 4, behind 8 bytes; the
    // bound is taken modulo 65536, so a count that wraps it passes.
    const Case cases[] = {{1, 3, 14, true},     {1, 3, 13, false},     {2, 3, 20, true},
                          {2, 3, 19, false},    {3, 3, 19, false},     {2, 16382, 0, true},
                          {1, 0x7FFC, 0, true}, {1, 0x8000, 7, false}, {1, 0, 7, false}};
    for (const Case &c : cases) {
        const std::uint32_t step = c.itemType == 1 ? 2 : 4;
        Bytes host = Pattern(std::max<std::uint32_t>(32, 12 + c.count * step));
        Put16(host, 0, 23);
        Put16(host, 2, c.len);
        Put16(host, 8, c.count);
        host[10] = c.itemType;
        const Fields head = {U16(0), U16(2), U32(4), U16(8)};
        const Fields items = c.enough ? Seq(12, c.count * step / 2, 2, 2) : Fields{};
        Bytes tlv = Foreign(host, Join({head, items}));
        KRM_HOST_ReportClear();
        MBUF_LinkTagCpInfoByteOrderTrans(tlv.data());
        EXPECT_TRUE(SameBytes(host, tlv)) << c.count << "/" << c.len;
        if (c.enough) {
            EXPECT_EQ(ReportsOf(kTrans).size(), 0u);
        } else {
            EXPECT_EQ(ReportsOf(kTrans),
                      (std::vector<Seen>{{905, "invalid len, num = " + std::to_string(c.count) +
                                                   " type = " + std::to_string(c.itemType) +
                                                   " tlvlen = " + std::to_string(c.len)}}));
        }
    }
}

TEST_F(LinkSpecialTest, TagCopyListOfUnknownItemTypeStopsAfterItsHead) {
    Bytes host = Pattern(32);
    Put16(host, 0, 23);
    Put16(host, 2, 28);
    Put16(host, 8, 2);
    host[10] = 3;
    Bytes tlv = Foreign(host, {U16(0), U16(2), U32(4), U16(8)});
    MBUF_LinkTagCpInfoByteOrderTrans(tlv.data());
    EXPECT_TRUE(SameBytes(host, tlv));
    EXPECT_EQ(ReportsOf(kTrans), (std::vector<Seen>{{927, "invalid tagtype = 3"}}));
}

// ---- the walks -------------------------------------------------------------

class TlvWalkTest : public HostTest, public ::testing::WithParamInterface<bool> {
  protected:
    std::int32_t Walk(Bytes &rec) {
        return GetParam() ? MBUF_MbufLinkInfoByteOrderTrans(rec.data())
                          : MBUF_MbufPacketInfoByteOrderTrans(rec.data());
    }
    std::uint32_t NoFitLine() const { return GetParam() ? 330 : 372; }
    // Two sub-TLVs of 8 and 12 bytes; for the packet-info record only the
    // heads are converted, the values being opaque.
    TlvList TwoSubs() const {
        TlvList list(true);
        const Layout a{"a", 8, H({U32(4)})};
        const Layout b{"b", 12, H({U32(4), U32(8)})};
        list.Append(SubTlvImage(a, 5, 1), GetParam() ? a.fields : H({}));
        list.Append(SubTlvImage(b, 1, 2), GetParam() ? b.fields : H({}));
        return list;
    }
};

TEST_P(TlvWalkTest, ListEndingExactlyAtTheRecordEndIsWhole) {
    const TlvList list = TwoSubs();
    const Bytes host = list.Host();
    Bytes rec = Foreign(host, list.ForeignFields());
    EXPECT_EQ(Walk(rec), 0);
    EXPECT_TRUE(SameBytes(host, rec));
    EXPECT_EQ(Reports().size(), 0u);

    Block block;
    block.Add(GetParam() ? MBUF_CTL_LINK : MBUF_CTL_PACKET, host, list.ForeignFields());
    ExpectFrameworkRestores(block);
}

TEST_P(TlvWalkTest, TrailingBytesFewerThanAHeadEndTheWalk) {
    for (std::uint32_t extra : {1u, 2u, 3u}) {
        TlvList list = TwoSubs();
        list.AppendRaw(Bytes(extra, 0xEE));
        const Bytes host = list.Host();
        Bytes rec = Foreign(host, list.ForeignFields());
        EXPECT_EQ(Walk(rec), 0) << extra;
        EXPECT_TRUE(SameBytes(host, rec)) << extra;
    }
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_P(TlvWalkTest, SubTlvOneByteOverTheRecordIsReported) {
    const TlvList list = TwoSubs();
    // The list claims one byte less than its second sub-TLV needs.
    const Bytes host = list.Host(static_cast<std::int32_t>(list.ListLen()) - 1);
    const Fields fields = list.ForeignFields();
    // The link walk leaves the second sub-TLV to its translator, which never
    // runs; the packet-info walk has converted its head before finding it
    // too long.
    const std::size_t left = GetParam() ? 4 : 0;
    Bytes rec = Foreign(host, fields);
    EXPECT_EQ(Walk(rec), 1);
    EXPECT_TRUE(SameBytes(Foreign(host, Fields(fields.end() - left, fields.end())), rec));
    EXPECT_EQ(ReportsOf(kTrans), (std::vector<Seen>{{NoFitLine(), "T 1 ML 11 TL 12"}}));
}

TEST_P(TlvWalkTest, ListOfThreeBytesOrFewerHasNothingToWalk) {
    for (std::uint16_t len : {0, 1, 2, 3}) {
        Bytes host = Pattern(12);
        Put16(host, 0, 0x0102);
        Put16(host, 2, len);
        Bytes rec = Foreign(host, {U16(0), U16(2)});
        EXPECT_EQ(Walk(rec), 0) << len;
        EXPECT_TRUE(SameBytes(host, rec)) << len;
    }
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_P(TlvWalkTest, SubTlvFillingTheListExactlyIsWalked) {
    // One sub-TLV with an empty value: 4 bytes, exactly the list.
    TlvList list(true);
    const Layout empty{"empty", 4, H({})};
    list.Append(SubTlvImage(empty, 7), empty.fields);
    const Bytes host = list.Host();
    Bytes rec = Foreign(host, list.ForeignFields());
    EXPECT_EQ(Walk(rec), 0);
    EXPECT_TRUE(SameBytes(host, rec));
    EXPECT_EQ(Reports().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Records, TlvWalkTest, ::testing::Bool(),
                         [](const auto &tp) { return tp.param ? "Link" : "PacketInfo"; });

}  // namespace
}  // namespace krm::test::bo
