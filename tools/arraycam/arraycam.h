/*
 * arraycam.h - the array camera: frames from the host's own buffers, served
 * through the camera-SDK pull interface that libvantix looks for.
 *
 * libvantix measures spots only in frames it pulls from a camera SDK loaded
 * in the process (vantix_spot_pull); it has no call that takes a buffer.
 * libvantix_arraycam.so is such an SDK whose "camera" shows whatever frame
 * the host handed it last: load it, open a camera, hand it a frame with
 * arraycam_set_frame and pull with vantix_spot_pull as from any camera.
 *
 *   void *so = dlopen("libvantix_arraycam.so", RTLD_NOW);   (or link it)
 *   ArraycamCamera *cam = arraycam_open();
 *   arraycam_set_frame(cam, pixels, 640, 480, 16, 1, 0, 12);
 *   VantixSpot *spot = vantix_spot_new(1, 0);
 *   SpotResult r;
 *   vantix_spot_pull(spot, cam, 1, frame, 16, 0, NULL, &r);
 *
 * It exports the SDK entry points "DllPrefix" (prefix "Arraycam"),
 * "DllPullImageWithRowPitchV2" and "Arraycam_get_RawFormat", and the
 * arraycam_ control functions below; nothing else.
 *
 * ONE CAMERA SDK A PROCESS
 * ------------------------
 * libvantix binds the FIRST camera SDK it finds among the loaded shared
 * objects (in load order: the first one exporting "DllPrefix" and
 * "DllPullImageWithRowPitchV2") at its first pull, and never binds another
 * for the life of the process.  The array camera is therefore only reached
 * when it is the only camera SDK loaded in the process, or was loaded before
 * any other.  Otherwise every pull of libvantix goes to the other SDK, and
 * it is handed the array camera's handle as if it were one of its own
 * cameras: what that SDK does with a foreign handle is its business (a
 * crash is likely).  Call arraycam_first_sdk() before the first pull to
 * know.  In the opposite case (the array camera bound, another SDK's camera
 * handle passed to a pull) the array camera recognises that the handle is
 * not one of its cameras and fails the pull with ARRAYCAM_E_HANDLE.
 * Measure host buffers in a process (or a child process) of their own when
 * the host also drives a real camera through libvantix.
 *
 * FRAMES
 * ------
 * arraycam_set_frame COPIES the host's pixels: the host may free or reuse
 * its buffer as soon as the call returns.  The copy lives in the camera
 * until the next arraycam_set_frame or arraycam_close.  Every pull delivers
 * the current frame again (the frame index of the record advances only with
 * a new frame); a pull before the first frame fails with ARRAYCAM_E_NOFRAME.
 *
 * Pixel output by the pull's `bits`:
 *   8    grey, 8-bit
 *   16   grey, 16-bit
 *   24   B G R, 8-bit
 *   32   B G R A, 8-bit (alpha: the frame's, else full scale)
 *   48   B G R, 16-bit
 *   64   B G R A, 16-bit
 * Anything else fails with ARRAYCAM_E_INVALIDARG.  Values pass unchanged
 * when the pull's bits a channel (8 or 16) are the frame's, and when an
 * 8-bit frame is pulled at 16 bits a channel (0..255, raw depth 8); a
 * 16-bit frame pulled at 8 bits a channel is scaled from its raw bit depth,
 * (v + h) >> (rawBits - 8) with h half the divisor, saturated at 255.  Grey
 * becomes B = G = R; colour becomes grey as (299 R + 587 G + 114 B + 500) /
 * 1000 (alpha ignored).  Pull at the frame's own layout (8 or 16 for grey,
 * 24 or 48 for colour) to measure exactly the values handed over.
 *
 * Row pitch of a pull: 0 means rows padded to 4 bytes, (width * bits + 31)
 * / 32 * 4; a pitch of at least width * bits / 8 is used as given; anything
 * shorter fails with ARRAYCAM_E_INVALIDARG.  Padding bytes are not written.
 *
 * The frame-information record (24 bytes): bytes 0-3 width, 4-7 height
 * (uint32, native order), 8-11 the frame index (1 for the first frame set,
 * +1 for each further one), 12-15 bits a sample of the frame as set (8 or
 * 16), 16-19 its channels, 20-23 its raw bit depth.
 *
 * Threads: every function may be called from any thread; calls on one
 * camera are serialised by the camera's lock.  arraycam_close waits for a
 * call already running on the camera; calls made after it fail with
 * ARRAYCAM_E_HANDLE (never touch freed memory).  The library is plain C: no
 * C++ exception can leave it, failures are result codes.
 */
#ifndef VANTIX_ARRAYCAM_H
#define VANTIX_ARRAYCAM_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__) || defined(__clang__)
#define ARRAYCAM_API __attribute__((visibility("default")))
#else
#define ARRAYCAM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes (HRESULT style, negative as int32_t means failure). */
#define ARRAYCAM_S_OK ((int32_t)0)
#define ARRAYCAM_E_POINTER ((int32_t)0x80004003u)
#define ARRAYCAM_E_INVALIDARG ((int32_t)0x80070057u)
#define ARRAYCAM_E_OUTOFMEMORY ((int32_t)0x8007000Eu)
/* The handle is not an open camera of this library. */
#define ARRAYCAM_E_HANDLE ((int32_t)0x80070006u)
/* No frame was set yet. */
#define ARRAYCAM_E_NOFRAME ((int32_t)0x80070015u)

/* The format code the raw-format query reports: 'G','R','E','Y'. */
#define ARRAYCAM_RAW_FOURCC ((uint32_t)0x59455247u)

typedef struct ArraycamCamera ArraycamCamera;

/* ---------------------------------------------------------------------------
 * SDK entry points (looked up by libvantix; hosts need not call them)
 * ------------------------------------------------------------------------- */

ARRAYCAM_API const char* DllPrefix(void);
ARRAYCAM_API int32_t DllPullImageWithRowPitchV2(void* camera, void* buffer, int32_t bits,
                                                int32_t rowPitch, void* frameInfoV2);
/* Writes ARRAYCAM_RAW_FOURCC to *format and the current frame's raw bit
 * depth to *bitDepth (each when not null; 0 before the first frame). */
ARRAYCAM_API int32_t Arraycam_get_RawFormat(void* camera, uint32_t* format, uint32_t* bitDepth);

/* ---------------------------------------------------------------------------
 * Control
 * ------------------------------------------------------------------------- */

/* A camera without a frame; null when out of memory. */
ARRAYCAM_API ArraycamCamera* arraycam_open(void);
/* Frees the camera and its frame; null is ignored. */
ARRAYCAM_API void arraycam_close(ArraycamCamera* camera);

/*
 * Copies a width x height frame into the camera; later pulls deliver it.
 *   bitsPerSample  8 or 16 (uint8_t or native-order uint16_t samples)
 *   channels       1 (grey), 3 (B G R) or 4 (B G R A)
 *   rowPitch       bytes from one row to the next (0: packed rows); at
 *                  least width * channels * bitsPerSample / 8
 *   rawBits        the sensor bit depth the data holds, reported by the
 *                  raw-format query (e.g. 12 for 12-bit data in 16-bit
 *                  words): 8 for 8-bit samples, 8..16 for 16-bit ones, or
 *                  0 for the sample size
 * Sizes from 1 to 65535.  On failure the previous frame stays.
 */
ARRAYCAM_API int32_t arraycam_set_frame(ArraycamCamera* camera, const void* data, uint32_t width,
                                        uint32_t height, uint32_t bitsPerSample, uint32_t channels,
                                        uint32_t rowPitch, uint32_t rawBits);

/* How many pulls this camera has delivered (successful ones). */
ARRAYCAM_API uint32_t arraycam_pull_count(ArraycamCamera* camera);

/*
 * Whether libvantix binds (or has bound) this library: 1 when the array
 * camera is the first camera SDK in load order among the loaded shared
 * objects, found by the same rules libvantix applies; 0 when another one
 * comes first, whose file name is then copied to `other` (when not null,
 * truncated to `size` bytes with a terminating NUL; empty when none was
 * found); ARRAYCAM_E_OUTOFMEMORY when the list of objects cannot be made.
 * Cheap enough to call before every pull.
 */
ARRAYCAM_API int32_t arraycam_first_sdk(char* other, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* VANTIX_ARRAYCAM_H */
