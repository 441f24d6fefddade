// Pipe buffers and private memory: sizes, headers, all-or-nothing vectors,
// rejected releases and the live-buffer accounting the leak check rests on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fault_sweep.h"
#include "host_test.h"
#include "platform_util.h"

namespace krm::test::platform {
namespace {

using ::testing::HasSubstr;

class DbufAllocTest : public HostTest {};

// Lengths around each class edge, the system-allocator side and zero.
constexpr std::uint32_t kLengths[] = {0,   1,   16,   447,  448,  449,  935,
                                      936, 937, 1959, 1960, 1961, 4096, 70000};

TEST_F(DbufAllocTest, LengthIsExactlyWhatWasAskedForAndDataIsAligned) {
    for (const std::uint32_t len : kLengths) {
        SCOPED_TRACE(len);
        void *p = AllocDbuf(len);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(KRM_DbufLengthGET(p), len);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
        // The whole length is usable (AddressSanitizer checks the edges).
        std::memset(p, 0x5A, len);
        EXPECT_EQ(FreeDbuf(p), 0u);
        EXPECT_EQ(KRM_DbufLengthGET(p), 0u) << "released buffers have no length";
    }
}

TEST_F(DbufAllocTest, BuffersOfEverySizeNeverOverlap) {
    // Enough of each size to need a second slab for the small class.
    std::vector<std::pair<unsigned char *, std::uint32_t>> live;
    for (std::uint32_t round = 0; round < 600; ++round) {
        const std::uint32_t len = kLengths[round % std::size(kLengths)];
        auto *p = static_cast<unsigned char *>(round % 3 == 0 ? AllocPriv(len) : AllocDbuf(len));
        ASSERT_NE(p, nullptr);
        std::memset(p, static_cast<int>(round & 0xFF), len);
        live.emplace_back(p, len);
    }
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), live.size());
    for (std::size_t i = 0; i < live.size(); ++i) {
        const auto [p, len] = live[i];
        const auto expected = static_cast<unsigned char>(i & 0xFF);
        EXPECT_TRUE(std::all_of(p, p + len, [&](unsigned char c) { return c == expected; }))
            << "buffer " << i << " of " << len << " bytes was overwritten";
        EXPECT_EQ(i % 3 == 0 ? FreePriv(p) : FreeDbuf(p), 0u);
    }
}

TEST_F(DbufAllocTest, ZeroLengthBuffersAreValidAndUnique) {
    void *a = AllocDbuf(0);
    void *b = AllocDbuf(0);
    void *c = AllocPriv(0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(c, nullptr);
    EXPECT_NE(a, b);
    EXPECT_NE(a, c);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 3u);
    EXPECT_EQ(FreeDbuf(a), 0u);
    EXPECT_EQ(FreeDbuf(b), 0u);
    EXPECT_EQ(FreePriv(c), 0u);
}

TEST_F(DbufAllocTest, HeaderRecordsOwnerSiteFlagAndTrace) {
    for (const std::uint32_t len : {100u, 70000u}) {
        SCOPED_TRACE(len);
        void *p = AllocDbuf(len, 0x00770001u, 1234);
        ASSERT_NE(p, nullptr);
        KRM_HOST_BUF_INFO_S info{};
        ASSERT_EQ(KRM_HOST_BufferInfo(p, &info), 0u);
        EXPECT_EQ(info.pBuf, p);
        EXPECT_EQ(info.ulLen, len);
        EXPECT_EQ(info.ulOwner, 0x00770001u);
        EXPECT_EQ(info.ulKind, static_cast<std::uint32_t>(KRM_HOST_BUF_DBUF));
        EXPECT_STREQ(info.pcFile, kAllocFile);
        EXPECT_EQ(info.ulLine, 1234u);
        EXPECT_EQ(info.ulCtrlFlag, 0u);
        EXPECT_EQ(info.ulTraceId, 0u);

        std::uint32_t handle = 0;
        EXPECT_EQ(TQM_DbufAllocIdGet(p, &handle, 1, 2, 3), 0u);
        EXPECT_EQ(handle, 0x00770001u);
        EXPECT_EQ(KRM_DbufMsgCtrlFlagSet(p, 7), 0u);
        EXPECT_EQ(KRM_HOST_SetTraceId(p, 0xC0FFEEu), 0u);
        ASSERT_EQ(KRM_HOST_BufferInfo(p, &info), 0u);
        EXPECT_EQ(info.ulCtrlFlag, 7u);
        EXPECT_EQ(info.ulTraceId, 0xC0FFEEu);
        EXPECT_EQ(FreeDbuf(p), 0u);

        // A recycled chunk starts clean.
        void *again = AllocDbuf(len);
        ASSERT_NE(again, nullptr);
        ASSERT_EQ(KRM_HOST_BufferInfo(again, &info), 0u);
        EXPECT_EQ(info.ulCtrlFlag, 0u);
        EXPECT_EQ(info.ulTraceId, 0u);
        EXPECT_EQ(FreeDbuf(again), 0u);
    }
}

TEST_F(DbufAllocTest, PrivateMemoryIsItsOwnKind) {
    void *p = AllocPriv(64, 0x00120000u, 77);
    ASSERT_NE(p, nullptr);
    KRM_HOST_BUF_INFO_S info{};
    ASSERT_EQ(KRM_HOST_BufferInfo(p, &info), 0u);
    EXPECT_EQ(info.ulKind, static_cast<std::uint32_t>(KRM_HOST_BUF_PRIV));
    EXPECT_EQ(info.ulOwner, 0x00120000u);
    EXPECT_EQ(info.ulLine, 77u);
    // The pipe-buffer queries do not answer for private memory.
    std::uint32_t handle = 5;
    EXPECT_EQ(KRM_DbufLengthGET(p), 0u);
    EXPECT_NE(TQM_DbufAllocIdGet(p, &handle, 0, 0, 0), 0u);
    EXPECT_EQ(handle, 5u);
    EXPECT_NE(KRM_DbufMsgCtrlFlagSet(p, 1), 0u);
    EXPECT_NE(KRM_HOST_SetTraceId(p, 1), 0u);
    EXPECT_EQ(FreePriv(p), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

TEST_F(DbufAllocTest, QueriesRefuseWhatIsNotALiveBufferStart) {
    void *p = AllocDbuf(500);
    ASSERT_NE(p, nullptr);
    int local = 0;
    const void *notStarts[] = {nullptr, static_cast<unsigned char *>(p) + 16, &local};
    for (const void *q : notStarts) {
        SCOPED_TRACE(PtrText(q));
        std::uint32_t handle = 0;
        KRM_HOST_BUF_INFO_S info{};
        EXPECT_EQ(KRM_DbufLengthGET(q), 0u);
        EXPECT_NE(TQM_DbufAllocIdGet(q, &handle, 0, 0, 0), 0u);
        EXPECT_NE(KRM_DbufMsgCtrlFlagSet(const_cast<void *>(q), 1), 0u);
        EXPECT_NE(KRM_HOST_BufferInfo(q, &info), 0u);
    }
    EXPECT_NE(TQM_DbufAllocIdGet(p, nullptr, 0, 0, 0), 0u);
    EXPECT_NE(KRM_HOST_BufferInfo(p, nullptr), 0u);
    EXPECT_EQ(FreeDbuf(p), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u) << "queries never report";
}

// ---- vectors of several entries ------------------------------------------------

constexpr std::uint32_t kVectorLens[] = {100, 936, 1960, 5000, 0};

TEST_F(DbufAllocTest, VectorAllocationFillsEveryEntry) {
    MBUF_IOVEC_S iovec[std::size(kVectorLens)];
    for (std::size_t i = 0; i < std::size(kVectorLens); ++i) {
        iovec[i] = MBUF_IOVEC_S{nullptr, kVectorLens[i], 0};
    }
    ASSERT_EQ(KRM_DbufIovecAlloc_F(kModule, std::size(kVectorLens), iovec, kAllocFile, 5), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), std::size(kVectorLens));
    for (std::size_t i = 0; i < std::size(kVectorLens); ++i) {
        EXPECT_EQ(KRM_DbufLengthGET(iovec[i].pBuf), kVectorLens[i]);
    }
    EXPECT_EQ(KRM_DbufIovecFree_F(std::size(kVectorLens), iovec, kFreeFile, 6), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

TEST_F(DbufAllocTest, VectorAllocationIsAllOrNothingUnderEveryFault) {
    MBUF_IOVEC_S iovec[std::size(kVectorLens)];
    const SweepResult result = FaultSweep(SweepCase{
        [] {},
        [&] {
            for (std::size_t i = 0; i < std::size(kVectorLens); ++i) {
                iovec[i] = MBUF_IOVEC_S{&iovec, kVectorLens[i], 0};  // stale pointers
            }
            return KRM_DbufIovecAlloc_F(kModule, std::size(kVectorLens), iovec, kAllocFile, 5) == 0;
        },
        [&] {
            for (const MBUF_IOVEC_S &entry : iovec) {
                EXPECT_EQ(entry.pBuf, nullptr) << "a failed call leaves every entry NULL";
            }
        },
        [&] { EXPECT_EQ(KRM_DbufIovecFree_F(std::size(kVectorLens), iovec, kFreeFile, 6), 0u); }});
    EXPECT_EQ(result.failedRuns, std::size(kVectorLens));
    EXPECT_EQ(result.allocations, std::size(kVectorLens));
}

TEST_F(DbufAllocTest, VectorAllocationRefusesAMissingVector) {
    EXPECT_NE(KRM_DbufIovecAlloc_F(kModule, 2, nullptr, kAllocFile, 1), 0u);
    EXPECT_EQ(KRM_DbufIovecAlloc_F(kModule, 0, nullptr, kAllocFile, 1), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
}

TEST_F(DbufAllocTest, VectorReleaseSkipsNullEntries) {
    MBUF_IOVEC_S iovec[3] = {{AllocDbuf(10), 0, 0}, {nullptr, 0, 0}, {AllocDbuf(3000), 0, 0}};
    ASSERT_NE(iovec[0].pBuf, nullptr);
    ASSERT_NE(iovec[2].pBuf, nullptr);
    EXPECT_EQ(KRM_DbufIovecFree_F(3, iovec, kFreeFile, 9), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

TEST_F(DbufAllocTest, VectorReleaseFreesTheGoodEntriesAroundABadOne) {
    void *good1 = AllocDbuf(10);
    void *good2 = AllocDbuf(2000);
    int local = 0;
    MBUF_IOVEC_S iovec[3] = {{good1, 0, 0}, {&local, 0, 0}, {good2, 0, 0}};
    EXPECT_NE(KRM_DbufIovecFree_F(3, iovec, kFreeFile, 9), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    ASSERT_EQ(Reports().size(), 1u);
    EXPECT_THAT(Reports()[0].text, HasSubstr(PtrText(&local)));
}

// ---- rejected releases ------------------------------------------------------------

// One way of releasing something that is not the start of a live buffer.
struct BadFree {
    const char *name;
    // Makes the pointer to release; the buffers it needs stay live until
    // cleanup, which releases them properly.
    std::function<void *(std::vector<std::function<void()>> &cleanup)> make;
    bool asPipeBuffer;  // released through KRM_DbufIovecFree_F, else KRM_Free_F
    const char *reason;
};

void *Released(void *p, bool pipe) {
    EXPECT_EQ(pipe ? FreeDbuf(p) : FreePriv(p), 0u);
    return p;
}

void *Kept(void *p, bool pipe, std::vector<std::function<void()>> &cleanup) {
    cleanup.push_back([p, pipe] { EXPECT_EQ(pipe ? FreeDbuf(p) : FreePriv(p), 0u); });
    return p;
}

const BadFree kBadFrees[] = {
    {"pool double free", [](auto &) { return Released(AllocDbuf(100), true); }, true,
     "was already freed"},
    {"private double free", [](auto &) { return Released(AllocPriv(900), false); }, false,
     "was already freed"},
    {"large double free", [](auto &) { return Released(AllocDbuf(5000), true); }, true,
     "is not a live buffer of this platform"},
    {"pool interior",
     [](auto &c) { return static_cast<char *>(Kept(AllocDbuf(100), true, c)) + 8; }, true,
     "is not the start of a buffer"},
    {"pool header", [](auto &c) { return static_cast<char *>(Kept(AllocDbuf(936), true, c)) - 16; },
     true, "is not the start of a buffer"},
    {"large interior",
     [](auto &c) { return static_cast<char *>(Kept(AllocDbuf(5000), true, c)) + 4096; }, true,
     "is not the start of a buffer"},
    {"foreign object",
     [](auto &) -> void * {
         static int foreign;
         return &foreign;
     },
     true, "is not a live buffer of this platform"},
    {"system-allocator pointer",
     [](auto &c) {
         void *p = std::malloc(64);
         c.push_back([p] { std::free(p); });
         return p;
     },
     false, "is not a live buffer of this platform"},
    {"private memory as pipe buffer", [](auto &c) { return Kept(AllocPriv(200), false, c); }, true,
     "is private memory, not a pipe buffer"},
    {"large private memory as pipe buffer", [](auto &c) { return Kept(AllocPriv(9000), false, c); },
     true, "is private memory, not a pipe buffer"},
    {"pipe buffer as private memory", [](auto &c) { return Kept(AllocDbuf(200), true, c); }, false,
     "is a pipe buffer, not private memory"},
};

TEST_F(DbufAllocTest, EveryBadReleaseIsReportedOnceAndIgnored) {
    for (const BadFree &bad : kBadFrees) {
        SCOPED_TRACE(bad.name);
        KRM_HOST_ReportClear();
        std::vector<std::function<void()>> cleanup;
        void *p = bad.make(cleanup);
        const std::uint32_t live = KRM_HOST_LiveBufferCount();
        const std::uint32_t result = bad.asPipeBuffer ? FreeDbuf(p, 321) : FreePriv(p, 321);
        EXPECT_NE(result, 0u);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), live);
        const std::vector<Report> reports = Reports();
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].kind, static_cast<std::uint32_t>(KRM_HOST_REPORT_PLATFORM));
        EXPECT_EQ(reports[0].file, kFreeFile);
        EXPECT_EQ(reports[0].line, 321u);
        EXPECT_TRUE(reports[0].hasText);
        EXPECT_THAT(reports[0].text, HasSubstr(PtrText(p)));
        EXPECT_THAT(reports[0].text, HasSubstr(bad.reason));
        for (auto &undo : cleanup) {
            undo();
        }
    }
}

TEST_F(DbufAllocTest, ReleasingNullPrivateMemoryFailsQuietly) {
    EXPECT_NE(FreePriv(nullptr), 0u);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

// ---- accounting, enumeration and the leak check ---------------------------------------

TEST_F(DbufAllocTest, LiveCountVisitAndDumpAgree) {
    struct Made {
        void *p;
        std::uint32_t len;
        std::uint32_t line;
        std::uint32_t kind;
    };
    std::vector<Made> made;
    const std::uint32_t lens[] = {0, 448, 900, 1960, 64000};
    for (std::uint32_t i = 0; i < std::size(lens); ++i) {
        made.push_back(
            {AllocDbuf(lens[i], kModule + i, 100 + i), lens[i], 100 + i, KRM_HOST_BUF_DBUF});
        made.push_back(
            {AllocPriv(lens[i], kModule + i, 200 + i), lens[i], 200 + i, KRM_HOST_BUF_PRIV});
    }
    ASSERT_EQ(KRM_HOST_LiveBufferCount(), made.size());

    std::map<const void *, KRM_HOST_BUF_INFO_S> seen;
    const std::uint32_t visited = KRM_HOST_VisitLiveBuffers(
        [](const KRM_HOST_BUF_INFO_S *info, void *arg) {
            (*static_cast<std::map<const void *, KRM_HOST_BUF_INFO_S> *>(arg))[info->pBuf] = *info;
        },
        &seen);
    EXPECT_EQ(visited, made.size());
    ASSERT_EQ(seen.size(), made.size());
    for (const Made &m : made) {
        ASSERT_EQ(seen.count(m.p), 1u);
        EXPECT_EQ(seen[m.p].ulLen, m.len);
        EXPECT_EQ(seen[m.p].ulLine, m.line);
        EXPECT_EQ(seen[m.p].ulKind, m.kind);
    }

    std::unique_ptr<FILE, int (*)(FILE *)> out(std::tmpfile(), &std::fclose);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(KRM_HOST_DumpLiveBuffers(out.get()), made.size());
    std::rewind(out.get());
    std::vector<std::string> lines;
    char line[256];
    while (std::fgets(line, sizeof(line), out.get()) != nullptr) {
        lines.emplace_back(line);
    }
    ASSERT_EQ(lines.size(), made.size());
    for (const Made &m : made) {
        const std::string expected = PtrText(m.p) + " len " + std::to_string(m.len);
        const std::string site = std::string(kAllocFile) + ":" + std::to_string(m.line) + "\n";
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [&](const std::string &l) {
                                    return l.rfind(expected, 0) == 0 && l.size() > site.size() &&
                                           l.compare(l.size() - site.size(), site.size(), site) ==
                                               0;
                                }),
                  1)
            << expected << " ... " << site;
    }

    for (const Made &m : made) {
        EXPECT_EQ(m.kind == KRM_HOST_BUF_DBUF ? FreeDbuf(m.p) : FreePriv(m.p), 0u);
    }
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(KRM_HOST_VisitLiveBuffers(nullptr, nullptr), 0u);
}

TEST_F(DbufAllocTest, TheLeakCheckWouldSeeALeftBuffer) {
    // What the fixture's teardown relies on: a buffer left allocated is
    // counted and the dump names where it came from.
    void *p = AllocDbuf(936, kModule, 4242);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    std::unique_ptr<FILE, int (*)(FILE *)> out(std::tmpfile(), &std::fclose);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(KRM_HOST_DumpLiveBuffers(out.get()), 1u);
    std::rewind(out.get());
    char line[256] = {};
    ASSERT_NE(std::fgets(line, sizeof(line), out.get()), nullptr);
    EXPECT_THAT(line, HasSubstr("alloc_site.cpp:4242"));
    EXPECT_THAT(line, HasSubstr(PtrText(p)));
    EXPECT_EQ(FreeDbuf(p), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
}

TEST_F(DbufAllocTest, ResetForgetsNoLiveBuffer) {
    void *p = AllocDbuf(100);
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 1u);
    EXPECT_EQ(KRM_DbufLengthGET(p), 100u);
    EXPECT_EQ(FreeDbuf(p), 0u);
}

TEST_F(DbufAllocTest, OversizedRequestsFailWithoutAllocating) {
    EXPECT_EQ(AllocDbuf(0xFFFFFFFFu), nullptr);
    EXPECT_EQ(AllocPriv(0x80000000u), nullptr);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(KRM_HOST_AllocAttemptCount(), 2u);
}

}  // namespace
}  // namespace krm::test::platform
