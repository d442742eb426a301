// The fuser interface of an EDF session, the slot that owns the session's
// fuser, and the alignment of each frame to the previous fused result.
//
// All fusers work on 8-bit, 3-channel B G R images and produce a result of
// the same type and size.  They are plain objects used from one thread at a
// time (the session's worker); failures are exceptions (cv::Exception,
// std::bad_alloc, std::system_error).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

namespace vantix {

// Fuser kinds chosen when a session is created.
enum EdfFuserKind : uint32_t {
  kEdfPyramidSelect = 0,   // Laplacian pyramid, largest coefficient wins
  kEdfPyramidWeighted = 1, // Laplacian pyramid, detail-weighted blend
  kEdfStack = 2,           // multi-scale focus measure, logistic blend
};

class CEdfFuser {
 public:
  virtual ~CEdfFuser() = default;
  // Fuses `frame` (already aligned) into the stack and writes the new fused
  // image into `result` (a newly allocated image).
  virtual void addFrame(cv::Mat& frame, cv::Mat& result) = 0;
  // Resets the stack and starts it from `frame`.
  virtual void firstFrame(const cv::Mat& frame) = 0;
};

// The fuser of a kind; null for an unknown kind.
std::unique_ptr<CEdfFuser> makeEdfFuser(uint32_t kind);

// A shift (dx, dy) in pixels and a scale about the image centre: the frame
// pixel at p corresponds to the reference pixel at (p - d - c) * s + c.
struct ShiftScale {
  int dx = 0;
  int dy = 0;
  double scale = 1.0;
};

// Brings `frame` and `reference` (both CV_8UC3, or both one-channel 8-bit)
// to their common brightness, in place: both are sampled on a grid of about
// 100 x 100 points, and each is scaled by a 256-entry table towards the mean
// of the two sample totals.
void matchBrightness(cv::Mat& frame, cv::Mat& reference);

// Estimates the shift and scale of the 8-bit grey `frame` against the 8-bit
// grey `reference` (same size), coarse to fine over pyramids whose smallest
// level keeps both sides at 33 pixels or more, by a search over scales
// 0.9..1.1 and one-pixel shift steps that minimises the sum of squared
// differences on a sparse grid.
ShiftScale estimateShiftScale(const cv::Mat& frame, const cv::Mat& reference);

// The cost of one candidate at one pyramid level (for tests): the sum of
// squared grey differences over the level's sparse grid, skipping grid
// points that map outside the reference.
int64_t alignmentCost(const cv::Mat& frame, const cv::Mat& reference, int dx, int dy, double scale);

// Warps `frame` (any 8-bit type) by nearest-neighbour resampling so that it
// lines up with the reference of `motion`; the image is replaced by a new one.
void warpToReference(cv::Mat& frame, const ShiftScale& motion);

// The whole alignment of a colour frame to a colour reference: brightness,
// estimation on grey images, warp.  Returns the motion that was removed.
ShiftScale alignToReference(cv::Mat& frame, cv::Mat& reference);

// The session's fuser and the reference the next frame is aligned to.
class CFuserSlot {
 public:
  explicit CFuserSlot(std::unique_ptr<CEdfFuser> fuser) : fuser_(std::move(fuser)) {}

  bool hasFuser() const { return fuser_ != nullptr; }
  // Starts the stack from `frame`.  Throws std::logic_error without a fuser.
  void firstFrame(const cv::Mat& frame);
  // Aligns `frame` to the reference when there is one (from the third frame
  // on: the second frame is fused as it comes), fuses it into `result` and
  // keeps a copy of the result as the next reference.
  void fuse(cv::Mat& frame, cv::Mat& result);
  const cv::Mat& reference() const { return reference_; }

 private:
  void requireFuser() const;

  std::unique_ptr<CEdfFuser> fuser_;
  cv::Mat reference_;
};

}  // namespace vantix
