#include "golden_support.h"

#include <cstdio>

namespace krm::serialtest {

std::string GoldenDir() {
    std::string here = __FILE__;
    here.resize(here.find_last_of('/') + 1);
    return here + "../golden/";
}

Bytes ReadFile(const std::string &path) {
    Bytes out;
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        return out;
    }
    std::uint8_t buf[4096];
    std::size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) {
        out.insert(out.end(), buf, buf + n);
    }
    std::fclose(f);
    return out;
}

namespace {

Bytes InitialComm() {
    return krm::golden::Image(MBUF_CTL_COMM_LEN, {{24, 4, 0xFFFFFFFFu}, {28, 4, 0xFFFFFFFFu}});
}

::testing::AssertionResult RecordsMatch(MBUF_S *pstMbuf, const PacketPlan &plan) {
    const Bytes comm =
        plan.comm.empty() ? InitialComm() : krm::golden::Image(MBUF_CTL_COMM_LEN, plan.comm);
    if (RecordBytes(pstMbuf, MBUF_CTL_COMM, MBUF_CTL_COMM_LEN) != comm) {
        return ::testing::AssertionFailure() << "common record differs";
    }
    for (std::uint32_t t = 1; t < MBUF_CTL_TYPE_NUM; ++t) {
        const krm::golden::RecordPlan *want = nullptr;
        for (const auto &rec : plan.records) {
            want = rec.type == t ? &rec : want;
        }
        const bool bPresent = MBUF_GetControlInfo(pstMbuf, t) != nullptr;
        if (want == nullptr) {
            if (bPresent) {
                return ::testing::AssertionFailure() << "record " << t << " not described";
            }
            continue;
        }
        if (RecordBytes(pstMbuf, t, want->len) != krm::golden::Image(want->len, want->fields)) {
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
    buf.resize(Get16(buf.data() + 2) + 16u);
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
