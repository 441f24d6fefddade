// road: packets from this process to a peer process and back through the
// host pipe, the peer optionally the big-endian build under qemu-ppc.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "endpoint.h"
#include "recorder.h"
#include "sample.h"
#include "show.h"

extern char **environ;

namespace krm::tool {
namespace {

constexpr const char *kQemu = "/usr/bin/qemu-ppc";
constexpr const char *kPpcRoot = "/usr/powerpc-linux-gnu";
constexpr const char *kPpcExe = "build/ppc/tools/krm-mbuf/krm-mbuf";
constexpr std::uint32_t kHelloTimeoutMs = 60000;  // qemu and a cold start take their time
constexpr std::uint32_t kPacketTimeoutMs = 10000;

std::string SelfExe() {
    char ac[4096];
    const ssize_t n = readlink("/proc/self/exe", ac, sizeof(ac) - 1);
    return n > 0 ? std::string(ac, static_cast<std::size_t>(n)) : "krm-mbuf";
}

bool Exists(const std::string &s) {
    return access(s.c_str(), X_OK) == 0;
}

// The big-endian build of this tool in the ppc preset's tree; built when
// missing (from the project root).
std::optional<std::string> PpcExe() {
    if (!Exists(kPpcExe)) {
        std::printf("step 0: no big-endian build yet; building it (cmake --preset ppc)\n");
        std::fflush(stdout);
        if (std::system("cmake --preset ppc >/dev/null && cmake --build build/ppc --target "
                        "krm-mbuf >/dev/null") != 0 ||
            !Exists(kPpcExe)) {
            return std::nullopt;
        }
    }
    return std::string(kPpcExe);
}

std::optional<pid_t> Spawn(std::vector<std::string> vArgs) {
    std::vector<char *> vArgv;
    for (auto &s : vArgs) {
        vArgv.push_back(s.data());
    }
    vArgv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, vArgv[0], nullptr, nullptr, vArgv.data(), environ) != 0) {
        return std::nullopt;
    }
    return pid;
}

std::optional<std::vector<std::string>> PeerCommand(const RoadArgs &a, const std::string &strSock) {
    std::vector<std::string> v;
    std::string strExe = a.strPeerExe;
    const bool bPpc = a.strPeer == "ppc";
    if (strExe.empty()) {
        if (bPpc) {
            auto o = PpcExe();
            if (!o) {
                Complain("cannot build the big-endian peer (run from the project root)");
                return std::nullopt;
            }
            strExe = *o;
        } else {
            strExe = SelfExe();
        }
    }
    if (bPpc) {
        v = {kQemu, "-L", kPpcRoot};
    }
    v.insert(v.end(), {strExe, "peer", "--socket", strSock, "--via", a.strVia, "--packets",
                       std::to_string(a.ulPackets)});
    return v;
}

// The session's protocol-interaction log: the sender records each packet
// as it sends it and as it takes it back, so a lost packet shows as a gap.
constexpr std::uint32_t kSession = 1;
constexpr std::uint32_t kProtoSend = 0;  // recorded and numbered
constexpr std::uint32_t kProtoRecv = 3;  // recorded on receipt

struct SessionLog {
    MBUF_PROTOINT_CTX_S *pCtx = nullptr;
    SessionLog() {
        // Lock mode 1: the log locks its sessions; the stamp it adds to
        // each packet carries that word as its component.
        const MBUF_PROTOINT_PARA_S stPara = {kToolModule, kToolModule, 1};
        pCtx = MBUF_PROTOINT_Init(&stPara);
        if (pCtx != nullptr && MBUF_PROTOINT_EnableSession(kSession, pCtx) != 0) {
            MBUF_PROTOINT_Uninit(pCtx);
            pCtx = nullptr;
        }
    }
    ~SessionLog() { MBUF_PROTOINT_Uninit(pCtx); }
    SessionLog(const SessionLog &) = delete;
    SessionLog &operator=(const SessionLog &) = delete;
    void Print() const {
        std::vector<char> v(16384);
        if (pCtx != nullptr &&
            MBUF_PROTOINT_PrintLog(v.data(), static_cast<std::uint32_t>(v.size()), kSession, pCtx) >
                0) {
            std::printf("  protocol-interaction log of session %u:\n%s", kSession, v.data());
        }
    }
};

// Both ends build the same packet: the sample, stamped for the session.
MBUF_S *MakeRoadSample(std::uint32_t i, SessionLog &stLog) {
    MBUF_S *pstPkt = MakeSample(i);
    if (pstPkt != nullptr && stLog.pCtx != nullptr &&
        MBUF_PROTOINT_CreateIdInfo(pstPkt, kSession, 0, 0, stLog.pCtx) != 0) {
        MBUF_Destroy(pstPkt);
        return nullptr;
    }
    return pstPkt;
}

// What of the packet the way carries: a TLV stream has no room for the
// third flag word.
Snapshot Expected(const std::string &strVia, MBUF_S *pstPkt) {
    Snapshot s = Snap(pstPkt);
    if (strVia == "tlv") {
        s.ulFlag3 = 0;
    }
    return s;
}

struct Totals {
    std::uint64_t ullBytes = 0;
    std::uint32_t ulSame = 0;
    std::vector<double> vRttUs;
};

// One packet there and back; prints its steps. False when it differs.
bool OnePacket(Endpoint &stEnd, SessionLog &stLog, std::uint32_t i, Totals &stTotals) {
    MBUF_S *pstPkt = MakeRoadSample(i, stLog);
    if (pstPkt == nullptr) {
        std::printf("packet %u: could not be built\n", i);
        return false;
    }
    Snapshot stWant = Expected(stEnd.Via(), pstPkt);
    stWant.vStampComps.push_back(kCompPeer);
    stWant.vStampComps.push_back(kCompBack);
    const auto t0 = std::chrono::steady_clock::now();
    (void)MBUF_PROTOINT_RecordPacket(pstPkt, kProtoSend, nullptr, stLog.pCtx);
    const std::uint32_t ulRc = stEnd.Send(pstPkt);
    if (ulRc != 0) {
        std::printf("packet %u: send failed with 0x%X\n", i, ulRc);
        return false;
    }
    std::printf("packet %u: sent %zu bytes, %zu records, stamped by %s\n", i, stWant.vData.size(),
                stWant.mRecords.size(), MBUF_HOSTDBG_GetCompName(kCompSender));
    MBUF_S *pstBack = stEnd.Receive(kPacketTimeoutMs);
    const auto t1 = std::chrono::steady_clock::now();
    if (pstBack == nullptr) {
        std::printf("packet %u: nothing came back: %s\n", i, stEnd.LastError().c_str());
        return false;
    }
    (void)MBUF_PROTOINT_RecordPacket(pstBack, kProtoRecv, nullptr, stLog.pCtx);
    Stamp(pstBack, kCompBack);
    const std::string strDiff = Differs(stWant, Snap(pstBack));
    MBUF_Destroy(pstBack);
    const double dUs = std::chrono::duration<double, std::micro>(t1 - t0).count();
    stTotals.vRttUs.push_back(dUs);
    stTotals.ullBytes += stWant.vData.size();
    std::printf("packet %u: back after %.0f us from a %s peer: %s\n", i, dUs,
                OrderName(stEnd.PeerOrder()), strDiff.empty() ? "same" : strDiff.c_str());
    stTotals.ulSame += strDiff.empty() ? 1 : 0;
    return strDiff.empty();
}

void Summary(const RoadArgs &a, const Endpoint &stEnd, const SessionLog &stLog, const Totals &t,
             int iPeerRc) {
    std::printf("summary:\n");
    std::printf("  way:         %s, peer %s\n", a.strVia.c_str(), a.strPeer.c_str());
    std::printf("  packets:     %u sent, %u came back the same\n", a.ulPackets, t.ulSame);
    std::printf("  bytes:       %llu each way\n", static_cast<unsigned long long>(t.ullBytes));
    std::printf("  byte orders: this end %s, peer %s\n", OrderName(MBUF_BYTEORDER_HOST),
                OrderName(stEnd.PeerOrder()));
    if (!t.vRttUs.empty()) {
        double dSum = 0;
        for (double d : t.vRttUs) {
            dSum += d;
        }
        std::printf("  round trip:  %.0f us per packet (min %.0f, max %.0f)\n",
                    dSum / static_cast<double>(t.vRttUs.size()),
                    *std::min_element(t.vRttUs.begin(), t.vRttUs.end()),
                    *std::max_element(t.vRttUs.begin(), t.vRttUs.end()));
    }
    std::printf("  peer:        exit %d\n", iPeerRc);
    stLog.Print();
}

int WaitPeer(pid_t pid) {
    int iStatus = 0;
    if (waitpid(pid, &iStatus, 0) != pid) {
        return -1;
    }
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus);
}

// A writer for capture: sends samples and takes nothing back.
int Emit(Endpoint &stEnd, std::uint32_t ulCount) {
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        MBUF_S *pstPkt = MakeSample(i);
        if (pstPkt == nullptr || stEnd.Send(pstPkt) != 0) {
            std::fprintf(stderr, "peer: packet %u could not be sent\n", i);
            return kExitFailed;
        }
    }
    stEnd.Close();
    return kExitOk;
}

}  // namespace

int Road(const RoadArgs &a) {
    const std::string strSock = "/tmp/krm-mbuf-road-" + std::to_string(getpid()) + ".sock";
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> pCap(nullptr, std::fclose);
    std::unique_ptr<PcapngWriter> pWriter;
    if (!a.strCapture.empty()) {
        pCap.reset(std::fopen(a.strCapture.c_str(), "wb"));
        if (!pCap) {
            Complain("cannot write " + a.strCapture);
            return kExitBadInput;
        }
        pWriter = std::make_unique<PcapngWriter>(pCap.get(), "krm-mbuf road");
    }
    Endpoint stEnd(a.strVia, pWriter.get());
    stEnd.SavePackages(a.strSaveDir);
    if (!stEnd.Listen(strSock)) {
        Complain(stEnd.LastError());
        return kExitFailed;
    }
    std::printf("step 1: this end (%s) listens on %s, way %s\n", OrderName(MBUF_BYTEORDER_HOST),
                strSock.c_str(), a.strVia.c_str());
    auto oCmd = PeerCommand(a, strSock);
    if (!oCmd) {
        return kExitFailed;
    }
    std::string strCmd;
    for (const auto &s : *oCmd) {
        strCmd += (strCmd.empty() ? "" : " ") + s;
    }
    auto oPid = Spawn(*oCmd);
    if (!oPid) {
        Complain("cannot start the peer: " + strCmd);
        return kExitFailed;
    }
    std::printf("step 2: peer started: %s\n", strCmd.c_str());
    std::fflush(stdout);
    Totals stTotals;
    SessionLog stLog;
    bool bOk = stEnd.AwaitHello(kHelloTimeoutMs);
    if (bOk) {
        std::printf("step 3: peer connected; it is %s\n", OrderName(stEnd.PeerOrder()));
        for (std::uint32_t i = 0; i < a.ulPackets && bOk; ++i) {
            bOk = OnePacket(stEnd, stLog, i, stTotals) && bOk;
            std::fflush(stdout);
        }
    } else {
        std::printf("step 3: the peer never said hello: %s\n", stEnd.LastError().c_str());
    }
    if (!bOk) {
        kill(*oPid, SIGTERM);
    }
    const int iPeerRc = WaitPeer(*oPid);
    stEnd.Close();
    unlink(strSock.c_str());
    Summary(a, stEnd, stLog, stTotals, iPeerRc);
    return bOk && iPeerRc == 0 && stTotals.ulSame == a.ulPackets ? kExitOk : kExitFailed;
}

int Peer(const RoadArgs &a) {
    Endpoint stEnd(a.strVia, nullptr, a.ulPipe);
    stEnd.SavePackages(a.strSaveDir);
    if (!stEnd.Connect(a.strSocket) || !stEnd.SayHello()) {
        std::fprintf(stderr, "peer: %s\n", stEnd.LastError().c_str());
        return kExitFailed;
    }
    if (a.ulEmit != 0) {
        return Emit(stEnd, a.ulEmit);
    }
    int iRc = kExitOk;
    SessionLog stLog;
    for (std::uint32_t i = 0; i < a.ulPackets; ++i) {
        MBUF_S *pstGot = stEnd.Receive(kPacketTimeoutMs);
        if (pstGot == nullptr) {
            std::fprintf(stderr, "peer: packet %u: %s\n", i, stEnd.LastError().c_str());
            return kExitFailed;
        }
        MBUF_S *pstWant = MakeRoadSample(i, stLog);
        const std::string strDiff =
            pstWant != nullptr ? Differs(Expected(a.strVia, pstWant), Snap(pstGot)) : "";
        if (pstWant != nullptr) {
            MBUF_Destroy(pstWant);
        }
        if (!strDiff.empty()) {
            std::fprintf(stderr, "peer: packet %u arrived different: %s\n", i, strDiff.c_str());
            iRc = kExitFailed;
        }
        Stamp(pstGot, kCompPeer);
        if (stEnd.Send(pstGot) != 0) {
            std::fprintf(stderr, "peer: packet %u: cannot send it back\n", i);
            return kExitFailed;
        }
    }
    stEnd.Close();
    return iRc;
}

}  // namespace krm::tool
