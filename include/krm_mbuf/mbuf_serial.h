/* Exported functions of the family: TLV stream, serial image, external buffers for received nodes,
 * external data blocks. Included by krm_mbuf/mbuf.h.
 *
 * Both flat forms are read as foreign bytes: every reader is bounded by the
 * length its caller hands in, never by a length the bytes claim. */
#ifndef KRM_MBUF_MBUF_SERIAL_H
#define KRM_MBUF_MBUF_SERIAL_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- TLV stream ------------------------------------------------------------ */

/* The probe word of a TLV stream's head: read reversed, the writer had the
 * other byte order. */
#define MBUF_TLV_PROBE 0x12345678u
/* The stream head: count, length, probe, flag word, reserved, data TLV head. */
#define MBUF_TLV_HEAD_LEN 20u
/* The type of the data TLV. */
#define MBUF_TLV_DATA_TYPE 0xFFFFu

/* A buffer size sufficient for the packet's TLV stream: the total data
 * length, MBUF_GetCtlLen of every type 0..22 and 200. A generous upper
 * bound, never exact. NULL: 200 plus the fixed record lengths. */
MBUF_API uint32_t MBUF_CalcMbuf2TlvLen(MBUF_S *pstMbuf);

/* Writes offsets 0-11 of a stream head: count 1, stream length 0, the probe,
 * the packet's ulFlag2. The buffer must hold 12 bytes. */
MBUF_API void MBUF_TransMbuf2Tlv_fl_FillHead(uint8_t *pucBuf, MBUF_S *pstMbuf);

/* Writes the packet (its data made contiguous, ulFlag2 and every present
 * control record in ascending type) as a TLV stream into ulBufLen bytes of
 * pucBuf. 0 done, also when records that did not fit were left out (the
 * count and length say what is there); 1013 no data (length 0 modulo 65536);
 * 1008 the data could not be made contiguous. The packet is left intact
 * apart from its data being made contiguous. */
MBUF_API uint32_t MBUF_TransMbuf2Tlv_fl(MBUF_S *pstMbuf, uint8_t *pucBuf, uint32_t ulBufLen,
                                        uint32_t ulModuleId, const char *pcFileName,
                                        uint32_t ulLine);
MBUF_API uint32_t MBUF_TransMbuf2Tlv(MBUF_S *pstMbuf, uint8_t *pucBuf, uint32_t ulBufLen,
                                     uint32_t ulModuleId);

/* A new packet from the ulBufLen bytes of a TLV stream, or NULL (ulBufLen of
 * 16 or less, an unknown probe, a stream or data length beyond ulBufLen, no
 * memory). The stream stays the caller's; a stream of the other byte order
 * has its head's count, length and flag word converted in place. A record
 * loop that stops early still returns the packet with the records read so
 * far. */
MBUF_API MBUF_S *MBUF_TransTlv2Mbuf_fl(uint8_t *pucBuf, uint32_t ulBufLen, uint32_t ulModuleId,
                                       const char *pcFileName, uint32_t ulLine);
MBUF_API MBUF_S *MBUF_TransTlv2Mbuf(uint8_t *pucBuf, uint32_t ulBufLen, uint32_t ulModuleId);

/* ---- serial image ------------------------------------------------------------ */

/* The seven packet-header words that close a serial image. */
#define MBUF_IMAGE_HDR_WORDS_LEN 28u

/* The exact serial-image size: data length + used record bytes + 216. 0 for
 * NULL, a node without MBUF_PKTHDR or a head without block. */
MBUF_API uint32_t MBUF_GetAllBlockSize(MBUF_S *pstMbuf);

/* Writes the serial image (data length, data, the block's fixed part and used
 * record area stamped with this host's byte order, seven header words) into
 * pucBuf, which the caller sized with MBUF_GetAllBlockSize. 0; 1002 NULL or
 * no MBUF_PKTHDR; 1013 NULL buffer or a head without block. */
MBUF_API uint32_t MBUF_Serialize(MBUF_S *pstMbuf, uint8_t *pucBuf);

/* A new packet from the ulLen bytes of a serial image, or NULL (NULL image,
 * data beyond ulLen, no memory). The image stays the caller's and is not
 * referenced by the packet; a block of the other byte order is converted in
 * place, one of another slot count is upgraded to the local layout. */
MBUF_API MBUF_S *MBUF_Deserialize_fl(uint8_t *pucBuf, uint32_t ulLen, uint32_t ulModuleId,
                                     const char *pcFileName, uint32_t ulLine);
MBUF_API MBUF_S *MBUF_Deserialize(uint8_t *pucBuf, uint32_t ulLen, uint32_t ulModuleId);

/* ---- external buffers for received nodes ------------------------------------- */

/* The memory handle of the pipe buffer holding pstMbuf, from the pipe
 * service; the three further words are passed on unchanged. 0 when the
 * service gives none. */
MBUF_API uint32_t MBUF_GetMemHandleByMBuf(MBUF_S *pstMbuf, uint32_t ulArg1, uint32_t ulArg2,
                                          uint32_t ulArg3);

/* Moves a received node's data (at the node's address + ulRsv2, ulDataLen
 * bytes) into a new 1960-byte external buffer owned by the node's memory
 * handle, at the same distance from the buffer start as from the inline
 * area's start. 0 done (link words cleared, MBUF_EXT set); 0xFFFFFFFF when
 * the node already has MBUF_EXT, the allocation failed, or the data would
 * not fit the buffer or does not lie inside the node's memory (the buffer is
 * then freed again and the node unchanged). */
MBUF_API uint32_t MBUF_AllocExtBuf_fl(MBUF_S *pstMbuf, uint32_t ulModuleId, const char *pcFileName,
                                      uint32_t ulLine);

/* ---- external data blocks ---------------------------------------------------- */

/* The largest block of a list, and the smallest a remainder gets. */
#define MBUF_EXTDATA_MAX_BLOCK 63900u
#define MBUF_EXTDATA_MIN_BLOCK 1960u
/* Result of MBUF_ExtDataBlockAlloc_fl for a NULL list. */
#define MBUF_ERR_EXTDATA_NULL_LIST 1015u

/* One data block of a list; pucData NULL marks an empty entry. */
typedef struct MBUF_EXTDATA_BLOCK_S {
    uint8_t *pucData;
    uint32_t ulLen; /* data bytes in the block */
} MBUF_EXTDATA_BLOCK_S;

/* The caller's list: ulBlockNum entries at pstBlock, ulTotalLen bytes wanted. */
typedef struct MBUF_EXTDATA_LIST_S {
    uint32_t ulBlockNum;
    uint32_t ulTotalLen;
    MBUF_EXTDATA_BLOCK_S *pstBlock;
} MBUF_EXTDATA_LIST_S;

/* Blocks needed for ulLen bytes: (ulLen - 1) / 63900 + 1; 1 for 0, which is
 * reported. */
MBUF_API uint32_t MBUF_GetExtDataBlockNum(uint32_t ulLen);

/* Fills the list's entries with blocks for ulTotalLen bytes: 63900 bytes
 * each, the remainder in a block of its size (at least 1960); unused entries
 * are cleared. 0; 1015 NULL list; 1016 ulBlockNum or ulTotalLen zero; 1017
 * ulTotalLen above ulBlockNum x 63900; 1008 an allocation failed (every
 * block of the list is then released and its entry cleared). The blocks
 * belong to the caller until MBUF_CreateByExtDataBlock_fl takes them. */
MBUF_API uint32_t MBUF_ExtDataBlockAlloc_fl(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId,
                                            const char *pcFileName, uint32_t ulLine);
MBUF_API uint32_t MBUF_ExtDataBlockAlloc(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId);

/* Releases every block of the list and clears its entry. NULL list or array:
 * nothing. */
MBUF_API void MBUF_ExtDataBlockFree_fl(MBUF_EXTDATA_LIST_S *pstList, const char *pcFileName,
                                       uint32_t ulLine);

/* A packet whose nodes take the list's filled blocks over as external
 * buffers, without copying; each taken entry is cleared. Entry i goes into
 * node i (the head for entry 0), so an empty entry 0 leaves the head without
 * data. NULL for a NULL list, zero ulBlockNum or ulTotalLen (nothing freed),
 * or a failure (the list's remaining blocks and the packet built so far are
 * then released). */
MBUF_API MBUF_S *MBUF_CreateByExtDataBlock_fl(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId,
                                              const char *pcFileName, uint32_t ulLine);
MBUF_API MBUF_S *MBUF_CreateByExtDataBlock(MBUF_EXTDATA_LIST_S *pstList, uint32_t ulModuleId);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_SERIAL_H */
