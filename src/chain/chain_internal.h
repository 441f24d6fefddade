// What the chain operations share: the free room of a node, typed node
// allocation, releasing a node with its buffer, and the tidying walk that
// cuts, compaction and fragmenting all run over a chain.
#pragma once

#include <cstdint>

#include "core/node.h"
#include "krm_mbuf/mbuf.h"

namespace krm::chain {

// Bytes from `from` up to `to` inside one node's storage. Computed on
// addresses, so storage of different objects (inline area, buffer) never has
// to be compared as pointers.
inline std::uint32_t Gap(const void *from, const void *to) {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(to) -
                                      reinterpret_cast<std::uintptr_t>(from));
}

inline bool HasExt(const MBUF_S *pstMbuf) {
    return (pstMbuf->ulFlag & MBUF_EXT) != 0;
}
inline bool IsPktHdr(const MBUF_S *pstMbuf) {
    return pstMbuf != nullptr && (pstMbuf->ulFlag & MBUF_PKTHDR) != 0;
}

// Both node layouts end their inline storage where the link words begin.
inline std::uint8_t *InlineEnd(MBUF_S *pstMbuf) {
    return pstMbuf->aucHdrInlineData + MBUF_PKTHDR_INLINE_LEN;
}

// End of the storage pucData points into.
inline std::uint8_t *StorageEnd(MBUF_S *pstMbuf) {
    return HasExt(pstMbuf) ? pstMbuf->pucExtBuf + pstMbuf->ulExtSize : InlineEnd(pstMbuf);
}

// Free bytes behind a node's data.
inline std::uint32_t TailRoom(MBUF_S *pstMbuf) {
    return Gap(pstMbuf->pucData + pstMbuf->ulDataLen, StorageEnd(pstMbuf));
}

// Free bytes in front of a node's data, counted from the buffer's start or,
// inline, from pucInlineStart (callers differ on which inline area counts).
inline std::uint32_t HeadRoom(MBUF_S *pstMbuf, const std::uint8_t *pucInlineStart) {
    return Gap(HasExt(pstMbuf) ? pstMbuf->pucExtBuf : pucInlineStart, pstMbuf->pucData);
}

// A fresh node with flags ulFlag (MBUF_PKTHDR or 0) and the given type, no
// external buffer. NULL when memory is exhausted.
MBUF_S *NewTypedNode(std::uint32_t ulFlag, std::uint16_t usType, std::uint32_t ulModuleId,
                     const MBUF_FILE_LINE_S *pstFl, BlockInit eBlock = BlockInit::kFresh);

// A fresh plain node of the given type carrying a cluster of ulSize bytes
// whose reference count is usRefCnt. NULL (nothing left allocated) on failure.
MBUF_S *NewClusterNode(std::uint16_t usType, std::uint32_t ulSize, std::uint32_t ulRefCnt,
                       std::uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFl);

// Releases a node's external buffer, leaving the node inline and empty of
// buffer (MBUF_EXT clear, ulExtSize 0).
void DropExtBuffer(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl);

// Releases one node and its external buffer; MBUF_NOFREE is not consulted
// and no control block is looked at (the caller has dealt with it).
void ReleaseNodeAndBuffer(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl);

// Releases one node the way MBUF_Free releases each node of a chain.
void FreeOne(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl);

// An empty head gives its external buffer back and returns to its inline
// area. True when it had one to give.
bool ReturnEmptyHeadInline(MBUF_S *pstHead, const MBUF_FILE_LINE_S *pstFl);

// The tidying walk over the nodes behind the head: a stray MBUF_PKTHDR is
// dropped (with its separate control block), an empty node is unlinked and
// released with its buffer. Every node kept is shown to keep(prev, node);
// the walk stops early when keep returns false.
template <class Keep>
void TidyLaterNodes(MBUF_S *pstHead, const MBUF_FILE_LINE_S *pstFl, Keep &&keep) {
    MBUF_S *prev = pstHead;
    MBUF_S *node = pstHead->pstNext;
    while (node != nullptr) {
        if (IsPktHdr(node)) {
            MBUF_DeletePktTag(node, pstFl);
            node->ulFlag &= ~MBUF_PKTHDR;
        }
        MBUF_S *next = node->pstNext;
        if (node->ulDataLen == 0) {
            prev->pstNext = next;
            ReleaseNodeAndBuffer(node, pstFl);
        } else {
            if (!keep(prev, node)) {
                return;
            }
            prev = node;
        }
        node = next;
    }
}

}  // namespace krm::chain
