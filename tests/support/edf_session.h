// A host of EDF sessions for tests: records the callbacks and can hold the
// worker inside onFrame.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace vtest {

class EdfHost {
  template <typename F>
  auto locked(F f) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  template <typename F>
  bool waitFor(F done) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), done);
  }

 public:
  // The callbacks to hand to vantix_edf_new; the context is `this`.
  static void onFrame(void* context, uint32_t event, const uint8_t* data, uint32_t stride,
                      uint32_t width, uint32_t height, uint32_t type) {
    auto* host = static_cast<EdfHost*>(context);
    std::unique_lock<std::mutex> lock(host->mutex_);
    host->events_.push_back(event);
    host->lastType_ = type;
    host->lastStride_ = stride;
    host->last_ = cv::Mat(static_cast<int>(height), static_cast<int>(width),
                          static_cast<int>(type), const_cast<uint8_t*>(data), stride)
                      .clone();
    ++host->frames_;
    host->changed_.notify_all();
    host->changed_.wait(lock, [host] { return !host->holding_; });
  }
  static void onError(void* context, uint32_t code) {
    auto* host = static_cast<EdfHost*>(context);
    host->locked([&] {
      host->errors_.push_back(code);
      host->changed_.notify_all();
    });
  }

  // Makes the next onFrame calls wait until release().
  void hold() {
    locked([&] { holding_ = true; });
  }
  void release() {
    locked([&] { holding_ = false; });
    changed_.notify_all();
  }

  // Wait (up to 20 s) until `count` frames or errors arrived.
  bool waitFrames(int count) { return waitFor([&] { return frames_ >= count; }); }
  bool waitErrors(size_t count) { return waitFor([&] { return errors_.size() >= count; }); }

  int frames() { return locked([&] { return frames_; }); }
  std::vector<uint32_t> errors() { return locked([&] { return errors_; }); }
  std::vector<uint32_t> events() { return locked([&] { return events_; }); }
  cv::Mat last() { return locked([&] { return last_.clone(); }); }
  uint32_t lastType() { return locked([&] { return lastType_; }); }
  uint32_t lastStride() { return locked([&] { return lastStride_; }); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool holding_ = false;
  int frames_ = 0;
  std::vector<uint32_t> events_, errors_;
  cv::Mat last_;
  uint32_t lastType_ = 0, lastStride_ = 0;
};

// Pushes a CV_8UC3 / CV_16UC3 / CV_8UC4 / CV_16UC4 image with its own step.
inline VantixResult pushImage(VantixEdf* session, const cv::Mat& image) {
  return vantix_edf_pushback(session, image.data, static_cast<uint32_t>(image.cols),
                             static_cast<uint32_t>(image.rows), 8,
                             static_cast<uint32_t>(image.step[0]));
}

}  // namespace vtest
