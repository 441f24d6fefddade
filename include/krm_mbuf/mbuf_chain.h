/* Exported functions of the chain family; included by krm_mbuf/mbuf.h.
 *
 * Growing and trimming a packet at either end or in the middle, copying bytes
 * between a packet and flat memory, duplicating a packet header, joining and
 * splitting packets, making a range contiguous, re-packing a packet of many
 * blocks, walking a packet's data, and bounded lists of packets.
 *
 * Offsets and lengths count data bytes from the head node's pucData along
 * pstNext. Copies always copy bytes: no external buffer is ever shared by two
 * packets. The allocating entry points have a _fl form that carries the
 * caller's file and line down to the platform allocator; the forms without
 * the suffix pass their own exported name and a fixed line instead. */
#ifndef KRM_MBUF_MBUF_CHAIN_H
#define KRM_MBUF_MBUF_CHAIN_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Largest number of bytes one prepend or append adds. */
#define MBUF_GROW_MAX_LEN 1960u
/* Head room a raw copy always leaves in front of its data. */
#define MBUF_RAWCOPY_MIN_HEADROOM 64u
/* Head room an external buffer duplicated by a split keeps in front. */
#define MBUF_DUPEXT_HEADROOM 64u
/* MBUF_Compress_fl re-packs a packet described by more blocks than this. */
#define MBUF_COMPRESS_MAX_BLOCKS 90u
/* The largest buffer MBUF_Compress_fl makes, and the length it refuses. */
#define MBUF_COMPRESS_MAX_BUF 63900u
#define MBUF_COMPRESS_MAX_LEN (63900u + 1960u)

/* Iterator record of MBUF_GetFirstDataBlock / MBUF_GetNextDataBlock. */
typedef struct MBUF_DATA_BLOCK_S {
    uint8_t *pucData;           /* the block's first byte */
    uint32_t ulDataLen;         /* its length (0 for an empty node) */
    struct MBUF_S *pstNextNode; /* the node after the block's node */
} MBUF_DATA_BLOCK_S;

/* An entry filled by MBUF_GetDataBlockInfo. */
typedef struct MBUF_BLOCK_INFO_S {
    uint8_t *pucData;
    uint32_t ulLen;
} MBUF_BLOCK_INFO_S;

/* An entry filled by MBUF_GetDataBlockForKeyChain; ulRsv is left untouched. */
typedef struct MBUF_KEYCHAIN_BLOCK_S {
    uint8_t *pucData;
    uint32_t ulLen;
    uint32_t ulRsv;
} MBUF_KEYCHAIN_BLOCK_S;

/* The caller's array of block entries. The number of entries filled is not
 * written back: MBUF_GetDataBlockNum tells it. */
typedef struct MBUF_BLOCK_LIST_S {
    uint32_t ulMaxNum; /* entries the array holds */
    uint32_t ulRsv;
    void *pstBlocks; /* MBUF_BLOCK_INFO_S[] or MBUF_KEYCHAIN_BLOCK_S[] */
} MBUF_BLOCK_LIST_S;

/* A bounded list of packets linked through their pstNextPkt. */
typedef struct MBUF_SLIST_S {
    struct MBUF_S *pstHead;
    struct MBUF_S *pstTail;
    uint32_t ulCount;
    uint32_t ulMaxCount;
} MBUF_SLIST_S;

/* Called on each piece of a range: (caller argument, first byte, length);
 * a non-zero result stops the walk and is returned. */
typedef uint32_t (*MBUF_APPLY_FUNC_PF)(uint32_t ulArg, uint8_t *pucData, uint32_t ulLen);

/* ---- space management ------------------------------------------------------ */

/* Makes ulLen (at most 1960) new, unwritten bytes the packet's first bytes and
 * returns a pointer to them: in the head's own head room when it fits (an
 * exact fit is used) and MBUF_ROOMLOCK is clear, else the head takes a new
 * 1960-byte cluster holding just these bytes and its old data moves to a new
 * second node. NULL for a NULL node, no MBUF_PKTHDR, ulLen above 1960 or
 * exhausted memory; the packet is then unchanged. */
MBUF_API uint8_t *MBUF_PrependMemorySpace_fl(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                                             const char *pcFileName, uint32_t ulLine);
MBUF_API uint8_t *MBUF_PrependMemorySpace(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId);

/* Adds ulLen (at most 1960) new, unwritten bytes at the packet's end and
 * returns a pointer to them: in the last node's tail room when it is larger
 * than ulLen, else in a new node with a 1960-byte cluster. NULL as for
 * prepend; the packet is then unchanged. */
MBUF_API uint8_t *MBUF_AppendMemorySpace_fl(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                                            const char *pcFileName, uint32_t ulLine);
MBUF_API uint8_t *MBUF_AppendMemorySpace(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId);

/* Removes ulLen bytes from the packet's front (all of them when it holds
 * fewer) and releases the nodes left empty. 0; 1002 for NULL or a node
 * without MBUF_PKTHDR. */
MBUF_API uint32_t MBUF_CutHead_fl(MBUF_S *pstMbuf, uint32_t ulLen, const char *pcFileName,
                                  uint32_t ulLine);
MBUF_API uint32_t MBUF_CutHead(MBUF_S *pstMbuf, uint32_t ulLen);

/* The same at the packet's end. */
MBUF_API uint32_t MBUF_CutTail_fl(MBUF_S *pstMbuf, uint32_t ulLen, const char *pcFileName,
                                  uint32_t ulLine);
MBUF_API uint32_t MBUF_CutTail(MBUF_S *pstMbuf, uint32_t ulLen);

/* Removes ulLen bytes starting ulOffset bytes into the packet. 0; 1002 NULL
 * or no MBUF_PKTHDR; 1005 the range passes the packet's end; 1006 the chain
 * ended before the offset. */
MBUF_API uint32_t MBUF_CutPart_fl(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                                  const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_CutPart(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen);

/* Drops ulLen bytes from the front of one node (and from ulTotalDataLen of a
 * packet head). Unchecked: the node must hold at least ulLen bytes. */
MBUF_API void MBUF_CutContinueHead(MBUF_S *pstMbuf, uint32_t ulLen);

/* Cuts lLen bytes from the front (lLen > 0) or -lLen bytes from the end
 * (lLen < 0) of the chain from pstMbuf. Front cuts leave emptied nodes in the
 * chain; end cuts release the nodes behind the new end. ulTotalDataLen is
 * kept only when pstMbuf carries MBUF_PKTHDR. */
MBUF_API void MBUF_CutDataBySpecifiedLength(MBUF_S *pstMbuf, int32_t lLen,
                                            const MBUF_FILE_LINE_S *pstFileLine);

/* Tidies what cuts left behind: an empty head returns to its inline area,
 * later nodes lose a stray MBUF_PKTHDR, empty later nodes are released. */
MBUF_API void MBUF_FreeNoUseMemory_fl(MBUF_S *pstMbuf, const char *pcFileName, uint32_t ulLine);

/* ---- copy and duplicate ---------------------------------------------------------- */

/* Copies ulLen bytes from ulOffset out of the packet into pDst. 0; 1002 NULL
 * or no MBUF_PKTHDR; 1004 ulOffset not below the packet's length (also for
 * ulLen 0); 1005 the range passes the end. */
MBUF_API uint32_t MBUF_CopyDataFromMBufToBuffer(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                                                void *pDst);

/* Writes lLen bytes of pSrc into the packet at lOffset, adding zeroed or
 * written nodes as needed (existing nodes are never lengthened). 0 whatever
 * the copy met on the way; 1002 NULL or no MBUF_PKTHDR. */
MBUF_API uint32_t MBUF_CopyDataFromBufferToMBuf(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                                const void *pSrc, uint32_t ulModuleId);

/* Overwrites lLen bytes of packet data from ulOffset; never grows the packet.
 * 0; 1002 NULL or no MBUF_PKTHDR; 1005 the range passes ulTotalDataLen; 1006
 * the chain ended first (bytes written so far stay written). */
MBUF_API uint32_t MBUF_FillDataForApp(MBUF_S *pstMbuf, uint32_t ulOffset, int32_t lLen,
                                      const void *pSrc);

/* The unchecked copy from a chain to flat memory; problems are reported and
 * what could be copied is copied. */
MBUF_API void MBUF_CopyDataFromMbufToCbuf(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                          void *pDst);

/* The unchecked copy from flat memory into a chain, growing it as needed;
 * a negative offset or length writes nothing. */
MBUF_API void MBUF_CopyDataFromCbufToMbuf(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                          const void *pSrc, uint32_t ulModuleId);

/* Copies a packet header (flags of mask 0x00037FFE, the destination keeping
 * its MBUF_EXT; ulPktRsv4, ulTotalDataLen, ulFlag3, ulPktTagInfo, ulFlag2 and
 * the control information) from pstSrc onto pstDst. Non-zero on success; 0
 * when the control information could not be copied or a node is NULL. */
MBUF_API int32_t MBUF_DuplicatePktHdr(MBUF_S *pstDst, MBUF_S *pstSrc, uint32_t ulModuleId,
                                      const MBUF_FILE_LINE_S *pstFileLine);

/* A new packet-header node with pstSrc's header and no data (its
 * ulTotalDataLen is the source's: the caller sets the lengths). NULL for a
 * NULL source or one without MBUF_PKTHDR, or exhausted memory. */
MBUF_API MBUF_S *MBUF_CopyMBufHeader_fl(MBUF_S *pstSrc, uint32_t ulModuleId, const char *pcFileName,
                                        uint32_t ulLine);

/* A new one-node packet with pstSrc's header holding a copy of ulLen bytes
 * from ulOffset behind at least 64 bytes of head room. NULL (reported) for a
 * bad source or a range beyond it; NULL for exhausted memory. */
MBUF_API MBUF_S *MBUF_RawCopy_fl(MBUF_S *pstSrc, uint32_t ulOffset, uint32_t ulLen,
                                 uint32_t ulHeadRoom, uint32_t ulModuleId, const char *pcFileName,
                                 uint32_t ulLine);
MBUF_API MBUF_S *MBUF_RawCopy(MBUF_S *pstSrc, uint32_t ulOffset, uint32_t ulLen,
                              uint32_t ulHeadRoom, uint32_t ulModuleId);

/* ---- join and split ---------------------------------------------------------------- */

/* Appends pstSrc's data to pstDst and consumes pstSrc (which must not be used
 * afterwards); small trailing nodes are copied into the destination's free
 * inline room. 0; 1002 either is NULL or lacks MBUF_PKTHDR; 1016 the two
 * are the same packet. */
MBUF_API uint32_t MBUF_Concatenate_fl(MBUF_S *pstDst, MBUF_S *pstSrc, const char *pcFileName,
                                      uint32_t ulLine);
MBUF_API uint32_t MBUF_Concatenate(MBUF_S *pstDst, MBUF_S *pstSrc);

/* Hangs the chain pstSrc behind the chain pstDst, copying source nodes into
 * the last node's inline room while they fit; ulTotalDataLen is not kept. */
MBUF_API void MBUF_AppendMbufToTheEndOfAnother(MBUF_S *pstDst, MBUF_S *pstSrc,
                                               const MBUF_FILE_LINE_S *pstFileLine);

/* Cuts the chain after ulLen bytes and returns the part behind (for a packet
 * head: a new packet head holding it, both heads' totals set). The bytes
 * behind the point are copied into new storage, never shared. NULL for NULL,
 * an offset beyond the chain, or exhausted memory. */
MBUF_API MBUF_S *MBUF_Split(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                            const MBUF_FILE_LINE_S *pstFileLine);

/* Splits a packet after ulLen bytes; the second packet gets a copy of the
 * control information. NULL for NULL, no MBUF_PKTHDR, ulLen 0 or above the
 * packet's length, or exhausted memory (the packet is then as it was). */
MBUF_API MBUF_S *MBUF_Fragment_fl(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId,
                                  const char *pcFileName, uint32_t ulLine);
MBUF_API MBUF_S *MBUF_Fragment(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulModuleId);

/* Tidies the packet and cuts it where it would need more than ulMaxMemCnt
 * memory blocks (control block, nodes, external buffers); returns the
 * cut-off rest as a new packet, or NULL when nothing was cut. If the new head
 * cannot be allocated the cut-off nodes are NOT released: NULL is returned. */
MBUF_API MBUF_S *MBUF_FragmentByMemCnt_fl(MBUF_S *pstMbuf, uint32_t ulMaxMemCnt,
                                          uint32_t ulModuleId, const char *pcFileName,
                                          uint32_t ulLine);

/* Gives pstDst a new external buffer holding a copy of pstSrc's buffer from
 * pucData + ulOffset to the buffer's end, behind 64 bytes of head room.
 * 1 done (also when there is nothing to copy: then nothing is attached);
 * 0 failed. pstDst's ulDataLen is left to the caller. */
MBUF_API uint32_t MBUF_DuplicateExtInfo(MBUF_S *pstDst, MBUF_S *pstSrc, uint32_t ulOffset,
                                        uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFileLine);

/* ---- contiguity and compaction -------------------------------------------------- */

/* Makes lLen bytes from lOffset lie in one node, moving bytes as needed (the
 * packet's length is unchanged), and returns a pointer to the first. NULL for
 * NULL, no MBUF_PKTHDR, a negative argument (reported), a range beyond the
 * packet or exhausted memory; the packet is then unchanged. */
MBUF_API uint8_t *MBUF_MakeMemoryContinuous_fl(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                               uint32_t ulModuleId, const char *pcFileName,
                                               uint32_t ulLine);
MBUF_API uint8_t *MBUF_MakeMemoryContinuous(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                            uint32_t ulModuleId);

/* The work of MBUF_MakeMemoryContinuous_fl: returns the node holding the
 * whole range and stores the offset in it through plOffsetInNode (may be
 * NULL). NULL as above (a NULL node is reported). */
MBUF_API MBUF_S *MBUF_MemContinuousFromOffset(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                              int32_t *plOffsetInNode, uint32_t ulModuleId,
                                              const MBUF_FILE_LINE_S *pstFileLine);

/* Tidies the packet and, when it still needs more than 90 memory blocks,
 * re-packs its data into one buffer (and at most one further node). 0 (also
 * when nothing was needed, and for NULL); 1002 a node without MBUF_PKTHDR;
 * 1007 the packet holds 65860 bytes or more; 1008 exhausted memory (the
 * packet is unchanged, or valid but only partly re-packed). */
MBUF_API uint32_t MBUF_Compress_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const char *pcFileName,
                                   uint32_t ulLine);

/* ---- traversal ----------------------------------------------------------------------- */

/* Calls pfFunc on each contiguous piece of lLen bytes from lOffset (empty
 * nodes inside the range give pieces of length 0). 1002 NULL or no
 * MBUF_PKTHDR; 1016 a negative offset or no function; the first non-zero
 * result of pfFunc; else 0 (also for an offset beyond the packet). */
MBUF_API uint32_t MBUF_Apply(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                             MBUF_APPLY_FUNC_PF pfFunc, uint32_t ulArg);

/* The same walk over any chain, with reports; 1006 (reported) when the
 * offset lies beyond the chain, 1005 (reported) when the range does; 1016 no
 * function; else the first non-zero result of pfFunc, or 0. */
MBUF_API uint32_t MBUF_ApplyFuncToSpecifiedData(MBUF_S *pstMbuf, int32_t lOffset, int32_t lLen,
                                                MBUF_APPLY_FUNC_PF pfFunc, uint32_t ulArg);

/* The node holding packet offset *pulOffset, with *pulOffset turned into the
 * offset inside it; an offset at a node's end gives the next node at 0.
 * Offset 0 gives pstMbuf itself. NULL when the chain ends first. */
MBUF_API MBUF_S *MBUF_LocateOffsetNode(MBUF_S *pstMbuf, uint32_t *pulOffset);

/* The head's block. 0; 1002 NULL or no MBUF_PKTHDR; 1016 NULL record. */
MBUF_API uint32_t MBUF_GetFirstDataBlock(MBUF_S *pstMbuf, MBUF_DATA_BLOCK_S *pstBlock);

/* The next block; a cleared record at the end. 0; 1002 the next node is not
 * live (magic); 1016 NULL record. */
MBUF_API uint32_t MBUF_GetNextDataBlock(MBUF_DATA_BLOCK_S *pstBlock);

/* The number of nodes contributing bytes to the range. 0; 1002 for NULL, no
 * MBUF_PKTHDR, ulLen 0, a range beyond the packet or an offset whose node is
 * not found; 1016 NULL result pointer. */
MBUF_API uint32_t MBUF_GetDataBlockNum(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                                       uint32_t *pulNum);

/* Lists the pieces of the range as MBUF_BLOCK_INFO_S entries. 0; 1002 NULL
 * or no MBUF_PKTHDR; 1016 ulLen 0, a range beyond the packet or a NULL list;
 * 1017 more pieces than entries (the entries filled stay); 1018 the offset's
 * node was not found. */
MBUF_API uint32_t MBUF_GetDataBlockInfo(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                                        MBUF_BLOCK_LIST_S *pstList);

/* The same with MBUF_KEYCHAIN_BLOCK_S entries. */
MBUF_API uint32_t MBUF_GetDataBlockForKeyChain(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen,
                                               MBUF_BLOCK_LIST_S *pstList);

/* ---- packet lists ----------------------------------------------------------------------- */

/* An empty list of at most ulMaxCount packets. 0; 1 for NULL. */
MBUF_API uint32_t MBUF_SlistCreate(MBUF_SLIST_S *pstList, uint32_t ulMaxCount);

/* Appends a packet. 0; 1 for a NULL list or packet, a full list, or a list
 * that has packets but no tail (reported). */
MBUF_API uint32_t MBUF_SlistAppend(MBUF_SLIST_S *pstList, MBUF_S *pstMbuf);

/* Unlinks and returns the first packet; NULL for a NULL or empty list. */
MBUF_API MBUF_S *MBUF_SlistRemoveFirst(MBUF_SLIST_S *pstList);

/* The first packet, or NULL. */
MBUF_API MBUF_S *MBUF_SlistPeekFirst(MBUF_SLIST_S *pstList);

/* The packet behind pstMbuf, or NULL (also when either argument is NULL). */
MBUF_API MBUF_S *MBUF_SlistPeekNext(MBUF_SLIST_S *pstList, MBUF_S *pstMbuf);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_CHAIN_H */
