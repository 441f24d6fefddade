// Sending a packet through a pipe as a list of memory pieces. The pipe takes
// the pieces over on a successful write (the no-free write excepted); a
// failed send leaves the packet with its caller.
#include <cstdint>

#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/layout.h"
#include "internal/report.h"
#include "krm_mbuf/platform.h"
#include "pipe/diag_log.h"
#include "pipe/vector.h"

namespace krm::pipe {
namespace {

// Piece lengths and limit handling of each operation, as the pipe format
// defines them: the writes cut at the node's data end, the descriptions for
// a caller's own transport carry whole nodes.
inline constexpr VectorLayout kPipeSendLayout{NodePiece::DataEnd, kNodeExtInfoEnd,
                                              LimitPolicy::Truncate};
inline constexpr VectorLayout kByFlagLayout{NodePiece::DataEnd, kNodeExtInfoEnd,
                                            LimitPolicy::Refuse};
inline constexpr VectorLayout kTransLayout{NodePiece::WholeNode, kNodeSize, LimitPolicy::Refuse};
inline constexpr VectorLayout kTrans2Layout{NodePiece::DataEnd, kNodeExtInfoEnd,
                                            LimitPolicy::Refuse};
inline constexpr VectorLayout kGetAddrLayout{NodePiece::WholeNode, kNodeExtInfoEnd,
                                             LimitPolicy::ReportCount};

bool IsPktHdr(const MBUF_S *pstMbuf) {
    return pstMbuf != nullptr && (pstMbuf->ulFlag & MBUF_PKTHDR) != 0;
}

// Builds the vector and applies the operation's limit policy. Returns 0 or
// 1009 for Refuse; *pulCount receives the entries to hand on.
std::uint32_t Describe(MBUF_S *pstHead, const VectorLayout &layout, MBUF_IOVEC_S *pstOut,
                       PieceKind *pKinds, std::uint32_t *pulCount, const MBUF_FILE_LINE_S *pstFl) {
    const VectorResult result =
        BuildVector(pstHead, layout, MBUF_PIPE_MAX_IOVEC, pstOut, pKinds, pstFl);
    *pulCount = result.ulCount;
    switch (layout.limit) {
        case LimitPolicy::Truncate:
            return MBUF_OK;
        case LimitPolicy::Refuse:
            if (result.end == WalkEnd::ExtCut || result.end == WalkEnd::Full) {
                Report(kModKrmMbufSend, 262, "Mbuf Send: PicNum %u out", result.ulCount);
                return MBUF_ERR_TOO_MANY_IOVEC;
            }
            return MBUF_OK;
        case LimitPolicy::ReportCount:
            if (result.end == WalkEnd::ExtCut) {
                Report(kModKrmMbufSend, 318, "picNum out");
            }
            if (result.end != WalkEnd::Complete) {
                Report(kModKrmMbufSend, 331, "PicNum %u out", result.ulCount);
            }
            return MBUF_OK;
    }
    return MBUF_OK;
}

// The stamping failure text of each piece kind.
constexpr const char *StampText(PieceKind kind) {
    switch (kind) {
        case PieceKind::Node:
            return "MBUF_PipeSend: Set msg control3 %u, %s %u.\n\r";
        case PieceKind::ExtNode:
            return "MBUF_PipeSend: Set msg control1 %u, %s %u.\n\r";
        case PieceKind::ExtData:
            return "MBUF_PipeSend: Set msg control2 %u, %s %u.\n\r";
        case PieceKind::CtlInfo:
            return "MBUF_PipeSend: Set msg control4 %u, %s %u.\n\r";
    }
    return "";
}

// Every piece carries the packet priority for the pipe's ordering; a
// refusal is logged and the send goes on.
void StampPriority(std::uint32_t ulPriority, const MBUF_IOVEC_S *pstIovec, const PieceKind *pKinds,
                   std::uint32_t ulCount, const char *pcFileName, std::uint32_t ulLine) {
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        const std::uint32_t rc = KRM_DbufMsgCtrlFlagSet(pstIovec[i].pBuf, ulPriority);
        if (rc != 0) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            DiagLog(StampText(pKinds[i]), rc, pcFileName, ulLine);
#pragma GCC diagnostic pop
        }
    }
}

// The sender's part of byte order: every node of the packet carries this
// host's code, and the packet leaves any list it was on.
void PrepareForWire(MBUF_S *pstMbuf) {
    MBUF_UpdateMbufListByteOrderType(pstMbuf);
    pstMbuf->pstNextPkt = nullptr;
}

std::uint32_t FillDesc(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc, const VectorLayout &layout,
                       const char *pcFileName, std::uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (pstDesc == nullptr || pstDesc->pstIovec == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    const MBUF_FILE_LINE_S fl = FileLine(pcFileName, ulLine);
    std::uint32_t ulCount = 0;
    const std::uint32_t rc = Describe(pstMbuf, layout, pstDesc->pstIovec, nullptr, &ulCount, &fl);
    if (rc == MBUF_OK) {
        pstDesc->ulNum = ulCount;
    }
    return rc;
}

// 0x224C1110 (not opened), 0x224C1111 (no credit), 0x224C1112 (bad id).
bool IsNoTokenCode(std::uint32_t rc) {
    return rc >= 0x224C1110u && rc <= 0x224C1112u;
}

std::uint32_t ReserveToken(std::uint32_t ulPipeId, MBUF_S *pstMbuf, std::uint32_t ulModuleId,
                           const char *pcFileName, std::uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const std::uint32_t rc = MBUF_Compress_fl(pstMbuf, ulModuleId, pcFileName, ulLine);
    if (rc != MBUF_OK) {
        return rc;
    }
    std::uint32_t ulCount = 1;
    return KRM_PipeTokenAlloc(ulPipeId, &ulCount);
}

std::uint32_t SendToPipe(std::uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                         const char *pcFileName, std::uint32_t ulLine, std::uint32_t bUrgent) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    PrepareForWire(pstMbuf);
    return MBUF_PipeSend_fl(ulPipeId, pstMbuf, pstIovec, pcFileName, ulLine, bUrgent);
}

}  // namespace
}  // namespace krm::pipe

using namespace krm::pipe;

extern "C" {

uint32_t MBUF_TokenAlloc_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId,
                            const char *pcFileName, uint32_t ulLine) {
    const uint32_t rc = ReserveToken(ulPipeId, pstMbuf, ulModuleId, pcFileName, ulLine);
    // Callers compare against the folded code only.
    return IsNoTokenCode(rc) ? MBUF_ERR_TOKEN_FOLDED : rc;
}

uint32_t MBUF_TokenAlloc(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId) {
    return MBUF_TokenAlloc_fl(ulPipeId, pstMbuf, ulModuleId, krm::wrap::kTokenAlloc.pcName,
                              krm::wrap::kTokenAlloc.ulLine);
}

uint32_t MBUF_TokenAllocEx_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId,
                              const char *pcFileName, uint32_t ulLine) {
    return ReserveToken(ulPipeId, pstMbuf, ulModuleId, pcFileName, ulLine);
}

uint32_t MBUF_TokenAllocEx(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId) {
    return MBUF_TokenAllocEx_fl(ulPipeId, pstMbuf, ulModuleId, krm::wrap::kTokenAllocEx.pcName,
                                krm::wrap::kTokenAllocEx.ulLine);
}

uint32_t MBUF_Send_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                      const char *pcFileName, uint32_t ulLine) {
    return SendToPipe(ulPipeId, pstMbuf, pstIovec, pcFileName, ulLine, 0);
}

uint32_t MBUF_Send(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec) {
    return MBUF_Send_fl(ulPipeId, pstMbuf, pstIovec, krm::wrap::kSend.pcName,
                        krm::wrap::kSend.ulLine);
}

uint32_t MBUF_Send2QueHead(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                           const char *pcFileName, uint32_t ulLine) {
    return SendToPipe(ulPipeId, pstMbuf, pstIovec, pcFileName, ulLine, 1);
}

uint32_t MBUF_PipeSend_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                          const char *pcFileName, uint32_t ulLine, uint32_t bUrgent) {
    if (pstMbuf == nullptr || pstIovec == nullptr) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    PieceKind aKinds[MBUF_PIPE_MAX_IOVEC];
    uint32_t ulCount = 0;
    (void)Describe(pstMbuf, kPipeSendLayout, pstIovec, aKinds, &ulCount, &fl);
    const uint32_t ulPriority = MBUF_GetPktPriority(pstMbuf) & 0xFFu;
    StampPriority(ulPriority, pstIovec, aKinds, ulCount, pcFileName, ulLine);
    return bUrgent != 0 ? TQM_PipeUrgentIovecWrite(ulPipeId, ulCount, pstIovec)
                        : KRM_PipeIovecWrite(ulPipeId, ulCount, pstIovec);
}

uint32_t MBUF_SendByFlag_fl(uint32_t ulPipeId, uint32_t ulArg2, MBUF_S *pstMbuf, uint32_t ulArg4,
                            uint32_t ulArg5, MBUF_IOVEC_S *pstIovec, const char *pcFileName,
                            uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    PrepareForWire(pstMbuf);
    return MBUF_PipeSendByFlag_fl(ulPipeId, ulArg2, pstMbuf, ulArg4, ulArg5, pstIovec, pcFileName,
                                  ulLine);
}

uint32_t MBUF_SendByFlag(uint32_t ulPipeId, uint32_t ulArg2, MBUF_S *pstMbuf, uint32_t ulArg4,
                         uint32_t ulArg5, MBUF_IOVEC_S *pstIovec) {
    return MBUF_SendByFlag_fl(ulPipeId, ulArg2, pstMbuf, ulArg4, ulArg5, pstIovec,
                              krm::wrap::kSendByFlag.pcName, krm::wrap::kSendByFlag.ulLine);
}

uint32_t MBUF_PipeSendByFlag_fl(uint32_t ulPipeId, uint32_t ulArg2, MBUF_S *pstMbuf,
                                uint32_t ulArg4, uint32_t ulArg5, MBUF_IOVEC_S *pstIovec,
                                const char *pcFileName, uint32_t ulLine) {
    // The flag words are the priority write's business, not the library's.
    (void)ulArg2;
    (void)ulArg4;
    (void)ulArg5;
    if (pstMbuf == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    if (pstIovec == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    uint32_t ulCount = 0;
    const uint32_t rc = Describe(pstMbuf, kByFlagLayout, pstIovec, nullptr, &ulCount, &fl);
    if (rc != MBUF_OK) {
        return rc;
    }
    return KRM_PipeIovecPrioWrite(ulPipeId, ulCount, pstIovec);
}

uint32_t MBUF_SendTrans_fl(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc, const char *pcFileName,
                           uint32_t ulLine) {
    return FillDesc(pstMbuf, pstDesc, kTransLayout, pcFileName, ulLine);
}

uint32_t MBUF_SendTrans(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc) {
    return MBUF_SendTrans_fl(pstMbuf, pstDesc, krm::wrap::kSendTrans.pcName,
                             krm::wrap::kSendTrans.ulLine);
}

uint32_t MBUF_SendTrans2_fl(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc, const char *pcFileName,
                            uint32_t ulLine) {
    return FillDesc(pstMbuf, pstDesc, kTrans2Layout, pcFileName, ulLine);
}

uint32_t MBUF_MultiSend_fl(uint32_t ulPipeId, MBUF_S *pstPktList, MBUF_TRANS_DESC_S *pstDescArray,
                           const char *pcFileName, uint32_t ulLine) {
    MBUF_UpdateMbufListByteOrderType(pstPktList);
    uint32_t ulPktCount = 0;
    for (MBUF_S *pstPkt = pstPktList; pstPkt != nullptr; pstPkt = pstPkt->pstNextPkt) {
        const uint32_t rc =
            MBUF_SendTrans2_fl(pstPkt, &pstDescArray[ulPktCount], pcFileName, ulLine);
        if (rc != MBUF_OK) {
            return rc;
        }
        ++ulPktCount;
    }
    return KRM_PipeWriteIovecIntra(ulPipeId, ulPktCount, pstDescArray);
}

uint32_t MBUF_MultiSend(uint32_t ulPipeId, MBUF_S *pstPktList, MBUF_TRANS_DESC_S *pstDescArray) {
    return MBUF_MultiSend_fl(ulPipeId, pstPktList, pstDescArray, krm::wrap::kMultiSend.pcName,
                             krm::wrap::kMultiSend.ulLine);
}

uint32_t MBUF_Send_GetAddr(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec, const char *pcFileName,
                           uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (pstIovec == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    PrepareForWire(pstMbuf);
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    uint32_t ulCount = 0;
    (void)Describe(pstMbuf, kGetAddrLayout, pstIovec, nullptr, &ulCount, &fl);
    return ulCount;
}

uint32_t MBUF_Send_NoFree(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                          const char *pcFileName, uint32_t ulLine) {
    // The count is handed on as it comes: the service refuses a 1002.
    return TQM_PipeIovecNoFreeWrite(
        ulPipeId, MBUF_Send_GetAddr(pstMbuf, pstIovec, pcFileName, ulLine), pstIovec);
}

}  // extern "C"
