// Shared between the simulator's sources; nothing here is exported.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace simcam {

enum class Entry { PullV2, PullV3, PullV4, Named };

// One pull: counts the call under `entry`, then delivers the next frame into
// `buffer` and, for each that is not null, writes the frame-information
// record of `infoSize` bytes and the frame size.
int32_t pull(Entry entry, void* camera, void* buffer, int32_t zero, int32_t bits, int32_t rowPitch,
             void* info, size_t infoSize, uint32_t* width, uint32_t* height);

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

// Writes a frame-information record: width, height, frame index, pattern.
inline void fillFrameInfo(void* info, size_t size, uint32_t width, uint32_t height,
                          uint32_t frameIndex) {
  auto* bytes = static_cast<uint8_t*>(info);
  std::memcpy(bytes, &width, 4);
  std::memcpy(bytes + 4, &height, 4);
  std::memcpy(bytes + 8, &frameIndex, 4);
  for (size_t i = 12; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + frameIndex);
}

}  // namespace simcam
