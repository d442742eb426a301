// The tool's spot-measurement layer: the simulated camera SDK, loaded the way
// a host has its camera SDK loaded, and a spot session pulling from it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

#include "../simcam/simcam_loader.h"

namespace vtool {

// Where the simulated camera library is: `override` when not empty, else
// $VANTIX_SIMCAM, else libvantix_simcam.so in ../simcam/ beside this
// program's folder (the build tree's layout), else the name alone (found
// through the loader's search path).
std::string simcamLibraryPath(const std::string& override);

// One camera of the simulated SDK.  Loading the library is what lets the
// spot session's pull find the SDK.  Throws ToolError when the library or a
// camera cannot be had.
class SimCamera {
 public:
  SimCamera(const std::string& libraryPath, cv::Size frameSize);
  ~SimCamera();
  SimCamera(const SimCamera&) = delete;
  SimCamera& operator=(const SimCamera&) = delete;

  SimcamCamera* handle() const { return camera_; }
  cv::Size frameSize() const { return size_; }
  const SimcamApi& api() const { return api_; }

  // Every following frame shows `image` (converted to 8-bit B G R, resized to
  // the frame size).
  void showStill(const cv::Mat& image);
  // Raw bit depth of 16-bit grey frames (8..16).
  void setRawBits(uint32_t bits);

 private:
  SimcamApi api_{};
  SimcamCamera* camera_ = nullptr;
  cv::Size size_;
};

// Owns a vantix_spot_ session.
class SpotSession {
 public:
  SpotSession(uint32_t spotCount, uint32_t averageCount);
  ~SpotSession();
  SpotSession(const SpotSession&) = delete;
  SpotSession& operator=(const SpotSession&) = delete;

  void setRoi(const cv::Rect& roi);
  void setAperture(const SpotAperture& aperture);

  // Pulls one frame of `bitCount` bits from the camera and measures it;
  // returns the records (spotCount of them).  `frame` receives the pulled
  // frame (one or three channels, 8 or 16 bits).  Throws ToolError when the
  // pull fails.
  std::vector<SpotResult> pull(SimCamera& camera, uint32_t bitCount, cv::Mat* frame = nullptr);

 private:
  VantixSpot* session_ = nullptr;
  uint32_t spotCount_;
  std::vector<uint8_t> buffer_;
  std::vector<SpotResult> records_;  // kept between pulls: a frame without
                                     // signal leaves the last record
};

// The eleven fields of a record, in order, and their column names.
const std::vector<std::string>& spotFieldNames();
std::vector<double> spotFields(const SpotResult& record);

}  // namespace vtool
