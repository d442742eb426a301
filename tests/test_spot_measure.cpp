// Measurement of spots against truth computed here: the exact second moments
// of the noise-free beams the tests draw, sums over apertures counted pixel by
// pixel, and grey values from the colour formulas.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "spot/spot_session.h"
#include "support/spot_beams.h"
#include "support/test_support.h"

namespace {

using spottest::Beam;
using spottest::isZero;
using spottest::sameRecord;
using spottest::beamImage;
using spottest::momentsOf;
using spottest::relativeError;
using vantix::CSpotSession;

uint32_t bitsOf(const cv::Mat& image) {
  switch (image.type()) {
    case CV_8UC1: return 8;
    case CV_16UC1: return 16;
    case CV_8UC3: return 24;
    default: return 48;
  }
}

// Feeds `image` to the session `frames` times; returns the last record.
SpotResult measureFrames(CSpotSession& session, const cv::Mat& image, int frames,
                         SpotResult start = SpotResult{}) {
  SpotResult out = start;
  for (int i = 0; i < frames; ++i) {
    session.onFrame(image.data, image.cols, image.rows, bitsOf(image),
                    static_cast<uint32_t>(image.step), 1, &out);
  }
  return out;
}

std::vector<SpotResult> measureMany(CSpotSession& session, const cv::Mat& image) {
  std::vector<SpotResult> out(session.spotCount());
  session.onFrame(image.data, image.cols, image.rows, bitsOf(image),
                  static_cast<uint32_t>(image.step), 1, out.data());
  return out;
}

// ---------------------------------------------------------------------------
// Single spot: accuracy against the exact moments of the whole image
// ---------------------------------------------------------------------------

struct AccuracyCase {
  const char* name;
  Beam beam;
  double diameterTolerance;  // relative
};

class SingleSpotAccuracy : public ::testing::TestWithParam<AccuracyCase> {};

TEST_P(SingleSpotAccuracy, DiametersAndCentreAfterTheApertureSettled) {
  const AccuracyCase& c = GetParam();
  const cv::Mat image = beamImage(320, 240, c.beam);
  const spottest::Moments truth = momentsOf(image);
  CSpotSession session(1, 0);
  const SpotResult r = measureFrames(session, image, 3);

  const double errX = relativeError(r.majorDiameter, truth.dX());
  const double errY = relativeError(r.minorDiameter, truth.dY());
  EXPECT_LT(errX, c.diameterTolerance) << r.majorDiameter << " vs " << truth.dX();
  EXPECT_LT(errY, c.diameterTolerance) << r.minorDiameter << " vs " << truth.dY();
  EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), 0.05);
  EXPECT_NEAR(r.centerY, static_cast<double>(truth.cy), 0.05);
  EXPECT_EQ(r.angle, 90.0);
  // The aperture that follows: centred on the spot, semi-axes the diameters.
  EXPECT_DOUBLE_EQ(r.apertureX, r.centerX);
  EXPECT_DOUBLE_EQ(r.apertureY, r.centerY);
  EXPECT_DOUBLE_EQ(r.apertureA, r.majorDiameter);
  EXPECT_DOUBLE_EQ(r.apertureB, r.minorDiameter);
  std::printf("[ figures  ] %-22s dX %+.3f %%  dY %+.3f %%  centre %.4f, %.4f px\n", c.name,
              100 * (r.majorDiameter / truth.dX() - 1), 100 * (r.minorDiameter / truth.dY() - 1),
              r.centerX - static_cast<double>(truth.cx), r.centerY - static_cast<double>(truth.cy));
}

INSTANTIATE_TEST_SUITE_P(
    Beams, SingleSpotAccuracy,
    ::testing::Values(
        AccuracyCase{"round", {160.0, 120.0, 8.0, 8.0, 0.0}, 0.005},
        AccuracyCase{"wide_along_x", {171.4, 108.2, 18.0, 6.0, 0.0}, 0.005},
        AccuracyCase{"tall_along_y", {140.7, 131.1, 5.0, 15.0, 0.0}, 0.005},
        AccuracyCase{"small", {60.25, 50.75, 2.5, 3.5, 0.0}, 0.005},
        AccuracyCase{"turned_30", {158.6, 117.3, 16.0, 6.0, 30.0}, 0.02},
        AccuracyCase{"turned_minus_55", {166.1, 124.9, 14.0, 5.0, -55.0}, 0.02},
        AccuracyCase{"turned_70", {150.2, 110.8, 12.0, 7.0, 70.0}, 0.02}),
    [](const ::testing::TestParamInfo<AccuracyCase>& info) { return info.param.name; });

TEST(SingleSpot, ApertureFollowsAMovingBeamFrameAfterFrame) {
  CSpotSession session(1, 0);
  Beam beam{100.0, 80.0, 7.0, 5.0, 0.0};
  for (int i = 0; i < 11; ++i) {
    // The beam moves by more than a sigma a frame for eight frames, then
    // stops.  While it moves, the aperture of the previous frame (semi-axes
    // of 4 sigma) still holds it, so every frame is measured and the centre
    // lags only a little; once it stops the aperture settles on it.
    if (i < 8) beam = {100.0 + 9.5 * i, 80.0 + 6.25 * i, 7.0, 5.0, 0.0};
    const cv::Mat image = beamImage(320, 240, beam);
    const spottest::Moments truth = momentsOf(image);
    const SpotResult r = measureFrames(session, image, 1);
    ASSERT_GT(r.total, 0) << "frame " << i;
    const double tolerance = i < 10 ? 0.6 : 0.05;
    EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), tolerance) << "frame " << i;
    EXPECT_NEAR(r.centerY, static_cast<double>(truth.cy), tolerance) << "frame " << i;
    EXPECT_NEAR(r.apertureX, r.centerX, 1e-12);
    if (i == 10) {
      EXPECT_LT(relativeError(r.majorDiameter, truth.dX()), 0.005);
      EXPECT_LT(relativeError(r.minorDiameter, truth.dY()), 0.005);
    }
  }
}

TEST(SingleSpot, BlackFrameKeepsTheRecordZeroesResultsAndRestartsTheAperture) {
  CSpotSession session(1, 0);
  const cv::Mat first = beamImage(200, 160, {60.0, 50.0, 5.0, 5.0, 0.0});
  const SpotResult before = measureFrames(session, first, 2);
  ASSERT_GT(before.total, 0);

  const cv::Mat black = cv::Mat::zeros(160, 200, CV_16UC1);
  const SpotResult after = measureFrames(session, black, 1, before);
  EXPECT_TRUE(sameRecord(after, before));
  EXPECT_TRUE(isZero(session.results()[0]));
  EXPECT_EQ(session.autoAperture().a, -1.0);

  // The next frame starts from the whole frame: a beam far from the last
  // aperture is found and measured at once.
  const cv::Mat moved = beamImage(200, 160, {150.0, 110.0, 5.0, 5.0, 0.0});
  const SpotResult found = measureFrames(session, moved, 1);
  EXPECT_NEAR(found.centerX, 150.0, 0.05);
  EXPECT_NEAR(found.centerY, 110.0, 0.05);
}

// Total and centre over the pixels of `image` in `rect` that lie inside the
// ellipse around (ax, ay) with semi-axes a, b, turned by theta (its u axis
// along (cos theta, sin theta)), counted pixel by pixel.
SpotResult sumsInside(const cv::Mat& image, cv::Rect rect, double ax, double ay, double a,
                      double b, double theta) {
  const double c = std::cos(theta), s = std::sin(theta);
  SpotResult r{};
  for (int y = rect.y; y < rect.y + rect.height; ++y) {
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const double dx = x - ax, dy = y - ay;
      const double u = c * dx + s * dy, v = c * dy - s * dx;
      if (u * u / (a * a) + v * v / (b * b) > 1.0) continue;
      const double value = image.at<uint16_t>(y, x);
      r.total += value;
      r.centerX += value * x;
      r.centerY += value * y;
    }
  }
  r.centerX /= r.total;
  r.centerY /= r.total;
  return r;
}

TEST(SingleSpot, AperturesSumExactlyTheirPixels) {
  const cv::Mat image = vtest::randomImage(120, 150, CV_16UC1, 5) / 16;  // 12-bit noise
  // The host's fixed aperture, in whole-frame coordinates also inside an
  // offset ROI.
  const SpotAperture fixed{70.5, 55.25, 31.0, 17.5};
  for (const cv::Rect roi : {cv::Rect(0, 0, 150, 120), cv::Rect(50, 40, 60, 50)}) {
    CSpotSession session(1, 0);
    session.setRoi(roi.x, roi.y, roi.width, roi.height);
    session.setAperture(fixed);
    const SpotResult r = measureFrames(session, image, 2);
    const SpotResult truth = sumsInside(image, roi, 70.5, 55.25, 31.0, 17.5, 0.0);
    EXPECT_EQ(r.total, truth.total) << roi;
    EXPECT_NEAR(r.centerX, truth.centerX, 1e-9);
    EXPECT_NEAR(r.centerY, truth.centerY, 1e-9);
    EXPECT_EQ(r.apertureX, fixed.centerX);
    EXPECT_EQ(r.apertureB, fixed.b);
  }
  // The automatic aperture, turned by the last angle.
  for (const double angle : {30.0, -72.5, 0.0, 89.0}) {
    vantix::SingleSpotState state;
    state.autoAperture = {70.3, 50.8, 25.0, 12.0};
    state.angle = angle;
    SpotResult r{};
    ASSERT_EQ(vantix::measureSingleSpot(image, SpotRoi{}, true, state, r),
              vantix::SpotOutcome::kMeasured);
    const SpotResult truth = sumsInside(image, cv::Rect(0, 0, 150, 120), 70.3, 50.8, 25.0, 12.0,
                                        (90.0 - angle) * CV_PI / 180.0);
    EXPECT_EQ(r.total, truth.total) << "angle " << angle;
    EXPECT_NEAR(r.centerX, truth.centerX, 1e-9) << "angle " << angle;
  }
}

TEST(SingleSpot, RejectedApertureKeepsTheAutomaticOneAndResetRestoresIt) {
  const cv::Mat image = beamImage(200, 160, {120.0, 70.0, 6.0, 4.0, 0.0});
  CSpotSession session(1, 0);
  for (const SpotAperture bad : {SpotAperture{50, 50, 5, 0}, SpotAperture{50, 50, -3, 8},
                                 SpotAperture{50, 50, NAN, 8}}) {
    session.setAperture(bad);
  }
  EXPECT_TRUE(session.usesAutoAperture());
  const SpotResult automatic = measureFrames(session, image, 3);
  session.setAperture({110.0, 70.0, 8.0, 8.0});  // grazes the beam
  EXPECT_LT(measureFrames(session, image, 1).centerX, 119.0);
  session.reset();
  EXPECT_TRUE(session.usesAutoAperture());
  EXPECT_EQ(session.angle(), 90.0);
  const SpotResult again = measureFrames(session, image, 3);
  EXPECT_TRUE(sameRecord(again, automatic));
}

TEST(SingleSpot, BeamInAnOffsetRoiIsMeasuredOnEveryFrame) {
  const Beam beam{230.4, 170.6, 6.0, 4.5, 0.0};
  const cv::Mat image = beamImage(320, 240, beam);
  const cv::Rect roi(180, 120, 110, 100);
  const spottest::Moments truth = momentsOf(image, roi);
  CSpotSession session(1, 0);
  session.setRoi(roi.x, roi.y, roi.width, roi.height);
  for (int i = 0; i < 6; ++i) {
    SpotResult r{};
    r.total = -1;  // a frame without signal would leave this
    session.onFrame(image.data, image.cols, image.rows, 16, static_cast<uint32_t>(image.step), 1,
                    &r);
    EXPECT_GT(r.total, 0) << "frame " << i;
    EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), 0.05) << "frame " << i;
    EXPECT_NEAR(r.centerY, static_cast<double>(truth.cy), 0.05) << "frame " << i;
    if (i >= 2) {
      EXPECT_LT(relativeError(r.majorDiameter, truth.dX()), 0.005);
    }
  }
  // A ROI wholly outside the frame gives a zero record; width 0 measures the
  // whole frame again.
  session.setRoi(500, 10, 50, 50);
  EXPECT_TRUE(isZero(measureFrames(session, image, 1)));
  session.setRoi(100, 100, 0, 30);
  session.reset();  // the whole-frame aperture holds all the light
  EXPECT_EQ(measureFrames(session, image, 1).total, static_cast<double>(momentsOf(image).total));
}

// ---------------------------------------------------------------------------
// Principal axes (ellipse mode)
// ---------------------------------------------------------------------------

TEST(EllipseMode, OrientationAndPrincipalDiametersOfTurnedBeams) {
  // A round spot symmetric about the centre pixel of a square frame: the
  // moments are exactly equal and the cross moment exactly zero.
  CSpotSession round(1, 0);
  EXPECT_EQ(round.setEllipseMode(1), 0);
  const SpotResult r = measureFrames(round, beamImage(101, 101, {50.0, 50.0, 6.0, 6.0, 0.0}), 3);
  EXPECT_EQ(r.majorDiameter, r.minorDiameter);
  EXPECT_EQ(r.angle, 0.0);
  EXPECT_EQ(round.setEllipseMode(0), 1);
  // The angle is counted counter-clockwise on screen (rows run down), so a
  // beam turned from +x toward +y by t reads -t.
  for (const double turn : {-60.0, -20.0, 25.0, 80.0}) {
    const Beam beam{160.3, 120.6, 15.0, 6.0, turn};
    const cv::Mat image = beamImage(320, 240, beam);
    const spottest::Moments truth = momentsOf(image);
    CSpotSession session(1, 0);
    session.setEllipseMode(1);
    // The first frame integrates over the whole frame: principal axes exact.
    const SpotResult r = measureFrames(session, image, 1);
    EXPECT_NEAR(r.angle, -turn, 0.2) << "turn " << turn;
    EXPECT_LT(relativeError(r.majorDiameter, truth.dMajor()), 0.005) << "turn " << turn;
    EXPECT_LT(relativeError(r.minorDiameter, truth.dMinor()), 0.005) << "turn " << turn;
    EXPECT_GT(r.majorDiameter, r.minorDiameter);
    // Later frames keep the orientation within a few degrees: the second
    // pass takes the turned aperture axis-aligned and so trims beams that lie
    // far from the vertical.
    const SpotResult later = measureFrames(session, image, 2);
    EXPECT_NEAR(later.angle, -turn, 4.0) << "turn " << turn;
    EXPECT_NEAR(later.centerX, static_cast<double>(truth.cx), 0.05) << "turn " << turn;
  }
}

// ---------------------------------------------------------------------------
// Frame depths and row pitch
// ---------------------------------------------------------------------------

TEST(FrameInput, GreyOfTheFourDepths) {
  cv::Mat grey;
  // 48 bits: (299 R + 587 G + 114 B) / 1000, truncated: 2185 for B 1000,
  // G 2000, R 3000.
  const uint16_t bgr48[] = {1000, 2000, 3000, 65535, 65535, 65535, 1, 1, 2};
  const cv::Mat g = vantix::spotGreyFrame(bgr48, 3, 1, 48, 0, grey);
  EXPECT_EQ(g.type(), CV_16UC1);
  EXPECT_EQ(g.at<uint16_t>(0, 0), 2185);
  EXPECT_EQ(g.at<uint16_t>(0, 1), 65535);
  EXPECT_EQ(g.at<uint16_t>(0, 2), 1);  // 1.001 truncated

  // Other depths are refused with "Unsupported image depth" (tested through
  // the pull, where the exception reaches the host).
}

TEST(FrameInput, EveryDepthAndPitchMeasuresTheSameBeam) {
  // One beam in 8-bit grey of odd width, laid out in each depth with the
  // padded default pitch and with an explicit wider pitch; the truth is the
  // moments of the grey values each depth carries.
  const int width = 93, height = 71;
  const cv::Mat grey8 = beamImage(width, height, {46.3, 35.8, 5.0, 3.5, 0.0, 250.0}, CV_8UC1);
  cv::Mat bgr8, bgr16, grey16;
  cv::cvtColor(grey8, bgr8, cv::COLOR_GRAY2BGR);
  grey8.convertTo(grey16, CV_16U, 16);
  bgr8.convertTo(bgr16, CV_16U, 16);
  struct Layout {
    const cv::Mat* image;
    uint32_t bits;
  };
  const spottest::Moments truth = momentsOf(grey8);
  for (const Layout layout : {Layout{&grey8, 8}, Layout{&grey16, 16}, Layout{&bgr8, 24},
                              Layout{&bgr16, 48}}) {
    const size_t rowBytes = static_cast<size_t>(width) * layout.bits / 8;
    for (const uint32_t pitch : {0u, static_cast<uint32_t>(rowBytes + 13)}) {
      const size_t step = pitch != 0 ? pitch : vantix::spotDefaultPitch(width, layout.bits);
      std::vector<uint8_t> buffer(step * height + 16, 0xEE);
      for (int y = 0; y < height; ++y) {
        std::memcpy(&buffer[y * step], layout.image->ptr(y), rowBytes);
      }
      CSpotSession session(1, 0);
      SpotResult r{};
      for (int i = 0; i < 3; ++i) {
        session.onFrame(buffer.data(), width, height, layout.bits, pitch, 1, &r);
      }
      // Equal channels keep their value through either grey formula.
      const double scale = layout.bits == 16 || layout.bits == 48 ? 16.0 : 1.0;
      EXPECT_EQ(r.total, static_cast<double>(truth.total) * scale)
          << layout.bits << " bits, pitch " << pitch;
      EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), 0.05) << layout.bits << " " << pitch;
      EXPECT_NEAR(r.centerY, static_cast<double>(truth.cy), 0.05) << layout.bits << " " << pitch;
    }
  }
}

// ---------------------------------------------------------------------------
// Several spots
// ---------------------------------------------------------------------------

// The rectangle a multi-spot record describes: fields 8 to 11 give its left
// and top edges exactly and its width and height up to the halving.
std::vector<cv::Rect> boxesOf(const SpotResult& r) {
  const int a = static_cast<int>(r.apertureA), b = static_cast<int>(r.apertureB);
  const int left = static_cast<int>(r.apertureX) - a, top = static_cast<int>(r.apertureY) - b;
  return {cv::Rect(left, top, 2 * a, 2 * b), cv::Rect(left, top, 2 * a + 1, 2 * b),
          cv::Rect(left, top, 2 * a, 2 * b + 1), cv::Rect(left, top, 2 * a + 1, 2 * b + 1)};
}

TEST(MultiSpot, SpotsOfDifferentPowerComeOrderedByCentreX) {
  const std::vector<Beam> beams = {
      {250.0, 60.0, 5.0, 4.0, 0.0, 3000}, {60.0, 170.0, 6.0, 6.0, 0.0, 2200},
      {150.0, 110.0, 4.0, 7.0, 0.0, 4000}, {330.0, 190.0, 3.5, 3.5, 0.0, 2600},
      {100.0, 40.0, 5.0, 3.0, 0.0, 3400}};
  for (size_t count = 2; count <= beams.size(); ++count) {
    cv::Mat image = cv::Mat::zeros(240, 400, CV_16UC1);
    for (size_t i = 0; i < count; ++i) spottest::drawBeam(image, beams[i]);
    CSpotSession session(static_cast<uint32_t>(count), 0);
    const std::vector<SpotResult> r = measureMany(session, image);
    std::vector<Beam> expected(beams.begin(), beams.begin() + count);
    std::sort(expected.begin(), expected.end(),
              [](const Beam& a, const Beam& b) { return a.cx < b.cx; });
    for (size_t i = 0; i < count; ++i) {
      // The spots lie far apart: each box holds the light of its own spot
      // only.  The record is the exact moments of the light in the box ...
      bool matched = false;
      for (const cv::Rect& box : boxesOf(r[i])) {
        const spottest::Moments inBox = momentsOf(image, box);
        matched |= r[i].total == static_cast<double>(inBox.total) &&
                   std::fabs(r[i].centerX - static_cast<double>(inBox.cx)) < 1e-9 &&
                   std::fabs(r[i].centerY - static_cast<double>(inBox.cy)) < 1e-9 &&
                   relativeError(r[i].majorDiameter, inBox.dX()) < 1e-9 &&
                   relativeError(r[i].minorDiameter, inBox.dY()) < 1e-9;
      }
      EXPECT_TRUE(matched) << count << " spots, #" << i;
      // ... and the box holds the spot's core: the centre is the beam's, the
      // light and the diameters are those of a beam cut off at its box.
      const spottest::Moments truth = momentsOf(beamImage(400, 240, expected[i]));
      EXPECT_NEAR(r[i].centerX, static_cast<double>(truth.cx), 0.05) << count << " #" << i;
      EXPECT_NEAR(r[i].centerY, static_cast<double>(truth.cy), 0.05) << count << " #" << i;
      EXPECT_LT(relativeError(r[i].total, static_cast<double>(truth.total)), 0.05);
      EXPECT_LT(relativeError(r[i].majorDiameter, truth.dX()), 0.05) << count << " #" << i;
      EXPECT_LT(relativeError(r[i].minorDiameter, truth.dY()), 0.05) << count << " #" << i;
      EXPECT_EQ(r[i].angle, 90.0);
      if (count == beams.size()) {
        std::printf("[ figures  ] multi-spot #%zu dX %+.2f %%  dY %+.2f %%  centre %.4f, %.4f px\n",
                    i, 100 * (r[i].majorDiameter / truth.dX() - 1),
                    100 * (r[i].minorDiameter / truth.dY() - 1),
                    r[i].centerX - static_cast<double>(truth.cx),
                    r[i].centerY - static_cast<double>(truth.cy));
      }
    }
  }
}

TEST(MultiSpot, MissingSpotsAreZeroRecordsAndTheBrightestAreKept) {
  cv::Mat image = cv::Mat::zeros(200, 300, CV_16UC1);
  spottest::drawBeam(image, {220.0, 100.0, 5.0, 5.0, 0.0, 1000});
  spottest::drawBeam(image, {80.0, 100.0, 5.0, 5.0, 0.0, 3000});
  CSpotSession three(3, 0);
  std::vector<SpotResult> r = measureMany(three, image);
  EXPECT_NEAR(r[0].centerX, 80.0, 0.05);
  EXPECT_NEAR(r[1].centerX, 220.0, 0.05);
  EXPECT_TRUE(isZero(r[2]));

  spottest::drawBeam(image, {150.0, 40.0, 5.0, 5.0, 0.0, 500});  // the dimmest
  CSpotSession two(2, 0);
  r = measureMany(two, image);
  EXPECT_NEAR(r[0].centerX, 80.0, 0.05);
  EXPECT_NEAR(r[1].centerX, 220.0, 0.05);
  // Uniform frames (max = min) hold no spot.
  for (const uint16_t level : {0, 2000}) {
    r = measureMany(three, cv::Mat(100, 120, CV_16UC1, cv::Scalar(level)));
    for (const SpotResult& record : r) EXPECT_TRUE(isZero(record)) << level;
  }
}

TEST(MultiSpot, SmallOrSparseComponentsAreNeverReported) {
  // One real spot among single bright pixels and a thin diagonal line: all
  // of them are segmented, only the spot is reported.
  cv::Mat image = cv::Mat::zeros(120, 160, CV_16UC1);
  spottest::drawBeam(image, {40.0, 90.0, 5.0, 5.0, 0.0, 4000});
  for (const cv::Point p : {cv::Point(130, 10), cv::Point(150, 100), cv::Point(10, 10)}) {
    image.at<uint16_t>(p) = 4000;
  }
  cv::line(image, {50, 10}, {150, 80}, cv::Scalar(4000), 1, cv::LINE_8);
  vantix::MultiSpotWorkspace work;
  std::vector<SpotResult> r(3);
  ASSERT_TRUE(vantix::measureMultiSpot(image, SpotRoi{}, false, 3, work, r.data()));
  int small = 0, sparse = 0;
  for (int label = 1; label < work.stats.rows; ++label) {
    const int* st = work.stats.ptr<int>(label);
    small += st[cv::CC_STAT_AREA] < 10;
    sparse += st[cv::CC_STAT_AREA] >= 10 &&
              st[cv::CC_STAT_AREA] < 0.1 * st[cv::CC_STAT_WIDTH] * st[cv::CC_STAT_HEIGHT];
  }
  EXPECT_EQ(small, 3) << "threshold " << work.lastThreshold;
  EXPECT_EQ(sparse, 1) << "threshold " << work.lastThreshold;
  EXPECT_NEAR(r[0].centerX, 40.0, 0.05);
  EXPECT_NEAR(r[0].centerY, 90.0, 0.05);
  EXPECT_TRUE(isZero(r[1]));
  EXPECT_TRUE(isZero(r[2]));
}

TEST(MultiSpot, RunLabellingMatchesTheLibraryLabelling) {
  // Binary images with blobs, diagonal chains (8-connected only), isolated
  // pixels, runs touching the borders and odd widths: same labels, boxes,
  // areas and centroids as cv::connectedComponentsWithStats.
  for (uint64_t seed = 1; seed <= 6; ++seed) {
    cv::RNG rng(seed);
    const int width = 37 + static_cast<int>(seed) * 29, height = 23 + static_cast<int>(seed) * 17;
    cv::Mat binary = cv::Mat::zeros(height, width, CV_8UC1);
    for (int i = 0; i < 12; ++i) {
      const cv::Point c(rng.uniform(0, width), rng.uniform(0, height));
      cv::ellipse(binary, c, cv::Size(rng.uniform(1, 12), rng.uniform(1, 9)), rng.uniform(0, 180),
                  0, 360, cv::Scalar(255), cv::FILLED);
    }
    for (int i = 0; i < 40; ++i) binary.at<uint8_t>(rng.uniform(0, height), rng.uniform(0, width)) = 255;
    for (int i = 0; i < 6 && i < height && i < width; ++i) binary.at<uint8_t>(i, i) = 255;
    cv::rectangle(binary, cv::Rect(0, height - 2, width, 2), cv::Scalar(seed % 2 ? 255 : 0), cv::FILLED);

    cv::Mat labels, stats, centroids;
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);  // the reference is the sequential block labelling
    const int expected = cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
    cv::setNumThreads(threads);
    vantix::MultiSpotWorkspace work;
    ASSERT_EQ(vantix::labelRuns(binary, work), expected) << seed;
    for (int label = 1; label < expected; ++label) {
      for (int k = 0; k < 5; ++k) {
        ASSERT_EQ(work.stats.at<int32_t>(label, k), stats.at<int32_t>(label, k))
            << "seed " << seed << " label " << label << " column " << k;
      }
      EXPECT_NEAR(work.centroids.at<double>(label, 0), centroids.at<double>(label, 0), 1e-9);
      EXPECT_NEAR(work.centroids.at<double>(label, 1), centroids.at<double>(label, 1), 1e-9);
    }
    EXPECT_EQ(work.stats.at<int32_t>(0, cv::CC_STAT_AREA), stats.at<int32_t>(0, cv::CC_STAT_AREA));
    for (const vantix::SpotRun& run : work.runs) {
      for (int x = run.first; x <= run.last; ++x) {
        ASSERT_EQ(labels.at<int32_t>(run.y, x), run.label) << seed;
      }
    }
  }
}

TEST(MultiSpot, BoxesAreCutHalfWayBetweenNeighbours) {
  // Two spots whose widened boxes overlap: each box ends at the midpoint, so
  // neither spot's light enters the other's measurement.
  cv::Mat image = cv::Mat::zeros(120, 200, CV_16UC1);
  const Beam left{80.0, 60.0, 4.0, 4.0, 0.0, 4000}, right{112.0, 60.0, 4.0, 4.0, 0.0, 2500};
  spottest::drawBeam(image, left);
  spottest::drawBeam(image, right);
  CSpotSession session(2, 0);
  const std::vector<SpotResult> r = measureMany(session, image);
  EXPECT_LE(r[0].apertureX + r[0].apertureA, 96.0 + 1);
  EXPECT_GE(r[1].apertureX - r[1].apertureA, 96.0 - 1);
  EXPECT_NEAR(r[0].centerX, 80.0, 0.05);
  EXPECT_NEAR(r[1].centerX, 112.0, 0.05);
  const double dLeft = momentsOf(beamImage(200, 120, left)).dX();
  EXPECT_LT(relativeError(r[0].majorDiameter, dLeft), 0.02);
}

// ---------------------------------------------------------------------------
// False colour
// ---------------------------------------------------------------------------

TEST(PseudoColour, EightAndSixteenBitFramesAreRewrittenAsPackedBgr) {
  CSpotSession session(1, 0);
  EXPECT_EQ(session.setPseudoColour(1), 0);
  const int width = 5, height = 9;  // 8-bit rows padded from 5 to 8 bytes
  // Each pixel of `packed` is the palette entry of `index(x, y)`.
  const auto expectPalette = [&](const std::vector<uint8_t>& packed, auto index) {
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const vantix::PaletteEntry& e = session.palette()[index(x, y)];
        const uint8_t* px = &packed[(y * width + x) * 3];
        ASSERT_EQ(cv::Vec3b(px[0], px[1], px[2]), cv::Vec3b(e.blue, e.green, e.red)) << x << "," << y;
      }
    }
  };
  const cv::Mat grey8 = vtest::randomImage(height, width, CV_8UC1, 11);
  const uint32_t pitch8 = vantix::spotDefaultPitch(width, 8);
  std::vector<uint8_t> buffer(width * 3 * height);
  for (int y = 0; y < height; ++y) std::memcpy(&buffer[y * pitch8], grey8.ptr(y), width);
  SpotResult out{};
  session.onFrame(buffer.data(), width, height, 8, 0, 1, &out);
  expectPalette(buffer, [&](int x, int y) { return grey8.at<uint8_t>(y, x); });

  // 16 bits from a 12-bit camera: the top eight of the twelve bits select.
  *session.rawBitDepthSlot() = 12;
  const cv::Mat grey16 = vtest::randomImage(height, width, CV_16UC1, 12) / 16;
  std::vector<uint8_t> words(width * 3 * height);
  for (int y = 0; y < height; ++y) std::memcpy(&words[y * 12], grey16.ptr(y), width * 2);
  session.onFrame(words.data(), width, height, 16, 12, 0, &out);
  expectPalette(words, [&](int x, int y) { return (grey16.at<uint16_t>(y, x) >> 4) & 255; });

  // Deeper frames are left alone.
  std::vector<uint8_t> colour(width * height * 3, 77);
  const std::vector<uint8_t> before = colour;
  session.onFrame(colour.data(), width, height, 24, 0, 0, &out);
  EXPECT_EQ(colour, before);
  EXPECT_EQ(session.setPseudoColour(0), 1);
}

}  // namespace
