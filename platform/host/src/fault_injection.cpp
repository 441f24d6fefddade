// Allocation faults for tests: the nth attempt from now, or every attempt of
// one size. Disarmed, an allocation pays a single relaxed load; armed, every
// attempt of every thread passes through one lock so the countdown is exact.
#include <mutex>

#include "host_internal.h"

namespace krm::host {

std::atomic<std::uint32_t> g_faultArmed{0};

namespace {

std::mutex g_faultLock;
std::uint32_t g_failNth = 0;   // attempts until the one that fails; 0: off
std::uint32_t g_failSize = 0;  // 0: off

void Rearm() {
    g_faultArmed.store((g_failNth != 0 || g_failSize != 0) ? 1u : 0u, std::memory_order_relaxed);
}

}  // namespace

bool FaultHits(std::uint32_t len) {
    const std::lock_guard<std::mutex> lock(g_faultLock);
    bool fail = false;
    if (g_failNth != 0 && --g_failNth == 0) {
        fail = true;
    }
    if (g_failSize != 0 && len == g_failSize) {
        fail = true;
    }
    Rearm();
    return fail;
}

void ResetFaults() {
    const std::lock_guard<std::mutex> lock(g_faultLock);
    g_failNth = 0;
    g_failSize = 0;
    Rearm();
}

}  // namespace krm::host

extern "C" {

void KRM_HOST_FailNthAlloc(uint32_t ulNth) {
    const std::lock_guard<std::mutex> lock(krm::host::g_faultLock);
    krm::host::g_failNth = ulNth;
    krm::host::Rearm();
}

void KRM_HOST_FailAllocOfSize(uint32_t ulSize) {
    const std::lock_guard<std::mutex> lock(krm::host::g_faultLock);
    krm::host::g_failSize = ulSize;
    krm::host::Rearm();
}

}  // extern "C"
