// Nodes: the local code, the sender's stamping of a packet list, and the
// receiver's conversion of one node (header words, external-buffer words,
// packet-header words), converted once and then left alone.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <vector>

#include "image.h"
#include "krm_mbuf/mbuf.h"
#include "mbuf_check.h"

namespace krm::test::bo {
namespace {

constexpr std::uint32_t kFlagBits = 0x5A3C0000u;  // flags that read differently reversed
constexpr std::uint8_t kForeignCode = MBUF_BYTEORDER_HOST == 1 ? 2 : 1;

// Node words as the node layout places them.
const Fields kHeaderWords = {U32(8), U32(12), U32(16), U16(20)};
const Fields kExtWords = {U32(512), U32(516)};
const Fields kPktHdrWords = {U32(28), U32(32), U32(36), U32(492), U32(496)};

Bytes NodeBytes(const MBUF_S &node) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(&node);
    return Bytes(p, p + sizeof(MBUF_S));
}

void SetBytes(MBUF_S &node, const Bytes &b) {
    std::memcpy(static_cast<void *>(&node), b.data(), sizeof(MBUF_S));
}

// A node image in host order with the given flags and stamp.
Bytes HostNode(std::uint32_t flags, std::uint8_t stamp) {
    Bytes b = Pattern(MBUF_NODE_SIZE, 3);
    Put32(b, 16, kFlagBits | flags);
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
    MBUF_Get_BEX_ByteOrder(nullptr);
}

TEST_F(NodeTest, SendingStampsEveryNodeOfEveryPacketAndNothingElse) {
    std::vector<std::unique_ptr<MBUF_S>> nodes;
    std::vector<Bytes> before;
    for (int i = 0; i < 6; ++i) {
        nodes.push_back(NewNode());
        SetBytes(*nodes.back(), Pattern(MBUF_NODE_SIZE, static_cast<std::uint8_t>(i)));
        nodes.back()->ucByteOrder = 7;
    }
    // Two packets of three nodes each.
    for (int p = 0; p < 2; ++p) {
        MBUF_S *head = nodes[3 * p].get();
        head->pstNext = nodes[3 * p + 1].get();
        nodes[3 * p + 1]->pstNext = nodes[3 * p + 2].get();
        nodes[3 * p + 2]->pstNext = nullptr;
        head->pstNextPkt = p == 0 ? nodes[3].get() : nullptr;
    }
    for (const auto &n : nodes) {
        before.push_back(NodeBytes(*n));
    }
    MBUF_UpdateMbufListByteOrderType(nodes[0].get());
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        Bytes want = before[i];
        want[22] = MBUF_BYTEORDER_HOST;
        EXPECT_TRUE(SameBytes(want, NodeBytes(*nodes[i]))) << i;
    }
    MBUF_UpdateMbufListByteOrderType(nullptr);
}

struct FlagCase {
    std::uint32_t flags;
    Fields fields;
};

class NodeConversionTest : public HostTest, public ::testing::WithParamInterface<FlagCase> {};

TEST_P(NodeConversionTest, ForeignNodeIsConvertedOnceAndStamped) {
    const FlagCase &c = GetParam();
    const Bytes host = HostNode(c.flags, MBUF_BYTEORDER_HOST);
    Bytes foreign = Foreign(host, Join({kHeaderWords, c.fields}));
    foreign[22] = kForeignCode;
    auto node = NewNode();
    SetBytes(*node, foreign);
    MBUF_SingleMbufControlBlkByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(host, NodeBytes(*node)));
    // Stamped with this host's code, the node is now left alone.
    MBUF_SingleMbufControlBlkByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(host, NodeBytes(*node)));
}

TEST_P(NodeConversionTest, AnyOtherCodeCountsAsForeign) {
    const FlagCase &c = GetParam();
    for (std::uint8_t code : {0, 3, 0xAB, 0xFF}) {
        const Bytes host = HostNode(c.flags, MBUF_BYTEORDER_HOST);
        Bytes foreign = Foreign(host, Join({kHeaderWords, c.fields}));
        foreign[22] = code;
        auto node = NewNode();
        SetBytes(*node, foreign);
        MBUF_SingleMbufControlBlkByteOrderTrans(node.get());
        EXPECT_TRUE(SameBytes(host, NodeBytes(*node))) << unsigned{code};
    }
}

TEST_P(NodeConversionTest, LocalCodeAndReservedMarksAreLeftAlone) {
    const FlagCase &c = GetParam();
    for (std::uint8_t code :
         {std::uint8_t{MBUF_BYTEORDER_HOST}, std::uint8_t{0xAA}, std::uint8_t{0xBB}}) {
        Bytes image = Foreign(HostNode(c.flags, code), Join({kHeaderWords, c.fields}));
        auto node = NewNode();
        SetBytes(*node, image);
        MBUF_SingleMbufControlBlkByteOrderTrans(node.get());
        EXPECT_TRUE(SameBytes(image, NodeBytes(*node))) << unsigned{code};
    }
}

// The parts called on their own: the header's four fields only, then the
// rest as the (converted) flags say.
TEST_P(NodeConversionTest, PartsConvertTheirOwnWords) {
    const FlagCase &c = GetParam();
    const Bytes host = HostNode(c.flags, kForeignCode);
    auto node = NewNode();
    SetBytes(*node, Foreign(host, Join({kHeaderWords, c.fields})));
    MBUF_MbufHeaderByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(Foreign(host, c.fields), NodeBytes(*node)));
    MBUF_MbufMdatByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(host, NodeBytes(*node)));
}

INSTANTIATE_TEST_SUITE_P(Flags, NodeConversionTest,
                         ::testing::Values(FlagCase{0, {}}, FlagCase{MBUF_EXT, kExtWords},
                                           FlagCase{MBUF_PKTHDR, kPktHdrWords},
                                           FlagCase{MBUF_EXT | MBUF_PKTHDR,
                                                    Join({kExtWords, kPktHdrWords})}),
                         [](const auto &tp) { return "Flags" + std::to_string(tp.param.flags); });

TEST_F(NodeTest, PacketHeaderWordsOnTheirOwn) {
    const Bytes host = HostNode(0, kForeignCode);
    auto node = NewNode();
    SetBytes(*node, Foreign(host, kPktHdrWords));
    MBUF_MbufMPktHdrByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(host, NodeBytes(*node)));
}

// Packets built by the library, as a sender of the other order would have
// sent their nodes: every kind of node converts back to exactly what was
// built, and the packets stay sound.
TEST_F(NodeTest, BuiltPacketsSurviveTheRoundTrip) {
    const std::vector<std::uint8_t> payload = ::krm::test::Pattern(3000);
    MBUF_S *ext = MBUF_CreateByCopyBuffer(16, 3000, payload.data(), 0, 1);  // header, cluster
    MBUF_S *inl = MBUF_CreateByCopyBuffer(16, 100, payload.data(), 0, 1);   // header, inline
    std::uint32_t capacity = 0;
    MBUF_S *plain = MBUF_AllocateMBufNode_fl(100, 0, &capacity, 1, "test", 1);
    MBUF_S *plainExt = MBUF_AllocateMBufNode_fl(1000, 0, &capacity, 1, "test", 2);
    ASSERT_TRUE(ext != nullptr && inl != nullptr && plain != nullptr && plainExt != nullptr);
    // Empty plain nodes behind the inline packet keep its lengths true.
    inl->pstNext = plain;
    plain->pstNext = plainExt;
    ext->pstNextPkt = inl;
    MBUF_S *nodes[] = {ext, inl, plain, plainExt};
    std::vector<Bytes> built;
    for (MBUF_S *node : nodes) {
        const Bytes host = NodeBytes(*node);
        Fields fields = kHeaderWords;
        if ((node->ulFlag & MBUF_EXT) != 0) {
            fields = Join({fields, kExtWords});
        }
        if ((node->ulFlag & MBUF_PKTHDR) != 0) {
            fields = Join({fields, kPktHdrWords});
        }
        Bytes foreign = Foreign(host, fields);
        foreign[22] = kForeignCode;
        SetBytes(*node, foreign);
        built.push_back(host);
    }
    for (std::size_t i = 0; i < std::size(nodes); ++i) {
        MBUF_SingleMbufControlBlkByteOrderTrans(nodes[i]);
        EXPECT_TRUE(SameBytes(built[i], NodeBytes(*nodes[i]))) << "node " << i;
    }
    ExpectValid(ext);
    ExpectValid(inl);
    ext->pstNextPkt = nullptr;
    MBUF_Destroy(ext);
    MBUF_Destroy(inl);
}

TEST_F(NodeTest, NullNodesAreIgnored) {
    MBUF_SingleMbufControlBlkByteOrderTrans(nullptr);
    MBUF_MbufHeaderByteOrderTrans(nullptr);
    MBUF_MbufMdatByteOrderTrans(nullptr);
    MBUF_MbufMPktHdrByteOrderTrans(nullptr);
    MBUF_MbufMPktHdrTagByteOrderTrans(nullptr);
    auto node = NewNode();
    node->pstCtlInfo = nullptr;
    const Bytes before = NodeBytes(*node);
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    EXPECT_TRUE(SameBytes(before, NodeBytes(*node)));
    EXPECT_EQ(Reports().size(), 0u);
}

}  // namespace
}  // namespace krm::test::bo
