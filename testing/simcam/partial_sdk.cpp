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

simcam::Stats gStats;
std::mutex gLock;
uint32_t gFrameIndex = 0;

}  // namespace

namespace simcam {

int32_t pull(Counter counter, void*, void* buffer, int32_t bits, int32_t rowPitch, void* info,
             size_t infoSize, uint32_t* width, uint32_t* height) {
  gStats.count(counter);
  if (buffer == nullptr) return SIMCAM_E_POINTER;
  const uint32_t pitch = effectivePitch(kWidth, bits, rowPitch);
  if (pitch == 0) return SIMCAM_E_INVALIDARG;
  std::lock_guard<std::mutex> lock(gLock);
  for (uint32_t y = 0; y < kHeight; ++y) {
    std::memset(static_cast<uint8_t*>(buffer) + y * pitch, 0x5A, kWidth * bits / 8);
  }
  report(info, infoSize, kWidth, kHeight, gFrameIndex++, width, height);
  return SIMCAM_S_OK;
}

}  // namespace simcam

extern "C" {

SIMCAM_API const char* DllPrefix(void) {
  gStats.count(&SimcamStats::prefixCalls);
  return "Partial";
}

SIMCAM_API int32_t DllPullImageV3(void* camera, void* buffer, int32_t, int32_t bits,
                                  int32_t rowPitch, void* frameInfoV3) {
  return simcam::pull(&SimcamStats::pullV3Calls, camera, buffer, bits, rowPitch, frameInfoV3, 40,
                      nullptr, nullptr);
}

SIMCAM_API int32_t Partial_PullImage(void* camera, void* buffer, int32_t bits, uint32_t* width,
                                     uint32_t* height) {
  return simcam::pull(&SimcamStats::namedPullCalls, camera, buffer, bits, 0, nullptr, 0, width,
                      height);
}

SIMCAM_API int32_t Partial_get_RawFormat(void*, uint32_t* format, uint32_t* bitDepth) {
  gStats.count(&SimcamStats::rawFormatCalls);
  if (format != nullptr) *format = SIMCAM_RAW_FOURCC;
  if (bitDepth != nullptr) *bitDepth = 10;
  return SIMCAM_S_OK;
}

SIMCAM_API void simcam_partial_get_stats(SimcamStats* stats) {
  gStats.get(stats);
}

}  // extern "C"
