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

// Row bytes padded to 4, computed in 64 bits: vantix_default_stride for rows
// under 2^32 bits, the true padded length for longer rows (where the 32-bit
// formula of the header wraps).  For buffers whose rows the library sizes
// itself from a host's width.
inline uint64_t wideStride(uint32_t width, uint32_t bitsPerPixel) {
  return (static_cast<uint64_t>(width) * bitsPerPixel + 31) / 32 * 4;
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
