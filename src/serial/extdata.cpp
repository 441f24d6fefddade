// External data blocks: a caller that builds a large packet asks for a list
// of blocks sized for its length, fills them, and turns the list into a
// packet whose nodes take the blocks over as their external buffers without
// a copy. Blocks come from the pipe-buffer allocator, like nodes, so that the
// platform knows each block's size and the packet can travel as it is.
#include <cstdint>

#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm {
namespace {

inline constexpr std::uint32_t kMaxBlock = MBUF_EXTDATA_MAX_BLOCK;
inline constexpr std::uint32_t kMinBlock = MBUF_EXTDATA_MIN_BLOCK;

void ClearEntry(MBUF_EXTDATA_BLOCK_S *pstEntry) {
    pstEntry->pucData = nullptr;
    pstEntry->ulLen = 0;
}

// Releases the blocks of the first ulCount entries only: entries the walk
// never reached still hold whatever the caller left there.
void FreeFirst(MBUF_EXTDATA_LIST_S *pstList, std::uint32_t ulCount, const char *pcFileName,
               std::uint32_t ulLine) {
    MBUF_EXTDATA_LIST_S stHead{ulCount, 0, pstList->pstBlock};
    MBUF_ExtDataBlockFree_fl(&stHead, pcFileName, ulLine);
}

// Hangs a block from a node as its external buffer, sized as the platform
// knows it. False when the platform does not know the block, or the entry
// claims more data than the block holds (the node would reach past it).
bool GiveBlock(MBUF_S *pstNode, const MBUF_EXTDATA_BLOCK_S &stEntry) {
    const std::uint32_t ulSize = KRM_DbufLengthGET(stEntry.pucData);
    if (ulSize == 0 || stEntry.ulLen > ulSize) {
        return false;
    }
    pstNode->pucExtBuf = stEntry.pucData;
    pstNode->pucData = stEntry.pucData;
    pstNode->ulExtSize = ulSize;
    pstNode->ulExtRefCnt = 1;
    pstNode->ulExtRsv0 = 0;
    pstNode->ulExtRsv1 = 0;
    pstNode->ulFlag |= MBUF_EXT;
    pstNode->pstNext = nullptr;
    pstNode->ulDataLen = stEntry.ulLen;
    return true;
}

// Links every filled entry into the chain behind pstHead: entry 0 into the
// head itself, every other into a new node. False on the first failure; the
// chain built so far stays linked for the caller to release.
bool LinkBlocks(MBUF_S *pstHead, MBUF_EXTDATA_LIST_S *pstList, std::uint32_t ulModuleId,
                const MBUF_FILE_LINE_S *pstFl) {
    MBUF_S *pstTail = pstHead;
    for (std::uint32_t i = 0; i < pstList->ulBlockNum; ++i) {
        MBUF_EXTDATA_BLOCK_S &stEntry = pstList->pstBlock[i];
        if (stEntry.pucData == nullptr || stEntry.ulLen == 0) {
            continue;
        }
        if (KRM_DbufLengthGET(stEntry.pucData) == 0) {
            return false;
        }
        MBUF_S *pstNode = pstHead;
        if (i != 0) {
            pstNode = NewNode(0, ulModuleId, pstFl);
            if (pstNode == nullptr) {
                return false;
            }
            pstTail->pstNext = pstNode;
            pstTail = pstNode;
        }
        if (!GiveBlock(pstNode, stEntry)) {
            return false;
        }
        pstHead->ulTotalDataLen += stEntry.ulLen;
        ClearEntry(&stEntry);
    }
    return true;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_GetExtDataBlockNum(uint32_t ulLen) {
    if (ulLen == 0) {
        krm::ReportNoText(krm::kModKrmMbufBas, 2781);
        return 1;
    }
    return (ulLen - 1) / krm::kMaxBlock + 1;
}

MBUF_API uint32_t MBUF_ExtDataBlockAlloc_fl(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId,
                                            const char *pcFileName, uint32_t ulLine) {
    if (pstList == nullptr) {
        return MBUF_ERR_EXTDATA_NULL_LIST;
    }
    if (pstList->ulBlockNum == 0 || pstList->ulTotalLen == 0 || pstList->pstBlock == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    if (pstList->ulTotalLen > uint64_t{pstList->ulBlockNum} * krm::kMaxBlock) {
        return MBUF_ERR_TOO_SMALL;
    }
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    uint32_t ulRemaining = pstList->ulTotalLen;
    uint32_t i = 0;
    for (; ulRemaining != 0 && i < pstList->ulBlockNum; ++i) {
        MBUF_EXTDATA_BLOCK_S &stEntry = pstList->pstBlock[i];
        // A remainder below a cluster still gets a whole cluster.
        const uint32_t ulData = ulRemaining < krm::kMaxBlock ? ulRemaining : krm::kMaxBlock;
        const uint32_t ulSize = ulData < krm::kMinBlock ? krm::kMinBlock : ulData;
        stEntry.pucData = static_cast<uint8_t *>(MBUF_MemAlloc_fl(ulSize, ulModuleId, &stFl));
        if (stEntry.pucData == nullptr) {
            krm::ClearEntry(&stEntry);
            krm::FreeFirst(pstList, i, pcFileName, ulLine);
            return MBUF_ERR_NOMEM;
        }
        stEntry.ulLen = ulData;
        ulRemaining -= ulData;
    }
    for (; i < pstList->ulBlockNum; ++i) {
        krm::ClearEntry(&pstList->pstBlock[i]);
    }
    return MBUF_OK;
}

MBUF_API uint32_t MBUF_ExtDataBlockAlloc(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId) {
    return MBUF_ExtDataBlockAlloc_fl(pstList, ulModuleId, krm::wrap::kExtDataBlockAlloc.pcName,
                                     krm::wrap::kExtDataBlockAlloc.ulLine);
}

MBUF_API void MBUF_ExtDataBlockFree_fl(MBUF_EXTDATA_LIST_S *pstList, const char *pcFileName,
                                       uint32_t ulLine) {
    if (pstList == nullptr || pstList->pstBlock == nullptr) {
        return;
    }
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    for (uint32_t i = 0; i < pstList->ulBlockNum; ++i) {
        MBUF_EXTDATA_BLOCK_S &stEntry = pstList->pstBlock[i];
        if (stEntry.pucData != nullptr) {
            (void)MBUF_MemFree_fl(stEntry.pucData, &stFl);
            krm::ClearEntry(&stEntry);
        }
    }
}

MBUF_API MBUF_S *MBUF_CreateByExtDataBlock_fl(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId,
                                              const char *pcFileName, uint32_t ulLine) {
    if (pstList == nullptr || pstList->ulBlockNum == 0 || pstList->ulTotalLen == 0 ||
        pstList->pstBlock == nullptr) {
        return nullptr;
    }
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    MBUF_S *pstHead = krm::NewNode(MBUF_PKTHDR, ulModuleId, &stFl);
    if (pstHead == nullptr) {
        MBUF_ExtDataBlockFree_fl(pstList, pcFileName, ulLine);
        return nullptr;
    }
    if (!krm::LinkBlocks(pstHead, pstList, ulModuleId, &stFl)) {
        MBUF_ExtDataBlockFree_fl(pstList, pcFileName, ulLine);
        MBUF_Free(pstHead, &stFl);
        return nullptr;
    }
    return pstHead;
}

MBUF_API MBUF_S *MBUF_CreateByExtDataBlock(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId) {
    return MBUF_CreateByExtDataBlock_fl(pstList, ulModuleId,
                                        krm::wrap::kCreateByExtDataBlock.pcName,
                                        krm::wrap::kCreateByExtDataBlock.ulLine);
}

}  // extern "C"
