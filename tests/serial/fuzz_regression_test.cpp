// Serial images that fuzzing found reading past a block
// (fuzz/corpus/pipe/regress-used-past-block): a received block may claim a
// used area larger than its memory; the image holds what the block has and
// zeros for the rest, and keeps the size MBUF_GetAllBlockSize gave.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "host_test.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::test {
namespace {

class ImageFuzzRegressionTest : public HostTest {};

TEST_F(ImageFuzzRegressionTest, AUsedAreaPastTheBlockIsWrittenAsZeros) {
    constexpr std::uint32_t kData = 40;
    for (const bool separate : {false, true}) {
        SCOPED_TRACE(separate ? "separate block" : "inline block");
        std::vector<std::uint8_t> data(kData, 0x5A);
        MBUF_S *pkt = MBUF_CreateByCopyBuffer(0, kData, data.data(), 0, 0x10000);
        ASSERT_NE(pkt, nullptr);
        if (separate) {
            ASSERT_EQ(MBUF_CreateControlInfo_fl(pkt, MBUF_CTL_PKTSEND, 600, 0x10000, "t", 1), 0u);
            ASSERT_NE(pkt->pstCtlInfo, &pkt->stCtlInfo.stBlk);
        }
        const std::uint32_t mem =
            separate ? KRM_DbufLengthGET(pkt->pstCtlInfo) : MBUF_CTLINFO_INLINE_LEN;
        pkt->pstCtlInfo->usUsedLen = static_cast<std::uint16_t>(mem - MBUF_CTL_FIXED_LEN + 100);
        const auto *blk = reinterpret_cast<const std::uint8_t *>(pkt->pstCtlInfo);
        const std::vector<std::uint8_t> block(blk, blk + mem);
        const std::uint32_t size = MBUF_GetAllBlockSize(pkt);
        ASSERT_EQ(size, kData + mem + 100 + 4 + MBUF_IMAGE_HDR_WORDS_LEN);
        std::vector<std::uint8_t> img(size, 0xEE);
        ASSERT_EQ(MBUF_Serialize(pkt, img.data()), 0u);
        const auto at = img.begin() + 4 + kData;
        EXPECT_EQ(std::vector<std::uint8_t>(at, at + mem), block);
        EXPECT_EQ(std::vector<std::uint8_t>(at + mem, at + mem + 100),
                  std::vector<std::uint8_t>(100, 0));
        EXPECT_EQ(std::memcmp(&img[size - MBUF_IMAGE_HDR_WORDS_LEN + 20], &pkt->ulFlag2, 4), 0);
        MBUF_Destroy(pkt);
    }
}

// A received packet keeps its sender's total length: an image of one that
// would not fit 32 bits is neither sized nor written, and its message is not
// sent (fuzz/corpus/pipe/regress-image-size-wrap: a total near 4 GiB made
// the size wrap to a few hundred bytes).
TEST_F(ImageFuzzRegressionTest, AnImageBeyond32BitsIsNeitherSizedNorWritten) {
    std::vector<std::uint8_t> data(40, 1);
    for (const std::uint32_t total : {0xFFFFFFF0u, 0xFFFFFF30u}) {
        MBUF_S *pkt = MBUF_CreateByCopyBuffer(0, 40, data.data(), 0, 0x10000);
        ASSERT_NE(pkt, nullptr);
        pkt->ulTotalDataLen = total;
        EXPECT_EQ(MBUF_GetAllBlockSize(pkt), 0u);
        std::vector<std::uint8_t> img(64, 0xEE);
        EXPECT_EQ(MBUF_Serialize(pkt, img.data()), MBUF_ERR_NO_DATA);
        EXPECT_EQ(img, std::vector<std::uint8_t>(64, 0xEE));
        pkt->ulTotalDataLen = 40;
        MBUF_Destroy(pkt);
    }
}

}  // namespace
}  // namespace krm::test
