// The panorama canvas: background, placement, growth, draw queue, blending.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <utility>

#include <opencv2/imgproc.hpp>

#include "livestitch/lvcanvas.h"
#include "support/test_support.h"

namespace {

using vantix::CLvCanvas;

std::unique_ptr<CLvCanvas> makeCanvas(int w, int h, uint32_t background = 0, uint32_t format = 0) {
  return std::make_unique<CLvCanvas>(format, w, h, 4 * w, 4 * h, cv::Point(2 * w, 2 * h),
                                     background, 20, nullptr, nullptr);
}

cv::Mat uniform(int w, int h, int value) { return cv::Mat(h, w, CV_8UC3, cv::Scalar::all(value)); }

TEST(StitchCanvas, BackgroundsFillTheWholeImage) {
  cv::Mat image(200, 400, CV_8UC3);
  vantix::fillBackground(image, 0);
  // Last 128 rows: the squares start at column 0; the block row above (cut
  // at the top) starts at column 128.
  const std::pair<cv::Rect, int> squares[] = {
      {{0, 72, 128, 128}, 204}, {{128, 72, 128, 128}, 255}, {{256, 72, 128, 128}, 204},
      {{384, 72, 16, 128}, 255}, {{0, 0, 128, 72}, 255},    {{128, 0, 128, 72}, 204}};
  for (const auto& [r, value] : squares) {
    EXPECT_EQ(cv::countNonZero(image(r).reshape(1) != value), 0) << r;
  }

  cv::Mat bgra(60, 70, CV_8UC4);
  vantix::fillBackground(bgra, 1);
  EXPECT_EQ(cv::countNonZero(bgra.reshape(1) != 255), 0);
  vantix::fillBackground(bgra, 2);
  EXPECT_EQ(cv::countNonZero(bgra.reshape(1)), 0);
}

TEST(StitchCanvas, FirstPlacementAndCropRectangle) {
  // The first placement itself is checked through the session; here the
  // crop rectangle grows with a second one.
  auto canvas = makeCanvas(100, 50);
  int x = 0, y = 0;
  const auto answer = canvas->placeCheck(x, y);
  EXPECT_TRUE(answer.consistent && !answer.grow);
  int x2 = 30, y2 = -20;
  canvas->placeCheck(x2, y2);
  EXPECT_EQ(canvas->cropRect(), cv::Rect(200, 80, 130, 70));
  EXPECT_EQ(canvas->toPanorama(cv::Point(230, 80)), cv::Point(30, -20));
}

TEST(StitchCanvas, FramesNearTheLastDrawnOneAreSkipped) {
  auto canvas = makeCanvas(640, 480);
  canvas->holdDrawingForTest(true);
  const cv::Mat f = uniform(640, 480, 90);
  EXPECT_TRUE(canvas->enqueue(f, 1000, 700));
  for (int dx = 4; dx <= 64; dx += 4) EXPECT_FALSE(canvas->enqueue(f, 1000 + dx, 700)) << dx;
  EXPECT_FALSE(canvas->enqueue(f, 1000 - 64, 700 + 48));
  EXPECT_TRUE(canvas->enqueue(f, 1065, 700));
  EXPECT_TRUE(canvas->enqueue(f, 1065, 700 + 49));
  EXPECT_EQ(canvas->queuedDraws(), 3u);
  canvas->holdDrawingForTest(false);
}

TEST(StitchCanvas, TheDrawQueueKeepsTheNewestEleven) {
  auto canvas = makeCanvas(100, 50, 2);
  canvas->holdDrawingForTest(true);
  for (int i = 0; i < 12; ++i) {
    // Each frame far enough from the previous one to be queued, its grey
    // level telling which it was.
    EXPECT_TRUE(canvas->enqueue(uniform(100, 50, 10 + i), 100 + (i % 3) * 20, 50 + (i / 3) * 10));
  }
  EXPECT_EQ(canvas->queuedDraws(), 11u);
  canvas->holdDrawingForTest(false);
  canvas->waitIdle();
  // The first frame was dropped: the corner that only it covered shows the
  // black background.
  cv::Mat corner = canvas->image()(cv::Rect(100, 50, 20, 10));
  EXPECT_EQ(cv::countNonZero(corner.reshape(1)), 0);
}

TEST(StitchCanvas, GrowingLeftAndUpShiftsContentAndCrop) {
  auto canvas = makeCanvas(100, 50, 2);
  int x = 0, y = 0;
  canvas->placeCheck(x, y);
  canvas->enqueue(uniform(100, 50, 77), x, y);
  canvas->waitIdle();
  ASSERT_EQ(canvas->image().at<cv::Vec3b>(100, 200), cv::Vec3b(77, 77, 77));

  int gx = -250, gy = -120;  // canvas (-50, -20): both axes must grow
  const auto answer = canvas->placeCheck(gx, gy);
  ASSERT_TRUE(answer.grow);
  ASSERT_EQ(cv::Point(gx, gy), cv::Point(-50, -20));
  // Until the growth the crop rectangle is the old canvas's: a reader
  // between the two never sees a rectangle outside the canvas.
  EXPECT_EQ(canvas->cropRect(), cv::Rect(200, 100, 100, 50));
  canvas->grow(gx, gy);
  EXPECT_EQ(cv::Point(gx, gy), cv::Point(350, 180));
  EXPECT_EQ(canvas->image().cols, 800);
  EXPECT_EQ(canvas->image().rows, 400);
  EXPECT_EQ(canvas->shift(), cv::Point(400, 200));
  // The old content moved by the growth; the new area is background.
  EXPECT_EQ(canvas->image().at<cv::Vec3b>(300, 600), cv::Vec3b(77, 77, 77));
  EXPECT_EQ(canvas->image().at<cv::Vec3b>(100, 200), cv::Vec3b(0, 0, 0));
  EXPECT_EQ(canvas->cropRect(), cv::Rect(350, 180, 350, 170));
  EXPECT_EQ(canvas->toPanorama(cv::Point(600, 300)), cv::Point(0, 0));
  // Growing right keeps the content in place.
  int rx = 700, ry = 0;
  canvas->placeCheck(rx, ry);
  canvas->grow(rx, ry);
  EXPECT_EQ(canvas->image().cols, 1200);
  EXPECT_EQ(canvas->shift(), cv::Point(400, 200));
  EXPECT_EQ(canvas->image().at<cv::Vec3b>(300, 600), cv::Vec3b(77, 77, 77));
}

// Growth paints only the new area, and paints it with the pattern of a
// whole fresh canvas of the new size.
TEST(StitchCanvas, GrowthFillsTheNewAreaWithTheCheckerboard) {
  for (const cv::Point at : {cv::Point(-250, -120), cv::Point(350, 170)}) {
    auto canvas = makeCanvas(100, 50, 0);
    int x = at.x, y = at.y;
    canvas->placeCheck(x, y);
    canvas->grow(x, y);
    cv::Mat grown = canvas->image().clone(), fresh(grown.size(), grown.type());
    vantix::fillBackground(fresh, 0);
    const cv::Rect old(canvas->shift(), cv::Size(400, 200));
    grown(old).setTo(0);
    fresh(old).setTo(0);
    EXPECT_EQ(cv::norm(grown, fresh, cv::NORM_INF), 0.0) << at;
  }
}

TEST(StitchCanvas, OneGrowthStepPerPlacement) {
  auto canvas = makeCanvas(100, 50, 1);
  int x = -700, y = 0;  // five frame widths left of the canvas
  canvas->placeCheck(x, y);
  ASSERT_EQ(x, -500);
  canvas->grow(x, y);
  EXPECT_EQ(x, -100);  // still outside after one step of four frames
  EXPECT_EQ(canvas->cropRect().x, x);  // yet counted in the crop rectangle
  EXPECT_TRUE(canvas->enqueue(uniform(100, 50, 0), x, y));
  canvas->waitIdle();
  // Not drawn: the white canvas is unchanged.
  EXPECT_EQ(cv::countNonZero(canvas->image().reshape(1) != 255), 0);
}

TEST(StitchBlend, UncoveredPartsAreCopiedAndOverlapsHaveNoSeam) {
  cv::Mat canvas(300, 500, CV_8UC3, cv::Scalar::all(0));
  cv::Mat coverage = cv::Mat::zeros(300 / 4, 500 / 4, CV_8U);
  const cv::Mat a = vtest::randomImage(120, 200, CV_8UC3, 5);
  vantix::blendFrameInto(canvas, coverage, a, cv::Point(41, 33));
  EXPECT_EQ(cv::norm(canvas(cv::Rect(41, 33, 200, 120)), a, cv::NORM_INF), 0.0);

  // A flat frame over a flat painted area, one brighter than the other:
  // the transition must be gradual everywhere.
  cv::Mat flatCanvas(800, 1000, CV_8UC3, cv::Scalar::all(0));
  cv::Mat cov = cv::Mat::zeros(800 / 4, 1000 / 4, CV_8U);
  vantix::blendFrameInto(flatCanvas, cov, uniform(480, 400, 100), cv::Point(40, 40));
  const cv::Point at(277, 213);
  vantix::blendFrameInto(flatCanvas, cov, uniform(480, 400, 140), at);
  cv::Mat gray;
  cv::cvtColor(flatCanvas(cv::Rect(at, cv::Size(480, 400))), gray, cv::COLOR_BGR2GRAY);
  // Part of the new frame outside the old one (u >= 243 or v >= 227): its
  // own values exactly.
  EXPECT_EQ(cv::countNonZero(gray(cv::Rect(244, 0, 236, 400)) != 140), 0);
  EXPECT_EQ(cv::countNonZero(gray(cv::Rect(0, 228, 480, 172)) != 140), 0);
  // Just inside the new frame's corner over the old content: mostly old;
  // deep inside the new frame: the new frame.
  EXPECT_LT(gray.at<uint8_t>(1, 1), 110);
  EXPECT_EQ(gray.at<uint8_t>(100, 100), 140);
  cv::Mat g16;
  gray.convertTo(g16, CV_16S);
  cv::Mat dx = cv::abs(g16(cv::Rect(1, 0, 479, 400)) - g16(cv::Rect(0, 0, 479, 400)));
  cv::Mat dy = cv::abs(g16(cv::Rect(0, 1, 480, 399)) - g16(cv::Rect(0, 0, 480, 399)));
  // Where the new frame's border crosses the old frame's border the weight
  // must go from old to new at once; those two corners are left out.
  for (const cv::Point& crossing : {cv::Point(243, 0), cv::Point(0, 227)}) {
    const cv::Rect r(crossing - cv::Point(4, 4), cv::Size(9, 9));
    dx(r & cv::Rect(0, 0, dx.cols, dx.rows)).setTo(0);
    dy(r & cv::Rect(0, 0, dy.cols, dy.rows)).setTo(0);
  }
  double maxStep = 0;
  cv::Point where;
  for (const cv::Mat& steps : {dx, dy}) {
    cv::minMaxLoc(steps, nullptr, &maxStep, nullptr, &where);
    EXPECT_LE(maxStep, 6) << where;  // of a 40-level step
  }
}

}  // namespace
