// The typed record model over the control-information block: creation,
// lookup, measuring and deletion of records by type. Where records are
// placed and how the block grows is the packet-tag layer's business.
#include <cstdint>
#include <cstring>

#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"

extern "C" {

// clang-format off
const uint16_t g_ausMbufCtlLen[MBUF_CTL_TYPE_NUM] = {
    84,   /* COMM */      0,  /* LINK */      20, /* IP */          108, /* MPLS */
    0,    /* APP */       0,  /* IPOPTION */  52, /* FERX */        44,  /* FETX */
    52,   /* IP6 */       4,  /* PREVHOP */   8,  /* IPSEC */       40,  /* TIMESTAMP */
    12,   /* VLANIDMAC */ 8,  /* TRILLOAM */  4,  /* L2PORTLIST */  16,  /* VSIMAC */
    8,    /* L2VSIPORTLIST */                 24, /* L2VPN */       0,   /* POLICYIF */
    0,    /* INTERFACE */ 0,  /* PKTSEND */   0,  /* STACKDEBUG */  0,   /* PACKET */
};
// clang-format on

}  // extern "C"

namespace krm {
namespace {

static_assert(sizeof(g_ausMbufCtlLen) / sizeof(g_ausMbufCtlLen[0]) == MBUF_CTL_TYPE_NUM);

// Path id and socket id read "none" on a fresh or reset common record.
void ResetCommon(MBUF_CTL_COMM_S *pstComm) {
    std::memset(pstComm, 0, sizeof(*pstComm));
    pstComm->ulPathId = 0xFFFFFFFFu;
    pstComm->ulSocketId = 0xFFFFFFFFu;
}

std::uint32_t RoundedLen(std::uint32_t ulLen, std::uint32_t *pulRounded) {
    const std::uint64_t ullRounded = (std::uint64_t{ulLen} + 7) & ~std::uint64_t{7};
    if (ullRounded > 0xFFFFFFFFu) {
        return MBUF_ERR_CTL_NO_ROOM;
    }
    *pulRounded = static_cast<std::uint32_t>(ullRounded);
    return MBUF_OK;
}

// A packet that lost its block gets a fresh one before its first record.
std::uint32_t EnsureBlock(MBUF_S *pstMbuf, std::uint32_t ulModuleId,
                          const MBUF_FILE_LINE_S *pstFl) {
    if (pstMbuf->pstCtlInfo != nullptr) {
        return MBUF_OK;
    }
    ReportNoText(kModKrmMbufBas, 1205);
    auto *pstBlk =
        static_cast<MBUF_CONTROL_BLK_S *>(MBUF_MemAlloc_fl(ctl::kBlockLen, ulModuleId, pstFl));
    if (pstBlk == nullptr) {
        return MBUF_ERR_NOMEM;
    }
    (void)MBUF_InitControlInfo(pstBlk);
    pstMbuf->pstCtlInfo = pstBlk;
    return MBUF_OK;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_InitControlInfo(MBUF_CONTROL_BLK_S *pstCtlBlk) {
    const int iRet = memset_s(pstCtlBlk, sizeof(MBUF_CTL_COMM_S), 0, sizeof(MBUF_CTL_COMM_S));
    if (pstCtlBlk == nullptr) {
        return static_cast<uint32_t>(iRet);
    }
    // The bounded zeroing above is what the result reports; the fixed part
    // then takes its fresh value whole.
    krm::ctl::InitFreshBlock(pstCtlBlk);
    return static_cast<uint32_t>(iRet);
}

MBUF_API uint32_t MBUF_CreateControlInfo_fl(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulLen,
                                            uint32_t ulModuleId, const char *pcFileName,
                                            uint32_t ulLine) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_INVALID_MBUF;
    }
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    const uint32_t ulRet = krm::EnsureBlock(pstMbuf, ulModuleId, &stFl);
    if (ulRet != MBUF_OK || ulType == MBUF_CTL_COMM) {
        return ulRet;
    }
    if (ulType <= krm::ctl::kMaxType && pstMbuf->pstCtlInfo->astSlot[ulType].usOffset != 0) {
        return MBUF_ERR_CTL_EXISTS;
    }
    uint32_t ulRounded = 0;
    if (krm::RoundedLen(ulLen, &ulRounded) != MBUF_OK ||
        MBUF_CreatePktTag(pstMbuf, ulType, ulRounded, 0, ulModuleId, pcFileName, ulLine) ==
            nullptr) {
        return MBUF_ERR_CTL_NO_ROOM;
    }
    return MBUF_OK;
}

MBUF_API uint32_t MBUF_CreateControlInfo(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulLen,
                                         uint32_t ulModuleId) {
    constexpr krm::WrapperSite kSite = krm::wrap::kCreateControlInfo;
    return MBUF_CreateControlInfo_fl(pstMbuf, ulType, ulLen, ulModuleId, kSite.pcName,
                                     kSite.ulLine);
}

MBUF_API void *MBUF_GetControlInfo(MBUF_S *pstMbuf, uint32_t ulType) {
    MBUF_CONTROL_BLK_S *pstBlk = krm::ctl::BlockOf(pstMbuf);
    if (pstBlk == nullptr || ulType > krm::ctl::kMaxType) {
        return nullptr;
    }
    if (ulType == MBUF_CTL_COMM) {
        return pstBlk;
    }
    return krm::ctl::Record(pstBlk, ulType);
}

MBUF_API void *MBUF_GetControlTlvInfo(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulSubType) {
    switch (ulType) {
        case MBUF_CTL_PKTSEND:
        case MBUF_CTL_PACKET:
            return MBUF_BAS_GetMbufLev2TlvByType(pstMbuf, ulType, ulSubType);
        case MBUF_CTL_LINK:
            return MBUF_BAS_GetMbufLinkStackByType(pstMbuf, ulSubType);
        default:
            return MBUF_GetControlInfo(pstMbuf, ulType);
    }
}

MBUF_API void MBUF_DeleteControlInfo(MBUF_S *pstMbuf, uint32_t ulType) {
    if (pstMbuf == nullptr || pstMbuf->pstCtlInfo == nullptr || ulType > krm::ctl::kMaxType) {
        return;
    }
    MBUF_CONTROL_BLK_S *pstBlk = pstMbuf->pstCtlInfo;
    if (ulType == MBUF_CTL_COMM) {
        krm::ResetCommon(&pstBlk->stComm);
        if ((pstMbuf->ulFlag & MBUF_PKTHDR) != 0) {
            pstMbuf->ulFlag2 = 0;
        }
        return;
    }
    // The record's bytes stay where they are: offsets of the other records
    // never move, and the space comes back only when the block is copied or
    // released.
    MBUF_CTL_SLOT_S *pstSlot = &pstBlk->astSlot[ulType];
    if (pstSlot->usLen != 0 && pstSlot->usOffset != 0) {
        --pstBlk->ucRecNum;
        pstSlot->usOffset = 0;
        pstSlot->usLen = 0;
    }
}

MBUF_API uint32_t MBUF_GetControlLen(MBUF_S *pstMbuf, uint32_t ulType) {
    if (pstMbuf == nullptr || pstMbuf->pstCtlInfo == nullptr || ulType > krm::ctl::kMaxType) {
        return 0;
    }
    const MBUF_CTL_SLOT_S &stSlot = pstMbuf->pstCtlInfo->astSlot[ulType];
    return stSlot.usOffset != 0 ? stSlot.usLen : 0;
}

MBUF_API uint32_t MBUF_GetCtlLen(MBUF_S *pstMbuf, uint32_t ulType) {
    if (ulType > krm::ctl::kMaxType) {
        return 0;
    }
    // Type 20 is a TLV record too, but is measured by its slot.
    if (ulType == MBUF_CTL_LINK || ulType == MBUF_CTL_PACKET) {
        const auto *pucRec = static_cast<const uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
        if (pucRec != nullptr && krm::ctl::InMem(pstMbuf, pucRec, krm::ctl::kTlvHeadLen)) {
            return krm::ctl::ListLen(pucRec) + krm::ctl::kTlvHeadLen;
        }
        return MBUF_GetControlLen(pstMbuf, ulType);
    }
    if (g_ausMbufCtlLen[ulType] != 0) {
        return g_ausMbufCtlLen[ulType];
    }
    return MBUF_GetControlLen(pstMbuf, ulType);
}

MBUF_API void *Mbuf_GetControlInfoByTagMsg(MBUF_CONTROL_BLK_S *pstCtlBlk, uint32_t ulType) {
    if (pstCtlBlk == nullptr || ulType > krm::ctl::kMaxType) {
        return nullptr;
    }
    if (ulType == MBUF_CTL_COMM) {
        return pstCtlBlk;
    }
    // A received block has been checked against its slot lengths and record
    // count, not its offsets: the walk trusts exactly those.
    uint32_t ulPassed = 0;
    for (uint32_t ulSlot = 1; ulSlot <= krm::ctl::kMaxType; ++ulSlot) {
        if (ulPassed == pstCtlBlk->ucRecNum) {
            return nullptr;
        }
        const MBUF_CTL_SLOT_S &stSlot = pstCtlBlk->astSlot[ulSlot];
        if (ulSlot == ulType) {
            return stSlot.usLen == 0 ? nullptr : krm::ctl::Bytes(pstCtlBlk) + stSlot.usOffset;
        }
        if (stSlot.usLen != 0) {
            ++ulPassed;
        }
    }
    return nullptr;
}

}  // extern "C"
