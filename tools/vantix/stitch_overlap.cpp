#include "stitch_overlap.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace vtool {

namespace {

constexpr int kSide = 256;  // longest side of the measured copies
constexpr int kPeaks = 6;   // correlation peaks tried
constexpr double kMinCorrelation = 0.6;
constexpr double kMinShared = 0.05;  // of the frame's area
constexpr int kMinSharedSide = 16;   // pixels of the small copies
constexpr int kTaper = 12;           // pixels of the small copies

cv::Mat smallGrey(const cv::Mat& image, double scale) {
  cv::Mat grey = image;
  if (image.channels() == 3) cv::cvtColor(image, grey, cv::COLOR_BGR2GRAY);
  if (image.channels() == 4) cv::cvtColor(image, grey, cv::COLOR_BGRA2GRAY);
  cv::Mat small;
  if (scale < 1.0) {
    cv::resize(grey, small, cv::Size(), scale, scale, cv::INTER_AREA);
  } else {
    small = grey;
  }
  cv::Mat out;
  small.convertTo(out, CV_32F);
  return out;
}

// 1 inside, falling to 0 over kTaper pixels at each edge (raised cosine).
cv::Mat edgeTaper(cv::Size size) {
  auto ramp = [](int length) {
    cv::Mat r(1, length, CV_32F, cv::Scalar(1));
    for (int i = 0; i < std::min(kTaper, length / 2); ++i) {
      const float w = 0.5f - 0.5f * std::cos(static_cast<float>(CV_PI) * (i + 0.5f) / kTaper);
      r.at<float>(0, i) = w;
      r.at<float>(0, length - 1 - i) = w;
    }
    return r;
  };
  const cv::Mat rows = ramp(size.height).t(), columns = ramp(size.width);
  return rows * columns;
}

// Normalised correlation of the parts of `a` and `b` that overlap when b's
// top-left corner lies at `d` in a; NaN when they share too little.
double sharedCorrelation(const cv::Mat& a, const cv::Mat& b, cv::Point d) {
  const cv::Rect inA = cv::Rect(d, b.size()) & cv::Rect(cv::Point(), a.size());
  if (inA.width < kMinSharedSide || inA.height < kMinSharedSide ||
      inA.area() < kMinShared * a.size().area()) {
    return std::nan("");
  }
  const cv::Rect inB = inA - d;
  cv::Mat result;
  cv::matchTemplate(a(inA), b(inB), result, cv::TM_CCOEFF_NORMED);
  return static_cast<double>(result.at<float>(0, 0));
}

}  // namespace

FrameShift measureShift(const cv::Mat& first, const cv::Mat& second) {
  CV_Assert(first.size() == second.size());
  const double scale = std::min(1.0, static_cast<double>(kSide) / std::max(first.cols, first.rows));
  const cv::Mat a = smallGrey(first, scale), b = smallGrey(second, scale);
  const cv::Size padded(cv::getOptimalDFTSize(a.cols), cv::getOptimalDFTSize(a.rows));

  // Zero-mean copies padded with zeros, their cross-power spectrum
  // normalised to unit magnitude, and its inverse: peaks where a shift of
  // one frame matches the other.
  // The frames' edges are tapered to zero over a few pixels: a hard edge
  // correlates with itself at every shift along the axes and would outshine
  // the true peak.
  const cv::Mat taper = edgeTaper(a.size());
  auto spectrum = [&](const cv::Mat& image) {
    cv::Mat centred = (image - cv::mean(image)[0]).mul(taper);
    cv::Mat canvas = cv::Mat::zeros(padded, CV_32F);
    centred.copyTo(canvas(cv::Rect(cv::Point(), image.size())));
    cv::Mat out;
    cv::dft(canvas, out, cv::DFT_COMPLEX_OUTPUT);
    return out;
  };
  cv::Mat cross;
  cv::mulSpectrums(spectrum(a), spectrum(b), cross, 0, true);
  std::vector<cv::Mat> parts;
  cv::split(cross, parts);
  cv::Mat magnitude;
  cv::magnitude(parts[0], parts[1], magnitude);
  magnitude += 1e-9f;
  cv::divide(parts[0], magnitude, parts[0]);
  cv::divide(parts[1], magnitude, parts[1]);
  cv::merge(parts, cross);
  cv::Mat surface;
  cv::idft(cross, surface, cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);

  FrameShift best;
  best.correlation = -1.0;
  cv::Point bestShift;
  for (int k = 0; k < kPeaks; ++k) {
    double value = 0;
    cv::Point peak;
    cv::minMaxLoc(surface, nullptr, &value, nullptr, &peak);
    if (!std::isfinite(value)) break;
    cv::rectangle(surface, cv::Rect(peak - cv::Point(2, 2), cv::Size(5, 5)), cv::Scalar(-1e9),
                  cv::FILLED);
    // A peak at p means b(x) matches a(x + p): b's corner lies at p in a,
    // modulo the padded size.
    const int px = peak.x, py = peak.y;
    for (int dx : {px, px - padded.width}) {
      for (int dy : {py, py - padded.height}) {
        const double r = sharedCorrelation(a, b, cv::Point(dx, dy));
        if (std::isfinite(r) && r > best.correlation) {
          best.correlation = r;
          bestShift = cv::Point(dx, dy);
        }
      }
    }
  }
  if (best.correlation < kMinCorrelation) {
    best.correlation = std::max(best.correlation, 0.0);
    return best;
  }
  best.found = true;
  best.shift = cv::Point2d(bestShift.x / scale, bestShift.y / scale);
  best.overlap = std::max(0.0, std::min(1.0 - std::fabs(best.shift.x) / first.cols,
                                        1.0 - std::fabs(best.shift.y) / first.rows));
  return best;
}

}  // namespace vtool
