/* Exported functions of the family: sending packets through pipes and rebuilding them on receipt.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_PIPE_H
#define KRM_MBUF_MBUF_PIPE_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- control-information upgrade ---- */

/* Rewrites the packet's control block, written by a peer with ucSlotNum
 * directory slots, into the local 23-slot layout: a new block of the old
 * capacity + 184 bytes (at least 448) plus 128 spare, the common record and
 * the used record area copied, every present slot moved by the change in
 * directory size (slots beyond 23 dropped), then an older stack-debug record
 * relaid into the current form. The old block is freed when bFreeOld is
 * non-zero and it is not the node's inline area. 0 done; 1002 NULL or no
 * MBUF_PKTHDR; 1000 no block; 1016 the old block claims more than its
 * memory holds; 1008 no memory. On failure the packet is unchanged. */
MBUF_API uint32_t MBUF_IssuProcContrlInfo_fl(MBUF_S *pstMbuf, uint32_t ulMemId, uint32_t bFreeOld,
                                             const char *pcFileName, uint32_t ulLine);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_PIPE_H */
