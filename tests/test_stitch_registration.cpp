// Registration of the live stitcher against displacements the tests make.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "livestitch/lvregister.h"
#include "support/stitch_frames.h"
#include "support/test_support.h"

namespace {

using vantix::Measurement;
using vantix::TrackingState;

struct Registrar {
  vantix::RegistrationGeometry g;
  cv::Ptr<cv::ORB> orb = cv::ORB::create(5000, 1.2f, 8, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20);
  cv::Ptr<cv::DescriptorMatcher> matcher = cv::DescriptorMatcher::create("BruteForce-Hamming");
  vantix::TemplateOrigins origins, alt;

  Registrar(int w, int h, int percent = 20) : g(vantix::makeRegistrationGeometry(w, h, percent)) {}

  Measurement measure(const cv::Mat& moved, const cv::Mat& reference) {
    const cv::Mat a = vtest::grayFloat(moved), b = vtest::grayFloat(reference);
    return vantix::measureDisplacement(a, vtest::scaled(a, g.scalePercent), b,
                                       vtest::scaled(b, g.scalePercent), g, *orb, *matcher,
                                       origins, alt);
  }
};

TrackingState running() {
  TrackingState s;
  s.state = 1;
  return s;
}

TEST(StitchGeometry, SizeStepTemplateAndSearchFollowTheFrameArea) {
  const auto g = vantix::makeRegistrationGeometry(1920, 1080, 20);
  EXPECT_EQ(std::vector<int>({g.sizeStep, g.templateSide, g.searchSide}),
            std::vector<int>({190, 300, 570}));
  EXPECT_EQ(vantix::stitchTemplateSide(119), 200);  // just below a template step
  // Levels outside 0..4 stay inside the tables.
  float sharp = -1, match = -1;
  vantix::stitchStrictness(9, sharp, match);
  EXPECT_FLOAT_EQ(sharp, 0.1f);
  EXPECT_FLOAT_EQ(match, 0.95f);
  EXPECT_EQ(vantix::stitchScalePercent(0), 10);
  EXPECT_EQ(vantix::stitchScalePercent(77), 40);
}

TEST(StitchRegistration, CoarseShiftGivesTheMoveOfTheNewFrame) {
  const cv::Mat scene = vtest::stitchPhoto("aloeL.jpg");
  ASSERT_FALSE(scene.empty());
  // 50 x 30 images are padded to 75 x 45: odd transform sizes both ways.
  const std::vector<cv::Point2d> large = {{7, -4}, {-25, 11}, {3.5, 0}}, small = {{6, -3}};
  for (const cv::Size size : {cv::Size(320, 240), cv::Size(50, 30)}) {
    const cv::Mat ref = vtest::grayFloat(vtest::viewAt(scene, 300, 300, size.width, size.height));
    for (cv::Point2d d : size.width == 320 ? large : small) {
      const cv::Mat moved =
          vtest::grayFloat(vtest::viewAt(scene, 300 + d.x, 300 + d.y, size.width, size.height));
      vantix::PhaseCache cache;
      const cv::Point2d c = vantix::coarseShift(moved, ref, &cache);
      EXPECT_NEAR(c.x, d.x, 0.5) << d << size;
      EXPECT_NEAR(c.y, d.y, 0.5) << d << size;
      // The kept spectrum gives the same answer, and so does the library's
      // own phase correlation (on unpadded sizes).
      EXPECT_EQ(vantix::coarseShift(moved, ref, &cache), c);
      if (size.width == 320) {
        EXPECT_LT(cv::norm(c - cv::phaseCorrelate(moved, ref)), 0.07) << d;
      }
    }
  }
}

// Known shifts of a photo, of a smooth scene with too few corners for the
// feature path (template matching on the full images measures it), and of
// frames smaller than the template (clipped templates).
TEST(StitchRegistration, MeasuresKnownShifts) {
  const cv::Mat photo = vtest::stitchPhoto("aloeL.jpg");
  ASSERT_FALSE(photo.empty());
  const cv::Mat smooth = vtest::smoothScene(900, 1200, CV_8UC3);
  struct Case {
    const cv::Mat* scene;
    cv::Size size;
    cv::Point2d origin, shift;
    double tolerance, confidence;
  };
  const Case cases[] = {
      {&photo, {640, 480}, {300, 250}, {0, 0}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {3, -2}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {12.5, 7.25}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {-41.3, 18.6}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {150, -90}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {-230.4, 60}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {35, 170.7}, 0.25, 0.95},
      {&smooth, {640, 480}, {200, 200}, {40, -15}, 1.0, 0.9},
      {&photo, {100, 50}, {500, 500}, {8, -3}, 1.0, 0.8},
  };
  std::unique_ptr<Registrar> r;  // kept across the shifts of one scene and size
  const cv::Mat* last = nullptr;
  for (const Case& c : cases) {
    if (!r || r->g.frame != c.size || c.scene != last) {
      r = std::make_unique<Registrar>(c.size.width, c.size.height);
    }
    last = c.scene;
    const auto view = [&](cv::Point2d at) {
      return vtest::viewAt(*c.scene, at.x, at.y, c.size.width, c.size.height);
    };
    const Measurement m = r->measure(view(c.origin + c.shift), view(c.origin));
    SCOPED_TRACE(testing::Message() << c.size << " shift " << c.shift);
    EXPECT_NEAR(m.dx, c.shift.x, c.tolerance);
    EXPECT_NEAR(m.dy, c.shift.y, c.tolerance);
    EXPECT_GT(m.confidence, c.confidence);
    if (c.scene == &photo && c.size.width == 640) {
      EXPECT_TRUE(m.templatePath);
    }
  }
}

TEST(StitchRegistration, SubPixelPeaksOfAMatchSurface) {
  // A smooth peak centred between pixels.
  cv::Mat surface(21, 21, CV_32F);
  const double px = 9.3, py = 11.7;
  for (int y = 0; y < 21; ++y)
    for (int x = 0; x < 21; ++x)
      surface.at<float>(y, x) = static_cast<float>(std::exp(-((x - px) * (x - px) + (y - py) * (y - py)) / 8.0));
  const cv::Point2d p = vantix::parabolicPeak(surface, cv::Point(9, 12));
  EXPECT_NEAR(p.x, px, 0.1);
  EXPECT_NEAR(p.y, py, 0.1);
  const cv::Point2d c = vantix::weightedCentroid(surface, cv::Point(9, 12));
  EXPECT_NEAR(c.x, px, 0.15);
  EXPECT_NEAR(c.y, py, 0.15);
  EXPECT_THROW(vantix::weightedCentroid(cv::Mat(5, 5, CV_64F, cv::Scalar(1)), cv::Point(2, 2)),
               cv::Exception);
}

TEST(StitchRegistration, OffsetEstimateIgnoresWrongMatches) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> pos(0, 300), wrong(-300, 300);
  const cv::Point2f truth(12.4f, -7.6f);
  std::vector<cv::Point2f> p, q;
  for (int i = 0; i < 200; ++i) {
    const cv::Point2f a(pos(rng), pos(rng));
    p.push_back(a);
    // Corners sit on whole pixels: the matched point is rounded.
    if (i % 5 == 0) {
      q.push_back(a + cv::Point2f(wrong(rng), wrong(rng)));
    } else {
      q.emplace_back(std::round(a.x + truth.x), std::round(a.y + truth.y));
    }
  }
  const std::vector<int> kept = vantix::consistentPairs(p, q);
  int wrongKept = 0;
  for (int i : kept) wrongKept += i % 5 == 0;
  // A fifth of the input is wrong; the consistency filter keeps most right
  // pairs and few wrong ones.
  EXPECT_LT(wrongKept * 10, static_cast<int>(kept.size()));
  EXPECT_GT(kept.size(), 140u);
  const cv::Point2f e = vantix::estimateOffset(p, q, p, q, 30, 80, 0.2);
  EXPECT_NEAR(e.x, truth.x, 0.1);
  EXPECT_NEAR(e.y, truth.y, 0.1);
}

TEST(StitchRegistration, CornerThresholdFollowsTheGreyLevels) {
  cv::Mat bright(100, 100, CV_8U);
  cv::randu(bright, 100, 200);
  EXPECT_EQ(vantix::intermeansThreshold(bright, 30, 3, 0), 30);
  cv::Mat dark(100, 100, CV_8U);
  cv::randu(dark, 0, 20);
  // Grey levels 0..19: the intermeans level is near 10, the threshold 7.
  const int t = vantix::intermeansThreshold(dark, 30, 3, 0);
  EXPECT_GE(t, 5);
  EXPECT_LE(t, 9);
  EXPECT_EQ(vantix::intermeansThreshold(cv::Mat::zeros(50, 50, CV_8U), 30, 3, 0), 3);
  // Started at the limit, as registration does: 0.7 x 30 for any image.
  EXPECT_EQ(vantix::intermeansThreshold(dark, 30, 3, 30), 21);
}

TEST(StitchSharpness, BlurLowersTheScore) {
  const cv::Mat scene = vtest::stitchPhoto("aloeL.jpg");
  ASSERT_FALSE(scene.empty());
  const cv::Mat lut = vantix::makeGradientLut();
  const double f = vantix::stitchSharpnessFactor(20, 640, 480);
  const cv::Mat sharp = vtest::scaled(vtest::viewAt(scene, 100, 100, 640, 480), 20);
  cv::Mat blurred;
  cv::GaussianBlur(sharp, blurred, cv::Size(0, 0), 1.5);
  EXPECT_GT(vantix::sharpnessScore(sharp, lut, f), 1.5 * vantix::sharpnessScore(blurred, lut, f));
  EXPECT_EQ(vantix::sharpnessScore(cv::Mat(), lut, f), 0.0);
}

// --- decision rules -----------------------------------------------------------

Measurement measured(double c, double b, double dx, double dy) {
  Measurement m;
  m.confidence = c, m.background = b, m.dx = dx, m.dy = dy, m.templatePath = true;
  return m;
}

// Decision for a 640 x 480 frame of sharpness 0.5 at the default strictness.
int decide(TrackingState& s, const Measurement& m, bool& lost) {
  return vantix::decideRegistration(s, m, 0.5, 0.06f, 0.9f, cv::Size(640, 480), lost);
}

TEST(StitchDecision, ConfidentFramesMoveThePosition) {
  TrackingState s = running();
  s.lastGoodPosition = cv::Point2d(10, 20);
  bool lost = true;
  EXPECT_EQ(decide(s, measured(0.97, 0.2, 5.5, -3.25), lost), 1);
  EXPECT_FALSE(lost);
  EXPECT_DOUBLE_EQ(s.position.x, 15.5);
  EXPECT_DOUBLE_EQ(s.position.y, 16.75);
  // A pass on a frame not sharp enough is kept, not placed.
  EXPECT_EQ(vantix::decideRegistration(s, measured(0.97, 0.2, 1, 1), 0.08, 0.1f, 0.95f,
                                       cv::Size(640, 480), lost), 2);
}

TEST(StitchDecision, WeakMatchClearsTrackingThenNeedsMinMatch) {
  TrackingState s = running();
  bool lost = false;
  EXPECT_EQ(decide(s, measured(0.85, 0.25, 1, 1), lost), 4);
  EXPECT_FALSE(s.tracking);
  // Without tracking a margin above 0.5 is not enough below minMatch...
  EXPECT_EQ(decide(s, measured(0.88, 0.1, 1, 1), lost), 4);
  // ...and enough above it.
  EXPECT_EQ(decide(s, measured(0.93, 0.1, 1, 1), lost), 1);
  EXPECT_TRUE(s.tracking);
}

TEST(StitchDecision, LargeConfidentMoveOrTenWeakFramesLoseTracking) {
  TrackingState s = running();
  bool lost = false;
  EXPECT_EQ(decide(s, measured(0.4, 0.3, 0.7 * 640, 0), lost), 3);
  EXPECT_TRUE(lost);
  EXPECT_EQ(s.state, 2u);
  // Lost already: the same frame is out of reach without a new event.
  EXPECT_EQ(decide(s, measured(0.4, 0.3, 0.7 * 640, 0), lost), 3);
  EXPECT_FALSE(lost);

  TrackingState t = running();
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(decide(t, measured(0.2, 0.1, 3, 3), lost), 4);
    EXPECT_FALSE(lost);
  }
  EXPECT_EQ(t.missCount, 9u);
  EXPECT_EQ(decide(t, measured(0.2, 0.1, 3, 3), lost), 3);
  EXPECT_TRUE(lost);
  EXPECT_EQ(t.state, 2u);
}

TEST(StitchDecision, AnAmbiguousFallbackNeedsElevenSteadyPasses) {
  TrackingState s = running();
  Measurement m = measured(0.97, 0.1, 2, 2);
  m.templatePath = false;
  m.ambiguous = true;
  bool lost = false;
  for (int i = 0; i < 10; ++i) EXPECT_EQ(decide(s, m, lost), 2);
  EXPECT_EQ(decide(s, m, lost), 1);
  EXPECT_EQ(s.steadyCount, 0u);
}

}  // namespace
