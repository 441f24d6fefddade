// The stack-debug record (control record 21): a 28-byte head, then an array
// of 48-byte entries, one per component in the order the packet passed them.
// Stamping, printing and the dump share these offsets; the record sits at
// any 8-byte boundary of the block, so it is read through the byte helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::meta {

// Head.
inline constexpr std::uint32_t kSdHeadLenOff = 2;     // u16: head length behind the first 4 bytes
inline constexpr std::uint32_t kSdCapacityOff = 4;    // u8: entries the record holds
inline constexpr std::uint32_t kSdCurIndexOff = 5;    // u8: the current (last used) entry
inline constexpr std::uint32_t kSdEntrySizeOff = 6;   // u16
inline constexpr std::uint32_t kSdCtlFlagOff = 8;     // u8, OR-ed in
inline constexpr std::uint32_t kSdCtlByteOff = 9;     // u8
inline constexpr std::uint32_t kSdCtlHalfOff = 10;    // u16
inline constexpr std::uint32_t kSdCtlWord1Off = 12;   // u32
inline constexpr std::uint32_t kSdCtlWord2Off = 16;   // u32
inline constexpr std::uint32_t kSdCtlWord3Off = 20;   // u32
inline constexpr std::uint32_t kSdCtlHalf4Off = 24;   // u16
inline constexpr std::uint32_t kSdCtlHalf5Off = 26;   // u16
inline constexpr std::uint32_t kSdHeadLen = 28;       // entries start here
inline constexpr std::uint16_t kSdHeadLenValue = 24;  // what the head-length field holds
inline constexpr std::uint32_t kSdEntrySize = 48;

// Capacities: a new record holds 6 entries and grows by 6; a record is only
// stamped while its capacity is 1..19.
inline constexpr std::uint32_t kSdMinCapacity = 6;
inline constexpr std::uint32_t kSdGrowStep = 6;
inline constexpr std::uint32_t kSdMaxStampCapacity = 19;

// Entry.
inline constexpr std::uint32_t kSdCompOff = 0;        // u32: component id, 0 = free
inline constexpr std::uint32_t kSdUsecOff = 4;        // u32
inline constexpr std::uint32_t kSdFirstOff = 8;       // 12-byte system time
inline constexpr std::uint32_t kSdLastOff = 20;       // 12-byte system time
inline constexpr std::uint32_t kSdTickDeltaOff = 32;  // two u32: low, high
inline constexpr std::uint32_t kSdLastTickOff = 40;   // two u32: low, high
inline constexpr std::uint32_t kSysTimeLen = 12;

static_assert(sizeof(KRM_SYSTIME_S) == kSysTimeLen);
static_assert(sizeof(MBUF_STACKDEBUG_ENTRY_S) == kSdEntrySize);
static_assert(offsetof(MBUF_STACKDEBUG_ENTRY_S, aucFirstTime) == kSdFirstOff);
static_assert(offsetof(MBUF_STACKDEBUG_ENTRY_S, aucLastTime) == kSdLastOff);
static_assert(offsetof(MBUF_STACKDEBUG_ENTRY_S, aulTickDelta) == kSdTickDeltaOff);
static_assert(offsetof(MBUF_STACKDEBUG_ENTRY_S, aulLastTick) == kSdLastTickOff);

// Bytes of a record with n entries.
constexpr std::uint32_t SdRecordLen(std::uint32_t n) {
    return n * kSdEntrySize + kSdHeadLen;
}

inline std::uint8_t *SdEntry(std::uint8_t *rec, std::uint32_t index) {
    return rec + kSdHeadLen + index * kSdEntrySize;
}
inline const std::uint8_t *SdEntry(const std::uint8_t *rec, std::uint32_t index) {
    return rec + kSdHeadLen + index * kSdEntrySize;
}

inline KRM_SYSTIME_S LoadSysTime(const std::uint8_t *p) {
    KRM_SYSTIME_S t;
    std::memcpy(&t, p, sizeof(t));
    return t;
}
inline void StoreSysTime(std::uint8_t *p, const KRM_SYSTIME_S &t) {
    std::memcpy(p, &t, sizeof(t));
}
inline BEX_CPUTICK_S LoadTick(const std::uint8_t *p) {
    return BEX_CPUTICK_S{Load32At(p, 0), Load32At(p, 4)};
}
inline void StoreTick(std::uint8_t *p, const BEX_CPUTICK_S &t) {
    Store32At(p, 0, t.ulLow);
    Store32At(p, 4, t.ulHigh);
}

}  // namespace krm::meta
