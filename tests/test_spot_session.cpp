// The spot session: averaging over blocks, pulls through the simulated
// camera with the refusals of the exports, and the ROI set from
// another thread while frames are measured (this program also runs under
// ThreadSanitizer).
#include <dlfcn.h>

#include <limits>
#include <new>
#include <stdexcept>

#include "spot/spot_session.h"
#include "support/sessions.h"
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

// Averaging over blocks of three frames: fields 1 to 5 are the middle of
// the three raw values, the ellipticity is recomputed from them, the rest is
// the last frame's; between blocks the last average stays.  A refused
// aperture (semi-axis not above 0, centre not finite) leaves the one in use.
TEST(SpotAveraging, MiddleOfThreeInConsecutiveBlocks) {
  std::vector<cv::Mat> frames;
  std::vector<SpotResult> raw;
  CSpotSession plain(1, 0), session(1, 3);
  SpotResult last{};                // zeros until the first block completes
  for (size_t i = 0; i < 6; ++i) {  // one beam whose power, position and size change
    frames.push_back(beamImage(160, 120,
                               {80.0 + 0.7 * (i % 3), 60.0 - 0.4 * i, 5.0 + 0.3 * i,
                                4.0 + 0.2 * (i % 2), 0.0, 1800.0 + 700 * (i * 5 % 4)}));
    raw.push_back(feed(plain, frames.back()));
    session.setAperture({std::numeric_limits<double>::quiet_NaN(), 50, 20, 20});
    session.setAperture({70, 50, 0, 20});
    const SpotResult r = feed(session, frames[i]);
    for (int f = 6; f < 11; ++f) EXPECT_EQ(field(r, f), field(raw[i], f)) << i;
    if (i % 3 == 2) {
      for (int f = 0; f < 5; ++f) {
        EXPECT_DOUBLE_EQ(field(r, f),
                         middle(field(raw[i - 2], f), field(raw[i - 1], f), field(raw[i], f)))
            << "field " << f + 1 << " frame " << i;
      }
      EXPECT_DOUBLE_EQ(r.ellipticity, std::min(r.majorDiameter, r.minorDiameter) /
                                          std::max(r.majorDiameter, r.minorDiameter));
      last = r;
    }
    for (int f = 0; f < 6; ++f) EXPECT_EQ(field(r, f), field(last, f)) << i;
  }
}

// Through the exports and the simulated camera, in a child process (the SDK
// binding is process-wide), with the arguments a host may get wrong.
// (What the pull hands on is checked in test_camera_sdk, the measurement
// of each depth in test_spot_measure.)
TEST(SpotPull, MeasuresPulledFramesAndTakesHostileArguments) {
#if !defined(VTEST_ASAN) && !defined(VTEST_TSAN)  // they end the process instead
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
    ASSERT_EQ(vantix_spot_pull(session, camera, 1, buffer.data(), 16, 0, &info, &out), 0u);
    EXPECT_GT(out.total, 0.0);
    // A depth the measurement does not take raises after the record was
    // delivered and before `out` is touched; without measuring any is taken.
    info.width = 0;
    out.total = 3;
    EXPECT_THROW(vantix_spot_pull(session, camera, 1, buffer.data(), 32, 0, &info, &out),
                 std::runtime_error);
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(out.total, 3);
    EXPECT_EQ(vantix_spot_pull(session, camera, 0, buffer.data(), 32, 0, &info, &out), 0u);
    // A null `out` is measured unseen; ROIs and apertures out of every range
    // are taken, and a ROI outside the frame gives a zero record.
    EXPECT_EQ(vantix_spot_pull(session, camera, 1, buffer.data(), 8, 0, &info, nullptr), 0u);
    vantix_spot_setAperture(session, SpotAperture{1e300, -1e300, INFINITY, INFINITY});
    vantix_spot_setRoi(session, 0x7FFFFFF0u, 0x7FFFFFF0u, 0x7FFFFFFFu, 0x7FFFFFFFu);
    out.total = 9;
    EXPECT_EQ(vantix_spot_pull(session, camera, 1, buffer.data(), 48, 0, nullptr, &out), 0u);
    EXPECT_EQ(out.total, 0.0);
    vantix_spot_delete(session);
    vantix_spot_delete(nullptr);
    sim.close(camera);
  }));
}

// Two ROIs of different sizes on a lit background: a frame measured through
// any mixture of their values would sum an area that matches neither.
TEST(SpotThreads, RoiIsReadWholeOncePerFrame) {
  vtest::serialOpenCvUnderTsan();
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
  for (int i = 0; i < vtest::scaled(600); ++i) {
    const double total = feed(session, image).total;
    mismatches += total != totals[0] && total != totals[1];
  }
  done = true;
  setter.join();
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
