#include "library.h"

#include <chrono>
#include <cstdlib>
#include <mutex>

#include <opencv2/imgproc.hpp>

#include "errors.h"
#include "image_io.h"
#include "names.h"
#include "result_names.h"

namespace vtool {

namespace {

void* hostAllocate(uint64_t byteCount) {
  if (byteCount > SIZE_MAX) return nullptr;
  return std::malloc(static_cast<size_t>(byteCount));
}

double millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

// Bytes at a padded stride that a cv::Mat views; the vector owns them.
struct StridedBuffer {
  std::vector<uint8_t> bytes;
  cv::Mat view;

  StridedBuffer(cv::Size size, int type, uint32_t stride)
      : bytes(static_cast<size_t>(stride) * static_cast<size_t>(size.height)),
        view(size, type, bytes.data(), stride) {}
};

VantixImageHeader headerFor(cv::Size size, uint16_t bitCount) {
  VantixImageHeader header{};
  header.biSize = 40;
  header.biWidth = size.width;
  header.biHeight = size.height;
  header.biPlanes = 1;
  header.biBitCount = bitCount;
  return header;
}

}  // namespace

void initLibrary() {
  static std::once_flag once;
  std::call_once(once, [] { vantix_init(&hostAllocate); });
}

uint16_t bitCountFor(const cv::Mat& image) {
  switch (image.type()) {
    case CV_8UC1: return 8;
    case CV_16UC1: return 16;
    case CV_8UC3: return 24;
    case CV_8UC4: return 32;
    case CV_16UC3: return 48;
    default:
      throw ToolError("unsupported image type " + describeType(image.type()) +
                      " (supported: 8-bit grey, BGR or BGRA; 16-bit grey or BGR)");
  }
}

uint32_t paddedStride(uint32_t width, uint32_t bitsPerPixel) {
  return ((width * bitsPerPixel + 31u) >> 3) & ~3u;
}

std::string interpolationName(uint32_t interpolation) {
  return nameOf(kInterpNames, interpolation);
}

ResizeOutcome resize(const cv::Mat& source, cv::Size size, uint32_t interpolation) {
  const uint16_t bitCount = bitCountFor(source);
  // Storage bits a pixel equal biBitCount for every type the tool passes.
  const VantixImageHeader srcHeader = headerFor(source.size(), bitCount);
  const VantixImageHeader dstHeader = headerFor(size, bitCount);
  const uint32_t srcStride = paddedStride(static_cast<uint32_t>(source.cols), bitCount);
  const uint32_t dstStride = paddedStride(static_cast<uint32_t>(size.width), bitCount);

  StridedBuffer src(source.size(), source.type(), srcStride);
  source.copyTo(src.view);
  StridedBuffer dst(size, source.type(), dstStride);

  const auto start = std::chrono::steady_clock::now();
  const VantixResult result = vantix_resizeV2(&srcHeader, 0, src.bytes.data(), &dstHeader, 0,
                                              dst.bytes.data(), interpolation);
  const double elapsed = millisecondsSince(start);
  if (result != VANTIX_S_OK) throw ToolError("vantix_resizeV2 failed: " + resultName(result));
  return {dst.view.clone(), elapsed};
}

DemosaicOutcome demosaic(const cv::Mat& raw, int bits, uint32_t pattern, uint32_t order,
                         uint32_t algorithm) {
  const bool sixteenBit = bits > 8;
  if (raw.type() != (sixteenBit ? CV_16UC1 : CV_8UC1)) {
    throw ToolError("a " + std::to_string(bits) + "-bit raw frame must be " +
                    (sixteenBit ? "16-bit" : "8-bit") + " grey, not " + describeType(raw.type()));
  }
  const bool fourChannels = order == VANTIX_DEMOSAIC_BGRA || order == VANTIX_DEMOSAIC_RGBA;
  const int type = CV_MAKETYPE(sixteenBit ? CV_16U : CV_8U, fourChannels ? 4 : 3);
  const uint32_t width = static_cast<uint32_t>(raw.cols);
  // Three channels in rows padded to 4 bytes, four channels unpadded.
  const uint32_t stride = fourChannels ? width * (sixteenBit ? 8u : 4u)
                                       : paddedStride(width, sixteenBit ? 48u : 24u);
  StridedBuffer out(raw.size(), type, stride);
  const cv::Mat packed = raw.isContinuous() ? raw : raw.clone();  // rows without padding

  const auto start = std::chrono::steady_clock::now();
  const VantixResult result =
      vantix_demosaic(packed.data, out.bytes.data(), width, static_cast<uint32_t>(raw.rows), bits,
                      pattern, order, algorithm);
  const double elapsed = millisecondsSince(start);
  // vantix_demosaic deliberately returns E_FAIL after every conversion that
  // ran, successful or not; it never returns S_OK.  The arguments passed the
  // checks above and the caller's, so E_FAIL here means "done".  Any other
  // code is a real refusal (E_NOTIMPL, E_INVALIDARG, E_OUTOFMEMORY).
  if (result != VANTIX_E_FAIL) {
    std::string reason;
    if (result == VANTIX_E_NOTIMPL) {
      reason = fourChannels && algorithm != VANTIX_DEMOSAIC_BILINEAR
                   ? " (4-channel output is offered only with bilinear)"
                   : " (VNG is not offered for 16-bit samples)";
    }
    throw ToolError("vantix_demosaic failed: " + resultName(result) + reason);
  }
  return {out.view.clone(), elapsed};
}

EdgeFrame makeEdgeFrame(const cv::Mat& image) {
  EdgeFrame frame;
  frame.size = image.size();
  cv::Mat pixels = image;
  uint32_t stride = 0;
  const auto width = static_cast<uint32_t>(image.cols);
  switch (image.type()) {
    case CV_8UC1:
      cv::cvtColor(image, pixels, cv::COLOR_GRAY2BGR);
      [[fallthrough]];
    case CV_8UC3:
      frame.format = VANTIX_FORMAT_BGR8;
      stride = paddedStride(width, 24);
      break;
    case CV_16UC1:
      cv::cvtColor(image, pixels, cv::COLOR_GRAY2BGR);
      [[fallthrough]];
    case CV_16UC3:
      frame.format = VANTIX_FORMAT_BGR16;
      stride = paddedStride(width, 48);
      break;
    case CV_8UC4:
      frame.format = VANTIX_FORMAT_BGRA8;
      stride = width * 4;
      break;
    case CV_16UC4:
      frame.format = VANTIX_FORMAT_BGRA16;
      stride = width * 8;
      break;
    default:
      throw ToolError("unsupported image type " + describeType(image.type()) +
                      " (supported: 8- or 16-bit grey, BGR or BGRA)");
  }
  frame.bytes.resize(static_cast<size_t>(stride) * static_cast<size_t>(image.rows));
  cv::Mat view(image.size(), pixels.type(), frame.bytes.data(), stride);
  pixels.copyTo(view);
  return frame;
}

EdgeSession::EdgeSession(uint32_t format, cv::Size size, uint32_t searchSize)
    : format_(format), size_(size), searchSize_(searchSize) {
  // In a frame one pixel wide or high, the library's search area can come
  // out empty (odd sizes truncate to zero), which raises a C++ exception.
  if (size.width < 2 || size.height < 2) {
    throw ToolError("a " + sizeText(size) + " image is too small for edge snapping (2x2 at least)");
  }
  initLibrary();
  session_ = vantix_edge_new(format, static_cast<uint32_t>(size.width),
                             static_cast<uint32_t>(size.height), searchSize);
  if (session_ == nullptr) throw ToolError("vantix_edge_new returned no session");
}

EdgeSession::~EdgeSession() { vantix_edge_delete(session_); }

bool EdgeSession::snap(const EdgeFrame& frame, cv::Point& point) {
  if (frame.format != format_ || frame.size != size_) {
    throw ToolError("frame does not match the edge session");
  }
  // The library raises a C++ exception for a point outside the frame; it
  // never gets one.
  if (point.x < 0 || point.y < 0 || point.x >= size_.width || point.y >= size_.height) {
    throw ToolError("point (" + std::to_string(point.x) + "," + std::to_string(point.y) +
                    ") lies outside the " + sizeText(size_) + " image");
  }
  int32_t x = point.x;
  int32_t y = point.y;
  const int32_t moved = vantix_edge_get(session_, frame.bytes.data(), &x, &y, searchSize_);
  if (moved != 1) return false;
  point = cv::Point(x, y);
  return true;
}

}  // namespace vtool
