// Helpers for the 40-byte image header that crosses the C interface.
#pragma once

#include <cstdint>

#include <vantix.h>

namespace vantix {

// True exactly for the five deep-colour bit counts 30, 33, 36, 42 and 48
// (three 16-bit channels with 10, 11, 12, 14 or 16 significant bits).
bool isDeepColour(uint32_t bits);

// Bits of storage a pixel for an accepted bit count, or 0 when the bit count
// is not accepted.
uint32_t storageBits(uint32_t bits);

// Row bytes padded to 4: vantix_default_stride from vantix.h.  Kept only for
// callers not yet switched to it; new code calls vantix_default_stride.
inline uint32_t paddedStride(uint32_t width, uint32_t bitsPerPixel) {
  return vantix_default_stride(width, bitsPerPixel);
}

// The padded stride of the header's layout, or 0xFFFFFFFF for a bit count
// that is not accepted.
uint32_t defaultStride(const VantixImageHeader& header);

// OpenCV matrix type of an accepted bit count, or -1.
int matTypeForBitCount(uint32_t bits);

// Where the pixels of an image with its own header begin: biSize bytes after
// the header, plus the 1024-byte colour table of an 8-bit image.
const uint8_t* pixelsOf(const VantixImageHeader* header);

}  // namespace vantix
