// The bounded translators, by family. Each exported translator is a thin
// entry point that runs one of these trusted; the framework runs the same one
// bounded, found through the exported tables (tables.cpp pairs every table
// entry with its twin here).
#pragma once

#include <cstdint>

#include "byteorder/record.h"

namespace krm::byteorder {

// Runs a bounded translator on a trusted record: what the exported entry
// points do.
inline std::int32_t RunTrusted(CtlFn fn, void *pRecord, std::uint32_t type, const char *mod) {
    if (pRecord == nullptr) {
        return -1;
    }
    return fn(Rec{static_cast<std::uint8_t *>(pRecord), kTrusted, type, mod});
}
inline void RunTrusted(LinkFn fn, void *pTlv, std::uint32_t type, const char *mod) {
    if (pTlv != nullptr) {
        fn(Rec{static_cast<std::uint8_t *>(pTlv), kTrusted, type, mod});
    }
}

// Control-information records (by record type).
std::int32_t CtlCommInfo(const Rec &r);        // 0
std::int32_t CtlLinkInfo(const Rec &r);        // 1: sub-TLV walk
std::int32_t CtlIpInfo(const Rec &r);          // 2
std::int32_t CtlMplsInfo(const Rec &r);        // 3
std::int32_t CtlAppInfo(const Rec &r);         // 4, 5, 14
std::int32_t CtlFeRxInfo(const Rec &r);        // 6
std::int32_t CtlFeTxInfo(const Rec &r);        // 7
std::int32_t CtlIp6Info(const Rec &r);         // 8
std::int32_t CtlPrevHopInfo(const Rec &r);     // 9
std::int32_t CtlIpSecInfo(const Rec &r);       // 10
std::int32_t CtlTimeStampInfo(const Rec &r);   // 11
std::int32_t CtlVlanIdMacInfo(const Rec &r);   // 12
std::int32_t CtlTrillOamInfo(const Rec &r);    // 13
std::int32_t CtlVsiMacInfo(const Rec &r);      // 15
std::int32_t CtlL2VsiPortList(const Rec &r);   // 16
std::int32_t CtlL2VpnInfo(const Rec &r);       // 17
std::int32_t CtlPolicyIfInfo(const Rec &r);    // 18
std::int32_t CtlInterfaceInfo(const Rec &r);   // 19
std::int32_t CtlPktSendInfo(const Rec &r);     // 20: sub-TLV walk
std::int32_t CtlStackDebugInfo(const Rec &r);  // 21
std::int32_t CtlPacketInfo(const Rec &r);      // 22: sub-TLV walk

// Link sub-TLVs (by sub-TLV type); each converts its own head.
void LinkEth(const Rec &r);           // 0
void LinkAtm(const Rec &r);           // 1
void LinkQinQ(const Rec &r);          // 2
void LinkVlanIf(const Rec &r);        // 3
void LinkDot1q(const Rec &r);         // 4
void LinkHdlc(const Rec &r);          // 5
void LinkTrill(const Rec &r);         // 6
void LinkHeadOnly(const Rec &r);      // 7, 8, 20
void LinkVsi(const Rec &r);           // 9
void LinkVlanPriority(const Rec &r);  // 10
void LinkBd(const Rec &r);            // 11
void LinkCtrl(const Rec &r);          // 12
void LinkVlan(const Rec &r);          // 13
void LinkTunnel(const Rec &r);        // 14, 21
void LinkEvpnVlan(const Rec &r);      // 15
void LinkTpid(const Rec &r);          // 16
void LinkExtVlan(const Rec &r);       // 17
void LinkAN(const Rec &r);            // 18
void LinkPrune(const Rec &r);         // 19
void LinkIfInfo(const Rec &r);        // 22
void LinkTagCpInfo(const Rec &r);     // 23
void LinkPppInfo(const Rec &r);       // 24
void LinkEnCap(const Rec &r);         // 25 and above

// Packet-send sub-TLVs (by sub-TLV type); the walker has converted the head.
std::int32_t PsWordAt4(const Rec &r);           // 0, 10, 21, 22, 30, 0x1000, 0x2000
std::int32_t PsBdPortList(const Rec &r);        // 1
std::int32_t PsIfNextHop(const Rec &r);         // 2
std::int32_t PsNewBK(const Rec &r);             // 3
std::int32_t PsPortGrp(const Rec &r);           // 4, 14
std::int32_t PsVlanBcastPortGrp(const Rec &r);  // 5
std::int32_t PsCtrlRoute(const Rec &r);         // 7
std::int32_t PsSessKey(const Rec &r);           // 8
std::int32_t PsEthSessKey(const Rec &r);        // 8, key kind 7
std::int32_t PsFlowLabel(const Rec &r);         // 9
std::int32_t PsNotNeed(const Rec &r);           // 11, 12, 20, 0x2001, 0x8000
std::int32_t PsSpcifyTnl(const Rec &r);         // 13: nested walk
std::int32_t PsSockKey(const Rec &r);           // 15
std::int32_t PsSockForward(const Rec &r);       // 18
std::int32_t PsNoPath(const Rec &r);            // 19: nested walk
std::int32_t PsSlice(const Rec &r);             // 27
std::int32_t PsEvpnMac(const Rec &r);           // 28
std::int32_t PsPathMatchPri(const Rec &r);      // 29
std::int32_t PsIfPPPoE(const Rec &r);           // 31
std::int32_t PsApn6Id(const Rec &r);            // 32

// Nested TLVs of the tunnel (13) and no-path (19) sub-TLVs.
void TnlBase(const Rec &r);        // tunnel 0
void TnlVxLan(const Rec &r);       // tunnel 1
void TnlBd(const Rec &r);          // tunnel 2
void TnlIp(const Rec &r);          // tunnel 3, 4
void NoPathMcBcast(const Rec &r);  // no-path 1, 2

}  // namespace krm::byteorder
