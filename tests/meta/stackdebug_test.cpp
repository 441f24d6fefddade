// Stamping the stack-debug record under a frozen wall clock and tick counter:
// which entry a stamp lands in, how the record grows, what survives growth
// and failure, and the readers and copier of the record.
#include <cstring>
#include <string>
#include <vector>

#include "fault_sweep.h"
#include "internal/bytes.h"
#include "mbuf_check.h"
#include "meta_support.h"

namespace krm::metatest {
namespace {

using krm::test::AssertReportNoText;
using krm::test::ExpectValid;
using krm::test::Reports;

constexpr uint32_t kCompA = 0x00650001;  // SOCK
constexpr uint32_t kCompB = 0x00770002;  // ARP
constexpr uint32_t kHeadLen = 28;
constexpr uint32_t kEntryLen = 48;

// One entry as its documented bytes read.
struct Entry {
    uint32_t ulComp;
    uint32_t ulUsec;
    KRM_SYSTIME_S stFirst;
    KRM_SYSTIME_S stLast;
    uint64_t ullDelta;
    uint64_t ullLastTick;
};

uint64_t Tick64(const uint8_t *p) {
    return (uint64_t{krm::Load32At(p, 4)} << 32) | krm::Load32At(p, 0);
}

Entry ReadEntry(const uint8_t *pucRec, uint32_t ulIndex) {
    const uint8_t *e = pucRec + kHeadLen + ulIndex * kEntryLen;
    Entry out{};
    out.ulComp = krm::Load32At(e, 0);
    out.ulUsec = krm::Load32At(e, 4);
    std::memcpy(&out.stFirst, e + 8, 12);
    std::memcpy(&out.stLast, e + 20, 12);
    out.ullDelta = Tick64(e + 32);
    out.ullLastTick = Tick64(e + 40);
    return out;
}

bool SameTime(const KRM_SYSTIME_S &a, const KRM_SYSTIME_S &b) {
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

KRM_SYSTIME_S Zero() {
    KRM_SYSTIME_S t;
    std::memset(&t, 0, sizeof(t));
    return t;
}

class StackDebugTest : public MetaTest {
  protected:
    void SetUp() override {
        MetaTest::SetUp();
        m_ulSec = Epoch(2024, 3, 5, 10, 20, 30);
        m_ulMs = 123;
        m_ullTick = 5000000;
        KRM_HOST_SetWallClock(m_ulSec, m_ulMs);
        KRM_HOST_SetTimeZone(8 * 3600);
        KRM_HOST_SetTickHz(1000000);  // one tick a microsecond
        KRM_HOST_SetTick(m_ullTick);
    }

    // Moves both clocks on by the same time.
    void Advance(uint32_t ulMicros) {
        m_ullTick += ulMicros;
        KRM_HOST_SetTick(m_ullTick);
        const uint64_t ullMs = uint64_t{m_ulSec} * 1000 + m_ulMs + ulMicros / 1000;
        m_ulSec = static_cast<uint32_t>(ullMs / 1000);
        m_ulMs = static_cast<uint32_t>(ullMs % 1000);
        KRM_HOST_SetWallClock(m_ulSec, m_ulMs);
    }

    // What the platform's clock reads now.
    static KRM_SYSTIME_S Now() {
        KRM_SYSTIME_S t;
        std::memset(&t, 0, sizeof(t));
        EXPECT_EQ(KRM_SystimeGet(&t), 0u);
        return t;
    }

    static int32_t Stamp(MBUF_S *pstMbuf, uint32_t ulComp) {
        return MBUF_SetStackDebugInfo_fl(pstMbuf, ulComp, kModule, "caller", 11);
    }

    static uint8_t *Rec(MBUF_S *pstMbuf) {
        return static_cast<uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
    }

    // A record 21 built by hand with the given capacity byte and room for
    // ulEntries entries.
    uint8_t *HandRecord(MBUF_S *pstMbuf, uint8_t ucCapacity, uint32_t ulEntries) {
        uint8_t *pucRec = AddRecord(pstMbuf, MBUF_CTL_STACKDEBUG, kHeadLen + ulEntries * kEntryLen);
        if (pucRec != nullptr) {
            krm::Store16At(pucRec, 2, 24);
            pucRec[4] = ucCapacity;
            krm::Store16At(pucRec, 6, 48);
        }
        return pucRec;
    }

    uint32_t m_ulSec = 0;
    uint32_t m_ulMs = 0;
    uint64_t m_ullTick = 0;
};

// ---- stamping -----------------------------------------------------------------------------

TEST_F(StackDebugTest, FirstStampCreatesASixEntryRecord) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    const KRM_SYSTIME_S stNow = Now();
    ASSERT_EQ(stNow.ucHour, 10);
    ASSERT_EQ(stNow.ulMillSec, 123u);

    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    const uint8_t *pucRec = Rec(pstMbuf);
    ASSERT_NE(pucRec, nullptr);
    // 6 x 48 + 28 = 316 bytes, reserved as 320.
    EXPECT_EQ(MBUF_GetControlLen(pstMbuf, MBUF_CTL_STACKDEBUG), 320u);
    EXPECT_EQ(krm::Load16At(pucRec, 0), 0u);
    EXPECT_EQ(krm::Load16At(pucRec, 2), 24u);
    EXPECT_EQ(pucRec[4], 6u);
    EXPECT_EQ(pucRec[5], 0u);
    EXPECT_EQ(krm::Load16At(pucRec, 6), 48u);
    EXPECT_EQ(std::vector<uint8_t>(pucRec + 8, pucRec + 28), std::vector<uint8_t>(20, 0));

    const Entry e = ReadEntry(pucRec, 0);
    EXPECT_EQ(e.ulComp, kCompA);
    EXPECT_EQ(e.ulUsec, 0u);
    EXPECT_TRUE(SameTime(e.stFirst, stNow));
    EXPECT_TRUE(SameTime(e.stLast, Zero()));
    EXPECT_EQ(e.ullDelta, 0u);
    EXPECT_EQ(e.ullLastTick, m_ullTick);
    for (uint32_t i = 1; i < 6; ++i) {
        EXPECT_EQ(ReadEntry(pucRec, i).ulComp, 0u) << i;
    }
    ExpectValid(pstMbuf);
}

TEST_F(StackDebugTest, SameComponentExtendsItsEntryAndAnotherTakesTheNext) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    const KRM_SYSTIME_S stFirst = Now();
    const uint64_t ullFirstTick = m_ullTick;
    Advance(1500000);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    const KRM_SYSTIME_S stSecond = Now();
    Advance(250);
    ASSERT_EQ(Stamp(pstMbuf, kCompB), 0);
    const KRM_SYSTIME_S stThird = Now();

    const uint8_t *pucRec = Rec(pstMbuf);
    ASSERT_NE(pucRec, nullptr);
    EXPECT_EQ(pucRec[5], 1u);
    const Entry a = ReadEntry(pucRec, 0);
    EXPECT_EQ(a.ulComp, kCompA);
    EXPECT_TRUE(SameTime(a.stFirst, stFirst));
    EXPECT_TRUE(SameTime(a.stLast, stSecond));
    EXPECT_EQ(a.ullDelta, m_ullTick - 250 - ullFirstTick);
    EXPECT_EQ(a.ulUsec, 1500000u);
    EXPECT_EQ(a.ullLastTick, ullFirstTick + 1500000);

    const Entry b = ReadEntry(pucRec, 1);
    EXPECT_EQ(b.ulComp, kCompB);
    EXPECT_TRUE(SameTime(b.stFirst, stThird));
    EXPECT_TRUE(SameTime(b.stLast, Zero()));
    EXPECT_EQ(b.ulUsec, 0u);
    EXPECT_EQ(b.ullLastTick, m_ullTick);
    EXPECT_EQ(ReadEntry(pucRec, 2).ulComp, 0u);
    ExpectValid(pstMbuf);
}

TEST_F(StackDebugTest, ComponentComingBackTakesANewEntry) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    for (uint32_t ulComp : {kCompA, kCompB, kCompA}) {
        ASSERT_EQ(Stamp(pstMbuf, ulComp), 0);
        Advance(10);
    }
    const uint8_t *pucRec = Rec(pstMbuf);
    EXPECT_EQ(pucRec[5], 2u);
    EXPECT_EQ(ReadEntry(pucRec, 0).ulComp, kCompA);
    EXPECT_EQ(ReadEntry(pucRec, 1).ulComp, kCompB);
    EXPECT_EQ(ReadEntry(pucRec, 2).ulComp, kCompA);
    EXPECT_TRUE(SameTime(ReadEntry(pucRec, 0).stLast, Zero()));
}

// The delta and microseconds of an entry measure from its previous stamp,
// not from its first: a third stamp replaces what the second recorded.
TEST_F(StackDebugTest, RepeatedStampsMeasureFromThePreviousStamp) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    Advance(100);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    Advance(300);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    const Entry a = ReadEntry(Rec(pstMbuf), 0);
    EXPECT_EQ(a.ullDelta, 300u);
    EXPECT_EQ(a.ulUsec, 300u);
    EXPECT_EQ(a.ullLastTick, m_ullTick);
    EXPECT_EQ(Rec(pstMbuf)[5], 0u);
}

// A tick counter that went backwards gives a zero delta, not a wrapped one.
TEST_F(StackDebugTest, TickGoingBackwardsGivesZeroDelta) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    KRM_HOST_SetTick(m_ullTick - 50);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    const Entry a = ReadEntry(Rec(pstMbuf), 0);
    EXPECT_EQ(a.ullDelta, 0u);
    EXPECT_EQ(a.ulUsec, 0u);
    EXPECT_EQ(a.ullLastTick, m_ullTick - 50);
}

TEST_F(StackDebugTest, SeventhComponentGrowsTheRecordKeepingEveryEntry) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    for (uint32_t i = 0; i < 6; ++i) {
        ASSERT_EQ(Stamp(pstMbuf, kCompA + i), 0);
        Advance(7);
    }
    const MBUF_STACKDEBUG_CTL_S stCtl{0x5, 0x6, 0x0708, 0x090A0B0C, 2, 3, 4, 5};
    ASSERT_EQ(MBUF_SetStackDebugCtl_fl(pstMbuf, &stCtl, kModule, "caller", 1), 0);
    const uint8_t *pucOld = Rec(pstMbuf);
    ASSERT_EQ(pucOld[4], 6u);
    const std::vector<uint8_t> before(pucOld, pucOld + 316);

    ASSERT_EQ(Stamp(pstMbuf, kCompB), 0);
    const uint8_t *pucRec = Rec(pstMbuf);
    EXPECT_EQ(MBUF_GetControlLen(pstMbuf, MBUF_CTL_STACKDEBUG), 608u);  // 12 x 48 + 28 = 604
    EXPECT_EQ(pucRec[4], 12u);
    EXPECT_EQ(pucRec[5], 6u);
    // Head (but capacity and current index) and the six entries are as
    // they were.
    std::vector<uint8_t> after(pucRec, pucRec + 316);
    after[4] = before[4];
    after[5] = before[5];
    EXPECT_EQ(after, before);
    EXPECT_EQ(ReadEntry(pucRec, 6).ulComp, kCompB);
    EXPECT_EQ(ReadEntry(pucRec, 6).ullLastTick, m_ullTick);
    for (uint32_t i = 7; i < 12; ++i) {
        EXPECT_EQ(ReadEntry(pucRec, i).ulComp, 0u) << i;
    }
    ExpectValid(pstMbuf);
}

// 6, 12, 18 entries; the growth to 24 happens but is then refused, and so is
// every later stamp.
TEST_F(StackDebugTest, NoStampBeyondNineteenEntries) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    for (uint32_t i = 0; i < 18; ++i) {
        ASSERT_EQ(Stamp(pstMbuf, kCompA + i), 0) << i;
    }
    EXPECT_EQ(Rec(pstMbuf)[4], 18u);
    EXPECT_EQ(Stamp(pstMbuf, kCompB), -1);
    const uint8_t *pucRec = Rec(pstMbuf);
    ASSERT_NE(pucRec, nullptr);
    EXPECT_EQ(pucRec[4], 24u);
    EXPECT_EQ(pucRec[5], 17u);
    EXPECT_EQ(ReadEntry(pucRec, 17).ulComp, kCompA + 17);
    EXPECT_EQ(ReadEntry(pucRec, 18).ulComp, 0u);
    EXPECT_EQ(Stamp(pstMbuf, kCompA + 17), -1);
    ExpectValid(pstMbuf);
}

TEST_F(StackDebugTest, CapacityOutsideTheStampingRangeIsRefused) {
    for (uint8_t ucCapacity : {uint8_t{0}, uint8_t{20}, uint8_t{25}}) {
        SCOPED_TRACE(ucCapacity);
        MBUF_S *pstMbuf = NewPacket();
        ASSERT_NE(pstMbuf, nullptr);
        uint8_t *pucRec = HandRecord(pstMbuf, ucCapacity, ucCapacity);
        ASSERT_NE(pucRec, nullptr);
        const uint32_t ulLen = MBUF_GetControlLen(pstMbuf, MBUF_CTL_STACKDEBUG);
        const std::vector<uint8_t> before(pucRec, pucRec + ulLen);
        EXPECT_EQ(Stamp(pstMbuf, kCompA), -1);
        EXPECT_EQ(Rec(pstMbuf), pucRec);
        EXPECT_EQ(std::vector<uint8_t>(pucRec, pucRec + ulLen), before);
    }
}

// A capacity byte that promises more entries than the record holds is not
// stamped into: the entry would lie past the record's end.
TEST_F(StackDebugTest, RecordShorterThanItsCapacityIsRefused) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    uint8_t *pucRec = HandRecord(pstMbuf, 6, 2);
    ASSERT_NE(pucRec, nullptr);
    pucRec[5] = 5;
    krm::Store32At(pucRec, kHeadLen + kEntryLen, kCompB);
    EXPECT_EQ(Stamp(pstMbuf, kCompA), -1);
    EXPECT_EQ(pucRec[5], 5u);
}

// A record too short even for its head is refused by every reader and
// writer rather than read past its end.
TEST_F(StackDebugTest, RecordShorterThanItsHeadIsLeftAlone) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    uint8_t *pucRec = AddRecord(pstMbuf, MBUF_CTL_STACKDEBUG, 8);
    ASSERT_NE(pucRec, nullptr);
    pucRec[4] = 1;
    const MBUF_STACKDEBUG_CTL_S stCtl{1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(Stamp(pstMbuf, kCompA), -1);
    EXPECT_EQ(MBUF_SetStackDebugCtl_fl(pstMbuf, &stCtl, kModule, "c", 1), -1);
    uint32_t ulComp = 0;
    KRM_SYSTIME_S stTime = Zero();
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, &stTime), 3);
    MBUF_STACKDEBUG_ENTRY_S *pstEntries = nullptr;
    uint8_t ucCur = 0;
    EXPECT_EQ(MBUF_GetStackDebugAppTime(pstMbuf, &pstEntries, &ucCur), -1);
    MBUF_S *pstDst = NewPacket();
    EXPECT_EQ(MBUF_CopyStackDebugInfo(pstMbuf, pstDst, kModule), 0xFFFFFFFFu);
    char acBuf[256];
    EXPECT_EQ(MBUF_GetStackDebugInfo(pstMbuf, acBuf, sizeof(acBuf)), 0u);
    EXPECT_EQ(std::vector<uint8_t>(pucRec, pucRec + 8),
              (std::vector<uint8_t>{0, 0, 0, 0, 1, 0, 0, 0}));
}

TEST_F(StackDebugTest, StampRefusesWhatItCannotStamp) {
    const KRM_SYSTIME_S stTime = Now();
    const BEX_CPUTICK_S stTick{1, 0};
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(Stamp(nullptr, kCompA), -1);
    EXPECT_EQ(Stamp(&m_stPlain, kCompA), -1);
    EXPECT_EQ(MBUF_SetStackDebugInfoSelf_fl(pstMbuf, kCompA, nullptr, &stTick, kModule, "c", 1),
              -1);
    EXPECT_EQ(MBUF_SetStackDebugInfoSelf_fl(pstMbuf, kCompA, &stTime, nullptr, kModule, "c", 1),
              -1);
    EXPECT_EQ(Rec(pstMbuf), nullptr);
}

TEST_F(StackDebugTest, SelfFormStampsTheCallersTimeAndTick) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    const KRM_SYSTIME_S stTime = Time(1999, 12, 31, 23, 59, 59, 999);
    const BEX_CPUTICK_S stTick{0x89ABCDEFu, 0x01234567u};
    ASSERT_EQ(MBUF_SetStackDebugInfoSelf_fl(pstMbuf, kCompA, &stTime, &stTick, kModule, "c", 1), 0);
    const Entry e = ReadEntry(Rec(pstMbuf), 0);
    EXPECT_TRUE(SameTime(e.stFirst, stTime));
    EXPECT_EQ(e.ullLastTick, 0x0123456789ABCDEFull);
    const BEX_CPUTICK_S stLater{0x89ABCDEFu + 2000000u, 0x01234567u};
    ASSERT_EQ(MBUF_SetStackDebugInfoSelf(pstMbuf, kCompA, &stTime, &stLater, kModule), 0);
    EXPECT_EQ(ReadEntry(Rec(pstMbuf), 0).ulUsec, 2000000u);
}

// The first record does not fit in the inline block, so creating it
// allocates, attributed to the caller or to the wrapper's own site.
TEST_F(StackDebugTest, WrappersAttributeTheRecordToThemselves) {
    struct Case {
        const char *pcName;
        uint32_t ulLine;
        int32_t (*pfCall)(MBUF_S *);
    };
    static const MBUF_STACKDEBUG_CTL_S stCtl{};
    static const BEX_CPUTICK_S stTick{1, 0};
    static const KRM_SYSTIME_S stTime = Time(2024, 1, 1, 1, 1, 1, 1);
    const Case cases[] = {
        {"MBUF_SetStackDebugInfo", 214,
         [](MBUF_S *m) { return MBUF_SetStackDebugInfo(m, kCompA, kModule); }},
        {"MBUF_SetStackDebugInfoSelf", 221,
         [](MBUF_S *m) {
             return MBUF_SetStackDebugInfoSelf(m, kCompA, &stTime, &stTick, kModule);
         }},
        {"MBUF_SetStackDebugCtl", 233,
         [](MBUF_S *m) { return MBUF_SetStackDebugCtl(m, &stCtl, kModule); }},
        {"MBUF_SetStackDebugForApp", 251,
         [](MBUF_S *m) { return MBUF_SetStackDebugForApp(m, kCompA, &stCtl, kModule); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcName);
        MBUF_S *pstMbuf = NewPacket();
        ASSERT_NE(pstMbuf, nullptr);
        ASSERT_EQ(c.pfCall(pstMbuf), 0);
        KRM_HOST_BUF_INFO_S stInfo{};
        ASSERT_EQ(KRM_HOST_BufferInfo(pstMbuf->pstCtlInfo, &stInfo), 0u);
        EXPECT_STREQ(stInfo.pcFile, c.pcName);
        EXPECT_EQ(stInfo.ulLine, c.ulLine);
        EXPECT_EQ(stInfo.ulOwner, kModule);
    }
}

// ---- growth under failing allocations -------------------------------------------------------

TEST_F(StackDebugTest, FailedFirstStampLeavesNoRecord) {
    MBUF_S *pstMbuf = nullptr;
    const auto result = krm::test::FaultSweep({
        .setup = [&] { pstMbuf = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, "t", 1); },
        .run = [&] { return Stamp(pstMbuf, kCompA) == 0; },
        .onFailure =
            [&] {
                EXPECT_EQ(Rec(pstMbuf), nullptr);
                ExpectValid(pstMbuf);
                MBUF_Destroy_fl(pstMbuf, "t", 2);
            },
        .onSuccess = [&] { MBUF_Destroy_fl(pstMbuf, "t", 3); },
    });
    EXPECT_EQ(result.failedRuns, 1u);
}

// Growing takes a temporary copy first: when that fails the record is
// untouched; when the new record cannot be made the old one is already gone.
TEST_F(StackDebugTest, FailedGrowthKeepsOrLosesTheRecordButNeverLeaks) {
    MBUF_S *pstMbuf = nullptr;
    std::vector<uint8_t> before;
    uint32_t ulFailure = 0;
    const auto result = krm::test::FaultSweep({
        .setup =
            [&] {
                pstMbuf = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, "t", 1);
                ASSERT_NE(pstMbuf, nullptr);
                for (uint32_t i = 0; i < 6; ++i) {
                    ASSERT_EQ(Stamp(pstMbuf, kCompA + i), 0);
                }
                before.assign(Rec(pstMbuf), Rec(pstMbuf) + 316);
            },
        .run = [&] { return Stamp(pstMbuf, kCompB) == 0; },
        .onFailure =
            [&] {
                ++ulFailure;
                ExpectValid(pstMbuf);
                const uint8_t *pucRec = Rec(pstMbuf);
                if (ulFailure == 1) {
                    ASSERT_NE(pucRec, nullptr);
                    EXPECT_EQ(std::vector<uint8_t>(pucRec, pucRec + 316), before);
                } else {
                    EXPECT_EQ(pucRec, nullptr);
                }
                MBUF_Destroy_fl(pstMbuf, "t", 2);
            },
        .onSuccess =
            [&] {
                EXPECT_EQ(Rec(pstMbuf)[4], 12u);
                MBUF_Destroy_fl(pstMbuf, "t", 3);
            },
    });
    EXPECT_EQ(result.failedRuns, 2u);
}

// ---- rebuilding the record
// -----------------------------------------------------------------------

TEST_F(StackDebugTest, RebuildRefusesTooFewOrFewerEntries) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(pstMbuf, nullptr, 5, kModule, "c", 1), nullptr);
    EXPECT_EQ(Rec(pstMbuf), nullptr);
    uint8_t *pucRec = HandRecord(pstMbuf, 12, 12);
    ASSERT_NE(pucRec, nullptr);
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(pstMbuf, pucRec, 6, kModule, "c", 1), nullptr);
    EXPECT_EQ(Rec(pstMbuf), pucRec);
    EXPECT_EQ(Reports(), (std::vector<krm::test::Report>{AssertReportNoText("krm_mbuf", 1496),
                                                         AssertReportNoText("krm_mbuf", 1502)}));
    // A record already there is not created over.
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(pstMbuf, nullptr, 6, kModule, "c", 1), nullptr);
    // The capacity is one byte.
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(pstMbuf, pucRec, 256, kModule, "c", 1), nullptr);
    EXPECT_EQ(Rec(pstMbuf), pucRec);
}

// A record of an older layout (shorter head, smaller entries) is laid out
// anew: each part copied into its current place, the rest zero.
TEST_F(StackDebugTest, RebuildRelaysAnOlderLayout) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    constexpr uint32_t kOldHead = 16;
    constexpr uint32_t kOldEntry = 32;
    uint8_t *pucOld = AddRecord(pstMbuf, MBUF_CTL_STACKDEBUG, kOldHead + 6 * kOldEntry);
    ASSERT_NE(pucOld, nullptr);
    krm::Store16At(pucOld, 2, kOldHead - 4);
    pucOld[4] = 6;
    pucOld[5] = 2;
    krm::Store16At(pucOld, 6, kOldEntry);
    pucOld[8] = 0x21;
    krm::Store32At(pucOld, 12, 0xCAFEF00Du);
    for (uint32_t i = 0; i < 6; ++i) {
        for (uint32_t b = 0; b < kOldEntry; ++b) {
            pucOld[kOldHead + i * kOldEntry + b] = static_cast<uint8_t>(i * 40 + b + 1);
        }
    }
    const std::vector<uint8_t> old(pucOld, pucOld + kOldHead + 6 * kOldEntry);

    MBUF_STACKDEBUG_ENTRY_S *pstCur =
        MBUF_DelOldAddNewAppTime_fl(pstMbuf, pucOld, 6, kModule, "c", 1);
    const uint8_t *pucRec = Rec(pstMbuf);
    ASSERT_NE(pucRec, nullptr);
    EXPECT_NE(pucRec, pucOld);
    EXPECT_EQ(static_cast<const void *>(pstCur), pucRec + kHeadLen + 2 * kEntryLen);
    EXPECT_EQ(krm::Load16At(pucRec, 2), 24u);
    EXPECT_EQ(pucRec[4], 6u);
    EXPECT_EQ(pucRec[5], 2u);
    EXPECT_EQ(krm::Load16At(pucRec, 6), 48u);
    EXPECT_EQ(pucRec[8], 0x21);
    EXPECT_EQ(krm::Load32At(pucRec, 12), 0xCAFEF00Du);
    EXPECT_EQ(std::vector<uint8_t>(pucRec + 16, pucRec + 28), std::vector<uint8_t>(12, 0));
    for (uint32_t i = 0; i < 6; ++i) {
        const uint8_t *e = pucRec + kHeadLen + i * kEntryLen;
        const uint8_t *o = old.data() + kOldHead + i * kOldEntry;
        EXPECT_EQ(std::vector<uint8_t>(e, e + kOldEntry), std::vector<uint8_t>(o, o + kOldEntry))
            << i;
        EXPECT_EQ(std::vector<uint8_t>(e + kOldEntry, e + kEntryLen),
                  std::vector<uint8_t>(kEntryLen - kOldEntry, 0))
            << i;
    }
    ExpectValid(pstMbuf);
}

// Entries the old record claims but does not hold are not read: they come
// out free.
TEST_F(StackDebugTest, RebuildReadsNoFurtherThanTheOldRecord) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    uint8_t *pucOld = HandRecord(pstMbuf, 6, 2);  // 124 bytes, slot 128
    ASSERT_NE(pucOld, nullptr);
    krm::Store32At(pucOld, kHeadLen, kCompA);
    krm::Store32At(pucOld, kHeadLen + kEntryLen, kCompB);
    ASSERT_NE(MBUF_DelOldAddNewAppTime_fl(pstMbuf, pucOld, 12, kModule, "c", 1), nullptr);
    const uint8_t *pucRec = Rec(pstMbuf);
    EXPECT_EQ(ReadEntry(pucRec, 0).ulComp, kCompA);
    EXPECT_EQ(ReadEntry(pucRec, 1).ulComp, kCompB);
    for (uint32_t i = 2; i < 12; ++i) {
        EXPECT_EQ(ReadEntry(pucRec, i).ulComp, 0u) << i;
    }
}

// ---- control fields --------------------------------------------------------------------------

TEST_F(StackDebugTest, ControlFieldsAreStoredAndTheFlagsOredIn) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    const MBUF_STACKDEBUG_CTL_S stFirst{0x01,       0xA1,       0xB2C3, 0x11111111,
                                        0x22222222, 0x33333333, 0x4444, 0x5555};
    ASSERT_EQ(MBUF_SetStackDebugCtl_fl(pstMbuf, &stFirst, kModule, "c", 1), 0);
    uint8_t *pucRec = Rec(pstMbuf);
    ASSERT_NE(pucRec, nullptr);
    EXPECT_EQ(pucRec[4], 6u);  // created with six entries
    const MBUF_STACKDEBUG_CTL_S stSecond{0x10, 0x02, 0x0304, 5, 6, 7, 8, 9};
    ASSERT_EQ(MBUF_SetStackDebugCtl_fl(pstMbuf, &stSecond, kModule, "c", 2), 0);
    EXPECT_EQ(Rec(pstMbuf), pucRec);
    EXPECT_EQ(pucRec[8], 0x11);
    EXPECT_EQ(pucRec[9], 0x02);
    EXPECT_EQ(krm::Load16At(pucRec, 10), 0x0304u);
    EXPECT_EQ(krm::Load32At(pucRec, 12), 5u);
    EXPECT_EQ(krm::Load32At(pucRec, 16), 6u);
    EXPECT_EQ(krm::Load32At(pucRec, 20), 7u);
    EXPECT_EQ(krm::Load16At(pucRec, 24), 8u);
    EXPECT_EQ(krm::Load16At(pucRec, 26), 9u);
    EXPECT_EQ(pucRec[4], 6u);
    ExpectValid(pstMbuf);

    EXPECT_EQ(MBUF_SetStackDebugCtl_fl(pstMbuf, nullptr, kModule, "c", 3), -1);
    EXPECT_EQ(MBUF_SetStackDebugCtl_fl(nullptr, &stFirst, kModule, "c", 3), -1);
    EXPECT_EQ(MBUF_SetStackDebugCtl_fl(&m_stPlain, &stFirst, kModule, "c", 3), -1);
}

TEST_F(StackDebugTest, ForAppStampsThenStoresTheControlFields) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    const MBUF_STACKDEBUG_CTL_S stCtl{0x40, 1, 2, 3, 4, 5, 6, 7};
    ASSERT_EQ(MBUF_SetStackDebugForApp_fl(pstMbuf, kCompA, &stCtl, kModule, "c", 1), 0);
    const uint8_t *pucRec = Rec(pstMbuf);
    EXPECT_EQ(ReadEntry(pucRec, 0).ulComp, kCompA);
    EXPECT_EQ(pucRec[8], 0x40);
    EXPECT_EQ(krm::Load32At(pucRec, 20), 5u);

    // The stamp comes first and is kept when the control part fails.
    MBUF_S *pstOther = NewPacket();
    ASSERT_NE(pstOther, nullptr);
    EXPECT_EQ(MBUF_SetStackDebugForApp_fl(pstOther, kCompB, nullptr, kModule, "c", 2), -1);
    ASSERT_NE(Rec(pstOther), nullptr);
    EXPECT_EQ(ReadEntry(Rec(pstOther), 0).ulComp, kCompB);
    EXPECT_EQ(MBUF_SetStackDebugForApp_fl(&m_stPlain, kCompA, &stCtl, kModule, "c", 3), -1);
}

// ---- readers and the copier
// -----------------------------------------------------------------------

TEST_F(StackDebugTest, FirstTimeReadsTheFirstEntry) {
    uint32_t ulComp = 0;
    KRM_SYSTIME_S stTime = Zero();
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(nullptr, &ulComp, &stTime), 1);
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, nullptr, &stTime), 1);
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, nullptr), 1);
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, &stTime), 2);

    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    const KRM_SYSTIME_S stFirst = Now();
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, &stTime), 0);
    EXPECT_EQ(ulComp, kCompA);
    EXPECT_TRUE(SameTime(stTime, stFirst));

    // Once the entry has a last stamp, that one is given.
    Advance(2000000);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    ASSERT_EQ(Stamp(pstMbuf, kCompB), 0);
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, &stTime), 0);
    EXPECT_EQ(ulComp, kCompA);
    EXPECT_TRUE(SameTime(stTime, Now()));
    EXPECT_FALSE(SameTime(stTime, stFirst));

    uint8_t *pucRec = Rec(pstMbuf);
    pucRec[5] = 7;  // beyond the capacity of 6
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, &stTime), 3);
    pucRec[5] = 6;  // equal to it still reads
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, &stTime), 0);
    std::memset(pucRec + kHeadLen + 8, 0, 24);  // both stamps unset
    EXPECT_EQ(MBUF_GetStackDebugInfoFirstTime(pstMbuf, &ulComp, &stTime), 4);
}

TEST_F(StackDebugTest, AppTimeGivesTheEntriesAndTheCurrentIndex) {
    MBUF_STACKDEBUG_ENTRY_S *pstEntries = nullptr;
    uint8_t ucCur = 99;
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(MBUF_GetStackDebugAppTime(pstMbuf, &pstEntries, &ucCur), -1);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    Advance(40);
    ASSERT_EQ(Stamp(pstMbuf, kCompA), 0);
    ASSERT_EQ(Stamp(pstMbuf, kCompB), 0);
    ASSERT_EQ(MBUF_GetStackDebugAppTime(pstMbuf, &pstEntries, &ucCur), 0);
    EXPECT_EQ(static_cast<void *>(pstEntries), Rec(pstMbuf) + kHeadLen);
    EXPECT_EQ(ucCur, 1);
    EXPECT_EQ(pstEntries[0].ulCompId, kCompA);
    EXPECT_EQ(pstEntries[0].ulUsec, 40u);
    EXPECT_EQ(pstEntries[1].ulCompId, kCompB);
    EXPECT_EQ(pstEntries[1].aulLastTick[0], static_cast<uint32_t>(m_ullTick));

    Rec(pstMbuf)[5] = 7;
    EXPECT_EQ(MBUF_GetStackDebugAppTime(pstMbuf, &pstEntries, &ucCur), -1);
    EXPECT_EQ(MBUF_GetStackDebugAppTime(nullptr, &pstEntries, &ucCur), -1);
    EXPECT_EQ(MBUF_GetStackDebugAppTime(pstMbuf, nullptr, &ucCur), -1);
    EXPECT_EQ(MBUF_GetStackDebugAppTime(pstMbuf, &pstEntries, nullptr), -1);
}

TEST_F(StackDebugTest, CopyGivesTheDestinationTheSameRecord) {
    MBUF_S *pstSrc = NewPacket();
    MBUF_S *pstDst = NewPacket();
    ASSERT_NE(pstSrc, nullptr);
    ASSERT_NE(pstDst, nullptr);
    EXPECT_EQ(MBUF_CopyStackDebugInfo(pstSrc, pstDst, kModule), 0xFFFFFFFFu);
    for (uint32_t i = 0; i < 8; ++i) {
        ASSERT_EQ(Stamp(pstSrc, kCompA + i), 0);
    }
    ASSERT_EQ(MBUF_CopyStackDebugInfo(pstSrc, pstDst, kModule), 0u);
    const uint8_t *pucSrc = Rec(pstSrc);
    const uint8_t *pucDst = Rec(pstDst);
    ASSERT_NE(pucDst, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(pucDst, pucDst + 604),
              std::vector<uint8_t>(pucSrc, pucSrc + 604));
    KRM_HOST_BUF_INFO_S stInfo{};
    ASSERT_EQ(KRM_HOST_BufferInfo(pstDst->pstCtlInfo, &stInfo), 0u);
    EXPECT_STREQ(stInfo.pcFile, "MBUF_CopyStackDebugInfo");
    ExpectValid(pstDst);

    // A destination that already has the record, a bad source, NULLs.
    EXPECT_EQ(MBUF_CopyStackDebugInfo(pstSrc, pstDst, kModule), 0xFFFFFFFFu);
    MBUF_S *pstThird = NewPacket();
    Rec(pstSrc)[5] = 13;
    EXPECT_EQ(MBUF_CopyStackDebugInfo(pstSrc, pstThird, kModule), 0xFFFFFFFFu);
    EXPECT_EQ(Rec(pstThird), nullptr);
    EXPECT_EQ(MBUF_CopyStackDebugInfo(nullptr, pstThird, kModule), 0xFFFFFFFFu);
    EXPECT_EQ(MBUF_CopyStackDebugInfo(pstDst, nullptr, kModule), 0xFFFFFFFFu);
    EXPECT_EQ(MBUF_CopyStackDebugInfo(pstDst, &m_stPlain, kModule), 0xFFFFFFFFu);
}

// ---- the time-stamp record (record 11) ----------------------------------------------------------

TEST_F(StackDebugTest, TimeStampsCountMillisecondsWithinTheHour) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    MBUF_SetTimeStampEx_fl(pstMbuf, 3, 0, kModule, "c", 1);
    EXPECT_EQ(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_TIMESTAMP), nullptr);

    MBUF_SetTimeStampEx_fl(pstMbuf, 3, 1, kModule, "c", 1);
    const auto *pucRec = static_cast<uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_TIMESTAMP));
    ASSERT_NE(pucRec, nullptr);
    EXPECT_EQ(MBUF_GetControlLen(pstMbuf, MBUF_CTL_TIMESTAMP), 40u);
    // 10:20:30.123: minute 20, second 30, 123 ms.
    EXPECT_EQ(krm::Load32At(pucRec, 12), 20u * 60000 + 30u * 1000 + 123);
    Advance(45678000);  // to 10:21:15.801
    MBUF_SetTimeStampEx(pstMbuf, 9, 0, kModule);
    EXPECT_EQ(krm::Load32At(pucRec, 36), 21u * 60000 + 15u * 1000 + 801);
    MBUF_SetTimeStampEx(pstMbuf, 10, 1, kModule);
    for (uint32_t i = 0; i < 10; ++i) {
        if (i != 3 && i != 9) {
            EXPECT_EQ(krm::Load32At(pucRec, i * 4), 0u) << i;
        }
    }
    ExpectValid(pstMbuf);
    MBUF_SetTimeStampEx(&m_stPlain, 0, 1, kModule);
    MBUF_SetTimeStampEx(nullptr, 0, 1, kModule);
    EXPECT_TRUE(Reports().empty());
}

TEST_F(StackDebugTest, TimeStampRecordGrowthIsAttributedToTheWrapper) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    ASSERT_NE(AddRecord(pstMbuf, MBUF_CTL_APP, 240), nullptr);
    MBUF_SetTimeStampEx(pstMbuf, 0, 1, kModule);
    ASSERT_NE(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_TIMESTAMP), nullptr);
    KRM_HOST_BUF_INFO_S stInfo{};
    ASSERT_EQ(KRM_HOST_BufferInfo(pstMbuf->pstCtlInfo, &stInfo), 0u);
    EXPECT_STREQ(stInfo.pcFile, "MBUF_SetTimeStampEx");
    EXPECT_EQ(stInfo.ulLine, 184u);

    // A failed creation stores nothing and says nothing.
    MBUF_S *pstOther = NewPacket();
    ASSERT_NE(AddRecord(pstOther, MBUF_CTL_APP, 240), nullptr);
    KRM_HOST_FailNthAlloc(1);
    MBUF_SetTimeStampEx(pstOther, 0, 1, kModule);
    KRM_HOST_FailNthAlloc(0);
    EXPECT_EQ(MBUF_GetControlInfo(pstOther, MBUF_CTL_TIMESTAMP), nullptr);
    EXPECT_TRUE(Reports().empty());
}

}  // namespace
}  // namespace krm::metatest
