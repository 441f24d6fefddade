// Tag-message translation: any bytes as a control block received from a
// peer of the other byte order, converted in place, and the checks of the
// converted message. The message lies once in an allocation of exactly its
// length and once in a pipe buffer of exactly its length (whose size the
// translation asks the platform for): nothing past either may be read or
// written, and both must convert to the same bytes.
#include <cstring>

#include "fuzz_support.h"

namespace {

// Converts the message and runs every check on it.
void Translate(std::uint8_t *pucMsg, std::uint32_t ulLen) {
    MBUF_TagByteOrderTrans(pucMsg, ulLen);
    if (ulLen >= offsetof(MBUF_CONTROL_BLK_S, astSlot) &&
        MBUF_CheckTagByteOrderLen(pucMsg, ulLen) == 0) {
        for (std::uint32_t ulType = 0; ulType < MBUF_CTL_TYPE_NUM; ++ulType) {
            (void)MBUF_CheckTagOffsetLen(pucMsg, ulLen, ulType);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    const auto ulLen = static_cast<std::uint32_t>(ulSize);
    std::vector<std::uint8_t> vMsg(pucData, pucData + ulSize);
    Translate(vMsg.data(), ulLen);
    const std::vector<void *> vBuf = krm::fuzz::Land({krm::fuzz::Piece{pucData, ulLen, ulLen}});
    if (vBuf.empty()) {
        return 0;
    }
    auto *pucInPipe = static_cast<std::uint8_t *>(vBuf[0]);
    Translate(pucInPipe, ulLen);
    if (ulLen != 0 && std::memcmp(pucInPipe, vMsg.data(), ulLen) != 0) {
        krm::fuzz::Fail("a message converts differently in a pipe buffer of its length");
    }
    krm::fuzz::FreeLive(vBuf);
    return 0;
}
