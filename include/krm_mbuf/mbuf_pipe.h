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

/* The folded result of MBUF_TokenAlloc_fl for every "no token" answer. */
#define MBUF_ERR_TOKEN_FOLDED 0x224C1082u

/* The more-nodes-follow marker a sender writes into ulRsv0. */
#define MBUF_PIPE_MORE_NODES 0xFFFFFFFFu

/* ---- tokens ------------------------------------------------------------------ */

/* Prepares a packet for a pipe send and reserves one token of ulPipeId:
 * compresses a packet of too many blocks (MBUF_Compress_fl with the module id
 * and the caller's position), then KRM_PipeTokenAlloc with a count of 1.
 * 1002 for NULL or no MBUF_PKTHDR; the compressor's code; else the service's
 * result, where MBUF_TokenAlloc_fl folds 0x224C1110/1111/1112 into 0x224C1082
 * and MBUF_TokenAllocEx_fl passes it unchanged. The packet stays the caller's. */
MBUF_API uint32_t MBUF_TokenAlloc_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId,
                                     const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_TokenAlloc(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId);
MBUF_API uint32_t MBUF_TokenAllocEx_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId,
                                       const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_TokenAllocEx(uint32_t ulPipeId, MBUF_S *pstMbuf, uint32_t ulModuleId);

/* ---- vector sends ---------------------------------------------------------------
 * pstIovec is the caller's array of MBUF_PIPE_MAX_IOVEC entries. On success
 * (0) the pipe owns every buffer of the packet; on any failure the packet
 * stays the caller's, with ulRsv0/ulRsv2, pstNextPkt and the tags of inner
 * packet headers already rewritten. */

/* Stamps this host's byte order on every node, cuts the packet from its
 * list and writes it in the data-end layout with the packet priority stamped
 * on every piece; MBUF_Send2QueHead queues it at the head. 1002 for NULL or
 * no MBUF_PKTHDR, else the write's result. */
MBUF_API uint32_t MBUF_Send_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                               const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_Send(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec);
MBUF_API uint32_t MBUF_Send2QueHead(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                                    const char *pcFileName, uint32_t ulLine);

/* Builds and writes without converting anything (the caller stamped the
 * byte order). A packet needing more than 90 pieces is cut at 90 without
 * error. bUrgent selects the urgent write. 1002 for NULL. */
MBUF_API uint32_t MBUF_PipeSend_fl(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                                   const char *pcFileName, uint32_t ulLine, uint32_t bUrgent);

/* The priority write. ulArg2, ulArg4 and ulArg5 are the pipe service's and
 * are not read. MBUF_SendByFlag_fl: 1002 for NULL or no MBUF_PKTHDR, then
 * byte order stamped and the packet cut from its list. MBUF_PipeSendByFlag_fl:
 * 1000 for NULL; 1009 (nothing written) for more than 90 pieces. */
MBUF_API uint32_t MBUF_SendByFlag_fl(uint32_t ulPipeId, uint32_t ulArg2, MBUF_S *pstMbuf,
                                     uint32_t ulArg4, uint32_t ulArg5, MBUF_IOVEC_S *pstIovec,
                                     const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_SendByFlag(uint32_t ulPipeId, uint32_t ulArg2, MBUF_S *pstMbuf,
                                  uint32_t ulArg4, uint32_t ulArg5, MBUF_IOVEC_S *pstIovec);
MBUF_API uint32_t MBUF_PipeSendByFlag_fl(uint32_t ulPipeId, uint32_t ulArg2, MBUF_S *pstMbuf,
                                         uint32_t ulArg4, uint32_t ulArg5, MBUF_IOVEC_S *pstIovec,
                                         const char *pcFileName, uint32_t ulLine);

/* Fills pstDesc (count, and the entries of its pstIovec array) without
 * sending: MBUF_SendTrans_fl in the whole-node layout, MBUF_SendTrans2_fl in
 * the data-end layout. 0; 1002 for NULL or no MBUF_PKTHDR; 1009 for more
 * than 90 pieces. */
MBUF_API uint32_t MBUF_SendTrans_fl(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc,
                                    const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_SendTrans(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc);
MBUF_API uint32_t MBUF_SendTrans2_fl(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc,
                                     const char *pcFileName, uint32_t ulLine);

/* Describes every packet of the list (along pstNextPkt) into
 * pstDescArray[i] (each with its own pstIovec array) and writes them as one
 * package. The first description failure is returned and nothing is
 * written; else the write's result. */
MBUF_API uint32_t MBUF_MultiSend_fl(uint32_t ulPipeId, MBUF_S *pstPktList,
                                    MBUF_TRANS_DESC_S *pstDescArray, const char *pcFileName,
                                    uint32_t ulLine);
MBUF_API uint32_t MBUF_MultiSend(uint32_t ulPipeId, MBUF_S *pstPktList,
                                 MBUF_TRANS_DESC_S *pstDescArray);

/* Fills pstIovec in the whole-node layout (520 bytes for an external node),
 * cuts the packet from its list and stamps this host's byte order on every
 * node. Returns the number of entries (90 with a report when the packet
 * needs more), or 1002 for NULL or no MBUF_PKTHDR. */
MBUF_API uint32_t MBUF_Send_GetAddr(MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec, const char *pcFileName,
                                    uint32_t ulLine);

/* The no-free write of MBUF_Send_GetAddr's vector: the buffers stay the
 * caller's. MBUF_Send_GetAddr's result is the count, unchecked. */
MBUF_API uint32_t MBUF_Send_NoFree(uint32_t ulPipeId, MBUF_S *pstMbuf, MBUF_IOVEC_S *pstIovec,
                                   const char *pcFileName, uint32_t ulLine);

/* ---- receives -------------------------------------------------------------------
 * pstDesc is a receive descriptor: ulNum pieces, pstIovec holding the
 * address of an array of piece addresses (void *). On success the rebuilt
 * packet is stored in *ppstMbuf and belongs to the caller; on failure
 * nothing is freed and the pieces stay the caller's. 1002: the head is not
 * a live packet-header node in a whole node's buffer; 1000: a further node
 * is missing or not in a whole node's buffer; 1010: an external node has no
 * piece, or its data would lie outside that piece; 1008: an external buffer
 * for data that does not fit inline could not be had. */
MBUF_API uint32_t MBUF_UnStdPipeRcvTrans_fl(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc,
                                            uint32_t ulMemId, const char *pcFileName,
                                            uint32_t ulLine);
MBUF_API uint32_t MBUF_RcvTrans_fl(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc,
                                   const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_RcvTrans(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc);

/* Reads one package from ulPipeId (*pulCount in: capacity of pstDescArray)
 * and rebuilds its packets, chained along pstNextPkt into *ppstPktList.
 * Nothing queued: 0 with *pulCount 0 and the status. A rebuild failure:
 * its code, *pulCount 0, list NULL. The service's own code passes through. */
MBUF_API uint32_t MBUF_MultiRecv_fl(uint32_t ulPipeId, MBUF_S **ppstPktList, uint32_t *pulCount,
                                    uint32_t *pulStatus, MBUF_TRANS_DESC_S *pstDescArray,
                                    const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_MultiRecv(uint32_t ulPipeId, MBUF_S **ppstPktList, uint32_t *pulCount,
                                 uint32_t *pulStatus, MBUF_TRANS_DESC_S *pstDescArray);

/* The receive that allocates nothing: 1007 where data would need an
 * external buffer or the control block an upgrade; otherwise as
 * MBUF_RcvTrans_fl, except that ulExtSize is left as the sender wrote it. */
MBUF_API uint32_t MBUF_RcvTransReadOnly(MBUF_S **ppstMbuf, MBUF_TRANS_DESC_S *pstDesc);
/* Its steps. bSameOrder non-zero: no conversion. */
MBUF_API uint32_t MBUF_RcvTransReadOnly_VerifyFirstMbuf(MBUF_S *pstMbuf, uint32_t bSameOrder);
MBUF_API uint32_t MBUF_RcvTransReadOnly_ProcFirstTag(MBUF_TRANS_DESC_S *pstDesc,
                                                     uint32_t bSameOrder, uint32_t *pulCount);
MBUF_API uint32_t MBUF_RcvTransReadOnly_LinkExtData(MBUF_S *pstMbuf, MBUF_TRANS_DESC_S *pstDesc,
                                                    uint32_t *pulIndex);
MBUF_API uint32_t MBUF_RcvTransReadOnly_VerifyOtherMbuf(MBUF_S *pstMbuf, MBUF_S *pstPrev);

/* ---- the message form ------------------------------------------------------------ */

/* Sends the packet as one message of the message service (class 6, type
 * 893) to ulDest: an 8-byte header (total size as a big-endian u16, then
 * zeros from byte 4) and the packet's serial image. The packet is destroyed
 * in every case after the header check. 1002 for NULL or no MBUF_PKTHDR
 * (the packet is then the caller's); 1014 no message; the serialiser's or
 * the service's code. */
MBUF_API uint32_t MBUF_SendMsg_fl(uint32_t ulModule, uint32_t ulDest, MBUF_S *pstMbuf,
                                  const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_SendMsg(uint32_t ulModule, uint32_t ulDest, MBUF_S *pstMbuf);

/* The packet of a message sent by MBUF_SendMsg_fl, rebuilt from the image
 * behind its header; NULL for a NULL message, one shorter than its header
 * or an image that does not read. The message stays the caller's. */
MBUF_API MBUF_S *MBUF_RecvMsg_fl(void *pMsg, const char *pcFileName, uint32_t ulLine);
MBUF_API MBUF_S *MBUF_RecvMsg(void *pMsg);

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
