// The stack fuser (kind 2): one accumulated image, into which each new frame
// is blended with a per-pixel logistic weight computed from a multi-scale
// Laplacian focus measure of both images.
#pragma once

#include <cstdint>
#include <vector>

#include "edf/edf_fuser.h"

namespace vantix {

// The focus measure of an 8-bit image (1 to 4 channels) into `measure`
// (CV_16S, the image's size): per channel, the sum over an 8-level Gaussian
// pyramid of the absolute Laplacian (aperture 1) of each level, each level's
// Laplacian brought to the full size by bilinear interpolation before its
// absolute value is taken; then the per-pixel maximum over the channels.
// `scratch`, when given, keeps the work images between calls.
struct StackMeasureScratch {
  std::vector<cv::Mat> planes;
  std::vector<std::vector<cv::Mat>> levels;
  std::vector<std::vector<cv::Mat>> horizontal;
};
void stackFocusMeasure(const cv::Mat& image, cv::Mat& measure,
                       StackMeasureScratch* scratch = nullptr);

// The steepness scale of a focus measure: the 8 x 8 block means of `measure`,
// the smallest of them, or the largest / 10 when the largest is more than 10
// times the smallest; at least 1.
int stackMeasureScale(const cv::Mat& measure);

class CStackFuser : public CEdfFuser {
 public:
  void addFrame(cv::Mat& frame, cv::Mat& result) override;
  void firstFrame(const cv::Mat& frame) override;
  const cv::Mat& accumulated() const { return accumulated_; }

 private:
  cv::Mat accumulated_;
  uint32_t unused_ = 0;
  cv::Mat accumulatedMeasure_, frameMeasure_, weights_, smoothWeights_;
  StackMeasureScratch scratch_;
};

}  // namespace vantix
