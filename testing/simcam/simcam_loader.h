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

typedef struct SimcamApi {
  /* SDK entry points */
  const char* (*prefix)(void);
  int32_t (*pullV2)(void*, void*, int32_t, int32_t, void*);
  int32_t (*pullV3)(void*, void*, int32_t, int32_t, int32_t, void*);
  int32_t (*pullV4)(void*, void*, int32_t, int32_t, int32_t, void*); /* null if absent */
  int32_t (*getRawFormat)(void*, uint32_t*, uint32_t*);
  int32_t (*pullNamed)(void*, void*, int32_t, uint32_t*, uint32_t*); /* null if absent */
  /* control interface */
  SimcamCamera* (*open)(uint32_t, uint32_t);
  void (*close)(SimcamCamera*);
  void (*setResult)(SimcamCamera*, int32_t);
  int32_t (*setRawBits)(SimcamCamera*, uint32_t);
  uint32_t (*frameIndex)(SimcamCamera*);
  void (*setFrameIndex)(SimcamCamera*, uint32_t);
  size_t (*frameBytes)(SimcamCamera*, int32_t, int32_t);
  uint32_t (*defaultPitch)(uint32_t, int32_t);
  int32_t (*render)(SimcamCamera*, uint32_t, void*, int32_t, int32_t);
  int32_t (*setStill)(SimcamCamera*, const uint8_t*, uint32_t, uint32_t, uint32_t);
  int32_t (*setPan)(SimcamCamera*, const uint8_t*, uint32_t, uint32_t, uint32_t, const SimcamPoint*,
                    uint32_t, uint32_t);
  int32_t (*panPosition)(SimcamCamera*, uint32_t, SimcamPoint*);
  int32_t (*setFocusSweep)(SimcamCamera*, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t,
                           double);
  double (*focusDepth)(SimcamCamera*, uint32_t, uint32_t);
  double (*focusSigma)(SimcamCamera*, uint32_t, uint32_t, uint32_t);
  int32_t (*setSpots)(SimcamCamera*, const SimcamSpot*, uint32_t, double, double, uint32_t);
  int32_t (*setSpot)(SimcamCamera*, const SimcamSpot*, double, double, uint32_t);
  int32_t (*spotTruth)(SimcamCamera*, uint32_t, uint32_t, SimcamSpotTruth*);
  void (*getStats)(SimcamStats*);
  void (*resetStats)(void);
} SimcamApi;

typedef struct SimcamPartialApi {
  const char* (*prefix)(void);
  int32_t (*pullV3)(void*, void*, int32_t, int32_t, int32_t, void*);
  int32_t (*getRawFormat)(void*, uint32_t*, uint32_t*);
  int32_t (*pullNamed)(void*, void*, int32_t, uint32_t*, uint32_t*);
  void (*getStats)(SimcamStats*);
  void (*resetStats)(void);
} SimcamPartialApi;

/* dlsym into a function pointer without a cast between object and function
 * pointers (which ISO C does not define). */
#define SIMCAM_RESOLVE_(handle, field, name, missing) \
  do {                                                \
    void* symbol_ = dlsym((handle), (name));          \
    memcpy(&(field), &symbol_, sizeof symbol_);       \
    if (symbol_ == NULL) ++(missing);                 \
  } while (0)

/* Fills *api from a handle; returns 1 when every function but pullV4 and
 * pullNamed was found, else 0. */
static inline int simcam_load_api(void* handle, SimcamApi* api) {
  int missing = 0;
  int optional = 0;
  memset(api, 0, sizeof *api);
  if (handle == NULL) return 0;
  SIMCAM_RESOLVE_(handle, api->prefix, "DllPrefix", missing);
  SIMCAM_RESOLVE_(handle, api->pullV2, "DllPullImageWithRowPitchV2", missing);
  SIMCAM_RESOLVE_(handle, api->pullV3, "DllPullImageV3", missing);
  SIMCAM_RESOLVE_(handle, api->pullV4, "DllPullImageV4", optional);
  SIMCAM_RESOLVE_(handle, api->getRawFormat, "Simcam_get_RawFormat", missing);
  SIMCAM_RESOLVE_(handle, api->pullNamed, "Simcam_PullImage", optional);
  SIMCAM_RESOLVE_(handle, api->open, "simcam_open", missing);
  SIMCAM_RESOLVE_(handle, api->close, "simcam_close", missing);
  SIMCAM_RESOLVE_(handle, api->setResult, "simcam_set_result", missing);
  SIMCAM_RESOLVE_(handle, api->setRawBits, "simcam_set_raw_bits", missing);
  SIMCAM_RESOLVE_(handle, api->frameIndex, "simcam_frame_index", missing);
  SIMCAM_RESOLVE_(handle, api->setFrameIndex, "simcam_set_frame_index", missing);
  SIMCAM_RESOLVE_(handle, api->frameBytes, "simcam_frame_bytes", missing);
  SIMCAM_RESOLVE_(handle, api->defaultPitch, "simcam_default_pitch", missing);
  SIMCAM_RESOLVE_(handle, api->render, "simcam_render", missing);
  SIMCAM_RESOLVE_(handle, api->setStill, "simcam_set_still", missing);
  SIMCAM_RESOLVE_(handle, api->setPan, "simcam_set_pan", missing);
  SIMCAM_RESOLVE_(handle, api->panPosition, "simcam_pan_position", missing);
  SIMCAM_RESOLVE_(handle, api->setFocusSweep, "simcam_set_focus_sweep", missing);
  SIMCAM_RESOLVE_(handle, api->focusDepth, "simcam_focus_depth", missing);
  SIMCAM_RESOLVE_(handle, api->focusSigma, "simcam_focus_sigma", missing);
  SIMCAM_RESOLVE_(handle, api->setSpots, "simcam_set_spots", missing);
  SIMCAM_RESOLVE_(handle, api->setSpot, "simcam_set_spot", missing);
  SIMCAM_RESOLVE_(handle, api->spotTruth, "simcam_spot_truth", missing);
  SIMCAM_RESOLVE_(handle, api->getStats, "simcam_get_stats", missing);
  SIMCAM_RESOLVE_(handle, api->resetStats, "simcam_reset_stats", missing);
  (void)optional;
  return missing == 0;
}

/* Fills *api from a handle of libvantix_simcam_partial.so; 1 when complete. */
static inline int simcam_load_partial_api(void* handle, SimcamPartialApi* api) {
  int missing = 0;
  memset(api, 0, sizeof *api);
  if (handle == NULL) return 0;
  SIMCAM_RESOLVE_(handle, api->prefix, "DllPrefix", missing);
  SIMCAM_RESOLVE_(handle, api->pullV3, "DllPullImageV3", missing);
  SIMCAM_RESOLVE_(handle, api->getRawFormat, "Partial_get_RawFormat", missing);
  SIMCAM_RESOLVE_(handle, api->pullNamed, "Partial_PullImage", missing);
  SIMCAM_RESOLVE_(handle, api->getStats, "simcam_partial_get_stats", missing);
  SIMCAM_RESOLVE_(handle, api->resetStats, "simcam_partial_reset_stats", missing);
  return missing == 0;
}

#undef SIMCAM_RESOLVE_

#ifdef __cplusplus
}
#endif

#endif /* VANTIX_SIMCAM_LOADER_H */
