/*
 * vantix.h - the public interface of libvantix.
 *
 * libvantix adds image processing to a camera application: live stitching of a
 * panorama while the camera moves, extended depth of field (focus stacking),
 * laser-spot measurement by second moments, edge snapping of a clicked point,
 * Bayer demosaicing and resizing.  Frames are either pushed by the host or
 * pulled by the library straight from the camera SDK that the host has loaded.
 *
 * This header is the reference manual.  It is plain C (C99 or later) and may
 * be included from C++.
 *
 * ---------------------------------------------------------------------------
 * General rules
 * ---------------------------------------------------------------------------
 *
 * Results.  Functions that can fail return a VantixResult, an HRESULT-style
 * 32-bit code: 0 is success, a value that is negative when read as int32_t is
 * a failure (test with VANTIX_FAILED).  The pull functions return the camera
 * SDK's own result unchanged, so other values can appear there.  There is no
 * error text, no logging and no "last error": the code (or a null handle) is
 * all there is.
 *
 * Exceptions.  The library is written in C++.  A few failures leave an
 * exported function as a C++ exception rather than a code; each function says
 * which.  A C host that wants to survive them must not trigger them (they all
 * come from arguments outside the documented contract, or from running out of
 * memory while creating a session).
 *
 * Handles.  Every session handle is an opaque pointer, created by the family's
 * new function and destroyed by its delete function.  Only the delete
 * functions, vantix_stitch_cropparams and the two pushback functions accept a
 * null handle; every other session function requires a valid one.
 *
 * Set-up.  Call vantix_init once, with the host's allocator, before creating
 * stitch or edge sessions (their new functions return null without it).  EDF
 * and spot sessions and the image operations work without it.  There is no
 * shutdown call; the library's process-wide state (the allocator pointer and
 * the cached camera-SDK bindings) lives until the process ends.
 *
 * Threads.  Stitch and EDF sessions each run a worker thread between start and
 * stop; their callbacks run on that worker thread with no library lock held.
 * A host MUST NOT call the session's stop or delete function from inside one
 * of its callbacks (the stop waits for the very thread that runs the
 * callback).  Start, stop and delete of one session may come from several
 * host threads, also at the same moment (a stop button beside an error
 * handler): they are serialised, and a stop that finds the session stopped
 * returns.  Spot and edge sessions and the image operations run entirely on
 * the caller's thread.
 *
 * Buffers.  Pushed frames are deep-copied before the push returns; the host
 * may reuse its buffer at once.  Data handed to a callback is valid only
 * during the callback unless the function says otherwise.  The panorama
 * returned by vantix_stitch_stop is allocated with the host's allocator and
 * belongs to the host.
 */
#ifndef VANTIX_H
#define VANTIX_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define VANTIX_API
#elif defined(__GNUC__) || defined(__clang__)
#define VANTIX_API __attribute__((visibility("default")))
#else
#define VANTIX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Version
 * ------------------------------------------------------------------------- */

/** The library's version; the build reads it from here. */
#define VANTIX_VERSION_MAJOR 1
#define VANTIX_VERSION_MINOR 0
#define VANTIX_VERSION_PATCH 0
/** The version as one number, major * 10000 + minor * 100 + patch. */
#define VANTIX_VERSION \
  (VANTIX_VERSION_MAJOR * 10000 + VANTIX_VERSION_MINOR * 100 + \
   VANTIX_VERSION_PATCH)

/* ---------------------------------------------------------------------------
 * Result codes
 * ------------------------------------------------------------------------- */

/** A 32-bit HRESULT-style result; negative as int32_t means failure. */
typedef uint32_t VantixResult;

/** Success. */
#define VANTIX_S_OK ((VantixResult)0x00000000u)
/** Not implemented / not available: the camera SDK lacks the needed pull
 *  function, a pushback was given a null session, or vantix_demosaic was
 *  asked for a combination it does not offer. */
#define VANTIX_E_NOTIMPL ((VantixResult)0x80004001u)
/** A required pointer was null (resize). */
#define VANTIX_E_POINTER ((VantixResult)0x80004003u)
/** An argument failed validation (resize, demosaic). */
#define VANTIX_E_INVALIDARG ((VantixResult)0x80070057u)
/** The image library ran out of memory (resize, demosaic). */
#define VANTIX_E_OUTOFMEMORY ((VantixResult)0x8007000Eu)
/** Any other failure inside the image library.  NOTE: vantix_demosaic also
 *  returns this after a conversion that ran successfully; see there. */
#define VANTIX_E_FAIL ((VantixResult)0x80004005u)

/** True when a result code reports a failure. */
#define VANTIX_FAILED(hr) (((int32_t)(VantixResult)(hr)) < 0)
/** True when a result code reports success (0 or a positive SDK code). */
#define VANTIX_SUCCEEDED(hr) (((int32_t)(VantixResult)(hr)) >= 0)

/**
 * The name of a result code: the macro's name without "VANTIX_" for the
 * library's codes ("S_OK", "E_INVALIDARG", ...), the usual name of a few
 * common codes a camera SDK may pass back through the pulls ("S_FALSE",
 * "E_NOINTERFACE", "E_ABORT", "E_UNEXPECTED", "E_ACCESSDENIED", "E_HANDLE"),
 * and "unknown" for any other value.  Never null; header-only (no export).
 */
static inline const char *vantix_result_name(VantixResult result) {
  switch (result) {
    case VANTIX_S_OK: return "S_OK";
    case VANTIX_E_NOTIMPL: return "E_NOTIMPL";
    case VANTIX_E_POINTER: return "E_POINTER";
    case VANTIX_E_INVALIDARG: return "E_INVALIDARG";
    case VANTIX_E_OUTOFMEMORY: return "E_OUTOFMEMORY";
    case VANTIX_E_FAIL: return "E_FAIL";
    case 0x00000001u: return "S_FALSE";
    case 0x80004002u: return "E_NOINTERFACE";
    case 0x80004004u: return "E_ABORT";
    case 0x8000FFFFu: return "E_UNEXPECTED";
    case 0x80070005u: return "E_ACCESSDENIED";
    case 0x80070006u: return "E_HANDLE";
    default: return "unknown";
  }
}

/* ---------------------------------------------------------------------------
 * Records that cross the boundary
 * ------------------------------------------------------------------------- */

/**
 * The image header: the 40-byte Windows BITMAPINFOHEADER, little-endian,
 * followed by the pixel rows.  Rows are used in memory order (never flipped).
 *
 * Accepted biBitCount values and their storage:
 *   8                    one 8-bit channel (an 8-bit image carries a colour
 *                        table of 256 four-byte entries between header and
 *                        pixels; the library skips it and never touches it)
 *   9..16                one 16-bit channel, the low biBitCount bits used
 *   24                   three 8-bit channels, B G R
 *   32                   four 8-bit channels, B G R A
 *   30, 33, 36, 42, 48   three 16-bit channels (10, 11, 12, 14, 16 bits used)
 * Unless a row pitch is given, rows are padded to 4 bytes: the stride is
 * vantix_default_stride(biWidth, storageBits) with storageBits 8, 16, 24, 32
 * or 48 from the table.
 *
 * Images the library creates (the panorama of vantix_stitch_stop) have
 * biSize 40, biPlanes 1, biBitCount 24, biCompression 0, biSizeImage
 * stride * height (0 if that exceeds 32 bits) and all other fields 0.
 */
typedef struct VantixImageHeader {
  uint32_t biSize;          /**< 40 where checked; pixels start biSize bytes in */
  int32_t biWidth;          /**< width in pixels */
  int32_t biHeight;         /**< number of rows (not flipped when negative) */
  uint16_t biPlanes;        /**< 1 in images the library creates; not checked */
  uint16_t biBitCount;      /**< bits a pixel, see above */
  uint32_t biCompression;   /**< must be 0 where checked */
  uint32_t biSizeImage;     /**< written by the library, never read */
  int32_t biXPelsPerMeter;  /**< written as 0, never read */
  int32_t biYPelsPerMeter;  /**< written as 0, never read */
  uint32_t biClrUsed;       /**< written as 0, never read */
  uint32_t biClrImportant;  /**< written as 0, never read */
} VantixImageHeader;

/**
 * The host's allocator.  Takes a byte count and returns that many bytes, or
 * null.  The library calls it only for images it hands to the host (the
 * panorama of vantix_stitch_stop); the host owns and frees what it returned.
 */
typedef void *(*VantixAllocator)(uint64_t byteCount);

/**
 * The default row stride, rows padded to 4 bytes, computed in unsigned
 * 32-bit arithmetic exactly as the library does:
 *   ((width * bitsPerPixel + 31) >> 3) & ~3
 * A product that does not fit 32 bits wraps, as in the library (a negative
 * biWidth is read as unsigned); hosts that accept such sizes check them
 * first.  Header-only (no export).
 */
static inline uint32_t vantix_default_stride(uint32_t width,
                                             uint32_t bitsPerPixel) {
  return ((width * bitsPerPixel + 31u) >> 3) & 0xFFFFFFFCu;
}

/**
 * Frame-information records filled by the camera SDK.  The library reads
 * only the width and height and copies the rest unchanged.
 */
typedef struct FrameInfoV2 {
  uint32_t width;
  uint32_t height;
  uint8_t sdkDefined[16];
} FrameInfoV2;

typedef struct FrameInfoV3 {
  uint32_t width;
  uint32_t height;
  uint8_t sdkDefined[32];
} FrameInfoV3;

typedef struct FrameInfoV4 {
  uint32_t width;
  uint32_t height;
  uint8_t sdkDefined[96];
} FrameInfoV4;

/**
 * One spot's measurement: eleven doubles (88 bytes).  Lengths are in pixels
 * of the whole frame, angles in degrees.
 */
typedef struct SpotResult {
  double total;         /**< 1: sum of grey values inside the aperture */
  double centerX;       /**< 2: intensity-weighted centre x (ROI offset added) */
  double centerY;       /**< 3: intensity-weighted centre y (ROI offset added) */
  double majorDiameter; /**< 4: 4-sigma diameter (x diameter when axis-aligned) */
  double minorDiameter; /**< 5: 4-sigma diameter (y diameter when axis-aligned) */
  double ellipticity;   /**< 6: smaller / larger diameter; 0 without signal */
  double angle;         /**< 7: orientation in (-90, 90]; 90 when axis-aligned */
  double apertureX;     /**< 8: centre x of the aperture used */
  double apertureY;     /**< 9: centre y of the aperture used */
  double apertureA;     /**< 10: semi-axis along x (before rotation) */
  double apertureB;     /**< 11: semi-axis along y (before rotation) */
} SpotResult;

/** An elliptical aperture: centre and the two semi-axes, in frame pixels. */
typedef struct SpotAperture {
  double centerX;
  double centerY;
  double a; /**< semi-axis along x; below zero means "not set" */
  double b; /**< semi-axis along y */
} SpotAperture;

/** A region of interest; a width or height below 1 means the whole frame. */
typedef struct SpotRoi {
  int32_t x;
  int32_t y;
  int32_t width;
  int32_t height;
} SpotRoi;

#if defined(__cplusplus) && __cplusplus >= 201103L
#define VANTIX_STATIC_ASSERT(c, m) static_assert(c, #m)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define VANTIX_STATIC_ASSERT(c, m) _Static_assert(c, #m)
#else
#define VANTIX_STATIC_ASSERT(c, m) \
  typedef char vantix_static_assert_##m[(c) ? 1 : -1]
#endif
VANTIX_STATIC_ASSERT(sizeof(VantixImageHeader) == 40, image_header_is_40_bytes);
VANTIX_STATIC_ASSERT(sizeof(FrameInfoV2) == 24, frame_info_v2_is_24_bytes);
VANTIX_STATIC_ASSERT(sizeof(FrameInfoV3) == 40, frame_info_v3_is_40_bytes);
VANTIX_STATIC_ASSERT(sizeof(FrameInfoV4) == 104, frame_info_v4_is_104_bytes);
VANTIX_STATIC_ASSERT(sizeof(SpotResult) == 88, spot_result_is_88_bytes);
VANTIX_STATIC_ASSERT(sizeof(SpotAperture) == 32, spot_aperture_is_32_bytes);
VANTIX_STATIC_ASSERT(sizeof(SpotRoi) == 16, spot_roi_is_16_bytes);

/* ---------------------------------------------------------------------------
 * Pixel formats of stitch, EDF and edge sessions
 * ---------------------------------------------------------------------------
 *
 *   format  pushed frame                     default stride (row pitch 0)
 *   0       8-bit B G R                      vantix_default_stride(width, 24)
 *   1       16-bit B G R                     vantix_default_stride(width, 48)
 *   2       8-bit B G R A                    width * 4
 *   3       16-bit B G R A                   width * 8
 *   other   read as format 0, except that a stitch session's canvas, its
 *           vantix_stitch_readdata and its panorama have 4 bytes a pixel
 *           as for formats 1 to 3
 *
 * Sessions work on 8-bit B G R internally: 16-bit samples are scaled by 1/257
 * (65535 -> 255) and alpha is dropped.  Images handed back in a session's
 * format are scaled by 257 (255 -> 65535) and get an opaque alpha channel.
 * The OpenCV type code reported with such images is 16 (8UC3), 18 (16UC3),
 * 24 (8UC4) or 26 (16UC4).
 */
#define VANTIX_FORMAT_BGR8 0u
#define VANTIX_FORMAT_BGR16 1u
#define VANTIX_FORMAT_BGRA8 2u
#define VANTIX_FORMAT_BGRA16 3u

/* Opaque session handles. */
typedef struct VantixStitch VantixStitch;
typedef struct VantixEdf VantixEdf;
typedef struct VantixSpot VantixSpot;
typedef struct VantixEdge VantixEdge;

/* ---------------------------------------------------------------------------
 * Set-up
 * ------------------------------------------------------------------------- */

/**
 * Registers the host's allocator (null clears it) and enables the image
 * library's faster non-bit-exact code paths for the calling thread.  Call it
 * before creating stitch or edge sessions, and before using the library from
 * several threads.  May be called again; the last call wins.
 */
VANTIX_API void vantix_init(VantixAllocator allocator);

/* ---------------------------------------------------------------------------
 * Live stitching
 * ---------------------------------------------------------------------------
 *
 * A stitch session builds a panorama on a canvas four frames wide and four
 * frames high (it grows by four frames when the view leaves it).  The first
 * frame lies at canvas position (2 * width, 2 * height).  Frames go into a
 * queue of 21 (the oldest is dropped when full); the worker takes the
 * sharpest of the up to six oldest waiting frames, drops those before it,
 * registers it against the reference frame and places it on the canvas.
 * The canvas is kept bottom-up, 3 bytes a pixel for format 0 and 4 bytes a
 * pixel for the other formats.  A placed frame replaces what it covers,
 * fading into the earlier content over a band of a twentieth of the frame
 * along its border; parts that cover nothing are copied unchanged.  Frames
 * within a tenth of a frame of the last drawn one are not drawn again.
 *
 * Memory on long scans: the canvas never shrinks.  A scan that keeps going
 * one way grows it by four frames every four frames of travel, so it costs
 * about width * 4 * height * (3 or 4 bytes a pixel) per frame width of
 * travel (3.7 MB for 640 x 480 frames in format 0; 737 MB after 200 frame
 * widths).  Each growth copies the whole canvas (for a moment the old and the
 * new canvas both exist), which takes about a second on a 400 MB canvas; the
 * frame that caused it waits for it, and so does a stop issued meanwhile.
 * Between growths a stop waits only for the frame in progress.  A growth that
 * fails for lack of memory is reported (events 3 then 2), the frame that
 * needed it is reported as not placed (mode 4), and the panorama so far is
 * kept.
 */

/**
 * Called on the stitch worker thread after every frame that reached
 * composition, placed or not.  Do not stop or delete the session from here.
 *   canvasData, canvasStride, canvasWidth, canvasHeight: the canvas pixels
 *     (valid during the call only; the canvas thread may draw into them);
 *   frameWidth, frameHeight, frameType: the processed frame (type is the
 *     OpenCV type code of the 8-bit working frame, 16);
 *   x, y: the frame's top-left corner on the canvas of this call (for
 *     modes 2..4 the position it would have had by its measured move).
 *     When the canvas grows to the left or upwards its content moves right
 *     or down by four frame widths or heights: positions of earlier calls
 *     move with it (a call whose canvasWidth/canvasHeight grew and whose
 *     reset is set reports in the new canvas);
 *   mode: 1 placed, 2 kept as reference only, 3 tracking lost / relocating,
 *     4 not placed this time (no confident match, a frame blurrier than
 *     the reference where they overlap, or a frame the canvas could not
 *     grow for);
 *     Frames placed are drawn by the canvas's own thread shortly after
 *     this call: pixels read here may still change (copy them with
 *     vantix_stitch_readdata for a consistent view);
 *   changed: nonzero when the canvas changed since the last call;
 *   reset: nonzero when the canvas was reallocated (its size or address may
 *     have changed) since the last call, and for the first frame;
 *   score: the frame's sharpness.
 */
typedef void (*VantixStitchFrameFn)(void *context, const uint8_t *canvasData,
                                    uint32_t canvasStride, uint32_t canvasWidth,
                                    uint32_t canvasHeight, uint32_t frameWidth,
                                    uint32_t frameHeight, uint32_t frameType,
                                    int32_t x, int32_t y, uint32_t mode,
                                    uint32_t changed, uint32_t reset,
                                    float score);

/** Stitch event codes (second argument of VantixStitchEventFn). */
#define VANTIX_STITCH_EVENT_FAILED 1u          /* exception; worker stopped */
#define VANTIX_STITCH_EVENT_OUT_OF_MEMORY 2u   /* out of memory */
#define VANTIX_STITCH_EVENT_CANVAS_GROWING 3u  /* canvas about to grow/shift */
#define VANTIX_STITCH_EVENT_GROW_FAILED 4u     /* growing the canvas failed */
#define VANTIX_STITCH_EVENT_CANVAS_GREW 5u     /* canvas grew or shifted */
#define VANTIX_STITCH_EVENT_TRACKING_LOST 7u
#define VANTIX_STITCH_EVENT_TRACKING_REGAINED 8u
#define VANTIX_STITCH_EVENT_RELOCATION_BEGUN 9u
#define VANTIX_STITCH_EVENT_RELOCATION_ENDED 10u
#define VANTIX_STITCH_EVENT_POINT_LOCATED 22u
#define VANTIX_STITCH_EVENT_POINT_NOT_LOCATED 23u
#define VANTIX_STITCH_EVENT_RELOCATION_SERVED 24u
#define VANTIX_STITCH_EVENT_POSITION_SET 25u

/**
 * The name of a stitch event code: its macro's name without
 * "VANTIX_STITCH_EVENT_" ("TRACKING_LOST", ...), or "unknown".  Never null;
 * header-only (no export).
 */
static inline const char *vantix_stitch_event_name(uint32_t code) {
  switch (code) {
    case VANTIX_STITCH_EVENT_FAILED: return "FAILED";
    case VANTIX_STITCH_EVENT_OUT_OF_MEMORY: return "OUT_OF_MEMORY";
    case VANTIX_STITCH_EVENT_CANVAS_GROWING: return "CANVAS_GROWING";
    case VANTIX_STITCH_EVENT_GROW_FAILED: return "GROW_FAILED";
    case VANTIX_STITCH_EVENT_CANVAS_GREW: return "CANVAS_GREW";
    case VANTIX_STITCH_EVENT_TRACKING_LOST: return "TRACKING_LOST";
    case VANTIX_STITCH_EVENT_TRACKING_REGAINED: return "TRACKING_REGAINED";
    case VANTIX_STITCH_EVENT_RELOCATION_BEGUN: return "RELOCATION_BEGUN";
    case VANTIX_STITCH_EVENT_RELOCATION_ENDED: return "RELOCATION_ENDED";
    case VANTIX_STITCH_EVENT_POINT_LOCATED: return "POINT_LOCATED";
    case VANTIX_STITCH_EVENT_POINT_NOT_LOCATED: return "POINT_NOT_LOCATED";
    case VANTIX_STITCH_EVENT_RELOCATION_SERVED: return "RELOCATION_SERVED";
    case VANTIX_STITCH_EVENT_POSITION_SET: return "POSITION_SET";
    default: return "unknown";
  }
}

/**
 * Called on the stitch worker thread (events 3 and 5 may also come from the
 * canvas's drawing thread) with one of the VANTIX_STITCH_EVENT_ codes.
 * Do not stop or delete the session from here.
 */
typedef void (*VantixStitchEventFn)(void *context, uint32_t code);

/**
 * Creates a stitch session for frames of width x height in format 0, with
 * scale and strictness level 2.  `unused` is ignored.  `background`: 0
 * checkerboard, 1 white, 2 black.  `onFrame` must not be null; `onEvent`
 * may be.  Returns null when vantix_init has not registered an allocator.
 * Running out of memory raises a C++ exception (a cv::Exception with the
 * out-of-memory code also for a side above 2^29 - 1, whose four-frame canvas
 * does not fit the coordinates).  Frames of a few pixels that cannot be
 * registered fail the worker (event 1) like any other processing failure.
 */
VANTIX_API VantixStitch *vantix_stitch_new(uint64_t unused, uint32_t width,
                                           uint32_t height, uint32_t background,
                                           VantixStitchFrameFn onFrame,
                                           VantixStitchEventFn onEvent,
                                           void *context);

/** As vantix_stitch_new, for frames in pixel `format` (0..3). */
VANTIX_API VantixStitch *vantix_stitch_newV2(uint32_t format, uint64_t unused,
                                             uint32_t width, uint32_t height,
                                             uint32_t background,
                                             VantixStitchFrameFn onFrame,
                                             VantixStitchEventFn onEvent,
                                             void *context);

/**
 * As vantix_stitch_newV2 with both quality levels, each 0..4.
 * scaleLevel picks the working-copy size used for sharpness and coarse
 * registration: 10, 15, 20, 30 or 40 percent of the frame.
 * strictLevel picks the minimum sharpness and match quality a frame needs to
 * be placed: (0.0, 0.8), (0.04, 0.85), (0.06, 0.9), (0.08, 0.92), (0.1, 0.95).
 */
VANTIX_API VantixStitch *vantix_stitch_newV3(
    uint32_t format, uint64_t unused, uint32_t width, uint32_t height,
    uint32_t background, uint32_t scaleLevel, uint32_t strictLevel,
    VantixStitchFrameFn onFrame, VantixStitchEventFn onEvent, void *context);

/** Destroys a session, stopping its worker first; null is ignored. */
VANTIX_API void vantix_stitch_delete(VantixStitch *session);

/** Starts the worker thread.  Call vantix_stitch_stop between two starts. */
VANTIX_API void vantix_stitch_start(VantixStitch *session);

/**
 * Stops the worker (waits for the frame in progress; frames already placed
 * are drawn before the panorama is copied).  Queued frames, the reference
 * and the canvas are kept: a later start continues the panorama.
 * With wantImage nonzero, returns the panorama as a VantixImageHeader
 * followed by bottom-up 24-bit rows, allocated with the host's allocator
 * (the host frees it): the covered rectangle when `cropped` is nonzero,
 * else the whole canvas.  Returns null when wantImage is 0, the rectangle is
 * empty or the allocator fails.
 * The canvas bytes are copied as 3 bytes a pixel whatever the format: for
 * formats 1..3 (a canvas of 4 bytes a pixel) the rows come out scrambled;
 * such hosts read the panorama with vantix_stitch_readdata instead.
 */
VANTIX_API VantixImageHeader *vantix_stitch_stop(VantixStitch *session,
                                                 uint32_t wantImage,
                                                 uint32_t cropped);

/**
 * Copies a scaled view of the canvas into `buffer`: height rows of width
 * pixels, 24 bits a pixel for format 0 and 32 bits for other formats, rows
 * padded to 4 bytes.  The region (x, y, roiWidth, roiHeight) of the canvas is
 * used when roiWidth is nonzero, else the whole canvas.  Cubic interpolation
 * when the buffer has fewer pixels than the canvas, area otherwise.
 * Returns 1 when copied, 0 while the canvas is being reallocated (retry).
 * A region not inside the canvas (its far edge computed without
 * wrapping), an empty region or a buffer of zero width or height raises a
 * C++ cv::Exception out of this call.
 */
VANTIX_API int32_t vantix_stitch_readdata(VantixStitch *session, void *buffer,
                                          uint32_t width, uint32_t height,
                                          uint32_t x, uint32_t y,
                                          uint32_t roiWidth,
                                          uint32_t roiHeight);

/**
 * Writes the covered rectangle of the canvas; a null session is ignored, and
 * so is each null pointer.  Before the first frame is placed it writes the
 * starting bounds (2 * width, 3 * height, width, -height as unsigned).
 */
VANTIX_API void vantix_stitch_cropparams(VantixStitch *session, uint32_t *x,
                                         uint32_t *y, uint32_t *width,
                                         uint32_t *height);

/**
 * Pushes one frame (height rows of width pixels in the session's format,
 * rowPitch bytes a row or 0 for the format's default stride).  `bits` is
 * ignored.  The frame is copied; frames pushed while the session is not
 * running, and frames of zero width or height, are dropped.  Returns
 * VANTIX_E_NOTIMPL for a null session, else VANTIX_S_OK.  A rowPitch shorter
 * than a row (or odd for formats 1 and 3) raises a C++ cv::Exception out of
 * this call, nothing queued.
 */
VANTIX_API VantixResult vantix_stitch_pushback(VantixStitch *session,
                                               const void *data, uint32_t width,
                                               uint32_t height, uint64_t bits,
                                               uint32_t rowPitch);

/**
 * Camera pull functions (stitch and EDF families alike).
 *
 * The library finds the camera SDK among the shared objects already loaded
 * in the process (it never loads one): the first object, in load order, that
 * exports "DllPrefix" and "DllPullImageWithRowPitchV2" is bound for the life
 * of the process.  Until such an object is found every pull searches again,
 * so a host may load its SDK late.  The named pull has a binding of its own.
 *
 * pull / pullV3 / pullV4: pulls one frame from `camera` (the SDK's camera
 * handle) into `buffer` (the host's buffer, laid out by the SDK for `bits`
 * bits a pixel and `rowPitch`, 0 letting the SDK choose), copies the SDK's
 * frame-information record to `info` when not null, and when `push` is
 * nonzero pushes the frame into the session with the record's width and
 * height.  Returns VANTIX_E_NOTIMPL when the SDK lacks the needed function,
 * otherwise the SDK's own result; on a negative result nothing is copied or
 * pushed.  `session` may only be null when `push` is 0.  The push reads
 * `buffer` in the session's format: pull with that format's bits.
 *
 * pullnam: pulls through the SDK's "<prefix>_PullImage", which writes the
 * frame size to *width and *height, and pushes with the session's default
 * row stride (8 bits a channel).  With a null width or height the frame is
 * not pushed.
 */
VANTIX_API VantixResult vantix_stitch_pull(VantixStitch *session, void *camera,
                                           int32_t push, void *buffer,
                                           int32_t bits, uint32_t rowPitch,
                                           FrameInfoV2 *info);
VANTIX_API VantixResult vantix_stitch_pullV3(VantixStitch *session,
                                             void *camera, int32_t push,
                                             void *buffer, int32_t bits,
                                             uint32_t rowPitch,
                                             FrameInfoV3 *info);
VANTIX_API VantixResult vantix_stitch_pullV4(VantixStitch *session,
                                             void *camera, int32_t push,
                                             void *buffer, int32_t bits,
                                             uint32_t rowPitch,
                                             FrameInfoV4 *info);
VANTIX_API VantixResult vantix_stitch_pullnam(VantixStitch *session,
                                              void *camera, int32_t push,
                                              void *buffer, uint32_t bits,
                                              uint32_t *width,
                                              uint32_t *height);

/* ---------------------------------------------------------------------------
 * Extended depth of field
 * ---------------------------------------------------------------------------
 *
 * An EDF session fuses frames of one scene taken at different focus into
 * one image that is sharp everywhere, updated after every frame.  Frames go
 * into a queue of 3 (the oldest is dropped when full); every frame must have
 * the size of the first.  Fuser kinds: 0 pyramid (largest coefficient),
 * 1 pyramid (weighted blend), 2 stack (focus-measure blend).
 *
 * From the third frame on, each frame is first aligned to the previous
 * fused image: brightness matched, then shifted and scaled (0.9 to 1.1)
 * about the centre by nearest-neighbour resampling, the edge pixels being
 * repeated where the frame has no data.  The worker fuses the frames in the
 * order they were pushed; while idle it checks the queue every 20 ms, so a
 * frame pushed to an idle session starts at most 20 ms later.  A host that
 * needs every frame fused pushes the next one after the previous one's
 * onFrame (from inside onFrame is allowed and keeps the worker busy): the
 * queue drops frames when the camera is faster than the fusion.
 */

/**
 * Called on the EDF worker thread after every processed frame, with no lock
 * held.  `event` is 0 (a new fused image).  `data`, `stride`, `width`,
 * `height`, `type` describe the fused image in the session's format (type
 * 16, 18, 24 or 26); the data is valid until the next frame replaces it: use
 * vantix_edf_readdata for a stable copy.  Do not stop or delete the session
 * from here.
 */
typedef void (*VantixEdfFrameFn)(void *context, uint32_t event,
                                 const uint8_t *data, uint32_t stride,
                                 uint32_t width, uint32_t height,
                                 uint32_t type);

/** EDF error codes (second argument of VantixEdfErrorFn). */
#define VANTIX_EDF_ERROR_FAILED 1u
#define VANTIX_EDF_ERROR_OUT_OF_MEMORY 2u

/**
 * The name of an EDF error code: its macro's name without
 * "VANTIX_EDF_ERROR_" ("FAILED", "OUT_OF_MEMORY"), or "unknown".  Never
 * null; header-only (no export).
 */
static inline const char *vantix_edf_error_name(uint32_t code) {
  switch (code) {
    case VANTIX_EDF_ERROR_FAILED: return "FAILED";
    case VANTIX_EDF_ERROR_OUT_OF_MEMORY: return "OUT_OF_MEMORY";
    default: return "unknown";
  }
}

/**
 * Called on the EDF worker thread, at most once per run, just before the
 * worker ends after a failure: 1 processing failed, 2 out of memory.  The
 * session then stays halted until stop and start.  Do not stop or delete the
 * session from here.
 */
typedef void (*VantixEdfErrorFn)(void *context, uint32_t code);

/**
 * Creates an EDF session of fuser `kind` for format 0.  `onFrame` must not
 * be null; `onError` may be.  Never returns null (running out of memory
 * raises a C++ exception).  A session of an unknown kind has no fuser: its
 * first frame is reported through onError with code 1 and the worker ends.
 */
VANTIX_API VantixEdf *vantix_edf_new(uint32_t kind, VantixEdfFrameFn onFrame,
                                     VantixEdfErrorFn onError, void *context);

/** As vantix_edf_new, for frames in pixel `format` (0..3). */
VANTIX_API VantixEdf *vantix_edf_newV2(uint32_t format, uint32_t kind,
                                       VantixEdfFrameFn onFrame,
                                       VantixEdfErrorFn onError,
                                       void *context);

/** Destroys a session, stopping its worker first; null is ignored. */
VANTIX_API void vantix_edf_delete(VantixEdf *session);

/** Starts the worker thread.  Call vantix_edf_stop between two starts. */
VANTIX_API void vantix_edf_start(VantixEdf *session);

/**
 * Stops the worker (waits for the frame in progress).  The queue, the fused
 * image and the stack are kept: a later start continues the same stack.
 */
VANTIX_API void vantix_edf_stop(VantixEdf *session);

/**
 * Copies the fused image, top row first, taking rowBytes bytes of each row
 * (pass width * bytes a pixel of the session's format: 3, 6, 4 or 8) and
 * advancing `buffer` by rowBytes a row.  Copies nothing before the first
 * frame has been processed.  A larger rowBytes reads on into the next row
 * (and stops at the image's last byte, leaving the rest of the host's last
 * rows untouched).  A rowBytes of 0 copies nothing (buffer may be null).
 */
VANTIX_API void vantix_edf_readdata(VantixEdf *session, void *buffer,
                                    uint32_t rowBytes);

/**
 * As vantix_stitch_pushback, for an EDF session: converts and copies the
 * frame (the buffer may be reused at once) and queues it.  Returns
 * VANTIX_E_NOTIMPL for a null session, else VANTIX_S_OK, also when the frame
 * was dropped because the session is not running (never started, stopped,
 * or halted by an error until stop and start) or has zero width or height.
 * `bits` is ignored.  A rowPitch shorter than a row (or odd for formats 1
 * and 3) raises a C++ cv::Exception out of this call, nothing queued.
 */
VANTIX_API VantixResult vantix_edf_pushback(VantixEdf *session,
                                            const void *data, uint32_t width,
                                            uint32_t height, uint64_t bits,
                                            uint32_t rowPitch);

/** Camera pulls into an EDF session; see vantix_stitch_pull. */
VANTIX_API VantixResult vantix_edf_pull(VantixEdf *session, void *camera,
                                        int32_t push, void *buffer,
                                        int32_t bits, uint32_t rowPitch,
                                        FrameInfoV2 *info);
VANTIX_API VantixResult vantix_edf_pullV3(VantixEdf *session, void *camera,
                                          int32_t push, void *buffer,
                                          int32_t bits, uint32_t rowPitch,
                                          FrameInfoV3 *info);
VANTIX_API VantixResult vantix_edf_pullV4(VantixEdf *session, void *camera,
                                          int32_t push, void *buffer,
                                          int32_t bits, uint32_t rowPitch,
                                          FrameInfoV4 *info);
VANTIX_API VantixResult vantix_edf_pullnam(VantixEdf *session, void *camera,
                                           int32_t push, void *buffer,
                                           uint32_t bits, uint32_t *width,
                                           uint32_t *height);

/* ---------------------------------------------------------------------------
 * Spot measurement
 * ---------------------------------------------------------------------------
 *
 * A spot session measures one or several bright spots in each frame pulled
 * from the camera: summed intensity, centre, 4-sigma (second-moment)
 * diameters, ellipticity and orientation.  All work runs on the caller's
 * thread.  Pull from one thread at a time per session; the ROI, the
 * aperture and reset may be called from another thread while a pull runs.
 *
 * Grey values.  8- and 16-bit frames are measured as delivered (raw sensor
 * counts, e.g. 0..4095 for a 12-bit camera); 24-bit B G R frames through the
 * usual luma weights (0.299 R + 0.587 G + 0.114 B, rounded); 48-bit frames
 * as (299 R + 587 G + 114 B) / 1000, truncated (B 1000, G 2000, R 3000 give
 * 2185).
 *
 * One spot (spotCount 1).  The spot is integrated inside an elliptical
 * aperture.  The automatic aperture starts as the ellipse inscribed in the
 * whole frame; after each frame it is centred on the measured spot with
 * semi-axes equal to the measured 4-sigma diameters (twice the 4-sigma
 * ellipse), so it follows a beam that moves by less than about one diameter
 * a frame and settles within a few frames.  A fixed aperture
 * (vantix_spot_setAperture) stays where the host put it, axis-aligned.
 * Aperture centres are in whole-frame pixels, also when a ROI is set.
 * Record fields 8 to 11 give the automatic aperture after this frame's
 * update (the one the next frame uses), or the fixed aperture.
 * A frame with nothing inside the aperture (a blocked beam, a dark camera)
 * leaves the host's record as it was and makes the next frame start again
 * from the whole frame.
 *
 * Several spots (any other spotCount).  The frame (or ROI) is stretched to
 * 8 bits, smoothed and cut at Otsu's threshold; components of at least 10
 * pixels that fill at least a tenth of their bounding box are spots.  The
 * spotCount brightest are measured, each in its bounding box widened by half
 * its size on every side and cut half-way towards the other spots (pixels of
 * other spots left out), so the diameters of a Gaussian beam come out a few
 * percent small.  Records are ordered by centerX; records without a spot are
 * all zero, as are all records of a frame without spots (a flat frame).
 * Fields 8 to 11 give the box: centre and half width and height.
 *
 * Averaging (averageCount >= 2).  Frames are averaged in consecutive blocks
 * of averageCount frames (not a moving average).  Fields 1 to 5 are the mean
 * of the block with the smallest and the largest value of each field set
 * aside (with 2 frames: the plain mean; with 3: the middle value), field 6 is
 * recomputed from them, and fields 7 to 11 are always the latest frame's.
 * Until a block completes, fields 1 to 6 keep the last block's average (zero
 * after creation or reset).  With one spot, a frame without signal voids the
 * average: that frame's record is all zero, and the next block starts with
 * the next frame, so no block mixes frames from before and after the
 * interruption.  With several spots a frame without spots counts as a frame
 * of zero records (with 3 or more frames a block the trimming sets it aside).
 */

/**
 * Creates a session measuring `spotCount` spots a frame (1 selects the
 * single-spot measurement) and averaging over consecutive blocks of
 * `averageCount` frames (below 2: no averaging).  Never returns null;
 * running out of memory (absurd counts) raises a C++ std::bad_alloc.
 */
VANTIX_API VantixSpot *vantix_spot_new(uint32_t spotCount,
                                       uint32_t averageCount);

/** Destroys a session; null is ignored. */
VANTIX_API void vantix_spot_delete(VantixSpot *session);

/**
 * Restarts the averaging block, returns to the automatic aperture (unset,
 * so the next frame starts from the whole frame), sets the angle to 90 and
 * zeroes the averaged results.  The ROI is kept.  A pull running on another
 * thread meanwhile does not undo it.
 */
VANTIX_API void vantix_spot_reset(VantixSpot *session);

/**
 * Uses a fixed, axis-aligned aperture (centre in whole-frame pixels, semi-axes
 * a along x and b along y) from now on, when both semi-axes are greater than
 * 0 and the centre is finite; otherwise nothing changes.  Only
 * vantix_spot_reset goes back to the automatic aperture.  Note: the aperture
 * is passed by value.
 */
VANTIX_API void vantix_spot_setAperture(VantixSpot *session,
                                        SpotAperture aperture);

/**
 * Sets the region of interest in frame pixels (the values are read as signed
 * 32-bit); only its intersection with the frame is measured, and a ROI
 * wholly outside the frame gives zero records.  A width or height of 0
 * measures the whole frame.  Centres are still reported in whole-frame
 * pixels.  Safe to call during a pull on another thread: each frame uses
 * the ROI as it was when the frame's measurement began.
 */
VANTIX_API void vantix_spot_setRoi(VantixSpot *session, uint32_t x, uint32_t y,
                                   uint32_t width, uint32_t height);

/**
 * Pulls one frame from the camera SDK into `buffer` (bitCount 8, 16, 24 or
 * 48; rowPitch 0 for rows padded to 4 bytes), copies the frame-information
 * record to `info` when not null, asks the SDK for the camera's raw bit depth
 * while the session does not know it yet (a camera reporting 0 is asked on
 * every pull), and, when `measure` is nonzero, measures the frame and writes
 * spotCount records to `out`.  Returns VANTIX_E_NOTIMPL when no camera SDK
 * is found, else the SDK's result (negative: nothing else happened).
 * Another bitCount with `measure` set raises a C++ std::runtime_error
 * "Unsupported image depth" after `info` was written and before `out` is
 * touched; with `measure` 0 any bitCount is accepted.  A null `out` with
 * `measure` set: the frame is measured (aperture and average move on) and
 * nothing is written.
 */
VANTIX_API VantixResult vantix_spot_pull(VantixSpot *session, void *camera,
                                         uint32_t measure, void *buffer,
                                         uint32_t bitCount, uint32_t rowPitch,
                                         FrameInfoV2 *info, SpotResult *out);

/* ---------------------------------------------------------------------------
 * Edge snapping
 * ---------------------------------------------------------------------------
 *
 * An edge session moves a point (where the user clicked) onto the nearest
 * edge within a search square of 3 * size pixels around it: the square is
 * smoothed adaptively, edges are found with Canny at an Otsu-derived
 * threshold, and the point moves to the nearest point of the outer contours
 * when one lies strictly closer than `size` pixels.
 *
 * Contours are stored in compressed form (only the end points of straight
 * runs are kept), so along a long straight edge the point snaps to one of
 * the run's end points, not to the foot of the perpendicular.  Search areas
 * near the frame border are clipped, and their size follows the truncating
 * arithmetic of the session (a point within 1.5 * size of the left or top
 * border gets a narrower area).
 *
 * Grey levels: formats 0 and 2 weight channel 0 as red (0.299) and channel
 * 2 as blue (0.114); 16-bit formats use (c0*299 + c1*587 + c2*114) / 256000.
 */

/**
 * Creates an edge session for frames of width x height in pixel `format`
 * (0..3; other values as 0), read with the format's default stride, and an
 * initial search size.  Returns null when vantix_init has not registered an
 * allocator.
 */
VANTIX_API VantixEdge *vantix_edge_new(uint32_t format, uint32_t width,
                                       uint32_t height, uint32_t size);

/**
 * Snaps (*x, *y), in frame pixels, onto the nearest edge of the frame in
 * `buffer`.  A `size` of 1..50 that differs from the session's replaces it
 * for this and later calls; other values keep it.  Returns 1 and moves the
 * point when an edge point lies strictly closer than size, else 0 with the
 * point unchanged (also for a null buffer).  The search area is clipped to
 * the frame; when nothing of it is left (a point 1.5 * size or more beyond the
 * frame's right or bottom edge, or further out on any side) the image
 * library raises a C++ cv::Exception out of this call, as it does for a
 * search size of 0 (from vantix_edge_new, until a size of 1..50 is given).
 * Hosts keep the point inside the frame.  A null x or y returns 0.  Call from
 * one thread at a time per session.
 */
VANTIX_API int32_t vantix_edge_get(VantixEdge *session, const void *buffer,
                                   int32_t *x, int32_t *y, uint32_t size);

/** Destroys an edge session; null is ignored. */
VANTIX_API void vantix_edge_delete(VantixEdge *session);

/* ---------------------------------------------------------------------------
 * Image operations (stateless, any thread)
 * ------------------------------------------------------------------------- */

/** Interpolation codes of the resize functions. */
#define VANTIX_INTER_NEAREST 0u
#define VANTIX_INTER_LINEAR 1u
#define VANTIX_INTER_CUBIC 2u
#define VANTIX_INTER_AREA 3u
#define VANTIX_INTER_LANCZOS4 4u
/** Cubic when enlarging (fewer source than destination pixels), else area. */
#define VANTIX_INTER_AUTO 0xFFFFFFFFu

/**
 * Resizes `src` into `dst`, two images that carry their own header: the
 * pixels follow the header at biSize bytes (plus the 1024-byte colour table
 * for 8-bit images), rows at the default stride.  Returns VANTIX_E_POINTER
 * when either is null, otherwise as vantix_resizeV2.
 */
VANTIX_API VantixResult vantix_resizeV1(const VantixImageHeader *src,
                                        VantixImageHeader *dst,
                                        uint32_t interpolation);

/**
 * Resizes the image described by `src` (pixels at srcPixels, srcPitch bytes a
 * row or 0 for the default stride) into the one described by `dst`.  Both
 * headers need biSize 40, biCompression 0 and the same accepted biBitCount.
 * Returns VANTIX_S_OK; VANTIX_E_POINTER for a null header;
 * VANTIX_E_INVALIDARG for a header or interpolation that fails validation;
 * VANTIX_E_FAIL when the image library rejects the sizes or pitches (zero or
 * negative sizes, a pitch shorter than a row, a default stride that wraps to
 * 0 in 32 bits, a null pixel pointer); VANTIX_E_OUTOFMEMORY.
 */
VANTIX_API VantixResult vantix_resizeV2(const VantixImageHeader *src,
                                        uint32_t srcPitch,
                                        const void *srcPixels,
                                        const VantixImageHeader *dst,
                                        uint32_t dstPitch, void *dstPixels,
                                        uint32_t interpolation);

/** Bayer patterns as FourCC codes (first letter in the low byte). */
#define VANTIX_BAYER_BGGR 0x52474742u
#define VANTIX_BAYER_RGGB 0x42474752u
#define VANTIX_BAYER_GRBG 0x47425247u
#define VANTIX_BAYER_GBRG 0x47524247u

/** Output channel orders of vantix_demosaic. */
#define VANTIX_DEMOSAIC_BGR 0u
#define VANTIX_DEMOSAIC_BGRA 1u
#define VANTIX_DEMOSAIC_RGB 2u
#define VANTIX_DEMOSAIC_RGBA 3u

/** Demosaicing methods. */
#define VANTIX_DEMOSAIC_BILINEAR 0u
#define VANTIX_DEMOSAIC_VNG 1u
#define VANTIX_DEMOSAIC_EDGE_AWARE 2u

/**
 * Demosaics a raw Bayer frame: `src` holds height rows of width samples with
 * no padding, 8-bit when bits is 8, 16-bit holding `bits` significant bits
 * (not rescaled) when bits is 9..16.  `dst` receives 3 channels in rows
 * padded to 4 bytes (outFormat 0 B G R, 2 R G B) or 4 channels unpadded
 * (1 B G R A, 3 R G B A), 8-bit or 16-bit like the source.
 *
 * IMPORTANT: a conversion that ran returns VANTIX_E_FAIL (0x80004005), even
 * when it succeeded; judge the output buffer, not the code.  The function
 * never returns VANTIX_S_OK.  Other results: VANTIX_E_INVALIDARG for bits
 * outside 8..16, outFormat > 3, algorithm > 2 or an unknown pattern;
 * VANTIX_E_NOTIMPL for VNG on 16-bit samples and for 4-channel output with
 * VNG or edge-aware; VANTIX_E_OUTOFMEMORY.  Null buffers and frames the
 * method cannot take (zero sizes) end in VANTIX_E_FAIL like a conversion.
 *
 * VNG needs frames of at least 8 x 8 pixels; smaller frames (3 to 7 pixels
 * on their short side) get the bilinear result for their pattern and order.
 *
 * Pattern mapping: "RGGB" and "BGGR" frames give true colours.  "GRBG" and
 * "GBRG" frames are interpreted with their red and blue sites exchanged, so
 * their red and blue output channels come out swapped; hosts with such
 * sensors pass the other G-first pattern to get true colours.
 */
VANTIX_API VantixResult vantix_demosaic(const void *src, void *dst,
                                        uint32_t width, uint32_t height,
                                        int32_t bits, uint32_t pattern,
                                        uint32_t outFormat, uint32_t algorithm);

#ifdef __cplusplus
}
#endif

#endif /* VANTIX_H */
