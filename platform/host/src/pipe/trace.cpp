// The packet-trace service: the trace point records how it was called, and
// the trace id of a packet lives in the hidden header of its buffers, where
// the pipe carries it along to the reader's copies.
#include <mutex>
#include <vector>

#include "../host_internal.h"
#include "pipe_internal.h"

namespace krm::host::pipe {

namespace {

// Bounded like the report list, so that a runaway caller cannot exhaust
// memory; later calls are counted but not kept.
constexpr std::size_t kMaxCalls = 100000;

struct TraceLog {
    std::mutex mu;
    std::vector<KRM_HOST_TRACE_CALL_S> calls;
    std::uint32_t count = 0;
};

TraceLog &Log() {
    static TraceLog log;
    return log;
}

bool AllLive(std::uint32_t num, const MBUF_IOVEC_S *pieces) {
    if (num == 0 || pieces == nullptr) {
        return false;
    }
    for (std::uint32_t i = 0; i < num; ++i) {
        KRM_HOST_BUF_INFO_S info;
        if (!LookupLive(pieces[i].pBuf, &info) || info.ulKind != KRM_HOST_BUF_DBUF) {
            return false;
        }
    }
    return true;
}

}  // namespace

void ResetTrace() {
    TraceLog &log = Log();
    const std::lock_guard<std::mutex> lock(log.mu);
    log.calls.clear();
    log.count = 0;
}

}  // namespace krm::host::pipe

namespace hp = krm::host::pipe;

extern "C" {

uint32_t KRM_AddTraceInfecPoint_Pipe(uint32_t ulArg1, MBUF_TRANS_DESC_S *pstDesc, uint32_t ulArg2,
                                     uint32_t ulArg3, uint32_t ulArg4, uint32_t ulArg5) {
    const KRM_HOST_TRACE_CALL_S call{ulArg1,
                                     pstDesc != nullptr ? pstDesc->ulNum : 0,
                                     pstDesc != nullptr ? pstDesc->pstIovec : nullptr,
                                     ulArg2,
                                     ulArg3,
                                     ulArg4,
                                     ulArg5};
    hp::TraceLog &log = hp::Log();
    const std::lock_guard<std::mutex> lock(log.mu);
    ++log.count;
    try {
        if (log.calls.size() < hp::kMaxCalls) {
            log.calls.push_back(call);
        }
    } catch (...) {
        return 1;
    }
    return 0;
}

uint32_t TQM_PIPE_TRACEFLAG_GET(uint32_t ulNum, MBUF_IOVEC_S *pstPieces, uint32_t *pulTraceId) {
    KRM_HOST_BUF_INFO_S info;
    if (ulNum == 0 || pstPieces == nullptr || pulTraceId == nullptr ||
        !krm::host::LookupLive(pstPieces[0].pBuf, &info) || info.ulKind != KRM_HOST_BUF_DBUF) {
        return 1;
    }
    *pulTraceId = info.ulTraceId;
    return 0;
}

uint32_t TQM_PIPE_TRACEFLAG_SET(uint32_t ulNum, MBUF_IOVEC_S *pstPieces, uint32_t *pulTraceId) {
    if (pulTraceId == nullptr || !hp::AllLive(ulNum, pstPieces)) {
        return 1;
    }
    for (uint32_t i = 0; i < ulNum; ++i) {
        (void)krm::host::SetTraceId(pstPieces[i].pBuf, krm::host::BufKind::kDbuf, *pulTraceId);
    }
    return 0;
}

uint32_t KRM_HOST_TraceCallCount(void) {
    hp::TraceLog &log = hp::Log();
    const std::lock_guard<std::mutex> lock(log.mu);
    return log.count;
}

uint32_t KRM_HOST_TraceCallGet(uint32_t ulIndex, KRM_HOST_TRACE_CALL_S *pstCall) {
    hp::TraceLog &log = hp::Log();
    const std::lock_guard<std::mutex> lock(log.mu);
    if (pstCall == nullptr || ulIndex >= log.calls.size()) {
        return 1;
    }
    *pstCall = log.calls[ulIndex];
    return 0;
}

}  // extern "C"
