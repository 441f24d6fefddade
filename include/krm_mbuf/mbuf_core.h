/* Exported functions of the core family; included by krm_mbuf/mbuf.h.
 *
 * Nodes and their initialiser, the memory adapter over the platform's pipe
 * buffers, the node allocators, and the creation and destruction of packets.
 * Every allocating entry point has a _fl form that carries the caller's file
 * and line down to the platform allocator; the form without the suffix passes
 * its own exported name and a fixed line instead. */
#ifndef KRM_MBUF_MBUF_CORE_H
#define KRM_MBUF_MBUF_CORE_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The node type every allocator of the library stamps. */
#define MBUF_TYPE_DATA 1u
/* An init record with this type leaves the node untouched. */
#define MBUF_TYPE_KEEP 255u
/* The largest single buffer MBUF_CreateMbufWithBufferData makes. */
#define MBUF_BUFFERDATA_MAX_BUF 63900u
/* Data bytes kept free in front of an inline head of
 * MBUF_CreateMbufWithBufferData. */
#define MBUF_BUFFERDATA_INLINE_SKIP 16u

/* Copies ulLen bytes from pSrc to pDst for MBUF_CreateMbufWithBufferData; the
 * result is ignored. */
typedef uint32_t (*MBUF_COPY_DATA_PF)(const void *pSrc, void *pDst, uint32_t ulLen);

/* ---- the node ------------------------------------------------------------- */

/* Initialises a node from its init record: type and flags, reserved words and
 * links zeroed, byte order stamped with this host's code, pucData at the
 * inline area of the layout MBUF_PKTHDR selects; a packet-header node also
 * gets its inline control block initialised and attached. The external-buffer
 * fields are left alone. An init record of type 255 leaves every byte as it
 * was. ulSize is the node size and is not used. Returns 0; 1016 for a NULL
 * node or record. */
MBUF_API uint32_t MBUF_StructInit(MBUF_S *pstMbuf, uint32_t ulSize,
                                  const MBUF_STRUCT_INIT_S *pstInit);

/* The common validity check: 1000 NULL, 1002 magic not 0xAA, 1001 no
 * MBUF_PKTHDR, 0 a live packet head. */
MBUF_API uint32_t MBUF_Rcving_Verify(const MBUF_S *pstMbuf);

/* The stored ulTotalDataLen; 0 for NULL or a node without MBUF_PKTHDR. */
MBUF_API uint32_t MBUF_GetTotalDataLength(const MBUF_S *pstMbuf);

/* The sum of ulDataLen along pstNext from the given node; 0 for NULL. */
MBUF_API uint32_t MBUF_CalcDataLength(const MBUF_S *pstMbuf);

/* pucData of the first node holding data; NULL for NULL, a node without
 * MBUF_PKTHDR or a packet whose nodes are all empty. */
MBUF_API uint8_t *MBUF_GetData(MBUF_S *pstMbuf);

/* The next packet of a packet-header node; NULL otherwise. */
MBUF_API MBUF_S *MBUF_GetNextPktPtr(MBUF_S *pstMbuf);

/* Links pstNextPkt behind a packet-header node; does nothing otherwise. */
MBUF_API void MBUF_SetNextPktPtr(MBUF_S *pstMbuf, MBUF_S *pstNextPkt);

/* ---- memory adapter ------------------------------------------------------- */

/* ulSize bytes of pipe-buffer memory owned by ulModuleId; NULL on failure.
 * pstFileLine may be NULL (no location). */
MBUF_API void *MBUF_MemAlloc_fl(uint32_t ulSize, uint32_t ulModuleId,
                                const MBUF_FILE_LINE_S *pstFileLine);

/* Releases pipe-buffer memory; returns the platform's result unchanged. */
MBUF_API uint32_t MBUF_MemFree_fl(void *pBuf, const MBUF_FILE_LINE_S *pstFileLine);

/* Replaces *ppBuf by a new buffer of ulNewLen bytes. The old contents are
 * kept when the buffer grows (or keeps its size) and dropped when it shrinks.
 * 0 on success, the old buffer released; 1 when the allocation failed, *ppBuf
 * and its buffer untouched. */
MBUF_API uint32_t MBUF_MemRealloc_fl(void **ppBuf, uint32_t ulOldLen, uint32_t ulNewLen,
                                     uint32_t ulModuleId, const MBUF_FILE_LINE_S *pstFileLine);

/* ---- node allocators -------------------------------------------------------- */

/* A packet-header node for ulSize data bytes: inline up to 372, a 1960-byte
 * cluster up to 1959, a buffer of exactly ulSize beyond. *pulCapacity gets
 * the bytes the node holds (372, 1960 or ulSize). NULL on failure, nothing
 * left allocated. ulRsv is not used. */
MBUF_API MBUF_S *MBUF_AllocateMBufHeader_fl(uint32_t ulSize, uint32_t ulRsv, uint32_t *pulCapacity,
                                            uint32_t ulModuleId, const char *pcFileName,
                                            uint32_t ulLine);

/* A plain node: inline (capacity 848) up to 372 bytes, else with a 1960-byte
 * cluster (capacity 1960) whatever the size. As above otherwise. */
MBUF_API MBUF_S *MBUF_AllocateMBufNode_fl(uint32_t ulSize, uint32_t ulRsv, uint32_t *pulCapacity,
                                          uint32_t ulModuleId, const char *pcFileName,
                                          uint32_t ulLine);

/* Gives a node a new external buffer of max(lSize, 1960) bytes, releasing
 * any old one first (its data is not kept). ulDataLen is left for the caller
 * to set. 0 on success; -1 for a NULL node or lSize <= 0 (node untouched) or
 * when the allocation fails (the node is then without external buffer, its
 * pucData back at its inline area). */
MBUF_API int32_t MBUF_AllocateCluster_fl(MBUF_S *pstMbuf, int32_t lSize, uint32_t ulModuleId,
                                         const char *pcFileName, uint32_t ulLine);

/* Puts an empty packet-header node in front of a header-less chain and
 * returns it; a chain that already starts with MBUF_PKTHDR is returned as it
 * is. NULL for a NULL chain, a first node whose magic is not 0xAA, or a
 * failed allocation (the chain is then unchanged). */
MBUF_API MBUF_S *MBUF_AddPktHdr_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const char *pcFileName,
                                   uint32_t ulLine);

/* ---- creation ------------------------------------------------------------------ */

/* A packet holding a copy of ulLen bytes of pBuf behind ulHeadRoom bytes of
 * free room, in one node (inline, a cluster or an exactly sized buffer).
 * NULL when ulHeadRoom is above 1960, pBuf is NULL, the sizes overflow or the
 * memory is exhausted; nothing is left allocated. ulRsv is not used. */
MBUF_API MBUF_S *MBUF_CreateByCopyBuffer_fl(uint32_t ulHeadRoom, uint32_t ulLen, const void *pBuf,
                                            uint32_t ulRsv, uint32_t ulModuleId,
                                            const char *pcFileName, uint32_t ulLine);
MBUF_API MBUF_S *MBUF_CreateByCopyBuffer(uint32_t ulHeadRoom, uint32_t ulLen, const void *pBuf,
                                         uint32_t ulRsv, uint32_t ulModuleId);

/* A one-node packet reserving ulLen data bytes behind ulHeadRoom bytes of
 * room; the data bytes are not written. NULL when the two exceed 1960 or the
 * memory is exhausted. */
MBUF_API MBUF_S *MBUF_CreateForControlPacket_fl(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                                uint32_t ulModuleId, const char *pcFileName,
                                                uint32_t ulLine);
MBUF_API MBUF_S *MBUF_CreateForControlPacket(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                             uint32_t ulModuleId);

/* As MBUF_CreateForControlPacket_fl for up to 2048 bytes of room and 65536
 * bytes in all, always one node. A rejected size is reported ("Alloc mbuf
 * failed. len: %u/%u") and gives NULL. */
MBUF_API MBUF_S *MBUF_CreateForAppPacket_fl(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                            uint32_t ulModuleId, const char *pcFileName,
                                            uint32_t ulLine);
MBUF_API MBUF_S *MBUF_CreateForAppPacket(uint32_t ulHeadRoom, uint32_t ulLen, uint32_t ulRsv,
                                         uint32_t ulModuleId);

/* A packet of any length built from lLen bytes at pSrc, in as many nodes as
 * needed (buffers of at most 63900 bytes), copied with pfCopy or, when it is
 * NULL, with memmove_s. The head stores ulPktRsv4Value in ulPktRsv4. Later
 * nodes of 1960 bytes or more carry MBUF_PKTHDR (with ulTotalDataLen 0).
 * NULL when ulHeadRoom is above 372 or leaves no room in the head, lLen <= 0
 * or memory is exhausted; nothing is left allocated. */
MBUF_API MBUF_S *MBUF_CreateMbufWithBufferData(const void *pSrc, int32_t lLen, uint32_t ulHeadRoom,
                                               uint32_t ulPktRsv4Value, MBUF_COPY_DATA_PF pfCopy,
                                               uint32_t ulModuleId,
                                               const MBUF_FILE_LINE_S *pstFileLine);

/* ---- destruction ------------------------------------------------------------------ */

/* Marks a packet head dead (magic 0xBB) and releases its chain. A NULL node
 * or one without MBUF_PKTHDR is ignored. */
MBUF_API void MBUF_Destroy_fl(MBUF_S *pstMbuf, const char *pcFileName, uint32_t ulLine);
MBUF_API void MBUF_Destroy(MBUF_S *pstMbuf);

/* Releases the chain from any node along pstNext (not the packets behind
 * pstNextPkt): external buffers, separate control blocks and nodes. A node
 * with MBUF_NOFREE keeps itself and its control block; its external buffer
 * is released. */
MBUF_API void MBUF_Free(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFileLine);

/* Releases a node's external buffer and then the node (unless MBUF_NOFREE,
 * which keeps the node with its fields as they are). A node without MBUF_EXT
 * or without buffer is reported, and the release carries on. */
MBUF_API void MBUF_FreeExtInfoAndMbuf(MBUF_S *pstMbuf, const MBUF_FILE_LINE_S *pstFileLine);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_CORE_H */
