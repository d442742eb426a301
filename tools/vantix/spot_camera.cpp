#include "spot_camera.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "errors.h"
#include "result_names.h"

namespace vtool {

std::string simcamLibraryPath(const std::string& override) {
  if (!override.empty()) return override;
  if (const char* env = std::getenv("VANTIX_SIMCAM"); env != nullptr && env[0] != '\0') return env;
  char self[PATH_MAX] = {};
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    std::string dir(self, static_cast<size_t>(n));
    dir = dir.substr(0, dir.rfind('/'));  // <build>/tools/vantix
    const std::string candidate = dir.substr(0, dir.rfind('/')) + "/simcam/libvantix_simcam.so";
    if (access(candidate.c_str(), R_OK) == 0) return candidate;
  }
  return "libvantix_simcam.so";
}

SimCamera::SimCamera(const std::string& libraryPath, cv::Size frameSize) : size_(frameSize) {
  // The library stays loaded for the rest of the process, as a host's SDK
  // does: the spot session's binding to it is never released.
  void* library = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* why = dlerror();
    throw ToolError("cannot load the simulated camera '" + libraryPath + "'" +
                    (why != nullptr ? std::string(": ") + why : std::string()) +
                    " (give its path with --simcam or VANTIX_SIMCAM)");
  }
  if (!simcam_load_api(library, &api_)) {
    throw ToolError("'" + libraryPath + "' is not the simulated camera library");
  }
  camera_ = api_.open(static_cast<uint32_t>(frameSize.width),
                      static_cast<uint32_t>(frameSize.height));
  if (camera_ == nullptr) {
    throw ToolError("the simulated camera refuses a frame of " + std::to_string(frameSize.width) +
                    "x" + std::to_string(frameSize.height) + " pixels");
  }
}

SimCamera::~SimCamera() {
  if (camera_ != nullptr) api_.close(camera_);
}

void SimCamera::showStill(const cv::Mat& image) {
  cv::Mat bgr = image;
  if (bgr.depth() == CV_16U) bgr.convertTo(bgr, CV_8U, 1.0 / 257.0);
  if (bgr.channels() == 1) cv::cvtColor(bgr, bgr, cv::COLOR_GRAY2BGR);
  if (bgr.channels() == 4) cv::cvtColor(bgr, bgr, cv::COLOR_BGRA2BGR);
  if (bgr.type() != CV_8UC3) throw ToolError("the image cannot be shown to the camera");
  const int32_t hr = api_.setStill(camera_, bgr.data, static_cast<uint32_t>(bgr.cols),
                                   static_cast<uint32_t>(bgr.rows),
                                   static_cast<uint32_t>(bgr.step));
  if (hr < 0) throw ToolError("the simulated camera refused the image: " +
                              resultName(static_cast<VantixResult>(hr)));
}

void SimCamera::setRawBits(uint32_t bits) { api_.setRawBits(camera_, bits); }

SpotSession::SpotSession(uint32_t spotCount, uint32_t averageCount)
    : session_(vantix_spot_new(spotCount, averageCount)),
      spotCount_(spotCount),
      records_(spotCount) {}

SpotSession::~SpotSession() { vantix_spot_delete(session_); }

void SpotSession::setRoi(const cv::Rect& roi) {
  vantix_spot_setRoi(session_, static_cast<uint32_t>(roi.x), static_cast<uint32_t>(roi.y),
                     static_cast<uint32_t>(roi.width), static_cast<uint32_t>(roi.height));
}

void SpotSession::setAperture(const SpotAperture& aperture) {
  vantix_spot_setAperture(session_, aperture);
}

std::vector<SpotResult> SpotSession::pull(SimCamera& camera, uint32_t bitCount, cv::Mat* frame) {
  const cv::Size size = camera.frameSize();
  const size_t pitch = (static_cast<size_t>(size.width) * bitCount + 31) / 32 * 4;
  buffer_.resize(pitch * static_cast<size_t>(size.height));
  FrameInfoV2 info{};
  const VantixResult hr = vantix_spot_pull(session_, camera.handle(), 1, buffer_.data(), bitCount,
                                           0, &info, records_.data());
  if (VANTIX_FAILED(hr)) throw ToolError("vantix_spot_pull failed: " + resultName(hr));
  if (frame != nullptr) {
    const int type = bitCount == 8    ? CV_8UC1
                     : bitCount == 16 ? CV_16UC1
                     : bitCount == 24 ? CV_8UC3
                                      : CV_16UC3;
    *frame = cv::Mat(static_cast<int>(info.height), static_cast<int>(info.width), type,
                     buffer_.data(), pitch)
                 .clone();
  }
  return records_;
}

const std::vector<std::string>& spotFieldNames() {
  static const std::vector<std::string> names = {
      "total",       "centerX", "centerY",   "majorDiameter", "minorDiameter", "ellipticity",
      "angle",       "apertureX", "apertureY", "apertureA",   "apertureB"};
  return names;
}

std::vector<double> spotFields(const SpotResult& r) {
  return {r.total,     r.centerX,   r.centerY,   r.majorDiameter, r.minorDiameter, r.ellipticity,
          r.angle,     r.apertureX, r.apertureY, r.apertureA,     r.apertureB};
}

}  // namespace vtool
