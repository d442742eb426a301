// What a long one-way scan costs the stitch canvas: the canvas grows by four
// frame widths each time a frame passes its edge, and each growth copies the
// whole canvas, so the time of one growth rises with the distance travelled.
// Stop does not depend on the canvas: between growths it waits for the
// worker's current pass only.
//   BM_CanvasGrowth/steps:N   one growth of a canvas of 640 x 480 frames that
//                             already grew N times to the right
//   BM_StopWideCanvas/steps:N start, then the time of stop (no panorama) on
//                             a session whose canvas grew N times
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include "livestitch/lvcanvas.h"
#include "livestitch/lvprocessor.h"

namespace {

constexpr int kW = 640, kH = 480;

void noNotify(void*, int) {}

// Grows `canvas` one step to the right (a frame just past its right edge).
void growRight(vantix::CLvCanvas& canvas) {
  int x = canvas.image().cols - kW + 1, y = kH;
  canvas.grow(x, y);
}

void BM_CanvasGrowth(benchmark::State& state) {
  const int steps = static_cast<int>(state.range(0));
  for (auto _ : state) {
    vantix::CLvCanvas canvas(0, kW, kH, 4 * kW, 4 * kH, cv::Point(2 * kW, 2 * kH), 0, 20,
                             &noNotify, nullptr);
    for (int i = 0; i < steps; ++i) growRight(canvas);
    const auto start = std::chrono::steady_clock::now();
    growRight(canvas);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    state.counters["canvas_MB"] = static_cast<double>(canvas.image().total() * 3) / 1e6;
  }
}

void stopNothing(void*, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                 int32_t, int32_t, uint32_t, uint32_t, uint32_t, float) {}

void BM_StopWideCanvas(benchmark::State& state) {
  const int steps = static_cast<int>(state.range(0));
  vantix::CLvProcessor session(0, kW, kH, 0, 2, 2, &stopNothing, nullptr, nullptr);
  for (int i = 0; i < steps; ++i) growRight(session.canvas());
  for (auto _ : state) {
    session.start();
    const auto start = std::chrono::steady_clock::now();
    session.stop(false, false);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.counters["canvas_MB"] = static_cast<double>(session.canvas().image().total() * 3) / 1e6;
}

BENCHMARK(BM_CanvasGrowth)
    ->ArgName("steps")
    ->Arg(0)
    ->Arg(5)
    ->Arg(10)
    ->Arg(25)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StopWideCanvas)
    ->ArgName("steps")
    ->Arg(0)
    ->Arg(25)
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
