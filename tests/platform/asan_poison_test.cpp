// Under AddressSanitizer the allocator poisons what no caller owns: a
// buffer's header, the room behind its length and released chunks. These
// accesses must be caught, or library bugs of the same kind would pass. The
// platform's own header reads run under the same build in the allocator
// tests.

#include "platform_util.h"

namespace krm::test::platform {
namespace {

class AsanPoisonTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
#if !defined(__SANITIZE_ADDRESS__)
        GTEST_SKIP() << "needs AddressSanitizer";
#endif
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

// Reads one byte the way a buggy caller would.
unsigned char Touch(const void *p, long offset) {
    return *(static_cast<const volatile unsigned char *>(p) + offset);
}

TEST_F(AsanPoisonTest, ReadingPastTheLengthOrIntoTheHeaderIsCaught) {
    for (const std::uint32_t len : {100u, 936u, 1960u}) {
        EXPECT_DEATH((void)Touch(AllocDbuf(len), len), "use-after-poison") << len;
    }
    EXPECT_DEATH((void)Touch(AllocDbuf(5000), 5000), "heap-buffer-overflow");
    EXPECT_DEATH((void)Touch(AllocDbuf(100), -4), "use-after-poison");
    EXPECT_DEATH((void)Touch(AllocPriv(5000), -4), "use-after-poison");
}

TEST_F(AsanPoisonTest, UseAfterReleaseIsCaught) {
    EXPECT_DEATH(
        {
            void *p = AllocDbuf(936);
            (void)FreeDbuf(p);
            (void)Touch(p, 0);
        },
        "use-after-poison");
}

}  // namespace
}  // namespace krm::test::platform
