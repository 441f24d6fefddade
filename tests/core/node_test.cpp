#include <array>
#include <cstddef>
#include <cstring>

#include "core_test_util.h"

namespace krm::test {
namespace {

class NodeTest : public HostTest {};

std::uint32_t WordAt(const MBUF_S &node, std::size_t off) {
    std::uint32_t v;
    std::memcpy(&v, reinterpret_cast<const std::uint8_t *>(&node) + off, sizeof(v));
    return v;
}

TEST_F(NodeTest, InitRecordOfType255LeavesEveryByte) {
    MBUF_S node;
    std::memset(&node, 0x5C, sizeof(node));
    const MBUF_S before = node;
    const MBUF_STRUCT_INIT_S init{MBUF_PKTHDR, MBUF_TYPE_KEEP};
    EXPECT_EQ(MBUF_StructInit(&node, sizeof(node), &init), 0u);
    EXPECT_EQ(std::memcmp(&node, &before, sizeof(node)), 0);
}

// Offsets of the words an initialisation clears, whatever the build.
constexpr std::array<std::size_t, 7> kClearedAlways = {0, 4, 8, 12, 896, 920, 928};
constexpr std::array<std::size_t, 8> kClearedInHeader = {24, 28, 32, 36, 488, 492, 496, 900};

TEST_F(NodeTest, HeaderInitLaysOutHeaderAndBlockAndLeavesExternalWords) {
    MBUF_S node;
    std::memset(&node, 0xEE, sizeof(node));
    const MBUF_S before = node;
    const MBUF_STRUCT_INIT_S init{MBUF_PKTHDR, 7};
    ASSERT_EQ(MBUF_StructInit(&node, 0, &init), 0u);
    EXPECT_EQ(node.usType, 7);
    EXPECT_EQ(node.ulFlag, MBUF_PKTHDR);
    EXPECT_EQ(node.ucByteOrder, MBUF_BYTEORDER_HOST);
    EXPECT_EQ(node.ucMagic, MBUF_MAGIC_LIVE);
    EXPECT_EQ(node.pucData, node.aucHdrInlineData);
    EXPECT_EQ(node.pstCtlInfo, &node.stCtlInfo.stBlk);
    EXPECT_EQ(node.pstNext, nullptr);
    EXPECT_EQ(node.pstNextPkt, nullptr);
    for (std::size_t off : kClearedAlways) EXPECT_EQ(WordAt(node, off), 0u) << "offset " << off;
    for (std::size_t off : kClearedInHeader) EXPECT_EQ(WordAt(node, off), 0u) << "offset " << off;
    EXPECT_EQ(node.stCtlInfo.stBlk.usCapacity, MBUF_CTL_INIT_CAPACITY);
    EXPECT_EQ(node.stCtlInfo.stBlk.stComm.ulSocketId, 0xFFFFFFFFu);
    // The external-buffer words and the descriptor overlaying the inline
    // area are left for the allocator.
    EXPECT_EQ(node.pucExtBuf, before.pucExtBuf);
    EXPECT_EQ(node.ulExtRsv0, before.ulExtRsv0);
    EXPECT_EQ(node.ulExtRsv1, before.ulExtRsv1);
    EXPECT_EQ(std::memcmp(&node.stExtInfo, &before.stExtInfo, sizeof(node.stExtInfo)), 0);
    ExpectValid(&node);
}

TEST_F(NodeTest, PlainInitLeavesTheBodyAlone) {
    MBUF_S node;
    std::memset(&node, 0xEE, sizeof(node));
    const MBUF_S before = node;
    const MBUF_STRUCT_INIT_S init{0, MBUF_TYPE_DATA};
    ASSERT_EQ(MBUF_StructInit(&node, 0, &init), 0u);
    EXPECT_EQ(node.ulFlag, 0u);
    EXPECT_EQ(node.pucData, node.aucInlineData);
    EXPECT_EQ(node.pstCtlInfo, nullptr);
    for (std::size_t off : kClearedAlways) EXPECT_EQ(WordAt(node, off), 0u) << "offset " << off;
    EXPECT_EQ(std::memcmp(node.aucInlineData, before.aucInlineData, sizeof(node.aucInlineData)), 0);
    EXPECT_EQ(node.ucMagic, MBUF_MAGIC_LIVE);
}

TEST_F(NodeTest, InitRefusesMissingArguments) {
    MBUF_S node;
    const MBUF_STRUCT_INIT_S init{0, MBUF_TYPE_DATA};
    EXPECT_EQ(MBUF_StructInit(nullptr, 0, &init), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_StructInit(&node, 0, nullptr), MBUF_ERR_BAD_ARG);
}

struct VerifyCase {
    const char *name;
    std::uint32_t flag;
    std::uint8_t magic;
    std::uint32_t expected;
};

TEST_F(NodeTest, VerifyOrdersItsChecksNullMagicHeader) {
    const VerifyCase cases[] = {
        {"live head", MBUF_PKTHDR, MBUF_MAGIC_LIVE, MBUF_OK},
        {"live plain", 0, MBUF_MAGIC_LIVE, MBUF_ERR_NOT_PKTHDR},
        {"destroyed head", MBUF_PKTHDR, MBUF_MAGIC_DEAD, MBUF_ERR_INVALID_MBUF},
        {"garbage plain", 0, 0x00, MBUF_ERR_INVALID_MBUF},
    };
    for (const VerifyCase &c : cases) {
        MBUF_S node;
        InitNode(&node, c.flag);
        node.ucMagic = c.magic;
        EXPECT_EQ(MBUF_Rcving_Verify(&node), c.expected) << c.name;
    }
    EXPECT_EQ(MBUF_Rcving_Verify(nullptr), MBUF_ERR_NULL_MBUF);
}

// Three nodes on the test's storage linked into one packet.
struct StackChain {
    MBUF_S nodes[3];
    explicit StackChain(std::array<std::uint32_t, 3> lens) {
        for (std::size_t i = 0; i < 3; ++i) {
            InitNode(&nodes[i], i == 0 ? MBUF_PKTHDR : 0);
            nodes[i].ulDataLen = lens[i];
            if (i != 0) nodes[i - 1].pstNext = &nodes[i];
        }
        nodes[0].ulTotalDataLen = lens[0] + lens[1] + lens[2];
    }
};

TEST_F(NodeTest, LengthAndDataReadersSkipEmptyNodes) {
    StackChain chain({0, 10, 0});
    ExpectValid(chain.nodes);
    EXPECT_EQ(MBUF_CalcDataLength(chain.nodes), 10u);
    EXPECT_EQ(MBUF_CalcDataLength(&chain.nodes[2]), 0u);
    EXPECT_EQ(MBUF_GetTotalDataLength(chain.nodes), 10u);
    EXPECT_EQ(MBUF_GetData(chain.nodes), chain.nodes[1].pucData);

    StackChain empty({0, 0, 0});
    EXPECT_EQ(MBUF_GetData(empty.nodes), nullptr);
    // A plain node is not a packet: neither its length nor its data count.
    EXPECT_EQ(MBUF_GetData(&chain.nodes[1]), nullptr);
    EXPECT_EQ(MBUF_GetTotalDataLength(&chain.nodes[1]), 0u);
    EXPECT_EQ(MBUF_CalcDataLength(nullptr), 0u);
    EXPECT_EQ(MBUF_GetTotalDataLength(nullptr), 0u);
    EXPECT_EQ(MBUF_GetData(nullptr), nullptr);
}

TEST_F(NodeTest, NextPacketLinkLivesOnlyInHeaders) {
    MBUF_S head;
    MBUF_S other;
    MBUF_S plain;
    InitNode(&head, MBUF_PKTHDR);
    InitNode(&other, MBUF_PKTHDR);
    InitNode(&plain, 0);
    MBUF_SetNextPktPtr(&head, &other);
    EXPECT_EQ(MBUF_GetNextPktPtr(&head), &other);
    MBUF_SetNextPktPtr(&plain, &other);
    EXPECT_EQ(plain.pstNextPkt, nullptr);
    plain.pstNextPkt = &other;
    EXPECT_EQ(MBUF_GetNextPktPtr(&plain), nullptr);
    MBUF_SetNextPktPtr(nullptr, &other);
    EXPECT_EQ(MBUF_GetNextPktPtr(nullptr), nullptr);
}

}  // namespace
}  // namespace krm::test
