#include "meta/meta_dump.h"

#include <cstdio>
#include <cstring>

#include "internal/bytes.h"
#include "meta/ctlinfo_block.h"
#include "meta/stackdebug_layout.h"
#include "meta/stackdebug_print.h"

namespace krm::meta {

void DumpFlagWords(const MBUF_S *pstHead, char *pcLine, std::uint32_t ulSize) {
    if (pcLine == nullptr || ulSize == 0) {
        return;
    }
    char acPacket[16] = "none";
    // A block in a buffer the platform does not know has no word to read.
    if (pstHead->pstCtlInfo != nullptr && ctl::MemLen(pstHead) >= sizeof(std::uint32_t)) {
        (void)std::snprintf(acPacket, sizeof(acPacket), "0x%08X",
                            Load32(&pstHead->pstCtlInfo->stComm.ulFlag));
    }
    (void)std::snprintf(pcLine, ulSize, "flag words: packet %s flag2 0x%08X flag3 0x%08X", acPacket,
                        pstHead->ulFlag2, pstHead->ulFlag3);
}

void DumpStackDebugEntries(const std::uint8_t *pucRec, std::uint32_t ulAvail, DumpLineFn pfLine,
                           void *pCtx) {
    const std::uint32_t ulEntries = SdPrintableEntries(pucRec, ulAvail);
    SdLinePrinter stPrinter;
    char acLine[192];
    for (std::uint32_t i = 0; i < ulEntries; ++i) {
        const int iLen = stPrinter.Line(SdEntry(pucRec, i), acLine, sizeof(acLine));
        if (iLen < 0) {
            return;
        }
        // The dump ends its lines itself.
        acLine[std::strcspn(acLine, "\r\n")] = '\0';
        pfLine(pCtx, acLine);
    }
}

}  // namespace krm::meta
