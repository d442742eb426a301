#include "api/pixel_format.h"

#include <opencv2/imgproc.hpp>

#include "api/image_header.h"

namespace vantix {

int formatMatType(uint32_t format) {
  switch (format) {
    case kFormatBgr16: return CV_16UC3;
    case kFormatBgra8: return CV_8UC4;
    case kFormatBgra16: return CV_16UC4;
    default: return CV_8UC3;
  }
}

uint32_t formatDefaultStride(uint32_t format, uint32_t width) {
  switch (format) {
    case kFormatBgr16: return vantix_default_stride(width, 48);
    case kFormatBgra8: return width * 4u;
    case kFormatBgra16: return width * 8u;
    default: return vantix_default_stride(width, 24);
  }
}

cv::Mat wrapFrame(uint32_t format, const void* data, uint32_t width, uint32_t height,
                  uint32_t rowPitch) {
  const size_t step = rowPitch != 0 ? rowPitch : formatDefaultStride(format, width);
  return cv::Mat(static_cast<int>(height), static_cast<int>(width), formatMatType(format),
                 const_cast<void*>(data), step);
}

cv::Mat toWorkingImage(uint32_t format, const void* data, uint32_t width, uint32_t height,
                       uint32_t rowPitch, bool eightBit) {
  cv::Mat frame = wrapFrame(format, data, width, height, rowPitch);
  const int deepType = eightBit ? CV_8U : CV_64F;
  cv::Mat working;
  switch (format) {
    case kFormatBgr16:
      frame.convertTo(working, deepType, kSixteenToEight);
      break;
    case kFormatBgra8:
      cv::cvtColor(frame, working, cv::COLOR_BGRA2BGR);
      break;
    case kFormatBgra16: {
      cv::Mat bgr16;
      cv::cvtColor(frame, bgr16, cv::COLOR_BGRA2BGR);
      bgr16.convertTo(working, deepType, kSixteenToEight);
      break;
    }
    default:
      working = frame;
      break;
  }
  return working;
}

cv::Mat toOutputFormat(uint32_t format, const cv::Mat& working) {
  cv::Mat out;
  switch (format) {
    case kFormatBgr16:
    case kFormatBgra16: {
      cv::Mat wide;
      working.convertTo(wide, CV_16U, 1.0);
      cv::Mat scaled = wide * 257.0;
      if (format == kFormatBgr16) {
        out = scaled;
      } else {
        cv::cvtColor(scaled, out, cv::COLOR_BGR2BGRA);
      }
      break;
    }
    case kFormatBgra8:
      cv::cvtColor(working, out, cv::COLOR_BGR2BGRA);
      break;
    default:
      out = working;
      break;
  }
  return out;
}

}  // namespace vantix
