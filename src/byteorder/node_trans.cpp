// Byte order of the nodes themselves: the sender stamps, the receiver
// converts each node's words once and stamps its own code.
#include <cstddef>

#include "internal/bytes.h"
#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"

namespace {

// Node words a receiver converts; a node is one fixed structure, so these
// are plain offsets into it.
constexpr std::size_t kHeaderWords[] = {offsetof(MBUF_S, ulRsv2), offsetof(MBUF_S, ulDataLen),
                                        offsetof(MBUF_S, ulFlag)};
constexpr std::size_t kExtWords[] = {offsetof(MBUF_S, ulExtSize), offsetof(MBUF_S, ulExtRefCnt)};
constexpr std::size_t kPktHdrWords[] = {offsetof(MBUF_S, ulTotalDataLen), offsetof(MBUF_S, ulFlag3),
                                        offsetof(MBUF_S, ulPktTagInfo), offsetof(MBUF_S, ulFlag2),
                                        offsetof(MBUF_S, ulPktRsv3)};

template <std::size_t N>
void SwapWords(MBUF_S *pstMbuf, const std::size_t (&offsets)[N]) {
    auto *base = reinterpret_cast<std::uint8_t *>(pstMbuf);
    for (std::size_t off : offsets) {
        krm::SwapInPlace32(base + off);
    }
}

// A node stamped with this host's code, or with a reserved mark, is never
// converted.
bool NeedsConversion(const MBUF_S *pstMbuf) {
    const std::uint8_t code = pstMbuf->ucByteOrder;
    return code != MBUF_BYTEORDER_HOST && code != MBUF_BYTEORDER_MARK_AA &&
           code != MBUF_BYTEORDER_MARK_BB;
}

}  // namespace

extern "C" {

MBUF_API void MBUF_Get_BEX_ByteOrder(uint8_t *pucByteOrder) {
    if (pucByteOrder != nullptr) {
        *pucByteOrder = MBUF_BYTEORDER_HOST;
    }
}

MBUF_API void MBUF_UpdateMbufListByteOrderType(MBUF_S *pstMbufList) {
    std::uint8_t code = 0;
    MBUF_Get_BEX_ByteOrder(&code);
    for (MBUF_S *pkt = pstMbufList; pkt != nullptr; pkt = pkt->pstNextPkt) {
        for (MBUF_S *node = pkt; node != nullptr; node = node->pstNext) {
            node->ucByteOrder = code;
        }
    }
}

MBUF_API void MBUF_MbufHeaderByteOrderTrans(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr) {
        return;
    }
    SwapWords(pstMbuf, kHeaderWords);
    pstMbuf->usType = krm::Swap16(pstMbuf->usType);
}

MBUF_API void MBUF_MbufMPktHdrByteOrderTrans(MBUF_S *pstMbuf) {
    if (pstMbuf != nullptr) {
        SwapWords(pstMbuf, kPktHdrWords);
    }
}

MBUF_API void MBUF_MbufMdatByteOrderTrans(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr) {
        return;
    }
    if ((pstMbuf->ulFlag & MBUF_EXT) != 0) {
        SwapWords(pstMbuf, kExtWords);
    }
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) != 0) {
        MBUF_MbufMPktHdrByteOrderTrans(pstMbuf);
    }
}

MBUF_API void MBUF_SingleMbufControlBlkByteOrderTrans(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || !NeedsConversion(pstMbuf)) {
        return;
    }
    MBUF_MbufHeaderByteOrderTrans(pstMbuf);
    MBUF_MbufMdatByteOrderTrans(pstMbuf);
    MBUF_Get_BEX_ByteOrder(&pstMbuf->ucByteOrder);
}

}  // extern "C"
