// Packet-send information: the translator of every sub-TLV type and selector
// (their heads already converted), the lookup with its repeated type, the
// record's walk and its boundaries, and the two nested walks.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

struct PsCase {
    std::uint16_t type;
    Layout layout;  // value fields only: the walker owns the head
};

void PrintTo(const PsCase &c, std::ostream *os) {
    *os << c.layout.name;
}

Layout WithByte(std::string name, std::uint32_t len, Fields fields, std::uint32_t at,
                std::uint8_t value) {
    return Layout{std::move(name), len, std::move(fields),
                  [at, value](Bytes &b) { b[at] = value; }};
}

std::vector<PsCase> Cases() {
    std::vector<PsCase> out;
    for (std::uint16_t type : {0, 10, 21, 22, 30, 0x1000, 0x2000}) {
        out.push_back({type, {"WordAt4", 8, {U32(4)}}});
    }
    for (std::uint16_t type : {11, 12, 20, 0x2001, 0x8000, 32}) {
        out.push_back({type, {"Nothing", 12, {}}});
    }
    for (std::uint16_t type : {4, 14}) {
        out.push_back({type, {"PortGrp", 16, {U32(4), U32(8), U32(12)}}});
    }
    const Fields sessIp = Join({Seq(8, 10, 4, 4), {U16(50)}});
    out.insert(out.end(),
               {
                   {1, {"BdPortList", 12, {U16(4), U16(6), U32(8)}}},
                   {2, WithByte("NextHop v4", 32, {U32(24), U32(28), U32(8)}, 4, 2)},
                   {2, WithByte("NextHop v6", 32, {U32(24), U32(28)}, 4, 28)},
                   {3, {"NewBK", 8, {U16(4)}}},
                   {5, {"VlanBcastPortGrp", 16, {U16(4), U16(6), U32(8), U32(12)}}},
                   {7, WithByte("CtrlRoute v4", 68,
                                {U32(8), U32(60), U32(64), U32(12), U32(28), U32(44)}, 4, 2)},
                   {7, WithByte("CtrlRoute v6", 68, {U32(8), U32(60), U32(64)}, 4, 28)},
                   {8, WithByte("SessKey 0", 52, sessIp, 4, 0)},
                   {8, WithByte("SessKey 2", 52, sessIp, 4, 2)},
                   {8, WithByte("SessKey 4", 52, sessIp, 4, 4)},
                   {8, WithByte("SessKey 6", 52, sessIp, 4, 6)},
                   {8, WithByte("SessKey 7", 52, {U32(8), U16(18), U16(20), U16(22)}, 4, 7)},
                   {8, WithByte("SessKey 1", 52, {}, 4, 1)},
                   {8, WithByte("SessKey 3", 52, {}, 4, 3)},
                   {8, WithByte("SessKey 5", 52, {}, 4, 5)},
                   {8, WithByte("SessKey 8", 52, {}, 4, 8)},
                   {9,
                    {"FlowLabel",
                     68,
                     {U32(8), U32(12), U32(16), U32(20), U32(28), U32(32), U32(36), U32(44),
                      U32(48), U32(52), U32(60), U32(64)}}},
                   {15, {"SockKey", 12, {U32(4), U32(8)}}},
                   {18, WithByte("SockForward 0", 12, {U32(8)}, 4, 0)},
                   {18, WithByte("SockForward 3", 12, {U32(8)}, 4, 3)},
                   {18, WithByte("SockForward 4", 12, {}, 4, 4)},
                   {27, {"Slice", 12, {U16(6), U32(8)}}},
                   {28, {"EvpnMac", 20, {U32(4), U16(18)}}},
                   {29, {"PathMatchPri", 12, {U32(8)}}},
                   {31, {"IfPPPoE", 12, {U32(4), U16(8), U16(10)}}},
                   // No translator: left as they are.
                   {6, {"Unlisted 6", 12, {}}},
                   {16, {"Unlisted 16", 12, {}}},
                   {26, {"Unlisted 26", 12, {}}},
                   {0x4000, {"Unlisted 0x4000", 12, {}}},
               });
    return out;
}

class PktSendTlvTest : public HostTest, public ::testing::WithParamInterface<PsCase> {};

TEST_P(PktSendTlvTest, TranslatorFromTheLookupReversesTheListedFields) {
    const PsCase &c = GetParam();
    const Bytes host = SubTlvImage(c.layout, c.type);
    Bytes tlv = Foreign(host, c.layout.fields);
    const MBUF_PKTSND_ORDER_TRANS_PF fn = MBUF_GetPktSendInfoBytesTransFunc(tlv.data());
    if (c.layout.name.rfind("Unlisted", 0) == 0) {
        EXPECT_EQ(fn, nullptr);
        return;
    }
    ASSERT_NE(fn, nullptr);
    EXPECT_EQ(fn(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(host, tlv));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_P(PktSendTlvTest, RecordWalkConvertsHeadsAndDispatches) {
    const PsCase &c = GetParam();
    TlvList list(false);
    const Layout neighbour{"SockKey", 12, {U32(4), U32(8)}};
    const Fields head = {U16(0), U16(2)};
    list.Append(SubTlvImage(neighbour, 15, 1), Join({head, neighbour.fields}));
    list.Append(SubTlvImage(c.layout, c.type, 2), Join({head, c.layout.fields}));
    list.Append(SubTlvImage(neighbour, 15, 3), Join({head, neighbour.fields}));
    const Bytes host = list.Host();
    Bytes rec = Foreign(host, list.ForeignFields());
    EXPECT_EQ(MBUF_MbufPktSendInfoByteOrderTrans(rec.data()), 0);
    EXPECT_TRUE(SameBytes(host, rec));

    Block block;
    block.Add(MBUF_CTL_PKTSEND, host, list.ForeignFields());
    ExpectFrameworkRestores(block);
}

// A sub-TLV whose length falls one byte short of its fields: dispatched by
// the framework, its translator stops there; the walk reports the result
// and the record's failure is reported in turn.
TEST_P(PktSendTlvTest, FrameworkBoundsEachSubTlvByItsLength) {
    const PsCase &c = GetParam();
    const Fields &fields = c.layout.fields;
    const std::uint32_t extent = Extent(fields);
    if (extent == 0) {
        return;
    }
    Bytes sub = SubTlvImage(c.layout, c.type);
    Put16(sub, 2, static_cast<std::uint16_t>(extent - 5));
    TlvList list(false);
    list.Append(sub, Join({{U16(0), U16(2)}, fields}));
    const Bytes host = list.Host(static_cast<std::int32_t>(extent - 1));

    const std::size_t done = Prefix(fields, extent - 1).size();
    const F stop = fields[done];
    Block block;
    const std::uint32_t off = block.Add(MBUF_CTL_PKTSEND, host, list.ForeignFields());
    const Fields left =
        At(off + 4, Fields(fields.begin() + static_cast<std::ptrdiff_t>(done), fields.end()));
    const Bytes want = Foreign(block.ForeignImage(), Without(block.ForeignFields(), left));
    const Paths paths = RunBothPaths(block);
    EXPECT_TRUE(SameBytes(want, paths.node.bytes));
    EXPECT_TRUE(SameBytes(Bytes(want.begin(), want.begin() + block.UsedEnd()), paths.msg.bytes));
    const std::string type = std::to_string(c.type);
    const std::vector<Seen> pktSnd = {
        {1310, "T " + type + " field " + std::to_string(stop.off) + "+" +
                   std::to_string(stop.width) + " beyond len " + std::to_string(extent - 1)},
        {81, "T " + type + " L " + std::to_string(extent - 5) + " R 1"}};
    const std::string ret = FdPro() + " TagT 20 Ret 1";
    EXPECT_EQ(paths.node.pktSnd, pktSnd);
    EXPECT_EQ(paths.msg.pktSnd, pktSnd);
    EXPECT_EQ(paths.node.trans, (std::vector<Seen>{{118, ret}}));
    EXPECT_EQ(paths.msg.trans, (std::vector<Seen>{{203, ret}}));
}

INSTANTIATE_TEST_SUITE_P(PktSend, PktSendTlvTest, ::testing::ValuesIn(Cases()), [](const auto &tp) {
    return "T" + std::to_string(tp.param.type) + "_" + std::to_string(tp.index);
});

class PktSendTest : public HostTest {};

TEST_F(PktSendTest, TypeTwentyEightIsServedByItsFirstRow) {
    Bytes tlv = Pattern(20);
    Put16(tlv, 0, 28);
    Put16(tlv, 2, 16);
    EXPECT_EQ(MBUF_GetPktSendInfoBytesTransFunc(tlv.data()), &MBUF_MbufPktSendInfoEvpnMacTrans);
    // A first value word that reads 0x01020304 as received reads 0x04030201
    // once converted; the u16 at 18 is reversed; nothing else changes.
    Put32(tlv, 4, 0x01020304u);
    Bytes want = tlv;
    Put32(want, 4, 0x04030201u);
    std::swap(want[18], want[19]);
    const Bytes received = tlv;
    ASSERT_EQ(MBUF_MbufPktSendInfoEvpnMacTrans(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(want, tlv));
    // Its twin, out of the table's reach, converts the same fields.
    tlv = received;
    ASSERT_EQ(MBUF_MbufPktSendEvpnMacTrans(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(want, tlv));
}

TEST_F(PktSendTest, NullArgumentsAreRefused) {
    EXPECT_EQ(MBUF_GetPktSendInfoBytesTransFunc(nullptr), nullptr);
    EXPECT_EQ(MBUF_MbufPktSendInfoNotNeedTrans(nullptr), -1);
    EXPECT_EQ(MBUF_MbufPktSendInfoSpcifyTnl(nullptr), -1);
    EXPECT_EQ(
        ReportsOf(kPktSnd),
        (std::vector<Seen>{{110, "args is null"}, {140, "args is null"}, {420, "args is null"}}));
    KRM_HOST_ReportClear();
    for (const MBUF_PKTSND_TRANS_PROC_S &row : g_astMbufPktSndInfoByteTransProc) {
        if (row.pfTrans != &MBUF_MbufPktSendInfoNotNeedTrans &&
            row.pfTrans != &MBUF_MbufPktSendInfoSpcifyTnl) {
            EXPECT_EQ(row.pfTrans(nullptr), -1) << row.usType;
        }
    }
    EXPECT_EQ(MBUF_MbufEthSessKeyTrans(nullptr), -1);
    EXPECT_EQ(MBUF_MbufPktSendEvpnMacTrans(nullptr), -1);
    for (MBUF_PKTSND_NEST_TRANS_PF fn : g_apfMbufPktSndSpcifyTnlInfoFunc) {
        fn(nullptr);
    }
    g_apfMbufSndWithNoPathOrderTransProc[1](nullptr);
    g_apfMbufSndWithNoPathOrderTransProc[2](nullptr);
    for (MBUF_LINK_ORDER_TRANS_PF fn : g_apfMbufLinkInfoOrderTransProc) {
        fn(nullptr);
    }
    MBUF_LinkEnCapByteOrderTrans(nullptr);
    EXPECT_EQ(Reports().size(), 0u) << "only the three above report";
}

TEST_F(PktSendTest, EthernetSessionKeyConvertsItsFourFields) {
    const Layout eth{"EthKey", 24, {U32(8), U16(18), U16(20), U16(22)}};
    const Bytes host = SubTlvImage(eth, 8);
    Bytes tlv = Foreign(host, eth.fields);
    EXPECT_EQ(MBUF_MbufEthSessKeyTrans(tlv.data()), 0);
    EXPECT_TRUE(SameBytes(host, tlv));
}

}  // namespace
}  // namespace krm::test::bo
