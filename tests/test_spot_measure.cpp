// Spot measurement against truth computed here: the exact moments of the
// noise-free beams the tests draw, aperture sums counted pixel by pixel, and
// the labelling of cv::connectedComponentsWithStats.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "spot/spot_session.h"
#include "support/test_support.h"
#include "testing/scenes.h"

namespace {

using vantix::CSpotSession;
using vtest::Beam;
using vtest::beamImage;
using vtest::momentsOf;

double relativeError(double measured, double truth) {
  return std::fabs(measured / truth - 1);
}
bool isZero(const SpotResult& r) {
  const SpotResult zero{};
  return std::memcmp(&r, &zero, sizeof r) == 0;
}

// Feeds `image` (8 or 16-bit grey) `frames` times; returns the records of the last.
std::vector<SpotResult> feed(CSpotSession& session, const cv::Mat& image, int frames = 1) {
  std::vector<SpotResult> out(std::max(1u, session.spotCount()));
  for (int i = 0; i < frames; ++i) {
    session.onFrame(image.data, image.cols, image.rows, image.depth() == CV_8U ? 8 : 16,
                    static_cast<uint32_t>(image.step), 1, out.data());
  }
  return out;
}

TEST(SingleSpot, KnownBeamsAfterTheApertureSettled) {
  const struct {
    Beam beam;
    double tolerance;
  } cases[] = {{{160.0, 120.0, 8.0, 8.0, 0.0}, 0.005},  {{171.4, 108.2, 18.0, 6.0, 0.0}, 0.005},
               {{140.7, 131.1, 5.0, 15.0, 0.0}, 0.005}, {{60.25, 50.75, 2.5, 3.5, 0.0}, 0.005},
               {{158.6, 117.3, 16.0, 6.0, 30.0}, 0.02}, {{166.1, 124.9, 14.0, 5.0, -55.0}, 0.02}};
  for (const auto& c : cases) {
    const cv::Mat image = beamImage(320, 240, c.beam);
    const vtest::Moments truth = momentsOf(image);
    CSpotSession session(1, 0);
    const SpotResult r = feed(session, image, 3)[0];
    EXPECT_LT(relativeError(r.majorDiameter, truth.dX()), c.tolerance) << c.beam.cx;
    EXPECT_LT(relativeError(r.minorDiameter, truth.dY()), c.tolerance) << c.beam.cx;
    EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), 0.05) << c.beam.cx;
    EXPECT_NEAR(r.centerY, static_cast<double>(truth.cy), 0.05) << c.beam.cx;
    EXPECT_EQ(r.angle, 90.0);
    // The aperture of the next frame: centred on the spot, semi-axes the diameters.
    EXPECT_EQ(std::make_tuple(r.apertureX, r.apertureY, r.apertureA, r.apertureB),
              std::make_tuple(r.centerX, r.centerY, r.majorDiameter, r.minorDiameter));
  }
}

// A dark frame leaves the host's record alone and zeroes the results; the
// next frame starts from the whole frame and finds a beam far from the last.
TEST(SingleSpot, StartsAgainAfterADarkFrame) {
  CSpotSession session(1, 0);
  ASSERT_GT(feed(session, beamImage(320, 240, {100.0, 80.0, 7.0, 5.0, 0.0}), 2)[0].total, 0);
  std::vector<SpotResult> out(1);
  out[0].total = 7;
  const cv::Mat black = cv::Mat::zeros(240, 320, CV_16UC1);
  session.onFrame(black.data, 320, 240, 16, 0, 1, out.data());
  EXPECT_EQ(out[0].total, 7);
  EXPECT_TRUE(isZero(session.results()[0]));
  const SpotResult found = feed(session, beamImage(320, 240, {240.0, 170.0, 5.0, 5.0, 0.0}))[0];
  EXPECT_NEAR(found.centerX, 240.0, 0.05);
  EXPECT_NEAR(found.centerY, 170.0, 0.05);
}

// Total and centre of the pixels of `rect` inside the ellipse around (ax, ay)
// with semi-axes a, b whose a axis points along (cos theta, sin theta).
SpotResult sumsInside(const cv::Mat& image, cv::Rect rect, SpotAperture e, double theta) {
  SpotResult r{};
  for (int y = rect.y; y < rect.br().y; ++y) {
    for (int x = rect.x; x < rect.br().x; ++x) {
      const double dx = x - e.centerX, dy = y - e.centerY;
      const double u = std::cos(theta) * dx + std::sin(theta) * dy;
      const double v = std::cos(theta) * dy - std::sin(theta) * dx;
      if (u * u / (e.a * e.a) + v * v / (e.b * e.b) > 1.0) continue;
      const double value = image.at<uint16_t>(y, x);
      r.total += value, r.centerX += value * x, r.centerY += value * y;
    }
  }
  r.centerX /= r.total, r.centerY /= r.total;
  return r;
}

// The vectorised row sums against their definition, on 12-bit noise: fixed
// apertures (centre in frame pixels inside an offset ROI too) and the
// automatic aperture turned by the last angle.
TEST(SingleSpot, AperturesSumExactlyTheirPixels) {
  const cv::Mat image = vtest::randomImage(120, 150, CV_16UC1, 5) / 16;
  const SpotAperture fixed{70.5, 55.25, 31.0, 17.5};
  for (const cv::Rect roi : {cv::Rect(0, 0, 150, 120), cv::Rect(50, 40, 61, 50)}) {
    CSpotSession session(1, 0);
    session.setRoi(roi.x, roi.y, roi.width, roi.height);
    session.setAperture(fixed);
    const SpotResult r = feed(session, image, 2)[0];
    const SpotResult truth = sumsInside(image, roi, fixed, 0.0);
    EXPECT_EQ(r.total, truth.total) << roi;
    EXPECT_NEAR(r.centerX, truth.centerX, 1e-9);
    EXPECT_NEAR(r.centerY, truth.centerY, 1e-9);
    EXPECT_EQ(r.apertureA, fixed.a);
  }
  for (const double angle : {30.0, -72.5, 0.0, 89.0}) {
    vantix::SingleSpotState state;
    state.autoAperture = {70.3, 50.8, 25.0, 12.0};
    state.angle = angle;
    SpotResult r{};
    ASSERT_EQ(vantix::measureSingleSpot(image, SpotRoi{}, true, state, r),
              vantix::SpotOutcome::kMeasured);
    const SpotResult truth = sumsInside(image, {0, 0, 150, 120}, {70.3, 50.8, 25.0, 12.0},
                                        (90.0 - angle) * CV_PI / 180.0);
    EXPECT_EQ(r.total, truth.total) << "angle " << angle;
    EXPECT_NEAR(r.centerX, truth.centerX, 1e-9) << "angle " << angle;
  }
}

// One beam of odd width in each depth, at the padded default pitch and a
// wider one; equal channels keep their grey through either colour formula.
// 48-bit grey is (299 R + 587 G + 114 B) / 1000, truncated.
TEST(SingleSpot, EveryDepthAndPitchMeasuresTheSameBeam) {
  const int width = 93, height = 71;
  const cv::Mat grey8 = beamImage(width, height, {46.3, 35.8, 5.0, 3.5, 0.0, 250.0}, CV_8UC1);
  cv::Mat bgr8, bgr16, grey16;
  cv::cvtColor(grey8, bgr8, cv::COLOR_GRAY2BGR);
  grey8.convertTo(grey16, CV_16U, 16);
  bgr8.convertTo(bgr16, CV_16U, 16);
  const vtest::Moments truth = momentsOf(grey8);
  const std::pair<const cv::Mat*, uint32_t> layouts[] = {
      {&grey8, 8}, {&grey16, 16}, {&bgr8, 24}, {&bgr16, 48}};
  for (const auto& [image, bits] : layouts) {
    const size_t rowBytes = size_t{width} * bits / 8;
    for (const uint32_t pitch : {0u, static_cast<uint32_t>(rowBytes + 13)}) {
      const size_t step = pitch != 0 ? pitch : vantix_default_stride(width, bits);
      std::vector<uint8_t> buffer(step * height, 0xEE);
      for (int y = 0; y < height; ++y) std::memcpy(&buffer[y * step], image->ptr(y), rowBytes);
      CSpotSession session(1, 0);
      SpotResult r{};
      for (int i = 0; i < 3; ++i) session.onFrame(buffer.data(), width, height, bits, pitch, 1, &r);
      EXPECT_EQ(r.total, static_cast<double>(truth.total) * (bits % 16 == 0 ? 16 : 1))
          << bits << " " << pitch;
      EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), 0.05) << bits << " " << pitch;
      EXPECT_NEAR(r.centerY, static_cast<double>(truth.cy), 0.05) << bits << " " << pitch;
    }
  }
  const uint16_t bgr48[] = {1000, 2000, 3000, 65535, 65535, 65535, 1, 1, 2};
  cv::Mat scratch;
  const cv::Mat g = vantix::spotGreyFrame(bgr48, 3, 1, 48, 0, scratch);
  EXPECT_EQ(g.at<uint16_t>(0, 0), 2185);
  EXPECT_EQ(g.at<uint16_t>(0, 1), 65535);
  EXPECT_EQ(g.at<uint16_t>(0, 2), 1);  // 1.001
}

// The rectangles a multi-spot record may describe: fields 8 to 11 give its
// left and top edges exactly, its width and height up to the halving.
bool isMomentsOfItsBox(const cv::Mat& image, const SpotResult& r) {
  const int a = static_cast<int>(r.apertureA), b = static_cast<int>(r.apertureB);
  for (int k = 0; k < 4; ++k) {
    const cv::Rect box(static_cast<int>(r.apertureX) - a, static_cast<int>(r.apertureY) - b,
                       2 * a + k % 2, 2 * b + k / 2);
    const vtest::Moments m = momentsOf(image, box);
    if (r.total == static_cast<double>(m.total) &&
        std::fabs(r.centerX - static_cast<double>(m.cx)) < 1e-9 &&
        relativeError(r.majorDiameter, m.dX()) < 1e-9 &&
        relativeError(r.minorDiameter, m.dY()) < 1e-9) {
      return true;
    }
  }
  return false;
}

TEST(MultiSpot, SpotsComeOrderedByCentreAndMissingOnesAreZero) {
  std::vector<Beam> beams = {{250.0, 60.0, 5.0, 4.0, 0.0, 3000},
                             {60.0, 170.0, 6.0, 6.0, 0.0, 2200},
                             {150.0, 110.0, 4.0, 7.0, 0.0, 4000},
                             {330.0, 190.0, 3.5, 3.5, 0.0, 2600},
                             {100.0, 40.0, 5.0, 3.0, 0.0, 3400}};
  cv::Mat image = cv::Mat::zeros(240, 400, CV_16UC1);
  for (const Beam& beam : beams) vtest::drawBeam(image, beam);
  std::sort(beams.begin(), beams.end(), [](const Beam& a, const Beam& b) { return a.cx < b.cx; });
  CSpotSession five(5, 0);
  const std::vector<SpotResult> r = feed(five, image);
  for (size_t i = 0; i < beams.size(); ++i) {
    // The record is the exact moments of the light in its box, which holds
    // the spot's core.
    EXPECT_TRUE(isMomentsOfItsBox(image, r[i])) << i;
    const vtest::Moments truth = momentsOf(beamImage(400, 240, beams[i]));
    EXPECT_NEAR(r[i].centerX, static_cast<double>(truth.cx), 0.05) << i;
    EXPECT_NEAR(r[i].centerY, static_cast<double>(truth.cy), 0.05) << i;
    EXPECT_LT(relativeError(r[i].majorDiameter, truth.dX()), 0.05) << i;
  }
  // Three spots among single bright pixels and a thin line (components too
  // small or too sparse): two asked for give the brightest two, four give a
  // zero record.
  cv::Mat three = cv::Mat::zeros(200, 300, CV_16UC1);
  for (const Beam& b : {Beam{220, 100, 5, 5, 0, 1500}, Beam{80, 100, 5, 5, 0, 3000},
                        Beam{150, 40, 5, 5, 0, 1000}}) {
    vtest::drawBeam(three, b);
  }
  for (const cv::Point p : {cv::Point(280, 10), cv::Point(290, 180), cv::Point(10, 10)}) {
    three.at<uint16_t>(p) = 3000;
  }
  cv::line(three, {20, 190}, {120, 150}, cv::Scalar(3000), 1, cv::LINE_8);
  CSpotSession two(2, 0), four(4, 0);
  const std::vector<SpotResult> brightest = feed(two, three), all = feed(four, three);
  EXPECT_NEAR(brightest[0].centerX, 80.0, 0.05);
  EXPECT_NEAR(brightest[1].centerX, 220.0, 0.05);
  EXPECT_NEAR(all[1].centerX, 150.0, 0.05);
  EXPECT_TRUE(isZero(all[3]));
  for (const uint16_t level : {0, 2000}) {  // uniform frames hold no spot
    for (const SpotResult& record : feed(four, cv::Mat(100, 120, CV_16UC1, cv::Scalar(level)))) {
      EXPECT_TRUE(isZero(record)) << level;
    }
  }
}

TEST(MultiSpot, RunLabellingMatchesTheLibraryLabelling) {
  // Blobs, diagonal chains (8-connected only), isolated pixels, runs along
  // the borders, odd widths.
  for (uint64_t seed = 1; seed <= 6; ++seed) {
    cv::RNG rng(seed);
    const int width = 37 + static_cast<int>(seed) * 29, height = 23 + static_cast<int>(seed) * 17;
    cv::Mat binary = cv::Mat::zeros(height, width, CV_8UC1);
    for (int i = 0; i < 12; ++i) {
      cv::ellipse(binary, {rng.uniform(0, width), rng.uniform(0, height)},
                  {rng.uniform(1, 12), rng.uniform(1, 9)}, rng.uniform(0, 180), 0, 360, 255,
                  cv::FILLED);
    }
    for (int i = 0; i < 40; ++i)
      binary.at<uint8_t>(rng.uniform(0, height), rng.uniform(0, width)) = 255;
    for (int i = 0; i < 6; ++i) binary.at<uint8_t>(i, i) = 255;
    binary.rowRange(height - 2, height).setTo(seed % 2 ? 255 : 0);
    cv::Mat labels, stats, centroids;
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);  // the reference is the sequential labelling
    const int expected =
        cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
    cv::setNumThreads(threads);
    vantix::MultiSpotWorkspace work;
    ASSERT_EQ(vantix::labelRuns(binary, work), expected) << seed;
    EXPECT_EQ(cv::norm(work.stats.rowRange(1, expected), stats.rowRange(1, expected), cv::NORM_INF),
              0.0);
    EXPECT_EQ(work.stats.at<int32_t>(0, cv::CC_STAT_AREA), stats.at<int32_t>(0, cv::CC_STAT_AREA));
    EXPECT_LT(cv::norm(work.centroids.rowRange(1, expected), centroids.rowRange(1, expected),
                       cv::NORM_INF),
              1e-9);
    for (const vantix::SpotRun& run : work.runs) {
      for (int x = run.first; x <= run.last; ++x)
        ASSERT_EQ(labels.at<int32_t>(run.y, x), run.label) << seed;
    }
  }
}

}  // namespace
