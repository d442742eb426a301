#include "imgutil/edge.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "api/pixel_format.h"

namespace vantix {
namespace {

// Smoothing neighbourhood: 3x3, one pixel each side.
constexpr int kHalf = 1;
constexpr int kPatchSide = 2 * kHalf + 1;
constexpr int kPatchPixels = kPatchSide * kPatchSide;

// Columns of a kernel-table row.
enum KernelColumn { kColumnSigma = 0, kColumnCorner, kColumnSide, kColumnCentre, kKernelColumns };

// The normalised weights of the 3x3 Gaussian of `sigma`, built one weight
// at a time in row order exactly like a per-pixel kernel would be: the
// weights are summed in that order and each is multiplied by the reciprocal
// of the sum.  By symmetry only three distinct weights exist; `row` receives
// sigma, the corner, side and centre weight.
void buildKernel(double sigma, double* row) {
  double w[2 * kHalf + 1][2 * kHalf + 1];
  double sum = 0.0;
  for (int dy = -kHalf; dy <= kHalf; ++dy) {
    for (int dx = -kHalf; dx <= kHalf; ++dx) {
      const double v =
          std::exp(-(dx * dx + dy * dy) / (2 * sigma * sigma)) / (2 * CV_PI * sigma * sigma);
      w[dy + kHalf][dx + kHalf] = v;
      sum += v;
    }
  }
  const double inverse = 1.0 / sum;
  row[kColumnSigma] = sigma;
  row[kColumnCorner] = w[0][0] * inverse;
  row[kColumnSide] = w[0][1] * inverse;
  row[kColumnCentre] = w[1][1] * inverse;
}

// Kernel sigma from the neighbourhood's standard deviation, with its clamps.
inline double sigmaOfStddev(double stddev) {
  double sigma = stddev / 30.0 * 2.5 + 0.5;
  sigma = std::min(sigma, 3.0);
  sigma = std::max(sigma, 0.5);
  return sigma;
}

constexpr double kNinth = 1.0 / kPatchPixels;
constexpr double kEightyFirst = 1.0 / (kPatchPixels * kPatchPixels);

// The variance of a 3x3 neighbourhood whose values sum to `sum` and whose
// squares sum to `sumSq`, formed exactly as cv::meanStdDev forms it for
// 8-bit data: integer sums, mean = sum * (1/n), then sumSq * (1/n) - mean^2
// (before the clamp at 0 and the square root).
inline double patchVariance(int sum, int sumSq) {
  const double mean = sum * kNinth;
  return sumSq * kNinth - mean * mean;
}

// Sigma of the kernel of a neighbourhood, as cv::meanStdDev's standard
// deviation of the patch would give it.
inline double kernelSigma(int sum, int sumSq) {
  return sigmaOfStddev(std::sqrt(std::max(patchVariance(sum, sumSq), 0.0)));
}

// The weighted sum of a 3x3 patch in row order, one product at a time, as a
// loop over the kernel accumulates it.  `w` is a kernel-table row; the
// three rows hold the patch's pixels as doubles.
inline double weightedSum(const double* above, const double* here, const double* below, int col,
                          const double* w) {
  const double corner = w[kColumnCorner], side = w[kColumnSide], centre = w[kColumnCentre];
  double acc = 0.0;
  acc += above[col - 1] * corner;
  acc += above[col] * side;
  acc += above[col + 1] * corner;
  acc += here[col - 1] * side;
  acc += here[col] * centre;
  acc += here[col + 1] * side;
  acc += below[col - 1] * corner;
  acc += below[col] * side;
  acc += below[col + 1] * corner;
  return acc;
}

// How far the weighted sum of a patch can move per unit change of sigma:
// 255 times the largest sum over the nine weights of |dw/dsigma| on
// [0.5, 3] (4.23, at sigma 0.5), with a safety factor of almost four.
constexpr double kSumPerSigma = 4096.0;
// What rounding can add on top: the weights and the sums of two kernels
// (about 1e-11), and kSumPerSigma times the 3e-12 of the sigma bound below
// (1.3e-8); with a wide safety factor.
constexpr double kSumRoundOff = 1e-7;

// Truncation toward zero of a value that may lie beyond the int range (a
// search size given to the constructor is not limited): saturates there
// instead of the undefined conversion, which keeps huge areas huge, so the
// image library still refuses them.
inline int truncateToInt(double v) {
  if (v >= static_cast<double>(std::numeric_limits<int>::max())) {
    return std::numeric_limits<int>::max();
  }
  if (v <= static_cast<double>(std::numeric_limits<int>::min())) {
    return std::numeric_limits<int>::min();
  }
  return static_cast<int>(v);
}

}  // namespace

EdgeSearchArea edgeSearchArea(uint32_t size, int32_t x, int32_t y, uint32_t frameWidth,
                              uint32_t frameHeight) {
  const double s = size;
  const double r = s * 1.5;
  const double side = 3.0 * s;

  // One axis: start, length and the point's offset from the start.  A point
  // nearer than r to the low border starts the area at 0 and shortens it; one
  // nearer than r to the high border shortens it there.  Every conversion
  // truncates toward zero (so with an odd size, r has a half and the offset
  // lands one pixel short of the point).
  const auto place = [&](double p, double extent, int* start, int* length, int* offset) {
    int len;
    if (r > p) {
      *start = 0;
      len = truncateToInt(side + (p - r));
      *offset = truncateToInt(truncateToInt(r) + (p - r));
    } else {
      *start = truncateToInt(p - r);
      len = truncateToInt(side);
      *offset = truncateToInt(r);
    }
    if (p + r > extent) len = truncateToInt(len + (extent - (p + r)));
    *length = len;
  };

  EdgeSearchArea area;
  place(x, frameWidth, &area.rect.x, &area.rect.width, &area.centre.x);
  place(y, frameHeight, &area.rect.y, &area.rect.height, &area.centre.y);
  return area;
}

void edgeGreyFromRegion(uint32_t format, const cv::Mat& region, cv::Mat& gray) {
  switch (format) {
    case kFormatBgr16:
    case kFormatBgra16: {
      if (region.size() != gray.size()) return;
      const int channels = region.channels();
      for (int row = 0; row < region.rows; ++row) {
        const uint16_t* in = region.ptr<uint16_t>(row);
        uint8_t* out = gray.ptr<uint8_t>(row);
        for (int col = 0; col < region.cols; ++col, in += channels) {
          // 1000 times the weights, times 256 to go from 16 to 8 bits; the
          // largest sum, 65535 * 1000, fits in 32 bits.
          const uint32_t weighted = in[0] * 299u + in[1] * 587u + in[2] * 114u;
          out[col] = static_cast<uint8_t>(weighted / 256000u);
        }
      }
      break;
    }
    case kFormatBgra8:
      // Channel 0 is weighted as red although frames are stored B G R: the
      // grey level of the session is defined this way.
      cv::cvtColor(region, gray, cv::COLOR_RGBA2GRAY);
      break;
    default: cv::cvtColor(region, gray, cv::COLOR_RGB2GRAY); break;
  }
}

int kernelTableRows() {
  // 81 times the variance: below 900 * 81 the sigma is below the upper
  // clamp; the rows beyond (a few more than needed) all hold sigma 3.
  return 900 * kPatchPixels * kPatchPixels + 64;
}

// How the table stands in for the per-pixel kernel.  A patch's sigma is a
// function of its variance, and the variance the library computes,
// varC = sumSq * (1/9) - (sum * (1/9))^2, differs from the exact one, V / 81
// with V = 9 * sumSq - sum^2, only by rounding.  The table holds, for each V,
// the kernel of the exact variance's sigma sigmaV; the patch's own sigma
// sigmaC may differ from it in the last digits.  With d = |varC - V / 81|,
// sigma = sd / 12 + 0.5 (clamped, which only brings sigmas closer) and
// |sqrt(a) - sqrt(b)| <= |a - b| / sqrt(b):
// for V >= 1, |sigmaC - sigmaV| <= 9 d / 12 + 3e-12 <= d + 3e-12, and the
// weighted sum moves by at most kSumPerSigma times that.  When the sum
// computed with the table's kernel lies farther than this from every
// rounding boundary k + 0.5, both sums round to the same value; otherwise
// the pixel's own kernel is built.  (A flat patch, V == 0, needs no bound:
// any normalised kernel gives its value to within 1e-12.)  The table is
// filled on first use of a row; V past the clamp uses the last row, whose
// sigma is 3.
void adaptiveSmooth(const cv::Mat& src, cv::Mat& dst, cv::Mat& kernelTable, SmoothingStats* stats) {
  CV_Assert(src.type() == CV_8UC1);
  CV_Assert(src.data != dst.data || src.empty());
  dst.create(src.size(), CV_8UC1);
  const int tableRows = kernelTableRows();
  if (kernelTable.rows != tableRows || kernelTable.cols != kKernelColumns ||
      kernelTable.type() != CV_64FC1) {
    // A zero sigma marks a row not built yet (sigma is never below 0.5).
    kernelTable = cv::Mat::zeros(tableRows, kKernelColumns, CV_64FC1);
  }
  double* const clamped = kernelTable.ptr<double>(tableRows - 1);
  if (clamped[kColumnSigma] == 0.0) buildKernel(3.0, clamped);

  const int rows = src.rows;
  const int cols = src.cols;
  if (rows <= 2 * kHalf || cols <= 2 * kHalf) {
    src.copyTo(dst);
    return;
  }
  // Pixels closer than kHalf to a border keep their value.
  src.row(0).copyTo(dst.row(0));
  src.row(rows - 1).copyTo(dst.row(rows - 1));
  for (int row = 1; row < rows - 1; ++row) {
    dst.at<uint8_t>(row, 0) = src.at<uint8_t>(row, 0);
    dst.at<uint8_t>(row, cols - 1) = src.at<uint8_t>(row, cols - 1);
  }

  // Row buffers: three source rows as doubles (a ring), per-column sums of
  // three rows (values and squares), and per pixel the sums, V, the spread
  // d = |varC - V / 81|, the kernel and the weighted sum.  Working a row in
  // separate short passes keeps the long floating-point chains of
  // neighbouring pixels overlapping.
  std::vector<double> ring(3 * static_cast<size_t>(cols));
  std::vector<int> columnSum(cols), columnSumSq(cols);
  std::vector<int> sums(cols), sumSqs(cols), variances(cols);
  std::vector<double> spreads(cols), accs(cols);
  std::vector<const double*> kernels(cols);
  const auto ringRow = [&](int row) { return ring.data() + (row % 3) * static_cast<size_t>(cols); };
  const auto load = [&](int row) {
    const uint8_t* in = src.ptr<uint8_t>(row);
    double* line = ringRow(row);
    for (int col = 0; col < cols; ++col) line[col] = in[col];
  };
  load(0);
  load(1);

  int64_t fromTable = 0;
  int64_t rebuilt = 0;
  for (int row = 1; row < rows - 1; ++row) {
    load(row + 1);
    const uint8_t* above8 = src.ptr<uint8_t>(row - 1);
    const uint8_t* here8 = src.ptr<uint8_t>(row);
    const uint8_t* below8 = src.ptr<uint8_t>(row + 1);
    for (int col = 0; col < cols; ++col) {
      const int a = above8[col], b = here8[col], c = below8[col];
      columnSum[col] = a + b + c;
      columnSumSq[col] = a * a + b * b + c * c;
    }
    for (int col = 1; col < cols - 1; ++col) {
      const int sum = columnSum[col - 1] + columnSum[col] + columnSum[col + 1];
      const int sumSq = columnSumSq[col - 1] + columnSumSq[col] + columnSumSq[col + 1];
      const int v = kPatchPixels * sumSq - sum * sum;
      const double d = std::abs(patchVariance(sum, sumSq) - v * kEightyFirst);
      sums[col] = sum;
      sumSqs[col] = sumSq;
      variances[col] = v;
      spreads[col] = d;
    }

    // The kernel of each pixel's V; table rows are built on first use.
    for (int col = 1; col < cols - 1; ++col) {
      const int v = variances[col];
      const double* w = clamped;
      if (v < tableRows - 1) {
        double* entry = kernelTable.ptr<double>(v);
        if (entry[kColumnSigma] == 0.0) {
          buildKernel(sigmaOfStddev(std::sqrt(static_cast<double>(v)) / kPatchPixels), entry);
        }
        w = entry;
      }
      kernels[col] = w;
    }

    // The weighted sums.  Two pixels at a time where SSE2 is available: the
    // packed products and sums round exactly like the scalar ones, term by
    // term in the same order.
    const double* above = ringRow(row - 1);
    const double* here = ringRow(row);
    const double* below = ringRow(row + 1);
    int col = 1;
#if defined(__SSE2__)
    for (; col + 1 < cols - 1; col += 2) {
      const double* w0 = kernels[col];
      const double* w1 = kernels[col + 1];
      const __m128d corner = _mm_set_pd(w1[kColumnCorner], w0[kColumnCorner]);
      const __m128d side = _mm_set_pd(w1[kColumnSide], w0[kColumnSide]);
      const __m128d centre = _mm_set_pd(w1[kColumnCentre], w0[kColumnCentre]);
      // The scalar sum starts from 0.0; adding the first (non-negative)
      // product to it changes nothing, so start from the product.
      __m128d acc = _mm_mul_pd(_mm_loadu_pd(above + col - 1), corner);
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(above + col), side));
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(above + col + 1), corner));
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(here + col - 1), side));
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(here + col), centre));
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(here + col + 1), side));
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(below + col - 1), corner));
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(below + col), side));
      acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(below + col + 1), corner));
      _mm_storeu_pd(accs.data() + col, acc);
    }
#endif
    for (; col < cols - 1; ++col) accs[col] = weightedSum(above, here, below, col, kernels[col]);

    // Rounding, with the kernel of the pixel's own sigma where the sum lies
    // too near a rounding boundary.
    uint8_t* out = dst.ptr<uint8_t>(row);
    const auto rebuild = [&](int at) {
      double exact[kKernelColumns];
      buildKernel(kernelSigma(sums[at], sumSqs[at]), exact);
      out[at] = cv::saturate_cast<uint8_t>(weightedSum(above, here, below, at, exact));
      ++rebuilt;
    };
    col = 1;
#if defined(__SSE2__)
    const __m128d perSigma = _mm_set1_pd(kSumPerSigma);
    const __m128d roundOff = _mm_set1_pd(kSumRoundOff);
    const __m128d half = _mm_set1_pd(0.5);
    const __m128d magnitude = _mm_castsi128_pd(_mm_set1_epi64x(0x7FFFFFFFFFFFFFFFll));
    for (; col + 1 < cols - 1; col += 2) {
      const __m128d acc = _mm_loadu_pd(accs.data() + col);
      const __m128d slack =
          _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(spreads.data() + col), perSigma), roundOff);
      // acc is in [0, 256), where truncation is floor.
      const __m128d whole = _mm_cvtepi32_pd(_mm_cvttpd_epi32(acc));
      const __m128d distance = _mm_and_pd(_mm_sub_pd(_mm_sub_pd(acc, whole), half), magnitude);
      const int near = _mm_movemask_pd(_mm_cmple_pd(distance, slack));
      // Rounds to nearest, ties to even, as cvRound does.
      const __m128i rounded = _mm_cvtpd_epi32(acc);
      out[col] = cv::saturate_cast<uint8_t>(_mm_cvtsi128_si32(rounded));
      out[col + 1] = cv::saturate_cast<uint8_t>(_mm_cvtsi128_si32(_mm_srli_si128(rounded, 4)));
      if (near & 1) rebuild(col);
      if (near & 2) rebuild(col + 1);
    }
#endif
    for (; col < cols - 1; ++col) {
      const double acc = accs[col];
      const double slack = kSumPerSigma * spreads[col] + kSumRoundOff;
      if (std::abs(acc - static_cast<int>(acc) - 0.5) <= slack) {
        rebuild(col);
      } else {
        out[col] = cv::saturate_cast<uint8_t>(acc);
      }
    }
    fromTable += cols - 2;
  }
  fromTable -= rebuilt;
  if (stats != nullptr) {
    stats->fromTable += fromTable;
    stats->rebuilt += rebuilt;
  }
}

bool nearestEdgePoint(const std::vector<std::vector<cv::Point>>& contours, const cv::Point& centre,
                      uint32_t size, cv::Point* target) {
  const double none = std::numeric_limits<double>::max();
  double best = none;
  cv::Point bestPoint;
  for (const std::vector<cv::Point>& contour : contours) {
    double contourBest = none;
    cv::Point contourPoint;
    for (const cv::Point& p : contour) {
      // In doubles: a centre saturated by a huge search size lies near the
      // int range's end, where the difference would overflow an int.
      const double dx = static_cast<double>(p.x) - centre.x;
      const double dy = static_cast<double>(p.y) - centre.y;
      const double d = std::sqrt(dx * dx + dy * dy);
      if (d < contourBest) {
        contourBest = d;
        contourPoint = p;
      }
      if (p == centre) break;  // nothing can be nearer
    }
    if (contourBest < best) {
      best = contourBest;
      bestPoint = contourPoint;
    }
    if (contourBest < none && contourPoint == centre) break;
  }
  if (!(best < static_cast<double>(size))) return false;
  *target = bestPoint;
  return true;
}

CEdgeSession::CEdgeSession(uint32_t format, uint32_t width, uint32_t height, uint32_t size)
    : format_(format),
      width_(width),
      height_(height),
      size_(size),
      stride_(formatDefaultStride(format, width)) {
  // A first guess at the area's size; get() re-creates it to the real one.
  // Capped so that a large search size does not make creation itself fail.
  const int side = static_cast<int>(std::min(size * 1.5, 1024.0));
  gray_.create(side, side, CV_8UC1);
}

void CEdgeSession::takeIn(const void* buffer) {
  std::lock_guard<std::mutex> guard(lock_);
  const cv::Mat frame(static_cast<int>(height_), static_cast<int>(width_), formatMatType(format_),
                      const_cast<void*>(buffer), stride_);
  // Throws when the area is not inside the frame.
  const cv::Mat region = frame(searchRect_);
  edgeGreyFromRegion(format_, region, gray_);
}

int32_t CEdgeSession::get(const void* buffer, int32_t* x, int32_t* y, uint32_t size) {
  if (size >= 1 && size <= 50 && size != size_) size_ = size;
  // Without a point there is nothing to snap.
  if (x == nullptr || y == nullptr) return 0;

  const EdgeSearchArea area = edgeSearchArea(size_, *x, *y, width_, height_);
  searchRect_ = area.rect;
  centre_ = area.centre;
  if (gray_.rows != searchRect_.height || gray_.cols != searchRect_.width) {
    // Throws for a negative size (a point well outside the frame).
    gray_.create(searchRect_.height, searchRect_.width, CV_8UC1);
  }

  if (buffer == nullptr) return 0;
  // In a frame one pixel wide or high, an odd size truncates the area to no
  // column or row at all although the point lies inside: nothing to snap to.
  // (The colour conversion of the take-in would refuse the empty region.)
  // Points outside the frame and a size of 0 keep their exception.
  const bool inside = *x >= 0 && *y >= 0 && static_cast<uint32_t>(*x) < width_ &&
                      static_cast<uint32_t>(*y) < height_;
  if (searchRect_.empty() && size_ > 0 && inside) return 0;
  takeIn(buffer);
  if (gray_.empty()) return 0;

  adaptiveSmooth(gray_, smoothed_, kernel_);
  const double level = cv::threshold(smoothed_, binary_, 0, 255, cv::THRESH_OTSU);
  cv::Canny(smoothed_, edges_, 0.5 * level, level, 3, true);
  cv::findContours(edges_, contours_, hierarchy_, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE,
                   cv::Point(0, 0));

  cv::Point target;
  if (!nearestEdgePoint(contours_, centre_, size_, &target)) return 0;
  // In 64 bits, for the same reason; a point that would leave the int32
  // range is not moved.
  const int64_t movedX = int64_t{*x} + target.x - centre_.x;
  const int64_t movedY = int64_t{*y} + target.y - centre_.y;
  const auto representable = [](int64_t v) {
    return v >= std::numeric_limits<int32_t>::min() && v <= std::numeric_limits<int32_t>::max();
  };
  if (!representable(movedX) || !representable(movedY)) return 0;
  *x = static_cast<int32_t>(movedX);
  *y = static_cast<int32_t>(movedY);
  return 1;
}

}  // namespace vantix
