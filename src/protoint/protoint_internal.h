// What the files of the protocol-interaction log share: the lock-mode rule,
// the identifier range, and where a packet's session identity lies in its
// stack-debug record.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"
#include "meta/stackdebug_layout.h"

namespace krm::protoint {

// Results of the lock calls.
inline constexpr std::uint32_t kLockOk = 0;
inline constexpr std::uint32_t kLockBadId = 2;
inline constexpr std::uint32_t kLockNotInited = 3;
inline constexpr std::uint32_t kLockFailed = 4;

// The identity rides in the record's head: the flag byte, then the first two
// control words. A record too short to hold them carries no identity.
inline constexpr std::uint32_t kIdFlagOff = meta::kSdCtlFlagOff;
inline constexpr std::uint32_t kIdSessOff = meta::kSdCtlWord1Off;
inline constexpr std::uint32_t kIdSeqOff = meta::kSdCtlWord2Off;
inline constexpr std::uint32_t kIdRecordMin = kIdSeqOff + 4;

// Locking is in force only in lock modes 1 and 2.
inline bool LockingOn(const MBUF_PROTOINT_CTX_S *pstCtx) {
    return pstCtx->ulLockMode == 1 || pstCtx->ulLockMode == 2;
}

inline bool IdInRange(std::uint32_t ulSessId) {
    return ulSessId >= 1 && ulSessId <= MBUF_PROTOINT_SESS_MAX;
}

// The packet's stack-debug record when the packet has a header and the
// record is long enough to carry the identity; nullptr otherwise.
std::uint8_t *IdentityRecord(MBUF_S *pstMbuf);

}  // namespace krm::protoint
