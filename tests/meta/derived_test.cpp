// The derived getters: each looks in several places in a fixed order of
// preference. Every table row builds a packet from scratch with exactly the
// records and link sub-TLVs it names, so each branch of each order is taken.
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "fault_sweep.h"
#include "internal/bytes.h"
#include "mbuf_check.h"
#include "meta_support.h"

namespace krm::metatest {
namespace {

constexpr bool kBigEndian = MBUF_HOST_BIG_ENDIAN != 0;

// ---- builders of records and sub-TLVs at their documented offsets ----------------------

std::vector<uint8_t> IpRec(uint8_t ucTos, uint16_t usMtu) {
    return Bytes(20, {{13, {ucTos}}, {14, U16(usMtu)}});
}
std::vector<uint8_t> Ip6Rec(uint8_t ucClass, uint16_t usMtu) {
    return Bytes(52, {{36, {ucClass}}, {38, U16(usMtu)}});
}
// Forwarding-engine receive record: the VLAN word at 16 and the flags at 28.
std::vector<uint8_t> FeRxOne(uint16_t usVlan, uint16_t usFlags) {
    return Bytes(52, {{16, U16(usVlan)}, {28, U16(usFlags)}});
}
std::vector<uint8_t> FeRxWord(uint32_t ulWord, uint16_t usFlags) {
    return Bytes(52, {{16, U32(ulWord)}, {28, U16(usFlags)}});
}

LinkTlv Dot1q(uint16_t usVlan) {
    return {4, U16(usVlan)};
}
LinkTlv QinQ(uint16_t usAt0, uint16_t usAt2) {
    return {2, Bytes(4, {{0, U16(usAt0)}, {2, U16(usAt2)}})};
}
LinkTlv Eth(uint8_t ucPriority, uint16_t usFlags) {
    return {0, Bytes(24, {{16, {ucPriority}}, {18, U16(usFlags)}})};
}
LinkTlv VlanPrio(uint8_t ucMode, uint8_t ucPrio, uint8_t ucPrio2) {
    return {10, Bytes(8, {{4, {ucMode}}, {5, {ucPrio}}, {6, {ucPrio2}}})};
}
LinkTlv Vsi(uint16_t usFirst, uint16_t usSecond) {
    return {9, Bytes(20, {{16, U16(usFirst)}, {18, U16(usSecond)}})};
}
LinkTlv BridgeDomain(uint16_t usFirst, uint16_t usSecond) {
    return {11, Bytes(20, {{16, U16(usFirst)}, {18, U16(usSecond)}})};
}
LinkTlv Other(uint16_t usType) {
    return {usType, Bytes(8, {})};
}

// The records one test packet carries.
struct Scene {
    std::vector<LinkTlv> link{};
    std::optional<std::vector<uint8_t>> ip{};
    std::optional<std::vector<uint8_t>> ip6{};
    std::optional<std::vector<uint8_t>> feRx{};
    uint32_t ulProto = 0;
};

class DerivedTest : public MetaTest {
  protected:
    MBUF_S *Build(const Scene &scene) {
        MBUF_S *pstMbuf = NewPacket();
        if (pstMbuf == nullptr) {
            return nullptr;
        }
        if (!scene.link.empty()) {
            AddLinkTlvs(pstMbuf, scene.link);
        }
        if (scene.ip) {
            (void)AddRecordBytes(pstMbuf, MBUF_CTL_IP, *scene.ip);
        }
        if (scene.ip6) {
            (void)AddRecordBytes(pstMbuf, MBUF_CTL_IP6, *scene.ip6);
        }
        if (scene.feRx) {
            (void)AddRecordBytes(pstMbuf, MBUF_CTL_FERX, *scene.feRx);
        }
        (void)MBUF_SetProtoType(pstMbuf, scene.ulProto);
        krm::test::ExpectValid(pstMbuf);
        return pstMbuf;
    }
};

// ---- IP TOS and receive MTU ---------------------------------------------------------------

TEST_F(DerivedTest, TosPrefersIpv4AndMtuFollowsTheProtocolType) {
    struct Case {
        const char *pcName;
        Scene scene;
        uint32_t ulTos;
        uint32_t ulMtu;
    };
    const Case cases[] = {
        {"nothing", {}, 0xFF, 0xFFFF},
        {"ipv4", {.ip = IpRec(0x2E, 1500)}, 0x2E, 1500},
        {"ipv6", {.ip6 = Ip6Rec(0x48, 1280), .ulProto = 1}, 0x48, 1280},
        {"both, ipv4 packet", {.ip = IpRec(0x2E, 1500), .ip6 = Ip6Rec(0x48, 1280)}, 0x2E, 1500},
        {"both, ipv6 packet",
         {.ip = IpRec(0x2E, 1500), .ip6 = Ip6Rec(0x48, 1280), .ulProto = 1},
         0x2E,
         1280},
        {"ipv4 record, ipv6 packet", {.ip = IpRec(0x2E, 1500), .ulProto = 1}, 0x2E, 0xFFFF},
        {"ipv6 record, ipv4 packet", {.ip6 = Ip6Rec(0x48, 1280)}, 0x48, 0xFFFF},
        {"other protocol", {.ip = IpRec(1, 1500), .ip6 = Ip6Rec(2, 1280), .ulProto = 2}, 1, 0xFFFF},
        // A record too short for the field reads as missing.
        {"short ipv4 record", {.ip = Bytes(8, {}), .ip6 = Ip6Rec(0x48, 1280)}, 0x48, 0xFFFF},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcName);
        MBUF_S *pstMbuf = Build(c.scene);
        ASSERT_NE(pstMbuf, nullptr);
        EXPECT_EQ(MBUF_GetIPTOS(pstMbuf), c.ulTos);
        EXPECT_EQ(MBUF_GetReceiveIfMTU(pstMbuf), c.ulMtu);
    }
    for (MBUF_S *pstMissing : {static_cast<MBUF_S *>(nullptr), &m_stPlain, &m_stNoBlock}) {
        EXPECT_EQ(MBUF_GetIPTOS(pstMissing), 0xFFu);
        EXPECT_EQ(MBUF_GetReceiveIfMTU(pstMissing), 0xFFFFu);
    }
}

// ---- receive VLAN ids ---------------------------------------------------------------------

TEST_F(DerivedTest, RecvVlanIdSearchesLinkStackThenForwardingRecord) {
    struct Case {
        const char *pcName;
        Scene scene;
        uint32_t ulResult;
        uint32_t ulCount;
        std::vector<uint16_t> ids;  // out[] as it must read afterwards
    };
    // Two tags: the first id is the low 12 bits of the half-word at 16, the
    // second those of the word at 16 (its low half on a big-endian host).
    const uint32_t ulTwo = (0x3064u << 16) | 0x40C8u;  // 100 / 200 after masking
    const uint16_t usTwoFirst = kBigEndian ? 100 : 200;
    const Case cases[] = {
        {"802.1Q", {.link = {Dot1q(100)}}, MBUF_OK, 1, {100, 0xEEEE}},
        {"802.1Q before QinQ", {.link = {QinQ(10, 20), Dot1q(100)}}, MBUF_OK, 1, {100, 0xEEEE}},
        {"QinQ, value at 2 first", {.link = {QinQ(10, 20)}}, MBUF_OK, 2, {20, 10}},
        {"QinQ before the forwarding record",
         {.link = {QinQ(10, 20)}, .feRx = FeRxOne(300, 0x2000)},
         MBUF_OK,
         2,
         {20, 10}},
        {"802.1Q without a value is skipped",
         {.link = {{4, {}}, QinQ(10, 20)}},
         MBUF_OK,
         2,
         {20, 10}},
        {"one tag, high bits masked", {.feRx = FeRxOne(0xF12C, 0x2000)}, MBUF_OK, 1, {300, 0xEEEE}},
        {"one tag 1", {.feRx = FeRxOne(1, 0x2000)}, MBUF_OK, 1, {1, 0xEEEE}},
        {"one tag 4094", {.feRx = FeRxOne(4094, 0x2000)}, MBUF_OK, 1, {4094, 0xEEEE}},
        {"one tag 4095", {.feRx = FeRxOne(4095, 0x2000)}, MBUF_ERR_NOT_FOUND, 0, {4095, 0xEEEE}},
        {"one tag 0", {.feRx = FeRxOne(0, 0x2000)}, MBUF_ERR_NOT_FOUND, 0, {0, 0xEEEE}},
        {"two tags", {.feRx = FeRxWord(ulTwo, 0x400)}, MBUF_OK, 2, {usTwoFirst, 200}},
        {"two tags, second 4095",
         {.feRx = FeRxWord((100u << 16) | 0xFFFu, 0x400)},
         MBUF_ERR_NOT_FOUND,
         0,
         {static_cast<uint16_t>(kBigEndian ? 100 : 4095), 4095}},
        // The one-tag flag decides; a bad one-tag id does not fall back.
        {"both flags, bad single id",
         {.feRx = FeRxWord((4095u << 16) | 4095u, 0x2400)},
         MBUF_ERR_NOT_FOUND,
         0,
         {4095, 0xEEEE}},
        {"no tag flags", {.feRx = FeRxOne(100, 0x1000)}, MBUF_ERR_NOT_FOUND, 0, {0xEEEE, 0xEEEE}},
        {"unrelated sub-TLV only", {.link = {Other(7)}}, MBUF_ERR_NOT_FOUND, 0, {0xEEEE, 0xEEEE}},
        {"nothing", {}, MBUF_ERR_NOT_FOUND, 0, {0xEEEE, 0xEEEE}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcName);
        MBUF_S *pstMbuf = Build(c.scene);
        ASSERT_NE(pstMbuf, nullptr);
        uint16_t ausOut[2] = {0xEEEE, 0xEEEE};
        uint32_t ulCount = 77;
        EXPECT_EQ(MBUF_GetRecvVlanId(pstMbuf, ausOut, 2, &ulCount), c.ulResult);
        EXPECT_EQ(ulCount, c.ulCount);
        EXPECT_EQ(std::vector<uint16_t>(ausOut, ausOut + 2), c.ids);
    }
}

TEST_F(DerivedTest, RecvVlanIdRejectsBadArguments) {
    MBUF_S *pstMbuf = Build({.link = {Dot1q(100)}});
    ASSERT_NE(pstMbuf, nullptr);
    uint16_t ausOut[2] = {};
    uint32_t ulCount = 77;
    EXPECT_EQ(MBUF_GetRecvVlanId(nullptr, ausOut, 2, &ulCount), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetRecvVlanId(pstMbuf, nullptr, 2, &ulCount), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetRecvVlanId(pstMbuf, ausOut, 1, &ulCount), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetRecvVlanId(pstMbuf, ausOut, 0, &ulCount), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_GetRecvVlanId(pstMbuf, ausOut, 2, nullptr), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(ulCount, 77u);
    EXPECT_EQ(MBUF_GetRecvVlanId(&m_stPlain, ausOut, 2, &ulCount), MBUF_ERR_NOT_FOUND);
    EXPECT_EQ(ulCount, 0u);
}

// ---- VLAN priority ------------------------------------------------------------------------

TEST_F(DerivedTest, VlanPriorityFollowsTagThenPacket) {
    struct Case {
        const char *pcName;
        Scene scene;
        uint32_t ulCapacity;
        int32_t lResult;
        std::vector<uint8_t> out;
    };
    const auto ip5 = IpRec(0xA0, 0);      // priority 5
    const auto ip6of3 = Ip6Rec(0x60, 0);  // priority 3
    const Case cases[] = {
        {"nothing", {}, 2, -1, {0xEE, 0xEE}},
        {"ipv4", {.ip = ip5}, 2, 0, {5, 5}},
        {"ipv4, room for one", {.ip = ip5}, 1, 0, {5, 0xEE}},
        {"ipv4, no room", {.ip = ip5}, 0, 0, {0xEE, 0xEE}},
        {"ipv6", {.ip6 = ip6of3}, 2, 0, {3, 3}},
        {"ipv4 before ipv6", {.ip = ip5, .ip6 = ip6of3}, 2, 0, {5, 5}},
        {"ipv6 before ethernet", {.link = {Eth(6, 0x10)}, .ip6 = ip6of3}, 2, 0, {3, 3}},
        {"ethernet priority valid", {.link = {Eth(6, 0x10)}}, 2, 0, {6, 6}},
        {"ethernet priority not valid", {.link = {Eth(6, 0x20)}}, 2, -1, {0xEE, 0xEE}},
        {"tag mode 2", {.link = {VlanPrio(2, 4, 1)}, .ip = ip5}, 2, 0, {1, 4}},
        {"tag mode 2, room for one", {.link = {VlanPrio(2, 4, 1)}, .ip = ip5}, 1, 0, {4, 0xEE}},
        // Any capacity but 1 gets two bytes while the tag is there.
        {"tag mode 2, capacity 0", {.link = {VlanPrio(2, 4, 1)}}, 0, 0, {1, 4}},
        {"tag mode 1 with ipv4", {.link = {VlanPrio(1, 4, 1)}, .ip = ip5}, 2, 0, {5, 4}},
        {"tag mode 1 with ethernet", {.link = {Eth(6, 0x10), VlanPrio(1, 4, 1)}}, 2, 0, {6, 4}},
        {"tag mode 1 alone", {.link = {VlanPrio(1, 4, 1)}}, 2, 0, {4, 4}},
        {"tag mode 1, ethernet not valid", {.link = {Eth(6, 0), VlanPrio(1, 4, 1)}}, 2, 0, {4, 4}},
        {"tag mode 1, room for one", {.link = {VlanPrio(1, 4, 1)}, .ip = ip5}, 1, 0, {4, 0xEE}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcName);
        MBUF_S *pstMbuf = Build(c.scene);
        ASSERT_NE(pstMbuf, nullptr);
        uint8_t aucOut[2] = {0xEE, 0xEE};
        EXPECT_EQ(MBUF_GetVlanPriority(pstMbuf, aucOut, c.ulCapacity), c.lResult);
        EXPECT_EQ(std::vector<uint8_t>(aucOut, aucOut + 2), c.out);
    }
    uint8_t aucOut[2] = {};
    EXPECT_EQ(MBUF_GetVlanPriority(nullptr, aucOut, 2), -1);
    EXPECT_EQ(MBUF_GetVlanPriority(Build({.ip = ip5}), nullptr, 2), -1);
    EXPECT_EQ(MBUF_GetVlanPriority(&m_stPlain, aucOut, 2), -1);
}

TEST_F(DerivedTest, Ipv6HalfReportsWhereThePriorityCameFrom) {
    uint8_t ucPrio = 0xEE;
    uint8_t ucFound = 0xEE;

    MBUF_S *pstIp6 = Build({.link = {Eth(6, 0x10)}, .ip6 = Ip6Rec(0xE0, 0)});
    ASSERT_NE(pstIp6, nullptr);
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(pstIp6, &ucPrio, &ucFound),
              MBUF_GetControlInfo(pstIp6, MBUF_CTL_IP6));
    EXPECT_EQ(ucPrio, 7);
    EXPECT_EQ(ucFound, 1);

    MBUF_S *pstEth = Build({.link = {Other(3), Eth(6, 0x10)}});
    ASSERT_NE(pstEth, nullptr);
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(pstEth, &ucPrio, &ucFound),
              static_cast<void *>(MBUF_BAS_GetMbufLinkStackByType(pstEth, 0)));
    EXPECT_EQ(ucPrio, 6);
    EXPECT_EQ(ucFound, 1);

    // The IPv4 record is not this half's business.
    MBUF_S *pstIp = Build({.link = {Eth(6, 0)}, .ip = IpRec(0xA0, 0)});
    ASSERT_NE(pstIp, nullptr);
    ucPrio = 0xEE;
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(pstIp, &ucPrio, &ucFound), nullptr);
    EXPECT_EQ(ucFound, 0);
    EXPECT_EQ(ucPrio, 0xEE);

    ucFound = 0xEE;
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(nullptr, &ucPrio, &ucFound), nullptr);
    EXPECT_EQ(ucFound, 0);
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(pstIp6, nullptr, &ucFound), nullptr);
    EXPECT_EQ(MBUF_GetVlanPriority_ProcIpv6(pstIp6, &ucPrio, nullptr), nullptr);
}

// ---- prune VLANs --------------------------------------------------------------------------

TEST_F(DerivedTest, PruneVlansComeFromVsiThenBridgeDomain) {
    struct Case {
        const char *pcName;
        std::vector<LinkTlv> link;
        uint32_t ulCapacity;
        int32_t lResult;
        uint32_t ulCount;
        std::vector<uint16_t> out;
    };
    const Case cases[] = {
        {"vsi", {Vsi(10, 20)}, 2, 0, 2, {10, 20}},
        {"bridge domain", {BridgeDomain(30, 40)}, 2, 0, 2, {30, 40}},
        {"vsi before bridge domain", {BridgeDomain(30, 40), Vsi(10, 20)}, 2, 0, 2, {10, 20}},
        {"first zero", {Vsi(0, 20)}, 2, 0, 0, {0xEEEE, 0xEEEE}},
        {"second zero", {Vsi(10, 0)}, 2, 0, 1, {10, 0xEEEE}},
        // The count says two even when only one fits.
        {"room for one", {Vsi(10, 20)}, 1, 0, 2, {10, 0xEEEE}},
        {"no room", {Vsi(10, 20)}, 0, 0, 2, {0xEEEE, 0xEEEE}},
        {"short vsi skipped", {{9, Bytes(8, {})}, BridgeDomain(30, 40)}, 2, 0, 2, {30, 40}},
        {"neither", {Other(4)}, 2, -1, 77, {0xEEEE, 0xEEEE}},
        {"no link record", {}, 2, -1, 77, {0xEEEE, 0xEEEE}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcName);
        MBUF_S *pstMbuf = Build({.link = c.link});
        ASSERT_NE(pstMbuf, nullptr);
        uint16_t ausOut[2] = {0xEEEE, 0xEEEE};
        uint32_t ulCount = 77;
        EXPECT_EQ(MBUF_GetPruneVlanByVsi(pstMbuf, ausOut, c.ulCapacity, &ulCount), c.lResult);
        EXPECT_EQ(ulCount, c.ulCount);
        EXPECT_EQ(std::vector<uint16_t>(ausOut, ausOut + 2), c.out);
    }
    MBUF_S *pstMbuf = Build({.link = {Vsi(10, 20)}});
    uint16_t ausOut[2] = {};
    uint32_t ulCount = 0;
    EXPECT_EQ(MBUF_GetPruneVlanByVsi(nullptr, ausOut, 2, &ulCount), -1);
    EXPECT_EQ(MBUF_GetPruneVlanByVsi(pstMbuf, nullptr, 2, &ulCount), -1);
    EXPECT_EQ(MBUF_GetPruneVlanByVsi(pstMbuf, ausOut, 2, nullptr), -1);
}

// ---- tunnel key ---------------------------------------------------------------------------

const uint8_t kKeyA[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
const uint8_t kKeyB[12] = {0xF0, 0xE1, 0xD2, 0xC3, 0xB4, 0xA5, 0x96, 0x87, 0x78, 0x69, 0x5A, 0x4B};

TEST_F(DerivedTest, TunnelKeyCreatesTheMplsRecordOnce) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    uint8_t aucKey[12] = {};
    EXPECT_EQ(MBUF_GetTunnelKey(pstMbuf, aucKey), -1);

    ASSERT_EQ(MBUF_SetTunnelKey_fl(pstMbuf, kModule, kKeyA, "caller", 7), 0);
    auto *pucRec = static_cast<uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_MPLS));
    ASSERT_NE(pucRec, nullptr);
    EXPECT_EQ(MBUF_GetControlLen(pstMbuf, MBUF_CTL_MPLS), 112u);
    for (uint32_t ulWord = 0; ulWord < 24; ++ulWord) {
        const uint32_t ulExpected = (ulWord <= 10 && ulWord != 5) ? 0xFFFFFFFFu : 0u;
        EXPECT_EQ(krm::Load32At(pucRec, ulWord * 4), ulExpected) << "word " << ulWord;
    }
    EXPECT_EQ(std::memcmp(pucRec + 96, kKeyA, 12), 0);
    EXPECT_EQ(MBUF_GetTunnelKey(pstMbuf, aucKey), 0);
    EXPECT_EQ(std::memcmp(aucKey, kKeyA, 12), 0);

    // A second key replaces only the key.
    krm::Store32At(pucRec, 8, 0x12345678u);
    ASSERT_EQ(MBUF_SetTunnelKey_fl(pstMbuf, kModule, kKeyB, "caller", 8), 0);
    EXPECT_EQ(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_MPLS), pucRec);
    EXPECT_EQ(krm::Load32At(pucRec, 8), 0x12345678u);
    EXPECT_EQ(krm::Load32At(pucRec, 0), 0xFFFFFFFFu);
    EXPECT_EQ(MBUF_GetTunnelKey(pstMbuf, aucKey), 0);
    EXPECT_EQ(std::memcmp(aucKey, kKeyB, 12), 0);
    krm::test::ExpectValid(pstMbuf);
}

TEST_F(DerivedTest, TunnelKeyLeavesAnExistingRecordsWordsAlone) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    uint8_t *pucRec = AddRecord(pstMbuf, MBUF_CTL_MPLS, 108);
    ASSERT_NE(pucRec, nullptr);
    ASSERT_EQ(MBUF_SetTunnelKey(pstMbuf, kModule, kKeyA), 0);
    EXPECT_EQ(krm::Load32At(pucRec, 0), 0u);
    EXPECT_EQ(std::memcmp(pucRec + 96, kKeyA, 12), 0);
}

TEST_F(DerivedTest, TunnelKeyRefusesWhatCannotHoldIt) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    uint8_t aucKey[12] = {};
    EXPECT_EQ(MBUF_SetTunnelKey_fl(nullptr, kModule, kKeyA, "caller", 1), -1);
    EXPECT_EQ(MBUF_SetTunnelKey_fl(&m_stPlain, kModule, kKeyA, "caller", 1), -1);
    EXPECT_EQ(MBUF_SetTunnelKey_fl(pstMbuf, kModule, nullptr, "caller", 1), -1);
    EXPECT_EQ(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_MPLS), nullptr);
    EXPECT_EQ(MBUF_GetTunnelKey(nullptr, aucKey), -1);
    EXPECT_EQ(MBUF_GetTunnelKey(&m_stPlain, aucKey), -1);

    // A record made by hand too short for the key is left as it is.
    MBUF_S *pstShort = NewPacket();
    ASSERT_NE(pstShort, nullptr);
    ASSERT_NE(AddRecord(pstShort, MBUF_CTL_MPLS, 16), nullptr);
    EXPECT_EQ(MBUF_SetTunnelKey_fl(pstShort, kModule, kKeyA, "caller", 1), -1);
    EXPECT_EQ(MBUF_GetTunnelKey(pstShort, aucKey), -1);
    EXPECT_EQ(MBUF_GetTunnelKey(pstMbuf, nullptr), -1);
}

// A block already filled by other records must grow for the MPLS record: the
// growth is attributed to the caller, or to the wrapper's own site.
TEST_F(DerivedTest, TunnelKeyGrowthIsAttributedToTheCaller) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    ASSERT_NE(AddRecord(pstMbuf, MBUF_CTL_APP, 200), nullptr);
    ASSERT_EQ(MBUF_SetTunnelKey(pstMbuf, kModule, kKeyA), 0);
    KRM_HOST_BUF_INFO_S stInfo{};
    ASSERT_EQ(KRM_HOST_BufferInfo(pstMbuf->pstCtlInfo, &stInfo), 0u);
    EXPECT_STREQ(stInfo.pcFile, "MBUF_SetTunnelKey");
    EXPECT_EQ(stInfo.ulLine, 196u);
    EXPECT_EQ(stInfo.ulOwner, kModule);
}

TEST_F(DerivedTest, TunnelKeyFailingGrowthLeavesNoRecord) {
    MBUF_S *pstMbuf = nullptr;
    const auto result = krm::test::FaultSweep({
        .setup =
            [&] {
                pstMbuf = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, "test", 1);
                ASSERT_NE(pstMbuf, nullptr);
                ASSERT_EQ(MBUF_CreateControlInfo_fl(pstMbuf, MBUF_CTL_APP, 200, kModule, "t", 2),
                          MBUF_OK);
            },
        .run = [&] { return MBUF_SetTunnelKey_fl(pstMbuf, kModule, kKeyA, "caller", 3) == 0; },
        .onFailure =
            [&] {
                EXPECT_EQ(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_MPLS), nullptr);
                EXPECT_NE(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_APP), nullptr);
                krm::test::ExpectValid(pstMbuf);
                MBUF_Destroy_fl(pstMbuf, "test", 4);
            },
        .onSuccess = [&] { MBUF_Destroy_fl(pstMbuf, "test", 5); },
    });
    EXPECT_GE(result.failedRuns, 1u);
}

}  // namespace
}  // namespace krm::metatest
