// The stitch session through its exported functions: session rules, queue,
// frame selection, lifecycle in every order, callbacks, events, readers.
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

#include "livestitch/lvprocessor.h"
#include "support/stitch_frames.h"
#include "support/test_support.h"

namespace {

using namespace std::chrono_literals;

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }
void* failingAlloc(uint64_t) { return nullptr; }

struct FrameCall {
  int32_t x, y;
  uint32_t mode, changed, reset, stride, canvasWidth, canvasHeight, frameWidth, frameHeight, type;
  float score;
};

// Records the callbacks; onFrame can be held at a gate to block the worker.
struct Host {
  std::mutex m;
  std::condition_variable cv;
  std::vector<FrameCall> frames;
  std::vector<uint32_t> events;
  bool gateClosed = false;
  int passes = 0;  // callbacks let through while the gate is closed
  bool blocked = false;
  VantixStitch* session = nullptr;
  bool readInsideCallback = false;
  std::atomic<int> callbackReads{0};

  static void onFrame(void* ctx, const uint8_t*, uint32_t stride, uint32_t cw, uint32_t ch,
                      uint32_t fw, uint32_t fh, uint32_t type, int32_t x, int32_t y, uint32_t mode,
                      uint32_t changed, uint32_t reset, float score) {
    auto* h = static_cast<Host*>(ctx);
    if (h->readInsideCallback) {
      // Both take session locks: they would never return if the worker
      // called back with a lock held.
      uint32_t cx, cy, cw2, ch2;
      vantix_stitch_cropparams(h->session, &cx, &cy, &cw2, &ch2);
      std::vector<uint8_t> buffer(16 * 8 * 3);
      h->callbackReads += vantix_stitch_readdata(h->session, buffer.data(), 16, 8, 0, 0, 0, 0);
    }
    std::unique_lock<std::mutex> lock(h->m);
    h->frames.push_back(FrameCall{x, y, mode, changed, reset, stride, cw, ch, fw, fh, type, score});
    h->cv.notify_all();
    while (h->gateClosed && h->passes == 0) {
      h->blocked = true;
      h->cv.notify_all();
      h->cv.wait(lock);
    }
    if (h->gateClosed) --h->passes;
    h->blocked = false;
  }
  static void onEvent(void* ctx, uint32_t code) {
    auto* h = static_cast<Host*>(ctx);
    std::lock_guard<std::mutex> lock(h->m);
    h->events.push_back(code);
    h->cv.notify_all();
  }

  size_t frameCount() { return snapshot(frames).size(); }
  bool waitFrames(size_t n, std::chrono::milliseconds limit = 20s) {
    std::unique_lock<std::mutex> lock(m);
    return cv.wait_for(lock, limit, [&] { return frames.size() >= n; });
  }
  bool waitBlocked() {
    std::unique_lock<std::mutex> lock(m);
    return cv.wait_for(lock, 20s, [&] { return blocked; });
  }
  // Closes or opens the gate; `pass` more callbacks may go through a closed one.
  void gate(bool closed, int pass = 0) {
    std::lock_guard<std::mutex> lock(m);
    gateClosed = closed;
    passes += pass;
    blocked = false;
    cv.notify_all();
  }
  std::vector<uint32_t> eventList() { return snapshot(events); }
  std::vector<FrameCall> frameList() { return snapshot(frames); }
  template <typename T>
  T snapshot(const T& field) {
    std::lock_guard<std::mutex> lock(m);
    return field;
  }
};

cv::Mat grey(int level) { return cv::Mat(48, 64, CV_8UC3, cv::Scalar::all(level)); }

class StitchSession : public ::testing::Test {
 public:
  void SetUp() override { vantix_init(&hostAlloc); }
  static VantixStitch* make(Host& host, uint32_t w, uint32_t h, uint32_t background = 0) {
    host.session = vantix_stitch_newV3(0, 0, w, h, background, 2, 2, &Host::onFrame,
                                       &Host::onEvent, &host);
    return host.session;
  }
  static vantix::CLvProcessor* proc(VantixStitch* s) {
    return reinterpret_cast<vantix::CLvProcessor*>(s);
  }
  static void push(VantixStitch* s, const cv::Mat& frame) {
    ASSERT_EQ(vantix_stitch_pushback(s, frame.data, frame.cols, frame.rows, 24,
                                     static_cast<uint32_t>(frame.step)),
              VANTIX_S_OK);
  }
  // Pushes and waits until the worker reported the frame.
  static void pushAndWait(Host& host, VantixStitch* s, const cv::Mat& frame) {
    const size_t before = host.frameCount();
    push(s, frame);
    ASSERT_TRUE(host.waitFrames(before + 1)) << "the worker did not report the frame";
  }
};

TEST_F(StitchSession, CreationNeedsTheAllocatorAndNullSessionsFollowTheRules) {
  Host host;
  vantix_init(nullptr);
  EXPECT_EQ(vantix_stitch_new(0, 100, 50, 0, &Host::onFrame, &Host::onEvent, &host), nullptr);
  EXPECT_EQ(vantix_stitch_newV2(0, 0, 100, 50, 0, &Host::onFrame, nullptr, &host), nullptr);
  EXPECT_EQ(make(host, 100, 50), nullptr);
  vantix_init(&hostAlloc);
  uint8_t pixel[3] = {0, 0, 0};
  EXPECT_EQ(vantix_stitch_pushback(nullptr, pixel, 1, 1, 24, 3), VANTIX_E_NOTIMPL);
  uint32_t x = 7, y = 7, w = 7, h = 7;
  vantix_stitch_cropparams(nullptr, &x, &y, &w, &h);
  EXPECT_EQ(x + y + w + h, 28u);
  vantix_stitch_delete(nullptr);

  // The scale and strictness levels reach the worker; the first version
  // uses the default scale.
  VantixStitch* low = vantix_stitch_newV3(0, 0, 640, 480, 0, 0, 4, &Host::onFrame, nullptr, &host);
  ASSERT_NE(low, nullptr);
  EXPECT_EQ(proc(low)->scalePercent(), 10);
  EXPECT_FLOAT_EQ(proc(low)->minMatch(), 0.95f);
  vantix_stitch_delete(low);
  VantixStitch* hd = vantix_stitch_new(0, 1920, 1080, 2, &Host::onFrame, nullptr, &host);
  ASSERT_NE(hd, nullptr);
  EXPECT_EQ(proc(hd)->scalePercent(), 20);
  vantix_stitch_delete(hd);
}

TEST_F(StitchSession, SmallFrameWorkedExample) {
  const cv::Mat scene = vtest::texturedScene(1110, 1282, 4);
  Host host;
  VantixStitch* s = make(host, 100, 50);
  ASSERT_NE(s, nullptr);
  // Not running: the push is dropped.
  const cv::Mat frame = scene(cv::Rect(400, 400, 100, 50)).clone();
  push(s, frame);
  EXPECT_EQ(proc(s)->queuedFrames(), 0u);
  vantix_stitch_start(s);
  pushAndWait(host, s, frame);
  const FrameCall f = host.frameList().at(0);
  EXPECT_EQ(std::vector<int64_t>({f.x, f.y, f.mode, f.canvasWidth, f.canvasHeight, f.stride,
                                  f.frameWidth, f.frameHeight, f.type, f.reset}),
            std::vector<int64_t>({200, 100, 1, 400, 200, 1200, 100, 50, CV_8UC3, 1}));
  uint32_t x, y, w, h;
  vantix_stitch_cropparams(s, &x, &y, &w, &h);
  EXPECT_EQ(cv::Rect(x, y, w, h), cv::Rect(200, 100, 100, 50));

  EXPECT_EQ(vantix_stitch_stop(s, 0, 0), nullptr);
  VantixImageHeader* whole = vantix_stitch_stop(s, 1, 0);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(std::vector<int64_t>({whole->biSize, whole->biWidth, whole->biHeight, whole->biPlanes,
                                  whole->biBitCount, whole->biSizeImage}),
            std::vector<int64_t>({40, 400, 200, 1, 24, 1200 * 200}));
  const cv::Mat wholeImage(200, 400, CV_8UC3, reinterpret_cast<uint8_t*>(whole) + 40, 1200);
  // The first frame is drawn as it is at (200, 100), on the checkerboard.
  EXPECT_EQ(cv::norm(wholeImage(cv::Rect(200, 100, 100, 50)), frame, cv::NORM_INF), 0.0);
  EXPECT_EQ(wholeImage.at<cv::Vec3b>(199, 0), cv::Vec3b(204, 204, 204));
  std::free(whole);
  VantixImageHeader* cropped = vantix_stitch_stop(s, 1, 1);
  ASSERT_NE(cropped, nullptr);
  EXPECT_EQ(cropped->biWidth, 100);
  EXPECT_EQ(cropped->biHeight, 50);
  EXPECT_EQ(cropped->biSizeImage, 300u * 50u);
  EXPECT_EQ(cv::norm(cv::Mat(50, 100, CV_8UC3, reinterpret_cast<uint8_t*>(cropped) + 40, 300), frame,
                     cv::NORM_INF),
            0.0);
  std::free(cropped);
  vantix_init(&failingAlloc);
  EXPECT_EQ(vantix_stitch_stop(s, 1, 0), nullptr);
  vantix_init(&hostAlloc);
  vantix_stitch_delete(s);
}

// The first frame's score is the sharpness of the centred 300 x 300 region
// of the full 640 x 480 frame as it stands (not of its working copy), at
// every scale level: the largest of the two absolute Sobel derivatives of
// the grey image, squared through (g * g / 255), squared again, averaged,
// rooted, times the session's factor / 255.
TEST_F(StitchSession, FirstFrameScoreIsTheSharpnessOfTheFullCentredRegion) {
  constexpr int kW = 640, kH = 480, kSide = 300;
  const cv::Mat frame = vtest::texturedScene(kH, kW, 9);
  cv::Mat grey, dx, dy, g;
  cv::cvtColor(frame(cv::Rect((kW - kSide) / 2, (kH - kSide) / 2, kSide, kSide)), grey,
               cv::COLOR_RGB2GRAY);
  cv::Sobel(grey, dx, CV_16S, 1, 0);
  cv::Sobel(grey, dy, CV_16S, 0, 1);
  cv::convertScaleAbs(dx, dx);
  cv::convertScaleAbs(dy, dy);
  g = cv::max(dx, dy);
  double sum = 0.0;
  for (auto it = g.begin<uint8_t>(); it != g.end<uint8_t>(); ++it) {
    const double squared = std::min(255.0, std::round(*it * *it / 255.0));
    sum += squared * squared;
  }
  const double rms = std::sqrt(sum / g.total());
  const int percents[] = {10, 15, 20, 30, 40};
  for (uint32_t level = 0; level < 5; ++level) {
    Host host;
    host.session = vantix_stitch_newV3(0, 0, kW, kH, 0, level, 2, &Host::onFrame, &Host::onEvent,
                                       &host);
    vantix_stitch_start(host.session);
    pushAndWait(host, host.session, frame);
    vantix_stitch_delete(host.session);
    const double factor = percents[level] * 0.02 + kW * 0.25 / kH + kW * kH / 100000000.0;
    EXPECT_NEAR(host.frameList().at(0).score, rms * factor / 255.0, 1e-5 * rms) << "level " << level;
  }
}

// A running session whose score is the frame's grey level / 100 (so each
// frame says which it is), its worker held in the callback of a first frame.
VantixStitch* startHeld(Host& host) {
  VantixStitch* s = StitchSession::make(host, 64, 48, 1);
  if (s == nullptr) return nullptr;
  StitchSession::proc(s)->setScoreFunction(
      [](const cv::Mat& small) { return cv::mean(small)[0] / 100.0; });
  vantix_stitch_start(s);
  host.gate(true);
  StitchSession::push(s, grey(90));
  return host.waitBlocked() ? s : nullptr;
}

TEST_F(StitchSession, TheQueueHoldsTwentyOneAndTheSharpestOfSixIsTaken) {
  Host host;
  VantixStitch* s = startHeld(host);
  ASSERT_NE(s, nullptr);
  for (int i = 0; i < 25; ++i) {
    push(s, grey(10 + i));
    EXPECT_LE(proc(s)->queuedFrames(), 21u);
  }
  EXPECT_EQ(proc(s)->queuedFrames(), 21u);
  // Drain: frames 4..24 remain (grey 14..34); the worker takes the best of
  // the six oldest each pass.
  host.gate(false);
  vantix_stitch_stop(s, 0, 0);

  // Scores 0.5, 0.7, 0.7: the second is processed, the first two removed,
  // the third stays queued.
  Host host2;
  VantixStitch* t = startHeld(host2);
  ASSERT_NE(t, nullptr);
  for (int level : {50, 70, 70}) push(t, grey(level));
  host2.gate(true, 1);
  ASSERT_TRUE(host2.waitFrames(2));
  ASSERT_TRUE(host2.waitBlocked());
  // Had the equal third frame won, nothing would be left.
  EXPECT_EQ(proc(t)->queuedFrames(), 1u);
  const auto frames = host2.frameList();
  EXPECT_NEAR(frames[1].score, 0.7, 0.001);
  host2.gate(false);
  ASSERT_TRUE(host2.waitFrames(3));
  vantix_stitch_stop(t, 0, 0);
  const auto all = host2.frameList();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_NEAR(all[2].score, 0.7, 0.001);
  vantix_stitch_delete(t);
  vantix_stitch_delete(s);
}

// Deletes with frames queued behind a busy worker, and stops from another
// thread while pushers run, are in test_stress_sessions.
TEST_F(StitchSession, StartStopDeleteInEveryOrder) {
  const cv::Mat frame = vtest::randomImage(48, 64, CV_8UC3, 9);
  {
    Host host;  // never started
    vantix_stitch_delete(make(host, 64, 48));
  }
  {
    Host host;  // stopped without a start, then started twice
    VantixStitch* s = make(host, 64, 48);
    EXPECT_EQ(vantix_stitch_stop(s, 0, 0), nullptr);
    vantix_stitch_start(s);
    vantix_stitch_start(s);
    pushAndWait(host, s, frame);
    EXPECT_EQ(proc(s)->state(), 1u);
    vantix_stitch_stop(s, 0, 0);
    vantix_stitch_stop(s, 0, 0);
    const size_t queued = proc(s)->queuedFrames();
    push(s, frame);  // stopped: dropped
    EXPECT_EQ(proc(s)->queuedFrames(), queued);
    vantix_stitch_start(s);
    vantix_stitch_delete(s);  // running
  }
}

// The callbacks also read the session, which would never return if the
// worker called back with a session lock held.
TEST_F(StitchSession, AFailingFrameStopsTheWorkerAndTheSessionResumes) {
  Host host;
  host.readInsideCallback = true;
  VantixStitch* s = make(host, 64, 48);
  vantix_stitch_start(s);
  pushAndWait(host, s, vtest::randomImage(48, 64, CV_8UC3, 1));
  // A frame of another size cannot be registered against the reference.
  const cv::Mat wrong = vtest::randomImage(40, 64, CV_8UC3, 2);
  push(s, wrong);
  for (int i = 0; i < 500 && host.eventList().empty(); ++i) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(host.eventList(), std::vector<uint32_t>{1u});
  vantix_stitch_stop(s, 0, 0);
  vantix_stitch_start(s);
  pushAndWait(host, s, vtest::randomImage(48, 64, CV_8UC3, 1));
  vantix_stitch_stop(s, 0, 0);
  EXPECT_EQ(host.callbackReads.load(), 2);
  vantix_stitch_delete(s);
}

// A pan over a photo: frames 320 x 240 moving left by 40 px a frame and
// down by 3, far enough for the canvas to grow to the left.
TEST_F(StitchSession, PanningLeftGrowsTheCanvasAndReportsTruePositions) {
  const cv::Mat scene = vtest::texturedScene(1110, 1282, 4);
  Host host;
  VantixStitch* s = make(host, 320, 240, 2);
  vantix_stitch_start(s);
  const int x0 = 900, y0 = 400;
  std::vector<cv::Point> truth;
  for (int i = 0; i < 20; ++i) {
    const cv::Point p(x0 - 40 * i, y0 + 3 * i);
    truth.push_back(p - cv::Point(x0, y0));
    pushAndWait(host, s, scene(cv::Rect(p, cv::Size(320, 240))).clone());
  }
  vantix_stitch_stop(s, 0, 0);
  const auto frames = host.frameList();
  const auto events = host.eventList();
  ASSERT_EQ(frames.size(), truth.size());
  // Growth: 3 then 5, once (the pan goes 760 px left of a first frame that
  // lies 640 px from the canvas's left edge).
  EXPECT_EQ(events, (std::vector<uint32_t>{3u, 5u}));
  int grownAt = -1, placed = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    const int shiftX = frames[i].canvasWidth == 2560 ? 1280 : 0;
    if (shiftX != 0 && grownAt < 0) {
      grownAt = static_cast<int>(i);
      EXPECT_EQ(frames[i].reset, 1u);
    }
    EXPECT_EQ(frames[i].canvasHeight, 960u);
    // Every frame here overlaps its reference well: placed or kept, at its
    // true place.
    EXPECT_TRUE(frames[i].mode == 1 || frames[i].mode == 2) << i;
    placed += frames[i].mode == 1;
    EXPECT_NEAR(frames[i].x, 640 + shiftX + truth[i].x, 1) << i;
    EXPECT_NEAR(frames[i].y, 480 + truth[i].y, 1) << i;
  }
  EXPECT_GT(grownAt, 0);
  EXPECT_GT(placed, 15);
  uint32_t x, y, w, h;
  vantix_stitch_cropparams(s, &x, &y, &w, &h);
  EXPECT_NEAR(x, 1280 + 640 - 760, 1);
  EXPECT_NEAR(w, 760 + 320, 1);
  EXPECT_NEAR(h, 57 + 240, 1);

  // readdata: cubic when shrinking, area otherwise (against the library's
  // own panorama resized here).
  VantixImageHeader* pano = vantix_stitch_stop(s, 1, 0);
  ASSERT_NE(pano, nullptr);
  const cv::Mat canvas(pano->biHeight, pano->biWidth, CV_8UC3, reinterpret_cast<uint8_t*>(pano) + 40,
                       ((pano->biWidth * 24 + 31) >> 3) & ~3);
  for (const cv::Size size : {cv::Size(640, 240), cv::Size(2560, 1000)}) {
    const size_t stride = ((24 * size.width + 31) / 32) * 4;
    std::vector<uint8_t> buffer(stride * size.height);
    ASSERT_EQ(vantix_stitch_readdata(s, buffer.data(), size.width, size.height, 0, 0, 0, 0), 1);
    cv::Mat expected;
    const bool shrink = size.area() < canvas.cols * canvas.rows;
    cv::resize(canvas, expected, size, 0, 0, shrink ? cv::INTER_CUBIC : cv::INTER_AREA);
    EXPECT_LE(cv::norm(cv::Mat(size, CV_8UC3, buffer.data(), stride), expected, cv::NORM_INF), 1.0)
        << size;
  }
  // A region of the canvas.
  std::vector<uint8_t> roi(100 * 3 * 50);
  ASSERT_EQ(vantix_stitch_readdata(s, roi.data(), 100, 50, 1280 + 640, 480, 100, 50), 1);
  EXPECT_EQ(cv::norm(cv::Mat(50, 100, CV_8UC3, roi.data()), canvas(cv::Rect(1920, 480, 100, 50)),
                     cv::NORM_INF),
            0.0);
  // A region whose far edge passes the int range is outside the canvas too
  // (the sum must not wrap into a wild read).
  EXPECT_THROW(vantix_stitch_readdata(s, roi.data(), 100, 50, 0x7FFFFFFF, 0, 1, 50), cv::Exception);
  EXPECT_THROW(vantix_stitch_readdata(s, roi.data(), 100, 50, 0, 0x7FFFFFF0, 100, 50),
               cv::Exception);
  proc(s)->canvas().setBusyForTest(true);
  EXPECT_EQ(vantix_stitch_readdata(s, roi.data(), 100, 50, 0, 0, 0, 0), 0);
  proc(s)->canvas().setBusyForTest(false);
  std::free(pano);
  vantix_stitch_delete(s);
}

// The same pan with memory short: every growth fails (3 then 2), the frames
// that would need it are reported as not placed, and the crop rectangle
// stays on the 1280 x 960 canvas, so a cropped stop returns the panorama.
TEST_F(StitchSession, AFailedGrowthKeepsThePanoramaOnTheCanvas) {
  const cv::Mat scene = vtest::texturedScene(1110, 1282, 4);
  Host host;
  VantixStitch* s = make(host, 320, 240, 2);
  proc(s)->canvas().failGrowthForTest(true);
  vantix_stitch_start(s);
  for (int i = 0; i < 20; ++i) {
    pushAndWait(host, s, scene(cv::Rect(900 - 40 * i, 400 + 3 * i, 320, 240)).clone());
  }
  vantix_stitch_stop(s, 0, 0);
  const auto events = host.eventList();
  ASSERT_GE(events.size(), 2u);
  for (size_t i = 0; i < events.size(); ++i) EXPECT_EQ(events[i], i % 2 == 0 ? 3u : 2u) << i;
  int notPlaced = 0;
  for (const FrameCall& f : host.frameList()) {
    EXPECT_EQ(f.canvasWidth, 1280u);
    if (f.x < 0) EXPECT_EQ(f.mode, 4u) << f.x;
    notPlaced += f.x < 0;
  }
  EXPECT_EQ(static_cast<size_t>(notPlaced), events.size() / 2);
  uint32_t x, y, w, h;
  vantix_stitch_cropparams(s, &x, &y, &w, &h);
  EXPECT_LE(uint64_t{x} + w, 1280u);
  EXPECT_LE(uint64_t{y} + h, 960u);
  EXPECT_NEAR(x, 0, 40);
  VantixImageHeader* pano = vantix_stitch_stop(s, 1, 1);
  ASSERT_NE(pano, nullptr);
  EXPECT_EQ(cv::Size(pano->biWidth, pano->biHeight), cv::Size(w, h));
  std::free(pano);
  vantix_stitch_delete(s);
}

TEST_F(StitchSession, ABlurredFrameIsReportedWhereItLiesButNotDrawn) {
  const cv::Mat scene = vtest::texturedScene(1110, 1282, 4);
  Host host;
  VantixStitch* s = make(host, 320, 240, 2);
  vantix_stitch_start(s);
  pushAndWait(host, s, scene(cv::Rect(500, 500, 320, 240)).clone());
  cv::Mat blurred;
  cv::GaussianBlur(scene(cv::Rect(560, 530, 320, 240)), blurred, cv::Size(0, 0), 2.5);
  pushAndWait(host, s, blurred);
  VantixImageHeader* pano = vantix_stitch_stop(s, 1, 0);
  ASSERT_NE(pano, nullptr);
  const FrameCall call = host.frameList().at(1);
  EXPECT_EQ(call.mode, 4u);
  EXPECT_NEAR(call.x, 640 + 60, 1);
  EXPECT_NEAR(call.y, 480 + 30, 1);
  // The part of the canvas only the blurred frame would have covered is
  // still the black background, and the crop rectangle ignores the frame.
  const cv::Mat canvas(pano->biHeight, pano->biWidth, CV_8UC3, reinterpret_cast<uint8_t*>(pano) + 40,
                       static_cast<size_t>(pano->biWidth) * 3);
  EXPECT_EQ(cv::countNonZero(canvas(cv::Rect(960, 720, 60, 30)).reshape(1)), 0);
  uint32_t x, y, w, h;
  vantix_stitch_cropparams(s, &x, &y, &w, &h);
  EXPECT_EQ(cv::Rect(x, y, w, h), cv::Rect(640, 480, 320, 240));
  std::free(pano);
  vantix_stitch_delete(s);
}

}  // namespace
