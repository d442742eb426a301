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

TEST(ImageHeader, DeepColourIsExactlyTheFiveThreeChannelSixteenBitCounts) {
  for (uint32_t bits = 0; bits < 200; ++bits) {
    const bool expected = bits == 30 || bits == 33 || bits == 36 || bits == 42 || bits == 48;
    EXPECT_EQ(vantix::isDeepColour(bits), expected) << bits;
  }
  EXPECT_FALSE(vantix::isDeepColour(0xFFFFFFFFu));
  EXPECT_FALSE(vantix::isDeepColour(64 + 30));  // no wrap-around of the mask
}

TEST(ImageHeader, DefaultStridePadsRowsToFourBytesPerLayout) {
  // Bit count, width, expected stride.
  const struct { uint16_t bits; int32_t width; uint32_t stride; } cases[] = {
      {8, 101, 104},  {8, 4, 4},       {12, 3, 8},     {16, 5, 12},  {24, 101, 304},
      {24, 100, 300}, {32, 7, 28},     {30, 5, 32},    {36, 3, 20},  {48, 1, 8},
      {42, 2, 12},    {33, 4, 24},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vantix::defaultStride(header(c.width, c.bits)), c.stride)
        << "bits " << c.bits << " width " << c.width;
  }
  for (uint16_t bits : {0, 1, 4, 7, 17, 23, 25, 31, 40, 49, 64}) {
    EXPECT_EQ(vantix::defaultStride(header(10, bits)), 0xFFFFFFFFu) << bits;
  }
  // Unsigned 32-bit arithmetic: a negative width wraps instead of failing.
  const uint32_t wrapped = ((static_cast<uint32_t>(-3) * 24u + 31u) >> 3) & ~3u;
  EXPECT_EQ(vantix::defaultStride(header(-3, 24)), wrapped);
}

TEST(ImageHeader, MatTypesFollowTheBitCount) {
  EXPECT_EQ(vantix::matTypeForBitCount(8), CV_8UC1);
  EXPECT_EQ(vantix::matTypeForBitCount(9), CV_16UC1);
  EXPECT_EQ(vantix::matTypeForBitCount(16), CV_16UC1);
  EXPECT_EQ(vantix::matTypeForBitCount(24), CV_8UC3);
  EXPECT_EQ(vantix::matTypeForBitCount(32), CV_8UC4);
  for (uint32_t bits : {30u, 33u, 36u, 42u, 48u}) EXPECT_EQ(vantix::matTypeForBitCount(bits), CV_16UC3);
  for (uint32_t bits : {0u, 7u, 17u, 25u, 64u}) EXPECT_EQ(vantix::matTypeForBitCount(bits), -1);
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
