// Demo step: a focus sweep of a photograph from the simulated camera, pulled
// frame by frame into an EDF session of each fuser kind with
// vantix_edf_pull; prints the time a frame and how close the fused image
// comes to the sharp photograph, against the sharpest single frame.
#include <dlfcn.h>

#include <algorithm>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "../simcam/simcam_loader.h"
#include "demo.h"
#include "edf_session.h"
#include "errors.h"
#include "image_io.h"
#include "result_names.h"
#include "spot_camera.h"

namespace vtool {

namespace {

constexpr int kSweepFrames = 8;
constexpr double kMaxBlurSigma = 4.0;
const cv::Size kFrameSize(640, 480);

// The simulated camera SDK: where the spot step finds it too ($VANTIX_SIMCAM,
// the build tree's layout, else the loader's search path).
SimcamApi loadSimulatedCamera() {
  const std::string library = simcamLibraryPath("");
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  SimcamApi api;
  if (handle == nullptr || !simcam_load_api(handle, &api)) {
    throw ToolError("the simulated camera " + library + " is not available (set VANTIX_SIMCAM)");
  }
  return api;
}

// Variance of the Laplacian of the grey image: larger is sharper.
double sharpness(const cv::Mat& bgr) {
  cv::Mat grey, laplacian;
  cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
  cv::Laplacian(grey, laplacian, CV_64F);
  cv::Scalar mean, deviation;
  cv::meanStdDev(laplacian, mean, deviation);
  return deviation[0] * deviation[0];
}

// The 160x120 block (on a grid of half steps) where `slice` is furthest
// from `photo`: where the sharpest single frame is most out of focus.
cv::Rect worstBlock(const cv::Mat& slice, const cv::Mat& photo) {
  const cv::Size block(160, 120);
  cv::Rect worst(0, 0, block.width, block.height);
  double largest = -1;
  for (int y = 0; y + block.height <= photo.rows; y += block.height / 2) {
    for (int x = 0; x + block.width <= photo.cols; x += block.width / 2) {
      const cv::Rect area(x, y, block.width, block.height);
      const double difference = cv::norm(slice(area), photo(area), cv::NORM_L1);
      if (difference > largest) {
        largest = difference;
        worst = area;
      }
    }
  }
  return worst;
}

// A crop enlarged `zoom` times with whole pixels kept visible.
cv::Mat enlarged(const cv::Mat& image, const cv::Rect& area, int zoom) {
  cv::Mat out;
  cv::resize(image(area), out, {}, zoom, zoom, cv::INTER_NEAREST);
  return out;
}

}  // namespace

void demoEdf(DemoContext& context) {
  std::string label;
  cv::Mat photo = context.sample("fruits.jpg", label);
  cv::resize(photo, photo, kFrameSize, 0, 0, cv::INTER_AREA);
  const SimcamApi sim = loadSimulatedCamera();
  SimcamCamera* camera = sim.open(kFrameSize.width, kFrameSize.height);
  if (camera == nullptr ||
      sim.setFocusSweep(camera, photo.data, kFrameSize.width, kFrameSize.height,
                        static_cast<uint32_t>(photo.step[0]), kSweepFrames,
                        kMaxBlurSigma) != SIMCAM_S_OK) {
    sim.close(camera);
    throw ToolError("the simulated camera refused the focus sweep");
  }
  say("%s: %s, focus sweep of %d frames through a depth map, blur up to sigma %.0f", label.c_str(),
      sizeText(kFrameSize).c_str(), kSweepFrames, kMaxBlurSigma);

  // The sharpest slice is the one a user would pick by eye: the largest
  // variance of the Laplacian.  Its PSNR against the sharp photo is the bar
  // that fusion has to clear.
  const uint32_t pitch = sim.defaultPitch(kFrameSize.width, 24);
  std::vector<uint8_t> buffer(static_cast<size_t>(pitch) * kFrameSize.height);
  double bestSharpness = -1, slicePsnr = 0, bestPsnr = 0;
  cv::Mat sharpest;
  std::vector<std::vector<std::string>> sliceRows;
  for (int i = 0; i < kSweepFrames; ++i) {
    sim.render(camera, static_cast<uint32_t>(i), buffer.data(), 24, 0);
    const cv::Mat slice(kFrameSize, CV_8UC3, buffer.data(), pitch);
    const double quality = cv::PSNR(slice, photo);
    const double sharp = sharpness(slice);
    bestPsnr = std::max(bestPsnr, quality);
    if (sharp > bestSharpness) {
      bestSharpness = sharp;
      slicePsnr = quality;
      sharpest = slice.clone();
    }
    sliceRows.push_back({std::to_string(i), format("%.1f", sharp), format("%.1f dB", quality)});
    if (i == 0) context.save("edf-frame-0.png", slice.clone());
  }
  context.save("edf-sharpest-slice.png", sharpest);
  say("sharpest single frame: sharpness %.1f, %.1f dB against the sharp photo", bestSharpness,
      slicePsnr);

  const char* const names[] = {"pyramid, largest detail", "pyramid, weighted",
                               "focus-measure blend"};
  std::vector<std::vector<std::string>> kindRows;
  std::vector<Figure> kindFigures;
  cv::Mat bestFused;
  double bestFusedPsnr = -1;
  uint32_t bestKind = 0;
  Progress progress("frames fused", 3 * kSweepFrames);
  for (uint32_t kind = 0; kind < 3; ++kind) {
    EdfSession session(VANTIX_FORMAT_BGR8, kind);
    sim.setFrameIndex(camera, 0);
    double total = 0;
    for (int i = 0; i < kSweepFrames; ++i) {
      FrameInfoV2 info{};
      const VantixResult result =
          vantix_edf_pull(session.handle(), camera, 1, buffer.data(), 24, 0, &info);
      if (static_cast<int32_t>(result) < 0) {
        sim.close(camera);
        throw ToolError("vantix_edf_pull failed: " + resultName(result));
      }
      // Waiting for each frame keeps the session's queue of 3 from dropping any.
      total += session.waitForResults(i + 1);
      progress.update(static_cast<int>(kind) * kSweepFrames + i + 1);
    }
    const cv::Mat fused = session.fused();
    const double psnr = cv::PSNR(fused, photo);
    const double perFrame = total / kSweepFrames;
    say("kind %u (%s): %.1f ms a frame, %.1f dB (%+.1f dB against the sharpest frame)", kind,
        names[kind], perFrame, psnr, psnr - slicePsnr);
    const std::string file = "edf-kind" + std::to_string(kind) + ".png";
    context.save(file, fused);
    context.timing(format("kind %u, a frame", kind), perFrame);
    kindRows.push_back({std::to_string(kind), names[kind], format("%.1f ms", perFrame),
                        format("%.1f dB", psnr), format("%+.1f dB", psnr - slicePsnr),
                        format("%.1f", sharpness(fused))});
    kindFigures.push_back({fused, format("%s: kind %u (%s), %.1f dB", file.c_str(), kind,
                                         names[kind], psnr)});
    if (psnr > bestFusedPsnr) {
      bestFusedPsnr = psnr;
      bestFused = fused;
      bestKind = kind;
    }
  }
  progress.finish();
  sim.close(camera);

  HtmlReport::Section& section = context.section();
  section.paragraph(format("The simulated camera sweeps its focus through %s (%s, a depth map "
                           "puts each region in focus at a different frame; blur up to sigma "
                           "%.0f).  Each of the %d frames is pulled by an EDF session "
                           "(vantix_edf_pull) and fused as it arrives.  PSNR is measured "
                           "against the sharp photo; sharpness is the variance of the "
                           "Laplacian.",
                           label.c_str(), sizeText(kFrameSize).c_str(), kMaxBlurSigma,
                           kSweepFrames));
  section.highlight(format("Best fusion (kind %u, %s): %.1f dB, sharpness %.1f; sharpest single "
                           "frame: %.1f dB, sharpness %.1f (best single frame by PSNR %.1f dB).",
                           bestKind, names[bestKind], bestFusedPsnr, sharpness(bestFused),
                           slicePsnr, bestSharpness, bestPsnr));
  section.figures({{sharpest, format("edf-sharpest-slice.png: the sharpest single frame, "
                                     "%.1f dB", slicePsnr)},
                   {bestFused, format("edf-kind%u.png: fused, %.1f dB", bestKind,
                                      bestFusedPsnr)}});
  const cv::Rect detail = worstBlock(sharpest, photo);
  section.paragraph(format("Detail (%d x %d pixels at %d, %d, enlarged 3 times) where the "
                           "sharpest single frame is furthest from the sharp photo:",
                           detail.width, detail.height, detail.x, detail.y));
  section.figures({{enlarged(sharpest, detail, 3), "sharpest single frame"},
                   {enlarged(bestFused, detail, 3), format("fused (kind %u)", bestKind)},
                   {enlarged(photo, detail, 3), "the sharp photo"}});
  section.table({"kind", "fuser", "time a frame", "PSNR", "against the sharpest frame",
                 "sharpness"},
                kindRows);
  section.figures(kindFigures);
  section.foldedTable(format("The %d frames of the sweep", kSweepFrames),
                      {"frame", "sharpness", "PSNR"}, sliceRows);
}

}  // namespace vtool
