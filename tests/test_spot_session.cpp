// The spot session: fixed apertures, averaging over blocks, pulls through
// the simulated camera with the refusals of the exports, and the ROI set from
// another thread while frames are measured (this program also runs under
// ThreadSanitizer; resets and apertures from other threads are in test_pull).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "spot/spot_session.h"
#include "support/test_support.h"
#include "testing/scenes.h"
#include "testing/simcam/simcam_loader.h"

namespace {

using vantix::CSpotSession;
using vtest::beamImage;

SpotResult feed(CSpotSession& session, const cv::Mat& image, SpotResult out = SpotResult{}) {
  session.onFrame(image.data, image.cols, image.rows, 16, static_cast<uint32_t>(image.step), 1,
                  &out);
  return out;
}
double field(const SpotResult& r, int index) {
  return (&r.total)[index];
}
double middle(double a, double b, double c) {
  return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

// One beam whose power, position and size change from frame to frame.
std::vector<cv::Mat> changingBeam(int frames) {
  std::vector<cv::Mat> images;
  const double peaks[] = {3000, 1800, 3900, 2500, 3300, 2100, 3600};
  for (int i = 0; i < frames; ++i) {
    images.push_back(beamImage(160, 120,
                               {80.0 + 0.7 * (i % 3), 60.0 - 0.4 * (i % 4), 5.0 + 0.3 * (i % 5),
                                4.0 + 0.2 * (i % 2), 0.0, peaks[i % 7]}));
  }
  return images;
}

// A semi-axis not above 0 (NaN too) or a centre that is not finite is
// refused: the aperture in use stays, automatic or fixed, until a reset.
TEST(SpotAperture, RefusedValuesLeaveTheApertureInUse) {
  const double nan = std::numeric_limits<double>::quiet_NaN(),
               inf = std::numeric_limits<double>::infinity();
  const SpotAperture refused[] = {{nan, 50, 20, 20}, {inf, 50, 20, 20}, {70, -inf, 20, 20},
                                  {70, 50, 0, 20},   {70, 50, -3, 8},   {70, 50, 20, nan}};
  const cv::Mat image = beamImage(160, 120, {70.0, 50.0, 5.0, 4.0, 0.0, 3000});
  CSpotSession automatic(1, 0), fixed(1, 0);
  fixed.setAperture({72, 49, 20, 18});
  for (const SpotAperture& bad : refused) {
    automatic.setAperture(bad);
    fixed.setAperture(bad);
    EXPECT_TRUE(automatic.usesAutoAperture()) << bad.centerX << " " << bad.a << " " << bad.b;
    EXPECT_NEAR(feed(automatic, image).centerX, 70.0, 0.05);
    const SpotResult r = feed(fixed, image);
    EXPECT_EQ(cv::Vec4d(r.apertureX, r.apertureY, r.apertureA, r.apertureB),
              cv::Vec4d(72, 49, 20, 18));
    EXPECT_NEAR(r.centerY, 50.0, 0.05);
  }
  fixed.reset();
  EXPECT_TRUE(fixed.usesAutoAperture());
  EXPECT_EQ(fixed.angle(), 90.0);
}

TEST(SpotAveraging, RawMeanOfTwoMiddleOfThreeInConsecutiveBlocks) {
  const std::vector<cv::Mat> frames = changingBeam(7);
  std::vector<SpotResult> raw;
  CSpotSession plain(1, 0);
  for (const cv::Mat& frame : frames) raw.push_back(feed(plain, frame));
  for (const uint32_t n : {1u, 2u, 3u}) {
    CSpotSession session(1, n);
    SpotResult last{};  // zeros until the first block completes
    for (size_t i = 0; i < frames.size(); ++i) {
      const SpotResult r = feed(session, frames[i]);
      for (int f = n < 2 ? 0 : 6; f < 11; ++f)
        EXPECT_EQ(field(r, f), field(raw[i], f)) << n << " " << i;
      if (n < 2) continue;
      if (i % n == n - 1) {  // a complete block: fields 1 to 5 averaged, 6 recomputed
        for (int f = 0; f < 5; ++f) {
          const double a = field(raw[i - 1], f), b = field(raw[i], f);
          EXPECT_DOUBLE_EQ(field(r, f), n == 2 ? 0.5 * (a + b) : middle(field(raw[i - 2], f), a, b))
              << n << " field " << f + 1 << " frame " << i;
        }
        EXPECT_DOUBLE_EQ(r.ellipticity, std::min(r.majorDiameter, r.minorDiameter) /
                                            std::max(r.majorDiameter, r.minorDiameter));
        last = r;
      }
      for (int f = 0; f < 6; ++f) EXPECT_EQ(field(r, f), field(last, f)) << n << " " << i;
    }
    session.reset();  // zeroes the average and starts a new block
    if (n >= 2) {
      EXPECT_EQ(feed(session, frames[0]).total, 0.0);
    }
  }
  // A frame without signal voids the average: its record is zero and the
  // next block starts with the next frame.
  CSpotSession session(1, 3);
  for (int i = 0; i < 4; ++i) feed(session, frames[i]);
  SpotResult dark{};
  dark.total = 99;
  EXPECT_EQ(feed(session, cv::Mat::zeros(120, 160, CV_16UC1), dark).total, 0.0);
  EXPECT_EQ(feed(session, frames[2]).total, 0.0);
  EXPECT_EQ(feed(session, frames[3]).total, 0.0);
  const double expected = middle(raw[2].total, raw[3].total, raw[4].total);
  EXPECT_NEAR(feed(session, frames[4]).total, expected, 1e-4 * expected);  // the aperture restarted
}

// Through the exports and the simulated camera, in a child process (the SDK
// binding is process-wide).
TEST(SpotPull, MeasuresPulledFramesAndTakesHostileArguments) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they end the process instead
  EXPECT_THROW(vantix_spot_new(0xFFFFFFFFu, 0), std::bad_alloc);
  EXPECT_THROW(vantix_spot_new(1, 0xFFFFFFFFu), std::bad_alloc);
#endif
  EXPECT_TRUE(vtest::runInChildProcess([] {
    VantixSpot* session = vantix_spot_new(1, 0);
    std::vector<uint8_t> buffer(320 * 240 * 6, 0xAB);
    FrameInfoV2 info{};
    SpotResult out{};
    SimcamApi sim{};
    void* so = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(so != nullptr && simcam_load_api(so, &sim)) << dlerror();
    SimcamCamera* camera = sim.open(320, 240);
    const SimcamSpot spot{150.3, 101.7, 7, 4.5, 0, 0.9, 0, 0, 0, 0};
    ASSERT_EQ(sim.setSpot(camera, &spot, 0.0, 0.0, 1), 0);
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(vantix_spot_pull(session, camera, 1, buffer.data(), 16, 0, &info, &out), 0u);
    }
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(info.sdkDefined[0], 2u);  // index of the third frame
    EXPECT_NEAR(out.centerX, 150.3, 0.05);
    EXPECT_NEAR(out.centerY, 101.7, 0.05);
    EXPECT_NEAR(out.majorDiameter, 28.0, 0.14);
    EXPECT_NEAR(out.minorDiameter, 18.0, 0.09);

    // A depth the measurement does not take raises after the record was
    // delivered and before `out` is touched; without measuring any is taken.
    info.width = 0;
    out.total = 3;
    try {
      vantix_spot_pull(session, camera, 1, buffer.data(), 32, 0, &info, &out);
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Unsupported image depth");
    }
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(out.total, 3);
    EXPECT_EQ(vantix_spot_pull(session, camera, 0, buffer.data(), 32, 0, &info, &out), 0u);
    // A null `out` is measured unseen; a session of no spots takes no records.
    EXPECT_EQ(vantix_spot_pull(session, camera, 1, buffer.data(), 8, 0, &info, nullptr), 0u);
    VantixSpot* none = vantix_spot_new(0, 3);
    for (uint32_t bits : {16u, 24u, 48u, 8u}) {
      EXPECT_EQ(vantix_spot_pull(none, camera, 1, buffer.data(), bits, 0, nullptr, nullptr), 0u);
    }
    // ROIs and apertures out of every range change no result; a ROI outside
    // the frame gives a zero record.
    vantix_spot_setRoi(none, 0xFFFFFFF0u, 0x7FFFFFF0u, 0x7FFFFFFFu, 0xFFFFFFFFu);
    EXPECT_EQ(vantix_spot_pull(none, camera, 1, buffer.data(), 24, 0, nullptr, nullptr), 0u);
    vantix_spot_setAperture(session, SpotAperture{1e300, -1e300, INFINITY, INFINITY});
    vantix_spot_setRoi(session, 0x7FFFFFF0u, 0x7FFFFFF0u, 0x7FFFFFFFu, 0x7FFFFFFFu);
    out.total = 9;
    EXPECT_EQ(vantix_spot_pull(session, camera, 1, buffer.data(), 48, 0, nullptr, &out), 0u);
    EXPECT_EQ(out.total, 0.0);
    vantix_spot_delete(none);
    vantix_spot_delete(session);
    vantix_spot_delete(nullptr);
    sim.close(camera);
  }));
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kFrames = 150;
#else
constexpr int kFrames = 600;
#endif

// Two ROIs of different sizes on a lit background: a frame measured through
// any mixture of their values would sum an area that matches neither.
TEST(SpotThreads, RoiIsReadWholeOncePerFrame) {
#if defined(__SANITIZE_THREAD__)
  cv::setNumThreads(1);  // OpenCV's pool is not instrumented
#endif
  cv::Mat image(200, 400, CV_16UC1, cv::Scalar(10));
  vtest::drawBeam(image, {100.0, 100.0, 6.0, 6.0, 0.0, 3000});
  vtest::drawBeam(image, {300.0, 90.0, 5.0, 5.0, 0.0, 3000});
  const cv::Rect rois[] = {{20, 40, 160, 120}, {230, 10, 150, 170}};
  const SpotAperture everything{200, 100, 1000, 1000};
  double totals[2];
  for (int k = 0; k < 2; ++k) {
    CSpotSession probe(1, 0);
    probe.setAperture(everything);
    probe.setRoi(rois[k].x, rois[k].y, rois[k].width, rois[k].height);
    totals[k] = feed(probe, image).total;
  }
  CSpotSession session(1, 0);
  session.setAperture(everything);
  session.setRoi(rois[0].x, rois[0].y, rois[0].width, rois[0].height);
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; !done.load(); ++i)
      session.setRoi(rois[i % 2].x, rois[i % 2].y, rois[i % 2].width, rois[i % 2].height);
  });
  int mismatches = 0;
  for (int i = 0; i < kFrames; ++i) {
    const double total = feed(session, image).total;
    mismatches += total != totals[0] && total != totals[1];
  }
  done = true;
  setter.join();
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
