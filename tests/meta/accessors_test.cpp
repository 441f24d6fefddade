// The common-record accessors, the three flag words, and the derived getters
// that look in several places in a fixed order of preference. Offsets are
// the wire offsets written out independently of the library's structures,
// so a layout slip shows up here.
#include <cstring>

#include "internal/bytes.h"
#include "meta_support.h"

namespace krm::metatest {
namespace {

using krm::Load16;
using krm::Load32;
using krm::Load32At;

constexpr bool kBigEndian = MBUF_HOST_BIG_ENDIAN != 0;

MBUF_CTL_COMM_S *CommOf(MBUF_S *m) {
    return static_cast<MBUF_CTL_COMM_S *>(MBUF_GetControlInfo(m, MBUF_CTL_COMM));
}

Bytes CommBytes(MBUF_S *m) {
    const std::uint8_t *rec = Rec(m, MBUF_CTL_COMM);
    return Bytes(rec, rec + MBUF_CTL_COMM_LEN);
}

struct PairCase {
    const char *name;
    std::uint32_t (*get)(MBUF_S *);
    MBUF_CTL_COMM_S *(*set)(MBUF_S *, std::uint32_t);
    std::uint32_t offset;
    std::uint32_t width;
    std::uint32_t fresh;  // value on a fresh block
};

// The two fields whose accessors have shapes of their own, seen as a pair:
// the priority setter says nothing, the product-type getter fills an out
// argument (zero, with -1, when there is no block).
std::uint32_t GetProductType(MBUF_S *m) {
    std::uint32_t value = 99;
    const std::int32_t ret = MBUF_GetProductProtoType(m, &value);
    return ret == 0 ? value : (ret == -1 && value == 0 ? 0xFFFFFFFFu : 0xBADu);
}
MBUF_CTL_COMM_S *SetProductType(MBUF_S *m, std::uint32_t value) {
    return MBUF_SetProductProtoType(m, value) == 0 ? CommOf(m) : nullptr;
}
MBUF_CTL_COMM_S *SetPriority(MBUF_S *m, std::uint32_t value) {
    MBUF_SetPktPriority(m, value);
    return CommOf(m);
}

#define KRM_PAIR(stem, off, width, fresh) \
    { #stem, MBUF_Get##stem, MBUF_Set##stem, off, width, fresh }
const PairCase kPairs[] = {
    KRM_PAIR(VrId, 4, 4, 0),
    KRM_PAIR(VrfId, 8, 4, 0),
    KRM_PAIR(ReceiveIfIndex, 12, 4, 0),
    KRM_PAIR(ReceivePhyIfIndex, 16, 4, 0),
    KRM_PAIR(SendIfIndex, 20, 4, 0),
    KRM_PAIR(PathId, 24, 4, 0xFFFFFFFFu),
    KRM_PAIR(SockId, 28, 4, 0xFFFFFFFFu),
    KRM_PAIR(ProtoType, 40, 2, 0),
    KRM_PAIR(DirectionType, 42, 2, 0),
    KRM_PAIR(TimeStamp, 44, 4, 0),
    KRM_PAIR(ExceptionId, 48, 4, 0),
    KRM_PAIR(PortGrpId, 56, 4, 0),
    {"PktPriority", MBUF_GetPktPriority, SetPriority, 64, 2, 0},
    {"ProductProtoType", GetProductType, SetProductType, 80, 4, 0},
};
#undef KRM_PAIR

class AccessorTest : public MetaTest {};

// Each pair reads and writes its own field only; without a block a getter
// reads the all-ones value of the field's width and a setter stores nothing.
TEST_F(AccessorTest, PairsReadAndWriteTheirFieldOnly) {
    MBUF_S *m = NewPacket();
    const auto plain = [this] {
        const auto *p = reinterpret_cast<const std::uint8_t *>(&m_stPlain);
        return Bytes(p, p + sizeof(m_stPlain));
    };
    const Bytes plainBefore = plain();
    for (const PairCase &c : kPairs) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.get(m), c.fresh);
        Bytes expected = CommBytes(m);
        EXPECT_EQ(c.set(m, 0x12345678u), MBUF_GetControlInfo(m, MBUF_CTL_COMM));
        const Bytes stored = c.width == 2 ? U16(0x5678) : U32(0x12345678u);  // cut to the field
        std::memcpy(expected.data() + c.offset, stored.data(), c.width);
        EXPECT_EQ(CommBytes(m), expected);
        EXPECT_EQ(c.get(m), c.width == 2 ? 0x5678u : 0x12345678u);
        for (MBUF_S *pstMissing : m_apstMissing) {
            EXPECT_EQ(c.get(pstMissing), c.width == 2 ? 0xFFFFu : 0xFFFFFFFFu);
            EXPECT_EQ(c.set(pstMissing, 7), nullptr);
        }
    }
    EXPECT_EQ(plain(), plainBefore);
    EXPECT_EQ(m_stNoBlock.pstCtlInfo, nullptr);
    EXPECT_EQ(MBUF_GetProductProtoType(m, nullptr), -1);
}

// The packet flag word lives in the common record; ulFlag2 and ulFlag3 are
// the header node's own words, the latter addressed by bit number.
TEST_F(AccessorTest, FlagWordsAreSetClearedAndTestedWhereTheyLive) {
    MBUF_S *m = NewPacket();
    EXPECT_EQ((Seq{MBUF_GetFlag(m), MBUF_SetFlag(m, 0x81u), MBUF_SetFlag(m, 0x100u),
                   MBUF_ClearFlag(m, 0x80u), MBUF_TestFlag1(m, 0x180u), MBUF_TestFlag1(m, 0x80u),
                   MBUF_SetFlag2(m, 0x30u), MBUF_ClearFlag2(m, 0x10u), MBUF_TestFlag2(m, 0x21u),
                   MBUF_TestFlag2(m, 0x10u)}),
              (Seq{0, 0x81, 0x181, 0x101, 1, 0, 0, 0, 1, 0}));  // TestFlag: any bit of the mask
    for (std::uint32_t bit : {0u, 31u}) {
        EXPECT_EQ((Seq{MBUF_TestFlag3(m, bit), MBUF_SetFlag3(m, bit), MBUF_TestFlag3(m, bit)}),
                  (Seq{0, 0, 1}))
            << bit;
    }
    EXPECT_EQ((Seq{MBUF_ClearFlag3(m, 0), MBUF_SetFlag3(m, 32), MBUF_ClearFlag3(m, 32),
                   MBUF_TestFlag3(m, 32), Load32(CommBytes(m).data()), m->ulFlag2, m->ulFlag3}),
              (Seq{0, -1, -1, 0, 0x101, 0x20, 0x80000000}));

    // Without a block the header's words are still its own; a plain node's
    // are read by GetFlag2 only and never written.
    m_stPlain.ulFlag2 = 0x5A5A0000u;
    m_stPlain.ulFlag3 = 0xFFFFFFFFu;
    EXPECT_EQ((Seq{MBUF_SetFlag2(&m_stNoBlock, 4), MBUF_SetFlag3(&m_stNoBlock, 2),
                   MBUF_GetFlag2(&m_stNoBlock), MBUF_TestFlag3(&m_stNoBlock, 2),
                   MBUF_GetFlag2(&m_stPlain), MBUF_GetFlag2(nullptr)}),
              (Seq{0, 0, 4, 1, 0x5A5A0000, 0xFFFFFFFF}));
    EXPECT_EQ((Seq{MBUF_TestFlag2(&m_stPlain, 0xFFFFFFFFu), MBUF_TestFlag3(&m_stPlain, 0),
                   MBUF_SetFlag2(&m_stPlain, 1), MBUF_ClearFlag2(&m_stPlain, 0xFFFFFFFFu),
                   MBUF_SetFlag3(&m_stPlain, 0), MBUF_ClearFlag3(&m_stPlain, 0)}),
              (Seq{0, 0, -1, -1, -1, -1}));
    EXPECT_EQ((Seq{m_stPlain.ulFlag2, m_stPlain.ulFlag3}), (Seq{0x5A5A0000, 0xFFFFFFFF}));
    for (MBUF_S *p : m_apstMissing) {
        EXPECT_EQ((Seq{MBUF_GetFlag(p), MBUF_SetFlag(p, 1), MBUF_ClearFlag(p, 1),
                       MBUF_TestFlag1(p, 0xFFFFFFFFu)}),
                  (Seq{0xFFFFFFFF, 0, 0, 0}));
    }
}

// ---- derived getters ----------------------------------------------------------------------

// One record of a test packet; the link stack is record 1 with its sub-TLVs.
struct Record {
    std::uint32_t type;
    Bytes bytes;
};

// Records and link-stack sub-TLVs at their wire offsets.
class DerivedTest : public MetaTest {
  protected:
    static Record Ip(std::uint8_t tos, std::uint16_t mtu) {
        return {MBUF_CTL_IP, Zeros(20, {{13, {tos}}, {14, U16(mtu)}})};
    }
    static Record Ip6(std::uint8_t tclass, std::uint16_t mtu) {
        return {MBUF_CTL_IP6, Zeros(52, {{36, {tclass}}, {38, U16(mtu)}})};
    }
    // Forwarding-engine receive record: the VLAN word at 16 and the flags at
    // 28; with one tag the half-word at 16 holds the id, whichever the order.
    static Record FeRx(std::uint32_t word, std::uint16_t flags) {
        return {MBUF_CTL_FERX, Zeros(52, {{16, U32(word)}, {28, U16(flags)}})};
    }
    static Record FeRx1(std::uint16_t vlan, std::uint16_t flags) {
        return {MBUF_CTL_FERX, Zeros(52, {{16, U16(vlan)}, {28, U16(flags)}})};
    }
    // Fills the inline block's record area up to its last 8 bytes, so that
    // the next record of 8 bytes ends where the block's memory ends.
    static Record Filler() { return {MBUF_CTL_APP, Zeros(MBUF_CTL_INIT_CAPACITY - 8)}; }
    // A record created 8 bytes long, too short for the fields read from it,
    // and what follows it in the block.
    static Record Short(std::uint32_t type) { return {type, Zeros(8)}; }
    static Record Behind(std::uint32_t len, const std::vector<Patch> &patches) {
        return {MBUF_CTL_APP, Zeros(len, patches)};
    }
    static Record Link(const std::vector<Bytes> &subTlvs) {
        return {MBUF_CTL_LINK, TlvRecord(Cat(subTlvs))};
    }
    static Bytes Dot1q(std::uint16_t vlan) { return SubTlv(4, U16(vlan)); }
    static Bytes QinQ(std::uint16_t at0, std::uint16_t at2) {
        return SubTlv(2, Cat({U16(at0), U16(at2)}));
    }
    static Bytes Eth(std::uint8_t priority, std::uint16_t flags) {
        return SubTlv(0, Zeros(24, {{16, {priority}}, {18, U16(flags)}}));
    }
    static Bytes VlanPrio(std::uint8_t mode, std::uint8_t prio, std::uint8_t prio2) {
        return SubTlv(10, Zeros(8, {{4, {mode}}, {5, {prio}}, {6, {prio2}}}));
    }
    // The prune VLANs of a VSI (9) or bridge-domain (11) sub-TLV.
    static Bytes Prune(std::uint16_t type, std::uint16_t first, std::uint16_t second) {
        return SubTlv(type, Zeros(20, {{16, U16(first)}, {18, U16(second)}}));
    }

    MBUF_S *Build(const std::vector<Record> &records, std::uint32_t proto = 0) {
        MBUF_S *m = NewPacket();
        for (const Record &r : records) {
            AddRecordBytes(m, r.type, r.bytes);
        }
        (void)MBUF_SetProtoType(m, proto);
        ExpectValid(m);
        return m;
    }
};

TEST_F(DerivedTest, TosPrefersIpv4AndMtuFollowsTheProtocolType) {
    struct Case {
        const char *name;
        std::vector<Record> records;
        std::uint32_t proto, tos, mtu;
    };
    const Case cases[] = {
        {"nothing", {}, 0, 0xFF, 0xFFFF},
        {"ipv6", {Ip6(0x48, 1280)}, 1, 0x48, 1280},
        {"both, ipv4 packet", {Ip(0x2E, 1500), Ip6(0x48, 1280)}, 0, 0x2E, 1500},
        {"both, ipv6 packet", {Ip(0x2E, 1500), Ip6(0x48, 1280)}, 1, 0x2E, 1280},
        {"other protocol", {Ip(1, 1500), Ip6(2, 1280)}, 2, 1, 0xFFFF},
        // A record created short is read where its fields would lie: here in
        // the record behind it (bytes 5 and 6 of it); at the block's end,
        // where they would lie outside, it reads as missing.
        {"short ipv4",
         {Short(MBUF_CTL_IP), Behind(8, {{5, {0x5A}}, {6, U16(1400)}})},
         0,
         0x5A,
         1400},
        {"short ipv4 at the block's end", {Filler(), Short(MBUF_CTL_IP)}, 0, 0xFF, 0xFFFF},
    };
    for (const Case &c : cases) {
        MBUF_S *m = Build(c.records, c.proto);
        EXPECT_EQ((Seq{MBUF_GetIPTOS(m), MBUF_GetReceiveIfMTU(m)}), (Seq{c.tos, c.mtu})) << c.name;
    }
    for (MBUF_S *p : m_apstMissing) {
        EXPECT_EQ((Seq{MBUF_GetIPTOS(p), MBUF_GetReceiveIfMTU(p)}), (Seq{0xFF, 0xFFFF}));
    }
}

TEST_F(DerivedTest, RecvVlanIdSearchesLinkStackThenForwardingRecord) {
    struct Case {
        const char *name;
        std::vector<Record> records;
        std::uint32_t count;             // 0: not found
        std::vector<std::uint16_t> ids;  // out[] as it must read afterwards
    };
    constexpr std::uint16_t kNone = 0xEEEE;
    // Two tags: the first id is the low 12 bits of the half-word at 16, the
    // second those of the word at 16 (its low half on a big-endian host).
    const std::uint16_t twoFirst = kBigEndian ? 100 : 200;
    const std::uint16_t badFirst = kBigEndian ? 100 : 4095;
    const Case cases[] = {
        {"802.1Q before QinQ", {Link({QinQ(10, 20), Dot1q(100)})}, 1, {100, kNone}},
        {"QinQ, value at 2 first", {Link({QinQ(10, 20)})}, 2, {20, 10}},
        {"QinQ before FE record", {Link({QinQ(10, 20)}), FeRx1(300, 0x2000)}, 2, {20, 10}},
        // An 802.1Q sub-TLV without value reads its id from what follows it:
        // the type of the next sub-TLV.
        {"802.1Q without value", {Link({SubTlv(4, {}), QinQ(10, 20)})}, 1, {2, kNone}},
        {"short FE",
         {Short(MBUF_CTL_FERX), Behind(24, {{8, U16(300)}, {20, U16(0x2000)}})},
         1,
         {300, kNone}},
        {"short FE at the block's end", {Filler(), Short(MBUF_CTL_FERX)}, 0, {kNone, kNone}},
        {"one tag, high bits masked", {FeRx1(0xF12C, 0x2000)}, 1, {300, kNone}},
        {"one tag 4094", {FeRx1(4094, 0x2000)}, 1, {4094, kNone}},
        {"one tag 4095", {FeRx1(4095, 0x2000)}, 0, {4095, kNone}},
        {"one tag 0", {FeRx1(0, 0x2000)}, 0, {0, kNone}},
        {"two tags", {FeRx((0x3064u << 16) | 0x40C8u, 0x400)}, 2, {twoFirst, 200}},
        {"two tags, second 4095", {FeRx((100u << 16) | 0xFFFu, 0x400)}, 0, {badFirst, 4095}},
        // The one-tag flag decides; a bad one-tag id does not fall back.
        {"both flags, bad single id", {FeRx((4095u << 16) | 4095u, 0x2400)}, 0, {4095, kNone}},
        {"no tag flags", {FeRx1(100, 0x1000)}, 0, {kNone, kNone}},
        {"nothing", {}, 0, {kNone, kNone}},
    };
    std::uint16_t out[2];
    std::uint32_t count = 77;
    for (const Case &c : cases) {
        MBUF_S *m = Build(c.records);
        out[0] = out[1] = kNone;
        count = 77;
        EXPECT_EQ((Seq{MBUF_GetRecvVlanId(m, out, 2, &count), count, out[0], out[1]}),
                  (Seq{c.count != 0 ? MBUF_OK : MBUF_ERR_NOT_FOUND, c.count, c.ids[0], c.ids[1]}))
            << c.name;
    }
    MBUF_S *m = Build({Link({Dot1q(100)})});
    count = 77;
    constexpr std::int64_t kBad = MBUF_ERR_BAD_ARG;
    EXPECT_EQ(
        (Seq{MBUF_GetRecvVlanId(nullptr, out, 2, &count), MBUF_GetRecvVlanId(m, out, 1, &count),
             count, MBUF_GetRecvVlanId(&m_stPlain, out, 2, &count), count}),
        (Seq{kBad, kBad, 77, MBUF_ERR_NOT_FOUND, 0}));
}

TEST_F(DerivedTest, VlanPriorityFollowsTagThenPacket) {
    struct Case {
        const char *name;
        std::vector<Record> records;
        std::uint32_t capacity;
        Bytes out;  // empty: not found
    };
    const Record ip5 = Ip(0xA0, 0);      // priority 5
    const Record ip6of3 = Ip6(0x60, 0);  // priority 3
    const Case cases[] = {
        {"nothing", {}, 2, {}},
        {"ipv4", {ip5}, 2, {5, 5}},
        {"ipv4, no room", {ip5}, 0, {0xEE, 0xEE}},
        {"ipv4 before ipv6", {ip5, ip6of3}, 2, {5, 5}},
        {"ipv6 before ethernet", {Link({Eth(6, 0x10)}), ip6of3}, 2, {3, 3}},
        {"ethernet priority not valid", {Link({Eth(6, 0x20)})}, 2, {}},
        {"tag mode 2", {Link({VlanPrio(2, 4, 1)}), ip5}, 2, {1, 4}},
        {"tag mode 2, room for one", {Link({VlanPrio(2, 4, 1)}), ip5}, 1, {4, 0xEE}},
        // Any capacity but 1 gets two bytes while the tag is there.
        {"tag mode 2, capacity 0", {Link({VlanPrio(2, 4, 1)})}, 0, {1, 4}},
        {"tag mode 1 with ipv4", {Link({VlanPrio(1, 4, 1)}), ip5}, 2, {5, 4}},
        {"tag mode 1 with ethernet", {Link({Eth(6, 0x10), VlanPrio(1, 4, 1)})}, 2, {6, 4}},
        {"tag mode 1, ethernet not valid", {Link({Eth(6, 0), VlanPrio(1, 4, 1)})}, 2, {4, 4}},
    };
    std::uint8_t out[2];
    for (const Case &c : cases) {
        MBUF_S *m = Build(c.records);
        out[0] = out[1] = 0xEE;
        EXPECT_EQ(MBUF_GetVlanPriority(m, out, c.capacity), c.out.empty() ? -1 : 0) << c.name;
        EXPECT_EQ(Bytes(out, out + 2), (c.out.empty() ? Bytes{0xEE, 0xEE} : c.out)) << c.name;
    }
    EXPECT_EQ(
        (Seq{MBUF_GetVlanPriority(nullptr, out, 2), MBUF_GetVlanPriority(&m_stPlain, out, 2)}),
        (Seq{-1, -1}));
}

// The IPv6 half returns the record or sub-TLV the priority came from; the
// IPv4 record is not its business.
TEST_F(DerivedTest, Ipv6HalfReportsWhereThePriorityCameFrom) {
    MBUF_S *ip6 = Build({Link({Eth(6, 0x10)}), Ip6(0xE0, 0)});
    MBUF_S *eth = Build({Link({SubTlv(3, Zeros(8)), Eth(6, 0x10)})});
    MBUF_S *ip = Build({Link({Eth(6, 0)}), Ip(0xA0, 0)});
    struct Case {
        MBUF_S *m;
        const void *from;
        std::uint8_t priority;
    };
    const Case cases[] = {
        {ip6, MBUF_GetControlInfo(ip6, MBUF_CTL_IP6), 7},
        {eth, MBUF_BAS_GetMbufLinkStackByType(eth, 0), 6},
        {ip, nullptr, 0xEE},
        {nullptr, nullptr, 0xEE},
    };
    for (const Case &c : cases) {
        std::uint8_t priority = 0xEE;
        std::uint8_t found = 0xEE;
        EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(c.m, &priority, &found), c.from);
        EXPECT_EQ((Seq{priority, found}), (Seq{c.priority, c.from != nullptr ? 1 : 0}));
    }
    std::uint8_t out = 0;
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(ip6, nullptr, &out), nullptr);
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(ip6, &out, nullptr), nullptr);
}

TEST_F(DerivedTest, PruneVlansComeFromVsiThenBridgeDomain) {
    struct Case {
        const char *name;
        std::vector<Bytes> link;
        std::uint32_t capacity;
        Seq result;  // result, count, out[0], out[1]
    };
    constexpr std::uint16_t kNone = 0xEEEE;
    const Case cases[] = {
        {"vsi", {Prune(9, 10, 20)}, 2, {0, 2, 10, 20}},
        {"vsi before bridge domain", {Prune(11, 30, 40), Prune(9, 10, 20)}, 2, {0, 2, 10, 20}},
        {"first zero", {Prune(9, 0, 20)}, 2, {0, 0, kNone, kNone}},
        {"second zero", {Prune(9, 10, 0)}, 2, {0, 1, 10, kNone}},
        // The count says two even when only one fits.
        {"room for one", {Prune(9, 10, 20)}, 1, {0, 2, 10, kNone}},
        // A short VSI sub-TLV is read where its VLANs would lie: in the value
        // of the sub-TLV behind it.
        {"short vsi reads on",
         {SubTlv(9, Zeros(8)), SubTlv(3, Zeros(8, {{4, U16(30)}, {6, U16(40)}}))},
         2,
         {0, 2, 30, 40}},
        {"neither", {SubTlv(4, Zeros(8))}, 2, {-1, 77, kNone, kNone}},
    };
    std::uint16_t out[2];
    std::uint32_t count = 77;
    for (const Case &c : cases) {
        MBUF_S *m = Build({Link(c.link)});
        out[0] = out[1] = kNone;
        count = 77;
        EXPECT_EQ((Seq{MBUF_GetPruneVlanByVsi(m, out, c.capacity, &count), count, out[0], out[1]}),
                  c.result)
            << c.name;
    }
    EXPECT_EQ((Seq{MBUF_GetPruneVlanByVsi(Build({}), out, 2, &count),
                   MBUF_GetPruneVlanByVsi(nullptr, out, 2, &count)}),
              (Seq{-1, -1}));
}

// The key setter creates the MPLS record it fills: a new record reads
// all-ones in words 0-10 but word 5; a record already there keeps its words.
TEST_F(DerivedTest, TunnelKeyCreatesTheMplsRecordOnceAndReplacesOnlyTheKey) {
    const Bytes keyA = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const Bytes keyB = {0xF0, 0xE1, 0xD2, 0xC3, 0xB4, 0xA5, 0x96, 0x87, 0x78, 0x69, 0x5A, 0x4B};
    Bytes key(12);
    // The key the getter gives, nothing when it fails.
    const auto keyOf = [&key](MBUF_S *p) {
        return MBUF_GetTunnelKey(p, key.data()) == 0 ? key : Bytes{};
    };
    const auto created = [](const Bytes &k) {
        return Cat({Bytes(20, 0xFF), Bytes(4, 0), Bytes(20, 0xFF), Bytes(52, 0), k, Bytes(4, 0)});
    };
    MBUF_S *m = NewPacket();
    EXPECT_EQ(keyOf(m), Bytes{});
    ASSERT_EQ(MBUF_SetTunnelKey_fl(m, kModule, keyA.data(), "caller", 7), 0);
    ExpectValid(m);
    std::uint8_t *rec = Rec(m, MBUF_CTL_MPLS);
    ASSERT_EQ(MBUF_GetControlLen(m, MBUF_CTL_MPLS), 112u);
    EXPECT_EQ(Bytes(rec, rec + 112), created(keyA));
    EXPECT_EQ(keyOf(m), keyA);
    krm::Store32At(rec, 8, 0x12345678u);
    Bytes want = created(keyB);
    krm::Store32At(want.data(), 8, 0x12345678u);
    ASSERT_EQ(MBUF_SetTunnelKey(m, kModule, keyB.data()), 0);
    EXPECT_EQ(Rec(m, MBUF_CTL_MPLS), rec);
    EXPECT_EQ(Bytes(rec, rec + 112), want);
    EXPECT_EQ(keyOf(m), keyB);

    // A record made by hand, even one too short for the key, takes it at 96
    // inside the block; at the block's end the key would lie outside: nothing
    // is written, the setter still succeeds and the getter fails.
    MBUF_S *own = NewPacket();
    const std::uint8_t *ownRec = AddRecord(own, MBUF_CTL_MPLS, 16);
    ASSERT_EQ(MBUF_SetTunnelKey(own, kModule, keyA.data()), 0);
    EXPECT_EQ(Bytes(ownRec + 96, ownRec + 108), keyA);
    EXPECT_EQ(keyOf(own), keyA);
    MBUF_S *atEnd = Build({Filler(), Short(MBUF_CTL_MPLS)});
    const Bytes before = BlockBytes(atEnd);
    EXPECT_EQ(MBUF_SetTunnelKey(atEnd, kModule, keyA.data()), 0);
    EXPECT_EQ(BlockBytes(atEnd), before);
    EXPECT_EQ(keyOf(atEnd), Bytes{});
    MBUF_S *none = NewPacket();
    EXPECT_EQ((Seq{MBUF_SetTunnelKey(none, kModule, nullptr), MBUF_GetTunnelKey(m, nullptr),
                   MBUF_SetTunnelKey(&m_stPlain, kModule, keyA.data()),
                   MBUF_GetTunnelKey(nullptr, key.data())}),
              (Seq{-1, -1, -1, -1}));
    EXPECT_EQ(Rec(none, MBUF_CTL_MPLS), nullptr);
}

}  // namespace
}  // namespace krm::metatest
