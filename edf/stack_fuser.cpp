#include "edf/stack_fuser.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <mutex>

#include <opencv2/imgproc.hpp>

namespace vantix {

namespace {

constexpr int kMeasureLevels = 8;  // cv::buildPyramid with maxlevel 7
constexpr int kScaleBlocks = 8;
// Steepness of the logistic weight by class of q = 2 g / t.
constexpr double kSteepness[4] = {0.1, 1.0, 8.0, 81.0};

// Interpolation of one output coordinate from a source axis, as the
// bilinear resize places it: sample (i + 0.5) * ratio - 0.5, clamped to the
// edge samples.
struct AxisMap {
  std::vector<int> first;
  std::vector<int> second;
  std::vector<float> weight;  // of `second`
};

AxisMap axisMap(int sourceSize, int targetSize) {
  AxisMap map;
  map.first.resize(targetSize);
  map.second.resize(targetSize);
  map.weight.resize(targetSize);
  const double ratio = static_cast<double>(sourceSize) / targetSize;
  for (int i = 0; i < targetSize; ++i) {
    const double position = (i + 0.5) * ratio - 0.5;
    int s = static_cast<int>(std::floor(position));
    float fraction = static_cast<float>(position - s);
    if (s < 0) {
      s = 0;
      fraction = 0.0f;
    }
    if (s >= sourceSize - 1) {
      s = sourceSize - 1;
      fraction = 0.0f;
    }
    map.first[i] = s;
    map.second[i] = std::min(s + 1, sourceSize - 1);
    map.weight[i] = fraction;
  }
  return map;
}

// The weight tables: one 65536-entry table a steepness class, indexed by the
// 16-bit difference m1 - m2 (as an unsigned 16-bit value).  Built once.
const float* weightTable(int steepnessClass) {
  static std::vector<float> tables;
  static std::once_flag once;
  std::call_once(once, [] {
    tables.resize(4 * 65536);
    for (int k = 0; k < 4; ++k) {
      for (int d = -32768; d <= 32767; ++d) {
        const double w = 1.0 / (std::exp(d * kSteepness[k]) + 1.0);
        tables[k * 65536 + static_cast<uint16_t>(static_cast<int16_t>(d))] =
            static_cast<float>(w);
      }
    }
  });
  return tables.data() + steepnessClass * 65536;
}

inline int steepnessClass(int g, int t) {
  // q = 2g / t by integer division (t >= 1): the class is min(q, 3), or 0
  // for q <= 0.
  const int twice = 2 * g;
  return (twice >= t) + (twice >= 2 * t) + (twice >= 3 * t);
}

}  // namespace

void stackFocusMeasure(const cv::Mat& image, cv::Mat& measure) {
  CV_Assert(image.depth() == CV_8U && image.channels() <= 4 && !image.empty());
  const int cn = image.channels();
  const cv::Size size = image.size();
  std::vector<cv::Mat> planes;
  cv::split(image, planes);

  // Laplacians of every level of every channel.
  std::vector<std::vector<cv::Mat>> laplacians(cn);
  cv::parallel_for_(cv::Range(0, cn), [&](const cv::Range& r) {
    for (int c = r.start; c < r.end; ++c) {
      std::vector<cv::Mat> pyramid;
      cv::buildPyramid(planes[c], pyramid, kMeasureLevels - 1, cv::BORDER_REFLECT_101);
      laplacians[c].resize(pyramid.size());
      for (size_t i = 0; i < pyramid.size(); ++i) {
        cv::Laplacian(pyramid[i], laplacians[c][i], CV_16S, 1, 1.0, 0.0, cv::BORDER_REFLECT_101);
      }
    }
  });
  // Every level is brought to the full size (levels of a channel share
  // their sizes with the other channels').
  const int levels = static_cast<int>(laplacians[0].size());
  std::vector<AxisMap> columns(levels), rows(levels);
  for (int i = 1; i < levels; ++i) {
    columns[i] = axisMap(laplacians[0][i].cols, size.width);
    rows[i] = axisMap(laplacians[0][i].rows, size.height);
  }

  measure.create(size, CV_16S);
  // Stripes of output rows: each level's source rows needed by a stripe are
  // interpolated along x once, then every output row interpolates along y,
  // takes the absolute value and adds it up.
  constexpr int kStripe = 32;
  const int stripes = (size.height + kStripe - 1) / kStripe;
  cv::parallel_for_(cv::Range(0, stripes), [&](const cv::Range& range) {
    std::vector<float> sum(static_cast<size_t>(kStripe) * size.width);
    std::vector<float> horizontal;
    for (int stripe = range.start; stripe < range.end; ++stripe) {
      const int y0 = stripe * kStripe;
      const int y1 = std::min(size.height, y0 + kStripe);
      for (int c = 0; c < cn; ++c) {
        const cv::Mat& base = laplacians[c][0];
        for (int y = y0; y < y1; ++y) {
          const short* l = base.ptr<short>(y);
          float* s = &sum[static_cast<size_t>(y - y0) * size.width];
          for (int x = 0; x < size.width; ++x) s[x] = static_cast<float>(std::abs(l[x]));
        }
        for (int i = 1; i < levels; ++i) {
          const cv::Mat& level = laplacians[c][i];
          const AxisMap& cm = columns[i];
          const AxisMap& rm = rows[i];
          const int firstRow = rm.first[y0];
          const int lastRow = rm.second[y1 - 1];
          const int count = lastRow - firstRow + 1;
          horizontal.resize(static_cast<size_t>(count) * size.width);
          for (int r = 0; r < count; ++r) {
            const short* src = level.ptr<short>(firstRow + r);
            float* h = &horizontal[static_cast<size_t>(r) * size.width];
            for (int x = 0; x < size.width; ++x) {
              const float a = src[cm.first[x]];
              const float b = src[cm.second[x]];
              h[x] = a + (b - a) * cm.weight[x];
            }
          }
          for (int y = y0; y < y1; ++y) {
            const float* h0 = &horizontal[static_cast<size_t>(rm.first[y] - firstRow) * size.width];
            const float* h1 =
                &horizontal[static_cast<size_t>(rm.second[y] - firstRow) * size.width];
            const float b = rm.weight[y];
            float* s = &sum[static_cast<size_t>(y - y0) * size.width];
            for (int x = 0; x < size.width; ++x) s[x] += std::fabs(h0[x] + (h1[x] - h0[x]) * b);
          }
        }
        for (int y = y0; y < y1; ++y) {
          const float* s = &sum[static_cast<size_t>(y - y0) * size.width];
          short* m = measure.ptr<short>(y);
          if (c == 0) {
            for (int x = 0; x < size.width; ++x) m[x] = cv::saturate_cast<short>(s[x]);
          } else {
            for (int x = 0; x < size.width; ++x) {
              m[x] = std::max(m[x], cv::saturate_cast<short>(s[x]));
            }
          }
        }
      }
    }
  });
}

int stackMeasureScale(const cv::Mat& measure) {
  CV_Assert(measure.type() == CV_16S && !measure.empty());
  // Blocks of (rows / 8) x (cols / 8) pixels; an image under 8 pixels a side
  // gets blocks of one pixel, clamped to the image.
  const int blockRows = std::max(1, measure.rows / kScaleBlocks);
  const int blockCols = std::max(1, measure.cols / kScaleBlocks);
  cv::Mat means(kScaleBlocks, kScaleBlocks, CV_16S);
  for (int i = 0; i < kScaleBlocks; ++i) {
    for (int j = 0; j < kScaleBlocks; ++j) {
      const int top = std::min(i * blockRows, measure.rows - blockRows);
      const int left = std::min(j * blockCols, measure.cols - blockCols);
      const cv::Scalar mean = cv::mean(measure(cv::Rect(left, top, blockCols, blockRows)));
      means.at<short>(i, j) = cv::saturate_cast<short>(mean[0]);
    }
  }
  double smallest = 0, largest = 0;
  cv::minMaxLoc(means, &smallest, &largest);
  if (smallest < DBL_MIN) smallest = 1.0;
  const double scale = largest / smallest > 10.0 ? largest / 10.0 : smallest;
  const int t = static_cast<int16_t>(static_cast<int>(scale));
  return t <= 0 ? 1 : t;
}

float stackWeight(int16_t m1, int16_t m2, int t) {
  const int g = std::max(m1, m2);
  const auto difference = static_cast<uint16_t>(static_cast<int16_t>(m1 - m2));
  return weightTable(steepnessClass(g, t))[difference];
}

void CStackFuser::firstFrame(const cv::Mat& frame) {
  CV_Assert(frame.type() == CV_8UC3);
  accumulated_ = frame.clone();
}

void CStackFuser::addFrame(cv::Mat& frame, cv::Mat& result) {
  CV_Assert(frame.type() == CV_8UC3 && accumulated_.type() == CV_8UC3);
  // A frame of another size than the stack's cannot be blended.
  CV_Assert(frame.size() == accumulated_.size());
  // The accumulated image is the first image (m1): it holds the sharpest
  // detail found so far and gives a scale t that stays steady from frame to
  // frame.  Its weight is 1 - w, which goes to 1 where m1 > m2, so each pixel
  // follows the image that is sharper there.
  stackFocusMeasure(accumulated_, accumulatedMeasure_);
  stackFocusMeasure(frame, frameMeasure_);
  const int t = stackMeasureScale(accumulatedMeasure_);

  const cv::Size size = frame.size();
  weights_.create(size, CV_32F);
  const float* tables[4] = {weightTable(0), weightTable(1), weightTable(2), weightTable(3)};
  cv::parallel_for_(cv::Range(0, size.height), [&](const cv::Range& r) {
    for (int y = r.start; y < r.end; ++y) {
      const short* m1 = accumulatedMeasure_.ptr<short>(y);
      const short* m2 = frameMeasure_.ptr<short>(y);
      float* w = weights_.ptr<float>(y);
      for (int x = 0; x < size.width; ++x) {
        const int g = std::max(m1[x], m2[x]);
        const auto difference = static_cast<uint16_t>(static_cast<int16_t>(m1[x] - m2[x]));
        w[x] = tables[steepnessClass(g, t)][difference];
      }
    }
  });
  cv::GaussianBlur(weights_, smoothWeights_, cv::Size(3, 3), 1.0, 1.0, cv::BORDER_REFLECT_101);

  cv::Mat fused(size, CV_8UC3);
  cv::parallel_for_(cv::Range(0, size.height), [&](const cv::Range& r) {
    for (int y = r.start; y < r.end; ++y) {
      const uchar* f = frame.ptr<uchar>(y);
      const uchar* a = accumulated_.ptr<uchar>(y);
      const float* w = smoothWeights_.ptr<float>(y);
      uchar* o = fused.ptr<uchar>(y);
      for (int x = 0; x < size.width; ++x) {
        const float wf = w[x];
        const float wa = 1.0f - wf;
        for (int c = 0; c < 3; ++c) {
          const int i = 3 * x + c;
          o[i] = cv::saturate_cast<uchar>(cvRound(f[i] * wf) + cvRound(a[i] * wa));
        }
      }
    }
  });
  result = fused;
  accumulated_ = fused.clone();
}

}  // namespace vantix
