// Entry points of the current SDK release.  The legacy build of the
// simulator leaves this file out to stand for an older release that had
// neither the V4 pull nor the named pull.
#include "simcam_internal.h"

extern "C" {

SIMCAM_API int32_t DllPullImageV4(void* camera, void* buffer, int32_t, int32_t bits,
                                  int32_t rowPitch, void* frameInfoV4) {
  return simcam::pull(&SimcamStats::pullV4Calls, camera, buffer, bits, rowPitch, frameInfoV4, 104,
                      nullptr, nullptr);
}

SIMCAM_API int32_t Simcam_PullImage(void* camera, void* buffer, int32_t bits, uint32_t* width,
                                    uint32_t* height) {
  return simcam::pull(&SimcamStats::namedPullCalls, camera, buffer, bits, 0, nullptr, 0, width,
                      height);
}

}  // extern "C"
