// One side of a conversation between two processes, possibly of different
// byte orders, over a Unix-domain socket: the sender sends packets 0..N-1 and
// checks each answer, the receiver checks each packet against its own copy
// and answers with a digest.
//
//   krm_pipe_peer send|recv pipe|msg SOCKET COUNT
//
// Exit status 0 when every packet arrived equal.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "road_packets.h"

namespace {

constexpr std::uint32_t kChannel = 1;

int Usage() {
    std::fprintf(stderr, "usage: krm_pipe_peer send|recv pipe|msg SOCKET COUNT\n");
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) {
        return Usage();
    }
    const bool send = std::strcmp(argv[1], "send") == 0;
    if (!send && std::strcmp(argv[1], "recv") != 0) {
        return Usage();
    }
    const bool msg = std::strcmp(argv[2], "msg") == 0;
    if (!msg && std::strcmp(argv[2], "pipe") != 0) {
        return Usage();
    }
    const auto mode = msg ? krm::road::Mode::Msg : krm::road::Mode::Pipe;
    const auto count = static_cast<std::uint32_t>(std::strtoul(argv[4], nullptr, 10));
    // The receiver listens, the sender connects.
    const std::uint32_t rc = krm::road::Bind(mode, kChannel, argv[3], !send);
    if (rc != 0) {
        std::fprintf(stderr, "krm_pipe_peer %s %s: cannot bind %s (0x%X)\n", argv[1], argv[2],
                     argv[3], rc);
        return 1;
    }
    const krm::road::Tally t = send ? krm::road::RunSender(mode, kChannel, 0, count)
                                    : krm::road::RunReceiver(mode, kChannel, 0, count);
    std::printf("krm_pipe_peer %s %s (byte order %u): %u equal, %u differ\n", argv[1], argv[2],
                static_cast<unsigned>(MBUF_BYTEORDER_HOST), t.equal, t.differ);
    KRM_HOST_Reset();
    return t.equal == count && t.differ == 0 ? 0 : 1;
}
