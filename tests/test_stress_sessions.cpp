// Stress of the stitch and EDF sessions through the exported functions, as a
// host with several threads uses them: concurrent pushes while another thread
// starts and stops, a thousand start/stop cycles, deletes of running
// sessions, and canvas readers while the panorama grows.  Runs under
// ThreadSanitizer as well; a hang aborts through the watchdog.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "support/stitch_frames.h"
#include "support/stress.h"
#include "support/test_support.h"

namespace {

using namespace std::chrono_literals;
using vtest::Latch;
using vtest::Watchdog;

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }

// Counts callbacks, and those that arrive outside the window the host opened
// before start and closed after stop returned (or after delete returned).
// A latch, when set, holds the worker inside onFrame.
struct CallbackLog {
  std::atomic<bool> window{false};
  std::atomic<bool> deleted{false};
  std::atomic<int> frames{0}, outside{0}, afterDelete{0}, failures{0};
  std::atomic<bool> inCallback{false};
  Latch* hold = nullptr;
  std::mutex m;
  std::condition_variable cv;

  void arrived() {
    if (!window.load()) ++outside;
    if (deleted.load()) ++afterDelete;
  }
  void counted() {
    {
      std::lock_guard<std::mutex> lock(m);
      ++frames;
    }
    cv.notify_all();
    if (hold != nullptr && !hold->isOpen()) {
      inCallback = true;
      cv.notify_all();
      hold->wait();
    }
    inCallback = false;
  }
  bool waitFrames(int n, std::chrono::seconds limit = 60s) {
    std::unique_lock<std::mutex> lock(m);
    return cv.wait_for(lock, limit, [&] { return frames.load() >= n; });
  }
  bool waitInCallback() {
    std::unique_lock<std::mutex> lock(m);
    return cv.wait_for(lock, 60s, [&] { return inCallback.load(); });
  }
};

struct StitchHost : CallbackLog {
  std::atomic<uint32_t> canvasWidth{0}, canvasHeight{0};
  std::mutex eventMutex;
  std::vector<uint32_t> events;

  static void onFrame(void* ctx, const uint8_t*, uint32_t, uint32_t cw, uint32_t ch, uint32_t,
                      uint32_t, uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, float) {
    auto* h = static_cast<StitchHost*>(ctx);
    h->arrived();
    h->canvasWidth = cw;
    h->canvasHeight = ch;
    h->counted();
  }
  static void onEvent(void* ctx, uint32_t code) {
    auto* h = static_cast<StitchHost*>(ctx);
    h->arrived();
    if (code == VANTIX_STITCH_EVENT_FAILED || code == VANTIX_STITCH_EVENT_OUT_OF_MEMORY) {
      ++h->failures;
    }
    std::lock_guard<std::mutex> lock(h->eventMutex);
    h->events.push_back(code);
  }
  bool sawEvent(uint32_t code) {
    std::lock_guard<std::mutex> lock(eventMutex);
    return std::find(events.begin(), events.end(), code) != events.end();
  }
};

struct EdfHost : CallbackLog {
  std::mutex lastMutex;
  cv::Mat last;  // copy of the latest fused image

  static void onFrame(void* ctx, uint32_t, const uint8_t* data, uint32_t stride, uint32_t width,
                      uint32_t height, uint32_t type) {
    auto* h = static_cast<EdfHost*>(ctx);
    h->arrived();
    {
      std::lock_guard<std::mutex> lock(h->lastMutex);
      h->last = cv::Mat(static_cast<int>(height), static_cast<int>(width), static_cast<int>(type),
                        const_cast<uint8_t*>(data), stride)
                    .clone();
    }
    h->counted();
  }
  static void onError(void* ctx, uint32_t) {
    auto* h = static_cast<EdfHost*>(ctx);
    h->arrived();
    ++h->failures;
  }
};

// Threads of this process (the canvas's drawing thread and the workers
// included), to see that stopped workers are gone.
int threadCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

VantixResult pushStitch(VantixStitch* s, const cv::Mat& frame) {
  return vantix_stitch_pushback(s, frame.data, static_cast<uint32_t>(frame.cols),
                                static_cast<uint32_t>(frame.rows), 24,
                                static_cast<uint32_t>(frame.step[0]));
}
VantixResult pushEdf(VantixEdf* s, const cv::Mat& frame) {
  return vantix_edf_pushback(s, frame.data, static_cast<uint32_t>(frame.cols),
                             static_cast<uint32_t>(frame.rows), 24,
                             static_cast<uint32_t>(frame.step[0]));
}

uint32_t paddedStride(uint32_t width, uint32_t bits) { return ((width * bits + 31) >> 3) & ~3u; }

class StressSessions : public ::testing::Test {
 public:
  static void SetUpTestSuite() {
    vtest::serialOpenCvUnderTsan();
    // The image library starts its thread pool on first use and keeps it:
    // started here, so that thread counts compare like with like.
    cv::Mat warm = vtest::randomImage(600, 800, CV_8UC3), blurred;
    cv::GaussianBlur(warm, blurred, cv::Size(0, 0), 3.0);
  }
  void SetUp() override { vantix_init(&hostAlloc); }
};

// Frames of a slow pan over a textured scene (views that register).
std::vector<cv::Mat> panFrames(int count, int width, int height, cv::Point start, cv::Point step) {
  const cv::Mat scene = vtest::texturedScene(1200, 1400, 11);
  std::vector<cv::Mat> frames;
  for (int i = 0; i < count; ++i) {
    const cv::Point p = start + step * i;
    frames.push_back(scene(cv::Rect(p, cv::Size(width, height))).clone());
  }
  return frames;
}

// Four host threads push into one stitch and one EDF session while a fifth
// starts and stops both and a sixth reads them; at the end the host stops,
// reads and deletes.
TEST_F(StressSessions, FourPushersAndAStarterStopper) {
  Watchdog watchdog(240s, "four pushers and a starter/stopper");
  constexpr int kW = 160, kH = 120;
  const std::vector<cv::Mat> frames = panFrames(32, kW, kH, {400, 300}, {5, 2});
  StitchHost stitchHost;
  EdfHost edfHost;
  VantixStitch* stitch = vantix_stitch_newV3(0, 0, kW, kH, 2, 1, 2, &StitchHost::onFrame,
                                             &StitchHost::onEvent, &stitchHost);
  ASSERT_NE(stitch, nullptr);
  VantixEdf* edf = vantix_edf_new(0, &EdfHost::onFrame, &EdfHost::onError, &edfHost);
  ASSERT_NE(edf, nullptr);

  std::atomic<bool> done{false};
  std::atomic<int> badCodes{0}, pushes{0};
  std::vector<std::thread> pushers;
  for (int t = 0; t < 4; ++t) {
    pushers.emplace_back([&, t] {
      for (int i = t; !done.load(); i += 4) {
        const cv::Mat& frame = frames[i % frames.size()];
        badCodes += pushStitch(stitch, frame) != VANTIX_S_OK;
        badCodes += pushEdf(edf, frame) != VANTIX_S_OK;
        ++pushes;
        std::this_thread::sleep_for(std::chrono::microseconds(500 * (t + 1)));
      }
    });
  }
  // A sixth thread reads both sessions all along (readdata takes the locks
  // the workers publish under; a stop may take the panorama meanwhile).
  std::atomic<int> badReads{0}, reads{0};
  std::thread reader([&] {
    std::vector<uint8_t> fusedCopy(kW * 3 * kH), canvasCopy(paddedStride(64, 24) * 48 + 16, 0xCD);
    while (!done.load()) {
      vantix_edf_readdata(edf, fusedCopy.data(), kW * 3);
      uint32_t x, y, w, h;
      vantix_stitch_cropparams(stitch, &x, &y, &w, &h);
      const int32_t r = vantix_stitch_readdata(stitch, canvasCopy.data(), 64, 48, 0, 0, 0, 0);
      badReads += (r != 0 && r != 1) || canvasCopy.back() != 0xCD;
      ++reads;
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });
  const int cycles = vtest::scaled(80);
  std::thread controller([&] {
    for (int c = 0; c < cycles; ++c) {
      stitchHost.window = true;
      edfHost.window = true;
      vantix_stitch_start(stitch);
      vantix_edf_start(edf);
      std::this_thread::sleep_for(std::chrono::milliseconds(c % 7 * 3));
      if (c % 5 == 4) {
        // A panorama taken while the pushers go on.
        VantixImageHeader* image = vantix_stitch_stop(stitch, 1, 0);
        if (image != nullptr) {
          EXPECT_EQ(image->biWidth % (4 * kW), 0);
          EXPECT_EQ(image->biHeight % (4 * kH), 0);
          std::free(image);
        }
      } else {
        vantix_stitch_stop(stitch, 0, 0);
      }
      stitchHost.window = false;
      vantix_edf_stop(edf);
      edfHost.window = false;
    }
  });
  controller.join();
  done = true;
  for (std::thread& t : pushers) t.join();
  reader.join();
  EXPECT_EQ(badReads.load(), 0) << "of " << reads.load() << " reads";

  // A last run that certainly processes a frame of each session.
  stitchHost.window = true;
  edfHost.window = true;
  vantix_stitch_start(stitch);
  vantix_edf_start(edf);
  const int stitchBefore = stitchHost.frames.load(), edfBefore = edfHost.frames.load();
  ASSERT_EQ(pushStitch(stitch, frames[0]), VANTIX_S_OK);
  ASSERT_EQ(pushEdf(edf, frames[0]), VANTIX_S_OK);
  EXPECT_TRUE(stitchHost.waitFrames(stitchBefore + 1));
  EXPECT_TRUE(edfHost.waitFrames(edfBefore + 1));
  VantixImageHeader* pano = vantix_stitch_stop(stitch, 1, 0);
  stitchHost.window = false;
  vantix_edf_stop(edf);
  edfHost.window = false;

  EXPECT_EQ(badCodes.load(), 0) << "of " << pushes.load() << " pushes";
  EXPECT_EQ(stitchHost.outside.load(), 0);
  EXPECT_EQ(edfHost.outside.load(), 0);
  EXPECT_EQ(stitchHost.failures.load(), 0);
  EXPECT_EQ(edfHost.failures.load(), 0);

  // The panorama is the whole canvas as the last callback saw it (its
  // header fields are checked in test_stitch_session).
  ASSERT_NE(pano, nullptr);
  EXPECT_EQ(static_cast<uint32_t>(pano->biWidth), stitchHost.canvasWidth.load());
  EXPECT_EQ(static_cast<uint32_t>(pano->biHeight), stitchHost.canvasHeight.load());
  std::free(pano);

  // The stopped EDF session hands out the image of its last callback, at the
  // frame size, and writes nothing past it.
  const uint32_t rowBytes = kW * 3;
  std::vector<uint8_t> fused(rowBytes * kH + 64, 0xCD);
  vantix_edf_readdata(edf, fused.data(), rowBytes);
  {
    std::lock_guard<std::mutex> lock(edfHost.lastMutex);
    ASSERT_EQ(edfHost.last.size(), cv::Size(kW, kH));
    EXPECT_EQ(cv::norm(cv::Mat(kH, kW, CV_8UC3, fused.data()), edfHost.last, cv::NORM_INF), 0.0);
  }
  EXPECT_TRUE(std::all_of(fused.end() - 64, fused.end(), [](uint8_t b) { return b == 0xCD; }));
  vantix_stitch_delete(stitch);
  vantix_edf_delete(edf);
}

// Start/stop cycles of one session: every 50th run fuses or places a frame
// before its stop, every 10th pushes one and stops at once (the frame is
// processed or stays queued for the next run).
template <typename Host, typename Start, typename Push, typename Stop>
void startStopCycles(Host& host, Start start, Push push, Stop stop,
                     const std::vector<cv::Mat>& frames, int cycles, int& waited) {
  for (int i = 0; i < cycles; ++i) {
    host.window = true;
    start();
    if (i % 50 == 0) {
      const int before = host.frames.load();
      ASSERT_EQ(push(frames[i / 50 % frames.size()]), VANTIX_S_OK);
      ASSERT_TRUE(host.waitFrames(before + 1)) << "cycle " << i;
      ++waited;
    } else if (i % 10 == 3) {
      ASSERT_EQ(push(frames[i % frames.size()]), VANTIX_S_OK);
    }
    stop();
    host.window = false;
  }
}

// A thousand start/stop cycles of an EDF and a stitch session (run side by
// side); every worker ends (no thread is left behind) and no callback comes
// outside a run.
TEST_F(StressSessions, ThousandStartStopCycles) {
  Watchdog watchdog(240s, "start/stop cycles");
  constexpr int kW = 160, kH = 120, kCycles = 1000;
  const std::vector<cv::Mat> frames = panFrames(8, kW, kH, {500, 400}, {6, 3});
  const int baseline = threadCount();

  EdfHost edfHost;
  VantixEdf* edf = vantix_edf_new(2, &EdfHost::onFrame, &EdfHost::onError, &edfHost);
  StitchHost stitchHost;
  VantixStitch* stitch = vantix_stitch_newV3(0, 0, kW, kH, 1, 1, 2, &StitchHost::onFrame,
                                             &StitchHost::onEvent, &stitchHost);
  ASSERT_NE(stitch, nullptr);
  int edfWaited = 0, stitchWaited = 0;
  std::thread edfCycles([&] {
    startStopCycles(
        edfHost, [&] { vantix_edf_start(edf); }, [&](const cv::Mat& f) { return pushEdf(edf, f); },
        [&] { vantix_edf_stop(edf); }, frames, kCycles, edfWaited);
  });
  startStopCycles(
      stitchHost, [&] { vantix_stitch_start(stitch); },
      [&](const cv::Mat& f) { return pushStitch(stitch, f); },
      [&] { vantix_stitch_stop(stitch, 0, 0); }, frames, kCycles, stitchWaited);
  edfCycles.join();
  EXPECT_EQ(edfWaited, kCycles / 50);
  EXPECT_EQ(stitchWaited, kCycles / 50);
  // Only the stitch canvas's drawing thread is left.
  EXPECT_EQ(threadCount(), baseline + 1);
  EXPECT_EQ(edfHost.outside.load(), 0);
  EXPECT_EQ(stitchHost.outside.load(), 0);
  EXPECT_EQ(edfHost.failures.load(), 0);
  EXPECT_EQ(stitchHost.failures.load(), 0);
  vantix_edf_delete(edf);
  vantix_stitch_delete(stitch);
  EXPECT_EQ(threadCount(), baseline);
}

// Host threads racing over one session's lifecycle: 300 rounds of two stops
// released at the same moment on a running session, then two threads each
// starting and stopping it 150 times.  Every call returns, and afterwards
// the session still processes a frame.
template <typename Host, typename Start, typename Stop, typename Push>
void racingLifecycle(Host& host, Start start, Stop stop, Push push, const cv::Mat& frame) {
  for (int round = 0; round < 300; ++round) {
    start();
    Latch go;
    std::thread first([&] { go.wait(); stop(); });
    std::thread second([&] { go.wait(); stop(); });
    go.open();
    first.join();
    second.join();
  }
  std::thread starter([&] {
    for (int i = 0; i < 150; ++i) { start(); stop(); }
  });
  for (int i = 0; i < 150; ++i) { stop(); start(); }
  starter.join();
  stop();
  start();
  const int before = host.frames.load();
  ASSERT_EQ(push(frame), VANTIX_S_OK);
  EXPECT_TRUE(host.waitFrames(before + 1));
  stop();
}

TEST_F(StressSessions, ConcurrentStopsAndStarts) {
  Watchdog watchdog(240s, "concurrent stops and starts");
  constexpr int kW = 160, kH = 120;
  const std::vector<cv::Mat> frames = panFrames(1, kW, kH, {500, 400}, {0, 0});
  const int baseline = threadCount();
  EdfHost edfHost;
  edfHost.window = true;
  VantixEdf* edf = vantix_edf_new(2, &EdfHost::onFrame, &EdfHost::onError, &edfHost);
  StitchHost stitchHost;
  stitchHost.window = true;
  VantixStitch* stitch = vantix_stitch_newV3(0, 0, kW, kH, 1, 1, 2, &StitchHost::onFrame,
                                             &StitchHost::onEvent, &stitchHost);
  ASSERT_NE(stitch, nullptr);
  std::thread edfRace([&] {
    racingLifecycle(
        edfHost, [&] { vantix_edf_start(edf); }, [&] { vantix_edf_stop(edf); },
        [&](const cv::Mat& f) { return pushEdf(edf, f); }, frames[0]);
  });
  racingLifecycle(
      stitchHost, [&] { vantix_stitch_start(stitch); },
      [&] { vantix_stitch_stop(stitch, 0, 0); },
      [&](const cv::Mat& f) { return pushStitch(stitch, f); }, frames[0]);
  edfRace.join();
  // No worker is left behind: only the stitch canvas's drawing thread.
  EXPECT_EQ(threadCount(), baseline + 1);
  EXPECT_EQ(edfHost.failures.load(), 0);
  EXPECT_EQ(stitchHost.failures.load(), 0);
  vantix_edf_delete(edf);
  vantix_stitch_delete(stitch);
}

// Delete of a running session: just after start, with frames queued behind
// a busy worker, and while a callback runs (held on a latch): the delete
// waits for the callback, and no callback comes after it returned.
template <typename Host, typename Make, typename Start, typename Push, typename Delete>
void deleteWhileRunning(Make make, Start start, Push push, Delete destroy,
                        const std::vector<cv::Mat>& frames) {
  for (int i = 0; i < vtest::scaled(40); ++i) {
    Host host;
    host.window = true;
    auto* s = make(host);
    start(s);
    if (i % 2 == 1) push(s, frames[i % frames.size()]);
    destroy(s);
    host.deleted = true;
    EXPECT_EQ(host.afterDelete.load(), 0);
  }
  for (int round = 0; round < 3; ++round) {
    Host host;
    Latch latch;
    host.hold = &latch;
    host.window = true;
    auto* s = make(host);
    start(s);
    ASSERT_EQ(push(s, frames[0]), VANTIX_S_OK);
    ASSERT_TRUE(host.waitInCallback());
    for (size_t k = 1; k < frames.size(); ++k) push(s, frames[k]);  // queued behind it
    std::atomic<bool> returned{false};
    std::thread deleter([&] {
      destroy(s);
      host.deleted = true;
      returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + 40 * round));
    // The worker is still inside the host's callback: delete must not have
    // freed the session under it.
    EXPECT_FALSE(returned.load());
    latch.open();
    deleter.join();
    EXPECT_EQ(host.afterDelete.load(), 0);
    EXPECT_EQ(host.outside.load(), 0);
  }
}

TEST_F(StressSessions, DeleteOfARunningSession) {
  Watchdog watchdog(240s, "delete of running sessions");
  constexpr int kW = 160, kH = 120;
  const std::vector<cv::Mat> frames = panFrames(6, kW, kH, {300, 300}, {8, 4});
  const int baseline = threadCount();
  deleteWhileRunning<EdfHost>(
      [](EdfHost& h) { return vantix_edf_new(1, &EdfHost::onFrame, &EdfHost::onError, &h); },
      [](VantixEdf* s) { vantix_edf_start(s); }, pushEdf,
      [](VantixEdf* s) { vantix_edf_delete(s); }, frames);
  deleteWhileRunning<StitchHost>(
      [](StitchHost& h) {
        return vantix_stitch_newV3(0, 0, kW, kH, 0, 1, 2, &StitchHost::onFrame,
                                   &StitchHost::onEvent, &h);
      },
      [](VantixStitch* s) { vantix_stitch_start(s); }, pushStitch,
      [](VantixStitch* s) { vantix_stitch_delete(s); }, frames);
  EXPECT_EQ(threadCount(), baseline);
}

// Two host threads read the canvas (cropparams, then readdata of that
// rectangle and of the whole canvas) while a pan grows it to the left and
// upwards.  Every read answers 1 or 0 and stays inside the host's buffer; a
// rectangle from cropparams is always one readdata can copy (the same point
// without threads, the crop rectangle between a placement and its growth,
// is in test_stitch_canvas).
TEST_F(StressSessions, ReaddataWhileTheCanvasGrows) {
  Watchdog watchdog(240s, "readdata while the canvas grows");
  constexpr int kW = 320, kH = 240, kFrames = 24;
  const std::vector<cv::Mat> frames = panFrames(kFrames, kW, kH, {1000, 750}, {-40, -30});
  StitchHost host;
  host.window = true;
  VantixStitch* s =
      vantix_stitch_newV3(0, 0, kW, kH, 2, 2, 2, &StitchHost::onFrame, &StitchHost::onEvent, &host);
  ASSERT_NE(s, nullptr);
  vantix_stitch_start(s);
  ASSERT_EQ(pushStitch(s, frames[0]), VANTIX_S_OK);
  ASSERT_TRUE(host.waitFrames(1));

  std::atomic<bool> done{false};
  std::atomic<int> copied{0}, busy{0}, badResult{0}, threw{0}, badRect{0}, overrun{0},
      badPixels{0};
  const auto reader = [&](int id) {
    std::vector<uint8_t> buffer;
    for (int n = 0; !done.load(); ++n) {
      uint32_t x = 0, y = 0, w = 0, h = 0;
      vantix_stitch_cropparams(s, &x, &y, &w, &h);
      if (static_cast<int32_t>(x) < 0 || static_cast<int32_t>(y) < 0 || w == 0 || h == 0 ||
          w > (1u << 16) || h > (1u << 16)) {
        ++badRect;
        continue;
      }
      const bool whole = (n + id) % 3 == 0;
      const uint32_t bw = whole ? 128 : w, bh = whole ? 96 : h;
      const uint32_t stride = paddedStride(bw, 24);
      buffer.assign(static_cast<size_t>(stride) * bh + 64, 0xCD);
      int32_t r = -1;
      try {
        r = whole ? vantix_stitch_readdata(s, buffer.data(), bw, bh, 0, 0, 0, 0)
                  : vantix_stitch_readdata(s, buffer.data(), bw, bh, x, y, w, h);
      } catch (const std::exception&) {
        ++threw;
        continue;
      }
      if (r != 0 && r != 1) ++badResult;
      busy += r == 0;
      copied += r == 1;
      if (!std::all_of(buffer.end() - 64, buffer.end(), [](uint8_t b) { return b == 0xCD; })) {
        ++overrun;
      }
      if (r == 1 && !whole) {
        // Each pixel is the black background or the scene (20..235 in every
        // channel, blends of scene pixels included).
        const cv::Mat view(static_cast<int>(bh), static_cast<int>(bw), CV_8UC3, buffer.data(),
                           stride);
        cv::Mat black, scene;
        cv::inRange(view, cv::Scalar::all(0), cv::Scalar::all(0), black);
        cv::inRange(view, cv::Scalar::all(20), cv::Scalar::all(235), scene);
        badPixels += static_cast<int>(view.total()) - cv::countNonZero(black | scene);
      }
    }
  };
  std::thread r1(reader, 0), r2(reader, 1);
  for (int i = 1; i < kFrames; ++i) {
    ASSERT_EQ(pushStitch(s, frames[i]), VANTIX_S_OK);
    ASSERT_TRUE(host.waitFrames(i + 1)) << "frame " << i;
  }
  done = true;
  r1.join();
  r2.join();
  EXPECT_EQ(threw.load(), 0);
  EXPECT_EQ(badRect.load(), 0);
  EXPECT_EQ(badResult.load(), 0);
  EXPECT_EQ(overrun.load(), 0);
  EXPECT_EQ(badPixels.load(), 0);
  EXPECT_GT(copied.load(), 0);
  EXPECT_TRUE(host.sawEvent(VANTIX_STITCH_EVENT_CANVAS_GREW)) << "the pan did not grow the canvas";

  // Stopped: the cropped panorama is the cropparams rectangle, the same
  // pixels readdata copies from it.
  VantixImageHeader* cropped = vantix_stitch_stop(s, 1, 1);
  ASSERT_NE(cropped, nullptr);
  uint32_t x = 0, y = 0, w = 0, h = 0;
  vantix_stitch_cropparams(s, &x, &y, &w, &h);
  EXPECT_EQ(static_cast<uint32_t>(cropped->biWidth), w);
  EXPECT_EQ(static_cast<uint32_t>(cropped->biHeight), h);
  const uint32_t stride = paddedStride(w, 24);
  std::vector<uint8_t> copy(static_cast<size_t>(stride) * h);
  ASSERT_EQ(vantix_stitch_readdata(s, copy.data(), w, h, x, y, w, h), 1);
  EXPECT_EQ(std::memcmp(copy.data(), reinterpret_cast<uint8_t*>(cropped) + 40, copy.size()), 0);
  std::free(cropped);
  VantixImageHeader* whole = vantix_stitch_stop(s, 1, 0);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(whole->biWidth, 8 * kW);
  EXPECT_EQ(whole->biHeight, 8 * kH);
  EXPECT_LE(x + w, static_cast<uint32_t>(whole->biWidth));
  EXPECT_LE(y + h, static_cast<uint32_t>(whole->biHeight));
  std::free(whole);
  EXPECT_EQ(host.outside.load(), 0);
  vantix_stitch_delete(s);
}

}  // namespace
