#include "api/host_allocator.h"

#include <atomic>

namespace vantix {
namespace {
// Atomic so that a host calling vantix_init while another thread creates a
// session gets one value or the other, never a torn one.
std::atomic<VantixAllocator> gHostAllocator{nullptr};
}  // namespace

VantixAllocator hostAllocator() { return gHostAllocator.load(std::memory_order_acquire); }

void setHostAllocator(VantixAllocator allocator) {
  gHostAllocator.store(allocator, std::memory_order_release);
}

}  // namespace vantix
