/* Exported functions of the metadata family (flags and accessors, stack
 * debug record, time and component names); included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_META_H
#define KRM_MBUF_MBUF_META_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The platform's system-time record and CPU tick (krm_mbuf/platform.h). The
 * stack-debug functions take and return them; a caller that fills or reads one
 * includes the platform header, which completes these types. */
struct KRM_SYSTIME_S;
struct BEX_CPUTICK_S;

/* ==== flag words ============================================================ */

/* The packet flag word of the common record. MBUF_GetFlag: the word, or
 * 0xFFFFFFFF when the packet has no control block (NULL, no MBUF_PKTHDR).
 * MBUF_SetFlag / MBUF_ClearFlag: OR in / clear the mask and return the new
 * word; 0 and nothing changed without a block. MBUF_TestFlag1: 1 if any bit of
 * the mask is set, else 0 (also without a block). */
MBUF_API uint32_t MBUF_GetFlag(MBUF_S *pstMbuf);
MBUF_API uint32_t MBUF_SetFlag(MBUF_S *pstMbuf, uint32_t ulMask);
MBUF_API uint32_t MBUF_ClearFlag(MBUF_S *pstMbuf, uint32_t ulMask);
MBUF_API uint32_t MBUF_TestFlag1(MBUF_S *pstMbuf, uint32_t ulMask);

/* The node's ulFlag2 word. MBUF_GetFlag2: the word of any non-NULL node
 * (MBUF_PKTHDR is not checked), 0xFFFFFFFF for NULL. MBUF_TestFlag2: 1 if any
 * bit of the mask is set, 0 otherwise and for NULL or a node without
 * MBUF_PKTHDR. MBUF_SetFlag2 / MBUF_ClearFlag2: -1 for NULL or a node without
 * MBUF_PKTHDR, else set / clear the mask and 0. */
MBUF_API uint32_t MBUF_GetFlag2(MBUF_S *pstMbuf);
MBUF_API uint32_t MBUF_TestFlag2(MBUF_S *pstMbuf, uint32_t ulMask);
MBUF_API int32_t MBUF_SetFlag2(MBUF_S *pstMbuf, uint32_t ulMask);
MBUF_API int32_t MBUF_ClearFlag2(MBUF_S *pstMbuf, uint32_t ulMask);

/* The node's ulFlag3 word, addressed by bit number 0..31. MBUF_TestFlag3: 1 if
 * the bit is set; 0 otherwise, for NULL, no MBUF_PKTHDR or a bit above 31.
 * MBUF_SetFlag3 / MBUF_ClearFlag3: -1 for NULL, no MBUF_PKTHDR or a bit above
 * 31, else set / clear the bit and 0. */
MBUF_API uint32_t MBUF_TestFlag3(MBUF_S *pstMbuf, uint32_t ulBit);
MBUF_API int32_t MBUF_SetFlag3(MBUF_S *pstMbuf, uint32_t ulBit);
MBUF_API int32_t MBUF_ClearFlag3(MBUF_S *pstMbuf, uint32_t ulBit);

/* ==== common-record fields ================================================== */

/* Every pair below reads or writes one field of the common record. A getter
 * returns the field, or the all-ones value of the field's width (0xFFFFFFFF,
 * or 0xFFFF for the protocol and direction types) when the packet has no
 * control block (NULL, no MBUF_PKTHDR). A setter stores the value truncated
 * to the field's width and returns the common record, or NULL when there is
 * no block and nothing was stored. None of them creates a block. */
MBUF_API uint32_t MBUF_GetReceiveIfIndex(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetReceiveIfIndex(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetReceivePhyIfIndex(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetReceivePhyIfIndex(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetSendIfIndex(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetSendIfIndex(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetVrId(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetVrId(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetVrfId(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetVrfId(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetPathId(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetPathId(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetSockId(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetSockId(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetPortGrpId(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetPortGrpId(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetProtoType(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetProtoType(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetDirectionType(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetDirectionType(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetExceptionId(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetExceptionId(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API uint32_t MBUF_GetTimeStamp(MBUF_S *pstMbuf);
MBUF_API MBUF_CTL_COMM_S *MBUF_SetTimeStamp(MBUF_S *pstMbuf, uint32_t ulValue);

/* The packet priority (16 bits): the value, or 0xFFFF without a block. The
 * setter stores the low 16 bits when the block exists and does nothing else. */
MBUF_API uint32_t MBUF_GetPktPriority(MBUF_S *pstMbuf);
MBUF_API void MBUF_SetPktPriority(MBUF_S *pstMbuf, uint32_t ulValue);

/* The product-specific protocol type. Set: -1 without a block, else stores and
 * returns 0. Get: 0 and the value in *pulValue; -1 and *pulValue = 0 without a
 * block (pulValue must not be NULL; a NULL pulValue gives -1). */
MBUF_API int32_t MBUF_SetProductProtoType(MBUF_S *pstMbuf, uint32_t ulValue);
MBUF_API int32_t MBUF_GetProductProtoType(MBUF_S *pstMbuf, uint32_t *pulValue);

/* ==== derived getters ======================================================= */

/* The IP TOS byte: the IPv4 record's if present, else the IPv6 record's
 * traffic class, else 0xFF (also for NULL or no MBUF_PKTHDR). */
MBUF_API uint32_t MBUF_GetIPTOS(MBUF_S *pstMbuf);

/* The receive interface MTU: from the IPv4 record when the protocol type is 0,
 * from the IPv6 record when it is 1; 0xFFFF otherwise or when that record is
 * missing. */
MBUF_API uint32_t MBUF_GetReceiveIfMTU(MBUF_S *pstMbuf);

/* Stores the 12-byte tunnel key in the MPLS record, creating the record (its
 * other words all-ones, word 5 zero) when missing. 0 on success; -1 for NULL,
 * no MBUF_PKTHDR, a NULL key, a failed creation or an MPLS record too short to
 * hold the key. The wrapper passes its own name and line 196. */
MBUF_API int32_t MBUF_SetTunnelKey_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const uint8_t *pucKey,
                                      const char *pcFileName, uint32_t ulLine);
MBUF_API int32_t MBUF_SetTunnelKey(MBUF_S *pstMbuf, uint32_t ulModuleId, const uint8_t *pucKey);

/* Copies the 12-byte tunnel key into pucKey: 0, or -1 for NULL, no
 * MBUF_PKTHDR, a NULL pucKey or a missing (or too short) MPLS record. */
MBUF_API int32_t MBUF_GetTunnelKey(MBUF_S *pstMbuf, uint8_t *pucKey);

/* The receive VLAN ids, in order of preference: the 802.1Q link sub-TLV (one
 * id), the QinQ link sub-TLV (two ids, inner first), the forwarding-engine
 * receive record (one or two ids by its flags, each 1..4094). 0 with *pulCount
 * ids in pusVlan; 1016 for NULL arguments or ulCapacity below 2; 1018 when no
 * valid id was found (pusVlan may then hold a rejected id). */
MBUF_API uint32_t MBUF_GetRecvVlanId(MBUF_S *pstMbuf, uint16_t *pusVlan, uint32_t ulCapacity,
                                     uint32_t *pulCount);

/* The VLAN priorities for an outgoing tag: from the VLAN-priority link
 * sub-TLV and the priority derived from the IPv4 TOS, the IPv6 traffic class
 * or the Ethernet link sub-TLV. 0 and up to two bytes in pucPriority; -1 for
 * NULL arguments or when neither source exists. Note that with a
 * VLAN-priority sub-TLV present, any ulCapacity other than 1 (0 included)
 * receives two bytes. */
MBUF_API int32_t MBUF_GetVlanPriority(MBUF_S *pstMbuf, uint8_t *pucPriority, uint32_t ulCapacity);

/* The non-IPv4 half of the priority search: the IPv6 record's traffic class
 * >> 5, else the Ethernet link sub-TLV's priority when its flags mark it
 * valid. Sets *pucFound to 1 and *pucPriority on a find, *pucFound to 0
 * otherwise; returns the record or sub-TLV the priority came from, NULL when
 * none (or for NULL arguments). */
MBUF_API void *MBUF_GetVlanPriority_ProcIpv6(MBUF_S *pstMbuf, uint8_t *pucPriority,
                                             uint8_t *pucFound);

/* The prune VLANs of the VSI link sub-TLV, else of the bridge-domain one. 0
 * with *pulCount = 0, 1 or 2 (ids written as far as ulCapacity allows; the
 * count may exceed what was written); -1 for NULL arguments or when neither
 * sub-TLV exists. */
MBUF_API int32_t MBUF_GetPruneVlanByVsi(MBUF_S *pstMbuf, uint16_t *pusVlan, uint32_t ulCapacity,
                                        uint32_t *pulCount);

/* ==== stack-debug record (control record 21) ================================ */

/* One entry of the stack-debug record: 48 bytes, in the host's byte order. The
 * two stamps are system-time records (struct KRM_SYSTIME_S, 12 bytes) kept as
 * bytes because entries lie at any 4-byte boundary of the record. */
typedef struct MBUF_STACKDEBUG_ENTRY_S {
    uint32_t ulCompId;        /* 0 = free entry */
    uint32_t ulUsec;          /* microseconds from the first to the last stamp */
    uint8_t aucFirstTime[12]; /* first stamp */
    uint8_t aucLastTime[12];  /* last stamp (zero until a second stamp) */
    uint32_t aulTickDelta[2]; /* ticks from the first to the last stamp: low, high */
    uint32_t aulLastTick[2];  /* tick of the last stamp: low, high */
} MBUF_STACKDEBUG_ENTRY_S;

/* The caller's control fields, stored uninterpreted in the record's head
 * (ucFlag is OR-ed in, the others replace what was there). */
typedef struct MBUF_STACKDEBUG_CTL_S {
    uint8_t ucFlag;
    uint8_t ucCtl;
    uint16_t usCtl;
    uint32_t ulCtl1;
    uint32_t ulCtl2;
    uint32_t ulCtl3;
    uint16_t usCtl4;
    uint16_t usCtl5;
} MBUF_STACKDEBUG_CTL_S;

/* Creates record 21 with ulNewNum entries, or rebuilds pstOld (the packet's
 * record 21, possibly of an older layout) with ulNewNum entries, keeping its
 * head and entries. Returns the current entry, or NULL: ulNewNum below 6 or
 * below the old capacity (both reported), above 255 (the capacity is one
 * byte), allocation failure, a record already present when pstOld is NULL. A failure after the old
 * record was taken down leaves the packet without record 21. */
MBUF_API MBUF_STACKDEBUG_ENTRY_S *MBUF_DelOldAddNewAppTime_fl(MBUF_S *pstMbuf, void *pstOld,
                                                              uint32_t ulNewNum,
                                                              uint32_t ulModuleId,
                                                              const char *pcFileName,
                                                              uint32_t ulLine);

/* Stamps the packet for component ulCompId with the current system time and
 * CPU tick: a component stamping twice in a row extends its entry, any other
 * takes the next entry; the record is created with 6 entries and grows by 6.
 * 0 on success; -1 for NULL, a failing time read, a record whose capacity is
 * outside 1..19 or a failed allocation. The wrapper passes its own name and
 * line 214. */
MBUF_API int32_t MBUF_SetStackDebugInfo_fl(MBUF_S *pstMbuf, uint32_t ulCompId, uint32_t ulModuleId,
                                           const char *pcFileName, uint32_t ulLine);
MBUF_API int32_t MBUF_SetStackDebugInfo(MBUF_S *pstMbuf, uint32_t ulCompId, uint32_t ulModuleId);

/* As MBUF_SetStackDebugInfo_fl with the caller's own time and tick; -1 also
 * for a NULL time or tick. The wrapper passes its own name and line 221. */
MBUF_API int32_t MBUF_SetStackDebugInfoSelf_fl(MBUF_S *pstMbuf, uint32_t ulCompId,
                                               const struct KRM_SYSTIME_S *pstTime,
                                               const struct BEX_CPUTICK_S *pstTick,
                                               uint32_t ulModuleId, const char *pcFileName,
                                               uint32_t ulLine);
MBUF_API int32_t MBUF_SetStackDebugInfoSelf(MBUF_S *pstMbuf, uint32_t ulCompId,
                                            const struct KRM_SYSTIME_S *pstTime,
                                            const struct BEX_CPUTICK_S *pstTick,
                                            uint32_t ulModuleId);

/* Stores the control fields in record 21, creating it with 6 entries when
 * missing. 0, or -1 for a NULL control, NULL packet or failed creation. The
 * wrapper passes its own name and line 233. */
MBUF_API int32_t MBUF_SetStackDebugCtl_fl(MBUF_S *pstMbuf, const MBUF_STACKDEBUG_CTL_S *pstCtl,
                                          uint32_t ulModuleId, const char *pcFileName,
                                          uint32_t ulLine);
MBUF_API int32_t MBUF_SetStackDebugCtl(MBUF_S *pstMbuf, const MBUF_STACKDEBUG_CTL_S *pstCtl,
                                       uint32_t ulModuleId);

/* Stamps, then on success stores the control fields; -1 when either fails.
 * The wrapper passes its own name and line 251. */
MBUF_API int32_t MBUF_SetStackDebugForApp_fl(MBUF_S *pstMbuf, uint32_t ulCompId,
                                             const MBUF_STACKDEBUG_CTL_S *pstCtl,
                                             uint32_t ulModuleId, const char *pcFileName,
                                             uint32_t ulLine);
MBUF_API int32_t MBUF_SetStackDebugForApp(MBUF_S *pstMbuf, uint32_t ulCompId,
                                          const MBUF_STACKDEBUG_CTL_S *pstCtl, uint32_t ulModuleId);

/* The first entry's component and its last stamp (its first stamp when the
 * last is unset). 0 on success; 1 for NULL arguments, 2 without record 21, 3
 * for a current index above the capacity (or a record too short for its
 * entries), 4 when both stamps are unset. */
MBUF_API int32_t MBUF_GetStackDebugInfoFirstTime(MBUF_S *pstMbuf, uint32_t *pulCompId,
                                                 struct KRM_SYSTIME_S *pstTime);

/* The address of the first entry (inside the packet's record, valid while the
 * record is not rebuilt) and the current entry index. 0, or -1 for NULL
 * arguments, no record 21 or a current index above the capacity. */
MBUF_API int32_t MBUF_GetStackDebugAppTime(MBUF_S *pstMbuf, MBUF_STACKDEBUG_ENTRY_S **ppstEntries,
                                           uint8_t *pucCurIndex);

/* Copies record 21 from pstSrc to pstDst, which must not have one yet. 0, or
 * -1 (NULL packets, no source record, a current index above the capacity, or
 * the destination record could not be created). */
MBUF_API uint32_t MBUF_CopyStackDebugInfo(MBUF_S *pstSrc, MBUF_S *pstDst, uint32_t ulModuleId);

/* Prints record 21, one line per entry up to the current one, in local time:
 * "[NAME  0x    ID]: YYYY-MM-DD hh:mm:ss.mmm+hh:mm ~ ... (Nus/Ntick)\r\n".
 * Returns the characters written (terminated); a line that does not fit ends
 * the text. 0 for NULL arguments, without the record or for a first line that
 * does not fit; 1 for ulSize 0; ulSize when the text and its terminator fill
 * the buffer exactly. */
MBUF_API uint32_t MBUF_GetStackDebugInfo(MBUF_S *pstMbuf, char *pcBuf, uint32_t ulSize);

/* ==== time-stamp record (control record 11) ================================= */

/* Stores the milliseconds within the current hour into stamp ulIndex (0..9)
 * of record 11, creating the record when bCreate is non-zero. Does nothing for
 * an index above 9, a missing record without bCreate, or a failed creation.
 * The wrapper passes its own name and line 184. */
MBUF_API void MBUF_SetTimeStampEx_fl(MBUF_S *pstMbuf, uint32_t ulIndex, uint32_t bCreate,
                                     uint32_t ulModuleId, const char *pcFileName, uint32_t ulLine);
MBUF_API void MBUF_SetTimeStampEx(MBUF_S *pstMbuf, uint32_t ulIndex, uint32_t bCreate,
                                  uint32_t ulModuleId);

/* ==== time and component-name helpers ======================================= */

/* One entry of the component table: the component number (bits 16-23 of a
 * component id) and its NUL-padded name. */
typedef struct MBUF_COMP_NAME_S {
    uint32_t ulCompNo;
    char acName[12];
} MBUF_COMP_NAME_S;

#define MBUF_COMP_NAME_NUM 29u

/* The component table, in search order, and the name of every other
 * component ("OTHERS"). */
MBUF_API extern const MBUF_COMP_NAME_S g_astMbufCompStru[MBUF_COMP_NAME_NUM];
MBUF_API extern const char *const g_szMbufStr;

/* The name of the component of ulCompId (bits 16-23); g_szMbufStr when it is
 * not in the table. The text is constant and never freed. */
MBUF_API const char *MBUF_HOSTDBG_GetCompName(uint32_t ulCompId);

/* The wall-clock time (universal, to the second) at which the CPU tick
 * *pstTick was read: an all-zero record for a zero tick, the current time for
 * a tick later than now. Does nothing for NULL arguments. */
MBUF_API void MBUF_CalcSystimeByTick(struct KRM_SYSTIME_S *pstTime,
                                     const struct BEX_CPUTICK_S *pstTick);

/* The offset of time B from time A as "+hh:mm" or "-hh:mm" in pcZone (16
 * bytes), assuming the two are less than a day apart and comparing only the
 * day of month. 0 done; 1 when formatting failed or an argument is NULL. */
MBUF_API uint32_t Mbuf_GetTimeZone(const struct KRM_SYSTIME_S *pstTimeA,
                                   const struct KRM_SYSTIME_S *pstTimeB, char *pcZone);

/* 1 when the time record is unset (every byte zero) or NULL, else 0. */
MBUF_API uint32_t MBUF_UTIL_SysTimeIsZero(const struct KRM_SYSTIME_S *pstTime);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_META_H */
