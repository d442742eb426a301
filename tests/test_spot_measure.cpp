// Spot measurement against truth computed here: the exact moments of the
// noise-free beams the tests draw, aperture sums counted pixel by pixel, and
// the labelling of cv::connectedComponentsWithStats.

#include "spot/spot_session.h"
#include "support/test_support.h"

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

// Known beams once the aperture settled; a dark frame then zeroes the
// results (the host's record untouched) and the search starts again.
TEST(SingleSpot, KnownBeamsAndARestartAfterADarkFrame) {
  const Beam beams[] = {{171.4, 108.2, 18.0, 6.0, 0.0},
                        {60.25, 50.75, 2.5, 3.5, 0.0},
                        {158.6, 117.3, 16.0, 6.0, 30.0},
                        {166.1, 124.9, 14.0, 5.0, -55.0}};
  for (const Beam& beam : beams) {
    const cv::Mat image = beamImage(320, 240, beam);
    const vtest::Moments truth = momentsOf(image);
    const double tolerance = beam.angleDeg == 0 ? 0.005 : 0.02;
    CSpotSession session(1, 0);
    const SpotResult r = feed(session, image, 3)[0];
    EXPECT_LT(relativeError(r.majorDiameter, truth.dX()), tolerance) << beam.cx;
    EXPECT_LT(relativeError(r.minorDiameter, truth.dY()), tolerance) << beam.cx;
    EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), 0.05) << beam.cx;
    EXPECT_NEAR(r.centerY, static_cast<double>(truth.cy), 0.05) << beam.cx;
    EXPECT_EQ(r.angle, 90.0);
    // The next frame's aperture: centred on the spot, semi-axes the diameters.
    EXPECT_EQ(cv::Vec4d(r.apertureX, r.apertureY, r.apertureA, r.apertureB),
              cv::Vec4d(r.centerX, r.centerY, r.majorDiameter, r.minorDiameter));
    std::vector<SpotResult> out(1);
    out[0].total = 7;
    session.onFrame(cv::Mat(240, 320, CV_16UC1, cv::Scalar(0)).data, 320, 240, 16, 0, 1,
                    out.data());
    EXPECT_EQ(out[0].total, 7);
    EXPECT_TRUE(isZero(session.results()[0]));
    const SpotResult found = feed(session, beamImage(320, 240, {240.0, 170.0, 5.0, 5.0, 0.0}))[0];
    EXPECT_NEAR(found.centerX, 240.0, 0.05);
    EXPECT_NEAR(found.centerY, 170.0, 0.05);
  }
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

// The vectorised row sums against their definition, on 12-bit noise: a
// fixed aperture (centre in frame pixels, inside an offset ROI too) and the
// automatic aperture turned by the last angle.
TEST(SingleSpot, AperturesSumExactlyTheirPixels) {
  const cv::Mat image = vtest::randomImage(120, 150, CV_16UC1, 5) / 16;
  const SpotAperture fixed{70.5, 55.25, 31.0, 17.5};
  for (const cv::Rect roi : {cv::Rect(0, 0, 150, 120), cv::Rect(50, 40, 61, 50)}) {
    CSpotSession session(1, 0);
    session.setRoi(roi.x, roi.y, roi.width, roi.height);
    session.setAperture(fixed);
    const SpotResult r = feed(session, image, 2)[0], truth = sumsInside(image, roi, fixed, 0.0);
    EXPECT_EQ(r.total, truth.total) << roi;
    EXPECT_NEAR(r.centerX, truth.centerX, 1e-9);
    EXPECT_NEAR(r.centerY, truth.centerY, 1e-9);
  }
  for (const double angle : {30.0, -72.5, 89.0}) {
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
TEST(SingleSpot, EveryDepthAndPitchMeasuresTheSameBeam) {
  const int width = 93, height = 71;
  const cv::Mat grey8 = beamImage(width, height, {46.3, 35.8, 5.0, 3.5, 0.0, 250.0}, CV_8UC1);
  cv::Mat bgr8, bgr16, grey16;
  cv::cvtColor(grey8, bgr8, cv::COLOR_GRAY2BGR);
  grey8.convertTo(grey16, CV_16U, 16);
  bgr8.convertTo(bgr16, CV_16U, 16);
  const vtest::Moments truth = momentsOf(grey8);
  for (const cv::Mat& image : {grey8, grey16, bgr8, bgr16}) {
    const uint32_t bits = static_cast<uint32_t>(image.elemSize() * 8);
    const size_t rowBytes = size_t{width} * bits / 8;
    for (const uint32_t pitch : {0u, static_cast<uint32_t>(rowBytes + 13)}) {
      const size_t step = pitch != 0 ? pitch : vantix_default_stride(width, bits);
      std::vector<uint8_t> buffer(step * height, 0xEE);
      for (int y = 0; y < height; ++y) std::memcpy(&buffer[y * step], image.ptr(y), rowBytes);
      CSpotSession session(1, 0);
      SpotResult r{};
      for (int i = 0; i < 3; ++i) session.onFrame(buffer.data(), width, height, bits, pitch, 1, &r);
      EXPECT_EQ(r.total, static_cast<double>(truth.total) * (bits % 16 == 0 ? 16 : 1))
          << bits << " " << pitch;
      EXPECT_NEAR(r.centerX, static_cast<double>(truth.cx), 0.05) << bits << " " << pitch;
    }
  }
}

// Spots come ordered by centre; among single bright pixels and a thin line
// (too small or too sparse to count) two asked for give the brightest two,
// and a spot asked for beyond those found is a zero record.
TEST(MultiSpot, SpotsComeOrderedByCentreAndMissingOnesAreZero) {
  std::vector<Beam> beams = {{250.0, 60.0, 6.0, 5.0, 0.0, 3000},
                             {60.0, 170.0, 6.0, 6.0, 0.0, 2200},
                             {150.0, 110.0, 4.0, 7.0, 0.0, 4000}};
  cv::Mat image = cv::Mat::zeros(240, 400, CV_16UC1);
  for (const Beam& beam : beams) vtest::drawBeam(image, beam);
  for (const cv::Point p : {cv::Point(380, 10), cv::Point(390, 180), cv::Point(10, 10)}) {
    image.at<uint16_t>(p) = 3000;
  }
  cv::line(image, {20, 230}, {120, 200}, cv::Scalar(3000), 1, cv::LINE_8);
  std::sort(beams.begin(), beams.end(), [](const Beam& a, const Beam& b) { return a.cx < b.cx; });
  CSpotSession two(2, 0), four(4, 0);
  const std::vector<SpotResult> r = feed(four, image), brightest = feed(two, image);
  for (size_t i = 0; i < beams.size(); ++i) {
    const vtest::Moments truth = momentsOf(beamImage(400, 240, beams[i]));
    EXPECT_NEAR(r[i].centerX, static_cast<double>(truth.cx), 0.05) << i;
    EXPECT_NEAR(r[i].centerY, static_cast<double>(truth.cy), 0.05) << i;
    EXPECT_LT(relativeError(r[i].majorDiameter, truth.dX()), 0.05) << i;
  }
  EXPECT_TRUE(isZero(r[3]));
  EXPECT_NEAR(brightest[0].centerX, 150.0, 0.05);
  EXPECT_NEAR(brightest[1].centerX, 250.0, 0.05);
  for (const SpotResult& record : feed(four, cv::Mat(100, 120, CV_16UC1, cv::Scalar(2000)))) {
    EXPECT_TRUE(isZero(record));  // a uniform frame holds no spot
  }
}

// Blobs, diagonal chains (8-connected only), isolated pixels, runs along the
// borders, odd widths.
TEST(MultiSpot, RunLabellingMatchesTheLibraryLabelling) {
  for (uint64_t seed = 1; seed <= 4; ++seed) {
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
    const int n = cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
    cv::setNumThreads(threads);
    vantix::MultiSpotWorkspace work;
    ASSERT_EQ(vantix::labelRuns(binary, work), n) << seed;
    EXPECT_EQ(cv::norm(work.stats.rowRange(1, n), stats.rowRange(1, n), cv::NORM_INF), 0.0);
    EXPECT_LT(cv::norm(work.centroids.rowRange(1, n), centroids.rowRange(1, n), cv::NORM_INF),
              1e-9);
    for (const vantix::SpotRun& run : work.runs) {
      for (int x = run.first; x <= run.last; ++x)
        ASSERT_EQ(labels.at<int32_t>(run.y, x), run.label) << seed;
    }
  }
}

}  // namespace
