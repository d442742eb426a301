// Finding the camera SDK among the shared objects loaded in the process and
// pulling frames from it.
//
// The library never loads, links or names the SDK: it recognises it by the
// exported function "DllPrefix" and by the names of its pull functions.  Two
// bindings are cached for the life of the process and never released; a
// search that finds nothing leaves its binding unbound, so the next pull
// searches again (a host may load its SDK late).  A search keeps a reference
// only to the object it binds: every other object it opened is closed again,
// so a plugin the host closes is unloaded.
#pragma once

#include <cstdint>

#include <vantix.h>

namespace vantix {

// SDK entry points, as the library calls them.
using SdkPrefixFn = const char* (*)();
using SdkRawFormatFn = int32_t (*)(void* camera, uint32_t* format, uint32_t* bitDepth);
using SdkPullV2Fn = int32_t (*)(void* camera, void* buffer, int32_t bits, int32_t rowPitch,
                                void* info);
using SdkPullV3Fn = int32_t (*)(void* camera, void* buffer, int32_t zero, int32_t bits,
                                int32_t rowPitch, void* info);
using SdkPullV4Fn = SdkPullV3Fn;
using SdkNamedPullFn = int32_t (*)(void* camera, void* buffer, int32_t bits, uint32_t* width,
                                   uint32_t* height);

// A snapshot of the cached bindings (for tests and diagnostics).
struct SdkBindingView {
  void* sdkHandle;
  SdkRawFormatFn rawFormatFn;
  SdkPullV2Fn pullV2Fn;
  SdkPullV3Fn pullV3Fn;
  SdkPullV4Fn pullV4Fn;
  void* namedHandle;
  SdkNamedPullFn namedPullFn;
};
SdkBindingView sdkBindings();

// Walks the loaded objects in load order.  Every object that exports
// "DllPrefix" overwrites the raw-format, V3 and V4 pointers with what it
// exports (null included); the first one that also exports
// "DllPullImageWithRowPitchV2" is bound and ends the search.  A search that
// sees no such object at all leaves every pointer null.
void bindCameraSdk();

// The same walk for "<prefix>_PullImage"; the first object exporting it is
// bound.  Independent of bindCameraSdk (the two may bind different objects).
void bindNamedPull();

// The session push a pull ends in: (session, data, width, height,
// bits a channel, rowPitch).
using PushEntry = void (*)(void* session, const void* data, uint32_t width, uint32_t height,
                           uint64_t bits, uint32_t rowPitch);

enum class FrameInfoVersion { V2, V3, V4 };

// Size of the frame-information record of a version: 24, 40 or 104 bytes.
size_t frameInfoSize(FrameInfoVersion version);

// Pulls one frame with a frame-information record.  Searches for the SDK when
// unbound; returns VANTIX_E_NOTIMPL when the variant's pull function is
// missing, the SDK's negative result unchanged (nothing copied or pushed), or
// else copies the record to `info` (when not null), pushes when `push` is
// nonzero with (record width, record height, bits / 3, rowPitch) and returns
// the SDK's result.
VantixResult pullWithInfo(FrameInfoVersion version, void* session, void* camera, int32_t push,
                          void* buffer, int32_t bits, uint32_t rowPitch, void* info,
                          PushEntry pushEntry);

// Pulls one frame through "<prefix>_PullImage"; pushes (when asked and the
// result is not negative) with 8 bits a channel and row pitch 0.
VantixResult pullNamed(void* session, void* camera, int32_t push, void* buffer, uint32_t bits,
                       uint32_t* width, uint32_t* height, PushEntry pushEntry);

// The spot session's frame entry: (session, camera, buffer, width, height,
// bitCount, rowPitch, measure, out).
using SpotFrameEntry = void (*)(void* session, void* camera, void* buffer, uint32_t width,
                                uint32_t height, uint32_t bitCount, uint32_t rowPitch,
                                uint32_t measure, void* out);

// Pulls one frame for a spot session: V2 pull, record copied to `info`, the
// camera's raw bit depth queried into *rawBitDepth while it is 0, then the
// frame handed to `entry` (always; exceptions from it propagate).
VantixResult pullSpot(void* session, uint32_t* rawBitDepth, void* camera, uint32_t measure,
                      void* buffer, uint32_t bitCount, uint32_t rowPitch, FrameInfoV2* info,
                      void* out, SpotFrameEntry entry);

}  // namespace vantix
