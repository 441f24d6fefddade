// Storage under the control records (the packet's tags): placing a record in
// the block's data area, growing the block when the area is full, releasing
// a separately allocated block, and copying a block between packets. Records
// never move: a grown or copied block keeps the fixed part and the used area
// byte for byte, so every offset stays valid.
#include <cstdint>

#include "core/node.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"

namespace krm {
namespace {

// Moves the block to a larger home of ulNewSize bytes: an inline block is
// copied out to a separate allocation (its space in the node stays unused
// until the node is initialised again); a separate one is re-allocated.
// False, with the block unchanged and still attached, when memory fails.
bool GrowBlock(MBUF_S *pstMbuf, std::uint32_t ulNewSize, std::uint32_t ulModuleId,
               const MBUF_FILE_LINE_S *pstFl) {
    MBUF_CONTROL_BLK_S *pstOld = pstMbuf->pstCtlInfo;
    const std::uint32_t ulKeep = ctl::kFixedLen + pstOld->usUsedLen;
    if (HasInlineCtlBlock(pstMbuf)) {
        void *pNew = MBUF_MemAlloc_fl(ulNewSize, ulModuleId, pstFl);
        if (pNew == nullptr) {
            return false;
        }
        if (memcpy_s(pNew, ulNewSize, pstOld, ulKeep) != 0) {
            ReportNoText(kModUipcMbuf, 1487);
        }
        pstMbuf->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(pNew);
        return true;
    }
    void *pBlk = pstOld;
    if (MBUF_MemRealloc_fl(&pBlk, ulKeep, ulNewSize, ulModuleId, pstFl) != 0) {
        return false;
    }
    pstMbuf->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(pBlk);
    return true;
}

// The record goes at the end of the used area; the slot records where.
std::uint8_t *PlaceRecord(MBUF_CONTROL_BLK_S *pstBlk, std::uint32_t ulType, std::uint32_t ulLen) {
    const std::uint32_t ulOffset = ctl::kFixedLen + pstBlk->usUsedLen;
    std::uint8_t *pucTag = ctl::Bytes(pstBlk) + ulOffset;
    (void)memset_s(pucTag, ulLen, 0, ulLen);
    pstBlk->astSlot[ulType].usOffset = static_cast<std::uint16_t>(ulOffset);
    pstBlk->astSlot[ulType].usLen = static_cast<std::uint16_t>(ulLen);
    pstBlk->usUsedLen = static_cast<std::uint16_t>(pstBlk->usUsedLen + ulLen);
    ctl::StampHead(pstBlk);
    ++pstBlk->ucRecNum;
    return pucTag;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API void *MBUF_CreatePktTag(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulLen, uint32_t ulRsv,
                                 uint32_t ulModuleId, const char *pcFileName, uint32_t ulLine) {
    (void)ulRsv;
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        krm::Report(krm::kModUipcMbuf, 1452, "mbuf has not MBUF_PKTHDR flag");
    }
    MBUF_CONTROL_BLK_S *pstBlk = pstMbuf->pstCtlInfo;
    if (pstBlk == nullptr || ulType > krm::ctl::kMaxType ||
        pstBlk->usCapacity > MBUF_CTL_MAX_CAPACITY) {
        return nullptr;
    }
    const uint64_t ullNeeded = uint64_t{pstBlk->usUsedLen} + ulLen;
    if (ullNeeded > pstBlk->usCapacity) {
        const uint64_t ullNewSize = krm::ctl::kFixedLen + ullNeeded + MBUF_CTL_GROW_SPARE;
        const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
        if (ullNewSize > UINT32_MAX ||
            !krm::GrowBlock(pstMbuf, static_cast<uint32_t>(ullNewSize), ulModuleId, &stFl)) {
            return nullptr;
        }
        pstBlk = pstMbuf->pstCtlInfo;
        // The 16-bit field keeps the low bits of a capacity beyond 65535.
        pstBlk->usCapacity = static_cast<uint16_t>(ullNeeded + MBUF_CTL_GROW_SPARE);
    }
    return krm::PlaceRecord(pstBlk, ulType, ulLen);
}

MBUF_API void MBUF_DeletePktTag(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstMbuf == nullptr) {
        return;
    }
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        krm::Report(krm::kModUipcMbuf, 1530, "Mbuf has not MBUF_PKTHDR flag");
    }
    // The inline block is part of the node: neither freed nor reset here.
    if (pstMbuf->pstCtlInfo != nullptr && !krm::HasInlineCtlBlock(pstMbuf)) {
        (void)MBUF_MemFree_fl(pstMbuf->pstCtlInfo, pstFileLine);
        pstMbuf->pstCtlInfo = nullptr;
    }
}

MBUF_API uint32_t MBUF_CopyPktTag(MBUF_S *pstDst, MBUF_S *pstSrc, uint32_t ulModuleId,
                                  const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstDst == nullptr || pstSrc == nullptr) {
        return 1;
    }
    if ((pstDst->ulFlag & MBUF_PKTHDR) == 0) {
        krm::Report(krm::kModUipcMbuf, 1561, "DstMbuf has not MBUF_PKTHDR flag");
    }
    if ((pstSrc->ulFlag & MBUF_PKTHDR) == 0) {
        krm::Report(krm::kModUipcMbuf, 1565, "SrcMbuf has not MBUF_PKTHDR flag");
    }
    MBUF_CONTROL_BLK_S *pstSrcBlk = pstSrc->pstCtlInfo;
    if (pstSrcBlk == nullptr) {
        MBUF_DeletePktTag(pstDst, pstFileLine);
        return 1;
    }
    pstDst->ulFlag2 = pstSrc->ulFlag2;
    pstDst->ulFlag3 = pstSrc->ulFlag3;
    const uint32_t ulCopy = krm::ctl::kFixedLen + pstSrcBlk->usUsedLen;
    MBUF_CONTROL_BLK_S *pstDstBlk = pstDst->pstCtlInfo;
    if (pstDstBlk != nullptr && pstSrcBlk->usCapacity <= pstDstBlk->usCapacity) {
        // The destination keeps its own home, so it keeps its own capacity.
        const uint16_t usDstCapacity = pstDstBlk->usCapacity;
        (void)memmove_s(pstDstBlk, krm::ctl::kFixedLen + usDstCapacity, pstSrcBlk, ulCopy);
        pstDstBlk->usCapacity = usDstCapacity;
        return 1;
    }
    MBUF_DeletePktTag(pstDst, pstFileLine);
    const uint32_t ulNewSize = krm::ctl::kFixedLen + pstSrcBlk->usCapacity;
    void *pNew = MBUF_MemAlloc_fl(ulNewSize, ulModuleId, pstFileLine);
    if (pNew == nullptr) {
        return 0;
    }
    (void)memmove_s(pNew, ulNewSize, pstSrcBlk, ulCopy);
    pstDst->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(pNew);
    return 1;
}

}  // extern "C"
