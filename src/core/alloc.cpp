// Node allocators. Every node has the one fixed size so that the platform
// serves it from one pool; data that does not fit inline goes to an external
// buffer: a standard 1960-byte cluster, or (for a header node only) a buffer
// of exactly the requested size. A node is never left half-built: if its
// buffer cannot be had, the node goes back as well.
#include <cstdint>

#include "core/node.h"
#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"

namespace krm {

MBUF_S *NewNode(std::uint32_t ulFlag, std::uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFl,
                BlockInit eBlock) {
    auto *pstMbuf = static_cast<MBUF_S *>(MBUF_MemAlloc_fl(kNodeSize, ulModuleId, pstFl));
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    InitNode(pstMbuf, ulFlag, MBUF_TYPE_DATA, eBlock);
    // The initialiser leaves the external-buffer words alone; a node fresh
    // from the pool must not carry a stale buffer pointer into a release.
    pstMbuf->pucExtBuf = nullptr;
    pstMbuf->ulExtRsv0 = 0;
    pstMbuf->ulExtRsv1 = 0;
    return pstMbuf;
}

bool AttachBuffer(MBUF_S *pstMbuf, std::uint32_t ulSize, std::uint32_t ulModuleId,
                  const MBUF_FILE_LINE_S *pstFl) {
    auto *pucBuf = static_cast<std::uint8_t *>(MBUF_MemAlloc_fl(ulSize, ulModuleId, pstFl));
    if (pucBuf == nullptr) {
        return false;
    }
    pstMbuf->pucExtBuf = pucBuf;
    pstMbuf->pucData = pucBuf;
    pstMbuf->ulFlag |= MBUF_EXT;
    pstMbuf->ulExtRsv0 = 0;
    pstMbuf->ulExtRsv1 = 0;
    pstMbuf->aulExtInfoRsv[0] = 0;
    pstMbuf->aulExtInfoRsv[1] = 0;
    pstMbuf->aulExtInfoRsv[2] = 0;
    pstMbuf->ulExtSize = ulSize;
    pstMbuf->ulExtRefCnt = 1;
    return true;
}

void ReleaseNode(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl) {
    (void)MBUF_MemFree_fl(pstMbuf, pstFl);
}

namespace {

// A node of the given kind with an external buffer of ulBufSize, or inline
// when ulBufSize is 0.
MBUF_S *NodeWithStorage(std::uint32_t ulFlag, std::uint32_t ulBufSize, std::uint32_t ulModuleId,
                        const MBUF_FILE_LINE_S *pstFl) {
    MBUF_S *pstMbuf = NewNode(ulFlag, ulModuleId, pstFl);
    if (pstMbuf == nullptr || ulBufSize == 0) {
        return pstMbuf;
    }
    if (!AttachBuffer(pstMbuf, ulBufSize, ulModuleId, pstFl)) {
        ReleaseNode(pstMbuf, pstFl);
        return nullptr;
    }
    return pstMbuf;
}

}  // namespace

MBUF_S *AllocHeaderNode(std::uint32_t ulSize, std::uint32_t *pulCapacity, std::uint32_t ulModuleId,
                        const MBUF_FILE_LINE_S *pstFl) {
    std::uint32_t ulBufSize = 0;
    std::uint32_t ulCapacity = MBUF_PKTHDR_INLINE_LEN;
    if (ulSize > MBUF_PKTHDR_INLINE_LEN) {
        ulBufSize = ulSize < MBUF_CLUSTER_SIZE ? MBUF_CLUSTER_SIZE : ulSize;
        ulCapacity = ulBufSize;
    }
    if (pulCapacity != nullptr) {
        *pulCapacity = ulCapacity;
    }
    return NodeWithStorage(MBUF_PKTHDR, ulBufSize, ulModuleId, pstFl);
}

MBUF_S *AllocPlainNode(std::uint32_t ulSize, std::uint32_t *pulCapacity, std::uint32_t ulModuleId,
                       const MBUF_FILE_LINE_S *pstFl) {
    // A plain node never gets an exactly sized buffer: callers needing more
    // than a cluster chain further nodes.
    const std::uint32_t ulBufSize = ulSize > MBUF_PKTHDR_INLINE_LEN ? MBUF_CLUSTER_SIZE : 0;
    if (pulCapacity != nullptr) {
        *pulCapacity = ulBufSize != 0 ? ulBufSize : MBUF_PLAIN_INLINE_LEN;
    }
    return NodeWithStorage(0, ulBufSize, ulModuleId, pstFl);
}

}  // namespace krm

extern "C" {

MBUF_API MBUF_S *MBUF_AllocateMBufHeader_fl(uint32_t ulSize, uint32_t ulRsv, uint32_t *pulCapacity,
                                            uint32_t ulModuleId, const char *pcFileName,
                                            uint32_t ulLine) {
    (void)ulRsv;
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    return krm::AllocHeaderNode(ulSize, pulCapacity, ulModuleId, &stFl);
}

MBUF_API MBUF_S *MBUF_AllocateMBufNode_fl(uint32_t ulSize, uint32_t ulRsv, uint32_t *pulCapacity,
                                          uint32_t ulModuleId, const char *pcFileName,
                                          uint32_t ulLine) {
    (void)ulRsv;
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    return krm::AllocPlainNode(ulSize, pulCapacity, ulModuleId, &stFl);
}

MBUF_API int32_t MBUF_AllocateCluster_fl(MBUF_S *pstMbuf, int32_t lSize, uint32_t ulModuleId,
                                         const char *pcFileName, uint32_t ulLine) {
    if (pstMbuf == nullptr || lSize <= 0) {
        return -1;
    }
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    if ((pstMbuf->ulFlag & MBUF_EXT) != 0) {
        // The old data is dropped, not moved: the caller refills the node.
        if (pstMbuf->pucExtBuf != nullptr) {
            (void)MBUF_MemFree_fl(pstMbuf->pucExtBuf, &stFl);
            pstMbuf->pucExtBuf = nullptr;
        }
        pstMbuf->ulFlag &= ~MBUF_EXT;
        pstMbuf->ulExtSize = 0;
        // pucData must not keep pointing into the released buffer should
        // the new one not come.
        pstMbuf->pucData = krm::InlineStart(pstMbuf);
    }
    const auto ulSize = static_cast<uint32_t>(lSize);
    const uint32_t ulBufSize = ulSize > MBUF_CLUSTER_SIZE ? ulSize : MBUF_CLUSTER_SIZE;
    auto *pucBuf = static_cast<uint8_t *>(MBUF_MemAlloc_fl(ulBufSize, ulModuleId, &stFl));
    if (pucBuf == nullptr) {
        return -1;
    }
    // The three leading descriptor words keep whatever they held.
    pstMbuf->pucExtBuf = pucBuf;
    pstMbuf->pucData = pucBuf;
    pstMbuf->ulExtSize = ulBufSize;
    pstMbuf->ulFlag |= MBUF_EXT;
    pstMbuf->ulExtRsv0 = 0;
    pstMbuf->ulExtRsv1 = 0;
    pstMbuf->ulExtRefCnt = 1;
    return 0;
}

MBUF_API MBUF_S *MBUF_AddPktHdr_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const char *pcFileName,
                                   uint32_t ulLine) {
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) != 0) {
        return pstMbuf;
    }
    if (pstMbuf->ucMagic != MBUF_MAGIC_LIVE) {
        return nullptr;
    }
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    uint32_t ulCapacity = 0;
    MBUF_S *pstHead = krm::AllocHeaderNode(0, &ulCapacity, ulModuleId, &stFl);
    if (pstHead == nullptr) {
        return nullptr;
    }
    pstHead->ulDataLen = 0;
    pstHead->ulTotalDataLen = MBUF_CalcDataLength(pstMbuf);
    pstHead->pstNext = pstMbuf;
    return pstHead;
}

}  // extern "C"
