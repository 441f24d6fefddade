// Pipe rebuild: any bytes as a saved pipe package, each packet's pieces
// landed in pipe buffers as the pipe delivers them, rebuilt by the normal
// and by the read-only receive. A rebuilt packet must be sound; where the
// read-only receive succeeds the normal one must too, with the same packet;
// a failed receive frees no piece; a packet consistent throughout, sent
// again through a pipe, must arrive equal.
#include "krm_host/pipe.h"
#include "fuzz_support.h"

namespace {

constexpr std::uint32_t kPipe = 3;

// Sends the packet through a real pipe and reads it back; takes it.
void SendAgain(MBUF_S *pstPkt) {
    const krm::fuzz::Bytes vWant = krm::fuzz::Canon(pstPkt);
    MBUF_IOVEC_S astIov[MBUF_PIPE_MAX_IOVEC];
    if (KRM_HOST_PipeOpen(kPipe, 0) != 0 || MBUF_Send_fl(kPipe, pstPkt, astIov, "fuzz", 40) != 0) {
        krm::fuzz::Release(pstPkt);  // a packet of too many pieces stays the caller's
        (void)KRM_HOST_PipeClose(kPipe);
        return;
    }
    MBUF_S *pstBack = nullptr;
    std::uint32_t ulCount = 1;
    std::uint32_t ulStatus = 0;
    MBUF_TRANS_DESC_S stDesc{};
    const std::uint32_t rc =
        MBUF_MultiRecv_fl(kPipe, &pstBack, &ulCount, &ulStatus, &stDesc, "fuzz", 41);
    if (rc != 0 || ulCount != 1 || pstBack == nullptr) {
        krm::fuzz::Fail("a packet sent by this host does not rebuild: %u", rc);
    }
    krm::fuzz::CheckPacket(pstBack, "sent again");
    krm::fuzz::ExpectSame(vWant, krm::fuzz::Canon(pstBack), "pipe round trip");
    krm::fuzz::Release(pstBack);
    (void)KRM_HOST_PipeClose(kPipe);
}

// One receive of the packet's pieces; the packet on success, else NULL with
// every piece still the caller's and released here.
MBUF_S *Receive(const krm::fuzz::PiecePacket &vPieces, bool bReadOnly, std::uint32_t *pulRc) {
    std::vector<void *> vBufs = krm::fuzz::Land(vPieces);
    if (vBufs.empty()) {
        return nullptr;
    }
    MBUF_TRANS_DESC_S stDesc = krm::fuzz::RecvDesc(vBufs);
    MBUF_S *pstPkt = nullptr;
    *pulRc = bReadOnly ? MBUF_RcvTransReadOnly(&pstPkt, &stDesc)
                       : MBUF_RcvTrans_fl(&pstPkt, &stDesc, "fuzz", 42);
    if (*pulRc != 0) {
        krm::fuzz::ExpectAllLive(vBufs, bReadOnly ? "read-only receive" : "receive");
        krm::fuzz::FreeLive(vBufs);
        return nullptr;
    }
    if (bReadOnly) {
        krm::fuzz::SettleExtSize(pstPkt);  // left as the sender wrote it
    }
    (void)krm::fuzz::CheckPacket(pstPkt, bReadOnly ? "read-only receive" : "receive", true);
    krm::fuzz::FreeLeftOver(vBufs, pstPkt);
    return pstPkt;
}

void OnePacket(const krm::fuzz::PiecePacket &vPieces) {
    std::uint32_t rc = 0;
    std::uint32_t rcRo = 0;
    MBUF_S *pstPkt = Receive(vPieces, false, &rc);
    MBUF_S *pstRo = Receive(vPieces, true, &rcRo);
    if (pstRo != nullptr) {
        if (pstPkt == nullptr) {
            krm::fuzz::Fail("the read-only receive rebuilt what the receive refused (%u)", rc);
        }
        if (krm::fuzz::CheckPacket(pstPkt, "receive", true)) {
            krm::fuzz::ExpectSame(krm::fuzz::Canon(pstPkt), krm::fuzz::Canon(pstRo),
                                  "read-only and normal receive");
        }
        krm::fuzz::Release(pstRo);
    }
    if (pstPkt != nullptr && krm::fuzz::CheckPacket(pstPkt, "receive", true)) {
        SendAgain(pstPkt);
    } else if (pstPkt != nullptr) {
        (void)krm::fuzz::Canon(pstPkt);  // the writer must cope with any packet received
        krm::fuzz::Release(pstPkt);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    std::vector<krm::fuzz::PiecePacket> vPackets;
    if (krm::fuzz::ParsePackage(pucData, ulSize, &vPackets)) {
        for (const krm::fuzz::PiecePacket &vPieces : vPackets) {
            OnePacket(vPieces);
        }
    }
    return 0;
}
