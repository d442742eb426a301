#include "edf/edf_session.h"

#include <algorithm>
#include <cstring>

#include "api/pixel_format.h"

namespace vantix {

CEdfSession::CEdfSession(uint32_t format, uint32_t kind, VantixEdfFrameFn onFrame,
                         VantixEdfErrorFn onError, void* context)
    : CEdfSession(format, makeEdfFuser(kind), onFrame, onError, context) {}

CEdfSession::CEdfSession(uint32_t format, std::unique_ptr<CEdfFuser> fuser,
                         VantixEdfFrameFn onFrame, VantixEdfErrorFn onError, void* context)
    : format_(format),
      onFrame_(onFrame),
      onError_(onError),
      context_(context),
      slot_(std::move(fuser)),
      worker_(
          kQueueLimit,
          [this](cv::Mat& frame) {
            if (mode_ == 0 || mode_ == 1) process(frame);
          },
          [this](WorkerFailure code) {
            if (onError_) onError_(context_, code);
          }) {}

CEdfSession::~CEdfSession() { worker_.stop(); }

void CEdfSession::start() {
  // A second start without a stop first ends the worker already there.
  worker_.start();
}

void CEdfSession::stop() { worker_.stop(); }

void CEdfSession::push(const void* data, uint32_t width, uint32_t height, uint64_t /*bits*/,
                       uint32_t rowPitch) {
  // `bits` is ignored: the session's format decides the layout of frames.
  if (!worker_.running()) return;
  cv::Mat working = toWorkingImage(format_, data, width, height, rowPitch, true);
  // A frame without pixels is dropped here rather than take a queue slot.
  if (working.empty()) return;
  // Only a working image that still views the host's buffer needs a copy;
  // the converted formats already own their pixels.
  if (working.u == nullptr) working = working.clone();
  worker_.push(std::move(working));
}

void CEdfSession::readData(void* buffer, uint32_t rowBytes) {
  std::lock_guard<std::mutex> lock(resultMutex_);
  // A row length of 0 copies nothing (and the buffer may then be null).
  if (fused_.empty() || rowBytes == 0) return;
  auto* out = static_cast<uint8_t*>(buffer);
  const uint8_t* end = fused_.dataend;
  for (int y = 0; y < fused_.rows; ++y) {
    const uint8_t* row = fused_.ptr<uint8_t>(y);
    // rowBytes is not checked against the row: a longer count goes on into
    // the next row, but never past the image's last byte.
    const size_t count = std::min<size_t>(rowBytes, static_cast<size_t>(end - row));
    std::memcpy(out, row, count);
    out += rowBytes;
  }
}

std::vector<cv::Mat> CEdfSession::queuedFrames() {
  return worker_.withQueue([](const std::deque<cv::Mat>& frames) {
    std::vector<cv::Mat> copies;
    for (const cv::Mat& frame : frames) copies.push_back(frame.clone());
    return copies;
  });
}

void CEdfSession::process(cv::Mat& frame) {
  cv::Mat published;
  if (fused_.empty()) {
    slot_.firstFrame(frame);
    published = toOutputFormat(format_, frame);
  } else {
    cv::Mat result;
    slot_.fuse(frame, result);
    published = toOutputFormat(format_, result);
  }
  const uint8_t* data;
  size_t step;
  int width, height, type;
  {
    std::lock_guard<std::mutex> lock(resultMutex_);
    fused_ = published;
    data = fused_.data;
    step = fused_.step[0];
    width = fused_.cols;
    height = fused_.rows;
    type = fused_.type() & 0xfff;
  }
  // onFrame must be set; a host that left it null simply hears nothing.
  if (onFrame_ == nullptr) return;
  onFrame_(context_, 0, data, static_cast<uint32_t>(step), static_cast<uint32_t>(width),
           static_cast<uint32_t>(height), static_cast<uint32_t>(type));
}

}  // namespace vantix
