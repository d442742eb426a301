// Frame registration of the live stitcher: where a new frame lies relative to
// the reference frame, how sure that is, and what the session does with it.
//
// Everything here is a function over cv::Mat (one-channel 32-bit float images
// unless stated) so that tests call it without a session or a thread.  Sign
// convention throughout: a displacement d means that the new frame's pixel
// (u, v) shows what the reference shows at (u + dx, v + dy); the new frame is
// therefore placed at the reference's position + d.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>

namespace vantix {

// Working-copy scale in percent for scale levels 0..4; other levels clamp.
int stitchScalePercent(uint32_t scaleLevel);
// (minSharpness, minMatch) for strictness levels 0..4; other levels clamp.
void stitchStrictness(uint32_t strictLevel, float& minSharpness, float& minMatch);

// round(sqrt(sqrt(width * height)) * 0.5) * 10, the product in 32 bits.
int stitchSizeStep(uint32_t width, uint32_t height);
// 200 below a size step of 120, 300 up to 299, else 400.
int stitchTemplateSide(int sizeStep);

// The fixed tuning values of the registration.
struct RegistrationTuning {
  int margin = 20;
  int fastLimit = 30;
  int fastMin = 3;
  int estimateAll = 30;
  int minFiltered = 20;
  int sampleRounds = 80;
  int manyMatches = 250;
  int minGood = 20;
};

// Sharpness: the 256-entry table i*i/255 and the score of an image.
cv::Mat makeGradientLut();
double stitchSharpnessFactor(int scalePercent, uint32_t width, uint32_t height);
double sharpnessScore(const cv::Mat& image, const cv::Mat& gradientLut, double factor);

// The reference's spectrum, kept while the reference stays the same.
struct PhaseCache {
  cv::Mat reference;
  cv::Mat spectrum;
};

// Coarse move of `moved` relative to `reference` (same size, one-channel
// float) by phase correlation, in the images' own pixels (sub-pixel).
cv::Point2d coarseShift(const cv::Mat& moved, const cv::Mat& reference,
                        PhaseCache* cache = nullptr);

// FAST threshold of an 8-bit image from its iterated-intermeans grey level:
// 0.7 x the level, clamped to fastMin..fastLimit.  The iteration starts at
// `start` and runs while the level is below fastLimit.
int intermeansThreshold(const cv::Mat& gray8, int fastLimit, int fastMin, int start);

// Indices of the pairs that agree with at least 4 of the 7 pairs compared
// with them (vectors between pairs keep their direction and length).
std::vector<int> consistentPairs(const std::vector<cv::Point2f>& p,
                                 const std::vector<cv::Point2f>& q);

// Random-sampling estimate of q - p over the pairs (sampleSize picks a round,
// `rounds` rounds, the round whose picks best keep their mutual distances
// wins), then refined by the mean over all pairs that agree with it.
cv::Point2f estimateOffset(const std::vector<cv::Point2f>& p, const std::vector<cv::Point2f>& q,
                           const std::vector<cv::Point2f>& allP,
                           const std::vector<cv::Point2f>& allQ, int sampleSize, int rounds,
                           double rejectFraction);

// Displacement of the template's content from `templ` to `region` (both
// one-channel float, same size) by FAST corners, ORB descriptors and Hamming
// matching; false when there is no result.
struct FineOffset {
  bool found = false;
  cv::Point2f offset;
  double rejectFraction = 1.0;
  int goodMatches = 0;
};
FineOffset fineOffset(const cv::Mat& templ, const cv::Mat& region, cv::ORB& detector,
                      cv::DescriptorMatcher& matcher, const RegistrationTuning& tuning);

// Sub-pixel peak of a one-channel float match result around `peak`:
// centroid of the 3x3 neighbourhood weighted by the squared height above
// its lowest value.
cv::Point2d weightedCentroid(const cv::Mat& result, cv::Point peak);
// Sub-pixel peak by a separable parabola through the peak and its neighbours.
cv::Point2d parabolicPeak(const cv::Mat& result, cv::Point peak);

// Where the template and the fallback's search window are taken.
struct TemplateOrigins {
  cv::Point templ;   // top-left of the template in the new frame
  cv::Point search;  // top-left of the fallback's search window in the reference
  bool isZero() const { return templ == cv::Point() && search == cv::Point(); }
};

// Geometry of a session's registration.
struct RegistrationGeometry {
  cv::Size frame;
  int templateSide = 300;
  int sizeStep = 190;
  int searchSide = 570;
  int scalePercent = 20;
  RegistrationTuning tuning;
};
RegistrationGeometry makeRegistrationGeometry(uint32_t width, uint32_t height, int scalePercent);

struct Measurement {
  double confidence = 0.0;
  double background = 0.0;
  double dx = 0.0;
  double dy = 0.0;
  bool templatePath = false;  // features gave the offset
  bool ambiguous = false;     // the fallback found a second peak as good
};

// Measures the new frame against the reference (full and working copies).
// The full images are one-channel 8-bit or float (both alike; the new frame
// may also be the 8-bit B G R frame, converted where it is read); the
// working copies one-channel float.
// `origins` and `altOrigins` are the session's records, updated here.
Measurement measureDisplacement(const cv::Mat& newFull, const cv::Mat& newSmall,
                                const cv::Mat& refFull, const cv::Mat& refSmall,
                                const RegistrationGeometry& geometry, cv::ORB& detector,
                                cv::DescriptorMatcher& matcher, TemplateOrigins& origins,
                                TemplateOrigins& altOrigins, PhaseCache* phaseCache = nullptr);

// The session state registration reads and updates.
struct TrackingState {
  bool tracking = true;
  bool steadyGate = true;
  uint32_t steadyCount = 0;
  uint32_t missCount = 0;
  uint32_t state = 0;
  cv::Point2d position;
  cv::Point2d lastGoodPosition;
};

// Decision of the session on a measurement: 1 accept, 2 keep, 3 lost or out
// of reach, 4 rejected.  Sets `lost` when tracking was declared lost (state
// became 2; the caller sends event 7).
int decideRegistration(TrackingState& s, const Measurement& m, double frameScore,
                       float minSharpness, float minMatch, cv::Size frame, bool& lost);

}  // namespace vantix
