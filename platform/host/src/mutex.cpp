// Mutexes named by handles. A handle carries the slot's index and a
// generation, so a handle kept after its mutex was destroyed is refused
// rather than locking whatever mutex took the slot. Slots live in chunks
// that never move once made, so a lock is taken without the table lock.
// Tests can make the Nth call of each operation fail; a disarmed platform
// pays one counter increment and one relaxed load per call.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "krm_host/host.h"
#include "krm_mbuf/platform.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace {

constexpr std::uint32_t kErrBadArgument = 1;
constexpr std::uint32_t kErrUnknownHandle = 2;
constexpr std::uint32_t kErrBusy = 3;
constexpr std::uint32_t kErrNotOwner = 4;
constexpr std::uint32_t kErrTableFull = 5;

constexpr std::uint32_t kSlotsPerChunk = 256;
constexpr std::uint32_t kChunkCount = 255;  // index + 1 fits 16 bits
constexpr std::uint32_t kMaxSlots = kSlotsPerChunk * kChunkCount;

struct Slot {
    std::mutex mutex;
    std::atomic<std::uint32_t> handle{0};  // 0 while free
    std::atomic<std::uintptr_t> owner{0};  // the locking thread's token
    std::uint32_t generation = 0;          // under the table lock
};

struct Chunk {
    Slot slots[kSlotsPerChunk];
};

struct MutexTable {
    std::mutex lock;  // creation and destruction
    std::atomic<Chunk *> chunks[kChunkCount] = {};
    std::uint32_t used = 0;  // slots ever handed out
    std::vector<std::uint32_t> freeSlots;
};

// Per operation: calls since the last reset, and calls until the one that
// is refused (0: none). The countdown is taken with a compare-exchange so
// that exactly one call among racing threads is refused.
struct MutexFaults {
    std::atomic<std::uint32_t> calls[KRM_HOST_MUTEX_OP_NUM] = {};
    std::atomic<std::uint32_t> failIn[KRM_HOST_MUTEX_OP_NUM] = {};
};

MutexFaults g_faults;

bool Refused(KRM_HOST_MUTEX_OP_E op) {
    g_faults.calls[op].fetch_add(1, std::memory_order_relaxed);
    std::atomic<std::uint32_t> &failIn = g_faults.failIn[op];
    std::uint32_t left = failIn.load(std::memory_order_relaxed);
    while (left != 0) {
        if (failIn.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
            return left == 1;
        }
    }
    return false;
}

// Never destroyed: mutexes may be used from destructors that run late.
MutexTable &Table() {
    static MutexTable *const table = new MutexTable;
    return *table;
}

std::uintptr_t SelfToken() {
    static thread_local char token;
    return reinterpret_cast<std::uintptr_t>(&token);
}

Slot *SlotAt(MutexTable &table, std::uint32_t index) {
    Chunk *chunk = table.chunks[index / kSlotsPerChunk].load(std::memory_order_acquire);
    return chunk != nullptr ? &chunk->slots[index % kSlotsPerChunk] : nullptr;
}

// The slot a handle currently names, or nullptr.
Slot *Find(std::uint32_t handle) {
    const std::uint32_t index = (handle & 0xFFFFu);
    if (index == 0 || index > kMaxSlots) {
        return nullptr;
    }
    Slot *slot = SlotAt(Table(), index - 1);
    if (slot == nullptr || slot->handle.load(std::memory_order_acquire) != handle) {
        return nullptr;
    }
    return slot;
}

}  // namespace

extern "C" {

uint32_t BEX_MutexInit(uint32_t *pulMutex) {
    if (Refused(KRM_HOST_MUTEX_INIT)) {
        return KRM_HOST_MUTEX_ERR_INJECTED;
    }
    if (pulMutex == nullptr) {
        return kErrBadArgument;
    }
    try {
        MutexTable &table = Table();
        const std::lock_guard<std::mutex> lock(table.lock);
        std::uint32_t index;
        if (!table.freeSlots.empty()) {
            index = table.freeSlots.back();
            table.freeSlots.pop_back();
        } else {
            if (table.used == kMaxSlots) {
                return kErrTableFull;
            }
            index = table.used;
            std::atomic<Chunk *> &chunk = table.chunks[index / kSlotsPerChunk];
            if (chunk.load(std::memory_order_relaxed) == nullptr) {
                chunk.store(new Chunk, std::memory_order_release);
            }
            ++table.used;
        }
        Slot *slot = SlotAt(table, index);
        slot->generation = (slot->generation + 1) & 0xFFFFu;
        if (slot->generation == 0) {
            slot->generation = 1;
        }
        const std::uint32_t handle = (slot->generation << 16) | (index + 1);
        slot->owner.store(0, std::memory_order_relaxed);
        slot->handle.store(handle, std::memory_order_release);
        *pulMutex = handle;
        return 0;
    } catch (...) {
        return kErrTableFull;
    }
}

uint32_t BEX_MutexLock(uint32_t ulMutex) {
    if (Refused(KRM_HOST_MUTEX_LOCK)) {
        return KRM_HOST_MUTEX_ERR_INJECTED;
    }
    Slot *slot = Find(ulMutex);
    if (slot == nullptr) {
        return kErrUnknownHandle;
    }
    // A second lock by the holder would never return.
    if (slot->owner.load(std::memory_order_relaxed) == SelfToken()) {
        return kErrBusy;
    }
    slot->mutex.lock();
    // Destroyed while this thread waited: the handle no longer names it.
    if (slot->handle.load(std::memory_order_acquire) != ulMutex) {
        slot->mutex.unlock();
        return kErrUnknownHandle;
    }
    slot->owner.store(SelfToken(), std::memory_order_relaxed);
    return 0;
}

uint32_t BEX_MutexUnlock(uint32_t ulMutex) {
    if (Refused(KRM_HOST_MUTEX_UNLOCK)) {
        return KRM_HOST_MUTEX_ERR_INJECTED;
    }
    Slot *slot = Find(ulMutex);
    if (slot == nullptr) {
        return kErrUnknownHandle;
    }
    if (slot->owner.load(std::memory_order_relaxed) != SelfToken()) {
        return kErrNotOwner;
    }
    slot->owner.store(0, std::memory_order_relaxed);
    slot->mutex.unlock();
    return 0;
}

uint32_t BEX_MutexDestroy(uint32_t ulMutex) {
    if (Refused(KRM_HOST_MUTEX_DESTROY)) {
        return KRM_HOST_MUTEX_ERR_INJECTED;
    }
    try {
        MutexTable &table = Table();
        const std::lock_guard<std::mutex> lock(table.lock);
        Slot *slot = Find(ulMutex);
        if (slot == nullptr) {
            return kErrUnknownHandle;
        }
        // try_lock by the holder itself is undefined for std::mutex.
        if (slot->owner.load(std::memory_order_relaxed) == SelfToken() || !slot->mutex.try_lock()) {
            return kErrBusy;
        }
        slot->handle.store(0, std::memory_order_release);
        slot->mutex.unlock();
#if defined(__SANITIZE_THREAD__)
        // The slot's next mutex is another one: without this the sanitizer
        // would join the lock orders of unrelated mutexes that shared it.
        __tsan_mutex_destroy(&slot->mutex, 0);
#endif
        table.freeSlots.push_back((ulMutex & 0xFFFFu) - 1);
        return 0;
    } catch (...) {
        return kErrBusy;
    }
}

void KRM_HOST_FailNthMutexOp(uint32_t ulOp, uint32_t ulNth) {
    if (ulOp < KRM_HOST_MUTEX_OP_NUM) {
        g_faults.failIn[ulOp].store(ulNth, std::memory_order_relaxed);
    }
}

uint32_t KRM_HOST_MutexOpCount(uint32_t ulOp) {
    return ulOp < KRM_HOST_MUTEX_OP_NUM ? g_faults.calls[ulOp].load(std::memory_order_relaxed) : 0;
}

uint32_t KRM_HOST_LiveMutexCount(void) {
    MutexTable &table = Table();
    const std::lock_guard<std::mutex> lock(table.lock);
    return table.used - static_cast<std::uint32_t>(table.freeSlots.size());
}

void KRM_HOST_ResetMutexFaults(void) {
    for (std::uint32_t op = 0; op < KRM_HOST_MUTEX_OP_NUM; ++op) {
        g_faults.failIn[op].store(0, std::memory_order_relaxed);
        g_faults.calls[op].store(0, std::memory_order_relaxed);
    }
}

}  // extern "C"
