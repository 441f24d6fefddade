// The wire-form decoder against forms built here from their published
// layouts, in both byte orders: what it reads must be what was written, and
// no cut or corrupted form may make it read outside the bytes it was given.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>

#include "host_test.h"
#include "internal/bytes.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/mbuf.h"
#include "recorder.h"
#include "sample.h"
#include "wire.h"

namespace krm::tool {
namespace {

// What a form carries, in this host's order.
struct Model {
    std::vector<std::uint8_t> vData;
    std::uint32_t ulFlag2 = 0;
    std::uint32_t ulFlag3 = 0;
    std::uint32_t ulRcvIf = 0;
    std::map<std::uint32_t, std::vector<std::uint8_t>> mRecords;  // types 1..22, opaque bytes
};

Model MakeModel(std::uint32_t ulDataLen) {
    Model m;
    for (std::uint32_t i = 0; i < ulDataLen; ++i) {
        m.vData.push_back(static_cast<std::uint8_t>(i * 13 + 1));
    }
    m.ulFlag2 = 0x80000021;
    m.ulFlag3 = 0x00000104;
    m.ulRcvIf = 0x01020304;
    // Record 9 (previous hop) is one 32-bit word.
    m.mRecords[MBUF_CTL_PREVHOP] = {1, 2, 3, 4};
    return m;
}

// Appends fields in the writer's order.
struct Writer {
    bool bSwap;
    std::vector<std::uint8_t> v;
    void U16(std::uint16_t x) {
        x = bSwap ? Swap16(x) : x;
        Raw(&x, 2);
    }
    void U32(std::uint32_t x) {
        x = bSwap ? Swap32(x) : x;
        Raw(&x, 4);
    }
    void Raw(const void *p, std::size_t n) {
        const auto *q = static_cast<const std::uint8_t *>(p);
        v.insert(v.end(), q, q + n);
    }
};

// A record's bytes in the writer's order: the previous-hop record is one
// 32-bit word; the model holds no other.
std::vector<std::uint8_t> InOrder(std::vector<std::uint8_t> r, bool bSwap) {
    if (bSwap) {
        std::reverse(r.begin(), r.end());
    }
    return r;
}

std::vector<std::uint8_t> Comm(const Model &m, bool bSwap) {
    Writer w{bSwap, {}};
    w.U32(0);  // packet flags
    w.U32(0);
    w.U32(0);
    w.U32(m.ulRcvIf);
    w.v.resize(MBUF_CTL_COMM_LEN, 0);
    return w.v;
}

std::vector<std::uint8_t> Tlv(const Model &m, bool bSwap) {
    Writer w{bSwap, {}};
    std::size_t ulBody = 4 + MBUF_CTL_COMM_LEN + m.vData.size();
    for (const auto &[t, r] : m.mRecords) {
        ulBody += 4 + r.size();
    }
    w.U16(static_cast<std::uint16_t>(2 + m.mRecords.size()));
    w.U16(static_cast<std::uint16_t>(ulBody));
    w.U32(0x12345678);
    w.U32(m.ulFlag2);
    w.U32(0xDEADBEEF);  // reserved: whatever the buffer held
    w.U16(0xFFFF);
    w.U16(static_cast<std::uint16_t>(m.vData.size()));
    w.Raw(m.vData.data(), m.vData.size());
    w.U16(0);
    w.U16(MBUF_CTL_COMM_LEN);
    const auto vComm = Comm(m, bSwap);
    w.Raw(vComm.data(), vComm.size());
    for (const auto &[t, r] : m.mRecords) {
        w.U16(static_cast<std::uint16_t>(t));
        w.U16(static_cast<std::uint16_t>(r.size()));
        const auto vRec = InOrder(r, bSwap);
        w.Raw(vRec.data(), vRec.size());
    }
    return w.v;
}

std::vector<std::uint8_t> Image(const Model &m, bool bSwap) {
    Writer w{bSwap, {}};
    w.U32(static_cast<std::uint32_t>(m.vData.size()));
    w.Raw(m.vData.data(), m.vData.size());
    const auto vComm = Comm(m, bSwap);
    w.Raw(vComm.data(), vComm.size());
    std::uint32_t ulUsed = 0;
    for (const auto &[t, r] : m.mRecords) {
        ulUsed += static_cast<std::uint32_t>(r.size());
    }
    const std::uint32_t ulOrder = (MBUF_BYTEORDER_HOST == MBUF_BYTEORDER_BIG) != bSwap
                                      ? MBUF_BYTEORDER_BIG
                                      : MBUF_BYTEORDER_LITTLE;
    w.U32(0x40u << 24 | ulOrder << 16 | MBUF_CTL_TYPE_NUM << 8 |
          static_cast<std::uint32_t>(m.mRecords.size()));
    w.U16(static_cast<std::uint16_t>(ulUsed));
    w.U16(static_cast<std::uint16_t>(ulUsed));
    std::uint32_t ulAt = MBUF_CTL_FIXED_LEN;
    for (std::uint32_t t = 0; t < MBUF_CTL_TYPE_NUM; ++t) {
        const auto it = m.mRecords.find(t);
        w.U16(static_cast<std::uint16_t>(it == m.mRecords.end() ? 0 : ulAt));
        w.U16(static_cast<std::uint16_t>(it == m.mRecords.end() ? 0 : it->second.size()));
        ulAt += it == m.mRecords.end() ? 0 : static_cast<std::uint32_t>(it->second.size());
    }
    for (const auto &[t, r] : m.mRecords) {
        const auto vRec = InOrder(r, bSwap);
        w.Raw(vRec.data(), vRec.size());
    }
    for (const std::uint32_t x :
         {0u, static_cast<std::uint32_t>(m.vData.size()), m.ulFlag3, 0u, 0u, m.ulFlag2, 0u}) {
        w.U32(x);
    }
    return w.v;
}

std::vector<std::uint8_t> Message(const Model &m, bool bSwap) {
    std::vector<std::uint8_t> v(8, 0);
    const auto vImg = Image(m, bSwap);
    v.insert(v.end(), vImg.begin(), vImg.end());
    StoreBe16(v.data(), static_cast<std::uint16_t>(v.size()));
    v[2] = 0x5A;  // left as allocated
    return v;
}

using Builder = std::vector<std::uint8_t> (*)(const Model &, bool);
struct FormRow {
    const char *pcName;
    Builder pfBuild;
    WireKind eKind;
    bool bHasFlag3;
};
constexpr FormRow kForms[] = {
    {"tlv", Tlv, WireKind::kTlvStream, false},
    {"image", Image, WireKind::kSerialImage, true},
    {"message", Message, WireKind::kMessage, true},
};

std::uint32_t RecordsIn(const std::vector<std::uint8_t> &vBlock,
                        std::map<std::uint32_t, std::vector<std::uint8_t>> &mOut) {
    const std::uint32_t ulSlots = Load32At(vBlock.data(), 84) >> 8 & 0xFF;
    for (std::uint32_t t = 1; t < MBUF_CTL_TYPE_NUM; ++t) {
        const std::uint32_t ulOff = Load16At(vBlock.data(), 92 + 4 * t);
        const std::uint32_t ulLen = Load16At(vBlock.data(), 94 + 4 * t);
        if (ulOff != 0 && ulOff + ulLen <= vBlock.size()) {
            mOut[t].assign(vBlock.begin() + ulOff, vBlock.begin() + ulOff + ulLen);
        }
    }
    return ulSlots;
}

class WireTest : public test::HostTest {};

TEST_F(WireTest, EachFormDecodesToWhatWasWrittenInEitherOrder) {
    for (const FormRow &f : kForms) {
        for (const bool bSwap : {false, true}) {
            for (const std::uint32_t ulLen : {1u, 100u, 1500u}) {
                SCOPED_TRACE(std::string(f.pcName) + (bSwap ? " foreign " : " local ") +
                             std::to_string(ulLen));
                const Model m = MakeModel(ulLen);
                const auto v = f.pfBuild(m, bSwap);
                Decoded d;
                const auto oErr = Decode(v.data(), v.size(), &d);
                ASSERT_FALSE(oErr) << *oErr;
                EXPECT_EQ(d.eKind, f.eKind);
                const bool bBig = (MBUF_BYTEORDER_HOST == MBUF_BYTEORDER_BIG) != bSwap;
                EXPECT_EQ(d.ucOrder, bBig ? MBUF_BYTEORDER_BIG : MBUF_BYTEORDER_LITTLE);
                ASSERT_EQ(d.vPackets.size(), 1u);
                const DecodedPacket &p = d.vPackets[0];
                EXPECT_EQ(p.vData, m.vData);
                EXPECT_EQ(p.stWords.ulFlag2, m.ulFlag2);
                EXPECT_EQ(p.stWords.oFlag3.has_value(), f.bHasFlag3);
                if (f.bHasFlag3) {
                    EXPECT_EQ(*p.stWords.oFlag3, m.ulFlag3);
                }
                ASSERT_GE(p.vBlock.size(), MBUF_CTL_FIXED_LEN);
                EXPECT_EQ(Load32At(p.vBlock.data(), offsetof(MBUF_CTL_COMM_S, ulRcvIfIndex)),
                          m.ulRcvIf);
                std::map<std::uint32_t, std::vector<std::uint8_t>> mGot;
                EXPECT_EQ(RecordsIn(p.vBlock, mGot), MBUF_CTL_TYPE_NUM);
                EXPECT_EQ(mGot, m.mRecords);
            }
        }
    }
}

// Every strict prefix of a form is refused with a reason, except an image cut
// right after its data (a valid image without block); flipping any byte
// never makes the decoder read outside the buffer (the sanitizer build
// watches that).
TEST_F(WireTest, CutAndCorruptFormsAreRefusedOrBounded) {
    const Model m = MakeModel(40);
    for (const FormRow &f : kForms) {
        for (const bool bSwap : {false, true}) {
            SCOPED_TRACE(std::string(f.pcName) + (bSwap ? " foreign" : " local"));
            const auto v = f.pfBuild(m, bSwap);
            const std::size_t ulBare =
                (f.eKind == WireKind::kSerialImage) ? 4 + m.vData.size() : SIZE_MAX;
            for (std::size_t n = 0; n < v.size(); ++n) {
                std::vector<std::uint8_t> vCut(v.begin(), v.begin() + static_cast<long>(n));
                Decoded d;
                const auto oErr = Decode(vCut.data(), vCut.size(), &d);
                if (n == ulBare) {
                    EXPECT_FALSE(oErr) << n;
                } else {
                    EXPECT_TRUE(oErr) << "prefix of " << n << " bytes accepted";
                    EXPECT_EQ(oErr ? oErr->find('\n') : 0, std::string::npos);
                }
            }
            for (std::size_t i = 0; i < v.size(); ++i) {
                for (const std::uint8_t ucFlip : {0x01, 0x80, 0xFF}) {
                    auto vBad = v;
                    vBad[i] ^= ucFlip;
                    Decoded d;
                    (void)Decode(vBad.data(), vBad.size(), &d);
                }
            }
        }
    }
}

TEST_F(WireTest, JunkIsNoPacketForm) {
    const std::vector<std::vector<std::uint8_t>> vJunk = {
        {},
        {0x00},
        std::vector<std::uint8_t>(19, 0xEE),
        std::vector<std::uint8_t>(400, 0x00),
        std::vector<std::uint8_t>(400, 0xFF),
        {'K', 'R', 'M', 'P', 'I', 'P', 'E', '1', 0, 0, 0, 0}};
    for (const auto &v : vJunk) {
        Decoded d;
        EXPECT_TRUE(Decode(v.data(), v.size(), &d)) << v.size() << " bytes accepted";
    }
}

// Packages as the pipe carries them: the sample packets written to an
// in-process pipe, seen by its tap, decode to the packet that was sent.
struct Tapped {
    std::vector<std::vector<std::uint8_t>> vFiles;
};

void TapInto(std::uint32_t, std::uint32_t ulCount, const MBUF_TRANS_DESC_S *pstPkts, void *pArg) {
    static_cast<Tapped *>(pArg)->vFiles.push_back(EncodePackage(WriterPieces(ulCount, pstPkts)));
}

TEST_F(WireTest, PipePackagesDecodeToTheSentPacket) {
    constexpr std::uint32_t kPipe = 3;
    ASSERT_EQ(KRM_HOST_PipeOpen(kPipe, 0), 0u);
    Tapped stTapped;
    KRM_HOST_PipeSetTap(kPipe, TapInto, &stTapped);
    for (std::uint32_t i = 0; i < 8; ++i) {
        SCOPED_TRACE(i);
        MBUF_S *pstPkt = MakeSample(i);
        ASSERT_NE(pstPkt, nullptr);
        const Snapshot stWant = Snap(pstPkt);
        MBUF_IOVEC_S astIov[MBUF_PIPE_MAX_IOVEC];
        ASSERT_EQ(MBUF_Send(kPipe, pstPkt, astIov), 0u);
        ASSERT_EQ(stTapped.vFiles.size(), i + 1);
        const auto &v = stTapped.vFiles.back();
        Decoded d;
        const auto oErr = Decode(v.data(), v.size(), &d);
        ASSERT_FALSE(oErr) << *oErr;
        EXPECT_EQ(d.eKind, WireKind::kPipePackage);
        EXPECT_EQ(d.ucOrder, MBUF_BYTEORDER_HOST);
        ASSERT_EQ(d.vPackets.size(), 1u);
        EXPECT_EQ(d.vPackets[0].vData, stWant.vData);
        EXPECT_EQ(d.vPackets[0].stWords.ulFlag2, stWant.ulFlag2);
        EXPECT_EQ(*d.vPackets[0].stWords.oFlag3, stWant.ulFlag3);
        std::map<std::uint32_t, std::vector<std::uint8_t>> mGot;
        RecordsIn(d.vPackets[0].vBlock, mGot);
        for (const std::uint32_t t : {MBUF_CTL_IP, MBUF_CTL_PREVHOP}) {
            EXPECT_EQ(mGot[t], stWant.mRecords.at(t)) << "record " << t;
        }
        // Cut packages are refused, never read past.
        for (std::size_t n = 0; n < v.size(); n += 7) {
            Decoded dCut;
            EXPECT_TRUE(Decode(v.data(), n, &dCut)) << n;
        }
    }
    KRM_HOST_PipeSetTap(kPipe, nullptr, nullptr);
    ASSERT_EQ(KRM_HOST_PipeClose(kPipe), 0u);
}

}  // namespace
}  // namespace krm::tool
