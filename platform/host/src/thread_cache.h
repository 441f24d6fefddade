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
    // Per class, the slab this thread last took a chunk from, as its
    // registry entry (base | class + 1; 0 for none). Only registered slabs
    // ever appear here, so a pointer in one of them may be looked at
    // without asking the registry.
    std::uintptr_t slabHint[kClassCount];
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
    tc.slabHint[cls] = (reinterpret_cast<std::uintptr_t>(p) & ~kSlabMask) | (cls + 1);
    WriteLiveHeader(HeaderOf(p), LiveState(static_cast<std::uint32_t>(kind), cls), len, owner, file,
                    line);
    Unpoison(p, len);
    Bump(tc.attempts);
    Bump(tc.allocs);
    return p;
}

// The registry entry of the slab at base: from this thread's hints when it
// is one of them (the common case: a buffer released by the thread that
// took it), else from the first registry probe; 0 when neither knows it.
inline std::uintptr_t SlabEntryFast(const ThreadCache &tc, std::uintptr_t base) {
    for (std::uint32_t cls = 0; cls < kClassCount; ++cls) {
        if (tc.slabHint[cls] == (base | (cls + 1))) {
            return tc.slabHint[cls];
        }
    }
    const std::uintptr_t entry = g_slabTable[SlabSlot(base)].load(std::memory_order_acquire);
    return (entry & ~kSlabMask) == base ? entry : 0;
}

// Releases p into this thread's cache when it is a live pool buffer of this
// kind in a slab the hints or the first registry probe know, and the cache
// has room; false (and nothing changed) otherwise.
inline bool TryFreeFast(void *p, BufKind kind) {
    const std::uintptr_t addr = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t base = addr & ~kSlabMask;
    ThreadCache &tc = t_cache;
    const std::uintptr_t entry = SlabEntryFast(tc, base);
    if (entry == 0) {
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
