#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "api/pixel_format.h"
#include "support/test_support.h"

namespace {

using vantix::toOutputFormat;
using vantix::toWorkingImage;

TEST(PixelFormat, DefaultStrides) {
  // Three-channel rows pad to 4 bytes (606 to 608); unknown formats are format 0.
  const std::pair<uint32_t, uint32_t> strides[] = {
      {0, 304}, {1, 608}, {2, 404}, {3, 808}, {7, 304}};
  for (const auto& [format, stride] : strides)
    EXPECT_EQ(vantix::formatDefaultStride(format, 101), stride);
}

TEST(PixelFormat, FormatZeroSharesTheHostPixelsAndUnknownFormatsBehaveAlike) {
  // 5 pixels of 3 bytes pad to 16-byte rows; the padding must be skipped.
  std::vector<uint8_t> host(16 * 3);
  for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<uint8_t>(i);
  for (uint32_t format : {0u, 7u, 0xFFFFFFFFu}) {
    const cv::Mat w = toWorkingImage(format, host.data(), 5, 3, 0, true);
    ASSERT_EQ(w.type(), CV_8UC3);
    EXPECT_EQ(w.data, host.data());
    EXPECT_EQ(w.step[0], 16u);
    EXPECT_EQ(w.at<cv::Vec3b>(1, 0), cv::Vec3b(16, 17, 18));
    const cv::Mat out = toOutputFormat(format, w);
    EXPECT_EQ(out.data, w.data);
  }
}

TEST(PixelFormat, SixteenBitSamplesScaleBy257BothWays) {
  const uint16_t samples[] = {0, 257, 65535, 128, 129, 32896, 1000, 65534, 300};
  // Format 1, 3 pixels, explicit pitch with room to spare.
  std::vector<uint16_t> host(3 * 3 + 5, 0);
  std::copy(std::begin(samples), std::end(samples), host.begin());
  const cv::Mat w = toWorkingImage(1, host.data(), 3, 1, 3 * 6 + 10, true);
  ASSERT_EQ(w.type(), CV_8UC3);
  for (int i = 0; i < 9; ++i) {
    const int expected = static_cast<int>(std::lround(samples[i] / 257.0));
    EXPECT_EQ(w.ptr<uint8_t>(0)[i], expected) << samples[i];
  }
  const cv::Mat out = toOutputFormat(1, w);
  ASSERT_EQ(out.type(), CV_16UC3);
  EXPECT_EQ(out.at<cv::Vec3w>(0, 0)[2], 65535);  // 65535 -> 255 -> 65535
  EXPECT_EQ(out.at<cv::Vec3w>(0, 0)[1], 257);

  // Without the 8-bit flag the deep formats keep fractions.
  const cv::Mat d = toWorkingImage(1, host.data(), 3, 1, 0, false);
  ASSERT_EQ(d.type(), CV_64FC3);
  EXPECT_NEAR(d.at<cv::Vec3d>(0, 1)[0], 128 / 257.0, 1e-12);
}

TEST(PixelFormat, AlphaIsDroppedOnTheWayInAndMadeOpaqueOnTheWayOut) {
  const uint8_t bgra[] = {10, 20, 30, 0, 40, 50, 60, 77};
  const cv::Mat w = toWorkingImage(2, bgra, 2, 1, 0, true);
  ASSERT_EQ(w.type(), CV_8UC3);
  EXPECT_EQ(w.at<cv::Vec3b>(0, 1), cv::Vec3b(40, 50, 60));
  const cv::Mat out = toOutputFormat(2, w);
  ASSERT_EQ(out.type(), CV_8UC4);
  EXPECT_EQ(out.at<cv::Vec4b>(0, 0), cv::Vec4b(10, 20, 30, 255));

  const uint16_t bgra16[] = {65535, 0, 514, 3, 1, 2, 3, 4};
  const cv::Mat w16 = toWorkingImage(3, bgra16, 2, 1, 0, true);
  EXPECT_EQ(w16.at<cv::Vec3b>(0, 0), cv::Vec3b(255, 0, 2));
  const cv::Mat out16 = toOutputFormat(3, w16);
  ASSERT_EQ(out16.type(), CV_16UC4);
  EXPECT_EQ(out16.at<cv::Vec4w>(0, 0), cv::Vec4w(65535, 0, 514, 65535));
}

TEST(PixelFormat, RoundTripOfEveryFormatKeepsAnEightBitImage) {
  const cv::Mat working = vtest::smoothScene(37, 53, CV_8UC3);
  for (uint32_t format = 0; format < 4; ++format) {
    cv::Mat out = toOutputFormat(format, working).clone();
    ASSERT_EQ(out.type(), vantix::formatMatType(format));
    const cv::Mat back = toWorkingImage(format, out.data, out.cols, out.rows,
                                        static_cast<uint32_t>(out.step[0]), true);
    EXPECT_EQ(cv::norm(back, working, cv::NORM_INF), 0.0) << "format " << format;
  }
}

}  // namespace
