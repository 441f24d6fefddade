// Shorthands for the platform tests: one-entry pipe-buffer calls with a
// recognisable allocation site, the text a pointer has in reports, and the
// lines written to a temporary stream.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "krm_host/host.h"
#include "krm_mbuf/platform.h"

namespace krm::test::platform {

inline constexpr std::uint32_t kModule = 0x00650000u;
inline constexpr const char *kAllocFile = "alloc_site.cpp";
inline constexpr const char *kFreeFile = "free_site.cpp";

inline void *AllocDbuf(std::uint32_t len, std::uint32_t owner = kModule, std::uint32_t line = 11) {
    MBUF_IOVEC_S iovec{nullptr, len, 0};
    return KRM_DbufIovecAlloc_F(owner, 1, &iovec, kAllocFile, line) == 0 ? iovec.pBuf : nullptr;
}

inline std::uint32_t FreeDbuf(void *p, std::uint32_t line = 22) {
    MBUF_IOVEC_S iovec{p, 0, 0};
    return KRM_DbufIovecFree_F(1, &iovec, kFreeFile, line);
}

inline void *AllocPriv(std::uint32_t len, std::uint32_t owner = kModule, std::uint32_t line = 33) {
    return KRM_Malloc_F(owner, g_aucKrmMemPt[0], len, kAllocFile, line);
}

inline std::uint32_t FreePriv(void *p, std::uint32_t line = 44) {
    return KRM_Free_F(p, kFreeFile, line);
}

// Whether a buffer of len bytes can be had now; it is released again.
inline bool CanAlloc(std::uint32_t len, bool priv = false) {
    void *p = priv ? AllocPriv(len) : AllocDbuf(len);
    if (p != nullptr) {
        (void)(priv ? FreePriv(p) : FreeDbuf(p));
    }
    return p != nullptr;
}

// The pointer as the platform prints it.
inline std::string PtrText(const void *p) {
    char text[32];
    (void)std::snprintf(text, sizeof(text), "%p", p);
    return text;
}

using TempFile = std::unique_ptr<FILE, int (*)(FILE *)>;

inline TempFile OpenTempFile() {
    return TempFile(std::tmpfile(), &std::fclose);
}

// Everything written to the stream so far, line by line, newlines kept.
inline std::vector<std::string> LinesOf(FILE *stream) {
    std::vector<std::string> lines;
    char line[4096];
    std::rewind(stream);
    while (std::fgets(line, sizeof(line), stream) != nullptr) {
        lines.emplace_back(line);
    }
    return lines;
}

}  // namespace krm::test::platform
