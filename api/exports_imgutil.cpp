// The image operations of the C interface: resize and demosaic.
#include <vantix.h>

#include "api/image_header.h"
#include "imgutil/demosaic.h"
#include "imgutil/resize.h"

extern "C" {

VANTIX_API VantixResult vantix_resizeV1(const VantixImageHeader* src, VantixImageHeader* dst,
                                        uint32_t interpolation) {
  if (src == nullptr || dst == nullptr) return VANTIX_E_POINTER;
  return vantix_resizeV2(src, 0, vantix::pixelsOf(src), dst, 0,
                         const_cast<uint8_t*>(vantix::pixelsOf(dst)), interpolation);
}

VANTIX_API VantixResult vantix_resizeV2(const VantixImageHeader* src, uint32_t srcPitch,
                                        const void* srcPixels, const VantixImageHeader* dst,
                                        uint32_t dstPitch, void* dstPixels,
                                        uint32_t interpolation) {
  return vantix::resizeImage(src, srcPitch, srcPixels, dst, dstPitch, dstPixels, interpolation);
}

VANTIX_API VantixResult vantix_demosaic(const void* src, void* dst, uint32_t width,
                                        uint32_t height, int32_t bits, uint32_t pattern,
                                        uint32_t outFormat, uint32_t algorithm) {
  return vantix::demosaicFrame(src, dst, width, height, bits, pattern, outFormat, algorithm);
}

}  // extern "C"
