// What the subcommands of the vantix tool share: their registration with the
// command-line parser, the two kinds of failure, image files, and the few
// conversions between OpenCV images and the library's pixel layouts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <opencv2/core.hpp>
#include <vantix.hpp>

namespace vtool {

// Work that failed (unreadable file, refused call): exit status 1.
struct ToolError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// A command line that is wrong in a way the parser cannot see: exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Each subcommand adds itself to the parser and returns what runs it once
// the command line is parsed (its exit status).
using Runner = std::function<int()>;
Runner addResize(CLI::App& app);
Runner addDemosaic(CLI::App& app);
Runner addEdge(CLI::App& app);
Runner addEdf(CLI::App& app);
Runner addStitch(CLI::App& app);
Runner addSpot(CLI::App& app);
Runner addDemo(CLI::App& app);

// A transform taking a name (or alias, case ignored) of `group` in the name
// table shared with the Python package (python/vantix/names.tsv) to its
// value; anything else is refused with the list of choices.
CLI::Validator names(const char* group);
// The table's name of `value` in `group`, or the number.
std::string nameOf(const char* group, uint32_t value);

// Image files.  Reads as stored (8/16-bit, any channels); ToolError with the
// reason for a missing, unreadable or undecodable file.
cv::Mat readImage(const std::string& path);
// Refuses before any work an output the tool could not write (no or unknown
// extension, missing folder).
void checkOutputPath(const std::string& path);
// Writes an image; 16-bit samples are scaled to 8 bits for formats that
// hold only 8 (returns true then).
bool writeImage(const std::string& path, const cv::Mat& image);

// One frame of a stitch or EDF input: a file, or a page of a multi-page TIFF.
struct FrameSource {
  std::string path;
  int page = -1;  // -1: the whole file
  int pages = 1;
  std::string label() const;  // "a.png" or "stack.tif page 3 of 30"
};
// Files as given; a multi-page TIFF gives its pages, a folder its image
// files in name order with numbers compared by value (f2 before f10).
std::vector<FrameSource> listFrames(const std::vector<std::string>& paths);
cv::Mat readFrame(const FrameSource& source);

// 16-bit samples of `bits` bits (a 12-bit camera's 0..4095) for the sessions
// that work on 8 bits a channel.  Reads frames, scales their samples to the
// full 16-bit range (shifted left, saturating) and says once on stderr that
// 16-bit frames are reduced to 8 bits: with --bits, and when samples were
// clipped; without it, suggesting the --bits the first frame fits in.
class FrameReader {
 public:
  FrameReader(const char* command, int bits, bool bitsGiven)
      : command_(command), bits_(bits), bitsGiven_(bitsGiven) {}
  cv::Mat read(const FrameSource& source);
  int suggestedBits() const { return suggested_; }  // 0: none

 private:
  const char* command_;
  int bits_;
  bool bitsGiven_;
  bool noted_ = false, clipNoted_ = false;
  int suggested_ = 0;
};

// A stitch session (format 0, 8-bit B G R frames) with its reports and
// events recorded for the tool's thread.
struct StitchReport {
  cv::Point position;  // on the canvas of its time
  uint32_t mode = 0;   // 1 placed, 2 kept, 3 lost, 4 not placed
  cv::Size canvas;
  float score = 0;
  double seconds = 0;  // since start()
};
class StitchRun {
 public:
  StitchRun(cv::Size frame, uint32_t background, uint32_t scaleLevel, uint32_t strictLevel);
  vantix::StitchSession& session() { return session_; }
  void start();
  // Waits until `count` reports arrived (true) or the worker stopped after
  // a failure (false).
  bool waitFor(size_t count);
  // Waits until half a second passes without a report (a drained queue).
  void waitQuiet();
  size_t reportCount();
  std::vector<uint32_t> takeEvents();  // oldest first
  bool failed();
  // Stops the worker; the panorama (the covered rectangle when `cropped`)
  // and that rectangle on the canvas.
  cv::Mat stop(bool cropped, cv::Rect* covered = nullptr);
  std::vector<StitchReport> reports();

 private:
  struct State;
  std::shared_ptr<State> state_;
  vantix::StitchSession session_;
};
// Positions of `reports` on the last report's canvas (a canvas that grew
// left or up moved what was drawn before).
std::vector<cv::Point> finalPositions(const std::vector<StitchReport>& reports);

// An EDF session whose results are counted for the tool's thread.
class EdfRun {
 public:
  EdfRun(uint32_t format, uint32_t kind);
  vantix::EdfSession& session() { return session_; }
  // Waits until `count` results arrived; ToolError naming the session's
  // error code when it reports one.
  void waitFor(int count);
  cv::Mat fused(int type);  // a copy of the fused image

 private:
  struct State;
  std::shared_ptr<State> state_;
  vantix::EdfSession session_;
};

// biBitCount of 8/16-bit grey, 8-bit BGR and BGRA, 16-bit BGR; ToolError
// for other types.
uint16_t bitCountFor(const cv::Mat& image);
// A zeroed image in rows of the library's default stride for `bits`.
struct Padded {
  cv::Mat buffer;  // owns the bytes
  cv::Mat view;    // the image over them
};
Padded padded(cv::Size size, int type, uint32_t bits);
// An 8- or 16-bit image as 8-bit B G R (16-bit divided by 257).
cv::Mat toBgr8(const cv::Mat& image);
// "8-bit grey", "16-bit BGR", "32-bit float 1-channel"...
std::string describeType(int type);
std::string sizeText(cv::Size size);  // "640x480"
// printf into a std::string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace vtool
