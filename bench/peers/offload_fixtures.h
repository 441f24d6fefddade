// Inputs shared by the offload benchmarks and their peer run, so that both
// measure the same bytes in the same shapes: a chain of three nodes split
// at odd points with data at odd addresses, and one 64 KiB IPv4 TCP packet
// with its segmentation TLV.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace krm::bench {

inline constexpr std::uint32_t kBenchModule = 0x4F42;
inline constexpr std::uint16_t kBenchMss = 1448;
inline constexpr std::uint32_t kTsoPayload = 65535 - 40;  // IPv4 total length at its limit
inline constexpr std::uint32_t kLinkLen = 14;

inline std::vector<std::uint8_t> BenchBytes(std::uint32_t len) {
    std::vector<std::uint8_t> b(len);
    for (std::uint32_t i = 0; i < len; ++i) {
        b[i] = static_cast<std::uint8_t>(i * 131u + (i >> 8));
    }
    return b;
}

// The three odd split points used on both sides: about a third each, the
// first two odd.
inline void ThreeSplits(std::uint32_t len, std::uint32_t out[3]) {
    out[0] = (len / 3) | 1u;
    out[1] = (len / 3) | 1u;
    out[2] = len - out[0] - out[1];
}

// A packet of those three nodes, each behind an odd head room; NULL when it
// did not come out as three nodes.
inline MBUF_S *ThreeNodeChain(const std::vector<std::uint8_t> &bytes) {
    std::uint32_t parts[3];
    ThreeSplits(static_cast<std::uint32_t>(bytes.size()), parts);
    MBUF_S *head = nullptr;
    std::uint32_t at = 0;
    for (std::uint32_t i = 0; i < 3; ++i) {
        MBUF_S *p = MBUF_CreateForAppPacket(2 * i + 1, parts[i], 0, kBenchModule);
        if (p == nullptr) {
            MBUF_Destroy(head);
            return nullptr;
        }
        std::memcpy(p->pucData, bytes.data() + at, parts[i]);
        at += parts[i];
        if (head == nullptr) {
            head = p;
        } else if (MBUF_Concatenate(head, p) != 0) {
            MBUF_Destroy(head);
            return nullptr;
        }
    }
    std::uint32_t nodes = 0;
    for (const MBUF_S *n = head; n != nullptr; n = n->pstNext) {
        ++nodes;
    }
    if (nodes != 3) {
        MBUF_Destroy(head);
        return nullptr;
    }
    return head;
}

// An Ethernet + IPv4 + TCP frame of 64 KiB of IP bytes, checksums absent
// (the segmenter computes them).
inline std::vector<std::uint8_t> TsoFrame() {
    std::vector<std::uint8_t> f = BenchBytes(kLinkLen + 40 + kTsoPayload);
    f[12] = 0x08;
    f[13] = 0x00;
    std::uint8_t *ip = f.data() + kLinkLen;
    std::memset(ip, 0, 40);
    ip[0] = 0x45;
    ip[2] = 0xFF;
    ip[3] = 0xFF;
    ip[8] = 64;
    ip[9] = 6;
    const std::uint8_t addrs[8] = {10, 0, 0, 1, 10, 0, 0, 2};
    std::memcpy(ip + 12, addrs, 8);
    std::uint8_t *tcp = ip + 20;
    tcp[0] = 0x9C;
    tcp[3] = 179;
    tcp[12] = 0x50;
    tcp[13] = 0x10;  // ACK only: the peer refuses to cut a PSH segment
    tcp[14] = 0xFF;
    tcp[15] = 0xFF;
    return f;
}

// The frame as a packet of three nodes with its TLV; NULL on failure.
inline MBUF_S *TsoSource(const std::vector<std::uint8_t> &frame) {
    MBUF_S *pkt = ThreeNodeChain(frame);
    if (pkt == nullptr) {
        return nullptr;
    }
    MBUF_TSO_TLV_S tlv{};
    tlv.usType = MBUF_TSO_TLV_TYPE;
    tlv.usLen = MBUF_TSO_TLV_LEN;
    tlv.usPayloadLen = static_cast<std::uint16_t>(kTsoPayload);
    tlv.usTcpHdrLen = 20;
    tlv.usIpHdrLen = 20;
    tlv.usMss = kBenchMss;
    tlv.usTotalLen = static_cast<std::uint16_t>(40 + kTsoPayload);
    std::memcpy(tlv.aucDstAddr, frame.data() + kLinkLen + 16, 4);
    if (MBUF_SetTlvInfo(pkt, kBenchModule, reinterpret_cast<const MBUF_CTL_TLV_S *>(&tlv)) != 0) {
        MBUF_Destroy(pkt);
        return nullptr;
    }
    return pkt;
}

}  // namespace krm::bench
