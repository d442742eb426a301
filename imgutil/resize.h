// Resizing of one image with its own header into another of the same format.
#pragma once

#include <cstdint>

#include <vantix.h>

namespace vantix {

// Validates the headers, wraps both host buffers without copying and resizes
// with cv::resize straight into the destination.  Codes as vantix_resizeV2.
VantixResult resizeImage(const VantixImageHeader* src, uint32_t srcPitch, const void* srcPixels,
                         const VantixImageHeader* dst, uint32_t dstPitch, void* dstPixels,
                         uint32_t interpolation);

// The interpolation used for a request, or -1 when the request is refused.
// VANTIX_INTER_AUTO picks cubic when the source has fewer pixels than the
// destination (enlarging), area otherwise.
int chooseInterpolation(const VantixImageHeader& src, const VantixImageHeader& dst,
                        uint32_t interpolation);

}  // namespace vantix
