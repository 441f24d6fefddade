// Wall clock, time zone and tick counter. Each is the real one until a test
// freezes or sets it; KRM_HOST_Reset makes them real again. Calendar
// arithmetic is done here on 64-bit day counts rather than through time_t,
// which is 32 bits wide on the 32-bit build.
#include <time.h>

#include <cstring>
#include <mutex>

#include "host_internal.h"
#include "krm_mbuf/platform.h"

namespace krm::host {
namespace {

constexpr std::uint32_t kDefaultTickHz = 1000000000u;
constexpr std::int64_t kSecondsPerDay = 86400;

constexpr std::uint32_t kErrBadArgument = 1;
constexpr std::uint32_t kErrRange = 2;

struct ClockState {
    bool wallFrozen = false;
    std::uint64_t wallSeconds = 0;
    std::uint32_t wallMillis = 0;
    bool zoneSet = false;
    std::int32_t zoneOffset = 0;
    bool tickFrozen = false;
    std::uint64_t tick = 0;
    std::uint32_t tickHz = kDefaultTickHz;
};

std::mutex g_clockLock;
ClockState g_clock;

// Days since 1970-01-01 of a proleptic Gregorian date (month 1-12).
constexpr std::int64_t DaysFromCivil(std::int64_t y, std::uint32_t m, std::uint32_t d) {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t mp = (m + 9) % 12;
    const std::int64_t doy = (153 * mp + 2) / 5 + d - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

struct Civil {
    std::int64_t year;
    std::uint32_t month;
    std::uint32_t day;
};

constexpr Civil CivilFromDays(std::int64_t z) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    const std::uint32_t d = static_cast<std::uint32_t>(doy - (153 * mp + 2) / 5 + 1);
    const std::uint32_t m = static_cast<std::uint32_t>(mp < 10 ? mp + 3 : mp - 9);
    return Civil{yoe + era * 400 + (m <= 2 ? 1 : 0), m, d};
}

static_assert(DaysFromCivil(1970, 1, 1) == 0);
static_assert(DaysFromCivil(2000, 3, 1) == 11017);
static_assert(CivilFromDays(11017).month == 3);

constexpr std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
    return a / b - ((a % b != 0 && (a < 0) != (b < 0)) ? 1 : 0);
}

// The record of a second count since 1970 (may be negative); ulMillSec 0.
KRM_SYSTIME_S RecordOf(std::int64_t seconds) {
    const std::int64_t days = FloorDiv(seconds, kSecondsPerDay);
    const std::int64_t secOfDay = seconds - days * kSecondsPerDay;
    const Civil civil = CivilFromDays(days);
    KRM_SYSTIME_S record;
    std::memset(&record, 0, sizeof(record));
    record.usYear = static_cast<std::uint16_t>(civil.year);
    record.ucMonth = static_cast<std::uint8_t>(civil.month);
    record.ucDate = static_cast<std::uint8_t>(civil.day);
    record.ucHour = static_cast<std::uint8_t>(secOfDay / 3600);
    record.ucMinute = static_cast<std::uint8_t>(secOfDay / 60 % 60);
    record.ucSecond = static_cast<std::uint8_t>(secOfDay % 60);
    // 1970-01-01 was a Thursday; 0 is Sunday.
    record.ucWeek = static_cast<std::uint8_t>((days % 7 + 11) % 7);
    record.ulMillSec = 0;
    return record;
}

bool SecondsOf(const KRM_SYSTIME_S &record, std::int64_t *seconds) {
    if (record.ucMonth < 1 || record.ucMonth > 12 || record.ucDate < 1 || record.ucDate > 31 ||
        record.ucHour > 23 || record.ucMinute > 59 || record.ucSecond > 60) {
        return false;
    }
    *seconds = DaysFromCivil(record.usYear, record.ucMonth, record.ucDate) * kSecondsPerDay +
               record.ucHour * 3600 + record.ucMinute * 60 + record.ucSecond;
    return true;
}

void WallNow(std::uint64_t *seconds, std::uint32_t *millis) {
    {
        const std::lock_guard<std::mutex> lock(g_clockLock);
        if (g_clock.wallFrozen) {
            *seconds = g_clock.wallSeconds;
            *millis = g_clock.wallMillis;
            return;
        }
    }
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    *seconds = static_cast<std::uint64_t>(now.tv_sec);
    *millis = static_cast<std::uint32_t>(now.tv_nsec / 1000000);
}

// The process zone's offset at that instant.
std::int32_t ProcessZoneOffset(std::int64_t seconds) {
    const time_t at = static_cast<time_t>(seconds);
    tm local{};
    if (localtime_r(&at, &local) == nullptr) {
        return 0;
    }
    return static_cast<std::int32_t>(local.tm_gmtoff);
}

// value * mul / div without overflowing 64 bits as long as mul < 2^32 and
// div < 2^32 and the result fits: split value by div first.
std::uint64_t Scale(std::uint64_t value, std::uint32_t mul, std::uint32_t div) {
    const std::uint64_t q = value / div;
    const std::uint64_t r = value % div;
    return q * mul + r * mul / div;
}

std::uint64_t TickNow() {
    std::uint32_t hz;
    {
        const std::lock_guard<std::mutex> lock(g_clockLock);
        if (g_clock.tickFrozen) {
            return g_clock.tick;
        }
        hz = g_clock.tickHz;
    }
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t ns = static_cast<std::uint64_t>(now.tv_sec) * 1000000000u +
                             static_cast<std::uint64_t>(now.tv_nsec);
    return Scale(ns, hz, 1000000000u);
}

std::uint32_t TickHz() {
    const std::lock_guard<std::mutex> lock(g_clockLock);
    return g_clock.tickHz;
}

std::uint64_t Join(const BEX_CPUTICK_S &tick) {
    return (static_cast<std::uint64_t>(tick.ulHigh) << 32) | tick.ulLow;
}

void Split(std::uint64_t value, BEX_CPUTICK_S *tick) {
    tick->ulLow = static_cast<std::uint32_t>(value);
    tick->ulHigh = static_cast<std::uint32_t>(value >> 32);
}

}  // namespace

void ResetClocks() {
    const std::lock_guard<std::mutex> lock(g_clockLock);
    g_clock = ClockState{};
}

}  // namespace krm::host

using krm::host::kErrBadArgument;
using krm::host::kErrRange;

extern "C" {

uint32_t KRM_SystimeGet(KRM_SYSTIME_S *pstTime) {
    if (pstTime == nullptr) {
        return kErrBadArgument;
    }
    std::uint64_t seconds = 0;
    std::uint32_t millis = 0;
    krm::host::WallNow(&seconds, &millis);
    *pstTime = krm::host::RecordOf(static_cast<std::int64_t>(seconds));
    pstTime->ulMillSec = millis;
    return 0;
}

uint32_t KRM_GetSystemTime(uint32_t *pulSeconds) {
    if (pulSeconds == nullptr) {
        return kErrBadArgument;
    }
    std::uint64_t seconds = 0;
    std::uint32_t millis = 0;
    krm::host::WallNow(&seconds, &millis);
    *pulSeconds = static_cast<uint32_t>(seconds);
    return 0;
}

uint32_t KRM_Gmt2LocalTime(const KRM_SYSTIME_S *pstGmt, KRM_SYSTIME_S *pstLocal) {
    if (pstGmt == nullptr || pstLocal == nullptr) {
        return kErrBadArgument;
    }
    std::int64_t seconds = 0;
    if (!krm::host::SecondsOf(*pstGmt, &seconds)) {
        return kErrRange;
    }
    std::int32_t offset;
    {
        const std::lock_guard<std::mutex> lock(krm::host::g_clockLock);
        offset = krm::host::g_clock.zoneSet ? krm::host::g_clock.zoneOffset : 0;
        if (!krm::host::g_clock.zoneSet) {
            offset = krm::host::ProcessZoneOffset(seconds);
        }
    }
    const uint32_t millis = pstGmt->ulMillSec;
    *pstLocal = krm::host::RecordOf(seconds + offset);
    pstLocal->ulMillSec = millis;
    return 0;
}

uint32_t BEX_SystimeSec2Time(uint32_t ulSeconds, KRM_SYSTIME_S *pstTime) {
    if (pstTime == nullptr) {
        return kErrBadArgument;
    }
    *pstTime = krm::host::RecordOf(ulSeconds);
    return 0;
}

uint32_t BEX_GetCpuTick(BEX_CPUTICK_S *pstTick) {
    if (pstTick == nullptr) {
        return kErrBadArgument;
    }
    krm::host::Split(krm::host::TickNow(), pstTick);
    return 0;
}

uint32_t BEX_64Sub64(const BEX_CPUTICK_S *pstA, const BEX_CPUTICK_S *pstB,
                     BEX_CPUTICK_S *pstResult) {
    if (pstA == nullptr || pstB == nullptr || pstResult == nullptr) {
        return kErrBadArgument;
    }
    const std::uint64_t a = krm::host::Join(*pstA);
    const std::uint64_t b = krm::host::Join(*pstB);
    if (b > a) {
        krm::host::Split(0, pstResult);
        return kErrRange;
    }
    krm::host::Split(a - b, pstResult);
    return 0;
}

uint32_t BEX_CpuTick2Ms(const BEX_CPUTICK_S *pstTick, BEX_CPUTICK_S *pstMs) {
    if (pstTick == nullptr || pstMs == nullptr) {
        return kErrBadArgument;
    }
    krm::host::Split(krm::host::Scale(krm::host::Join(*pstTick), 1000u, krm::host::TickHz()),
                     pstMs);
    return 0;
}

uint32_t BEX_CpuTick2Us(const BEX_CPUTICK_S *pstTick, BEX_CPUTICK_S *pstUs) {
    if (pstTick == nullptr || pstUs == nullptr) {
        return kErrBadArgument;
    }
    krm::host::Split(krm::host::Scale(krm::host::Join(*pstTick), 1000000u, krm::host::TickHz()),
                     pstUs);
    return 0;
}

uint32_t BEX_CpuTickMs2CpuTickEx(uint32_t ulMs, BEX_CPUTICK_S *pstTick) {
    if (pstTick == nullptr) {
        return kErrBadArgument;
    }
    // Both factors are below 2^32, so the product fits 64 bits exactly.
    krm::host::Split(static_cast<std::uint64_t>(ulMs) * krm::host::TickHz() / 1000u, pstTick);
    return 0;
}

int32_t BEX_StrCmp(const char *pcA, const char *pcB) {
    if (pcA == nullptr || pcB == nullptr) {
        return (pcA == nullptr ? 0 : 1) - (pcB == nullptr ? 0 : 1);
    }
    return std::strcmp(pcA, pcB);
}

void KRM_HOST_SetWallClock(uint32_t ulSeconds, uint32_t ulMillis) {
    const std::lock_guard<std::mutex> lock(krm::host::g_clockLock);
    krm::host::g_clock.wallFrozen = true;
    krm::host::g_clock.wallSeconds = ulSeconds + ulMillis / 1000u;
    krm::host::g_clock.wallMillis = ulMillis % 1000u;
}

void KRM_HOST_SetTimeZone(int32_t lOffsetSeconds) {
    const std::lock_guard<std::mutex> lock(krm::host::g_clockLock);
    krm::host::g_clock.zoneSet = true;
    krm::host::g_clock.zoneOffset = lOffsetSeconds;
}

void KRM_HOST_SetTick(uint64_t ullTick) {
    const std::lock_guard<std::mutex> lock(krm::host::g_clockLock);
    krm::host::g_clock.tickFrozen = true;
    krm::host::g_clock.tick = ullTick;
}

void KRM_HOST_AdvanceTick(uint64_t ullTicks) {
    const std::uint64_t now = krm::host::TickNow();
    const std::lock_guard<std::mutex> lock(krm::host::g_clockLock);
    if (!krm::host::g_clock.tickFrozen) {
        krm::host::g_clock.tickFrozen = true;
        krm::host::g_clock.tick = now;
    }
    krm::host::g_clock.tick += ullTicks;
}

void KRM_HOST_SetTickHz(uint32_t ulHz) {
    if (ulHz == 0) {
        return;
    }
    const std::lock_guard<std::mutex> lock(krm::host::g_clockLock);
    krm::host::g_clock.tickHz = ulHz;
}

}  // extern "C"
