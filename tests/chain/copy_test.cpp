// Copies between packets and flat memory, header duplication and raw copies,
// compared with slices of the flat model.
#include <algorithm>
#include <string>
#include <tuple>

#include "chain_test.h"
#include "krm_mbuf/platform.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "copy_test";
constexpr std::uint8_t kGuard = 0xC5;

class CopyShapeTest : public ShapeTest {};

// Over every range, on a packet that fills keep overwriting: a copy out
// writes exactly the range; a raw copy of it is one node with its own
// storage, the source's header and at least 64 bytes of head room; a fill overwrites
// it in place and never allocates. A copy in writes it too, into a fresh
// packet and also from behind its end: existing nodes keep their lengths and
// the packet grows by added inline nodes, a gap reading as zeros.
TEST_P(CopyShapeTest, CopiesMatchTheModelForEveryRange) {
    MBUF_S *m = Build();
    Bytes flat = Flatten(m);
    const Lens before = NodeLengths(m);
    m->ulFlag2 = 0x1234;
    m->ulPktRsv4 = 77;
    std::uint32_t seed = 20;
    std::vector<Range> ranges = Ranges(Rows());
    for (std::uint32_t len : {308u, 309u, 1896u, 1897u}) {  // the raw copy's size steps
        if (len <= Total()) {
            ranges.emplace_back(0, len);
        }
    }
    for (const auto &[from, to] : ranges) {
        SCOPED_TRACE(testing::Message() << from << ".." << to);
        const std::uint32_t len = to - from;
        Bytes out(len + 8, kGuard);
        const uint32_t rc = MBUF_CopyDataFromMBufToBuffer(m, from, len, out.data());
        // An offset at the very end is refused, even for length 0.
        EXPECT_EQ(rc, from == Total() ? MBUF_ERR_OFFSET : MBUF_OK);
        if (rc == MBUF_OK) {
            EXPECT_EQ(out, Cat(Slice(flat, from, len), Bytes(8, kGuard)));
            // The copy's one node is inline while data and head room fit, a
            // cluster up to 1960 bytes, an exactly sized buffer beyond; the
            // wrapper's buffers are its own.
            const std::uint32_t headRoom = from % 2 == 0 ? 3 : 100;
            const std::uint32_t need = len + std::max(headRoom, MBUF_RAWCOPY_MIN_HEADROOM);
            MBUF_S *copy = MBUF_RawCopy(m, from, len, headRoom, kTestModule);
            ASSERT_NE(copy, nullptr);
            EXPECT_TRUE(IsValidPacket(copy));
            EXPECT_TRUE(HoldsBytes(copy, Slice(flat, from, len)));
            const bool ext = (copy->ulFlag & MBUF_EXT) != 0;
            ASSERT_EQ(ext, need > MBUF_PKTHDR_INLINE_LEN);
            EXPECT_EQ(
                std::tuple(NodeCount(copy), copy->ulFlag2, copy->ulPktRsv4, copy->pucData + len),
                std::tuple(1u, 0x1234u, 77u,
                           (ext ? copy->pucExtBuf : copy->aucHdrInlineData) + need));
            if (ext) {
                EXPECT_EQ(copy->ulExtSize, std::max(need, MBUF_CLUSTER_SIZE));
                EXPECT_EQ(SiteOf(copy->pucExtBuf), Site("MBUF_RawCopy", 55, kTestModule));
            }
            MBUF_Destroy(copy);
        }
        const Bytes src = Payload(len, ++seed);
        const uint32_t attempts = KRM_HOST_AllocAttemptCount();
        ASSERT_EQ(MBUF_FillDataForApp(m, from, static_cast<int32_t>(len), src.data()), MBUF_OK);
        EXPECT_EQ(KRM_HOST_AllocAttemptCount(), attempts);
        std::copy(src.begin(), src.end(), flat.begin() + from);
        ASSERT_TRUE(HoldsBytes(m, flat));
        for (std::uint32_t at : {from, from + 1000}) {
            MBUF_S *fresh = Build();
            Bytes model = Flatten(fresh);
            ASSERT_EQ(
                MBUF_CopyDataFromBufferToMBuf(fresh, static_cast<int32_t>(at),
                                              static_cast<int32_t>(len), src.data(), kTestModule),
                MBUF_OK);
            model.resize(std::max<std::size_t>(model.size(), at + len), 0);
            std::copy(src.begin(), src.end(), model.begin() + at);
            EXPECT_TRUE(IsValidPacket(fresh));
            EXPECT_TRUE(HoldsBytes(fresh, model)) << "copy in at " << at;
            const Lens after = NodeLengths(fresh);
            ASSERT_GE(after.size(), before.size());
            EXPECT_EQ(Lens(after.begin(), after.begin() + before.size()), before);
            for (std::size_t i = before.size(); i < after.size(); ++i) {
                EXPECT_LE(after[i], MBUF_PLAIN_INLINE_LEN);
            }
            MBUF_Destroy(fresh);
        }
    }
    EXPECT_TRUE(Reports().empty());
    const std::uint8_t one = 0;
    EXPECT_EQ(MBUF_FillDataForApp(m, Total(), 1, &one), MBUF_ERR_LENGTH);
    EXPECT_EQ(MBUF_FillDataForApp(m, Total(), -1, &one), MBUF_OK);
    if (Total() != 0) {
        Bytes out(Total() + 1);
        EXPECT_EQ(MBUF_CopyDataFromMBufToBuffer(m, 0, Total() + 1, out.data()), MBUF_ERR_LENGTH);
        EXPECT_EQ(MBUF_CopyDataFromMBufToBuffer(m, 1, 0xFFFFFFFFu, out.data()), MBUF_ERR_LENGTH);
    }
    EXPECT_TRUE(IsValidPacket(m));
    MBUF_Destroy(m);
}

INSTANTIATE_TEST_SUITE_P(Shapes, CopyShapeTest, ::testing::ValuesIn(StandardShapes()), ShapeName);

class CopyTest : public ChainTest {};

// The unchecked copy out reports what it cannot do and copies what it can. A
// bounded copy refusing a NULL side is reported with its code, once per node,
// and the copy goes on; a fill from NULL writes nothing.
TEST_F(CopyTest, CopiesReportWhatTheyCannotDo) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(20)});
    Bytes out(64, kGuard);
    MBUF_CopyDataFromMbufToCbuf(m, 35, 4, out.data());
    MBUF_CopyDataFromMbufToCbuf(m, 25, 9, out.data());
    MBUF_CopyDataFromMbufToCbuf(m, 0, -1, out.data());
    MBUF_CopyDataFromMbufToCbuf(m, -1, 4, out.data());
    EXPECT_EQ(Slice(out, 0, 5), Payload(5, 0, 25));
    EXPECT_EQ(MBUF_CopyDataFromMBufToBuffer(m, 5, 20, nullptr), MBUF_OK);
    MBUF_CopyDataFromCbufToMbuf(m, 0, 30, nullptr, kTestModule);
    EXPECT_EQ(MBUF_FillDataForApp(m, 5, 20, nullptr), MBUF_OK);
    const std::uint8_t one = 1;
    std::uint8_t sink = 0;
    const Report dst = AssertReport(
        "mbuf_uipc_mbuf", 249, "memcpy_s return " + std::to_string(memmove_s(nullptr, 1, &one, 1)));
    const Report src =
        AssertReport("mbuf_uipc_mbuf", 391,
                     "memcpy_s return " + std::to_string(memmove_s(&sink, 1, nullptr, 1)));
    EXPECT_EQ(Reports(),
              (std::vector<Report>{
                  AssertReport("mbuf_uipc_mbuf", 231,
                               "MBUF CopyDataToCbuf, offset > size: offset 5 len 4 ."),
                  AssertReport("mbuf_uipc_mbuf", 243,
                               "CopyDataToCbuf, length > size: offset 0 len 4 count 5"),
                  AssertReport("mbuf_uipc_mbuf", 228, "MBUF CopyDataToCbuf, negative len -1"),
                  AssertReport("mbuf_uipc_mbuf", 227, "MBUF CopyDataToCbuf, negative iOff -1"),
                  AssertReport("mbuf_uipc_mbuf", 231,
                               "MBUF CopyDataToCbuf, offset > size: offset -31 len 4 ."),
                  dst, dst, src, src}));
    EXPECT_TRUE(HoldsBytes(m, Payload(30)));
    MBUF_Destroy(m);
}

// Each allocation of a 4000-byte copy behind a gap fails in turn: the packet
// stays valid and holds a prefix of what the copy would give. Added nodes are
// typed like the packet and attributed to the library, not the caller.
TEST_F(CopyTest, CopyInKeepsAValidPacketWhenMemoryRunsOut) {
    const Bytes src = Payload(4000, 2);
    const Bytes model = Cat(Cat(Payload(100), Bytes(1000, 0)), src);
    for (std::uint32_t nth = 1; nth <= 7; ++nth) {
        SCOPED_TRACE(nth);
        MBUF_S *m = BuildChain({InlineNode(100)});
        m->usType = 3;
        KRM_HOST_FailNthAlloc(nth);
        EXPECT_EQ(MBUF_CopyDataFromBufferToMBuf(m, 1100, 4000, src.data(), kTestModule), MBUF_OK);
        KRM_HOST_FailNthAlloc(0);
        EXPECT_TRUE(IsValidPacket(m));
        const Bytes have = Flatten(m);
        ASSERT_LE(have.size(), model.size());
        EXPECT_EQ(have, Slice(model, 0, static_cast<std::uint32_t>(have.size())));
        // Two gap nodes and four written ones: only the seventh run is whole.
        EXPECT_EQ(have.size() == model.size(), nth == 7);
        for (const MBUF_S *n = m->pstNext; n != nullptr; n = n->pstNext) {
            EXPECT_EQ(n->usType, 3u);
            EXPECT_EQ(std::get<0>(SiteOf(n)), "mbuf_uipc_mbuf");
        }
        MBUF_Destroy(m);
    }
}

TEST_F(CopyTest, FillStopsWhereTheChainEnds) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10)});
    m->ulTotalDataLen = 40;  // longer than its nodes
    const Bytes src = Payload(20, 4);
    EXPECT_EQ(MBUF_FillDataForApp(m, 5, 20, src.data()), MBUF_ERR_CHAIN_END);
    m->ulTotalDataLen = 20;
    EXPECT_TRUE(HoldsBytes(m, Cat(Payload(5), Slice(src, 0, 15))));
    MBUF_Destroy(m);
}

// A duplicated header takes the masked flags (keeping its own MBUF_EXT and
// data), the header words and the records; a copied header holds no data.
TEST_F(CopyTest, HeaderCopiesTakeFlagsWordsAndRecords) {
    MBUF_S *src = BuildChain({InlineNode(10), InlineNode(20)});
    MBUF_S *dst = BuildChain({ClusterNode(0, 30)});
    GrowControlBlock(src);
    src->ulFlag |= 0x00010000u | MBUF_ROOMLOCK | MBUF_NOFREE;
    src->ulFlag3 = 3;
    src->ulPktTagInfo = 4;
    src->ulPktRsv4 = 6;
    src->usType = 3;
    uint8_t *data = dst->pucData;
    ASSERT_NE(MBUF_DuplicatePktHdr(dst, src, kTestModule, nullptr), 0);
    src->ulFlag &= ~MBUF_NOFREE;
    EXPECT_EQ(std::tuple(dst->ulFlag, dst->pucData, dst->ulTotalDataLen, dst->ulFlag3,
                         dst->ulPktTagInfo, dst->ulPktRsv4, RecordMark(dst)),
              std::tuple(MBUF_PKTHDR | MBUF_EXT | MBUF_ROOMLOCK | 0x00010000u, data, 30u, 3u, 4u,
                         6u, 0x5C));
    dst->ulTotalDataLen = 0;
    MBUF_Destroy(dst);

    MBUF_S *head = MBUF_CopyMBufHeader_fl(src, kTestModule, kFile, __LINE__);
    ASSERT_NE(head, nullptr);
    // The caller sets the lengths.
    EXPECT_EQ(std::tuple(head->ulTotalDataLen, head->ulDataLen, head->pstNext, head->pucData,
                         head->usType, RecordMark(head), head->pstCtlInfo != src->pstCtlInfo),
              std::tuple(30u, 0u, nullptr, head->aucHdrInlineData, 3u, 0x5C, true));
    head->ulTotalDataLen = 0;
    EXPECT_TRUE(IsValidPacket(head));
    MBUF_Destroy(head);
    MBUF_Destroy(src);
}

// What is not a packet is refused; a raw copy reports it, and a range
// beyond the packet.
TEST_F(CopyTest, BadSourcesAndRangesAreRefused) {
    std::uint8_t byte = 0;
    EXPECT_EQ((Lens{MBUF_CopyDataFromMBufToBuffer(nullptr, 0, 1, &byte),
                    MBUF_CopyDataFromBufferToMBuf(nullptr, 0, 1, &byte, kTestModule),
                    MBUF_FillDataForApp(nullptr, 0, 1, &byte)}),
              Lens(3, MBUF_ERR_INVALID_MBUF));
    EXPECT_EQ(MBUF_CopyMBufHeader_fl(nullptr, kTestModule, kFile, __LINE__), nullptr);
    EXPECT_EQ(MBUF_RawCopy(nullptr, 0, 1, 0, kTestModule), nullptr);
    MBUF_S *m = BuildChain({InlineNode(10)});
    EXPECT_EQ(MBUF_RawCopy(m, 0, 11, 0, kTestModule), nullptr);
    m->ulFlag &= ~MBUF_PKTHDR;
    EXPECT_EQ(MBUF_RawCopy(m, 0, 1, 0, kTestModule), nullptr);
    EXPECT_EQ(MBUF_CopyMBufHeader_fl(m, kTestModule, kFile, __LINE__), nullptr);
    m->ulFlag |= MBUF_PKTHDR;
    // Length 0 at the very end: an empty copy, after the copy routine has
    // reported the offset.
    MBUF_S *empty = MBUF_RawCopy(m, 10, 0, 0, kTestModule);
    EXPECT_TRUE(HoldsBytes(empty, {}));
    EXPECT_EQ(Reports(), (std::vector<Report>{
                             AssertReport("krm_mbuf", 672, "RawCopy Verify MBuf Error 1000"),
                             AssertReport("krm_mbuf", 677, "Mbuf raw copy failed: 11, 10, 0"),
                             AssertReport("krm_mbuf", 672, "RawCopy Verify MBuf Error 1001"),
                             AssertReport("mbuf_uipc_mbuf", 231,
                                          "MBUF CopyDataToCbuf, offset > size: offset 0 len 0 ."),
                         }));
    MBUF_Destroy(empty);
    MBUF_Destroy(m);
}

// A raw copy allocates its header node, the copied control block and a buffer.
TEST_F(CopyTest, RawCopyFailsCleanlyAtEveryAllocation) {
    MBUF_S *copy = nullptr;
    const auto rawCopy = [&](MBUF_S *m) {
        return (copy = MBUF_RawCopy(m, 10, 1700, 0, kTestModule)) != nullptr;
    };
    const auto copied = [&](MBUF_S *, const Bytes &flat) {
        EXPECT_TRUE(HoldsBytes(copy, Slice(flat, 10, 1700)));
        MBUF_Destroy(copy);
    };
    EXPECT_EQ(SweepPacket({InlineNode(300), ClusterNode(1500)}, true, rawCopy, copied), 3u);
}

}  // namespace
}  // namespace krm::test
