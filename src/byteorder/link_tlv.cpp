// The link-stack record (type 1) and the packet-info record (type 22): walks
// of their sub-TLVs, and the translator of every link sub-TLV. A link
// translator converts its own head; in the packet-info record the walker
// converts the heads and the values are opaque.
#include "byteorder/record.h"
#include "byteorder/translators.h"
#include "internal/bytes.h"
#include "internal/report.h"

namespace krm::byteorder {
namespace {

constexpr Field kHead[] = {W16(0), W16(2)};
constexpr Field kEth[] = {W16(0), W16(2), W32(16), W16(22)};
constexpr Field kAtm[] = {W16(0), W16(2), W32(4), W32(8)};
constexpr Field kQinQ[] = {W16(0), W16(2), W16(4), W16(6), W32(8), W16(14), W16(16), W16(18)};
constexpr Field kVlanIf[] = {W16(0), W16(2), W32(4), W16(8), W16(10), W32(12), W16(22)};
constexpr Field kDot1q[] = {W16(0), W16(2), W16(4), W32(8), W16(12), W16(14)};
constexpr Field kWordAt4[] = {W16(0), W16(2), W32(4)};
constexpr Field kTrill[] = {W16(0), W16(2), W16(4), W16(6), W16(8), W16(10)};
constexpr Field kVsi[] = {W16(0),  W16(2),  W32(8),  W32(12), W32(16),
                          W16(20), W16(22), W32(24), W32(28), W32(36)};
constexpr Field kBd[] = {W16(0), W16(2), W32(4), W16(8), W16(14), W16(20), W16(22)};
constexpr Field kCtrl[] = {W16(0), W16(2), W16(4), W16(6), W32(8), W32(12)};
constexpr Field kVlan[] = {W16(0),  W16(2),  W32(4),  W32(16), W16(20), W16(22),
                           W16(24), W16(26), W16(28), W16(30), W16(32), W16(34)};
constexpr Field kTunnel[] = {W16(0), W16(2), W32(4), W32(12), W32(16), W32(20)};
constexpr Field kEvpnVlan[] = {W16(0), W16(2), W32(4), W32(8), W16(12)};
constexpr Field kHalfAt4[] = {W16(0), W16(2), W16(4)};
constexpr Field kAN[] = {W16(0), W16(2), W32(4), W16(8)};
constexpr Field kPruneHead[] = {W16(0), W16(2), W16(4), W16(6)};
constexpr Field kPruneKind1[] = {W32(8), W16(12), W16(14)};
constexpr Field kPruneKind2[] = {W16(8), W16(10), W32(12)};
constexpr Field kPruneKind34[] = {W32(8)};
constexpr Field kIfInfoRest[] = {W32(12), W32(16), W32(20), W32(24), W32(28), W32(32),
                                 W32(36), W32(40), W16(44), W16(46), W16(48), W16(50),
                                 W16(52), W16(54), W16(56), W16(58)};
constexpr Field kTagCpHead[] = {W16(0), W16(2), W32(4), W16(8)};
constexpr Field kPppInfo[] = {W16(0), W16(2), W16(6)};

}  // namespace

void LinkEth(const Rec &r) {
    ConvFields(r, kEth);
}
void LinkAtm(const Rec &r) {
    ConvFields(r, kAtm);
}
void LinkQinQ(const Rec &r) {
    ConvFields(r, kQinQ);
}
void LinkVlanIf(const Rec &r) {
    ConvFields(r, kVlanIf);
}
void LinkDot1q(const Rec &r) {
    ConvFields(r, kDot1q);
}
void LinkHdlc(const Rec &r) {
    ConvFields(r, kWordAt4);
}
void LinkTrill(const Rec &r) {
    ConvFields(r, kTrill);
}
void LinkHeadOnly(const Rec &r) {
    ConvFields(r, kHead);
}
void LinkVsi(const Rec &r) {
    ConvFields(r, kVsi);
}
void LinkVlanPriority(const Rec &r) {
    ConvFields(r, kWordAt4);
}
void LinkBd(const Rec &r) {
    ConvFields(r, kBd);
}
void LinkCtrl(const Rec &r) {
    ConvFields(r, kCtrl);
}
void LinkVlan(const Rec &r) {
    ConvFields(r, kVlan);
}
void LinkTunnel(const Rec &r) {
    ConvFields(r, kTunnel);
}
void LinkEvpnVlan(const Rec &r) {
    ConvFields(r, kEvpnVlan);
}
void LinkTpid(const Rec &r) {
    ConvFields(r, kHalfAt4);
}
void LinkAN(const Rec &r) {
    ConvFields(r, kAN);
}
void LinkPppInfo(const Rec &r) {
    ConvFields(r, kPppInfo);
}

// N VLAN ids from 8, N being the byte at 4.
void LinkExtVlan(const Rec &r) {
    std::uint8_t count = 0;
    if (!ConvFields(r, kHead) || !ReadByte(r, 4, count)) {
        return;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!Conv16(r, 8 + 2 * i)) {
            return;
        }
    }
}

// The prune kind at 4 (signed) picks the layout from 8 on.
void LinkPrune(const Rec &r) {
    if (!ConvFields(r, kPruneHead)) {
        return;
    }
    switch (static_cast<std::int16_t>(Host16(r, 4))) {
        case 1:
            ConvFields(r, kPruneKind1);
            break;
        case 2:
            ConvFields(r, kPruneKind2);
            break;
        case 3:
        case 4:
            ConvFields(r, kPruneKind34);
            break;
        default:
            break;
    }
}

// The word at 8 carries a 16-bit value in its low half as this host reads
// it: that half is reversed and the upper half cleared. Required as is.
void LinkIfInfo(const Rec &r) {
    if (!ConvFields(r, kHead)) {
        return;
    }
    if (!r.Fits(8, 4)) {
        ReportOverrun(r, 8, 4);
        return;
    }
    const std::uint32_t word = Host32(r, 8);
    Store32At(r.p, 8, Swap16(static_cast<std::uint16_t>(word & 0xFFFFu)));
    ConvFields(r, kIfInfoRest);
}

// A list of N tag items from 12, of the item type at 10; the list length
// must hold them (its bound is taken modulo 65536, as the sender computes it).
void LinkTagCpInfo(const Rec &r) {
    std::uint8_t itemType = 0;
    if (!ConvFields(r, kTagCpHead) || !ReadByte(r, 10, itemType)) {
        return;
    }
    const std::uint32_t len = Host16(r, 2);
    const std::uint32_t count = Host16(r, 8);
    const std::uint32_t need = ((itemType == 1 ? 2u : 4u) * count + 8u) & 0xFFFFu;
    if (len < need) {
        krm::Report(kModByteOrderTrans, 905, "invalid len, num = %u type = %u tlvlen = %u", count,
                    itemType, len);
        return;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        if (itemType == 1) {
            if (!Conv16(r, 12 + 2 * i)) {
                return;
            }
        } else if (itemType == 2) {
            if (!Conv16(r, 12 + 4 * i) || !Conv16(r, 14 + 4 * i)) {
                return;
            }
        } else {
            krm::Report(kModByteOrderTrans, 927, "invalid tagtype = %u", itemType);
            return;
        }
    }
}

// Encapsulation sub-TLVs (type 25 and above): only type 255 has a field.
void LinkEnCap(const Rec &r) {
    if (ConvFields(r, kHead) && Host16(r, 0) == 255u) {
        Conv16(r, 4);
    }
}

namespace {

// The head of a TLV record (type and list length, both converted). The list
// is walked as long as it says; the walk stops at the record's bound.
bool ListHead(const Rec &r, std::uint32_t &listLen) {
    if (!ConvFields(r, kHead)) {
        return false;
    }
    listLen = Host16(r, 2);
    return true;
}

}  // namespace

std::int32_t CtlLinkInfo(const Rec &r) {
    std::uint32_t listLen = 0;
    if (!ListHead(r, listLen)) {
        return kStopped;
    }
    if (listLen <= 3u) {
        return 0;
    }
    return WalkTlvs(r, 4, listLen, HeadBy::kTranslator, 330,
                    [&r](const TlvHead &head, std::uint32_t off) {
                        if (LinkFn fn = LinkTranslator(head.type)) {
                            fn(r.Part(off, head.type, kModByteOrderTrans));
                        }
                    });
}

std::int32_t CtlPacketInfo(const Rec &r) {
    std::uint32_t listLen = 0;
    if (!ListHead(r, listLen)) {
        return kStopped;
    }
    if (listLen <= 3u) {
        return 0;
    }
    return WalkTlvs(r, 4, listLen, HeadBy::kWalker, 372, [](const TlvHead &, std::uint32_t) {});
}

}  // namespace krm::byteorder

namespace bo = krm::byteorder;

#define KRM_LINK_TRANS(name, fn, type)                               \
    MBUF_API void name(void *pTlv) {                                 \
        bo::RunTrusted(bo::fn, pTlv, type, krm::kModByteOrderTrans); \
    }

extern "C" {

MBUF_API int32_t MBUF_MbufLinkInfoByteOrderTrans(void *pRecord) {
    return bo::RunTrusted(bo::CtlLinkInfo, pRecord, MBUF_CTL_LINK, krm::kModByteOrderTrans);
}
MBUF_API int32_t MBUF_MbufPacketInfoByteOrderTrans(void *pRecord) {
    return bo::RunTrusted(bo::CtlPacketInfo, pRecord, MBUF_CTL_PACKET, krm::kModByteOrderTrans);
}

KRM_LINK_TRANS(MBUF_LinkEthByteOrderTrans, LinkEth, 0)
KRM_LINK_TRANS(MBUF_LinkAtmByteOrderTrans, LinkAtm, 1)
KRM_LINK_TRANS(MBUF_LinkQinQByteOrderTrans, LinkQinQ, 2)
KRM_LINK_TRANS(MBUF_LinkVlanIfByteOrderTrans, LinkVlanIf, 3)
KRM_LINK_TRANS(MBUF_LinkDot1qByteOrderTrans, LinkDot1q, 4)
KRM_LINK_TRANS(MBUF_LinkHdlcByteOrderTrans, LinkHdlc, 5)
KRM_LINK_TRANS(MBUF_LinkTrillByteOrderTrans, LinkTrill, 6)
KRM_LINK_TRANS(MBUF_Link8023SNAPByteOrderTrans, LinkHeadOnly, 7)
KRM_LINK_TRANS(MBUF_LinkVsiByteOrderTrans, LinkVsi, 9)
KRM_LINK_TRANS(MBUF_LinkVlanPriorityByteOrderTrans, LinkVlanPriority, 10)
KRM_LINK_TRANS(MBUF_LinkBdByteOrderTrans, LinkBd, 11)
KRM_LINK_TRANS(MBUF_LinkCtrlByteOrderTrans, LinkCtrl, 12)
KRM_LINK_TRANS(MBUF_LinkVlanByteOrderTrans, LinkVlan, 13)
KRM_LINK_TRANS(MBUF_LinkTunnelByteOrderTrans, LinkTunnel, 14)
KRM_LINK_TRANS(MBUF_LinkEvpnVlanByteOrderTrans, LinkEvpnVlan, 15)
KRM_LINK_TRANS(MBUF_LinkTpidByteOrderTrans, LinkTpid, 16)
KRM_LINK_TRANS(MBUF_LinkExtVlanByteOrderTrans, LinkExtVlan, 17)
KRM_LINK_TRANS(MBUF_LinkANByteOrderTrans, LinkAN, 18)
KRM_LINK_TRANS(MBUF_LinkPRUNEByteOrderTrans, LinkPrune, 19)
KRM_LINK_TRANS(MBUF_LinkIfInfoByteOrderTrans, LinkIfInfo, 22)
KRM_LINK_TRANS(MBUF_LinkTagCpInfoByteOrderTrans, LinkTagCpInfo, 23)
KRM_LINK_TRANS(MBUF_LinkPppInfoByteOrderTrans, LinkPppInfo, 24)
KRM_LINK_TRANS(MBUF_LinkEnCapByteOrderTrans, LinkEnCap, 25)

// The 802.3 LLC and PPPoE sub-TLVs carry no field but their head, like SNAP;
// the IPv6 tunnel has the IPv4 tunnel's fields.
MBUF_API void MBUF_Link8023LlcByteOrderTrans(void *pTlv)
    __attribute__((alias("MBUF_Link8023SNAPByteOrderTrans")));
MBUF_API void MBUF_LinkPPPOEByteOrderTrans(void *pTlv)
    __attribute__((alias("MBUF_Link8023SNAPByteOrderTrans")));
MBUF_API void MBUF_LinkTunnelIpv6ByteOrderTrans(void *pTlv)
    __attribute__((alias("MBUF_LinkTunnelByteOrderTrans")));

}  // extern "C"
