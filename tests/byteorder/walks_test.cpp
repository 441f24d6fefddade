// The five sub-TLV walks at their boundaries: a list that ends exactly at
// its length, one followed by fewer bytes than a head, a last sub-TLV one
// byte over the length, lengths of 0 to 3, and one empty sub-TLV filling the
// list. Then what only some walks do: skip types they have no translator
// for, and carry a translator's failure.
#include <gtest/gtest.h>

#include <string>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

struct Walker {
    const char *name;
    std::int32_t (*walk)(void *);
    std::uint16_t type;  // of the TLV holding the list
    const char *head;    // its head fields a foreign sender reversed
    bool lead;           // a word precedes the list
    Img a, b;            // two sub-TLVs, with the fields this walk converts
    bool ownsHeads;      // the walk converts each sub-TLV's head itself
    const char *mod;
    std::uint32_t noFitLine;
    std::int32_t shortRet;    // for a list of 0 to 3 bytes, reported
    std::uint32_t shortLine;  // (unless 0) at this line
    const char *shortText;    // as this text and the length
    std::uint16_t emptyType;  // of an empty sub-TLV filling the list,
    std::uint32_t emptyLine;  // reported (unless 0) at this line
    const char *emptyText;    // as this text
};

std::vector<Walker> Walkers() {
    const Fields mc = P("w4 h8 h10 w12 w16 w20");
    // clang-format off
    return {
        {"link", g_apfMbufPacketOrderTransProc[MBUF_CTL_LINK], 0x0102, "h0 h2", false, Sub(5, 8, P("w4"), 1), Sub(1, 12, P("w4 w8"), 2), false, kTrans, 330, 0, 0, "", 7, 0, ""},
        // The packet information's values are opaque: only heads convert.
        {"packet info", g_apfMbufPacketOrderTransProc[MBUF_CTL_PACKET], 0x0102, "h0 h2", false, Sub(5, 8, {}, 1), Sub(1, 12, {}, 2), true, kTrans, 372, 0, 0, "", 7, 0, ""},
        {"packet send", g_apfMbufPacketOrderTransProc[MBUF_CTL_PKTSEND], 0x0102, "h2", false, Sub(15, 12, P("w4 w8"), 1), Sub(15, 12, P("w4 w8"), 2), true, kPktSnd, 95, -1, 62, "Type ", 11, 0, ""},
        // Nested walks find their own head converted by the packet-send walk.
        {"tunnel", MBUF_MbufPktSendInfoSpcifyTnl, 13, "", false, Sub(2, 8, P("w4"), 1), Sub(0, 20, P("w4 w12 w16"), 2), true, kPktSnd, 460, -1, 425, "Len ", 5, 441, "Err TlvType:5, TlvLen:0"},
        {"no path", MBUF_MbufPktSendInfoNoPathPktTrans, 19, "", true, Sub(1, 24, mc, 1), Sub(2, 24, mc, 2), true, kPktSnd, 512, 0, 0, "", 3, 0, ""},
    };
    // clang-format on
}

class WalkTest : public HostTest {};

TEST_F(WalkTest, BoundariesOfEveryWalk) {
    for (const Walker &w : Walkers()) {
        SCOPED_TRACE(w.name);
        const Img lead = w.lead ? Img{Pattern(4, 9), P("w0")} : Img{};
        auto holder = [&](const Img &list, std::int32_t delta) {
            return Tlv(w.type, lead + list, delta, w.head);
        };
        auto check = [&](const Img &tlv, std::int32_t ret, const Bytes &want,
                         const std::vector<Seen> &reports, const std::string &what) {
            KRM_HOST_ReportClear();
            Bytes b = Foreign(tlv);
            EXPECT_EQ(w.walk(b.data()), ret) << what;
            EXPECT_TRUE(SameBytes(want, b)) << what;
            EXPECT_EQ(ReportsOf(w.mod), reports) << what;
            EXPECT_EQ(Reports().size(), reports.size()) << what;
        };
        const Img whole = holder(w.a + w.b, 0);
        check(whole, 0, whole.b, {}, "exact fit");
        for (std::uint32_t extra : {1u, 2u, 3u}) {
            const Img t = holder(w.a + w.b + Img{Bytes(extra, 0xEE), {}}, 0);
            check(t, 0, t.b, {}, Fmt("%u trailing bytes", extra));
        }
        // One byte over: the second sub-TLV's value stays as received, and
        // so does its head unless the walk converted it before measuring.
        const Img over = holder(w.a + w.b, -1);
        const auto size = static_cast<std::uint32_t>(w.b.b.size());
        const Fields left(w.b.f.begin() + (w.ownsHeads ? 2 : 0), w.b.f.end());
        check(over, 1, Foreign(over.b, At(4 + (w.lead ? 4 : 0) + w.a.b.size(), left)),
              {{w.noFitLine, Fmt("T %u ML %u TL %u", Get16(w.b.b, 0), size - 1, size)}},
              "one byte over");
        for (std::uint32_t len : {0u, 1u, 2u, 3u}) {
            const Img t = holder(Img{Pattern(8, 4), {}}, static_cast<std::int32_t>(len) - 8);
            std::vector<Seen> reports;
            if (w.shortLine != 0) {
                reports.push_back({w.shortLine, w.shortText + std::to_string(len)});
            }
            check(t, w.shortRet, t.b, reports, Fmt("list of %u", len));
        }
        const Img one = holder(Sub(w.emptyType, 4, {}), 0);
        std::vector<Seen> reports;
        if (w.emptyLine != 0) {
            reports.push_back({w.emptyLine, w.emptyText});
        }
        check(one, 0, one.b, reports, "one empty sub-TLV");
    }
}

// A tunnel type beyond the table is reported and skipped; the no-path walk
// silently skips all but types 1 and 2. Either walk goes on behind.
TEST_F(WalkTest, NestedWalksSkipTypesWithoutATranslator) {
    const Img tnl =
        Tlv(13, Sub(2, 8, P("w4"), 1) + Sub(5, 10, {}, 2) + Sub(0, 20, P("w4 w12 w16"), 3), 0, "");
    Bytes b = Foreign(tnl);
    EXPECT_EQ(MBUF_MbufPktSendInfoSpcifyTnl(b.data()), 0);
    EXPECT_TRUE(SameBytes(tnl.b, b));
    EXPECT_EQ(ReportsOf(kPktSnd), (std::vector<Seen>{{441, "Err TlvType:5, TlvLen:6"}}));

    const Fields mc = P("w4 h8 h10 w12 w16 w20");
    const Img noPath =
        Tlv(19,
            Img{Pattern(4, 9), P("w0")} + Sub(1, 24, mc, 1) + Sub(0, 12, {}, 2) +
                Sub(2, 24, mc, 3) + Sub(3, 8, {}, 4) + Sub(0x0102, 8, {}, 5) + Sub(2, 24, mc, 6),
            0, "");
    b = Foreign(noPath);
    EXPECT_EQ(MBUF_MbufPktSendInfoNoPathPktTrans(b.data()), 0);
    EXPECT_TRUE(SameBytes(noPath.b, b));
    EXPECT_EQ(Reports().size(), 1u);
}

// A sub-TLV whose translator fails is reported with the result, which the
// walk returns once it has converted the rest.
TEST_F(WalkTest, PacketSendWalkCarriesATranslatorsFailure) {
    const Img rec = Tlv(0x0102, Sub(13, 6, {}, 1) + Sub(15, 12, P("w4 w8"), 2), 0, "h2");
    Bytes b = Foreign(rec);
    EXPECT_EQ(MBUF_MbufPktSendInfoByteOrderTrans(b.data()), -1);
    EXPECT_TRUE(SameBytes(rec.b, b));
    EXPECT_EQ(ReportsOf(kPktSnd),
              (std::vector<Seen>{{425, "Len 2"}, {81, "T 13 L 2 R 4294967295"}}));
}

}  // namespace
}  // namespace krm::test::bo
