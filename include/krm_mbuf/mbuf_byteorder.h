/* Exported functions of the byteorder family; included by krm_mbuf/mbuf.h.
 *
 * The receiver makes it right: a sender only stamps its byte-order code into
 * every node it sends; a receiver whose code differs converts each node, then
 * once per packet the control-information block and every record in it.
 * Every conversion reverses 16-bit and 32-bit fields in place, from the
 * sender's order into this host's; bytes and byte arrays are left alone.
 *
 * Records and sub-TLVs are passed as untyped pointers: inside a received
 * stream they sit at any alignment. A sub-TLV starts with its 16-bit type and
 * 16-bit value length (MBUF_CTL_TLV_S); its fields count from there.
 *
 * The one-argument translators trust their record: they convert the fields
 * their type defines, wherever they lie. The framework entry points
 * (MBUF_MbufMPktHdrTagByteOrderTrans, MBUF_TagByteOrderTrans) know each
 * record's bound and never reach past it; what would is reported and that
 * record's conversion stops. None allocates or frees; none undoes what it has
 * converted when it stops early. */
#ifndef KRM_MBUF_MBUF_BYTEORDER_H
#define KRM_MBUF_MBUF_BYTEORDER_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Entries of the link and packet-send dispatch tables. */
#define MBUF_LINK_TLV_TYPE_NUM 25u     /* link types below this have an entry */
#define MBUF_PKTSND_TRANS_ROW_NUM 31u  /* rows of the packet-send table */
#define MBUF_PKTSND_TNL_TYPE_NUM 5u    /* nested tunnel types */
#define MBUF_PKTSND_NOPATH_TYPE_NUM 3u /* nested no-path types */

/* A control-information record translator: 0, or -1 for a NULL record; the
 * walks of records 1, 20 and 22 also return 1 for a sub-TLV that overruns. */
typedef int32_t (*MBUF_CTL_ORDER_TRANS_PF)(void *pRecord);
/* A link sub-TLV translator; converts its own head too. */
typedef void (*MBUF_LINK_ORDER_TRANS_PF)(void *pTlv);
/* A packet-send sub-TLV translator; its head is already converted. 0, or -1
 * for a NULL sub-TLV (the nested walks also return 1 for an overrun). */
typedef int32_t (*MBUF_PKTSND_ORDER_TRANS_PF)(void *pTlv);
/* A nested tunnel or no-path TLV translator; its head is already converted. */
typedef void (*MBUF_PKTSND_NEST_TRANS_PF)(void *pTlv);

/* One row of the packet-send table: a sub-TLV type and its translator. */
typedef struct MBUF_PKTSND_TRANS_PROC_S {
    uint16_t usType;
    MBUF_PKTSND_ORDER_TRANS_PF pfTrans;
} MBUF_PKTSND_TRANS_PROC_S;

/* ---- the dispatch tables (constant) -------------------------------------- */

/* Indexed by control-information record type 0..22; every entry set. */
MBUF_API extern const MBUF_CTL_ORDER_TRANS_PF g_apfMbufPacketOrderTransProc[MBUF_CTL_TYPE_NUM];
/* Indexed by link sub-TLV type 0..24; every entry set. Types from 25 on go
 * to MBUF_LinkEnCapByteOrderTrans. */
MBUF_API extern const MBUF_LINK_ORDER_TRANS_PF
    g_apfMbufLinkInfoOrderTransProc[MBUF_LINK_TLV_TYPE_NUM];
/* Searched from the first row; the first row of a type wins (type 28 stands
 * twice, so its second row is never reached). An unlisted type has no
 * translator and its value is left as it is. */
MBUF_API extern const MBUF_PKTSND_TRANS_PROC_S
    g_astMbufPktSndInfoByteTransProc[MBUF_PKTSND_TRANS_ROW_NUM];
/* Indexed by nested tunnel type 0..4 (packet-send type 13). */
MBUF_API extern const MBUF_PKTSND_NEST_TRANS_PF
    g_apfMbufPktSndSpcifyTnlInfoFunc[MBUF_PKTSND_TNL_TYPE_NUM];
/* Indexed by nested no-path type 0..2 (packet-send type 19); entry 0 is NULL. */
MBUF_API extern const MBUF_PKTSND_NEST_TRANS_PF
    g_apfMbufSndWithNoPathOrderTransProc[MBUF_PKTSND_NOPATH_TYPE_NUM];

/* ---- the framework --------------------------------------------------------- */

/* Writes this host's byte-order code (MBUF_BYTEORDER_HOST) to *pucByteOrder;
 * a NULL pointer: nothing. */
MBUF_API void MBUF_Get_BEX_ByteOrder(uint8_t *pucByteOrder);

/* Sender side: stamps this host's code into ucByteOrder of every node of
 * every packet of the list (pstNextPkt, then pstNext). Converts nothing.
 * NULL: nothing. */
MBUF_API void MBUF_UpdateMbufListByteOrderType(MBUF_S *pstMbufList);

/* Receiver side, one node: unless ucByteOrder is this host's code, 0xAA or
 * 0xBB, converts the node's header, then its external-buffer words
 * (MBUF_EXT) and packet-header words (MBUF_PKTHDR) as the converted flags
 * say, and stamps this host's code so that a second call does nothing. The
 * control-information block is not touched. NULL: nothing. */
MBUF_API void MBUF_SingleMbufControlBlkByteOrderTrans(MBUF_S *pstMbuf);

/* Converts ulRsv2, ulDataLen, ulFlag and usType. NULL: nothing. */
MBUF_API void MBUF_MbufHeaderByteOrderTrans(MBUF_S *pstMbuf);

/* Reading ulFlag as already converted: MBUF_EXT converts ulExtSize and
 * ulExtRefCnt; MBUF_PKTHDR calls MBUF_MbufMPktHdrByteOrderTrans. NULL:
 * nothing. */
MBUF_API void MBUF_MbufMdatByteOrderTrans(MBUF_S *pstMbuf);

/* Converts the five packet-header words: ulTotalDataLen, ulFlag3,
 * ulPktTagInfo, ulFlag2, ulPktRsv3. NULL: nothing. */
MBUF_API void MBUF_MbufMPktHdrByteOrderTrans(MBUF_S *pstMbuf);

/* Converts the control-information block of a packet-header node: its head
 * (the four head bytes as one 32-bit word, usUsedLen, usCapacity), then for
 * each slot below the slot count and below 23 the slot and, when the node
 * has MBUF_PKTHDR and the record exists (type 0: the block itself; others: a
 * non-zero offset), the record through g_apfMbufPacketOrderTransProc. A slot
 * count of 0 converts only the head. The block's size bounds every record:
 * 448 for the node's inline block, else the pipe buffer's length, else the
 * block's own account ((slot count + 23) x 4 + usCapacity). A translator's
 * non-zero result is reported ("Fd %u Pro %u TagT %u Ret %u") and the walk
 * goes on. NULL node or block: nothing. */
MBUF_API void MBUF_MbufMPktHdrTagByteOrderTrans(MBUF_S *pstMbuf);

/* Converts a received control-information block (the tag message) of
 * ulRevLen bytes in place: its head, then, whatever MBUF_CheckTagByteOrderLen
 * says, each slot and the record it holds, found as Mbuf_GetControlInfoByTagMsg
 * finds it; the walk stops when a non-empty slot fails
 * MBUF_CheckTagOffsetLen or when as many non-empty slots as ucRecNum have
 * been seen. Nothing outside the ulRevLen bytes is touched: a message too
 * short for its head is reported and left alone, and a record reaches at most
 * its slot length and the end of the message. NULL: nothing. */
MBUF_API void MBUF_TagByteOrderTrans(void *pTagMsg, uint32_t ulRevLen);

/* Validates a converted tag message's slot array and record area against
 * the received length: 0, or -1 after a report. Reads the head only;
 * the message must hold it. NULL: -1. */
MBUF_API int32_t MBUF_CheckTagByteOrderLen(void *pTagMsg, uint32_t ulRevLen);

/* Validates slot ulType of a converted tag message: its offset must lie
 * behind the slot array and its record within the received length. 0, or -1
 * after a report. NULL: -1. */
MBUF_API int32_t MBUF_CheckTagOffsetLen(void *pTagMsg, uint32_t ulRevLen, uint32_t ulType);

/* The translator of a packet-send sub-TLV whose type is already converted:
 * the first row of g_astMbufPktSndInfoByteTransProc with its type, or NULL.
 * A NULL sub-TLV is reported and yields NULL. */
MBUF_API MBUF_PKTSND_ORDER_TRANS_PF MBUF_GetPktSendInfoBytesTransFunc(void *pTlv);

/* ---- control-information record translators --------------------------------
 * Each converts, in place, the record of its type (comment: the type) that
 * pRecord points at; 0 when done, -1 for NULL. The walks of the TLV records
 * 1, 20 and 22 return 1 after reporting a sub-TLV that overruns the record
 * (what came before it stays converted), and record 20 returns -1 after
 * reporting a list length below 4. */

MBUF_API int32_t MBUF_MbufCommInfoByteOrderTrans(void *pRecord);          /* type 0 */
MBUF_API int32_t MBUF_MbufLinkInfoByteOrderTrans(void *pRecord);          /* 1: walk */
MBUF_API int32_t MBUF_MbufIpInfoByteOrderTrans(void *pRecord);            /* 2 */
MBUF_API int32_t MBUF_MbufMplsInfoByteOrderTrans(void *pRecord);          /* 3 */
MBUF_API int32_t MBUF_MbufAppInfoByteOrderTrans(void *pRecord);           /* 4 */
MBUF_API int32_t MBUF_MbufIpOptionInfoByteOrderTrans(void *pRecord);      /* 5 */
MBUF_API int32_t MBUF_MbufFeRxInfoByteOrderTrans(void *pRecord);          /* 6 */
MBUF_API int32_t MBUF_MbufFeTxInfoByteOrderTrans(void *pRecord);          /* 7 */
MBUF_API int32_t MBUF_MbufIP6InfoByteOrderTrans(void *pRecord);           /* 8 */
MBUF_API int32_t MBUF_MbufPrevHopInfoByteOrderTrans(void *pRecord);       /* 9 */
MBUF_API int32_t MBUF_MbufIpSecInfoByteOrderTrans(void *pRecord);         /* 10 */
MBUF_API int32_t MBUF_MbufTimeStampInfoByteOrderTrans(void *pRecord);     /* 11 */
MBUF_API int32_t MBUF_MbufVlanIdMacInfoByteOrderTrans(void *pRecord);     /* 12 */
MBUF_API int32_t MBUF_MbufTrillOamInfoByteOrderTrans(void *pRecord);      /* 13 */
MBUF_API int32_t MBUF_MbufL2PortListInfoByteOrderTrans(void *pRecord);    /* 14 */
MBUF_API int32_t MBUF_MbufVsiMacInfoByteOrderTrans(void *pRecord);        /* 15 */
MBUF_API int32_t MBUF_MbufL2VsiPortListInfoByteOrderTrans(void *pRecord); /* 16 */
MBUF_API int32_t MBUF_MbufL2VpnInfoByteOrderTrans(void *pRecord);         /* 17 */
MBUF_API int32_t MBUF_MbufPolicyIfInfoByteOrderTrans(void *pRecord);      /* 18 */
MBUF_API int32_t MBUF_MbufInterfaceInfoByteOrderTrans(void *pRecord);     /* 19 */
MBUF_API int32_t MBUF_MbufPktSendInfoByteOrderTrans(void *pRecord);       /* 20: walk */
MBUF_API int32_t MBUF_MbufStackDebugInfoByteOrderTrans(void *pRecord);    /* 21 */
MBUF_API int32_t MBUF_MbufPacketInfoByteOrderTrans(void *pRecord);        /* 22: walk */

/* ---- link sub-TLV translators ----------------------------------------------
 * Each converts, in place, the link sub-TLV of its type (comment) that pTlv
 * points at, its own 4-byte head included. NULL: nothing. */

MBUF_API void MBUF_LinkEthByteOrderTrans(void *pTlv);          /* 0 */
MBUF_API void MBUF_LinkAtmByteOrderTrans(void *pTlv);          /* 1 */
MBUF_API void MBUF_LinkQinQByteOrderTrans(void *pTlv);         /* 2 */
MBUF_API void MBUF_LinkVlanIfByteOrderTrans(void *pTlv);       /* 3 */
MBUF_API void MBUF_LinkDot1qByteOrderTrans(void *pTlv);        /* 4 */
MBUF_API void MBUF_LinkHdlcByteOrderTrans(void *pTlv);         /* 5 */
MBUF_API void MBUF_LinkTrillByteOrderTrans(void *pTlv);        /* 6 */
MBUF_API void MBUF_Link8023SNAPByteOrderTrans(void *pTlv);     /* 7 */
MBUF_API void MBUF_Link8023LlcByteOrderTrans(void *pTlv);      /* 8 */
MBUF_API void MBUF_LinkVsiByteOrderTrans(void *pTlv);          /* 9 */
MBUF_API void MBUF_LinkVlanPriorityByteOrderTrans(void *pTlv); /* 10 */
MBUF_API void MBUF_LinkBdByteOrderTrans(void *pTlv);           /* 11 */
MBUF_API void MBUF_LinkCtrlByteOrderTrans(void *pTlv);         /* 12 */
MBUF_API void MBUF_LinkVlanByteOrderTrans(void *pTlv);         /* 13 */
MBUF_API void MBUF_LinkTunnelByteOrderTrans(void *pTlv);       /* 14 */
MBUF_API void MBUF_LinkEvpnVlanByteOrderTrans(void *pTlv);     /* 15 */
MBUF_API void MBUF_LinkTpidByteOrderTrans(void *pTlv);         /* 16 */
MBUF_API void MBUF_LinkExtVlanByteOrderTrans(void *pTlv);      /* 17 */
MBUF_API void MBUF_LinkANByteOrderTrans(void *pTlv);           /* 18 */
MBUF_API void MBUF_LinkPRUNEByteOrderTrans(void *pTlv);        /* 19 */
MBUF_API void MBUF_LinkPPPOEByteOrderTrans(void *pTlv);        /* 20 */
MBUF_API void MBUF_LinkTunnelIpv6ByteOrderTrans(void *pTlv);   /* 21 */
MBUF_API void MBUF_LinkIfInfoByteOrderTrans(void *pTlv);       /* 22 */
MBUF_API void MBUF_LinkTagCpInfoByteOrderTrans(void *pTlv);    /* 23 */
MBUF_API void MBUF_LinkPppInfoByteOrderTrans(void *pTlv);      /* 24 */
MBUF_API void MBUF_LinkEnCapByteOrderTrans(void *pTlv);        /* 25 and above */

/* ---- packet-send sub-TLV translators ------------------------------------------
 * Each converts, in place, the value of the packet-send sub-TLV of its type
 * (comment) that pTlv points at; the walker has converted its head, which
 * they leave alone. 0 when done, -1 for NULL (reported only by the
 * nothing-to-convert translator and the nested tunnel walk); the two nested
 * walks return 1 after reporting a nested TLV that overruns the sub-TLV, and
 * the tunnel walk -1 after reporting a length below 4. */

MBUF_API int32_t MBUF_MbufPktSendInfoBdBcastTrans(void *pTlv);          /* 0 */
MBUF_API int32_t MBUF_MbufPktSendInfoBdPortListTrans(void *pTlv);       /* 1 */
MBUF_API int32_t MBUF_MbufPktSendInfoIfNextHopTrans(void *pTlv);        /* 2 */
MBUF_API int32_t MBUF_MbufPktSendInfoNewBKTransNoTrans(void *pTlv);     /* 3 */
MBUF_API int32_t MBUF_MbufPktSendInfoBdcastPortGrpTrans(void *pTlv);    /* 4 */
MBUF_API int32_t MBUF_MbufPktSendInfoVlanBcastPortGrpTrans(void *pTlv); /* 5 */
MBUF_API int32_t MBUF_MbufPktSendInfoCtrlRouteTrans(void *pTlv);        /* 7 */
MBUF_API int32_t MBUF_MbufPktSendInfoSessKeyTrans(void *pTlv);          /* 8 */
MBUF_API int32_t MBUF_MbufEthSessKeyTrans(void *pTlv);                  /* 8, key kind 7 */
MBUF_API int32_t MBUF_MbufPktSendInfoFlowLabelTrans(void *pTlv);        /* 9 */
MBUF_API int32_t MBUF_MbufPktSendInfoFlowIdTrans(void *pTlv);           /* 10 */
/* 11, 12, 20, 0x2001, 0x8000: nothing to convert; NULL is reported. */
MBUF_API int32_t MBUF_MbufPktSendInfoNotNeedTrans(void *pTlv);
MBUF_API int32_t MBUF_MbufPktSendInfoSpcifyTnl(void *pTlv);           /* 13: walk */
MBUF_API int32_t MBUF_MbufPktSendInfoL2vpnPwInfoTrans(void *pTlv);    /* 0x1000 */
MBUF_API int32_t MBUF_MbufPktSendInfoInnerEthOffsetTrans(void *pTlv); /* 0x2000 */
MBUF_API int32_t MBUF_MbufPktSendInfoUserCidTrans(void *pTlv);        /* 14 */
MBUF_API int32_t MBUF_MbufPktSendInfoSockKeyTrans(void *pTlv);        /* 15 */
MBUF_API int32_t MBUF_MbufPktSendInfoSockForwardTrans(void *pTlv);    /* 18 */
MBUF_API int32_t MBUF_MbufPktSendInfoNoPathPktTrans(void *pTlv);      /* 19: walk */
MBUF_API int32_t MBUF_MbufPktSendInfoEvpnCastTrans(void *pTlv);       /* 21 */
MBUF_API int32_t MBUF_MbufPktSendInfoEvpnTnlTrans(void *pTlv);        /* 22 */
MBUF_API int32_t MBUF_MbufPktSendInfoSliceTrans(void *pTlv);          /* 27 */
MBUF_API int32_t MBUF_MbufPktSendInfoEvpnMacTrans(void *pTlv);        /* 28 */
MBUF_API int32_t MBUF_MbufPktSendEvpnMacTrans(void *pTlv);            /* 28, twin */
MBUF_API int32_t MBUF_MbufPktSendPathMatchPriTrans(void *pTlv);       /* 29 */
MBUF_API int32_t MBUF_MbufPktSendUsrCtlInfoTrans(void *pTlv);         /* 30 */
MBUF_API int32_t MBUF_SNDPKT_IfPPPoEByteOrderTrans(void *pTlv);       /* 31 */
MBUF_API int32_t MBUF_SNDPKT_Apn6IdInfoByteOrderTrans(void *pTlv);    /* 32 */

/* ---- nested translators ----------------------------------------------------------
 * Each converts, in place, the value of the nested TLV (comment: the table and
 * type) that pTlv points at; its walker has converted its head. NULL: nothing. */

MBUF_API void MBUF_MbufPktSendInfoSpecifyTnlBase(void *pTlv);  /* tunnel 0 */
MBUF_API void MBUF_MbufPktSendInfoSpecifyTnlVxLan(void *pTlv); /* tunnel 1 */
MBUF_API void MBUF_MbufPktSendInfoSpecifyTnlBd(void *pTlv);    /* tunnel 2 */
MBUF_API void MBUF_MbufPktSendInfoSpecifyTnlIp(void *pTlv);    /* tunnel 3, 4 */
MBUF_API void MBUF_SNDPKT_L2mcBCastByteOrderTrans(void *pTlv); /* no-path 1 */
MBUF_API void MBUF_SNDPKT_L3mcBCastByteOrderTrans(void *pTlv); /* no-path 2 */

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_BYTEORDER_H */
