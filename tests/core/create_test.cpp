#include <cstring>
#include <string>

#include "core_test_util.h"

namespace krm::test {
namespace {

class CreateTest : public HostTest {};

// Where a one-node packet's data lies: offset into its storage, and the
// storage (0: the header node's inline area).
struct Placement {
    std::uint32_t offset;
    std::uint32_t bufSize;
};

void ExpectOneNode(MBUF_S *m, const Placement &p, std::uint32_t dataLen, std::uint32_t total) {
    ASSERT_NE(m, nullptr);
    ExpectValid(m);
    EXPECT_EQ(m->pstNext, nullptr);
    EXPECT_EQ(m->ulDataLen, dataLen);
    EXPECT_EQ(m->ulTotalDataLen, total);
    if (p.bufSize == 0) {
        EXPECT_FALSE(HasExt(m));
        EXPECT_EQ(m->pucData, m->aucHdrInlineData + p.offset);
    } else {
        ASSERT_TRUE(HasExt(m));
        EXPECT_EQ(m->ulExtSize, p.bufSize);
        EXPECT_EQ(m->pucData, m->pucExtBuf + p.offset);
    }
}

struct CopyCase {
    std::uint32_t headRoom;
    std::uint32_t len;
    bool made;
    Placement at;
};

TEST_F(CreateTest, ByCopyBufferPlacesTheCopyBehindTheHeadRoom) {
    const CopyCase cases[] = {
        {100, 272, true, {100, 0}}, {100, 300, true, {100, 1960}}, {0, 372, true, {0, 0}},
        {0, 373, true, {0, 1960}},  {1960, 0, true, {1960, 1960}}, {1000, 3000, true, {1000, 4000}},
        {1961, 10, false, {}},
    };
    const std::vector<std::uint8_t> src = Pattern(3000);
    for (const CopyCase &c : cases) {
        SCOPED_TRACE(std::to_string(c.headRoom) + "+" + std::to_string(c.len));
        MBUF_S *m =
            MBUF_CreateByCopyBuffer_fl(c.headRoom, c.len, src.data(), 0, kTestModule, kTestFile, 1);
        if (!c.made) {
            EXPECT_EQ(m, nullptr);
            continue;
        }
        ExpectOneNode(m, c.at, c.len, c.len);
        EXPECT_EQ(PacketBytes(m), std::vector<std::uint8_t>(src.begin(), src.begin() + c.len));
        MBUF_Destroy(m);
    }
    EXPECT_EQ(MBUF_CreateByCopyBuffer_fl(0, 10, nullptr, 0, kTestModule, kTestFile, 1), nullptr);
    EXPECT_TRUE(Reports().empty());
}

TEST_F(CreateTest, ByCopyBufferRefusesALengthThatWrapsTheSize) {
    const std::uint8_t byte = 0;
    EXPECT_EQ(MBUF_CreateByCopyBuffer_fl(10, 0xFFFFFFFAu, &byte, 0, kTestModule, kTestFile, 1),
              nullptr);
    EXPECT_EQ(Reports(), std::vector<Report>{AssertReportNoText("krm_mbuf", 427)});
}

struct ReserveCase {
    std::uint32_t headRoom;
    std::uint32_t len;
    bool made;
    Placement at;
    std::uint32_t dataLen;
};

TEST_F(CreateTest, ControlPacketReservesUpToOneCluster) {
    const ReserveCase cases[] = {
        {1000, 960, true, {1000, 1960}, 960},
        {1000, 961, false, {}, 0},
        {0, 0, true, {0, 0}, 0},
        {100, 200, true, {100, 0}, 200},
        {0, 1960, true, {0, 1960}, 1960},
        {300, 100, true, {300, 1960}, 100},
        {10, 0xFFFFFFFFu, false, {}, 0},
        {0xFFFFFFFFu, 2, false, {}, 0},
    };
    for (const ReserveCase &c : cases) {
        SCOPED_TRACE(std::to_string(c.headRoom) + "+" + std::to_string(c.len));
        MBUF_S *m = MBUF_CreateForControlPacket_fl(c.headRoom, c.len, 0, kTestModule, kTestFile, 1);
        if (!c.made) {
            EXPECT_EQ(m, nullptr);
            continue;
        }
        ExpectOneNode(m, c.at, c.dataLen, c.len);
        MBUF_Destroy(m);
    }
    EXPECT_TRUE(Reports().empty());
}

TEST_F(CreateTest, AppPacketHoldsUpTo64KInOneNode) {
    const ReserveCase cases[] = {
        {0, 65536, true, {0, 65536}, 65536}, {2048, 63488, true, {2048, 65536}, 63488},
        {100, 200, true, {100, 0}, 200},     {0, 1000, true, {0, 1960}, 1000},
        {0, 1960, true, {0, 1960}, 1960},
    };
    for (const ReserveCase &c : cases) {
        SCOPED_TRACE(std::to_string(c.headRoom) + "+" + std::to_string(c.len));
        MBUF_S *m = MBUF_CreateForAppPacket_fl(c.headRoom, c.len, 0, kTestModule, kTestFile, 1);
        ExpectOneNode(m, c.at, c.dataLen, c.len);
        MBUF_Destroy(m);
    }
    EXPECT_TRUE(Reports().empty());
}

TEST_F(CreateTest, AppPacketReportsEveryRejectedSize) {
    struct Rejected {
        std::uint32_t headRoom;
        std::uint32_t len;
        const char *text;
    };
    const Rejected cases[] = {
        {2049, 10, "Alloc mbuf failed. len: 2049/10"},
        {0, 65537, "Alloc mbuf failed. len: 0/65537"},
        {2, 0xFFFFFFFFu, "Alloc mbuf failed. len: 2/4294967295"},
    };
    for (const Rejected &c : cases) {
        KRM_HOST_ReportClear();
        EXPECT_EQ(MBUF_CreateForAppPacket_fl(c.headRoom, c.len, 0, kTestModule, kTestFile, 1),
                  nullptr);
        EXPECT_EQ(Reports(), std::vector<Report>{AssertReport("krm_mbuf", 515, c.text)});
    }
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
        {MBUF_CreateByCopyBuffer(0, 1, &byte, 0, kTestModule), "MBUF_CreateByCopyBuffer", 37},
        {MBUF_CreateForControlPacket(0, 1, 0, kTestModule), "MBUF_CreateForControlPacket", 43},
        {MBUF_CreateForAppPacket(0, 1, 0, kTestModule), "MBUF_CreateForAppPacket", 166},
    };
    for (const Wrapper &w : wrappers) {
        ASSERT_NE(w.packet, nullptr) << w.name;
        const KRM_HOST_BUF_INFO_S info = InfoOf(w.packet);
        EXPECT_STREQ(info.pcFile, w.name);
        EXPECT_EQ(info.ulLine, w.line) << w.name;
        EXPECT_EQ(info.ulOwner, kTestModule);
        MBUF_Destroy(w.packet);
    }
}

// ---- packets of any length from caller data -------------------------------

struct NodeShape {
    std::uint32_t dataLen;
    std::uint32_t bufSize;  // 0: inline
    bool header;
    std::uint32_t offset;  // of pucData in its storage
};

struct BufferDataCase {
    const char *name;
    std::int32_t len;
    std::uint32_t headRoom;
    std::vector<NodeShape> nodes;
};

void ExpectShape(MBUF_S *m, const std::vector<NodeShape> &nodes) {
    std::size_t i = 0;
    for (MBUF_S *n = m; n != nullptr; n = n->pstNext, ++i) {
        ASSERT_LT(i, nodes.size()) << "more nodes than expected";
        const NodeShape &s = nodes[i];
        SCOPED_TRACE("node " + std::to_string(i));
        EXPECT_EQ(n->ulDataLen, s.dataLen);
        EXPECT_EQ((n->ulFlag & MBUF_PKTHDR) != 0, s.header);
        if (s.bufSize == 0) {
            EXPECT_FALSE(HasExt(n));
            EXPECT_EQ(n->pucData, (s.header ? n->aucHdrInlineData : n->aucInlineData) + s.offset);
        } else {
            ASSERT_TRUE(HasExt(n));
            EXPECT_EQ(n->ulExtSize, s.bufSize);
            EXPECT_EQ(n->pucData, n->pucExtBuf + s.offset);
        }
        if (i != 0 && s.header) {
            EXPECT_EQ(n->ulTotalDataLen, 0u);
        }
    }
    EXPECT_EQ(i, nodes.size());
}

TEST_F(CreateTest, BufferDataChainsNodesSizedByWhatRemains) {
    const BufferDataCase cases[] = {
        {"small inline", 300, 0, {{300, 0, true, 16}}},
        {"inline full", 356, 0, {{356, 0, true, 16}}},
        {"spills inline", 360, 0, {{356, 0, true, 16}, {4, 0, false, 0}}},
        {"head room inline", 10, 356, {{0, 0, true, 372}, {10, 0, false, 0}}},
        {"cluster head", 1000, 100, {{1000, 1960, true, 100}}},
        {"exact head", 2000, 0, {{2000, 2000, true, 0}}},
        {"large", 100000, 0, {{63900, 63900, true, 0}, {36100, 36100, true, 0}}},
        {"cluster tail", 64900, 0, {{63900, 63900, true, 0}, {1000, 1960, false, 0}}},
        {"three", 127805, 0, {{63900, 63900, true, 0}, {63900, 63900, true, 0}, {5, 0, false, 0}}},
    };
    const std::vector<std::uint8_t> src = Pattern(127805, 3);
    for (const BufferDataCase &c : cases) {
        SCOPED_TRACE(c.name);
        const MBUF_FILE_LINE_S site{kTestFile, 9};
        MBUF_S *m = MBUF_CreateMbufWithBufferData(src.data(), c.len, c.headRoom, 0x5151, nullptr,
                                                  kTestModule, &site);
        ASSERT_NE(m, nullptr);
        ExpectValid(m);
        ExpectShape(m, c.nodes);
        EXPECT_EQ(m->ulTotalDataLen, static_cast<std::uint32_t>(c.len));
        EXPECT_EQ(m->ulPktRsv4, 0x5151u);
        EXPECT_EQ(PacketBytes(m), std::vector<std::uint8_t>(src.begin(), src.begin() + c.len));
        MBUF_Destroy(m);
    }
}

struct CopyLog {
    std::vector<std::uint32_t> lengths;
};
CopyLog g_copyLog;

std::uint32_t LoggingCopy(const void *src, void *dst, std::uint32_t len) {
    g_copyLog.lengths.push_back(len);
    std::memcpy(dst, src, len);
    return 0xDEAD;  // ignored
}

TEST_F(CreateTest, BufferDataCopiesThroughTheCallerCallbackPerNode) {
    g_copyLog = {};
    const std::vector<std::uint8_t> src = Pattern(64000, 4);
    MBUF_S *m =
        MBUF_CreateMbufWithBufferData(src.data(), 64000, 0, 0, LoggingCopy, kTestModule, nullptr);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(g_copyLog.lengths, (std::vector<std::uint32_t>{63900, 100}));
    EXPECT_EQ(PacketBytes(m), src);
    MBUF_Destroy(m);
}

TEST_F(CreateTest, BufferDataRefusesBadArguments) {
    const std::uint8_t bytes[16] = {};
    struct Bad {
        const char *name;
        const void *src;
        std::int32_t len;
        std::uint32_t headRoom;
    };
    const Bad cases[] = {
        {"head room above 372", bytes, 10, 373},
        {"head room leaving no inline room", bytes, 10, 360},
        {"zero length", bytes, 0, 0},
        {"negative length", bytes, -1, 0},
        {"no source", nullptr, 10, 0},
    };
    for (const Bad &c : cases) {
        EXPECT_EQ(MBUF_CreateMbufWithBufferData(c.src, c.len, c.headRoom, 0, nullptr, kTestModule,
                                                nullptr),
                  nullptr)
            << c.name;
    }
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
}

}  // namespace
}  // namespace krm::test
