#include "api/camera_sdk.h"

#include <dlfcn.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#else
#include <link.h>
#endif

namespace vantix {
namespace {

// The bindings are read and written without a lock: two threads that pull
// for the first time at once may both search, and both store the same
// values.  Atomics keep those concurrent stores well-defined.
struct SdkBinding {
  std::atomic<void*> sdkHandle{nullptr};
  std::atomic<SdkRawFormatFn> rawFormatFn{nullptr};
  std::atomic<SdkPullV2Fn> pullV2Fn{nullptr};
  std::atomic<SdkPullV3Fn> pullV3Fn{nullptr};
  std::atomic<SdkPullV4Fn> pullV4Fn{nullptr};
};

struct NamedPullBinding {
  std::atomic<void*> namedHandle{nullptr};
  std::atomic<SdkNamedPullFn> namedPullFn{nullptr};
};

SdkBinding gSdk;
NamedPullBinding gNamed;

// Names of the loaded objects, in load order.
std::vector<std::string> loadedImageNames() {
  std::vector<std::string> names;
#ifdef __APPLE__
  const uint32_t count = _dyld_image_count();
  for (uint32_t i = 0; i < count; ++i) {
    const char* name = _dyld_get_image_name(i);
    if (name != nullptr) names.emplace_back(name);
  }
#else
  // dlopen must not run inside the iteration (the loader holds its lock), so
  // collect the names first.  The main program has an empty name and is
  // passed over: a handle to it would search the whole global scope rather
  // than one object, and the SDK is a shared library.
  dl_iterate_phdr(
      [](struct dl_phdr_info* info, size_t, void* data) -> int {
        if (info->dlpi_name != nullptr && info->dlpi_name[0] != '\0') {
          static_cast<std::vector<std::string>*>(data)->emplace_back(info->dlpi_name);
        }
        return 0;
      },
      &names);
#endif
  return names;
}

// Calls `visit(handle, prefix)` for every loaded object that exports
// "DllPrefix", in load order, until it returns true; returns the handle it
// returned true for (null when it never did), whose reference the caller
// keeps.  Every other handle is closed again as soon as the object has been
// looked at: dlopen takes a reference even with RTLD_NOLOAD, and keeping it
// would keep a plugin mapped after the host closes it.
template <typename Visit>
void* forEachSdkImage(Visit visit) {
  for (const std::string& name : loadedImageNames()) {
    void* handle = dlopen(name.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) continue;
    auto prefixFn = reinterpret_cast<SdkPrefixFn>(dlsym(handle, "DllPrefix"));
    if (prefixFn != nullptr) {
      const char* prefix = prefixFn();
      if (visit(handle, prefix != nullptr ? prefix : "")) return handle;
    }
    dlclose(handle);
  }
  return nullptr;
}

template <typename Fn>
Fn lookup(void* handle, const std::string& symbol) {
  return reinterpret_cast<Fn>(dlsym(handle, symbol.c_str()));
}

}  // namespace

SdkBindingView sdkBindings() {
  return {gSdk.sdkHandle.load(),   gSdk.rawFormatFn.load(),  gSdk.pullV2Fn.load(),
          gSdk.pullV3Fn.load(),    gSdk.pullV4Fn.load(),     gNamed.namedHandle.load(),
          gNamed.namedPullFn.load()};
}

void bindCameraSdk() {
  // The pointers of every image that exports "DllPrefix" replace those of
  // the images before it; they are gathered here and published once at the
  // end, so that a thread pulling while another searches never sees the
  // pointers of an image that was passed over.  After a failed search they
  // are those of the last such image, which the library holds no reference
  // to: they stay usable while the host keeps that image loaded, and since
  // every pull of an unbound binding searches again first, they are
  // replaced (by nulls when no image exports "DllPrefix" any more) before
  // they could be called after the host closed it.
  SdkRawFormatFn rawFormat = nullptr;
  SdkPullV2Fn v2 = nullptr;
  SdkPullV3Fn v3 = nullptr;
  SdkPullV4Fn v4 = nullptr;
  void* const bound = forEachSdkImage([&](void* handle, const char* prefix) {
    // The name is built without a length limit, so long prefixes work too.
    rawFormat = lookup<SdkRawFormatFn>(handle, std::string(prefix) + "_get_RawFormat");
    v2 = lookup<SdkPullV2Fn>(handle, "DllPullImageWithRowPitchV2");
    v3 = lookup<SdkPullV3Fn>(handle, "DllPullImageV3");
    v4 = lookup<SdkPullV4Fn>(handle, "DllPullImageV4");
    return v2 != nullptr;
  });
  // A search that bound nothing leaves alone a binding another thread made
  // meanwhile.
  if (bound == nullptr && gSdk.sdkHandle.load() != nullptr) return;
  gSdk.rawFormatFn = rawFormat;
  gSdk.pullV3Fn = v3;
  gSdk.pullV4Fn = v4;
  gSdk.pullV2Fn = v2;
  if (bound != nullptr) gSdk.sdkHandle = bound;
}

void bindNamedPull() {
  SdkNamedPullFn named = nullptr;
  void* const bound = forEachSdkImage([&](void* handle, const char* prefix) {
    named = lookup<SdkNamedPullFn>(handle, std::string(prefix) + "_PullImage");
    return named != nullptr;
  });
  if (bound == nullptr && gNamed.namedHandle.load() != nullptr) return;
  gNamed.namedPullFn = named;
  if (bound != nullptr) gNamed.namedHandle = bound;
}

size_t frameInfoSize(FrameInfoVersion version) {
  switch (version) {
    case FrameInfoVersion::V2: return sizeof(FrameInfoV2);
    case FrameInfoVersion::V3: return sizeof(FrameInfoV3);
    default: return sizeof(FrameInfoV4);
  }
}

VantixResult pullWithInfo(FrameInfoVersion version, void* session, void* camera, int32_t push,
                          void* buffer, int32_t bits, uint32_t rowPitch, void* info,
                          PushEntry pushEntry) {
  if (gSdk.sdkHandle.load() == nullptr) bindCameraSdk();

  // Room for the largest record; the 64-bit words keep it aligned for the SDK.
  uint64_t record[sizeof(FrameInfoV4) / sizeof(uint64_t)] = {};
  const size_t size = frameInfoSize(version);
  int32_t result = 0;
  const auto pitch = static_cast<int32_t>(rowPitch);
  if (version == FrameInfoVersion::V2) {
    const SdkPullV2Fn fn = gSdk.pullV2Fn.load();
    if (fn == nullptr) return VANTIX_E_NOTIMPL;
    result = fn(camera, buffer, bits, pitch, record);
  } else {
    const SdkPullV3Fn fn =
        version == FrameInfoVersion::V3 ? gSdk.pullV3Fn.load() : gSdk.pullV4Fn.load();
    if (fn == nullptr) return VANTIX_E_NOTIMPL;
    result = fn(camera, buffer, 0, bits, pitch, record);
  }
  if (result < 0) return static_cast<VantixResult>(result);

  if (info != nullptr) std::memcpy(info, record, size);
  if (push != 0) {
    uint32_t width = 0;
    uint32_t height = 0;
    std::memcpy(&width, reinterpret_cast<const uint8_t*>(record), 4);
    std::memcpy(&height, reinterpret_cast<const uint8_t*>(record) + 4, 4);
    // bits / 3 turns a three-channel pixel size into bits a channel (24 -> 8,
    // 48 -> 16); the sessions ignore it, but it is what they are handed.
    pushEntry(session, buffer, width, height, static_cast<uint64_t>(static_cast<int64_t>(bits / 3)),
              rowPitch);
  }
  return static_cast<VantixResult>(result);
}

VantixResult pullNamed(void* session, void* camera, int32_t push, void* buffer, uint32_t bits,
                       uint32_t* width, uint32_t* height, PushEntry pushEntry) {
  if (gNamed.namedHandle.load() == nullptr) bindNamedPull();
  const SdkNamedPullFn fn = gNamed.namedPullFn.load();
  if (fn == nullptr) return VANTIX_E_NOTIMPL;
  const int32_t result = fn(camera, buffer, static_cast<int32_t>(bits), width, height);
  // The size comes back through the host's pointers: without them the
  // frame cannot be pushed, and is dropped.
  if (push != 0 && result >= 0 && width != nullptr && height != nullptr) {
    pushEntry(session, buffer, *width, *height, 8, 0);
  }
  return static_cast<VantixResult>(result);
}

VantixResult pullSpot(void* session, uint32_t* rawBitDepth, void* camera, uint32_t measure,
                      void* buffer, uint32_t bitCount, uint32_t rowPitch, FrameInfoV2* info,
                      void* out, SpotFrameEntry entry) {
  if (gSdk.sdkHandle.load() == nullptr) bindCameraSdk();
  const SdkPullV2Fn pull = gSdk.pullV2Fn.load();
  if (pull == nullptr) return VANTIX_E_NOTIMPL;

  FrameInfoV2 record{};
  const int32_t result = pull(camera, buffer, static_cast<int32_t>(bitCount),
                              static_cast<int32_t>(rowPitch), &record);
  if (result < 0) return static_cast<VantixResult>(result);
  if (info != nullptr) std::memcpy(info, &record, sizeof record);

  // The raw bit depth is asked while the session still has none.  An SDK that
  // exports the V2 pull but no raw-format query leaves it at 0 (calling the
  // missing function would crash the host).
  if (*rawBitDepth == 0) {
    const SdkRawFormatFn rawFormat = gSdk.rawFormatFn.load();
    if (rawFormat != nullptr) rawFormat(camera, nullptr, rawBitDepth);
  }
  entry(session, camera, buffer, record.width, record.height, bitCount, rowPitch, measure, out);
  return static_cast<VantixResult>(result);
}

}  // namespace vantix
