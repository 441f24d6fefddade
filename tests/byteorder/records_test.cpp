// Every control-information record, link sub-TLV, packet-send sub-TLV and
// nested TLV, for every selector value, with its fields written out below
// from the record layouts (never taken from the library's tables). Each row
// is checked three ways: its own translator reverses exactly those fields;
// carried in its record (between two neighbours where it sits in a list),
// the record's walk and both framework paths give back the host image; cut
// one byte short of its last field, the framework converts up to that field,
// reports it and goes on. Then the two rules that are not plain reversals.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

enum class Kind { kCtl, kLink, kPktSnd, kTnl, kNoPath };

struct Row {
    Kind kind;
    std::uint16_t type;
    std::string name;
    std::uint32_t len;     // of a sub-TLV: head included
    Fields fields;         // of a sub-TLV: the value's (a link translator converts its head too)
    std::string set = "";  // selectors and counts, in host order
    MBUF_PKTSND_ORDER_TRANS_PF direct = nullptr;  // a translator the lookup does not name
};

void PrintTo(const Row &r, std::ostream *os) {
    *os << r.name << " (type " << r.type << ")";
}

std::vector<Row> Rows() {
    using enum Kind;
    const Fields stackHead = P("h0 h2 h6 h10 w12 w16 w20 h24 h26");
    const Fields stackEntry = P("w0 w4 h8 w16 h20 w28 w32 w36");
    std::vector<Row> rows = {
        {kCtl, 0, "Comm", 84, P(kCommFields), "w80=0xFF010203"},
        {kCtl, 2, "Ip", 20, P("h14 w16")},
        {kCtl, 3, "Mpls", 108, P("w0..16 w24..40 w44..60 w64..80 w20 w84 w88 h94 w96 w104")},
        {kCtl, 4, "App", 4, P("h0 h2")},
        {kCtl, 5, "IpOption", 4, P("h0 h2")},
        {kCtl, 6, "FeRx split", 52, P("h0..10 w12 h28 h30 w32 h16 h18 h24 h26 w20"), "h28=0x2345"},
        {kCtl, 6, "FeRx whole", 52, P("h0..10 w12 h28 h30 w32 w16 w20 w24"), "h28=0xC512"},
        {kCtl, 8, "Ip6", 52, P("h38 w40 w44 w48")},
        {kCtl, 9, "PrevHop", 4, P("w0")},
        {kCtl, 10, "IpSec", 8, P("w0 w4")},
        {kCtl, 11, "TimeStamp", 40, P("w0..36")},
        {kCtl, 12, "VlanIdMac", 12, P("h0 w8")},
        {kCtl, 13, "TrillOam", 8, P("w0 h4 h6")},
        {kCtl, 14, "L2PortList", 4, P("h0 h2")},
        {kCtl, 15, "VsiMac", 16, P("w0 h10 w12")},
        {kCtl, 16, "L2VsiPortList", 8, P("h0 h2 w4")},
        {kCtl, 17, "L2Vpn", 24, P("h2 w4 w8 w16")},
        {kCtl, 18, "PolicyIf 3 words", 28, P("w0 h6 h8 h10 w12..20"), "b4=3"},
        {kCtl, 18, "PolicyIf no word", 28, P("w0 h6 h8 h10"), "b4=0"},
        {kCtl, 19, "Interface 2 pairs", 32, P("w0 w4 w8..20"), "w4=2"},
        {kCtl, 19, "Interface no pair", 32, P("w0 w4"), "w4=0"},
        {kCtl, 21, "StackDebug stride 48", 124, stackHead + At(28, stackEntry) + At(76, stackEntry),
         "b4=2 h6=48"},
        {kCtl, 21, "StackDebug stride 44", 124, stackHead + At(28, stackEntry) + At(72, stackEntry),
         "b4=2 h6=44"},
        {kCtl, 21, "StackDebug no entry", 76, stackHead, "b4=0 h6=48"},

        {kLink, 0, "Eth", 24, P("w16 h22")},
        {kLink, 1, "Atm", 12, P("w4 w8")},
        {kLink, 2, "QinQ", 20, P("h4 h6 w8 h14 h16 h18")},
        {kLink, 3, "VlanIf", 24, P("w4 h8 h10 w12 h22")},
        {kLink, 4, "Dot1q", 16, P("h4 w8 h12 h14")},
        {kLink, 5, "Hdlc", 8, P("w4")},
        {kLink, 6, "Trill", 12, P("h4..10")},
        {kLink, 7, "8023SNAP", 12, {}},
        {kLink, 8, "8023Llc", 12, {}},
        {kLink, 9, "Vsi", 40, P("w8 w12 w16 h20 h22 w24 w28 w36")},
        {kLink, 10, "VlanPriority", 8, P("w4")},
        {kLink, 11, "Bd", 24, P("w4 h8 h14 h20 h22")},
        {kLink, 12, "Ctrl", 16, P("h4 h6 w8 w12")},
        {kLink, 13, "Vlan", 36, P("w4 w16 h20..34")},
        {kLink, 14, "Tunnel", 24, P("w4 w12 w16 w20")},
        {kLink, 15, "EvpnVlan", 16, P("w4 w8 h12")},
        {kLink, 16, "Tpid", 8, P("h4")},
        {kLink, 17, "ExtVlan 3", 16, P("h8..12"), "b4=3"},
        {kLink, 17, "ExtVlan 0", 16, {}, "b4=0"},
        {kLink, 18, "AN", 12, P("w4 h8")},
        {kLink, 19, "Prune 1", 16, P("h4 h6 w8 h12 h14"), "h4=1"},
        {kLink, 19, "Prune 2", 16, P("h4 h6 h8 h10 w12"), "h4=2"},
        {kLink, 19, "Prune 3", 16, P("h4 h6 w8"), "h4=3"},
        {kLink, 19, "Prune 4", 16, P("h4 h6 w8"), "h4=4"},
        {kLink, 19, "Prune 5", 16, P("h4 h6"), "h4=5"},
        {kLink, 19, "Prune -2", 16, P("h4 h6"), "h4=0xFFFE"},
        {kLink, 20, "PPPOE", 12, {}},
        {kLink, 21, "TunnelIpv6", 24, P("w4 w12 w16 w20")},
        {kLink, 23, "TagCp items of 2", 18, P("w4 h8 h12..16"), "h8=3 b10=1"},
        {kLink, 23, "TagCp items of 4", 24, P("w4 h8 h12..22"), "h8=3 b10=2"},
        {kLink, 24, "PppInfo", 8, P("h6")},
        {kLink, 25, "EnCap 25", 8, {}},
        {kLink, 255, "EnCap 255", 8, P("h4")},
        {kLink, 0x1234, "EnCap 0x1234", 8, {}},

        {kPktSnd, 1, "BdPortList", 12, P("h4 h6 w8")},
        {kPktSnd, 2, "NextHop v4", 32, P("w24 w28 w8"), "b4=2"},
        {kPktSnd, 2, "NextHop v6", 32, P("w24 w28"), "b4=28"},
        {kPktSnd, 3, "NewBK", 8, P("h4")},
        {kPktSnd, 5, "VlanBcastPortGrp", 16, P("h4 h6 w8 w12")},
        {kPktSnd, 7, "CtrlRoute v4", 68, P("w8 w60 w64 w12 w28 w44"), "b4=2"},
        {kPktSnd, 7, "CtrlRoute v6", 68, P("w8 w60 w64"), "b4=28"},
        {kPktSnd, 8, "SessKey 7", 52, P("w8 h18 h20 h22"), "b4=7"},
        {kPktSnd, 8, "EthSessKey", 24, P("w8 h18 h20 h22"), "b4=7", MBUF_MbufEthSessKeyTrans},
        {kPktSnd, 9, "FlowLabel", 68, P("w8..20 w28..36 w44..52 w60 w64")},
        {kPktSnd, 15, "SockKey", 12, P("w4 w8")},
        {kPktSnd, 18, "SockForward 0", 12, P("w8"), "b4=0"},
        {kPktSnd, 18, "SockForward 3", 12, P("w8"), "b4=3"},
        {kPktSnd, 18, "SockForward 4", 12, {}, "b4=4"},
        {kPktSnd, 27, "Slice", 12, P("h6 w8")},
        {kPktSnd, 28, "EvpnMac", 20, P("w4 h18")},
        {kPktSnd, 28, "EvpnMac twin", 20, P("w4 h18"), "", MBUF_MbufPktSendEvpnMacTrans},
        {kPktSnd, 29, "PathMatchPri", 12, P("w8")},
        {kPktSnd, 31, "IfPPPoE", 12, P("w4 h8 h10")},

        {kTnl, 0, "Base", 20, P("w4 w12 w16")},
        {kTnl, 1, "VxLan v4", 32, P("w4 w12 w28"), "b8=2"},
        {kTnl, 1, "VxLan v6", 32, P("w4"), "b8=28"},
        {kTnl, 2, "Bd", 8, P("w4")},
        {kTnl, 3, "Ip v4", 12, P("w8"), "b4=2"},
        {kTnl, 4, "Ip v6", 24, {}, "b4=28"},
        {kTnl, 4, "Ip v4", 12, P("w8"), "b4=7"},
        {kNoPath, 1, "L2mcBCast", 24, P("w4 h8 h10 w12 w16 w20")},
        {kNoPath, 2, "L3mcBCast", 24, P("w4 h8 h10 w12 w16 w20")},
    };
    for (std::uint16_t type : {0, 10, 21, 22, 30, 0x1000, 0x2000}) {
        rows.push_back({kPktSnd, type, "WordAt4", 8, P("w4")});
    }
    for (std::uint16_t type : {4, 14}) {
        rows.push_back({kPktSnd, type, "PortGrp", 16, P("w4 w8 w12")});
    }
    for (std::uint8_t kind : {0, 2, 4, 6}) {
        rows.push_back({kPktSnd, 8, "SessKey IP", 52, P("w8..44 h50"), Fmt("b4=%u", kind)});
    }
    // Nothing to convert, or no translator at all (6, 16, 26, 0x4000).
    for (std::uint16_t type : {11, 12, 20, 0x2001, 0x8000, 32, 6, 16, 26, 0x4000}) {
        rows.push_back({kPktSnd, type, "Untouched", 12, {}});
    }
    for (std::uint8_t kind : {1, 3, 5, 8}) {
        rows.push_back({kPktSnd, 8, "SessKey other", 52, {}, Fmt("b4=%u", kind)});
    }

    // The transmit record: a kind at 0 picks where the selector lies, and
    // selector 3 of the high kinds a second one at 30.
    const Fields txHead = P("h0 h2 h4 h6 w8");
    auto tx = [&](std::uint32_t kind, const char *more, const std::string &sel) {
        rows.push_back({kCtl, 7, Fmt("FeTx %u %s", kind, sel.c_str()), 44, txHead + P(more),
                        Fmt("h0=%u ", kind) + sel});
    };
    for (const auto &[sel, more] : {std::pair{1, "w24"}, {2, "h24 h26"}, {3, ""}, {0, ""}}) {
        tx(0, Fmt("w12 w16 %s", more).c_str(), Fmt("b20=%d", sel));
    }
    for (std::uint32_t kind : {1, 2, 3}) {
        for (const auto &[sel, more] : {std::pair{1, "w24"},
                                        {2, "h24 h26"},
                                        {3, "w24 h28 h30"},
                                        {4, "h24 h26 h28"},
                                        {5, ""}}) {
            tx(kind, Fmt("w12 w16 %s", more).c_str(), Fmt("b20=%d", sel));
        }
    }
    for (std::uint32_t kind : {4, 0x1234}) {
        for (const auto &[sel, more] : {std::pair{1, "w28"}, {2, "h28 h30"}, {4, ""}, {0, ""}}) {
            tx(kind, Fmt("w12..20 %s", more).c_str(), Fmt("b24=%d", sel));
        }
        for (const auto &[sel, more] : {std::pair{1, "w32"}, {2, "h32 h34"}, {3, ""}}) {
            tx(kind, Fmt("w12..20 h28 %s", more).c_str(), Fmt("b24=3 b30=%d", sel));
        }
    }
    return rows;
}

// The row's image, with the fields its own translator converts.
Img Element(const Row &r) {
    Img e = r.kind == Kind::kCtl ? Img{Pattern(r.len), r.fields} : Sub(r.type, r.len, r.fields);
    if (r.kind != Kind::kCtl && r.kind != Kind::kLink) {
        e.f = r.fields;  // the walker converts the head
    }
    Set(e.b, r.set);
    return e;
}

void Translate(const Row &r, Bytes &b) {
    void *p = b.data();
    if (r.kind == Kind::kCtl) {
        EXPECT_EQ(g_apfMbufPacketOrderTransProc[r.type](p), 0);
    } else if (r.kind == Kind::kLink) {
        (r.type < MBUF_LINK_TLV_TYPE_NUM ? g_apfMbufLinkInfoOrderTransProc[r.type]
                                         : MBUF_LinkEnCapByteOrderTrans)(p);
    } else if (r.kind != Kind::kPktSnd) {
        (r.kind == Kind::kTnl ? g_apfMbufPktSndSpcifyTnlInfoFunc
                              : g_apfMbufSndWithNoPathOrderTransProc)[r.type](p);
    } else if (auto fn = r.direct ? r.direct : MBUF_GetPktSendInfoBytesTransFunc(p)) {
        EXPECT_EQ(fn(p), 0);
    }  // a packet-send type without a translator keeps its value as it is
}

// The element in the record that carries it, and its offset there. Whole,
// it sits between two neighbours its walk knows; cut to `cut` bytes, it is
// alone and every length around it is cut to match.
struct Carried {
    std::uint32_t type;
    Img rec;
    std::uint32_t at;
};
Carried Carry(const Row &r, Img e, std::uint32_t cut = 0) {
    if (r.kind == Kind::kCtl) {
        return {r.type, e, 0};
    }
    if (r.kind != Kind::kLink) {
        e.f = P("h0 h2") + e.f;
    }
    const std::int32_t delta = cut == 0 ? 0 : static_cast<std::int32_t>(cut - r.len);
    if (cut != 0) {
        Put16(e.b, 2, cut - 4);
    }
    // Neighbours by kind: an ATM link, a socket key, a tunnel BD, a multicast.
    static const std::pair<std::uint16_t, const char *> kNeighbour[] = {
        {0, ""}, {1, "w4 w8"}, {15, "w4 w8"}, {2, "w4"}, {1, "w4 h8 h10 w12 w16 w20"}};
    const auto &[nbType, nbText] = kNeighbour[static_cast<std::size_t>(r.kind)];
    const Fields nbFields = P(nbText);
    const Img nb = Sub(nbType, Extent(nbFields), nbFields, 1);
    const Img list = cut != 0 ? e : nb + e + Sub(nbType, Extent(nbFields), nbFields, 3);
    const auto at = static_cast<std::uint32_t>(cut != 0 ? 0 : nb.b.size());
    switch (r.kind) {
        case Kind::kLink:
            return {MBUF_CTL_LINK, Tlv(0x0102, list, delta), 4 + at};
        case Kind::kPktSnd:
            return {MBUF_CTL_PKTSEND, Tlv(0x0102, list, delta, "h2"), 4 + at};
        case Kind::kTnl:
            return {MBUF_CTL_PKTSEND, Tlv(0x0102, Tlv(13, list, delta), delta, "h2"), 8 + at};
        default: {
            const Img lead{Pattern(4, 5), P("w0")};
            return {MBUF_CTL_PKTSEND, Tlv(0x0102, Tlv(19, lead + list, delta), delta, "h2"),
                    12 + at};
        }
    }
}

class RecordRowTest : public HostTest, public ::testing::WithParamInterface<Row> {};

TEST_P(RecordRowTest, ConvertsExactlyItsFieldsAloneInItsRecordAndCut) {
    const Row &r = GetParam();
    const Img e = Element(r);
    Bytes b = Foreign(e);
    Translate(r, b);
    EXPECT_TRUE(SameBytes(e.b, b)) << "its own translator";

    const Carried whole = Carry(r, e);
    auto walk = [](const Carried &c) {
        Bytes rec = Foreign(c.rec);
        EXPECT_EQ(g_apfMbufPacketOrderTransProc[c.type](rec.data()), 0);
        EXPECT_TRUE(SameBytes(c.rec.b, rec)) << "the record's walk, trusted";
    };
    if (r.kind != Kind::kCtl) {
        walk(whole);
    }
    EXPECT_EQ(Reports().size(), 0u);
    Block block;
    if (r.kind != Kind::kCtl || r.type != MBUF_CTL_COMM) {  // the common record is in every block
        block.Add(whole.type, whole.rec);
    }
    ExpectFrameworkRestores(block);

    // A head alone cannot be cut, the common record has no slot to cut, and
    // the tag copy list checks its own length first.
    const std::uint32_t extent = Extent(e.f);
    if ((r.kind != Kind::kCtl && extent <= 4) || (r.kind == Kind::kCtl && r.type == 0) ||
        (r.kind == Kind::kLink && r.type == 23)) {
        return;
    }
    const std::uint32_t cut = extent - 1;
    const Carried part = Carry(r, e, cut);
    if (r.kind != Kind::kCtl) {
        walk(part);  // trusted, the walk goes by the sub-TLV's fields alone
    }
    // Translators trust the record's length: a record or sub-TLV that claims
    // one byte less than its last field needs is converted whole, on both
    // paths, as long as its bytes lie in the block's memory.
    Block cutBlock;
    const std::uint32_t at =
        cutBlock.Add(part.type, part.rec, r.kind == Kind::kCtl ? std::int32_t(cut) : -1) + part.at;
    ExpectFrameworkRestores(cutBlock);

    // Only the memory stops them: a message received one byte short of the
    // last field, in no buffer of its own, ends at its received length.
    std::size_t done = 0;
    while (e.f[done].off + e.f[done].width <= cut) {
        ++done;
    }
    const F stop = e.f[done];
    const std::uint32_t recv = at + cut;
    const Bytes want =
        Head(Foreign(cutBlock.Host(), At(at, Fields(e.f.begin() + done, e.f.end()))), recv);
    Bytes msg = Head(cutBlock.ForeignImage(), recv);
    KRM_HOST_ReportClear();
    MBUF_TagByteOrderTrans(msg.data(), recv);
    EXPECT_TRUE(SameBytes(want, msg)) << "message";

    const std::uint32_t used = cutBlock.UsedEnd() - MBUF_CTL_FIXED_LEN;
    const std::uint32_t slotLen = r.kind == Kind::kCtl ? cut : used;
    std::vector<Seen> trans{
        {239, Fmt("RevLen=%u < 184 + %u %u 23", recv, used, MBUF_CTL_INIT_CAPACITY)}};
    std::vector<Seen> pktSnd;
    const bool inTrans = r.kind == Kind::kCtl || r.kind == Kind::kLink;
    (inTrans ? trans : pktSnd)
        .push_back(
            {1310, Fmt("T %u field %u+%u beyond len %u", r.type, stop.off, stop.width, recv - at)});
    if (r.kind == Kind::kPktSnd) {
        pktSnd.push_back({81, Fmt("T %u L %u R 1", r.type, cut - 4)});
    }
    if (r.kind == Kind::kCtl || r.kind == Kind::kPktSnd) {
        trans.push_back({203, Fmt("%s TagT %u Ret 1", FdPro().c_str(), part.type)});
    }
    if (MBUF_CTL_FIXED_LEN + slotLen > recv) {
        trans.push_back(
            {269, Fmt("184+%u<%u offset+len<revLen Type %u", slotLen, recv, part.type)});
    }
    EXPECT_EQ(ReportsOf(kTrans), trans);
    EXPECT_EQ(ReportsOf(kPktSnd), pktSnd);
}

INSTANTIATE_TEST_SUITE_P(Rows, RecordRowTest, ::testing::ValuesIn(Rows()));

class BeyondReversalTest : public HostTest {};

// The common record's word at 80, once converted, is rearranged unless it
// reads 2 or has a top byte of 0xFF; peers rely on these bytes exactly.
TEST_F(BeyondReversalTest, CommonRecordWordAt80) {
    // The bytes at 80..83 from the first (none: kept as converted).
    for (const auto &[word, bytes] : {std::pair{0x12345678u, 0x78562341u},
                                      {3u, 0x03000000u},
                                      {0xFE000000u, 0x0000E00Fu},
                                      {2u, 0u},
                                      {0xFF000000u, 0u},
                                      {0xFF123456u, 0u}}) {
        Bytes host = Pattern(MBUF_CTL_COMM_LEN, 0x40);
        Put32(host, 80, word);
        Bytes rec = Foreign(host, P(kCommFields));
        EXPECT_EQ(MBUF_MbufCommInfoByteOrderTrans(rec.data()), 0);
        for (std::uint32_t i = 0; i < 4 && bytes != 0; ++i) {
            host[80 + i] = static_cast<std::uint8_t>(bytes >> (24 - 8 * i));
        }
        EXPECT_TRUE(SameBytes(host, rec)) << std::hex << word;
    }
}

// The interface information's word at 8 keeps only its low half as this
// host reads it, reversed; the received bytes are given, the result fixed
// per build.
TEST_F(BeyondReversalTest, InterfaceInfoWordAt8) {
    const Img tlv = Sub(22, 60, P("w12..40 h44..58"));
    Bytes b = Foreign(tlv);
    const std::uint8_t received[4] = {0x11, 0x22, 0x33, 0x44};
    std::copy(received, received + 4, b.begin() + 8);
    g_apfMbufLinkInfoOrderTransProc[22](b.data());
#if MBUF_HOST_BIG_ENDIAN
    const std::uint8_t want[4] = {0x00, 0x00, 0x44, 0x33};
#else
    const std::uint8_t want[4] = {0x22, 0x11, 0x00, 0x00};
#endif
    Bytes host = tlv.b;
    std::copy(want, want + 4, host.begin() + 8);
    EXPECT_TRUE(SameBytes(host, b));
}

// The tag copy list needs 2 bytes an item of type 1 and 4 of any other,
// behind 8, modulo 65536 as the sender computes it; item types other than 1
// and 2 are refused after the head.
TEST_F(BeyondReversalTest, TagCopyListNeedsRoomForItsItems) {
    // line: of the report, 0 for none.
    auto check = [](std::uint8_t itemType, std::uint16_t count, std::uint16_t len,
                    std::uint32_t line) {
        const std::uint32_t step = itemType == 1 ? 2 : 4;
        Img tlv = Sub(23, std::max<std::uint32_t>(32, 12 + count * step), P("w4 h8"));
        Set(tlv.b, Fmt("h2=%u h8=%u b10=%u", len, count, itemType));
        std::vector<Seen> want;
        if (line == 0) tlv.f = tlv.f + P(Fmt("h12..%u", 10 + count * step));
        if (line == 905) {
            want.push_back(
                {905, Fmt("invalid len, num = %u type = %u tlvlen = %u", count, itemType, len)});
        }
        if (line == 927) want.push_back({927, Fmt("invalid tagtype = %u", itemType)});
        Bytes b = Foreign(tlv);
        KRM_HOST_ReportClear();
        MBUF_LinkTagCpInfoByteOrderTrans(b.data());
        EXPECT_TRUE(SameBytes(tlv.b, b)) << count << "/" << len;
        EXPECT_EQ(ReportsOf(kTrans), want) << count << "/" << len;
    };
    check(1, 3, 14, 0);
    check(1, 3, 13, 905);
    check(2, 3, 20, 0);
    check(2, 3, 19, 905);
    check(3, 3, 19, 905);
    check(2, 16382, 0, 0);
    check(1, 0x7FFC, 0, 0);
    check(1, 0x8000, 7, 905);
    check(1, 0, 7, 905);
    check(3, 2, 28, 927);
}

}  // namespace
}  // namespace krm::test::bo
