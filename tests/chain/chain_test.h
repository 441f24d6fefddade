// Shared pieces of the chain tests: the fixtures, the comparison of a packet
// with the flat byte vector that models it, and the ranges model tests walk.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "chain_builder.h"
#include "fault_sweep.h"
#include "host_test.h"
#include "krm_mbuf/mbuf.h"
#include "mbuf_check.h"

namespace krm::test {

using Bytes = std::vector<std::uint8_t>;
using Lens = std::vector<std::uint32_t>;
using Range = std::pair<std::uint32_t, std::uint32_t>;  // [first, second)

// The packet's data equals the model, and ulTotalDataLen says so too.
inline ::testing::AssertionResult HoldsBytes(const MBUF_S *pstMbuf, const Bytes &expected) {
    if (pstMbuf == nullptr) {
        return ::testing::AssertionFailure() << "no packet";
    }
    const Bytes actual = Flatten(pstMbuf);
    const auto diff = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    if (diff.first != actual.end() || diff.second != expected.end()) {
        return ::testing::AssertionFailure()
               << "data differs at byte " << (diff.first - actual.begin()) << " (have "
               << actual.size() << " bytes, want " << expected.size() << ")";
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

inline Bytes Cat(Bytes front, const Bytes &back) {
    front.insert(front.end(), back.begin(), back.end());
    return front;
}

// Every range between two interesting offsets of the rows, empty ones included.
inline std::vector<Range> Ranges(const std::vector<NodeRow> &rows) {
    const std::vector<std::uint32_t> points = InterestingOffsets(rows);
    std::vector<Range> out;
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (from <= to) {
                out.emplace_back(from, to);
            }
        }
    }
    return out;
}

// True when no external buffer of one chain is also hung from the other.
inline bool SharesNoBuffer(const MBUF_S *a, const MBUF_S *b) {
    for (const MBUF_S *x = a; x != nullptr; x = x->pstNext) {
        for (const MBUF_S *y = b; y != nullptr; y = y->pstNext) {
            if ((x->ulFlag & y->ulFlag & MBUF_EXT) != 0 && x->pucExtBuf == y->pucExtBuf) {
                return false;
            }
        }
    }
    return true;
}

// Gives a packet a 300-byte record marked `mark`: its control block outgrows
// the node, so that copying it allocates.
inline void GrowControlBlock(MBUF_S *m, std::uint8_t mark = 0x5C) {
    ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_APP, 300, kTestModule), MBUF_OK);
    ASSERT_NE(m->pstCtlInfo, &m->stCtlInfo.stBlk);
    static_cast<std::uint8_t *>(MBUF_GetControlInfo(m, MBUF_CTL_APP))[3] = mark;
}

// The mark of that record; -1 without one.
inline int RecordMark(MBUF_S *m) {
    const auto *rec = static_cast<const std::uint8_t *>(MBUF_GetControlInfo(m, MBUF_CTL_APP));
    return rec == nullptr ? -1 : rec[3];
}

// Runs op on a fresh packet of the rows (with an outgrown control block when
// `records`) while each allocation in turn fails: a failed run leaves the
// packet as it was. The run without a fault goes to done, which releases
// whatever op made. Returns the number of failed runs.
inline std::uint32_t SweepPacket(const std::vector<NodeRow> &rows, bool records,
                                 const std::function<bool(MBUF_S *)> &op,
                                 const std::function<void(MBUF_S *, const Bytes &)> &done) {
    SCOPED_TRACE(testing::Message()
                 << "sweep over " << rows.size() << " rows of " << ShapeLength(rows) << " bytes");
    MBUF_S *m = nullptr;
    Bytes flat;
    const auto setup = [&] {
        m = BuildChain(rows);
        if (records) {
            GrowControlBlock(m);
        }
        flat = Flatten(m);
    };
    const auto failed = [&] {
        EXPECT_TRUE(IsValidPacket(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        MBUF_Destroy(m);
    };
    const auto succeeded = [&] {
        done(m, flat);
        MBUF_Destroy(m);
    };
    return FaultSweep({setup, [&] { return op(m); }, failed, succeeded}).failedRuns;
}

inline std::string ShapeName(const ::testing::TestParamInfo<ChainShape> &info) {
    return info.param.name;
}

class ChainTest : public HostTest {};

// Runs once per standard shape; Build() makes a fresh packet of it.
class ShapeTest : public HostTest, public ::testing::WithParamInterface<ChainShape> {
  protected:
    const std::vector<NodeRow> &Rows() const { return GetParam().nodes; }
    std::uint32_t Total() const { return ShapeLength(Rows()); }
    MBUF_S *Build(std::uint32_t seed = 0) const { return BuildChain(Rows(), seed); }
};

}  // namespace krm::test
