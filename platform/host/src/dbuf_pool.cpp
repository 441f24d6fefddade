// The buffer engine behind pipe buffers and private memory.
//
// Requests up to 1960 bytes come from three size-class pools, larger ones from
// the system allocator. Each thread keeps a small cache of free chunks per
// class and trades them with the class's global free ring in batches, under
// the class lock; a thread that ends hands its cache back. A buffer may be
// released on any thread: its chunk simply joins the releasing thread's cache.
//
// Accounting stays off the shared cache lines: each thread counts its own
// allocations, releases and attempts (plain stores, read by others with
// relaxed loads), a query sums the threads, and an ending thread folds its
// counts into the global totals.
#include <cstdlib>
#include <mutex>
#include <set>
#include <vector>

#include "buffer_header.h"
#include "host_internal.h"
#include "slab_registry.h"
#include "thread_cache.h"

namespace krm::host {

__thread ThreadCache t_cache;

namespace {

// A chunk holds its class's largest request behind the data offset.
static_assert(kClassMaxLen[0] + kDataOffset <= kClassStride[0] &&
                  kClassMaxLen[1] + kDataOffset <= kClassStride[1] &&
                  kClassMaxLen[2] + kDataOffset <= kClassStride[2],
              "a chunk holds its largest request");

// Chunks moved per trade between a thread's cache and a class's free ring.
constexpr std::uint32_t kBatch = 32;
static_assert(kAsan || (kBatch > 0 && kBatch <= kCacheSlots), "a trade must fit the cache");

// ---- accounting ----------------------------------------------------------------

std::mutex g_threadLock;  // the thread list and the folded totals
ThreadCache *g_threads = nullptr;
std::atomic<std::uint32_t> g_foldedAllocs{0};
std::atomic<std::uint32_t> g_foldedFrees{0};
std::atomic<std::uint32_t> g_foldedAttempts{0};
std::uint32_t g_attemptBase = 0;  // under g_threadLock

inline std::uint32_t Peek(const std::uint32_t &counter) {
    return __atomic_load_n(&counter, __ATOMIC_RELAXED);
}

// ---- class pools ---------------------------------------------------------------

// The free chunks of one class, as a ring sized for every chunk ever carved,
// so adding to it never allocates.
struct ClassPool {
    std::mutex lock;
    void **ring = nullptr;
    std::uint32_t capacity = 0;
    std::uint32_t head = 0;
    std::uint32_t size = 0;

    void PushBack(void *chunk) {
        std::uint32_t at = head + size;
        if (at >= capacity) {
            at -= capacity;
        }
        ring[at] = chunk;
        ++size;
    }
    void *PopBack() {
        --size;
        std::uint32_t at = head + size;
        if (at >= capacity) {
            at -= capacity;
        }
        return ring[at];
    }
    void *PopFront() {
        void *chunk = ring[head];
        head = (head + 1 == capacity) ? 0 : head + 1;
        --size;
        return chunk;
    }
    void *Take() { return kAsan ? PopFront() : PopBack(); }

    // Grows the ring by a slab's worth of chunks and fills it with a new slab.
    bool Carve(std::uint32_t cls) {
        const std::uint32_t stride = kClassStride[cls];
        const std::uint32_t perSlab = static_cast<std::uint32_t>(kSlabSize / stride);
        void **grown = static_cast<void **>(std::malloc(sizeof(void *) * (capacity + perSlab)));
        if (grown == nullptr) {
            return false;
        }
        unsigned char *slab = NewSlab(cls);
        if (slab == nullptr) {
            std::free(grown);
            return false;
        }
        for (std::uint32_t i = 0; i < size; ++i) {
            std::uint32_t at = head + i;
            if (at >= capacity) {
                at -= capacity;
            }
            grown[i] = ring[at];
        }
        std::free(ring);
        ring = grown;
        capacity += perSlab;
        head = 0;
        // Lowest addresses are handed out first.
        for (std::uint32_t i = perSlab; i-- > 0;) {
            PushBack(slab + static_cast<std::size_t>(i) * stride + kDataOffset);
        }
        return true;
    }
};

ClassPool g_pools[kClassCount];

// Moves up to n free chunks of class cls into out; 0 when memory is exhausted.
std::uint32_t TakeChunks(std::uint32_t cls, void **out, std::uint32_t n) {
    ClassPool &pool = g_pools[cls];
    const std::lock_guard<std::mutex> lock(pool.lock);
    if (pool.size == 0 && !pool.Carve(cls)) {
        return 0;
    }
    const std::uint32_t taken = pool.size < n ? pool.size : n;
    for (std::uint32_t i = 0; i < taken; ++i) {
        out[i] = pool.Take();
    }
    return taken;
}

void GiveChunks(std::uint32_t cls, void *const *in, std::uint32_t n) {
    ClassPool &pool = g_pools[cls];
    const std::lock_guard<std::mutex> lock(pool.lock);
    for (std::uint32_t i = 0; i < n; ++i) {
        pool.PushBack(in[i]);
    }
}

// ---- thread lifetime -------------------------------------------------------------

struct CacheOwner {
    bool armed = false;
    ~CacheOwner();
};

thread_local CacheOwner t_owner;

void RegisterThread(ThreadCache &tc) {
    {
        const std::lock_guard<std::mutex> lock(g_threadLock);
        tc.prev = nullptr;
        tc.next = g_threads;
        if (g_threads != nullptr) {
            g_threads->prev = &tc;
        }
        g_threads = &tc;
    }
    tc.limit = kCacheSlots;
    tc.state = kThreadActive;
    t_owner.armed = true;  // its destructor hands the cache back at thread exit
}

// The cache goes back to the pools and the counts into the totals. A thread
// that still allocates after this (from a later thread-exit destructor) works
// directly on the pools and the totals.
CacheOwner::~CacheOwner() {
    ThreadCache &tc = t_cache;
    for (std::uint32_t cls = 0; cls < kClassCount; ++cls) {
        if (tc.count[cls] != 0) {
            GiveChunks(cls, tc.slots[cls], tc.count[cls]);
            tc.count[cls] = 0;
        }
    }
    tc.limit = 0;
    const std::lock_guard<std::mutex> lock(g_threadLock);
    g_foldedAllocs.fetch_add(tc.allocs, std::memory_order_relaxed);
    g_foldedFrees.fetch_add(tc.frees, std::memory_order_relaxed);
    g_foldedAttempts.fetch_add(tc.attempts, std::memory_order_relaxed);
    tc.allocs = tc.frees = tc.attempts = 0;
    if (tc.prev != nullptr) {
        tc.prev->next = tc.next;
    } else {
        g_threads = tc.next;
    }
    if (tc.next != nullptr) {
        tc.next->prev = tc.prev;
    }
    tc.prev = tc.next = nullptr;
    tc.state = kThreadExited;
}

// Counting for a thread that is not (or no longer) active.
__attribute__((noinline)) void CountSlow(ThreadCache &tc, std::uint32_t ThreadCache::*field,
                                         std::atomic<std::uint32_t> &folded) {
    if (tc.state == kThreadNew) {
        RegisterThread(tc);
    }
    if (tc.state == kThreadActive) {
        Bump(tc.*field);
    } else {
        folded.fetch_add(1, std::memory_order_relaxed);
    }
}

inline void Count(ThreadCache &tc, std::uint32_t ThreadCache::*field,
                  std::atomic<std::uint32_t> &folded) {
    if (__builtin_expect(tc.state == kThreadActive, 1)) {
        Bump(tc.*field);
    } else {
        CountSlow(tc, field, folded);
    }
}

__attribute__((noinline)) void *PopChunkSlow(ThreadCache &tc, std::uint32_t cls) {
    if (tc.limit == 0) {
        void *chunk = nullptr;
        return TakeChunks(cls, &chunk, 1) != 0 ? chunk : nullptr;
    }
    const std::uint32_t taken = TakeChunks(cls, tc.slots[cls], kBatch);
    if (taken == 0) {
        return nullptr;
    }
    tc.count[cls] = taken - 1;
    return tc.slots[cls][taken - 1];
}

__attribute__((noinline)) void PushChunkSlow(ThreadCache &tc, std::uint32_t cls, void *chunk) {
    if (tc.limit == 0) {
        GiveChunks(cls, &chunk, 1);
        return;
    }
    // Hand back the older half; the most recently used chunks stay warm here.
    GiveChunks(cls, tc.slots[cls], kBatch);
    const std::uint32_t kept = tc.count[cls] - kBatch;
    for (std::uint32_t i = 0; i < kept; ++i) {
        tc.slots[cls][i] = tc.slots[cls][i + kBatch];
    }
    tc.slots[cls][kept] = chunk;
    tc.count[cls] = kept + 1;
}

// ---- system-allocator buffers ---------------------------------------------------------

struct LargeBuffers {
    std::mutex lock;
    std::set<std::uintptr_t> live;  // data addresses
};

// Never destroyed: buffers may be released from destructors that run late.
LargeBuffers &Large() {
    static LargeBuffers *const large = new LargeBuffers;
    return *large;
}

void *AllocLarge(BufKind kind, std::uint32_t len, std::uint32_t owner, const char *file,
                 std::uint32_t line) {
    void *raw = nullptr;
    if (::posix_memalign(&raw, kDataAlign, kDataOffset + len) != 0) {
        return nullptr;
    }
    unsigned char *data = static_cast<unsigned char *>(raw) + kDataOffset;
    WriteLiveHeader(HeaderOf(data), LiveState(static_cast<std::uint32_t>(kind), kClassLarge), len,
                    owner, file, line);
    Poison(raw, kDataOffset);
    LargeBuffers &large = Large();
    try {
        const std::lock_guard<std::mutex> lock(large.lock);
        large.live.insert(reinterpret_cast<std::uintptr_t>(data));
    } catch (...) {
        Unpoison(raw, kDataOffset);
        std::free(raw);
        return nullptr;
    }
    return data;
}

// The header of the live system-allocator buffer starting at p, or nullptr;
// with the lock held by the caller.
BufHeader *FindLargeLocked(LargeBuffers &large, const void *p) {
    return large.live.count(reinterpret_cast<std::uintptr_t>(p)) != 0 ? HeaderOf(p) : nullptr;
}

FreeResult FreeLarge(void *p, BufKind kind) {
    LargeBuffers &large = Large();
    {
        const std::lock_guard<std::mutex> lock(large.lock);
        const std::uintptr_t addr = reinterpret_cast<std::uintptr_t>(p);
        auto it = large.live.upper_bound(addr);
        if (it == large.live.begin()) {
            return FreeResult::kForeign;
        }
        --it;
        const BufHeader *h = HeaderOf(reinterpret_cast<const void *>(*it));
        if (*it != addr) {
            return addr - *it < ReadLen(h) ? FreeResult::kInterior : FreeResult::kForeign;
        }
        if (StateKind(ReadState(h)) != static_cast<std::uint32_t>(kind)) {
            return FreeResult::kWrongKind;
        }
        large.live.erase(it);
    }
    unsigned char *raw = static_cast<unsigned char *>(p) - kDataOffset;
    Unpoison(raw, kDataOffset);
    std::free(raw);
    return FreeResult::kOk;
}

// ---- pool buffers -------------------------------------------------------------------

inline bool OnChunkGrid(const void *p, int cls) {
    return (reinterpret_cast<std::uintptr_t>(p) & (kClassStride[cls] - 1)) == kDataOffset;
}

// The header of the live buffer starting at p, of either origin, or nullptr.
BufHeader *FindLive(const void *p) {
    const int cls = SlabClassOf(p);
    if (cls >= 0) {
        if (!OnChunkGrid(p, cls)) {
            return nullptr;
        }
        BufHeader *h = HeaderOf(p);
        return IsLive(ReadState(h)) ? h : nullptr;
    }
    LargeBuffers &large = Large();
    const std::lock_guard<std::mutex> lock(large.lock);
    return FindLargeLocked(large, p);
}

KRM_HOST_BUF_INFO_S InfoOf(const void *p, const HeaderView &v) {
    KRM_HOST_BUF_INFO_S info{};
    info.pBuf = p;
    info.ulLen = v.len;
    info.ulOwner = v.owner;
    info.ulCtrlFlag = v.ctrlFlag;
    info.ulTraceId = v.traceId;
    info.ulKind = StateKind(v.state);
    info.pcFile = v.file;
    info.ulLine = v.line;
    return info;
}

}  // namespace

void *AllocBuffer(BufKind kind, std::uint32_t len, std::uint32_t owner, const char *file,
                  std::uint32_t line) {
    ThreadCache &tc = t_cache;
    Count(tc, &ThreadCache::attempts, g_foldedAttempts);
    if (FaultRequested(len)) {
        return nullptr;
    }
    void *p;
    if (len <= kClassMaxLen[kClassCount - 1]) {
        const std::uint32_t cls = ClassOfLen(len);
        std::uint32_t &n = tc.count[cls];
        p = n != 0 ? tc.slots[cls][--n] : PopChunkSlow(tc, cls);
        if (p == nullptr) {
            return nullptr;
        }
        tc.slabHint[cls] = (reinterpret_cast<std::uintptr_t>(p) & ~kSlabMask) | (cls + 1);
        WriteLiveHeader(HeaderOf(p), LiveState(static_cast<std::uint32_t>(kind), cls), len, owner,
                        file, line);
        Unpoison(p, len);
    } else {
        if (len > kMaxBufferLen) {
            return nullptr;
        }
        p = AllocLarge(kind, len, owner, file, line);
        if (p == nullptr) {
            return nullptr;
        }
    }
    Count(tc, &ThreadCache::allocs, g_foldedAllocs);
    return p;
}

FreeResult FreeBuffer(void *p, BufKind kind) {
    const int cls = SlabClassOf(p);
    if (cls < 0) {
        const FreeResult result = FreeLarge(p, kind);
        if (result == FreeResult::kOk) {
            Count(t_cache, &ThreadCache::frees, g_foldedFrees);
        }
        return result;
    }
    if (!OnChunkGrid(p, cls)) {
        return FreeResult::kInterior;
    }
    BufHeader *h = HeaderOf(p);
    const std::uint32_t state = ReadState(h);
    if (!IsLive(state)) {
        return state == kStateFree ? FreeResult::kAlreadyFree : FreeResult::kForeign;
    }
    if (StateKind(state) != static_cast<std::uint32_t>(kind)) {
        return FreeResult::kWrongKind;
    }
    WriteState(h, kStateFree);
    Poison(p, kClassStride[cls] - kDataOffset);
    ThreadCache &tc = t_cache;
    std::uint32_t &n = tc.count[cls];
    if (n < tc.limit) {
        tc.slots[cls][n++] = p;
    } else {
        PushChunkSlow(tc, static_cast<std::uint32_t>(cls), p);
    }
    Count(tc, &ThreadCache::frees, g_foldedFrees);
    return FreeResult::kOk;
}

const char *FreeResultText(FreeResult result, BufKind expected) {
    switch (result) {
        case FreeResult::kOk:
            return "is a live buffer";
        case FreeResult::kForeign:
            return "is not a live buffer of this platform";
        case FreeResult::kInterior:
            return "is not the start of a buffer";
        case FreeResult::kAlreadyFree:
            return "was already freed";
        case FreeResult::kWrongKind:
            return expected == BufKind::kDbuf ? "is private memory, not a pipe buffer"
                                              : "is a pipe buffer, not private memory";
    }
    return "cannot be freed";
}

bool LookupLive(const void *p, KRM_HOST_BUF_INFO_S *info) {
    const BufHeader *h = FindLive(p);
    if (h == nullptr) {
        return false;
    }
    *info = InfoOf(p, ReadHeader(h));
    return true;
}

bool SetCtrlFlag(const void *p, BufKind kind, std::uint32_t flag) {
    BufHeader *h = FindLive(p);
    if (h == nullptr || StateKind(ReadState(h)) != static_cast<std::uint32_t>(kind)) {
        return false;
    }
    WriteCtrlFlag(h, flag);
    return true;
}

bool SetTraceId(const void *p, BufKind kind, std::uint32_t traceId) {
    BufHeader *h = FindLive(p);
    if (h == nullptr || StateKind(ReadState(h)) != static_cast<std::uint32_t>(kind)) {
        return false;
    }
    WriteTraceId(h, traceId);
    return true;
}

std::uint32_t VisitLive(KRM_HOST_VISIT_PF visit, void *arg) {
    std::vector<KRM_HOST_BUF_INFO_S> found;
    ForEachSlab([&](unsigned char *slab, std::uint32_t cls) {
        const std::uint32_t stride = kClassStride[cls];
        for (std::size_t off = 0; off + stride <= kSlabSize; off += stride) {
            const unsigned char *data = slab + off + kDataOffset;
            const HeaderView v = ReadHeader(HeaderOf(data));
            if (IsLive(v.state)) {
                found.push_back(InfoOf(data, v));
            }
        }
    });
    {
        LargeBuffers &large = Large();
        const std::lock_guard<std::mutex> lock(large.lock);
        for (const std::uintptr_t addr : large.live) {
            const void *data = reinterpret_cast<const void *>(addr);
            found.push_back(InfoOf(data, ReadHeader(HeaderOf(data))));
        }
    }
    // The visitor runs without locks held: it may allocate or release.
    if (visit != nullptr) {
        for (const KRM_HOST_BUF_INFO_S &info : found) {
            visit(&info, arg);
        }
    }
    return static_cast<std::uint32_t>(found.size());
}

std::uint32_t LiveCount() {
    const std::lock_guard<std::mutex> lock(g_threadLock);
    std::uint32_t live = g_foldedAllocs.load(std::memory_order_relaxed) -
                         g_foldedFrees.load(std::memory_order_relaxed);
    for (const ThreadCache *tc = g_threads; tc != nullptr; tc = tc->next) {
        live += Peek(tc->allocs) - Peek(tc->frees);
    }
    return live;
}

namespace {

std::uint32_t TotalAttemptsLocked() {
    std::uint32_t total = g_foldedAttempts.load(std::memory_order_relaxed);
    for (const ThreadCache *tc = g_threads; tc != nullptr; tc = tc->next) {
        total += Peek(tc->attempts);
    }
    return total;
}

}  // namespace

std::uint32_t AttemptCount() {
    const std::lock_guard<std::mutex> lock(g_threadLock);
    return TotalAttemptsLocked() - g_attemptBase;
}

void ResetAttemptCount() {
    const std::lock_guard<std::mutex> lock(g_threadLock);
    g_attemptBase = TotalAttemptsLocked();
}

}  // namespace krm::host
