// The message form of a packet: its serial image behind an 8-byte header, sent
// through the message service instead of as pieces. The sender's packet is
// always consumed once it passed the header check.
#include <cstdint>

#include "core/wrapper_sites.h"
#include "internal/bytes.h"
#include "krm_mbuf/platform.h"

namespace {

inline constexpr std::uint32_t kMsgHeadLen = 8;
// Class and type of the receiving service.
inline constexpr std::uint32_t kMsgClass = 6;
inline constexpr std::uint32_t kMsgType = 893;

// Allocates, lays out and sends the message; the packet is left to the
// caller.
std::uint32_t SendImage(std::uint32_t ulModule, std::uint32_t ulDest, MBUF_S *pstMbuf) {
    const std::uint32_t ulImage = MBUF_GetAllBlockSize(pstMbuf);
    if (ulImage > UINT32_MAX - kMsgHeadLen) {
        return MBUF_ERR_NO_DATA;  // the message could not be sized
    }
    const std::uint32_t ulSize = ulImage + kMsgHeadLen;
    auto *pucMsg =
        static_cast<std::uint8_t *>(KRM_MsgAlloc_F(ulModule, ulSize, "krm_mbuf_bas", 2731));
    if (pucMsg == nullptr) {
        return MBUF_ERR_MSG_ALLOC;
    }
    // Only the low 16 bits of the size travel; bytes 2-3 stay as allocated.
    krm::StoreBe16(pucMsg, static_cast<std::uint16_t>(ulSize));
    krm::Store32At(pucMsg, 4, 0);
    const std::uint32_t rc = MBUF_Serialize(pstMbuf, pucMsg + kMsgHeadLen);
    if (rc != MBUF_OK) {
        (void)TQM_MsgFree(ulModule, pucMsg);
        return rc;
    }
    KRM_SYSTIME_S stTime{};
    (void)KRM_SystimeGet(&stTime);
    (void)TQM_KRM_MSG_GET_INTF(pucMsg);
    (void)TQM_KRM_MSG_GET_SUB_INTF(pucMsg);
    return KRM_SEND_MSG(ulDest, kMsgClass, kMsgType, pucMsg, ulSize);
}

}  // namespace

extern "C" {

uint32_t MBUF_SendMsg_fl(uint32_t ulModule, uint32_t ulDest, MBUF_S *pstMbuf,
                         const char *pcFileName, uint32_t ulLine) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const uint32_t rc = SendImage(ulModule, ulDest, pstMbuf);
    MBUF_Destroy_fl(pstMbuf, pcFileName, ulLine);
    return rc;
}

uint32_t MBUF_SendMsg(uint32_t ulModule, uint32_t ulDest, MBUF_S *pstMbuf) {
    return MBUF_SendMsg_fl(ulModule, ulDest, pstMbuf, krm::wrap::kSendMsg.pcName,
                           krm::wrap::kSendMsg.ulLine);
}

MBUF_S *MBUF_RecvMsg_fl(void *pMsg, const char *pcFileName, uint32_t ulLine) {
    if (pMsg == nullptr) {
        return nullptr;
    }
    const uint32_t ulLen = TQM_MsgLenGet(pMsg);
    if (ulLen < kMsgHeadLen) {
        // Shorter than its own header: no image to read.
        return nullptr;
    }
    return MBUF_Deserialize_fl(static_cast<uint8_t *>(pMsg) + kMsgHeadLen, ulLen - kMsgHeadLen, 0,
                               pcFileName, ulLine);
}

MBUF_S *MBUF_RecvMsg(void *pMsg) {
    return MBUF_RecvMsg_fl(pMsg, krm::wrap::kRecvMsg.pcName, krm::wrap::kRecvMsg.ulLine);
}

}  // extern "C"
