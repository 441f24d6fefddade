// The library's report helper: module and line pass through, the text is cut
// at 64 characters and always terminated, and the NULL-message form stays
// distinguishable from an empty text.
#include <string>

#include "host_test.h"
#include "internal/report.h"

namespace {

using krm::test::AssertReport;
using krm::test::AssertReportNoText;
using krm::test::Reports;

class ReportTest : public krm::test::HostTest {};

TEST_F(ReportTest, FormatsAndTruncatesAtSixtyFourCharacters) {
    const std::string exact(64, 'x');
    const std::string longer = exact + "TAIL";
    struct Case {
        std::string text;
        std::string expected;
    };
    const Case cases[] = {{"", ""}, {"short", "short"}, {exact, exact}, {longer, exact}};
    for (const Case &c : cases) {
        krm::Report("krm_mbuf", 7, "%s", c.text.c_str());
    }
    krm::Report("krm_mbuf_bas", 2731, "T %u ML %u TL %u", 3u, 12u, 20u);

    const auto reports = Reports();
    ASSERT_EQ(reports.size(), 5u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(reports[i], AssertReport("krm_mbuf", 7, cases[i].expected)) << i;
    }
    EXPECT_EQ(reports[4], AssertReport("krm_mbuf_bas", 2731, "T 3 ML 12 TL 20"));
}

TEST_F(ReportTest, NoTextFormIsDistinctFromEmptyText) {
    krm::ReportNoText("mbuf_uipc_mbuf", 131);
    krm::Report("mbuf_uipc_mbuf", 131, "%s", "");
    const auto reports = Reports();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0], AssertReportNoText("mbuf_uipc_mbuf", 131));
    EXPECT_EQ(reports[1], AssertReport("mbuf_uipc_mbuf", 131, ""));
    EXPECT_NE(reports[0], reports[1]);
}

}  // namespace
