// What the packet dump shows of the metadata this family owns: the three
// flag words and the stack-debug entries. The dump calls these; they read
// only what they are given and never change the packet.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm::meta {

// The head's packet flag word (from its block, "none" without one), ulFlag2
// and ulFlag3 as one line without line end, cut to ulSize - 1 characters.
void DumpFlagWords(const MBUF_S *pstHead, char *pcLine, std::uint32_t ulSize);

// Calls pfLine once per printed entry of the stack-debug record at pucRec,
// of which ulAvail bytes may be read, with the line MBUF_GetStackDebugInfo
// prints for it (without its line end).
using DumpLineFn = void (*)(void *pCtx, const char *pcLine);
void DumpStackDebugEntries(const std::uint8_t *pucRec, std::uint32_t ulAvail, DumpLineFn pfLine,
                           void *pCtx);

}  // namespace krm::meta
