#include "image.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ostream>

namespace krm::test::bo {
namespace {

// Calls fn(letter, rest) for each blank-separated token of a notation.
template <class Fn>
void Tokens(std::string_view text, Fn &&fn) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        const std::size_t end = std::min(text.find(' ', pos), text.size());
        if (end > pos) {
            fn(text[pos], text.substr(pos + 1, end - pos - 1));
        }
        pos = end + 1;
    }
}

std::uint32_t Num(std::string_view s) {
    return static_cast<std::uint32_t>(std::stoul(std::string(s), nullptr, 0));
}

Bytes CommImage() {
    Bytes b = Pattern(MBUF_CTL_COMM_LEN, 0x40);
    Put32(b, 80, 0xFF5A3C21u);  // a top byte of 0xFF: converted plainly
    return b;
}

}  // namespace

Fields P(std::string_view text) {
    Fields out;
    Tokens(text, [&](char kind, std::string_view rest) {
        EXPECT_TRUE(kind == 'w' || kind == 'h') << text;
        const std::uint32_t width = kind == 'w' ? 4 : 2;
        const std::size_t dots = rest.find("..");
        const std::uint32_t first = Num(rest.substr(0, dots));
        const std::uint32_t last = dots == rest.npos ? first : Num(rest.substr(dots + 2));
        for (std::uint32_t off = first; off <= last; off += width) {
            out.push_back(F{off, width});
        }
    });
    return out;
}

Fields At(std::uint32_t base, const Fields &fields) {
    Fields out = fields;
    for (F &f : out) {
        f.off += base;
    }
    return out;
}

Fields operator+(Fields a, const Fields &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::uint32_t Extent(const Fields &fields) {
    std::uint32_t end = 0;
    for (const F &f : fields) {
        end = std::max(end, f.off + f.width);
    }
    return end;
}

Bytes Pattern(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) {
        // An odd step modulo 256 keeps any four neighbours distinct.
        b[i] = static_cast<std::uint8_t>(0x11u + seed + i * 0x3Bu);
    }
    return b;
}

Bytes Head(const Bytes &b, std::size_t n) {
    return Bytes(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(n));
}

void Put16(Bytes &b, std::uint32_t off, std::uint32_t v) {
    const auto s = static_cast<std::uint16_t>(v);
    std::memcpy(&b.at(off + 1) - 1, &s, 2);
}
void Put32(Bytes &b, std::uint32_t off, std::uint32_t v) {
    std::memcpy(&b.at(off + 3) - 3, &v, 4);
}
std::uint16_t Get16(const Bytes &b, std::uint32_t off) {
    std::uint16_t v;
    std::memcpy(&v, &b.at(off + 1) - 1, 2);
    return v;
}

void Set(Bytes &b, std::string_view text) {
    Tokens(text, [&](char kind, std::string_view rest) {
        const std::size_t eq = rest.find('=');
        const std::uint32_t off = Num(rest.substr(0, eq));
        const std::uint32_t v = Num(rest.substr(eq + 1));
        if (kind == 'b') {
            b.at(off) = static_cast<std::uint8_t>(v);
        } else if (kind == 'h') {
            Put16(b, off, v);
        } else {
            Put32(b, off, v);
        }
    });
}

std::string Fmt(const char *fmt, ...) {
    char buf[256];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return buf;
}

Bytes Foreign(const Bytes &host, const Fields &fields) {
    Bytes out = host;
    for (const F &f : fields) {
        if (f.off + f.width > host.size()) {
            ADD_FAILURE() << "field " << f.off << "+" << f.width << " leaves the image";
            continue;
        }
        // A non-zero field that reads the same both ways would not show
        // whether it was converted.
        const auto at = out.begin() + f.off;
        EXPECT_TRUE(!std::equal(at, at + f.width, std::make_reverse_iterator(at + f.width)) ||
                    std::all_of(at, at + f.width, [](std::uint8_t x) { return x == 0; }))
            << "field at " << f.off << " reads the same both ways";
        std::reverse(at, at + f.width);
    }
    return out;
}

::testing::AssertionResult SameBytes(const Bytes &expected, const Bytes &actual) {
    const auto [e, a] =
        std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    if (e == expected.end() && a == actual.end()) {
        return ::testing::AssertionSuccess();
    }
    auto failure = ::testing::AssertionFailure();
    failure << "sizes " << expected.size() << " and " << actual.size() << ", first difference at "
            << (e - expected.begin());
    if (e != expected.end() && a != actual.end()) {
        failure << ": want " << unsigned{*e} << " got " << unsigned{*a};
    }
    return failure;
}

Img operator+(Img a, const Img &b) {
    a.f = a.f + At(static_cast<std::uint32_t>(a.b.size()), b.f);
    a.b.insert(a.b.end(), b.b.begin(), b.b.end());
    return a;
}

Img Sub(std::uint16_t type, std::uint32_t len, const Fields &value, std::uint8_t seed) {
    Img s{Pattern(len, seed), P("h0 h2") + value};
    Put16(s.b, 0, type);
    Put16(s.b, 2, len - 4);
    return s;
}

Img Tlv(std::uint16_t type, const Img &value, std::int32_t delta, const char *head) {
    Img t{Bytes(4), P(head)};
    Put16(t.b, 0, type);
    Put16(t.b, 2, static_cast<std::uint32_t>(static_cast<std::int32_t>(value.b.size()) + delta));
    return t + value;
}

// ---- Block -------------------------------------------------------------------

Block::Block() : image_(MBUF_CTL_FIXED_LEN + MBUF_CTL_INIT_CAPACITY, 0) {
    const Bytes comm = CommImage();
    std::copy(comm.begin(), comm.end(), image_.begin());
    // The record area's unused tail keeps a pattern of its own, so that a
    // stray write shows there too.
    const Bytes tail = Pattern(MBUF_CTL_INIT_CAPACITY, 0x77);
    std::copy(tail.begin(), tail.end(), image_.begin() + MBUF_CTL_FIXED_LEN);
}

std::uint32_t Block::Add(std::uint32_t type, const Img &rec, std::int32_t slotLen) {
    const std::uint32_t off = UsedEnd();
    std::copy(rec.b.begin(), rec.b.end(), image_.begin() + off);
    records_.emplace_back(type, At(off, rec.f));
    const auto size = static_cast<std::uint32_t>(rec.b.size());
    Put16(image_, 92 + 4 * type, off);
    Put16(image_, 94 + 4 * type, slotLen < 0 ? size : static_cast<std::uint32_t>(slotLen));
    used_ += size;
    return off;
}

Bytes Block::Host() const {
    Bytes b = image_;
    const auto recs = static_cast<std::uint32_t>(recNum < 0 ? records_.size() : recNum);
    // The head bytes as the one word they travel as.
    Put32(b, 84, (MBUF_CTL_BLK_MARK << 24) | (MBUF_BYTEORDER_HOST << 16) | (slotNum << 8) | recs);
    Put16(b, 88, used_);
    Put16(b, 90, MBUF_CTL_INIT_CAPACITY);
    return b;
}

Fields Block::ForeignFields() const {
    Fields f = P("w84 h88 h90");
    const std::uint32_t slots = std::min<std::uint32_t>(slotNum, MBUF_CTL_TYPE_NUM);
    for (std::uint32_t i = 0; i < slots; ++i) {
        f = f + At(92 + 4 * i, P("h0 h2"));
    }
    if (slots != 0) {
        f = f + P(kCommFields);
        for (const auto &[type, fields] : records_) {
            if (type < slots) {
                f = f + fields;
            }
        }
    }
    return f;
}

std::vector<Seen> ReportsOf(const std::string &module) {
    std::vector<Seen> out;
    for (const Report &r : Reports()) {
        if (r.file == module) {
            out.emplace_back(r.line, r.text);
        }
    }
    return out;
}

std::string FdPro() {
    const Bytes comm = CommImage();
    std::uint32_t fd;
    std::memcpy(&fd, comm.data() + 28, 4);
    return Fmt("Fd %u Pro %u", fd, unsigned{Get16(comm, 40)});
}

// Both framework paths: the inline block of a packet-header node, and a
// received tag message of exactly the used bytes.
void ExpectFrameworkRestores(const Block &block) {
    const Bytes host = block.Host();
    const Bytes foreign = block.ForeignImage();
    auto node = NewNode();
    node->ulFlag = MBUF_PKTHDR;
    node->pstCtlInfo = &node->stCtlInfo.stBlk;
    std::copy(foreign.begin(), foreign.end(), node->stCtlInfo.aucRaw);
    // The inline block is all the walk may touch of the node, whatever the
    // block claims: the rest must read the same afterwards.
    const auto rest = [&node] {
        Bytes b(reinterpret_cast<const std::uint8_t *>(node.get()),
                reinterpret_cast<const std::uint8_t *>(node.get() + 1));
        std::fill_n(b.begin() + offsetof(MBUF_S, stCtlInfo), MBUF_CTLINFO_INLINE_LEN, 0);
        return b;
    };
    const Bytes outside = rest();
    KRM_HOST_ReportClear();
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    const std::uint8_t *raw = node->stCtlInfo.aucRaw;
    EXPECT_TRUE(SameBytes(host, Bytes(raw, raw + MBUF_CTLINFO_INLINE_LEN)))
        << "inline block of a packet-header node";
    EXPECT_TRUE(SameBytes(outside, rest())) << "wrote outside the inline block";

    Bytes msg = Head(foreign, block.UsedEnd());
    MBUF_TagByteOrderTrans(msg.data(), static_cast<std::uint32_t>(msg.size()));
    EXPECT_TRUE(SameBytes(Head(host, block.UsedEnd()), msg)) << "tag message";
    EXPECT_EQ(Reports().size(), 0u);
    KRM_HOST_ReportClear();
}

}  // namespace krm::test::bo
