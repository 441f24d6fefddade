// Seeded corruption: every golden file, of both byte orders, cut at every
// length and with random bytes flipped, is handed to its reader in a buffer
// of exactly that length. Whatever the reader makes of it, it must not read
// past the buffer (AddressSanitizer watches), must leave nothing behind, and
// a packet it returns must be usable: its data readable to the end and every
// record inside the block's used bytes.
#include <algorithm>
#include <random>

#include "golden_support.h"

namespace krm::serialtest {
namespace {

enum class Kind { Tlv, Image };

struct CorruptRow {
    std::string file;
    Kind kind;
};

std::vector<CorruptRow> Rows() {
    std::vector<CorruptRow> rows;
    for (const PacketPlan &plan : krm::golden::Packets()) {
        for (const char *order : {"le", "be"}) {
            rows.push_back({krm::golden::FileName(plan, order, "tlv"), Kind::Tlv});
            rows.push_back({krm::golden::FileName(plan, order, "img"), Kind::Image});
        }
    }
    return rows;
}

// Reads the packet a reader returned as a user would, then releases it.
void UseAndDestroy(MBUF_S *pkt) {
    if (pkt == nullptr) {
        return;
    }
    const Bytes data = krm::test::PacketBytes(pkt);
    EXPECT_EQ(data.size(), pkt->ulTotalDataLen);
    MBUF_CONTROL_BLK_S *blk = pkt->pstCtlInfo;
    if (blk != nullptr) {
        const uint32_t ulUsedEnd = MBUF_CTL_FIXED_LEN + blk->usUsedLen;
        uint32_t ulSum = 0;
        for (uint32_t t = 1; t < MBUF_CTL_TYPE_NUM; ++t) {
            const MBUF_CTL_SLOT_S &slot = blk->astSlot[t];
            if (slot.usOffset != 0 && slot.usOffset + slot.usLen <= ulUsedEnd) {
                const auto *p = static_cast<const volatile uint8_t *>(MBUF_GetControlInfo(pkt, t));
                for (uint32_t i = 0; i < slot.usLen; ++i) {
                    ulSum += p[i];
                }
            }
        }
        (void)ulSum;
    }
    MBUF_Destroy(pkt);
}

MBUF_S *ReadAs(Kind kind, const Bytes &b) {
    // An exactly sized heap copy: a read one byte past it is caught.
    auto *copy = new uint8_t[b.empty() ? 1 : b.size()];
    std::copy(b.begin(), b.end(), copy);
    const auto len = static_cast<uint32_t>(b.size());
    MBUF_S *pkt = kind == Kind::Tlv ? MBUF_TransTlv2Mbuf(copy, len, kModule)
                                    : MBUF_Deserialize(copy, len, kModule);
    delete[] copy;
    return pkt;
}

class CorruptionTest : public SerialTest, public ::testing::WithParamInterface<CorruptRow> {};

TEST_P(CorruptionTest, TruncatedAndFlippedFilesAreReadSafely) {
    const CorruptRow &row = GetParam();
    const Bytes file = ReadFile(GoldenDir() + row.file);
    ASSERT_FALSE(file.empty());
    std::vector<std::size_t> built;
    for (std::size_t len = 0; len <= file.size(); ++len) {
        MBUF_S *pkt =
            ReadAs(row.kind, Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(len)));
        if (pkt != nullptr) {
            built.push_back(len);
        }
        UseAndDestroy(pkt);
        ASSERT_EQ(KRM_HOST_LiveBufferCount(), 0u) << "cut at " << len;
    }
    // Once the data is inside the buffer, every longer cut gives a packet.
    ASSERT_FALSE(built.empty());
    EXPECT_EQ(built.back(), file.size());
    EXPECT_EQ(built.size(), file.size() - built.front() + 1);
    std::mt19937 rng(0x5EED + static_cast<uint32_t>(file.size()));
    for (int round = 0; round < 400; ++round) {
        Bytes bad = file;
        const int flips = 1 + static_cast<int>(rng() % 8);
        for (int f = 0; f < flips; ++f) {
            bad[rng() % bad.size()] ^= static_cast<uint8_t>(1u + rng() % 255u);
        }
        if (rng() % 4 == 0) {
            bad.resize(rng() % bad.size());
        }
        UseAndDestroy(ReadAs(row.kind, bad));
        ASSERT_EQ(KRM_HOST_LiveBufferCount(), 0u) << "round " << round;
    }
    KRM_HOST_ReportClear();
}

INSTANTIATE_TEST_SUITE_P(Files, CorruptionTest, ::testing::ValuesIn(Rows()), [](const auto &row) {
    std::string name = row.param.file;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
});

}  // namespace
}  // namespace krm::serialtest
