// The printed form of the stack-debug record: one line per component, in
// local time with the zone it was read in. Other tools parse these lines, so
// the format is fixed to the character.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"
#include "meta/stackdebug_layout.h"
#include "meta/stackdebug_print.h"

namespace krm::meta {

namespace {

// A stamp taken exactly at midnight universal time counts as unset here: the
// printer only looks at the time of day.
bool TimeOfDaySet(const KRM_SYSTIME_S &t) {
    return t.ucHour != 0 || t.ucMinute != 0 || t.ucSecond != 0 || t.ulMillSec != 0;
}

}  // namespace

// A stamp whose time of day is zero is not converted: the column keeps what
// it showed for the previous entry (zero and no zone before the first).
// Tools reading the lines expect exactly this.
void SdLinePrinter::Column::Take(const KRM_SYSTIME_S &stUniversal) {
    if (!TimeOfDaySet(stUniversal)) {
        return;
    }
    if (KRM_Gmt2LocalTime(&stUniversal, &stLocal) != 0) {
        stLocal = stUniversal;
    }
    if (Mbuf_GetTimeZone(&stUniversal, &stLocal, acZone) != 0 ||
        std::strcmp(acZone, "-00:00") == 0) {
        acZone[0] = '\0';
    }
}

int SdLinePrinter::Line(const std::uint8_t *pucEntry, char *pcBuf, std::uint32_t ulSize) {
    const std::uint32_t ulCompId = Load32At(pucEntry, kSdCompOff);
    m_stFirst.Take(LoadSysTime(pucEntry + kSdFirstOff));
    m_stLast.Take(LoadSysTime(pucEntry + kSdLastOff));
    const KRM_SYSTIME_S &a = m_stFirst.stLocal;
    const KRM_SYSTIME_S &b = m_stLast.stLocal;
    return std::snprintf(
        pcBuf, ulSize,
        "[%-5s 0x%8X]: %04u-%02u-%02u %02u:%02u:%02u.%03u%s ~ "
        "%04u-%02u-%02u %02u:%02u:%02u.%03u%s (%uus/%utick)\r\n",
        MBUF_HOSTDBG_GetCompName(ulCompId), ulCompId, unsigned{a.usYear}, unsigned{a.ucMonth},
        unsigned{a.ucDate}, unsigned{a.ucHour}, unsigned{a.ucMinute}, unsigned{a.ucSecond},
        a.ulMillSec, m_stFirst.acZone, unsigned{b.usYear}, unsigned{b.ucMonth}, unsigned{b.ucDate},
        unsigned{b.ucHour}, unsigned{b.ucMinute}, unsigned{b.ucSecond}, b.ulMillSec,
        m_stLast.acZone, Load32At(pucEntry, kSdUsecOff), Load32At(pucEntry, kSdTickDeltaOff));
}

std::uint32_t SdPrintableEntries(const std::uint8_t *pucRec, std::uint32_t ulRoom) {
    if (ulRoom <= kSdCurIndexOff || pucRec[kSdCapacityOff] == 0) {
        return 0;
    }
    const std::uint32_t ulFitting = ulRoom < kSdHeadLen ? 0 : (ulRoom - kSdHeadLen) / kSdEntrySize;
    return std::min(pucRec[kSdCurIndexOff] + 1u, ulFitting);
}

}  // namespace krm::meta

namespace {

std::uint32_t FormatLines(MBUF_S *pstMbuf, const std::uint8_t *pucRec, char *pcBuf,
                          std::uint32_t ulSize) {
    const std::uint32_t ulEntries =
        krm::meta::SdPrintableEntries(pucRec, krm::ctl::RoomFrom(pstMbuf, pucRec));
    krm::meta::SdLinePrinter stPrinter;
    std::uint32_t ulUsed = 0;
    for (std::uint32_t i = 0; i < ulEntries; ++i) {
        const std::uint32_t ulRoom = ulSize - ulUsed;
        const int iLen = stPrinter.Line(krm::meta::SdEntry(pucRec, i), pcBuf + ulUsed, ulRoom);
        // A line that does not fit with its terminator ends the text; the
        // partial copy snprintf left behind is cut off again.
        if (iLen < 0 || static_cast<std::uint32_t>(iLen) >= ulRoom) {
            pcBuf[ulUsed] = '\0';
            break;
        }
        ulUsed += static_cast<std::uint32_t>(iLen);
        if (ulUsed + 1 == ulSize) {
            return ulSize;
        }
    }
    return ulUsed;
}

}  // namespace

extern "C" {

MBUF_API uint32_t MBUF_GetStackDebugInfo(MBUF_S *pstMbuf, char *pcBuf, uint32_t ulSize) {
    if (pstMbuf == nullptr || pcBuf == nullptr) {
        return 0;
    }
    if (ulSize == 0) {
        return 1;
    }
    pcBuf[0] = '\0';
    const auto *pucRec =
        static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
    // The record is printed as laid out here whatever its slot says; only
    // the block's memory bounds what is read.
    if (pucRec == nullptr) {
        return 0;
    }
    return FormatLines(pstMbuf, pucRec, pcBuf, ulSize);
}

}  // extern "C"
