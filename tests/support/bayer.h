// The raw frame a colour sensor records: one sample a pixel, taken from the
// B G R image's channel the sensor's filter lets through.
#pragma once

#include <string>

#include <opencv2/core.hpp>

namespace vtest {

// `pattern` names the colours of the 2x2 cell in memory order ("RGGB", ...).
inline cv::Mat mosaic(const cv::Mat& bgr, const std::string& pattern) {
  cv::Mat planes[3], raw(bgr.size(), bgr.depth());
  cv::split(bgr, planes);
  for (int i = 0; i < 4; ++i) {
    const char c = pattern[i];
    const int y = i / 2, x = i % 2;
    const cv::Mat& plane = planes[c == 'B' ? 0 : c == 'G' ? 1 : 2];
    for (int row = y; row < bgr.rows; row += 2) {
      for (int col = x; col < bgr.cols; col += 2) {
        plane.row(row).col(col).copyTo(raw.row(row).col(col));
      }
    }
  }
  return raw;
}

}  // namespace vtest
