// Typed access to byte-exact records. Records inside the control block and
// the wire forms sit at arbitrary offsets, so they are read and written
// through these helpers rather than through casts to misaligned structs.
#pragma once

#include <cstdint>
#include <cstring>

namespace krm {

inline std::uint16_t Swap16(std::uint16_t v) {
    return __builtin_bswap16(v);
}
inline std::uint32_t Swap32(std::uint32_t v) {
    return __builtin_bswap32(v);
}

// Host-order loads and stores at any alignment.
inline std::uint16_t Load16(const void *p) {
    std::uint16_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}
inline std::uint32_t Load32(const void *p) {
    std::uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}
inline void Store16(void *p, std::uint16_t v) {
    std::memcpy(p, &v, sizeof(v));
}
inline void Store32(void *p, std::uint32_t v) {
    std::memcpy(p, &v, sizeof(v));
}

// Loads and stores at a byte offset from a record's start.
inline std::uint16_t Load16At(const void *base, std::uint32_t off) {
    return Load16(static_cast<const std::uint8_t *>(base) + off);
}
inline std::uint32_t Load32At(const void *base, std::uint32_t off) {
    return Load32(static_cast<const std::uint8_t *>(base) + off);
}
inline void Store16At(void *base, std::uint32_t off, std::uint16_t v) {
    Store16(static_cast<std::uint8_t *>(base) + off, v);
}
inline void Store32At(void *base, std::uint32_t off, std::uint32_t v) {
    Store32(static_cast<std::uint8_t *>(base) + off, v);
}

// Reverses a 16-bit or 32-bit field in place: the whole of a byte-order
// conversion.
inline void SwapInPlace16(void *p) {
    Store16(p, Swap16(Load16(p)));
}
inline void SwapInPlace32(void *p) {
    Store32(p, Swap32(Load32(p)));
}

// Network-order (big-endian) loads and stores, for packet headers.
inline std::uint16_t LoadBe16(const void *p) {
    const auto *b = static_cast<const std::uint8_t *>(p);
    return static_cast<std::uint16_t>((b[0] << 8) | b[1]);
}
inline std::uint32_t LoadBe32(const void *p) {
    const auto *b = static_cast<const std::uint8_t *>(p);
    return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) |
           b[3];
}
inline void StoreBe16(void *p, std::uint16_t v) {
    auto *b = static_cast<std::uint8_t *>(p);
    b[0] = static_cast<std::uint8_t>(v >> 8);
    b[1] = static_cast<std::uint8_t>(v);
}
inline void StoreBe32(void *p, std::uint32_t v) {
    auto *b = static_cast<std::uint8_t *>(p);
    b[0] = static_cast<std::uint8_t>(v >> 24);
    b[1] = static_cast<std::uint8_t>(v >> 16);
    b[2] = static_cast<std::uint8_t>(v >> 8);
    b[3] = static_cast<std::uint8_t>(v);
}

}  // namespace krm
