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
    // A forwarding vector gives an external node the length of the entry
    // after its buffer's own as ulExtSize; a pipe, the buffer's real size.
    bool bExtSizeFromNextEntry = false;
};

// The piece addresses of a receive descriptor.
inline void *const *Pieces(const MBUF_TRANS_DESC_S *pstDesc) {
    return reinterpret_cast<void *const *>(pstDesc->pstIovec);
}

// The pieces of one packet as the receiver holds them: a pipe's receive
// descriptor lists bare addresses, a forwarding vector's entries carry
// lengths too. Nothing is read at or past the count handed in.
class PieceList {
  public:
    static PieceList FromAddresses(void *const *ppAddrs, std::uint32_t ulCount) {
        return PieceList(ppAddrs, nullptr, ulCount);
    }
    static PieceList FromVector(const MBUF_IOVEC_S *pstVec, std::uint32_t ulCount) {
        return PieceList(nullptr, pstVec, ulCount);
    }
    std::uint32_t Count() const { return ulCount_; }
    void *At(std::uint32_t i) const {
        if (i >= ulCount_) {
            return nullptr;
        }
        return pstVec_ != nullptr ? pstVec_[i].pBuf : ppAddrs_[i];
    }
    // The length a vector gives entry i; false for an address list or past
    // the count.
    bool LenAt(std::uint32_t i, std::uint32_t *pulLen) const {
        if (pstVec_ == nullptr || i >= ulCount_) {
            return false;
        }
        *pulLen = pstVec_[i].ulLen;
        return true;
    }

  private:
    PieceList(void *const *ppAddrs, const MBUF_IOVEC_S *pstVec, std::uint32_t ulCount)
        : ppAddrs_(ppAddrs), pstVec_(pstVec), ulCount_(ulCount) {}
    void *const *ppAddrs_;
    const MBUF_IOVEC_S *pstVec_;
    std::uint32_t ulCount_;
};

// The sender wrote in this host's order, or marked the node as never
// translated.
bool IsSameOrder(const MBUF_S *pstHead);

// Head: its buffer, conversion, verification, room for its data.
// *pbAllocated tells whether its data was moved to a new external buffer.
std::uint32_t PrepareHead(MBUF_S *pstHead, bool bSameOrder, const RebuildMode &mode,
                          bool *pbAllocated);

// Re-attaches the control block (the last piece when the head says one
// travelled, taking it from *pulCount), converts and upgrades it. With
// ppstOld, an upgrade keeps the received block and hands it back, for the
// caller to release once the whole rebuild has succeeded.
std::uint32_t AttachCtlInfo(MBUF_S *pstHead, const PieceList &pieces, std::uint32_t *pulCount,
                            bool bSameOrder, const RebuildMode &mode,
                            MBUF_CONTROL_BLK_S **ppstOld = nullptr);

// Re-bases a node's data: inline at the node, or in the next piece for an
// external node (*pulIndex advances). ulRsv2 is cleared.
std::uint32_t LinkNodeData(MBUF_S *pstNode, const PieceList &pieces, std::uint32_t ulCount,
                           std::uint32_t *pulIndex, bool bAllocated, const RebuildMode &mode);

// A further node: its buffer, conversion, room for its data, then linked
// behind pstPrev.
std::uint32_t PrepareNext(MBUF_S *pstNode, MBUF_S *pstPrev, const RebuildMode &mode,
                          bool *pbAllocated);

// Link words cleared, or the data moved to an external buffer (normal mode)
// or refused (read-only, with that report).
std::uint32_t MakeRoom(MBUF_S *pstNode, const RebuildMode &mode, std::uint32_t ulRoLine,
                       const char *pcRoText, bool *pbAllocated);

// The nodes after a prepared head: each re-based and the next one linked,
// until the marker or the ulCount pieces end. bAllocated: the head's data
// was moved to a new buffer of its own.
std::uint32_t WalkNodes(MBUF_S *pstHead, const PieceList &pieces, std::uint32_t ulCount,
                        bool bAllocated, const RebuildMode &mode);

// The whole rebuild of one packet; the head is stored on success.
std::uint32_t Rebuild(MBUF_S **ppstMbuf, const PieceList &pieces, const RebuildMode &mode);
std::uint32_t Rebuild(MBUF_S **ppstMbuf, const MBUF_TRANS_DESC_S *pstDesc, const RebuildMode &mode);

}  // namespace krm::pipe
