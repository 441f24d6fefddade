// The printed log: a known history checked character for character, the
// ring order after a wrap, and every buffer size too small to hold it.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "protoint_support.h"

namespace krm::protointtest {
namespace {

class PrintTest : public ProtoIntTest {
  protected:
    // Session 7: two received packets (other, then green), one sent packet,
    // then a received one that skips the sequence; printed 5 seconds after the
    // first, at the frozen wall clock 10:20:07 universal.
    MBUF_PROTOINT_CTX_S *KnownHistory() {
        MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
        EXPECT_EQ(MBUF_PROTOINT_EnableSession(7, ctx), 0u);
        EXPECT_EQ(Record(ctx, 7, 3, 100, 1), 0u);
        Advance(1000);
        EXPECT_EQ(Record(ctx, 7, 3, 200, 2, true), 0u);
        Advance(1000);
        MBUF_S *sent = Stamped(ctx, 7, 60, 0);
        EXPECT_EQ(MBUF_PROTOINT_RecordPacket(sent, 0, nullptr, ctx), 0u);
        EXPECT_EQ(RecWord(sent, kSeqOff), 1u);
        Advance(1000);
        EXPECT_EQ(Record(ctx, 7, 1, 300, 5), 1u);
        Advance(2000);
        return ctx;
    }
};

const std::string kKnownLog =
    "Protocol-inter:Id=7 rcv green(lastRcvSeq,count,sndSeq)=(2,1,0) "
    "other(rcvMax,count,sndSeq)=(5,2,1) pkt:\r\n"
    " seq len  color time\r\n"
    " 8   100  y     03-05 10:20:2\r\n"
    " 9   200  g     03-05 10:20:3\r\n"
    " 10  300  y     03-05 10:20:5\r\n"
    "Id=7 snd (lastRcvSeq,count,out)=(0,1,1) pkt:\r\n"
    " seq len  time\r\n"
    " 10  60   03-05 10:20:4\r\n"
    "\r\n";

TEST_F(PrintTest, KnownHistoryPrintsExactly) {
    MBUF_PROTOINT_CTX_S *ctx = KnownHistory();
    char text[1024];
    ASSERT_EQ(MBUF_PROTOINT_PrintLog(text, sizeof(text), 7, ctx),
              static_cast<std::int32_t>(kKnownLog.size()));
    EXPECT_EQ(std::string(text), kKnownLog);
    EXPECT_TRUE(Reports().empty());
    // A disabled session prints nothing and succeeds.
    EXPECT_EQ(MBUF_PROTOINT_PrintLog(text, sizeof(text), 8, ctx), 0);
    EXPECT_EQ(std::string(text), "");
}

// Every size from 1 to one short of the text: -1, an empty text, and one
// report naming what the formatter answered for the piece that did not fit
// (the whole first line's length while it does not fit).
TEST_F(PrintTest, EveryTooSmallBufferGivesAnEmptyText) {
    MBUF_PROTOINT_CTX_S *ctx = KnownHistory();
    const std::size_t firstLine = kKnownLog.find("\r\n") + 2;
    for (std::uint32_t size = 1; size <= kKnownLog.size(); ++size) {
        KRM_HOST_ReportClear();
        std::vector<char> text(size + 8, 'x');
        ASSERT_EQ(MBUF_PROTOINT_PrintLog(text.data(), size, 7, ctx), -1) << size;
        EXPECT_EQ(text[0], '\0') << size;
        EXPECT_EQ(text[size], 'x') << size << ": written past the size";
        const std::vector<Report> reports = Reports();
        ASSERT_EQ(reports.size(), 1u) << size;
        if (size <= firstLine) {
            EXPECT_EQ(reports[0],
                      AssertReport(kMod, 520, "string calc error " + std::to_string(firstLine)))
                << size;
        } else {
            EXPECT_EQ(reports[0].line, 520u);
            EXPECT_EQ(reports[0].text.rfind("string calc error ", 0), 0u) << size;
        }
    }
    char exact[512];
    EXPECT_EQ(
        MBUF_PROTOINT_PrintLog(exact, static_cast<std::uint32_t>(kKnownLog.size() + 1), 7, ctx),
        static_cast<std::int32_t>(kKnownLog.size()));
}

// A ring alone stops with success when exactly one byte is left, and fails
// when an entry does not fit otherwise.
TEST_F(PrintTest, RingStopsWhenOneByteIsLeft) {
    MBUF_PROTOINT_CTX_S *ctx = KnownHistory();
    const auto *rcv = static_cast<const MBUF_PROTOINT_RCV_S *>(MBUF_PROTOINT_GetSess(7, 2, ctx));
    const std::size_t from = kKnownLog.find(" seq len  color");
    const std::string all = kKnownLog.substr(from, kKnownLog.find("Id=7 snd") - from);
    const std::string withFirst = all.substr(0, all.find(" 9 "));
    const std::size_t heading = all.find(" 8 ");
    const struct {
        std::size_t size;
        std::int32_t result;
        std::string text;
    } rows[] = {
        {heading, -1, ""},
        {withFirst.size() + 1, static_cast<std::int32_t>(withFirst.size()), withFirst},
        {withFirst.size() + 2, -1, ""},
        {all.size() + 1, static_cast<std::int32_t>(all.size()), all},
    };
    for (const auto &row : rows) {
        std::vector<char> text(row.size, '\0');
        const auto got = MBUF_PROTOINT_PrintLogRcvPkts(text.data(), std::uint32_t(row.size), rcv);
        EXPECT_EQ(got, row.result) << row.size;
        EXPECT_EQ(got >= 0 ? std::string(text.data()) : "", row.text) << row.size;
    }
    char text[16];
    const MBUF_PROTOINT_SND_S empty{};
    EXPECT_EQ(MBUF_PROTOINT_PrintLogSndPkts(text, sizeof(text), &empty), 0) << "no heading";
    EXPECT_EQ(MBUF_PROTOINT_PrintLogSndPkts(nullptr, sizeof(text), &empty), -1);
    EXPECT_EQ(MBUF_PROTOINT_PrintLogRcvPkts(text, sizeof(text), nullptr), -1);
    EXPECT_EQ(MBUF_PROTOINT_PrintLogString(text, sizeof(text), 7, nullptr, rcv), -1);
}

// After a wrap the printout starts at the oldest packet, numbered 1..10;
// a send slot is empty only when its whole value is, a receive slot when its
// length bits are (a green packet of length 0 is not shown).
TEST_F(PrintTest, WrappedRingPrintsOldestFirst) {
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(0);
    ASSERT_EQ(MBUF_PROTOINT_EnableSession(3, ctx), 0u);
    for (std::uint32_t n = 1; n <= 13; ++n) {
        ASSERT_EQ(Record(ctx, 3, 2, 1000 + n, n), 0u);
    }
    ASSERT_EQ(Record(ctx, 3, 3, 0, 1, true), 0u);
    char text[2048];
    ASSERT_GT(MBUF_PROTOINT_PrintLog(text, sizeof(text), 3, ctx), 0);
    const std::string log(text);
    EXPECT_EQ(log.find(" seq len  color time"), std::string::npos) << "zero-length green hidden";
    const std::size_t snd = log.find(" seq len  time\r\n");
    ASSERT_NE(snd, std::string::npos);
    unsigned no = 0, len = 0;
    const char *line = text + snd + std::string(" seq len  time\r\n").size();
    for (unsigned want = 1; want <= 10; ++want) {
        ASSERT_EQ(std::sscanf(line, " %u %u", &no, &len), 2) << want;
        EXPECT_EQ(no, want);
        EXPECT_EQ(len, 1003 + want) << "packet " << want + 3 << " is the oldest kept";
        line = std::strstr(line, "\r\n") + 2;
    }
    EXPECT_EQ(std::string(line), "\r\n");
}

}  // namespace
}  // namespace krm::protointtest
