// tso: cuts every TCP packet of a capture whose payload exceeds the MSS
// with the library's segmentation, copies every other packet, writes pcapng.
#include <pcap/pcap.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "commands.h"
#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "pcapng.h"
#include "sample.h"

namespace krm::tool {
namespace {

struct Counts {
    std::uint32_t ulRead = 0, ulCut = 0, ulSegs = 0, ulCopied = 0, ulRefused = 0;
};

// Where the IP header starts under a capture's link layer; nullopt for a
// link type or frame this tool does not look into.
std::optional<std::size_t> IpOffset(int iDlt, const std::uint8_t *p, std::size_t n) {
    switch (iDlt) {
        case DLT_RAW:
        case 101:  // the raw-IP link type as files spell it
            return 0;
        case DLT_NULL:
            return n >= 4 ? std::optional<std::size_t>(4) : std::nullopt;
        case DLT_LINUX_SLL:
            return n >= 16 ? std::optional<std::size_t>(16) : std::nullopt;
        case DLT_EN10MB: {
            std::size_t ulAt = 12;
            while (ulAt + 2 <= n &&
                   (LoadBe16(p + ulAt) == 0x8100 || LoadBe16(p + ulAt) == 0x88A8)) {
                ulAt += 4;
            }
            return ulAt + 2 <= n ? std::optional<std::size_t>(ulAt + 2) : std::nullopt;
        }
        default:
            return std::nullopt;
    }
}

// The segmentation TLV for a TCP packet at ulIp whose payload exceeds the
// MSS; nullopt when the packet is none of that. *pulFrame: the frame's
// length without link-layer padding behind the IP packet.
std::optional<MBUF_TSO_TLV_S> TsoTlv(const std::uint8_t *p, std::size_t n, std::size_t ulIp,
                                     std::uint32_t ulMss, std::size_t *pulFrame) {
    if (ulIp + 40 > n) {
        return std::nullopt;
    }
    const std::uint8_t *ip = p + ulIp;
    MBUF_TSO_TLV_S t{};
    std::size_t ulTotal = 0;
    if ((ip[0] >> 4) == 4 && ip[9] == 6) {
        t.usIpHdrLen = static_cast<std::uint16_t>((ip[0] & 0xF) * 4);
        ulTotal = LoadBe16(ip + 2);
        std::memcpy(t.aucDstAddr, ip + 16, 4);
    } else if ((ip[0] >> 4) == 6 && ip[6] == 6) {
        t.usIpHdrLen = 40;
        ulTotal = 40u + LoadBe16(ip + 4);
        std::memcpy(t.aucDstAddr, ip + 24, 16);
    } else {
        return std::nullopt;
    }
    if (t.usIpHdrLen < 20 || ulIp + ulTotal > n || ulTotal < t.usIpHdrLen + 20u ||
        ulTotal > 0xFFFF) {
        return std::nullopt;
    }
    t.usTcpHdrLen = static_cast<std::uint16_t>((ip[t.usIpHdrLen + 12] >> 4) * 4);
    if (t.usTcpHdrLen < 20 || t.usIpHdrLen + t.usTcpHdrLen > ulTotal ||
        ulTotal - t.usIpHdrLen - t.usTcpHdrLen <= ulMss) {
        return std::nullopt;
    }
    t.usType = MBUF_TSO_TLV_TYPE;
    t.usLen = MBUF_TSO_TLV_LEN;
    t.usPayloadLen = static_cast<std::uint16_t>(ulTotal - t.usIpHdrLen - t.usTcpHdrLen);
    t.usMss = static_cast<std::uint16_t>(ulMss);
    t.usTotalLen = static_cast<std::uint16_t>(ulTotal);
    *pulFrame = ulIp + ulTotal;
    return t;
}

// Cuts one packet; false when the library refused it.
bool Cut(const std::uint8_t *p, std::size_t ulFrame, const MBUF_TSO_TLV_S &t, PcapngWriter &w,
         std::uint32_t ulIf, std::uint64_t ullTs, Counts &c) {
    MBUF_S *pstPkt =
        MBUF_CreateByCopyBuffer(0, static_cast<std::uint32_t>(ulFrame), p, 0, kToolModule);
    if (pstPkt == nullptr) {
        return false;
    }
    std::vector<MBUF_S *> vSegs((t.usPayloadLen + t.usMss - 1u) / t.usMss + 1u, nullptr);
    std::uint32_t ulSegs = 0;
    if (MBUF_SetTlvInfo(pstPkt, kToolModule, reinterpret_cast<const MBUF_CTL_TLV_S *>(&t)) != 0 ||
        MBUF_TSO_GetMbuf(pstPkt, vSegs.data(),
                         static_cast<std::uint32_t>(vSegs.size() * sizeof(void *)), &ulSegs,
                         kToolModule) != 0) {
        MBUF_Destroy(pstPkt);
        return false;
    }
    for (std::uint32_t i = 0; i < ulSegs; ++i) {
        std::vector<std::uint8_t> v(MBUF_GetTotalDataLength(vSegs[i]));
        MBUF_CopyDataFromMbufToCbuf(vSegs[i], 0, static_cast<std::int32_t>(v.size()), v.data());
        w.Packet(ulIf, ullTs, v.data(), v.size(), Direction::kUnknown,
                 {"segment " + std::to_string(i + 1) + " of " + std::to_string(ulSegs)});
        MBUF_Destroy(vSegs[i]);
    }
    ++c.ulCut;
    c.ulSegs += ulSegs;
    return true;
}

}  // namespace

int Tso(const TsoArgs &a) {
    char acErr[PCAP_ERRBUF_SIZE] = {};
    std::unique_ptr<pcap_t, void (*)(pcap_t *)> pIn(pcap_open_offline(a.strIn.c_str(), acErr),
                                                    pcap_close);
    if (!pIn) {
        Complain(a.strIn + ": " + acErr);
        return kExitBadInput;
    }
    std::FILE *pOut = a.strOut == "-" ? stdout : std::fopen(a.strOut.c_str(), "wb");
    if (pOut == nullptr) {
        Complain("cannot write " + a.strOut);
        return kExitBadInput;
    }
    const int iDlt = pcap_datalink(pIn.get());
    PcapngWriter w(pOut, "krm-mbuf tso");
    const std::uint32_t ulIf =
        w.Interface("tso", static_cast<std::uint16_t>(iDlt == DLT_RAW ? 101 : iDlt));
    Counts c;
    pcap_pkthdr *pstHdr = nullptr;
    const u_char *p = nullptr;
    while (pcap_next_ex(pIn.get(), &pstHdr, &p) == 1) {
        ++c.ulRead;
        const std::uint64_t ullTs = static_cast<std::uint64_t>(pstHdr->ts.tv_sec) * 1000000u +
                                    static_cast<std::uint64_t>(pstHdr->ts.tv_usec);
        std::size_t ulFrame = 0;
        const auto oIp =
            pstHdr->caplen == pstHdr->len ? IpOffset(iDlt, p, pstHdr->caplen) : std::nullopt;
        const auto oTlv = oIp ? TsoTlv(p, pstHdr->caplen, *oIp, a.ulMss, &ulFrame) : std::nullopt;
        if (oTlv && Cut(p, ulFrame, *oTlv, w, ulIf, ullTs, c)) {
            continue;
        }
        c.ulRefused += oTlv ? 1 : 0;
        ++c.ulCopied;
        w.Packet(ulIf, ullTs, p, pstHdr->caplen, Direction::kUnknown, {});
    }
    if (pOut != stdout) {
        std::fclose(pOut);
    }
    std::fprintf(stderr,
                 "krm-mbuf: %u packets read, %u cut into %u segments, %u copied (%u refused)\n",
                 c.ulRead, c.ulCut, c.ulSegs, c.ulCopied, c.ulRefused);
    return w.Good() && c.ulRefused == 0 ? kExitOk : kExitFailed;
}

}  // namespace krm::tool
