// Message reader: any bytes as a message of the message service. A packet
// read must be sound, and, where it is consistent throughout, sent again as
// a message it must arrive equal.
#include "fuzz_support.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"

#include <cstring>

namespace {

constexpr std::uint32_t kModule = 0x00F30000u;
constexpr std::uint32_t kQueue = 5;

// The message the service would deliver: a buffer of exactly the bytes.
MBUF_S *Receive(const std::uint8_t *pucData, std::size_t ulSize) {
    void *pMsg = KRM_MsgAlloc_F(kModule, static_cast<std::uint32_t>(ulSize), "fuzz", 30);
    if (pMsg == nullptr) {
        return nullptr;
    }
    if (ulSize != 0) {
        std::memcpy(pMsg, pucData, ulSize);
    }
    MBUF_S *pstPkt = MBUF_RecvMsg_fl(pMsg, "fuzz", 31);
    (void)TQM_MsgFree(kModule, pMsg);
    return pstPkt;
}

void SendAgain(MBUF_S *pstPkt) {
    const krm::fuzz::Bytes vWant = krm::fuzz::Canon(pstPkt);
    if (KRM_HOST_MsgOpen(kQueue) != 0 ||
        MBUF_SendMsg_fl(kModule, kQueue, pstPkt, "fuzz", 32) != 0) {
        krm::fuzz::Fail("a received packet could not be sent again as a message");
    }
    void *pMsg = KRM_HOST_MsgReceive(kQueue, 0, nullptr, nullptr);
    if (pMsg == nullptr) {
        krm::fuzz::Fail("the message sent is not queued");
    }
    MBUF_S *pstBack = MBUF_RecvMsg_fl(pMsg, "fuzz", 33);
    (void)TQM_MsgFree(kModule, pMsg);
    if (pstBack == nullptr) {
        krm::fuzz::Fail("a message this host sent does not read back");
    }
    krm::fuzz::CheckPacket(pstBack, "read back");
    krm::fuzz::ExpectSame(vWant, krm::fuzz::Canon(pstBack), "message read back");
    MBUF_Destroy(pstBack);
    (void)KRM_HOST_MsgClose(kQueue);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    MBUF_S *pstPkt = Receive(pucData, ulSize);
    if (pstPkt != nullptr) {
        if (krm::fuzz::CheckPacket(pstPkt, "read")) {
            SendAgain(pstPkt);  // the send takes the packet
        } else {
            MBUF_Destroy(pstPkt);
        }
    }
    return 0;
}
