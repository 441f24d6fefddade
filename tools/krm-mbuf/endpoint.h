// One end of the road: a host pipe bound to a Unix-domain socket, the way
// packets travel over it, and optionally a capture of both directions.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "krm_mbuf/mbuf.h"
#include "pcapng.h"
#include "recorder.h"

namespace krm::tool {

inline constexpr std::uint32_t kRoadPipe = 7;
inline constexpr std::uint32_t kRoadQueue = 8;  // message ways: a queue on PATH.msg

class Endpoint {
  public:
    // strVia: "pipe" (piece lists through the pipe), "message" (the message
    // form), "tlv" or "image" (the flat forms carried as messages). The
    // hello always takes the pipe. pCapture may be NULL;
    // it must outlive the endpoint.
    // ulPipe: the host pipe both ends bind (frames carry it).
    Endpoint(std::string strVia, PcapngWriter *pCapture, std::uint32_t ulPipe = kRoadPipe);
    ~Endpoint();
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;

    bool Listen(const std::string &strPath);
    bool Connect(const std::string &strPath);
    // The connecting side announces itself with a small packet, so the
    // listening side knows the link is up and which byte order the peer has.
    bool SayHello();
    bool AwaitHello(std::uint32_t ulTimeoutMs);

    // Sends the packet and takes it over, whatever the result.
    std::uint32_t Send(MBUF_S *pstMbuf);
    // The next packet (the caller's to destroy), or NULL: LastError says why.
    MBUF_S *Receive(std::uint32_t ulTimeoutMs);

    void Close();
    std::uint8_t PeerOrder() const { return m_ucPeerOrder; }
    const std::string &LastError() const { return m_strError; }
    const std::string &Via() const { return m_strVia; }
    // Saves every package this end writes as DIR/package-N.pkg (the pipe
    // package form inspect reads). Call before Listen/Connect.
    void SavePackages(const std::string &strDir) { m_strSaveDir = strDir; }

  private:
    static void Tap(std::uint32_t ulPipeId, std::uint32_t ulPktCount,
                    const MBUF_TRANS_DESC_S *pstPkts, void *pArg);
    bool Fail(const std::string &s);
    std::uint32_t SendFlat(MBUF_S *pstMbuf);
    MBUF_S *ReceivePiped(std::uint32_t ulTimeoutMs);
    MBUF_S *ReceiveMsg(std::uint32_t ulTimeoutMs);
    void WatchWrites();

    std::string m_strVia;
    std::uint32_t m_ulPipe;
    std::unique_ptr<PipeRecorder> m_pRecorder;
    std::uint8_t m_ucPeerOrder = 0;
    std::string m_strError;
    bool m_bOpen = false;
    bool m_bMsgOpen = false;
    bool m_bHelloDone = false;
    std::string m_strSaveDir;
    std::uint32_t m_ulSaved = 0;
};

}  // namespace krm::tool
