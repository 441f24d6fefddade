// Pipes and message queues bound to Unix-domain sockets: a round trip
// through another process, and frames written straight into the socket that
// must be refused whole, with a report, without a piece list being built.
#include <sys/wait.h>

#include <cstdlib>
#include <numeric>

#include "platform_util.h"

namespace krm::test::platform {
namespace {

constexpr std::uint32_t kNetDest = 4;

// Binding calls retried while the other side is not up yet.
bool Retry(const std::function<std::uint32_t()> &bind) {
    for (int i = 0; i < 500; ++i) {
        if (bind() == 0) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// Sends back one package it read (whole buffers); true at the stop marker,
// a one-byte package of 0xEE. Returns false on failure through *failed.
bool EchoPackage(int *failed) {
    std::uint32_t count = 64, status = 0;
    MBUF_TRANS_DESC_S descs[64];
    if (KRM_PipePackageRead(kNetPipe, &count, descs, &status, nullptr) != 0) {
        *failed = 4;
        return true;
    }
    std::vector<std::vector<MBUF_IOVEC_S>> iovs(count);
    for (std::uint32_t p = 0; p < count; ++p) {
        auto **addrs = reinterpret_cast<void **>(descs[p].pstIovec);
        for (std::uint32_t i = 0; i < descs[p].ulNum; ++i) {
            iovs[p].push_back(MBUF_IOVEC_S{addrs[i], KRM_DbufLengthGET(addrs[i]), 0});
        }
        descs[p].pstIovec = iovs[p].data();
    }
    const bool stop =
        iovs[0][0].ulLen == 1 && *static_cast<unsigned char *>(iovs[0][0].pBuf) == 0xEE;
    *failed = KRM_PipeWriteIovecIntra(kNetPipe, count, descs) != 0 ? 5 : 0;
    return stop || *failed != 0;
}

// The other process: sends back every package and every message (type + 1)
// until the stop marker; 0 when all went well and nothing was left behind.
int EchoPeer(const std::string &dirPath) {
    if (KRM_HOST_PipeOpen(kNetPipe, 0) != 0 || KRM_HOST_MsgOpen(kNetDest) != 0 ||
        !Retry([&] { return KRM_HOST_PipeConnect(kNetPipe, (dirPath + "/pipe.sock").c_str()); }) ||
        !Retry([&] { return KRM_HOST_MsgConnect(kNetDest, (dirPath + "/msg.sock").c_str()); })) {
        return 2;
    }
    for (int round = 0; round < 2000; ++round) {
        std::uint32_t cls = 0, type = 0;
        void *msg = KRM_HOST_MsgReceive(kNetDest, 0, &cls, &type);
        if (msg != nullptr && KRM_SEND_MSG(kNetDest, cls, type + 1, msg, TQM_MsgLenGet(msg)) != 0) {
            return 3;
        }
        int failed = 0;
        if (KRM_HOST_PipeWait(kNetPipe, 10) != 0 && EchoPackage(&failed)) {
            KRM_HOST_Reset();
            return failed != 0 ? failed : KRM_HOST_LiveBufferCount() == 0 ? 0 : 6;
        }
    }
    return 7;
}

class PipeSocketTest : public HostTest {};

// Two messages go to the peer and come back with type + 1.
void MessagesComeBack() {
    for (std::uint32_t m = 0; m < 2; ++m) {
        void *msg = KRM_MsgAlloc_F(kModule, 50 + m, kAllocFile, 1);
        std::memset(msg, 0x30 + static_cast<int>(m), 50 + m);
        ASSERT_EQ(KRM_SEND_MSG(kNetDest, 6, 893 + m, msg, 50 + m), 0u);
        std::uint32_t cls = 0, type = 0;
        auto *back =
            static_cast<unsigned char *>(KRM_HOST_MsgReceive(kNetDest, 10000, &cls, &type));
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(std::tuple(cls, type, TQM_MsgLenGet(back), back[49 + m]),
                  std::tuple(6u, 894u + m, 50u + m, 0x30 + m));
        (void)TQM_MsgFree(0, back);
    }
}

// Packages of every shape and two messages go to a peer process started by
// runPeer (in a forked child, given the socket directory) and must come back
// byte for byte, in buffers of the sizes they left in. A writer's buffer not
// released by the socket write fails the fixture's leak check.
void RoundTrip(const std::function<int(const std::string &)> &runPeer) {
    TempDir dir;
    ASSERT_FALSE(dir.path.empty());
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::_exit(runPeer(dir.path));
    }
    ASSERT_EQ(KRM_HOST_PipeOpen(kNetPipe, 0), 0u);
    ASSERT_EQ(KRM_HOST_PipeListen(kNetPipe, dir.Sock("pipe.sock").c_str()), 0u);
    ASSERT_EQ(KRM_HOST_MsgOpen(kNetDest), 0u);
    ASSERT_EQ(KRM_HOST_MsgListen(kNetDest, dir.Sock("msg.sock").c_str()), 0u);
    ASSERT_EQ(KRM_HOST_PipeWaitPeer(kNetPipe, 10000), 0u);
    ASSERT_EQ(KRM_HOST_MsgWaitPeer(kNetDest, 10000), 0u);
    const std::vector<std::vector<WriterPiece>> packages[] = {
        {{{936, 212}, {1960, 1960}, {448, 300}}},
        {{{936, 520}}, {{100, 0}, {0, 33, false}}, {{65536, 40000}}},
        {std::vector<WriterPiece>(KRM_HOST_PIPE_MAX_PIECES, WriterPiece{64, 17})},
        {{{1, 1}}},  // the stop marker
    };
    for (std::uint32_t n = 0; n < std::size(packages); ++n) {
        SCOPED_TRACE("package " + std::to_string(n));
        std::vector<WriterPacket> pkts;
        std::vector<MBUF_TRANS_DESC_S> descs;
        for (const auto &pieces : packages[n]) {
            pkts.push_back(WriterPacket{pieces, {}});
            pkts.back().Make(40 * n + 8 * static_cast<std::uint32_t>(descs.size()));
            descs.push_back(MBUF_TRANS_DESC_S{static_cast<std::uint32_t>(pkts.back().iov.size()),
                                              pkts.back().iov.data()});
        }
        const bool last = n + 1 == std::size(packages);
        if (last) {
            *static_cast<unsigned char *>(pkts[0].pieces[0].addr) = 0xEE;
        }
        ASSERT_EQ(KRM_PipeWriteIovecIntra(kNetPipe, descs.size(), descs.data()), 0u);
        ASSERT_GT(KRM_HOST_PipeWait(kNetPipe, 10000), 0u);
        const GotPackage got = ReadOne(kNetPipe, 64);
        ASSERT_EQ(got.packets.size(), pkts.size());
        for (std::size_t p = 0; p < pkts.size() && !last; ++p) {
            ASSERT_EQ(got.packets[p].size(), pkts[p].pieces.size());
            for (std::size_t i = 0; i < pkts[p].pieces.size(); ++i) {
                EXPECT_EQ(got.packets[p][i].bytes, pkts[p].pieces[i].Expected()) << p << "/" << i;
            }
        }
        FreeGot(got);
        if (n == 0) {
            MessagesComeBack();
        }
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "peer status " << status;
    const KRM_HOST_PIPE_STATS_S stats = Stats(kNetPipe);
    EXPECT_EQ(std::tuple(stats.ulWritten, stats.ulRead, stats.ulRefused),
              std::tuple(std::size(packages), std::size(packages), 0u));
}

TEST_F(PipeSocketTest, PackagesAndMessagesMakeARoundTripThroughAnotherProcess) {
    RoundTrip(EchoPeer);
}

// The same round trip with a peer of another build, e.g. the big-endian one
// under qemu-user: KRM_PIPE_PEER is a shell command that runs
// ServesAsEchoPeerWhenAsked of that build; it finds the socket directory in
// KRM_PIPE_ECHO_DIR.
TEST_F(PipeSocketTest, RoundTripWithAPeerOfAnotherBuild) {
    const char *peer = std::getenv("KRM_PIPE_PEER");
    if (peer == nullptr) {
        GTEST_SKIP() << "KRM_PIPE_PEER not set";
    }
    RoundTrip([peer](const std::string &dirPath) {
        (void)::setenv("KRM_PIPE_ECHO_DIR", dirPath.c_str(), 1);
        (void)::execl("/bin/sh", "sh", "-c", peer, static_cast<char *>(nullptr));
        return 127;
    });
}

TEST_F(PipeSocketTest, ServesAsEchoPeerWhenAsked) {
    const char *dirPath = std::getenv("KRM_PIPE_ECHO_DIR");
    if (dirPath == nullptr) {
        GTEST_SKIP() << "KRM_PIPE_ECHO_DIR not set";
    }
    EXPECT_EQ(EchoPeer(dirPath), 0);
}

// The package of RawFrame's sound frame: one 936-byte buffer, five bytes.
void ExpectSoundFrameArrived() {
    ASSERT_TRUE(WaitFor([] { return KRM_HOST_PipeDepth(kNetPipe) == 1; }));
    const GotPackage got = ReadOne(kNetPipe);
    std::vector<unsigned char> expected(936, 0);
    std::iota(expected.begin(), expected.begin() + 5, 1);
    ASSERT_EQ(got.packets.size(), 1u);
    EXPECT_EQ(got.packets[0].size() == 1 ? got.packets[0][0].bytes : expected, expected);
    EXPECT_EQ(std::get<2>(SiteOf(got.packets[0][0].addr)), 0x650000u) << "the owner travels";
    FreeGot(got);
}

bool SendAll(int fd, const std::vector<unsigned char> &bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

// How a frame is spoilt, the fault named in the report (nullptr: accepted),
// and whether the stream goes on to take a sound frame behind it.
struct BrokenRow {
    const char *name;
    void (*spoil)(RawFrame *);
    const char *fault;
    bool streamGoesOn;
};

// clang-format off
const BrokenRow kBrokenRows[] = {
    {"a sound frame", [](RawFrame *) {}, nullptr, false},
    {"header cut off", [](RawFrame *f) { f->cut = 10; }, "short", false},
    {"body cut off", [](RawFrame *f) { f->cut = 32 + 4 + 20 + 2; }, "short", false},
    {"length above the limit", [](RawFrame *f) { f->total = 64u << 20; }, "oversized", false},
    {"not a frame", [](RawFrame *f) { f->magic = 0x12345678; }, "inconsistent", false},
    {"length below a header", [](RawFrame *f) { f->total = 31; }, "inconsistent", false},
    {"piece counts do not add up", [](RawFrame *f) { f->recs.push_back({64, 0, 0, 0, 0}); }, "inconsistent", true},
    {"records run past the frame", [](RawFrame *f) { f->pieces = 3; }, "short", true},
    {"piece longer than its buffer", [](RawFrame *f) { f->recs[0][0] = 4; }, "inconsistent", true},
    {"lengths run past the frame", [](RawFrame *f) { f->recs[0][1] = 9; }, "short", true},
    {"bytes left over", [](RawFrame *f) { f->data.push_back(6); }, "inconsistent", true},
    {"buffers beyond the limit", [](RawFrame *f) { f->recs[0][0] = 0x10000000; }, "oversized", true},
    {"no packets", [](RawFrame *f) { f->counts.clear(); }, "inconsistent", true},
    {"an empty packet", [](RawFrame *f) { f->counts = {0, 1}; }, "inconsistent", true},
    {"too many pieces in a packet", [](RawFrame *f) { f->counts = {91}; }, "inconsistent", true},
    {"another pipe's frame", [](RawFrame *f) { f->id = kNetPipe + 1; }, "inconsistent", true},
    {"a message frame", [](RawFrame *f) { f->type = 2; }, "inconsistent", true},
};
// clang-format on

TEST_F(PipeSocketTest, BrokenFramesAreRefusedWholeAndReported) {
    TempDir dir;
    ASSERT_EQ(KRM_HOST_PipeOpen(kNetPipe, 0), 0u);
    ASSERT_EQ(KRM_HOST_PipeListen(kNetPipe, dir.Sock("pipe.sock").c_str()), 0u);
    for (const BrokenRow &row : kBrokenRows) {
        SCOPED_TRACE(row.name);
        KRM_HOST_ReportClear();
        const std::uint32_t refused = Stats(kNetPipe).ulRefused;
        RawFrame frame;
        row.spoil(&frame);
        const int fd = ConnectRaw(dir.Sock("pipe.sock"));
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(SendAll(fd, frame.Bytes()));
        if (frame.cut != 0) {
            (void)::shutdown(fd, SHUT_WR);
        }
        if (row.fault != nullptr) {
            ASSERT_TRUE(WaitFor([&] { return Stats(kNetPipe).ulRefused == refused + 1; }));
            const std::vector<std::string> texts = ReportTexts();
            EXPECT_TRUE(texts.size() == 1 && texts[0].find(std::string("frame refused whole: ") +
                                                           row.fault) != std::string::npos)
                << ::testing::PrintToString(texts);
            EXPECT_EQ(std::pair(KRM_HOST_PipeDepth(kNetPipe), KRM_HOST_LiveBufferCount()),
                      std::pair(0u, 0u))
                << "no piece was built";
        }
        if (row.fault == nullptr || row.streamGoesOn) {
            ASSERT_TRUE(row.fault == nullptr || SendAll(fd, RawFrame{}.Bytes()));
            ExpectSoundFrameArrived();
        }
        (void)::close(fd);
    }
}

// A write on a bound pipe whose listener has no peer fails and takes nothing.
TEST_F(PipeSocketTest, WritesWithoutAPeerFailAndBindingTwiceIsRefused) {
    TempDir dir;
    ASSERT_EQ(KRM_HOST_PipeOpen(kNetPipe, 0), 0u);
    EXPECT_EQ(KRM_HOST_PipeConnect(kNetPipe, dir.Sock("pipe.sock").c_str()),
              KRM_HOST_PIPE_ERR_SOCKET);
    ASSERT_EQ(KRM_HOST_PipeListen(kNetPipe, dir.Sock("pipe.sock").c_str()), 0u);
    EXPECT_EQ(KRM_HOST_PipeListen(kNetPipe, dir.Sock("msg.sock").c_str()), KRM_HOST_PIPE_ERR_BUSY);
    EXPECT_EQ(KRM_HOST_PipeListen(kNetPipe + 1, dir.Sock("msg.sock").c_str()),
              KRM_HOST_PIPE_ERR_NOT_OPENED);
    WriterPacket pkt{{{936, 100}}, {}};
    EXPECT_EQ(KRM_PipeIovecWrite(kNetPipe, 1, pkt.Make(1).iov.data()), KRM_HOST_PIPE_ERR_SOCKET);
    EXPECT_TRUE(pkt.pieces[0].Intact());
    pkt.Free();
    EXPECT_EQ(KRM_HOST_MsgOpen(kNetDest), 0u);
    EXPECT_EQ(KRM_HOST_MsgListen(kNetDest, std::string(200, 'x').c_str()),
              KRM_HOST_PIPE_ERR_SOCKET);
}

}  // namespace
}  // namespace krm::test::platform
