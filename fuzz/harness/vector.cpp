// Vector rebuild: any bytes as a saved pipe package whose first packet's
// pieces are the entries of a forwarding vector (each with its length),
// rebuilt in place. A rebuilt packet must be sound once the words the vector
// form trusts are set (an external node's size is the next entry's length,
// the total length is the sender's); a failed rebuild frees no entry; a
// packet consistent throughout, described as a vector again and rebuilt
// from copies, must hold the same data.
#include "fuzz_support.h"
#include "krm_mbuf/platform.h"

#include <cstring>

namespace {

// Checks a rebuilt packet; then sets the words the vector form takes from
// the entries and the sender to what the packet really holds, so that the
// second check tells whether the rest is consistent.
bool CheckSettled(MBUF_S *pstPkt, const char *pcWhat) {
    (void)krm::fuzz::CheckPacket(pstPkt, pcWhat, true);  // no loop: safe to walk
    krm::fuzz::SettleExtSize(pstPkt);
    std::uint32_t ulTotal = 0;
    for (const MBUF_S *p = pstPkt; p != nullptr; p = p->pstNext) {
        ulTotal += p->ulDataLen;
    }
    pstPkt->ulTotalDataLen = ulTotal;
    return krm::fuzz::CheckPacket(pstPkt, pcWhat, true);
}

// The entries copied into fresh buffers the size of the ones they start, as
// the forwarding path hands them on.
std::vector<MBUF_IOVEC_S> Copies(const MBUF_IOVEC_S *pstVec, std::uint32_t ulCount) {
    std::vector<MBUF_IOVEC_S> v;
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        const std::uint32_t ulBuf = KRM_DbufLengthGET(pstVec[i].pBuf);
        const std::uint32_t ulSize = ulBuf != 0 ? ulBuf : pstVec[i].ulLen;
        const krm::fuzz::Piece piece{static_cast<const std::uint8_t *>(pstVec[i].pBuf),
                                     std::min(pstVec[i].ulLen, ulSize), ulSize};
        const std::vector<void *> vNew = krm::fuzz::Land({piece});
        if (vNew.empty()) {
            krm::fuzz::Fail("no memory for a copy");
        }
        v.push_back(MBUF_IOVEC_S{vNew[0], pstVec[i].ulLen, 0});
    }
    return v;
}

void RoundTrip(MBUF_S *pstPkt) {
    const krm::fuzz::Bytes vWant = krm::fuzz::Data(pstPkt);
    MBUF_IOVEC_S astVec[MBUF_PIPE_MAX_IOVEC];
    std::uint32_t ulTokens = MBUF_PIPE_MAX_IOVEC;
    if (MBUF_HPC_Packet2Vector_fl(astVec, &ulTokens, pstPkt, "fuzz", 50) != 0) {
        pstPkt->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
        krm::fuzz::Release(pstPkt);  // too many entries: the packet stays the caller's
        return;
    }
    std::vector<MBUF_IOVEC_S> vCopies = Copies(astVec, ulTokens);
    pstPkt->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
    krm::fuzz::Release(pstPkt);
    MBUF_S *pstBack = nullptr;
    const std::uint32_t rc =
        MBUF_HPC_Vector2Packet_fl(&pstBack, vCopies.data(), ulTokens, "fuzz", 51);
    if (rc != 0) {
        krm::fuzz::Fail("a vector this host made does not rebuild: %u", rc);
    }
    (void)CheckSettled(pstBack, "rebuilt again");
    krm::fuzz::ExpectSame(vWant, krm::fuzz::Data(pstBack), "vector round trip");
    std::vector<void *> vBufs;
    for (const MBUF_IOVEC_S &iov : vCopies) {
        vBufs.push_back(iov.pBuf);
    }
    krm::fuzz::FreeLeftOver(vBufs, pstBack);
    krm::fuzz::Release(pstBack);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    std::vector<krm::fuzz::PiecePacket> vPackets;
    if (!krm::fuzz::ParsePackage(pucData, ulSize, &vPackets)) {
        return 0;
    }
    std::vector<void *> vBufs = krm::fuzz::Land(vPackets[0]);
    std::vector<MBUF_IOVEC_S> vVec;
    for (std::size_t i = 0; i < vBufs.size(); ++i) {
        vVec.push_back(MBUF_IOVEC_S{vBufs[i], vPackets[0][i].ulLen, 0});
    }
    MBUF_S *pstPkt = nullptr;
    const std::uint32_t rc = MBUF_HPC_Vector2Packet_fl(
        &pstPkt, vVec.data(), static_cast<std::uint32_t>(vVec.size()), "fuzz", 52);
    if (rc != 0) {
        krm::fuzz::ExpectAllLive(vBufs, "vector rebuild");
        krm::fuzz::FreeLive(vBufs);
        return 0;
    }
    const bool bConsistent = CheckSettled(pstPkt, "vector rebuild");
    krm::fuzz::FreeLeftOver(vBufs, pstPkt);
    if (bConsistent) {
        RoundTrip(pstPkt);
    } else {
        krm::fuzz::Release(pstPkt);
    }
    return 0;
}
