// The demo's shared context and its steps (one demo_<step>.cpp each).  The
// list of steps that "vantix demo" runs is in cmd_demo.cpp.
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "report.h"

namespace vtool {

// Wall time of one step and the finer timings it recorded.
struct StepTiming {
  std::string step;
  double seconds = 0;
  std::vector<std::pair<std::string, std::string>> details;  // what, time text
};

class DemoContext {
 public:
  DemoContext(std::filesystem::path outDir, std::filesystem::path dataDir);

  // A sample image from the data folder as 8-bit BGR, or the synthetic scene
  // when the folder or the file is missing.  `label` receives the name shown
  // in progress lines.
  cv::Mat sample(const std::string& file, std::string& label) const;
  bool haveSamples() const { return haveSamples_; }

  // Writes `image` to the output folder as `file`; the final summary lists it.
  void save(const std::string& file, const cv::Mat& image);
  const std::vector<std::filesystem::path>& written() const { return written_; }
  const std::filesystem::path& outDir() const { return outDir_; }

  // The report, and the section of the step that is running.
  HtmlReport& report() { return report_; }
  HtmlReport::Section& section() { return *section_; }
  void beginStep(const std::string& name, HtmlReport::Section& section);
  void endStep(double seconds);

  // A finer timing of the running step for the report's timings table, e.g.
  // ("per frame, kind 0", 23.8 ms).
  void timing(const std::string& what, double milliseconds);
  const std::vector<StepTiming>& timings() const { return timings_; }

 private:
  std::filesystem::path outDir_;
  std::filesystem::path dataDir_;
  bool haveSamples_ = false;
  std::vector<std::filesystem::path> written_;
  HtmlReport report_;
  HtmlReport::Section* section_ = nullptr;
  std::vector<StepTiming> timings_;
};

// One indented progress line on stdout, flushed at once.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Progress of a long step ("frames 37/204").  On a terminal one line is
// rewritten in place; otherwise (a log, a pipe) a line is printed at every
// quarter, so that logs stay short.  Lines printed with say() meanwhile
// appear above the progress line.
class Progress {
 public:
  Progress(std::string what, int total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void update(int done);
  // Ends the progress line (the destructor does it too).
  void finish();

 private:
  friend void say(const char* format, ...);
  void draw();
  void clear();

  std::string what_;
  int total_;
  int done_ = 0;
  int lastQuarter_ = 0;
  bool terminal_;
  bool finished_ = false;
};

// A colourful 640x480 scene of shapes, gradients and fine texture.
cv::Mat syntheticScene();

// Printf-style formatting into a std::string, for report texts.
std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

void demoResize(DemoContext& context);
void demoDemosaic(DemoContext& context);
void demoEdge(DemoContext& context);
void demoEdf(DemoContext& context);
void demoStitch(DemoContext& context);
void demoSpot(DemoContext& context);

}  // namespace vtool
