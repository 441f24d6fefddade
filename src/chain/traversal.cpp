// Read-only walks over a packet's data: a function applied to each piece of a
// range, the node holding an offset, block iteration, the pieces of a range
// listed into a caller's array; and bounded lists of packets.
#include <algorithm>
#include <cstdint>

#include "chain/chain_internal.h"
#include "internal/report.h"

namespace krm::chain {
namespace {

// Calls pfFunc on each piece of ulWant bytes from ulOff inside pstNode. An
// empty node inside the range gives a piece of length 0. *pbRanOut tells
// whether the chain ended with bytes still wanted.
std::uint32_t VisitPieces(MBUF_S *pstNode, std::uint32_t ulOff, std::uint32_t ulWant,
                          MBUF_APPLY_FUNC_PF pfFunc, std::uint32_t ulArg, bool *pbRanOut) {
    for (MBUF_S *node = pstNode; node != nullptr; node = node->pstNext) {
        const std::uint32_t piece = std::min(node->ulDataLen - ulOff, ulWant);
        const std::uint32_t rc = pfFunc(ulArg, node->pucData + ulOff, piece);
        if (rc != 0) {
            return rc;
        }
        ulWant -= piece;
        if (ulWant == 0) {
            return 0;
        }
        ulOff = 0;
    }
    *pbRanOut = true;
    return 0;
}

// The one walk of the block-list functions: visit(pucData, len) on each node
// that contributes bytes to ulLen bytes from ulOff inside pstNode; nodes with
// nothing behind the offset are passed over. A non-zero result of visit ends
// the walk and is returned.
template <class Visit>
std::uint32_t ForEachBlock(MBUF_S *pstNode, std::uint32_t ulOff, std::uint32_t ulLen,
                           Visit &&visit) {
    for (MBUF_S *node = pstNode; node != nullptr && ulLen != 0; node = node->pstNext, ulOff = 0) {
        if (node->ulDataLen <= ulOff) {
            continue;
        }
        const std::uint32_t piece = std::min(node->ulDataLen - ulOff, ulLen);
        const std::uint32_t rc = visit(node->pucData + ulOff, piece);
        if (rc != 0) {
            return rc;
        }
        ulLen -= piece;
    }
    return 0;
}

// Fills the caller's array with entries of one of the two layouts.
template <class Entry>
std::uint32_t FillBlockList(MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                            MBUF_BLOCK_LIST_S *pstList) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (ulLen == 0 || std::uint64_t{ulOffset} + ulLen > pstMbuf->ulTotalDataLen ||
        pstList == nullptr || pstList->pstBlocks == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    std::uint32_t off = ulOffset;
    MBUF_S *node = MBUF_LocateOffsetNode(pstMbuf, &off);
    if (node == nullptr) {
        return MBUF_ERR_NOT_FOUND;
    }
    auto *entries = static_cast<Entry *>(pstList->pstBlocks);
    std::uint32_t filled = 0;
    return ForEachBlock(node, off, ulLen, [&](std::uint8_t *pucData, std::uint32_t ulPiece) {
        if (filled == pstList->ulMaxNum) {
            return MBUF_ERR_TOO_SMALL;
        }
        entries[filled].pucData = pucData;
        entries[filled].ulLen = ulPiece;
        ++filled;
        return MBUF_OK;
    });
}

}  // namespace
}  // namespace krm::chain

using namespace krm::chain;

extern "C" {

uint32_t MBUF_Apply(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen, MBUF_APPLY_FUNC_PF pfFunc,
                    uint32_t ulArg) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (lOffset < 0 || pfFunc == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    MBUF_S *node = pstMbuf;
    auto off = static_cast<uint32_t>(lOffset);
    if (off > 0 && off >= pstMbuf->ulDataLen) {
        // An offset that ends exactly at a node's end starts at the next node.
        while (node != nullptr && node->ulDataLen <= off) {
            off -= node->ulDataLen;
            node = node->pstNext;
            if (off == 0) {
                break;
            }
        }
    }
    // An offset beyond the packet, or at its very end, is not an error here.
    if (node == nullptr || lLen < 1) {
        return MBUF_OK;
    }
    bool ranOut = false;
    return VisitPieces(node, off, static_cast<uint32_t>(lLen), pfFunc, ulArg, &ranOut);
}

uint32_t MBUF_ApplyFuncToSpecifiedData(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                       MBUF_APPLY_FUNC_PF pfFunc, uint32_t ulArg) {
    if (lOffset < 0) {
        krm::Report(krm::kModUipcMbuf, 585, "MBUF ApplyFunc to data, negative iOff %d", lOffset);
    }
    if (lLen < 0) {
        krm::Report(krm::kModUipcMbuf, 586, "MBUF ApplyFunc to data, negative len %d", lLen);
    }
    if (pfFunc == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    // Compared unsigned: a negative offset lies beyond every chain.
    auto off = static_cast<uint32_t>(lOffset);
    MBUF_S *node = pstMbuf;
    while (node != nullptr && node->ulDataLen <= off) {
        off -= node->ulDataLen;
        node = node->pstNext;
    }
    if (node == nullptr) {
        krm::Report(krm::kModUipcMbuf, 589, "MBUF ApplyFunc to data, offset > size of mbuf chain");
        return MBUF_ERR_CHAIN_END;
    }
    if (lLen < 1) {
        return MBUF_OK;
    }
    bool ranOut = false;
    const uint32_t rc = VisitPieces(node, off, static_cast<uint32_t>(lLen), pfFunc, ulArg, &ranOut);
    if (ranOut) {
        krm::Report(krm::kModUipcMbuf, 598, "MBUF ApplyFunc to data, offset > size of mbuf chain");
        return MBUF_ERR_LENGTH;
    }
    return rc;
}

MBUF_S *MBUF_LocateOffsetNode(MBUF_S *pstMbuf, uint32_t *pulOffset) {
    if (pulOffset == nullptr) {
        return nullptr;
    }
    if (*pulOffset == 0) {
        return pstMbuf;
    }
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    if (*pulOffset < pstMbuf->ulDataLen) {
        return pstMbuf;
    }
    MBUF_S *node = pstMbuf;
    for (;;) {
        *pulOffset -= node->ulDataLen;
        node = node->pstNext;
        // What is left ending exactly at a node's end gives the next node,
        // which may be NULL at the packet's end.
        if (*pulOffset == 0 || node == nullptr) {
            return *pulOffset == 0 ? node : nullptr;
        }
        if (node->ulDataLen > *pulOffset) {
            return node;
        }
    }
}

uint32_t MBUF_GetFirstDataBlock(MBUF_S *pstMbuf, MBUF_DATA_BLOCK_S *pstBlock) {
    if (pstBlock == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    *pstBlock = MBUF_DATA_BLOCK_S{};
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    pstBlock->pucData = pstMbuf->pucData;
    pstBlock->ulDataLen = pstMbuf->ulDataLen;
    pstBlock->pstNextNode = pstMbuf->pstNext;
    return MBUF_OK;
}

uint32_t MBUF_GetNextDataBlock(MBUF_DATA_BLOCK_S *pstBlock) {
    if (pstBlock == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    MBUF_S *node = pstBlock->pstNextNode;
    *pstBlock = MBUF_DATA_BLOCK_S{};
    if (node == nullptr) {
        return MBUF_OK;
    }
    if (node->ucMagic != MBUF_MAGIC_LIVE) {
        return MBUF_ERR_INVALID_MBUF;
    }
    pstBlock->pucData = node->pucData;
    pstBlock->ulDataLen = node->ulDataLen;
    pstBlock->pstNextNode = node->pstNext;
    return MBUF_OK;
}

uint32_t MBUF_GetDataBlockNum(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                              uint32_t *pulNum) {
    if (pulNum == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    if (!IsPktHdr(pstMbuf) || ulLen == 0 ||
        uint64_t{ulOffset} + ulLen > MBUF_GetTotalDataLength(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    uint32_t off = ulOffset;
    MBUF_S *node = MBUF_LocateOffsetNode(pstMbuf, &off);
    if (node == nullptr) {
        return MBUF_ERR_INVALID_MBUF;
    }
    uint32_t count = 0;
    (void)ForEachBlock(node, off, ulLen, [&count](uint8_t *, uint32_t) {
        ++count;
        return MBUF_OK;
    });
    *pulNum = count;
    return MBUF_OK;
}

uint32_t MBUF_GetDataBlockInfo(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                               MBUF_BLOCK_LIST_S *pstList) {
    return FillBlockList<MBUF_BLOCK_INFO_S>(pstMbuf, ulOffset, ulLen, pstList);
}

uint32_t MBUF_GetDataBlockForKeyChain(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                                      MBUF_BLOCK_LIST_S *pstList) {
    return FillBlockList<MBUF_KEYCHAIN_BLOCK_S>(pstMbuf, ulOffset, ulLen, pstList);
}

uint32_t MBUF_SlistCreate(MBUF_SLIST_S *pstList, uint32_t ulMaxCount) {
    if (pstList == nullptr) {
        return 1;
    }
    pstList->ulMaxCount = ulMaxCount;
    pstList->pstHead = nullptr;
    pstList->pstTail = nullptr;
    pstList->ulCount = 0;
    return 0;
}

uint32_t MBUF_SlistAppend(MBUF_SLIST_S *pstList, MBUF_S *pstMbuf) {
    if (pstList == nullptr || pstMbuf == nullptr || pstList->ulCount >= pstList->ulMaxCount) {
        return 1;
    }
    pstMbuf->pstNextPkt = nullptr;
    if (pstList->pstHead == nullptr) {
        pstList->pstHead = pstMbuf;
    } else {
        if (pstList->pstTail == nullptr) {
            krm::ReportNoText(krm::kModKrmMbuf, 1562);
            return 1;
        }
        pstList->pstTail->pstNextPkt = pstMbuf;
    }
    pstList->pstTail = pstMbuf;
    ++pstList->ulCount;
    return 0;
}

MBUF_S *MBUF_SlistRemoveFirst(MBUF_SLIST_S *pstList) {
    if (pstList == nullptr || pstList->pstHead == nullptr) {
        return nullptr;
    }
    // The tail is left as it was when the list empties; the next append sets
    // it again.
    MBUF_S *first = pstList->pstHead;
    pstList->pstHead = first->pstNextPkt;
    first->pstNextPkt = nullptr;
    --pstList->ulCount;
    return first;
}

MBUF_S *MBUF_SlistPeekFirst(MBUF_SLIST_S *pstList) {
    return pstList == nullptr ? nullptr : pstList->pstHead;
}

MBUF_S *MBUF_SlistPeekNext(MBUF_SLIST_S *pstList, MBUF_S *pstMbuf) {
    if (pstList == nullptr || pstMbuf == nullptr) {
        return nullptr;
    }
    return pstMbuf->pstNextPkt;
}

}  // extern "C"
