// Translators of the fixed control-information records (types 0 and 2..21;
// the TLV records 1, 20 and 22 are walks of their own). A record of fixed
// fields is a table of (offset, width); only the selector-driven ones are
// code.
#include "byteorder/record.h"
#include "byteorder/translators.h"
#include "internal/report.h"

namespace krm::byteorder {
namespace {

constexpr Field kCommInfo[] = {W32(0),  W32(4),  W32(8),  W32(12), W32(16), W32(20),
                               W32(24), W32(28), W32(32), W32(36), W16(40), W16(42),
                               W32(44), W32(48), W32(52), W32(56), W32(60), W16(64),
                               W32(68), W32(72), W32(76), W32(80)};
// The label stacks interleave: word i of each of the four runs, i = 0..4.
constexpr Field kMplsInfo[] = {W32(0),  W32(24), W32(44), W32(64), W32(4),  W32(28), W32(48),
                               W32(68), W32(8),  W32(32), W32(52), W32(72), W32(12), W32(36),
                               W32(56), W32(76), W32(16), W32(40), W32(60), W32(80), W32(20),
                               W32(84), W32(88), W16(94), W32(96), W32(104)};
constexpr Field kIpInfo[] = {W16(14), W32(16)};
constexpr Field kAppInfo[] = {W16(0), W16(2)};
constexpr Field kFeRxHead[] = {W16(0),  W16(2),  W16(4),  W16(6),  W16(8),
                               W16(10), W32(12), W16(28), W16(30), W32(32)};
constexpr Field kFeRxSplit[] = {W16(16), W16(18), W16(24), W16(26), W32(20)};
constexpr Field kFeRxWhole[] = {W32(16), W32(20), W32(24)};
constexpr Field kIp6Info[] = {W16(38), W32(40), W32(44), W32(48)};
constexpr Field kPrevHopInfo[] = {W32(0)};
constexpr Field kIpSecInfo[] = {W32(0), W32(4)};
constexpr Field kTimeStampInfo[] = {W32(0),  W32(4),  W32(8),  W32(12), W32(16),
                                    W32(20), W32(24), W32(28), W32(32), W32(36)};
constexpr Field kVlanIdMacInfo[] = {W16(0), W32(8)};
constexpr Field kTrillOamInfo[] = {W32(0), W16(4), W16(6)};
constexpr Field kVsiMacInfo[] = {W32(0), W16(10), W32(12)};
constexpr Field kL2VsiPortList[] = {W16(0), W16(2), W32(4)};
constexpr Field kL2VpnInfo[] = {W16(2), W32(4), W32(8), W32(16)};
constexpr Field kPolicyIfHead[] = {W32(0), W16(6), W16(8), W16(10)};
constexpr Field kInterfaceHead[] = {W32(0), W32(4)};
constexpr Field kInterfacePair[] = {W32(0), W32(4)};
constexpr Field kStackDebugHead[] = {W16(0),  W16(2),  W16(6),  W16(10), W32(12),
                                     W32(16), W32(20), W16(24), W16(26)};
constexpr Field kStackDebugEntry[] = {W32(0),  W32(4),  W16(8),  W32(16),
                                      W16(20), W32(28), W32(32), W32(36)};

// Forwarding-engine transmit record: a kind, then a selector byte whose
// position depends on the kind, and for kind 4 and above a third level.
constexpr Field kFeTxHead[] = {W16(0), W16(2), W16(4), W16(6), W32(8)};
constexpr Field kFeTxShort[] = {W32(12), W32(16)};
constexpr Field kFeTxLong[] = {W32(12), W32(16), W32(20)};
constexpr Field kSelWord24[] = {W32(24)};
constexpr Field kSelHalves24[] = {W16(24), W16(26)};
constexpr Field kSelWordHalves24[] = {W32(24), W16(28), W16(30)};
constexpr Field kSelThreeHalves24[] = {W16(24), W16(26), W16(28)};
constexpr Field kSelWord28[] = {W32(28)};
constexpr Field kSelHalves28[] = {W16(28), W16(30)};
constexpr Field kSelHalf28[] = {W16(28)};
constexpr Field kSelWord32[] = {W32(32)};
constexpr Field kSelHalves32[] = {W16(32), W16(34)};

std::int32_t Fields(const Rec &r, std::span<const Field> fields) {
    return ConvFields(r, fields) ? 0 : kStopped;
}

// The word at 80, once converted, is rearranged unless it reads 2 or has a
// top byte of 0xFF. Peers rely on exactly this arrangement: keep it bit for
// bit.
void CommWord80(const Rec &r) {
    const std::uint32_t w = Host32(r, 80);
    if (w == 2u || (w >> 24) == 0xFFu) {
        return;
    }
    r.p[80] = static_cast<std::uint8_t>(w & 0xFFu);
    r.p[81] = static_cast<std::uint8_t>((w >> 8) & 0xFFu);
    r.p[82] = static_cast<std::uint8_t>((w >> 20) & 0xFFu);
    r.p[83] = static_cast<std::uint8_t>(((w >> 12) & 0xF0u) | (w >> 28));
}

// The layouts from 24 on that the selector at 20 picks, by selector value.
constexpr std::span<const Field> kSel24Layouts[] = {
    {}, kSelWord24, kSelHalves24, kSelWordHalves24, kSelThreeHalves24};

// Kinds 0..3: the selector at 20 picks the layout from 24 on; kind 0 knows
// only the first ucLastSel of them.
std::int32_t FeTxLowKinds(const Rec &r, std::uint8_t ucLastSel) {
    std::uint8_t sel = 0;
    if (!ConvFields(r, kFeTxShort) || !ReadByte(r, 20, sel)) {
        return kStopped;
    }
    return (sel >= 1 && sel <= ucLastSel) ? Fields(r, kSel24Layouts[sel]) : 0;
}

// Kind 4 and above: the selector at 24, and at 30 a second one.
std::int32_t FeTxHighKinds(const Rec &r) {
    std::uint8_t sel = 0;
    if (!ConvFields(r, kFeTxLong) || !ReadByte(r, 24, sel)) {
        return kStopped;
    }
    switch (sel) {
        case 1:
            return Fields(r, kSelWord28);
        case 2:
            return Fields(r, kSelHalves28);
        case 3:
            break;
        default:
            return 0;
    }
    if (!ConvFields(r, kSelHalf28) || !ReadByte(r, 30, sel)) {
        return kStopped;
    }
    switch (sel) {
        case 1:
            return Fields(r, kSelWord32);
        case 2:
            return Fields(r, kSelHalves32);
        default:
            return 0;
    }
}

}  // namespace

std::int32_t CtlCommInfo(const Rec &r) {
    if (!ConvFields(r, kCommInfo)) {
        return kStopped;
    }
    CommWord80(r);
    return 0;
}

std::int32_t CtlIpInfo(const Rec &r) {
    return Fields(r, kIpInfo);
}
std::int32_t CtlMplsInfo(const Rec &r) {
    return Fields(r, kMplsInfo);
}
std::int32_t CtlAppInfo(const Rec &r) {
    return Fields(r, kAppInfo);
}

std::int32_t CtlFeRxInfo(const Rec &r) {
    if (!ConvFields(r, kFeRxHead)) {
        return kStopped;
    }
    return (Host16(r, 28) & 0x2000u) != 0 ? Fields(r, kFeRxSplit) : Fields(r, kFeRxWhole);
}

std::int32_t CtlFeTxInfo(const Rec &r) {
    if (!ConvFields(r, kFeTxHead)) {
        return kStopped;
    }
    const std::uint16_t kind = Host16(r, 0);
    if (kind == 0) {
        return FeTxLowKinds(r, 2);
    }
    return kind <= 3 ? FeTxLowKinds(r, 4) : FeTxHighKinds(r);
}

std::int32_t CtlIp6Info(const Rec &r) {
    return Fields(r, kIp6Info);
}
std::int32_t CtlPrevHopInfo(const Rec &r) {
    return Fields(r, kPrevHopInfo);
}
std::int32_t CtlIpSecInfo(const Rec &r) {
    return Fields(r, kIpSecInfo);
}
std::int32_t CtlTimeStampInfo(const Rec &r) {
    return Fields(r, kTimeStampInfo);
}
std::int32_t CtlVlanIdMacInfo(const Rec &r) {
    return Fields(r, kVlanIdMacInfo);
}
std::int32_t CtlTrillOamInfo(const Rec &r) {
    return Fields(r, kTrillOamInfo);
}
std::int32_t CtlVsiMacInfo(const Rec &r) {
    return Fields(r, kVsiMacInfo);
}
std::int32_t CtlL2VsiPortList(const Rec &r) {
    return Fields(r, kL2VsiPortList);
}
std::int32_t CtlL2VpnInfo(const Rec &r) {
    return Fields(r, kL2VpnInfo);
}

// N words from 12, N being the byte at 4.
std::int32_t CtlPolicyIfInfo(const Rec &r) {
    std::uint8_t count = 0;
    if (!ConvFields(r, kPolicyIfHead) || !ReadByte(r, 4, count)) {
        return kStopped;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!Conv32(r, 12 + 4 * i)) {
            return kStopped;
        }
    }
    return 0;
}

// N pairs of words from 8, N being the converted word at 4.
std::int32_t CtlInterfaceInfo(const Rec &r) {
    if (!ConvFields(r, kInterfaceHead)) {
        return kStopped;
    }
    const std::uint32_t count = Host32(r, 4);
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!ConvFields(r, kInterfacePair, 8 + 8 * i)) {
            return kStopped;
        }
    }
    return 0;
}

// A 28-byte head, then N entries (the byte at 4) at the converted stride at 6.
std::int32_t CtlStackDebugInfo(const Rec &r) {
    std::uint8_t count = 0;
    if (!ConvFields(r, kStackDebugHead) || !ReadByte(r, 4, count)) {
        return kStopped;
    }
    const std::uint16_t stride = Host16(r, 6);
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!ConvFields(r, kStackDebugEntry, 28 + std::uint64_t{stride} * i)) {
            return kStopped;
        }
    }
    return 0;
}

}  // namespace krm::byteorder

namespace bo = krm::byteorder;

#define KRM_CTL_TRANS(name, fn, type)                                          \
    MBUF_API int32_t name(void *pRecord) {                                     \
        return bo::RunTrusted(bo::fn, pRecord, type, krm::kModByteOrderTrans); \
    }

extern "C" {

KRM_CTL_TRANS(MBUF_MbufCommInfoByteOrderTrans, CtlCommInfo, MBUF_CTL_COMM)
KRM_CTL_TRANS(MBUF_MbufIpInfoByteOrderTrans, CtlIpInfo, MBUF_CTL_IP)
KRM_CTL_TRANS(MBUF_MbufMplsInfoByteOrderTrans, CtlMplsInfo, MBUF_CTL_MPLS)
KRM_CTL_TRANS(MBUF_MbufAppInfoByteOrderTrans, CtlAppInfo, MBUF_CTL_APP)
KRM_CTL_TRANS(MBUF_MbufFeRxInfoByteOrderTrans, CtlFeRxInfo, MBUF_CTL_FERX)
KRM_CTL_TRANS(MBUF_MbufFeTxInfoByteOrderTrans, CtlFeTxInfo, MBUF_CTL_FETX)
KRM_CTL_TRANS(MBUF_MbufIP6InfoByteOrderTrans, CtlIp6Info, MBUF_CTL_IP6)
KRM_CTL_TRANS(MBUF_MbufPrevHopInfoByteOrderTrans, CtlPrevHopInfo, MBUF_CTL_PREVHOP)
KRM_CTL_TRANS(MBUF_MbufIpSecInfoByteOrderTrans, CtlIpSecInfo, MBUF_CTL_IPSEC)
KRM_CTL_TRANS(MBUF_MbufTimeStampInfoByteOrderTrans, CtlTimeStampInfo, MBUF_CTL_TIMESTAMP)
KRM_CTL_TRANS(MBUF_MbufVlanIdMacInfoByteOrderTrans, CtlVlanIdMacInfo, MBUF_CTL_VLANIDMAC)
KRM_CTL_TRANS(MBUF_MbufTrillOamInfoByteOrderTrans, CtlTrillOamInfo, MBUF_CTL_TRILLOAM)
KRM_CTL_TRANS(MBUF_MbufVsiMacInfoByteOrderTrans, CtlVsiMacInfo, MBUF_CTL_VSIMAC)
KRM_CTL_TRANS(MBUF_MbufL2VsiPortListInfoByteOrderTrans, CtlL2VsiPortList, MBUF_CTL_L2VSIPORTLIST)
KRM_CTL_TRANS(MBUF_MbufL2VpnInfoByteOrderTrans, CtlL2VpnInfo, MBUF_CTL_L2VPN)
KRM_CTL_TRANS(MBUF_MbufPolicyIfInfoByteOrderTrans, CtlPolicyIfInfo, MBUF_CTL_POLICYIF)
KRM_CTL_TRANS(MBUF_MbufInterfaceInfoByteOrderTrans, CtlInterfaceInfo, MBUF_CTL_INTERFACE)
KRM_CTL_TRANS(MBUF_MbufStackDebugInfoByteOrderTrans, CtlStackDebugInfo, MBUF_CTL_STACKDEBUG)

// Records 5 and 14 convert exactly what record 4 converts.
MBUF_API int32_t MBUF_MbufIpOptionInfoByteOrderTrans(void *pRecord)
    __attribute__((alias("MBUF_MbufAppInfoByteOrderTrans")));
MBUF_API int32_t MBUF_MbufL2PortListInfoByteOrderTrans(void *pRecord)
    __attribute__((alias("MBUF_MbufAppInfoByteOrderTrans")));

}  // extern "C"
