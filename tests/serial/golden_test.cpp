// The golden files: streams and images written on both byte orders read
// back on this build as the packets they describe; the files of this build's
// order are exactly what the writers produce today. Then every file, cut at
// every length, is handed to its reader in a buffer of exactly that length:
// the reader must not read past it (AddressSanitizer watches), must leave
// nothing behind, and a packet it returns must be usable to its last data
// and record byte. Random flips are the fuzz harnesses' (seeded from these
// files).
#include <algorithm>

#include "serial_support.h"

namespace krm::serialtest {
namespace {

struct GoldenRow {
    PacketPlan plan;
    const char *order;
};

std::vector<GoldenRow> GoldenRows() {
    std::vector<GoldenRow> rows;
    for (const PacketPlan &plan : krm::golden::Packets()) {
        for (const char *order : {"le", "be"}) {
            rows.push_back({plan, order});
        }
    }
    return rows;
}

class GoldenTest : public SerialTest, public ::testing::WithParamInterface<GoldenRow> {
  protected:
    Bytes File(const char *kind) {
        return ReadFile(GoldenDir() +
                        krm::golden::FileName(GetParam().plan, GetParam().order, kind));
    }
};

TEST_P(GoldenTest, BothFormsRebuildTheDescribedPacket) {
    const GoldenRow &row = GetParam();
    Bytes tlv = File("tlv");
    Bytes img = File("img");
    ASSERT_FALSE(tlv.empty());
    ASSERT_FALSE(img.empty());
    const bool bOwnOrder = std::string(row.order) == krm::golden::HostOrderName();
    MBUF_S *local = Keep(krm::golden::Build(row.plan, kModule));
    ASSERT_NE(local, nullptr);
    if (bOwnOrder) {
        EXPECT_EQ(StreamOf(local), tlv);
        EXPECT_EQ(ImageOf(local), img);
    }
    EXPECT_TRUE(MatchesPlan(ReadTlv(tlv), row.plan, false));
    // The reader converts a foreign head in place; its probe stays as written.
    EXPECT_EQ(Get<std::uint32_t>(tlv.data() + 4), bOwnOrder ? MBUF_TLV_PROBE : 0x78563412u);
    MBUF_S *fromImg = ReadImage(img);
    EXPECT_TRUE(MatchesPlan(fromImg, row.plan, true));
    // The image restores the block byte for byte: offsets as the writer had them.
    ASSERT_NE(fromImg, nullptr);
    for (uint32_t t = 1; t < MBUF_CTL_TYPE_NUM; ++t) {
        EXPECT_EQ(fromImg->pstCtlInfo->astSlot[t].usOffset, local->pstCtlInfo->astSlot[t].usOffset)
            << "type " << t;
    }
    EXPECT_TRUE(Reports().empty());
}

// Reads the packet a reader returned as a user would, then releases it.
void UseAndDestroy(MBUF_S *pkt) {
    if (pkt == nullptr) {
        return;
    }
    EXPECT_EQ(krm::test::PacketBytes(pkt).size(), pkt->ulTotalDataLen);
    const MBUF_CONTROL_BLK_S *blk = pkt->pstCtlInfo;
    for (uint32_t t = 1; blk != nullptr && t < MBUF_CTL_TYPE_NUM; ++t) {
        const MBUF_CTL_SLOT_S &slot = blk->astSlot[t];
        if (slot.usOffset != 0 &&
            slot.usOffset + slot.usLen <= MBUF_CTL_FIXED_LEN + blk->usUsedLen) {
            const auto *p = static_cast<const volatile uint8_t *>(MBUF_GetControlInfo(pkt, t));
            for (uint32_t i = 0; i < slot.usLen; ++i) {
                (void)p[i];
            }
        }
    }
    MBUF_Destroy(pkt);
}

// An exactly sized heap copy: a read one byte past it is caught.
MBUF_S *ReadCopy(bool bTlv, const Bytes &b) {
    auto *copy = new uint8_t[b.empty() ? 1 : b.size()];
    std::copy(b.begin(), b.end(), copy);
    const auto len = static_cast<uint32_t>(b.size());
    MBUF_S *pkt =
        bTlv ? MBUF_TransTlv2Mbuf(copy, len, kModule) : MBUF_Deserialize(copy, len, kModule);
    delete[] copy;
    return pkt;
}

TEST_P(GoldenTest, TruncatedFilesAreReadSafely) {
    for (const bool bTlv : {true, false}) {
        SCOPED_TRACE(bTlv ? "tlv" : "img");
        const Bytes file = File(bTlv ? "tlv" : "img");
        ASSERT_FALSE(file.empty());
        std::vector<std::size_t> built;
        for (std::size_t len = 0; len <= file.size(); ++len) {
            MBUF_S *pkt = ReadCopy(bTlv, Bytes(file.begin(), file.begin() + len));
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
    }
    KRM_HOST_ReportClear();
}

INSTANTIATE_TEST_SUITE_P(Files, GoldenTest, ::testing::ValuesIn(GoldenRows()), [](const auto &row) {
    return std::string(row.param.plan.name) + "_" + row.param.order;
});

}  // namespace
}  // namespace krm::serialtest
