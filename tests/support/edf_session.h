// A host of EDF sessions for tests: records the callbacks, and while held
// keeps the worker waiting inside onFrame.  Waits have no time limit (the
// test runner's timeout ends a hang).
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace vtest {

struct EdfHost {
  std::mutex m;
  std::condition_variable cv;
  int frames = 0;
  bool held = false;
  std::vector<uint32_t> errors;
  cv::Mat last;
  uint32_t lastStride = 0;

  static void onFrame(void* ctx, uint32_t event, const uint8_t* data, uint32_t stride,
                      uint32_t width, uint32_t height, uint32_t type) {
    auto* h = static_cast<EdfHost*>(ctx);
    std::unique_lock<std::mutex> lock(h->m);
    EXPECT_EQ(event, 0u);
    h->last = cv::Mat(int(height), int(width), int(type), const_cast<uint8_t*>(data), stride).clone();
    h->lastStride = stride;
    ++h->frames;
    h->cv.notify_all();
    h->cv.wait(lock, [h] { return !h->held; });
  }
  static void onError(void* ctx, uint32_t code) {
    auto* h = static_cast<EdfHost*>(ctx);
    std::lock_guard<std::mutex> lock(h->m);
    h->errors.push_back(code);
    h->cv.notify_all();
  }
  void waitFrames(int n) {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return frames >= n; });
  }
  void waitError() {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return !errors.empty(); });
  }
  void hold(bool on) {
    std::lock_guard<std::mutex> lock(m);
    held = on;
    cv.notify_all();
  }
  VantixEdf* make(uint32_t kind, uint32_t format = 0) {
    return vantix_edf_newV2(format, kind, &onFrame, &onError, this);
  }
};

}  // namespace vtest
