#include "mbuf_check.h"

#include "krm_mbuf/mbuf_debug.h"

namespace krm::test {

CheckResult Check(const MBUF_S *pstMbuf) {
    char acReason[256];
    CheckResult result;
    result.code = MBUF_DBG_Check(pstMbuf, acReason, sizeof(acReason));
    result.reason = acReason;
    return result;
}

std::string Dump(const MBUF_S *pstMbuf) {
    std::string text(16384, '\0');
    const std::uint32_t len =
        MBUF_DBG_Dump(pstMbuf, text.data(), static_cast<std::uint32_t>(text.size()));
    text.resize(len);
    return text;
}

::testing::AssertionResult IsValidPacket(const MBUF_S *pstMbuf) {
    const CheckResult result = Check(pstMbuf);
    if (result.code == MBUF_DBG_OK) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "invalid packet (code " << result.code << "): " << result.reason << "\n"
           << Dump(pstMbuf);
}

void ExpectValid(const MBUF_S *pstMbuf, const char *pcFile, int iLine) {
    const ::testing::AssertionResult valid = IsValidPacket(pstMbuf);
    if (!valid) {
        ADD_FAILURE_AT(pcFile, iLine) << valid.message();
    }
}

std::vector<std::uint8_t> PacketBytes(const MBUF_S *pstMbuf) {
    std::vector<std::uint8_t> bytes;
    for (const MBUF_S *pstNode = pstMbuf; pstNode != nullptr; pstNode = pstNode->pstNext) {
        bytes.insert(bytes.end(), pstNode->pucData, pstNode->pucData + pstNode->ulDataLen);
    }
    return bytes;
}

std::vector<std::uint32_t> NodeLengths(const MBUF_S *pstMbuf) {
    std::vector<std::uint32_t> lengths;
    for (const MBUF_S *pstNode = pstMbuf; pstNode != nullptr; pstNode = pstNode->pstNext) {
        lengths.push_back(pstNode->ulDataLen);
    }
    return lengths;
}

std::vector<std::uint8_t> Pattern(std::uint32_t ulLen, std::uint32_t ulSeed) {
    std::vector<std::uint8_t> bytes(ulLen);
    std::uint32_t state = ulSeed * 2654435761u + 1;
    for (auto &byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<std::uint8_t>(state >> 16);
    }
    return bytes;
}

}  // namespace krm::test
