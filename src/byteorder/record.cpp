#include "byteorder/record.h"

#include "internal/bytes.h"
#include "internal/report.h"

namespace krm::byteorder {

void ReportOverrun(const Rec &r, std::uint64_t off, std::uint64_t width) {
    krm::Report(r.mod, 1310, "T %u field %u+%u beyond len %u", r.type,
                static_cast<std::uint32_t>(off), static_cast<std::uint32_t>(width), r.len);
}

bool Conv16(const Rec &r, std::uint64_t off) {
    if (!r.Fits(off, 2)) {
        ReportOverrun(r, off, 2);
        return false;
    }
    SwapInPlace16(r.p + off);
    return true;
}

bool Conv32(const Rec &r, std::uint64_t off) {
    if (!r.Fits(off, 4)) {
        ReportOverrun(r, off, 4);
        return false;
    }
    SwapInPlace32(r.p + off);
    return true;
}

bool ReadByte(const Rec &r, std::uint64_t off, std::uint8_t &out) {
    if (!r.Fits(off, 1)) {
        ReportOverrun(r, off, 1);
        return false;
    }
    out = r.p[off];
    return true;
}

std::uint16_t Host16(const Rec &r, std::uint32_t off) {
    return Load16At(r.p, off);
}

std::uint32_t Host32(const Rec &r, std::uint32_t off) {
    return Load32At(r.p, off);
}

bool ConvFields(const Rec &r, std::span<const Field> fields, std::uint64_t base) {
    for (const Field &f : fields) {
        const bool ok = f.width == 4 ? Conv32(r, base + f.off) : Conv16(r, base + f.off);
        if (!ok) {
            return false;
        }
    }
    return true;
}

TlvHead TakeHead(const Rec &r, std::uint32_t off, HeadBy by) {
    if (by == HeadBy::kWalker) {
        SwapInPlace16(r.p + off);
        SwapInPlace16(r.p + off + 2);
        return TlvHead{Load16At(r.p, off), Load16At(r.p, off + 2)};
    }
    return TlvHead{Swap16(Load16At(r.p, off)), Swap16(Load16At(r.p, off + 2))};
}

void ReportNoFit(const Rec &r, std::uint32_t line, const TlvHead &head, std::uint32_t left) {
    krm::Report(r.mod, line, "T %u ML %u TL %u", head.type, left, head.len + 4u);
}

}  // namespace krm::byteorder
