// Frames with known displacements for the stitching unit tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace vtest {

// A photograph from Debian's opencv-doc package (8-bit BGR), or a test
// failure naming the package when it is missing.
inline cv::Mat stitchPhoto(const std::string& name) {
  const std::string path = "/usr/share/doc/opencv-doc/examples/data/" + name;
  cv::Mat image = cv::imread(path, cv::IMREAD_COLOR);
  if (image.empty()) {
    ADD_FAILURE() << "missing " << path << ": install the Debian package opencv-doc (make deps)";
  }
  return image;
}

// A textured colour scene made here: noise at several scales, like the
// detail of a photograph at coarse and fine grain (for threaded tests, which
// avoid the image decoder's own locks).
inline cv::Mat texturedScene(int rows, int cols, uint64_t seed) {
  cv::RNG rng(seed);
  cv::Mat sum(rows, cols, CV_32FC3, cv::Scalar::all(0));
  for (int scale : {16, 4, 1}) {
    cv::Mat noise((rows + scale - 1) / scale, (cols + scale - 1) / scale, CV_32FC3);
    rng.fill(noise, cv::RNG::UNIFORM, 0, 1);
    cv::Mat up;
    cv::resize(noise, up, cv::Size(cols, rows), 0, 0, cv::INTER_CUBIC);
    sum += up * (scale == 1 ? 0.5 : 1.0);
  }
  cv::GaussianBlur(sum, sum, cv::Size(0, 0), 1.0);
  cv::Mat out;
  cv::normalize(sum, sum, 20, 235, cv::NORM_MINMAX);
  sum.convertTo(out, CV_8UC3);
  return out;
}

// The w x h view of `scene` whose top-left corner lies at the (possibly
// fractional) scene point (x, y), resampled bilinearly.
inline cv::Mat viewAt(const cv::Mat& scene, double x, double y, int w, int h) {
  cv::Mat m = (cv::Mat_<double>(2, 3) << 1, 0, -x, 0, 1, -y);
  cv::Mat out;
  cv::warpAffine(scene, out, m, cv::Size(w, h), cv::INTER_LINEAR, cv::BORDER_REFLECT);
  return out;
}

inline cv::Mat grayFloat(const cv::Mat& bgr) {
  cv::Mat g, f;
  cv::cvtColor(bgr, g, cv::COLOR_BGR2GRAY);
  g.convertTo(f, CV_32F);
  return f;
}

inline cv::Mat scaled(const cv::Mat& image, int percent) {
  cv::Mat out;
  cv::resize(image, out, cv::Size(image.cols * percent / 100, image.rows * percent / 100), 0, 0,
             cv::INTER_LINEAR);
  return out;
}

}  // namespace vtest
