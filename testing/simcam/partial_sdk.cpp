// A stand-in SDK with prefix "Partial" that offers the V3 pull, the named
// pull and the raw-format query but no "DllPullImageWithRowPitchV2".  It has
// no cameras: every pull delivers a 4 x 2 frame of 0x5A bytes.
#include <cstring>
#include <mutex>

#include "simcam.h"

namespace {

constexpr uint32_t kWidth = 4;
constexpr uint32_t kHeight = 2;
constexpr uint8_t kPixel = 0x5A;

std::mutex gLock;
SimcamStats gStats{};
uint32_t gFrameIndex = 0;

bool supportedBits(int32_t bits) {
  return bits == 8 || bits == 16 || bits == 24 || bits == 32 || bits == 48 || bits == 64;
}

// Writes the frame; returns the index of the delivered frame.  Caller holds gLock.
uint32_t deliver(void* buffer, int32_t bits, uint32_t pitch) {
  for (uint32_t y = 0; y < kHeight; ++y) {
    std::memset(static_cast<uint8_t*>(buffer) + y * pitch, kPixel, kWidth * bits / 8);
  }
  return gFrameIndex++;
}

uint32_t pitchFor(int32_t bits, int32_t rowPitch) {
  if (rowPitch < 0) return 0;
  const uint32_t rowBytes = kWidth * bits / 8;
  if (rowPitch == 0) return (kWidth * bits + 31) / 32 * 4;
  return static_cast<uint32_t>(rowPitch) >= rowBytes ? static_cast<uint32_t>(rowPitch) : 0;
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
  const uint32_t pitch = supportedBits(bits) ? pitchFor(bits, rowPitch) : 0;
  if (buffer == nullptr) return SIMCAM_E_POINTER;
  if (pitch == 0) return SIMCAM_E_INVALIDARG;
  const uint32_t index = deliver(buffer, bits, pitch);
  if (frameInfoV3 != nullptr) {
    auto* bytes = static_cast<uint8_t*>(frameInfoV3);
    std::memcpy(bytes, &kWidth, 4);
    std::memcpy(bytes + 4, &kHeight, 4);
    std::memcpy(bytes + 8, &index, 4);
    for (uint32_t i = 12; i < 40; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + index);
  }
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
  if (!supportedBits(bits)) return SIMCAM_E_INVALIDARG;
  deliver(buffer, bits, pitchFor(bits, 0));
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
