// Test packets of a described shape, and the flat byte vector that models
// them. A packet is built node by node with the library's own allocators;
// its data byte at packet position i is PayloadByte(i, seed), a value that
// does not repeat at small periods, so a byte read from the wrong place or
// in the wrong order shows. Storage a node does not use for data is filled
// with kPoison.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "krm_mbuf/mbuf.h"
#include "mbuf_check.h"

namespace krm::test {

inline constexpr std::uint8_t kPoison = 0xEE;
inline constexpr std::uint32_t kTestModule = 0x4B52;

// Where a node keeps its data.
enum class Storage : std::uint8_t {
    Inline,   // the node's own area: 372 bytes for the head, 848 for others
    Cluster,  // a standard 1960-byte external buffer
    Exact     // an external buffer of NodeRow::bufSize bytes (above 1960)
};

struct NodeRow {
    Storage storage = Storage::Inline;
    std::uint32_t headRoom = 0;  // free bytes in front of the data
    std::uint32_t dataLen = 0;
    std::uint32_t bufSize = 0;  // Exact only
};

struct ChainShape {
    std::string name;
    std::vector<NodeRow> nodes;
};

// Names a shape in test output.
void PrintTo(const ChainShape &shape, std::ostream *os);

// Shorthands for table rows.
inline NodeRow InlineNode(std::uint32_t dataLen, std::uint32_t headRoom = 0) {
    return NodeRow{Storage::Inline, headRoom, dataLen, 0};
}
inline NodeRow ClusterNode(std::uint32_t dataLen, std::uint32_t headRoom = 0) {
    return NodeRow{Storage::Cluster, headRoom, dataLen, 0};
}
inline NodeRow ExactNode(std::uint32_t bufSize, std::uint32_t dataLen, std::uint32_t headRoom = 0) {
    return NodeRow{Storage::Exact, headRoom, dataLen, bufSize};
}

// Data byte i of a packet built with the given seed.
std::uint8_t PayloadByte(std::uint32_t i, std::uint32_t seed = 0);

// len payload bytes starting at packet position start.
std::vector<std::uint8_t> Payload(std::uint32_t len, std::uint32_t seed = 0,
                                  std::uint32_t start = 0);

// A packet of the given nodes (the first becomes the packet head) whose data
// is Payload(total, seed). Fails the test and returns NULL when a node cannot
// be made or a row does not fit its storage.
MBUF_S *BuildChain(const std::vector<NodeRow> &nodes, std::uint32_t seed = 0);

// The packet's data in order, read node by node along pstNext.
inline std::vector<std::uint8_t> Flatten(const MBUF_S *pstMbuf) {
    return PacketBytes(pstMbuf);
}

// Nodes along pstNext (their lengths: NodeLengths in mbuf_check.h).
std::uint32_t NodeCount(const MBUF_S *pstMbuf);

// The total of a row.
std::uint32_t ShapeLength(const std::vector<NodeRow> &nodes);

// Packet positions worth cutting, copying or splitting at: 0, the end, every
// node boundary and its neighbours, and a few points inside nodes; sorted,
// without duplicates, all within [0, total].
std::vector<std::uint32_t> InterestingOffsets(const std::vector<NodeRow> &nodes);

// The table of shapes every chain test runs over: inline and external nodes,
// empty nodes, one-byte nodes, head room, odd data addresses.
const std::vector<ChainShape> &StandardShapes();

}  // namespace krm::test
