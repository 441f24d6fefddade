// Shared ground of the serial-form tests: a fixture that destroys what it is
// handed, control blocks written byte by byte in any directory layout (as a
// peer with another slot count would write them), and the comparison of a
// rebuilt packet with the description it was built from.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "chain_builder.h"
#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"

namespace krm::serialtest {

using Bytes = std::vector<std::uint8_t>;
using krm::test::AssertReport;
using krm::test::ExpectValid;
using krm::test::Reports;

inline constexpr std::uint32_t kModule = 0x00650000;

// Host-order encodings at an offset of a byte vector.
inline void Put16(Bytes &b, std::uint32_t off, std::uint16_t v) {
    std::memcpy(b.data() + off, &v, 2);
}
inline void Put32(Bytes &b, std::uint32_t off, std::uint32_t v) {
    std::memcpy(b.data() + off, &v, 4);
}
inline std::uint16_t Get16(const std::uint8_t *p) {
    std::uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline std::uint32_t Get32(const std::uint8_t *p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// One record of a hand-written block: its slot and its bytes (placed in the
// record area rounded up to 8, in the order given).
struct RecordRow {
    std::uint32_t slot;
    Bytes bytes;
};

// A control block as a peer with ulSlots directory slots writes it: common
// record, the four head bytes as one host-order word, lengths, ulSlots slots,
// then the records. ulCapacity is what its usCapacity claims.
Bytes OldLayoutBlock(std::uint32_t ulSlots, std::uint16_t usCapacity,
                     const std::vector<RecordRow> &records, std::uint32_t ulCommSeed = 7);

// The 84-byte common record OldLayoutBlock writes for a seed.
Bytes CommBytes(std::uint32_t ulSeed);

// Rounded record length as the block stores it.
inline std::uint32_t Round8(std::uint32_t n) {
    return (n + 7u) & ~7u;
}

// ulLen bytes counting from ulFirst.
Bytes Counting(std::uint32_t ulLen, std::uint8_t ucFirst);

// The record of a packet's block as bytes, or empty when absent.
Bytes RecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulLen);

// The fixture: fresh platform state, and every packet handed to Keep() is
// destroyed at the end of the test.
class SerialTest : public krm::test::HostTest {
  protected:
    MBUF_S *Keep(MBUF_S *pstMbuf) {
        if (pstMbuf != nullptr) {
            kept_.push_back(pstMbuf);
        }
        return pstMbuf;
    }
    void TearDown() override {
        for (MBUF_S *pstMbuf : kept_) {
            MBUF_Destroy(pstMbuf);
        }
        kept_.clear();
        krm::test::HostTest::TearDown();
    }

  private:
    std::vector<MBUF_S *> kept_;
};

}  // namespace krm::serialtest
