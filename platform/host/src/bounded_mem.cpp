// Bounded memory functions. A call either does all it was asked or, on a
// violation, returns non-zero; memcpy_s and memset_s then clear what the
// destination owns (up to destMax) so that a caller ignoring the result does
// not go on with stale bytes. Sizes above kMaxDestSize are taken for a
// negative length gone unsigned and refused without touching anything.
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "krm_mbuf/platform.h"

namespace {

constexpr std::size_t kMaxDestSize = 0x7FFFFFFFu;

constexpr int kErrNull = EINVAL;
constexpr int kErrRange = ERANGE;
constexpr int kErrOverlap = EFAULT;

bool Overlap(const void *dest, const void *src, std::size_t count) {
    const std::uintptr_t d = reinterpret_cast<std::uintptr_t>(dest);
    const std::uintptr_t s = reinterpret_cast<std::uintptr_t>(src);
    return d < s ? s - d < count : d - s < count;
}

}  // namespace

extern "C" {

int memcpy_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (dest == nullptr || destMax > kMaxDestSize) {
        return dest == nullptr ? kErrNull : kErrRange;
    }
    if (count == 0) {
        return 0;
    }
    int error = 0;
    if (src == nullptr) {
        error = kErrNull;
    } else if (count > destMax) {
        error = kErrRange;
    } else if (Overlap(dest, src, count)) {
        error = kErrOverlap;
    }
    if (error != 0) {
        std::memset(dest, 0, destMax);
        return error;
    }
    std::memcpy(dest, src, count);
    return 0;
}

int memmove_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (dest == nullptr || destMax > kMaxDestSize) {
        return dest == nullptr ? kErrNull : kErrRange;
    }
    if (count == 0) {
        return 0;
    }
    if (src == nullptr) {
        return kErrNull;
    }
    if (count > destMax) {
        return kErrRange;
    }
    std::memmove(dest, src, count);
    return 0;
}

int memset_s(void *dest, size_t destMax, int c, size_t count) {
    if (dest == nullptr || destMax > kMaxDestSize) {
        return dest == nullptr ? kErrNull : kErrRange;
    }
    if (count > destMax) {
        std::memset(dest, 0, destMax);
        return kErrRange;
    }
    std::memset(dest, c, count);
    return 0;
}

}  // extern "C"
