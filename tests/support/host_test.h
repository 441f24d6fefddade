// The base of every test: fresh host-platform state before, and after the
// test no buffer of either kind may remain allocated. Reports raised during
// the test are captured and can be inspected in order.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "krm_host/host.h"

namespace krm::test {

// One captured report, copied out of the host platform.
struct Report {
    std::uint32_t kind = 0;
    std::string file;
    std::uint32_t line = 0;
    std::uint32_t arg1 = 0;
    std::uint32_t arg2 = 0;
    bool hasText = false;
    std::string text;

    bool operator==(const Report &) const = default;
};

// The reports captured since the last reset or clear.
std::vector<Report> Reports();

// An assertion report as the library raises it.
Report AssertReport(const std::string &file, std::uint32_t line, const std::string &text);
Report AssertReportNoText(const std::string &file, std::uint32_t line);

// Where a live buffer was allocated and for whom: {file, line, owner};
// {"", 0, 0} when the address is not a live buffer.
using Site = std::tuple<std::string, std::uint32_t, std::uint32_t>;
Site SiteOf(const void *pBuf);

// Prints a report readably in failure messages.
void PrintTo(const Report &report, std::ostream *os);

class HostTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace krm::test
