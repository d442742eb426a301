// The simulated camera's own ground truth: pixel output, pan positions,
// focus sweep and laser spots.  Later features are tested against these
// frames, so the simulator has to be right first.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "support/test_support.h"
#include "tools/simcam/simcam_loader.h"

namespace {

const SimcamApi& sim() {
  static const SimcamApi api = [] {
    SimcamApi a;
    void* handle = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    if (!simcam_load_api(handle, &a)) ADD_FAILURE() << "cannot load the simulator";
    return a;
  }();
  return api;
}

struct Camera {
  SimcamCamera* cam;
  Camera(uint32_t w, uint32_t h) : cam(sim().open(w, h)) {}
  ~Camera() { sim().close(cam); }
  operator SimcamCamera*() const { return cam; }
};

// Renders frame `index` as a matrix of `type` (rows at the default pitch).
cv::Mat frame(SimcamCamera* cam, uint32_t index, int32_t bits, int type, cv::Size size) {
  const uint32_t pitch = sim().defaultPitch(size.width, bits);
  std::vector<uint8_t> buffer(static_cast<size_t>(pitch) * size.height);
  EXPECT_EQ(sim().render(cam, index, buffer.data(), bits, 0), 0);
  return cv::Mat(size, type, buffer.data(), pitch).clone();
}

double maxDiff(const cv::Mat& a, const cv::Mat& b) {
  return cv::norm(a, b, cv::NORM_INF);
}

TEST(Simcam, PixelOutputByBitsAndPitch) {
  const cv::Size size(13, 5);
  const cv::Mat image = vtest::randomImage(size.height, size.width, CV_8UC3, 7);
  Camera cam(13, 5);
  ASSERT_EQ(sim().setStill(cam, image.data, 13, 5, static_cast<uint32_t>(image.step)), 0);

  cv::Mat grey, grey12, bgra, bgr48, bgra64;
  cv::cvtColor(image, grey, cv::COLOR_BGR2GRAY);
  grey.convertTo(grey12, CV_16U, 4095.0 / 255.0);
  cv::cvtColor(image, bgra, cv::COLOR_BGR2BGRA);
  image.convertTo(bgr48, CV_16UC3, 257);
  bgra.convertTo(bgra64, CV_16UC4, 257);
  EXPECT_EQ(maxDiff(frame(cam, 0, 8, CV_8U, size), grey), 0);
  EXPECT_EQ(maxDiff(frame(cam, 0, 16, CV_16U, size), grey12), 0);
  EXPECT_EQ(maxDiff(frame(cam, 0, 24, CV_8UC3, size), image), 0);
  EXPECT_EQ(maxDiff(frame(cam, 0, 32, CV_8UC4, size), bgra), 0);
  EXPECT_EQ(maxDiff(frame(cam, 0, 48, CV_16UC3, size), bgr48), 0);
  EXPECT_EQ(maxDiff(frame(cam, 0, 64, CV_16UC4, size), bgra64), 0);

  // Default pitch pads to 4 bytes; padding and bytes past the frame stay untouched.
  EXPECT_EQ(sim().defaultPitch(13, 24), 40u);
  EXPECT_EQ(sim().defaultPitch(13, 8), 16u);
  std::vector<uint8_t> buffer(60 * 5 + 8, 0xCD);
  ASSERT_EQ(sim().render(cam, 0, buffer.data(), 24, 60), 0);
  for (int y = 0; y < 5; ++y) {
    EXPECT_EQ(std::memcmp(&buffer[y * 60], image.ptr(y), 39), 0);
    for (int i = 39; i < 60; ++i) EXPECT_EQ(buffer[y * 60 + i], 0xCD);
  }
  EXPECT_EQ(buffer.back(), 0xCD);

  // Unsupported bits and too short or negative pitches fail without writing.
  std::vector<uint8_t> untouched(buffer.size(), 0xEE);
  EXPECT_EQ(sim().render(cam, 0, untouched.data(), 12, 0), SIMCAM_E_INVALIDARG);
  EXPECT_EQ(sim().render(cam, 0, untouched.data(), 24, 38), SIMCAM_E_INVALIDARG);
  EXPECT_EQ(sim().render(cam, 0, untouched.data(), 24, -1), SIMCAM_E_INVALIDARG);
  EXPECT_EQ(sim().frameBytes(cam, 12, 0), 0u);
  EXPECT_EQ(std::count(untouched.begin(), untouched.end(), 0xEE),
            static_cast<long>(untouched.size()));
}

TEST(Simcam, PanFollowsThePathWithSubPixelSampling) {
  const cv::Mat scene = vtest::smoothScene(60, 80, CV_8UC3);
  Camera cam(32, 24);
  const SimcamPoint path[] = {{0, 0}, {10.5, 3.25}, {100, -100}};
  ASSERT_EQ(sim().setPan(cam, scene.data, 80, 60, static_cast<uint32_t>(scene.step), path, 3, 4),
            0);
  const auto position = [&](uint32_t i) {
    SimcamPoint p{};
    EXPECT_EQ(sim().panPosition(cam, i, &p), 0);
    return p;
  };
  EXPECT_DOUBLE_EQ(position(1).x, 2.625);
  EXPECT_DOUBLE_EQ(position(1).y, 0.8125);
  EXPECT_DOUBLE_EQ(position(4).x, 10.5);
  EXPECT_DOUBLE_EQ(position(5).x, 10.5 + 0.25 * 89.5);  // inside the scene
  EXPECT_DOUBLE_EQ(position(5).y, 0.0);                 // clamped
  EXPECT_DOUBLE_EQ(position(8).x, 48.0);                // end of path, clamped
  EXPECT_DOUBLE_EQ(position(500).x, 48.0);

  // The path's positions are multiples of 1/32 pixel, which the bilinear
  // warp of the image library reproduces exactly (up to rounding).
  for (uint32_t i : {0u, 1u, 5u, 8u}) {
    const SimcamPoint p = position(i);
    const cv::Matx23d shift(1, 0, p.x, 0, 1, p.y);
    cv::Mat expected;
    cv::warpAffine(scene, expected, shift, {32, 24}, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                   cv::BORDER_REPLICATE);
    EXPECT_LE(maxDiff(frame(cam, i, 24, CV_8UC3, {32, 24}), expected), 1) << "frame " << i;
  }
  EXPECT_EQ(sim().setPan(cam, scene.data, 31, 60, static_cast<uint32_t>(scene.step), path, 3, 4),
            SIMCAM_E_INVALIDARG);  // scene narrower than the frame
}

TEST(Simcam, FocusSweepHasEveryPixelSharpSomewhere) {
  const cv::Mat sharp = vtest::randomImage(48, 64, CV_8UC3, 3);
  Camera cam(64, 48);
  const uint32_t frames = 5;
  ASSERT_EQ(
      sim().setFocusSweep(cam, sharp.data, 64, 48, static_cast<uint32_t>(sharp.step), frames, 4.0),
      0);
  std::vector<cv::Mat> stack;
  for (uint32_t i = 0; i < frames; ++i) stack.push_back(frame(cam, i, 24, CV_8UC3, {64, 48}));
  EXPECT_EQ(maxDiff(frame(cam, frames + 2, 24, CV_8UC3, {64, 48}), stack[2]), 0);  // wraps

  // Every pixel is exactly the sharp image where it is in focus; pixels far
  // from the first focus plane are heavily blurred in the first frame.
  double lowest = 1, highest = 0, blurredError = 0;
  int blurred = 0;
  for (uint32_t y = 0; y < 48; ++y) {
    for (uint32_t x = 0; x < 64; ++x) {
      const double depth = sim().focusDepth(cam, x, y);
      lowest = std::min(lowest, depth);
      highest = std::max(highest, depth);
      int sharpFrames = 0;
      for (uint32_t i = 0; i < frames; ++i) {
        if (sim().focusSigma(cam, i, x, y) != 0) continue;
        ++sharpFrames;
        ASSERT_EQ(stack[i].at<cv::Vec3b>(y, x), sharp.at<cv::Vec3b>(y, x)) << x << "," << y;
      }
      ASSERT_GE(sharpFrames, 1) << x << "," << y;
      if (sim().focusSigma(cam, 0, x, y) >= 3) {
        ++blurred;
        blurredError +=
            cv::norm(stack[0].at<cv::Vec3b>(y, x), sharp.at<cv::Vec3b>(y, x), cv::NORM_L1) / 3;
      }
    }
  }
  EXPECT_DOUBLE_EQ(lowest, 0.0);
  EXPECT_DOUBLE_EQ(highest, 1.0);
  EXPECT_DOUBLE_EQ(sim().focusSigma(cam, frames - 1, 0, 0), 4.0);  // the near corner
  ASSERT_GT(blurred, 100);
  EXPECT_GT(blurredError / blurred, 20.0);
}

TEST(Simcam, SpotMomentsMatchTheTruth) {
  Camera cam(96, 80);
  SimcamSpot spot{};
  spot.centerX = 48.3;
  spot.centerY = 40.7;
  spot.sigmaX = 6;
  spot.sigmaY = 3;
  spot.angle = 30;
  spot.peak = 0.8;
  spot.orbitRadius = 5;
  spot.orbitPeriod = 8;
  spot.breathAmplitude = 0.2;
  spot.breathPeriod = 16;
  ASSERT_EQ(sim().setSpot(cam, &spot, 0.05, 0.0, 1), 0);
  ASSERT_EQ(sim().setRawBits(cam, 16), 0);

  SimcamSpotTruth t{};
  ASSERT_EQ(sim().spotTruth(cam, 2, 0, &t), 0);  // a quarter turn, half a breath up
  EXPECT_NEAR(t.centerX, 48.3, 1e-9);
  EXPECT_NEAR(t.centerY, 45.7, 1e-9);
  EXPECT_NEAR(t.sigmaX, 6 * (1 + 0.2 * std::sin(3.14159265358979 / 4)), 1e-9);

  for (uint32_t i : {0u, 2u, 5u}) {
    ASSERT_EQ(sim().spotTruth(cam, i, 0, &t), 0);
    cv::Mat image;
    frame(cam, i, 16, CV_16U, {96, 80}).convertTo(image, CV_64F, 1.0 / 65535);
    image -= std::round(0.05 * 65535) / 65535;  // the background as delivered
    const cv::Moments m = cv::moments(image);
    const double cx = m.m10 / m.m00, cy = m.m01 / m.m00;
    const double xx = m.mu20 / m.m00, yy = m.mu02 / m.m00, xy = m.mu11 / m.m00;
    const double mean = (xx + yy) / 2, spread = std::hypot((xx - yy) / 2, xy);
    EXPECT_NEAR(cx, t.centerX, 0.01) << i;
    EXPECT_NEAR(cy, t.centerY, 0.01) << i;
    EXPECT_NEAR(std::sqrt(mean + spread), t.sigmaX, 0.01) << i;
    EXPECT_NEAR(std::sqrt(mean - spread), t.sigmaY, 0.01) << i;
    EXPECT_NEAR(0.5 * std::atan2(2 * xy, xx - yy) * 180 / 3.14159265358979, 30.0, 0.1) << i;
  }

  // Noise repeats for the same frame and differs between frames.
  ASSERT_EQ(sim().setSpot(cam, &spot, 0.3, 0.02, 9), 0);
  const cv::Mat a = frame(cam, 4, 8, CV_8U, {96, 80});
  EXPECT_EQ(maxDiff(a, frame(cam, 4, 8, CV_8U, {96, 80})), 0);
  EXPECT_GT(maxDiff(a, frame(cam, 20, 8, CV_8U, {96, 80})), 0);  // same spot, new noise
  EXPECT_NEAR(cv::mean(a(cv::Rect(0, 0, 20, 20)))[0], 0.3 * 255, 1.0);

  spot.sigmaY = 0;
  EXPECT_EQ(sim().setSpot(cam, &spot, 0, 0, 0), SIMCAM_E_INVALIDARG);
  EXPECT_EQ(sim().spotTruth(cam, 0, 1, &t), SIMCAM_E_INVALIDARG);
}

}  // namespace
