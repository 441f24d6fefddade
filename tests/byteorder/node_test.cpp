// Nodes: the local code, the sender's stamping of a packet list, and the
// receiver's conversion of one node (header words, external-buffer words,
// packet-header words), converted once and then left alone.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "image.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {
namespace {

constexpr std::uint8_t kForeignCode = MBUF_BYTEORDER_HOST == 1 ? 2 : 1;

// Node words as the node layout places them: ulRsv2, ulDataLen, ulFlag and
// usType; ulExtSize and ulExtRefCnt; ulTotalDataLen, ulFlag3, ulPktTagInfo,
// ulFlag2 and ulPktRsv3.
const Fields kHeaderWords = P("w8 w12 w16 h20");
const Fields kExtWords = P("w512 w516");
const Fields kPktHdrWords = P("w28 w32 w36 w492 w496");

// The words a node of these flags carries beyond its header.
Fields WordsOf(std::uint32_t flags) {
    return ((flags & MBUF_EXT) != 0 ? kExtWords : Fields{}) +
           ((flags & MBUF_PKTHDR) != 0 ? kPktHdrWords : Fields{});
}

Bytes NodeBytes(const MBUF_S &node) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(&node);
    return Bytes(p, p + sizeof(MBUF_S));
}

void SetBytes(MBUF_S &node, const Bytes &b) {
    std::memcpy(static_cast<void *>(&node), b.data(), sizeof(MBUF_S));
}

// A node image in host order with the given flags (beside bits that read
// differently reversed) and stamp.
Bytes HostNode(std::uint32_t flags, std::uint8_t stamp) {
    Bytes b = Pattern(MBUF_NODE_SIZE, 3);
    Put32(b, 16, 0x5A3C0000u | flags);
    b[22] = stamp;
    b[23] = MBUF_MAGIC_LIVE;
    return b;
}

class NodeTest : public HostTest {};

TEST_F(NodeTest, LocalCodeFollowsTheBuildsByteOrder) {
    const std::uint16_t probe = 1;
    std::uint8_t first = 0;
    std::memcpy(&first, &probe, 1);
    std::uint8_t code = 0;
    MBUF_Get_BEX_ByteOrder(&code);
    EXPECT_EQ(code, first == 1 ? 1 : 2);
}

TEST_F(NodeTest, SendingStampsEveryNodeOfEveryPacketAndNothingElse) {
    // Two packets of three nodes each.
    std::vector<std::unique_ptr<MBUF_S>> nodes;
    for (std::uint8_t i = 0; i < 6; ++i) {
        nodes.push_back(NewNode());
        SetBytes(*nodes.back(), Pattern(MBUF_NODE_SIZE, i));
        nodes.back()->ucByteOrder = 7;
    }
    std::vector<Bytes> before;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        nodes[i]->pstNext = i % 3 != 2 ? nodes[i + 1].get() : nullptr;
        if (i % 3 == 0) {  // the others' words are junk: never read
            nodes[i]->pstNextPkt = i == 0 ? nodes[3].get() : nullptr;
        }
        before.push_back(NodeBytes(*nodes[i]));
    }
    MBUF_UpdateMbufListByteOrderType(nodes[0].get());
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        before[i][22] = MBUF_BYTEORDER_HOST;
        EXPECT_TRUE(SameBytes(before[i], NodeBytes(*nodes[i]))) << i;
    }
}

class NodeConversionTest : public HostTest, public ::testing::WithParamInterface<std::uint32_t> {};

// Any code but this host's and the two reserved marks is foreign: the node
// converts, is stamped, and a second call leaves it alone.
TEST_P(NodeConversionTest, ForeignNodeIsConvertedOnceAndStamped) {
    const Bytes host = HostNode(GetParam(), MBUF_BYTEORDER_HOST);
    const Fields fields = kHeaderWords + WordsOf(GetParam());
    auto node = NewNode();
    for (std::uint8_t code : {std::uint32_t{kForeignCode}, 0u, 3u, 0xABu, 0xFFu}) {
        Bytes foreign = Foreign(host, fields);
        foreign[22] = code;
        SetBytes(*node, foreign);
        MBUF_SingleMbufControlBlkByteOrderTrans(node.get());
        EXPECT_TRUE(SameBytes(host, NodeBytes(*node))) << unsigned{code};
        MBUF_SingleMbufControlBlkByteOrderTrans(node.get());
        EXPECT_TRUE(SameBytes(host, NodeBytes(*node))) << unsigned{code} << ", twice";
    }
    for (std::uint8_t code : {std::uint32_t{MBUF_BYTEORDER_HOST}, 0xAAu, 0xBBu}) {
        const Bytes image = Foreign(HostNode(GetParam(), code), fields);
        SetBytes(*node, image);
        MBUF_SingleMbufControlBlkByteOrderTrans(node.get());
        EXPECT_TRUE(SameBytes(image, NodeBytes(*node))) << unsigned{code};
    }
}

// The parts called on their own: the header's four fields only, then the
// rest as the converted flags say; the packet-header words whatever the
// flags say.
TEST_P(NodeConversionTest, PartsConvertTheirOwnWords) {
    const Bytes host = HostNode(GetParam(), kForeignCode);
    auto node = NewNode();
    SetBytes(*node, Foreign(host, kHeaderWords + WordsOf(GetParam())));
    MBUF_MbufHeaderByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(Foreign(host, WordsOf(GetParam())), NodeBytes(*node)));
    MBUF_MbufMdatByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(host, NodeBytes(*node)));
    SetBytes(*node, Foreign(host, kPktHdrWords));
    MBUF_MbufMPktHdrByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(host, NodeBytes(*node)));
}

INSTANTIATE_TEST_SUITE_P(Flags, NodeConversionTest,
                         ::testing::Values(0u, MBUF_EXT, MBUF_PKTHDR, MBUF_EXT | MBUF_PKTHDR));

}  // namespace
}  // namespace krm::test::bo
