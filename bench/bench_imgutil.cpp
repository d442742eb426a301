// Resize, demosaic and frame conversion: the library's calls against a
// direct OpenCV call on the same buffers, so that the difference is the
// library's own overhead (validation, wrapping, error mapping).
#include <benchmark/benchmark.h>

#include <map>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "api/image_header.h"
#include "api/pixel_format.h"

namespace {

struct Frame {
  std::vector<uint8_t> bytes;
  VantixImageHeader header{};
  uint8_t* pixels() { return bytes.data(); }
  cv::Mat mat() { return cv::Mat(header.biHeight, header.biWidth, CV_8UC3, pixels(), vantix::defaultStride(header)); }
};

Frame makeFrame(int width, int height) {
  Frame f;
  f.header = VantixImageHeader{40, width, height, 1, 24, 0, 0, 0, 0, 0, 0};
  f.bytes.resize(static_cast<size_t>(vantix::defaultStride(f.header)) * height);
  cv::Mat m = f.mat();
  cv::randu(m, 0, 255);
  cv::GaussianBlur(m, m, cv::Size(5, 5), 1.5);
  return f;
}

// Source and destination of a size, shared by both variants so that they
// run on the very same buffers (the destination is half the size).
struct ResizeBuffers {
  Frame src, dst;
};
ResizeBuffers& resizeBuffers(int width, int height) {
  static std::map<std::pair<int, int>, ResizeBuffers> cache;
  auto it = cache.find({width, height});
  if (it == cache.end()) {
    it = cache.emplace(std::make_pair(width, height),
                       ResizeBuffers{makeFrame(width, height), makeFrame(width / 2, height / 2)})
             .first;
  }
  return it->second;
}

// Arguments: source width, height.
void BM_ResizeVantix(benchmark::State& state) {
  ResizeBuffers& b = resizeBuffers(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  Frame& src = b.src;
  Frame& dst = b.dst;
  for (auto _ : state) {
    const VantixResult r = vantix_resizeV2(&src.header, 0, src.pixels(), &dst.header, 0,
                                           dst.pixels(), VANTIX_INTER_LINEAR);
    benchmark::DoNotOptimize(r);
  }
}

void BM_ResizeOpenCV(benchmark::State& state) {
  ResizeBuffers& b = resizeBuffers(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  Frame& src = b.src;
  Frame& dst = b.dst;
  for (auto _ : state) {
    cv::Mat s = src.mat();
    cv::Mat d = dst.mat();
    cv::resize(s, d, d.size(), 0, 0, cv::INTER_LINEAR);
    benchmark::DoNotOptimize(d.data);
  }
}

// A raw frame and an output buffer of a size, shared by both variants.
struct DemosaicBuffers {
  std::vector<uint8_t> raw, out;
};
DemosaicBuffers& demosaicBuffers(int width, int height) {
  static std::map<std::pair<int, int>, DemosaicBuffers> cache;
  auto it = cache.find({width, height});
  if (it == cache.end()) {
    DemosaicBuffers b;
    b.raw.resize(static_cast<size_t>(width) * height);
    cv::Mat m(height, width, CV_8UC1, b.raw.data());
    cv::randu(m, 0, 255);
    b.out.resize(static_cast<size_t>(vantix_default_stride(width, 24)) * height);
    it = cache.emplace(std::make_pair(width, height), std::move(b)).first;
  }
  return it->second;
}

// Arguments: width, height, algorithm (0 bilinear, 2 edge-aware).

void BM_DemosaicVantix(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const auto algorithm = static_cast<uint32_t>(state.range(2));
  DemosaicBuffers& b = demosaicBuffers(width, height);
  std::vector<uint8_t>& raw = b.raw;
  std::vector<uint8_t>& out = b.out;
  for (auto _ : state) {
    const VantixResult r = vantix_demosaic(raw.data(), out.data(), width, height, 8,
                                           VANTIX_BAYER_RGGB, VANTIX_DEMOSAIC_BGR, algorithm);
    benchmark::DoNotOptimize(r);
  }
}

void BM_DemosaicOpenCV(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const int code = state.range(2) == 0 ? cv::COLOR_BayerBG2BGR : cv::COLOR_BayerBG2BGR_EA;
  DemosaicBuffers& b = demosaicBuffers(width, height);
  std::vector<uint8_t>& raw = b.raw;
  std::vector<uint8_t>& out = b.out;
  for (auto _ : state) {
    cv::Mat s(height, width, CV_8UC1, raw.data());
    cv::Mat d(height, width, CV_8UC3, out.data(), vantix_default_stride(width, 24));
    cv::demosaicing(s, d, code, 0);
    benchmark::DoNotOptimize(d.data);
  }
}

// The 16 x 16 cases measure the fixed cost of a call (validation, wrapping,
// error handling), which is what the library adds to the image library's
// own work at any size.

// Argument: pixel format 0..3, at 1920 x 1080.
void BM_ToWorkingImage(benchmark::State& state) {
  const auto format = static_cast<uint32_t>(state.range(0));
  const uint32_t width = 1920, height = 1080;
  std::vector<uint8_t> frame(static_cast<size_t>(vantix::formatDefaultStride(format, width)) * height);
  cv::Mat m = vantix::wrapFrame(format, frame.data(), width, height, 0);
  cv::randu(m, 0, format % 2 == 1 ? 65535 : 255);
  for (auto _ : state) {
    cv::Mat working = vantix::toWorkingImage(format, frame.data(), width, height, 0, true);
    benchmark::DoNotOptimize(working.data);
  }
}

#define SIZES Args({1920, 1080})->Args({4096, 3000})->Args({16, 16})
BENCHMARK(BM_ResizeVantix)->SIZES->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResizeOpenCV)->SIZES->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DemosaicVantix)
    ->Args({1920, 1080, 0})->Args({4096, 3000, 0})->Args({1920, 1080, 2})->Args({4096, 3000, 2})
    ->Args({16, 16, 0})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DemosaicOpenCV)
    ->Args({1920, 1080, 0})->Args({4096, 3000, 0})->Args({1920, 1080, 2})->Args({4096, 3000, 2})
    ->Args({16, 16, 0})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ToWorkingImage)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
