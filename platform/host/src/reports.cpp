// The report sink: every KRM_Assert, PLX_DiagLog and complaint of the platform
// is copied into an in-memory list, in order, for tests to inspect, and is
// echoed to a stream when asked. The list is bounded so that a report raised
// in a runaway loop cannot take all memory; beyond the bound reports are only
// counted.
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "host_internal.h"
#include "krm_mbuf/platform.h"

namespace krm::host {
namespace {

constexpr std::size_t kMaxReports = 100000;

struct StoredReport {
    std::uint32_t kind;
    std::string file;
    std::uint32_t line;
    std::uint32_t arg1;
    std::uint32_t arg2;
    bool hasText;
    std::string text;
};

// A deque never moves its elements on append, so the pointers ReportGet hands
// out stay valid until the list is cleared.
struct ReportSink {
    std::mutex lock;
    std::deque<StoredReport> reports;
    std::uint64_t dropped = 0;
    FILE *echo = nullptr;
    bool echoSet = false;  // ReportEcho overrides the environment
};

// Never destroyed: reports may be raised from destructors that run late.
ReportSink &Sink() {
    static ReportSink *const sink = new ReportSink;
    return *sink;
}

bool EnvEchoesToStderr() {
    static const bool echo = [] {
        const char *value = std::getenv("KRM_HOST_REPORTS");
        return value != nullptr && std::strcmp(value, "stderr") == 0;
    }();
    return echo;
}

const char *KindName(std::uint32_t kind) {
    switch (kind) {
        case KRM_HOST_REPORT_ASSERT:
            return "assert";
        case KRM_HOST_REPORT_DIAG:
            return "diag";
        default:
            return "platform";
    }
}

void EchoLocked(ReportSink &sink, const StoredReport &report) {
    FILE *out = sink.echoSet ? sink.echo : (EnvEchoesToStderr() ? stderr : nullptr);
    if (out == nullptr) {
        return;
    }
    const char *text = report.hasText ? report.text.c_str() : "(no text)";
    if (report.kind == KRM_HOST_REPORT_DIAG) {
        std::fprintf(out, "[diag] %" PRIu32 " 0x%08" PRIx32 ": %s\n", report.arg1, report.arg2,
                     text);
    } else {
        std::fprintf(out, "[%s] %s:%" PRIu32 ": %s\n", KindName(report.kind), report.file.c_str(),
                     report.line, text);
    }
    (void)std::fflush(out);
}

void Record(StoredReport &&report) noexcept {
    ReportSink &sink = Sink();
    const std::lock_guard<std::mutex> lock(sink.lock);
    EchoLocked(sink, report);
    if (sink.reports.size() >= kMaxReports) {
        if (sink.dropped++ == 0) {
            std::fprintf(stderr, "krm host: report list full at %zu entries, dropping the rest\n",
                         kMaxReports);
        }
        return;
    }
    try {
        sink.reports.push_back(std::move(report));
    } catch (...) {
        ++sink.dropped;
    }
}

__attribute__((format(printf, 1, 0))) std::string FormatV(const char *fmt, va_list args) {
    va_list probe;
    va_copy(probe, args);
    char small[256];
    const int needed = std::vsnprintf(small, sizeof(small), fmt, probe);
    va_end(probe);
    if (needed < 0) {
        return std::string();
    }
    if (static_cast<std::size_t>(needed) < sizeof(small)) {
        return std::string(small, static_cast<std::size_t>(needed));
    }
    std::string text(static_cast<std::size_t>(needed) + 1, '\0');
    (void)std::vsnprintf(text.data(), text.size(), fmt, args);
    text.resize(static_cast<std::size_t>(needed));
    return text;
}

__attribute__((format(printf, 6, 0))) void RecordText(std::uint32_t kind, const char *file,
                                                      std::uint32_t line, std::uint32_t arg1,
                                                      std::uint32_t arg2, const char *fmt,
                                                      va_list args) noexcept {
    try {
        StoredReport report{
            kind, file != nullptr ? file : "", line, arg1, arg2, fmt != nullptr, std::string()};
        if (fmt != nullptr) {
            report.text = FormatV(fmt, args);
        }
        Record(std::move(report));
    } catch (...) {
        // Out of memory while copying: the report is lost, the caller goes on.
    }
}

}  // namespace

void PlatformReport(const char *file, std::uint32_t line, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    RecordText(KRM_HOST_REPORT_PLATFORM, file, line, 0, 0, fmt, args);
    va_end(args);
}

void ResetReports() {
    ReportSink &sink = Sink();
    const std::lock_guard<std::mutex> lock(sink.lock);
    sink.reports.clear();
    sink.dropped = 0;
}

}  // namespace krm::host

extern "C" {

void KRM_Assert(const char *pcFile, uint32_t ulLine, const char *pcMessage) {
    try {
        krm::host::StoredReport report{
            KRM_HOST_REPORT_ASSERT, pcFile != nullptr ? pcFile : "",      ulLine, 0, 0,
            pcMessage != nullptr,   pcMessage != nullptr ? pcMessage : ""};
        krm::host::Record(std::move(report));
    } catch (...) {
        // Out of memory while copying: the report is lost, the caller goes on.
    }
}

void PLX_DiagLog(uint32_t ulArg1, uint32_t ulArg2, const char *pcFormat, ...) {
    va_list args;
    va_start(args, pcFormat);
    krm::host::RecordText(KRM_HOST_REPORT_DIAG, "", 0, ulArg1, ulArg2, pcFormat, args);
    va_end(args);
}

uint32_t KRM_HOST_ReportCount(void) {
    krm::host::ReportSink &sink = krm::host::Sink();
    const std::lock_guard<std::mutex> lock(sink.lock);
    return static_cast<uint32_t>(sink.reports.size());
}

uint32_t KRM_HOST_ReportGet(uint32_t ulIndex, KRM_HOST_REPORT_S *pstReport) {
    krm::host::ReportSink &sink = krm::host::Sink();
    const std::lock_guard<std::mutex> lock(sink.lock);
    if (pstReport == nullptr || ulIndex >= sink.reports.size()) {
        return 1;
    }
    const krm::host::StoredReport &stored = sink.reports[ulIndex];
    pstReport->ulKind = stored.kind;
    pstReport->pcFile = stored.file.c_str();
    pstReport->ulLine = stored.line;
    pstReport->ulArg1 = stored.arg1;
    pstReport->ulArg2 = stored.arg2;
    pstReport->bHasText = stored.hasText ? 1 : 0;
    pstReport->pcText = stored.text.c_str();
    return 0;
}

void KRM_HOST_ReportClear(void) {
    krm::host::ResetReports();
}

void KRM_HOST_ReportEcho(FILE *pstOut) {
    krm::host::ReportSink &sink = krm::host::Sink();
    const std::lock_guard<std::mutex> lock(sink.lock);
    sink.echo = pstOut;
    sink.echoSet = true;
}

}  // extern "C"
