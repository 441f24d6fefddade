// Shorthands for the platform tests: one-entry pipe-buffer calls with a
// recognisable allocation site, the text a pointer has in reports, lines
// written to a temporary stream, threads run to their end, writer pieces
// whose bytes say where they came from, the package a read hands out copied
// into plain vectors, and frames written straight into a socket.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host_test.h"
#include "krm_host/host.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"

namespace krm::test::platform {

inline constexpr std::uint32_t kModule = 0x00650000u;
inline constexpr const char *kAllocFile = "alloc_site.cpp";
inline constexpr const char *kFreeFile = "free_site.cpp";
inline constexpr std::uint32_t kPipe = 7;
inline constexpr std::uint32_t kNetPipe = 9;  // bound to a socket

inline void *AllocDbuf(std::uint32_t len, std::uint32_t owner = kModule, std::uint32_t line = 11) {
    MBUF_IOVEC_S iovec{nullptr, len, 0};
    return KRM_DbufIovecAlloc_F(owner, 1, &iovec, kAllocFile, line) == 0 ? iovec.pBuf : nullptr;
}

inline std::uint32_t FreeDbuf(void *p, std::uint32_t line = 22) {
    MBUF_IOVEC_S iovec{p, 0, 0};
    return KRM_DbufIovecFree_F(1, &iovec, kFreeFile, line);
}

inline void *AllocPriv(std::uint32_t len, std::uint32_t owner = kModule, std::uint32_t line = 33) {
    return KRM_Malloc_F(owner, g_aucKrmMemPt[0], len, kAllocFile, line);
}

inline std::uint32_t FreePriv(void *p, std::uint32_t line = 44) {
    return KRM_Free_F(p, kFreeFile, line);
}

// Whether a buffer of len bytes can be had now; it is released again.
inline bool CanAlloc(std::uint32_t len, bool priv = false) {
    void *p = priv ? AllocPriv(len) : AllocDbuf(len);
    if (p != nullptr) {
        (void)(priv ? FreePriv(p) : FreeDbuf(p));
    }
    return p != nullptr;
}

// The pointer as the platform prints it.
inline std::string PtrText(const void *p) {
    char text[32];
    (void)std::snprintf(text, sizeof(text), "%p", p);
    return text;
}

using TempFile = std::unique_ptr<FILE, int (*)(FILE *)>;

inline TempFile OpenTempFile() {
    return TempFile(std::tmpfile(), &std::fclose);
}

// Everything written to the stream so far, line by line, newlines kept.
inline std::vector<std::string> LinesOf(FILE *stream) {
    std::vector<std::string> lines;
    char line[4096];
    std::rewind(stream);
    while (std::fgets(line, sizeof(line), stream) != nullptr) {
        lines.emplace_back(line);
    }
    return lines;
}

// Runs body(t) on n threads at once and waits for all of them.
inline void RunThreads(int n, const std::function<void(int)> &body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t) {
        threads.emplace_back(body, t);
    }
    for (std::thread &th : threads) {
        th.join();
    }
}

inline KRM_HOST_PIPE_STATS_S Stats(std::uint32_t pipe) {
    KRM_HOST_PIPE_STATS_S stats{};
    EXPECT_EQ(KRM_HOST_PipeStats(pipe, &stats), 0u);
    return stats;
}

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
        plain.assign(len, 0);
        addr = live ? AllocDbuf(bufSize) : plain.data();
        for (std::uint32_t i = 0; i < (live ? bufSize : len); ++i) {
            static_cast<unsigned char *>(addr)[i] = PatternByte(seed, i);
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
        const auto *b = static_cast<const unsigned char *>(addr);
        for (std::uint32_t i = 0; live && i < bufSize; ++i) {
            if (b[i] != PatternByte(seed, i)) {
                return false;
            }
        }
        return !live || KRM_DbufLengthGET(addr) == bufSize;
    }
};

// A packet of writer pieces with the vector a write takes.
struct WriterPacket {
    std::vector<WriterPiece> pieces;
    std::vector<MBUF_IOVEC_S> iov;

    WriterPacket &Make(std::uint32_t seed) {
        iov.clear();
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            pieces[i].seed = seed + static_cast<std::uint32_t>(i);
            pieces[i].Make();
            iov.push_back(MBUF_IOVEC_S{pieces[i].addr, pieces[i].len, 0});
        }
        return *this;
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
    for (std::uint32_t p = 0; got.rc == 0 && p < count; ++p) {
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

// A private directory for socket files, removed with its contents.
struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/krm_pipe_XXXXXX";
        path = ::mkdtemp(tmpl) != nullptr ? tmpl : "";
    }
    ~TempDir() {
        for (const char *name : {"/pipe.sock", "/msg.sock"}) {
            (void)::unlink((path + name).c_str());
        }
        (void)::rmdir(path.c_str());
    }
    std::string Sock(const char *name) const { return path + "/" + name; }
};

inline int ConnectRaw(const std::string &path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        (void)::close(fd);
        return -1;
    }
    return fd;
}

// A frame as the test writes it, word by word, independently of the
// platform's own encoder: one packet of one 936-byte buffer holding 1..5.
struct RawFrame {
    std::uint32_t magic = 0x4B524D46u;
    std::uint32_t type = 1;
    std::uint32_t total = 0;  // 0: the true size
    std::uint32_t id = kNetPipe;
    std::uint32_t packets = ~0u;  // ~0: counts.size()
    std::uint32_t pieces = ~0u;   // ~0: recs.size()
    std::vector<std::uint32_t> counts = {1};
    std::vector<std::array<std::uint32_t, 5>> recs = {{936, 5, 0, 0, 0x650000}};
    std::vector<unsigned char> data = {1, 2, 3, 4, 5};
    std::size_t cut = 0;  // send only this many bytes, then close

    std::vector<unsigned char> Bytes() const {
        const std::size_t size = 32 + 4 * counts.size() + 20 * recs.size() + data.size();
        std::vector<std::uint32_t> words = {
            magic,
            type,
            total != 0 ? total : static_cast<std::uint32_t>(size),
            id,
            packets != ~0u ? packets : static_cast<std::uint32_t>(counts.size()),
            pieces != ~0u ? pieces : static_cast<std::uint32_t>(recs.size()),
            0u,
            0u};
        words.insert(words.end(), counts.begin(), counts.end());
        for (const auto &r : recs) {
            words.insert(words.end(), r.begin(), r.end());
        }
        std::vector<unsigned char> out;
        for (std::uint32_t w : words) {
            for (int s = 24; s >= 0; s -= 8) {
                out.push_back(static_cast<unsigned char>(w >> s));
            }
        }
        out.insert(out.end(), data.begin(), data.end());
        out.resize(cut != 0 ? cut : out.size());
        return out;
    }
};

inline bool WaitFor(const std::function<bool()> &cond) {
    for (int i = 0; i < 1000 && !cond(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return cond();
}

}  // namespace krm::test::platform
