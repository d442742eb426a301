// A stitch session of the library (vantix_stitch_*) owned by a C++ object:
// its callbacks recorded for the tool's thread to read, waiting for reports,
// the panorama returned by vantix_stitch_stop as a cv::Mat, and the canvas
// positions of every report carried over into the final canvas.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace vtool {

// One onFrame report of the session.
struct StitchReport {
  cv::Point position;  // frame position on the canvas of its time
  uint32_t mode = 0;   // 1 placed, 2 kept, 3 lost, 4 not placed
  cv::Size canvas;     // canvas size at the time
  float score = 0;     // the frame's sharpness
  double seconds = 0;  // since the session was started
};

// "placed", "kept", "lost", "not placed".
std::string stitchModeName(uint32_t mode);
// "tracking lost", "canvas grew", ... ("event N" for an unknown code).
std::string stitchEventName(uint32_t code);

// Positions of reports in the coordinates of the last report's canvas.  When
// the canvas grew to the left or upwards its earlier content moved by the
// growth step; a report whose canvas is larger than the one before grew it,
// and it grew to the left (or up) when undoing the step puts it next to the
// previous placement.
std::vector<cv::Point> finalCanvasPositions(const std::vector<StitchReport>& reports);

class StitchSession {
 public:
  // Frames of `frameSize`, 8-bit B G R (format 0).  Levels 0..4; background
  // 0 checkerboard, 1 white, 2 black.  Calls initLibrary() first; throws
  // ToolError when the library refuses the session.
  StitchSession(cv::Size frameSize, uint32_t scaleLevel, uint32_t strictLevel,
                uint32_t background);
  ~StitchSession();
  StitchSession(const StitchSession&) = delete;
  StitchSession& operator=(const StitchSession&) = delete;

  VantixStitch* handle() const { return session_; }
  cv::Size frameSize() const { return frameSize_; }

  void start();
  // Pushes an 8-bit B G R frame of the session's size.
  void push(const cv::Mat& frame);

  // Waits (on the onFrame callback) until `count` reports have arrived or
  // the worker stopped after a failure; true when the reports are there.
  // Every frame the worker takes reaches onFrame, so a frame pushed after
  // the previous one's report is always reported.
  bool waitForReports(size_t count);
  // Waits until no report has arrived for `quiet` (the queue has drained),
  // at most `limit`.
  void waitUntilQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds limit);

  size_t reportCount() const;
  std::vector<StitchReport> reports() const;
  // Events received since the last call, oldest first.
  std::vector<uint32_t> takeEvents();
  // True after event 1 or 2: the worker has stopped itself.
  bool failed() const;

  // Stops the worker and returns the panorama (the covered rectangle when
  // `cropped`, else the whole canvas) as 8-bit B G R rows in canvas order,
  // or an empty image when the library returned none.
  cv::Mat stop(bool cropped);
  // The covered rectangle of the canvas.
  cv::Rect cropRect() const;

 private:
  static void onFrame(void* context, const uint8_t* canvasData, uint32_t canvasStride,
                      uint32_t canvasWidth, uint32_t canvasHeight, uint32_t frameWidth,
                      uint32_t frameHeight, uint32_t frameType, int32_t x, int32_t y,
                      uint32_t mode, uint32_t changed, uint32_t reset, float score);
  static void onEvent(void* context, uint32_t code);

  VantixStitch* session_ = nullptr;
  cv::Size frameSize_;
  std::chrono::steady_clock::time_point started_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<StitchReport> reports_;
  std::vector<uint32_t> events_;
  uint32_t lastEvent_ = 0;
  bool failed_ = false;
};

}  // namespace vtool
