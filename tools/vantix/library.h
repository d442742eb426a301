// The tool's thin C++ layer over the library's C interface: image headers
// and padded rows, result codes turned into ToolError, and an edge session
// with automatic clean-up.  Shared by the subcommands and the demo.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

namespace vtool {

// Registers a malloc-based allocator with vantix_init (once per process).
void initLibrary();

// The biBitCount for an image: 8-bit grey 8, 16-bit grey 16, 8-bit BGR 24,
// 8-bit BGRA 32, 16-bit BGR 48.  Throws ToolError for any other type.
uint16_t bitCountFor(const cv::Mat& image);

// Rows padded to 4 bytes: ((width * bitsPerPixel + 31) >> 3) & ~3.
uint32_t paddedStride(uint32_t width, uint32_t bitsPerPixel);

// Interpolation name for messages: "cubic", "auto"... (from the name table)
std::string interpolationName(uint32_t interpolation);

struct ResizeOutcome {
  cv::Mat image;
  double milliseconds = 0;  // of the library call alone
};

// Resizes through vantix_resizeV2 with both images at the default padded
// stride.  Throws ToolError with the result's name when the call fails.
ResizeOutcome resize(const cv::Mat& source, cv::Size size, uint32_t interpolation);

struct DemosaicOutcome {
  cv::Mat image;  // in the requested channel order, samples as in the raw frame
  double milliseconds = 0;
};

// Demosaics a one-channel 8-bit (bits 8) or 16-bit (bits 9..16) raw frame
// with the pattern code `pattern` handed to vantix_demosaic as it is.  The
// library reads the two G-first codes with red and blue exchanged: the name
// table (names.h) gives, for each sensor's pattern name, the code that comes
// out in true colours.  Throws ToolError for a refused call.
DemosaicOutcome demosaic(const cv::Mat& raw, int bits, uint32_t pattern, uint32_t order,
                         uint32_t algorithm);

// A frame laid out for an edge session: pixel format and bytes at the
// format's default stride.
struct EdgeFrame {
  uint32_t format = VANTIX_FORMAT_BGR8;
  cv::Size size;
  std::vector<uint8_t> bytes;
};

// 8-bit grey/BGR -> format 0, 16-bit grey/BGR -> format 1, 8-bit BGRA ->
// format 2, 16-bit BGRA -> format 3.  Throws ToolError for other types.
EdgeFrame makeEdgeFrame(const cv::Mat& image);

// Owns a vantix_edge_ session.  Calls initLibrary() first.
class EdgeSession {
 public:
  EdgeSession(uint32_t format, cv::Size size, uint32_t searchSize);
  ~EdgeSession();
  EdgeSession(const EdgeSession&) = delete;
  EdgeSession& operator=(const EdgeSession&) = delete;

  // Snaps `point` onto the nearest edge closer than the search size; returns
  // false and leaves it unchanged when there is none.  Throws ToolError for a
  // point outside the frame (which the library would not survive).
  bool snap(const EdgeFrame& frame, cv::Point& point);

 private:
  VantixEdge* session_ = nullptr;
  uint32_t format_;
  cv::Size size_;
  uint32_t searchSize_;
};

}  // namespace vtool
