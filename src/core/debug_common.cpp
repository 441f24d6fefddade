#include "core/debug_common.h"

#include <cstdio>

#include "core/node.h"
#include "krm_mbuf/mbuf_debug.h"
#include "krm_mbuf/platform.h"

namespace krm::dbg {
namespace {

constexpr const char *kRecordNames[MBUF_CTL_TYPE_NUM] = {
    "COMM",      "LINK",      "IP",         "MPLS",       "APP",           "IPOPTION",
    "FERX",      "FETX",      "IP6",        "PREVHOP",    "IPSEC",         "TIMESTAMP",
    "VLANIDMAC", "TRILLOAM",  "L2PORTLIST", "VSIMAC",     "L2VSIPORTLIST", "L2VPN",
    "POLICYIF",  "INTERFACE", "PKTSEND",    "STACKDEBUG", "PACKET",
};

struct FlagName {
    std::uint32_t ulBit;
    const char *pcName;
};
constexpr FlagName kFlagNames[] = {
    {MBUF_EXT, "EXT"},           {MBUF_PKTHDR, "PKTHDR"},
    {MBUF_ROOMLOCK, "ROOMLOCK"}, {MBUF_FLAG_CTLINFO_SENT, "CTLINFO_SENT"},
    {MBUF_NOFREE, "NOFREE"},
};

const MBUF_S *Step(const MBUF_S *pstNode, std::uint32_t ulSteps) {
    for (std::uint32_t i = 0; i < ulSteps && pstNode != nullptr; ++i) {
        pstNode = pstNode->pstNext;
    }
    return pstNode;
}

}  // namespace

Storage StorageOf(const MBUF_S *pstMbuf) {
    if ((pstMbuf->ulFlag & MBUF_EXT) != 0) {
        return {reinterpret_cast<std::uintptr_t>(pstMbuf->pucExtBuf), pstMbuf->ulExtSize, true};
    }
    return {reinterpret_cast<std::uintptr_t>(InlineStart(pstMbuf)), InlineCapacity(pstMbuf), false};
}

std::int64_t DataOffset(const MBUF_S *pstMbuf, const Storage &stStorage) {
    const auto uiData = reinterpret_cast<std::uintptr_t>(pstMbuf->pucData);
    return uiData >= stStorage.uiStart ? static_cast<std::int64_t>(uiData - stStorage.uiStart)
                                       : -static_cast<std::int64_t>(stStorage.uiStart - uiData);
}

std::uint32_t BlockMemory(const MBUF_S *pstHead) {
    if (pstHead->pstCtlInfo == nullptr) {
        return 0;
    }
    return HasInlineCtlBlock(pstHead) ? MBUF_CTLINFO_INLINE_LEN
                                      : KRM_DbufLengthGET(pstHead->pstCtlInfo);
}

const char *RecordName(std::uint32_t ulType) {
    return ulType < MBUF_CTL_TYPE_NUM ? kRecordNames[ulType] : "?";
}

void FlagNames(std::uint32_t ulFlag, char *pcOut, std::uint32_t ulSize) {
    std::uint32_t ulLen = 0;
    pcOut[0] = '\0';
    std::uint32_t ulRest = ulFlag;
    for (const FlagName &stName : kFlagNames) {
        if ((ulRest & stName.ulBit) == 0 || ulLen >= ulSize) {
            continue;
        }
        ulRest &= ~stName.ulBit;
        const int iN = std::snprintf(pcOut + ulLen, ulSize - ulLen, "%s%s", ulLen != 0 ? "|" : "",
                                     stName.pcName);
        ulLen += iN > 0 ? static_cast<std::uint32_t>(iN) : 0;
    }
    if (ulRest != 0 && ulLen < ulSize) {
        (void)std::snprintf(pcOut + ulLen, ulSize - ulLen, "%s0x%x", ulLen != 0 ? "|" : "", ulRest);
    } else if (ulFlag == 0) {
        (void)std::snprintf(pcOut, ulSize, "none");
    }
}

ChainShape ShapeOf(const MBUF_S *pstHead) {
    // Floyd: a runner at twice the pace meets the walker only inside a loop.
    const MBUF_S *pstSlow = pstHead;
    const MBUF_S *pstFast = pstHead;
    std::uint32_t ulSteps = 0;
    while (pstFast != nullptr && pstFast->pstNext != nullptr && ulSteps <= MBUF_DBG_MAX_NODES) {
        pstSlow = pstSlow->pstNext;
        pstFast = pstFast->pstNext->pstNext;
        ++ulSteps;
        if (pstSlow == pstFast) {
            std::uint32_t ulStart = 0;
            for (const MBUF_S *pstA = pstHead; pstA != pstSlow; ++ulStart) {
                pstA = pstA->pstNext;
                pstSlow = pstSlow->pstNext;
            }
            std::uint32_t ulLoopLen = 1;
            for (const MBUF_S *pstB = Step(pstSlow, 1); pstB != pstSlow; pstB = pstB->pstNext) {
                ++ulLoopLen;
            }
            return {ulStart + ulLoopLen, true, ulStart, false};
        }
    }
    std::uint32_t ulNodes = 0;
    for (const MBUF_S *pstN = pstHead; pstN != nullptr && ulNodes <= MBUF_DBG_MAX_NODES;
         pstN = pstN->pstNext) {
        ++ulNodes;
    }
    if (ulNodes > MBUF_DBG_MAX_NODES) {
        return {MBUF_DBG_MAX_NODES, false, 0, true};
    }
    return {ulNodes, false, 0, false};
}

}  // namespace krm::dbg
