#include <gtest/gtest.h>

#include <cstring>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "support/test_support.h"

namespace {

using vtest::HeaderImage;
using vtest::makeHeaderImage;

// Fills a header image from a matrix of the matching type.
void fill(HeaderImage& image, const cv::Mat& content) {
  content.copyTo(image.mat(content.type()));
}

cv::Mat reference(const cv::Mat& src, cv::Size size, int interpolation) {
  cv::Mat out;
  cv::resize(src, out, size, 0, 0, interpolation);
  return out;
}

TEST(Resize, ValidationCodesInOrder) {
  HeaderImage src = makeHeaderImage(8, 8, 24);
  HeaderImage dst = makeHeaderImage(4, 4, 24);
  const auto call = [&](uint32_t interpolation = 1) {
    return vantix_resizeV2(src.header, 0, src.pixels, dst.header, 0, dst.pixels, interpolation);
  };
  EXPECT_EQ(vantix_resizeV2(nullptr, 0, src.pixels, dst.header, 0, dst.pixels, 1), VANTIX_E_POINTER);
  EXPECT_EQ(vantix_resizeV2(src.header, 0, src.pixels, nullptr, 0, dst.pixels, 1), VANTIX_E_POINTER);
  EXPECT_EQ(vantix_resizeV1(nullptr, dst.header, 1), VANTIX_E_POINTER);
  EXPECT_EQ(vantix_resizeV1(src.header, nullptr, 1), VANTIX_E_POINTER);
  EXPECT_EQ(call(), VANTIX_S_OK);

  dst.header->biSize = 44;
  EXPECT_EQ(call(), VANTIX_E_INVALIDARG);
  dst.header->biSize = 40;

  dst.header->biCompression = 3;  // destination only
  EXPECT_EQ(call(), VANTIX_E_INVALIDARG);
  dst.header->biCompression = 0;

  src.header->biCompression = 1;
  EXPECT_EQ(call(), VANTIX_E_INVALIDARG);
  src.header->biCompression = 0;

  EXPECT_EQ(call(5), VANTIX_E_INVALIDARG);
  EXPECT_EQ(call(0xFFFFFFFEu), VANTIX_E_INVALIDARG);
  for (uint32_t interpolation = 0; interpolation <= 4; ++interpolation) {
    EXPECT_EQ(call(interpolation), VANTIX_S_OK) << interpolation;
  }

  // Both stored as 16-bit, but the bit counts differ.
  HeaderImage s12 = makeHeaderImage(8, 8, 12);
  HeaderImage d16 = makeHeaderImage(4, 4, 16);
  EXPECT_EQ(vantix_resizeV2(s12.header, 0, s12.pixels, d16.header, 0, d16.pixels, 1),
            VANTIX_E_INVALIDARG);

  // Bit counts that are equal but not accepted.
  for (uint16_t bits : {1, 4, 7, 17, 25, 40}) {
    src.header->biBitCount = bits;
    dst.header->biBitCount = bits;
    EXPECT_EQ(call(), VANTIX_E_INVALIDARG) << bits;
  }
}

TEST(Resize, SizesAndPitchesTheImageLibraryRefusesAreFailures) {
  HeaderImage src = makeHeaderImage(8, 8, 24);
  HeaderImage dst = makeHeaderImage(4, 4, 24);
  std::memset(dst.pixels, 0x5A, dst.stride * 4);

  src.header->biHeight = -8;
  EXPECT_EQ(vantix_resizeV2(src.header, 0, src.pixels, dst.header, 0, dst.pixels, 1), VANTIX_E_FAIL);
  src.header->biHeight = 0;
  EXPECT_EQ(vantix_resizeV2(src.header, 0, src.pixels, dst.header, 0, dst.pixels, 1), VANTIX_E_FAIL);
  src.header->biHeight = 8;
  // A pitch shorter than a row of pixels.
  EXPECT_EQ(vantix_resizeV2(src.header, 10, src.pixels, dst.header, 0, dst.pixels, 1), VANTIX_E_FAIL);
  EXPECT_EQ(vantix_resizeV2(src.header, 0, src.pixels, dst.header, 11, dst.pixels, 1), VANTIX_E_FAIL);
  // Nothing was written by the refused calls.
  for (uint32_t i = 0; i < dst.stride * 4; ++i) ASSERT_EQ(dst.pixels[i], 0x5A);

  // 16-bit rows need an even pitch.
  HeaderImage s16 = makeHeaderImage(8, 8, 16);
  HeaderImage d16 = makeHeaderImage(4, 4, 16);
  EXPECT_EQ(vantix_resizeV2(s16.header, 17, s16.pixels, d16.header, 0, d16.pixels, 1), VANTIX_E_FAIL);
}

TEST(Resize, AutomaticInterpolationIsCubicForEnlargingAndAreaOtherwise) {
  const cv::Mat small = vtest::smoothScene(48, 64, CV_8UC3);
  const cv::Mat large = vtest::smoothScene(96, 128, CV_8UC3);
  struct Case { const cv::Mat* input; cv::Size out; int expected; };
  const Case cases[] = {
      {&small, {128, 96}, cv::INTER_CUBIC},
      {&large, {64, 48}, cv::INTER_AREA},
      {&small, {64, 48}, cv::INTER_AREA},    // equal size
      {&small, {97, 30}, cv::INTER_AREA},    // fewer destination pixels
      {&small, {20, 200}, cv::INTER_CUBIC},  // more destination pixels
  };
  for (const Case& c : cases) {
    HeaderImage src = makeHeaderImage(c.input->cols, c.input->rows, 24);
    HeaderImage dst = makeHeaderImage(c.out.width, c.out.height, 24);
    fill(src, *c.input);
    ASSERT_EQ(vantix_resizeV1(src.header, dst.header, VANTIX_INTER_AUTO), VANTIX_S_OK);
    const cv::Mat expected = reference(*c.input, c.out, c.expected);
    EXPECT_EQ(cv::norm(dst.mat(CV_8UC3), expected, cv::NORM_INF), 0.0)
        << c.input->size() << " -> " << c.out;
    // The other candidate differs: the choice is really observed.
    const int other = c.expected == cv::INTER_CUBIC ? cv::INTER_AREA : cv::INTER_CUBIC;
    if (c.input->size() != c.out) {
      EXPECT_GT(cv::norm(dst.mat(CV_8UC3), reference(*c.input, c.out, other), cv::NORM_INF), 0.0);
    }
  }
}

TEST(Resize, EveryLayoutResizesStraightIntoTheHostRows) {
  const struct { uint16_t bits; int type; } layouts[] = {
      {8, CV_8UC1}, {12, CV_16UC1}, {16, CV_16UC1}, {24, CV_8UC3},
      {32, CV_8UC4}, {30, CV_16UC3}, {36, CV_16UC3}, {48, CV_16UC3},
  };
  for (const auto& layout : layouts) {
    const cv::Mat input = vtest::randomImage(21, 37, layout.type, layout.bits);
    HeaderImage src = makeHeaderImage(37, 21, layout.bits);
    HeaderImage dst = makeHeaderImage(19, 45, layout.bits);
    fill(src, input);
    // Sentinel in the destination's row padding, which must survive.
    std::memset(dst.pixels, 0xEE, static_cast<size_t>(dst.stride) * 45);
    ASSERT_EQ(vantix_resizeV1(src.header, dst.header, VANTIX_INTER_LINEAR), VANTIX_S_OK)
        << layout.bits;
    const cv::Mat expected = reference(input, {19, 45}, cv::INTER_LINEAR);
    EXPECT_EQ(cv::norm(dst.mat(layout.type), expected, cv::NORM_INF), 0.0) << layout.bits;
    const size_t rowBytes = 19 * CV_ELEM_SIZE(layout.type);
    for (int y = 0; y < 45; ++y) {
      for (size_t x = rowBytes; x < dst.stride; ++x) {
        ASSERT_EQ(dst.pixels[y * dst.stride + x], 0xEE) << layout.bits;
      }
    }
  }
}

TEST(Resize, VersionOneSkipsTheColourTableOfEightBitImages) {
  const cv::Mat input = vtest::randomImage(16, 16, CV_8UC1, 3);
  HeaderImage src = makeHeaderImage(16, 16, 8);
  HeaderImage dst = makeHeaderImage(8, 8, 8);
  fill(src, input);
  uint8_t* srcTable = reinterpret_cast<uint8_t*>(src.header) + 40;
  uint8_t* dstTable = reinterpret_cast<uint8_t*>(dst.header) + 40;
  std::memset(srcTable, 0x11, 1024);
  std::memset(dstTable, 0x22, 1024);
  ASSERT_EQ(vantix_resizeV1(src.header, dst.header, VANTIX_INTER_NEAREST), VANTIX_S_OK);
  EXPECT_EQ(cv::norm(dst.mat(CV_8UC1), reference(input, {8, 8}, cv::INTER_NEAREST), cv::NORM_INF), 0.0);
  for (int i = 0; i < 1024; ++i) ASSERT_EQ(dstTable[i], 0x22);

  // A 41-byte header size is refused even though the pixel address was formed.
  src.header->biSize = 41;
  EXPECT_EQ(vantix_resizeV1(src.header, dst.header, 1), VANTIX_E_INVALIDARG);
}

TEST(Resize, ExplicitPitchesAreHonoured) {
  const cv::Mat input = vtest::randomImage(10, 10, CV_8UC3, 9);
  HeaderImage src = makeHeaderImage(10, 10, 24);
  HeaderImage dst = makeHeaderImage(5, 5, 24);
  std::vector<uint8_t> srcRows(64 * 10), dstRows(40 * 5, 0);
  input.copyTo(cv::Mat(10, 10, CV_8UC3, srcRows.data(), 64));
  ASSERT_EQ(vantix_resizeV2(src.header, 64, srcRows.data(), dst.header, 40, dstRows.data(),
                            VANTIX_INTER_AREA),
            VANTIX_S_OK);
  EXPECT_EQ(cv::norm(cv::Mat(5, 5, CV_8UC3, dstRows.data(), 40),
                     reference(input, {5, 5}, cv::INTER_AREA), cv::NORM_INF),
            0.0);
}

}  // namespace
