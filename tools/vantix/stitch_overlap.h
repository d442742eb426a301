// How far apart two successive frames of a scan are, measured from the
// frames themselves: the tool's own check when a stitch run places too few
// frames (is the scan's overlap too small for live tracking?).
#pragma once

#include <opencv2/core.hpp>

namespace vtool {

struct FrameShift {
  bool found = false;      // false: no common content found (little or no overlap)
  cv::Point2d shift;       // where the second frame's top-left corner lies in the first
  double overlap = 0;      // the smaller of the shared fractions of width and height
  double correlation = 0;  // normalised correlation of the shared parts
};

// Phase correlation of `first` and `second` (same size, any channels,
// 8-bit) on copies at most 256 pixels a side: the strongest peaks of the
// correlation surface, each with its wrapped alternatives, are checked by
// the normalised correlation of the region the two frames would share, and
// the best one above 0.6 wins.  Shared regions under 5 % of the frame or
// 16 pixels a side (of the small copies) do not count: a small patch can
// match anything by chance.  Frames that share less are reported as not
// found.
FrameShift measureShift(const cv::Mat& first, const cv::Mat& second);

}  // namespace vtool
