// End-to-end time of an EDF session per frame, through the exported
// functions: the next frame is pushed from inside each onFrame, so the
// worker never idles and the interval between two onFrame calls is its whole
// work for one frame, alignment included.  The alignment alone is measured beside it, and the
// session's peak memory at 1920 x 1080 in a child process (VmHWM).
//
// Frames: a focus sweep of 8 slices over a tilted depth plane made from a
// synthetic textured scene.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <vantix.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "edf/edf_fuser.h"
#include "testing/scenes.h"

namespace {

constexpr int kSlices = 8;

// Slice k is focused at depth k / 7 of a left-to-right tilt under a
// textured scene, blurred elsewhere by up to 5 pixels of sigma.
std::vector<cv::Mat> focusSweep(cv::Size size) {
  const cv::Mat depth = vtest::steppedDepth(size, size.width);
  const vtest::BlurLevels levels(vtest::texturedScene(size, 3), 5.0, 6);
  std::vector<cv::Mat> slices;
  for (int k = 0; k < kSlices; ++k) {
    slices.push_back(levels.defocus(cv::abs(depth - k / (kSlices - 1.0)) * 5.0));
  }
  return slices;
}

const std::vector<cv::Mat>& sweep(cv::Size size) {
  static std::vector<cv::Mat> small = focusSweep({640, 480});
  static std::vector<cv::Mat> large = focusSweep({1920, 1080});
  return size.width == 640 ? small : large;
}

struct Waiter {
  std::mutex mutex;
  std::condition_variable done;
  int frames = 0;
  int errors = 0;

  // Frames are fed from inside onFrame, so the worker always finds the next
  // frame waiting and never takes its idle pause: the time between two
  // onFrame calls, less the push made in between, is the worker's whole work
  // for one frame.
  VantixEdf* session = nullptr;
  const std::vector<cv::Mat>* slices = nullptr;
  size_t next = 1;
  bool feeding = false;
  std::chrono::steady_clock::time_point last{};
  double lastInterval = 0;

  void pushNext() {
    const cv::Mat& frame = (*slices)[next];
    next = next % (slices->size() - 1) + 1;
    vantix_edf_pushback(session, frame.data, frame.cols, frame.rows, 8,
                        static_cast<uint32_t>(frame.step[0]));
  }

  static void onFrame(void* context, uint32_t, const uint8_t*, uint32_t, uint32_t, uint32_t,
                      uint32_t) {
    auto* w = static_cast<Waiter*>(context);
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(w->mutex);
    w->lastInterval = std::chrono::duration<double>(now - w->last).count();
    if (w->feeding) w->pushNext();
    w->last = std::chrono::steady_clock::now();
    ++w->frames;
    w->done.notify_all();
  }
  static void onError(void* context, uint32_t) {
    auto* w = static_cast<Waiter*>(context);
    std::lock_guard<std::mutex> lock(w->mutex);
    ++w->errors;
    w->done.notify_all();
  }
  // Waits for the next fused frame; returns its interval in seconds.
  double waitFrame(int target) {
    std::unique_lock<std::mutex> lock(mutex);
    done.wait(lock, [&] { return frames >= target || errors > 0; });
    return lastInterval;
  }
  // Pushes one frame and waits for it (no timing).
  void pushAndWait(VantixEdf* s, const cv::Mat& frame) {
    std::unique_lock<std::mutex> lock(mutex);
    const int target = frames + 1;
    vantix_edf_pushback(s, frame.data, frame.cols, frame.rows, 8,
                        static_cast<uint32_t>(frame.step[0]));
    done.wait(lock, [&] { return frames >= target || errors > 0; });
  }
};

double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

void BM_EdfFrame(benchmark::State& state) {
  const uint32_t kind = static_cast<uint32_t>(state.range(0));
  const cv::Size size(static_cast<int>(state.range(1)), static_cast<int>(state.range(2)));
  const std::vector<cv::Mat>& slices = sweep(size);
  Waiter waiter;
  VantixEdf* session = vantix_edf_new(kind, &Waiter::onFrame, &Waiter::onError, &waiter);
  vantix_edf_start(session);
  waiter.pushAndWait(session, slices[0]);  // the first frame only starts the stack
  int target;
  {
    std::lock_guard<std::mutex> lock(waiter.mutex);
    waiter.session = session;
    waiter.slices = &slices;
    waiter.feeding = true;
    target = waiter.frames + 1;
    waiter.pushNext();
    waiter.last = std::chrono::steady_clock::now();
  }
  // CPU time of the whole process (worker, channel threads, OpenCV's pool)
  // a frame: unlike the wall time it hardly depends on what else the
  // machine is running.
  const double cpuStart = processCpuSeconds();
  for (auto _ : state) state.SetIterationTime(waiter.waitFrame(target++));
  const double cpu = processCpuSeconds() - cpuStart;
  {
    std::lock_guard<std::mutex> lock(waiter.mutex);
    waiter.feeding = false;
  }
  state.counters["cpu_ms"] =
      benchmark::Counter(1e3 * cpu / static_cast<double>(state.iterations()));
  vantix_edf_delete(session);
  if (waiter.errors > 0) state.SkipWithError("the session reported an error");
}

void BM_EdfAlignment(benchmark::State& state) {
  const cv::Size size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const std::vector<cv::Mat>& slices = sweep(size);
  size_t next = 1;
  for (auto _ : state) {
    state.PauseTiming();
    cv::Mat frame = slices[next].clone(), reference = slices[next - 1].clone();
    state.ResumeTiming();
    vantix::alignToReference(frame, reference);
    next = next % (slices.size() - 1) + 1;
  }
}

BENCHMARK(BM_EdfFrame)
    ->ArgNames({"kind", "w", "h"})
    ->Args({0, 640, 480})
    ->Args({1, 640, 480})
    ->Args({2, 640, 480})
    ->Args({0, 1920, 1080})
    ->Args({1, 1920, 1080})
    ->Args({2, 1920, 1080})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);
BENCHMARK(BM_EdfAlignment)
    ->ArgNames({"w", "h"})
    ->Args({640, 480})
    ->Args({1920, 1080})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);

long statusKilobytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, std::strlen(field), field) == 0)
      return std::stol(line.substr(std::strlen(field) + 1));
  }
  return -1;
}

// Peak resident memory of a process that runs one 1920 x 1080 session of
// `kind` over the sweep twice, against the process before the session.
void reportPeakMemory(uint32_t kind) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    const std::vector<cv::Mat> slices = focusSweep({1920, 1080});
    const long before = statusKilobytes("VmRSS:");
    Waiter waiter;
    VantixEdf* session = vantix_edf_new(kind, &Waiter::onFrame, &Waiter::onError, &waiter);
    vantix_edf_start(session);
    for (int round = 0; round < 2; ++round) {
      for (const cv::Mat& slice : slices) waiter.pushAndWait(session, slice);
    }
    vantix_edf_delete(session);
    const long peak = statusKilobytes("VmHWM:");
    std::printf(
        "peak memory, kind %u at 1920x1080: process %.1f MB, session %.1f MB above the "
        "%.1f MB before it (frames included)\n",
        kind, peak / 1024.0, (peak - before) / 1024.0, before / 1024.0);
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
}

}  // namespace

int main(int argc, char** argv) {
  // Peak memory first, in fresh child processes.
  for (uint32_t kind : {0u, 1u, 2u}) reportPeakMemory(kind);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
