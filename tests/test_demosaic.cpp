// Demosaicing raw frames made here from known colour images.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include <vantix.h>
#include <opencv2/imgproc.hpp>

#include "support/bayer.h"
#include "support/test_support.h"

namespace {

cv::Mat mosaic(const cv::Mat& bgr, uint32_t pattern) {
  return vtest::mosaic(bgr, std::string(reinterpret_cast<const char*>(&pattern), 4));
}

// Output of one call, in a buffer prefilled with 0xCD; `result` gets the code.
struct Output {
  std::vector<uint8_t> bytes;
  uint32_t stride;
  cv::Mat image;
};
Output run(const cv::Mat& raw, int bits, uint32_t pattern, uint32_t outFormat, uint32_t algorithm,
           VantixResult* result) {
  const bool four = outFormat == 1 || outFormat == 3;
  const int depth = bits > 8 ? CV_16U : CV_8U, channels = four ? 4 : 3;
  const uint32_t pixelBits = static_cast<uint32_t>(CV_ELEM_SIZE(CV_MAKETYPE(depth, channels)) * 8);
  const uint32_t stride =
      four ? raw.cols * pixelBits / 8 : vantix_default_stride(raw.cols, pixelBits);
  Output out{std::vector<uint8_t>(size_t{stride} * raw.rows + 16, 0xCD), stride, {}};
  *result = vantix_demosaic(raw.data, out.bytes.data(), raw.cols, raw.rows, bits, pattern,
                            outFormat, algorithm);
  out.image = cv::Mat(raw.rows, raw.cols, CV_MAKETYPE(depth, channels), out.bytes.data(), stride);
  return out;
}

TEST(Demosaic, RefusalsAndTheCodeOfAConversionThatRan) {
  const cv::Mat raw(8, 8, CV_8UC1, cv::Scalar(9));
  std::vector<uint8_t> dst(8 * 8 * 8, 0);
  const uint32_t rggb = VANTIX_BAYER_RGGB, rgbg = 0x47424752u;  // R G B G is no Bayer cell
  const struct {
    const void* src;
    void* dst;
    uint32_t side;
    int bits;
    uint32_t pattern, out, method;
    VantixResult expected;
  } cases[] = {
      {raw.data, dst.data(), 8, 7, rggb, 0, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 17, rggb, 0, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, -1, rggb, 0, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 8, rggb, 4, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 8, rggb, 0, 3, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 8, rgbg, 0, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 8, 0, 0, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 12, rggb, 0, 1, VANTIX_E_NOTIMPL},  // VNG takes 8 bits only
      {raw.data, dst.data(), 8, 8, rggb, 1, 1, VANTIX_E_NOTIMPL},   // 4 channels: bilinear only
      {raw.data, dst.data(), 8, 8, rggb, 3, 2, VANTIX_E_NOTIMPL},
      {raw.data, dst.data(), 8, 12, rgbg, 0, 1, VANTIX_E_NOTIMPL},  // the pattern is looked at last
      {raw.data, dst.data(), 8, 8, rggb, 0, 0, VANTIX_E_FAIL},      // ran, and succeeded
      {raw.data, dst.data(), 0, 8, rggb, 0, 0, VANTIX_E_FAIL},
      {nullptr, dst.data(), 4, 8, rggb, 0, 0, VANTIX_E_FAIL},
      {raw.data, nullptr, 4, 8, rggb, 0, 0, VANTIX_E_FAIL},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vantix_demosaic(c.src, c.dst, c.side, c.side, c.bits, c.pattern, c.out, c.method),
              c.expected)
        << c.side << " " << c.bits << " " << c.pattern << " " << c.out << " " << c.method;
  }
  for (uint32_t method = 0; method < 3; ++method) {  // too small for any method
    for (uint32_t side = 1; side <= 3; ++side) {
      EXPECT_EQ(vantix_demosaic(raw.data, dst.data(), side, side, 8, VANTIX_BAYER_GRBG, 0, method),
                VANTIX_E_FAIL)
          << side << " " << method;
    }
  }
}

// Flat patches come back in their colours away from the patch border.  The
// B-first and R-first patterns give true colours; the G-first ones come out
// with red and blue exchanged (as documented).
TEST(Demosaic, RecoversKnownColoursForEveryPatternOrderAndMethod) {
  cv::Mat truth(32, 48, CV_8UC3);
  truth.colRange(0, 24).setTo(cv::Scalar(30, 120, 220));
  truth.colRange(24, 48).setTo(cv::Scalar(200, 60, 90));
  for (uint32_t pattern :
       {VANTIX_BAYER_RGGB, VANTIX_BAYER_BGGR, VANTIX_BAYER_GRBG, VANTIX_BAYER_GBRG}) {
    const bool gFirst = pattern == VANTIX_BAYER_GRBG || pattern == VANTIX_BAYER_GBRG;
    for (uint32_t method = 0; method < 3; ++method) {
      for (uint32_t outFormat = 0; outFormat < 4; ++outFormat) {
        if (outFormat % 2 == 1 && method != 0) continue;
        VantixResult result = 0;
        const Output out = run(mosaic(truth, pattern), 8, pattern, outFormat, method, &result);
        ASSERT_EQ(result, VANTIX_E_FAIL);
        for (const cv::Point p : {cv::Point(10, 16), cv::Point(36, 16)}) {
          const cv::Vec3b t = truth.at<cv::Vec3b>(p);
          const uint8_t* px = out.image.ptr<uint8_t>(p.y) + p.x * out.image.channels();
          const bool swapped = (outFormat >= 2) != gFirst;
          const std::string where = std::to_string(pattern) + " method " + std::to_string(method) +
                                    " out " + std::to_string(outFormat);
          EXPECT_NEAR(px[swapped ? 2 : 0], t[0], 2) << where;
          EXPECT_NEAR(px[1], t[1], 2) << where;
          EXPECT_NEAR(px[swapped ? 0 : 2], t[2], 2) << where;
          if (outFormat % 2 == 1) {
            EXPECT_EQ(px[3], 255) << where;
          }
        }
      }
    }
  }
}

// Bilinear and edge-aware output is right in padded rows of 8- and 12-bit
// data, samples keep their range, and the padding stays untouched.
TEST(Demosaic, SmoothScenesInPaddedRowsAndDeepSamples) {
  for (uint32_t method : {0u, 2u}) {
    for (int bits : {8, 12}) {
      for (int width : {101, 102, 103, 64}) {
        cv::Mat truth = vtest::smoothScene(40, width, bits == 8 ? CV_8UC3 : CV_16UC3);
        if (bits == 12) truth.convertTo(truth, CV_16U, 4095.0 / 65535.0);
        VantixResult result = 0;
        const Output out =
            run(mosaic(truth, VANTIX_BAYER_RGGB), bits, VANTIX_BAYER_RGGB, 0, method, &result);
        cv::Mat diff, flat;
        const cv::Rect inner(4, 4, width - 8, 32);
        cv::absdiff(out.image(inner), truth(inner), diff);
        diff.reshape(1, 1).convertTo(flat, CV_32F);
        std::nth_element(flat.begin<float>(), flat.begin<float>() + flat.cols / 2,
                         flat.end<float>());
        EXPECT_LE(flat.at<float>(0, flat.cols / 2), bits == 8 ? 3 : 48)
            << "method " << method << " bits " << bits << " width " << width;
        const size_t rowBytes = out.image.cols * out.image.elemSize();
        for (int y = 0; y < 40; ++y) {
          for (size_t x = rowBytes; x < out.stride; ++x)
            ASSERT_EQ(out.bytes[y * out.stride + x], 0xCD);
        }
      }
    }
  }
  const cv::Mat deep(16, 16, CV_16UC3, cv::Scalar(100, 2000, 4095));
  VantixResult result = 0;
  const Output out = run(mosaic(deep, VANTIX_BAYER_RGGB), 12, VANTIX_BAYER_RGGB, 1, 0, &result);
  EXPECT_EQ(out.image.at<cv::Vec4w>(8, 8), cv::Vec4w(100, 2000, 4095, 65535));
  EXPECT_EQ(out.bytes[16 * out.stride], 0xCD);  // 4-channel rows are packed
}

}  // namespace
