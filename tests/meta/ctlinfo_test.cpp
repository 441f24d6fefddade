// The control-information block: typed records, the TLV records and their
// searches, the tags underneath (placement, growth, release, copies), the
// allocation site every wrapper stamps, and every allocating operation of
// the family failed at each of its allocations.
#include <algorithm>
#include <cstring>

#include "fault_sweep.h"
#include "internal/bytes.h"
#include "meta_support.h"

namespace krm::metatest {
namespace {

using krm::Load32At;
using krm::Store16At;

bool Inline(const MBUF_S *m) {
    return m->pstCtlInfo == &m->stCtlInfo.stBlk;
}

std::uint8_t *Tag(MBUF_S *m, std::uint32_t type, std::uint32_t len) {
    return static_cast<std::uint8_t *>(MBUF_CreatePktTag(m, type, len, 0, kModule, "tag", 5));
}

class CtlInfoTest : public MetaTest {};

TEST_F(CtlInfoTest, InitResetsTheFixedPartOnly) {
    std::uint8_t raw[MBUF_CTLINFO_INLINE_LEN];
    std::memset(raw, 0xC3, sizeof(raw));
    auto *blk = reinterpret_cast<MBUF_CONTROL_BLK_S *>(raw);
    EXPECT_EQ(MBUF_InitControlInfo(blk), 0u);
    // Path and socket read "none"; the head word holds mark, byte order,
    // slot count and record count from the high byte down.
    const Bytes fixed = Cat({Bytes(24, 0), U32(0xFFFFFFFFu), U32(0xFFFFFFFFu), Bytes(52, 0),
                             U32(0x40001700u | (MBUF_BYTEORDER_HOST << 16)), U16(0), U16(264),
                             Bytes(92, 0), Bytes(sizeof(raw) - MBUF_CTL_FIXED_LEN, 0xC3)});
    EXPECT_EQ(Bytes(raw, raw + sizeof(raw)), fixed);
    EXPECT_NE(MBUF_InitControlInfo(nullptr), 0u);
}

TEST_F(CtlInfoTest, CreatePlacesZeroFilledRecordsRoundedToEight) {
    MBUF_S *m = NewPacket();
    auto *base = reinterpret_cast<std::uint8_t *>(m->pstCtlInfo);
    EXPECT_EQ(MBUF_GetControlInfo(m, MBUF_CTL_COMM), base);
    // A new record must not inherit what the area held before.
    std::memset(base + MBUF_CTL_FIXED_LEN, 0xA5, MBUF_CTL_INIT_CAPACITY);
    ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_PREVHOP, 1, kModule), MBUF_OK);
    ASSERT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_IP, 20, kModule), MBUF_OK);
    ExpectValid(m);
    EXPECT_EQ(Rec(m, MBUF_CTL_PREVHOP), base + MBUF_CTL_FIXED_LEN);
    EXPECT_EQ(Rec(m, MBUF_CTL_IP), base + MBUF_CTL_FIXED_LEN + 8);
    EXPECT_EQ(
        (Seq{MBUF_GetControlLen(m, MBUF_CTL_IP), m->pstCtlInfo->usUsedLen, Load32At(base, 84)}),
        (Seq{24, 32, 0x40001702u | (MBUF_BYTEORDER_HOST << 16)}));
    EXPECT_EQ(Bytes(base + MBUF_CTL_FIXED_LEN, base + MBUF_CTL_FIXED_LEN + 33),
              Cat({Bytes(32, 0), {0xA5}}));

    Rec(m, MBUF_CTL_IP)[0] = 0x42;
    EXPECT_EQ((Seq{MBUF_CreateControlInfo(m, MBUF_CTL_IP, 8, kModule),
                   MBUF_CreateControlInfo(m, 23, 8, kModule),
                   MBUF_CreateControlInfo(m, MBUF_CTL_COMM, 8, kModule),
                   MBUF_CreateControlInfo(nullptr, 2, 8, kModule),
                   MBUF_CreateControlInfo(&m_stPlain, 2, 8, kModule), m->pstCtlInfo->ucRecNum}),
              (Seq{MBUF_ERR_CTL_EXISTS, MBUF_ERR_CTL_NO_ROOM, MBUF_OK, MBUF_ERR_INVALID_MBUF,
                   MBUF_ERR_INVALID_MBUF, 2}));
    EXPECT_EQ(Rec(m, MBUF_CTL_IP)[0], 0x42) << "an existing record is never replaced";
    ExpectValid(m);
}

TEST_F(CtlInfoTest, DeletionFreesTheSlotNotTheBytesAndResetsTheCommonRecord) {
    MBUF_S *m = NewPacket();
    ASSERT_NE(AddRecord(m, MBUF_CTL_IPSEC, 8), nullptr);
    ASSERT_NE(AddRecord(m, MBUF_CTL_VSIMAC, 16), nullptr);
    const std::uint16_t first = m->pstCtlInfo->astSlot[MBUF_CTL_IPSEC].usOffset;
    MBUF_DeleteControlInfo(m, MBUF_CTL_IPSEC);
    // Deleting what is absent or out of range changes nothing.
    MBUF_DeleteControlInfo(m, MBUF_CTL_IPSEC);
    MBUF_DeleteControlInfo(m, 23);
    ExpectValid(m);
    EXPECT_EQ(Rec(m, MBUF_CTL_IPSEC), nullptr);
    // Deletion reclaims nothing: the record made anew goes behind.
    EXPECT_EQ((Seq{m->pstCtlInfo->ucRecNum, m->pstCtlInfo->usUsedLen}), (Seq{1, 24}));
    ASSERT_NE(AddRecord(m, MBUF_CTL_IPSEC, 8), nullptr);
    EXPECT_EQ(m->pstCtlInfo->astSlot[MBUF_CTL_IPSEC].usOffset, first + 24);
    ExpectValid(m);

    auto *comm = static_cast<MBUF_CTL_COMM_S *>(MBUF_GetControlInfo(m, MBUF_CTL_COMM));
    comm->ulVrfId = 9;
    comm->ulPathId = 3;
    comm->usPktPriority = 6;
    m->ulFlag2 = 0x55;
    m->ulFlag3 = 0x66;
    MBUF_DeleteControlInfo(m, MBUF_CTL_COMM);
    EXPECT_EQ((Seq{comm->ulVrfId, comm->usPktPriority, comm->ulPathId, m->ulFlag2, m->ulFlag3}),
              (Seq{0, 0, 0xFFFFFFFF, 0, 0x66}));
    EXPECT_NE(Rec(m, MBUF_CTL_VSIMAC), nullptr);
    ExpectValid(m);
}

TEST_F(CtlInfoTest, MeasuringByTypeTableSlotOrTlvList) {
    MBUF_S *m = NewPacket();
    ASSERT_NE(AddRecord(m, MBUF_CTL_APP, 10), nullptr);
    AddRecordBytes(m, MBUF_CTL_PACKET, TlvRecord(SubTlv(7, {1, 2, 3, 4, 5, 6})));
    AddRecordBytes(m, MBUF_CTL_PKTSEND, TlvRecord(SubTlv(7, {1, 2, 3})));
    struct Case {
        std::uint32_t type;
        std::uint32_t ctlLen;
        std::uint32_t controlLen;
    };
    const Case cases[] = {
        {MBUF_CTL_COMM, 84, 0},      // fixed, although slot 0 is never used
        {MBUF_CTL_FERX, 52, 0},      //
        {MBUF_CTL_APP, 16, 16},      // variable: the slot
        {MBUF_CTL_IPOPTION, 0, 0},   // variable and absent
        {MBUF_CTL_PACKET, 14, 16},   // list + 4, not the rounded slot
        {MBUF_CTL_PKTSEND, 16, 16},  // a TLV record measured by its slot
        {23, 0, 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(MBUF_GetCtlLen(m, c.type), c.ctlLen) << c.type;
        EXPECT_EQ(MBUF_GetControlLen(m, c.type), c.controlLen) << c.type;
    }
}

// A received block is looked up by slot lengths and the record count alone.
TEST_F(CtlInfoTest, BareBlockLookupTrustsLengthsAndRecordCount) {
    MBUF_S *m = NewPacket();
    for (std::uint32_t type : {3u, 5u, 9u}) {
        ASSERT_NE(AddRecord(m, type, 8), nullptr);
    }
    MBUF_CONTROL_BLK_S *blk = m->pstCtlInfo;
    auto *base = reinterpret_cast<std::uint8_t *>(blk);
    struct Case {
        std::uint8_t recNum;
        std::uint32_t type;
        void *expected;
    };
    const Case cases[] = {
        {3, 0, blk},      {3, 3, base + blk->astSlot[3].usOffset},
        {3, 4, nullptr},                    // empty slot before the last record
        {3, 10, nullptr},                   // all records passed
        {3, 23, nullptr}, {2, 9, nullptr},  // the count says record 9 is not there
    };
    for (const Case &c : cases) {
        blk->ucRecNum = c.recNum;
        EXPECT_EQ(Mbuf_GetControlInfoByTagMsg(blk, c.type), c.expected)
            << "records " << int{c.recNum} << " type " << c.type;
    }
    blk->ucRecNum = 3;
    blk->astSlot[5].usLen = 0;  // offset kept, length gone: absent to this walk
    EXPECT_EQ(Mbuf_GetControlInfoByTagMsg(blk, 5), nullptr);
    blk->astSlot[5].usLen = 8;
    EXPECT_EQ(Mbuf_GetControlInfoByTagMsg(nullptr, 0), nullptr);
}

TEST_F(CtlInfoTest, PacketWithoutBlockGetsOneAttributedToTheCaller) {
    MBUF_S *m = NewPacket();
    ASSERT_NE(AddRecord(m, MBUF_CTL_STACKDEBUG, 400), nullptr);
    MBUF_DeletePktTag(m, nullptr);
    ASSERT_EQ(MBUF_CreateControlInfo_fl(m, MBUF_CTL_COMM, 0, kModule, "caller", 77), MBUF_OK);
    EXPECT_EQ(Reports(), std::vector<Report>{AssertReportNoText("krm_mbuf_bas", 1205)});
    ASSERT_NE(m->pstCtlInfo, nullptr);
    EXPECT_EQ(krm::test::SiteOf(m->pstCtlInfo), krm::test::Site("caller", 77, kModule));
    EXPECT_EQ((Seq{BufInfo(m->pstCtlInfo).ulLen, m->pstCtlInfo->usCapacity}),
              (Seq{MBUF_CTLINFO_INLINE_LEN, MBUF_CTL_INIT_CAPACITY}));
    ExpectValid(m);
}

// ---- TLV records --------------------------------------------------------------------------

// The two searches of a TLV record, the records they serve and the line
// each report of an overlong sub-TLV carries.
struct Search {
    const char *name;
    std::uint32_t recType;
    std::uint32_t reportLine;
};
const Search kSearches[] = {{"link stack", MBUF_CTL_LINK, 3346},
                            {"packet send", MBUF_CTL_PKTSEND, 3396},
                            {"packet", MBUF_CTL_PACKET, 3396}};

const void *Find(const Search &s, MBUF_S *m, std::uint16_t type) {
    return s.recType == MBUF_CTL_LINK ? MBUF_BAS_GetMbufLinkStackByType(m, type)
                                      : MBUF_BAS_GetMbufLev2TlvByType(m, s.recType, type);
}

TEST_F(CtlInfoTest, EverySearchStopsAtTheListAndReportsAnOverlongSubTlv) {
    const Bytes list = Cat({SubTlv(1, {0xA, 0xB}), SubTlv(5, {}), SubTlv(7, {1, 2, 3})});
    for (const Search &s : kSearches) {
        SCOPED_TRACE(s.name);
        KRM_HOST_ReportClear();
        MBUF_S *m = NewPacket();
        EXPECT_EQ(Find(s, m, 1), nullptr) << "record absent";
        std::uint8_t *rec = AddRecordBytes(m, s.recType, TlvRecord(list));
        ExpectValid(m);
        // Sub-type and offset of what each search finds; the alias and the
        // dispatcher find the same.
        for (const auto &[type, offset] :
             {std::pair<std::uint16_t, int>{1, 4}, {5, 10}, {7, 14}, {9, -1}}) {
            const std::uint8_t *at = offset < 0 ? nullptr : rec + offset;
            EXPECT_EQ(Find(s, m, type), at) << type;
            EXPECT_EQ(MBUF_GetControlTlvInfo(m, s.recType, type), at) << type;
            if (s.recType == MBUF_CTL_LINK) {
                EXPECT_EQ(static_cast<const void *>(MBUF_GetMbufLinkStackByType(m, type)), at)
                    << type;
            }
        }
        // A list shorter than a sub-TLV head is empty, not corrupt.
        for (std::uint16_t len = 0; len < 4; ++len) {
            Store16At(rec, 2, len);
            EXPECT_EQ(Find(s, m, 1), nullptr) << "list " << len;
        }
        EXPECT_TRUE(Reports().empty());
        // The last sub-TLV claims one byte more than is left.
        Store16At(rec, 2, static_cast<std::uint16_t>(list.size()));
        Store16At(rec, 16, 4);
        EXPECT_EQ(Find(s, m, 7), nullptr);
        EXPECT_EQ(Reports(),
                  std::vector<Report>{AssertReport("krm_mbuf", s.reportLine, "T 7 ML 7 TL 8")});
        // The list length, not the slot (24 bytes), leads the walk: a sub-TLV
        // behind the slot is found, and an overlong one is reported with
        // what the list says is left.
        KRM_HOST_ReportClear();
        Store16At(rec, 16, 3);
        std::uint8_t *blockEnd = reinterpret_cast<std::uint8_t *>(m->pstCtlInfo) + 448;
        std::fill(rec + 21, blockEnd, std::uint8_t{0});
        const Bytes behind = SubTlv(9, {0xC});
        std::copy(behind.begin(), behind.end(), rec + 21);
        Store16At(rec, 2, static_cast<std::uint16_t>(list.size() + behind.size()));
        EXPECT_EQ(Find(s, m, 9), rec + 21);
        Store16At(rec, 2, 0xFFFF);
        Store16At(rec, 23, 0xFFF0);
        EXPECT_EQ(Find(s, m, 9), nullptr);
        EXPECT_EQ(Reports(), std::vector<Report>{
                                 AssertReport("krm_mbuf", s.reportLine, "T 9 ML 65518 TL 65524")});
        // Zero sub-TLVs up to the block's end: the walk ends there unreported.
        KRM_HOST_ReportClear();
        Store16At(rec, 23, 1);
        EXPECT_EQ(Find(s, m, 0x77), nullptr);
        EXPECT_TRUE(Reports().empty());
    }
}

// Record 22 never grows in place: a sub-TLV of a type and length already
// there is overwritten, any other is appended by creating the record anew
// behind everything the block holds.
TEST_F(CtlInfoTest, StoringASubTlvOverwritesOrAppends) {
    MBUF_S *m = NewPacket();
    const Bytes a = SubTlv(9, {1, 2, 3, 4, 5, 6});
    const Bytes b = SubTlv(9, {7, 7, 7, 7, 7, 7});
    const Bytes c = SubTlv(9, {2, 2, 2});
    const Bytes d = SubTlv(3, {});
    struct Step {
        const char *name;
        Bytes tlv;
        bool inPlace;
        Bytes list;  // as the record must hold it afterwards
    };
    const Step steps[] = {
        {"first creates the record", a, false, a},
        {"same type and length overwrites", b, true, b},
        {"other length appends", c, false, Cat({b, c})},
        {"other type appends", d, false, Cat({b, c, d})},
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.name);
        const std::uint32_t usedBefore = m->pstCtlInfo->usUsedLen;
        const std::uint16_t offsetBefore = m->pstCtlInfo->astSlot[MBUF_CTL_PACKET].usOffset;
        ASSERT_EQ(MBUF_SetTlvInfo(m, kModule, AsTlv(s.tlv)), 0);
        ExpectValid(m);
        const auto len = static_cast<std::uint32_t>(s.list.size()) + 4;
        const std::uint8_t *rec = Rec(m, MBUF_CTL_PACKET);
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(Bytes(rec, rec + len), TlvRecord(s.list));
        EXPECT_EQ((Seq{MBUF_GetCtlLen(m, MBUF_CTL_PACKET), MBUF_GetControlLen(m, MBUF_CTL_PACKET),
                       m->pstCtlInfo->ucRecNum, m->pstCtlInfo->astSlot[MBUF_CTL_PACKET].usOffset}),
                  (Seq{len, (len + 7) & ~7u, 1,
                       s.inPlace ? offsetBefore : MBUF_CTL_FIXED_LEN + usedBefore}));
    }
    // The search for a stored sub-TLV matches type and length.
    const std::uint8_t *rec = Rec(m, MBUF_CTL_PACKET);
    const auto find = [m](const Bytes &tlv) { return MBUF_GetTlvInfo(m, AsTlv(tlv)); };
    EXPECT_EQ(static_cast<const void *>(find(SubTlv(9, Zeros(6)))), rec + 4);
    EXPECT_EQ(static_cast<const void *>(find(SubTlv(9, Zeros(3)))), rec + 14);
    EXPECT_EQ(find(SubTlv(9, Zeros(2))), nullptr);
    EXPECT_EQ(find(SubTlv(9, Zeros(7))), nullptr);
    EXPECT_EQ(MBUF_GetTlvInfo(m, nullptr), nullptr);
    // Records that are not TLV lists are returned whole, sub-type ignored.
    const std::uint8_t *mpls = AddRecord(m, MBUF_CTL_MPLS, 108);
    EXPECT_EQ(MBUF_GetControlTlvInfo(m, MBUF_CTL_MPLS, 77), mpls);
    EXPECT_EQ(MBUF_GetControlTlvInfo(m, MBUF_CTL_COMM, 77), m->pstCtlInfo);
}

TEST_F(CtlInfoTest, StoringRefusesWhatCannotBeStored) {
    MBUF_S *m = NewPacket();
    const Bytes tlv = SubTlv(1, {1});
    // The list length is 16 bits: a sub-TLV that cannot be counted is
    // refused before the record is touched.
    EXPECT_EQ(
        (Seq{MBUF_SetTlvInfo(nullptr, kModule, AsTlv(tlv)),
             MBUF_SetTlvInfo(&m_stPlain, kModule, AsTlv(tlv)), MBUF_SetTlvInfo(m, kModule, nullptr),
             MBUF_SetTlvInfo(m, kModule, AsTlv(SubTlv(2, Zeros(0xFFFF))))}),
        (Seq{-1, -1, -1, -1}));
    EXPECT_EQ(Rec(m, MBUF_CTL_PACKET), nullptr);
    ASSERT_EQ(MBUF_SetTlvInfo(m, kModule, AsTlv(tlv)), 0);
    const Bytes before = BlockBytes(m);
    EXPECT_EQ(MBUF_SetTlvInfo(m, kModule, AsTlv(SubTlv(2, Zeros(0xFFFF - 8)))), -1);
    EXPECT_EQ(BlockBytes(m), before);
    ExpectValid(m);
}

// ---- tags ---------------------------------------------------------------------------------

TEST_F(CtlInfoTest, TagsFillTheNodeThenTheBlockMovesOutGrowsAndIsReleased) {
    MBUF_S *m = NewPacket();
    std::uint8_t *a = Tag(m, MBUF_CTL_IP, 5);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(Tag(m, MBUF_CTL_IP6, 3), a + 5) << "tags are not rounded";
    std::memset(Tag(m, MBUF_CTL_APP, 256), 0x3C, 256);  // 264: exactly full
    ExpectValid(m);
    MBUF_DeletePktTag(m, nullptr);
    ASSERT_TRUE(Inline(m)) << "an inline block is neither moved nor released";
    // Records never move when the block does.
    const auto appKept = [m] {
        const std::uint8_t *app = Rec(m, MBUF_CTL_APP);
        return Bytes(app, app + 256) == Bytes(256, 0x3C);
    };

    std::uint8_t *grown = Tag(m, MBUF_CTL_POLICYIF, 10);
    ASSERT_FALSE(Inline(m));
    EXPECT_EQ((Seq{BufInfo(m->pstCtlInfo).ulLen, m->pstCtlInfo->usCapacity, appKept()}),
              (Seq{MBUF_CTL_FIXED_LEN + 274 + 128, 274 + 128, true}));
    EXPECT_EQ(grown, reinterpret_cast<std::uint8_t *>(m->pstCtlInfo) + MBUF_CTL_FIXED_LEN + 264);
    ExpectValid(m);

    // A separate block is re-allocated, then released.
    const std::uint32_t live = KRM_HOST_LiveBufferCount();
    ASSERT_NE(Tag(m, MBUF_CTL_STACKDEBUG, 500), nullptr);
    EXPECT_EQ((Seq{KRM_HOST_LiveBufferCount(), BufInfo(m->pstCtlInfo).ulLen, appKept()}),
              (Seq{live, MBUF_CTL_FIXED_LEN + 774 + 128, true}));
    ExpectValid(m);

    const Bytes before = BlockBytes(m);
    EXPECT_EQ(Tag(m, 23, 8), nullptr);
    EXPECT_EQ(BlockBytes(m), before);
    EXPECT_TRUE(Reports().empty());
    MBUF_DeletePktTag(m, nullptr);
    EXPECT_EQ(m->pstCtlInfo, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), live - 1);
    ExpectValid(m);
    MBUF_DeletePktTag(nullptr, nullptr);
}

TEST_F(CtlInfoTest, BlockAboveTheCapacityLimitTakesNoMoreTags) {
    MBUF_S *m = NewPacket();
    ASSERT_NE(Tag(m, MBUF_CTL_STACKDEBUG, 29000), nullptr);
    EXPECT_EQ(m->pstCtlInfo->usCapacity, 29000 + 128);
    ASSERT_NE(Tag(m, MBUF_CTL_APP, 8), nullptr) << "29128 is within the limit";
    ASSERT_NE(Tag(m, MBUF_CTL_IP, 1000), nullptr) << "a block may grow past the limit";
    EXPECT_EQ(m->pstCtlInfo->usCapacity, 30008 + 128);
    const Bytes before = BlockBytes(m);
    EXPECT_EQ(Tag(m, MBUF_CTL_IP6, 8), nullptr) << "room is left, but the block is too large";
    EXPECT_EQ(BlockBytes(m), before);
    MBUF_S *limit = NewPacket();
    ASSERT_NE(Tag(limit, MBUF_CTL_STACKDEBUG, MBUF_CTL_MAX_CAPACITY - 128), nullptr);
    EXPECT_EQ(limit->pstCtlInfo->usCapacity, MBUF_CTL_MAX_CAPACITY);
    EXPECT_NE(Tag(limit, MBUF_CTL_APP, 8), nullptr) << "a block of exactly the limit takes more";
}

TEST_F(CtlInfoTest, HeaderlessNodesAreReportedByEveryTagOperation) {
    EXPECT_EQ(Tag(&m_stPlain, 2, 8), nullptr);
    MBUF_DeletePktTag(&m_stPlain, nullptr);
    EXPECT_EQ(MBUF_CopyPktTag(&m_stPlain, &m_stPlain, kModule, nullptr), 1u);
    EXPECT_EQ(Reports(),
              (std::vector<Report>{
                  AssertReport("mbuf_uipc_mbuf", 1452, "mbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1530, "Mbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1561, "DstMbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1565, "SrcMbuf has not MBUF_PKTHDR flag"),
                  AssertReport("mbuf_uipc_mbuf", 1530, "Mbuf has not MBUF_PKTHDR flag"),
              }));
}

// A destination block at least as large as the source's takes the copy and
// keeps its own home and capacity; a smaller one is replaced by a block of
// the source's capacity; a source without block takes the destination's.
TEST_F(CtlInfoTest, CopyingTagsReusesOrReplacesTheDestinationBlock) {
    MBUF_S *src = NewPacket();
    MBUF_S *big = NewPacket();
    MBUF_S *small = NewPacket();
    AddRecord(src, MBUF_CTL_IP, 20)[3] = 0x17;
    src->ulFlag2 = 2;
    src->ulFlag3 = 3;
    ASSERT_NE(AddRecord(big, MBUF_CTL_STACKDEBUG, 1000), nullptr);
    MBUF_CONTROL_BLK_S *bigBlk = big->pstCtlInfo;
    const std::uint16_t bigCapacity = bigBlk->usCapacity;
    const std::uint32_t live = KRM_HOST_LiveBufferCount();
    for (MBUF_S *dst : {big, small}) {
        MBUF_CONTROL_BLK_S *own = dst->pstCtlInfo;
        EXPECT_EQ(MBUF_CopyPktTag(dst, src, kModule, nullptr), 1u);
        EXPECT_EQ(dst->pstCtlInfo, own);
        EXPECT_EQ(Rec(dst, MBUF_CTL_STACKDEBUG), nullptr) << "the source's directory";
        EXPECT_EQ((Seq{Rec(dst, MBUF_CTL_IP)[3], dst->ulFlag2, dst->ulFlag3}), (Seq{0x17, 2, 3}));
        ExpectValid(dst);
    }
    EXPECT_EQ((Seq{bigBlk->usCapacity, KRM_HOST_LiveBufferCount()}), (Seq{bigCapacity, live}));

    std::memset(AddRecord(src, MBUF_CTL_STACKDEBUG, 600), 0x2D, 600);
    ASSERT_NE(AddRecord(small, MBUF_CTL_APP, 300), nullptr);  // separate, but smaller
    EXPECT_EQ(MBUF_CopyPktTag(small, src, kModule, nullptr), 1u);
    // The smaller block was released.
    EXPECT_EQ((Seq{KRM_HOST_LiveBufferCount(), small->pstCtlInfo->usCapacity,
                   BufInfo(small->pstCtlInfo).ulLen, Rec(small, MBUF_CTL_STACKDEBUG)[599]}),
              (Seq{live + 2, src->pstCtlInfo->usCapacity,
                   MBUF_CTL_FIXED_LEN + src->pstCtlInfo->usCapacity, 0x2D}));
    ExpectValid(small);

    MBUF_DeletePktTag(src, nullptr);
    small->ulFlag2 = 7;
    EXPECT_EQ(MBUF_CopyPktTag(small, src, kModule, nullptr), 1u);
    EXPECT_EQ(small->pstCtlInfo, nullptr);
    EXPECT_EQ(small->ulFlag2, 7u) << "flags travel only with a block";

    const Bytes before = BlockBytes(big);
    EXPECT_EQ(MBUF_CopyPktTag(big, nullptr, kModule, nullptr), 1u);
    EXPECT_EQ(BlockBytes(big), before);
    EXPECT_TRUE(Reports().empty());
}

// ---- allocation sites and failures --------------------------------------------------------

using P = MBUF_S *;
const std::uint8_t kKey[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
const MBUF_STACKDEBUG_CTL_S kCtl{};
const BEX_CPUTICK_S kTick{1, 0};
const KRM_SYSTIME_S kTime = Time(2024, 1, 1, 1, 1, 1, 1);

// A packet whose records take `used` bytes of its block (inline up to 264,
// separate beyond); released by the sweep.
MBUF_S *PacketUsing(std::uint32_t used) {
    MBUF_S *m = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, "sweep", 1);
    if (used != 0) {
        EXPECT_EQ(MBUF_CreateControlInfo(m, MBUF_CTL_APP, used, kModule), MBUF_OK);
    }
    return m;
}

// One allocating operation run with its 1st, 2nd, ... allocation failing,
// on a packet whose records take `used` bytes, made ready by `prepare`; src
// is a second packet with a stamped record. `failed` makes the call and says
// whether it gave its failure result. A failed call leaves the block exactly
// as it was, except that from the second failure on the record `lostType` it
// was rebuilding is gone. The clean run leaves the block in a buffer
// attributed to the wrapper's own site.
struct SweepRow {
    const char *name;
    std::uint32_t allocations;
    std::uint32_t used;
    void (*prepare)(P m);
    bool (*failed)(P m, P src);
    const char *site;  // NULL: the call has no site of its own
    std::uint32_t line;
    std::uint32_t lostType = 0;
};

TEST_F(CtlInfoTest, EveryAllocatingOperationFailsCleanlyAndAttributesItsBlock) {
    constexpr std::uint32_t kSd = MBUF_CTL_STACKDEBUG;
    const SweepRow rows[] = {
        {"block for a packet without one", 1, 400, [](P m) { MBUF_DeletePktTag(m, nullptr); },
         [](P m, P) { return MBUF_CreateControlInfo(m, kSd, 8, kModule) == MBUF_ERR_NOMEM; },
         "MBUF_CreateControlInfo", 110},
        {"tags copied into a smaller block", 1, 8, nullptr,
         [](P m, P src) { return MBUF_CopyPktTag(m, src, kModule, nullptr) == 0; }, nullptr, 0},
        // The temporary copy, then the record created anew in a larger block.
        {"sub-TLV appended", 2, 232,
         [](P m) {
             EXPECT_EQ(MBUF_SetTlvInfo(m, kModule, AsTlv(SubTlv(1, {1, 2, 3}))), 0);
         },
         [](P m, P) {
             return MBUF_SetTlvInfo(m, kModule, AsTlv(SubTlv(2, {5, 6}))) == -1;
         },
         "MBUF_SetTlvInfo", 227, MBUF_CTL_PACKET},
        {"tunnel key", 1, 200, nullptr,
         [](P m, P) { return MBUF_SetTunnelKey(m, kModule, kKey) == -1; }, "MBUF_SetTunnelKey",
         196},
        {"time-stamp record", 1, 240, nullptr,
         [](P m, P) {
             MBUF_SetTimeStampEx(m, 0, 1, kModule);
             return Rec(m, MBUF_CTL_TIMESTAMP) == nullptr;
         },
         "MBUF_SetTimeStampEx", 184},
        {"first stamp of the caller's time", 1, 0, nullptr,
         [](P m, P) { return MBUF_SetStackDebugInfoSelf(m, 1, &kTime, &kTick, kModule) == -1; },
         "MBUF_SetStackDebugInfoSelf", 221},
        {"control fields", 1, 0, nullptr,
         [](P m, P) { return MBUF_SetStackDebugCtl(m, &kCtl, kModule) == -1; },
         "MBUF_SetStackDebugCtl", 233},
        {"stamp with control fields", 1, 0, nullptr,
         [](P m, P) { return MBUF_SetStackDebugForApp(m, 1, &kCtl, kModule) == -1; },
         "MBUF_SetStackDebugForApp", 251},
        // The temporary copy, then the record rebuilt in a larger block.
        {"seventh stamp", 2, 0,
         [](P m) {
             for (std::uint32_t comp = 1; comp <= 6; ++comp) {
                 EXPECT_EQ(MBUF_SetStackDebugInfo(m, comp, kModule), 0);
             }
         },
         [](P m, P) { return MBUF_SetStackDebugInfo(m, 7, kModule) == -1; },
         "MBUF_SetStackDebugInfo", 214, kSd},
        {"stack-debug record copied", 1, 0, nullptr,
         [](P m, P src) { return MBUF_CopyStackDebugInfo(src, m, kModule) == UINT32_MAX; },
         "MBUF_CopyStackDebugInfo", 1680},
    };
    for (const SweepRow &row : rows) {
        SCOPED_TRACE(row.name);
        P m = nullptr;
        P src = nullptr;
        Bytes before;
        MBUF_CONTROL_BLK_S *blk = nullptr;
        std::uint32_t failure = 0;
        const auto release = [&] {
            ExpectValid(m);
            MBUF_Destroy(m);
            MBUF_Destroy(src);
        };
        const krm::test::SweepResult swept = krm::test::FaultSweep({
            .setup =
                [&] {
                    m = PacketUsing(row.used);
                    src = PacketUsing(500);
                    EXPECT_EQ(MBUF_SetStackDebugInfo(src, 1, kModule), 0);
                    if (row.prepare != nullptr) {
                        row.prepare(m);
                    }
                    blk = m->pstCtlInfo;
                    before = BlockBytes(m);
                    KRM_HOST_ReportClear();
                },
            .run = [&] { return !row.failed(m, src); },
            .onFailure =
                [&] {
                    SCOPED_TRACE(failure);
                    // Only a packet that had lost its block says so, before allocating.
                    EXPECT_EQ(Reports(), blk != nullptr ? std::vector<Report>{}
                                                        : std::vector<Report>{AssertReportNoText(
                                                              "krm_mbuf_bas", 1205)});
                    if (failure++ == 0 || row.lostType == 0) {
                        EXPECT_EQ(m->pstCtlInfo, blk) << "the block is still attached";
                        EXPECT_EQ(BlockBytes(m), before) << "and unchanged";
                    } else {
                        EXPECT_EQ(Rec(m, row.lostType), nullptr);
                    }
                    release();
                },
            .onSuccess =
                [&] {
                    if (row.site != nullptr) {
                        EXPECT_EQ(krm::test::SiteOf(m->pstCtlInfo),
                                  krm::test::Site(row.site, row.line, kModule));
                    }
                    release();
                },
        });
        EXPECT_EQ(swept.allocations, row.allocations);
        EXPECT_EQ(swept.failedRuns, row.allocations);
    }
}

}  // namespace
}  // namespace krm::metatest
