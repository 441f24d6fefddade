#include "endpoint.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "internal/bytes.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"
#include "sample.h"

namespace krm::tool {
namespace {

std::string Hex(std::uint32_t ul) {
    char ac[16];
    (void)std::snprintf(ac, sizeof(ac), "0x%X", ul);
    return ac;
}

constexpr std::uint8_t kHello[] = "hello from the peer";

template <typename Fn>
bool Retry(Fn fn, std::uint32_t &ulRc) {
    for (int i = 0; i < 50; ++i) {
        ulRc = fn();
        if (ulRc == 0) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

}  // namespace

Endpoint::Endpoint(std::string strVia, PcapngWriter *pCapture, std::uint32_t ulPipe)
    : m_strVia(std::move(strVia)), m_ulPipe(ulPipe) {
    if (pCapture != nullptr) {
        m_pRecorder = std::make_unique<PipeRecorder>(*pCapture);
    }
}

Endpoint::~Endpoint() {
    Close();
}

bool Endpoint::Fail(const std::string &s) {
    m_strError = s;
    return false;
}

void Endpoint::Tap(std::uint32_t ulPipeId, std::uint32_t ulPktCount,
                   const MBUF_TRANS_DESC_S *pstPkts, void *pArg) {
    auto *pSelf = static_cast<Endpoint *>(pArg);
    const std::vector<PiecePacket> vPkts = WriterPieces(ulPktCount, pstPkts);
    if (pSelf->m_pRecorder) {
        pSelf->m_pRecorder->Record(ulPipeId, vPkts, Direction::kOutbound);
    }
    if (!pSelf->m_strSaveDir.empty()) {
        const std::string strFile =
            pSelf->m_strSaveDir + "/package-" + std::to_string(pSelf->m_ulSaved++) + ".pkg";
        const std::vector<std::uint8_t> v = EncodePackage(vPkts);
        std::FILE *pOut = std::fopen(strFile.c_str(), "wb");
        if (pOut != nullptr) {
            (void)std::fwrite(v.data(), 1, v.size(), pOut);
            std::fclose(pOut);
        }
    }
}

void Endpoint::WatchWrites() {
    if (m_pRecorder || !m_strSaveDir.empty()) {
        KRM_HOST_PipeSetTap(m_ulPipe, &Endpoint::Tap, this);
    }
}

bool Endpoint::Listen(const std::string &strPath) {
    (void)unlink(strPath.c_str());
    std::uint32_t ulRc = KRM_HOST_PipeOpen(m_ulPipe, 0);
    if (ulRc != 0) {
        return Fail("cannot open pipe " + std::to_string(m_ulPipe) + ": " + Hex(ulRc));
    }
    m_bOpen = true;
    WatchWrites();
    ulRc = KRM_HOST_PipeListen(m_ulPipe, strPath.c_str());
    if (ulRc != 0) {
        return Fail("cannot listen on " + strPath + ": " + Hex(ulRc));
    }
    if (m_strVia == "pipe") {
        return true;
    }
    (void)unlink((strPath + ".msg").c_str());
    ulRc = KRM_HOST_MsgOpen(kRoadQueue);
    m_bMsgOpen = ulRc == 0;
    ulRc = ulRc != 0 ? ulRc : KRM_HOST_MsgListen(kRoadQueue, (strPath + ".msg").c_str());
    return ulRc == 0 || Fail("cannot listen for messages: " + Hex(ulRc));
}

bool Endpoint::Connect(const std::string &strPath) {
    std::uint32_t ulRc = KRM_HOST_PipeOpen(m_ulPipe, 0);
    if (ulRc != 0) {
        return Fail("cannot open pipe " + std::to_string(m_ulPipe) + ": " + Hex(ulRc));
    }
    m_bOpen = true;
    WatchWrites();
    // The listener is up before the peer starts; a few tries cover a slow
    // file system.
    if (!Retry([&] { return KRM_HOST_PipeConnect(m_ulPipe, strPath.c_str()); }, ulRc)) {
        return Fail("cannot connect to " + strPath + ": " + Hex(ulRc));
    }
    if (m_strVia == "pipe") {
        return true;
    }
    ulRc = KRM_HOST_MsgOpen(kRoadQueue);
    m_bMsgOpen = ulRc == 0;
    const std::string strMsg = strPath + ".msg";
    if (!m_bMsgOpen ||
        !Retry([&] { return KRM_HOST_MsgConnect(kRoadQueue, strMsg.c_str()); }, ulRc)) {
        return Fail("cannot connect to " + strMsg + ": " + Hex(ulRc));
    }
    return true;
}

bool Endpoint::SayHello() {
    MBUF_S *pstHello = MBUF_CreateByCopyBuffer(0, sizeof(kHello), kHello, 0, kToolModule);
    if (pstHello == nullptr) {
        return Fail("no memory for the hello packet");
    }
    // The hello always takes the pipe: its nodes carry the sender's code.
    const std::string strVia = m_strVia;
    m_strVia = "pipe";
    const std::uint32_t ulRc = Send(pstHello);
    m_strVia = strVia;
    m_bHelloDone = true;
    return ulRc == 0 || Fail("cannot send the hello packet: " + Hex(ulRc));
}

bool Endpoint::AwaitHello(std::uint32_t ulTimeoutMs) {
    MBUF_S *pstHello = ReceivePiped(ulTimeoutMs);
    m_bHelloDone = true;
    if (pstHello == nullptr) {
        return false;
    }
    MBUF_Destroy(pstHello);
    return true;
}

std::uint32_t Endpoint::Send(MBUF_S *pstMbuf) {
    std::uint32_t ulRc = 0;
    if (m_strVia == "pipe") {
        ulRc = MBUF_TokenAlloc(m_ulPipe, pstMbuf, kToolModule);
        MBUF_IOVEC_S astIov[MBUF_PIPE_MAX_IOVEC];
        ulRc = ulRc != 0 ? ulRc : MBUF_Send(m_ulPipe, pstMbuf, astIov);
        if (ulRc != 0) {
            MBUF_Destroy(pstMbuf);
        }
        return ulRc;
    }
    if (m_strVia == "message") {
        return MBUF_SendMsg(kToolModule, kRoadQueue, pstMbuf);  // gone either way
    }
    return SendFlat(pstMbuf);
}

// The TLV stream or the serial image, carried as a message of its own.
std::uint32_t Endpoint::SendFlat(MBUF_S *pstMbuf) {
    const bool bTlv = m_strVia == "tlv";
    std::uint32_t ulSize = bTlv ? MBUF_CalcMbuf2TlvLen(pstMbuf) : MBUF_GetAllBlockSize(pstMbuf);
    auto *pucMsg = static_cast<std::uint8_t *>(KRM_MsgAlloc_F(kToolModule, ulSize, "krm-mbuf", 1));
    std::uint32_t ulRc = pucMsg == nullptr ? MBUF_ERR_MSG_ALLOC : 0;
    if (ulRc == 0) {
        ulRc = bTlv ? MBUF_TransMbuf2Tlv(pstMbuf, pucMsg, ulSize, kToolModule)
                    : MBUF_Serialize(pstMbuf, pucMsg);
        // A stream says its own length; the image is exactly its size.
        ulSize = bTlv ? Load16(pucMsg + 2) + 16u : ulSize;
    }
    if (ulRc == 0 && m_pRecorder) {
        m_pRecorder->RecordBytes(kRoadQueue, pucMsg, ulSize, Direction::kOutbound);
    }
    if (ulRc == 0) {
        ulRc = KRM_SEND_MSG(kRoadQueue, 6, 893, pucMsg, ulSize);
    }
    if (ulRc != 0 && pucMsg != nullptr) {
        (void)TQM_MsgFree(kToolModule, pucMsg);
    }
    MBUF_Destroy(pstMbuf);
    return ulRc;
}

MBUF_S *Endpoint::ReceiveMsg(std::uint32_t ulTimeoutMs) {
    void *pMsg = KRM_HOST_MsgReceive(kRoadQueue, ulTimeoutMs, nullptr, nullptr);
    if (pMsg == nullptr) {
        Fail("no message within " + std::to_string(ulTimeoutMs) + " ms");
        return nullptr;
    }
    auto *pucMsg = static_cast<std::uint8_t *>(pMsg);
    const std::uint32_t ulLen = TQM_MsgLenGet(pMsg);
    if (m_pRecorder) {
        m_pRecorder->RecordBytes(kRoadQueue, pucMsg, ulLen, Direction::kInbound);
    }
    MBUF_S *pstMbuf = m_strVia == "message" ? MBUF_RecvMsg(pMsg)
                      : m_strVia == "tlv"   ? MBUF_TransTlv2Mbuf(pucMsg, ulLen, kToolModule)
                                            : MBUF_Deserialize(pucMsg, ulLen, kToolModule);
    (void)TQM_MsgFree(kToolModule, pMsg);
    if (pstMbuf == nullptr) {
        Fail("the " + m_strVia + " message did not rebuild");
    }
    return pstMbuf;
}

MBUF_S *Endpoint::Receive(std::uint32_t ulTimeoutMs) {
    return m_strVia == "pipe" || !m_bHelloDone ? ReceivePiped(ulTimeoutMs)
                                               : ReceiveMsg(ulTimeoutMs);
}

MBUF_S *Endpoint::ReceivePiped(std::uint32_t ulTimeoutMs) {
    if (KRM_HOST_PipeWait(m_ulPipe, ulTimeoutMs) == 0) {
        Fail("nothing arrived within " + std::to_string(ulTimeoutMs) + " ms");
        return nullptr;
    }
    MBUF_TRANS_DESC_S astDesc[KRM_HOST_PIPE_MAX_PACKETS];
    std::uint32_t ulCount = KRM_HOST_PIPE_MAX_PACKETS;
    std::uint32_t ulStatus = 0;
    std::uint32_t ulRc = KRM_PipePackageRead(m_ulPipe, &ulCount, astDesc, &ulStatus, nullptr);
    if (ulRc != 0 || ulCount != 1 || astDesc[0].ulNum == 0) {
        Fail("package read: " + Hex(ulRc) + ", " + std::to_string(ulCount) + " packets");
        return nullptr;
    }
    const auto *ppPieces = reinterpret_cast<void *const *>(astDesc[0].pstIovec);
    m_ucPeerOrder = static_cast<const std::uint8_t *>(ppPieces[0])[offsetof(MBUF_S, ucByteOrder)];
    if (m_pRecorder) {
        m_pRecorder->Record(m_ulPipe, ReaderPieces(ulCount, astDesc), Direction::kInbound);
    }
    MBUF_S *pstMbuf = nullptr;
    ulRc = MBUF_RcvTrans(&pstMbuf, &astDesc[0]);
    if (ulRc != 0) {
        Fail("receive rebuild failed: " + Hex(ulRc));
        return nullptr;
    }
    return pstMbuf;
}

void Endpoint::Close() {
    if (m_bOpen) {
        KRM_HOST_PipeSetTap(m_ulPipe, nullptr, nullptr);
        (void)KRM_HOST_PipeClose(m_ulPipe);
        m_bOpen = false;
    }
    if (m_bMsgOpen) {
        (void)KRM_HOST_MsgClose(kRoadQueue);
        m_bMsgOpen = false;
    }
}

}  // namespace krm::tool
