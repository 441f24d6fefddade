// Shared pieces of the offload tests: a byte-at-a-time checksum model that
// knows nothing of the library's engine, packets of chosen node sizes, and
// TCP/IP frames with their segmentation TLV, plus the model of the segments
// a frame must be cut into.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "chain_builder.h"
#include "host_test.h"
#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test {

using Bytes = std::vector<std::uint8_t>;

// One's-complement sum of big-endian words, one byte at a time, folded.
inline std::uint32_t RefSum(const std::uint8_t *p, std::size_t n, std::uint64_t start = 0) {
    std::uint64_t sum = start;
    for (std::size_t i = 0; i < n; ++i) {
        sum += (i % 2 == 0) ? std::uint64_t{p[i]} << 8 : p[i];
    }
    while (sum >> 16) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint32_t>(sum);
}
inline std::uint16_t RefChecksum(const Bytes &b, std::uint64_t start = 0) {
    return static_cast<std::uint16_t>(~RefSum(b.data(), b.size(), start) & 0xFFFF);
}

struct Split {
    std::string name;
    std::vector<std::uint32_t> sizes;  // the last node takes what is left
};

// A TCP/IP frame to be segmented.
struct FramePlan {
    int version = 4;
    std::uint32_t linkLen = 14;  // bytes before the IP header
    std::uint32_t ipHdrLen = 20;
    std::uint32_t tcpHdrLen = 20;
    std::uint32_t payloadLen = 0;
    std::uint16_t mss = 1448;
    std::uint8_t tcpFlags = 0x18;  // ACK|PSH
};

inline constexpr std::uint32_t kSeq0 = 0xFFFFF000u;  // wraps within a large packet
inline constexpr std::uint16_t kIpId0 = 0xFFF0;      // so does the identification
inline constexpr std::uint32_t kModule = 0x4F46;

// A packet holding exactly `bytes`, cut into nodes of the given sizes (the
// last takes the rest); each node picks inline, cluster or exact storage by
// size and odd head room so that data start at odd addresses.
inline MBUF_S *PacketOf(const Bytes &bytes, const std::vector<std::uint32_t> &sizes) {
    std::vector<NodeRow> rows;
    std::uint32_t used = 0;
    const auto total = static_cast<std::uint32_t>(bytes.size());
    for (std::size_t i = 0; i <= sizes.size(); ++i) {
        const std::uint32_t len =
            i < sizes.size() ? std::min(sizes[i], total - used) : total - used;
        const std::uint32_t room = (i % 2 == 0) ? 3 : 0;  // odd data addresses
        const std::uint32_t inlineCap = i == 0 ? MBUF_PKTHDR_INLINE_LEN : MBUF_PLAIN_INLINE_LEN;
        if (len + room <= inlineCap) {
            rows.push_back(InlineNode(len, room));
        } else if (len + room <= MBUF_CLUSTER_SIZE) {
            rows.push_back(ClusterNode(len, room));
        } else {
            rows.push_back(ExactNode(len + room, len, room));
        }
        used += len;
    }
    MBUF_S *m = BuildChain(rows, 7);
    if (m != nullptr && total != 0) {
        EXPECT_EQ(MBUF_FillDataForApp(m, 0, static_cast<std::int32_t>(total), bytes.data()), 0u);
    }
    return m;
}

// Node-size patterns every chain checksum and segmentation test runs over.
inline const std::vector<Split> &Splits() {
    static const std::vector<Split> splits = {
        {"Flat", {}},
        {"OneByteThenRest", {1}},
        {"OddSplits", {13, 0, 101, 1}},
        {"EmptyHeadNode", {0, 333, 0}},
        {"HeaderSplit", {20, 7, 999, 1001}},
        {"ManySmall", {5, 3, 1, 0, 17, 64, 255, 3, 700, 1}},
    };
    return splits;
}

namespace detail {

inline void PutIpv4(std::uint8_t *ip, const FramePlan &plan, std::uint32_t ipTotal) {
    ip[0] = static_cast<std::uint8_t>(0x40 | (plan.ipHdrLen / 4));
    StoreBe16(ip + 2, static_cast<std::uint16_t>(ipTotal));
    StoreBe16(ip + 4, kIpId0);
    StoreBe16(ip + 6, 0x4000);
    ip[8] = 64;
    ip[9] = 6;
    const std::uint8_t addrs[8] = {10, 0, 0, 1, 10, 0, 0, 2};
    std::copy(addrs, addrs + 8, ip + 12);
    for (std::uint32_t i = 20; i < plan.ipHdrLen; ++i) {
        ip[i] = 1;  // NOP options
    }
    StoreBe16(ip + 10, RefChecksum(Bytes(ip, ip + plan.ipHdrLen)));
}

inline void PutIpv6(std::uint8_t *ip, const FramePlan &plan, std::uint32_t ipTotal) {
    ip[0] = 0x60;
    StoreBe16(ip + 4, static_cast<std::uint16_t>(ipTotal - 40));
    ip[6] = plan.ipHdrLen > 40 ? 0 : 6;  // a hop-by-hop header when longer
    ip[7] = 64;
    for (int i = 0; i < 16; ++i) {
        ip[8 + i] = static_cast<std::uint8_t>(i == 0 ? 0x20 : (i == 15 ? 1 : 0x10 + i));
        ip[24 + i] = static_cast<std::uint8_t>(i == 0 ? 0x20 : (i == 15 ? 2 : 0x30 + i));
    }
    if (plan.ipHdrLen > 40) {
        ip[40] = 6;                                                    // next: TCP
        ip[41] = static_cast<std::uint8_t>((plan.ipHdrLen - 48) / 8);  // extra 8-byte units
        ip[42] = 1;                                                    // PadN
        ip[43] = static_cast<std::uint8_t>(plan.ipHdrLen - 44);
    }
}

// The TCP checksum over tcp..end with the pseudo-header the segmenter uses:
// IPv4 counts its header as 20 bytes in the length, IPv6 its whole header
// chain; both take the TLV's destination.
inline std::uint16_t TcpChecksum(const FramePlan &plan, const Bytes &seg, const Bytes &dst) {
    const std::uint32_t ipOff = plan.linkLen;
    const std::uint32_t tcpOff = ipOff + plan.ipHdrLen;
    std::uint64_t pseudo = 6;
    const std::uint32_t srcOff = ipOff + (plan.version == 4 ? 12 : 8);
    const std::uint32_t addrLen = plan.version == 4 ? 4 : 16;
    Bytes addrs(seg.begin() + srcOff, seg.begin() + srcOff + addrLen);
    addrs.insert(addrs.end(), dst.begin(), dst.begin() + addrLen);
    pseudo += RefSum(addrs.data(), addrs.size());
    const auto segLen = static_cast<std::uint32_t>(seg.size());
    const std::uint32_t len = plan.version == 4 ? segLen - ipOff - 20 : segLen - tcpOff;
    pseudo += (len >> 16) + (len & 0xFFFF);
    Bytes tcp(seg.begin() + tcpOff, seg.end());
    tcp[16] = tcp[17] = 0;
    return RefChecksum(tcp, pseudo);
}

}  // namespace detail

// The frame's bytes: link bytes, an IP header with valid checksums, a TCP
// header (options up to tcpHdrLen), payload.
inline Bytes BuildFrame(const FramePlan &plan) {
    const std::uint32_t ipTotal = plan.ipHdrLen + plan.tcpHdrLen + plan.payloadLen;
    Bytes f(plan.linkLen + ipTotal, 0);
    for (std::uint32_t i = 0; i < plan.linkLen; ++i) {
        f[i] = static_cast<std::uint8_t>(0xA0 + i);
    }
    std::uint8_t *ip = f.data() + plan.linkLen;
    if (plan.version == 4) {
        detail::PutIpv4(ip, plan, ipTotal);
    } else {
        detail::PutIpv6(ip, plan, ipTotal);
    }
    std::uint8_t *tcp = ip + plan.ipHdrLen;
    StoreBe16(tcp, 40000);
    StoreBe16(tcp + 2, 179);
    StoreBe32(tcp + 4, kSeq0);
    StoreBe32(tcp + 8, 0x01020304);
    tcp[12] = static_cast<std::uint8_t>((plan.tcpHdrLen / 4) << 4);
    tcp[13] = plan.tcpFlags;
    StoreBe16(tcp + 14, 0xFFFF);
    for (std::uint32_t i = 20; i < plan.tcpHdrLen; ++i) {
        tcp[i] = 1;  // NOP options
    }
    const Bytes pay = Payload(plan.payloadLen, 3);
    std::copy(pay.begin(), pay.end(), tcp + plan.tcpHdrLen);
    return f;
}

// The destination address the TLV carries for a frame (by default the
// header's own).
inline Bytes HeaderDst(const FramePlan &plan, const Bytes &frame) {
    const std::uint32_t off = plan.linkLen + (plan.version == 4 ? 16 : 24);
    Bytes dst(frame.begin() + off, frame.begin() + off + (plan.version == 4 ? 4 : 16));
    dst.resize(16, 0);
    return dst;
}

// Stores the segmentation TLV describing the frame on the packet; its
// usTotalLen is the frame's from the IP header on unless given.
inline void SetTsoTlv(MBUF_S *pstMbuf, const FramePlan &plan, const Bytes &dst,
                      std::int32_t totalLen = -1) {
    MBUF_TSO_TLV_S tlv{};
    tlv.usType = MBUF_TSO_TLV_TYPE;
    tlv.usLen = MBUF_TSO_TLV_LEN;
    tlv.usPayloadLen = static_cast<std::uint16_t>(plan.payloadLen);
    tlv.usTcpHdrLen = static_cast<std::uint16_t>(plan.tcpHdrLen);
    tlv.usIpHdrLen = static_cast<std::uint16_t>(plan.ipHdrLen);
    tlv.usMss = plan.mss;
    tlv.usTotalLen = static_cast<std::uint16_t>(totalLen >= 0 ? static_cast<std::uint32_t>(totalLen)
                                                              : plan.ipHdrLen + plan.tcpHdrLen +
                                                                    plan.payloadLen);
    std::copy(dst.begin(), dst.begin() + 16, tlv.aucDstAddr);
    ASSERT_EQ(MBUF_SetTlvInfo(pstMbuf, kModule, reinterpret_cast<const MBUF_CTL_TLV_S *>(&tlv)), 0);
}

// The segments the frame must yield, at most `capacity`, every field and
// checksum computed from scratch.
inline std::vector<Bytes> ModelSegments(const FramePlan &plan, const Bytes &frame, const Bytes &dst,
                                        std::uint32_t capacity) {
    const std::uint32_t ipOff = plan.linkLen;
    const std::uint32_t hdr = ipOff + plan.ipHdrLen + plan.tcpHdrLen;
    std::vector<Bytes> segs;
    for (std::uint32_t i = 0, off = hdr; off < frame.size() && i < capacity; ++i, off += plan.mss) {
        const std::uint32_t n = std::min<std::uint32_t>(plan.mss, frame.size() - off);
        Bytes seg(frame.begin(), frame.begin() + hdr);
        seg.insert(seg.end(), frame.begin() + off, frame.begin() + off + n);
        std::uint8_t *ip = seg.data() + ipOff;
        std::uint8_t *tcp = ip + plan.ipHdrLen;
        StoreBe32(tcp + 4, kSeq0 + i * plan.mss);
        const auto segLen = static_cast<std::uint32_t>(seg.size());
        if (plan.version == 4) {
            StoreBe16(ip + 2, static_cast<std::uint16_t>(segLen - ipOff));
            StoreBe16(ip + 4, static_cast<std::uint16_t>(kIpId0 + i));
            StoreBe16(ip + 10, 0);
            StoreBe16(ip + 10, RefChecksum(Bytes(ip, ip + plan.ipHdrLen)));
        } else {
            StoreBe16(ip + 4, static_cast<std::uint16_t>(segLen - ipOff - plan.ipHdrLen));
        }
        StoreBe16(tcp + 16, detail::TcpChecksum(plan, seg, dst));
        segs.push_back(seg);
    }
    return segs;
}

}  // namespace krm::test
