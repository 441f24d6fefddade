// The receive walk shared by the normal and the read-only receive.
#include "pipe/rebuild.h"

#include <cstring>

#include "internal/layout.h"
#include "internal/report.h"
#include "krm_mbuf/platform.h"

namespace krm::pipe {
namespace {

inline constexpr std::uint32_t kInlineCapacity = kNodeLinkOffset;  // 872
inline constexpr std::uint8_t kSlotNumCurrent = MBUF_CTL_TYPE_NUM;
inline constexpr std::uint8_t kSlotNumOldest = 20;
inline constexpr std::uint8_t kSlotNumNewest = 50;

// Data the sender placed at ulRsv2 in the node itself; computed wide so that
// a claimed offset cannot wrap back inside.
bool FitsInline(const MBUF_S *pstNode) {
    return static_cast<std::uint64_t>(pstNode->ulRsv2) + pstNode->ulDataLen <= kInlineCapacity;
}

// The node was received into a buffer that holds all of it.
bool InWholeNodeBuffer(const void *pPiece) {
    return KRM_DbufLengthGET(pPiece) >= kNodeSize;
}

void ClearLinkWords(MBUF_S *pstNode) {
    std::memset(reinterpret_cast<std::uint8_t *>(pstNode) + kNodeLinkOffset, 0, kNodeLinkLen);
}

bool NeedsUpgrade(const MBUF_CONTROL_BLK_S *pstCtl) {
    return pstCtl->ucSlotNum >= kSlotNumOldest && pstCtl->ucSlotNum <= kSlotNumNewest &&
           pstCtl->ucSlotNum != kSlotNumCurrent;
}

// The control block piece: present and at least its fixed part long. In a
// one-piece packet the last piece is the head itself, which cannot be a
// block apart from its own node: its inline block stands, so that releasing
// the packet frees the node once.
std::uint32_t TakeCtlPiece(MBUF_S *pstHead, const PieceList &pieces, std::uint32_t *pulCount) {
    if (*pulCount == 0) {
        Report(kModKrmMbufTrans, 402, "Mbuf Recv: no tag piece");
        return MBUF_ERR_NULL_MBUF;
    }
    --*pulCount;
    void *pPiece = pieces.At(*pulCount);
    if (pPiece == pstHead) {
        pstHead->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
        return MBUF_OK;
    }
    if (pPiece == nullptr || KRM_DbufLengthGET(pPiece) < kCtlFixedLen) {
        Report(kModKrmMbufTrans, 408, "Mbuf Recv: bad tag piece %u", *pulCount);
        return MBUF_ERR_NULL_MBUF;
    }
    pstHead->pstCtlInfo = static_cast<MBUF_CONTROL_BLK_S *>(pPiece);
    pstHead->ulFlag &= ~MBUF_FLAG_CTLINFO_SENT;
    return MBUF_OK;
}

// A vector names the size of an external buffer by the length of the entry
// that follows the buffer's own; where the vector has no such entry, the
// buffer's real size stands in rather than a word past the caller's array.
std::uint32_t ExtSize(const PieceList &pieces, std::uint32_t ulNext, std::uint32_t ulBufLen,
                      const RebuildMode &mode) {
    std::uint32_t ulLen = ulBufLen;
    if (mode.bExtSizeFromNextEntry && pieces.LenAt(ulNext, &ulLen)) {
        return ulLen;
    }
    return ulBufLen;
}

// A node already in the chain would close a loop.
bool IsLinked(const MBUF_S *pstHead, const MBUF_S *pstNode) {
    for (const MBUF_S *pstCur = pstHead; pstCur != nullptr; pstCur = pstCur->pstNext) {
        if (pstCur == pstNode) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::uint32_t MakeRoom(MBUF_S *pstNode, const RebuildMode &mode, std::uint32_t ulRoLine,
                       const char *pcRoText, bool *pbAllocated) {
    *pbAllocated = false;
    if ((pstNode->ulFlag & MBUF_EXT) != 0 || FitsInline(pstNode)) {
        ClearLinkWords(pstNode);
        return MBUF_OK;
    }
    if (mode.bReadOnly) {
        Report(kModKrmMbufTrans, ulRoLine, "%s", pcRoText);
        return MBUF_ERR_CANNOT_PROCEED;
    }
    if (MBUF_AllocExtBuf_fl(pstNode, mode.ulMemId, mode.pcFileName, mode.ulLine) != 0) {
        return MBUF_ERR_NOMEM;
    }
    *pbAllocated = true;
    return MBUF_OK;
}

bool IsSameOrder(const MBUF_S *pstHead) {
    std::uint8_t ucLocal = 0;
    MBUF_Get_BEX_ByteOrder(&ucLocal);
    // The two node marks are taken as this host's order on purpose.
    return pstHead->ucByteOrder == ucLocal || pstHead->ucByteOrder == MBUF_MAGIC_LIVE ||
           pstHead->ucByteOrder == MBUF_MAGIC_DEAD;
}

std::uint32_t PrepareHead(MBUF_S *pstHead, bool bSameOrder, const RebuildMode &mode,
                          bool *pbAllocated) {
    *pbAllocated = false;
    if (pstHead == nullptr || !InWholeNodeBuffer(pstHead)) {
        Report(kModKrmMbufTrans, 371, "Mbuf Recv: head not in a node buffer");
        return MBUF_ERR_INVALID_MBUF;
    }
    if (!bSameOrder) {
        MBUF_SingleMbufControlBlkByteOrderTrans(pstHead);
    }
    if (MBUF_Rcving_Verify(pstHead) != MBUF_OK || pstHead->ucMagic != MBUF_MAGIC_LIVE) {
        return MBUF_ERR_INVALID_MBUF;
    }
    return MakeRoom(pstHead, mode, 387, "Mbuf Recv: mBufTop need alloc ext buf", pbAllocated);
}

std::uint32_t AttachCtlInfo(MBUF_S *pstHead, const PieceList &pieces, std::uint32_t *pulCount,
                            bool bSameOrder, const RebuildMode &mode,
                            MBUF_CONTROL_BLK_S **ppstOld) {
    pstHead->pstCtlInfo = &pstHead->stCtlInfo.stBlk;
    if ((pstHead->ulFlag & MBUF_FLAG_CTLINFO_SENT) != 0) {
        const std::uint32_t rc = TakeCtlPiece(pstHead, pieces, pulCount);
        if (rc != MBUF_OK) {
            return rc;
        }
    }
    if (!bSameOrder) {
        MBUF_MbufMPktHdrTagByteOrderTrans(pstHead);
    }
    if (!NeedsUpgrade(pstHead->pstCtlInfo)) {
        return MBUF_OK;
    }
    if (mode.bReadOnly) {
        Report(kModKrmMbufTrans, 423, "Mbuf Recv: tag num need issu");
        return MBUF_ERR_CANNOT_PROCEED;
    }
    // A block that cannot be upgraded stays as it came; the packet is still
    // delivered.
    MBUF_CONTROL_BLK_S *pstOld = pstHead->pstCtlInfo;
    (void)MBUF_IssuProcContrlInfo_fl(pstHead, mode.ulMemId, ppstOld == nullptr ? 1 : 0,
                                     mode.pcFileName, mode.ulLine);
    if (ppstOld != nullptr && pstHead->pstCtlInfo != pstOld) {
        *ppstOld = pstOld;
    }
    return MBUF_OK;
}

std::uint32_t LinkNodeData(MBUF_S *pstNode, const PieceList &pieces, std::uint32_t ulCount,
                           std::uint32_t *pulIndex, bool bAllocated, const RebuildMode &mode) {
    if ((pstNode->ulFlag & MBUF_EXT) == 0) {
        pstNode->pucData = reinterpret_cast<std::uint8_t *>(pstNode) + pstNode->ulRsv2;
    } else if (!bAllocated) {
        if (*pulIndex >= ulCount) {
            Report(kModKrmMbufTrans, 447, "Mbuf Recv: no ext piece %u of %u", *pulIndex, ulCount);
            return MBUF_ERR_EXT_MISSING;
        }
        auto *pucBuf = static_cast<std::uint8_t *>(pieces.At((*pulIndex)++));
        if (pucBuf == nullptr) {
            return MBUF_ERR_EXT_MISSING;
        }
        const std::uint32_t ulBufLen = KRM_DbufLengthGET(pucBuf);
        if (static_cast<std::uint64_t>(pstNode->ulRsv2) + pstNode->ulDataLen > ulBufLen) {
            Report(kModKrmMbufTrans, 458, "Mbuf Recv: ext data %u+%u out of %u", pstNode->ulRsv2,
                   pstNode->ulDataLen, ulBufLen);
            return MBUF_ERR_EXT_MISSING;
        }
        pstNode->pucExtBuf = pucBuf;
        if (!mode.bReadOnly) {
            pstNode->ulExtSize = ExtSize(pieces, *pulIndex, ulBufLen, mode);
        }
        pstNode->pucData = pucBuf + pstNode->ulRsv2;
    }
    pstNode->ulRsv2 = 0;
    return MBUF_OK;
}

std::uint32_t PrepareNext(MBUF_S *pstNode, MBUF_S *pstPrev, const RebuildMode &mode,
                          bool *pbAllocated) {
    *pbAllocated = false;
    if (pstNode != nullptr && !InWholeNodeBuffer(pstNode)) {
        Report(kModKrmMbufTrans, 478, "Mbuf Recv: node not in a node buffer");
        return MBUF_ERR_NULL_MBUF;
    }
    // Converted whatever the head said: the conversion leaves a node already
    // in this host's order alone.
    MBUF_SingleMbufControlBlkByteOrderTrans(pstNode);
    if (pstNode == nullptr) {
        return MBUF_ERR_NULL_MBUF;
    }
    const std::uint32_t rc =
        MakeRoom(pstNode, mode, 492, "Mbuf Recv: need alloc ext buf", pbAllocated);
    if (rc != MBUF_OK) {
        return rc;
    }
    pstPrev->pstNext = pstNode;
    return MBUF_OK;
}

std::uint32_t WalkNodes(MBUF_S *pstHead, const PieceList &pieces, std::uint32_t ulCount,
                        bool bAllocated, const RebuildMode &mode) {
    std::uint32_t ulIndex = 1;
    for (MBUF_S *pstNode = pstHead; ulCount != 0;) {
        std::uint32_t rc = LinkNodeData(pstNode, pieces, ulCount, &ulIndex, bAllocated, mode);
        if (rc != MBUF_OK) {
            return rc;
        }
        const std::uint32_t ulMarker = pstNode->ulRsv0;
        pstNode->ulRsv0 = 0;
        if (ulIndex >= ulCount || ulMarker == 0) {
            break;
        }
        auto *pstNext = static_cast<MBUF_S *>(pieces.At(ulIndex++));
        if (pstNext != nullptr && IsLinked(pstHead, pstNext)) {
            Report(kModKrmMbufTrans, 517, "Mbuf Recv: node %u linked twice", ulIndex - 1);
            return MBUF_ERR_NULL_MBUF;
        }
        rc = PrepareNext(pstNext, pstNode, mode, &bAllocated);
        if (rc != MBUF_OK) {
            return rc;
        }
        pstNode = pstNext;
    }
    return MBUF_OK;
}

namespace {

bool IsPiece(const PieceList &pieces, const void *p) {
    for (std::uint32_t i = 0; i < pieces.Count(); ++i) {
        if (pieces.At(i) == p) {
            return true;
        }
    }
    return false;
}

void FreeOwn(void *p, const RebuildMode &mode) {
    const MBUF_FILE_LINE_S stFl{mode.pcFileName, mode.ulLine};
    (void)MBUF_MemFree_fl(p, &stFl);
}

// A failed rebuild leaves the pieces with the caller as they came: what it
// allocated on the way (external buffers for data moved out of a node, an
// upgraded block) is released again, and the received block is put back.
void Undo(MBUF_S *pstHead, const PieceList &pieces, MBUF_CONTROL_BLK_S *pstOld,
          const RebuildMode &mode) {
    if (pstOld != nullptr) {
        FreeOwn(pstHead->pstCtlInfo, mode);
        pstHead->pstCtlInfo = pstOld;
    }
    std::uint32_t ulNodes = 0;
    for (MBUF_S *p = pstHead; p != nullptr && ulNodes < pieces.Count(); p = p->pstNext, ++ulNodes) {
        if ((p->ulFlag & MBUF_EXT) != 0 && p->pucExtBuf != nullptr &&
            !IsPiece(pieces, p->pucExtBuf)) {
            FreeOwn(p->pucExtBuf, mode);
            p->pucExtBuf = nullptr;
        }
    }
}

}  // namespace

std::uint32_t Rebuild(MBUF_S **ppstMbuf, const PieceList &pieces, const RebuildMode &mode) {
    if (ppstMbuf == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    if (pieces.Count() == 0) {
        Report(kModKrmMbufTrans, 361, "Mbuf Recv: no head piece");
        return MBUF_ERR_INVALID_MBUF;
    }
    auto *pstHead = static_cast<MBUF_S *>(pieces.At(0));
    const bool bSameOrder =
        pstHead != nullptr && InWholeNodeBuffer(pstHead) && IsSameOrder(pstHead);
    bool bAllocated = false;
    std::uint32_t rc = PrepareHead(pstHead, bSameOrder, mode, &bAllocated);
    if (rc != MBUF_OK) {
        return rc;
    }
    std::uint32_t ulCount = pieces.Count();
    MBUF_CONTROL_BLK_S *pstOld = nullptr;
    rc = AttachCtlInfo(pstHead, pieces, &ulCount, bSameOrder, mode, &pstOld);
    if (rc == MBUF_OK) {
        rc = WalkNodes(pstHead, pieces, ulCount, bAllocated, mode);
    }
    if (rc != MBUF_OK) {
        Undo(pstHead, pieces, pstOld, mode);
        return rc;
    }
    if (pstOld != nullptr && pstOld != &pstHead->stCtlInfo.stBlk) {
        FreeOwn(pstOld, mode);  // the upgrade's old block, released as it always was
    }
    *ppstMbuf = pstHead;
    return MBUF_OK;
}

std::uint32_t Rebuild(MBUF_S **ppstMbuf, const MBUF_TRANS_DESC_S *pstDesc,
                      const RebuildMode &mode) {
    if (pstDesc == nullptr || pstDesc->pstIovec == nullptr) {
        if (ppstMbuf == nullptr) {
            return MBUF_ERR_BAD_ARG;
        }
        Report(kModKrmMbufTrans, 361, "Mbuf Recv: no head piece");
        return MBUF_ERR_INVALID_MBUF;
    }
    return Rebuild(ppstMbuf, PieceList::FromAddresses(Pieces(pstDesc), pstDesc->ulNum), mode);
}

}  // namespace krm::pipe
