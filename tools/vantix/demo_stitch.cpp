// Demo step: the simulated camera pans over a photograph in a serpentine;
// the library pulls each frame from it (vantix_stitch_pull) into a live
// stitch session, and the panorama is saved.  The camera knows where each
// frame really was, so the step also prints how far the placements are off.
#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "../simcam/simcam_loader.h"
#include "demo.h"
#include "errors.h"
#include "image_io.h"
#include "result_names.h"
#include "spot_camera.h"
#include "stitch_session.h"

namespace vtool {

namespace {

const SimcamApi& loadSimcam() {
  static SimcamApi api{};
  static bool loaded = false;
  if (!loaded) {
    // Found as the spot step finds it: $VANTIX_SIMCAM, the build tree, the
    // loader's search path.
    const std::string path = simcamLibraryPath("");
    // Kept loaded for the life of the process: the library's binding to the
    // camera SDK, once made, is never released.
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw ToolError("cannot load the simulated camera " + path);
    if (!simcam_load_api(handle, &api)) throw ToolError("incomplete simulated camera " + path);
    loaded = true;
  }
  return api;
}

struct Camera {
  const SimcamApi& api;
  SimcamCamera* handle;
  Camera(const SimcamApi& a, cv::Size size)
      : api(a), handle(a.open(static_cast<uint32_t>(size.width), static_cast<uint32_t>(size.height))) {
    if (handle == nullptr) throw ToolError("the simulated camera refused " + sizeText(size));
  }
  ~Camera() { api.close(handle); }
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;
};

}  // namespace

void demoStitch(DemoContext& context) {
  const SimcamApi& sim = loadSimcam();
  std::string label;
  const cv::Mat photo = context.sample("aloeL.jpg", label);
  // Frames a quarter of the photo a side; four rows of a serpentine with a
  // third of a frame of vertical overlap.
  const cv::Size frame(photo.cols / 4 & ~1, photo.rows / 4 & ~1);
  const int margin = 16;
  const double left = margin, right = photo.cols - frame.width - margin;
  const double top = margin, bottom = photo.rows - frame.height - margin;
  constexpr int kRows = 4;
  std::vector<SimcamPoint> path;
  for (int row = 0; row < kRows; ++row) {
    const double y = top + (bottom - top) * row / (kRows - 1);
    const bool leftwards = row % 2 == 0;
    path.push_back({leftwards ? right : left, y});
    path.push_back({leftwards ? left : right, y});
  }
  // About 30 pixels a frame along the rows.
  const auto framesPerSegment =
      static_cast<uint32_t>(std::max(4.0, std::round((right - left) / (frame.width / 10.0))));
  const uint32_t frames = static_cast<uint32_t>(path.size() - 1) * framesPerSegment + 1;

  Camera camera(sim, frame);
  if (sim.setPan(camera.handle, photo.data, static_cast<uint32_t>(photo.cols),
                 static_cast<uint32_t>(photo.rows), static_cast<uint32_t>(photo.step), path.data(),
                 static_cast<uint32_t>(path.size()), framesPerSegment) != SIMCAM_S_OK) {
    throw ToolError("the simulated camera refused the pan");
  }
  say("%s: the camera pans over it in %d rows, %u frames of %s, pulled by the library",
      label.c_str(), kRows, frames, sizeText(frame).c_str());

  StitchSession session(frame, 2, 2, 0);
  session.start();
  std::vector<uint8_t> buffer(sim.frameBytes(camera.handle, 24, 0));
  std::vector<cv::Point2d> truth;
  std::vector<std::string> events;
  Progress progress("frames stitched", static_cast<int>(frames));
  for (uint32_t i = 0; i < frames; ++i) {
    const uint32_t index = sim.frameIndex(camera.handle);
    FrameInfoV2 info{};
    const VantixResult result =
        vantix_stitch_pull(session.handle(), camera.handle, 1, buffer.data(), 24, 0, &info);
    if (VANTIX_FAILED(result)) throw ToolError("vantix_stitch_pull: " + resultName(result));
    SimcamPoint where{};
    sim.panPosition(camera.handle, index, &where);
    truth.emplace_back(where.x, where.y);
    // One frame at a time, so that every frame is stitched (a host pulling
    // at the camera's rate would let the session skip some).
    if (!session.waitForReports(i + 1)) {
      throw ToolError("the stitch session stopped after a failure at frame " + std::to_string(i));
    }
    for (uint32_t code : session.takeEvents()) {
      if (code != VANTIX_STITCH_EVENT_CANVAS_GROWING) {
        say("frame %u: %s", i, stitchEventName(code).c_str());
        events.push_back(format("frame %u: %s", i, stitchEventName(code).c_str()));
      }
    }
    progress.update(static_cast<int>(i + 1));
  }
  progress.finish();
  const cv::Mat panorama = session.stop(true);
  const std::vector<StitchReport> reports = session.reports();

  // Placement error against the camera's truth, with the panorama anchored
  // on the first frame.
  const std::vector<cv::Point> placed = finalCanvasPositions(reports);
  double sum = 0, worst = 0;
  int count = 0;
  PlotSeries errors{"placement error", {}, {}, "", false};
  for (size_t i = 0; i < reports.size() && i < truth.size(); ++i) {
    if (reports[i].mode != 1) continue;
    const cv::Point2d expected = truth[i] - truth[0] + cv::Point2d(placed[0]);
    const double error = cv::norm(cv::Point2d(placed[i]) - expected);
    sum += error;
    worst = std::max(worst, error);
    ++count;
    errors.x.push_back(static_cast<double>(i));
    errors.y.push_back(error);
  }
  say("%d of %u frames placed; placement error mean %.2f px, max %.2f px", count, frames,
      count > 0 ? sum / count : 0.0, worst);
  if (panorama.empty()) throw ToolError("the stitch session returned no panorama");
  context.save("stitch-panorama.png", panorama);

  // Time a frame: the gaps between consecutive reports (each frame was
  // pulled only after the previous one was reported).
  double gaps = 0, slowest = 0;
  for (size_t i = 1; i < reports.size(); ++i) {
    const double gap = reports[i].seconds - reports[i - 1].seconds;
    gaps += gap;
    slowest = std::max(slowest, gap);
  }
  const double perFrame = reports.size() > 1 ? gaps * 1000 / static_cast<double>(reports.size() - 1) : 0;
  context.timing("pull and stitch, a frame (mean)", perFrame);
  context.timing("pull and stitch, slowest frame", slowest * 1000);

  HtmlReport::Section& section = context.section();
  section.paragraph(format("The simulated camera pans over %s in a serpentine of %d rows; the "
                           "library pulls each of its %u frames of %s (vantix_stitch_pull) into "
                           "a live stitch session, which registers it against the last reference "
                           "frame and draws it onto the growing canvas.  The camera knows where "
                           "each frame really was, so the placements can be checked.",
                           label.c_str(), kRows, frames, sizeText(frame).c_str()));
  section.highlight(format("%d of %u frames placed; placement error against the true camera "
                           "positions: mean %.2f px, max %.2f px.  %.1f ms a frame.",
                           count, frames, count > 0 ? sum / count : 0.0, worst, perFrame));
  section.figure({panorama, format("stitch-panorama.png: %s panorama from %u frames (%d placed)",
                                   sizeText(panorama.size()).c_str(), frames, count)});
  LinePlot plot;
  plot.title = "Placement error of each placed frame";
  plot.xLabel = "frame";
  plot.yLabel = "error (px)";
  plot.series.push_back(errors);
  section.plot(plot);
  if (!events.empty()) {
    std::vector<std::vector<std::string>> rows;
    for (const std::string& event : events) rows.push_back({event});
    section.table({"events of the session"}, rows);
  }
}

}  // namespace vtool
