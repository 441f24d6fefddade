// Every allocating operation on the control block, failed at its 1st, 2nd,
// ... allocation: the documented result, nothing left behind, and the block
// as the operation promises after a failure.
#include <cstring>
#include <memory>

#include "ctlinfo_test_util.h"
#include "fault_sweep.h"

namespace krm::test {
namespace {

class CtlFaultSweepTest : public HostTest {};

// The packets under test, a copy of the block's meaningful bytes, and what
// the last run returned.
struct Input {
    MBUF_S *m = nullptr;
    MBUF_S *src = nullptr;
    MBUF_CONTROL_BLK_S *blk = nullptr;
    std::vector<std::uint8_t> bytes;
    std::int64_t result = 0;
    std::uint32_t failures = 0;

    void Snapshot() {
        blk = m->pstCtlInfo;
        const auto *raw = reinterpret_cast<const std::uint8_t *>(blk);
        bytes.assign(raw, raw + MBUF_CTL_FIXED_LEN + blk->usUsedLen);
    }
    void ExpectBlockUnchanged() const {
        ASSERT_EQ(m->pstCtlInfo, blk) << "the block is still attached";
        EXPECT_EQ(std::memcmp(blk, bytes.data(), bytes.size()), 0) << "and unchanged";
        ExpectValid(m);
    }
    void Release() {
        MBUF_Destroy(m);
        MBUF_Destroy(src);
        m = src = nullptr;
        ++failures;
    }
};

struct SweepRow {
    const char *name;
    std::uint32_t allocations;
    SweepCase sweep;
};

// A packet whose block already holds records of usedLen bytes in all
// (inline up to 264, separate beyond).
MBUF_S *PacketUsing(std::uint32_t usedLen) {
    MBUF_S *m = NewPacket();
    EXPECT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_APP, usedLen, kCtlModule), 0u);
    return m;
}

SweepCase Case(std::shared_ptr<Input> in, std::function<void(Input &)> setup,
               std::function<bool(Input &)> run, std::function<void(Input &)> failed) {
    return SweepCase{[in, setup] { setup(*in); }, [in, run] { return run(*in); },
                     [in, failed] {
                         failed(*in);
                         in->Release();
                     },
                     [in] {
                         ExpectValid(in->m);
                         in->Release();
                     }};
}

SweepRow CreateRecord(const char *name, std::uint32_t used, std::uint32_t len) {
    auto in = std::make_shared<Input>();
    return {name, 1,
            Case(
                in,
                [used](Input &i) {
                    i.m = PacketUsing(used);
                    i.Snapshot();
                },
                [len](Input &i) {
                    i.result = MBUF_CreateControlInfo(i.m, MBUF_CTL_STACKDEBUG, len, kCtlModule);
                    return i.result == MBUF_OK;
                },
                [](Input &i) {
                    EXPECT_EQ(i.result, MBUF_ERR_CTL_NO_ROOM);
                    i.ExpectBlockUnchanged();
                })};
}

SweepRow CreateWithoutBlock() {
    auto in = std::make_shared<Input>();
    return {"block for a packet without one", 1,
            Case(
                in,
                [](Input &i) {
                    i.m = PacketUsing(400);
                    MBUF_DeletePktTag(i.m, nullptr);
                },
                [](Input &i) {
                    i.result = MBUF_CreateControlInfo(i.m, MBUF_CTL_IP, 20, kCtlModule);
                    return i.result == MBUF_OK;
                },
                [](Input &i) {
                    EXPECT_EQ(i.result, MBUF_ERR_NOMEM);
                    EXPECT_EQ(i.m->pstCtlInfo, nullptr);
                })};
}

SweepRow CopyIntoSmaller() {
    auto in = std::make_shared<Input>();
    return {"copy into a smaller block", 1,
            Case(
                in,
                [](Input &i) {
                    i.src = PacketUsing(500);
                    i.m = PacketUsing(8);
                },
                [](Input &i) {
                    i.result = MBUF_CopyPktTag(i.m, i.src, kCtlModule, nullptr);
                    return i.result == 1;
                },
                [](Input &i) {
                    EXPECT_EQ(i.result, 0);
                    // The delete kept the inline block, which is what is left.
                    EXPECT_TRUE(BlockIsInline(i.m));
                })};
}

// Record 22 holds one sub-TLV and the block is nearly full, so appending
// needs the temporary copy and then a larger block.
SweepRow AppendTlv() {
    auto in = std::make_shared<Input>();
    return {"append a sub-TLV", 2,
            Case(
                in,
                [](Input &i) {
                    i.m = PacketUsing(232);
                    EXPECT_EQ(MBUF_SetTlvInfo(i.m, kCtlModule, AsTlv(SubTlv(1, {1, 2, 3, 4}))), 0);
                    i.Snapshot();
                },
                [](Input &i) {
                    i.result = MBUF_SetTlvInfo(i.m, kCtlModule, AsTlv(SubTlv(2, {5, 6})));
                    return i.result == 0;
                },
                [](Input &i) {
                    EXPECT_EQ(i.result, -1);
                    if (i.failures == 0) {
                        i.ExpectBlockUnchanged();  // the copy failed: nothing was touched
                    } else {
                        // The re-creation failed after the old record was deleted.
                        EXPECT_EQ(MBUF_GetControlInfo(i.m, MBUF_CTL_PACKET), nullptr);
                        ExpectValid(i.m);
                    }
                })};
}

SweepRow CreateTlvRecord() {
    auto in = std::make_shared<Input>();
    return {"first sub-TLV into a full block", 1,
            Case(
                in,
                [](Input &i) {
                    i.m = PacketUsing(260);
                    i.Snapshot();
                },
                [](Input &i) {
                    i.result = MBUF_SetTlvInfo(i.m, kCtlModule, AsTlv(SubTlv(3, {7})));
                    return i.result == 0;
                },
                [](Input &i) {
                    EXPECT_EQ(i.result, -1);
                    i.ExpectBlockUnchanged();
                })};
}

TEST_F(CtlFaultSweepTest, EveryAllocatingOperationFailsCleanly) {
    const SweepRow rows[] = {
        CreateRecord("record that moves the block out of the node", 200, 100),
        CreateRecord("record that grows a separate block", 400, 1000),
        CreateWithoutBlock(),
        CopyIntoSmaller(),
        CreateTlvRecord(),
        AppendTlv(),
    };
    for (const SweepRow &row : rows) {
        SCOPED_TRACE(row.name);
        const SweepResult result = FaultSweep(row.sweep);
        EXPECT_EQ(result.allocations, row.allocations);
        EXPECT_EQ(result.failedRuns, row.allocations);
    }
}

}  // namespace
}  // namespace krm::test
