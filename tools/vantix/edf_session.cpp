#include "edf_session.h"

#include <chrono>

#include <opencv2/imgproc.hpp>

#include "errors.h"

namespace vtool {

std::string edfErrorName(uint32_t code) {
  switch (code) {
    case VANTIX_EDF_ERROR_FAILED: return "processing failed (1)";
    case VANTIX_EDF_ERROR_OUT_OF_MEMORY: return "out of memory (2)";
    default: return "code " + std::to_string(code);
  }
}

int edfFormatType(uint32_t format) {
  switch (format) {
    case VANTIX_FORMAT_BGR16: return CV_16UC3;
    case VANTIX_FORMAT_BGRA8: return CV_8UC4;
    case VANTIX_FORMAT_BGRA16: return CV_16UC4;
    default: return CV_8UC3;
  }
}

cv::Mat toEdfFormat(const cv::Mat& image, uint32_t format) {
  const int type = edfFormatType(format);
  const int depth = CV_MAT_DEPTH(type);
  if (image.depth() != CV_8U && image.depth() != CV_16U) {
    throw ToolError("unsupported frame depth (8- or 16-bit images only)");
  }
  cv::Mat scaled = image;
  if (image.depth() != depth) {
    image.convertTo(scaled, depth, depth == CV_16U ? 257.0 : 1.0 / 257.0);
  }
  cv::Mat out;
  const bool alpha = CV_MAT_CN(type) == 4;
  switch (scaled.channels()) {
    case 1:
      cv::cvtColor(scaled, out, alpha ? cv::COLOR_GRAY2BGRA : cv::COLOR_GRAY2BGR);
      break;
    case 3:
      if (alpha) cv::cvtColor(scaled, out, cv::COLOR_BGR2BGRA);
      else out = scaled;
      break;
    case 4:
      if (alpha) out = scaled;
      else cv::cvtColor(scaled, out, cv::COLOR_BGRA2BGR);
      break;
    default:
      throw ToolError("unsupported number of channels");
  }
  return out.isContinuous() ? out : out.clone();
}

EdfSession::EdfSession(uint32_t format, uint32_t kind) : format_(format) {
  session_ = vantix_edf_newV2(format, kind, &EdfSession::onFrame, &EdfSession::onError, this);
  vantix_edf_start(session_);
}

EdfSession::~EdfSession() { vantix_edf_delete(session_); }

void EdfSession::onFrame(void* context, uint32_t, const uint8_t*, uint32_t, uint32_t width,
                         uint32_t height, uint32_t) {
  auto* self = static_cast<EdfSession*>(context);
  std::lock_guard<std::mutex> lock(self->mutex_);
  ++self->results_;
  self->size_ = cv::Size(static_cast<int>(width), static_cast<int>(height));
  self->changed_.notify_all();
}

void EdfSession::onError(void* context, uint32_t code) {
  auto* self = static_cast<EdfSession*>(context);
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->error_ = code;
  self->changed_.notify_all();
}

double EdfSession::waitForResults(int count) {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return results_ >= count || error_ != 0; });
  if (error_ != 0) throw ToolError("the EDF session reported " + edfErrorName(error_));
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

int EdfSession::results() {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_;
}

double EdfSession::fuse(const cv::Mat& frame) {
  CV_Assert(frame.type() == edfFormatType(format_));
  const int target = results() + 1;
  const auto start = std::chrono::steady_clock::now();
  vantix_edf_pushback(session_, frame.data, static_cast<uint32_t>(frame.cols),
                      static_cast<uint32_t>(frame.rows), frame.elemSize1() * 8,
                      static_cast<uint32_t>(frame.step[0]));
  waitForResults(target);
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

cv::Mat EdfSession::fused() {
  cv::Size size;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    size = size_;
  }
  if (size.area() == 0) return cv::Mat();
  cv::Mat out(size, edfFormatType(format_));
  vantix_edf_readdata(session_, out.data, static_cast<uint32_t>(out.step[0]));
  return out;
}

}  // namespace vtool
