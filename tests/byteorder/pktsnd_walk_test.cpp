// The walks of packet-send information: the record's own walk (list length,
// overrun, a failing translator), the nested tunnel walk (type 13) and the
// nested no-path walk (type 19), each with its boundaries.
#include <gtest/gtest.h>

#include <string>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

const Fields kHead = {U16(0), U16(2)};

// A nested TLV or sub-TLV with its head and value fields placed at off.
struct Piece {
    std::uint16_t type;
    Layout layout;
};

// Builds a sub-TLV of the given type whose value starts with `lead` bytes
// (a word for the no-path sub-TLV) and then holds the pieces; returns its
// host image and the fields a foreign sender reversed: the heads of the
// pieces always, their values as listed.
struct Nested {
    Bytes host;
    Fields fields;
};
Nested BuildNested(std::uint16_t type, const Fields &leadFields, std::uint32_t lead,
                   const std::vector<Piece> &pieces, std::int32_t lenDelta = 0) {
    Nested n{Pattern(4 + lead, 9), At(0, leadFields)};
    std::uint8_t seed = 20;
    for (const Piece &p : pieces) {
        const std::uint32_t off = static_cast<std::uint32_t>(n.host.size());
        const Bytes img = SubTlvImage(p.layout, p.type, seed++);
        n.host.insert(n.host.end(), img.begin(), img.end());
        const Fields f = At(off, Join({kHead, p.layout.fields}));
        n.fields.insert(n.fields.end(), f.begin(), f.end());
    }
    Put16(n.host, 0, type);
    Put16(n.host, 2, static_cast<std::uint16_t>(n.host.size() - 4 + lenDelta));
    return n;
}

Layout Fam(std::string name, std::uint32_t len, Fields fields, std::uint32_t at, std::uint8_t v) {
    return Layout{std::move(name), len, std::move(fields), [at, v](Bytes &b) { b[at] = v; }};
}

std::vector<Piece> AllTunnels() {
    return {
        {0, {"Base", 20, {U32(4), U32(12), U32(16)}}},
        {1, Fam("VxLan v4", 32, {U32(4), U32(12), U32(28)}, 8, 2)},
        {1, Fam("VxLan v6", 32, {U32(4)}, 8, 28)},
        {2, {"Bd", 8, {U32(4)}}},
        {3, Fam("Ip v4", 12, {U32(8)}, 4, 2)},
        {4, Fam("Ip v6", 24, {}, 4, 28)},
        {4, Fam("Ip v4", 12, {U32(8)}, 4, 7)},
    };
}

const Layout kMcBcast{"McBcast", 24, {U32(4), U16(8), U16(10), U32(12), U32(16), U32(20)}};

class NestedWalkTest : public HostTest {};

TEST_F(NestedWalkTest, TunnelWalkDispatchesEveryNestedType) {
    const Nested n = BuildNested(13, {}, 0, AllTunnels());
    Bytes tlv = Foreign(n.host, n.fields);
    EXPECT_EQ(MBUF_MbufPktSendInfoSpcifyTnl(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(n.host, tlv));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(NestedWalkTest, FrameworkReachesBothNestedWalks) {
    const Nested tunnel = BuildNested(13, {}, 0, AllTunnels());
    const Nested noPath = BuildNested(19, {U32(4)}, 4, {{1, kMcBcast}, {2, kMcBcast}});
    TlvList list(false);
    list.Append(tunnel.host, Join({kHead, tunnel.fields}));
    list.Append(noPath.host, Join({kHead, noPath.fields}));
    Block block;
    block.Add(MBUF_CTL_PKTSEND, list.Host(), list.ForeignFields());
    ExpectFrameworkRestores(block);
}

TEST_F(NestedWalkTest, TunnelWalkSkipsUnknownTypesAndStopsAtAnOverrun) {
    std::vector<Piece> pieces = {{2, {"Bd", 8, {U32(4)}}},
                                 {5, {"unknown", 10, {}}},
                                 {0, {"Base", 20, {U32(4), U32(12), U32(16)}}}};
    const Nested n = BuildNested(13, {}, 0, pieces, -1);
    // The last nested TLV is one byte too long: its head is converted, its
    // value is not.
    Bytes tlv = Foreign(n.host, n.fields);
    EXPECT_EQ(MBUF_MbufPktSendInfoSpcifyTnl(tlv.data()), 1);
    EXPECT_TRUE(SameBytes(Foreign(n.host, Fields(n.fields.end() - 3, n.fields.end())), tlv));
    EXPECT_EQ(ReportsOf(kPktSnd),
              (std::vector<Seen>{{441, "Err TlvType:5, TlvLen:6"}, {460, "T 0 ML 19 TL 20"}}));
}

TEST_F(NestedWalkTest, TunnelWalkEndsQuietlyOnThreeTrailingBytesOrFewer) {
    for (std::uint32_t extra : {0u, 1u, 2u, 3u}) {
        Nested n = BuildNested(13, {}, 0, {{2, {"Bd", 8, {U32(4)}}}});
        n.host.insert(n.host.end(), extra, 0xEE);
        Put16(n.host, 2, static_cast<std::uint16_t>(n.host.size() - 4));
        Bytes tlv = Foreign(n.host, n.fields);
        EXPECT_EQ(MBUF_MbufPktSendInfoSpcifyTnl(tlv.data()), 0) << extra;
        EXPECT_TRUE(SameBytes(n.host, tlv)) << extra;
    }
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(NestedWalkTest, TunnelOfLengthFourHoldsOneEmptyNestedTlv) {
    const Nested n = BuildNested(13, {}, 0, {{7, {"empty", 4, {}}}});
    ASSERT_EQ(Get16(n.host, 2), 4u);
    Bytes tlv = Foreign(n.host, n.fields);
    EXPECT_EQ(MBUF_MbufPktSendInfoSpcifyTnl(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(n.host, tlv));
    EXPECT_EQ(ReportsOf(kPktSnd), (std::vector<Seen>{{441, "Err TlvType:7, TlvLen:0"}}));
}

TEST_F(NestedWalkTest, TunnelOfLengthBelowFourIsRefused) {
    for (std::uint16_t len : {0, 3}) {
        Bytes tlv = Pattern(12);
        Put16(tlv, 0, 13);
        Put16(tlv, 2, len);
        const Bytes before = tlv;
        EXPECT_EQ(MBUF_MbufPktSendInfoSpcifyTnl(tlv.data()), -1);
        EXPECT_TRUE(SameBytes(before, tlv));
    }
    EXPECT_EQ(ReportsOf(kPktSnd), (std::vector<Seen>{{425, "Len 0"}, {425, "Len 3"}}));
}

TEST_F(NestedWalkTest, NoPathWalkConvertsTypesOneAndTwoOnly) {
    const std::vector<Piece> pieces = {
        {1, kMcBcast},         {0, {"zero", 12, {}}},     {2, kMcBcast},
        {3, {"three", 8, {}}}, {0x0102, {"high", 8, {}}}, {2, kMcBcast}};
    const Nested n = BuildNested(19, {U32(4)}, 4, pieces);
    Bytes tlv = Foreign(n.host, n.fields);
    EXPECT_EQ(MBUF_MbufPktSendInfoNoPathPktTrans(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(n.host, tlv));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(NestedWalkTest, NoPathOfLengthFourToSevenConvertsOnlyItsWord) {
    for (std::uint16_t len : {4, 5, 6, 7}) {
        Bytes host = Pattern(16);
        Put16(host, 0, 19);
        Put16(host, 2, len);
        Bytes tlv = Foreign(host, {U32(4)});
        EXPECT_EQ(MBUF_MbufPktSendInfoNoPathPktTrans(tlv.data()), 0) << len;
        EXPECT_TRUE(SameBytes(host, tlv)) << len;
    }
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(NestedWalkTest, NoPathOfLengthEightHoldsOneEmptyNestedTlv) {
    const Nested n = BuildNested(19, {U32(4)}, 4, {{3, {"empty", 4, {}}}});
    ASSERT_EQ(Get16(n.host, 2), 8u);
    Bytes tlv = Foreign(n.host, n.fields);
    EXPECT_EQ(MBUF_MbufPktSendInfoNoPathPktTrans(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(n.host, tlv));
}

TEST_F(NestedWalkTest, NoPathWalkStopsAtAnOverrun) {
    const Nested n = BuildNested(19, {U32(4)}, 4, {{1, kMcBcast}, {2, kMcBcast}}, -2);
    Bytes tlv = Foreign(n.host, n.fields);
    EXPECT_EQ(MBUF_MbufPktSendInfoNoPathPktTrans(tlv.data()), 1);
    EXPECT_TRUE(SameBytes(Foreign(n.host, Fields(n.fields.end() - 6, n.fields.end())), tlv));
    EXPECT_EQ(ReportsOf(kPktSnd), (std::vector<Seen>{{512, "T 2 ML 22 TL 24"}}));
}

// ---- the packet-send record's own walk -----------------------------------------

class PktSendWalkTest : public HostTest {
  protected:
    static TlvList Two() {
        TlvList list(false);
        const Layout key{"SockKey", 12, {U32(4), U32(8)}};
        list.Append(SubTlvImage(key, 15, 1), Join({kHead, key.fields}));
        list.Append(SubTlvImage(key, 15, 2), Join({kHead, key.fields}));
        return list;
    }
};

TEST_F(PktSendWalkTest, ListLengthBelowFourIsReportedWithItsValue) {
    for (std::uint16_t len : {0, 1, 2, 3}) {
        Bytes host = Pattern(12);
        Put16(host, 2, len);
        Bytes rec = Foreign(host, {U16(2)});
        EXPECT_EQ(MBUF_MbufPktSendInfoByteOrderTrans(rec.data()), -1);
        EXPECT_TRUE(SameBytes(host, rec));
    }
    EXPECT_EQ(ReportsOf(kPktSnd),
              (std::vector<Seen>{{62, "Type 0"}, {62, "Type 1"}, {62, "Type 2"}, {62, "Type 3"}}));
}

TEST_F(PktSendWalkTest, SubTlvFillingTheListExactlyIsWalked) {
    TlvList list(false);
    const Layout empty{"empty", 4, {}};
    list.Append(SubTlvImage(empty, 11), kHead);
    const Bytes host = list.Host();
    Bytes rec = Foreign(host, list.ForeignFields());
    EXPECT_EQ(MBUF_MbufPktSendInfoByteOrderTrans(rec.data()), 0);
    EXPECT_TRUE(SameBytes(host, rec));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(PktSendWalkTest, SubTlvOneByteOverIsReportedAfterItsHead) {
    const TlvList list = Two();
    const Bytes host = list.Host(static_cast<std::int32_t>(list.ListLen()) - 1);
    const Fields fields = list.ForeignFields();
    Bytes rec = Foreign(host, fields);
    EXPECT_EQ(MBUF_MbufPktSendInfoByteOrderTrans(rec.data()), 1);
    // The second value is never reached.
    EXPECT_TRUE(SameBytes(Foreign(host, Fields(fields.end() - 2, fields.end())), rec));
    EXPECT_EQ(ReportsOf(kPktSnd), (std::vector<Seen>{{95, "T 15 ML 11 TL 12"}}));
}

TEST_F(PktSendWalkTest, TrailingBytesFewerThanAHeadEndTheWalk) {
    for (std::uint32_t extra : {1u, 2u, 3u}) {
        TlvList list = Two();
        list.AppendRaw(Bytes(extra, 0xEE));
        const Bytes host = list.Host();
        Bytes rec = Foreign(host, list.ForeignFields());
        EXPECT_EQ(MBUF_MbufPktSendInfoByteOrderTrans(rec.data()), 0) << extra;
        EXPECT_TRUE(SameBytes(host, rec)) << extra;
    }
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_F(PktSendWalkTest, FailingTranslatorIsReportedAndRemembered) {
    TlvList list(false);
    const Layout shortTunnel{"tunnel", 6, {}};
    const Layout key{"SockKey", 12, {U32(4), U32(8)}};
    list.Append(SubTlvImage(shortTunnel, 13, 1), kHead);
    list.Append(SubTlvImage(key, 15, 2), Join({kHead, key.fields}));
    const Bytes host = list.Host();
    Bytes rec = Foreign(host, list.ForeignFields());
    EXPECT_EQ(MBUF_MbufPktSendInfoByteOrderTrans(rec.data()), -1);
    EXPECT_TRUE(SameBytes(host, rec)) << "the walk goes on after the failure";
    EXPECT_EQ(ReportsOf(kPktSnd),
              (std::vector<Seen>{{425, "Len 2"}, {81, "T 13 L 2 R 4294967295"}}));
}

}  // namespace
}  // namespace krm::test::bo
