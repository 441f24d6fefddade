// Shared inputs of the control-information tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "mbuf_check.h"

namespace krm::test {

inline constexpr std::uint32_t kCtlModule = 0x4354;
inline constexpr const char *kCtlFile = "ctlinfo_test";

// A fresh one-node control packet with the inline block.
inline MBUF_S *NewPacket() {
    MBUF_S *m = MBUF_CreateForControlPacket_fl(0, 16, 0, kCtlModule, kCtlFile, 1);
    EXPECT_NE(m, nullptr);
    return m;
}

// A test around one fresh control packet, destroyed afterwards.
class CtlPacketTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        m_ = NewPacket();
    }
    void TearDown() override {
        MBUF_Destroy(m_);
        HostTest::TearDown();
    }
    MBUF_S *m_ = nullptr;
};

inline bool BlockIsInline(const MBUF_S *m) {
    return m->pstCtlInfo == &m->stCtlInfo.stBlk;
}

inline const MBUF_CTL_SLOT_S &Slot(const MBUF_S *m, std::uint32_t type) {
    return m->pstCtlInfo->astSlot[type];
}

inline std::uint8_t *Rec(MBUF_S *m, std::uint32_t type) {
    return static_cast<std::uint8_t *>(MBUF_GetControlInfo(m, type));
}

inline std::uint16_t Rd16(const void *p) {
    std::uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline void Wr16(void *p, std::uint16_t v) {
    std::memcpy(p, &v, 2);
}

// A sub-TLV in host order: head then value bytes.
inline std::vector<std::uint8_t> SubTlv(std::uint16_t type, std::vector<std::uint8_t> value) {
    std::vector<std::uint8_t> tlv(4);
    Wr16(tlv.data(), type);
    Wr16(tlv.data() + 2, static_cast<std::uint16_t>(value.size()));
    tlv.insert(tlv.end(), value.begin(), value.end());
    return tlv;
}

inline const MBUF_CTL_TLV_S *AsTlv(const std::vector<std::uint8_t> &tlv) {
    return reinterpret_cast<const MBUF_CTL_TLV_S *>(tlv.data());
}

// Writes a TLV record of ulType holding the given list (list length as
// given, which may lie) into a record created large enough.
inline std::uint8_t *WriteTlvRecord(MBUF_S *m, std::uint32_t type,
                                    const std::vector<std::uint8_t> &list, std::uint16_t listLen) {
    EXPECT_EQ(
        MBUF_CreateControlInfo(m, type, static_cast<std::uint32_t>(list.size()) + 4, kCtlModule),
        0u);
    std::uint8_t *rec = Rec(m, type);
    Wr16(rec, 0);
    Wr16(rec + 2, listLen);
    std::memcpy(rec + 4, list.data(), list.size());
    return rec;
}

}  // namespace krm::test
