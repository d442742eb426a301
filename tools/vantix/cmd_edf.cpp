// vantix edf [--kind 0|1|2] [--format 0..3] FRAME... -o OUT
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "edf_session.h"
#include "errors.h"
#include "image_io.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix edf [--kind 0|1|2] [--format 0..3] FRAME... -o OUT\n"
    "\n"
    "Fuses photographs of one scene taken at different focus into one image\n"
    "that is sharp everywhere, with an EDF session (vantix_edf_*).  The frames\n"
    "are pushed in the order given, each waited for, and must all have the\n"
    "size of the first.\n"
    "\n"
    "  FRAME...       8- or 16-bit grey, BGR or BGRA images\n"
    "  -o, --out OUT  the fused image (16-bit formats keep 16 bits where the\n"
    "                 file format can hold them, e.g. PNG or TIFF)\n"
    "  --kind K       0 pyramid, largest detail wins (default)\n"
    "                 1 pyramid, detail-weighted blend\n"
    "                 2 focus-measure blend\n"
    "  --format F     session pixel format: 0 8-bit BGR (default), 1 16-bit BGR,\n"
    "                 2 8-bit BGRA, 3 16-bit BGRA\n";

int run(const Args& args) {
  const auto kind = static_cast<uint32_t>(parseInteger(args.option("kind").value_or("0"), "--kind", 0, 2));
  const auto format =
      static_cast<uint32_t>(parseInteger(args.option("format").value_or("0"), "--format", 0, 3));
  const std::optional<std::string> out = args.option("out");
  if (!out) throw UsageError("missing -o OUT");
  checkOutputPath(*out);

  const size_t count = args.positionalCount();
  // Every frame is read before the session starts, so that a bad file stops
  // the command before any work.
  std::vector<cv::Mat> frames;
  for (size_t i = 0; i < count; ++i) {
    const std::string& path = args.positional(i);
    cv::Mat frame = toEdfFormat(readImage(path), format);
    if (!frames.empty() && frame.size() != frames.front().size()) {
      throw ToolError("'" + path + "' is " + sizeText(frame.size()) + ", the first frame " +
                      sizeText(frames.front().size()) + ": all frames need the same size");
    }
    frames.push_back(std::move(frame));
  }

  EdfSession session(format, kind);
  double total = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    double ms = 0;
    try {
      ms = session.fuse(frames[i]);
    } catch (const ToolError& e) {
      throw ToolError("frame " + std::to_string(i + 1) + " of " + std::to_string(count) + " ('" +
                      args.positional(i) + "'): " + e.what());
    }
    total += ms;
    std::printf("frame %zu of %zu: %s, %.1f ms\n", i + 1, count, args.positional(i).c_str(), ms);
    std::fflush(stdout);
  }
  const cv::Mat fused = session.fused();
  const bool reduced = writeImage(*out, fused);
  std::printf("fused %zu frames (kind %u, format %u) in %.1f ms -> %s (%s%s)\n", count, kind,
              format, total, out->c_str(), sizeText(fused.size()).c_str(),
              reduced ? ", written as 8-bit" : "");
  return 0;
}

}  // namespace

Command edfCommand() {
  return {"edf",
          "fuse a focus stack into one sharp image (vantix_edf_*)",
          kUsage,
          {"FRAME..."},
          {{"kind", true}, {"format", true}, {"out", true, 'o'}},
          &run};
}

}  // namespace vtool
