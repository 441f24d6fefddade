// Shared ground of the serial-form tests: a fixture that destroys what it is
// handed, control blocks written byte by byte in any directory layout (as a
// peer with another slot count would write them), the golden files and the
// comparison of a rebuilt packet with the description it was built from.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "../golden/golden_packets.h"
#include "chain_builder.h"
#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"

namespace krm::serialtest {

using Bytes = std::vector<std::uint8_t>;
using krm::golden::PacketPlan;
using krm::test::AssertReport;
using krm::test::ExpectValid;
using krm::test::Reports;

inline constexpr std::uint32_t kModule = 0x00650000;

// Host-order words at an offset, written independently of the library.
template <class T>
void Put(Bytes &b, std::uint32_t off, T v) {
    std::memcpy(b.data() + off, &v, sizeof(T));
}
template <class T>
T Get(const std::uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}
inline std::uint32_t Round8(std::uint32_t n) {
    return (n + 7u) & ~7u;
}

// One record of a hand-written block: its slot and its bytes (placed in the
// record area rounded up to 8, in the order given).
struct RecordRow {
    std::uint32_t slot;
    Bytes bytes;
};

// A control block as a peer with ulSlots directory slots writes it: common
// record (CommBytes of the seed), the four head bytes as one host-order word,
// lengths, ulSlots slots, then the records; usCapacity is what it claims.
Bytes OldLayoutBlock(std::uint32_t ulSlots, std::uint16_t usCapacity,
                     const std::vector<RecordRow> &records, std::uint32_t ulCommSeed = 7);
Bytes CommBytes(std::uint32_t ulSeed);
// ulLen bytes counting from ucFirst.
Bytes Counting(std::uint32_t ulLen, std::uint8_t ucFirst);
// The record of a packet's block as bytes, or empty when absent.
Bytes RecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulLen);

// The golden directory beside this folder, and a whole file's bytes.
std::string GoldenDir();
Bytes ReadFile(const std::string &path);

// The packet holds exactly what the description says: its data, the flag word
// (and, from an image, all seven header words), the common record and every
// record byte for byte, and no other record.
::testing::AssertionResult MatchesPlan(MBUF_S *pstMbuf, const PacketPlan &plan, bool bImage);

// The written form of a packet: its TLV stream as long as the head says, or
// its serial image; empty when the writer refuses.
Bytes StreamOf(MBUF_S *pstMbuf);
Bytes ImageOf(MBUF_S *pstMbuf);

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
    MBUF_S *ReadImage(Bytes &b) {
        return Keep(
            MBUF_Deserialize_fl(b.data(), static_cast<uint32_t>(b.size()), kModule, "img", 4));
    }
    MBUF_S *ReadTlv(Bytes &b) {
        return Keep(
            MBUF_TransTlv2Mbuf_fl(b.data(), static_cast<uint32_t>(b.size()), kModule, "rd", 5));
    }
    void TearDown() override {
        for (MBUF_S *pstMbuf : kept_) {
            MBUF_Destroy(pstMbuf);
        }
        krm::test::HostTest::TearDown();
    }

  private:
    std::vector<MBUF_S *> kept_;
};

}  // namespace krm::serialtest
