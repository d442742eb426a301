#include <gtest/gtest.h>

#include <cstring>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "imgutil/demosaic.h"
#include "support/bayer.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t kPatterns[] = {VANTIX_BAYER_RGGB, VANTIX_BAYER_BGGR, VANTIX_BAYER_GRBG,
                                  VANTIX_BAYER_GBRG};

// The sensor's frame: the FourCC's letters give the colours of the 2x2 cell
// in memory order.
cv::Mat mosaic(const cv::Mat& bgr, uint32_t pattern) {
  return vtest::mosaic(bgr, std::string(reinterpret_cast<const char*>(&pattern), 4));
}

struct Output {
  std::vector<uint8_t> bytes;
  uint32_t stride;
};

Output run(const cv::Mat& raw, int bits, uint32_t pattern, uint32_t outFormat, uint32_t algorithm,
           VantixResult* result) {
  const bool four = outFormat == 1 || outFormat == 3;
  const bool deep = bits > 8;
  const uint32_t width = raw.cols;
  const uint32_t stride = four ? width * (deep ? 8 : 4) : ((width * (deep ? 48 : 24) + 31) >> 3) & ~3u;
  Output out{std::vector<uint8_t>(static_cast<size_t>(stride) * raw.rows + 16, 0xCD), stride};
  *result = vantix_demosaic(raw.data, out.bytes.data(), width, raw.rows, bits, pattern, outFormat,
                            algorithm);
  return out;
}

TEST(Demosaic, ValidationCodesInOrder) {
  const cv::Mat raw8(8, 8, CV_8UC1, cv::Scalar(9));
  std::vector<uint8_t> dst(8 * 8 * 8, 0);
  const auto call = [&](int bits, uint32_t pattern, uint32_t outFormat, uint32_t algorithm) {
    return vantix_demosaic(raw8.data, dst.data(), 8, 8, bits, pattern, outFormat, algorithm);
  };
  const uint32_t rggb = VANTIX_BAYER_RGGB;
  const uint32_t rgbg = 0x47424752u;  // the letters R G B G: not a Bayer pattern
  for (int bits : {7, 17, -1, 0, 1 << 30}) EXPECT_EQ(call(bits, rggb, 0, 0), VANTIX_E_INVALIDARG);
  EXPECT_EQ(call(8, rggb, 4, 0), VANTIX_E_INVALIDARG);
  EXPECT_EQ(call(8, rggb, 0, 3), VANTIX_E_INVALIDARG);
  EXPECT_EQ(call(12, rggb, 0, 1), VANTIX_E_NOTIMPL);  // VNG needs 8-bit samples
  for (uint32_t outFormat : {1u, 3u}) {
    for (uint32_t algorithm : {1u, 2u}) EXPECT_EQ(call(8, rggb, outFormat, algorithm), VANTIX_E_NOTIMPL);
  }
  // An unknown pattern is only noticed after the checks above passed.
  EXPECT_EQ(call(12, rgbg, 0, 1), VANTIX_E_NOTIMPL);
  EXPECT_EQ(call(8, rgbg, 3, 2), VANTIX_E_NOTIMPL);
  EXPECT_EQ(call(8, rgbg, 0, 0), VANTIX_E_INVALIDARG);
  EXPECT_EQ(call(8, 0, 0, 0), VANTIX_E_INVALIDARG);
}

TEST(Demosaic, ConversionsThatRanReportFailure) {
  // Successful conversions and ones the image library refuses alike.
  const cv::Mat raw(16, 16, CV_8UC1, cv::Scalar(50));
  std::vector<uint8_t> dst(16 * 16 * 8);
  EXPECT_EQ(vantix_demosaic(raw.data, dst.data(), 16, 16, 8, VANTIX_BAYER_RGGB, 0, 0), VANTIX_E_FAIL);
  EXPECT_EQ(vantix_demosaic(raw.data, dst.data(), 0, 16, 8, VANTIX_BAYER_RGGB, 0, 0), VANTIX_E_FAIL);
  EXPECT_EQ(vantix_demosaic(raw.data, dst.data(), 16, 0, 8, VANTIX_BAYER_RGGB, 0, 1), VANTIX_E_FAIL);
}

// Flat colour patches recover their colour away from the patch borders.  The
// B-first and R-first patterns give true colours; the G-first ones come out
// with red and blue exchanged (a documented property of this function).
TEST(Demosaic, RecoversKnownColoursForEveryPatternOrderAndMethod) {
  cv::Mat truth(32, 48, CV_8UC3);
  truth(cv::Rect(0, 0, 24, 32)).setTo(cv::Scalar(30, 120, 220));
  truth(cv::Rect(24, 0, 24, 32)).setTo(cv::Scalar(200, 60, 90));
  const cv::Point probes[] = {{10, 16}, {36, 16}};

  for (uint32_t pattern : kPatterns) {
    const bool gFirst = pattern == VANTIX_BAYER_GRBG || pattern == VANTIX_BAYER_GBRG;
    const cv::Mat raw = mosaic(truth, pattern);
    for (uint32_t algorithm = 0; algorithm < 3; ++algorithm) {
      for (uint32_t outFormat = 0; outFormat < 4; ++outFormat) {
        const bool four = outFormat == 1 || outFormat == 3;
        if (four && algorithm != 0) continue;
        VantixResult result = 0;
        const Output out = run(raw, 8, pattern, outFormat, algorithm, &result);
        ASSERT_EQ(result, VANTIX_E_FAIL);
        const cv::Mat image(32, 48, four ? CV_8UC4 : CV_8UC3, const_cast<uint8_t*>(out.bytes.data()),
                            out.stride);
        const bool rgbOrder = outFormat >= 2;
        for (const cv::Point& p : probes) {
          const cv::Vec3b t = truth.at<cv::Vec3b>(p);
          const uint8_t* px = image.ptr<uint8_t>(p.y) + p.x * image.channels();
          int blue = rgbOrder ? px[2] : px[0];
          int red = rgbOrder ? px[0] : px[2];
          if (gFirst) std::swap(blue, red);
          const std::string where = "pattern " + std::to_string(pattern) + " algorithm " +
                                    std::to_string(algorithm) + " out " + std::to_string(outFormat);
          EXPECT_NEAR(blue, t[0], 2) << where;
          EXPECT_NEAR(px[1], t[1], 2) << where;
          EXPECT_NEAR(red, t[2], 2) << where;
          if (four) {
            EXPECT_EQ(px[3], 255) << where;
          }
        }
      }
    }
  }
}

// VNG's R G B output is its B G R output with red and blue exchanged, on
// small frames too (the image library's own fallback for frames under 8
// pixels a side wrote B G R whatever order was asked for).
TEST(Demosaic, VngRgbIsMirroredBgrAtEverySize) {
  for (const cv::Size size : {cv::Size(6, 10), cv::Size(5, 5), cv::Size(40, 24)}) {
    const cv::Mat truth(size, CV_8UC3, cv::Scalar(30, 120, 220));
    for (uint32_t pattern : {VANTIX_BAYER_RGGB, VANTIX_BAYER_BGGR}) {
      cv::Mat raw = mosaic(truth, pattern);
      if (size.width > 8) cv::randu(raw, 0, 256);
      VantixResult result = 0;
      const Output bgr = run(raw, 8, pattern, VANTIX_DEMOSAIC_BGR, VANTIX_DEMOSAIC_VNG, &result);
      const Output rgb = run(raw, 8, pattern, VANTIX_DEMOSAIC_RGB, VANTIX_DEMOSAIC_VNG, &result);
      const cv::Mat b(size, CV_8UC3, const_cast<uint8_t*>(bgr.bytes.data()), bgr.stride);
      const cv::Mat r(size, CV_8UC3, const_cast<uint8_t*>(rgb.bytes.data()), rgb.stride);
      cv::Mat mirrored;
      cv::cvtColor(b, mirrored, cv::COLOR_BGR2RGB);
      EXPECT_EQ(cv::norm(r, mirrored, cv::NORM_INF), 0.0) << size << " pattern " << pattern;
      if (size.width <= 8) {
        const cv::Vec3b centre = r.at<cv::Vec3b>(size.height / 2, size.width / 2);
        EXPECT_EQ(centre, cv::Vec3b(220, 120, 30)) << size << " pattern " << pattern;
      }
    }
  }
}

// Bilinear and edge-aware output is right whatever the row padding, and the
// padding bytes stay untouched; 4-channel rows are packed.
TEST(Demosaic, OutputIsCorrectInPaddedRows) {
  for (uint32_t algorithm : {0u, 2u}) {
    for (int bits : {8, 12}) {
      const int depth = bits == 8 ? CV_8U : CV_16U;
      for (int width : {101, 102, 103, 64}) {
        cv::Mat truth = vtest::smoothScene(40, width, CV_MAKETYPE(depth, 3));
        if (bits == 12) truth.convertTo(truth, CV_16U, 4095.0 / 65535.0);
        const cv::Mat raw = mosaic(truth, VANTIX_BAYER_RGGB);
        VantixResult result = 0;
        const Output out = run(raw, bits, VANTIX_BAYER_RGGB, 0, algorithm, &result);
        ASSERT_EQ(result, VANTIX_E_FAIL);
        const cv::Mat image(40, width, CV_MAKETYPE(depth, 3),
                            const_cast<uint8_t*>(out.bytes.data()), out.stride);
        // Against the truth, away from the borders and the drawn shapes'
        // edges: the median error is small.
        cv::Mat diff, flat;
        cv::absdiff(image(cv::Rect(4, 4, width - 8, 32)), truth(cv::Rect(4, 4, width - 8, 32)),
                    diff);
        diff.reshape(1, 1).convertTo(flat, CV_32F);
        std::nth_element(flat.begin<float>(), flat.begin<float>() + flat.cols / 2,
                         flat.end<float>());
        EXPECT_LE(flat.at<float>(0, flat.cols / 2), bits == 8 ? 3 : 48)
            << "algorithm " << algorithm << " bits " << bits << " width " << width;
        const size_t rowBytes = static_cast<size_t>(width) * 3 * (bits == 8 ? 1 : 2);
        for (int y = 0; y < 40; ++y) {
          for (size_t x = rowBytes; x < out.stride; ++x) {
            ASSERT_EQ(out.bytes[y * out.stride + x], 0xCD);
          }
        }
      }
    }
  }
  VantixResult result = 0;
  const Output packed =
      run(vtest::randomImage(20, 101, CV_8UC1, 5), 8, VANTIX_BAYER_BGGR, 1, 0, &result);
  EXPECT_EQ(packed.bytes[20 * 404], 0xCD);     // first byte past the image
  EXPECT_EQ(packed.bytes[20 * 404 - 1], 255);  // alpha of the last pixel
}

TEST(Demosaic, DeepSamplesKeepTheirRange) {
  cv::Mat truth(16, 16, CV_16UC3, cv::Scalar(100, 2000, 4095));
  const cv::Mat raw = mosaic(truth, VANTIX_BAYER_RGGB);
  for (uint32_t outFormat : {0u, 1u}) {
    VantixResult result = 0;
    const Output out = run(raw, 12, VANTIX_BAYER_RGGB, outFormat, 0, &result);
    const uint16_t* px = reinterpret_cast<const uint16_t*>(out.bytes.data() + 8 * out.stride) +
                         8 * (outFormat == 1 ? 4 : 3);
    EXPECT_EQ(px[0], 100);
    EXPECT_EQ(px[1], 2000);
    EXPECT_EQ(px[2], 4095);
    if (outFormat == 1) {
      EXPECT_EQ(px[3], 65535);
    }
  }
}

}  // namespace
