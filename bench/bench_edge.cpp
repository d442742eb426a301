// Time of one vantix_edge_get at the largest search size (a 150 x 150 area)
// on a 1920 x 1080 8-bit B G R frame.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include <vantix.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "testing/scenes.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

void* hostAlloc(uint64_t bytes) {
  return std::malloc(bytes);
}

// Rows padded to 4 bytes, as the session reads format 0.
std::vector<uint8_t> toBuffer(const cv::Mat& frame) {
  const size_t stride = vantix_default_stride(kWidth, 24);
  std::vector<uint8_t> buffer(stride * kHeight);
  cv::Mat wrapped(kHeight, kWidth, CV_8UC3, buffer.data(), stride);
  frame.copyTo(wrapped);
  return buffer;
}

// Clicks spread over the frame, in turn.
constexpr int kClicks[][2] = {{1085, 545}, {895, 705}, {400, 300}, {960, 415}};

void runGet(benchmark::State& state, const std::vector<std::vector<uint8_t>>& frames) {
  vantix_init(hostAlloc);
  VantixEdge* session = vantix_edge_new(VANTIX_FORMAT_BGR8, kWidth, kHeight, 50);
  size_t i = 0;
  int64_t snapped = 0;
  for (auto _ : state) {
    const auto& click = kClicks[i % 4];
    int32_t x = click[0], y = click[1];
    snapped += vantix_edge_get(session, frames[i % frames.size()].data(), &x, &y, 50);
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(y);
    ++i;
  }
  state.counters["snapped"] = benchmark::Counter(static_cast<double>(snapped) / i);
  vantix_edge_delete(session);
}

// The same frame on every call.
void BM_EdgeGetSize50(benchmark::State& state) {
  static const std::vector<std::vector<uint8_t>> frames{
      toBuffer(vtest::texturedScene({kWidth, kHeight}, 1))};
  runGet(state, frames);
}
BENCHMARK(BM_EdgeGetSize50)->Unit(benchmark::kMicrosecond);

// A new noise pattern on every call, as from a live camera: few kernels
// can be reused from earlier calls.
void BM_EdgeGetSize50LiveNoise(benchmark::State& state) {
  static const std::vector<std::vector<uint8_t>> frames = [] {
    std::vector<std::vector<uint8_t>> f;
    for (uint32_t seed = 1; seed <= 16; ++seed)
      f.push_back(toBuffer(vtest::texturedScene({kWidth, kHeight}, seed)));
    return f;
  }();
  runGet(state, frames);
}
BENCHMARK(BM_EdgeGetSize50LiveNoise)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
