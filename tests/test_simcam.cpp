// What the simulated camera SDK promises the hosts that pull from it: pixel
// layout by bits and pitch, the frame-information records, a frame index
// that only successful pulls advance, and scenes that match their truth.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "support/test_support.h"
#include "testing/scenes.h"
#include "testing/simcam/simcam_loader.h"

namespace {

const SimcamApi& sim() {
  static const SimcamApi api = [] {
    SimcamApi a;
    if (!simcam_load_api(dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL), &a)) {
      ADD_FAILURE() << "cannot load " << VANTIX_SIMCAM_PATH;
    }
    return a;
  }();
  return api;
}

TEST(Simcam, PullsDeliverTheLayoutAndRecordsTheyPromise) {
  const cv::Mat image = vtest::randomImage(5, 13, CV_8UC3, 7);
  SimcamCamera* cam = sim().open(13, 5);
  ASSERT_EQ(sim().setStill(cam, image.data, 13, 5, static_cast<uint32_t>(image.step)), 0);
  cv::Mat grey, grey12, bgr48;  // 8-bit grey, 12 bits in 16, 16-bit B G R
  cv::cvtColor(image, grey, cv::COLOR_BGR2GRAY);
  grey.convertTo(grey12, CV_16U, 4095.0 / 255.0);
  image.convertTo(bgr48, CV_16UC3, 257);
  EXPECT_EQ(sim().defaultPitch(13, 24), 40u);  // rows padded to 4 bytes
  EXPECT_EQ(sim().frameBytes(cam, 8, 0), 16u * 5);

  // bits 8 / 16 / 48 through V2 / V3 / V4 at a pitch of 100: pixels as
  // converted here, padding untouched, record bytes 12.. = i * 7 + index.
  const struct {
    int32_t bits;
    const cv::Mat& expected;
    size_t record;
  } cases[] = {{8, grey, 24}, {16, grey12, 40}, {48, bgr48, 104}};
  for (uint32_t index = 0; index < 3; ++index) {
    const auto& c = cases[index];
    std::vector<uint8_t> buffer(100 * 5, 0xCD), record(c.record + 4, 0xEE);
    using Pull = int32_t (*)(void*, void*, int32_t, int32_t, int32_t, void*);
    const Pull pull = index == 1 ? sim().pullV3 : sim().pullV4;
    ASSERT_EQ(index == 0 ? sim().pullV2(cam, buffer.data(), c.bits, 100, record.data())
                         : pull(cam, buffer.data(), 0, c.bits, 100, record.data()),
              0);
    const size_t row = 13 * c.bits / 8;
    const cv::Mat pixels(5, 13, c.expected.type(), buffer.data(), 100);
    EXPECT_EQ(cv::norm(pixels, c.expected, cv::NORM_INF), 0) << c.bits;
    for (size_t i = row; i < 100; ++i) ASSERT_EQ(buffer[4 * 100 + i], 0xCD);
    const uint32_t head[3] = {13, 5, index};  // width, height, frame index
    EXPECT_EQ(std::memcmp(record.data(), head, sizeof head), 0);
    for (size_t i = 12; i < c.record; ++i)
      ASSERT_EQ(record[i], static_cast<uint8_t>(i * 7 + index));
    EXPECT_EQ(record[c.record], 0xEE);  // nothing past the record
  }

  // Failures write nothing and leave the index; a positive result delivers.
  std::vector<uint8_t> untouched(100 * 5, 0xEE);
  EXPECT_EQ(sim().pullV2(cam, untouched.data(), 12, 0, nullptr), SIMCAM_E_INVALIDARG);
  EXPECT_EQ(sim().pullV2(cam, untouched.data(), 24, 38, nullptr), SIMCAM_E_INVALIDARG);
  sim().setResult(cam, SIMCAM_E_OUTOFMEMORY);
  EXPECT_EQ(sim().pullV2(cam, untouched.data(), 8, 0, nullptr), SIMCAM_E_OUTOFMEMORY);
  EXPECT_EQ(std::count(untouched.begin(), untouched.end(), 0xEE), 500);
  EXPECT_EQ(sim().frameIndex(cam), 3u);
  sim().setResult(cam, 1);
  EXPECT_EQ(sim().pullV2(cam, untouched.data(), 8, 0, nullptr), 1);
  EXPECT_EQ(sim().frameIndex(cam), 4u);
  sim().close(cam);
}

TEST(Simcam, ScenesMatchTheirTruth) {
  // Focus sweep: a pixel with no blur in a frame is the sharp pixel itself.
  const cv::Mat sharp = vtest::randomImage(48, 64, CV_8UC3, 3);
  SimcamCamera* cam = sim().open(64, 48);
  ASSERT_EQ(sim().setFocusSweep(cam, sharp.data, 64, 48, static_cast<uint32_t>(sharp.step), 5, 4.0),
            0);
  for (uint32_t i = 0; i < 5; ++i) {
    cv::Mat frame(48, 64, CV_8UC3);
    ASSERT_EQ(sim().render(cam, i, frame.data, 24, 0), 0);
    int sharpPixels = 0;
    for (uint32_t y = 0; y < 48; ++y) {
      for (uint32_t x = 0; x < 64; ++x) {
        if (sim().focusSigma(cam, i, x, y) != 0) continue;
        ++sharpPixels;
        ASSERT_EQ(frame.at<cv::Vec3b>(y, x), sharp.at<cv::Vec3b>(y, x)) << i;
      }
    }
    EXPECT_GT(sharpPixels, 0) << i;
  }
  sim().close(cam);
  // A noise-free spot on its orbit has the truth's centroid and moments.
  cam = sim().open(96, 80);
  SimcamSpot spot{48.3, 40.7, 6, 3, 30, 0.8, 5, 8, 0.2, 16};
  ASSERT_EQ(sim().setSpot(cam, &spot, 0.0, 0.0, 1), 0);
  ASSERT_EQ(sim().setRawBits(cam, 16), 0);
  for (uint32_t i : {0u, 2u, 5u}) {
    SimcamSpotTruth t{};
    ASSERT_EQ(sim().spotTruth(cam, i, 0, &t), 0);
    cv::Mat frame(80, 96, CV_16U);
    ASSERT_EQ(sim().render(cam, i, frame.data, 16, 0), 0);
    const vtest::Moments m = vtest::momentsOf(frame);
    const vtest::Moments truth =
        vtest::beamMoments({t.centerX, t.centerY, t.sigmaX, t.sigmaY, t.angle});
    EXPECT_NEAR(static_cast<double>(m.cx), t.centerX, 0.01) << i;
    EXPECT_NEAR(static_cast<double>(m.cy), t.centerY, 0.01) << i;
    EXPECT_NEAR(m.dMajor(), truth.dMajor(), 0.02) << i;
    EXPECT_NEAR(m.dMinor(), truth.dMinor(), 0.02) << i;
  }
  sim().close(cam);
}

}  // namespace
