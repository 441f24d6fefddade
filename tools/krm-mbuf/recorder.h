// Turning what passes a host pipe into pcapng packets: the pieces of each
// packet are decoded as a pipe package, the packet data becomes the
// packet, its flag words and records the comments.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "krm_mbuf/mbuf.h"
#include "pcapng.h"
#include "wire.h"

namespace krm::tool {

// Copies the pieces of packets as a writer describes them (MBUF_IOVEC_S
// entries with lengths).
std::vector<PiecePacket> WriterPieces(std::uint32_t ulCount, const MBUF_TRANS_DESC_S *pstDescs);

// Copies the pieces of packets as a package read hands them out (arrays
// of piece addresses; each piece's length is its pipe buffer's).
std::vector<PiecePacket> ReaderPieces(std::uint32_t ulCount, const MBUF_TRANS_DESC_S *pstDescs);

class PipeRecorder {
  public:
    explicit PipeRecorder(PcapngWriter &stOut) : m_stOut(stOut) {}
    // Writes every packet of the package; a packet that does not decode is
    // written as its raw pieces with the reason as comment.
    void Record(std::uint32_t ulPipeId, const std::vector<PiecePacket> &vPkts, Direction eDir);
    // One packet in a flat form (message, TLV stream, serial image).
    void RecordBytes(std::uint32_t ulQueue, const std::uint8_t *p, std::size_t n, Direction eDir);

  private:
    void Write(const std::string &strIf, const std::uint8_t *p, std::size_t n, Direction eDir);
    PcapngWriter &m_stOut;
};

std::uint64_t NowUs();

}  // namespace krm::tool
