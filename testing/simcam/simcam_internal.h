// Shared between the simulator's sources; nothing here is exported.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "simcam.h"

namespace simcam {

using Counter = uint32_t SimcamStats::*;

// One pull: counts the call (failed ones too), then delivers the next frame
// into `buffer` and, for each that is not null, writes the frame-information
// record of `infoSize` bytes and the frame size.
int32_t pull(Counter counter, void* camera, void* buffer, int32_t bits, int32_t rowPitch,
             void* info, size_t infoSize, uint32_t* width, uint32_t* height);

// The call counters of one library.
class Stats {
 public:
  void count(Counter counter) {
    std::lock_guard<std::mutex> hold(lock_);
    ++(stats_.*counter);
  }
  void get(SimcamStats* out) {
    std::lock_guard<std::mutex> hold(lock_);
    *out = stats_;
  }

 private:
  std::mutex lock_;
  SimcamStats stats_{};
};

inline bool supportedBits(int32_t bits) {
  return bits == 8 || bits == 16 || bits == 24 || bits == 32 || bits == 48 || bits == 64;
}

// Rows padded to 4 bytes.
inline uint32_t defaultPitch(uint32_t width, int32_t bits) {
  return static_cast<uint32_t>((static_cast<uint64_t>(width) * bits + 31) / 32 * 4);
}

// The pitch a pull uses, or 0 when bits or pitch are not accepted.
inline uint32_t effectivePitch(uint32_t width, int32_t bits, int32_t rowPitch) {
  if (!supportedBits(bits) || rowPitch < 0) return 0;
  if (rowPitch == 0) return defaultPitch(width, bits);
  const uint64_t rowBytes = static_cast<uint64_t>(width) * bits / 8;
  return static_cast<uint64_t>(rowPitch) >= rowBytes ? static_cast<uint32_t>(rowPitch) : 0;
}

// What a pull reports besides the pixels: the frame-information record
// (width, height, frame index, then the byte pattern) and the frame size.
inline void report(void* info, size_t infoSize, uint32_t width, uint32_t height,
                   uint32_t frameIndex, uint32_t* widthOut, uint32_t* heightOut) {
  if (info != nullptr) {
    auto* bytes = static_cast<uint8_t*>(info);
    std::memcpy(bytes, &width, 4);
    std::memcpy(bytes + 4, &height, 4);
    std::memcpy(bytes + 8, &frameIndex, 4);
    for (size_t i = 12; i < infoSize; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + frameIndex);
  }
  if (widthOut != nullptr) *widthOut = width;
  if (heightOut != nullptr) *heightOut = height;
}

}  // namespace simcam
