#include "recorder.h"

#include <chrono>

#include "krm_mbuf/platform.h"
#include "show.h"

namespace krm::tool {

std::uint64_t NowUs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

std::vector<PiecePacket> WriterPieces(std::uint32_t ulCount, const MBUF_TRANS_DESC_S *pstDescs) {
    std::vector<PiecePacket> v(ulCount);
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        for (std::uint32_t j = 0; j < pstDescs[i].ulNum; ++j) {
            const MBUF_IOVEC_S &st = pstDescs[i].pstIovec[j];
            const auto *p = static_cast<const std::uint8_t *>(st.pBuf);
            v[i].emplace_back(p, p == nullptr ? p : p + st.ulLen);
        }
    }
    return v;
}

std::vector<PiecePacket> ReaderPieces(std::uint32_t ulCount, const MBUF_TRANS_DESC_S *pstDescs) {
    std::vector<PiecePacket> v(ulCount);
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        const auto *ppAddrs = reinterpret_cast<void *const *>(pstDescs[i].pstIovec);
        for (std::uint32_t j = 0; j < pstDescs[i].ulNum; ++j) {
            const auto *p = static_cast<const std::uint8_t *>(ppAddrs[j]);
            v[i].emplace_back(p, p == nullptr ? p : p + KRM_DbufLengthGET(p));
        }
    }
    return v;
}

void PipeRecorder::Write(const std::string &strIf, const std::uint8_t *p, std::size_t n,
                         Direction eDir) {
    Decoded stDec;
    if (auto oErr = Decode(p, n, &stDec)) {
        const std::uint32_t ulIf = m_stOut.Interface(strIf, kLinkUser0);
        m_stOut.Packet(ulIf, NowUs(), p, n, eDir, {*oErr});
        return;
    }
    for (const DecodedPacket &stPkt : stDec.vPackets) {
        std::vector<std::string> vComments = PacketComments(stPkt);
        vComments.insert(vComments.begin(), std::string(WireKindName(stDec.eKind)) +
                                                ", sender byte order " + OrderName(stDec.ucOrder));
        const std::uint16_t usLink = LinkTypeFor(stPkt.vData.data(), stPkt.vData.size());
        m_stOut.Packet(m_stOut.Interface(strIf, usLink), NowUs(), stPkt.vData.data(),
                       stPkt.vData.size(), eDir, vComments);
    }
}

void PipeRecorder::Record(std::uint32_t ulPipeId, const std::vector<PiecePacket> &vPkts,
                          Direction eDir) {
    for (const PiecePacket &vPieces : vPkts) {
        const std::vector<std::uint8_t> vPkg = EncodePackage({vPieces});
        Write("pipe" + std::to_string(ulPipeId), vPkg.data(), vPkg.size(), eDir);
    }
}

void PipeRecorder::RecordBytes(std::uint32_t ulQueue, const std::uint8_t *p, std::size_t n,
                               Direction eDir) {
    Write("queue" + std::to_string(ulQueue), p, n, eDir);
}

}  // namespace krm::tool
