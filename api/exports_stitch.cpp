// The live-stitching functions of the C interface.
#include <vantix.h>

#include "api/camera_sdk.h"
#include "api/host_allocator.h"
#include "livestitch/lvprocessor.h"

namespace {

vantix::CLvProcessor* session(VantixStitch* s) { return reinterpret_cast<vantix::CLvProcessor*>(s); }

VantixStitch* newSession(uint32_t format, uint32_t width, uint32_t height, uint32_t background,
                         uint32_t scaleLevel, uint32_t strictLevel, VantixStitchFrameFn onFrame,
                         VantixStitchEventFn onEvent, void* context) {
  if (vantix::hostAllocator() == nullptr) return nullptr;
  return reinterpret_cast<VantixStitch*>(new vantix::CLvProcessor(
      format, width, height, background, scaleLevel, strictLevel, onFrame, onEvent, context));
}

// The push a pull ends in; the session is not checked here.
void pushEntry(void* s, const void* data, uint32_t width, uint32_t height, uint64_t /*bits*/,
               uint32_t rowPitch) {
  static_cast<vantix::CLvProcessor*>(s)->push(data, width, height, rowPitch);
}

}  // namespace

extern "C" {

VANTIX_API VantixStitch* vantix_stitch_new(uint64_t /*unused*/, uint32_t width, uint32_t height,
                                           uint32_t background, VantixStitchFrameFn onFrame,
                                           VantixStitchEventFn onEvent, void* context) {
  return newSession(0, width, height, background, 2, 2, onFrame, onEvent, context);
}

VANTIX_API VantixStitch* vantix_stitch_newV2(uint32_t format, uint64_t /*unused*/, uint32_t width,
                                             uint32_t height, uint32_t background,
                                             VantixStitchFrameFn onFrame,
                                             VantixStitchEventFn onEvent, void* context) {
  return newSession(format, width, height, background, 2, 2, onFrame, onEvent, context);
}

VANTIX_API VantixStitch* vantix_stitch_newV3(uint32_t format, uint64_t /*unused*/, uint32_t width,
                                             uint32_t height, uint32_t background,
                                             uint32_t scaleLevel, uint32_t strictLevel,
                                             VantixStitchFrameFn onFrame,
                                             VantixStitchEventFn onEvent, void* context) {
  return newSession(format, width, height, background, scaleLevel, strictLevel, onFrame, onEvent,
                    context);
}

VANTIX_API void vantix_stitch_delete(VantixStitch* s) { delete session(s); }

VANTIX_API void vantix_stitch_start(VantixStitch* s) { session(s)->start(); }

VANTIX_API VantixImageHeader* vantix_stitch_stop(VantixStitch* s, uint32_t wantImage,
                                                 uint32_t cropped) {
  return session(s)->stop(wantImage != 0, cropped != 0);
}

VANTIX_API int32_t vantix_stitch_readdata(VantixStitch* s, void* buffer, uint32_t width,
                                          uint32_t height, uint32_t x, uint32_t y,
                                          uint32_t roiWidth, uint32_t roiHeight) {
  return session(s)->readData(buffer, width, height, x, y, roiWidth, roiHeight);
}

VANTIX_API void vantix_stitch_cropparams(VantixStitch* s, uint32_t* x, uint32_t* y,
                                         uint32_t* width, uint32_t* height) {
  if (s == nullptr) return;
  session(s)->cropParams(x, y, width, height);
}

VANTIX_API VantixResult vantix_stitch_pushback(VantixStitch* s, const void* data, uint32_t width,
                                               uint32_t height, uint64_t /*bits*/,
                                               uint32_t rowPitch) {
  if (s == nullptr) return VANTIX_E_NOTIMPL;
  session(s)->push(data, width, height, rowPitch);
  return VANTIX_S_OK;
}

VANTIX_API VantixResult vantix_stitch_pull(VantixStitch* s, void* camera, int32_t push,
                                           void* buffer, int32_t bits, uint32_t rowPitch,
                                           FrameInfoV2* info) {
  return vantix::pullWithInfo(vantix::FrameInfoVersion::V2, s, camera, push, buffer, bits,
                              rowPitch, info, &pushEntry);
}

VANTIX_API VantixResult vantix_stitch_pullV3(VantixStitch* s, void* camera, int32_t push,
                                             void* buffer, int32_t bits, uint32_t rowPitch,
                                             FrameInfoV3* info) {
  return vantix::pullWithInfo(vantix::FrameInfoVersion::V3, s, camera, push, buffer, bits,
                              rowPitch, info, &pushEntry);
}

VANTIX_API VantixResult vantix_stitch_pullV4(VantixStitch* s, void* camera, int32_t push,
                                             void* buffer, int32_t bits, uint32_t rowPitch,
                                             FrameInfoV4* info) {
  return vantix::pullWithInfo(vantix::FrameInfoVersion::V4, s, camera, push, buffer, bits,
                              rowPitch, info, &pushEntry);
}

VANTIX_API VantixResult vantix_stitch_pullnam(VantixStitch* s, void* camera, int32_t push,
                                              void* buffer, uint32_t bits, uint32_t* width,
                                              uint32_t* height) {
  return vantix::pullNamed(s, camera, push, buffer, bits, width, height, &pushEntry);
}

}  // extern "C"
