// vantix spot IMAGE... [--spots N] [--passes N] [--stream] [--average N]
//                      [--roi X,Y,W,H] [--aperture CX,CY,A,B]
//                      [--dark corners|LEVEL] [--csv]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "image_io.h"
#include "spot_camera.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix spot IMAGE... [--spots N] [--passes N] [--stream] [--average N]\n"
    "                   [--roi X,Y,W,H] [--aperture CX,CY,A,B]\n"
    "                   [--dark corners|LEVEL] [--csv]\n"
    "\n"
    "Measures the bright spots of each image and prints the eleven fields of\n"
    "every spot record.  Every image is handed to the array camera and pulled\n"
    "from it with vantix_spot_pull at its own bit depth, as a host pulls live\n"
    "frames.  By default each image is measured on its own, with a spot session\n"
    "of its own: the automatic aperture starts as the ellipse inscribed in that\n"
    "image.  --stream measures the images instead as consecutive frames of one\n"
    "camera, in the order given, with one session: the aperture found in one\n"
    "frame is the next frame's, and all images need one size.\n"
    "\n"
    "  IMAGE            8- or 16-bit grey or colour image; grey images are\n"
    "                   pulled as 8- or 16-bit grey frames, colour ones as\n"
    "                   24- or 48-bit B G R frames; values as stored (raw\n"
    "                   counts), colour weighed into grey by the library\n"
    "  --spots N        spots a frame (default 1: one spot in a self-adjusting\n"
    "                   elliptical aperture; 2 or more: found by segmentation)\n"
    "  --passes N       measure each image N times in a row and report the last\n"
    "                   (default 1); with the automatic aperture each pass uses\n"
    "                   the aperture the one before left (centred on the spot,\n"
    "                   semi-axes the 4-sigma diameters), so 2 or 3 close in on a\n"
    "                   spot that the whole-image aperture measures with too\n"
    "                   much background.  Not with --stream\n"
    "  --stream         the images are consecutive frames of one camera (one\n"
    "                   session); an image whose size differs from the one\n"
    "                   before is an error\n"
    "  --average N      with N of 2 or more: --stream, averaging the fields over\n"
    "                   consecutive blocks of N frames (trimmed mean); a row is\n"
    "                   printed for each complete block, naming its frames, and\n"
    "                   frames left over at the end are not reported (stderr\n"
    "                   says so).  Default 1: no averaging\n"
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
    "Columns: frame, spot, the eleven fields, file (CSV: frame, file, spot, the\n"
    "fields).  Averaged rows have block, frames (first-last) and files (first ..\n"
    "last) instead; their CSV columns are block, first_frame, last_frame,\n"
    "first_file, last_file, spot and the fields.  An image without signal in\n"
    "the aperture gives an all-zero record.\n"
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

// Prints the records of a frame, or of an averaged block of frames, as a
// table or as CSV.
class RecordPrinter {
 public:
  RecordPrinter(bool csv, bool blocks) : csv_(csv), blocks_(blocks) {}

  void header() const {
    const std::vector<std::string>& names = spotFieldNames();
    if (csv_) {
      std::printf(blocks_ ? "block,first_frame,last_frame,first_file,last_file,spot"
                          : "frame,file,spot");
      for (const std::string& name : names) std::printf(",%s", name.c_str());
      std::printf("\n");
      return;
    }
    std::printf(blocks_ ? "%5s %9s" : "%5s", blocks_ ? "block" : "frame", "frames");
    std::printf(" %4s %12s %9s %9s %9s %9s %7s %8s %9s %9s %9s %9s  %s\n", "spot", "total",
                "centerX", "centerY", "major", "minor", "ellipt", "angle", "apX", "apY", "apA",
                "apB", blocks_ ? "files" : "file");
  }

  // One frame (`first` == `last`, no blocks) or block `block` of frames
  // first..last.
  void records(const std::vector<SpotResult>& records, size_t block, size_t first, size_t last,
               const std::string& firstFile, const std::string& lastFile) const {
    for (size_t k = 0; k < records.size(); ++k) {
      const std::vector<double> f = spotFields(records[k]);
      if (csv_) {
        if (blocks_) {
          std::printf("%zu,%zu,%zu,%s,%s,%zu", block, first, last, firstFile.c_str(),
                      lastFile.c_str(), k);
        } else {
          std::printf("%zu,%s,%zu", first, firstFile.c_str(), k);
        }
        for (const double value : f) std::printf(",%.10g", value);
        std::printf("\n");
        continue;
      }
      std::string files = firstFile;
      if (blocks_) {
        std::printf("%5zu %9s", block, (std::to_string(first) + "-" + std::to_string(last)).c_str());
        files += " .. " + lastFile;
      } else {
        std::printf("%5zu", first);
      }
      std::printf(" %4zu %12.0f %9.3f %9.3f %9.3f %9.3f %7.4f %8.3f %9.2f %9.2f %9.2f %9.2f  %s\n",
                  k, f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8], f[9], f[10],
                  files.c_str());
    }
  }

 private:
  bool csv_, blocks_;
};

int run(const Args& args) {
  const auto spots = static_cast<uint32_t>(
      parseInteger(args.option("spots").value_or("1"), "--spots", 1, 64));
  const auto average = static_cast<uint32_t>(
      parseInteger(args.option("average").value_or("1"), "--average", 1, 1000));
  const auto passes = static_cast<int>(
      parseInteger(args.option("passes").value_or("1"), "--passes", 1, 100));
  const bool csv = args.flag("csv");
  // Averaging is over consecutive frames of one session: it implies --stream.
  const bool stream = args.flag("stream") || average >= 2;
  if (stream && args.option("passes")) {
    throwUsage(std::string("--passes measures each image on its own; it does not go with ") +
               (args.flag("stream") ? "--stream" : "--average"));
  }
  const size_t fileCount = args.positionalCount();
  if (average >= 2 && fileCount < average) {
    throwUsage("--average " + std::to_string(average) + " needs at least " +
               std::to_string(average) + " images for one block, " + std::to_string(fileCount) +
               " given");
  }

  std::optional<cv::Rect> roi;
  if (const auto text = args.option("roi")) {
    const std::vector<double> v = parseFour(*text, "--roi", true);
    if (v[2] < 1 || v[3] < 1) throwUsage("--roi needs a width and height of at least 1");
    roi = cv::Rect(static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]),
                   static_cast<int>(v[3]));
  }
  std::optional<SpotAperture> aperture;
  if (const auto text = args.option("aperture")) {
    const std::vector<double> v = parseFour(*text, "--aperture", false);
    if (!(v[2] > 0 && v[3] > 0)) throwUsage("--aperture needs semi-axes greater than 0");
    aperture = SpotAperture{v[0], v[1], v[2], v[3]};
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
  for (size_t i = 0; i < fileCount; ++i) {
    cv::Mat image = readImage(args.positional(i));
    if (image.depth() != CV_8U && image.depth() != CV_16U) {
      throw ToolError("'" + args.positional(i) + "' is " + describeType(image.type()) +
                      "; spot frames are 8- or 16-bit");
    }
    // Frames of one camera keep one size; the session's aperture and
    // records would not carry over to a frame of another.
    if (stream && i > 0 && image.size() != images.back().size()) {
      throw ToolError("'" + args.positional(i) + "' is " + sizeText(image.size()) + ", '" +
                      args.positional(i - 1) + "' before it " + sizeText(images.back().size()) +
                      ": frames of one stream need one size (drop --stream" +
                      (average >= 2 ? " and --average" : "") + " to measure each image on its own)");
    }
    images.push_back(image);
  }

  // The camera is opened before any output, so that a missing camera
  // library fails cleanly.
  ArrayCamera camera(arraycamLibraryPath());

  auto newSession = [&]() {
    auto session = std::make_unique<SpotSession>(spots, stream ? average : 1);
    if (roi) session->setRoi(*roi);
    if (aperture) session->setAperture(*aperture);
    return session;
  };
  std::unique_ptr<SpotSession> session = stream ? newSession() : nullptr;

  const bool blocks = average >= 2;
  const RecordPrinter printer(csv, blocks);
  printer.header();
  for (size_t i = 0; i < images.size(); ++i) {
    const std::string& file = args.positional(i);
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
      std::fflush(stdout);
      std::fprintf(stderr, "vantix: spot: %s: dark level %s subtracted\n", file.c_str(),
                   text.c_str());
      std::fflush(stderr);
    }
    camera.show(image);  // raw bit depth: the sample size
    if (!stream) session = newSession();
    std::vector<SpotResult> records;
    for (int pass = 0; pass < (stream ? 1 : passes); ++pass) {
      records = session->pull(camera, pullBits(image));
    }
    if (!blocks) {
      printer.records(records, 0, i, i, file, file);
    } else if ((i + 1) % average == 0) {
      // The library reports the block's trimmed mean with its last frame.
      const size_t first = i + 1 - average;
      printer.records(records, i / average, first, i, args.positional(first), file);
    }
  }
  std::fflush(stdout);
  if (blocks && images.size() % average != 0) {
    const size_t left = images.size() % average;
    const std::string which =
        left == 1 ? "the last file does" : "the last " + std::to_string(left) + " files do";
    std::fprintf(stderr, "vantix: spot: %s not complete a block of %u; not reported\n",
                 which.c_str(), average);
  }
  return 0;
}

}  // namespace

Command spotCommand() {
  return {"spot",
          "measure laser spots: centre, 4-sigma diameters (vantix_spot_pull)",
          kUsage,
          {"IMAGE..."},
          {{"spots", true},
           {"average", true},
           {"passes", true},
           {"stream", false},
           {"roi", true},
           {"aperture", true},
           {"csv", false},
           {"dark", true}},
          &run};
}

}  // namespace vtool
