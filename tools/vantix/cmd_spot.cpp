// vantix spot: every image is handed to the array camera and pulled from it
// with vantix_spot_pull at its own bit depth, as a host pulls live frames.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "../arraycam/arraycam.h"
#include "tool.h"

namespace vtool {

namespace {

// The array camera: $VANTIX_ARRAYCAM, the build tree's
// tools/arraycam/libvantix_arraycam.so beside this program's folder, or the
// name alone (the installed run path).  Loaded for the rest of the process,
// as a host's SDK: the library binds the first camera SDK loaded.
struct ArrayCamera {
  ArraycamCamera* (*open)() = nullptr;
  int32_t (*setFrame)(ArraycamCamera*, const void*, uint32_t, uint32_t, uint32_t, uint32_t,
                      uint32_t, uint32_t) = nullptr;
  int32_t (*firstSdk)(char*, size_t) = nullptr;
  void (*close)(ArraycamCamera*) = nullptr;
  ArraycamCamera* camera = nullptr;

  ArrayCamera() {
    std::string path = "libvantix_arraycam.so";
    char self[PATH_MAX] = {};
    if (const char* env = std::getenv("VANTIX_ARRAYCAM"); env != nullptr && *env != '\0') {
      path = env;
    } else if (readlink("/proc/self/exe", self, sizeof self - 1) > 0) {
      std::string dir = self;
      dir = dir.substr(0, dir.rfind('/'));  // <build>/tools/vantix
      const std::string candidate = dir.substr(0, dir.rfind('/')) + "/arraycam/" + path;
      if (access(candidate.c_str(), R_OK) == 0) path = candidate;
    }
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      throw ToolError("cannot load the array camera '" + path + "': " + dlerror() +
                      " (give its path with VANTIX_ARRAYCAM)");
    }
    const auto resolve = [&](auto& fn, const char* name) {
      void* symbol = dlsym(library, name);
      std::memcpy(&fn, &symbol, sizeof symbol);
      if (symbol == nullptr) throw ToolError("'" + path + "' is not the array camera library");
    };
    resolve(open, "arraycam_open");
    resolve(setFrame, "arraycam_set_frame");
    resolve(firstSdk, "arraycam_first_sdk");
    resolve(close, "arraycam_close");
    char other[1024] = {};
    if (firstSdk(other, sizeof other) != 1) {
      throw ToolError(std::string("the camera SDK '") + other +
                      "' was loaded before the array "
                      "camera, and the library pulls from the first SDK loaded only");
    }
    camera = open();
    if (camera == nullptr) throw ToolError("the array camera cannot open a camera");
  }
  ~ArrayCamera() {
    if (camera != nullptr) close(camera);
  }
};

// "a,b,c,d" as four numbers.
CLI::Validator fourNumbers() {
  return CLI::Validator(
      [](std::string& text) {
        double v[4];
        char rest = 0;
        return std::sscanf(text.c_str(), "%lf,%lf,%lf,%lf%c", &v[0], &v[1], &v[2], &v[3], &rest) ==
                       4
                   ? std::string()
                   : "'" + text + "' is not four comma-separated numbers";
      },
      "A,B,C,D");
}

std::vector<double> fieldsOf(const SpotResult& r) {
  return {r.total, r.centerX,   r.centerY,   r.majorDiameter, r.minorDiameter, r.ellipticity,
          r.angle, r.apertureX, r.apertureY, r.apertureA,     r.apertureB};
}

}  // namespace

Runner addSpot(CLI::App& app) {
  struct Options {
    std::vector<std::string> files;
    uint32_t spots = 1, average = 1;
    int passes = 1;
    bool stream = false, csv = false;
    std::string roi, aperture, dark;
  };
  auto o = std::make_shared<Options>();
  CLI::App* cmd = app.add_subcommand("spot",
                                     "measure laser spots: centre, 4-sigma diameters "
                                     "(vantix_spot_pull)");
  cmd->add_option("IMAGE", o->files,
                  "8- or 16-bit grey or colour images, pulled as 8/16-bit "
                  "grey or 24/48-bit B G R frames, values as stored")
      ->required();
  cmd->add_option("--spots", o->spots,
                  "spots a frame (default 1: one spot in a self-adjusting "
                  "elliptical aperture; 2 or more: by segmentation)")
      ->check(CLI::Range(1, 64));
  CLI::Option* passes = cmd->add_option("--passes", o->passes,
                                        "measure each image N times, each pass in the "
                                        "aperture the one before left; report the last")
                            ->check(CLI::Range(1, 100));
  cmd->add_flag("--stream", o->stream,
                "the images are consecutive frames "
                "of one camera: one session, one "
                "size")
      ->excludes(passes);
  cmd->add_option("--average", o->average,
                  "with --stream, a row of trimmed means for each "
                  "complete block of N frames")
      ->check(CLI::Range(1, 1000))
      ->excludes(passes);
  cmd->add_option("--roi", o->roi, "measure only this rectangle X,Y,W,H")->check(fourNumbers());
  cmd->add_option("--aperture", o->aperture, "fixed elliptical aperture CX,CY,A,B")
      ->check(fourNumbers());
  cmd->add_option("--dark", o->dark,
                  "subtract a dark level, clamping at 0: 'corners' (the mean "
                  "of the four 5 % corner patches, per channel) or LEVEL "
                  "counts; the level used goes to stderr");
  cmd->add_flag("--csv", o->csv, "comma-separated values with a header line");
  cmd->footer(
      "By default each image is measured on its own, with a session of its own.  The "
      "array camera library is $VANTIX_ARRAYCAM, or libvantix_arraycam.so of the build "
      "or installation.");
  return [o] {
    const bool stream = o->stream || o->average >= 2, blocks = o->average >= 2;
    if (blocks && o->files.size() < o->average) {
      throw UsageError(format("--average %u needs at least %u images, %zu given", o->average,
                              o->average, o->files.size()));
    }
    double roi[4] = {}, aperture[4] = {}, darkLevel = -1;
    std::sscanf(o->roi.c_str(), "%lf,%lf,%lf,%lf", &roi[0], &roi[1], &roi[2], &roi[3]);
    std::sscanf(o->aperture.c_str(), "%lf,%lf,%lf,%lf", &aperture[0], &aperture[1], &aperture[2],
                &aperture[3]);
    if (!o->roi.empty() && (roi[0] < 0 || roi[1] < 0 || roi[2] < 1 || roi[3] < 1)) {
      throw UsageError("--roi needs X, Y of at least 0 and a width and height of at least 1");
    }
    if (!o->aperture.empty() && !(aperture[2] > 0 && aperture[3] > 0)) {
      throw UsageError("--aperture needs semi-axes greater than 0");
    }
    if (!o->dark.empty() && o->dark != "corners") {
      char rest = 0;
      if (std::sscanf(o->dark.c_str(), "%lf%c", &darkLevel, &rest) != 1 ||
          !(darkLevel >= 0 && darkLevel <= 65535)) {
        throw UsageError("--dark is 'corners' or a level of 0 to 65535, not '" + o->dark + "'");
      }
    }
    // Every file is read first, so that a bad one fails before any output.
    std::vector<cv::Mat> images;
    for (const std::string& file : o->files) {
      images.push_back(readImage(file));
      if (images.back().depth() != CV_8U && images.back().depth() != CV_16U) {
        throw ToolError("'" + file + "' is " + describeType(images.back().type()) +
                        "; spot frames are 8- or 16-bit");
      }
      if (stream && images.size() > 1 && images.back().size() != images.front().size()) {
        throw ToolError("'" + file + "' is " + sizeText(images.back().size()) + ", the first " +
                        sizeText(images.front().size()) +
                        ": frames of one stream need one size "
                        "(drop --stream to measure each image on its own)");
      }
    }
    ArrayCamera camera;  // before any output: a missing library fails cleanly
    std::optional<vantix::SpotSession> session;
    const auto newSession = [&] {
      session.emplace(o->spots, stream ? o->average : 1);
      if (!o->roi.empty()) {
        session->setRoi(uint32_t(roi[0]), uint32_t(roi[1]), uint32_t(roi[2]), uint32_t(roi[3]));
      }
      if (!o->aperture.empty()) {
        session->setAperture(SpotAperture{aperture[0], aperture[1], aperture[2], aperture[3]});
      }
    };
    const char* const names[] = {"total",         "centerX",     "centerY",  "majorDiameter",
                                 "minorDiameter", "ellipticity", "angle",    "apertureX",
                                 "apertureY",     "apertureA",   "apertureB"};
    if (o->csv) {
      std::printf(blocks ? "block,first_frame,last_frame,first_file,last_file,spot"
                         : "frame,file,spot");
      for (const char* name : names) std::printf(",%s", name);
      std::printf("\n");
    } else {
      std::printf("%5s %9s %4s %12s %9s %9s %9s %9s %7s %8s %9s %9s %9s %9s  %s\n",
                  blocks ? "block" : "frame", blocks ? "frames" : "", "spot", "total", "centerX",
                  "centerY", "major", "minor", "ellipt", "angle", "apX", "apY", "apA", "apB",
                  blocks ? "files" : "file");
    }
    std::vector<SpotResult> records(o->spots);
    std::vector<uint8_t> buffer;
    for (size_t i = 0; i < images.size(); ++i) {
      cv::Mat image = images[i];
      if (!o->dark.empty()) {
        cv::Scalar level = cv::Scalar::all(darkLevel);
        if (darkLevel < 0) {  // corners
          const cv::Size patch(std::max(1, cvRound(0.05 * image.cols)),
                               std::max(1, cvRound(0.05 * image.rows)));
          level = cv::Scalar();
          for (const cv::Point corner :
               {cv::Point(0, 0), cv::Point(image.cols - patch.width, 0),
                cv::Point(0, image.rows - patch.height),
                cv::Point(image.cols - patch.width, image.rows - patch.height)}) {
            level += cv::mean(image(cv::Rect(corner, patch))) * 0.25;
          }
          if (image.channels() == 4) level[3] = 0;
        }
        for (int c = 0; c < 4; ++c) level[c] = std::round(level[c]);
        cv::subtract(image, level, image);  // saturates at 0
        std::string text;
        for (int c = 0; c < std::min(image.channels(), 3); ++c) {
          text += format("%s%.0f", c > 0 ? " " : "", level[c]);
        }
        std::fflush(stdout);
        std::fprintf(stderr, "vantix: spot: %s: dark level %s subtracted\n", o->files[i].c_str(),
                     text.c_str());
      }
      const uint32_t sample = image.depth() == CV_16U ? 16 : 8;
      vantix::check(
          camera.setFrame(camera.camera, image.data, uint32_t(image.cols), uint32_t(image.rows),
                          sample, uint32_t(image.channels()), uint32_t(image.step), 0),
          "arraycam_set_frame");
      if (!stream || !session) newSession();
      const uint32_t bits = image.channels() == 1 ? sample : 3 * sample;
      buffer.resize(size_t(vantix_default_stride(uint32_t(image.cols), bits)) * image.rows);
      for (int pass = 0; pass < (stream ? 1 : o->passes); ++pass) {
        // A frame without signal leaves the records as they were: zeros
        // make it read as total 0, not as the frame before.
        std::fill(records.begin(), records.end(), SpotResult{});
        FrameInfoV2 info{};
        session->pull(camera.camera, buffer.data(), bits, 0, &info, records.data());
      }
      // With blocks the library reports the trimmed mean with a block's last frame.
      if (blocks && (i + 1) % o->average != 0) continue;
      const size_t first = blocks ? i + 1 - o->average : i;
      const std::string frames = blocks ? format("%zu-%zu", first, i) : "";
      const std::string files =
          blocks ? o->files[first] + (o->csv ? "," : " .. ") + o->files[i] : o->files[i];
      for (size_t k = 0; k < records.size(); ++k) {
        const std::vector<double> f = fieldsOf(records[k]);
        if (o->csv) {
          if (blocks)
            std::printf("%zu,%zu,%zu,%s,%zu", i / o->average, first, i, files.c_str(), k);
          else
            std::printf("%zu,%s,%zu", i, files.c_str(), k);
          for (const double value : f) std::printf(",%.10g", value);
          std::printf("\n");
        } else {
          std::printf(
              "%5zu %9s %4zu %12.0f %9.3f %9.3f %9.3f %9.3f %7.4f %8.3f %9.2f %9.2f "
              "%9.2f %9.2f  %s\n",
              blocks ? i / o->average : i, frames.c_str(), k, f[0], f[1], f[2], f[3], f[4], f[5],
              f[6], f[7], f[8], f[9], f[10], files.c_str());
        }
      }
    }
    std::fflush(stdout);
    if (blocks && images.size() % o->average != 0) {
      std::fprintf(stderr,
                   "vantix: spot: the last %zu file(s) do not complete a block of %u; "
                   "not reported\n",
                   images.size() % o->average, o->average);
    }
    return 0;
  };
}

}  // namespace vtool
