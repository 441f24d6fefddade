// Shared pieces of the chain tests: the fixture, the packet audit after each
// mutating call, and a flat model to compare results with.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "chain_builder.h"
#include "fault_sweep.h"
#include "host_test.h"
#include "krm_mbuf/mbuf.h"
#include "mbuf_check.h"

namespace krm::test {

using Bytes = std::vector<std::uint8_t>;

// Audits a packet; the failure names the broken rule and dumps the packet.
inline ::testing::AssertionResult PacketOk(const MBUF_S *pstMbuf) {
    return IsValidPacket(pstMbuf);
}

// The packet's data equals the model, and ulTotalDataLen says so too.
inline ::testing::AssertionResult HoldsBytes(const MBUF_S *pstMbuf, const Bytes &expected) {
    if (pstMbuf == nullptr) {
        return ::testing::AssertionFailure() << "no packet";
    }
    const Bytes actual = Flatten(pstMbuf);
    if (actual != expected) {
        std::size_t i = 0;
        while (i < actual.size() && i < expected.size() && actual[i] == expected[i]) {
            ++i;
        }
        return ::testing::AssertionFailure()
               << "data differs at byte " << i << " (have " << actual.size() << " bytes, want "
               << expected.size() << ")";
    }
    if (pstMbuf->ulTotalDataLen != expected.size()) {
        return ::testing::AssertionFailure()
               << "ulTotalDataLen " << pstMbuf->ulTotalDataLen << ", data " << expected.size();
    }
    return ::testing::AssertionSuccess();
}

inline Bytes Slice(const Bytes &flat, std::uint32_t off, std::uint32_t len) {
    return Bytes(flat.begin() + off, flat.begin() + off + len);
}

// Adds the shape's name to failure messages of parameterised tests.
inline std::string ShapeName(const ::testing::TestParamInfo<ChainShape> &info) {
    return info.param.name;
}

class ChainTest : public HostTest {};

class ShapeTest : public HostTest, public ::testing::WithParamInterface<ChainShape> {
  protected:
    const std::vector<NodeSpec> &Rows() const { return GetParam().nodes; }
    MBUF_S *Build(std::uint32_t seed = 0) const { return BuildChain(Rows(), seed); }
};

}  // namespace krm::test
