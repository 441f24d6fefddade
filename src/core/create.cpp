// Creation of packets: copied from a flat buffer, reserved empty for a
// control or an application packet, or built from caller data of any length
// in a chain of nodes. A creator hands the packet to its caller or returns
// NULL having released everything it allocated.
#include <cstdint>

#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm {
namespace {

inline constexpr std::uint32_t kMaxCopyHeadRoom = MBUF_CLUSTER_SIZE;
inline constexpr std::uint32_t kMaxControlPacket = MBUF_CLUSTER_SIZE;
inline constexpr std::uint32_t kMaxAppHeadRoom = 2048;
inline constexpr std::uint32_t kMaxAppPacket = 65536;

// A one-node packet with ulLen data bytes placed behind ulHeadRoom bytes of
// room (the bytes themselves are the caller's to write). The allocator gives
// at least the size asked for, so only a sum that wrapped around 32 bits can
// leave the data beyond the node: such a packet is reported at ulLine and
// refused rather than written past its storage.
MBUF_S *PlacedPacket(std::uint32_t ulHeadRoom, std::uint32_t ulLen, std::uint32_t ulModuleId,
                     const MBUF_FILE_LINE_S *pstFl, std::uint32_t ulLine) {
    std::uint32_t ulCapacity = 0;
    MBUF_S *pstMbuf = AllocHeaderNode(ulHeadRoom + ulLen, &ulCapacity, ulModuleId, pstFl);
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    if (std::uint64_t{ulHeadRoom} + ulLen > ulCapacity) {
        ReportNoText(kModKrmMbuf, ulLine);
        MBUF_Free(pstMbuf, pstFl);
        return nullptr;
    }
    pstMbuf->ulTotalDataLen = ulLen;
    pstMbuf->pucData += ulHeadRoom;
    pstMbuf->ulDataLen = ulLen;
    return pstMbuf;
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API MBUF_S *MBUF_CreateByCopyBuffer_fl(uint32_t ulHeadRoom, uint32_t ulLen, const void *pBuf,
                                            uint32_t ulRsv, uint32_t ulModuleId,
                                            const char *pcFileName, uint32_t ulLine) {
    if (ulHeadRoom > krm::kMaxCopyHeadRoom || pBuf == nullptr) {
        return nullptr;
    }
    (void)ulRsv;
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    MBUF_S *pstMbuf = krm::PlacedPacket(ulHeadRoom, ulLen, ulModuleId, &stFl, 427);
    if (pstMbuf != nullptr) {
        (void)memmove_s(pstMbuf->pucData, ulLen, pBuf, ulLen);
    }
    return pstMbuf;
}

MBUF_API MBUF_S *MBUF_CreateForControlPacket_fl(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                                uint32_t ulModuleId, const char *pcFileName,
                                                uint32_t ulLine) {
    if (uint64_t{ulHeadRoom} + ulLen > krm::kMaxControlPacket) {
        return nullptr;
    }
    (void)ulRsv;
    // Within one cluster the node always holds the whole length behind the
    // room, so the reservation never falls short and is never reported.
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    return krm::PlacedPacket(ulHeadRoom, ulLen, ulModuleId, &stFl, 0);
}

MBUF_API MBUF_S *MBUF_CreateForAppPacket_fl(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                            uint32_t ulModuleId, const char *pcFileName,
                                            uint32_t ulLine) {
    if (ulHeadRoom > krm::kMaxAppHeadRoom || uint64_t{ulHeadRoom} + ulLen > krm::kMaxAppPacket) {
        krm::Report(krm::kModKrmMbuf, 515, "Alloc mbuf failed. len: %u/%u", ulHeadRoom, ulLen);
        return nullptr;
    }
    (void)ulRsv;
    const MBUF_FILE_LINE_S stFl = krm::FileLine(pcFileName, ulLine);
    return krm::PlacedPacket(ulHeadRoom, ulLen, ulModuleId, &stFl, 527);
}

MBUF_API MBUF_S *MBUF_CreateByCopyBuffer(uint32_t ulHeadRoom, uint32_t ulLen, const void *pBuf,
                                         uint32_t ulRsv, uint32_t ulModuleId) {
    constexpr krm::WrapperSite kSite = krm::wrap::kCreateByCopyBuffer;
    return MBUF_CreateByCopyBuffer_fl(ulHeadRoom, ulLen, pBuf, ulRsv, ulModuleId, kSite.pcName,
                                      kSite.ulLine);
}

MBUF_API MBUF_S *MBUF_CreateForControlPacket(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                             uint32_t ulModuleId) {
    constexpr krm::WrapperSite kSite = krm::wrap::kCreateForControlPacket;
    return MBUF_CreateForControlPacket_fl(ulHeadRoom, ulLen, ulRsv, ulModuleId, kSite.pcName,
                                          kSite.ulLine);
}

MBUF_API MBUF_S *MBUF_CreateForAppPacket(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                         uint32_t ulModuleId) {
    constexpr krm::WrapperSite kSite = krm::wrap::kCreateForAppPacket;
    return MBUF_CreateForAppPacket_fl(ulHeadRoom, ulLen, ulRsv, ulModuleId, kSite.pcName,
                                      kSite.ulLine);
}

}  // extern "C"
