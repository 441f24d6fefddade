// Growing and cutting packets, compared with the same edit of a flat vector.
#include <algorithm>
#include <cstring>

#include "chain_test.h"

namespace krm::test {
namespace {

constexpr const char *kFile = "space_test";

// Free bytes behind the data of a row's node, from its storage size.
std::uint32_t RowTailRoom(const NodeSpec &spec, bool head) {
    std::uint32_t capacity = spec.bufSize;
    if (spec.storage == Storage::Inline) {
        capacity = head ? MBUF_PKTHDR_INLINE_LEN : MBUF_PLAIN_INLINE_LEN;
    } else if (spec.storage == Storage::Cluster) {
        capacity = MBUF_CLUSTER_SIZE;
    }
    return capacity - spec.headRoom - spec.dataLen;
}

void Write(std::uint8_t *at, const Bytes &bytes) {
    std::memcpy(at, bytes.data(), bytes.size());
}

class SpaceShapeTest : public ShapeTest {};

TEST_P(SpaceShapeTest, PrependPutsNewBytesFirst) {
    const std::uint32_t room = Rows()[0].headRoom;
    for (std::uint32_t len : {1u, room, room + 1, 54u, MBUF_GROW_MAX_LEN}) {
        if (len == 0) {
            continue;
        }
        SCOPED_TRACE(len);
        MBUF_S *m = Build();
        Bytes flat = Flatten(m);
        const std::uint32_t nodes = NodeCount(m);
        uint8_t *p = MBUF_PrependMemorySpace_fl(m, len, kTestModule, kFile, __LINE__);
        ASSERT_NE(p, nullptr);
        const Bytes fresh = Payload(len, 9);
        Write(p, fresh);
        flat.insert(flat.begin(), fresh.begin(), fresh.end());
        EXPECT_TRUE(PacketOk(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        EXPECT_EQ(p, m->pucData);
        if (len <= room) {
            EXPECT_EQ(NodeCount(m), nodes);
        } else {
            // The head holds just the new bytes at the end of a fresh cluster.
            EXPECT_EQ(NodeCount(m), nodes + 1);
            ASSERT_NE(m->ulFlag & MBUF_EXT, 0u);
            EXPECT_EQ(m->ulExtSize, MBUF_CLUSTER_SIZE);
            EXPECT_EQ(m->ulExtRefCnt, 1u);
            EXPECT_EQ(m->pucData, m->pucExtBuf + MBUF_CLUSTER_SIZE - len);
            EXPECT_EQ(m->ulDataLen, len);
        }
        MBUF_Destroy(m);
    }
}

TEST_P(SpaceShapeTest, AppendPutsNewBytesLast) {
    const NodeSpec &lastRow = Rows().back();
    const std::uint32_t room = RowTailRoom(lastRow, Rows().size() == 1);
    for (std::uint32_t len : {1u, room - 1, room, 54u, MBUF_GROW_MAX_LEN}) {
        if (len == 0 || len > MBUF_GROW_MAX_LEN) {
            continue;
        }
        SCOPED_TRACE(len);
        MBUF_S *m = Build();
        Bytes flat = Flatten(m);
        const std::uint32_t nodes = NodeCount(m);
        uint8_t *p = MBUF_AppendMemorySpace_fl(m, len, kTestModule, kFile, __LINE__);
        ASSERT_NE(p, nullptr);
        const Bytes fresh = Payload(len, 5);
        Write(p, fresh);
        flat.insert(flat.end(), fresh.begin(), fresh.end());
        EXPECT_TRUE(PacketOk(m));
        EXPECT_TRUE(HoldsBytes(m, flat));
        // An exact fit of the tail room is not used.
        EXPECT_EQ(NodeCount(m), len < room ? nodes : nodes + 1);
        MBUF_Destroy(m);
    }
}

TEST_P(SpaceShapeTest, CutHeadAndTailMatchTheModel) {
    for (std::uint32_t cut : InterestingOffsets(Rows())) {
        SCOPED_TRACE(cut);
        for (bool head : {true, false}) {
            MBUF_S *m = Build();
            Bytes flat = Flatten(m);
            const uint32_t rc = head ? MBUF_CutHead_fl(m, cut, kFile, __LINE__)
                                     : MBUF_CutTail_fl(m, cut, kFile, __LINE__);
            EXPECT_EQ(rc, MBUF_OK);
            if (head) {
                flat.erase(flat.begin(), flat.begin() + cut);
            } else {
                flat.resize(flat.size() - cut);
            }
            EXPECT_TRUE(PacketOk(m));
            EXPECT_TRUE(HoldsBytes(m, flat));
            // No empty node is left behind the head, and an empty head has
            // given back its buffer.
            for (MBUF_S *n = m->pstNext; n != nullptr; n = n->pstNext) {
                EXPECT_NE(n->ulDataLen, 0u);
            }
            if (m->ulDataLen == 0) {
                EXPECT_EQ(m->ulFlag & MBUF_EXT, 0u);
            }
            MBUF_Destroy(m);
        }
    }
}

TEST_P(SpaceShapeTest, CutPartMatchesTheModel) {
    const std::vector<std::uint32_t> points = InterestingOffsets(Rows());
    for (std::uint32_t from : points) {
        for (std::uint32_t to : points) {
            if (to < from) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << from << ".." << to);
            MBUF_S *m = Build();
            Bytes flat = Flatten(m);
            ASSERT_EQ(MBUF_CutPart_fl(m, from, to - from, kFile, __LINE__), MBUF_OK);
            flat.erase(flat.begin() + from, flat.begin() + to);
            EXPECT_TRUE(PacketOk(m));
            EXPECT_TRUE(HoldsBytes(m, flat));
            MBUF_Destroy(m);
        }
    }
}

TEST_P(SpaceShapeTest, CutPartRefusesRangesBeyondTheEnd) {
    MBUF_S *m = Build();
    const Bytes flat = Flatten(m);
    const auto total = static_cast<std::uint32_t>(flat.size());
    EXPECT_EQ(MBUF_CutPart(m, total, 1), MBUF_ERR_LENGTH);
    EXPECT_EQ(MBUF_CutPart(m, total + 1, 0), MBUF_ERR_LENGTH);
    EXPECT_EQ(MBUF_CutPart(m, 1, 0xFFFFFFFFu), MBUF_ERR_LENGTH);
    EXPECT_EQ(MBUF_CutPart(m, total, 0), MBUF_OK);
    EXPECT_TRUE(HoldsBytes(m, flat));
    MBUF_Destroy(m);
}

INSTANTIATE_TEST_SUITE_P(Shapes, SpaceShapeTest, ::testing::ValuesIn(StandardShapes()), ShapeName);

class SpaceTest : public ChainTest {};

TEST_F(SpaceTest, PrependUsesAnExactFitOfHeadRoomAndMovesDataOtherwise) {
    const Bytes data = Payload(100);
    MBUF_S *m = MBUF_CreateByCopyBuffer(20, 100, data.data(), 0, kTestModule);
    ASSERT_NE(m, nullptr);
    ASSERT_NE(MBUF_PrependMemorySpace(m, 20, kTestModule), nullptr);
    EXPECT_EQ(NodeCount(m), 1u);
    EXPECT_EQ(m->pucData, m->aucHdrInlineData);
    MBUF_Destroy(m);

    m = MBUF_CreateByCopyBuffer(20, 100, data.data(), 0, kTestModule);
    ASSERT_NE(m, nullptr);
    uint8_t *p = MBUF_PrependMemorySpace(m, 21, kTestModule);
    ASSERT_NE(p, nullptr);
    std::memset(p, 0x11, 21);
    ASSERT_EQ(NodeCount(m), 2u);
    EXPECT_EQ(m->ulDataLen, 21u);
    EXPECT_EQ(p, m->pucExtBuf + MBUF_CLUSTER_SIZE - 21);
    // The old inline data moved to the start of a plain inline node.
    MBUF_S *second = m->pstNext;
    EXPECT_EQ(second->ulFlag & (MBUF_EXT | MBUF_PKTHDR), 0u);
    EXPECT_EQ(second->pucData, second->aucInlineData);
    EXPECT_EQ(Bytes(second->pucData, second->pucData + second->ulDataLen), data);
    EXPECT_EQ(m->ulTotalDataLen, 121u);
    EXPECT_TRUE(PacketOk(m));
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, PrependOntoAnExternalHeadHandsTheBufferToTheNewNode) {
    MBUF_S *m = BuildChain({ClusterNode(500, 10), InlineNode(30)});
    ASSERT_NE(m, nullptr);
    uint8_t *oldBuf = m->pucExtBuf;
    MBUF_S *oldSecond = m->pstNext;
    ASSERT_NE(MBUF_PrependMemorySpace_fl(m, 11, kTestModule, kFile, __LINE__), nullptr);
    MBUF_S *moved = m->pstNext;
    EXPECT_EQ(moved->pucExtBuf, oldBuf);
    EXPECT_EQ(moved->ulExtSize, MBUF_CLUSTER_SIZE);
    EXPECT_EQ(moved->pucData, oldBuf + 10);
    EXPECT_EQ(moved->pstNext, oldSecond);
    EXPECT_NE(m->pucExtBuf, oldBuf);
    EXPECT_TRUE(PacketOk(m));
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, RoomLockMakesPrependAndExternalAppendAddANode) {
    MBUF_S *m = BuildChain({InlineNode(10, 100)});
    ASSERT_NE(m, nullptr);
    m->ulFlag |= MBUF_ROOMLOCK;
    ASSERT_NE(MBUF_PrependMemorySpace(m, 4, kTestModule), nullptr);
    EXPECT_EQ(NodeCount(m), 2u);
    m->ulFlag &= ~MBUF_ROOMLOCK;
    MBUF_Destroy(m);

    // An inline last node is used whatever the lock says; an external one
    // is not.
    m = BuildChain({InlineNode(10)});
    ASSERT_NE(m, nullptr);
    m->ulFlag |= MBUF_ROOMLOCK;
    ASSERT_NE(MBUF_AppendMemorySpace(m, 4, kTestModule), nullptr);
    EXPECT_EQ(NodeCount(m), 1u);
    MBUF_Destroy(m);

    m = BuildChain({InlineNode(10), ClusterNode(10)});
    ASSERT_NE(m, nullptr);
    m->pstNext->ulFlag |= MBUF_ROOMLOCK;
    ASSERT_NE(MBUF_AppendMemorySpace(m, 4, kTestModule), nullptr);
    EXPECT_EQ(NodeCount(m), 3u);
    EXPECT_TRUE(PacketOk(m));
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, AppendedNodeTakesTheLastNodesTypeAlsoAsReferenceCount) {
    MBUF_S *m = BuildChain({InlineNode(10), ClusterNode(MBUF_CLUSTER_SIZE)});
    ASSERT_NE(m, nullptr);
    m->pstNext->usType = 7;
    uint8_t *p = MBUF_AppendMemorySpace(m, 30, kTestModule);
    ASSERT_NE(p, nullptr);
    MBUF_S *added = m->pstNext->pstNext;
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(p, added->pucExtBuf);
    EXPECT_EQ(added->usType, 7u);
    EXPECT_EQ(added->ulExtRefCnt, 7u);
    EXPECT_EQ(added->ulExtSize, MBUF_CLUSTER_SIZE);
    EXPECT_EQ(added->ulFlag, MBUF_EXT);
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, GrowingRefusesBadArgumentsAndChangesNothing) {
    MBUF_S *m = BuildChain({InlineNode(10, 40)});
    ASSERT_NE(m, nullptr);
    const Bytes flat = Flatten(m);
    EXPECT_EQ(MBUF_PrependMemorySpace(m, MBUF_GROW_MAX_LEN + 1, kTestModule), nullptr);
    EXPECT_EQ(MBUF_AppendMemorySpace(m, MBUF_GROW_MAX_LEN + 1, kTestModule), nullptr);
    EXPECT_EQ(MBUF_PrependMemorySpace(nullptr, 1, kTestModule), nullptr);
    EXPECT_EQ(MBUF_AppendMemorySpace(nullptr, 1, kTestModule), nullptr);
    EXPECT_TRUE(HoldsBytes(m, flat));
    EXPECT_EQ(NodeCount(m), 1u);
    // A plain node is not a packet.
    m->ulFlag &= ~MBUF_PKTHDR;
    EXPECT_EQ(MBUF_PrependMemorySpace(m, 1, kTestModule), nullptr);
    EXPECT_EQ(MBUF_AppendMemorySpace(m, 1, kTestModule), nullptr);
    EXPECT_EQ(MBUF_CutHead(m, 1), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_CutTail(m, 1), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_CutPart(m, 0, 1), MBUF_ERR_INVALID_MBUF);
    EXPECT_EQ(MBUF_CutHead(nullptr, 1), MBUF_ERR_INVALID_MBUF);
    m->ulFlag |= MBUF_PKTHDR;
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, CuttingMoreThanThePacketHoldsEmptiesIt) {
    for (bool head : {true, false}) {
        MBUF_S *m = BuildChain({ClusterNode(100), InlineNode(200), ClusterNode(300)});
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(head ? MBUF_CutHead(m, 0xFFFFFFFFu) : MBUF_CutTail(m, 0xFFFFFFFFu), MBUF_OK);
        EXPECT_EQ(m->ulTotalDataLen, 0u);
        EXPECT_EQ(m->pstNext, nullptr);
        EXPECT_EQ(m->ulFlag & MBUF_EXT, 0u);
        EXPECT_TRUE(PacketOk(m));
        MBUF_Destroy(m);
    }
}

TEST_F(SpaceTest, HeadCutEmptyingTwoOfThreeNodesLeavesHeadAndThird) {
    MBUF_S *m = BuildChain({ClusterNode(100), InlineNode(200), InlineNode(300)});
    ASSERT_NE(m, nullptr);
    MBUF_S *third = m->pstNext->pstNext;
    ASSERT_EQ(MBUF_CutHead(m, 300), MBUF_OK);
    EXPECT_EQ(m->pstNext, third);
    EXPECT_EQ(m->ulDataLen, 0u);
    EXPECT_EQ(m->pucData, m->aucHdrInlineData);
    EXPECT_TRUE(HoldsBytes(m, Payload(300, 0, 300)));
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, FrontCutOnALaterNodeLeavesEmptiedNodesAndTheTotal) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(20), InlineNode(30)});
    ASSERT_NE(m, nullptr);
    MBUF_CutDataBySpecifiedLength(m->pstNext, 25, nullptr);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{10, 0, 25}));
    EXPECT_EQ(m->ulTotalDataLen, 60u);  // not a packet head: no total kept
    m->ulTotalDataLen = 35;
    EXPECT_TRUE(PacketOk(m));
    // From the head, the chain running out first takes only what was there.
    MBUF_CutDataBySpecifiedLength(m, 1000, nullptr);
    EXPECT_EQ(m->ulTotalDataLen, 0u);
    EXPECT_EQ(NodeCount(m), 3u);
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, TailCutWithinTheLastNodeKeepsEveryNode) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(0), InlineNode(30)});
    ASSERT_NE(m, nullptr);
    MBUF_CutDataBySpecifiedLength(m, -30, nullptr);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{10, 0, 0}));
    EXPECT_EQ(m->ulTotalDataLen, 10u);
    MBUF_CutDataBySpecifiedLength(m, -4, nullptr);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{6}));
    EXPECT_TRUE(HoldsBytes(m, Payload(6)));
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, CutPartWithinOneNodeSkipsTheCleanUp) {
    MBUF_S *m = BuildChain({ClusterNode(10), InlineNode(0), InlineNode(30)});
    ASSERT_NE(m, nullptr);
    // The whole head: the cut lies within it, so nothing is tidied.
    ASSERT_EQ(MBUF_CutPart(m, 0, 10), MBUF_OK);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{0, 0, 30}));
    EXPECT_NE(m->ulFlag & MBUF_EXT, 0u);
    EXPECT_TRUE(PacketOk(m));
    // Across nodes the clean-up runs: the empty head gives back its buffer
    // and the empty node goes.
    ASSERT_EQ(MBUF_CutPart(m, 0, 5), MBUF_OK);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{0, 25}));
    EXPECT_EQ(m->ulFlag & MBUF_EXT, 0u);
    EXPECT_TRUE(HoldsBytes(m, Payload(25, 0, 15)));
    // An offset at a node's end starts the cut there.
    MBUF_S *n = BuildChain({InlineNode(10), InlineNode(20), InlineNode(30)});
    ASSERT_EQ(MBUF_CutPart(n, 10, 20), MBUF_OK);
    EXPECT_EQ(NodeLengths(n), (std::vector<std::uint32_t>{10, 30}));
    MBUF_Destroy(n);
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, CutPartReportsAChainShorterThanItsTotal) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(20)});
    ASSERT_NE(m, nullptr);
    m->ulTotalDataLen = 100;  // a packet whose length lies
    EXPECT_EQ(MBUF_CutPart(m, 50, 1), MBUF_ERR_CHAIN_END);
    m->ulTotalDataLen = 30;
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, CleanUpDropsStrayHeaderFlagsAndEmptyNodesWhateverNoFree) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(0), InlineNode(5)});
    ASSERT_NE(m, nullptr);
    uint32_t capacity = 0;
    MBUF_S *stray = MBUF_AllocateMBufHeader_fl(0, 0, &capacity, kTestModule, kFile, __LINE__);
    ASSERT_NE(stray, nullptr);
    stray->ulDataLen = 3;
    m->pstNext->pstNext->pstNext = stray;
    m->ulTotalDataLen += 3;
    m->pstNext->ulFlag |= MBUF_NOFREE;
    MBUF_FreeNoUseMemory_fl(m, kFile, __LINE__);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{10, 5, 3}));
    EXPECT_EQ(stray->ulFlag & MBUF_PKTHDR, 0u);
    EXPECT_TRUE(PacketOk(m));
    MBUF_FreeNoUseMemory_fl(nullptr, kFile, __LINE__);
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, CutContinueHeadMovesTheFrontOfOneNode) {
    MBUF_S *m = BuildChain({InlineNode(10), InlineNode(20)});
    ASSERT_NE(m, nullptr);
    MBUF_CutContinueHead(m, 4);
    MBUF_CutContinueHead(m->pstNext, 20);
    EXPECT_EQ(NodeLengths(m), (std::vector<std::uint32_t>{6, 0}));
    EXPECT_EQ(m->ulTotalDataLen, 26u);  // the plain node's cut is not counted
    m->ulTotalDataLen = 6;
    EXPECT_TRUE(HoldsBytes(m, Payload(6, 0, 4)));
    MBUF_CutContinueHead(nullptr, 1);
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, WrappersAttributeTheirAllocationsToThemselves) {
    MBUF_S *m = BuildChain({InlineNode(MBUF_PKTHDR_INLINE_LEN)});
    ASSERT_NE(m, nullptr);
    ASSERT_NE(MBUF_PrependMemorySpace(m, 10, kTestModule), nullptr);
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(m->pucExtBuf, &info), 0u);
    EXPECT_STREQ(info.pcFile, "MBUF_PrependMemorySpace");
    EXPECT_EQ(info.ulLine, 97u);
    EXPECT_EQ(info.ulOwner, kTestModule);
    ASSERT_NE(MBUF_AppendMemorySpace(m, MBUF_GROW_MAX_LEN, kTestModule), nullptr);
    MBUF_S *last = m;
    while (last->pstNext != nullptr) {
        last = last->pstNext;
    }
    ASSERT_EQ(KRM_HOST_BufferInfo(last->pucExtBuf, &info), 0u);
    EXPECT_STREQ(info.pcFile, "MBUF_AppendMemorySpace");
    EXPECT_EQ(info.ulLine, 91u);
    MBUF_Destroy(m);
}

TEST_F(SpaceTest, GrowingIntoANewNodeFailsCleanlyAtEveryAllocation) {
    for (bool prepend : {true, false}) {
        MBUF_S *m = nullptr;
        Bytes flat;
        uint8_t *p = nullptr;
        const SweepResult result = FaultSweep({
            [&] {
                m = BuildChain(
                    {InlineNode(MBUF_PKTHDR_INLINE_LEN), InlineNode(MBUF_PLAIN_INLINE_LEN)});
                flat = Flatten(m);
            },
            [&] {
                p = prepend ? MBUF_PrependMemorySpace(m, 54, kTestModule)
                            : MBUF_AppendMemorySpace(m, 54, kTestModule);
                return p != nullptr;
            },
            [&] {
                EXPECT_TRUE(HoldsBytes(m, flat));
                EXPECT_TRUE(PacketOk(m));
                MBUF_Destroy(m);
            },
            [&] {
                EXPECT_EQ(m->ulTotalDataLen, flat.size() + 54);
                MBUF_Destroy(m);
            },
        });
        EXPECT_EQ(result.failedRuns, 2u);  // the node and its cluster
    }
}

}  // namespace
}  // namespace krm::test
