#include "testing/scenes.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace vtest {

namespace {
constexpr double kTwoPi = 6.283185307179586;
}

cv::Mat photo(const std::string& file, cv::Size size) {
  const std::string path =
      file.find('/') == std::string::npos ? std::string(kPhotoFolder) + "/" + file : file;
  cv::Mat image = cv::imread(path, cv::IMREAD_COLOR);
  if (image.empty()) {
    throw std::runtime_error("cannot read " + path +
                             " (install Debian's opencv-doc package: apt-get install opencv-doc)");
  }
  if (size.area() > 0 && size != image.size()) cv::resize(image, image, size, 0, 0, cv::INTER_AREA);
  return image;
}

cv::Mat texturedScene(cv::Size size, uint32_t seed) {
  cv::RNG rng(0x5EEDull * (seed + 1));
  cv::Mat sum = cv::Mat::zeros(size, CV_32FC3);
  for (double sigma : {1.5, 4.0, 12.0}) {
    cv::Mat noise(size, CV_32FC3), layer;
    rng.fill(noise, cv::RNG::NORMAL, 0.0, 1.0);
    cv::GaussianBlur(noise, layer, cv::Size(), sigma, sigma, cv::BORDER_REFLECT);
    sum += layer * sigma;
  }
  cv::Scalar mean, deviation;
  cv::meanStdDev(sum.reshape(1), mean, deviation);
  cv::Mat scene;
  sum.convertTo(scene, CV_8UC3, 45.0 / std::max(deviation[0], 1e-9),
                128.0 - 45.0 * mean[0] / std::max(deviation[0], 1e-9));
  return scene;
}

cv::Mat sampleWindow(const cv::Mat& scene, cv::Point2d topLeft, cv::Size size) {
  // Warp a crop around the window: keeps the interpolation's fraction small
  // whatever the position, and the edge repeats where the crop is cut.
  const int ox = std::clamp(static_cast<int>(std::floor(topLeft.x)), 0, scene.cols - 1);
  const int oy = std::clamp(static_cast<int>(std::floor(topLeft.y)), 0, scene.rows - 1);
  const cv::Rect crop =
      cv::Rect(ox, oy, size.width + 2, size.height + 2) & cv::Rect(0, 0, scene.cols, scene.rows);
  const cv::Matx23d shift(1, 0, topLeft.x - ox, 0, 1, topLeft.y - oy);
  cv::Mat out;
  cv::warpAffine(scene(crop), out, shift, size, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                 cv::BORDER_REPLICATE);
  return out;
}

// ---------------------------------------------------------------------------
// Stage scan
// ---------------------------------------------------------------------------

const std::array<const char*, 16>& scanPhotos() {
  static const std::array<const char*, 16> photos = {
      "aloeL.jpg",        "building.jpg", "baboon.jpg",       "graf1.png",
      "starry_night.jpg", "fruits.jpg",   "leuvenA.jpg",      "stuff.jpg",
      "ela_original.jpg", "board.jpg",    "home.jpg",         "rubberwhale1.png",
      "messi5.jpg",       "aero1.jpg",    "squirrel_cls.jpg", "butterfly.jpg"};
  return photos;
}

cv::Mat scanScene(const std::string& folder) {
  constexpr int kCellWidth = 1024, kCellHeight = 768, kGrid = 4;
  cv::Mat scene(kGrid * kCellHeight, kGrid * kCellWidth, CV_8UC3);
  for (int i = 0; i < kGrid * kGrid; ++i) {
    const cv::Mat image = photo(folder + "/" + scanPhotos()[i]);
    // The largest 4:3 rectangle about the photo's centre.
    cv::Rect crop(0, 0, image.cols, image.rows);
    if (image.cols * 3 > image.rows * 4) {
      crop.width = image.rows * 4 / 3;
      crop.x = (image.cols - crop.width) / 2;
    } else {
      crop.height = image.cols * 3 / 4;
      crop.y = (image.rows - crop.height) / 2;
    }
    const cv::Rect cell((i % kGrid) * kCellWidth, (i / kGrid) * kCellHeight, kCellWidth,
                        kCellHeight);
    cv::Mat tile;
    cv::resize(image(crop), tile, cell.size(), 0, 0,
               crop.width > kCellWidth ? cv::INTER_AREA : cv::INTER_CUBIC);
    tile.convertTo(scene(cell), CV_8U, 223.0 / 255.0, 16.0);
  }
  return scene;
}

// Fields in order: frame, start, rowLength, rows, rowStep, speedScale, pauseAt,
// pauseFrames, jumpAt, jumpOffset, jumpDwell, blurEvery, noiseSigma,
// gainAmplitude, seed.
ScanOptions scanOptions720() {
  return {{1280, 720}, {2780, 2300}, 2700, 3, 420, 1.0, 120, 10, 50, {-200, -1250}, 24, 23, 2.0,
          0.04, 2};
}
ScanOptions scanOptions1080() {
  return {{1920, 1080}, {2100, 1900}, 1900, 3, 600, 1.0, -1, 10, -1, {0, -1300}, 24, 23, 2.0, 0.04,
          3};
}

namespace {

constexpr int kNoiseSlack = 64;

// Speed factor 1 -> 0 -> 1 around the pause.
double pauseFactor(const ScanOptions& o, int k) {
  if (o.pauseAt < 0) return 1.0;
  const int from = o.pauseAt, to = o.pauseAt + o.pauseFrames;
  if (k >= from && k < to) return 0.0;
  const int before = from - k, after = k - to + 1;
  const auto ease = [](int step) { return 0.5 - 0.5 * std::cos(kTwoPi / 2 * step / 7.0); };
  if (before > 0 && before <= 6) return ease(before);
  if (after > 0 && after <= 6) return ease(after);
  return 1.0;
}

cv::Point2d along(const std::vector<cv::Point2d>& points, double s) {
  for (size_t i = 1; i < points.size(); ++i) {
    const double length = cv::norm(points[i] - points[i - 1]);
    if (s <= length) return points[i - 1] + (points[i] - points[i - 1]) * (s / length);
    s -= length;
  }
  return points.back();
}

// Top-left positions of the frames, and which belong to the jump.
void planPath(const ScanOptions& o, std::vector<cv::Point2d>& positions, std::vector<char>& away) {
  std::vector<cv::Point2d> points{cv::Point2d(o.start)};
  double direction = -1, total = 0;
  for (int row = 0; row < o.rows; ++row) {
    points.push_back(points.back() + cv::Point2d(direction * o.rowLength, 0));
    if (row + 1 < o.rows) points.push_back(points.back() + cv::Point2d(0, -o.rowStep));
    direction = -direction;
  }
  for (size_t i = 1; i < points.size(); ++i) total += cv::norm(points[i] - points[i - 1]);
  double s = 0, ds = 1;  // ds: +1 forwards, -1 backwards
  for (int k = 0;; ++k) {
    if (o.maxFrames > 0 && static_cast<int>(positions.size()) >= o.maxFrames) break;
    if (k == o.jumpAt) {
      const cv::Point2d from = along(points, s), to = from + o.jumpOffset;
      for (double f : {0.35, 0.7}) positions.push_back(from + o.jumpOffset * f), away.push_back(1);
      for (int d = 0; d < o.jumpDwell; ++d) {
        positions.push_back(to + cv::Point2d(3.3 * d, 0.6 * d)), away.push_back(1);
      }
      const cv::Point2d back = positions.back();
      for (double f : {0.7, 0.35}) positions.push_back(from + (back - from) * f), away.push_back(1);
    }
    positions.push_back(along(points, s)), away.push_back(0);
    const double speed =
        31.0 + 20.0 * std::sin(kTwoPi * k / 97.0) + 9.0 * std::sin(kTwoPi * k / 41.0 + 1.0);
    s += ds * speed * o.speedScale * pauseFactor(o, k);
    if (s >= total || s <= 0) {
      if (o.maxFrames <= 0) {
        if (s >= total) positions.push_back(points.back()), away.push_back(0);
        break;
      }
      s = std::clamp(s, 0.0, total);
      ds = -ds;
    }
  }
}

// The line kernel of a blurred frame, centred so that the frame keeps its
// true position.
cv::Mat motionKernel(const ScanTruth& t) {
  const int side = static_cast<int>(t.blurLength) | 1;
  cv::Mat kernel = cv::Mat::zeros(side + 2, side + 2, CV_32F);
  const double norm = std::hypot(t.motion.x, t.motion.y);
  const cv::Point2d direction = norm > 1e-6 ? t.motion / norm : cv::Point2d(1, 0);
  const cv::Point2d centre((side + 1) / 2.0, (side + 1) / 2.0);
  const cv::Point2d half = direction * (t.blurLength / 2.0);
  constexpr int kShift = 4;  // sub-pixel end points
  const auto fixed = [](cv::Point2d p) {
    return cv::Point(cvRound(p.x * (1 << kShift)), cvRound(p.y * (1 << kShift)));
  };
  cv::line(kernel, fixed(centre - half), fixed(centre + half), cv::Scalar(1.0), 1, cv::LINE_AA,
           kShift);
  kernel /= cv::sum(kernel)[0];
  return kernel;
}

}  // namespace

ScanSimulator::ScanSimulator(const cv::Mat& scene, const ScanOptions& options)
    : scene_(scene), options_(options) {
  CV_Assert(scene.type() == CV_8UC3);
  std::vector<cv::Point2d> positions;
  std::vector<char> away;
  planPath(options_, positions, away);
  truth_.resize(positions.size());
  for (size_t i = 0; i < positions.size(); ++i) {
    ScanTruth& t = truth_[i];
    t.position = positions[i];
    t.away = away[i] != 0;
    t.motion = i == 0 ? cv::Point2d(0, 0) : positions[i] - positions[i - 1];
    const double speed = std::hypot(t.motion.x, t.motion.y);
    t.gain = 1.0 + options_.gainAmplitude * std::sin(kTwoPi * i / 150.0);
    if (t.away && speed > options_.frame.height * 0.2) {
      t.blurLength = 41;  // the fast moves of the jump
    } else if (!t.away && options_.blurEvery > 0 &&
               i % options_.blurEvery == static_cast<size_t>(options_.blurEvery / 2) && speed > 1) {
      t.blurLength = std::clamp(speed, 9.0, 41.0);
    }
    constexpr int kMargin = 30;
    if (t.position.x < kMargin || t.position.y < kMargin ||
        t.position.x + options_.frame.width + kMargin > scene_.cols ||
        t.position.y + options_.frame.height + kMargin > scene_.rows) {
      throw std::runtime_error("scan path leaves the scene at frame " + std::to_string(i));
    }
  }
  cv::RNG rng(options_.seed * 7919u + 17u);
  noise_.resize(3);
  for (cv::Mat& field : noise_) {
    field.create(options_.frame.height + kNoiseSlack, options_.frame.width + kNoiseSlack, CV_16SC3);
    rng.fill(field, cv::RNG::NORMAL, cv::Scalar::all(0), cv::Scalar::all(options_.noiseSigma));
  }
}

cv::Mat ScanSimulator::render(size_t index) const {
  const ScanTruth& t = truth_.at(index);
  const cv::Size size = options_.frame;
  const int margin = t.blurLength > 0 ? static_cast<int>(t.blurLength) / 2 + 3 : 0;
  cv::Mat sharp = sampleWindow(scene_, t.position - cv::Point2d(margin, margin),
                               size + cv::Size(2 * margin, 2 * margin));
  if (margin > 0) {
    cv::Mat blurred;
    cv::filter2D(sharp, blurred, -1, motionKernel(t), cv::Point(-1, -1), 0, cv::BORDER_REFLECT);
    sharp = blurred(cv::Rect(margin, margin, size.width, size.height));
  }
  // Drift and noise in 16 bits, so that neither clips before the final
  // saturation.
  cv::Mat level;
  sharp.convertTo(level, CV_16S, t.gain);
  const cv::Mat& field = noise_[index % noise_.size()];
  const int ox = static_cast<int>((index * 37) % kNoiseSlack);
  const int oy = static_cast<int>((index * 53) % kNoiseSlack);
  cv::add(level, field(cv::Rect(ox, oy, size.width, size.height)), level);
  cv::Mat frame;
  level.convertTo(frame, CV_8U);
  return frame;
}

// ---------------------------------------------------------------------------
// Focus stacks
// ---------------------------------------------------------------------------

cv::Mat steppedDepth(cv::Size size, int steps) {
  cv::Mat depth(size, CV_32F);
  for (int x = 0; x < size.width; ++x) {
    const int band = std::min(steps - 1, x * steps / size.width);
    depth.col(x).setTo(steps > 1 ? static_cast<float>(band) / (steps - 1) : 0.0f);
  }
  return depth;
}

cv::Mat hillDepth(cv::Size size) {
  cv::Mat raw(size, CV_64F);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) {
      const double u = size.width > 1 ? static_cast<double>(x) / (size.width - 1) : 0.5;
      const double v = size.height > 1 ? static_cast<double>(y) / (size.height - 1) : 0.5;
      const double du = u - 0.3, dv = v - 0.65;
      raw.at<double>(y, x) = 0.55 * u + 0.25 * v + 0.45 * std::exp(-(du * du + dv * dv) / 0.04);
    }
  }
  double low = 0, high = 0;
  cv::minMaxLoc(raw, &low, &high);
  if (high > low) {
    cv::divide(raw - low, high - low, raw);  // divided: a scaled copy rounds differently
  } else {
    raw.setTo(0.5);
  }
  cv::Mat depth;
  raw.convertTo(depth, CV_32F);
  return depth;
}

BlurLevels::BlurLevels(const cv::Mat& sharp, double maxSigma, int maxLevels) {
  const int levels =
      maxSigma > 0 ? std::clamp(static_cast<int>(std::ceil(maxSigma / 0.25)), 1, maxLevels) : 0;
  step_ = levels > 0 ? maxSigma / levels : 1.0;
  levels_.resize(levels + 1);
  sharp.convertTo(levels_[0], CV_32FC3);
  for (int l = 1; l <= levels; ++l) {
    cv::GaussianBlur(levels_[0], levels_[l], cv::Size(), l * step_, l * step_,
                     cv::BORDER_REFLECT_101);
  }
}

cv::Mat BlurLevels::defocus(const cv::Mat& sigma) const {
  const int last = static_cast<int>(levels_.size()) - 1;
  cv::Mat out(levels_[0].size(), CV_8UC3);
  for (int y = 0; y < out.rows; ++y) {
    const auto* s = sigma.ptr<float>(y);
    auto* dst = out.ptr<cv::Vec3b>(y);
    for (int x = 0; x < out.cols; ++x) {
      const double position = std::max(0.0, s[x] / step_);
      const int l = std::min(static_cast<int>(position), std::max(last - 1, 0));
      const double t = last == 0 ? 0.0 : std::min(position - l, 1.0);
      const cv::Vec3f& a = levels_[l].at<cv::Vec3f>(y, x);
      const cv::Vec3f& b = levels_[std::min(l + 1, last)].at<cv::Vec3f>(y, x);
      for (int c = 0; c < 3; ++c) dst[x][c] = cv::saturate_cast<uint8_t>((1 - t) * a[c] + t * b[c]);
    }
  }
  return out;
}

std::vector<cv::Mat> focusStack(const cv::Mat& sharp, const cv::Mat& depth, int count,
                                double maxSigma) {
  const BlurLevels levels(sharp, maxSigma);
  std::vector<cv::Mat> slices;
  for (int k = 0; k < count; ++k) {
    const double focus = count > 1 ? static_cast<double>(k) / (count - 1) : 0.0;
    slices.push_back(levels.defocus(cv::abs(depth - focus) * maxSigma));
  }
  return slices;
}

double meanDetail(const cv::Mat& bgr, const cv::Rect& region) {
  cv::Mat grey, lap;
  cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
  cv::Laplacian(grey, lap, CV_32F, 3);
  return cv::mean(cv::abs(lap(region)))[0];
}

cv::Mat moved(const cv::Mat& image, double scale, double dx, double dy) {
  cv::Mat m =
      cv::getRotationMatrix2D(cv::Point2f(image.cols / 2.0f, image.rows / 2.0f), 0.0, scale);
  m.at<double>(0, 2) += dx;
  m.at<double>(1, 2) += dy;
  cv::Mat out;
  cv::warpAffine(image, out, m, image.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  return out;
}

// ---------------------------------------------------------------------------
// Beams
// ---------------------------------------------------------------------------

double Moments::diameter(long double second) {
  return static_cast<double>(4 * std::sqrt(second));
}

void addBeam(cv::Mat& image, const Beam& beam, double reach) {
  CV_Assert(image.type() == CV_32F || image.type() == CV_64F);
  cv::Rect area(0, 0, image.cols, image.rows);
  if (reach > 0) {
    const double r = reach * std::max(beam.sigma1, beam.sigma2);
    const cv::Point from(static_cast<int>(std::floor(beam.cx - r)),
                         static_cast<int>(std::floor(beam.cy - r)));
    const cv::Point to(static_cast<int>(std::ceil(beam.cx + r)) + 1,
                       static_cast<int>(std::ceil(beam.cy + r)) + 1);
    area &= cv::Rect(from, to);
  }
  const double c = std::cos(beam.angleDeg * CV_PI / 180), s = std::sin(beam.angleDeg * CV_PI / 180);
  for (int y = area.y; y < area.y + area.height; ++y) {
    for (int x = area.x; x < area.x + area.width; ++x) {
      const double dx = x - beam.cx, dy = y - beam.cy;
      const double u = (c * dx + s * dy) / beam.sigma1, v = (-s * dx + c * dy) / beam.sigma2;
      const double value = beam.peak * std::exp(-0.5 * (u * u + v * v));
      if (image.type() == CV_32F) {
        image.at<float>(y, x) += static_cast<float>(value);
      } else {
        image.at<double>(y, x) += value;
      }
    }
  }
}

void drawBeam(cv::Mat& image, const Beam& beam) {
  cv::Mat sum;
  image.convertTo(sum, CV_64F);
  addBeam(sum, beam);
  sum.convertTo(image, image.type());  // rounds and saturates
}

cv::Mat beamImage(int width, int height, const Beam& beam, int type) {
  cv::Mat image = cv::Mat::zeros(height, width, type);
  drawBeam(image, beam);
  return image;
}

Moments momentsOf(const cv::Mat& image, cv::Rect rect) {
  if (rect.empty()) rect = cv::Rect(0, 0, image.cols, image.rows);
  cv::Mat values;
  image(rect).convertTo(values, CV_64F);
  // Raw sums about the rectangle's corner (long double keeps the central
  // moments exact to far below a pixel), then moved to the centroid.
  Moments m;
  long double sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0;
  for (int y = 0; y < values.rows; ++y) {
    for (int x = 0; x < values.cols; ++x) {
      const long double v = values.at<double>(y, x);
      m.total += v;
      sx += v * x, sy += v * y;
      sxx += v * x * x, syy += v * y * y, sxy += v * x * y;
    }
  }
  const long double mx = sx / m.total, my = sy / m.total;
  m.cx = rect.x + mx;
  m.cy = rect.y + my;
  m.xx = sxx / m.total - mx * mx;
  m.yy = syy / m.total - my * my;
  m.xy = sxy / m.total - mx * my;
  return m;
}

}  // namespace vtest
