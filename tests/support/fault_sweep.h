// The allocation-fault sweep: run an operation with its 1st, 2nd, ...
// allocation failing until it runs with no fault hit. After each failing run
// the check sees the result and the input; the sweep then requires that the
// failed run left no new buffer behind. The last run (no fault) is checked
// by the caller on the value the sweep returns.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>

#include "krm_host/host.h"

namespace krm::test {

struct SweepResult {
    std::uint32_t failedRuns = 0;   // runs in which the nth allocation failed
    std::uint32_t allocations = 0;  // allocations the successful run made
};

// setup() builds the input and returns nothing; run() performs the operation
// once and returns true when it reported success; onFailure() checks the
// documented failure result and the state of the input and releases the
// input; onSuccess() releases whatever the successful run produced.
struct SweepCase {
    std::function<void()> setup;
    std::function<bool()> run;
    std::function<void()> onFailure;
    std::function<void()> onSuccess;
};

SweepResult FaultSweep(const SweepCase &sweep, std::uint32_t maxRuns = 4096);

}  // namespace krm::test
