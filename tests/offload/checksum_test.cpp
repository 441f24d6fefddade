// Checksums against the byte-at-a-time model: the summing engine on every
// length and misalignment (its wide and portable paths alike), the chain
// checksums on every split, empty node and range of the shared shapes, and
// the IPv6 upper-layer checksum with its pseudo-header.
#include <cstring>
#include <numeric>

#include "internal/bytes.h"
#include "mbuf_check.h"
#include "offload/csum_engine.h"
#include "offload/offload_internal.h"
#include "offload_test.h"

namespace krm::test {
namespace {

using offload::CopyAndSum;
using offload::CopyAndSumPortable;
using offload::SumBytes;
using offload::SumBytesPortable;

class ChecksumTest : public HostTest {};

// Byte patterns that stress the carries: all ones, a seeded payload, and
// words just above the bias the wide path adds.
Bytes Pattern(int kind, std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) {
        b[i] = kind == 0   ? 0xFF
               : kind == 1 ? PayloadByte(static_cast<std::uint32_t>(i), 9)
                           : static_cast<std::uint8_t>(i % 2 == 0 ? 0x80 : 0x01);
    }
    return b;
}

// Each wide run summer this CPU has gives the model's sum; a path the CPU
// lacks is skipped (it is never chosen there).
void ExpectEveryRunPath(const std::vector<offload::Run> &runs, std::uint32_t want) {
    std::uint32_t sum = 0;
    if (offload::SumRunsAvx2(runs.data(), runs.size(), &sum)) {
        ASSERT_EQ(sum, want) << "AVX2, " << runs.size() << " runs";
    }
    if (offload::SumRunsAvx512(runs.data(), runs.size(), &sum)) {
        ASSERT_EQ(sum, want) << "AVX-512, " << runs.size() << " runs";
    }
}

// Every summer and copier, wide and portable, on one run of n bytes.
void ExpectEngine(const std::uint8_t *p, std::size_t n, const std::string &what) {
    const std::uint32_t want = RefSum(p, n);
    ASSERT_EQ(SumBytes(p, n), want) << what;
    ASSERT_EQ(SumBytesPortable(p, n), want) << "portable, " << what;
    ExpectEveryRunPath({{p, static_cast<std::uint32_t>(n), false}}, want);
    Bytes dst(n + 1, 0x5A);
    ASSERT_EQ(CopyAndSum(dst.data() + 1, p, n), want) << "copy, " << what;
    ASSERT_TRUE(std::equal(p, p + n, dst.begin() + 1)) << what;
    ASSERT_EQ(CopyAndSumPortable(dst.data(), p, n), want) << "portable copy, " << what;
    ASSERT_TRUE(std::equal(p, p + n, dst.begin())) << what;
}

// Every length and misalignment up to a few blocks, and large runs that
// carry many times.
TEST_F(ChecksumTest, EngineMatchesModelOnEveryLengthAndAlignment) {
    for (int kind = 0; kind < 3; ++kind) {
        const Bytes src = Pattern(kind, 700);
        for (std::size_t start = 0; start < 8; ++start) {
            for (std::size_t n = 0; n + start <= 520; ++n) {
                ExpectEngine(src.data() + start, n,
                             "kind " + std::to_string(kind) + " start " + std::to_string(start) +
                                 " n " + std::to_string(n));
            }
        }
        for (std::size_t n : {65536u, 65537u, 2u * 1024 * 1024 + 33}) {
            ExpectEngine(Pattern(kind, n).data(), n, "large " + std::to_string(n));
        }
    }
}

// A stream cut into runs at every kind of point (odd, even, empty, one
// byte, longer than a widening block) sums as the whole stream does.
TEST_F(ChecksumTest, RunsSumLikeTheirConcatenation) {
    const std::vector<std::vector<std::uint32_t>> cuts = {
        {},
        {1},
        {0, 0, 7},
        {31, 33, 1, 0, 64},
        {600001},
        {1, 2 * 1024 * 1024 + 5},
        {17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17, 17}};
    for (int kind = 0; kind < 3; ++kind) {
        const Bytes src = Pattern(kind, 3 * 1024 * 1024);
        for (const auto &cut : cuts) {
            std::vector<offload::Run> runs;
            std::uint32_t at = 0;
            for (std::uint32_t len : cut) {
                runs.push_back({src.data() + at, len, (at & 1u) != 0});
                at += len;
            }
            runs.push_back({src.data() + at, 999, (at & 1u) != 0});
            at += 999;
            const std::uint32_t want = RefSum(src.data(), at);
            EXPECT_EQ(offload::SumRuns(runs.data(), runs.size()), want)
                << "kind " << kind << " runs " << runs.size();
            EXPECT_EQ(offload::SumRunsPortable(runs.data(), runs.size()), want) << "portable";
            ExpectEveryRunPath(runs, want);
        }
    }
}

TEST_F(ChecksumTest, RfcExampleGivesTheSameNumberOnEveryBuild) {
    const Bytes rfc = {0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7};
    for (const Split &split : Splits()) {
        MBUF_S *m = PacketOf(rfc, split.sizes);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(MBUF_CalcCheckSum(m, 8), 0x220D) << split.name;
        EXPECT_EQ(MBUF_CheckSum(m, 8), 0x220D) << split.name;
        // An odd length: the last byte is the high byte of a padded word.
        EXPECT_EQ(MBUF_CalcCheckSum(m, 7), 0x2304) << split.name;
        MBUF_Destroy(m);
    }
}

// Every range between interesting offsets of every shared shape, against the
// model over the flattened bytes, through all four entry points.
// The copy that sums as it goes (the segmenter's payload path): the range's
// bytes land in the caller's buffer and nothing beside them is written; a
// range the chain cannot fill is refused.
void ExpectCopySum(const MBUF_S *m, std::uint32_t off, std::uint32_t len, const Bytes &want,
                   std::uint32_t total) {
    constexpr std::uint32_t kGuard = 70;  // wider than one wide step
    Bytes dst(total - off + 2 * kGuard, 0x5A);
    std::uint32_t sum = 0;
    ASSERT_TRUE(offload::CopySumChain(m, off, len, dst.data() + kGuard, &sum)) << off << "+" << len;
    EXPECT_EQ(sum, RefSum(want.data(), want.size())) << off << "+" << len;
    Bytes expect(dst.size(), 0x5A);
    std::copy(want.begin(), want.end(), expect.begin() + kGuard);
    ASSERT_EQ(dst, expect) << off << "+" << len;
    EXPECT_FALSE(offload::CopySumChain(m, off, total - off + 1, dst.data(), &sum));
}

TEST_F(ChecksumTest, ChainRangesMatchTheFlatModel) {
    for (const ChainShape &shape : StandardShapes()) {
        MBUF_S *m = BuildChain(shape.nodes, 5);
        ASSERT_NE(m, nullptr) << shape.name;
        const Bytes flat = Flatten(m);
        const auto total = static_cast<std::uint32_t>(flat.size());
        for (std::uint32_t off : InterestingOffsets(shape.nodes)) {
            for (std::uint32_t end : InterestingOffsets(shape.nodes)) {
                if (end < off) {
                    continue;
                }
                const Bytes part(flat.begin() + off, flat.begin() + end);
                const std::uint16_t want = RefChecksum(part);
                const std::uint32_t len = end - off;
                ASSERT_EQ(MBUF_CalcCheckSumFromOffset(m, len, off), len == 0 ? 0xFFFF : want)
                    << shape.name << " [" << off << "," << end << ")";
                ASSERT_EQ(MBUF_CheckSum_Off(m, off, len), len == 0 ? 0xFFFF : want) << shape.name;
                if (off == 0) {
                    ASSERT_EQ(MBUF_CalcCheckSum(m, len), len == 0 ? 0xFFFF : want) << shape.name;
                }
                ExpectCopySum(m, off, len, part, total);
                // Past the end: the calculation sums what there is, the
                // checked form refuses.
                const Bytes rest(flat.begin() + off, flat.end());
                ASSERT_EQ(MBUF_CalcCheckSumFromOffset(m, total - off + 5, off), RefChecksum(rest))
                    << shape.name;
                ASSERT_EQ(MBUF_CheckSum_Off(m, off, total - off + 1), 0) << shape.name;
            }
        }
        ExpectValid(m);
        EXPECT_EQ(Flatten(m), flat) << "a checksum never moves bytes";
        MBUF_Destroy(m);
    }
}

TEST_F(ChecksumTest, RefusedBuffersAndEmptyRanges) {
    EXPECT_EQ(MBUF_CalcCheckSumFromOffset(nullptr, 10, 0), 0xFFFF);
    EXPECT_EQ(MBUF_CalcCheckSum(nullptr, 10), 0xFFFF);
    EXPECT_EQ(MBUF_CheckSum(nullptr, 10), 0);
    EXPECT_EQ(MBUF_CheckSum_Off(nullptr, 0, 10), 0);
    MBUF_S *m = PacketOf(Bytes(64, 0), {10});
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(MBUF_CalcCheckSum(m, 0), 0xFFFF);
    EXPECT_EQ(MBUF_CalcCheckSum(m, 64), 0xFFFF) << "zero bytes sum to 0";
    EXPECT_EQ(MBUF_CheckSum_Off(m, 65, 0), 0) << "offset past the packet";
    EXPECT_EQ(MBUF_CheckSum_Off(m, 1, 0xFFFFFFFFu), 0) << "a range that wraps is past the end";
    // A later node carries no packet header: the checked forms refuse it.
    MBUF_S *second = m->pstNext;
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->ulFlag & MBUF_PKTHDR, 0u);
    EXPECT_EQ(MBUF_CheckSum(second, 4), 0);
    EXPECT_EQ(MBUF_CheckSum_Off(second, 0, 4), 0);
    EXPECT_EQ(MBUF_CalcCheckSum(second, 54), 0xFFFF) << "the calculation walks any node";
    MBUF_Destroy(m);
}

// An IPv6 frame whose control record names a destination other than the
// header's: the pseudo-header takes the record's.
struct V6Case {
    FramePlan plan;
    Bytes dst;
    Bytes frame;
    MBUF_TSO_CTL_INFO_S ctl{};
};

V6Case MakeV6(std::uint32_t payload, std::uint32_t ipHdrLen) {
    V6Case c;
    c.plan = {6, 3, ipHdrLen, 20, payload, 1448, 0x18};
    c.frame = BuildFrame(c.plan);
    c.dst = Bytes(16);
    std::iota(c.dst.begin(), c.dst.end(), std::uint8_t{0xC0});
    c.ctl.usIpOffset = static_cast<std::uint16_t>(c.plan.linkLen);
    c.ctl.usIpHdrLen = static_cast<std::uint16_t>(ipHdrLen);
    std::memcpy(c.ctl.aucDstAddr, c.dst.data(), 16);
    return c;
}

std::uint16_t ModelV6(const V6Case &c, std::uint32_t len) {
    const std::uint32_t ip = c.plan.linkLen;
    Bytes ph(c.frame.begin() + ip + 8, c.frame.begin() + ip + 24);
    ph.insert(ph.end(), c.dst.begin(), c.dst.end());
    Bytes tail(8, 0);  // the length as 32 bits, three zero bytes, next header 6
    StoreBe32(tail.data(), len);
    tail[7] = 6;
    ph.insert(ph.end(), tail.begin(), tail.end());
    const std::uint32_t from = ip + c.plan.ipHdrLen;
    const Bytes data(c.frame.begin() + from,
                     c.frame.begin() + std::min<std::size_t>(from + len, c.frame.size()));
    return RefChecksum(data, RefSum(ph.data(), ph.size()));
}

TEST_F(ChecksumTest, Ipv6UsesTheRecordsDestinationOnEverySplit) {
    for (std::uint32_t ipHdrLen : {40u, 56u}) {
        for (std::uint32_t payload : {0u, 1u, 1447u, 3001u}) {
            const V6Case c = MakeV6(payload, ipHdrLen);
            const std::uint32_t len = c.plan.tcpHdrLen + payload;
            for (const Split &split : Splits()) {
                MBUF_S *m = PacketOf(c.frame, split.sizes);
                ASSERT_NE(m, nullptr);
                EXPECT_EQ(MBUF_IPv6_CheckSum(m, 6, 0, len, &c.ctl, kModule), ModelV6(c, len))
                    << split.name << " payload " << payload << " hdr " << ipHdrLen;
                ExpectValid(m);
                EXPECT_EQ(Flatten(m), c.frame);
                MBUF_Destroy(m);
            }
        }
    }
    EXPECT_TRUE(Reports().empty());
}

TEST_F(ChecksumTest, Ipv6PseudoHeaderSumIsUnfolded) {
    const V6Case c = MakeV6(10, 40);
    const std::uint8_t *ip = c.frame.data() + c.plan.linkLen;
    std::uint32_t want = 0x10000u + 6;  // length 0x10000: both halves counted
    for (int i = 0; i < 16; i += 2) {
        want += (std::uint32_t{ip[8 + i]} << 8 | ip[9 + i]) +
                (std::uint32_t{c.dst[i]} << 8 | c.dst[i + 1]);
    }
    want = want - 0x10000u + 1;
    EXPECT_EQ(MBUF_IPV6_CheckSumPH(ip, 0x10000u, 6, &c.ctl), want);
    EXPECT_EQ(MBUF_IPV6_CheckSumPH(nullptr, 1, 6, &c.ctl), 0u);
}

TEST_F(ChecksumTest, Ipv6ShortChainIsReportedAndUnjoinableHeaderGivesZero) {
    const V6Case c = MakeV6(100, 40);
    MBUF_S *m = PacketOf(c.frame, {50});
    ASSERT_NE(m, nullptr);
    const std::uint32_t have = static_cast<std::uint32_t>(c.frame.size()) - 43;
    EXPECT_EQ(MBUF_IPv6_CheckSum(m, 6, 0, have + 9, &c.ctl, kModule), ModelV6(c, have + 9));
    EXPECT_EQ(Reports(), (std::vector<Report>{AssertReport("krm_mbuf_tso", 205, "out of data 9")}));
    MBUF_Destroy(m);
    // A header that cannot be made contiguous, or lies past the packet: 0.
    m = PacketOf(c.frame, {20});  // header split: joining it allocates
    ASSERT_NE(m, nullptr);
    KRM_HOST_FailNthAlloc(1);
    EXPECT_EQ(MBUF_IPv6_CheckSum(m, 6, 0, 120, &c.ctl, kModule), 0);
    KRM_HOST_FailNthAlloc(0);
    EXPECT_EQ(Flatten(m), c.frame);
    MBUF_S *tiny = PacketOf(Bytes(c.frame.begin(), c.frame.begin() + 30), {});
    EXPECT_EQ(MBUF_IPv6_CheckSum(tiny, 6, 0, 1, &c.ctl, kModule), 0) << "header past the packet";
    MBUF_Destroy(tiny);
    MBUF_Destroy(m);
}

}  // namespace
}  // namespace krm::test
