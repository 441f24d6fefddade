// Printing a session's log: the receive counters and ring, then the send
// counters and ring, each ring from its oldest slot on. Every piece is
// written into the space that is left and must fit whole; a piece that does
// not fit empties the text, so a caller never shows a cut log as complete.
#include <cstdarg>
#include <cstdio>

#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "protoint/protoint_internal.h"

namespace krm::protoint {
namespace {

// A piece of r characters fits into space bytes with its terminator.
bool Fits(int iWritten, std::uint32_t ulSpace) {
    return iWritten >= 0 && static_cast<std::uint32_t>(iWritten) < ulSpace;
}

// The text being written and how much of it is used.
struct Text {
    char *pcBuf;
    std::uint32_t ulSize;
    std::uint32_t ulUsed;

    char *At() const { return pcBuf + ulUsed; }
    std::uint32_t Space() const { return ulSize - ulUsed; }
};

// Appends one formatted piece; false (nothing counted) when it does not fit.
// *piRet receives the formatter's result for the report.
__attribute__((format(printf, 3, 4))) bool Append(Text &stText, int *piRet, const char *pcFormat,
                                                  ...) {
    va_list args;
    va_start(args, pcFormat);
    const int iRet = std::vsnprintf(stText.At(), stText.Space(), pcFormat, args);
    va_end(args);
    *piRet = iRet;
    if (!Fits(iRet, stText.Space())) {
        return false;
    }
    stText.ulUsed += static_cast<std::uint32_t>(iRet);
    return true;
}

KRM_SYSTIME_S TimeOf(const MBUF_PROTOINT_TICK_S &stStored) {
    const BEX_CPUTICK_S stTick{stStored.ulLow, stStored.ulHigh};
    KRM_SYSTIME_S stTime{};
    MBUF_CalcSystimeByTick(&stTime, &stTick);
    return stTime;
}

bool AppendHeading(Text &stText, bool bRcv) {
    int iRet = 0;
    return bRcv ? Append(stText, &iRet, " %s %-4s %-5s %s\r\n", "seq", "len", "color", "time")
                : Append(stText, &iRet, " %s %-4s %s\r\n", "seq", "len", "time");
}

bool AppendEntry(Text &stText, bool bRcv, std::uint32_t ulNo, std::uint16_t usLen,
                 const MBUF_PROTOINT_TICK_S &stTick) {
    const KRM_SYSTIME_S t = TimeOf(stTick);
    const unsigned uMon = t.ucMonth, uDay = t.ucDate, uHour = t.ucHour, uMin = t.ucMinute,
                   uSec = t.ucSecond;
    int iRet = 0;
    if (bRcv) {
        return Append(stText, &iRet, " %-3u %-4u %-5s %02u-%02u %02u:%02u:%u\r\n", ulNo,
                      static_cast<unsigned>(usLen & MBUF_PROTOINT_LEN_MASK),
                      (usLen & MBUF_PROTOINT_GREEN_BIT) != 0 ? "g" : "y", uMon, uDay, uHour, uMin,
                      uSec);
    }
    return Append(stText, &iRet, " %-3u %-4u %02u-%02u %02u:%02u:%u\r\n", ulNo,
                  static_cast<unsigned>(usLen), uMon, uDay, uHour, uMin, uSec);
}

// One ring, numbered 1..10 from the oldest slot; empty slots keep their
// number but print nothing. A receive slot is empty when its length bits are
// zero, a send slot when the whole value is.
int32_t PrintRing(char *pcBuf, std::uint32_t ulSize, const MBUF_PROTOINT_RING_S *pstRing,
                  bool bRcv) {
    if (pcBuf == nullptr || pstRing == nullptr) {
        return -1;
    }
    Text stText{pcBuf, ulSize, 0};
    bool bHeaded = false;
    std::uint32_t ulPos = pstRing->ucPos < MBUF_PROTOINT_RING_LEN ? pstRing->ucPos : 0;
    for (std::uint32_t ulNo = 1; ulNo <= MBUF_PROTOINT_RING_LEN; ++ulNo) {
        if (stText.Space() == 1) {
            break;
        }
        const std::uint16_t usLen = pstRing->ausLen[ulPos];
        const bool bEmpty = bRcv ? (usLen & MBUF_PROTOINT_LEN_MASK) == 0 : usLen == 0;
        if (!bEmpty) {
            if (!bHeaded && !AppendHeading(stText, bRcv)) {
                return -1;
            }
            bHeaded = true;
            if (!AppendEntry(stText, bRcv, ulNo, usLen, pstRing->astTime[ulPos])) {
                return -1;
            }
        }
        ulPos = (ulPos + 1) % MBUF_PROTOINT_RING_LEN;
    }
    return static_cast<int32_t>(stText.ulUsed);
}

// A ring printed behind what is already in the text.
bool AppendRing(Text &stText, int *piRet, const MBUF_PROTOINT_RING_S *pstRing, bool bRcv) {
    *piRet = PrintRing(stText.At(), stText.Space(), pstRing, bRcv);
    if (*piRet < 0) {
        return false;
    }
    stText.ulUsed += static_cast<std::uint32_t>(*piRet);
    return true;
}

bool AppendAll(Text &stText, int *piRet, std::uint32_t ulSessId, const MBUF_PROTOINT_SND_S *pstSnd,
               const MBUF_PROTOINT_RCV_S *pstRcv) {
    const MBUF_PROTOINT_CNT_S &g = pstRcv->astCnt[MBUF_PROTOINT_CNT_GREEN];
    const MBUF_PROTOINT_CNT_S &o = pstRcv->astCnt[MBUF_PROTOINT_CNT_OTHER];
    const MBUF_PROTOINT_CNT_S &s = pstSnd->stCnt;
    return Append(stText, piRet,
                  "Protocol-inter:Id=%u rcv green(lastRcvSeq,count,sndSeq)=(%u,%u,%u) "
                  "other(rcvMax,count,sndSeq)=(%u,%u,%u) pkt:\r\n",
                  ulSessId, g.ulLastSeq, g.ulCount, g.ulSndSeq, o.ulLastSeq, o.ulCount,
                  o.ulSndSeq) &&
           AppendRing(stText, piRet, &pstRcv->stRing, true) &&
           Append(stText, piRet, "Id=%u snd (lastRcvSeq,count,out)=(%u,%u,%u) pkt:\r\n", ulSessId,
                  s.ulLastSeq, s.ulCount, s.ulSndSeq) &&
           AppendRing(stText, piRet, &pstSnd->stRing, false) && Append(stText, piRet, "\r\n");
}

}  // namespace
}  // namespace krm::protoint

using namespace krm::protoint;

extern "C" {

MBUF_API int32_t MBUF_PROTOINT_PrintLogCheckPara(const char *pcBuf, uint32_t ulSize,
                                                 uint32_t ulSessId,
                                                 const MBUF_PROTOINT_CTX_S *pstCtx) {
    if (pcBuf == nullptr || ulSize == 0 || pstCtx == nullptr || !IdInRange(ulSessId)) {
        return -1;
    }
    return 0;
}

MBUF_API int32_t MBUF_PROTOINT_PrintLogRcvPkts(char *pcBuf, uint32_t ulSize,
                                               const MBUF_PROTOINT_RCV_S *pstRcv) {
    return PrintRing(pcBuf, ulSize, pstRcv != nullptr ? &pstRcv->stRing : nullptr, true);
}

MBUF_API int32_t MBUF_PROTOINT_PrintLogSndPkts(char *pcBuf, uint32_t ulSize,
                                               const MBUF_PROTOINT_SND_S *pstSnd) {
    return PrintRing(pcBuf, ulSize, pstSnd != nullptr ? &pstSnd->stRing : nullptr, false);
}

MBUF_API int32_t MBUF_PROTOINT_PrintLogString(char *pcBuf, uint32_t ulSize, uint32_t ulSessId,
                                              const MBUF_PROTOINT_SND_S *pstSnd,
                                              const MBUF_PROTOINT_RCV_S *pstRcv) {
    if (pcBuf == nullptr || ulSize == 0 || pstSnd == nullptr || pstRcv == nullptr) {
        return -1;
    }
    Text stText{pcBuf, ulSize, 0};
    int iRet = 0;
    if (!AppendAll(stText, &iRet, ulSessId, pstSnd, pstRcv)) {
        krm::Report(krm::kModKrmMbufProtoInt, 520, "string calc error %d", iRet);
        pcBuf[0] = '\0';
        return -1;
    }
    return static_cast<int32_t>(stText.ulUsed);
}

MBUF_API int32_t MBUF_PROTOINT_PrintLog(char *pcBuf, uint32_t ulSize, uint32_t ulSessId,
                                        MBUF_PROTOINT_CTX_S *pstCtx) {
    if (MBUF_PROTOINT_PrintLogCheckPara(pcBuf, ulSize, ulSessId, pstCtx) != 0) {
        return -1;
    }
    if (MBUF_PROTOINT_LockSess(ulSessId, 0, pstCtx) != kLockOk) {
        return -2;
    }
    const auto *pstSnd =
        static_cast<const MBUF_PROTOINT_SND_S *>(MBUF_PROTOINT_GetSess(ulSessId, 1, pstCtx));
    const auto *pstRcv =
        static_cast<const MBUF_PROTOINT_RCV_S *>(MBUF_PROTOINT_GetSess(ulSessId, 2, pstCtx));
    int32_t lRet = 0;
    pcBuf[0] = '\0';
    if (pstSnd != nullptr && pstRcv != nullptr) {
        lRet = MBUF_PROTOINT_PrintLogString(pcBuf, ulSize, ulSessId, pstSnd, pstRcv);
    }
    (void)MBUF_PROTOINT_UnlockSess(ulSessId, 0, pstCtx);
    return lRet;
}

}  // extern "C"
