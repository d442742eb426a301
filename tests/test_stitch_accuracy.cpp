// Live stitching against ground truth: a simulated scan over a large real
// image (tests/support/stitch_scan.h) is pushed through the exported stitch
// functions, and the placements, the covered area, the tracking events and
// the panorama are compared with what the simulator knows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "support/stitch_scan.h"

namespace {

const cv::Mat& scene() {
  static const cv::Mat image = [] {
    try {
      return vscan::makeScene();
    } catch (const std::exception& e) {
      ADD_FAILURE() << e.what();
      return cv::Mat();
    }
  }();
  return image;
}

// Bilinear sample of one channel of the scene, computed here from the
// definition rather than by OpenCV.
double bilinear(const cv::Mat& image, double x, double y, int channel) {
  const int x0 = static_cast<int>(std::floor(x)), y0 = static_cast<int>(std::floor(y));
  const double ax = x - x0, ay = y - y0;
  const auto at = [&](int yy, int xx) { return image.at<cv::Vec3b>(yy, xx)[channel]; };
  return (1 - ay) * ((1 - ax) * at(y0, x0) + ax * at(y0, x0 + 1)) +
         ay * ((1 - ax) * at(y0 + 1, x0) + ax * at(y0 + 1, x0 + 1));
}

// ---------------------------------------------------------------------------
// The simulator itself: its truth must be right before it can judge anything
// ---------------------------------------------------------------------------

TEST(ScanSimulator, FramesShowTheSceneAtTheirTruePosition) {
  ASSERT_FALSE(scene().empty());
  vscan::ScanOptions options = vscan::scanOptions640();
  options.noiseSigma = 0;
  options.gainAmplitude = 0;
  options.blurEvery = 0;
  const vscan::ScanSimulator scan(scene(), options);
  cv::RNG rng(5);
  int checked = 0;
  for (size_t index = 0; index < scan.frameCount(); index += 37) {
    const cv::Point2d p = scan.truth(index).position;
    const cv::Mat frame = scan.render(index);
    ASSERT_EQ(frame.size(), options.frame);
    ASSERT_EQ(frame.type(), CV_8UC3);
    // Mean error at the true position, and at positions half a pixel off:
    // the first must be at the level of rounding, the others clearly larger.
    double error = 0, errorOff = 0;
    constexpr int kSamples = 400;
    for (int n = 0; n < kSamples; ++n) {
      const int x = rng.uniform(0, frame.cols), y = rng.uniform(0, frame.rows), c = n % 3;
      const double value = frame.at<cv::Vec3b>(y, x)[c];
      error += std::abs(value - bilinear(scene(), p.x + x, p.y + y, c));
      errorOff += std::abs(value - bilinear(scene(), p.x + x + 0.5, p.y + y - 0.5, c));
    }
    SCOPED_TRACE(index);
    EXPECT_LT(error / kSamples, 0.8);
    EXPECT_GT(errorOff, 2.5 * error);
    ++checked;
  }
  EXPECT_GE(checked, 8);
}

TEST(ScanSimulator, ScanHasTheMotionItPromises) {
  ASSERT_FALSE(scene().empty());
  for (const vscan::ScanOptions& options : {vscan::scanOptions640(), vscan::scanOptions720()}) {
    const vscan::ScanSimulator scan(scene(), options);
    SCOPED_TRACE(options.frame.width);
    int paused = 0, blurred = 0, away = 0, fastest = 0;
    double minSpeed = 1e9;
    size_t departure = 0;
    for (size_t i = 1; i < scan.frameCount(); ++i) {
      const vscan::ScanTruth& t = scan.truth(i);
      const double speed = cv::norm(t.motion);
      if (t.away) {
        if (away++ == 0) departure = i - 1;
        continue;
      }
      if (scan.truth(i - 1).away) {
        // The scan resumes where it left off.
        EXPECT_LT(cv::norm(t.position - scan.truth(departure).position), 61.0);
        continue;
      }
      paused += t.paused;
      blurred += t.blurLength > 0;
      fastest = std::max(fastest, static_cast<int>(speed));
      if (speed > 0) minSpeed = std::min(minSpeed, speed);
      EXPECT_LE(speed, 60.0 + 1e-9) << i;
    }
    EXPECT_GE(paused, 8);
    EXPECT_GE(blurred, 8);
    EXPECT_GE(fastest, 55);
    EXPECT_LE(minSpeed, 3.0);
    // The jump lands where no frame overlaps the one it left.
    ASSERT_GE(away, 20);
    const cv::Rect2d from(scan.truth(departure).position, cv::Size2d(options.frame));
    for (size_t i = departure + 3; i < departure + away - 1; ++i) {
      const cv::Rect2d there(scan.truth(i).position, cv::Size2d(options.frame));
      EXPECT_EQ((from & there).area(), 0.0) << i;
    }
  }
}

TEST(ScanSimulator, NoiseAndDriftLeaveTheTruthMeasurable) {
  // Phase correlation of consecutive sharp frames (an estimator independent
  // of the library) recovers the simulator's motion to a fraction of a pixel.
  ASSERT_FALSE(scene().empty());
  const vscan::ScanSimulator scan(scene(), vscan::scanOptions640());
  cv::Mat previous;
  int compared = 0;
  for (size_t i = 0; i < 120; ++i) {
    cv::Mat grey;
    cv::cvtColor(scan.render(i), grey, cv::COLOR_BGR2GRAY);
    grey.convertTo(grey, CV_32F);
    const vscan::ScanTruth& t = scan.truth(i);
    if (!previous.empty() && !t.away && !scan.truth(i - 1).away && t.blurLength == 0 &&
        scan.truth(i - 1).blurLength == 0) {
      // phaseCorrelate(a, b) gives the shift of b's content relative to a's;
      // a camera moving by +m sees the content move by -m.
      const cv::Point2d shift = cv::phaseCorrelate(previous, grey);
      EXPECT_LT(cv::norm(shift + t.motion), 0.25) << i << " motion " << t.motion;
      ++compared;
    }
    previous = grey;
  }
  EXPECT_GE(compared, 60);
}

}  // namespace
