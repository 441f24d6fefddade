// The pcapng writer read back by a block walker written from the format:
// block lengths, alignment, interfaces by link type, packet bytes, flags
// and comments.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "internal/bytes.h"
#include "pcapng.h"

namespace krm::tool {
namespace {

struct Block {
    std::uint32_t ulType;
    std::vector<std::uint8_t> vBody;  // between the two length words
};

// Walks the blocks; fails the test on any length that does not add up.
std::vector<Block> Blocks(const std::vector<std::uint8_t> &v) {
    std::vector<Block> vOut;
    std::size_t ulAt = 0;
    while (ulAt < v.size()) {
        EXPECT_LE(ulAt + 12, v.size());
        const std::uint32_t ulLen = Load32At(v.data(), static_cast<std::uint32_t>(ulAt + 4));
        EXPECT_EQ(ulLen % 4, 0u);
        EXPECT_LE(ulAt + ulLen, v.size());
        if (ulLen < 12 || ulAt + ulLen > v.size()) {
            return vOut;
        }
        EXPECT_EQ(Load32At(v.data(), static_cast<std::uint32_t>(ulAt + ulLen - 4)), ulLen);
        vOut.push_back({Load32At(v.data(), static_cast<std::uint32_t>(ulAt)),
                        {v.begin() + static_cast<long>(ulAt + 8),
                         v.begin() + static_cast<long>(ulAt + ulLen - 4)}});
        ulAt += ulLen;
    }
    return vOut;
}

// Options from offset ulAt of a block body: code -> values.
std::multimap<std::uint16_t, std::string> Options(const std::vector<std::uint8_t> &v,
                                                  std::size_t ulAt) {
    std::multimap<std::uint16_t, std::string> m;
    while (ulAt + 4 <= v.size()) {
        const std::uint16_t usCode = Load16(&v[ulAt]);
        const std::uint16_t usLen = Load16(&v[ulAt + 2]);
        if (usCode == 0) {
            break;
        }
        m.emplace(usCode, std::string(v.begin() + static_cast<long>(ulAt + 4),
                                      v.begin() + static_cast<long>(ulAt + 4 + usLen)));
        ulAt += 4 + ((usLen + 3u) & ~3u);
    }
    return m;
}

std::vector<std::uint8_t> Capture(void (*pfWrite)(PcapngWriter &)) {
    char *pcBuf = nullptr;
    std::size_t ulSize = 0;
    std::FILE *pFile = open_memstream(&pcBuf, &ulSize);
    {
        PcapngWriter stW(pFile, "test");
        pfWrite(stW);
    }
    std::fclose(pFile);
    std::vector<std::uint8_t> v(pcBuf, pcBuf + ulSize);
    std::free(pcBuf);
    return v;
}

TEST(Pcapng, LinkTypeFollowsTheFirstHeader) {
    struct Row {
        std::vector<std::uint8_t> vHead;
        std::size_t ulLen;
        std::uint16_t usWant;
    };
    // IPv4 exactly its header length (with options) or one short, no IP
    // version, IPv6 exactly its header or one short.
    const Row aRows[] = {{{0x46}, 24, kLinkRawIp},
                         {{0x46}, 23, kLinkUser0},
                         {{0x44}, 40, kLinkUser0},
                         {{0x60}, 40, kLinkRawIp},
                         {{0x60}, 39, kLinkUser0}};
    for (const Row &r : aRows) {
        std::vector<std::uint8_t> v(r.ulLen, 0);
        std::copy(r.vHead.begin(), r.vHead.end(), v.begin());
        EXPECT_EQ(LinkTypeFor(v.data(), v.size()), r.usWant)
            << std::hex << int{r.vHead[0]} << std::dec << " len " << r.ulLen;
    }
}

TEST(Pcapng, BlocksReadBackAsWritten) {
    const auto v = Capture([](PcapngWriter &w) {
        const std::uint8_t aucIp[21] = {0x45, 0, 0, 21};
        const std::uint8_t aucOther[3] = {1, 2, 3};
        const std::uint32_t ulA = w.Interface("pipe7", kLinkRawIp);
        const std::uint32_t ulB = w.Interface("pipe7", kLinkUser0);
        EXPECT_EQ(w.Interface("pipe7", kLinkRawIp), ulA);  // known: no new block
        w.Packet(ulA, 0x0000000100000002ull, aucIp, sizeof(aucIp), Direction::kOutbound,
                 {"flag2 0x1", "record 2 IP len 20"});
        w.Packet(ulB, 5, aucOther, sizeof(aucOther), Direction::kInbound, {});
        w.Packet(ulB, 6, nullptr, 0, Direction::kUnknown, {std::string(70000, 'x')});
        EXPECT_TRUE(w.Good());
        EXPECT_EQ(w.Packets(), 3u);
    });
    const auto vBlocks = Blocks(v);
    ASSERT_EQ(vBlocks.size(), 6u);
    EXPECT_EQ(vBlocks[0].ulType, 0x0A0D0D0Au);
    EXPECT_EQ(Load32(vBlocks[0].vBody.data()), 0x1A2B3C4Du);
    EXPECT_EQ(Options(vBlocks[0].vBody, 16).find(4)->second, "test");
    // Two interface blocks by link type, named (tshark reads the names in the scenarios).
    EXPECT_EQ((std::vector<std::uint32_t>{vBlocks[1].ulType, Load16(vBlocks[1].vBody.data()),
                                          vBlocks[2].ulType, Load16(vBlocks[2].vBody.data())}),
              (std::vector<std::uint32_t>{1, kLinkRawIp, 1, kLinkUser0}));
    // Interface, timestamp high and low, length, flags (direction), comments.
    const std::uint32_t aWant[3][6] = {{0, 1, 2, 21, 2, 2}, {1, 0, 5, 3, 1, 0}, {1, 0, 6, 0, 0, 1}};
    for (int i = 0; i < 3; ++i) {
        const auto &b = vBlocks[3 + i].vBody;
        EXPECT_EQ(vBlocks[3 + i].ulType, 6u) << i;
        const std::uint32_t ulLen = aWant[i][3];
        const auto mOpts = Options(b, 20 + ((ulLen + 3) & ~3u));
        ASSERT_EQ(mOpts.count(2), 1u) << i;
        EXPECT_EQ(std::vector<std::uint32_t>({Load32(&b[0]), Load32(&b[4]), Load32(&b[8]),
                                              Load32(&b[12]), Load32(mOpts.find(2)->second.data()),
                                              static_cast<std::uint32_t>(mOpts.count(1))}),
                  std::vector<std::uint32_t>(aWant[i], aWant[i] + 6))
            << i;
        EXPECT_EQ(Load32(&b[16]), ulLen) << i;
    }
    const auto &b0 = vBlocks[3].vBody;
    EXPECT_EQ(b0[20], 0x45);
    EXPECT_EQ(Options(b0, 44).find(1)->second, "flag2 0x1");
    // An option value is at most 16 bits long: the long comment is cut, not wrapped.
    EXPECT_EQ(Options(vBlocks[5].vBody, 20).find(1)->second.size(), 0xFFF0u);
}

}  // namespace
}  // namespace krm::tool
