// vantix_demosaic on any size, bit count, pattern, output order and method.
// Input: width and height (uint32), bits (int32), pattern (uint32), output
// order and method (a byte each); the rest is the raw samples.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Reader in(data, size);
  const uint32_t width = in.take<uint32_t>(), height = in.take<uint32_t>();
  const int32_t bits = in.take<int32_t>();
  const uint32_t pattern = in.take<uint32_t>();
  const uint32_t order = in.take<uint8_t>(), method = in.take<uint8_t>();
  // Samples of 9 bits or more take two bytes.  Three channels in rows padded
  // to 4 bytes, four channels (odd orders) unpadded.
  const uint32_t sampleBytes = bits >= 9 ? 2 : 1, channels = order & 1 ? 4 : 3;
  const uint64_t srcBytes = uint64_t{width} * height * sampleBytes;
  const uint64_t stride = vantix_default_stride(width, 8 * sampleBytes * channels);
  if (fuzz::tooLarge(uint64_t{width} * height, std::max(srcBytes, height * stride))) return 0;
  fuzz::Buffer src(srcBytes), dst(height * stride);
  src.fill(in);
  const auto srcBefore = src.copy(), dstBefore = dst.copy();

  const VantixResult r =
      vantix_demosaic(src.data(), dst.data(), width, height, bits, pattern, order, method);
  // A conversion that ran reports E_FAIL; S_OK never comes back.
  FUZZ_CHECK(r == VANTIX_E_FAIL || r == VANTIX_E_INVALIDARG || r == VANTIX_E_NOTIMPL ||
             r == VANTIX_E_OUTOFMEMORY);
  FUZZ_CHECK(src.copy() == srcBefore);
  if (r != VANTIX_E_FAIL) {
    FUZZ_CHECK(dst.copy() == dstBefore);
    return 0;
  }
  // Row padding is left alone.
  const uint64_t rowBytes = uint64_t{width} * channels * sampleBytes;
  for (uint64_t y = 0; rowBytes < stride && y < height; ++y) {
    const uint8_t* row = dst.data() + y * stride;
    FUZZ_CHECK(std::all_of(row + rowBytes, row + stride, [](uint8_t v) { return v == 0x5A; }));
  }
  return 0;
}
