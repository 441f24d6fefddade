#include "chain_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "mbuf_check.h"

namespace krm::test {
namespace {

constexpr const char *kSite = "chain_builder";

// Allocates the node of one row; *pucStorage and *pulCapacity describe where
// its data may lie. A cluster row asks for more than the head's inline area,
// which gets a standard cluster for either kind of node.
MBUF_S *MakeNode(const NodeRow &row, bool head, std::uint8_t **pucStorage,
                 std::uint32_t *pulCapacity) {
    const std::uint32_t ask = row.storage == Storage::Cluster ? MBUF_PKTHDR_INLINE_LEN + 1 : 0;
    MBUF_S *node =
        head ? MBUF_AllocateMBufHeader_fl(ask, 0, pulCapacity, kTestModule, kSite, __LINE__)
             : MBUF_AllocateMBufNode_fl(ask, 0, pulCapacity, kTestModule, kSite, __LINE__);
    if (node != nullptr && row.storage == Storage::Exact) {
        if (MBUF_AllocateCluster_fl(node, static_cast<std::int32_t>(row.bufSize), kTestModule,
                                    kSite, __LINE__) != 0) {
            MBUF_Free(node, nullptr);
            return nullptr;
        }
        *pulCapacity = row.bufSize;
    }
    if (node != nullptr) {
        *pucStorage = (node->ulFlag & MBUF_EXT) != 0
                          ? node->pucExtBuf
                          : (head ? node->aucHdrInlineData : node->aucInlineData);
    }
    return node;
}

}  // namespace

void PrintTo(const ChainShape &shape, std::ostream *os) {
    *os << shape.name;
}

std::uint8_t PayloadByte(std::uint32_t i, std::uint32_t seed) {
    // A multiplicative hash of the position: no short period, and distinct
    // seeds give distinct streams.
    const std::uint32_t x = (i + seed * 0x9E3779B9u) * 2654435761u;
    return static_cast<std::uint8_t>((x >> 24) ^ (x >> 11));
}

std::vector<std::uint8_t> Payload(std::uint32_t len, std::uint32_t seed, std::uint32_t start) {
    std::vector<std::uint8_t> out(len);
    for (std::uint32_t i = 0; i < len; ++i) {
        out[i] = PayloadByte(start + i, seed);
    }
    return out;
}

MBUF_S *BuildChain(const std::vector<NodeRow> &nodes, std::uint32_t seed) {
    MBUF_S *head = nullptr;
    MBUF_S *prev = nullptr;
    std::uint32_t pos = 0;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const NodeRow &row = nodes[i];
        std::uint8_t *storage = nullptr;
        std::uint32_t capacity = 0;
        MBUF_S *node = MakeNode(row, i == 0, &storage, &capacity);
        if (node == nullptr || row.headRoom + row.dataLen > capacity) {
            ADD_FAILURE() << "row " << i << " cannot be built (capacity " << capacity << ")";
            if (node != nullptr) {
                MBUF_Free(node, nullptr);
            }
            if (head != nullptr) {
                MBUF_Destroy(head);
            }
            return nullptr;
        }
        std::memset(storage, kPoison, capacity);
        node->pucData = storage + row.headRoom;
        node->ulDataLen = row.dataLen;
        for (std::uint32_t b = 0; b < row.dataLen; ++b) {
            node->pucData[b] = PayloadByte(pos + b, seed);
        }
        pos += row.dataLen;
        if (prev == nullptr) {
            head = node;
        } else {
            prev->pstNext = node;
        }
        prev = node;
    }
    if (head != nullptr) {
        head->ulTotalDataLen = pos;
    }
    return head;
}

std::uint32_t NodeCount(const MBUF_S *pstMbuf) {
    std::uint32_t n = 0;
    for (const MBUF_S *node = pstMbuf; node != nullptr; node = node->pstNext) {
        ++n;
    }
    return n;
}

std::uint32_t ShapeLength(const std::vector<NodeRow> &nodes) {
    std::uint32_t total = 0;
    for (const NodeRow &row : nodes) {
        total += row.dataLen;
    }
    return total;
}

std::vector<std::uint32_t> InterestingOffsets(const std::vector<NodeRow> &nodes) {
    const std::uint32_t total = ShapeLength(nodes);
    std::vector<std::uint32_t> out{0, 1, total};
    std::uint32_t pos = 0;
    for (const NodeRow &row : nodes) {
        for (std::uint32_t d : {0u, 1u, row.dataLen / 2, row.dataLen - (row.dataLen ? 1 : 0)}) {
            out.push_back(pos + d);
        }
        if (pos > 0) {
            out.push_back(pos - 1);
        }
        pos += row.dataLen;
        out.push_back(pos);
        out.push_back(pos + 1);
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    out.erase(
        std::remove_if(out.begin(), out.end(), [total](std::uint32_t p) { return p > total; }),
        out.end());
    return out;
}

const std::vector<ChainShape> &StandardShapes() {
    static const std::vector<ChainShape> shapes = {
        {"OneInline", {InlineNode(100)}},
        {"InlineHeadRoom", {InlineNode(200, 40)}},
        {"FullInlineHead", {InlineNode(MBUF_PKTHDR_INLINE_LEN)}},
        {"EmptyPacket", {InlineNode(0)}},
        {"EmptyHeadThenPlain", {InlineNode(0, 64), InlineNode(300)}},
        {"OneByteNodes",
         {InlineNode(1, 10), InlineNode(1), InlineNode(1, 3), InlineNode(1), InlineNode(1)}},
        {"OddStarts", {InlineNode(37, 3), InlineNode(101, 5), ClusterNode(333, 7)}},
        {"ClusterHead", {ClusterNode(1000, 100), InlineNode(500)}},
        {"ExactBuffers", {ExactNode(3000, 2500), ExactNode(2100, 2000, 17)}},
        {"EmptyMiddle", {InlineNode(50), InlineNode(0), ClusterNode(0), InlineNode(70, 1)}},
        {"Mixed",
         {InlineNode(300, 20), ClusterNode(MBUF_CLUSTER_SIZE), InlineNode(MBUF_PLAIN_INLINE_LEN),
          InlineNode(5, 9)}},
        {"EmptyClusterHead", {ClusterNode(0), ClusterNode(100, 5)}},
    };
    return shapes;
}

}  // namespace krm::test
