#include <cstring>

#include "ctlinfo_test_util.h"

namespace krm::test {
namespace {

class PktTagTest : public CtlPacketTest {
  protected:
    std::uint8_t *Tag(std::uint32_t type, std::uint32_t len) {
        return static_cast<std::uint8_t *>(
            MBUF_CreatePktTag(m_, type, len, 0, kCtlModule, kCtlFile, 5));
    }
    std::uint32_t BlockBufferLen() const {
        KRM_HOST_BUF_INFO_S info{};
        EXPECT_EQ(KRM_HOST_BufferInfo(m_->pstCtlInfo, &info), 0u);
        return info.ulLen;
    }
};

TEST_F(PktTagTest, TagIsPlacedUnroundedAtTheEndOfTheUsedArea) {
    std::uint8_t *a = Tag(MBUF_CTL_IP, 5);
    std::uint8_t *b = Tag(MBUF_CTL_IP6, 3);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b, a + 5);
    EXPECT_EQ(Slot(m_, MBUF_CTL_IP6).usOffset, MBUF_CTL_FIXED_LEN + 5);
    EXPECT_EQ(Slot(m_, MBUF_CTL_IP6).usLen, 3);
    EXPECT_EQ(m_->pstCtlInfo->usUsedLen, 8);
    EXPECT_EQ(m_->pstCtlInfo->ucRecNum, 2);
    ExpectValid(m_);
}

TEST_F(PktTagTest, ExactFitStaysInlineAndTheNextByteMovesTheBlockOut) {
    ASSERT_NE(Tag(MBUF_CTL_APP, 200), nullptr);
    std::uint8_t *app = Rec(m_, MBUF_CTL_APP);
    std::memset(app, 0x3C, 200);
    ASSERT_NE(Tag(MBUF_CTL_IPOPTION, 64), nullptr);  // 264: exactly full
    EXPECT_TRUE(BlockIsInline(m_));
    ExpectValid(m_);

    std::uint8_t *grown = Tag(MBUF_CTL_POLICYIF, 10);
    ASSERT_NE(grown, nullptr);
    EXPECT_FALSE(BlockIsInline(m_));
    EXPECT_EQ(BlockBufferLen(), 264u + 10 + 312);
    EXPECT_EQ(m_->pstCtlInfo->usCapacity, 264 + 10 + 128);
    EXPECT_EQ(Slot(m_, MBUF_CTL_APP).usOffset, MBUF_CTL_FIXED_LEN) << "records never move";
    const std::uint8_t *moved = Rec(m_, MBUF_CTL_APP);
    for (int i = 0; i < 200; ++i) ASSERT_EQ(moved[i], 0x3C) << i;
    EXPECT_EQ(grown, reinterpret_cast<std::uint8_t *>(m_->pstCtlInfo) + MBUF_CTL_FIXED_LEN + 264);
    ExpectValid(m_);
}

TEST_F(PktTagTest, SeparateBlockGrowsByReallocationKeepingOffsets) {
    ASSERT_NE(Tag(MBUF_CTL_APP, 300), nullptr);
    std::memset(Rec(m_, MBUF_CTL_APP), 0x61, 300);
    const std::uint32_t live = KRM_HOST_LiveBufferCount();
    ASSERT_NE(Tag(MBUF_CTL_STACKDEBUG, 500), nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), live) << "the old block went back";
    EXPECT_EQ(BlockBufferLen(), 300u + 500 + 312);
    EXPECT_EQ(Rec(m_, MBUF_CTL_APP)[299], 0x61);
    EXPECT_EQ(Slot(m_, MBUF_CTL_STACKDEBUG).usOffset, MBUF_CTL_FIXED_LEN + 300);
    ExpectValid(m_);
}

TEST_F(PktTagTest, BlockAboveThirtyThousandTakesNoMoreTags) {
    ASSERT_NE(Tag(MBUF_CTL_STACKDEBUG, 29000), nullptr);
    EXPECT_EQ(m_->pstCtlInfo->usCapacity, 29000 + 128);
    ASSERT_NE(Tag(MBUF_CTL_APP, 8), nullptr) << "29128 is within the limit";
    ASSERT_NE(Tag(MBUF_CTL_IP, 1000), nullptr) << "a block may grow past the limit";
    EXPECT_EQ(m_->pstCtlInfo->usCapacity, 30008 + 128);
    const MBUF_CONTROL_BLK_S before = *m_->pstCtlInfo;
    EXPECT_EQ(Tag(MBUF_CTL_IP6, 8), nullptr) << "room is left, but the block is too large";
    EXPECT_EQ(std::memcmp(m_->pstCtlInfo, &before, sizeof(before)), 0);
    ExpectValid(m_);
}

TEST_F(PktTagTest, RefusedTagsLeaveTheBlockAlone) {
    const MBUF_CONTROL_BLK_S before = *m_->pstCtlInfo;
    EXPECT_EQ(Tag(23, 8), nullptr);
    EXPECT_EQ(std::memcmp(m_->pstCtlInfo, &before, sizeof(before)), 0);
    EXPECT_EQ(MBUF_CreatePktTag(nullptr, 2, 8, 0, kCtlModule, kCtlFile, 1), nullptr);
    EXPECT_TRUE(Reports().empty());
}

TEST_F(PktTagTest, HeaderlessNodesAreReportedByEveryTagOperation) {
    MBUF_S plain;
    const MBUF_STRUCT_INIT_S init{0, MBUF_TYPE_DATA};
    MBUF_StructInit(&plain, sizeof(plain), &init);
    EXPECT_EQ(MBUF_CreatePktTag(&plain, 2, 8, 0, kCtlModule, kCtlFile, 1), nullptr);
    MBUF_DeletePktTag(&plain, nullptr);
    EXPECT_EQ(MBUF_CopyPktTag(&plain, &plain, kCtlModule, nullptr), 1u);
    EXPECT_EQ(Reports(),
              (std::vector<Report>{
                  AssertReport("mbuf_uipc_mbuf", 1452, "mbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1530, "Mbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1561, "DstMbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1565, "SrcMbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1530, "Mbuf has not MBUF_PKTHDR flag"),
              }));
}

TEST_F(PktTagTest, DeleteFreesOnlyASeparateBlock) {
    ASSERT_NE(Tag(MBUF_CTL_IP, 20), nullptr);
    Rec(m_, MBUF_CTL_IP)[0] = 0x99;
    MBUF_DeletePktTag(m_, nullptr);
    ASSERT_TRUE(BlockIsInline(m_));
    EXPECT_EQ(Rec(m_, MBUF_CTL_IP)[0], 0x99) << "an inline block stays readable";

    ASSERT_NE(Tag(MBUF_CTL_APP, 400), nullptr);
    const std::uint32_t live = KRM_HOST_LiveBufferCount();
    MBUF_DeletePktTag(m_, nullptr);
    EXPECT_EQ(m_->pstCtlInfo, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), live - 1);
    ExpectValid(m_);
    MBUF_DeletePktTag(nullptr, nullptr);
}

// ---- copying blocks between packets -----------------------------------------

class CopyPktTagTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        src_ = NewPacket();
        dst_ = NewPacket();
    }
    void TearDown() override {
        MBUF_Destroy(src_);
        MBUF_Destroy(dst_);
        HostTest::TearDown();
    }
    void Grow(MBUF_S *m, std::uint32_t len) {
        ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_STACKDEBUG, len, kCtlModule), 0u);
    }
    MBUF_S *src_ = nullptr;
    MBUF_S *dst_ = nullptr;
};

TEST_F(CopyPktTagTest, LargerDestinationKeepsItsBlockAndCapacity) {
    ASSERT_EQ(MBUF_CreateControlInfo(src_, MBUF_CTL_IP, 20, kCtlModule), 0u);
    Rec(src_, MBUF_CTL_IP)[3] = 0x17;
    src_->ulFlag2 = 2;
    src_->ulFlag3 = 3;
    Grow(dst_, 1000);
    MBUF_CONTROL_BLK_S *dstBlk = dst_->pstCtlInfo;
    const std::uint16_t capacity = dstBlk->usCapacity;
    EXPECT_EQ(MBUF_CopyPktTag(dst_, src_, kCtlModule, nullptr), 1u);
    EXPECT_EQ(dst_->pstCtlInfo, dstBlk);
    EXPECT_EQ(dstBlk->usCapacity, capacity);
    EXPECT_EQ(MBUF_GetControlInfo(dst_, MBUF_CTL_STACKDEBUG), nullptr) << "source's directory";
    EXPECT_EQ(Rec(dst_, MBUF_CTL_IP)[3], 0x17);
    EXPECT_EQ(dst_->ulFlag2, 2u);
    EXPECT_EQ(dst_->ulFlag3, 3u);
    ExpectValid(dst_);
}

TEST_F(CopyPktTagTest, EqualInlineBlocksCopyInPlace) {
    ASSERT_EQ(MBUF_CreateControlInfo(src_, MBUF_CTL_FETX, 44, kCtlModule), 0u);
    EXPECT_EQ(MBUF_CopyPktTag(dst_, src_, kCtlModule, nullptr), 1u);
    EXPECT_TRUE(BlockIsInline(dst_));
    EXPECT_NE(MBUF_GetControlInfo(dst_, MBUF_CTL_FETX), nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 2u);
    ExpectValid(dst_);
}

TEST_F(CopyPktTagTest, SmallerDestinationGetsABlockOfTheSourceCapacity) {
    Grow(src_, 600);
    std::memset(Rec(src_, MBUF_CTL_STACKDEBUG), 0x2D, 600);
    Grow(dst_, 300);  // separate, but smaller: replaced
    EXPECT_EQ(MBUF_CopyPktTag(dst_, src_, kCtlModule, nullptr), 1u);
    ASSERT_FALSE(BlockIsInline(dst_));
    EXPECT_NE(dst_->pstCtlInfo, src_->pstCtlInfo);
    EXPECT_EQ(dst_->pstCtlInfo->usCapacity, src_->pstCtlInfo->usCapacity);
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(dst_->pstCtlInfo, &info), 0u);
    EXPECT_EQ(info.ulLen, MBUF_CTL_FIXED_LEN + src_->pstCtlInfo->usCapacity);
    EXPECT_EQ(Rec(dst_, MBUF_CTL_STACKDEBUG)[599], 0x2D);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 4u) << "the old separate block was released";
    ExpectValid(dst_);
}

TEST_F(CopyPktTagTest, SourceWithoutBlockReleasesTheDestinationsSeparateOne) {
    Grow(src_, 400);
    MBUF_DeletePktTag(src_, nullptr);
    Grow(dst_, 400);
    dst_->ulFlag2 = 7;
    EXPECT_EQ(MBUF_CopyPktTag(dst_, src_, kCtlModule, nullptr), 1u);
    EXPECT_EQ(dst_->pstCtlInfo, nullptr);
    EXPECT_EQ(dst_->ulFlag2, 7u) << "flags travel only with a block";
}

TEST_F(CopyPktTagTest, NullPacketsAreNothingToDo) {
    const MBUF_CONTROL_BLK_S before = *dst_->pstCtlInfo;
    EXPECT_EQ(MBUF_CopyPktTag(dst_, nullptr, kCtlModule, nullptr), 1u);
    EXPECT_EQ(MBUF_CopyPktTag(nullptr, src_, kCtlModule, nullptr), 1u);
    EXPECT_EQ(std::memcmp(dst_->pstCtlInfo, &before, sizeof(before)), 0);
    EXPECT_TRUE(Reports().empty());
}

}  // namespace
}  // namespace krm::test
