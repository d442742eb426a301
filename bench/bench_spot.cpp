// Time per frame of the spot measurement, 16-bit frames from a 12-bit
// camera, single spot and three spots, at 1920 x 1200 and 2448 x 2048:
//  - BM_SpotPull: vantix_spot_pull through the simulated camera SDK, as a
//    host calls it (the SDK renders every frame, which it does slowly);
//  - BM_SdkPullOnly: the SDK's own pull of the same frames, to subtract;
//  - BM_SpotMeasure: the session's measurement of frames already in memory
//    (what the library adds to a pull).
// The simulated camera is loaded from <build>/testing/simcam/, found next to
// this program's folder (<build>/bench/), or from $VANTIX_SIMCAM.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <vantix.h>

#include "spot/spot_session.h"
#include "testing/simcam/simcam_loader.h"

namespace {

std::string simcamPath() {
  if (const char* env = std::getenv("VANTIX_SIMCAM")) return env;
  char self[PATH_MAX] = {};
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir = n > 0 ? std::string(self, n) : std::string("./bench_spot");
  dir = dir.substr(0, dir.rfind('/'));           // <build>/bench
  dir = dir.substr(0, dir.rfind('/'));           // <build>
  return dir + "/testing/simcam/libvantix_simcam.so";
}

const SimcamApi& simcam() {
  static SimcamApi api = [] {
    SimcamApi a{};
    const std::string path = simcamPath();
    void* so = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (so == nullptr || !simcam_load_api(so, &a)) {
      std::fprintf(stderr, "cannot load the simulated camera %s: %s\n", path.c_str(), dlerror());
      std::exit(1);
    }
    return a;
  }();
  return api;
}

// A camera showing `spots` moving, breathing Gaussian spots.  One spot is
// shown on black (a camera whose dark level is subtracted), several on a
// dark background with a little noise, which the segmentation copes with.
SimcamCamera* openCamera(int width, int height, int spots) {
  const SimcamApi& sim = simcam();
  SimcamCamera* camera = sim.open(width, height);
  std::vector<SimcamSpot> list;
  for (int k = 0; k < spots; ++k) {
    SimcamSpot s{};
    s.centerX = width * (k + 1.0) / (spots + 1);
    s.centerY = height * (0.4 + 0.1 * k);
    s.sigmaX = width / 80.0;
    s.sigmaY = width / 110.0;
    s.angle = 20.0 * k;
    s.peak = 0.8 - 0.1 * k;
    s.orbitRadius = width / 100.0;
    s.orbitPeriod = 40;
    s.breathAmplitude = 0.1;
    s.breathPeriod = 25;
    list.push_back(s);
  }
  const double background = spots == 1 ? 0.0 : 0.02, noise = spots == 1 ? 0.0 : 0.002;
  sim.setSpots(camera, list.data(), static_cast<uint32_t>(list.size()), background, noise, 7);
  return camera;
}

void BM_SpotPull(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const int spots = static_cast<int>(state.range(2));
  SimcamCamera* camera = openCamera(width, height, spots);
  std::vector<uint16_t> buffer(static_cast<size_t>(width) * height);
  VantixSpot* session = vantix_spot_new(static_cast<uint32_t>(spots), 0);
  std::vector<SpotResult> out(spots);
  FrameInfoV2 info{};
  for (auto _ : state) {
    const VantixResult hr =
        vantix_spot_pull(session, camera, 1, buffer.data(), 16, 0, &info, out.data());
    if (hr != 0) state.SkipWithError("pull failed");
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["centreX"] = out[0].centerX;
  vantix_spot_delete(session);
  simcam().close(camera);
}

void BM_SdkPullOnly(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  SimcamCamera* camera = openCamera(width, height, static_cast<int>(state.range(2)));
  std::vector<uint16_t> buffer(static_cast<size_t>(width) * height);
  FrameInfoV2 info{};
  for (auto _ : state) {
    simcam().pullV2(camera, buffer.data(), 16, 0, &info);
    benchmark::DoNotOptimize(buffer.data());
  }
  simcam().close(camera);
}

// The measurement alone, over a cycle of 16 pre-rendered frames of the
// moving spot(s).
void BM_SpotMeasure(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const int spots = static_cast<int>(state.range(2));
  SimcamCamera* camera = openCamera(width, height, spots);
  constexpr int kFrames = 16;
  std::vector<std::vector<uint16_t>> frames(kFrames,
                                            std::vector<uint16_t>(static_cast<size_t>(width) * height));
  for (int i = 0; i < kFrames; ++i) simcam().render(camera, i, frames[i].data(), 16, 0);
  vantix::CSpotSession session(static_cast<uint32_t>(spots), 0);
  std::vector<SpotResult> out(spots);
  // Mode 1: reset before every frame, so that the single spot is measured
  // in the whole-frame aperture (the first frame, or one after signal loss).
  const bool wholeFrame = state.range(3) == 1;
  int i = 0;
  for (auto _ : state) {
    if (wholeFrame) session.reset();
    session.onFrame(frames[i % kFrames].data(), width, height, 16, 0, 1, out.data());
    benchmark::DoNotOptimize(out.data());
    ++i;
  }
  state.counters["diameter"] = out[0].majorDiameter;
  simcam().close(camera);
}

void sizes(benchmark::internal::Benchmark* b) {
  for (const int spots : {1, 3}) {
    b->Args({1920, 1200, spots});
    b->Args({2448, 2048, spots});
  }
  b->ArgNames({"w", "h", "spots"})->Unit(benchmark::kMillisecond)->UseRealTime();
}

void measureCases(benchmark::internal::Benchmark* b) {
  for (const int spots : {1, 3}) {
    for (const int whole : spots == 1 ? std::vector<int>{0, 1} : std::vector<int>{0}) {
      b->Args({1920, 1200, spots, whole});
      b->Args({2448, 2048, spots, whole});
    }
  }
  b->ArgNames({"w", "h", "spots", "wholeFrame"})->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_SpotMeasure)->Apply(measureCases);
BENCHMARK(BM_SpotPull)->Apply(sizes);
BENCHMARK(BM_SdkPullOnly)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
