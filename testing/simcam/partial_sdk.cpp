// A stand-in SDK with prefix "Partial" that offers the V3 pull, the named
// pull and the raw-format query but no "DllPullImageWithRowPitchV2".  It has
// no cameras: every pull delivers a 4 x 2 frame of 0x5A bytes.
#include <cstring>
#include <mutex>

#include "simcam.h"
#include "simcam_internal.h"

namespace {

constexpr uint32_t kWidth = 4;
constexpr uint32_t kHeight = 2;
constexpr uint8_t kPixel = 0x5A;

std::mutex gLock;
SimcamStats gStats{};
uint32_t gFrameIndex = 0;

// Writes the frame; returns the index of the delivered frame.  Caller holds gLock.
uint32_t deliver(void* buffer, int32_t bits, uint32_t pitch) {
  for (uint32_t y = 0; y < kHeight; ++y) {
    std::memset(static_cast<uint8_t*>(buffer) + y * pitch, kPixel, kWidth * bits / 8);
  }
  return gFrameIndex++;
}

}  // namespace

extern "C" {

SIMCAM_API const char* DllPrefix(void) {
  std::lock_guard<std::mutex> lock(gLock);
  ++gStats.prefixCalls;
  return "Partial";
}

SIMCAM_API int32_t DllPullImageV3(void* camera, void* buffer, int32_t zero, int32_t bits,
                                  int32_t rowPitch, void* frameInfoV3) {
  std::lock_guard<std::mutex> lock(gLock);
  ++gStats.pullV3Calls;
  gStats.lastCamera = camera;
  gStats.lastBuffer = buffer;
  gStats.lastBits = bits;
  gStats.lastRowPitch = rowPitch;
  gStats.lastZero = zero;
  const uint32_t pitch = simcam::effectivePitch(kWidth, bits, rowPitch);
  if (buffer == nullptr) return SIMCAM_E_POINTER;
  if (pitch == 0) return SIMCAM_E_INVALIDARG;
  const uint32_t index = deliver(buffer, bits, pitch);
  if (frameInfoV3 != nullptr) simcam::fillFrameInfo(frameInfoV3, 40, kWidth, kHeight, index);
  return SIMCAM_S_OK;
}

SIMCAM_API int32_t Partial_PullImage(void* camera, void* buffer, int32_t bits, uint32_t* width,
                                     uint32_t* height) {
  std::lock_guard<std::mutex> lock(gLock);
  ++gStats.namedPullCalls;
  gStats.lastCamera = camera;
  gStats.lastBuffer = buffer;
  gStats.lastBits = bits;
  gStats.lastRowPitch = 0;
  if (buffer == nullptr) return SIMCAM_E_POINTER;
  const uint32_t pitch = simcam::effectivePitch(kWidth, bits, 0);
  if (pitch == 0) return SIMCAM_E_INVALIDARG;
  deliver(buffer, bits, pitch);
  if (width != nullptr) *width = kWidth;
  if (height != nullptr) *height = kHeight;
  return SIMCAM_S_OK;
}

SIMCAM_API int32_t Partial_get_RawFormat(void*, uint32_t* format, uint32_t* bitDepth) {
  std::lock_guard<std::mutex> lock(gLock);
  ++gStats.rawFormatCalls;
  if (format != nullptr) *format = SIMCAM_RAW_FOURCC;
  if (bitDepth != nullptr) *bitDepth = 10;
  return SIMCAM_S_OK;
}

SIMCAM_API void simcam_partial_get_stats(SimcamStats* stats) {
  std::lock_guard<std::mutex> lock(gLock);
  *stats = gStats;
}

SIMCAM_API void simcam_partial_reset_stats(void) {
  std::lock_guard<std::mutex> lock(gLock);
  gStats = SimcamStats{};
}

}  // extern "C"
