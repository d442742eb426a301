// The Laplacian-pyramid fuser (kinds 0 and 1).
//
// The stack is kept as one 8-level Laplacian pyramid a colour channel in
// 32-bit float (values of the 0..1 scale): 7 detail levels, largest first,
// and the low-pass residual.  Each new frame's pyramid is merged into it
// level by level, either keeping the coefficient of larger magnitude
// (method 0) or blending by a weight that compares the new frame's detail
// with the detail already in the stack (method 1).  The three channels are
// merged in parallel (a task each on OpenCV's worker threads); all are done
// before addFrame returns.
#pragma once

#include <cstdint>
#include <vector>

#include "edf/edf_fuser.h"

namespace vantix {

// Levels of every pyramid: 7 detail levels and the residual.
constexpr int kEdfPyramidLevels = 8;

// Builds the Laplacian pyramid of an 8-bit one-channel image, scaled to
// 0..1 (for tests and for the weights of method 1).
void buildLaplacianPyramid(const cv::Mat& channel8u, std::vector<cv::Mat>& pyramid);

// Collapses a pyramid into an 8-bit channel (255 times the sum, saturated).
void collapseLaplacianPyramid(const std::vector<cv::Mat>& pyramid, cv::Mat& channel8u);

class CPyrFuser : public CEdfFuser {
 public:
  // `method` 0 keeps the larger coefficient, 1 blends by detail weight.
  explicit CPyrFuser(uint32_t method);
  ~CPyrFuser() override;

  void addFrame(cv::Mat& frame, cv::Mat& result) override;
  void firstFrame(const cv::Mat& frame) override;

  uint32_t method() const { return method_; }
  // The stored pyramid of channel 0, 1 or 2 (empty before the first frame).
  const std::vector<cv::Mat>& pyramid(int channel) const { return pyramids_[channel]; }

 private:
  // Buffers of one channel, kept between frames so that a frame of the
  // stack's size allocates nothing but its result.
  struct ChannelBuffers {
    cv::Mat plane;                  // the new channel as float 0..1
    std::vector<cv::Mat> downs;     // pyrDown of each level
    std::vector<cv::Mat> ups;       // pyrUp of the next level, reused by the collapse
    cv::Mat out;                    // the collapsed 8-bit channel
  };

  void mergeChannel(int channel);
  void computeWeights(const cv::Mat& frame);

  uint32_t method_;
  std::vector<cv::Mat> pyramids_[3];
  std::vector<cv::Mat> planes_;     // the frame's channels
  ChannelBuffers buffers_[3];
  std::vector<cv::Mat> weights_;     // method 1: per-level weight, shared by the channels
};

}  // namespace vantix
