// The packets behind the golden files. Each is described field by field:
// every record byte belongs to a field of the width the receiver's
// translator converts it with, so the same description says what a reader
// of either byte order must rebuild. The generator writes these packets as
// TLV streams and serial images on each byte order; the tests read the
// files of both orders and compare the result with this description.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace krm::golden {

using Bytes = std::vector<std::uint8_t>;

struct Field {
    std::uint16_t off;
    std::uint8_t width;  // 1, 2 or 4
    std::uint32_t value;
};

struct RecordPlan {
    std::uint32_t type;
    std::uint32_t len;
    std::vector<Field> fields;
};

// The seven packet-header words in serial-image order.
enum HdrWord { kPktRsv, kTotalLen, kFlag3, kPktTagInfo, kPktRsv2, kFlag2, kPktRsv3, kHdrWordNum };

struct PacketPlan {
    const char *name;
    std::uint32_t dataLen;
    std::uint32_t seed;
    std::uint32_t words[kHdrWordNum];  // kTotalLen is the data length
    std::vector<Field> comm;           // the common record; empty: as initialised
    std::vector<RecordPlan> records;
};

inline std::uint8_t DataByte(std::uint32_t i, std::uint32_t seed) {
    return static_cast<std::uint8_t>((i * 131u + seed * 17u + (i >> 8)) & 0xFF);
}

inline Bytes Data(const PacketPlan &plan) {
    Bytes data(plan.dataLen);
    for (std::uint32_t i = 0; i < plan.dataLen; ++i) {
        data[i] = DataByte(i, plan.seed);
    }
    return data;
}

// A record's bytes in this host's order.
inline Bytes Image(std::uint32_t len, const std::vector<Field> &fields) {
    Bytes out(len, 0);
    for (const Field &f : fields) {
        if (f.width == 1) {
            out[f.off] = static_cast<std::uint8_t>(f.value);
        } else if (f.width == 2) {
            const auto v = static_cast<std::uint16_t>(f.value);
            std::memcpy(out.data() + f.off, &v, 2);
        } else {
            std::memcpy(out.data() + f.off, &f.value, 4);
        }
    }
    return out;
}

// ---- field builders ---------------------------------------------------------

using Fields = std::vector<Field>;
inline Fields Join(std::initializer_list<Fields> parts) {
    Fields out;
    for (const Fields &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}
// Bytes [from, to) each of its own value.
inline Fields ByteRun(std::uint16_t from, std::uint16_t to, std::uint32_t seed) {
    Fields f;
    for (std::uint16_t o = from; o < to; ++o) {
        f.push_back({o, 1, (seed + o * 5u) & 0xFF});
    }
    return f;
}
// 32-bit words at from, from + 4, ... below to.
inline Fields WordRun(std::uint16_t from, std::uint16_t to, std::uint32_t seed) {
    Fields f;
    for (std::uint16_t o = from; o < to; o = static_cast<std::uint16_t>(o + 4)) {
        f.push_back({o, 4, seed * 0x01000193u + o * 0x00010203u + 0x11000000u});
    }
    return f;
}

// The product protocol type at 80: a receiver re-arranges this word's bytes
// unless it is 2 or has a top byte of 0xFF.
inline Fields CommFields(std::uint32_t seed) {
    return Join({WordRun(0, 40, seed),
                 {{40, 2, 0x0800 + seed}, {42, 2, 2}},
                 WordRun(44, 64, seed + 1),
                 {{64, 2, 6}},
                 WordRun(68, 80, seed + 2),
                 {{80, 4, 2}}});
}

inline RecordPlan IpRecord() {
    return {MBUF_CTL_IP, 20, Join({ByteRun(0, 14, 0x0A), {{14, 2, 0x1234}, {16, 4, 0xC0A80001u}}})};
}
inline RecordPlan MplsRecord() {
    return {MBUF_CTL_MPLS, 108,
            Join({WordRun(0, 92, 3),
                  ByteRun(92, 94, 0x30),
                  {{94, 2, 0x8847}, {96, 4, 0x00012345u}},
                  ByteRun(100, 104, 0x31),
                  {{104, 4, 0xFEDCBA98u}}})};
}
inline RecordPlan Ip6Record() {
    return {MBUF_CTL_IP6, 52, Join({ByteRun(0, 38, 0x60), {{38, 2, 0x86DD}}, WordRun(40, 52, 8)})};
}
inline RecordPlan PrevHopRecord() {
    return {MBUF_CTL_PREVHOP, 4, {{0, 4, 0x0A000001u}}};
}
inline RecordPlan TimeStampRecord() {
    return {MBUF_CTL_TIMESTAMP, 40, WordRun(0, 40, 11)};
}
inline RecordPlan VlanIdMacRecord() {
    return {MBUF_CTL_VLANIDMAC, 12,
            Join({{{0, 2, 100}}, ByteRun(2, 8, 0xA0), {{8, 4, 0x00BADBADu}}})};
}
inline RecordPlan L2VpnRecord() {
    return {MBUF_CTL_L2VPN, 24,
            Join({ByteRun(0, 2, 0x70),
                  {{2, 2, 0x4321}, {4, 4, 0x01010101u}, {8, 4, 0x02020303u}},
                  ByteRun(12, 16, 0x71),
                  {{16, 4, 0x7FFF0001u}},
                  ByteRun(20, 24, 0x72)})};
}

// A TLV record (1, 20 or 22): head {reserved 0, list length}, then the
// sub-TLVs; each sub-TLV is {type, length, value fields relative to its
// value}.
struct SubTlv {
    std::uint16_t type;
    std::uint16_t len;
    Fields value;
};
inline RecordPlan TlvRecord(std::uint32_t type, const std::vector<SubTlv> &subs) {
    Fields f;
    std::uint16_t pos = 4;
    for (const SubTlv &s : subs) {
        f.push_back({pos, 2, s.type});
        f.push_back({static_cast<std::uint16_t>(pos + 2), 2, s.len});
        for (Field v : s.value) {
            v.off = static_cast<std::uint16_t>(v.off + pos + 4);
            f.push_back(v);
        }
        pos = static_cast<std::uint16_t>(pos + 4 + s.len);
    }
    f.push_back({0, 2, 0});
    f.push_back({2, 2, pos - 4u});
    return {type, pos, f};
}
inline RecordPlan LinkRecord() {
    return TlvRecord(MBUF_CTL_LINK, {{10, 4, {{0, 4, 0x00000007u}}},  // VLAN priority
                                     {16, 2, {{0, 2, 0x88A8}}},       // TPID
                                     {7, 3, ByteRun(0, 3, 0xAA)}});   // SNAP: head only
}
inline RecordPlan PktSendRecord() {
    return TlvRecord(MBUF_CTL_PKTSEND, {{0, 4, {{0, 4, 0x0000BEEFu}}}, {3, 2, {{0, 2, 0x0102}}}});
}
inline RecordPlan PacketRecord() {
    return TlvRecord(MBUF_CTL_PACKET, {{5, 6, ByteRun(0, 6, 0x50)}, {9, 1, ByteRun(0, 1, 0x90)}});
}

// Record 21 with 6 entries, two of them stamped; only the fields the
// receiver converts carry values (the last-tick words stay zero).
inline RecordPlan StackDebugRecord() {
    Fields f = {{0, 2, 0},  {2, 2, 24},   {4, 1, 6},    {5, 1, 1},
                {6, 2, 48}, {8, 1, 0x81}, {9, 1, 0x02}, {10, 2, 0x0304}};
    f = Join({f, WordRun(12, 24, 21), {{24, 2, 0x0506}, {26, 2, 0x0708}}});
    for (std::uint16_t e = 0; e < 2; ++e) {
        // Component and microseconds; the first stamp (year, month .. week,
        // milliseconds) and the last; the tick delta and the last tick.
        const auto at = [e](std::uint32_t off) { return std::uint16_t(28 + 48 * e + off); };
        f = Join({f,
                  {{at(0), 4, 0x00650000u + e}, {at(4), 4, 1500u * e}, {at(8), 2, 2024}},
                  ByteRun(at(10), at(16), e),
                  {{at(16), 4, 123u + e}, {at(20), 2, 2024}},
                  ByteRun(at(22), at(28), 9u + e),
                  {{at(28), 4, 456u + e}, {at(32), 4, 0x10000u * (e + 1)}, {at(36), 4, e}}});
    }
    return {MBUF_CTL_STACKDEBUG, 6 * 48 + 28, f};
}

inline std::vector<PacketPlan> Packets() {
    return {
        {"data_only", 100, 1, {0, 100, 0, 0, 0, 0, 0}, {}, {}},
        {"fixed_records",
         300,
         2,
         {0x0A0B0C0Du, 300, 0x00000010u, 0x11223344u, 0x55667788u, 0x01020304u, 0x99AABBCCu},
         CommFields(2),
         {IpRecord(), PrevHopRecord(), TimeStampRecord(), L2VpnRecord()}},
        {"tlv_records",
         64,
         3,
         {0, 64, 0, 0, 0, 0x80000001u, 0},
         CommFields(3),
         {LinkRecord(), PktSendRecord(), PacketRecord()}},
        {"stack_debug",
         600,
         4,
         {0, 600, 0, 0, 0, 0x00000100u, 0},
         CommFields(4),
         {StackDebugRecord()}},
        {"grown_block",
         2500,
         5,
         {1, 2500, 2, 3, 4, 5, 6},
         CommFields(5),
         {IpRecord(), MplsRecord(), Ip6Record(), PrevHopRecord(), TimeStampRecord(),
          VlanIdMacRecord(), L2VpnRecord()}},
    };
}

// The packet a description stands for, built with the public interface.
// NULL when memory fails.
inline MBUF_S *Build(const PacketPlan &plan, std::uint32_t ulModule) {
    const Bytes data = Data(plan);
    MBUF_S *pkt = MBUF_CreateByCopyBuffer(0, plan.dataLen, data.data(), 0, ulModule);
    if (pkt == nullptr) {
        return nullptr;
    }
    for (const RecordPlan &rec : plan.records) {
        if (MBUF_CreateControlInfo(pkt, rec.type, rec.len, ulModule) != MBUF_OK) {
            MBUF_Destroy(pkt);
            return nullptr;
        }
        const Bytes img = Image(rec.len, rec.fields);
        std::memcpy(MBUF_GetControlInfo(pkt, rec.type), img.data(), img.size());
    }
    if (!plan.comm.empty()) {
        const Bytes comm = Image(MBUF_CTL_COMM_LEN, plan.comm);
        std::memcpy(MBUF_GetControlInfo(pkt, MBUF_CTL_COMM), comm.data(), comm.size());
    }
    pkt->ulPktRsv = plan.words[kPktRsv];
    pkt->ulFlag3 = plan.words[kFlag3];
    pkt->ulPktTagInfo = plan.words[kPktTagInfo];
    pkt->ulPktRsv2 = plan.words[kPktRsv2];
    pkt->ulFlag2 = plan.words[kFlag2];
    pkt->ulPktRsv3 = plan.words[kPktRsv3];
    return pkt;
}

// File names: <packet>.<order>.tlv and <packet>.<order>.img, the order
// being the writer's ("le" or "be").
inline const char *HostOrderName() {
    return MBUF_HOST_BIG_ENDIAN ? "be" : "le";
}
inline std::string FileName(const PacketPlan &plan, const char *order, const char *kind) {
    return std::string(plan.name) + "." + order + "." + kind;
}

}  // namespace krm::golden
