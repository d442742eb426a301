// Live stitching against ground truth: a simulated scan over a large real
// image (the testing kit's stage scan) is pushed through the exported stitch
// functions, and the placements, the covered area, the tracking events, the
// motion-blurred frames left undrawn and the panorama are compared with what
// the simulator knows.

#include <utility>

#include "support/sessions.h"

namespace {

struct Call {
  cv::Point position;  // on the canvas of its time
  uint32_t mode;
  cv::Size canvas;
};

// Positions in the coordinates of the final canvas.  Growth to the left or
// upwards moves the earlier content by the growth step; a call whose canvas
// grew did so to the left (or up) when undoing the step brings it next to
// the previous placement.
std::vector<cv::Point> finalCanvasPositions(const std::vector<Call>& calls) {
  std::vector<cv::Point> shiftAt(calls.size()), positions(calls.size());
  cv::Point shift(0, 0), last = calls[0].position;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (i > 0) {
      const cv::Point grown(calls[i].canvas.width - calls[i - 1].canvas.width,
                            calls[i].canvas.height - calls[i - 1].canvas.height);
      const cv::Point p = calls[i].position;
      if (grown.x > 0 && std::abs(p.x - grown.x - last.x) < std::abs(p.x - last.x)) {
        shift.x += grown.x, last.x += grown.x;
      }
      if (grown.y > 0 && std::abs(p.y - grown.y - last.y) < std::abs(p.y - last.y)) {
        shift.y += grown.y, last.y += grown.y;
      }
    }
    shiftAt[i] = shift;
    if (calls[i].mode == 1) last = calls[i].position;
  }
  for (size_t i = 0; i < calls.size(); ++i) positions[i] = calls[i].position + shift - shiftAt[i];
  return positions;
}

double psnrOver(const cv::Mat& a, const cv::Mat& b, const cv::Mat& mask) {
  cv::Mat diff;
  cv::absdiff(a, b, diff);
  diff.convertTo(diff, CV_32F);
  diff = diff.mul(diff);
  const cv::Scalar sum = cv::sum(diff.setTo(cv::Scalar::all(0), ~mask));
  const double mse = (sum[0] + sum[1] + sum[2]) / (3.0 * std::max(1, cv::countNonZero(mask)));
  return 10.0 * std::log10(255.0 * 255.0 / std::max(mse, 1e-12));
}

// A scan short enough for the sanitizers keeps the jump, the pause and a
// growth to the left.
TEST(StitchAccuracy, ScanAgainstTruePositions) {
  vtest::ScanOptions options;  // 640 x 480
  if (vtest::scaled(4) < 4) options.rows = 2;
  const cv::Mat world = vtest::scanScene();
  const vtest::ScanSimulator scan(world, options);
  const cv::Size size = scan.frameSize();
  vantix::init();
  std::mutex m;
  std::condition_variable reported;
  std::vector<Call> calls;
  std::vector<std::pair<uint32_t, size_t>> events;  // (code, frames reported before it)
  vantix::StitchSession session(
      size.width, size.height,
      [&](const vantix::StitchFrame& f) {
        std::lock_guard<std::mutex> lock(m);
        calls.push_back({{f.x, f.y}, f.mode, cv::Size(int(f.canvasWidth), int(f.canvasHeight))});
        reported.notify_all();
      },
      [&](uint32_t code) {
        std::lock_guard<std::mutex> lock(m);
        events.emplace_back(code, calls.size());
      },
      VANTIX_FORMAT_BGR8, 2 /* black */);
  session.start();
  // The ideal panorama in scene coordinates: every placed frame pasted at its
  // true place rounded to whole pixels, as a perfect registration would.
  cv::Mat ideal(world.size(), CV_8UC3, cv::Scalar::all(0));
  cv::Mat scanned(world.size(), CV_8U, cv::Scalar(0));
  size_t awayFrom = SIZE_MAX, awayTo = 0, blurredPlaced = 0;
  for (size_t i = 0; i < scan.frameCount(); ++i) {
    const cv::Mat frame = scan.render(i);
    session.pushback(frame.data, size.width, size.height, static_cast<uint32_t>(frame.step));
    // One frame at a time, so that the n-th report is the n-th frame.
    std::unique_lock<std::mutex> lock(m);
    reported.wait(lock, [&] { return calls.size() > i; });
    const vtest::ScanTruth& t = scan.truth(i);
    const cv::Rect where(cv::Point(cvRound(t.position.x), cvRound(t.position.y)), size);
    if (t.away) awayFrom = std::min(awayFrom, i), awayTo = i;
    blurredPlaced += !t.away && t.blurLength >= 15 && calls[i].mode == 1;
    if (!t.away) scanned(where).setTo(255);
    if (calls[i].mode == 1) frame.copyTo(ideal(where));
  }
  const vantix::Image panorama = session.stop(true, false);
  ASSERT_NE(panorama, nullptr);
  ASSERT_EQ(calls.size(), scan.frameCount());

  // Placement errors, the panorama's frame of reference anchored on the first
  // frame (whole pixels in both).
  const std::vector<cv::Point> positions = finalCanvasPositions(calls);
  const cv::Point2d offset = cv::Point2d(positions[0]) - scan.truth(0).position;
  double errorSum = 0, maxError = 0;
  size_t placed = 0;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].mode != 1) continue;
    const double error = cv::norm(cv::Point2d(positions[i]) - (scan.truth(i).position + offset));
    ++placed;
    errorSum += error;
    maxError = std::max(maxError, error);
  }
  // The panorama as the host got it, in scene coordinates.
  EXPECT_EQ(cv::Size(panorama->biWidth, panorama->biHeight), calls.back().canvas);
  const cv::Mat canvas = vtest::pixels(panorama);
  const cv::Point o(cvRound(offset.x), cvRound(offset.y));
  const cv::Rect inScene =
      cv::Rect(-o.x, -o.y, canvas.cols, canvas.rows) & cv::Rect(0, 0, world.cols, world.rows);
  cv::Mat mosaic(world.size(), CV_8UC3, cv::Scalar::all(0)), grey;
  canvas(inScene + o).copyTo(mosaic(inScene));
  cv::transform(mosaic, grey, cv::Matx13f(1, 1, 1));
  const cv::Mat both = scanned & (grey > 0);  // scanned and covered (not black)
  const double coverage = cv::countNonZero(both) / double(cv::countNonZero(scanned));
  const double psnr = psnrOver(mosaic, world, both), idealPsnr = psnrOver(ideal, world, both);

  // Tracking lost during the jump away and regained soon after the return,
  // never lost elsewhere; the canvas grew.
  size_t lostAt = SIZE_MAX, regainedAt = SIZE_MAX;
  int growths = 0;
  for (const auto& [code, at] : events) {
    growths += code == VANTIX_STITCH_EVENT_CANVAS_GREW;
    if (code == VANTIX_STITCH_EVENT_TRACKING_LOST) {
      EXPECT_TRUE(at >= awayFrom && at <= awayTo) << "tracking lost at frame " << at;
      lostAt = std::min(lostAt, at);
    }
    if (code == VANTIX_STITCH_EVENT_TRACKING_REGAINED && lostAt != SIZE_MAX) {
      regainedAt = std::min(regainedAt, at);
    }
  }
  std::printf("[ scan     ] %zu frames, %zu placed; error mean %.2f px, max %.2f px; coverage "
              "%.1f %%; PSNR %.2f dB (ideal paste %.2f dB)\n",
              calls.size(), placed, errorSum / placed, maxError, 100 * coverage, psnr, idealPsnr);
  EXPECT_GT(placed, scan.frameCount() / 2);
  EXPECT_LE(errorSum / placed, 1.0);
  EXPECT_LE(maxError, 3.0);
  EXPECT_GE(coverage, 0.95);
  EXPECT_GE(psnr, idealPsnr - 1.0);
  EXPECT_NE(lostAt, SIZE_MAX) << "no tracking-lost event during the jump";
  EXPECT_LE(regainedAt, awayTo + 15) << "regained only long after the return";
  EXPECT_GE(growths, 1);
  EXPECT_EQ(blurredPlaced, 0u) << "frames smeared by 15 px or more were drawn";
}

}  // namespace
