// Joining two packets, splitting one at a byte offset, and cutting one so that
// its first part needs no more than a given number of memory blocks. Joining
// copies small trailing data into free inline room instead of linking tiny
// nodes; splitting copies the bytes behind the point into new storage.
#include <cstdint>

#include "chain/chain_internal.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/platform.h"

namespace krm::chain {
namespace {

// Where a split cut the chain, so that a caller can put it back together.
struct SplitPoint {
    MBUF_S *pstNode = nullptr;  // the node the point lies in
    std::uint32_t ulLen = 0;    // its length before the split
    MBUF_S *pstNext = nullptr;  // its successor before the split
};

// Places a new node's pucData so that ulBytes end near the end of an inline
// area of ulArea bytes, on a 4-byte boundary.
std::uint8_t *PlaceNearEnd(std::uint8_t *pucArea, std::uint32_t ulArea, std::uint32_t ulBytes) {
    return pucArea + ((ulArea - ulBytes) & ~3u);
}

MBUF_S *SplitAt(MBUF_S *pstMbuf, std::uint32_t ulLen, std::uint32_t ulModuleId,
                const MBUF_FILE_LINE_S *pstFl, SplitPoint *pstWhere) {
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    MBUF_S *node = pstMbuf;
    std::uint32_t off = ulLen;
    while (node->ulDataLen < off) {
        off -= node->ulDataLen;
        node = node->pstNext;
        if (node == nullptr) {
            return nullptr;
        }
    }
    const std::uint32_t remainder = node->ulDataLen - off;
    if (pstWhere != nullptr) {
        *pstWhere = SplitPoint{node, node->ulDataLen, node->pstNext};
    }
    const bool isHead = IsPktHdr(pstMbuf);
    MBUF_S *fresh = nullptr;
    if (!isHead) {
        if (remainder == 0) {
            MBUF_S *rest = node->pstNext;
            node->pstNext = nullptr;
            return rest;
        }
        fresh = NewTypedNode(0, node->usType, ulModuleId, pstFl);
        if (fresh == nullptr) {
            return nullptr;
        }
        if (fresh->ulFlag != 0 || fresh->pucData != fresh->aucInlineData) {
            ReportNoText(kModKrmMbuf, 472);
        }
        if (!HasExt(node)) {
            fresh->pucData = PlaceNearEnd(fresh->aucInlineData, MBUF_PLAIN_INLINE_LEN, remainder);
        }
    } else {
        fresh = NewTypedNode(MBUF_PKTHDR, pstMbuf->usType, ulModuleId, pstFl);
        if (fresh == nullptr) {
            return nullptr;
        }
        fresh->ulPktRsv4 = pstMbuf->ulPktRsv4;
        const std::uint32_t secondTotal = pstMbuf->ulTotalDataLen - ulLen;
        if (!HasExt(node) && remainder > MBUF_PKTHDR_INLINE_LEN && !IsPktHdr(node)) {
            // Too much for the new head's inline area: the new head stays
            // empty and the plain node is split on its own behind it.
            if (fresh->ulFlag != MBUF_PKTHDR || fresh->pucData != fresh->aucHdrInlineData) {
                ReportNoText(kModKrmMbuf, 451);
            }
            fresh->pucData = InlineEnd(fresh);
            fresh->ulDataLen = 0;
            fresh->ulTotalDataLen = secondTotal;
            // Set before the inner split and left so if it fails; kept as it
            // stands.
            pstMbuf->ulTotalDataLen = ulLen;
            MBUF_S *part = SplitAt(node, off, ulModuleId, pstFl, nullptr);
            if (part == nullptr) {
                FreeOne(fresh, pstFl);
                return nullptr;
            }
            fresh->pstNext = part;
            return fresh;
        }
        if (!HasExt(node)) {
            if (fresh->ulFlag != MBUF_PKTHDR || fresh->pucData != fresh->aucHdrInlineData) {
                ReportNoText(kModKrmMbuf, 461);
            }
            fresh->pucData =
                PlaceNearEnd(fresh->aucHdrInlineData, MBUF_PKTHDR_INLINE_LEN, remainder);
        }
        fresh->ulTotalDataLen = secondTotal;
    }
    if (HasExt(node)) {
        if (MBUF_DuplicateExtInfo(fresh, node, off, ulModuleId, pstFl) == 0) {
            MBUF_Free(fresh, pstFl);
            return nullptr;
        }
    } else if (remainder != 0) {
        (void)memmove_s(fresh->pucData, remainder, node->pucData + off, remainder);
    }
    fresh->ulDataLen = remainder;
    node->ulDataLen = off;
    fresh->pstNext = node->pstNext;
    node->pstNext = nullptr;
    if (isHead) {
        pstMbuf->ulTotalDataLen = ulLen;
    }
    return fresh;
}

// Puts a split packet back together: the split node gets its bytes (still in
// its storage) and its successors back, and the second part's own nodes are
// released.
void UndoSplit(MBUF_S *pstHead, std::uint32_t ulTotal, MBUF_S *pstSecond, const SplitPoint &where,
               const MBUF_FILE_LINE_S *pstFl) {
    MBUF_S *own = pstSecond;
    while (own->pstNext != where.pstNext) {
        own = own->pstNext;
    }
    own->pstNext = nullptr;
    where.pstNode->ulDataLen = where.ulLen;
    where.pstNode->pstNext = where.pstNext;
    pstHead->ulTotalDataLen = ulTotal;
    MBUF_Free(pstSecond, pstFl);
}

}  // namespace
}  // namespace krm::chain

using namespace krm::chain;

extern "C" {

void MBUF_AppendMbufToTheEndOfAnother(MBUF_S *pstDst, MBUF_S *pstSrc,
                                      const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstDst == nullptr || pstSrc == nullptr) {
        return;
    }
    MBUF_S *last = pstDst;
    while (last->pstNext != nullptr) {
        last = last->pstNext;
    }
    if (!HasExt(last)) {
        // Copy while the source's first node fits with a byte to spare.
        while (pstSrc != nullptr &&
               Gap(last->pucData + last->ulDataLen, InlineEnd(last)) > pstSrc->ulDataLen) {
            if (pstSrc->ulDataLen != 0) {
                (void)memmove_s(last->pucData + last->ulDataLen, pstSrc->ulDataLen, pstSrc->pucData,
                                pstSrc->ulDataLen);
                last->ulDataLen += pstSrc->ulDataLen;
            }
            MBUF_S *next = pstSrc->pstNext;
            FreeOne(pstSrc, pstFileLine);
            pstSrc = next;
        }
    }
    // A linked source head keeps its MBUF_PKTHDR until a tidy pass drops it.
    last->pstNext = pstSrc;
}

uint32_t MBUF_Concatenate_fl(MBUF_S *pstDst, MBUF_S *pstSrc, const char *pcFileName,
                             uint32_t ulLine) {
    if (!IsPktHdr(pstDst) || !IsPktHdr(pstSrc)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (pstDst == pstSrc) {
        return MBUF_ERR_BAD_ARG;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    MBUF_DeletePktTag(pstSrc, &fl);
    MBUF_AppendMbufToTheEndOfAnother(pstDst, pstSrc, &fl);
    pstDst->ulTotalDataLen = MBUF_CalcDataLength(pstDst);
    return MBUF_OK;
}

uint32_t MBUF_Concatenate(MBUF_S *pstDst, MBUF_S *pstSrc) {
    return MBUF_Concatenate_fl(pstDst, pstSrc, krm::wrap::kConcatenate.pcName,
                               krm::wrap::kConcatenate.ulLine);
}

MBUF_S *MBUF_Split(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                   const MBUF_FILE_LINE_S *pstFileLine) {
    return SplitAt(pstMbuf, ulLen, ulModuleId, pstFileLine, nullptr);
}

MBUF_S *MBUF_Fragment_fl(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                         const char *pcFileName, uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf) || ulLen == 0 || ulLen > pstMbuf->ulTotalDataLen) {
        return nullptr;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    const uint32_t total = pstMbuf->ulTotalDataLen;
    SplitPoint where;
    MBUF_S *second = SplitAt(pstMbuf, ulLen, ulModuleId, &fl, &where);
    if (second == nullptr) {
        // A failed inner split leaves the head's length at ulLen; a fragment
        // that failed leaves the packet as it was.
        pstMbuf->ulTotalDataLen = total;
        return nullptr;
    }
    if (MBUF_CopyPktTag(second, pstMbuf, ulModuleId, &fl) == 0) {
        UndoSplit(pstMbuf, total, second, where, &fl);
        return nullptr;
    }
    return second;
}

MBUF_S *MBUF_Fragment(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId) {
    return MBUF_Fragment_fl(pstMbuf, ulLen, ulModuleId, krm::wrap::kFragment.pcName,
                            krm::wrap::kFragment.ulLine);
}

MBUF_S *MBUF_FragmentByMemCnt_fl(MBUF_S *pstMbuf, uint32_t ulMaxMemCnt, uint32_t ulModuleId,
                                 const char *pcFileName, uint32_t ulLine) {
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    uint32_t count = 0;
    if (IsPktHdr(pstMbuf) && pstMbuf->pstCtlInfo != nullptr) {
        ++count;
    }
    if (!HasExt(pstMbuf) || ReturnEmptyHeadInline(pstMbuf, &fl)) {
        ++count;
    } else {
        count += 2;
    }
    MBUF_S *cutPrev = nullptr;
    TidyLaterNodes(pstMbuf, &fl, [&](MBUF_S *prev, MBUF_S *node) {
        count += HasExt(node) ? 2 : 1;
        if (count > ulMaxMemCnt) {
            cutPrev = prev;
            return false;
        }
        return true;
    });
    if (cutPrev == nullptr) {
        return nullptr;
    }
    MBUF_S *rest = cutPrev->pstNext;
    cutPrev->pstNext = nullptr;
    pstMbuf->ulTotalDataLen = MBUF_CalcDataLength(pstMbuf);
    uint32_t capacity = 0;
    MBUF_S *head = MBUF_AllocateMBufHeader_fl(0, 0, &capacity, ulModuleId, pcFileName, ulLine);
    if (head == nullptr) {
        // The cut-off nodes carry no MBUF_PKTHDR, so this releases nothing;
        // they are not freed and NULL is returned. Kept as it stands.
        MBUF_Destroy_fl(rest, pcFileName, ulLine);
        return nullptr;
    }
    head->ulDataLen = 0;
    head->pstNext = rest;
    head->ulTotalDataLen = MBUF_CalcDataLength(rest);
    (void)MBUF_CopyPktTag(head, pstMbuf, ulModuleId, &fl);
    return head;
}

uint32_t MBUF_DuplicateExtInfo(MBUF_S *pstDst, MBUF_S *pstSrc, uint32_t ulOffset,
                               uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstDst == nullptr || pstSrc == nullptr) {
        return 0;
    }
    if (!HasExt(pstSrc)) {
        krm::Report(krm::kModUipcMbuf, 153, "%s: MBUF_EXT not set", "MBUF_DuplicateExtInfo");
        // Without a buffer there is nothing to measure or copy from.
        return 0;
    }
    if (HasExt(pstDst)) {
        krm::Report(krm::kModUipcMbuf, 154, "%s: MBUF_EXT set", "MBUF_DuplicateExtInfo");
    }
    const int64_t rest = int64_t{Gap(pstSrc->pucData, pstSrc->pucExtBuf + pstSrc->ulExtSize)};
    const int64_t keep = rest - ulOffset;
    if (keep < 0) {
        return 0;
    }
    if (keep == 0) {
        return 1;
    }
    const auto bytes = static_cast<uint32_t>(keep);
    const uint32_t size = bytes > MBUF_CLUSTER_SIZE - MBUF_DUPEXT_HEADROOM
                              ? bytes + MBUF_DUPEXT_HEADROOM
                              : MBUF_CLUSTER_SIZE;
    auto *buf = static_cast<uint8_t *>(MBUF_MemAlloc_fl(size, ulModuleId, pstFileLine));
    if (buf == nullptr) {
        return 0;
    }
    pstDst->pucExtBuf = buf;
    pstDst->pucData = buf + MBUF_DUPEXT_HEADROOM;
    pstDst->aulExtInfoRsv[0] = 0;
    pstDst->aulExtInfoRsv[1] = 0;
    pstDst->aulExtInfoRsv[2] = 0;
    pstDst->ulExtSize = size;
    pstDst->ulExtRefCnt = pstSrc->ulExtRefCnt;
    pstDst->ulExtRsv0 = pstSrc->ulExtRsv0;
    pstDst->ulExtRsv1 = pstSrc->ulExtRsv1;
    pstDst->ulFlag |= MBUF_EXT;
    // Everything up to the end of the source buffer travels, not only the
    // bytes that hold data.
    (void)memmove_s(pstDst->pucData, bytes, pstSrc->pucData + ulOffset, bytes);
    return 1;
}

}  // extern "C"
