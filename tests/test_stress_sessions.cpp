// The stitch and EDF sessions used by a host with several threads: pushers
// while another thread starts and stops, two stops at once and starts racing
// stops, deletes of running sessions, and canvas readers while the panorama
// grows.  Runs under ThreadSanitizer as well.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "support/stress.h"
#include "support/test_support.h"
#include "testing/scenes.h"

namespace {

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }

// Counts the callbacks of one session, and those that come outside the
// window the host opened before start and closed after stop (or delete)
// returned.  While `hold` is closed, a frame callback waits in the worker.
struct Host {
  std::atomic<bool> window{true};
  std::atomic<int> outside{0}, failures{0}, stitchCalls{0}, edfCalls{0};
  std::atomic<uint32_t> canvasWidth{0}, canvasHeight{0};
  std::atomic<bool> grew{false}, inCallback{false};
  vtest::Latch* hold = nullptr;
  std::mutex m;
  std::condition_variable cv;

  void arrived(std::atomic<int>& counter) {
    outside += !window.load();
    {
      std::lock_guard<std::mutex> lock(m);
      ++counter;
    }
    cv.notify_all();
    if (hold != nullptr && !hold->isOpen()) {
      inCallback = true;
      hold->wait();
    }
  }
  static void onStitch(void* ctx, const uint8_t*, uint32_t, uint32_t cw, uint32_t ch, uint32_t,
                       uint32_t, uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, float) {
    auto* h = static_cast<Host*>(ctx);
    h->canvasWidth = cw;
    h->canvasHeight = ch;
    h->arrived(h->stitchCalls);
  }
  static void onStitchEvent(void* ctx, uint32_t code) {
    auto* h = static_cast<Host*>(ctx);
    h->outside += !h->window.load();
    h->failures += code == VANTIX_STITCH_EVENT_FAILED || code == VANTIX_STITCH_EVENT_OUT_OF_MEMORY;
    h->grew = h->grew || code == VANTIX_STITCH_EVENT_CANVAS_GREW;
  }
  static void onEdf(void* ctx, uint32_t, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t) {
    auto* h = static_cast<Host*>(ctx);
    h->arrived(h->edfCalls);
  }
  static void onEdfError(void* ctx, uint32_t) {
    auto* h = static_cast<Host*>(ctx);
    h->outside += !h->window.load();
    ++h->failures;
  }
  VantixStitch* stitch(int w, int h) {
    return vantix_stitch_newV3(0, 0, w, h, 2, 1, 2, &onStitch, &onStitchEvent, this);
  }
  VantixEdf* edf(uint32_t kind) { return vantix_edf_new(kind, &onEdf, &onEdfError, this); }
  void await(const std::atomic<int>& counter, int n) {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return counter.load() >= n; });
  }
};

// Threads of this process, to see that stopped workers are gone.
int threadCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

VantixResult push(VantixStitch* s, const cv::Mat& f) {
  return vantix_stitch_pushback(s, f.data, f.cols, f.rows, 24, static_cast<uint32_t>(f.step[0]));
}
VantixResult push(VantixEdf* s, const cv::Mat& f) {
  return vantix_edf_pushback(s, f.data, f.cols, f.rows, 24, static_cast<uint32_t>(f.step[0]));
}

// Views of a pan over a textured scene in grey levels 20..235 (a pixel of
// the black canvas is never scene content).
std::vector<cv::Mat> panFrames(int count, cv::Size size, cv::Point start, cv::Point step) {
  cv::Mat scene;
  vtest::texturedScene(cv::Size(1400, 1200), 11).convertTo(scene, -1, 215.0 / 255.0, 20);
  std::vector<cv::Mat> frames;
  for (int i = 0; i < count; ++i) frames.push_back(scene(cv::Rect(start + step * i, size)).clone());
  return frames;
}

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

// Four threads push into a stitch and an EDF session while a fifth starts
// and stops both (taking a panorama now and then) and a sixth reads them.
TEST_F(StressSessions, FourPushersAReaderAndAStarterStopper) {
  constexpr int kW = 160, kH = 120;
  const std::vector<cv::Mat> frames = panFrames(32, {kW, kH}, {400, 300}, {5, 2});
  Host host;
  host.window = false;
  VantixStitch* stitch = host.stitch(kW, kH);
  VantixEdf* edf = host.edf(0);
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; !done.load(); i += 4) {
        bad += push(stitch, frames[i % frames.size()]) != VANTIX_S_OK;
        bad += push(edf, frames[i % frames.size()]) != VANTIX_S_OK;
        std::this_thread::sleep_for(std::chrono::microseconds(300 * (t + 1)));  // pacing only
      }
    });
  }
  threads.emplace_back([&] {
    std::vector<uint8_t> fused(kW * 3 * kH), canvas(vantix_default_stride(64, 24) * 48 + 16, 0xCD);
    while (!done.load()) {
      vantix_edf_readdata(edf, fused.data(), kW * 3);
      uint32_t x, y, w, h;
      vantix_stitch_cropparams(stitch, &x, &y, &w, &h);
      const int32_t r = vantix_stitch_readdata(stitch, canvas.data(), 64, 48, 0, 0, 0, 0);
      bad += (r != 0 && r != 1) || canvas.back() != 0xCD;
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });
  for (int c = 0; c < vtest::scaled(80); ++c) {
    host.window = true;
    vantix_stitch_start(stitch);
    vantix_edf_start(edf);
    for (int k = 0; k < c % 7; ++k) std::this_thread::yield();
    VantixImageHeader* image = vantix_stitch_stop(stitch, c % 5 == 4, 0);
    if (image != nullptr) {
      EXPECT_EQ(image->biWidth % (4 * kW), 0);
      EXPECT_EQ(image->biHeight % (4 * kH), 0);
      std::free(image);
    }
    vantix_edf_stop(edf);
    host.window = false;
  }
  done = true;
  for (std::thread& t : threads) t.join();

  // A last run certainly processes a frame of each; the panorama is the
  // whole canvas as the last callback saw it.
  host.window = true;
  vantix_stitch_start(stitch);
  vantix_edf_start(edf);
  const int stitchBefore = host.stitchCalls, edfBefore = host.edfCalls;
  push(stitch, frames[0]);
  push(edf, frames[0]);
  host.await(host.stitchCalls, stitchBefore + 1);
  host.await(host.edfCalls, edfBefore + 1);
  VantixImageHeader* pano = vantix_stitch_stop(stitch, 1, 0);
  vantix_edf_stop(edf);
  host.window = false;
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(host.outside.load(), 0);
  EXPECT_EQ(host.failures.load(), 0);
  ASSERT_NE(pano, nullptr);
  EXPECT_EQ(uint32_t(pano->biWidth), host.canvasWidth.load());
  EXPECT_EQ(uint32_t(pano->biHeight), host.canvasHeight.load());
  std::free(pano);
  vantix_stitch_delete(stitch);
  vantix_edf_delete(edf);
}

// 300 rounds of two stops released at the same moment on a running session,
// then two threads each starting and stopping it 150 times: every call
// returns, no worker is left behind, and the session still processes a frame.
TEST_F(StressSessions, ConcurrentStopsAndStarts) {
  const cv::Mat frame = panFrames(1, {160, 120}, {500, 400}, {0, 0})[0];
  const int baseline = threadCount();
  Host host;
  VantixStitch* stitch = host.stitch(160, 120);
  VantixEdf* edf = host.edf(2);
  const auto race = [&](std::function<void()> start, std::function<void()> stop,
                        std::function<void()> pushFrame, std::atomic<int>& calls) {
    for (int round = 0; round < 300; ++round) {
      start();
      vtest::Latch go;
      std::thread first([&] { go.wait(); stop(); });
      std::thread second([&] { go.wait(); stop(); });
      go.open();
      first.join();
      second.join();
    }
    std::thread starter([&] {
      for (int i = 0; i < 150; ++i) start(), stop();
    });
    for (int i = 0; i < 150; ++i) stop(), start();
    starter.join();
    stop();
    start();
    const int before = calls.load();
    pushFrame();
    host.await(calls, before + 1);
    stop();
  };
  std::thread edfRace([&] {
    race([&] { vantix_edf_start(edf); }, [&] { vantix_edf_stop(edf); }, [&] { push(edf, frame); },
         host.edfCalls);
  });
  race([&] { vantix_stitch_start(stitch); }, [&] { vantix_stitch_stop(stitch, 0, 0); },
       [&] { push(stitch, frame); }, host.stitchCalls);
  edfRace.join();
  EXPECT_EQ(threadCount(), baseline + 1);  // the canvas's drawing thread
  EXPECT_EQ(host.failures.load(), 0);
  vantix_edf_delete(edf);
  vantix_stitch_delete(stitch);
  EXPECT_EQ(threadCount(), baseline);
}

// Delete of a running session: just after start, with a frame pushed, and
// while a callback runs (held on a latch) with frames queued behind it: the
// delete waits for the callback, and no callback comes after it returned.
TEST_F(StressSessions, DeleteOfARunningSession) {
  const std::vector<cv::Mat> frames = panFrames(6, {160, 120}, {300, 300}, {8, 4});
  const int baseline = threadCount();
  for (int family = 0; family < 2; ++family) {
    const auto run = [&](Host& host, bool held, int pushes) {
      VantixStitch* stitch = family == 0 ? host.stitch(160, 120) : nullptr;
      VantixEdf* edf = family == 1 ? host.edf(1) : nullptr;
      family == 0 ? vantix_stitch_start(stitch) : vantix_edf_start(edf);
      for (int k = 0; k < pushes; ++k) {
        family == 0 ? push(stitch, frames[k]) : push(edf, frames[k]);
        if (held && k == 0) {
          while (!host.inCallback.load()) std::this_thread::yield();
        }
      }
      std::atomic<bool> deleting{false};
      std::thread deleter([&] {
        deleting = true;
        family == 0 ? vantix_stitch_delete(stitch) : vantix_edf_delete(edf);
        host.window = false;
      });
      while (!deleting.load()) std::this_thread::yield();
      if (held) host.hold->open();
      deleter.join();
    };
    for (int i = 0; i < vtest::scaled(40); ++i) {
      Host host;
      run(host, false, i % 2);
      EXPECT_EQ(host.outside.load(), 0);
    }
    for (int round = 0; round < 3; ++round) {
      Host host;
      vtest::Latch latch;
      host.hold = &latch;
      run(host, true, static_cast<int>(frames.size()));
      EXPECT_EQ(host.outside.load(), 0);
    }
  }
  EXPECT_EQ(threadCount(), baseline);
}

// Two threads read the canvas (cropparams, then readdata of that rectangle
// or of the whole canvas) while a pan grows it to the left and upwards.
// Every read answers 1 or 0, stays inside the host's buffer and holds only
// background or scene pixels; a rectangle from cropparams is always one
// readdata can copy.  Stopped, the cropped panorama is that rectangle.
TEST_F(StressSessions, ReaddataWhileTheCanvasGrows) {
  constexpr int kW = 320, kH = 240, kFrames = 24;
  const std::vector<cv::Mat> frames = panFrames(kFrames, {kW, kH}, {1000, 750}, {-40, -30});
  Host host;
  VantixStitch* s = vantix_stitch_newV3(0, 0, kW, kH, 2, 2, 2, &Host::onStitch,
                                        &Host::onStitchEvent, &host);
  vantix_stitch_start(s);
  push(s, frames[0]);
  host.await(host.stitchCalls, 1);
  std::atomic<bool> done{false};
  std::atomic<int> copied{0}, bad{0};
  const auto reader = [&](int id) {
    std::vector<uint8_t> buffer;
    for (int n = 0; !done.load(); ++n) {
      uint32_t x = 0, y = 0, w = 0, h = 0;
      vantix_stitch_cropparams(s, &x, &y, &w, &h);
      if (int32_t(x) < 0 || int32_t(y) < 0 || w == 0 || h == 0 || w > 65536 || h > 65536) {
        ++bad;
        continue;
      }
      const bool whole = (n + id) % 3 == 0;
      const uint32_t bw = whole ? 128 : w, bh = whole ? 96 : h;
      const uint32_t stride = vantix_default_stride(bw, 24);
      buffer.assign(size_t(stride) * bh + 64, 0xCD);
      int32_t r = -1;
      try {
        r = vantix_stitch_readdata(s, buffer.data(), bw, bh, whole ? 0 : x, whole ? 0 : y,
                                   whole ? 0 : w, whole ? 0 : h);
      } catch (const std::exception&) {
        ++bad;
      }
      bad += (r != 0 && r != 1) || std::count(buffer.end() - 64, buffer.end(), 0xCD) != 64;
      copied += r == 1;
      if (r == 1 && !whole) {
        const cv::Mat view(int(bh), int(bw), CV_8UC3, buffer.data(), stride);
        cv::Mat black, scene;
        cv::inRange(view, cv::Scalar::all(0), cv::Scalar::all(0), black);
        cv::inRange(view, cv::Scalar::all(20), cv::Scalar::all(235), scene);
        bad += static_cast<int>(view.total()) - cv::countNonZero(black | scene);
      }
    }
  };
  std::thread r1(reader, 0), r2(reader, 1);
  for (int i = 1; i < kFrames; ++i) {
    push(s, frames[i]);
    host.await(host.stitchCalls, i + 1);
  }
  done = true;
  r1.join();
  r2.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_GT(copied.load(), 0);
  EXPECT_TRUE(host.grew.load()) << "the pan did not grow the canvas";

  VantixImageHeader* cropped = vantix_stitch_stop(s, 1, 1);
  ASSERT_NE(cropped, nullptr);
  uint32_t x = 0, y = 0, w = 0, h = 0;
  vantix_stitch_cropparams(s, &x, &y, &w, &h);
  EXPECT_EQ(cv::Size(cropped->biWidth, cropped->biHeight), cv::Size(w, h));
  std::vector<uint8_t> copy(size_t(vantix_default_stride(w, 24)) * h);
  ASSERT_EQ(vantix_stitch_readdata(s, copy.data(), w, h, x, y, w, h), 1);
  EXPECT_EQ(std::memcmp(copy.data(), reinterpret_cast<uint8_t*>(cropped) + 40, copy.size()), 0);
  std::free(cropped);
  vantix_stitch_delete(s);
}

}  // namespace
