// The tool's spot-measurement layer: the camera SDKs a spot session pulls
// from (the array camera, which serves the tool's images as they are, and
// the simulated camera of the demo), loaded the way a host has its camera SDK
// loaded, and a spot session pulling from them.
#pragma once

#include <cstdint>
#include <memory>
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

// Where the array camera library is: $VANTIX_ARRAYCAM when set, else
// libvantix_arraycam.so in ../arraycam/ beside this program's folder (the
// build tree's layout), else the name alone (found through this program's
// run path, which holds the installed lib/).
std::string arraycamLibraryPath();

// One camera of the array camera (tools/arraycam/arraycam.h): every pull
// delivers the image last shown, in the layout the pull asks for.  The
// library binds the first camera SDK loaded in a process, so no other SDK
// may be loaded before it: the constructor checks that.  Throws ToolError
// when the library cannot be loaded or another SDK comes first.
class ArrayCamera {
 public:
  explicit ArrayCamera(const std::string& libraryPath);
  ~ArrayCamera();
  ArrayCamera(const ArrayCamera&) = delete;
  ArrayCamera& operator=(const ArrayCamera&) = delete;

  void* handle() const { return camera_; }
  cv::Size frameSize() const { return size_; }

  // Every following pull delivers `image` (8- or 16-bit, 1, 3 or 4
  // channels; copied), with raw bit depth `rawBits` (0: the sample size).
  void show(const cv::Mat& image, uint32_t rawBits = 0);

 private:
  struct Api;
  std::unique_ptr<Api> api_;
  void* camera_ = nullptr;
  cv::Size size_;
};

// The dark level of an 8- or 16-bit image: the mean of its four corner
// patches, each 5 % of the height by 5 % of the width (at least a pixel),
// per channel (a fourth channel, alpha, gets 0).
cv::Scalar cornerDarkLevel(const cv::Mat& image);
// `image` minus `level` rounded to whole counts, clamped at 0.
cv::Mat subtractDarkLevel(const cv::Mat& image, const cv::Scalar& level);

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
  // returns the records (spotCount of them; all zero for a frame without
  // signal).  `frame` receives the pulled
  // frame (one or three channels, 8 or 16 bits).  Throws ToolError when the
  // pull fails.
  std::vector<SpotResult> pull(SimCamera& camera, uint32_t bitCount, cv::Mat* frame = nullptr) {
    return pull(camera.handle(), camera.frameSize(), bitCount, frame);
  }
  std::vector<SpotResult> pull(ArrayCamera& camera, uint32_t bitCount, cv::Mat* frame = nullptr) {
    return pull(camera.handle(), camera.frameSize(), bitCount, frame);
  }
  // The same for any camera handle of the bound SDK delivering `size` frames.
  std::vector<SpotResult> pull(void* camera, cv::Size size, uint32_t bitCount,
                               cv::Mat* frame = nullptr);

 private:
  VantixSpot* session_ = nullptr;
  uint32_t spotCount_;
  std::vector<uint8_t> buffer_;
  std::vector<SpotResult> records_;
};

// The eleven fields of a record, in order, and their column names.
const std::vector<std::string>& spotFieldNames();
std::vector<double> spotFields(const SpotResult& record);

}  // namespace vtool
