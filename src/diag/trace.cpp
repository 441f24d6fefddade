// The library's side of the packet trace: conditions put in offset order,
// matched against a packet while it is still a list of received pieces (the
// chain is not rebuilt yet, so node words are read as the sender left them),
// and a packet's trace identifier read and written through the pipe buffer
// that holds its head node.
//
// The pieces are foreign: every read of a node word or of a data word is
// bounded by the size of the pipe buffer the piece lies in, as the platform
// knows it. A piece the platform does not know (size 0) has no room. A read
// that would leave its piece ends the walk as a missing piece does: no match.
#include <cstdint>

#include "internal/bytes.h"
#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm {
namespace {

constexpr std::uint32_t kCondNum = MBUF_TRACE_COND_NUM;
constexpr std::uint32_t kNoMatch = 1;
constexpr std::uint32_t kMatch = 0;

struct Cond {
    std::uint32_t ulOffset;
    std::uint32_t ulMask;
    std::uint32_t ulValue;
};

Cond TakeCond(const MBUF_TRACE_COND_S *pstCond, std::uint32_t i) {
    return Cond{pstCond->aulOffset[i], pstCond->aulMask[i], pstCond->aulValue[i]};
}

void PutCond(MBUF_TRACE_COND_S *pstCond, std::uint32_t i, const Cond &stCond) {
    pstCond->aulOffset[i] = stCond.ulOffset;
    pstCond->aulMask[i] = stCond.ulMask;
    pstCond->aulValue[i] = stCond.ulValue;
}

bool IsEmpty(const Cond &stCond) {
    return stCond.ulOffset == 0 && stCond.ulMask == 0 && stCond.ulValue == 0;
}

// The node words the sender wrote: where its data starts and how long it is.
struct NodeWords {
    std::uint32_t ulRsv2;
    std::uint32_t ulDataLen;
    std::uint32_t ulFlag;
};

// A piece address and the room the platform knows behind it.
struct Piece {
    const std::uint8_t *pucBase;
    std::uint32_t ulRoom;
};

Piece PieceAt(void *const *ppvPieces, std::uint32_t ulIndex) {
    const auto *pucBase = static_cast<const std::uint8_t *>(ppvPieces[ulIndex]);
    return Piece{pucBase, pucBase == nullptr ? 0u : KRM_DbufLengthGET(pucBase)};
}

bool ReadNodeWords(const Piece &stPiece, NodeWords *pstWords) {
    if (stPiece.ulRoom < MBUF_NODE_HEAD_LEN) {
        return false;
    }
    pstWords->ulRsv2 = Load32At(stPiece.pucBase, offsetof(MBUF_S, ulRsv2));
    pstWords->ulDataLen = Load32At(stPiece.pucBase, offsetof(MBUF_S, ulDataLen));
    pstWords->ulFlag = Load32At(stPiece.pucBase, offsetof(MBUF_S, ulFlag));
    return true;
}

// The packet word at ulAt bytes into the data that starts ulRsv2 bytes into
// the piece, most significant byte first; false where it would leave the piece.
bool ReadDataWord(const Piece &stPiece, std::uint32_t ulRsv2, std::uint32_t ulAt,
                  std::uint32_t *pulWord) {
    const std::uint64_t ullEnd = std::uint64_t{ulRsv2} + ulAt + 4;
    if (ullEnd > stPiece.ulRoom) {
        return false;
    }
    const std::uint8_t *puc = stPiece.pucBase + ulRsv2 + ulAt;
    *pulWord = (std::uint32_t{puc[0]} << 24) | (std::uint32_t{puc[1]} << 16) |
               (std::uint32_t{puc[2]} << 8) | std::uint32_t{puc[3]};
    return true;
}

// One node's share of the match. The conditions whose offsets fall inside
// the node are tested in order; *pulNext moves past each one that holds.
// A word that runs past the node's end can never match: the next node starts
// after the word's offset, so every later node reads it as lying before
// itself and the packet ends without a match.
enum class NodeOutcome { Continue, NoMatch };

NodeOutcome MatchInNode(const MBUF_TRACE_COND_S *pstCond, std::uint32_t ulCount,
                        std::uint32_t ulConsumed, const Piece &stData, const NodeWords &stNode,
                        std::uint32_t *pulNext) {
    while (*pulNext < ulCount) {
        const Cond stCond = TakeCond(pstCond, *pulNext);
        const std::uint32_t ulAt = stCond.ulOffset - ulConsumed;  // unsigned on purpose
        if (ulAt >= stNode.ulDataLen) {
            return NodeOutcome::Continue;
        }
        if (std::uint64_t{ulAt} + 4 > stNode.ulDataLen) {
            return NodeOutcome::NoMatch;
        }
        std::uint32_t ulWord = 0;
        if (!ReadDataWord(stData, stNode.ulRsv2, ulAt, &ulWord) ||
            (ulWord & stCond.ulMask) != stCond.ulValue) {
            return NodeOutcome::NoMatch;
        }
        ++*pulNext;
    }
    return NodeOutcome::Continue;
}

std::uint32_t MatchPieces(void *const *ppvPieces, std::uint32_t ulPieces,
                          const MBUF_TRACE_COND_S *pstCond, std::uint32_t ulCount) {
    std::uint32_t ulNext = 0;
    std::uint32_t ulConsumed = 0;
    for (std::uint32_t ulIndex = 0; ulIndex < ulPieces;) {
        Piece stData = PieceAt(ppvPieces, ulIndex++);
        NodeWords stNode{};
        if (!ReadNodeWords(stData, &stNode)) {
            return kNoMatch;
        }
        if ((stNode.ulFlag & MBUF_EXT) != 0) {
            if (ulIndex >= ulPieces || ppvPieces[ulIndex] == nullptr) {
                return kNoMatch;
            }
            stData = PieceAt(ppvPieces, ulIndex++);
        }
        if (MatchInNode(pstCond, ulCount, ulConsumed, stData, stNode, &ulNext) ==
            NodeOutcome::NoMatch) {
            return kNoMatch;
        }
        if (ulNext == ulCount) {
            return kMatch;
        }
        ulConsumed += stNode.ulDataLen;
    }
    return kNoMatch;
}

// The head node as one piece, as the trace service keys it: the node up to
// its external-buffer descriptor, or up to the end of its inline data.
bool HeadPiece(const MBUF_S *pstMbuf, MBUF_IOVEC_S *pstPiece) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return false;
    }
    pstPiece->pBuf = const_cast<MBUF_S *>(pstMbuf);
    pstPiece->ulLen =
        (pstMbuf->ulFlag & MBUF_EXT) != 0
            ? kNodeExtInfoEnd
            : static_cast<std::uint32_t>(pstMbuf->pucData -
                                         reinterpret_cast<const std::uint8_t *>(pstMbuf)) +
                  pstMbuf->ulDataLen;
    pstPiece->ulRsv = 0;
    return true;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_TRACE_AdjustCondOrder(MBUF_TRACE_COND_S *pstCond) {
    using namespace krm;
    if (pstCond == nullptr) {
        return 0;
    }
    std::uint32_t ulPlaced = 0;
    for (std::uint32_t ulSlot = 0; ulSlot < kCondNum; ++ulSlot) {
        Cond stCur = TakeCond(pstCond, ulSlot);
        if (IsEmpty(stCur)) {
            continue;
        }
        // Insertion behind every placed condition whose offset is not
        // greater, so equal offsets keep the order they had.
        if (ulSlot != ulPlaced) {
            PutCond(pstCond, ulSlot, Cond{0, 0, 0});
        }
        std::uint32_t ulAt = ulPlaced;
        while (ulAt > 0 && TakeCond(pstCond, ulAt - 1).ulOffset > stCur.ulOffset) {
            PutCond(pstCond, ulAt, TakeCond(pstCond, ulAt - 1));
            --ulAt;
        }
        PutCond(pstCond, ulAt, stCur);
        ++ulPlaced;
    }
    return ulPlaced;
}

MBUF_API uint32_t MBUF_TRACE_JudgeParaMatch(uint32_t ulArg1, uint32_t ulEnable,
                                            MBUF_TRANS_DESC_S *pstDesc,
                                            MBUF_TRACE_COND_S *pstCond) {
    using namespace krm;
    (void)ulArg1;
    if (ulEnable == 0 || pstDesc == nullptr || pstCond == nullptr || pstDesc->pstIovec == nullptr) {
        return kNoMatch;
    }
    // A receive descriptor's word 1 addresses an array of piece addresses.
    auto *const *ppvPieces = reinterpret_cast<void *const *>(pstDesc->pstIovec);
    if (pstDesc->ulNum == 0 || ppvPieces[0] == nullptr) {
        return kNoMatch;
    }
    const std::uint32_t ulCount = MBUF_TRACE_AdjustCondOrder(pstCond);
    NodeWords stHead{};
    if (!ReadNodeWords(PieceAt(ppvPieces, 0), &stHead)) {
        return kNoMatch;
    }
    // The control block, when it travels, is the last piece and holds no data.
    const std::uint32_t ulPieces =
        pstDesc->ulNum - ((stHead.ulFlag & MBUF_FLAG_CTLINFO_SENT) != 0 ? 1u : 0u);
    if (ulPieces == 0) {
        return kNoMatch;
    }
    // With no condition at all every packet is followed.
    return ulCount == 0 ? kMatch : MatchPieces(ppvPieces, ulPieces, pstCond, ulCount);
}

MBUF_API void MBUF_TRACE_AddTraceInfdec(uint32_t ulArg1, MBUF_S *pstMbuf, uint32_t ulArg2,
                                        uint32_t ulArg3, uint32_t ulArg4, uint32_t ulArg5) {
    if (pstMbuf == nullptr) {
        return;
    }
    // One piece: the descriptor's address word is the packet itself.
    MBUF_TRANS_DESC_S stDesc{1, reinterpret_cast<MBUF_IOVEC_S *>(pstMbuf)};
    (void)KRM_AddTraceInfecPoint_Pipe(ulArg1, &stDesc, ulArg2, ulArg3, ulArg4, ulArg5);
}

MBUF_API uint32_t MBUF_TRACE_GetTraceId(MBUF_S *pstMbuf, uint32_t *pulTraceId) {
    MBUF_IOVEC_S stPiece{};
    if (pulTraceId == nullptr || !krm::HeadPiece(pstMbuf, &stPiece)) {
        return 1;
    }
    uint32_t ulTraceId = 0;
    const uint32_t ulRet = TQM_PIPE_TRACEFLAG_GET(1, &stPiece, &ulTraceId);
    if (ulRet == 0) {
        *pulTraceId = ulTraceId;
    }
    return ulRet;
}

MBUF_API uint32_t MBUF_TRACE_SetTraceId(MBUF_S *pstMbuf, uint32_t ulTraceId) {
    MBUF_IOVEC_S stPiece{};
    if (!krm::HeadPiece(pstMbuf, &stPiece)) {
        return 1;
    }
    return TQM_PIPE_TRACEFLAG_SET(1, &stPiece, &ulTraceId);
}

}  // extern "C"
