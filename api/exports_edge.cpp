// The edge-snapping functions of the C interface.
#include <vantix.h>

#include "api/host_allocator.h"
#include "imgutil/edge.h"

extern "C" {

VANTIX_API VantixEdge* vantix_edge_new(uint32_t format, uint32_t width, uint32_t height,
                                       uint32_t size) {
  // Edge sessions, like stitch sessions, exist only after vantix_init.
  if (vantix::hostAllocator() == nullptr) return nullptr;
  return reinterpret_cast<VantixEdge*>(new vantix::CEdgeSession(format, width, height, size));
}

VANTIX_API int32_t vantix_edge_get(VantixEdge* session, const void* buffer, int32_t* x, int32_t* y,
                                   uint32_t size) {
  return reinterpret_cast<vantix::CEdgeSession*>(session)->get(buffer, x, y, size);
}

VANTIX_API void vantix_edge_delete(VantixEdge* session) {
  delete reinterpret_cast<vantix::CEdgeSession*>(session);
}

}  // extern "C"
