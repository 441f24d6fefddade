// Component names, the zone text between two readings, the unset-time test
// and the wall-clock time of a stored tick: the helpers under the printed
// stack-debug lines.
#include <cstring>
#include <string>

#include "meta_support.h"

namespace krm::metatest {
namespace {

class TimeHelperTest : public MetaTest {};

// The component number sits in bits 16-23 of the id; the exported table is
// searched in its own order.
TEST_F(TimeHelperTest, ComponentNamesComeFromBitsSixteenToTwentyThree) {
    struct Row {
        std::uint32_t no;
        const char *name;
    };
    const Row rows[] = {
        {120, "LDM"},    {101, "SOCK"},     {36, "LLA"},       {102, "PP4"},   {114, "PP6"},
        {105, "DGNTL"},  {115, "ND"},       {119, "ARP"},      {37, "VRRP"},   {116, "GFD"},
        {124, "PPP"},    {127, "FEI"},      {128, "SFE"},      {168, "DCN"},   {84, "MSTP"},
        {19, "BGP_NM"},  {130, "OSPFV2NM"}, {95, "PPPOEDCN"},  {26, "RSVP"},   {29, "LDPM"},
        {137, "ISISNM"}, {167, "Y1731"},    {83, "DHCP"},      {107, "IPAPP"}, {131, "OSPFV2LSDB"},
        {28, "LDC"},     {27, "LNM"},       {134, "ISISLSDB"}, {72, "LACP"},
    };
    static_assert(sizeof(rows) / sizeof(rows[0]) == MBUF_COMP_NAME_NUM);
    for (std::uint32_t i = 0; i < MBUF_COMP_NAME_NUM; ++i) {
        EXPECT_STREQ(MBUF_HOSTDBG_GetCompName(0xFF00FFFFu | (rows[i].no << 16)), rows[i].name);
    }
    EXPECT_STREQ(g_szMbufStr, "OTHERS");
    for (std::uint32_t id : {0x00FF0000u, 0u, 0x00010000u, 0x0000FFFFu, 0xFF00FFFFu}) {
        EXPECT_EQ(MBUF_HOSTDBG_GetCompName(id), g_szMbufStr) << std::hex << id;
    }
}

TEST_F(TimeHelperTest, ZoneTextComparesTimesOfDayAndDaysOfMonth) {
    struct Case {
        const char *name;
        KRM_SYSTIME_S a;
        KRM_SYSTIME_S b;
        const char *zone;
    };
    // Hour and minute of the 5th of March, or of another day of month.
    const auto at = [](std::uint8_t hour, std::uint8_t minute, std::uint8_t day = 5) {
        return Time(2024, day == 1 ? 2 : day == 31 ? 1 : 3, day, hour, minute, 0, 0);
    };
    const Case cases[] = {
        {"same day ahead", at(10, 0), at(18, 0), "+08:00"},
        {"same day behind", at(18, 0), at(10, 30), "-07:30"},
        {"ahead across midnight", at(20, 0), at(1, 30, 6), "+05:30"},
        {"behind across midnight", at(1, 0, 6), at(20, 0), "-05:00"},
        {"equal", at(10, 0), at(10, 0), "-00:00"},
        {"seconds dropped", at(10, 0), Time(2024, 3, 5, 10, 45, 59, 0), "+00:45"},
        // Only the day of month is compared: across a month's end the test
        // reads the wrong way round.
        {"ahead across month end", at(20, 0, 31), at(1, 30, 1), "-18:30"},
        {"behind across month end", at(1, 0, 1), at(20, 0, 31), "+19:00"},
    };
    char zone[16];
    for (const Case &c : cases) {
        std::memset(zone, 'x', sizeof(zone));
        EXPECT_EQ(Mbuf_GetTimeZone(&c.a, &c.b, zone), 0u) << c.name;
        EXPECT_STREQ(zone, c.zone) << c.name;
    }
    const KRM_SYSTIME_S t = Time(2024, 3, 5, 10, 0, 0, 0);
    EXPECT_EQ(Mbuf_GetTimeZone(nullptr, &t, zone), 1u);
    EXPECT_STREQ(zone, "");
    EXPECT_EQ(Mbuf_GetTimeZone(&t, nullptr, zone), 1u);
    EXPECT_EQ(Mbuf_GetTimeZone(&t, &t, nullptr), 1u);
}

TEST_F(TimeHelperTest, TimeIsUnsetOnlyWhenEveryByteIsZero) {
    KRM_SYSTIME_S t = Time(0, 0, 0, 0, 0, 0, 0);
    EXPECT_EQ(MBUF_UTIL_SysTimeIsZero(&t), 1u);
    EXPECT_EQ(MBUF_UTIL_SysTimeIsZero(nullptr), 1u);
    for (std::size_t i = 0; i < sizeof(t); ++i) {
        KRM_SYSTIME_S u = t;
        reinterpret_cast<std::uint8_t *>(&u)[i] = 1;
        EXPECT_EQ(MBUF_UTIL_SysTimeIsZero(&u), 0u) << "byte " << i;
    }
}

// The wall-clock second a tick was read, accurate to the second: 2.5 s ago
// reads as 2 s ago, a tick in the future as now, tick 0 as no time at all.
TEST_F(TimeHelperTest, StoredTickGivesTheWallClockSecondItWasRead) {
    const std::uint32_t now = kMarch5;
    const std::uint64_t nowTick = (std::uint64_t{7} << 32) + 5000;
    KRM_HOST_SetWallClock(now, 900);
    KRM_HOST_SetTickHz(1000);  // one tick a millisecond
    KRM_HOST_SetTick(nowTick);
    const auto at = [](std::uint32_t seconds) {
        KRM_SYSTIME_S t = Time(0, 0, 0, 0, 0, 0, 0);
        EXPECT_EQ(BEX_SystimeSec2Time(seconds, &t), 0u);
        return TimeBytes(t);
    };
    struct Case {
        std::uint64_t tick;
        Bytes time;
    };
    const Case cases[] = {
        {nowTick - 2500, at(now - 2)},
        {nowTick - 10000, at(now - 10)},  // low word above now's, high word lower
        {nowTick + (std::uint64_t{1} << 32), at(now)},
        {0, Bytes(sizeof(KRM_SYSTIME_S), 0)},
    };
    for (const Case &c : cases) {
        const BEX_CPUTICK_S tick{static_cast<std::uint32_t>(c.tick),
                                 static_cast<std::uint32_t>(c.tick >> 32)};
        KRM_SYSTIME_S t;
        std::memset(&t, 0xA5, sizeof(t));
        MBUF_CalcSystimeByTick(&t, &tick);
        EXPECT_EQ(TimeBytes(t), c.time) << std::hex << c.tick;
    }
    const BEX_CPUTICK_S tick{1, 0};
    MBUF_CalcSystimeByTick(nullptr, &tick);
    KRM_SYSTIME_S t = Time(2024, 1, 1, 1, 1, 1, 1);
    MBUF_CalcSystimeByTick(&t, nullptr);
    EXPECT_EQ(TimeBytes(t), TimeBytes(Time(2024, 1, 1, 1, 1, 1, 1)));
}

}  // namespace
}  // namespace krm::metatest
