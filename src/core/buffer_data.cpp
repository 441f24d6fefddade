// A packet of any length built from caller data: as many nodes as the data
// needs, each taking the largest storage its share calls for. Nodes beyond
// the head that need a buffer of 1960 bytes or more are made as header
// nodes (with ulTotalDataLen 0) so that each has its own inline control area;
// walks from the head never look at the flags of later nodes.
#include <cstdint>

#include "core/node.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm {
namespace {

struct NodePlan {
    std::uint32_t ulFlag;
    std::uint32_t ulBufSize;  // 0: inline
    std::uint32_t ulCapacity;
    std::uint32_t ulSkip;  // bytes kept free at the start of the storage
};

std::uint32_t CappedBuffer(std::int64_t llSize) {
    return llSize >= MBUF_BUFFERDATA_MAX_BUF ? MBUF_BUFFERDATA_MAX_BUF
                                             : static_cast<std::uint32_t>(llSize);
}

NodePlan PlanHead(std::int64_t llSize) {
    if (llSize <= MBUF_PKTHDR_INLINE_LEN) {
        return {MBUF_PKTHDR, 0, MBUF_PKTHDR_INLINE_LEN - MBUF_BUFFERDATA_INLINE_SKIP,
                MBUF_BUFFERDATA_INLINE_SKIP};
    }
    if (llSize < MBUF_CLUSTER_SIZE) {
        return {MBUF_PKTHDR, MBUF_CLUSTER_SIZE, MBUF_CLUSTER_SIZE, 0};
    }
    const std::uint32_t ulBuf = CappedBuffer(llSize);
    return {MBUF_PKTHDR, ulBuf, ulBuf, 0};
}

NodePlan PlanNext(std::int64_t llRemaining) {
    if (llRemaining <= MBUF_PKTHDR_INLINE_LEN) {
        return {0, 0, MBUF_PLAIN_INLINE_LEN, 0};
    }
    if (llRemaining < MBUF_CLUSTER_SIZE) {
        return {0, MBUF_CLUSTER_SIZE, MBUF_CLUSTER_SIZE, 0};
    }
    const std::uint32_t ulBuf = CappedBuffer(llRemaining);
    return {MBUF_PKTHDR, ulBuf, ulBuf, 0};
}

MBUF_S *BuildNode(const NodePlan &stPlan, std::uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFl) {
    MBUF_S *pstMbuf = NewNode(stPlan.ulFlag, ulModuleId, pstFl);
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    if (stPlan.ulBufSize != 0 && !AttachBuffer(pstMbuf, stPlan.ulBufSize, ulModuleId, pstFl)) {
        ReleaseNode(pstMbuf, pstFl);
        return nullptr;
    }
    pstMbuf->pucData += stPlan.ulSkip;
    return pstMbuf;
}

// What is still to be copied, and how.
struct Source {
    const std::uint8_t *pucSrc;
    std::uint32_t ulRemaining;
    MBUF_COPY_DATA_PF pfCopy;
};

void FillNode(MBUF_S *pstMbuf, std::uint32_t ulRoom, Source *pstSrc) {
    const std::uint32_t ulTake = pstSrc->ulRemaining < ulRoom ? pstSrc->ulRemaining : ulRoom;
    if (pstSrc->pfCopy != nullptr) {
        (void)pstSrc->pfCopy(pstSrc->pucSrc, pstMbuf->pucData, ulTake);
    } else {
        (void)memmove_s(pstMbuf->pucData, ulTake, pstSrc->pucSrc, ulTake);
    }
    pstMbuf->ulDataLen = ulTake;
    pstSrc->pucSrc += ulTake;
    pstSrc->ulRemaining -= ulTake;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API MBUF_S *MBUF_CreateMbufWithBufferData(const void *pSrc, int32_t lLen, uint32_t ulHeadRoom,
                                               uint32_t ulPktRsv4Value, MBUF_COPY_DATA_PF pfCopy,
                                               uint32_t ulModuleId,
                                               const MBUF_FILE_LINE_S *pstFileLine) {
    if (ulHeadRoom > MBUF_PKTHDR_INLINE_LEN || lLen <= 0 || pSrc == nullptr) {
        return nullptr;
    }
    const krm::NodePlan stHeadPlan = krm::PlanHead(int64_t{lLen} + ulHeadRoom);
    // A small packet with a large head room would start its data beyond
    // the head's inline area.
    if (ulHeadRoom > stHeadPlan.ulCapacity) {
        return nullptr;
    }
    MBUF_S *pstHead = krm::BuildNode(stHeadPlan, ulModuleId, pstFileLine);
    if (pstHead == nullptr) {
        return nullptr;
    }
    pstHead->ulTotalDataLen = static_cast<uint32_t>(lLen);
    pstHead->ulPktRsv4 = ulPktRsv4Value;
    pstHead->pucData += ulHeadRoom;
    krm::Source stSrc{static_cast<const uint8_t *>(pSrc), static_cast<uint32_t>(lLen), pfCopy};
    krm::FillNode(pstHead, stHeadPlan.ulCapacity - ulHeadRoom, &stSrc);
    MBUF_S *pstTail = pstHead;
    while (stSrc.ulRemaining != 0) {
        const krm::NodePlan stPlan = krm::PlanNext(stSrc.ulRemaining);
        MBUF_S *pstNode = krm::BuildNode(stPlan, ulModuleId, pstFileLine);
        if (pstNode == nullptr) {
            MBUF_Free(pstHead, pstFileLine);
            return nullptr;
        }
        pstTail->pstNext = pstNode;
        pstTail = pstNode;
        krm::FillNode(pstNode, stPlan.ulCapacity, &stSrc);
    }
    return pstHead;
}

}  // extern "C"
