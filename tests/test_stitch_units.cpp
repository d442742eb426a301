// The stitcher's parts without threads: registration against displacements
// made here, and the panorama canvas.

#include "livestitch/lvcanvas.h"
#include "livestitch/lvregister.h"
#include "support/test_support.h"

namespace {

using vantix::CLvCanvas;
using vantix::Measurement;

// The grey float image registration works on, of the w x h view at (x, y).
cv::Mat greyView(const cv::Mat& scene, double x, double y, int w, int h) {
  cv::Mat grey, out;
  cv::cvtColor(vtest::sampleWindow(scene, {x, y}, {w, h}), grey, cv::COLOR_BGR2GRAY);
  grey.convertTo(out, CV_32F);
  return out;
}
cv::Mat scaled(const cv::Mat& image, int percent) {
  cv::Mat out;
  cv::resize(image, out, cv::Size(image.cols * percent / 100, image.rows * percent / 100));
  return out;
}

// Known shifts of a photo, of a blurred texture with too few corners for the
// feature path, and of frames smaller than the template.
TEST(StitchRegistration, MeasuresKnownShifts) {
  const cv::Mat photo = vtest::photo("aloeL.jpg");
  ASSERT_FALSE(photo.empty());
  cv::Mat smooth;
  cv::GaussianBlur(vtest::texturedScene({1200, 900}), smooth, {}, 8.0);
  const struct {
    const cv::Mat* scene;
    cv::Size size;
    cv::Point2d origin, shift;
    double tolerance, confidence;
  } cases[] = {
      {&photo, {640, 480}, {300, 250}, {0, 0}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {12.5, 7.25}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {-41.3, 18.6}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {150, -90}, 0.25, 0.95},
      {&photo, {640, 480}, {300, 250}, {-230.4, 60}, 0.25, 0.95},
      {&smooth, {640, 480}, {200, 200}, {40, -15}, 1.0, 0.9},
      {&photo, {100, 50}, {500, 500}, {8, -3}, 1.0, 0.8},
  };
  auto orb = cv::ORB::create(5000, 1.2f, 8, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20);
  auto matcher = cv::DescriptorMatcher::create("BruteForce-Hamming");
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.size << " shift " << c.shift);
    const auto g = vantix::makeRegistrationGeometry(c.size.width, c.size.height, 20);
    vantix::TemplateOrigins origins, alt;
    const cv::Mat a = greyView(*c.scene, c.origin.x + c.shift.x, c.origin.y + c.shift.y,
                               c.size.width, c.size.height);
    const cv::Mat b = greyView(*c.scene, c.origin.x, c.origin.y, c.size.width, c.size.height);
    const Measurement m = vantix::measureDisplacement(a, scaled(a, 20), b, scaled(b, 20), g, *orb,
                                                      *matcher, origins, alt);
    EXPECT_NEAR(m.dx, c.shift.x, c.tolerance);
    EXPECT_NEAR(m.dy, c.shift.y, c.tolerance);
    EXPECT_GT(m.confidence, c.confidence);
  }
}

std::unique_ptr<CLvCanvas> makeCanvas(int w, int h, uint32_t background) {
  return std::make_unique<CLvCanvas>(0, w, h, 4 * w, 4 * h, cv::Point(2 * w, 2 * h), background,
                                     20, nullptr, nullptr);
}
cv::Mat uniform(int w, int h, int value) { return cv::Mat(h, w, CV_8UC3, cv::Scalar::all(value)); }

TEST(StitchCanvas, FramesNearTheLastDrawnAndTheDrawQueueLimit) {
  auto canvas = makeCanvas(640, 480, 2);
  canvas->holdDrawingForTest(true);
  const cv::Mat f = uniform(640, 480, 90);
  EXPECT_TRUE(canvas->enqueue(f, 1000, 700));
  // Within a tenth of a frame of the last drawn one: not drawn again.
  EXPECT_FALSE(canvas->enqueue(f, 1064, 700));
  EXPECT_FALSE(canvas->enqueue(f, 1000 - 64, 700 + 48));
  EXPECT_TRUE(canvas->enqueue(f, 1065, 700));
  EXPECT_TRUE(canvas->enqueue(f, 1065, 700 + 49));
  canvas->holdDrawingForTest(false);
  canvas->waitIdle();

  // The draw queue keeps the newest eleven: the corner only the first of
  // twelve frames covers stays background.
  auto small = makeCanvas(100, 50, 2);
  small->holdDrawingForTest(true);
  for (int i = 0; i < 12; ++i) small->enqueue(uniform(100, 50, 10 + i), 100 + i % 3 * 20, 50 + i / 3 * 10);
  EXPECT_EQ(small->queuedDraws(), 11u);
  small->holdDrawingForTest(false);
  small->waitIdle();
  EXPECT_EQ(cv::countNonZero(small->image()(cv::Rect(100, 50, 20, 10)).reshape(1)), 0);
}

// Growing left and up moves the content and the crop rectangle by the
// growth, paints only the new area (with the checkerboard a fresh canvas of
// that size has), and grows one step of four frames a placement.
TEST(StitchCanvas, Growth) {
  auto canvas = makeCanvas(100, 50, 0);
  int x = 0, y = 0;
  canvas->placeCheck(x, y);
  canvas->enqueue(uniform(100, 50, 77), x, y);
  canvas->waitIdle();
  int gx = -250, gy = -120;
  ASSERT_TRUE(canvas->placeCheck(gx, gy).grow);
  // Until the growth the crop rectangle is the old canvas's.
  EXPECT_EQ(canvas->cropRect(), cv::Rect(200, 100, 100, 50));
  canvas->grow(gx, gy);
  EXPECT_EQ(cv::Point(gx, gy), cv::Point(350, 180));
  EXPECT_EQ(canvas->image().size(), cv::Size(800, 400));
  EXPECT_EQ(canvas->image().at<cv::Vec3b>(300, 600), cv::Vec3b(77, 77, 77));
  EXPECT_EQ(canvas->cropRect(), cv::Rect(350, 180, 350, 170));
  // The new area: 128-pixel squares from the new canvas's bottom-left
  // corner, the lowest one light grey.
  const cv::Mat grown = canvas->image();
  const cv::Rect old(canvas->shift(), cv::Size(400, 200));
  for (int y = 0; y < grown.rows; y += 7) {
    for (int x = 0; x < grown.cols; x += 7) {
      const bool light = ((grown.rows - 1 - y) / 128 + x / 128) % 2 == 0;
      if (old.contains({x, y})) continue;
      ASSERT_EQ(grown.at<cv::Vec3b>(y, x), cv::Vec3b::all(light ? 204 : 255)) << x << "," << y;
    }
  }

  auto far = makeCanvas(100, 50, 1);
  int fx = -700, fy = 0;  // five frame widths left of the canvas
  far->placeCheck(fx, fy);
  far->grow(fx, fy);
  EXPECT_EQ(fx, -100);  // still outside after one step: not drawn
  EXPECT_TRUE(far->enqueue(uniform(100, 50, 0), fx, fy));
  far->waitIdle();
  EXPECT_EQ(cv::countNonZero(far->image().reshape(1) != 255), 0);
}

// A frame is copied where it covers nothing; over earlier content it fades
// in without a seam (a flat 100 / 140 step gives no jump above 6).
TEST(StitchBlend, UncoveredPartsAreCopiedAndOverlapsHaveNoSeam) {
  cv::Mat canvas(800, 1000, CV_8UC3, cv::Scalar::all(0));
  cv::Mat coverage = cv::Mat::zeros(800 / 4, 1000 / 4, CV_8U);
  const cv::Mat a = vtest::randomImage(400, 480, CV_8UC3, 5);
  vantix::blendFrameInto(canvas, coverage, a, cv::Point(40, 40));
  EXPECT_EQ(cv::norm(canvas(cv::Rect(40, 40, 480, 400)), a, cv::NORM_INF), 0.0);
  canvas(cv::Rect(40, 40, 480, 400)).setTo(cv::Scalar::all(100));
  const cv::Point at(277, 213);
  vantix::blendFrameInto(canvas, coverage, uniform(480, 400, 140), at);
  cv::Mat gray, g16;
  cv::cvtColor(canvas(cv::Rect(at, cv::Size(480, 400))), gray, cv::COLOR_BGR2GRAY);
  EXPECT_EQ(cv::countNonZero(gray(cv::Rect(244, 0, 236, 400)) != 140), 0);
  EXPECT_EQ(cv::countNonZero(gray(cv::Rect(0, 228, 480, 172)) != 140), 0);
  EXPECT_LT(gray.at<uint8_t>(1, 1), 110);
  EXPECT_EQ(gray.at<uint8_t>(100, 100), 140);
  gray.convertTo(g16, CV_16S);
  cv::Mat dx = cv::abs(g16(cv::Rect(1, 0, 479, 400)) - g16(cv::Rect(0, 0, 479, 400)));
  cv::Mat dy = cv::abs(g16(cv::Rect(0, 1, 480, 399)) - g16(cv::Rect(0, 0, 480, 399)));
  // Where the two frames' borders cross the weight jumps at once.
  for (const cv::Point& crossing : {cv::Point(243, 0), cv::Point(0, 227)}) {
    const cv::Rect r(crossing - cv::Point(4, 4), cv::Size(9, 9));
    dx(r & cv::Rect(0, 0, dx.cols, dx.rows)).setTo(0);
    dy(r & cv::Rect(0, 0, dy.cols, dy.rows)).setTo(0);
  }
  double maxStep = 0;
  for (const cv::Mat& steps : {dx, dy}) {
    cv::minMaxLoc(steps, nullptr, &maxStep);
    EXPECT_LE(maxStep, 6);
  }
}

}  // namespace
