// The extended-depth-of-field functions of the C interface.
#include <vantix.h>

#include "api/camera_sdk.h"
#include "edf/edf_session.h"

namespace {

vantix::CEdfSession* edfSession(VantixEdf* session) {
  return reinterpret_cast<vantix::CEdfSession*>(session);
}

// The push a camera pull ends in.  The session is not checked for null
// here: a pull that pushes needs a session.
void pushIntoEdf(void* session, const void* data, uint32_t width, uint32_t height, uint64_t bits,
                 uint32_t rowPitch) {
  static_cast<vantix::CEdfSession*>(session)->push(data, width, height, bits, rowPitch);
}

}  // namespace

extern "C" {

VANTIX_API VantixEdf* vantix_edf_newV2(uint32_t format, uint32_t kind, VantixEdfFrameFn onFrame,
                                       VantixEdfErrorFn onError, void* context) {
  return reinterpret_cast<VantixEdf*>(
      new vantix::CEdfSession(format, kind, onFrame, onError, context));
}

VANTIX_API VantixEdf* vantix_edf_new(uint32_t kind, VantixEdfFrameFn onFrame,
                                     VantixEdfErrorFn onError, void* context) {
  return vantix_edf_newV2(0, kind, onFrame, onError, context);
}

VANTIX_API void vantix_edf_delete(VantixEdf* session) { delete edfSession(session); }

VANTIX_API void vantix_edf_start(VantixEdf* session) { edfSession(session)->start(); }

VANTIX_API void vantix_edf_stop(VantixEdf* session) { edfSession(session)->stop(); }

VANTIX_API void vantix_edf_readdata(VantixEdf* session, void* buffer, uint32_t rowBytes) {
  edfSession(session)->readData(buffer, rowBytes);
}

VANTIX_API VantixResult vantix_edf_pushback(VantixEdf* session, const void* data, uint32_t width,
                                            uint32_t height, uint64_t bits, uint32_t rowPitch) {
  if (session == nullptr) return VANTIX_E_NOTIMPL;
  edfSession(session)->push(data, width, height, bits, rowPitch);
  return VANTIX_S_OK;
}

VANTIX_API VantixResult vantix_edf_pull(VantixEdf* session, void* camera, int32_t push,
                                        void* buffer, int32_t bits, uint32_t rowPitch,
                                        FrameInfoV2* info) {
  return vantix::pullWithInfo(vantix::FrameInfoVersion::V2, session, camera, push, buffer, bits,
                              rowPitch, info, &pushIntoEdf);
}

VANTIX_API VantixResult vantix_edf_pullV3(VantixEdf* session, void* camera, int32_t push,
                                          void* buffer, int32_t bits, uint32_t rowPitch,
                                          FrameInfoV3* info) {
  return vantix::pullWithInfo(vantix::FrameInfoVersion::V3, session, camera, push, buffer, bits,
                              rowPitch, info, &pushIntoEdf);
}

VANTIX_API VantixResult vantix_edf_pullV4(VantixEdf* session, void* camera, int32_t push,
                                          void* buffer, int32_t bits, uint32_t rowPitch,
                                          FrameInfoV4* info) {
  return vantix::pullWithInfo(vantix::FrameInfoVersion::V4, session, camera, push, buffer, bits,
                              rowPitch, info, &pushIntoEdf);
}

VANTIX_API VantixResult vantix_edf_pullnam(VantixEdf* session, void* camera, int32_t push,
                                           void* buffer, uint32_t bits, uint32_t* width,
                                           uint32_t* height) {
  return vantix::pullNamed(session, camera, push, buffer, bits, width, height, &pushIntoEdf);
}

}  // extern "C"
