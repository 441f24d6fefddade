#include "internal/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "krm_mbuf/platform.h"

namespace krm {

void Report(const char *pcModule, std::uint32_t ulLine, const char *pcFormat, ...) {
    char acText[kReportBufLen];
    std::memset(acText, 0, sizeof(acText));
    va_list args;
    va_start(args, pcFormat);
    // vsnprintf writes at most 64 characters and always terminates.
    (void)std::vsnprintf(acText, sizeof(acText), pcFormat, args);
    va_end(args);
    KRM_Assert(pcModule, ulLine, acText);
}

void ReportNoText(const char *pcModule, std::uint32_t ulLine) {
    KRM_Assert(pcModule, ulLine, nullptr);
}

}  // namespace krm
