// Recognising a packet's wire form from its bytes alone. Every form is
// brought to one shape: the packet data, the writer's byte order, the
// packet-header words it carries and the control block in this host's
// order. The bytes are foreign: every read is bounded by the buffer given,
// never by a length the bytes claim.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace krm::tool {

enum class WireKind { kTlvStream, kSerialImage, kMessage, kPipePackage };
const char *WireKindName(WireKind eKind);

// The tool's file form of one pipe package as the pipe carried it: the
// magic, a u32 packet count, then per packet a u32 piece count and per piece
// a u32 length and the bytes. Counts and lengths in network order; the
// pieces as the writer laid them out.
inline constexpr char kPackageMagic[8] = {'K', 'R', 'M', 'P', 'I', 'P', 'E', '1'};
inline constexpr std::uint32_t kPackageMaxPackets = 64;
inline constexpr std::uint32_t kPackageMaxPieces = 90;

using Piece = std::vector<std::uint8_t>;
using PiecePacket = std::vector<Piece>;
std::vector<std::uint8_t> EncodePackage(const std::vector<PiecePacket> &vPackets);

struct HeaderWords {
    std::uint32_t ulFlag2 = 0;
    std::optional<std::uint32_t> oFlag3;
    std::optional<std::uint32_t> oTotalLen;  // as the header claims it
};

struct Node {  // a node of a pipe package, as it arrived
    std::uint32_t ulFlag = 0;
    std::uint32_t ulDataLen = 0;
    std::uint32_t ulOffset = 0;
    std::uint32_t ulExtSize = 0;
};

struct DecodedPacket {
    std::vector<std::uint8_t> vData;
    HeaderWords stWords;
    std::vector<std::uint8_t> vBlock;  // fixed part + record area, host order; empty: none
    // The same block as the writer laid it out: record bytes are shown from
    // here, so a record reads the same whichever host decodes it.
    std::vector<std::uint8_t> vWireBlock;
    std::vector<Node> vNodes;  // pipe packages only
};

struct Decoded {
    WireKind eKind = WireKind::kTlvStream;
    std::uint8_t ucOrder = 0;  // the writer's byte-order code (1 little, 2 big)
    std::vector<DecodedPacket> vPackets;
    std::vector<std::string> vNotes;  // what was odd but not fatal
};

// Detects the form and decodes it. On failure the result holds a one-line
// reason and *pstOut is unspecified.
std::optional<std::string> Decode(const std::uint8_t *pucBuf, std::size_t ulLen, Decoded *pstOut);

const char *OrderName(std::uint8_t ucOrder);

// A one-line reason from a literal format of up to three %lu/%lx fields.
std::string Reason(const char *pcFmt, unsigned long a, unsigned long b = 0, unsigned long c = 0);

// Decodes the tool's pipe package form (magic already checked).
std::optional<std::string> DecodePackage(const std::uint8_t *p, std::size_t n, Decoded &stOut);

}  // namespace krm::tool
