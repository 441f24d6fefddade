// The stack-debug record under a frozen wall clock and tick counter: which
// entry a stamp lands in, how the record grows, what damaged or old records
// get, the control fields, the readers and the copier; and the time-stamp
// record beside it.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "internal/bytes.h"
#include "meta_support.h"

namespace krm::metatest {
namespace {

using krm::Load16At;
using krm::Load32At;
using krm::Store16At;
using krm::Store32At;

constexpr std::uint32_t kCompA = 0x00650001;  // SOCK
constexpr std::uint32_t kCompB = 0x00770002;  // ARP
constexpr std::uint32_t kHeadLen = 28;
constexpr std::uint32_t kEntryLen = 48;

constexpr std::uint32_t RecordLen(std::uint32_t entries) {
    return kHeadLen + entries * kEntryLen;
}

KRM_SYSTIME_S Zero() {
    return Time(0, 0, 0, 0, 0, 0, 0);
}

Bytes Tick(std::uint64_t tick) {
    return Cat(
        {U32(static_cast<std::uint32_t>(tick)), U32(static_cast<std::uint32_t>(tick >> 32))});
}

// What the record must hold after a series of clock stamps: one entry per
// run of stamps by one component, extended by each further stamp of the run.
class Model {
  public:
    void Stamp(std::uint32_t comp, const KRM_SYSTIME_S &now, std::uint64_t tick) {
        if (!m_entries.empty() && m_entries.back().comp == comp) {
            Entry &e = m_entries.back();
            e.delta = tick > e.lastTick ? tick - e.lastTick : 0;  // one tick a microsecond
            e.last = now;
            e.lastTick = tick;
        } else {
            m_entries.push_back({comp, now, Zero(), 0, tick});
        }
    }
    Bytes Record() const {
        const auto capacity = static_cast<std::uint8_t>((m_entries.size() + 5) / 6 * 6);
        const auto current = static_cast<std::uint8_t>(m_entries.size() - 1);
        Bytes rec = Cat({U16(0), U16(24), {capacity, current}, U16(48), Bytes(20, 0)});
        for (const Entry &e : m_entries) {
            rec = Cat({rec, U32(e.comp), U32(static_cast<std::uint32_t>(e.delta)),
                       TimeBytes(e.first), TimeBytes(e.last), Tick(e.delta), Tick(e.lastTick)});
        }
        rec.resize(RecordLen(capacity), 0);
        return rec;
    }

  private:
    struct Entry {
        std::uint32_t comp;
        KRM_SYSTIME_S first;
        KRM_SYSTIME_S last;
        std::uint64_t delta;
        std::uint64_t lastTick;
    };
    std::vector<Entry> m_entries;
};

class StackDebugTest : public MetaTest {
  protected:
    void SetUp() override {
        MetaTest::SetUp();
        KRM_HOST_SetWallClock(m_ulSec, m_ulMs);
        KRM_HOST_SetTimeZone(8 * 3600);
        KRM_HOST_SetTickHz(1000000);  // one tick a microsecond
        KRM_HOST_SetTick(m_ullTick);
    }

    // Moves both clocks by the same time; the wall clock only forwards.
    void Advance(std::int64_t micros) {
        m_ullTick += static_cast<std::uint64_t>(micros);
        KRM_HOST_SetTick(m_ullTick);
        const std::int64_t ms = std::int64_t{m_ulSec} * 1000 + m_ulMs + micros / 1000;
        m_ulSec = static_cast<std::uint32_t>(ms / 1000);
        m_ulMs = static_cast<std::uint32_t>(ms % 1000);
        KRM_HOST_SetWallClock(m_ulSec, m_ulMs);
    }

    static KRM_SYSTIME_S Now() {
        KRM_SYSTIME_S t = Zero();
        EXPECT_EQ(KRM_SystimeGet(&t), 0u);
        return t;
    }

    static std::int32_t Stamp(MBUF_S *m, std::uint32_t comp) {
        return MBUF_SetStackDebugInfo_fl(m, comp, kModule, "caller", 11);
    }

    static std::uint8_t *Sd(MBUF_S *m) { return Rec(m, MBUF_CTL_STACKDEBUG); }

    // A record 21 of len bytes built by hand with the given capacity and
    // current index.
    std::uint8_t *HandRecord(MBUF_S *m, std::uint32_t len, std::uint8_t capacity,
                             std::uint8_t current = 0) {
        std::uint8_t *rec = AddRecord(m, MBUF_CTL_STACKDEBUG, len);
        Store16At(rec, 2, 24);
        rec[4] = capacity;
        rec[5] = current;
        Store16At(rec, 6, 48);
        return rec;
    }

    // Stamps with an explicit universal time and tick.
    static void StampAt(MBUF_S *m, std::uint32_t comp, const KRM_SYSTIME_S &time,
                        std::uint32_t tick) {
        const BEX_CPUTICK_S stTick{tick, 0};
        ASSERT_EQ(MBUF_SetStackDebugInfoSelf_fl(m, comp, &time, &stTick, kModule, "t", 1), 0);
    }

    // The text in a buffer of size bytes, checking that nothing is written
    // beyond it and that the result is the text's length (the size when full).
    static std::string Print(MBUF_S *m, std::uint32_t size = 4096) {
        std::vector<char> buf(size + 1, '#');
        const std::uint32_t len = MBUF_GetStackDebugInfo(m, buf.data(), size);
        EXPECT_EQ(buf[size], '#') << "wrote past the buffer";
        EXPECT_EQ(std::strlen(buf.data()), len == size ? size - 1 : len);
        return std::string(buf.data());
    }

    // SOCK at 10:20:30.123 and again 1.5 s later, then ARP 250 us after.
    MBUF_S *ThreeStamps() {
        MBUF_S *m = NewPacket();
        StampAt(m, kCompA, Time(2024, 3, 5, 10, 20, 30, 123), 1000000);
        StampAt(m, kCompA, Time(2024, 3, 5, 10, 20, 31, 623), 2500000);
        StampAt(m, kCompB, Time(2024, 3, 5, 10, 20, 31, 623), 2500250);
        return m;
    }

    std::uint32_t m_ulSec = kMarch5;
    std::uint32_t m_ulMs = 123;
    std::uint64_t m_ullTick = (std::uint64_t{7} << 32) + 5000000;
};

// ---- stamping -----------------------------------------------------------------------------

TEST_F(StackDebugTest, StampsExtendTheCurrentEntryOrTakeTheNextAndGrowTheRecord) {
    struct Step {
        std::uint32_t comp;
        std::int64_t advance;  // microseconds before the stamp
    };
    const auto distinct = [](std::uint32_t n, std::vector<Step> then) {
        std::vector<Step> steps;
        for (std::uint32_t i = 0; i < n; ++i) {
            steps.push_back({kCompA + i, 7});
        }
        steps.insert(steps.end(), then.begin(), then.end());
        return steps;
    };
    struct Case {
        const char *name;
        std::vector<Step> steps;
    };
    const Case cases[] = {
        {"same component extends, another takes the next entry and extends it",
         {{kCompA, 0}, {kCompA, 1500000}, {kCompB, 250}, {kCompB, 40}}},
        {"component coming back takes a new entry", {{kCompA, 0}, {kCompB, 10}, {kCompA, 10}}},
        {"tick going backwards gives a zero delta", {{kCompA, 0}, {kCompA, -50}}},
        {"seventh component grows the record keeping every entry", distinct(6, {{kCompB, 7}})},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        MBUF_S *m = NewPacket();
        Model model;
        for (const Step &s : c.steps) {
            Advance(s.advance);
            ASSERT_EQ(Stamp(m, s.comp), 0);
            model.Stamp(s.comp, Now(), m_ullTick);
            ExpectValid(m);
        }
        const Bytes want = model.Record();
        const std::uint8_t *rec = Sd(m);
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(MBUF_GetControlLen(m, MBUF_CTL_STACKDEBUG), (want.size() + 7) & ~std::size_t{7});
        EXPECT_EQ(Bytes(rec, rec + want.size()), want);
    }
}

// 6, 12, 18 entries; the growth to 24 happens but is then refused, and so is
// every later stamp.
TEST_F(StackDebugTest, NoStampBeyondNineteenEntries) {
    MBUF_S *m = NewPacket();
    for (std::uint32_t i = 0; i < 18; ++i) {
        ASSERT_EQ(Stamp(m, kCompA + i), 0) << i;
    }
    EXPECT_EQ(Stamp(m, kCompB), -1);
    const std::uint8_t *rec = Sd(m);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ((Seq{rec[4], rec[5], Load32At(rec, RecordLen(17)), Load32At(rec, RecordLen(18)),
                   Stamp(m, kCompA + 17)}),
              (Seq{24, 17, kCompA + 17, 0, -1}));
    ExpectValid(m);
}

// A record's capacity outside 1..19 is refused, and so is a stamp whose
// entry would leave the block (the current entry of a short record at 184
// of the 448-byte inline block ends at 500); nor is a packet stamped without
// one of the stamp's parts.
TEST_F(StackDebugTest, DamagedRecordsAndMissingPartsAreRefused) {
    struct Case {
        const char *name;
        std::uint32_t len;
        std::uint8_t capacity, current;
    };
    const Case cases[] = {
        {"capacity 0", kHeadLen, 0, 0},
        {"capacity 20", RecordLen(20), 20, 0},
        {"current entry beyond the block", RecordLen(2), 6, 5},
    };
    for (const Case &c : cases) {
        MBUF_S *m = NewPacket();
        std::uint8_t *rec = HandRecord(m, c.len, c.capacity, c.current);
        const Bytes before = BlockBytes(m);
        EXPECT_EQ(Stamp(m, kCompA), -1) << c.name;
        EXPECT_EQ(Sd(m), rec) << c.name;
        EXPECT_EQ(BlockBytes(m), before) << c.name;
    }
    MBUF_S *largest = NewPacket();
    (void)HandRecord(largest, RecordLen(19), 19);
    EXPECT_EQ(Stamp(largest, kCompA), 0) << "capacity 19 is still taken";
    std::uint32_t comp = 0;
    KRM_SYSTIME_S time = Zero();
    const BEX_CPUTICK_S tick{1, 0};
    MBUF_S *none = NewPacket();
    EXPECT_EQ((Seq{Stamp(nullptr, kCompA), Stamp(&m_stPlain, kCompA),
                   MBUF_SetStackDebugInfoSelf_fl(none, kCompA, nullptr, &tick, kModule, "c", 1),
                   MBUF_SetStackDebugInfoSelf_fl(none, kCompA, &time, nullptr, kModule, "c", 1),
                   MBUF_GetStackDebugInfoFirstTime(none, &comp, &time)}),
              (Seq{-1, -1, -1, -1, 2}));
    EXPECT_EQ(Sd(none), nullptr);
}

// A record created shorter than its head is used as laid out here, its head
// and entries running on past its slot inside the block; at the block's
// end, where its head would leave the block, every reader and writer stops.
TEST_F(StackDebugTest, ShortRecordIsUsedInsideTheBlockAndRefusedAtItsEdge) {
    const MBUF_STACKDEBUG_CTL_S ctl{0x01, 2, 3, 4, 5, 6, 7, 8};
    std::uint32_t comp = 0;
    KRM_SYSTIME_S time = Zero();
    MBUF_STACKDEBUG_ENTRY_S *entries = nullptr;
    std::uint8_t current = 99;
    const auto readAndSet = [&](MBUF_S *p) {
        return Seq{MBUF_SetStackDebugCtl_fl(p, &ctl, kModule, "c", 1),
                   MBUF_GetStackDebugInfoFirstTime(p, &comp, &time),
                   MBUF_GetStackDebugAppTime(p, &entries, &current)};
    };

    MBUF_S *m = NewPacket();
    std::uint8_t *rec = HandRecord(m, 8, 1);
    std::memset(rec + 8, 0, RecordLen(1) - 8);
    StampAt(m, kCompA, Time(2024, 3, 5, 10, 20, 30, 123), 1000);
    StampAt(m, kCompA, Time(2024, 3, 5, 10, 20, 31, 623), 1500);
    EXPECT_EQ(readAndSet(m), (Seq{0, 0, 0}));
    EXPECT_EQ(Bytes(rec + 8, rec + kHeadLen + 4),
              Cat({{1, 2}, U16(3), U32(4), U32(5), U32(6), U16(7), U16(8), U32(kCompA)}));
    EXPECT_EQ(TimeBytes(time), TimeBytes(Time(2024, 3, 5, 10, 20, 31, 623)));
    EXPECT_EQ(static_cast<void *>(entries), rec + kHeadLen);

    MBUF_S *edge = NewPacket();
    (void)AddRecord(edge, MBUF_CTL_APP, MBUF_CTL_INIT_CAPACITY - 8);
    (void)HandRecord(edge, 8, 1);
    const Bytes before = BlockBytes(edge);
    EXPECT_EQ(Stamp(edge, kCompA), -1);
    EXPECT_EQ(readAndSet(edge), (Seq{-1, 3, -1}));
    EXPECT_EQ(Print(edge), "");
    EXPECT_EQ(BlockBytes(edge), before);
    // The copy would read the source's entry outside its block: a failing
    // bounded copy, reported; the copy's record stays zero.
    MBUF_S *copy = NewPacket();
    EXPECT_EQ(MBUF_CopyStackDebugInfo(edge, copy, kModule), 0u);
    EXPECT_EQ(Bytes(Sd(copy), Sd(copy) + RecordLen(1)), Bytes(RecordLen(1), 0));
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReport(
                             "krm_mbuf", 1688, "memcpy_s return " + std::to_string(ERANGE))}));
}

// ---- rebuilding ---------------------------------------------------------------------------

TEST_F(StackDebugTest, RebuildRefusesTooFewOrFewerEntries) {
    MBUF_S *m = NewPacket();
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(m, nullptr, 5, kModule, "c", 1), nullptr);
    EXPECT_EQ(Sd(m), nullptr);
    std::uint8_t *rec = HandRecord(m, RecordLen(12), 12);
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(m, rec, 6, kModule, "c", 1), nullptr);
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReportNoText("krm_mbuf", 1496),
                                              AssertReportNoText("krm_mbuf", 1502)}));
    // A record already there is not created over; the capacity is one byte.
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(m, nullptr, 6, kModule, "c", 1), nullptr);
    EXPECT_EQ(MBUF_DelOldAddNewAppTime_fl(m, rec, 256, kModule, "c", 1), nullptr);
    EXPECT_EQ(Sd(m), rec);
    EXPECT_NE(MBUF_DelOldAddNewAppTime_fl(m, rec, 255, kModule, "c", 1), nullptr);
}

// A peer's record of an older layout (a 20-byte head, 40-byte entries
// without the last tick) brought to the current form the way a receiver
// does it, at its own capacity, then stamped and printed.
TEST_F(StackDebugTest, OldLayoutIsUpgradedThenStampedAndPrinted) {
    constexpr std::uint32_t kOldHead = 20;
    constexpr std::uint32_t kOldEntry = 40;
    const auto oldEntry = [](std::uint32_t comp, std::uint32_t usec, const KRM_SYSTIME_S &first,
                             const KRM_SYSTIME_S &last, std::uint64_t delta) {
        return Cat({U32(comp), U32(usec), TimeBytes(first), TimeBytes(last), Tick(delta)});
    };
    const Bytes oldRec = Cat({U16(0),
                              U16(kOldHead - 4),
                              {6, 1},
                              U16(kOldEntry),
                              {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
                              oldEntry(kCompA, 1500, Time(2024, 3, 5, 10, 20, 30, 123),
                                       Time(2024, 3, 5, 10, 20, 31, 623), 1500),
                              oldEntry(kCompB, 0, Time(2024, 3, 5, 10, 20, 32, 0), Zero(), 0),
                              Bytes(4 * kOldEntry, 0x3C)});  // entries not yet used
    MBUF_S *m = NewPacket();
    std::uint8_t *old = AddRecordBytes(m, MBUF_CTL_STACKDEBUG, oldRec);
    old[0] = 0xA5;  // the head's first half travels as it is
    MBUF_STACKDEBUG_ENTRY_S *current = MBUF_DelOldAddNewAppTime_fl(m, old, old[4], kModule, "c", 1);
    const std::uint8_t *rec = Sd(m);
    ASSERT_NE(rec, nullptr);
    EXPECT_NE(rec, old);
    EXPECT_EQ(static_cast<const void *>(current), rec + RecordLen(1));
    // Each part copied into its current place, the rest zero.
    EXPECT_EQ(Bytes(rec, rec + 8), Cat({{0xA5, 0}, U16(24), {6, 1}, U16(48)}));
    const auto was = [&](std::uint32_t from, std::uint32_t to) {
        return Bytes(oldRec.begin() + from, oldRec.begin() + to);
    };
    EXPECT_EQ(Bytes(rec + 8, rec + kHeadLen), Cat({was(8, kOldHead), Bytes(8, 0)}));
    const auto entry = [&](std::uint32_t i) {
        return Bytes(rec + RecordLen(i), rec + RecordLen(i + 1));
    };
    for (std::uint32_t i = 0; i < 6; ++i) {
        const std::uint32_t from = kOldHead + i * kOldEntry;
        EXPECT_EQ(entry(i), Cat({was(from, from + kOldEntry), Bytes(8, 0)})) << i;
    }
    ExpectValid(m);
    // ARP's entry had no last tick: the whole tick counts as its delta.
    StampAt(m, kCompB, Time(2024, 3, 5, 10, 20, 33, 0), 250);
    EXPECT_EQ((Seq{Load32At(Sd(m), RecordLen(1) + 4), Load32At(Sd(m), RecordLen(1) + 32)}),
              (Seq{250, 250}));
    EXPECT_TRUE(Reports().empty());
}

// Entries the old record claims beyond its slot are read where they lie in
// the block: the record at 184 has 264 bytes of the inline block, so entries
// 2 and 3 are taken from what follows the slot and entry 4, which would end
// at 268, ends the copy.
TEST_F(StackDebugTest, RebuildReadsNoFurtherThanTheBlock) {
    MBUF_S *m = NewPacket();
    std::uint8_t *old = HandRecord(m, RecordLen(2), 6);  // 124 bytes, slot 128
    Store32At(old, kHeadLen, kCompA);
    Store32At(old, RecordLen(1), kCompB);
    std::memset(old + 128, 0x5A, MBUF_CTL_INIT_CAPACITY - 128);
    ASSERT_NE(MBUF_DelOldAddNewAppTime_fl(m, old, 12, kModule, "c", 1), nullptr);
    const std::uint8_t *rec = Sd(m);
    EXPECT_EQ(Load32At(rec, kHeadLen), kCompA);
    EXPECT_EQ(Load32At(rec, RecordLen(1)), kCompB);
    EXPECT_EQ(Bytes(rec + RecordLen(2), rec + RecordLen(12)),
              Cat({Bytes(4, 0), Bytes(44 + kEntryLen, 0x5A), Bytes(8 * kEntryLen, 0)}));
    ExpectValid(m);
}

// ---- control fields -----------------------------------------------------------------------

// The caller's fields go into the head (the flag OR-ed in) and survive the
// record's growth; ForApp stamps first and keeps the stamp when the control
// part fails.
TEST_F(StackDebugTest, ControlFieldsAreStoredAndKept) {
    const auto setCtl = [](MBUF_S *p, const MBUF_STACKDEBUG_CTL_S *ctl) {
        return MBUF_SetStackDebugCtl_fl(p, ctl, kModule, "c", 1);
    };
    const auto forApp = [](MBUF_S *p, std::uint32_t comp, const MBUF_STACKDEBUG_CTL_S *ctl) {
        return MBUF_SetStackDebugForApp_fl(p, comp, ctl, kModule, "c", 2);
    };
    MBUF_S *m = NewPacket();
    const MBUF_STACKDEBUG_CTL_S first{0x01,       0xA1,       0xB2C3, 0x11111111,
                                      0x22222222, 0x33333333, 0x4444, 0x5555};
    ASSERT_EQ(setCtl(m, &first), 0);
    std::uint8_t *rec = Sd(m);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec[4], 6u) << "created with six entries";
    const MBUF_STACKDEBUG_CTL_S second{0x10, 0x02, 0x0304, 5, 6, 7, 8, 9};
    ASSERT_EQ(setCtl(m, &second), 0);
    EXPECT_EQ(Sd(m), rec);
    const Bytes head = Cat({{0x11, 0x02}, U16(0x0304), U32(5), U32(6), U32(7), U16(8), U16(9)});
    EXPECT_EQ(Bytes(rec + 8, rec + kHeadLen), head);
    for (std::uint32_t i = 0; i < 7; ++i) {
        ASSERT_EQ(Stamp(m, kCompA + i), 0);
    }
    rec = Sd(m);
    EXPECT_EQ(rec[4], 12u);
    EXPECT_EQ(Bytes(rec + 8, rec + kHeadLen), head);
    ExpectValid(m);

    MBUF_S *app = NewPacket();
    MBUF_S *noCtl = NewPacket();
    EXPECT_EQ((Seq{setCtl(m, nullptr), setCtl(&m_stPlain, &first), forApp(app, kCompA, &first),
                   Load32At(Sd(app), kHeadLen), Load32At(Sd(app), 20),
                   forApp(noCtl, kCompB, nullptr), forApp(&m_stPlain, kCompA, &first)}),
              (Seq{-1, -1, 0, kCompA, 0x33333333, -1, -1}));
    ASSERT_NE(Sd(noCtl), nullptr);
    EXPECT_EQ(Load32At(Sd(noCtl), kHeadLen), kCompB);
}

// ---- readers and the copier ---------------------------------------------------------------

// FirstTime gives the first entry's latest stamp, AppTime the entries and the
// current index, and the copier the same record to a packet without one;
// each refuses a current index beyond the capacity.
TEST_F(StackDebugTest, ReadersAndCopierSeeTheRecordAsStamped) {
    std::uint32_t comp = 0;
    KRM_SYSTIME_S time = Zero();
    MBUF_STACKDEBUG_ENTRY_S *entries = nullptr;
    std::uint8_t current = 99;
    constexpr std::int64_t kFail = 0xFFFFFFFFu;
    const auto first = [&](MBUF_S *p) { return MBUF_GetStackDebugInfoFirstTime(p, &comp, &time); };
    const auto app = [&](MBUF_S *p) { return MBUF_GetStackDebugAppTime(p, &entries, &current); };
    const auto copy = [](MBUF_S *p, MBUF_S *to) { return MBUF_CopyStackDebugInfo(p, to, kModule); };
    MBUF_S *m = NewPacket();
    MBUF_S *dst = NewPacket();
    EXPECT_EQ((Seq{first(m), app(m), copy(m, dst), Stamp(m, kCompA), first(m), comp}),
              (Seq{2, -1, kFail, 0, 0, kCompA}));
    EXPECT_EQ(TimeBytes(time), TimeBytes(Now())) << "the first stamp while it is the only one";
    Advance(2000000);
    for (std::uint32_t c : {kCompA, kCompB, kCompA, kCompB, kCompA, kCompB, kCompA, kCompB}) {
        ASSERT_EQ(Stamp(m, c), 0);
    }
    EXPECT_EQ((Seq{first(m), comp}), (Seq{0, kCompA}));
    EXPECT_EQ(TimeBytes(time), TimeBytes(Now()));
    ASSERT_EQ(app(m), 0);
    EXPECT_EQ(static_cast<void *>(entries), Sd(m) + kHeadLen);
    EXPECT_EQ((Seq{current, entries[7].ulCompId}), (Seq{7, kCompB}));
    ASSERT_EQ(copy(m, dst), 0u);
    ASSERT_NE(Sd(dst), nullptr);
    EXPECT_EQ(Bytes(Sd(dst), Sd(dst) + RecordLen(12)), Bytes(Sd(m), Sd(m) + RecordLen(12)));
    ExpectValid(dst);
    EXPECT_EQ(copy(m, dst), kFail) << "the destination has one";

    MBUF_S *third = NewPacket();
    Sd(m)[5] = 13;
    EXPECT_EQ((Seq{first(m), app(m), copy(m, third)}), (Seq{3, -1, kFail}));
    EXPECT_EQ(Sd(third), nullptr);
    Sd(m)[5] = 12;  // equal to the capacity still reads
    EXPECT_EQ(first(m), 0);
    std::memset(Sd(m) + kHeadLen + 8, 0, 24);  // both stamps unset
    EXPECT_EQ(first(m), 4);
    EXPECT_EQ((Seq{MBUF_GetStackDebugInfoFirstTime(nullptr, &comp, &time),
                   MBUF_GetStackDebugAppTime(m, nullptr, &current), copy(nullptr, third),
                   copy(dst, nullptr)}),
              (Seq{1, -1, kFail, kFail}));
}

// ---- the time-stamp record ----------------------------------------------------------------

TEST_F(StackDebugTest, TimeStampsCountMillisecondsWithinTheHour) {
    MBUF_S *m = NewPacket();
    MBUF_SetTimeStampEx_fl(m, 3, 0, kModule, "c", 1);
    EXPECT_EQ(Rec(m, MBUF_CTL_TIMESTAMP), nullptr) << "created only when asked";
    MBUF_SetTimeStampEx_fl(m, 3, 1, kModule, "c", 1);
    const std::uint8_t *rec = Rec(m, MBUF_CTL_TIMESTAMP);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(MBUF_GetControlLen(m, MBUF_CTL_TIMESTAMP), 40u);
    Advance(45678000);  // from 10:20:30.123 to 10:21:15.801
    MBUF_SetTimeStampEx(m, 9, 0, kModule);
    MBUF_SetTimeStampEx(m, 10, 1, kModule);
    EXPECT_EQ(Bytes(rec, rec + 40), Zeros(40, {{12, U32(20 * 60000 + 30 * 1000 + 123)},
                                               {36, U32(21 * 60000 + 15 * 1000 + 801)}}));
    ExpectValid(m);
    MBUF_SetTimeStampEx(&m_stPlain, 0, 1, kModule);
    MBUF_SetTimeStampEx(nullptr, 0, 1, kModule);
    EXPECT_TRUE(Reports().empty());
}

// ---- printing -----------------------------------------------------------------------------

// ARP's entry has no last stamp: its right-hand column repeats what the
// previous entry showed there.
const std::string kLine1 =
    "[SOCK  0x  650001]: 2024-03-05 18:20:30.123+08:00 ~ 2024-03-05 18:20:31.623+08:00 "
    "(1500000us/1500000tick)\r\n";
const std::string kLine2 =
    "[ARP   0x  770002]: 2024-03-05 18:20:31.623+08:00 ~ 2024-03-05 18:20:31.623+08:00 "
    "(0us/0tick)\r\n";
const std::string kNoLast = " ~ 0000-00-00 00:00:00.000 (0us/0tick)\r\n";

// The text ends after the last line that fits with its terminator; a buffer
// filled exactly returns its size.
TEST_F(StackDebugTest, LinesAreExactAndEndAtTheLastOneThatFits) {
    MBUF_S *m = ThreeStamps();
    const auto l1 = static_cast<std::uint32_t>(kLine1.size());
    const auto l2 = static_cast<std::uint32_t>(kLine2.size());
    struct Case {
        std::uint32_t size;
        std::uint32_t result;
        std::string text;
    };
    const Case cases[] = {
        {1, 0, ""},
        {l1, 0, ""},
        {l1 + 1, l1 + 1, kLine1},
        {l1 + 2, l1, kLine1},
        {l1 + l2 + 1, l1 + l2 + 1, kLine1 + kLine2},
        {4096, l1 + l2, kLine1 + kLine2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        std::vector<char> buf(c.size + 1, '#');
        EXPECT_EQ(MBUF_GetStackDebugInfo(m, buf.data(), c.size), c.result);
        EXPECT_EQ(std::string(buf.data()), c.text);
        EXPECT_EQ(buf[c.size], '#');
    }
    char text[8] = "keep";
    EXPECT_EQ(MBUF_GetStackDebugInfo(m, text, 0), 1u);
    EXPECT_STREQ(text, "keep");
    EXPECT_EQ(MBUF_GetStackDebugInfo(nullptr, text, sizeof(text)), 0u);
    EXPECT_EQ(MBUF_GetStackDebugInfo(m, nullptr, 100), 0u);

    // Without a record, or with one of capacity 0, the text is empty.
    MBUF_S *empty = NewPacket();
    EXPECT_EQ(Print(empty), "");
    ASSERT_NE(AddRecord(empty, MBUF_CTL_STACKDEBUG, 28 + 48), nullptr);
    std::strcpy(text, "junk");
    EXPECT_EQ(MBUF_GetStackDebugInfo(empty, text, sizeof(text)), 0u);
    EXPECT_STREQ(text, "");
}

// Each row stamps its components in turn under a zone. A stamp whose time
// of day is zero (exactly midnight, universal) is not converted: its column
// shows the previous entry's converted time and zone, or zero and no zone in
// the first entry.
TEST_F(StackDebugTest, ZoneTextFollowsThePlatformConversion) {
    struct Case {
        const char *name;
        std::int32_t zone;
        std::vector<std::pair<std::uint32_t, KRM_SYSTIME_S>> stamps;
        std::string text;
    };
    // A line without a last stamp; the 5th of March unless the date is given.
    const auto line = [](const char *id, const std::string &first) {
        return "[" + std::string(id) + "]: " + (first[4] == '-' ? "" : "2024-03-05 ") + first +
               kNoLast;
    };
    const char *sock = "SOCK  0x  650001";
    const KRM_SYSTIME_S t1020 = Time(2024, 3, 5, 10, 20, 30, 123);
    const KRM_SYSTIME_S t1000 = Time(2024, 3, 5, 10, 0, 0, 1);
    const KRM_SYSTIME_S t0 = Time(2024, 3, 6, 0, 0, 0, 0);
    const Case cases[] = {
        {"universal: no zone text", 0, {{kCompA, t1020}}, line(sock, "10:20:30.123")},
        {"full id", 3600, {{0x12650034, t1000}}, line("SOCK  0x12650034", "11:00:00.001+01:00")},
        {"midnight",
         8 * 3600,
         {{kCompA, t1020}, {kCompB, t0}, {kCompA, Time(2024, 3, 6, 0, 0, 0, 1)}},
         line(sock, "18:20:30.123+08:00") + line("ARP   0x  770002", "18:20:30.123+08:00") +
             line(sock, "2024-03-06 08:00:00.001+08:00")},
        {"midnight first", 8 * 3600, {{kCompA, t0}}, line(sock, "0000-00-00 00:00:00.000")},
    };
    for (const Case &c : cases) {
        KRM_HOST_SetTimeZone(c.zone);
        MBUF_S *m = NewPacket();
        std::uint32_t tick = 0;
        for (const auto &[comp, time] : c.stamps) {
            StampAt(m, comp, time, tick += 100);
        }
        EXPECT_EQ(Print(m), c.text) << c.name;
    }
}

// Entries are printed up to the current index only, but even beyond the
// capacity and the record's slot, as long as they lie inside the block: a
// record at 184 of the inline block has room for four.
TEST_F(StackDebugTest, PrintsUpToTheCurrentEntryEvenBeyondTheCapacity) {
    MBUF_S *m = NewPacket();
    std::uint8_t *rec = HandRecord(m, RecordLen(1), 1, 3);
    std::memset(rec + kHeadLen, 0, MBUF_CTL_INIT_CAPACITY - kHeadLen);
    Store32At(rec, kHeadLen, kCompA);
    Store32At(rec, RecordLen(2), kCompB);
    const std::string free = "[OTHERS 0x       0]: 0000-00-00 00:00:00.000" + kNoLast;
    const std::string all = "[SOCK  0x  650001]: 0000-00-00 00:00:00.000" + kNoLast + free +
                            "[ARP   0x  770002]: 0000-00-00 00:00:00.000" + kNoLast + free;
    EXPECT_EQ(Print(m), all);
    rec[5] = 200;
    EXPECT_EQ(Print(m), all);
    rec[5] = 0;
    EXPECT_EQ(Print(m), "[SOCK  0x  650001]: 0000-00-00 00:00:00.000" + kNoLast);
}

TEST_F(StackDebugTest, DumpShowsFlagWordsAndOneLinePerEntry) {
    MBUF_S *m = ThreeStamps();
    std::string dump = krm::test::Dump(m);
    const auto unterminated = [](const std::string &line) {
        return "    " + line.substr(0, line.size() - 2) + "\n";
    };
    EXPECT_NE(
        dump.find(" STACKDEBUG offset 184 len 320\n" + unterminated(kLine1) + unterminated(kLine2)),
        std::string::npos)
        << dump;

    MBUF_S *empty = NewPacket();
    ASSERT_NE(AddRecord(empty, MBUF_CTL_STACKDEBUG, 28 + 48), nullptr);
    dump = krm::test::Dump(empty);
    EXPECT_NE(dump.find(" STACKDEBUG offset 184 len 80\n"), std::string::npos) << dump;
    EXPECT_EQ(dump.find("    ["), std::string::npos) << dump;
}

}  // namespace
}  // namespace krm::metatest
