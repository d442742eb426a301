// Test beams for the spot measurement: noise-free elliptical Gaussians drawn
// by the test, and their exact second moments over the whole image (the
// ground truth the measurement is compared with).
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace spottest {

struct Beam {
  double cx, cy;      // centre, pixels (pixel (x, y) is centred at (x, y))
  double sigma1;      // along the beam's own x axis
  double sigma2;      // along its own y axis
  double angleDeg;    // turns the beam's x axis from +x toward +y (rows run down)
  double peak = 4000; // 12-bit peak in 16-bit words
};

// Adds `beam` (rounded to whole counts, saturating) into a CV_16UC1 or
// CV_8UC1 image.
inline void drawBeam(cv::Mat& image, const Beam& beam) {
  const double t = beam.angleDeg * CV_PI / 180.0;
  const double c = std::cos(t), s = std::sin(t);
  cv::Mat sum;
  image.convertTo(sum, CV_64F);
  for (int y = 0; y < image.rows; ++y) {
    for (int x = 0; x < image.cols; ++x) {
      const double dx = x - beam.cx, dy = y - beam.cy;
      const double u = c * dx + s * dy, v = -s * dx + c * dy;
      sum.at<double>(y, x) += std::round(
          beam.peak * std::exp(-0.5 * (u * u / (beam.sigma1 * beam.sigma1) +
                                       v * v / (beam.sigma2 * beam.sigma2))));
    }
  }
  sum.convertTo(image, image.type());
}

inline cv::Mat beamImage(int width, int height, const Beam& beam, int type = CV_16UC1) {
  cv::Mat image = cv::Mat::zeros(height, width, type);
  drawBeam(image, beam);
  return image;
}

// Exact moments of a one-channel image (or of a rectangle of it), in long
// double, pixel by pixel.
struct Moments {
  long double total = 0, cx = 0, cy = 0, xx = 0, yy = 0, xy = 0;
  double dX() const { return 4.0 * std::sqrt(static_cast<double>(xx)); }
  double dY() const { return 4.0 * std::sqrt(static_cast<double>(yy)); }
  // Principal-axes 4-sigma diameters.
  double dMajor() const { return static_cast<double>(2 * std::sqrt(2 * (xx + yy + spread()))); }
  double dMinor() const { return static_cast<double>(2 * std::sqrt(2 * (xx + yy - spread()))); }
  long double spread() const { return std::sqrt((xx - yy) * (xx - yy) + 4 * xy * xy); }
};

inline Moments momentsOf(const cv::Mat& image, cv::Rect rect = cv::Rect()) {
  if (rect.empty()) rect = cv::Rect(0, 0, image.cols, image.rows);
  cv::Mat values;
  image(rect).convertTo(values, CV_64F);
  Moments m;
  long double sx = 0, sy = 0;
  for (int y = 0; y < values.rows; ++y) {
    for (int x = 0; x < values.cols; ++x) {
      const long double v = values.at<double>(y, x);
      m.total += v;
      sx += v * (x + rect.x);
      sy += v * (y + rect.y);
    }
  }
  m.cx = sx / m.total;
  m.cy = sy / m.total;
  for (int y = 0; y < values.rows; ++y) {
    for (int x = 0; x < values.cols; ++x) {
      const long double v = values.at<double>(y, x);
      const long double dx = x + rect.x - m.cx, dy = y + rect.y - m.cy;
      m.xx += v * dx * dx;
      m.yy += v * dy * dy;
      m.xy += v * dx * dy;
    }
  }
  m.xx /= m.total;
  m.yy /= m.total;
  m.xy /= m.total;
  return m;
}

inline double relativeError(double measured, double truth) {
  return std::fabs(measured - truth) / std::fabs(truth);
}

// Records equal byte for byte; a zero record.
inline bool sameRecord(const SpotResult& a, const SpotResult& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}
inline bool isZero(const SpotResult& r) { return sameRecord(r, SpotResult{}); }

}  // namespace spottest
