// The structural audit of a packet. It names the first broken rule in words
// a developer can act on ("node 3: data 1990+120 beyond external buffer of
// 1960"), checking in an order where each rule may rely on the ones before:
// the chain's shape, then each node, then the lengths, then the control block.
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "core/debug_common.h"
#include "core/node.h"
#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/mbuf_debug.h"
#include "krm_mbuf/platform.h"

namespace krm::dbg {
namespace {

class Verdict {
  public:
    Verdict(char *pcReason, std::uint32_t ulSize) : pcReason_(pcReason), ulSize_(ulSize) {}

    std::uint32_t Fail(std::uint32_t ulCode, const char *pcFormat, ...)
        __attribute__((format(printf, 3, 4))) {
        if (pcReason_ != nullptr && ulSize_ != 0) {
            va_list args;
            va_start(args, pcFormat);
            (void)std::vsnprintf(pcReason_, ulSize_, pcFormat, args);
            va_end(args);
        }
        return ulCode;
    }

    std::uint32_t Pass() {
        if (pcReason_ != nullptr && ulSize_ != 0) {
            pcReason_[0] = '\0';
        }
        return MBUF_DBG_OK;
    }

  private:
    char *pcReason_;
    std::uint32_t ulSize_;
};

std::uint32_t CheckData(const MBUF_S *pstNode, std::uint32_t ulIndex, Verdict &stV) {
    const Storage stStore = StorageOf(pstNode);
    const char *pcWhere = stStore.bExternal ? "external buffer" : "inline area";
    const std::int64_t llOffset = DataOffset(pstNode, stStore);
    if (llOffset < 0) {
        return stV.Fail(MBUF_DBG_ERR_DATA_RANGE, "node %u: data starts %lld before %s", ulIndex,
                        static_cast<long long>(-llOffset), pcWhere);
    }
    if (llOffset + pstNode->ulDataLen > stStore.ulSize) {
        return stV.Fail(MBUF_DBG_ERR_DATA_RANGE, "node %u: data %lld+%u beyond %s of %u", ulIndex,
                        static_cast<long long>(llOffset), pstNode->ulDataLen, pcWhere,
                        stStore.ulSize);
    }
    return MBUF_DBG_OK;
}

// A later node may keep MBUF_PKTHDR: a source head that concatenation
// linked keeps it (with its packet length and its inline block) until a tidy
// pass drops it, and a long packet built from caller data leaves it on nodes
// with their own external buffer and no packet length. What such a node
// still must not have is a block it does not own: one that is neither its
// inline area nor a buffer the platform knows (a released block, say).
std::uint32_t CheckLaterHeader(const MBUF_S *pstNode, std::uint32_t ulIndex, Verdict &stV) {
    const bool bCallerData = (pstNode->ulFlag & MBUF_EXT) != 0 && pstNode->ulTotalDataLen == 0;
    if (bCallerData || pstNode->pstCtlInfo == nullptr || BlockMemory(pstNode) != 0) {
        return MBUF_DBG_OK;
    }
    return stV.Fail(MBUF_DBG_ERR_PKTHDR, "node %u: MBUF_PKTHDR with a block in no known buffer",
                    ulIndex);
}

std::uint32_t CheckNode(const MBUF_S *pstNode, std::uint32_t ulIndex, Verdict &stV) {
    if (pstNode->ucMagic != MBUF_MAGIC_LIVE) {
        return stV.Fail(MBUF_DBG_ERR_MAGIC, "node %u: magic 0x%02x, not 0xaa", ulIndex,
                        pstNode->ucMagic);
    }
    const bool bHdr = (pstNode->ulFlag & MBUF_PKTHDR) != 0;
    if (ulIndex == 0 && !bHdr) {
        return stV.Fail(MBUF_DBG_ERR_PKTHDR, "node 0: head without MBUF_PKTHDR");
    }
    if (ulIndex != 0 && bHdr) {
        const std::uint32_t ulRet = CheckLaterHeader(pstNode, ulIndex, stV);
        if (ulRet != MBUF_DBG_OK) {
            return ulRet;
        }
    }
    if ((pstNode->ulFlag & MBUF_EXT) != 0) {
        if (pstNode->pucExtBuf == nullptr) {
            return stV.Fail(MBUF_DBG_ERR_EXT, "node %u: MBUF_EXT without buffer", ulIndex);
        }
        if (pstNode->ulExtSize == 0) {
            return stV.Fail(MBUF_DBG_ERR_EXT, "node %u: MBUF_EXT with buffer size 0", ulIndex);
        }
    }
    return CheckData(pstNode, ulIndex, stV);
}

std::uint32_t CheckBlockHead(const MBUF_S *pstHead, const MBUF_CONTROL_BLK_S *pstBlk,
                             Verdict &stV) {
    if (pstBlk->ucBlkMark != MBUF_CTL_BLK_MARK) {
        return stV.Fail(MBUF_DBG_ERR_CTL_HEAD, "block: mark 0x%02x, not 0x40", pstBlk->ucBlkMark);
    }
    if (pstBlk->ucSlotNum != MBUF_CTL_TYPE_NUM) {
        return stV.Fail(MBUF_DBG_ERR_CTL_HEAD, "block: %u slots, not 23", pstBlk->ucSlotNum);
    }
    if (pstBlk->ucByteOrder > MBUF_BYTEORDER_BIG) {
        return stV.Fail(MBUF_DBG_ERR_CTL_HEAD, "block: byte order %u", pstBlk->ucByteOrder);
    }
    if (HasInlineCtlBlock(pstHead) && pstBlk->usCapacity > MBUF_CTL_INIT_CAPACITY) {
        return stV.Fail(MBUF_DBG_ERR_CTL_CAPACITY, "block: capacity %u beyond inline block of 264",
                        pstBlk->usCapacity);
    }
    // A separate block is a pipe buffer whose length the platform knows.
    const std::uint32_t ulBufLen = HasInlineCtlBlock(pstHead) ? 0 : BlockMemory(pstHead);
    if (ulBufLen != 0 && MBUF_CTL_FIXED_LEN + pstBlk->usCapacity > ulBufLen) {
        return stV.Fail(MBUF_DBG_ERR_CTL_CAPACITY, "block: 184+%u beyond its buffer of %u",
                        pstBlk->usCapacity, ulBufLen);
    }
    if (pstBlk->usUsedLen > pstBlk->usCapacity) {
        return stV.Fail(MBUF_DBG_ERR_CTL_CAPACITY, "block: used %u beyond capacity %u",
                        pstBlk->usUsedLen, pstBlk->usCapacity);
    }
    return MBUF_DBG_OK;
}

std::uint32_t CheckSlot(const MBUF_CONTROL_BLK_S *pstBlk, std::uint32_t ulType, Verdict &stV) {
    const MBUF_CTL_SLOT_S &stSlot = pstBlk->astSlot[ulType];
    if (stSlot.usOffset < MBUF_CTL_FIXED_LEN) {
        return stV.Fail(MBUF_DBG_ERR_CTL_SLOT, "slot %u offset %u below the fixed part", ulType,
                        stSlot.usOffset);
    }
    if (stSlot.usOffset + stSlot.usLen > MBUF_CTL_FIXED_LEN + pstBlk->usUsedLen) {
        return stV.Fail(MBUF_DBG_ERR_CTL_SLOT, "slot %u offset %u+%u beyond used area 184+%u",
                        ulType, stSlot.usOffset, stSlot.usLen, pstBlk->usUsedLen);
    }
    for (std::uint32_t ulOther = 1; ulOther < ulType; ++ulOther) {
        const MBUF_CTL_SLOT_S &stO = pstBlk->astSlot[ulOther];
        if (stO.usOffset != 0 && stO.usLen != 0 && stSlot.usLen != 0 &&
            stSlot.usOffset < stO.usOffset + stO.usLen &&
            stO.usOffset < stSlot.usOffset + stSlot.usLen) {
            return stV.Fail(MBUF_DBG_ERR_CTL_SLOT, "slot %u overlaps slot %u", ulType, ulOther);
        }
    }
    return MBUF_DBG_OK;
}

bool IsTlvRecord(std::uint32_t ulType) {
    return ulType == MBUF_CTL_LINK || ulType == MBUF_CTL_PKTSEND || ulType == MBUF_CTL_PACKET;
}

std::uint32_t CheckTlvList(const MBUF_CONTROL_BLK_S *pstBlk, std::uint32_t ulType, Verdict &stV) {
    const MBUF_CTL_SLOT_S &stSlot = pstBlk->astSlot[ulType];
    if (stSlot.usLen < MBUF_CTL_TLV_REC_HEAD_LEN) {
        return MBUF_DBG_OK;  // too short to hold a list at all
    }
    const auto *pucRec = reinterpret_cast<const std::uint8_t *>(pstBlk) + stSlot.usOffset;
    const std::uint32_t ulList = Load16At(pucRec, 2);
    if (ulList + MBUF_CTL_TLV_REC_HEAD_LEN > stSlot.usLen) {
        return stV.Fail(MBUF_DBG_ERR_CTL_TLV, "slot %u list %u beyond record of %u", ulType, ulList,
                        stSlot.usLen);
    }
    std::uint32_t ulAt = MBUF_CTL_TLV_REC_HEAD_LEN;
    std::uint32_t ulRemaining = ulList;
    while (ulRemaining >= sizeof(MBUF_CTL_TLV_S)) {
        const std::uint32_t ulTotal = Load16At(pucRec, ulAt + 2) + sizeof(MBUF_CTL_TLV_S);
        if (ulTotal > ulRemaining) {
            return stV.Fail(MBUF_DBG_ERR_CTL_TLV, "slot %u sub-TLV at %u claims %u of %u left",
                            ulType, ulAt, ulTotal, ulRemaining);
        }
        ulAt += ulTotal;
        ulRemaining -= ulTotal;
    }
    return MBUF_DBG_OK;
}

std::uint32_t CheckBlock(const MBUF_S *pstHead, Verdict &stV) {
    const MBUF_CONTROL_BLK_S *pstBlk = pstHead->pstCtlInfo;
    if (pstBlk == nullptr) {
        return MBUF_DBG_OK;  // a head may have lost its block; it gets one on demand
    }
    // Nothing of the block is read before its memory is known to hold the
    // fixed part.
    const std::uint32_t ulMem = BlockMemory(pstHead);
    if (ulMem == 0) {
        return stV.Fail(MBUF_DBG_ERR_CTL_CAPACITY, "block: separate, in no known buffer");
    }
    if (ulMem < MBUF_CTL_FIXED_LEN) {
        return stV.Fail(MBUF_DBG_ERR_CTL_CAPACITY, "block: buffer of %u, short of its 184 fixed",
                        ulMem);
    }
    std::uint32_t ulRet = CheckBlockHead(pstHead, pstBlk, stV);
    if (ulRet != MBUF_DBG_OK) {
        return ulRet;
    }
    if (pstBlk->astSlot[0].usOffset != 0 || pstBlk->astSlot[0].usLen != 0) {
        return stV.Fail(MBUF_DBG_ERR_CTL_SLOT, "slot 0 in use");
    }
    std::uint32_t ulInUse = 0;
    for (std::uint32_t ulType = 1; ulType < MBUF_CTL_TYPE_NUM; ++ulType) {
        if (pstBlk->astSlot[ulType].usOffset == 0) {
            continue;
        }
        ++ulInUse;
        ulRet = CheckSlot(pstBlk, ulType, stV);
        if (ulRet == MBUF_DBG_OK && IsTlvRecord(ulType)) {
            ulRet = CheckTlvList(pstBlk, ulType, stV);
        }
        if (ulRet != MBUF_DBG_OK) {
            return ulRet;
        }
    }
    if (ulInUse != pstBlk->ucRecNum) {
        return stV.Fail(MBUF_DBG_ERR_CTL_RECNUM, "block: %u records counted, %u slots in use",
                        pstBlk->ucRecNum, ulInUse);
    }
    return MBUF_DBG_OK;
}

std::uint32_t CheckChain(const MBUF_S *pstHead, Verdict &stV) {
    const ChainShape stShape = ShapeOf(pstHead);
    if (stShape.bCycle) {
        return stV.Fail(MBUF_DBG_ERR_CYCLE, "node %u links back to node %u", stShape.ulNodes - 1,
                        stShape.ulLoopStart);
    }
    if (stShape.bTooLong) {
        return stV.Fail(MBUF_DBG_ERR_TOO_LONG, "more than %u nodes", MBUF_DBG_MAX_NODES);
    }
    std::uint64_t ullSum = 0;
    std::uint32_t ulIndex = 0;
    for (const MBUF_S *pstNode = pstHead; pstNode != nullptr; pstNode = pstNode->pstNext) {
        const std::uint32_t ulRet = CheckNode(pstNode, ulIndex++, stV);
        if (ulRet != MBUF_DBG_OK) {
            return ulRet;
        }
        ullSum += pstNode->ulDataLen;
    }
    if (ullSum != pstHead->ulTotalDataLen) {
        return stV.Fail(MBUF_DBG_ERR_TOTAL_LEN, "total %u != sum of nodes %llu",
                        pstHead->ulTotalDataLen, static_cast<unsigned long long>(ullSum));
    }
    return MBUF_DBG_OK;
}

}  // namespace
}  // namespace krm::dbg

extern "C" {

MBUF_API uint32_t MBUF_DBG_Check(const MBUF_S *pstMbuf, char *pcReason, uint32_t ulSize) {
    krm::dbg::Verdict stV(pcReason, ulSize);
    if (pstMbuf == nullptr) {
        return stV.Fail(MBUF_DBG_ERR_NULL, "no packet");
    }
    uint32_t ulRet = krm::dbg::CheckChain(pstMbuf, stV);
    if (ulRet == MBUF_DBG_OK) {
        ulRet = krm::dbg::CheckBlock(pstMbuf, stV);
    }
    return ulRet == MBUF_DBG_OK ? stV.Pass() : ulRet;
}

}  // extern "C"
