// Layout facts that offsets alone do not show: the control block's head word
// has one value on both byte orders, and the byte helpers read and write
// records at any alignment.
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

#include "host_test.h"
#include "internal/bytes.h"
#include "internal/layout.h"

namespace {

class LayoutTest : public krm::test::HostTest {};

TEST_F(LayoutTest, ControlBlockHeadWordHasTheSameValueOnBothByteOrders) {
    auto blk = std::make_unique<MBUF_CONTROL_BLK_S>();
    blk->ucBlkMark = MBUF_CTL_BLK_MARK;
    blk->ucByteOrder = MBUF_BYTEORDER_HOST;
    blk->ucSlotNum = MBUF_CTL_TYPE_NUM;
    blk->ucRecNum = 5;
    const std::uint32_t word = krm::Load32At(blk.get(), krm::kCtlHeadWordOffset);
    EXPECT_EQ(word, (0x40u << 24) | (MBUF_BYTEORDER_HOST << 16) | (23u << 8) | 5u);

    // Reversing the word is how a peer of the other byte order reads it: the
    // mark lands where that peer keeps its record count.
    krm::SwapInPlace32(reinterpret_cast<std::uint8_t *>(blk.get()) + krm::kCtlHeadWordOffset);
    EXPECT_EQ(blk->ucRecNum, MBUF_CTL_BLK_MARK);
    EXPECT_EQ(blk->ucSlotNum, MBUF_BYTEORDER_HOST);
    EXPECT_EQ(blk->ucByteOrder, MBUF_CTL_TYPE_NUM);
    EXPECT_EQ(blk->ucBlkMark, 5u);
}

TEST_F(LayoutTest, NodeByteFieldsKeepTheirOffsets) {
    auto node = std::make_unique<MBUF_S>();
    node->ucByteOrder = 0x5A;
    node->ucMagic = MBUF_MAGIC_LIVE;
    node->usType = 0x0102;
    const auto *raw = reinterpret_cast<const std::uint8_t *>(node.get());
    EXPECT_EQ(raw[22], 0x5A);
    EXPECT_EQ(raw[23], MBUF_MAGIC_LIVE);
    EXPECT_EQ(krm::Load16At(raw, 20), 0x0102);
}

TEST_F(LayoutTest, ByteHelpersWorkAtEveryAlignment) {
    for (std::uint32_t off = 0; off < 4; ++off) {
        std::array<std::uint8_t, 16> buf{};
        krm::Store32At(buf.data(), off, 0x11223344u);
        krm::Store16At(buf.data(), off + 4, 0x5566u);
        EXPECT_EQ(krm::Load32At(buf.data(), off), 0x11223344u) << off;
        EXPECT_EQ(krm::Load16At(buf.data(), off + 4), 0x5566u) << off;
        EXPECT_EQ(krm::LoadBe32(buf.data() + off), MBUF_HOST_BIG_ENDIAN ? 0x11223344u : 0x44332211u)
            << off;
        krm::SwapInPlace32(buf.data() + off);
        krm::SwapInPlace16(buf.data() + off + 4);
        EXPECT_EQ(krm::Load32At(buf.data(), off), 0x44332211u) << off;
        EXPECT_EQ(krm::Load16At(buf.data(), off + 4), 0x6655u) << off;
        // Bytes around the fields are untouched.
        for (std::uint32_t i = 0; i < off; ++i) {
            EXPECT_EQ(buf[i], 0) << off;
        }
        for (std::uint32_t i = off + 6; i < buf.size(); ++i) {
            EXPECT_EQ(buf[i], 0) << off;
        }
    }
    std::array<std::uint8_t, 4> be{};
    krm::StoreBe32(be.data(), 0xA1B2C3D4u);
    EXPECT_EQ(be, (std::array<std::uint8_t, 4>{0xA1, 0xB2, 0xC3, 0xD4}));
    krm::StoreBe16(be.data(), 0x0E0Fu);
    EXPECT_EQ(krm::LoadBe16(be.data()), 0x0E0Fu);
}

}  // namespace
