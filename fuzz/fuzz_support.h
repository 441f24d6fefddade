// What every harness shares: one input's platform session with its leak
// check, the packet invariants, the canonical bytes two packets are compared
// by, and pieces landed in pipe buffers as a pipe would deliver them.
// A broken invariant aborts with a message: libFuzzer keeps the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace krm::fuzz {

using Bytes = std::vector<std::uint8_t>;

// Prints "fuzz: <what>" and aborts.
[[noreturn]] void Fail(const char *pcFmt, ...) __attribute__((format(printf, 1, 2)));

// One input: the platform reset (reports cleared, faults off) on entry; on
// exit every buffer allocated since must be gone again, else the live
// buffers are dumped and the input is a finding. bReset false keeps pipes
// and sockets open (reports are only cleared).
class Session {
  public:
    explicit Session(bool bReset = true);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

  private:
    std::uint32_t ulLive_;
};

// The packet must be safe to use: no cycle, not runaway, every external
// node with a buffer, every node's data inside its storage (for a packet
// rebuilt in place: inside the buffer it arrived in). A packet the
// reader created must also have live nodes, its header flag where it
// belongs and a total length equal to its nodes' sum; a packet rebuilt in
// place (bInPlace) keeps those as its sender wrote them. Returns whether
// MBUF_DBG_Check passes in full, control block included: only then must a
// round trip give the same packet back.
bool CheckPacket(const MBUF_S *pstMbuf, const char *pcWhat, bool bInPlace = false);

// The data bytes along the chain.
Bytes Data(const MBUF_S *pstMbuf);

// What a receiver must get back equal: the serial image where the packet has
// a control block (data, records, header words), else the data alone.
Bytes Canon(MBUF_S *pstMbuf);

// What a TLV stream carries: the data, the flag word, and of every present
// record the bytes its length says it has.
Bytes Carried(MBUF_S *pstMbuf);

void ExpectSame(const Bytes &a, const Bytes &b, const char *pcWhat);

// ---- pieces ---------------------------------------------------------------

// A piece of a saved pipe package and the buffer it lands in: a node's 936
// bytes, a cluster's 1960 or its own length. A length word with a non-zero
// top byte asks for a buffer of exactly the piece's length.
struct Piece {
    const std::uint8_t *pucBytes;
    std::uint32_t ulLen;
    std::uint32_t ulBufSize;
};
using PiecePacket = std::vector<Piece>;

// The tool's file form of a pipe package ("KRMPIPE1", packet count, per
// packet a piece count, per piece a length and its bytes; big-endian words).
// Parsing stops at the first count or length the bytes cannot hold; false
// when not even one packet was read.
bool ParsePackage(const std::uint8_t *pucData, std::size_t ulSize,
                  std::vector<PiecePacket> *pvPackets);

// Fresh pipe buffers holding the pieces (the rest of each buffer zero);
// empty when one could not be had (nothing then stays allocated).
std::vector<void *> Land(const PiecePacket &vPieces);

// Destroys a received packet. A node the sender flagged MBUF_NOFREE is not
// the library's to release (nor, on a head, its separate control block):
// the receiver, who got its buffer from the pipe, releases it here.
void Release(MBUF_S *pstMbuf);

// An external node's size as the platform knows its buffer: the word a
// receive leaves as the sender wrote it (read-only) or takes from the next
// vector entry, set so that the packet check sees the buffer's real room.
void SettleExtSize(MBUF_S *pstMbuf);

// Releases every address that is still a live buffer start.
void FreeLive(const std::vector<void *> &vBufs);

// Releases every piece the packet did not take over (its nodes, external
// buffers and a separate control block are its own).
void FreeLeftOver(const std::vector<void *> &vBufs, const MBUF_S *pstMbuf);

// Every address must still be a live buffer start.
void ExpectAllLive(const std::vector<void *> &vBufs, const char *pcWhat);

// A receive descriptor over an address array the caller keeps alive.
MBUF_TRANS_DESC_S RecvDesc(std::vector<void *> &vAddrs);

}  // namespace krm::fuzz
