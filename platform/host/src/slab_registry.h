// Pool memory comes in slabs: 256 KiB, aligned to their size, never returned.
// The registry is a fixed open-addressing table of slab bases, each tagged
// with the size class its chunks belong to. Entries are only ever added (under
// a lock) and read without one, so a release can tell from the pointer value
// alone, without touching memory that may not be ours, whether the pointer
// lies in a slab and which chunk grid it must sit on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)

namespace krm::host {

inline constexpr std::size_t kSlabSize = 256u * 1024u;
inline constexpr std::uintptr_t kSlabMask = kSlabSize - 1;

// Pool size classes: the largest request each serves and its chunk stride (a
// power of two, header included, so a chunk boundary is a mask test).
inline constexpr std::uint32_t kClassCount = 3;
inline constexpr std::uint32_t kClassMaxLen[kClassCount] = {448, 936, 1960};
inline constexpr std::uint32_t kClassStride[kClassCount] = {512, 1024, 2048};
static_assert(kClassStride[1] == 512u << 1 && kClassStride[2] == 512u << 2, "strides double");

// Registry capacity: enough slabs for 3 GiB of pool at three quarters load.
inline constexpr std::uint32_t kRegistryBits = 14;
inline constexpr std::uint32_t kRegistrySize = 1u << kRegistryBits;
inline constexpr std::uint32_t kRegistryMaxSlabs = kRegistrySize / 4 * 3;

extern std::atomic<std::uintptr_t> g_slabTable[kRegistrySize];

inline std::uint32_t SlabSlot(std::uintptr_t base) {
    const std::uint64_t key = static_cast<std::uint64_t>(base >> 18);
    return static_cast<std::uint32_t>((key * 0x9E3779B97F4A7C15ull) >> (64 - kRegistryBits));
}

// The size class of the slab that holds p, or -1 when p lies in no slab.
inline int SlabClassOf(const void *p) {
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(p) & ~kSlabMask;
    std::uint32_t slot = SlabSlot(base);
    for (;;) {
        const std::uintptr_t entry = g_slabTable[slot].load(std::memory_order_acquire);
        if (entry == 0) {
            return -1;
        }
        if ((entry & ~kSlabMask) == base) {
            return static_cast<int>(entry & kSlabMask) - 1;
        }
        slot = (slot + 1) & (kRegistrySize - 1);
    }
}

// Maps a fresh slab of size class cls and registers it; nullptr when the
// system has no memory left or the registry is full.
unsigned char *NewSlab(std::uint32_t cls);

// Calls visit(base, cls) for every registered slab.
template <typename F>
void ForEachSlab(F &&visit) {
    for (std::uint32_t slot = 0; slot < kRegistrySize; ++slot) {
        const std::uintptr_t entry = g_slabTable[slot].load(std::memory_order_acquire);
        if (entry != 0) {
            visit(reinterpret_cast<unsigned char *>(entry & ~kSlabMask),
                  static_cast<std::uint32_t>(entry & kSlabMask) - 1);
        }
    }
}

}  // namespace krm::host

#pragma GCC visibility pop
