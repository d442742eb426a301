// The worker thread of a session and its running flag, with start, stop and
// destruction serialised: a host may call start and stop of one session from
// any number of threads at once (a UI's stop button beside an error
// handler), and every interleaving ends with at most one worker alive.  A
// stop that finds the worker already stopped (by another thread's stop, or by
// the worker itself after an error) joins what is left and returns, as a stop
// of a stopped session.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

namespace vantix {

class SessionThread {
 public:
  SessionThread() = default;
  ~SessionThread() { stop(); }
  SessionThread(const SessionThread&) = delete;
  SessionThread& operator=(const SessionThread&) = delete;

  // Ends a worker that is still there (start without stop, or one that
  // stopped itself), then runs `body` on a new thread with the flag set.
  template <typename Body>
  void start(Body&& body) {
    std::lock_guard<std::mutex> lock(lifecycle_);
    endLocked();
    running_.store(true);
    thread_ = std::thread(std::forward<Body>(body));
  }

  // Clears the flag and waits for the worker to finish its pass.  Must not be
  // called from the worker itself (its callbacks included).
  void stop() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    endLocked();
  }

  // Polled by the worker once a pass, and by pushes to drop frames while
  // stopped.
  bool running() const { return running_.load(); }
  // The worker's own way out after an error; the thread is joined by the
  // next start or stop, or at destruction.
  void stopFromWorker() { running_.store(false); }

 private:
  void endLocked() {
    running_.store(false);
    if (thread_.joinable()) thread_.join();
  }

  std::mutex lifecycle_;
  std::atomic<bool> running_{false};
  std::thread thread_;
};

}  // namespace vantix
