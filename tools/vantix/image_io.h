// Reading and writing image files, with the tool's error messages.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace vtool {

// Reads a file as it is stored (cv::IMREAD_UNCHANGED).  Throws ToolError for
// a missing file, a directory or data that is not a readable image.
cv::Mat readImage(const std::string& path);

// One frame of a command's input: an image file, or one page of a
// multi-page TIFF.
struct FrameSource {
  std::string path;
  int page = -1;  // 0-based page of a multi-page file; -1 for a one-image file
  int pages = 1;  // pages in the file
  // "a.png", or "stack.tif page 3 of 30" (1-based) for a page.
  std::string label() const;
};

// The frames that command-line arguments name, in order: a multi-page TIFF
// gives each of its pages, a folder its image files (those OpenCV
// recognises; hidden files skipped) in name order with runs of digits
// compared by value (f2 before f10), a multi-page TIFF inside it its pages;
// any other path is taken as one image file (read errors come later, from
// readFrame).  Throws ToolError for a missing path or a folder without images.
std::vector<FrameSource> listFrames(const std::vector<std::string>& paths);

// Reads one frame as stored (cv::IMREAD_UNCHANGED), with readImage's errors.
cv::Mat readFrame(const FrameSource& source);

// Throws ToolError unless an image can probably be written to `path`: its
// extension names a format OpenCV writes and its directory exists.  Lets a
// command refuse a bad output before doing the work.
void checkOutputPath(const std::string& path);

// Writes an 8- or 16-bit image with 1, 3 or 4 channels in B G R (A) order.
// Formats that cannot hold 16-bit samples (JPEG, BMP, ...) get the samples
// scaled to 8 bits; returns true when that happened.  Throws ToolError when
// the file could not be written.
bool writeImage(const std::string& path, const cv::Mat& image);

// True when the format of `path` (by its extension) stores 16-bit samples.
bool formatHolds16Bit(const std::string& path);

// Samples of fewer than 16 bits in 16-bit files (a 12-bit camera's 0..4095),
// for the commands that reduce 16-bit frames to 8 bits by the top byte.
//
// `image` with 16-bit samples of `bits` bits (9..16) scaled to the full
// 16-bit range: shifted left by 16 - bits, saturating at 65535; 8-bit images
// come back as they are.  `clipped`, when given, is set when a sample was
// larger than `bits` bits hold.
cv::Mat widenSamples(const cv::Mat& image, int bits, bool* clipped = nullptr);

// How many bits the largest sample of a 16-bit image needs, and that sample.
struct SampleDepth {
  int bits = 0;         // 0 for an all-zero image
  double largest = 0;   // over all channels
};
SampleDepth sampleDepth(const cv::Mat& image);

// For the one-time note on 16-bit input read without --bits: when the first
// 16-bit frame's largest sample fits in fewer than 16 bits, "; its largest
// sample, 4095, fits in 12 bits: for 12-bit data give --bits 12 (as read, the
// samples use 17 of the 256 8-bit levels)", else "".  `suggested` receives
// the --bits value suggested (0 when none).
std::string sampleDepthHint(const cv::Mat& first16Bit, int* suggested);

// "8-bit grey", "16-bit BGR", "8-bit BGRA", "32-bit float 1-channel", ...
std::string describeType(int type);

// "640x480"
std::string sizeText(cv::Size size);

}  // namespace vtool
