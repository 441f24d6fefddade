// What the dispatch tables decide beyond the translator each row names
// (which the record rows exercise through the tables): the packet-send
// lookup stops at a type's first row and knows no other type, and every
// entry point refuses NULL.
#include <gtest/gtest.h>

#include <cstring>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

class TablesTest : public HostTest {};

TEST_F(TablesTest, PacketSendLookupTakesTheFirstRowAndOnlyListedTypes) {
    auto lookup = [](std::uint16_t type) {
        std::uint8_t tlv[8] = {};
        std::memcpy(tlv, &type, 2);
        return MBUF_GetPktSendInfoBytesTransFunc(tlv);
    };
    EXPECT_EQ(lookup(28), MBUF_MbufPktSendInfoEvpnMacTrans);
    EXPECT_EQ(lookup(0x2001), MBUF_MbufPktSendInfoNotNeedTrans);
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
    EXPECT_EQ(g_apfMbufSndWithNoPathOrderTransProc[0], nullptr);
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
    const Seen n140{140, "args is null"}, n420{420, "args is null"}, n110{110, "args is null"};
    EXPECT_EQ(ReportsOf(kPktSnd), (std::vector<Seen>{n140, n140, n420, n140, n140, n140, n110}));
    EXPECT_EQ(Reports().size(), 7u);
}

}  // namespace
}  // namespace krm::test::bo
