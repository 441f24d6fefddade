/*
 * Control API of the host platform's pipe, message and packet-trace
 * services: opening pipes and message queues, binding them to Unix-domain
 * sockets, watching what travels through them. For tests and tools; the
 * library itself never includes this header.
 */
#ifndef KRM_HOST_PIPE_H
#define KRM_HOST_PIPE_H

#include <stdint.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- result codes ------------------------------------------------------------ */

#define KRM_HOST_PIPE_OK 0u
#define KRM_HOST_PIPE_ERR_NOT_OPENED 0x224C1110u /* pipe or queue not opened */
#define KRM_HOST_PIPE_ERR_NO_TOKEN 0x224C1111u   /* no credit left */
#define KRM_HOST_PIPE_ERR_RANGE 0x224C1112u      /* identifier out of range */
#define KRM_HOST_PIPE_ERR_FULL 0x224C1113u       /* queue holds its maximum */
#define KRM_HOST_PIPE_ERR_ARGUMENT 0x224C1114u   /* bad count, NULL piece or vector */
#define KRM_HOST_PIPE_ERR_NO_MEMORY 0x224C1115u  /* a fresh buffer could not be had */
#define KRM_HOST_PIPE_ERR_SOCKET 0x224C1116u     /* socket bind, connect or send failed */
#define KRM_HOST_PIPE_ERR_BUSY 0x224C1117u       /* already open or already bound */
#define KRM_HOST_PIPE_ERR_CAPACITY 0x224C1118u   /* package read: more packets than room */

/* KRM_PipePackageRead: *pulCount on input is the room of pstDescArray in
 * descriptors. A package with more packets stays queued and the read answers
 * KRM_HOST_PIPE_ERR_CAPACITY. Otherwise one descriptor per packet is filled
 * (ulNum pieces; pstIovec is the address of an array of `void *` piece
 * addresses, owned by the pipe and valid until the same thread's next read
 * of that pipe, its close or a reset), *pulCount is the packet count,
 * *pulStatus 0 and *pulAux the packages still queued; the piece buffers are
 * the reader's from then on and one credit returns to the pipe (never above
 * the number last set). Nothing queued: *pulCount 0, *pulStatus 2, result 0.
 *
 * Writes refuse a count of 0 or above KRM_HOST_PIPE_MAX_PIECES pieces (above
 * KRM_HOST_PIPE_MAX_PACKETS packets for the package write), a NULL vector or
 * piece, and a piece longer than the live buffer it starts (reported), with
 * KRM_HOST_PIPE_ERR_ARGUMENT; a full queue with KRM_HOST_PIPE_ERR_FULL. A
 * refused write leaves the writer's buffers alone. The reader's copies carry
 * the writer's control flag and trace id. */

/* Identifiers are 0..KRM_HOST_PIPE_MAX-1 for pipes and message queues alike. */
#define KRM_HOST_PIPE_MAX 64u
/* Most pieces one packet may have, and most packets one package may have. */
#define KRM_HOST_PIPE_MAX_PIECES 90u
#define KRM_HOST_PIPE_MAX_PACKETS 256u
#define KRM_HOST_PIPE_DEFAULT_TOKENS 1024u

/* KRM_HOST_Reset closes every pipe and message queue, stops their sockets,
 * releases every queued package and message and forgets the trace calls.
 * Sockets are served by threads of the process that bound them: a child
 * forked while a binding is up must not close it (nor reset); bind after the
 * fork instead. */

/* ---- in-process pipes ------------------------------------------------------------ */

/* Opens pipe ulPipeId as a queue of at most ulMaxPackages packages (0: 1024)
 * with KRM_HOST_PIPE_DEFAULT_TOKENS credits. 0, KRM_HOST_PIPE_ERR_RANGE or
 * KRM_HOST_PIPE_ERR_BUSY (already open). */
KRM_HOST_API uint32_t KRM_HOST_PipeOpen(uint32_t ulPipeId, uint32_t ulMaxPackages);

/* Closes a pipe: drops its socket binding, its tap and the address arrays of
 * past reads, and releases the buffers of every queued package (packages
 * already read are their reader's). 0, RANGE or NOT_OPENED. */
KRM_HOST_API uint32_t KRM_HOST_PipeClose(uint32_t ulPipeId);

/* Sets the credits left to ulTokens, which is also the most that reads
 * return credits up to. 0, RANGE or NOT_OPENED. */
KRM_HOST_API uint32_t KRM_HOST_PipeSetTokens(uint32_t ulPipeId, uint32_t ulTokens);

/* Credits left; 0 for a pipe not opened or out of range. */
KRM_HOST_API uint32_t KRM_HOST_PipeTokens(uint32_t ulPipeId);

/* Packages queued; 0 for a pipe not opened or out of range. */
KRM_HOST_API uint32_t KRM_HOST_PipeDepth(uint32_t ulPipeId);

/* ---- cross-process pipes ---------------------------------------------------------- */

/* Binds an open pipe to the Unix-domain socket at pcPath. The listening side
 * accepts one peer (in the background); the connecting side connects at once.
 * Afterwards a write on either side travels as a frame to the other side's
 * queue, and the local queue receives what the peer writes. A frame that is
 * short, oversized or inconsistent is refused whole, counted in ulRefused and
 * reported (KRM_HOST_REPORT_PLATFORM); the connection is then dropped, since
 * the stream can no longer be trusted. 0, RANGE, NOT_OPENED, BUSY or
 * KRM_HOST_PIPE_ERR_SOCKET. The path must fit a socket address. */
KRM_HOST_API uint32_t KRM_HOST_PipeListen(uint32_t ulPipeId, const char *pcPath);
KRM_HOST_API uint32_t KRM_HOST_PipeConnect(uint32_t ulPipeId, const char *pcPath);

/* Blocks up to ulTimeoutMs until the pipe's socket has a peer (a listener
 * accepted one; a connected link keeps its peer until it goes away). 0, or
 * NOT_OPENED, KRM_HOST_PIPE_ERR_SOCKET (not bound, or no peer in time). */
KRM_HOST_API uint32_t KRM_HOST_PipeWaitPeer(uint32_t ulPipeId, uint32_t ulTimeoutMs);

/* Blocks up to ulTimeoutMs until the pipe has a package to read. Returns the
 * packages queued (0: none before the time ran out, or not opened). */
KRM_HOST_API uint32_t KRM_HOST_PipeWait(uint32_t ulPipeId, uint32_t ulTimeoutMs);

/* ---- watching ------------------------------------------------------------------------ */

/* Called for every package written to the pipe (on the writing side), with
 * each packet's pieces, addresses and lengths as the writer gave them, before
 * the writer's buffers are released. Called with no pipe lock held. NULL
 * removes the tap. */
typedef void (*KRM_HOST_PIPE_TAP_PF)(uint32_t ulPipeId, uint32_t ulPktCount,
                                     const MBUF_TRANS_DESC_S *pstPkts, void *pArg);
KRM_HOST_API void KRM_HOST_PipeSetTap(uint32_t ulPipeId, KRM_HOST_PIPE_TAP_PF pfTap, void *pArg);

/* Counters since the pipe was opened: packages and packets accepted by a
 * write (sent or queued), packages and packets handed out by a read, frames
 * refused. */
typedef struct KRM_HOST_PIPE_STATS_S {
    uint32_t ulWritten;
    uint32_t ulRead;
    uint32_t ulPktsWritten;
    uint32_t ulPktsRead;
    uint32_t ulRefused;
} KRM_HOST_PIPE_STATS_S;
KRM_HOST_API uint32_t KRM_HOST_PipeStats(uint32_t ulPipeId, KRM_HOST_PIPE_STATS_S *pstStats);

/* ---- messages ------------------------------------------------------------------------- */

/* Opens message queue ulDest (unbounded). KRM_SEND_MSG(ulDest, ...) queues a
 * message there, or sends it over the socket bound with Listen/Connect. The
 * service takes a live message over whether the send succeeds or not (its
 * sender never frees it after the call), so a refused send releases it.
 * KRM_SEND_MSG answers RANGE, NOT_OPENED, ARGUMENT (not a live message, or a
 * size larger than the message) or SOCKET. 0, RANGE or BUSY. */
KRM_HOST_API uint32_t KRM_HOST_MsgOpen(uint32_t ulDest);

/* Closes a queue, releasing every queued message. 0, RANGE or NOT_OPENED. */
KRM_HOST_API uint32_t KRM_HOST_MsgClose(uint32_t ulDest);

/* Takes the oldest message of queue ulDest, waiting up to ulTimeoutMs; NULL
 * when none came. Class and type as sent go to *pulClass / *pulType (either
 * may be NULL). The receiver owns the message buffer (TQM_MsgFree). */
KRM_HOST_API void *KRM_HOST_MsgReceive(uint32_t ulDest, uint32_t ulTimeoutMs, uint32_t *pulClass,
                                       uint32_t *pulType);

/* Binds an open queue to a Unix-domain socket, as for pipes. */
KRM_HOST_API uint32_t KRM_HOST_MsgListen(uint32_t ulDest, const char *pcPath);
KRM_HOST_API uint32_t KRM_HOST_MsgConnect(uint32_t ulDest, const char *pcPath);
KRM_HOST_API uint32_t KRM_HOST_MsgWaitPeer(uint32_t ulDest, uint32_t ulTimeoutMs);

/* ---- packet trace --------------------------------------------------------------------- */

/* One call of KRM_AddTraceInfecPoint_Pipe: its arguments, the descriptor's
 * piece count and pointer word as given (not followed; 0 and NULL for a NULL
 * descriptor). TQM_PIPE_TRACEFLAG_GET answers the trace id kept with the
 * first piece's buffer, TQM_PIPE_TRACEFLAG_SET stores one with every
 * piece's buffer; both answer 1 when a piece is not a live pipe buffer
 * start (SET then stores nothing). */
typedef struct KRM_HOST_TRACE_CALL_S {
    uint32_t ulArg1;
    uint32_t ulNum;
    const void *pPieces;
    uint32_t ulArg2;
    uint32_t ulArg3;
    uint32_t ulArg4;
    uint32_t ulArg5;
} KRM_HOST_TRACE_CALL_S;

/* Calls recorded since the last reset, and the ulIndex-th of them (0 on
 * success, 1 when out of range). */
KRM_HOST_API uint32_t KRM_HOST_TraceCallCount(void);
KRM_HOST_API uint32_t KRM_HOST_TraceCallGet(uint32_t ulIndex, KRM_HOST_TRACE_CALL_S *pstCall);

#ifdef __cplusplus
}
#endif

#endif /* KRM_HOST_PIPE_H */
