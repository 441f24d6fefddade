// Packet checks for tests: the library's structural audit turned into gtest
// expectations, and small readers that tests use to compare packets.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace krm::test {

// gtest predicate: success when MBUF_DBG_Check passes; the failure message
// carries the checker's reason and a dump of the packet.
::testing::AssertionResult IsValidPacket(const MBUF_S *pstMbuf);

// Expects a valid packet; a failure is reported at the caller's line. Call it
// after every operation that changes a packet.
void ExpectValid(const MBUF_S *pstMbuf, const char *pcFile = __builtin_FILE(),
                 int iLine = __builtin_LINE());

// The checker's code and reason for a packet expected to be broken.
struct CheckResult {
    std::uint32_t code = 0;
    std::string reason;
};
CheckResult Check(const MBUF_S *pstMbuf);

// The dump of a packet as a string.
std::string Dump(const MBUF_S *pstMbuf);

// The packet's data bytes, node by node, concatenated.
std::vector<std::uint8_t> PacketBytes(const MBUF_S *pstMbuf);

// ulDataLen of each node along pstNext.
std::vector<std::uint32_t> NodeLengths(const MBUF_S *pstMbuf);

// ulLen bytes of a recognisable pattern (seeded, so two packets can differ).
std::vector<std::uint8_t> Pattern(std::uint32_t ulLen, std::uint32_t ulSeed = 1);

}  // namespace krm::test
