/* Exported functions of the control-information family (the block, its
 * records and packet tags); included by krm_mbuf/mbuf.h.
 *
 * A packet head reaches its block through pstCtlInfo: the 448-byte block
 * inside the node, or a separately allocated one once the records outgrew
 * it. Records are never moved: deleting one clears its directory slot, and
 * the record area only grows until the block is released or copied. */
#ifndef KRM_MBUF_MBUF_CTLINFO_H
#define KRM_MBUF_MBUF_CTLINFO_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A block whose capacity is above this takes no further record. */
#define MBUF_CTL_MAX_CAPACITY 30000u
/* Spare room a growing block gets beyond the record that made it grow. */
#define MBUF_CTL_GROW_SPARE 128u
/* Length of the head of a TLV record (reserved u16, list length u16). */
#define MBUF_CTL_TLV_REC_HEAD_LEN 4u

/* Record lengths by type; 0 means variable (the slot's length, or for the
 * TLV records 1 and 22 the list length + 4). */
MBUF_API extern const uint16_t g_ausMbufCtlLen[MBUF_CTL_TYPE_NUM];

/* ---- the block and its records ------------------------------------------ */

/* Resets a block: common record zeroed but for path id and socket id
 * (0xFFFFFFFF), mark 0x40, this host's byte-order code, 23 slots all empty,
 * no record, 264 bytes of capacity. Returns the result of the bounded zeroing
 * (0 on success, non-zero for a NULL block, which is left alone). */
MBUF_API uint32_t MBUF_InitControlInfo(MBUF_CONTROL_BLK_S *pstCtlBlk);

/* Creates a zero-filled record of ulType with ulLen rounded up to a multiple
 * of 8, giving the packet a block first if it has none. 0 on success (type 0
 * always exists); 1002 NULL or no MBUF_PKTHDR; 1008 block allocation failed;
 * 1011 the record exists (it is left as it is); 1012 the record cannot be
 * placed (type above 22, block full, allocation failed). */
MBUF_API uint32_t MBUF_CreateControlInfo_fl(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulLen,
                                            uint32_t ulModuleId, const char *pcFileName,
                                            uint32_t ulLine);
MBUF_API uint32_t MBUF_CreateControlInfo(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulLen,
                                         uint32_t ulModuleId);

/* Type 0: the block (its common record). Types 1..22: the record, or NULL
 * when absent. NULL for a NULL mbuf, no MBUF_PKTHDR or a type above 22. */
MBUF_API void *MBUF_GetControlInfo(MBUF_S *pstMbuf, uint32_t ulType);

/* Types 20 and 22: the sub-TLV of ulSubType in that record; type 1: the
 * link-stack sub-TLV; any other type: MBUF_GetControlInfo. */
MBUF_API void *MBUF_GetControlTlvInfo(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulSubType);

/* Type 0 resets the common record (path id and socket id to 0xFFFFFFFF) and
 * the head's ulFlag2, leaving the records; types 1..22 clear the record's
 * slot (its bytes stay used). No block, or a type above 22: nothing. */
MBUF_API void MBUF_DeleteControlInfo(MBUF_S *pstMbuf, uint32_t ulType);

/* The slot length of a present record, else 0 (also for a NULL mbuf, no
 * block or a type above 22). */
MBUF_API uint32_t MBUF_GetControlLen(MBUF_S *pstMbuf, uint32_t ulType);

/* The length of a record of ulType: for the TLV records 1 and 22 when present
 * their list length + 4; else the fixed length of the type, or the slot
 * length when the type's length varies. 0 for a type above 22. */
MBUF_API uint32_t MBUF_GetCtlLen(MBUF_S *pstMbuf, uint32_t ulType);

/* The same lookup as MBUF_GetControlInfo on a bare block (a received control
 * message), trusting slot lengths and ucRecNum. NULL for a NULL block. */
MBUF_API void *Mbuf_GetControlInfoByTagMsg(MBUF_CONTROL_BLK_S *pstCtlBlk, uint32_t ulType);

/* ---- TLV records ---------------------------------------------------------------- */

/* The sub-TLV of ulSubType in the link-stack record (type 1); NULL when the
 * record or the sub-TLV is absent, or the list is corrupt (reported as
 * "T %u ML %u TL %u"). */
MBUF_API MBUF_CTL_TLV_S *MBUF_BAS_GetMbufLinkStackByType(MBUF_S *pstMbuf, uint32_t ulSubType);
MBUF_API MBUF_CTL_TLV_S *MBUF_GetMbufLinkStackByType(MBUF_S *pstMbuf, uint32_t ulSubType);

/* The same search in the TLV record ulType (20 or 22). */
MBUF_API MBUF_CTL_TLV_S *MBUF_BAS_GetMbufLev2TlvByType(MBUF_S *pstMbuf, uint32_t ulType,
                                                       uint32_t ulSubType);

/* The sub-TLV of record 22 whose type and value length both equal pstTlv's;
 * NULL when absent or pstTlv is NULL. The result may be unaligned. */
MBUF_API MBUF_CTL_TLV_S *MBUF_GetTlvInfo(MBUF_S *pstMbuf, const MBUF_CTL_TLV_S *pstTlv);

/* Stores a whole sub-TLV (head and usLen value bytes) in record 22: over a
 * sub-TLV of the same type and length, else appended (the record is then
 * re-created larger). 0 on success; -1 for a NULL mbuf or TLV, no
 * MBUF_PKTHDR, a list that would pass 65535 bytes, or exhausted memory (the
 * old record 22 may then be gone). */
MBUF_API int32_t MBUF_SetTlvInfo_fl(MBUF_S *pstMbuf, uint32_t ulModuleId,
                                    const MBUF_CTL_TLV_S *pstTlv, const char *pcFileName,
                                    uint32_t ulLine);
MBUF_API int32_t MBUF_SetTlvInfo(MBUF_S *pstMbuf, uint32_t ulModuleId,
                                 const MBUF_CTL_TLV_S *pstTlv);

/* ---- packet tags (record storage) ------------------------------------------------ */

/* Places a zero-filled record of ulLen bytes (not rounded) in slot ulType,
 * growing the block when it is full: an inline block moves to a separate
 * allocation, a separate one is re-allocated; offsets never change. Does not
 * look at an existing record of the type. Returns the record, or NULL for a
 * type above 22, a block whose capacity is above 30000, a packet without
 * block, or a failed growth (the block is then unchanged and attached).
 * ulRsv is not used. */
MBUF_API void *MBUF_CreatePktTag(MBUF_S *pstMbuf, uint32_t ulType, uint32_t ulLen, uint32_t ulRsv,
                                 uint32_t ulModuleId, const char *pcFileName, uint32_t ulLine);

/* Releases a separately allocated block and leaves pstCtlInfo NULL; an inline
 * block is left exactly as it is. */
MBUF_API void MBUF_DeletePktTag(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFileLine);

/* Gives pstDst a copy of pstSrc's block and its ulFlag2 and ulFlag3: over
 * pstDst's own block when that is at least as large (pstDst keeps its
 * capacity), else in a new block of pstSrc's capacity. 1 when done (also for
 * a NULL packet, and a source without block leaves pstDst without a separate
 * one); 0 when the new block could not be allocated (pstDst may then have
 * lost its separate block). */
MBUF_API uint32_t MBUF_CopyPktTag(MBUF_S *pstDst, MBUF_S *pstSrc, uint32_t ulModuleId,
                                  const MBUF_FILE_LINE_S *pstFileLine);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_CTLINFO_H */
