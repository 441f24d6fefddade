// A packet handed to the forwarding path as the caller's vector of pieces.
// The pieces are those of a pipe write cut at each node's data end; what the
// forwarding path adds is a budget kept strictly (a node is described only
// while its entries stay below the caller's limit), and a priority stamp on
// every piece. Nothing is freed on failure: the entries written stay.
#include <cstdint>

#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "pipe/diag_log.h"
#include "pipe/vector.h"

namespace krm::hpc {
namespace {

inline constexpr pipe::VectorLayout kHpcLayout{pipe::NodePiece::DataEnd, kNodeExtInfoEnd,
                                               pipe::LimitPolicy::Budget};

// A refused stamp is only logged; the piece still travels.
void StampPieces(const MBUF_IOVEC_S *pstVector, std::uint32_t ulFrom, std::uint32_t ulTo,
                 std::uint32_t ulPriority, const MBUF_FILE_LINE_S *pstFl) {
    for (std::uint32_t i = ulFrom; i < ulTo; ++i) {
        const std::uint32_t rc = KRM_DbufMsgCtrlFlagSet(pstVector[i].pBuf, ulPriority);
        if (rc != 0) {
            pipe::DiagLog("MBUF_PipeSend: Fail to set pkt priority %u, %s %u.\n\r", rc,
                          pstFl != nullptr ? pstFl->pcFileName : "",
                          pstFl != nullptr ? pstFl->ulLine : 0u);
        }
    }
}

// One node's entries, then their stamps.
std::uint32_t Convert(MBUF_S *pstNode, MBUF_IOVEC_S *pstVector, std::uint32_t *pulCount,
                      const MBUF_FILE_LINE_S *pstFl, std::uint32_t ulPriority) {
    if (pstNode == nullptr || pstVector == nullptr || pulCount == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    const std::uint32_t ulFrom = *pulCount;
    pipe::DescribeNode(pstNode, kHpcLayout, pstVector, nullptr, pulCount);
    StampPieces(pstVector, ulFrom, *pulCount, ulPriority, pstFl);
    return MBUF_OK;
}

}  // namespace
}  // namespace krm::hpc

using namespace krm;

extern "C" {

MBUF_API uint32_t MBUF_HPC_ConvertData(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector, uint32_t *pulCount,
                                       const MBUF_FILE_LINE_S *pstFileLine, uint32_t ulPriority) {
    return hpc::Convert(pstMbuf, pstVector, pulCount, pstFileLine, ulPriority);
}

MBUF_API uint32_t MBUF_HPC_ConvertExtData(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector,
                                          uint32_t *pulCount, const MBUF_FILE_LINE_S *pstFileLine,
                                          uint32_t ulPriority) {
    return hpc::Convert(pstMbuf, pstVector, pulCount, pstFileLine, ulPriority);
}

MBUF_API uint32_t MBUF_HPC_Packet2VectorData(MBUF_IOVEC_S *pstVector, uint32_t *pulCount,
                                             uint32_t ulBudget, MBUF_S *pstMbuf,
                                             const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstMbuf == nullptr) {
        return MBUF_OK;
    }
    if (pstVector == nullptr || pulCount == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    // The data pieces carry the packet priority as it is read.
    const uint32_t ulPriority = MBUF_GetPktPriority(pstMbuf);
    const uint32_t ulFrom = *pulCount;
    const pipe::VectorResult result = pipe::BuildVector(pstMbuf, hpc::kHpcLayout, ulBudget,
                                                        pstVector, nullptr, pstFileLine, ulFrom);
    *pulCount = result.ulCount;
    hpc::StampPieces(pstVector, ulFrom, result.ulCount, ulPriority, pstFileLine);
    if (result.end == pipe::WalkEnd::OverBudget) {
        pipe::DiagLog("Packet2VectorData tokenNum(%u) is error, beyond max(%u)", result.ulCount,
                      ulBudget);
        return MBUF_ERR_TOO_SMALL;
    }
    return MBUF_OK;
}

MBUF_API uint32_t MBUF_HPC_Packet2VectorTag(MBUF_IOVEC_S *pstVector, uint32_t *pulCount,
                                            uint32_t ulBudget, MBUF_S *pstMbuf,
                                            const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstMbuf == nullptr || !pipe::HasSeparateCtl(pstMbuf)) {
        return MBUF_OK;
    }
    if (pstVector == nullptr || pulCount == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    if (static_cast<uint64_t>(*pulCount) + 1 >= ulBudget) {
        pipe::DiagLog("Packet2VectorTag tokenNum(%u) is error, beyond max(%u)", *pulCount,
                      ulBudget);
        return MBUF_ERR_TOO_SMALL;
    }
    const uint32_t ulFrom = *pulCount;
    pipe::DescribeCtl(pstMbuf, pstVector, nullptr, pulCount);
    // The block's stamp is the priority's low byte.
    hpc::StampPieces(pstVector, ulFrom, *pulCount, MBUF_GetPktPriority(pstMbuf) & 0xFFu,
                     pstFileLine);
    return MBUF_OK;
}

MBUF_API uint32_t MBUF_HPC_Packet2Vector_fl(MBUF_IOVEC_S *pstVector, uint32_t *pulTokenNum,
                                            MBUF_S *pstMbuf, const char *pcFileName,
                                            uint32_t ulLine) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (pstVector == nullptr || pulTokenNum == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    const uint32_t ulBudget =
        *pulTokenNum < MBUF_PIPE_MAX_IOVEC ? *pulTokenNum : MBUF_PIPE_MAX_IOVEC;
    const MBUF_FILE_LINE_S stFl{pcFileName, ulLine};
    MBUF_UpdateMbufListByteOrderType(pstMbuf);
    pstMbuf->pstNextPkt = nullptr;
    uint32_t ulCount = 0;
    uint32_t rc = MBUF_HPC_Packet2VectorData(pstVector, &ulCount, ulBudget, pstMbuf, &stFl);
    if (rc == MBUF_OK) {
        rc = MBUF_HPC_Packet2VectorTag(pstVector, &ulCount, ulBudget, pstMbuf, &stFl);
    }
    if (rc != MBUF_OK) {
        return rc;
    }
    if (ulCount >= ulBudget) {
        pipe::DiagLog("MBUF_Send tokenNum(%u) is error, beyond max(%u)", ulCount, ulBudget);
        return MBUF_ERR_TOO_SMALL;
    }
    *pulTokenNum = ulCount;
    return MBUF_OK;
}

}  // extern "C"
