// Bounded copies and fills: every violation is refused, and memcpy_s and
// memset_s leave the destination they own cleared, never a byte beyond it.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "host_test.h"
#include "krm_mbuf/platform.h"

namespace krm::test::platform {
namespace {

class BoundedMemTest : public HostTest {};

constexpr unsigned char kOld = 0xEE;    // what the destination held before
constexpr unsigned char kGuard = 0x77;  // bytes past destMax
constexpr std::size_t kArea = 64;
constexpr std::size_t kDestMax = 32;

// An area whose first kDestMax bytes are the destination; the rest guards.
struct Area {
    std::array<unsigned char, kArea> bytes;
    Area() {
        bytes.fill(kGuard);
        std::memset(bytes.data(), kOld, kDestMax);
    }
    unsigned char *dest() { return bytes.data(); }
    bool DestIs(unsigned char value, std::size_t from = 0) const {
        for (std::size_t i = from; i < kDestMax; ++i) {
            if (bytes[i] != value) {
                return false;
            }
        }
        return true;
    }
    bool GuardIntact() const {
        for (std::size_t i = kDestMax; i < kArea; ++i) {
            if (bytes[i] != kGuard) {
                return false;
            }
        }
        return true;
    }
};

enum class After { kCopied, kUnchanged, kCleared };

struct CopyCase {
    const char *name;
    bool nullDest;
    bool nullSrc;
    std::size_t destMax;
    std::size_t count;
    bool ok;
    After copyAfter;  // memcpy_s
    After moveAfter;  // memmove_s
};

constexpr std::size_t kHuge = 0x80000000u;

const CopyCase kCopyCases[] = {
    {"exactly destMax", false, false, kDestMax, kDestMax, true, After::kCopied, After::kCopied},
    {"less than destMax", false, false, kDestMax, 5, true, After::kCopied, After::kCopied},
    {"nothing", false, false, kDestMax, 0, true, After::kUnchanged, After::kUnchanged},
    {"nothing from NULL", false, true, kDestMax, 0, true, After::kUnchanged, After::kUnchanged},
    {"one past destMax", false, false, kDestMax, kDestMax + 1, false, After::kCleared,
     After::kUnchanged},
    {"into zero room", false, false, 0, 1, false, After::kUnchanged, After::kUnchanged},
    {"from NULL", false, true, kDestMax, 4, false, After::kCleared, After::kUnchanged},
    {"into NULL", true, false, kDestMax, 4, false, After::kUnchanged, After::kUnchanged},
    {"destMax beyond sane", false, false, kHuge, 4, false, After::kUnchanged, After::kUnchanged},
};

TEST_F(BoundedMemTest, CopyAndMoveFollowTheBoundedRules) {
    std::array<unsigned char, kArea> source;
    for (std::size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<unsigned char>(i + 1);
    }
    for (const CopyCase &c : kCopyCases) {
        for (const bool move : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (move ? " (memmove_s)" : " (memcpy_s)"));
            Area area;
            void *dest = c.nullDest ? nullptr : area.dest();
            const void *src = c.nullSrc ? nullptr : source.data();
            const int rc = move ? memmove_s(dest, c.destMax, src, c.count)
                                : memcpy_s(dest, c.destMax, src, c.count);
            EXPECT_EQ(rc == 0, c.ok) << "rc " << rc;
            switch (move ? c.moveAfter : c.copyAfter) {
                case After::kCopied:
                    EXPECT_EQ(std::memcmp(area.dest(), source.data(), c.count), 0);
                    EXPECT_TRUE(area.DestIs(kOld, c.count));
                    break;
                case After::kUnchanged:
                    EXPECT_TRUE(area.DestIs(kOld));
                    break;
                case After::kCleared:
                    EXPECT_TRUE(area.DestIs(0));
                    break;
            }
            EXPECT_TRUE(area.GuardIntact());
        }
    }
}

TEST_F(BoundedMemTest, OverlapIsRefusedByCopyAndHandledByMove) {
    // Source and destination inside one buffer, shifted by 4 either way.
    for (const int shift : {4, -4}) {
        SCOPED_TRACE(shift);
        std::array<unsigned char, 48> copyBuf;
        std::array<unsigned char, 48> moveBuf;
        for (std::size_t i = 0; i < copyBuf.size(); ++i) {
            copyBuf[i] = moveBuf[i] = static_cast<unsigned char>(i);
        }
        const std::size_t destAt = shift > 0 ? 8 : 4;
        const std::size_t srcAt = destAt + shift;
        EXPECT_NE(memcpy_s(&copyBuf[destAt], 16, &copyBuf[srcAt], 16), 0);
        for (std::size_t i = 0; i < 16; ++i) {
            EXPECT_EQ(copyBuf[destAt + i], 0) << "memcpy_s clears on overlap";
        }
        ASSERT_EQ(memmove_s(&moveBuf[destAt], 16, &moveBuf[srcAt], 16), 0);
        for (std::size_t i = 0; i < 16; ++i) {
            EXPECT_EQ(moveBuf[destAt + i], srcAt + i);
        }
    }
    // Touching ranges do not overlap.
    std::array<unsigned char, 32> buf{};
    buf[16] = 9;
    EXPECT_EQ(memcpy_s(&buf[0], 16, &buf[16], 16), 0);
    EXPECT_EQ(buf[0], 9);
}

TEST_F(BoundedMemTest, SetFillsOrClearsOnlyWhatItOwns) {
    struct SetCase {
        const char *name;
        bool nullDest;
        std::size_t destMax;
        std::size_t count;
        bool ok;
        After after;
    };
    const SetCase cases[] = {
        {"exactly destMax", false, kDestMax, kDestMax, true, After::kCopied},
        {"part", false, kDestMax, 3, true, After::kCopied},
        {"nothing", false, kDestMax, 0, true, After::kUnchanged},
        {"one past destMax", false, kDestMax, kDestMax + 1, false, After::kCleared},
        {"into NULL", true, kDestMax, 4, false, After::kUnchanged},
        {"destMax beyond sane", false, kHuge, 4, false, After::kUnchanged},
    };
    for (const SetCase &c : cases) {
        SCOPED_TRACE(c.name);
        Area area;
        const int rc = memset_s(c.nullDest ? nullptr : area.dest(), c.destMax, 0x42, c.count);
        EXPECT_EQ(rc == 0, c.ok) << "rc " << rc;
        switch (c.after) {
            case After::kCopied:
                for (std::size_t i = 0; i < c.count; ++i) {
                    EXPECT_EQ(area.bytes[i], 0x42);
                }
                EXPECT_TRUE(area.DestIs(kOld, c.count));
                break;
            case After::kUnchanged:
                EXPECT_TRUE(area.DestIs(kOld));
                break;
            case After::kCleared:
                EXPECT_TRUE(area.DestIs(0));
                break;
        }
        EXPECT_TRUE(area.GuardIntact());
    }
}

}  // namespace
}  // namespace krm::test::platform
