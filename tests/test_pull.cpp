// Camera pulls with the simulated SDK: what the stitch and EDF pulls push
// and refuse, several threads making their first pull at once through every
// pull family (the binding is made without a lock and must end bound), and a
// spot session whose ROI and aperture another thread changes during pulls.
// Bindings are process-wide: each scenario runs in a child process.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <vantix.h>

#include "api/camera_sdk.h"
#include "edf/edf_session.h"
#include "livestitch/lvprocessor.h"
#include "support/edf_session.h"
#include "support/stress.h"
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

// The eight stitch and EDF pulls with one set of arguments, pushing.
struct Pulls {
  VantixStitch* stitch;
  VantixEdf* edf;
  std::vector<uint8_t> buffer = std::vector<uint8_t>(64 * 48 * 8, 0xCD);
  FrameInfoV2 info2{};
  FrameInfoV3 info3{};
  FrameInfoV4 info4{};
  uint32_t w = 7, h = 7;
  std::vector<VantixResult> all(void* camera, int32_t bits, uint32_t pitch) {
    uint8_t* b = buffer.data();
    return {vantix_stitch_pull(stitch, camera, 1, b, bits, pitch, &info2),
            vantix_stitch_pullV3(stitch, camera, 1, b, bits, pitch, &info3),
            vantix_stitch_pullV4(stitch, camera, 1, b, bits, pitch, &info4),
            vantix_stitch_pullnam(stitch, camera, 1, b, static_cast<uint32_t>(bits), &w, &h),
            vantix_edf_pull(edf, camera, 1, b, bits, pitch, &info2),
            vantix_edf_pullV3(edf, camera, 1, b, bits, pitch, &info3),
            vantix_edf_pullV4(edf, camera, 1, b, bits, pitch, &info4),
            vantix_edf_pullnam(edf, camera, 1, b, static_cast<uint32_t>(bits), &w, &h)};
  }
  bool untouched() {
    return info2.width == 0 && info3.width == 0 && info4.width == 0 && w == 7 && h == 7 &&
           buffer[0] == 0xCD && queued(stitch) == 0 && queued(edf) == 0;
  }
};

TEST(Pull, StitchAndEdfPullsPushWhatTheCameraGaveAndNothingOnFailure) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    vantix_init(&hostAlloc);
    vtest::EdfHost host;
    Pulls pulls{vantix_stitch_new(0, 64, 48, 0, &onStitchFrame, nullptr, nullptr), host.make(0)};
    vantix_edf_start(pulls.edf);
    host.hold(true);
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
    host.hold(false);
    vantix_edf_stop(pulls.edf);

    // Each variant pushes the frame as the camera rendered it.
    const uint32_t pitch = sim.defaultPitch(64, 24);
    std::vector<uint8_t> rendered(pitch * 48);
    for (int variant = 0; variant < 4; ++variant) {
      vtest::EdfHost fresh;
      VantixEdf* edf = fresh.make(0);
      vantix_edf_start(edf);
      const uint32_t index = sim.frameIndex(camera);
      uint32_t w = 0, h = 0;
      const VantixResult r =
          variant == 0 ? vantix_edf_pull(edf, camera, 1, pulls.buffer.data(), 24, 0, &pulls.info2)
          : variant == 1 ? vantix_edf_pullV3(edf, camera, 1, pulls.buffer.data(), 24, 0, &pulls.info3)
          : variant == 2 ? vantix_edf_pullV4(edf, camera, 1, pulls.buffer.data(), 24, 0, &pulls.info4)
                         : vantix_edf_pullnam(edf, camera, 1, pulls.buffer.data(), 24, &w, &h);
      ASSERT_EQ(r, 0u) << variant;
      fresh.waitFrames(1);
      ASSERT_EQ(sim.render(camera, index, rendered.data(), 24, 0), SIMCAM_S_OK);
      EXPECT_EQ(cv::norm(fresh.last, cv::Mat(48, 64, CV_8UC3, rendered.data(), pitch), cv::NORM_INF), 0.0)
          << variant;
      vantix_edf_delete(edf);
    }
    vantix_edf_delete(pulls.edf);
    vantix_stitch_delete(pulls.stitch);
    EXPECT_EQ(stitchCalls.load(), 0);
    sim.close(camera);
  }));
}

enum Path { kStitchV2, kStitchV3, kStitchV4, kStitchNamed, kEdfV2, kEdfV3, kEdfV4, kEdfNamed, kSpot };

VantixResult pullOnce(Path path, VantixStitch* stitch, VantixEdf* edf, VantixSpot* spot,
                      void* camera, std::vector<uint8_t>& buffer) {
  FrameInfoV2 v2{};
  uint32_t w = 0, h = 0;
  SpotResult out{};
  uint8_t* b = buffer.data();
  switch (path) {
    case kStitchV2: return vantix_stitch_pull(stitch, camera, 1, b, 24, 0, &v2);
    case kStitchV3: return vantix_stitch_pullV3(stitch, camera, 1, b, 24, 0, nullptr);
    case kStitchV4: return vantix_stitch_pullV4(stitch, camera, 1, b, 24, 0, nullptr);
    case kStitchNamed: return vantix_stitch_pullnam(stitch, camera, 1, b, 24, &w, &h);
    case kEdfV2: return vantix_edf_pull(edf, camera, 1, b, 24, 0, &v2);
    case kEdfV3: return vantix_edf_pullV3(edf, camera, 1, b, 24, 0, nullptr);
    case kEdfV4: return vantix_edf_pullV4(edf, camera, 1, b, 24, 0, nullptr);
    case kEdfNamed: return vantix_edf_pullnam(edf, camera, 1, b, 24, &w, &h);
    case kSpot: return vantix_spot_pull(spot, camera, 1, b, 16, 0, &v2, &out);
  }
  return VANTIX_E_FAIL;
}

// In a child: four threads, each with a camera and a spot session of its
// own, make their first pull at the same moment (thread i through
// paths[i % size]).  All succeed, each searched at most once, the process
// ends bound, and later pulls never search again.
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
  std::array<VantixSpot*, kThreads> spots{};
  std::array<std::vector<uint8_t>, kThreads> buffers;
  for (int i = 0; i < kThreads; ++i) {
    cameras[i] = sim.open(96, 72);
    spots[i] = vantix_spot_new(1, 0);
    buffers[i].resize(sim.frameBytes(cameras[i], 24, 0));
  }
  std::atomic<int> failed{0};
  const auto round = [&](int pulls) {
    vtest::StartLine line(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        line.arriveAndWait();
        for (int k = 0; k < pulls; ++k) {
          failed += pullOnce(paths[i % paths.size()], stitch, edf, spots[i], cameras[i], buffers[i]) != 0;
        }
      });
    }
    for (std::thread& t : threads) t.join();
  };
  const auto stats = [&] {
    SimcamStats s{};
    sim.getStats(&s);
    return s;
  };
  round(1);
  const SimcamStats first = stats();
  EXPECT_EQ(failed.load(), 0);
  EXPECT_GE(first.prefixCalls, 1u);
  EXPECT_LE(first.prefixCalls, static_cast<uint32_t>(kThreads));
  const vantix::SdkBindingView bound = vantix::sdkBindings();
  if (!std::all_of(paths.begin(), paths.end(), [](Path p) { return p == kStitchNamed || p == kEdfNamed; })) {
    EXPECT_EQ(bound.pullV2Fn, sim.pullV2);
    EXPECT_EQ(bound.pullV3Fn, sim.pullV3);
    EXPECT_EQ(bound.pullV4Fn, sim.pullV4);
    EXPECT_EQ(bound.rawFormatFn, sim.getRawFormat);
  }
  if (std::any_of(paths.begin(), paths.end(), [](Path p) { return p == kStitchNamed || p == kEdfNamed; })) {
    EXPECT_EQ(bound.namedPullFn, sim.pullNamed);
  }
  round(5);
  const SimcamStats later = stats();
  EXPECT_EQ(failed.load(), 0);
  EXPECT_EQ(later.prefixCalls, first.prefixCalls);
  EXPECT_EQ(later.pullV2Calls + later.pullV3Calls + later.pullV4Calls + later.namedPullCalls -
                (first.pullV2Calls + first.pullV3Calls + first.pullV4Calls + first.namedPullCalls),
            static_cast<uint32_t>(kThreads * 5));
  vantix_stitch_delete(stitch);
  vantix_edf_delete(edf);
  for (int i = 0; i < kThreads; ++i) {
    vantix_spot_delete(spots[i]);
    sim.close(cameras[i]);
  }
}

TEST(Pull, FirstPullsAtOnceEndBound) {
  const std::vector<std::vector<Path>> cases = {
      {kStitchV2}, {kStitchV3}, {kStitchV4}, {kStitchNamed}, {kEdfV2}, {kEdfV3},
      {kEdfV4},    {kEdfNamed}, {kSpot},     {kStitchV3, kEdfNamed, kSpot, kEdfV4}};
  for (const auto& paths : cases) {
#if defined(VTEST_TSAN)
    if (paths.size() == 1) continue;  // a child is slow to start there: the mixed case only
#endif
    for (int attempt = 0; attempt < vtest::scaled(4); ++attempt) {
      EXPECT_TRUE(vtest::runInChildProcess([&] { firstPullsAtOnce(paths); }))
          << "path " << paths[0] << " of " << paths.size() << ", attempt " << attempt;
    }
  }
}

// Spot: a control thread changes the ROI (inside, across the border, wholly
// outside, negative read as signed, whole frame), sets fixed and ignored
// apertures and resets, while this thread pulls and measures.  Stages hand
// over between the two, so every phase happens whatever the speed of either
// thread: stage 3r the control thread changes things until the puller has
// pulled 6 frames and seen 6 changes; 3r + 1 it resets and sets the whole
// frame; 3r + 2 the puller measures a block there and finds every beam.
constexpr uint32_t kSpotW = 160, kSpotH = 120;

void controlLoop(VantixSpot* spot, const std::atomic<bool>& done, std::atomic<int>& stage,
                 std::atomic<int>& changes) {
  uint32_t seed = 12345;
  const auto next = [&seed](uint32_t range) {
    seed = seed * 1664525u + 1013904223u;
    return (seed >> 8) % range;
  };
  while (!done.load()) {
    const int now = stage.load();
    if (now % 3 == 1) {
      vantix_spot_reset(spot);
      vantix_spot_setRoi(spot, 0, 0, 0, 0);
      stage.store(now + 1);
    } else if (now % 3 == 0) {
      switch (next(6)) {
        case 0: vantix_spot_setRoi(spot, next(120), next(90), 20 + next(140), 20 + next(100)); break;
        case 1: vantix_spot_setRoi(spot, 0, 0, 0, 0); break;
        case 2: vantix_spot_setRoi(spot, 0xFFFFFFF0u - next(50), next(60), 80, 200); break;
        case 3: vantix_spot_setRoi(spot, 500, 500, 40, 40); break;
        case 4:
          vantix_spot_setAperture(spot, SpotAperture{double(next(kSpotW)), double(next(kSpotH)),
                                                     double(next(60)) - 5, double(next(40)) + 1});
          break;
        default: vantix_spot_reset(spot);
      }
      ++changes;
    }
    std::this_thread::yield();
  }
}

void spotUnderControl(uint32_t spotCount, uint32_t averageCount) {
  const SimcamApi sim = loadSimcam();
  SimcamCamera* camera = sim.open(kSpotW, kSpotH);
  std::vector<SimcamSpot> beams(spotCount == 1 ? 1 : 3);
  for (size_t k = 0; k < beams.size(); ++k) {
    beams[k] = SimcamSpot{};
    beams[k].centerX = 30.0 + 50.0 * k;
    beams[k].centerY = 60.0 - 10.0 * k;
    beams[k].sigmaX = 5 + k;
    beams[k].sigmaY = 3.5;
    beams[k].angle = 20.0 * k;
    beams[k].peak = 0.8;
    beams[k].orbitRadius = 6;
    beams[k].orbitPeriod = 23;
    beams[k].breathAmplitude = 0.2;
    beams[k].breathPeriod = 31;
  }
  ASSERT_EQ(sim.setSpots(camera, beams.data(), uint32_t(beams.size()), 0.02, 0.005, 7), SIMCAM_S_OK);
  VantixSpot* spot = vantix_spot_new(spotCount, averageCount);
  std::vector<uint8_t> buffer(sim.frameBytes(camera, 16, 0));
  std::vector<SpotResult> out(spotCount);
  std::atomic<bool> done{false};
  std::atomic<int> stage{0}, changes{0};
  std::thread control(controlLoop, spot, std::cref(done), std::ref(stage), std::ref(changes));
  // Any record of a measured frame: finite, and when a spot was found its
  // centre lies in the frame and its shape values in their ranges.
  const auto pull = [&](uint32_t bits, int frame) {
    ASSERT_EQ(vantix_spot_pull(spot, camera, 1, buffer.data(), bits, 0, nullptr, out.data()), 0u);
    for (const SpotResult& r : out) {
      const double* f = &r.total;
      ASSERT_TRUE(std::all_of(f, f + 11, [](double v) { return std::isfinite(v); })) << frame;
      if (r.total == 0) continue;
      EXPECT_TRUE(r.centerX >= 0 && r.centerX <= kSpotW - 1 && r.centerY >= 0 &&
                  r.centerY <= kSpotH - 1 && r.majorDiameter >= 0 && r.minorDiameter >= 0 &&
                  r.ellipticity >= 0 && r.ellipticity <= 1 && r.angle > -90 && r.angle <= 90)
          << "frame " << frame;
    }
  };
  int frame = 0;
  for (int round = 0; round < vtest::scaled(40) && !::testing::Test::HasFatalFailure(); ++round) {
    const int changesBefore = changes.load();
    for (int pulls = 0; pulls < 6 || changes.load() - changesBefore < 6; ++pulls, ++frame) {
      pull(frame % 3 == 0 ? 8 : 16, frame);
      if (::testing::Test::HasFatalFailure()) break;
    }
    stage.store(3 * round + 1);
    while (stage.load() != 3 * round + 2) std::this_thread::yield();
    for (uint32_t n = 0; n < std::max(1u, averageCount); ++n, ++frame) {
      std::fill(out.begin(), out.end(), SpotResult{});
      pull(16, frame);
    }
    for (uint32_t k = 0; k < spotCount; ++k) EXPECT_GT(out[k].total, 0) << round << " spot " << k;
    stage.store(3 * round + 3);
  }
  done = true;
  control.join();

  // Afterwards a reset and the whole frame measure as a new session does.
  vantix_spot_reset(spot);
  vantix_spot_setRoi(spot, 0, 0, 0, 0);
  VantixSpot* fresh = vantix_spot_new(spotCount, averageCount);
  std::vector<SpotResult> a(spotCount), b(spotCount);
  const uint32_t index = sim.frameIndex(camera);
  for (uint32_t n = 0; n < std::max(3u, averageCount); ++n) {
    sim.setFrameIndex(camera, index + n);
    ASSERT_EQ(vantix_spot_pull(spot, camera, 1, buffer.data(), 16, 0, nullptr, a.data()), 0u);
    sim.setFrameIndex(camera, index + n);
    ASSERT_EQ(vantix_spot_pull(fresh, camera, 1, buffer.data(), 16, 0, nullptr, b.data()), 0u);
  }
  EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(SpotResult)), 0);
  vantix_spot_delete(fresh);
  vantix_spot_delete(spot);
  sim.close(camera);
}

TEST(Pull, SpotSettersFromAnotherThreadDuringPulls) {
  for (const auto& counts : {std::array<uint32_t, 2>{1, 0}, std::array<uint32_t, 2>{1, 3},
                             std::array<uint32_t, 2>{3, 0}, std::array<uint32_t, 2>{3, 2}}) {
    EXPECT_TRUE(vtest::runInChildProcess([counts] { spotUnderControl(counts[0], counts[1]); }))
        << "spotCount " << counts[0] << ", averageCount " << counts[1];
  }
}

}  // namespace
