// Shared pieces of the offload tests: a byte-at-a-time checksum model that
// knows nothing of the library's engine, packets of chosen node sizes, and
// TCP/IP frames with their segmentation TLV, plus the model of the segments
// a frame must be cut into.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "chain_builder.h"
#include "host_test.h"
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

// A packet holding exactly `bytes`, cut into nodes of the given sizes (the
// last takes the rest); each node picks inline, cluster or exact storage by
// size and odd head room so that data start at odd addresses.
MBUF_S *PacketOf(const Bytes &bytes, const std::vector<std::uint32_t> &sizes);

// Node-size patterns every chain checksum and segmentation test runs over.
struct Split {
    std::string name;
    std::vector<std::uint32_t> sizes;  // the last node takes what is left
};
const std::vector<Split> &Splits();

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

// The frame's bytes: link bytes, an IP header with valid checksums, a TCP
// header (options up to tcpHdrLen), payload.
Bytes BuildFrame(const FramePlan &plan);
// The destination address the TLV carries for a frame (by default the
// header's own).
Bytes HeaderDst(const FramePlan &plan, const Bytes &frame);

// Stores the segmentation TLV describing the frame on the packet; its
// usTotalLen is the frame's from the IP header on unless given.
void SetTsoTlv(MBUF_S *pstMbuf, const FramePlan &plan, const Bytes &dst,
               std::int32_t totalLen = -1);

// The segments the frame must yield, at most `capacity`, every field and
// checksum computed from scratch.
std::vector<Bytes> ModelSegments(const FramePlan &plan, const Bytes &frame, const Bytes &dst,
                                 std::uint32_t capacity);

}  // namespace krm::test
