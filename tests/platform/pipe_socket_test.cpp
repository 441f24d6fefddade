// Pipes and message queues bound to Unix-domain sockets: a round trip
// through another process, and frames written straight into the socket that
// must be refused whole, with a report, without a piece list being built.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <string>
#include <thread>

#include "pipe_test_util.h"

namespace krm::test::platform {
namespace {

constexpr std::uint32_t kNetPipe = 9;
constexpr std::uint32_t kNetDest = 4;

// A private directory for the socket files, removed with its contents.
struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/krm_pipe_XXXXXX";
        path = ::mkdtemp(tmpl) != nullptr ? tmpl : "";
    }
    ~TempDir() {
        (void)::unlink((path + "/pipe.sock").c_str());
        (void)::unlink((path + "/msg.sock").c_str());
        (void)::rmdir(path.c_str());
    }
    std::string Sock(const char *name) const { return path + "/" + name; }
};

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

// The other process: sends back every package (whole buffers) and every
// message (type + 1) until a one-byte package of 0xEE.
int EchoPeer(const std::string &dirPath) {
    const auto sock = [&](const char *name) { return dirPath + "/" + name; };
    if (KRM_HOST_PipeOpen(kNetPipe, 0) != 0 || KRM_HOST_MsgOpen(kNetDest) != 0 ||
        !Retry([&] { return KRM_HOST_PipeConnect(kNetPipe, sock("pipe.sock").c_str()); }) ||
        !Retry([&] { return KRM_HOST_MsgConnect(kNetDest, sock("msg.sock").c_str()); })) {
        return 2;
    }
    for (int round = 0; round < 2000; ++round) {
        std::uint32_t cls = 0, type = 0;
        void *msg = KRM_HOST_MsgReceive(kNetDest, 0, &cls, &type);
        if (msg != nullptr && KRM_SEND_MSG(kNetDest, cls, type + 1, msg, TQM_MsgLenGet(msg)) != 0) {
            return 3;
        }
        if (KRM_HOST_PipeWait(kNetPipe, 10) == 0) {
            continue;
        }
        std::uint32_t count = 64, status = 0;
        MBUF_TRANS_DESC_S descs[64];
        if (KRM_PipePackageRead(kNetPipe, &count, descs, &status, nullptr) != 0) {
            return 4;
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
        if (KRM_PipeWriteIovecIntra(kNetPipe, count, descs) != 0) {
            return 5;
        }
        if (stop) {
            KRM_HOST_Reset();
            return KRM_HOST_LiveBufferCount() == 0 ? 0 : 6;
        }
    }
    return 7;
}

// Live buffers the test allocated itself.
std::uint32_t LiveFromTest() {
    std::uint32_t n = 0;
    (void)KRM_HOST_VisitLiveBuffers(
        [](const KRM_HOST_BUF_INFO_S *info, void *arg) {
            *static_cast<std::uint32_t *>(arg) += std::string(info->pcFile) == kAllocFile ? 1 : 0;
        },
        &n);
    return n;
}

class PipeSocketTest : public HostTest {};

// Packages of every shape and two messages go to a peer process started by
// runPeer (in a forked child, given the socket directory) and must come back
// byte for byte, in buffers of the sizes they left in.
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
        }
        for (std::uint32_t p = 0; p < pkts.size(); ++p) {
            pkts[p].Make(40 * n + 8 * p);
            descs.push_back(MBUF_TRANS_DESC_S{static_cast<std::uint32_t>(pkts[p].iov.size()),
                                              pkts[p].iov.data()});
        }
        const bool last = n + 1 == std::size(packages);
        if (last) {
            *static_cast<unsigned char *>(pkts[0].pieces[0].addr) = 0xEE;
        }
        ASSERT_EQ(KRM_PipeWriteIovecIntra(kNetPipe, static_cast<std::uint32_t>(descs.size()),
                                          descs.data()),
                  0u);
        ASSERT_GT(KRM_HOST_PipeWait(kNetPipe, 10000), 0u);
        // Only now: the echo's buffers were made on the link's thread.
        EXPECT_EQ(LiveFromTest(), 0u) << "sent, and the writer's buffers released";
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
            for (std::uint32_t m = 0; m < 2; ++m) {
                void *msg = KRM_MsgAlloc_F(kModule, 50 + m, kAllocFile, 1);
                std::memset(msg, 0x30 + static_cast<int>(m), 50 + m);
                ASSERT_EQ(KRM_SEND_MSG(kNetDest, 6, 893 + m, msg, 50 + m), 0u);
                std::uint32_t cls = 0, type = 0;
                void *back = KRM_HOST_MsgReceive(kNetDest, 10000, &cls, &type);
                ASSERT_NE(back, nullptr);
                EXPECT_EQ(cls, 6u);
                EXPECT_EQ(type, 894u + m);
                EXPECT_EQ(TQM_MsgLenGet(back), 50u + m);
                EXPECT_EQ(static_cast<unsigned char *>(back)[49 + m], 0x30 + m);
                (void)TQM_MsgFree(0, back);
            }
        }
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "peer status " << status;
    KRM_HOST_PIPE_STATS_S stats{};
    ASSERT_EQ(KRM_HOST_PipeStats(kNetPipe, &stats), 0u);
    EXPECT_EQ(stats.ulWritten, std::size(packages));
    EXPECT_EQ(stats.ulRead, std::size(packages));
    EXPECT_EQ(stats.ulRefused, 0u);
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

// A frame as the test writes it, word by word, independently of the
// platform's own encoder.
struct RawFrame {
    std::uint32_t magic = 0x4B524D46u;
    std::uint32_t type = 1;
    std::uint32_t total = 0;  // 0: the true size
    std::uint32_t id = kNetPipe;
    std::uint32_t packets = ~0u;  // ~0: counts.size()
    std::uint32_t pieces = ~0u;   // ~0: recs.size()
    std::vector<std::uint32_t> counts = {1};
    std::vector<std::array<std::uint32_t, 5>> recs = {{936, 5, 0, 0, 0x650000}};
    std::vector<unsigned char> data = {1, 2, 3, 4, 5};
    std::size_t cut = 0;  // send only this many bytes, then close

    std::vector<unsigned char> Bytes() const {
        std::vector<unsigned char> out;
        const auto put = [&](std::uint32_t v) {
            for (int s = 24; s >= 0; s -= 8) {
                out.push_back(static_cast<unsigned char>(v >> s));
            }
        };
        const std::size_t size = 32 + 4 * counts.size() + 20 * recs.size() + data.size();
        for (std::uint32_t w :
             {magic, type, total != 0 ? total : static_cast<std::uint32_t>(size), id,
              packets != ~0u ? packets : static_cast<std::uint32_t>(counts.size()),
              pieces != ~0u ? pieces : static_cast<std::uint32_t>(recs.size()), 0u, 0u}) {
            put(w);
        }
        for (std::uint32_t c : counts) {
            put(c);
        }
        for (const auto &r : recs) {
            for (std::uint32_t w : r) {
                put(w);
            }
        }
        out.insert(out.end(), data.begin(), data.end());
        if (cut != 0) {
            out.resize(cut);
        }
        return out;
    }
};

int ConnectRaw(const std::string &path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0) {
        return fd;
    }
    if (fd >= 0) {
        (void)::close(fd);
    }
    return -1;
}

std::uint32_t Refused() {
    KRM_HOST_PIPE_STATS_S stats{};
    return KRM_HOST_PipeStats(kNetPipe, &stats) == 0 ? stats.ulRefused : ~0u;
}

bool WaitFor(const std::function<bool()> &cond) {
    for (int i = 0; i < 1000 && !cond(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return cond();
}

// The package of RawFrame's sound frame: one 936-byte buffer, five bytes.
void ExpectSoundFrameArrived() {
    ASSERT_TRUE(WaitFor([] { return KRM_HOST_PipeDepth(kNetPipe) == 1; }));
    const GotPackage got = ReadOne(kNetPipe);
    ASSERT_EQ(got.packets.size(), 1u);
    ASSERT_EQ(got.packets[0].size(), 1u);
    std::vector<unsigned char> expected(936, 0);
    std::iota(expected.begin(), expected.begin() + 5, 1);
    EXPECT_EQ(got.packets[0][0].bytes, expected);
    KRM_HOST_BUF_INFO_S info;
    ASSERT_EQ(KRM_HOST_BufferInfo(got.packets[0][0].addr, &info), 0u);
    EXPECT_EQ(info.ulOwner, 0x650000u);
    FreeGot(got);
}

TEST_F(PipeSocketTest, BrokenFramesAreRefusedWholeAndReported) {
    struct Row {
        const char *name;
        std::function<void(RawFrame *)> spoil;
        const char *fault;  // nullptr: accepted
        bool streamGoesOn;
    };
    const Row rows[] = {
        {"a sound frame", [](RawFrame *) {}, nullptr, false},
        {"header cut off", [](RawFrame *f) { f->cut = 10; }, "short", false},
        {"body cut off", [](RawFrame *f) { f->cut = 32 + 4 + 20 + 2; }, "short", false},
        {"length above the limit", [](RawFrame *f) { f->total = 64u << 20; }, "oversized", false},
        {"not a frame", [](RawFrame *f) { f->magic = 0x12345678; }, "inconsistent", false},
        {"length below a header", [](RawFrame *f) { f->total = 31; }, "inconsistent", false},
        {"piece counts do not add up",
         [](RawFrame *f) {
             f->recs.push_back({64, 0, 0, 0, 0});
         },
         "inconsistent", true},
        {"records run past the frame", [](RawFrame *f) { f->pieces = 3; }, "short", true},
        {"piece longer than its buffer", [](RawFrame *f) { f->recs[0][0] = 4; }, "inconsistent",
         true},
        {"lengths run past the frame", [](RawFrame *f) { f->recs[0][1] = 9; }, "short", true},
        {"bytes left over", [](RawFrame *f) { f->data.push_back(6); }, "inconsistent", true},
        {"buffers beyond the limit", [](RawFrame *f) { f->recs[0][0] = 0x10000000; }, "oversized",
         true},
        {"no packets", [](RawFrame *f) { f->counts.clear(); }, "inconsistent", true},
        {"an empty packet",
         [](RawFrame *f) {
             f->counts = {0, 1};
         },
         "inconsistent", true},
        {"too many pieces in a packet", [](RawFrame *f) { f->counts = {91}; }, "inconsistent",
         true},
        {"another pipe's frame", [](RawFrame *f) { f->id = kNetPipe + 1; }, "inconsistent", true},
        {"a message frame", [](RawFrame *f) { f->type = 2; }, "inconsistent", true},
    };
    TempDir dir;
    ASSERT_EQ(KRM_HOST_PipeOpen(kNetPipe, 0), 0u);
    ASSERT_EQ(KRM_HOST_PipeListen(kNetPipe, dir.Sock("pipe.sock").c_str()), 0u);
    const RawFrame sound;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        KRM_HOST_ReportClear();
        const std::uint32_t refused = Refused();
        RawFrame frame;
        row.spoil(&frame);
        const std::vector<unsigned char> bytes = frame.Bytes();
        const int fd = ConnectRaw(dir.Sock("pipe.sock"));
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        if (frame.cut != 0) {
            (void)::shutdown(fd, SHUT_WR);
        }
        if (row.fault != nullptr) {
            ASSERT_TRUE(WaitFor([&] { return Refused() == refused + 1; }));
            const std::vector<std::string> texts = ReportTexts();
            ASSERT_EQ(texts.size(), 1u);
            EXPECT_NE(texts[0].find(std::string("frame refused whole: ") + row.fault),
                      std::string::npos)
                << texts[0];
            EXPECT_EQ(KRM_HOST_PipeDepth(kNetPipe), 0u);
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u) << "no piece was built";
        }
        if (row.fault == nullptr || row.streamGoesOn) {
            if (row.fault != nullptr) {
                const std::vector<unsigned char> good = sound.Bytes();
                ASSERT_EQ(::send(fd, good.data(), good.size(), MSG_NOSIGNAL),
                          static_cast<ssize_t>(good.size()));
            }
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
    WriterPacket pkt;
    pkt.pieces = {{936, 100}};
    pkt.Make(1);
    EXPECT_EQ(KRM_PipeIovecWrite(kNetPipe, 1, pkt.iov.data()), KRM_HOST_PIPE_ERR_SOCKET);
    EXPECT_TRUE(pkt.pieces[0].Intact());
    pkt.Free();
    const std::string tooLong(200, 'x');
    EXPECT_EQ(KRM_HOST_MsgOpen(kNetDest), 0u);
    EXPECT_EQ(KRM_HOST_MsgListen(kNetDest, tooLong.c_str()), KRM_HOST_PIPE_ERR_SOCKET);
}

}  // namespace
}  // namespace krm::test::platform
