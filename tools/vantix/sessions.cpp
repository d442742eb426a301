// The stitch and EDF sessions as the tool and its demo drive them: the
// library's callbacks recorded under a lock, the tool's thread waiting on
// them.
#include <chrono>
#include <condition_variable>
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

StitchRun::StitchRun(cv::Size frame, uint32_t background, uint32_t scaleLevel, uint32_t strictLevel)
    : state_(std::make_shared<State>()),
      session_(
          uint32_t(frame.width), uint32_t(frame.height),
          [s = state_.get()](const vantix::StitchFrame& f) {
            std::lock_guard<std::mutex> lock(s->mutex);
            const std::chrono::duration<double> since =
                std::chrono::steady_clock::now() - s->started;
            s->reports.push_back({{f.x, f.y},
                                  f.mode,
                                  cv::Size(int(f.canvasWidth), int(f.canvasHeight)),
                                  f.score,
                                  since.count()});
            s->changed.notify_all();
          },
          [s = state_.get()](uint32_t code) {
            std::lock_guard<std::mutex> lock(s->mutex);
            // Event 1 stops the worker, and so does 2 unless it follows a
            // canvas growth (3): the worker then goes on with its canvas.
            s->failed = s->failed || code == VANTIX_STITCH_EVENT_FAILED ||
                        (code == VANTIX_STITCH_EVENT_OUT_OF_MEMORY &&
                         s->lastEvent != VANTIX_STITCH_EVENT_CANVAS_GROWING);
            s->events.push_back(code);
            s->lastEvent = code;
            s->changed.notify_all();
          },
          VANTIX_FORMAT_BGR8, background, scaleLevel, strictLevel) {}

void StitchRun::start() {
  state_->started = std::chrono::steady_clock::now();
  session_.start();
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
  const vantix::Image image = session_.stop(true, cropped);
  if (!image) return cv::Mat();
  const vantix::ImageView view(image.get());
  if (covered != nullptr) {
    const vantix::Rect r = session_.cropparams();
    *covered = cv::Rect(int(r.x), int(r.y), int(r.width), int(r.height));
  }
  return cv::Mat(int(view.height), int(view.width), CV_8UC3, view.data, view.stride).clone();
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

EdfRun::EdfRun(uint32_t format, uint32_t kind)
    : state_(std::make_shared<State>()),
      session_(
          [s = state_.get()](const vantix::EdfFrame& f) {
            std::lock_guard<std::mutex> lock(s->mutex);
            ++s->results;
            s->size = cv::Size(int(f.width), int(f.height));
            s->changed.notify_all();
          },
          [s = state_.get()](uint32_t code) {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->error = code;
            s->changed.notify_all();
          },
          kind, format) {
  if (session_.handle() == nullptr) throw ToolError("vantix_edf_newV2 returned no session");
  session_.start();
}

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
  if (!out.empty()) session_.readdata(out.data, static_cast<uint32_t>(out.step[0]));
  return out;
}

}  // namespace vtool
