// The tool's EDF session: a vantix_edf_ session with clean-up, frames pushed
// one at a time and waited for, and the session's error codes by name.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace vtool {

// "processing failed (1)", "out of memory (2)", "code N".
std::string edfErrorName(uint32_t code);

// B G R (A) image type of frames and results in pixel `format` (0..3).
int edfFormatType(uint32_t format);

// `image` (8/16-bit grey, BGR or BGRA) in the layout of `format`: 8-bit
// samples are widened by 257 for the 16-bit formats, 16-bit ones narrowed
// by 257 for the 8-bit formats; grey is repeated, alpha added or dropped.
cv::Mat toEdfFormat(const cv::Mat& image, uint32_t format);

class EdfSession {
 public:
  EdfSession(uint32_t format, uint32_t kind);
  ~EdfSession();
  EdfSession(const EdfSession&) = delete;
  EdfSession& operator=(const EdfSession&) = delete;

  VantixEdf* handle() { return session_; }
  uint32_t format() const { return format_; }

  // Pushes `frame` (already in the session's layout) and waits for its
  // result; returns the milliseconds from push to result.  Throws ToolError
  // naming the code when the session reports an error.
  double fuse(const cv::Mat& frame);
  // Waits until `count` results in all have arrived (for pulled frames).
  double waitForResults(int count);
  int results();
  // A copy of the fused image (vantix_edf_readdata), in the session's type.
  cv::Mat fused();

 private:
  static void onFrame(void* context, uint32_t event, const uint8_t* data, uint32_t stride,
                      uint32_t width, uint32_t height, uint32_t type);
  static void onError(void* context, uint32_t code);

  VantixEdf* session_ = nullptr;
  uint32_t format_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int results_ = 0;
  uint32_t error_ = 0;
  cv::Size size_;
};

}  // namespace vtool
