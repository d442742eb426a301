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

inline int reflect101(int i, int n) {
  if (n == 1) return 0;
  if (i < 0) return -i;
  if (i >= n) return 2 * n - 2 - i;
  return i;
}

// One row of the 4-neighbour Laplacian (aperture 1) of an 8-bit image with
// reflected borders: above + below + left + right - 4 * centre.
void laplacianRow(const cv::Mat& image, int y, float* out) {
  const int n = image.cols;
  const uchar* up = image.ptr<uchar>(reflect101(y - 1, image.rows));
  const uchar* mid = image.ptr<uchar>(y);
  const uchar* down = image.ptr<uchar>(reflect101(y + 1, image.rows));
  const auto at = [&](int x) {
    return static_cast<float>(up[x] + down[x] + mid[reflect101(x - 1, n)] +
                              mid[reflect101(x + 1, n)] - 4 * mid[x]);
  };
  out[0] = at(0);
  for (int x = 1; x < n - 1; ++x) {
    out[x] = static_cast<float>(up[x] + down[x] + mid[x - 1] + mid[x + 1] - 4 * mid[x]);
  }
  if (n > 1) out[n - 1] = at(n - 1);
}

void laplacian(const cv::Mat& image, cv::Mat& out) {
  out.create(image.size(), CV_32F);
  for (int y = 0; y < image.rows; ++y) laplacianRow(image, y, out.ptr<float>(y));
}

// s += |h0 + (h1 - h0) * b| over a row: one level's vertical interpolation,
// absolute value, accumulated.  Built twice: for the baseline instruction
// set and for AVX2 with FMA, chosen at run time.
#define VANTIX_ADD_LEVEL_ROW_BODY                                        \
  for (int x = 0; x < n; ++x) s[x] += std::fabs(h0[x] + (h1[x] - h0[x]) * b);

void addLevelRowBaseline(const float* h0, const float* h1, float b, float* s, int n) {
  VANTIX_ADD_LEVEL_ROW_BODY
}

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2,fma"))) void addLevelRowAvx2(const float* h0, const float* h1,
                                                          float b, float* s, int n) {
  VANTIX_ADD_LEVEL_ROW_BODY
}
#endif
#undef VANTIX_ADD_LEVEL_ROW_BODY

using AddLevelRow = void (*)(const float*, const float*, float, float*, int);

AddLevelRow addLevelRow() {
#if defined(__x86_64__) && defined(__GNUC__)
  static const AddLevelRow chosen = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")
                                        ? &addLevelRowAvx2
                                        : &addLevelRowBaseline;
  return chosen;
#else
  return &addLevelRowBaseline;
#endif
}

}  // namespace

namespace {

// The focus measures of several images of one size and type at once, so
// that the work of all their channels is spread over the threads together.
void focusMeasures(const std::vector<const cv::Mat*>& images, const std::vector<cv::Mat*>& measures,
                   StackMeasureScratch& work) {
  const cv::Mat& first = *images[0];
  CV_Assert(first.depth() == CV_8U && first.channels() <= 4 && !first.empty());
  for (const cv::Mat* image : images) {
    CV_Assert(image->type() == first.type() && image->size() == first.size());
  }
  const int cn = first.channels();
  const int tasks = static_cast<int>(images.size()) * cn;
  const cv::Size size = first.size();
  work.planes.resize(tasks);
  work.levels.resize(tasks);
  work.horizontal.resize(tasks);
  if (cn == 1) {
    for (size_t k = 0; k < images.size(); ++k) work.planes[k] = *images[k];
  } else {
    std::vector<cv::Mat> split;
    for (size_t k = 0; k < images.size(); ++k) {
      split.assign(work.planes.begin() + k * cn, work.planes.begin() + (k + 1) * cn);
      cv::split(*images[k], split);
      std::copy(split.begin(), split.end(), work.planes.begin() + k * cn);
    }
  }

  // Per channel: the Gaussian pyramid, and the Laplacian of every level but
  // the full-size one (computed row by row below) interpolated along x to
  // the full width.  Bilinear resizing is separable, so the full-size
  // Laplacian of a level is the vertical interpolation of these rows.
  cv::parallel_for_(cv::Range(0, tasks), [&](const cv::Range& r) {
    cv::Mat lap;
    for (int t = r.start; t < r.end; ++t) {
      std::vector<cv::Mat>& pyramid = work.levels[t];
      cv::buildPyramid(work.planes[t], pyramid, kMeasureLevels - 1, cv::BORDER_REFLECT_101);
      work.horizontal[t].resize(pyramid.size());
      for (size_t i = 1; i < pyramid.size(); ++i) {
        laplacian(pyramid[i], lap);
        cv::resize(lap, work.horizontal[t][i], cv::Size(size.width, lap.rows), 0, 0,
                   cv::INTER_LINEAR);
      }
    }
  });
  const int levels = static_cast<int>(work.levels[0].size());
  std::vector<AxisMap> rows(levels);
  for (int i = 1; i < levels; ++i) rows[i] = axisMap(work.levels[0][i].rows, size.height);

  for (cv::Mat* measure : measures) measure->create(size, CV_16S);
  const AddLevelRow accumulate = addLevelRow();
  constexpr int kStripe = 16;
  const int stripes = (size.height + kStripe - 1) / kStripe;
  cv::parallel_for_(cv::Range(0, stripes), [&](const cv::Range& range) {
    std::vector<float> sum(static_cast<size_t>(size.width));
    for (int y = range.start * kStripe; y < std::min(size.height, range.end * kStripe); ++y) {
      for (size_t k = 0; k < images.size(); ++k) {
        short* m = measures[k]->ptr<short>(y);
        for (int c = 0; c < cn; ++c) {
          const int t = static_cast<int>(k) * cn + c;
          float* s = sum.data();
          laplacianRow(work.planes[t], y, s);
          for (int x = 0; x < size.width; ++x) s[x] = std::fabs(s[x]);
          for (int i = 1; i < levels; ++i) {
            const AxisMap& rm = rows[i];
            const float* h0 = work.horizontal[t][i].ptr<float>(rm.first[y]);
            const float* h1 = work.horizontal[t][i].ptr<float>(rm.second[y]);
            accumulate(h0, h1, rm.weight[y], s, size.width);
          }
          // Sums are at most 8 * 1020, so they fit 16 bits; they are rounded
          // half up (they are never negative).
          if (c == 0) {
            for (int x = 0; x < size.width; ++x) m[x] = static_cast<short>(s[x] + 0.5f);
          } else {
            for (int x = 0; x < size.width; ++x) {
              m[x] = std::max(m[x], static_cast<short>(s[x] + 0.5f));
            }
          }
        }
      }
    }
  });
}

}  // namespace

void stackFocusMeasure(const cv::Mat& image, cv::Mat& measure, StackMeasureScratch* scratch) {
  StackMeasureScratch local;
  focusMeasures({&image}, {&measure}, scratch ? *scratch : local);
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
  focusMeasures({&accumulated_, &frame}, {&accumulatedMeasure_, &frameMeasure_}, scratch_);
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
    // The weight of each pixel repeated for its three samples, so that the
    // blend runs over the interleaved row as one flat loop.
    std::vector<float> weight3(static_cast<size_t>(size.width) * 3);
    for (int y = r.start; y < r.end; ++y) {
      const uchar* f = frame.ptr<uchar>(y);
      const uchar* a = accumulated_.ptr<uchar>(y);
      const float* w = smoothWeights_.ptr<float>(y);
      uchar* o = fused.ptr<uchar>(y);
      float* w3 = weight3.data();
      for (int x = 0; x < size.width; ++x) w3[3 * x] = w3[3 * x + 1] = w3[3 * x + 2] = w[x];
      const int n = size.width * 3;
      for (int i = 0; i < n; ++i) {
        // Both products are non-negative: rounding is half up.
        const int v = static_cast<int>(f[i] * w3[i] + 0.5f) +
                      static_cast<int>(a[i] * (1.0f - w3[i]) + 0.5f);
        o[i] = static_cast<uchar>(std::min(v, 255));
      }
    }
  });
  result = fused;
  accumulated_ = fused.clone();
}

}  // namespace vantix
