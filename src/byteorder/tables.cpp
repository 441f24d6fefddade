// The five exported dispatch tables, and the framework's view of them.
//
// The exported tables are the one account of which translator serves which
// type. The framework dispatches through them too, but must run each
// translator bounded; so every exported translator is paired here with its
// bounded twin, which the framework finds from the table entry.
#include <cstddef>
#include <iterator>

#include "byteorder/record.h"
#include "byteorder/translators.h"
#include "krm_mbuf/mbuf.h"

extern "C" {

constexpr MBUF_CTL_ORDER_TRANS_PF g_apfMbufPacketOrderTransProc[MBUF_CTL_TYPE_NUM] = {
    MBUF_MbufCommInfoByteOrderTrans,
    MBUF_MbufLinkInfoByteOrderTrans,
    MBUF_MbufIpInfoByteOrderTrans,
    MBUF_MbufMplsInfoByteOrderTrans,
    MBUF_MbufAppInfoByteOrderTrans,
    MBUF_MbufIpOptionInfoByteOrderTrans,
    MBUF_MbufFeRxInfoByteOrderTrans,
    MBUF_MbufFeTxInfoByteOrderTrans,
    MBUF_MbufIP6InfoByteOrderTrans,
    MBUF_MbufPrevHopInfoByteOrderTrans,
    MBUF_MbufIpSecInfoByteOrderTrans,
    MBUF_MbufTimeStampInfoByteOrderTrans,
    MBUF_MbufVlanIdMacInfoByteOrderTrans,
    MBUF_MbufTrillOamInfoByteOrderTrans,
    MBUF_MbufL2PortListInfoByteOrderTrans,
    MBUF_MbufVsiMacInfoByteOrderTrans,
    MBUF_MbufL2VsiPortListInfoByteOrderTrans,
    MBUF_MbufL2VpnInfoByteOrderTrans,
    MBUF_MbufPolicyIfInfoByteOrderTrans,
    MBUF_MbufInterfaceInfoByteOrderTrans,
    MBUF_MbufPktSendInfoByteOrderTrans,
    MBUF_MbufStackDebugInfoByteOrderTrans,
    MBUF_MbufPacketInfoByteOrderTrans};

constexpr MBUF_LINK_ORDER_TRANS_PF g_apfMbufLinkInfoOrderTransProc[MBUF_LINK_TLV_TYPE_NUM] = {
    MBUF_LinkEthByteOrderTrans,          MBUF_LinkAtmByteOrderTrans,
    MBUF_LinkQinQByteOrderTrans,         MBUF_LinkVlanIfByteOrderTrans,
    MBUF_LinkDot1qByteOrderTrans,        MBUF_LinkHdlcByteOrderTrans,
    MBUF_LinkTrillByteOrderTrans,        MBUF_Link8023SNAPByteOrderTrans,
    MBUF_Link8023LlcByteOrderTrans,      MBUF_LinkVsiByteOrderTrans,
    MBUF_LinkVlanPriorityByteOrderTrans, MBUF_LinkBdByteOrderTrans,
    MBUF_LinkCtrlByteOrderTrans,         MBUF_LinkVlanByteOrderTrans,
    MBUF_LinkTunnelByteOrderTrans,       MBUF_LinkEvpnVlanByteOrderTrans,
    MBUF_LinkTpidByteOrderTrans,         MBUF_LinkExtVlanByteOrderTrans,
    MBUF_LinkANByteOrderTrans,           MBUF_LinkPRUNEByteOrderTrans,
    MBUF_LinkPPPOEByteOrderTrans,        MBUF_LinkTunnelIpv6ByteOrderTrans,
    MBUF_LinkIfInfoByteOrderTrans,       MBUF_LinkTagCpInfoByteOrderTrans,
    MBUF_LinkPppInfoByteOrderTrans};

// Type 28 stands twice: the search stops at the first row, so the second is
// never reached (it converts the same fields).
constexpr MBUF_PKTSND_TRANS_PROC_S g_astMbufPktSndInfoByteTransProc[MBUF_PKTSND_TRANS_ROW_NUM] = {
    {0, MBUF_MbufPktSendInfoBdBcastTrans},
    {1, MBUF_MbufPktSendInfoBdPortListTrans},
    {2, MBUF_MbufPktSendInfoIfNextHopTrans},
    {3, MBUF_MbufPktSendInfoNewBKTransNoTrans},
    {4, MBUF_MbufPktSendInfoBdcastPortGrpTrans},
    {5, MBUF_MbufPktSendInfoVlanBcastPortGrpTrans},
    {7, MBUF_MbufPktSendInfoCtrlRouteTrans},
    {8, MBUF_MbufPktSendInfoSessKeyTrans},
    {9, MBUF_MbufPktSendInfoFlowLabelTrans},
    {10, MBUF_MbufPktSendInfoFlowIdTrans},
    {11, MBUF_MbufPktSendInfoNotNeedTrans},
    {12, MBUF_MbufPktSendInfoNotNeedTrans},
    {13, MBUF_MbufPktSendInfoSpcifyTnl},
    {0x1000, MBUF_MbufPktSendInfoL2vpnPwInfoTrans},
    {0x2000, MBUF_MbufPktSendInfoInnerEthOffsetTrans},
    {0x2001, MBUF_MbufPktSendInfoNotNeedTrans},
    {0x8000, MBUF_MbufPktSendInfoNotNeedTrans},
    {14, MBUF_MbufPktSendInfoUserCidTrans},
    {15, MBUF_MbufPktSendInfoSockKeyTrans},
    {18, MBUF_MbufPktSendInfoSockForwardTrans},
    {19, MBUF_MbufPktSendInfoNoPathPktTrans},
    {20, MBUF_MbufPktSendInfoNotNeedTrans},
    {21, MBUF_MbufPktSendInfoEvpnCastTrans},
    {22, MBUF_MbufPktSendInfoEvpnTnlTrans},
    {28, MBUF_MbufPktSendInfoEvpnMacTrans},
    {27, MBUF_MbufPktSendInfoSliceTrans},
    {28, MBUF_MbufPktSendEvpnMacTrans},
    {29, MBUF_MbufPktSendPathMatchPriTrans},
    {30, MBUF_MbufPktSendUsrCtlInfoTrans},
    {31, MBUF_SNDPKT_IfPPPoEByteOrderTrans},
    {32, MBUF_SNDPKT_Apn6IdInfoByteOrderTrans}};

constexpr MBUF_PKTSND_NEST_TRANS_PF g_apfMbufPktSndSpcifyTnlInfoFunc[MBUF_PKTSND_TNL_TYPE_NUM] = {
    MBUF_MbufPktSendInfoSpecifyTnlBase, MBUF_MbufPktSendInfoSpecifyTnlVxLan,
    MBUF_MbufPktSendInfoSpecifyTnlBd, MBUF_MbufPktSendInfoSpecifyTnlIp,
    MBUF_MbufPktSendInfoSpecifyTnlIp};

constexpr MBUF_PKTSND_NEST_TRANS_PF
    g_apfMbufSndWithNoPathOrderTransProc[MBUF_PKTSND_NOPATH_TYPE_NUM] = {
        nullptr, MBUF_SNDPKT_L2mcBCastByteOrderTrans, MBUF_SNDPKT_L3mcBCastByteOrderTrans};

}  // extern "C"

namespace krm::byteorder {
namespace {

template <class Exported, class Bounded>
struct Twin {
    Exported exported;
    Bounded bounded;
};

// Every exported translator that a table names, with its bounded twin.
constexpr Twin<MBUF_CTL_ORDER_TRANS_PF, CtlFn> kCtlTwins[] = {
    {MBUF_MbufCommInfoByteOrderTrans, CtlCommInfo},
    {MBUF_MbufLinkInfoByteOrderTrans, CtlLinkInfo},
    {MBUF_MbufIpInfoByteOrderTrans, CtlIpInfo},
    {MBUF_MbufMplsInfoByteOrderTrans, CtlMplsInfo},
    {MBUF_MbufAppInfoByteOrderTrans, CtlAppInfo},
    {MBUF_MbufIpOptionInfoByteOrderTrans, CtlAppInfo},
    {MBUF_MbufFeRxInfoByteOrderTrans, CtlFeRxInfo},
    {MBUF_MbufFeTxInfoByteOrderTrans, CtlFeTxInfo},
    {MBUF_MbufIP6InfoByteOrderTrans, CtlIp6Info},
    {MBUF_MbufPrevHopInfoByteOrderTrans, CtlPrevHopInfo},
    {MBUF_MbufIpSecInfoByteOrderTrans, CtlIpSecInfo},
    {MBUF_MbufTimeStampInfoByteOrderTrans, CtlTimeStampInfo},
    {MBUF_MbufVlanIdMacInfoByteOrderTrans, CtlVlanIdMacInfo},
    {MBUF_MbufTrillOamInfoByteOrderTrans, CtlTrillOamInfo},
    {MBUF_MbufL2PortListInfoByteOrderTrans, CtlAppInfo},
    {MBUF_MbufVsiMacInfoByteOrderTrans, CtlVsiMacInfo},
    {MBUF_MbufL2VsiPortListInfoByteOrderTrans, CtlL2VsiPortList},
    {MBUF_MbufL2VpnInfoByteOrderTrans, CtlL2VpnInfo},
    {MBUF_MbufPolicyIfInfoByteOrderTrans, CtlPolicyIfInfo},
    {MBUF_MbufInterfaceInfoByteOrderTrans, CtlInterfaceInfo},
    {MBUF_MbufPktSendInfoByteOrderTrans, CtlPktSendInfo},
    {MBUF_MbufStackDebugInfoByteOrderTrans, CtlStackDebugInfo},
    {MBUF_MbufPacketInfoByteOrderTrans, CtlPacketInfo}};

constexpr Twin<MBUF_LINK_ORDER_TRANS_PF, LinkFn> kLinkTwins[] = {
    {MBUF_LinkEthByteOrderTrans, LinkEth},
    {MBUF_LinkAtmByteOrderTrans, LinkAtm},
    {MBUF_LinkQinQByteOrderTrans, LinkQinQ},
    {MBUF_LinkVlanIfByteOrderTrans, LinkVlanIf},
    {MBUF_LinkDot1qByteOrderTrans, LinkDot1q},
    {MBUF_LinkHdlcByteOrderTrans, LinkHdlc},
    {MBUF_LinkTrillByteOrderTrans, LinkTrill},
    {MBUF_Link8023SNAPByteOrderTrans, LinkHeadOnly},
    {MBUF_Link8023LlcByteOrderTrans, LinkHeadOnly},
    {MBUF_LinkVsiByteOrderTrans, LinkVsi},
    {MBUF_LinkVlanPriorityByteOrderTrans, LinkVlanPriority},
    {MBUF_LinkBdByteOrderTrans, LinkBd},
    {MBUF_LinkCtrlByteOrderTrans, LinkCtrl},
    {MBUF_LinkVlanByteOrderTrans, LinkVlan},
    {MBUF_LinkTunnelByteOrderTrans, LinkTunnel},
    {MBUF_LinkEvpnVlanByteOrderTrans, LinkEvpnVlan},
    {MBUF_LinkTpidByteOrderTrans, LinkTpid},
    {MBUF_LinkExtVlanByteOrderTrans, LinkExtVlan},
    {MBUF_LinkANByteOrderTrans, LinkAN},
    {MBUF_LinkPRUNEByteOrderTrans, LinkPrune},
    {MBUF_LinkPPPOEByteOrderTrans, LinkHeadOnly},
    {MBUF_LinkTunnelIpv6ByteOrderTrans, LinkTunnel},
    {MBUF_LinkIfInfoByteOrderTrans, LinkIfInfo},
    {MBUF_LinkTagCpInfoByteOrderTrans, LinkTagCpInfo},
    {MBUF_LinkPppInfoByteOrderTrans, LinkPppInfo}};

constexpr Twin<MBUF_PKTSND_ORDER_TRANS_PF, PktSndFn> kPktSndTwins[] = {
    {MBUF_MbufPktSendInfoBdBcastTrans, PsWordAt4},
    {MBUF_MbufPktSendInfoFlowIdTrans, PsWordAt4},
    {MBUF_MbufPktSendInfoEvpnCastTrans, PsWordAt4},
    {MBUF_MbufPktSendInfoEvpnTnlTrans, PsWordAt4},
    {MBUF_MbufPktSendUsrCtlInfoTrans, PsWordAt4},
    {MBUF_MbufPktSendInfoL2vpnPwInfoTrans, PsWordAt4},
    {MBUF_MbufPktSendInfoInnerEthOffsetTrans, PsWordAt4},
    {MBUF_MbufPktSendInfoBdPortListTrans, PsBdPortList},
    {MBUF_MbufPktSendInfoIfNextHopTrans, PsIfNextHop},
    {MBUF_MbufPktSendInfoNewBKTransNoTrans, PsNewBK},
    {MBUF_MbufPktSendInfoBdcastPortGrpTrans, PsPortGrp},
    {MBUF_MbufPktSendInfoUserCidTrans, PsPortGrp},
    {MBUF_MbufPktSendInfoVlanBcastPortGrpTrans, PsVlanBcastPortGrp},
    {MBUF_MbufPktSendInfoCtrlRouteTrans, PsCtrlRoute},
    {MBUF_MbufPktSendInfoSessKeyTrans, PsSessKey},
    {MBUF_MbufPktSendInfoFlowLabelTrans, PsFlowLabel},
    {MBUF_MbufPktSendInfoNotNeedTrans, PsNotNeed},
    {MBUF_MbufPktSendInfoSpcifyTnl, PsSpcifyTnl},
    {MBUF_MbufPktSendInfoSockKeyTrans, PsSockKey},
    {MBUF_MbufPktSendInfoSockForwardTrans, PsSockForward},
    {MBUF_MbufPktSendInfoNoPathPktTrans, PsNoPath},
    {MBUF_MbufPktSendInfoSliceTrans, PsSlice},
    {MBUF_MbufPktSendInfoEvpnMacTrans, PsEvpnMac},
    {MBUF_MbufPktSendEvpnMacTrans, PsEvpnMac},
    {MBUF_MbufPktSendPathMatchPriTrans, PsPathMatchPri},
    {MBUF_SNDPKT_IfPPPoEByteOrderTrans, PsIfPPPoE},
    {MBUF_SNDPKT_Apn6IdInfoByteOrderTrans, PsApn6Id}};

constexpr Twin<MBUF_PKTSND_NEST_TRANS_PF, NestFn> kNestTwins[] = {
    {MBUF_MbufPktSendInfoSpecifyTnlBase, TnlBase},
    {MBUF_MbufPktSendInfoSpecifyTnlVxLan, TnlVxLan},
    {MBUF_MbufPktSendInfoSpecifyTnlBd, TnlBd},
    {MBUF_MbufPktSendInfoSpecifyTnlIp, TnlIp},
    {MBUF_SNDPKT_L2mcBCastByteOrderTrans, NoPathMcBcast},
    {MBUF_SNDPKT_L3mcBCastByteOrderTrans, NoPathMcBcast}};

// The bounded twin of an exported translator; aliases share an address, so
// any name of a behaviour finds it.
template <class E, class B, std::size_t M>
B TwinOf(E exported, const Twin<E, B> (&twins)[M]) {
    if (exported == nullptr) {
        return nullptr;
    }
    for (const auto &twin : twins) {
        if (twin.exported == exported) {
            return twin.bounded;
        }
    }
    return nullptr;
}

// The bounded twin of an indexed table's entry; a type beyond the table
// yields the fallback.
template <class E, std::size_t N, class B, std::size_t M>
B TwinAt(const E (&table)[N], std::uint32_t type, const Twin<E, B> (&twins)[M],
         B fallback = nullptr) {
    return type < N ? TwinOf(table[type], twins) : fallback;
}

}  // namespace

CtlFn CtlTranslator(std::uint32_t type) {
    return TwinAt(g_apfMbufPacketOrderTransProc, type, kCtlTwins);
}

LinkFn LinkTranslator(std::uint32_t type) {
    return TwinAt(g_apfMbufLinkInfoOrderTransProc, type, kLinkTwins, LinkFn{LinkEnCap});
}

PktSndFn PktSndTranslator(std::uint16_t type) {
    for (const MBUF_PKTSND_TRANS_PROC_S &row : g_astMbufPktSndInfoByteTransProc) {
        if (row.usType == type) {
            return TwinOf(row.pfTrans, kPktSndTwins);
        }
    }
    return nullptr;
}

NestFn TnlTranslator(std::uint32_t type) {
    return TwinAt(g_apfMbufPktSndSpcifyTnlInfoFunc, type, kNestTwins);
}

NestFn NoPathTranslator(std::uint32_t type) {
    return TwinAt(g_apfMbufSndWithNoPathOrderTransProc, type, kNestTwins);
}

}  // namespace krm::byteorder
