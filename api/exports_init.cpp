// vantix_init: the one set-up call of the library.
#include <opencv2/core.hpp>

#include "api/host_allocator.h"
#include <vantix.h>

extern "C" VANTIX_API void vantix_init(VantixAllocator allocator) {
  // A per-thread setting of the image library: faster, not bit-exact paths.
  cv::ipp::setUseIPP_NotExact(true);
  vantix::setHostAllocator(allocator);
}
