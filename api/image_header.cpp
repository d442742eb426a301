#include "api/image_header.h"

#include <opencv2/core.hpp>

namespace vantix {

bool isDeepColour(uint32_t bits) {
  constexpr uint64_t kDeepMask = (1ull << 30) | (1ull << 33) | (1ull << 36) |
                                 (1ull << 42) | (1ull << 48);
  return bits < 49 && ((kDeepMask >> bits) & 1u) != 0;
}

uint32_t storageBits(uint32_t bits) {
  if (isDeepColour(bits)) return 48;
  if (bits == 24) return 24;
  if (bits == 32) return 32;
  if (bits >= 9 && bits <= 16) return 16;
  if (bits == 8) return 8;
  return 0;
}

uint32_t defaultStride(const VantixImageHeader& header) {
  const uint32_t bits = storageBits(header.biBitCount);
  if (bits == 0) return 0xFFFFFFFFu;
  return vantix_default_stride(static_cast<uint32_t>(header.biWidth), bits);
}

int matTypeForBitCount(uint32_t bits) {
  if (isDeepColour(bits)) return CV_16UC3;
  if (bits == 24) return CV_8UC3;
  if (bits == 32) return CV_8UC4;
  if (bits >= 9 && bits <= 16) return CV_16UC1;
  if (bits == 8) return CV_8UC1;
  return -1;
}

const uint8_t* pixelsOf(const VantixImageHeader* header) {
  const uint8_t* base = reinterpret_cast<const uint8_t*>(header);
  return base + header->biSize + (header->biBitCount == 8 ? 1024u : 0u);
}

}  // namespace vantix
