#include "slab_registry.h"

#include <sys/mman.h>

#include <mutex>

#include "buffer_header.h"

namespace krm::host {

std::atomic<std::uintptr_t> g_slabTable[kRegistrySize];

namespace {

std::mutex g_slabLock;  // serialises registrations; lookups never take it
std::uint32_t g_slabCount = 0;

// A slab-aligned mapping: map twice the size and trim both ends.
unsigned char *MapAlignedSlab() {
    void *raw =
        ::mmap(nullptr, 2 * kSlabSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) {
        return nullptr;
    }
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t base = (start + kSlabMask) & ~kSlabMask;
    if (base > start) {
        (void)::munmap(raw, base - start);
    }
    const std::uintptr_t end = start + 2 * kSlabSize;
    if (end > base + kSlabSize) {
        (void)::munmap(reinterpret_cast<void *>(base + kSlabSize), end - (base + kSlabSize));
    }
    return reinterpret_cast<unsigned char *>(base);
}

}  // namespace

unsigned char *NewSlab(std::uint32_t cls) {
    const std::lock_guard<std::mutex> lock(g_slabLock);
    if (g_slabCount >= kRegistryMaxSlabs) {
        return nullptr;
    }
    unsigned char *slab = MapAlignedSlab();
    if (slab == nullptr) {
        return nullptr;
    }
    // Nothing in a new slab belongs to anyone yet.
    Poison(slab, kSlabSize);
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(slab);
    std::uint32_t slot = SlabSlot(base);
    while (g_slabTable[slot].load(std::memory_order_relaxed) != 0) {
        slot = (slot + 1) & (kRegistrySize - 1);
    }
    g_slabTable[slot].store(base | (cls + 1), std::memory_order_release);
    ++g_slabCount;
    return slab;
}

}  // namespace krm::host
