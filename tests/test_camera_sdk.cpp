// Binding to the camera SDK and the pull routines, against the simulated SDK
// and its partial and legacy variants.  The bindings are process-wide and
// never reset, so every scenario runs in a child process of its own and
// loads the SDK libraries with dlopen, the way a host has its SDK loaded.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "api/camera_sdk.h"
#include "support/test_support.h"
#include "testing/simcam/simcam_loader.h"

namespace {

using vantix::FrameInfoVersion;
constexpr uint8_t kFill = 0xCD;
void* const kSession = reinterpret_cast<void*>(0x5e55);  // never dereferenced
void* const kNoCamera = reinterpret_cast<void*>(0xca);
constexpr FrameInfoVersion kVersions[] = {FrameInfoVersion::V2, FrameInfoVersion::V3,
                                          FrameInfoVersion::V4};

// What the pulls handed on: (data, width, height, bits, pitch) of each push,
// and the number of spot frames.
using Push = std::tuple<const void*, uint32_t, uint32_t, uint64_t, uint32_t>;
std::vector<Push> gPushes;
int gSpotFrames = 0;
void recordPush(void* session, const void* data, uint32_t w, uint32_t h, uint64_t bits,
                uint32_t pitch) {
  EXPECT_EQ(session, kSession);
  gPushes.emplace_back(data, w, h, bits, pitch);
}
void recordSpot(void*, void*, void*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, void*) {
  ++gSpotFrames;
}

template <typename Api, typename Loader>
Api load(const std::string& path, Loader loader) {
  Api api{};
  void* so = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  EXPECT_TRUE(so != nullptr && loader(so, &api)) << path;
  return api;
}
SimcamApi loadSim(const std::string& path = VANTIX_SIMCAM_PATH) {
  return load<SimcamApi>(path, simcam_load_api);
}
SimcamPartialApi loadPartial() {
  return load<SimcamPartialApi>(VANTIX_SIMCAM_PARTIAL_PATH, simcam_load_partial_api);
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

std::vector<uint8_t> gBuffer, gInfo;
bool allFill(const std::vector<uint8_t>& b, size_t from = 0) {
  return std::all_of(b.begin() + from, b.end(), [](uint8_t v) { return v == kFill; });
}
VantixResult pull(FrameInfoVersion v, void* camera, int32_t bits, uint32_t pitch = 0,
                  int32_t push = 1) {
  return vantix::pullWithInfo(v, kSession, camera, push, gBuffer.data(), bits, pitch, gInfo.data(),
                              recordPush);
}
VantixResult pullNamed(void* camera, uint32_t bits, int32_t push = 1) {
  uint32_t width = 0, height = 0;
  return vantix::pullNamed(kSession, camera, push, gBuffer.data(), bits, &width, &height,
                           recordPush);
}
// Every pull routine once: the three record versions, the named pull, the spot pull.
std::vector<VantixResult> pullEach(void* camera, int32_t bits, uint32_t* depth) {
  std::vector<VantixResult> results;
  for (FrameInfoVersion v : kVersions) results.push_back(pull(v, camera, bits));
  results.push_back(pullNamed(camera, static_cast<uint32_t>(bits)));
  results.push_back(vantix::pullSpot(kSession, depth, camera, 1, gBuffer.data(), 8, 0,
                                     reinterpret_cast<FrameInfoV2*>(gInfo.data()), nullptr,
                                     recordSpot));
  return results;
}
void freshBuffers(size_t bytes = 64) {
  gBuffer.assign(bytes, kFill);
  gInfo.assign(sizeof(FrameInfoV4) + 16, kFill);
}

// Scenarios of a host, each run in a child process of its own.  What the
// library bound is seen in what each SDK library was asked.

// Nothing until an SDK is loaded.  An SDK without the V2 pull is passed
// over, but the pointers found on the way stay (V3 reaches it while every
// pull searches again); a full SDK loaded later is bound and replaces them,
// and no more searches are made.  The named pull binds the stub for good.
void firstFullSdkIsBound() {
  freshBuffers();
  uint32_t depth = 0;
  EXPECT_EQ(pullEach(kNoCamera, 24, &depth), std::vector<VantixResult>(5, VANTIX_E_NOTIMPL));
  EXPECT_TRUE(allFill(gBuffer) && allFill(gInfo) && gPushes.empty() && gSpotFrames == 0);
  const SimcamPartialApi partial = loadPartial();
  EXPECT_EQ(pull(FrameInfoVersion::V2, kNoCamera, 24), VANTIX_E_NOTIMPL);
  EXPECT_EQ(pull(FrameInfoVersion::V4, kNoCamera, 24), VANTIX_E_NOTIMPL);
  EXPECT_EQ(pull(FrameInfoVersion::V3, kNoCamera, 24), VANTIX_S_OK);
  EXPECT_EQ(statsOf(partial).pullV3Calls, 1u);
  EXPECT_EQ(statsOf(partial).prefixCalls, 3u);
  EXPECT_EQ(gPushes, std::vector<Push>{Push(gBuffer.data(), 4, 2, 8, 0)});
  EXPECT_EQ(pullNamed(kNoCamera, 8, 0), VANTIX_S_OK);
  const SimcamApi sim = loadSim();
  SimcamCamera* cam = sim.open(16, 8);
  freshBuffers(sim.frameBytes(cam, 24, 0));
  EXPECT_EQ(pull(FrameInfoVersion::V2, cam, 24), VANTIX_S_OK);
  EXPECT_EQ(pull(FrameInfoVersion::V3, cam, 24), VANTIX_S_OK);
  EXPECT_EQ(pullNamed(cam, 8, 0), VANTIX_S_OK);
  const SimcamStats p = statsOf(partial), f = statsOf(sim);
  EXPECT_EQ(cv::Vec4i(p.pullV3Calls, p.namedPullCalls, p.prefixCalls, 0), cv::Vec4i(1, 2, 5, 0));
  EXPECT_EQ(cv::Vec4i(f.pullV2Calls, f.pullV3Calls, f.namedPullCalls, f.prefixCalls),
            cv::Vec4i(1, 1, 0, 1));
  sim.close(cam);
}

// A search that binds nothing keeps no reference to what it looked at: a
// plugin the host closes afterwards is unloaded, and the next search finds
// nothing of it.
void failedSearchesLeaveNoObjectLoaded() {
  void* plugin = dlopen(VANTIX_SIMCAM_PARTIAL_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(plugin, nullptr);
  freshBuffers();
  uint32_t depth = 0;
  EXPECT_EQ(pull(FrameInfoVersion::V2, kNoCamera, 24), VANTIX_E_NOTIMPL);
  EXPECT_EQ(vantix::pullSpot(kSession, &depth, kNoCamera, 1, gBuffer.data(), 8, 0, nullptr, nullptr,
                             recordSpot),
            VANTIX_E_NOTIMPL);
  ASSERT_EQ(dlclose(plugin), 0) << dlerror();
  EXPECT_EQ(dlopen(VANTIX_SIMCAM_PARTIAL_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr)
      << "the plugin is still loaded after the host closed it";
  freshBuffers();
  EXPECT_EQ(pull(FrameInfoVersion::V3, kNoCamera, 24), VANTIX_E_NOTIMPL);
  EXPECT_TRUE(allFill(gBuffer) && allFill(gInfo));
}

// Load order: an SDK without the named pull and V4, the stub, the full one.
// The named pull is searched on its own and binds the stub; the frame pulls
// bind the first object with V2, and its missing V4 is never searched again.
void bindingIsFinal() {
  const SimcamApi legacy = loadSim(legacyPath());
  ASSERT_TRUE(legacy.pullNamed == nullptr && legacy.pullV4 == nullptr);
  const SimcamPartialApi partial = loadPartial();
  const SimcamApi full = loadSim();
  SimcamCamera* cam = legacy.open(8, 4);
  freshBuffers(legacy.frameBytes(cam, 24, 0));
  EXPECT_EQ(pullNamed(cam, 24, 0), VANTIX_S_OK);
  EXPECT_EQ(statsOf(partial).namedPullCalls, 1u);
  EXPECT_EQ(pull(FrameInfoVersion::V2, cam, 24), VANTIX_S_OK);
  const uint32_t walks = statsOf(legacy).prefixCalls;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(pull(FrameInfoVersion::V4, cam, 24), VANTIX_E_NOTIMPL);
  const SimcamStats l = statsOf(legacy), p = statsOf(partial), f = statsOf(full);
  EXPECT_EQ(cv::Vec4i(l.pullV2Calls, l.prefixCalls - walks, p.prefixCalls, f.prefixCalls),
            cv::Vec4i(1, 0, 1, 0));
  EXPECT_EQ(f.pullV4Calls + f.pullV2Calls, 0u);
  EXPECT_EQ(gPushes.size(), 1u);
  legacy.close(cam);
}

// SDK failures pass through with nothing written or pushed; a positive
// result is a success.  The frame and the whole record (nothing past it) are
// delivered, the push gets bits / 3 and the pitch; the named pull pushes 8
// bits at pitch 0; push flag 0 pushes nothing.  The spot pull asks the raw
// depth only while it is 0, also when the camera reports 0.
void pullResultsRecordsAndPushes() {
  const SimcamApi sim = loadSim();
  SimcamCamera* cam = sim.open(30, 7);  // 30 * 3 bytes is not a multiple of 4
  freshBuffers(sim.frameBytes(cam, 32, 0));
  uint32_t depth = 0;
  sim.setResult(cam, static_cast<int32_t>(0x80070015u));
  EXPECT_EQ(pullEach(cam, 32, &depth), std::vector<VantixResult>(5, 0x80070015u));
  EXPECT_TRUE(allFill(gBuffer) && allFill(gInfo) && gPushes.empty() && gSpotFrames == 0 &&
              depth == 0);
  sim.setResult(cam, 1);
  EXPECT_EQ(pullEach(cam, 32, &depth), std::vector<VantixResult>(5, 1u));
  EXPECT_EQ(gPushes.size(), 4u);
  EXPECT_EQ(gSpotFrames, 1);
  sim.setResult(cam, 0);
  const struct {
    int32_t bits;
    uint64_t pushed;
    uint32_t pitch;
  } cases[] = {{24, 8, 0}, {32, 10, 0}, {48, 16, 0}, {8, 2, 0}, {24, 8, 100}};
  for (FrameInfoVersion v : kVersions) {
    const size_t size = vantix::frameInfoSize(v);
    for (const auto& c : cases) {
      freshBuffers(sim.frameBytes(cam, c.bits, static_cast<int32_t>(c.pitch)));
      std::vector<uint8_t> expected = gBuffer;
      const uint32_t index = sim.frameIndex(cam);
      sim.render(cam, index, expected.data(), c.bits, static_cast<int32_t>(c.pitch));
      gPushes.clear();
      ASSERT_EQ(pull(v, cam, c.bits, c.pitch), VANTIX_S_OK);
      EXPECT_EQ(gBuffer, expected);
      uint32_t head[3];
      std::memcpy(head, gInfo.data(), sizeof head);
      EXPECT_EQ(cv::Vec3i(head[0], head[1], head[2]), cv::Vec3i(30, 7, index));
      for (size_t i = 12; i < size; ++i)
        EXPECT_EQ(gInfo[i], static_cast<uint8_t>(i * 7 + index)) << i;
      EXPECT_TRUE(allFill(gInfo, size)) << "bytes past the record were written";
      EXPECT_EQ(gPushes, std::vector<Push>{Push(gBuffer.data(), 30, 7, c.pushed, c.pitch)});
    }
  }
  freshBuffers(sim.frameBytes(cam, 48, 0));
  gPushes.clear();
  EXPECT_EQ(pullNamed(cam, 32), VANTIX_S_OK);
  EXPECT_EQ(pull(FrameInfoVersion::V3, cam, 24, 0, 0), VANTIX_S_OK);
  EXPECT_EQ(pullNamed(cam, 8, 0), VANTIX_S_OK);
  EXPECT_EQ(gPushes, std::vector<Push>{Push(gBuffer.data(), 30, 7, 8, 0)});
  EXPECT_EQ(depth, 12u);  // asked by the first successful spot pull above
  const uint32_t asked = statsOf(sim).rawFormatCalls;
  for (int i = 0; i < 3; ++i) pullEach(cam, 16, &depth);
  EXPECT_EQ(statsOf(sim).rawFormatCalls, asked);
  sim.setRawBits(cam, 0);
  depth = 0;
  for (int i = 0; i < 3; ++i) pullEach(cam, 16, &depth);
  EXPECT_EQ(statsOf(sim).rawFormatCalls, asked + 3);
  EXPECT_EQ(depth, 0u);
  sim.close(cam);
}

TEST(CameraSdk, HostScenarios) {
  const std::pair<const char*, void (*)()> scenarios[] = {
      {"first full SDK is bound", firstFullSdkIsBound},
      {"failed searches leave no object loaded", failedSearchesLeaveNoObjectLoaded},
      {"a binding is final", bindingIsFinal},
      {"pull results, records and pushes", pullResultsRecordsAndPushes}};
  for (const auto& [name, body] : scenarios) EXPECT_TRUE(vtest::runInChildProcess(body)) << name;
}

}  // namespace
