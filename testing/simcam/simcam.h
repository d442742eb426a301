/*
 * simcam.h - a simulated camera SDK.
 *
 * libvantix_simcam.so behaves like the camera SDK a host has loaded: it
 * exports "DllPrefix" (prefix "Simcam"), the pull functions
 * "DllPullImageWithRowPitchV2", "DllPullImageV3", "DllPullImageV4",
 * "Simcam_PullImage" and the raw-format query "Simcam_get_RawFormat".  On top
 * of that it exports the control interface below (prefix simcam_), which
 * sets up what the camera sees and lets tests check what the SDK was asked.
 *
 * Two companion libraries are built next to it:
 *   libvantix_simcam_legacy.so   the same simulator, as an older SDK release
 *                                without "DllPullImageV4" and
 *                                "Simcam_PullImage";
 *   libvantix_simcam_partial.so  an SDK stub with prefix "Partial" that
 *                                exports "DllPullImageV3", "Partial_get_RawFormat"
 *                                and "Partial_PullImage" but no V2 pull.  It
 *                                has no cameras; its only control function is
 *                                simcam_partial_get_stats.
 *
 * Tests and the demo load these libraries with dlopen, as a host loads its
 * SDK (linking the target vantix_simcam works too); simcam_loader.h
 * resolves the whole interface from a dlopen handle.
 *
 * Frames
 * ------
 * A camera has a fixed frame size, set when it is opened, and a scene: a
 * built-in test pattern at first (the testing kit's textured scene, seed 1),
 * then whatever simcam_set_* installed last.
 * Each successful pull (any of the four pull functions) delivers the frame
 * at the camera's frame index and then advances the index by one.  A failed
 * pull writes nothing and does not advance it.  Frames are rendered on
 * demand, so any index can be pulled or rendered at any time.
 *
 * Pixel output by `bits`:
 *   8    grey, 8-bit            (cv::COLOR_BGR2GRAY of an 8-bit scene)
 *   16   grey, 16-bit words holding the raw bit depth (default 12: 0..4095)
 *   24   B G R, 8-bit
 *   32   B G R A, 8-bit, alpha 255
 *   48   B G R, 16-bit, full 16-bit scale (8-bit value * 257)
 *   64   B G R A, 16-bit, alpha 65535
 * Anything else fails with SIMCAM_E_INVALIDARG.  Row pitch 0 means rows
 * padded to 4 bytes, (width * bits + 31) / 32 * 4; a positive pitch of at
 * least width * bits / 8 is used as given; a shorter or negative one fails.
 * Padding bytes at the end of rows are never written.
 *
 * Frame-information records (24, 40 or 104 bytes for V2, V3, V4): bytes 0-3
 * width, 4-7 height (uint32, native order), 8-11 the frame index of the
 * delivered frame (uint32), and every further byte at offset i (12 <= i <
 * size) is (uint8_t)(i * 7 + frameIndex).  The whole record is written.
 *
 * Coordinates are in pixels with pixel (x, y) centred at (x, y).
 *
 * Control functions need a camera from simcam_open unless they say
 * otherwise; the SDK entry points return SIMCAM_E_POINTER for a null camera
 * or buffer.  No C++ exception leaves the library.
 *
 * Threads: every function may be called from any thread; calls on the same
 * camera are serialised by a lock of the camera.
 */
#ifndef VANTIX_SIMCAM_H
#define VANTIX_SIMCAM_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__) || defined(__clang__)
#define SIMCAM_API __attribute__((visibility("default")))
#else
#define SIMCAM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes of the SDK and control functions (HRESULT style). */
#define SIMCAM_S_OK ((int32_t)0)
#define SIMCAM_E_POINTER ((int32_t)0x80004003u)
#define SIMCAM_E_INVALIDARG ((int32_t)0x80070057u)
#define SIMCAM_E_OUTOFMEMORY ((int32_t)0x8007000Eu)

/* The FourCC that the raw-format queries report ('R','G','G','B'). */
#define SIMCAM_RAW_FOURCC ((uint32_t)0x42474752u)

typedef struct SimcamCamera SimcamCamera;

typedef struct SimcamPoint {
  double x;
  double y;
} SimcamPoint;

/* One Gaussian laser spot.  Intensities are fractions of full scale. */
typedef struct SimcamSpot {
  double centerX; /* centre of the orbit (the spot's centre when static) */
  double centerY;
  double sigmaX;          /* Gaussian sigma along the spot's own x axis, pixels */
  double sigmaY;          /* ... along its own y axis */
  double angle;           /* degrees; turns the spot's x axis from +x toward +y */
  double peak;            /* height above the background, 0..1 */
  double orbitRadius;     /* the centre runs along this circle ... */
  double orbitPeriod;     /* ... once every orbitPeriod frames (0: static) */
  double breathAmplitude; /* sigmas scale by 1 + amplitude * sin(2 pi i / period); |a| < 1 */
  double breathPeriod;    /* frames (0: constant size) */
} SimcamSpot;

/* The exact spot of one frame. */
typedef struct SimcamSpotTruth {
  double centerX;
  double centerY;
  double sigmaX;
  double sigmaY;
  double angle; /* as given in SimcamSpot */
  double peak;
} SimcamSpotTruth;

/* What the SDK entry points of a library were asked (process-wide). */
typedef struct SimcamStats {
  uint32_t prefixCalls;    /* DllPrefix */
  uint32_t pullV2Calls;    /* DllPullImageWithRowPitchV2 */
  uint32_t pullV3Calls;    /* DllPullImageV3 */
  uint32_t pullV4Calls;    /* DllPullImageV4 */
  uint32_t rawFormatCalls; /* <prefix>_get_RawFormat */
  uint32_t namedPullCalls; /* <prefix>_PullImage */
} SimcamStats;

/* ---------------------------------------------------------------------------
 * SDK entry points (what the library under test looks up by name)
 * ------------------------------------------------------------------------- */

SIMCAM_API const char* DllPrefix(void);
SIMCAM_API int32_t DllPullImageWithRowPitchV2(void* camera, void* buffer, int32_t bits,
                                              int32_t rowPitch, void* frameInfoV2);
SIMCAM_API int32_t DllPullImageV3(void* camera, void* buffer, int32_t zero, int32_t bits,
                                  int32_t rowPitch, void* frameInfoV3);
/* Not exported by libvantix_simcam_legacy.so (nor is Simcam_PullImage). */
SIMCAM_API int32_t DllPullImageV4(void* camera, void* buffer, int32_t zero, int32_t bits,
                                  int32_t rowPitch, void* frameInfoV4);
/* Writes SIMCAM_RAW_FOURCC to *format (when not null) and the raw bit depth
 * to *bitDepth (when not null). */
SIMCAM_API int32_t Simcam_get_RawFormat(void* camera, uint32_t* format, uint32_t* bitDepth);
/* Pull at the default row pitch; writes the frame size to *width / *height
 * (each when not null) on success. */
SIMCAM_API int32_t Simcam_PullImage(void* camera, void* buffer, int32_t bits, uint32_t* width,
                                    uint32_t* height);

/* ---------------------------------------------------------------------------
 * Cameras
 * ------------------------------------------------------------------------- */

/* A camera delivering width x height frames of the built-in test pattern;
 * null when a size is 0 or above 16384. */
SIMCAM_API SimcamCamera* simcam_open(uint32_t width, uint32_t height);
/* Null is ignored. */
SIMCAM_API void simcam_close(SimcamCamera* camera);

/* The result the following pulls return (until changed; 0 at open).  A
 * negative value makes them fail without writing anything; a positive one
 * is returned from pulls that deliver the frame as usual. */
SIMCAM_API void simcam_set_result(SimcamCamera* camera, int32_t result);
/* The raw bit depth: 0 (reported as 0; 16-bit grey then uses all 16 bits)
 * or 8..16.  Default 12.  Returns SIMCAM_E_INVALIDARG for other values. */
SIMCAM_API int32_t simcam_set_raw_bits(SimcamCamera* camera, uint32_t bits);

/* The index of the frame the next pull delivers, and setting it. */
SIMCAM_API uint32_t simcam_frame_index(SimcamCamera* camera);
SIMCAM_API void simcam_set_frame_index(SimcamCamera* camera, uint32_t index);

/* Bytes one frame takes at `bits` and `rowPitch` (0: the default pitch, as
 * the pulls use it), 0 when they are not accepted. */
SIMCAM_API size_t simcam_frame_bytes(SimcamCamera* camera, int32_t bits, int32_t rowPitch);

/* Writes frame `index` the way a pull would, without touching the frame
 * index, the result override or the counters (ground truth for tests). */
SIMCAM_API int32_t simcam_render(SimcamCamera* camera, uint32_t index, void* buffer, int32_t bits,
                                 int32_t rowPitch);

/* ---------------------------------------------------------------------------
 * Scenes.  Images are 8-bit B G R rows, `stride` bytes apart.  A setter that
 * fails leaves the previous scene in place.
 * ------------------------------------------------------------------------- */


/* A stage moving under the camera: the frame is the window of the scene
 * whose top-left corner is at the path position, sampled bilinearly at
 * sub-pixel positions.  Frame i lies on segment i / framesPerSegment at
 * fraction (i % framesPerSegment) / framesPerSegment; after the last point
 * the stage stays there.  Positions are clamped to [0, sceneWidth -
 * frameWidth] x [0, sceneHeight - frameHeight].  The scene must be at least
 * the frame size; count >= 1, framesPerSegment >= 1. */
SIMCAM_API int32_t simcam_set_pan(SimcamCamera* camera, const uint8_t* bgr, uint32_t width,
                                  uint32_t height, uint32_t stride, const SimcamPoint* path,
                                  uint32_t count, uint32_t framesPerSegment);
/* The (clamped) top-left position of frame `index`; SIMCAM_E_INVALIDARG
 * when the scene is not a pan. */
SIMCAM_API int32_t simcam_pan_position(SimcamCamera* camera, uint32_t index, SimcamPoint* position);

/* A focus sweep through a smooth synthetic depth map (depth 0..1 over the
 * frame).  Frame i (taken modulo frameCount) focuses at depth k / (frameCount
 * - 1), k = i % frameCount, with a depth of field of half the spacing of the
 * focus planes: a pixel is exactly the sharp image in the frame(s) whose
 * plane is nearest to its depth and blurred elsewhere, with a Gaussian sigma
 * growing linearly to maxBlurSigma at the far end of the depth range.  The
 * sharp image is resized to the frame size (area interpolation when
 * shrinking, bilinear when enlarging). */
SIMCAM_API int32_t simcam_set_focus_sweep(SimcamCamera* camera, const uint8_t* bgr, uint32_t width,
                                          uint32_t height, uint32_t stride, uint32_t frameCount,
                                          double maxBlurSigma);

/* Grey Gaussian spots on a background, with additive Gaussian noise (standard
 * deviation `noise`, fractions of full scale, the same for the same seed and
 * frame index).  Spots add up; values are clamped to [0, 1].  Spot k of frame
 * i is centred at (centerX + r cos t, centerY + r sin t), t = 2 pi i /
 * orbitPeriod, with both sigmas scaled by the breathing factor.  Sigmas must
 * be positive; up to 64 spots.  Frames are rendered in floating point, so
 * 16-bit output carries more than 8 bits of precision. */
SIMCAM_API int32_t simcam_set_spots(SimcamCamera* camera, const SimcamSpot* spots, uint32_t count,
                                    double background, double noise, uint32_t seed);
/* The exact spot `spot` of frame `index`. */
SIMCAM_API int32_t simcam_spot_truth(SimcamCamera* camera, uint32_t index, uint32_t spot,
                                     SimcamSpotTruth* truth);

/* ---------------------------------------------------------------------------
 * Scene images for hosts and tests (no camera needed).  8-bit B G R rows.
 * ------------------------------------------------------------------------- */

/* A synthetic scene with detail at several scales and no repetition (every
 * window registers at one place only); the same seed gives the same scene. */
SIMCAM_API int32_t simcam_texture(uint8_t* bgr, uint32_t width, uint32_t height, uint32_t stride,
                                  uint32_t seed);
/* The image blurred by a Gaussian of `sigma` (0 < sigma <= 100; edges
 * mirrored) into `out`. */
SIMCAM_API int32_t simcam_blur(const uint8_t* bgr, uint32_t width, uint32_t height, uint32_t stride,
                               double sigma, uint8_t* out, uint32_t outStride);
/* ---------------------------------------------------------------------------
 * Call counters (per library, across all cameras)
 * ------------------------------------------------------------------------- */

SIMCAM_API void simcam_get_stats(SimcamStats* stats);

/* Exported by libvantix_simcam_partial.so only.  Its pulls deliver a 4 x 2
 * frame (every byte 0x5A; the same record pattern), return 0 and ignore the
 * camera handle; its raw-format query reports a depth of 10. */
SIMCAM_API void simcam_partial_get_stats(SimcamStats* stats);

#ifdef __cplusplus
}
#endif

#endif /* VANTIX_SIMCAM_H */
