/*
 * The platform services libkrm_mbuf imports. A router build links the library
 * against its own implementation; platform/host implements them on Linux for
 * tests and tools. The library calls nothing else of its host.
 *
 * Conventions: a uint32_t result of 0 means success unless stated otherwise.
 */
#ifndef KRM_MBUF_PLATFORM_H
#define KRM_MBUF_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include "krm_mbuf/mbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- pipe-buffer memory ------------------------------------------------- */

/* Fills pBuf of each of the ulCount entries with a buffer of ulLen bytes owned
 * by ulModuleId. 0 on success; on failure no buffer of the call stays
 * allocated and every pBuf is NULL. */
uint32_t KRM_DbufIovecAlloc_F(uint32_t ulModuleId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec,
                              const char *pcFileName, uint32_t ulLine);

/* Releases the pBuf of each entry (NULL entries are skipped). 0 when every
 * entry was a live buffer start; otherwise non-zero, after reporting each
 * entry that was not. */
uint32_t KRM_DbufIovecFree_F(uint32_t ulCount, MBUF_IOVEC_S *pstIovec, const char *pcFileName,
                             uint32_t ulLine);

/* Size of the pipe buffer that starts at pBuf; 0 if pBuf is not the start of
 * a live one. */
uint32_t KRM_DbufLengthGET(const void *pBuf);

/* The owner handle of the pipe buffer at pBuf in *pulHandle; the three further
 * arguments are reserved. 0 on success, non-zero when pBuf is not a live
 * buffer start. */
uint32_t TQM_DbufAllocIdGet(const void *pBuf, uint32_t *pulHandle, uint32_t ulArg1, uint32_t ulArg2,
                            uint32_t ulArg3);

/* Stores the message control flag of the pipe buffer at pBuf. */
uint32_t KRM_DbufMsgCtrlFlagSet(void *pBuf, uint32_t ulFlag);

/* ---- private memory ----------------------------------------------------- */

/* Memory partitions of private memory; the library uses entry 0. */
extern const uint8_t g_aucKrmMemPt[];

/* ulSize bytes of private memory for ulModuleId from partition ucPartition;
 * NULL on failure. */
void *KRM_Malloc_F(uint32_t ulModuleId, uint8_t ucPartition, uint32_t ulSize,
                   const char *pcFileName, uint32_t ulLine);

/* Releases private memory; 0 on success. */
uint32_t KRM_Free_F(void *pBuf, const char *pcFileName, uint32_t ulLine);

/* ---- bounded memory functions ------------------------------------------- */

/* Standard bounded semantics: non-zero (and, where the destination is valid,
 * a cleared destination for memcpy_s/memset_s) on a NULL pointer or when
 * count exceeds destMax; memcpy_s also refuses overlapping ranges. */
int memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
int memmove_s(void *dest, size_t destMax, const void *src, size_t count);
int memset_s(void *dest, size_t destMax, int c, size_t count);

/* ---- reports -------------------------------------------------------------- */

/* Reports a broken precondition or a failing call; always returns. */
void KRM_Assert(const char *pcFile, uint32_t ulLine, const char *pcMessage);

/* Writes a formatted diagnostic line. */
void PLX_DiagLog(uint32_t ulArg1, uint32_t ulArg2, const char *pcFormat, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- time ------------------------------------------------------------------ */

/* The platform's system-time record: 12 bytes. */
typedef struct KRM_SYSTIME_S {
    uint16_t usYear;
    uint8_t ucMonth;
    uint8_t ucDate;
    uint8_t ucHour;
    uint8_t ucMinute;
    uint8_t ucSecond;
    uint8_t ucWeek;
    uint32_t ulMillSec;
} KRM_SYSTIME_S;

/* A 64-bit CPU tick count as two words, low word first. */
typedef struct BEX_CPUTICK_S {
    uint32_t ulLow;
    uint32_t ulHigh;
} BEX_CPUTICK_S;

/* Current universal time. */
uint32_t KRM_SystimeGet(KRM_SYSTIME_S *pstTime);

/* Current universal time in seconds since 1970. */
uint32_t KRM_GetSystemTime(uint32_t *pulSeconds);

/* Converts a universal time into local time. */
uint32_t KRM_Gmt2LocalTime(const KRM_SYSTIME_S *pstGmt, KRM_SYSTIME_S *pstLocal);

/* Converts seconds since 1970 into a system-time record (universal). */
uint32_t BEX_SystimeSec2Time(uint32_t ulSeconds, KRM_SYSTIME_S *pstTime);

/* The current CPU tick count. */
uint32_t BEX_GetCpuTick(BEX_CPUTICK_S *pstTick);

/* *pstResult = *pstA - *pstB; non-zero (and a zero result) when B > A. */
uint32_t BEX_64Sub64(const BEX_CPUTICK_S *pstA, const BEX_CPUTICK_S *pstB,
                     BEX_CPUTICK_S *pstResult);

/* A tick count converted to milliseconds or microseconds. */
uint32_t BEX_CpuTick2Ms(const BEX_CPUTICK_S *pstTick, BEX_CPUTICK_S *pstMs);
uint32_t BEX_CpuTick2Us(const BEX_CPUTICK_S *pstTick, BEX_CPUTICK_S *pstUs);

/* A number of milliseconds converted to ticks. */
uint32_t BEX_CpuTickMs2CpuTickEx(uint32_t ulMs, BEX_CPUTICK_S *pstTick);

/* strcmp with NULL ordered before every string. */
int32_t BEX_StrCmp(const char *pcA, const char *pcB);

/* ---- mutexes ---------------------------------------------------------------- */

/* A mutex is named by a handle; 0 on success, an error code otherwise. */
uint32_t BEX_MutexInit(uint32_t *pulMutex);
uint32_t BEX_MutexLock(uint32_t ulMutex);
uint32_t BEX_MutexUnlock(uint32_t ulMutex);
uint32_t BEX_MutexDestroy(uint32_t ulMutex);

/* ---- pipes ---------------------------------------------------------------- */

/* Writes one packet's pieces to a pipe, which takes the buffers over: the
 * normal write, the priority write (ordered by the flag stamped on the head
 * piece), the urgent write (to the head of the queue) and the no-free write
 * (copies the pieces and leaves the writer's buffers alone). 0 on success or
 * the service's own code. */
uint32_t KRM_PipeIovecWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec);
uint32_t KRM_PipeIovecPrioWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec);
uint32_t TQM_PipeUrgentIovecWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec);
uint32_t TQM_PipeIovecNoFreeWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec);

/* Writes ulPktCount packets, each described by one descriptor, as one
 * package. */
uint32_t KRM_PipeWriteIovecIntra(uint32_t ulPipeId, uint32_t ulPktCount,
                                 MBUF_TRANS_DESC_S *pstDescArray);

/* Reserves *pulCount tokens of a pipe: 0, or 0x224C1110 (pipe not opened),
 * 0x224C1111 (no token left), 0x224C1112 (identifier out of range). */
uint32_t KRM_PipeTokenAlloc(uint32_t ulPipeId, uint32_t *pulCount);

/* Reads one package: *pulCount packets, each a receive descriptor (piece
 * count, then the address of an array of pointer-size piece addresses);
 * *pulStatus 2 when nothing was delivered; *pulAux is the service's. */
uint32_t KRM_PipePackageRead(uint32_t ulPipeId, uint32_t *pulCount, MBUF_TRANS_DESC_S *pstDescArray,
                             uint32_t *pulStatus, uint32_t *pulAux);

/* ---- messages -------------------------------------------------------------- */

/* A message is a pipe buffer of ulSize bytes; NULL: failed. */
void *KRM_MsgAlloc_F(uint32_t ulModuleId, uint32_t ulSize, const char *pcFileName, uint32_t ulLine);
uint32_t KRM_SEND_MSG(uint32_t ulDest, uint32_t ulClass, uint32_t ulType, void *pMsg,
                      uint32_t ulSize);
uint32_t TQM_MsgFree(uint32_t ulModuleId, void *pMsg);
uint32_t TQM_MsgLenGet(const void *pMsg);
uint32_t TQM_KRM_MSG_GET_INTF(const void *pMsg);
uint32_t TQM_KRM_MSG_GET_SUB_INTF(const void *pMsg);

/* ---- packet trace ------------------------------------------------------------ */

uint32_t KRM_AddTraceInfecPoint_Pipe(uint32_t ulArg1, MBUF_TRANS_DESC_S *pstDesc, uint32_t ulArg2,
                                     uint32_t ulArg3, uint32_t ulArg4, uint32_t ulArg5);
uint32_t TQM_PIPE_TRACEFLAG_GET(uint32_t ulNum, MBUF_IOVEC_S *pstPieces, uint32_t *pulTraceId);
uint32_t TQM_PIPE_TRACEFLAG_SET(uint32_t ulNum, MBUF_IOVEC_S *pstPieces, uint32_t *pulTraceId);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_PLATFORM_H */
