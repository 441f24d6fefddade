// The node: its initialiser, the validity check every receiver and many
// operations share, and the length and link readers of a packet head.
#include <cstdint>

#include "core/node.h"
#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"
#include "meta/ctlinfo_block.h"

namespace krm {
namespace {

// The reserved words and links every initialisation clears. On a 64-bit
// build the pointers take their reserved words' place.
void ClearLinkWords(MBUF_S *pstMbuf) {
    pstMbuf->pstNext = nullptr;
    pstMbuf->pstNextPkt = nullptr;
#if UINTPTR_MAX == 0xFFFFFFFFu
    pstMbuf->ulRsv3 = 0;
    pstMbuf->ulRsv4 = 0;
    pstMbuf->ulRsv5 = 0;
    pstMbuf->ulRsv7 = 0;
    pstMbuf->ulRsv8 = 0;
#endif
    pstMbuf->ulRsv6 = 0;
    pstMbuf->ulRsv9 = 0;
    pstMbuf->ulRsv10 = 0;
}

void InitHeaderBody(MBUF_S *pstMbuf, BlockInit eBlock) {
    pstMbuf->ulPktRsv4 = 0;
    pstMbuf->ulPktRsv = 0;
    pstMbuf->ulTotalDataLen = 0;
    pstMbuf->ulFlag3 = 0;
    pstMbuf->ulPktTagInfo = 0;
    pstMbuf->ulPktRsv2 = 0;
    pstMbuf->ulFlag2 = 0;
    pstMbuf->ulPktRsv3 = 0;
    pstMbuf->pucData = pstMbuf->aucHdrInlineData;
    pstMbuf->pstCtlInfo = &pstMbuf->stCtlInfo.stBlk;
    if (eBlock == BlockInit::kCopiedOver) {
        // The copy compares capacities before it overwrites the rest.
        pstMbuf->pstCtlInfo->usCapacity = ctl::kInitCapacity;
        return;
    }
    // The node's own block is never NULL, so its bounded zeroing cannot
    // fail: the fresh fixed part is copied in whole.
    ctl::InitFreshBlock(pstMbuf->pstCtlInfo);
}

}  // namespace

void InitNode(MBUF_S *pstMbuf, std::uint32_t ulFlag, std::uint16_t usType, BlockInit eBlock) {
    pstMbuf->usType = usType;
    pstMbuf->ulFlag = ulFlag;
    pstMbuf->ulRsv0 = 0;
    pstMbuf->ulRsv1 = 0;
    pstMbuf->ulRsv2 = 0;
    pstMbuf->ulDataLen = 0;
    ClearLinkWords(pstMbuf);
    pstMbuf->ucByteOrder = MBUF_BYTEORDER_HOST;
    if ((ulFlag & MBUF_PKTHDR) != 0) {
        InitHeaderBody(pstMbuf, eBlock);
    } else {
        pstMbuf->pucData = pstMbuf->aucInlineData;
        // A plain node has no block of its own; a clear pointer keeps any
        // reader from taking leftover bytes for one.
        pstMbuf->pstCtlInfo = nullptr;
    }
    // Written last: a node is live only once everything else is in place.
    pstMbuf->ucMagic = MBUF_MAGIC_LIVE;
}

}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_StructInit(MBUF_S *pstMbuf, uint32_t ulSize,
                                  const MBUF_STRUCT_INIT_S *pstInit) {
    (void)ulSize;
    if (pstMbuf == nullptr || pstInit == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    if (pstInit->usType == MBUF_TYPE_KEEP) {
        return MBUF_OK;
    }
    krm::InitNode(pstMbuf, pstInit->ulFlag, pstInit->usType, krm::BlockInit::kFresh);
    return MBUF_OK;
}

MBUF_API uint32_t MBUF_Rcving_Verify(const MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    if (pstMbuf->ucMagic != MBUF_MAGIC_LIVE) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if ((pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_NOT_PKTHDR;
    }
    return MBUF_OK;
}

MBUF_API uint32_t MBUF_GetTotalDataLength(const MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return 0;
    }
    return pstMbuf->ulTotalDataLen;
}

MBUF_API uint32_t MBUF_CalcDataLength(const MBUF_S *pstMbuf) {
    uint32_t ulSum = 0;
    for (const MBUF_S *pstNode = pstMbuf; pstNode != nullptr; pstNode = pstNode->pstNext) {
        ulSum += pstNode->ulDataLen;
    }
    return ulSum;
}

MBUF_API uint8_t *MBUF_GetData(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return nullptr;
    }
    for (MBUF_S *pstNode = pstMbuf; pstNode != nullptr; pstNode = pstNode->pstNext) {
        if (pstNode->ulDataLen != 0) {
            return pstNode->pucData;
        }
    }
    return nullptr;
}

MBUF_API MBUF_S *MBUF_GetNextPktPtr(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return nullptr;
    }
    return pstMbuf->pstNextPkt;
}

MBUF_API void MBUF_SetNextPktPtr(MBUF_S *pstMbuf, MBUF_S *pstNextPkt) {
    if (pstMbuf != nullptr && (pstMbuf->ulFlag & MBUF_PKTHDR) != 0) {
        pstMbuf->pstNextPkt = pstNextPkt;
    }
}

}  // extern "C"
