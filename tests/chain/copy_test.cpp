// Copies between packets and flat memory, header duplication and raw copies,
// compared with slices of the flat model.
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "chain_test.h"
#include "krm_mbuf/platform.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "copy_test";
constexpr std::uint8_t kGuard = 0xC5;

// Gives a packet a control block that outgrew the node (records of 308
// bytes), so that copying it has to allocate.
void GrowControlBlock(MBUF_S *m) {
    const std::pair<std::uint32_t, std::uint32_t> records[] = {{MBUF_CTL_MPLS, 108},
                                                               {MBUF_CTL_IP6, 52},
                                                               {MBUF_CTL_FERX, 52},
                                                               {MBUF_CTL_FETX, 44},
                                                               {MBUF_CTL_TIMESTAMP, 40}};
    for (const auto &[type, len] : records) {
        ASSERT_EQ(MBUF_CreateControlInfo(m, type, len, kTestModule), MBUF_OK);
    }
    ASSERT_NE(m->pstCtlInfo, &m->stCtlInfo.stBlk);
    auto *rec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(m, MBUF_CTL_MPLS));
    ASSERT_NE(rec, nullptr);
    rec[0] = 0x5C;
}

class CopyShapeTest : public ShapeTest {};

TEST_P(CopyShapeTest, CopyOutMatchesTheModelForEveryRange) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    const auto total = static_cast<std::uint32_t>(flat.size());
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (to < from) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << from << ".." << to);
            Bytes out(to - from + 8, kGuard);
            const uint32_t rc = MBUF_CopyDataFromMBufToBuffer(m, from, to - from, out.data());
            if (from == total) {
                // An offset at the very end is refused even for length 0.
                EXPECT_EQ(rc, MBUF_ERR_OFFSET);
                continue;
            }
            ASSERT_EQ(rc, MBUF_OK);
            EXPECT_EQ(Bytes(out.begin(), out.begin() + (to - from)), Slice(flat, from, to - from));
            EXPECT_EQ(std::count(out.end() - 8, out.end(), kGuard), 8);
        }
    }
    EXPECT_TRUE(Reports().empty());
    if (total != 0) {
        Bytes out(total + 1);
        EXPECT_EQ(MBUF_CopyDataFromMBufToBuffer(m, 0, total + 1, out.data()), MBUF_ERR_LENGTH);
        EXPECT_EQ(MBUF_CopyDataFromMBufToBuffer(m, 1, 0xFFFFFFFFu, out.data()), MBUF_ERR_LENGTH);
    }
    MBUF_Destroy(m);
}

TEST_P(CopyShapeTest, CopyInGrowsOnlyByAddedNodes) {
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    for (std::uint32_t off : points) {
        for (std::uint32_t len : {0u, 1u, 7u, 900u, 2000u}) {
            SCOPED_TRACE(testing::Message() << off << "+" << len);
            // Also reach past the end, through a gap.
            for (std::uint32_t at : {off, off + 1000}) {
                MBUF_S *m = Build();
                Bytes flat = Flatten(m);
                const std::vector<std::uint32_t> before = NodeLengths(m);
                const Bytes src = Payload(len, 3);
                ASSERT_EQ(MBUF_CopyDataFromBufferToMBuf(m, static_cast<int32_t>(at),
                                                        static_cast<int32_t>(len), src.data(),
                                                        kTestModule),
                          MBUF_OK);
                if (flat.size() < at + len) {
                    flat.resize(at + len, 0);
                }
                std::copy(src.begin(), src.end(), flat.begin() + at);
                EXPECT_TRUE(PacketOk(m));
                EXPECT_TRUE(HoldsBytes(m, flat));
                const std::vector<std::uint32_t> after = NodeLengths(m);
                ASSERT_GE(after.size(), before.size());
                EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
                for (std::size_t i = before.size(); i < after.size(); ++i) {
                    EXPECT_LE(after[i], MBUF_PLAIN_INLINE_LEN);
                }
                MBUF_Destroy(m);
            }
        }
    }
}

TEST_P(CopyShapeTest, FillOverwritesInPlaceAndNeverGrows) {
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    MBUF_S *m = Build();
    Bytes flat = Flatten(m);
    const auto total = static_cast<std::uint32_t>(flat.size());
    const uint32_t attempts = KRM_HOST_AllocAttemptCount();
    std::uint32_t seed = 20;
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (to < from) {
                continue;
            }
            const Bytes src = Payload(to - from, ++seed);
            ASSERT_EQ(MBUF_FillDataForApp(m, from, static_cast<int32_t>(to - from), src.data()),
                      MBUF_OK);
            std::copy(src.begin(), src.end(), flat.begin() + from);
            ASSERT_TRUE(HoldsBytes(m, flat)) << from << ".." << to;
        }
    }
    const Bytes one(1, 0);
    EXPECT_EQ(MBUF_FillDataForApp(m, total, 1, one.data()), MBUF_ERR_LENGTH);
    EXPECT_EQ(MBUF_FillDataForApp(m, total, -1, one.data()), MBUF_OK);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), attempts);
    EXPECT_TRUE(PacketOk(m));
    MBUF_Destroy(m);
}

TEST_P(CopyShapeTest, RawCopyIsOneIndependentNode) {
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    m->ulFlag2 = 0x1234;
    m->ulPktRsv4 = 77;
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (to < from || from == flat.size()) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << from << ".." << to);
            MBUF_S *copy = MBUF_RawCopy_fl(m, from, to - from, 3, kTestModule, kFile, __LINE__);
            ASSERT_NE(copy, nullptr);
            EXPECT_TRUE(PacketOk(copy));
            EXPECT_TRUE(HoldsBytes(copy, Slice(flat, from, to - from)));
            EXPECT_EQ(copy->pstNext, nullptr);
            EXPECT_EQ(copy->ulFlag2, 0x1234u);
            EXPECT_EQ(copy->ulPktRsv4, 77u);
            const uint8_t *start =
                (copy->ulFlag & MBUF_EXT) != 0 ? copy->pucExtBuf : copy->aucHdrInlineData;
            EXPECT_EQ(copy->pucData, start + MBUF_RAWCOPY_MIN_HEADROOM);
            for (const MBUF_S *n = m; n != nullptr; n = n->pstNext) {
                EXPECT_TRUE(copy->pucExtBuf == nullptr || copy->pucExtBuf != n->pucExtBuf);
            }
            MBUF_Destroy(copy);
        }
    }
    EXPECT_TRUE(Reports().empty());
    MBUF_Destroy(m);
}

INSTANTIATE_TEST_SUITE_P(Shapes, CopyShapeTest, ::testing::ValuesIn(StandardShapes()), ShapeName);

class CopyTest : public ChainTest {};

TEST_F(CopyTest, CopyOutReportsWhatItCannotDo) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(20)});
    ASSERT_NE(m, nullptr);
    Bytes out(64, kGuard);
    MBUF_CopyDataFromMbufToCbuf(m, 35, 4, out.data());
    MBUF_CopyDataFromMbufToCbuf(m, 25, 9, out.data());
    MBUF_CopyDataFromMbufToCbuf(m, 0, -2, out.data());
    MBUF_CopyDataFromMbufToCbuf(m, -1, 4, out.data());
    EXPECT_EQ(Reports(),
              (std::vector<Report>{
                  AssertReport("mbuf_uipc_mbuf", 231,
                               "MBUF CopyDataToCbuf, offset > size: offset 5 len 4 ."),
                  AssertReport("mbuf_uipc_mbuf", 243,
                               "CopyDataToCbuf, length > size: offset 0 len 4 count 5"),
                  AssertReport("mbuf_uipc_mbuf", 228, "MBUF CopyDataToCbuf, negative len -2"),
                  AssertReport("mbuf_uipc_mbuf", 227, "MBUF CopyDataToCbuf, negative iOff -1"),
                  AssertReport("mbuf_uipc_mbuf", 231,
                               "MBUF CopyDataToCbuf, offset > size: offset -31 len 4 ."),
              }));
    // What could be copied was copied.
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 5), Payload(5, 0, 25));
    EXPECT_EQ(MBUF_CopyDataFromMBufToBuffer(nullptr, 0, 1, out.data()), MBUF_ERR_INVALID_MBUF);
    MBUF_Destroy(m);
}

TEST_F(CopyTest, AFailingBoundedCopyIsReportedWithItsCodeAndTheCopyGoesOn) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(20)});
    ASSERT_NE(m, nullptr);
    const std::uint8_t one = 1;
    const int nullDst = memmove_s(nullptr, 1, &one, 1);
    std::uint8_t sink = 0;
    const int nullSrc = memmove_s(&sink, 1, nullptr, 1);
    ASSERT_NE(nullDst, 0);
    ASSERT_NE(nullSrc, 0);
    // Every node's piece fails alike; each is reported.
    EXPECT_EQ(MBUF_CopyDataFromMBufToBuffer(m, 5, 20, nullptr), MBUF_OK);
    MBUF_CopyDataFromCbufToMbuf(m, 0, 30, nullptr, kTestModule);
    const std::string dstText = "memcpy_s return " + std::to_string(nullDst);
    const std::string srcText = "memcpy_s return " + std::to_string(nullSrc);
    EXPECT_EQ(Reports(), (std::vector<Report>{
                             AssertReport("mbuf_uipc_mbuf", 249, dstText),
                             AssertReport("mbuf_uipc_mbuf", 249, dstText),
                             AssertReport("mbuf_uipc_mbuf", 391, srcText),
                             AssertReport("mbuf_uipc_mbuf", 391, srcText),
                         }));
    EXPECT_TRUE(HoldsBytes(m, Payload(30)));
    EXPECT_EQ(MBUF_FillDataForApp(m, 5, 20, nullptr), MBUF_OK);
    EXPECT_TRUE(HoldsBytes(m, Payload(30)));
    MBUF_Destroy(m);
}

TEST_F(CopyTest, CopyInBehindTheEndZeroesTheGap) {
    const Bytes data = Payload(50);
    MBUF_S *m = MBUF_CreateByCopyBuffer(0, 50, data.data(), 0, kTestModule);
    ASSERT_NE(m, nullptr);
    const Bytes src = Payload(100, 1);
    ASSERT_EQ(MBUF_CopyDataFromBufferToMBuf(m, 200, 100, src.data(), kTestModule), MBUF_OK);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{50, 250}));
    EXPECT_EQ(m->ulTotalDataLen, 300u);
    const MBUF_S *added = m->pstNext;
    EXPECT_EQ(std::count(added->pucData, added->pucData + 150, 0), 150);
    EXPECT_EQ(added->usType, m->usType);
    // The added node carries the library's own location.
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(added, &info), 0u);
    EXPECT_STREQ(info.pcFile, "mbuf_uipc_mbuf");
    EXPECT_EQ(MBUF_CopyDataFromBufferToMBuf(nullptr, 0, 1, src.data(), kTestModule),
              MBUF_ERR_INVALID_MBUF);
    MBUF_Destroy(m);
}

TEST_F(CopyTest, CopyInKeepsAValidPacketWhenMemoryRunsOut) {
    // Each allocation of a 4000-byte copy behind a gap fails in turn: the
    // packet stays valid and holds a prefix of what the copy would give.
    for (std::uint32_t nth = 1; nth <= 7; ++nth) {
        SCOPED_TRACE(nth);
        MBUF_S *m = BuildChain({InlineNode(100)});
        ASSERT_NE(m, nullptr);
        const Bytes src = Payload(4000, 2);
        KRM_HOST_FailNthAlloc(nth);
        EXPECT_EQ(MBUF_CopyDataFromBufferToMBuf(m, 1100, 4000, src.data(), kTestModule), MBUF_OK);
        KRM_HOST_FailNthAlloc(0);
        EXPECT_TRUE(PacketOk(m));
        Bytes model = Payload(100);
        model.resize(1100, 0);
        model.insert(model.end(), src.begin(), src.end());
        const Bytes have = Flatten(m);
        ASSERT_LE(have.size(), model.size());
        EXPECT_EQ(have, Slice(model, 0, static_cast<std::uint32_t>(have.size())));
        // Two gap nodes and four written ones: only the seventh run is whole.
        EXPECT_EQ(have.size() == model.size(), nth == 7);
        MBUF_Destroy(m);
    }
}

TEST_F(CopyTest, FillStopsWhereTheChainEnds) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(10)});
    ASSERT_NE(m, nullptr);
    m->ulTotalDataLen = 40;  // longer than its nodes
    const Bytes src = Payload(20, 4);
    EXPECT_EQ(MBUF_FillDataForApp(m, 5, 20, src.data()), MBUF_ERR_CHAIN_END);
    m->ulTotalDataLen = 20;
    Bytes model = Payload(20);
    std::copy(src.begin(), src.begin() + 15, model.begin() + 5);
    EXPECT_TRUE(HoldsBytes(m, model));
    EXPECT_EQ(MBUF_FillDataForApp(nullptr, 0, 1, src.data()), MBUF_ERR_INVALID_MBUF);
    MBUF_Destroy(m);
}

TEST_F(CopyTest, DuplicatedHeaderTakesMaskedFlagsAndKeepsItsOwnBuffer) {
    MBUF_S *src = BuildChain({InlineNode(10)});
    MBUF_S *dst = BuildChain({ClusterNode(0, 30)});
    ASSERT_NE(src, nullptr);
    ASSERT_NE(dst, nullptr);
    src->ulFlag |= 0x00010000u | MBUF_ROOMLOCK | MBUF_NOFREE;
    src->ulFlag3 = 3;
    src->ulPktTagInfo = 4;
    src->ulFlag2 = 5;
    src->ulPktRsv4 = 6;
    uint8_t *data = dst->pucData;
    ASSERT_NE(MBUF_DuplicatePktHdr(dst, src, kTestModule, nullptr), 0);
    EXPECT_EQ(dst->ulFlag, MBUF_PKTHDR | MBUF_EXT | MBUF_ROOMLOCK | 0x00010000u);
    EXPECT_EQ(dst->pucData, data);
    EXPECT_EQ(dst->ulTotalDataLen, 10u);
    EXPECT_EQ(dst->ulFlag3, 3u);
    EXPECT_EQ(dst->ulPktTagInfo, 4u);
    EXPECT_EQ(dst->ulFlag2, 5u);
    EXPECT_EQ(dst->ulPktRsv4, 6u);
    src->ulFlag &= ~MBUF_NOFREE;
    dst->ulTotalDataLen = 0;
    MBUF_Destroy(src);
    MBUF_Destroy(dst);
}

TEST_F(CopyTest, CopiedHeaderHoldsNoDataButTheSourcesRecords) {
    MBUF_S *src = BuildChain({InlineNode(10), InlineNode(20)});
    ASSERT_NE(src, nullptr);
    GrowControlBlock(src);
    src->usType = 3;
    MBUF_S *head = MBUF_CopyMBufHeader_fl(src, kTestModule, kFile, __LINE__);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->ulDataLen, 0u);
    EXPECT_EQ(head->ulTotalDataLen, 30u);
    EXPECT_EQ(head->usType, 3u);
    EXPECT_EQ(head->pucData, head->aucHdrInlineData);
    auto *rec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(head, MBUF_CTL_MPLS));
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec[0], 0x5C);
    EXPECT_NE(head->pstCtlInfo, src->pstCtlInfo);
    head->ulTotalDataLen = 0;
    EXPECT_TRUE(PacketOk(head));
    MBUF_Destroy(head);
    EXPECT_EQ(MBUF_CopyMBufHeader_fl(nullptr, kTestModule, kFile, __LINE__), nullptr);
    src->ulFlag &= ~MBUF_PKTHDR;
    EXPECT_EQ(MBUF_CopyMBufHeader_fl(src, kTestModule, kFile, __LINE__), nullptr);
    src->ulFlag |= MBUF_PKTHDR;
    MBUF_Destroy(src);
}

TEST_F(CopyTest, RawCopySizesItsSingleNode) {
    const Bytes data = Payload(3000);
    MBUF_S *m =
        MBUF_CreateMbufWithBufferData(data.data(), 3000, 0, 0, nullptr, kTestModule, nullptr);
    ASSERT_NE(m, nullptr);
    struct Case {
        std::uint32_t len, headRoom, bufSize;
    };
    for (const Case &c : {Case{100, 0, 0}, Case{300, 100, MBUF_CLUSTER_SIZE}, Case{308, 0, 0},
                          Case{309, 0, MBUF_CLUSTER_SIZE}, Case{2000, 0, 2064}}) {
        SCOPED_TRACE(c.len);
        MBUF_S *copy = MBUF_RawCopy(m, 7, c.len, c.headRoom, kTestModule);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ((copy->ulFlag & MBUF_EXT) != 0, c.bufSize != 0);
        if (c.bufSize != 0) {
            EXPECT_EQ(copy->ulExtSize, c.bufSize);
            EXPECT_EQ(copy->pucData, copy->pucExtBuf + std::max(c.headRoom, 64u));
            KRM_HOST_BUF_INFO_S info{};
            ASSERT_EQ(KRM_HOST_BufferInfo(copy->pucExtBuf, &info), 0u);
            EXPECT_STREQ(info.pcFile, "MBUF_RawCopy");
            EXPECT_EQ(info.ulLine, 55u);
        }
        EXPECT_TRUE(HoldsBytes(copy, Slice(data, 7, c.len)));
        MBUF_Destroy(copy);
    }
    MBUF_Destroy(m);
}

TEST_F(CopyTest, RawCopyReportsBadSourcesAndRanges) {
    MBUF_S *m = BuildChain({InlineNode(10)});
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(MBUF_RawCopy(nullptr, 0, 1, 0, kTestModule), nullptr);
    EXPECT_EQ(MBUF_RawCopy(m, 0, 11, 0, kTestModule), nullptr);
    m->ulFlag &= ~MBUF_PKTHDR;
    EXPECT_EQ(MBUF_RawCopy(m, 0, 1, 0, kTestModule), nullptr);
    m->ulFlag |= MBUF_PKTHDR;
    // Length 0 at the very end: an empty copy, after the copy routine has
    // reported the offset.
    MBUF_S *empty = MBUF_RawCopy(m, 10, 0, 0, kTestModule);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->ulTotalDataLen, 0u);
    EXPECT_EQ(empty->pucData, empty->aucHdrInlineData + 64);
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

TEST_F(CopyTest, RawCopyFailsCleanlyAtEveryAllocation) {
    MBUF_S *m = nullptr;
    MBUF_S *copy = nullptr;
    const SweepResult result = FaultSweep({
        [&] {
            m = BuildChain({InlineNode(300), ClusterNode(1500)});
            GrowControlBlock(m);
        },
        [&] {
            copy = MBUF_RawCopy(m, 10, 1700, 0, kTestModule);
            return copy != nullptr;
        },
        [&] {
            EXPECT_TRUE(PacketOk(m));
            MBUF_Destroy(m);
        },
        [&] {
            EXPECT_TRUE(HoldsBytes(copy, Slice(Flatten(m), 10, 1700)));
            MBUF_Destroy(copy);
            MBUF_Destroy(m);
        },
    });
    EXPECT_EQ(result.failedRuns, 3u);  // header node, control block, buffer
}

}  // namespace
}  // namespace krm::test
