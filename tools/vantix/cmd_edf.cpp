// vantix edf FRAME... -o OUT [--kind KIND] [--format 0..3] [--bits 9..16]
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "commands.h"
#include "edf_session.h"
#include "errors.h"
#include "image_io.h"
#include "names.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix edf FRAME... -o OUT [--kind KIND] [--format 0..3] [--bits 9..16]\n"
    "\n"
    "Fuses photographs of one scene taken at different focus into one image\n"
    "that is sharp everywhere, with an EDF session (vantix_edf_*).  The frames\n"
    "are pushed in the order given, each waited for, and must all have the\n"
    "size of the first.\n"
    "\n"
    "  FRAME...       8- or 16-bit grey, BGR or BGRA images; a multi-page TIFF\n"
    "                 gives all its pages, a folder its image files in name\n"
    "                 order (numbers by value: f2 before f10)\n"
    "  -o, --out OUT  the fused image\n"
    "  --kind KIND    pyramid_max    pyramid, largest detail wins (default)\n"
    "                 pyramid_blend  pyramid, detail-weighted blend\n"
    "                 stack          focus-measure blend\n"
    "                 (0, 1 and 2 name the same kinds)\n"
    "  --format F     pixel format of the session: 0 8-bit BGR (default),\n"
    "                 1 16-bit BGR, 2 8-bit BGRA, 3 16-bit BGRA\n"
    "  --bits N       16-bit frames hold N-bit samples (9..16, default 16), e.g.\n"
    "                 12 for a 12-bit camera's 0..4095: they are scaled to the\n"
    "                 full 16-bit range (shifted left by 16 - N, larger samples\n"
    "                 clipped) before they are pushed\n"
    "\n"
    "The session works on 8 bits a channel whatever the format: 16-bit frames\n"
    "are reduced to 8 bits before fusion (a note on stderr says so once and,\n"
    "when the first 16-bit frame's samples fit in fewer bits, suggests --bits).\n"
    "Formats 1 and 3 hand the 8-bit result back in 16-bit layout, each sample\n"
    "times 257 (255 becomes 65535); formats 2 and 3 add an opaque alpha\n"
    "channel.  PNG and TIFF files keep that layout; PPM keeps 16-bit BGR but no\n"
    "alpha; other formats get 8-bit samples.\n";

int run(const Args& args) {
  const uint32_t kind =
      parseName(kEdfKindNames, args.option("kind").value_or("pyramid_max"), "--kind");
  const auto format =
      static_cast<uint32_t>(parseInteger(args.option("format").value_or("0"), "--format", 0, 3));
  const auto bits =
      static_cast<int>(parseInteger(args.option("bits").value_or("16"), "--bits", 9, 16));
  const bool bitsGiven = args.option("bits").has_value();
  const std::optional<std::string> out = args.option("out");
  if (!out) throw UsageError("missing -o OUT");
  checkOutputPath(*out);
  // The PNM formats hold no alpha channel: refuse before the work, not after.
  const std::string extension = std::filesystem::path(*out).extension().string();
  if (CV_MAT_CN(edfFormatType(format)) == 4) {
    for (const char* pnm : {".ppm", ".pgm", ".pnm", ".pxm", ".pbm"}) {
      if (equalsIgnoringCase(extension, pnm)) {
        throw ToolError("cannot write '" + *out + "': " + pnm +
                        " files hold no alpha channel (--format " + std::to_string(format) +
                        "); use .png or .tif");
      }
    }
  }

  std::vector<std::string> paths;
  for (size_t i = 0; i < args.positionalCount(); ++i) paths.push_back(args.positional(i));
  const std::vector<FrameSource> sources = listFrames(paths);
  const size_t count = sources.size();
  // Every frame is read before the session starts, so that a bad file stops
  // the command before any work.
  std::vector<cv::Mat> frames;
  bool sixteenBit = false;
  std::string depthNote;  // about the first 16-bit frame's samples
  std::string clipNote;   // about the first frame with samples beyond --bits
  for (const FrameSource& source : sources) {
    const cv::Mat image = readFrame(source);
    if (image.depth() == CV_16U && !sixteenBit) {
      int suggested = 0;
      depthNote = bitsGiven
                      ? ", after scaling " + std::to_string(bits) + "-bit samples to 16 bits"
                      : sampleDepthHint(image, &suggested);
    }
    sixteenBit = sixteenBit || image.depth() == CV_16U;
    bool clipped = false;
    cv::Mat frame = toEdfFormat(widenSamples(image, bits, &clipped), format);
    if (clipped && clipNote.empty()) {
      const std::string top = std::to_string((1 << bits) - 1);
      clipNote = "vantix: edf: note: " + source.label() + " has samples above " + top +
                 ", the largest of " + std::to_string(bits) + " bits (--bits " +
                 std::to_string(bits) + "): they are taken as " + top + "\n";
    }
    if (!frames.empty() && frame.size() != frames.front().size()) {
      throw ToolError(source.label() + " is " + sizeText(frame.size()) + ", the first frame " +
                      sizeText(frames.front().size()) + ": all frames need the same size");
    }
    frames.push_back(std::move(frame));
  }
  if (sixteenBit) {
    std::fprintf(stderr,
                 "vantix: edf: note: 16-bit frames are fused at 8 bits a channel (the "
                 "session's working image)%s\n",
                 depthNote.c_str());
    std::fputs(clipNote.c_str(), stderr);
    std::fflush(stderr);
  }

  EdfSession session(format, kind);
  double total = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    double ms = 0;
    try {
      ms = session.fuse(frames[i]);
    } catch (const ToolError& e) {
      throw ToolError("frame " + std::to_string(i + 1) + " of " + std::to_string(count) + " (" +
                      sources[i].label() + "): " + e.what());
    }
    total += ms;
    std::printf("frame %zu of %zu: %s, %.1f ms\n", i + 1, count, sources[i].label().c_str(), ms);
    std::fflush(stdout);
  }
  const cv::Mat fused = session.fused();
  const bool reduced = writeImage(*out, fused);
  std::printf("fused %zu frames (kind %s, format %u) in %.1f ms -> %s (%s%s)\n", count,
              nameOf(kEdfKindNames, kind).c_str(), format, total, out->c_str(),
              sizeText(fused.size()).c_str(), reduced ? ", written as 8-bit" : "");
  return 0;
}

}  // namespace

Command edfCommand() {
  return {"edf",
          "fuse a focus stack into one sharp image (vantix_edf_*)",
          kUsage,
          {"FRAME..."},
          {{"kind", true}, {"format", true}, {"out", true, 'o'}, {"bits", true}},
          &run};
}

}  // namespace vtool
