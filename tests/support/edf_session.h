// A host of EDF sessions for tests: records the callbacks and can hold the
// worker inside onFrame.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace vtest {

class EdfHost {
 public:
  // The callbacks to hand to vantix_edf_new; the context is `this`.
  static void onFrame(void* context, uint32_t event, const uint8_t* data, uint32_t stride,
                      uint32_t width, uint32_t height, uint32_t type) {
    auto* host = static_cast<EdfHost*>(context);
    std::unique_lock<std::mutex> lock(host->mutex_);
    host->events_.push_back(event);
    host->lastType_ = type;
    host->lastStride_ = stride;
    const int cvType = static_cast<int>(type);
    host->last_ = cv::Mat(static_cast<int>(height), static_cast<int>(width), cvType,
                          const_cast<uint8_t*>(data), stride)
                      .clone();
    ++host->frames_;
    host->changed_.notify_all();
    host->changed_.wait(lock, [host] { return !host->holding_; });
  }
  static void onError(void* context, uint32_t code) {
    auto* host = static_cast<EdfHost*>(context);
    std::lock_guard<std::mutex> lock(host->mutex_);
    host->errors_.push_back(code);
    host->changed_.notify_all();
  }

  // Makes the next onFrame calls wait until release().
  void hold() {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = true;
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = false;
    changed_.notify_all();
  }

  // Waits (up to 20 s) until `count` frames or `errorCount` errors arrived.
  bool waitFrames(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return frames_ >= count; });
  }
  bool waitErrors(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20),
                             [&] { return errors_.size() >= count; });
  }

  int frames() {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  std::vector<uint32_t> errors() {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
  }
  cv::Mat last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return last_.clone();
  }
  uint32_t lastType() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastType_;
  }
  uint32_t lastStride() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastStride_;
  }
  std::vector<uint32_t> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool holding_ = false;
  int frames_ = 0;
  std::vector<uint32_t> events_;
  std::vector<uint32_t> errors_;
  cv::Mat last_;
  uint32_t lastType_ = 0;
  uint32_t lastStride_ = 0;
};

// Pushes a CV_8UC3 / CV_16UC3 / CV_8UC4 / CV_16UC4 image with its own step.
inline VantixResult pushImage(VantixEdf* session, const cv::Mat& image) {
  return vantix_edf_pushback(session, image.data, static_cast<uint32_t>(image.cols),
                             static_cast<uint32_t>(image.rows), 8,
                             static_cast<uint32_t>(image.step[0]));
}

}  // namespace vtest
