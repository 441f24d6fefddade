#!/usr/bin/env python3
"""Writes a classic pcap of Ethernet frames for the tso test: large IPv4 and
IPv6 TCP segments with correct checksums, a small TCP segment, a UDP
datagram and a non-IP frame. Prints the expected output: for each input
frame the TCP payload lengths the segments must carry at the given MSS."""
import struct
import sys


def csum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return (~s) & 0xFFFF


def tcp(src, dst, pseudo_src, pseudo_dst, payload, v6):
    hdr = struct.pack("!HHIIBBHHH", 40000, 80, 1000, 0, 5 << 4, 0x18, 65535, 0, 0)
    seg = hdr + payload
    if v6:
        pseudo = pseudo_src + pseudo_dst + struct.pack("!IxxxB", len(seg), 6)
    else:
        pseudo = pseudo_src + pseudo_dst + struct.pack("!xBH", 6, len(seg))
    c = csum(pseudo + seg)
    return seg[:16] + struct.pack("!H", c) + seg[18:]


def ipv4(proto_payload, proto, ident):
    src, dst = bytes([192, 168, 1, 1]), bytes([192, 168, 1, 2])
    hdr = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(proto_payload), ident, 0x4000, 64, proto,
                      0, src, dst)
    return hdr[:10] + struct.pack("!H", csum(hdr)) + hdr[12:] + proto_payload


def frame(ethertype, body):
    return b"\x02\0\0\0\0\x02" + b"\x02\0\0\0\0\x01" + struct.pack("!H", ethertype) + body


def main():
    out, mss = sys.argv[1], int(sys.argv[2])
    s4, d4 = bytes([192, 168, 1, 1]), bytes([192, 168, 1, 2])
    s6, d6 = bytes(15) + b"\x01", bytes(15) + b"\x02"
    payload = bytes((i * 7) & 0xFF for i in range(5000))
    frames, expect = [], []
    frames.append(frame(0x0800, ipv4(tcp(s4, d4, s4, d4, payload, False), 6, 7)))
    expect.append([min(mss, 5000 - o) for o in range(0, 5000, mss)])
    t6 = tcp(s6, d6, s6, d6, payload[:3000], True)
    frames.append(frame(0x86DD, struct.pack("!IHBB16s16s", 0x60000000, len(t6), 6, 64, s6, d6) + t6))
    expect.append([min(mss, 3000 - o) for o in range(0, 3000, mss)])
    frames.append(frame(0x0800, ipv4(tcp(s4, d4, s4, d4, payload[:100], False), 6, 8)))
    expect.append([100])
    udp = struct.pack("!HHHH", 53, 53, 8 + 2000, 0) + payload[:2000]
    frames.append(frame(0x0800, ipv4(udp, 17, 9)))
    expect.append([])
    frames.append(frame(0x88B5, payload[:60]))
    expect.append([])
    with open(out, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i, fr in enumerate(frames):
            f.write(struct.pack("<IIII", 1700000000 + i, 0, len(fr), len(fr)))
            f.write(fr)
    print(" ".join(str(n) for e in expect for n in e))


main()
