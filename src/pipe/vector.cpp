// The piece walk shared by every send operation.
#include "pipe/vector.h"

#include "core/node.h"
#include "internal/layout.h"
#include "internal/report.h"

namespace krm::pipe {
namespace {

std::uint32_t Distance(const void *pFrom, const void *pTo) {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pTo) -
                                      reinterpret_cast<std::uintptr_t>(pFrom));
}

void AddPiece(void *pBuf, std::uint32_t ulLen, PieceKind kind, MBUF_IOVEC_S *pstOut,
              PieceKind *pKinds, std::uint32_t *pulCount) {
    // ulRsv belongs to the pipe service and is left as the caller had it.
    pstOut[*pulCount].pBuf = pBuf;
    pstOut[*pulCount].ulLen = ulLen;
    if (pKinds != nullptr) {
        pKinds[*pulCount] = kind;
    }
    ++*pulCount;
}

}  // namespace

void DescribeNode(MBUF_S *pstNode, const VectorLayout &layout, MBUF_IOVEC_S *pstOut,
                  PieceKind *pKinds, std::uint32_t *pulCount) {
    if ((pstNode->ulFlag & MBUF_EXT) == 0) {
        pstNode->ulRsv2 = Distance(pstNode, pstNode->pucData);
        const std::uint32_t ulLen = layout.plainNode == NodePiece::WholeNode
                                        ? kNodeSize
                                        : pstNode->ulRsv2 + pstNode->ulDataLen;
        AddPiece(pstNode, ulLen, PieceKind::Node, pstOut, pKinds, pulCount);
        return;
    }
    if (pstNode->pucExtBuf > pstNode->pucData) {
        Report(kModKrmMbufSend, 187, "ExtBuf after data, len %u", pstNode->ulDataLen);
    }
    pstNode->ulRsv2 = Distance(pstNode->pucExtBuf, pstNode->pucData);
    AddPiece(pstNode, layout.ulExtNodeLen, PieceKind::ExtNode, pstOut, pKinds, pulCount);
    AddPiece(pstNode->pucExtBuf, pstNode->ulRsv2 + pstNode->ulDataLen, PieceKind::ExtData, pstOut,
             pKinds, pulCount);
}

MBUF_S *LinkMarker(MBUF_S *pstNode, const MBUF_FILE_LINE_S *pstFl) {
    MBUF_S *pstNext = pstNode->pstNext;
    pstNode->ulRsv0 = 0;
    if (pstNext == nullptr) {
        return nullptr;
    }
    pstNode->ulRsv0 = MBUF_PIPE_MORE_NODES;
    // Only the first node of what goes on the pipe is a packet header.
    if ((pstNext->ulFlag & MBUF_PKTHDR) != 0) {
        MBUF_DeletePktTag(pstNext, pstFl);
        pstNext->ulFlag &= ~MBUF_PKTHDR;
    }
    return pstNext;
}

bool HasSeparateCtl(const MBUF_S *pstHead) {
    return pstHead->pstCtlInfo != nullptr && !HasInlineCtlBlock(pstHead);
}

void DescribeCtl(MBUF_S *pstHead, MBUF_IOVEC_S *pstOut, PieceKind *pKinds,
                 std::uint32_t *pulCount) {
    MBUF_CONTROL_BLK_S *pstCtl = pstHead->pstCtlInfo;
    pstHead->ulFlag |= MBUF_FLAG_CTLINFO_SENT;
    AddPiece(pstCtl, kCtlFixedLen + pstCtl->usUsedLen, PieceKind::CtlInfo, pstOut, pKinds,
             pulCount);
}

VectorResult BuildVector(MBUF_S *pstHead, const VectorLayout &layout, std::uint32_t ulMax,
                         MBUF_IOVEC_S *pstOut, PieceKind *pKinds, const MBUF_FILE_LINE_S *pstFl) {
    VectorResult result;
    for (MBUF_S *pstNode = pstHead; pstNode != nullptr;) {
        if ((pstNode->ulFlag & MBUF_EXT) != 0 && result.ulCount + 1 == ulMax) {
            // No room for the external data: the node piece is the last one.
            AddPiece(pstNode, layout.ulExtNodeLen, PieceKind::ExtNode, pstOut, pKinds,
                     &result.ulCount);
            result.end = WalkEnd::ExtCut;
            return result;
        }
        DescribeNode(pstNode, layout, pstOut, pKinds, &result.ulCount);
        pstNode = LinkMarker(pstNode, pstFl);
        if (pstNode != nullptr && result.ulCount >= ulMax) {
            result.end = WalkEnd::Full;
            return result;
        }
    }
    if (result.ulCount >= ulMax) {
        result.end = WalkEnd::FullAtEnd;
    } else if (HasSeparateCtl(pstHead)) {
        DescribeCtl(pstHead, pstOut, pKinds, &result.ulCount);
    }
    return result;
}

}  // namespace krm::pipe
