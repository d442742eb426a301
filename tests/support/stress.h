// Helpers of the threaded tests: a start line and a latch for threads, and
// the sanitizer builds' scale.  (A hang is ended by the test runner's
// timeout.)
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <opencv2/core.hpp>

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
#if defined(VTEST_TSAN)
inline int scaled(int plainCount) { return std::max(1, plainCount / 4); }
#elif defined(VTEST_ASAN)
inline int scaled(int plainCount) { return std::max(1, plainCount / 2); }
#else
inline int scaled(int plainCount) { return plainCount; }
#endif

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
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = true;
    }
    cv_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return open_; });
  }
  bool isOpen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

// Lets `count` threads go at the same moment: each calls arriveAndWait().
class StartLine {
 public:
  explicit StartLine(int count) : count_(count) {}
  void arriveAndWait() {
    arrived_.fetch_add(1);
    while (arrived_.load() < count_) std::this_thread::yield();
  }

 private:
  const int count_;
  std::atomic<int> arrived_{0};
};

}  // namespace vtest
