// A packet rebuilt from the forwarding path's vector: the pipe receive's
// walk over the vector's entries. What differs from a pipe is only where the
// pieces come from and that an external node's ulExtSize is the length of the
// entry after its buffer's own. The vector's words are trusted as far as the
// buffers the entries point at reach; nothing is freed on failure.
#include <cstdint>

#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"
#include "pipe/rebuild.h"

namespace krm::hpc {
namespace {

pipe::RebuildMode Mode(uint32_t ulMemId, const char *pcFileName, uint32_t ulLine) {
    pipe::RebuildMode mode;
    mode.ulMemId = ulMemId;
    mode.pcFileName = pcFileName;
    mode.ulLine = ulLine;
    mode.bExtSizeFromNextEntry = true;
    return mode;
}

// Data that lies in the node itself beyond its inline room: what the
// rebuild moves into a buffer of its own.
bool NeedsOwnBuffer(const MBUF_S *pstMbuf) {
    return (pstMbuf->ulFlag & MBUF_EXT) == 0 &&
           static_cast<uint64_t>(pstMbuf->ulRsv2) + pstMbuf->ulDataLen > kNodeLinkOffset;
}

}  // namespace
}  // namespace krm::hpc

using namespace krm;

extern "C" {

MBUF_API uint32_t MBUF_HPC_Vector2PacketDataNeedExt(MBUF_S *pstMbuf, uint32_t ulMemId,
                                                    uint32_t *pbAllocated, const char *pcFileName,
                                                    uint32_t ulLine) {
    if (pstMbuf == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    bool bAllocated = false;
    const uint32_t rc =
        pipe::MakeRoom(pstMbuf, hpc::Mode(ulMemId, pcFileName, ulLine), 0, "", &bAllocated);
    if (pbAllocated != nullptr) {
        *pbAllocated = bAllocated ? 1u : 0u;
    }
    return rc;
}

MBUF_API uint32_t MBUF_HPC_Vector2PacketDataIfExt(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector,
                                                  uint32_t *pulIndex, uint32_t bAllocated) {
    if (pstMbuf == nullptr || pulIndex == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    if (pstVector == nullptr && (pstMbuf->ulFlag & MBUF_EXT) != 0 && bAllocated == 0) {
        return MBUF_ERR_EXT_MISSING;
    }
    // The step alone has no entry count: the caller's vector holds the
    // external buffer's entry and the one after it.
    const uint32_t ulCount = *pulIndex + 1;
    const pipe::PieceList pieces = pipe::PieceList::FromVector(pstVector, ulCount + 1);
    return pipe::LinkNodeData(pstMbuf, pieces, ulCount, pulIndex, bAllocated != 0,
                              hpc::Mode(0, nullptr, 0));
}

MBUF_API uint32_t MBUF_HPC_Vector2PacketData(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector,
                                             uint32_t ulCount, const char *pcFileName,
                                             uint32_t ulLine) {
    if (pstMbuf == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    if (ulCount == 0) {
        return MBUF_OK;
    }
    if (pstVector == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    return pipe::WalkNodes(pstMbuf, pipe::PieceList::FromVector(pstVector, ulCount), ulCount,
                           hpc::NeedsOwnBuffer(pstMbuf), hpc::Mode(0, pcFileName, ulLine));
}

MBUF_API uint32_t MBUF_HPC_Vector2Packet_fl(MBUF_S **ppstMbuf, MBUF_IOVEC_S *pstVector,
                                            uint32_t ulCount, const char *pcFileName,
                                            uint32_t ulLine) {
    if (ppstMbuf == nullptr || pstVector == nullptr || ulCount == 0) {
        return ppstMbuf == nullptr ? MBUF_ERR_BAD_ARG : MBUF_ERR_INVALID_MBUF;
    }
    // The head whose data was just moved keeps the buffer it was given: the
    // walk is told so rather than reading the head's flags again.
    return pipe::Rebuild(ppstMbuf, pipe::PieceList::FromVector(pstVector, ulCount),
                         hpc::Mode(0, pcFileName, ulLine));
}

}  // extern "C"
