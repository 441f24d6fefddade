// The context and its locks: creation and teardown in every lock mode, the
// identifier bounds of every entry point, and every path on which a mutex
// call fails, driven by the host platform's mutex fault injection.
#include <gtest/gtest.h>

#include <cstring>
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
// fails, what the operation returns, the line it reports at (with the text
// of a session lock unless given; 0: no report), and what must hold
// afterwards (the state untouched and no mutex left held, which the probe
// checks by taking both locks of the session again).
using Ctx = MBUF_PROTOINT_CTX_S;
struct LockFault {
    const char *name;
    KRM_HOST_MUTEX_OP_E op;
    std::uint32_t nth;
    std::int64_t (*run)(Ctx *, MBUF_S *, char *);
    std::int64_t result;
    std::uint32_t line;
    const char *text = "MBUF PROTOINT LockSess lock ERR sessId=6, ret = ";
};

std::int64_t Lock(Ctx *c, std::uint32_t dir) {
    return MBUF_PROTOINT_LockSess(6, dir, c);
}
std::int64_t Print(Ctx *c, char *text) {
    return MBUF_PROTOINT_PrintLog(text, 1024, 6, c);
}

TEST_F(ContextTest, EveryLockFailurePath) {
    constexpr auto kLock = KRM_HOST_MUTEX_LOCK;
    const LockFault rows[] = {
        {"send lock", kLock, 1, [](Ctx *c, MBUF_S *, char *) { return Lock(c, 1); }, 4, 182},
        {"receive lock", kLock, 1, [](Ctx *c, MBUF_S *, char *) { return Lock(c, 2); }, 4, 192},
        {"both, first", kLock, 1, [](Ctx *c, MBUF_S *, char *) { return Lock(c, 9); }, 4, 182},
        {"both, second", kLock, 2, [](Ctx *c, MBUF_S *, char *) { return Lock(c, 0); }, 4, 192},
        {"enable", kLock, 2,
         [](Ctx *c, MBUF_S *, char *) -> std::int64_t { return MBUF_PROTOINT_EnableSession(6, c); },
         4, 192},
        {"delete", kLock, 1,
         [](Ctx *c, MBUF_S *, char *) -> std::int64_t { return MBUF_PROTOINT_DeleteSession(6, c); },
         4, 182},
        {"record", kLock, 1,
         [](Ctx *c, MBUF_S *p, char *) -> std::int64_t {
             std::uint32_t out = 5;
             return MBUF_PROTOINT_RecordPacket(p, 1, &out, c) * 100 + out;
         },
         0, 192},
        {"record, suppression", kLock, 2,
         [](Ctx *c, MBUF_S *p, char *) -> std::int64_t {
             return MBUF_PROTOINT_RecordPacket(p, 3, nullptr, c);
         },
         0, 420, "REC SUPPRESS lock mtx err. ret = "},
        {"print, first", kLock, 1, [](Ctx *c, MBUF_S *, char *t) { return Print(c, t); }, -2, 182},
        {"print, second", kLock, 2, [](Ctx *c, MBUF_S *, char *t) { return Print(c, t); }, -2, 192},
        // The refused unlock leaves the mutex held: it is released for real.
        {"unlock", KRM_HOST_MUTEX_UNLOCK, 1,
         [](Ctx *c, MBUF_S *, char *) -> std::int64_t {
             const std::uint32_t lock = MBUF_PROTOINT_LockSess(6, 1, c);
             const std::uint32_t unlock = MBUF_PROTOINT_UnlockSess(6, 1, c);
             return lock * 100 + unlock * 10 + MBUF_PROTOINT_UnlockSess(6, 1, c);
         },
         40, 0},
    };
    char text[1024];
    for (const LockFault &row : rows) {
        KRM_HOST_Reset();
        KRM_HOST_SetTickHz(1000);
        MBUF_PROTOINT_CTX_S *ctx = NewCtx(1);
        ASSERT_EQ(MBUF_PROTOINT_EnableSession(6, ctx), 0u);
        // The packet continues a sequence with a gap, so recording it asks the
        // suppression clock.
        ASSERT_EQ(Record(ctx, 6, 3, 80, 1), 0u);
        MBUF_S *p = Stamped(ctx, 6, 80, 7);
        const MBUF_PROTOINT_SESS_S before = *ctx->apstSess[5];
        const std::uint64_t lastReport = ctx->ullLastReport;
        KRM_HOST_FailNthMutexOp(row.op, row.nth);
        EXPECT_EQ(row.run(ctx, p, text), row.result) << row.name;
        const std::vector<Report> want = {AssertReport(kMod, row.line, Ret(row.text, kInjected))};
        EXPECT_EQ(Reports(), row.line == 0 ? std::vector<Report>{} : want) << row.name;
        EXPECT_EQ(ctx->ullLastReport, lastReport) << row.name;
        if (row.line != 420) {
            ASSERT_NE(ctx->apstSess[5], nullptr) << row.name;
            EXPECT_EQ(Bytes(*ctx->apstSess[5]), Bytes(before)) << row.name;
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
// too (the host's answer to destroying a held mutex is 3); a refused destroy
// leaves it alive. Nothing else is left behind.
TEST_F(ContextTest, TeardownReportsEveryFailingMutexCall) {
    const std::uint32_t kLog = 2 * 4096 + 1;  // the log mutex comes after every session
    const std::string inj = std::to_string(kInjected);
    const auto r = [](std::uint32_t line, const std::string &what, const std::string &ret) {
        return AssertReport(kMod, line, "MBUF PROTOINT uninit " + what + " mtx, ret = " + ret);
    };
    const struct {
        KRM_HOST_MUTEX_OP_E op;
        std::uint32_t nth;
        std::vector<Report> reports;
        std::uint32_t leftAlive;
    } rows[] = {
        {KRM_HOST_MUTEX_LOCK, 1, {r(141, "lock sess", inj)}, 0},
        {KRM_HOST_MUTEX_LOCK, 4096, {r(141, "lock sess", inj)}, 0},
        {KRM_HOST_MUTEX_UNLOCK, 1, {r(147, "unlock sess", inj), r(152, "destroy sess", "3")}, 1},
        {KRM_HOST_MUTEX_DESTROY, 2, {r(152, "destroy sess", inj)}, 1},
        {KRM_HOST_MUTEX_LOCK, kLog, {r(160, "lock log", inj)}, 0},
        {KRM_HOST_MUTEX_UNLOCK, kLog, {r(164, "unlock log", inj), r(168, "destory log", "3")}, 1},
        {KRM_HOST_MUTEX_DESTROY, kLog, {r(168, "destory log", inj)}, 1},
    };
    for (const auto &row : rows) {
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
