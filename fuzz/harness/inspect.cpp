// The tool's inspect: any bytes decoded as whatever wire form they look
// like, then printed as text and as JSON. Where the tool reads a TLV stream
// or a serial image, the library's own reader must read the same data.
#include <cstdio>

#include "fuzz_support.h"
#include "show.h"
#include "sink.h"
#include "wire.h"

namespace {

constexpr std::uint32_t kModule = 0x00F90000u;

// The library's packet from the same bytes, or NULL for another form.
MBUF_S *LibraryRead(krm::tool::WireKind eKind, krm::fuzz::Bytes v) {
    const auto ulLen = static_cast<std::uint32_t>(v.size());
    if (eKind == krm::tool::WireKind::kTlvStream) {
        return MBUF_TransTlv2Mbuf_fl(v.data(), ulLen, kModule, "fuzz", 70);
    }
    if (eKind == krm::tool::WireKind::kSerialImage) {
        return MBUF_Deserialize_fl(v.data(), ulLen, kModule, "fuzz", 71);
    }
    return nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    static std::FILE *pNull = std::fopen("/dev/null", "w");
    const krm::fuzz::Session session;
    krm::tool::Decoded stDec;
    if (krm::tool::Decode(pucData, ulSize, &stDec)) {
        return 0;  // refused with a reason
    }
    krm::tool::TextSink stText(pNull);
    krm::tool::ShowDecoded(stDec, stText);
    krm::tool::JsonSink stJson(pNull);
    krm::tool::ShowDecoded(stDec, stJson);
    MBUF_S *pstPkt = LibraryRead(stDec.eKind, krm::fuzz::Bytes(pucData, pucData + ulSize));
    if (pstPkt != nullptr) {
        if (stDec.vPackets.size() != 1) {
            krm::fuzz::Fail("the tool decoded %zu packets of one form", stDec.vPackets.size());
        }
        krm::fuzz::ExpectSame(stDec.vPackets[0].vData, krm::fuzz::Data(pstPkt), "tool and library");
        MBUF_Destroy(pstPkt);
    }
    return 0;
}
