// Demo step: a focus sweep of a photograph from the simulated camera, pulled
// frame by frame into an EDF session of each fuser kind with
// vantix_edf_pull; prints the time a frame and how close the fused image
// comes to the sharp photograph, against the best single frame.
#include <dlfcn.h>

#include <filesystem>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "../simcam/simcam_loader.h"
#include "demo.h"
#include "edf_session.h"
#include "errors.h"
#include "image_io.h"
#include "result_names.h"

namespace vtool {

namespace {

constexpr int kSweepFrames = 8;
constexpr double kMaxBlurSigma = 4.0;
const cv::Size kFrameSize(640, 480);

// The simulated camera SDK built beside the tool.
SimcamApi loadSimulatedCamera() {
  std::error_code error;
  const std::filesystem::path tool = std::filesystem::read_symlink("/proc/self/exe", error);
  const std::filesystem::path library =
      tool.parent_path().parent_path() / "simcam" / "libvantix_simcam.so";
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  SimcamApi api;
  if (handle == nullptr || !simcam_load_api(handle, &api)) {
    throw ToolError("the simulated camera " + library.string() + " is not available");
  }
  return api;
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

  const uint32_t pitch = sim.defaultPitch(kFrameSize.width, 24);
  std::vector<uint8_t> buffer(static_cast<size_t>(pitch) * kFrameSize.height);
  double bestSlice = 0;
  int bestIndex = 0;
  for (int i = 0; i < kSweepFrames; ++i) {
    sim.render(camera, static_cast<uint32_t>(i), buffer.data(), 24, 0);
    const cv::Mat slice(kFrameSize, CV_8UC3, buffer.data(), pitch);
    const double quality = cv::PSNR(slice, photo);
    if (quality > bestSlice) {
      bestSlice = quality;
      bestIndex = i;
    }
    if (i == 0) context.save("edf-frame-0.png", slice.clone());
  }
  say("best single frame: %d, %.1f dB against the sharp photo", bestIndex, bestSlice);

  const char* const names[] = {"pyramid, largest detail", "pyramid, weighted",
                               "focus-measure blend"};
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
    }
    const cv::Mat fused = session.fused();
    say("kind %u (%s): %.1f ms a frame, %.1f dB (%+.1f dB against the best frame)", kind,
        names[kind], total / kSweepFrames, cv::PSNR(fused, photo), cv::PSNR(fused, photo) - bestSlice);
    context.save("edf-kind" + std::to_string(kind) + ".png", fused);
  }
  sim.close(camera);
}

}  // namespace vtool
