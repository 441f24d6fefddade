/*
 * libkrm_mbuf: message buffers of the router's control plane.
 *
 * The public C interface: the node MBUF_S and its companion types, flags, size
 * constants, result codes and every exported function and table. The exported
 * functions are declared by family in the headers included at the end.
 *
 * C99 and C++ compatible. The node is byte-exact across builds: every
 * non-pointer field sits at the same offset on 32-bit and 64-bit builds.
 */
#ifndef KRM_MBUF_MBUF_H
#define KRM_MBUF_MBUF_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Marks every exported function and table; the library hides everything else. */
#define MBUF_API __attribute__((visibility("default")))

/* Anonymous unions and structs keep the historical field names flat
 * (pstMbuf->ulTotalDataLen) while staying accepted by strict C99 and C++. */
#define MBUF_ANON __extension__

/* ---- node flags (ulFlag) ---------------------------------------------- */
#define MBUF_EXT 0x00000001u               /* data lies in the external buffer */
#define MBUF_PKTHDR 0x00000002u            /* first node of a packet */
#define MBUF_ROOMLOCK 0x00000008u          /* free room may not be taken */
#define MBUF_FLAG_CTLINFO_SENT 0x00008000u /* a separate control block travels */
#define MBUF_NOFREE 0x00040000u            /* node not owned by the library */
/* Bits a duplicated packet header takes from its source. */
#define MBUF_PKTHDR_COPY_MASK 0x00037FFEu

/* ---- validity marker (ucMagic) ---------------------------------------- */
#define MBUF_MAGIC_LIVE 0xAAu
#define MBUF_MAGIC_DEAD 0xBBu

/* ---- byte-order codes (ucByteOrder) ----------------------------------- */
#define MBUF_BYTEORDER_LITTLE 1u
#define MBUF_BYTEORDER_BIG 2u
/* Nodes stamped with a reserved mark are never translated. */
#define MBUF_BYTEORDER_MARK_AA 0xAAu
#define MBUF_BYTEORDER_MARK_BB 0xBBu
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#define MBUF_BYTEORDER_HOST MBUF_BYTEORDER_BIG
#define MBUF_HOST_BIG_ENDIAN 1
#elif defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define MBUF_BYTEORDER_HOST MBUF_BYTEORDER_LITTLE
#define MBUF_HOST_BIG_ENDIAN 0
#else
#error "unknown byte order"
#endif

/* ---- sizes and limits --------------------------------------------------- */
#define MBUF_NODE_SIZE 936u          /* every node, header or plain */
#define MBUF_NODE_HEAD_LEN 24u       /* the node header before the body */
#define MBUF_BODY_LEN 848u           /* the body: plain inline area */
#define MBUF_LINK_LEN 64u            /* link words behind the body */
#define MBUF_PKTHDR_INLINE_LEN 372u  /* inline data of a packet-header node */
#define MBUF_PLAIN_INLINE_LEN 848u   /* inline data of a plain node */
#define MBUF_CLUSTER_SIZE 1960u      /* standard external buffer */
#define MBUF_CTLINFO_INLINE_LEN 448u /* inline control-information area */
#define MBUF_CTL_FIXED_LEN 184u      /* common record + head + slot directory */
#define MBUF_CTL_INIT_CAPACITY 264u  /* record area of a fresh block */
#define MBUF_CTL_COMM_LEN 84u        /* the common record */
#define MBUF_CTL_TYPE_NUM 23u        /* directory slots, record types 0..22 */
#define MBUF_CTL_BLK_MARK 0x40u      /* written into ucBlkMark */
#define MBUF_PIPE_MAX_IOVEC 90u      /* pieces that describe one packet */
#define MBUF_REPORT_TEXT_LEN 64u     /* characters of one report */

/* ---- result codes ------------------------------------------------------- */
#define MBUF_OK 0u
#define MBUF_ERR_NULL_MBUF 1000u      /* null packet or missing piece */
#define MBUF_ERR_NOT_PKTHDR 1001u     /* not a packet-header node */
#define MBUF_ERR_INVALID_MBUF 1002u   /* null, no MBUF_PKTHDR or bad magic */
#define MBUF_ERR_OFFSET 1004u         /* offset not inside the packet */
#define MBUF_ERR_LENGTH 1005u         /* length or range beyond the packet */
#define MBUF_ERR_CHAIN_END 1006u      /* chain ended before the offset */
#define MBUF_ERR_CANNOT_PROCEED 1007u /* operation cannot proceed */
#define MBUF_ERR_NOMEM 1008u          /* allocation failed */
#define MBUF_ERR_TOO_MANY_IOVEC 1009u /* more than 90 pipe pieces */
#define MBUF_ERR_EXT_MISSING 1010u    /* external-buffer piece missing */
#define MBUF_ERR_CTL_EXISTS 1011u     /* control record already present */
#define MBUF_ERR_CTL_NO_ROOM 1012u    /* control record cannot be placed */
#define MBUF_ERR_NO_DATA 1013u        /* no data, or not contiguous */
#define MBUF_ERR_MSG_ALLOC 1014u      /* message allocation failed */
#define MBUF_ERR_BAD_ARG 1016u        /* bad argument */
#define MBUF_ERR_TOO_SMALL 1017u      /* caller's array or budget too small */
#define MBUF_ERR_NOT_FOUND 1018u      /* offset node, VLAN id or TLV absent */

/* ---- control-information record types (slot index) ---------------------- */
enum {
    MBUF_CTL_COMM = 0,
    MBUF_CTL_LINK = 1,
    MBUF_CTL_IP = 2,
    MBUF_CTL_MPLS = 3,
    MBUF_CTL_APP = 4,
    MBUF_CTL_IPOPTION = 5,
    MBUF_CTL_FERX = 6,
    MBUF_CTL_FETX = 7,
    MBUF_CTL_IP6 = 8,
    MBUF_CTL_PREVHOP = 9,
    MBUF_CTL_IPSEC = 10,
    MBUF_CTL_TIMESTAMP = 11,
    MBUF_CTL_VLANIDMAC = 12,
    MBUF_CTL_TRILLOAM = 13,
    MBUF_CTL_L2PORTLIST = 14,
    MBUF_CTL_VSIMAC = 15,
    MBUF_CTL_L2VSIPORTLIST = 16,
    MBUF_CTL_L2VPN = 17,
    MBUF_CTL_POLICYIF = 18,
    MBUF_CTL_INTERFACE = 19,
    MBUF_CTL_PKTSEND = 20,
    MBUF_CTL_STACKDEBUG = 21,
    MBUF_CTL_PACKET = 22
};

/* ---- companion types ---------------------------------------------------- */

/* The caller's location, carried by every allocating call to the platform. */
typedef struct MBUF_FILE_LINE_S {
    const char *pcFileName;
    uint32_t ulLine;
} MBUF_FILE_LINE_S;

/* One memory piece: allocator request and pipe-vector entry alike. */
typedef struct MBUF_IOVEC_S {
    void *pBuf;
    uint32_t ulLen;
    uint32_t ulRsv;
} MBUF_IOVEC_S;

/* One packet's piece list on a pipe. */
typedef struct MBUF_TRANS_DESC_S {
    uint32_t ulNum;
    MBUF_IOVEC_S *pstIovec;
} MBUF_TRANS_DESC_S;

/* The init record of MBUF_StructInit; usType 255 leaves the node untouched. */
typedef struct MBUF_STRUCT_INIT_S {
    uint32_t ulFlag;
    uint16_t usType;
} MBUF_STRUCT_INIT_S;

/* One slot of the control block's directory; usOffset 0 means absent. */
typedef struct MBUF_CTL_SLOT_S {
    uint16_t usOffset; /* from the start of the block, 184 or more */
    uint16_t usLen;    /* as allocated */
} MBUF_CTL_SLOT_S;

/* Head of a sub-TLV inside records 1, 20 and 22; usLen counts the value only. */
typedef struct MBUF_CTL_TLV_S {
    uint16_t usType;
    uint16_t usLen;
} MBUF_CTL_TLV_S;

/* The common record, type 0: 84 bytes. */
typedef struct MBUF_CTL_COMM_S {
    uint32_t ulFlag;
    uint32_t ulVrId;
    uint32_t ulVrfId;
    uint32_t ulRcvIfIndex;
    uint32_t ulRcvPhyIfIndex;
    uint32_t ulSendIfIndex;
    uint32_t ulPathId;
    uint32_t ulSocketId;
    uint32_t aulRsv0[2];
    uint16_t usProtocolType;
    uint16_t usDirectionType;
    uint32_t ulTimeStamp;
    uint32_t ulExceptionId;
    uint32_t ulRsv1;
    uint32_t ulPortGroupId;
    uint32_t ulRsv2;
    uint16_t usPktPriority;
    uint16_t usRsv3;
    uint32_t aulRsv4[3];
    uint32_t ulProductProtocolType;
} MBUF_CTL_COMM_S;

/*
 * The fixed part of the control-information block (184 bytes); the record
 * area follows it. The four one-byte head fields travel as one 32-bit word
 * (mark in bits 24-31, byte order 16-23, slot count 8-15, record count 0-7),
 * so a little-endian build declares them in reverse: the word then has the
 * same value on both builds and reversing it converts one layout into the
 * other.
 */
typedef struct MBUF_CONTROL_BLK_S {
    MBUF_CTL_COMM_S stComm;
#if MBUF_HOST_BIG_ENDIAN
    uint8_t ucBlkMark;
    uint8_t ucByteOrder;
    uint8_t ucSlotNum;
    uint8_t ucRecNum;
#else
    uint8_t ucRecNum;
    uint8_t ucSlotNum;
    uint8_t ucByteOrder;
    uint8_t ucBlkMark;
#endif
    uint16_t usUsedLen;
    uint16_t usCapacity;
    MBUF_CTL_SLOT_S astSlot[MBUF_CTL_TYPE_NUM];
} MBUF_CONTROL_BLK_S;

/* The inline control-information area of a packet-header node. */
typedef union MBUF_CTLINFO_AREA_U {
    MBUF_CONTROL_BLK_S stBlk;
    uint8_t aucRaw[MBUF_CTLINFO_INLINE_LEN];
} MBUF_CTLINFO_AREA_U;

/* Descriptor of an attached external buffer; overlays the inline tail. */
typedef struct MBUF_EXT_INFO_S {
    uint32_t aulExtRsv[3];
    uint32_t ulExtSize;
    uint32_t ulExtRefCnt;
} MBUF_EXT_INFO_S;

/*
 * A pointer and its reserved word. On a 32-bit build the reserved word
 * precedes the pointer; on a 64-bit build the pointer takes both words.
 */
#if UINTPTR_MAX == 0xFFFFFFFFu
#define MBUF_PTR_PAIR(rsv, decl) \
    uint32_t rsv;                \
    decl
#else
#define MBUF_PTR_PAIR(rsv, decl) decl
#endif

/*
 * One node: 936 bytes on every build.
 *   0..23    node header
 *   24..871  body: 848 inline bytes, or the packet-header layout
 *   872..935 link words
 */
typedef struct MBUF_S {
    uint32_t ulRsv0; /* the pipe: more nodes follow */
    uint32_t ulRsv1;
    uint32_t ulRsv2; /* the pipe: data offset in transit */
    uint32_t ulDataLen;
    uint32_t ulFlag;
    uint16_t usType;
    uint8_t ucByteOrder;
    uint8_t ucMagic;
    MBUF_ANON union {
        uint8_t aucInlineData[MBUF_PLAIN_INLINE_LEN]; /* plain node */
        MBUF_ANON struct {
            uint32_t ulPktRsv;
            uint32_t ulTotalDataLen;
            uint32_t ulFlag3;
            uint32_t ulPktTagInfo;
            MBUF_CTLINFO_AREA_U stCtlInfo;
            uint32_t ulPktRsv2;
            uint32_t ulFlag2;
            uint32_t ulPktRsv3;
            MBUF_ANON union {
                uint8_t aucHdrInlineData[MBUF_PKTHDR_INLINE_LEN];
                MBUF_EXT_INFO_S stExtInfo; /* valid with MBUF_EXT */
                MBUF_ANON struct {
                    uint32_t aulExtInfoRsv[3];
                    uint32_t ulExtSize;   /* bytes of the external buffer */
                    uint32_t ulExtRefCnt; /* 1 while attached; never counts */
                };
            };
        };
    };
    MBUF_PTR_PAIR(ulRsv3, struct MBUF_S *pstNext;)
    MBUF_PTR_PAIR(ulRsv4, struct MBUF_S *pstNextPkt;)
    MBUF_PTR_PAIR(ulRsv5, uint8_t *pucData;)
    uint32_t ulRsv6;
    uint32_t ulPktRsv4;
    MBUF_PTR_PAIR(ulRsv7, MBUF_CONTROL_BLK_S *pstCtlInfo;)
    MBUF_PTR_PAIR(ulRsv8, uint8_t *pucExtBuf;)
    uint32_t ulRsv9;
    uint32_t ulExtRsv0;
    uint32_t ulRsv10;
    uint32_t ulExtRsv1;
} MBUF_S;

/* The version string of this library. */
MBUF_API extern const char g_acMbufVersion[];

#ifdef __cplusplus
}
#endif

/* The exported functions and tables, by family. */
#include "krm_mbuf/mbuf_byteorder.h" /* byte-order translation */
#include "krm_mbuf/mbuf_chain.h"     /* space, copy, join, split, traversal */
#include "krm_mbuf/mbuf_core.h"      /* nodes, memory, creation, destruction */
#include "krm_mbuf/mbuf_ctlinfo.h"   /* control information, packet tags */
#include "krm_mbuf/mbuf_diag.h"      /* drop-reason texts, packet trace */
#include "krm_mbuf/mbuf_hpc.h"       /* packet and vector conversion */
#include "krm_mbuf/mbuf_meta.h"      /* flags, accessors, stack debug, time */
#include "krm_mbuf/mbuf_offload.h"   /* checksums, TCP segmentation */
#include "krm_mbuf/mbuf_pipe.h"      /* sending and receiving through pipes */
#include "krm_mbuf/mbuf_protoint.h"  /* protocol-interaction log */
#include "krm_mbuf/mbuf_serial.h"    /* TLV stream, serial image, data blocks */

#endif /* KRM_MBUF_MBUF_H */
