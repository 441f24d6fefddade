// The context and its locks: creation and teardown in every lock mode, the
// identifier bounds of every entry point, and every path on which a mutex
// call fails, driven by the host platform's mutex fault injection.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "protoint_support.h"

namespace krm::protointtest {
namespace {

constexpr std::uint32_t kInjected = KRM_HOST_MUTEX_ERR_INJECTED;
constexpr std::uint32_t kMutexesPerCtx = 1 + 2 * 4096;

std::string Ret(const char *text, std::uint32_t ret) {
    return std::string(text) + std::to_string(ret);
}

class ContextTest : public ProtoIntTest {
  protected:
    void SetUp() override {
        ProtoIntTest::SetUp();
        liveMutexes_ = KRM_HOST_LiveMutexCount();
    }
    // Mutexes created since the test began and still alive.
    std::uint32_t NewLiveMutexes() const { return KRM_HOST_LiveMutexCount() - liveMutexes_; }

  private:
    std::uint32_t liveMutexes_ = 0;
};

// Lock modes 1 and 2 create every mutex and tear all of them down; any other
// mode makes no mutex call at all, from creation to teardown.
TEST_F(ContextTest, LockModesDecideWhetherMutexesExist) {
    struct Row {
        std::uint32_t mode;
        std::uint8_t inited;
        std::uint32_t mutexes;
    };
    for (const Row &row : {Row{1, 1, kMutexesPerCtx}, Row{2, 1, kMutexesPerCtx}, Row{0, 0, 0},
                           Row{3, 0, 0}, Row{0xFFFFFFFF, 0, 0}}) {
        KRM_HOST_ResetMutexFaults();
        MBUF_PROTOINT_CTX_S *ctx = NewCtx(row.mode);
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(ctx->ulMemMid, kMid);
        EXPECT_EQ(ctx->ulCompArg, kCompArg);
        EXPECT_EQ(ctx->ulLockMode, row.mode);
        EXPECT_EQ(ctx->ucInited, row.inited) << row.mode;
        EXPECT_EQ(NewLiveMutexes(), row.mutexes) << row.mode;
        ASSERT_EQ(MBUF_PROTOINT_EnableSession(1, ctx), 0u);
        ASSERT_EQ(MBUF_PROTOINT_EnableSession(4096, ctx), 0u);
        DropCtx(ctx);
        EXPECT_EQ(NewLiveMutexes(), 0u) << row.mode;
        EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_INIT), row.mutexes) << row.mode;
        EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_DESTROY), row.mutexes) << row.mode;
        EXPECT_EQ(KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_LOCK),
                  KRM_HOST_MutexOpCount(KRM_HOST_MUTEX_UNLOCK))
            << row.mode;
    }
    EXPECT_TRUE(Reports().empty());
    EXPECT_EQ(MBUF_PROTOINT_Init(nullptr), nullptr);
    MBUF_PROTOINT_Uninit(nullptr);
}

TEST_F(ContextTest, FailedAllocationsAreReported) {
    const MBUF_PROTOINT_PARA_S para{kMid, kCompArg, 1};
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_PROTOINT_Init(&para), nullptr);
    EXPECT_EQ(Reports(), std::vector<Report>{AssertReport(kMod, 88, "protoInt new failed.")});
    EXPECT_EQ(NewLiveMutexes(), 0u);

    KRM_HOST_ReportClear();
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_PROTOINT_EnableSession(17, ctx), 5u);
    EXPECT_EQ(Reports(),
              std::vector<Report>{AssertReport(kMod, 240, "sess malloc errr (sessId = 17)")});
    EXPECT_EQ(MBUF_PROTOINT_GetSess(17, 1, ctx), nullptr);
    // The locks were released: the session can be enabled now.
    EXPECT_EQ(MBUF_PROTOINT_EnableSession(17, ctx), 0u);
    EXPECT_NE(MBUF_PROTOINT_GetSess(17, 2, ctx), nullptr);
}

// A mutex that cannot be created fails creation with its own report; the
// context is freed, the mutexes made before it stay.
TEST_F(ContextTest, MutexCreationFailuresAreReported) {
    struct Row {
        std::uint32_t nth;
        std::uint32_t line;
        const char *text;
        std::uint32_t leftAlive;
    };
    const Row rows[] = {{1, 104, "log mtx init err. ret = ", 0},
                        {2, 113, "snd mtx init err. ret = ", 1},
                        {3, 119, "rcv mtx init err. ret = ", 2},
                        {kMutexesPerCtx, 119, "rcv mtx init err. ret = ", kMutexesPerCtx - 1}};
    const MBUF_PROTOINT_PARA_S para{kMid, kCompArg, 2};
    for (const Row &row : rows) {
        KRM_HOST_ReportClear();
        const std::uint32_t before = KRM_HOST_LiveMutexCount();
        KRM_HOST_FailNthMutexOp(KRM_HOST_MUTEX_INIT, row.nth);
        EXPECT_EQ(MBUF_PROTOINT_Init(&para), nullptr) << row.nth;
        EXPECT_EQ(Reports(),
                  std::vector<Report>{AssertReport(kMod, row.line, Ret(row.text, kInjected))})
            << row.nth;
        EXPECT_EQ(KRM_HOST_LiveMutexCount() - before, row.leftAlive) << row.nth;
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u) << row.nth;
    }
}

// Identifiers 0 and 4097 are refused by every entry point; 1 and 4096 are
// the ends of the range.
TEST_F(ContextTest, IdentifierBoundsOfEveryEntryPoint) {
    MBUF_PROTOINT_CTX_S *locked = NewCtx(1);
    MBUF_PROTOINT_CTX_S *unlocked = NewCtx(0);
    char text[512];
    for (MBUF_PROTOINT_CTX_S *ctx : {locked, unlocked}) {
        for (const std::uint32_t id : {0u, 4097u, 0xFFFFFFFFu}) {
            EXPECT_EQ(MBUF_PROTOINT_LockSess(id, 1, ctx), 2u) << id;
            EXPECT_EQ(MBUF_PROTOINT_UnlockSess(id, 3, ctx), 2u) << id;
            EXPECT_EQ(MBUF_PROTOINT_EnableSession(id, ctx), 2u) << id;
            EXPECT_EQ(MBUF_PROTOINT_DeleteSession(id, ctx), 2u) << id;
            EXPECT_EQ(MBUF_PROTOINT_GetSess(id, 1, ctx), nullptr) << id;
            EXPECT_EQ(MBUF_PROTOINT_PrintLog(text, sizeof(text), id, ctx), -1) << id;
            EXPECT_EQ(MBUF_PROTOINT_PrintLogCheckPara(text, sizeof(text), id, ctx), -1) << id;
        }
        for (const std::uint32_t id : {1u, 4096u}) {
            for (const std::uint32_t dir : {1u, 2u, 0u}) {
                EXPECT_EQ(MBUF_PROTOINT_LockSess(id, dir, ctx), 0u) << id << "/" << dir;
                EXPECT_EQ(MBUF_PROTOINT_UnlockSess(id, dir, ctx), 0u) << id << "/" << dir;
            }
            EXPECT_EQ(MBUF_PROTOINT_GetSess(id, 1, ctx), nullptr) << "disabled";
            EXPECT_EQ(MBUF_PROTOINT_EnableSession(id, ctx), 0u) << id;
            EXPECT_NE(MBUF_PROTOINT_GetSess(id, 1, ctx), nullptr) << id;
            EXPECT_NE(MBUF_PROTOINT_GetSess(id, 2, ctx), nullptr) << id;
            EXPECT_EQ(MBUF_PROTOINT_GetSess(id, 3, ctx), nullptr) << id;
            EXPECT_EQ(MBUF_PROTOINT_DeleteSession(id, ctx), 0u) << id;
            EXPECT_EQ(MBUF_PROTOINT_GetSess(id, 2, ctx), nullptr) << id;
        }
        EXPECT_EQ(MBUF_PROTOINT_EnableSession(1, nullptr), 1u);
        EXPECT_EQ(MBUF_PROTOINT_DeleteSession(1, nullptr), 1u);
        EXPECT_EQ(MBUF_PROTOINT_LockSess(1, 1, nullptr), 3u);
        EXPECT_EQ(MBUF_PROTOINT_PrintLog(text, sizeof(text), 1, nullptr), -1);
        EXPECT_EQ(MBUF_PROTOINT_PrintLog(nullptr, sizeof(text), 1, ctx), -1);
        EXPECT_EQ(MBUF_PROTOINT_PrintLog(text, 0, 1, ctx), -1);
    }
    EXPECT_TRUE(Reports().empty());
}

// Enabling an enabled session keeps its history; deleting forgets it.
TEST_F(ContextTest, EnableKeepsHistoryDeleteForgetsIt) {
    MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
    ASSERT_EQ(MBUF_PROTOINT_EnableSession(8, ctx), 0u);
    EXPECT_EQ(MBUF_PROTOINT_RecordPacket(Stamped(ctx, 8, 99, 1), 0, nullptr, ctx), 0u);
    ASSERT_EQ(MBUF_PROTOINT_EnableSession(8, ctx), 0u);
    const auto *snd = static_cast<const MBUF_PROTOINT_SND_S *>(MBUF_PROTOINT_GetSess(8, 1, ctx));
    ASSERT_NE(snd, nullptr);
    EXPECT_EQ(snd->stCnt.ulCount, 1u);
    ASSERT_EQ(MBUF_PROTOINT_DeleteSession(8, ctx), 0u);
    ASSERT_EQ(MBUF_PROTOINT_DeleteSession(8, ctx), 0u);
    ASSERT_EQ(MBUF_PROTOINT_EnableSession(8, ctx), 0u);
    snd = static_cast<const MBUF_PROTOINT_SND_S *>(MBUF_PROTOINT_GetSess(8, 1, ctx));
    EXPECT_EQ(snd->stCnt.ulCount, 0u);
}

// One row per way a lock call can fail inside an operation: which call
// fails, what the operation returns, what it reports, and what must hold
// afterwards (the state untouched and no mutex left held, which the probe
// checks by taking both locks of the session again).
struct LockFault {
    const char *name;
    KRM_HOST_MUTEX_OP_E op;
    std::uint32_t nth;
    std::function<std::int64_t(MBUF_PROTOINT_CTX_S *, MBUF_S *)> run;
    std::int64_t result;
    std::vector<Report> reports;
};

std::vector<Report> LockErr(std::uint32_t line) {
    return {AssertReport(kMod, line,
                         Ret("MBUF PROTOINT LockSess lock ERR sessId=6, ret = ", kInjected))};
}

TEST_F(ContextTest, EveryLockFailurePath) {
    char text[1024];
    const LockFault rows[] = {
        {"send lock", KRM_HOST_MUTEX_LOCK, 1,
         [](auto *c, auto *) { return MBUF_PROTOINT_LockSess(6, 1, c); }, 4, LockErr(182)},
        {"receive lock", KRM_HOST_MUTEX_LOCK, 1,
         [](auto *c, auto *) { return MBUF_PROTOINT_LockSess(6, 2, c); }, 4, LockErr(192)},
        {"both, first", KRM_HOST_MUTEX_LOCK, 1,
         [](auto *c, auto *) { return MBUF_PROTOINT_LockSess(6, 9, c); }, 4, LockErr(182)},
        {"both, second", KRM_HOST_MUTEX_LOCK, 2,
         [](auto *c, auto *) { return MBUF_PROTOINT_LockSess(6, 0, c); }, 4, LockErr(192)},
        {"enable", KRM_HOST_MUTEX_LOCK, 2,
         [](auto *c, auto *) { return MBUF_PROTOINT_EnableSession(6, c); }, 4, LockErr(192)},
        {"delete", KRM_HOST_MUTEX_LOCK, 1,
         [](auto *c, auto *) { return MBUF_PROTOINT_DeleteSession(6, c); }, 4, LockErr(182)},
        {"record", KRM_HOST_MUTEX_LOCK, 1,
         [](auto *c, auto *p) {
             std::uint32_t out = 5;
             return MBUF_PROTOINT_RecordPacket(p, 1, &out, c) * 100 + out;
         },
         0, LockErr(192)},
        {"record, suppression",
         KRM_HOST_MUTEX_LOCK,
         2,
         [](auto *c, auto *p) { return MBUF_PROTOINT_RecordPacket(p, 3, nullptr, c); },
         0,
         {AssertReport(kMod, 420, Ret("REC SUPPRESS lock mtx err. ret = ", kInjected))}},
        {"print, first", KRM_HOST_MUTEX_LOCK, 1,
         [&text](auto *c, auto *) { return MBUF_PROTOINT_PrintLog(text, sizeof(text), 6, c); }, -2,
         LockErr(182)},
        {"print, second", KRM_HOST_MUTEX_LOCK, 2,
         [&text](auto *c, auto *) { return MBUF_PROTOINT_PrintLog(text, sizeof(text), 6, c); }, -2,
         LockErr(192)},
        {"unlock",
         KRM_HOST_MUTEX_UNLOCK,
         1,
         [](auto *c, auto *) {
             const std::uint32_t lock = MBUF_PROTOINT_LockSess(6, 1, c);
             const std::uint32_t unlock = MBUF_PROTOINT_UnlockSess(6, 1, c);
             // The refused unlock left the mutex held: release it for real.
             return lock * 100 + unlock * 10 + MBUF_PROTOINT_UnlockSess(6, 1, c);
         },
         40,
         {}},
    };
    for (const LockFault &row : rows) {
        KRM_HOST_Reset();
        KRM_HOST_SetTickHz(kTickHz);
        MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
        ASSERT_EQ(MBUF_PROTOINT_EnableSession(6, ctx), 0u);
        // The packet continues a sequence with a gap, so recording it asks the
        // suppression clock.
        MBUF_S *p = Stamped(ctx, 6, 80, 1);
        ASSERT_EQ(MBUF_PROTOINT_RecordPacket(p, 3, nullptr, ctx), 0u);
        p = Stamped(ctx, 6, 80, 7);
        const MBUF_PROTOINT_SESS_S before = *ctx->apstSess[5];
        const std::uint64_t lastReport = ctx->ullLastReport;
        KRM_HOST_FailNthMutexOp(row.op, row.nth);
        EXPECT_EQ(row.run(ctx, p), row.result) << row.name;
        EXPECT_EQ(Reports(), row.reports) << row.name;
        EXPECT_EQ(ctx->ullLastReport, lastReport) << row.name;
        if (std::string(row.name) != "record, suppression") {
            ASSERT_NE(ctx->apstSess[5], nullptr) << row.name;
            EXPECT_EQ(std::memcmp(ctx->apstSess[5], &before, sizeof(before)), 0) << row.name;
        }
        EXPECT_EQ(MBUF_PROTOINT_LockSess(6, 0, ctx), 0u) << row.name << ": a mutex was left held";
        EXPECT_EQ(MBUF_PROTOINT_UnlockSess(6, 0, ctx), 0u) << row.name;
        EXPECT_EQ(BEX_MutexLock(ctx->stLogMtx), 0u) << row.name << ": the log mutex was left held";
        EXPECT_EQ(BEX_MutexUnlock(ctx->stLogMtx), 0u) << row.name;
        DropCtx(ctx);
    }
}

// Teardown goes on past every failing mutex call and reports each with its
// own text. A refused unlock leaves its mutex held, so destroying it fails
// too; a refused destroy leaves it alive. Nothing else is left behind.
TEST_F(ContextTest, TeardownReportsEveryFailingMutexCall) {
    const std::uint32_t kLogCall = 2 * 4096 + 1;  // the log mutex comes after every session
    const std::string busy = "3";                 // the host's answer to destroying a held mutex
    const std::string inj = std::to_string(kInjected);
    struct Row {
        KRM_HOST_MUTEX_OP_E op;
        std::uint32_t nth;
        std::vector<Report> reports;
        std::uint32_t leftAlive;
    };
    const Row rows[] = {
        {KRM_HOST_MUTEX_LOCK,
         1,
         {AssertReport(kMod, 141, "MBUF PROTOINT uninit lock sess mtx, ret = " + inj)},
         0},
        {KRM_HOST_MUTEX_LOCK,
         4096,
         {AssertReport(kMod, 141, "MBUF PROTOINT uninit lock sess mtx, ret = " + inj)},
         0},
        {KRM_HOST_MUTEX_UNLOCK,
         1,
         {AssertReport(kMod, 147, "MBUF PROTOINT uninit unlock sess mtx, ret = " + inj),
          AssertReport(kMod, 152, "MBUF PROTOINT uninit destroy sess mtx, ret = " + busy)},
         1},
        {KRM_HOST_MUTEX_DESTROY,
         2,
         {AssertReport(kMod, 152, "MBUF PROTOINT uninit destroy sess mtx, ret = " + inj)},
         1},
        {KRM_HOST_MUTEX_LOCK,
         kLogCall,
         {AssertReport(kMod, 160, "MBUF PROTOINT uninit lock log mtx, ret = " + inj)},
         0},
        {KRM_HOST_MUTEX_UNLOCK,
         kLogCall,
         {AssertReport(kMod, 164, "MBUF PROTOINT uninit unlock log mtx, ret = " + inj),
          AssertReport(kMod, 168, "MBUF PROTOINT uninit destory log mtx, ret = " + busy)},
         1},
        {KRM_HOST_MUTEX_DESTROY,
         kLogCall,
         {AssertReport(kMod, 168, "MBUF PROTOINT uninit destory log mtx, ret = " + inj)},
         1},
    };
    for (const Row &row : rows) {
        const std::uint32_t before = KRM_HOST_LiveMutexCount();
        MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
        for (const std::uint32_t id : {1u, 2048u, 4096u}) {
            ASSERT_EQ(MBUF_PROTOINT_EnableSession(id, ctx), 0u);
        }
        KRM_HOST_ReportClear();
        KRM_HOST_ResetMutexFaults();
        KRM_HOST_FailNthMutexOp(row.op, row.nth);
        DropCtx(ctx);
        EXPECT_EQ(Reports(), row.reports) << row.op << "/" << row.nth;
        EXPECT_EQ(KRM_HOST_LiveMutexCount() - before, row.leftAlive) << row.op << "/" << row.nth;
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u) << row.op << "/" << row.nth;
    }
}

}  // namespace
}  // namespace krm::protointtest
