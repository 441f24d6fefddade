// Seeded random inputs for the framework: tag messages and control blocks
// whose head, slots, records and sub-TLV lists are random but shaped enough
// to reach every walk. Each message lives in an allocation of its received
// length and a canary byte, so that the address sanitizer sees any access
// past it; an inline block is checked for writes outside it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>

#include "image.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::test::bo {
namespace {

class Gen {
  public:
    explicit Gen(std::uint32_t seed) : rng_(seed) {}

    std::uint32_t U(std::uint32_t lo, std::uint32_t hi) {
        return std::uniform_int_distribution<std::uint32_t>(lo, hi)(rng_);
    }
    bool Chance(std::uint32_t percent) { return U(0, 99) < percent; }
    void Fill(std::uint8_t *p, std::size_t n) {
        std::generate(p, p + n, [this] { return static_cast<std::uint8_t>(U(0, 255)); });
    }

    // Stores a value as a sender of the other order would (so that it reads
    // as v once converted), if it fits below end.
    static void Put16F(std::uint8_t *p, std::uint32_t off, std::uint32_t end, std::uint32_t v) {
        const std::uint16_t s = __builtin_bswap16(static_cast<std::uint16_t>(v));
        if (off + 2 <= end) {
            std::memcpy(p + off, &s, 2);
        }
    }
    static void Put32F(std::uint8_t *p, std::uint32_t off, std::uint32_t end, std::uint32_t v) {
        const std::uint32_t s = __builtin_bswap32(v);
        if (off + 4 <= end) {
            std::memcpy(p + off, &s, 4);
        }
    }

    // A sub-TLV list in [p + off, p + end): types that reach every
    // translator, lengths that mostly fit; nested lists in the tunnel and
    // no-path sub-TLVs.
    void TlvList(std::uint8_t *p, std::uint32_t off, std::uint32_t end, bool link, int depth) {
        static const std::uint16_t kPktSnd[] = {0,  1,  2,  3,  4,  5,  7,  8,      9,      10,
                                                11, 12, 13, 14, 15, 18, 19, 20,     21,     22,
                                                27, 28, 29, 30, 31, 32, 6,  0x1000, 0x2000, 0x8000};
        while (off + 4 <= end && Chance(90)) {
            std::uint32_t len = U(0, 80);
            if (Chance(80)) {
                len = std::min(len, end - off - 4);
            }
            const std::uint32_t type = link ? (Chance(90) ? U(0, 26) : U(0, 0xFFFF))
                                            : kPktSnd[U(0, std::size(kPktSnd) - 1)];
            Put16F(p, off, end, type);
            Put16F(p, off + 2, end, len);
            if (!link && depth == 0 && (type == 13 || type == 19)) {
                TlvList(p, off + (type == 13 ? 4 : 8), std::min(end, off + 4 + len), false, 1);
            }
            off += 4 + len;
        }
    }

    // A random record of a type at [p + off, p + end).
    void Record(std::uint8_t *p, std::uint32_t type, std::uint32_t off, std::uint32_t end) {
        Fill(p + off, end - off);
        const std::uint32_t listLen = Chance(80) ? (end - off >= 4 ? end - off - 4 : 0) : U(0, 400);
        if (type == MBUF_CTL_LINK || type == MBUF_CTL_PACKET || type == MBUF_CTL_PKTSEND) {
            Put16F(p, off + 2, end, listLen);
            TlvList(p, off + 4, end, type == MBUF_CTL_LINK, 0);
        } else if (type == MBUF_CTL_INTERFACE) {
            Put32F(p, off + 4, end, U(0, 40));
        } else if (type == MBUF_CTL_STACKDEBUG) {
            if (off + 4 < end) {
                p[off + 4] = static_cast<std::uint8_t>(U(0, 6));
            }
            Put16F(p, off + 6, end, Chance(70) ? 48 : U(0, 100));
        }
    }

    // A tag message of n bytes: a head, slots and records.
    void TagMessage(std::uint8_t *p, std::uint32_t n) {
        Fill(p, n);
        if (n < 92) {
            return;
        }
        const std::uint32_t slots = Chance(75) ? 23 : U(0, 60);
        Put32F(p, 84, n, (0x40u << 24) | (1u << 16) | (slots << 8) | U(0, 23));
        Put16F(p, 88, n, U(0, n));
        Put16F(p, 90, n, U(0, 2000));
        const std::uint32_t base = (slots + 23) * 4;
        for (std::uint32_t i = 0; i < std::min<std::uint32_t>(slots, 23); ++i) {
            if (Chance(50)) {
                Put32F(p, 92 + 4 * i, n, 0);
                continue;
            }
            const std::uint32_t off = Chance(85) && n > base ? U(base, n) : U(0, n + 64);
            const std::uint32_t len = Chance(80) && off < n ? U(0, n - off) : U(0, 600);
            Put16F(p, 92 + 4 * i, n, off);
            Put16F(p, 94 + 4 * i, n, len);
            // Records overwrite what lies under them: keep them off the head.
            if (off < n && off >= base && i != 0) {
                Record(p, i, off, std::min(n, off + len));
            }
        }
    }

  private:
    std::mt19937 rng_;
};

constexpr std::uint32_t kRounds = 2000;

class FuzzTest : public HostTest {};

TEST_F(FuzzTest, TagMessagesStayWithinTheirReceivedLength) {
    Gen gen(0x5EED0001u);
    std::uint32_t reported = 0;
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        const std::uint32_t n = gen.Chance(10) ? gen.U(0, 100) : gen.U(92, 1400);
        std::unique_ptr<std::uint8_t[]> msg(new std::uint8_t[n + 1]);
        gen.TagMessage(msg.get(), n);
        msg[n] = 0xC5;  // behind the received length: the walk must not touch it
        MBUF_TagByteOrderTrans(msg.get(), n);
        ASSERT_EQ(msg[n], 0xC5) << "round " << round;
        reported += KRM_HOST_ReportCount();
        KRM_HOST_ReportClear();
    }
    EXPECT_GT(reported, 0u) << "the inputs should hit the reported paths";
}

TEST_F(FuzzTest, InlineAndSeparateBlocksStayWithinTheirSize) {
    Gen gen(0x5EED0002u);
    const std::size_t from = offsetof(MBUF_S, stCtlInfo);
    auto outside = [from](const MBUF_S &node) {
        const auto *p = reinterpret_cast<const std::uint8_t *>(&node);
        Bytes b(p, p + sizeof(MBUF_S));
        std::fill_n(b.begin() + static_cast<std::ptrdiff_t>(from), MBUF_CTLINFO_INLINE_LEN, 0);
        return b;
    };
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        auto node = NewNode();
        gen.Fill(reinterpret_cast<std::uint8_t *>(node.get()), sizeof(MBUF_S));
        node->ulFlag = MBUF_PKTHDR;
        node->pstCtlInfo = &node->stCtlInfo.stBlk;
        gen.TagMessage(node->stCtlInfo.aucRaw, MBUF_CTLINFO_INLINE_LEN);
        const Bytes before = outside(*node);
        MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
        ASSERT_TRUE(SameBytes(before, outside(*node))) << "round " << round;

        // The same as a separately received pipe buffer of a random length.
        MBUF_IOVEC_S piece{nullptr, gen.U(60, 1400), 0};
        ASSERT_EQ(KRM_DbufIovecAlloc_F(0, 1, &piece, "fuzz", 1), 0u);
        gen.TagMessage(static_cast<std::uint8_t *>(piece.pBuf), piece.ulLen);
        node->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(piece.pBuf);
        MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
        ASSERT_EQ(KRM_DbufIovecFree_F(1, &piece, "fuzz", 2), 0u);
        KRM_HOST_ReportClear();
    }
}

}  // namespace
}  // namespace krm::test::bo
