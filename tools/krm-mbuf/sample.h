// The packets the road sends: built the same way on both ends from their
// number alone, so each end can check what arrived without being told.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace krm::tool {

inline constexpr std::uint32_t kToolModule = 0x00650001u;
// Who stamps the packet on its road: the sender as it sends, the peer as it
// turns the packet round, the sender again as it takes it back.
inline constexpr std::uint32_t kCompSender = 0x00660001u;
inline constexpr std::uint32_t kCompPeer = 0x00780001u;
inline constexpr std::uint32_t kCompBack = 0x00650001u;

// Packet number ulIndex: an IPv4/UDP datagram of a size that walks through
// inline, multi-node and external-buffer shapes, with common fields, two
// fixed records, flag words and the sender's stamp. NULL when allocation
// failed.
MBUF_S *MakeSample(std::uint32_t ulIndex);

// What of a packet must survive the road: data, flag words, common fields,
// every record but the stamps (byte for byte, in this host's order), and
// the stamping components in order.
struct Snapshot {
    std::vector<std::uint8_t> vData;
    std::uint32_t ulFlag2 = 0;
    std::uint32_t ulFlag3 = 0;
    std::map<std::uint32_t, std::vector<std::uint8_t>> mRecords;
    std::vector<std::uint32_t> vStampComps;
};
Snapshot Snap(MBUF_S *pstMbuf);

// "" when equal, else what differs first, in a few words.
std::string Differs(const Snapshot &stWant, const Snapshot &stGot);

// The stamps a packet should carry after the given stations stamped it.
void Stamp(MBUF_S *pstMbuf, std::uint32_t ulComp);

}  // namespace krm::tool
