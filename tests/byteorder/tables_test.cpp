// The five dispatch tables hold exactly the translators their types call
// for, written out here from the type lists.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>

#include "byteorder/record.h"
#include "host_test.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test {
namespace {

class TablesTest : public HostTest {};

TEST_F(TablesTest, RecordTableIndexedByRecordType) {
    const MBUF_CTL_ORDER_TRANS_PF want[] = {MBUF_MbufCommInfoByteOrderTrans,
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
    static_assert(std::size(want) == std::size(g_apfMbufPacketOrderTransProc));
    for (std::size_t i = 0; i < std::size(want); ++i) {
        EXPECT_EQ(g_apfMbufPacketOrderTransProc[i], want[i]) << i;
    }
}

TEST_F(TablesTest, LinkTableIndexedBySubTlvType) {
    const MBUF_LINK_ORDER_TRANS_PF want[] = {
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
    static_assert(std::size(want) == std::size(g_apfMbufLinkInfoOrderTransProc));
    for (std::size_t i = 0; i < std::size(want); ++i) {
        EXPECT_EQ(g_apfMbufLinkInfoOrderTransProc[i], want[i]) << i;
    }
}

TEST_F(TablesTest, PacketSendRowsInOrderWithTypeTwentyEightTwice) {
    const MBUF_PKTSND_TRANS_PROC_S want[] = {{0, MBUF_MbufPktSendInfoBdBcastTrans},
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
    static_assert(std::size(want) == std::size(g_astMbufPktSndInfoByteTransProc));
    for (std::size_t i = 0; i < std::size(want); ++i) {
        EXPECT_EQ(g_astMbufPktSndInfoByteTransProc[i].usType, want[i].usType) << i;
        EXPECT_EQ(g_astMbufPktSndInfoByteTransProc[i].pfTrans, want[i].pfTrans) << i;
    }
}

TEST_F(TablesTest, NestedTables) {
    const MBUF_PKTSND_NEST_TRANS_PF tunnel[] = {
        MBUF_MbufPktSendInfoSpecifyTnlBase, MBUF_MbufPktSendInfoSpecifyTnlVxLan,
        MBUF_MbufPktSendInfoSpecifyTnlBd, MBUF_MbufPktSendInfoSpecifyTnlIp,
        MBUF_MbufPktSendInfoSpecifyTnlIp};
    static_assert(std::size(tunnel) == std::size(g_apfMbufPktSndSpcifyTnlInfoFunc));
    for (std::size_t i = 0; i < std::size(tunnel); ++i) {
        EXPECT_EQ(g_apfMbufPktSndSpcifyTnlInfoFunc[i], tunnel[i]) << i;
    }
    const MBUF_PKTSND_NEST_TRANS_PF noPath[] = {nullptr, MBUF_SNDPKT_L2mcBCastByteOrderTrans,
                                                MBUF_SNDPKT_L3mcBCastByteOrderTrans};
    static_assert(std::size(noPath) == std::size(g_apfMbufSndWithNoPathOrderTransProc));
    for (std::size_t i = 0; i < std::size(noPath); ++i) {
        EXPECT_EQ(g_apfMbufSndWithNoPathOrderTransProc[i], noPath[i]) << i;
    }
}

TEST_F(TablesTest, LookupFindsTheFirstRowOfAType) {
    for (const MBUF_PKTSND_TRANS_PROC_S &row : g_astMbufPktSndInfoByteTransProc) {
        std::uint8_t tlv[8] = {};
        std::memcpy(tlv, &row.usType, 2);
        const MBUF_PKTSND_ORDER_TRANS_PF found = MBUF_GetPktSendInfoBytesTransFunc(tlv);
        EXPECT_EQ(found, row.usType == 28 ? MBUF_MbufPktSendInfoEvpnMacTrans : row.pfTrans)
            << row.usType;
    }
    for (std::uint16_t type : {6, 16, 17, 23, 24, 25, 26, 33, 0x1001, 0xFFFF}) {
        std::uint8_t tlv[8] = {};
        std::memcpy(tlv, &type, 2);
        EXPECT_EQ(MBUF_GetPktSendInfoBytesTransFunc(tlv), nullptr) << type;
    }
}

// The framework runs each table entry through its bounded twin: every
// entry must have one, and an empty entry none.
TEST_F(TablesTest, EveryEntryHasItsBoundedTwin) {
    namespace bo = krm::byteorder;
    for (std::uint32_t i = 0; i < MBUF_CTL_TYPE_NUM; ++i) {
        EXPECT_NE(bo::CtlTranslator(i), nullptr) << i;
    }
    EXPECT_EQ(bo::CtlTranslator(MBUF_CTL_TYPE_NUM), nullptr);
    for (std::uint32_t i = 0; i < 0x120; ++i) {
        EXPECT_NE(bo::LinkTranslator(i), nullptr) << i;
    }
    for (const MBUF_PKTSND_TRANS_PROC_S &row : g_astMbufPktSndInfoByteTransProc) {
        EXPECT_NE(bo::PktSndTranslator(row.usType), nullptr) << row.usType;
    }
    EXPECT_EQ(bo::PktSndTranslator(6), nullptr);
    for (std::uint32_t i = 0; i < MBUF_PKTSND_TNL_TYPE_NUM; ++i) {
        EXPECT_NE(bo::TnlTranslator(i), nullptr) << i;
    }
    EXPECT_EQ(bo::TnlTranslator(MBUF_PKTSND_TNL_TYPE_NUM), nullptr);
    EXPECT_EQ(bo::NoPathTranslator(0), nullptr);
    EXPECT_NE(bo::NoPathTranslator(1), nullptr);
    EXPECT_NE(bo::NoPathTranslator(2), nullptr);
    EXPECT_EQ(bo::NoPathTranslator(3), nullptr);
}

}  // namespace
}  // namespace krm::test
