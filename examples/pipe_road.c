/*
 * The typical road of a packet between two processes: a protocol creates a
 * packet, writes its payload, prepends its headers, sets its control
 * records, reserves a pipe token and sends it; a second process (forked)
 * receives the piece list from the pipe through a socket, rebuilds the
 * packet, checks every byte and record against what the sender meant, and
 * destroys it. Each step prints what it did; the program exits 0 only if the
 * receiver found everything equal and nothing leaked on either side.
 */
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "krm_host/host.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/mbuf.h"

#define ROAD_MODULE 0x00670000u
#define ROAD_PIPE 4u
#define PAYLOAD_LEN 1200u
#define HDR_LEN 40u
#define PATH_ID 0x0A0B0C0Du
#define SOCK_ID 4242u
#define RCV_IF 0x00100001u

static uint8_t g_aucPacket[HDR_LEN + PAYLOAD_LEN];

/* What the sender writes: the same bytes on both sides of the fork. */
static void MakeExpected(void) {
    uint32_t i;
    for (i = 0; i < sizeof(g_aucPacket); ++i) {
        g_aucPacket[i] = (uint8_t)(i < HDR_LEN ? 0x45u + i : (i * 13u) & 0xFFu);
    }
}

static int Sender(const char *pcPath) {
    MBUF_IOVEC_S astIovec[MBUF_PIPE_MAX_IOVEC];
    MBUF_S *pstMbuf;
    uint8_t *pucHdr;
    uint32_t ulRc;
    int iTry;

    pstMbuf = MBUF_CreateForControlPacket(64u, PAYLOAD_LEN, 0u, ROAD_MODULE);
    if (pstMbuf == NULL || MBUF_CopyDataFromBufferToMBuf(pstMbuf, 0, (int32_t)PAYLOAD_LEN,
                                                         g_aucPacket + HDR_LEN, ROAD_MODULE) != 0) {
        return 1;
    }
    printf("sender:   created, payload %u bytes\n", MBUF_GetTotalDataLength(pstMbuf));
    pucHdr = MBUF_PrependMemorySpace(pstMbuf, HDR_LEN, ROAD_MODULE);
    if (pucHdr == NULL) {
        return 1;
    }
    memcpy(pucHdr, g_aucPacket, HDR_LEN);
    printf("sender:   headers prepended, total %u\n", MBUF_GetTotalDataLength(pstMbuf));
    (void)MBUF_SetPathId(pstMbuf, PATH_ID);
    (void)MBUF_SetSockId(pstMbuf, SOCK_ID);
    (void)MBUF_SetReceiveIfIndex(pstMbuf, RCV_IF);
    printf("sender:   records set: path 0x%08X socket %u receive if 0x%08X\n", PATH_ID, SOCK_ID,
           RCV_IF);
    if (KRM_HOST_PipeOpen(ROAD_PIPE, 8u) != 0) {
        return 1;
    }
    for (iTry = 0; iTry < 100 && KRM_HOST_PipeConnect(ROAD_PIPE, pcPath) != 0; ++iTry) {
        struct timespec stPause = {0, 50 * 1000 * 1000};
        nanosleep(&stPause, NULL);
    }
    ulRc = MBUF_TokenAlloc(ROAD_PIPE, pstMbuf, ROAD_MODULE);
    printf("sender:   token reserved: %u\n", ulRc);
    if (ulRc != 0) {
        MBUF_Destroy(pstMbuf);
        return 1;
    }
    ulRc = MBUF_Send(ROAD_PIPE, pstMbuf, astIovec);
    printf("sender:   sent: %u (the pipe owns the packet now)\n", ulRc);
    return ulRc == 0 ? 0 : 1;
}

static int Receiver(const char *pcPath) {
    MBUF_TRANS_DESC_S astDesc[4];
    MBUF_S *pstList = NULL;
    uint8_t aucGot[sizeof(g_aucPacket)];
    uint32_t ulCount = 4u;
    uint32_t ulStatus = 0;
    int iBad = 0;

    if (KRM_HOST_PipeOpen(ROAD_PIPE, 8u) != 0 || KRM_HOST_PipeListen(ROAD_PIPE, pcPath) != 0 ||
        KRM_HOST_PipeWait(ROAD_PIPE, 10000u) == 0) {
        printf("receiver: nothing arrived\n");
        return 1;
    }
    if (MBUF_MultiRecv(ROAD_PIPE, &pstList, &ulCount, &ulStatus, astDesc) != 0 || ulCount != 1u) {
        printf("receiver: package did not rebuild\n");
        return 1;
    }
    printf("receiver: rebuilt %u packet, total %u\n", ulCount, MBUF_GetTotalDataLength(pstList));
    iBad |= MBUF_GetTotalDataLength(pstList) != sizeof(g_aucPacket);
    iBad |= MBUF_CopyDataFromMBufToBuffer(pstList, 0u, sizeof(aucGot), aucGot) != 0;
    iBad |= memcmp(aucGot, g_aucPacket, sizeof(aucGot)) != 0;
    iBad |= MBUF_GetPathId(pstList) != PATH_ID || MBUF_GetSockId(pstList) != SOCK_ID ||
            MBUF_GetReceiveIfIndex(pstList) != RCV_IF;
    printf("receiver: bytes and records %s\n", iBad ? "DIFFER" : "equal");
    MBUF_Destroy(pstList);
    KRM_HOST_Reset();
    iBad |= KRM_HOST_LiveBufferCount() != 0;
    return iBad;
}

int main(void) {
    char acPath[64];
    pid_t pid;
    int iStatus = 0;
    int iRc;

    MakeExpected();
    snprintf(acPath, sizeof(acPath), "/tmp/krm-pipe-road-%ld", (long)getpid());
    pid = fork();
    if (pid == 0) {
        iRc = Receiver(acPath);
        fflush(stdout);
        _exit(iRc);
    }
    iRc = Sender(acPath);
    (void)waitpid(pid, &iStatus, 0);
    unlink(acPath);
    KRM_HOST_Reset();
    iRc |= !WIFEXITED(iStatus) || WEXITSTATUS(iStatus) != 0;
    iRc |= KRM_HOST_LiveBufferCount() != 0;
    printf("road %s\n", iRc == 0 ? "complete" : "FAILED");
    return iRc;
}
