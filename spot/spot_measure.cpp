#include "spot/spot_measure.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <type_traits>

#include <opencv2/imgproc.hpp>

namespace vantix {
namespace {

constexpr double kPi = 3.141592653589793;

// Integer frames are summed in 64-bit integers: every partial sum of
// I, x * I and y * I is then exact, whatever the order of summation, and
// equals what a summation in doubles of the same products gives.
template <typename T>
using Accumulator = std::conditional_t<std::is_floating_point_v<T>, double, int64_t>;

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
  while (lo <= hi && !e.inside(baseX + lo, dy)) ++lo;
  while (hi >= lo && !e.inside(baseX + hi, dy)) --hi;
  if (lo > hi) return false;
  first = lo;
  last = hi;
  return true;
}

// ---------------------------------------------------------------------------
// Moments
// ---------------------------------------------------------------------------

// Raw sums of the first pass.
struct FirstMoments {
  double s = 0, sx = 0, sy = 0;
};

// Sums of the second pass taken about an integer reference point (x0, y0)
// near the centre, so that no large terms cancel: t0 = sum I, tx = sum I x',
// ty = sum I y', txx = sum I x'^2, tyy = sum I y'^2, txy = sum I x' y'.
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

// First pass of the single spot: sums over the ellipse's rows.
template <typename T>
FirstMoments ellipseFirstPass(const cv::Mat& view, const Ellipse& e, int offsetX, int offsetY) {
  using Acc = Accumulator<T>;
  Acc s = 0, sx = 0, sy = 0;
  for (int y = 0; y < view.rows; ++y) {
    int first = 0, last = 0;
    if (!ellipseRowSpan(e, y, view.cols, offsetX, offsetY, first, last)) continue;
    const T* row = view.ptr<T>(y);
    Acc rowS = 0, rowSx = 0;
    for (int x = first; x <= last; ++x) {
      const Acc value = static_cast<Acc>(row[x]);
      rowS += value;
      rowSx += static_cast<Acc>(x) * value;
    }
    s += rowS;
    sx += rowSx;
    sy += static_cast<Acc>(y) * rowS;
  }
  return {static_cast<double>(s), static_cast<double>(sx), static_cast<double>(sy)};
}

// Second pass of the single spot: the pixels with I > 0 inside the ellipse.
template <typename T>
CentralSums ellipseSecondPass(const cv::Mat& view, const Ellipse& e, int offsetX, int offsetY,
                              int x0, int y0) {
  using Acc = Accumulator<T>;
  CentralSums t;
  for (int y = 0; y < view.rows; ++y) {
    int first = 0, last = 0;
    if (!ellipseRowSpan(e, y, view.cols, offsetX, offsetY, first, last)) continue;
    const T* row = view.ptr<T>(y);
    Acc r0 = 0, r1 = 0, r2 = 0;
    for (int x = first; x <= last; ++x) {
      const T value = row[x];
      if (!(value > 0)) continue;
      const Acc v = static_cast<Acc>(value);
      const Acc dx = static_cast<Acc>(x - x0);
      r0 += v;
      r1 += v * dx;
      r2 += v * dx * dx;
    }
    const double dy = static_cast<double>(y - y0);
    t.t0 += static_cast<double>(r0);
    t.tx += static_cast<double>(r1);
    t.txx += static_cast<double>(r2);
    t.ty += dy * static_cast<double>(r0);
    t.tyy += dy * dy * static_cast<double>(r0);
    t.txy += dy * static_cast<double>(r1);
  }
  return t;
}

// First and second pass over a box of the view, over the pixels whose label
// is 0 or `own` (the multi-spot measurement).  Returns false when S is 0.
template <typename T>
bool boxMoments(const cv::Mat& view, const cv::Mat& labels, const cv::Rect& box, int own,
                FirstMoments& first, SecondMoments& second) {
  using Acc = Accumulator<T>;
  Acc s = 0, sx = 0, sy = 0;
  for (int y = box.y; y < box.y + box.height; ++y) {
    const T* row = view.ptr<T>(y);
    const int32_t* label = labels.ptr<int32_t>(y);
    Acc rowS = 0, rowSx = 0;
    for (int x = box.x; x < box.x + box.width; ++x) {
      if (label[x] != 0 && label[x] != own) continue;
      const Acc value = static_cast<Acc>(row[x]);
      rowS += value;
      rowSx += static_cast<Acc>(x) * value;
    }
    s += rowS;
    sx += rowSx;
    sy += static_cast<Acc>(y) * rowS;
  }
  first = {static_cast<double>(s), static_cast<double>(sx), static_cast<double>(sy)};
  if (first.s == 0) return false;
  const double cx = first.sx / first.s;
  const double cy = first.sy / first.s;
  const double x0 = referenceOf(cx);
  const double y0 = referenceOf(cy);
  const int ix0 = static_cast<int>(x0);
  CentralSums t;
  for (int y = box.y; y < box.y + box.height; ++y) {
    const T* row = view.ptr<T>(y);
    const int32_t* label = labels.ptr<int32_t>(y);
    Acc r0 = 0, r1 = 0, r2 = 0;
    for (int x = box.x; x < box.x + box.width; ++x) {
      if (label[x] != 0 && label[x] != own) continue;
      const Acc v = static_cast<Acc>(row[x]);
      const Acc dx = static_cast<Acc>(x - ix0);
      r0 += v;
      r1 += v * dx;
      r2 += v * dx * dx;
    }
    const double dy = static_cast<double>(y) - y0;
    t.t0 += static_cast<double>(r0);
    t.tx += static_cast<double>(r1);
    t.txx += static_cast<double>(r2);
    t.ty += dy * static_cast<double>(r0);
    t.tyy += dy * dy * static_cast<double>(r0);
    t.txy += dy * static_cast<double>(r1);
  }
  second = centralMoments(t, x0, y0, cx, cy, first.s);
  return true;
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
  return static_cast<uint32_t>((static_cast<uint64_t>(width) * bitCount + 31) / 32 * 4);
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
  const Ellipse turned = makeEllipse(aperture, c, s);
  const FirstMoments first = dispatchDepth(frame, [&](auto pixel) {
    return ellipseFirstPass<decltype(pixel)>(view, turned, rect.x, rect.y);
  });
  if (first.s == 0) {
    state.autoAperture.a = -1.0;
    return SpotOutcome::kNoSignal;
  }
  const double cx = first.sx / first.s;
  const double cy = first.sy / first.s;

  // The second moments are taken over the same ellipse, axis-aligned even
  // when the first pass turned it: the trimming of the variance is then the
  // same in both measurement modes.
  const Ellipse straight = makeEllipse(aperture, 1.0, 0.0);
  const double x0 = referenceOf(cx);
  const double y0 = referenceOf(cy);
  const CentralSums sums = dispatchDepth(frame, [&](auto pixel) {
    return ellipseSecondPass<decltype(pixel)>(view, straight, rect.x, rect.y,
                                              static_cast<int>(x0), static_cast<int>(y0));
  });
  const SecondMoments m = centralMoments(sums, x0, y0, cx, cy, first.s);
  const SpotShape shape = spotShape(m.xx, m.yy, m.xy, ellipseMode);

  state.autoAperture.centerX = cx + rect.x;
  state.autoAperture.centerY = cy + rect.y;
  state.autoAperture.a = ellipseMode ? shape.smaller : shape.first;
  state.autoAperture.b = ellipseMode ? shape.larger : shape.second;
  state.angle = shape.angle;

  fillRecord(out, first.s, cx + rect.x, cy + rect.y, shape);
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
  // Room for 1000 labels before the first frame; connectedComponentsWithStats
  // resizes them to the label count of each frame.
  stats.create(1000, 5, CV_32S);
  centroids.create(1000, 2, CV_64F);
  labelSums.reserve(1000);
}

namespace {

// Sums of the view's values per label, for the labels marked in `wanted`.
// Small components are summed over their bounding boxes; when those boxes
// together would cover more than the view, one pass over the view is cheaper.
template <typename T>
void sumLabels(const cv::Mat& view, const cv::Mat& labels, const cv::Mat& stats,
               const std::vector<char>& wanted, std::vector<double>& sums) {
  using Acc = Accumulator<T>;
  const int count = stats.rows;
  sums.assign(count, 0.0);
  int64_t boxPixels = 0;
  for (int label = 1; label < count; ++label) {
    if (!wanted[label]) continue;
    const int32_t* st = stats.ptr<int32_t>(label);
    boxPixels += static_cast<int64_t>(st[cv::CC_STAT_WIDTH]) * st[cv::CC_STAT_HEIGHT];
  }
  if (boxPixels < static_cast<int64_t>(view.total())) {
    for (int label = 1; label < count; ++label) {
      if (!wanted[label]) continue;
      const int32_t* st = stats.ptr<int32_t>(label);
      Acc sum = 0;
      for (int y = st[cv::CC_STAT_TOP]; y < st[cv::CC_STAT_TOP] + st[cv::CC_STAT_HEIGHT]; ++y) {
        const T* row = view.ptr<T>(y);
        const int32_t* lab = labels.ptr<int32_t>(y);
        for (int x = st[cv::CC_STAT_LEFT]; x < st[cv::CC_STAT_LEFT] + st[cv::CC_STAT_WIDTH]; ++x) {
          if (lab[x] == label) sum += static_cast<Acc>(row[x]);
        }
      }
      sums[label] = static_cast<double>(sum);
    }
    return;
  }
  std::vector<Acc> acc(count, 0);
  for (int y = 0; y < view.rows; ++y) {
    const T* row = view.ptr<T>(y);
    const int32_t* lab = labels.ptr<int32_t>(y);
    for (int x = 0; x < view.cols; ++x) {
      if (lab[x] > 0) acc[lab[x]] += static_cast<Acc>(row[x]);
    }
  }
  for (int label = 1; label < count; ++label) sums[label] = static_cast<double>(acc[label]);
}

}  // namespace

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
  cv::minMaxLoc(view, &minValue, &maxValue);
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
  const int count = cv::connectedComponentsWithStats(work.binary, work.labels, work.stats,
                                                     work.centroids, 8, CV_32S);

  std::vector<char> wanted(count, 0);
  for (int label = 1; label < count; ++label) {
    const int32_t* st = work.stats.ptr<int32_t>(label);
    const int area = st[cv::CC_STAT_AREA];
    const double box = static_cast<double>(st[cv::CC_STAT_WIDTH]) * st[cv::CC_STAT_HEIGHT];
    wanted[label] = area >= kMinSpotArea && area / box >= kMinSpotFill;
  }
  dispatchDepth(frame, [&](auto pixel) {
    sumLabels<decltype(pixel)>(view, work.labels, work.stats, wanted, work.labelSums);
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

    FirstMoments first;
    SecondMoments second;
    const bool signal = dispatchDepth(frame, [&](auto pixel) {
      return boxMoments<decltype(pixel)>(view, work.labels, box, own.label, first, second);
    });
    if (!signal) break;  // the spots found so far are kept
    const SpotShape shape = spotShape(second.xx, second.yy, second.xy, ellipseMode);
    SpotResult record{};
    fillRecord(record, first.s, first.sx / first.s + rect.x, first.sy / first.s + rect.y, shape);
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
