// vantix resize IN OUT --size WxH [--interp ...]
#include <cstdio>

#include "commands.h"
#include "image_io.h"
#include "library.h"
#include "names.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix resize IN OUT --size WxH [--interp METHOD]\n"
    "\n"
    "Resizes the image IN to WxH pixels with vantix_resizeV2 and writes OUT.\n"
    "\n"
    "  IN               8-bit grey, BGR or BGRA, or 16-bit grey or BGR image\n"
    "  OUT              output file; its extension picks the format (16-bit\n"
    "                   images stay 16-bit in .png, .tif, .pgm/.ppm)\n"
    "  --size WxH       the new size, e.g. 640x480\n"
    "  --interp METHOD  nearest, linear, cubic, area, lanczos (also lanczos4)\n"
    "                   or auto (default auto: cubic when enlarging, else area)\n";

int run(const Args& args) {
  const std::string& in = args.positional(0);
  const std::string& out = args.positional(1);
  const std::optional<std::string> sizeArg = args.option("size");
  if (!sizeArg) throwUsage("missing option --size WxH");
  const cv::Size size = parseSize(*sizeArg, "--size");
  const uint32_t interpolation =
      parseName(kInterpNames, args.option("interp").value_or("auto"), "--interp");
  checkOutputPath(out);

  const cv::Mat source = readImage(in);
  bitCountFor(source);  // refuses unsupported types with a clear message
  const ResizeOutcome result = resize(source, size, interpolation);
  const bool reduced = writeImage(out, result.image);

  std::string method = interpolationName(interpolation);
  if (interpolation == VANTIX_INTER_AUTO) {
    // Mirrors the library's choice: cubic when the pixel count grows.
    const bool enlarging = static_cast<double>(size.area()) > source.size().area();
    method += enlarging ? " (cubic)" : " (area)";
  }
  std::printf("resized %s (%s, %s) -> %s (%s), interpolation %s, %.2f ms\n", in.c_str(),
              vtool::sizeText(source.size()).c_str(), describeType(source.type()).c_str(),
              out.c_str(), vtool::sizeText(size).c_str(), method.c_str(), result.milliseconds);
  if (reduced) std::printf("note: %s holds 8-bit samples only; samples scaled to 8 bits\n",
                           out.c_str());
  return 0;
}

}  // namespace

Command resizeCommand() {
  return {"resize", "resize an image (vantix_resizeV2)", kUsage, {"IN", "OUT"},
          {{"size", true}, {"interp", true}}, &run};
}

}  // namespace vtool
