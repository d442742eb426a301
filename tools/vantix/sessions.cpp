// The stitch and EDF sessions as the tool and its demo drive them: the
// library's callbacks recorded under a lock, the tool's thread waiting on
// them.
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

#include "tool.h"

namespace vtool {

struct StitchRun::State {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<StitchReport> reports;
  std::vector<uint32_t> events;
  uint32_t lastEvent = 0;
  bool failed = false;
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

StitchRun::StitchRun(cv::Size frame, uint32_t background, uint32_t scaleLevel,
                     uint32_t strictLevel)
    : state_(std::make_unique<State>()) {
  const auto onFrame = [](void* self, const uint8_t*, uint32_t, uint32_t canvasWidth,
                          uint32_t canvasHeight, uint32_t, uint32_t, uint32_t, int32_t x,
                          int32_t y, uint32_t mode, uint32_t, uint32_t, float score) {
    auto* s = static_cast<State*>(self);
    std::lock_guard<std::mutex> lock(s->mutex);
    const std::chrono::duration<double> since = std::chrono::steady_clock::now() - s->started;
    s->reports.push_back({{x, y}, mode, cv::Size(int(canvasWidth), int(canvasHeight)), score,
                          since.count()});
    s->changed.notify_all();
  };
  const auto onEvent = [](void* self, uint32_t code) {
    auto* s = static_cast<State*>(self);
    std::lock_guard<std::mutex> lock(s->mutex);
    // Event 1 stops the worker, and so does 2 unless it follows a canvas
    // growth (3): the worker then goes on with the canvas it had.
    s->failed = s->failed || code == VANTIX_STITCH_EVENT_FAILED ||
                (code == VANTIX_STITCH_EVENT_OUT_OF_MEMORY &&
                 s->lastEvent != VANTIX_STITCH_EVENT_CANVAS_GROWING);
    s->events.push_back(code);
    s->lastEvent = code;
    s->changed.notify_all();
  };
  initLibrary();
  session_ = vantix_stitch_newV3(VANTIX_FORMAT_BGR8, 0, static_cast<uint32_t>(frame.width),
                                 static_cast<uint32_t>(frame.height), background, scaleLevel,
                                 strictLevel, onFrame, onEvent, state_.get());
  if (session_ == nullptr) throw ToolError("vantix_stitch_newV3 returned no session");
}

StitchRun::~StitchRun() { vantix_stitch_delete(session_); }

void StitchRun::start() {
  state_->started = std::chrono::steady_clock::now();
  vantix_stitch_start(session_);
}

bool StitchRun::waitFor(size_t count) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->changed.wait(lock, [&] { return state_->reports.size() >= count || state_->failed; });
  return state_->reports.size() >= count;
}

void StitchRun::waitQuiet() {
  std::unique_lock<std::mutex> lock(state_->mutex);
  for (size_t seen = SIZE_MAX; seen != state_->reports.size() && !state_->failed;) {
    seen = state_->reports.size();
    state_->changed.wait_for(lock, std::chrono::milliseconds(500));
  }
}

size_t StitchRun::reportCount() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->reports.size();
}

std::vector<uint32_t> StitchRun::takeEvents() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return std::move(state_->events);
}

bool StitchRun::failed() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->failed;
}

std::vector<StitchReport> StitchRun::reports() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->reports;
}

cv::Mat StitchRun::stop(bool cropped, cv::Rect* covered) {
  VantixImageHeader* image = vantix_stitch_stop(session_, 1, cropped ? 1 : 0);
  if (image == nullptr) return cv::Mat();
  // 24-bit rows at the default stride, from the tool's malloc allocator.
  const cv::Mat panorama =
      cv::Mat(image->biHeight, image->biWidth, CV_8UC3,
              reinterpret_cast<uint8_t*>(image) + image->biSize,
              vantix_default_stride(static_cast<uint32_t>(image->biWidth), 24))
          .clone();
  std::free(image);
  uint32_t x = 0, y = 0, width = 0, height = 0;
  vantix_stitch_cropparams(session_, &x, &y, &width, &height);
  if (covered != nullptr) *covered = cv::Rect(int(x), int(y), int(width), int(height));
  return panorama;
}

std::vector<cv::Point> finalPositions(const std::vector<StitchReport>& reports) {
  // A report whose canvas grew did so leftwards (upwards) when undoing the
  // growth puts it next to the frame placed before.
  std::vector<cv::Point> shiftAt(reports.size()), out(reports.size());
  cv::Point shift, last = reports.empty() ? cv::Point() : reports[0].position;
  for (size_t i = 0; i < reports.size(); ++i) {
    if (i > 0) {
      const cv::Size grown = reports[i].canvas - reports[i - 1].canvas;
      const cv::Point p = reports[i].position;
      if (grown.width > 0 && std::abs(p.x - grown.width - last.x) < std::abs(p.x - last.x)) {
        shift.x += grown.width;
        last.x += grown.width;
      }
      if (grown.height > 0 && std::abs(p.y - grown.height - last.y) < std::abs(p.y - last.y)) {
        shift.y += grown.height;
        last.y += grown.height;
      }
    }
    shiftAt[i] = shift;
    if (reports[i].mode == 1) last = reports[i].position;
  }
  for (size_t i = 0; i < reports.size(); ++i) out[i] = reports[i].position + shift - shiftAt[i];
  return out;
}

struct EdfRun::State {
  std::mutex mutex;
  std::condition_variable changed;
  int results = 0;
  uint32_t error = 0;
  cv::Size size;
};

EdfRun::EdfRun(uint32_t format, uint32_t kind) : state_(std::make_unique<State>()) {
  const auto onFrame = [](void* self, uint32_t, const uint8_t*, uint32_t, uint32_t width,
                          uint32_t height, uint32_t) {
    auto* s = static_cast<State*>(self);
    std::lock_guard<std::mutex> lock(s->mutex);
    ++s->results;
    s->size = cv::Size(static_cast<int>(width), static_cast<int>(height));
    s->changed.notify_all();
  };
  const auto onError = [](void* self, uint32_t code) {
    auto* s = static_cast<State*>(self);
    std::lock_guard<std::mutex> lock(s->mutex);
    s->error = code;
    s->changed.notify_all();
  };
  initLibrary();
  session_ = vantix_edf_newV2(format, kind, onFrame, onError, state_.get());
  if (session_ == nullptr) throw ToolError("vantix_edf_newV2 returned no session");
  vantix_edf_start(session_);
}

EdfRun::~EdfRun() { vantix_edf_delete(session_); }

void EdfRun::waitFor(int count) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->changed.wait(lock, [&] { return state_->results >= count || state_->error != 0; });
  if (state_->error != 0) {
    throw ToolError(std::string("the EDF session reported ") +
                    vantix_edf_error_name(state_->error));
  }
}

cv::Mat EdfRun::fused(int type) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  cv::Mat out(state_->size, type);
  if (!out.empty()) vantix_edf_readdata(session_, out.data, static_cast<uint32_t>(out.step[0]));
  return out;
}

}  // namespace vtool
