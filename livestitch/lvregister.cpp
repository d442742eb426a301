// Frame registration of the live stitcher.
#include "livestitch/lvregister.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>

#include <opencv2/imgproc.hpp>

namespace vantix {

namespace {

const int kScalePercent[5] = {10, 15, 20, 30, 40};
const float kMinSharpness[5] = {0.0f, 0.04f, 0.06f, 0.08f, 0.1f};
const float kMinMatch[5] = {0.8f, 0.85f, 0.9f, 0.92f, 0.95f};

// Levels outside 0..4 are a host error; clamping keeps the table reads
// inside the tables.
uint32_t clampLevel(uint32_t level) { return std::min<uint32_t>(level, 4); }

int clampInt(int v, int lo, int hi) { return std::max(lo, std::min(v, hi)); }

// Keypoints kept per image for matching, strongest first.  FAST on a textured
// 300 x 300 template can give a few thousand corners; the brute-force
// Hamming match grows with the square of that, while a few hundred matches
// already fix the offset far below a pixel.
constexpr int kMaxKeypoints = 200;

// Grey-level to 8 bits for corner detection (saturating, as convertTo does).
cv::Mat toEightBit(const cv::Mat& image) {
  if (image.depth() == CV_8U) return image;
  cv::Mat out;
  image.convertTo(out, CV_8U, 1.0, 0.0);
  return out;
}

}  // namespace

int stitchScalePercent(uint32_t scaleLevel) { return kScalePercent[clampLevel(scaleLevel)]; }

void stitchStrictness(uint32_t strictLevel, float& minSharpness, float& minMatch) {
  minSharpness = kMinSharpness[clampLevel(strictLevel)];
  minMatch = kMinMatch[clampLevel(strictLevel)];
}

int stitchSizeStep(uint32_t width, uint32_t height) {
  const uint32_t area = width * height;  // 32-bit product, as the session forms it
  const double root = std::sqrt(std::sqrt(static_cast<double>(area))) * 0.5;
  return static_cast<int>(std::round(root) * 10.0);
}

int stitchTemplateSide(int sizeStep) {
  if (sizeStep < 120) return 200;
  if (sizeStep <= 299) return 300;
  return 400;
}

RegistrationGeometry makeRegistrationGeometry(uint32_t width, uint32_t height, int scalePercent) {
  RegistrationGeometry g;
  g.frame = cv::Size(static_cast<int>(width), static_cast<int>(height));
  g.sizeStep = stitchSizeStep(width, height);
  g.templateSide = stitchTemplateSide(g.sizeStep);
  g.searchSide = 3 * g.sizeStep;
  g.scalePercent = scalePercent;
  return g;
}

cv::Mat makeGradientLut() {
  cv::Mat table(1, 256, CV_64F);
  for (int i = 0; i < 256; ++i) table.at<double>(0, i) = i * i / 255.0;
  cv::Mat lut;
  table.convertTo(lut, CV_8U, 1.0, 0.0);
  return lut;
}

double stitchSharpnessFactor(int scalePercent, uint32_t width, uint32_t height) {
  const uint32_t area = width * height;
  return scalePercent * 0.02 + static_cast<double>(width) * 0.25 / static_cast<double>(height) +
         static_cast<double>(area) / 100000000.0;
}

double sharpnessScore(const cv::Mat& image, const cv::Mat& gradientLut, double factor) {
  if (image.empty()) return 0.0;
  cv::Mat gray;
  if (image.channels() > 1) {
    cv::cvtColor(image, gray, cv::COLOR_RGB2GRAY);
  } else {
    gray = image;
  }
  if (gray.depth() != CV_8U) gray.convertTo(gray, CV_8U);
  cv::Mat gx, gy, ax, ay;
  cv::Sobel(gray, gx, CV_16S, 1, 0, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::Sobel(gray, gy, CV_16S, 0, 1, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::convertScaleAbs(gx, ax, 1.0, 0.0);
  cv::convertScaleAbs(gy, ay, 1.0, 0.0);
  cv::Mat g = cv::max(ax, ay);
  cv::Mat l;
  cv::LUT(g, gradientLut, l);
  cv::Mat p;
  cv::multiply(l, l, p, 1.0, CV_64F);
  return std::sqrt(cv::mean(p)[0]) * factor / 255.0;
}

namespace {

// The spectrum of an image for phase correlation.  The image is padded to
// half as large again (rounded up to a DFT-friendly size): a correlation
// over the image's own size wraps around and reads a move of more than half
// a frame as one the other way, while with the padding moves up to the frame
// size are told apart from their wrapped twins, which have no overlapping
// content.  The padding is the image's mean grey level (the image is made
// zero-mean and padded with zeros): a zero border around a brighter image
// would add a strong frame edge, identical in both images, that pulls the
// peak towards zero.  With the image in the top rows, the forward transform
// skips the rows that are all zero.
cv::Mat spectrumOf(const cv::Mat& image) {
  const int rows = cv::getOptimalDFTSize(image.rows + image.rows / 2);
  const int cols = cv::getOptimalDFTSize(image.cols + image.cols / 2);
  cv::Mat padded = cv::Mat::zeros(rows, cols, CV_32F);
  cv::subtract(image, cv::Scalar(cv::mean(image)[0]), padded(cv::Rect(0, 0, image.cols, image.rows)));
  cv::Mat spectrum;
  cv::dft(padded, spectrum, 0, image.rows);  // packed (CCS) real spectrum
  return spectrum;
}

// Divides each complex entry of a packed (CCS) spectrum by its magnitude.
void whitenPacked(cv::Mat& spectrum) {
  const int rows = spectrum.rows, cols = spectrum.cols;
  auto unit = [](float& re, float& im) {
    const float magnitude = std::sqrt(re * re + im * im);
    if (magnitude > 1e-20f) {
      re /= magnitude;
      im /= magnitude;
    } else {
      re = im = 0.0f;
    }
  };
  auto unitReal = [](float& re) { re = re > 0.0f ? 1.0f : (re < 0.0f ? -1.0f : 0.0f); };
  // Columns 0 and (for an even width) cols - 1 hold the spectra of the first
  // and middle frequency columns packed along the rows: a real first entry,
  // then (re, im) pairs down the rows, and for an even height a real last.
  const int packedColumns = cols % 2 == 0 ? 2 : 1;
  for (int k = 0; k < packedColumns; ++k) {
    const int c = k == 0 ? 0 : cols - 1;
    unitReal(spectrum.at<float>(0, c));
    for (int r = 1; r + 1 < rows; r += 2) unit(spectrum.at<float>(r, c), spectrum.at<float>(r + 1, c));
    if (rows % 2 == 0) unitReal(spectrum.at<float>(rows - 1, c));
  }
  // Every row: (re, im) pairs in the columns between.
  const int last = cols % 2 == 0 ? cols - 1 : cols;
  for (int r = 0; r < rows; ++r) {
    float* row = spectrum.ptr<float>(r);
    for (int c = 1; c + 1 < last; c += 2) unit(row[c], row[c + 1]);
  }
}

}  // namespace

cv::Point2d coarseShift(const cv::Mat& moved, const cv::Mat& reference, PhaseCache* cache) {
  CV_Assert(moved.size() == reference.size() && moved.type() == CV_32FC1 &&
            reference.type() == CV_32FC1);
  // Phase correlation in single precision with the reference's spectrum
  // kept between frames (the reference changes only every few frames): a
  // third of the work of cv::phaseCorrelate, which recomputes both spectra
  // in double precision on every call.  Peak and sub-pixel centroid are
  // found the same way.
  cv::Mat refSpectrum;
  if (cache != nullptr && cache->reference.data == reference.data &&
      cache->reference.size() == reference.size() && !cache->spectrum.empty()) {
    refSpectrum = cache->spectrum;
  } else {
    refSpectrum = spectrumOf(reference);
    if (cache != nullptr) {
      cache->reference = reference;  // held, so its address is not reused
      cache->spectrum = refSpectrum;
    }
  }
  const cv::Mat movedSpectrum = spectrumOf(moved);
  cv::Mat cross;
  cv::mulSpectrums(movedSpectrum, refSpectrum, cross, 0, true);
  whitenPacked(cross);
  cv::Mat surface;
  cv::idft(cross, surface, cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);
  cv::Point peak;
  cv::minMaxLoc(surface, nullptr, nullptr, nullptr, &peak);
  // Centroid of the 5 x 5 neighbourhood (the surface wraps around).
  double sw = 0.0, sx = 0.0, sy = 0.0;
  for (int dy = -2; dy <= 2; ++dy) {
    for (int dx = -2; dx <= 2; ++dx) {
      const int yy = (peak.y + dy + surface.rows) % surface.rows;
      const int xx = (peak.x + dx + surface.cols) % surface.cols;
      const double w = surface.at<float>(yy, xx);
      sw += w;
      sx += w * dx;
      sy += w * dy;
    }
  }
  double px = peak.x + (sw != 0.0 ? sx / sw : 0.0), py = peak.y + (sw != 0.0 ? sy / sw : 0.0);
  if (px > surface.cols / 2.0) px -= surface.cols;
  if (py > surface.rows / 2.0) py -= surface.rows;
  // The moved image's content at u is the reference's at u + d: the
  // correlation of the moved against the reference peaks at -d.
  return cv::Point2d(-px, -py);
}

int intermeansThreshold(const cv::Mat& gray8, int fastLimit, int fastMin, int start) {
  CV_Assert(gray8.type() == CV_8UC1);
  float hist[256] = {0};
  const int border = 3;
  for (int y = border; y < gray8.rows - border; ++y) {
    const uint8_t* row = gray8.ptr<uint8_t>(y);
    for (int x = border; x < gray8.cols - border; ++x) hist[row[x]] += 1.0f;
  }
  int t = start;
  while (t < fastLimit) {
    float sumAbove = 1.1754944e-38f, countAbove = 1.1754944e-38f;
    float sumBelow = 1.1754944e-38f, countBelow = 1.1754944e-38f;
    for (int i = 0; i < 256; ++i) {
      if (i > t) {
        sumAbove += hist[i] * static_cast<float>(i);
        countAbove += hist[i];
      } else {
        sumBelow += hist[i] * static_cast<float>(i);
        countBelow += hist[i];
      }
    }
    const int next = static_cast<int>(
        std::round(0.5 * (sumAbove / countAbove + sumBelow / countBelow)));
    if (next == t) break;
    t = next;
  }
  const int threshold = static_cast<int>(std::round(0.7 * t));
  return std::max(fastMin, std::min(threshold, fastLimit));
}

std::vector<int> consistentPairs(const std::vector<cv::Point2f>& p,
                                 const std::vector<cv::Point2f>& q) {
  std::vector<int> kept;
  const size_t n = p.size();
  for (size_t i = 0; i < n; ++i) {
    int inconsistent = 0;
    for (size_t k = 1; k <= 7; ++k) {
      const size_t j = i + k < n ? i + k : k;
      if (j >= n) {
        ++inconsistent;  // fewer than eight pairs: a missing partner cannot vouch
        continue;
      }
      const cv::Point2f v = p[i] - p[j];
      const cv::Point2f w = q[i] - q[j];
      const double m = std::max(std::hypot(v.x, v.y), std::hypot(w.x, w.y));
      if (!(m > 0.0) || (v.dot(w)) / (m * m) <= 0.7) ++inconsistent;
    }
    if (inconsistent < 4) kept.push_back(static_cast<int>(i));
  }
  return kept;
}

cv::Point2f estimateOffset(const std::vector<cv::Point2f>& p, const std::vector<cv::Point2f>& q,
                           const std::vector<cv::Point2f>& allP,
                           const std::vector<cv::Point2f>& allQ, int sampleSize, int rounds,
                           double rejectFraction) {
  cv::Point2f best(4294967296.0f, 4294967296.0f);
  const int n = static_cast<int>(p.size());
  if (n == 0 || sampleSize < 1) return best;
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  double bestCost = 4294967295.0;
  for (int round = 0; round < rounds; ++round) {
    int prev = std::rand() % n;
    cv::Point2f sum = q[prev] - p[prev];
    double cost = 0.0;
    int count = 0;
    if (sampleSize > 1) {
      while (count < sampleSize - 1) {
        const int j = std::rand() % n;
        const cv::Point2f dp = p[j] - p[prev], dq = q[j] - q[prev];
        cost += std::fabs(std::hypot(dp.x, dp.y) - std::hypot(dq.x, dq.y));
        sum += q[j] - p[j];
        if (j != prev) ++count;
        prev = j;
      }
    }
    if (cost < bestCost) {
      bestCost = cost;
      best = sum / static_cast<float>(sampleSize);
    }
  }
  // The sampled estimate averages a few whole-pixel corner positions and,
  // when a fifth of the matches are wrong, usually some wrong ones too.  It
  // is refined by a vote over the full pair lists: the displacement shared
  // (within a tolerance) by most pairs wins, and the mean of the pairs that
  // share it is the result, which also averages out the corner quantisation.
  // The mean over all pairs is taken as it is when it already agrees (every
  // match is right).  Many rejected ratio tests mean repetitive texture,
  // where wrong matches land close to the true offset: the tolerance is
  // tighter then.
  if (allP.empty() || allP.size() != allQ.size()) return best;
  const size_t count = allP.size();
  std::vector<cv::Point2f> diffs(count);
  for (size_t i = 0; i < count; ++i) diffs[i] = allQ[i] - allP[i];
  const float tolerance = rejectFraction > 0.5 ? 1.0f : 1.5f;
  auto supportOf = [&](cv::Point2f centre, cv::Point2f* mean) {
    double sx = 0.0, sy = 0.0;
    int n = 0;
    for (const cv::Point2f& d : diffs) {
      if (std::fabs(d.x - centre.x) <= tolerance && std::fabs(d.y - centre.y) <= tolerance) {
        sx += d.x;
        sy += d.y;
        ++n;
      }
    }
    if (mean != nullptr && n > 0)
      *mean = cv::Point2f(static_cast<float>(sx / n), static_cast<float>(sy / n));
    return n;
  };
  cv::Point2f winner = best;
  int support = supportOf(best, nullptr);
  const size_t stride = std::max<size_t>(1, count / 100);
  for (size_t i = 0; i < count; i += stride) {
    const int n = supportOf(diffs[i], nullptr);
    if (n > support) {
      support = n;
      winner = diffs[i];
    }
  }
  if (support < 3) return best;
  cv::Point2f refined;
  supportOf(winner, &refined);
  // A second pass centred on the mean of the first removes the bias of a
  // vote centre that sat at the edge of the cluster.
  supportOf(refined, &refined);
  const cv::Scalar mean = cv::mean(diffs);
  const cv::Point2f meanAll(static_cast<float>(mean[0]), static_cast<float>(mean[1]));
  if (std::fabs(meanAll.x - refined.x) <= 0.25f && std::fabs(meanAll.y - refined.y) <= 0.25f) {
    return meanAll;
  }
  return refined;
}

FineOffset fineOffset(const cv::Mat& templ, const cv::Mat& region, cv::ORB& detector,
                      cv::DescriptorMatcher& matcher, const RegistrationTuning& tuning) {
  FineOffset result;
  result.offset = cv::Point2f(4294967296.0f, 4294967296.0f);
  if (templ.empty() || region.empty()) return result;
  const cv::Mat a = toEightBit(templ), b = toEightBit(region);
  std::vector<cv::KeyPoint> ka, kb;
  // The intermeans iteration runs only below the limit.  Starting it at the
  // limit gives the lowest threshold the rule allows, 0.7 x 30 = 21, for
  // every image: a start below settles at the intermeans grey level, 43 or
  // more for ordinary images and so a threshold of 30, which leaves the
  // smooth parts of a scene (sky, walls, skin) with too few corners for the
  // feature path.
  const int start = tuning.fastLimit;
  cv::FAST(a, ka, intermeansThreshold(a, tuning.fastLimit, tuning.fastMin, start), true,
           cv::FastFeatureDetector::TYPE_9_16);
  cv::FAST(b, kb, intermeansThreshold(b, tuning.fastLimit, tuning.fastMin, start), true,
           cv::FastFeatureDetector::TYPE_9_16);
  cv::KeyPointsFilter::retainBest(ka, kMaxKeypoints);
  cv::KeyPointsFilter::retainBest(kb, kMaxKeypoints);
  if (ka.size() < 2 || kb.size() < 2) return result;
  cv::Mat da, db;
  detector.compute(a, ka, da);
  detector.compute(b, kb, db);
  if (da.rows < 2 || db.rows < 2) return result;
  std::vector<std::vector<cv::DMatch>> knn;
  matcher.knnMatch(da, db, knn, 2);
  std::vector<cv::Point2f> p, q;
  for (const auto& m : knn) {
    if (m.size() < 2) continue;
    if (m[1].distance > 0 ? m[0].distance / m[1].distance <= 0.65f : false) {
      p.push_back(ka[m[0].queryIdx].pt);
      q.push_back(kb[m[0].trainIdx].pt);
    }
  }
  result.goodMatches = static_cast<int>(p.size());
  result.rejectFraction = knn.empty() ? 1.0 : 1.0 - static_cast<double>(p.size()) / knn.size();
  if (result.goodMatches <= tuning.minGood) return result;
  if (result.goodMatches < tuning.manyMatches) {
    const std::vector<int> kept = consistentPairs(p, q);
    if (static_cast<int>(kept.size()) < tuning.minFiltered) return result;
    std::vector<cv::Point2f> kp, kq;
    for (int i : kept) {
      kp.push_back(p[i]);
      kq.push_back(q[i]);
    }
    result.offset = estimateOffset(kp, kq, p, q, tuning.minFiltered, tuning.sampleRounds,
                                   result.rejectFraction);
  } else {
    result.offset = estimateOffset(p, q, p, q, tuning.estimateAll, tuning.sampleRounds,
                                   result.rejectFraction);
  }
  result.found = result.offset.x != 4294967296.0f;
  return result;
}

cv::Point2d weightedCentroid(const cv::Mat& result, cv::Point peak) {
  CV_Assert(CV_32FC1 == result.type());
  // Weights are the squared heights above the lowest value of the 3 x 3
  // neighbourhood: subtracting the floor keeps the flanks of a broad peak
  // from pulling towards the middle pixel, and squaring favours the top.
  // On correlation peaks of real images this is unbiased to about 0.05 px,
  // where plain intensity weights lock onto whole pixels by up to 0.2 px.
  float floorValue = result.at<float>(peak);
  for (int y = peak.y - 1; y <= peak.y + 1; ++y)
    for (int x = peak.x - 1; x <= peak.x + 1; ++x)
      if (y >= 0 && x >= 0 && y < result.rows && x < result.cols)
        floorValue = std::min(floorValue, result.at<float>(y, x));
  double sw = 0.0, sx = 0.0, sy = 0.0;
  for (int y = peak.y - 1; y <= peak.y + 1; ++y)
    for (int x = peak.x - 1; x <= peak.x + 1; ++x) {
      if (y < 0 || x < 0 || y >= result.rows || x >= result.cols) continue;
      const double h = result.at<float>(y, x) - floorValue;
      const double w = h * h;
      sw += w;
      sx += w * x;
      sy += w * y;
    }
  if (sw <= 0.0) return cv::Point2d(peak.x, peak.y);
  return cv::Point2d(sx / sw, sy / sw);
}

cv::Point2d parabolicPeak(const cv::Mat& result, cv::Point peak) {
  CV_Assert(CV_32FC1 == result.type());
  auto axis = [](double l, double c, double r) {
    const double den = l - 2.0 * c + r;
    if (den >= 0.0) return 0.0;  // not a maximum
    return std::max(-0.5, std::min(0.5, 0.5 * (l - r) / den));
  };
  double ox = 0.0, oy = 0.0;
  const float c = result.at<float>(peak);
  if (peak.x > 0 && peak.x + 1 < result.cols)
    ox = axis(result.at<float>(peak.y, peak.x - 1), c, result.at<float>(peak.y, peak.x + 1));
  if (peak.y > 0 && peak.y + 1 < result.rows)
    oy = axis(result.at<float>(peak.y - 1, peak.x), c, result.at<float>(peak.y + 1, peak.x));
  return cv::Point2d(peak.x + ox, peak.y + oy);
}

namespace {

// Overlap, in new-frame coordinates, of the new frame with the reference
// when the new frame is displaced by (dx, dy).
cv::Rect overlapInNew(cv::Size frame, int dx, int dy) {
  const int x0 = std::max(0, -dx), x1 = std::min(frame.width, frame.width - dx);
  const int y0 = std::max(0, -dy), y1 = std::min(frame.height, frame.height - dy);
  return cv::Rect(x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0));
}

// Places a square of `side` (clipped to the frame) in the middle of the
// overlap.  The middle of the region common to both frames is where the
// content is sure to be in both, whatever the error of the coarse estimate.
cv::Rect centredIn(const cv::Rect& overlap, cv::Size frame, int side, int minSide) {
  int w = std::min(side, frame.width), h = std::min(side, frame.height);
  if (overlap.width >= minSide) w = std::min(w, overlap.width);
  if (overlap.height >= minSide) h = std::min(h, overlap.height);
  const int cx = overlap.width > 0 ? overlap.x + overlap.width / 2 : frame.width / 2;
  const int cy = overlap.height > 0 ? overlap.y + overlap.height / 2 : frame.height / 2;
  return cv::Rect(clampInt(cx - w / 2, 0, frame.width - w), clampInt(cy - h / 2, 0, frame.height - h),
                  w, h);
}

// One-channel view of a region of the new frame: a colour frame (B G R,
// 8 bits) is converted only where registration reads it, a few hundred
// thousand pixels instead of the whole frame.
cv::Mat greyRegion(const cv::Mat& image, const cv::Rect& r) {
  if (image.channels() == 1) return image(r);
  cv::Mat grey;
  cv::cvtColor(image(r), grey, cv::COLOR_RGB2GRAY);
  return grey;
}

struct MatchResult {
  double confidence = 0.0, background = 0.0, dx = 0.0, dy = 0.0;
  bool ambiguous = false;
  bool valid = false;
};

// Template-matching measurement: the square of sizeStep at origins.templ in
// the new frame searched in the square of searchSide at origins.search in
// the reference (both clipped to the frame).
MatchResult fallbackMatch(const cv::Mat& newFull, const cv::Mat& refFull,
                          const RegistrationGeometry& g, const TemplateOrigins& origins) {
  MatchResult r;
  const cv::Size f = newFull.size();
  const cv::Rect t = cv::Rect(origins.templ, cv::Size(g.sizeStep, g.sizeStep)) &
                     cv::Rect(0, 0, f.width, f.height);
  const cv::Rect s = cv::Rect(origins.search, cv::Size(g.searchSide, g.searchSide)) &
                     cv::Rect(0, 0, f.width, f.height);
  if (t.width < 4 || t.height < 4 || s.width < t.width || s.height < t.height) return r;
  cv::Mat result;
  cv::matchTemplate(refFull(s), greyRegion(newFull, t), result, cv::TM_CCOEFF_NORMED);
  double maxValue = 0.0;
  cv::Point peak;
  cv::minMaxLoc(result, nullptr, &maxValue, nullptr, &peak);
  const cv::Point2d centre = weightedCentroid(result, peak);
  r.confidence = maxValue;
  r.dx = centre.x + (s.x - t.x);
  r.dy = centre.y + (s.y - t.y);
  r.background = cv::mean(result)[0];
  const int m2 = 2 * g.tuning.margin;
  cv::rectangle(result, cv::Rect(peak.x - m2 / 2, peak.y - m2 / 2, m2, m2), cv::Scalar(-1.0),
                cv::FILLED);
  double second = -1.0;
  cv::minMaxLoc(result, nullptr, &second);
  r.ambiguous = maxValue < 0.96 && std::fabs(second - maxValue) < 0.12;
  r.valid = true;
  return r;
}

// Gradient energy of the new frame's working copy, summed over windows: a
// template placed on texture gives corners to match and a sharp, unique
// correlation peak, while one on sky or a flat wall matches many places
// nearly as well (and lets unrelated views look alike).
class TextureMap {
 public:
  TextureMap(const cv::Mat& small, double scale) : scale_(scale) {
    cv::Mat gx, gy;
    cv::Sobel(small, gx, CV_32F, 1, 0, 3);
    cv::Sobel(small, gy, CV_32F, 0, 1, 3);
    cv::integral(cv::abs(gx), integralX_, CV_64F);
    cv::integral(cv::abs(gy), integralY_, CV_64F);
  }

  // The rectangle of `size` (full-frame pixels) inside `area` with the most
  // texture, not overlapping `avoid` by more than half; `area` itself when
  // it is no larger than the rectangle.
  cv::Rect best(const cv::Rect& area, cv::Size size, const cv::Rect& avoid = cv::Rect()) const {
    const int freeX = area.width - size.width, freeY = area.height - size.height;
    if (freeX <= 0 && freeY <= 0) return cv::Rect(area.tl(), size);
    const int steps = 6;
    double bestEnergy = -1.0;
    cv::Rect bestRect(area.x + std::max(0, freeX) / 2, area.y + std::max(0, freeY) / 2, size.width,
                      size.height);
    for (int iy = 0; iy <= (freeY > 0 ? steps : 0); ++iy) {
      for (int ix = 0; ix <= (freeX > 0 ? steps : 0); ++ix) {
        const cv::Rect r(area.x + std::max(0, freeX) * ix / steps,
                         area.y + std::max(0, freeY) * iy / steps, size.width, size.height);
        if (avoid.area() > 0 && (r & avoid).area() * 2 > r.area()) continue;
        const double e = energyOf(r);
        if (e > bestEnergy) {
          bestEnergy = e;
          bestRect = r;
        }
      }
    }
    return bestRect;
  }

 private:
  // The weaker of the horizontal and vertical gradient sums: texture in
  // both directions (corners, grain) scores, a single straight edge, which
  // matches anywhere along itself, does not.
  double energyOf(const cv::Rect& full) const {
    const int x0 = clampInt(static_cast<int>(full.x * scale_), 0, integralX_.cols - 1);
    const int y0 = clampInt(static_cast<int>(full.y * scale_), 0, integralX_.rows - 1);
    const int x1 = clampInt(static_cast<int>(full.br().x * scale_), 0, integralX_.cols - 1);
    const int y1 = clampInt(static_cast<int>(full.br().y * scale_), 0, integralX_.rows - 1);
    auto sum = [&](const cv::Mat& i) {
      return i.at<double>(y1, x1) - i.at<double>(y0, x1) - i.at<double>(y1, x0) + i.at<double>(y0, x0);
    };
    return std::min(sum(integralX_), sum(integralY_));
  }

  double scale_;
  cv::Mat integralX_, integralY_;
};

}  // namespace

Measurement measureDisplacement(const cv::Mat& newFull, const cv::Mat& newSmall,
                                const cv::Mat& refFull, const cv::Mat& refSmall,
                                const RegistrationGeometry& g, cv::ORB& detector,
                                cv::DescriptorMatcher& matcher, TemplateOrigins& origins,
                                TemplateOrigins& altOrigins, PhaseCache* phaseCache) {
  Measurement m;
  const cv::Size f = newFull.size();
  cv::Point2d coarseSmall = coarseShift(newSmall, refSmall, phaseCache);
  // Flat images have no correlation peak; the shift is then unknown.
  if (!std::isfinite(coarseSmall.x) || !std::isfinite(coarseSmall.y) ||
      std::fabs(coarseSmall.x) > f.width || std::fabs(coarseSmall.y) > f.height) {
    coarseSmall = cv::Point2d(0.0, 0.0);
  }
  const int cx = static_cast<int>(coarseSmall.x * 100.0) / g.scalePercent;
  const int cy = static_cast<int>(coarseSmall.y * 100.0) / g.scalePercent;

  const cv::Rect overlap = overlapInNew(f, cx, cy);
  // The template is placed on the most textured part of the region the two
  // frames share (by the coarse estimate, less a margin for its error).
  const double scale = static_cast<double>(newSmall.cols) / f.width;
  const TextureMap texture(newSmall, scale);
  const int slack = std::max(4, 100 / g.scalePercent * 2);
  cv::Rect shared = overlap;
  if (shared.width > 2 * slack + 32) shared = cv::Rect(shared.x + slack, shared.y, shared.width - 2 * slack, shared.height);
  if (shared.height > 2 * slack + 32) shared = cv::Rect(shared.x, shared.y + slack, shared.width, shared.height - 2 * slack);
  const cv::Rect sized = centredIn(shared, f, g.templateSide, 32);
  const cv::Rect templ = shared.area() > 0 ? texture.best(shared, sized.size()) & cv::Rect(0, 0, f.width, f.height) : sized;
  origins.templ = templ.tl();

  // Predicted place of the template in the reference; a prediction outside
  // the reference means the frames do not overlap: no feature result.
  const int px = templ.x + cx, py = templ.y + cy;
  const bool outside = px < 0 || py < 0 || px > f.width || py > f.height;
  FineOffset fine;
  cv::Point predicted(clampInt(px, 0, f.width - templ.width),
                      clampInt(py, 0, f.height - templ.height));
  if (!outside) {
    fine = fineOffset(greyRegion(newFull, templ), refFull(cv::Rect(predicted, templ.size())), detector,
                      matcher, g.tuning);
  }
  if (fine.found) {
    // The offset is measured between the template and the region actually
    // compared; when the prediction was clamped that region is not at the
    // coarse estimate, so the clamped place is used (equal when unclamped).
    double dx = fine.offset.x + (predicted.x - templ.x);
    double dy = fine.offset.y + (predicted.y - templ.y);
    const int idx = static_cast<int>(std::lround(dx)), idy = static_cast<int>(std::lround(dy));
    // Part of the template that lies inside the reference at that offset.
    const cv::Rect sub = templ & cv::Rect(-idx, -idy, f.width, f.height);
    if (sub.width >= 8 && sub.height >= 8) {
      const int margin = g.tuning.margin;
      int left = std::max(0, sub.x + idx - margin), top = std::max(0, sub.y + idy - margin);
      if (left + sub.width + 2 * margin > f.width) left = std::max(0, f.width - 41 - sub.width);
      if (top + sub.height + 2 * margin > f.height) top = std::max(0, f.height - 41 - sub.height);
      const cv::Rect window = cv::Rect(left, top, sub.width + 2 * margin, sub.height + 2 * margin) &
                              cv::Rect(0, 0, f.width, f.height);
      if (window.width >= sub.width && window.height >= sub.height) {
        cv::Mat result;
        cv::matchTemplate(refFull(window), greyRegion(newFull, sub), result, cv::TM_CCOEFF_NORMED);
        double maxValue = 0.0;
        cv::Point peak;
        cv::minMaxLoc(result, nullptr, &maxValue, nullptr, &peak);
        m.confidence = maxValue;
        m.background = (cv::sum(result)[0] * 1.3 / g.sizeStep / g.sizeStep) * 0.25;
        // The correlation peak over the whole template is sharper than the
        // corner average (corners sit on whole pixels): when it agrees with
        // the feature offset it gives the sub-pixel displacement.
        const cv::Point2d sp = parabolicPeak(result, peak);
        const double tdx = window.x + sp.x - sub.x, tdy = window.y + sp.y - sub.y;
        if (std::fabs(tdx - dx) <= 2.0 && std::fabs(tdy - dy) <= 2.0) {
          dx = tdx;
          dy = tdy;
        }
        m.dx = dx;
        m.dy = dy;
        m.templatePath = true;
        return m;
      }
    }
  }

  // Fallback: template matching around the coarse prediction, from the
  // most textured square of the shared region.
  const cv::Rect squareSized = centredIn(shared, f, g.sizeStep, g.sizeStep);
  const cv::Rect square = shared.area() > 0 ? texture.best(shared, squareSized.size()) : squareSized;
  const int searchW = std::min(g.searchSide, f.width), searchH = std::min(g.searchSide, f.height);
  auto searchFor = [&](cv::Point t) {
    const int half = (g.searchSide - g.sizeStep) / 2;
    return cv::Point(clampInt(t.x + cx - half, 0, f.width - searchW),
                     clampInt(t.y + cy - half, 0, f.height - searchH));
  };
  origins.templ = square.tl();
  origins.search = searchFor(square.tl());
  // The alternative: the most textured square of the whole frame away from
  // the first (the coarse estimate may have been wrong about the overlap).
  const cv::Point alt =
      texture.best(cv::Rect(0, 0, f.width, f.height), square.size(), square).tl();
  altOrigins.templ = alt;
  altOrigins.search = searchFor(alt);

  MatchResult r = fallbackMatch(newFull, refFull, g, origins);
  if (r.confidence < 0.5 && !altOrigins.isZero()) {
    origins = altOrigins;
    const MatchResult again = fallbackMatch(newFull, refFull, g, origins);
    if (again.valid) r = again;
  }
  m.confidence = r.confidence;
  m.background = r.background;
  m.dx = r.dx;
  m.dy = r.dy;
  m.ambiguous = r.ambiguous;
  if (!std::isfinite(m.confidence) || !std::isfinite(m.background) || !std::isfinite(m.dx) ||
      !std::isfinite(m.dy)) {
    m = Measurement();  // nothing measurable (flat frames)
  }
  return m;
}

int decideRegistration(TrackingState& s, const Measurement& meas, double frameScore,
                       float minSharpness, float minMatch, cv::Size frame, bool& lost) {
  lost = false;
  const double c = meas.confidence, margin = c - meas.background;
  if (meas.templatePath) s.steadyGate = true;
  if (meas.ambiguous) s.steadyGate = false;
  bool pass = false;
  if (s.tracking) {
    if (margin > 0.65 || c > minMatch) {
      pass = frameScore > 0.07;
      s.tracking = pass;
    } else {
      s.tracking = false;
    }
  } else if (margin > 0.5) {
    pass = c > minMatch;
    s.tracking = pass;
  }
  if (pass) {
    const cv::Point2d previous = s.position;
    s.position = s.lastGoodPosition + cv::Point2d(meas.dx, meas.dy);
    const cv::Point2d move = s.position - s.lastGoodPosition;
    (void)previous;
    if (std::trunc(move.x) == std::trunc(meas.dx) && std::trunc(move.y) == std::trunc(meas.dy))
      ++s.steadyCount;
    if (!s.steadyGate && s.steadyCount < 11) return 2;
    if (!(frameScore > minSharpness)) return 2;
    s.steadyCount = 0;
    s.missCount = 0;
    return 1;
  }
  bool large = false;
  if (std::fabs(meas.dx) > 0.6 * frame.width) {
    large = true;
  } else if (std::fabs(meas.dy) > 0.6 * frame.height) {
    large = true;
  }
  const bool lostOrRelocating = s.state == 2 || s.state == 3;
  if (c > 0.35 && large) {
    if (lostOrRelocating) return 3;
  } else {
    if (lostOrRelocating && s.missCount >= 9) return 3;
    if (!lostOrRelocating && s.missCount < 9) {
      if (c < 0.3) ++s.missCount;
      return 4;
    }
    if (lostOrRelocating) {
      if (c < 0.3) ++s.missCount;
      return 4;
    }
  }
  s.state = 2;
  lost = true;
  return 3;
}

}  // namespace vantix
