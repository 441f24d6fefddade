// Control-information records: for every record type and every selector
// value, exactly the listed fields are reversed, by the record's translator
// and through both framework paths. The layouts below are written from the
// record definitions, independently of the library's tables.
#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <string>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

struct CtlCase {
    std::uint32_t type;
    Layout layout;
};

void PrintTo(const CtlCase &c, std::ostream *os) {
    *os << c.layout.name;
}

// The forwarding engine's transmit record, per kind and selector.
std::vector<CtlCase> FeTxCases() {
    const Fields head = {U16(0), U16(2), U16(4), U16(6), U32(8)};
    const Fields shortWords = {U32(12), U32(16)};
    const Fields longWords = {U32(12), U32(16), U32(20)};
    struct Sel {
        std::uint8_t value;
        Fields fields;
    };
    std::vector<CtlCase> out;
    auto add = [&](std::string name, std::uint16_t kind, std::uint32_t selAt, std::uint8_t sel,
                   Fields fields, std::uint32_t subAt = 0, std::uint8_t sub = 0) {
        out.push_back({MBUF_CTL_FETX, Layout{name, 44, Join({head, fields}), [=](Bytes &b) {
                                                 Put16(b, 0, kind);
                                                 b[selAt] = sel;
                                                 if (subAt != 0) {
                                                     b[subAt] = sub;
                                                 }
                                             }}});
    };
    const std::vector<Sel> kind0 = {{1, {U32(24)}}, {2, {U16(24), U16(26)}}, {3, {}}, {0, {}}};
    for (const Sel &s : kind0) {
        add("FeTx kind 0 sel " + std::to_string(s.value), 0, 20, s.value,
            Join({shortWords, s.fields}));
    }
    const std::vector<Sel> mid = {{1, {U32(24)}},
                                  {2, {U16(24), U16(26)}},
                                  {3, {U32(24), U16(28), U16(30)}},
                                  {4, {U16(24), U16(26), U16(28)}},
                                  {5, {}}};
    for (std::uint16_t kind : {1, 2, 3}) {
        for (const Sel &s : mid) {
            add("FeTx kind " + std::to_string(kind) + " sel " + std::to_string(s.value), kind, 20,
                s.value, Join({shortWords, s.fields}));
        }
    }
    const std::vector<Sel> high = {{1, {U32(28)}}, {2, {U16(28), U16(30)}}, {4, {}}, {0, {}}};
    for (std::uint16_t kind : {4, 0x1234}) {
        for (const Sel &s : high) {
            add("FeTx kind " + std::to_string(kind) + " sel " + std::to_string(s.value), kind, 24,
                s.value, Join({longWords, s.fields}));
        }
        const std::vector<Sel> third = {{1, {U32(32)}}, {2, {U16(32), U16(34)}}, {3, {}}};
        for (const Sel &s : third) {
            add("FeTx kind " + std::to_string(kind) + " sel 3/" + std::to_string(s.value), kind, 24,
                3, Join({longWords, {U16(28)}, s.fields}), 30, s.value);
        }
    }
    return out;
}

std::vector<CtlCase> Cases() {
    const Fields app = {U16(0), U16(2)};
    std::vector<CtlCase> out = {
        {MBUF_CTL_COMM, {"Comm", 84, CommFields(), [](Bytes &b) { Put32(b, 80, 0xFF010203u); }}},
        {MBUF_CTL_IP, {"Ip", 20, {U16(14), U32(16)}}},
        {MBUF_CTL_MPLS,
         {"Mpls", 108,
          Join({Seq(0, 5, 4, 4),
                Seq(24, 5, 4, 4),
                Seq(44, 5, 4, 4),
                Seq(64, 5, 4, 4),
                {U32(20), U32(84), U32(88), U16(94), U32(96), U32(104)}})}},
        {MBUF_CTL_APP, {"App", 4, app}},
        {MBUF_CTL_IPOPTION, {"IpOption", 4, app}},
        {MBUF_CTL_FERX,
         {"FeRx bit 0x2000", 52,
          Join({Seq(0, 6, 2, 2),
                {U32(12), U16(28), U16(30), U32(32), U16(16), U16(18), U16(24), U16(26), U32(20)}}),
          [](Bytes &b) { Put16(b, 28, 0x2345); }}},
        {MBUF_CTL_FERX,
         {"FeRx plain", 52,
          Join({Seq(0, 6, 2, 2), {U32(12), U16(28), U16(30), U32(32), U32(16), U32(20), U32(24)}}),
          [](Bytes &b) { Put16(b, 28, 0xC512); }}},
        {MBUF_CTL_IP6, {"Ip6", 52, {U16(38), U32(40), U32(44), U32(48)}}},
        {MBUF_CTL_PREVHOP, {"PrevHop", 4, {U32(0)}}},
        {MBUF_CTL_IPSEC, {"IpSec", 8, {U32(0), U32(4)}}},
        {MBUF_CTL_TIMESTAMP, {"TimeStamp", 40, Seq(0, 10, 4, 4)}},
        {MBUF_CTL_VLANIDMAC, {"VlanIdMac", 12, {U16(0), U32(8)}}},
        {MBUF_CTL_TRILLOAM, {"TrillOam", 8, {U32(0), U16(4), U16(6)}}},
        {MBUF_CTL_L2PORTLIST, {"L2PortList", 4, app}},
        {MBUF_CTL_VSIMAC, {"VsiMac", 16, {U32(0), U16(10), U32(12)}}},
        {MBUF_CTL_L2VSIPORTLIST, {"L2VsiPortList", 8, {U16(0), U16(2), U32(4)}}},
        {MBUF_CTL_L2VPN, {"L2Vpn", 24, {U16(2), U32(4), U32(8), U32(16)}}},
        {MBUF_CTL_POLICYIF,
         {"PolicyIf 3 words", 28, Join({{U32(0), U16(6), U16(8), U16(10)}, Seq(12, 3, 4, 4)}),
          [](Bytes &b) { b[4] = 3; }}},
        {MBUF_CTL_POLICYIF,
         {"PolicyIf no word", 28, {U32(0), U16(6), U16(8), U16(10)}, [](Bytes &b) { b[4] = 0; }}},
        {MBUF_CTL_INTERFACE,
         {"Interface 2 pairs", 32, Join({{U32(0), U32(4)}, Seq(8, 4, 4, 4)}),
          [](Bytes &b) { Put32(b, 4, 2); }}},
        {MBUF_CTL_INTERFACE,
         {"Interface no pair", 32, {U32(0), U32(4)}, [](Bytes &b) { Put32(b, 4, 0); }}},
    };
    const Fields sdHead = {U16(0),  U16(2),  U16(6),  U16(10), U32(12),
                           U32(16), U32(20), U16(24), U16(26)};
    const Fields sdEntry = {U32(0), U32(4), U16(8), U32(16), U16(20), U32(28), U32(32), U32(36)};
    for (std::uint16_t stride : {48, 44}) {
        out.push_back(
            {MBUF_CTL_STACKDEBUG,
             {"StackDebug 2 entries stride " + std::to_string(stride), 28u + 2u * 48u,
              Join({sdHead, At(28, sdEntry), At(28u + stride, sdEntry)}), [stride](Bytes &b) {
                  b[4] = 2;
                  Put16(b, 6, stride);
              }}});
    }
    out.push_back({MBUF_CTL_STACKDEBUG, {"StackDebug no entry", 76, sdHead, [](Bytes &b) {
                                             b[4] = 0;
                                             Put16(b, 6, 48);
                                         }}});
    const std::vector<CtlCase> feTx = FeTxCases();
    out.insert(out.end(), feTx.begin(), feTx.end());
    return out;
}

class CtlRecordTest : public HostTest, public ::testing::WithParamInterface<CtlCase> {};

TEST_P(CtlRecordTest, TranslatorReversesExactlyTheListedFields) {
    const CtlCase &c = GetParam();
    const Bytes host = HostImage(c.layout);
    Bytes rec = Foreign(host, c.layout.fields);
    EXPECT_EQ(g_apfMbufPacketOrderTransProc[c.type](rec.data()), 0);
    EXPECT_TRUE(SameBytes(host, rec));
    EXPECT_EQ(Reports().size(), 0u);
}

TEST_P(CtlRecordTest, FrameworkDispatchesByRecordType) {
    const CtlCase &c = GetParam();
    Block block;
    // The common record is the block's own start and is in every block.
    if (c.type != MBUF_CTL_COMM) {
        block.Add(c.type, HostImage(c.layout), c.layout.fields);
    }
    ExpectFrameworkRestores(block);
}

// A record whose slot is one byte shorter than its fields reach is
// converted up to the field that would leave it, and reported.
TEST_P(CtlRecordTest, FrameworkStopsAtTheSlotLength) {
    const CtlCase &c = GetParam();
    if (c.type == MBUF_CTL_COMM) {
        return;  // the common record has no slot: its extent is fixed
    }
    const Fields &fields = c.layout.fields;
    const std::uint32_t bound = Extent(fields) - 1;
    const std::size_t done = Prefix(fields, bound).size();
    ASSERT_LT(done, fields.size());
    const F stop = fields[done];
    Block block;
    const std::uint32_t off =
        block.Add(c.type, HostImage(c.layout), fields, static_cast<std::int32_t>(bound));
    const Fields left =
        At(off, Fields(fields.begin() + static_cast<std::ptrdiff_t>(done), fields.end()));
    const Bytes want = Foreign(block.ForeignImage(), Without(block.ForeignFields(), left));

    const Paths paths = RunBothPaths(block);
    EXPECT_TRUE(SameBytes(want, paths.node.bytes));
    EXPECT_TRUE(SameBytes(Bytes(want.begin(), want.begin() + block.UsedEnd()), paths.msg.bytes));
    const std::string overrun = "T " + std::to_string(c.type) + " field " +
                                std::to_string(stop.off) + "+" + std::to_string(stop.width) +
                                " beyond len " + std::to_string(bound);
    const std::string ret = FdPro() + " TagT " + std::to_string(c.type) + " Ret 1";
    EXPECT_EQ(paths.node.trans, (std::vector<Seen>{{1310, overrun}, {118, ret}}));
    EXPECT_EQ(paths.msg.trans, (std::vector<Seen>{{1310, overrun}, {203, ret}}));
}

INSTANTIATE_TEST_SUITE_P(Records, CtlRecordTest, ::testing::ValuesIn(Cases()), [](const auto &tp) {
    std::string name;
    for (char ch : tp.param.layout.name) {
        name += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
    }
    return name + "_" + std::to_string(tp.index);
});

class CommWordTest : public HostTest {};

// The word at 80 is converted, then its upper nibbles rearranged unless it
// reads 2 or has a top byte of 0xFF; the result is fixed byte for byte.
TEST_F(CommWordTest, RearrangesTheWordAt80BitForBit) {
    struct Case {
        std::uint32_t word;
        std::array<std::uint8_t, 4> bytes;
    };
    const Case cases[] = {
        {0x12345678u, {0x78, 0x56, 0x23, 0x41}},
        {0xABCDEF01u, {0x01, 0xEF, 0xBC, 0xDA}},
        {0x00000003u, {0x03, 0x00, 0x00, 0x00}},
        {0xFE000000u, {0x00, 0x00, 0xE0, 0x0F}},
    };
    for (const Case &c : cases) {
        Bytes host = CommImage();
        Put32(host, 80, c.word);
        Bytes rec = Foreign(host, CommFields());
        ASSERT_EQ(MBUF_MbufCommInfoByteOrderTrans(rec.data()), 0);
        for (std::uint32_t i = 0; i < 4; ++i) {
            host[80 + i] = c.bytes[i];
        }
        EXPECT_TRUE(SameBytes(host, rec)) << std::hex << c.word;
    }
}

TEST_F(CommWordTest, KeepsTwoAndTopByteFFAsConverted) {
    for (std::uint32_t word : {2u, 0xFF000000u, 0xFF00FF01u, 0xFF123456u}) {
        const Bytes host = [&] {
            Bytes b = CommImage();
            Put32(b, 80, word);
            return b;
        }();
        Bytes rec = Foreign(host, CommFields());
        ASSERT_EQ(MBUF_MbufCommInfoByteOrderTrans(rec.data()), 0);
        EXPECT_TRUE(SameBytes(host, rec)) << std::hex << word;
    }
}

TEST_F(CommWordTest, EveryRecordTranslatorRefusesNull) {
    for (std::uint32_t type = 0; type < MBUF_CTL_TYPE_NUM; ++type) {
        EXPECT_EQ(g_apfMbufPacketOrderTransProc[type](nullptr), -1) << type;
    }
    EXPECT_EQ(Reports().size(), 0u);
}

}  // namespace
}  // namespace krm::test::bo
