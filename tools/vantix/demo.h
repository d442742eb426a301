// The demo's shared context and its steps (one demo_<step>.cpp each).  The
// list of steps that "vantix demo" runs is in cmd_demo.cpp.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace vtool {

class DemoContext {
 public:
  DemoContext(std::filesystem::path outDir, std::filesystem::path dataDir);

  // A sample image from the data folder as 8-bit BGR, or the synthetic scene
  // when the folder or the file is missing.  `label` receives the name shown
  // in progress lines.
  cv::Mat sample(const std::string& file, std::string& label) const;
  bool haveSamples() const { return haveSamples_; }

  // Writes `image` to the output folder as `file` and prints where it went.
  void save(const std::string& file, const cv::Mat& image);
  const std::vector<std::filesystem::path>& written() const { return written_; }
  const std::filesystem::path& outDir() const { return outDir_; }

 private:
  std::filesystem::path outDir_;
  std::filesystem::path dataDir_;
  bool haveSamples_ = false;
  std::vector<std::filesystem::path> written_;
};

// One indented progress line on stdout, flushed at once.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A colourful 640x480 scene of shapes, gradients and fine texture.
cv::Mat syntheticScene();

void demoResize(DemoContext& context);
void demoDemosaic(DemoContext& context);
void demoEdge(DemoContext& context);
void demoEdf(DemoContext& context);
void demoStitch(DemoContext& context);
void demoSpot(DemoContext& context);

}  // namespace vtool
