// vantix demo [--out DIR] [--data DIR]: runs every operation of the library
// on real images and writes the results as PNG files and an HTML report.
//
// The demo is a list of steps (kSteps below).  A new feature adds its own
// step: a demo_<feature>.cpp with a function taking the DemoContext, a
// declaration in demo.h and one line in kSteps.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <system_error>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "commands.h"
#include "demo.h"
#include "errors.h"
#include "image_io.h"
#include "library.h"

namespace vtool {

namespace fs = std::filesystem;

namespace {

struct DemoStep {
  const char* name;
  const char* sectionId;
  const char* sectionTitle;
  void (*run)(DemoContext& context);
};

// In the order they run: quick single-image operations first, then the
// sessions fed by the simulated camera.
const DemoStep kSteps[] = {
    {"resize", "resize", "Resize", &demoResize},
    {"demosaic", "demosaic", "Demosaic", &demoDemosaic},
    {"edge snapping", "edge", "Edge snapping", &demoEdge},
    {"extended depth of field", "edf", "Extended depth of field", &demoEdf},
    {"live stitching", "stitch", "Live stitching", &demoStitch},
    {"spot measurement", "spot", "Laser spot measurement", &demoSpot},
};

// The report shows the sessions first: they are what a visitor came for.
const char* const kReportOrder[] = {"stitch", "edf", "spot", "edge", "demosaic", "resize"};

constexpr char kDefaultData[] = "/usr/share/doc/opencv-doc/examples/data";
constexpr char kReportFile[] = "report.html";

const char kUsage[] =
    "usage: vantix demo [--out DIR] [--data DIR]\n"
    "\n"
    "Runs the library's operations on sample photographs and writes the results\n"
    "as PNG files and one self-contained HTML page, DIR/report.html, that shows\n"
    "them with their figures: a live panorama of a simulated camera panning over\n"
    "a photograph (placement accuracy against the camera's true positions),\n"
    "extended depth of field over a simulated focus sweep (fused image beside the\n"
    "sharpest single frame), a moving laser spot measured frame by frame (its\n"
    "4-sigma ellipse and a plot of its diameters), edge snapping of clicks next\n"
    "to edges, demosaicing of a photo turned into a Bayer mosaic (PSNR of each\n"
    "algorithm), resizing down and up, and the time each step took.  The camera\n"
    "steps pull their frames from the simulated camera SDK.\n"
    "\n"
    "  --out DIR   where the files go (default ./demo-output)\n"
    "  --data DIR  folder of sample images (default the one of Debian's\n"
    "              opencv-doc package); without it a synthetic scene is used\n";

// The shared library's version, read from the name of the file the loader
// actually mapped (libvantix.so.1.0.0): the public header has no version
// call, and the file name is what the build stamped.
std::string libraryVersion() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&vantix_init), &info) == 0 || info.dli_fname == nullptr) {
    return "unknown";
  }
  std::error_code error;
  const fs::path file = fs::canonical(info.dli_fname, error);
  const std::string name = (error ? fs::path(info.dli_fname) : file).filename().string();
  const std::string stem = "libvantix.so.";
  const std::string version = name.rfind(stem, 0) == 0 ? name.substr(stem.size()) : "unknown";
  return version + " (" + (error ? std::string(info.dli_fname) : file.string()) + ")";
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
  return text;
}

void addTimings(DemoContext& context, HtmlReport::Section& section) {
  std::vector<std::vector<std::string>> rows;
  double total = 0;
  for (const StepTiming& step : context.timings()) {
    rows.push_back({step.step, format("%.2f s", step.seconds), "", ""});
    for (const auto& [what, time] : step.details) rows.push_back({"", "", what, time});
    total += step.seconds;
  }
  rows.push_back({"all steps", format("%.2f s", total), "", ""});
  section.paragraph("Wall time of each step (reading the sample, the library calls, drawing and "
                    "encoding the pictures) and the times of the library's own work inside it.");
  section.table({"step", "wall time", "inside the step", "time"}, rows);
}

int run(const Args& args) {
  const fs::path outDir = args.option("out").value_or("demo-output");
  const fs::path dataDir = args.option("data").value_or(kDefaultData);
  std::error_code error;
  fs::create_directories(outDir, error);
  if (!fs::is_directory(outDir)) {
    throw ToolError("cannot create the output folder '" + outDir.string() + "'" +
                    (error ? ": " + error.message() : std::string()));
  }
  const fs::path absoluteOut = fs::absolute(outDir, error).lexically_normal();
  initLibrary();
  DemoContext context(absoluteOut, dataDir);
  if (!context.haveSamples()) {
    std::printf("note: no sample images in %s\n", dataDir.string().c_str());
    std::printf("      install them with: apt-get install opencv-doc\n");
    std::printf("      using a synthetic scene instead\n");
  }

  HtmlReport& report = context.report();
  report.fact("date", utcNow());
  report.fact("libvantix", libraryVersion());
  report.fact("OpenCV", cv::getVersionString());
  report.fact("sample images", context.haveSamples() ? dataDir.string()
                                                     : "synthetic scene (opencv-doc not found)");
  std::vector<HtmlReport::Section*> sections(std::size(kSteps), nullptr);
  for (const char* id : kReportOrder) {
    for (size_t i = 0; i < std::size(kSteps); ++i) {
      if (std::string(kSteps[i].sectionId) == id) {
        sections[i] = &report.section(kSteps[i].sectionId, kSteps[i].sectionTitle);
      }
    }
  }
  HtmlReport::Section& timings = report.section("timings", "Timings");

  const int total = static_cast<int>(std::size(kSteps));
  int failed = 0;
  for (int i = 0; i < total; ++i) {
    std::printf("[%d/%d] %s\n", i + 1, total, kSteps[i].name);
    std::fflush(stdout);
    context.beginStep(kSteps[i].name, *sections[i]);
    const auto started = std::chrono::steady_clock::now();
    std::string failure;
    try {
      kSteps[i].run(context);
    } catch (const ToolError& e) {
      failure = e.what();
    } catch (const cv::Exception& e) {
      failure = "OpenCV error: " + e.err;
    }
    context.endStep(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    if (!failure.empty()) {
      say("step failed: %s", failure.c_str());
      sections[i]->warning("This step failed: " + failure);
      ++failed;
    }
  }
  addTimings(context, timings);
  const fs::path reportPath = absoluteOut / kReportFile;
  report.write(reportPath);

  std::printf("%d images in %s:\n", static_cast<int>(context.written().size()),
              absoluteOut.string().c_str());
  for (const fs::path& file : context.written()) {
    std::printf("  %s (%ju kB)\n", file.string().c_str(),
                static_cast<uintmax_t>(fs::file_size(file, error) / 1024));
  }
  std::printf("Report: %s (%ju kB)\n", reportPath.string().c_str(),
              static_cast<uintmax_t>(fs::file_size(reportPath, error) / 1024));
  std::printf("Open %s in a browser\n", reportPath.string().c_str());
  std::fflush(stdout);
  if (failed > 0) {
    throw ToolError(std::to_string(failed) + " of " + std::to_string(total) +
                    " demo steps failed");
  }
  return 0;
}

}  // namespace

namespace {

// The progress line on the terminal, if one is showing: say() prints above it.
Progress* activeProgress = nullptr;

}  // namespace

void say(const char* format, ...) {
  if (activeProgress != nullptr) activeProgress->clear();
  std::fputs("  ", stdout);
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fputc('\n', stdout);
  if (activeProgress != nullptr) activeProgress->draw();
  std::fflush(stdout);
}

std::string format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  va_end(arguments);
  return text;
}

Progress::Progress(std::string what, int total)
    : what_(std::move(what)), total_(std::max(1, total)), terminal_(isatty(STDOUT_FILENO) != 0) {
  if (terminal_) {
    activeProgress = this;
    draw();
    std::fflush(stdout);
  }
}

Progress::~Progress() { finish(); }

void Progress::update(int done) {
  done_ = std::min(done, total_);
  if (terminal_) {
    draw();
    std::fflush(stdout);
    return;
  }
  // A log gets a line at each quarter (and none for the last one: finish()
  // prints the total).
  const int quarter = done_ * 4 / total_;
  if (quarter > lastQuarter_ && done_ < total_) {
    lastQuarter_ = quarter;
    say("%s %d/%d", what_.c_str(), done_, total_);
  }
}

void Progress::finish() {
  if (finished_) return;
  finished_ = true;
  if (terminal_) {
    clear();
    activeProgress = nullptr;
  }
  say("%s %d/%d%s", what_.c_str(), done_, total_, done_ == total_ ? " done" : ", stopped");
}

void Progress::draw() {
  const int width = 30;
  const int filled = done_ * width / total_;
  std::printf("\r  %s [%s%s] %d/%d", what_.c_str(), std::string(static_cast<size_t>(filled), '#').c_str(),
              std::string(static_cast<size_t>(width - filled), '.').c_str(), done_, total_);
}

void Progress::clear() { std::fputs("\r\033[K", stdout); }

DemoContext::DemoContext(fs::path outDir, fs::path dataDir)
    : outDir_(std::move(outDir)), dataDir_(std::move(dataDir)), report_("vantix demo") {
  std::error_code error;
  haveSamples_ = fs::is_directory(dataDir_, error);
}

void DemoContext::beginStep(const std::string& name, HtmlReport::Section& section) {
  section_ = &section;
  timings_.push_back({name, 0, {}});
}

void DemoContext::endStep(double seconds) {
  if (!timings_.empty()) timings_.back().seconds = seconds;
}

void DemoContext::timing(const std::string& what, double milliseconds) {
  if (timings_.empty()) return;
  timings_.back().details.emplace_back(
      what, milliseconds >= 1000 ? format("%.2f s", milliseconds / 1000)
                                 : format("%.2f ms", milliseconds));
}

cv::Mat DemoContext::sample(const std::string& file, std::string& label) const {
  const fs::path path = dataDir_ / file;
  std::error_code error;
  if (haveSamples_ && fs::is_regular_file(path, error)) {
    try {
      cv::Mat image = readImage(path.string());
      if (image.depth() == CV_16U) image.convertTo(image, CV_8U, 1.0 / 257.0);
      if (image.channels() == 1) cv::cvtColor(image, image, cv::COLOR_GRAY2BGR);
      if (image.channels() == 4) cv::cvtColor(image, image, cv::COLOR_BGRA2BGR);
      if (image.type() == CV_8UC3) {
        label = file;
        return image;
      }
    } catch (const ToolError&) {
      // fall through to the synthetic scene
    }
  }
  label = "synthetic scene";
  return syntheticScene();
}

void DemoContext::save(const std::string& file, const cv::Mat& image) {
  const fs::path path = outDir_ / file;
  writeImage(path.string(), image);
  written_.push_back(path);
}

cv::Mat syntheticScene() {
  const cv::Size size(640, 480);
  cv::Mat scene(size, CV_8UC3);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) {
      scene.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(60 + x * 120 / size.width),
                                            static_cast<uchar>(80 + y * 100 / size.height),
                                            static_cast<uchar>(150 - x * 60 / size.width));
    }
  }
  // Fine stripes: detail that resizing and demosaicing must cope with.
  for (int x = 20; x < 200; x += 4) {
    cv::line(scene, {x, 20}, {x + 40, 140}, cv::Scalar(30, 30, 30), 1, cv::LINE_AA);
  }
  cv::rectangle(scene, {260, 40}, {420, 170}, cv::Scalar(40, 40, 210), cv::FILLED);
  cv::rectangle(scene, {300, 80}, {380, 130}, cv::Scalar(230, 230, 240), cv::FILLED);
  cv::circle(scene, {530, 110}, 70, cv::Scalar(40, 190, 60), cv::FILLED, cv::LINE_AA);
  cv::circle(scene, {150, 330}, 90, cv::Scalar(200, 120, 30), cv::FILLED, cv::LINE_AA);
  const std::vector<cv::Point> triangle = {{330, 440}, {450, 230}, {570, 440}};
  cv::fillConvexPoly(scene, triangle, cv::Scalar(20, 200, 230), cv::LINE_AA);
  cv::putText(scene, "vantix", {270, 320}, cv::FONT_HERSHEY_DUPLEX, 1.6,
              cv::Scalar(20, 20, 20), 3, cv::LINE_AA);
  cv::Mat noise(size, CV_8UC3);
  cv::RNG rng(7);
  rng.fill(noise, cv::RNG::UNIFORM, 0, 12);
  scene += noise;
  return scene;
}

Command demoCommand() {
  return {"demo", "run the library on sample images, write PNG results", kUsage, {},
          {{"out", true}, {"data", true}}, &run};
}

}  // namespace vtool
