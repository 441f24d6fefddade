#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/ from the golden files.

Usage: fuzz/make_seeds.py [DIR]   (DIR: packages saved by `krm-mbuf road
--save-packages DIR`, added to the package seeds). Run from the project root.
"""
import glob
import os
import struct
import sys

GOLD = "tests/golden"
TOOL = "tests/tool/golden"
OUT = "fuzz/corpus"
FRAME_PIPE = 7  # the pipe the frame harness listens on


def read(path):
    with open(path, "rb") as f:
        return f.read()


def put(harness, name, data):
    os.makedirs(os.path.join(OUT, harness), exist_ok=True)
    with open(os.path.join(OUT, harness, name), "wb") as f:
        f.write(data)


def split_package(data):
    """The packets of a saved package, each a list of piece byte strings."""
    at, packets = 12, []
    for _ in range(struct.unpack(">I", data[8:12])[0]):
        n, at, pieces = struct.unpack(">I", data[at:at + 4])[0], at + 4, []
        for _ in range(n):
            ln = struct.unpack(">I", data[at:at + 4])[0]
            pieces.append(data[at + 4:at + 4 + ln])
            at += 4 + ln
        packets.append(pieces)
    return packets


def frame(packets):
    """A host pipe's socket frame carrying the package."""
    pieces = [p for pkt in packets for p in pkt]
    body = b"".join(struct.pack(">I", len(pkt)) for pkt in packets)
    for p in pieces:
        size = 936 if len(p) <= 936 else 1960 if len(p) <= 1960 else len(p)
        body += struct.pack(">5I", size, len(p), 0, 0, 0x650000)
    body += b"".join(pieces)
    head = struct.pack(">8I", 0x4B524D46, 1, 32 + len(body), FRAME_PIPE, len(packets),
                       len(pieces), 0, 0)
    return head + body


# Trace conditions: three service words, five offsets, masks and values.
CONDITIONS = [
    [0] * 15,
    [0, 4, 8, 0, 0] + [0xFF000000, 0, 0, 0, 0] + [0x11000000, 0, 0, 0, 0],
    [12, 2, 0, 0, 0] + [0xFFFF, 0xFFFFFFFF, 0, 0, 0] + [0x0800, 0, 0, 0, 0],
    [370, 900, 40, 0, 0] + [0xFFFFFFFF] * 3 + [0, 0] + [1, 2, 3, 0, 0],
]


def main():
    imgs = sorted(glob.glob(f"{GOLD}/*.img"))
    for path in sorted(glob.glob(f"{GOLD}/*.tlv")):
        put("tlv", os.path.basename(path), read(path))
        put("inspect", os.path.basename(path), read(path))
    for path in imgs:
        name, data = os.path.basename(path), read(path)
        put("image", name, data)
        put("inspect", name, data)
        put("message", name + ".msg", struct.pack(">H", len(data) + 8) + bytes(6) + data)
        order = ">I" if ".be." in name else "<I"
        dlen = struct.unpack(order, data[:4])[0]
        put("tag", name + ".blk", data[4 + dlen:len(data) - 28])
    for path in sorted(glob.glob(f"{TOOL}/*.msg")):
        put("message", os.path.basename(path), read(path))
        put("inspect", os.path.basename(path), read(path))
    pkgs = sorted(glob.glob(f"{TOOL}/*.pkg"))
    if len(sys.argv) > 1:
        pkgs += sorted(glob.glob(os.path.join(sys.argv[1], "*.pkg")))
    for i, path in enumerate(pkgs):
        name, data = f"{i:02d}-{os.path.basename(path)}", read(path)
        for harness in ("pipe", "vector", "inspect"):
            put(harness, name, data)
        put("frame", name + ".frame", frame(split_package(data)))
        words = CONDITIONS[i % len(CONDITIONS)]
        put("trace", name + ".trace", struct.pack("=18I", 0, 0, 0, *words) + data)


if __name__ == "__main__":
    main()
