/* Exported functions of the family: Internet checksums and TCP segmentation.
 * Included by krm_mbuf/mbuf.h.
 *
 * Packet data is network byte order on every build: a checksum is the
 * one's-complement sum of big-endian 16-bit words (a word's first byte is its
 * high byte), so every function returns the same number on every build. The
 * segmentation TLV and control record are the library's own records, in host
 * order like every other record. */
#ifndef KRM_MBUF_MBUF_OFFLOAD_H
#define KRM_MBUF_MBUF_OFFLOAD_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The segmentation TLV lives in record 22 under this type and value length. */
#define MBUF_TSO_TLV_TYPE 46u
#define MBUF_TSO_TLV_LEN 32u
/* The longest protocol header a segment can repeat. */
#define MBUF_TSO_MAX_HDR_LEN 512u

/* The segmentation TLV as a whole sub-TLV (head included), host order, 36
 * bytes; store it with MBUF_SetTlvInfo. */
typedef struct MBUF_TSO_TLV_S {
    uint16_t usType;       /* MBUF_TSO_TLV_TYPE */
    uint16_t usLen;        /* MBUF_TSO_TLV_LEN */
    uint16_t usPayloadLen; /* TCP payload to be segmented */
    uint16_t usTcpHdrLen;
    uint16_t usIpHdrLen; /* what precedes the TCP header from the IP header on */
    uint16_t usMss;
    uint16_t usTotalLen;    /* from the IP header's start to the packet's end */
    uint8_t aucRsv[6];      /* not interpreted */
    uint8_t aucDstAddr[16]; /* pseudo-header destination (IPv4: first 4 bytes) */
} MBUF_TSO_TLV_S;

/* The segmentation control record, filled by MBUF_TSO_GetCtlInfo. */
typedef struct MBUF_TSO_CTL_INFO_S {
    uint16_t usIpOffset; /* packet length - usTotalLen */
    uint16_t usIpHdrLen;
    uint16_t usTcpHdrLen;
    uint16_t usMss;
    uint16_t usSegNum; /* usPayloadLen / usMss, rounded up */
    uint16_t usRsv;    /* not filled */
    uint8_t aucDstAddr[16];
} MBUF_TSO_CTL_INFO_S;

/* What one segment step works on. */
typedef struct MBUF_TSO_CPY_CTX_S {
    uint32_t ulSrcOffset;  /* where the segment's payload starts in the source */
    MBUF_S *pstSeg;        /* the new segment */
    uint32_t ulSegLen;     /* header + payload bytes */
    const uint8_t *pucHdr; /* the saved protocol header */
    const MBUF_TSO_CTL_INFO_S *pstCtl;
} MBUF_TSO_CPY_CTX_S;

/* ---- checksums ------------------------------------------------------------------ */

/* The checksum (complemented one's-complement sum) of ulLen bytes starting
 * ulOffset bytes into the chain, taken in place over any split, odd address
 * or empty node; an odd last byte is the high byte of a zero-padded word. A
 * chain that ends first contributes what it has. 0xFFFF for a NULL buffer or
 * ulLen 0. */
MBUF_API uint16_t MBUF_CalcCheckSumFromOffset(MBUF_S *pstMbuf, uint32_t ulLen, uint32_t ulOffset);
/* The same from offset 0. */
MBUF_API uint16_t MBUF_CalcCheckSum(MBUF_S *pstMbuf, uint32_t ulLen);
/* 0 for a NULL buffer or one without MBUF_PKTHDR; else MBUF_CalcCheckSum. */
MBUF_API uint16_t MBUF_CheckSum(MBUF_S *pstMbuf, uint32_t ulLen);
/* 0 for a NULL buffer, no MBUF_PKTHDR, or a range [ulOffset, ulOffset +
 * ulLen) passing the packet's length; else the checksum of that range. */
MBUF_API uint16_t MBUF_CheckSum_Off(MBUF_S *pstMbuf, uint32_t ulOffset, uint32_t ulLen);
/* The unfolded sum of the IPv6 pseudo-header: the source address of the
 * contiguous header pucIpv6Hdr, the destination address of pstCtl (not the
 * header's), the upper-layer length and the next-header value. */
MBUF_API uint32_t MBUF_IPV6_CheckSumPH(const uint8_t *pucIpv6Hdr, uint32_t ulLen, uint8_t ucNextHdr,
                                       const MBUF_TSO_CTL_INFO_S *pstCtl);
/* The upper-layer checksum of ulLen bytes behind the IPv6 header at
 * pstCtl->usIpOffset (pstCtl->usIpHdrLen long), with its pseudo-header. The 40
 * header bytes are made contiguous first (may allocate, charged to
 * ulModuleId); 0 when that fails. ulRsv is not used. */
MBUF_API uint16_t MBUF_IPv6_CheckSum(MBUF_S *pstMbuf, uint8_t ucNextHdr, uint32_t ulRsv,
                                     uint32_t ulLen, const MBUF_TSO_CTL_INFO_S *pstCtl,
                                     uint32_t ulModuleId);

/* ---- TCP segmentation ------------------------------------------------------------- */

/* Rewrites usIpHdrLen and usTotalLen of the buffer's segmentation TLV to
 * match the buffer's current length; an inconsistent TLV is reported and
 * left as it was. */
MBUF_API void MBUF_TCP_TSO_UpdateMssTlv(MBUF_S *pstMbuf);

/* Fills *pstCtl from the buffer's segmentation TLV and length. 0; 1000 NULL
 * argument; 1002 no MBUF_PKTHDR; 1005 usTotalLen passes the packet's length;
 * 1018 no segmentation TLV. */
MBUF_API uint32_t MBUF_TSO_GetCtlInfo(MBUF_S *pstMbuf, MBUF_TSO_CTL_INFO_S *pstCtl);

/* Cuts pstMbuf into segments, each a new buffer with a copy of the header
 * and at most usMss payload bytes, sequence number, identification, lengths
 * and checksums adjusted. The array holds ulArraySize / sizeof(void *)
 * pointers; segments beyond it are not made and their payload is dropped.
 * 0: the source is destroyed and the caller owns ppstSegs[0 ..
 * *pulSegCount - 1]. 1016 bad arguments or no usable TLV, 1007 header above
 * 512 bytes, 1005/1013 header unreadable: source and array untouched. -1
 * (0xFFFFFFFF) a segment failed: every segment made is destroyed, the count
 * is 0, the source survives. */
MBUF_API uint32_t MBUF_TSO_GetMbuf(MBUF_S *pstMbuf, MBUF_S **ppstSegs, uint32_t ulArraySize,
                                   uint32_t *pulSegCount, uint32_t ulModuleId);

/* Makes the first ulHdrLen bytes of the buffer contiguous and copies them to
 * pucHdr (ulHdrLen bytes of room), storing the buffer's length in
 * *pulTotalLen. 0; 1005 buffer shorter than the header; 1013 not made
 * contiguous. */
MBUF_API uint32_t MBUF_TSO_CpyHdr(MBUF_S *pstMbuf, uint32_t ulHdrLen, uint8_t *pucHdr,
                                  uint32_t *pulTotalLen, uint32_t ulModuleId);

/* Fills one segment: the saved header, then its payload copied from the
 * source, the source's packet header and metadata, then the header fields
 * (MBUF_TSO_AdjustTcpIpHdr). 0 or -1. The segment stays the caller's. */
MBUF_API int32_t MBUF_TSO_CpyDataAndModifyInfo(MBUF_S *pstMbuf, MBUF_TSO_CPY_CTX_S *pstCtx,
                                               uint32_t ulModuleId);

/* Adjusts the TCP/IP header of a filled segment of ulSegLen bytes whose
 * payload came from ulSrcOffset of the source: sequence number, IPv4 total
 * length, identification and both checksums, or IPv6 payload length and the
 * TCP checksum. 0 or -1. */
MBUF_API int32_t MBUF_TSO_AdjustTcpIpHdr(MBUF_S *pstSeg, uint32_t ulSegLen, uint32_t ulSrcOffset,
                                         const MBUF_TSO_CTL_INFO_S *pstCtl, uint32_t ulModuleId);

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_OFFLOAD_H */
