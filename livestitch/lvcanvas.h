// The panorama canvas of the live stitcher: the image, the bounding rectangle
// of the placed frames, growth by four frames, and a drawing thread that
// blends queued frames into the image so that the session's worker never
// waits for drawing.
//
// Rows are kept in the order frames deliver them (the host's frames and the
// canvas are both bottom-up bitmaps); "top" means the lowest row index.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include <opencv2/core.hpp>

namespace vantix {

// Fills a canvas image with a background: 0 checkerboard (255 with 128 x 128
// squares of 204, block rows counted from the last row), 1 white, 2 black.
void fillBackground(cv::Mat& image, uint32_t background);
// The same, painting only the pixels of `area` (the pattern stays that of
// the whole image).
void fillBackground(cv::Mat& image, uint32_t background, cv::Rect area);

// Side of the coverage cells: the canvas keeps which 4 x 4 cells are fully
// painted (a map of 1/16 of the canvas's pixels instead of a full mask).
constexpr int kCoverageCell = 4;

// Blends `frame` into `canvas` at `at` (the frame must lie inside), where
// `coverage` (8-bit, one value per kCoverageCell square cell of the canvas,
// nonzero = fully painted) says which pixels hold content.  Pixels outside
// painted cells and pixels deeper inside the frame than a twentieth of its
// size get the frame's values unchanged; in the band along the frame's
// border the frame fades into the painted content, reaching the frame's own
// values where the painted area ends, so that neither edge leaves a seam.
// The cells the frame covers completely are then marked painted.
void blendFrameInto(cv::Mat& canvas, cv::Mat& coverage, const cv::Mat& frame, cv::Point at);

class CLvCanvas {
 public:
  using Notify = void (*)(void* session, int code);

  CLvCanvas(uint32_t format, int frameWidth, int frameHeight, int canvasWidth, int canvasHeight,
            cv::Point origin, uint32_t background, int scalePercent, Notify notify,
            void* session);
  ~CLvCanvas();
  CLvCanvas(const CLvCanvas&) = delete;
  CLvCanvas& operator=(const CLvCanvas&) = delete;

  struct PlaceAnswer {
    bool consistent = true;
    bool far = false;
    bool grow = false;
  };
  // Frame at (x, y) relative to the first frame: updates the bounds and the
  // travel, converts (x, y) to canvas pixels in place.  Worker thread.
  PlaceAnswer placeCheck(int& x, int& y);
  // Takes back the bounds of the last placeCheck, for a frame that cannot be
  // drawn after all (the canvas could not grow enough for it), so that the
  // crop rectangle only covers the canvas that exists; publishes the result.
  void undoPlacement();
  // Whether a frame at canvas (x, y) lies wholly on the canvas.
  bool fits(int x, int y) const;
  // Makes the next growths fail as an allocation failure would (tests of
  // what the session does when memory is short).
  void failGrowthForTest(bool fail) { failGrowth_.store(fail); }
  // Canvas pixel position of a frame at (x, y) relative to the first frame,
  // without recording it (for frames that are not placed).
  cv::Point canvasPosition(int x, int y) const;
  // Queues a frame for drawing at canvas (x, y); false when skipped because
  // it lies within a tenth of a frame of the last one queued.
  bool enqueue(const cv::Mat& frame, int x, int y);
  // Grows the canvas so that a frame at canvas (x, y) fits (one step of four
  // frames per axis), moving old content right/down when growing left/up;
  // (x, y) are moved with it.  Worker thread.
  void grow(int& x, int& y);

  // Covered rectangle (left, top, width, height) in canvas pixels, as last
  // published.  A placement that makes the canvas grow updates the bounds
  // before the canvas has its new size and content offset; readers keep the
  // previous rectangle until the growth is done, so a rectangle read from
  // another thread always matches the canvas of that moment.
  cv::Rect cropRect() const;
  // Publishes the rectangle of the current bounds (placeCheck does it for
  // placements without growth, grow at its end, undoPlacement after taking
  // a placement back).
  void publishCrop();
  // Canvas point to panorama coordinates (relative to the first frame).
  cv::Point toPanorama(cv::Point canvasPoint) const;

  // The image (the pointer and geometry change only on the worker thread,
  // in grow; the drawing thread writes pixels).
  const cv::Mat& image() const { return image_; }
  bool busy() const { return busy_.load(); }
  // Resizes a region of the image (whole image for an empty roi) into dst
  // under the image lock, with `shrinking` interpolation when dst has fewer
  // pixels than the canvas and `otherwise` else; false while the canvas is
  // being reallocated.
  bool readScaled(cv::Mat& dst, cv::Rect roi, int shrinking, int otherwise);
  // Copies rows of a region as 3 bytes a pixel into `out` (rows `stride`
  // apart), after every queued frame was drawn.
  void copyRegion(cv::Rect region, uint8_t* out, size_t stride);
  // Waits until the draw queue is empty and no frame is being drawn.
  void waitIdle();
  // Whether the reference can be found around canvas point (x, y).
  bool findsAt(const cv::Mat& reference, int x, int y);

  int frameWidth() const { return frameWidth_; }
  int frameHeight() const { return frameHeight_; }
  cv::Point shift() const;
  size_t queuedDraws();
  // Holds the drawing thread (tests of the draw queue) and marks the canvas
  // busy as during growth (tests of readers).
  void holdDrawingForTest(bool hold) { holdDrawing_.store(hold); }
  void setBusyForTest(bool busy) { busy_.store(busy); }

 private:
  void drawLoop();
  bool drawFrame(const cv::Mat& frame, int x, int y);

  int scalePercent_;
  uint32_t format_;
  int frameWidth_, frameHeight_;
  cv::Point origin_;
  uint32_t background_;
  cv::Point2i travel_{0, 0};
  cv::Point2i travelLimit_{0, 0};
  cv::Point lastPosition_;
  cv::Point lastMove_{-1, -1};
  cv::Point shift_{0, 0};
  int right_, left_, bottom_, top_;
  cv::Vec4i boundsBeforePlace_;  // right, left, bottom, top before placeCheck
  cv::Rect crop_;  // what cropRect() answers; see there
  int canvasWidth_, canvasHeight_;
  cv::Mat image_;
  cv::Mat coverage_;  // nonzero where frames were painted
  // imageMutex_ guards the pixels of image_/coverage_ and their swap on
  // growth; queueMutex_ guards the draw queue, lastDrawn_ and the bounds.
  // Order: imageMutex_ before queueMutex_.  Keeping them apart lets the
  // worker queue a frame while the drawing thread blends the previous one.
  mutable std::mutex imageMutex_;
  mutable std::mutex queueMutex_;
  std::atomic<bool> running_{true};
  std::unique_ptr<std::thread> thread_;
  cv::Point lastDrawn_{-1, -1};
  Notify notify_;
  void* session_;
  struct DrawEntry {
    cv::Mat frame;
    int x, y;
  };
  std::deque<DrawEntry> drawQueue_;
  std::atomic<int> pendingDraws_{0};
  std::atomic<bool> drawFailed_{false};
  std::atomic<bool> firstDraw_{true};
  std::atomic<bool> busy_{false};
  std::atomic<bool> holdDrawing_{false};
  std::atomic<bool> failGrowth_{false};
};

}  // namespace vantix
