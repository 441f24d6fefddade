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

/* ---- packet trace ---- */

/* Conditions a packet trace selects packets by. */
#define MBUF_TRACE_COND_NUM 5u

/* Up to five conditions: the word of packet data at aulOffset[i] (four bytes,
 * most significant first), ANDed with aulMask[i], must equal aulValue[i]. A
 * slot whose offset, mask and value are all 0 is empty. The three leading
 * words belong to the trace service. */
typedef struct MBUF_TRACE_COND_S {
    uint32_t aulSvcRsv[3];
    uint32_t aulOffset[MBUF_TRACE_COND_NUM];
    uint32_t aulMask[MBUF_TRACE_COND_NUM];
    uint32_t aulValue[MBUF_TRACE_COND_NUM];
} MBUF_TRACE_COND_S;

/* Puts the non-empty conditions into slots 0.. in ascending order of offset
 * (equal offsets keep their order) and clears the rest. Returns how many
 * there are; 0 for a NULL record. */
MBUF_API uint32_t MBUF_TRACE_AdjustCondOrder(MBUF_TRACE_COND_S *pstCond);

/* Matches the conditions (reordered in place) against a packet that is still
 * a receive descriptor: word 0 the piece count, word 1 the address of an
 * array of piece addresses as the pipe delivers them. 0 when every condition
 * holds; 1 otherwise, for a word that straddles two nodes, and for a zero
 * ulEnable, a NULL descriptor, record or first piece. ulArg1 is the trace
 * service's. Node words and data are read only inside the pipe buffers the
 * pieces lie in; a read that would leave one gives 1. */
MBUF_API uint32_t MBUF_TRACE_JudgeParaMatch(uint32_t ulArg1, uint32_t ulEnable,
                                            MBUF_TRANS_DESC_S *pstDesc, MBUF_TRACE_COND_S *pstCond);

/* Hands a packet to the platform's trace point as a one-piece descriptor
 * (count 1, the packet's address in the address word), with the other
 * arguments passed on.
 * Does nothing for a NULL packet. The packet stays the caller's. */
MBUF_API void MBUF_TRACE_AddTraceInfdec(uint32_t ulArg1, MBUF_S *pstMbuf, uint32_t ulArg2,
                                        uint32_t ulArg3, uint32_t ulArg4, uint32_t ulArg5);

/* The trace identifier kept with the pipe buffer of the packet's head node,
 * in *pulTraceId when the service answers 0. Returns the service's code; 1
 * for a NULL packet, a head without MBUF_PKTHDR or a NULL pulTraceId. */
MBUF_API uint32_t MBUF_TRACE_GetTraceId(MBUF_S *pstMbuf, uint32_t *pulTraceId);

/* Sets that identifier. Returns the service's code; 1 for a NULL packet or a
 * head without MBUF_PKTHDR. */
MBUF_API uint32_t MBUF_TRACE_SetTraceId(MBUF_S *pstMbuf, uint32_t ulTraceId);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_DIAG_H */
