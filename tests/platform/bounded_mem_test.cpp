// Bounded copies and fills: every violation is refused, and memcpy_s and
// memset_s leave the destination they own cleared, never a byte beyond it.

#include "platform_util.h"

namespace krm::test::platform {
namespace {

class BoundedMemTest : public HostTest {};

constexpr std::size_t kDestMax = 32;
constexpr std::size_t kHuge = 0x80000000u;

// What a call leaves in the destination: the bytes asked for (and success),
// nothing changed on success or refusal, or a cleared destination (refusal).
enum After { kDone, kNothing, kRefused, kCleared };

// The outcome of memcpy_s, memmove_s and memset_s for the same arguments.
struct Row {
    const char *name;
    bool nullDest;
    bool nullSrc;
    std::size_t destMax;
    std::size_t count;
    After after[3];
};

const Row kRows[] = {
    {"exactly destMax", false, false, kDestMax, kDestMax, {kDone, kDone, kDone}},
    {"less than destMax", false, false, kDestMax, 5, {kDone, kDone, kDone}},
    {"nothing", false, false, kDestMax, 0, {kNothing, kNothing, kNothing}},
    {"nothing from NULL", false, true, kDestMax, 0, {kNothing, kNothing, kNothing}},
    {"one past destMax", false, false, kDestMax, kDestMax + 1, {kCleared, kRefused, kCleared}},
    {"into zero room", false, false, 0, 1, {kRefused, kRefused, kRefused}},
    {"from NULL", false, true, kDestMax, 4, {kCleared, kRefused, kDone}},
    {"into NULL", true, false, kDestMax, 4, {kRefused, kRefused, kRefused}},
    {"destMax beyond sane", false, false, kHuge, 4, {kRefused, kRefused, kRefused}},
};

TEST_F(BoundedMemTest, CopyMoveAndSetFollowTheBoundedRules) {
    std::array<unsigned char, 2 * kDestMax> source;
    for (std::size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<unsigned char>(i + 1);
    }
    for (const Row &r : kRows) {
        for (int op = 0; op < 3; ++op) {
            SCOPED_TRACE(std::string(r.name) + " by " +
                         (op == 0   ? "memcpy_s"
                          : op == 1 ? "memmove_s"
                                    : "memset_s"));
            // The destination holds 0xEE; the 0x77 behind it must stay.
            std::array<unsigned char, 2 * kDestMax> area;
            area.fill(0x77);
            std::memset(area.data(), 0xEE, kDestMax);
            void *dest = r.nullDest ? nullptr : area.data();
            const void *src = r.nullSrc ? nullptr : source.data();
            const int rc = op == 0   ? memcpy_s(dest, r.destMax, src, r.count)
                           : op == 1 ? memmove_s(dest, r.destMax, src, r.count)
                                     : memset_s(dest, r.destMax, 0x42, r.count);
            EXPECT_EQ(rc == 0, r.after[op] == kDone || r.after[op] == kNothing) << "rc " << rc;
            std::array<unsigned char, 2 * kDestMax> expected;
            expected.fill(0x77);
            std::memset(expected.data(), r.after[op] == kCleared ? 0 : 0xEE, kDestMax);
            if (r.after[op] == kDone) {
                std::memcpy(expected.data(), source.data(), r.count);
                if (op == 2) std::memset(expected.data(), 0x42, r.count);
            }
            EXPECT_EQ(area, expected);
        }
    }
}

// Source and destination inside one buffer, shifted by 4 either way, or
// touching (no overlap).
TEST_F(BoundedMemTest, OverlapIsRefusedByCopyAndHandledByMove) {
    for (const int shift : {4, -4, 16, -16}) {
        SCOPED_TRACE(shift);
        std::array<unsigned char, 48> copyBuf, moveBuf, moved;
        for (std::size_t i = 0; i < copyBuf.size(); ++i) {
            copyBuf[i] = moveBuf[i] = moved[i] = static_cast<unsigned char>(i);
        }
        const std::size_t destAt = shift > 0 ? 8 : 24;
        const bool touching = shift == 16 || shift == -16;
        const std::size_t srcAt = destAt + shift;
        std::memmove(&moved[destAt], &moved[srcAt], 16);
        std::array<unsigned char, 48> cleared = copyBuf;
        std::memset(&cleared[destAt], 0, 16);
        EXPECT_EQ(memcpy_s(&copyBuf[destAt], 16, &copyBuf[srcAt], 16) == 0, touching);
        ASSERT_EQ(memmove_s(&moveBuf[destAt], 16, &moveBuf[srcAt], 16), 0);
        EXPECT_EQ(copyBuf, touching ? moved : cleared) << "memcpy_s clears on overlap";
        EXPECT_EQ(moveBuf, moved);
    }
}

}  // namespace
}  // namespace krm::test::platform
