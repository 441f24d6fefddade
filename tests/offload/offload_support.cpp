#include <algorithm>

#include "internal/bytes.h"
#include "offload_test.h"

namespace krm::test {

MBUF_S *PacketOf(const Bytes &bytes, const std::vector<std::uint32_t> &sizes) {
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

const std::vector<Split> &Splits() {
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

namespace {

void PutIpv4(std::uint8_t *ip, const FrameSpec &spec, std::uint32_t ipTotal) {
    ip[0] = static_cast<std::uint8_t>(0x40 | (spec.ipHdrLen / 4));
    StoreBe16(ip + 2, static_cast<std::uint16_t>(ipTotal));
    StoreBe16(ip + 4, kIpId0);
    StoreBe16(ip + 6, 0x4000);
    ip[8] = 64;
    ip[9] = 6;
    const std::uint8_t addrs[8] = {10, 0, 0, 1, 10, 0, 0, 2};
    std::copy(addrs, addrs + 8, ip + 12);
    for (std::uint32_t i = 20; i < spec.ipHdrLen; ++i) {
        ip[i] = 1;  // NOP options
    }
    StoreBe16(ip + 10, RefChecksum(Bytes(ip, ip + spec.ipHdrLen)));
}

void PutIpv6(std::uint8_t *ip, const FrameSpec &spec, std::uint32_t ipTotal) {
    ip[0] = 0x60;
    StoreBe16(ip + 4, static_cast<std::uint16_t>(ipTotal - 40));
    ip[6] = spec.ipHdrLen > 40 ? 0 : 6;  // a hop-by-hop header when longer
    ip[7] = 64;
    for (int i = 0; i < 16; ++i) {
        ip[8 + i] = static_cast<std::uint8_t>(i == 0 ? 0x20 : (i == 15 ? 1 : 0x10 + i));
        ip[24 + i] = static_cast<std::uint8_t>(i == 0 ? 0x20 : (i == 15 ? 2 : 0x30 + i));
    }
    if (spec.ipHdrLen > 40) {
        ip[40] = 6;                                                    // next: TCP
        ip[41] = static_cast<std::uint8_t>((spec.ipHdrLen - 48) / 8);  // extra 8-byte units
        ip[42] = 1;                                                    // PadN
        ip[43] = static_cast<std::uint8_t>(spec.ipHdrLen - 44);
    }
}

// The TCP checksum over tcp..end with the pseudo-header the segmenter uses:
// IPv4 counts its header as 20 bytes in the length, IPv6 its whole header
// chain; both take the TLV's destination.
std::uint16_t TcpChecksum(const FrameSpec &spec, const Bytes &seg, const Bytes &dst) {
    const std::uint32_t ipOff = spec.linkLen;
    const std::uint32_t tcpOff = ipOff + spec.ipHdrLen;
    std::uint64_t pseudo = 6;
    const std::uint32_t srcOff = ipOff + (spec.version == 4 ? 12 : 8);
    const std::uint32_t addrLen = spec.version == 4 ? 4 : 16;
    Bytes addrs(seg.begin() + srcOff, seg.begin() + srcOff + addrLen);
    addrs.insert(addrs.end(), dst.begin(), dst.begin() + addrLen);
    pseudo += RefSum(addrs.data(), addrs.size());
    const auto segLen = static_cast<std::uint32_t>(seg.size());
    const std::uint32_t len = spec.version == 4 ? segLen - ipOff - 20 : segLen - tcpOff;
    pseudo += (len >> 16) + (len & 0xFFFF);
    Bytes tcp(seg.begin() + tcpOff, seg.end());
    tcp[16] = tcp[17] = 0;
    return RefChecksum(tcp, pseudo);
}

}  // namespace

Bytes BuildFrame(const FrameSpec &spec) {
    const std::uint32_t ipTotal = spec.ipHdrLen + spec.tcpHdrLen + spec.payloadLen;
    Bytes f(spec.linkLen + ipTotal, 0);
    for (std::uint32_t i = 0; i < spec.linkLen; ++i) {
        f[i] = static_cast<std::uint8_t>(0xA0 + i);
    }
    std::uint8_t *ip = f.data() + spec.linkLen;
    if (spec.version == 4) {
        PutIpv4(ip, spec, ipTotal);
    } else {
        PutIpv6(ip, spec, ipTotal);
    }
    std::uint8_t *tcp = ip + spec.ipHdrLen;
    StoreBe16(tcp, 40000);
    StoreBe16(tcp + 2, 179);
    StoreBe32(tcp + 4, kSeq0);
    StoreBe32(tcp + 8, 0x01020304);
    tcp[12] = static_cast<std::uint8_t>((spec.tcpHdrLen / 4) << 4);
    tcp[13] = spec.tcpFlags;
    StoreBe16(tcp + 14, 0xFFFF);
    for (std::uint32_t i = 20; i < spec.tcpHdrLen; ++i) {
        tcp[i] = 1;  // NOP options
    }
    const Bytes pay = Payload(spec.payloadLen, 3);
    std::copy(pay.begin(), pay.end(), tcp + spec.tcpHdrLen);
    return f;
}

Bytes HeaderDst(const FrameSpec &spec, const Bytes &frame) {
    const std::uint32_t off = spec.linkLen + (spec.version == 4 ? 16 : 24);
    Bytes dst(frame.begin() + off, frame.begin() + off + (spec.version == 4 ? 4 : 16));
    dst.resize(16, 0);
    return dst;
}

void SetTsoTlv(MBUF_S *pstMbuf, const FrameSpec &spec, const Bytes &dst, std::int32_t totalLen) {
    MBUF_TSO_TLV_S tlv{};
    tlv.usType = MBUF_TSO_TLV_TYPE;
    tlv.usLen = MBUF_TSO_TLV_LEN;
    tlv.usPayloadLen = static_cast<std::uint16_t>(spec.payloadLen);
    tlv.usTcpHdrLen = static_cast<std::uint16_t>(spec.tcpHdrLen);
    tlv.usIpHdrLen = static_cast<std::uint16_t>(spec.ipHdrLen);
    tlv.usMss = spec.mss;
    tlv.usTotalLen = static_cast<std::uint16_t>(totalLen >= 0 ? static_cast<std::uint32_t>(totalLen)
                                                              : spec.ipHdrLen + spec.tcpHdrLen +
                                                                    spec.payloadLen);
    std::copy(dst.begin(), dst.begin() + 16, tlv.aucDstAddr);
    ASSERT_EQ(MBUF_SetTlvInfo(pstMbuf, kModule, reinterpret_cast<const MBUF_CTL_TLV_S *>(&tlv)), 0);
}

std::vector<Bytes> ModelSegments(const FrameSpec &spec, const Bytes &frame, const Bytes &dst,
                                 std::uint32_t capacity) {
    const std::uint32_t ipOff = spec.linkLen;
    const std::uint32_t hdr = ipOff + spec.ipHdrLen + spec.tcpHdrLen;
    std::vector<Bytes> segs;
    for (std::uint32_t i = 0, off = hdr; off < frame.size() && i < capacity; ++i, off += spec.mss) {
        const std::uint32_t n = std::min<std::uint32_t>(spec.mss, frame.size() - off);
        Bytes seg(frame.begin(), frame.begin() + hdr);
        seg.insert(seg.end(), frame.begin() + off, frame.begin() + off + n);
        std::uint8_t *ip = seg.data() + ipOff;
        std::uint8_t *tcp = ip + spec.ipHdrLen;
        StoreBe32(tcp + 4, kSeq0 + i * spec.mss);
        const auto segLen = static_cast<std::uint32_t>(seg.size());
        if (spec.version == 4) {
            StoreBe16(ip + 2, static_cast<std::uint16_t>(segLen - ipOff));
            StoreBe16(ip + 4, static_cast<std::uint16_t>(kIpId0 + i));
            StoreBe16(ip + 10, 0);
            StoreBe16(ip + 10, RefChecksum(Bytes(ip, ip + spec.ipHdrLen)));
        } else {
            StoreBe16(ip + 4, static_cast<std::uint16_t>(segLen - ipOff - spec.ipHdrLen));
        }
        StoreBe16(tcp + 16, TcpChecksum(spec, seg, dst));
        segs.push_back(seg);
    }
    return segs;
}

}  // namespace krm::test
