// The serial image at its edges: its exact size, an image of data only, the
// byte-order code of the block, a received capacity larger than the inline
// block, a peer's block of another slot count, and images that lie about
// their data length.
#include "fault_sweep.h"
#include "golden_support.h"

namespace krm::serialtest {
namespace {

class ImageTest : public SerialTest {
  protected:
    MBUF_S *Read(Bytes &b) {
        return Keep(
            MBUF_Deserialize_fl(b.data(), static_cast<uint32_t>(b.size()), kModule, "img", 4));
    }
};

TEST_F(ImageTest, SizesAndArguments) {
    const Bytes data = Counting(100, 9);
    MBUF_S *pkt = Keep(MBUF_CreateByCopyBuffer(0, 100, data.data(), 0, kModule));
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(MBUF_GetAllBlockSize(pkt), 316u);
    Bytes img = ImageOf(pkt);
    ASSERT_EQ(img.size(), 316u);
    EXPECT_EQ(Get32(img.data()), 100u);
    EXPECT_EQ(Bytes(img.begin() + 4, img.begin() + 104), data);
    EXPECT_EQ(img[104 + offsetof(MBUF_CONTROL_BLK_S, ucByteOrder)], MBUF_BYTEORDER_HOST);
    EXPECT_EQ(MBUF_GetAllBlockSize(nullptr), 0u);
    EXPECT_EQ(MBUF_Serialize(nullptr, img.data()), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_Serialize(pkt, nullptr), MBUF_ERR_NO_DATA);
    MBUF_S stPlain{};
    EXPECT_EQ(MBUF_GetAllBlockSize(&stPlain), 0u);
    EXPECT_EQ(MBUF_Serialize(&stPlain, img.data()), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_Deserialize(nullptr, 10, kModule), nullptr);
}

// The block's code: 0 and this host's are local; the image of data only
// (length D + 4) gives the data and nothing else.
TEST_F(ImageTest, LocalCodesAndDataOnlyImages) {
    const PacketPlan plan = krm::golden::Packets()[1];
    MBUF_S *src = Keep(krm::golden::Build(plan, kModule));
    ASSERT_NE(src, nullptr);
    for (const uint8_t ucCode : {uint8_t{0}, uint8_t{MBUF_BYTEORDER_HOST}}) {
        Bytes img = ImageOf(src);
        img[4 + plan.dataLen + offsetof(MBUF_CONTROL_BLK_S, ucByteOrder)] = ucCode;
        EXPECT_TRUE(MatchesPlan(Read(img), plan, true)) << int{ucCode};
    }
    Bytes img = ImageOf(src);
    img.resize(4 + plan.dataLen);
    MBUF_S *pkt = Read(img);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(krm::test::PacketBytes(pkt), krm::golden::Data(plan));
    EXPECT_EQ(MBUF_GetControlInfo(pkt, MBUF_CTL_IP), nullptr);
    EXPECT_TRUE(Reports().empty());
}

TEST_F(ImageTest, DataLengthBeyondTheImage) {
    struct Case {
        Bytes img;
        std::string text;
    };
    Bytes lies(50, 0);
    Put32(lies, 0, 47);
    for (Case c :
         {Case{lies, "buf len 50, data len 51"}, Case{Bytes{1, 0}, "buf len 2, data len 4"}}) {
        KRM_HOST_ReportClear();
        EXPECT_EQ(Read(c.img), nullptr);
        EXPECT_EQ(Reports(), std::vector{AssertReport("krm_mbuf_bas", 2646, c.text)});
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
    const krm::test::SweepResult r = krm::test::FaultSweep({
        [] {},
        [&] {
            MBUF_S *pkt = MBUF_Deserialize(img.data(), static_cast<uint32_t>(img.size()), kModule);
            if (pkt == nullptr) {
                return false;
            }
            EXPECT_TRUE(MatchesPlan(pkt, plan, true));
            EXPECT_EQ(pkt->pstCtlInfo->usCapacity, src->pstCtlInfo->usCapacity);
            EXPECT_EQ(KRM_DbufLengthGET(pkt->pstCtlInfo), 184u + src->pstCtlInfo->usCapacity);
            MBUF_Destroy(pkt);
            return true;
        },
        [] {},
        [] {},
    });
    EXPECT_GE(r.failedRuns, 3u);  // head, data buffer, block
}

// A peer with 20 slots: the block is rebuilt in the local layout and the
// header words are found behind the peer's shorter directory.
TEST_F(ImageTest, OtherSlotCountIsUpgraded) {
    const std::vector<RecordRow> records{{2, Counting(20, 1)}, {9, Counting(4, 2)}};
    const Bytes blk = OldLayoutBlock(20, 300, records);
    const Bytes data = Counting(77, 5);
    Bytes img;
    Bytes d(4);
    Put32(d, 0, 77);
    img.insert(img.end(), d.begin(), d.end());
    img.insert(img.end(), data.begin(), data.end());
    img.insert(img.end(), blk.begin(), blk.end());
    Bytes words(28);
    for (uint32_t i = 0; i < 7; ++i) {
        Put32(words, 4 * i, i == 1 ? 77u : 0xA0 + i);
    }
    img.insert(img.end(), words.begin(), words.end());
    const krm::test::SweepResult r = krm::test::FaultSweep({
        [] {},
        [&] {
            MBUF_S *pkt = MBUF_Deserialize(img.data(), static_cast<uint32_t>(img.size()), kModule);
            if (pkt == nullptr) {
                return false;
            }
            ExpectValid(pkt);
            EXPECT_EQ(krm::test::PacketBytes(pkt), data);
            EXPECT_EQ(pkt->pstCtlInfo->ucSlotNum, 23u);
            EXPECT_EQ(pkt->pstCtlInfo->usCapacity, 300u + 128u);
            for (const RecordRow &rec : records) {
                EXPECT_EQ(RecordBytes(pkt, rec.slot, static_cast<uint32_t>(rec.bytes.size())),
                          rec.bytes);
            }
            EXPECT_EQ(pkt->ulFlag2, 0xA5u);
            EXPECT_EQ(pkt->ulPktRsv3, 0xA6u);
            MBUF_Destroy(pkt);
            return true;
        },
        [] {},
        [] {},
    });
    EXPECT_GE(r.failedRuns, 2u);
    EXPECT_TRUE(Reports().empty());
}

// A block cut short, or header words cut short, is left alone: the packet
// keeps what lies inside the image.
TEST_F(ImageTest, CutBlocksAndWordsAreNotTaken) {
    const PacketPlan plan = krm::golden::Packets()[1];
    MBUF_S *src = Keep(krm::golden::Build(plan, kModule));
    const Bytes full = ImageOf(src);
    const uint32_t ulBlk = 4 + plan.dataLen;
    const uint32_t ulWords = static_cast<uint32_t>(full.size()) - 28;
    for (const uint32_t ulLen : {ulBlk + 10, ulBlk + 91, ulBlk + 200, ulWords - 1, ulWords + 27}) {
        Bytes img(full.begin(), full.begin() + ulLen);
        MBUF_S *pkt = Read(img);
        ASSERT_NE(pkt, nullptr) << ulLen;
        ExpectValid(pkt);
        EXPECT_EQ(krm::test::PacketBytes(pkt), krm::golden::Data(plan));
        const bool bBlockTaken = ulLen >= ulWords;
        EXPECT_EQ(MBUF_GetControlInfo(pkt, MBUF_CTL_IP) != nullptr, bBlockTaken) << ulLen;
        EXPECT_EQ(pkt->ulFlag2, 0u) << ulLen;
    }
}

}  // namespace
}  // namespace krm::serialtest
