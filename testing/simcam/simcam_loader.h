/*
 * simcam_loader.h - the simulator's functions resolved from a dlopen handle.
 *
 *   void *so = dlopen(path, RTLD_NOW | RTLD_LOCAL);
 *   SimcamApi sim;
 *   if (!simcam_load_api(so, &sim)) ...;
 *   SimcamCamera *cam = sim.open(640, 480);
 *
 * Works for libvantix_simcam.so and its legacy build (whose pullV4 and
 * pullNamed stay null).  For libvantix_simcam_partial.so use simcam_load_partial_api.
 */
#ifndef VANTIX_SIMCAM_LOADER_H
#define VANTIX_SIMCAM_LOADER_H

#include <dlfcn.h>
#include <string.h>

#include "simcam.h"

#ifdef __cplusplus
extern "C" {
#endif

/* X(field, exported name, declaration giving the type, required) */
#define SIMCAM_API_LIST_(X)                                                \
  X(prefix, "DllPrefix", DllPrefix, 1)                                     \
  X(pullV2, "DllPullImageWithRowPitchV2", DllPullImageWithRowPitchV2, 1)   \
  X(pullV3, "DllPullImageV3", DllPullImageV3, 1)                           \
  X(pullV4, "DllPullImageV4", DllPullImageV4, 0)                           \
  X(getRawFormat, "Simcam_get_RawFormat", Simcam_get_RawFormat, 1)         \
  X(pullNamed, "Simcam_PullImage", Simcam_PullImage, 0)                    \
  X(open, "simcam_open", simcam_open, 1)                                   \
  X(close, "simcam_close", simcam_close, 1)                                \
  X(setResult, "simcam_set_result", simcam_set_result, 1)                  \
  X(setRawBits, "simcam_set_raw_bits", simcam_set_raw_bits, 1)             \
  X(frameIndex, "simcam_frame_index", simcam_frame_index, 1)               \
  X(setFrameIndex, "simcam_set_frame_index", simcam_set_frame_index, 1)    \
  X(frameBytes, "simcam_frame_bytes", simcam_frame_bytes, 1)               \
  X(render, "simcam_render", simcam_render, 1)                             \
  X(setPan, "simcam_set_pan", simcam_set_pan, 1)                           \
  X(panPosition, "simcam_pan_position", simcam_pan_position, 1)            \
  X(setFocusSweep, "simcam_set_focus_sweep", simcam_set_focus_sweep, 1)    \
  X(setSpots, "simcam_set_spots", simcam_set_spots, 1)                     \
  X(spotTruth, "simcam_spot_truth", simcam_spot_truth, 1)                  \
  X(getStats, "simcam_get_stats", simcam_get_stats, 1)

#define SIMCAM_PARTIAL_API_LIST_(X)                                   \
  X(prefix, "DllPrefix", DllPrefix, 1)                                \
  X(pullV3, "DllPullImageV3", DllPullImageV3, 1)                      \
  X(getRawFormat, "Partial_get_RawFormat", Simcam_get_RawFormat, 1)   \
  X(pullNamed, "Partial_PullImage", Simcam_PullImage, 1)              \
  X(getStats, "simcam_partial_get_stats", simcam_partial_get_stats, 1)

#define SIMCAM_FIELD_(field, name, decl, required) __typeof__(&decl) field;
typedef struct SimcamApi {
  SIMCAM_API_LIST_(SIMCAM_FIELD_)
} SimcamApi;
typedef struct SimcamPartialApi {
  SIMCAM_PARTIAL_API_LIST_(SIMCAM_FIELD_)
} SimcamPartialApi;
#undef SIMCAM_FIELD_

/* dlsym into a function pointer without a cast between object and function
 * pointers (which ISO C does not define); counts missing required ones. */
#define SIMCAM_RESOLVE_(field, name, decl, required)  \
  {                                                   \
    void* symbol_ = dlsym(handle, name);              \
    memcpy(&api->field, &symbol_, sizeof symbol_);    \
    if (symbol_ == NULL && (required)) ++missing;     \
  }

/* simcam_load_api / simcam_load_partial_api fill *api from a handle and
 * return 1 when every required function was found. */
#define SIMCAM_LOADER_(function, Api, list)             \
  static inline int function(void* handle, Api* api) {  \
    int missing = 0;                                    \
    memset(api, 0, sizeof *api);                        \
    if (handle == NULL) return 0;                       \
    list(SIMCAM_RESOLVE_)                               \
    return missing == 0;                                \
  }
SIMCAM_LOADER_(simcam_load_api, SimcamApi, SIMCAM_API_LIST_)
SIMCAM_LOADER_(simcam_load_partial_api, SimcamPartialApi, SIMCAM_PARTIAL_API_LIST_)

#undef SIMCAM_LOADER_
#undef SIMCAM_RESOLVE_

#ifdef __cplusplus
}
#endif

#endif /* VANTIX_SIMCAM_LOADER_H */
