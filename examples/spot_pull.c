/*
 * spot_pull.c - laser-spot measurement with frames pulled from a camera SDK.
 *
 * Loads the simulated camera SDK installed with libvantix (as a host loads
 * its camera vendor's SDK), points a tilted elliptical Gaussian spot at it,
 * and lets a spot session pull and measure frames: the library finds the SDK
 * among the loaded libraries by itself.
 *
 *   ./spot_pull [path/to/libvantix_simcam.so] [frames]
 *
 * Prints the spot the camera shows, then centre, 4-sigma diameters and angle
 * of every frame; exits 1 when a call fails or the last centre is more than
 * half a pixel off.
 */
#define _XOPEN_SOURCE 700 /* M_PI */
#include <dlfcn.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <vantix.h>
#include <vantix/simcam_loader.h>

#ifndef VANTIX_SIMCAM_DEFAULT /* the build passes the installed location */
#define VANTIX_SIMCAM_DEFAULT "/usr/local/lib/vantix/libvantix_simcam.so"
#endif

enum { W = 400, H = 300, BITS = 16 };

int main(int argc, char **argv) {
  const char *sdk_path = argc > 1 ? argv[1] : VANTIX_SIMCAM_DEFAULT;
  const int frames = argc > 2 ? atoi(argv[2]) : 8;
  /* Kept loaded until exit: the library's binding to the SDK is never released. */
  void *sdk = dlopen(sdk_path, RTLD_NOW | RTLD_LOCAL);
  SimcamApi sim;
  if (!simcam_load_api(sdk, &sim)) {
    fprintf(stderr, "cannot load the simulated camera %s: %s\n", sdk_path, sdk ? "incomplete" : dlerror());
    return 1;
  }
  SimcamCamera *camera = sim.open(W, H);
  if (!camera) return 1;

  /* A static spot, 12-bit camera (the default raw depth), dark background:
   * second moments weigh every pixel, so a real host subtracts the dark level. */
  SimcamSpot spot = {0};
  spot.centerX = 181.3, spot.centerY = 142.7;
  spot.sigmaX = 11, spot.sigmaY = 6, spot.angle = 30, spot.peak = 0.8;
  if (sim.setSpots(camera, &spot, 1, 0.0, 0.0, 1) != SIMCAM_S_OK) return 1;
  /* Sessions measure along x and y (angle reported as 90): the expected
   * 4-sigma widths of the tilted spot are those of its x and y profiles. */
  double c = cos(spot.angle * M_PI / 180), s = sin(spot.angle * M_PI / 180);
  double sx = spot.sigmaX, sy = spot.sigmaY;
  printf("camera: %dx%d, spot at %.2f %.2f, tilted %.0f deg, 4-sigma x/y diameters %.2f x %.2f\n",
         W, H, spot.centerX, spot.centerY, spot.angle, 4 * sqrt(sx * sx * c * c + sy * sy * s * s),
         4 * sqrt(sx * sx * s * s + sy * sy * c * c));

  VantixSpot *session = vantix_spot_new(1, 1); /* one spot, no averaging */
  size_t bytes = sim.frameBytes(camera, BITS, 0);
  uint16_t *buffer = malloc(bytes);
  if (!buffer) return 1;
  SpotResult r = {0};
  for (int i = 0; i < frames; ++i) {
    FrameInfoV2 info;
    VantixResult hr = vantix_spot_pull(session, camera, 1, buffer, BITS, 0, &info, &r);
    if (hr == VANTIX_E_NOTIMPL) {
      fprintf(stderr, "the library found no camera SDK in the process\n");
      return 1;
    }
    if (VANTIX_FAILED(hr)) { fprintf(stderr, "pull: 0x%08X\n", (unsigned)hr); return 1; }
    /* The automatic aperture starts as the whole frame and settles on the beam. */
    printf("frame %2d (%ux%u): centre %7.2f %7.2f  diameters %6.2f x %6.2f  angle %6.1f  "
           "aperture %5.1f x %5.1f\n", i, info.width, info.height, r.centerX, r.centerY,
           r.majorDiameter, r.minorDiameter, r.angle, 2 * r.apertureA, 2 * r.apertureB);
  }
  vantix_spot_delete(session);
  sim.close(camera);
  free(buffer);
  double off = hypot(r.centerX - spot.centerX, r.centerY - spot.centerY);
  printf("last centre is %.3f px from the spot's\n", off);
  return frames > 0 && off <= 0.5 ? 0 : 1;
}
