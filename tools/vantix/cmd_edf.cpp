// vantix edf: fuses a focus stack with an EDF session, each frame waited for.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "tool.h"

namespace vtool {

namespace {

// `image` in the layout of session format 0..3 (8/16-bit B G R, 8/16-bit
// B G R A): samples widened or narrowed by 257, grey repeated, alpha added
// (opaque) or dropped.
cv::Mat toFormat(const cv::Mat& image, uint32_t format) {
  const int depth = format % 2 ? CV_16U : CV_8U;
  cv::Mat out = image;
  if (out.depth() != CV_8U && out.depth() != CV_16U) {
    throw ToolError(describeType(image.type()) + " frames are not supported (8- or 16-bit)");
  }
  if (out.depth() != depth) out.convertTo(out, depth, depth == CV_16U ? 257.0 : 1.0 / 257.0);
  const bool alpha = format >= 2;
  if (out.channels() == 1)
    cv::cvtColor(out, out, alpha ? cv::COLOR_GRAY2BGRA : cv::COLOR_GRAY2BGR);
  else if (out.channels() == 3 && alpha)
    cv::cvtColor(out, out, cv::COLOR_BGR2BGRA);
  else if (out.channels() == 4 && !alpha)
    cv::cvtColor(out, out, cv::COLOR_BGRA2BGR);
  return out.isContinuous() ? out : out.clone();
}

}  // namespace

Runner addEdf(CLI::App& app) {
  struct Options {
    std::vector<std::string> frames;
    std::string out;
    uint32_t kind = 0, format = 0;
    int bits = 16;
  };
  auto o = std::make_shared<Options>();
  CLI::App* cmd = app.add_subcommand("edf",
                                     "fuse a focus stack into one sharp image "
                                     "(vantix_edf_*)");
  cmd->add_option("FRAME", o->frames,
                  "8- or 16-bit grey, BGR or BGRA images of one size, in "
                  "push order; a multi-page TIFF gives its pages, a folder "
                  "its images in name order (f2 before f10)")
      ->required();
  cmd->add_option("-o,--out", o->out, "the fused image")->required();
  cmd->add_option("--kind", o->kind,
                  "pyramid_max: largest detail wins (default); "
                  "pyramid_blend: detail-weighted; stack: focus-measure blend")
      ->transform(names("edf_kind"));
  cmd->add_option("--format", o->format,
                  "session pixel format: 0 8-bit BGR (default), 1 16-bit "
                  "BGR, 2 8-bit BGRA, 3 16-bit BGRA")
      ->check(CLI::Range(0, 3));
  CLI::Option* bits = cmd->add_option("--bits", o->bits,
                                      "16-bit frames hold N-bit samples "
                                      "(default 16), scaled to 16 bits")
                          ->check(CLI::Range(9, 16));
  cmd->footer(
      "The session fuses at 8 bits a channel: 16-bit frames are reduced (a note on "
      "stderr says so once).  Formats 1 and 3 give the 8-bit result in 16-bit layout "
      "(each sample times 257), 2 and 3 add an opaque alpha channel.");
  return [o, bits] {
    checkOutputPath(o->out);
    const std::string extension = std::filesystem::path(o->out).extension();
    if (o->format >= 2 && (extension == ".ppm" || extension == ".pgm" || extension == ".pnm")) {
      throw ToolError("cannot write '" + o->out + "': " + extension +
                      " files hold no alpha channel; use .png or .tif");
    }
    const std::vector<FrameSource> sources = listFrames(o->frames);
    // Every frame is read before the session starts: a bad file stops the
    // command before any work.
    FrameReader reader("edf", o->bits, bits->count() > 0);
    std::vector<cv::Mat> frames;
    for (const FrameSource& source : sources) {
      frames.push_back(toFormat(reader.read(source), o->format));
      if (frames.back().size() != frames.front().size()) {
        throw ToolError(source.label() + " is " + sizeText(frames.back().size()) +
                        ", the first frame " + sizeText(frames.front().size()) +
                        ": all frames need one size");
      }
    }
    EdfRun session(o->format, o->kind);
    double total = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
      const cv::Mat& frame = frames[i];
      const auto start = std::chrono::steady_clock::now();
      session.session().pushback(frame.data, uint32_t(frame.cols), uint32_t(frame.rows),
                                 uint32_t(frame.step[0]));
      try {
        session.waitFor(static_cast<int>(i + 1));
      } catch (const ToolError& e) {
        throw ToolError(format("frame %zu of %zu (%s): %s", i + 1, frames.size(),
                               sources[i].label().c_str(), e.what()));
      }
      const std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - start;
      total += ms.count();
      std::printf("frame %zu of %zu: %s, %.1f ms\n", i + 1, frames.size(),
                  sources[i].label().c_str(), ms.count());
    }
    const cv::Mat fused = session.fused(frames.front().type());
    const bool reduced = writeImage(o->out, fused);
    std::printf("fused %zu frames (kind %s, format %u) in %.1f ms -> %s (%s%s)\n", frames.size(),
                nameOf("edf_kind", o->kind).c_str(), o->format, total, o->out.c_str(),
                sizeText(fused.size()).c_str(), reduced ? ", written as 8-bit" : "");
    return 0;
  };
}

}  // namespace vtool
