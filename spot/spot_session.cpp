#include "spot/spot_session.h"

#include <algorithm>
#include <cmath>

namespace vantix {

CSpotSession::CSpotSession(uint32_t spotCount, uint32_t averageCount)
    : spotCount_(spotCount),
      averageCount_(averageCount),
      results_(spotCount),
      history_(averageCount, std::vector<SpotResult>(spotCount)),
      frameRecords_(spotCount),
      palette_(buildSpotPalette()) {
  for (std::vector<double>& values : scratch_) values.resize(averageCount);
  reset();
}

void CSpotSession::reset() {
  std::lock_guard<std::mutex> lock(stateLock_);
  frameIndex_.exchange(0);
  useAutoAperture_.exchange(true);
  angle_.exchange(90.0);
  autoAperture_.a = -1.0;
  userAperture_.a = -1.0;
  std::fill(results_.begin(), results_.end(), SpotResult{});
  ++generation_;
}

void CSpotSession::setAperture(const SpotAperture& aperture) {
  // Semi-axes must be above 0 (which refuses NaN) and the centre finite (a
  // NaN centre would reach the integer pixel positions of the measurement).
  if (!(aperture.a > 0.0 && aperture.b > 0.0)) return;
  if (!std::isfinite(aperture.centerX) || !std::isfinite(aperture.centerY)) return;
  std::lock_guard<std::mutex> lock(stateLock_);
  userAperture_ = aperture;
  useAutoAperture_.exchange(false);
}

void CSpotSession::setRoi(uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
  std::lock_guard<std::mutex> lock(roiLock_);
  roi_ = {static_cast<int32_t>(x), static_cast<int32_t>(y), static_cast<int32_t>(width),
          static_cast<int32_t>(height)};
}

int32_t CSpotSession::setEllipseMode(int32_t on) { return ellipseMode_.exchange(on != 0) ? 1 : 0; }

int32_t CSpotSession::setPseudoColour(int32_t on) {
  return pseudoColour_.exchange(on != 0) ? 1 : 0;
}

SpotAperture CSpotSession::autoAperture() const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return autoAperture_;
}

SpotAperture CSpotSession::userAperture() const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return userAperture_;
}

SpotRoi CSpotSession::roi() const {
  std::lock_guard<std::mutex> lock(roiLock_);
  return roi_;
}

std::vector<SpotResult> CSpotSession::results() const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return results_;
}

std::vector<SpotResult> CSpotSession::history(uint32_t slot) const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return slot < history_.size() ? history_[slot] : std::vector<SpotResult>{};
}

void CSpotSession::frameEntry(void* session, void*, void* buffer, uint32_t width, uint32_t height,
                              uint32_t bitCount, uint32_t rowPitch, uint32_t measure, void* out) {
  static_cast<CSpotSession*>(session)->onFrame(buffer, width, height, bitCount, rowPitch, measure,
                                               static_cast<SpotResult*>(out));
}

void CSpotSession::onFrame(void* buffer, uint32_t width, uint32_t height, uint32_t bitCount,
                           uint32_t rowPitch, uint32_t measure, SpotResult* out) {
  if (measure != 0) {
    const cv::Mat grey = spotGreyFrame(buffer, width, height, bitCount, rowPitch, grey_);
    this->measure(grey, out);
  }
  if (pseudoColour_.load()) {
    renderPseudoColour(buffer, width, height, bitCount, rowPitch, rawBitDepth_, palette_,
                       colourBuffer_);
  }
}

void CSpotSession::measure(const cv::Mat& grey, SpotResult* out) {
  SpotRoi roi;
  {
    std::lock_guard<std::mutex> lock(roiLock_);
    roi = roi_;
  }
  const bool ellipseMode = ellipseMode_.load();
  const bool averaging = averageCount_ >= 2;

  if (spotCount_ != 1) {
    measureMultiSpot(grey, roi, ellipseMode, spotCount_, multi_,
                     averaging ? frameRecords_.data() : out);
    if (averaging) commitAveraged(frameRecords_.data(), true, out);
    return;
  }

  SingleSpotState state;
  uint64_t generation = 0;
  {
    std::lock_guard<std::mutex> lock(stateLock_);
    state.autoAperture = autoAperture_;
    state.userAperture = userAperture_;
    state.useAutoAperture = useAutoAperture_.load();
    state.angle = angle_.load();
    generation = generation_;
  }
  SpotResult record{};
  const SpotOutcome outcome = measureSingleSpot(grey, roi, ellipseMode, state, record);
  {
    std::lock_guard<std::mutex> lock(stateLock_);
    // A reset during the measurement wins: the next frame starts afresh.
    if (generation == generation_) {
      autoAperture_ = state.autoAperture;
      angle_.exchange(state.angle);
    }
    if (outcome == SpotOutcome::kNoSignal) {
      std::fill(results_.begin(), results_.end(), SpotResult{});
    }
  }
  if (averaging) {
    commitAveraged(&record, outcome != SpotOutcome::kNoSignal, out);
  } else if (outcome != SpotOutcome::kNoSignal) {
    // Without signal the host's record keeps the last measurement.
    *out = record;
  }
}

void CSpotSession::commitAveraged(const SpotResult* records, bool signal, SpotResult* out) {
  std::lock_guard<std::mutex> lock(stateLock_);
  if (!signal) {
    // A frame without signal (the beam blocked, the camera dark) ends the
    // block: averaging frames from before and after the interruption would
    // mix two different beams.  The average is void until a whole new block
    // has been measured, so every field reads 0, as after a reset.
    frameIndex_.exchange(0);
    std::fill(results_.begin(), results_.end(), SpotResult{});
    std::copy(results_.begin(), results_.end(), out);
    return;
  }
  // One puller at a time fills a block; the clamp keeps a second concurrent
  // puller (not supported) inside the history.
  const uint32_t slot = std::min(frameIndex_.fetch_add(1), averageCount_ - 1);
  std::copy(records, records + spotCount_, history_[slot].begin());
  for (uint32_t k = 0; k < spotCount_; ++k) {
    const SpotResult& latest = history_[slot][k];
    SpotResult& result = results_[k];
    result.angle = latest.angle;
    result.apertureX = latest.apertureX;
    result.apertureY = latest.apertureY;
    result.apertureA = latest.apertureA;
    result.apertureB = latest.apertureB;
  }
  if (slot + 1 >= averageCount_) {
    for (uint32_t k = 0; k < spotCount_; ++k) {
      double* fields[5];
      for (uint32_t f = 0; f < 5; ++f) {
        for (uint32_t i = 0; i < averageCount_; ++i) {
          const SpotResult& r = history_[i][k];
          const double values[5] = {r.total, r.centerX, r.centerY, r.majorDiameter,
                                    r.minorDiameter};
          scratch_[f][i] = values[f];
        }
        fields[f] = &scratch_[f][0];
      }
      SpotResult& result = results_[k];
      result.total = trimmedMean(fields[0], averageCount_);
      result.centerX = trimmedMean(fields[1], averageCount_);
      result.centerY = trimmedMean(fields[2], averageCount_);
      result.majorDiameter = trimmedMean(fields[3], averageCount_);
      result.minorDiameter = trimmedMean(fields[4], averageCount_);
      const double larger = std::max(result.majorDiameter, result.minorDiameter);
      const double smaller = std::min(result.majorDiameter, result.minorDiameter);
      result.ellipticity = larger > 0 ? smaller / larger : 0.0;
    }
    frameIndex_.exchange(0);
  }
  std::copy(results_.begin(), results_.end(), out);
}

}  // namespace vantix
