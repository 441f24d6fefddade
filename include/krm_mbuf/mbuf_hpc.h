/* Exported functions of the family: packets to and from the forwarding path's vectors.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_HPC_H
#define KRM_MBUF_MBUF_HPC_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- packet to vector ---- */

/* Describes a packet as the caller's vector of pieces for the forwarding
 * path: each node up to its data end (an external node as its first 520
 * bytes, then its buffer up to the data end), a separately held control
 * block last with MBUF_FLAG_CTLINFO_SENT set on the head; every piece is
 * stamped with the packet priority. *pulTokenNum in: the budget (above 90
 * counts as 90); out, on success: the entries used, always below the budget.
 * Marks and cuts the packet as a pipe send does (byte order, markers, inner
 * packet headers lose their tags, pstNextPkt cleared). 0; 1002 NULL or no
 * MBUF_PKTHDR; 1016 NULL vector or budget; 1017 budget too small (logged;
 * the entries written stay). The packet stays the caller's. */
MBUF_API uint32_t MBUF_HPC_Packet2Vector_fl(MBUF_IOVEC_S *pstVector, uint32_t *pulTokenNum,
                                            MBUF_S *pstMbuf, const char *pcFileName,
                                            uint32_t ulLine);

/* The node pieces of the packet, appended at pstVector[*pulCount]: a node
 * only while count + 1 (count + 2 for an external node) stays below
 * ulBudget. 0 (also for a NULL packet, with no entry); 1016 NULL vector or
 * count; 1017 over budget (logged). */
MBUF_API uint32_t MBUF_HPC_Packet2VectorData(MBUF_IOVEC_S *pstVector, uint32_t *pulCount,
                                             uint32_t ulBudget, MBUF_S *pstMbuf,
                                             const MBUF_FILE_LINE_S *pstFileLine);

/* The control block's piece when the block is held apart from the head:
 * appended while count + 1 stays below ulBudget, the head flagged, the piece
 * stamped with the priority's low byte. 0 (nothing to add also gives 0);
 * 1016 NULL vector or count; 1017 over budget (logged). */
MBUF_API uint32_t MBUF_HPC_Packet2VectorTag(MBUF_IOVEC_S *pstVector, uint32_t *pulCount,
                                            uint32_t ulBudget, MBUF_S *pstMbuf,
                                            const MBUF_FILE_LINE_S *pstFileLine);

/* One node's pieces (one for a node with inline data, two for an external
 * node) at pstVector[*pulCount], its data offset in ulRsv2, each piece
 * stamped with ulPriority (a refusal is logged). 0; 1000 NULL argument. */
MBUF_API uint32_t MBUF_HPC_ConvertData(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector, uint32_t *pulCount,
                                       const MBUF_FILE_LINE_S *pstFileLine, uint32_t ulPriority);
MBUF_API uint32_t MBUF_HPC_ConvertExtData(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector,
                                          uint32_t *pulCount, const MBUF_FILE_LINE_S *pstFileLine,
                                          uint32_t ulPriority);

/* ---- vector to packet ---- */

/* Rebuilds a packet in place from ulCount entries of a vector made by
 * MBUF_HPC_Packet2Vector_fl: the head (entry 0) checked and converted from
 * the sender's byte order, data that does not fit a node moved to a buffer
 * of its own, the control block re-attached (and upgraded from an older
 * layout), every node re-based and linked. An external node's ulExtSize is
 * the length of the entry after its buffer's own (the buffer's real size
 * where the vector has no such entry). On success *ppstMbuf is the packet,
 * which the caller destroys. 0; 1000 a further node missing; 1002 the head
 * fails verification or its magic (also for no entries); 1008 a buffer could
 * not be had; 1010 an external node's buffer missing; 1016 NULL ppstMbuf. A
 * node or buffer whose words would put data outside the buffer it arrived
 * in is refused (1002 for the head, 1000 or 1010 after it, with a report).
 * Nothing is freed on failure: the entries stay the caller's. */
MBUF_API uint32_t MBUF_HPC_Vector2Packet_fl(MBUF_S **ppstMbuf, MBUF_IOVEC_S *pstVector,
                                            uint32_t ulCount, const char *pcFileName,
                                            uint32_t ulLine);

/* The nodes after a prepared head, from entry 1 on; ulCount 0 rebuilds
 * nothing. 0, 1000, 1008 or 1010 as above. */
MBUF_API uint32_t MBUF_HPC_Vector2PacketData(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector,
                                             uint32_t ulCount, const char *pcFileName,
                                             uint32_t ulLine);

/* Makes room for a received node's data: a node without an external buffer
 * whose data runs past its inline room gets a buffer of its own
 * (*pbAllocated 1), any other node has its link words cleared. 0; 1000 NULL
 * node; 1008 no buffer. */
MBUF_API uint32_t MBUF_HPC_Vector2PacketDataNeedExt(MBUF_S *pstMbuf, uint32_t ulMemId,
                                                    uint32_t *pbAllocated, const char *pcFileName,
                                                    uint32_t ulLine);

/* Re-bases one node's data: inline at the node, or in the entry at
 * *pulIndex for an external node (*pulIndex advances, and ulExtSize is the
 * next entry's length); a node whose data was moved (bAllocated) only loses
 * its offset word. 0; 1000 NULL node; 1010 the buffer's entry is missing or
 * its data would lie outside it. */
MBUF_API uint32_t MBUF_HPC_Vector2PacketDataIfExt(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstVector,
                                                  uint32_t *pulIndex, uint32_t bAllocated);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_HPC_H */
