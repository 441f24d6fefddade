// The serial image at its edges: an image of data only, the byte-order code
// of the block, a received capacity larger than the inline block, a peer's
// block of another slot count, and images that lie about their data length.
#include "fault_sweep.h"
#include "serial_support.h"

namespace krm::serialtest {
namespace {

using ImageTest = SerialTest;

// The block's code: 0 and this host's are local; the image of data only
// (length D + 4) gives the data and nothing else.
TEST_F(ImageTest, LocalCodesAndDataOnlyImages) {
    const PacketPlan plan = krm::golden::Packets()[1];
    MBUF_S *src = Keep(krm::golden::Build(plan, kModule));
    ASSERT_NE(src, nullptr);
    for (const uint8_t ucCode : {uint8_t{0}, uint8_t{MBUF_BYTEORDER_HOST}}) {
        Bytes img = ImageOf(src);
        img[4 + plan.dataLen + offsetof(MBUF_CONTROL_BLK_S, ucByteOrder)] = ucCode;
        EXPECT_TRUE(MatchesPlan(ReadImage(img), plan, true)) << int{ucCode};
    }
    Bytes img = ImageOf(src);
    img.resize(4 + plan.dataLen);
    MBUF_S *pkt = ReadImage(img);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(krm::test::PacketBytes(pkt), krm::golden::Data(plan));
    EXPECT_EQ(MBUF_GetControlInfo(pkt, MBUF_CTL_IP), nullptr);
    EXPECT_TRUE(Reports().empty());
}

TEST_F(ImageTest, DataLengthBeyondTheImage) {
    Bytes lies(50, 0);
    Put<std::uint32_t>(lies, 0, 47);
    for (auto [img, text] : {std::pair{lies, "buf len 50, data len 51"},
                             std::pair{Bytes{1, 0}, "buf len 2, data len 4"}}) {
        KRM_HOST_ReportClear();
        EXPECT_EQ(ReadImage(img), nullptr);
        EXPECT_EQ(Reports(), std::vector{AssertReport("krm_mbuf_bas", 2646, text)});
    }
}

// A received block larger than the inline one replaces it by a block of the
// received capacity; the failing allocation destroys the packet.
TEST_F(ImageTest, LargerReceivedCapacityReplacesTheBlock) {
    const PacketPlan plan = krm::golden::Packets()[4];
    MBUF_S *src = Keep(krm::golden::Build(plan, kModule));
    ASSERT_NE(src, nullptr);
    ASSERT_GT(src->pstCtlInfo->usCapacity, MBUF_CTL_INIT_CAPACITY);
    Bytes img = ImageOf(src);
    const auto len = static_cast<uint32_t>(img.size());
    MBUF_S *pkt = nullptr;
    const auto r = krm::test::FaultSweep(
        {[] {}, [&] { return (pkt = MBUF_Deserialize(img.data(), len, kModule)) != nullptr; },
         [] {},
         [&] {
             EXPECT_TRUE(MatchesPlan(pkt, plan, true));
             EXPECT_EQ(pkt->pstCtlInfo->usCapacity, src->pstCtlInfo->usCapacity);
             EXPECT_EQ(KRM_DbufLengthGET(pkt->pstCtlInfo), 184u + src->pstCtlInfo->usCapacity);
             MBUF_Destroy(pkt);
         }});
    EXPECT_GE(r.failedRuns, 3u);  // head, data buffer, block
}

// A peer with 20 slots: the block is rebuilt in the local layout and the
// header words are found behind the peer's shorter directory.
TEST_F(ImageTest, OtherSlotCountIsUpgraded) {
    const std::vector<RecordRow> records{{2, Counting(20, 1)}, {9, Counting(4, 2)}};
    const Bytes blk = OldLayoutBlock(20, 300, records);
    const Bytes data = Counting(77, 5);
    Bytes img(4 + 77 + blk.size() + 28);
    Put<std::uint32_t>(img, 0, 77);
    std::copy(data.begin(), data.end(), img.begin() + 4);
    std::copy(blk.begin(), blk.end(), img.begin() + 81);
    for (uint32_t i = 0; i < 7; ++i) {
        Put<std::uint32_t>(img, 81 + blk.size() + 4 * i, i == 1 ? 77u : 0xA0 + i);
    }
    MBUF_S *pkt = ReadImage(img);
    ASSERT_NE(pkt, nullptr);
    ExpectValid(pkt);
    EXPECT_EQ(krm::test::PacketBytes(pkt), data);
    EXPECT_EQ(std::tuple(pkt->pstCtlInfo->ucSlotNum, pkt->pstCtlInfo->usCapacity, pkt->ulFlag2,
                         pkt->ulPktRsv3),
              std::tuple(23u, 300u + 128u, 0xA5u, 0xA6u));
    for (const RecordRow &rec : records) {
        EXPECT_EQ(RecordBytes(pkt, rec.slot, rec.bytes.size()), rec.bytes);
    }
    EXPECT_TRUE(Reports().empty());
}

// A block cut short, or header words cut short, is left alone: the packet
// keeps what lies inside the image.
TEST_F(ImageTest, CutBlocksAndWordsAreNotTaken) {
    const PacketPlan plan = krm::golden::Packets()[1];
    const Bytes full = ImageOf(Keep(krm::golden::Build(plan, kModule)));
    const uint32_t ulBlk = 4 + plan.dataLen;
    const uint32_t ulWords = static_cast<uint32_t>(full.size()) - 28;
    for (const uint32_t ulLen : {ulBlk + 10, ulBlk + 91, ulBlk + 200, ulWords - 1, ulWords + 27}) {
        Bytes img(full.begin(), full.begin() + ulLen);
        MBUF_S *pkt = ReadImage(img);
        ASSERT_NE(pkt, nullptr) << ulLen;
        ExpectValid(pkt);
        EXPECT_EQ(krm::test::PacketBytes(pkt), krm::golden::Data(plan));
        EXPECT_EQ(MBUF_GetControlInfo(pkt, MBUF_CTL_IP) != nullptr, ulLen >= ulWords) << ulLen;
        EXPECT_EQ(pkt->ulFlag2, 0u) << ulLen;
    }
}

// A received block may claim a used area larger than its memory: the image
// holds what the block has and zeros for the rest, and keeps the size
// MBUF_GetAllBlockSize gave (a fuzzed block once made the writer read past
// it). A total that would not fit 32 bits is neither sized nor written.
TEST_F(ImageTest, AUsedAreaPastTheBlockIsWrittenAsZerosAndNoSizeWraps) {
    const Bytes data(40, 0x5A);
    for (const bool separate : {false, true}) {
        SCOPED_TRACE(separate ? "separate block" : "inline block");
        MBUF_S *pkt = Keep(MBUF_CreateByCopyBuffer(0, 40, data.data(), 0, kModule));
        ASSERT_NE(pkt, nullptr);
        if (separate) {
            ASSERT_EQ(MBUF_CreateControlInfo_fl(pkt, MBUF_CTL_PKTSEND, 600, kModule, "t", 1), 0u);
            ASSERT_NE(pkt->pstCtlInfo, &pkt->stCtlInfo.stBlk);
        }
        const std::uint32_t mem =
            separate ? KRM_DbufLengthGET(pkt->pstCtlInfo) : MBUF_CTLINFO_INLINE_LEN;
        pkt->pstCtlInfo->usUsedLen = static_cast<std::uint16_t>(mem - MBUF_CTL_FIXED_LEN + 100);
        const auto *blk = reinterpret_cast<const std::uint8_t *>(pkt->pstCtlInfo);
        Bytes want(blk, blk + mem);
        want.resize(mem + 100, 0);
        const std::uint32_t size = MBUF_GetAllBlockSize(pkt);
        ASSERT_EQ(size, 40 + mem + 100 + 4 + MBUF_IMAGE_HDR_WORDS_LEN);
        Bytes img(size, 0xEE);
        ASSERT_EQ(MBUF_Serialize(pkt, img.data()), 0u);
        EXPECT_EQ(Bytes(img.begin() + 44, img.begin() + 44 + mem + 100), want);
        EXPECT_EQ(Get<std::uint32_t>(&img[size - MBUF_IMAGE_HDR_WORDS_LEN + 20]), pkt->ulFlag2);
    }
    for (const std::uint32_t total : {0xFFFFFFF0u, 0xFFFFFF30u}) {
        MBUF_S *pkt = Keep(MBUF_CreateByCopyBuffer(0, 40, data.data(), 0, kModule));
        pkt->ulTotalDataLen = total;
        EXPECT_EQ(MBUF_GetAllBlockSize(pkt), 0u);
        Bytes img(64, 0xEE);
        EXPECT_EQ(MBUF_Serialize(pkt, img.data()), MBUF_ERR_NO_DATA);
        EXPECT_EQ(img, Bytes(64, 0xEE));
        pkt->ulTotalDataLen = 40;
    }
}

}  // namespace
}  // namespace krm::serialtest
