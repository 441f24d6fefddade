// capture: a tap on a host pipe. It opens the pipe, listens on its socket
// for the process that writes to it, and writes every packet that arrives to
// pcapng, data as the packet and records and flag words as comments.
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "commands.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"
#include "recorder.h"

namespace krm::tool {
namespace {

// Frees the pieces of a package nobody rebuilds.
void Release(std::uint32_t ulCount, const MBUF_TRANS_DESC_S *pstDescs) {
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        auto *ppPieces = reinterpret_cast<void **>(pstDescs[i].pstIovec);
        for (std::uint32_t j = 0; j < pstDescs[i].ulNum; ++j) {
            MBUF_IOVEC_S stPiece{ppPieces[j], KRM_DbufLengthGET(ppPieces[j]), 0};
            (void)KRM_DbufIovecFree_F(1, &stPiece, "krm-mbuf capture", 1);
        }
    }
}

}  // namespace

int Capture(const CaptureArgs &a) {
    const std::string strSock = a.strSocket.empty()
                                    ? "/tmp/krm-mbuf-pipe" + std::to_string(a.ulPipe) + ".sock"
                                    : a.strSocket;
    std::FILE *pOut = a.strOut == "-" ? stdout : std::fopen(a.strOut.c_str(), "wb");
    if (pOut == nullptr) {
        Complain("cannot write " + a.strOut);
        return kExitBadInput;
    }
    PcapngWriter stWriter(pOut, "krm-mbuf capture");
    PipeRecorder stRec(stWriter);
    (void)unlink(strSock.c_str());
    if (KRM_HOST_PipeOpen(a.ulPipe, 0) != 0 ||
        KRM_HOST_PipeListen(a.ulPipe, strSock.c_str()) != 0) {
        Complain("cannot open pipe " + std::to_string(a.ulPipe) + " on " + strSock);
        return kExitFailed;
    }
    std::fprintf(stderr, "krm-mbuf: capturing pipe %u on %s\n", a.ulPipe, strSock.c_str());
    std::uint32_t ulSeen = 0;
    while ((a.ulCount == 0 || ulSeen < a.ulCount) && stWriter.Good() &&
           KRM_HOST_PipeWait(a.ulPipe, a.ulTimeoutS * 1000) != 0) {
        MBUF_TRANS_DESC_S astDesc[KRM_HOST_PIPE_MAX_PACKETS];
        std::uint32_t ulCount = KRM_HOST_PIPE_MAX_PACKETS;
        std::uint32_t ulStatus = 0;
        if (KRM_PipePackageRead(a.ulPipe, &ulCount, astDesc, &ulStatus, nullptr) != 0) {
            break;
        }
        stRec.Record(a.ulPipe, ReaderPieces(ulCount, astDesc), Direction::kInbound);
        Release(ulCount, astDesc);
        ulSeen += ulCount;
    }
    (void)KRM_HOST_PipeClose(a.ulPipe);
    (void)unlink(strSock.c_str());
    if (pOut != stdout) {
        std::fclose(pOut);
    }
    std::fprintf(stderr, "krm-mbuf: %u packets captured\n", ulSeen);
    return a.ulCount == 0 || ulSeen == a.ulCount ? kExitOk : kExitFailed;
}

}  // namespace krm::tool
