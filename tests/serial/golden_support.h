// Comparison of a rebuilt packet with the description it was written from,
// and access to the golden files next to the test sources.
#pragma once

#include <string>

#include "../golden/golden_packets.h"
#include "serial_support.h"

namespace krm::serialtest {

using krm::golden::PacketPlan;

// The golden directory, found from this source file's own place.
std::string GoldenDir();
Bytes ReadFile(const std::string &path);

// The packet holds exactly what the description says: its data, the flag word
// (and, from an image, all seven header words), the common record and every
// record byte for byte, and no other record.
::testing::AssertionResult MatchesPlan(MBUF_S *pstMbuf, const PacketPlan &plan, bool bImage);

// The written form of a packet: its TLV stream as long as the head says, or
// its serial image.
Bytes StreamOf(MBUF_S *pstMbuf);
Bytes ImageOf(MBUF_S *pstMbuf);

}  // namespace krm::serialtest
