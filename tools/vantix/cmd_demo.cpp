// vantix demo [--out DIR] [--data DIR]: runs every operation of the library
// on real images and writes the results as PNG files.
//
// The demo is a list of steps (kSteps below).  A new feature adds its own
// step: a demo_<feature>.cpp with a function taking the DemoContext, a
// declaration in demo.h and one line in kSteps.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <system_error>

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
  void (*run)(DemoContext& context);
};

const DemoStep kSteps[] = {
    {"resize", &demoResize},
    {"demosaic", &demoDemosaic},
    {"edge snapping", &demoEdge},
    {"extended depth of field", &demoEdf},
    {"live stitching", &demoStitch},
    {"spot measurement", &demoSpot},
};

constexpr char kDefaultData[] = "/usr/share/doc/opencv-doc/examples/data";

const char kUsage[] =
    "usage: vantix demo [--out DIR] [--data DIR]\n"
    "\n"
    "Runs the library's operations on sample photographs and writes the results\n"
    "as PNG files: resizing down and up with timings, demosaicing a photo that\n"
    "was turned into a Bayer mosaic (PSNR of each algorithm), edge snapping of\n"
    "points next to edges (drawn into a picture), extended depth of field over a\n"
    "simulated focus sweep (each fuser kind), a live panorama of a simulated\n"
    "camera panning over a photograph, and a moving laser spot measured frame by\n"
    "frame.  The last three pull their frames from the simulated camera SDK.\n"
    "\n"
    "  --out DIR   where the PNG files go (default ./demo-output)\n"
    "  --data DIR  folder of sample images (default the one of Debian's\n"
    "              opencv-doc package); without it a synthetic scene is used\n";

int run(const Args& args) {
  const fs::path outDir = args.option("out").value_or("demo-output");
  const fs::path dataDir = args.option("data").value_or(kDefaultData);
  std::error_code error;
  fs::create_directories(outDir, error);
  if (!fs::is_directory(outDir)) {
    throw ToolError("cannot create the output folder '" + outDir.string() + "'" +
                    (error ? ": " + error.message() : std::string()));
  }
  initLibrary();
  DemoContext context(outDir, dataDir);
  if (!context.haveSamples()) {
    std::printf("note: no sample images in %s\n", dataDir.string().c_str());
    std::printf("      install them with: apt-get install opencv-doc\n");
    std::printf("      using a synthetic scene instead\n");
  }

  const int total = static_cast<int>(std::size(kSteps));
  int failed = 0;
  for (int i = 0; i < total; ++i) {
    std::printf("[%d/%d] %s\n", i + 1, total, kSteps[i].name);
    std::fflush(stdout);
    try {
      kSteps[i].run(context);
    } catch (const ToolError& e) {
      say("step failed: %s", e.what());
      ++failed;
    } catch (const cv::Exception& e) {
      say("step failed: OpenCV error: %s", e.err.c_str());
      ++failed;
    }
  }

  std::printf("%d files in %s:\n", static_cast<int>(context.written().size()),
              outDir.string().c_str());
  for (const fs::path& file : context.written()) {
    std::printf("  %s (%ju bytes)\n", file.string().c_str(),
                static_cast<uintmax_t>(fs::file_size(file, error)));
  }
  std::fflush(stdout);
  if (failed > 0) {
    throw ToolError(std::to_string(failed) + " of " + std::to_string(total) +
                    " demo steps failed");
  }
  return 0;
}

}  // namespace

void say(const char* format, ...) {
  std::fputs("  ", stdout);
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

DemoContext::DemoContext(fs::path outDir, fs::path dataDir)
    : outDir_(std::move(outDir)), dataDir_(std::move(dataDir)) {
  std::error_code error;
  haveSamples_ = fs::is_directory(dataDir_, error);
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
  say("-> %s (%s)", path.string().c_str(), sizeText(image.size()).c_str());
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
