#include <array>
#include <cstddef>
#include <cstring>
#include <tuple>

#include "core_test_util.h"

namespace krm::test {
namespace {

class NodeTest : public HostTest {};

std::uint32_t WordAt(const MBUF_S &node, std::size_t off) {
    std::uint32_t v;
    std::memcpy(&v, reinterpret_cast<const std::uint8_t *>(&node) + off, sizeof(v));
    return v;
}

TEST_F(NodeTest, InitOfTypeKeepOrWithoutArgumentsChangesNothing) {
    MBUF_S node;
    std::memset(&node, 0x5C, sizeof(node));
    const MBUF_S before = node;
    const MBUF_STRUCT_INIT_S keep{MBUF_PKTHDR, MBUF_TYPE_KEEP};
    EXPECT_EQ(MBUF_StructInit(&node, sizeof(node), &keep), 0u);
    EXPECT_EQ(MBUF_StructInit(&node, 0, nullptr), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(MBUF_StructInit(nullptr, 0, &keep), MBUF_ERR_BAD_ARG);
    EXPECT_EQ(std::memcmp(&node, &before, sizeof(node)), 0);
}

// Offsets of the words an initialisation clears, whatever the build.
constexpr std::array<std::size_t, 7> kClearedAlways = {0, 4, 8, 12, 896, 920, 928};
constexpr std::array<std::size_t, 8> kClearedInHeader = {24, 28, 32, 36, 488, 492, 496, 900};

// The external-buffer words are left for the allocator; a header gets its
// inline block, a plain node keeps its body.
TEST_F(NodeTest, InitLaysOutTheNodeAndLeavesExternalWords) {
    for (const std::uint32_t flag : {MBUF_PKTHDR, 0u}) {
        const bool header = flag != 0;
        SCOPED_TRACE(header ? "header" : "plain");
        MBUF_S node;
        std::memset(&node, 0xEE, sizeof(node));
        const MBUF_S before = node;
        const MBUF_STRUCT_INIT_S init{flag, 7};
        ASSERT_EQ(MBUF_StructInit(&node, 0, &init), 0u);
        EXPECT_EQ(std::tie(node.usType, node.ulFlag, node.ucByteOrder, node.ucMagic, node.pstNext,
                           node.pstNextPkt, node.pucExtBuf, node.ulExtRsv0, node.ulExtRsv1),
                  std::make_tuple(7, flag, MBUF_BYTEORDER_HOST, MBUF_MAGIC_LIVE, nullptr, nullptr,
                                  before.pucExtBuf, before.ulExtRsv0, before.ulExtRsv1));
        for (std::size_t off : kClearedAlways) EXPECT_EQ(WordAt(node, off), 0u) << "at " << off;
        if (!header) {
            EXPECT_EQ(std::tie(node.pucData, node.pstCtlInfo),
                      std::make_tuple(node.aucInlineData, nullptr));
            EXPECT_EQ(std::memcmp(node.aucInlineData, before.aucInlineData, MBUF_PLAIN_INLINE_LEN),
                      0);
            continue;
        }
        for (std::size_t off : kClearedInHeader) EXPECT_EQ(WordAt(node, off), 0u) << "at " << off;
        EXPECT_EQ(std::tie(node.pucData, node.pstCtlInfo, node.stCtlInfo.stBlk.usCapacity,
                           node.stCtlInfo.stBlk.stComm.ulSocketId),
                  std::make_tuple(node.aucHdrInlineData, &node.stCtlInfo.stBlk,
                                  MBUF_CTL_INIT_CAPACITY, 0xFFFFFFFFu));
        EXPECT_EQ(std::memcmp(&node.stExtInfo, &before.stExtInfo, sizeof(node.stExtInfo)), 0);
        ExpectValid(&node);
    }
}

TEST_F(NodeTest, VerifyOrdersItsChecksNullMagicHeader) {
    const std::tuple<const char *, std::uint32_t, std::uint8_t, std::uint32_t> rows[] = {
        {"live head", MBUF_PKTHDR, MBUF_MAGIC_LIVE, MBUF_OK},
        {"live plain", 0, MBUF_MAGIC_LIVE, MBUF_ERR_NOT_PKTHDR},
        {"destroyed head", MBUF_PKTHDR, MBUF_MAGIC_DEAD, MBUF_ERR_INVALID_MBUF},
        {"garbage plain", 0, 0x00, MBUF_ERR_INVALID_MBUF},
    };
    for (const auto &[name, flag, magic, expected] : rows) {
        MBUF_S node;
        InitNode(&node, flag);
        node.ucMagic = magic;
        EXPECT_EQ(MBUF_Rcving_Verify(&node), expected) << name;
    }
    EXPECT_EQ(MBUF_Rcving_Verify(nullptr), MBUF_ERR_NULL_MBUF);
}

// A header, an empty plain node, a plain node of 10 and an empty one.
TEST_F(NodeTest, ReadersOfAHeadSkipEmptyNodesAndIgnorePlainNodes) {
    MBUF_S n[4];
    for (int i = 0; i < 4; ++i) {
        InitNode(&n[i], i == 0 ? MBUF_PKTHDR : 0);
        if (i != 0) n[i - 1].pstNext = &n[i];
    }
    EXPECT_EQ(MBUF_GetData(n), nullptr) << "all empty";
    n[0].ulTotalDataLen = 10;
    n[2].ulDataLen = 10;
    ExpectValid(n);
    // A plain node is not a packet: neither its length nor its data count.
    EXPECT_EQ(std::make_tuple(MBUF_CalcDataLength(n), MBUF_CalcDataLength(&n[3]),
                              MBUF_GetTotalDataLength(n), MBUF_GetData(n), MBUF_GetData(&n[2]),
                              MBUF_GetTotalDataLength(&n[2]), MBUF_CalcDataLength(nullptr),
                              MBUF_GetTotalDataLength(nullptr), MBUF_GetData(nullptr)),
              std::make_tuple(10u, 0u, 10u, n[2].pucData, nullptr, 0u, 0u, 0u, nullptr));

    // The next-packet link lives only in headers.
    MBUF_SetNextPktPtr(&n[0], &n[3]);
    EXPECT_EQ(MBUF_GetNextPktPtr(&n[0]), &n[3]);
    MBUF_SetNextPktPtr(&n[1], &n[3]);
    EXPECT_EQ(n[1].pstNextPkt, nullptr);
    n[1].pstNextPkt = &n[3];
    EXPECT_EQ(MBUF_GetNextPktPtr(&n[1]), nullptr);
    MBUF_SetNextPktPtr(nullptr, &n[3]);
    EXPECT_EQ(MBUF_GetNextPktPtr(nullptr), nullptr);
}

}  // namespace
}  // namespace krm::test
