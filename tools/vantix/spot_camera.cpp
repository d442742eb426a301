#include "spot_camera.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "../arraycam/arraycam.h"
#include "errors.h"
#include "result_names.h"

namespace vtool {

namespace {

// The directory of the running program.
std::string programDirectory() {
  char self[PATH_MAX] = {};
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return std::string();
  const std::string path(self, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/'));
}

}  // namespace

std::string simcamLibraryPath(const std::string& override) {
  if (!override.empty()) return override;
  if (const char* env = std::getenv("VANTIX_SIMCAM"); env != nullptr && env[0] != '\0') return env;
  const std::string dir = programDirectory();  // <build>/tools/vantix
  if (!dir.empty()) {
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
                    " (give its path with VANTIX_SIMCAM)");
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

std::string arraycamLibraryPath() {
  if (const char* env = std::getenv("VANTIX_ARRAYCAM"); env != nullptr && env[0] != '\0') return env;
  const std::string dir = programDirectory();  // <build>/tools/vantix
  if (!dir.empty()) {
    const std::string candidate = dir.substr(0, dir.rfind('/')) + "/arraycam/libvantix_arraycam.so";
    if (access(candidate.c_str(), R_OK) == 0) return candidate;
  }
  return "libvantix_arraycam.so";
}

struct ArrayCamera::Api {
  ArraycamCamera* (*open)();
  void (*close)(ArraycamCamera*);
  int32_t (*setFrame)(ArraycamCamera*, const void*, uint32_t, uint32_t, uint32_t, uint32_t,
                      uint32_t, uint32_t);
  int32_t (*firstSdk)(char*, size_t);
};

namespace {

template <typename Fn>
bool resolve(void* library, Fn& fn, const char* name) {
  void* symbol = dlsym(library, name);
  std::memcpy(&fn, &symbol, sizeof symbol);
  return symbol != nullptr;
}

}  // namespace

ArrayCamera::ArrayCamera(const std::string& libraryPath) {
  // Loaded for the rest of the process, as a host's SDK: the spot session's
  // binding to it is never released.
  void* library = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* why = dlerror();
    throw ToolError("cannot load the array camera '" + libraryPath + "'" +
                    (why != nullptr ? std::string(": ") + why : std::string()) +
                    " (give its path with VANTIX_ARRAYCAM)");
  }
  api_ = std::make_unique<Api>();
  if (!resolve(library, api_->open, "arraycam_open") ||
      !resolve(library, api_->close, "arraycam_close") ||
      !resolve(library, api_->setFrame, "arraycam_set_frame") ||
      !resolve(library, api_->firstSdk, "arraycam_first_sdk")) {
    throw ToolError("'" + libraryPath + "' is not the array camera library");
  }
  char other[1024] = {};
  if (api_->firstSdk(other, sizeof other) != 1) {
    throw ToolError(std::string("the camera SDK '") + other +
                    "' is loaded before the array camera, and the library pulls from the first "
                    "SDK loaded only");
  }
  camera_ = api_->open();
  if (camera_ == nullptr) throw ToolError("the array camera cannot open a camera");
}

ArrayCamera::~ArrayCamera() {
  if (camera_ != nullptr) api_->close(static_cast<ArraycamCamera*>(camera_));
}

void ArrayCamera::show(const cv::Mat& image, uint32_t rawBits) {
  const uint32_t bits = image.depth() == CV_16U ? 16 : 8;
  const int32_t hr = api_->setFrame(static_cast<ArraycamCamera*>(camera_), image.data,
                                    static_cast<uint32_t>(image.cols),
                                    static_cast<uint32_t>(image.rows), bits,
                                    static_cast<uint32_t>(image.channels()),
                                    static_cast<uint32_t>(image.step), rawBits);
  if (hr < 0) throw ToolError("the array camera refused the image: " +
                              resultName(static_cast<VantixResult>(hr)));
  size_ = image.size();
}

cv::Scalar cornerDarkLevel(const cv::Mat& image) {
  const int ph = std::max(1, cvRound(0.05 * image.rows));
  const int pw = std::max(1, cvRound(0.05 * image.cols));
  cv::Scalar sum;
  for (const cv::Point corner : {cv::Point(0, 0), cv::Point(image.cols - pw, 0),
                                 cv::Point(0, image.rows - ph),
                                 cv::Point(image.cols - pw, image.rows - ph)}) {
    sum += cv::mean(image(cv::Rect(corner, cv::Size(pw, ph))));
  }
  cv::Scalar level = sum * 0.25;
  if (image.channels() == 4) level[3] = 0;
  return level;
}

cv::Mat subtractDarkLevel(const cv::Mat& image, const cv::Scalar& level) {
  cv::Scalar whole;
  for (int c = 0; c < 4; ++c) whole[c] = std::round(level[c]);
  cv::Mat out;
  cv::subtract(image, whole, out);  // saturates at 0
  return out;
}

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

std::vector<SpotResult> SpotSession::pull(void* camera, cv::Size size, uint32_t bitCount,
                                          cv::Mat* frame) {
  const size_t pitch = (static_cast<size_t>(size.width) * bitCount + 31) / 32 * 4;
  buffer_.resize(pitch * static_cast<size_t>(size.height));
  FrameInfoV2 info{};
  // The library leaves the records as they were for a frame without signal;
  // starting from zeros makes such a frame read as total 0 rather than as
  // the frame before.
  std::fill(records_.begin(), records_.end(), SpotResult{});
  const VantixResult hr = vantix_spot_pull(session_, camera, 1, buffer_.data(), bitCount, 0,
                                           &info, records_.data());
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
