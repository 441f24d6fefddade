// What the packet audit and the packet dump share: where a node's data may
// lie, the names of flags and record types, and a cycle-safe chain walk.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm::dbg {

// The storage a node's data must stay inside.
struct Storage {
    std::uintptr_t uiStart;
    std::uint32_t ulSize;
    bool bExternal;
};

Storage StorageOf(const MBUF_S *pstMbuf);

// Offset of pucData from the start of its storage; negative when before it.
std::int64_t DataOffset(const MBUF_S *pstMbuf, const Storage &stStorage);

// The bytes a head's control block really has: the node's inline area, or
// the pipe buffer it lives in as the platform knows it (0: no room, also
// for a block in no buffer the platform knows). 0 without a block.
std::uint32_t BlockMemory(const MBUF_S *pstHead);

// Name of a record type 0..22.
const char *RecordName(std::uint32_t ulType);

// The names of the flag bits set in ulFlag, separated by '|', into pcOut;
// "none" for 0.
void FlagNames(std::uint32_t ulFlag, char *pcOut, std::uint32_t ulSize);

// Result of a cycle-safe look at a chain.
struct ChainShape {
    std::uint32_t ulNodes;      // distinct nodes (bounded by MBUF_DBG_MAX_NODES)
    bool bCycle;                // the last node links back into the chain
    std::uint32_t ulLoopStart;  // with bCycle: the index the chain loops back to
    bool bTooLong;              // more than MBUF_DBG_MAX_NODES nodes
};

ChainShape ShapeOf(const MBUF_S *pstHead);

}  // namespace krm::dbg
