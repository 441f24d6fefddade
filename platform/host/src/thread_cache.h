// The per-thread chunk cache and the allocator's fast paths.
//
// The fast paths serve the common case, a pool-sized buffer taken from or
// returned to this thread's cache, with one thread-local access, no lock and
// no atomic read-modify-write. They either complete the whole operation or
// change nothing and decline, leaving it to AllocBuffer / FreeBuffer, which
// handle every case (refills, flushes, large buffers, faults, bad pointers).
#pragma once

#include <cstdint>

#include "buffer_header.h"
#include "host_internal.h"
#include "slab_registry.h"

#pragma GCC visibility push(hidden)

namespace krm::host {

// Chunks a thread caches per class. Under AddressSanitizer there is no cache
// (every operation takes the slow path, which poisons and unpoisons, and the
// free rings hand out the oldest chunk first so a released chunk stays
// poisoned as long as possible).
inline constexpr std::uint32_t kCacheSlots = kAsan ? 0 : 64;

enum ThreadState : std::uint32_t { kThreadNew = 0, kThreadActive = 1, kThreadExited = 2 };

// Plain data in static TLS: zero at thread start, reached without an
// initialisation check or a TLS lookup call (initial-exec: the host platform
// is linked into its programs, not loaded later with dlopen). Counters are written by the owning
// thread only (relaxed atomic stores) and read by queries on other threads.
struct ThreadCache {
    std::uint32_t state;
    std::uint32_t limit;  // kCacheSlots while active, 0 before and after
    std::uint32_t count[kClassCount];
    std::uint32_t allocs;
    std::uint32_t frees;
    std::uint32_t attempts;
    ThreadCache *prev;  // the list of active threads, under the thread lock
    ThreadCache *next;
    void *slots[kClassCount][kCacheSlots > 0 ? kCacheSlots : 1];
};

extern __thread ThreadCache t_cache __attribute__((tls_model("initial-exec")));

inline void Bump(std::uint32_t &counter) {
    __atomic_store_n(&counter, counter + 1, __ATOMIC_RELAXED);
}

inline std::uint32_t ClassOfLen(std::uint32_t len) {
    return len <= kClassMaxLen[0] ? 0 : (len <= kClassMaxLen[1] ? 1 : 2);
}

// A buffer from this thread's cache, or nullptr to take the slow path.
inline void *TryAllocFast(BufKind kind, std::uint32_t len, std::uint32_t owner, const char *file,
                          std::uint32_t line) {
    ThreadCache &tc = t_cache;
    if (len > kClassMaxLen[kClassCount - 1] || tc.state != kThreadActive ||
        g_faultArmed.load(std::memory_order_relaxed) != 0) {
        return nullptr;
    }
    const std::uint32_t cls = ClassOfLen(len);
    const std::uint32_t n = tc.count[cls];
    if (n == 0) {
        return nullptr;
    }
    void *p = tc.slots[cls][n - 1];
    tc.count[cls] = n - 1;
    WriteLiveHeader(HeaderOf(p), LiveState(static_cast<std::uint32_t>(kind), cls), len, owner, file,
                    line);
    Unpoison(p, len);
    Bump(tc.attempts);
    Bump(tc.allocs);
    return p;
}

// Releases p into this thread's cache when it is a live pool buffer of this
// kind found on the first registry probe and the cache has room; false (and
// nothing changed) otherwise.
inline bool TryFreeFast(void *p, BufKind kind) {
    const std::uintptr_t addr = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t base = addr & ~kSlabMask;
    const std::uintptr_t entry = g_slabTable[SlabSlot(base)].load(std::memory_order_acquire);
    if (entry == 0 || (entry & ~kSlabMask) != base) {
        return false;
    }
    const std::uint32_t cls = static_cast<std::uint32_t>(entry & kSlabMask) - 1;
    if ((addr & ((512u << cls) - 1)) != kDataOffset) {
        return false;
    }
    BufHeader *h = HeaderOf(p);
    if (ReadState(h) != LiveState(static_cast<std::uint32_t>(kind), cls)) {
        return false;
    }
    ThreadCache &tc = t_cache;
    const std::uint32_t n = tc.count[cls];
    if (n >= tc.limit) {
        return false;
    }
    WriteState(h, kStateFree);
    Poison(p, kClassStride[cls] - kDataOffset);
    tc.slots[cls][n] = p;
    tc.count[cls] = n + 1;
    Bump(tc.frees);
    return true;
}

}  // namespace krm::host

#pragma GCC visibility pop
