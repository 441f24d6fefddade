// Growing a packet at either end and cutting it at the head, the tail or in
// the middle. The packet-header node always stays the first node; the head's
// ulTotalDataLen follows every change of a node's ulDataLen.
#include <cstdint>
#include <limits>

#include "chain/chain_internal.h"
#include "core/wrapper_sites.h"
#include "krm_mbuf/platform.h"

namespace krm::chain {
namespace {

// A cut longer than any packet empties the packet; clamping keeps the signed
// length of the cut routine positive for every u32 the caller may pass.
std::int32_t ClampCut(std::uint32_t ulLen) {
    constexpr auto kMax = static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max());
    return static_cast<std::int32_t>(ulLen > kMax ? kMax : ulLen);
}

// Hands the head's data and storage to pstNew and gives the head pstNew's
// cluster, holding nothing yet. pstNew comes with a 1960-byte cluster.
void MoveHeadDataBehind(MBUF_S *pstHead, MBUF_S *pstNew) {
    std::uint8_t *cluster = pstNew->pucExtBuf;
    if (!HasExt(pstHead)) {
        // The head's inline bytes move to the start of pstNew's inline area;
        // the head's descriptor words overlay its inline area, so they are
        // written only once the bytes are out.
        pstNew->ulFlag &= ~MBUF_EXT;
        pstNew->pucExtBuf = nullptr;
        pstNew->pucData = pstNew->aucInlineData;
        if (pstHead->ulDataLen != 0) {
            (void)memmove_s(pstNew->pucData, MBUF_PLAIN_INLINE_LEN, pstHead->pucData,
                            pstHead->ulDataLen);
        }
        pstNew->ulDataLen = pstHead->ulDataLen;
        pstHead->ulFlag |= MBUF_EXT;
    } else {
        // The head's buffer changes owner with its whole descriptor.
        pstNew->stExtInfo = pstHead->stExtInfo;
        pstNew->pucExtBuf = pstHead->pucExtBuf;
        pstNew->ulExtRsv0 = pstHead->ulExtRsv0;
        pstNew->ulExtRsv1 = pstHead->ulExtRsv1;
        pstNew->pucData = pstHead->pucData;
        pstNew->ulDataLen = pstHead->ulDataLen;
    }
    pstHead->aulExtInfoRsv[0] = 0;
    pstHead->aulExtInfoRsv[1] = 0;
    pstHead->aulExtInfoRsv[2] = 0;
    pstHead->ulExtSize = MBUF_CLUSTER_SIZE;
    pstHead->ulExtRefCnt = 1;
    pstHead->pucExtBuf = cluster;
    pstHead->ulExtRsv0 = 0;
    pstHead->ulExtRsv1 = 0;
}

}  // namespace
}  // namespace krm::chain

using namespace krm::chain;

extern "C" {

uint8_t *MBUF_PrependMemorySpace_fl(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                                    const char *pcFileName, uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf) || ulLen > MBUF_GROW_MAX_LEN) {
        return nullptr;
    }
    if ((pstMbuf->ulFlag & MBUF_ROOMLOCK) == 0 &&
        ulLen <= HeadRoom(pstMbuf, pstMbuf->aucHdrInlineData)) {
        pstMbuf->pucData -= ulLen;
        pstMbuf->ulDataLen += ulLen;
        pstMbuf->ulTotalDataLen += ulLen;
        return pstMbuf->pucData;
    }
    // The new bytes go at the end of a fresh cluster in the head, so later
    // prepends find room in front of them; the old data follows in a second
    // node.
    uint32_t capacity = 0;
    MBUF_S *second =
        MBUF_AllocateMBufNode_fl(MBUF_CLUSTER_SIZE, 0, &capacity, ulModuleId, pcFileName, ulLine);
    if (second == nullptr) {
        return nullptr;
    }
    MoveHeadDataBehind(pstMbuf, second);
    pstMbuf->ulDataLen = ulLen;
    pstMbuf->pucData = pstMbuf->pucExtBuf + (MBUF_CLUSTER_SIZE - ulLen);
    second->pstNext = pstMbuf->pstNext;
    pstMbuf->pstNext = second;
    pstMbuf->ulTotalDataLen += ulLen;
    return pstMbuf->pucData;
}

uint8_t *MBUF_PrependMemorySpace(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId) {
    return MBUF_PrependMemorySpace_fl(pstMbuf, ulLen, ulModuleId,
                                      krm::wrap::kPrependMemorySpace.pcName,
                                      krm::wrap::kPrependMemorySpace.ulLine);
}

uint8_t *MBUF_AppendMemorySpace_fl(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                                   const char *pcFileName, uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf) || ulLen > MBUF_GROW_MAX_LEN) {
        return nullptr;
    }
    MBUF_S *last = pstMbuf;
    while (last->pstNext != nullptr) {
        last = last->pstNext;
    }
    // An inline last node is used whatever MBUF_ROOMLOCK says; an exact fit
    // is not used, unlike prepend.
    const bool usable = !HasExt(last) || (last->ulFlag & MBUF_ROOMLOCK) == 0;
    if (usable && TailRoom(last) > ulLen) {
        uint8_t *end = last->pucData + last->ulDataLen;
        last->ulDataLen += ulLen;
        pstMbuf->ulTotalDataLen += ulLen;
        return end;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    // The cluster's reference count takes the node type (1 for every node the
    // allocators make); kept as it stands.
    MBUF_S *node = NewClusterNode(last->usType, MBUF_CLUSTER_SIZE, last->usType, ulModuleId, &fl);
    if (node == nullptr) {
        return nullptr;
    }
    node->ulDataLen = ulLen;
    last->pstNext = node;
    pstMbuf->ulTotalDataLen += ulLen;
    return node->pucData;
}

uint8_t *MBUF_AppendMemorySpace(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId) {
    return MBUF_AppendMemorySpace_fl(pstMbuf, ulLen, ulModuleId,
                                     krm::wrap::kAppendMemorySpace.pcName,
                                     krm::wrap::kAppendMemorySpace.ulLine);
}

void MBUF_CutDataBySpecifiedLength(MBUF_S *pstMbuf, int32_t lLen,
                                   const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstMbuf == nullptr || lLen == 0) {
        return;
    }
    const bool isHead = IsPktHdr(pstMbuf);
    if (lLen > 0) {
        // From the front: emptied nodes stay in the chain with length 0 and
        // their pucData where it was; the node the cut ends in is advanced.
        uint32_t rest = static_cast<uint32_t>(lLen);
        for (MBUF_S *node = pstMbuf; node != nullptr && rest != 0; node = node->pstNext) {
            if (node->ulDataLen > rest) {
                node->pucData += rest;
                node->ulDataLen -= rest;
                rest = 0;
            } else {
                rest -= node->ulDataLen;
                node->ulDataLen = 0;
            }
        }
        if (isHead) {
            pstMbuf->ulTotalDataLen -= static_cast<uint32_t>(lLen) - rest;
        }
        return;
    }
    const uint32_t cut = static_cast<uint32_t>(-static_cast<int64_t>(lLen));
    uint32_t sum = 0;
    MBUF_S *last = pstMbuf;
    for (MBUF_S *node = pstMbuf; node != nullptr; node = node->pstNext) {
        sum += node->ulDataLen;
        last = node;
    }
    if (last->ulDataLen >= cut) {
        last->ulDataLen -= cut;
        if (isHead) {
            pstMbuf->ulTotalDataLen -= cut;
        }
        return;
    }
    // The new end lies in an earlier node: it keeps what is left and every
    // node behind it is released.
    uint32_t left = sum > cut ? sum - cut : 0;
    if (isHead) {
        pstMbuf->ulTotalDataLen = left;
    }
    MBUF_S *keeper = pstMbuf;
    while (keeper->ulDataLen < left) {
        left -= keeper->ulDataLen;
        keeper = keeper->pstNext;
    }
    keeper->ulDataLen = left;
    if (keeper->pstNext != nullptr) {
        MBUF_Free(keeper->pstNext, pstFileLine);
        keeper->pstNext = nullptr;
    }
}

void MBUF_FreeNoUseMemory_fl(MBUF_S *pstMbuf, const char *pcFileName, uint32_t ulLine) {
    if (pstMbuf == nullptr) {
        return;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    (void)ReturnEmptyHeadInline(pstMbuf, &fl);
    TidyLaterNodes(pstMbuf, &fl, [](MBUF_S *, MBUF_S *) { return true; });
}

uint32_t MBUF_CutHead_fl(MBUF_S *pstMbuf, uint32_t ulLen, const char *pcFileName, uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    MBUF_CutDataBySpecifiedLength(pstMbuf, ClampCut(ulLen), &fl);
    MBUF_FreeNoUseMemory_fl(pstMbuf, pcFileName, ulLine);
    return MBUF_OK;
}

uint32_t MBUF_CutHead(MBUF_S *pstMbuf, uint32_t ulLen) {
    return MBUF_CutHead_fl(pstMbuf, ulLen, krm::wrap::kCutHead.pcName, krm::wrap::kCutHead.ulLine);
}

uint32_t MBUF_CutTail_fl(MBUF_S *pstMbuf, uint32_t ulLen, const char *pcFileName, uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    MBUF_CutDataBySpecifiedLength(pstMbuf, -ClampCut(ulLen), &fl);
    MBUF_FreeNoUseMemory_fl(pstMbuf, pcFileName, ulLine);
    return MBUF_OK;
}

uint32_t MBUF_CutTail(MBUF_S *pstMbuf, uint32_t ulLen) {
    return MBUF_CutTail_fl(pstMbuf, ulLen, krm::wrap::kCutTail.pcName, krm::wrap::kCutTail.ulLine);
}

uint32_t MBUF_CutPart_fl(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen, const char *pcFileName,
                         uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (ulOffset > pstMbuf->ulTotalDataLen ||
        uint64_t{ulOffset} + ulLen > uint64_t{pstMbuf->ulTotalDataLen}) {
        return MBUF_ERR_LENGTH;
    }
    // A node whose length equals what is left of the offset is the one found:
    // the cut then starts at its end.
    MBUF_S *node = pstMbuf;
    uint32_t off = ulOffset;
    while (node->ulDataLen < off) {
        off -= node->ulDataLen;
        node = node->pstNext;
        if (node == nullptr) {
            return MBUF_ERR_CHAIN_END;
        }
    }
    if (off + ulLen <= node->ulDataLen) {
        // Within one node: close the gap, no clean-up pass.
        const uint32_t behind = node->ulDataLen - off - ulLen;
        if (behind != 0 && ulLen != 0) {
            (void)memmove_s(node->pucData + off, behind, node->pucData + off + ulLen, behind);
        }
        node->ulDataLen -= ulLen;
        pstMbuf->ulTotalDataLen -= ulLen;
        return MBUF_OK;
    }
    uint32_t rest = ulLen - (node->ulDataLen - off);
    node->ulDataLen = off;
    for (node = node->pstNext; node != nullptr && rest != 0; node = node->pstNext) {
        if (node->ulDataLen <= rest) {
            rest -= node->ulDataLen;
            node->ulDataLen = 0;
            continue;
        }
        // The node the cut ends in keeps its pucData; its surviving bytes
        // move to the front.
        const uint32_t behind = node->ulDataLen - rest;
        (void)memmove_s(node->pucData, behind, node->pucData + rest, behind);
        node->ulDataLen = behind;
        rest = 0;
    }
    pstMbuf->ulTotalDataLen -= ulLen;
    MBUF_FreeNoUseMemory_fl(pstMbuf, pcFileName, ulLine);
    return MBUF_OK;
}

uint32_t MBUF_CutPart(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen) {
    return MBUF_CutPart_fl(pstMbuf, ulOffset, ulLen, krm::wrap::kCutPart.pcName,
                           krm::wrap::kCutPart.ulLine);
}

void MBUF_CutContinueHead(MBUF_S *pstMbuf, uint32_t ulLen) {
    // The caller guarantees the node holds ulLen bytes; only NULL is refused.
    if (pstMbuf == nullptr) {
        return;
    }
    pstMbuf->pucData += ulLen;
    pstMbuf->ulDataLen -= ulLen;
    if (IsPktHdr(pstMbuf)) {
        pstMbuf->ulTotalDataLen -= ulLen;
    }
}

}  // extern "C"
