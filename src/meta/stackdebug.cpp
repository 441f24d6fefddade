// The stack-debug record: each component that handles a packet stamps it, and
// the record keeps one entry per component in the order the packet passed
// them. A component that stamps twice in a row extends its own entry; one
// that comes back after another takes a new entry. The record starts with 6
// entries and grows by 6; it is rebuilt (deleted and created anew, keeping
// its contents) rather than resized, because records in the block never move.
#include <algorithm>
#include <cstring>

#include "core/wrapper_sites.h"
#include "internal/bytes.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"
#include "meta/stackdebug_layout.h"

namespace krm::meta {

namespace {

std::uint8_t *RawRecord(MBUF_S *pstMbuf) {
    return static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
}

MBUF_STACKDEBUG_ENTRY_S *AsEntry(std::uint8_t *pucEntry) {
    // Entries lie at 4-byte boundaries: the record starts at an 8-byte
    // boundary of the block and the head and entries are multiples of 4.
    return static_cast<MBUF_STACKDEBUG_ENTRY_S *>(static_cast<void *>(pucEntry));
}

// What may be read or written of the packet's record 21 at pucRec: the
// block's memory from the record on. Its slot length is not a bound: a
// record of an older layout, or one created short, is used as laid out
// here as long as what is touched lies inside the block.
std::uint32_t Room(MBUF_S *pstMbuf, const std::uint8_t *pucRec) {
    return krm::ctl::RoomFrom(pstMbuf, pucRec);
}

// The capacity and current-index bytes can be read.
bool CountsReadable(std::uint32_t ulRoom) {
    return ulRoom > kSdCurIndexOff;
}

// Entry ulIndex lies wholly inside ulRoom bytes of the record.
bool EntryInside(std::uint32_t ulIndex, std::uint32_t ulRoom) {
    return std::uint64_t{kSdHeadLen} + (std::uint64_t{ulIndex} + 1) * kSdEntrySize <= ulRoom;
}

bool StampableCapacity(std::uint32_t ulCapacity) {
    return ulCapacity >= 1 && ulCapacity <= kSdMaxStampCapacity;
}

void TakeNewEntry(std::uint8_t *pucEntry, std::uint32_t ulCompId, const KRM_SYSTIME_S &stTime,
                  const BEX_CPUTICK_S &stTick) {
    // Free entries are zero from the record's creation; clearing again keeps
    // a damaged record from printing someone else's stamps.
    std::memset(pucEntry, 0, kSdEntrySize);
    Store32At(pucEntry, kSdCompOff, ulCompId);
    StoreSysTime(pucEntry + kSdFirstOff, stTime);
    StoreTick(pucEntry + kSdLastTickOff, stTick);
}

// The delta is measured from the entry's previous stamp; a failing
// subtraction or conversion gives 0 rather than a wrapped count.
void ExtendEntry(std::uint8_t *pucEntry, const KRM_SYSTIME_S &stTime, const BEX_CPUTICK_S &stTick) {
    const BEX_CPUTICK_S stLastTick = LoadTick(pucEntry + kSdLastTickOff);
    BEX_CPUTICK_S stDelta{};
    if (BEX_64Sub64(&stTick, &stLastTick, &stDelta) != 0) {
        stDelta = BEX_CPUTICK_S{};
    }
    BEX_CPUTICK_S stUs{};
    if (BEX_CpuTick2Us(&stDelta, &stUs) != 0) {
        stUs = BEX_CPUTICK_S{};
    }
    Store32At(pucEntry, kSdUsecOff, stUs.ulLow);
    StoreSysTime(pucEntry + kSdLastOff, stTime);
    StoreTick(pucEntry + kSdTickDeltaOff, stDelta);
    StoreTick(pucEntry + kSdLastTickOff, stTick);
}

enum class Stamp { kDone, kFull, kNoRoom };

// Stamps the current entry, or the next one when the current belongs to
// another component. kFull when the record has no entry left; kNoRoom when
// the entry to stamp would leave the block's memory (ulRoom bytes from the
// record), which ends the stamp there.
Stamp StampInto(std::uint8_t *pucRec, std::uint32_t ulRoom, std::uint32_t ulCompId,
                const KRM_SYSTIME_S &stTime, const BEX_CPUTICK_S &stTick) {
    const std::uint32_t ulCapacity = pucRec[kSdCapacityOff];
    const std::uint32_t ulCur = pucRec[kSdCurIndexOff];
    if (ulCur >= ulCapacity) {
        return Stamp::kFull;
    }
    if (!EntryInside(ulCur, ulRoom)) {
        return Stamp::kNoRoom;
    }
    std::uint8_t *pucEntry = SdEntry(pucRec, ulCur);
    const std::uint32_t ulOwner = Load32At(pucEntry, kSdCompOff);
    if (ulOwner == 0) {
        TakeNewEntry(pucEntry, ulCompId, stTime, stTick);
        return Stamp::kDone;
    }
    if (ulOwner == ulCompId) {
        ExtendEntry(pucEntry, stTime, stTick);
        return Stamp::kDone;
    }
    if (ulCur + 1 >= ulCapacity) {
        return Stamp::kFull;
    }
    if (!EntryInside(ulCur + 1, ulRoom)) {
        return Stamp::kNoRoom;
    }
    pucRec[kSdCurIndexOff] = static_cast<std::uint8_t>(ulCur + 1);
    TakeNewEntry(SdEntry(pucRec, ulCur + 1), ulCompId, stTime, stTick);
    return Stamp::kDone;
}

// Copies an old record into a fresh area laid out the current way: its head
// (at most 28 bytes) and each entry (at most 48 bytes) into 48-byte slots.
// Old layouts had a shorter head or smaller entries; ulBound is how many
// bytes of the old record may be read (at least its first 8), and an entry
// that would reach beyond them ends the copy there.
void RelayOldRecord(std::uint8_t *pucArea, std::uint32_t ulAreaLen, const std::uint8_t *pucOld,
                    std::uint32_t ulBound) {
    const std::uint32_t ulOldHead = Load16At(pucOld, kSdHeadLenOff) + 4u;
    const std::uint32_t ulOldEntrySize = Load16At(pucOld, kSdEntrySizeOff);
    const std::uint32_t ulCapacity = pucOld[kSdCapacityOff];
    const std::uint32_t ulHeadCopy = std::min({ulOldHead, kSdHeadLen, ulBound});
    int iRet = memcpy_s(pucArea, ulAreaLen, pucOld, ulHeadCopy);
    if (iRet != 0) {
        Report(kModKrmMbuf, 1521, "memcpy_s return %d", iRet);
    }
    const std::uint32_t ulEntryCopy = std::min(ulOldEntrySize, kSdEntrySize);
    for (std::uint32_t i = 0; i < ulCapacity; ++i) {
        const std::uint32_t ulFrom = ulOldHead + i * ulOldEntrySize;
        if (ulFrom > ulBound || ulBound - ulFrom < ulEntryCopy) {
            break;
        }
        iRet = memcpy_s(SdEntry(pucArea, i), kSdEntrySize, pucOld + ulFrom, ulEntryCopy);
        if (iRet != 0) {
            Report(kModKrmMbuf, 1530, "memcpy_s return %d", iRet);
        }
    }
}

// Rebuilds record 21 with ulNewNum entries around the contents of pucOld.
// Returns the new record, NULL when the temporary area, the new record or its
// lookup failed (the old record is gone in the last two cases).
std::uint8_t *RebuildRecord(MBUF_S *pstMbuf, const std::uint8_t *pucOld, std::uint32_t ulBound,
                            std::uint32_t ulNewNum, std::uint32_t ulModuleId,
                            const char *pcFileName, std::uint32_t ulLine) {
    const std::uint32_t ulAreaLen = SdRecordLen(pucOld[kSdCapacityOff]);
    auto *pucArea = static_cast<std::uint8_t *>(
        KRM_Malloc_F(ulModuleId, g_aucKrmMemPt[0], ulAreaLen, pcFileName, ulLine));
    if (pucArea == nullptr) {
        return nullptr;
    }
    std::memset(pucArea, 0, ulAreaLen);
    RelayOldRecord(pucArea, ulAreaLen, pucOld, ulBound);

    MBUF_DeleteControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG);
    std::uint8_t *pucRec = nullptr;
    if (MBUF_CreateControlInfo_fl(pstMbuf, MBUF_CTL_STACKDEBUG, SdRecordLen(ulNewNum), ulModuleId,
                                  pcFileName, ulLine) == MBUF_OK) {
        pucRec = RawRecord(pstMbuf);
    }
    if (pucRec != nullptr) {
        const int iRet = memcpy_s(pucRec, SdRecordLen(ulNewNum), pucArea, ulAreaLen);
        if (iRet != 0) {
            Report(kModKrmMbuf, 1546, "memcpy_s return %d", iRet);
        }
    }
    (void)KRM_Free_F(pucArea, pcFileName, ulLine);
    return pucRec;
}

// How much of pucOld may be read: the block's memory from it on when it is
// this packet's record or lies in its block, else all of it (a caller's own
// copy is trusted to be as long as it says).
std::uint32_t OldBound(MBUF_S *pstMbuf, const std::uint8_t *pucOld) {
    if (krm::ctl::BlockOf(pstMbuf) == nullptr) {
        return UINT32_MAX;
    }
    const std::uint32_t ulRoom = Room(pstMbuf, pucOld);
    return (ulRoom != 0 || pucOld == RawRecord(pstMbuf)) ? ulRoom : UINT32_MAX;
}

}  // namespace

}  // namespace krm::meta

using namespace krm::meta;

extern "C" {

MBUF_API MBUF_STACKDEBUG_ENTRY_S *MBUF_DelOldAddNewAppTime_fl(MBUF_S *pstMbuf, void *pstOld,
                                                              uint32_t ulNewNum,
                                                              uint32_t ulModuleId,
                                                              const char *pcFileName,
                                                              uint32_t ulLine) {
    if (ulNewNum < kSdMinCapacity) {
        krm::ReportNoText(krm::kModKrmMbuf, 1496);
        return nullptr;
    }
    // The capacity is one byte.
    if (ulNewNum > UINT8_MAX) {
        return nullptr;
    }
    const auto *pucOld = static_cast<const std::uint8_t *>(pstOld);
    std::uint8_t *pucRec = nullptr;
    std::uint32_t ulFirstFree = 0;
    if (pucOld != nullptr) {
        // An old record whose head lies outside the block has nothing to keep.
        const std::uint32_t ulBound = OldBound(pstMbuf, pucOld);
        if (ulBound <= kSdEntrySizeOff + 1) {
            return nullptr;
        }
        // A record never shrinks: entries beyond the new capacity would be lost.
        if (pucOld[kSdCapacityOff] > ulNewNum) {
            krm::ReportNoText(krm::kModKrmMbuf, 1502);
            return nullptr;
        }
        ulFirstFree = pucOld[kSdCapacityOff];
        pucRec = RebuildRecord(pstMbuf, pucOld, ulBound, ulNewNum, ulModuleId, pcFileName, ulLine);
    } else {
        if (MBUF_CreateControlInfo_fl(pstMbuf, MBUF_CTL_STACKDEBUG, SdRecordLen(ulNewNum),
                                      ulModuleId, pcFileName, ulLine) == MBUF_OK) {
            pucRec = RawRecord(pstMbuf);
        }
        if (pucRec != nullptr) {
            std::memset(pucRec, 0, kSdHeadLen);
        }
    }
    if (pucRec == nullptr) {
        return nullptr;
    }
    for (std::uint32_t i = ulFirstFree; i < ulNewNum; ++i) {
        krm::Store32At(SdEntry(pucRec, i), kSdCompOff, 0);
    }
    pucRec[kSdCapacityOff] = static_cast<std::uint8_t>(ulNewNum);
    krm::Store16At(pucRec, kSdEntrySizeOff, kSdEntrySize);
    krm::Store16At(pucRec, kSdHeadLenOff, kSdHeadLenValue);
    const std::uint32_t ulCur = pucRec[kSdCurIndexOff];
    return ulCur < ulNewNum ? AsEntry(SdEntry(pucRec, ulCur)) : nullptr;
}

MBUF_API int32_t MBUF_SetStackDebugInfoSelf_fl(MBUF_S *pstMbuf, uint32_t ulCompId,
                                               const KRM_SYSTIME_S *pstTime,
                                               const BEX_CPUTICK_S *pstTick, uint32_t ulModuleId,
                                               const char *pcFileName, uint32_t ulLine) {
    if (pstMbuf == nullptr || pstTime == nullptr || pstTick == nullptr) {
        return -1;
    }
    std::uint8_t *pucRec = RawRecord(pstMbuf);
    std::uint32_t ulNewNum = kSdMinCapacity;
    if (pucRec != nullptr) {
        const std::uint32_t ulRoom = Room(pstMbuf, pucRec);
        if (!CountsReadable(ulRoom)) {
            return -1;
        }
        const std::uint32_t ulCapacity = pucRec[kSdCapacityOff];
        if (!StampableCapacity(ulCapacity)) {
            return -1;
        }
        const Stamp eStamp = StampInto(pucRec, ulRoom, ulCompId, *pstTime, *pstTick);
        if (eStamp != Stamp::kFull) {
            return eStamp == Stamp::kDone ? 0 : -1;
        }
        ulNewNum = ulCapacity + kSdGrowStep;
    }
    if (MBUF_DelOldAddNewAppTime_fl(pstMbuf, pucRec, ulNewNum, ulModuleId, pcFileName, ulLine) ==
        nullptr) {
        return -1;
    }
    pucRec = RawRecord(pstMbuf);
    if (pucRec == nullptr || !StampableCapacity(pucRec[kSdCapacityOff])) {
        return -1;
    }
    return StampInto(pucRec, Room(pstMbuf, pucRec), ulCompId, *pstTime, *pstTick) == Stamp::kDone
               ? 0
               : -1;
}

MBUF_API int32_t MBUF_SetStackDebugInfoSelf(MBUF_S *pstMbuf, uint32_t ulCompId,
                                            const KRM_SYSTIME_S *pstTime,
                                            const BEX_CPUTICK_S *pstTick, uint32_t ulModuleId) {
    return MBUF_SetStackDebugInfoSelf_fl(pstMbuf, ulCompId, pstTime, pstTick, ulModuleId,
                                         krm::wrap::kSetStackDebugInfoSelf.pcName,
                                         krm::wrap::kSetStackDebugInfoSelf.ulLine);
}

MBUF_API int32_t MBUF_SetStackDebugInfo_fl(MBUF_S *pstMbuf, uint32_t ulCompId, uint32_t ulModuleId,
                                           const char *pcFileName, uint32_t ulLine) {
    KRM_SYSTIME_S stTime{};
    if (KRM_SystimeGet(&stTime) != 0) {
        return -1;
    }
    BEX_CPUTICK_S stTick{};
    (void)BEX_GetCpuTick(&stTick);
    return MBUF_SetStackDebugInfoSelf_fl(pstMbuf, ulCompId, &stTime, &stTick, ulModuleId,
                                         pcFileName, ulLine);
}

MBUF_API int32_t MBUF_SetStackDebugInfo(MBUF_S *pstMbuf, uint32_t ulCompId, uint32_t ulModuleId) {
    return MBUF_SetStackDebugInfo_fl(pstMbuf, ulCompId, ulModuleId,
                                     krm::wrap::kSetStackDebugInfo.pcName,
                                     krm::wrap::kSetStackDebugInfo.ulLine);
}

MBUF_API int32_t MBUF_SetStackDebugCtl_fl(MBUF_S *pstMbuf, const MBUF_STACKDEBUG_CTL_S *pstCtl,
                                          uint32_t ulModuleId, const char *pcFileName,
                                          uint32_t ulLine) {
    if (pstCtl == nullptr) {
        return -1;
    }
    std::uint8_t *pucRec = RawRecord(pstMbuf);
    if (pucRec == nullptr) {
        if (MBUF_DelOldAddNewAppTime_fl(pstMbuf, nullptr, kSdMinCapacity, ulModuleId, pcFileName,
                                        ulLine) == nullptr) {
            return -1;
        }
        pucRec = RawRecord(pstMbuf);
    }
    if (pucRec == nullptr || Room(pstMbuf, pucRec) < kSdHeadLen) {
        return -1;
    }
    pucRec[kSdCtlFlagOff] |= pstCtl->ucFlag;
    pucRec[kSdCtlByteOff] = pstCtl->ucCtl;
    krm::Store16At(pucRec, kSdCtlHalfOff, pstCtl->usCtl);
    krm::Store32At(pucRec, kSdCtlWord1Off, pstCtl->ulCtl1);
    krm::Store32At(pucRec, kSdCtlWord2Off, pstCtl->ulCtl2);
    krm::Store32At(pucRec, kSdCtlWord3Off, pstCtl->ulCtl3);
    krm::Store16At(pucRec, kSdCtlHalf4Off, pstCtl->usCtl4);
    krm::Store16At(pucRec, kSdCtlHalf5Off, pstCtl->usCtl5);
    return 0;
}

MBUF_API int32_t MBUF_SetStackDebugCtl(MBUF_S *pstMbuf, const MBUF_STACKDEBUG_CTL_S *pstCtl,
                                       uint32_t ulModuleId) {
    return MBUF_SetStackDebugCtl_fl(pstMbuf, pstCtl, ulModuleId,
                                    krm::wrap::kSetStackDebugCtl.pcName,
                                    krm::wrap::kSetStackDebugCtl.ulLine);
}

MBUF_API int32_t MBUF_SetStackDebugForApp_fl(MBUF_S *pstMbuf, uint32_t ulCompId,
                                             const MBUF_STACKDEBUG_CTL_S *pstCtl,
                                             uint32_t ulModuleId, const char *pcFileName,
                                             uint32_t ulLine) {
    if (MBUF_SetStackDebugInfo_fl(pstMbuf, ulCompId, ulModuleId, pcFileName, ulLine) != 0) {
        return -1;
    }
    return MBUF_SetStackDebugCtl_fl(pstMbuf, pstCtl, ulModuleId, pcFileName, ulLine) != 0 ? -1 : 0;
}

MBUF_API int32_t MBUF_SetStackDebugForApp(MBUF_S *pstMbuf, uint32_t ulCompId,
                                          const MBUF_STACKDEBUG_CTL_S *pstCtl,
                                          uint32_t ulModuleId) {
    return MBUF_SetStackDebugForApp_fl(pstMbuf, ulCompId, pstCtl, ulModuleId,
                                       krm::wrap::kSetStackDebugForApp.pcName,
                                       krm::wrap::kSetStackDebugForApp.ulLine);
}

MBUF_API int32_t MBUF_GetStackDebugInfoFirstTime(MBUF_S *pstMbuf, uint32_t *pulCompId,
                                                 KRM_SYSTIME_S *pstTime) {
    if (pstMbuf == nullptr || pulCompId == nullptr || pstTime == nullptr) {
        return 1;
    }
    std::uint8_t *pucRec = RawRecord(pstMbuf);
    if (pucRec == nullptr) {
        return 2;
    }
    // The first entry is read where it lies, whatever the record's slot
    // says, but never outside the block.
    const std::uint32_t ulRoom = Room(pstMbuf, pucRec);
    if (!CountsReadable(ulRoom) || pucRec[kSdCurIndexOff] > pucRec[kSdCapacityOff] ||
        !EntryInside(0, ulRoom)) {
        return 3;
    }
    const std::uint8_t *pucEntry = SdEntry(pucRec, 0);
    *pulCompId = krm::Load32At(pucEntry, kSdCompOff);
    const KRM_SYSTIME_S stLast = LoadSysTime(pucEntry + kSdLastOff);
    if (MBUF_UTIL_SysTimeIsZero(&stLast) == 0) {
        *pstTime = stLast;
        return 0;
    }
    const KRM_SYSTIME_S stFirst = LoadSysTime(pucEntry + kSdFirstOff);
    if (MBUF_UTIL_SysTimeIsZero(&stFirst) == 0) {
        *pstTime = stFirst;
        return 0;
    }
    return 4;
}

MBUF_API int32_t MBUF_GetStackDebugAppTime(MBUF_S *pstMbuf, MBUF_STACKDEBUG_ENTRY_S **ppstEntries,
                                           uint8_t *pucCurIndex) {
    if (pstMbuf == nullptr || ppstEntries == nullptr || pucCurIndex == nullptr) {
        return -1;
    }
    // The entries handed out start behind the head, which must lie inside
    // the block for them to start there at all.
    std::uint8_t *pucRec = RawRecord(pstMbuf);
    if (pucRec == nullptr || Room(pstMbuf, pucRec) < kSdHeadLen ||
        pucRec[kSdCurIndexOff] > pucRec[kSdCapacityOff]) {
        return -1;
    }
    *ppstEntries = AsEntry(SdEntry(pucRec, 0));
    *pucCurIndex = pucRec[kSdCurIndexOff];
    return 0;
}

MBUF_API uint32_t MBUF_CopyStackDebugInfo(MBUF_S *pstSrc, MBUF_S *pstDst, uint32_t ulModuleId) {
    constexpr std::uint32_t kFail = UINT32_MAX;
    if (pstSrc == nullptr || pstDst == nullptr) {
        return kFail;
    }
    std::uint8_t *pucSrc = RawRecord(pstSrc);
    if (pucSrc == nullptr) {
        return kFail;
    }
    const std::uint32_t ulSrcRoom = Room(pstSrc, pucSrc);
    if (!CountsReadable(ulSrcRoom) || pucSrc[kSdCurIndexOff] > pucSrc[kSdCapacityOff]) {
        return kFail;
    }
    const std::uint32_t ulLen = SdRecordLen(pucSrc[kSdCapacityOff]);
    if (MBUF_CreateControlInfo_fl(pstDst, MBUF_CTL_STACKDEBUG, ulLen, ulModuleId,
                                  "MBUF_CopyStackDebugInfo", 1680) != MBUF_OK) {
        return kFail;
    }
    std::uint8_t *pucDst = RawRecord(pstDst);
    if (pucDst == nullptr) {
        return kFail;
    }
    // A source whose entries would run past its block is a failing copy.
    const int iRet = memcpy_s(pucDst, std::min(ulLen, ulSrcRoom), pucSrc, ulLen);
    if (iRet != 0) {
        krm::Report(krm::kModKrmMbuf, 1688, "memcpy_s return %d", iRet);
    }
    return 0;
}

}  // extern "C"
