// The one rebuild walk behind every receive: a head node checked and
// converted, its control block re-attached, every further node re-based
// into the piece it arrived in and re-linked. The normal receive may
// allocate (an external buffer for data that does not fit inline, an
// upgraded control block); the read-only receive refuses instead. Both are
// the same walk with a different mode.
//
// The sender's words (markers, data offsets, lengths, piece counts) are
// trusted as far as the memory handed in allows: a node must lie in a
// buffer of a whole node, re-based data must lie inside its piece, no piece
// is read past the descriptor's count and no node is linked twice.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm::pipe {

struct RebuildMode {
    bool bReadOnly = false;
    std::uint32_t ulMemId = 0;
    const char *pcFileName = nullptr;
    std::uint32_t ulLine = 0;
};

// The piece addresses of a receive descriptor.
inline void *const *Pieces(const MBUF_TRANS_DESC_S *pstDesc) {
    return reinterpret_cast<void *const *>(pstDesc->pstIovec);
}

// The sender wrote in this host's order, or marked the node as never
// translated.
bool IsSameOrder(const MBUF_S *pstHead);

// Head: its buffer, conversion, verification, room for its data.
// *pbAllocated tells whether its data was moved to a new external buffer.
std::uint32_t PrepareHead(MBUF_S *pstHead, bool bSameOrder, const RebuildMode &mode,
                          bool *pbAllocated);

// Re-attaches the control block (the last piece when the head says one
// travelled, taking it from *pulCount), converts and upgrades it.
std::uint32_t AttachCtlInfo(MBUF_S *pstHead, void *const *ppPieces, std::uint32_t *pulCount,
                            bool bSameOrder, const RebuildMode &mode);

// Re-bases a node's data: inline at the node, or in the next piece for an
// external node (*pulIndex advances). ulRsv2 is cleared.
std::uint32_t LinkNodeData(MBUF_S *pstNode, void *const *ppPieces, std::uint32_t ulCount,
                           std::uint32_t *pulIndex, bool bAllocated, const RebuildMode &mode);

// A further node: its buffer, conversion, room for its data, then linked
// behind pstPrev.
std::uint32_t PrepareNext(MBUF_S *pstNode, MBUF_S *pstPrev, const RebuildMode &mode,
                          bool *pbAllocated);

// The whole rebuild of one descriptor; the head is stored on success.
std::uint32_t Rebuild(MBUF_S **ppstMbuf, const MBUF_TRANS_DESC_S *pstDesc, const RebuildMode &mode);

}  // namespace krm::pipe
