// The spot-measurement functions of the C interface.
#include <vector>

#include <vantix.h>

#include "api/camera_sdk.h"
#include "spot/spot_session.h"

namespace {

vantix::CSpotSession* spot(VantixSpot* session) {
  return reinterpret_cast<vantix::CSpotSession*>(session);
}

}  // namespace

extern "C" {

VANTIX_API VantixSpot* vantix_spot_new(uint32_t spotCount, uint32_t averageCount) {
  // Running out of memory leaves as std::bad_alloc: there is no failure code.
  return reinterpret_cast<VantixSpot*>(new vantix::CSpotSession(spotCount, averageCount));
}

VANTIX_API void vantix_spot_delete(VantixSpot* session) { delete spot(session); }

VANTIX_API void vantix_spot_reset(VantixSpot* session) { spot(session)->reset(); }

VANTIX_API void vantix_spot_setAperture(VantixSpot* session, SpotAperture aperture) {
  spot(session)->setAperture(aperture);
}

VANTIX_API void vantix_spot_setRoi(VantixSpot* session, uint32_t x, uint32_t y, uint32_t width,
                                   uint32_t height) {
  spot(session)->setRoi(x, y, width, height);
}

VANTIX_API VantixResult vantix_spot_pull(VantixSpot* session, void* camera, uint32_t measure,
                                         void* buffer, uint32_t bitCount, uint32_t rowPitch,
                                         FrameInfoV2* info, SpotResult* out) {
  vantix::CSpotSession* s = spot(session);
  // A null `out` with measure set: the frame is measured (the aperture and
  // the average move on) into records the host does not see.
  std::vector<SpotResult> unseen;
  if (measure != 0 && out == nullptr) {
    unseen.resize(s->spotCount());
    out = unseen.data();
  }
  return vantix::pullSpot(s, s->rawBitDepthSlot(), camera, measure, buffer, bitCount, rowPitch,
                          info, out, &vantix::CSpotSession::frameEntry);
}

}  // extern "C"
