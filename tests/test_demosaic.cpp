// Demosaicing raw frames made here from known colour images.
#include "support/test_support.h"

namespace {

// The raw frame a colour sensor records: each pixel keeps the B G R channel
// its filter lets through; `pattern` names the 2x2 cell in memory order.
cv::Mat mosaic(const cv::Mat& bgr, uint32_t pattern) {
  cv::Mat planes[3], raw(bgr.size(), bgr.depth());
  cv::split(bgr, planes);
  for (int y = 0; y < bgr.rows; ++y) {
    for (int x = 0; x < bgr.cols; ++x) {
      const char c = reinterpret_cast<const char*>(&pattern)[y % 2 * 2 + x % 2];
      planes[c == 'B' ? 0 : c == 'G' ? 1 : 2].row(y).col(x).copyTo(raw.row(y).col(x));
    }
  }
  return raw;
}

// One call into a buffer prefilled with 0xCD; the code must say it ran.
struct Output {
  std::vector<uint8_t> bytes;
  uint32_t stride;
  cv::Mat image;
};
Output run(const cv::Mat& raw, int bits, uint32_t pattern, uint32_t outFormat, uint32_t method) {
  const bool four = outFormat == 1 || outFormat == 3;
  const int type = CV_MAKETYPE(bits > 8 ? CV_16U : CV_8U, four ? 4 : 3);
  const uint32_t pixelBits = static_cast<uint32_t>(CV_ELEM_SIZE(type) * 8);
  const uint32_t stride =
      four ? raw.cols * pixelBits / 8 : vantix_default_stride(raw.cols, pixelBits);
  Output out{std::vector<uint8_t>(size_t{stride} * raw.rows + 16, 0xCD), stride, {}};
  EXPECT_EQ(vantix_demosaic(raw.data, out.bytes.data(), raw.cols, raw.rows, bits, pattern,
                            outFormat, method),
            VANTIX_E_FAIL);
  out.image = cv::Mat(raw.rows, raw.cols, type, out.bytes.data(), stride);
  return out;
}

TEST(Demosaic, Refusals) {
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
      {raw.data, dst.data(), 8, 8, rggb, 4, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 8, rggb, 0, 3, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 8, rgbg, 0, 0, VANTIX_E_INVALIDARG},
      {raw.data, dst.data(), 8, 12, rggb, 0, 1, VANTIX_E_NOTIMPL},  // VNG takes 8 bits only
      {raw.data, dst.data(), 8, 8, rggb, 1, 1, VANTIX_E_NOTIMPL},   // 4 channels: bilinear only
      {raw.data, dst.data(), 8, 12, rgbg, 0, 1, VANTIX_E_NOTIMPL},  // the pattern is looked at last
      {raw.data, dst.data(), 0, 8, rggb, 0, 0, VANTIX_E_FAIL},
      {raw.data, dst.data(), 1, 8, rggb, 0, 0, VANTIX_E_FAIL},  // too small for any method
      {raw.data, dst.data(), 3, 8, rggb, 0, 2, VANTIX_E_FAIL},
      {nullptr, dst.data(), 4, 8, rggb, 0, 0, VANTIX_E_FAIL},
      {raw.data, nullptr, 4, 8, rggb, 0, 0, VANTIX_E_FAIL},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vantix_demosaic(c.src, c.dst, c.side, c.side, c.bits, c.pattern, c.out, c.method),
              c.expected)
        << &c - cases;
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
        const Output out = run(mosaic(truth, pattern), 8, pattern, outFormat, method);
        for (const cv::Point p : {cv::Point(10, 16), cv::Point(36, 16)}) {
          const cv::Vec3b t = truth.at<cv::Vec3b>(p);
          const uint8_t* px = out.image.ptr<uint8_t>(p.y) + p.x * out.image.channels();
          const int b = (outFormat >= 2) != gFirst ? 2 : 0;
          EXPECT_EQ(cv::Vec4i(std::abs(px[b] - t[0]) <= 2, std::abs(px[1] - t[1]) <= 2,
                              std::abs(px[2 - b] - t[2]) <= 2, outFormat % 2 == 0 || px[3] == 255),
                    cv::Vec4i::all(1))
              << pattern << " method " << method << " out " << outFormat << " at " << p;
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
      for (int width : {101, 102, 64}) {
        cv::Mat truth;
        cv::GaussianBlur(vtest::texturedScene({width, 40}), truth, {}, 2.0);
        if (bits == 12) truth.convertTo(truth, CV_16U, 16.0);
        const Output out =
            run(mosaic(truth, VANTIX_BAYER_RGGB), bits, VANTIX_BAYER_RGGB, 0, method);
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
          ASSERT_TRUE(std::all_of(&out.bytes[y * out.stride + rowBytes],
                                  &out.bytes[(y + 1) * out.stride],
                                  [](uint8_t v) { return v == 0xCD; }));
        }
      }
    }
  }
  const cv::Mat deep(16, 16, CV_16UC3, cv::Scalar(100, 2000, 4095));
  const Output out = run(mosaic(deep, VANTIX_BAYER_RGGB), 12, VANTIX_BAYER_RGGB, 1, 0);
  EXPECT_EQ(out.image.at<cv::Vec4w>(8, 8), cv::Vec4w(100, 2000, 4095, 65535));
  EXPECT_EQ(out.bytes[16 * out.stride], 0xCD);  // 4-channel rows are packed
}

}  // namespace
