// A host of stitch and EDF sessions for the session tests: it records what
// the callbacks report, can keep the worker waiting inside a frame callback,
// and drives a session of either family through the exported functions.
// Waits have no time limit (the test runner's timeout ends a hang).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

#if defined(__SANITIZE_THREAD__)
#define VTEST_TSAN 1
#elif defined(__SANITIZE_ADDRESS__)
#define VTEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VTEST_TSAN 1
#elif __has_feature(address_sanitizer)
#define VTEST_ASAN 1
#endif
#endif

namespace vtest {

// Iterations shrink under the sanitizers, which slow threads several times.
inline int scaled(int plainCount) {
#if defined(VTEST_TSAN)
  return std::max(1, plainCount / 4);
#elif defined(VTEST_ASAN)
  return std::max(1, plainCount / 2);
#else
  return plainCount;
#endif
}

// Serial OpenCV under ThreadSanitizer: its thread pool is not instrumented
// and its hand-offs would be reported as races.  The library's own threads
// stay under watch.
inline void serialOpenCvUnderTsan() {
#if defined(VTEST_TSAN)
  cv::setNumThreads(1);
#endif
}

// A one-shot gate: threads wait until it opens.
class Latch {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(m_);
    open_ = true;
    cv_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  bool open_ = false;
};

// One stitch frame report.
struct StitchCall {
  int32_t x, y;
  uint32_t mode, reset, stride, canvasWidth, canvasHeight, frameWidth, frameHeight, type;
  float score;
};

// Records the callbacks of the one session it made.  While the gate is
// closed, a frame callback waits in the worker (`passes` more may go
// through).  Callbacks that come while the window is closed (the host closes
// it once stop or delete returned) are counted in `outside`.
struct Host {
  std::mutex m;
  std::condition_variable cv;
  int frames = 0;
  std::vector<StitchCall> calls;
  std::vector<uint32_t> codes;  // stitch events, EDF errors
  cv::Mat last;                 // the last EDF image
  uint32_t lastStride = 0;
  bool gateClosed = false, blocked = false;
  int passes = 0;
  std::atomic<bool> window{true};
  std::atomic<int> outside{0};
  VantixStitch* stitch = nullptr;
  VantixEdf* edf = nullptr;

  // Called with the lock held.
  void arrived(std::unique_lock<std::mutex>& lock) {
    outside += !window.load();
    ++frames;
    cv.notify_all();
    while (gateClosed && passes == 0) {
      blocked = true;
      cv.notify_all();
      cv.wait(lock);
    }
    if (gateClosed) --passes;
    blocked = false;
  }
  static void onStitch(void* ctx, const uint8_t*, uint32_t stride, uint32_t cw, uint32_t ch,
                       uint32_t fw, uint32_t fh, uint32_t type, int32_t x, int32_t y, uint32_t mode,
                       uint32_t, uint32_t reset, float score) {
    auto* h = static_cast<Host*>(ctx);
    // Reading the session here would never return if the worker called
    // back with a session lock held.
    uint32_t cx, cy, cww, chh;
    vantix_stitch_cropparams(h->stitch, &cx, &cy, &cww, &chh);
    std::unique_lock<std::mutex> lock(h->m);
    h->calls.push_back(StitchCall{x, y, mode, reset, stride, cw, ch, fw, fh, type, score});
    h->arrived(lock);
  }
  static void onEdf(void* ctx, uint32_t event, const uint8_t* data, uint32_t stride,
                    uint32_t width, uint32_t height, uint32_t type) {
    auto* h = static_cast<Host*>(ctx);
    EXPECT_EQ(event, 0u);
    std::unique_lock<std::mutex> lock(h->m);
    h->last = cv::Mat(int(height), int(width), int(type), const_cast<uint8_t*>(data), stride).clone();
    h->lastStride = stride;
    h->arrived(lock);
  }
  static void onCode(void* ctx, uint32_t code) {
    auto* h = static_cast<Host*>(ctx);
    std::lock_guard<std::mutex> lock(h->m);
    h->outside += !h->window.load();
    h->codes.push_back(code);
    h->cv.notify_all();
  }

  VantixStitch* makeStitch(uint32_t w, uint32_t h, uint32_t background = 0, uint32_t format = 0,
                           uint32_t scale = 2) {
    return stitch = vantix_stitch_newV3(format, 0, w, h, background, scale, 2, &onStitch, &onCode,
                                        this);
  }
  VantixEdf* makeEdf(uint32_t kind, uint32_t format = 0) {
    return edf = vantix_edf_newV2(format, kind, &onEdf, &onCode, this);
  }
  // The session's failures: stitch events 1 (failed) and 2 (out of memory),
  // every EDF error.
  int failures() {
    std::lock_guard<std::mutex> lock(m);
    return static_cast<int>(std::count_if(codes.begin(), codes.end(), [&](uint32_t c) {
      return edf || c == VANTIX_STITCH_EVENT_FAILED || c == VANTIX_STITCH_EVENT_OUT_OF_MEMORY;
    }));
  }

  template <typename Done>
  void waitUntil(Done done) {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, done);
  }
  void waitFrames(int n) { waitUntil([&] { return frames >= n; }); }
  void waitCode() { waitUntil([&] { return !codes.empty(); }); }
  void gate(bool closed, int pass = 0) {
    std::lock_guard<std::mutex> lock(m);
    gateClosed = closed;
    passes += pass;
    blocked = false;
    cv.notify_all();
  }

  // The session of either family through the exported functions.
  void start() { stitch ? vantix_stitch_start(stitch) : vantix_edf_start(edf); }
  VantixImageHeader* stop(bool image = false) {
    if (stitch) return vantix_stitch_stop(stitch, image, 0);
    vantix_edf_stop(edf);
    return nullptr;
  }
  VantixResult push(const cv::Mat& f, uint32_t pitch = 0) {
    pitch = pitch ? pitch : static_cast<uint32_t>(f.step[0]);
    const auto bits = static_cast<int32_t>(8 * f.elemSize());
    return stitch ? vantix_stitch_pushback(stitch, f.data, f.cols, f.rows, bits, pitch)
                  : vantix_edf_pushback(edf, f.data, f.cols, f.rows, bits, pitch);
  }
  void pushAndWait(const cv::Mat& f) {
    std::unique_lock<std::mutex> lock(m);
    const int before = frames;
    lock.unlock();
    ASSERT_EQ(push(f), VANTIX_S_OK);
    waitFrames(before + 1);
  }
  void destroy() {
    stitch ? vantix_stitch_delete(stitch) : vantix_edf_delete(edf);
    stitch = nullptr;
    edf = nullptr;
  }
};

}  // namespace vtest
