// Live stitching end to end, through the public interface only, on the
// simulated scan of testing/scenes.h (default levels):
//
//   1. worker time per frame at 1920 x 1080 and 1280 x 720: frames handed
//      over one at a time, each pushed from inside the previous frame's
//      onFrame so that the worker never idles between frames; the interval
//      between two onFrame calls less the push made inside the first is the
//      worker's time for one frame (choosing and scoring it, registration,
//      composition, the callback).  Registration and composition are not
//      observable apart through the public interface.
//   2. frames processed per second when a host pushes 1920 x 1080 frames at
//      30 frames a second for 20 s (sharpest-of-six selection: frames the
//      worker cannot keep up with are skipped), and the peak memory of that
//      process (VmHWM), in total and above the process's size before the
//      session was created.
//
// Frames are rendered before the timing into a bank of consecutive scan
// frames that is played forwards and backwards, so that rendering does not
// compete with the session for the two cores.  Each measurement runs in a
// forked child of its own.
//
// Usage: bench_stitch [--quick]   (--quick: short runs, to check it works)
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vantix.h>

#include "testing/scenes.h"

namespace {

using Clock = std::chrono::steady_clock;

void* hostAllocate(uint64_t bytes) { return std::malloc(static_cast<size_t>(bytes)); }

double cpuMs(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

double msBetween(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

// kB from a line of /proc/self/status ("VmHWM", "VmRSS").
long statusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = std::string(field) + ":";
  while (std::getline(status, line)) {
    if (line.rfind(prefix, 0) == 0) return std::atol(line.c_str() + prefix.size());
  }
  return -1;
}

// Consecutive frames of the scan, played forwards and backwards.
struct FrameBank {
  std::vector<cv::Mat> frames;
  const cv::Mat& at(size_t k) const {
    const size_t n = frames.size(), period = 2 * n - 2;
    const size_t i = k % period;
    return frames[i < n ? i : period - i];
  }
};

FrameBank renderBank(const cv::Mat& scene, vtest::ScanOptions options, size_t count) {
  options.maxFrames = static_cast<int>(count);
  const vtest::ScanSimulator scan(scene, options);
  FrameBank bank;
  for (size_t i = 0; i < scan.frameCount(); ++i) bank.frames.push_back(scan.render(i));
  return bank;
}

VantixResult push(VantixStitch* session, const cv::Mat& frame) {
  return vantix_stitch_pushback(session, frame.data, static_cast<uint32_t>(frame.cols),
                                static_cast<uint32_t>(frame.rows), 24,
                                static_cast<uint32_t>(frame.step));
}

// ---------------------------------------------------------------------------
// 1. Worker time per frame
// ---------------------------------------------------------------------------

struct ChainFeeder {
  const FrameBank* bank = nullptr;
  VantixStitch* session = nullptr;
  size_t total = 0;
  std::mutex mutex;
  std::condition_variable done;
  std::vector<Clock::time_point> reportAt;
  std::vector<double> threadCpuMs;   // the worker thread's CPU time at report i
  std::vector<double> processCpuMs;  // the whole process's CPU time at report i
  std::vector<double> pushMs;  // push made inside report i
  std::vector<uint32_t> modes;

  static void onFrame(void* context, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t,
                      uint32_t, uint32_t, int32_t, int32_t, uint32_t mode, uint32_t, uint32_t,
                      float) {
    auto* self = static_cast<ChainFeeder*>(context);
    const auto now = Clock::now();
    const double threadCpu = cpuMs(CLOCK_THREAD_CPUTIME_ID);
    const double processCpu = cpuMs(CLOCK_PROCESS_CPUTIME_ID);
    std::lock_guard<std::mutex> lock(self->mutex);
    self->reportAt.push_back(now);
    self->threadCpuMs.push_back(threadCpu);
    self->processCpuMs.push_back(processCpu);
    self->modes.push_back(mode);
    const size_t next = self->reportAt.size();
    double pushed = 0;
    if (next < self->total) {
      const double before = cpuMs(CLOCK_THREAD_CPUTIME_ID);
      push(self->session, self->bank->at(next));
      pushed = cpuMs(CLOCK_THREAD_CPUTIME_ID) - before;
    }
    self->pushMs.push_back(pushed);
    if (next >= self->total) self->done.notify_all();
  }
};

struct WorkerFigures {
  double medianMs = 0, p95Ms = 0, meanMs = 0;            // wall time
  double cpuMedianMs = 0, cpuP95Ms = 0, processCpuMs = 0;  // CPU time
  double pushMs = 0;
  int frames = 0, placed = 0;
};

void percentiles(std::vector<double> values, double& median, double& p95) {
  if (values.empty()) return;
  std::sort(values.begin(), values.end());
  median = values[values.size() / 2];
  p95 = values[std::min(values.size() - 1, values.size() * 95 / 100)];
}

WorkerFigures measureWorker(const FrameBank& bank, cv::Size size, size_t frames) {
  ChainFeeder feeder;
  feeder.bank = &bank;
  feeder.total = frames;
  VantixStitch* session =
      vantix_stitch_new(0, static_cast<uint32_t>(size.width), static_cast<uint32_t>(size.height),
                        0, &ChainFeeder::onFrame, nullptr, &feeder);
  if (session == nullptr) std::exit(3);
  feeder.session = session;
  vantix_stitch_start(session);
  {
    std::unique_lock<std::mutex> lock(feeder.mutex);
    push(session, bank.at(0));
    feeder.done.wait_for(lock, std::chrono::minutes(5),
                         [&] { return feeder.reportAt.size() >= frames; });
  }
  vantix_stitch_stop(session, 0, 0);
  vantix_stitch_delete(session);

  // Report i - 1 pushed frame i inside its callback; that push is the host's
  // work and is taken off the interval.
  std::vector<double> wall, cpu;
  double pushSum = 0, processCpu = 0;
  const size_t n = feeder.reportAt.size();
  for (size_t i = 1; i < n; ++i) {
    wall.push_back(msBetween(feeder.reportAt[i - 1], feeder.reportAt[i]) - feeder.pushMs[i - 1]);
    cpu.push_back(feeder.threadCpuMs[i] - feeder.threadCpuMs[i - 1] - feeder.pushMs[i - 1]);
    pushSum += feeder.pushMs[i - 1];
  }
  WorkerFigures f;
  f.frames = static_cast<int>(n);
  f.placed = static_cast<int>(std::count(feeder.modes.begin(), feeder.modes.end(), 1u));
  if (wall.empty()) return f;
  percentiles(wall, f.medianMs, f.p95Ms);
  percentiles(cpu, f.cpuMedianMs, f.cpuP95Ms);
  for (double t : wall) f.meanMs += t / wall.size();
  processCpu = feeder.processCpuMs[n - 1] - feeder.processCpuMs[0] - pushSum;
  f.processCpuMs = processCpu / wall.size();
  f.pushMs = pushSum / wall.size();
  return f;
}

// ---------------------------------------------------------------------------
// 2. A host pushing at 30 frames a second
// ---------------------------------------------------------------------------

struct Counter {
  std::atomic<int> reports{0};
  std::atomic<int> placed{0};
  static void onFrame(void* context, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t,
                      uint32_t, uint32_t, int32_t, int32_t, uint32_t mode, uint32_t, uint32_t,
                      float) {
    auto* self = static_cast<Counter*>(context);
    self->reports.fetch_add(1);
    if (mode == 1) self->placed.fetch_add(1);
  }
};

struct LiveFigures {
  int pushed = 0, processedInWindow = 0, processed = 0, placed = 0;
  double seconds = 0, pushMs = 0;
  long baselineKb = 0, peakKb = 0;
};

LiveFigures measureLive(const FrameBank& bank, cv::Size size, double seconds, int fps) {
  LiveFigures f;
  f.baselineKb = statusKb("VmRSS");
  Counter counter;
  VantixStitch* session =
      vantix_stitch_new(0, static_cast<uint32_t>(size.width), static_cast<uint32_t>(size.height),
                        0, &Counter::onFrame, nullptr, &counter);
  if (session == nullptr) std::exit(3);
  vantix_stitch_start(session);
  const int frames = static_cast<int>(seconds * fps);
  const auto start = Clock::now();
  double pushSum = 0;
  for (int k = 0; k < frames; ++k) {
    std::this_thread::sleep_until(start + std::chrono::microseconds(int64_t(k) * 1000000 / fps));
    const auto before = Clock::now();
    push(session, bank.at(static_cast<size_t>(k)));
    pushSum += msBetween(before, Clock::now());
  }
  std::this_thread::sleep_until(start + std::chrono::microseconds(int64_t(frames) * 1000000 / fps));
  f.processedInWindow = counter.reports.load();
  f.seconds = msBetween(start, Clock::now()) / 1000.0;
  // Let the worker finish what is still queued.
  for (int seen = -1; seen != counter.reports.load();) {
    seen = counter.reports.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  vantix_stitch_stop(session, 0, 0);
  f.peakKb = statusKb("VmHWM");
  vantix_stitch_delete(session);
  f.pushed = frames;
  f.processed = counter.reports.load();
  f.placed = counter.placed.load();
  f.pushMs = pushSum / std::max(1, frames);
  return f;
}

// Runs `body` in a forked child and returns the bytes it wrote back.
template <typename T, typename F>
bool inChild(F body, T& result) {
  int channel[2];
  if (pipe(channel) != 0) return false;
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    close(channel[0]);
    const T value = body();
    const ssize_t written = write(channel[1], &value, sizeof value);
    _exit(written == static_cast<ssize_t>(sizeof value) ? 0 : 1);
  }
  close(channel[1]);
  const ssize_t got = read(channel[0], &result, sizeof result);
  close(channel[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return got == static_cast<ssize_t>(sizeof result) && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  // Nothing here starts a thread before the children are forked: each child
  // makes its own scene (OpenCV's worker threads do not survive a fork).
  for (const char* photo : vtest::scanPhotos()) {
    const std::string path = std::string(vtest::kPhotoFolder) + "/" + photo;
    if (!std::ifstream(path)) {
      std::fprintf(stderr, "bench_stitch: cannot read %s (install Debian's opencv-doc package)\n",
                   path.c_str());
      return 1;
    }
  }
  std::printf("live stitching on a simulated scan, default levels (scale 2, strict 2)%s\n",
              quick ? ", quick run" : "");
  if (std::FILE* load = std::fopen("/proc/loadavg", "r")) {
    char text[64] = {};
    if (std::fgets(text, sizeof text, load) != nullptr) std::printf("load average: %s", text);
    std::fclose(load);
  }

  struct Case {
    const char* name;
    vtest::ScanOptions options;
    size_t bank, frames;
  };
  const Case cases[] = {
      {"1920 x 1080", vtest::scanOptions1080(), quick ? 12u : 32u, quick ? 40u : 300u},
      {"1280 x 720", vtest::scanOptions720(), quick ? 12u : 48u, quick ? 40u : 300u},
  };
  std::printf("\nworker time per frame (one frame at a time, never idle)\n");
  std::printf("| frame | frames | placed | wall median | wall 95th pct | wall mean | worker CPU "
              "median | worker CPU 95th pct | process CPU a frame | push (host) |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|\n");
  for (const Case& c : cases) {
    WorkerFigures f;
    const bool ok = inChild(
        [&] {
          vantix_init(&hostAllocate);
          const FrameBank bank = renderBank(vtest::scanScene(), c.options, c.bank);
          return measureWorker(bank, c.options.frame, c.frames);
        },
        f);
    if (!ok) {
      std::printf("| %s | failed |\n", c.name);
      continue;
    }
    std::printf("| %s | %d | %d | %.1f ms | %.1f ms | %.1f ms | %.1f ms | %.1f ms | %.1f ms | "
                "%.2f ms |\n",
                c.name, f.frames, f.placed, f.medianMs, f.p95Ms, f.meanMs, f.cpuMedianMs,
                f.cpuP95Ms, f.processCpuMs, f.pushMs);
    std::fflush(stdout);
  }

  const double seconds = quick ? 4.0 : 20.0;
  std::printf("\nhost pushing 1920 x 1080 at 30 frames a second for %.0f s\n", seconds);
  LiveFigures live;
  const bool ok = inChild(
      [&] {
        vantix_init(&hostAllocate);
        const FrameBank bank =
            renderBank(vtest::scanScene(), vtest::scanOptions1080(), quick ? 12 : 24);
        return measureLive(bank, cv::Size(1920, 1080), seconds, 30);
      },
      live);
  if (!ok) {
    std::printf("failed\n");
    return 1;
  }
  std::printf("| pushed | processed in the window | processed per second | placed | push (host) "
              "| peak memory (VmHWM) | above the process before the session |\n");
  std::printf("|---|---|---|---|---|---|---|\n");
  std::printf("| %d | %d | %.1f | %d | %.2f ms | %.0f MB | %.0f MB |\n", live.pushed,
              live.processedInWindow, live.processedInWindow / live.seconds, live.placed,
              live.pushMs, live.peakKb / 1024.0, (live.peakKb - live.baselineKb) / 1024.0);
  return 0;
}
