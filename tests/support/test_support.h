// Shared helpers of the test programs, and the headers nearly all of them
// use, included once here (each program adds only its own).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "testing/scenes.h"

namespace vtest {

// Runs `body` in a forked child process and reports whether it finished
// without a GoogleTest failure.  For state that is process-wide and never
// released (the camera-SDK bindings), each scenario gets a fresh process.
::testing::AssertionResult runInChildProcess(const std::function<void()>& body);

// Deterministic pseudo-random image of the given size and type.
cv::Mat randomImage(int rows, int cols, int type, uint64_t seed = 1);

}  // namespace vtest
