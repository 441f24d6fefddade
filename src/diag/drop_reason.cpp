// Drop-reason and error codes to short texts for display. Every text is
// written as into a 40-byte buffer whatever the caller's buffer is, so the
// same code always shows the same (possibly cut) text.
#include <cstdarg>
#include <cstdio>

#include "diag/pads_lookup.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"

namespace krm::diag {
namespace {

constexpr std::uint32_t kPathMarker = 0x8000;
constexpr std::uint32_t kPathLimitType = 123;
constexpr std::uint32_t kPathTypeEnd = 170;
constexpr std::uint32_t kSockLastCode = 432;
constexpr std::uint32_t kLdmFirstTableLast = 0x4FFFF;
constexpr const char *kOtherReason = "Other Reason";

bool BadBuffer(const char *pcBuf, std::uint32_t ulBufLen) {
    return pcBuf == nullptr || ulBufLen < MBUF_PADS_TEXT_LEN;
}

// A formatter failure is raised with the line of the operation that met it;
// the caller still gets 0, as a cut text is not a failure.
__attribute__((format(printf, 3, 4))) void WriteText(char *pcBuf, std::uint32_t ulLine,
                                                     const char *pcFormat, ...) {
    va_list args;
    va_start(args, pcFormat);
    const int iRet = std::vsnprintf(pcBuf, MBUF_PADS_TEXT_LEN, pcFormat, args);
    va_end(args);
    if (iRet < 0) {
        ReportNoText(kModKrmMbufPads, ulLine);
    }
}

void WritePathText(std::uint32_t ulCode, char *pcBuf) {
    const std::uint32_t ulValue = ulCode & ~kPathMarker;
    const std::uint32_t ulType = (ulValue >> 2) & 0x1FFF;
    const std::uint32_t ulState = ulCode & 0x3;
    if (ulType == kPathLimitType) {
        WriteText(pcBuf, 61, "%s", "Path Limit");
    } else if (ulType >= kPathTypeEnd) {
        WriteText(pcBuf, 61, "Invalid TableType[%u]", ulType);
    } else if (ulState == 0) {
        WriteText(pcBuf, 61, "%s", "OK");
    } else if (ulState == 2) {
        WriteText(pcBuf, 61, "QueryError[%u]", ulValue);
    } else {
        WriteText(pcBuf, 61, "%s %s[%u]", g_apcPadsPathEntryStatus[ulState],
                  g_apcPadsPathEntryList[ulType], ulValue);
    }
}

void WriteSearched(const MBUF_PADS_ERRCODE_S *pstRows, std::uint32_t ulRows, std::uint32_t ulCode,
                   char *pcBuf, std::uint32_t ulLine) {
    const char *pcText = FindCodeText(pstRows, ulRows, ulCode);
    WriteText(pcBuf, ulLine, "%s", pcText != nullptr ? pcText : kOtherReason);
}

}  // namespace
}  // namespace krm::diag

using namespace krm::diag;

extern "C" {

MBUF_API uint32_t MBUF_PADS_TransPathErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen,
                                                    char *pcBuf) {
    if (BadBuffer(pcBuf, ulBufLen)) {
        return MBUF_PADS_ERR_PARA;
    }
    WritePathText(ulCode, pcBuf);
    return 0;
}

MBUF_API uint32_t MBUF_PADS_TransSockErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen,
                                                    char *pcBuf) {
    if (BadBuffer(pcBuf, ulBufLen)) {
        return MBUF_PADS_ERR_PARA;
    }
    if (ulCode == 0) {
        WriteText(pcBuf, 93, "%s", "OK");
    } else {
        WriteText(pcBuf, 93, "%s",
                  ulCode <= kSockLastCode ? g_apcPadsSockMbufDrop[ulCode] : kOtherReason);
    }
    return 0;
}

MBUF_API uint32_t MBUF_PADS_TransLdmErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen,
                                                   char *pcBuf) {
    if (BadBuffer(pcBuf, ulBufLen)) {
        return MBUF_PADS_ERR_PARA;
    }
    if (ulCode <= kLdmFirstTableLast) {
        WriteSearched(g_astPadsLdmErrorCode1, MBUF_PADS_LDM_CODE1_NUM, ulCode, pcBuf, 131);
    } else {
        WriteSearched(g_astPadsLdmErrorCode2, MBUF_PADS_LDM_CODE2_NUM, ulCode, pcBuf, 131);
    }
    return 0;
}

MBUF_API uint32_t MBUF_PADS_TransLlaErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen,
                                                   char *pcBuf) {
    if (BadBuffer(pcBuf, ulBufLen)) {
        return MBUF_PADS_ERR_PARA;
    }
    WriteSearched(g_astPadsLlaErrorCode, MBUF_PADS_LLA_CODE_NUM, ulCode, pcBuf, 162);
    return 0;
}

}  // extern "C"
