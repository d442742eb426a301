// Fuzzes the spot measurement: frame content (raw bytes or drawn Gaussian
// spots), bit count, row pitch, ROI, aperture (automatic with any angle, or
// fixed with any values), ellipse mode and spot count.  Every measurement is
// compared with a reference written here straight from the documented steps,
// pixel by pixel over the frame converted to doubles:
//  - the grey input (8/16 as is, 24 by the luma weights, 48 by the integer
//    rule; other depths "Unsupported image depth");
//  - the single spot: working rectangle, aperture test (turned for the
//    automatic aperture), centre, second moments over the axis-aligned
//    ellipse, diameters and angle, the aperture update, and the outcomes
//    without overlap (zeros) and without signal (record untouched);
//  - several spots: stretch to 8 bits, 3x3 Gaussian, Otsu (below 6: none),
//    OpenCV's labelling, candidates, boxes cut half-way towards the others,
//    masks, moments, ordering by centre x, zero records after; and the
//    library's own run labelling against cv::connectedComponentsWithStats;
//  - the session: block averages (trimmed means) of a run of frames against
//    the same frames measured by a session that does not average.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

#include <opencv2/imgproc.hpp>

#include "fuzz_common.h"
#include "spot/spot_measure.h"
#include "spot/spot_session.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr uint32_t kBitCounts[] = {8, 16, 24, 48, 0, 12, 32, 64};
constexpr uint32_t kSpotCounts[] = {1, 1, 2, 3, 4, 6, 0, 40};
constexpr double kSpecial[] = {0.0, -1.0, 1e-300, 1e300, std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN(),
                               0.5};

struct Beam {
  int16_t x = 0, y = 0;        // centre, in quarter pixels
  uint8_t sx = 4, sy = 4;      // sigmas, in quarter pixels (at least one)
  uint16_t amplitude = 0;
};

struct Args {
  bool large = false;
  uint16_t width = 1, height = 1;
  size_t bitChoice = 0;
  size_t pitchMode = 0;  // 0: 0, 1: default, 2: one row plus extra bytes
  uint8_t pitchExtra = 0;
  size_t content = 0;  // 0: bytes, 1: beams
  uint16_t background = 0;
  uint8_t beamCount = 0;
  Beam beams[4];
  size_t roiMode = 0;  // 0: none, 1: near the frame, 2: anywhere in 32 bits
  int32_t roi[4] = {0, 0, 0, 0};
  bool useAuto = true;
  bool autoSet = false;
  int32_t aperture[4] = {0, 0, 0, 0};  // quarter pixels
  size_t specialA = 0, specialB = 0;   // 0: take the value above
  int16_t angle = 90;
  bool ellipseMode = false;
  size_t spotChoice = 0;
  uint8_t averageCount = 0;
  uint8_t frames = 1;
  std::vector<uint8_t> pattern;
};

template <typename C>
void schema(C& c, Args& a) {
  c.flag(a.large);
  // Large frames stay at a quarter megapixel: every frame is measured by
  // the library and by the pixel-by-pixel references, several times.
  c.num(a.width, 0, a.large ? 512 : 48);
  c.num(a.height, 0, a.large ? 512 : 48);
  c.choice(a.bitChoice, sizeof kBitCounts / sizeof kBitCounts[0]);
  c.choice(a.pitchMode, 3);
  c.num(a.pitchExtra, 0, 9);
  c.choice(a.content, 2);
  c.num(a.background, 0, 0xFFFF);
  c.num(a.beamCount, 0, 4);
  for (int i = 0; i < a.beamCount; ++i) {
    Beam& b = a.beams[i];
    c.num(b.x, -40, 4200);
    c.num(b.y, -40, 4200);
    c.num(b.sx, 1, 255);
    c.num(b.sy, 1, 255);
    c.num(b.amplitude, 0, 0xFFFF);
  }
  c.choice(a.roiMode, 3);
  for (int32_t& v : a.roi) {
    if (a.roiMode == 2) {
      c.num(v, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
    } else {
      c.num(v, -8, 1100);
    }
  }
  c.flag(a.useAuto);
  c.flag(a.autoSet);
  for (int32_t& v : a.aperture) c.num(v, -400, 4400);
  c.choice(a.specialA, sizeof kSpecial / sizeof kSpecial[0] + 1);
  c.choice(a.specialB, sizeof kSpecial / sizeof kSpecial[0] + 1);
  c.num(a.angle, -100, 100);
  c.flag(a.ellipseMode);
  c.choice(a.spotChoice, sizeof kSpotCounts / sizeof kSpotCounts[0]);
  c.num(a.averageCount, 0, 5);
  c.num(a.frames, 1, a.large ? 2 : 5);
  c.rest(a.pattern);
}

// ---------------------------------------------------------------------------
// Frames
// ---------------------------------------------------------------------------

uint32_t pitchOf(const Args& a, uint32_t bits) {
  const uint32_t padded = static_cast<uint32_t>((uint64_t{a.width} * bits + 31) / 32 * 4);
  switch (a.pitchMode) {
    case 0: return 0;
    case 1: return padded;
    default: return a.width * (bits / 8) + a.pitchExtra;
  }
}

// Paints frame `index` of a run: raw bytes, or the beams over a background,
// brighter by a quarter per frame, each sample clipped to the depth.
void paint(fuzz::GuardedBuffer& buf, const Args& a, uint32_t bits, uint32_t pitch, int index) {
  if (a.content == 0 || (bits != 8 && bits != 16 && bits != 24 && bits != 48)) {
    buf.fillFrom(a.pattern, 0x10);
    if (index > 0 && buf.size() > 0) buf.data()[(index * 7919) % buf.size()] ^= 0x5A;
    return;
  }
  const bool sixteen = bits == 16 || bits == 48;
  const int channels = bits == 24 || bits == 48 ? 3 : 1;
  const double top = sixteen ? 65535.0 : 255.0;
  const double gain = 1.0 + 0.25 * index;
  std::memset(buf.data(), 0, buf.size());
  const size_t step = pitch != 0 ? pitch : (size_t{a.width} * bits + 31) / 32 * 4;
  for (uint32_t y = 0; y < a.height; ++y) {
    uint8_t* row = buf.data() + y * step;
    for (uint32_t x = 0; x < a.width; ++x) {
      double v = sixteen ? a.background : a.background >> 8;
      for (int i = 0; i < a.beamCount; ++i) {
        const Beam& b = a.beams[i];
        const double dx = (x - b.x / 4.0) / (b.sx / 4.0);
        const double dy = (y - b.y / 4.0) / (b.sy / 4.0);
        v += gain * (sixteen ? b.amplitude : b.amplitude >> 8) * std::exp(-0.5 * (dx * dx + dy * dy));
      }
      const double clipped = std::min(std::floor(v), top);
      for (int ch = 0; ch < channels; ++ch) {
        if (sixteen) {
          const uint16_t w = static_cast<uint16_t>(clipped);
          std::memcpy(row + (size_t{x} * channels + ch) * 2, &w, 2);
        } else {
          row[size_t{x} * channels + ch] = static_cast<uint8_t>(clipped);
        }
      }
    }
  }
}

// The grey frame as doubles, by the documented rules.
cv::Mat referenceGrey(const uint8_t* data, const Args& a, uint32_t bits, uint32_t pitch, bool* rounded) {
  const uint32_t step = pitch != 0 ? pitch : static_cast<uint32_t>((uint64_t{a.width} * bits + 31) / 32 * 4);
  cv::Mat grey(a.height, a.width, CV_64FC1);
  *rounded = bits == 24;
  for (uint32_t y = 0; y < a.height; ++y) {
    const uint8_t* row = data + size_t{y} * step;
    for (uint32_t x = 0; x < a.width; ++x) {
      double v = 0;
      uint16_t w[3];
      switch (bits) {
        case 8: v = row[x]; break;
        case 16: std::memcpy(w, row + 2 * x, 2); v = w[0]; break;
        case 24: v = 0.299 * row[3 * x + 2] + 0.587 * row[3 * x + 1] + 0.114 * row[3 * x]; break;
        default:
          std::memcpy(w, row + 6 * x, 6);
          v = static_cast<double>((299u * w[2] + 587u * w[1] + 114u * w[0]) / 1000u);
          break;
      }
      grey.at<double>(y, x) = v;
    }
  }
  return grey;
}

// ---------------------------------------------------------------------------
// Shape from moments, as documented
// ---------------------------------------------------------------------------

struct Shape {
  double first, second, angle, smaller, larger, ellipticity;
};

Shape shapeOf(double sxx, double syy, double sxy, bool ellipseMode) {
  Shape s{};
  if (!ellipseMode) {
    s.first = 4 * std::sqrt(sxx);
    s.second = 4 * std::sqrt(syy);
    s.angle = 90;
    s.smaller = std::min(s.first, s.second);
    s.larger = std::max(s.first, s.second);
  } else {
    const double g = sxx > syy ? 1 : sxx < syy ? -1 : 0;
    double d1, d2;
    if (g != 0) {
      const double r = g * std::sqrt((sxx - syy) * (sxx - syy) + 4 * sxy * sxy);
      d1 = 2 * std::sqrt(2 * (sxx + syy + r));
      d2 = 2 * std::sqrt(2 * (sxx + syy - r));
      s.angle = std::atan(2 * sxy / (syy - sxx)) * 90 / kPi;
      if (d1 < d2) s.angle += 90;
      if (s.angle > 90) s.angle -= 180;
    } else {
      d1 = 2 * std::sqrt(2 * (sxx + syy + 2 * std::fabs(sxy)));
      d2 = 2 * std::sqrt(2 * (sxx + syy - 2 * std::fabs(sxy)));
      s.angle = d1 == d2 ? 0 : (sxy < 0 ? 45 : -45);
    }
    s.smaller = std::min(d1, d2);
    s.larger = std::max(d1, d2);
    s.first = s.larger;
    s.second = s.smaller;
  }
  s.ellipticity = s.larger > 0 ? s.smaller / s.larger : 0;
  return s;
}

bool close(double got, double want, double rel, double abs) {
  if (std::isnan(want)) return std::isnan(got);
  if (std::isinf(want)) return got == want;
  return std::fabs(got - want) <= abs + rel * std::fabs(want);
}

// Diameters are compared through their squares (the moments), which the
// summation order perturbs only relatively; the square root would magnify
// the perturbation of a nearly zero moment.
bool closeDiameter(double got, double want, double scale) {
  return std::fabs(got * got - want * want) <= 1e-7 * (want * want + scale * scale) + 1e-9;
}

// Angles are equal modulo 180 degrees.
bool closeAngle(double got, double want) {
  double d = std::fmod(std::fabs(got - want), 180.0);
  d = std::min(d, 180.0 - d);
  return d <= 1e-3;
}

void expectShape(const SpotResult& r, const Shape& s, double sxx, double syy, double scale, bool ellipseMode,
                 const char* what) {
  FUZZ_EXPECT(closeDiameter(r.majorDiameter, s.first, scale),
              "%s: field 4 %.17g, expected %.17g", what, r.majorDiameter, s.first);
  FUZZ_EXPECT(closeDiameter(r.minorDiameter, s.second, scale), "%s: field 5 %.17g, expected %.17g", what,
              r.minorDiameter, s.second);
  FUZZ_EXPECT(r.ellipticity >= 0 && r.ellipticity <= 1, "%s: ellipticity %.17g", what, r.ellipticity);
  FUZZ_EXPECT(r.angle > -90 && r.angle <= 90, "%s: angle %.17g", what, r.angle);
  if (!ellipseMode) {
    FUZZ_EXPECT(r.angle == 90, "%s: axis-aligned angle %.17g", what, r.angle);
  } else if (std::fabs(sxx - syy) > 1e-4 * (sxx + syy) && s.larger > 1e-3) {
    FUZZ_EXPECT(closeAngle(r.angle, s.angle), "%s: angle %.17g, expected %.17g", what, r.angle, s.angle);
  }
}

// ---------------------------------------------------------------------------
// Working rectangle
// ---------------------------------------------------------------------------

cv::Rect referenceRect(const SpotRoi& roi, int w, int h) {
  int64_t x0 = 0, y0 = 0, x1 = w, y1 = h;
  if (roi.width >= 1 && roi.height >= 1) {
    x0 = std::max<int64_t>(0, roi.x);
    y0 = std::max<int64_t>(0, roi.y);
    x1 = std::min<int64_t>(w, int64_t{roi.x} + roi.width);
    y1 = std::min<int64_t>(h, int64_t{roi.y} + roi.height);
  }
  if (x1 <= x0 || y1 <= y0) return {};
  return {static_cast<int>(x0), static_cast<int>(y0), static_cast<int>(x1 - x0), static_cast<int>(y1 - y0)};
}

bool isZero(const SpotResult& r) {
  static const SpotResult zero{};
  return std::memcmp(&r, &zero, sizeof r) == 0;
}

// ---------------------------------------------------------------------------
// Single spot
// ---------------------------------------------------------------------------

void checkSingle(const cv::Mat& frame, const cv::Mat& grey64, const SpotRoi& roi, bool ellipseMode,
                 const vantix::SingleSpotState& before, double scale) {
  vantix::SingleSpotState state = before;
  SpotResult out;
  std::memset(&out, 0x7F, sizeof out);  // a recognisable "untouched"
  SpotResult untouched = out;
  const vantix::SpotOutcome outcome = vantix::measureSingleSpot(frame, roi, ellipseMode, state, out);

  const cv::Rect rect = referenceRect(roi, grey64.cols, grey64.rows);
  if (rect.empty()) {
    FUZZ_EXPECT(outcome == vantix::SpotOutcome::kEmptyRect && isZero(out), "single spot without overlap");
    return;
  }
  SpotAperture ap = before.useAutoAperture ? before.autoAperture : before.userAperture;
  if (before.useAutoAperture && ap.a < 0) {
    ap = {static_cast<double>(grey64.cols / 2), static_cast<double>(grey64.rows / 2),
          static_cast<double>(grey64.cols / 2), static_cast<double>(grey64.rows / 2)};
  }
  double c = 1, s = 0;
  if (before.useAutoAperture) {
    const double theta = (90 - before.angle) * kPi / 180;
    c = std::cos(theta);
    s = std::sin(theta);
  }
  const double ia = 1 / (ap.a * ap.a), ib = 1 / (ap.b * ap.b);
  // Pixels compared with the aperture in whole-frame coordinates.
  double S = 0, Sx = 0, Sy = 0;
  for (int y = rect.y; y < rect.y + rect.height; ++y) {
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const double dx = x - ap.centerX, dy = y - ap.centerY;
      const double u = c * dx + s * dy, v = c * dy - s * dx;
      if (u * u * ia + v * v * ib <= 1) {
        const double I = grey64.at<double>(y, x);
        S += I;
        Sx += (x - rect.x) * I;
        Sy += (y - rect.y) * I;
      }
    }
  }
  if (S == 0) {
    FUZZ_EXPECT(outcome == vantix::SpotOutcome::kNoSignal, "single spot: no signal expected, outcome %d",
                static_cast<int>(outcome));
    FUZZ_EXPECT(std::memcmp(&out, &untouched, sizeof out) == 0, "single spot without signal wrote the record");
    FUZZ_EXPECT(state.autoAperture.a == -1.0, "single spot without signal kept the aperture");
    return;
  }
  FUZZ_EXPECT(outcome == vantix::SpotOutcome::kMeasured, "single spot: S = %.17g but outcome %d", S,
              static_cast<int>(outcome));
  const double cx = Sx / S, cy = Sy / S;
  if (std::getenv("FUZZ_VERBOSE") != nullptr) {
    std::fprintf(stderr, "single: total %g centre %g %g d %g %g\n", out.total, out.centerX, out.centerY, out.majorDiameter, out.minorDiameter);
  }
  double sxx = 0, syy = 0, sxy = 0;
  for (int y = rect.y; y < rect.y + rect.height; ++y) {
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const double dx = x - ap.centerX, dy = y - ap.centerY;
      const double I = grey64.at<double>(y, x);
      if (I > 0 && dx * dx * ia + dy * dy * ib <= 1) {
        const double ex = x - rect.x - cx, ey = y - rect.y - cy;
        sxx += I * ex * ex;
        syy += I * ey * ey;
        sxy += I * ex * ey;
      }
    }
  }
  sxx /= S;
  syy /= S;
  sxy /= S;
  const Shape shape = shapeOf(sxx, syy, sxy, ellipseMode);
  FUZZ_EXPECT(close(out.total, S, 1e-9, 1e-9), "single spot total %.17g, expected %.17g", out.total, S);
  FUZZ_EXPECT(close(out.centerX, cx + rect.x, 0, 1e-7 * (1 + rect.width)) &&
                  close(out.centerY, cy + rect.y, 0, 1e-7 * (1 + rect.height)),
              "single spot centre (%.17g, %.17g), expected (%.17g, %.17g)", out.centerX, out.centerY, cx + rect.x,
              cy + rect.y);
  FUZZ_EXPECT(out.centerX >= rect.x - 1e-6 && out.centerX <= rect.x + rect.width - 1 + 1e-6 &&
                  out.centerY >= rect.y - 1e-6 && out.centerY <= rect.y + rect.height - 1 + 1e-6,
              "single spot centre outside the ROI");
  expectShape(out, shape, sxx, syy, scale, ellipseMode, "single spot");
  // Fields 8 to 11: the updated automatic aperture, or the fixed one.
  if (before.useAutoAperture) {
    FUZZ_EXPECT(out.apertureX == out.centerX && out.apertureY == out.centerY &&
                    out.apertureA == (ellipseMode ? std::min(out.majorDiameter, out.minorDiameter) : out.majorDiameter) &&
                    out.apertureB == (ellipseMode ? std::max(out.majorDiameter, out.minorDiameter) : out.minorDiameter),
                "single spot: fields 8 to 11 are not the updated aperture");
    FUZZ_EXPECT(state.autoAperture.centerX == out.apertureX && state.autoAperture.a == out.apertureA &&
                    state.angle == out.angle,
                "single spot: the state does not carry the updated aperture");
  } else {
    FUZZ_EXPECT(std::memcmp(&out.apertureX, &before.userAperture, sizeof(SpotAperture)) == 0,
                "single spot: fields 8 to 11 are not the fixed aperture");
  }
}

// ---------------------------------------------------------------------------
// Several spots
// ---------------------------------------------------------------------------

struct Candidate {
  int label, area;
  double x, y, sum;
};

bool referenceMulti(const cv::Mat& grey64, const SpotRoi& roi, bool ellipseMode, uint32_t spotCount,
                    std::vector<SpotResult>& out, std::vector<Shape>& shapes, std::vector<cv::Vec3d>& moments,
                    cv::Mat* binaryOut) {
  out.assign(spotCount, SpotResult{});
  shapes.clear();
  moments.clear();
  const cv::Rect rect = referenceRect(roi, grey64.cols, grey64.rows);
  if (rect.empty()) return false;
  const cv::Mat view = grey64(rect);
  double mn = 0, mx = 0;
  cv::minMaxLoc(view, &mn, &mx);
  double scale = 1, offset = 0;
  if (mx > mn) {
    scale = 255 / (mx - mn);
    offset = -mn * scale;
  }
  cv::Mat scaled, blurred, binary, labels, stats, centroids;
  view.convertTo(scaled, CV_8U, scale, offset);
  cv::GaussianBlur(scaled, blurred, cv::Size(3, 3), 0, 0, cv::BORDER_DEFAULT);
  const double t = cv::threshold(blurred, binary, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
  *binaryOut = binary;
  if (static_cast<int>(t) < 6) return false;
  const int n = cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
  std::vector<double> sums(n, 0.0);
  for (int y = 0; y < view.rows; ++y) {
    for (int x = 0; x < view.cols; ++x) sums[labels.at<int>(y, x)] += view.at<double>(y, x);
  }
  std::vector<Candidate> cands;
  for (int l = 1; l < n; ++l) {
    const int area = stats.at<int>(l, cv::CC_STAT_AREA);
    const double box = static_cast<double>(stats.at<int>(l, cv::CC_STAT_WIDTH)) * stats.at<int>(l, cv::CC_STAT_HEIGHT);
    if (area >= 10 && area / box >= 0.1) {
      cands.push_back({l, area, centroids.at<double>(l, 0), centroids.at<double>(l, 1), sums[l]});
    }
  }
  std::stable_sort(cands.begin(), cands.end(), [](const Candidate& a, const Candidate& b) { return a.sum > b.sum; });
  std::vector<std::pair<SpotResult, size_t>> found;
  for (size_t i = 0; i < std::min<size_t>(spotCount, cands.size()); ++i) {
    const Candidate& own = cands[i];
    const int left = stats.at<int>(own.label, cv::CC_STAT_LEFT), top = stats.at<int>(own.label, cv::CC_STAT_TOP);
    const int w = stats.at<int>(own.label, cv::CC_STAT_WIDTH), h = stats.at<int>(own.label, cv::CC_STAT_HEIGHT);
    const int hw = w / 2, hh = h / 2;
    double x0 = std::max(0, left - hw), y0 = std::max(0, top - hh);
    double x1 = std::min(view.cols, left + w + hw), y1 = std::min(view.rows, top + h + hh);
    for (const Candidate& other : cands) {
      if (other.label == own.label) continue;
      const double mx2 = 0.5 * (own.x + other.x), my2 = 0.5 * (own.y + other.y);
      if (mx2 < x0 || mx2 > x1 || my2 < y0 || my2 > y1) continue;
      if (std::fabs(mx2 - own.x) > std::fabs(my2 - own.y)) {
        if (mx2 > own.x) x1 = std::min(x1, mx2); else x0 = std::max(x0, mx2);
      } else if (my2 > own.y) {
        y1 = std::min(y1, my2);
      } else {
        y0 = std::max(y0, my2);
      }
    }
    x0 = std::max(x0, 0.0);
    y0 = std::max(y0, 0.0);
    x1 = std::min(x1, double(view.cols));
    y1 = std::min(y1, double(view.rows));
    if (x0 >= x1 || y0 >= y1) continue;
    const cv::Rect box(int(std::floor(x0)), int(std::floor(y0)), int(std::floor(x1 - x0)), int(std::floor(y1 - y0)));
    double S = 0, Sx = 0, Sy = 0;
    for (int y = box.y; y < box.y + box.height; ++y) {
      for (int x = box.x; x < box.x + box.width; ++x) {
        const int l = labels.at<int>(y, x);
        if (l != 0 && l != own.label) continue;
        const double I = view.at<double>(y, x);
        S += I;
        Sx += x * I;
        Sy += y * I;
      }
    }
    if (S == 0) break;
    const double cx = Sx / S, cy = Sy / S;
    double sxx = 0, syy = 0, sxy = 0;
    for (int y = box.y; y < box.y + box.height; ++y) {
      for (int x = box.x; x < box.x + box.width; ++x) {
        const int l = labels.at<int>(y, x);
        if (l != 0 && l != own.label) continue;
        const double I = view.at<double>(y, x);
        sxx += I * (x - cx) * (x - cx);
        syy += I * (y - cy) * (y - cy);
        sxy += I * (x - cx) * (y - cy);
      }
    }
    const Shape shape = shapeOf(sxx / S, syy / S, sxy / S, ellipseMode);
    SpotResult r{};
    r.total = S;
    r.centerX = cx + rect.x;
    r.centerY = cy + rect.y;
    r.majorDiameter = shape.first;
    r.minorDiameter = shape.second;
    r.ellipticity = shape.ellipticity;
    r.angle = shape.angle;
    r.apertureX = rect.x + box.x + box.width / 2;
    r.apertureY = rect.y + box.y + box.height / 2;
    r.apertureA = box.width / 2;
    r.apertureB = box.height / 2;
    found.push_back({r, shapes.size()});
    shapes.push_back(shape);
    moments.push_back({sxx / S, syy / S, sxy / S});
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first.centerX < b.first.centerX; });
  std::vector<Shape> sortedShapes;
  std::vector<cv::Vec3d> sortedMoments;
  for (size_t i = 0; i < found.size(); ++i) {
    out[i] = found[i].first;
    sortedShapes.push_back(shapes[found[i].second]);
    sortedMoments.push_back(moments[found[i].second]);
  }
  shapes = sortedShapes;
  moments = sortedMoments;
  return !found.empty();
}

void checkLabelling(const cv::Mat& binary) {
  if (binary.empty()) return;
  cv::Mat labels, stats, centroids;
  const int n = cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
  vantix::MultiSpotWorkspace work;
  const int count = vantix::labelRuns(binary, work);
  FUZZ_EXPECT(count == n, "run labelling found %d labels, OpenCV %d", count, n);
  for (int l = 1; l < n; ++l) {
    for (int k = 0; k < 5; ++k) {
      FUZZ_EXPECT(work.stats.at<int>(l, k) == stats.at<int>(l, k), "label %d statistic %d: %d, OpenCV %d", l, k,
                  work.stats.at<int>(l, k), stats.at<int>(l, k));
    }
    for (int k = 0; k < 2; ++k) {
      FUZZ_EXPECT(close(work.centroids.at<double>(l, k), centroids.at<double>(l, k), 1e-12, 1e-9),
                  "label %d centroid %d: %.17g, OpenCV %.17g", l, k, work.centroids.at<double>(l, k),
                  centroids.at<double>(l, k));
    }
  }
}

void checkMulti(const cv::Mat& frame, const cv::Mat& grey64, const SpotRoi& roi, bool ellipseMode,
                uint32_t spotCount, double scale) {
  vantix::MultiSpotWorkspace work;
  std::vector<SpotResult> out(spotCount + 1);
  std::memset(out.data(), 0x7F, out.size() * sizeof(SpotResult));
  const SpotResult guard = out[spotCount];
  const bool any = vantix::measureMultiSpot(frame, roi, ellipseMode, spotCount, work, out.data());
  FUZZ_EXPECT(std::memcmp(&out[spotCount], &guard, sizeof guard) == 0, "multi spot wrote past %u records", spotCount);
  std::vector<SpotResult> want;
  std::vector<Shape> shapes;
  std::vector<cv::Vec3d> moments;
  cv::Mat binary;
  const bool wantAny = referenceMulti(grey64, roi, ellipseMode, spotCount, want, shapes, moments, &binary);
  checkLabelling(binary);
  FUZZ_EXPECT(any == wantAny, "multi spot found %d, reference %d", int{any}, int{wantAny});
  if (std::getenv("FUZZ_VERBOSE") != nullptr) {
    for (uint32_t i = 0; i < spotCount; ++i) std::fprintf(stderr, "multi %u: total %g centre %g %g\n", i, out[i].total, out[i].centerX, out[i].centerY);
  }
  for (uint32_t i = 0; i < spotCount; ++i) {
    const SpotResult& g = out[i];
    const SpotResult& w = want[i];
    if (isZero(w)) {
      FUZZ_EXPECT(isZero(g), "multi spot record %u should be zero (total %.17g)", i, g.total);
      continue;
    }
    FUZZ_EXPECT(close(g.total, w.total, 1e-9, 1e-9), "multi spot %u total %.17g, expected %.17g", i, g.total, w.total);
    FUZZ_EXPECT(close(g.centerX, w.centerX, 0, 1e-7 * scale) && close(g.centerY, w.centerY, 0, 1e-7 * scale),
                "multi spot %u centre (%.17g, %.17g), expected (%.17g, %.17g)", i, g.centerX, g.centerY, w.centerX,
                w.centerY);
    expectShape(g, shapes[i], moments[i][0], moments[i][1], scale, ellipseMode, "multi spot");
    FUZZ_EXPECT(g.apertureX == w.apertureX && g.apertureY == w.apertureY && g.apertureA == w.apertureA &&
                    g.apertureB == w.apertureB,
                "multi spot %u box (%g,%g,%g,%g), expected (%g,%g,%g,%g)", i, g.apertureX, g.apertureY, g.apertureA,
                g.apertureB, w.apertureX, w.apertureY, w.apertureA, w.apertureB);
  }
}

// ---------------------------------------------------------------------------
// Session: averaging against a session that does not average
// ---------------------------------------------------------------------------

double trimmed(std::vector<double> v) {
  if (v.size() <= 2) {
    double s = 0;
    for (double x : v) s += x;
    return s / v.size();
  }
  std::sort(v.begin(), v.end());
  double s = 0;
  for (size_t i = 1; i + 1 < v.size(); ++i) s += v[i];
  return s / (v.size() - 2);
}

void checkSession(const Args& a, uint32_t bits, uint32_t pitch, fuzz::GuardedBuffer& buf, uint32_t spotCount,
                  const SpotAperture& user) {
  const uint32_t n = a.averageCount;
  vantix::CSpotSession averaged(spotCount, n);
  vantix::CSpotSession single(spotCount, 0);
  for (vantix::CSpotSession* s : {&averaged, &single}) {
    s->setEllipseMode(a.ellipseMode);
    s->setRoi(static_cast<uint32_t>(a.roi[0]), static_cast<uint32_t>(a.roi[1]), static_cast<uint32_t>(a.roi[2]),
              static_cast<uint32_t>(a.roi[3]));
    if (!a.useAuto) s->setAperture(user);
  }
  const bool supported = bits == 8 || bits == 16 || bits == 24 || bits == 48;
  std::vector<std::vector<SpotResult>> block;
  std::vector<SpotResult> last(spotCount);
  for (int f = 0; f < a.frames; ++f) {
    paint(buf, a, bits, pitch, f);
    std::vector<SpotResult> outA(spotCount + 1), outB(spotCount + 1);
    std::memset(outA.data(), 0x7F, outA.size() * sizeof(SpotResult));
    std::memset(outB.data(), 0xFF, outB.size() * sizeof(SpotResult));  // NaNs: "untouched"
    const std::vector<SpotResult> untouchedA = outA;
    bool threw = false;
    try {
      averaged.onFrame(buf.data(), a.width, a.height, bits, pitch, 1, outA.data());
    } catch (const std::runtime_error& e) {
      threw = true;
      FUZZ_EXPECT(std::string(e.what()) == "Unsupported image depth", "unexpected message: %s", e.what());
    }
    FUZZ_EXPECT(threw == !supported, "bit count %u: %s", bits, threw ? "refused" : "accepted");
    if (threw) {
      FUZZ_EXPECT(std::memcmp(outA.data(), untouchedA.data(), outA.size() * sizeof(SpotResult)) == 0,
                  "a refused frame wrote records");
      return;
    }
    single.onFrame(buf.data(), a.width, a.height, bits, pitch, 1, outB.data());
    FUZZ_EXPECT(std::memcmp(&outA[spotCount], &untouchedA[spotCount], sizeof(SpotResult)) == 0,
                "the session wrote past %u records", spotCount);
    if (n < 2) continue;
    // Without signal (one spot) the record was left alone: NaNs remain.
    const bool noSignal = spotCount == 1 && std::isnan(outB[0].total);
    std::vector<SpotResult> expected(spotCount);
    if (noSignal) {
      block.clear();
      last.assign(spotCount, SpotResult{});
    } else {
      block.emplace_back(outB.begin(), outB.begin() + spotCount);
      const bool complete = block.size() == n;
      for (uint32_t k = 0; k < spotCount; ++k) {
        SpotResult& e = expected[k];
        const SpotResult& latest = block.back()[k];
        if (complete) {
          std::vector<double> fields[5];
          for (const auto& rec : block) {
            fields[0].push_back(rec[k].total);
            fields[1].push_back(rec[k].centerX);
            fields[2].push_back(rec[k].centerY);
            fields[3].push_back(rec[k].majorDiameter);
            fields[4].push_back(rec[k].minorDiameter);
          }
          last[k].total = trimmed(fields[0]);
          last[k].centerX = trimmed(fields[1]);
          last[k].centerY = trimmed(fields[2]);
          last[k].majorDiameter = trimmed(fields[3]);
          last[k].minorDiameter = trimmed(fields[4]);
          const double lo = std::min(last[k].majorDiameter, last[k].minorDiameter);
          const double hi = std::max(last[k].majorDiameter, last[k].minorDiameter);
          last[k].ellipticity = hi > 0 ? lo / hi : 0;
        }
        e = last[k];
        e.angle = latest.angle;
        e.apertureX = latest.apertureX;
        e.apertureY = latest.apertureY;
        e.apertureA = latest.apertureA;
        e.apertureB = latest.apertureB;
      }
      if (complete) block.clear();
    }
    for (uint32_t k = 0; k < spotCount; ++k) {
      const double* g = &outA[k].total;
      const double* w = &expected[k].total;
      for (int field = 0; field < 11; ++field) {
        FUZZ_EXPECT(close(g[field], w[field], 1e-9, 1e-9), "averaged frame %d record %u field %d: %.17g, expected %.17g",
                    f, k, field + 1, g[field], w[field]);
      }
    }
  }
}

// ---------------------------------------------------------------------------

double apertureValue(int32_t quarter, size_t special) {
  return special == 0 ? quarter / 4.0 : kSpecial[special - 1];
}

void runOne(const Args& a) {
  if (std::getenv("FUZZ_VERBOSE") != nullptr) {
    std::fprintf(stderr, "args %ux%u bits %zu content %zu beams %u (%d,%d,%u,%u,%u) spots %zu avg %u frames %u\n",
                 a.width, a.height, a.bitChoice, a.content, a.beamCount, a.beams[0].x, a.beams[0].y, a.beams[0].sx,
                 a.beams[0].sy, a.beams[0].amplitude, a.spotChoice, a.averageCount, a.frames);
  }
  const uint32_t bits = kBitCounts[a.bitChoice];
  const uint32_t spotCount = kSpotCounts[a.spotChoice];
  const uint32_t storage = bits == 8 || bits == 16 || bits == 24 || bits == 48 ? bits : 8;
  const uint32_t pitch = pitchOf(a, storage);
  const uint32_t step = pitch != 0 ? pitch : static_cast<uint32_t>((uint64_t{a.width} * storage + 31) / 32 * 4);
  fuzz::GuardedBuffer buf(size_t{a.height} * step);
  paint(buf, a, bits, pitch, 0);

  const SpotRoi roi{a.roi[0], a.roi[1], a.roi[2], a.roi[3]};
  SpotAperture user{apertureValue(a.aperture[0], 0), apertureValue(a.aperture[1], 0),
                    apertureValue(a.aperture[2], a.specialA), apertureValue(a.aperture[3], a.specialB)};
  const double scale = 1.0 + std::max(a.width, a.height);

  cv::Mat greyStore;
  cv::Mat frame;
  try {
    frame = vantix::spotGreyFrame(buf.data(), a.width, a.height, bits, pitch, greyStore);
    FUZZ_EXPECT(bits == 8 || bits == 16 || bits == 24 || bits == 48, "bit count %u accepted", bits);
  } catch (const std::runtime_error& e) {
    FUZZ_EXPECT(std::string(e.what()) == "Unsupported image depth" && storage != bits, "bit count %u: %s", bits,
                e.what());
  }
  if (storage == bits) {
    bool rounded = false;
    const cv::Mat grey64 = referenceGrey(buf.data(), a, bits, pitch, &rounded);
    if (a.width == 0 || a.height == 0) {
      FUZZ_EXPECT(frame.empty(), "an empty frame gave a grey image");
    } else {
      cv::Mat got;
      frame.convertTo(got, CV_64F);
      FUZZ_EXPECT(got.size() == grey64.size(), "grey image size");
      const double err = cv::norm(got, grey64, cv::NORM_INF);
      FUZZ_EXPECT(err <= (rounded ? 0.51 : 0.0), "grey values differ by %g (bits %u)", err, bits);
      // The measurements read the library's grey image; the references read
      // the same values as doubles.
      cv::Mat same;
      frame.convertTo(same, CV_64F);
      if (spotCount == 1) {
        vantix::SingleSpotState state;
        state.useAutoAperture = a.useAuto;
        state.userAperture = user;
        if (a.autoSet) {
          state.autoAperture = {a.aperture[0] / 4.0, a.aperture[1] / 4.0, apertureValue(a.aperture[2], a.specialA),
                                apertureValue(a.aperture[3], a.specialB)};
        }
        state.angle = a.angle;
        // A fixed aperture is only ever one with both semi-axes above 0.
        if (!state.useAutoAperture && !(user.a > 0 && user.b > 0)) state.useAutoAperture = true;
        checkSingle(frame, same, roi, a.ellipseMode, state, scale);
      } else {
        checkMulti(frame, same, roi, a.ellipseMode, spotCount, scale);
      }
    }
  }
  checkSession(a, bits, pitch, buf, spotCount, user);
}

void writeSeeds(const char* dir) {
  auto make = [](uint16_t w, uint16_t h, size_t bits, uint32_t spots, bool beams) {
    Args a;
    a.large = w > 48 || h > 48;
    a.width = w;
    a.height = h;
    a.bitChoice = bits;
    a.content = beams ? 1 : 0;
    a.background = 0;
    a.beamCount = 1;
    a.beams[0] = {static_cast<int16_t>(w * 2), static_cast<int16_t>(h * 2), 12, 20, 50000};
    a.spotChoice = spots;
    a.frames = 1;
    for (int i = 0; i < 23; ++i) a.pattern.push_back(static_cast<uint8_t>(i * 29 + 1));
    return a;
  };
  std::vector<fuzz::Seed<Args>> seeds = {
      {"single_grey8_beam", make(40, 30, 0, 0, true)},
      {"single_grey16_beam_ellipse", make(36, 36, 1, 0, true)},
      {"single_bgr24_bytes", make(17, 9, 2, 0, false)},
      {"single_bgr48_beam_padded", make(21, 19, 3, 0, true)},
      {"unsupported_depth_12", make(8, 8, 5, 0, false)},
  };
  seeds[1].args.ellipseMode = true;
  seeds[1].args.angle = 30;
  seeds[3].args.pitchMode = 2;
  seeds[3].args.pitchExtra = 5;
  Args three = make(48, 40, 1, 3, true);
  three.beamCount = 3;
  three.beams[1] = {20, 120, 8, 8, 40000};
  three.beams[2] = {160, 40, 10, 6, 60000};
  three.background = 500;
  seeds.push_back({"multi3_grey16_three_beams", three});
  Args two = make(48, 40, 0, 4, true);
  two.beamCount = 2;
  two.beams[1] = {30, 30, 9, 9, 65535};
  seeds.push_back({"multi4_grey8_two_beams", two});
  Args roi = make(40, 40, 0, 0, true);
  roi.roiMode = 1;
  roi.roi[0] = 10;
  roi.roi[1] = 5;
  roi.roi[2] = 20;
  roi.roi[3] = 30;
  roi.averageCount = 3;
  roi.frames = 4;
  seeds.push_back({"single_roi_averaged", roi});
  Args fixed = make(30, 30, 0, 0, true);
  fixed.useAuto = false;
  fixed.aperture[0] = 60;
  fixed.aperture[1] = 60;
  fixed.aperture[2] = 40;
  fixed.aperture[3] = 20;
  fixed.averageCount = 2;
  fixed.frames = 3;
  seeds.push_back({"single_fixed_aperture_averaged", fixed});
  Args outside = make(20, 20, 0, 2, true);
  outside.roiMode = 2;
  outside.roi[0] = std::numeric_limits<int32_t>::max() - 5;
  outside.roi[1] = 0;
  outside.roi[2] = 100;
  outside.roi[3] = 100;
  seeds.push_back({"multi_roi_outside", outside});
  Args dark = make(16, 16, 0, 0, true);
  dark.beamCount = 0;
  dark.averageCount = 2;
  dark.frames = 2;
  seeds.push_back({"single_dark_frame", dark});
  fuzz::writeSeeds(dir, seeds, [](fuzz::Writer& w, Args& a) { schema(w, a); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return fuzz::initialize(argc, argv, writeSeeds);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::testOneInput<Args>(data, size, [](fuzz::Reader& r, Args& a) { schema(r, a); },
                                   runOne);
}
