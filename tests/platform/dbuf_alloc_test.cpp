// Pipe buffers and private memory: sizes, headers, all-or-nothing vectors,
// rejected releases and the live-buffer accounting the leak check rests on.

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <set>
#include <tuple>

#include "fault_sweep.h"
#include "platform_util.h"

namespace krm::test::platform {
namespace {

class DbufAllocTest : public HostTest {};

// Lengths around each class edge, the system-allocator side and zero.
constexpr std::uint32_t kLengths[] = {0,   1,   16,   447,  448,  449,  935,
                                      936, 937, 1959, 1960, 1961, 4096, 70000};

std::string DumpLine(const void *p, std::uint32_t len, std::uint32_t owner, const char *file,
                     std::uint32_t line) {
    char text[160];
    (void)std::snprintf(text, sizeof(text), "%p len %" PRIu32 " owner 0x%08" PRIx32 " %s:%" PRIu32,
                        p, len, owner, file, line);
    return text;
}

// Enough buffers of each size to need a second slab of the small class: each
// aligned, exactly as long as asked (AddressSanitizer checks the edges) and
// apart from all others. What the fixture's leak check rests on: every live
// buffer is counted, visited and dumped with its length, owner and site.
TEST_F(DbufAllocTest, BuffersOfEverySizeAreExactApartAndAccountedFor) {
    std::vector<std::pair<unsigned char *, std::uint32_t>> live;
    std::set<void *> distinct;
    std::vector<std::string> dumped;
    for (std::uint32_t round = 0; round < 600; ++round) {
        const std::uint32_t len = kLengths[round % std::size(kLengths)];
        const bool priv = round % 3 == 0;
        void *made = priv ? AllocPriv(len, kModule + round, 1000 + round)
                          : AllocDbuf(len, kModule + round, 1000 + round);
        auto *p = static_cast<unsigned char *>(made);
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(distinct.insert(p).second) << "handed out twice";
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % (priv ? 16 : 64), 0u) << len;
        EXPECT_EQ(KRM_DbufLengthGET(p), priv ? 0u : len) << "a length for pipe buffers only";
        std::memset(p, static_cast<int>(round & 0xFF), len);
        live.emplace_back(p, len);
        dumped.push_back(DumpLine(p, len, kModule + round, kAllocFile, 1000 + round) + "\n");
    }
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), live.size());
    std::uint32_t privVisited = 0;
    EXPECT_EQ(KRM_HOST_VisitLiveBuffers(
                  [](const KRM_HOST_BUF_INFO_S *i, void *arg) {
                      *static_cast<std::uint32_t *>(arg) += i->ulKind == KRM_HOST_BUF_PRIV ? 1 : 0;
                  },
                  &privVisited),
              live.size());
    EXPECT_EQ(privVisited, 200u);
    const TempFile out = OpenTempFile();
    EXPECT_EQ(KRM_HOST_DumpLiveBuffers(out.get()), live.size());
    std::vector<std::string> lines = LinesOf(out.get());
    std::ranges::sort(lines);
    std::ranges::sort(dumped);
    EXPECT_EQ(lines, dumped);
    for (std::size_t i = 0; i < live.size(); ++i) {
        const auto [p, len] = live[i];
        EXPECT_TRUE(std::all_of(p, p + len, [&](unsigned char c) { return c == (i & 0xFF); }))
            << "buffer " << i << " of " << len << " bytes was overwritten";
        EXPECT_EQ(i % 3 == 0 ? FreePriv(p) : FreeDbuf(p), 0u);
        EXPECT_EQ(KRM_DbufLengthGET(p), 0u);
    }
    EXPECT_EQ(KRM_HOST_VisitLiveBuffers(nullptr, nullptr), 0u);
}

// (start, length, owner, kind, file, line, control flag, trace id) from the
// header of the live buffer starting at p; all empty when there is none.
using Fields = std::tuple<const void *, std::uint32_t, std::uint32_t, std::uint32_t, std::string,
                          std::uint32_t, std::uint32_t, std::uint32_t>;

Fields HeaderOf(const void *p) {
    KRM_HOST_BUF_INFO_S i{};
    if (KRM_HOST_BufferInfo(p, &i) != 0) {
        return {};
    }
    return {i.pBuf, i.ulLen, i.ulOwner, i.ulKind, i.pcFile, i.ulLine, i.ulCtrlFlag, i.ulTraceId};
}

// The header keeps owner, site, control flag and trace id; a chunk recycled
// through the thread's cache (each pooled class) or the system allocator
// starts clean. The pipe-buffer queries answer only for the start of a live
// pipe buffer (not for private memory) and never report.
TEST_F(DbufAllocTest, HeaderRecordsOwnerSiteFlagAndTraceOfPipeBuffersOnly) {
    constexpr std::uint32_t kDbuf = KRM_HOST_BUF_DBUF;
    for (const std::uint32_t len : {448u, 449u, 1961u}) {
        SCOPED_TRACE(len);
        void *p = AllocDbuf(len, 0x00770001u, 1234);
        EXPECT_EQ(HeaderOf(p), Fields(p, len, 0x00770001u, kDbuf, kAllocFile, 1234, 0, 0));
        std::uint32_t handle = 0;
        EXPECT_EQ(TQM_DbufAllocIdGet(p, &handle, 1, 2, 3), 0u);
        EXPECT_EQ(
            (std::tuple{handle, KRM_DbufMsgCtrlFlagSet(p, 7), KRM_HOST_SetTraceId(p, 0xC0FFEEu)}),
            std::tuple(0x00770001u, 0u, 0u));
        EXPECT_EQ(HeaderOf(p), Fields(p, len, 0x00770001u, kDbuf, kAllocFile, 1234, 7, 0xC0FFEE));
        EXPECT_EQ(FreeDbuf(p), 0u);
        void *again = AllocDbuf(len);
        EXPECT_EQ(HeaderOf(again), Fields(again, len, kModule, kDbuf, kAllocFile, 11, 0, 0));
        EXPECT_EQ(FreeDbuf(again), 0u);
    }
    auto *p = static_cast<unsigned char *>(AllocDbuf(500));
    void *priv = AllocPriv(64, 0x00120000u, 77);
    EXPECT_EQ(HeaderOf(priv),
              Fields(priv, 64, 0x00120000u, KRM_HOST_BUF_PRIV, kAllocFile, 77, 0, 0));
    int local = 0;
    for (void *q : {static_cast<void *>(nullptr), static_cast<void *>(p + 16),
                    static_cast<void *>(&local), priv}) {
        SCOPED_TRACE(PtrText(q));
        std::uint32_t handle = 5;
        EXPECT_NE(TQM_DbufAllocIdGet(q, &handle, 0, 0, 0), 0u);
        EXPECT_EQ((std::tuple{KRM_DbufLengthGET(q), handle, KRM_DbufMsgCtrlFlagSet(q, 1) != 0,
                              KRM_HOST_SetTraceId(q, 1) != 0}),
                  std::tuple(0u, 5u, true, true));
        EXPECT_EQ(HeaderOf(q) == Fields{}, q != priv);
    }
    EXPECT_NE(TQM_DbufAllocIdGet(p, nullptr, 0, 0, 0), 0u);
    EXPECT_NE(KRM_HOST_BufferInfo(p, nullptr), 0u);
    EXPECT_EQ(FreeDbuf(p), 0u);
    EXPECT_EQ(FreePriv(priv), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

TEST_F(DbufAllocTest, VectorAllocationIsAllOrNothingUnderEveryFault) {
    constexpr std::uint32_t kLens[] = {100, 936, 1960, 5000, 0};
    MBUF_IOVEC_S iovec[std::size(kLens)];
    const SweepResult result = FaultSweep(SweepCase{
        [] {},
        [&] {
            for (std::size_t i = 0; i < std::size(kLens); ++i) {
                iovec[i] = MBUF_IOVEC_S{&iovec, kLens[i], 0};  // stale pointers
            }
            return KRM_DbufIovecAlloc_F(kModule, std::size(kLens), iovec, kAllocFile, 5) == 0;
        },
        [&] {
            for (const MBUF_IOVEC_S &entry : iovec) {
                EXPECT_EQ(entry.pBuf, nullptr) << "a failed call leaves every entry NULL";
            }
        },
        [&] {
            for (std::size_t i = 0; i < std::size(kLens); ++i) {
                EXPECT_EQ(KRM_DbufLengthGET(iovec[i].pBuf), kLens[i]);
            }
            EXPECT_EQ(KRM_DbufIovecFree_F(std::size(kLens), iovec, kFreeFile, 6), 0u);
        }});
    EXPECT_EQ(result.failedRuns, std::size(kLens));
    EXPECT_EQ(result.allocations, std::size(kLens));
    // A missing vector is refused unless it is empty.
    EXPECT_NE(KRM_DbufIovecAlloc_F(kModule, 2, nullptr, kAllocFile, 1), 0u);
    EXPECT_EQ(KRM_DbufIovecAlloc_F(kModule, 0, nullptr, kAllocFile, 1), 0u);
}

// The platform's complaint about a release at line of the free site.
Report Complaint(std::uint32_t line, const std::string &text) {
    return Report{KRM_HOST_REPORT_PLATFORM, kFreeFile, line, 0, 0, true, text};
}

// A release vector skips NULL entries and releases the good ones around a
// bad one, which it reports alone.
TEST_F(DbufAllocTest, VectorReleaseSkipsNullAndFreesAroundABadEntry) {
    int local = 0;
    MBUF_IOVEC_S iovec[4] = {
        {AllocDbuf(10), 0, 0}, {nullptr, 0, 0}, {&local, 0, 0}, {AllocDbuf(2000), 0, 0}};
    EXPECT_NE(KRM_DbufIovecFree_F(4, iovec, kFreeFile, 9), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(Reports(),
              std::vector<Report>{Complaint(9, "KRM_DbufIovecFree_F: " + PtrText(&local) +
                                                   " is not a live buffer of this platform")});
}

// Where the pointer to release comes from.
enum Source { kPipe, kPrivate, kStatic, kSystem };

// One way of releasing what is not the start of a live buffer of the kind
// released: the buffer made, the offset into it, whether it was released
// already, and through which interface it is released now.
struct BadFree {
    Source source;
    std::uint32_t len;
    int offset;
    bool releasedBefore;
    bool asPipeBuffer;
    const char *reason;
};

const BadFree kBadFrees[] = {
    {kPipe, 100, 0, true, true, "was already freed"},
    {kPrivate, 900, 0, true, false, "was already freed"},
    {kPipe, 5000, 0, true, true, "is not a live buffer of this platform"},
    {kPipe, 100, 8, false, true, "is not the start of a buffer"},
    {kPipe, 936, -16, false, true, "is not the start of a buffer"},
    {kPipe, 5000, 4096, false, true, "is not the start of a buffer"},
    {kPipe, 1960, 64, false, true, "is not the start of a buffer"},
    {kStatic, 0, 0, false, true, "is not a live buffer of this platform"},
    {kSystem, 64, 0, false, false, "is not a live buffer of this platform"},
    {kPrivate, 200, 0, false, true, "is private memory, not a pipe buffer"},
    {kPrivate, 9000, 0, false, true, "is private memory, not a pipe buffer"},
    {kPipe, 200, 0, false, false, "is a pipe buffer, not private memory"},
};

// Reported once, at the caller's site, naming the pointer and the reason;
// nothing is released. Releasing NULL private memory fails quietly.
TEST_F(DbufAllocTest, EveryBadReleaseIsReportedOnceAndIgnored) {
    static int foreign;
    for (const BadFree &b : kBadFrees) {
        SCOPED_TRACE(std::string(b.reason) + ", " + std::to_string(b.len) + "+" +
                     std::to_string(b.offset));
        KRM_HOST_ReportClear();
        void *made = b.source == kPipe      ? AllocDbuf(b.len)
                     : b.source == kPrivate ? AllocPriv(b.len)
                     : b.source == kSystem  ? std::malloc(b.len)
                                            : &foreign;
        auto release = [&] { EXPECT_EQ(b.source == kPipe ? FreeDbuf(made) : FreePriv(made), 0u); };
        if (b.releasedBefore) {
            release();
        }
        void *p = static_cast<char *>(made) + b.offset;
        const std::uint32_t live = KRM_HOST_LiveBufferCount();
        EXPECT_NE(b.asPipeBuffer ? FreeDbuf(p, 321) : FreePriv(p, 321), 0u);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), live);
        const std::string text = (b.asPipeBuffer ? "KRM_DbufIovecFree_F: " : "KRM_Free_F: ") +
                                 PtrText(p) + " " + b.reason;
        EXPECT_EQ(Reports(), std::vector<Report>{Complaint(321, text)});
        if (b.source == kSystem) {
            std::free(made);
        } else if (b.source != kStatic && !b.releasedBefore) {
            release();
        }
    }
    KRM_HOST_ReportClear();
    EXPECT_NE(FreePriv(nullptr), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

// A reset forgets no live buffer; requests beyond the platform's limit fail
// without allocating, yet count as attempts.
TEST_F(DbufAllocTest, ResetKeepsLiveBuffersAndOversizedRequestsFail) {
    EXPECT_EQ(AllocDbuf(0xFFFFFFFFu), nullptr);
    EXPECT_EQ(AllocPriv(0x80000000u), nullptr);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 2u);
    void *p = AllocDbuf(100);
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    EXPECT_EQ(KRM_DbufLengthGET(p), 100u);
    EXPECT_EQ(FreeDbuf(p), 0u);
}

}  // namespace
}  // namespace krm::test::platform
