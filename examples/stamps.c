/*
 * Where does a packet spend its time? A received packet passes three layers
 * (the link-layer driver, IPv4, the socket layer); each stamps the packet as
 * it takes it, and IPv4 stamps it again when it hands it on. The packet's
 * stack-debug record then prints one line per layer, in local time: the
 * first and last stamp, and the time between them. A layer that stamped only
 * once has no last stamp of its own; its line repeats the one above there,
 * which is how the tools reading these lines expect it.
 *
 * The host platform's clocks are frozen and moved by hand so that the output
 * is the same on every run.
 */
#include <stdio.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

/* Component ids: the component number sits in bits 16-23. */
#define COMP_LDM 0x00780001u  /* 120: link-layer driver */
#define COMP_PP4 0x00660001u  /* 102: IPv4 */
#define COMP_SOCK 0x00650001u /* 101: sockets */

#define TICKS_PER_SECOND 1000000u

/* 2024-03-05 10:20:30.123 UTC, in microseconds since 1970. */
static uint64_t g_ullWallMicros = 1709634030123000u;
static uint64_t g_ullTick = 5000000u;

/* Lets ulMicros pass on both the wall clock and the tick counter. */
static void Spend(uint32_t ulMicros) {
    g_ullTick += ulMicros;
    g_ullWallMicros += ulMicros;
    KRM_HOST_SetTick(g_ullTick);
    KRM_HOST_SetWallClock((uint32_t)(g_ullWallMicros / 1000000u),
                          (uint32_t)(g_ullWallMicros / 1000u % 1000u));
}

static int Stamp(MBUF_S *pstMbuf, uint32_t ulComp, const char *pcWhat) {
    if (MBUF_SetStackDebugInfo(pstMbuf, ulComp, ulComp) != 0) {
        fprintf(stderr, "stamping failed at %s\n", pcWhat);
        return 1;
    }
    printf("  %-28s stamped by %s\n", pcWhat, MBUF_HOSTDBG_GetCompName(ulComp));
    return 0;
}

int main(void) {
    static const uint8_t aucPayload[] = "a datagram for the socket layer";
    char acText[1024];
    MBUF_STACKDEBUG_ENTRY_S *pstEntries = NULL;
    uint8_t ucCur = 0;
    uint32_t ulLen;
    int iFailed = 0;
    MBUF_S *pstMbuf;

    KRM_HOST_SetTickHz(TICKS_PER_SECOND);
    KRM_HOST_SetTimeZone(8 * 3600);
    Spend(0);

    pstMbuf = MBUF_CreateByCopyBuffer(64, sizeof(aucPayload), aucPayload, 0, COMP_LDM);
    if (pstMbuf == NULL) {
        fprintf(stderr, "no packet\n");
        return 1;
    }
    (void)MBUF_SetReceiveIfIndex(pstMbuf, 17);
    printf("packet of %u bytes received on interface %u\n", MBUF_GetTotalDataLength(pstMbuf),
           MBUF_GetReceiveIfIndex(pstMbuf));

    iFailed |= Stamp(pstMbuf, COMP_LDM, "driver took it");
    Spend(350);
    iFailed |= Stamp(pstMbuf, COMP_PP4, "IPv4 took it");
    Spend(1250);
    iFailed |= Stamp(pstMbuf, COMP_PP4, "IPv4 handed it on");
    Spend(2800);
    iFailed |= Stamp(pstMbuf, COMP_SOCK, "socket layer took it");

    if (MBUF_GetStackDebugAppTime(pstMbuf, &pstEntries, &ucCur) == 0) {
        printf("stack-debug record: %u entries used\n", (unsigned)ucCur + 1u);
    }
    ulLen = MBUF_GetStackDebugInfo(pstMbuf, acText, sizeof(acText));
    printf("printed form (%u characters):\n%s", ulLen, acText);

    MBUF_Destroy(pstMbuf);
    if (KRM_HOST_LiveBufferCount() != 0) {
        fprintf(stderr, "buffers left behind\n");
        return 1;
    }
    return iFailed;
}
