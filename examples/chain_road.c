/*
 * The road of a packet through the chain operations: a payload is written,
 * headers are prepended in front of it, a header range that straddles two
 * nodes is made contiguous to be read, a copy is taken, the packet is split
 * and joined back, trimmed, and destroyed. Every step prints what it did
 * and the node lengths it left; the program checks the bytes at each step
 * against what it wrote and exits 0 only if all agree and nothing leaked.
 */
#include <stdio.h>
#include <string.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"

#define ROAD_MODULE 0x00660000u
#define PAYLOAD_LEN 1400u
#define L4_LEN 20u
#define L3_LEN 20u
#define L2_LEN 14u

static uint8_t g_aucExpect[PAYLOAD_LEN + 64u];
static uint32_t g_ulExpectLen = 0;

static void PrintNodes(const char *pcStep, const MBUF_S *pstMbuf) {
    const MBUF_S *pstNode;
    printf("%-34s total %5u, nodes:", pcStep, MBUF_GetTotalDataLength((MBUF_S *)pstMbuf));
    for (pstNode = pstMbuf; pstNode != NULL; pstNode = pstNode->pstNext) {
        printf(" %u%s", pstNode->ulDataLen, (pstNode->ulFlag & MBUF_EXT) != 0 ? "e" : "");
    }
    printf("\n");
}

/* The packet holds exactly what the road has put into it so far. */
static int Agrees(MBUF_S *pstMbuf) {
    static uint8_t aucFlat[sizeof(g_aucExpect)];
    if (MBUF_GetTotalDataLength(pstMbuf) != g_ulExpectLen) {
        return 0;
    }
    if (g_ulExpectLen == 0) {
        return 1;
    }
    return MBUF_CopyDataFromMBufToBuffer(pstMbuf, 0, g_ulExpectLen, aucFlat) == MBUF_OK &&
           memcmp(aucFlat, g_aucExpect, g_ulExpectLen) == 0;
}

static void ExpectPrepend(const uint8_t *pucBytes, uint32_t ulLen) {
    memmove(g_aucExpect + ulLen, g_aucExpect, g_ulExpectLen);
    memcpy(g_aucExpect, pucBytes, ulLen);
    g_ulExpectLen += ulLen;
}

static int Prepend(MBUF_S *pstMbuf, uint8_t ucFill, uint32_t ulLen, const char *pcWhat) {
    uint8_t aucHdr[64];
    uint8_t *pucAt = MBUF_PrependMemorySpace(pstMbuf, ulLen, ROAD_MODULE);
    if (pucAt == NULL) {
        return 0;
    }
    memset(aucHdr, ucFill, ulLen);
    aucHdr[0] = (uint8_t)ulLen;
    memcpy(pucAt, aucHdr, ulLen);
    ExpectPrepend(aucHdr, ulLen);
    PrintNodes(pcWhat, pstMbuf);
    return Agrees(pstMbuf);
}

int main(void) {
    uint8_t aucPayload[PAYLOAD_LEN];
    uint32_t i;
    MBUF_S *pstPkt;
    MBUF_S *pstCopy;
    MBUF_S *pstSecond;
    uint8_t *pucHdr;
    int ok = 1;

    for (i = 0; i < PAYLOAD_LEN; ++i) {
        aucPayload[i] = (uint8_t)(i * 7u + 3u);
    }

    /* A control packet with room for the transport header in front. */
    pstPkt = MBUF_CreateForControlPacket(L4_LEN, 300, 0, ROAD_MODULE);
    if (pstPkt == NULL) {
        fprintf(stderr, "no packet\n");
        return 1;
    }
    /* The first 300 payload bytes go into the reserved space, the rest is
     * appended. */
    memcpy(pstPkt->pucData, aucPayload, 300);
    while (MBUF_GetTotalDataLength(pstPkt) < PAYLOAD_LEN) {
        uint32_t ulDone = MBUF_GetTotalDataLength(pstPkt);
        uint32_t ulStep = PAYLOAD_LEN - ulDone > 500u ? 500u : PAYLOAD_LEN - ulDone;
        uint8_t *pucTail = MBUF_AppendMemorySpace(pstPkt, ulStep, ROAD_MODULE);
        if (pucTail == NULL) {
            fprintf(stderr, "append failed\n");
            MBUF_Destroy(pstPkt);
            return 1;
        }
        memcpy(pucTail, aucPayload + ulDone, ulStep);
    }
    memcpy(g_aucExpect, aucPayload, PAYLOAD_LEN);
    g_ulExpectLen = PAYLOAD_LEN;
    PrintNodes("payload written", pstPkt);
    ok &= Agrees(pstPkt);

    /* Transport header into the reserved room, network and link headers
     * into a new cluster in front. */
    ok &= Prepend(pstPkt, 0x44, L4_LEN, "transport header prepended");
    ok &= Prepend(pstPkt, 0x33, L3_LEN, "network header prepended");
    ok &= Prepend(pstPkt, 0x22, L2_LEN, "link header prepended");

    /* The link, network and transport headers straddle two nodes; make all
     * 54 bytes one contiguous run and read the transport header's first
     * byte (its length) through the pointer. */
    pucHdr = MBUF_MakeMemoryContinuous(pstPkt, 0, L2_LEN + L3_LEN + L4_LEN, ROAD_MODULE);
    PrintNodes("headers made contiguous", pstPkt);
    ok &= pucHdr != NULL && pucHdr[L2_LEN + L3_LEN] == L4_LEN && Agrees(pstPkt);

    /* A copy of the network header onwards, independent of the packet. */
    pstCopy = MBUF_RawCopy(pstPkt, L2_LEN, g_ulExpectLen - L2_LEN, 0, ROAD_MODULE);
    ok &= pstCopy != NULL && MBUF_GetTotalDataLength(pstCopy) == g_ulExpectLen - L2_LEN;
    if (pstCopy != NULL) {
        PrintNodes("copy of all but the link header", pstCopy);
        MBUF_Destroy(pstCopy);
    }

    /* Split behind the headers and join the two parts back. */
    pstSecond = MBUF_Fragment(pstPkt, L2_LEN + L3_LEN + L4_LEN, ROAD_MODULE);
    ok &= pstSecond != NULL;
    if (pstSecond != NULL) {
        PrintNodes("split: headers", pstPkt);
        PrintNodes("split: payload", pstSecond);
        ok &= MBUF_Concatenate(pstPkt, pstSecond) == MBUF_OK;
        PrintNodes("joined back", pstPkt);
        ok &= Agrees(pstPkt);
    }

    /* Strip the link header, then a 4-byte trailer. */
    ok &= MBUF_CutHead(pstPkt, L2_LEN) == MBUF_OK;
    memmove(g_aucExpect, g_aucExpect + L2_LEN, g_ulExpectLen - L2_LEN);
    g_ulExpectLen -= L2_LEN;
    PrintNodes("link header cut", pstPkt);
    ok &= Agrees(pstPkt);
    ok &= MBUF_CutTail(pstPkt, 4) == MBUF_OK;
    g_ulExpectLen -= 4;
    PrintNodes("trailer cut", pstPkt);
    ok &= Agrees(pstPkt);

    MBUF_Destroy(pstPkt);
    printf("destroyed; live buffers: %u\n", KRM_HOST_LiveBufferCount());
    ok &= KRM_HOST_LiveBufferCount() == 0;
    printf("%s\n", ok ? "every step agrees" : "MISMATCH");
    return ok ? 0 : 1;
}
