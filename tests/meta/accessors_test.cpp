// The common-record accessors and the three flag words. Offsets below are
// the documented wire offsets, written out independently of the structure
// the library uses, so a layout slip shows up here.
#include <cstring>
#include <vector>

#include "internal/bytes.h"
#include "meta_support.h"

namespace krm::metatest {
namespace {

struct PairCase {
    const char *pcName;
    uint32_t (*pfGet)(MBUF_S *);
    MBUF_CTL_COMM_S *(*pfSet)(MBUF_S *, uint32_t);
    uint32_t ulOffset;
    uint32_t ulWidth;
    uint32_t ulFresh;  // value on a fresh block
};

#define KRM_PAIR(stem, off, width, fresh) \
    { #stem, MBUF_Get##stem, MBUF_Set##stem, off, width, fresh }
const PairCase kPairs[] = {
    KRM_PAIR(VrId, 4, 4, 0),
    KRM_PAIR(VrfId, 8, 4, 0),
    KRM_PAIR(ReceiveIfIndex, 12, 4, 0),
    KRM_PAIR(ReceivePhyIfIndex, 16, 4, 0),
    KRM_PAIR(SendIfIndex, 20, 4, 0),
    KRM_PAIR(PathId, 24, 4, 0xFFFFFFFFu),
    KRM_PAIR(SockId, 28, 4, 0xFFFFFFFFu),
    KRM_PAIR(ProtoType, 40, 2, 0),
    KRM_PAIR(DirectionType, 42, 2, 0),
    KRM_PAIR(TimeStamp, 44, 4, 0),
    KRM_PAIR(ExceptionId, 48, 4, 0),
    KRM_PAIR(PortGrpId, 56, 4, 0),
};
#undef KRM_PAIR

uint32_t LoadWidth(const uint8_t *p, uint32_t ulWidth) {
    return ulWidth == 2 ? krm::Load16(p) : krm::Load32(p);
}

class AccessorTest : public MetaTest {};

TEST_F(AccessorTest, PairsReadAndWriteTheirFieldOnly) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    for (const PairCase &c : kPairs) {
        SCOPED_TRACE(c.pcName);
        EXPECT_EQ(c.pfGet(pstMbuf), c.ulFresh);

        const std::vector<uint8_t> before = CommBytes(pstMbuf);
        // The high half is cut off by a 16-bit field.
        EXPECT_EQ(c.pfSet(pstMbuf, 0x12345678u), MBUF_GetControlInfo(pstMbuf, MBUF_CTL_COMM));
        const uint32_t ulStored = c.ulWidth == 2 ? 0x5678u : 0x12345678u;
        EXPECT_EQ(c.pfGet(pstMbuf), ulStored);

        std::vector<uint8_t> after = CommBytes(pstMbuf);
        EXPECT_EQ(LoadWidth(after.data() + c.ulOffset, c.ulWidth), ulStored);
        // Every other byte of the record is as it was.
        std::memcpy(after.data() + c.ulOffset, before.data() + c.ulOffset, c.ulWidth);
        EXPECT_EQ(after, before);
    }
}

TEST_F(AccessorTest, PairsWithoutBlockReadAllOnesAndStoreNothing) {
    const std::vector<uint8_t> plainBefore(reinterpret_cast<uint8_t *>(&m_stPlain),
                                           reinterpret_cast<uint8_t *>(&m_stPlain + 1));
    MBUF_S *const apstMissing[] = {nullptr, &m_stPlain, &m_stNoBlock};
    for (const PairCase &c : kPairs) {
        SCOPED_TRACE(c.pcName);
        const uint32_t ulAllOnes = c.ulWidth == 2 ? 0xFFFFu : 0xFFFFFFFFu;
        for (MBUF_S *pstMbuf : apstMissing) {
            EXPECT_EQ(c.pfGet(pstMbuf), ulAllOnes);
            EXPECT_EQ(c.pfSet(pstMbuf, 7), nullptr);
        }
    }
    const std::vector<uint8_t> plainAfter(reinterpret_cast<uint8_t *>(&m_stPlain),
                                          reinterpret_cast<uint8_t *>(&m_stPlain + 1));
    EXPECT_EQ(plainAfter, plainBefore);
    EXPECT_EQ(m_stNoBlock.pstCtlInfo, nullptr);
}

TEST_F(AccessorTest, PacketFlagWordLivesInTheCommonRecord) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(MBUF_GetFlag(pstMbuf), 0u);
    EXPECT_EQ(MBUF_SetFlag(pstMbuf, 0x81u), 0x81u);
    EXPECT_EQ(MBUF_SetFlag(pstMbuf, 0x100u), 0x181u);
    EXPECT_EQ(MBUF_ClearFlag(pstMbuf, 0x80u), 0x101u);
    EXPECT_EQ(krm::Load32(CommBytes(pstMbuf).data()), 0x101u);
    EXPECT_EQ(MBUF_TestFlag1(pstMbuf, 0x100u), 1u);
    EXPECT_EQ(MBUF_TestFlag1(pstMbuf, 0x180u), 1u);  // any bit of the mask
    EXPECT_EQ(MBUF_TestFlag1(pstMbuf, 0x80u), 0u);
    EXPECT_EQ(MBUF_GetFlag(pstMbuf), 0x101u);
    // The node's own flag words are other words.
    EXPECT_EQ(pstMbuf->ulFlag2, 0u);
    EXPECT_EQ(pstMbuf->ulFlag3, 0u);

    for (MBUF_S *pstMissing : {static_cast<MBUF_S *>(nullptr), &m_stPlain, &m_stNoBlock}) {
        EXPECT_EQ(MBUF_GetFlag(pstMissing), 0xFFFFFFFFu);
        EXPECT_EQ(MBUF_SetFlag(pstMissing, 1), 0u);
        EXPECT_EQ(MBUF_ClearFlag(pstMissing, 1), 0u);
        EXPECT_EQ(MBUF_TestFlag1(pstMissing, 0xFFFFFFFFu), 0u);
    }
}

TEST_F(AccessorTest, Flag2IsReadOnAnyNodeButWrittenOnlyOnAHeader) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(MBUF_SetFlag2(pstMbuf, 0x30u), 0);
    EXPECT_EQ(MBUF_ClearFlag2(pstMbuf, 0x10u), 0);
    EXPECT_EQ(pstMbuf->ulFlag2, 0x20u);
    EXPECT_EQ(MBUF_GetFlag2(pstMbuf), 0x20u);
    EXPECT_EQ(MBUF_TestFlag2(pstMbuf, 0x21u), 1u);
    EXPECT_EQ(MBUF_TestFlag2(pstMbuf, 0x10u), 0u);

    // A plain node's word at the same place is read, never written.
    m_stPlain.ulFlag2 = 0x5A5A0000u;
    EXPECT_EQ(MBUF_GetFlag2(&m_stPlain), 0x5A5A0000u);
    EXPECT_EQ(MBUF_TestFlag2(&m_stPlain, 0xFFFFFFFFu), 0u);
    EXPECT_EQ(MBUF_SetFlag2(&m_stPlain, 1), -1);
    EXPECT_EQ(MBUF_ClearFlag2(&m_stPlain, 0xFFFFFFFFu), -1);
    EXPECT_EQ(m_stPlain.ulFlag2, 0x5A5A0000u);

    // Without a block the word is still the node's.
    EXPECT_EQ(MBUF_SetFlag2(&m_stNoBlock, 4), 0);
    EXPECT_EQ(MBUF_GetFlag2(&m_stNoBlock), 4u);

    EXPECT_EQ(MBUF_GetFlag2(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(MBUF_TestFlag2(nullptr, 1), 0u);
    EXPECT_EQ(MBUF_SetFlag2(nullptr, 1), -1);
    EXPECT_EQ(MBUF_ClearFlag2(nullptr, 1), -1);
}

TEST_F(AccessorTest, Flag3IsAddressedByBitNumber) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    for (uint32_t ulBit : {0u, 5u, 31u}) {
        SCOPED_TRACE(ulBit);
        EXPECT_EQ(MBUF_TestFlag3(pstMbuf, ulBit), 0u);
        EXPECT_EQ(MBUF_SetFlag3(pstMbuf, ulBit), 0);
        EXPECT_EQ(MBUF_TestFlag3(pstMbuf, ulBit), 1u);
    }
    EXPECT_EQ(pstMbuf->ulFlag3, 0x80000021u);
    EXPECT_EQ(MBUF_ClearFlag3(pstMbuf, 5), 0);
    EXPECT_EQ(pstMbuf->ulFlag3, 0x80000001u);
    EXPECT_EQ(MBUF_TestFlag3(pstMbuf, 5), 0u);

    EXPECT_EQ(MBUF_SetFlag3(pstMbuf, 32), -1);
    EXPECT_EQ(MBUF_ClearFlag3(pstMbuf, 32), -1);
    EXPECT_EQ(MBUF_TestFlag3(pstMbuf, 32), 0u);
    EXPECT_EQ(pstMbuf->ulFlag3, 0x80000001u);

    m_stPlain.ulFlag3 = 0xFFFFFFFFu;
    EXPECT_EQ(MBUF_TestFlag3(&m_stPlain, 0), 0u);
    EXPECT_EQ(MBUF_SetFlag3(&m_stPlain, 0), -1);
    EXPECT_EQ(MBUF_ClearFlag3(&m_stPlain, 0), -1);
    EXPECT_EQ(m_stPlain.ulFlag3, 0xFFFFFFFFu);
    EXPECT_EQ(MBUF_TestFlag3(nullptr, 0), 0u);
    EXPECT_EQ(MBUF_SetFlag3(nullptr, 0), -1);
    EXPECT_EQ(MBUF_ClearFlag3(nullptr, 0), -1);
}

TEST_F(AccessorTest, PriorityAndProductTypeHaveTheirOwnShapes) {
    MBUF_S *pstMbuf = NewPacket();
    ASSERT_NE(pstMbuf, nullptr);
    EXPECT_EQ(MBUF_GetPktPriority(pstMbuf), 0u);
    MBUF_SetPktPriority(pstMbuf, 0xABCD0007u);
    EXPECT_EQ(MBUF_GetPktPriority(pstMbuf), 7u);
    EXPECT_EQ(krm::Load16(CommBytes(pstMbuf).data() + 64), 7u);
    EXPECT_EQ(krm::Load16(CommBytes(pstMbuf).data() + 66), 0u);

    uint32_t ulValue = 99;
    EXPECT_EQ(MBUF_GetProductProtoType(pstMbuf, &ulValue), 0);
    EXPECT_EQ(ulValue, 0u);
    EXPECT_EQ(MBUF_SetProductProtoType(pstMbuf, 0xC0FFEEu), 0);
    EXPECT_EQ(MBUF_GetProductProtoType(pstMbuf, &ulValue), 0);
    EXPECT_EQ(ulValue, 0xC0FFEEu);
    EXPECT_EQ(krm::Load32(CommBytes(pstMbuf).data() + 80), 0xC0FFEEu);
    EXPECT_EQ(MBUF_GetProductProtoType(pstMbuf, nullptr), -1);

    for (MBUF_S *pstMissing : {static_cast<MBUF_S *>(nullptr), &m_stPlain, &m_stNoBlock}) {
        EXPECT_EQ(MBUF_GetPktPriority(pstMissing), 0xFFFFu);
        MBUF_SetPktPriority(pstMissing, 1);  // must not crash or write
        EXPECT_EQ(MBUF_SetProductProtoType(pstMissing, 1), -1);
        ulValue = 99;
        EXPECT_EQ(MBUF_GetProductProtoType(pstMissing, &ulValue), -1);
        EXPECT_EQ(ulValue, 0u);
    }
}

}  // namespace
}  // namespace krm::metatest
