// The serial image: a near copy of a packet's memory. The data length and
// data, the control block as it lies (fixed part and used record area), and
// seven packet-header words. The block is restored byte for byte, so record
// offsets survive; a block of the other byte order is converted in place in
// the caller's image, and one written with another slot count is rebuilt in
// the local layout.
#include <algorithm>
#include <cstdint>

#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/bytes.h"
#include "internal/layout.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"
#include "serial/ctl_upgrade.h"

namespace krm {
namespace {

inline constexpr std::uint32_t kDataLenLen = 4;
inline constexpr std::uint32_t kHdrWordsLen = MBUF_IMAGE_HDR_WORDS_LEN;
inline constexpr std::uint32_t kSlotsOffset = offsetof(MBUF_CONTROL_BLK_S, astSlot);
inline constexpr std::uint32_t kOrderOff = offsetof(MBUF_CONTROL_BLK_S, ucByteOrder);
inline constexpr std::uint32_t kSlotNumOff = offsetof(MBUF_CONTROL_BLK_S, ucSlotNum);
inline constexpr std::uint32_t kUsedOff = offsetof(MBUF_CONTROL_BLK_S, usUsedLen);
inline constexpr std::uint32_t kCapacityOff = offsetof(MBUF_CONTROL_BLK_S, usCapacity);

// The seven header words in image order.
using HdrWord = std::uint32_t MBUF_S::*;
inline constexpr HdrWord kHdrWords[] = {
    &MBUF_S::ulPktRsv,  &MBUF_S::ulTotalDataLen, &MBUF_S::ulFlag3,  &MBUF_S::ulPktTagInfo,
    &MBUF_S::ulPktRsv2, &MBUF_S::ulFlag2,        &MBUF_S::ulPktRsv3};
static_assert(sizeof(kHdrWords) / sizeof(kHdrWords[0]) * 4 == kHdrWordsLen);

// What the reader learnt of the received block.
struct RxBlock {
    std::uint8_t *p;
    std::uint32_t avail;  // image bytes from the block's start to the end
    std::uint32_t slots;
    std::uint32_t used;
    std::uint32_t capacity;
    bool foreign;
};

RxBlock ReadRxHead(std::uint8_t *pucBlk, std::uint32_t ulAvail, bool bForeign) {
    return RxBlock{pucBlk,
                   ulAvail,
                   pucBlk[kSlotNumOff],
                   Load16At(pucBlk, kUsedOff),
                   Load16At(pucBlk, kCapacityOff),
                   bForeign};
}

// The header words close the image; a word that differs from the data the
// packet actually holds (the total length) is not taken, so the packet
// stays true to its nodes.
void ReadHdrWords(MBUF_S *pstMbuf, const std::uint8_t *pucWords, bool bForeign) {
    const std::uint32_t ulHeld = pstMbuf->ulTotalDataLen;
    for (std::uint32_t i = 0; i < sizeof(kHdrWords) / sizeof(kHdrWords[0]); ++i) {
        const std::uint32_t ulWord = Load32At(pucWords, 4 * i);
        pstMbuf->*kHdrWords[i] = bForeign ? Swap32(ulWord) : ulWord;
    }
    pstMbuf->ulTotalDataLen = ulHeld;
}

// The image's size. A received packet keeps the total length its sender
// wrote: an image of one that would not fit 32 bits cannot be sized by the
// caller, and is neither sized (0, as for no block) nor written (1013).
std::uint64_t ImageSize(const MBUF_S *pstMbuf) {
    return std::uint64_t{pstMbuf->ulTotalDataLen} + pstMbuf->pstCtlInfo->usUsedLen +
           MBUF_CTL_FIXED_LEN + kDataLenLen + kHdrWordsLen;
}

// The block's fixed part and used area as the image holds them. The used
// length is the block's own account (a received block may claim more than
// it holds): what lies past the block's memory is written as zeros, so the
// image keeps the size MBUF_GetAllBlockSize gave and nothing past the block
// is read.
void CopyBlock(std::uint8_t *pucOut, const MBUF_S *pstMbuf, std::uint32_t ulBlkLen) {
    const std::uint32_t ulInside = std::min(ulBlkLen, ctl::MemLen(pstMbuf));
    (void)memcpy_s(pucOut, ulBlkLen, pstMbuf->pstCtlInfo, ulInside);
    (void)memset_s(pucOut + ulInside, ulBlkLen - ulInside, 0, ulBlkLen - ulInside);
}

// A block of the local layout replaces the packet's, grown to the received
// capacity when the packet's own is smaller. False when that allocation
// failed (the packet is then destroyed).
bool TakeLocalLayout(MBUF_S *pstMbuf, const RxBlock &rx, std::uint32_t ulModuleId,
                     const MBUF_FILE_LINE_S *pstFl) {
    if (pstMbuf->pstCtlInfo->usCapacity < rx.capacity) {
        MBUF_DeletePktTag(pstMbuf, pstFl);
        auto *pstBlk = static_cast<MBUF_CONTROL_BLK_S *>(
            MBUF_MemAlloc_fl(MBUF_CTL_FIXED_LEN + rx.capacity, ulModuleId, pstFl));
        if (pstBlk == nullptr) {
            MBUF_Destroy_fl(pstMbuf, pstFl->pcFileName, pstFl->ulLine);
            return false;
        }
        (void)MBUF_InitControlInfo(pstBlk);
        pstBlk->usCapacity = static_cast<std::uint16_t>(rx.capacity);
        pstMbuf->pstCtlInfo = pstBlk;
    }
    MBUF_CONTROL_BLK_S *pstBlk = pstMbuf->pstCtlInfo;
    const std::uint32_t ulRoom = MBUF_CTL_FIXED_LEN + pstBlk->usCapacity;
    const int iRet = memcpy_s(pstBlk, ulRoom, rx.p, MBUF_CTL_FIXED_LEN + rx.used);
    if (iRet != 0) {
        Report(kModKrmMbufBas, 2687, "memcpy_s return %d", iRet);
        // The failed copy cleared the block; it is set up afresh rather than
        // left without slot count or capacity.
        const std::uint16_t usCapacity = static_cast<std::uint16_t>(ulRoom - MBUF_CTL_FIXED_LEN);
        (void)MBUF_InitControlInfo(pstBlk);
        pstBlk->usCapacity = usCapacity;
    }
    return true;
}

// A block of another slot count is copied out of the image (which may be
// at any alignment) and rebuilt from the copy in the local layout. False,
// with the packet destroyed, when memory fails.
bool TakeOtherLayout(MBUF_S *pstMbuf, const RxBlock &rx, std::uint32_t ulModuleId,
                     const MBUF_FILE_LINE_S *pstFl) {
    const std::uint32_t ulLen = kSlotsOffset + 4u * rx.slots + rx.used;
    auto *pstTmp = static_cast<MBUF_CONTROL_BLK_S *>(
        KRM_Malloc_F(ulModuleId, g_aucKrmMemPt[0], ulLen, pstFl->pcFileName, pstFl->ulLine));
    if (pstTmp == nullptr) {
        MBUF_Destroy_fl(pstMbuf, pstFl->pcFileName, pstFl->ulLine);
        return false;
    }
    (void)memcpy_s(pstTmp, ulLen, rx.p, ulLen);
    MBUF_CONTROL_BLK_S *pstOwn = pstMbuf->pstCtlInfo;
    pstMbuf->pstCtlInfo = pstTmp;
    const std::uint32_t ulRet =
        UpgradeCtlBlock(pstMbuf, ulModuleId, 0, ulLen, pstFl->pcFileName, pstFl->ulLine);
    (void)KRM_Free_F(pstTmp, pstFl->pcFileName, pstFl->ulLine);
    if (ulRet != MBUF_OK) {
        pstMbuf->pstCtlInfo = pstOwn;
        MBUF_Destroy_fl(pstMbuf, pstFl->pcFileName, pstFl->ulLine);
        return false;
    }
    return true;
}

// Takes the received block over. Returns the packet, or NULL after a failed
// allocation (packet destroyed). A block whose head, directory or used
// record area is cut short by the end of the image is not taken over, and
// the header words behind it are not looked for: nothing past the image is
// read.
MBUF_S *TakeBlock(MBUF_S *pstMbuf, std::uint8_t *pucBuf, std::uint32_t ulLen,
                  std::uint32_t ulBlkOff, std::uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFl) {
    std::uint8_t *pucBlk = pucBuf + ulBlkOff;
    const std::uint32_t ulAvail = ulLen - ulBlkOff;
    if (ulAvail < kSlotsOffset) {
        return pstMbuf;
    }
    const std::uint8_t ucOrder = pucBlk[kOrderOff];
    const bool bForeign = ucOrder != 0 && ucOrder != MBUF_BYTEORDER_HOST;
    if (bForeign) {
        MBUF_TagByteOrderTrans(pucBlk, ulAvail);
    }
    const RxBlock rx = ReadRxHead(pucBlk, ulAvail, bForeign);
    const std::uint64_t ullBlkEnd = std::uint64_t{kSlotsOffset} + 4u * rx.slots + rx.used;
    if (ullBlkEnd > ulAvail) {
        return pstMbuf;
    }
    if (rx.slots == MBUF_CTL_TYPE_NUM && pstMbuf->pstCtlInfo != nullptr) {
        if (!TakeLocalLayout(pstMbuf, rx, ulModuleId, pstFl)) {
            return nullptr;
        }
    } else if (rx.slots != MBUF_CTL_TYPE_NUM) {
        if (!TakeOtherLayout(pstMbuf, rx, ulModuleId, pstFl)) {
            return nullptr;
        }
    }
    const std::uint64_t ullWords = ulBlkOff + ullBlkEnd;
    if (ullWords != ulLen && ullWords + kHdrWordsLen <= ulLen) {
        ReadHdrWords(pstMbuf, pucBuf + ullWords, bForeign);
    }
    return pstMbuf;
}

// True when a block head lies at ulBlkOff and its byte-order code names the
// other order.
bool ForeignBlockAt(const std::uint8_t *pucBuf, std::uint32_t ulLen, std::uint64_t ullBlkOff) {
    if (ullBlkOff + kSlotsOffset > ulLen) {
        return false;
    }
    const std::uint8_t ucOrder = pucBuf[ullBlkOff + kOrderOff];
    return ucOrder != 0 && ucOrder != MBUF_BYTEORDER_HOST;
}

// The data length word is in the writer's order, which only the block
// behind the data tells. It is taken as it reads when the data then lies
// inside the image; a word that only fits reversed is taken reversed when a
// block of the other order stands where that length puts it. *pulDataLen
// is the length as read when neither fits (also when the image is too short
// for the word itself: nothing past it is read).
bool FindDataLen(const std::uint8_t *pucBuf, std::uint32_t ulLen, std::uint32_t *pulDataLen) {
    if (ulLen < kDataLenLen) {
        *pulDataLen = 0;
        return false;
    }
    const std::uint32_t ulRaw = Load32(pucBuf);
    *pulDataLen = ulRaw;
    if (std::uint64_t{ulRaw} + kDataLenLen <= ulLen) {
        return true;
    }
    const std::uint32_t ulSwapped = Swap32(ulRaw);
    const std::uint64_t ullBlkOff = std::uint64_t{ulSwapped} + kDataLenLen;
    if (ullBlkOff < ulLen && ForeignBlockAt(pucBuf, ulLen, ullBlkOff)) {
        *pulDataLen = ulSwapped;
        return true;
    }
    return false;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_GetAllBlockSize(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0 ||
        pstMbuf->pstCtlInfo == nullptr) {
        return 0;
    }
    const std::uint64_t ullSize = krm::ImageSize(pstMbuf);
    return ullSize > UINT32_MAX ? 0 : static_cast<uint32_t>(ullSize);
}

MBUF_API uint32_t MBUF_Serialize(MBUF_S *pstMbuf, uint8_t *pucBuf) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_INVALID_MBUF;
    }
    if (pucBuf == nullptr || pstMbuf->pstCtlInfo == nullptr ||
        krm::ImageSize(pstMbuf) > UINT32_MAX) {
        return MBUF_ERR_NO_DATA;
    }
    MBUF_CONTROL_BLK_S *pstBlk = pstMbuf->pstCtlInfo;
    MBUF_Get_BEX_ByteOrder(&pstBlk->ucByteOrder);
    const uint32_t ulDataLen = pstMbuf->ulTotalDataLen;
    krm::Store32(pucBuf, ulDataLen);
    MBUF_CopyDataFromMbufToCbuf(pstMbuf, 0, static_cast<int32_t>(ulDataLen),
                                pucBuf + krm::kDataLenLen);
    uint8_t *pucOut = pucBuf + krm::kDataLenLen + ulDataLen;
    const uint32_t ulBlkLen = MBUF_CTL_FIXED_LEN + pstBlk->usUsedLen;
    krm::CopyBlock(pucOut, pstMbuf, ulBlkLen);
    pucOut += ulBlkLen;
    for (const krm::HdrWord word : krm::kHdrWords) {
        const int iRet = memcpy_s(pucOut, 4, &(pstMbuf->*word), 4);
        if (iRet != 0) {
            krm::Report(krm::kModKrmMbufBas, 2608, "memcpy_s return %d", iRet);
        }
        pucOut += 4;
    }
    return MBUF_OK;
}

MBUF_API MBUF_S *MBUF_Deserialize_fl(uint8_t *pucBuf, uint32_t ulLen, uint32_t ulModuleId,
                                     const char *pcFileName, uint32_t ulLine) {
    if (pucBuf == nullptr) {
        return nullptr;
    }
    uint32_t ulDataLen = 0;
    if (!krm::FindDataLen(pucBuf, ulLen, &ulDataLen)) {
        krm::Report(krm::kModKrmMbufBas, 2646, "buf len %u, data len %u", ulLen,
                    ulDataLen + krm::kDataLenLen);
        return nullptr;
    }
    const uint32_t ulBlkOff = ulDataLen + krm::kDataLenLen;
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    MBUF_S *pstMbuf =
        MBUF_CreateMbufWithBufferData(pucBuf + krm::kDataLenLen, static_cast<int32_t>(ulDataLen), 0,
                                      0, nullptr, ulModuleId, &stFl);
    if (pstMbuf == nullptr || ulBlkOff == ulLen) {
        return pstMbuf;
    }
    return krm::TakeBlock(pstMbuf, pucBuf, ulLen, ulBlkOff, ulModuleId, &stFl);
}

MBUF_API MBUF_S *MBUF_Deserialize(uint8_t *pucBuf, uint32_t ulLen, uint32_t ulModuleId) {
    return MBUF_Deserialize_fl(pucBuf, ulLen, ulModuleId, krm::wrap::kDeserialize.pcName,
                               krm::wrap::kDeserialize.ulLine);
}

}  // extern "C"
