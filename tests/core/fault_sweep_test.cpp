// Every allocating operation of the buffer core, failed at its 1st, 2nd, ...
// allocation: the promised failure result, nothing left behind, and the
// input as the operation promises after a failure.
#include <cstring>
#include <functional>
#include <string>

#include "core_test_util.h"
#include "fault_sweep.h"

namespace krm::test {
namespace {

class CoreFaultSweepTest : public HostTest {};

void FreePacket(void *p) {
    auto *m = static_cast<MBUF_S *>(p);
    if ((m->ulFlag & MBUF_PKTHDR) != 0) {
        ExpectValid(m);
    }
    MBUF_Free(m, nullptr);
}

void FreeMemory(void *p) {
    MBUF_MemFree_fl(p, nullptr);
}

// op turns the input (NULL when the row has none) into its product, or NULL
// on failure; it may replace the input, as a reallocation does. failed()
// checks and releases the input after a failed run, done() the product.
struct SweepRow {
    const char *name;
    std::uint32_t allocations;  // made by the successful run
    std::function<void *(void *&in)> op;
    std::function<void *()> input = [] { return nullptr; };
    std::function<void(void *in)> failed = [](void *) {};
    std::function<void(void *out)> done = FreePacket;
};

MBUF_S *Node(void *in) {
    return static_cast<MBUF_S *>(in);
}

TEST_F(CoreFaultSweepTest, EveryAllocatingOperationFailsCleanly) {
    static const std::vector<std::uint8_t> data = Pattern(130000);
    // The reallocated buffer holds the old contents whether the call failed
    // or not.
    const auto oldContentsKept = [](void *buf) {
        EXPECT_EQ(std::memcmp(buf, data.data(), 10), 0);
        FreeMemory(buf);
    };
    const auto plainNode = []() -> void * { return PlainNode(0); };
    // A failed call leaves the node as it was: plain, inline, empty.
    const auto unchanged = [](void *in) {
        EXPECT_EQ(Shape(Node(in)), "plain inline +0 len 0");
        FreePacket(in);
    };
    const SweepRow rows[] = {
        {"MBUF_MemAlloc_fl", 1, [](void *&) { return MBUF_MemAlloc_fl(100, kModule, nullptr); },
         [] { return nullptr; }, [](void *) {}, FreeMemory},
        {"MBUF_MemRealloc_fl", 1,
         [](void *&in) {
             return MBUF_MemRealloc_fl(&in, 10, 40, kModule, nullptr) == 0 ? in : nullptr;
         },
         [] {
             void *buf = MBUF_MemAlloc_fl(10, kModule, nullptr);
             std::memcpy(buf, data.data(), 10);
             return buf;
         },
         oldContentsKept, oldContentsKept},
        {"MBUF_AllocateMBufHeader_fl exact", 2, [](void *&) { return HeaderNode(5000); }},
        {"MBUF_AllocateMBufNode_fl cluster", 2, [](void *&) { return PlainNode(400); }},
        {"MBUF_AllocateCluster_fl", 1,
         [](void *&in) {
             return MBUF_AllocateCluster_fl(Node(in), 3000, kModule, kFile, 1) == 0 ? in : nullptr;
         },
         plainNode, unchanged},
        {"MBUF_AddPktHdr_fl", 1,
         [](void *&in) { return MBUF_AddPktHdr_fl(Node(in), kModule, kFile, 1); }, plainNode,
         unchanged},
        {"MBUF_CreateByCopyBuffer_fl", 2,
         [](void *&) {
             return MBUF_CreateByCopyBuffer_fl(100, 3000, data.data(), 0, kModule, kFile, 1);
         }},
        {"MBUF_CreateForControlPacket_fl", 2,
         [](void *&) { return MBUF_CreateForControlPacket_fl(0, 1000, 0, kModule, kFile, 1); }},
        {"MBUF_CreateForAppPacket_fl", 2,
         [](void *&) { return MBUF_CreateForAppPacket_fl(0, 5000, 0, kModule, kFile, 1); }},
        {"MBUF_CreateMbufWithBufferData three buffers", 6,
         [](void *&) { return WithData(data.data(), 130000); }},
    };
    for (const SweepRow &row : rows) {
        SCOPED_TRACE(row.name);
        void *in = nullptr;
        void *out = nullptr;
        const SweepResult result = FaultSweep(
            SweepCase{[&] { in = row.input(); }, [&] { return (out = row.op(in)) != nullptr; },
                      [&] { row.failed(in); }, [&] { row.done(out); }});
        EXPECT_EQ(result.allocations, row.allocations);
        EXPECT_EQ(result.failedRuns, row.allocations);
    }
}

}  // namespace
}  // namespace krm::test
