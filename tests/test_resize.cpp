// Resizing images that carry their own header, against cv::resize.
#include "support/test_support.h"

namespace {

// An image with its own header: 40 bytes, the colour table of 8-bit images,
// then rows at the default stride; 8-byte aligned.
struct HeaderImage {
  std::vector<uint64_t> storage;
  VantixImageHeader* header;
  uint8_t* pixels;
  uint32_t stride;
  HeaderImage(int32_t width, int32_t height, uint16_t bits, int storageBits) {
    stride = vantix_default_stride(static_cast<uint32_t>(width), storageBits);
    const size_t offset = 40 + (bits == 8 ? 1024 : 0);
    storage.assign((offset + size_t{stride} * height) / 8 + 2, 0);
    header = reinterpret_cast<VantixImageHeader*>(storage.data());
    *header = {40, width, height, 1, bits, 0, 0, 0, 0, 0, 0};
    pixels = reinterpret_cast<uint8_t*>(storage.data()) + offset;
  }
  cv::Mat mat(int type) const {
    return cv::Mat(header->biHeight, header->biWidth, type, pixels, stride);
  }
};

HeaderImage make(const cv::Mat& m, uint16_t bits) {
  HeaderImage image(m.cols, m.rows, bits, static_cast<int>(m.elemSize() * 8));
  m.copyTo(image.mat(m.type()));
  return image;
}

cv::Mat reference(const cv::Mat& src, cv::Size size, int interpolation) {
  cv::Mat out;
  cv::resize(src, out, size, 0, 0, interpolation);
  return out;
}

// A 24-bit header of width x height with the given biSize and biCompression.
VantixImageHeader bgr(int32_t width, int32_t height, uint16_t bits = 24, uint32_t size = 40,
                      uint32_t compression = 0) {
  return {size, width, height, 1, bits, compression, 0, 0, 0, 0, 0};
}

TEST(Resize, RefusalsWriteNothing) {
  HeaderImage src(8, 8, 24, 24), dst(4, 4, 24, 24), s12(8, 8, 12, 16), d16(4, 4, 16, 16);
  HeaderImage s16(8, 8, 16, 16), d8(4, 4, 8, 8);
  std::memset(dst.pixels, 0x5A, dst.stride * 4);
  const struct {
    VantixImageHeader s, d;
    uint32_t srcPitch, dstPitch, interpolation;
    VantixResult expected;
  } cases[] = {
      {bgr(8, 8), bgr(4, 4, 24, 44), 0, 0, 1, VANTIX_E_INVALIDARG},     // biSize 44
      {bgr(8, 8), bgr(4, 4, 24, 40, 3), 0, 0, 1, VANTIX_E_INVALIDARG},  // compressed
      {bgr(8, 8), bgr(4, 4), 0, 0, 5, VANTIX_E_INVALIDARG},             // interpolation
      {bgr(8, 8, 32), bgr(4, 4), 0, 0, 1, VANTIX_E_INVALIDARG},         // bit counts differ
      {bgr(8, 8, 17), bgr(4, 4, 17), 0, 0, 1, VANTIX_E_INVALIDARG},     // not accepted
      {bgr(8, -8), bgr(4, 4), 0, 0, 1, VANTIX_E_FAIL},  // sizes the image library refuses
      {bgr(-8, 8), bgr(4, 4), 0, 0, 1, VANTIX_E_FAIL},
      {bgr(8, 8), bgr(4, 4), 10, 0, 1, VANTIX_E_FAIL},  // pitches shorter than a row
      {bgr(8, 8), bgr(4, 4), 0, 11, 1, VANTIX_E_FAIL},
      // 2^29 pixels of 24 bits: the default stride wraps to 0 in 32 bits.
      {bgr(0x20000000, 8), bgr(4, 4), 0, 0, 1, VANTIX_E_FAIL},
      {bgr(8, 8), bgr(0x20000000, 4), 0, 0, 1, VANTIX_E_FAIL},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vantix_resizeV2(&c.s, c.srcPitch, src.pixels, &c.d, c.dstPitch, dst.pixels,
                              c.interpolation),
              c.expected)
        << &c - cases;
  }
  const auto V2 = [](const HeaderImage& s, const void* sp, const HeaderImage& d, void* dp) {
    return vantix_resizeV2(s.header, 0, sp, d.header, 0, dp, VANTIX_INTER_AUTO);
  };
  EXPECT_EQ(V2(src, nullptr, dst, dst.pixels), VANTIX_E_FAIL);
  EXPECT_EQ(V2(src, src.pixels, dst, nullptr), VANTIX_E_FAIL);
  EXPECT_EQ(V2(s12, s12.pixels, d16, d16.pixels), VANTIX_E_INVALIDARG);  // both 16-bit words
  EXPECT_EQ(vantix_resizeV2(s16.header, 17, s16.pixels, d16.header, 0, d16.pixels, 1),
            VANTIX_E_FAIL);  // odd pitch of 16-bit rows
  EXPECT_EQ(vantix_resizeV2(nullptr, 0, src.pixels, dst.header, 0, dst.pixels, 1),
            VANTIX_E_POINTER);
  EXPECT_EQ(vantix_resizeV1(src.header, nullptr, 1), VANTIX_E_POINTER);
  d8.header->biSize = 41;  // version 1 forms the pixel address, then refuses
  EXPECT_EQ(vantix_resizeV1(d8.header, d8.header, 1), VANTIX_E_INVALIDARG);
  EXPECT_EQ(std::count(dst.pixels, dst.pixels + dst.stride * 4, 0x5A), dst.stride * 4 + 0L);
}

TEST(Resize, EveryLayoutMatchesTheReferenceAndKeepsTheRowPadding) {
  const struct {
    uint16_t bits;
    int type;
  } layouts[] = {{8, CV_8UC1},   {12, CV_16UC1}, {16, CV_16UC1}, {24, CV_8UC3},
                 {32, CV_8UC4},  {30, CV_16UC3}, {33, CV_16UC3}, {42, CV_16UC3},
                 {48, CV_16UC3}};
  for (const auto& layout : layouts) {
    const cv::Mat input = vtest::randomImage(21, 37, layout.type, layout.bits);
    HeaderImage src = make(input, layout.bits);
    HeaderImage dst(19, 45, layout.bits, static_cast<int>(CV_ELEM_SIZE(layout.type) * 8));
    std::memset(dst.pixels, 0xEE, size_t{dst.stride} * 45);
    if (layout.bits == 8) std::memset(dst.pixels - 1024, 0x22, 1024);  // colour table
    ASSERT_EQ(vantix_resizeV1(src.header, dst.header, VANTIX_INTER_LINEAR), VANTIX_S_OK);
    EXPECT_EQ(
        cv::norm(dst.mat(layout.type), reference(input, {19, 45}, cv::INTER_LINEAR), cv::NORM_INF),
        0.0)
        << layout.bits;
    const size_t rowBytes = 19 * CV_ELEM_SIZE(layout.type);
    for (int y = 0; y < 45; ++y) {
      for (size_t x = rowBytes; x < dst.stride; ++x)
        ASSERT_EQ(dst.pixels[y * dst.stride + x], 0xEE);
    }
    if (layout.bits == 8) {
      EXPECT_EQ(std::count(dst.pixels - 1024, dst.pixels, 0x22), 1024);
    }
  }
}

// The automatic choice is cubic when the destination has more pixels, area
// otherwise.  (Explicit pitches of version 2, source and destination, are
// the Python binding's resize of padded rows into a view.)
TEST(Resize, InterpolationCodes) {
  const cv::Mat scene = vtest::texturedScene({64, 48});
  const struct {
    uint32_t code;
    cv::Size out;
    int expected;
  } cases[] = {{VANTIX_INTER_AUTO, {128, 96}, cv::INTER_CUBIC},
               {VANTIX_INTER_AUTO, {20, 200}, cv::INTER_CUBIC},
               {VANTIX_INTER_AUTO, {97, 30}, cv::INTER_AREA},
               {VANTIX_INTER_AUTO, {64, 48}, cv::INTER_AREA},
               {VANTIX_INTER_NEAREST, {40, 30}, cv::INTER_NEAREST},
               {VANTIX_INTER_LANCZOS4, {40, 30}, cv::INTER_LANCZOS4}};
  for (const auto& c : cases) {
    HeaderImage src = make(scene, 24), dst(c.out.width, c.out.height, 24, 24);
    ASSERT_EQ(vantix_resizeV1(src.header, dst.header, c.code), VANTIX_S_OK);
    EXPECT_EQ(cv::norm(dst.mat(CV_8UC3), reference(scene, c.out, c.expected), cv::NORM_INF), 0.0)
        << c.code << " " << c.out;
  }
}

}  // namespace
