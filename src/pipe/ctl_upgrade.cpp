// The in-service upgrade of a control block: a peer built with another
// number of directory slots sends blocks whose record area starts at
// 92 + 4 x slots. The block is rebuilt in the local 23-slot layout, every
// record keeping its bytes and its slot's offset moving with the area. Slots
// past 23 of a newer peer are dropped; the stack-debug record of an older
// peer is relaid into the current entry form.
#include <cstdint>

#include "core/node.h"
#include "internal/bytes.h"
#include "internal/layout.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "serial/ctl_upgrade.h"

namespace krm {
namespace {

inline constexpr std::uint32_t kSlotsOffset = offsetof(MBUF_CONTROL_BLK_S, astSlot);
inline constexpr std::uint32_t kMinUpgradedSize = MBUF_CTLINFO_INLINE_LEN;
inline constexpr std::uint32_t kUpgradeSpare = 128;
// A current stack-debug record states 24 as its head length.
inline constexpr std::uint16_t kSdCurrentHeadLen = 24;
inline constexpr std::uint32_t kSdCapacityByte = 4;

std::uint32_t DataAreaOffset(std::uint32_t ulSlotNum) {
    return kSlotsOffset + 4u * ulSlotNum;
}

// The old block's account of itself must lie inside what may be read: its
// fixed part with every slot it declares and its used record bytes.
bool OldBlockInside(const MBUF_CONTROL_BLK_S *pstOld, std::uint32_t ulReadable) {
    if (ulReadable < kSlotsOffset) {
        return false;
    }
    const std::uint64_t ullEnd =
        std::uint64_t{DataAreaOffset(pstOld->ucSlotNum)} + pstOld->usUsedLen;
    return ullEnd <= ulReadable;
}

// Moves each present slot by the change in directory size (modulo 2^16, as
// the field is 16 bits). A slot whose record would then lie outside the new
// block's used bytes is not taken: its lookup would hand out memory past the
// block.
void MoveSlots(const MBUF_CONTROL_BLK_S *pstOld, MBUF_CONTROL_BLK_S *pstNew) {
    const std::uint32_t ulOldSlots = pstOld->ucSlotNum;
    const std::uint32_t ulSlots = ulOldSlots < MBUF_CTL_TYPE_NUM ? ulOldSlots : MBUF_CTL_TYPE_NUM;
    const std::uint32_t ulShift = 4u * (MBUF_CTL_TYPE_NUM - ulOldSlots);
    const std::uint32_t ulUsedEnd = MBUF_CTL_FIXED_LEN + pstNew->usUsedLen;
    for (std::uint32_t i = 0; i < ulSlots; ++i) {
        const MBUF_CTL_SLOT_S &stOld = pstOld->astSlot[i];
        if (stOld.usOffset == 0) {
            continue;
        }
        const auto usOffset = static_cast<std::uint16_t>(stOld.usOffset + ulShift);
        if (usOffset < MBUF_CTL_FIXED_LEN || std::uint32_t{usOffset} + stOld.usLen > ulUsedEnd) {
            continue;
        }
        pstNew->astSlot[i].usOffset = usOffset;
        pstNew->astSlot[i].usLen = stOld.usLen;
        ++pstNew->ucRecNum;
    }
}

// Fills a fresh block of ulSize bytes from the old one: common record,
// record area, lengths and slots.
void RelayBlock(const MBUF_CONTROL_BLK_S *pstOld, MBUF_CONTROL_BLK_S *pstNew,
                std::uint32_t ulSize) {
    (void)MBUF_InitControlInfo(pstNew);
    int iRet =
        memcpy_s(&pstNew->stComm, sizeof(pstNew->stComm), &pstOld->stComm, sizeof(pstOld->stComm));
    if (iRet != 0) {
        Report(kModKrmMbufTrans, 1013, "memcpy_s return %d", iRet);
    }
    const std::uint32_t ulRoom = ulSize - 56u;
    const auto *pucOldArea =
        reinterpret_cast<const std::uint8_t *>(pstOld) + DataAreaOffset(pstOld->ucSlotNum);
    auto *pucNewArea = reinterpret_cast<std::uint8_t *>(pstNew) + MBUF_CTL_FIXED_LEN;
    iRet = memcpy_s(pucNewArea, ulRoom, pucOldArea, pstOld->usUsedLen);
    if (iRet != 0) {
        Report(kModKrmMbufTrans, 1021, "memcpy_s return %d", iRet);
    }
    pstNew->usCapacity = static_cast<std::uint16_t>(ulSize - 56u);
    // A record area that did not fit was not copied: the block then keeps
    // no used bytes and so no record.
    pstNew->usUsedLen = iRet == 0 ? pstOld->usUsedLen : 0;
    MoveSlots(pstOld, pstNew);
}

// An older peer's stack-debug record (head length other than 24) is relaid
// into the current entry form with as many entries as it had.
void RelayStackDebug(MBUF_S *pstMbuf, std::uint32_t ulHandle, const char *pcFileName,
                     std::uint32_t ulLine) {
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
    // The head length and the capacity byte must lie inside the record.
    if (pucRec == nullptr || ulHandle == 0 ||
        MBUF_GetControlLen(pstMbuf, MBUF_CTL_STACKDEBUG) <= kSdCapacityByte) {
        return;
    }
    if (Load16At(pucRec, 2) == kSdCurrentHeadLen) {
        return;
    }
    (void)MBUF_DelOldAddNewAppTime_fl(pstMbuf, pucRec, pucRec[kSdCapacityByte], ulHandle,
                                      pcFileName, ulLine);
}

}  // namespace

std::uint32_t UpgradeCtlBlock(MBUF_S *pstMbuf, std::uint32_t ulMemId, std::uint32_t bFreeOld,
                              std::uint32_t ulReadable, const char *pcFileName,
                              std::uint32_t ulLine) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_INVALID_MBUF;
    }
    MBUF_CONTROL_BLK_S *pstOld = pstMbuf->pstCtlInfo;
    if (pstOld == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    if (!OldBlockInside(pstOld, ulReadable)) {
        return MBUF_ERR_BAD_ARG;
    }
    const std::uint32_t ulHandle = MBUF_GetMemHandleByMBuf(pstMbuf, 0, 0, 0);
    std::uint32_t ulSize = pstOld->usCapacity + MBUF_CTL_FIXED_LEN;
    if (ulSize < kMinUpgradedSize) {
        ulSize = kMinUpgradedSize;
    }
    const MBUF_FILE_LINE_S stFl = FileLine(pcFileName, ulLine);
    auto *pstNew =
        static_cast<MBUF_CONTROL_BLK_S *>(MBUF_MemAlloc_fl(ulSize + kUpgradeSpare, ulMemId, &stFl));
    if (pstNew == nullptr) {
        return MBUF_ERR_NOMEM;
    }
    RelayBlock(pstOld, pstNew, ulSize);
    if (!HasInlineCtlBlock(pstMbuf) && bFreeOld != 0) {
        (void)MBUF_MemFree_fl(pstOld, &stFl);
    }
    pstMbuf->pstCtlInfo = pstNew;
    RelayStackDebug(pstMbuf, ulHandle, pcFileName, ulLine);
    return MBUF_OK;
}

}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_IssuProcContrlInfo_fl(MBUF_S *pstMbuf, uint32_t ulMemId, uint32_t bFreeOld,
                                             const char *pcFileName, uint32_t ulLine) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0 ||
        pstMbuf->pstCtlInfo == nullptr) {
        return krm::UpgradeCtlBlock(pstMbuf, ulMemId, bFreeOld, 0, pcFileName, ulLine);
    }
    // The old block may be read as far as its memory goes: the node's inline
    // area, or the pipe buffer it arrived in. A block elsewhere is taken at
    // its own word.
    std::uint32_t ulReadable = MBUF_CTLINFO_INLINE_LEN;
    if (!krm::HasInlineCtlBlock(pstMbuf)) {
        ulReadable = KRM_DbufLengthGET(pstMbuf->pstCtlInfo);
        if (ulReadable == 0) {
            ulReadable = UINT32_MAX;
        }
    }
    return krm::UpgradeCtlBlock(pstMbuf, ulMemId, bFreeOld, ulReadable, pcFileName, ulLine);
}

}  // extern "C"
