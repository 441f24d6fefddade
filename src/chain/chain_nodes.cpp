#include "chain/chain_internal.h"

namespace krm::chain {

MBUF_S *NewTypedNode(std::uint32_t ulFlag, std::uint16_t usType, std::uint32_t ulModuleId,
                     const MBUF_FILE_LINE_S *pstFl, BlockInit eBlock) {
    MBUF_S *node = NewNode(ulFlag, ulModuleId, pstFl, eBlock);
    if (node != nullptr) {
        node->usType = usType;
    }
    return node;
}

MBUF_S *NewClusterNode(std::uint16_t usType, std::uint32_t ulSize, std::uint32_t ulRefCnt,
                       std::uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFl) {
    MBUF_S *node = NewTypedNode(0, usType, ulModuleId, pstFl);
    if (node == nullptr) {
        return nullptr;
    }
    if (!AttachBuffer(node, ulSize, ulModuleId, pstFl)) {
        ReleaseNode(node, pstFl);
        return nullptr;
    }
    node->ulExtRefCnt = ulRefCnt;
    return node;
}

void DropExtBuffer(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl) {
    if (pstMbuf->pucExtBuf != nullptr) {
        (void)MBUF_MemFree_fl(pstMbuf->pucExtBuf, pstFl);
    }
    pstMbuf->pucExtBuf = nullptr;
    pstMbuf->ulExtSize = 0;
    pstMbuf->ulFlag &= ~MBUF_EXT;
}

void ReleaseNodeAndBuffer(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl) {
    if (HasExt(pstMbuf)) {
        DropExtBuffer(pstMbuf, pstFl);
    }
    ReleaseNode(pstMbuf, pstFl);
}

void FreeOne(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFl) {
    pstMbuf->pstNext = nullptr;
    MBUF_Free(pstMbuf, pstFl);
}

bool ReturnEmptyHeadInline(MBUF_S *pstHead, const MBUF_FILE_LINE_S *pstFl) {
    if (pstHead->ulDataLen != 0 || !HasExt(pstHead)) {
        return false;
    }
    DropExtBuffer(pstHead, pstFl);
    pstHead->pucData = pstHead->aucHdrInlineData;
    return true;
}

}  // namespace krm::chain
