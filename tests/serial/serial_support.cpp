#include "serial_support.h"

#include <fstream>
#include <iterator>

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
    Put<std::uint32_t>(blk, 84,
                       (0x40u << 24) | (MBUF_BYTEORDER_HOST << 16) | (ulSlots << 8) | ulRecNum);
    Put<std::uint16_t>(blk, 88, static_cast<std::uint16_t>(ulUsed));
    Put<std::uint16_t>(blk, 90, usCapacity);
    std::uint32_t ulOffset = ulArea;
    for (const RecordRow &row : records) {
        const auto ulLen = static_cast<std::uint32_t>(row.bytes.size());
        Put<std::uint16_t>(blk, 92 + 4 * row.slot, static_cast<std::uint16_t>(ulOffset));
        Put<std::uint16_t>(blk, 94 + 4 * row.slot, static_cast<std::uint16_t>(Round8(ulLen)));
        std::memcpy(blk.data() + ulOffset, row.bytes.data(), ulLen);
        ulOffset += Round8(ulLen);
    }
    return blk;
}

Bytes RecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulLen) {
    const auto *p = static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
    return p == nullptr ? Bytes{} : Bytes(p, p + ulLen);
}

std::string GoldenDir() {
    std::string here = __FILE__;
    here.resize(here.find_last_of('/') + 1);
    return here + "../golden/";
}

Bytes ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

namespace {

::testing::AssertionResult RecordsMatch(MBUF_S *pstMbuf, const PacketPlan &plan) {
    const Bytes comm = krm::golden::Image(
        MBUF_CTL_COMM_LEN, plan.comm.empty()
                               ? std::vector<krm::golden::Field>{{24, 4, ~0u}, {28, 4, ~0u}}
                               : plan.comm);
    if (RecordBytes(pstMbuf, MBUF_CTL_COMM, MBUF_CTL_COMM_LEN) != comm) {
        return ::testing::AssertionFailure() << "common record differs";
    }
    for (std::uint32_t t = 1; t < MBUF_CTL_TYPE_NUM; ++t) {
        const krm::golden::RecordPlan *want = nullptr;
        for (const auto &rec : plan.records) {
            want = rec.type == t ? &rec : want;
        }
        if (want == nullptr ? MBUF_GetControlInfo(pstMbuf, t) != nullptr
                            : RecordBytes(pstMbuf, t, want->len) !=
                                  krm::golden::Image(want->len, want->fields)) {
            return ::testing::AssertionFailure() << "record " << t << " differs";
        }
    }
    return ::testing::AssertionSuccess();
}

}  // namespace

::testing::AssertionResult MatchesPlan(MBUF_S *pstMbuf, const PacketPlan &plan, bool bImage) {
    if (pstMbuf == nullptr) {
        return ::testing::AssertionFailure() << "no packet";
    }
    const ::testing::AssertionResult valid = krm::test::IsValidPacket(pstMbuf);
    if (!valid) {
        return valid;
    }
    if (krm::test::PacketBytes(pstMbuf) != krm::golden::Data(plan) ||
        pstMbuf->ulTotalDataLen != plan.dataLen) {
        return ::testing::AssertionFailure() << "data differs";
    }
    const std::uint32_t words[] = {pstMbuf->ulPktRsv,     pstMbuf->ulTotalDataLen, pstMbuf->ulFlag3,
                                   pstMbuf->ulPktTagInfo, pstMbuf->ulPktRsv2,      pstMbuf->ulFlag2,
                                   pstMbuf->ulPktRsv3};
    for (std::uint32_t i = 0; i < krm::golden::kHdrWordNum; ++i) {
        if ((bImage || i == krm::golden::kFlag2) && words[i] != plan.words[i]) {
            return ::testing::AssertionFailure() << "header word " << i << " is " << words[i];
        }
    }
    return RecordsMatch(pstMbuf, plan);
}

Bytes StreamOf(MBUF_S *pstMbuf) {
    Bytes buf(MBUF_CalcMbuf2TlvLen(pstMbuf), 0);
    if (MBUF_TransMbuf2Tlv(pstMbuf, buf.data(), static_cast<std::uint32_t>(buf.size()), kModule) !=
        0) {
        return {};
    }
    buf.resize(Get<std::uint16_t>(buf.data() + 2) + 16u);
    return buf;
}

Bytes ImageOf(MBUF_S *pstMbuf) {
    Bytes buf(MBUF_GetAllBlockSize(pstMbuf), 0);
    if (buf.empty() || MBUF_Serialize(pstMbuf, buf.data()) != 0) {
        return {};
    }
    return buf;
}

}  // namespace krm::serialtest
