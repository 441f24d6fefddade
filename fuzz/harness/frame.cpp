// Package read from a socket frame: any bytes written by a peer into the
// socket a host pipe listens on. The pipe refuses what does not add up and
// queues what does; every packet of a queued package must rebuild to a
// sound packet or fail leaving its pieces, and nothing may stay allocated.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"

namespace {

// Frames name their pipe: the seeds are written for this one.
constexpr std::uint32_t kPipe = 7;

const std::string &SocketPath() {
    static const std::string strPath = [] {
        const std::string s = "/tmp/krm-fuzz-frame-" + std::to_string(::getpid()) + ".sock";
        if (KRM_HOST_PipeOpen(kPipe, 0) != 0 || KRM_HOST_PipeListen(kPipe, s.c_str()) != 0) {
            krm::fuzz::Fail("cannot listen on %s", s.c_str());
        }
        return s;
    }();
    return strPath;
}

// Writes the bytes as a peer and waits until the pipe has read every frame
// and dropped the connection.
void Deliver(const std::uint8_t *pucData, std::size_t ulSize) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", SocketPath().c_str());
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        krm::fuzz::Fail("cannot connect to the pipe");
    }
    std::size_t ulSent = 0;
    while (ulSent < ulSize) {
        const ssize_t r = ::send(fd, pucData + ulSent, ulSize - ulSent, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) {
            continue;  // libFuzzer's timer
        }
        if (r <= 0) {
            break;  // the pipe refused the stream and hung up
        }
        ulSent += static_cast<std::size_t>(r);
    }
    (void)::shutdown(fd, SHUT_WR);
    char c;
    ssize_t r = 0;
    while ((r = ::recv(fd, &c, 1, 0)) > 0 || (r < 0 && errno == EINTR)) {
    }
    (void)::close(fd);
}

void RebuildOne(MBUF_TRANS_DESC_S *pstDesc) {
    std::vector<void *> vBufs(reinterpret_cast<void **>(pstDesc->pstIovec),
                              reinterpret_cast<void **>(pstDesc->pstIovec) + pstDesc->ulNum);
    MBUF_S *pstPkt = nullptr;
    if (MBUF_RcvTrans_fl(&pstPkt, pstDesc, "fuzz", 80) != 0) {
        krm::fuzz::ExpectAllLive(vBufs, "receive");
        krm::fuzz::FreeLive(vBufs);
        return;
    }
    (void)krm::fuzz::CheckPacket(pstPkt, "receive", true);
    krm::fuzz::FreeLeftOver(vBufs, pstPkt);
    krm::fuzz::Release(pstPkt);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    (void)SocketPath();
    const krm::fuzz::Session session(false);
    Deliver(pucData, ulSize);
    static MBUF_TRANS_DESC_S astDesc[KRM_HOST_PIPE_MAX_PACKETS];
    for (;;) {
        std::uint32_t ulCount = KRM_HOST_PIPE_MAX_PACKETS;
        std::uint32_t ulStatus = 0;
        std::uint32_t ulAux = 0;
        if (KRM_PipePackageRead(kPipe, &ulCount, astDesc, &ulStatus, &ulAux) != 0 || ulCount == 0) {
            break;
        }
        for (std::uint32_t i = 0; i < ulCount; ++i) {
            RebuildOne(&astDesc[i]);
        }
    }
    return 0;
}
