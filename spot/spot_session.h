// The spot session: measures one or several bright spots in every frame
// pulled from the camera, on the caller's thread.  It owns what carries over
// from frame to frame: the automatic (self-adjusting) or fixed aperture, the
// ROI, the block averaging and the false-colour palette.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>

#include <vantix.h>

#include "spot/spot_measure.h"

namespace vantix {

class CSpotSession {
 public:
  // `spotCount` 1 measures one spot in the aperture, any other value that
  // many spots by segmentation; `averageCount` >= 2 averages over blocks of
  // that many frames.
  CSpotSession(uint32_t spotCount, uint32_t averageCount);

  CSpotSession(const CSpotSession&) = delete;
  CSpotSession& operator=(const CSpotSession&) = delete;

  // See vantix_spot_reset, vantix_spot_setAperture, vantix_spot_setRoi.
  void reset();
  void setAperture(const SpotAperture& aperture);
  void setRoi(uint32_t x, uint32_t y, uint32_t width, uint32_t height);

  // The frame entry of a pull: measures the frame in `buffer` into `out`
  // (spotCount records) when `measure` is nonzero, then renders it in false
  // colour when that is switched on.  Throws std::runtime_error("Unsupported
  // image depth") for a bitCount other than 8, 16, 24 or 48 with `measure`
  // set, before anything is written.
  void onFrame(void* buffer, uint32_t width, uint32_t height, uint32_t bitCount,
               uint32_t rowPitch, uint32_t measure, SpotResult* out);

  // The pull routine's entry: `session` is a CSpotSession.
  static void frameEntry(void* session, void* camera, void* buffer, uint32_t width,
                         uint32_t height, uint32_t bitCount, uint32_t rowPitch, uint32_t measure,
                         void* out);

  // Internal switches (no export reaches them): a nonzero value turns the
  // mode on; each returns the previous setting as 0 or 1.
  int32_t setEllipseMode(int32_t on);
  int32_t setPseudoColour(int32_t on);

  // The camera's raw bit depth as the SDK reported it (0 until asked); the
  // pull routine queries into it while it is 0.
  uint32_t* rawBitDepthSlot() { return &rawBitDepth_; }

  // Read access for tests and diagnostics (each read takes the state lock).
  uint32_t spotCount() const { return spotCount_; }
  uint32_t averageCount() const { return averageCount_; }
  uint32_t frameIndex() const { return frameIndex_.load(); }
  double angle() const { return angle_.load(); }
  bool usesAutoAperture() const { return useAutoAperture_.load(); }
  SpotAperture autoAperture() const;
  SpotAperture userAperture() const;
  SpotRoi roi() const;
  std::vector<SpotResult> results() const;
  std::vector<SpotResult> history(uint32_t slot) const;
  const SpotPalette& palette() const { return palette_; }

 private:
  void measure(const cv::Mat& grey, SpotResult* out);
  void commitAveraged(const SpotResult* records, bool signal, SpotResult* out);

  const uint32_t spotCount_;
  const uint32_t averageCount_;
  uint32_t rawBitDepth_ = 0;

  // Guards the apertures, results and history.  Reset and setAperture may
  // come from another thread while a frame is measured: the measurement works
  // on a snapshot taken at its start and publishes under the lock at its end.
  // A reset or setAperture made meanwhile wins over that frame's aperture
  // update (`generation_` tells).
  mutable std::mutex stateLock_;
  uint64_t generation_ = 0;
  std::vector<SpotResult> results_;
  std::vector<std::vector<SpotResult>> history_;
  std::array<std::vector<double>, 5> scratch_;  // one field of every frame of a block
  SpotAperture autoAperture_{0, 0, -1, -1};
  SpotAperture userAperture_{0, 0, -1, -1};
  std::atomic<bool> useAutoAperture_{true};
  std::atomic<bool> ellipseMode_{false};
  std::atomic<double> angle_{90.0};
  std::atomic<uint32_t> frameIndex_{0};

  mutable std::mutex roiLock_;
  SpotRoi roi_{0, 0, 0, 0};

  // Working storage of the pulling thread, reused from frame to frame.
  cv::Mat grey_;
  MultiSpotWorkspace multi_;
  std::vector<SpotResult> frameRecords_;

  std::atomic<bool> pseudoColour_{false};
  SpotPalette palette_;
  std::vector<uint8_t> colourBuffer_;
};

}  // namespace vantix
