#include "wire.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"

namespace krm::tool {
namespace {

constexpr std::uint32_t kProbe = 0x12345678;
constexpr std::uint32_t kTlvHead = 20;
constexpr std::uint32_t kImageWords = 28;
constexpr std::uint32_t kMsgHead = 8;
constexpr std::uint32_t kHeadWordOff = offsetof(MBUF_CONTROL_BLK_S, stComm) + MBUF_CTL_COMM_LEN;
constexpr std::uint32_t kUsedOff = offsetof(MBUF_CONTROL_BLK_S, usUsedLen);
constexpr std::uint32_t kCapOff = offsetof(MBUF_CONTROL_BLK_S, usCapacity);
constexpr std::uint32_t kSlotsOff = offsetof(MBUF_CONTROL_BLK_S, astSlot);
constexpr std::uint8_t kOtherOrder =
    MBUF_BYTEORDER_HOST == MBUF_BYTEORDER_BIG ? MBUF_BYTEORDER_LITTLE : MBUF_BYTEORDER_BIG;
static_assert(kHeadWordOff == 84 && kSlotsOff == 92 && sizeof(MBUF_CONTROL_BLK_S) == 184);

std::string Fmt(const char *pcFmt, unsigned long a, unsigned long b = 0, unsigned long c = 0) {
    return Reason(pcFmt, a, b, c);
}

// Reads fields of a buffer written in one byte order; callers check bounds.
struct Reader {
    const std::uint8_t *p;
    std::size_t n;
    bool bSwap;
    std::uint16_t U16(std::size_t off) const {
        const std::uint16_t v = Load16(p + off);
        return bSwap ? Swap16(v) : v;
    }
    std::uint32_t U32(std::size_t off) const {
        const std::uint32_t v = Load32(p + off);
        return bSwap ? Swap32(v) : v;
    }
};

void Put16(std::vector<std::uint8_t> &v, std::size_t off, std::uint16_t x, bool bSwap) {
    Store16(&v[off], bSwap ? Swap16(x) : x);
}
void Put32(std::vector<std::uint8_t> &v, std::size_t off, std::uint32_t x, bool bSwap) {
    Store32(&v[off], bSwap ? Swap32(x) : x);
}

// The received block is converted the way the receive paths convert it:
// the library's translation walk, bounded by the bytes handed to it.
void ToHostOrder(std::vector<std::uint8_t> &vBlock, std::uint8_t ucOrder) {
    if (ucOrder != 0 && ucOrder != MBUF_BYTEORDER_HOST && !vBlock.empty()) {
        MBUF_TagByteOrderTrans(vBlock.data(), static_cast<std::uint32_t>(vBlock.size()));
    }
}

struct TlvRecord {
    std::uint32_t ulType;
    const std::uint8_t *p;
    std::uint32_t ulLen;
};

// A block in the writer's order holding the stream's records, laid out one
// after another as a writer's block would hold them.
std::vector<std::uint8_t> BlockFromRecords(const std::vector<TlvRecord> &vRecs,
                                           std::uint8_t ucOrder, bool bSwap) {
    std::uint32_t ulUsed = 0;
    bool abSeen[MBUF_CTL_TYPE_NUM] = {};
    for (const auto &r : vRecs) {
        if (r.ulType != MBUF_CTL_COMM && !abSeen[r.ulType]) {
            abSeen[r.ulType] = true;
            ulUsed += r.ulLen;
        }
    }
    std::vector<std::uint8_t> v(MBUF_CTL_FIXED_LEN + ulUsed, 0);
    std::uint32_t ulAt = MBUF_CTL_FIXED_LEN;
    std::uint32_t ulRecs = 0;
    std::memset(abSeen, 0, sizeof(abSeen));
    for (const auto &r : vRecs) {
        if (r.ulType == MBUF_CTL_COMM) {  // a repeated common record overwrites
            std::memcpy(v.data(), r.p, r.ulLen < MBUF_CTL_COMM_LEN ? r.ulLen : MBUF_CTL_COMM_LEN);
            continue;
        }
        if (abSeen[r.ulType] || ulAt + r.ulLen > 0xFFFF) {
            continue;  // the first of a type is the one a receiver keeps
        }
        abSeen[r.ulType] = true;
        Put16(v, kSlotsOff + 4 * r.ulType, static_cast<std::uint16_t>(ulAt), bSwap);
        Put16(v, kSlotsOff + 4 * r.ulType + 2, static_cast<std::uint16_t>(r.ulLen), bSwap);
        std::memcpy(&v[ulAt], r.p, r.ulLen);
        ulAt += r.ulLen;
        ++ulRecs;
    }
    const std::uint32_t ulHead = (MBUF_CTL_BLK_MARK << 24) | (std::uint32_t{ucOrder} << 16) |
                                 (MBUF_CTL_TYPE_NUM << 8) | ulRecs;
    Put32(v, kHeadWordOff, ulHead, bSwap);
    Put16(v, kUsedOff, static_cast<std::uint16_t>(ulUsed), bSwap);
    Put16(v, kCapOff, static_cast<std::uint16_t>(ulUsed), bSwap);
    return v;
}

std::optional<std::string> DecodeTlv(const Reader &r, Decoded &stOut) {
    const std::uint8_t ucOrder = r.bSwap ? kOtherOrder : MBUF_BYTEORDER_HOST;
    stOut.eKind = WireKind::kTlvStream;
    stOut.ucOrder = ucOrder;
    const std::uint32_t ulCount = r.U16(0);
    const std::uint32_t ulStream = r.U16(2) + 16u;
    if (ulStream > r.n) {
        return Fmt("TLV stream cut short: %lu bytes of %lu", r.n, ulStream);
    }
    if (r.U16(16) != 0xFFFF) {
        stOut.vNotes.push_back(Fmt("data TLV type 0x%04lx, not 0xffff", r.U16(16)));
    }
    const std::uint32_t ulData = r.U16(18);
    if (kTlvHead + ulData > r.n) {
        return Fmt("TLV stream cut short: %lu data bytes, %lu left", ulData, r.n - kTlvHead);
    }
    DecodedPacket stPkt;
    stPkt.vData.assign(r.p + kTlvHead, r.p + kTlvHead + ulData);
    stPkt.stWords.ulFlag2 = r.U32(8);
    std::vector<TlvRecord> vRecs;
    std::size_t ulAt = kTlvHead + ulData;
    for (std::uint32_t i = 1; i < ulCount && i <= MBUF_CTL_TYPE_NUM; ++i) {
        if (ulAt + 4 > r.n) {
            return Fmt("TLV stream cut short: record %lu of %lu missing", i, ulCount - 1);
        }
        const std::uint32_t ulType = r.U16(ulAt);
        const std::uint32_t ulLen = r.U16(ulAt + 2);
        if (ulLen == 0 || ulType >= MBUF_CTL_TYPE_NUM) {
            stOut.vNotes.push_back(
                Fmt("record %lu: type %lu length %lu, records stop here", i, ulType, ulLen));
            break;
        }
        if (ulAt + 4 + ulLen > r.n) {
            return Fmt("TLV stream cut short: record type %lu needs %lu bytes, %lu left", ulType,
                       ulLen, r.n - ulAt - 4);
        }
        vRecs.push_back({ulType, r.p + ulAt + 4, ulLen});
        ulAt += 4 + ulLen;
    }
    stPkt.vBlock = BlockFromRecords(vRecs, ucOrder, r.bSwap);
    stPkt.vWireBlock = stPkt.vBlock;
    ToHostOrder(stPkt.vBlock, ucOrder);
    stOut.vPackets.push_back(std::move(stPkt));
    return std::nullopt;
}

// The writer's order of an image: the one in which its block head carries
// the block mark (an image without block: the one whose data length spans
// it exactly).
std::optional<bool> ImageSwap(const std::uint8_t *p, std::size_t n) {
    if (n < 4) {
        return std::nullopt;
    }
    for (const bool bSwap : {false, true}) {
        const Reader r{p, n, bSwap};
        const std::uint64_t ullD = r.U32(0);
        if (ullD + 4 == n) {
            return bSwap;
        }
        if (ullD + 4 + MBUF_CTL_FIXED_LEN <= n &&
            (r.U32(ullD + 4 + kHeadWordOff) >> 24) == MBUF_CTL_BLK_MARK) {
            return bSwap;
        }
    }
    return std::nullopt;
}

std::optional<std::string> DecodeImage(const Reader &r, Decoded &stOut) {
    const std::uint32_t ulD = r.U32(0);
    DecodedPacket stPkt;
    stPkt.vData.assign(r.p + 4, r.p + 4 + ulD);
    const std::size_t ulBlk = 4 + std::size_t{ulD};
    if (ulBlk == r.n) {
        stOut.ucOrder = r.bSwap ? kOtherOrder : MBUF_BYTEORDER_HOST;
        stOut.vPackets.push_back(std::move(stPkt));
        return std::nullopt;
    }
    const std::uint32_t ulHead = r.U32(ulBlk + kHeadWordOff);
    const std::uint32_t ulSlots = (ulHead >> 8) & 0xFF;
    const std::uint32_t ulUsed = r.U16(ulBlk + kUsedOff);
    const std::size_t ulFixed = 92 + 4 * std::size_t{ulSlots};
    if (ulSlots != MBUF_CTL_TYPE_NUM) {
        return Fmt("serial image with a %lu-slot block: only the %lu-slot layout is decoded",
                   ulSlots, MBUF_CTL_TYPE_NUM);
    }
    if (ulBlk + ulFixed + ulUsed + kImageWords > r.n) {
        return Fmt("serial image cut short: block and header words need %lu bytes, %lu left",
                   ulFixed + ulUsed + kImageWords, r.n - ulBlk);
    }
    if (ulBlk + ulFixed + ulUsed + kImageWords < r.n) {
        stOut.vNotes.push_back(Fmt("%lu bytes after the header words",
                                   r.n - (ulBlk + ulFixed + ulUsed + kImageWords)));
    }
    stOut.ucOrder = static_cast<std::uint8_t>(ulHead >> 16);
    if (stOut.ucOrder == 0) {
        stOut.ucOrder = MBUF_BYTEORDER_HOST;  // a block of code 0 is taken as local
    }
    stPkt.vBlock.assign(r.p + ulBlk, r.p + ulBlk + ulFixed + ulUsed);
    stPkt.vWireBlock = stPkt.vBlock;
    ToHostOrder(stPkt.vBlock, stOut.ucOrder);
    const std::size_t ulW = ulBlk + ulFixed + ulUsed;
    stPkt.stWords.oTotalLen = r.U32(ulW + 4);
    stPkt.stWords.oFlag3 = r.U32(ulW + 8);
    stPkt.stWords.ulFlag2 = r.U32(ulW + 20);
    stOut.vPackets.push_back(std::move(stPkt));
    return std::nullopt;
}

std::optional<std::string> DecodeImageAt(const std::uint8_t *p, std::size_t n, Decoded &stOut) {
    const auto oSwap = ImageSwap(p, n);
    if (!oSwap) {
        return "not a serial image";
    }
    return DecodeImage(Reader{p, n, *oSwap}, stOut);
}

}  // namespace

// Callers pass literal formats of up to three %lu/%lx conversions.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string Reason(const char *pcFmt, unsigned long a, unsigned long b, unsigned long c) {
    char ac[160];
    (void)std::snprintf(ac, sizeof(ac), pcFmt, a, b, c);
    return ac;
}
#pragma GCC diagnostic pop

const char *WireKindName(WireKind eKind) {
    switch (eKind) {
        case WireKind::kTlvStream:
            return "tlv-stream";
        case WireKind::kSerialImage:
            return "serial-image";
        case WireKind::kMessage:
            return "message";
        case WireKind::kPipePackage:
            return "pipe-package";
    }
    return "?";
}

const char *OrderName(std::uint8_t ucOrder) {
    return ucOrder == MBUF_BYTEORDER_BIG      ? "big-endian"
           : ucOrder == MBUF_BYTEORDER_LITTLE ? "little-endian"
                                              : "unknown";
}

std::optional<std::string> Decode(const std::uint8_t *p, std::size_t n, Decoded *pstOut) {
    Decoded &stOut = *pstOut;
    stOut = Decoded{};
    if (n >= sizeof(kPackageMagic) && std::memcmp(p, kPackageMagic, sizeof(kPackageMagic)) == 0) {
        stOut.eKind = WireKind::kPipePackage;
        return DecodePackage(p, n, stOut);
    }
    if (n >= kTlvHead && (Load32(p + 4) == kProbe || Load32(p + 4) == Swap32(kProbe))) {
        return DecodeTlv(Reader{p, n, Load32(p + 4) != kProbe}, stOut);
    }
    // A message: its big-endian size (low 16 bits) and a zero word ahead of
    // an image.
    if (n >= kMsgHead + 4 && LoadBe16(p) == (n & 0xFFFF) && Load32(p + 4) == 0 &&
        ImageSwap(p + kMsgHead, n - kMsgHead)) {
        stOut.eKind = WireKind::kMessage;
        return DecodeImageAt(p + kMsgHead, n - kMsgHead, stOut);
    }
    if (ImageSwap(p, n)) {
        stOut.eKind = WireKind::kSerialImage;
        return DecodeImageAt(p, n, stOut);
    }
    if (n < kTlvHead) {
        return Fmt("%lu bytes: too short for any packet form", n);
    }
    return std::string("no TLV probe, block mark, message head or package magic: not a packet");
}

}  // namespace krm::tool
