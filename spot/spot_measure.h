// Measurement of bright spots in one frame: the grey input, the single-spot
// measurement inside an elliptical aperture, the multi-spot measurement by
// segmentation, the diameters and angle from second moments, the trimmed
// mean of the averaging and the false-colour rendering.
//
// Everything here is a plain function over cv::Mat and small records; the
// session (spot_session.h) owns the state that carries over between frames
// and calls these on the caller's thread.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include <vantix.h>

namespace vantix {

// ---------------------------------------------------------------------------
// Frame input
// ---------------------------------------------------------------------------

// Row bytes of a frame of `bitCount` bits a pixel when the host passes a row
// pitch of 0: rows padded to four bytes.
uint32_t spotDefaultPitch(uint32_t width, uint32_t bitCount);

// The one-channel grey image that the measurement reads, for a frame of
// width x height pixels at `bitCount` bits with `rowPitch` bytes a row (0:
// the padded default):
//   8   the buffer wrapped as 8-bit grey (no copy)
//   16  the buffer wrapped as 16-bit grey, raw sensor values (no copy)
//   24  B G R, cv::COLOR_BGR2GRAY into `grey` (8-bit)
//   48  B G R 16-bit, (299 R + 587 G + 114 B) / 1000 truncated, in 32-bit
//       unsigned arithmetic, into `grey` (16-bit)
// Any other bitCount throws std::runtime_error("Unsupported image depth").
// The measurement reads the grey values as doubles, exactly as a 64-bit
// floating-point copy of them would hold them, but without making that copy.
cv::Mat spotGreyFrame(const void* buffer, uint32_t width, uint32_t height, uint32_t bitCount,
                      uint32_t rowPitch, cv::Mat& grey);

// ---------------------------------------------------------------------------
// Second moments
// ---------------------------------------------------------------------------

// Diameters and angle of a spot from its central second moments (pixels^2).
struct SpotShape {
  double first = 0;        // record field 4
  double second = 0;       // record field 5
  double ellipticity = 0;  // smaller / larger diameter, 0 when larger <= 0
  double angle = 90;       // degrees, in (-90, 90]; 90 when axis-aligned
  double smaller = 0;
  double larger = 0;
};

// ellipseMode false: the axis-aligned 4-sigma diameters dX, dY (in this
// order, not sorted) and angle 90.  ellipseMode true: the principal-axes
// diameters (larger first) and the orientation, counted from +x toward -y
// (counter-clockwise on screen, where rows run downwards).
SpotShape spotShape(double sxx, double syy, double sxy, bool ellipseMode);

// ---------------------------------------------------------------------------
// Working rectangle
// ---------------------------------------------------------------------------

// The ROI (or the whole frame when its width or height is below 1)
// intersected with the frame; empty when they do not overlap.  Computed in
// 64-bit arithmetic, so ROI values near the 32-bit limits cannot overflow.
cv::Rect spotWorkingRect(const SpotRoi& roi, int frameWidth, int frameHeight);

// ---------------------------------------------------------------------------
// Single spot
// ---------------------------------------------------------------------------

// The state of the single-spot measurement that carries over between frames.
struct SingleSpotState {
  SpotAperture autoAperture{0, 0, -1, -1};  // a < 0: not set
  SpotAperture userAperture{0, 0, -1, -1};
  bool useAutoAperture = true;
  double angle = 90;  // orientation of the last spot; turns the automatic aperture
};

enum class SpotOutcome {
  kMeasured,   // `out` written, state updated
  kEmptyRect,  // ROI and frame do not overlap: `out` zero-filled
  kNoSignal,   // nothing inside the aperture: `out` untouched, aperture unset
};

// Measures the one spot of `frame` (CV_8UC1, CV_16UC1 or CV_64FC1, the whole
// frame) inside the aperture in force:
//  - the automatic aperture (state.useAutoAperture) is the ellipse of the
//    last spot turned by the last angle, or, when unset, the ellipse
//    inscribed in the whole frame;
//  - the fixed aperture is the host's axis-aligned ellipse.
// Aperture centres and pixel positions are compared in whole-frame
// coordinates, also inside an offset ROI, so that the aperture sits on the
// spot it was centred on whatever the ROI.
// Sums S, Sx, Sy over the (possibly turned) aperture give the centre; the
// second moments come from the pixels with I > 0 inside the same ellipse
// taken axis-aligned, divided by S.  The automatic aperture is then moved to
// the centre with semi-axes of the measured diameters (dX, dY axis-aligned;
// smaller, larger in ellipse mode), and state.angle to the angle found.
// Record fields 8 to 11 are that updated automatic aperture (the one the next
// frame uses) when it is in force, else the fixed aperture.
SpotOutcome measureSingleSpot(const cv::Mat& frame, const SpotRoi& roi, bool ellipseMode,
                              SingleSpotState& state, SpotResult& out);

// ---------------------------------------------------------------------------
// Several spots
// ---------------------------------------------------------------------------

// One segmented component that qualifies as a spot.
struct SpotCandidate {
  int32_t label;
  int32_t area;
  double centroidX;
  double centroidY;
  double sum;
};

// A horizontal run of foreground pixels of a binary image: row y, columns
// first..last (inclusive), and the label of its component.
struct SpotRun {
  int32_t y;
  int32_t first;
  int32_t last;
  int32_t label;
};

// Matrices and sequences of the multi-spot measurement, kept from frame to
// frame so that frames of one size allocate nothing new.
struct MultiSpotWorkspace {
  cv::Mat scaled;     // the view stretched to 8 bits
  cv::Mat blurred;    // 3x3 Gaussian of it
  cv::Mat binary;     // Otsu threshold of that
  std::vector<SpotRun> runs;  // the components, run by run
  std::vector<int> rowStart;
  std::vector<int> parent;    // union-find of the runs
  std::vector<int> roots;
  std::vector<int64_t> firstBlock;
  cv::Mat stats;      // one row a label: left, top, width, height, area (32-bit)
  cv::Mat centroids;  // one row a label: x, y (doubles)
  std::vector<double> labelSums;
  std::vector<SpotCandidate> candidates;
  std::vector<SpotResult> found;
  double lastThreshold = 0;  // Otsu level of the last frame (for tests)
  MultiSpotWorkspace();
};

// The 8-connected components of a binary image (non-zero is foreground),
// labelled 1, 2, ... in the order in which a raster scan of 2 x 2 blocks
// meets them, as cv::connectedComponentsWithStats labels them (one
// thread), with the same statistics
// (one row a label: left, top, width, height, area as 32-bit integers) and
// centroids (x, y as doubles); row 0 (the background) holds only its area.  Works on runs rather
// than pixels: a frame that is mostly background costs little more than
// reading it.  Fills work.runs (raster order, labelled), work.rowStart
// (row y's runs start at rowStart[y]; rows + 1 entries), work.stats and
// work.centroids.  Returns the number of labels including the background.
int labelRuns(const cv::Mat& binary, MultiSpotWorkspace& work);

// Smallest component and smallest share of its bounding box that count as a
// spot; Otsu levels below kMinOtsuLevel mean that the frame holds no spot.
constexpr int kMinSpotArea = 10;
constexpr double kMinSpotFill = 0.1;
constexpr int kMinOtsuLevel = 6;

// Finds the spots of `frame` (CV_8UC1, CV_16UC1 or CV_64FC1) by Otsu
// segmentation of the view stretched to 8 bits, keeps the `spotCount`
// brightest components of at least kMinSpotArea pixels that fill at least
// kMinSpotFill of their bounding box, measures each in its bounding box
// widened by half its size on every side and cut half-way towards every other
// component, and writes `spotCount` records ordered by centre x, the ones
// without a spot zero-filled.  Returns false when the frame holds no spot
// (or the working rectangle is empty): all records zero.
bool measureMultiSpot(const cv::Mat& frame, const SpotRoi& roi, bool ellipseMode,
                      uint32_t spotCount, MultiSpotWorkspace& work, SpotResult* out);

// ---------------------------------------------------------------------------
// Averaging
// ---------------------------------------------------------------------------

// Mean of `count` values with the smallest and the largest set aside (one
// each) when there are more than two; the plain mean of one or two; 0 of none.
double trimmedMean(const double* values, size_t count);

// ---------------------------------------------------------------------------
// False colour
// ---------------------------------------------------------------------------

struct PaletteEntry {
  uint32_t red;
  uint32_t green;
  uint32_t blue;
};
using SpotPalette = std::array<PaletteEntry, 256>;

// Dark grey, violet, blue, cyan, green, yellow, orange, red, and white for
// the brightest level.
SpotPalette buildSpotPalette();

// Rewrites the frame in `buffer` in false colour, as packed B G R rows of
// width * 3 bytes from the start of the buffer (which must hold
// width * 3 * height bytes):
//  - bitCount 1..8: one byte a pixel, palette[value];
//  - bitCount 9..16: 16-bit words, palette[(value >> (rawBitDepth - 8)) & 255]
//    (rawBitDepth 0, the camera's "unknown", counts as 16; below 8 as 8);
//  - other bit counts: left as they are.
// Source rows are `rowPitch` bytes apart, or padded to four bytes for 0.
// `scratch` holds the source pixels while the buffer is overwritten.
void renderPseudoColour(void* buffer, uint32_t width, uint32_t height, uint32_t bitCount,
                        uint32_t rowPitch, uint32_t rawBitDepth, const SpotPalette& palette,
                        std::vector<uint8_t>& scratch);

}  // namespace vantix
