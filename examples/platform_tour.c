/*
 * A tour of the ground libkrm_mbuf stands on: the library's version and node
 * layout, and the host platform's pipe buffers in the sizes nodes and
 * clusters take.
 */
#include <stdio.h>

#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

#define EXAMPLE_MODULE 0x00650000u

int main(void) {
    MBUF_IOVEC_S astPiece[2] = {{NULL, MBUF_NODE_SIZE, 0}, {NULL, MBUF_CLUSTER_SIZE, 0}};
    uint32_t ulHandle = 0;

    printf("library: %s\n", g_acMbufVersion);
    printf("node: %u bytes (header %u, body %u, links %u); byte-order code %u\n",
           (unsigned)sizeof(MBUF_S), MBUF_NODE_HEAD_LEN, MBUF_BODY_LEN, MBUF_LINK_LEN,
           MBUF_BYTEORDER_HOST);

    if (KRM_DbufIovecAlloc_F(EXAMPLE_MODULE, 2, astPiece, __FILE__, __LINE__) != 0) {
        fprintf(stderr, "allocation failed\n");
        return 1;
    }
    (void)TQM_DbufAllocIdGet(astPiece[0].pBuf, &ulHandle, 0, 0, 0);
    printf("allocated a node buffer of %u bytes and a cluster of %u bytes for module 0x%08X\n",
           KRM_DbufLengthGET(astPiece[0].pBuf), KRM_DbufLengthGET(astPiece[1].pBuf), ulHandle);
    printf("live buffers: %u\n", KRM_HOST_LiveBufferCount());

    if (KRM_DbufIovecFree_F(2, astPiece, __FILE__, __LINE__) != 0) {
        fprintf(stderr, "release failed\n");
        return 1;
    }
    printf("released; live buffers: %u\n", KRM_HOST_LiveBufferCount());
    return KRM_HOST_LiveBufferCount() == 0 ? 0 : 1;
}
