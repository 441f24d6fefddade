// The control-block upgrade as the receive paths share it: a block written
// with another number of directory slots is rebuilt in the local 23-slot
// layout. The exported entry point bounds the old block by what the platform
// knows of its memory; the serial-image reader bounds it by the image.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm {

// Rebuilds pstMbuf's block (pstCtlInfo, written with ucSlotNum slots) in the
// local layout; ulReadable is how many bytes of the old block may be read.
// 0 done; 1002 NULL or no MBUF_PKTHDR; 1000 no block; 1016 the old block
// claims more than ulReadable holds; 1008 no memory. On any failure the
// packet is unchanged.
std::uint32_t UpgradeCtlBlock(MBUF_S *pstMbuf, std::uint32_t ulMemId, std::uint32_t bFreeOld,
                              std::uint32_t ulReadable, const char *pcFileName,
                              std::uint32_t ulLine);

}  // namespace krm
