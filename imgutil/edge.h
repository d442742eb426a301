// Edge snapping: moves a clicked point onto the nearest edge around it.
//
// The search area is a square of 3 * size pixels centred on the point (clipped
// at the frame border).  Its grey levels are smoothed with a 3x3 Gaussian whose
// sigma follows the local contrast, edges are found with Canny at thresholds
// derived from the Otsu level, and the point moves to the nearest point of the
// outer contours when that lies strictly closer than size.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>

namespace vantix {

// The search area of a point, in frame pixels, and the point inside it.
struct EdgeSearchArea {
  cv::Rect rect;     // left, top, width, height in the frame
  cv::Point centre;  // the point relative to rect's top-left corner
};

// Places the square of side 3 * size around (x, y) in a frame of
// frameWidth x frameHeight.  The arithmetic is done in doubles and truncated
// toward zero at each conversion, so a point nearer than 1.5 * size to the
// left or top border gets a narrower area than the clipping alone would give,
// and a point outside the frame can give an empty or negative area.
EdgeSearchArea edgeSearchArea(uint32_t size, int32_t x, int32_t y, uint32_t frameWidth,
                              uint32_t frameHeight);

// Converts a region of a frame in pixel `format` into the 8-bit grey image
// `gray`, which must already have the region's size.  Formats 0 and 2 (and
// unknown formats) use the RGB weights on channels 0, 1, 2 as they are, so
// channel 0 counts as red; 16-bit formats use the integer rule
// (c0 * 299 + c1 * 587 + c2 * 114) / 256000.
void edgeGreyFromRegion(uint32_t format, const cv::Mat& region, cv::Mat& gray);

// Rows of the kernel table of adaptiveSmooth: one for each value of 81 times
// a neighbourhood variance that can give a sigma below the upper clamp, the
// last (sigma 3) standing for all larger ones.
int kernelTableRows();

// What adaptiveSmooth did (for tests): pixels whose value came from the
// kernel table, and pixels whose weighted sum lay so near a rounding
// boundary that their own kernel was built.
struct SmoothingStats {
  int64_t fromTable = 0;
  int64_t rebuilt = 0;
};

// Adaptive 3x3 Gaussian smoothing of an 8-bit one-channel image into `dst`
// (which must not share `src`'s pixels).  Border pixels are copied.  Every
// other pixel gets its own kernel, of sigma = stddev / 30 * 2.5 + 0.5
// clamped to [0.5, 3], stddev being cv::meanStdDev's of its 3x3
// neighbourhood; the weights exp(-(dx^2 + dy^2) / (2 sigma^2)) /
// (2 pi sigma^2) are summed in row order and each multiplied by the
// reciprocal of the sum, and the output is the weighted sum of the patch in
// row order, rounded to nearest (ties to even) and saturated.
//
// The result is bit for bit that of building the kernel for every pixel,
// at a fraction of the cost: the neighbourhood statistics come from integer
// sums (the same sums meanStdDev forms), and the kernel is taken from
// `kernelTable`, indexed by 81 times the neighbourhood's variance (an
// integer) and filled on first use.  The table's kernel belongs to the
// exact variance, whose sigma can differ from the computed one in the last
// digits; a pixel whose weighted sum lies within the possible effect of
// that difference of a rounding boundary gets the kernel of its own sigma.
// The table (kernelTableRows() rows of four doubles: sigma and the corner,
// side and centre weights) is created when it has another shape and is
// meant to be kept between calls.  `stats`, when not null, is added to.
void adaptiveSmooth(const cv::Mat& src, cv::Mat& dst, cv::Mat& kernelTable,
                    SmoothingStats* stats = nullptr);

// The snap target among the contour points: the point nearest to `centre`
// (Euclidean), scanning the contours in order, where only a strictly nearer
// point replaces the one found so far and a point equal to `centre` ends the
// search.  Returns true and sets *target when that point lies strictly
// closer than `size`; false when it does not or there is no point.
bool nearestEdgePoint(const std::vector<std::vector<cv::Point>>& contours, const cv::Point& centre,
                      uint32_t size, cv::Point* target);

// One edge session.  Calls are made from one thread at a time; only the
// take-in of a frame's search area is under the session's lock, the rest
// works on the session's own images without it.
class CEdgeSession {
 public:
  // A session for frames of width x height in pixel `format` (0..3, other
  // values as 0), read with the format's default stride.
  CEdgeSession(uint32_t format, uint32_t width, uint32_t height, uint32_t size);

  CEdgeSession(const CEdgeSession&) = delete;
  CEdgeSession& operator=(const CEdgeSession&) = delete;

  // Snaps (*x, *y) onto the nearest edge of `buffer`; see vantix_edge_get.
  // Exceptions of the image library (an area of zero or negative size, an
  // area outside the frame) are not caught; a point inside the frame whose
  // area is empty (a frame one pixel wide or high, an odd size) gives 0.
  int32_t get(const void* buffer, int32_t* x, int32_t* y, uint32_t size);

  uint32_t size() const { return size_; }
  uint32_t stride() const { return stride_; }
  const cv::Rect& searchRect() const { return searchRect_; }

 private:
  // Copies the search area of `buffer` into gray_ under lock_.
  void takeIn(const void* buffer);

  uint32_t format_;
  uint32_t width_;
  uint32_t height_;
  uint32_t size_;
  uint32_t stride_;
  std::mutex lock_;
  cv::Mat gray_;      // grey copy of the search area
  cv::Mat edges_;     // Canny output
  cv::Mat smoothed_;  // adaptively smoothed search area
  cv::Mat binary_;    // Otsu-thresholded area (only the level is used)
  cv::Mat kernel_;    // kernel table of the smoothing (2.3 MB once created)
  cv::Rect searchRect_;
  cv::Point centre_;
  std::vector<std::vector<cv::Point>> contours_;
  std::vector<cv::Vec4i> hierarchy_;
};

}  // namespace vantix
