// The one vector builder behind every send: a packet described as a list of
// memory pieces (each node, each external buffer after its node, a separate
// control block last), with the node words the receiver rebuilds from. What
// differs between the operations - piece lengths and what happens at the
// piece limit - is a layout handed in, not a copy of the walk.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm::pipe {

// What a piece is; the priority stamping reports each kind differently.
enum class PieceKind : std::uint8_t { Node, ExtNode, ExtData, CtlInfo };

// Length of the piece of a node without an external buffer.
enum class NodePiece : std::uint8_t {
    DataEnd,   // node header and inline data up to the end of the data
    WholeNode  // the whole node
};

// What an operation does when the packet needs more pieces than it may use.
enum class LimitPolicy : std::uint8_t {
    Truncate,    // send what fits, no error
    Refuse,      // report and fail with 1009
    ReportCount  // report and answer the count
};

struct VectorLayout {
    NodePiece plainNode;
    std::uint32_t ulExtNodeLen;  // piece length of a node carrying an external buffer
    LimitPolicy limit;
};

// How a walk ended.
enum class WalkEnd : std::uint8_t {
    Complete,  // every node described, the control block too when separate
    ExtCut,    // an external node met with one entry left: its node piece is the last
    Full,      // the limit reached with nodes still to come
    FullAtEnd  // the last node filled the limit: no room for the control block
};

struct VectorResult {
    std::uint32_t ulCount = 0;
    WalkEnd end = WalkEnd::Complete;
};

// Writes one node's pieces at pstOut[*pulCount] and its ulRsv2; kinds, when
// given, receives the kind of each piece. An external node needs two entries.
void DescribeNode(MBUF_S *pstNode, const VectorLayout &layout, MBUF_IOVEC_S *pstOut,
                  PieceKind *pKinds, std::uint32_t *pulCount);

// Marks pstNode as the last node or as followed by another; a following
// packet header loses its tags and its header bit. Returns the next node.
MBUF_S *LinkMarker(MBUF_S *pstNode, const MBUF_FILE_LINE_S *pstFl);

// The head's control block when it travels as a piece of its own: neither
// the inline area nor absent.
bool HasSeparateCtl(const MBUF_S *pstHead);

// Adds the control block as the last piece and flags the head.
void DescribeCtl(MBUF_S *pstHead, MBUF_IOVEC_S *pstOut, PieceKind *pKinds, std::uint32_t *pulCount);

// The walk: at most ulMax entries into pstOut (ulMax >= 1).
VectorResult BuildVector(MBUF_S *pstHead, const VectorLayout &layout, std::uint32_t ulMax,
                         MBUF_IOVEC_S *pstOut, PieceKind *pKinds, const MBUF_FILE_LINE_S *pstFl);

}  // namespace krm::pipe
