// Every allocating operation of the buffer core, failed at its 1st, 2nd, ...
// allocation: the documented failure result, nothing left behind, and the
// input as the operation promises after a failure.
#include <cstring>
#include <memory>
#include <string>

#include "core_test_util.h"
#include "fault_sweep.h"

namespace krm::test {
namespace {

class CoreFaultSweepTest : public HostTest {};

struct SweepRow {
    const char *name;
    std::uint32_t allocations;  // made by the successful run
    SweepCase sweep;
};

MBUF_S *PlainNode(std::uint32_t size) {
    std::uint32_t capacity = 0;
    return MBUF_AllocateMBufNode_fl(size, 0, &capacity, kTestModule, kTestFile, 1);
}

// An operation that takes no input and returns what it made, or NULL; the
// release hands the product back.
SweepRow Producer(const char *name, std::uint32_t allocations, std::function<void *()> make,
                  std::function<void(void *)> release) {
    auto out = std::make_shared<void *>(nullptr);
    return {name, allocations,
            SweepCase{[] {},
                      [out, make] {
                          *out = make();
                          return *out != nullptr;
                      },
                      [] {}, [out, release] { release(*out); }}};
}

void DestroyPacket(void *p) {
    ExpectValid(static_cast<MBUF_S *>(p));
    MBUF_Destroy(static_cast<MBUF_S *>(p));
}
void FreeNode(void *p) {
    MBUF_Free(static_cast<MBUF_S *>(p), nullptr);
}
void FreeMemory(void *p) {
    MBUF_MemFree_fl(p, nullptr);
}

SweepRow Realloc() {
    auto buf = std::make_shared<void *>(nullptr);
    const std::vector<std::uint8_t> data = Pattern(10);
    return {"MBUF_MemRealloc_fl", 1,
            SweepCase{
                [buf, data] {
                    *buf = MBUF_MemAlloc_fl(10, kTestModule, nullptr);
                    std::memcpy(*buf, data.data(), 10);
                },
                [buf] { return MBUF_MemRealloc_fl(buf.get(), 10, 40, kTestModule, nullptr) == 0; },
                [buf, data] {
                    EXPECT_EQ(std::memcmp(*buf, data.data(), 10), 0) << "old buffer kept";
                    MBUF_MemFree_fl(*buf, nullptr);
                },
                [buf, data] {
                    EXPECT_EQ(std::memcmp(*buf, data.data(), 10), 0);
                    MBUF_MemFree_fl(*buf, nullptr);
                }}};
}

SweepRow Cluster() {
    auto node = std::make_shared<MBUF_S *>(nullptr);
    return {
        "MBUF_AllocateCluster_fl", 1,
        SweepCase{
            [node] {
                *node = PlainNode(0);
                (*node)->ulDataLen = 40;
            },
            [node] { return MBUF_AllocateCluster_fl(*node, 3000, kTestModule, kTestFile, 1) == 0; },
            [node] {
                EXPECT_FALSE(HasExt(*node));
                EXPECT_EQ((*node)->ulDataLen, 40u);
                EXPECT_EQ((*node)->pucData, (*node)->aucInlineData);
                MBUF_Free(*node, nullptr);
            },
            [node] {
                EXPECT_EQ((*node)->ulExtSize, 3000u);
                MBUF_Free(*node, nullptr);
            }}};
}

SweepRow AddHeader() {
    auto chain = std::make_shared<MBUF_S *>(nullptr);
    auto head = std::make_shared<MBUF_S *>(nullptr);
    return {"MBUF_AddPktHdr_fl", 1,
            SweepCase{[chain] {
                          *chain = PlainNode(0);
                          (*chain)->pstNext = PlainNode(1000);
                          (*chain)->ulDataLen = 10;
                      },
                      [chain, head] {
                          *head = MBUF_AddPktHdr_fl(*chain, kTestModule, kTestFile, 1);
                          return *head != nullptr;
                      },
                      [chain] {
                          EXPECT_EQ((*chain)->ulFlag & MBUF_PKTHDR, 0u) << "chain as it was";
                          EXPECT_NE((*chain)->pstNext, nullptr);
                          MBUF_Free(*chain, nullptr);
                      },
                      [head] {
                          ExpectValid(*head);
                          MBUF_Destroy(*head);
                      }}};
}

TEST_F(CoreFaultSweepTest, EveryAllocatingOperationFailsCleanly) {
    static const std::vector<std::uint8_t> data = Pattern(130000);
    const SweepRow rows[] = {
        Producer(
            "MBUF_MemAlloc_fl", 1, [] { return MBUF_MemAlloc_fl(100, kTestModule, nullptr); },
            FreeMemory),
        Realloc(),
        Producer(
            "MBUF_AllocateMBufHeader_fl inline", 1,
            [] {
                std::uint32_t capacity = 0;
                return MBUF_AllocateMBufHeader_fl(100, 0, &capacity, kTestModule, kTestFile, 1);
            },
            FreeNode),
        Producer(
            "MBUF_AllocateMBufHeader_fl exact", 2,
            [] {
                std::uint32_t capacity = 0;
                return MBUF_AllocateMBufHeader_fl(5000, 0, &capacity, kTestModule, kTestFile, 1);
            },
            FreeNode),
        Producer(
            "MBUF_AllocateMBufNode_fl cluster", 2, [] { return PlainNode(400); }, FreeNode),
        Cluster(),
        AddHeader(),
        Producer(
            "MBUF_CreateByCopyBuffer_fl", 2,
            [] {
                return MBUF_CreateByCopyBuffer_fl(100, 3000, data.data(), 0, kTestModule, kTestFile,
                                                  1);
            },
            DestroyPacket),
        Producer(
            "MBUF_CreateForControlPacket_fl", 2,
            [] { return MBUF_CreateForControlPacket_fl(0, 1000, 0, kTestModule, kTestFile, 1); },
            DestroyPacket),
        Producer(
            "MBUF_CreateForAppPacket_fl", 2,
            [] { return MBUF_CreateForAppPacket_fl(0, 5000, 0, kTestModule, kTestFile, 1); },
            DestroyPacket),
        Producer(
            "MBUF_CreateMbufWithBufferData three buffers", 6,
            [] {
                return MBUF_CreateMbufWithBufferData(data.data(), 130000, 0, 0, nullptr,
                                                     kTestModule, nullptr);
            },
            DestroyPacket),
        Producer(
            "MBUF_CreateMbufWithBufferData inline tail", 3,
            [] {
                return MBUF_CreateMbufWithBufferData(data.data(), 64000, 0, 0, nullptr, kTestModule,
                                                     nullptr);
            },
            DestroyPacket),
    };
    for (const SweepRow &row : rows) {
        SCOPED_TRACE(row.name);
        const SweepResult result = FaultSweep(row.sweep);
        EXPECT_EQ(result.allocations, row.allocations);
        EXPECT_EQ(result.failedRuns, row.allocations);
    }
}

// Replacing a buffer releases the old one first, so a failed replacement
// leaves the node without any.
TEST_F(CoreFaultSweepTest, FailedClusterReplacementLeavesTheNodeBufferless) {
    MBUF_S *node = PlainNode(1000);
    node->ulDataLen = 1960;
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_AllocateCluster_fl(node, 4000, kTestModule, kTestFile, 1), -1);
    EXPECT_FALSE(HasExt(node));
    EXPECT_EQ(node->pucExtBuf, nullptr);
    EXPECT_EQ(node->ulExtSize, 0u);
    EXPECT_EQ(node->ulDataLen, 1960u);
    EXPECT_EQ(node->pucData, node->aucInlineData) << "no pointer into the released buffer";
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    MBUF_Free(node, nullptr);
}

}  // namespace
}  // namespace krm::test
