// The packet-send record (type 20): the walk of its sub-TLVs, their lookup,
// every packet-send translator and the two nested walks (tunnel, no-path)
// with their translators. The walker converts each sub-TLV's head, so these
// translators find it converted and leave it alone. Reports name this file's
// module.
#include "byteorder/record.h"
#include "byteorder/translators.h"
#include "internal/bytes.h"
#include "internal/report.h"

namespace krm::byteorder {
namespace {

// An address-family byte of this value announces a 16-byte IPv6 address,
// which stays as it is; any other value an IPv4 address, a 32-bit word.
constexpr std::uint8_t kFamilyIpv6 = 28;

constexpr Field kWordAt4[] = {W32(4)};
constexpr Field kBdPortList[] = {W16(4), W16(6), W32(8)};
constexpr Field kNextHopWords[] = {W32(24), W32(28)};
constexpr Field kWordAt8[] = {W32(8)};
constexpr Field kHalfAt4[] = {W16(4)};
constexpr Field kPortGrp[] = {W32(4), W32(8), W32(12)};
constexpr Field kVlanBcastPortGrp[] = {W16(4), W16(6), W32(8), W32(12)};
constexpr Field kCtrlRouteWords[] = {W32(8), W32(60), W32(64)};
constexpr Field kCtrlRouteIpv4[] = {W32(12), W32(28), W32(44)};
constexpr Field kSessKeyIp[] = {W32(8),  W32(12), W32(16), W32(20), W32(24), W32(28),
                                W32(32), W32(36), W32(40), W32(44), W16(50)};
constexpr Field kSessKeyEth[] = {W32(8), W16(18), W16(20), W16(22)};
constexpr Field kFlowLabel[] = {W32(8),  W32(12), W32(16), W32(20), W32(28), W32(32),
                                W32(36), W32(44), W32(48), W32(52), W32(60), W32(64)};
constexpr Field kSockKey[] = {W32(4), W32(8)};
constexpr Field kSlice[] = {W16(6), W32(8)};
constexpr Field kEvpnMac[] = {W32(4), W16(18)};
constexpr Field kIfPPPoE[] = {W32(4), W16(8), W16(10)};
constexpr Field kTnlBase[] = {W32(4), W32(12), W32(16)};
constexpr Field kTnlVxLanIpv4[] = {W32(12), W32(28)};
constexpr Field kMcBcast[] = {W32(4), W16(8), W16(10), W32(12), W32(16), W32(20)};

std::int32_t Fields(const Rec &r, std::span<const Field> fields) {
    return ConvFields(r, fields) ? 0 : kStopped;
}

// Reads the address-family byte at off: true for IPv4.
bool IsIpv4(const Rec &r, std::uint32_t off, bool &ipv4) {
    std::uint8_t family = 0;
    if (!ReadByte(r, off, family)) {
        return false;
    }
    ipv4 = family != kFamilyIpv6;
    return true;
}

}  // namespace

std::int32_t PsWordAt4(const Rec &r) {
    return Fields(r, kWordAt4);
}
std::int32_t PsBdPortList(const Rec &r) {
    return Fields(r, kBdPortList);
}

std::int32_t PsIfNextHop(const Rec &r) {
    bool ipv4 = false;
    if (!IsIpv4(r, 4, ipv4) || !ConvFields(r, kNextHopWords)) {
        return kStopped;
    }
    return ipv4 ? Fields(r, kWordAt8) : 0;
}

std::int32_t PsNewBK(const Rec &r) {
    return Fields(r, kHalfAt4);
}
std::int32_t PsPortGrp(const Rec &r) {
    return Fields(r, kPortGrp);
}
std::int32_t PsVlanBcastPortGrp(const Rec &r) {
    return Fields(r, kVlanBcastPortGrp);
}

std::int32_t PsCtrlRoute(const Rec &r) {
    bool ipv4 = false;
    if (!IsIpv4(r, 4, ipv4) || !ConvFields(r, kCtrlRouteWords)) {
        return kStopped;
    }
    return ipv4 ? Fields(r, kCtrlRouteIpv4) : 0;
}

std::int32_t PsEthSessKey(const Rec &r) {
    return Fields(r, kSessKeyEth);
}

// The key kind at 4: the IP kinds (0, 2, 4, 6) share one layout, kind 7 is
// an Ethernet key, the others carry nothing to convert.
std::int32_t PsSessKey(const Rec &r) {
    std::uint8_t kind = 0;
    if (!ReadByte(r, 4, kind)) {
        return kStopped;
    }
    switch (kind) {
        case 0:
        case 2:
        case 4:
        case 6:
            return Fields(r, kSessKeyIp);
        case 7:
            return PsEthSessKey(r);
        default:
            return 0;
    }
}

std::int32_t PsFlowLabel(const Rec &r) {
    return Fields(r, kFlowLabel);
}
std::int32_t PsNotNeed(const Rec &) {
    return 0;
}
std::int32_t PsSockKey(const Rec &r) {
    return Fields(r, kSockKey);
}

// Forwarding kinds 0..3 carry a word at 8.
std::int32_t PsSockForward(const Rec &r) {
    std::uint8_t kind = 0;
    if (!ReadByte(r, 4, kind)) {
        return kStopped;
    }
    return kind <= 3 ? Fields(r, kWordAt8) : 0;
}

std::int32_t PsSlice(const Rec &r) {
    return Fields(r, kSlice);
}
std::int32_t PsEvpnMac(const Rec &r) {
    return Fields(r, kEvpnMac);
}
std::int32_t PsPathMatchPri(const Rec &r) {
    return Fields(r, kWordAt8);
}
std::int32_t PsIfPPPoE(const Rec &r) {
    return Fields(r, kIfPPPoE);
}
std::int32_t PsApn6Id(const Rec &) {
    return 0;
}

void TnlBase(const Rec &r) {
    ConvFields(r, kTnlBase);
}
void TnlVxLan(const Rec &r) {
    bool ipv4 = false;
    if (ConvFields(r, kWordAt4) && IsIpv4(r, 8, ipv4) && ipv4) {
        ConvFields(r, kTnlVxLanIpv4);
    }
}
void TnlBd(const Rec &r) {
    ConvFields(r, kWordAt4);
}
void TnlIp(const Rec &r) {
    bool ipv4 = false;
    if (IsIpv4(r, 4, ipv4) && ipv4) {
        ConvFields(r, kWordAt8);
    }
}
void NoPathMcBcast(const Rec &r) {
    ConvFields(r, kMcBcast);
}

// Nested tunnel TLVs fill the value of a type-13 sub-TLV.
std::int32_t PsSpcifyTnl(const Rec &r) {
    if (!r.Fits(0, 4)) {
        ReportOverrun(r, 0, 4);
        return kStopped;
    }
    const std::uint32_t len = Host16(r, 2);
    if (len < 4u) {
        krm::Report(kModByteOrderPktSnd, 425, "Len %u", len);
        return -1;
    }
    return WalkTlvs(r, 4, len, HeadBy::kWalker, 460, [&r](const TlvHead &head, std::uint32_t off) {
        if (head.type >= MBUF_PKTSND_TNL_TYPE_NUM) {
            krm::Report(kModByteOrderPktSnd, 441, "Err TlvType:%u, TlvLen:%u", head.type, head.len);
            return;
        }
        NestFn fn = TnlTranslator(head.type);
        if (fn == nullptr) {
            krm::Report(kModByteOrderPktSnd, 447, "Err TlvType:%u", head.type);
            return;
        }
        fn(r.Part(off, head.type, kModByteOrderPktSnd));
    });
}

// A word at 4, then nested no-path TLVs; only types 1 and 2 carry fields.
std::int32_t PsNoPath(const Rec &r) {
    if (!Conv32(r, 4)) {
        return kStopped;
    }
    const std::int32_t left = static_cast<std::int32_t>(Host16(r, 2)) - 4;
    if (left <= 3) {
        return 0;
    }
    return WalkTlvs(r, 8, static_cast<std::uint32_t>(left), HeadBy::kWalker, 512,
                    [&r](const TlvHead &head, std::uint32_t off) {
                        if (head.type != 1u && head.type != 2u) {
                            return;
                        }
                        if (NestFn fn = NoPathTranslator(head.type)) {
                            fn(r.Part(off, head.type, kModByteOrderPktSnd));
                        }
                    });
}

// The packet-send record: its type is left as it is, its list length and
// every sub-TLV head are converted here, the values by their translators.
// A translator's failure is reported and becomes the walk's result.
std::int32_t CtlPktSendInfo(const Rec &record) {
    const Rec r{record.p, record.len, record.type, kModByteOrderPktSnd};
    if (!Conv16(r, 2)) {
        return kStopped;
    }
    const std::uint32_t listLen = Host16(r, 2);
    if (listLen < 4u) {
        krm::Report(kModByteOrderPktSnd, 62, "Type %u", listLen);
        return -1;
    }
    std::int32_t result = 0;
    const std::int32_t walk = WalkTlvs(
        r, 4, listLen, HeadBy::kWalker, 95, [&r, &result](const TlvHead &head, std::uint32_t off) {
            PktSndFn fn = PktSndTranslator(head.type);
            if (fn == nullptr) {
                return;
            }
            const std::int32_t ret = fn(r.Part(off, head.type, kModByteOrderPktSnd));
            if (ret != 0) {
                krm::Report(kModByteOrderPktSnd, 81, "T %u L %u R %u", head.type, head.len,
                            static_cast<std::uint32_t>(ret));
                result = ret;
            }
        });
    return walk != 0 ? walk : result;
}

}  // namespace krm::byteorder

namespace bo = krm::byteorder;

#define KRM_PKTSND_TRANS(name, fn, type)                                     \
    MBUF_API int32_t name(void *pTlv) {                                      \
        return bo::RunTrusted(bo::fn, pTlv, type, krm::kModByteOrderPktSnd); \
    }
#define KRM_NEST_TRANS(name, fn, type)                                \
    MBUF_API void name(void *pTlv) {                                  \
        bo::RunTrusted(bo::fn, pTlv, type, krm::kModByteOrderPktSnd); \
    }

extern "C" {

MBUF_API int32_t MBUF_MbufPktSendInfoByteOrderTrans(void *pRecord) {
    return bo::RunTrusted(bo::CtlPktSendInfo, pRecord, MBUF_CTL_PKTSEND, krm::kModByteOrderPktSnd);
}

MBUF_API MBUF_PKTSND_ORDER_TRANS_PF MBUF_GetPktSendInfoBytesTransFunc(void *pTlv) {
    if (pTlv == nullptr) {
        krm::Report(krm::kModByteOrderPktSnd, 110, "args is null");
        return nullptr;
    }
    const std::uint16_t type = krm::Load16(pTlv);
    for (const MBUF_PKTSND_TRANS_PROC_S &row : g_astMbufPktSndInfoByteTransProc) {
        if (row.usType == type) {
            return row.pfTrans;
        }
    }
    return nullptr;
}

MBUF_API int32_t MBUF_MbufPktSendInfoNotNeedTrans(void *pTlv) {
    if (pTlv == nullptr) {
        krm::Report(krm::kModByteOrderPktSnd, 140, "args is null");
        return -1;
    }
    return 0;
}

MBUF_API int32_t MBUF_MbufPktSendInfoSpcifyTnl(void *pTlv) {
    if (pTlv == nullptr) {
        krm::Report(krm::kModByteOrderPktSnd, 420, "args is null");
        return -1;
    }
    return bo::RunTrusted(bo::PsSpcifyTnl, pTlv, 13, krm::kModByteOrderPktSnd);
}

KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoBdBcastTrans, PsWordAt4, 0)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoBdPortListTrans, PsBdPortList, 1)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoIfNextHopTrans, PsIfNextHop, 2)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoNewBKTransNoTrans, PsNewBK, 3)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoBdcastPortGrpTrans, PsPortGrp, 4)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoVlanBcastPortGrpTrans, PsVlanBcastPortGrp, 5)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoCtrlRouteTrans, PsCtrlRoute, 7)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoSessKeyTrans, PsSessKey, 8)
KRM_PKTSND_TRANS(MBUF_MbufEthSessKeyTrans, PsEthSessKey, 8)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoFlowLabelTrans, PsFlowLabel, 9)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoSockKeyTrans, PsSockKey, 15)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoSockForwardTrans, PsSockForward, 18)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoNoPathPktTrans, PsNoPath, 19)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoSliceTrans, PsSlice, 27)
KRM_PKTSND_TRANS(MBUF_MbufPktSendInfoEvpnMacTrans, PsEvpnMac, 28)
KRM_PKTSND_TRANS(MBUF_MbufPktSendPathMatchPriTrans, PsPathMatchPri, 29)
KRM_PKTSND_TRANS(MBUF_SNDPKT_IfPPPoEByteOrderTrans, PsIfPPPoE, 31)
KRM_PKTSND_TRANS(MBUF_SNDPKT_Apn6IdInfoByteOrderTrans, PsApn6Id, 32)

KRM_NEST_TRANS(MBUF_MbufPktSendInfoSpecifyTnlBase, TnlBase, 0)
KRM_NEST_TRANS(MBUF_MbufPktSendInfoSpecifyTnlVxLan, TnlVxLan, 1)
KRM_NEST_TRANS(MBUF_MbufPktSendInfoSpecifyTnlBd, TnlBd, 2)
KRM_NEST_TRANS(MBUF_MbufPktSendInfoSpecifyTnlIp, TnlIp, 3)
KRM_NEST_TRANS(MBUF_SNDPKT_L2mcBCastByteOrderTrans, NoPathMcBcast, 1)

// One behaviour under several names: a word at 4 ...
MBUF_API int32_t MBUF_MbufPktSendInfoFlowIdTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoBdBcastTrans")));
MBUF_API int32_t MBUF_MbufPktSendInfoEvpnCastTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoBdBcastTrans")));
MBUF_API int32_t MBUF_MbufPktSendInfoEvpnTnlTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoBdBcastTrans")));
MBUF_API int32_t MBUF_MbufPktSendUsrCtlInfoTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoBdBcastTrans")));
MBUF_API int32_t MBUF_MbufPktSendInfoL2vpnPwInfoTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoBdBcastTrans")));
MBUF_API int32_t MBUF_MbufPktSendInfoInnerEthOffsetTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoBdBcastTrans")));
// ... three words from 4 ...
MBUF_API int32_t MBUF_MbufPktSendInfoUserCidTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoBdcastPortGrpTrans")));
// ... the EVPN MAC fields, never reached through the table under this name ...
MBUF_API int32_t MBUF_MbufPktSendEvpnMacTrans(void *pTlv)
    __attribute__((alias("MBUF_MbufPktSendInfoEvpnMacTrans")));
// ... and the layer-3 multicast broadcast, laid out as the layer-2 one.
MBUF_API void MBUF_SNDPKT_L3mcBCastByteOrderTrans(void *pTlv)
    __attribute__((alias("MBUF_SNDPKT_L2mcBCastByteOrderTrans")));

}  // extern "C"
