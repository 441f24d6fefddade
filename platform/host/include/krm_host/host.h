/*
 * Control API of the host platform (libkrm_platform_host): the Linux
 * implementation of krm_mbuf/platform.h used by tests, tools and examples.
 * Nothing here is part of the library; a router build has its own platform.
 */
#ifndef KRM_HOST_HOST_H
#define KRM_HOST_HOST_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KRM_HOST_API __attribute__((visibility("default")))

/* Returns the platform to its start state: fault injection off, captured
 * reports cleared, allocation attempts counted from 0 again, clocks and time
 * zone back to the real ones, tick rate back to the default. Live buffers are
 * neither freed nor forgotten; a stream set by KRM_HOST_ReportEcho stays. */
KRM_HOST_API void KRM_HOST_Reset(void);

/* ---- buffers ------------------------------------------------------------ */

/* Pipe buffers and private memory share one allocator: size-class pools up
 * to 1960 bytes, the system allocator beyond; requests above 256 MiB fail.
 * Data is 16-byte aligned and a zero-length request gets a unique buffer.
 * Any thread may release a buffer of any other. Releasing what is not the
 * start of a live buffer of that kind (double release, interior or foreign
 * pointer, the other kind) changes nothing and raises a report of kind
 * KRM_HOST_REPORT_PLATFORM at the caller's file and line naming the pointer
 * and the reason; KRM_Free_F(NULL) fails without a report. Under
 * AddressSanitizer a buffer's header, the room behind its length and every
 * released pool chunk are poisoned. */

typedef enum KRM_HOST_BUF_KIND_E {
    KRM_HOST_BUF_DBUF = 1, /* pipe buffer: KRM_DbufIovecAlloc_F */
    KRM_HOST_BUF_PRIV = 2  /* private memory: KRM_Malloc_F */
} KRM_HOST_BUF_KIND_E;

/* What the hidden header of a live buffer records. */
typedef struct KRM_HOST_BUF_INFO_S {
    const void *pBuf;
    uint32_t ulLen;      /* as requested */
    uint32_t ulOwner;    /* module id of the allocating call */
    uint32_t ulCtrlFlag; /* KRM_DbufMsgCtrlFlagSet */
    uint32_t ulTraceId;  /* KRM_HOST_SetTraceId */
    uint32_t ulKind;     /* KRM_HOST_BUF_KIND_E */
    const char *pcFile;  /* allocation site */
    uint32_t ulLine;
} KRM_HOST_BUF_INFO_S;

/* Buffers currently allocated, of both kinds. */
KRM_HOST_API uint32_t KRM_HOST_LiveBufferCount(void);

/* Allocation attempts (successful or failed) since the last reset; a fault
 * sweep uses it to know how many allocations a call makes. */
KRM_HOST_API uint32_t KRM_HOST_AllocAttemptCount(void);

/* 0 and *pstInfo filled when pBuf is the start of a live buffer, else 1. */
KRM_HOST_API uint32_t KRM_HOST_BufferInfo(const void *pBuf, KRM_HOST_BUF_INFO_S *pstInfo);

/* Calls pfVisit once per live buffer (order unspecified); returns the count. */
typedef void (*KRM_HOST_VISIT_PF)(const KRM_HOST_BUF_INFO_S *pstInfo, void *pArg);
KRM_HOST_API uint32_t KRM_HOST_VisitLiveBuffers(KRM_HOST_VISIT_PF pfVisit, void *pArg);

/* Writes one line per live buffer ("<ptr> len <n> owner 0x<id> <file>:<line>",
 * the id in eight hex digits) to pstOut; returns the count. */
KRM_HOST_API uint32_t KRM_HOST_DumpLiveBuffers(FILE *pstOut);

/* Sets the trace id kept in a live pipe buffer's header; 0 on success, 1 when
 * pBuf is not the start of a live pipe buffer. */
KRM_HOST_API uint32_t KRM_HOST_SetTraceId(void *pBuf, uint32_t ulTraceId);

/* ---- fault injection ------------------------------------------------------ */

/* The ulNth allocation from now (1 = the next one) fails, once; 0 disarms. */
KRM_HOST_API void KRM_HOST_FailNthAlloc(uint32_t ulNth);

/* Every allocation of exactly ulSize bytes fails until disarmed with 0 (so a
 * zero-length request cannot be made to fail this way). */
KRM_HOST_API void KRM_HOST_FailAllocOfSize(uint32_t ulSize);

/* Both apply to pipe buffers and private memory alike, and every failed
 * attempt still counts in KRM_HOST_AllocAttemptCount. A vector allocation
 * stops at its first failing entry. */

/* ---- reports ---------------------------------------------------------------- */

typedef enum KRM_HOST_REPORT_KIND_E {
    KRM_HOST_REPORT_ASSERT = 1,  /* KRM_Assert */
    KRM_HOST_REPORT_DIAG = 2,    /* PLX_DiagLog */
    KRM_HOST_REPORT_PLATFORM = 3 /* the host platform's own complaint */
} KRM_HOST_REPORT_KIND_E;

/* One captured report. For KRM_Assert: file, line and text as given
 * (bHasText 0 when the message was NULL). For PLX_DiagLog: pcFile "" and
 * ulLine 0, the two numeric arguments and the formatted text. */
typedef struct KRM_HOST_REPORT_S {
    uint32_t ulKind;
    const char *pcFile;
    uint32_t ulLine;
    uint32_t ulArg1;
    uint32_t ulArg2;
    uint32_t bHasText;
    const char *pcText;
} KRM_HOST_REPORT_S;

/* Reports are always captured, in order, until the next reset or clear; the
 * strings are copies, valid until then. The list holds at most 100000
 * reports: later ones are dropped (with one notice on stderr) so that a
 * runaway loop cannot exhaust memory. They are echoed to stderr when the
 * environment variable KRM_HOST_REPORTS is "stderr", or to the stream given
 * here (NULL: silent again). */
KRM_HOST_API uint32_t KRM_HOST_ReportCount(void);
KRM_HOST_API uint32_t KRM_HOST_ReportGet(uint32_t ulIndex, KRM_HOST_REPORT_S *pstReport);
KRM_HOST_API void KRM_HOST_ReportClear(void);
KRM_HOST_API void KRM_HOST_ReportEcho(FILE *pstOut);

/* ---- clocks ----------------------------------------------------------------- */

/* Freezes the wall clock at ulSeconds since 1970 plus ulMillis (whole
 * seconds in ulMillis carry over). */
KRM_HOST_API void KRM_HOST_SetWallClock(uint32_t ulSeconds, uint32_t ulMillis);

/* Local time = universal time + lOffsetSeconds (default: the process zone). */
KRM_HOST_API void KRM_HOST_SetTimeZone(int32_t lOffsetSeconds);

/* Freezes the tick counter at ullTick; AdvanceTick moves a frozen counter
 * (a running one is frozen at its current value first). */
KRM_HOST_API void KRM_HOST_SetTick(uint64_t ullTick);
KRM_HOST_API void KRM_HOST_AdvanceTick(uint64_t ullTicks);

/* Ticks per second (default 1000000000: one tick a nanosecond); 0 is
 * ignored. The conversions BEX_CpuTick2Ms/Us and BEX_CpuTickMs2CpuTickEx use
 * the current rate. */
KRM_HOST_API void KRM_HOST_SetTickHz(uint32_t ulHz);

/* ---- mutexes ----------------------------------------------------------------- */

/* The four mutex calls of the platform, for fault injection and counting. */
typedef enum KRM_HOST_MUTEX_OP_E {
    KRM_HOST_MUTEX_INIT = 0,    /* BEX_MutexInit */
    KRM_HOST_MUTEX_LOCK = 1,    /* BEX_MutexLock */
    KRM_HOST_MUTEX_UNLOCK = 2,  /* BEX_MutexUnlock */
    KRM_HOST_MUTEX_DESTROY = 3, /* BEX_MutexDestroy */
    KRM_HOST_MUTEX_OP_NUM = 4
} KRM_HOST_MUTEX_OP_E;

/* What a mutex call refused by fault injection returns. */
#define KRM_HOST_MUTEX_ERR_INJECTED 0x99u

/* The ulNth call of ulOp from now (1 = the next one, by any thread) fails
 * once with KRM_HOST_MUTEX_ERR_INJECTED and changes nothing: no mutex is
 * created, taken, released or destroyed. 0 disarms; each operation has its
 * own countdown; an unknown ulOp is ignored. */
KRM_HOST_API void KRM_HOST_FailNthMutexOp(uint32_t ulOp, uint32_t ulNth);

/* Calls of ulOp since the last reset, refused ones included (0 for an
 * unknown ulOp): a sweep uses it to know how many calls an operation makes. */
KRM_HOST_API uint32_t KRM_HOST_MutexOpCount(uint32_t ulOp);

/* Mutexes created and not destroyed yet. */
KRM_HOST_API uint32_t KRM_HOST_LiveMutexCount(void);

/* Disarms every mutex fault and restarts the counts; part of KRM_HOST_Reset.
 * Mutexes themselves are neither destroyed nor forgotten. */
KRM_HOST_API void KRM_HOST_ResetMutexFaults(void);

#ifdef __cplusplus
}
#endif

#endif /* KRM_HOST_HOST_H */
