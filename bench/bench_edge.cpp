// Time of one vantix_edge_get at the largest search size (a 150 x 150 area)
// on a 1920 x 1080 8-bit B G R frame.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include <vantix.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

void* hostAlloc(uint64_t bytes) {
  return std::malloc(bytes);
}

// A textured scene: smooth shading, fine stripes, filled shapes and sensor
// noise, so that the search area holds every kind of local contrast the
// adaptive smoothing distinguishes.
cv::Mat texturedScene(uint64_t noiseSeed) {
  cv::Mat scene(kHeight, kWidth, CV_8UC3);
  for (int y = 0; y < kHeight; ++y) {
    auto* row = scene.ptr<cv::Vec3b>(y);
    for (int x = 0; x < kWidth; ++x) {
      const double shade = 90 + 40 * std::sin(x * 0.013) * std::cos(y * 0.017);
      const double stripes = 25 * std::sin(x * 0.9 + y * 0.3);
      row[x] = cv::Vec3b(cv::saturate_cast<uint8_t>(shade + stripes),
                         cv::saturate_cast<uint8_t>(shade + 0.5 * stripes),
                         cv::saturate_cast<uint8_t>(shade - stripes));
    }
  }
  cv::circle(scene, {960, 540}, 120, cv::Scalar(220, 200, 180), cv::FILLED, cv::LINE_AA);
  cv::rectangle(scene, {700, 380}, {900, 700}, cv::Scalar(30, 40, 50), cv::FILLED);
  cv::Mat noise(scene.size(), CV_16SC3);
  cv::RNG rng(noiseSeed);
  rng.fill(noise, cv::RNG::NORMAL, 0, 6);
  cv::Mat noisy;
  cv::add(scene, noise, noisy, cv::noArray(), CV_8UC3);
  return noisy;
}

// Rows padded to 4 bytes, as the session reads format 0.
std::vector<uint8_t> toBuffer(const cv::Mat& frame) {
  const size_t stride = ((kWidth * 24 + 31) >> 3) & ~3u;
  std::vector<uint8_t> buffer(stride * kHeight);
  cv::Mat wrapped(kHeight, kWidth, CV_8UC3, buffer.data(), stride);
  frame.copyTo(wrapped);
  return buffer;
}

// Clicks a few pixels off the circle's rim, inside the stripes and the
// rectangle's corner, in turn.
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
  static const std::vector<std::vector<uint8_t>> frames{toBuffer(texturedScene(1))};
  runGet(state, frames);
}
BENCHMARK(BM_EdgeGetSize50)->Unit(benchmark::kMicrosecond);

// A new noise pattern on every call, as from a live camera: few kernels
// can be reused from earlier calls.
void BM_EdgeGetSize50LiveNoise(benchmark::State& state) {
  static const std::vector<std::vector<uint8_t>> frames = [] {
    std::vector<std::vector<uint8_t>> f;
    for (uint64_t seed = 1; seed <= 16; ++seed) f.push_back(toBuffer(texturedScene(seed)));
    return f;
  }();
  runGet(state, frames);
}
BENCHMARK(BM_EdgeGetSize50LiveNoise)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
