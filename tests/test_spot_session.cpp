// The spot session: averaging over blocks, the pull path through the
// simulated camera SDK, and setters called from another thread while frames
// are measured (this program runs under ThreadSanitizer too).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <opencv2/core.hpp>

#include "spot/spot_session.h"
#include "support/spot_beams.h"
#include "support/stress.h"
#include "support/test_support.h"
#include "tools/simcam/simcam_loader.h"

namespace {

using spottest::Beam;
using spottest::beamImage;
using spottest::isZero;
using spottest::sameRecord;
using vantix::CSpotSession;

// Serial OpenCV under ThreadSanitizer (its pool is not instrumented).
const bool kSerialOpenCv = (vtest::serialOpenCvUnderTsan(), true);

SpotResult feed(CSpotSession& session, const cv::Mat& image, SpotResult out = SpotResult{}) {
  session.onFrame(image.data, image.cols, image.rows, 16, static_cast<uint32_t>(image.step), 1,
                  &out);
  return out;
}

// Frames of one beam whose power, position and size change from frame to
// frame, so that every field differs between frames.
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

// The raw records of the frames, from a session that does not average.
std::vector<SpotResult> rawRecords(const std::vector<cv::Mat>& frames) {
  CSpotSession raw(1, 0);
  std::vector<SpotResult> records;
  for (const cv::Mat& frame : frames) records.push_back(feed(raw, frame));
  return records;
}

double field(const SpotResult& r, int index) { return (&r.total)[index]; }

double middleOfThree(double a, double b, double c) {
  return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

// ---------------------------------------------------------------------------
// Fixed aperture
// ---------------------------------------------------------------------------

// An aperture with a semi-axis not above 0 (NaN included) or a centre that is
// not finite is refused: the aperture in use stays, automatic or fixed, and
// the beam is measured with it.
TEST(SpotAperture, RefusedValuesLeaveTheApertureInUse) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const SpotAperture refused[] = {{nan, 50, 20, 20}, {70, nan, 20, 20}, {inf, 50, 20, 20},
                                  {70, -inf, 20, 20}, {70, 50, 0, 20},  {70, 50, 20, nan}};
  const cv::Mat image = beamImage(160, 120, {70.0, 50.0, 5.0, 4.0, 0.0, 3000});
  CSpotSession automatic(1, 0), fixed(1, 0);
  fixed.setAperture({72, 49, 20, 18});
  for (const SpotAperture& bad : refused) {
    const std::string what = std::to_string(bad.centerX) + " " + std::to_string(bad.centerY) +
                             " " + std::to_string(bad.a) + " " + std::to_string(bad.b);
    automatic.setAperture(bad);
    fixed.setAperture(bad);
    EXPECT_TRUE(automatic.usesAutoAperture()) << what;
    SpotResult r = feed(automatic, image);
    EXPECT_NEAR(r.centerX, 70.0, 0.05) << what;
    EXPECT_NEAR(r.centerY, 50.0, 0.05) << what;
    r = feed(fixed, image);
    EXPECT_EQ(std::make_tuple(r.apertureX, r.apertureY, r.apertureA, r.apertureB),
              std::make_tuple(72.0, 49.0, 20.0, 18.0))
        << what;
    EXPECT_NEAR(r.centerX, 70.0, 0.05) << what;
    EXPECT_NEAR(r.centerY, 50.0, 0.05) << what;
  }
}

// ---------------------------------------------------------------------------
// Averaging
// ---------------------------------------------------------------------------

TEST(SpotAveraging, RawBelowTwoMeanOfTwoMiddleOfThreeInConsecutiveBlocks) {
  const std::vector<cv::Mat> frames = changingBeam(7);
  const std::vector<SpotResult> raw = rawRecords(frames);
  for (const uint32_t n : {0u, 1u, 2u, 3u}) {
    CSpotSession session(1, n);
    SpotResult lastAverage{};  // zeros until the first block completes
    for (size_t i = 0; i < frames.size(); ++i) {
      const SpotResult r = feed(session, frames[i]);
      if (n < 2) {
        EXPECT_TRUE(sameRecord(r, raw[i])) << n << " frame " << i;
        continue;
      }
      // Fields 7 to 11 are always the latest frame's.
      for (int f = 6; f < 11; ++f) EXPECT_EQ(field(r, f), field(raw[i], f)) << n << " " << i;
      if (i % n == n - 1) {  // the block is complete
        for (int f = 0; f < 5; ++f) {
          const double a = field(raw[i - 1], f), b = field(raw[i], f);
          const double expected = n == 2 ? 0.5 * (a + b) : middleOfThree(field(raw[i - 2], f), a, b);
          EXPECT_DOUBLE_EQ(field(r, f), expected) << n << " field " << f + 1 << " frame " << i;
        }
        EXPECT_DOUBLE_EQ(r.ellipticity, std::min(r.majorDiameter, r.minorDiameter) /
                                            std::max(r.majorDiameter, r.minorDiameter));
        lastAverage = r;
      } else {
        for (int f = 0; f < 6; ++f) EXPECT_EQ(field(r, f), field(lastAverage, f)) << n << " " << i;
      }
      EXPECT_EQ(session.frameIndex(), static_cast<uint32_t>((i + 1) % n));
    }
    // Reset zeroes the average and starts a new block.
    session.reset();
    EXPECT_EQ(session.frameIndex(), 0u);
    if (n >= 2) {
      EXPECT_EQ(feed(session, frames[0]).total, 0.0);
    }
  }
}

TEST(SpotAveraging, FrameWithoutSignalVoidsTheAverageAndRestartsTheBlock) {
  const std::vector<cv::Mat> frames = changingBeam(5);
  const std::vector<SpotResult> raw = rawRecords(frames);
  const cv::Mat black = cv::Mat::zeros(120, 160, CV_16UC1);
  CSpotSession session(1, 3);
  for (int i = 0; i < 3; ++i) feed(session, frames[i]);  // one complete block
  feed(session, frames[3]);
  ASSERT_EQ(session.frameIndex(), 1u);

  SpotResult dark{};
  dark.total = 99;
  dark = feed(session, black, dark);
  EXPECT_TRUE(isZero(dark));
  EXPECT_TRUE(isZero(session.results()[0]));
  EXPECT_EQ(session.frameIndex(), 0u);

  // The dark frame does not count: the block is the next three frames, and
  // the average stays void until they are in.
  SpotResult r{};
  for (int i = 2; i <= 3; ++i) {
    r = feed(session, frames[i]);
    EXPECT_EQ(r.total, 0.0) << i;
  }
  r = feed(session, frames[4]);
  // The aperture restarted after the dark frame, so the raw values of these
  // frames differ from the uninterrupted ones by a few counts in 500000.
  const double expected = middleOfThree(raw[2].total, raw[3].total, raw[4].total);
  EXPECT_NEAR(r.total, expected, 1e-4 * expected);
}

// ---------------------------------------------------------------------------
// The pull path through the simulated camera (one child process each, since
// the SDK binding is process-wide)
// ---------------------------------------------------------------------------

// The SDK's failures, positive results and raw-depth queries are the pull
// routine's (test_camera_sdk), a missing SDK is in test_bad_input; here the
// spot's own part of the path.
TEST(SpotPull, MeasuredFramesThenAnUnsupportedDepth) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    VantixSpot* session = vantix_spot_new(1, 0);
    std::vector<uint8_t> buffer(320 * 240 * 4, 0xAB);
    FrameInfoV2 info{};
    SpotResult out{};
    SimcamApi sim{};
    void* so = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(so != nullptr && simcam_load_api(so, &sim)) << dlerror();
    SimcamCamera* camera = sim.open(320, 240);
    SimcamSpot spot{};
    spot.centerX = 150.3;
    spot.centerY = 101.7;
    spot.sigmaX = 7;
    spot.sigmaY = 4.5;
    spot.peak = 0.9;
    ASSERT_EQ(sim.setSpot(camera, &spot, 0.0, 0.0, 1), 0);
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(vantix_spot_pull(session, camera, 1, buffer.data(), 16, 0, &info, &out), 0u);
    }
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(info.height, 240u);
    EXPECT_EQ(info.sdkDefined[0], 2u);  // index of the third frame
    EXPECT_NEAR(out.centerX, 150.3, 0.05);
    EXPECT_NEAR(out.centerY, 101.7, 0.05);
    EXPECT_LT(std::fabs(out.majorDiameter / 28.0 - 1), 0.005);
    EXPECT_LT(std::fabs(out.minorDiameter / 18.0 - 1), 0.005);

    // A depth the measurement does not take raises once the frame and its
    // record are delivered; without the push the frame is not measured.
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
    vantix_spot_delete(session);
    vantix_spot_delete(nullptr);
  }));
}

// ---------------------------------------------------------------------------
// Setters from another thread while frames are measured
// ---------------------------------------------------------------------------

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kFrames = 150;
#else
constexpr int kFrames = 600;
#endif

TEST(SpotThreads, RoiIsReadWholeOncePerFrame) {
  // Two ROIs of different sizes around two spots on a lit background: a
  // frame measured through any mixture of their values would sum a
  // different area and give a total matching neither.
  cv::Mat image(200, 400, CV_16UC1, cv::Scalar(10));
  spottest::drawBeam(image, {100.0, 100.0, 6.0, 6.0, 0.0, 3000});
  spottest::drawBeam(image, {300.0, 90.0, 5.0, 5.0, 0.0, 3000});
  const cv::Rect roiA(20, 40, 160, 120), roiB(230, 10, 150, 170);
  const SpotAperture everything{200, 100, 1000, 1000};
  double totals[2];
  for (int k = 0; k < 2; ++k) {
    const cv::Rect roi = k == 0 ? roiA : roiB;
    CSpotSession probe(1, 0);
    probe.setAperture(everything);
    probe.setRoi(roi.x, roi.y, roi.width, roi.height);
    totals[k] = feed(probe, image).total;
  }

  CSpotSession session(1, 0);
  session.setAperture(everything);
  session.setRoi(roiA.x, roiA.y, roiA.width, roiA.height);
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; !done.load(); ++i) {
      const cv::Rect roi = i % 2 == 0 ? roiA : roiB;
      session.setRoi(roi.x, roi.y, roi.width, roi.height);
    }
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

// A reset afterwards measuring as a new session does is checked through the
// exports, with ROI changes too, in test_stress_pull.
TEST(SpotThreads, ResetAndApertureFromAnotherThreadKeepTheSessionConsistent) {
  const std::vector<cv::Mat> frames = changingBeam(5);
  CSpotSession session(1, 3);
  std::atomic<bool> done{false};
  std::thread control([&] {
    for (int i = 0; !done.load(); ++i) {
      if (i % 3 == 0) {
        session.reset();
      } else {
        session.setAperture({80.0, 60.0, 30.0 + i % 7, 25.0});
      }
      session.setEllipseMode(i % 2);
      std::this_thread::yield();
    }
  });
  for (int i = 0; i < kFrames; ++i) {
    const SpotResult r = feed(session, frames[i % frames.size()]);
    // Every record is a complete measurement of the beam or zeros.
    if (r.total != 0) {
      EXPECT_NEAR(r.centerX, 81.0, 2.0) << i;
      EXPECT_NEAR(r.centerY, 59.0, 2.0) << i;
    }
    EXPECT_LT(session.frameIndex(), 3u);
  }
  done = true;
  control.join();
}

}  // namespace
