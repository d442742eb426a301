// Edge sessions: search-area arithmetic, grey levels, the adaptive smoothing
// against a per-pixel reference, the snapping rule and the C interface.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <vector>

#include <opencv2/imgproc.hpp>

#include <vantix.h>
#include "api/host_allocator.h"
#include "imgutil/edge.h"
#include "support/test_support.h"

namespace {

using vantix::CEdgeSession;
using vantix::edgeSearchArea;

void* testAlloc(uint64_t bytes) {
  return std::malloc(bytes);
}

// Adaptive smoothing written out pixel by pixel, the slow way: meanStdDev of
// the patch, a fresh kernel matrix, then the weighted sum.
cv::Mat referenceSmooth(const cv::Mat& src) {
  cv::Mat dst = src.clone();
  cv::Mat kernel(3, 3, CV_64F);
  for (int y = 1; y + 1 < src.rows; ++y) {
    for (int x = 1; x + 1 < src.cols; ++x) {
      const cv::Mat patch = src(cv::Rect(x - 1, y - 1, 3, 3));
      cv::Scalar mean, stddev;
      cv::meanStdDev(patch, mean, stddev);
      const double sigma = std::max(std::min(stddev[0] / 30.0 * 2.5 + 0.5, 3.0), 0.5);
      double sum = 0.0;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          const double w =
              std::exp(-(dx * dx + dy * dy) / (2 * sigma * sigma)) / (2 * CV_PI * sigma * sigma);
          kernel.at<double>(dy + 1, dx + 1) = w;
          sum += w;
        }
      }
      kernel *= 1.0 / sum;
      double acc = 0.0;
      for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) acc += patch.at<uint8_t>(i, j) * kernel.at<double>(i, j);
      }
      dst.at<uint8_t>(y, x) = cv::saturate_cast<uint8_t>(acc);
    }
  }
  return dst;
}

// Neighbourhoods whose weighted sum lies so near a rounding boundary that
// the smoothing must build their own kernel (found by search).
const uint8_t kNearTies[][9] = {
    {118, 109, 116, 109, 116, 120, 110, 114, 120}, {165, 157, 154, 155, 161, 166, 160, 162, 165},
    {168, 170, 162, 162, 167, 160, 172, 172, 166}, {167, 167, 157, 168, 162, 168, 163, 157, 161},
    {146, 147, 157, 149, 153, 154, 157, 158, 152}, {32, 32, 41, 38, 38, 43, 43, 43, 36},
    {11, 20, 24, 19, 19, 21, 26, 20, 15},          {117, 115, 116, 125, 120, 127, 123, 125, 124},
    {168, 173, 176, 166, 175, 172, 180, 177, 176}, {60, 53, 60, 54, 58, 49, 56, 64, 56},
    {88, 77, 86, 86, 82, 82, 79, 79, 75},          {98, 124, 106, 131, 95, 121, 109, 118, 120}};

// A B G R frame re-laid in a session format, rows at that format's stride
// (3-channel rows padded to 4 bytes, 16-bit samples scaled by 257).
std::vector<uint8_t> frameInFormat(const cv::Mat& bgr, uint32_t format) {
  const bool deep = format == 1 || format == 3;
  const int channels = format >= 2 ? 4 : 3;
  const size_t rowBytes = static_cast<size_t>(bgr.cols) * channels * (deep ? 2 : 1);
  const size_t stride = channels == 3 ? (rowBytes + 3) & ~size_t{3} : rowBytes;
  std::vector<uint8_t> buffer(stride * bgr.rows);
  cv::Mat laid = bgr;
  if (channels == 4) cv::cvtColor(bgr, laid, cv::COLOR_BGR2BGRA);
  cv::Mat wrapped(bgr.rows, bgr.cols, CV_MAKETYPE(deep ? CV_16U : CV_8U, channels), buffer.data(),
                  stride);
  laid.convertTo(wrapped, wrapped.type(), deep ? 257.0 : 1.0);
  return buffer;
}

TEST(EdgeSearchArea, TruncatesAndClips) {
  // Near the left border: r = 30 > 10, so the area starts at 0 and shrinks.
  vantix::EdgeSearchArea a = edgeSearchArea(20, 10, 100, 640, 480);
  EXPECT_EQ(a.rect, cv::Rect(0, 70, 40, 60));
  EXPECT_EQ(a.centre, cv::Point(10, 30));
  // Clipped at the right and bottom borders: 60 + (640 - 660) = 40.
  a = edgeSearchArea(20, 630, 470, 640, 480);
  EXPECT_EQ(a.rect, cv::Rect(600, 440, 40, 40));
  EXPECT_EQ(a.centre, cv::Point(30, 30));
  // Odd size, r = 10.5: left (int)39.5 = 39 and centre (int)10.5 = 10, one
  // pixel short of the point; at the top (int)15.5 = 15 rows, centre 4.
  a = edgeSearchArea(7, 50, 5, 640, 480);
  EXPECT_EQ(a.rect, cv::Rect(39, 0, 21, 15));
  EXPECT_EQ(a.centre, cv::Point(10, 4));
}

TEST(EdgeSession, SizeRulesAndNullBuffer) {
  CEdgeSession session(VANTIX_FORMAT_BGR8, 640, 480, 10);
  int32_t x = 320, y = 240;
  const std::pair<uint32_t, uint32_t> sizes[] = {{0, 10}, {51, 10}, {20, 20}, {0, 20}, {50, 50}};
  for (const auto& [given, kept] : sizes) {
    EXPECT_EQ(session.get(nullptr, &x, &y, given), 0);
    EXPECT_EQ(session.size(), kept) << "size " << given;
    EXPECT_EQ(session.searchRect().width, static_cast<int>(3 * kept));
  }
  EXPECT_EQ(cv::Point(x, y), cv::Point(320, 240));
}

TEST(EdgeGrey, ChannelWeightsPerFormat) {
  const auto grey = [](uint32_t format, int type, cv::Scalar value) {
    cv::Mat out(1, 1, CV_8UC1, cv::Scalar(7));
    vantix::edgeGreyFromRegion(format, cv::Mat(1, 1, type, value), out);
    return static_cast<int>(out.at<uint8_t>(0, 0));
  };
  // 8-bit formats weight channel 0 as red, round(0.299 * 255) = 76, and
  // channel 2 as blue, round(0.114 * 255) = 29; alpha is ignored.
  EXPECT_EQ(grey(0, CV_8UC3, {255, 0, 0}), 76);
  EXPECT_EQ(grey(0, CV_8UC3, {0, 0, 255}), 29);
  EXPECT_EQ(grey(2, CV_8UC4, {255, 0, 0, 0}), 76);
  EXPECT_EQ(grey(2, CV_8UC4, {0, 0, 0, 255}), 0);
  // 16-bit: (c0 * 299 + c1 * 587 + c2 * 114) / 256000, truncated.
  EXPECT_EQ(grey(1, CV_16UC3, cv::Scalar::all(65535)), 255);
  EXPECT_EQ(grey(1, CV_16UC3, {65535, 0, 0}), 76);  // 76.5
  EXPECT_EQ(grey(3, CV_16UC4, {65535, 65535, 65535, 0}), 255);
}

TEST(EdgeSmoothing, MatchesPerPixelKernelBitForBit) {
  cv::RNG rng(17);
  // Noise, a scene with shapes, a flat image, the smallest image with an
  // inner pixel, one that is all border, and low and moderate contrast noise.
  std::vector<cv::Mat> images = {
      vtest::randomImage(150, 150, CV_8UC1, 3), vtest::smoothScene(120, 160, CV_8UC1),
      cv::Mat(10, 10, CV_8UC1, cv::Scalar(255)), vtest::randomImage(3, 3, CV_8UC1, 4),
      vtest::randomImage(2, 9, CV_8UC1, 5)};
  for (int i = 0; i < 6; ++i) {
    cv::Mat m(64, 64, CV_8UC1);
    const int low = rng.uniform(0, 200);
    rng.fill(m, cv::RNG::UNIFORM, low, low + (i < 3 ? 4 : 60));
    images.push_back(m);
  }
  cv::Mat ties(3, 3 * static_cast<int>(std::size(kNearTies)), CV_8UC1);
  for (size_t k = 0; k < std::size(kNearTies); ++k) {
    cv::Mat(3, 3, CV_8UC1, const_cast<uint8_t*>(kNearTies[k]))
        .copyTo(ties.colRange(3 * k, 3 * k + 3));
  }
  images.push_back(ties);

  cv::Mat table;  // shared across images, as a session keeps it
  for (size_t i = 0; i < images.size(); ++i) {
    cv::Mat fast;
    vantix::SmoothingStats stats;
    vantix::adaptiveSmooth(images[i], fast, table, &stats);
    const cv::Mat expected = referenceSmooth(images[i]);
    ASSERT_EQ(fast.size(), expected.size());
    EXPECT_EQ(cv::countNonZero(fast != expected), 0) << "image " << i;
    if (images[i].data == ties.data) {
      EXPECT_GE(stats.rebuilt, static_cast<int64_t>(std::size(kNearTies)));
    }
  }
}

TEST(EdgeSnap, NearestPointRule) {
  using Contours = std::vector<std::vector<cv::Point>>;
  const cv::Point c(30, 30);
  cv::Point t;
  EXPECT_FALSE(vantix::nearestEdgePoint({}, c, 20, &t));
  // Exactly at the size is not taken, one pixel nearer is.
  EXPECT_FALSE(vantix::nearestEdgePoint(Contours{{{50, 30}}, {{42, 46}}}, c, 20, &t));
  ASSERT_TRUE(vantix::nearestEdgePoint(Contours{{{50, 30}}, {{42, 45}}}, c, 20, &t));
  EXPECT_EQ(t, cv::Point(42, 45));
  // Equal distances: the first point found wins, within and across contours.
  ASSERT_TRUE(
      vantix::nearestEdgePoint(Contours{{{30, 45}, {30, 40}, {30, 20}}, {{40, 30}}}, c, 20, &t));
  EXPECT_EQ(t, cv::Point(30, 40));
  // A point on the centre ends the search: a click on an edge stays put.
  ASSERT_TRUE(vantix::nearestEdgePoint(Contours{{{31, 30}, {30, 30}}, {{30, 30}}}, c, 1, &t));
  EXPECT_EQ(t, c);
}

// A bright 16 x 16 square on a dark frame of odd width (so 3-channel rows
// are padded).  Clicks a few pixels from it must land on a pixel touching
// the square's outline: its 3 x 3 neighbourhood straddles the drawn step.
TEST(EdgeSnap, LandsOnTheDrawnOutlineInEveryFormat) {
  const cv::Rect square(150, 100, 16, 16);
  cv::Mat bgr(240, 321, CV_8UC3, cv::Scalar::all(30));
  cv::rectangle(bgr, square, cv::Scalar::all(220), cv::FILLED);
  const auto onOutline = [&](cv::Point p) {
    int inside = 0;
    for (int dy = -1; dy <= 1; ++dy) {
      for (int dx = -1; dx <= 1; ++dx) inside += square.contains(p + cv::Point(dx, dy));
    }
    return inside > 0 && inside < 9;
  };
  const cv::Point clicks[] = {{146, 108}, {171, 103}, {158, 95}, {152, 112}, {162, 120}};
  for (uint32_t format = 0; format < 4; ++format) {
    const std::vector<uint8_t> frame = frameInFormat(bgr, format);
    CEdgeSession session(format, bgr.cols, bgr.rows, 20);
    for (const cv::Point& click : clicks) {
      int32_t x = click.x, y = click.y;
      ASSERT_EQ(session.get(frame.data(), &x, &y, 0), 1) << format << " " << click;
      EXPECT_TRUE(onOutline({x, y})) << format << " " << click << " -> " << cv::Point(x, y);
      EXPECT_LT(cv::norm(cv::Point(x, y) - click), 20.0);
    }
    // Flat surroundings, and an outline no nearer than 21 pixels: no move.
    for (const cv::Point& click : {cv::Point(60, 60), cv::Point(128, 108)}) {
      int32_t x = click.x, y = click.y;
      EXPECT_EQ(session.get(frame.data(), &x, &y, 0), 0) << format << " " << click;
      EXPECT_EQ(cv::Point(x, y), click);
    }
  }
}

// The size given at creation is not limited.  With 2809473810 and a point
// 2^31 left of and above the frame, the area arithmetic saturates: the area
// is the whole frame, with the point at (INT_MIN, INT_MIN) relative to it.
// Every contour point is farther than the size, so nothing moves; measuring
// those distances must not overflow (the sanitizer build checks that).
TEST(EdgeSession, SaturatedCentreOfAHugeSize) {
  cv::Mat bgr(48, 64, CV_8UC3, cv::Scalar::all(30));
  cv::rectangle(bgr, cv::Rect(20, 10, 16, 16), cv::Scalar::all(220), cv::FILLED);
  const std::vector<uint8_t> frame = frameInFormat(bgr, 0);
  CEdgeSession session(0, 64, 48, 2809473810u);
  int32_t x = -2147475748, y = INT32_MIN;
  EXPECT_EQ(session.get(frame.data(), &x, &y, 0), 0);
  EXPECT_EQ(session.searchRect(), cv::Rect(0, 0, 64, 48));
  EXPECT_EQ(cv::Point(x, y), cv::Point(-2147475748, INT32_MIN));
}

TEST(EdgeExports, LifecycleAndExceptions) {
  vantix::setHostAllocator(nullptr);  // the state of a fresh process
  EXPECT_EQ(vantix_edge_new(0, 640, 480, 20), nullptr);
  vantix_init(nullptr);
  EXPECT_EQ(vantix_edge_new(0, 640, 480, 20), nullptr);
  vantix_init(testAlloc);
  VantixEdge* edge = vantix_edge_new(0, 320, 240, 20);
  ASSERT_NE(edge, nullptr);

  cv::Mat bgr(240, 320, CV_8UC3, cv::Scalar::all(30));
  cv::rectangle(bgr, cv::Rect(150, 100, 16, 16), cv::Scalar::all(220), cv::FILLED);
  const std::vector<uint8_t> frame = frameInFormat(bgr, 0);
  // Far left of the frame the area has a negative width; just past the
  // right border it is empty, refused inside the take-in lock.
  int32_t x = -40, y = 100;
  EXPECT_THROW(vantix_edge_get(edge, frame.data(), &x, &y, 0), cv::Exception);
  x = 350;
  EXPECT_THROW(vantix_edge_get(edge, frame.data(), &x, &y, 0), cv::Exception);
  // The lock was released: the next call goes through.
  x = 146, y = 108;
  EXPECT_EQ(vantix_edge_get(edge, frame.data(), &x, &y, 0), 1);
  EXPECT_NE(cv::Point(x, y), cv::Point(146, 108));
  vantix_edge_delete(edge);
  vantix_edge_delete(nullptr);
  vantix_init(nullptr);
}

}  // namespace
