// Test programs' main: as a safety net behind the fixture, a listener fails
// the program when any test ends with buffers still allocated.
#include <gtest/gtest.h>

#include <cstdio>

#include "krm_host/host.h"

namespace {

class LeakListener : public ::testing::EmptyTestEventListener {
  public:
    void OnTestEnd(const ::testing::TestInfo &info) override {
        if (KRM_HOST_LiveBufferCount() != 0) {
            std::fprintf(stderr, "%s.%s left %u buffers allocated\n", info.test_suite_name(),
                         info.name(), KRM_HOST_LiveBufferCount());
            (void)KRM_HOST_DumpLiveBuffers(stderr);
            leaked_ = true;
        }
    }
    bool leaked() const { return leaked_; }

  private:
    bool leaked_ = false;
};

}  // namespace

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    auto *listener = new LeakListener;  // owned by gtest's listener list
    ::testing::UnitTest::GetInstance()->listeners().Append(listener);
    const int rc = RUN_ALL_TESTS();
    return (rc != 0 || listener->leaked()) ? 1 : 0;
}
