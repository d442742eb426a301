// A simulated hand-guided scan over a large real image, shared by the live
// stitching tests and the stitching benchmark.  Header-only; needs OpenCV
// core, imgproc and imgcodecs.
//
// The scene is a 4 x 4 grid of sixteen different photographs of Debian's
// opencv-doc package, each cropped to 4:3 about its centre and resized to a
// 1024 x 768 cell: 4096 x 3072 pixels in all.  Sixteen distinct photos (no
// tile repeats) so that no two places of the scene look alike and a
// registration cannot "succeed" at a wrong, repeated place; they mix fine
// texture (aloe, baboon, starry night), man-made structure (building, graffiti,
// board) and large smooth areas (sky, grass), as a real scan would.  Grey
// levels are mapped into 16..239: the headroom keeps sensor noise and the
// brightness drift from clipping, and a pixel of a black canvas (0, 0, 0) can
// never be mistaken for scene content.
//
// A scan is a serpentine path of the frame's top-left corner over the scene:
// rows of `rowLength` pixels, joined by vertical moves of `rowStep`, the first
// row running left and the rows climbing up (so that the panorama grows to
// the left and upwards, the directions that shift the earlier content).  Speed
// along the path changes smoothly between 2 and 60 pixels a frame.  Besides
// that the scan has a pause, frames blurred by motion, sensor noise, a slow
// brightness drift and one fast jump away to an unrelated place and back.
// Positions are sub-pixel; frames sample the scene bilinearly.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace vscan {

constexpr char kPhotoFolder[] = "/usr/share/doc/opencv-doc/examples/data";

// The photographs of the scene, row by row of the 4 x 4 grid.
inline const std::array<const char*, 16>& scenePhotos() {
  static const std::array<const char*, 16> photos = {
      "aloeL.jpg",      "building.jpg",    "baboon.jpg",   "graf1.png",
      "starry_night.jpg", "fruits.jpg",    "leuvenA.jpg",  "stuff.jpg",
      "ela_original.jpg", "board.jpg",     "home.jpg",     "rubberwhale1.png",
      "messi5.jpg",     "aero1.jpg",       "squirrel_cls.jpg", "butterfly.jpg"};
  return photos;
}

constexpr int kCellWidth = 1024;
constexpr int kCellHeight = 768;
constexpr int kGrid = 4;

// The 4096 x 3072 scene (8-bit B G R).  Throws std::runtime_error naming the
// package when a photograph cannot be read.
inline cv::Mat makeScene(const std::string& folder = kPhotoFolder) {
  cv::Mat scene(kGrid * kCellHeight, kGrid * kCellWidth, CV_8UC3);
  for (int i = 0; i < kGrid * kGrid; ++i) {
    const std::string path = folder + "/" + scenePhotos()[i];
    const cv::Mat photo = cv::imread(path, cv::IMREAD_COLOR);
    if (photo.empty()) {
      throw std::runtime_error("cannot read " + path +
                               " (the scan scene needs Debian's opencv-doc package: "
                               "apt-get install opencv-doc)");
    }
    // The largest 4:3 rectangle about the photo's centre.
    cv::Rect crop(0, 0, photo.cols, photo.rows);
    if (photo.cols * 3 > photo.rows * 4) {
      crop.width = photo.rows * 4 / 3;
      crop.x = (photo.cols - crop.width) / 2;
    } else {
      crop.height = photo.cols * 3 / 4;
      crop.y = (photo.rows - crop.height) / 2;
    }
    const cv::Rect cell((i % kGrid) * kCellWidth, (i / kGrid) * kCellHeight, kCellWidth,
                        kCellHeight);
    const int interpolation = crop.width > kCellWidth ? cv::INTER_AREA : cv::INTER_CUBIC;
    cv::Mat tile;
    cv::resize(photo(crop), tile, cell.size(), 0, 0, interpolation);
    tile.convertTo(scene(cell), CV_8U, 223.0 / 255.0, 16.0);
  }
  return scene;
}

struct ScanOptions {
  cv::Size frame{640, 480};
  cv::Point start{3300, 2500};  // top-left of the first frame (whole pixels)
  double rowLength = 2400;      // horizontal travel of one row
  int rows = 5;
  double rowStep = 280;         // vertical travel between rows (upwards)
  // Speed: 31 + 20 sin(2 pi k / 97) + 9 sin(2 pi k / 41 + 1), 2..60 px a frame.
  double speedScale = 1.0;
  // A pause: the speed eases to 0 over 6 frames, stays 0 for pauseFrames
  // frames and eases back.  Negative pauseAt: no pause.
  int pauseAt = 140;
  int pauseFrames = 10;
  // The jump: from the path position of frame jumpAt the view moves by
  // jumpOffset in two fast frames, drifts slowly for jumpDwell frames there,
  // comes back in two fast frames and the scan resumes where it left off.
  // Negative jumpAt: no jump.
  int jumpAt = 60;
  cv::Point2d jumpOffset{0, -1300};
  int jumpDwell = 24;
  // Every blurEvery-th frame of ordinary motion is blurred along its motion
  // by a line kernel as long as the frame's move (9..41 px).
  int blurEvery = 23;
  double noiseSigma = 2.0;      // grey levels, per channel
  double gainAmplitude = 0.04;  // brightness drift: gain 1 +- this, period 150 frames
  uint32_t seed = 1;
  // With more frames wanted than the path holds, the path is run backwards
  // and forwards again (ping-pong) until maxFrames; 0: once along the path.
  int maxFrames = 0;
};

// What the simulator knows about one frame.
struct ScanTruth {
  cv::Point2d position;  // scene coordinates of the frame's top-left pixel
  cv::Point2d motion;    // move from the previous frame
  double gain = 1.0;
  double blurLength = 0;  // 0: sharp
  bool paused = false;    // no motion since the previous frame
  bool away = false;      // part of the jump (not of the scan proper)
};

// Presets shared by the tests and the benchmark.
inline ScanOptions scanOptions640() { return ScanOptions{}; }

inline ScanOptions scanOptions720() {
  ScanOptions o;
  o.frame = cv::Size(1280, 720);
  o.start = cv::Point(2780, 2300);
  o.rowLength = 2700;
  o.rows = 3;
  o.rowStep = 420;
  o.pauseAt = 120;
  o.jumpAt = 50;
  o.jumpOffset = cv::Point2d(-200, -1250);
  o.seed = 2;
  return o;
}

inline ScanOptions scanOptions1080() {
  ScanOptions o;
  o.frame = cv::Size(1920, 1080);
  o.start = cv::Point(2100, 1900);
  o.rowLength = 1900;
  o.rows = 3;
  o.rowStep = 600;
  o.pauseAt = -1;
  o.jumpAt = -1;
  o.seed = 3;
  return o;
}

class ScanSimulator {
 public:
  ScanSimulator(const cv::Mat& scene, const ScanOptions& options)
      : scene_(scene), options_(options) {
    CV_Assert(scene.type() == CV_8UC3);
    planPath();
    makeNoise();
  }

  const ScanOptions& options() const { return options_; }
  cv::Size frameSize() const { return options_.frame; }
  size_t frameCount() const { return truth_.size(); }
  const ScanTruth& truth(size_t index) const { return truth_.at(index); }
  const std::vector<ScanTruth>& truths() const { return truth_; }

  // Renders frame `index` into `frame` (8-bit B G R, frame size).
  void render(size_t index, cv::Mat& frame) const {
    const ScanTruth& t = truth_.at(index);
    const cv::Size size = options_.frame;
    const int margin = t.blurLength > 0 ? static_cast<int>(t.blurLength) / 2 + 3 : 0;
    const double fx = std::floor(t.position.x), fy = std::floor(t.position.y);
    const cv::Rect window(static_cast<int>(fx) - margin, static_cast<int>(fy) - margin,
                          size.width + 2 * margin + 1, size.height + 2 * margin + 1);
    CV_Assert((window & cv::Rect(0, 0, scene_.cols, scene_.rows)) == window);
    // dst(x, y) = window(x + fraction) : bilinear sampling at the sub-pixel
    // position (OpenCV's 1/32-pixel interpolation grid).
    const cv::Matx23d shift(1, 0, t.position.x - fx, 0, 1, t.position.y - fy);
    cv::Mat sharp;
    cv::warpAffine(scene_(window), sharp, shift,
                   cv::Size(size.width + 2 * margin, size.height + 2 * margin),
                   cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
    if (margin > 0) {
      cv::Mat blurred;
      cv::filter2D(sharp, blurred, -1, motionKernel(t), cv::Point(-1, -1), 0, cv::BORDER_REFLECT);
      sharp = blurred(cv::Rect(margin, margin, size.width, size.height));
    }
    // Brightness drift and sensor noise, in 16-bit so that neither clips
    // before the final saturation.
    cv::Mat level;
    sharp.convertTo(level, CV_16S, t.gain);
    const cv::Mat& field = noise_[index % noise_.size()];
    const int ox = static_cast<int>((index * 37) % kNoiseSlack);
    const int oy = static_cast<int>((index * 53) % kNoiseSlack);
    cv::add(level, field(cv::Rect(ox, oy, size.width, size.height)), level);
    level.convertTo(frame, CV_8U);
  }

  cv::Mat render(size_t index) const {
    cv::Mat frame;
    render(index, frame);
    return frame;
  }

  // The line kernel of a blurred frame: length blurLength along the motion,
  // centred, so that the blurred frame keeps the truth position.
  static cv::Mat motionKernel(const ScanTruth& t) {
    const int side = static_cast<int>(t.blurLength) | 1;
    cv::Mat kernel = cv::Mat::zeros(side + 2, side + 2, CV_32F);
    const double norm = std::max(1e-9, std::hypot(t.motion.x, t.motion.y));
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

 private:
  static constexpr int kNoiseSlack = 64;
  static constexpr int kNoiseFields = 3;

  static double speedAt(int k) {
    constexpr double kTwoPi = 6.283185307179586;
    return 31.0 + 20.0 * std::sin(kTwoPi * k / 97.0) + 9.0 * std::sin(kTwoPi * k / 41.0 + 1.0);
  }

  // Smooth factor 1 -> 0 -> 1 around the pause.
  double pauseFactor(int k) const {
    if (options_.pauseAt < 0) return 1.0;
    constexpr int kEase = 6;
    const int from = options_.pauseAt, to = options_.pauseAt + options_.pauseFrames;
    if (k >= from && k < to) return 0.0;
    const int before = from - k, after = k - to + 1;
    const auto ease = [](int step) { return 0.5 - 0.5 * std::cos(3.141592653589793 * step / 7.0); };
    if (before > 0 && before <= kEase) return ease(before);
    if (after > 0 && after <= kEase) return ease(after);
    return 1.0;
  }

  std::vector<cv::Point2d> waypoints() const {
    std::vector<cv::Point2d> points{cv::Point2d(options_.start)};
    double direction = -1;
    for (int row = 0; row < options_.rows; ++row) {
      points.push_back(points.back() + cv::Point2d(direction * options_.rowLength, 0));
      if (row + 1 < options_.rows) points.push_back(points.back() + cv::Point2d(0, -options_.rowStep));
      direction = -direction;
    }
    return points;
  }

  static cv::Point2d along(const std::vector<cv::Point2d>& points, double s) {
    for (size_t i = 1; i < points.size(); ++i) {
      const double length = cv::norm(points[i] - points[i - 1]);
      if (s <= length) return points[i - 1] + (points[i] - points[i - 1]) * (s / length);
      s -= length;
    }
    return points.back();
  }

  void planPath() {
    const std::vector<cv::Point2d> points = waypoints();
    double total = 0;
    for (size_t i = 1; i < points.size(); ++i) total += cv::norm(points[i] - points[i - 1]);

    std::vector<cv::Point2d> positions;
    std::vector<char> away;
    double s = 0, ds = 1;  // ds: +1 forwards, -1 backwards (ping-pong)
    for (int k = 0;; ++k) {
      if (options_.maxFrames > 0 && static_cast<int>(positions.size()) >= options_.maxFrames) break;
      if (k == options_.jumpAt) {
        const cv::Point2d from = along(points, s);
        const cv::Point2d to = from + options_.jumpOffset;
        for (double f : {0.35, 0.7}) {
          positions.push_back(from + options_.jumpOffset * f);
          away.push_back(1);
        }
        for (int d = 0; d < options_.jumpDwell; ++d) {
          positions.push_back(to + cv::Point2d(3.3 * d, 0.6 * d));
          away.push_back(1);
        }
        const cv::Point2d back = positions.back();
        for (double f : {0.7, 0.35}) {
          positions.push_back(from + (back - from) * f);
          away.push_back(1);
        }
      }
      positions.push_back(along(points, s));
      away.push_back(0);
      s += ds * speedAt(k) * options_.speedScale * pauseFactor(k);
      if (s >= total || s <= 0) {
        if (options_.maxFrames <= 0) {
          if (s >= total) {
            positions.push_back(points.back());
            away.push_back(0);
          }
          break;
        }
        s = std::clamp(s, 0.0, total);
        ds = -ds;
      }
    }
    // The first frame sits on whole pixels so that the panorama's frame of
    // reference (placed at a whole canvas pixel) maps onto the scene exactly.
    truth_.resize(positions.size());
    for (size_t i = 0; i < positions.size(); ++i) {
      ScanTruth& t = truth_[i];
      t.position = positions[i];
      t.away = away[i] != 0;
      t.motion = i == 0 ? cv::Point2d(0, 0) : positions[i] - positions[i - 1];
      const double speed = std::hypot(t.motion.x, t.motion.y);
      t.paused = i > 0 && speed < 1e-9;
      t.gain = 1.0 + options_.gainAmplitude * std::sin(6.283185307179586 * i / 150.0);
      if (t.away && speed > options_.frame.height * 0.2) {
        t.blurLength = 41;  // the fast moves of the jump are blurred
      } else if (!t.away && options_.blurEvery > 0 && i % options_.blurEvery ==
                 static_cast<size_t>(options_.blurEvery / 2) && speed > 1) {
        t.blurLength = std::clamp(speed, 9.0, 41.0);
      }
      const int margin = 30;
      if (t.position.x < margin || t.position.y < margin ||
          t.position.x + options_.frame.width + margin > scene_.cols ||
          t.position.y + options_.frame.height + margin > scene_.rows) {
        throw std::runtime_error("scan path leaves the scene at frame " + std::to_string(i));
      }
    }
  }

  void makeNoise() {
    cv::RNG rng(options_.seed * 7919u + 17u);
    noise_.resize(kNoiseFields);
    for (cv::Mat& field : noise_) {
      field.create(options_.frame.height + kNoiseSlack, options_.frame.width + kNoiseSlack,
                   CV_16SC3);
      rng.fill(field, cv::RNG::NORMAL, cv::Scalar::all(0), cv::Scalar::all(options_.noiseSigma));
    }
  }

  cv::Mat scene_;
  ScanOptions options_;
  std::vector<ScanTruth> truth_;
  std::vector<cv::Mat> noise_;
};

}  // namespace vscan
