#include "host_test.h"

#include <cstdio>
#include <ostream>

namespace krm::test {

std::vector<Report> Reports() {
    std::vector<Report> out;
    const std::uint32_t count = KRM_HOST_ReportCount();
    for (std::uint32_t i = 0; i < count; ++i) {
        KRM_HOST_REPORT_S raw{};
        if (KRM_HOST_ReportGet(i, &raw) != 0) {
            break;
        }
        out.push_back(Report{raw.ulKind, raw.pcFile ? raw.pcFile : "", raw.ulLine, raw.ulArg1,
                             raw.ulArg2, raw.bHasText != 0, raw.pcText ? raw.pcText : ""});
    }
    return out;
}

Report AssertReport(const std::string &file, std::uint32_t line, const std::string &text) {
    return Report{KRM_HOST_REPORT_ASSERT, file, line, 0, 0, true, text};
}

Report AssertReportNoText(const std::string &file, std::uint32_t line) {
    return Report{KRM_HOST_REPORT_ASSERT, file, line, 0, 0, false, ""};
}

Site SiteOf(const void *pBuf) {
    KRM_HOST_BUF_INFO_S info{};
    if (KRM_HOST_BufferInfo(pBuf, &info) != 0) {
        return {"", 0, 0};
    }
    return {info.pcFile != nullptr ? info.pcFile : "", info.ulLine, info.ulOwner};
}

void PrintTo(const Report &report, std::ostream *os) {
    *os << "{kind " << report.kind << ", " << report.file << ":" << report.line;
    if (report.kind == KRM_HOST_REPORT_DIAG) {
        *os << ", args " << report.arg1 << "/" << report.arg2;
    }
    *os << ", " << (report.hasText ? "\"" + report.text + "\"" : std::string("(no text)")) << "}";
}

void HostTest::SetUp() {
    KRM_HOST_Reset();
}

void HostTest::TearDown() {
    const std::uint32_t live = KRM_HOST_LiveBufferCount();
    if (live != 0) {
        (void)KRM_HOST_DumpLiveBuffers(stderr);
    }
    EXPECT_EQ(live, 0u) << "buffers left allocated by the test";
    KRM_HOST_Reset();
}

}  // namespace krm::test
