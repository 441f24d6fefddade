#include "serial_support.h"

namespace krm::serialtest {

Bytes CommBytes(std::uint32_t ulSeed) {
    Bytes comm(MBUF_CTL_COMM_LEN);
    for (std::uint32_t i = 0; i < comm.size(); ++i) {
        comm[i] = static_cast<std::uint8_t>(ulSeed * 31u + i * 7u + 1u);
    }
    return comm;
}

Bytes Counting(std::uint32_t ulLen, std::uint8_t ucFirst) {
    Bytes b(ulLen);
    for (std::uint32_t i = 0; i < ulLen; ++i) {
        b[i] = static_cast<std::uint8_t>(ucFirst + i);
    }
    return b;
}

Bytes OldLayoutBlock(std::uint32_t ulSlots, std::uint16_t usCapacity,
                     const std::vector<RecordRow> &records, std::uint32_t ulCommSeed) {
    const std::uint32_t ulArea = 92 + 4 * ulSlots;
    std::uint32_t ulUsed = 0;
    for (const RecordRow &row : records) {
        ulUsed += Round8(static_cast<std::uint32_t>(row.bytes.size()));
    }
    Bytes blk(ulArea + ulUsed, 0);
    const Bytes comm = CommBytes(ulCommSeed);
    std::memcpy(blk.data(), comm.data(), comm.size());
    const auto ulRecNum = static_cast<std::uint32_t>(records.size());
    Put32(blk, 84, (0x40u << 24) | (MBUF_BYTEORDER_HOST << 16) | (ulSlots << 8) | ulRecNum);
    Put16(blk, 88, static_cast<std::uint16_t>(ulUsed));
    Put16(blk, 90, usCapacity);
    std::uint32_t ulOffset = ulArea;
    for (const RecordRow &row : records) {
        const auto ulLen = static_cast<std::uint32_t>(row.bytes.size());
        Put16(blk, 92 + 4 * row.slot, static_cast<std::uint16_t>(ulOffset));
        Put16(blk, 94 + 4 * row.slot, static_cast<std::uint16_t>(Round8(ulLen)));
        std::memcpy(blk.data() + ulOffset, row.bytes.data(), ulLen);
        ulOffset += Round8(ulLen);
    }
    return blk;
}

Bytes RecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulLen) {
    const auto *p = static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
    if (p == nullptr) {
        return {};
    }
    return Bytes(p, p + ulLen);
}

}  // namespace krm::serialtest
