#include "stitch_session.h"

#include <cstdlib>
#include <cstring>

#include "errors.h"
#include "library.h"

namespace vtool {

std::string stitchModeName(uint32_t mode) {
  switch (mode) {
    case 1: return "placed";
    case 2: return "kept";
    case 3: return "lost";
    case 4: return "not placed";
    default: return "mode " + std::to_string(mode);
  }
}

std::string stitchEventName(uint32_t code) {
  switch (code) {
    case VANTIX_STITCH_EVENT_FAILED: return "processing failed";
    case VANTIX_STITCH_EVENT_OUT_OF_MEMORY: return "out of memory";
    case VANTIX_STITCH_EVENT_CANVAS_GROWING: return "canvas growing";
    case VANTIX_STITCH_EVENT_GROW_FAILED: return "canvas growth failed";
    case VANTIX_STITCH_EVENT_CANVAS_GREW: return "canvas grew";
    case VANTIX_STITCH_EVENT_TRACKING_LOST: return "tracking lost";
    case VANTIX_STITCH_EVENT_TRACKING_REGAINED: return "tracking regained";
    case VANTIX_STITCH_EVENT_RELOCATION_BEGUN: return "relocation begun";
    case VANTIX_STITCH_EVENT_RELOCATION_ENDED: return "relocation ended";
    case VANTIX_STITCH_EVENT_POINT_LOCATED: return "point located";
    case VANTIX_STITCH_EVENT_POINT_NOT_LOCATED: return "point not located";
    case VANTIX_STITCH_EVENT_RELOCATION_SERVED: return "relocation request served";
    case VANTIX_STITCH_EVENT_POSITION_SET: return "position set";
    default: return "event " + std::to_string(code);
  }
}

std::vector<cv::Point> finalCanvasPositions(const std::vector<StitchReport>& reports) {
  std::vector<cv::Point> shiftAt(reports.size());
  cv::Point shift(0, 0);
  cv::Point last = reports.empty() ? cv::Point() : reports[0].position;
  for (size_t i = 0; i < reports.size(); ++i) {
    if (i > 0) {
      const cv::Size before = reports[i - 1].canvas, now = reports[i].canvas;
      const cv::Point grown(now.width - before.width, now.height - before.height);
      const cv::Point p = reports[i].position;
      if (grown.x > 0 && std::abs(p.x - grown.x - last.x) < std::abs(p.x - last.x)) {
        shift.x += grown.x;
        last.x += grown.x;
      }
      if (grown.y > 0 && std::abs(p.y - grown.y - last.y) < std::abs(p.y - last.y)) {
        shift.y += grown.y;
        last.y += grown.y;
      }
    }
    shiftAt[i] = shift;
    if (reports[i].mode == 1) last = reports[i].position;
  }
  std::vector<cv::Point> positions(reports.size());
  for (size_t i = 0; i < reports.size(); ++i) {
    positions[i] = reports[i].position + (shift - shiftAt[i]);
  }
  return positions;
}

StitchSession::StitchSession(cv::Size frameSize, uint32_t scaleLevel, uint32_t strictLevel,
                             uint32_t background)
    : frameSize_(frameSize) {
  initLibrary();
  session_ = vantix_stitch_newV3(VANTIX_FORMAT_BGR8, 0, static_cast<uint32_t>(frameSize.width),
                                 static_cast<uint32_t>(frameSize.height), background, scaleLevel,
                                 strictLevel, &StitchSession::onFrame, &StitchSession::onEvent,
                                 this);
  if (session_ == nullptr) throw ToolError("the library refused to create a stitch session");
}

StitchSession::~StitchSession() { vantix_stitch_delete(session_); }

void StitchSession::start() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    started_ = std::chrono::steady_clock::now();
  }
  vantix_stitch_start(session_);
}

void StitchSession::push(const cv::Mat& frame) {
  CV_Assert(frame.type() == CV_8UC3 && frame.size() == frameSize_);
  const VantixResult result =
      vantix_stitch_pushback(session_, frame.data, static_cast<uint32_t>(frame.cols),
                             static_cast<uint32_t>(frame.rows), 24,
                             static_cast<uint32_t>(frame.step));
  if (VANTIX_FAILED(result)) throw ToolError("vantix_stitch_pushback failed");
}

bool StitchSession::waitForReports(size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return reports_.size() >= count || failed_; });
  return reports_.size() >= count;
}

void StitchSession::waitUntilQuiet(std::chrono::milliseconds quiet,
                                   std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!failed_ && std::chrono::steady_clock::now() < deadline) {
    const size_t seen = reports_.size();
    if (!changed_.wait_for(lock, quiet, [&] { return reports_.size() != seen || failed_; })) {
      return;
    }
  }
}

size_t StitchSession::reportCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reports_.size();
}

std::vector<StitchReport> StitchSession::reports() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reports_;
}

std::vector<uint32_t> StitchSession::takeEvents() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<uint32_t> taken;
  taken.swap(events_);
  return taken;
}

bool StitchSession::failed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return failed_;
}

cv::Mat StitchSession::stop(bool cropped) {
  VantixImageHeader* image = vantix_stitch_stop(session_, 1, cropped ? 1 : 0);
  if (image == nullptr) return cv::Mat();
  // 24-bit rows padded to 4 bytes, in the canvas's own row order (the rows
  // of the pushed frames keep their memory order on the canvas).
  const size_t stride = ((static_cast<size_t>(image->biWidth) * 24 + 31) >> 3) & ~size_t(3);
  const cv::Mat view(image->biHeight, image->biWidth, CV_8UC3,
                     reinterpret_cast<uint8_t*>(image) + image->biSize, stride);
  cv::Mat panorama = view.clone();
  std::free(image);  // allocated by the tool's malloc-based host allocator
  return panorama;
}

cv::Rect StitchSession::cropRect() const {
  uint32_t x = 0, y = 0, width = 0, height = 0;
  vantix_stitch_cropparams(session_, &x, &y, &width, &height);
  return cv::Rect(static_cast<int>(x), static_cast<int>(y), static_cast<int>(width),
                  static_cast<int>(height));
}

void StitchSession::onFrame(void* context, const uint8_t*, uint32_t, uint32_t canvasWidth,
                            uint32_t canvasHeight, uint32_t, uint32_t, uint32_t, int32_t x,
                            int32_t y, uint32_t mode, uint32_t, uint32_t, float score) {
  auto* self = static_cast<StitchSession*>(context);
  {
    std::lock_guard<std::mutex> lock(self->mutex_);
    StitchReport report;
    report.position = cv::Point(x, y);
    report.mode = mode;
    report.canvas = cv::Size(static_cast<int>(canvasWidth), static_cast<int>(canvasHeight));
    report.score = score;
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - self->started_).count();
    self->reports_.push_back(report);
  }
  self->changed_.notify_all();
}

void StitchSession::onEvent(void* context, uint32_t code) {
  auto* self = static_cast<StitchSession*>(context);
  {
    std::lock_guard<std::mutex> lock(self->mutex_);
    // Event 1 stops the worker, and so does event 2 unless it reports a
    // failed canvas growth (it then follows event 3 and the worker goes on).
    if (code == VANTIX_STITCH_EVENT_FAILED ||
        (code == VANTIX_STITCH_EVENT_OUT_OF_MEMORY &&
         self->lastEvent_ != VANTIX_STITCH_EVENT_CANVAS_GROWING)) {
      self->failed_ = true;
    }
    self->events_.push_back(code);
    self->lastEvent_ = code;
  }
  self->changed_.notify_all();
}

}  // namespace vtool
