// What `inspect` prints of a decoded packet form; also used for the packet
// comments of captures.
#pragma once

#include <string>
#include <vector>

#include "sink.h"
#include "wire.h"

namespace krm::tool {

void ShowDecoded(const Decoded &stDec, Sink &stOut);

// The bits set in a flag word by name ("bit0|bit5"; "none").
std::string BitNames(std::uint32_t ulWord);

// Short one-line summaries of a packet's flag words and records, for
// packet comments.
std::vector<std::string> PacketComments(const DecodedPacket &stPkt);

}  // namespace krm::tool
