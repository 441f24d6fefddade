// Shared inputs of the core tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "mbuf_check.h"

namespace krm::test {

inline constexpr std::uint32_t kTestModule = 0x4D42;
inline constexpr const char *kTestFile = "core_test";

// The site a live buffer was allocated from, and its length and owner.
inline KRM_HOST_BUF_INFO_S InfoOf(const void *pBuf) {
    KRM_HOST_BUF_INFO_S info{};
    EXPECT_EQ(KRM_HOST_BufferInfo(pBuf, &info), 0u) << "not a live buffer";
    return info;
}

// A node initialised on the caller's storage (not allocated).
inline void InitNode(MBUF_S *pstMbuf, std::uint32_t ulFlag) {
    std::memset(pstMbuf, 0x77, sizeof(*pstMbuf));
    const MBUF_STRUCT_INIT_S init{ulFlag, MBUF_TYPE_DATA};
    ASSERT_EQ(MBUF_StructInit(pstMbuf, sizeof(*pstMbuf), &init), 0u);
    pstMbuf->pucExtBuf = nullptr;
}

inline bool HasExt(const MBUF_S *pstMbuf) {
    return (pstMbuf->ulFlag & MBUF_EXT) != 0;
}

}  // namespace krm::test
