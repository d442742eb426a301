// The host's allocator, registered by vantix_init.
#pragma once

#include <vantix.h>

namespace vantix {

// The allocator registered last, or null.  Stitch and edge sessions are only
// created while one is registered, and the panorama handed to the host is
// allocated with it.
VantixAllocator hostAllocator();
void setHostAllocator(VantixAllocator allocator);

}  // namespace vantix
