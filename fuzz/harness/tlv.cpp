// TLV stream reader: any bytes, read as the stream a peer wrote. A packet
// read must be sound, and the stream this host writes of it must read back
// to the same packet (data, flag word, every record as long as it says)
// where the packet read is consistent throughout.
#include "fuzz_support.h"

namespace {

constexpr std::uint32_t kModule = 0x00F10000u;

MBUF_S *Read(krm::fuzz::Bytes v) {
    // The reader converts a stream of the other order in place: its own copy,
    // exactly as long as the input so that any read past it is caught.
    return MBUF_TransTlv2Mbuf_fl(v.data(), static_cast<std::uint32_t>(v.size()), kModule, "fuzz",
                                 10);
}

// The writer must cope with any packet the reader gave; the stream must
// read back equal where that packet is consistent throughout.
void RoundTrip(MBUF_S *pstFirst, bool bConsistent) {
    krm::fuzz::Bytes vStream(MBUF_CalcMbuf2TlvLen(pstFirst));
    const std::uint32_t rc = MBUF_TransMbuf2Tlv_fl(
        pstFirst, vStream.data(), static_cast<std::uint32_t>(vStream.size()), kModule, "fuzz", 11);
    krm::fuzz::CheckPacket(pstFirst, "written");
    if (rc != MBUF_OK) {
        return;  // no data to write, or it could not be made contiguous
    }
    MBUF_S *pstSecond = Read(vStream);
    if (pstSecond == nullptr && bConsistent) {
        krm::fuzz::Fail("a stream this host wrote does not read back");
    }
    if (pstSecond != nullptr && krm::fuzz::CheckPacket(pstSecond, "read back") && bConsistent) {
        krm::fuzz::ExpectSame(krm::fuzz::Carried(pstFirst), krm::fuzz::Carried(pstSecond),
                              "stream read back");
    }
    MBUF_Destroy(pstSecond);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize) {
    const krm::fuzz::Session session;
    MBUF_S *pstPkt = Read(krm::fuzz::Bytes(pucData, pucData + ulSize));
    if (pstPkt != nullptr) {
        RoundTrip(pstPkt, krm::fuzz::CheckPacket(pstPkt, "read"));
        MBUF_Destroy(pstPkt);
    }
    return 0;
}
