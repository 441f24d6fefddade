// The pipe, message and trace services of a host on which no pipe has been
// opened: every write and read is refused with the service's "not opened"
// code and the writer keeps its buffers. Messages are pipe buffers that can
// be allocated and freed but go nowhere.
#include <cstdint>

#include "krm_mbuf/platform.h"

namespace {
constexpr std::uint32_t kNotOpened = 0x224C1110u;
}

extern "C" {

uint32_t KRM_PipeIovecWrite(uint32_t, uint32_t, MBUF_IOVEC_S *) {
    return kNotOpened;
}
uint32_t KRM_PipeIovecPrioWrite(uint32_t, uint32_t, MBUF_IOVEC_S *) {
    return kNotOpened;
}
uint32_t TQM_PipeUrgentIovecWrite(uint32_t, uint32_t, MBUF_IOVEC_S *) {
    return kNotOpened;
}
uint32_t TQM_PipeIovecNoFreeWrite(uint32_t, uint32_t, MBUF_IOVEC_S *) {
    return kNotOpened;
}
uint32_t KRM_PipeWriteIovecIntra(uint32_t, uint32_t, MBUF_TRANS_DESC_S *) {
    return kNotOpened;
}
uint32_t KRM_PipeTokenAlloc(uint32_t, uint32_t *) {
    return kNotOpened;
}
uint32_t KRM_PipePackageRead(uint32_t, uint32_t *, MBUF_TRANS_DESC_S *, uint32_t *, uint32_t *) {
    return kNotOpened;
}

void *KRM_MsgAlloc_F(uint32_t ulModuleId, uint32_t ulSize, const char *pcFileName,
                     uint32_t ulLine) {
    MBUF_IOVEC_S stPiece{nullptr, ulSize, 0};
    return KRM_DbufIovecAlloc_F(ulModuleId, 1, &stPiece, pcFileName, ulLine) == 0 ? stPiece.pBuf
                                                                                  : nullptr;
}
uint32_t KRM_SEND_MSG(uint32_t, uint32_t, uint32_t, void *, uint32_t) {
    return kNotOpened;
}
uint32_t TQM_MsgFree(uint32_t, void *pMsg) {
    MBUF_IOVEC_S stPiece{pMsg, 0, 0};
    return KRM_DbufIovecFree_F(1, &stPiece, "TQM_MsgFree", 0);
}
uint32_t TQM_MsgLenGet(const void *pMsg) {
    return KRM_DbufLengthGET(pMsg);
}
uint32_t TQM_KRM_MSG_GET_INTF(const void *) {
    return 0;
}
uint32_t TQM_KRM_MSG_GET_SUB_INTF(const void *) {
    return 0;
}

uint32_t KRM_AddTraceInfecPoint_Pipe(uint32_t, MBUF_TRANS_DESC_S *, uint32_t, uint32_t, uint32_t,
                                     uint32_t) {
    return kNotOpened;
}
uint32_t TQM_PIPE_TRACEFLAG_GET(uint32_t, MBUF_IOVEC_S *, uint32_t *) {
    return kNotOpened;
}
uint32_t TQM_PIPE_TRACEFLAG_SET(uint32_t, MBUF_IOVEC_S *, uint32_t *) {
    return kNotOpened;
}
}
