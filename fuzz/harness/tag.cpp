// Tag-message translation: any bytes as a control block received from a
// peer of the other byte order, converted in place. Nothing outside the
// message may be touched (the message lies in an allocation of exactly its
// length), the head must come out converted, and the checks of the
// converted message must answer without reading past it.
#include <cstring>

#include "fuzz_support.h"
#include "internal/bytes.h"

namespace {

constexpr std::uint32_t kHeadWordOff = offsetof(MBUF_CONTROL_BLK_S, usUsedLen) - 4;
constexpr std::uint32_t kHeadLen = offsetof(MBUF_CONTROL_BLK_S, astSlot);

void ExpectHeadConverted(const std::uint8_t *pucWas, const std::uint8_t *pucNow) {
    const std::uint32_t aulOff[] = {kHeadWordOff, kHeadWordOff + 4, kHeadWordOff + 6};
    const bool bOk =
        krm::Load32At(pucNow, aulOff[0]) == krm::Swap32(krm::Load32At(pucWas, aulOff[0])) &&
        krm::Load16At(pucNow, aulOff[1]) == krm::Swap16(krm::Load16At(pucWas, aulOff[1])) &&
        krm::Load16At(pucNow, aulOff[2]) == krm::Swap16(krm::Load16At(pucWas, aulOff[2]));
    if (!bOk) {
        krm::fuzz::Fail("the block's head word, used length or capacity not converted");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    const auto ulLen = static_cast<std::uint32_t>(ulSize);
    std::vector<std::uint8_t> vMsg(pucData, pucData + ulSize);
    MBUF_TagByteOrderTrans(vMsg.data(), ulLen);
    if (ulLen >= kHeadLen) {
        ExpectHeadConverted(pucData, vMsg.data());
        if (MBUF_CheckTagByteOrderLen(vMsg.data(), ulLen) == 0) {
            for (std::uint32_t ulType = 0; ulType < MBUF_CTL_TYPE_NUM; ++ulType) {
                (void)MBUF_CheckTagOffsetLen(vMsg.data(), ulLen, ulType);
            }
        }
    }
    return 0;
}
