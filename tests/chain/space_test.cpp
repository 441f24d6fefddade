// Growing and cutting packets, compared with the same edit of a flat vector.
#include <cstring>
#include <tuple>

#include "chain_test.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "space_test";

// Free bytes behind the data of the last row's node.
std::uint32_t LastTailRoom(const std::vector<NodeRow> &rows) {
    const NodeRow &last = rows.back();
    std::uint32_t capacity = last.bufSize;
    if (last.storage == Storage::Inline) {
        capacity = rows.size() == 1 ? MBUF_PKTHDR_INLINE_LEN : MBUF_PLAIN_INLINE_LEN;
    } else if (last.storage == Storage::Cluster) {
        capacity = MBUF_CLUSTER_SIZE;
    }
    return capacity - last.headRoom - last.dataLen;
}

class SpaceShapeTest : public ShapeTest {};

// The bytes written through the returned pointer become the packet's first
// or last bytes. An exact fit of the head room is used, one of the tail room
// is not; MBUF_ROOMLOCK keeps a prepend out of the head room and an append out
// of an external last node. Otherwise a node is added: a prepend's new head
// holds just the new bytes at the end of a fresh cluster and hands its old
// storage to the second node; an appended node takes the last node's type,
// also as its buffer's reference count.
TEST_P(SpaceShapeTest, GrowingPutsNewBytesAtEitherEnd) {
    for (int mode = 0; mode < 4; ++mode) {
        const bool prepend = mode % 2 == 0;
        const bool locked = mode >= 2;
        const std::uint32_t room = prepend ? Rows()[0].headRoom : LastTailRoom(Rows());
        for (std::uint32_t len : {1u, room - 1, room, room + 1, 54u, MBUF_GROW_MAX_LEN}) {
            if (len == 0 || len > MBUF_GROW_MAX_LEN) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << "mode " << mode << ", " << len << " bytes");
            MBUF_S *m = Build();
            Bytes flat = Flatten(m);
            const std::uint32_t nodes = NodeCount(m);
            MBUF_S *last = m;
            while (last->pstNext != nullptr) {
                last = last->pstNext;
            }
            MBUF_S *locks = prepend ? m : last;
            locks->ulFlag |= locked ? MBUF_ROOMLOCK : 0;
            last->usType = 7;
            const bool ext = (locks->ulFlag & MBUF_EXT) != 0;
            uint8_t *const oldData = m->pucData;
            uint8_t *const oldBuf = ext ? m->pucExtBuf : nullptr;
            uint8_t *p = prepend ? MBUF_PrependMemorySpace_fl(m, len, kTestModule, kFile, __LINE__)
                                 : MBUF_AppendMemorySpace_fl(m, len, kTestModule, kFile, __LINE__);
            ASSERT_NE(p, nullptr);
            const Bytes fresh = Payload(len, 9);
            std::memcpy(p, fresh.data(), len);
            flat = prepend ? Cat(fresh, flat) : Cat(flat, fresh);
            locks->ulFlag &= ~MBUF_ROOMLOCK;
            EXPECT_TRUE(IsValidPacket(m));
            EXPECT_TRUE(HoldsBytes(m, flat));
            const bool fits = prepend ? !locked && len <= room : (!locked || !ext) && len < room;
            ASSERT_EQ(NodeCount(m), fits ? nodes : nodes + 1);
            if (!fits && prepend) {
                const MBUF_S *moved = m->pstNext;
                EXPECT_EQ(std::tuple(m->ulFlag & MBUF_EXT, m->ulExtRefCnt, p,
                                     moved->ulFlag & MBUF_PKTHDR, moved->pucExtBuf, moved->pucData),
                          std::tuple(MBUF_EXT, 1u, m->pucExtBuf + MBUF_CLUSTER_SIZE - len, 0u,
                                     oldBuf, ext ? oldData : moved->aucInlineData));
            } else if (!fits) {
                const MBUF_S *added = last->pstNext;
                EXPECT_EQ(std::tuple(p, added->usType, added->ulExtRefCnt),
                          std::tuple(added->pucExtBuf, 7u, 7u));
            }
            MBUF_Destroy(m);
        }
    }
}

// Every cut leaves the model's bytes. After a head or tail cut no empty node
// stays behind the head and an empty head has given back its buffer.
TEST_P(SpaceShapeTest, CutsMatchTheModel) {
    enum Op { kPart, kHead, kTail };
    for (const auto &[from, to] : Ranges(Rows())) {
        for (Op op : {kPart, kHead, kTail}) {
            if ((op == kHead && from != 0) || (op == kTail && to != Total())) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << "op " << op << " " << from << ".." << to);
            MBUF_S *m = Build();
            Bytes flat = Flatten(m);
            const std::uint32_t len = to - from;
            ASSERT_EQ(op == kPart   ? MBUF_CutPart_fl(m, from, len, kFile, __LINE__)
                      : op == kHead ? MBUF_CutHead_fl(m, len, kFile, __LINE__)
                                    : MBUF_CutTail_fl(m, len, kFile, __LINE__),
                      MBUF_OK);
            flat.erase(flat.begin() + from, flat.begin() + to);
            EXPECT_TRUE(IsValidPacket(m));
            EXPECT_TRUE(HoldsBytes(m, flat));
            if (op != kPart) {
                for (MBUF_S *n = m->pstNext; n != nullptr; n = n->pstNext) {
                    EXPECT_NE(n->ulDataLen, 0u);
                }
                EXPECT_TRUE(m->ulDataLen != 0 || (m->ulFlag & MBUF_EXT) == 0);
            }
            MBUF_Destroy(m);
        }
    }
    // More than the packet holds empties it.
    for (bool head : {true, false}) {
        MBUF_S *m = Build();
        EXPECT_EQ(head ? MBUF_CutHead(m, 0xFFFFFFFFu) : MBUF_CutTail(m, 0xFFFFFFFFu), MBUF_OK);
        EXPECT_TRUE(HoldsBytes(m, {}));
        EXPECT_TRUE(IsValidPacket(m));
        MBUF_Destroy(m);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, SpaceShapeTest, ::testing::ValuesIn(StandardShapes()), ShapeName);

class SpaceTest : public ChainTest {};

TEST_F(SpaceTest, BadArgumentsChangeNothing) {
    MBUF_S *m = BuildChain({InlineNode(10, 40)});
    const Bytes flat = Flatten(m);
    const auto grows = [m](std::uint32_t len) {
        return std::vector<std::uint8_t *>{MBUF_PrependMemorySpace(m, len, kTestModule),
                                           MBUF_AppendMemorySpace(m, len, kTestModule)};
    };
    const std::vector<std::uint8_t *> none(2, nullptr);
    EXPECT_EQ(grows(MBUF_GROW_MAX_LEN + 1), none);
    EXPECT_EQ((std::vector<std::uint8_t *>{MBUF_PrependMemorySpace(nullptr, 1, kTestModule),
                                           MBUF_AppendMemorySpace(nullptr, 1, kTestModule)}),
              none);
    EXPECT_EQ((Lens{MBUF_CutHead(nullptr, 1), MBUF_CutPart(m, 10, 1), MBUF_CutPart(m, 11, 0),
                    MBUF_CutPart(m, 1, 0xFFFFFFFFu)}),
              (Lens{MBUF_ERR_INVALID_MBUF, MBUF_ERR_LENGTH, MBUF_ERR_LENGTH, MBUF_ERR_LENGTH}));
    m->ulFlag &= ~MBUF_PKTHDR;  // a plain node is not a packet
    EXPECT_EQ(grows(1), none);
    EXPECT_EQ((Lens{MBUF_CutHead(m, 1), MBUF_CutTail(m, 1), MBUF_CutPart(m, 0, 1)}),
              Lens(3, MBUF_ERR_INVALID_MBUF));
    m->ulFlag |= MBUF_PKTHDR;
    EXPECT_TRUE(HoldsBytes(m, flat));
    EXPECT_EQ(NodeCount(m), 1u);
    MBUF_Destroy(m);
}

// Cuts and tidying whose node structure and length bookkeeping matter beyond
// the data.
TEST_F(SpaceTest, CutsAndTidyingLeaveTheExpectedNodes) {
    const auto expect = [](MBUF_S *m, const Lens &lengths, const Bytes &data, int line) {
        SCOPED_TRACE(testing::Message() << "case at line " << line);
        EXPECT_EQ(NodeLengths(m), lengths);
        EXPECT_TRUE(HoldsBytes(m, data));
        EXPECT_TRUE(IsValidPacket(m));
        MBUF_Destroy(m);
    };
    // Front cuts leave emptied nodes; only a packet head keeps its total.
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(20), InlineNode(30)});
    MBUF_CutDataBySpecifiedLength(m->pstNext, 25, nullptr);
    EXPECT_EQ(m->ulTotalDataLen, 60u);
    m->ulTotalDataLen = 35;
    expect(m, {10, 0, 25}, Cat(Payload(10), Payload(25, 0, 35)), __LINE__);
    // A tail cut of exactly the last node's bytes keeps it, empty.
    m = BuildChain({InlineNode(10), InlineNode(0), InlineNode(30)});
    MBUF_CutDataBySpecifiedLength(m, -30, nullptr);
    expect(m, {10, 0, 0}, Payload(10), __LINE__);
    // A part filling one node skips the tidy: the empty head keeps its buffer.
    m = BuildChain({ClusterNode(10), InlineNode(0), InlineNode(30)});
    ASSERT_EQ(MBUF_CutPart(m, 0, 10), MBUF_OK);
    EXPECT_NE(m->ulFlag & MBUF_EXT, 0u);
    expect(m, {0, 0, 30}, Payload(30, 0, 10), __LINE__);
    // A chain shorter than its total ends before the offset.
    m = BuildChain({InlineNode(10), InlineNode(20)});
    m->ulTotalDataLen = 100;
    EXPECT_EQ(MBUF_CutPart(m, 50, 1), MBUF_ERR_CHAIN_END);
    m->ulTotalDataLen = 30;
    expect(m, {10, 20}, Payload(30), __LINE__);
    // Unchecked: a node's front moves; a plain node's cut is not counted.
    m = BuildChain({InlineNode(10), InlineNode(20)});
    MBUF_CutContinueHead(m, 4);
    MBUF_CutContinueHead(m->pstNext, 20);
    MBUF_CutContinueHead(nullptr, 1);
    EXPECT_EQ(m->ulTotalDataLen, 26u);
    m->ulTotalDataLen = 6;
    expect(m, {6, 0}, Payload(6, 0, 4), __LINE__);
    // Tidying drops a stray MBUF_PKTHDR and empty nodes, whatever MBUF_NOFREE.
    m = BuildChain({InlineNode(10), InlineNode(0), InlineNode(5)});
    MBUF_S *stray = BuildChain({InlineNode(3)}, 1);
    m->pstNext->pstNext->pstNext = stray;
    m->ulTotalDataLen += 3;
    m->pstNext->ulFlag |= MBUF_NOFREE;
    MBUF_FreeNoUseMemory_fl(m, kFile, __LINE__);
    MBUF_FreeNoUseMemory_fl(nullptr, kFile, __LINE__);
    EXPECT_EQ(stray->ulFlag & MBUF_PKTHDR, 0u);
    expect(m, {10, 5, 3}, Cat(Payload(15), Payload(3, 1)), __LINE__);
}

TEST_F(SpaceTest, WrappersAttributeTheirAllocationsToThemselves) {
    MBUF_S *m = BuildChain({InlineNode(MBUF_PKTHDR_INLINE_LEN)});
    ASSERT_NE(MBUF_PrependMemorySpace(m, 10, kTestModule), nullptr);
    uint8_t *p = MBUF_AppendMemorySpace(m, MBUF_GROW_MAX_LEN, kTestModule);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(SiteOf(m->pucExtBuf), Site("MBUF_PrependMemorySpace", 97, kTestModule));
    EXPECT_EQ(SiteOf(p), Site("MBUF_AppendMemorySpace", 91, kTestModule));
    MBUF_Destroy(m);
}

// Growing into a new node allocates the node and its cluster.
TEST_F(SpaceTest, GrowingIntoANewNodeFailsCleanlyAtEveryAllocation) {
    for (bool prepend : {true, false}) {
        const auto grow = [prepend](MBUF_S *m) {
            return (prepend ? MBUF_PrependMemorySpace(m, 54, kTestModule)
                            : MBUF_AppendMemorySpace(m, 54, kTestModule)) != nullptr;
        };
        const auto grown = [](MBUF_S *m, const Bytes &flat) {
            EXPECT_EQ(m->ulTotalDataLen, flat.size() + 54);
        };
        EXPECT_EQ(
            SweepPacket({InlineNode(MBUF_PKTHDR_INLINE_LEN), InlineNode(MBUF_PLAIN_INLINE_LEN)},
                        false, grow, grown),
            2u);
    }
}

}  // namespace
}  // namespace krm::test
