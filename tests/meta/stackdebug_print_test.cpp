// The printed stack-debug lines, character for character, for a fixed clock
// and zone; the carried-over column of a stamp taken at midnight; and every
// way the caller's buffer can be too small.
#include <cstring>
#include <string>
#include <vector>

#include "meta_support.h"

namespace krm::metatest {
namespace {

constexpr uint32_t kSock = 0x00650001;
constexpr uint32_t kArp = 0x00770002;

class StackDebugPrintTest : public MetaTest {
  protected:
    void SetUp() override {
        MetaTest::SetUp();
        KRM_HOST_SetTickHz(1000000);
        KRM_HOST_SetTimeZone(8 * 3600);
    }

    // Stamps with an explicit universal time and tick.
    static void StampAt(MBUF_S *pstMbuf, uint32_t ulComp, const KRM_SYSTIME_S &stTime,
                        uint64_t ullTick) {
        const BEX_CPUTICK_S stTick{static_cast<uint32_t>(ullTick),
                                   static_cast<uint32_t>(ullTick >> 32)};
        ASSERT_EQ(MBUF_SetStackDebugInfoSelf_fl(pstMbuf, ulComp, &stTime, &stTick, kModule, "t", 1),
                  0);
    }

    static std::string Print(MBUF_S *pstMbuf, uint32_t ulSize = 4096) {
        std::vector<char> buf(ulSize + 1, '#');
        const uint32_t ulLen = MBUF_GetStackDebugInfo(pstMbuf, buf.data(), ulSize);
        EXPECT_LE(ulLen, ulSize);
        EXPECT_EQ(buf[ulSize], '#') << "wrote past the buffer";
        EXPECT_EQ(std::strlen(buf.data()), ulLen == ulSize ? ulSize - 1 : ulLen);
        return std::string(buf.data());
    }

    // SOCK at 10:20:30.123 and again 1.5 s later, then ARP 250 us after.
    MBUF_S *ThreeStamps() {
        MBUF_S *pstMbuf = NewPacket();
        if (pstMbuf != nullptr) {
            StampAt(pstMbuf, kSock, Time(2024, 3, 5, 10, 20, 30, 123), 1000000);
            StampAt(pstMbuf, kSock, Time(2024, 3, 5, 10, 20, 31, 623), 2500000);
            StampAt(pstMbuf, kArp, Time(2024, 3, 5, 10, 20, 31, 623), 2500250);
        }
        return pstMbuf;
    }
};

// ARP's entry has no last stamp: its right-hand column repeats what the
// previous entry showed there.
const std::string kLine1 =
    "[SOCK  0x  650001]: 2024-03-05 18:20:30.123+08:00 ~ 2024-03-05 18:20:31.623+08:00 "
    "(1500000us/1500000tick)\r\n";
const std::string kLine2 =
    "[ARP   0x  770002]: 2024-03-05 18:20:31.623+08:00 ~ 2024-03-05 18:20:31.623+08:00 "
    "(0us/0tick)\r\n";

TEST_F(StackDebugPrintTest, LinesMatchTheFormatExactly) {
    MBUF_S *pstMbuf = ThreeStamps();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(Print(pstMbuf), kLine1 + kLine2);
}

TEST_F(StackDebugPrintTest, ZoneTextFollowsThePlatformConversion) {
    struct Case {
        const char *pcName;
        int32_t lZone;
        uint32_t ulComp;
        KRM_SYSTIME_S stTime;
        std::string line;
    };
    const std::string kNoLast = " ~ 0000-00-00 00:00:00.000 (0us/0tick)\r\n";
    const Case cases[] = {
        {"universal time has no zone text", 0, kSock, Time(2024, 3, 5, 10, 20, 30, 123),
         "[SOCK  0x  650001]: 2024-03-05 10:20:30.123" + kNoLast},
        {"negative zone", -19800, kSock, Time(2024, 3, 5, 10, 20, 30, 123),
         "[SOCK  0x  650001]: 2024-03-05 04:50:30.123-05:30" + kNoLast},
        {"ahead across midnight", 19800, kArp, Time(2024, 3, 5, 20, 0, 0, 500),
         "[ARP   0x  770002]: 2024-03-06 01:30:00.500+05:30" + kNoLast},
        {"behind across midnight", -18000, kArp, Time(2024, 3, 6, 1, 0, 0, 7),
         "[ARP   0x  770002]: 2024-03-05 20:00:00.007-05:00" + kNoLast},
        // The zone text compares only days of month: at a month's end it is
        // printed the wrong way round, as the tools reading it expect.
        {"ahead across the month end", 19800, kArp, Time(2024, 1, 31, 20, 0, 0, 500),
         "[ARP   0x  770002]: 2024-02-01 01:30:00.500-18:30" + kNoLast},
        {"unknown component", 3600, 0x00FF0001, Time(2024, 3, 5, 10, 0, 0, 1),
         "[OTHERS 0x  FF0001]: 2024-03-05 11:00:00.001+01:00" + kNoLast},
        {"full-width id", 3600, 0x12650034, Time(2024, 3, 5, 10, 0, 0, 1),
         "[SOCK  0x12650034]: 2024-03-05 11:00:00.001+01:00" + kNoLast},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pcName);
        KRM_HOST_SetTimeZone(c.lZone);
        MBUF_S *pstMbuf = NewPacket();
        ASSERT_NE(pstMbuf, nullptr);
        StampAt(pstMbuf, c.ulComp, c.stTime, 42);
        EXPECT_EQ(Print(pstMbuf), c.line);
    }
}

// A stamp whose time of day is zero (exactly midnight, universal) is not
// converted: the column shows the previous entry's converted time and zone,
// or zero and no zone in the first entry.
TEST_F(StackDebugPrintTest, MidnightStampRepeatsThePreviousColumn) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    StampAt(pstMbuf, kSock, Time(2024, 3, 5, 10, 20, 30, 123), 100);
    StampAt(pstMbuf, kArp, Time(2024, 3, 6, 0, 0, 0, 0), 200);
    StampAt(pstMbuf, kSock, Time(2024, 3, 6, 0, 0, 0, 1), 300);
    EXPECT_EQ(Print(pstMbuf),
              "[SOCK  0x  650001]: 2024-03-05 18:20:30.123+08:00 ~ 0000-00-00 00:00:00.000 "
              "(0us/0tick)\r\n"
              "[ARP   0x  770002]: 2024-03-05 18:20:30.123+08:00 ~ 0000-00-00 00:00:00.000 "
              "(0us/0tick)\r\n"
              "[SOCK  0x  650001]: 2024-03-06 08:00:00.001+08:00 ~ 0000-00-00 00:00:00.000 "
              "(0us/0tick)\r\n");

    MBUF_S *pstFirst = NewPacket();
    ASSERT_NE(pstFirst, nullptr);
    StampAt(pstFirst, kSock, Time(2024, 3, 6, 0, 0, 0, 0), 100);
    EXPECT_EQ(Print(pstFirst),
              "[SOCK  0x  650001]: 0000-00-00 00:00:00.000 ~ 0000-00-00 00:00:00.000 "
              "(0us/0tick)\r\n");
}

TEST_F(StackDebugPrintTest, PrintsUpToTheCurrentEntryOnly) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    for (uint32_t i = 0; i < 7; ++i) {
        StampAt(pstMbuf, kSock + (i << 16), Time(2024, 3, 5, 10, 0, i, 0), i);
    }
    const std::string text = Print(pstMbuf);
    size_t lines = 0;
    for (size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at + 2)) {
        ++lines;
    }
    EXPECT_EQ(lines, 7u);
    EXPECT_NE(text.find("[IPAPP 0x  6B0001]: 2024-03-05 18:00:06.000+08:00"), std::string::npos);

    auto *pucRec = static_cast<uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
    pucRec[5] = 0;
    EXPECT_EQ(Print(pstMbuf),
              "[SOCK  0x  650001]: 2024-03-05 18:00:00.000+08:00 ~ 0000-00-00 00:00:00.000 "
              "(0us/0tick)\r\n");
    // A current index beyond the capacity prints the capacity's worth: the
    // five free entries carry the last converted first stamp along.
    pucRec[5] = 200;
    const std::string free =
        "[OTHERS 0x       0]: 2024-03-05 18:00:06.000+08:00 ~ 0000-00-00 00:00:00.000 "
        "(0us/0tick)\r\n";
    EXPECT_EQ(Print(pstMbuf), text + free + free + free + free + free);
}

TEST_F(StackDebugPrintTest, BufferTooSmallEndsTheTextAtALine) {
    MBUF_S *pstMbuf = ThreeStamps();
    ASSERT_NE(pstMbuf, nullptr);
    const uint32_t ulL1 = static_cast<uint32_t>(kLine1.size());
    const uint32_t ulL2 = static_cast<uint32_t>(kLine2.size());
    struct Case {
        uint32_t ulSize;
        uint32_t ulResult;
        std::string text;
    };
    const Case cases[] = {
        {1, 0, ""},
        {ulL1, 0, ""},                 // the first line needs its terminator too
        {ulL1 + 1, ulL1 + 1, kLine1},  // exactly full: the size is returned
        {ulL1 + 2, ulL1, kLine1},
        {ulL1 + ulL2, ulL1, kLine1},
        {ulL1 + ulL2 + 1, ulL1 + ulL2 + 1, kLine1 + kLine2},
        {ulL1 + ulL2 + 2, ulL1 + ulL2, kLine1 + kLine2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.ulSize);
        std::vector<char> buf(c.ulSize + 1, '#');
        EXPECT_EQ(MBUF_GetStackDebugInfo(pstMbuf, buf.data(), c.ulSize), c.ulResult);
        EXPECT_EQ(std::string(buf.data()), c.text);
        EXPECT_EQ(buf[c.ulSize], '#');
    }

    char acBuf[8] = "keep";
    EXPECT_EQ(MBUF_GetStackDebugInfo(pstMbuf, acBuf, 0), 1u);
    EXPECT_STREQ(acBuf, "keep");
    EXPECT_EQ(MBUF_GetStackDebugInfo(nullptr, acBuf, sizeof(acBuf)), 0u);
    EXPECT_EQ(MBUF_GetStackDebugInfo(pstMbuf, nullptr, 100), 0u);
}

TEST_F(StackDebugPrintTest, NothingToPrintWithoutEntries) {
    char acBuf[64] = "junk";
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(MBUF_GetStackDebugInfo(pstMbuf, acBuf, sizeof(acBuf)), 0u);
    EXPECT_STREQ(acBuf, "");
    EXPECT_EQ(MBUF_GetStackDebugInfo(&m_stPlain, acBuf, sizeof(acBuf)), 0u);

    // A record whose capacity is 0 has no entries to print.
    ASSERT_NE(AddRecord(pstMbuf, MBUF_CTL_STACKDEBUG, 28 + 48), nullptr);
    std::strcpy(acBuf, "junk");
    EXPECT_EQ(MBUF_GetStackDebugInfo(pstMbuf, acBuf, sizeof(acBuf)), 0u);
    EXPECT_STREQ(acBuf, "");
}

}  // namespace
}  // namespace krm::metatest
