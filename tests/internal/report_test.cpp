// The library's report helper: module and line pass through, the text is cut
// at 64 characters and always terminated, and the NULL-message form stays
// distinguishable from an empty text.
#include <string>
#include <vector>

#include "host_test.h"
#include "internal/report.h"

namespace {

using krm::test::AssertReport;
using krm::test::AssertReportNoText;
using krm::test::Report;
using krm::test::Reports;

class ReportTest : public krm::test::HostTest {};

TEST_F(ReportTest, FormatsAndTruncatesAtSixtyFourCharacters) {
    const std::string exact(64, 'x');
    std::vector<Report> want;
    for (const auto &[text, kept] : {std::pair<std::string, std::string>{"", ""},
                                     {"short", "short"},
                                     {exact, exact},
                                     {exact + "TAIL", exact}}) {
        krm::Report("krm_mbuf", 7, "%s", text.c_str());
        want.push_back(AssertReport("krm_mbuf", 7, kept));
    }
    krm::Report("krm_mbuf_bas", 2731, "T %u ML %u TL %u", 3u, 12u, 20u);
    want.push_back(AssertReport("krm_mbuf_bas", 2731, "T 3 ML 12 TL 20"));
    EXPECT_EQ(Reports(), want);
}

TEST_F(ReportTest, NoTextFormIsDistinctFromEmptyText) {
    krm::ReportNoText("mbuf_uipc_mbuf", 131);
    krm::Report("mbuf_uipc_mbuf", 131, "%s", "");
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReportNoText("mbuf_uipc_mbuf", 131),
                                              AssertReport("mbuf_uipc_mbuf", 131, "")}));
}

}  // namespace
