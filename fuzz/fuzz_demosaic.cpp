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
  const bool sixteen = bits >= 9, alpha = order & 1;
  const uint64_t sampleBytes = sixteen ? 2 : 1;
  const uint64_t srcBytes = uint64_t{width} * height * sampleBytes;
  // Three channels in rows padded to 4 bytes, four channels unpadded.
  const uint64_t stride = vantix_default_stride(width, (alpha ? 32 : 24) * sampleBytes);
  if (fuzz::tooLarge(uint64_t{width} * height, std::max(srcBytes, height * stride))) return 0;
  fuzz::Buffer src(srcBytes), dst(height * stride);
  src.fill(in);
  const auto srcBefore = src.copy(), dstBefore = dst.copy();

  const VantixResult r = vantix_demosaic(src.data(), dst.data(), width, height, bits, pattern, order, method);
  // A conversion that ran reports E_FAIL; S_OK never comes back.
  FUZZ_CHECK(r == VANTIX_E_FAIL || r == VANTIX_E_INVALIDARG || r == VANTIX_E_NOTIMPL || r == VANTIX_E_OUTOFMEMORY);
  FUZZ_CHECK(src.same(srcBefore));
  if (r != VANTIX_E_FAIL || width == 0 || height == 0) {
    FUZZ_CHECK(r == VANTIX_E_FAIL || dst.same(dstBefore));
    return 0;
  }
  const uint64_t rowBytes = uint64_t{width} * (alpha ? 4 : 3) * sampleBytes;
  for (uint64_t y = 0; y < height; ++y) {
    const uint8_t* row = dst.data() + y * stride;
    for (uint64_t i = rowBytes; i < stride; ++i) FUZZ_CHECK(row[i] == 0x5A);  // padding stays
    // Output that has an alpha channel is opaque (frames of 3 or more a side;
    // the image library leaves smaller ones black).
    for (uint64_t i = 3 * sampleBytes; alpha && width >= 3 && height >= 3 && i < rowBytes; i += 4 * sampleBytes) {
      FUZZ_CHECK(row[i] == 0xFF && row[i + sampleBytes - 1] == 0xFF);
    }
  }
  return 0;
}
