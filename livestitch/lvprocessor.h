// The live stitch session: a queue of pushed frames, a worker that picks the
// sharpest waiting frame, registers it against the reference frame and
// places it on the panorama canvas, and the host's two callbacks.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>

#include <vantix.h>

#include "core/frame_worker.h"
#include "livestitch/lvcanvas.h"
#include "livestitch/lvregister.h"

namespace vantix {

// Index of the frame to process among the scores of the waiting frames: the
// largest of the first six, a later one winning only when strictly larger.
size_t sharpestOfSix(const std::vector<double>& scores);

class CLvProcessor {
 public:
  static constexpr size_t kQueueLimit = 21;

  CLvProcessor(uint32_t format, uint32_t width, uint32_t height, uint32_t background,
               uint32_t scaleLevel, uint32_t strictLevel, VantixStitchFrameFn onFrame,
               VantixStitchEventFn onEvent, void* context);
  virtual ~CLvProcessor();
  CLvProcessor(const CLvProcessor&) = delete;
  CLvProcessor& operator=(const CLvProcessor&) = delete;

  void start();
  // Stops the worker; with wantImage returns the panorama (host-allocated).
  VantixImageHeader* stop(bool wantImage, bool cropped);
  // Host thread: converts, copies and queues one frame (dropped when not
  // running; the oldest frame is dropped when 21 are waiting).
  void push(const void* data, uint32_t width, uint32_t height, uint32_t rowPitch);
  int32_t readData(void* buffer, uint32_t width, uint32_t height, uint32_t x, uint32_t y,
                   uint32_t roiWidth, uint32_t roiHeight);
  void cropParams(uint32_t* x, uint32_t* y, uint32_t* width, uint32_t* height) const;

  // Relocation requests (no export reaches them yet).
  void beginRelocation(bool on);
  void markRelocationRequest();
  int locateAt(int x, int y);

  // The canvas's notification: marks `changed` (and `reset` for code 3) and
  // forwards codes 1..5 to onEvent.
  static void notify(void* session, int code);

  // --- for tests -----------------------------------------------------------
  size_t queuedFrames();
  // Replaces the sharpness measure of queued frames (scores of the working
  // copies); the default is the gradient measure.
  void setScoreFunction(std::function<double(const cv::Mat&)> score);
  uint32_t state() const { return state_.load(); }
  int scalePercent() const { return scalePercent_; }
  float minSharpness() const { return minSharpness_; }
  float minMatch() const { return minMatch_; }
  const RegistrationGeometry& geometry() const { return geometry_; }
  double sharpnessFactor() const { return sharpnessFactor_; }
  CLvCanvas& canvas() { return *canvas_; }

 private:
  // A pushed frame and, once the worker has looked at it, its working copy
  // and that copy's score (each queued frame is scored once).
  struct QueuedFrame {
    cv::Mat frame, small;
    double score = 0.0;
  };
  // One selection pass over the queue (locked); false when no frame waits.
  bool takeFrame(std::deque<QueuedFrame>& queue, QueuedFrame& chosen);
  double scoreOf(const cv::Mat& small);
  // Per-frame step: 0 empty, 1 registered, 2 first reference.
  int processFrame(const cv::Mat& frame, const cv::Mat& small);
  void compose(const cv::Mat& frame, cv::Point2d position, int mode, double score);
  bool placementStands(const cv::Mat& frame, cv::Point2d position);
  void overlapScores(const cv::Mat& frame, cv::Point2d displacement, double& newScore,
                     double& refScore);
  void makeReference(const cv::Mat& frame, const cv::Mat& gray, const cv::Mat& smallGray);
  void event(uint32_t code);

  int scalePercent_;
  float minSharpness_ = 0.0f, minMatch_ = 0.0f;
  uint32_t format_;
  double sharpnessFactor_;
  std::unique_ptr<CLvCanvas> canvas_;
  std::shared_ptr<cv::DescriptorMatcher> matcher_;
  VantixStitchFrameFn onFrame_;
  VantixStitchEventFn onEvent_;
  void* context_;
  std::atomic<uint32_t> state_{0};
  cv::Ptr<cv::ORB> detector_;
  cv::Mat reference_;
  cv::Mat gradientLut_;
  cv::Mat referenceGray_, referenceSmallGray_;
  std::atomic<uint32_t> reset_{1}, changed_{0};
  std::atomic<bool> relocatePending_{false};
  bool placed_ = false;
  bool firstFrame_ = false;
  std::atomic<bool> forceMode3_{false};
  RegistrationGeometry geometry_;
  TrackingState track_;
  TemplateOrigins templateOrigin_, altTemplateOrigin_;
  PhaseCache phaseCache_;
  double referenceScore_ = 0.0, frameScore_ = 0.0;
  // Where the last measured frame would lie (relative to the first frame),
  // accepted or not: onFrame reports it for frames that are not placed.
  cv::Point2d measuredPosition_;
  std::function<double(const cv::Mat&)> scoreOverride_;
  // Declared last: destroyed first, so the worker has ended before any
  // member it reads goes.  It owns the frame queue (whose lock also guards
  // scoreOverride_).
  FrameWorker<QueuedFrame> worker_;
};

}  // namespace vantix
