/*
 * A packet's life: created by copy, reserved for a control and for an
 * application packet; control records created, found, deleted and grown
 * beyond the block inside the node; packet TLV information set and found;
 * the packet checked and printed; everything destroyed.
 */
#include <stdio.h>
#include <string.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/mbuf_debug.h"

#define EXAMPLE_MODULE 0x00650001u

/* A sub-TLV as a caller builds it: the head, then the value. */
typedef struct EXAMPLE_TLV_S {
    MBUF_CTL_TLV_S stHead;
    uint8_t aucValue[8];
} EXAMPLE_TLV_S;

static int Fail(const char *pcWhat) {
    fprintf(stderr, "failed: %s\n", pcWhat);
    return 1;
}

static void ShowPacket(const char *pcName, MBUF_S *pstMbuf) {
    printf("%s: %u bytes in %s storage, %u bytes of room in front\n", pcName,
           MBUF_GetTotalDataLength(pstMbuf),
           (pstMbuf->ulFlag & MBUF_EXT) != 0 ? "external" : "inline",
           (unsigned)(pstMbuf->pucData - ((pstMbuf->ulFlag & MBUF_EXT) != 0
                                              ? pstMbuf->pucExtBuf
                                              : pstMbuf->aucHdrInlineData)));
}

static int UseRecords(MBUF_S *pstMbuf) {
    uint8_t *pucPrevHop;
    if (MBUF_CreateControlInfo(pstMbuf, MBUF_CTL_PREVHOP, 4, EXAMPLE_MODULE) != MBUF_OK ||
        MBUF_CreateControlInfo(pstMbuf, MBUF_CTL_IP, 20, EXAMPLE_MODULE) != MBUF_OK) {
        return Fail("create records");
    }
    pucPrevHop = MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PREVHOP);
    memcpy(pucPrevHop, "\x0a\x00\x00\x01", 4);
    printf("records: previous hop (%u bytes, slot of %u), ip (%u bytes); creating ip again: %u\n",
           MBUF_GetCtlLen(pstMbuf, MBUF_CTL_PREVHOP), MBUF_GetControlLen(pstMbuf, MBUF_CTL_PREVHOP),
           MBUF_GetCtlLen(pstMbuf, MBUF_CTL_IP),
           MBUF_CreateControlInfo(pstMbuf, MBUF_CTL_IP, 20, EXAMPLE_MODULE));
    MBUF_DeleteControlInfo(pstMbuf, MBUF_CTL_PREVHOP);
    printf("deleted previous hop: found %s, records left %u\n",
           MBUF_GetControlInfo(pstMbuf, MBUF_CTL_PREVHOP) == NULL ? "no" : "yes",
           pstMbuf->pstCtlInfo->ucRecNum);
    /* 400 bytes do not fit the 264 the node's own block has room for. */
    if (MBUF_CreateControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG, 400, EXAMPLE_MODULE) != MBUF_OK) {
        return Fail("grow the block");
    }
    printf("stack-debug record of 400: the block %s the node, capacity %u\n",
           pstMbuf->pstCtlInfo == &pstMbuf->stCtlInfo.stBlk ? "stays in" : "moved out of",
           pstMbuf->pstCtlInfo->usCapacity);
    return 0;
}

static int UseTlvs(MBUF_S *pstMbuf) {
    EXAMPLE_TLV_S stTlv;
    MBUF_CTL_TLV_S *pstFound;
    memset(&stTlv, 0, sizeof(stTlv));
    stTlv.stHead.usType = 5;
    stTlv.stHead.usLen = 2;
    stTlv.aucValue[0] = 0xAB;
    stTlv.aucValue[1] = 0xCD;
    if (MBUF_SetTlvInfo(pstMbuf, EXAMPLE_MODULE, &stTlv.stHead) != 0) {
        return Fail("set the first sub-TLV");
    }
    stTlv.stHead.usType = 9;
    stTlv.stHead.usLen = 4;
    memcpy(stTlv.aucValue, "\x01\x02\x03\x04", 4);
    if (MBUF_SetTlvInfo(pstMbuf, EXAMPLE_MODULE, &stTlv.stHead) != 0) {
        return Fail("set the second sub-TLV");
    }
    stTlv.stHead.usType = 5;
    stTlv.stHead.usLen = 2;
    pstFound = MBUF_GetTlvInfo(pstMbuf, &stTlv.stHead);
    if (pstFound == NULL) {
        return Fail("find the first sub-TLV");
    }
    printf("packet TLV record of %u bytes; sub-TLV 5 holds 0x%02X%02X\n",
           MBUF_GetCtlLen(pstMbuf, MBUF_CTL_PACKET), ((uint8_t *)pstFound)[4],
           ((uint8_t *)pstFound)[5]);
    return 0;
}

static int CheckAndPrint(const MBUF_S *pstMbuf) {
    char acReason[128];
    char acDump[2048];
    if (MBUF_DBG_Check(pstMbuf, acReason, sizeof(acReason)) != MBUF_DBG_OK) {
        fprintf(stderr, "broken packet: %s\n", acReason);
        return 1;
    }
    (void)MBUF_DBG_Dump(pstMbuf, acDump, sizeof(acDump));
    printf("the packet checks out:\n%s", acDump);
    return 0;
}

int main(void) {
    static const char acPayload[] = "a protocol's payload, copied into its first packet";
    MBUF_S *pstCopy;
    MBUF_S *pstControl;
    MBUF_S *pstApp;
    int iRet;

    pstCopy =
        MBUF_CreateByCopyBuffer(32, (uint32_t)sizeof(acPayload), acPayload, 0, EXAMPLE_MODULE);
    pstControl = MBUF_CreateForControlPacket(64, 128, 0, EXAMPLE_MODULE);
    pstApp = MBUF_CreateForAppPacket(0, 3000, 0, EXAMPLE_MODULE);
    if (pstCopy == NULL || pstControl == NULL || pstApp == NULL) {
        return Fail("create packets");
    }
    ShowPacket("copied packet", pstCopy);
    printf("  its data: \"%s\"\n", (const char *)MBUF_GetData(pstCopy));
    ShowPacket("control packet", pstControl);
    ShowPacket("application packet", pstApp);

    iRet = UseRecords(pstControl);
    if (iRet == 0) {
        iRet = UseTlvs(pstControl);
    }
    if (iRet == 0) {
        iRet = CheckAndPrint(pstControl);
    }

    MBUF_Destroy(pstCopy);
    MBUF_Destroy(pstControl);
    MBUF_Destroy(pstApp);
    printf("destroyed all three; live buffers: %u\n", KRM_HOST_LiveBufferCount());
    return iRet == 0 && KRM_HOST_LiveBufferCount() == 0 ? 0 : 1;
}
