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
#include "krm_mbuf/mbuf.h"
#include "sample.h"
#include "wire.h"

namespace krm::tool {
namespace {

using Buf = std::vector<std::uint8_t>;
using Records = std::map<std::uint32_t, Buf>;

// The forms of a packet as the library writes them: its TLV stream (cut to
// the length its head gives), its serial image, and a message around the
// image (a big-endian size, a byte left as allocated, a zero word).
Buf Tlv(MBUF_S *pkt) {
    Buf v(MBUF_CalcMbuf2TlvLen(pkt));
    EXPECT_EQ(MBUF_TransMbuf2Tlv(pkt, v.data(), static_cast<std::uint32_t>(v.size()), kToolModule),
              0u);
    v.resize(Load16At(v.data(), 2) + 16u);
    return v;
}

Buf Image(MBUF_S *pkt) {
    Buf v(MBUF_GetAllBlockSize(pkt));
    EXPECT_EQ(MBUF_Serialize(pkt, v.data()), 0u);
    return v;
}

Buf Message(MBUF_S *pkt) {
    Buf v(8, 0);
    const Buf img = Image(pkt);
    v.insert(v.end(), img.begin(), img.end());
    StoreBe16(v.data(), static_cast<std::uint16_t>(v.size()));
    v[2] = 0x5A;
    return v;
}

struct FormRow {
    const char *pcName;
    Buf (*pfBuild)(MBUF_S *);
    WireKind eKind;
    bool bHasFlag3;
};
constexpr FormRow kForms[] = {
    {"tlv", Tlv, WireKind::kTlvStream, false},
    {"image", Image, WireKind::kSerialImage, true},
    {"message", Message, WireKind::kMessage, true},
};

// The records of a decoded block, by type (the common one leads the fixed
// part); the block's slot count.
std::uint32_t RecordsIn(const Buf &vBlock, Records &mOut) {
    mOut[0].assign(vBlock.begin(), vBlock.begin() + MBUF_CTL_COMM_LEN);
    for (std::uint32_t t = 1; t < MBUF_CTL_TYPE_NUM; ++t) {
        const std::uint32_t ulOff = Load16At(vBlock.data(), 92 + 4 * t);
        const std::uint32_t ulLen = Load16At(vBlock.data(), 94 + 4 * t);
        if (ulOff != 0 && ulOff + ulLen <= vBlock.size()) {
            mOut[t].assign(vBlock.begin() + ulOff, vBlock.begin() + ulOff + ulLen);
        }
    }
    return Load32At(vBlock.data(), 84) >> 8 & 0xFF;
}

// One decoded packet against the snapshot of the packet that was written:
// data, flag words and every record the snapshot keeps.
void ExpectPacket(const Decoded &d, const Snapshot &want, bool bHasFlag3) {
    ASSERT_EQ(d.vPackets.size(), 1u);
    const DecodedPacket &p = d.vPackets[0];
    EXPECT_EQ(p.vData, want.vData);
    EXPECT_EQ(p.stWords.ulFlag2, want.ulFlag2);
    EXPECT_EQ(p.stWords.oFlag3.value_or(~want.ulFlag3), bHasFlag3 ? want.ulFlag3 : ~want.ulFlag3);
    ASSERT_GE(p.vBlock.size(), MBUF_CTL_FIXED_LEN);
    Records mGot;
    EXPECT_EQ(RecordsIn(p.vBlock, mGot), MBUF_CTL_TYPE_NUM);
    // A stream carries each record at its type's fixed length, the other
    // forms at the length the packet holds.
    for (const auto &[t, r] : want.mRecords) {
        const Buf &got = mGot[t];
        const std::size_t n = std::min(got.size(), r.size());
        if (bHasFlag3) {
            EXPECT_EQ(got.size(), r.size()) << "record " << t;
        }
        EXPECT_GT(n, 0u) << "record " << t;
        EXPECT_EQ(Buf(got.begin(), got.begin() + n), Buf(r.begin(), r.begin() + n)) << t;
    }
}

class WireTest : public test::HostTest {};

// Each form of each sample packet decodes to what was written; every strict
// prefix of a form is refused with a one-line reason, except an image cut
// right after its data (a valid image without block). The other byte order
// is read in the golden files; corrupted forms are the inspect fuzz
// harness's, which decodes any bytes as every form.
TEST_F(WireTest, EachFormDecodesToWhatWasWrittenAndCutsAreRefused) {
    for (std::uint32_t i = 0; i < 8; ++i) {
        MBUF_S *pkt = MakeSample(i);
        ASSERT_NE(pkt, nullptr);
        const Snapshot want = Snap(pkt);
        for (const FormRow &f : kForms) {
            SCOPED_TRACE(std::string(f.pcName) + " of sample " + std::to_string(i));
            const Buf v = f.pfBuild(pkt);
            Decoded d;
            const auto oErr = Decode(v.data(), v.size(), &d);
            ASSERT_FALSE(oErr) << *oErr;
            EXPECT_EQ(d.eKind, f.eKind);
            EXPECT_EQ(d.ucOrder, MBUF_BYTEORDER_HOST);
            ExpectPacket(d, want, f.bHasFlag3);
            const std::size_t ulBare =
                f.eKind == WireKind::kSerialImage ? 4 + want.vData.size() : SIZE_MAX;
            for (std::size_t n = 0; n < v.size(); ++n) {
                const auto oCut = Decode(v.data(), n, &d);
                EXPECT_EQ(!oCut, n == ulBare) << "prefix of " << n << " bytes";
                EXPECT_EQ(oCut ? oCut->find('\n') : std::string::npos, std::string::npos);
            }
        }
        MBUF_Destroy(pkt);
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

}  // namespace
}  // namespace krm::tool
