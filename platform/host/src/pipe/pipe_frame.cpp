// The frame a package or a message travels in between processes. Every word
// is big-endian so that builds of either byte order and word size read each
// other; the piece bytes follow as they lay in the writer's buffers.
//
// A received frame is foreign: it is checked whole against the bytes that
// actually arrived before a single buffer is allocated for it, and the
// buffers it asks for are bounded in sum, not only each on its own.
#include <cstring>

#include "pipe_internal.h"

namespace krm::host::pipe {

namespace {

void Put32(std::vector<unsigned char> *out, std::uint32_t v) {
    const unsigned char b[4] = {static_cast<unsigned char>(v >> 24),
                                static_cast<unsigned char>(v >> 16),
                                static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    out->insert(out->end(), b, b + 4);
}

std::uint32_t Get32(const unsigned char *p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
           std::uint32_t{p[3]};
}

// The counts a frame's header claims, against the limits of a write and
// against the bytes that arrived.
FrameFault CheckCounts(const FrameHeader &head, std::size_t bodySize, const char **why) {
    if (head.type != static_cast<std::uint32_t>(FrameType::kPackage) &&
        head.type != static_cast<std::uint32_t>(FrameType::kMessage)) {
        *why = "unknown frame type";
        return FrameFault::kInconsistent;
    }
    if (head.packets == 0 || head.packets > kMaxPackets || head.pieces < head.packets ||
        head.pieces > head.packets * KRM_HOST_PIPE_MAX_PIECES) {
        *why = "packet or piece count out of range";
        return FrameFault::kInconsistent;
    }
    if (head.type == static_cast<std::uint32_t>(FrameType::kMessage) && head.pieces != 1) {
        *why = "a message is one piece";
        return FrameFault::kInconsistent;
    }
    const std::size_t meta =
        std::size_t{4} * head.packets + std::size_t{kPieceRecordSize} * head.pieces;
    if (meta > bodySize) {
        *why = "piece records run past the frame";
        return FrameFault::kShort;
    }
    return FrameFault::kOk;
}

// Piece counts per packet must be 1..max each and add up to the header's.
FrameFault ReadPacketCounts(const FrameHeader &head, const unsigned char *p,
                            std::vector<std::uint32_t> *counts, const char **why) {
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < head.packets; ++i) {
        const std::uint32_t n = Get32(p + 4 * i);
        if (n == 0 || n > KRM_HOST_PIPE_MAX_PIECES) {
            *why = "a packet's piece count out of range";
            return FrameFault::kInconsistent;
        }
        sum += n;
        counts->push_back(n);
    }
    if (sum != head.pieces) {
        *why = "packet piece counts do not add up";
        return FrameFault::kInconsistent;
    }
    return FrameFault::kOk;
}

// Each piece within its buffer; the bytes exactly those that follow; the
// buffers asked for bounded in sum.
FrameFault ReadPieceRecords(const FrameHeader &head, const unsigned char *p, std::size_t dataSize,
                            std::vector<SrcPiece> *recs, const char **why) {
    std::uint64_t bytes = 0;
    std::uint64_t room = 0;
    for (std::uint32_t i = 0; i < head.pieces; ++i, p += kPieceRecordSize) {
        const SrcPiece r{nullptr,       Get32(p + 4),  Get32(p), Get32(p + 8),
                         Get32(p + 12), Get32(p + 16), false};
        if (r.len > r.bufSize) {
            *why = "a piece longer than its buffer";
            return FrameFault::kInconsistent;
        }
        bytes += r.len;
        room += r.bufSize;
        recs->push_back(r);
    }
    if (room > kMaxFrame) {
        *why = "buffers asked for exceed the frame limit";
        return FrameFault::kOversized;
    }
    if (bytes != dataSize) {
        *why = bytes > dataSize ? "piece lengths run past the frame"
                                : "bytes left over behind the pieces";
        return bytes > dataSize ? FrameFault::kShort : FrameFault::kInconsistent;
    }
    return FrameFault::kOk;
}

}  // namespace

std::vector<unsigned char> EncodeFrame(const FrameHeader &head, const SrcPackage &src) {
    std::uint64_t total = kFrameHeaderSize + 4u * src.pieceCounts.size() +
                          std::uint64_t{kPieceRecordSize} * src.pieces.size();
    std::uint64_t room = 0;
    for (const SrcPiece &piece : src.pieces) {
        total += piece.len;
        room += piece.bufSize;
    }
    std::vector<unsigned char> out;
    if (total > kMaxFrame || room > kMaxFrame) {
        return out;
    }
    out.reserve(static_cast<std::size_t>(total));
    const std::uint32_t words[] = {kFrameMagic,
                                   head.type,
                                   static_cast<std::uint32_t>(total),
                                   head.id,
                                   static_cast<std::uint32_t>(src.pieceCounts.size()),
                                   static_cast<std::uint32_t>(src.pieces.size()),
                                   head.arg1,
                                   head.arg2};
    static_assert(sizeof(words) == kFrameHeaderSize);
    for (std::uint32_t w : words) {
        Put32(&out, w);
    }
    for (std::uint32_t n : src.pieceCounts) {
        Put32(&out, n);
    }
    for (const SrcPiece &piece : src.pieces) {
        Put32(&out, piece.bufSize);
        Put32(&out, piece.len);
        Put32(&out, piece.ctrlFlag);
        Put32(&out, piece.traceId);
        Put32(&out, piece.owner);
    }
    for (const SrcPiece &piece : src.pieces) {
        const auto *b = static_cast<const unsigned char *>(piece.src);
        out.insert(out.end(), b, b + piece.len);
    }
    return out;
}

FrameHeader DecodeHeader(const unsigned char *bytes) {
    return FrameHeader{Get32(bytes),      Get32(bytes + 4),  Get32(bytes + 8),  Get32(bytes + 12),
                       Get32(bytes + 16), Get32(bytes + 20), Get32(bytes + 24), Get32(bytes + 28)};
}

FrameFault DecodeBody(const FrameHeader &head, const std::vector<unsigned char> &body, Package *pkg,
                      const char **why) {
    FrameFault fault = CheckCounts(head, body.size(), why);
    std::vector<std::uint32_t> counts;
    std::vector<SrcPiece> recs;
    const std::size_t meta =
        std::size_t{4} * head.packets + std::size_t{kPieceRecordSize} * head.pieces;
    if (fault == FrameFault::kOk) {
        fault = ReadPacketCounts(head, body.data(), &counts, why);
    }
    if (fault == FrameFault::kOk) {
        fault =
            ReadPieceRecords(head, body.data() + 4 * head.packets, body.size() - meta, &recs, why);
    }
    if (fault != FrameFault::kOk) {
        return fault;
    }
    pkg->packets.assign(counts.size(), {});
    const unsigned char *data = body.data() + meta;
    std::size_t r = 0;
    for (std::size_t p = 0; p < counts.size(); ++p) {
        for (std::uint32_t i = 0; i < counts[p]; ++i, ++r) {
            recs[r].src = data;
            void *copy = FreshCopy(recs[r]);
            if (copy == nullptr) {
                ReleasePackage(pkg);
                *why = "no memory for its buffers";
                return FrameFault::kNoMemory;
            }
            pkg->packets[p].push_back(copy);
            data += recs[r].len;
        }
    }
    pkg->prio = head.arg2;
    pkg->urgent = head.arg1 == static_cast<std::uint32_t>(WriteKind::kUrgent);
    return FrameFault::kOk;
}

const char *FrameFaultText(FrameFault fault) {
    constexpr const char *kTexts[] = {"accepted", "short", "oversized", "inconsistent",
                                      "not stored"};
    const auto i = static_cast<std::size_t>(fault);
    return i < sizeof(kTexts) / sizeof(kTexts[0]) ? kTexts[i] : "refused";
}

}  // namespace krm::host::pipe
