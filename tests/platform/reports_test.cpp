// The report sink: what the library and the platform report is kept in
// order with its file, line and text, and can be echoed.
#include <gmock/gmock.h>

#include "platform_util.h"

namespace krm::test::platform {
namespace {

using ::testing::ElementsAre;

class ReportsTest : public HostTest {};

Report Diag(std::uint32_t arg1, std::uint32_t arg2, const std::string &text, bool hasText = true) {
    return Report{KRM_HOST_REPORT_DIAG, "", 0, arg1, arg2, hasText, text};
}

// A NULL message differs from an empty one; diagnostics are formatted and
// kept whole however long.
TEST_F(ReportsTest, AssertionsAndDiagnosticsAreKeptInOrder) {
    const std::string longText(3000, 'x');
    KRM_Assert("mbuf_uipc_mbuf", 391, "memcpy_s return 34");
    PLX_DiagLog(2780, 0x0872100F, "%s %u", "sent", 7u);
    KRM_Assert("krm_mbuf", 12, nullptr);
    KRM_Assert("krm_mbuf", 12, "");
    KRM_Assert(nullptr, 5, "no file");
    PLX_DiagLog(1, 2, nullptr);
    PLX_DiagLog(0, 0, "<%s>", longText.c_str());
    EXPECT_THAT(Reports(),
                ElementsAre(AssertReport("mbuf_uipc_mbuf", 391, "memcpy_s return 34"),
                            Diag(2780, 0x0872100F, "sent 7"), AssertReportNoText("krm_mbuf", 12),
                            AssertReport("krm_mbuf", 12, ""), AssertReport("", 5, "no file"),
                            Diag(1, 2, "", false), Diag(0, 0, "<" + longText + ">")));
}

// The caller's buffer may change or vanish; what was captured stays valid
// while more reports arrive. A runaway loop cannot take all memory: the
// first reports stay, later ones are dropped until the list is cleared.
TEST_F(ReportsTest, CapturedTextIsACopyAndTheListIsBounded) {
    constexpr std::uint32_t kBound = 100000;
    char message[] = "first";
    KRM_Assert("file.cpp", 1, message);
    message[0] = 'X';
    KRM_HOST_REPORT_S first{}, last{};
    ASSERT_EQ(KRM_HOST_ReportGet(0, &first), 0u);
    for (std::uint32_t i = 1; i < kBound + 5; ++i) {
        KRM_Assert("loop", i, "again");
    }
    EXPECT_EQ(std::tuple(std::string(first.pcText), std::string(first.pcFile)),
              std::tuple("first", "file.cpp"));
    EXPECT_EQ(KRM_HOST_ReportCount(), kBound);
    ASSERT_EQ(KRM_HOST_ReportGet(kBound - 1, &last), 0u);
    EXPECT_EQ(last.ulLine, kBound - 1);
    EXPECT_TRUE(KRM_HOST_ReportGet(kBound, &last) != 0 && KRM_HOST_ReportGet(0, nullptr) != 0);
    KRM_HOST_ReportClear();
    KRM_Assert("after", 1, "kept again");
    EXPECT_THAT(Reports(), ElementsAre(AssertReport("after", 1, "kept again")));
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

TEST_F(ReportsTest, EchoWritesEachReportToTheStreamUntilSilenced) {
    const TempFile out = OpenTempFile();
    KRM_HOST_ReportEcho(out.get());
    KRM_Assert("krm_mbuf", 77, "echoed");
    PLX_DiagLog(2780, 0x0872100F, "diag %d", 5);
    KRM_HOST_ReportEcho(nullptr);
    KRM_Assert("krm_mbuf", 78, "silent");
    EXPECT_THAT(LinesOf(out.get()),
                ElementsAre("[assert] krm_mbuf:77: echoed\n", "[diag] 2780 0x0872100f: diag 5\n"));
    EXPECT_EQ(KRM_HOST_ReportCount(), 3u) << "echoing does not replace capturing";
}

}  // namespace
}  // namespace krm::test::platform
