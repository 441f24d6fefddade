// Messages in and out of a queue, and the trace service's record and ids.

#include "platform_util.h"

namespace krm::test::platform {
namespace {

constexpr std::uint32_t kDest = 3;

class PipeMsgTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_EQ(KRM_HOST_MsgOpen(kDest), 0u);
    }

    static void *NewMsg(std::uint32_t size, unsigned char fill) {
        void *msg = KRM_MsgAlloc_F(kModule, size, kAllocFile, 7);
        if (msg != nullptr) {
            std::memset(msg, fill, size);
        }
        return msg;
    }
};

TEST_F(PipeMsgTest, MessagesArriveInOrderWithClassAndTypeAndBelongToTheReceiver) {
    void *first = NewMsg(100, 0x11);
    void *second = NewMsg(2000, 0x22);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(TQM_MsgLenGet(first), 100u);
    ASSERT_EQ(KRM_SEND_MSG(kDest, 6, 893, first, 100), 0u);
    ASSERT_EQ(KRM_SEND_MSG(kDest, 7, 1, second, 1500), 0u);
    std::uint32_t cls = 0, type = 0;
    EXPECT_EQ(KRM_HOST_MsgReceive(kDest, 0, &cls, &type), first);
    EXPECT_EQ(std::pair(cls, type), std::pair(6u, 893u));
    EXPECT_EQ(KRM_HOST_MsgReceive(kDest, 0, &cls, &type), second);
    EXPECT_EQ(std::pair(cls, type), std::pair(7u, 1u));
    EXPECT_EQ(KRM_HOST_MsgReceive(kDest, 10, &cls, &type), nullptr) << "nothing more came";
    EXPECT_EQ(TQM_MsgFree(0, first), 0u);
    EXPECT_EQ(TQM_MsgFree(0, second), 0u);
}

// The sender never frees a message after the call, so a refused send
// releases it; what is not a live message is left alone.
TEST_F(PipeMsgTest, RefusedSendsReleaseTheMessage) {
    struct Row {
        const char *name;
        std::uint32_t dest;
        std::uint32_t size;
        std::uint32_t rc;
    };
    const Row rows[] = {
        {"out of range", KRM_HOST_PIPE_MAX, 10, KRM_HOST_PIPE_ERR_RANGE},
        {"not opened", kDest + 1, 10, KRM_HOST_PIPE_ERR_NOT_OPENED},
        {"size beyond the message", kDest, 65, KRM_HOST_PIPE_ERR_ARGUMENT},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        void *msg = NewMsg(64, 0);
        EXPECT_EQ(KRM_SEND_MSG(row.dest, 6, 893, msg, row.size), row.rc);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    }
    unsigned char plain[8] = {};
    EXPECT_EQ(KRM_SEND_MSG(kDest, 6, 893, plain, 8), KRM_HOST_PIPE_ERR_ARGUMENT);
    EXPECT_EQ(KRM_SEND_MSG(kDest, 6, 893, nullptr, 0), KRM_HOST_PIPE_ERR_ARGUMENT);
    EXPECT_EQ(KRM_HOST_MsgReceive(kDest, 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(KRM_HOST_ReportCount(), 0u);
}

TEST_F(PipeMsgTest, CloseReleasesQueuedMessages) {
    ASSERT_EQ(KRM_SEND_MSG(kDest, 1, 2, NewMsg(300, 1), 300), 0u);
    ASSERT_EQ(KRM_SEND_MSG(kDest, 1, 2, NewMsg(30, 1), 30), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 2u);
    EXPECT_EQ(KRM_HOST_MsgClose(kDest), 0u);
    EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
    EXPECT_EQ(KRM_HOST_MsgClose(kDest), KRM_HOST_PIPE_ERR_NOT_OPENED);
    EXPECT_EQ(KRM_HOST_MsgOpen(KRM_HOST_PIPE_MAX), KRM_HOST_PIPE_ERR_RANGE);
}

class PipeTraceTest : public HostTest {};

TEST_F(PipeTraceTest, TracePointRecordsEveryCallInOrder) {
    int packet = 0;
    void *addrs[1] = {&packet};
    MBUF_TRANS_DESC_S desc{1, reinterpret_cast<MBUF_IOVEC_S *>(addrs)};
    EXPECT_EQ(KRM_AddTraceInfecPoint_Pipe(1, &desc, 2, 3, 4, 5), 0u);
    EXPECT_EQ(KRM_AddTraceInfecPoint_Pipe(9, nullptr, 8, 7, 6, 5), 0u);
    ASSERT_EQ(KRM_HOST_TraceCallCount(), 2u);
    KRM_HOST_TRACE_CALL_S c{};
    ASSERT_EQ(KRM_HOST_TraceCallGet(0, &c), 0u);
    EXPECT_EQ(std::tuple(c.ulArg1, c.ulNum, c.pPieces, c.ulArg2, c.ulArg3, c.ulArg4, c.ulArg5),
              std::tuple(1u, 1u, static_cast<const void *>(addrs), 2u, 3u, 4u, 5u));
    ASSERT_EQ(KRM_HOST_TraceCallGet(1, &c), 0u);
    EXPECT_EQ(std::tuple(c.ulArg1, c.ulNum, c.ulArg2, c.ulArg3, c.ulArg4, c.ulArg5),
              std::tuple(9u, 0u, 8u, 7u, 6u, 5u));
    EXPECT_EQ(KRM_HOST_TraceCallGet(2, &c), 1u);
    KRM_HOST_Reset();
    EXPECT_EQ(KRM_HOST_TraceCallCount(), 0u);
}

TEST_F(PipeTraceTest, TraceIdsLiveInTheBuffersHeaders) {
    void *a = AllocDbuf(936);
    void *b = AllocDbuf(1960);
    MBUF_IOVEC_S pieces[2] = {{a, 100, 0}, {b, 100, 0}};
    std::uint32_t id = 0x1234;
    ASSERT_EQ(TQM_PIPE_TRACEFLAG_SET(2, pieces, &id), 0u);
    std::uint32_t got = 0;
    MBUF_IOVEC_S second[1] = {{b, 4, 0}};
    EXPECT_EQ(TQM_PIPE_TRACEFLAG_GET(1, second, &got), 0u);
    EXPECT_EQ(got, 0x1234u) << "every piece carries the id";

    int plain = 0;
    MBUF_IOVEC_S mixed[2] = {{a, 4, 0}, {&plain, 4, 0}};
    std::uint32_t other = 0x99;
    EXPECT_EQ(TQM_PIPE_TRACEFLAG_SET(2, mixed, &other), 1u);
    EXPECT_EQ(TQM_PIPE_TRACEFLAG_GET(1, pieces, &got), 0u);
    EXPECT_EQ(got, 0x1234u) << "a refused set stores nothing";
    EXPECT_EQ(TQM_PIPE_TRACEFLAG_GET(1, mixed + 1, &got), 1u);
    EXPECT_EQ(TQM_PIPE_TRACEFLAG_GET(0, pieces, &got), 1u);
    (void)FreeDbuf(a);
    (void)FreeDbuf(b);
}

}  // namespace
}  // namespace krm::test::platform
