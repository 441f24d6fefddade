// The library's one way to report: a broken precondition or a failing call is
// formatted into a cleared 65-byte buffer (at most 64 characters, truncated)
// and handed to the platform's KRM_Assert with the module name and line that
// identify the report. Module names and line numbers are part of the
// behaviour: callers keep them as literals at the call site.
#pragma once

#include <cstdint>

namespace krm {

// Module names that reports carry.
inline constexpr const char *kModKrmMbuf = "krm_mbuf";
inline constexpr const char *kModKrmMbufBas = "krm_mbuf_bas";
inline constexpr const char *kModUipcMbuf = "mbuf_uipc_mbuf";
inline constexpr const char *kModOsAdapter = "mbuf_os_adapter";
inline constexpr const char *kModByteOrderTrans = "mbuf_bas_byteorder_trans";
inline constexpr const char *kModByteOrderPktSnd = "mbuf_bas_byteorder_pktsnd";
inline constexpr const char *kModKrmMbufHpc = "krm_mbuf_hpc";
inline constexpr const char *kModKrmMbufSend = "krm_mbuf_send";
inline constexpr const char *kModKrmMbufTrans = "krm_mbuf_trans";
inline constexpr const char *kModKrmMbufTso = "krm_mbuf_tso";
inline constexpr const char *kModKrmMbufProtoInt = "krm_mbuf_proto_int";
inline constexpr const char *kModKrmMbufPads = "krm_mbuf_pads";

// Capacity of the report text, terminator included.
inline constexpr std::uint32_t kReportBufLen = 65;

// Formats the message and reports it; always returns.
void Report(const char *pcModule, std::uint32_t ulLine, const char *pcFormat, ...)
    __attribute__((format(printf, 3, 4)));

// Reports with a NULL message.
void ReportNoText(const char *pcModule, std::uint32_t ulLine);

}  // namespace krm
