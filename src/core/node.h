// The buffer core's internal interface: node storage, node allocation and
// release, shared by creation and by the chain, metadata and transport
// subsystems. The exported MBUF_ functions are thin entry points over these.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm {

// The caller's location as the memory adapter carries it.
inline MBUF_FILE_LINE_S FileLine(const char *pcFileName, std::uint32_t ulLine) {
    return MBUF_FILE_LINE_S{pcFileName, ulLine};
}

// ---- node storage -----------------------------------------------------------

// A node's inline data area is chosen by MBUF_PKTHDR: the 372-byte tail of a
// header node or the whole 848-byte body of a plain one (the former is the
// end of the latter, so data placed in a header node stays inside the plain
// area when the flag is later dropped).
inline std::uint8_t *InlineStart(MBUF_S *pstMbuf) {
    return (pstMbuf->ulFlag & MBUF_PKTHDR) != 0 ? pstMbuf->aucHdrInlineData
                                                : pstMbuf->aucInlineData;
}
inline const std::uint8_t *InlineStart(const MBUF_S *pstMbuf) {
    return (pstMbuf->ulFlag & MBUF_PKTHDR) != 0 ? pstMbuf->aucHdrInlineData
                                                : pstMbuf->aucInlineData;
}
inline std::uint32_t InlineCapacity(const MBUF_S *pstMbuf) {
    return (pstMbuf->ulFlag & MBUF_PKTHDR) != 0 ? MBUF_PKTHDR_INLINE_LEN : MBUF_PLAIN_INLINE_LEN;
}

// True when a header node's pstCtlInfo is the block inside the node itself;
// nothing else records whether the block was allocated apart.
inline bool HasInlineCtlBlock(const MBUF_S *pstMbuf) {
    return pstMbuf->pstCtlInfo == &pstMbuf->stCtlInfo.stBlk;
}

// ---- allocation --------------------------------------------------------------

// How a header node's own control block starts: fresh, or with only its
// capacity set, for a caller that at once copies a block over the whole
// fixed part (a copied packet header).
enum class BlockInit : bool { kFresh, kCopiedOver };

// What MBUF_StructInit does for an init record other than "keep".
void InitNode(MBUF_S *pstMbuf, std::uint32_t ulFlag, std::uint16_t usType, BlockInit eBlock);

// A fresh node initialised with ulFlag (MBUF_PKTHDR or 0) and type 1, with
// no external buffer; NULL when the platform has no memory.
MBUF_S *NewNode(std::uint32_t ulFlag, std::uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFl,
                BlockInit eBlock = BlockInit::kFresh);

// Hangs a new external buffer of ulSize bytes from a node that has none and
// points pucData at it. False (node unchanged) when the allocation fails.
bool AttachBuffer(MBUF_S *pstMbuf, std::uint32_t ulSize, std::uint32_t ulModuleId,
                  const MBUF_FILE_LINE_S *pstFl);

// Returns the node's own memory to the platform; nothing else is looked at.
void ReleaseNode(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl);

// The node allocators behind MBUF_AllocateMBufHeader_fl and
// MBUF_AllocateMBufNode_fl; *pulCapacity is always written.
MBUF_S *AllocHeaderNode(std::uint32_t ulSize, std::uint32_t *pulCapacity, std::uint32_t ulModuleId,
                        const MBUF_FILE_LINE_S *pstFl);
MBUF_S *AllocPlainNode(std::uint32_t ulSize, std::uint32_t *pulCapacity, std::uint32_t ulModuleId,
                       const MBUF_FILE_LINE_S *pstFl);

}  // namespace krm
