// Shared ground for the accessor and stack-debug tests: packets that the
// fixture destroys, the three kinds of node a getter must survive (no
// MBUF_PKTHDR, a header without block, NULL), and builders for records and
// link-stack sub-TLVs written byte by byte at their documented offsets.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host_test.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::metatest {

inline constexpr std::uint32_t kModule = 0x00650000;  // a SOCK module

// One link-stack sub-TLV: its type and value bytes.
struct LinkTlv {
    std::uint16_t usType;
    std::vector<std::uint8_t> value;
};

// A value of ulLen zero bytes with the given bytes patched in at offsets.
struct Patch {
    std::uint32_t ulOffset;
    std::vector<std::uint8_t> bytes;
};
std::vector<std::uint8_t> Bytes(std::uint32_t ulLen, const std::vector<Patch> &patches);
// Host-order encodings for patches.
std::vector<std::uint8_t> U16(std::uint16_t v);
std::vector<std::uint8_t> U32(std::uint32_t v);

// A universal time as the platform's record (week byte 0, as a stamp reads
// back only what the clock gave).
KRM_SYSTIME_S Time(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                   unsigned second, unsigned millis);
// Seconds since 1970 of a universal time, for the host's wall clock.
std::uint32_t Epoch(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                    unsigned second);

class MetaTest : public krm::test::HostTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A fresh packet with an inline control block; destroyed after the test.
    MBUF_S *NewPacket();
    // Creates a record (asserting success) and returns it.
    std::uint8_t *AddRecord(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulLen);
    // Creates the record and fills it with the given bytes.
    std::uint8_t *AddRecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType,
                                 const std::vector<std::uint8_t> &bytes);
    // Creates the link-stack record holding these sub-TLVs in order.
    void AddLinkTlvs(MBUF_S *pstMbuf, const std::vector<LinkTlv> &tlvs);

    // The 84-byte common record as bytes.
    static std::vector<std::uint8_t> CommBytes(MBUF_S *pstMbuf);

    MBUF_S m_stPlain{};    // an initialised node without MBUF_PKTHDR
    MBUF_S m_stNoBlock{};  // a packet-header node whose block is gone

  private:
    std::vector<MBUF_S *> m_packets;
};

}  // namespace krm::metatest
