// Pixel formats of stitch and EDF frames and their conversion to and from
// the working image (8 bits a channel, three channels, B G R).
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

namespace vantix {

// Format codes; any other value behaves exactly as kFormatBgr8.
enum PixelFormat : uint32_t {
  kFormatBgr8 = 0,
  kFormatBgr16 = 1,
  kFormatBgra8 = 2,
  kFormatBgra16 = 3,
};

// 1/257: maps 16-bit samples onto 8 bits (65535 -> 255).
constexpr double kSixteenToEight = 0.0038910505836575876;

// OpenCV type of a pushed frame in `format`.
int formatMatType(uint32_t format);

// Row bytes used when the host passes a row pitch of 0.
uint32_t formatDefaultStride(uint32_t format, uint32_t width);

// Wraps a host buffer (no copy) as `height` rows of `width` pixels of the
// format's layout, with `rowPitch` bytes a row or the default stride for 0.
cv::Mat wrapFrame(uint32_t format, const void* data, uint32_t width, uint32_t height,
                  uint32_t rowPitch);

// Converts a host buffer to the working image.  With eightBit set the result
// is CV_8UC3; otherwise formats 1 and 3 give a CV_64FC3 image on the same
// 0..255 scale (without rounding), and formats 0 and 2 the 8-bit image.
// For format 0 the result shares the host's pixels: deep-copy it to keep it.
cv::Mat toWorkingImage(uint32_t format, const void* data, uint32_t width, uint32_t height,
                       uint32_t rowPitch, bool eightBit);

// Converts an 8-bit B G R working image into `format` (CV_8UC3, CV_16UC3,
// CV_8UC4 or CV_16UC4).  For format 0 the result shares the working image.
cv::Mat toOutputFormat(uint32_t format, const cv::Mat& working);

}  // namespace vantix
