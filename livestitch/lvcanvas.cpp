// The panorama canvas of the live stitcher.
#include "livestitch/lvcanvas.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace vantix {

namespace {

int bytesPerPixel(uint32_t format) { return format == 0 ? 3 : 4; }

// Clears a flag when it goes out of scope (also when growth throws).
struct FlagGuard {
  std::atomic<bool>& flag;
  ~FlagGuard() { flag.store(false); }
};

}  // namespace

void fillBackground(cv::Mat& image, uint32_t background) {
  fillBackground(image, background, cv::Rect(0, 0, image.cols, image.rows));
}

void fillBackground(cv::Mat& image, uint32_t background, cv::Rect area) {
  area &= cv::Rect(0, 0, image.cols, image.rows);
  if (area.empty()) return;
  image(area).setTo(cv::Scalar::all(background == 2 ? 0 : 255));
  if (background != 0) return;
  const int rows = image.rows, cols = image.cols;
  for (int r = 0; r * 128 < rows; ++r) {
    const int bottom = rows - r * 128;
    const int top = std::max(0, bottom - 128);
    for (int x = 128 * (r % 2); x < cols; x += 256) {
      const cv::Rect square = cv::Rect(x, top, std::min(128, cols - x), bottom - top) & area;
      if (!square.empty()) image(square).setTo(cv::Scalar::all(204));
    }
  }
}

void blendFrameInto(cv::Mat& canvas, cv::Mat& coverage, const cv::Mat& frame, cv::Point at) {
  CV_Assert(frame.type() == canvas.type() && coverage.type() == CV_8UC1);
  const int w = frame.cols, h = frame.rows, cn = frame.channels();
  const cv::Rect region(at, frame.size());
  CV_Assert((region & cv::Rect(0, 0, canvas.cols, canvas.rows)) == region);
  const int c = kCoverageCell;
  // Cells touched by the frame, and their painted flags.
  const cv::Rect cells(at.x / c, at.y / c, (at.x + w - 1) / c - at.x / c + 1,
                       (at.y + h - 1) / c - at.y / c + 1);
  const cv::Rect cellsIn = cells & cv::Rect(0, 0, coverage.cols, coverage.rows);
  cv::Mat covered = coverage(cellsIn);
  cv::Mat dst = canvas(region);
  if (cv::countNonZero(covered) == 0) {
    frame.copyTo(dst);
  } else {
    // The new frame replaces what it covers, except in a band along its
    // border where it fades into the painted content: the weight of the new
    // frame is dNew / F + 1 - min(dOld, F) / F (at most 1), dNew being the
    // distance to the frame's border and dOld the distance to the edge of
    // the painted area.  It is 0 at the frame's border over old content, 1
    // where the old content ends and everywhere deeper than F inside the
    // frame, and changes by at most 2 / F a pixel: no seam on either edge.
    // Replacing rather than averaging keeps the newest view (what the host
    // sees now) and the interior stays a plain copy, so only the band costs
    // arithmetic.
    //
    // dOld comes from the distance of each painted cell to the nearest
    // unpainted cell within the frame's area, interpolated between cell
    // centres (1.5 pixels into a cell) and measured to the cell edge.
    cv::Mat distCells;
    cv::distanceTransform(covered, distCells, cv::DIST_L2, 3);
    const float feather = static_cast<float>(std::max(4, std::min(w, h) / 20));
    const float invFeather = 1.0f / feather;
    auto distOld = [&](int canvasX, int canvasY) {
      const float fx = (canvasX - 1.5f) / c - cellsIn.x, fy = (canvasY - 1.5f) / c - cellsIn.y;
      const int x0 = std::max(0, std::min(distCells.cols - 1, static_cast<int>(std::floor(fx))));
      const int y0 = std::max(0, std::min(distCells.rows - 1, static_cast<int>(std::floor(fy))));
      const int x1 = std::min(distCells.cols - 1, x0 + 1), y1 = std::min(distCells.rows - 1, y0 + 1);
      const float tx = std::max(0.0f, std::min(1.0f, fx - x0)), ty = std::max(0.0f, std::min(1.0f, fy - y0));
      const float top = distCells.at<float>(y0, x0) * (1 - tx) + distCells.at<float>(y0, x1) * tx;
      const float bottom = distCells.at<float>(y1, x0) * (1 - tx) + distCells.at<float>(y1, x1) * tx;
      return std::max(0.0f, (top * (1 - ty) + bottom * ty - 0.5f) * c);
    };
    const int band = static_cast<int>(feather);
    const float farCells = feather / c + 2.0f;
    for (int v = 0; v < h; ++v) {
      const int cy = (at.y + v) / c - cellsIn.y;
      const uint8_t* covRow = covered.ptr<uint8_t>(cy);
      const float* distRow = distCells.ptr<float>(cy);
      const uint8_t* src = frame.ptr<uint8_t>(v);
      uint8_t* out = dst.ptr<uint8_t>(v);
      const int dv = std::min(v + 1, h - v);
      auto blendSpan = [&](int u0, int u1) {
        for (int u = u0; u < u1; ++u) {
          const int cx = (at.x + u) / c - cellsIn.x;
          const int o = u * cn;
          float wNew = 1.0f;
          if (covRow[cx] != 0) {
            const float dNew = static_cast<float>(std::min(dv, std::min(u + 1, w - u)));
            // Cells far inside the painted area are beyond the feather
            // whatever the interpolation gives.
            const float cellDist = distRow[cx];
            const float dOld = cellDist >= farCells ? feather : std::min(feather, distOld(at.x + u, at.y + v));
            wNew = dNew * invFeather + 1.0f - dOld * invFeather;
          }
          if (wNew >= 1.0f) {
            for (int k = 0; k < cn; ++k) out[o + k] = src[o + k];
          } else {
            wNew = std::max(0.0f, wNew);
            for (int k = 0; k < cn; ++k) {
              const float mixed = out[o + k] + wNew * (static_cast<float>(src[o + k]) - out[o + k]);
              out[o + k] = static_cast<uint8_t>(mixed + 0.5f);
            }
          }
        }
      };
      if (dv <= band || w <= 2 * band) {
        blendSpan(0, w);
      } else {
        blendSpan(0, band);
        std::memcpy(out + band * cn, src + band * cn, static_cast<size_t>(w - 2 * band) * cn);
        blendSpan(w - band, w);
      }
    }
  }
  // Mark the cells the frame covers completely.
  const int x0 = (at.x + c - 1) / c, x1 = (at.x + w) / c;
  const int y0 = (at.y + c - 1) / c, y1 = (at.y + h) / c;
  const cv::Rect full = cv::Rect(x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0)) &
                        cv::Rect(0, 0, coverage.cols, coverage.rows);
  if (full.area() > 0) coverage(full).setTo(255);
}

CLvCanvas::CLvCanvas(uint32_t format, int frameWidth, int frameHeight, int canvasWidth,
                     int canvasHeight, cv::Point origin, uint32_t background, int scalePercent,
                     Notify notify, void* session)
    : scalePercent_(scalePercent),
      format_(format),
      frameWidth_(frameWidth),
      frameHeight_(frameHeight),
      origin_(origin),
      background_(background),
      lastPosition_(origin),
      right_(3 * frameWidth),
      left_(2 * frameWidth),
      bottom_(2 * frameHeight),
      top_(3 * frameHeight),
      canvasWidth_(canvasWidth),
      canvasHeight_(canvasHeight),
      notify_(notify),
      session_(session) {
  crop_ = cv::Rect(left_, top_, right_ - left_, bottom_ - top_);
  image_.create(canvasHeight_, canvasWidth_, bytesPerPixel(format_) == 3 ? CV_8UC3 : CV_8UC4);
  fillBackground(image_, background_);
  coverage_ = cv::Mat::zeros((canvasHeight_ + kCoverageCell - 1) / kCoverageCell,
                             (canvasWidth_ + kCoverageCell - 1) / kCoverageCell, CV_8UC1);
  thread_ = std::make_unique<std::thread>(&CLvCanvas::drawLoop, this);
}

CLvCanvas::~CLvCanvas() {
  running_.store(false);
  while (thread_ && thread_->joinable()) thread_->join();
}

CLvCanvas::PlaceAnswer CLvCanvas::placeCheck(int& x, int& y) {
  PlaceAnswer answer;
  x += origin_.x;
  y += origin_.y;
  std::lock_guard<std::mutex> lock(queueMutex_);
  boundsBeforePlace_ = cv::Vec4i(right_, left_, bottom_, top_);
  left_ = std::min(left_, x);
  right_ = std::max(right_, x + frameWidth_);
  top_ = std::min(top_, y);
  bottom_ = std::max(bottom_, y + frameHeight_);
  const cv::Point move(x - lastPosition_.x, y - lastPosition_.y);
  travel_ += cv::Point2i(std::abs(move.x), std::abs(move.y));
  lastPosition_ = cv::Point(x, y);
  lastMove_ = move;
  if (travel_.x >= travelLimit_.x && travel_.y >= travelLimit_.y) {
    travel_ = cv::Point2i(0, 0);
    answer.consistent = true;
  } else {
    answer.consistent = firstDraw_ || !drawFailed_.load();
  }
  if (lastDrawn_ == cv::Point(-1, -1)) {
    lastDrawn_ = cv::Point(x + frameWidth_ / 10 + 1, y + frameHeight_ / 10 + 1);
  }
  x += shift_.x;
  y += shift_.y;
  const float fx = static_cast<float>(std::abs(x - lastDrawn_.x)) / static_cast<float>(frameWidth_);
  const float fy = static_cast<float>(std::abs(y - lastDrawn_.y)) / static_cast<float>(frameHeight_);
  answer.far = fx > 1.0f || fy > 1.0f;
  answer.grow = x < 0 || y < 0 || x + frameWidth_ > canvasWidth_ || y + frameHeight_ > canvasHeight_;
  if (!answer.grow) crop_ = cv::Rect(left_ + shift_.x, top_ + shift_.y, right_ - left_, bottom_ - top_);
  return answer;
}

cv::Point CLvCanvas::canvasPosition(int x, int y) const {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return cv::Point(x + origin_.x + shift_.x, y + origin_.y + shift_.y);
}

bool CLvCanvas::enqueue(const cv::Mat& frame, int x, int y) {
  // The queue keeps a copy of its own: the drawing thread is then the only
  // one that reads and frees those pixels.  Sharing the worker's frame would
  // leave its release to whichever thread drops the last reference, ordered
  // only by the image library's reference count, which ThreadSanitizer does
  // not see (the library is not instrumented).
  cv::Mat own = frame.clone();
  std::lock_guard<std::mutex> lock(queueMutex_);
  if (drawQueue_.size() >= 11) {
    drawQueue_.pop_front();
    --pendingDraws_;
  }
  if (!drawFailed_.load() && std::abs(x - lastDrawn_.x) <= frameWidth_ / 10 &&
      std::abs(y - lastDrawn_.y) <= frameHeight_ / 10) {
    return false;
  }
  drawFailed_.store(false);
  drawQueue_.push_back(DrawEntry{std::move(own), x, y});
  ++pendingDraws_;
  lastDrawn_ = cv::Point(x, y);
  return true;
}

void CLvCanvas::undoPlacement() {
  std::lock_guard<std::mutex> lock(queueMutex_);
  right_ = boundsBeforePlace_[0];
  left_ = boundsBeforePlace_[1];
  bottom_ = boundsBeforePlace_[2];
  top_ = boundsBeforePlace_[3];
  crop_ = cv::Rect(left_ + shift_.x, top_ + shift_.y, right_ - left_, bottom_ - top_);
}

bool CLvCanvas::fits(int x, int y) const {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return x >= 0 && y >= 0 && x + frameWidth_ <= canvasWidth_ && y + frameHeight_ <= canvasHeight_;
}

void CLvCanvas::grow(int& x, int& y) {
  if (failGrowth_.load()) CV_Error(cv::Error::StsNoMem, "canvas growth refused (test)");
  busy_.store(true);
  FlagGuard guard{busy_};
  int newWidth = canvasWidth_, newHeight = canvasHeight_;
  cv::Point offset(0, 0);
  if (x < 0) {
    newWidth += 4 * frameWidth_;
    offset.x = 4 * frameWidth_;
  } else if (x + frameWidth_ > canvasWidth_) {
    newWidth += 4 * frameWidth_;
  }
  if (y < 0) {
    newHeight += 4 * frameHeight_;
    offset.y = 4 * frameHeight_;
  } else if (y + frameHeight_ > canvasHeight_) {
    newHeight += 4 * frameHeight_;
  }
  cv::Mat image(newHeight, newWidth, image_.type());
  // Only the new parts get the background: the old content is copied over
  // the rest, and on a long scan the canvas is large, so filling it all
  // first would double the work of every growth.
  const cv::Rect old(offset, image_.size());
  fillBackground(image, background_, cv::Rect(0, 0, newWidth, old.y));
  fillBackground(image, background_, cv::Rect(0, old.br().y, newWidth, newHeight - old.br().y));
  fillBackground(image, background_, cv::Rect(0, old.y, old.x, old.height));
  fillBackground(image, background_, cv::Rect(old.br().x, old.y, newWidth - old.br().x, old.height));
  cv::Mat coverage = cv::Mat::zeros((newHeight + kCoverageCell - 1) / kCoverageCell,
                                    (newWidth + kCoverageCell - 1) / kCoverageCell, CV_8UC1);
  {
    std::lock_guard<std::mutex> imageLock(imageMutex_);
    image_.copyTo(image(cv::Rect(offset, image_.size())));
    // Growth steps are multiples of four frames, and 4 * frame size is a
    // multiple of the cell size, so the coverage map moves by whole cells.
    coverage_.copyTo(coverage(cv::Rect(offset.x / kCoverageCell, offset.y / kCoverageCell,
                                       coverage_.cols, coverage_.rows)));
    image_ = image;
    coverage_ = coverage;
    std::lock_guard<std::mutex> queueLock(queueMutex_);
    canvasWidth_ = newWidth;
    canvasHeight_ = newHeight;
    shift_ += offset;
    lastDrawn_ += offset;
    // Frames waiting to be drawn move with the content.
    for (DrawEntry& e : drawQueue_) {
      e.x += offset.x;
      e.y += offset.y;
    }
    crop_ = cv::Rect(left_ + shift_.x, top_ + shift_.y, right_ - left_, bottom_ - top_);
  }
  x += offset.x;
  y += offset.y;
}

cv::Rect CLvCanvas::cropRect() const {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return crop_;
}

void CLvCanvas::publishCrop() {
  std::lock_guard<std::mutex> lock(queueMutex_);
  crop_ = cv::Rect(left_ + shift_.x, top_ + shift_.y, right_ - left_, bottom_ - top_);
}

cv::Point CLvCanvas::toPanorama(cv::Point p) const {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return p - (shift_ + origin_);
}

cv::Point CLvCanvas::shift() const {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return shift_;
}

size_t CLvCanvas::queuedDraws() {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return drawQueue_.size();
}

bool CLvCanvas::readScaled(cv::Mat& dst, cv::Rect roi, int shrinking, int otherwise) {
  if (busy_.load()) return false;
  std::lock_guard<std::mutex> lock(imageMutex_);
  const cv::Mat source = roi.width != 0 ? image_(roi) : image_;
  const bool smaller = static_cast<int64_t>(dst.cols) * dst.rows <
                       static_cast<int64_t>(image_.cols) * image_.rows;
  cv::resize(source, dst, dst.size(), 0.0, 0.0, smaller ? shrinking : otherwise);
  return true;
}

void CLvCanvas::copyRegion(cv::Rect region, uint8_t* out, size_t stride) {
  waitIdle();
  std::lock_guard<std::mutex> lock(imageMutex_);
  const cv::Rect inside = region & cv::Rect(0, 0, image_.cols, image_.rows);
  if (inside != region) CV_Error(cv::Error::StsOutOfRange, "region outside the canvas");
  // Rows are copied as 3 bytes a pixel whatever the canvas's pixel size.
  for (int r = 0; r < region.height; ++r) {
    std::memcpy(out + r * stride, image_.ptr<uint8_t>(region.y + r) + region.x * 3,
                static_cast<size_t>(region.width) * 3);
  }
}

void CLvCanvas::waitIdle() {
  while (pendingDraws_.load() > 0 && running_.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

bool CLvCanvas::findsAt(const cv::Mat& reference, int x, int y) {
  if (reference.empty()) return false;
  std::lock_guard<std::mutex> lock(imageMutex_);
  // The middle quarter of the reference is searched for in a frame-sized
  // neighbourhood of the point.
  const cv::Rect t((reference.cols - reference.cols / 2) / 2, (reference.rows - reference.rows / 2) / 2,
                   reference.cols / 2, reference.rows / 2);
  const cv::Rect area = cv::Rect(x - frameWidth_, y - frameHeight_, 2 * frameWidth_,
                                 2 * frameHeight_) &
                        cv::Rect(0, 0, image_.cols, image_.rows);
  if (t.width < 4 || t.height < 4 || area.width < t.width || area.height < t.height) return false;
  cv::Mat canvasGray, refGray;
  cv::cvtColor(image_(area), canvasGray, image_.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
  cv::cvtColor(reference(t), refGray, reference.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
  cv::Mat result;
  cv::matchTemplate(canvasGray, refGray, result, cv::TM_CCOEFF_NORMED);
  double best = 0.0;
  cv::minMaxLoc(result, nullptr, &best);
  return best > 0.8;
}

bool CLvCanvas::drawFrame(const cv::Mat& frame, int x, int y) {
  if (frame.empty() || x < 0 || y < 0 || x + frame.cols > image_.cols ||
      y + frame.rows > image_.rows) {
    return false;
  }
  // Positions come from registration against the reference chain with
  // sub-pixel template refinement; refining them again against the blended
  // canvas would let earlier blending errors pull later frames, so the
  // position is drawn as registered.
  if (frame.type() == image_.type()) {
    blendFrameInto(image_, coverage_, frame, cv::Point(x, y));
  } else {
    cv::Mat converted;
    cv::cvtColor(frame, converted, cv::COLOR_BGR2BGRA);
    blendFrameInto(image_, coverage_, converted, cv::Point(x, y));
  }
  firstDraw_ = false;
  return true;
}

void CLvCanvas::drawLoop() {
  while (running_.load()) {
    bool have = false;
    if (holdDrawing_.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    {
      std::lock_guard<std::mutex> imageLock(imageMutex_);
      DrawEntry entry;
      {
        std::lock_guard<std::mutex> queueLock(queueMutex_);
        if (!drawQueue_.empty()) {
          entry = std::move(drawQueue_.front());
          drawQueue_.pop_front();
          have = true;
        }
      }
      if (have) {
        bool drawn = false;
        try {
          drawn = drawFrame(entry.frame, entry.x, entry.y);
        } catch (const std::exception&) {
          // A frame that cannot be drawn (out of memory) is skipped like one
          // outside the canvas; the next frame is drawn as usual.
          drawn = false;
        }
        drawFailed_.store(!drawn);
        --pendingDraws_;
      }
    }
    if (!have) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      continue;
    }
    if (notify_ != nullptr) notify_(session_, 0);
  }
}

}  // namespace vantix
