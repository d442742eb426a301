// Focus stacks with known ground truth for the EDF tests and benchmark: a
// sharp photograph, a depth map, and slices blurred by a Gaussian whose sigma
// grows with the distance between each pixel's depth and the slice's focus.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace vtest {

constexpr char kEdfSampleFolder[] = "/usr/share/doc/opencv-doc/examples/data";

// A photograph of Debian's opencv-doc package as 8-bit B G R, resized to
// `size` when given.  Fails the test (and returns an empty image) when the
// package is missing.
inline cv::Mat edfSamplePhoto(const std::string& file, cv::Size size = cv::Size()) {
  const std::string path = std::string(kEdfSampleFolder) + "/" + file;
  cv::Mat image = cv::imread(path, cv::IMREAD_COLOR);
  if (image.empty()) {
    ADD_FAILURE() << "cannot read " << path
                  << ": install the sample photographs with 'apt-get install opencv-doc'";
    return image;
  }
  if (size.area() > 0 && size != image.size()) cv::resize(image, image, size, 0, 0, cv::INTER_AREA);
  return image;
}

// Depth in `steps` vertical bands of equal width, 0 on the left to 1 on the right.
inline cv::Mat steppedDepth(cv::Size size, int steps) {
  cv::Mat depth(size, CV_32F);
  for (int x = 0; x < size.width; ++x) {
    const int band = std::min(steps - 1, x * steps / size.width);
    depth.col(x).setTo(steps > 1 ? static_cast<float>(band) / (steps - 1) : 0.0f);
  }
  return depth;
}

// Depth 0..1 rising linearly from the left edge to the right edge.
inline cv::Mat tiltedDepth(cv::Size size) { return steppedDepth(size, size.width); }

// The slice focused at depth `focus`: each pixel is the photograph blurred by
// a Gaussian of sigma maxSigma * |depth - focus| (interpolated between
// blurs computed every 0.25 pixel of sigma).
inline cv::Mat defocusedSlice(const cv::Mat& sharp, const cv::Mat& depth, double focus,
                              double maxSigma) {
  constexpr double kSigmaStep = 0.25;
  const int levels = static_cast<int>(std::ceil(maxSigma / kSigmaStep)) + 2;
  std::vector<cv::Mat> blurs(levels);
  sharp.convertTo(blurs[0], CV_32FC3);
  for (int i = 1; i < levels; ++i) {
    cv::GaussianBlur(blurs[0], blurs[i], cv::Size(0, 0), i * kSigmaStep, i * kSigmaStep,
                     cv::BORDER_REFLECT_101);
  }
  cv::Mat slice(sharp.size(), CV_8UC3);
  for (int y = 0; y < sharp.rows; ++y) {
    for (int x = 0; x < sharp.cols; ++x) {
      const double sigma = maxSigma * std::abs(depth.at<float>(y, x) - focus);
      const double position = std::min(sigma / kSigmaStep, levels - 1.001);
      const int i = static_cast<int>(position);
      const double f = position - i;
      const cv::Vec3f a = blurs[i].at<cv::Vec3f>(y, x);
      const cv::Vec3f b = blurs[i + 1].at<cv::Vec3f>(y, x);
      for (int c = 0; c < 3; ++c) {
        slice.at<cv::Vec3b>(y, x)[c] = cv::saturate_cast<uchar>(a[c] * (1 - f) + b[c] * f);
      }
    }
  }
  return slice;
}

// `count` slices focused at depths evenly spread over 0..1.
inline std::vector<cv::Mat> focusStack(const cv::Mat& sharp, const cv::Mat& depth, int count,
                                       double maxSigma) {
  std::vector<cv::Mat> slices;
  for (int k = 0; k < count; ++k) {
    const double focus = count > 1 ? static_cast<double>(k) / (count - 1) : 0.0;
    slices.push_back(defocusedSlice(sharp, depth, focus, maxSigma));
  }
  return slices;
}

// Mean absolute Laplacian of the grey image over `region`: how much fine
// detail it holds.
inline double meanDetail(const cv::Mat& bgr, const cv::Rect& region) {
  cv::Mat grey, lap;
  cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
  cv::Laplacian(grey, lap, CV_32F, 3);
  return cv::mean(cv::abs(lap(region)))[0];
}

inline double psnr(const cv::Mat& a, const cv::Mat& b, const cv::Rect& region) {
  return cv::PSNR(a(region), b(region));
}

// Magnifies `image` by `scale` about its centre and shifts it by (dx, dy)
// pixels (bilinear, edges replicated).
inline cv::Mat moved(const cv::Mat& image, double scale, double dx, double dy) {
  const cv::Point2f centre(image.cols / 2.0f, image.rows / 2.0f);
  cv::Mat m = cv::getRotationMatrix2D(centre, 0.0, scale);
  m.at<double>(0, 2) += dx;
  m.at<double>(1, 2) += dy;
  cv::Mat out;
  cv::warpAffine(image, out, m, image.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  return out;
}

}  // namespace vtest
