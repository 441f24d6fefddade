// Shared inputs and checks of the core tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "mbuf_check.h"

namespace krm::test {

inline constexpr std::uint32_t kModule = 0x4D42;
inline constexpr const char *kFile = "core_test";

// The header of a live buffer (fails the test when there is none).
inline KRM_HOST_BUF_INFO_S InfoOf(const void *pBuf) {
    KRM_HOST_BUF_INFO_S info{};
    EXPECT_EQ(KRM_HOST_BufferInfo(pBuf, &info), 0u) << "not a live buffer";
    return info;
}

// A live pipe buffer of ulLen bytes allocated for the test module at the site.
inline void ExpectSite(const void *pBuf, std::uint32_t ulLen, std::uint32_t ulLine,
                       const char *pcFile = kFile) {
    const KRM_HOST_BUF_INFO_S info = InfoOf(pBuf);
    EXPECT_EQ(std::tuple(info.ulLen, info.ulKind),
              std::tuple(ulLen, std::uint32_t{KRM_HOST_BUF_DBUF}));
    EXPECT_EQ(SiteOf(pBuf), Site(pcFile, ulLine, kModule));
}

inline bool HasExt(const MBUF_S *pstMbuf) {
    return (pstMbuf->ulFlag & MBUF_EXT) != 0;
}

inline MBUF_S *PlainNode(std::uint32_t ulSize) {
    std::uint32_t capacity = 0;
    return MBUF_AllocateMBufNode_fl(ulSize, 0, &capacity, kModule, kFile, 1);
}

inline MBUF_S *HeaderNode(std::uint32_t ulSize) {
    std::uint32_t capacity = 0;
    return MBUF_AllocateMBufHeader_fl(ulSize, 0, &capacity, kModule, kFile, 1);
}

inline MBUF_S *WithData(const void *pSrc, std::int32_t lLen, std::uint32_t ulHeadRoom = 0) {
    return MBUF_CreateMbufWithBufferData(pSrc, lLen, ulHeadRoom, 0, nullptr, kModule, nullptr);
}

// A node initialised on the caller's storage (not allocated).
inline void InitNode(MBUF_S *pstMbuf, std::uint32_t ulFlag) {
    std::memset(pstMbuf, 0x77, sizeof(*pstMbuf));
    const MBUF_STRUCT_INIT_S init{ulFlag, MBUF_TYPE_DATA};
    ASSERT_EQ(MBUF_StructInit(pstMbuf, sizeof(*pstMbuf), &init), 0u);
    pstMbuf->pucExtBuf = nullptr;
}

// A node in words: kind, storage and where its data lies in it, e.g.
// "hdr ext 1960 +100 len 20" or "plain inline +0 len 50". What does not add up
// (an external buffer that is not a live buffer of that size, a buffer
// pointer left on an inline node) is spelled out as well.
inline std::string Shape(const MBUF_S *pstMbuf) {
    const bool header = (pstMbuf->ulFlag & MBUF_PKTHDR) != 0;
    std::string text = header ? "hdr " : "plain ";
    const std::uint8_t *base = header ? pstMbuf->aucHdrInlineData : pstMbuf->aucInlineData;
    KRM_HOST_BUF_INFO_S info{};
    if (HasExt(pstMbuf)) {
        text += "ext " + std::to_string(pstMbuf->ulExtSize);
        if (KRM_HOST_BufferInfo(pstMbuf->pucExtBuf, &info) != 0 ||
            info.ulLen != pstMbuf->ulExtSize) {
            text += " (not such a buffer)";
        }
        base = pstMbuf->pucExtBuf;
    } else {
        text += pstMbuf->pucExtBuf == nullptr ? "inline" : "inline (stale buffer pointer)";
    }
    const auto offset =
        reinterpret_cast<std::intptr_t>(pstMbuf->pucData) - reinterpret_cast<std::intptr_t>(base);
    return text + " +" + std::to_string(offset) + " len " + std::to_string(pstMbuf->ulDataLen);
}

// The shapes of a chain's nodes, joined by "; ".
inline std::string Shapes(const MBUF_S *pstMbuf) {
    std::string text;
    for (const MBUF_S *n = pstMbuf; n != nullptr; n = n->pstNext) {
        text += (text.empty() ? "" : "; ") + Shape(n);
    }
    return text;
}

}  // namespace krm::test
