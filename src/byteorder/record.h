// The machinery every byte-order translator shares.
//
// The receiver makes it right: a translator turns the 16-bit and 32-bit
// fields of one record from the sender's order into this host's, in place,
// and reads a length, count or selector only after converting it. Bytes and
// byte arrays are never touched.
//
// Every translator is written once, against a Rec that carries the record's
// bound. The exported one-argument translators trust their record and run
// with kTrusted; the framework passes the memory the record lies in (from
// the record to the end of the block's inline area, its pipe buffer, or the
// received message). Translators trust the record's own lengths, so a field
// beyond a record's slot or a sub-TLV's length is converted all the same;
// only a field that would leave that memory is reported and ends the
// record's conversion: nothing outside [p, p + len) is ever read or written,
// and a well-formed record converts exactly as it would trusted.
#pragma once

#include <cstdint>
#include <span>

#include "krm_mbuf/mbuf.h"

namespace krm::byteorder {

// The bound of a trusted record.
inline constexpr std::uint32_t kTrusted = 0xFFFFFFFFu;

// Result of a record or packet-send translator that stopped at its bound.
inline constexpr std::int32_t kStopped = 1;

struct Rec {
    std::uint8_t *p;
    std::uint32_t len;   // bytes from p the conversion may touch
    std::uint32_t type;  // the record's type, named in overrun reports
    const char *mod;     // module of the record's family, for its reports

    bool Fits(std::uint64_t off, std::uint64_t width) const { return off + width <= len; }

    // The part of this record from off on: a sub-TLV or nested TLV, which
    // its translator may convert past its own length, up to this record's
    // bound. The caller has checked that off lies within it; parts of a
    // trusted record are trusted too.
    Rec Part(std::uint32_t off, std::uint32_t partType, const char *partMod) const {
        return Rec{p + off, len == kTrusted ? kTrusted : len - off, partType, partMod};
    }
};

// A fixed field of a record: its offset and width (2 or 4).
struct Field {
    std::uint16_t off;
    std::uint8_t width;
};
constexpr Field W16(std::uint16_t off) {
    return Field{off, 2};
}
constexpr Field W32(std::uint16_t off) {
    return Field{off, 4};
}

// Reverses the field at off. False, after reporting, when it would leave
// the record.
bool Conv16(const Rec &r, std::uint64_t off);
bool Conv32(const Rec &r, std::uint64_t off);

// Reads a one-byte selector or count (no conversion needed). False, after
// reporting, when it lies outside the record.
bool ReadByte(const Rec &r, std::uint64_t off, std::uint8_t &out);

// Host-order reads of fields the caller has just converted (so they fit).
std::uint16_t Host16(const Rec &r, std::uint32_t off);
std::uint32_t Host32(const Rec &r, std::uint32_t off);

// Converts the listed fields in order, each at base + its offset. False
// after the first that would leave the record (reported; those before it
// stay converted).
bool ConvFields(const Rec &r, std::span<const Field> fields, std::uint64_t base = 0);

// Reports that a record's field or length reaches past its bound.
void ReportOverrun(const Rec &r, std::uint64_t off, std::uint64_t width);

// ---- sub-TLV lists ---------------------------------------------------------

struct TlvHead {
    std::uint16_t type;
    std::uint16_t len;  // of the value; the 4 head bytes are not counted
};

// Who converts a sub-TLV's head: the walker, or the sub-TLV's translator
// (the walker then reads it in converted form without writing it back).
enum class HeadBy { kWalker, kTranslator };

// Reads the head at off in converted form, converting it in place when the
// walker owns it. The caller has checked that it fits.
TlvHead TakeHead(const Rec &r, std::uint32_t off, HeadBy by);

void ReportNoFit(const Rec &r, std::uint32_t line, const TlvHead &head, std::uint32_t left);

// Walks the sub-TLVs that fill `left` bytes of r from offset `first`, as the
// list length says; the caller has checked left >= 4. Each sub-TLV that fits
// the list is handed to visit(head, offset); when fewer than 4 bytes remain
// the walk ends with 0. One that does not fit is reported as
// "T %u ML %u TL %u" at (r.mod, noFitLine) and the walk ends with 1. A head
// that would lie outside r's bound is reported as an overrun and ends the
// walk with kStopped.
template <class Visit>
std::int32_t WalkTlvs(const Rec &r, std::uint32_t first, std::uint32_t left, HeadBy by,
                      std::uint32_t noFitLine, Visit &&visit) {
    std::uint64_t pos = first;
    for (;;) {
        if (!r.Fits(pos, 4)) {
            ReportOverrun(r, pos, 4);
            return kStopped;
        }
        const TlvHead head = TakeHead(r, static_cast<std::uint32_t>(pos), by);
        const std::uint32_t total = std::uint32_t{head.len} + 4u;
        if (!(std::uint32_t{head.len} + 3u < left)) {
            ReportNoFit(r, noFitLine, head, left);
            return 1;
        }
        visit(head, static_cast<std::uint32_t>(pos));
        pos += total;
        left -= total;
        if (left < 4u) {
            return 0;
        }
    }
}

// ---- the translators behind the exported tables -----------------------------

using CtlFn = std::int32_t (*)(const Rec &);     // control-info records
using LinkFn = void (*)(const Rec &);            // link sub-TLVs
using PktSndFn = std::int32_t (*)(const Rec &);  // packet-send sub-TLVs
using NestFn = void (*)(const Rec &);            // nested tunnel and no-path TLVs

// The bounded twin of each entry of the exported tables, by the same index
// or, for packet-send, the same first-match search; null where the exported
// table has no translator. Link types from 25 on go to the encapsulation
// translator.
CtlFn CtlTranslator(std::uint32_t type);
LinkFn LinkTranslator(std::uint32_t type);
PktSndFn PktSndTranslator(std::uint16_t type);
NestFn TnlTranslator(std::uint32_t type);
NestFn NoPathTranslator(std::uint32_t type);

}  // namespace krm::byteorder
