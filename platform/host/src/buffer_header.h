// The hidden header in front of every buffer, and the poisoning that lets
// AddressSanitizer catch the library touching what it does not own.
//
// Under AddressSanitizer the header of a live buffer, the padding behind its
// length and every free pool chunk stay poisoned; the allocator reaches its
// headers only through the accessors below, which are not instrumented, so
// no other code can read or write a header without a report.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define KRM_HOST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KRM_HOST_ASAN 1
#endif
#endif

#ifdef KRM_HOST_ASAN
#include <sanitizer/asan_interface.h>
#define KRM_HOST_NO_ASAN __attribute__((no_sanitize_address))
#else
#define KRM_HOST_NO_ASAN
#endif

#pragma GCC visibility push(hidden)

namespace krm::host {

#ifdef KRM_HOST_ASAN
inline constexpr bool kAsan = true;
inline void Poison(const void *p, std::size_t n) {
    ASAN_POISON_MEMORY_REGION(p, n);
}
inline void Unpoison(const void *p, std::size_t n) {
    ASAN_UNPOISON_MEMORY_REGION(p, n);
}
#else
inline constexpr bool kAsan = false;
inline void Poison(const void *, std::size_t) {}
inline void Unpoison(const void *, std::size_t) {}
#endif

// The header is 32 bytes on every build and sits right in front of the data.
// Data starts 64 bytes into a pool chunk or a system-allocator block, so it
// begins a cache line (the first 32 bytes of the chunk are unused).
inline constexpr std::size_t kHeaderSize = 32;
inline constexpr std::size_t kDataOffset = 64;
inline constexpr std::size_t kDataAlign = 64;
static_assert(kDataOffset >= kHeaderSize && kDataOffset % kDataAlign == 0);

// The state word: a live buffer carries the live mark with its kind and size
// class; a released pool chunk keeps the free mark so that a second release
// is told apart from a pointer that never was a buffer. A pool chunk never
// handed out reads 0 (slab memory starts zeroed).
inline constexpr std::uint32_t kLiveMark = 0x4B4C0000u;
inline constexpr std::uint32_t kMarkMask = 0xFFFF0000u;
inline constexpr std::uint32_t kStateFree = 0x4B46DEADu;
inline constexpr std::uint32_t kClassLarge = 3;  // system-allocator buffer

inline constexpr std::uint32_t LiveState(std::uint32_t kind, std::uint32_t cls) {
    return kLiveMark | (kind << 8) | cls;
}
inline constexpr bool IsLive(std::uint32_t state) {
    return (state & kMarkMask) == kLiveMark;
}
inline constexpr std::uint32_t StateKind(std::uint32_t state) {
    return (state >> 8) & 0xFFu;
}

struct alignas(16) BufHeader {
    std::uint32_t state;  // written and read with atomic builtins
    std::uint32_t len;
    std::uint32_t owner;
    std::uint32_t ctrlFlag;
    std::uint32_t traceId;
    std::uint32_t line;
    const char *file;  // the caller's literal; never copied
};
static_assert(sizeof(BufHeader) == kHeaderSize, "the data must start 32 bytes in");

// A copy of a header taken without tripping the poison.
struct HeaderView {
    std::uint32_t state;
    std::uint32_t len;
    std::uint32_t owner;
    std::uint32_t ctrlFlag;
    std::uint32_t traceId;
    std::uint32_t line;
    const char *file;
};

inline BufHeader *HeaderOf(const void *data) {
    return reinterpret_cast<BufHeader *>(
        const_cast<unsigned char *>(static_cast<const unsigned char *>(data)) - kHeaderSize);
}

KRM_HOST_NO_ASAN inline std::uint32_t ReadState(const BufHeader *h) {
    return __atomic_load_n(&h->state, __ATOMIC_ACQUIRE);
}

KRM_HOST_NO_ASAN inline void WriteState(BufHeader *h, std::uint32_t state) {
    __atomic_store_n(&h->state, state, __ATOMIC_RELEASE);
}

KRM_HOST_NO_ASAN inline void WriteLiveHeader(BufHeader *h, std::uint32_t state, std::uint32_t len,
                                             std::uint32_t owner, const char *file,
                                             std::uint32_t line) {
    h->len = len;
    h->owner = owner;
    h->ctrlFlag = 0;
    h->traceId = 0;
    h->line = line;
    h->file = file;
    __atomic_store_n(&h->state, state, __ATOMIC_RELEASE);
}

KRM_HOST_NO_ASAN inline HeaderView ReadHeader(const BufHeader *h) {
    HeaderView v;
    v.state = __atomic_load_n(&h->state, __ATOMIC_ACQUIRE);
    v.len = h->len;
    v.owner = h->owner;
    v.ctrlFlag = h->ctrlFlag;
    v.traceId = h->traceId;
    v.line = h->line;
    v.file = h->file;
    return v;
}

KRM_HOST_NO_ASAN inline std::uint32_t ReadLen(const BufHeader *h) {
    return h->len;
}

KRM_HOST_NO_ASAN inline void WriteCtrlFlag(BufHeader *h, std::uint32_t flag) {
    h->ctrlFlag = flag;
}

KRM_HOST_NO_ASAN inline void WriteTraceId(BufHeader *h, std::uint32_t traceId) {
    h->traceId = traceId;
}

}  // namespace krm::host

#pragma GCC visibility pop
