// The EDF session: a queue of up to 3 frames filled by host threads and one
// worker thread that aligns and fuses them, publishing the running fused
// image in the session's pixel format.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

#include "core/frame_worker.h"
#include "edf/edf_fuser.h"

namespace vantix {

class CEdfSession {
 public:
  // Frames never wait in a queue longer than this; a push to a full queue
  // drops the oldest frame.
  static constexpr size_t kQueueLimit = 3;

  // A session of fuser `kind` (an unknown kind leaves no fuser: the first
  // processed frame is then reported through onError with code 1).
  CEdfSession(uint32_t format, uint32_t kind, VantixEdfFrameFn onFrame, VantixEdfErrorFn onError,
              void* context);
  // The same with a given fuser (null for none).
  CEdfSession(uint32_t format, std::unique_ptr<CEdfFuser> fuser, VantixEdfFrameFn onFrame,
              VantixEdfErrorFn onError, void* context);
  ~CEdfSession();

  CEdfSession(const CEdfSession&) = delete;
  CEdfSession& operator=(const CEdfSession&) = delete;

  // Starts a worker (ending one that is already there first).
  void start();
  // Stops the worker and waits for it; queue, fused image and stack stay.
  void stop();
  // Converts and enqueues a frame when running (else drops it).
  void push(const void* data, uint32_t width, uint32_t height, uint64_t bits, uint32_t rowPitch);
  // Copies `rowBytes` bytes of each fused row, top row first, advancing the
  // destination by rowBytes a row.  Nothing before the first fused frame.
  void readData(void* buffer, uint32_t rowBytes);

  // For tests: state as seen from outside the worker.
  bool running() const { return worker_.running(); }
  uint32_t format() const { return format_; }
  std::vector<cv::Mat> queuedFrames();  // deep copies, oldest first

 private:
  void process(cv::Mat& frame);

  uint32_t format_;
  // Frames are fused only while mode is 0 or 1; it is never changed.
  const uint32_t mode_ = 0;
  std::mutex resultMutex_;
  VantixEdfFrameFn onFrame_;
  VantixEdfErrorFn onError_;
  void* context_;
  cv::Mat fused_;  // in format_, replaced (not written into) by the worker
  CFuserSlot slot_;
  // Declared last: destroyed first, so the worker has ended before any
  // member it reads goes.  It owns the frame queue.
  FrameWorker<cv::Mat> worker_;
};

}  // namespace vantix
