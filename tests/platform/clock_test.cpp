// Wall clock, time zone and ticks: frozen values come back exactly, the
// calendar is right across days, months, leap days and the 32-bit seconds
// range, and tick conversions are exact at any rate.

#include <cstdlib>
#include <ctime>
#include <tuple>

#include "platform_util.h"

namespace krm::test::platform {
namespace {

class ClockTest : public HostTest {};

KRM_SYSTIME_S Time(std::uint16_t year, std::uint8_t month, std::uint8_t day, std::uint8_t hour,
                   std::uint8_t minute, std::uint8_t second, std::uint8_t week,
                   std::uint32_t millis = 0) {
    return KRM_SYSTIME_S{year, month, day, hour, minute, second, week, millis};
}

std::string Text(const KRM_SYSTIME_S &t) {
    char text[64];
    (void)std::snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u.%03u wday %u", t.usYear,
                        t.ucMonth, t.ucDate, t.ucHour, t.ucMinute, t.ucSecond,
                        static_cast<unsigned>(t.ulMillSec), t.ucWeek);
    return text;
}

BEX_CPUTICK_S Tick(std::uint64_t value) {
    return BEX_CPUTICK_S{static_cast<std::uint32_t>(value),
                         static_cast<std::uint32_t>(value >> 32)};
}

std::uint64_t Value(const BEX_CPUTICK_S &tick) {
    return (static_cast<std::uint64_t>(tick.ulHigh) << 32) | tick.ulLow;
}

// A tick conversion's result as one number.
std::uint64_t Convert(std::uint32_t (*convert)(const BEX_CPUTICK_S *, BEX_CPUTICK_S *),
                      std::uint64_t ticks) {
    const BEX_CPUTICK_S in = Tick(ticks);
    BEX_CPUTICK_S out{};
    EXPECT_EQ(convert(&in, &out), 0u);
    return Value(out);
}

// Seconds since 1970 become the universal record, directly and through a
// frozen wall clock, whose whole seconds of milliseconds carry over.
TEST_F(ClockTest, SecondsBecomeTheUniversalRecord) {
    const std::tuple<std::uint32_t, KRM_SYSTIME_S> cases[] = {
        {0, Time(1970, 1, 1, 0, 0, 0, 4)},
        {951782400, Time(2000, 2, 29, 0, 0, 0, 2)},
        {1709258400, Time(2024, 3, 1, 2, 0, 0, 5)},
        {4294967295u, Time(2106, 2, 7, 6, 28, 15, 0)},
    };
    for (const auto &[seconds, expected] : cases) {
        SCOPED_TRACE(seconds);
        KRM_SYSTIME_S direct{}, frozen{};
        direct.ulMillSec = 55;
        KRM_HOST_SetWallClock(seconds, 987);
        std::uint32_t now = 0;
        ASSERT_EQ(BEX_SystimeSec2Time(seconds, &direct) | KRM_SystimeGet(&frozen) |
                      KRM_GetSystemTime(&now),
                  0u);
        frozen.ulMillSec -= 987;
        EXPECT_EQ(std::tuple(Text(direct), Text(frozen), now),
                  std::tuple(Text(expected), Text(expected), seconds));
    }
    KRM_HOST_SetWallClock(59, 1500);
    KRM_SYSTIME_S record{};
    ASSERT_EQ(KRM_SystimeGet(&record), 0u);
    EXPECT_EQ(Text(record), Text(Time(1970, 1, 1, 0, 1, 0, 4, 500)));
    EXPECT_NE(BEX_SystimeSec2Time(0, nullptr), 0u);
    EXPECT_NE(KRM_SystimeGet(nullptr), 0u);
    EXPECT_NE(KRM_GetSystemTime(nullptr), 0u);
}

// East across midnight and a year end, west back over a leap day, a
// half-hour zone; without a zone set, the process zone applies.
TEST_F(ClockTest, LocalTimeAppliesTheZoneAcrossDayBoundaries) {
    const std::tuple<std::int32_t, KRM_SYSTIME_S, KRM_SYSTIME_S> zones[] = {
        {8 * 3600, Time(2023, 12, 31, 20, 30, 15, 0, 123), Time(2024, 1, 1, 4, 30, 15, 1, 123)},
        {-5 * 3600, Time(2024, 3, 1, 2, 0, 0, 5, 9), Time(2024, 2, 29, 21, 0, 0, 4, 9)},
        {5 * 3600 + 1800, Time(2024, 6, 10, 10, 0, 0, 1), Time(2024, 6, 10, 15, 30, 0, 1)},
    };
    KRM_SYSTIME_S local{};
    for (const auto &[offset, utc, expected] : zones) {
        SCOPED_TRACE(offset);
        KRM_HOST_SetTimeZone(offset);
        ASSERT_EQ(KRM_Gmt2LocalTime(&utc, &local), 0u);
        EXPECT_EQ(Text(local), Text(expected));
    }
    const char *old = std::getenv("TZ");
    const std::string saved = old != nullptr ? old : "";
    ASSERT_EQ(setenv("TZ", "XST-9", 1), 0);  // nine hours east, no summer time
    tzset();
    KRM_HOST_Reset();
    const KRM_SYSTIME_S gmt = Time(2024, 6, 10, 20, 0, 0, 1);
    ASSERT_EQ(KRM_Gmt2LocalTime(&gmt, &local), 0u);
    EXPECT_EQ(Text(local), Text(Time(2024, 6, 11, 5, 0, 0, 2)));
    (void)(old != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ"));
    tzset();
    // What is no date is refused.
    for (const KRM_SYSTIME_S &bad : {Time(2024, 13, 1, 0, 0, 0, 0), Time(2024, 0, 1, 0, 0, 0, 0),
                                     Time(2024, 1, 0, 0, 0, 0, 0), Time(2024, 1, 1, 24, 0, 0, 0)}) {
        EXPECT_NE(KRM_Gmt2LocalTime(&bad, &local), 0u) << Text(bad);
    }
    EXPECT_NE(KRM_Gmt2LocalTime(nullptr, &local), 0u);
    EXPECT_NE(KRM_Gmt2LocalTime(&gmt, nullptr), 0u);
}

// A frozen counter reads exactly and advances; after a reset the wall clock
// and the counter are the real ones again, the counter at its default rate of
// one tick a nanosecond until another rate is set.
TEST_F(ClockTest, TheTickCounterIsFrozenOrRealAtTheSetRate) {
    KRM_HOST_SetTick(0x123456789ABull);
    KRM_HOST_AdvanceTick(0xFFFFFFFFull);
    BEX_CPUTICK_S ticks{};
    ASSERT_EQ(BEX_GetCpuTick(&ticks), 0u);
    EXPECT_EQ(Value(ticks), 0x123456789ABull + 0xFFFFFFFFull);
    EXPECT_NE(BEX_GetCpuTick(nullptr), 0u);
    KRM_HOST_SetWallClock(5, 0);
    KRM_HOST_SetTickHz(1000);
    KRM_HOST_Reset();
    std::uint32_t seconds = 0;
    ASSERT_EQ(KRM_GetSystemTime(&seconds), 0u);
    EXPECT_LE(std::llabs(static_cast<std::int64_t>(std::time(nullptr)) - seconds), 5);
    ASSERT_EQ(BEX_CpuTickMs2CpuTickEx(3, &ticks), 0u);
    EXPECT_EQ(Value(ticks), 3000000u);
    KRM_HOST_SetTickHz(1000);
    BEX_CPUTICK_S later{};
    ASSERT_EQ(BEX_GetCpuTick(&ticks), 0u);
    timespec mono{};
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &mono), 0);
    const std::int64_t ms = static_cast<std::int64_t>(mono.tv_sec) * 1000 + mono.tv_nsec / 1000000;
    EXPECT_LE(std::llabs(ms - static_cast<std::int64_t>(Value(ticks))), 50);
    ASSERT_EQ(BEX_GetCpuTick(&later), 0u);
    EXPECT_GE(Value(later), Value(ticks));
}

TEST_F(ClockTest, TickConversionsAreExactAtAnyRate) {
    // Rate, ticks, and the same in milliseconds and microseconds.
    const std::tuple<std::uint32_t, std::uint64_t, std::uint64_t, std::uint64_t> cases[] = {
        {100000000u, 0x123456789ABull, 12509998ull, 12509998964ull},
        {100000000u, 0xFFFFFFFFFFFFFFFFull, 184467440737095ull, 184467440737095516ull},
        {33333333u, 0x10000000007ull, 32985349ull, 32985349163ull},
        {1000000000u, 999999ull, 0ull, 999ull},
    };
    for (const auto &[hz, ticks, ms, us] : cases) {
        SCOPED_TRACE(std::to_string(hz) + " Hz, " + std::to_string(ticks) + " ticks");
        KRM_HOST_SetTickHz(hz);
        EXPECT_EQ(Convert(BEX_CpuTick2Ms, ticks), ms);
        EXPECT_EQ(Convert(BEX_CpuTick2Us, ticks), us);
    }
    BEX_CPUTICK_S ticks{};
    KRM_HOST_SetTickHz(100000000u);
    ASSERT_EQ(BEX_CpuTickMs2CpuTickEx(0xFFFFFFFFu, &ticks), 0u);
    EXPECT_EQ(Value(ticks), 429496729500000ull);
    EXPECT_NE(BEX_CpuTick2Ms(nullptr, &ticks), 0u);
    EXPECT_NE(BEX_CpuTick2Us(&ticks, nullptr), 0u);
    EXPECT_NE(BEX_CpuTickMs2CpuTickEx(1, nullptr), 0u);
}

// A negative difference is refused and reads 0; string comparison orders
// NULL before everything.
TEST_F(ClockTest, SubtractionRefusesANegativeResultAndStrCmpOrdersNullFirst) {
    const std::tuple<std::uint64_t, std::uint64_t, bool, std::uint64_t> cases[] = {
        {0x100000000ull, 1, true, 0xFFFFFFFFull},
        {7, 7, true, 0},
        {1, 0x100000000ull, false, 0},
        {5, 6, false, 0},
    };
    for (const auto &[a, b, ok, difference] : cases) {
        SCOPED_TRACE(std::to_string(a) + " - " + std::to_string(b));
        const BEX_CPUTICK_S ta = Tick(a);
        const BEX_CPUTICK_S tb = Tick(b);
        BEX_CPUTICK_S result = Tick(0xDEADBEEFull);
        EXPECT_EQ(BEX_64Sub64(&ta, &tb, &result) == 0, ok);
        EXPECT_EQ(Value(result), difference);
    }
    const std::tuple<const char *, const char *, int> strings[] = {
        {nullptr, nullptr, 0}, {nullptr, "", -1}, {"", nullptr, 1},
        {"b", "a", 1},         {"abc", "abc", 0}, {"ab", "abc", -1},
    };
    for (const auto &[x, y, sign] : strings) {
        const std::int32_t rc = BEX_StrCmp(x, y);
        EXPECT_EQ((rc > 0) - (rc < 0), sign) << (x ? x : "NULL") << " vs " << (y ? y : "NULL");
    }
}

}  // namespace
}  // namespace krm::test::platform
