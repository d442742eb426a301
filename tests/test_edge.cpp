// Edge snapping: the adaptive smoothing against a per-pixel reference,
// clicks near a drawn square in every pixel format, and the refusals of the
// exports.

#include <iterator>

#include "api/host_allocator.h"
#include "imgutil/edge.h"
#include "support/test_support.h"

namespace {

// The smoothing written out pixel by pixel, the slow way: meanStdDev of the
// patch, a fresh kernel, then the weighted sum.
cv::Mat referenceSmooth(const cv::Mat& src) {
  cv::Mat dst = src.clone();
  for (int y = 1; y + 1 < src.rows; ++y) {
    for (int x = 1; x + 1 < src.cols; ++x) {
      const cv::Mat patch = src(cv::Rect(x - 1, y - 1, 3, 3));
      cv::Scalar mean, stddev;
      cv::meanStdDev(patch, mean, stddev);
      const double sigma = std::max(std::min(stddev[0] / 30.0 * 2.5 + 0.5, 3.0), 0.5);
      double kernel[9], sum = 0.0, acc = 0.0;
      for (int i = 0; i < 9; ++i) {
        const int dx = i % 3 - 1, dy = i / 3 - 1;
        kernel[i] =
            std::exp(-(dx * dx + dy * dy) / (2 * sigma * sigma)) / (2 * CV_PI * sigma * sigma);
        sum += kernel[i];
      }
      for (int i = 0; i < 9; ++i)
        acc += patch.at<uint8_t>(i / 3, i % 3) * (kernel[i] * (1.0 / sum));
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

TEST(EdgeSmoothing, MatchesThePerPixelKernelBitForBit) {
  cv::Mat scene, ties(3, 3 * static_cast<int>(std::size(kNearTies)), CV_8UC1);
  cv::cvtColor(vtest::texturedScene({160, 120}), scene, cv::COLOR_BGR2GRAY);
  std::vector<cv::Mat> images = {vtest::randomImage(150, 150, CV_8UC1, 3), scene,
                                 cv::Mat(10, 10, CV_8UC1, cv::Scalar(255)),
                                 vtest::randomImage(2, 9, CV_8UC1, 5)};
  for (int contrast : {4, 60}) {  // low and moderate contrast noise
    cv::Mat m(64, 64, CV_8UC1);
    cv::randu(m, 100, 100 + contrast);
    images.push_back(m);
  }
  for (size_t k = 0; k < std::size(kNearTies); ++k) {
    cv::Mat(3, 3, CV_8UC1, const_cast<uint8_t*>(kNearTies[k]))
        .copyTo(ties.colRange(3 * k, 3 * k + 3));
  }
  images.push_back(ties);
  cv::Mat table;  // kept across images, as a session keeps it
  for (size_t i = 0; i < images.size(); ++i) {
    cv::Mat fast;
    vantix::SmoothingStats stats;
    vantix::adaptiveSmooth(images[i], fast, table, &stats);
    EXPECT_EQ(cv::norm(fast, referenceSmooth(images[i]), cv::NORM_INF), 0.0) << "image " << i;
    if (i + 1 == images.size()) {
      EXPECT_GE(stats.rebuilt, static_cast<int64_t>(std::size(kNearTies)));
    }
  }
}

// A B G R frame re-laid in a session format at its default stride.
std::vector<uint8_t> frameInFormat(const cv::Mat& bgr, uint32_t format) {
  const bool deep = format == 1 || format == 3;
  const int type = CV_MAKETYPE(deep ? CV_16U : CV_8U, format >= 2 ? 4 : 3);
  const uint32_t stride = vantix_default_stride(bgr.cols, CV_ELEM_SIZE(type) * 8);
  std::vector<uint8_t> buffer(size_t{stride} * bgr.rows);
  cv::Mat laid = bgr, wrapped(bgr.rows, bgr.cols, type, buffer.data(), stride);
  if (format >= 2) cv::cvtColor(bgr, laid, cv::COLOR_BGR2BGRA);
  laid.convertTo(wrapped, type, deep ? 257.0 : 1.0);
  return buffer;
}

// A bright square on a dark frame of odd width (padded 3-channel rows):
// clicks a few pixels off it land on a pixel whose 3 x 3 neighbourhood
// straddles the square's outline; a click near its corner lands on the
// corner (contours keep the ends of straight runs).
TEST(EdgeSnap, ClicksLandOnTheDrawnOutlineInEveryFormat) {
  vantix_init([](uint64_t bytes) { return std::malloc(bytes); });
  const cv::Rect square(150, 100, 16, 16);
  cv::Mat bgr(240, 321, CV_8UC3, cv::Scalar::all(30));
  cv::rectangle(bgr, square, cv::Scalar::all(220), cv::FILLED);
  const auto onOutline = [&](cv::Point p) {
    int inside = 0;
    for (int i = 0; i < 9; ++i) inside += square.contains(p + cv::Point(i % 3 - 1, i / 3 - 1));
    return inside > 0 && inside < 9;
  };
  for (uint32_t format = 0; format < 5; ++format) {
    const std::vector<uint8_t> frame = frameInFormat(bgr, format == 4 ? 0 : format);
    VantixEdge* edge = vantix_edge_new(format == 4 ? 9 : format, bgr.cols, bgr.rows, 20);
    ASSERT_NE(edge, nullptr);
    for (const cv::Point click : {cv::Point(146, 108), cv::Point(171, 103), cv::Point(158, 95),
                                  cv::Point(152, 112), cv::Point(162, 120), cv::Point(147, 98)}) {
      int32_t x = click.x, y = click.y;
      ASSERT_EQ(vantix_edge_get(edge, frame.data(), &x, &y, 0), 1) << format << " " << click;
      EXPECT_TRUE(onOutline({x, y})) << format << " " << click << " -> " << cv::Point(x, y);
      EXPECT_LT(cv::norm(cv::Point(x, y) - click), 20.0);
      if (click == cv::Point(147, 98)) {
        EXPECT_LE(cv::norm(cv::Point(x, y) - square.tl()), 1.5);
      }
    }
    // Flat surroundings, and an outline no nearer than 21 pixels: no move.
    for (const cv::Point click : {cv::Point(60, 60), cv::Point(128, 108)}) {
      int32_t x = click.x, y = click.y;
      EXPECT_EQ(vantix_edge_get(edge, frame.data(), &x, &y, 0), 0) << format << " " << click;
      EXPECT_EQ(cv::Point(x, y), click);
    }
    vantix_edge_delete(edge);
  }
  vantix_init(nullptr);
}

// Refusals: no allocator, null outputs, an area wholly outside the frame or
// a size of 0 from creation (the image library's exception, the session's
// lock released).  Frames one pixel wide or high, huge search sizes and
// points far off the frame are inputs of the edge fuzz corpus, which every
// test build replays.
TEST(EdgeExports, RefusalsSizesAndExceptions) {
  vantix::setHostAllocator(nullptr);  // the state of a fresh process
  EXPECT_EQ(vantix_edge_new(0, 64, 48, 10), nullptr);
  vantix_init([](uint64_t bytes) { return std::malloc(bytes); });
  const cv::Mat frame = vtest::randomImage(48, 64, CV_8UC3, 6);
  VantixEdge* edge = vantix_edge_new(0, 64, 48, 0);
  int32_t x = 30, y = 20;
  EXPECT_THROW(vantix_edge_get(edge, frame.data, &x, &y, 0), cv::Exception);
  EXPECT_EQ(vantix_edge_get(edge, frame.data, nullptr, &y, 0), 0);
  EXPECT_EQ(vantix_edge_get(edge, frame.data, &x, nullptr, 0), 0);
  EXPECT_NO_THROW(vantix_edge_get(edge, nullptr, &x, &y, 5));  // a size 1..50 replaces the 0
  EXPECT_NO_THROW(vantix_edge_get(edge, frame.data, &x, &y, 0));
  x = 64 + 75;
  EXPECT_THROW(vantix_edge_get(edge, frame.data, &x, &y, 0), cv::Exception);
  x = 30;
  EXPECT_NO_THROW(vantix_edge_get(edge, frame.data, &x, &y, 51));  // 51 is ignored
  vantix_edge_delete(edge);
  vantix_edge_delete(nullptr);
  vantix_init(nullptr);  // clears the allocator again
  EXPECT_EQ(vantix_edge_new(0, 64, 48, 10), nullptr);
}

}  // namespace
