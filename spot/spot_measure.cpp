#include "spot/spot_measure.h"

#include "api/image_header.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <type_traits>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

namespace vantix {
namespace {

constexpr double kPi = 3.141592653589793;

// ---------------------------------------------------------------------------
// Ellipse rows
// ---------------------------------------------------------------------------

// An ellipse around (ax, ay) with semi-axes a, b, its own axes turned so
// that u = c dx + s dy and v = c dy - s dx; a point is inside when
// u^2 (1/a^2) + v^2 (1/b^2) <= 1.  With c = 1, s = 0 it is axis-aligned and
// the test is exactly dx^2 (1/a^2) + dy^2 (1/b^2) <= 1.
struct Ellipse {
  double ax, ay;
  double c, s;
  double ia, ib;  // 1 / a^2, 1 / b^2

  bool inside(double dx, double dy) const {
    const double u = c * dx + s * dy;
    const double v = c * dy - s * dx;
    return u * u * ia + v * v * ib <= 1.0;
  }
};

Ellipse makeEllipse(const SpotAperture& aperture, double c, double s) {
  return {aperture.centerX, aperture.centerY, c, s, 1.0 / (aperture.a * aperture.a),
          1.0 / (aperture.b * aperture.b)};
}

// The columns [first, last] of view row `y` whose pixels lie inside the
// ellipse; false when none does.  Pixel (x, y) of the view sits at
// (x + offsetX, y + offsetY) in the frame, where the ellipse is given.
//
// The span comes from the roots of the row's quadratic; the pixels at its
// ends are then decided by the exact per-pixel test, so the span holds
// precisely the pixels that test accepts (an ellipse meets a row in one
// interval).  Degenerate ellipses (a zero or infinite semi-axis) are tested
// pixel by pixel.
bool ellipseRowSpan(const Ellipse& e, int y, int width, int offsetX, int offsetY, int& first,
                    int& last) {
  const double dy = static_cast<double>(y + offsetY) - e.ay;
  const double baseX = static_cast<double>(offsetX) - e.ax;  // dx of column 0
  int lo = 0;
  int hi = width - 1;
  const double qa = e.c * e.c * e.ia + e.s * e.s * e.ib;
  const double qb = 2.0 * dy * e.c * e.s * (e.ia - e.ib);
  const double qc = dy * dy * (e.s * e.s * e.ia + e.c * e.c * e.ib) - 1.0;
  if (std::isfinite(qa) && std::isfinite(qb) && std::isfinite(qc) && qa > 0) {
    const double disc = qb * qb - 4.0 * qa * qc;
    const double root = disc > 0 ? std::sqrt(disc) : 0.0;
    const double left = (-qb - root) / (2.0 * qa) - baseX;
    const double right = (-qb + root) / (2.0 * qa) - baseX;
    // Two pixels of margin absorb the rounding of the roots.
    const double limit = static_cast<double>(width) + 4.0;
    lo = static_cast<int>(std::floor(std::clamp(left, -4.0, limit))) - 2;
    hi = static_cast<int>(std::ceil(std::clamp(right, -4.0, limit))) + 2;
    lo = std::max(lo, 0);
    hi = std::min(hi, width - 1);
  }
  // dx is formed as the per-pixel test forms it, frame column minus centre.
  auto inside = [&](int x) { return e.inside(static_cast<double>(x + offsetX) - e.ax, dy); };
  while (lo <= hi && !inside(lo)) ++lo;
  while (hi >= lo && !inside(hi)) --hi;
  if (lo > hi) return false;
  first = lo;
  last = hi;
  return true;
}

// ---------------------------------------------------------------------------
// Moments
// ---------------------------------------------------------------------------

// Sums over a set of pixels about an integer reference point (x0, y0), with
// x' = x - x0, y' = y - y0: t0 = sum I, tx = sum I x', ty = sum I y',
// txx = sum I x'^2, tyy = sum I y'^2, txy = sum I x' y'.  With the reference
// near the centre no large terms cancel in the central moments.
struct CentralSums {
  double t0 = 0, tx = 0, ty = 0, txx = 0, tyy = 0, txy = 0;
};

struct SecondMoments {
  double xx = 0, yy = 0, xy = 0;
};

// Central second moments about (cx, cy), divided by `s`.
SecondMoments centralMoments(const CentralSums& t, double x0, double y0, double cx, double cy,
                             double s) {
  const double dx = cx - x0;
  const double dy = cy - y0;
  SecondMoments m;
  m.xx = (t.txx - 2.0 * dx * t.tx + dx * dx * t.t0) / s;
  m.yy = (t.tyy - 2.0 * dy * t.ty + dy * dy * t.t0) / s;
  m.xy = (t.txy - dx * t.ty - dy * t.tx + dx * dy * t.t0) / s;
  return m;
}

// An integer reference near a centre (0 for a centre that is not finite).
double referenceOf(double centre) {
  if (!std::isfinite(centre)) return 0.0;
  return std::round(std::clamp(centre, -1e9, 1e9));
}

#if CV_SIMD128_64F
// Eight pixels of an 8- or 16-bit row as 32-bit integers.
inline void loadEight(const uint8_t* p, cv::v_uint32x4& lo, cv::v_uint32x4& hi) {
  cv::v_expand(cv::v_load_expand(p), lo, hi);
}
inline void loadEight(const uint16_t* p, cv::v_uint32x4& lo, cv::v_uint32x4& hi) {
  cv::v_expand(cv::v_load(p), lo, hi);
}

// spanSums for 8- and 16-bit rows, two doubles a vector.  Pixels are never
// negative, so the I > 0 condition changes nothing and is not tested; the
// products are the same as in the scalar loop, and the integer sums stay
// exact in any order.
template <typename T>
void spanSumsVector(const T* row, int first, int last, int x0, double& r0, double& r1,
                    double& r2) {
  using cv::v_float64x2;
  v_float64x2 s0 = cv::v_setzero_f64(), s1 = s0, s2 = s0;
  const double start = static_cast<double>(first - x0);
  v_float64x2 dx(start, start + 1.0);
  const v_float64x2 two = cv::v_setall_f64(2.0);
  int x = first;
  for (; x + 7 <= last; x += 8) {
    cv::v_uint32x4 lo, hi;
    loadEight(row + x, lo, hi);
    const cv::v_int32x4 a = cv::v_reinterpret_as_s32(lo), b = cv::v_reinterpret_as_s32(hi);
    const v_float64x2 values[4] = {cv::v_cvt_f64(a), cv::v_cvt_f64_high(a), cv::v_cvt_f64(b),
                                   cv::v_cvt_f64_high(b)};
    for (const v_float64x2& v : values) {
      const v_float64x2 vx = v * dx;
      s0 += v;
      s1 += vx;
      s2 += vx * dx;
      dx += two;
    }
  }
  r0 = cv::v_reduce_sum(s0);
  r1 = cv::v_reduce_sum(s1);
  r2 = cv::v_reduce_sum(s2);
  double d = static_cast<double>(x - x0);
  for (; x <= last; ++x, d += 1.0) {
    const double v = static_cast<double>(row[x]);
    r0 += v;
    r1 += v * d;
    r2 += v * d * d;
  }
}
#endif

// Sums of one row span about the reference column x0: r0 = sum I,
// r1 = sum I (x - x0), r2 = sum I (x - x0)^2, optionally over the pixels
// with I > 0 only.  Two independent sets of accumulators keep the
// floating-point units busy.  For 8- and 16-bit pixels every term and every
// partial sum of r0 and r1 is an integer below 2^53, so they are exact.
template <typename T, bool kPositiveOnly>
void spanSums(const T* row, int first, int last, int x0, double& r0, double& r1, double& r2) {
#if CV_SIMD128_64F
  if constexpr (!std::is_floating_point_v<T>) {
    spanSumsVector(row, first, last, x0, r0, r1, r2);
    return;
  }
#endif
  double a0 = 0, a1 = 0, a2 = 0, b0 = 0, b1 = 0, b2 = 0;
  double dx = static_cast<double>(first - x0);
  int x = first;
  for (; x + 1 <= last; x += 2, dx += 2.0) {
    double v = static_cast<double>(row[x]);
    double w = static_cast<double>(row[x + 1]);
    if (kPositiveOnly) {
      v = row[x] > 0 ? v : 0.0;
      w = row[x + 1] > 0 ? w : 0.0;
    }
    const double vx = v * dx;
    const double wx = w * (dx + 1.0);
    a0 += v;
    a1 += vx;
    a2 += vx * dx;
    b0 += w;
    b1 += wx;
    b2 += wx * (dx + 1.0);
  }
  if (x <= last) {
    double v = static_cast<double>(row[x]);
    if (kPositiveOnly && !(row[x] > 0)) v = 0.0;
    a0 += v;
    a1 += v * dx;
    a2 += v * dx * dx;
  }
  r0 = a0 + b0;
  r1 = a1 + b1;
  r2 = a2 + b2;
}

// Adds one row's sums (of I, dx I and dx^2 I) to the central sums, the row
// lying dy below the reference.
void addRow(CentralSums& t, double dy, double r0, double r1, double r2) {
  t.t0 += r0;
  t.tx += r1;
  t.txx += r2;
  t.ty += dy * r0;
  t.tyy += dy * dy * r0;
  t.txy += dy * r1;
}

// Sums over the pixels inside an ellipse, about the reference (x0, y0) in
// view coordinates.
template <typename T, bool kPositiveOnly>
CentralSums ellipseSums(const cv::Mat& view, const Ellipse& e, int offsetX, int offsetY, int x0,
                        int y0) {
  CentralSums t;
  for (int y = 0; y < view.rows; ++y) {
    int first = 0, last = 0;
    if (!ellipseRowSpan(e, y, view.cols, offsetX, offsetY, first, last)) continue;
    double r0 = 0, r1 = 0, r2 = 0;
    spanSums<T, kPositiveOnly>(view.ptr<T>(y), first, last, x0, r0, r1, r2);
    addRow(t, static_cast<double>(y - y0), r0, r1, r2);
  }
  return t;
}

// Sums over a box of the view about (x0, y0), over the pixels that belong
// to the background or to component `own`: the runs of other components are
// left out.
template <typename T>
CentralSums boxSums(const cv::Mat& view, const std::vector<SpotRun>& runs,
                    const std::vector<int>& rowStart, const cv::Rect& box, int own, int x0,
                    int y0) {
  CentralSums t;
  const int end = box.x + box.width;
  for (int y = box.y; y < box.y + box.height; ++y) {
    const T* row = view.ptr<T>(y);
    double r0 = 0, r1 = 0, r2 = 0;
    auto addSpan = [&](int first, int last) {
      if (first > last) return;
      double s0 = 0, s1 = 0, s2 = 0;
      spanSums<T, false>(row, first, last, x0, s0, s1, s2);
      r0 += s0;
      r1 += s1;
      r2 += s2;
    };
    int cursor = box.x;
    for (int i = rowStart[y]; i < rowStart[y + 1] && cursor < end; ++i) {
      const SpotRun& run = runs[i];
      if (run.label == own || run.last < cursor) continue;
      if (run.first >= end) break;
      addSpan(cursor, run.first - 1);
      cursor = run.last + 1;
    }
    addSpan(cursor, end - 1);
    addRow(t, static_cast<double>(y - y0), r0, r1, r2);
  }
  return t;
}

// Calls fn.template operator()<T>() with the pixel type of a measurement frame.
template <typename Fn>
auto dispatchDepth(const cv::Mat& frame, Fn&& fn) {
  switch (frame.type()) {
    case CV_8UC1: return fn(uint8_t{});
    case CV_16UC1: return fn(uint16_t{});
    case CV_64FC1: return fn(double{});
    default:
      throw std::invalid_argument("spot measurement needs a one-channel 8-bit, 16-bit or double "
                                  "image");
  }
}

void fillRecord(SpotResult& record, double total, double cx, double cy, const SpotShape& shape) {
  record.total = total;
  record.centerX = cx;
  record.centerY = cy;
  record.majorDiameter = shape.first;
  record.minorDiameter = shape.second;
  record.ellipticity = shape.ellipticity;
  record.angle = shape.angle;
}

// Whether 16-bit words at `data` with rows `pitch` bytes apart are aligned.
bool aligned16(const void* data, size_t pitch) {
  return reinterpret_cast<uintptr_t>(data) % 2 == 0 && pitch % 2 == 0;
}

// The grey of a 16-bit B G R pixel, in unsigned 32-bit arithmetic.
inline uint16_t grey48(uint32_t blue, uint32_t green, uint32_t red) {
  return static_cast<uint16_t>((299u * red + 587u * green + 114u * blue) / 1000u);
}

}  // namespace

// ---------------------------------------------------------------------------
// Frame input
// ---------------------------------------------------------------------------

uint32_t spotDefaultPitch(uint32_t width, uint32_t bitCount) {
  // The padded pitch of the row is computed in 64 bits and truncated to 32:
  // it differs from the 32-bit wrap of vantix_default_stride only for rows of
  // 2^32 bits or more.
  return static_cast<uint32_t>(vantix::wideStride(width, bitCount));
}

cv::Mat spotGreyFrame(const void* buffer, uint32_t width, uint32_t height, uint32_t bitCount,
                      uint32_t rowPitch, cv::Mat& grey) {
  if (bitCount != 8 && bitCount != 16 && bitCount != 24 && bitCount != 48) {
    throw std::runtime_error("Unsupported image depth");
  }
  const size_t pitch = rowPitch != 0 ? rowPitch : spotDefaultPitch(width, bitCount);
  const int rows = static_cast<int>(height);
  const int cols = static_cast<int>(width);
  void* data = const_cast<void*>(buffer);
  if (rows <= 0 || cols <= 0) {
    // Nothing to measure; the empty image leads to zero-filled records.
    grey.release();
    return grey;
  }
  switch (bitCount) {
    case 8: return cv::Mat(rows, cols, CV_8UC1, data, pitch);
    case 16: {
      if (aligned16(data, pitch)) return cv::Mat(rows, cols, CV_16UC1, data, pitch);
      // Words off their natural alignment (an odd pitch or address) are
      // copied to an aligned image first.
      grey.create(rows, cols, CV_16UC1);
      for (int y = 0; y < rows; ++y) {
        std::memcpy(grey.ptr(y), static_cast<const uint8_t*>(buffer) + y * pitch, cols * 2u);
      }
      return grey;
    }
    case 24: {
      const cv::Mat bgr(rows, cols, CV_8UC3, data, pitch);
      cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
      return grey;
    }
    default: {
      grey.create(rows, cols, CV_16UC1);
      const bool aligned = aligned16(data, pitch);
      for (int y = 0; y < rows; ++y) {
        const uint8_t* row = static_cast<const uint8_t*>(buffer) + y * pitch;
        uint16_t* out = grey.ptr<uint16_t>(y);
        if (aligned) {
          const auto* in = reinterpret_cast<const uint16_t*>(row);
          for (int x = 0; x < cols; ++x, in += 3) out[x] = grey48(in[0], in[1], in[2]);
        } else {
          for (int x = 0; x < cols; ++x, row += 6) {
            uint16_t in[3];
            std::memcpy(in, row, sizeof in);
            out[x] = grey48(in[0], in[1], in[2]);
          }
        }
      }
      return grey;
    }
  }
}

// ---------------------------------------------------------------------------
// Second moments
// ---------------------------------------------------------------------------

SpotShape spotShape(double sxx, double syy, double sxy, bool ellipseMode) {
  SpotShape shape;
  if (!ellipseMode) {
    shape.first = 4.0 * std::sqrt(sxx);
    shape.second = 4.0 * std::sqrt(syy);
    shape.angle = 90.0;
    shape.smaller = std::min(shape.first, shape.second);
    shape.larger = std::max(shape.first, shape.second);
  } else {
    const double gamma = sxx > syy ? 1.0 : (sxx < syy ? -1.0 : 0.0);
    double d1 = 0, d2 = 0;
    if (gamma != 0) {
      const double r = gamma * std::sqrt((sxx - syy) * (sxx - syy) + 4.0 * sxy * sxy);
      d1 = 2.0 * std::sqrt(2.0 * (sxx + syy + r));
      d2 = 2.0 * std::sqrt(2.0 * (sxx + syy - r));
      double angle = std::atan(2.0 * sxy / (syy - sxx)) * 90.0 / kPi;
      if (d1 < d2) angle += 90.0;
      if (angle > 90.0) angle -= 180.0;
      shape.angle = angle;
    } else {
      d1 = 2.0 * std::sqrt(2.0 * (sxx + syy + 2.0 * std::fabs(sxy)));
      d2 = 2.0 * std::sqrt(2.0 * (sxx + syy - 2.0 * std::fabs(sxy)));
      static constexpr double kDiagonal[2] = {-45.0, 45.0};
      shape.angle = d1 == d2 ? 0.0 : kDiagonal[sxy < 0 ? 1 : 0];
    }
    shape.smaller = std::min(d1, d2);
    shape.larger = std::max(d1, d2);
    shape.first = shape.larger;
    shape.second = shape.smaller;
  }
  shape.ellipticity = shape.larger > 0 ? shape.smaller / shape.larger : 0.0;
  return shape;
}

// ---------------------------------------------------------------------------
// Working rectangle
// ---------------------------------------------------------------------------

cv::Rect spotWorkingRect(const SpotRoi& roi, int frameWidth, int frameHeight) {
  int64_t x0 = 0, y0 = 0, x1 = frameWidth, y1 = frameHeight;
  if (roi.width >= 1 && roi.height >= 1) {
    x0 = std::max<int64_t>(roi.x, 0);
    y0 = std::max<int64_t>(roi.y, 0);
    x1 = std::min<int64_t>(static_cast<int64_t>(roi.x) + roi.width, frameWidth);
    y1 = std::min<int64_t>(static_cast<int64_t>(roi.y) + roi.height, frameHeight);
  }
  if (x0 >= x1 || y0 >= y1) return {};
  return {static_cast<int>(x0), static_cast<int>(y0), static_cast<int>(x1 - x0),
          static_cast<int>(y1 - y0)};
}

// ---------------------------------------------------------------------------
// Single spot
// ---------------------------------------------------------------------------

SpotOutcome measureSingleSpot(const cv::Mat& frame, const SpotRoi& roi, bool ellipseMode,
                              SingleSpotState& state, SpotResult& out) {
  const cv::Rect rect = spotWorkingRect(roi, frame.cols, frame.rows);
  if (rect.empty()) {
    out = SpotResult{};
    return SpotOutcome::kEmptyRect;
  }
  if (state.autoAperture.a < 0) {
    state.autoAperture = {static_cast<double>(frame.cols / 2), static_cast<double>(frame.rows / 2),
                          static_cast<double>(frame.cols / 2), static_cast<double>(frame.rows / 2)};
  }
  const cv::Mat view = frame(rect);
  const SpotAperture& aperture = state.useAutoAperture ? state.autoAperture : state.userAperture;
  // Only the automatic aperture is turned with the spot; the host's aperture
  // is axis-aligned.
  double c = 1.0, s = 0.0;
  if (state.useAutoAperture) {
    const double theta = (90.0 - state.angle) * kPi / 180.0;
    c = std::cos(theta);
    s = std::sin(theta);
  }
  // The second moments are taken over the same ellipse tested axis-aligned,
  // also when the centre's sums used it turned: results in ellipse mode are
  // defined with this trimming, so it is kept.
  const Ellipse straight = makeEllipse(aperture, 1.0, 0.0);
  double total = 0, cx = 0, cy = 0;
  SecondMoments m;
  if (c == 1.0 && s == 0.0 && frame.depth() != CV_64F) {
    // Both passes cover the same pixels, and with non-negative pixels the
    // I > 0 condition changes nothing: one pass gathers the sums of both,
    // about a reference near the aperture's centre.
    const int x0 = static_cast<int>(
        std::clamp(referenceOf(aperture.centerX - rect.x), 0.0, view.cols - 1.0));
    const int y0 = static_cast<int>(
        std::clamp(referenceOf(aperture.centerY - rect.y), 0.0, view.rows - 1.0));
    const CentralSums sums = dispatchDepth(frame, [&](auto pixel) {
      return ellipseSums<decltype(pixel), false>(view, straight, rect.x, rect.y, x0, y0);
    });
    total = sums.t0;
    if (total == 0) {
      state.autoAperture.a = -1.0;
      return SpotOutcome::kNoSignal;
    }
    cx = x0 + sums.tx / total;
    cy = y0 + sums.ty / total;
    m = centralMoments(sums, x0, y0, cx, cy, total);
  } else {
    const Ellipse turned = makeEllipse(aperture, c, s);
    const CentralSums first = dispatchDepth(frame, [&](auto pixel) {
      return ellipseSums<decltype(pixel), false>(view, turned, rect.x, rect.y, 0, 0);
    });
    total = first.t0;
    if (total == 0) {
      state.autoAperture.a = -1.0;
      return SpotOutcome::kNoSignal;
    }
    cx = first.tx / total;
    cy = first.ty / total;
    const double x0 = referenceOf(cx);
    const double y0 = referenceOf(cy);
    const CentralSums sums = dispatchDepth(frame, [&](auto pixel) {
      return ellipseSums<decltype(pixel), true>(view, straight, rect.x, rect.y,
                                                static_cast<int>(x0), static_cast<int>(y0));
    });
    m = centralMoments(sums, x0, y0, cx, cy, total);
  }
  const SpotShape shape = spotShape(m.xx, m.yy, m.xy, ellipseMode);

  state.autoAperture.centerX = cx + rect.x;
  state.autoAperture.centerY = cy + rect.y;
  state.autoAperture.a = ellipseMode ? shape.smaller : shape.first;
  state.autoAperture.b = ellipseMode ? shape.larger : shape.second;
  state.angle = shape.angle;

  fillRecord(out, total, cx + rect.x, cy + rect.y, shape);
  const SpotAperture& used = state.useAutoAperture ? state.autoAperture : state.userAperture;
  out.apertureX = used.centerX;
  out.apertureY = used.centerY;
  out.apertureA = used.a;
  out.apertureB = used.b;
  return SpotOutcome::kMeasured;
}

// ---------------------------------------------------------------------------
// Several spots
// ---------------------------------------------------------------------------

MultiSpotWorkspace::MultiSpotWorkspace() {
  // Room for 1000 labels before the first frame; the labelling resizes them
  // to the label count of each frame.
  stats.create(1000, 5, CV_32S);
  centroids.create(1000, 2, CV_64F);
  labelSums.reserve(1000);
}

namespace {

// Sums of the view's values per label, for the labels marked in `wanted`,
// run by run.
template <typename T>
void sumLabels(const cv::Mat& view, const std::vector<SpotRun>& runs,
               const std::vector<char>& wanted, std::vector<double>& sums) {
  sums.assign(wanted.size(), 0.0);
  for (const SpotRun& run : runs) {
    if (!wanted[run.label]) continue;
    double s0 = 0, s1 = 0, s2 = 0;
    spanSums<T, false>(view.ptr<T>(run.y), run.first, run.last, run.first, s0, s1, s2);
    sums[run.label] += s0;
  }
}

// The smallest and largest value of a view.  Integer views are scanned
// directly (cv::minMaxLoc also tracks the locations, which are not needed);
// floating-point views go through cv::minMaxLoc.
template <typename T>
void viewMinMax(const cv::Mat& view, double& lo, double& hi) {
  if constexpr (std::is_floating_point_v<T>) {
    cv::minMaxLoc(view, &lo, &hi);
  } else {
    T a = std::numeric_limits<T>::max();
    T b = std::numeric_limits<T>::lowest();
    for (int y = 0; y < view.rows; ++y) {
      const T* row = view.ptr<T>(y);
      for (int x = 0; x < view.cols; ++x) {
        a = std::min(a, row[x]);
        b = std::max(b, row[x]);
      }
    }
    lo = a;
    hi = b;
  }
}

int findRoot(std::vector<int>& parent, int i) {
  while (parent[i] != i) {
    parent[i] = parent[parent[i]];
    i = parent[i];
  }
  return i;
}

// The first column at or after x whose byte is non-zero (or `end`).
int nextForeground(const uint8_t* row, int x, int end) {
  while (x < end && (x & 7) != 0 && row[x] == 0) ++x;
  while (x + 8 <= end) {
    uint64_t chunk;
    std::memcpy(&chunk, row + x, sizeof chunk);
    if (chunk != 0) break;
    x += 8;
  }
  while (x < end && row[x] == 0) ++x;
  return x;
}

}  // namespace

int labelRuns(const cv::Mat& binary, MultiSpotWorkspace& work) {
  CV_Assert(binary.type() == CV_8UC1);
  std::vector<SpotRun>& runs = work.runs;
  std::vector<int>& rowStart = work.rowStart;
  std::vector<int>& parent = work.parent;
  runs.clear();
  parent.clear();
  rowStart.assign(binary.rows + 1, 0);
  const int width = binary.cols;
  int previousStart = 0;
  for (int y = 0; y < binary.rows; ++y) {
    const uint8_t* row = binary.ptr<uint8_t>(y);
    const int start = static_cast<int>(runs.size());
    rowStart[y] = start;
    int above = previousStart;  // first run of the row above that may touch
    for (int x = nextForeground(row, 0, width); x < width;
         x = nextForeground(row, x, width)) {
      const int first = x;
      while (x < width && row[x] != 0) ++x;
      const int last = x - 1;
      const int index = static_cast<int>(runs.size());
      runs.push_back({y, first, last, 0});
      parent.push_back(index);
      // 8-connected to the runs above that reach columns first-1..last+1.
      while (above < start && runs[above].last < first - 1) ++above;
      for (int j = above; j < start && runs[j].first <= last + 1; ++j) {
        const int a = findRoot(parent, index);
        const int b = findRoot(parent, j);
        if (a != b) parent[std::max(a, b)] = std::min(a, b);
      }
    }
    previousStart = start;
  }
  rowStart[binary.rows] = static_cast<int>(runs.size());

  // Labels in the order in which a scan of 2 x 2 blocks, row of blocks by
  // row of blocks, meets each component first (the order of OpenCV's block
  // labelling, so that candidates of equal intensity keep the same order).
  std::vector<int64_t>& firstBlock = work.firstBlock;
  firstBlock.assign(runs.size(), std::numeric_limits<int64_t>::max());
  std::vector<int>& roots = work.roots;
  roots.clear();
  for (size_t i = 0; i < runs.size(); ++i) {
    const int root = findRoot(parent, static_cast<int>(i));
    if (root == static_cast<int>(i)) roots.push_back(root);
    const int64_t block = (static_cast<int64_t>(runs[i].y >> 1) << 32) | (runs[i].first >> 1);
    firstBlock[root] = std::min(firstBlock[root], block);
  }
  std::sort(roots.begin(), roots.end(),
            [&](int a, int b) { return firstBlock[a] < firstBlock[b]; });
  for (size_t k = 0; k < roots.size(); ++k) runs[roots[k]].label = static_cast<int>(k) + 1;
  for (size_t i = 0; i < runs.size(); ++i) {
    runs[i].label = runs[findRoot(parent, static_cast<int>(i))].label;
  }
  const int count = static_cast<int>(roots.size()) + 1;

  work.stats.create(count, 5, CV_32S);
  work.centroids.create(count, 2, CV_64F);
  std::vector<int64_t> right(count, -1), bottom(count, -1);
  std::vector<double> sumX(count, 0.0), sumY(count, 0.0);
  for (int label = 0; label < count; ++label) {
    int32_t* st = work.stats.ptr<int32_t>(label);
    st[cv::CC_STAT_LEFT] = width;
    st[cv::CC_STAT_TOP] = binary.rows;
    st[cv::CC_STAT_AREA] = 0;
  }
  int64_t foreground = 0;
  for (const SpotRun& run : runs) {
    int32_t* st = work.stats.ptr<int32_t>(run.label);
    const int length = run.last - run.first + 1;
    st[cv::CC_STAT_LEFT] = std::min(st[cv::CC_STAT_LEFT], run.first);
    st[cv::CC_STAT_TOP] = std::min(st[cv::CC_STAT_TOP], run.y);
    right[run.label] = std::max<int64_t>(right[run.label], run.last);
    bottom[run.label] = std::max<int64_t>(bottom[run.label], run.y);
    st[cv::CC_STAT_AREA] += length;
    sumX[run.label] += 0.5 * (static_cast<double>(run.first) + run.last) * length;
    sumY[run.label] += static_cast<double>(run.y) * length;
    foreground += length;
  }
  for (int label = 1; label < count; ++label) {
    int32_t* st = work.stats.ptr<int32_t>(label);
    st[cv::CC_STAT_WIDTH] = static_cast<int32_t>(right[label] - st[cv::CC_STAT_LEFT] + 1);
    st[cv::CC_STAT_HEIGHT] = static_cast<int32_t>(bottom[label] - st[cv::CC_STAT_TOP] + 1);
    double* c = work.centroids.ptr<double>(label);
    c[0] = sumX[label] / st[cv::CC_STAT_AREA];
    c[1] = sumY[label] / st[cv::CC_STAT_AREA];
  }
  // The background's row holds its area only (nothing here reads the rest).
  int32_t* background = work.stats.ptr<int32_t>(0);
  background[cv::CC_STAT_LEFT] = 0;
  background[cv::CC_STAT_TOP] = 0;
  background[cv::CC_STAT_WIDTH] = width;
  background[cv::CC_STAT_HEIGHT] = binary.rows;
  background[cv::CC_STAT_AREA] =
      static_cast<int32_t>(static_cast<int64_t>(binary.rows) * width - foreground);
  work.centroids.at<double>(0, 0) = 0.0;
  work.centroids.at<double>(0, 1) = 0.0;
  return count;
}

bool measureMultiSpot(const cv::Mat& frame, const SpotRoi& roi, bool ellipseMode,
                      uint32_t spotCount, MultiSpotWorkspace& work, SpotResult* out) {
  work.candidates.clear();
  work.found.clear();
  auto zeroAll = [&] {
    for (uint32_t i = 0; i < spotCount; ++i) out[i] = SpotResult{};
  };
  const cv::Rect rect = spotWorkingRect(roi, frame.cols, frame.rows);
  if (rect.empty()) {
    zeroAll();
    return false;
  }
  const cv::Mat view = frame(rect);

  double minValue = 0, maxValue = 0;
  dispatchDepth(frame, [&](auto pixel) {
    viewMinMax<decltype(pixel)>(view, minValue, maxValue);
  });
  double scale = 1.0, offset = 0.0;
  if (maxValue > minValue) {
    scale = 255.0 / (maxValue - minValue);
    offset = -minValue * scale;
  }
  view.convertTo(work.scaled, CV_8U, scale, offset);
  cv::GaussianBlur(work.scaled, work.blurred, cv::Size(3, 3), 0, 0, cv::BORDER_DEFAULT);
  work.lastThreshold =
      cv::threshold(work.blurred, work.binary, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
  if (static_cast<int>(work.lastThreshold) < kMinOtsuLevel) {
    zeroAll();
    return false;
  }
  const int count = labelRuns(work.binary, work);

  std::vector<char> wanted(count, 0);
  for (int label = 1; label < count; ++label) {
    const int32_t* st = work.stats.ptr<int32_t>(label);
    const int area = st[cv::CC_STAT_AREA];
    const double box = static_cast<double>(st[cv::CC_STAT_WIDTH]) * st[cv::CC_STAT_HEIGHT];
    wanted[label] = area >= kMinSpotArea && area / box >= kMinSpotFill;
  }
  dispatchDepth(frame, [&](auto pixel) {
    sumLabels<decltype(pixel)>(view, work.runs, wanted, work.labelSums);
  });
  for (int label = 1; label < count; ++label) {
    if (!wanted[label]) continue;
    const double* centre = work.centroids.ptr<double>(label);
    work.candidates.push_back({label, work.stats.ptr<int32_t>(label)[cv::CC_STAT_AREA], centre[0],
                               centre[1], work.labelSums[label]});
  }
  std::stable_sort(work.candidates.begin(), work.candidates.end(),
                   [](const SpotCandidate& a, const SpotCandidate& b) { return a.sum > b.sum; });

  const size_t measured = std::min<size_t>(spotCount, work.candidates.size());
  for (size_t i = 0; i < measured; ++i) {
    const SpotCandidate& own = work.candidates[i];
    const int32_t* st = work.stats.ptr<int32_t>(own.label);
    const int left = st[cv::CC_STAT_LEFT], top = st[cv::CC_STAT_TOP];
    const int w = st[cv::CC_STAT_WIDTH], h = st[cv::CC_STAT_HEIGHT];
    const int hw = w / 2, hh = h / 2;
    double x0 = std::max(0, left - hw);
    double y0 = std::max(0, top - hh);
    double x1 = std::min(view.cols, left + w + hw);
    double y1 = std::min(view.rows, top + h + hh);
    // Cut the box half-way towards every other component, across the axis
    // along which the two lie further apart.
    for (const SpotCandidate& other : work.candidates) {
      if (other.label == own.label) continue;
      const double mx = 0.5 * (own.centroidX + other.centroidX);
      const double my = 0.5 * (own.centroidY + other.centroidY);
      if (mx < x0 || mx > x1 || my < y0 || my > y1) continue;
      if (std::fabs(mx - own.centroidX) > std::fabs(my - own.centroidY)) {
        if (mx > own.centroidX) {
          x1 = std::min(x1, mx);
        } else {
          x0 = std::max(x0, mx);
        }
      } else if (my > own.centroidY) {
        y1 = std::min(y1, my);
      } else {
        y0 = std::max(y0, my);
      }
    }
    x0 = std::max(x0, 0.0);
    y0 = std::max(y0, 0.0);
    x1 = std::min(x1, static_cast<double>(view.cols));
    y1 = std::min(y1, static_cast<double>(view.rows));
    if (x0 >= x1 || y0 >= y1) continue;
    const cv::Rect box(static_cast<int>(std::floor(x0)), static_cast<int>(std::floor(y0)),
                       static_cast<int>(std::floor(x1 - x0)),
                       static_cast<int>(std::floor(y1 - y0)));

    // One pass gathers both the centre's and the second moments' sums (the
    // same pixels, no condition on I), about the middle of the box.
    const int refX = box.x + box.width / 2;
    const int refY = box.y + box.height / 2;
    const CentralSums sums = dispatchDepth(frame, [&](auto pixel) {
      return boxSums<decltype(pixel)>(view, work.runs, work.rowStart, box, own.label, refX, refY);
    });
    if (sums.t0 == 0) break;  // the spots found so far are kept
    const double cx = refX + sums.tx / sums.t0;
    const double cy = refY + sums.ty / sums.t0;
    const SecondMoments second = centralMoments(sums, refX, refY, cx, cy, sums.t0);
    const SpotShape shape = spotShape(second.xx, second.yy, second.xy, ellipseMode);
    SpotResult record{};
    fillRecord(record, sums.t0, cx + rect.x, cy + rect.y, shape);
    record.apertureX = rect.x + box.x + box.width / 2;
    record.apertureY = rect.y + box.y + box.height / 2;
    record.apertureA = box.width / 2;
    record.apertureB = box.height / 2;
    work.found.push_back(record);
  }

  std::stable_sort(work.found.begin(), work.found.end(),
                   [](const SpotResult& a, const SpotResult& b) { return a.centerX < b.centerX; });
  zeroAll();
  std::copy(work.found.begin(), work.found.end(), out);
  return !work.found.empty();
}

// ---------------------------------------------------------------------------
// Averaging
// ---------------------------------------------------------------------------

double trimmedMean(const double* values, size_t count) {
  if (count == 0) return 0.0;
  if (count <= 2) {
    double sum = 0;
    for (size_t i = 0; i < count; ++i) sum += values[i];
    return sum / static_cast<double>(count);
  }
  size_t lowest = 0, highest = 0;
  for (size_t i = 1; i < count; ++i) {
    if (values[i] < values[lowest]) lowest = i;
    if (values[i] > values[highest]) highest = i;
  }
  if (lowest == highest) highest = lowest == 0 ? 1 : 0;  // all equal: any two
  double sum = 0;
  for (size_t i = 0; i < count; ++i) {
    if (i != lowest && i != highest) sum += values[i];
  }
  return sum / static_cast<double>(count - 2);
}

// ---------------------------------------------------------------------------
// False colour
// ---------------------------------------------------------------------------

SpotPalette buildSpotPalette() {
  // Colour stops (index, red, green, blue); the levels between two stops are
  // interpolated linearly.
  static constexpr int kStops[][4] = {
      {0, 63, 67, 77},     {1, 64, 64, 64},     {3, 40, 0, 60},      {16, 105, 0, 110},
      {32, 210, 0, 135},   {48, 130, 0, 255},   {64, 0, 0, 205},     {80, 0, 125, 225},
      {96, 0, 210, 255},   {112, 0, 255, 0},    {128, 0, 205, 0},    {144, 70, 215, 0},
      {160, 211, 248, 0},  {176, 255, 249, 0},  {192, 255, 187, 0},  {208, 255, 131, 0},
      {224, 255, 104, 0},  {240, 255, 32, 0},   {252, 255, 1, 0},    {254, 255, 0, 0},
      {255, 255, 255, 255},
  };
  // Three tables of single-precision levels in [0, 1], one a colour; a
  // level k is stored as (k + 0.5) / 255 so that scaling by 255 and
  // truncating gives k back.
  std::array<std::array<float, 256>, 3> tables{};
  size_t stop = 0;
  for (int i = 0; i < 256; ++i) {
    while (kStops[stop + 1][0] < i) ++stop;
    const int* lo = kStops[stop];
    const int* hi = kStops[stop + 1];
    const double t = hi[0] == lo[0] ? 0.0 : static_cast<double>(i - lo[0]) / (hi[0] - lo[0]);
    for (int colour = 0; colour < 3; ++colour) {
      const double level = i == hi[0] ? hi[colour + 1]
                                      : lo[colour + 1] + t * (hi[colour + 1] - lo[colour + 1]);
      tables[colour][i] = static_cast<float>((std::floor(level) + 0.5) / 255.0);
    }
  }
  SpotPalette palette{};
  for (int i = 0; i < 256; ++i) {
    palette[i] = {static_cast<uint32_t>(tables[0][i] * 255.0),
                  static_cast<uint32_t>(tables[1][i] * 255.0),
                  static_cast<uint32_t>(tables[2][i] * 255.0)};
  }
  return palette;
}

void renderPseudoColour(void* buffer, uint32_t width, uint32_t height, uint32_t bitCount,
                        uint32_t rowPitch, uint32_t rawBitDepth, const SpotPalette& palette,
                        std::vector<uint8_t>& scratch) {
  if (bitCount == 0 || bitCount > 16 || width == 0 || height == 0) return;
  auto* bytes = static_cast<uint8_t*>(buffer);
  const size_t outRow = static_cast<size_t>(width) * 3;
  const size_t outBytes = outRow * height;
  if (scratch.size() < outBytes) scratch.resize(outBytes);
  if (bitCount <= 8) {
    const size_t pitch = rowPitch != 0 ? rowPitch : spotDefaultPitch(width, 8);
    // The colour rows are three times as long as the grey ones and overlap
    // them; they are built in the scratch buffer and copied over the frame,
    // which is correct for every pitch (a pitch wider than three times the
    // width would let an in-place rewrite overrun unread grey rows).
    for (uint32_t y = 0; y < height; ++y) {
      const uint8_t* in = bytes + y * pitch;
      uint8_t* out = scratch.data() + y * outRow;
      for (uint32_t x = 0; x < width; ++x, out += 3) {
        const PaletteEntry& p = palette[in[x]];
        out[0] = static_cast<uint8_t>(p.blue);
        out[1] = static_cast<uint8_t>(p.green);
        out[2] = static_cast<uint8_t>(p.red);
      }
    }
  } else {
    // The words hold the sensor's raw bits; its top eight select the colour.
    // A camera reporting 0 (unknown) is taken to fill all 16 bits.
    const uint32_t depth = rawBitDepth == 0 ? 16 : std::clamp<uint32_t>(rawBitDepth, 8, 16);
    const uint32_t shift = depth - 8;
    const size_t pitch = rowPitch != 0 ? rowPitch : spotDefaultPitch(width, 16);
    for (uint32_t y = 0; y < height; ++y) {
      const auto* in = reinterpret_cast<const uint16_t*>(bytes + y * pitch);
      uint8_t* out = scratch.data() + y * outRow;
      for (uint32_t x = 0; x < width; ++x, out += 3) {
        uint16_t value;
        std::memcpy(&value, in + x, sizeof value);
        const PaletteEntry& p = palette[(value >> shift) & 255u];
        out[0] = static_cast<uint8_t>(p.blue);
        out[1] = static_cast<uint8_t>(p.green);
        out[2] = static_cast<uint8_t>(p.red);
      }
    }
  }
  std::memcpy(bytes, scratch.data(), outBytes);
}

}  // namespace vantix
