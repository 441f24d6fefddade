// A readable picture of a packet for logs and failing tests: one line per
// node, then the control block with its records and sub-TLVs. The text is
// cut at the caller's buffer; the walk stops once nothing more fits.
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "core/debug_common.h"
#include "core/node.h"
#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/mbuf_debug.h"
#include "meta/meta_dump.h"

namespace krm::dbg {
namespace {

class Text {
  public:
    Text(char *pcBuf, std::uint32_t ulSize) : pcBuf_(pcBuf), ulSize_(ulSize) {
        if (pcBuf_ != nullptr && ulSize_ != 0) {
            pcBuf_[0] = '\0';
        }
    }

    void Add(const char *pcFormat, ...) __attribute__((format(printf, 2, 3))) {
        if (Full()) {
            return;
        }
        va_list args;
        va_start(args, pcFormat);
        const int iN = std::vsnprintf(pcBuf_ + ulLen_, ulSize_ - ulLen_, pcFormat, args);
        va_end(args);
        if (iN > 0) {
            const std::uint32_t ulRoom = ulSize_ - 1 - ulLen_;
            ulLen_ +=
                static_cast<std::uint32_t>(iN) < ulRoom ? static_cast<std::uint32_t>(iN) : ulRoom;
        }
    }

    bool Full() const { return pcBuf_ == nullptr || ulSize_ == 0 || ulLen_ + 1 >= ulSize_; }
    std::uint32_t Length() const { return ulLen_; }

  private:
    char *pcBuf_;
    std::uint32_t ulSize_;
    std::uint32_t ulLen_ = 0;
};

void DumpNode(const MBUF_S *pstNode, std::uint32_t ulIndex, Text &stText) {
    char acFlags[80];
    FlagNames(pstNode->ulFlag, acFlags, sizeof(acFlags));
    const Storage stStore = StorageOf(pstNode);
    const std::int64_t llOffset = DataOffset(pstNode, stStore);
    stText.Add("node %u: %s %s flags %s data %lld+%u", ulIndex,
               (pstNode->ulFlag & MBUF_PKTHDR) != 0 ? "header" : "plain",
               stStore.bExternal ? "external" : "inline", acFlags, static_cast<long long>(llOffset),
               pstNode->ulDataLen);
    const std::int64_t llTail = std::int64_t{stStore.ulSize} - llOffset - pstNode->ulDataLen;
    if (llOffset < 0 || llTail < 0) {
        stText.Add(" outside its storage of %u", stStore.ulSize);
    } else {
        stText.Add(" head %lld tail %lld", static_cast<long long>(llOffset),
                   static_cast<long long>(llTail));
    }
    if (stStore.bExternal) {
        stText.Add(" ext %u", pstNode->ulExtSize);
    }
    if (pstNode->ucMagic != MBUF_MAGIC_LIVE) {
        stText.Add(" magic 0x%02x", pstNode->ucMagic);
    }
    stText.Add("\n");
}

void DumpSubTlvs(const std::uint8_t *pucRec, std::uint32_t ulAvail, Text &stText) {
    std::uint32_t ulList = Load16At(pucRec, 2);
    std::uint32_t ulAt = MBUF_CTL_TLV_REC_HEAD_LEN;
    while (ulList >= sizeof(MBUF_CTL_TLV_S) && ulAt + sizeof(MBUF_CTL_TLV_S) <= ulAvail &&
           !stText.Full()) {
        const std::uint32_t ulLen = Load16At(pucRec, ulAt + 2);
        stText.Add("    sub-TLV type %u len %u\n", Load16At(pucRec, ulAt), ulLen);
        if (ulLen + sizeof(MBUF_CTL_TLV_S) > ulList) {
            stText.Add("    (list ends after %u bytes)\n", ulList);
            return;
        }
        ulAt += ulLen + static_cast<std::uint32_t>(sizeof(MBUF_CTL_TLV_S));
        ulList -= ulLen + static_cast<std::uint32_t>(sizeof(MBUF_CTL_TLV_S));
    }
}

// A record is shown as far as the block's memory (ulMem bytes) holds it,
// whatever its slot or the block's used length claim: a broken block is
// described, never read outside.
void DumpRecord(const MBUF_CONTROL_BLK_S *pstBlk, std::uint32_t ulMem, std::uint32_t ulType,
                Text &stText) {
    const MBUF_CTL_SLOT_S &stSlot = pstBlk->astSlot[ulType];
    stText.Add("  %u %s offset %u len %u", ulType, RecordName(ulType), stSlot.usOffset,
               stSlot.usLen);
    if (stSlot.usOffset >= ulMem) {
        stText.Add(" beyond its block of %u\n", ulMem);
        return;
    }
    const auto *pucRec = reinterpret_cast<const std::uint8_t *>(pstBlk) + stSlot.usOffset;
    const std::uint32_t ulAvail = ulMem - stSlot.usOffset;
    if (ulType == MBUF_CTL_STACKDEBUG && stSlot.usOffset >= MBUF_CTL_FIXED_LEN) {
        stText.Add("\n");
        meta::DumpStackDebugEntries(
            pucRec, ulAvail,
            [](void *pCtx, const char *pcLine) {
                static_cast<Text *>(pCtx)->Add("    %s\n", pcLine);
            },
            &stText);
        return;
    }
    const bool bTlv =
        ulType == MBUF_CTL_LINK || ulType == MBUF_CTL_PKTSEND || ulType == MBUF_CTL_PACKET;
    if (!bTlv || stSlot.usOffset < MBUF_CTL_FIXED_LEN || ulAvail < MBUF_CTL_TLV_REC_HEAD_LEN) {
        stText.Add("\n");
        return;
    }
    stText.Add(" list %u\n", Load16At(pucRec, 2));
    DumpSubTlvs(pucRec, ulAvail, stText);
}

void DumpBlock(const MBUF_S *pstHead, Text &stText) {
    const MBUF_CONTROL_BLK_S *pstBlk = pstHead->pstCtlInfo;
    if (pstBlk == nullptr) {
        stText.Add("block: none\n");
        return;
    }
    const std::uint32_t ulMem = BlockMemory(pstHead);
    if (ulMem < MBUF_CTL_FIXED_LEN) {
        stText.Add("block: separate, in a buffer of %u, short of its fixed part\n", ulMem);
        return;
    }
    stText.Add("block: %s mark 0x%02x order %u slots %u records %u used %u capacity %u\n",
               HasInlineCtlBlock(pstHead) ? "inline" : "separate", pstBlk->ucBlkMark,
               pstBlk->ucByteOrder, pstBlk->ucSlotNum, pstBlk->ucRecNum, pstBlk->usUsedLen,
               pstBlk->usCapacity);
    const MBUF_CTL_COMM_S &stComm = pstBlk->stComm;
    stText.Add("  0 COMM flags 0x%x vr %u vrf %u rcvif %u sendif %u path 0x%x socket 0x%x\n",
               stComm.ulFlag, stComm.ulVrId, stComm.ulVrfId, stComm.ulRcvIfIndex,
               stComm.ulSendIfIndex, stComm.ulPathId, stComm.ulSocketId);
    for (std::uint32_t ulType = 1; ulType < MBUF_CTL_TYPE_NUM && !stText.Full(); ++ulType) {
        if (pstBlk->astSlot[ulType].usOffset != 0) {
            DumpRecord(pstBlk, ulMem, ulType, stText);
        }
    }
}

}  // namespace
}  // namespace krm::dbg

extern "C" {

MBUF_API uint32_t MBUF_DBG_Dump(const MBUF_S *pstMbuf, char *pcBuf, uint32_t ulSize) {
    krm::dbg::Text stText(pcBuf, ulSize);
    if (pstMbuf == nullptr) {
        stText.Add("packet: none\n");
        return stText.Length();
    }
    const krm::dbg::ChainShape stShape = krm::dbg::ShapeOf(pstMbuf);
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) != 0) {
        stText.Add("packet: total %u, ", pstMbuf->ulTotalDataLen);
    } else {
        stText.Add("chain without header: ");
    }
    stText.Add("%u nodes%s\n", stShape.ulNodes,
               stShape.bCycle ? " (loops back)" : (stShape.bTooLong ? " (runaway)" : ""));
    const MBUF_S *pstNode = pstMbuf;
    for (uint32_t i = 0; i < stShape.ulNodes && pstNode != nullptr && !stText.Full(); ++i) {
        krm::dbg::DumpNode(pstNode, i, stText);
        pstNode = pstNode->pstNext;
    }
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) != 0) {
        char acFlags[96];
        krm::meta::DumpFlagWords(pstMbuf, acFlags, sizeof(acFlags));
        stText.Add("%s\n", acFlags);
        krm::dbg::DumpBlock(pstMbuf, stText);
    }
    return stText.Length();
}

}  // extern "C"
