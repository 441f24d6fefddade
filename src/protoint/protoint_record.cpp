// Stamping and recording: the sender marks a packet as belonging to a
// session; each end records the packet in its half of the session, counts
// it, notices a break in the sequence and hands out the next sequence
// number. A gap asks the suppression clock whether the log may be printed.
#include "internal/bytes.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "protoint/protoint_internal.h"

namespace krm::protoint {

std::uint8_t *IdentityRecord(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return nullptr;
    }
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
    if (pucRec == nullptr || MBUF_GetControlLen(pstMbuf, MBUF_CTL_STACKDEBUG) < kIdRecordMin) {
        return nullptr;
    }
    return pucRec;
}

namespace {

constexpr std::uint32_t kNoHeaderOrRecord = 5;
constexpr std::uint32_t kMaxKind = 5;
constexpr std::uint32_t kGreenFlag3Bit = 2;
constexpr std::uint32_t kCreateIdInfoLine = 300;

// One row per record kind: record in the ring, advance the sequence,
// direction.
struct KindRow {
    std::uint32_t ulRing;
    std::uint32_t ulSeq;
    std::uint32_t ulDir;
};
constexpr KindRow kKinds[kMaxKind + 1] = {
    {1, 1, MBUF_PROTOINT_DIR_SND}, {1, 1, MBUF_PROTOINT_DIR_RCV}, {1, 0, MBUF_PROTOINT_DIR_SND},
    {1, 0, MBUF_PROTOINT_DIR_RCV}, {0, 1, MBUF_PROTOINT_DIR_SND}, {0, 1, MBUF_PROTOINT_DIR_RCV},
};

std::uint64_t TickNow() {
    BEX_CPUTICK_S stNow{};
    (void)BEX_GetCpuTick(&stNow);
    return (std::uint64_t{stNow.ulHigh} << 32) | stNow.ulLow;
}

// The half of the session a packet goes to and the triple it counts in.
struct Target {
    MBUF_PROTOINT_RING_S *pstRing;
    MBUF_PROTOINT_CNT_S *pstCnt;
    bool bGreen;
};

Target TargetOf(void *pHalf, std::uint32_t ulDir, MBUF_S *pstMbuf) {
    if (ulDir == MBUF_PROTOINT_DIR_SND) {
        auto *pstSnd = static_cast<MBUF_PROTOINT_SND_S *>(pHalf);
        return Target{&pstSnd->stRing, &pstSnd->stCnt, false};
    }
    auto *pstRcv = static_cast<MBUF_PROTOINT_RCV_S *>(pHalf);
    const bool bGreen = MBUF_TestFlag3(pstMbuf, kGreenFlag3Bit) == 1;
    return Target{&pstRcv->stRing,
                  &pstRcv->astCnt[bGreen ? MBUF_PROTOINT_CNT_GREEN : MBUF_PROTOINT_CNT_OTHER],
                  bGreen};
}

// Stores the packet at the ring's position and counts it; true when its
// sequence number does not follow the last one recorded.
bool RecordInRing(const Target &stT, std::uint32_t ulLen, std::uint32_t ulSeq) {
    MBUF_PROTOINT_RING_S &stRing = *stT.pstRing;
    // A position damaged by the owner is taken as the start of the ring.
    const std::uint32_t ulPos = stRing.ucPos < MBUF_PROTOINT_RING_LEN ? stRing.ucPos : 0;
    const std::uint64_t ullNow = TickNow();
    stRing.astTime[ulPos].ulLow = static_cast<std::uint32_t>(ullNow);
    stRing.astTime[ulPos].ulHigh = static_cast<std::uint32_t>(ullNow >> 32);
    stRing.ausLen[ulPos] = static_cast<std::uint16_t>((ulLen & MBUF_PROTOINT_LEN_MASK) |
                                                      (stT.bGreen ? MBUF_PROTOINT_GREEN_BIT : 0));
    stRing.ucLastGreen = stT.bGreen ? 1 : 0;
    const std::uint32_t ulLast = stT.pstCnt->ulLastSeq;
    const bool bGap = ulLast != 0 && ulLast != ulSeq - 1;
    stRing.ucGap = bGap ? 1 : 0;
    stRing.ucPos = static_cast<std::uint8_t>((ulPos + 1) % MBUF_PROTOINT_RING_LEN);
    stT.pstCnt->ulLastSeq = ulSeq;
    ++stT.pstCnt->ulCount;
    return bGap;
}

}  // namespace
}  // namespace krm::protoint

using namespace krm::protoint;

extern "C" {

MBUF_API void MBUF_PROTOINT_CalcType(uint32_t ulKind, uint32_t *pulRing, uint32_t *pulSeq,
                                     uint32_t *pulDir) {
    if (ulKind > kMaxKind || pulRing == nullptr || pulSeq == nullptr || pulDir == nullptr) {
        return;
    }
    *pulRing = kKinds[ulKind].ulRing;
    *pulSeq = kKinds[ulKind].ulSeq;
    *pulDir = kKinds[ulKind].ulDir;
}

MBUF_API uint32_t MBUF_PROTOINT_CreateIdInfo(MBUF_S *pstMbuf, uint32_t ulSessId, uint32_t ulArg3,
                                             uint32_t ulArg4, MBUF_PROTOINT_CTX_S *pstCtx) {
    (void)ulArg3;
    (void)ulArg4;
    if (pstMbuf == nullptr || pstCtx == nullptr) {
        return 1;
    }
    (void)MBUF_SetStackDebugInfo_fl(pstMbuf, pstCtx->ulLockMode, pstCtx->ulCompArg,
                                    "MBUF_PROTOINT_CreateIdInfo", kCreateIdInfoLine);
    std::uint8_t *pucRec = IdentityRecord(pstMbuf);
    if (pucRec == nullptr) {
        return kNoHeaderOrRecord;
    }
    krm::Store32At(pucRec, kIdSessOff, ulSessId);
    pucRec[kIdFlagOff] = static_cast<std::uint8_t>(pucRec[kIdFlagOff] | MBUF_PROTOINT_STAMP_FLAG);
    return 0;
}

MBUF_API uint32_t MBUF_PROTOINT_RecordPacket(MBUF_S *pstMbuf, uint32_t ulKind, uint32_t *pulSessId,
                                             MBUF_PROTOINT_CTX_S *pstCtx) {
    uint32_t ulDummy = 0;
    uint32_t &ulOut = pulSessId != nullptr ? *pulSessId : ulDummy;
    ulOut = 0;
    std::uint8_t *pucRec =
        ulKind <= kMaxKind && pstCtx != nullptr ? IdentityRecord(pstMbuf) : nullptr;
    if (pucRec == nullptr || (pucRec[kIdFlagOff] & MBUF_PROTOINT_STAMP_FLAG) == 0) {
        return 0;
    }
    const std::uint32_t ulSessId = krm::Load32At(pucRec, kIdSessOff);
    if (!IdInRange(ulSessId)) {
        return 0;
    }
    const KindRow &stKind = kKinds[ulKind];
    if (MBUF_PROTOINT_LockSess(ulSessId, stKind.ulDir, pstCtx) != kLockOk) {
        return 0;
    }
    void *pHalf = MBUF_PROTOINT_GetSess(ulSessId, stKind.ulDir, pstCtx);
    if (pHalf == nullptr) {
        (void)MBUF_PROTOINT_UnlockSess(ulSessId, stKind.ulDir, pstCtx);
        return 0;
    }
    ulOut = ulSessId;
    const Target stT = TargetOf(pHalf, stKind.ulDir, pstMbuf);
    bool bGap = false;
    if (stKind.ulRing != 0) {
        bGap = RecordInRing(stT, pstMbuf->ulTotalDataLen, krm::Load32At(pucRec, kIdSeqOff));
    }
    if (stKind.ulSeq != 0) {
        krm::Store32At(pucRec, kIdSeqOff, ++stT.pstCnt->ulSndSeq);
    }
    (void)MBUF_PROTOINT_UnlockSess(ulSessId, stKind.ulDir, pstCtx);
    return bGap ? MBUF_PROTOINT_RecordSuppress(pstMbuf, pstCtx) : 0;
}

// The window is measured back from now; a subtraction that would go below
// zero (a counter younger than the window) gives 0, so the first report
// always passes.
MBUF_API uint32_t MBUF_PROTOINT_RecordSuppress(MBUF_S *pstMbuf, MBUF_PROTOINT_CTX_S *pstCtx) {
    (void)pstMbuf;
    if (pstCtx == nullptr) {
        return 0;
    }
    const bool bLocking = LockingOn(pstCtx);
    if (bLocking) {
        if (pstCtx->ucInited != 1) {
            return 0;
        }
        const std::uint32_t ulRet = BEX_MutexLock(pstCtx->stLogMtx);
        if (ulRet != 0) {
            krm::Report(krm::kModKrmMbufProtoInt, 420, "REC SUPPRESS lock mtx err. ret = %u",
                        ulRet);
            return 0;
        }
    }
    BEX_CPUTICK_S stNow{};
    (void)BEX_GetCpuTick(&stNow);
    const BEX_CPUTICK_S stWindow{static_cast<std::uint32_t>(pstCtx->ullSuppressTicks),
                                 static_cast<std::uint32_t>(pstCtx->ullSuppressTicks >> 32)};
    BEX_CPUTICK_S stEdge{};
    if (BEX_64Sub64(&stNow, &stWindow, &stEdge) != 0) {
        stEdge = BEX_CPUTICK_S{};
    }
    const std::uint64_t ullEdge = (std::uint64_t{stEdge.ulHigh} << 32) | stEdge.ulLow;
    std::uint32_t ulResult = 2;
    if (pstCtx->ullLastReport <= ullEdge) {
        pstCtx->ullLastReport = (std::uint64_t{stNow.ulHigh} << 32) | stNow.ulLow;
        ulResult = 1;
    }
    if (bLocking) {
        (void)BEX_MutexUnlock(pstCtx->stLogMtx);
    }
    return ulResult;
}

}  // extern "C"
