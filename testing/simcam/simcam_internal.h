// Shared between the simulator's sources; nothing here is exported.
#pragma once

#include <cstddef>
#include <cstdint>

namespace simcam {

enum class Entry { PullV2, PullV3, PullV4, Named };

// One pull: counts the call under `entry`, then delivers the next frame into
// `buffer` and, for each that is not null, writes the frame-information
// record of `infoSize` bytes and the frame size.
int32_t pull(Entry entry, void* camera, void* buffer, int32_t zero, int32_t bits, int32_t rowPitch,
             void* info, size_t infoSize, uint32_t* width, uint32_t* height);

// Writes a frame-information record: width, height, frame index, pattern.
void fillFrameInfo(void* info, size_t size, uint32_t width, uint32_t height, uint32_t frameIndex);

}  // namespace simcam
