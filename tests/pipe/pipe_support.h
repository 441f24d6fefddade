// What the pipe tests share: a packet's observable state as a value, records
// and flag words set from a seed, the pipe's carrying of pieces modelled in
// process, and the release of pieces a receive left with its caller.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "chain_builder.h"
#include "host_test.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test {

using Bytes = std::vector<std::uint8_t>;

// One vector entry as the tests compare them.
struct Piece {
    const void *pBuf = nullptr;
    std::uint32_t ulLen = 0;
    bool operator==(const Piece &) const = default;
};
void PrintTo(const Piece &piece, std::ostream *os);
std::vector<Piece> Pieces(const MBUF_IOVEC_S *pstIovec, std::uint32_t ulCount);

// A record to place in the control block: type and length.
struct RecordRow {
    std::uint32_t type;
    std::uint32_t len;
};

// Sets the common fields, flag words, priority and the given records (each
// filled with a seeded pattern). Records beyond the inline room move the
// block to a separate allocation.
void Decorate(MBUF_S *pstMbuf, const std::vector<RecordRow> &records, std::uint32_t seed);

// Everything a receiver must get back equal: data, node lengths, header
// words, the common record and every present record's bytes.
struct Snapshot {
    Bytes data;
    std::vector<std::uint32_t> nodeLens;
    std::vector<std::uint32_t> words;  // flag and header words
    Bytes comm;
    std::vector<std::pair<std::uint32_t, Bytes>> records;
    bool operator==(const Snapshot &) const = default;
};
void PrintTo(const Snapshot &snap, std::ostream *os);
Snapshot Snap(MBUF_S *pstMbuf);

// The pipe's carrying modelled in process: for each piece a fresh pipe
// buffer the size of the writer's buffer (the piece's length where it starts
// no buffer) holding the piece's bytes, the rest zero; the writer's buffers
// released when bRelease. Returns the new addresses.
std::vector<void *> Carry(const MBUF_IOVEC_S *pstIovec, std::uint32_t ulCount,
                          bool bRelease = true);

// Both receives, by name.
using RecvFn = std::uint32_t (*)(MBUF_S **, MBUF_TRANS_DESC_S *);
inline const std::pair<const char *, RecvFn> kReceives[] = {{"normal", MBUF_RcvTrans},
                                                            {"read-only", MBUF_RcvTransReadOnly}};

// A receive descriptor over an address array the caller keeps alive.
inline MBUF_TRANS_DESC_S RecvDesc(std::vector<void *> &pieces, std::uint32_t ulCount) {
    return MBUF_TRANS_DESC_S{ulCount, reinterpret_cast<MBUF_IOVEC_S *>(pieces.data())};
}

// Releases every live buffer: what a refused receive left with its caller.
void ReleaseAllLive();

// Chains of many nodes for the piece limit.
std::vector<NodeRow> ManyNodes(std::uint32_t ulInline, std::uint32_t ulExt);

}  // namespace krm::test
