// Live stitching against ground truth: a simulated scan over a large real
// image (the testing kit's stage scan) is pushed through the exported stitch
// functions, and the placements, the covered area, the tracking events and
// the panorama are compared with what the simulator knows.
#include <gtest/gtest.h>

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "testing/scenes.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define STITCH_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define STITCH_SANITIZED 1
#endif
#endif

namespace {

const cv::Mat& scene() {
  static const cv::Mat image = [] {
    try {
      return vtest::scanScene();
    } catch (const std::exception& e) {
      ADD_FAILURE() << e.what();
      return cv::Mat();
    }
  }();
  return image;
}

void* hostAllocate(uint64_t bytes) { return std::malloc(static_cast<size_t>(bytes)); }

// What the session told the host, and the feeding of one frame at a time: the
// next frame is handed over from inside onFrame when it is ready by then, so
// that the worker finds it without an idle pass (pushing from a callback is
// allowed; only stop and delete are not).
struct Recorder {
  struct Call {
    cv::Point position;  // canvas position of the frame
    uint32_t mode = 0;
    cv::Size canvas;
  };
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<Call> calls;
  std::vector<std::pair<uint32_t, size_t>> events;  // (code, frames reported before it)
  VantixStitch* session = nullptr;
  cv::Mat staged;  // the frame to push after the next report
  bool pushFailed = false;

  static void onFrame(void* context, const uint8_t*, uint32_t, uint32_t canvasWidth,
                      uint32_t canvasHeight, uint32_t, uint32_t, uint32_t, int32_t x, int32_t y,
                      uint32_t mode, uint32_t, uint32_t, float) {
    auto* self = static_cast<Recorder*>(context);
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      self->calls.push_back({cv::Point(x, y), mode,
                             cv::Size(static_cast<int>(canvasWidth), static_cast<int>(canvasHeight))});
      if (!self->staged.empty()) self->pushLocked();
    }
    self->arrived.notify_all();
  }
  static void onEvent(void* context, uint32_t code) {
    auto* self = static_cast<Recorder*>(context);
    std::lock_guard<std::mutex> lock(self->mutex);
    self->events.emplace_back(code, self->calls.size());
  }
  void pushLocked() {
    pushFailed |= vantix_stitch_pushback(session, staged.data, static_cast<uint32_t>(staged.cols),
                                         static_cast<uint32_t>(staged.rows), 24,
                                         static_cast<uint32_t>(staged.step)) != VANTIX_S_OK;
    staged.release();
  }
  // Pushes frame number `index` now when frame index - 1 has been reported,
  // else leaves it for onFrame.
  void feed(size_t index, const cv::Mat& frame) {
    std::lock_guard<std::mutex> lock(mutex);
    staged = frame;
    if (calls.size() >= index) pushLocked();
  }
  void waitForCalls(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait(lock, [&] { return calls.size() >= count; });
  }
};

// Positions of the frames in the coordinates of the final canvas.  Growth to
// the left or upwards moves the earlier content by the growth step; the calls
// report positions in the canvas of their time.  A call whose canvas is
// larger than the one before grew it; it grew to the left (or up) when
// undoing the step brings it next to the previous placement, and to the
// right (or down) otherwise.
std::vector<cv::Point> finalCanvasPositions(const std::vector<Recorder::Call>& calls) {
  std::vector<cv::Point> shiftAt(calls.size());
  cv::Point shift(0, 0);
  cv::Point last = calls.empty() ? cv::Point() : calls[0].position;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (i > 0) {
      const cv::Size before = calls[i - 1].canvas, now = calls[i].canvas;
      const cv::Point grown(now.width - before.width, now.height - before.height);
      const cv::Point p = calls[i].position;
      if (grown.x > 0 && std::abs(p.x - grown.x - last.x) < std::abs(p.x - last.x)) {
        shift.x += grown.x;
        last.x += grown.x;
      }
      if (grown.y > 0 && std::abs(p.y - grown.y - last.y) < std::abs(p.y - last.y)) {
        shift.y += grown.y;
        last.y += grown.y;
      }
    }
    shiftAt[i] = shift;
    if (calls[i].mode == 1) last = calls[i].position;
  }
  std::vector<cv::Point> positions(calls.size());
  for (size_t i = 0; i < calls.size(); ++i) positions[i] = calls[i].position + (shift - shiftAt[i]);
  return positions;
}

struct ScanOutcome {
  size_t frames = 0, placed = 0;
  double meanError = 0, maxError = 0;
  size_t worstFrame = 0;
  double coverage = 0;
  double psnr = 0, idealPsnr = 0;
  size_t lostAt = SIZE_MAX, regainedAt = SIZE_MAX;  // first 7, first 8 after it
  std::vector<size_t> otherLosses;                  // 7 outside the jump
  int growths = 0;
};

double psnrOver(const cv::Mat& a, const cv::Mat& b, const cv::Mat& mask) {
  cv::Mat diff;
  cv::absdiff(a, b, diff);
  diff.convertTo(diff, CV_32F);
  diff = diff.mul(diff);
  const cv::Scalar sum = cv::sum(diff.setTo(cv::Scalar::all(0), ~mask));
  const double pixels = cv::countNonZero(mask);
  const double mse = (sum[0] + sum[1] + sum[2]) / (3.0 * std::max(1.0, pixels));
  return 10.0 * std::log10(255.0 * 255.0 / std::max(mse, 1e-12));
}

// First and last frame of the jump away from the scene.
std::pair<size_t, size_t> awaySpan(const vtest::ScanSimulator& scan) {
  size_t from = SIZE_MAX, to = 0;
  for (size_t i = 0; i < scan.frameCount(); ++i) {
    if (scan.truth(i).away) from = std::min(from, i), to = i;
  }
  return {from, to};
}

void stitchScan(const vtest::ScanSimulator& scan, ScanOutcome& outcome) {
  const cv::Size frameSize = scan.frameSize();
  vantix_init(&hostAllocate);
  Recorder recorder;
  VantixStitch* session =
      vantix_stitch_new(0, static_cast<uint32_t>(frameSize.width),
                        static_cast<uint32_t>(frameSize.height), 2 /* black */,
                        &Recorder::onFrame, &Recorder::onEvent, &recorder);
  EXPECT_NE(session, nullptr);
  if (session == nullptr) return;
  vantix_stitch_start(session);

  // The ideal panorama, in scene coordinates: every placed frame pasted at
  // its true place rounded to whole pixels, as a perfect registration on a
  // pixel grid would.
  const cv::Mat& world = scene();
  cv::Mat ideal(world.size(), CV_8UC3, cv::Scalar::all(0));
  cv::Mat scanned(world.size(), CV_8U, cv::Scalar(0));
  recorder.session = session;
  cv::Mat previous;
  for (size_t i = 0; i <= scan.frameCount(); ++i) {
    // Frame i is made while the worker still processes frame i - 1.
    cv::Mat frame;
    if (i < scan.frameCount()) {
      frame = scan.render(i);
      recorder.feed(i, frame);
    }
    if (i == 0) {
      previous = frame;
      continue;
    }
    // One frame at a time, so that the n-th report is the n-th frame.
    recorder.waitForCalls(i);
    const vtest::ScanTruth& t = scan.truth(i - 1);
    const cv::Rect where(cvRound(t.position.x), cvRound(t.position.y), frameSize.width,
                         frameSize.height);
    if (!t.away) scanned(where).setTo(255);
    std::lock_guard<std::mutex> lock(recorder.mutex);
    if (recorder.calls[i - 1].mode == 1) previous.copyTo(ideal(where));
    previous = frame;
  }
  VantixImageHeader* panorama = vantix_stitch_stop(session, 1, 0);
  vantix_stitch_delete(session);
  EXPECT_FALSE(recorder.pushFailed);
  ASSERT_NE(panorama, nullptr);
  const std::vector<Recorder::Call> calls = recorder.calls;
  const auto events = recorder.events;
  outcome.frames = calls.size();
  ASSERT_GE(calls.size(), 1u);

  // Placement errors after anchoring the panorama's frame of reference on the
  // first frame (whole pixels in both).
  const std::vector<cv::Point> positions = finalCanvasPositions(calls);
  const cv::Point2d offset = cv::Point2d(positions[0]) - scan.truth(0).position;
  double errorSum = 0;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].mode != 1) continue;
    const double error = cv::norm(cv::Point2d(positions[i]) - (scan.truth(i).position + offset));
    ++outcome.placed;
    errorSum += error;
    if (error > outcome.maxError) {
      outcome.maxError = error;
      outcome.worstFrame = i;
    }
  }
  outcome.meanError = errorSum / std::max<size_t>(1, outcome.placed);

  // The panorama as the host got it: whole canvas, 24 bits, rows in canvas order.
  EXPECT_EQ(panorama->biBitCount, 24);
  EXPECT_EQ(cv::Size(panorama->biWidth, panorama->biHeight), calls.back().canvas);
  const size_t stride = ((static_cast<size_t>(panorama->biWidth) * 24 + 31) >> 3) & ~size_t(3);
  const cv::Mat canvas(panorama->biHeight, panorama->biWidth, CV_8UC3,
                       reinterpret_cast<uint8_t*>(panorama) + 40, stride);
  // Scene rectangle seen by the canvas.
  const cv::Point o(cvRound(offset.x), cvRound(offset.y));
  const cv::Rect inScene = cv::Rect(-o.x, -o.y, canvas.cols, canvas.rows) &
                           cv::Rect(0, 0, world.cols, world.rows);
  cv::Mat mosaic(world.size(), CV_8UC3, cv::Scalar::all(0));
  canvas(inScene + o).copyTo(mosaic(inScene));
  cv::Mat grey;  // non-black: covered by the canvas
  cv::transform(mosaic, grey, cv::Matx13f(1, 1, 1));
  const cv::Mat both = scanned & (grey > 0);
  outcome.coverage = cv::countNonZero(both) / std::max(1.0, double(cv::countNonZero(scanned)));
  outcome.psnr = psnrOver(mosaic, world, both);
  outcome.idealPsnr = psnrOver(ideal, world, both);
  std::free(panorama);

  // Events: tracking lost during the jump, regained after it.
  const auto [awayFrom, awayTo] = awaySpan(scan);
  for (const auto& [code, at] : events) {
    if (code == VANTIX_STITCH_EVENT_CANVAS_GREW) ++outcome.growths;
    if (code == VANTIX_STITCH_EVENT_TRACKING_LOST) {
      if (outcome.lostAt == SIZE_MAX && at >= awayFrom && at <= awayTo) {
        outcome.lostAt = at;
      } else {
        outcome.otherLosses.push_back(at);
      }
    }
    if (code == VANTIX_STITCH_EVENT_TRACKING_REGAINED && outcome.lostAt != SIZE_MAX &&
        outcome.regainedAt == SIZE_MAX) {
      outcome.regainedAt = at;
    }
  }
}

void checkScan(const vtest::ScanOptions& options) {
  ASSERT_FALSE(scene().empty());
  const vtest::ScanSimulator scan(scene(), options);
  ScanOutcome r;
  stitchScan(scan, r);
  const auto [awayFrom, awayTo] = awaySpan(scan);
  std::printf(
      "[ scan     ] %dx%d: %zu frames, %zu placed; position error mean %.2f px, max %.2f px "
      "(frame %zu); coverage %.1f %%; PSNR %.2f dB (ideal paste %.2f dB); lost at %zd, "
      "regained at %zd (jump %zu..%zu); %d growths\n",
      options.frame.width, options.frame.height, r.frames, r.placed, r.meanError, r.maxError,
      r.worstFrame, 100 * r.coverage, r.psnr, r.idealPsnr,
      r.lostAt == SIZE_MAX ? ssize_t(-1) : ssize_t(r.lostAt),
      r.regainedAt == SIZE_MAX ? ssize_t(-1) : ssize_t(r.regainedAt), awayFrom, awayTo,
      r.growths);
  EXPECT_EQ(r.frames, scan.frameCount());
  EXPECT_GT(r.placed, scan.frameCount() / 2);
  EXPECT_LE(r.meanError, 1.0);
  EXPECT_LE(r.maxError, 3.0) << "worst at frame " << r.worstFrame;
  EXPECT_GE(r.coverage, 0.95);
  EXPECT_GE(r.psnr, r.idealPsnr - 1.0);
  EXPECT_NE(r.lostAt, SIZE_MAX) << "no tracking-lost event during the jump";
  EXPECT_NE(r.regainedAt, SIZE_MAX) << "tracking not regained after the jump";
  EXPECT_LE(r.regainedAt, awayTo + 15) << "regained only long after the return";
  for (size_t at : r.otherLosses) ADD_FAILURE() << "tracking lost at frame " << at << ", away from the jump";
  EXPECT_GE(r.growths, 1);
}

// Shorter scans under the sanitizers keep the run short; the jump, the pause
// and a growth to the left stay in.
TEST(StitchAccuracy, Scan640x480) {
  vtest::ScanOptions options = vtest::scanOptions640();
#ifdef STITCH_SANITIZED
  options.rows = 2;
#endif
  checkScan(options);
}

TEST(StitchAccuracy, Scan1280x720) {
  vtest::ScanOptions options = vtest::scanOptions720();
#ifdef STITCH_SANITIZED
  options.rows = 1;
  options.pauseAt = 62;
#endif
  checkScan(options);
}

}  // namespace
