// The worker thread of a session with its bounded frame queue.
//
// Host threads push entries; a push to a full queue drops the oldest waiting
// entry for the new one.  The worker runs while the running flag is set
// (polled once a pass): it takes one entry under the queue lock (the
// session's choice, by default the oldest), processes it outside the lock,
// and sleeps 20 ms when nothing waits.  An exception from taking or
// processing ends the worker: the flag is cleared first, then the session
// hears a failure code (2 for the image library's out-of-memory error, 1 for
// anything else derived from std::exception, allocation failures included);
// other exceptions end the process.  The queue survives a stop: a later start
// goes on with what is waiting.
//
// Start, stop and destruction are serialised: a host may call start and stop
// of one session from any number of threads at once (a UI's stop button
// beside an error handler), and every interleaving ends with at most one
// worker alive.  A stop that finds the worker already stopped (by another
// thread's stop, or by the worker itself after an error) joins what is left.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include <opencv2/core.hpp>

namespace vantix {

// What the worker reports when it ends on an exception; the values are the
// codes both sessions hand to their hosts.
enum WorkerFailure : uint32_t { kWorkerFailed = 1, kWorkerOutOfMemory = 2 };

template <typename Entry>
class FrameWorker {
 public:
  using Queue = std::deque<Entry>;
  // Called with the queue locked: moves the entry to process into `out` and
  // removes what it takes; false when nothing waits.
  using Take = std::function<bool(Queue& queue, Entry& out)>;

  FrameWorker(size_t capacity, std::function<void(Entry&)> process,
              std::function<void(WorkerFailure)> failed, Take take = &takeOldest)
      : capacity_(capacity),
        process_(std::move(process)),
        failed_(std::move(failed)),
        take_(std::move(take)) {}
  ~FrameWorker() { stop(); }

  // Ends a worker that is still there (start without stop, or one that
  // stopped itself), then starts a new one with the flag set.
  void start() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    endLocked();
    running_.store(true);
    thread_ = std::thread([this] { run(); });
  }

  // Clears the flag and waits for the worker to finish its pass.  Must not be
  // called from the worker itself (its callbacks included).
  void stop() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    endLocked();
  }

  // Pushes check it first, so that a stopped session drops frames before
  // converting them.
  bool running() const { return running_.load(); }

  void push(Entry entry) {
    std::lock_guard<std::mutex> lock(queueMutex_);
    if (queue_.size() >= capacity_) queue_.pop_front();
    queue_.push_back(std::move(entry));
  }

  // Runs `f` on the queue under its lock (tests, and settings the session's
  // take reads).
  template <typename F>
  auto withQueue(F&& f) {
    std::lock_guard<std::mutex> lock(queueMutex_);
    return f(queue_);
  }

  static bool takeOldest(Queue& queue, Entry& out) {
    if (queue.empty()) return false;
    out = std::move(queue.front());
    queue.pop_front();
    return true;
  }

 private:
  void run() {
    while (running_.load()) {
      try {
        Entry entry;
        bool taken;
        {
          std::lock_guard<std::mutex> lock(queueMutex_);
          taken = take_(queue_, entry);
        }
        if (!taken) {
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
          continue;
        }
        process_(entry);
      } catch (const std::exception& e) {
        running_.store(false);
        const auto* cvError = dynamic_cast<const cv::Exception*>(&e);
        const bool memory = cvError != nullptr && cvError->code == cv::Error::StsNoMem;
        failed_(memory ? kWorkerOutOfMemory : kWorkerFailed);
      }
    }
  }

  void endLocked() {
    running_.store(false);
    if (thread_.joinable()) thread_.join();
  }

  const size_t capacity_;
  const std::function<void(Entry&)> process_;
  const std::function<void(WorkerFailure)> failed_;
  const Take take_;
  std::mutex queueMutex_;
  Queue queue_;
  std::mutex lifecycle_;
  std::atomic<bool> running_{false};
  std::thread thread_;
};

}  // namespace vantix
