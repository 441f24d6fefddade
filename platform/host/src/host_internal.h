// What the host platform's files share: the buffer engine behind both
// allocation interfaces, fault injection, the report sink and the reset hooks.
// Everything here is hidden from the shared object's export table so calls
// between the files stay direct.
#pragma once

#include <atomic>
#include <cstdint>

#include "krm_host/host.h"

#pragma GCC visibility push(hidden)

namespace krm::host {

// ---- buffers ---------------------------------------------------------------

enum class BufKind : std::uint32_t {
    kDbuf = KRM_HOST_BUF_DBUF,
    kPriv = KRM_HOST_BUF_PRIV,
};

// Requests above this size fail: no message buffer comes near it, and a
// runaway length must not be handed to the system allocator.
inline constexpr std::uint32_t kMaxBufferLen = 256u * 1024u * 1024u;

// A new buffer of len bytes (a unique one for 0) with its header filled in,
// or nullptr. Counts one allocation attempt and honours fault injection.
void *AllocBuffer(BufKind kind, std::uint32_t len, std::uint32_t owner, const char *file,
                  std::uint32_t line);

// Why a pointer could not be released.
enum class FreeResult : std::uint32_t {
    kOk = 0,
    kForeign,      // no live buffer of this platform (pool chunks never used included)
    kInterior,     // inside a live buffer, not at its start
    kAlreadyFree,  // the start of a pool buffer released before
    kWrongKind,    // a live buffer of the other kind
};

// Releases p if it is the start of a live buffer of this kind; otherwise
// changes nothing and says why. Never reports: the caller does.
FreeResult FreeBuffer(void *p, BufKind kind);

// The text naming a FreeResult in reports, given the kind the caller expected.
const char *FreeResultText(FreeResult result, BufKind expected);

// Fills *info when p is the start of a live buffer (of any kind).
bool LookupLive(const void *p, KRM_HOST_BUF_INFO_S *info);

// Header fields a caller may change on a live buffer of the given kind.
bool SetCtrlFlag(const void *p, BufKind kind, std::uint32_t flag);
bool SetTraceId(const void *p, BufKind kind, std::uint32_t traceId);

// Calls visit for every live buffer; returns the count.
std::uint32_t VisitLive(KRM_HOST_VISIT_PF visit, void *arg);

// Accounting, summed over every thread that ever used the allocator.
std::uint32_t LiveCount();
std::uint32_t AttemptCount();  // since the last ResetAttemptCount
void ResetAttemptCount();

// ---- fault injection -------------------------------------------------------

// Non-zero while either fault is armed: the one load the hot path pays.
extern std::atomic<std::uint32_t> g_faultArmed;

// Decides, for an armed platform, whether this attempt of len bytes fails.
bool FaultHits(std::uint32_t len);
void ResetFaults();

inline bool FaultRequested(std::uint32_t len) {
    return g_faultArmed.load(std::memory_order_relaxed) != 0 && FaultHits(len);
}

// ---- reports ---------------------------------------------------------------

// The platform's own complaint (KRM_HOST_REPORT_PLATFORM), located at the
// caller's file and line.
void PlatformReport(const char *file, std::uint32_t line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void ResetReports();

// ---- clocks ------------------------------------------------------------------

void ResetClocks();

}  // namespace krm::host

#pragma GCC visibility pop
