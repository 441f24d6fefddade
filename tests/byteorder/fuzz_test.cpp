// Seeded random inputs for the framework: tag messages and control blocks
// whose head, slots, records and sub-TLV lists are random but shaped enough
// to reach every walk. Each message lives in an allocation of exactly its
// received length, so that the address sanitizer sees any access past it;
// an inline block is checked for writes outside it. Fixed-layout
// translators are checked to be their own inverse.
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

    // Fills [p, p + n) with random bytes.
    void Fill(std::uint8_t *p, std::uint32_t n) {
        for (std::uint32_t i = 0; i < n; ++i) {
            p[i] = static_cast<std::uint8_t>(U(0, 255));
        }
    }

    // Stores a value as a sender of the other order would (so that it reads
    // as v once converted), if it fits below end.
    static void Put16F(std::uint8_t *p, std::uint32_t off, std::uint32_t end, std::uint32_t v) {
        if (off + 2 <= end) {
            const std::uint16_t s = __builtin_bswap16(static_cast<std::uint16_t>(v));
            std::memcpy(p + off, &s, 2);
        }
    }
    static void Put32F(std::uint8_t *p, std::uint32_t off, std::uint32_t end, std::uint32_t v) {
        if (off + 4 <= end) {
            const std::uint32_t s = __builtin_bswap32(v);
            std::memcpy(p + off, &s, 4);
        }
    }

    // A sub-TLV list in [p + off, p + end): types from a set that reaches
    // every translator, lengths that mostly fit; nested lists for the
    // tunnel and no-path types.
    void TlvList(std::uint8_t *p, std::uint32_t off, std::uint32_t end, bool link, int depth) {
        static const std::uint16_t kPktSnd[] = {0,  1,  2,  3,  4,  5,  7,  8,      9,      10,
                                                11, 12, 13, 14, 15, 18, 19, 20,     21,     22,
                                                27, 28, 29, 30, 31, 32, 6,  0x1000, 0x2000, 0x8000};
        while (off + 4 <= end && Chance(90)) {
            const std::uint32_t room = end - off - 4;
            std::uint32_t len = U(0, 80);
            if (Chance(80)) {
                len = std::min(len, room);
            }
            const std::uint16_t type =
                link ? static_cast<std::uint16_t>(Chance(90) ? U(0, 26) : U(0, 0xFFFF))
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
        if (off >= end) {
            return;
        }
        Fill(p + off, end - off);
        const std::uint32_t listLen = Chance(80) ? (end - off >= 4 ? end - off - 4 : 0) : U(0, 400);
        switch (type) {
            case MBUF_CTL_LINK:
            case MBUF_CTL_PACKET:
            case MBUF_CTL_PKTSEND:
                Put16F(p, off + 2, end, listLen);
                TlvList(p, off + 4, end, type == MBUF_CTL_LINK, 0);
                break;
            case MBUF_CTL_INTERFACE:
                Put32F(p, off + 4, end, U(0, 40));
                break;
            case MBUF_CTL_STACKDEBUG:
                if (off + 4 < end) {
                    p[off + 4] = static_cast<std::uint8_t>(U(0, 6));
                }
                Put16F(p, off + 6, end, Chance(70) ? 48 : U(0, 100));
                break;
            default:
                break;
        }
    }

    // A tag message of n bytes: a head, slots and records.
    void TagMessage(std::uint8_t *p, std::uint32_t n) {
        Fill(p, n);
        if (n < 92) {
            return;
        }
        const std::uint32_t slots = Chance(75) ? 23 : U(0, 60);
        const std::uint32_t recNum = U(0, 23);
        Put32F(p, 84, n, (0x40u << 24) | (1u << 16) | (slots << 8) | recNum);
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
        // A received length below the allocation: the byte behind it is a
        // canary the walk must not touch.
        const std::uint8_t canary = msg[n] = 0xC5;
        MBUF_TagByteOrderTrans(msg.get(), n);
        ASSERT_EQ(msg[n], canary) << "round " << round;
        reported += KRM_HOST_ReportCount();
        KRM_HOST_ReportClear();
    }
    EXPECT_GT(reported, 0u) << "the inputs should hit the reported paths";
}

TEST_F(FuzzTest, InlineAndSeparateBlocksStayWithinTheirSize) {
    Gen gen(0x5EED0002u);
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        auto node = NewNode();
        gen.Fill(reinterpret_cast<std::uint8_t *>(node.get()), sizeof(MBUF_S));
        node->ulFlag = MBUF_PKTHDR;
        node->pstCtlInfo = &node->stCtlInfo.stBlk;
        gen.TagMessage(node->stCtlInfo.aucRaw, MBUF_CTLINFO_INLINE_LEN);
        Bytes before(sizeof(MBUF_S));
        std::memcpy(before.data(), node.get(), sizeof(MBUF_S));
        MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
        Bytes after(sizeof(MBUF_S));
        std::memcpy(after.data(), node.get(), sizeof(MBUF_S));
        const std::uint32_t from = offsetof(MBUF_S, stCtlInfo);
        std::fill(before.begin() + from, before.begin() + from + MBUF_CTLINFO_INLINE_LEN, 0);
        std::fill(after.begin() + from, after.begin() + from + MBUF_CTLINFO_INLINE_LEN, 0);
        ASSERT_TRUE(SameBytes(before, after)) << "round " << round;

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

// Translators of fixed fields, counts and one-byte selectors reverse the
// same fields whichever order they start from: twice is the identity.
TEST_F(FuzzTest, FixedLayoutTranslatorsAreTheirOwnInverse) {
    using Fn = std::int32_t (*)(void *);
    using VoidFn = void (*)(void *);
    const Fn records[] = {MBUF_MbufIpInfoByteOrderTrans,
                          MBUF_MbufMplsInfoByteOrderTrans,
                          MBUF_MbufAppInfoByteOrderTrans,
                          MBUF_MbufIP6InfoByteOrderTrans,
                          MBUF_MbufPrevHopInfoByteOrderTrans,
                          MBUF_MbufIpSecInfoByteOrderTrans,
                          MBUF_MbufTimeStampInfoByteOrderTrans,
                          MBUF_MbufVlanIdMacInfoByteOrderTrans,
                          MBUF_MbufTrillOamInfoByteOrderTrans,
                          MBUF_MbufVsiMacInfoByteOrderTrans,
                          MBUF_MbufL2VsiPortListInfoByteOrderTrans,
                          MBUF_MbufL2VpnInfoByteOrderTrans,
                          MBUF_MbufPolicyIfInfoByteOrderTrans,
                          MBUF_MbufPktSendInfoBdBcastTrans,
                          MBUF_MbufPktSendInfoBdPortListTrans,
                          MBUF_MbufPktSendInfoIfNextHopTrans,
                          MBUF_MbufPktSendInfoNewBKTransNoTrans,
                          MBUF_MbufPktSendInfoBdcastPortGrpTrans,
                          MBUF_MbufPktSendInfoVlanBcastPortGrpTrans,
                          MBUF_MbufPktSendInfoCtrlRouteTrans,
                          MBUF_MbufPktSendInfoSessKeyTrans,
                          MBUF_MbufPktSendInfoFlowLabelTrans,
                          MBUF_MbufPktSendInfoSockKeyTrans,
                          MBUF_MbufPktSendInfoSockForwardTrans,
                          MBUF_MbufPktSendInfoSliceTrans,
                          MBUF_MbufPktSendInfoEvpnMacTrans,
                          MBUF_MbufPktSendPathMatchPriTrans,
                          MBUF_SNDPKT_IfPPPoEByteOrderTrans};
    const VoidFn subTlvs[] = {
        MBUF_LinkEthByteOrderTrans,          MBUF_LinkAtmByteOrderTrans,
        MBUF_LinkQinQByteOrderTrans,         MBUF_LinkVlanIfByteOrderTrans,
        MBUF_LinkDot1qByteOrderTrans,        MBUF_LinkHdlcByteOrderTrans,
        MBUF_LinkTrillByteOrderTrans,        MBUF_Link8023SNAPByteOrderTrans,
        MBUF_LinkVsiByteOrderTrans,          MBUF_LinkVlanPriorityByteOrderTrans,
        MBUF_LinkBdByteOrderTrans,           MBUF_LinkCtrlByteOrderTrans,
        MBUF_LinkVlanByteOrderTrans,         MBUF_LinkTunnelByteOrderTrans,
        MBUF_LinkEvpnVlanByteOrderTrans,     MBUF_LinkTpidByteOrderTrans,
        MBUF_LinkExtVlanByteOrderTrans,      MBUF_LinkANByteOrderTrans,
        MBUF_LinkPppInfoByteOrderTrans,      MBUF_MbufPktSendInfoSpecifyTnlBase,
        MBUF_MbufPktSendInfoSpecifyTnlVxLan, MBUF_MbufPktSendInfoSpecifyTnlBd,
        MBUF_MbufPktSendInfoSpecifyTnlIp,    MBUF_SNDPKT_L2mcBCastByteOrderTrans};
    Gen gen(0x5EED0003u);
    for (std::uint32_t round = 0; round < kRounds / 10; ++round) {
        Bytes original(1100);
        gen.Fill(original.data(), static_cast<std::uint32_t>(original.size()));
        for (Fn fn : records) {
            Bytes b = original;
            ASSERT_EQ(fn(b.data()), 0);
            ASSERT_EQ(fn(b.data()), 0);
            ASSERT_TRUE(SameBytes(original, b)) << "round " << round;
        }
        for (VoidFn fn : subTlvs) {
            Bytes b = original;
            fn(b.data());
            fn(b.data());
            ASSERT_TRUE(SameBytes(original, b)) << "round " << round;
        }
    }
    EXPECT_EQ(Reports().size(), 0u);
}

}  // namespace
}  // namespace krm::test::bo
