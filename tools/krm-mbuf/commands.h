// The subcommands: what each takes from the command line and the function
// that does its work, returning the process's exit code. Only main() knows
// the option parser; the subcommands are plain functions of their arguments.
#pragma once

#include <cstdint>
#include <string>

#include "endpoint.h"

namespace krm::tool {

// Exit codes shared by every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;    // the work was done and something differs
inline constexpr int kExitBadInput = 2;  // input or arguments unusable

struct InspectArgs {
    std::string strFile = "-";
    bool bJson = false;
};

struct CaptureArgs {
    std::uint32_t ulPipe = 0;
    std::string strOut;
    std::string strSocket;
    std::uint32_t ulCount = 0;  // 0: until the timeout
    std::uint32_t ulTimeoutS = 30;
};

struct RoadArgs {
    std::string strPeer = "native";
    std::string strPeerExe;
    std::string strVia = "pipe";
    std::string strCapture;
    std::string strSocket;  // peer role: where the sender listens
    std::string strSaveDir;
    std::uint32_t ulPipe = kRoadPipe;  // peer role
    std::uint32_t ulEmit = 0;          // peer role: only send this many packets, take none back
    std::uint32_t ulPackets = 8;
};

struct TsoArgs {
    std::uint32_t ulMss = 1460;
    std::string strIn;
    std::string strOut;
};

int Inspect(const InspectArgs &stArgs);
int Capture(const CaptureArgs &a);
// road's two ends: the sender that starts its peer, and that peer.
int Road(const RoadArgs &a);
int Peer(const RoadArgs &a);
int Tso(const TsoArgs &a);

// Prints "krm-mbuf: <what>" on standard error.
void Complain(const std::string &strWhat);

}  // namespace krm::tool
