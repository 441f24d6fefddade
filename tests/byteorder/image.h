// Record images for the byte-order tests.
//
// A test writes a record in this host's order (distinct byte pattern, with
// selectors and counts set), lists the fields its layout defines, and derives
// the image a sender of the other order would have sent by reversing exactly
// those fields. Translating that foreign image must give back the host image
// byte for byte: a field left out, an extra field or a stray write all show.
// The same test body serves both builds, whichever order is foreign.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
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
inline F U16(std::uint32_t off) {
    return F{off, 2};
}
inline F U32(std::uint32_t off) {
    return F{off, 4};
}
using Fields = std::vector<F>;

// count fields of one width from first, step bytes apart.
Fields Seq(std::uint32_t first, std::uint32_t count, std::uint32_t width, std::uint32_t step);
// The fields moved by base; several lists joined.
Fields At(std::uint32_t base, const Fields &fields);
Fields Join(std::initializer_list<Fields> lists);

// n bytes in which neighbours always differ, so that reversing any 2 or 4
// of them changes the image.
Bytes Pattern(std::size_t n, std::uint8_t seed = 0);

// Host-order stores and loads at an offset.
void Put16(Bytes &b, std::uint32_t off, std::uint16_t v);
void Put32(Bytes &b, std::uint32_t off, std::uint32_t v);
std::uint16_t Get16(const Bytes &b, std::uint32_t off);
std::uint32_t Get32(const Bytes &b, std::uint32_t off);

// The image a sender of the other byte order leaves: every listed field
// reversed. Fails the test when a field overlaps another or leaves the
// image, or when a non-zero field reads the same both ways (the test would
// not see it converted).
Bytes Foreign(const Bytes &host, const Fields &fields);

// Byte-for-byte comparison naming the differing offsets.
::testing::AssertionResult SameBytes(const Bytes &expected, const Bytes &actual);

// One record layout under test: its size, the fields the sender's order
// reverses, and the selectors and counts (set in host order) that pick them.
struct Layout {
    std::string name;
    std::uint32_t len;
    Fields fields;
    std::function<void(Bytes &)> setup = [](Bytes &) {};
};

// The host image of a layout.
Bytes HostImage(const Layout &layout, std::uint8_t seed = 0);

// ---- the framework's view: a control block --------------------------------

// A control block in host order with records placed behind the fixed part,
// and the list of every field a foreign sender would have reversed: the
// head word, the two lengths, each slot below the slot count (at most 23),
// the common record and each record's own fields.
class Block {
  public:
    explicit Block(std::uint32_t capacity = MBUF_CTL_INIT_CAPACITY);

    // Places a record of the given type with its host image and fields;
    // the slot gets the record's length unless slotLen says otherwise.
    std::uint32_t Add(std::uint32_t type, const Bytes &image, const Fields &fields,
                      std::int32_t slotLen = -1);

    // Overrides the head; by default the slot count is 23 and the record
    // count the number of records added.
    void SetSlotNum(std::uint8_t n) { slotNum_ = n; }
    void SetRecNum(std::uint8_t n) { recNum_ = n; }

    Bytes Host() const;
    Fields ForeignFields() const;
    Bytes ForeignImage() const { return Foreign(Host(), ForeignFields()); }
    std::uint32_t UsedEnd() const { return MBUF_CTL_FIXED_LEN + used_; }

  private:
    Bytes image_;
    std::vector<std::pair<std::uint32_t, Fields>> recordFields_;  // by type
    std::uint16_t capacity_;
    std::uint16_t used_ = 0;
    std::uint8_t slotNum_ = MBUF_CTL_TYPE_NUM;
    std::int32_t recNum_ = -1;
    std::uint8_t added_ = 0;
};

// The common record's fields, and a host image of it whose word at 80
// converts plainly (its top byte is 0xFF).
Fields CommFields();
Bytes CommImage();

// The reports captured so far, as (line, text) of the given module, and a
// helper to compare them.
struct Seen {
    std::uint32_t line;
    std::string text;
    bool operator==(const Seen &) const = default;
};
std::vector<Seen> ReportsOf(const std::string &module);
void PrintTo(const Seen &seen, std::ostream *os);

inline constexpr const char *kTrans = "mbuf_bas_byteorder_trans";
inline constexpr const char *kPktSnd = "mbuf_bas_byteorder_pktsnd";

}  // namespace krm::test::bo

namespace krm::test::bo {

// A value-initialised node on the heap, as a receiver holds it.
std::unique_ptr<MBUF_S> NewNode();

// A foreign block run through both framework paths: the packet-header
// node's inline block, and a received tag message of exactly the used bytes.
// Each path's result and the reports it raised (module, line, text).
struct PathResult {
    Bytes bytes;
    std::vector<Seen> trans;
    std::vector<Seen> pktSnd;
};
struct Paths {
    PathResult node;
    PathResult msg;
};
Paths RunBothPaths(const Block &block);

// Expects both paths to give back the host image with no report.
void ExpectFrameworkRestores(const Block &block);

// The largest end of the fields, and those that lie within bound, in order,
// up to the first that does not.
std::uint32_t Extent(const Fields &fields);
Fields Prefix(const Fields &fields, std::uint32_t bound);
// The fields of all that are not in removed (compared by offset).
Fields Without(const Fields &all, const Fields &removed);

// The common record's socket id and protocol type as reports print them.
std::string FdPro();

}  // namespace krm::test::bo

namespace krm::test::bo {

// A sub-TLV layout: head (type, value length) set in host order, the value
// a pattern, then the layout's own setup.
Bytes SubTlvImage(const Layout &layout, std::uint16_t type, std::uint8_t seed = 0);

// A TLV record in host order: a 4-byte head (a type word, then the list
// length) and sub-TLVs appended whole with the fields a foreign sender
// reversed in each (their heads included). The record's type word is among
// them only when its walk converts it.
class TlvList {
  public:
    explicit TlvList(bool typeWordConverted) : typeWordConverted_(typeWordConverted) {}
    void Append(const Bytes &sub, const Fields &fields);
    void AppendRaw(const Bytes &bytes) { body_.insert(body_.end(), bytes.begin(), bytes.end()); }
    std::uint32_t ListLen() const { return static_cast<std::uint32_t>(body_.size()); }
    // The image with the given list length (default: the bytes appended).
    Bytes Host(std::int32_t listLen = -1) const;
    Fields ForeignFields() const;

  private:
    bool typeWordConverted_;
    Bytes body_;
    Fields fields_;
};

}  // namespace krm::test::bo
