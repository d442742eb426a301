// vantix spot IMAGE... [--spots N] [--average N] [--roi X,Y,W,H]
//                      [--aperture CX,CY,A,B] [--csv] [--simcam PATH]
#include <cstdio>
#include <cstdlib>
#include <memory>
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
    "                   [--aperture CX,CY,A,B] [--csv] [--simcam PATH]\n"
    "\n"
    "Measures the bright spots of each image with one spot session, in the\n"
    "order given: every image is shown to the simulated camera SDK and pulled\n"
    "from it with vantix_spot_pull, as a host pulls live frames.  Prints the\n"
    "eleven fields of every spot record of every frame.\n"
    "\n"
    "  IMAGE            8- or 16-bit grey or colour image; grey images are\n"
    "                   pulled as 8- or 16-bit grey frames, colour ones as\n"
    "                   24- or 48-bit B G R frames\n"
    "  --spots N        spots a frame (default 1: one spot in a self-adjusting\n"
    "                   elliptical aperture; 2 or more: found by segmentation)\n"
    "  --average N      average over blocks of N frames (default 1: none)\n"
    "  --roi X,Y,W,H    measure only this rectangle (frame pixels)\n"
    "  --aperture CX,CY,A,B\n"
    "                   fixed elliptical aperture: centre and semi-axes\n"
    "  --csv            comma-separated values with a header line\n"
    "  --simcam PATH    the simulated camera library (default: $VANTIX_SIMCAM,\n"
    "                   or tools/simcam/libvantix_simcam.so of the build)\n";

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
  const std::string library = simcamLibraryPath(args.option("simcam").value_or(""));

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

  // The camera of the first image is opened before any output, so that a
  // missing camera library fails cleanly.
  auto camera = std::make_unique<SimCamera>(library, images[0].size());

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
    const cv::Mat& image = images[i];
    if (i > 0) {
      camera.reset();
      camera = std::make_unique<SimCamera>(library, image.size());
    }
    camera->showStill(image);
    camera->setRawBits(16);  // 16-bit grey frames use the full range
    const std::vector<SpotResult> records = session.pull(*camera, pullBits(image));
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
           {"simcam", true}},
          &run};
}

}  // namespace vtool
