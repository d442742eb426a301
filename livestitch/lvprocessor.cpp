// The live stitch session.
#include "livestitch/lvprocessor.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <climits>
#include <cstdlib>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "api/image_header.h"
#include "api/host_allocator.h"
#include "api/pixel_format.h"

namespace vantix {

namespace {

// The reference frame is kept as 8-bit grey: registration only reads a
// template, a search window and a corner-detection region of it, all of
// which work on 8-bit data directly, so no whole-frame float conversion is
// needed.  A new frame is converted only where it is read (registration
// converts its regions), and in full only when it becomes the reference.
cv::Mat grayEight(const cv::Mat& image) {
  if (image.channels() == 1) return image;
  cv::Mat gray;
  cv::cvtColor(image, gray, cv::COLOR_RGB2GRAY);
  return gray;
}

cv::Mat grayFloat(const cv::Mat& image) {
  cv::Mat gray;
  if (image.channels() > 1) {
    cv::cvtColor(image, gray, cv::COLOR_RGB2GRAY);
  } else {
    gray = image;
  }
  cv::Mat out;
  gray.convertTo(out, CV_32F, 1.0, 0.0);
  return out;
}

cv::Size workingSize(cv::Size frame, int scalePercent) {
  // At least one pixel each way, so that frames only a few pixels wide still
  // get a working copy (and a score) instead of an empty one.
  return cv::Size(std::max(1, frame.width * scalePercent / 100),
                  std::max(1, frame.height * scalePercent / 100));
}

int roundHalfAway(double v) { return static_cast<int>(std::round(v)); }

}  // namespace

size_t sharpestOfSix(const std::vector<double>& scores) {
  size_t best = 0;
  const size_t n = std::min<size_t>(scores.size(), 6);
  for (size_t i = 1; i < n; ++i)
    if (scores[i] > scores[best]) best = i;
  return best;
}

CLvProcessor::CLvProcessor(uint32_t format, uint32_t width, uint32_t height, uint32_t background,
                           uint32_t scaleLevel, uint32_t strictLevel, VantixStitchFrameFn onFrame,
                           VantixStitchEventFn onEvent, void* context)
    : scalePercent_(stitchScalePercent(scaleLevel)),
      format_(format),
      sharpnessFactor_(0.0),
      onFrame_(onFrame),
      onEvent_(onEvent),
      context_(context),
      worker_(
          kQueueLimit,
          [this](QueuedFrame& q) {
            frameScore_ = q.score;
            processFrame(q.frame, q.small);
          },
          [this](WorkerFailure code) { event(code); },
          [this](auto& queue, QueuedFrame& chosen) { return takeFrame(queue, chosen); }) {
  stitchStrictness(strictLevel, minSharpness_, minMatch_);
  sharpnessFactor_ = stitchSharpnessFactor(scalePercent_, width, height);
  // The canvas is four frames wide and high in int coordinates: a frame side
  // beyond a quarter of the int range cannot have one, which is reported like
  // any other canvas that cannot be allocated.
  constexpr uint32_t kMaxSide = static_cast<uint32_t>(std::numeric_limits<int>::max() / 4);
  if (width > kMaxSide || height > kMaxSide) {
    CV_Error(cv::Error::StsNoMem, "frame too large for a canvas");
  }
  const int w = static_cast<int>(width), h = static_cast<int>(height);
  canvas_ = std::make_unique<CLvCanvas>(format, w, h, 4 * w, 4 * h, cv::Point(2 * w, 2 * h),
                                        background, scalePercent_, &CLvProcessor::notify, this);
  matcher_ = cv::DescriptorMatcher::create("BruteForce-Hamming");
  detector_ = cv::ORB::create(5000, 1.2f, 8, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20);
  gradientLut_ = makeGradientLut();
  geometry_ = makeRegistrationGeometry(width, height, scalePercent_);
}

CLvProcessor::~CLvProcessor() {
  worker_.stop();
  placed_ = false;
  // The canvas's thread calls back into this object: it ends first.
  canvas_.reset();
}

void CLvProcessor::start() {
  // A worker still running (start without stop) or one that stopped itself
  // after an error is ended first.
  state_.store(1);
  worker_.start();
}

VantixImageHeader* CLvProcessor::stop(bool wantImage, bool cropped) {
  worker_.stop();
  if (!wantImage) return nullptr;
  const cv::Rect rect = cropped ? canvas_->cropRect()
                                : cv::Rect(0, 0, canvas_->image().cols, canvas_->image().rows);
  if (rect.width < 1 || rect.height < 1) return nullptr;
  const VantixAllocator allocate = hostAllocator();
  if (allocate == nullptr) return nullptr;
  const uint32_t stride = vantix_default_stride(static_cast<uint32_t>(rect.width), 24);
  const uint64_t imageBytes = static_cast<uint64_t>(stride) * static_cast<uint64_t>(rect.height);
  auto* header = static_cast<VantixImageHeader*>(allocate(40 + imageBytes));
  if (header == nullptr) return nullptr;
  std::memset(header, 0, sizeof(VantixImageHeader));
  header->biSize = 40;
  header->biWidth = rect.width;
  header->biHeight = rect.height;
  header->biPlanes = 1;
  header->biBitCount = 24;
  header->biSizeImage = imageBytes > 0xFFFFFFFFull ? 0u : static_cast<uint32_t>(imageBytes);
  uint8_t* pixels = reinterpret_cast<uint8_t*>(header) + 40;
  // Padding bytes of each row are zero.
  std::memset(pixels, 0, static_cast<size_t>(imageBytes));
  // Frames still waiting for the drawing thread are drawn first, so the
  // panorama holds everything placed before the stop.
  canvas_->copyRegion(rect, pixels, stride);
  return header;
}

void CLvProcessor::push(const void* data, uint32_t width, uint32_t height, uint32_t rowPitch) {
  if (!worker_.running()) return;
  cv::Mat working = toWorkingImage(format_, data, width, height, rowPitch, true);
  // A frame without pixels has nothing to place: it is dropped.
  if (working.empty()) return;
  if (working.data == static_cast<const uint8_t*>(data) || !working.isContinuous() ||
      working.u == nullptr) {
    working = working.clone();
  }
  worker_.push(QueuedFrame{std::move(working), cv::Mat(), 0.0});
}

int32_t CLvProcessor::readData(void* buffer, uint32_t width, uint32_t height, uint32_t x,
                               uint32_t y, uint32_t roiWidth, uint32_t roiHeight) {
  if (canvas_->busy()) return 0;
  const uint32_t bits = format_ == 0 ? 24u : 32u;
  // A row of 2^32 bits or more keeps its 64-bit stride, where the 32-bit
  // default would wrap below the row's length.
  const size_t stride = static_cast<size_t>(vantix::wideStride(width, bits));
  cv::Mat dst(static_cast<int>(height), static_cast<int>(width), format_ == 0 ? CV_8UC3 : CV_8UC4,
              buffer, stride);
  // A region whose far edge lies past the int range is outside any canvas;
  // checked here in 64 bits because the image library's own check adds in
  // int and would wrap.
  if (roiWidth != 0 && (uint64_t{x} + roiWidth > uint64_t{INT_MAX} ||
                        uint64_t{y} + roiHeight > uint64_t{INT_MAX})) {
    CV_Error(cv::Error::StsAssert, "region outside the canvas");
  }
  const cv::Rect roi = roiWidth != 0 ? cv::Rect(static_cast<int>(x), static_cast<int>(y),
                                                static_cast<int>(roiWidth), static_cast<int>(roiHeight))
                                     : cv::Rect();
  // Shrinking uses cubic interpolation, everything else area: kept as the
  // library has always done it.
  return canvas_->readScaled(dst, roi, cv::INTER_CUBIC, cv::INTER_AREA) ? 1 : 0;
}

void CLvProcessor::cropParams(uint32_t* x, uint32_t* y, uint32_t* width, uint32_t* height) const {
  const cv::Rect r = canvas_->cropRect();
  // A host may pass null for the values it does not want.
  if (x != nullptr) *x = static_cast<uint32_t>(r.x);
  if (y != nullptr) *y = static_cast<uint32_t>(r.y);
  if (width != nullptr) *width = static_cast<uint32_t>(r.width);
  if (height != nullptr) *height = static_cast<uint32_t>(r.height);
}

void CLvProcessor::beginRelocation(bool on) {
  if (on) {
    state_.store(3);
    relocatePending_.store(false);
    event(9);
  } else if (state_.load() == 3) {
    state_.store(1);
    event(10);
  }
}

void CLvProcessor::markRelocationRequest() {
  if (state_.load() == 3) relocatePending_.store(true);
}

int CLvProcessor::locateAt(int x, int y) {
  const uint32_t s = state_.load();
  if (s == 5) {
    const cv::Point p = canvas_->toPanorama(cv::Point(x, y));
    track_.lastGoodPosition = cv::Point2d(p.x, p.y);
    event(25);
    return 1;
  }
  if (s == 3) {
    if (canvas_->findsAt(reference_, x, y)) {
      const cv::Point p = canvas_->toPanorama(cv::Point(x, y));
      track_.lastGoodPosition = cv::Point2d(p.x, p.y);
      event(22);
      return 1;
    }
    event(23);
    return 0;
  }
  return 0;
}

void CLvProcessor::notify(void* session, int code) {
  auto* self = static_cast<CLvProcessor*>(session);
  self->changed_.store(1);
  if (code == 3) self->reset_.store(1);
  if (code >= 1 && code <= 5) self->event(static_cast<uint32_t>(code));
}

size_t CLvProcessor::queuedFrames() {
  return worker_.withQueue([](const std::deque<QueuedFrame>& queue) { return queue.size(); });
}

void CLvProcessor::setScoreFunction(std::function<double(const cv::Mat&)> score) {
  worker_.withQueue([&](std::deque<QueuedFrame>&) { scoreOverride_ = std::move(score); });
}

void CLvProcessor::event(uint32_t code) {
  if (onEvent_ != nullptr) onEvent_(context_, code);
}

double CLvProcessor::scoreOf(const cv::Mat& small) {
  if (scoreOverride_) return scoreOverride_(small);
  return sharpnessScore(small, gradientLut_, sharpnessFactor_);
}

bool CLvProcessor::takeFrame(std::deque<QueuedFrame>& queue, QueuedFrame& chosen) {
  if (queue.empty()) return false;
  const size_t n = std::min<size_t>(queue.size(), 6);
  std::vector<double> scores;
  for (size_t i = 0; i < n; ++i) {
    QueuedFrame& q = queue[i];
    if (q.small.empty()) {
      // Scored into locals first: a failing score leaves the entry unscored.
      cv::Mat small;
      cv::resize(q.frame, small, workingSize(q.frame.size(), scalePercent_), 0.0, 0.0,
                 cv::INTER_LINEAR);
      q.score = scoreOf(small);
      q.small = small;
    }
    scores.push_back(q.score);
  }
  const size_t best = sharpestOfSix(scores);
  chosen = queue[best];
  queue.erase(queue.begin(), queue.begin() + static_cast<long>(best) + 1);
  return true;
}

void CLvProcessor::makeReference(const cv::Mat& frame, const cv::Mat& gray,
                                 const cv::Mat& smallGray) {
  reference_ = frame;
  referenceGray_ = gray;
  referenceSmallGray_ = smallGray;
}

int CLvProcessor::processFrame(const cv::Mat& frame, const cv::Mat& small) {
  if (frame.empty()) return 0;
  const cv::Mat smallGray = grayFloat(small);
  if (reference_.empty() || firstFrame_) {
    firstFrame_ = false;
    makeReference(frame, grayEight(frame), smallGray);
    // The reference's score is the sharpness of the centred template region
    // of the full frame as it stands (frames smaller than the template give
    // their whole extent).
    const int tw = std::min(geometry_.templateSide, frame.cols);
    const int th = std::min(geometry_.templateSide, frame.rows);
    referenceScore_ = sharpnessScore(
        frame(cv::Rect((frame.cols - tw) / 2, (frame.rows - th) / 2, tw, th)), gradientLut_,
        sharpnessFactor_);
    const cv::Point2d p = track_.lastGoodPosition;
    compose(frame, cv::Point2d(roundHalfAway(p.x + 0.05), roundHalfAway(p.y + 0.05)), 1,
            referenceScore_);
    return 2;
  }
  const uint32_t entryState = state_.load();
  if (entryState == 5) {
    compose(frame, track_.position, 1, frameScore_);
    return 1;
  }
  if (entryState == 3 && !relocatePending_.load()) {
    compose(frame, track_.position, 3, frameScore_);
    return 1;
  }
  if (frame.size() != reference_.size()) {
    CV_Error(cv::Error::StsUnmatchedSizes, "frame size differs from the session's");
  }
  const Measurement m =
      measureDisplacement(frame, smallGray, referenceGray_, referenceSmallGray_, geometry_,
                          *detector_, *matcher_, templateOrigin_, altTemplateOrigin_,
                          &phaseCache_);
  track_.state = state_.load();
  bool lost = false;
  const int r = decideRegistration(track_, m, frameScore_, minSharpness_, minMatch_,
                                   frame.size(), lost);
  state_.store(track_.state);
  if (lost) event(7);
  measuredPosition_ = track_.lastGoodPosition + cv::Point2d(m.dx, m.dy);
  const cv::Point2d shown = r == 1 || r == 2 ? track_.position : measuredPosition_;
  compose(frame, shown, forceMode3_.load() ? 3 : r, frameScore_);

  bool renewed = false;
  const cv::Point2d move = track_.position - track_.lastGoodPosition;
  if (r == 1 && (std::fabs(move.x) > 0.3 * frame.cols || std::fabs(move.y) > 0.3 * frame.rows)) {
    double newScore = 0.0, refScore = 0.0;
    overlapScores(frame, move, newScore, refScore);
    if (newScore > 0.75 * refScore && frameScore_ > 0.1) {
      makeReference(frame, grayEight(frame), smallGray);
      referenceScore_ = frameScore_;
      track_.lastGoodPosition = track_.position;
      renewed = true;
    }
  }
  if (entryState == 2 && state_.load() == 2 && (r == 1 || r == 2)) {
    state_.store(1);
    event(8);
  }
  if (state_.load() == 3 && relocatePending_.load()) {
    relocatePending_.store(false);
    if (renewed) {
      state_.store(1);
      event(10);
    } else {
      event(24);
    }
  }
  return 1;
}

void CLvProcessor::overlapScores(const cv::Mat& frame, cv::Point2d d, double& newScore,
                                 double& refScore) {
  const int dx = static_cast<int>(std::lround(d.x)), dy = static_cast<int>(std::lround(d.y));
  const int x0 = std::max(0, -dx), x1 = std::min(frame.cols, frame.cols - dx);
  const int y0 = std::max(0, -dy), y1 = std::min(frame.rows, frame.rows - dy);
  newScore = refScore = 0.0;
  if (x1 - x0 < 2 || y1 - y0 < 2) return;
  // The common region, limited to the template size around its middle.
  const int w = std::min(x1 - x0, geometry_.templateSide);
  const int h = std::min(y1 - y0, geometry_.templateSide);
  const cv::Rect inNew(x0 + (x1 - x0 - w) / 2, y0 + (y1 - y0 - h) / 2, w, h);
  const cv::Rect inRef = inNew + cv::Point(dx, dy);
  const cv::Size size(std::max(1, w * scalePercent_ / 100), std::max(1, h * scalePercent_ / 100));
  cv::Mat a, b;
  cv::resize(frame(inNew), a, size, 0.0, 0.0, cv::INTER_LINEAR);
  cv::resize(reference_(inRef), b, size, 0.0, 0.0, cv::INTER_LINEAR);
  newScore = sharpnessScore(a, gradientLut_, sharpnessFactor_);
  refScore = sharpnessScore(b, gradientLut_, sharpnessFactor_);
}

bool CLvProcessor::placementStands(const cv::Mat& frame, cv::Point2d position) {
  const cv::Point2d d = position - track_.lastGoodPosition;
  double newScore = 0.0, refScore = 0.0;
  overlapScores(frame, d, newScore, refScore);
  if (newScore > 0.95 * refScore) return true;
  const bool farMove = std::fabs(d.x) > 0.8 * frame.cols || std::fabs(d.y) > 0.8 * frame.rows;
  return farMove && newScore > 0.9 * refScore;
}

void CLvProcessor::compose(const cv::Mat& frame, cv::Point2d position, int mode, double score) {
  if (frame.empty()) return;
  int x = roundHalfAway(position.x), y = roundHalfAway(position.y);
  // A frame blurrier than the reference where they overlap would spoil
  // what the reference already painted: it is not placed and is reported as
  // mode 4 (not placed this time), so that the host and the crop rectangle
  // only see frames that reach the canvas.
  if (mode == 1 && placed_ && !placementStands(frame, position)) mode = 4;
  const bool checked = mode == 1;  // placeCheck turns (x, y) into canvas pixels
  if (checked) {
    const CLvCanvas::PlaceAnswer answer = canvas_->placeCheck(x, y);
    if (answer.grow) {
      event(3);
      reset_.store(1);
      try {
        canvas_->grow(x, y);
        event(5);
      } catch (const cv::Exception& e) {
        event(e.code == cv::Error::StsNoMem ? 2 : 4);
      } catch (const std::exception&) {
        event(4);
      }
      // A frame the canvas could not grow for (memory short, or a jump of
      // more than one growth step) cannot be drawn: its placement is taken
      // back, so that the crop rectangle, a cropped stop and readdata of it
      // stay on the canvas, and the host hears that it was not placed.
      if (canvas_->fits(x, y)) {
        canvas_->publishCrop();
      } else {
        canvas_->undoPlacement();
        mode = 4;
      }
    }
  }
  if (mode == 1) {
    if (!placed_) {
      placed_ = true;
      reference_ = frame;
      track_.steadyCount = 0;
      referenceScore_ = frameScore_;
      track_.lastGoodPosition = track_.position;
    }
    canvas_->enqueue(frame, x, y);
  } else if (!checked) {
    const cv::Point p = canvas_->canvasPosition(x, y);
    x = p.x;
    y = p.y;
  }
  const cv::Mat& image = canvas_->image();
  if (onFrame_ != nullptr) {
    onFrame_(context_, image.data, static_cast<uint32_t>(image.step[0]),
             static_cast<uint32_t>(image.cols), static_cast<uint32_t>(image.rows),
             static_cast<uint32_t>(frame.cols), static_cast<uint32_t>(frame.rows),
             static_cast<uint32_t>(frame.type() & 0xfff), x, y, static_cast<uint32_t>(mode),
             changed_.load(), reset_.load(), static_cast<float>(score));
  }
  changed_.store(0);
  reset_.store(0);
}

}  // namespace vantix
