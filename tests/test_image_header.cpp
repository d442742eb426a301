#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "api/image_header.h"

namespace {

VantixImageHeader header(int32_t width, uint16_t bits) {
  VantixImageHeader h{};
  h.biSize = 40;
  h.biWidth = width;
  h.biHeight = 1;
  h.biBitCount = bits;
  return h;
}

// The layouts a bit count stands for: deep colour is exactly the five
// three-channel 16-bit counts, rows pad to four bytes, and any other count is
// no layout at all.
TEST(ImageHeader, LayoutOfEveryBitCount) {
  const struct {
    uint16_t bits;
    int32_t width;
    uint32_t stride;
    int type;
  } cases[] = {
      {8, 101, 104, CV_8UC1},  {8, 4, 4, CV_8UC1},    {12, 3, 8, CV_16UC1},
      {9, 1, 4, CV_16UC1},     {16, 5, 12, CV_16UC1}, {24, 101, 304, CV_8UC3},
      {24, 100, 300, CV_8UC3}, {32, 7, 28, CV_8UC4},  {30, 5, 32, CV_16UC3},
      {36, 3, 20, CV_16UC3},   {48, 1, 8, CV_16UC3},  {42, 2, 12, CV_16UC3},
      {33, 4, 24, CV_16UC3},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vantix::defaultStride(header(c.width, c.bits)), c.stride) << c.bits << " " << c.width;
    EXPECT_EQ(vantix::matTypeForBitCount(c.bits), c.type) << c.bits;
  }
  for (uint16_t bits : {0, 1, 4, 7, 17, 23, 25, 31, 40, 49, 64}) {
    EXPECT_EQ(vantix::defaultStride(header(10, bits)), 0xFFFFFFFFu) << bits;
    EXPECT_EQ(vantix::matTypeForBitCount(bits), -1) << bits;
  }
  // Unsigned 32-bit arithmetic: a negative width wraps instead of failing.
  EXPECT_EQ(vantix::defaultStride(header(-3, 24)), 536870904u);
  for (uint32_t bits = 0; bits < 200; ++bits) {
    const bool deep = bits == 30 || bits == 33 || bits == 36 || bits == 42 || bits == 48;
    EXPECT_EQ(vantix::isDeepColour(bits), deep) << bits;
  }
  EXPECT_FALSE(vantix::isDeepColour(0xFFFFFFFFu));
  EXPECT_FALSE(vantix::isDeepColour(64 + 30));  // no wrap-around of the mask
}

TEST(ImageHeader, PixelsFollowTheHeaderAndTheColourTableOfEightBitImages) {
  alignas(8) uint8_t storage[2048] = {};
  auto* h = reinterpret_cast<VantixImageHeader*>(storage);
  *h = header(4, 8);
  EXPECT_EQ(vantix::pixelsOf(h), storage + 40 + 1024);
  h->biBitCount = 24;
  EXPECT_EQ(vantix::pixelsOf(h), storage + 40);
  h->biSize = 41;
  EXPECT_EQ(vantix::pixelsOf(h), storage + 41);
  h->biBitCount = 16;  // only 8-bit images carry a table
  EXPECT_EQ(vantix::pixelsOf(h), storage + 41);
}

}  // namespace
