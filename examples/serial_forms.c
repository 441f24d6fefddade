/*
 * A packet leaves the process as flat bytes and comes back. A small control
 * packet carrying a socket id, a previous-hop record and a packet-info
 * sub-TLV is written as a TLV stream and as a serial image; each form is
 * read back into a new packet and compared with the original. Then a
 * 150000-byte packet is built without a copy from external data blocks that
 * the program fills itself.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"

#define MODULE 0x00650000u
#define BIG_LEN 150000u
#define BIG_BLOCKS 3u

static const char g_acPayload[] = "GET /status HTTP/1.1\r\nHost: router\r\n\r\n";

static int SameData(MBUF_S *pstA, MBUF_S *pstB) {
    uint32_t ulLen = MBUF_GetTotalDataLength(pstA);
    uint8_t *pucA;
    uint8_t *pucB;
    int iSame;
    if (ulLen != MBUF_GetTotalDataLength(pstB)) {
        return 0;
    }
    pucA = malloc(ulLen);
    pucB = malloc(ulLen);
    if (pucA == NULL || pucB == NULL) {
        free(pucA);
        free(pucB);
        return 0;
    }
    MBUF_CopyDataFromMbufToCbuf(pstA, 0, (int32_t)ulLen, pucA);
    MBUF_CopyDataFromMbufToCbuf(pstB, 0, (int32_t)ulLen, pucB);
    iSame = memcmp(pucA, pucB, ulLen) == 0;
    free(pucA);
    free(pucB);
    return iSame;
}

static int SameRecords(MBUF_S *pstA, MBUF_S *pstB) {
    const uint8_t *pucA = MBUF_GetControlInfo(pstA, MBUF_CTL_PREVHOP);
    const uint8_t *pucB = MBUF_GetControlInfo(pstB, MBUF_CTL_PREVHOP);
    const MBUF_CTL_COMM_S *pstCommA = MBUF_GetControlInfo(pstA, MBUF_CTL_COMM);
    const MBUF_CTL_COMM_S *pstCommB = MBUF_GetControlInfo(pstB, MBUF_CTL_COMM);
    return pucA != NULL && pucB != NULL && memcmp(pucA, pucB, 4) == 0 &&
           pstCommA->ulSocketId == pstCommB->ulSocketId &&
           MBUF_GetCtlLen(pstA, MBUF_CTL_PACKET) == MBUF_GetCtlLen(pstB, MBUF_CTL_PACKET);
}

static MBUF_S *MakePacket(void) {
    static const uint8_t aucHop[4] = {10, 0, 0, 1};
    uint8_t aucTlv[4 + 6];
    MBUF_CTL_TLV_S stHead;
    MBUF_CTL_COMM_S *pstComm;
    MBUF_S *pstMbuf =
        MBUF_CreateByCopyBuffer(64, (uint32_t)strlen(g_acPayload), g_acPayload, 0, MODULE);
    if (pstMbuf == NULL) {
        return NULL;
    }
    pstComm = MBUF_GetControlInfo(pstMbuf, MBUF_CTL_COMM);
    pstComm->ulSocketId = 42;
    pstMbuf->ulFlag2 = 0x00000100u;
    if (MBUF_CreateControlInfo(pstMbuf, MBUF_CTL_PREVHOP, 4, MODULE) != 0) {
        MBUF_Destroy(pstMbuf);
        return NULL;
    }
    memcpy(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PREVHOP), aucHop, sizeof(aucHop));
    stHead.usType = 7;
    stHead.usLen = 6;
    memcpy(aucTlv, &stHead, sizeof(stHead));
    memcpy(aucTlv + 4, "trace1", 6);
    if (MBUF_SetTlvInfo(pstMbuf, MODULE, (const MBUF_CTL_TLV_S *)(void *)aucTlv) != 0) {
        MBUF_Destroy(pstMbuf);
        return NULL;
    }
    return pstMbuf;
}

static int TlvRoundTrip(MBUF_S *pstMbuf) {
    uint32_t ulSize = MBUF_CalcMbuf2TlvLen(pstMbuf);
    uint8_t *pucBuf = calloc(ulSize, 1);
    uint16_t usLen;
    uint16_t usCount;
    MBUF_S *pstBack;
    int iOk;
    if (pucBuf == NULL || MBUF_TransMbuf2Tlv(pstMbuf, pucBuf, ulSize, MODULE) != 0) {
        free(pucBuf);
        return 0;
    }
    memcpy(&usCount, pucBuf, sizeof(usCount));
    memcpy(&usLen, pucBuf + 2, sizeof(usLen));
    printf("TLV stream: %u bytes written (buffer sized %u), %u TLVs\n", usLen + 16u, ulSize,
           (unsigned)usCount);
    pstBack = MBUF_TransTlv2Mbuf(pucBuf, usLen + 16u, MODULE);
    free(pucBuf);
    iOk = pstBack != NULL && SameData(pstMbuf, pstBack) && SameRecords(pstMbuf, pstBack) &&
          pstBack->ulFlag2 == pstMbuf->ulFlag2;
    printf("  read back: %s\n", iOk ? "same data, flag word and records" : "DIFFERENT");
    MBUF_Destroy(pstBack);
    return iOk;
}

static int ImageRoundTrip(MBUF_S *pstMbuf) {
    uint32_t ulSize = MBUF_GetAllBlockSize(pstMbuf);
    uint8_t *pucBuf = calloc(ulSize, 1);
    MBUF_S *pstBack;
    int iOk;
    if (pucBuf == NULL || MBUF_Serialize(pstMbuf, pucBuf) != 0) {
        free(pucBuf);
        return 0;
    }
    printf("serial image: %u bytes (data %u + records %u + 216)\n", ulSize,
           MBUF_GetTotalDataLength(pstMbuf), (unsigned)pstMbuf->pstCtlInfo->usUsedLen);
    pstBack = MBUF_Deserialize(pucBuf, ulSize, MODULE);
    free(pucBuf);
    iOk = pstBack != NULL && SameData(pstMbuf, pstBack) && SameRecords(pstMbuf, pstBack) &&
          pstBack->pstCtlInfo->astSlot[MBUF_CTL_PREVHOP].usOffset ==
              pstMbuf->pstCtlInfo->astSlot[MBUF_CTL_PREVHOP].usOffset;
    printf("  read back: %s\n", iOk ? "same data, records at the same offsets" : "DIFFERENT");
    MBUF_Destroy(pstBack);
    return iOk;
}

static int BigPacket(void) {
    MBUF_EXTDATA_BLOCK_S astBlock[BIG_BLOCKS];
    MBUF_EXTDATA_LIST_S stList;
    MBUF_S *pstMbuf;
    MBUF_S *pstNode;
    uint32_t i;
    uint32_t ulNodes = 0;
    uint8_t ucProbe = 0;
    uint32_t ulTotal;
    stList.ulBlockNum = MBUF_GetExtDataBlockNum(BIG_LEN);
    stList.ulTotalLen = BIG_LEN;
    stList.pstBlock = astBlock;
    if (stList.ulBlockNum > BIG_BLOCKS || MBUF_ExtDataBlockAlloc(&stList, MODULE) != 0) {
        return 0;
    }
    printf("external data blocks for %u bytes:", BIG_LEN);
    for (i = 0; i < stList.ulBlockNum; ++i) {
        printf(" %u", astBlock[i].ulLen);
        memset(astBlock[i].pucData, (int)('a' + i), astBlock[i].ulLen);
    }
    printf("\n");
    pstMbuf = MBUF_CreateByExtDataBlock(&stList, MODULE);
    if (pstMbuf == NULL) {
        MBUF_ExtDataBlockFree_fl(&stList, "serial_forms", 1);
        return 0;
    }
    for (pstNode = pstMbuf; pstNode != NULL; pstNode = pstNode->pstNext) {
        ++ulNodes;
    }
    MBUF_CopyDataFromMbufToCbuf(pstMbuf, 100000, 1, &ucProbe);
    ulTotal = MBUF_GetTotalDataLength(pstMbuf);
    printf("  packet of %u bytes in %u nodes; byte 100000 is '%c'; list entries now empty: %s\n",
           ulTotal, ulNodes, ucProbe, astBlock[0].pucData == NULL ? "yes" : "no");
    MBUF_Destroy(pstMbuf);
    return ulTotal == BIG_LEN && ucProbe == 'b';
}

int main(void) {
    int iOk = 1;
    MBUF_S *pstMbuf = MakePacket();
    if (pstMbuf == NULL) {
        printf("cannot build the packet\n");
        return 1;
    }
    printf("packet: %u data bytes, socket id 42, previous hop 10.0.0.1, one packet-info TLV\n",
           MBUF_GetTotalDataLength(pstMbuf));
    iOk &= TlvRoundTrip(pstMbuf);
    iOk &= ImageRoundTrip(pstMbuf);
    MBUF_Destroy(pstMbuf);
    iOk &= BigPacket();
    printf("live buffers: %u\n", KRM_HOST_LiveBufferCount());
    iOk &= KRM_HOST_LiveBufferCount() == 0;
    return iOk ? 0 : 1;
}
