// Writes the golden files of this build's byte order: for every described
// packet its TLV stream and its serial image, into the directory given as
// the only argument. Run once natively and once on the big-endian build.
#include <cstdio>
#include <vector>

#include "golden_packets.h"
#include "krm_mbuf/mbuf.h"

namespace {

constexpr std::uint32_t kModule = 0x00650000;

bool WriteFile(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    std::FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

// The stream as written: its head's length plus the 16 bytes before it.
std::vector<std::uint8_t> Stream(MBUF_S *pkt) {
    std::vector<std::uint8_t> buf(MBUF_CalcMbuf2TlvLen(pkt), 0);
    if (MBUF_TransMbuf2Tlv(pkt, buf.data(), static_cast<std::uint32_t>(buf.size()), kModule) != 0) {
        return {};
    }
    std::uint16_t len = 0;
    std::memcpy(&len, buf.data() + 2, 2);
    buf.resize(len + 16u);
    return buf;
}

std::vector<std::uint8_t> Image(MBUF_S *pkt) {
    std::vector<std::uint8_t> buf(MBUF_GetAllBlockSize(pkt), 0);
    if (buf.empty() || MBUF_Serialize(pkt, buf.data()) != 0) {
        return {};
    }
    return buf;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const char *order = krm::golden::HostOrderName();
    for (const krm::golden::PacketPlan &plan : krm::golden::Packets()) {
        MBUF_S *pkt = krm::golden::Build(plan, kModule);
        if (pkt == nullptr) {
            std::fprintf(stderr, "%s: cannot build\n", plan.name);
            return 1;
        }
        const std::vector<std::uint8_t> tlv = Stream(pkt);
        const std::vector<std::uint8_t> img = Image(pkt);
        MBUF_Destroy(pkt);
        if (tlv.empty() || img.empty() ||
            !WriteFile(dir + "/" + krm::golden::FileName(plan, order, "tlv"), tlv) ||
            !WriteFile(dir + "/" + krm::golden::FileName(plan, order, "img"), img)) {
            std::fprintf(stderr, "%s: cannot write\n", plan.name);
            return 1;
        }
        std::printf("%s: tlv %zu bytes, image %zu bytes (%s)\n", plan.name, tlv.size(), img.size(),
                    order);
    }
    return 0;
}
