/* Debugging aids for packets: a structural audit and a readable dump.
 * Not included by krm_mbuf/mbuf.h; include it where a packet is to be
 * checked or printed. Neither function changes the packet. */
#ifndef KRM_MBUF_MBUF_DEBUG_H
#define KRM_MBUF_MBUF_DEBUG_H

#include "krm_mbuf/mbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of MBUF_DBG_Check: the first broken rule, in the order checked. */
#define MBUF_DBG_OK 0u
#define MBUF_DBG_ERR_NULL 1u          /* no packet */
#define MBUF_DBG_ERR_CYCLE 2u         /* the chain loops back on itself */
#define MBUF_DBG_ERR_TOO_LONG 3u      /* more nodes than any packet can have */
#define MBUF_DBG_ERR_MAGIC 4u         /* a node's ucMagic is not 0xAA */
#define MBUF_DBG_ERR_PKTHDR 5u        /* MBUF_PKTHDR missing on the head or misplaced */
#define MBUF_DBG_ERR_EXT 6u           /* MBUF_EXT without buffer or size */
#define MBUF_DBG_ERR_DATA_RANGE 7u    /* a node's data lies outside its storage */
#define MBUF_DBG_ERR_TOTAL_LEN 8u     /* ulTotalDataLen differs from the nodes' sum */
#define MBUF_DBG_ERR_CTL_HEAD 9u      /* block mark, byte order or slot count wrong */
#define MBUF_DBG_ERR_CTL_CAPACITY 10u /* used area beyond capacity, capacity beyond block */
#define MBUF_DBG_ERR_CTL_SLOT 11u     /* a slot outside the used area, or overlapping */
#define MBUF_DBG_ERR_CTL_RECNUM 12u   /* ucRecNum differs from the slots in use */
#define MBUF_DBG_ERR_CTL_TLV 13u      /* a TLV record's list does not fit its record */

/* Nodes a chain may have before the audit calls it runaway. */
#define MBUF_DBG_MAX_NODES 65536u

/* Audits a packet: no cycle, every node live (magic 0xAA), MBUF_PKTHDR on
 * the head (and on later nodes only as external-buffer nodes holding no
 * packet length, the way a long packet built from caller data leaves them),
 * MBUF_EXT nodes with a buffer and a size, every node's data inside its
 * storage, ulTotalDataLen equal to the sum of the nodes, and the head's
 * control block consistent (head bytes, capacity, slots inside the used area
 * and apart from each other, ucRecNum equal to the slots in use, TLV lists
 * inside their records). Returns MBUF_DBG_OK or the MBUF_DBG_ERR_ code of
 * the first broken rule, whose description is written to pcReason (at most
 * ulSize - 1 characters, terminated; pcReason may be NULL). */
MBUF_API uint32_t MBUF_DBG_Check(const MBUF_S *pstMbuf, char *pcReason, uint32_t ulSize);

/* Writes a multi-line description of a packet to pcBuf: per node its kind,
 * flags by name, data offset and length, head and tail room and external
 * buffer size; then the control block with its records by name, offset and
 * length and the sub-TLVs of the TLV records. The text is cut to ulSize - 1
 * characters and always terminated. Returns the characters written. Meant
 * for broken packets too: the walk is bounded, data bytes are never read and
 * records are read only inside the block's used area. */
MBUF_API uint32_t MBUF_DBG_Dump(const MBUF_S *pstMbuf, char *pcBuf, uint32_t ulSize);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_DEBUG_H */
