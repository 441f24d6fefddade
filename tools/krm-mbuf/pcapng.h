// A pcapng writer: one section, interfaces added as they are first needed,
// enhanced packet blocks with direction flags and comments. Blocks are
// written in this host's byte order (the section's byte-order magic tells
// readers which) and flushed one by one, so a reader at the end of a pipe
// sees each packet as it is written.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace krm::tool {

inline constexpr std::uint16_t kLinkRawIp = 101;  // data starts with an IPv4 or IPv6 header
inline constexpr std::uint16_t kLinkUser0 = 147;  // anything else: the bytes as they are

enum class Direction : std::uint32_t { kUnknown = 0, kInbound = 1, kOutbound = 2 };

// The link type a packet's data calls for: raw IP when its first nibble is
// 4 with a sane header length, or 6; otherwise the user link type.
std::uint16_t LinkTypeFor(const std::uint8_t *pucData, std::size_t ulLen);

class PcapngWriter {
  public:
    // Writes the section header to pFile (not owned; stays open).
    explicit PcapngWriter(std::FILE *pFile, const std::string &strApp);

    // The interface for (name, link type), describing it on first use.
    std::uint32_t Interface(const std::string &strName, std::uint16_t usLinkType);

    // One enhanced packet block; tsUs is microseconds since the epoch.
    void Packet(std::uint32_t ulIf, std::uint64_t ullTsUs, const std::uint8_t *pucData,
                std::size_t ulLen, Direction eDir, const std::vector<std::string> &vComments);

    // False once any write failed (a closed reader, a full disk).
    bool Good() const { return m_bGood; }
    std::uint32_t Packets() const { return m_ulPackets; }

  private:
    struct Known {
        std::string strName;
        std::uint16_t usLink;
    };
    void Emit(const std::vector<std::uint8_t> &vBlock);

    std::FILE *m_pFile;
    std::vector<Known> m_vIfs;
    std::uint32_t m_ulPackets = 0;
    bool m_bGood = true;
};

}  // namespace krm::tool
