// The five dispatch tables hold exactly the translators their types call
// for, written out here from the type lists; the lookup finds a type's first
// row; every entry point refuses NULL.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <type_traits>
#include <utility>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

template <class T, std::size_t N>
void ExpectEntries(const T (&actual)[N], const std::type_identity_t<T> (&want)[N]) {
    for (std::size_t i = 0; i < N; ++i) {
        EXPECT_EQ(actual[i], want[i]) << "entry " << i;
    }
}

class TablesTest : public HostTest {};

const MBUF_CTL_ORDER_TRANS_PF kRecordTable[] = {  // by record type
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

const MBUF_LINK_ORDER_TRANS_PF kLinkTable[] = {  // by link sub-TLV type
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

TEST_F(TablesTest, EveryTableHoldsItsTranslatorsInOrder) {
    ExpectEntries(g_apfMbufPacketOrderTransProc, kRecordTable);
    ExpectEntries(g_apfMbufLinkInfoOrderTransProc, kLinkTable);
    ExpectEntries(g_apfMbufPktSndSpcifyTnlInfoFunc,
                  {MBUF_MbufPktSendInfoSpecifyTnlBase, MBUF_MbufPktSendInfoSpecifyTnlVxLan,
                   MBUF_MbufPktSendInfoSpecifyTnlBd, MBUF_MbufPktSendInfoSpecifyTnlIp,
                   MBUF_MbufPktSendInfoSpecifyTnlIp});
    ExpectEntries(
        g_apfMbufSndWithNoPathOrderTransProc,
        {nullptr, MBUF_SNDPKT_L2mcBCastByteOrderTrans, MBUF_SNDPKT_L3mcBCastByteOrderTrans});
}

// Type 28 stands twice; the lookup stops at its first row.
const std::pair<std::uint16_t, MBUF_PKTSND_ORDER_TRANS_PF> kPktSndRows[] = {
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

TEST_F(TablesTest, PacketSendRowsAndTheirLookup) {
    static_assert(std::size(kPktSndRows) == std::size(g_astMbufPktSndInfoByteTransProc));
    auto lookup = [](std::uint16_t type) {
        std::uint8_t tlv[8] = {};
        std::memcpy(tlv, &type, 2);
        return MBUF_GetPktSendInfoBytesTransFunc(tlv);
    };
    for (std::size_t i = 0; i < std::size(kPktSndRows); ++i) {
        const MBUF_PKTSND_TRANS_PROC_S &row = g_astMbufPktSndInfoByteTransProc[i];
        EXPECT_EQ(std::pair(row.usType, row.pfTrans), kPktSndRows[i]) << "row " << i;
        EXPECT_EQ(lookup(row.usType),
                  row.usType == 28 ? MBUF_MbufPktSendInfoEvpnMacTrans : kPktSndRows[i].second)
            << "row " << i;
    }
    for (std::uint16_t type : {6, 16, 17, 23, 24, 25, 26, 33, 0x1001, 0xFFFF}) {
        EXPECT_EQ(lookup(type), nullptr) << type;
    }
}

// Three of them report it: the lookup, the nothing-to-convert translator
// and the tunnel walk.
TEST_F(TablesTest, EveryEntryPointRefusesNull) {
    for (MBUF_CTL_ORDER_TRANS_PF fn : g_apfMbufPacketOrderTransProc) {
        EXPECT_EQ(fn(nullptr), -1);
    }
    for (const MBUF_PKTSND_TRANS_PROC_S &row : g_astMbufPktSndInfoByteTransProc) {
        EXPECT_EQ(row.pfTrans(nullptr), -1) << row.usType;
    }
    EXPECT_EQ(MBUF_MbufEthSessKeyTrans(nullptr), -1);
    EXPECT_EQ(MBUF_GetPktSendInfoBytesTransFunc(nullptr), nullptr);
    EXPECT_EQ(MBUF_CheckTagByteOrderLen(nullptr, 0), -1);
    EXPECT_EQ(MBUF_CheckTagOffsetLen(nullptr, 0, 0), -1);
    for (MBUF_LINK_ORDER_TRANS_PF fn : g_apfMbufLinkInfoOrderTransProc) {
        fn(nullptr);
    }
    for (MBUF_PKTSND_NEST_TRANS_PF fn : g_apfMbufPktSndSpcifyTnlInfoFunc) {
        fn(nullptr);
    }
    g_apfMbufSndWithNoPathOrderTransProc[1](nullptr);
    g_apfMbufSndWithNoPathOrderTransProc[2](nullptr);
    MBUF_LinkEnCapByteOrderTrans(nullptr);
    MBUF_TagByteOrderTrans(nullptr, 100);
    MBUF_Get_BEX_ByteOrder(nullptr);
    MBUF_UpdateMbufListByteOrderType(nullptr);
    for (auto fn : {MBUF_SingleMbufControlBlkByteOrderTrans, MBUF_MbufHeaderByteOrderTrans,
                    MBUF_MbufMdatByteOrderTrans, MBUF_MbufMPktHdrByteOrderTrans,
                    MBUF_MbufMPktHdrTagByteOrderTrans}) {
        fn(nullptr);
    }
    MBUF_MbufMPktHdrTagByteOrderTrans(NewNode().get());  // a node without a block
    const Seen null140{140, "args is null"};
    EXPECT_EQ(ReportsOf(kPktSnd), (std::vector<Seen>{null140,
                                                     null140,
                                                     {420, "args is null"},
                                                     null140,
                                                     null140,
                                                     null140,
                                                     {110, "args is null"}}));
    EXPECT_EQ(Reports().size(), 7u);
}

}  // namespace
}  // namespace krm::test::bo
