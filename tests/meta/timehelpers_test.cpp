// Component names, the time of a stored tick, the zone text between two
// readings and the unset-time test.
#include <cstring>
#include <string>

#include "meta_support.h"

namespace krm::metatest {
namespace {

class TimeHelperTest : public MetaTest {};

TEST_F(TimeHelperTest, ComponentTableHoldsTheDocumentedEntriesInOrder) {
    struct Row {
        uint32_t ulNo;
        const char *pcName;
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
    static_assert(sizeof(MBUF_COMP_NAME_S) == 16);
    for (uint32_t i = 0; i < MBUF_COMP_NAME_NUM; ++i) {
        SCOPED_TRACE(rows[i].pcName);
        EXPECT_EQ(g_astMbufCompStru[i].ulCompNo, rows[i].ulNo);
        // NUL-padded to the end of the 12 bytes.
        char acExpected[12] = {};
        std::strncpy(acExpected, rows[i].pcName, sizeof(acExpected) - 1);
        EXPECT_EQ(std::memcmp(g_astMbufCompStru[i].acName, acExpected, 12), 0);
        EXPECT_EQ(MBUF_HOSTDBG_GetCompName(rows[i].ulNo << 16), g_astMbufCompStru[i].acName);
    }
}

TEST_F(TimeHelperTest, ComponentNameComesFromBitsSixteenToTwentyThree) {
    EXPECT_STREQ(MBUF_HOSTDBG_GetCompName(0x00650000u), "SOCK");
    EXPECT_STREQ(MBUF_HOSTDBG_GetCompName(0x12650034u), "SOCK");
    EXPECT_STREQ(MBUF_HOSTDBG_GetCompName(0xFF48FFFFu), "LACP");
    EXPECT_STREQ(g_szMbufStr, "OTHERS");
    for (uint32_t ulId : {0x00FF0000u, 0u, 0x00010000u, 0x0000FFFFu, 0xFF00FFFFu}) {
        EXPECT_EQ(MBUF_HOSTDBG_GetCompName(ulId), g_szMbufStr) << std::hex << ulId;
    }
}

TEST_F(TimeHelperTest, ZoneTextComparesTimesOfDayAndDaysOfMonth) {
    struct Case {
        const char *pcName;
        KRM_SYSTIME_S a;
        KRM_SYSTIME_S b;
        const char *pcZone;
    };
    const Case cases[] = {
        {"same day ahead", Time(2024, 3, 5, 10, 0, 0, 0), Time(2024, 3, 5, 18, 0, 0, 0), "+08:00"},
        {"same day behind", Time(2024, 3, 5, 18, 0, 0, 0), Time(2024, 3, 5, 10, 30, 0, 0),
         "-07:30"},
        {"ahead across midnight", Time(2024, 3, 5, 20, 0, 0, 0), Time(2024, 3, 6, 1, 30, 0, 0),
         "+05:30"},
        {"behind across midnight", Time(2024, 3, 6, 1, 0, 0, 0), Time(2024, 3, 5, 20, 0, 0, 0),
         "-05:00"},
        {"equal", Time(2024, 3, 5, 10, 0, 0, 0), Time(2024, 3, 5, 10, 0, 0, 0), "-00:00"},
        {"seconds dropped", Time(2024, 3, 5, 10, 0, 0, 0), Time(2024, 3, 5, 10, 45, 59, 0),
         "+00:45"},
        // Only the day of month is compared: across a month boundary the
        // day test reads the wrong way round.
        {"ahead across month end", Time(2024, 1, 31, 20, 0, 0, 0), Time(2024, 2, 1, 1, 30, 0, 0),
         "-18:30"},
        {"behind across month end", Time(2024, 2, 1, 1, 0, 0, 0), Time(2024, 1, 31, 20, 0, 0, 0),
         "+19:00"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcName);
        char acZone[16];
        std::memset(acZone, 'x', sizeof(acZone));
        EXPECT_EQ(Mbuf_GetTimeZone(&c.a, &c.b, acZone), 0u);
        EXPECT_STREQ(acZone, c.pcZone);
    }
    const KRM_SYSTIME_S t = Time(2024, 3, 5, 10, 0, 0, 0);
    char acZone[16] = "junk";
    EXPECT_EQ(Mbuf_GetTimeZone(nullptr, &t, acZone), 1u);
    EXPECT_STREQ(acZone, "");
    EXPECT_EQ(Mbuf_GetTimeZone(&t, nullptr, acZone), 1u);
    EXPECT_EQ(Mbuf_GetTimeZone(&t, &t, nullptr), 1u);
}

TEST_F(TimeHelperTest, TimeIsUnsetOnlyWhenEveryByteIsZero) {
    KRM_SYSTIME_S t;
    std::memset(&t, 0, sizeof(t));
    EXPECT_EQ(MBUF_UTIL_SysTimeIsZero(&t), 1u);
    EXPECT_EQ(MBUF_UTIL_SysTimeIsZero(nullptr), 1u);
    for (size_t i = 0; i < sizeof(t); ++i) {
        KRM_SYSTIME_S u = t;
        reinterpret_cast<uint8_t *>(&u)[i] = 1;
        EXPECT_EQ(MBUF_UTIL_SysTimeIsZero(&u), 0u) << "byte " << i;
    }
    t.ulMillSec = 1;
    EXPECT_EQ(MBUF_UTIL_SysTimeIsZero(&t), 0u);
}

class TickTimeTest : public MetaTest {
  protected:
    void SetUp() override {
        MetaTest::SetUp();
        KRM_HOST_SetWallClock(m_ulNow, 900);
        KRM_HOST_SetTickHz(1000);  // one tick a millisecond
        KRM_HOST_SetTick(m_ullNowTick);
    }
    static KRM_SYSTIME_S At(uint32_t ulSeconds) {
        KRM_SYSTIME_S t;
        std::memset(&t, 0, sizeof(t));
        EXPECT_EQ(BEX_SystimeSec2Time(ulSeconds, &t), 0u);
        return t;
    }
    static KRM_SYSTIME_S FromTick(uint64_t ullTick) {
        const BEX_CPUTICK_S stTick{static_cast<uint32_t>(ullTick),
                                   static_cast<uint32_t>(ullTick >> 32)};
        KRM_SYSTIME_S t;
        std::memset(&t, 0xA5, sizeof(t));
        MBUF_CalcSystimeByTick(&t, &stTick);
        return t;
    }
    const uint32_t m_ulNow = Epoch(2024, 3, 5, 10, 20, 30);
    const uint64_t m_ullNowTick = (uint64_t{7} << 32) + 5000;
};

TEST_F(TickTimeTest, StoredTickGivesTheWallClockSecondItWasRead) {
    const auto same = [](const KRM_SYSTIME_S &a, const KRM_SYSTIME_S &b) {
        return std::memcmp(&a, &b, sizeof(a)) == 0;
    };
    EXPECT_TRUE(same(FromTick(m_ullNowTick), At(m_ulNow)));
    // 2.5 s ago reads as 2 s ago: sub-second parts are dropped.
    EXPECT_TRUE(same(FromTick(m_ullNowTick - 2500), At(m_ulNow - 2)));
    EXPECT_TRUE(same(FromTick(m_ullNowTick - 3600000), At(m_ulNow - 3600)));
    // The low word is below now's while the high word is lower: still past.
    EXPECT_TRUE(same(FromTick(m_ullNowTick - 10000), At(m_ulNow - 10)));
    // A tick in the future is taken as now.
    EXPECT_TRUE(same(FromTick(m_ullNowTick + 1), At(m_ulNow)));
    EXPECT_TRUE(same(FromTick(m_ullNowTick + (uint64_t{1} << 32)), At(m_ulNow)));

    KRM_SYSTIME_S zero;
    std::memset(&zero, 0, sizeof(zero));
    EXPECT_TRUE(same(FromTick(0), zero));

    const BEX_CPUTICK_S stTick{1, 0};
    MBUF_CalcSystimeByTick(nullptr, &stTick);
    KRM_SYSTIME_S t = At(1);
    MBUF_CalcSystimeByTick(&t, nullptr);
    EXPECT_TRUE(same(t, At(1)));
}

}  // namespace
}  // namespace krm::metatest
