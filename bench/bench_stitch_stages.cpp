// The two halves of a stitch worker's frame, timed apart on the library's
// internal functions (the public interface only shows their sum, which
// bench_stitch measures):
//   registration  the working copy and its sharpness score (frame
//                 selection), its float grey image, and the measurement
//                 against the reference (coarse phase correlation, feature
//                 offset, template-match confidence);
//   composition   blending the frame into the panorama, which the canvas's
//                 drawing thread does beside the worker.
// Frames come from the simulated scan of testing/scenes.h, the
// reference staying put over the next frames as it does in a session (it is
// renewed only after a move of about a third of a frame).
#include <benchmark/benchmark.h>

#include <map>
#include <vector>

#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "livestitch/lvcanvas.h"
#include "livestitch/lvregister.h"
#include "testing/scenes.h"

namespace {

constexpr int kScalePercent = 20;  // default scale level
constexpr int kFramesPerReference = 6;

struct Scan {
  std::vector<cv::Mat> frames;  // 8-bit B G R
};

const Scan& scan(cv::Size size) {
  static std::map<int, Scan> scans;
  Scan& s = scans[size.width];
  if (s.frames.empty()) {
    static const cv::Mat scene = vtest::scanScene();
    vtest::ScanOptions options =
        size.width == 1920 ? vtest::scanOptions1080() : vtest::scanOptions720();
    options.maxFrames = 1 + kFramesPerReference;
    options.blurEvery = 1000;  // sharp frames: every one is measured in full
    const vtest::ScanSimulator simulator(scene, options);
    for (size_t i = 0; i < simulator.frameCount(); ++i) s.frames.push_back(simulator.render(i));
  }
  return s;
}

cv::Mat grayFloat(const cv::Mat& image) {
  cv::Mat gray, out;
  cv::cvtColor(image, gray, cv::COLOR_RGB2GRAY);
  gray.convertTo(out, CV_32F);
  return out;
}

cv::Size working(cv::Size frame) {
  return {frame.width * kScalePercent / 100, frame.height * kScalePercent / 100};
}

void BM_StitchRegistration(benchmark::State& state) {
  const cv::Size size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const Scan& s = scan(size);
  const auto geometry = vantix::makeRegistrationGeometry(static_cast<uint32_t>(size.width),
                                                         static_cast<uint32_t>(size.height),
                                                         kScalePercent);
  auto detector = cv::ORB::create(5000, 1.2f, 8, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20);
  auto matcher = cv::DescriptorMatcher::create("BruteForce-Hamming");
  const cv::Mat lut = vantix::makeGradientLut();
  const double factor = vantix::stitchSharpnessFactor(
      kScalePercent, static_cast<uint32_t>(size.width), static_cast<uint32_t>(size.height));

  cv::Mat refFull, refSmall;
  cv::cvtColor(s.frames[0], refFull, cv::COLOR_RGB2GRAY);
  cv::resize(s.frames[0], refSmall, working(size), 0, 0, cv::INTER_LINEAR);
  refSmall = grayFloat(refSmall);
  vantix::PhaseCache cache;
  vantix::TemplateOrigins origins, altOrigins;
  size_t next = 1;
  double confidence = 0;
  for (auto _ : state) {
    const cv::Mat& frame = s.frames[next];
    next = next % kFramesPerReference + 1;
    cv::Mat small;
    cv::resize(frame, small, working(size), 0, 0, cv::INTER_LINEAR);
    benchmark::DoNotOptimize(vantix::sharpnessScore(small, lut, factor));
    const vantix::Measurement m =
        vantix::measureDisplacement(frame, grayFloat(small), refFull, refSmall, geometry,
                                    *detector, *matcher, origins, altOrigins, &cache);
    confidence += m.confidence;
  }
  state.counters["confidence"] = confidence / static_cast<double>(state.iterations());
}

void BM_StitchComposition(benchmark::State& state) {
  const cv::Size size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const Scan& s = scan(size);
  cv::Mat canvas(size.height * 4, size.width * 4, CV_8UC3);
  vantix::fillBackground(canvas, 0);
  cv::Mat coverage = cv::Mat::zeros((canvas.rows + vantix::kCoverageCell - 1) / vantix::kCoverageCell,
                                    (canvas.cols + vantix::kCoverageCell - 1) / vantix::kCoverageCell,
                                    CV_8UC1);
  const cv::Point origin(size.width * 2, size.height * 2);
  vantix::blendFrameInto(canvas, coverage, s.frames[0], origin);
  // Each frame lands a third of a frame away from the painted one, so that a
  // third to a half of it overlaps painted content, as in a scan.
  size_t next = 1;
  int step = 0;
  for (auto _ : state) {
    const cv::Point at = origin + cv::Point((step % 3 - 1) * size.width / 3,
                                            (step / 3 % 3 - 1) * size.height / 3);
    vantix::blendFrameInto(canvas, coverage, s.frames[next], at);
    next = next % kFramesPerReference + 1;
    ++step;
  }
}

BENCHMARK(BM_StitchRegistration)
    ->ArgNames({"w", "h"})
    ->Args({1920, 1080})
    ->Args({1280, 720})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);
BENCHMARK(BM_StitchComposition)
    ->ArgNames({"w", "h"})
    ->Args({1920, 1080})
    ->Args({1280, 720})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
