// Service failures on the send paths are logged, not returned: the text is
// formatted into a 512-byte buffer and written to the platform's diagnostic
// log under the pipe's log identifiers.
#pragma once

#include <cstdint>

namespace krm::pipe {

inline constexpr std::uint32_t kDiagLogLen = 512;
inline constexpr std::uint32_t kDiagLogModule = 2780;
inline constexpr std::uint32_t kDiagLogId = 0x0872100F;

// Formats (at most 511 characters, truncated) and logs; a format that
// cannot be formatted is reported instead.
void DiagLog(const char *pcFormat, ...) __attribute__((format(printf, 1, 2)));

}  // namespace krm::pipe
