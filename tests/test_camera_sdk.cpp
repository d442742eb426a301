// Binding to the camera SDK and the pull routines, against the simulated
// SDK.  The bindings are process-wide and never reset, so every scenario
// runs in a child process of its own and loads the SDK libraries with
// dlopen, the way a host has its SDK loaded.  First pulls from several
// threads at once are in test_stress_pull.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "api/camera_sdk.h"
#include "support/test_support.h"
#include "tools/simcam/simcam_loader.h"

namespace {

using vantix::FrameInfoVersion;

constexpr uint8_t kFill = 0xCD;
void* const kSession = reinterpret_cast<void*>(0x5e55);  // never dereferenced
constexpr FrameInfoVersion kVersions[] = {FrameInfoVersion::V2, FrameInfoVersion::V3,
                                          FrameInfoVersion::V4};

struct PushCall {
  void* session;
  const void* data;
  uint32_t width, height;
  uint64_t bits;
  uint32_t rowPitch;
  auto key() const { return std::tie(session, data, width, height, bits, rowPitch); }
  bool operator==(const PushCall& o) const { return key() == o.key(); }
};
std::ostream& operator<<(std::ostream& os, const PushCall& p) {
  return os << p.width << "x" << p.height << " bits " << p.bits << " pitch " << p.rowPitch;
}
std::vector<PushCall> gPushes;
void recordPush(void* session, const void* data, uint32_t width, uint32_t height, uint64_t bits,
                uint32_t rowPitch) {
  gPushes.push_back({session, data, width, height, bits, rowPitch});
}

struct SpotCall {
  void *session, *camera, *buffer;
  uint32_t width, height, bitCount, rowPitch, measure;
  void* out;
  auto key() const {
    return std::tie(session, camera, buffer, width, height, bitCount, rowPitch, measure, out);
  }
  bool operator==(const SpotCall& o) const { return key() == o.key(); }
};
std::vector<SpotCall> gSpotCalls;
void recordSpot(void* session, void* camera, void* buffer, uint32_t width, uint32_t height,
                uint32_t bitCount, uint32_t rowPitch, uint32_t measure, void* out) {
  gSpotCalls.push_back({session, camera, buffer, width, height, bitCount, rowPitch, measure, out});
}

void* openLibrary(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(handle, nullptr) << dlerror();
  return handle;
}
SimcamApi loadSimcam(const std::string& path = VANTIX_SIMCAM_PATH) {
  SimcamApi api;
  EXPECT_TRUE(simcam_load_api(openLibrary(path), &api));
  return api;
}
SimcamPartialApi loadPartial() {
  SimcamPartialApi api;
  EXPECT_TRUE(simcam_load_partial_api(openLibrary(VANTIX_SIMCAM_PARTIAL_PATH), &api));
  return api;
}
std::string legacyPath() {
  const std::string full = VANTIX_SIMCAM_PATH;
  return full.substr(0, full.rfind('/')) + "/libvantix_simcam_legacy.so";
}
template <typename Api>
SimcamStats statsOf(const Api& api) {
  SimcamStats s;
  api.getStats(&s);
  return s;
}

// The record the simulator writes for a frame (its documented pattern).
std::vector<uint8_t> expectedRecord(size_t size, uint32_t width, uint32_t height, uint32_t index) {
  std::vector<uint8_t> r(size);
  std::memcpy(r.data(), &width, 4);
  std::memcpy(r.data() + 4, &height, 4);
  std::memcpy(r.data() + 8, &index, 4);
  for (size_t i = 12; i < size; ++i) r[i] = static_cast<uint8_t>(i * 7 + index);
  return r;
}
bool startsWith(const std::vector<uint8_t>& bytes, const std::vector<uint8_t>& head) {
  return std::equal(head.begin(), head.end(), bytes.begin());
}
bool allFill(const std::vector<uint8_t>& bytes, size_t from = 0) {
  return std::all_of(bytes.begin() + from, bytes.end(), [](uint8_t b) { return b == kFill; });
}
// Room for any record plus a tail that must stay untouched.
std::vector<uint8_t> infoBuffer() {
  return std::vector<uint8_t>(sizeof(FrameInfoV4) + 16, kFill);
}

VantixResult pull(FrameInfoVersion version, void* camera, std::vector<uint8_t>& buffer,
                  int32_t bits, uint32_t rowPitch, void* info, int32_t push = 1) {
  return vantix::pullWithInfo(version, kSession, camera, push, buffer.data(), bits, rowPitch, info,
                              recordPush);
}
VantixResult pullNamed(void* camera, std::vector<uint8_t>& buffer, uint32_t bits, uint32_t* width,
                       uint32_t* height, int32_t push = 1) {
  return vantix::pullNamed(kSession, camera, push, buffer.data(), bits, width, height, recordPush);
}
// Every pull routine once (the three record versions, the named pull, the
// spot pull), with their results.
std::vector<VantixResult> pullEach(void* camera, std::vector<uint8_t>& buffer,
                                   std::vector<uint8_t>& info, int32_t bits, uint32_t* width,
                                   uint32_t* depth) {
  std::vector<VantixResult> results;
  for (FrameInfoVersion v : kVersions) {
    results.push_back(pull(v, camera, buffer, bits, 0, info.data()));
  }
  uint32_t height = 0;
  results.push_back(pullNamed(camera, buffer, static_cast<uint32_t>(bits), width, &height));
  results.push_back(vantix::pullSpot(kSession, depth, camera, 1, buffer.data(), 8, 0,
                                     reinterpret_cast<FrameInfoV2*>(info.data()), nullptr,
                                     recordSpot));
  return results;
}

TEST(CameraSdkBinding, NoSdkFailsUntilOneIsLoaded) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    void* camera = reinterpret_cast<void*>(0xca);
    std::vector<uint8_t> buffer(64, kFill), info = infoBuffer();
    uint32_t width = 7, depth = 0;
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(pullEach(camera, buffer, info, 24, &width, &depth),
                std::vector<VantixResult>(5, VANTIX_E_NOTIMPL));
    }
    EXPECT_TRUE(allFill(buffer) && allFill(info) && gPushes.empty() && gSpotCalls.empty());
    EXPECT_EQ(width, 7u);
    const vantix::SdkBindingView b = vantix::sdkBindings();
    EXPECT_TRUE(!b.sdkHandle && !b.pullV2Fn && !b.pullV3Fn && !b.pullV4Fn && !b.rawFormatFn &&
                !b.namedHandle && !b.namedPullFn);

    // The host loads its SDK late: the next pull finds it.
    const SimcamApi sim = loadSimcam();
    SimcamCamera* cam = sim.open(16, 8);
    buffer.assign(sim.frameBytes(cam, 24, 0), kFill);
    EXPECT_EQ(pull(FrameInfoVersion::V2, cam, buffer, 24, 0, info.data()), VANTIX_S_OK);
    EXPECT_EQ(vantix::sdkBindings().pullV2Fn, sim.pullV2);
    EXPECT_EQ(statsOf(sim).pullV2Calls, 1u);
    sim.close(cam);
  }));
}

TEST(CameraSdkBinding, SdkWithoutV2IsPassedOverButOverwritesTheOtherPointers) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    const SimcamPartialApi partial = loadPartial();
    void* camera = reinterpret_cast<void*>(0xca);
    std::vector<uint8_t> buffer(64, kFill), info = infoBuffer();

    // Unbound after each walk, so every pull walks (and asks the prefix) again.
    EXPECT_EQ(pull(FrameInfoVersion::V2, camera, buffer, 24, 0, info.data()), VANTIX_E_NOTIMPL);
    EXPECT_EQ(pull(FrameInfoVersion::V4, camera, buffer, 24, 0, info.data()), VANTIX_E_NOTIMPL);
    EXPECT_EQ(statsOf(partial).prefixCalls, 2u);
    vantix::SdkBindingView b = vantix::sdkBindings();
    EXPECT_EQ(b.sdkHandle, nullptr);
    EXPECT_EQ(b.pullV2Fn, nullptr);
    EXPECT_EQ(b.pullV3Fn, partial.pullV3);
    EXPECT_EQ(b.rawFormatFn, partial.getRawFormat);
    EXPECT_EQ(b.pullV4Fn, nullptr);

    // V3 reaches the stub through the pointer left behind.
    EXPECT_EQ(pull(FrameInfoVersion::V3, camera, buffer, 24, 0, info.data()), VANTIX_S_OK);
    const SimcamStats s = statsOf(partial);
    EXPECT_EQ(s.pullV3Calls, 1u);
    EXPECT_EQ(s.lastCamera, camera);
    EXPECT_EQ(s.prefixCalls, 3u);
    ASSERT_EQ(gPushes.size(), 1u);
    EXPECT_EQ(gPushes[0], (PushCall{kSession, buffer.data(), 4, 2, 8, 0}));

    // The named pull binds the stub for good.
    uint32_t width = 0, height = 0;
    EXPECT_EQ(pullNamed(camera, buffer, 8, &width, &height, 0), VANTIX_S_OK);
    EXPECT_EQ(vantix::sdkBindings().namedPullFn, partial.pullNamed);

    // A full SDK loaded later is bound, and its pointers replace the stub's.
    const SimcamApi sim = loadSimcam();
    SimcamCamera* cam = sim.open(16, 8);
    buffer.assign(sim.frameBytes(cam, 24, 0), kFill);
    EXPECT_EQ(pull(FrameInfoVersion::V2, cam, buffer, 24, 0, info.data()), VANTIX_S_OK);
    b = vantix::sdkBindings();
    EXPECT_NE(b.sdkHandle, nullptr);
    EXPECT_EQ(b.pullV2Fn, sim.pullV2);
    EXPECT_EQ(b.pullV3Fn, sim.pullV3);
    EXPECT_EQ(b.pullV4Fn, sim.pullV4);
    EXPECT_EQ(b.rawFormatFn, sim.getRawFormat);

    // Bound: no more walks.  The named pull stays with the stub.
    const uint32_t walks = statsOf(partial).prefixCalls;
    EXPECT_EQ(pull(FrameInfoVersion::V3, cam, buffer, 24, 0, info.data()), VANTIX_S_OK);
    EXPECT_EQ(pullNamed(cam, buffer, 8, &width, &height, 0), VANTIX_S_OK);
    EXPECT_EQ(statsOf(sim).pullV3Calls, 1u);
    EXPECT_EQ(statsOf(partial).namedPullCalls, 2u);
    EXPECT_EQ(statsOf(sim).namedPullCalls, 0u);
    EXPECT_EQ(statsOf(partial).prefixCalls, walks);
    EXPECT_EQ(statsOf(sim).prefixCalls, 1u);
    sim.close(cam);
  }));
}

// A search that binds nothing keeps no reference to the objects it looked
// at: a plugin the host closes afterwards is unloaded, and the next search,
// finding no SDK, leaves none of its pointers behind.
TEST(CameraSdkBinding, FailedSearchesLeaveNoObjectLoaded) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    void* plugin = openLibrary(VANTIX_SIMCAM_PARTIAL_PATH);
    ASSERT_NE(dlsym(plugin, "DllPrefix"), nullptr);
    void* camera = reinterpret_cast<void*>(0xca);
    std::vector<uint8_t> buffer(64, kFill), info = infoBuffer();
    uint32_t depth = 0;
    for (FrameInfoVersion v : {FrameInfoVersion::V2, FrameInfoVersion::V4}) {
      EXPECT_EQ(pull(v, camera, buffer, 24, 0, info.data()), VANTIX_E_NOTIMPL);
    }
    EXPECT_EQ(vantix::pullSpot(kSession, &depth, camera, 1, buffer.data(), 8, 0, nullptr, nullptr,
                               recordSpot),
              VANTIX_E_NOTIMPL);
    EXPECT_NE(vantix::sdkBindings().pullV3Fn, nullptr);  // the stub's, while it is loaded

    ASSERT_EQ(dlclose(plugin), 0) << dlerror();
    EXPECT_EQ(dlopen(VANTIX_SIMCAM_PARTIAL_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr)
        << "the plugin is still loaded after the host closed it";
    EXPECT_EQ(pull(FrameInfoVersion::V3, camera, buffer, 24, 0, info.data()), VANTIX_E_NOTIMPL);
    const vantix::SdkBindingView b = vantix::sdkBindings();
    EXPECT_TRUE(!b.sdkHandle && !b.pullV2Fn && !b.pullV3Fn && !b.pullV4Fn && !b.rawFormatFn);
    EXPECT_TRUE(allFill(buffer) && allFill(info) && gPushes.empty() && gSpotCalls.empty());
  }));
}

TEST(CameraSdkBinding, NamedPullIsSearchedOnItsOwn) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    // Load order: an SDK without the named pull, the stub, the full simulator.
    const SimcamApi legacy = loadSimcam(legacyPath());
    ASSERT_EQ(legacy.pullNamed, nullptr);
    const SimcamPartialApi partial = loadPartial();
    const SimcamApi full = loadSimcam();
    SimcamCamera* cam = legacy.open(8, 4);
    std::vector<uint8_t> buffer(legacy.frameBytes(cam, 24, 0), kFill), info = infoBuffer();
    uint32_t width = 0, height = 0;
    EXPECT_EQ(pullNamed(cam, buffer, 24, &width, &height, 0), VANTIX_S_OK);
    EXPECT_EQ(vantix::sdkBindings().namedPullFn, partial.pullNamed);
    EXPECT_EQ(vantix::sdkBindings().sdkHandle, nullptr);  // the other binding is untouched
    EXPECT_EQ(statsOf(full).prefixCalls, 0u);             // the walk stopped at the stub

    // The frame pulls bind the first object with the V2 pull.
    EXPECT_EQ(pull(FrameInfoVersion::V2, cam, buffer, 24, 0, info.data()), VANTIX_S_OK);
    EXPECT_EQ(vantix::sdkBindings().pullV2Fn, legacy.pullV2);
    EXPECT_EQ(vantix::sdkBindings().pullV3Fn, legacy.pullV3);
    EXPECT_EQ(vantix::sdkBindings().namedPullFn, partial.pullNamed);
    EXPECT_EQ(statsOf(partial).prefixCalls, 1u);
    EXPECT_EQ(statsOf(full).prefixCalls, 0u);
    legacy.close(cam);
  }));
}

TEST(CameraSdkBinding, MissingV4OfTheBoundSdkIsNotSearchedAgain) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    const SimcamApi legacy = loadSimcam(legacyPath());
    ASSERT_EQ(legacy.pullV4, nullptr);
    SimcamCamera* cam = legacy.open(8, 4);
    std::vector<uint8_t> buffer(legacy.frameBytes(cam, 24, 0), kFill), info = infoBuffer();
    EXPECT_EQ(pull(FrameInfoVersion::V2, cam, buffer, 24, 0, info.data()), VANTIX_S_OK);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(pull(FrameInfoVersion::V4, cam, buffer, 24, 0, info.data()), VANTIX_E_NOTIMPL);
    }
    // A full SDK loaded afterwards changes nothing: the binding is final.
    const SimcamApi full = loadSimcam();
    EXPECT_EQ(pull(FrameInfoVersion::V4, cam, buffer, 24, 0, info.data()), VANTIX_E_NOTIMPL);
    EXPECT_EQ(statsOf(legacy).prefixCalls, 1u);
    EXPECT_EQ(statsOf(full).prefixCalls, 0u);
    EXPECT_EQ(gPushes.size(), 1u);
    legacy.close(cam);
  }));
}

TEST(CameraSdkPull, SdkResultsPassThroughAndFailuresWriteNothing) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    const SimcamApi sim = loadSimcam();
    SimcamCamera* cam = sim.open(10, 6);
    std::vector<uint8_t> buffer(sim.frameBytes(cam, 32, 0), kFill), info = infoBuffer();
    const VantixResult notReady = 0x80070015u;
    sim.setResult(cam, static_cast<int32_t>(notReady));
    uint32_t width = 77, depth = 0;
    EXPECT_EQ(pullEach(cam, buffer, info, 32, &width, &depth),
              std::vector<VantixResult>(5, notReady));
    const SimcamStats s = statsOf(sim);
    EXPECT_EQ(s.pullV2Calls + s.pullV3Calls + s.pullV4Calls + s.namedPullCalls, 5u);
    EXPECT_EQ(s.rawFormatCalls, 0u);
    EXPECT_TRUE(allFill(buffer) && allFill(info) && gPushes.empty() && gSpotCalls.empty());
    EXPECT_EQ(width, 77u);
    EXPECT_EQ(depth, 0u);

    // A positive result is a success: the frame is delivered and pushed.
    sim.setResult(cam, 1);
    EXPECT_EQ(pullEach(cam, buffer, info, 32, &width, &depth), std::vector<VantixResult>(5, 1u));
    EXPECT_EQ(gPushes.size(), 4u);
    EXPECT_EQ(gSpotCalls.size(), 1u);
    EXPECT_EQ(sim.frameIndex(cam), 5u);
    sim.close(cam);
  }));
}

TEST(CameraSdkPull, RecordCopiedWholeAndPushArgumentsOfEveryPull) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    const SimcamApi sim = loadSimcam();
    SimcamCamera* cam = sim.open(30, 7);  // 30 * 3 bytes is not a multiple of 4
    // Pushed bits are bits / 3, truncated; the pitch goes to the SDK and the push.
    const struct {
      int32_t bits;
      uint64_t pushed;
      uint32_t pitch;
    } cases[] = {{24, 8, 0}, {32, 10, 0}, {48, 16, 0}, {8, 2, 0}, {24, 8, 100}};
    for (FrameInfoVersion v : kVersions) {
      const size_t size = vantix::frameInfoSize(v);
      for (const auto& c : cases) {
        const auto pitch = static_cast<int32_t>(c.pitch);
        std::vector<uint8_t> buffer(sim.frameBytes(cam, c.bits, pitch), kFill);
        std::vector<uint8_t> expected = buffer, info = infoBuffer();
        const uint32_t index = sim.frameIndex(cam);
        ASSERT_EQ(sim.render(cam, index, expected.data(), c.bits, pitch), 0);
        gPushes.clear();
        ASSERT_EQ(pull(v, cam, buffer, c.bits, c.pitch, info.data()), VANTIX_S_OK);

        EXPECT_TRUE(startsWith(info, expectedRecord(size, 30, 7, index))) << size;
        EXPECT_TRUE(allFill(info, size)) << "bytes past the record were written";
        EXPECT_EQ(buffer, expected);
        const SimcamStats s = statsOf(sim);
        EXPECT_EQ(std::tie(s.lastBits, s.lastRowPitch), std::tie(c.bits, pitch));
        if (v != FrameInfoVersion::V2) {
          EXPECT_EQ(s.lastZero, 0);
        }
        EXPECT_EQ(gPushes,
                  (std::vector<PushCall>{{kSession, buffer.data(), 30, 7, c.pushed, c.pitch}}));
      }
    }
    // The named pull pushes 8 bits at row pitch 0 though the rows are padded.
    uint32_t width = 0, height = 0;
    for (int32_t bits : {24, 32, 16}) {
      std::vector<uint8_t> buffer(sim.frameBytes(cam, bits, 0), kFill), expected = buffer;
      sim.render(cam, sim.frameIndex(cam), expected.data(), bits, 0);
      gPushes.clear();
      EXPECT_EQ(pullNamed(cam, buffer, static_cast<uint32_t>(bits), &width, &height), VANTIX_S_OK);
      EXPECT_EQ(buffer, expected);
      EXPECT_EQ(statsOf(sim).lastBits, bits);
      EXPECT_EQ(gPushes, (std::vector<PushCall>{{kSession, buffer.data(), 30, 7, 8, 0}}));
    }
    EXPECT_EQ(std::tie(width, height), std::make_tuple(30u, 7u));
    // Push flag 0: the frame and record are delivered, the session is left alone.
    gPushes.clear();
    std::vector<uint8_t> buffer(sim.frameBytes(cam, 24, 0), kFill), info = infoBuffer();
    EXPECT_EQ(pull(FrameInfoVersion::V3, cam, buffer, 24, 0, info.data(), 0), VANTIX_S_OK);
    EXPECT_EQ(pullNamed(cam, buffer, 8, &width, &height, 0), VANTIX_S_OK);
    EXPECT_TRUE(gPushes.empty());
    EXPECT_FALSE(allFill(buffer) || allFill(info));
    EXPECT_EQ(pull(FrameInfoVersion::V4, cam, buffer, 24, 0, nullptr), VANTIX_S_OK);  // no record
    sim.close(cam);
  }));
}

TEST(CameraSdkPull, SpotPullAsksTheRawDepthOnlyWhileItIsZero) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    const SimcamApi sim = loadSimcam();
    SimcamCamera* cam = sim.open(12, 5);
    std::vector<uint8_t> buffer(sim.frameBytes(cam, 16, 32), kFill), info = infoBuffer();
    int out = 0;
    uint32_t depth = 0;
    const auto spotPull = [&] {
      return vantix::pullSpot(kSession, &depth, cam, 3, buffer.data(), 16, 32,
                              reinterpret_cast<FrameInfoV2*>(info.data()), &out, recordSpot);
    };
    ASSERT_EQ(spotPull(), VANTIX_S_OK);
    EXPECT_EQ(depth, 12u);
    EXPECT_TRUE(startsWith(info, expectedRecord(24, 12, 5, 0)));
    EXPECT_TRUE(allFill(info, 24));
    EXPECT_EQ(statsOf(sim).lastRowPitch, 32);
    ASSERT_EQ(gSpotCalls.size(), 1u);
    EXPECT_TRUE(gSpotCalls[0] == (SpotCall{kSession, cam, buffer.data(), 12, 5, 16, 32, 3, &out}));

    for (int i = 0; i < 3; ++i) ASSERT_EQ(spotPull(), VANTIX_S_OK);
    EXPECT_EQ(statsOf(sim).rawFormatCalls, 1u);

    // A camera that reports 0 is asked on every frame.
    sim.setRawBits(cam, 0);
    depth = 0;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(spotPull(), VANTIX_S_OK);
    EXPECT_EQ(statsOf(sim).rawFormatCalls, 4u);
    EXPECT_EQ(depth, 0u);
    EXPECT_EQ(gSpotCalls.size(), 7u);
    sim.close(cam);
  }));
}

}  // namespace
