// Helpers of the stress tests: a watchdog that turns a hang into a failure
// in bounded time, a start barrier for threads, and the iteration scale of
// the sanitizer builds.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include <opencv2/core.hpp>

#if defined(__SANITIZE_THREAD__)
#define VTEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VTEST_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define VTEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VTEST_ASAN 1
#endif
#endif

namespace vtest {

// Iterations shrink under the sanitizers, which slow threads and the image
// library several times over.
#if defined(VTEST_TSAN)
constexpr int kStressScale = 4;
#elif defined(VTEST_ASAN)
constexpr int kStressScale = 2;
#else
constexpr int kStressScale = 1;
#endif
inline int scaled(int plainCount) { return std::max(1, plainCount / kStressScale); }

// Serial OpenCV under ThreadSanitizer: the image library's pool (TBB) is not
// instrumented, and its hand-offs would be reported as races.  The library's
// own threads (workers, canvas thread, pyramid channel threads) are ordinary
// threads and stay under watch.
inline void serialOpenCvUnderTsan() {
#if defined(VTEST_TSAN)
  cv::setNumThreads(1);
#endif
}

// Aborts the process (a crash the test runner reports) when it is still
// alive `limit` after construction: a deadlock fails in bounded time instead
// of hanging the run.  Destruction disarms it.
class Watchdog {
 public:
  Watchdog(std::chrono::seconds limit, std::string what) : what_(std::move(what)) {
    thread_ = std::thread([this, limit] {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!cv_.wait_for(lock, limit, [this] { return done_; })) {
        std::fprintf(stderr, "watchdog: '%s' did not finish within %lld s\n", what_.c_str(),
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        std::abort();
      }
    });
  }
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    cv_.notify_all();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::string what_;
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;
  std::thread thread_;
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

}  // namespace vtest
