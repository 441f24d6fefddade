// The TLV stream: a packet as one flat, self-describing byte stream. A
// 20-byte head (record count, stream length, a probe word that tells the
// reader the writer's byte order, the packet flag word, the data TLV head),
// the data, then one TLV per present control record in ascending type. The
// writer writes its own order; the reader converts a stream of the other.
#include <algorithm>
#include <cstdint>

#include "byteorder/record.h"
#include "core/node.h"
#include "core/wrapper_sites.h"
#include "internal/bytes.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"

namespace krm {
namespace {

// Stream head offsets.
inline constexpr std::uint32_t kCountOff = 0;
inline constexpr std::uint32_t kLengthOff = 2;
inline constexpr std::uint32_t kProbeOff = 4;
inline constexpr std::uint32_t kFlagOff = 8;
inline constexpr std::uint32_t kFilledHeadLen = 12;
inline constexpr std::uint32_t kDataTypeOff = 16;
inline constexpr std::uint32_t kDataLenOff = 18;
inline constexpr std::uint32_t kHeadLen = MBUF_TLV_HEAD_LEN;
// The stream length counts everything from here on.
inline constexpr std::uint32_t kLengthBase = 16;
inline constexpr std::uint32_t kTlvHeadLen = 4;
// Sizing slack: the head and the TLV heads of up to 23 records, with room.
inline constexpr std::uint32_t kSizingSlack = 200;
inline constexpr std::uint32_t kMaxRecordTlvs = MBUF_CTL_TYPE_NUM;
inline constexpr std::uint32_t kHeadRoomOfCopy = 16;
inline constexpr const char *kWriterName = "MBUF_TransMbuf2Tlv_fl";
inline constexpr const char *kReaderName = "MBUF_TransTlv2Mbuf_fl";

// ---- writing -------------------------------------------------------------

// Where the writer stands in the caller's buffer.
struct Out {
    std::uint8_t *buf;
    std::uint32_t len;     // bytes that may be written
    std::uint32_t bufLen;  // the caller's length, as reports show it
    const char *file;
    std::uint32_t line;

    bool Holds(std::uint64_t off, std::uint64_t width) const { return off + width <= len; }
};

// Head fields are only written where the caller's buffer has them: a buffer
// too short for the head gets what fits and the reports say why.
void Put16(const Out &out, std::uint32_t off, std::uint16_t v) {
    if (out.Holds(off, 2)) {
        Store16At(out.buf, off, v);
    }
}

void CopyData(const std::uint8_t *pucData, const Out &out, std::uint32_t ulDataLen) {
    const std::int64_t llRoom = std::int64_t{out.len} - kHeadLen;
    const int iRet = llRoom < 0 ? -1
                                : memcpy_s(out.buf + kHeadLen, static_cast<std::size_t>(llRoom),
                                           pucData, ulDataLen);
    if (iRet != 0) {
        Report(kModKrmMbuf, 2322, "Input buflen %u err from %s:%u when encap type %u len %u.",
               out.bufLen, out.file, out.line, 0u, ulDataLen);
    }
}

// The record's bytes as far as they lie inside the block's used area; a
// record whose stated length runs past it (a TLV list claiming more than
// was ever written) has the rest of its L bytes written as zeros, so the
// stream stays well-formed and nothing past the block is read.
void CopyRecord(MBUF_S *pstMbuf, const std::uint8_t *pucRec, std::uint8_t *pucDst,
                std::uint32_t ulRoom, std::uint32_t ulLen) {
    const std::uint8_t *pucEnd = ctl::UsedEnd(pstMbuf->pstCtlInfo);
    const auto ulInside = static_cast<std::uint32_t>(
        pucRec < pucEnd ? std::min<std::ptrdiff_t>(pucEnd - pucRec, ulLen) : 0);
    const int iRet = memcpy_s(pucDst, ulRoom, pucRec, ulInside);
    if (iRet != 0) {
        Report(kModKrmMbuf, 2345, "memcpy_s return %d", iRet);
        return;
    }
    (void)memset_s(pucDst + ulInside, ulRoom - ulInside, 0, ulLen - ulInside);
}

// Appends every present record that fits; returns the end of what was
// written. The first record that does not fit ends the list.
std::uint32_t WriteRecords(MBUF_S *pstMbuf, const Out &out, std::uint32_t ulPos) {
    std::int64_t llRemaining = std::int64_t{out.len} - ulPos;
    for (std::uint32_t ulType = 0; ulType < MBUF_CTL_TYPE_NUM; ++ulType) {
        const auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
        const std::uint32_t ulLen = MBUF_GetCtlLen(pstMbuf, ulType);
        if (pucRec == nullptr || ulLen == 0) {
            continue;
        }
        const std::int64_t llBefore = llRemaining;
        llRemaining -= kTlvHeadLen + std::int64_t{ulLen};
        if (llRemaining < 0) {
            Report(kModKrmMbuf, 2338, "Input buflen %u err from %s:%u when encap type %u len %u.",
                   out.bufLen, out.file, out.line, ulType, ulLen);
            break;
        }
        Store16At(out.buf, ulPos, static_cast<std::uint16_t>(ulType));
        Store16At(out.buf, ulPos + 2, static_cast<std::uint16_t>(ulLen));
        CopyRecord(pstMbuf, pucRec, out.buf + ulPos + kTlvHeadLen,
                   static_cast<std::uint32_t>(llBefore - kTlvHeadLen), ulLen);
        Store16At(out.buf, kCountOff, static_cast<std::uint16_t>(Load16At(out.buf, kCountOff) + 1));
        ulPos += kTlvHeadLen + ulLen;
    }
    return ulPos;
}

// ---- reading -------------------------------------------------------------

// Where the reader stands in the caller's stream.
struct In {
    std::uint8_t *buf;
    std::uint32_t len;
    bool foreign;

    std::uint16_t U16(std::uint32_t off) const {
        const std::uint16_t v = Load16At(buf, off);
        return foreign ? Swap16(v) : v;
    }
};

// Converts the head of a stream of the other order in place: count, length
// and flag word. False for a probe of neither order.
bool ReadProbe(In &in) {
    const std::uint32_t ulProbe = Load32At(in.buf, kProbeOff);
    if (ulProbe == MBUF_TLV_PROBE) {
        return true;
    }
    if (Swap32(ulProbe) != MBUF_TLV_PROBE) {
        Report(kModKrmMbuf, 2405, "ByteOrder=%u", Swap32(ulProbe));
        return false;
    }
    in.foreign = true;
    SwapInPlace16(in.buf + kCountOff);
    SwapInPlace16(in.buf + kLengthOff);
    SwapInPlace32(in.buf + kFlagOff);
    return true;
}

// Fills a freshly created record from the stream: zeroed over size bytes,
// then the value. The common record is the block's head: it takes at most
// its 84 bytes, so a longer type 0 from a peer cannot overwrite the
// directory behind it.
void FillRecord(MBUF_S *pstMbuf, const In &in, std::uint32_t ulType, std::uint32_t ulSize,
                std::uint32_t ulValueOff, std::uint32_t ulLen) {
    auto *pucRec = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
    if (pucRec == nullptr) {
        Report(kModKrmMbuf, 2461, "Get Ctl Error");
        return;
    }
    if (ulType == MBUF_CTL_COMM) {
        ulSize = MBUF_CTL_COMM_LEN;
        ulLen = std::min(ulLen, ulSize);
    }
    (void)memset_s(pucRec, ulSize, 0, ulSize);
    const int iRet = memcpy_s(pucRec, ulSize, in.buf + ulValueOff, ulLen);
    if (iRet != 0) {
        Report(kModKrmMbuf, 2466, "memcpy_s return %d", iRet);
    }
    if (in.foreign) {
        const byteorder::CtlFn fn = byteorder::CtlTranslator(ulType);
        if (fn != nullptr) {
            (void)fn(byteorder::Rec{pucRec, ulSize, ulType, kModByteOrderTrans});
        }
    }
}

// Reads the record TLVs behind the data into the packet. Every record head
// and value is read only where the stream's given length holds it.
void ReadRecords(MBUF_S *pstMbuf, const In &in, std::uint32_t ulTotal, std::uint32_t ulModuleId,
                 const char *pcFileName, std::uint32_t ulLine) {
    const std::uint32_t ulCount = Load16At(in.buf, kCountOff);
    std::uint32_t ulPos = ulTotal;
    for (std::uint32_t i = 1; i < ulCount && i <= kMaxRecordTlvs; ++i) {
        if (in.len <= ulTotal) {
            Report(kModKrmMbuf, 2433, "Total Len=%u, Buf Len=%u", ulTotal, in.len);
        }
        // A record head cut short by the end of the stream: its length and
        // type would be read past the caller's bytes, so the records end here
        // as for a record beyond the buffer.
        if (std::uint64_t{ulPos} + kTlvHeadLen > in.len) {
            Report(kModKrmMbuf, 2440, "Total=%u, Buf=%u", ulPos + kTlvHeadLen, in.len);
            return;
        }
        const std::uint32_t ulLen = in.U16(ulPos + 2);
        if (ulLen == 0) {
            Report(kModKrmMbuf, 2428, "Mbuf Len=%u", 0u);
            return;
        }
        const std::uint32_t ulType = in.U16(ulPos);
        ulTotal += ulLen + kTlvHeadLen;
        if (in.len < ulTotal) {
            Report(kModKrmMbuf, 2440, "Total=%u, Buf=%u", ulTotal, in.len);
            return;
        }
        if (ulType > ctl::kMaxType) {
            Report(kModKrmMbuf, 2446, "Mbuf T=%u", ulType);
            return;
        }
        const std::uint32_t ulSize = std::max(MBUF_GetCtlLen(pstMbuf, ulType), ulLen);
        const std::uint32_t ulRet =
            MBUF_CreateControlInfo_fl(pstMbuf, ulType, ulSize, ulModuleId, pcFileName, ulLine);
        if (ulRet != MBUF_OK) {
            Report(kModKrmMbuf, 2454, "Ret=%x T=%x L=%x", ulRet, ulType, ulSize);
        } else {
            FillRecord(pstMbuf, in, ulType, ulSize, ulPos + kTlvHeadLen, ulLen);
        }
        ulPos += ulLen + kTlvHeadLen;
    }
}

}  // namespace
}  // namespace krm

extern "C" {

MBUF_API uint32_t MBUF_CalcMbuf2TlvLen(MBUF_S *pstMbuf) {
    uint32_t ulLen = MBUF_GetTotalDataLength(pstMbuf);
    for (uint32_t ulType = 0; ulType < MBUF_CTL_TYPE_NUM; ++ulType) {
        ulLen += MBUF_GetCtlLen(pstMbuf, ulType);
    }
    return ulLen + krm::kSizingSlack;
}

MBUF_API void MBUF_TransMbuf2Tlv_fl_FillHead(uint8_t *pucBuf, MBUF_S *pstMbuf) {
    krm::Store16At(pucBuf, krm::kCountOff, 1);
    krm::Store16At(pucBuf, krm::kLengthOff, 0);
    krm::Store32At(pucBuf, krm::kProbeOff, MBUF_TLV_PROBE);
    krm::Store32At(pucBuf, krm::kFlagOff, pstMbuf->ulFlag2);
}

MBUF_API uint32_t MBUF_TransMbuf2Tlv_fl(MBUF_S *pstMbuf, uint8_t *pucBuf, uint32_t ulBufLen,
                                        uint32_t ulModuleId, const char *pcFileName,
                                        uint32_t ulLine) {
    if (static_cast<int32_t>(ulBufLen) < 1) {
        krm::Report(krm::kModKrmMbuf, 2301, "Input buflen %u err from %s:%u.", ulBufLen, pcFileName,
                    ulLine);
    }
    if (pstMbuf == nullptr || pucBuf == nullptr || (pstMbuf->ulFlag & MBUF_PKTHDR) == 0) {
        return MBUF_ERR_NO_DATA;
    }
    // A signed length below 1 is taken as it is reported: the buffer holds
    // nothing, and nothing is written into it.
    const uint32_t ulRoom = static_cast<int32_t>(ulBufLen) < 1 ? 0u : ulBufLen;
    const krm::Out out{pucBuf, ulRoom, ulBufLen, pcFileName, ulLine};
    if (out.Holds(0, krm::kFilledHeadLen)) {
        MBUF_TransMbuf2Tlv_fl_FillHead(pucBuf, pstMbuf);
    }
    const auto usDataLen = static_cast<uint16_t>(MBUF_GetTotalDataLength(pstMbuf));
    if (usDataLen == 0) {
        return MBUF_ERR_NO_DATA;
    }
    krm::Put16(out, krm::kDataTypeOff, MBUF_TLV_DATA_TYPE);
    krm::Put16(out, krm::kDataLenOff, usDataLen);
    const uint8_t *pucData =
        MBUF_MakeMemoryContinuous_fl(pstMbuf, 0, usDataLen, ulModuleId, krm::kWriterName, 2318);
    if (pucData == nullptr) {
        return MBUF_ERR_NOMEM;
    }
    krm::CopyData(pucData, out, usDataLen);
    uint32_t ulEnd = krm::kHeadLen + usDataLen;
    if (out.Holds(0, ulEnd) && pstMbuf->pstCtlInfo != nullptr) {
        ulEnd = krm::WriteRecords(pstMbuf, out, ulEnd);
    } else if (pstMbuf->pstCtlInfo != nullptr) {
        krm::Report(krm::kModKrmMbuf, 2338,
                    "Input buflen %u err from %s:%u when encap type %u len %u.", ulBufLen,
                    pcFileName, ulLine, 0u, MBUF_GetCtlLen(pstMbuf, 0));
    }
    krm::Put16(out, krm::kLengthOff, static_cast<uint16_t>(ulEnd - krm::kLengthBase));
    return MBUF_OK;
}

MBUF_API uint32_t MBUF_TransMbuf2Tlv(MBUF_S *pstMbuf, uint8_t *pucBuf, uint32_t ulBufLen,
                                     uint32_t ulModuleId) {
    return MBUF_TransMbuf2Tlv_fl(pstMbuf, pucBuf, ulBufLen, ulModuleId,
                                 krm::wrap::kTransMbuf2Tlv.pcName,
                                 krm::wrap::kTransMbuf2Tlv.ulLine);
}

MBUF_API MBUF_S *MBUF_TransTlv2Mbuf_fl(uint8_t *pucBuf, uint32_t ulBufLen, uint32_t ulModuleId,
                                       const char *pcFileName, uint32_t ulLine) {
    if (pucBuf == nullptr || ulBufLen <= krm::kLengthBase) {
        return nullptr;
    }
    krm::In in{pucBuf, ulBufLen, false};
    if (!krm::ReadProbe(in)) {
        return nullptr;
    }
    const uint32_t ulStreamLen = krm::Load16At(pucBuf, krm::kLengthOff);
    if (ulStreamLen > ulBufLen) {
        krm::Report(krm::kModKrmMbuf, 2412, "T=%u B=%u", ulStreamLen, ulBufLen);
        return nullptr;
    }
    // A stream that ends inside the data TLV head has its data beyond the
    // buffer whatever the head would say.
    if (ulBufLen < krm::kHeadLen) {
        krm::Report(krm::kModKrmMbuf, 2419, "T=%u B=%u", krm::kHeadLen, ulBufLen);
        return nullptr;
    }
    const uint32_t ulDataType = in.U16(krm::kDataTypeOff);
    if (ulDataType != MBUF_TLV_DATA_TYPE) {
        krm::Report(krm::kModKrmMbuf, 2415, "Mbuf Type=%u", ulDataType);
    }
    const uint32_t ulDataLen = in.U16(krm::kDataLenOff);
    const uint32_t ulTotal = ulDataLen + krm::kHeadLen;
    if (ulBufLen < ulTotal) {
        krm::Report(krm::kModKrmMbuf, 2419, "T=%u B=%u", ulTotal, ulBufLen);
        return nullptr;
    }
    MBUF_S *pstMbuf =
        MBUF_CreateByCopyBuffer_fl(krm::kHeadRoomOfCopy, ulDataLen, pucBuf + krm::kHeadLen, 0,
                                   ulModuleId, krm::kReaderName, 2423);
    if (pstMbuf == nullptr) {
        krm::Report(krm::kModKrmMbuf, 2425, "Create Copy Buf Error");
        return nullptr;
    }
    pstMbuf->ulFlag2 = krm::Load32At(pucBuf, krm::kFlagOff);
    krm::ReadRecords(pstMbuf, in, ulTotal, ulModuleId, pcFileName, ulLine);
    return pstMbuf;
}

MBUF_API MBUF_S *MBUF_TransTlv2Mbuf(uint8_t *pucBuf, uint32_t ulBufLen, uint32_t ulModuleId) {
    return MBUF_TransTlv2Mbuf_fl(pucBuf, ulBufLen, ulModuleId, krm::wrap::kTransTlv2Mbuf.pcName,
                                 krm::wrap::kTransTlv2Mbuf.ulLine);
}

}  // extern "C"
