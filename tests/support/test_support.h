// Shared helpers of the test programs.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

#include <vantix.h>
#include <opencv2/core.hpp>

namespace vtest {

// Runs `body` in a forked child process and reports whether it finished
// without a GoogleTest failure.  For state that is process-wide and never
// released (the camera-SDK bindings), each scenario gets a fresh process.
::testing::AssertionResult runInChildProcess(const std::function<void()>& body);

// Deterministic pseudo-random image of the given size and type.
cv::Mat randomImage(int rows, int cols, int type, uint64_t seed = 1);

}  // namespace vtest
