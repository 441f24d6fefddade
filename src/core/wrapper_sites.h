// The exported wrappers without the _fl suffix pass their own exported name
// as the caller's file name and a fixed line of their own, so a buffer left
// behind by a wrapper call is attributed to the wrapper. Each family defines
// its wrappers with the site listed here and nothing else.
#pragma once

#include <cstdint>

namespace krm {

struct WrapperSite {
    const char *pcName;
    std::uint32_t ulLine;
};

namespace wrap {
inline constexpr WrapperSite kCreateByCopyBuffer{"MBUF_CreateByCopyBuffer", 37};
inline constexpr WrapperSite kCreateForControlPacket{"MBUF_CreateForControlPacket", 43};
inline constexpr WrapperSite kDestroy{"MBUF_Destroy", 49};
inline constexpr WrapperSite kRawCopy{"MBUF_RawCopy", 55};
inline constexpr WrapperSite kConcatenate{"MBUF_Concatenate", 61};
inline constexpr WrapperSite kFragment{"MBUF_Fragment", 67};
inline constexpr WrapperSite kCutHead{"MBUF_CutHead", 73};
inline constexpr WrapperSite kCutPart{"MBUF_CutPart", 79};
inline constexpr WrapperSite kCutTail{"MBUF_CutTail", 85};
inline constexpr WrapperSite kAppendMemorySpace{"MBUF_AppendMemorySpace", 91};
inline constexpr WrapperSite kPrependMemorySpace{"MBUF_PrependMemorySpace", 97};
inline constexpr WrapperSite kMakeMemoryContinuous{"MBUF_MakeMemoryContinuous", 103};
inline constexpr WrapperSite kCreateControlInfo{"MBUF_CreateControlInfo", 110};
inline constexpr WrapperSite kSend{"MBUF_Send", 116};
inline constexpr WrapperSite kSendByFlag{"MBUF_SendByFlag", 123};
inline constexpr WrapperSite kTokenAlloc{"MBUF_TokenAlloc", 129};
inline constexpr WrapperSite kTokenAllocEx{"MBUF_TokenAllocEx", 135};
inline constexpr WrapperSite kMultiSend{"MBUF_MultiSend", 141};
inline constexpr WrapperSite kMultiRecv{"MBUF_MultiRecv", 148};
inline constexpr WrapperSite kSendMsg{"MBUF_SendMsg", 154};
inline constexpr WrapperSite kRecvMsg{"MBUF_RecvMsg", 160};
inline constexpr WrapperSite kCreateForAppPacket{"MBUF_CreateForAppPacket", 166};
inline constexpr WrapperSite kExtDataBlockAlloc{"MBUF_ExtDataBlockAlloc", 172};
inline constexpr WrapperSite kCreateByExtDataBlock{"MBUF_CreateByExtDataBlock", 178};
inline constexpr WrapperSite kSetTimeStampEx{"MBUF_SetTimeStampEx", 184};
inline constexpr WrapperSite kDeserialize{"MBUF_Deserialize", 190};
inline constexpr WrapperSite kSetTunnelKey{"MBUF_SetTunnelKey", 196};
inline constexpr WrapperSite kSendTrans{"MBUF_SendTrans", 202};
inline constexpr WrapperSite kRcvTrans{"MBUF_RcvTrans", 208};
inline constexpr WrapperSite kSetStackDebugInfo{"MBUF_SetStackDebugInfo", 214};
inline constexpr WrapperSite kSetStackDebugInfoSelf{"MBUF_SetStackDebugInfoSelf", 221};
inline constexpr WrapperSite kSetTlvInfo{"MBUF_SetTlvInfo", 227};
inline constexpr WrapperSite kSetStackDebugCtl{"MBUF_SetStackDebugCtl", 233};
inline constexpr WrapperSite kTransMbuf2Tlv{"MBUF_TransMbuf2Tlv", 239};
inline constexpr WrapperSite kTransTlv2Mbuf{"MBUF_TransTlv2Mbuf", 245};
inline constexpr WrapperSite kSetStackDebugForApp{"MBUF_SetStackDebugForApp", 251};
}  // namespace wrap

}  // namespace krm
