// Tag-message checks that fuzzing found reading past the message, kept as
// rows (fuzz/corpus/tag/regress-slot-past-message).
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "host_test.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test {
namespace {

class TagFuzzRegressionTest : public HostTest {};

// A slot that lies past the message's memory (here: an allocation of
// exactly the received length) is refused at its own place instead of being
// read; a slot inside is checked as ever.
TEST_F(TagFuzzRegressionTest, ASlotPastTheMessageIsRefusedUnread) {
    struct Row {
        std::uint32_t len;
        std::uint32_t type;
        Report report;
    };
    const std::vector<Row> rows = {
        {96, 22,
         AssertReport("mbuf_bas_byteorder_trans", 269, "180+4<96 offset+len<revLen Type 22")},
        {96, 1, AssertReport("mbuf_bas_byteorder_trans", 269, "96+4<96 offset+len<revLen Type 1")},
        {96, 0, AssertReport("mbuf_bas_byteorder_trans", 262, "0<92 0 Offset<BasOffSet Type 0")},
        {100, 1, AssertReport("mbuf_bas_byteorder_trans", 262, "0<92 0 Offset<BasOffSet Type 1")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.type);
        std::vector<std::uint8_t> msg(row.len, 0);  // slot count 0: records from byte 92
        KRM_HOST_ReportClear();
        EXPECT_EQ(MBUF_CheckTagOffsetLen(msg.data(), row.len, row.type), -1);
        EXPECT_EQ(Reports(), std::vector<Report>{row.report});
    }
}

}  // namespace
}  // namespace krm::test
