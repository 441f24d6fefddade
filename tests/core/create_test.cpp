#include <cstring>
#include <string>

#include "core_test_util.h"

namespace krm::test {
namespace {

class CreateTest : public HostTest {};

enum Creator { kCopy, kControl, kApp };

// A one-node packet of len bytes behind headRoom, or (shape NULL) none, with
// the report a refusal raises at reportLine (none: 0).
struct OneNodeRow {
    Creator creator;
    std::uint32_t headRoom;
    std::uint32_t len;
    const char *shape;
    std::uint32_t reportLine;
};

TEST_F(CreateTest, OneNodePacketsPlaceTheDataBehindTheHeadRoom) {
    const std::uint32_t kMax = 0xFFFFFFFFu;
    const OneNodeRow rows[] = {
        {kCopy, 100, 272, "hdr inline +100 len 272", 0},
        {kCopy, 100, 300, "hdr ext 1960 +100 len 300", 0},
        {kCopy, 1960, 0, "hdr ext 1960 +1960 len 0", 0},
        {kCopy, 1000, 3000, "hdr ext 4000 +1000 len 3000", 0},
        {kCopy, 1961, 10, nullptr, 0},
        {kCopy, 10, kMax - 5, nullptr, 427},
        {kControl, 1000, 960, "hdr ext 1960 +1000 len 960", 0},
        {kControl, 1000, 961, nullptr, 0},
        {kControl, 100, 200, "hdr inline +100 len 200", 0},
        {kControl, 10, kMax, nullptr, 0},
        {kControl, kMax, 2, nullptr, 0},
        {kApp, 0, 65536, "hdr ext 65536 +0 len 65536", 0},
        {kApp, 2048, 63488, "hdr ext 65536 +2048 len 63488", 0},
        {kApp, 0, 1000, "hdr ext 1960 +0 len 1000", 0},
        {kApp, 2049, 10, nullptr, 515},
        {kApp, 0, 65537, nullptr, 515},
        {kApp, 2, kMax, nullptr, 515},
    };
    const std::vector<std::uint8_t> src = Pattern(3000);
    for (const OneNodeRow &r : rows) {
        SCOPED_TRACE("creator " + std::to_string(r.creator) + ", " + std::to_string(r.headRoom) +
                     "+" + std::to_string(r.len));
        KRM_HOST_ReportClear();
        MBUF_S *m = nullptr;
        if (r.creator == kCopy) {
            m = MBUF_CreateByCopyBuffer_fl(r.headRoom, r.len, src.data(), 0, kModule, kFile, 1);
        } else if (r.creator == kControl) {
            m = MBUF_CreateForControlPacket_fl(r.headRoom, r.len, 0, kModule, kFile, 1);
        } else {
            m = MBUF_CreateForAppPacket_fl(r.headRoom, r.len, 0, kModule, kFile, 1);
        }
        std::vector<Report> reports;
        if (r.reportLine == 427) {
            reports.push_back(AssertReportNoText("krm_mbuf", 427));
        } else if (r.reportLine == 515) {
            reports.push_back(AssertReport("krm_mbuf", 515,
                                           "Alloc mbuf failed. len: " + std::to_string(r.headRoom) +
                                               "/" + std::to_string(r.len)));
        }
        EXPECT_EQ(Reports(), reports);
        EXPECT_EQ(m != nullptr, r.shape != nullptr);
        if (m == nullptr || r.shape == nullptr) {
            continue;
        }
        ExpectValid(m);
        EXPECT_EQ(Shapes(m), r.shape);
        if (r.creator == kCopy) {
            EXPECT_EQ(PacketBytes(m), std::vector<std::uint8_t>(src.begin(), src.begin() + r.len));
        }
        MBUF_Destroy(m);
    }
    EXPECT_EQ(MBUF_CreateByCopyBuffer_fl(0, 10, nullptr, 0, kModule, kFile, 1), nullptr);
}

// The wrappers name themselves and their fixed line as the allocation site.
TEST_F(CreateTest, WrappersAllocateUnderTheirOwnNameAndLine) {
    const std::uint8_t byte = 1;
    struct Wrapper {
        MBUF_S *packet;
        const char *name;
        std::uint32_t line;
    };
    const Wrapper wrappers[] = {
        {MBUF_CreateByCopyBuffer(0, 1, &byte, 0, kModule), "MBUF_CreateByCopyBuffer", 37},
        {MBUF_CreateForControlPacket(0, 1, 0, kModule), "MBUF_CreateForControlPacket", 43},
        {MBUF_CreateForAppPacket(0, 1, 0, kModule), "MBUF_CreateForAppPacket", 166},
    };
    for (const Wrapper &w : wrappers) {
        ExpectSite(w.packet, MBUF_NODE_SIZE, w.line, w.name);
        MBUF_Destroy(w.packet);
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
    struct Row {
        std::int32_t len;
        std::uint32_t headRoom;
        const char *shapes;  // "": refused
        bool callback;
    };
    const Row rows[] = {
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
    for (const Row &r : rows) {
        SCOPED_TRACE(std::to_string(r.len) + " behind " + std::to_string(r.headRoom));
        g_copyLengths.clear();
        const MBUF_FILE_LINE_S site{kFile, 9};
        MBUF_S *m =
            MBUF_CreateMbufWithBufferData(src.data(), r.len, r.headRoom, 0x5151,
                                          r.callback ? LoggingCopy : nullptr, kModule, &site);
        EXPECT_EQ(Shapes(m), r.shapes);
        if (m == nullptr) {
            continue;
        }
        ExpectValid(m);
        EXPECT_EQ(m->ulPktRsv4, 0x5151u);
        EXPECT_EQ(PacketBytes(m), std::vector<std::uint8_t>(src.begin(), src.begin() + r.len));
        EXPECT_EQ(g_copyLengths, r.callback ? NodeLengths(m) : std::vector<std::uint32_t>{});
        MBUF_Destroy(m);
    }
    EXPECT_EQ(WithData(nullptr, 10), nullptr);
}

}  // namespace
}  // namespace krm::test
