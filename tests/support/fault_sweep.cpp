#include "fault_sweep.h"

namespace krm::test {

SweepResult FaultSweep(const SweepCase &sweep, std::uint32_t maxRuns) {
    SweepResult result;
    for (std::uint32_t nth = 1; nth <= maxRuns; ++nth) {
        const std::uint32_t liveBefore = KRM_HOST_LiveBufferCount();
        sweep.setup();
        const std::uint32_t liveInput = KRM_HOST_LiveBufferCount();
        const std::uint32_t attemptsBefore = KRM_HOST_AllocAttemptCount();
        KRM_HOST_FailNthAlloc(nth);
        const bool ok = sweep.run();
        const std::uint32_t attempts = KRM_HOST_AllocAttemptCount() - attemptsBefore;
        KRM_HOST_FailNthAlloc(0);
        if (attempts < nth) {
            // The fault was never hit: this is the clean run.
            EXPECT_TRUE(ok) << "the run without a fault failed";
            result.allocations = attempts;
            if (sweep.onSuccess) {
                sweep.onSuccess();
            }
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), liveBefore) << "after the successful run";
            return result;
        }
        ++result.failedRuns;
        EXPECT_FALSE(ok) << "allocation " << nth << " failed but the call reported success";
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), liveInput)
            << "allocation " << nth << " failed and the call left buffers behind";
        sweep.onFailure();
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), liveBefore) << "after releasing the input";
        if (::testing::Test::HasFailure()) {
            return result;
        }
    }
    ADD_FAILURE() << "the operation never completed within " << maxRuns << " runs";
    return result;
}

}  // namespace krm::test
