// An outside witness for the segments: they are written as a classic pcap
// file (raw IP link type) and an independent dissector recomputes every IP
// and TCP checksum and reads the sequence numbers and lengths back.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "internal/bytes.h"
#include "offload_test.h"

namespace krm::test {
namespace {

class TsharkTest : public HostTest {};

bool HaveTshark() {
    return std::system("command -v tshark >/dev/null 2>&1") == 0;
}

// Classic pcap, host byte order as the magic says, link type 101 (raw IP).
void PutLe32(std::string &out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>(v >> (8 * i)));
    }
}
void PutLe16(std::string &out, std::uint16_t v) {
    out.push_back(static_cast<char>(v));
    out.push_back(static_cast<char>(v >> 8));
}
void WritePcap(const std::string &path, const std::vector<Bytes> &packets) {
    std::string out;
    PutLe32(out, 0xA1B2C3D4u);  // written little-endian whatever the build
    PutLe16(out, 2);
    PutLe16(out, 4);
    PutLe32(out, 0);
    PutLe32(out, 0);
    PutLe32(out, 262144);
    PutLe32(out, 101);
    std::uint32_t sec = 1700000000;
    for (const Bytes &p : packets) {
        PutLe32(out, sec++);
        PutLe32(out, 0);
        PutLe32(out, static_cast<std::uint32_t>(p.size()));
        PutLe32(out, static_cast<std::uint32_t>(p.size()));
        out.append(p.begin(), p.end());
    }
    std::ofstream(path, std::ios::binary) << out;
}

std::vector<std::vector<std::string>> RunTshark(const std::string &path) {
    const std::string cmd = "tshark -r '" + path +
                            "' -o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE"
                            " -T fields -E separator=/t -E occurrence=f"
                            " -e ip.checksum.status -e tcp.checksum.status -e tcp.seq_raw"
                            " -e tcp.len -e ip.id 2>/dev/null";
    std::vector<std::vector<std::string>> rows;
    FILE *pipe = popen(cmd.c_str(), "r");
    if (pipe == nullptr) {
        return rows;
    }
    char line[512];
    while (std::fgets(line, sizeof(line), pipe) != nullptr) {
        std::vector<std::string> fields;
        std::stringstream ss(std::string(line).substr(0, std::string(line).find('\n')));
        std::string field;
        while (std::getline(ss, field, '\t')) {
            fields.push_back(field);
        }
        fields.resize(5);
        rows.push_back(fields);
    }
    pclose(pipe);
    return rows;
}

// What the dissector must read back for one record.
struct Expected {
    std::string what;
    int version;
    std::string tcpStatus;
    std::uint32_t seq;
    std::uint32_t len;
    std::uint16_t id;
};

// Cuts one frame and appends its segments (from the IP header on) and what
// each must show.
void CutFrame(const FramePlan &plan, std::vector<Bytes> *ip, std::vector<Expected> *want) {
    const Bytes frame = BuildFrame(plan);
    MBUF_S *pkt = PacketOf(frame, {plan.linkLen + 7, 1001, 3, 0, 2999});
    ASSERT_NE(pkt, nullptr);
    SetTsoTlv(pkt, plan, HeaderDst(plan, frame));
    std::vector<MBUF_S *> segs(64, nullptr);
    std::uint32_t count = 0;
    ASSERT_EQ(MBUF_TSO_GetMbuf(pkt, segs.data(), 64 * sizeof(MBUF_S *), &count, kModule), 0u);
    ASSERT_EQ(count, (plan.payloadLen + plan.mss - 1) / plan.mss);
    for (std::uint32_t i = 0; i < count; ++i) {
        const Bytes seg = Flatten(segs[i]);
        ip->emplace_back(seg.begin() + plan.linkLen, seg.end());
        const std::uint32_t len = std::min<std::uint32_t>(plan.mss, plan.payloadLen - i * plan.mss);
        want->push_back({"v" + std::to_string(plan.version) + " payload " +
                             std::to_string(plan.payloadLen) + " segment " + std::to_string(i),
                         plan.version, "1", kSeq0 + i * plan.mss, len,
                         static_cast<std::uint16_t>(kIpId0 + i)});
        MBUF_Destroy(segs[i]);
    }
}

TEST_F(TsharkTest, DissectorAgreesWithEveryChecksumAndSequence) {
    if (!HaveTshark()) {
        GTEST_SKIP() << "tshark is not installed (scripts/setup.sh installs it)";
    }
    const FramePlan specs[] = {
        {4, 14, 20, 20, 65535 - 40, 1448, 0x18},
        {4, 0, 20, 32, 5 * 1000 + 1, 1000, 0x19},
        {6, 14, 40, 20, 20000, 1440, 0x18},
        {6, 0, 40, 32, 3 * 1220, 1220, 0x18},
    };
    std::vector<Bytes> ip;
    std::vector<Expected> want;
    for (const FramePlan &plan : specs) {
        CutFrame(plan, &ip, &want);
    }
    // A witness that cannot fail proves nothing: one copy with a flipped
    // payload byte must be seen as bad.
    ip.push_back(ip.front());
    ip.back().back() ^= 0x01;
    want.push_back(want.front());
    want.back().what = "corrupted copy";
    want.back().tcpStatus = "0";

    const std::string path = ::testing::TempDir() + "krm_tso_segments.pcap";
    WritePcap(path, ip);
    const auto rows = RunTshark(path);
    std::remove(path.c_str());
    ASSERT_EQ(rows.size(), want.size()) << "tshark read every segment";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto &r = rows[i];
        const Expected &w = want[i];
        // Status 1 is good after verification, 0 bad; IPv6 has no header sum.
        EXPECT_EQ(r[0], w.version == 4 ? "1" : "") << w.what << ": IP checksum";
        EXPECT_EQ(r[1], w.tcpStatus) << w.what << ": TCP checksum";
        EXPECT_EQ(std::stoul(r[2]), w.seq) << w.what;
        EXPECT_EQ(std::stoul(r[3]), w.len) << w.what;
        if (w.version == 4) {
            EXPECT_EQ(std::stoul(r[4], nullptr, 16), w.id) << w.what;
        }
    }
}

}  // namespace
}  // namespace krm::test
