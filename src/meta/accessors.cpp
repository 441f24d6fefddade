// Flag words and field accessors. Components read and write packet
// attributes only through these, so a getter never fails loudly: a missing
// record reads as the all-ones value of the field, and a setter without a
// block stores nothing and says so by its result. No accessor creates a block
// except the tunnel-key setter, which owns the MPLS record it fills.
#include <cstring>

#include "core/wrapper_sites.h"
#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/comm_fields.h"
#include "meta/ctlinfo_block.h"

namespace {

using krm::Load16At;
using krm::Load32At;
using krm::meta::Comm;
using krm::meta::CommField;
using krm::meta::CommFieldDesc;

constexpr std::uint32_t kFlag3Bits = 32;

// ---- common record ---------------------------------------------------------

// NULL for a NULL node, a node without MBUF_PKTHDR or a packet without block.
std::uint8_t *CommRecord(MBUF_S *pstMbuf) {
    return static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_COMM));
}

std::uint32_t LoadField(const std::uint8_t *pucRec, const CommFieldDesc &stField) {
    return stField.ulWidth == 2 ? Load16At(pucRec, stField.ulOffset)
                                : Load32At(pucRec, stField.ulOffset);
}

void StoreField(std::uint8_t *pucRec, const CommFieldDesc &stField, std::uint32_t ulValue) {
    if (stField.ulWidth == 2) {
        krm::Store16At(pucRec, stField.ulOffset, static_cast<std::uint16_t>(ulValue));
    } else {
        krm::Store32At(pucRec, stField.ulOffset, ulValue);
    }
}

// The common record when it holds the field inside the block's memory; a
// block in a buffer too short for it reads as having no record.
std::uint8_t *CommWith(MBUF_S *pstMbuf, CommField eField) {
    std::uint8_t *pucRec = CommRecord(pstMbuf);
    if (pucRec == nullptr ||
        !krm::ctl::InMem(pstMbuf, pucRec + Comm(eField).ulOffset, Comm(eField).ulWidth)) {
        return nullptr;
    }
    return pucRec;
}

std::uint32_t GetComm(MBUF_S *pstMbuf, CommField eField) {
    const std::uint8_t *pucRec = CommWith(pstMbuf, eField);
    return pucRec != nullptr ? LoadField(pucRec, Comm(eField)) : Comm(eField).ulMissing;
}

MBUF_CTL_COMM_S *SetComm(MBUF_S *pstMbuf, CommField eField, std::uint32_t ulValue) {
    std::uint8_t *pucRec = CommWith(pstMbuf, eField);
    if (pucRec == nullptr) {
        return nullptr;
    }
    StoreField(pucRec, Comm(eField), ulValue);
    return static_cast<MBUF_CTL_COMM_S *>(static_cast<void *>(pucRec));
}

bool IsPktHdr(const MBUF_S *pstMbuf) {
    return pstMbuf != nullptr && (pstMbuf->ulFlag & MBUF_PKTHDR) != 0;
}

// ---- typed records and link sub-TLVs ------------------------------------------

// ulWidth bytes at ulOffset of a typed record, when the record is present.
// A record created shorter than its standard length is read where its fields
// would be all the same, as long as they lie inside the block's memory;
// beyond it the record reads as missing.
std::uint8_t *RecordField(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulOffset,
                          std::uint32_t ulWidth) {
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
    if (pucRec == nullptr || !krm::ctl::InMem(pstMbuf, pucRec + ulOffset, ulWidth)) {
        return nullptr;
    }
    return pucRec + ulOffset;
}

// Link-stack sub-TLV types the derived getters read.
constexpr std::uint32_t kLinkEth = 0;
constexpr std::uint32_t kLinkQinQ = 2;
constexpr std::uint32_t kLinkDot1q = 4;
constexpr std::uint32_t kLinkVsi = 9;
constexpr std::uint32_t kLinkVlanPriority = 10;
constexpr std::uint32_t kLinkBridgeDomain = 11;

// The value of a link-stack sub-TLV, when present. Its fields are read where
// they would be whatever the sub-TLV's own length, as long as the first
// ulNeed value bytes lie inside the block's memory; beyond it the sub-TLV
// reads as missing. The sub-TLV may be unaligned.
std::uint8_t *LinkValue(MBUF_S *pstMbuf, std::uint32_t ulSubType, std::uint32_t ulNeed) {
    auto *pucTlv = static_cast<std::uint8_t *>(
        static_cast<void *>(MBUF_BAS_GetMbufLinkStackByType(pstMbuf, ulSubType)));
    if (pucTlv == nullptr || !krm::ctl::InMem(pstMbuf, pucTlv + sizeof(MBUF_CTL_TLV_S), ulNeed)) {
        return nullptr;
    }
    return pucTlv + sizeof(MBUF_CTL_TLV_S);
}

// Offsets within the records and sub-TLVs.
constexpr std::uint32_t kIpTosOff = 13;
constexpr std::uint32_t kIpMtuOff = 14;
constexpr std::uint32_t kIp6ClassOff = 36;
constexpr std::uint32_t kIp6MtuOff = 38;
constexpr std::uint32_t kMplsLen = 108;
constexpr std::uint32_t kMplsKeyOff = 96;
constexpr std::uint32_t kTunnelKeyLen = 12;
constexpr std::uint32_t kFeRxVlanOff = 16;
constexpr std::uint32_t kFeRxFlagsOff = 28;
constexpr std::uint16_t kFeRxOneTag = 0x2000;
constexpr std::uint16_t kFeRxTwoTags = 0x400;
constexpr std::uint32_t kEthPriorityOff = 16;
constexpr std::uint32_t kEthFlagsOff = 18;
constexpr std::uint16_t kEthPriorityValid = 0x10;
constexpr std::uint32_t kVlanPrioModeOff = 4;
constexpr std::uint32_t kVlanPrioOff = 5;
constexpr std::uint32_t kVlanPrio2Off = 6;
constexpr std::uint8_t kVlanPrioModeTwo = 2;
constexpr std::uint32_t kPruneFirstOff = 16;
constexpr std::uint32_t kPruneSecondOff = 18;

constexpr std::uint32_t kProtoIpv4 = 0;
constexpr std::uint32_t kProtoIpv6 = 1;

bool ValidVlan(std::uint32_t ulVlan) {
    return ulVlan >= 1 && ulVlan <= 4094;
}

}  // namespace

extern "C" {

// ---- the pattern pairs, one per PAIR row of the table ------------------------------

#define KRM_META_STAMP_PAIR(stem)                                                 \
    MBUF_API uint32_t MBUF_Get##stem(MBUF_S *pstMbuf) {                           \
        return GetComm(pstMbuf, CommField::stem);                                 \
    }                                                                             \
    MBUF_API MBUF_CTL_COMM_S *MBUF_Set##stem(MBUF_S *pstMbuf, uint32_t ulValue) { \
        return SetComm(pstMbuf, CommField::stem, ulValue);                        \
    }
#define KRM_META_STAMP_OWN(stem)
#define KRM_META_STAMP(stem, member, kind) KRM_META_STAMP_##kind(stem)
KRM_META_COMM_FIELDS(KRM_META_STAMP)
#undef KRM_META_STAMP
#undef KRM_META_STAMP_OWN
#undef KRM_META_STAMP_PAIR

// ---- packet flag word (common record) -----------------------------------------------

MBUF_API uint32_t MBUF_GetFlag(MBUF_S *pstMbuf) {
    return GetComm(pstMbuf, CommField::Flag);
}

MBUF_API uint32_t MBUF_SetFlag(MBUF_S *pstMbuf, uint32_t ulMask) {
    std::uint8_t *pucRec = CommWith(pstMbuf, CommField::Flag);
    if (pucRec == nullptr) {
        return 0;
    }
    const std::uint32_t ulFlag = LoadField(pucRec, Comm(CommField::Flag)) | ulMask;
    StoreField(pucRec, Comm(CommField::Flag), ulFlag);
    return ulFlag;
}

MBUF_API uint32_t MBUF_ClearFlag(MBUF_S *pstMbuf, uint32_t ulMask) {
    std::uint8_t *pucRec = CommWith(pstMbuf, CommField::Flag);
    if (pucRec == nullptr) {
        return 0;
    }
    const std::uint32_t ulFlag = LoadField(pucRec, Comm(CommField::Flag)) & ~ulMask;
    StoreField(pucRec, Comm(CommField::Flag), ulFlag);
    return ulFlag;
}

MBUF_API uint32_t MBUF_TestFlag1(MBUF_S *pstMbuf, uint32_t ulMask) {
    const std::uint8_t *pucRec = CommWith(pstMbuf, CommField::Flag);
    if (pucRec == nullptr) {
        return 0;
    }
    return (LoadField(pucRec, Comm(CommField::Flag)) & ulMask) != 0 ? 1u : 0u;
}

// ---- ulFlag2 and ulFlag3 (packet-header node) -------------------------------------------

// Read on any node: the word sits at the same place in every node's body.
MBUF_API uint32_t MBUF_GetFlag2(MBUF_S *pstMbuf) {
    return pstMbuf != nullptr ? pstMbuf->ulFlag2 : 0xFFFFFFFFu;
}

MBUF_API uint32_t MBUF_TestFlag2(MBUF_S *pstMbuf, uint32_t ulMask) {
    if (!IsPktHdr(pstMbuf)) {
        return 0;
    }
    return (pstMbuf->ulFlag2 & ulMask) != 0 ? 1u : 0u;
}

MBUF_API int32_t MBUF_SetFlag2(MBUF_S *pstMbuf, uint32_t ulMask) {
    if (!IsPktHdr(pstMbuf)) {
        return -1;
    }
    pstMbuf->ulFlag2 |= ulMask;
    return 0;
}

MBUF_API int32_t MBUF_ClearFlag2(MBUF_S *pstMbuf, uint32_t ulMask) {
    if (!IsPktHdr(pstMbuf)) {
        return -1;
    }
    pstMbuf->ulFlag2 &= ~ulMask;
    return 0;
}

MBUF_API uint32_t MBUF_TestFlag3(MBUF_S *pstMbuf, uint32_t ulBit) {
    if (!IsPktHdr(pstMbuf) || ulBit >= kFlag3Bits) {
        return 0;
    }
    return (pstMbuf->ulFlag3 >> ulBit) & 1u;
}

MBUF_API int32_t MBUF_SetFlag3(MBUF_S *pstMbuf, uint32_t ulBit) {
    if (!IsPktHdr(pstMbuf) || ulBit >= kFlag3Bits) {
        return -1;
    }
    pstMbuf->ulFlag3 |= 1u << ulBit;
    return 0;
}

MBUF_API int32_t MBUF_ClearFlag3(MBUF_S *pstMbuf, uint32_t ulBit) {
    if (!IsPktHdr(pstMbuf) || ulBit >= kFlag3Bits) {
        return -1;
    }
    pstMbuf->ulFlag3 &= ~(1u << ulBit);
    return 0;
}

// ---- common-record fields of their own shape ----------------------------------------------

MBUF_API uint32_t MBUF_GetPktPriority(MBUF_S *pstMbuf) {
    return GetComm(pstMbuf, CommField::PktPriority);
}

MBUF_API void MBUF_SetPktPriority(MBUF_S *pstMbuf, uint32_t ulValue) {
    (void)SetComm(pstMbuf, CommField::PktPriority, ulValue);
}

MBUF_API int32_t MBUF_SetProductProtoType(MBUF_S *pstMbuf, uint32_t ulValue) {
    return SetComm(pstMbuf, CommField::ProductProtoType, ulValue) != nullptr ? 0 : -1;
}

MBUF_API int32_t MBUF_GetProductProtoType(MBUF_S *pstMbuf, uint32_t *pulValue) {
    if (pulValue == nullptr) {
        return -1;
    }
    const std::uint8_t *pucRec = CommWith(pstMbuf, CommField::ProductProtoType);
    if (pucRec == nullptr) {
        *pulValue = 0;
        return -1;
    }
    *pulValue = LoadField(pucRec, Comm(CommField::ProductProtoType));
    return 0;
}

// ---- derived getters ---------------------------------------------------------------------

MBUF_API uint32_t MBUF_GetIPTOS(MBUF_S *pstMbuf) {
    if (const std::uint8_t *pucTos = RecordField(pstMbuf, MBUF_CTL_IP, kIpTosOff, 1)) {
        return *pucTos;
    }
    if (const std::uint8_t *pucClass = RecordField(pstMbuf, MBUF_CTL_IP6, kIp6ClassOff, 1)) {
        return *pucClass;
    }
    return 0xFF;
}

MBUF_API uint32_t MBUF_GetReceiveIfMTU(MBUF_S *pstMbuf) {
    const std::uint32_t ulProto = GetComm(pstMbuf, CommField::ProtoType);
    const std::uint8_t *pucMtu = nullptr;
    if (ulProto == kProtoIpv4) {
        pucMtu = RecordField(pstMbuf, MBUF_CTL_IP, kIpMtuOff, 2);
    } else if (ulProto == kProtoIpv6) {
        pucMtu = RecordField(pstMbuf, MBUF_CTL_IP6, kIp6MtuOff, 2);
    }
    return pucMtu != nullptr ? krm::Load16(pucMtu) : 0xFFFFu;
}

// A new MPLS record reads as "nothing known" (all-ones) in every word but
// word 5, which stays zero; a second call only replaces the key.
MBUF_API int32_t MBUF_SetTunnelKey_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const uint8_t *pucKey,
                                      const char *pcFileName, uint32_t ulLine) {
    if (!IsPktHdr(pstMbuf) || pucKey == nullptr) {
        return -1;
    }
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_MPLS));
    if (pucRec == nullptr) {
        if (MBUF_CreateControlInfo_fl(pstMbuf, MBUF_CTL_MPLS, kMplsLen, ulModuleId, pcFileName,
                                      ulLine) != MBUF_OK) {
            return -1;
        }
        pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_MPLS));
        if (pucRec == nullptr) {
            return -1;
        }
        for (std::uint32_t ulWord = 0; ulWord <= 10; ++ulWord) {
            if (ulWord != 5) {
                krm::Store32At(pucRec, ulWord * 4, 0xFFFFFFFFu);
            }
        }
    }
    // A record created shorter than 108 bytes takes the key where it would
    // lie all the same; the copy is bounded by the block's memory and, as
    // ever, its result is not looked at.
    const std::uint32_t ulRoom = krm::ctl::RoomFrom(pstMbuf, pucRec + kMplsKeyOff);
    (void)memcpy_s(pucRec + kMplsKeyOff, ulRoom < kTunnelKeyLen ? ulRoom : kTunnelKeyLen, pucKey,
                   kTunnelKeyLen);
    return 0;
}

MBUF_API int32_t MBUF_SetTunnelKey(MBUF_S *pstMbuf, uint32_t ulModuleId, const uint8_t *pucKey) {
    return MBUF_SetTunnelKey_fl(pstMbuf, ulModuleId, pucKey, krm::wrap::kSetTunnelKey.pcName,
                                krm::wrap::kSetTunnelKey.ulLine);
}

MBUF_API int32_t MBUF_GetTunnelKey(MBUF_S *pstMbuf, uint8_t *pucKey) {
    if (!IsPktHdr(pstMbuf) || pucKey == nullptr) {
        return -1;
    }
    const std::uint8_t *pucSrc = RecordField(pstMbuf, MBUF_CTL_MPLS, kMplsKeyOff, kTunnelKeyLen);
    if (pucSrc == nullptr) {
        return -1;
    }
    std::memcpy(pucKey, pucSrc, kTunnelKeyLen);
    return 0;
}

// The tag the packet arrived with, as the link layer recorded it; the
// forwarding engine's record is the fallback and only counts when its ids
// are real VLANs.
MBUF_API uint32_t MBUF_GetRecvVlanId(MBUF_S *pstMbuf, uint16_t *pusVlan, uint32_t ulCapacity,
                                     uint32_t *pulCount) {
    if (pstMbuf == nullptr || pusVlan == nullptr || ulCapacity < 2 || pulCount == nullptr) {
        return MBUF_ERR_BAD_ARG;
    }
    *pulCount = 0;
    if (const std::uint8_t *pucDot1q = LinkValue(pstMbuf, kLinkDot1q, 2)) {
        pusVlan[0] = Load16At(pucDot1q, 0);
        *pulCount = 1;
        return MBUF_OK;
    }
    if (const std::uint8_t *pucQinQ = LinkValue(pstMbuf, kLinkQinQ, 4)) {
        pusVlan[0] = Load16At(pucQinQ, 2);
        pusVlan[1] = Load16At(pucQinQ, 0);
        *pulCount = 2;
        return MBUF_OK;
    }
    if (const std::uint8_t *pucFe = RecordField(pstMbuf, MBUF_CTL_FERX, 0, kFeRxFlagsOff + 2)) {
        const std::uint16_t usFlags = Load16At(pucFe, kFeRxFlagsOff);
        const auto usFirst = static_cast<std::uint16_t>(Load16At(pucFe, kFeRxVlanOff) & 0xFFF);
        const auto usSecond = static_cast<std::uint16_t>(Load32At(pucFe, kFeRxVlanOff) & 0xFFF);
        if ((usFlags & kFeRxOneTag) != 0) {
            pusVlan[0] = usFirst;
            if (ValidVlan(usFirst)) {
                *pulCount = 1;
                return MBUF_OK;
            }
        } else if ((usFlags & kFeRxTwoTags) != 0) {
            pusVlan[0] = usFirst;
            pusVlan[1] = usSecond;
            if (ValidVlan(usFirst) && ValidVlan(usSecond)) {
                *pulCount = 2;
                return MBUF_OK;
            }
        }
    }
    return MBUF_ERR_NOT_FOUND;
}

MBUF_API void *MBUF_GetVlanPriority_ProcIpv6(MBUF_S *pstMbuf, uint8_t *pucPriority,
                                             uint8_t *pucFound) {
    if (pucFound != nullptr) {
        *pucFound = 0;
    }
    if (pstMbuf == nullptr || pucPriority == nullptr || pucFound == nullptr) {
        return nullptr;
    }
    if (std::uint8_t *pucClass = RecordField(pstMbuf, MBUF_CTL_IP6, kIp6ClassOff, 1)) {
        *pucPriority = static_cast<std::uint8_t>(*pucClass >> 5);
        *pucFound = 1;
        return pucClass - kIp6ClassOff;
    }
    std::uint8_t *pucEth = LinkValue(pstMbuf, kLinkEth, kEthFlagsOff + 2);
    if (pucEth != nullptr && (Load16At(pucEth, kEthFlagsOff) & kEthPriorityValid) != 0) {
        *pucPriority = pucEth[kEthPriorityOff];
        *pucFound = 1;
        return pucEth - sizeof(MBUF_CTL_TLV_S);
    }
    return nullptr;
}

// The VLAN-priority sub-TLV, when present, decides; the priority derived from
// the packet itself only fills the first byte when that sub-TLV gives one
// priority for both tags.
MBUF_API int32_t MBUF_GetVlanPriority(MBUF_S *pstMbuf, uint8_t *pucPriority, uint32_t ulCapacity) {
    if (pstMbuf == nullptr || pucPriority == nullptr) {
        return -1;
    }
    const std::uint8_t *pucTag = LinkValue(pstMbuf, kLinkVlanPriority, kVlanPrio2Off + 1);
    std::uint8_t ucDerived = 0;
    std::uint8_t ucFound = 0;
    if (const std::uint8_t *pucTos = RecordField(pstMbuf, MBUF_CTL_IP, kIpTosOff, 1)) {
        ucDerived = static_cast<std::uint8_t>(*pucTos >> 5);
        ucFound = 1;
    } else {
        (void)MBUF_GetVlanPriority_ProcIpv6(pstMbuf, &ucDerived, &ucFound);
    }
    if (pucTag == nullptr && ucFound == 0) {
        return -1;
    }
    if (pucTag == nullptr) {
        if (ulCapacity >= 1) {
            pucPriority[0] = ucDerived;
        }
        if (ulCapacity > 1) {
            pucPriority[1] = ucDerived;
        }
        return 0;
    }
    const std::uint8_t ucTagPrio = pucTag[kVlanPrioOff];
    if (ulCapacity == 1) {
        pucPriority[0] = ucTagPrio;
        return 0;
    }
    if (pucTag[kVlanPrioModeOff] == kVlanPrioModeTwo) {
        pucPriority[0] = pucTag[kVlanPrio2Off];
    } else {
        pucPriority[0] = ucFound != 0 ? ucDerived : ucTagPrio;
    }
    pucPriority[1] = ucTagPrio;
    return 0;
}

MBUF_API int32_t MBUF_GetPruneVlanByVsi(MBUF_S *pstMbuf, uint16_t *pusVlan, uint32_t ulCapacity,
                                        uint32_t *pulCount) {
    if (pstMbuf == nullptr || pusVlan == nullptr || pulCount == nullptr) {
        return -1;
    }
    const std::uint8_t *pucPrune = LinkValue(pstMbuf, kLinkVsi, kPruneSecondOff + 2);
    if (pucPrune == nullptr) {
        pucPrune = LinkValue(pstMbuf, kLinkBridgeDomain, kPruneSecondOff + 2);
    }
    if (pucPrune == nullptr) {
        return -1;
    }
    const std::uint16_t usFirst = Load16At(pucPrune, kPruneFirstOff);
    const std::uint16_t usSecond = Load16At(pucPrune, kPruneSecondOff);
    if (usFirst == 0) {
        *pulCount = 0;
        return 0;
    }
    if (ulCapacity >= 1) {
        pusVlan[0] = usFirst;
    }
    if (usSecond != 0) {
        *pulCount = 2;
        if (ulCapacity > 1) {
            pusVlan[1] = usSecond;
        }
    } else {
        *pulCount = 1;
    }
    return 0;
}

}  // extern "C"
