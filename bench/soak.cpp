// Soak: long runs through the exported functions, as a host program calls
// them, watching resident memory (VmRSS) and throughput all along.
//
//   edf     N frames of 640 x 480 pushed into an EDF session (fuser kind
//           --kind, default 0): an 8-slice focus sweep of opencv-doc's
//           fruits.jpg rendered by the simulated camera, pushed up and down
//           the sweep over and over.
//   stitch  N frames of 640 x 480 pushed into a stitch session: the camera
//           goes back and forth along a serpentine over a bounded
//           2048 x 1536 scene (the sixteen opencv-doc photographs of the
//           stitching tests' scan, shrunk to half size), so that the canvas
//           grows during the first pass and never again.
//   spot    P pulls through vantix_spot_pull from the simulated camera SDK
//           (dlopen'ed with RTLD_GLOBAL, found by the library on its own),
//           640 x 480, 16-bit frames of a 12-bit camera: nine pulls in ten
//           measure one orbiting, breathing spot (averaging over blocks of
//           4), one in ten three spots on a noisy background.  In every
//           cycle of 1,000 one-spot pulls the host resets, sets and clears a
//           ROI and sets a fixed aperture, the beam is blocked for 20 frames
//           (a dark camera), the SDK fails 5 pulls and the last 100 pulls
//           are 24-bit colour pulls; the three-spot session is reset and
//           gets and loses a ROI every 100 of its pulls.
//
// Session frames are paced so that every frame is processed: the next frame
// is pushed from inside the onFrame of the previous one (the worker never
// waits for the host, never idles and never drops a frame); the host thread
// meanwhile reads the result 10 times a second (readdata) as a preview
// would, and restarts the chain should a frame ever not come back.
//
// Each phase runs in a forked child process of its own, so that the phases
// share no heap (what one phase leaves in the allocator neither hides nor
// inflates the growth of the next) and each has its own baseline.  A phase
// is cut into 20 blocks; the table gives each block's throughput, the
// process's CPU time a frame (less sensitive to other load than the
// throughput), the RSS and the heap in use (mallinfo2: what a leak raises,
// where the RSS also counts what the allocator keeps) at its end.  Warm-up:
// the first block (edf), the blocks up to the end of the first pass over the
// scene (stitch), during which the canvas legitimately grows, or of the
// first cycle of the host's actions (spot).  Growth is the RSS at the end
// against the RSS after warm-up (limit 5 %); throughput is steady when the
// last block is within +-15 % of the first block after warm-up.
//
// Usage: soak [--phase edf|stitch|spot|all] [--frames N] [--pulls N]
//             [--kind 0|1|2] [--quick] [--in-process]
//   --quick   1/20 of the counts (a smoke run; its verdict is informational
//             and does not set the exit status).
//   --in-process  run the first chosen phase in this process, no fork (for
//             heap profilers such as heaptrack, which do not follow a fork).
// Exit status: 0 all phases within the growth limit, 1 a phase grew by more
// than 5 %, 2 a phase failed to run.
#include <dlfcn.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "testing/scenes.h"
#include "testing/simcam/simcam_loader.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBlocks = 20;
constexpr double kGrowthLimitPercent = 5.0;
constexpr double kSteadyBandPercent = 15.0;
constexpr int kWidth = 640, kHeight = 480;

struct Options {
  long frames = 20000;
  long pulls = 100000;
  uint32_t kind = 0;
  bool quick = false;
  bool edf = true, stitch = true, spot = true;
  bool inProcess = false;  // run the phase in this process (for heap profilers)
};

// ---------------------------------------------------------------------------
// Measurements
// ---------------------------------------------------------------------------

long statusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = std::string(field) + ":";
  while (std::getline(status, line)) {
    if (line.rfind(prefix, 0) == 0) return std::atol(line.c_str() + prefix.size());
  }
  return -1;
}

long rssKb() { return statusKb("VmRSS"); }

// Bytes of the heap in use (allocated and not freed, mmap'ed blocks
// included): what a leak raises, while the RSS also shows what the allocator
// keeps of freed memory.
long heapKb() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

std::string loadAverage() {
  std::ifstream file("/proc/loadavg");
  double one = 0, five = 0, fifteen = 0;
  file >> one >> five >> fifteen;
  char text[64];
  std::snprintf(text, sizeof text, "%.2f %.2f %.2f", one, five, fifteen);
  return text;
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         1e-6 * (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

double mb(long kb) { return kb / 1024.0; }

// What a phase hands back to the parent (plain data, through a pipe).
struct PhaseSummary {
  char name[8] = {};
  int ok = 0;  // 1 when the phase ran to its end
  long units = 0, processed = 0, dropped = 0, extra = 0;
  int blocks = 0, warmupBlocks = 0;
  long baselineKb = 0, warmKb = 0, endKb = 0, maxAfterWarmKb = 0, afterDeleteKb = 0, peakKb = 0;
  long warmHeapKb = 0, endHeapKb = 0;
  double firstRate = 0, lastRate = 0, minRate = 0, maxRate = 0;
  double seconds = 0, cpu = 0;
  double growthPercent = 0, rateChangePercent = 0;
  double firstCpuMs = 0, lastCpuMs = 0, cpuChangePercent = 0;  // process CPU a unit
  char loadBefore[32] = {}, loadAfter[32] = {};
};

// Block figures of one phase: units (frames or pulls) a block, the time and
// the RSS at each block's end.
struct BlockLog {
  long blockSize = 1;
  int blocks = 0;
  std::vector<double> seconds;  // block durations
  std::vector<long> rss;        // kB at the end of each block
  std::vector<long> heap;       // kB of heap in use at the end of each block
  std::vector<double> cpu;      // process CPU seconds during each block
  std::vector<std::string> notes;
};

void printTable(const char* unit, const BlockLog& log, int warmupBlocks) {
  std::printf("| block | %s | %s/s | CPU ms a %.*s | RSS MB | heap in use MB | notes |\n"
              "|---|---|---|---|---|---|---|\n",
              unit, unit, static_cast<int>(std::strlen(unit) - 1), unit);
  for (int b = 0; b < log.blocks; ++b) {
    std::printf("| %d%s | %ld | %.1f | %.2f | %.1f | %.1f | %s |\n", b + 1,
                b < warmupBlocks ? " (warm-up)" : "", (b + 1) * log.blockSize,
                log.blockSize / std::max(1e-9, log.seconds[b]), 1e3 * log.cpu[b] / log.blockSize,
                mb(log.rss[b]), mb(log.heap[b]), log.notes[b].c_str());
  }
  std::fflush(stdout);
}

// Fills the verdict figures of `s` from the block log.
void summarise(PhaseSummary& s, const BlockLog& log, int warmupBlocks) {
  s.blocks = log.blocks;
  s.warmupBlocks = std::min(warmupBlocks, log.blocks - 1);
  const int w = s.warmupBlocks;
  s.warmKb = log.rss[w - 1];
  s.endKb = log.rss[log.blocks - 1];
  s.warmHeapKb = log.heap[w - 1];
  s.endHeapKb = log.heap[log.blocks - 1];
  s.maxAfterWarmKb = *std::max_element(log.rss.begin() + w, log.rss.end());
  s.growthPercent = 100.0 * (s.endKb - s.warmKb) / std::max(1L, s.warmKb);
  std::vector<double> rates;
  for (int b = w; b < log.blocks; ++b) rates.push_back(log.blockSize / log.seconds[b]);
  s.firstRate = rates.front();
  s.lastRate = rates.back();
  s.minRate = *std::min_element(rates.begin(), rates.end());
  s.maxRate = *std::max_element(rates.begin(), rates.end());
  s.rateChangePercent = 100.0 * (s.lastRate - s.firstRate) / s.firstRate;
  s.firstCpuMs = 1e3 * log.cpu[w] / log.blockSize;
  s.lastCpuMs = 1e3 * log.cpu[log.blocks - 1] / log.blockSize;
  s.cpuChangePercent = 100.0 * (s.lastCpuMs - s.firstCpuMs) / std::max(1e-9, s.firstCpuMs);
}

// Throughput verdict: steady when frames (pulls) a second stay within the
// band; on a busy machine the throughput follows the load, and the CPU time a
// frame tells whether the work itself stayed the same.
const char* steadiness(const PhaseSummary& s) {
  if (std::fabs(s.rateChangePercent) <= kSteadyBandPercent) return "steady";
  if (std::fabs(s.cpuChangePercent) <= kSteadyBandPercent) {
    return "throughput follows the machine's load, CPU a unit steady";
  }
  return "NOT steady";
}

void printSummary(const PhaseSummary& s, const char* unit) {
  const bool grew = s.growthPercent > kGrowthLimitPercent;
  std::printf(
      "summary %s: RSS before the session %.1f MB, after warm-up (%d blocks) %.1f MB, at the end "
      "%.1f MB: growth %+.2f %% (%+.1f MB; limit %.0f %%), highest after warm-up %.1f MB, after "
      "delete %.1f MB, peak (VmHWM) %.1f MB; heap in use %.1f -> %.1f MB; %s/s first block after "
      "warm-up %.1f, last %.1f (%+.1f %%; range %.1f..%.1f), CPU a unit %.2f -> %.2f ms "
      "(%+.1f %%): %s (band +-%.0f %%); %ld %s processed, %ld dropped; %.1f s wall, %.1f s CPU; "
      "load %s -> %s: %s\n",
      s.name, mb(s.baselineKb), s.warmupBlocks, mb(s.warmKb), mb(s.endKb), s.growthPercent,
      mb(s.endKb - s.warmKb), kGrowthLimitPercent, mb(s.maxAfterWarmKb), mb(s.afterDeleteKb),
      mb(s.peakKb), mb(s.warmHeapKb), mb(s.endHeapKb), unit, s.firstRate, s.lastRate,
      s.rateChangePercent, s.minRate, s.maxRate, s.firstCpuMs, s.lastCpuMs, s.cpuChangePercent,
      steadiness(s), kSteadyBandPercent, s.processed, unit, s.dropped, s.seconds, s.cpu,
      s.loadBefore, s.loadAfter, grew ? "FAIL (memory grew)" : "PASS");
  std::fflush(stdout);
}

// ---------------------------------------------------------------------------
// The simulated camera SDK
// ---------------------------------------------------------------------------

std::string simcamPath() {
  if (const char* env = std::getenv("VANTIX_SIMCAM")) return env;
#ifdef VANTIX_SIMCAM_PATH
  return VANTIX_SIMCAM_PATH;
#else
  return "libvantix_simcam.so";
#endif
}

// Loads the SDK into the process's global scope, as a host loads its camera
// SDK; exits the child with a message when it cannot.
SimcamApi loadSimcam() {
  SimcamApi api{};
  const std::string path = simcamPath();
  void* so = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (so == nullptr || !simcam_load_api(so, &api)) {
    std::fprintf(stderr, "soak: cannot load the simulated camera %s: %s (set VANTIX_SIMCAM)\n",
                 path.c_str(), so == nullptr ? dlerror() : "incomplete");
    std::exit(2);
  }
  return api;
}

cv::Mat readPhoto(const char* name) {
  try {
    return vtest::photo(name);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "soak: %s\n", e.what());
    std::exit(2);
  }
}

// ---------------------------------------------------------------------------
// Frame chains: the next frame is pushed from inside onFrame
// ---------------------------------------------------------------------------

// State shared by the worker's callback and the host thread (all under
// `mutex`).  `pushNext` is the phase's push of frame `pushed`.
struct Chain {
  std::mutex mutex;
  std::condition_variable progress;
  long total = 0;       // frames to push
  long pushed = 0;      // frames handed to the session
  long processed = 0;   // onFrame calls
  long restarts = 0;    // chain restarted by the host (a frame that never came back)
  long errors = 0;
  long blockSize = 1;
  std::vector<Clock::time_point> blockEnd;  // when frame (b + 1) * blockSize came back
  std::vector<long> modeCount;              // stitch: onFrame modes 0..4, this block
  std::string blockNote;
  void (*pushNext)(Chain&) = nullptr;
  void* phase = nullptr;

  // Called with the lock held, on the worker thread.
  void frameDone() {
    ++processed;
    if (processed % blockSize == 0 && processed / blockSize <= static_cast<long>(blockEnd.size())) {
      blockEnd[processed / blockSize - 1] = Clock::now();
    }
    if (pushed < total) pushNext(*this);
    progress.notify_all();
  }
};

// Runs a chain to its end: starts it with the first push, then waits block
// by block, sampling the RSS at each block's end, reading a preview with
// `preview` every 100 ms.  `noteBlock` (may be null) fills the block's note.
// Returns false when the session stalls for a minute.
template <typename Preview, typename NoteBlock>
bool runChain(Chain& chain, BlockLog& log, Clock::time_point& start, Preview preview,
              NoteBlock noteBlock) {
  std::unique_lock<std::mutex> lock(chain.mutex);
  start = Clock::now();
  double cpuMark = cpuSeconds();
  chain.pushNext(chain);
  Clock::time_point lastProgress = Clock::now();
  long lastSeen = 0;
  for (int b = 0; b < log.blocks; ++b) {
    const long target = (b + 1) * log.blockSize;
    while (chain.processed < target && chain.errors == 0) {
      chain.progress.wait_for(lock, std::chrono::milliseconds(100));
      if (chain.processed != lastSeen) {
        lastSeen = chain.processed;
        lastProgress = Clock::now();
      } else if (Clock::now() - lastProgress > std::chrono::seconds(60)) {
        std::fprintf(stderr, "soak: the session stalled at frame %ld\n", chain.processed);
        return false;
      } else if (Clock::now() - lastProgress > std::chrono::seconds(3) &&
                 chain.pushed < chain.total) {
        // A frame did not come back: push the next one from here.
        ++chain.restarts;
        lastProgress = Clock::now();
        chain.pushNext(chain);
      }
      lock.unlock();
      preview();
      lock.lock();
    }
    if (chain.errors != 0) {
      std::fprintf(stderr, "soak: the session reported an error\n");
      return false;
    }
    const Clock::time_point begin = b == 0 ? start : chain.blockEnd[b - 1];
    log.seconds[b] = std::chrono::duration<double>(chain.blockEnd[b] - begin).count();
    log.rss[b] = rssKb();
    log.heap[b] = heapKb();
    const double cpu = cpuSeconds();
    log.cpu[b] = cpu - cpuMark;
    cpuMark = cpu;
    log.notes[b] = noteBlock(b);
  }
  return true;
}

BlockLog makeLog(long units, long& total) {
  BlockLog log;
  log.blockSize = std::max(1L, units / kBlocks);
  log.blocks = static_cast<int>(std::min<long>(kBlocks, units / log.blockSize));
  if (log.blocks < 2) {
    std::fprintf(stderr, "soak: at least 2 frames or pulls are needed\n");
    std::exit(2);
  }
  total = log.blockSize * log.blocks;
  log.seconds.assign(log.blocks, 0.0);
  log.rss.assign(log.blocks, 0);
  log.heap.assign(log.blocks, 0);
  log.cpu.assign(log.blocks, 0.0);
  log.notes.assign(log.blocks, "");
  return log;
}

// ---------------------------------------------------------------------------
// EDF
// ---------------------------------------------------------------------------

struct EdfPhase {
  VantixEdf* session = nullptr;
  std::vector<cv::Mat> slices;  // the sweep, pushed 0..7..0 over and over

  static void pushNext(Chain& chain) {
    auto* self = static_cast<EdfPhase*>(chain.phase);
    const long n = static_cast<long>(self->slices.size()), period = 2 * n - 2;
    const long i = chain.pushed % period;
    const cv::Mat& frame = self->slices[i < n ? i : period - i];
    vantix_edf_pushback(self->session, frame.data, static_cast<uint32_t>(frame.cols),
                        static_cast<uint32_t>(frame.rows), 24, static_cast<uint32_t>(frame.step));
    ++chain.pushed;
  }
  static void onFrame(void* context, uint32_t, const uint8_t*, uint32_t, uint32_t, uint32_t,
                      uint32_t) {
    auto* chain = static_cast<Chain*>(context);
    std::lock_guard<std::mutex> lock(chain->mutex);
    chain->frameDone();
  }
  static void onError(void* context, uint32_t) {
    auto* chain = static_cast<Chain*>(context);
    std::lock_guard<std::mutex> lock(chain->mutex);
    ++chain->errors;
    chain->progress.notify_all();
  }
};

PhaseSummary runEdf(const Options& options) {
  PhaseSummary s;
  std::strcpy(s.name, "edf");
  std::snprintf(s.loadBefore, sizeof s.loadBefore, "%s", loadAverage().c_str());
  Chain chain;
  BlockLog log = makeLog(options.frames, chain.total);
  std::printf("\n## edf: %ld frames of %d x %d, fuser kind %u, an 8-slice focus sweep pushed up "
              "and down (load average %s)\n",
              chain.total, kWidth, kHeight, options.kind, s.loadBefore);
  std::fflush(stdout);

  EdfPhase phase;
  {
    const SimcamApi sim = loadSimcam();
    SimcamCamera* camera = sim.open(kWidth, kHeight);
    const cv::Mat photo = readPhoto("fruits.jpg");
    sim.setFocusSweep(camera, photo.data, static_cast<uint32_t>(photo.cols),
                      static_cast<uint32_t>(photo.rows), static_cast<uint32_t>(photo.step), 8,
                      4.0);
    for (uint32_t i = 0; i < 8; ++i) {
      cv::Mat slice(kHeight, kWidth, CV_8UC3);
      sim.render(camera, i, slice.data, 24, static_cast<int32_t>(slice.step));
      phase.slices.push_back(slice);
    }
    sim.close(camera);
  }

  chain.blockSize = log.blockSize;
  chain.blockEnd.resize(log.blocks);
  chain.pushNext = &EdfPhase::pushNext;
  chain.phase = &phase;
  std::vector<uint8_t> preview(static_cast<size_t>(kWidth) * kHeight * 3);

  s.baselineKb = rssKb();
  const double cpu0 = cpuSeconds();
  phase.session = vantix_edf_new(options.kind, &EdfPhase::onFrame, &EdfPhase::onError, &chain);
  vantix_edf_start(phase.session);
  Clock::time_point start;
  const bool ran = runChain(
      chain, log, start,
      [&] { vantix_edf_readdata(phase.session, preview.data(), kWidth * 3); },
      [](int) { return std::string(); });
  {
    std::lock_guard<std::mutex> lock(chain.mutex);
    chain.total = chain.pushed;  // no more pushes from onFrame
  }
  vantix_edf_stop(phase.session);
  s.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  s.cpu = cpuSeconds() - cpu0;
  vantix_edf_delete(phase.session);
  s.afterDeleteKb = rssKb();
  s.peakKb = statusKb("VmHWM");
  std::snprintf(s.loadAfter, sizeof s.loadAfter, "%s", loadAverage().c_str());
  if (!ran) return s;

  s.ok = 1;
  s.units = chain.total;
  s.processed = chain.processed;
  s.dropped = chain.pushed - chain.processed;
  s.extra = chain.restarts;
  printTable("frames", log, 1);
  summarise(s, log, 1);
  printSummary(s, "frames");
  if (chain.restarts > 0) std::printf("(chain restarted %ld times)\n", chain.restarts);
  return s;
}

// ---------------------------------------------------------------------------
// Stitching
// ---------------------------------------------------------------------------

// The camera's path over the scene: the testing kit's serpentine scan (4
// rows from the bottom right, running left and climbing, so that the canvas
// grows to the left and upwards during the first pass; no pause, no jump),
// then the same path backwards, and so on.  Positions are rounded to whole
// pixels: each frame is a window of the scene pushed in place (the scene's
// own row pitch).
std::vector<cv::Point> serpentineLoop(const cv::Mat& scene, cv::Size frame) {
  vtest::ScanOptions o;
  o.frame = frame;
  o.start = cv::Point(scene.cols - frame.width - 40, scene.rows - frame.height - 40);
  o.rowLength = o.start.x - 40;
  o.rows = 4;
  o.rowStep = (o.start.y - 40) / 3.0;
  o.speedScale = 0.75;
  o.pauseAt = o.jumpAt = -1;
  const vtest::ScanSimulator scan(scene, o);
  std::vector<cv::Point> loop;
  for (size_t i = 0; i < scan.frameCount(); ++i) {
    const cv::Point2d p = scan.truth(i).position;
    loop.emplace_back(cvRound(p.x), cvRound(p.y));
  }
  for (size_t i = scan.frameCount() - 1; i-- > 1;) loop.push_back(loop[i]);
  return loop;
}

struct StitchPhase {
  VantixStitch* session = nullptr;
  cv::Mat scene;
  std::vector<cv::Point> path;
  // Per block: onFrame modes, canvas size, canvas growths.
  long modes[5] = {};
  uint32_t canvasWidth = 0, canvasHeight = 0;
  std::atomic<long> growths{0};

  static void pushNext(Chain& chain) {
    auto* self = static_cast<StitchPhase*>(chain.phase);
    const cv::Point p = self->path[static_cast<size_t>(chain.pushed) % self->path.size()];
    const uint8_t* data = self->scene.ptr<uint8_t>(p.y) + 3 * p.x;
    vantix_stitch_pushback(self->session, data, kWidth, kHeight, 24,
                           static_cast<uint32_t>(self->scene.step));
    ++chain.pushed;
  }
  static void onFrame(void* context, const uint8_t*, uint32_t, uint32_t canvasWidth,
                      uint32_t canvasHeight, uint32_t, uint32_t, uint32_t, int32_t, int32_t,
                      uint32_t mode, uint32_t, uint32_t, float) {
    auto* chain = static_cast<Chain*>(context);
    auto* self = static_cast<StitchPhase*>(chain->phase);
    std::lock_guard<std::mutex> lock(chain->mutex);
    ++self->modes[std::min<uint32_t>(mode, 4)];
    self->canvasWidth = canvasWidth;
    self->canvasHeight = canvasHeight;
    chain->frameDone();
  }
  static void onEvent(void* context, uint32_t code) {
    auto* chain = static_cast<Chain*>(context);
    auto* self = static_cast<StitchPhase*>(chain->phase);
    if (code == VANTIX_STITCH_EVENT_CANVAS_GREW) ++self->growths;
    if (code == VANTIX_STITCH_EVENT_FAILED || code == VANTIX_STITCH_EVENT_OUT_OF_MEMORY ||
        code == VANTIX_STITCH_EVENT_GROW_FAILED) {
      std::lock_guard<std::mutex> lock(chain->mutex);
      ++chain->errors;
      chain->progress.notify_all();
    }
  }
};

void* hostAllocate(uint64_t bytes) { return std::malloc(static_cast<size_t>(bytes)); }

PhaseSummary runStitch(const Options& options) {
  PhaseSummary s;
  std::strcpy(s.name, "stitch");
  std::snprintf(s.loadBefore, sizeof s.loadBefore, "%s", loadAverage().c_str());
  Chain chain;
  BlockLog log = makeLog(options.frames, chain.total);

  StitchPhase phase;
  {
    const cv::Mat big = vtest::scanScene();
    cv::resize(big, phase.scene, cv::Size(2048, 1536), 0, 0, cv::INTER_AREA);
  }
  phase.path = serpentineLoop(phase.scene, cv::Size(kWidth, kHeight));
  const long pass = static_cast<long>(phase.path.size() / 2 + 1);
  const int warmup = static_cast<int>((pass + log.blockSize - 1) / log.blockSize);
  std::printf("\n## stitch: %ld frames of %d x %d, back and forth along a serpentine over a "
              "2048 x 1536 scene (%ld frames a pass; load average %s)\n",
              chain.total, kWidth, kHeight, pass, s.loadBefore);
  std::fflush(stdout);

  chain.blockSize = log.blockSize;
  chain.blockEnd.resize(log.blocks);
  chain.pushNext = &StitchPhase::pushNext;
  chain.phase = &phase;
  constexpr uint32_t kPreviewW = 512, kPreviewH = 384;
  std::vector<uint8_t> preview(static_cast<size_t>(kPreviewW) * kPreviewH * 3);

  vantix_init(&hostAllocate);
  s.baselineKb = rssKb();
  const double cpu0 = cpuSeconds();
  phase.session = vantix_stitch_new(0, kWidth, kHeight, 0, &StitchPhase::onFrame,
                                    &StitchPhase::onEvent, &chain);
  if (phase.session == nullptr) {
    std::fprintf(stderr, "soak: vantix_stitch_new returned null\n");
    return s;
  }
  vantix_stitch_start(phase.session);
  long readsRetried = 0;
  Clock::time_point start;
  const bool ran = runChain(
      chain, log, start,
      [&] {
        // A host's preview of the whole canvas, 10 times a second.
        if (vantix_stitch_readdata(phase.session, preview.data(), kPreviewW, kPreviewH, 0, 0, 0,
                                   0) == 0) {
          ++readsRetried;
        }
      },
      [&](int) {
        // Called with the chain's lock held: the block's modes and canvas.
        char note[160];
        std::snprintf(note, sizeof note, "placed %ld, ref %ld, lost %ld, not placed %ld; canvas %u x %u, grown %ld",
                      phase.modes[1], phase.modes[2], phase.modes[3], phase.modes[4],
                      phase.canvasWidth, phase.canvasHeight, phase.growths.load());
        std::fill(std::begin(phase.modes), std::end(phase.modes), 0L);
        return std::string(note);
      });
  {
    std::lock_guard<std::mutex> lock(chain.mutex);
    chain.total = chain.pushed;
  }
  VantixImageHeader* panorama = vantix_stitch_stop(phase.session, 1, 1);
  s.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  s.cpu = cpuSeconds() - cpu0;
  uint32_t cx = 0, cy = 0, cw = 0, ch = 0;
  vantix_stitch_cropparams(phase.session, &cx, &cy, &cw, &ch);
  vantix_stitch_delete(phase.session);
  if (panorama != nullptr) {
    std::printf("panorama: %d x %d (covered rectangle at %u, %u)\n", panorama->biWidth,
                panorama->biHeight, cx, cy);
    std::free(panorama);
  }
  s.afterDeleteKb = rssKb();
  s.peakKb = statusKb("VmHWM");
  std::snprintf(s.loadAfter, sizeof s.loadAfter, "%s", loadAverage().c_str());
  if (!ran) return s;

  s.ok = 1;
  s.units = chain.total;
  s.processed = chain.processed;
  s.dropped = chain.pushed - chain.processed;
  s.extra = chain.restarts;
  printTable("frames", log, warmup);
  summarise(s, log, warmup);
  printSummary(s, "frames");
  std::printf("(preview reads that found the canvas busy: %ld; chain restarts: %ld)\n",
              readsRetried, chain.restarts);
  return s;
}

// ---------------------------------------------------------------------------
// Spot pulls
// ---------------------------------------------------------------------------

SimcamSpot orbitingSpot(double cx, double cy, double sigma, double period) {
  SimcamSpot spot{};
  spot.centerX = cx;
  spot.centerY = cy;
  spot.sigmaX = sigma;
  spot.sigmaY = sigma * 0.7;
  spot.angle = 0;
  spot.peak = 0.8;
  spot.orbitRadius = 25;
  spot.orbitPeriod = period;
  spot.breathAmplitude = 0.15;
  spot.breathPeriod = 37;
  return spot;
}

PhaseSummary runSpot(const Options& options) {
  PhaseSummary s;
  std::strcpy(s.name, "spot");
  std::snprintf(s.loadBefore, sizeof s.loadBefore, "%s", loadAverage().c_str());
  long total = 0;
  BlockLog log = makeLog(options.pulls, total);
  constexpr long kCycle = 1000;  // one-spot pulls of one cycle of the host's actions
  const long cyclePulls = kCycle * 10 / 9 + 1;
  const int warmup = static_cast<int>((cyclePulls + log.blockSize - 1) / log.blockSize);
  std::printf("\n## spot: %ld pulls of %d x %d through vantix_spot_pull from the simulated "
              "camera SDK (load average %s)\n",
              total, kWidth, kHeight, s.loadBefore);
  std::fflush(stdout);

  const SimcamApi sim = loadSimcam();
  // Camera 1: one spot on black.  Camera 2: three spots on a noisy background.
  SimcamCamera* single = sim.open(kWidth, kHeight);
  const SimcamSpot beam = orbitingSpot(320, 240, 9, 200);
  SimcamSpot blocked = beam;
  blocked.peak = 0;
  sim.setSpots(single, &beam, 1, 0.0, 0.0, 1);
  SimcamCamera* triple = sim.open(kWidth, kHeight);
  SimcamSpot three[3] = {orbitingSpot(140, 200, 7, 150), orbitingSpot(330, 260, 9, 170),
                         orbitingSpot(500, 220, 6, 190)};
  three[1].peak = 0.6;
  three[2].peak = 0.45;
  sim.setSpots(triple, three, 3, 0.03, 0.004, 5);

  std::vector<uint8_t> buffer(static_cast<size_t>(kWidth) * kHeight * 3);
  SpotResult one{}, several[3] = {};
  FrameInfoV2 info{};

  s.baselineKb = rssKb();
  const double cpu0 = cpuSeconds();
  VantixSpot* spot1 = vantix_spot_new(1, 4);
  VantixSpot* spot3 = vantix_spot_new(3, 0);
  long failed = 0, sdkErrors = 0, measured = 0, dark = 0, pulls1 = 0, pulls3 = 0;
  const auto start = Clock::now();
  auto blockStart = start;
  double cpuMark = cpuSeconds();
  for (long i = 0; i < total; ++i) {
    const bool multi = i % 10 == 9;
    if (!multi) {
      const long k = pulls1++;
      // The host's own actions on the one-spot session, in a cycle of
      // kCycle one-spot pulls (warm-up covers the first cycle, so that every
      // kind of pull has been made once before memory is watched).
      switch (k % kCycle) {
        case 0: vantix_spot_reset(spot1); break;
        case 300: vantix_spot_setRoi(spot1, 180, 120, 280, 240); break;
        case 400: sim.setSpots(single, &blocked, 1, 0.0, 0.0, 1); break;  // beam blocked
        case 420: sim.setSpots(single, &beam, 1, 0.0, 0.0, 1); break;
        case 600: vantix_spot_setAperture(spot1, SpotAperture{320, 240, 70, 60}); break;
        case 700: sim.setResult(single, static_cast<int32_t>(0x80004005u)); break;  // SDK fails
        case 705: sim.setResult(single, 0); break;
        case 800: vantix_spot_setRoi(spot1, 0, 0, 0, 0); break;
        default: break;
      }
      const uint32_t bits = k % kCycle >= 900 ? 24 : 16;  // the host switches to colour
      const VantixResult hr = vantix_spot_pull(spot1, single, 1, buffer.data(), bits, 0, &info, &one);
      if (VANTIX_FAILED(hr)) {
        ++sdkErrors;
      } else {
        if (k % kCycle >= 400 && k % kCycle < 420) ++dark;
        if (one.total > 0) ++measured;
      }
    } else {
      const long k = pulls3++;
      switch (k % (kCycle / 10)) {
        case 0: vantix_spot_reset(spot3); break;
        case 25: vantix_spot_setRoi(spot3, 0, 0, 420, 480); break;
        case 75: vantix_spot_setRoi(spot3, 0, 0, 0, 0); break;
        default: break;
      }
      const VantixResult hr = vantix_spot_pull(spot3, triple, 1, buffer.data(), 16, 0, &info, several);
      if (VANTIX_FAILED(hr)) ++failed;
    }
    if ((i + 1) % log.blockSize == 0) {
      const int b = static_cast<int>((i + 1) / log.blockSize) - 1;
      const auto now = Clock::now();
      log.seconds[b] = std::chrono::duration<double>(now - blockStart).count();
      log.rss[b] = rssKb();
      log.heap[b] = heapKb();
      const double cpu = cpuSeconds();
      log.cpu[b] = cpu - cpuMark;
      cpuMark = cpu;
      blockStart = now;
    }
  }
  s.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  s.cpu = cpuSeconds() - cpu0;
  vantix_spot_delete(spot1);
  vantix_spot_delete(spot3);
  s.afterDeleteKb = rssKb();
  s.peakKb = statusKb("VmHWM");
  sim.close(single);
  sim.close(triple);
  std::snprintf(s.loadAfter, sizeof s.loadAfter, "%s", loadAverage().c_str());

  s.ok = failed == 0 ? 1 : 0;
  s.units = total;
  s.processed = total - sdkErrors - failed;
  s.dropped = sdkErrors + failed;
  printTable("pulls", log, warmup);
  summarise(s, log, warmup);
  printSummary(s, "pulls");
  std::printf("(one-spot pulls %ld: with a measured spot %ld, SDK errors injected %ld, dark "
              "frames %ld; three-spot pulls %ld, failed %ld)\n",
              pulls1, measured, sdkErrors, dark, pulls3, failed);
  return s;
}

// ---------------------------------------------------------------------------
// Driver
// ---------------------------------------------------------------------------

// Runs a phase in a forked child and reads its summary back.
bool inChild(PhaseSummary (*phase)(const Options&), const Options& options, PhaseSummary& out) {
  int channel[2];
  if (pipe(channel) != 0) return false;
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    close(channel[0]);
    const PhaseSummary summary = phase(options);
    std::fflush(stdout);
    const ssize_t written = write(channel[1], &summary, sizeof summary);
    _exit(written == static_cast<ssize_t>(sizeof summary) ? 0 : 2);
  }
  close(channel[1]);
  const ssize_t got = read(channel[0], &out, sizeof out);
  close(channel[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return got == static_cast<ssize_t>(sizeof out) && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0 && out.ok == 1;
}

int usage() {
  std::fprintf(stderr,
               "usage: soak [--phase edf|stitch|spot|all] [--frames N] [--pulls N] "
               "[--kind 0|1|2] [--quick] [--in-process]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  bool framesGiven = false, pullsGiven = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--quick") {
      options.quick = true;
    } else if (arg == "--in-process") {
      options.inProcess = true;
    } else if (arg == "--frames" && hasValue) {
      options.frames = std::atol(argv[++i]);
      framesGiven = true;
    } else if (arg == "--pulls" && hasValue) {
      options.pulls = std::atol(argv[++i]);
      pullsGiven = true;
    } else if (arg == "--kind" && hasValue) {
      options.kind = static_cast<uint32_t>(std::atol(argv[++i]));
    } else if (arg == "--phase" && hasValue) {
      const std::string phase = argv[++i];
      if (phase != "edf" && phase != "stitch" && phase != "spot" && phase != "all") return usage();
      options.edf = phase == "edf" || phase == "all";
      options.stitch = phase == "stitch" || phase == "all";
      options.spot = phase == "spot" || phase == "all";
    } else {
      return usage();
    }
  }
  if (options.quick) {
    if (!framesGiven) options.frames /= 20;
    if (!pullsGiven) options.pulls /= 20;
  }
  std::printf("# soak%s: load average %s, %ld CPUs\n", options.quick ? " (quick)" : "",
              loadAverage().c_str(), sysconf(_SC_NPROCESSORS_ONLN));

  struct Entry {
    bool wanted;
    PhaseSummary (*run)(const Options&);
    const char* name;
    const char* unit;
  };
  const Entry entries[] = {{options.edf, &runEdf, "edf", "frames"},
                           {options.stitch, &runStitch, "stitch", "frames"},
                           {options.spot, &runSpot, "spot", "pulls"}};
  std::vector<std::pair<const Entry*, PhaseSummary>> done;
  int status = 0;
  for (const Entry& e : entries) {
    if (!e.wanted) continue;
    PhaseSummary summary;
    if (options.inProcess) {
      summary = e.run(options);
      if (summary.ok != 1) status = 2;
      done.emplace_back(&e, summary);
      break;  // one phase only: the next would start on this one's heap
    }
    if (!inChild(e.run, options, summary)) {
      std::printf("\nsoak: phase %s failed to run\n", e.name);
      status = 2;
      continue;
    }
    done.emplace_back(&e, summary);
    if (summary.growthPercent > kGrowthLimitPercent && !options.quick && status == 0) status = 1;
  }

  std::printf("\n## summary%s\n\n| phase | units | processed / dropped | RSS after warm-up | "
              "RSS at end | growth | heap in use after warm-up / at end | throughput first / "
              "last after warm-up | CPU a unit first / last | memory | throughput |\n"
              "|---|---|---|---|---|---|---|---|---|---|---|\n",
              options.quick ? " (quick run: informational)" : "");
  for (const auto& [e, s] : done) {
    const bool grew = s.growthPercent > kGrowthLimitPercent;
    std::printf("| %s | %ld %s | %ld / %ld | %.1f MB | %.1f MB | %+.2f %% | %.1f / %.1f MB | "
                "%.1f / %.1f %s/s (%+.1f %%) | %.2f / %.2f ms (%+.1f %%) | %s | %s |\n",
                e->name, s.units, e->unit, s.processed, s.dropped, mb(s.warmKb), mb(s.endKb),
                s.growthPercent, mb(s.warmHeapKb), mb(s.endHeapKb), s.firstRate, s.lastRate,
                e->unit, s.rateChangePercent, s.firstCpuMs, s.lastCpuMs, s.cpuChangePercent,
                grew ? "GREW" : "flat", steadiness(s));
  }
  std::printf("\nload average at the end: %s\n", loadAverage().c_str());
  return status;
}
