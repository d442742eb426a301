/*
 * vantix.hpp - a header-only C++17 layer over vantix.h.
 *
 * It adds no exported symbol: everything here is inline and calls only the C
 * functions of vantix.h, whose documentation stays the reference for what
 * each call does.  This layer adds:
 *
 *   - exceptions: a failed result code throws vantix::Error, which carries the
 *     code, its name (vantix_result_name) and the C function that returned it;
 *   - RAII sessions: StitchSession, EdfSession, SpotSession and EdgeSession own
 *     their C handle and delete it (stopping the worker) when destroyed.  They
 *     are move-only; a moved-from session may only be destroyed or assigned;
 *   - std::function callbacks.  They run on the session's worker thread, as
 *     the C callbacks do (do not stop or destroy the session from inside
 *     them), and must not throw: an exception leaving one calls
 *     std::terminate.  The callbacks live on the heap, so moving a session
 *     while its worker runs is safe;
 *   - ImageView, a description of a host buffer that fills VantixImageHeader;
 *   - Image, the panorama of StitchSession::stop as a std::unique_ptr that
 *     frees it with the function registered by vantix::init.
 *
 * Exceptions thrown here: vantix::Error for a failed result code;
 * std::invalid_argument for an empty onFrame callback or for demosaic input
 * the library cannot take; std::logic_error when a stitch or edge session is
 * created before vantix::init.  The C library's own C++ exceptions
 * (cv::Exception, std::bad_alloc, std::runtime_error; vantix.h lists which
 * call raises which) pass through unchanged.
 */
#ifndef VANTIX_HPP
#define VANTIX_HPP

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "vantix.h"

namespace vantix {

/** A failed result code, with the C function that returned it. */
class Error : public std::runtime_error {
 public:
  Error(VantixResult result, const char* call)
      : std::runtime_error(describe(result, call)), result_(result) {}
  /** The 32-bit result code. */
  VantixResult result() const noexcept { return result_; }
  /** Its name ("E_INVALIDARG"; "unknown" for a camera SDK's own codes). */
  const char* name() const noexcept { return vantix_result_name(result_); }

 private:
  // "vantix_resizeV2: E_INVALIDARG"; codes without a name show in hex.
  static std::string describe(VantixResult result, const char* call) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(result));
    const std::string name = vantix_result_name(result);
    return std::string(call) + ": " + (name == "unknown" ? hex : name);
  }
  VantixResult result_;
};

/** Throws Error when `result` reports a failure; returns it otherwise (the
 *  pulls pass a camera SDK's positive codes through). */
inline VantixResult check(VantixResult result, const char* call) {
  if (VANTIX_FAILED(result)) throw Error(result, call);
  return result;
}

/** Frees an image the library allocated with the host's allocator. */
using ReleaseFn = void (*)(void*);

namespace detail {
inline void* mallocAllocator(uint64_t bytes) {
  return bytes > SIZE_MAX ? nullptr : std::malloc(static_cast<size_t>(bytes));
}
inline void mallocRelease(void* image) {
  std::free(image);
}
inline std::atomic<ReleaseFn>& registeredRelease() {
  static std::atomic<ReleaseFn> release{&mallocRelease};
  return release;
}
}  // namespace detail

/**
 * Calls vantix_init with `allocate` and remembers `release`, the function
 * that frees what `allocate` returned: Image uses it.  The defaults are
 * std::malloc and std::free.  Call it before creating stitch or edge
 * sessions (see vantix_init).
 */
inline void init(VantixAllocator allocate = &detail::mallocAllocator,
                 ReleaseFn release = &detail::mallocRelease) {
  detail::registeredRelease().store(release);
  vantix_init(allocate);
}

/** Deletes an image with the release function that was registered when the
 *  image was handed over. */
struct ImageDeleter {
  ReleaseFn release = &detail::mallocRelease;
  void operator()(VantixImageHeader* image) const noexcept {
    if (image != nullptr) release(image);
  }
};

/** An image with its own header (the panorama of StitchSession::stop). */
using Image = std::unique_ptr<VantixImageHeader, ImageDeleter>;

/** Where the pixels of an image with its own header begin: biSize bytes in,
 *  after the 1024-byte colour table of an 8-bit image. */
inline uint8_t* pixelsOf(VantixImageHeader* image) {
  return reinterpret_cast<uint8_t*>(image) + image->biSize + (image->biBitCount == 8 ? 1024u : 0u);
}

/**
 * A host buffer holding an image: pixels, size, row stride in bytes and the
 * header's bit count (8, 9..16, 24, 32, 30/33/36/42/48; see
 * VantixImageHeader).  The constructors turn a stride of 0 into the default
 * stride, vantix_default_stride of the bit count's storage bits.
 */
struct ImageView {
  void* data = nullptr;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t stride = 0;
  uint16_t bits = 24;

  ImageView() = default;
  ImageView(void* pixels, uint32_t w, uint32_t h, uint16_t bitCount = 24, uint32_t rowStride = 0)
      : data(pixels), width(w), height(h), bits(bitCount) {
    stride = rowStride != 0 ? rowStride : vantix_default_stride(w, storageBits(bitCount));
  }
  /** The pixels of an image with its own header, at its default stride. */
  explicit ImageView(VantixImageHeader* image)
      : ImageView(pixelsOf(image), static_cast<uint32_t>(image->biWidth),
                  static_cast<uint32_t>(image->biHeight), image->biBitCount) {}

  /** Bits of storage a pixel: 8, 16, 24, 32 or 48 (0 for a bit count the
   *  library does not accept). */
  static uint32_t storageBits(uint32_t bitCount) {
    switch (bitCount) {
      case 8:
      case 24:
      case 32:
      case 48: return bitCount;
      case 30:
      case 33:
      case 36:
      case 42: return 48;
      default: return bitCount >= 9 && bitCount <= 16 ? 16 : 0;
    }
  }

  /** The 40-byte header describing this buffer, filled as the library fills
   *  the headers it creates (biSizeImage 0 when stride * height exceeds 32
   *  bits).  The colour table of 8-bit images is not part of it. */
  VantixImageHeader header() const {
    VantixImageHeader h{};
    const uint64_t bytes = static_cast<uint64_t>(stride) * height;
    h.biSize = 40;
    h.biWidth = static_cast<int32_t>(width);
    h.biHeight = static_cast<int32_t>(height);
    h.biPlanes = 1;
    h.biBitCount = bits;
    h.biSizeImage = bytes > 0xFFFFFFFFu ? 0u : static_cast<uint32_t>(bytes);
    return h;
  }
};

/** Resizes `src` into `dst` (vantix_resizeV2; both of the same bit count).
 *  The source buffer is only read. */
inline void resize(const ImageView& src, const ImageView& dst,
                   uint32_t interpolation = VANTIX_INTER_AUTO) {
  const VantixImageHeader s = src.header();
  const VantixImageHeader d = dst.header();
  check(vantix_resizeV2(&s, src.stride, src.data, &d, dst.stride, dst.data, interpolation),
        "vantix_resizeV2");
}

/** Resizes between two images that carry their own header (vantix_resizeV1). */
inline void resize(const VantixImageHeader* src, VantixImageHeader* dst,
                   uint32_t interpolation = VANTIX_INTER_AUTO) {
  check(vantix_resizeV1(src, dst, interpolation), "vantix_resizeV1");
}

/**
 * Demosaics a raw Bayer frame (see vantix_demosaic for the layouts).
 * vantix_demosaic returns VANTIX_E_FAIL after every conversion that ran,
 * successful or not, and never VANTIX_S_OK; this wrapper therefore takes
 * E_FAIL as "converted" and throws Error only for the other failures
 * (E_INVALIDARG, E_NOTIMPL, E_OUTOFMEMORY).  The cases where E_FAIL would
 * mean nothing was done, null buffers and zero sizes, it refuses itself with
 * std::invalid_argument before calling the library.
 */
inline void demosaic(const void* src, void* dst, uint32_t width, uint32_t height, int32_t bits,
                     uint32_t pattern, uint32_t outFormat = VANTIX_DEMOSAIC_BGR,
                     uint32_t algorithm = VANTIX_DEMOSAIC_BILINEAR) {
  if (src == nullptr || dst == nullptr || width == 0 || height == 0) {
    throw std::invalid_argument("vantix_demosaic: null buffer or zero size");
  }
  const VantixResult result =
      vantix_demosaic(src, dst, width, height, bits, pattern, outFormat, algorithm);
  if (result != VANTIX_E_FAIL) check(result, "vantix_demosaic");
}

/** A rectangle in canvas pixels. */
struct Rect {
  uint32_t x = 0, y = 0, width = 0, height = 0;
};

/** What the stitch onFrame callback receives (see VantixStitchFrameFn). */
struct StitchFrame {
  const uint8_t* canvasData;
  uint32_t canvasStride, canvasWidth, canvasHeight;
  uint32_t frameWidth, frameHeight, frameType;
  int32_t x, y;
  uint32_t mode;  ///< 1 placed, 2 reference only, 3 tracking lost, 4 not placed
  bool changed, reset;
  float score;
};

/** What the EDF onFrame callback receives (see VantixEdfFrameFn). */
struct EdfFrame {
  uint32_t event;
  const uint8_t* data;
  uint32_t stride, width, height, type;
};

using StitchFrameFn = std::function<void(const StitchFrame&)>;
using EdfFrameFn = std::function<void(const EdfFrame&)>;
/** Stitch events (VANTIX_STITCH_EVENT_*) and EDF errors (VANTIX_EDF_ERROR_*);
 *  vantix_stitch_event_name / vantix_edf_error_name name them. */
using CodeFn = std::function<void(uint32_t)>;

namespace detail {
template <typename Handle, void (*Delete)(Handle*)>
struct HandleDeleter {
  void operator()(Handle* handle) const noexcept { Delete(handle); }
};
template <typename Handle, void (*Delete)(Handle*)>
using HandlePtr = std::unique_ptr<Handle, HandleDeleter<Handle, Delete>>;

/** The callbacks of a session, reached through the C context pointer. */
template <typename FrameFn>
struct Callbacks {
  FrameFn onFrame;
  CodeFn onCode;
};

/**
 * A C handle plus the heap state its callbacks reach through the context
 * pointer.  The handle goes first, stopping the worker, and only then the
 * state: on destruction (members are destroyed in reverse order) and on
 * move assignment (which the default would do the other way round).
 */
template <typename Handle, void (*Delete)(Handle*), typename FrameFn>
class Session {
 public:
  Session(Session&&) noexcept = default;
  Session& operator=(Session&& other) noexcept {
    if (this != &other) {
      handle_.reset();
      state_ = std::move(other.state_);
      handle_ = std::move(other.handle_);
    }
    return *this;
  }
  /** The C handle, for calls this layer does not wrap. */
  Handle* handle() const noexcept { return handle_.get(); }

 protected:
  using State = Callbacks<FrameFn>;
  Session(FrameFn onFrame, CodeFn onCode, const char* what)
      : state_(new State{std::move(onFrame), std::move(onCode)}) {
    if (!state_->onFrame) throw std::invalid_argument(std::string(what) + ": empty onFrame");
  }
  std::unique_ptr<State> state_;
  HandlePtr<Handle, Delete> handle_;
};

inline void requireHandle(const void* handle, const char* call) {
  if (handle == nullptr) {
    throw std::logic_error(std::string(call) + " returned null: call vantix::init first");
  }
}
}  // namespace detail

/** A live-stitching session (vantix_stitch_newV3 and the stitch functions). */
class StitchSession : public detail::Session<VantixStitch, &vantix_stitch_delete, StitchFrameFn> {
 public:
  /** Frames of width x height in pixel `format`; background 0 checkerboard,
   *  1 white, 2 black; quality levels 0..4 (2 is what vantix_stitch_new uses).
   *  `onFrame` must not be empty, `onEvent` may be. */
  StitchSession(uint32_t width, uint32_t height, StitchFrameFn onFrame, CodeFn onEvent = {},
                uint32_t format = VANTIX_FORMAT_BGR8, uint32_t background = 0,
                uint32_t scaleLevel = 2, uint32_t strictLevel = 2)
      : Session(std::move(onFrame), std::move(onEvent), "StitchSession") {
    handle_.reset(vantix_stitch_newV3(format, 0, width, height, background, scaleLevel, strictLevel,
                                      &onFrameThunk, state_->onCode ? &onEventThunk : nullptr,
                                      state_.get()));
    detail::requireHandle(handle_.get(), "vantix_stitch_newV3");
  }

  void start() { vantix_stitch_start(handle()); }
  /** Stops the worker; with wantImage, returns the panorama (null when the
   *  rectangle is empty or the allocator failed), freed by the release
   *  function registered with vantix::init. */
  Image stop(bool wantImage = false, bool cropped = true) {
    const ImageDeleter deleter{detail::registeredRelease().load()};
    return Image(vantix_stitch_stop(handle(), wantImage, cropped), deleter);
  }
  /** Copies a scaled view of the canvas (or of `roi` when its width is
   *  nonzero); false while the canvas is being reallocated (retry). */
  bool readdata(void* buffer, uint32_t width, uint32_t height, const Rect& roi = {}) {
    return vantix_stitch_readdata(handle(), buffer, width, height, roi.x, roi.y, roi.width,
                                  roi.height) != 0;
  }
  Rect cropparams() const {
    Rect r;
    vantix_stitch_cropparams(handle(), &r.x, &r.y, &r.width, &r.height);
    return r;
  }
  void pushback(const void* data, uint32_t width, uint32_t height, uint32_t rowPitch = 0) {
    check(vantix_stitch_pushback(handle(), data, width, height, 0, rowPitch),
          "vantix_stitch_pushback");
  }
  VantixResult pull(void* camera, void* buffer, int32_t bits, uint32_t rowPitch, FrameInfoV2* info,
                    bool push = true) {
    return check(vantix_stitch_pull(handle(), camera, push, buffer, bits, rowPitch, info),
                 "vantix_stitch_pull");
  }
  VantixResult pullV3(void* camera, void* buffer, int32_t bits, uint32_t rowPitch,
                      FrameInfoV3* info, bool push = true) {
    return check(vantix_stitch_pullV3(handle(), camera, push, buffer, bits, rowPitch, info),
                 "vantix_stitch_pullV3");
  }
  VantixResult pullV4(void* camera, void* buffer, int32_t bits, uint32_t rowPitch,
                      FrameInfoV4* info, bool push = true) {
    return check(vantix_stitch_pullV4(handle(), camera, push, buffer, bits, rowPitch, info),
                 "vantix_stitch_pullV4");
  }
  VantixResult pullnam(void* camera, void* buffer, uint32_t bits, uint32_t* width, uint32_t* height,
                       bool push = true) {
    return check(vantix_stitch_pullnam(handle(), camera, push, buffer, bits, width, height),
                 "vantix_stitch_pullnam");
  }

 private:
  static void onFrameThunk(void* context, const uint8_t* canvasData, uint32_t canvasStride,
                           uint32_t canvasWidth, uint32_t canvasHeight, uint32_t frameWidth,
                           uint32_t frameHeight, uint32_t frameType, int32_t x, int32_t y,
                           uint32_t mode, uint32_t changed, uint32_t reset, float score) noexcept {
    const StitchFrame frame{
        canvasData, canvasStride, canvasWidth,  canvasHeight, frameWidth, frameHeight, frameType, x,
        y,          mode,         changed != 0, reset != 0,   score};
    static_cast<State*>(context)->onFrame(frame);
  }
  static void onEventThunk(void* context, uint32_t code) noexcept {
    static_cast<State*>(context)->onCode(code);
  }
};

/** An extended-depth-of-field session (vantix_edf_newV2 and the EDF functions). */
class EdfSession : public detail::Session<VantixEdf, &vantix_edf_delete, EdfFrameFn> {
 public:
  /** Fuser `kind` 0..2, frames in pixel `format`.  `onFrame` must not be
   *  empty, `onError` may be. */
  explicit EdfSession(EdfFrameFn onFrame, CodeFn onError = {}, uint32_t kind = 0,
                      uint32_t format = VANTIX_FORMAT_BGR8)
      : Session(std::move(onFrame), std::move(onError), "EdfSession") {
    handle_.reset(vantix_edf_newV2(format, kind, &onFrameThunk,
                                   state_->onCode ? &onErrorThunk : nullptr, state_.get()));
  }

  void start() { vantix_edf_start(handle()); }
  void stop() { vantix_edf_stop(handle()); }
  /** Copies the fused image, rowBytes bytes a row (see vantix_edf_readdata). */
  void readdata(void* buffer, uint32_t rowBytes) {
    vantix_edf_readdata(handle(), buffer, rowBytes);
  }
  void pushback(const void* data, uint32_t width, uint32_t height, uint32_t rowPitch = 0) {
    check(vantix_edf_pushback(handle(), data, width, height, 0, rowPitch), "vantix_edf_pushback");
  }
  VantixResult pull(void* camera, void* buffer, int32_t bits, uint32_t rowPitch, FrameInfoV2* info,
                    bool push = true) {
    return check(vantix_edf_pull(handle(), camera, push, buffer, bits, rowPitch, info),
                 "vantix_edf_pull");
  }
  VantixResult pullV3(void* camera, void* buffer, int32_t bits, uint32_t rowPitch,
                      FrameInfoV3* info, bool push = true) {
    return check(vantix_edf_pullV3(handle(), camera, push, buffer, bits, rowPitch, info),
                 "vantix_edf_pullV3");
  }
  VantixResult pullV4(void* camera, void* buffer, int32_t bits, uint32_t rowPitch,
                      FrameInfoV4* info, bool push = true) {
    return check(vantix_edf_pullV4(handle(), camera, push, buffer, bits, rowPitch, info),
                 "vantix_edf_pullV4");
  }
  VantixResult pullnam(void* camera, void* buffer, uint32_t bits, uint32_t* width, uint32_t* height,
                       bool push = true) {
    return check(vantix_edf_pullnam(handle(), camera, push, buffer, bits, width, height),
                 "vantix_edf_pullnam");
  }

 private:
  static void onFrameThunk(void* context, uint32_t event, const uint8_t* data, uint32_t stride,
                           uint32_t width, uint32_t height, uint32_t type) noexcept {
    static_cast<State*>(context)->onFrame(EdfFrame{event, data, stride, width, height, type});
  }
  static void onErrorThunk(void* context, uint32_t code) noexcept {
    static_cast<State*>(context)->onCode(code);
  }
};

/** A spot-measurement session (vantix_spot_new and the spot functions). */
class SpotSession {
 public:
  /** `spotCount` spots a frame (1: single-spot), averaged over blocks of
   *  `averageCount` frames (below 2: none). */
  explicit SpotSession(uint32_t spotCount = 1, uint32_t averageCount = 0)
      : handle_(vantix_spot_new(spotCount, averageCount)), spotCount_(spotCount) {}

  uint32_t spotCount() const noexcept { return spotCount_; }
  void reset() { vantix_spot_reset(handle()); }
  void setAperture(const SpotAperture& aperture) { vantix_spot_setAperture(handle(), aperture); }
  void setRoi(uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
    vantix_spot_setRoi(handle(), x, y, width, height);
  }
  /** Pulls a frame and, with `measure`, writes spotCount() records to `out`
   *  (see vantix_spot_pull). */
  VantixResult pull(void* camera, void* buffer, uint32_t bitCount, uint32_t rowPitch,
                    FrameInfoV2* info, SpotResult* out, bool measure = true) {
    return check(vantix_spot_pull(handle(), camera, measure, buffer, bitCount, rowPitch, info, out),
                 "vantix_spot_pull");
  }
  VantixSpot* handle() const noexcept { return handle_.get(); }

 private:
  detail::HandlePtr<VantixSpot, &vantix_spot_delete> handle_;
  uint32_t spotCount_;
};

/** An edge-snapping session (vantix_edge_new / vantix_edge_get). */
class EdgeSession {
 public:
  EdgeSession(uint32_t format, uint32_t width, uint32_t height, uint32_t size)
      : handle_(vantix_edge_new(format, width, height, size)) {
    detail::requireHandle(handle_.get(), "vantix_edge_new");
  }
  /** Moves (x, y) onto the nearest edge closer than the search size and
   *  returns true, or returns false with the point unchanged.  A `size` of
   *  1..50 replaces the session's; 0 keeps it. */
  bool get(const void* buffer, int32_t& x, int32_t& y, uint32_t size = 0) {
    return vantix_edge_get(handle_.get(), buffer, &x, &y, size) != 0;
  }
  VantixEdge* handle() const noexcept { return handle_.get(); }

 private:
  detail::HandlePtr<VantixEdge, &vantix_edge_delete> handle_;
};

}  // namespace vantix

#endif /* VANTIX_HPP */
