// Serial image reader: any bytes, read as an image a peer wrote. A packet
// read must be sound, and the image this host writes of it must read back
// to the same packet (data, block, header words) where the packet read is
// consistent throughout.
#include "fuzz_support.h"

namespace {

constexpr std::uint32_t kModule = 0x00F20000u;

MBUF_S *Read(krm::fuzz::Bytes v) {
    // A block of the other order is converted in place: the reader gets its
    // own copy, exactly as long as the input.
    return MBUF_Deserialize_fl(v.data(), static_cast<std::uint32_t>(v.size()), kModule, "fuzz", 20);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    MBUF_S *pstPkt = Read(krm::fuzz::Bytes(pucData, pucData + ulSize));
    if (pstPkt == nullptr) {
        return 0;
    }
    // The writer must cope with any packet the reader gave.
    const bool bConsistent = krm::fuzz::CheckPacket(pstPkt, "read");
    const krm::fuzz::Bytes vImage = krm::fuzz::Canon(pstPkt);
    MBUF_S *pstBack = Read(vImage);
    if (pstBack == nullptr && bConsistent) {
        krm::fuzz::Fail("an image this host wrote does not read back");
    }
    if (pstBack != nullptr && krm::fuzz::CheckPacket(pstBack, "read back") && bConsistent) {
        krm::fuzz::ExpectSame(vImage, krm::fuzz::Canon(pstBack), "image read back");
    }
    MBUF_Destroy(pstBack);
    MBUF_Destroy(pstPkt);
    return 0;
}
