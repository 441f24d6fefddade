// Making a range of a packet lie in one node, and re-packing a packet that
// has grown into too many memory blocks. Bytes are moved, never added: the
// packet's length is unchanged.
#include <algorithm>
#include <cstdint>

#include "chain/chain_internal.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/platform.h"

namespace krm::chain {
namespace {

// A node whose bytes may be moved for contiguity: inline, or a buffer it
// alone holds whose room is not locked.
bool IsWritable(const MBUF_S *pstMbuf) {
    return !HasExt(pstMbuf) ||
           (pstMbuf->ulExtRefCnt == 1 && (pstMbuf->ulFlag & MBUF_ROOMLOCK) == 0);
}

// Room in front of a node's data, counted from the start of the inline area
// of its own layout; a locked buffer has none.
std::uint32_t PullBackRoom(MBUF_S *pstMbuf) {
    if (HasExt(pstMbuf) && (pstMbuf->ulFlag & MBUF_ROOMLOCK) != 0) {
        return 0;
    }
    return HeadRoom(pstMbuf, InlineStart(pstMbuf));
}

// A node big enough for ulLen contiguous bytes: inline up to 848, a standard
// cluster up to 1960, an exactly sized buffer beyond. A cluster's reference
// count takes the head's type, as appending does; kept as it stands.
MBUF_S *NewRangeNode(std::uint16_t usType, std::uint32_t ulLen, std::uint32_t ulModuleId,
                     const MBUF_FILE_LINE_S *pstFl) {
    if (ulLen <= MBUF_PLAIN_INLINE_LEN) {
        return NewTypedNode(0, usType, ulModuleId, pstFl);
    }
    return NewClusterNode(usType, std::max(ulLen, MBUF_CLUSTER_SIZE), usType, ulModuleId, pstFl);
}

// Copies ulLen bytes to the end of the compressed data; a failing copy is
// reported at ulLine of the compression module and the work goes on.
void CompressCopy(std::uint8_t *pucDst, std::uint32_t ulRoom, const std::uint8_t *pucSrc,
                  std::uint32_t ulLen, std::uint32_t ulLine) {
    const int rc = memcpy_s(pucDst, ulRoom, pucSrc, ulLen);
    if (rc != 0) {
        Report(kModKrmMbufBas, ulLine, "memcpy_s return %d", rc);
    }
}

}  // namespace
}  // namespace krm::chain

using namespace krm::chain;

extern "C" {

MBUF_S *MBUF_MemContinuousFromOffset(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                     int32_t *plOffsetInNode, uint32_t ulModuleId,
                                     const MBUF_FILE_LINE_S *pstFileLine) {
    if (pstMbuf == nullptr) {
        krm::Report(krm::kModUipcMbuf, 769, "pstMbuf == NULL, in MBUF_MemContinuousFromOffset");
        return nullptr;
    }
    if (lOffset < 0 || lLen < 0) {
        return nullptr;
    }
    const auto len = static_cast<uint32_t>(lLen);
    MBUF_S *node = pstMbuf;
    uint32_t off = static_cast<uint32_t>(lOffset);
    if (off != 0 && off >= pstMbuf->ulDataLen) {
        off -= pstMbuf->ulDataLen;
        for (node = pstMbuf->pstNext; node != nullptr; node = node->pstNext) {
            if (off == 0 || off < node->ulDataLen) {
                break;
            }
            off -= node->ulDataLen;
        }
    }
    while (node != nullptr && node->ulDataLen == 0) {
        node = node->pstNext;
    }
    if (node == nullptr) {
        return nullptr;
    }
    const uint32_t avail = node->ulDataLen - off;
    if (avail >= len) {
        if (plOffsetInNode != nullptr) {
            *plOffsetInNode = static_cast<int32_t>(off);
        }
        return node;
    }
    const uint32_t need = len - avail;
    MBUF_S *next = node->pstNext;
    if (next == nullptr) {
        return nullptr;
    }
    uint64_t behind = 0;
    for (MBUF_S *n = next; n != nullptr && behind < need; n = n->pstNext) {
        behind += n->ulDataLen;
    }
    if (behind < need) {
        return nullptr;
    }
    if (PullBackRoom(next) >= avail && IsWritable(node) && next->ulDataLen >= need) {
        // The tail of this node fits in front of the next one, which already
        // holds the rest of the range.
        next->pucData -= avail;
        next->ulDataLen += avail;
        (void)memmove_s(next->pucData, avail, node->pucData + off, avail);
        node->ulDataLen -= avail;
        if (plOffsetInNode != nullptr) {
            *plOffsetInNode = 0;
        }
        return next;
    }
    MBUF_S *range = NewRangeNode(pstMbuf->usType, len, ulModuleId, pstFileLine);
    if (range == nullptr) {
        return nullptr;
    }
    (void)memmove_s(range->pucData, len, node->pucData + off, avail);
    node->ulDataLen -= avail;
    MBUF_CopyDataFromMbufToCbuf(next, 0, static_cast<int32_t>(need), range->pucData + avail);
    range->ulDataLen = len;
    // Cuts from the front of the nodes behind: emptied nodes stay in the
    // chain and no packet length is touched. The cut updates the length of
    // a node it starts at when that node carries MBUF_PKTHDR (a source head
    // that concatenation linked keeps it), so that node's length is kept.
    const uint32_t nextTotal = next->ulTotalDataLen;
    MBUF_CutDataBySpecifiedLength(next, static_cast<int32_t>(need), pstFileLine);
    next->ulTotalDataLen = nextTotal;
    range->pstNext = next;
    node->pstNext = range;
    if (plOffsetInNode != nullptr) {
        *plOffsetInNode = 0;
    }
    return range;
}

uint8_t *MBUF_MakeMemoryContinuous_fl(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                      uint32_t ulModuleId, const char *pcFileName,
                                      uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf)) {
        return nullptr;
    }
    if (lOffset < 0 || lLen < 0) {
        krm::Report(krm::kModKrmMbuf, 1224, "%u %u offset or length err.",
                    static_cast<uint32_t>(lOffset), static_cast<uint32_t>(lLen));
        return nullptr;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    int32_t inNode = 0;
    MBUF_S *node = MBUF_MemContinuousFromOffset(pstMbuf, lOffset, lLen, &inNode, ulModuleId, &fl);
    if (node == nullptr) {
        return nullptr;
    }
    return node->pucData + inNode;
}

uint8_t *MBUF_MakeMemoryContinuous(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                   uint32_t ulModuleId) {
    return MBUF_MakeMemoryContinuous_fl(pstMbuf, lOffset, lLen, ulModuleId,
                                        krm::wrap::kMakeMemoryContinuous.pcName,
                                        krm::wrap::kMakeMemoryContinuous.ulLine);
}

uint32_t MBUF_Compress_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const char *pcFileName,
                          uint32_t ulLine) {
    if (MBUF_GetTotalDataLength(pstMbuf) >= MBUF_COMPRESS_MAX_LEN) {
        return MBUF_ERR_CANNOT_PROCEED;
    }
    if (pstMbuf == nullptr) {
        return MBUF_OK;
    }
    if (!IsPktHdr(pstMbuf)) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const MBUF_FILE_LINE_S fl = krm::FileLine(pcFileName, ulLine);
    (void)ReturnEmptyHeadInline(pstMbuf, &fl);
    uint32_t count = HasExt(pstMbuf) ? 2 : 1;
    TidyLaterNodes(pstMbuf, &fl, [&count](MBUF_S *, MBUF_S *node) {
        count += HasExt(node) ? 2 : 1;
        return true;
    });
    if (count <= MBUF_COMPRESS_MAX_BLOCKS) {
        return MBUF_OK;
    }
    // The head's own data must fit the new buffer's start; a head holding
    // more than the largest buffer cannot be re-packed without losing bytes.
    if (pstMbuf->ulDataLen > MBUF_COMPRESS_MAX_BUF) {
        return MBUF_ERR_CANNOT_PROCEED;
    }
    const uint32_t total = pstMbuf->ulTotalDataLen;
    const uint32_t size = std::min(total, MBUF_COMPRESS_MAX_BUF);
    auto *buf = static_cast<uint8_t *>(MBUF_MemAlloc_fl(size, ulModuleId, &fl));
    if (buf == nullptr) {
        return MBUF_ERR_NOMEM;
    }
    uint32_t used = std::min(pstMbuf->ulDataLen, size);
    if (used != 0) {
        CompressCopy(buf, size, pstMbuf->pucData, used, 1249);
    }
    if (HasExt(pstMbuf)) {
        DropExtBuffer(pstMbuf, &fl);
    }
    pstMbuf->ulFlag |= MBUF_EXT;
    pstMbuf->pucExtBuf = buf;
    pstMbuf->pucData = buf;
    pstMbuf->aulExtInfoRsv[0] = 0;
    pstMbuf->aulExtInfoRsv[1] = 0;
    pstMbuf->aulExtInfoRsv[2] = 0;
    pstMbuf->ulExtSize = size;
    pstMbuf->ulDataLen = size;
    pstMbuf->ulExtRsv0 = 0;
    pstMbuf->ulExtRsv1 = 0;
    pstMbuf->ulExtRefCnt = 1;
    MBUF_S *src = pstMbuf->pstNext;
    pstMbuf->pstNext = nullptr;

    // Fill the head's buffer, then the one node that takes what passes
    // 63900 bytes.
    MBUF_S *into = pstMbuf;
    uint32_t room = size - used;
    uint32_t line = 1270;
    while (src != nullptr) {
        if (room < src->ulDataLen) {
            if (into != pstMbuf || total <= MBUF_COMPRESS_MAX_BUF) {
                break;  // more data than the length said: leave it linked
            }
            if (room != 0) {
                CompressCopy(into->pucData + used, room, src->pucData, room, line);
                src->pucData += room;
                src->ulDataLen -= room;
            }
            uint32_t capacity = 0;
            MBUF_S *tail = MBUF_AllocateMBufNode_fl(total - MBUF_COMPRESS_MAX_BUF, 0, &capacity,
                                                    ulModuleId, pcFileName, ulLine);
            if (tail == nullptr) {
                // Partly re-packed: what was not copied stays linked behind
                // the full head, so the packet keeps every byte.
                krm::ReportNoText(krm::kModKrmMbufBas, 1278);
                pstMbuf->pstNext = src;
                return MBUF_ERR_NOMEM;
            }
            tail->usType = pstMbuf->usType;
            tail->ulDataLen = total - MBUF_COMPRESS_MAX_BUF;
            pstMbuf->pstNext = tail;
            into = tail;
            used = 0;
            room = std::min(capacity, tail->ulDataLen);
            line = 1290;
            continue;
        }
        if (src->ulDataLen != 0) {
            CompressCopy(into->pucData + used, room, src->pucData, src->ulDataLen, line);
        }
        used += src->ulDataLen;
        room -= src->ulDataLen;
        MBUF_S *next = src->pstNext;
        FreeOne(src, &fl);
        src = next;
    }
    into->pstNext = src;
    return MBUF_OK;
}

}  // extern "C"
