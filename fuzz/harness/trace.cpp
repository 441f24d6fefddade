// Trace matching: the first 72 bytes as the trace conditions, the rest as a
// saved pipe package whose first packet's pieces are matched while still a
// receive descriptor. The match only reads: every piece must come out as it
// went in, and a packet of this host's order that rebuilds must match
// exactly when a model of the conditions over its nodes says so.
#include <cstring>

#include "fuzz_support.h"
#include "internal/bytes.h"

namespace {

// The model: each non-empty condition's word lies inside one node's data
// and, read most significant byte first and masked, equals its value.
std::uint32_t Model(const MBUF_S *pstPkt, const MBUF_TRACE_COND_S &stCond) {
    for (std::uint32_t i = 0; i < MBUF_TRACE_COND_NUM; ++i) {
        const std::uint32_t ulOff = stCond.aulOffset[i];
        if (ulOff == 0 && stCond.aulMask[i] == 0 && stCond.aulValue[i] == 0) {
            continue;
        }
        std::uint64_t ullAt = 0;
        const MBUF_S *p = pstPkt;
        while (p != nullptr && ullAt + p->ulDataLen <= ulOff) {
            ullAt += p->ulDataLen;
            p = p->pstNext;
        }
        if (p == nullptr || ulOff + std::uint64_t{4} > ullAt + p->ulDataLen) {
            return 1;
        }
        const std::uint32_t ulWord = krm::LoadBe32(p->pucData + (ulOff - ullAt));
        if ((ulWord & stCond.aulMask[i]) != stCond.aulValue[i]) {
            return 1;
        }
    }
    return 0;
}

// The model's answer for the packet the pieces rebuild to; 2 when they do
// not rebuild to a consistent packet or were written in the other order.
std::uint32_t Expected(const krm::fuzz::PiecePacket &vPieces, const MBUF_TRACE_COND_S &stCond) {
    std::vector<void *> vBufs = krm::fuzz::Land(vPieces);
    if (vBufs.empty()) {
        return 2;
    }
    constexpr std::size_t kOrderOff = offsetof(MBUF_S, ucByteOrder);
    const std::uint8_t ucOrder = vPieces[0].ulLen > kOrderOff ? vPieces[0].pucBytes[kOrderOff] : 0;
    // A lone head that says a control block travels has no data piece left
    // to match, however the receive makes do with it.
    constexpr std::size_t kFlagOff = offsetof(MBUF_S, ulFlag);
    if (vPieces.size() == 1 && vPieces[0].ulLen >= kFlagOff + 4 &&
        (krm::Load32At(vPieces[0].pucBytes, static_cast<std::uint32_t>(kFlagOff)) &
         MBUF_FLAG_CTLINFO_SENT) != 0) {
        krm::fuzz::FreeLive(vBufs);
        return 1;
    }
    MBUF_TRANS_DESC_S stDesc = krm::fuzz::RecvDesc(vBufs);
    MBUF_S *pstPkt = nullptr;
    if (ucOrder != MBUF_BYTEORDER_HOST || MBUF_RcvTrans_fl(&pstPkt, &stDesc, "fuzz", 60) != 0) {
        krm::fuzz::FreeLive(vBufs);
        return 2;
    }
    const std::uint32_t ulWant =
        krm::fuzz::CheckPacket(pstPkt, "receive", true) ? Model(pstPkt, stCond) : 2;
    krm::fuzz::FreeLeftOver(vBufs, pstPkt);
    krm::fuzz::Release(pstPkt);
    return ulWant;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    MBUF_TRACE_COND_S stCond;
    std::vector<krm::fuzz::PiecePacket> vPackets;
    if (ulSize < sizeof(stCond) ||
        !krm::fuzz::ParsePackage(pucData + sizeof(stCond), ulSize - sizeof(stCond), &vPackets)) {
        return 0;
    }
    std::memcpy(&stCond, pucData, sizeof(stCond));
    std::vector<void *> vBufs = krm::fuzz::Land(vPackets[0]);
    if (vBufs.empty()) {
        return 0;
    }
    MBUF_TRANS_DESC_S stDesc = krm::fuzz::RecvDesc(vBufs);
    MBUF_TRACE_COND_S stOrdered = stCond;
    const std::uint32_t ulGot = MBUF_TRACE_JudgeParaMatch(0, 1, &stDesc, &stOrdered);
    for (std::size_t i = 0; i < vBufs.size(); ++i) {
        const krm::fuzz::Piece &piece = vPackets[0][i];
        if (std::memcmp(vBufs[i], piece.pucBytes, piece.ulLen) != 0) {
            krm::fuzz::Fail("trace matching changed piece %zu", i);
        }
    }
    krm::fuzz::FreeLive(vBufs);
    const std::uint32_t ulWant = Expected(vPackets[0], stCond);
    if (ulWant != 2 && ulWant != ulGot) {
        krm::fuzz::Fail("trace match %u, the packet's nodes say %u", ulGot, ulWant);
    }
    return 0;
}
