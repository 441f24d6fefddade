#include "pcapng.h"

#include <cstring>

namespace krm::tool {
namespace {

constexpr std::uint32_t kBlockSection = 0x0A0D0D0A;
constexpr std::uint32_t kBlockInterface = 1;
constexpr std::uint32_t kBlockEnhanced = 6;
constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint16_t kOptEnd = 0;
constexpr std::uint16_t kOptComment = 1;
constexpr std::uint16_t kOptIfName = 2;
constexpr std::uint16_t kOptShbUserAppl = 4;
constexpr std::uint16_t kOptEpbFlags = 2;
constexpr std::uint32_t kSnapLen = 262144;

// A block under construction; every field in host order.
class Block {
  public:
    explicit Block(std::uint32_t ulType) {
        Put32(ulType);
        Put32(0);  // total length, patched by Finish
    }
    void Put16(std::uint16_t v) { PutRaw(&v, sizeof(v)); }
    void Put32(std::uint32_t v) { PutRaw(&v, sizeof(v)); }
    void PutRaw(const void *p, std::size_t n) {
        const auto *q = static_cast<const std::uint8_t *>(p);
        m_v.insert(m_v.end(), q, q + n);
    }
    void Pad() {
        while (m_v.size() % 4 != 0) {
            m_v.push_back(0);
        }
    }
    // Options carry 16-bit lengths; longer values are cut (comments only).
    void Option(std::uint16_t usCode, const void *p, std::size_t n) {
        n = n > 0xFFF0 ? 0xFFF0 : n;
        Put16(usCode);
        Put16(static_cast<std::uint16_t>(n));
        PutRaw(p, n);
        Pad();
    }
    void Option(std::uint16_t usCode, const std::string &s) { Option(usCode, s.data(), s.size()); }
    const std::vector<std::uint8_t> &Finish() {
        Put16(kOptEnd);
        Put16(0);
        const auto ulTotal = static_cast<std::uint32_t>(m_v.size() + 4);
        std::memcpy(&m_v[4], &ulTotal, 4);
        Put32(ulTotal);
        return m_v;
    }

  private:
    std::vector<std::uint8_t> m_v;
};

}  // namespace

std::uint16_t LinkTypeFor(const std::uint8_t *pucData, std::size_t ulLen) {
    if (ulLen >= 20 && (pucData[0] >> 4) == 4 && (pucData[0] & 0xF) >= 5 &&
        static_cast<std::size_t>(pucData[0] & 0xF) * 4 <= ulLen) {
        return kLinkRawIp;
    }
    if (ulLen >= 40 && (pucData[0] >> 4) == 6) {
        return kLinkRawIp;
    }
    return kLinkUser0;
}

PcapngWriter::PcapngWriter(std::FILE *pFile, const std::string &strApp) : m_pFile(pFile) {
    Block stB(kBlockSection);
    stB.Put32(kByteOrderMagic);
    stB.Put16(1);
    stB.Put16(0);
    stB.Put32(0xFFFFFFFF);  // section length unknown (64 bits of -1)
    stB.Put32(0xFFFFFFFF);
    stB.Option(kOptShbUserAppl, strApp);
    Emit(stB.Finish());
}

std::uint32_t PcapngWriter::Interface(const std::string &strName, std::uint16_t usLinkType) {
    for (std::size_t i = 0; i < m_vIfs.size(); ++i) {
        if (m_vIfs[i].strName == strName && m_vIfs[i].usLink == usLinkType) {
            return static_cast<std::uint32_t>(i);
        }
    }
    Block stB(kBlockInterface);
    stB.Put16(usLinkType);
    stB.Put16(0);
    stB.Put32(kSnapLen);
    stB.Option(kOptIfName, strName);
    Emit(stB.Finish());
    m_vIfs.push_back({strName, usLinkType});
    return static_cast<std::uint32_t>(m_vIfs.size() - 1);
}

void PcapngWriter::Packet(std::uint32_t ulIf, std::uint64_t ullTsUs, const std::uint8_t *pucData,
                          std::size_t ulLen, Direction eDir,
                          const std::vector<std::string> &vComments) {
    const std::size_t ulCap = ulLen > kSnapLen ? kSnapLen : ulLen;
    Block stB(kBlockEnhanced);
    stB.Put32(ulIf);
    stB.Put32(static_cast<std::uint32_t>(ullTsUs >> 32));
    stB.Put32(static_cast<std::uint32_t>(ullTsUs));
    stB.Put32(static_cast<std::uint32_t>(ulCap));
    stB.Put32(static_cast<std::uint32_t>(ulLen));
    if (ulCap != 0) {
        stB.PutRaw(pucData, ulCap);
    }
    stB.Pad();
    for (const auto &s : vComments) {
        stB.Option(kOptComment, s);
    }
    const auto ulFlags = static_cast<std::uint32_t>(eDir);
    stB.Option(kOptEpbFlags, &ulFlags, sizeof(ulFlags));
    Emit(stB.Finish());
    ++m_ulPackets;
}

void PcapngWriter::Emit(const std::vector<std::uint8_t> &vBlock) {
    if (m_bGood && (std::fwrite(vBlock.data(), 1, vBlock.size(), m_pFile) != vBlock.size() ||
                    std::fflush(m_pFile) != 0)) {
        m_bGood = false;
    }
}

}  // namespace krm::tool
