/* Exported functions of the family: drop-reason and error-code texts, packet-trace conditions.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_DIAG_H
#define KRM_MBUF_MBUF_DIAG_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ==== drop-reason and error-code texts ======================================= */

/* One row of a searched code table. */
typedef struct MBUF_PADS_ERRCODE_S {
    uint32_t ulCode;
    const char *pcStr;
} MBUF_PADS_ERRCODE_S;

#define MBUF_PADS_PATH_STATUS_NUM 5u   /* path states 0..3, then the end row */
#define MBUF_PADS_PATH_ENTRY_NUM 171u  /* table types 0..169, then the end row */
#define MBUF_PADS_SOCK_DROP_NUM 433u   /* socket drop codes 0..432 */
#define MBUF_PADS_LDM_CODE1_NUM 103u   /* distribution-module codes up to 0x4FFFF */
#define MBUF_PADS_LDM_CODE2_NUM 126u   /* distribution-module codes above */
#define MBUF_PADS_LLA_CODE_NUM 82u     /* link-layer adaptation codes */
#define MBUF_PADS_TEXT_LEN 40u         /* what the texts are written into */
#define MBUF_PADS_ERR_PARA 0xFFFFFFFFu /* NULL buffer or one below 40 bytes */

/* The texts. The path tables are indexed by path state and table type, the
 * socket table by drop code; the others are searched by code. */
MBUF_API extern const char *const g_apcPadsPathEntryStatus[MBUF_PADS_PATH_STATUS_NUM];
MBUF_API extern const char *const g_apcPadsPathEntryList[MBUF_PADS_PATH_ENTRY_NUM];
MBUF_API extern const char *const g_apcPadsSockMbufDrop[MBUF_PADS_SOCK_DROP_NUM];
MBUF_API extern const MBUF_PADS_ERRCODE_S g_astPadsLdmErrorCode1[MBUF_PADS_LDM_CODE1_NUM];
MBUF_API extern const MBUF_PADS_ERRCODE_S g_astPadsLdmErrorCode2[MBUF_PADS_LDM_CODE2_NUM];
MBUF_API extern const MBUF_PADS_ERRCODE_S g_astPadsLlaErrorCode[MBUF_PADS_LLA_CODE_NUM];

/* Each writes the text of ulCode into pcBuf, formatted as into a buffer of 40
 * bytes (at most 39 characters, terminated; longer texts are cut), and
 * returns 0; MBUF_PADS_ERR_PARA and nothing written for a NULL pcBuf or an
 * ulBufLen below 40.
 *
 * Path: bit 15 of ulCode is a marker and is dropped (V = the code without
 * it); table type T = (V >> 2) & 0x1FFF, state S = the code's two low bits.
 * T 123: "Path Limit"; T below 170: S 0 "OK", S 2 "QueryError[V]", S 1 and
 * 3 "<state> <table>[V]"; T of 170 or more: "Invalid TableType[T]".
 * Socket: code 0 "OK", 1..432 the table's row, above: "Other Reason".
 * Distribution module: codes up to 0x4FFFF from the first table, larger ones
 * from the second; link-layer adaptation from its table. A code found twice
 * takes the later row; a code not found gives "Other Reason". */
MBUF_API uint32_t MBUF_PADS_TransPathErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen,
                                                    char *pcBuf);
MBUF_API uint32_t MBUF_PADS_TransSockErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen,
                                                    char *pcBuf);
MBUF_API uint32_t MBUF_PADS_TransLdmErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen, char *pcBuf);
MBUF_API uint32_t MBUF_PADS_TransLlaErrorCodeToStr(uint32_t ulCode, uint32_t ulBufLen, char *pcBuf);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_DIAG_H */
