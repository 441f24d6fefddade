#include <cstring>
#include <string>
#include <tuple>

#include "core_test_util.h"

namespace krm::test {
namespace {

class CreateTest : public HostTest {};

enum Creator { kCopy, kControl, kApp };

TEST_F(CreateTest, OneNodePacketsPlaceTheDataBehindTheHeadRoom) {
    const std::uint32_t kMax = 0xFFFFFFFFu;
    // A one-node packet of len bytes behind headRoom, or (shape "") none, with
    // the report a refusal raises at reportLine (none: 0).
    const std::tuple<Creator, std::uint32_t, std::uint32_t, const char *, std::uint32_t> rows[] = {
        {kCopy, 100, 272, "hdr inline +100 len 272", 0},
        {kCopy, 100, 300, "hdr ext 1960 +100 len 300", 0},
        {kCopy, 1000, 3000, "hdr ext 4000 +1000 len 3000", 0},
        {kCopy, 1960, 0, "hdr ext 1960 +1960 len 0", 0},
        {kCopy, 1961, 10, "", 0},
        {kCopy, 10, kMax - 5, "", 427},
        {kControl, 1000, 960, "hdr ext 1960 +1000 len 960", 0},
        {kControl, 1000, 961, "", 0},
        {kControl, 10, kMax, "", 0},
        {kApp, 0, 65536, "hdr ext 65536 +0 len 65536", 0},
        {kApp, 2048, 63488, "hdr ext 65536 +2048 len 63488", 0},
        {kApp, 0, 1000, "hdr ext 1960 +0 len 1000", 0},
        {kApp, 2049, 10, "", 515},
        {kApp, 0, 65537, "", 515},
    };
    const std::vector<std::uint8_t> src = Pattern(3000);
    for (const auto &[creator, headRoom, len, shape, reportLine] : rows) {
        SCOPED_TRACE("creator " + std::to_string(creator) + ", " + std::to_string(headRoom) + "+" +
                     std::to_string(len));
        KRM_HOST_ReportClear();
        MBUF_S *m = nullptr;
        if (creator == kCopy) {
            m = MBUF_CreateByCopyBuffer_fl(headRoom, len, src.data(), 0, kModule, kFile, 1);
        } else if (creator == kControl) {
            m = MBUF_CreateForControlPacket_fl(headRoom, len, 0, kModule, kFile, 1);
        } else {
            m = MBUF_CreateForAppPacket_fl(headRoom, len, 0, kModule, kFile, 1);
        }
        std::vector<Report> reports;
        if (reportLine == 427) {
            reports.push_back(AssertReportNoText("krm_mbuf", 427));
        } else if (reportLine == 515) {
            reports.push_back(AssertReport(
                "krm_mbuf", 515,
                "Alloc mbuf failed. len: " + std::to_string(headRoom) + "/" + std::to_string(len)));
        }
        EXPECT_EQ(Reports(), reports);
        EXPECT_EQ(Shapes(m), shape);
        if (m != nullptr) {
            ExpectValid(m);
        }
        if (m != nullptr && creator == kCopy) {
            EXPECT_EQ(PacketBytes(m), std::vector<std::uint8_t>(src.begin(), src.begin() + len));
        }
        MBUF_Destroy(m);
    }
    EXPECT_EQ(MBUF_CreateByCopyBuffer_fl(0, 10, nullptr, 0, kModule, kFile, 1), nullptr);
}

// The wrappers name themselves and their fixed line as the allocation site.
TEST_F(CreateTest, WrappersAllocateUnderTheirOwnNameAndLine) {
    const std::uint8_t byte = 1;
    for (const auto &[m, name, line] :
         {std::tuple{MBUF_CreateByCopyBuffer(0, 1, &byte, 0, kModule), "MBUF_CreateByCopyBuffer",
                     37u},
          std::tuple{MBUF_CreateForControlPacket(0, 1, 0, kModule), "MBUF_CreateForControlPacket",
                     43u},
          std::tuple{MBUF_CreateForAppPacket(0, 1, 0, kModule), "MBUF_CreateForAppPacket", 166u}}) {
        ExpectSite(m, MBUF_NODE_SIZE, line, name);
        MBUF_Destroy(m);
    }
}

std::vector<std::uint32_t> g_copyLengths;

std::uint32_t LoggingCopy(const void *src, void *dst, std::uint32_t len) {
    g_copyLengths.push_back(len);
    std::memcpy(dst, src, len);
    return 0xDEAD;  // ignored
}

// Each node takes the largest storage its share calls for; nodes past the
// head with a buffer of a cluster or more are header nodes of their own. A
// caller's copy function is called once per node. A head room beyond the
// inline area or leaving it no room, and no length, are refused.
TEST_F(CreateTest, BufferDataChainsNodesSizedByWhatRemains) {
    // Length, head room, the nodes made ("": refused), with a copy function.
    const std::tuple<std::int32_t, std::uint32_t, const char *, bool> rows[] = {
        {356, 0, "hdr inline +16 len 356", false},
        {360, 0, "hdr inline +16 len 356; plain inline +0 len 4", false},
        {10, 356, "hdr inline +372 len 0; plain inline +0 len 10", false},
        {1000, 100, "hdr ext 1960 +100 len 1000", false},
        {2000, 0, "hdr ext 2000 +0 len 2000", true},
        {100000, 0, "hdr ext 63900 +0 len 63900; hdr ext 36100 +0 len 36100", false},
        {64900, 0, "hdr ext 63900 +0 len 63900; plain ext 1960 +0 len 1000", true},
        {127805, 0, "hdr ext 63900 +0 len 63900; hdr ext 63900 +0 len 63900; plain inline +0 len 5",
         true},
        {10, 373, "", false},
        {10, 360, "", false},
        {0, 0, "", false},
        {-1, 0, "", false},
    };
    const std::vector<std::uint8_t> src = Pattern(127805, 3);
    for (const auto &[len, headRoom, shapes, callback] : rows) {
        SCOPED_TRACE(std::to_string(len) + " behind " + std::to_string(headRoom));
        g_copyLengths.clear();
        const MBUF_FILE_LINE_S site{kFile, 9};
        MBUF_S *m = MBUF_CreateMbufWithBufferData(src.data(), len, headRoom, 0x5151,
                                                  callback ? LoggingCopy : nullptr, kModule, &site);
        EXPECT_EQ(Shapes(m), shapes);
        if (m == nullptr) {
            continue;
        }
        ExpectValid(m);
        EXPECT_EQ(m->ulPktRsv4, 0x5151u);
        EXPECT_EQ(PacketBytes(m), std::vector<std::uint8_t>(src.begin(), src.begin() + len));
        EXPECT_EQ(g_copyLengths, callback ? NodeLengths(m) : std::vector<std::uint32_t>{});
        MBUF_Destroy(m);
    }
    EXPECT_EQ(WithData(nullptr, 10), nullptr);
}

}  // namespace
}  // namespace krm::test
