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
    EXPECT_EQ(TQM_MsgLenGet(first), 100u);
    ASSERT_EQ(KRM_SEND_MSG(kDest, 6, 893, first, 100), 0u);
    ASSERT_EQ(KRM_SEND_MSG(kDest, 7, 1, second, 1500), 0u);
    std::uint32_t c[2], t[2];
    EXPECT_EQ((std::pair{KRM_HOST_MsgReceive(kDest, 0, &c[0], &t[0]),
                         KRM_HOST_MsgReceive(kDest, 0, &c[1], &t[1])}),
              std::pair(first, second));
    EXPECT_EQ(std::tuple(c[0], t[0], c[1], t[1]), std::tuple(6u, 893u, 7u, 1u));
    EXPECT_EQ(KRM_HOST_MsgReceive(kDest, 10, c, t), nullptr) << "nothing more came";
    EXPECT_EQ(TQM_MsgFree(0, first) | TQM_MsgFree(0, second), 0u);
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

// Set on every piece or on none; read from the first piece. The trace
// service's call record is checked where packets reach it (tests/diag).
TEST_F(PipeTraceTest, TraceIdsLiveInTheBuffersHeaders) {
    int plain = 0;
    MBUF_IOVEC_S pieces[3] = {{AllocDbuf(936), 100, 0}, {AllocDbuf(1960), 100, 0}, {&plain, 4, 0}};
    const auto get = [&](std::uint32_t n, std::uint32_t at) {
        std::uint32_t got = 0;
        const std::uint32_t rc = TQM_PIPE_TRACEFLAG_GET(n, pieces + at, &got);
        return std::pair(rc, got);
    };
    std::uint32_t id = 0x1234, other = 0x99;
    ASSERT_EQ(TQM_PIPE_TRACEFLAG_SET(2, pieces, &id), 0u);
    EXPECT_EQ(get(1, 1), std::pair(0u, 0x1234u)) << "every piece carries the id";
    EXPECT_EQ(TQM_PIPE_TRACEFLAG_SET(2, pieces + 1, &other), 1u);
    EXPECT_EQ(get(1, 1), std::pair(0u, 0x1234u)) << "a refused set stores nothing";
    EXPECT_EQ(std::pair(get(1, 2).first, get(0, 0).first), std::pair(1u, 1u));
    (void)FreeDbuf(pieces[0].pBuf);
    (void)FreeDbuf(pieces[1].pBuf);
}

}  // namespace
}  // namespace krm::test::platform
