// Line-by-line printing of the stack-debug record, shared by
// MBUF_GetStackDebugInfo and the packet dump.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::meta {

// Formats the record's entries one after another. It carries the local time
// and zone of each column from one entry to the next, so entries must be fed
// in order from the first.
class SdLinePrinter {
  public:
    // One line for the entry at pucEntry into pcBuf; snprintf's result.
    int Line(const std::uint8_t *pucEntry, char *pcBuf, std::uint32_t ulSize);

  private:
    struct Column {
        KRM_SYSTIME_S stLocal{};
        char acZone[16] = {};
        void Take(const KRM_SYSTIME_S &stUniversal);
    };
    Column m_stFirst;
    Column m_stLast;
};

// How many entries of a stack-debug record are printed when ulRoom bytes of
// it may be read: none for a capacity of 0, else every one up to the current
// one, as long as it lies wholly inside those bytes.
std::uint32_t SdPrintableEntries(const std::uint8_t *pucRec, std::uint32_t ulRoom);

}  // namespace krm::meta
