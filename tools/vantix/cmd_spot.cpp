// vantix spot IMAGE... [--spots N] [--average N] [--roi X,Y,W,H]
//                      [--aperture CX,CY,A,B] [--dark corners|LEVEL] [--csv]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "image_io.h"
#include "spot_camera.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix spot IMAGE... [--spots N] [--average N] [--roi X,Y,W,H]\n"
    "                   [--aperture CX,CY,A,B] [--dark corners|LEVEL] [--csv]\n"
    "\n"
    "Measures the bright spots of each image with one spot session, in the\n"
    "order given: every image is handed to the array camera and pulled from\n"
    "it with vantix_spot_pull at its own bit depth, as a host pulls live\n"
    "frames.  Prints the eleven fields of every spot record of every frame.\n"
    "\n"
    "  IMAGE            8- or 16-bit grey or colour image; grey images are\n"
    "                   pulled as 8- or 16-bit grey frames, colour ones as\n"
    "                   24- or 48-bit B G R frames; values as stored (raw\n"
    "                   counts), colour weighed into grey by the library\n"
    "  --spots N        spots a frame (default 1: one spot in a self-adjusting\n"
    "                   elliptical aperture; 2 or more: found by segmentation)\n"
    "  --average N      average over blocks of N frames (default 1: none)\n"
    "  --roi X,Y,W,H    measure only this rectangle (frame pixels)\n"
    "  --aperture CX,CY,A,B\n"
    "                   fixed elliptical aperture: centre and semi-axes\n"
    "  --dark corners|LEVEL\n"
    "                   subtract a dark level from each image before it is\n"
    "                   measured, clamping at 0: the mean of its four corner\n"
    "                   patches (5 % of each side; per channel), or LEVEL\n"
    "                   counts.  The measurement takes every value in the\n"
    "                   aperture as signal, so an offset widens the spot.\n"
    "                   The level used is reported on stderr.\n"
    "  --csv            comma-separated values with a header line\n"
    "\n"
    "The array camera library is $VANTIX_ARRAYCAM, or libvantix_arraycam.so of\n"
    "the build or installation.\n";

// "a,b,c,d" into four numbers.
std::vector<double> parseFour(const std::string& text, const std::string& what, bool integers) {
  std::vector<double> values;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const std::string part =
        text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (integers) {
      values.push_back(static_cast<double>(parseInteger(part, what, 0, 1 << 30)));
    } else {
      char* end = nullptr;
      const double value = std::strtod(part.c_str(), &end);
      if (part.empty() || *end != '\0') throwUsage(what + " must be four numbers, not '" + text + "'");
      values.push_back(value);
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  if (values.size() != 4) throwUsage(what + " must be four comma-separated values, not '" + text + "'");
  return values;
}

uint32_t pullBits(const cv::Mat& image) {
  const bool wide = image.depth() == CV_16U;
  if (image.channels() == 1) return wide ? 16 : 8;
  return wide ? 48 : 24;
}

int run(const Args& args) {
  const auto spots = static_cast<uint32_t>(
      parseInteger(args.option("spots").value_or("1"), "--spots", 1, 64));
  const auto average = static_cast<uint32_t>(
      parseInteger(args.option("average").value_or("1"), "--average", 1, 1000));
  const bool csv = args.flag("csv");

  SpotSession session(spots, average);
  if (const auto roi = args.option("roi")) {
    const std::vector<double> v = parseFour(*roi, "--roi", true);
    if (v[2] < 1 || v[3] < 1) throwUsage("--roi needs a width and height of at least 1");
    session.setRoi(cv::Rect(static_cast<int>(v[0]), static_cast<int>(v[1]),
                            static_cast<int>(v[2]), static_cast<int>(v[3])));
  }
  if (const auto aperture = args.option("aperture")) {
    const std::vector<double> v = parseFour(*aperture, "--aperture", false);
    if (!(v[2] > 0 && v[3] > 0)) throwUsage("--aperture needs semi-axes greater than 0");
    session.setAperture({v[0], v[1], v[2], v[3]});
  }
  // --dark: "corners", or a level in counts.
  bool darkCorners = false;
  double darkLevel = -1;
  if (const auto dark = args.option("dark")) {
    if (*dark == "corners") {
      darkCorners = true;
    } else {
      char* end = nullptr;
      darkLevel = std::strtod(dark->c_str(), &end);
      if (dark->empty() || *end != '\0' || !(darkLevel >= 0 && darkLevel <= 65535)) {
        throwUsage("--dark is 'corners' or a level of 0 to 65535, not '" + *dark + "'");
      }
    }
  }

  // Read every file first, so that a bad one fails before any output.
  std::vector<cv::Mat> images;
  for (size_t i = 0; i < args.positionalCount(); ++i) {
    cv::Mat image = readImage(args.positional(i));
    if (image.depth() != CV_8U && image.depth() != CV_16U) {
      throw ToolError("'" + args.positional(i) + "' is " + describeType(image.type()) +
                      "; spot frames are 8- or 16-bit");
    }
    images.push_back(image);
  }

  // The camera is opened before any output, so that a missing camera
  // library fails cleanly.
  ArrayCamera camera(arraycamLibraryPath());

  const std::vector<std::string>& names = spotFieldNames();
  if (csv) {
    std::printf("frame,file,spot");
    for (const std::string& name : names) std::printf(",%s", name.c_str());
    std::printf("\n");
  } else {
    std::printf("%5s %4s %12s %9s %9s %9s %9s %7s %8s %9s %9s %9s %9s  %s\n", "frame", "spot",
                "total", "centerX", "centerY", "major", "minor", "ellipt", "angle", "apX", "apY",
                "apA", "apB", "file");
  }
  for (size_t i = 0; i < images.size(); ++i) {
    cv::Mat image = images[i];
    if (darkCorners || darkLevel >= 0) {
      const cv::Scalar level = darkCorners ? cornerDarkLevel(image) : cv::Scalar::all(darkLevel);
      image = subtractDarkLevel(image, level);
      std::string text;
      for (int c = 0; c < std::min(image.channels(), 3); ++c) {
        char value[32];
        std::snprintf(value, sizeof value, "%s%.0f", c > 0 ? " " : "", std::round(level[c]));
        text += value;
      }
      std::fprintf(stderr, "vantix: spot: %s: dark level %s subtracted\n",
                   args.positional(i).c_str(), text.c_str());
    }
    camera.show(image);  // raw bit depth: the sample size
    const std::vector<SpotResult> records = session.pull(camera, pullBits(image));
    for (uint32_t k = 0; k < spots; ++k) {
      const std::vector<double> f = spotFields(records[k]);
      if (csv) {
        std::printf("%zu,%s,%u", i, args.positional(i).c_str(), k);
        for (const double value : f) std::printf(",%.10g", value);
        std::printf("\n");
      } else {
        std::printf("%5zu %4u %12.0f %9.3f %9.3f %9.3f %9.3f %7.4f %8.3f %9.2f %9.2f %9.2f %9.2f  %s\n",
                    i, k, f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8], f[9], f[10],
                    args.positional(i).c_str());
      }
    }
  }
  return 0;
}

}  // namespace

Command spotCommand() {
  return {"spot",
          "measure laser spots: centre, 4-sigma diameters (vantix_spot_pull)",
          kUsage,
          {"IMAGE..."},
          {{"spots", true}, {"average", true}, {"roi", true}, {"aperture", true}, {"csv", false},
           {"dark", true}},
          &run};
}

}  // namespace vtool
