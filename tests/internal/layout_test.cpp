// The byte helpers read and write records at any alignment, touching nothing
// around. (The control block's head word, the same value on both byte orders,
// is checked where the block is initialised and filled: tests/meta.)
#include <array>
#include <cstdint>
#include <cstring>

#include "host_test.h"
#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"

namespace {

using Buf = std::array<std::uint8_t, 16>;

class LayoutTest : public krm::test::HostTest {};

// Host-order words at off and off + 4 in an otherwise zero buffer, written
// without the helpers.
Buf Placed(std::uint32_t off, std::uint32_t word, std::uint16_t half) {
    Buf b{};
    std::memcpy(b.data() + off, &word, 4);
    std::memcpy(b.data() + off + 4, &half, 2);
    return b;
}

TEST_F(LayoutTest, ByteHelpersWorkAtEveryAlignment) {
    for (std::uint32_t off = 0; off < 4; ++off) {
        Buf buf{};
        krm::Store32At(buf.data(), off, 0x11223344u);
        krm::Store16At(buf.data(), off + 4, 0x5566u);
        EXPECT_EQ(buf, Placed(off, 0x11223344u, 0x5566u)) << off;
        EXPECT_EQ(krm::Load32At(buf.data(), off), 0x11223344u) << off;
        EXPECT_EQ(krm::Load16At(buf.data(), off + 4), 0x5566u) << off;
        EXPECT_EQ(krm::LoadBe32(buf.data() + off), MBUF_HOST_BIG_ENDIAN ? 0x11223344u : 0x44332211u)
            << off;
        krm::SwapInPlace32(buf.data() + off);
        krm::SwapInPlace16(buf.data() + off + 4);
        EXPECT_EQ(buf, Placed(off, 0x44332211u, 0x6655u)) << off;
    }
    std::array<std::uint8_t, 4> be{};
    krm::StoreBe32(be.data(), 0xA1B2C3D4u);
    EXPECT_EQ(be, (std::array<std::uint8_t, 4>{0xA1, 0xB2, 0xC3, 0xD4}));
    krm::StoreBe16(be.data(), 0x0E0Fu);
    EXPECT_EQ(krm::LoadBe16(be.data()), 0x0E0Fu);
}

}  // namespace
