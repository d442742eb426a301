// The session pixel formats against the layouts written out by hand (the
// image header's bit counts are checked end to end by the resize tests).

#include "api/pixel_format.h"
#include "support/test_support.h"

namespace {

TEST(PixelFormat, EveryFormatRoundTripsAndReadsHostRowsAsDocumented) {
  using vantix::toOutputFormat;
  using vantix::toWorkingImage;
  const cv::Mat working = vtest::texturedScene({53, 37});
  const uint32_t strides101[] = {304, 608, 404, 808, 304};  // formats 0..3, 7
  for (uint32_t format : {0u, 1u, 2u, 3u, 7u}) {
    EXPECT_EQ(vantix::formatDefaultStride(format, 101), strides101[std::min(format, 4u)]);
    const cv::Mat out = toOutputFormat(format, working).clone();
    const cv::Mat back = toWorkingImage(format, out.data, out.cols, out.rows,
                                        static_cast<uint32_t>(out.step[0]), true);
    EXPECT_EQ(cv::norm(back, working, cv::NORM_INF), 0.0) << "format " << format;
  }
  // 16-bit samples: / 257 rounded on the way in (fractions kept on request),
  // * 257 on the way out; alpha is dropped, and made opaque on the way out.
  const uint16_t bgra16[] = {65535, 128, 129, 3, 32896, 1000, 65534, 4};
  const cv::Mat w16 = toWorkingImage(3, bgra16, 2, 1, 0, true);
  EXPECT_EQ(w16.at<cv::Vec3b>(0, 0), cv::Vec3b(255, 0, 1));
  EXPECT_EQ(w16.at<cv::Vec3b>(0, 1), cv::Vec3b(128, 4, 255));
  EXPECT_EQ(toOutputFormat(3, w16).at<cv::Vec4w>(0, 0), cv::Vec4w(65535, 0, 257, 65535));
  EXPECT_NEAR(toWorkingImage(1, bgra16, 2, 1, 0, false).at<cv::Vec3d>(0, 0)[1], 128 / 257.0, 1e-12);
  // Format 0 (and any unknown format) wraps the host rows, padding skipped.
  std::vector<uint8_t> host(16 * 3);
  for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<uint8_t>(i);
  const cv::Mat w = toWorkingImage(0xFFFFFFFFu, host.data(), 5, 3, 0, true);
  EXPECT_EQ(w.data, host.data());
  EXPECT_EQ(w.at<cv::Vec3b>(1, 0), cv::Vec3b(16, 17, 18));
}

}  // namespace
