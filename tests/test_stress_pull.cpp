// Stress of the camera pulls with the simulated SDK loaded: several threads
// pulling for the first time at once through every pull family (the binding
// is made without a lock and must end bound), and a spot session whose ROI
// and aperture another thread changes while frames are pulled and measured.
// Bindings are process-wide, so each scenario runs in a child process of its
// own; a watchdog in the child turns a hang into a failure.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <vantix.h>

#include "api/camera_sdk.h"
#include "support/stress.h"
#include "support/test_support.h"
#include "tools/simcam/simcam_loader.h"

namespace {

using namespace std::chrono_literals;

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }
void onStitchFrame(void*, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                   uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, float) {}
void onEdfFrame(void*, uint32_t, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t) {}

SimcamApi loadSimcam() {
  SimcamApi api{};
  void* handle = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(handle, nullptr) << dlerror();
  EXPECT_TRUE(handle != nullptr && simcam_load_api(handle, &api));
  return api;
}
SimcamStats statsOf(const SimcamApi& sim) {
  SimcamStats s{};
  sim.getStats(&s);
  return s;
}

enum class Path { StitchV2, StitchV3, StitchV4, StitchNamed, EdfV2, EdfV3, EdfV4, EdfNamed, Spot };
const char* name(Path p) {
  static const char* names[] = {"stitch V2", "stitch V3", "stitch V4", "stitch named", "EDF V2",
                                "EDF V3",    "EDF V4",    "EDF named",  "spot"};
  return names[static_cast<int>(p)];
}
bool isNamed(Path p) { return p == Path::StitchNamed || p == Path::EdfNamed; }

struct Sessions {
  VantixStitch* stitch;
  VantixEdf* edf;
};

// One pull through `path`, pushing into the running sessions; the frame size
// the pull reported goes to width / height.
VantixResult pullOnce(Path path, const Sessions& s, VantixSpot* spot, void* camera,
                      std::vector<uint8_t>& buffer, uint32_t& width, uint32_t& height) {
  FrameInfoV2 v2{};
  FrameInfoV3 v3{};
  FrameInfoV4 v4{};
  VantixResult r = VANTIX_E_FAIL;
  uint8_t* b = buffer.data();
  switch (path) {
    case Path::StitchV2: r = vantix_stitch_pull(s.stitch, camera, 1, b, 24, 0, &v2); break;
    case Path::StitchV3: r = vantix_stitch_pullV3(s.stitch, camera, 1, b, 24, 0, &v3); break;
    case Path::StitchV4: r = vantix_stitch_pullV4(s.stitch, camera, 1, b, 24, 0, &v4); break;
    case Path::EdfV2: r = vantix_edf_pull(s.edf, camera, 1, b, 24, 0, &v2); break;
    case Path::EdfV3: r = vantix_edf_pullV3(s.edf, camera, 1, b, 24, 0, &v3); break;
    case Path::EdfV4: r = vantix_edf_pullV4(s.edf, camera, 1, b, 24, 0, &v4); break;
    case Path::StitchNamed:
      return vantix_stitch_pullnam(s.stitch, camera, 1, b, 24, &width, &height);
    case Path::EdfNamed: return vantix_edf_pullnam(s.edf, camera, 1, b, 24, &width, &height);
    case Path::Spot: {
      SpotResult out{};
      r = vantix_spot_pull(spot, camera, 1, b, 16, 0, &v2, &out);
      break;
    }
  }
  width = v2.width + v3.width + v4.width;
  height = v2.height + v3.height + v4.height;
  return r;
}

// Runs in a child: kThreads threads, each with a camera (and a spot session)
// of its own, make their first pull at the same moment through `paths`
// (thread i takes paths[i % size]).  All succeed, the process ends bound,
// and later pulls go straight to the SDK without searching again.
void firstPullsAtOnce(const std::vector<Path>& paths) {
  vtest::Watchdog watchdog(120s, "concurrent first pulls");
  constexpr int kThreads = 4;
  constexpr uint32_t kW = 96, kH = 72;
  vantix_init(&hostAlloc);
  const SimcamApi sim = loadSimcam();
  ASSERT_NE(sim.open, nullptr);
  Sessions s{vantix_stitch_new(0, kW, kH, 2, &onStitchFrame, nullptr, nullptr),
             vantix_edf_new(0, &onEdfFrame, nullptr, nullptr)};
  ASSERT_NE(s.stitch, nullptr);
  vantix_stitch_start(s.stitch);
  vantix_edf_start(s.edf);
  std::array<SimcamCamera*, kThreads> cameras{};
  std::array<VantixSpot*, kThreads> spots{};
  std::array<std::vector<uint8_t>, kThreads> buffers;
  for (int i = 0; i < kThreads; ++i) {
    cameras[i] = sim.open(kW, kH);
    spots[i] = vantix_spot_new(1, 0);
    buffers[i].resize(sim.frameBytes(cameras[i], 24, 0));
  }
  std::array<VantixResult, kThreads> first{}, later{};
  std::array<uint32_t, kThreads> widths{}, heights{};
  const auto round = [&](std::array<VantixResult, kThreads>& results, int pulls) {
    vtest::StartLine line(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        line.arriveAndWait();
        results[i] = VANTIX_S_OK;
        for (int k = 0; k < pulls; ++k) {
          const VantixResult r = pullOnce(paths[i % paths.size()], s, spots[i], cameras[i],
                                          buffers[i], widths[i], heights[i]);
          if (r != VANTIX_S_OK) results[i] = r;
        }
      });
    }
    for (std::thread& t : threads) t.join();
  };
  round(first, 1);
  const SimcamStats afterFirst = statsOf(sim);
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(first[i], VANTIX_S_OK) << name(paths[i % paths.size()]) << " thread " << i;
    EXPECT_EQ(widths[i], kW);
    EXPECT_EQ(heights[i], kH);
  }
  // Each thread searched at most once (several may have searched at once).
  EXPECT_GE(afterFirst.prefixCalls, 1u);
  EXPECT_LE(afterFirst.prefixCalls, static_cast<uint32_t>(kThreads));

  const vantix::SdkBindingView bound = vantix::sdkBindings();
  const bool anyNamed = std::any_of(paths.begin(), paths.end(), isNamed);
  const bool anyFramed = !std::all_of(paths.begin(), paths.end(), isNamed);
  if (anyFramed) {
    EXPECT_NE(bound.sdkHandle, nullptr);
    EXPECT_EQ(bound.pullV2Fn, sim.pullV2);
    EXPECT_EQ(bound.pullV3Fn, sim.pullV3);
    EXPECT_EQ(bound.pullV4Fn, sim.pullV4);
    EXPECT_EQ(bound.rawFormatFn, sim.getRawFormat);
  }
  if (anyNamed) {
    EXPECT_NE(bound.namedHandle, nullptr);
    EXPECT_EQ(bound.namedPullFn, sim.pullNamed);
  }

  // Bound: more pulls from all threads at once never search again.
  constexpr int kLater = 5;
  round(later, kLater);
  const SimcamStats afterLater = statsOf(sim);
  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(later[i], VANTIX_S_OK) << "thread " << i;
  EXPECT_EQ(afterLater.prefixCalls, afterFirst.prefixCalls);
  const auto pulls = [](const SimcamStats& st) {
    return st.pullV2Calls + st.pullV3Calls + st.pullV4Calls + st.namedPullCalls;
  };
  EXPECT_EQ(pulls(afterLater) - pulls(afterFirst), static_cast<uint32_t>(kThreads * kLater));

  vantix_stitch_stop(s.stitch, 0, 0);
  vantix_stitch_delete(s.stitch);
  vantix_edf_delete(s.edf);
  for (int i = 0; i < kThreads; ++i) {
    vantix_spot_delete(spots[i]);
    sim.close(cameras[i]);
  }
}

class StressPull : public ::testing::Test {
 public:
  static void SetUpTestSuite() { vtest::serialOpenCvUnderTsan(); }
};

TEST_F(StressPull, FirstPullsAtOnceEndBoundOnEveryPath) {
  // Each attempt is a fresh process (a fork is slow under ThreadSanitizer).
  const int attempts = vtest::scaled(4);
  for (Path path : {Path::StitchV2, Path::StitchV3, Path::StitchV4, Path::StitchNamed, Path::EdfV2,
                    Path::EdfV3, Path::EdfV4, Path::EdfNamed, Path::Spot}) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
      EXPECT_TRUE(vtest::runInChildProcess([path] { firstPullsAtOnce({path}); }))
          << name(path) << ", attempt " << attempt;
    }
  }
}

// Both bindings at once: frame pulls of all three families and the named
// pull race for their first search together.
TEST_F(StressPull, FirstPullsOfDifferentFamiliesAtOnce) {
  for (int attempt = 0; attempt < vtest::scaled(8); ++attempt) {
    EXPECT_TRUE(vtest::runInChildProcess([] {
      firstPullsAtOnce({Path::StitchV3, Path::EdfNamed, Path::Spot, Path::EdfV4});
    })) << "attempt " << attempt;
  }
}

// ---------------------------------------------------------------------------
// Spot: ROI, aperture and reset from another thread while a thread pulls.
// ---------------------------------------------------------------------------

constexpr uint32_t kSpotW = 160, kSpotH = 120;

// What any record of a measured frame must satisfy, whatever ROI or aperture
// it was measured with.
void expectValidRecord(const SpotResult& r, int frame, int spot) {
  const double* f = &r.total;
  for (int k = 0; k < 11; ++k) {
    ASSERT_TRUE(std::isfinite(f[k])) << "frame " << frame << " spot " << spot << " field " << k + 1;
  }
  if (r.total == 0) return;
  EXPECT_GT(r.total, 0) << frame;
  EXPECT_GE(r.centerX, 0) << frame;
  EXPECT_LE(r.centerX, kSpotW - 1) << frame;
  EXPECT_GE(r.centerY, 0) << frame;
  EXPECT_LE(r.centerY, kSpotH - 1) << frame;
  EXPECT_GE(r.majorDiameter, 0) << frame;
  EXPECT_GE(r.minorDiameter, 0) << frame;
  EXPECT_GE(r.ellipticity, 0) << frame;
  EXPECT_LE(r.ellipticity, 1) << frame;
  EXPECT_GT(r.angle, -90) << frame;
  EXPECT_LE(r.angle, 90) << frame;
}

// The host's control thread and the puller hand off through `stage`, so
// that each phase happens, and is counted, whatever the speed of either
// thread.  Round r has three stages:
//   3r      the control thread changes ROIs (inside, across the border,
//           wholly outside, negative read as signed, whole frame), fixed
//           apertures, ignored ones (a semi-axis not above 0) and resets,
//           while the puller pulls; the puller ends the stage once it has
//           pulled kMinPulls frames and seen kMinChanges changes in it;
//   3r + 1  the control thread resets the session and sets the whole frame;
//   3r + 2  the puller measures a block there, untouched: the beams are found.
constexpr int kMinPulls = 6;
constexpr int kMinChanges = 6;

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
        case 4: {
          const double a = static_cast<double>(next(60)) - 5, b = static_cast<double>(next(40)) + 1;
          vantix_spot_setAperture(spot, SpotAperture{static_cast<double>(next(kSpotW)),
                                                     static_cast<double>(next(kSpotH)), a, b});
          break;
        }
        default: vantix_spot_reset(spot);
      }
      ++changes;
    }
    std::this_thread::yield();
  }
}

void spotUnderControl(uint32_t spotCount, uint32_t averageCount) {
  vtest::Watchdog watchdog(300s, "spot pulls under control");
  const SimcamApi sim = loadSimcam();
  SimcamCamera* camera = sim.open(kSpotW, kSpotH);
  std::vector<SimcamSpot> beams(spotCount == 1 ? 1 : 3);
  for (size_t k = 0; k < beams.size(); ++k) {
    SimcamSpot& b = beams[k];
    b.centerX = 30.0 + 50.0 * static_cast<double>(k);
    b.centerY = 60.0 - 10.0 * static_cast<double>(k);
    b.sigmaX = 5 + k;
    b.sigmaY = 3.5;
    b.angle = 20.0 * static_cast<double>(k);
    b.peak = 0.8;
    b.orbitRadius = 6;
    b.orbitPeriod = 23;
    b.breathAmplitude = 0.2;
    b.breathPeriod = 31;
  }
  ASSERT_EQ(sim.setSpots(camera, beams.data(), static_cast<uint32_t>(beams.size()), 0.02, 0.005, 7),
            SIMCAM_S_OK);
  VantixSpot* spot = vantix_spot_new(spotCount, averageCount);
  std::vector<uint8_t> buffer(sim.frameBytes(camera, 16, 0));
  std::vector<SpotResult> out(spotCount);
  std::atomic<bool> done{false};
  std::atomic<int> stage{0}, changes{0};
  std::thread control(controlLoop, spot, std::cref(done), std::ref(stage), std::ref(changes));
  const auto pull = [&](uint32_t bits, int frame) {
    FrameInfoV2 info{};
    ASSERT_EQ(vantix_spot_pull(spot, camera, 1, buffer.data(), bits, 0, &info, out.data()), 0u);
    ASSERT_EQ(info.width, kSpotW);
    double lastX = -1;
    for (uint32_t k = 0; k < spotCount; ++k) {
      expectValidRecord(out[k], frame, static_cast<int>(k));
      // Block averages of records in slots need not keep the order.
      if (out[k].total != 0 && spotCount > 1 && averageCount < 2) {
        EXPECT_GE(out[k].centerX, lastX) << "records out of order, frame " << frame;
        lastX = out[k].centerX;
      }
    }
  };
  const int rounds = vtest::scaled(40);
  int frame = 0;
  for (int round = 0; round < rounds && !::testing::Test::HasFatalFailure(); ++round) {
    const int changesBefore = changes.load();
    for (int pulls = 0; pulls < kMinPulls || changes.load() - changesBefore < kMinChanges;
         ++pulls, ++frame) {
      pull(frame % 3 == 0 ? 8 : 16, frame);
      if (::testing::Test::HasFatalFailure()) break;
    }
    stage.store(3 * round + 1);
    while (stage.load() != 3 * round + 2) std::this_thread::yield();
    // A whole block in the state the control thread left: every beam is
    // found (each record is cleared first: a frame without signal would
    // leave an earlier one in place).
    for (uint32_t n = 0; n < std::max(1u, averageCount); ++n, ++frame) {
      std::fill(out.begin(), out.end(), SpotResult{});
      pull(16, frame);
    }
    for (uint32_t k = 0; k < spotCount; ++k) {
      EXPECT_GT(out[k].total, 0) << "round " << round << " spot " << k;
    }
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

TEST_F(StressPull, SpotSettersFromAnotherThreadDuringPulls) {
  for (const auto& counts : {std::array<uint32_t, 2>{1, 0}, std::array<uint32_t, 2>{1, 3},
                             std::array<uint32_t, 2>{3, 0}, std::array<uint32_t, 2>{3, 2}}) {
    EXPECT_TRUE(vtest::runInChildProcess([counts] { spotUnderControl(counts[0], counts[1]); }))
        << "spotCount " << counts[0] << ", averageCount " << counts[1];
  }
}

}  // namespace
