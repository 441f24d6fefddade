// Shared helpers of the pipe tests: writer pieces whose bytes say where they
// came from, the package a read hands out copied into plain vectors, and the
// model of what a reader must find for what a writer gave.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "host_test.h"
#include "krm_host/pipe.h"
#include "platform_util.h"

namespace krm::test::platform {

inline constexpr std::uint32_t kPipe = 7;

// The byte at offset i of a piece made with seed s.
inline unsigned char PatternByte(std::uint32_t seed, std::uint32_t i) {
    return static_cast<unsigned char>(seed * 31u + i * 7u + 1u);
}

// A writer's piece: a live pipe buffer of bufSize bytes (or, with live
// false, plain memory of len bytes) filled with the pattern, described with
// length len.
struct WriterPiece {
    WriterPiece(std::uint32_t size, std::uint32_t length, bool isLive = true)
        : bufSize(size), len(length), live(isLive) {}

    std::uint32_t bufSize;
    std::uint32_t len;
    bool live;
    std::uint32_t seed = 0;
    void *addr = nullptr;
    std::vector<unsigned char> plain;  // backing memory of a piece not live

    void Make() {
        if (live) {
            addr = AllocDbuf(bufSize);
        } else {
            plain.assign(len, 0);
            addr = plain.data();
        }
        auto *b = static_cast<unsigned char *>(addr);
        for (std::uint32_t i = 0; i < (live ? bufSize : len); ++i) {
            b[i] = PatternByte(seed, i);
        }
    }

    // What a reader must find: a buffer of the writer's buffer size holding
    // the first len bytes, zero behind them.
    std::vector<unsigned char> Expected() const {
        std::vector<unsigned char> out(live ? bufSize : len, 0);
        for (std::uint32_t i = 0; i < len; ++i) {
            out[i] = PatternByte(seed, i);
        }
        return out;
    }

    bool Intact() const {
        if (!live) {
            return true;
        }
        const auto *b = static_cast<const unsigned char *>(addr);
        for (std::uint32_t i = 0; i < bufSize; ++i) {
            if (b[i] != PatternByte(seed, i)) {
                return false;
            }
        }
        return KRM_DbufLengthGET(addr) == bufSize;
    }
};

// A packet of writer pieces with the vector a write takes.
struct WriterPacket {
    std::vector<WriterPiece> pieces;
    std::vector<MBUF_IOVEC_S> iov;

    void Make(std::uint32_t seed) {
        iov.clear();
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            pieces[i].seed = seed + static_cast<std::uint32_t>(i);
            pieces[i].Make();
            iov.push_back(MBUF_IOVEC_S{pieces[i].addr, pieces[i].len, 0});
        }
    }

    void Free() {
        for (WriterPiece &p : pieces) {
            if (p.live && KRM_DbufLengthGET(p.addr) != 0) {
                (void)FreeDbuf(p.addr);
            }
        }
    }
};

// A piece as a reader received it.
struct GotPiece {
    void *addr;
    std::uint32_t size;
    std::vector<unsigned char> bytes;
};
using GotPacket = std::vector<GotPiece>;

struct GotPackage {
    std::uint32_t rc = 0;
    std::uint32_t status = 0;
    std::uint32_t aux = 0;
    std::vector<GotPacket> packets;
};

// Reads one package with room for `room` descriptors and copies what it
// describes; the piece buffers stay live until FreeGot.
inline GotPackage ReadOne(std::uint32_t pipe, std::uint32_t room = 16) {
    std::vector<MBUF_TRANS_DESC_S> descs(room + 1, MBUF_TRANS_DESC_S{0xDEADu, nullptr});
    GotPackage got;
    std::uint32_t count = room;
    got.rc = KRM_PipePackageRead(pipe, &count, descs.data(), &got.status, &got.aux);
    if (got.rc != 0) {
        return got;
    }
    for (std::uint32_t p = 0; p < count; ++p) {
        auto **addrs = reinterpret_cast<void **>(descs[p].pstIovec);
        GotPacket packet;
        for (std::uint32_t i = 0; i < descs[p].ulNum; ++i) {
            const std::uint32_t size = KRM_DbufLengthGET(addrs[i]);
            const auto *b = static_cast<const unsigned char *>(addrs[i]);
            packet.push_back(GotPiece{addrs[i], size, std::vector<unsigned char>(b, b + size)});
        }
        got.packets.push_back(std::move(packet));
    }
    return got;
}

inline void FreeGot(const GotPackage &got) {
    for (const GotPacket &packet : got.packets) {
        for (const GotPiece &piece : packet) {
            (void)FreeDbuf(piece.addr);
        }
    }
}

// Everything queued read and released.
inline void Drain(std::uint32_t pipe) {
    for (GotPackage got = ReadOne(pipe, 512); got.rc == 0 && !got.packets.empty();
         got = ReadOne(pipe, 512)) {
        FreeGot(got);
    }
}

// The text of every captured report.
inline std::vector<std::string> ReportTexts() {
    std::vector<std::string> texts;
    for (const Report &r : Reports()) {
        texts.push_back(r.text);
    }
    return texts;
}

}  // namespace krm::test::platform
