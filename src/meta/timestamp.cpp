// The time-stamp record (control record 11): ten 32-bit stamps a component
// sets at points of its own choosing, each the milliseconds within the
// current hour. Cheap enough for the forwarding path; the hour wraps, and
// whoever reads two stamps knows they were taken within it.
#include <cstdint>

#include "core/wrapper_sites.h"
#include "internal/bytes.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"

namespace {

constexpr std::uint32_t kStampCount = 10;
constexpr std::uint32_t kStampRecordLen = kStampCount * 4;

}  // namespace

extern "C" {

MBUF_API void MBUF_SetTimeStampEx_fl(MBUF_S *pstMbuf, uint32_t ulIndex, uint32_t bCreate,
                                     uint32_t ulModuleId, const char *pcFileName, uint32_t ulLine) {
    void *pRec = MBUF_GetControlInfo(pstMbuf, MBUF_CTL_TIMESTAMP);
    if (ulIndex >= kStampCount) {
        return;
    }
    if (pRec == nullptr) {
        if (bCreate == 0) {
            return;
        }
        if (MBUF_CreateControlInfo_fl(pstMbuf, MBUF_CTL_TIMESTAMP, kStampRecordLen, ulModuleId,
                                      pcFileName, ulLine) != MBUF_OK) {
            return;
        }
        pRec = MBUF_GetControlInfo(pstMbuf, MBUF_CTL_TIMESTAMP);
        if (pRec == nullptr) {
            krm::ReportNoText(krm::kModKrmMbuf, 1746);
            return;
        }
    }
    // A record made shorter than the ten stamps still takes the stamp where
    // it would lie, as long as that is inside the block's memory.
    if (!krm::ctl::InMem(pstMbuf, static_cast<std::uint8_t *>(pRec) + ulIndex * 4, 4)) {
        return;
    }
    KRM_SYSTIME_S stTime{};
    if (KRM_SystimeGet(&stTime) != 0) {
        return;
    }
    krm::Store32At(pRec, ulIndex * 4,
                   stTime.ucMinute * 60000u + stTime.ucSecond * 1000u + stTime.ulMillSec);
}

MBUF_API void MBUF_SetTimeStampEx(MBUF_S *pstMbuf, uint32_t ulIndex, uint32_t bCreate,
                                  uint32_t ulModuleId) {
    MBUF_SetTimeStampEx_fl(pstMbuf, ulIndex, bCreate, ulModuleId, krm::wrap::kSetTimeStampEx.pcName,
                           krm::wrap::kSetTimeStampEx.ulLine);
}

}  // extern "C"
