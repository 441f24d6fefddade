// The packets behind the golden files. Each is described field by field:
// every record byte belongs to a field of the width the receiver's
// translator converts it with, so the same description says what a reader
// of either byte order must rebuild. The generator writes these packets as
// TLV streams and serial images on each byte order; the tests read the
// files of both orders and compare the result with this description.
#pragma once

#include <cstdint>
#include <cstring>
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

inline void Add(std::vector<Field> &f, std::uint8_t width, std::uint16_t off, std::uint32_t v) {
    f.push_back(Field{off, width, v});
}
// Bytes [from, to) each of its own value.
inline void AddBytes(std::vector<Field> &f, std::uint16_t from, std::uint16_t to,
                     std::uint32_t seed) {
    for (std::uint16_t o = from; o < to; ++o) {
        Add(f, 1, o, (seed + o * 5u) & 0xFF);
    }
}
// 32-bit words at from, from + 4, ... below to.
inline void AddWords(std::vector<Field> &f, std::uint16_t from, std::uint16_t to,
                     std::uint32_t seed) {
    for (std::uint16_t o = from; o < to; o = static_cast<std::uint16_t>(o + 4)) {
        Add(f, 4, o, seed * 0x01000193u + o * 0x00010203u + 0x11000000u);
    }
}

inline std::vector<Field> CommFields(std::uint32_t seed) {
    std::vector<Field> f;
    AddWords(f, 0, 40, seed);
    Add(f, 2, 40, 0x0800 + seed);
    Add(f, 2, 42, 2);
    AddWords(f, 44, 64, seed + 1);
    Add(f, 2, 64, 6);
    AddWords(f, 68, 80, seed + 2);
    // The product protocol type: a receiver re-arranges this word's bytes
    // unless it is 2 or has a top byte of 0xFF.
    Add(f, 4, 80, 2);
    return f;
}

inline RecordPlan IpRecord() {
    std::vector<Field> f;
    AddBytes(f, 0, 14, 0x0A);
    Add(f, 2, 14, 0x1234);
    Add(f, 4, 16, 0xC0A80001u);
    return {MBUF_CTL_IP, 20, f};
}
inline RecordPlan MplsRecord() {
    std::vector<Field> f;
    AddWords(f, 0, 92, 3);
    AddBytes(f, 92, 94, 0x30);
    Add(f, 2, 94, 0x8847);
    Add(f, 4, 96, 0x00012345u);
    AddBytes(f, 100, 104, 0x31);
    Add(f, 4, 104, 0xFEDCBA98u);
    return {MBUF_CTL_MPLS, 108, f};
}
inline RecordPlan Ip6Record() {
    std::vector<Field> f;
    AddBytes(f, 0, 38, 0x60);
    Add(f, 2, 38, 0x86DD);
    AddWords(f, 40, 52, 8);
    return {MBUF_CTL_IP6, 52, f};
}
inline RecordPlan PrevHopRecord() {
    return {MBUF_CTL_PREVHOP, 4, {{0, 4, 0x0A000001u}}};
}
inline RecordPlan TimeStampRecord() {
    std::vector<Field> f;
    AddWords(f, 0, 40, 11);
    return {MBUF_CTL_TIMESTAMP, 40, f};
}
inline RecordPlan VlanIdMacRecord() {
    std::vector<Field> f;
    Add(f, 2, 0, 100);
    AddBytes(f, 2, 8, 0xA0);
    Add(f, 4, 8, 0x00BADBADu);
    return {MBUF_CTL_VLANIDMAC, 12, f};
}
inline RecordPlan L2VpnRecord() {
    std::vector<Field> f;
    AddBytes(f, 0, 2, 0x70);
    Add(f, 2, 2, 0x4321);
    Add(f, 4, 4, 0x01010101u);
    Add(f, 4, 8, 0x02020303u);
    AddBytes(f, 12, 16, 0x71);
    Add(f, 4, 16, 0x7FFF0001u);
    AddBytes(f, 20, 24, 0x72);
    return {MBUF_CTL_L2VPN, 24, f};
}

// A TLV record (1, 20 or 22): head {reserved 0, list length}, then the
// sub-TLVs; each sub-TLV is {type, length, value fields relative to its
// value}.
struct SubTlv {
    std::uint16_t type;
    std::uint16_t len;
    std::vector<Field> value;
};
inline RecordPlan TlvRecord(std::uint32_t type, const std::vector<SubTlv> &subs) {
    std::vector<Field> f;
    std::uint16_t pos = 4;
    for (const SubTlv &s : subs) {
        Add(f, 2, pos, s.type);
        Add(f, 2, static_cast<std::uint16_t>(pos + 2), s.len);
        for (Field v : s.value) {
            v.off = static_cast<std::uint16_t>(v.off + pos + 4);
            f.push_back(v);
        }
        pos = static_cast<std::uint16_t>(pos + 4 + s.len);
    }
    Add(f, 2, 0, 0);
    Add(f, 2, 2, pos - 4u);
    return {type, pos, f};
}
inline std::vector<Field> ValueBytes(std::uint16_t len, std::uint32_t seed) {
    std::vector<Field> f;
    AddBytes(f, 0, len, seed);
    return f;
}
inline RecordPlan LinkRecord() {
    return TlvRecord(MBUF_CTL_LINK, {{10, 4, {{0, 4, 0x00000007u}}},  // VLAN priority
                                     {16, 2, {{0, 2, 0x88A8}}},       // TPID
                                     {7, 3, ValueBytes(3, 0xAA)}});   // SNAP: head only
}
inline RecordPlan PktSendRecord() {
    return TlvRecord(MBUF_CTL_PKTSEND, {{0, 4, {{0, 4, 0x0000BEEFu}}}, {3, 2, {{0, 2, 0x0102}}}});
}
inline RecordPlan PacketRecord() {
    return TlvRecord(MBUF_CTL_PACKET, {{5, 6, ValueBytes(6, 0x50)}, {9, 1, ValueBytes(1, 0x90)}});
}

// Record 21 with 6 entries, two of them stamped; only the fields the
// receiver converts carry values (the last-tick words stay zero).
inline RecordPlan StackDebugRecord() {
    std::vector<Field> f;
    Add(f, 2, 0, 0);
    Add(f, 2, 2, 24);
    Add(f, 1, 4, 6);
    Add(f, 1, 5, 1);
    Add(f, 2, 6, 48);
    Add(f, 1, 8, 0x81);
    Add(f, 1, 9, 0x02);
    Add(f, 2, 10, 0x0304);
    AddWords(f, 12, 24, 21);
    Add(f, 2, 24, 0x0506);
    Add(f, 2, 26, 0x0708);
    for (std::uint16_t e = 0; e < 2; ++e) {
        const auto base = static_cast<std::uint16_t>(28 + 48 * e);
        Add(f, 4, base, 0x00650000u + e);      // component
        Add(f, 4, base + 4, 1500u * e);        // microseconds
        Add(f, 2, base + 8, 2024);             // first stamp: year
        AddBytes(f, base + 10, base + 16, e);  // month .. week
        Add(f, 4, base + 16, 123u + e);        // milliseconds
        Add(f, 2, base + 20, 2024);            // last stamp
        AddBytes(f, base + 22, base + 28, 9 + e);
        Add(f, 4, base + 28, 456u + e);
        Add(f, 4, base + 32, 0x10000u * (e + 1));  // tick delta
        Add(f, 4, base + 36, e);
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
