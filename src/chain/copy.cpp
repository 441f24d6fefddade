// Copies between a packet and flat memory, packet-header duplication and raw
// copies. A copy always copies bytes: no external buffer is ever shared by
// two packets, so each can be changed and released on its own.
#include <algorithm>
#include <cstdint>

#include "chain/chain_internal.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/platform.h"

namespace krm::chain {
namespace {

// Nodes that a copy into a packet adds carry the library's own location, not
// the caller's: the copy has no caller location to pass on.
constexpr MBUF_FILE_LINE_S kCbufToMbufSite{"mbuf_uipc_mbuf", 360};

// A plain inline node of the given type linked behind pstPrev holding ulLen
// bytes (at most 848); zeroed when it fills a gap. NULL when memory is out.
MBUF_S *AddCopyNode(MBUF_S *pstPrev, std::uint32_t ulLen, bool bZero, std::uint32_t ulModuleId) {
    MBUF_S *node = NewTypedNode(0, pstPrev->usType, ulModuleId, &kCbufToMbufSite);
    if (node == nullptr) {
        return nullptr;
    }
    if (bZero) {
        (void)memset_s(node->aucInlineData, MBUF_PLAIN_INLINE_LEN, 0, MBUF_PLAIN_INLINE_LEN);
    }
    node->ulDataLen = std::min(ulLen, MBUF_PLAIN_INLINE_LEN);
    pstPrev->pstNext = node;
    return node;
}

}  // namespace
}  // namespace krm::chain

using namespace krm::chain;

extern "C" {

void MBUF_CopyDataFromMbufToCbuf(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen, void *pDst) {
    if (lOffset < 0) {
        krm::Report(krm::kModUipcMbuf, 227, "MBUF CopyDataToCbuf, negative iOff %d", lOffset);
    }
    if (lLen < 0) {
        krm::Report(krm::kModUipcMbuf, 228, "MBUF CopyDataToCbuf, negative len %d", lLen);
    }
    // Offsets compare unsigned: a negative one lies beyond every chain. An
    // offset at a node's end starts the copy in the next node.
    uint32_t off = static_cast<uint32_t>(lOffset);
    MBUF_S *node = pstMbuf;
    while (node != nullptr && node->ulDataLen <= off) {
        off -= node->ulDataLen;
        node = node->pstNext;
    }
    if (node == nullptr) {
        krm::Report(krm::kModUipcMbuf, 231,
                    "MBUF CopyDataToCbuf, offset > size: offset %d len %d .",
                    static_cast<int32_t>(off), lLen);
        return;
    }
    if (lLen < 1) {
        return;
    }
    auto *dst = static_cast<uint8_t *>(pDst);
    uint32_t want = static_cast<uint32_t>(lLen);
    for (;;) {
        const uint32_t piece = std::min(node->ulDataLen - off, want);
        const int rc = memmove_s(dst, piece, node->pucData + off, piece);
        if (rc != 0) {
            krm::Report(krm::kModUipcMbuf, 249, "memcpy_s return %d", rc);
        }
        // A NULL destination stays NULL: every piece is refused and reported.
        if (dst != nullptr) {
            dst += piece;
        }
        want -= piece;
        if (want == 0) {
            return;
        }
        off = 0;
        node = node->pstNext;
        if (node == nullptr) {
            krm::Report(krm::kModUipcMbuf, 243,
                        "CopyDataToCbuf, length > size: offset %d len %d count %d", 0,
                        static_cast<int32_t>(want), static_cast<int32_t>(piece));
            return;
        }
    }
}

uint32_t MBUF_CopyDataFromMBufToBuffer(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                                       void *pDst) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    // An offset at the very end is refused even for length 0.
    if (pstMbuf->ulTotalDataLen <= ulOffset) {
        return MBUF_ERR_OFFSET;
    }
    if (uint64_t{pstMbuf->ulTotalDataLen} < uint64_t{ulOffset} + ulLen) {
        return MBUF_ERR_LENGTH;
    }
    MBUF_CopyDataFromMbufToCbuf(pstMbuf, static_cast<int32_t>(ulOffset),
                                static_cast<int32_t>(ulLen), pDst);
    return MBUF_OK;
}

void MBUF_CopyDataFromCbufToMbuf(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen, const void *pSrc,
                                 uint32_t ulModuleId) {
    if (pstMbuf == nullptr || lOffset < 0 || lLen < 0) {
        return;
    }
    // Existing nodes are never lengthened: bytes go only where a node already
    // holds data, and the packet grows by added nodes. A gap between the old
    // end and the offset is filled with zero bytes.
    uint32_t off = static_cast<uint32_t>(lOffset);
    uint32_t rest = static_cast<uint32_t>(lLen);
    bool stopped = false;
    MBUF_S *node = pstMbuf;
    while (node->ulDataLen < off) {
        off -= node->ulDataLen;
        if (node->pstNext == nullptr &&
            AddCopyNode(node,
                        static_cast<uint32_t>(
                            std::min<uint64_t>(uint64_t{off} + rest, MBUF_PLAIN_INLINE_LEN)),
                        true, ulModuleId) == nullptr) {
            stopped = true;
            break;
        }
        node = node->pstNext;
    }
    const auto *src = static_cast<const uint8_t *>(pSrc);
    uint32_t written = 0;
    while (!stopped && rest != 0) {
        const uint32_t piece = std::min(node->ulDataLen - off, rest);
        if (piece != 0) {
            const int rc = memmove_s(node->pucData + off, piece,
                                     src != nullptr ? src + written : nullptr, piece);
            if (rc != 0) {
                krm::Report(krm::kModUipcMbuf, 391, "memcpy_s return %d", rc);
            }
            written += piece;
            rest -= piece;
        }
        off = 0;
        if (rest == 0) {
            break;
        }
        if (node->pstNext == nullptr && AddCopyNode(node, rest, false, ulModuleId) == nullptr) {
            stopped = true;
            break;
        }
        node = node->pstNext;
    }
    if (!IsPktHdr(pstMbuf)) {
        return;
    }
    if (stopped) {
        // Nodes added before memory ran out stay, and the length covers them.
        pstMbuf->ulTotalDataLen = std::max(pstMbuf->ulTotalDataLen, MBUF_CalcDataLength(pstMbuf));
        return;
    }
    const uint32_t end = static_cast<uint32_t>(lOffset) + written;
    if (end > pstMbuf->ulTotalDataLen) {
        pstMbuf->ulTotalDataLen = end;
    }
}

uint32_t MBUF_CopyDataFromBufferToMBuf(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                       const void *pSrc, uint32_t ulModuleId) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    MBUF_CopyDataFromCbufToMbuf(pstMbuf, lOffset, lLen, pSrc, ulModuleId);
    return MBUF_OK;
}

uint32_t MBUF_FillDataForApp(MBUF_S *pstMbuf, uint32_t ulOffset, int32_t lLen, const void *pSrc) {
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (int64_t{ulOffset} + lLen > int64_t{pstMbuf->ulTotalDataLen}) {
        return MBUF_ERR_LENGTH;
    }
    // An offset equal to a node's length stays at that node's end; nothing
    // is copied there and the copy goes on in the next node.
    MBUF_S *node = pstMbuf;
    uint32_t off = ulOffset;
    while (node != nullptr && off > node->ulDataLen) {
        off -= node->ulDataLen;
        node = node->pstNext;
    }
    const auto *src = static_cast<const uint8_t *>(pSrc);
    int32_t rest = lLen;
    while (rest > 0) {
        if (node == nullptr) {
            return MBUF_ERR_CHAIN_END;
        }
        const uint32_t piece = std::min(node->ulDataLen - off, static_cast<uint32_t>(rest));
        if (piece != 0) {
            (void)memmove_s(node->pucData + off, piece, src, piece);
        }
        if (src != nullptr) {
            src += piece;  // a NULL source stays NULL and writes nothing
        }
        rest -= static_cast<int32_t>(piece);
        node = node->pstNext;
        off = 0;
    }
    return MBUF_OK;
}

int32_t MBUF_DuplicatePktHdr(MBUF_S *pstDst, MBUF_S *pstSrc, uint32_t ulModuleId,
                             const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstDst == nullptr || pstSrc == nullptr) {
        return 0;
    }
    pstDst->ulFlag = (pstSrc->ulFlag & MBUF_PKTHDR_COPY_MASK) | (pstDst->ulFlag & MBUF_EXT);
    if (!HasExt(pstDst)) {
        pstDst->pucData = pstDst->aucHdrInlineData;
    }
    pstDst->ulPktRsv4 = pstSrc->ulPktRsv4;
    pstDst->ulTotalDataLen = pstSrc->ulTotalDataLen;
    pstDst->ulFlag3 = pstSrc->ulFlag3;
    pstDst->ulPktTagInfo = pstSrc->ulPktTagInfo;
    pstDst->ulFlag2 = pstSrc->ulFlag2;
    return static_cast<int32_t>(MBUF_CopyPktTag(pstDst, pstSrc, ulModuleId, pstFileLine));
}

MBUF_S *MBUF_CopyMBufHeader_fl(MBUF_S *pstSrc, uint32_t ulModuleId, const char *pcFileName,
                               uint32_t ulLine) {
    if (!IsPktHdr(pstSrc)) {
        return nullptr;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    // A source block that fits the new node's own is copied over its whole
    // fixed part, so that part is not initialised first.
    const MBUF_CONTROL_BLK_S *srcBlk = pstSrc->pstCtlInfo;
    const bool bCopiedOver = srcBlk != nullptr && srcBlk->usCapacity <= MBUF_CTL_INIT_CAPACITY &&
                             srcBlk->usUsedLen <= MBUF_CTL_INIT_CAPACITY;
    MBUF_S *head = NewTypedNode(MBUF_PKTHDR, pstSrc->usType, ulModuleId, &fl,
                                bCopiedOver ? krm::BlockInit::kCopiedOver : krm::BlockInit::kFresh);
    if (head == nullptr) {
        return nullptr;
    }
    if (MBUF_DuplicatePktHdr(head, pstSrc, ulModuleId, &fl) == 0) {
        MBUF_Free(head, &fl);
        return nullptr;
    }
    return head;
}

MBUF_S *MBUF_RawCopy_fl(MBUF_S *pstSrc, uint32_t ulOffset, uint32_t ulLen, uint32_t ulHeadRoom,
                        uint32_t ulModuleId, const char *pcFileName, uint32_t ulLine) {
    if (!IsPktHdr(pstSrc)) {
        krm::Report(krm::kModKrmMbuf, 672, "RawCopy Verify MBuf Error %u",
                    pstSrc == nullptr ? MBUF_ERR_NULL_MBUF : MBUF_ERR_NOT_PKTHDR);
        return nullptr;
    }
    // Computed unsigned: an offset beyond the packet wraps the difference and
    // passes; the copy routine then reports the bad offset. Kept as it stands.
    if (pstSrc->ulTotalDataLen - ulOffset < ulLen) {
        krm::Report(krm::kModKrmMbuf, 677, "Mbuf raw copy failed: %u, %d, %u", ulLen,
                    static_cast<int32_t>(pstSrc->ulTotalDataLen), ulOffset);
        return nullptr;
    }
    const uint32_t headRoom = std::max(ulHeadRoom, MBUF_RAWCOPY_MIN_HEADROOM);
    const uint64_t need = uint64_t{ulLen} + headRoom;
    if (need > uint64_t{INT32_MAX}) {
        return nullptr;
    }
    MBUF_S *copy = MBUF_CopyMBufHeader_fl(pstSrc, ulModuleId, pcFileName, ulLine);
    if (copy == nullptr) {
        return nullptr;
    }
    // The copy is always one node: a cluster (exactly sized above 1960)
    // when the inline area is too small.
    if (need > MBUF_PKTHDR_INLINE_LEN &&
        MBUF_AllocateCluster_fl(copy, static_cast<int32_t>(need), ulModuleId, pcFileName, ulLine) !=
            0) {
        MBUF_Destroy_fl(copy, pcFileName, ulLine);
        return nullptr;
    }
    copy->pucData += headRoom;
    MBUF_CopyDataFromMbufToCbuf(pstSrc, static_cast<int32_t>(ulOffset), static_cast<int32_t>(ulLen),
                                copy->pucData);
    copy->ulDataLen = ulLen;
    copy->ulTotalDataLen = ulLen;
    return copy;
}

MBUF_S *MBUF_RawCopy(MBUF_S *pstSrc, uint32_t ulOffset, uint32_t ulLen, uint32_t ulHeadRoom,
                     uint32_t ulModuleId) {
    return MBUF_RawCopy_fl(pstSrc, ulOffset, ulLen, ulHeadRoom, ulModuleId,
                           krm::wrap::kRawCopy.pcName, krm::wrap::kRawCopy.ulLine);
}

}  // extern "C"
