// Bayer demosaicing of a raw frame into host buffers.
#pragma once

#include <cstdint>

#include <vantix.h>

namespace vantix {

// The OpenCV colour-conversion code for a pattern, output order and method,
// or -1 when the pattern is not one of the four FourCCs.  The numbers are a
// fixed table: "BGGR" and "RGGB" map to each other's OpenCV first pair, the
// G-first patterns keep their own.  Callers validate outFormat (0..3) and
// algorithm (0..2; 4-channel output only for 0) first.
int demosaicCode(uint32_t pattern, uint32_t outFormat, uint32_t algorithm);

// Row bytes of the output: 3-channel rows are padded to 4 bytes, 4-channel
// rows are not.  `sixteenBit` for samples of 9..16 bits.
uint32_t demosaicOutputStride(uint32_t width, uint32_t outFormat, bool sixteenBit);

// Validates, demosaics and reports as vantix_demosaic: a conversion that ran
// reports VANTIX_E_FAIL, successful or not.
VantixResult demosaicFrame(const void* src, void* dst, uint32_t width, uint32_t height,
                           int32_t bits, uint32_t pattern, uint32_t outFormat,
                           uint32_t algorithm);

}  // namespace vantix
