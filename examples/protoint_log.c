/*
 * Following a conversation between two components: the sender stamps each
 * packet of session 21 with the session and hands out sequence numbers as it
 * records its sends; the receiver records what arrives. One packet is lost on
 * the way, so the receiver sees a gap: the first gap asks for the log to be
 * printed, a second one within 75 seconds is held back. Then the log of the
 * session is printed, and a few drop codes that a forwarding component might
 * report are turned into texts.
 *
 * The host platform's clocks are frozen and moved by hand so that the output
 * is the same on every run.
 */
#include <stdio.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

#define SESSION 21u
#define MODULE 0x00650000u /* a socket-layer module */

static MBUF_PROTOINT_CTX_S *g_pstCtx;

/* A packet of ulLen bytes, stamped for the session by the sender. */
static MBUF_S *NewStamped(uint32_t ulLen) {
    MBUF_S *pstMbuf = MBUF_CreateForControlPacket(0, ulLen, 0, MODULE);
    if (pstMbuf != NULL && MBUF_PROTOINT_CreateIdInfo(pstMbuf, SESSION, 0, 0, g_pstCtx) != 0) {
        MBUF_Destroy(pstMbuf);
        pstMbuf = NULL;
    }
    return pstMbuf;
}

/* Sends one packet (kind 0: recorded, numbered) and, unless it is lost,
 * receives it (kind 3: recorded); a second of ticks passes in between. */
static int Exchange(uint32_t ulLen, int bLost, uint64_t *pullTick) {
    static const char *const apcVerdict[] = {"in order", "gap, print the log now",
                                             "gap, report held back"};
    uint32_t ulSess = 0;
    uint32_t ulResult;
    MBUF_S *pstMbuf = NewStamped(ulLen);
    if (pstMbuf == NULL) {
        return 1;
    }
    (void)MBUF_PROTOINT_RecordPacket(pstMbuf, 0, &ulSess, g_pstCtx);
    *pullTick += 1000;
    KRM_HOST_SetTick(*pullTick);
    if (bLost) {
        printf("  sent %4u bytes on session %u, lost on the way\n", ulLen, ulSess);
    } else {
        ulResult = MBUF_PROTOINT_RecordPacket(pstMbuf, 3, &ulSess, g_pstCtx);
        printf("  sent %4u bytes on session %u, received: %s\n", ulLen, ulSess,
               apcVerdict[ulResult < 3 ? ulResult : 0]);
    }
    MBUF_Destroy(pstMbuf);
    return 0;
}

static void DropTexts(void) {
    char acText[MBUF_PADS_TEXT_LEN];
    static const uint32_t aulPath[] = {0x8005u, 0x01ECu, 0x0006u};
    uint32_t i;
    printf("drop codes:\n");
    for (i = 0; i < sizeof(aulPath) / sizeof(aulPath[0]); ++i) {
        (void)MBUF_PADS_TransPathErrorCodeToStr(aulPath[i], sizeof(acText), acText);
        printf("  path   0x%05X  %s\n", aulPath[i], acText);
    }
    (void)MBUF_PADS_TransSockErrorCodeToStr(215u, sizeof(acText), acText);
    printf("  socket %7u  %s\n", 215u, acText);
    (void)MBUF_PADS_TransLdmErrorCodeToStr(0x1000Au, sizeof(acText), acText);
    printf("  ldm    0x%05X  %s\n", 0x1000Au, acText);
    (void)MBUF_PADS_TransLlaErrorCodeToStr(0x10008u, sizeof(acText), acText);
    printf("  lla    0x%05X  %s\n", 0x10008u, acText);
    (void)MBUF_PADS_TransLlaErrorCodeToStr(0x12345u, sizeof(acText), acText);
    printf("  lla    0x%05X  %s\n", 0x12345u, acText);
}

int main(void) {
    static const uint32_t aulLen[] = {120, 1400, 64, 900, 300, 80};
    const MBUF_PROTOINT_PARA_S stPara = {MODULE, MODULE, 1};
    char acLog[2048];
    uint64_t ullTick = 50000000u;
    uint32_t i;
    int iFailed = 0;
    int32_t lLen;

    KRM_HOST_SetTickHz(1000); /* a tick is a millisecond */
    KRM_HOST_SetTick(ullTick);
    KRM_HOST_SetWallClock(1709634030u, 0); /* 2024-03-05 10:20:30 universal */

    g_pstCtx = MBUF_PROTOINT_Init(&stPara);
    if (g_pstCtx == NULL || MBUF_PROTOINT_EnableSession(SESSION, g_pstCtx) != 0) {
        fprintf(stderr, "the log could not be set up\n");
        return 1;
    }
    printf("session %u:\n", SESSION);
    for (i = 0; i < sizeof(aulLen) / sizeof(aulLen[0]); ++i) {
        iFailed |= Exchange(aulLen[i], i == 2 || i == 4, &ullTick);
    }
    lLen = MBUF_PROTOINT_PrintLog(acLog, sizeof(acLog), SESSION, g_pstCtx);
    printf("its log (%d characters):\n%s", (int)lLen, lLen > 0 ? acLog : "");
    iFailed |= lLen <= 0;
    MBUF_PROTOINT_Uninit(g_pstCtx);

    DropTexts();
    if (KRM_HOST_LiveBufferCount() != 0) {
        fprintf(stderr, "%u buffers left behind\n", KRM_HOST_LiveBufferCount());
        iFailed = 1;
    }
    return iFailed;
}
