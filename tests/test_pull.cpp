// Camera pulls with the simulated SDK: what the stitch and EDF pulls push
// and refuse, and several threads making their first pull at once through
// every pull family (the binding is made without a lock and must end bound).
// Bindings are process-wide: each scenario runs in a child process.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include <vantix.h>

#include "api/camera_sdk.h"
#include "edf/edf_session.h"
#include "livestitch/lvprocessor.h"
#include "support/sessions.h"
#include "support/test_support.h"
#include "testing/scenes.h"
#include "testing/simcam/simcam_loader.h"

namespace {

const bool kSerialOpenCv = (vtest::serialOpenCvUnderTsan(), true);

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }
std::atomic<int> stitchCalls{0};
void onStitchFrame(void*, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                   uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, float) {
  ++stitchCalls;
}
void onEdfFrame(void*, uint32_t, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t) {}

SimcamApi loadSimcam() {
  SimcamApi api{};
  void* handle = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
  EXPECT_TRUE(handle != nullptr && simcam_load_api(handle, &api)) << dlerror();
  return api;
}
size_t queued(VantixStitch* s) { return reinterpret_cast<vantix::CLvProcessor*>(s)->queuedFrames(); }
size_t queued(VantixEdf* s) { return reinterpret_cast<vantix::CEdfSession*>(s)->queuedFrames().size(); }

enum Path { kStitchV2, kStitchV3, kStitchV4, kStitchNamed, kEdfV2, kEdfV3, kEdfV4, kEdfNamed, kSpot };

// The stitch, EDF and spot pulls with one set of arguments, pushing.
struct Pulls {
  VantixStitch* stitch;
  VantixEdf* edf;
  VantixSpot* spot = nullptr;
  std::vector<uint8_t> buffer = std::vector<uint8_t>(96 * 72 * 8, 0xCD);
  FrameInfoV2 info2{};
  FrameInfoV3 info3{};
  FrameInfoV4 info4{};
  uint32_t w = 7, h = 7;
  VantixResult pull(Path path, void* camera, int32_t bits = 24, uint32_t pitch = 0) {
    uint8_t* b = buffer.data();
    const auto named = static_cast<uint32_t>(bits);
    SpotResult out{};
    switch (path) {
      case kStitchV2: return vantix_stitch_pull(stitch, camera, 1, b, bits, pitch, &info2);
      case kStitchV3: return vantix_stitch_pullV3(stitch, camera, 1, b, bits, pitch, &info3);
      case kStitchV4: return vantix_stitch_pullV4(stitch, camera, 1, b, bits, pitch, &info4);
      case kStitchNamed: return vantix_stitch_pullnam(stitch, camera, 1, b, named, &w, &h);
      case kEdfV2: return vantix_edf_pull(edf, camera, 1, b, bits, pitch, &info2);
      case kEdfV3: return vantix_edf_pullV3(edf, camera, 1, b, bits, pitch, &info3);
      case kEdfV4: return vantix_edf_pullV4(edf, camera, 1, b, bits, pitch, &info4);
      case kEdfNamed: return vantix_edf_pullnam(edf, camera, 1, b, named, &w, &h);
      case kSpot: return vantix_spot_pull(spot, camera, 1, b, 16, 0, &info2, &out);
    }
    return VANTIX_E_FAIL;
  }
  std::vector<VantixResult> all(void* camera, int32_t bits, uint32_t pitch) {
    std::vector<VantixResult> results;
    for (int p = kStitchV2; p <= kEdfNamed; ++p) results.push_back(pull(Path(p), camera, bits, pitch));
    return results;
  }
  bool untouched() {
    return info2.width == 0 && info3.width == 0 && info4.width == 0 && w == 7 && h == 7 &&
           buffer[0] == 0xCD && queued(stitch) == 0 && queued(edf) == 0;
  }
};

TEST(Pull, StitchAndEdfPullsPushWhatTheCameraGaveAndNothingOnFailure) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    vantix_init(&hostAlloc);
    vtest::Host host;
    Pulls pulls{vantix_stitch_new(0, 64, 48, 0, &onStitchFrame, nullptr, nullptr), host.makeEdf(0)};
    vantix_edf_start(pulls.edf);
    host.gate(true);
    EXPECT_EQ(pulls.all(reinterpret_cast<void*>(0xca), 24, 0),
              std::vector<VantixResult>(8, VANTIX_E_NOTIMPL));  // no SDK loaded
    EXPECT_EQ(vantix_stitch_pull(nullptr, nullptr, 0, pulls.buffer.data(), 24, 0, nullptr),
              VANTIX_E_NOTIMPL);
    EXPECT_TRUE(pulls.untouched());

    const SimcamApi sim = loadSimcam();
    ASSERT_NE(sim.open, nullptr);
    SimcamCamera* camera = sim.open(64, 48);
    const cv::Mat sharp = vtest::texturedScene({64, 48}, 3);
    ASSERT_EQ(sim.setFocusSweep(camera, sharp.data, 64, 48, static_cast<uint32_t>(sharp.step[0]), 4, 3.0),
              SIMCAM_S_OK);
    // A null camera, a bit count or a pitch the SDK refuses: its result, and
    // nothing written or pushed (pullnam takes no pitch).
    const auto pointer = static_cast<VantixResult>(SIMCAM_E_POINTER);
    const auto invalid = static_cast<VantixResult>(SIMCAM_E_INVALIDARG);
    EXPECT_EQ(pulls.all(nullptr, 24, 0), std::vector<VantixResult>(8, pointer));
    EXPECT_EQ(pulls.all(camera, 17, 0), std::vector<VantixResult>(8, invalid));
    EXPECT_EQ(pulls.all(camera, 24, 10),
              (std::vector<VantixResult>{invalid, invalid, invalid, 0, invalid, invalid, invalid, 0}));
    EXPECT_EQ(pulls.info2.width + pulls.info3.width + pulls.info4.width, 0u);
    // The EDF pullnam of that round pushed a frame: the worker is now held
    // in its callback, so what is pushed next stays queued.  Not running,
    // the stitch session dropped its frame; the named pull without size
    // pointers pushes nothing; push 0 only fills the buffer (and may go
    // without a session).
    host.waitFrames(1);
    EXPECT_EQ(vantix_edf_pullnam(pulls.edf, camera, 1, pulls.buffer.data(), 24, nullptr, nullptr), 0u);
    EXPECT_EQ(vantix_edf_pull(pulls.edf, camera, 0, pulls.buffer.data(), 24, 0, nullptr), 0u);
    EXPECT_EQ(vantix_edf_pull(nullptr, camera, 0, pulls.buffer.data(), 24, 0, &pulls.info2), 0u);
    EXPECT_EQ(pulls.info2.width, 64u);
    EXPECT_EQ(queued(pulls.stitch) + queued(pulls.edf), 0u);
    EXPECT_EQ(vantix_edf_pull(pulls.edf, camera, 1, pulls.buffer.data(), 24, 0, nullptr), 0u);
    EXPECT_EQ(queued(pulls.edf), 1u);
    host.gate(false);
    vantix_edf_stop(pulls.edf);

    // Each variant pushes the frame as the camera rendered it.
    const uint32_t pitch = sim.defaultPitch(64, 24);
    std::vector<uint8_t> rendered(pitch * 48);
    for (int variant = 0; variant < 4; ++variant) {
      vtest::Host fresh;
      Pulls one{nullptr, fresh.makeEdf(0)};
      vantix_edf_start(one.edf);
      const uint32_t index = sim.frameIndex(camera);
      const VantixResult r = one.pull(Path(kEdfV2 + variant), camera);
      ASSERT_EQ(r, 0u) << variant;
      fresh.waitFrames(1);
      ASSERT_EQ(sim.render(camera, index, rendered.data(), 24, 0), SIMCAM_S_OK);
      EXPECT_EQ(cv::norm(fresh.last, cv::Mat(48, 64, CV_8UC3, rendered.data(), pitch), cv::NORM_INF), 0.0)
          << variant;
      vantix_edf_delete(one.edf);
    }
    vantix_edf_delete(pulls.edf);
    vantix_stitch_delete(pulls.stitch);
    EXPECT_EQ(stitchCalls.load(), 0);
    sim.close(camera);
  }));
}

// In a child: four threads, each with a camera and a spot session of its
// own, make their first pull at the same moment (thread i through
// paths[i]).  All succeed, each searched at most once, the process ends
// bound, and later pulls never search again.
void firstPullsAtOnce(const std::vector<Path>& paths) {
  constexpr int kThreads = 4;
  vantix_init(&hostAlloc);
  const SimcamApi sim = loadSimcam();
  ASSERT_NE(sim.open, nullptr);
  VantixStitch* stitch = vantix_stitch_new(0, 96, 72, 2, &onStitchFrame, nullptr, nullptr);
  VantixEdf* edf = vantix_edf_new(0, &onEdfFrame, nullptr, nullptr);
  vantix_stitch_start(stitch);
  vantix_edf_start(edf);
  std::array<SimcamCamera*, kThreads> cameras{};
  std::vector<Pulls> pulls(kThreads, Pulls{stitch, edf});
  for (int i = 0; i < kThreads; ++i) {
    cameras[i] = sim.open(96, 72);
    pulls[i].spot = vantix_spot_new(1, 0);
  }
  std::atomic<int> failed{0};
  const auto round = [&](int count) {
    vtest::Latch go;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        go.wait();
        for (int k = 0; k < count; ++k) {
          failed += pulls[i].pull(paths[i], cameras[i]) != 0;
        }
      });
    }
    go.open();
    for (std::thread& t : threads) t.join();
  };
  const auto pullCount = [&](SimcamStats& s) {
    sim.getStats(&s);
    return s.pullV2Calls + s.pullV3Calls + s.pullV4Calls + s.namedPullCalls;
  };
  round(1);
  SimcamStats first{}, later{};
  const uint32_t firstPulls = pullCount(first);
  EXPECT_EQ(failed.load(), 0);
  EXPECT_GE(first.prefixCalls, 1u);
  EXPECT_LE(first.prefixCalls, static_cast<uint32_t>(kThreads));
  const vantix::SdkBindingView bound = vantix::sdkBindings();
  const auto named = [](Path p) { return p == kStitchNamed || p == kEdfNamed; };
  if (!std::all_of(paths.begin(), paths.end(), named)) {
    EXPECT_EQ(bound.pullV2Fn, sim.pullV2);
    EXPECT_EQ(bound.pullV3Fn, sim.pullV3);
    EXPECT_EQ(bound.pullV4Fn, sim.pullV4);
    EXPECT_EQ(bound.rawFormatFn, sim.getRawFormat);
  }
  if (std::any_of(paths.begin(), paths.end(), named)) {
    EXPECT_EQ(bound.namedPullFn, sim.pullNamed);
  }
  round(5);
  EXPECT_EQ(failed.load(), 0);
  EXPECT_EQ(pullCount(later) - firstPulls, static_cast<uint32_t>(kThreads * 5));
  EXPECT_EQ(later.prefixCalls, first.prefixCalls);
  vantix_stitch_delete(stitch);
  vantix_edf_delete(edf);
  for (int i = 0; i < kThreads; ++i) {
    vantix_spot_delete(pulls[i].spot);
    sim.close(cameras[i]);
  }
}

// The pulls of the camera binding, the named pull's binding, and both.
TEST(Pull, FirstPullsAtOnceEndBound) {
  const std::vector<std::vector<Path>> cases = {{kStitchV2, kEdfV3, kStitchV4, kSpot},
                                                {kStitchNamed, kEdfNamed, kEdfNamed, kStitchNamed},
                                                {kStitchV3, kEdfNamed, kSpot, kEdfV4}};
  for (const auto& paths : cases) {
#if defined(VTEST_TSAN)
    if (&paths != &cases.back()) continue;  // a child is slow to start there: both bindings at once
#endif
    for (int attempt = 0; attempt < vtest::scaled(4); ++attempt) {
      EXPECT_TRUE(vtest::runInChildProcess([&] { firstPullsAtOnce(paths); }))
          << "paths from " << paths[0] << ", attempt " << attempt;
    }
  }
}

}  // namespace
