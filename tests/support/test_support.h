// Shared helpers of the test programs.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace vtest {

// Runs `body` in a forked child process and reports whether it finished
// without a GoogleTest failure.  For state that is process-wide and never
// released (the camera-SDK bindings), each scenario gets a fresh process.
::testing::AssertionResult runInChildProcess(const std::function<void()>& body);

// An image that carries its own header: the 40-byte header, for 8-bit
// images the 1024-byte colour table, then the rows at the default stride.
struct HeaderImage {
  std::vector<uint64_t> storage;  // 8-byte aligned backing store
  VantixImageHeader* header = nullptr;
  uint8_t* pixels = nullptr;
  uint32_t stride = 0;

  // Wraps the pixels as a matrix of the header's layout.
  cv::Mat mat(int type) const;
};
HeaderImage makeHeaderImage(int32_t width, int32_t height, uint16_t bitCount);

// Deterministic pseudo-random image of the given size and type.
cv::Mat randomImage(int rows, int cols, int type, uint64_t seed = 1);

// A smooth textured scene (sums of sinusoids and a few shapes): images whose
// interpolation differences are small but measurable.
cv::Mat smoothScene(int rows, int cols, int type);

}  // namespace vtest
