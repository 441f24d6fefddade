// The drop-reason and error-code texts, row for row. Indexed tables are read
// by code; the searched tables hold (code, text) rows in their historical
// order, which is kept because a lookup lets the later of two equal codes win.
// Texts are kept exactly as tools and operators know them, spelling and
// trailing blanks included.
#include "krm_mbuf/mbuf.h"

extern "C" {

constexpr const char *const g_apcPadsPathEntryStatus[] = {"PATH REASON OK", "WAIT", "INNER ERROR",
                                                          "NO", "BUTT"};

constexpr const char *const g_apcPadsPathEntryList[] = {
    "TABLE_BEGIN",                /* 0 */
    "ROUTE",                      /* 1 */
    "IF_INFO",                    /* 2 */
    "ARP",                        /* 3 */
    "SRC_IP",                     /* 4 */
    "IF_TYPE",                    /* 5 */
    "FWIF_INFO",                  /* 6 */
    "MFIB",                       /* 7 */
    "LDP_NHLFE",                  /* 8 */
    "LDP_NHLFE_FEC",              /* 9 */
    "RSVP_NHLFE",                 /* 10 */
    "BGP_NHLFE",                  /* 11 */
    "BGP_NHLFE_FEC",              /* 12 */
    "TE_TUNNEL",                  /* 13 */
    "ROUTE6",                     /* 14 */
    "ND",                         /* 15 */
    "SRC_IP6",                    /* 16 */
    "MFIB6",                      /* 17 */
    "PATHMTU",                    /* 18 */
    "TNL_FWIF",                   /* 19 */
    "TRUNK",                      /* 20 */
    "MTU4",                       /* 21 */
    "MTU6",                       /* 22 */
    "IID4",                       /* 23 */
    "IFNODE",                     /* 24 */
    "LDP6_NHLFE",                 /* 25 */
    "LDP6_NHLFE_FEC",             /* 26 */
    "L2VPN_VLL_PW",               /* 27 */
    "L2VPN_VPLS_PW",              /* 28 */
    "L2VPN_IID",                  /* 29 */
    "LSRID",                      /* 30 */
    "PID_MAP",                    /* 31 */
    "SUBIF_MAINIF",               /* 32 */
    "IF_STACK",                   /* 33 */
    "IF_GROUP ",                  /* 34 */
    "VLAN_NODEID",                /* 35 */
    "VLAN_MAC",                   /* 36 */
    "VLAN_BYVLANIF",              /* 37 */
    "VLAN_BITMAP",                /* 38 */
    "TRILL_FORWARD",              /* 39 */
    "LOCAL_NICKNAME",             /* 40 */
    "PORT_LIST",                  /* 41 */
    "VEMEMBER",                   /* 42 */
    "VSI_NODEID",                 /* 43 */
    "VSI_PORTLIST",               /* 44 */
    "VSI_MAC",                    /* 45 */
    "P2MP_NHLFE",                 /* 46 */
    "HW_PKT_CLONE",               /* 47 */
    "VSI_PW",                     /* 48 */
    "VLAN_TYPE",                  /* 49 */
    "PORTGRP_NODEID_ENTRY",       /* 50 */
    "PORTGRP",                    /* 51 */
    "LMIFACTIVE_ENTRY",           /* 52 */
    "VLMIF_ENTRY",                /* 53 */
    "SUBIF_ENTRY",                /* 54 */
    "FVRF",                       /* 55 */
    "MFIB4_PDTINFO",              /* 56 */
    "DCN_SERIALINFO_ENTRY",       /* 57 */
    "DCN_NHLFE_ENTRY",            /* 58 */
    "MVLAN_PORTLIST_ENTRY",       /* 59 */
    "L2VPN_VLL_VPW",              /* 60 */
    "VS_PORTGROUP",               /* 61 */
    "GRE_TABLE",                  /* 62 */
    "MAC_FWD",                    /* 63 */
    "BIDIR MFIB",                 /* 64 */
    "VLAN IFSET",                 /* 65 */
    "DCNMODE",                    /* 66 */
    "RING LSP TBL",               /* 67 */
    "MPLS RING TBL",              /* 68 */
    "TE GRP",                     /* 69 */
    "OSNODE PID",                 /* 70 */
    "PROTO MTU",                  /* 71 */
    "BDID_BYBDIF",                /* 72 */
    "BDIF_BYBDID",                /* 73 */
    "BDID_PORTGROUP",             /* 74 */
    "PDT_BD_RES",                 /* 75 */
    "L2VPN_PWTAG",                /* 76 */
    "L2MC_PDT_BD_RES",            /* 77 */
    "BIDIRMFIB6",                 /* 78 */
    "LAG TBL",                    /* 79 */
    "PORT LINK STATE",            /* 80 */
    "NLB MAC",                    /* 81 */
    "PORTLIST6",                  /* 82 */
    "VSI MAC LEARN",              /* 83 */
    "BDTRUNKIF_BYBDID",           /* 84 */
    "TRUNKINFO",                  /* 85 */
    "TABLE DSCP",                 /* 86 */
    "P2MP RSVP MID",              /* 87 */
    "P2MP MLDP MID",              /* 88 */
    "VR2TNLTYPE",                 /* 89 */
    "IP2TNLID",                   /* 90 */
    "VLAN2VNI",                   /* 91 */
    "QX COMP",                    /* 92 */
    "SMA PORT MODE",              /* 93 */
    "SMA TAG",                    /* 94 */
    "ECMP GRP",                   /* 95 */
    "RM_SERVICE",                 /* 96 */
    "TRKSRI CPOSTRK",             /* 97 */
    "CPOS TRUNK",                 /* 98 */
    "HW_CFG",                     /* 99 */
    "GMPLS UNI WORKIF",           /* 100 */
    "HOST2IP",                    /* 101 */
    "IF_PROCTLENABLE",            /* 102 */
    "USER TRUNK INFO",            /* 103 */
    "USER BASIC INFO",            /* 104 */
    "USER IPV4 INFO",             /* 105 */
    "USER IPV6 INFO",             /* 106 */
    "NVETYPE INFO",               /* 107 */
    "INTF_PDT_RES",               /* 108 */
    "USER INTF INFO",             /* 109 */
    "PWIF_PORTGROUP",             /* 110 */
    "USER_TYPE",                  /* 111 */
    "VCPE_USER_INFO",             /* 112 */
    "BAK_PW_COPY_INFO",           /* 113 */
    "USER_GLOBAL_INFO",           /* 114 */
    "SR_TE_LABLESTACK",           /* 115 */
    "P2MP TE TUNNEL",             /* 116 */
    "VLANMAC2USERCID",            /* 117 */
    "BRAS_LNS_INFO",              /* 118 */
    "GRE_PRTGRP",                 /* 119 */
    "ATM PVC",                    /* 120 */
    "TE_PRIORITY",                /* 121 */
    "TE_PRIORITY_BY_IFINDEX",     /* 122 */
    "PATH_LIMIT",                 /* 123 */
    "VLL_INVCLABLE",              /* 124 */
    "IPv6 VSI_PORTLIST",          /* 125 */
    "VP_MAPPING",                 /* 126 */
    "BD_PORTLIST",                /* 127 */
    "IP2HOST",                    /* 128 */
    "VXLAN6_EXT",                 /* 129 */
    "GATEWAY",                    /* 130 */
    "SRADJ_NHLFE",                /* 131 */
    "SIDSTACK",                   /* 132 */
    "SRV6_PORTINFO",              /* 133 */
    "IID6",                       /* 134 */
    "SRV6_PORTGROUP",             /* 135 */
    "VSTM_MACIIDGNODE",           /* 136 */
    "EVPN_PDT_RES",               /* 137 */
    "HOST2MIP",                   /* 138 */
    "TNL_SPLIT_MAP",              /* 139 */
    "TE_ROUTEID6",                /* 140 */
    "RQTUN_PDT_INFO",             /* 141 */
    "SRBE_RLFA_LABELSTACK",       /* 142 */
    "L2TP_PORTGROUP",             /* 143 */
    "QUERY_TABLE_FLEXE_APS_INFO", /* 144 */
    "SRV6BE_SRC",                 /* 145 */
    "VMTNL_MAP_LABEL",            /* 146 */
    "VXLAN_BIND_IF",              /* 147 */
    "BRAS_RBP_INFO",              /* 148 */
    "BGP6_NHLFE",                 /* 149 */
    "SEGR_COMMON ENTRY",          /* 150 */
    "SR_POLICY_GROUP ENTRY",      /* 151 */
    "SRTE_CANDI ENTRY",           /* 152 */
    "SRTE_POLICY ENTRY",          /* 153 */
    "SRTE_NHLFE ENTRY",           /* 154 */
    "IIDGNODE6 ENTRY",            /* 155 */
    "SRV6TE POLICY",              /* 156 */
    "SRV6TE SIDSTACK",            /* 157 */
    "MPLS6_SRBE_RLFA_LABELSTACK", /* 158 */
    "MPLS6_SRTE_NHLFE ENTRY",     /* 159 */
    "SRV6TE_BINDSID ENTRY",       /* 160 */
    "SRV6TE_COMMCFG ENTRY",       /* 161 */
    "GATEWAYIPV6 ENTRY",          /* 162 */
    "IP6_SLICE ENTRY",            /* 163 */
    "SRV6TE_FLOWGROUP ENTRY",     /* 164 */
    "SRV6 BE SLICEMAP ENTRY",     /* 165 */
    "FGCLIENT ENTRY",             /* 166 */
    "SRV6 EVPL ENTRY",            /* 167 */
    "SRV6 SPR GROUP ENTRY",       /* 168 */
    "IF DMAC",                    /* 169 */
    "BUTT",                       /* 170 */
};

constexpr const char *const g_apcPadsSockMbufDrop[] = {
    "OK",                       /* 0 */
    "ICMP6 Error",              /* 1 */
    "ICMP6 Input",              /* 2 */
    "ICMP6 Input",              /* 3 */
    "ICMP6 Input",              /* 4 */
    "Rawip6 Input",             /* 5 */
    "Rawip6 Input",             /* 6 */
    "Rawip6 Input",             /* 7 */
    "Rawip6 Input",             /* 8 */
    "Rawip6 Input",             /* 9 */
    "Rawip6 Input",             /* 10 */
    "Rawip6 Input",             /* 11 */
    "Rawip6 Input",             /* 12 */
    "Rawip6 Input",             /* 13 */
    "Rawip6 Input",             /* 14 */
    "Rawip6 Input",             /* 15 */
    "Rawip6 Output",            /* 16 */
    "IPv6 Check",               /* 17 */
    "IPv6 Check",               /* 18 */
    "IPv6 Check",               /* 19 */
    "IPv6 Input",               /* 20 */
    "IPv6 Input",               /* 21 */
    "IPv6 Input",               /* 22 */
    "IPv6 Input",               /* 23 */
    "IPv6 Opt",                 /* 24 */
    "IPv6 Opt",                 /* 25 */
    "IPv6 Opt",                 /* 26 */
    "IPv6 Opt",                 /* 27 */
    "IPv6",                     /* 28 */
    "IPv6",                     /* 29 */
    "IPv6 Mtu",                 /* 30 */
    "IPv6 Output",              /* 31 */
    "IPv6 Output",              /* 32 */
    "IPv6 Output",              /* 33 */
    "IPv6 Output",              /* 34 */
    "IPv6 Output",              /* 35 */
    "IPv6",                     /* 36 */
    "IPv6",                     /* 37 */
    "IPv6 Output",              /* 38 */
    "IPv6 Output",              /* 39 */
    "IPv6 Output",              /* 40 */
    "IPv6",                     /* 41 */
    "ICMP",                     /* 42 */
    "ICMP Input",               /* 43 */
    "ICMP Reflect",             /* 44 */
    "IP Output",                /* 45 */
    "IP Output",                /* 46 */
    "Rawip",                    /* 47 */
    "Rawip",                    /* 48 */
    "Rawip",                    /* 49 */
    "Rawip Input",              /* 50 */
    "Rawip Output",             /* 51 */
    "Rawip Output",             /* 52 */
    "Rawip Output",             /* 53 */
    "Rawip Output",             /* 54 */
    "Rawip Output",             /* 55 */
    "Rawip6 Input",             /* 56 */
    "Rawip6 Input",             /* 57 */
    "Rawip6 Input",             /* 58 */
    "Rawip6 Input",             /* 59 */
    "Rawip6 Input",             /* 60 */
    "Rawip6 Input",             /* 61 */
    "Rawip6 Output",            /* 62 */
    "Rawip6 Output",            /* 63 */
    "Rawip6 Output",            /* 64 */
    "Rawip6 Output",            /* 65 */
    "Rawip6 Output",            /* 66 */
    "Rawip6 Output",            /* 67 */
    "RawLink",                  /* 68 */
    "RawLink Input",            /* 69 */
    "RawLink Input",            /* 70 */
    "RawLink Input",            /* 71 */
    "RawLink Output",           /* 72 */
    "RawLink Output",           /* 73 */
    "RawLink Output",           /* 74 */
    "RawLink Output",           /* 75 */
    "Tcp Input",                /* 76 */
    "Tcp Input",                /* 77 */
    "Tcp Segment",              /* 78 */
    "Tcp Segment",              /* 79 */
    "Tcp Segment",              /* 80 */
    "Tcp Segment",              /* 81 */
    "Tcp Segment",              /* 82 */
    "Tcp Segment",              /* 83 */
    "Tcp Input",                /* 84 */
    "Other Reason",             /* 85 */
    "Tcp",                      /* 86 */
    "Tcp",                      /* 87 */
    "Tcp Recv Duplicate Data",  /* 88 */
    "Tcp",                      /* 89 */
    "Tcp",                      /* 90 */
    "Tcp",                      /* 91 */
    "Tcp",                      /* 92 */
    "Tcp",                      /* 93 */
    "Tcp",                      /* 94 */
    "Tcp Respond",              /* 95 */
    "Tcp",                      /* 96 */
    "Tcp",                      /* 97 */
    "Tcp SynCache",             /* 98 */
    "Tcp SynCache",             /* 99 */
    "Tcp",                      /* 100 */
    "Tcp Respond",              /* 101 */
    "Tcp Output",               /* 102 */
    "Tcp Output",               /* 103 */
    "Tcp Output",               /* 104 */
    "Tcp Output",               /* 105 */
    "Tcp Output",               /* 106 */
    "Tcp Output",               /* 107 */
    "Udp6",                     /* 108 */
    "Udp6",                     /* 109 */
    "Udp6 Input",               /* 110 */
    "Udp6 Input",               /* 111 */
    "Udp6 Output",              /* 112 */
    "Udp6 Output",              /* 113 */
    "Udp6 Output",              /* 114 */
    "Udp",                      /* 115 */
    "Udp",                      /* 116 */
    "Udp Input",                /* 117 */
    "Udp Input",                /* 118 */
    "Udp Output",               /* 119 */
    "Udp Output",               /* 120 */
    "Udp Output",               /* 121 */
    "Udp Output",               /* 122 */
    "Udp Output",               /* 123 */
    "Udp Output",               /* 124 */
    "Udp Output",               /* 125 */
    "IP",                       /* 126 */
    "SendMbuf",                 /* 127 */
    "SendMbuf",                 /* 128 */
    "Tcp Auth",                 /* 129 */
    "Tcp Input",                /* 130 */
    "Tcp Input",                /* 131 */
    "Tcp Input",                /* 132 */
    "Tcp Input",                /* 133 */
    "Tcp Input",                /* 134 */
    "Tcp Input",                /* 135 */
    "Tcp Input",                /* 136 */
    "Tcp Input",                /* 137 */
    "Tcp Input",                /* 138 */
    "Tcp Input",                /* 139 */
    "IP",                       /* 140 */
    "IP",                       /* 141 */
    "IP Input",                 /* 142 */
    "IP Input Mbuf Null",       /* 143 */
    "Opt Input Error",          /* 144 */
    "Opt Buffer Not Enough",    /* 145 */
    "Opt Buffer Not Enough",    /* 146 */
    "Opt Copy Error",           /* 147 */
    "Opt Copy Error",           /* 148 */
    "Opt Buffer Not Enough",    /* 149 */
    "Rawip6 Input",             /* 150 */
    "Tcp Input",                /* 151 */
    "Tcp Segment",              /* 152 */
    "Tcp Respond",              /* 153 */
    "No Comm Info",             /* 154 */
    "No Ipv6 Tag",              /* 155 */
    "Get Ipid Error",           /* 156 */
    "No Ipv6 Header",           /* 157 */
    "Get Path Error",           /* 158 */
    "Path Invalid",             /* 159 */
    "Get Path-Segm Error",      /* 160 */
    "Unknow Path Tlv Type",     /* 161 */
    "Copy Mbuf Error",          /* 162 */
    "Path Invalid",             /* 163 */
    "Socket Can Not SendPkt",   /* 164 */
    "Socket Stae Invalid",      /* 165 */
    "Unknown Socket Type",      /* 166 */
    "Apply Path Error",         /* 167 */
    "Get Path Error",           /* 168 */
    "No Ip Tag",                /* 169 */
    "Apply Path Error",         /* 170 */
    "Cache Pkt Too Much",       /* 171 */
    "Path Invalid",             /* 172 */
    "No Lsp Info",              /* 173 */
    "No Ip Tag",                /* 174 */
    "Apply Path Error",         /* 175 */
    "Cache Pkt Too Much",       /* 176 */
    "Path Invalid",             /* 177 */
    "Apply Path Error",         /* 178 */
    "Cache Pkt Too Much",       /* 179 */
    "Path Invalid",             /* 180 */
    "No IP Info",               /* 181 */
    "Apply Path Error",         /* 182 */
    "Cache Pkt Too Much",       /* 183 */
    "Path Invalid",             /* 184 */
    "Apply Path Error",         /* 185 */
    "Cache Pkt Too Much",       /* 186 */
    "Path Invalid",             /* 187 */
    "No Ipv6 Tag",              /* 188 */
    "Apply Path Error",         /* 189 */
    "Cache Pkt Too Much",       /* 190 */
    "Path Invalid",             /* 191 */
    "No Ipv6 Tag",              /* 192 */
    "Apply Path Error",         /* 193 */
    "Cache Pkt Too Much",       /* 194 */
    "Path Invalid",             /* 195 */
    "No Ipv6 Tag",              /* 196 */
    "Apply Path Error",         /* 197 */
    "Cache Pkt Too Much",       /* 198 */
    "Path Invalid",             /* 199 */
    "No Ipv6 Tag",              /* 200 */
    "Apply Path Error",         /* 201 */
    "Cache Pkt Too Much",       /* 202 */
    "Path Invalid",             /* 203 */
    "No Mpls Info",             /* 204 */
    "No Ipv6 Tag",              /* 205 */
    "Apply Path Error",         /* 206 */
    "Cache Pkt Too Much",       /* 207 */
    "Path Invalid",             /* 208 */
    "No Ipv6 Tag",              /* 209 */
    "Dest Addr All Zero",       /* 210 */
    "No Ipv6 Tag",              /* 211 */
    "No Ip Tag",                /* 212 */
    "Dest Addr All Zero",       /* 213 */
    "No Ip Tag",                /* 214 */
    "Tcp SendBuf Full",         /* 215 */
    "Not Exist Socketid",       /* 216 */
    "No Comm Info",             /* 217 */
    "Not Exist Socketid",       /* 218 */
    "No Common Info",           /* 219 */
    "Path Invalid",             /* 220 */
    "No Common Info",           /* 221 */
    "No Ip Header",             /* 222 */
    "Get Ipid Error",           /* 223 */
    "No Ip Info",               /* 224 */
    "No Udp Header",            /* 225 */
    "No Ip Header",             /* 226 */
    "Get Path-Segm Error",      /* 227 */
    "Path Invalid",             /* 228 */
    "Get Path-Segm Error",      /* 229 */
    "Not Exist SocketId",       /* 230 */
    "Ip Source Addr All Zero",  /* 231 */
    "No Dest Addr",             /* 232 */
    "Add Pkt Header Error",     /* 233 */
    "Mbuf Length Is Zero",      /* 234 */
    "No Common Info",           /* 235 */
    "Socket Deattached",        /* 236 */
    "Socket State Invalid",     /* 237 */
    "No Common Info",           /* 238 */
    "Add Kc Error",             /* 239 */
    "KeyChain Auth Error",      /* 240 */
    "Mbuf Copy Error",          /* 241 */
    "SendMbuf Error",           /* 242 */
    "Alloc Mem Error",          /* 243 */
    "Not Exist SocketId",       /* 244 */
    "Not Exist SocketId",       /* 245 */
    "Not Exist SocketId",       /* 246 */
    "Sock State Invalid",       /* 247 */
    "Not Exist SocketId",       /* 248 */
    "App Unregistered",         /* 249 */
    "Sock State Invalid",       /* 250 */
    "Not Exist SocketId",       /* 251 */
    "Listen Recv Data",         /* 252 */
    "Not Exist SocketId",       /* 253 */
    "Sock State Invalid",       /* 254 */
    "Not Exist SocketId",       /* 255 */
    "CreateSock Error",         /* 256 */
    "HA Role Error",            /* 257 */
    "Error Notify Msg",         /* 258 */
    "State In BD Sync",         /* 259 */
    "Mbuf Copy Error",          /* 260 */
    "Sock State Error",         /* 261 */
    "Sock State Error",         /* 262 */
    "No Comm Info",             /* 263 */
    "Sock State Error",         /* 264 */
    "Listen Recv Data",         /* 265 */
    "No Rst Token",             /* 266 */
    "App Close Wrong Pkt",      /* 267 */
    "ServiceId Not Exist",      /* 268 */
    "Not Exist SndCb",          /* 269 */
    "Pipe State Invalid",       /* 270 */
    "BlackHole Pkt",            /* 271 */
    "MD5 Auth Failed",          /* 272 */
    "IP",                       /* 273 */
    "Not Exist SocketId",       /* 274 */
    "Input Param Error",        /* 275 */
    "Input Param Error",        /* 276 */
    "Input Param Error",        /* 277 */
    "Input Param Error",        /* 278 */
    "Input Param Error",        /* 279 */
    "Input Param Error",        /* 280 */
    "Input Param Error",        /* 281 */
    "Input Param Error",        /* 282 */
    "Input Param Error",        /* 283 */
    "Input Param Error",        /* 284 */
    "Input Param Error",        /* 285 */
    "Pipe State Invalid",       /* 286 */
    "BlackHole Pkt",            /* 287 */
    "Other Reason",             /* 288 */
    "Token Alloc Error",        /* 289 */
    "Not Exist PipeId",         /* 290 */
    "Token Alloc Error",        /* 291 */
    "Mbuf Send Error",          /* 292 */
    "No Token",                 /* 293 */
    "No Token",                 /* 294 */
    "Socket State Invalid",     /* 295 */
    "IP Output",                /* 296 */
    "IP Output",                /* 297 */
    "SynCache Error",           /* 298 */
    "Listen Send Data",         /* 299 */
    "No Common Info",           /* 300 */
    "Socket Closing",           /* 301 */
    "App Can Not Recv Pkt",     /* 302 */
    "Source Port Zero",         /* 303 */
    "No VlanMac Info",          /* 304 */
    "Backup Recv Pkt",          /* 305 */
    "Not Exist SocketId",       /* 306 */
    "Get Path-Segm Error",      /* 307 */
    "Mbuf Copy Error",          /* 308 */
    "No IP Tag",                /* 309 */
    "No VlanMac Info",          /* 310 */
    "Pipe Not Exist",           /* 311 */
    "No PortList Info",         /* 312 */
    "No TrillOAM Info",         /* 313 */
    "Wrong Tag",                /* 314 */
    "Input Param Error",        /* 315 */
    "Path Not Exist",           /* 316 */
    "Path Invalid",             /* 317 */
    "No IP Info",               /* 318 */
    "No IP Info",               /* 319 */
    "No VsiMac Info",           /* 320 */
    "Apply Path Error",         /* 321 */
    "Cache Pkt Overflow",       /* 322 */
    "Path Invalid",             /* 323 */
    "Other Reason",             /* 324 */
    "Other Reason",             /* 325 */
    "No IP Info",               /* 326 */
    "No VsiPortList Info",      /* 327 */
    "Path Not Exist",           /* 328 */
    "Path Invalid",             /* 329 */
    "Apply Path Error",         /* 330 */
    "Cache Type Error",         /* 331 */
    "Get Ldm Pid Error",        /* 332 */
    "SendPid Null",             /* 333 */
    "IFM Query Delete",         /* 334 */
    "Get Ldm Pid Error",        /* 335 */
    "Get Ldm Pid Error",        /* 336 */
    "Get Ldm Pid Error",        /* 337 */
    "Other Reason",             /* 338 */
    "Mbuf Copy Error",          /* 339 */
    "Other Reason",             /* 340 */
    "No VsiMac Flag",           /* 341 */
    "No CommIF Flag",           /* 342 */
    "Other Reason",             /* 343 */
    "Mbuf Fragment Error",      /* 344 */
    "No Interface Info",        /* 345 */
    "Path Invalid",             /* 346 */
    "File Family Error",        /* 347 */
    "MD5 Auth Failed",          /* 348 */
    "Path Invalid",             /* 349 */
    "Get Ldm Pid Error",        /* 350 */
    "No MPLS Info",             /* 351 */
    "Socket Delete",            /* 352 */
    "Input Param Error",        /* 353 */
    "No IP or IPv6 Info",       /* 354 */
    "Path Invalid",             /* 355 */
    "Cache Pkt Overflow",       /* 356 */
    "Path Apply Error",         /* 357 */
    "No IP Info",               /* 358 */
    "Path Not Exist",           /* 359 */
    "Path Invalid",             /* 360 */
    "TransNum Not Match",       /* 361 */
    "No PrevHop Info",          /* 362 */
    "No IP Info",               /* 363 */
    "Apply Path Error",         /* 364 */
    "Cache Pkt Overflow",       /* 365 */
    "Path Invalid",             /* 366 */
    "Backup Gone",              /* 367 */
    "No IPv6 Info",             /* 368 */
    "No PortList Info",         /* 369 */
    "Path Not Exist",           /* 370 */
    "Path Invalid",             /* 371 */
    "No IPv6 Info",             /* 372 */
    "Path Apply Error",         /* 373 */
    "Cache Pkt Overflow",       /* 374 */
    "Path Invalid",             /* 375 */
    "No IP Info",               /* 376 */
    "Path Apply Error",         /* 377 */
    "Cache Pkt Overflow",       /* 378 */
    "Path Invalid",             /* 379 */
    "No IPv6 Info",             /* 380 */
    "Path Apply Error",         /* 381 */
    "Cache Pkt Overflow",       /* 382 */
    "Path Invalid",             /* 383 */
    "Cache Pkt Overflow",       /* 384 */
    "SMA Error",                /* 385 */
    "No File",                  /* 386 */
    "No Comm Info",             /* 387 */
    "No Token",                 /* 388 */
    "No Token",                 /* 389 */
    "No Pipe",                  /* 390 */
    "Error Protocol",           /* 391 */
    "Inner Error",              /* 392 */
    "Inner Error",              /* 393 */
    "Path Apply Error",         /* 394 */
    "Cache Pkt Overflow",       /* 395 */
    "Path Invalid",             /* 396 */
    "Inner Error",              /* 397 */
    "Get Path-Segm Error",      /* 398 */
    "Inner Error",              /* 399 */
    "Receive syn",              /* 400 */
    "No Valid Forward",         /* 401 */
    "Fill Path Err",            /* 402 */
    "Too big input pkt len",    /* 403 */
    "TCP AO Auth",              /* 404 */
    "TCP snd space validate",   /* 405 */
    "TCP recv space validate",  /* 406 */
    "PortGroup not exist",      /* 407 */
    "Tcp Opt len error",        /* 408 */
    "Interface board defend",   /* 409 */
    "CPU defend",               /* 410 */
    "Rcv out bound data in BD", /* 411 */
    "Other Reason",             /* 412 */
    "Other Reason",             /* 413 */
    "Other Reason",             /* 414 */
    "Res Apply State Error",    /* 415 */
    "SSL State not data",       /* 416 */
    "SSL Write Callback Error", /* 417 */
    "SSL Read Error",           /* 418 */
    "SSL Write Error",          /* 419 */
    "Pkt too big",              /* 420 */
    "UpGrade Discard RST",      /* 421 */
    "Mbuf SSL IV Error",        /* 422 */
    "SSL Get WriteLen Error",   /* 423 */
    "SSL Mbuf Length too Long", /* 424 */
    "SSL GetIV Error",          /* 425 */
    "SSL Get IV Error",         /* 426 */
    "SSL Create AppInfo Error", /* 427 */
    "Tcp Duplicate",            /* 428 */
    "Bumper Duplicate",         /* 429 */
    "Bumper Overlap",           /* 430 */
    "Direct Send Drop",         /* 431 */
    "Other Reason",             /* 432 */
};

constexpr const MBUF_PADS_ERRCODE_S g_astPadsLdmErrorCode1[] = {
    {0x0, "OK"},
    {0x1, "No partner"},
    {0x2, "No useful pipe"},
    {0x3, "Invalid data"},
    {0x4, "Pipe not open"},
    {0x5, "Pipe invalid"},
    {0x10000, "Security check not success"},
    {0x10001, "Ma-defend check not success"},
    {0x10002, "Blacklist check not success"},
    {0x10003, "Gtsm check not success"},
    {0x10004, "Forward packet, no need process"},
    {0x10005, "Ping car drop"},
    {0x10006, "Auto-defend check not success"},
    {0x10007, "Ipsg filter packet"},
    {0x10008, "Adminif active not success"},
    {0x10009, "Dcn not enable"},
    {0x1000A, "Pipe high, discard low packet"},
    {0x1000B, "Pipe high, discard normal packet"},
    {0x1000C, "Pipe low, discard normal packet"},
    {0x1000D, "Ping echo car drop"},
    {0x1000E, "Drop tcp ttl packet"},
    {0x1000F, "Filewall check drop"},
    {0x10010, "Cpu overlod drop"},
    {0x10011, "Comm filewall check drop"},
    {0x10012, "Subnetbc car drop"},
    {0x10013, "Mpac check drop"},
    {0x10014, "Event car drop"},
    {0x10015, "Ipv6 err car drop"},
    {0x10016, "Ipv6 ping car drop"},
    {0x10017, "Fast ping car drop"},
    {0x10018, "Dfns discard packet"},
    {0x10019, "Forward car drop"},
    {0x1001A, "CPACL attacksrc drop"},
    {0x1001B, "Common ping stb car drop"},
    {0x20000, "No table"},
    {0x20001, "Pct is null"},
    {0x20002, "No path"},
    {0x20003, "Path type invail"},
    {0x20004, "No pim agent pid"},
    {0x20005, "No session parameter"},
    {0x20006, "No ilm table"},
    {0x20007, "No fvrf table"},
    {0x20008, "No pctext"},
    {0x20009, "No vlan"},
    {0x2000A, "No subvlan"},
    {0x2000B, "All pruneif"},
    {0x2000C, "No qinq"},
    {0x2000D, "Qinq not match"},
    {0x2000E, "Qinq out of range"},
    {0x2000F, "No fenode session"},
    {0x20010, "No vsi table"},
    {0x20011, "No vsi resource"},
    {0x20012, "trunkmem down"},
    {0x20013, "Dcn serial if null"},
    {0x20014, "No bd table"},
    {0x20015, "No tbtp"},
    {0x20016, "Tnltype not Match"},
    {0x20017, "Invail vxlan info"},
    {0x20018, "No ecap vlan mac"},
    {0x20019, "No mb arp"},
    {0x2001A, "No inet from p2mp"},
    {0x2001B, "No inet from gre"},
    {0x2001C, "No vr/vrf from product"},
    {0x2001D, "No vlan from vxlan"},
    {0x2001E, "No vlan send arp by oeoqmc"},
    {0x2001F, "No vlan send arp by qv"},
    {0x20020, "No vlan by oq"},
    {0x20021, "No vlan by vlanif"},
    {0x20022, "No vlan send arp by oeoqflowid"},
    {0x20023, "No vlan after softfwd"},
    {0x20024, "ATM save out range"},
    {0x20025, "ATM save no pct"},
    {0x20026, "No etree resource"},
    {0x20100, "No pct table"},
    {0x20101, "Pct para is null"},
    {0x20102, "No pct by fe mtunnel"},
    {0x20103, "No pct by fe trunkid"},
    {0x20104, "No pct by fe ifindex"},
    {0x20105, "No pct by fe sbsp"},
    {0x20106, "No pct by fe tbtp"},
    {0x20107, "No pct by fe channel"},
    {0x20108, "No pct from app"},
    {0x20109, "No pct by fe vlan"},
    {0x20500, "No session"},
    {0x20501, "No session para"},
    {0x20502, "No mbuf session"},
    {0x20503, "No group session"},
    {0x20504, "No ping session"},
    {0x20505, "No rawip session"},
    {0x20506, "No inet session"},
    {0x20507, "No ping6 session"},
    {0x20508, "No inet6 session"},
    {0x20509, "No isis session"},
    {0x2050A, "No eth session"},
    {0x2010A, "No pct max"},
    {0x2050B, "No session max"},
    {0x30000, "Fe invail"},
    {0x30001, "No ferx info"},
    {0x30002, "Event invail"},
    {0x30003, "Send packet not success"},
    {0x30004, "Rcv ipv6 multi from pw/ac not success"},
    {0x30005, "Mbuf event invail"},
    {0x30006, "Fe pkttype invail"},
};

constexpr const MBUF_PADS_ERRCODE_S g_astPadsLdmErrorCode2[] = {
    {0x40000, "Mbuf invail"},
    {0x40001, "Make continue not success"},
    {0x40002, "Get proto not success"},
    {0x40003, "Get comm not success"},
    {0x40004, "Mbuf clone fail"},
    {0x40005, "Create fe not success"},
    {0x40006, "Mtod invail"},
    {0x40007, "Mbuf cut not success"},
    {0x40008, "Get link not success"},
    {0x40009, "Prepend not success"},
    {0x4000A, "Frag invail"},
    {0x4000B, "Get ip not success"},
    {0x4000C, "Copy not success"},
    {0x4000D, "Get mpls not success"},
    {0x4000E, "Get hop not success"},
    {0x4000F, "Get fetx not success"},
    {0x40010, "Unknown link stack"},
    {0x40011, "Link stack no oe"},
    {0x40012, "Create appinfo not success"},
    {0x40013, "Get appinfo not success"},
    {0x40014, "Dcn label event invail"},
    {0x40015, "Dcn pppoe ppp length invail"},
    {0x40016, "Get oe not success"},
    {0x40017, "Ctrl copy num is 0"},
    {0x40018, "Dcn vlan invail"},
    {0x40019, "Ptn fix pvid invail"},
    {0x4001A, "Link ctrlcomm pkttype unknown"},
    {0x4001B, "Udp adminif 3503"},
    {0x4001C, "Gre mtu packet not success"},
    {0x4001D, "No ipv6"},
    {0x4001E, "No innereth offset"},
    {0x4001F, "Create policy not success"},
    {0x40020, "link stack no oa"},
    {0x50000, "Mpls invail"},
    {0x50001, "Mpls check not success"},
    {0x50002, "Que input not success"},
    {0x50003, "Ccw process fail"},
    {0x50004, "Set mbuf fail"},
    {0x50005, "Get ttlextend fail"},
    {0x50006, "Process pwe3 ttlextend fail"},
    {0x50007, "Pop fail"},
    {0x50008, "Get ctrlword fail"},
    {0x50009, "L2vpn invail"},
    {0x5000A, "Process flowlabel fail"},
    {0x60000, "packet invail"},
    {0x60001, "Link type invail"},
    {0x60002, "Ip type invail"},
    {0x60003, "Checksum invail"},
    {0x60004, "Verify packet not success"},
    {0x60005, "packet length invail"},
    {0x60006, "Frag invail"},
    {0x60007, "Opt invail"},
    {0x60008, "Ip version invail"},
    {0x60009, "Source ip invail"},
    {0x6000A, "Destination ip invail"},
    {0x6000B, "Mac invail"},
    {0x6000C, "No l2session"},
    {0x6000D, "Softfwd invail"},
    {0x6000E, "Softfwd discard"},
    {0x6000F, "No adminif module"},
    {0x60010, "No adminif ipv4"},
    {0x60011, "No adminif ipv6"},
    {0x60012, "No adminif if"},
    {0x60013, "No tpoam session"},
    {0x60014, "No fei soft func"},
    {0x60015, "Softfwd invalid action"},
    {0x60016, "Stamp no ipgmac"},
    {0x60017, "Ipv6 head invail"},
    {0x60018, "No l2 general session"},
    {0x60019, "No firewall module"},
    {0x6001A, "Icmp reply pkt testid is 0"},
    {0x6001B, "No host fib"},
    {0x6001C, "Tcp packet with subcast flag"},
    {0x6001D, "Ip6 ext slice header"},
    {0x603E9, "Icmp length invail"},
    {0x603EA, "Icmp type invail"},
    {0x603EB, "Ipv6 headlen invail"},
    {0x603EC, "isis pdu length <= 2"},
    {0x603ED, "isis pdu length>packet length"},
    {0x603EE, "isis clv < 2byte"},
    {0x603EF, "isis length mod2 not 0"},
    {0x603F0, "isis clv value less 2byte"},
    {0x80000, "Process packet invail"},
    {0x80001, "Process para invail"},
    {0x80002, "Process malloc not success"},
    {0x80003, "Encap link invail"},
    {0x80004, "Encap subif invail"},
    {0x80005, "Encap vlan invail"},
    {0x80006, "Encap no support"},
    {0x80007, "Qinq mbuf have free"},
    {0x80008, "Qinq time out"},
    {0x80009, "Encap vlan check not success"},
    {0x8000A, "Encap mpls label not success"},
    {0x8000B, "Soft prepare link not success"},
    {0x8000C, "Encap link tlv not success"},
    {0x8000D, "Encap last subtlv not success"},
    {0x8000E, "Encap pathlink not success"},
    {0x8000F, "Encap link proto not success"},
    {0x80010, "Encap com head not success"},
    {0x80011, "Softfwd fill txinfo not success"},
    {0x80012, "Vxlan analyse not success"},
    {0x80013, "Vxlan decap not success"},
    {0x80014, "L2vpn pwinfo mbuf length invail"},
    {0x80015, "Fcoe no l3sess"},
    {0x80016, "search 1156 fail"},
    {0x80017, "ATM save time out"},
    {0x80018, "ATM encape LLC err"},
    {0x80019, "ATM copy send fail"},
    {0x8001A, "ATM copy send ok,free raw mbuf"},
    {0x8001B, "Multiple mpls encap fail"},
    {0x8001C, "Packet DMAC not match if mac"},
    {0x8001D, "Tso send fail"},
    {0x8001E, "Send no token"},
    {0x8001F, "Proc over time"},
    {0x80101, "No app link info"},
    {0x80102, "No app link vsi"},
    {0x81000, "Applib process packet fail."},
    {0x90000, "Other drop"},
    {0x90001, "Prune normal drop"},
    {0x907D1, "Gmac opcode invail"},
    {0x907D2, "Dmac ethtype invail"},
    {0x907D3, "Ethtype invail"},
    {0x907D4, "Dcn pppoe if-type invail"},
    {0x907D5, "Dcn mode invail"},
    {0x907D6, "DC product session miss drop"},
    {0x907D7, "Update host flag not success"},
};

constexpr const MBUF_PADS_ERRCODE_S g_astPadsLlaErrorCode[] = {
    {0x0, "OK"},
    {0x1, "Local point error"},
    {0x10000, "No fes table"},
    {0x10001, "No pipe"},
    {0x10002, "No pipe token"},
    {0x10003, "No packet pipe token"},
    {0x10004, "No portgroup table"},
    {0x10005, "No vsi portgroup table"},
    {0x10006, "No path key"},
    {0x10007, "No cache node"},
    {0x10008, "No path"},
    {0x10009, "Path node add fail"},
    {0x1000A, "Pipe node add fail"},
    {0x1000B, "No link stack"},
    {0x1000C, "No vlan broadcast"},
    {0x1000D, "No l2port table"},
    {0x1000E, "Can not find available LDM"},
    {0x1000F, "No pct table"},
    {0x10010, "No pct table of physical interface"},
    {0x10011, "No pct table of dcn"},
    {0x10012, "No pct table of main interface"},
    {0x10013, "No pct table of member interface"},
    {0x10014, "No oe info"},
    {0x10015, "No pct table of ve interface"},
    {0x10016, "No pct table of trunk member if"},
    {0x10017, "No pct table of phy trunk member if"},
    {0x10018, "No table of vlan trunk member"},
    {0x10019, "No ov/oe info"},
    {0x1001A, "No ov/oe info of veif"},
    {0x1001B, "No ov/oe info of vlanif"},
    {0x1001C, "No ov/oe info of vlanif unicast"},
    {0x1001D, "No ov/oe info of vlanif broadcast"},
    {0x1001E, "No ov/oe info of sub interface"},
    {0x1001F, "No trill info"},
    {0x10020, "No pctext table"},
    {0x10021, "No pctext table of sub interface"},
    {0x10022, "No pctext table of phy interface"},
    {0x10023, "No pctext table of vlanif broadcast"},
    {0x10024, "Path reject"},
    {0x10025, "Path apply fail"},
    {0x10026, "Get next pid fail"},
    {0x10027, "Clone packet get pid fail"},
    {0x10028, "No bd portgroup table"},
    {0x10029, "No physical interface info"},
    {0x1002A, "No bd info"},
    {0x1002B, "No oe or ob info"},
    {0x1002C, "No ov or oq info"},
    {0x1002D, "No vr ldm"},
    {0x1002E, "No vr ldm pipe"},
    {0x20000, "Fail info"},
    {0x20001, "Get key fail"},
    {0x20002, "Ov2od fail"},
    {0x20003, "Set mbuf veif fail"},
    {0x20004, "Set mbuf subif info fail"},
    {0x20005, "Create mbuf control info fail"},
    {0x20006, "Set mbuf control info fail"},
    {0x20007, "Mbuf copy fail"},
    {0x20008, "Packet send fail"},
    {0x20009, "Set trill info fail"},
    {0x2000A, "Packet type invalid"},
    {0x2000B, "Port type match fail"},
    {0x2000C, "Mbuf creat link info fail"},
    {0x2000D, "Pwif fail"},
    {0x2000E, "PWVE fail"},
    {0x2000F, "Packet send fail by oduk if"},
    {0x30000, "Invalid"},
    {0x30001, "Invalid ifindex"},
    {0x30002, "Invalid path ifindex"},
    {0x30003, "Memory malloc fail"},
    {0x30004, "Path error"},
    {0x30005, "Invalid vlanif broadcast"},
    {0x30006, "Invalid vlan l2port"},
    {0x30007, "Invalid nick name"},
    {0x30008, "Invalid pipe type"},
    {0x30009, "Invalid tnl type"},
    {0x40000, "Path age"},
    {0x50000, "No supervlan"},
    {0x60000, "Unsorted error"},
    {0x60001, "No trunk member"},
    {0x60002, "Not valid trunk member info"},
    {0x60003, "Not valid node flag"},
    {0x70000, "Default error"},
};

}  // extern "C"

// The header's declared sizes are the rows written here: a row lost or added
// is a compile error, not a silently zero-filled tail.
static_assert(sizeof(g_apcPadsPathEntryStatus) / sizeof(g_apcPadsPathEntryStatus[0]) ==
              MBUF_PADS_PATH_STATUS_NUM);
static_assert(sizeof(g_apcPadsPathEntryList) / sizeof(g_apcPadsPathEntryList[0]) ==
              MBUF_PADS_PATH_ENTRY_NUM);
static_assert(sizeof(g_apcPadsSockMbufDrop) / sizeof(g_apcPadsSockMbufDrop[0]) ==
              MBUF_PADS_SOCK_DROP_NUM);
static_assert(sizeof(g_astPadsLdmErrorCode1) / sizeof(g_astPadsLdmErrorCode1[0]) ==
              MBUF_PADS_LDM_CODE1_NUM);
static_assert(sizeof(g_astPadsLdmErrorCode2) / sizeof(g_astPadsLdmErrorCode2[0]) ==
              MBUF_PADS_LDM_CODE2_NUM);
static_assert(sizeof(g_astPadsLlaErrorCode) / sizeof(g_astPadsLlaErrorCode[0]) ==
              MBUF_PADS_LLA_CODE_NUM);
