/* Exported functions of the family: the protocol-interaction log.
 * Included by krm_mbuf/mbuf.h.
 *
 * Two components that exchange packets follow their conversation per
 * session: the sender stamps each packet with a session identifier and a
 * sequence number (in the packet's stack-debug record), both ends keep the
 * last ten packets of each direction with their lengths and tick counts, the
 * receiver counts packets per colour and notices gaps in the sequence, and a
 * gap asks for the log to be printed at most once every 75 seconds. All
 * state lives in one context that its owner creates and passes to every
 * call; the library keeps none of its own. */
#ifndef KRM_MBUF_MBUF_PROTOINT_H
#define KRM_MBUF_MBUF_PROTOINT_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define MBUF_PROTOINT_SESS_MAX 4096u /* identifiers 1..4096 */
#define MBUF_PROTOINT_RING_LEN 10u   /* packets kept per direction */
#define MBUF_PROTOINT_SUPPRESS_MS 75000u

/* Directions, as MBUF_PROTOINT_CalcType decodes them and the lock calls take
 * them; any other value locks or unlocks both. */
#define MBUF_PROTOINT_DIR_SND 1u
#define MBUF_PROTOINT_DIR_RCV 2u

/* Flag bit of the stack-debug record's flag byte: the packet belongs to a
 * session. The session identifier is the record's first control word (byte
 * 12), the sequence number its second (byte 16). */
#define MBUF_PROTOINT_STAMP_FLAG 0x20u

/* Bit 15 of a receive ring length: the packet was green; bits 0-14 the
 * length. */
#define MBUF_PROTOINT_GREEN_BIT 0x8000u
#define MBUF_PROTOINT_LEN_MASK 0x7FFFu

/* The owner's parameter block: the context copies these three words. */
typedef struct MBUF_PROTOINT_PARA_S {
    uint32_t ulMemMid;   /* module id of the context's allocations */
    uint32_t ulCompArg;  /* module id passed on when stamping */
    uint32_t ulLockMode; /* 1 or 2: locking in force; anything else: none */
} MBUF_PROTOINT_PARA_S;

/* A 64-bit tick count as two words, low word first (the platform's tick). */
typedef struct MBUF_PROTOINT_TICK_S {
    uint32_t ulLow;
    uint32_t ulHigh;
} MBUF_PROTOINT_TICK_S;

/* One counter triple. */
typedef struct MBUF_PROTOINT_CNT_S {
    uint32_t ulCount;   /* packets recorded */
    uint32_t ulLastSeq; /* sequence number of the last one recorded */
    uint32_t ulSndSeq;  /* last sequence number handed out */
} MBUF_PROTOINT_CNT_S;

/* The ring both halves begin with. A slot whose length is 0 is empty. */
typedef struct MBUF_PROTOINT_RING_S {
    uint16_t ausLen[MBUF_PROTOINT_RING_LEN];
    MBUF_PROTOINT_TICK_S astTime[MBUF_PROTOINT_RING_LEN];
    uint8_t ucPos;       /* next position 0..9: the oldest entry */
    uint8_t ucLastGreen; /* bit 0: the last packet was green */
    uint8_t ucGap;       /* the last packet broke the sequence */
    uint8_t ucRsv;
} MBUF_PROTOINT_RING_S;

/* The send half: one triple. */
typedef struct MBUF_PROTOINT_SND_S {
    MBUF_PROTOINT_RING_S stRing;
    MBUF_PROTOINT_CNT_S stCnt;
} MBUF_PROTOINT_SND_S;

/* The receive half: the triple of other (non-green) packets, then the one
 * of green packets. */
#define MBUF_PROTOINT_CNT_OTHER 0u
#define MBUF_PROTOINT_CNT_GREEN 1u
typedef struct MBUF_PROTOINT_RCV_S {
    MBUF_PROTOINT_RING_S stRing;
    MBUF_PROTOINT_CNT_S astCnt[2];
} MBUF_PROTOINT_RCV_S;

/* One session: the send half first, then the receive half. */
typedef struct MBUF_PROTOINT_SESS_S {
    MBUF_PROTOINT_SND_S stSnd;
    MBUF_PROTOINT_RCV_S stRcv;
} MBUF_PROTOINT_SESS_S;

/* The context. Session i (1..4096) lives at index i - 1 of each array; the
 * mutexes are the platform's handles. */
typedef struct MBUF_PROTOINT_CTX_S {
    uint32_t ulMemMid;
    uint32_t ulCompArg;
    uint32_t ulLockMode;
    MBUF_PROTOINT_SESS_S *apstSess[MBUF_PROTOINT_SESS_MAX]; /* NULL: disabled */
    uint32_t astSndMtx[MBUF_PROTOINT_SESS_MAX];
    uint32_t astRcvMtx[MBUF_PROTOINT_SESS_MAX];
    uint32_t stLogMtx;         /* guards ullLastReport */
    uint64_t ullLastReport;    /* tick of the last report let through */
    uint64_t ullSuppressTicks; /* 75000 ms in ticks, fixed at creation */
    uint8_t ucInited;          /* 1 once every mutex exists */
} MBUF_PROTOINT_CTX_S;

/* Creates a context from the parameter block's three words, zero-filled,
 * with the suppression window converted to ticks at the current tick rate;
 * in lock modes 1 and 2 also the log mutex and both mutexes of every
 * session. NULL for a NULL block, a failed allocation ("protoInt new
 * failed.") or a mutex that could not be created (reported with its ret;
 * the context is freed, mutexes already made are not destroyed). The owner
 * releases it with MBUF_PROTOINT_Uninit. */
MBUF_API MBUF_PROTOINT_CTX_S *MBUF_PROTOINT_Init(const MBUF_PROTOINT_PARA_S *pstPara);

/* Frees every session and the context; in lock modes 1 and 2 takes, releases
 * and destroys each session's mutexes and then the log mutex, reporting every
 * failing call and going on. Nothing for NULL. */
MBUF_API void MBUF_PROTOINT_Uninit(MBUF_PROTOINT_CTX_S *pstCtx);

/* Gives identifier ulSessId a zeroed session unless it has one (its history
 * is kept). 0; 1 NULL context; a lock code of MBUF_PROTOINT_LockSess; 5
 * allocation failure ("sess malloc errr (sessId = %u)"). */
MBUF_API uint32_t MBUF_PROTOINT_EnableSession(uint32_t ulSessId, MBUF_PROTOINT_CTX_S *pstCtx);

/* Frees the session of ulSessId, if any. 0; 1 NULL context; a lock code. */
MBUF_API uint32_t MBUF_PROTOINT_DeleteSession(uint32_t ulSessId, MBUF_PROTOINT_CTX_S *pstCtx);

/* Stamps the packet with the stack-debug record (component id: the context's
 * lock-mode word, module id: its component word), then stores ulSessId in
 * the record and sets MBUF_PROTOINT_STAMP_FLAG. The two further arguments
 * are unused. 0; 1 NULL packet or context; 5 no packet header, or no record
 * long enough to hold the identity. */
MBUF_API uint32_t MBUF_PROTOINT_CreateIdInfo(MBUF_S *pstMbuf, uint32_t ulSessId, uint32_t ulArg3,
                                             uint32_t ulArg4, MBUF_PROTOINT_CTX_S *pstCtx);

/* Decodes a record kind 0..5 into: record in the ring (1/0), advance the
 * sequence (1/0), direction (1 send, 2 receive). Kinds above 5 and NULL
 * outputs leave the outputs untouched. */
MBUF_API void MBUF_PROTOINT_CalcType(uint32_t ulKind, uint32_t *pulRing, uint32_t *pulSeq,
                                     uint32_t *pulDir);

/* Records a stamped packet in its session (kind as MBUF_PROTOINT_CalcType).
 * *pulSessId (optional) receives the session's identifier, or 0 when nothing
 * was recorded. 0 nothing to report; 1 a gap, report now; 2 a gap, report
 * suppressed. */
MBUF_API uint32_t MBUF_PROTOINT_RecordPacket(MBUF_S *pstMbuf, uint32_t ulKind, uint32_t *pulSessId,
                                             MBUF_PROTOINT_CTX_S *pstCtx);

/* Lets a report through at most once per 75 seconds: 1 let through (the
 * window starts again now), 2 suppressed, 0 NULL or not initialised context
 * or a failing log mutex. The packet is not used. */
MBUF_API uint32_t MBUF_PROTOINT_RecordSuppress(MBUF_S *pstMbuf, MBUF_PROTOINT_CTX_S *pstCtx);

/* Takes / releases the session mutexes of ulSessId: direction 1 the send
 * mutex, 2 the receive mutex, any other both (send first). 0 (also without
 * locking, in lock modes other than 1 and 2); 2 identifier outside 1..4096;
 * 3 context NULL or not initialised; 4 a mutex call failed (reported when
 * locking; a failed second lock releases the first). */
MBUF_API uint32_t MBUF_PROTOINT_LockSess(uint32_t ulSessId, uint32_t ulDir,
                                         MBUF_PROTOINT_CTX_S *pstCtx);
MBUF_API uint32_t MBUF_PROTOINT_UnlockSess(uint32_t ulSessId, uint32_t ulDir,
                                           MBUF_PROTOINT_CTX_S *pstCtx);

/* The send half (direction 1, a MBUF_PROTOINT_SND_S) or the receive half
 * (2, a MBUF_PROTOINT_RCV_S) of the session; NULL for another direction, an
 * identifier outside 1..4096, a NULL context or a disabled session. The
 * caller holds the session's lock for that direction. */
MBUF_API void *MBUF_PROTOINT_GetSess(uint32_t ulSessId, uint32_t ulDir,
                                     MBUF_PROTOINT_CTX_S *pstCtx);

/* Prints the session's log into pcBuf (ulSize bytes, terminated): the
 * receive counters and ring, then the send counters and ring, oldest packet
 * first, times as "MM-DD hh:mm:s" of the wall clock (universal). Returns the
 * characters written (0 for a disabled session); -1 bad parameters or a
 * text that does not fit (pcBuf then empty); -2 the session could not be
 * locked. */
MBUF_API int32_t MBUF_PROTOINT_PrintLog(char *pcBuf, uint32_t ulSize, uint32_t ulSessId,
                                        MBUF_PROTOINT_CTX_S *pstCtx);

/* The steps of MBUF_PROTOINT_PrintLog, usable on their own. CheckPara: 0, or
 * -1 for a NULL buffer, size 0, NULL context or an identifier outside
 * 1..4096. PrintLogString: the whole text of one session's halves, as
 * PrintLog. PrintLogRcvPkts / PrintLogSndPkts: one ring, a heading before the
 * first entry, each entry numbered by its place 1..10 from the oldest slot;
 * the characters written (0 for an empty ring), -1 when a line does not fit
 * or arguments are NULL. */
MBUF_API int32_t MBUF_PROTOINT_PrintLogCheckPara(const char *pcBuf, uint32_t ulSize,
                                                 uint32_t ulSessId,
                                                 const MBUF_PROTOINT_CTX_S *pstCtx);
MBUF_API int32_t MBUF_PROTOINT_PrintLogString(char *pcBuf, uint32_t ulSize, uint32_t ulSessId,
                                              const MBUF_PROTOINT_SND_S *pstSnd,
                                              const MBUF_PROTOINT_RCV_S *pstRcv);
MBUF_API int32_t MBUF_PROTOINT_PrintLogRcvPkts(char *pcBuf, uint32_t ulSize,
                                               const MBUF_PROTOINT_RCV_S *pstRcv);
MBUF_API int32_t MBUF_PROTOINT_PrintLogSndPkts(char *pcBuf, uint32_t ulSize,
                                               const MBUF_PROTOINT_SND_S *pstSnd);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_PROTOINT_H */
