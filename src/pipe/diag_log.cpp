#include "pipe/diag_log.h"

#include <cstdarg>
#include <cstdio>

#include "internal/report.h"
#include "krm_mbuf/platform.h"

namespace krm::pipe {

void DiagLog(const char *pcFormat, ...) {
    char acText[kDiagLogLen] = {};
    va_list args;
    va_start(args, pcFormat);
    const int rc = std::vsnprintf(acText, sizeof(acText), pcFormat, args);
    va_end(args);
    if (rc < 0) {
        Report(kModKrmMbufSend, 96, "vsnprintf return %d", rc);
        return;
    }
    PLX_DiagLog(kDiagLogModule, kDiagLogId, "%s", acText);
}

}  // namespace krm::pipe
