// The drop-reason and error-code texts, checked through the four lookups
// that produce them: one row per code with the text the published lists
// give, the buffer rule, code layouts, unknown codes and the 39-character
// cut. Table rows no lookup can reach are checked in the table itself.
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
constexpr Lookup kPath = MBUF_PADS_TransPathErrorCodeToStr,
                 kSock = MBUF_PADS_TransSockErrorCodeToStr, kLdm = MBUF_PADS_TransLdmErrorCodeToStr,
                 kLla = MBUF_PADS_TransLlaErrorCodeToStr;

class DropTextTest : public krm::test::HostTest {
  protected:
    // The text a lookup writes into a generous buffer, which must come back
    // terminated within 40 bytes and untouched behind them.
    static std::string Text(Lookup fn, std::uint32_t code) {
        std::vector<char> buf(64, 'x');
        EXPECT_EQ(fn(code, static_cast<std::uint32_t>(buf.size()), buf.data()), 0u) << code;
        EXPECT_NE(std::memchr(buf.data(), '\0', 40), nullptr) << code;
        EXPECT_EQ(std::string(buf.begin() + 40, buf.end()), std::string(24, 'x')) << code;
        return std::string(buf.data());
    }
};

// Every row is filled (a missing row would leave a null behind the last),
// and the rows no code reaches hold their published texts.
TEST_F(DropTextTest, EveryRowIsFilledAndUnreachableRowsHoldTheirTexts) {
    for (const auto &[table, rows] :
         {std::pair{g_apcPadsPathEntryStatus, MBUF_PADS_PATH_STATUS_NUM},
          {g_apcPadsPathEntryList, MBUF_PADS_PATH_ENTRY_NUM},
          {g_apcPadsSockMbufDrop, MBUF_PADS_SOCK_DROP_NUM}}) {
        for (std::uint32_t i = 0; i < rows; ++i) {
            ASSERT_NE(table[i], nullptr) << i;
        }
    }
    for (const auto &[table, rows] : {std::pair{g_astPadsLdmErrorCode1, MBUF_PADS_LDM_CODE1_NUM},
                                      {g_astPadsLdmErrorCode2, MBUF_PADS_LDM_CODE2_NUM},
                                      {g_astPadsLlaErrorCode, MBUF_PADS_LLA_CODE_NUM}}) {
        for (std::uint32_t i = 0; i < rows; ++i) {
            ASSERT_NE(table[i].pcStr, nullptr) << i;
        }
    }
    EXPECT_STREQ(g_apcPadsPathEntryStatus[0], "PATH REASON OK");
    EXPECT_STREQ(g_apcPadsPathEntryStatus[2], "INNER ERROR");
    EXPECT_STREQ(g_apcPadsPathEntryStatus[4], "BUTT");
    EXPECT_STREQ(g_apcPadsPathEntryList[123], "PATH_LIMIT");
    EXPECT_STREQ(g_apcPadsPathEntryList[170], "BUTT");
    EXPECT_STREQ(g_apcPadsSockMbufDrop[0], "OK");
    EXPECT_EQ(g_astPadsLdmErrorCode2[0].ulCode, 0x40000u);  // below the second table's range
    EXPECT_STREQ(g_astPadsLdmErrorCode2[0].pcStr, "Mbuf invail");
}

// Below 40 bytes, or without a buffer, nothing is written.
TEST_F(DropTextTest, BufferOfFortyBytesIsTheLeast) {
    for (const Lookup fn : {kPath, kSock, kLdm, kLla}) {
        char buf[40];
        std::memset(buf, 'x', sizeof(buf));
        EXPECT_EQ((std::vector<std::uint32_t>{fn(0, 39, buf), fn(0, 0, buf), std::uint8_t(buf[0]),
                                              fn(0, 40, nullptr), fn(0, 40, buf)}),
                  (std::vector<std::uint32_t>{0xFFFFFFFFu, 0xFFFFFFFFu, 'x', 0xFFFFFFFFu, 0}));
        EXPECT_STREQ(buf, "OK");
    }
    EXPECT_TRUE(krm::test::Reports().empty());
}

// A path code is a table type (bits 2..14) and a state (bits 0..1); bit 15
// is dropped from the value, bits above 16 stay. Distribution-module codes
// up to 0x4FFFF are searched in the first table only, larger ones in the
// second only.
TEST_F(DropTextTest, EveryLookupGivesThePublishedText) {
    const struct {
        Lookup fn;
        std::uint32_t code;
        const char *text;
    } rows[] = {
        {kPath, 0x01EF, "Path Limit"},  // type 123, whatever the state
        {kPath, 0x0001, "WAIT TABLE_BEGIN[1]"},
        {kPath, 0x8005, "WAIT ROUTE[5]"},
        {kPath, 0x0006, "QueryError[6]"},
        {kPath, 0x0004, "OK"},
        {kPath, 0x0007, "NO ROUTE[7]"},
        {kPath, 0x8089, "WAIT IF_GROUP [137]"},  // the table name's own blank
        {kPath, 0x0103, "NO BIDIR MFIB[259]"},
        {kPath, 0x018D, "WAIT HW_CFG[397]"},
        {kPath, 0x027B, "NO MPLS6_SRBE_RLFA_LABELSTACK[635]"},
        {kPath, 0x02A7, "NO IF DMAC[679]"},  // type 169, the last table
        {kPath, 0x02A8, "Invalid TableType[170]"},
        {kPath, 0xFFFFFFFF, "Invalid TableType[8191]"},
        {kPath, 0x00010006, "QueryError[65542]"},
        {kPath, 0x10000241, "WAIT QUERY_TABLE_FLEXE_APS_INFO[2684360"},  // cut at 39
        {kSock, 0, "OK"},
        {kSock, 1, "ICMP6 Error"},
        {kSock, 85, "Other Reason"},
        {kSock, 143, "IP Input Mbuf Null"},
        {kSock, 165, "Socket Stae Invalid"},
        {kSock, 216, "Not Exist Socketid"},
        {kSock, 230, "Not Exist SocketId"},
        {kSock, 272, "MD5 Auth Failed"},
        {kSock, 354, "No IP or IPv6 Info"},
        {kSock, 400, "Receive syn"},
        {kSock, 403, "Too big input pkt len"},
        {kSock, 431, "Direct Send Drop"},
        {kSock, 432, "Other Reason"},
        {kSock, 0xFFFFFFFF, "Other Reason"},
        {kLdm, 0x0, "OK"},
        {kLdm, 0x5, "Pipe invalid"},
        {kLdm, 0x10000, "Security check not success"},
        {kLdm, 0x10004, "Forward packet, no need process"},
        {kLdm, 0x2050A, "No eth session"},
        {kLdm, 0x2010A, "No pct max"},
        {kLdm, 0x2050B, "No session max"},
        {kLdm, 0x30004, "Rcv ipv6 multi from pw/ac not success"},
        {kLdm, 0x30006, "Fe pkttype invail"},
        {kLdm, 0x40000, "Other Reason"},
        {kLdm, 0x50000, "Mpls invail"},
        {kLdm, 0x603EC, "isis pdu length <= 2"},
        {kLdm, 0x81000, "Applib process packet fail."},
        {kLdm, 0x907D7, "Update host flag not success"},
        {kLdm, 0x907D8, "Other Reason"},
        {kLla, 0x0, "OK"},
        {kLla, 0x1, "Local point error"},
        {kLla, 0x1000E, "Can not find available LDM"},
        {kLla, 0x10017, "No pct table of phy trunk member if"},
        {kLla, 0x1002E, "No vr ldm pipe"},
        {kLla, 0x20000, "Fail info"},
        {kLla, 0x2000F, "Packet send fail by oduk if"},
        {kLla, 0x50000, "No supervlan"},
        {kLla, 0x70000, "Default error"},
        {kLla, 0x1002F, "Other Reason"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(Text(row.fn, row.code), row.text) << std::hex << row.code;
    }
    // Every indexed and searched row is reached by its own code.
    for (std::uint32_t code = 1; code < MBUF_PADS_SOCK_DROP_NUM; ++code) {
        EXPECT_EQ(Text(kSock, code), g_apcPadsSockMbufDrop[code]);
    }
    for (const MBUF_PADS_ERRCODE_S &row : g_astPadsLlaErrorCode) {
        EXPECT_EQ(Text(kLla, row.ulCode), row.pcStr);
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
