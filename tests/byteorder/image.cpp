#include "image.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <sstream>

namespace krm::test::bo {

Fields Seq(std::uint32_t first, std::uint32_t count, std::uint32_t width, std::uint32_t step) {
    Fields out;
    for (std::uint32_t i = 0; i < count; ++i) {
        out.push_back(F{first + i * step, width});
    }
    return out;
}

Fields At(std::uint32_t base, const Fields &fields) {
    Fields out;
    for (const F &f : fields) {
        out.push_back(F{base + f.off, f.width});
    }
    return out;
}

Fields Join(std::initializer_list<Fields> lists) {
    Fields out;
    for (const Fields &l : lists) {
        out.insert(out.end(), l.begin(), l.end());
    }
    return out;
}

Bytes Pattern(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) {
        // An odd step modulo 256 keeps any four neighbours distinct.
        b[i] = static_cast<std::uint8_t>(0x11u + seed + i * 0x3Bu);
    }
    return b;
}

void Put16(Bytes &b, std::uint32_t off, std::uint16_t v) {
    std::memcpy(b.data() + off, &v, 2);
}
void Put32(Bytes &b, std::uint32_t off, std::uint32_t v) {
    std::memcpy(b.data() + off, &v, 4);
}
std::uint16_t Get16(const Bytes &b, std::uint32_t off) {
    std::uint16_t v;
    std::memcpy(&v, b.data() + off, 2);
    return v;
}
std::uint32_t Get32(const Bytes &b, std::uint32_t off) {
    std::uint32_t v;
    std::memcpy(&v, b.data() + off, 4);
    return v;
}

Bytes Foreign(const Bytes &host, const Fields &fields) {
    Bytes out = host;
    std::vector<bool> taken(host.size(), false);
    for (const F &f : fields) {
        if (f.off + f.width > host.size()) {
            ADD_FAILURE() << "field " << f.off << "+" << f.width << " leaves the image of "
                          << host.size();
            continue;
        }
        bool zero = true;
        bool symmetric = true;
        for (std::uint32_t i = 0; i < f.width; ++i) {
            if (taken[f.off + i]) {
                ADD_FAILURE() << "field at " << f.off << " overlaps another";
            }
            taken[f.off + i] = true;
            zero = zero && host[f.off + i] == 0;
            symmetric = symmetric && host[f.off + i] == host[f.off + f.width - 1 - i];
        }
        if (symmetric && !zero) {
            ADD_FAILURE() << "field at " << f.off << " reads the same both ways";
        }
        std::reverse(out.begin() + f.off, out.begin() + f.off + f.width);
    }
    return out;
}

::testing::AssertionResult SameBytes(const Bytes &expected, const Bytes &actual) {
    if (expected.size() != actual.size()) {
        return ::testing::AssertionFailure()
               << "sizes " << expected.size() << " and " << actual.size();
    }
    std::ostringstream diff;
    std::size_t count = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (expected[i] != actual[i]) {
            if (count++ < 12) {
                diff << " [" << i << "] want " << unsigned{expected[i]} << " got "
                     << unsigned{actual[i]};
            }
        }
    }
    if (count == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << count << " bytes differ:" << diff.str();
}

Bytes HostImage(const Layout &layout, std::uint8_t seed) {
    Bytes b = Pattern(layout.len, seed);
    layout.setup(b);
    return b;
}

// ---- Block -------------------------------------------------------------------

Fields CommFields() {
    return Join(
        {Seq(0, 10, 4, 4), {U16(40), U16(42)}, Seq(44, 5, 4, 4), {U16(64)}, Seq(68, 4, 4, 4)});
}

Bytes CommImage() {
    Bytes b = Pattern(MBUF_CTL_COMM_LEN, 0x40);
    Put32(b, 80, 0xFF5A3C21u);
    return b;
}

Block::Block(std::uint32_t capacity)
    : image_(MBUF_CTL_FIXED_LEN + capacity, 0), capacity_(static_cast<std::uint16_t>(capacity)) {
    const Bytes comm = CommImage();
    std::copy(comm.begin(), comm.end(), image_.begin());
    // The record area's unused tail keeps a pattern of its own, so that a
    // stray write shows there too.
    const Bytes tail = Pattern(capacity, 0x77);
    std::copy(tail.begin(), tail.end(), image_.begin() + MBUF_CTL_FIXED_LEN);
}

std::uint32_t Block::Add(std::uint32_t type, const Bytes &image, const Fields &fields,
                         std::int32_t slotLen) {
    const std::uint32_t off = MBUF_CTL_FIXED_LEN + used_;
    std::copy(image.begin(), image.end(), image_.begin() + off);
    recordFields_.emplace_back(type, At(off, fields));
    Put16(image_, 92 + 4 * type, static_cast<std::uint16_t>(off));
    Put16(image_, 94 + 4 * type,
          static_cast<std::uint16_t>(slotLen < 0 ? image.size() : std::uint32_t(slotLen)));
    used_ = static_cast<std::uint16_t>(used_ + image.size());
    ++added_;
    return off;
}

Bytes Block::Host() const {
    Bytes b = image_;
    const std::uint8_t recNum = recNum_ < 0 ? added_ : static_cast<std::uint8_t>(recNum_);
    // The head bytes as the one word they travel as.
    Put32(b, 84,
          (std::uint32_t{MBUF_CTL_BLK_MARK} << 24) | (std::uint32_t{MBUF_BYTEORDER_HOST} << 16) |
              (std::uint32_t{slotNum_} << 8) | recNum);
    Put16(b, 88, used_);
    Put16(b, 90, capacity_);
    return b;
}

Fields Block::ForeignFields() const {
    Fields f = {U32(84), U16(88), U16(90)};
    const std::uint32_t slots = std::min<std::uint32_t>(slotNum_, MBUF_CTL_TYPE_NUM);
    for (std::uint32_t i = 0; i < slots; ++i) {
        f.push_back(U16(92 + 4 * i));
        f.push_back(U16(94 + 4 * i));
    }
    if (slotNum_ != 0) {
        const Fields comm = CommFields();
        f.insert(f.end(), comm.begin(), comm.end());
        for (const auto &[type, fields] : recordFields_) {
            if (type < slots) {
                f.insert(f.end(), fields.begin(), fields.end());
            }
        }
    }
    return f;
}

std::vector<Seen> ReportsOf(const std::string &module) {
    std::vector<Seen> out;
    for (const Report &r : Reports()) {
        if (r.file == module) {
            out.push_back(Seen{r.line, r.text});
        }
    }
    return out;
}

void PrintTo(const Seen &seen, std::ostream *os) {
    *os << "{" << seen.line << ", \"" << seen.text << "\"}";
}

}  // namespace krm::test::bo

namespace krm::test::bo {

std::unique_ptr<MBUF_S> NewNode() {
    return std::make_unique<MBUF_S>();
}

Paths RunBothPaths(const Block &block) {
    const Bytes foreign = block.ForeignImage();
    Paths out;
    auto node = NewNode();
    node->ulFlag = MBUF_PKTHDR;
    node->pstCtlInfo = &node->stCtlInfo.stBlk;
    std::copy(foreign.begin(), foreign.end(), node->stCtlInfo.aucRaw);
    KRM_HOST_ReportClear();
    MBUF_MbufMPktHdrTagByteOrderTrans(node.get());
    out.node = {Bytes(node->stCtlInfo.aucRaw, node->stCtlInfo.aucRaw + MBUF_CTLINFO_INLINE_LEN),
                ReportsOf(kTrans), ReportsOf(kPktSnd)};

    Bytes msg(foreign.begin(), foreign.begin() + block.UsedEnd());
    KRM_HOST_ReportClear();
    MBUF_TagByteOrderTrans(msg.data(), static_cast<std::uint32_t>(msg.size()));
    out.msg = {msg, ReportsOf(kTrans), ReportsOf(kPktSnd)};
    KRM_HOST_ReportClear();
    return out;
}

void ExpectFrameworkRestores(const Block &block) {
    const Bytes host = block.Host();
    ASSERT_EQ(host.size(), MBUF_CTLINFO_INLINE_LEN);
    const Paths paths = RunBothPaths(block);
    EXPECT_TRUE(SameBytes(host, paths.node.bytes)) << "inline block of a packet-header node";
    EXPECT_TRUE(SameBytes(Bytes(host.begin(), host.begin() + block.UsedEnd()), paths.msg.bytes))
        << "tag message";
    for (const PathResult *r : {&paths.node, &paths.msg}) {
        EXPECT_EQ(r->trans.size() + r->pktSnd.size(), 0u);
    }
}

std::uint32_t Extent(const Fields &fields) {
    std::uint32_t end = 0;
    for (const F &f : fields) {
        end = std::max(end, f.off + f.width);
    }
    return end;
}

Fields Without(const Fields &all, const Fields &removed) {
    Fields out;
    for (const F &f : all) {
        if (std::none_of(removed.begin(), removed.end(),
                         [&](const F &r) { return r.off == f.off; })) {
            out.push_back(f);
        }
    }
    return out;
}

std::string FdPro() {
    const Bytes comm = CommImage();
    return "Fd " + std::to_string(Get32(comm, 28)) + " Pro " + std::to_string(Get16(comm, 40));
}

Fields Prefix(const Fields &fields, std::uint32_t bound) {
    Fields out;
    for (const F &f : fields) {
        if (f.off + f.width > bound) {
            break;
        }
        out.push_back(f);
    }
    return out;
}

}  // namespace krm::test::bo

namespace krm::test::bo {

Bytes SubTlvImage(const Layout &layout, std::uint16_t type, std::uint8_t seed) {
    Bytes b = Pattern(layout.len, seed);
    Put16(b, 0, type);
    Put16(b, 2, static_cast<std::uint16_t>(layout.len - 4));
    layout.setup(b);
    return b;
}

void TlvList::Append(const Bytes &sub, const Fields &fields) {
    const Fields placed = At(4 + ListLen(), fields);
    fields_.insert(fields_.end(), placed.begin(), placed.end());
    AppendRaw(sub);
}

Bytes TlvList::Host(std::int32_t listLen) const {
    Bytes b(4);
    Put16(b, 0, 0x0102);
    Put16(b, 2, static_cast<std::uint16_t>(listLen < 0 ? ListLen() : std::uint32_t(listLen)));
    b.insert(b.end(), body_.begin(), body_.end());
    return b;
}

Fields TlvList::ForeignFields() const {
    Fields f;
    if (typeWordConverted_) {
        f.push_back(U16(0));
    }
    f.push_back(U16(2));
    f.insert(f.end(), fields_.begin(), fields_.end());
    return f;
}

}  // namespace krm::test::bo
