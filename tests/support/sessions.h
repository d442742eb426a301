// A host of stitch and EDF sessions for the session tests: it owns a session
// of either family (vantix.hpp), records what the callbacks report, can keep
// the worker waiting inside a frame callback, and counts callbacks that come
// after stop or delete returned.  Waits have no time limit (the test
// runner's timeout ends a hang).
#pragma once

#include <climits>
#include <condition_variable>
#include <future>
#include <mutex>

#include <vantix.hpp>

#include "support/test_support.h"

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

// The pixels of a B G R panorama the session returned.
inline cv::Mat pixels(const vantix::Image& image) {
  return cv::Mat(image->biHeight, image->biWidth, CV_8UC3, vantix::pixelsOf(image.get()),
                 vantix_default_stride(image->biWidth, 24));
}

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

// Owns a session of either family, records what its callbacks report and
// can hold the worker inside a frame callback.  Callbacks that come while
// `window` is false (the tests clear it once stop or delete returned) are
// counted in `outside`.
struct Host {
  std::mutex m;
  std::condition_variable cv;
  int frames = 0;
  int allowed = INT_MAX;                   // frame callbacks after this many wait in the worker
  bool blocked = false;                    // one waits now
  std::vector<vantix::StitchFrame> calls;  // canvasData is stale after the call
  std::vector<uint32_t> codes;             // stitch events, EDF errors
  cv::Mat last;                            // a copy of the last EDF image
  std::atomic<bool> window{true};
  std::atomic<int> outside{0};
  VantixStitch* stitchHandle = nullptr;  // what the stitch callback reads
  // Declared last: destroyed (workers joined) before what they record into.
  std::unique_ptr<vantix::StitchSession> stitch;
  std::unique_ptr<vantix::EdfSession> edf;

  void onStitch(const vantix::StitchFrame& f) {
    // Reading the session here would never return if the worker called
    // back with a session lock held.
    uint32_t x, y, w, h;
    vantix_stitch_cropparams(stitchHandle, &x, &y, &w, &h);
    std::unique_lock<std::mutex> lock(m);
    calls.push_back(f);
    arrived(lock);
  }
  void onEdf(const vantix::EdfFrame& f) {
    EXPECT_EQ(f.stride, f.width * CV_ELEM_SIZE(f.type));  // rows without padding
    std::unique_lock<std::mutex> lock(m);
    last = cv::Mat(int(f.height), int(f.width), int(f.type), const_cast<uint8_t*>(f.data)).clone();
    arrived(lock);
  }
  void onCode(uint32_t code) {
    std::lock_guard<std::mutex> lock(m);
    outside += !window.load();
    codes.push_back(code);
    cv.notify_all();
  }
  // C callbacks reporting to the Host passed as context.
  static void edfThunk(void* host, uint32_t event, const uint8_t* data, uint32_t stride,
                       uint32_t width, uint32_t height, uint32_t type) {
    static_cast<Host*>(host)->onEdf({event, data, stride, width, height, type});
  }
  static void codeThunk(void* host, uint32_t code) { static_cast<Host*>(host)->onCode(code); }

  vantix::StitchSession& makeStitch(uint32_t w, uint32_t h, uint32_t background = 0,
                                    uint32_t format = 0, uint32_t scale = 2) {
    stitch = std::make_unique<vantix::StitchSession>(
        w, h, [this](const vantix::StitchFrame& f) { onStitch(f); },
        [this](uint32_t c) { onCode(c); }, format, background, scale);
    stitchHandle = stitch->handle();
    return *stitch;
  }
  vantix::EdfSession& openEdf(uint32_t kind, uint32_t format = 0) {
    edf = std::make_unique<vantix::EdfSession>([this](const vantix::EdfFrame& f) { onEdf(f); },
                                               [this](uint32_t c) { onCode(c); }, kind, format);
    return *edf;
  }

  template <typename Done>
  void waitUntil(Done done) {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, done);
  }
  void waitFrames(int n) {
    waitUntil([&] { return frames >= n; });
  }
  // Closed, frame callbacks after those that already came wait (so closing
  // it again lets the waiting one go on and holds the next).
  void gate(bool closed) {
    std::lock_guard<std::mutex> lock(m);
    allowed = closed ? frames : INT_MAX;
    cv.notify_all();
  }

  // The owned session of either family; stop(true) takes the whole canvas.
  void start() { stitch ? stitch->start() : edf->start(); }
  void stop(bool image = false) { stitch ? (void)stitch->stop(image, false) : edf->stop(); }
  // Pushes `f` at its own row step.
  void push(const cv::Mat& f) {
    const auto pitch = static_cast<uint32_t>(f.step[0]);
    stitch ? stitch->pushback(f.data, f.cols, f.rows, pitch)
           : edf->pushback(f.data, f.cols, f.rows, pitch);
  }
  void pushAndWait(const cv::Mat& f) {
    std::unique_lock<std::mutex> lock(m);
    const int before = frames;
    lock.unlock();
    push(f);
    waitFrames(before + 1);
  }
  void destroy() {
    stitch.reset();
    edf.reset();
    window = false;  // no callback may come now
  }

 private:
  // Called with the lock held.
  void arrived(std::unique_lock<std::mutex>& lock) {
    outside += !window.load();
    const int index = ++frames;
    blocked = index > allowed;
    cv.notify_all();
    cv.wait(lock, [&] { return index <= allowed; });
    blocked = false;
  }
};

}  // namespace vtest
