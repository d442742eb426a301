// Pixel layouts that cross the interface: the image header's bit counts and
// the session pixel formats, against the layouts written out by hand.
#include <gtest/gtest.h>

#include "api/image_header.h"
#include "api/pixel_format.h"
#include "testing/scenes.h"

namespace {

TEST(ImageLayout, BitCountsStridesAndWhereThePixelsStart) {
  const struct {
    uint16_t bits;
    int32_t width;
    uint32_t stride;
    int type;
  } cases[] = {{8, 101, 104, CV_8UC1},  {12, 3, 8, CV_16UC1},    {16, 5, 12, CV_16UC1},
               {24, 101, 304, CV_8UC3}, {24, 100, 300, CV_8UC3}, {32, 7, 28, CV_8UC4},
               {30, 5, 32, CV_16UC3},   {33, 4, 24, CV_16UC3},   {36, 3, 20, CV_16UC3},
               {42, 2, 12, CV_16UC3},   {48, 1, 8, CV_16UC3},    {24, -3, 536870904u, CV_8UC3}};
  for (const auto& c : cases) {
    const VantixImageHeader h{40, c.width, 1, 1, c.bits, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(vantix::defaultStride(h), c.stride) << c.bits << " " << c.width;
    EXPECT_EQ(vantix::matTypeForBitCount(c.bits), c.type) << c.bits;
  }
  for (uint16_t bits : {0, 7, 17, 23, 25, 31, 40, 49, 64, 64 + 30}) {
    EXPECT_EQ(vantix::defaultStride({40, 10, 1, 1, bits, 0, 0, 0, 0, 0, 0}), 0xFFFFFFFFu) << bits;
    EXPECT_EQ(vantix::matTypeForBitCount(bits), -1) << bits;
  }
  // Pixels follow biSize bytes of header, and the colour table of 8-bit images.
  alignas(8) uint8_t storage[2048] = {};
  auto* h = reinterpret_cast<VantixImageHeader*>(storage);
  *h = {41, 4, 1, 1, 8, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(vantix::pixelsOf(h), storage + 41 + 1024);
  h->biBitCount = 16;
  EXPECT_EQ(vantix::pixelsOf(h), storage + 41);
}

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
