// What the packet dump shows of this family's metadata: the three flag words
// and one line per stack-debug entry, in the printed format.
#include <string>

#include "mbuf_check.h"
#include "meta_support.h"

namespace krm::metatest {
namespace {

class MetaDumpTest : public MetaTest {
  protected:
    void SetUp() override {
        MetaTest::SetUp();
        KRM_HOST_SetTickHz(1000000);
        KRM_HOST_SetTimeZone(8 * 3600);
    }
    static void StampAt(MBUF_S *pstMbuf, uint32_t ulComp, const KRM_SYSTIME_S &stTime,
                        uint32_t ulTick) {
        const BEX_CPUTICK_S stTick{ulTick, 0};
        ASSERT_EQ(MBUF_SetStackDebugInfoSelf_fl(pstMbuf, ulComp, &stTime, &stTick, kModule, "t", 1),
                  0);
    }
};

TEST_F(MetaDumpTest, ShowsFlagWordsAndStackDebugEntries) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    (void)MBUF_SetFlag(pstMbuf, 0x101);
    (void)MBUF_SetFlag2(pstMbuf, 0x20);
    (void)MBUF_SetFlag3(pstMbuf, 31);
    StampAt(pstMbuf, 0x00650001, Time(2024, 3, 5, 10, 20, 30, 123), 1000000);
    StampAt(pstMbuf, 0x00650001, Time(2024, 3, 5, 10, 20, 31, 623), 2500000);
    StampAt(pstMbuf, 0x00770002, Time(2024, 3, 5, 10, 20, 31, 623), 2500250);
    krm::test::ExpectValid(pstMbuf);

    const std::string dump = krm::test::Dump(pstMbuf);
    EXPECT_NE(dump.find("\nflag words: packet 0x00000101 flag2 0x00000020 flag3 0x80000000\n"),
              std::string::npos)
        << dump;
    const std::string entries =
        " STACKDEBUG offset 184 len 320\n"
        "    [SOCK  0x  650001]: 2024-03-05 18:20:30.123+08:00 ~ 2024-03-05 18:20:31.623+08:00 "
        "(1500000us/1500000tick)\n"
        "    [ARP   0x  770002]: 2024-03-05 18:20:31.623+08:00 ~ 2024-03-05 18:20:31.623+08:00 "
        "(0us/0tick)\n";
    EXPECT_NE(dump.find(entries), std::string::npos) << dump;
}

TEST_F(MetaDumpTest, FlagWordsWithoutBlockAndNoEntriesForAnEmptyRecord) {
    m_stNoBlock.ulFlag2 = 0x1234;
    const std::string dump = krm::test::Dump(&m_stNoBlock);
    EXPECT_NE(dump.find("flag words: packet none flag2 0x00001234 flag3 0x00000000\n"),
              std::string::npos)
        << dump;

    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    ASSERT_NE(AddRecord(pstMbuf, MBUF_CTL_STACKDEBUG, 28 + 48), nullptr);
    const std::string empty = krm::test::Dump(pstMbuf);
    EXPECT_NE(empty.find(" STACKDEBUG offset 184 len 80\n"), std::string::npos) << empty;
    EXPECT_EQ(empty.find("    ["), std::string::npos) << empty;
}

}  // namespace
}  // namespace krm::metatest
