// The drop-reason and error-code texts: each table's row count and a sample
// of rows across it, taken from the published lists; the four lookups with
// their buffer rule, code layouts, unknown codes and the 39-character cut.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "diag/pads_lookup.h"
#include "host_test.h"
#include "krm_mbuf/mbuf.h"

namespace krm::diagtest {
namespace {

using Lookup = std::uint32_t (*)(std::uint32_t, std::uint32_t, char *);

class DropTextTest : public krm::test::HostTest {
  protected:
    // The text a lookup writes into a generous buffer, which must come back
    // terminated within 40 bytes and untouched behind them.
    static std::string Text(Lookup fn, std::uint32_t code) {
        std::vector<char> buf(64, 'x');
        EXPECT_EQ(fn(code, static_cast<std::uint32_t>(buf.size()), buf.data()), 0u) << code;
        EXPECT_NE(std::memchr(buf.data(), '\0', 40), nullptr) << code;
        for (std::size_t i = 40; i < buf.size(); ++i) {
            EXPECT_EQ(buf[i], 'x') << code << ": written past 40 bytes";
        }
        return std::string(buf.data());
    }
};

struct Indexed {
    std::uint32_t index;
    const char *text;
};

struct Searched {
    std::uint32_t index;
    std::uint32_t code;
    const char *text;
};

TEST_F(DropTextTest, TablesHoldEveryRowAndSampledTexts) {
    EXPECT_EQ(std::size(g_apcPadsPathEntryStatus), 5u);
    EXPECT_EQ(std::size(g_apcPadsPathEntryList), 171u);
    EXPECT_EQ(std::size(g_apcPadsSockMbufDrop), 433u);
    EXPECT_EQ(std::size(g_astPadsLdmErrorCode1), 103u);
    EXPECT_EQ(std::size(g_astPadsLdmErrorCode2), 126u);
    EXPECT_EQ(std::size(g_astPadsLlaErrorCode), 82u);
    for (const char *text : g_apcPadsPathEntryList) {
        ASSERT_NE(text, nullptr);
    }
    for (const char *text : g_apcPadsSockMbufDrop) {
        ASSERT_NE(text, nullptr);
    }
    const std::vector<std::pair<const char *const *, std::vector<Indexed>>> indexed = {
        {g_apcPadsPathEntryStatus,
         {{0, "PATH REASON OK"}, {1, "WAIT"}, {2, "INNER ERROR"}, {3, "NO"}, {4, "BUTT"}}},
        {g_apcPadsPathEntryList,
         {{0, "TABLE_BEGIN"},
          {1, "ROUTE"},
          {34, "IF_GROUP "},
          {64, "BIDIR MFIB"},
          {99, "HW_CFG"},
          {123, "PATH_LIMIT"},
          {144, "QUERY_TABLE_FLEXE_APS_INFO"},
          {158, "MPLS6_SRBE_RLFA_LABELSTACK"},
          {169, "IF DMAC"},
          {170, "BUTT"}}},
        {g_apcPadsSockMbufDrop,
         {{0, "OK"},
          {1, "ICMP6 Error"},
          {85, "Other Reason"},
          {143, "IP Input Mbuf Null"},
          {165, "Socket Stae Invalid"},
          {216, "Not Exist Socketid"},
          {230, "Not Exist SocketId"},
          {354, "No IP or IPv6 Info"},
          {400, "Receive syn"},
          {403, "Too big input pkt len"},
          {431, "Direct Send Drop"},
          {432, "Other Reason"}}},
    };
    for (const auto &[table, rows] : indexed) {
        for (const Indexed &row : rows) {
            EXPECT_STREQ(table[row.index], row.text) << row.index;
        }
    }
    const std::vector<std::pair<const MBUF_PADS_ERRCODE_S *, std::vector<Searched>>> searched = {
        {g_astPadsLdmErrorCode1,
         {{0, 0x0, "OK"},
          {6, 0x10000, "Security check not success"},
          {10, 0x10004, "Forward packet, no need process"},
          {93, 0x2050A, "No eth session"},
          {94, 0x2010A, "No pct max"},
          {95, 0x2050B, "No session max"},
          {102, 0x30006, "Fe pkttype invail"}}},
        {g_astPadsLdmErrorCode2,
         {{0, 0x40000, "Mbuf invail"},
          {33, 0x50000, "Mpls invail"},
          {77, 0x603EC, "isis pdu length <= 2"},
          {116, 0x81000, "Applib process packet fail."},
          {125, 0x907D7, "Update host flag not success"}}},
        {g_astPadsLlaErrorCode,
         {{0, 0x0, "OK"},
          {16, 0x1000E, "Can not find available LDM"},
          {48, 0x1002E, "No vr ldm pipe"},
          {49, 0x20000, "Fail info"},
          {81, 0x70000, "Default error"}}},
    };
    for (const auto &[table, rows] : searched) {
        for (const Searched &row : rows) {
            EXPECT_EQ(table[row.index].ulCode, row.code) << row.index;
            EXPECT_STREQ(table[row.index].pcStr, row.text) << row.index;
        }
    }
}

// Below 40 bytes, or without a buffer, nothing is written.
TEST_F(DropTextTest, BufferOfFortyBytesIsTheLeast) {
    for (const Lookup fn : {MBUF_PADS_TransPathErrorCodeToStr, MBUF_PADS_TransSockErrorCodeToStr,
                            MBUF_PADS_TransLdmErrorCodeToStr, MBUF_PADS_TransLlaErrorCodeToStr}) {
        char buf[40];
        std::memset(buf, 'x', sizeof(buf));
        EXPECT_EQ(fn(0, 39, buf), 0xFFFFFFFFu);
        EXPECT_EQ(fn(0, 0, buf), 0xFFFFFFFFu);
        EXPECT_EQ(buf[0], 'x');
        EXPECT_EQ(fn(0, 40, nullptr), 0xFFFFFFFFu);
        EXPECT_EQ(fn(0, 40, buf), 0u);
        EXPECT_STREQ(buf, "OK");
    }
    EXPECT_TRUE(krm::test::Reports().empty());
}

TEST_F(DropTextTest, PathCodes) {
    struct Row {
        std::uint32_t code;
        const char *text;
    };
    const Row rows[] = {
        {0x01EC, "Path Limit"},  // type 123, whatever the state
        {0x01EF, "Path Limit"},
        {0x8005, "WAIT ROUTE[5]"},  // bit 15 is dropped from the value
        {0x0006, "QueryError[6]"},
        {0x0004, "OK"},
        {0x0007, "NO ROUTE[7]"},
        {0x8089, "WAIT IF_GROUP [137]"},  // the table name's own blank
        {0x02A7, "NO IF DMAC[679]"},      // type 169, the last table
        {0x02A8, "Invalid TableType[170]"},
        {0x82A9, "Invalid TableType[170]"},
        {0x7FFD, "Invalid TableType[8191]"},
        {0xFFFFFFFF, "Invalid TableType[8191]"},
        {0x00010006, "QueryError[65542]"},  // bits above 16 stay in the value
        // Longer than 39 characters: cut.
        {0x10000241, "WAIT QUERY_TABLE_FLEXE_APS_INFO[2684360"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(Text(MBUF_PADS_TransPathErrorCodeToStr, row.code), row.text)
            << std::hex << row.code;
    }
}

TEST_F(DropTextTest, SocketCodes) {
    EXPECT_EQ(Text(MBUF_PADS_TransSockErrorCodeToStr, 0), "OK");
    EXPECT_EQ(Text(MBUF_PADS_TransSockErrorCodeToStr, 1), "ICMP6 Error");
    EXPECT_EQ(Text(MBUF_PADS_TransSockErrorCodeToStr, 272), "MD5 Auth Failed");
    EXPECT_EQ(Text(MBUF_PADS_TransSockErrorCodeToStr, 431), "Direct Send Drop");
    for (const std::uint32_t code : {433u, 434u, 0x10000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Text(MBUF_PADS_TransSockErrorCodeToStr, code), "Other Reason") << code;
    }
    for (std::uint32_t code = 1; code < 433; ++code) {
        EXPECT_EQ(Text(MBUF_PADS_TransSockErrorCodeToStr, code), g_apcPadsSockMbufDrop[code]);
    }
}

// Codes up to 0x4FFFF are searched in the first table only, larger ones in
// the second only: the second table's rows below 0x50000 are never found.
TEST_F(DropTextTest, DistributionModuleCodes) {
    struct Row {
        std::uint32_t code;
        const char *text;
    };
    const Row rows[] = {
        {0x0, "OK"},
        {0x5, "Pipe invalid"},
        {0x10004, "Forward packet, no need process"},
        {0x2010A, "No pct max"},
        {0x30004, "Rcv ipv6 multi from pw/ac not success"},
        {0x30006, "Fe pkttype invail"},
        {0x40000, "Other Reason"},
        {0x4FFFF, "Other Reason"},
        {0x50000, "Mpls invail"},
        {0x603EC, "isis pdu length <= 2"},
        {0x81000, "Applib process packet fail."},
        {0x907D7, "Update host flag not success"},
        {0x907D8, "Other Reason"},
        {0x6, "Other Reason"},
        {0xFFFFFFFF, "Other Reason"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(Text(MBUF_PADS_TransLdmErrorCodeToStr, row.code), row.text)
            << std::hex << row.code;
    }
}

TEST_F(DropTextTest, LinkLayerCodes) {
    struct Row {
        std::uint32_t code;
        const char *text;
    };
    const Row rows[] = {
        {0x0, "OK"},
        {0x1, "Local point error"},
        {0x10017, "No pct table of phy trunk member if"},
        {0x2000F, "Packet send fail by oduk if"},
        {0x50000, "No supervlan"},
        {0x70000, "Default error"},
        {0x2, "Other Reason"},
        {0x1002F, "Other Reason"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(Text(MBUF_PADS_TransLlaErrorCodeToStr, row.code), row.text)
            << std::hex << row.code;
    }
    for (const MBUF_PADS_ERRCODE_S &row : g_astPadsLlaErrorCode) {
        EXPECT_EQ(Text(MBUF_PADS_TransLlaErrorCodeToStr, row.ulCode), row.pcStr);
    }
}

// The search has no early exit: of two rows with one code the later wins.
TEST(DropTextLookup, LaterRowOfAnEqualCodeWins) {
    const MBUF_PADS_ERRCODE_S rows[] = {{7, "first"}, {8, "other"}, {7, "second"}, {9, "last"}};
    EXPECT_STREQ(krm::diag::FindCodeText(rows, 4, 7), "second");
    EXPECT_STREQ(krm::diag::FindCodeText(rows, 4, 9), "last");
    EXPECT_STREQ(krm::diag::FindCodeText(rows, 3, 9), nullptr);
    EXPECT_STREQ(krm::diag::FindCodeText(rows, 2, 7), "first");
}

}  // namespace
}  // namespace krm::diagtest
