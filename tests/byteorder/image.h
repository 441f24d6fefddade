// Record images for the byte-order tests.
//
// A test writes a record in this host's order (a distinct byte pattern, with
// selectors and counts set), lists the fields its layout defines, and derives
// the image a sender of the other order would have sent by reversing exactly
// those fields. Translating that foreign image must give back the host image
// byte for byte: a field left out, an extra field or a stray write all show.
// The same test body serves both builds, whichever order is foreign.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host_test.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test::bo {

using Bytes = std::vector<std::uint8_t>;

// A 16-bit or 32-bit field at a byte offset.
struct F {
    std::uint32_t off;
    std::uint32_t width;
};
using Fields = std::vector<F>;

// Fields in conversion order, written "w0..12 h14 w16": w a 32-bit word, h a
// 16-bit half, a..b every field from a to b, one width apart.
Fields P(std::string_view text);
Fields At(std::uint32_t base, const Fields &fields);
Fields operator+(Fields a, const Fields &b);
// The largest end of the fields.
std::uint32_t Extent(const Fields &fields);

// n bytes in which neighbours always differ, so that reversing any 2 or 4
// of them changes the image.
Bytes Pattern(std::size_t n, std::uint8_t seed = 0);
Bytes Head(const Bytes &b, std::size_t n);
// Host-order stores and loads.
void Put16(Bytes &b, std::uint32_t off, std::uint32_t v);
void Put32(Bytes &b, std::uint32_t off, std::uint32_t v);
std::uint16_t Get16(const Bytes &b, std::uint32_t off);
// Host-order stores written "b4=3 h6=48 w80=0xFF010203" (byte, half, word).
void Set(Bytes &b, std::string_view text);
std::string Fmt(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The image a sender of the other byte order leaves: every listed field
// reversed. Fails the test when a field leaves the image, or when a
// non-zero field reads the same both ways (the test would not see it
// converted).
Bytes Foreign(const Bytes &host, const Fields &fields);
// Byte-for-byte comparison naming the first differing offset.
::testing::AssertionResult SameBytes(const Bytes &expected, const Bytes &actual);

// A host image with the fields a foreign sender reversed in it.
struct Img {
    Bytes b;
    Fields f;
};
inline Bytes Foreign(const Img &img) {
    return Foreign(img.b, img.f);
}
// b behind a, its fields moved along.
Img operator+(Img a, const Img &b);
// A sub-TLV of len bytes, head included: a pattern with its type and value
// length set; its head fields, then the value fields.
Img Sub(std::uint16_t type, std::uint32_t len, const Fields &value, std::uint8_t seed = 0);
// A TLV around value whose length says value's size + delta; head names the
// head fields the sender reversed ("h0 h2", "h2" or "").
Img Tlv(std::uint16_t type, const Img &value, std::int32_t delta = 0, const char *head = "h0 h2");

// The common record, every block's start.
inline constexpr const char *kCommFields = "w0..36 h40 h42 w44..60 h64 w68..80";

// A control block in host order with records placed behind the fixed part,
// and every field a foreign sender would have reversed: the head word, the
// two lengths, each slot below the slot count (at most 23), the common
// record and each record's own fields.
class Block {
  public:
    Block();
    // Places a record; its slot gets the record's length unless slotLen says
    // otherwise. Returns the record's offset.
    std::uint32_t Add(std::uint32_t type, const Img &rec, std::int32_t slotLen = -1);
    Bytes Host() const;
    Fields ForeignFields() const;
    Bytes ForeignImage() const { return Foreign(Host(), ForeignFields()); }
    std::uint32_t UsedEnd() const { return MBUF_CTL_FIXED_LEN + used_; }

    std::uint8_t slotNum = MBUF_CTL_TYPE_NUM;
    std::int32_t recNum = -1;  // by default the number of records added

  private:
    Bytes image_;
    std::vector<std::pair<std::uint32_t, Fields>> records_;  // by type
    std::uint32_t used_ = 0;
};

// The reports captured so far of one module, as (line, text).
using Seen = std::pair<std::uint32_t, std::string>;
std::vector<Seen> ReportsOf(const std::string &module);
inline constexpr const char *kTrans = "mbuf_bas_byteorder_trans";
inline constexpr const char *kPktSnd = "mbuf_bas_byteorder_pktsnd";
// The block's socket id and protocol type as the failure reports print them.
std::string FdPro();

// A value-initialised node on the heap, as a receiver holds it.
inline std::unique_ptr<MBUF_S> NewNode() {
    return std::make_unique<MBUF_S>();
}

// Expects both paths to give back the host image with no report.
void ExpectFrameworkRestores(const Block &block);

}  // namespace krm::test::bo
