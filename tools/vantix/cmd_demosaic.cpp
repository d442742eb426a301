// vantix demosaic RAW OUT --pattern P --bits N [--algorithm A] [--order O]
#include <cstdio>

#include <opencv2/imgproc.hpp>

#include "commands.h"
#include "errors.h"
#include "image_io.h"
#include "library.h"
#include "names.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix demosaic RAW OUT --pattern P --bits N [--algorithm A] [--order O]\n"
    "\n"
    "Turns a raw Bayer frame into a colour image with vantix_demosaic.\n"
    "\n"
    "  RAW              one-channel image (PGM, PNG, TIFF), one sample a pixel:\n"
    "                   8-bit file for --bits 8, 16-bit file for --bits 9..16\n"
    "  OUT              colour output; 16-bit results stay 16-bit in .png and .tif,\n"
    "                   with N-bit samples scaled to the full 16-bit range\n"
    "  --pattern P      colour filter of the sensor: RGGB, BGGR, GRBG or GBRG\n"
    "  --bits N         significant bits a sample, 8..16\n"
    "  --algorithm A    bilinear (default), vng (8-bit only) or edge_aware\n"
    "                   (also ea)\n"
    "  --order O        channel order asked of the library: bgr (default), bgra,\n"
    "                   rgb or rgba (4 channels with bilinear only); OUT is\n"
    "                   always written so that it shows true colours\n";

int run(const Args& args) {
  const std::string& in = args.positional(0);
  const std::string& out = args.positional(1);
  const auto pattern = args.option("pattern");
  if (!pattern) throwUsage("missing option --pattern RGGB|BGGR|GRBG|GBRG");
  const auto bitsArg = args.option("bits");
  if (!bitsArg) throwUsage("missing option --bits N (8..16)");
  // The table's value for a pattern is the code that gives the named
  // sensor true colours (the library reads the G-first codes with red and
  // blue exchanged), so it goes to the library as it is.
  const uint32_t bayer = parseName(kPatternNames, *pattern, "--pattern");
  const int bits = static_cast<int>(parseInteger(*bitsArg, "--bits", 8, 16));
  const uint32_t algorithm =
      parseName(kAlgorithmNames, args.option("algorithm").value_or("bilinear"), "--algorithm");
  const uint32_t order = parseName(kOrderNames, args.option("order").value_or("bgr"), "--order");
  checkOutputPath(out);

  const cv::Mat raw = readImage(in);
  if (raw.channels() != 1) {
    throw ToolError("'" + in + "' is " + describeType(raw.type()) +
                    "; a raw frame has one channel (a grey image)");
  }
  if (raw.depth() != CV_8U && raw.depth() != CV_16U) {
    throw ToolError("'" + in + "' is " + describeType(raw.type()) +
                    "; a raw frame has 8- or 16-bit samples");
  }
  if (raw.depth() == CV_8U && bits != 8) {
    throw ToolError("'" + in + "' has 8-bit samples; use --bits 8");
  }
  if (raw.depth() == CV_16U && bits == 8) {
    throw ToolError("'" + in + "' has 16-bit samples; use --bits 9..16");
  }
  double highest = 0;
  cv::minMaxLoc(raw, nullptr, &highest);
  if (highest > (1 << bits) - 1) {
    throw ToolError("'" + in + "' has samples up to " + std::to_string(static_cast<int>(highest)) +
                    ", more than " + std::to_string(bits) + " bits hold");
  }

  const DemosaicOutcome result = demosaic(raw, bits, bayer, order, algorithm);
  cv::Mat colour = result.image;
  if (order == VANTIX_DEMOSAIC_RGB) cv::cvtColor(colour, colour, cv::COLOR_RGB2BGR);
  if (order == VANTIX_DEMOSAIC_RGBA) cv::cvtColor(colour, colour, cv::COLOR_RGBA2BGRA);
  if (bits > 8 && bits < 16) {
    // N significant bits would look nearly black in a viewer.
    colour.convertTo(colour, CV_16U, 65535.0 / ((1 << bits) - 1));
  }
  const bool reduced = writeImage(out, colour);

  std::printf("demosaiced %s (%s, %s, %d bits) -> %s (%s, %s), %.2f ms\n", in.c_str(),
              sizeText(raw.size()).c_str(), nameOf(kPatternNames, bayer).c_str(), bits,
              out.c_str(), nameOf(kAlgorithmNames, algorithm).c_str(),
              nameOf(kOrderNames, order).c_str(), result.milliseconds);
  if (reduced) std::printf("note: %s holds 8-bit samples only; samples scaled to 8 bits\n",
                           out.c_str());
  return 0;
}

}  // namespace

Command demosaicCommand() {
  return {"demosaic",
          "demosaic a raw Bayer frame (vantix_demosaic)",
          kUsage,
          {"RAW", "OUT"},
          {{"pattern", true}, {"bits", true}, {"algorithm", true}, {"order", true}},
          &run};
}

}  // namespace vtool
