// The simulated camera SDK: cameras, scenes, pixel output and the exported
// SDK entry points.
#include "simcam.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "simcam_internal.h"
#include "testing/scenes.h"

namespace {

using simcam::effectivePitch;

constexpr uint32_t kMaxSide = 16384;
constexpr uint32_t kMaxSpots = 64;
constexpr double kPi = 3.14159265358979323846;

// ---------------------------------------------------------------------------
// Scenes.  A scene renders frame i of the camera's frame size as either
// CV_8UC3 (B G R) or CV_32FC1 (grey, 0..1 of full scale), and answers the
// truth queries of its kind (the others stay empty).
// ---------------------------------------------------------------------------

struct Scene {
  std::function<cv::Mat(uint32_t index)> render;
  std::function<SimcamPoint(uint32_t index)> position;                  // pans
  std::function<SimcamSpotTruth(uint32_t index, uint32_t spot)> truth;  // spots
  uint32_t spots = 0;
};
using ScenePtr = std::shared_ptr<const Scene>;

bool validImage(const uint8_t* bgr, uint32_t width, uint32_t height, uint32_t stride) {
  return bgr != nullptr && width >= 1 && height >= 1 && width <= kMaxSide && height <= kMaxSide &&
         stride >= width * 3;
}

// A copy of host rows; empty when they are not a valid image.
cv::Mat importImage(const uint8_t* bgr, uint32_t width, uint32_t height, uint32_t stride) {
  if (!validImage(bgr, width, height, stride)) return cv::Mat();
  return cv::Mat(static_cast<int>(height), static_cast<int>(width), CV_8UC3,
                 const_cast<uint8_t*>(bgr), stride)
      .clone();
}

cv::Mat fitToFrame(const cv::Mat& image, cv::Size frame) {
  if (image.size() == frame) return image;
  const bool shrinking = image.cols >= frame.width && image.rows >= frame.height;
  cv::Mat out;
  cv::resize(image, out, frame, 0, 0, shrinking ? cv::INTER_AREA : cv::INTER_LINEAR);
  return out;
}

ScenePtr stillScene(const cv::Mat& image) {
  auto scene = std::make_shared<Scene>();
  scene->render = [image](uint32_t) { return image; };
  return scene;
}

ScenePtr panScene(const cv::Mat& image, cv::Size frame, std::vector<SimcamPoint> path,
                  uint32_t framesPerSegment) {
  auto scene = std::make_shared<Scene>();
  scene->position = [=](uint32_t index) {
    SimcamPoint p = path.back();
    const uint64_t segment = index / framesPerSegment;
    if (segment + 1 < path.size()) {
      const SimcamPoint& a = path[segment];
      const SimcamPoint& b = path[segment + 1];
      const double t = static_cast<double>(index % framesPerSegment) / framesPerSegment;
      p = {a.x + t * (b.x - a.x), a.y + t * (b.y - a.y)};
    }
    p.x = std::clamp(p.x, 0.0, static_cast<double>(image.cols - frame.width));
    p.y = std::clamp(p.y, 0.0, static_cast<double>(image.rows - frame.height));
    return p;
  };
  scene->render = [image, frame, position = scene->position](uint32_t index) {
    const SimcamPoint p = position(index);
    return vtest::sampleWindow(image, {p.x, p.y}, frame);
  };
  return scene;
}

// Blurred copies of the sharp image are made once (at most 12 levels); each
// frame blends, per pixel, the two around that pixel's sigma.
ScenePtr focusScene(const cv::Mat& sharp, uint32_t frameCount, double maxBlur) {
  const cv::Mat depth = vtest::hillDepth(sharp.size());  // CV_32F, 0..1
  const auto levels = std::make_shared<const vtest::BlurLevels>(sharp, maxBlur, 12);
  const auto sigma = [=](uint32_t index, double d) {
    if (frameCount < 2 || maxBlur <= 0) return 0.0;
    const double spacing = 1.0 / (frameCount - 1);
    const double focus = (index % frameCount) * spacing;
    const double halfField = spacing / 2;
    return maxBlur * std::max(0.0, std::abs(d - focus) - halfField) / (1 - halfField);
  };
  auto scene = std::make_shared<Scene>();
  scene->render = [=](uint32_t index) {
    cv::Mat sigmas(depth.size(), CV_32F);
    for (int y = 0; y < depth.rows; ++y) {
      for (int x = 0; x < depth.cols; ++x) {
        sigmas.at<float>(y, x) = static_cast<float>(sigma(index, depth.at<float>(y, x)));
      }
    }
    return levels->defocus(sigmas);
  };
  return scene;
}

// Spots are point-sampled at pixel centres within 6 sigma of the centre.
ScenePtr spotScene(cv::Size frame, std::vector<SimcamSpot> spots, double background, double noise,
                   uint32_t seed) {
  auto scene = std::make_shared<Scene>();
  scene->spots = static_cast<uint32_t>(spots.size());
  scene->truth = [spots](uint32_t index, uint32_t k) {
    const SimcamSpot& s = spots[k];
    SimcamSpotTruth t{s.centerX, s.centerY, s.sigmaX, s.sigmaY, s.angle, s.peak};
    if (s.orbitPeriod > 0) {
      const double phase = 2 * kPi * index / s.orbitPeriod;
      t.centerX += s.orbitRadius * std::cos(phase);
      t.centerY += s.orbitRadius * std::sin(phase);
    }
    if (s.breathPeriod > 0) {
      const double scale = 1 + s.breathAmplitude * std::sin(2 * kPi * index / s.breathPeriod);
      t.sigmaX *= scale;
      t.sigmaY *= scale;
    }
    return t;
  };
  scene->render = [=, truth = scene->truth, count = scene->spots](uint32_t index) {
    cv::Mat image(frame, CV_32F, cv::Scalar(background));
    for (uint32_t k = 0; k < count; ++k) {
      const SimcamSpotTruth t = truth(index, k);
      vtest::addBeam(image, {t.centerX, t.centerY, t.sigmaX, t.sigmaY, t.angle, t.peak}, 6);
    }
    if (noise > 0) {
      cv::Mat field(frame, CV_32F);
      cv::RNG rng((static_cast<uint64_t>(seed) << 32) ^ (index * 0x9E3779B97F4A7C15ull) ^ 1u);
      rng.fill(field, cv::RNG::NORMAL, 0.0, noise);
      image += field;
    }
    cv::max(image, 0.0, image);
    cv::min(image, 1.0, image);
    return image;
  };
  return scene;
}

// ---------------------------------------------------------------------------
// Pixel output
// ---------------------------------------------------------------------------

// Converts a rendered frame (8-bit B G R or grey 0..1) to the layout of
// `bits`: grey outputs take the frame's grey, 16-bit grey the raw depth,
// 16-bit colour the full 16-bit scale.
cv::Mat convertFrame(const cv::Mat& frame, int32_t bits, uint32_t rawBits) {
  const bool colour = bits >= 24, wide = bits == 16 || bits >= 48;
  const double full = wide ? (bits == 16 ? (1u << (rawBits == 0 ? 16 : rawBits)) - 1 : 65535) : 255;
  cv::Mat source = frame, out;
  if (!colour && frame.channels() == 3) cv::cvtColor(frame, source, cv::COLOR_BGR2GRAY);
  source.convertTo(out, wide ? CV_16U : CV_8U, frame.depth() == CV_8U ? full / 255.0 : full);
  if (colour && out.channels() == 1) cv::cvtColor(out, out, cv::COLOR_GRAY2BGR);
  if (bits == 32 || bits == 64) cv::cvtColor(out, out, cv::COLOR_BGR2BGRA);
  return out;
}

void writeRows(const cv::Mat& image, void* buffer, uint32_t pitch) {
  const size_t rowBytes = image.cols * image.elemSize();
  auto* dst = static_cast<uint8_t*>(buffer);
  for (int y = 0; y < image.rows; ++y) {
    std::memcpy(dst + static_cast<size_t>(y) * pitch, image.ptr(y), rowBytes);
  }
}

simcam::Stats gStats;

// Runs a control or SDK function, turning a C++ exception into a code so
// that none crosses the C boundary.
template <typename Body>
int32_t guarded(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return SIMCAM_E_OUTOFMEMORY;
  } catch (const cv::Exception& e) {
    return e.code == cv::Error::StsNoMem ? SIMCAM_E_OUTOFMEMORY : SIMCAM_E_INVALIDARG;
  } catch (...) {
    return SIMCAM_E_INVALIDARG;
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Cameras
// ---------------------------------------------------------------------------

struct SimcamCamera {
  std::mutex lock;
  cv::Size size;
  int32_t result = 0;
  uint32_t rawBits = 12;
  uint32_t frameIndex = 0;
  ScenePtr scene;

  ScenePtr current() {
    std::lock_guard<std::mutex> hold(lock);
    return scene;
  }

  // Renders and writes frame `index`; the caller holds the lock.
  int32_t write(uint32_t index, void* buffer, int32_t bits, int32_t rowPitch) const {
    const uint32_t pitch = effectivePitch(size.width, bits, rowPitch);
    if (pitch == 0) return SIMCAM_E_INVALIDARG;
    writeRows(convertFrame(scene->render(index), bits, rawBits), buffer, pitch);
    return SIMCAM_S_OK;
  }
};

namespace {

// Installs the scene `make` returns (none: invalid arguments).
template <typename Make>
int32_t install(SimcamCamera* camera, Make make) {
  if (camera == nullptr) return SIMCAM_E_POINTER;
  return guarded([&] {
    ScenePtr scene = make();
    if (!scene) return SIMCAM_E_INVALIDARG;
    std::lock_guard<std::mutex> lock(camera->lock);
    camera->scene = std::move(scene);
    return SIMCAM_S_OK;
  });
}

}  // namespace

namespace simcam {

int32_t pull(Counter counter, void* camera, void* buffer, int32_t bits, int32_t rowPitch,
             void* info, size_t infoSize, uint32_t* width, uint32_t* height) {
  gStats.count(counter);
  if (camera == nullptr || buffer == nullptr) return SIMCAM_E_POINTER;
  auto* cam = static_cast<SimcamCamera*>(camera);
  return guarded([&] {
    std::lock_guard<std::mutex> lock(cam->lock);
    if (cam->result < 0) return cam->result;
    const int32_t written = cam->write(cam->frameIndex, buffer, bits, rowPitch);
    if (written != SIMCAM_S_OK) return written;
    report(info, infoSize, cam->size.width, cam->size.height, cam->frameIndex++, width, height);
    return cam->result;
  });
}

}  // namespace simcam

extern "C" {

SIMCAM_API const char* DllPrefix(void) {
  gStats.count(&SimcamStats::prefixCalls);
  return "Simcam";
}

SIMCAM_API int32_t DllPullImageWithRowPitchV2(void* camera, void* buffer, int32_t bits,
                                              int32_t rowPitch, void* frameInfoV2) {
  return simcam::pull(&SimcamStats::pullV2Calls, camera, buffer, bits, rowPitch, frameInfoV2, 24,
                      nullptr, nullptr);
}

SIMCAM_API int32_t DllPullImageV3(void* camera, void* buffer, int32_t, int32_t bits,
                                  int32_t rowPitch, void* frameInfoV3) {
  return simcam::pull(&SimcamStats::pullV3Calls, camera, buffer, bits, rowPitch, frameInfoV3, 40,
                      nullptr, nullptr);
}

SIMCAM_API int32_t Simcam_get_RawFormat(void* camera, uint32_t* format, uint32_t* bitDepth) {
  gStats.count(&SimcamStats::rawFormatCalls);
  if (camera == nullptr) return SIMCAM_E_POINTER;
  auto* cam = static_cast<SimcamCamera*>(camera);
  std::lock_guard<std::mutex> lock(cam->lock);
  if (format != nullptr) *format = SIMCAM_RAW_FOURCC;
  if (bitDepth != nullptr) *bitDepth = cam->rawBits;
  return SIMCAM_S_OK;
}

SIMCAM_API SimcamCamera* simcam_open(uint32_t width, uint32_t height) {
  if (width == 0 || height == 0 || width > kMaxSide || height > kMaxSide) return nullptr;
  try {
    auto cam = std::make_unique<SimcamCamera>();
    cam->size = cv::Size(static_cast<int>(width), static_cast<int>(height));
    cam->scene = stillScene(vtest::texturedScene(cam->size));
    return cam.release();
  } catch (...) {
    return nullptr;
  }
}

SIMCAM_API void simcam_close(SimcamCamera* camera) {
  delete camera;
}

SIMCAM_API void simcam_set_result(SimcamCamera* camera, int32_t result) {
  std::lock_guard<std::mutex> lock(camera->lock);
  camera->result = result;
}

SIMCAM_API int32_t simcam_set_raw_bits(SimcamCamera* camera, uint32_t bits) {
  if (bits != 0 && (bits < 8 || bits > 16)) return SIMCAM_E_INVALIDARG;
  std::lock_guard<std::mutex> lock(camera->lock);
  camera->rawBits = bits;
  return SIMCAM_S_OK;
}

SIMCAM_API uint32_t simcam_frame_index(SimcamCamera* camera) {
  std::lock_guard<std::mutex> lock(camera->lock);
  return camera->frameIndex;
}

SIMCAM_API void simcam_set_frame_index(SimcamCamera* camera, uint32_t index) {
  std::lock_guard<std::mutex> lock(camera->lock);
  camera->frameIndex = index;
}

SIMCAM_API size_t simcam_frame_bytes(SimcamCamera* camera, int32_t bits, int32_t rowPitch) {
  const uint32_t pitch = effectivePitch(camera->size.width, bits, rowPitch);
  return static_cast<size_t>(pitch) * camera->size.height;
}

SIMCAM_API int32_t simcam_render(SimcamCamera* camera, uint32_t index, void* buffer, int32_t bits,
                                 int32_t rowPitch) {
  if (camera == nullptr || buffer == nullptr) return SIMCAM_E_POINTER;
  return guarded([&] {
    std::lock_guard<std::mutex> lock(camera->lock);
    return camera->write(index, buffer, bits, rowPitch);
  });
}

SIMCAM_API int32_t simcam_set_pan(SimcamCamera* camera, const uint8_t* bgr, uint32_t width,
                                  uint32_t height, uint32_t stride, const SimcamPoint* path,
                                  uint32_t count, uint32_t framesPerSegment) {
  return install(camera, [&]() -> ScenePtr {
    if (path == nullptr || count == 0 || framesPerSegment == 0 ||
        width < static_cast<uint32_t>(camera->size.width) ||
        height < static_cast<uint32_t>(camera->size.height)) {
      return nullptr;
    }
    for (uint32_t i = 0; i < count; ++i) {
      if (!std::isfinite(path[i].x) || !std::isfinite(path[i].y)) return nullptr;
    }
    const cv::Mat image = importImage(bgr, width, height, stride);
    if (image.empty()) return nullptr;
    return panScene(image, camera->size, std::vector<SimcamPoint>(path, path + count),
                    framesPerSegment);
  });
}

SIMCAM_API int32_t simcam_pan_position(SimcamCamera* camera, uint32_t index,
                                       SimcamPoint* position) {
  if (camera == nullptr || position == nullptr) return SIMCAM_E_POINTER;
  const ScenePtr scene = camera->current();
  if (!scene->position) return SIMCAM_E_INVALIDARG;
  *position = scene->position(index);
  return SIMCAM_S_OK;
}

SIMCAM_API int32_t simcam_set_focus_sweep(SimcamCamera* camera, const uint8_t* bgr, uint32_t width,
                                          uint32_t height, uint32_t stride, uint32_t frameCount,
                                          double maxBlurSigma) {
  return install(camera, [&]() -> ScenePtr {
    if (frameCount == 0 || !(maxBlurSigma >= 0) || maxBlurSigma > 100) return nullptr;
    const cv::Mat image = importImage(bgr, width, height, stride);
    if (image.empty()) return nullptr;
    return focusScene(fitToFrame(image, camera->size), frameCount, maxBlurSigma);
  });
}

SIMCAM_API int32_t simcam_set_spots(SimcamCamera* camera, const SimcamSpot* spots, uint32_t count,
                                    double background, double noise, uint32_t seed) {
  if (spots == nullptr) return SIMCAM_E_POINTER;
  return install(camera, [&]() -> ScenePtr {
    if (count == 0 || count > kMaxSpots || !std::isfinite(background) || !(noise >= 0) ||
        !std::isfinite(noise)) {
      return nullptr;
    }
    std::vector<SimcamSpot> list(spots, spots + count);
    for (const SimcamSpot& s : list) {
      for (double v : {s.centerX, s.centerY, s.sigmaX, s.sigmaY, s.angle, s.peak, s.orbitRadius,
                       s.orbitPeriod, s.breathAmplitude, s.breathPeriod}) {
        if (!std::isfinite(v)) return nullptr;
      }
      if (!(s.sigmaX > 0) || !(s.sigmaY > 0) || std::abs(s.breathAmplitude) >= 1) return nullptr;
    }
    return spotScene(camera->size, std::move(list), background, noise, seed);
  });
}

SIMCAM_API int32_t simcam_spot_truth(SimcamCamera* camera, uint32_t index, uint32_t spot,
                                     SimcamSpotTruth* truth) {
  if (camera == nullptr || truth == nullptr) return SIMCAM_E_POINTER;
  const ScenePtr scene = camera->current();
  if (spot >= scene->spots) return SIMCAM_E_INVALIDARG;
  *truth = scene->truth(index, spot);
  return SIMCAM_S_OK;
}

SIMCAM_API int32_t simcam_texture(uint8_t* bgr, uint32_t width, uint32_t height, uint32_t stride,
                                  uint32_t seed) {
  if (bgr == nullptr) return SIMCAM_E_POINTER;
  if (!validImage(bgr, width, height, stride)) return SIMCAM_E_INVALIDARG;
  return guarded([&] {
    writeRows(
        vtest::texturedScene(cv::Size(static_cast<int>(width), static_cast<int>(height)), seed),
        bgr, stride);
    return SIMCAM_S_OK;
  });
}

SIMCAM_API int32_t simcam_blur(const uint8_t* bgr, uint32_t width, uint32_t height, uint32_t stride,
                               double sigma, uint8_t* out, uint32_t outStride) {
  if (bgr == nullptr || out == nullptr) return SIMCAM_E_POINTER;
  if (!validImage(bgr, width, height, stride) || outStride < width * 3 || !(sigma > 0) ||
      sigma > 100) {
    return SIMCAM_E_INVALIDARG;
  }
  return guarded([&] {
    cv::Mat blurred;
    cv::GaussianBlur(importImage(bgr, width, height, stride), blurred, cv::Size(), sigma, sigma,
                     cv::BORDER_REFLECT_101);
    writeRows(blurred, out, outStride);
    return SIMCAM_S_OK;
  });
}

SIMCAM_API void simcam_get_stats(SimcamStats* stats) {
  gStats.get(stats);
}

}  // extern "C"
