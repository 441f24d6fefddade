// The two checksums of a cut IPv4 segment, computed from the header copy the
// segment's header came from and the values the cut gives it, instead of
// being read back from the segment's bytes just after they were written in
// pieces (a load over several fresh small stores waits for all of them to
// land). One's-complement sums are linear: a field that changed is its old
// word taken out (its complement added) and its new word put in, so the
// results are those of summing the finished bytes.
#include "internal/bytes.h"
#include "offload/csum_engine.h"
#include "offload/offload_internal.h"

namespace krm::offload {
namespace {

constexpr std::uint32_t kIpv4MinHdr = 20;
constexpr std::uint32_t kIpv4MaxHdr = 60;    // the most the pseudo-header overlay covers
constexpr std::uint32_t kTcpFieldsEnd = 18;  // sequence number and checksum lie before it
constexpr std::uint32_t kAllOnes = 0xFFFFu;  // a sum that may also stand for zero

std::uint64_t Change16(std::uint32_t ulOld, std::uint32_t ulNew) {
    return std::uint64_t{~ulOld & 0xFFFFu} + (ulNew & 0xFFFFu);
}

std::uint64_t Change32(std::uint32_t ulOld, std::uint32_t ulNew) {
    return Change16(ulOld >> 16, ulNew >> 16) + Change16(ulOld, ulNew);
}

// The header bytes from the IP header on while the TCP checksum is taken:
// the IP header's place holds only the pseudo-header (its length taking the
// IP header as 20 bytes, the protocol, the source, the record's
// destination), then the TCP header with its new sequence number and a zero
// checksum.
std::uint64_t TcpHeadSum(const std::uint8_t *pucIp, const MBUF_TSO_CTL_INFO_S &stCtl,
                         std::uint32_t ulIpLen, std::uint32_t ulSeqStep) {
    const std::uint8_t *pucTcp = pucIp + stCtl.usIpHdrLen;
    const std::uint32_t ulSeq = LoadBe32(pucTcp + 4);
    return std::uint64_t{(ulIpLen - kIpv4MinHdr) & 0xFFFFu} + pucIp[9] + LoadBe16(pucIp + 12) +
           LoadBe16(pucIp + 14) + LoadBe16(stCtl.aucDstAddr) + LoadBe16(stCtl.aucDstAddr + 2) +
           SumBytes(pucTcp, stCtl.usTcpHdrLen) + Change32(ulSeq, ulSeq + ulSeqStep) +
           Change16(LoadBe16(pucTcp + 16), 0);
}

}  // namespace

bool Ipv4SumsFromCopy(const SegmentCut &stCut, Ipv4Sums *pstSums) {
    const MBUF_TSO_CTL_INFO_S &stCtl = *stCut.pstCtl;
    const std::uint32_t ulIpHdr = stCtl.usIpHdrLen;
    // Beyond these the overlay reaches past the IP header or a changed TCP
    // field lies in the payload: the segment's own bytes must be read.
    if (ulIpHdr < kIpv4MinHdr || ulIpHdr > kIpv4MaxHdr || (ulIpHdr & 1u) != 0 ||
        stCtl.usTcpHdrLen < kTcpFieldsEnd) {
        return false;
    }
    const std::uint8_t *pucIp = stCut.pucHdr + stCtl.usIpOffset;
    const std::uint32_t ulIpLen = stCut.ulSegLen - stCtl.usIpOffset;
    const std::uint32_t ulHead = Fold16(TcpHeadSum(pucIp, stCtl, ulIpLen, stCut.ulBefore));
    const std::uint32_t ulTcp =
        AddRun(ulHead, stCut.ulPaySum, ((ulIpHdr + stCtl.usTcpHdrLen) & 1u) != 0);
    // All ones is also what a sum of nothing but zeros would be taken out
    // to: leave that one to the bytes themselves.
    if (ulTcp == kAllOnes) {
        return false;
    }
    const std::uint32_t ulIdStep = stCtl.usMss == 0 ? 0 : stCut.ulBefore / stCtl.usMss;
    const std::uint32_t ulId = LoadBe16(pucIp + 4);
    pstSums->usTotalLen = static_cast<std::uint16_t>(ulIpLen);
    pstSums->usId = static_cast<std::uint16_t>(ulId + ulIdStep);
    pstSums->usTcp = Complement(ulTcp);
    // The version nibble makes the IP header's sum non-zero.
    pstSums->usIp = Complement(
        Fold16(SumBytes(pucIp, ulIpHdr) + Change16(LoadBe16(pucIp + 2), pstSums->usTotalLen) +
               Change16(ulId, pstSums->usId) + Change16(LoadBe16(pucIp + 10), 0)));
    return true;
}

}  // namespace krm::offload
