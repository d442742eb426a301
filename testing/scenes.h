// Scenes with known ground truth for the tests, the benchmarks and the
// simulated camera: photographs, a stage scanned along a path with true
// sub-pixel positions, focus stacks over a depth map, and Gaussian beams with
// exact moments.
//
// Images are 8-bit B G R unless a function says otherwise.  Coordinates are
// in pixels with pixel (x, y) centred at (x, y).  Photographs come from
// Debian's opencv-doc package; a missing one throws std::runtime_error
// naming the package.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace vtest {

// ---------------------------------------------------------------------------
// Still images
// ---------------------------------------------------------------------------

constexpr char kPhotoFolder[] = "/usr/share/doc/opencv-doc/examples/data";

// A photograph of opencv-doc, resized to `size` (area interpolation) when a
// size is given.
cv::Mat photo(const std::string& file, cv::Size size = cv::Size());

// A synthetic scene with detail at several scales (1.5, 4 and 12 pixels) and
// no repetition, so that every window registers at one place only.  Grey
// levels centre on 128; the same seed gives the same scene.
cv::Mat texturedScene(cv::Size size, uint32_t seed = 1);

// The window of `scene` whose top-left pixel is at `topLeft`, sampled
// bilinearly at the sub-pixel position (1/32 pixel steps).  Scene pixels
// past the border repeat the edge.
cv::Mat sampleWindow(const cv::Mat& scene, cv::Point2d topLeft, cv::Size size);

// ---------------------------------------------------------------------------
// A stage scanned under the camera
//
// The scene is a 4 x 4 grid of sixteen different photographs, each cropped to
// 4:3 about its centre and resized to a 1024 x 768 cell (4096 x 3072 in all),
// grey levels mapped into 16..239 so that noise and drift do not clip and a
// black canvas pixel is never scene content.
//
// A scan is a serpentine path of the frame's top-left corner: rows of
// `rowLength` pixels joined by upward moves of `rowStep`, the first row
// running left.  Speed changes smoothly between 2 and 60 pixels a frame; the
// scan has a pause, frames blurred along their motion, sensor noise, a slow
// brightness drift and one fast jump away to an unrelated place and back.
// ---------------------------------------------------------------------------

// The sixteen photographs of the scan scene, row by row.
const std::array<const char*, 16>& scanPhotos();
cv::Mat scanScene(const std::string& folder = kPhotoFolder);

struct ScanOptions {
  cv::Size frame{640, 480};
  cv::Point start{3300, 2500};  // top-left of the first frame (whole pixels)
  double rowLength = 2400;
  int rows = 5;
  double rowStep = 280;
  double speedScale = 1.0;  // times 31 + 20 sin(2 pi k / 97) + 9 sin(2 pi k / 41 + 1)
  // The speed eases to 0 over 6 frames, stays 0 for pauseFrames frames and
  // eases back.  Negative pauseAt: no pause.
  int pauseAt = 140;
  int pauseFrames = 10;
  // From the position of frame jumpAt the view moves by jumpOffset in two
  // fast (blurred) frames, drifts for jumpDwell frames, comes back in two and
  // the scan resumes.  Negative jumpAt: no jump.
  int jumpAt = 60;
  cv::Point2d jumpOffset{0, -1300};
  int jumpDwell = 24;
  // Every blurEvery-th frame is blurred along its motion by a line as long
  // as its move (9..41 pixels); 0: none.
  int blurEvery = 23;
  double noiseSigma = 2.0;      // grey levels, per channel
  double gainAmplitude = 0.04;  // gain 1 +- this, period 150 frames
  uint32_t seed = 1;
  // More frames than the path holds: the path is run back and forth until
  // maxFrames.  0: once along the path.
  int maxFrames = 0;
};

// 1280 x 720 (3 rows) and 1920 x 1080 (no pause, no jump); the defaults
// above are the 640 x 480 scan (5 rows).
ScanOptions scanOptions720();
ScanOptions scanOptions1080();

// What is known about one frame.
struct ScanTruth {
  cv::Point2d position;  // scene coordinates of the frame's top-left pixel
  cv::Point2d motion;    // move from the previous frame
  double gain = 1.0;
  double blurLength = 0;  // 0: sharp
  bool away = false;      // part of the jump, not of the scan proper
};

class ScanSimulator {
 public:
  // Throws std::runtime_error when the path leaves the scene.
  ScanSimulator(const cv::Mat& scene, const ScanOptions& options);

  cv::Size frameSize() const { return options_.frame; }
  size_t frameCount() const { return truth_.size(); }
  const ScanTruth& truth(size_t index) const { return truth_.at(index); }

  cv::Mat render(size_t index) const;

 private:
  cv::Mat scene_;
  ScanOptions options_;
  std::vector<ScanTruth> truth_;
  std::vector<cv::Mat> noise_;  // CV_16SC3 fields, cut at a moving offset
};

// ---------------------------------------------------------------------------
// Focus stacks
// ---------------------------------------------------------------------------

// Depth (CV_32F, 0..1): `steps` vertical bands, 0 on the left to 1 on the
// right (as many as columns: a linear ramp); a tilted plane with a round
// hill spanning 0..1 exactly.
cv::Mat steppedDepth(cv::Size size, int steps);
cv::Mat hillDepth(cv::Size size);

// Gaussian blurs of one sharp image at evenly spaced sigmas 0..maxSigma
// (spacing 0.25, or wider when more than maxLevels levels would be needed).
// defocus() blurs each pixel by its own sigma (CV_32F map), interpolating
// between the two nearest levels.
class BlurLevels {
 public:
  BlurLevels(const cv::Mat& sharp, double maxSigma, int maxLevels = 64);
  cv::Mat defocus(const cv::Mat& sigma) const;

 private:
  std::vector<cv::Mat> levels_;  // CV_32FC3; level 0 is the sharp image
  double step_ = 1.0;
};

// `count` slices focused at depths evenly spread over 0..1; a pixel at depth
// d is blurred by sigma maxSigma * |d - focus|.
std::vector<cv::Mat> focusStack(const cv::Mat& sharp, const cv::Mat& depth, int count,
                                double maxSigma);

// Mean absolute Laplacian of the grey image over `region` (fine detail).
double meanDetail(const cv::Mat& bgr, const cv::Rect& region);

// `image` magnified by `scale` about its centre and shifted by (dx, dy)
// (bilinear, edges replicated).
cv::Mat moved(const cv::Mat& image, double scale, double dx, double dy);

// ---------------------------------------------------------------------------
// Gaussian beams
// ---------------------------------------------------------------------------

struct Beam {
  double cx, cy;       // centre
  double sigma1;       // along the beam's own x axis
  double sigma2;       // along its own y axis
  double angleDeg;     // turns the beam's x axis from +x toward +y (rows run down)
  double peak = 4000;  // in the image's units
};

// Second moments about the centroid and 4-sigma diameters.
struct Moments {
  long double total = 0, cx = 0, cy = 0, xx = 0, yy = 0, xy = 0;
  double dX() const { return diameter(xx); }
  double dY() const { return diameter(yy); }
  static double diameter(long double second);  // 4 sqrt(second moment)
};

// Adds the beam, point-sampled at pixel centres, to a CV_32F or CV_64F image
// (within `reach` sigmas of the centre; 0: everywhere).
void addBeam(cv::Mat& image, const Beam& beam, double reach = 0);
// Adds the beam rounded to whole counts to a CV_8UC1 or CV_16UC1 image
// (saturating), and a new image holding one beam.
void drawBeam(cv::Mat& image, const Beam& beam);
cv::Mat beamImage(int width, int height, const Beam& beam, int type = CV_16UC1);

// The moments of a one-channel image (or of a rectangle of it), summed in
// long double pixel by pixel.
Moments momentsOf(const cv::Mat& image, cv::Rect rect = cv::Rect());

}  // namespace vtest
