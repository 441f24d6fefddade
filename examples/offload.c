/*
 * Checksums and segmentation as protocol code uses them: the RFC 1071
 * example bytes are summed in place across two nodes split at an odd
 * point, then an IPv4 TCP packet of 4000 payload bytes is cut into
 * 1448-byte segments, and each segment's sequence number, identification
 * and both checksums are printed and verified by summing the segment again.
 * Exits 0 only if every check holds and nothing leaked.
 */
#include <stdio.h>
#include <string.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"

#define EX_MODULE 0x004F4600u
#define EX_LINK 14u
#define EX_PAYLOAD 4000u
#define EX_MSS 1448u
#define EX_MAX_SEGS 8u

static uint32_t Be16(const uint8_t *p) {
    return ((uint32_t)p[0] << 8) | p[1];
}
static uint32_t Be32(const uint8_t *p) {
    return (Be16(p) << 16) | Be16(p + 2);
}

/* The RFC 1071 bytes in two nodes, cut after the third byte. */
static int RfcExample(void) {
    static const uint8_t aucBytes[8] = {0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7};
    MBUF_S *pstHead = MBUF_CreateByCopyBuffer(0, 3, aucBytes, 0, EX_MODULE);
    MBUF_S *pstTail = MBUF_CreateByCopyBuffer(1, 5, aucBytes + 3, 0, EX_MODULE);
    uint16_t usSum;
    if (pstHead == NULL || pstTail == NULL || MBUF_Concatenate(pstHead, pstTail) != 0) {
        return 1;
    }
    usSum = MBUF_CheckSum(pstHead, 8);
    printf("RFC 1071 example over 3 + 5 bytes: checksum 0x%04X (expect 0x220D)\n", usSum);
    MBUF_Destroy(pstHead);
    return usSum == 0x220D ? 0 : 1;
}

static void BuildFrame(uint8_t *pucFrame, uint32_t ulLen) {
    uint8_t *pucIp = pucFrame + EX_LINK;
    uint8_t *pucTcp = pucIp + 20;
    uint32_t i;
    for (i = 0; i < ulLen; ++i) {
        pucFrame[i] = (uint8_t)(i * 7u + 3u);
    }
    memset(pucIp, 0, 40);
    pucIp[0] = 0x45;
    pucIp[2] = (uint8_t)((ulLen - EX_LINK) >> 8);
    pucIp[3] = (uint8_t)(ulLen - EX_LINK);
    pucIp[4] = 0x12;
    pucIp[8] = 64;
    pucIp[9] = 6;
    pucIp[12] = 192;
    pucIp[13] = 0;
    pucIp[14] = 2;
    pucIp[15] = 1;
    pucIp[16] = 192;
    pucIp[17] = 0;
    pucIp[18] = 2;
    pucIp[19] = 2;
    pucTcp[0] = 0xB3;
    pucTcp[3] = 179;
    pucTcp[7] = 100; /* sequence number 100 */
    pucTcp[12] = 0x50;
    pucTcp[13] = 0x18;
}

/* Sums a segment again: the IP header and the TCP pseudo-header sum both
 * fold to 0xFFFF when the stored checksums are right. */
static int SegmentIsRight(MBUF_S *pstSeg, uint32_t i, const uint8_t *pucIp) {
    uint32_t ulLen = MBUF_GetTotalDataLength(pstSeg);
    uint32_t ulTcpLen = ulLen - EX_LINK - 20;
    uint32_t ulPseudo =
        Be16(pucIp + 12) + Be16(pucIp + 14) + Be16(pucIp + 16) + Be16(pucIp + 18) + 6 + ulTcpLen;
    uint32_t ulTcp = (uint16_t)~MBUF_CheckSum_Off(pstSeg, EX_LINK + 20, ulTcpLen);
    uint32_t ulSum = ulPseudo + ulTcp;
    while (ulSum >> 16) {
        ulSum = (ulSum & 0xFFFFu) + (ulSum >> 16);
    }
    printf("segment %u: %4u bytes, seq %u, id 0x%04X, ip sum %s, tcp sum %s\n", i, ulLen,
           Be32(pucIp + 24), Be16(pucIp + 4),
           MBUF_CheckSum_Off(pstSeg, EX_LINK, 20) == 0 ? "ok" : "BAD",
           ulSum == 0xFFFFu ? "ok" : "BAD");
    return MBUF_CheckSum_Off(pstSeg, EX_LINK, 20) == 0 && ulSum == 0xFFFFu &&
                   Be32(pucIp + 24) == 100u + i * EX_MSS
               ? 0
               : 1;
}

static int Segmentation(void) {
    static uint8_t aucFrame[EX_LINK + 40 + EX_PAYLOAD];
    MBUF_TSO_TLV_S stTlv;
    MBUF_S *apstSegs[EX_MAX_SEGS];
    uint32_t ulCount = 0;
    uint32_t i;
    int iBad = 0;
    MBUF_S *pstPkt;
    BuildFrame(aucFrame, sizeof(aucFrame));
    pstPkt = MBUF_CreateByCopyBuffer(0, sizeof(aucFrame), aucFrame, 0, EX_MODULE);
    if (pstPkt == NULL) {
        return 1;
    }
    memset(&stTlv, 0, sizeof(stTlv));
    stTlv.usType = MBUF_TSO_TLV_TYPE;
    stTlv.usLen = MBUF_TSO_TLV_LEN;
    stTlv.usPayloadLen = EX_PAYLOAD;
    stTlv.usTcpHdrLen = 20;
    stTlv.usIpHdrLen = 20;
    stTlv.usMss = EX_MSS;
    stTlv.usTotalLen = 40 + EX_PAYLOAD;
    memcpy(stTlv.aucDstAddr, aucFrame + EX_LINK + 16, 4);
    if (MBUF_SetTlvInfo(pstPkt, EX_MODULE, (const MBUF_CTL_TLV_S *)&stTlv) != 0 ||
        MBUF_TSO_GetMbuf(pstPkt, apstSegs, sizeof(apstSegs), &ulCount, EX_MODULE) != 0) {
        MBUF_Destroy(pstPkt);
        return 1;
    }
    for (i = 0; i < ulCount; ++i) {
        uint8_t aucHdr[EX_LINK + 40];
        MBUF_CopyDataFromMBufToBuffer(apstSegs[i], 0, sizeof(aucHdr), aucHdr);
        iBad |= SegmentIsRight(apstSegs[i], i, aucHdr + EX_LINK);
        MBUF_Destroy(apstSegs[i]);
    }
    return iBad != 0 || ulCount != 3u;
}

int main(void) {
    int iBad;
    KRM_HOST_Reset();
    iBad = RfcExample();
    iBad |= Segmentation();
    if (KRM_HOST_LiveBufferCount() != 0) {
        printf("buffers left behind: %u\n", KRM_HOST_LiveBufferCount());
        iBad = 1;
    }
    printf("%s\n", iBad == 0 ? "all checks hold" : "A CHECK FAILED");
    return iBad;
}
