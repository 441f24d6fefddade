// External buffers for received nodes. A node that arrives through a pipe or
// a vector carries its data at the offset the sender recorded in ulRsv2;
// when that data does not fit the node's own inline area, it moves into a
// cluster taken from the same owner as the pipe buffer the node came in.
#include <cstdint>

#include "core/node.h"
#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm {
namespace {

inline constexpr std::uint32_t kAllocExtBufFail = 0xFFFFFFFFu;

// The node's memory as the platform knows it; a node that is not a pipe
// buffer start (a caller's own node) is taken to be one node long.
std::uint32_t NodeMemoryLen(const MBUF_S *pstMbuf) {
    const std::uint32_t ulLen = KRM_DbufLengthGET(pstMbuf);
    return ulLen != 0 ? ulLen : kNodeSize;
}

// True when [ulRsv2, ulRsv2 + ulDataLen) lies inside the node's memory and,
// measured from the inline area, inside a cluster with its head room.
// The cluster test alone would let a node that claims 1960 bytes be read far
// past its 936; the received node's own memory is what bounds the move.
bool DataMovable(const MBUF_S *pstMbuf, std::uint32_t *pulDistance) {
    const std::uint64_t ullStart = pstMbuf->ulRsv2;
    const std::uint64_t ullEnd = ullStart + pstMbuf->ulDataLen;
    const std::uint32_t ulInline =
        (pstMbuf->ulFlag & MBUF_PKTHDR) != 0 ? kHdrInlineOffset : kPlainInlineOffset;
    if (ullStart < ulInline || ullEnd > NodeMemoryLen(pstMbuf)) {
        return false;
    }
    const std::uint64_t ullDistance = ullStart - ulInline;
    if (ullDistance > MBUF_CLUSTER_SIZE || pstMbuf->ulDataLen > MBUF_CLUSTER_SIZE ||
        ullDistance + pstMbuf->ulDataLen > MBUF_CLUSTER_SIZE) {
        return false;
    }
    *pulDistance = static_cast<std::uint32_t>(ullDistance);
    return true;
}

// The link words hold the sender's addresses; clearing them leaves the node
// with no stale pointer before its new buffer is hung on.
void ClearLinkWords(MBUF_S *pstMbuf) {
    auto *pucNode = reinterpret_cast<std::uint8_t *>(pstMbuf);
    (void)memset_s(pucNode + kNodeLinkOffset, kNodeLinkLen, 0, kNodeLinkLen);
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_GetMemHandleByMBuf(MBUF_S *pstMbuf, uint32_t ulArg1, uint32_t ulArg2,
                                          uint32_t ulArg3) {
    // The service's own result is not looked at: a buffer it does not know
    // leaves the handle 0, which the callers pass on as it is.
    uint32_t ulHandle = 0;
    (void)TQM_DbufAllocIdGet(pstMbuf, &ulHandle, ulArg1, ulArg2, ulArg3);
    return ulHandle;
}

MBUF_API uint32_t MBUF_AllocExtBuf_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const char *pcFileName,
                                      uint32_t ulLine) {
    (void)ulModuleId;  // the buffer belongs to the node's owner, not the caller
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_EXT) != 0) {
        return krm::kAllocExtBufFail;
    }
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    const uint32_t ulHandle = MBUF_GetMemHandleByMBuf(pstMbuf, 0, 0, 0);
    auto *pucBuf = static_cast<uint8_t *>(MBUF_MemAlloc_fl(MBUF_CLUSTER_SIZE, ulHandle, &stFl));
    if (pucBuf == nullptr) {
        return krm::kAllocExtBufFail;
    }
    uint32_t ulDistance = 0;
    if (!krm::DataMovable(pstMbuf, &ulDistance)) {
        (void)MBUF_MemFree_fl(pucBuf, &stFl);
        return krm::kAllocExtBufFail;
    }
    const uint8_t *pucSrc = reinterpret_cast<uint8_t *>(pstMbuf) + pstMbuf->ulRsv2;
    (void)memmove_s(pucBuf + ulDistance, MBUF_CLUSTER_SIZE - ulDistance, pucSrc,
                    pstMbuf->ulDataLen);
    krm::ClearLinkWords(pstMbuf);
    pstMbuf->pucData = pucBuf + ulDistance;
    pstMbuf->pucExtBuf = pucBuf;
    pstMbuf->ulExtSize = MBUF_CLUSTER_SIZE;
    pstMbuf->ulExtRefCnt = 1;
    pstMbuf->ulExtRsv0 = 0;
    pstMbuf->ulExtRsv1 = 0;
    pstMbuf->ulFlag |= MBUF_EXT;
    return 0;
}

}  // extern "C"
