// Shared ground of the metadata tests: packets the fixture destroys, the two
// kinds of node a getter must survive besides NULL (no MBUF_PKTHDR, a header
// without block), and records and sub-TLVs written byte by byte at their wire
// offsets, independently of the structures the library uses.
#pragma once

#include <cstdint>
#include <vector>

#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"

namespace krm::metatest {

using krm::test::AssertReport;
using krm::test::AssertReportNoText;
using krm::test::ExpectValid;
using krm::test::Report;
using krm::test::Reports;
using Bytes = std::vector<std::uint8_t>;
// The results of a sequence of calls, in the order made (a braced list
// evaluates left to right), compared with the expected sequence at once.
using Seq = std::vector<std::int64_t>;

inline constexpr std::uint32_t kModule = 0x00650000;  // a SOCK module

// ulLen zero bytes with the given bytes patched in at offsets.
struct Patch {
    std::uint32_t ulOffset;
    Bytes bytes;
};
Bytes Zeros(std::uint32_t ulLen, const std::vector<Patch> &patches = {});
// Host-order encodings.
Bytes U16(std::uint16_t v);
Bytes U32(std::uint32_t v);
Bytes Cat(const std::vector<Bytes> &parts);

// A sub-TLV: type and value length in host order, then the value.
Bytes SubTlv(std::uint16_t usType, const Bytes &value);
// A TLV record: a head holding the list length, then the list.
Bytes TlvRecord(const Bytes &list);
inline const MBUF_CTL_TLV_S *AsTlv(const Bytes &tlv) {
    return reinterpret_cast<const MBUF_CTL_TLV_S *>(tlv.data());
}

// A universal time as the platform's record (week byte 0).
inline KRM_SYSTIME_S Time(std::uint16_t year, std::uint8_t month, std::uint8_t day,
                          std::uint8_t hour, std::uint8_t minute, std::uint8_t second,
                          std::uint32_t millis) {
    return {year, month, day, hour, minute, second, 0, millis};
}
Bytes TimeBytes(const KRM_SYSTIME_S &t);
// 2024-03-05 10:20:30 universal, in seconds since 1970, for the wall clock.
inline constexpr std::uint32_t kMarch5 = 1709634030;

// The allocation record of a live buffer.
KRM_HOST_BUF_INFO_S BufInfo(const void *pBuf);

std::uint8_t *Rec(MBUF_S *pstMbuf, std::uint32_t ulType);
// The block's fixed part and used area, or nothing without a block.
Bytes BlockBytes(const MBUF_S *pstMbuf);

class MetaTest : public krm::test::HostTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A fresh packet with an inline control block; destroyed after the test.
    MBUF_S *NewPacket();
    // Creates a record of ulLen bytes (asserting success) and returns it.
    std::uint8_t *AddRecord(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulLen);
    std::uint8_t *AddRecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType, const Bytes &bytes);

    MBUF_S m_stPlain{};    // an initialised node without MBUF_PKTHDR
    MBUF_S m_stNoBlock{};  // a packet-header node whose block is gone
    // Everything a getter must answer without a block.
    MBUF_S *const m_apstMissing[3] = {nullptr, &m_stPlain, &m_stNoBlock};

  private:
    std::vector<MBUF_S *> m_packets;
};

}  // namespace krm::metatest
