// The road packets two peers compare by digest, and a sender and a receiver
// thread on one pipe. The peers themselves, in two processes of either byte
// order, are driven by the cross-order runs of the peer tool.
#include <thread>

#include "../../tools/pipe-peer/road_packets.h"
#include "pipe_support.h"

namespace krm::test {
namespace {

constexpr std::uint32_t kChannel = 3;

class ProcessTest : public HostTest {};

// The digest tells packets apart: a changed byte, record or field shows.
TEST_F(ProcessTest, DigestSeesEveryChange) {
    const std::vector<std::pair<const char *, void (*)(MBUF_S *)>> changes = {
        {"data byte", [](MBUF_S *m) { m->pucData[0] ^= 1; }},
        {"path id", [](MBUF_S *m) { (void)MBUF_SetPathId(m, 12345); }},
        {"flag2", [](MBUF_S *m) { (void)MBUF_SetFlag2(m, 0x80000000u); }},
        {"record byte",
         [](MBUF_S *m) {
             static_cast<std::uint8_t *>(MBUF_GetControlInfo(m, road::kBlockRecord))[7] ^= 4;
         }},
        {"length", [](MBUF_S *m) { (void)MBUF_CutTail(m, 1); }},
    };
    for (const auto &[name, change] : changes) {
        MBUF_S *a = road::MakePacket(3);
        MBUF_S *b = road::MakePacket(3);
        EXPECT_EQ(road::Digest(a), road::Digest(b));
        change(b);
        EXPECT_NE(road::Digest(a), road::Digest(b)) << name;
        MBUF_Destroy(a);
        MBUF_Destroy(b);
    }
}

// Two threads of one process: a sender and a receiver on an in-process pipe,
// each with its own packets, the receiver checking each against its own copy.
class ThreadPipeTest : public HostTest {};

TEST_F(ThreadPipeTest, SenderAndReceiverThreads) {
    constexpr std::uint32_t kCount = 400;
    ASSERT_EQ(KRM_HOST_PipeOpen(kChannel, 8), 0u);
    std::uint32_t sent = 0;
    std::thread sender([&] {
        for (std::uint32_t i = 0; i < kCount; ++i) {
            MBUF_S *m = road::MakePacket(i);
            // A full queue refuses and leaves the packet: try again.
            MBUF_IOVEC_S v[MBUF_PIPE_MAX_IOVEC];
            std::uint32_t rc = 0;
            while ((rc = MBUF_Send(kChannel, m, v)) == KRM_HOST_PIPE_ERR_FULL) {
                std::this_thread::yield();
            }
            sent += rc == 0 ? 1 : 0;
        }
    });
    road::Tally t;
    for (std::uint32_t i = 0; i < kCount; ++i) {
        MBUF_S *got = road::ReceivePacket(road::Mode::Pipe, kChannel);
        if (got == nullptr) {
            break;
        }
        MBUF_S *mine = road::MakePacket(i);
        (road::Digest(got) == road::Digest(mine) ? t.equal : t.differ)++;
        MBUF_Destroy(got);
        MBUF_Destroy(mine);
    }
    sender.join();
    EXPECT_EQ(std::tuple(sent, t.equal, t.differ), std::tuple(kCount, kCount, 0u));
}

}  // namespace
}  // namespace krm::test
