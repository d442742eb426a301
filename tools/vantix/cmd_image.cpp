// The single-image subcommands: resize, demosaic, edge.
#include <chrono>
#include <cstdio>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "tool.h"

namespace vtool {

namespace {

double millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

void noteReduced(bool reduced, const std::string& out) {
  if (reduced) std::printf("note: %s holds 8-bit samples only; scaled to 8 bits\n", out.c_str());
}

// "WxH" of positive sizes up to 65536.
CLI::Validator sizeCheck() {
  return CLI::Validator(
      [](std::string& text) {
        int width = 0, height = 0;
        char rest = 0;
        if (std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &rest) != 2 || width < 1 ||
            height < 1 || width > 65536 || height > 65536) {
          return "'" + text + "' is not WIDTHxHEIGHT (e.g. 640x480)";
        }
        return std::string();
      },
      "WxH");
}

}  // namespace

Runner addResize(CLI::App& app) {
  struct Options {
    std::string in, out, size;
    uint32_t interp = VANTIX_INTER_AUTO;
  };
  auto o = std::make_shared<Options>();
  CLI::App* cmd = app.add_subcommand("resize", "resize an image (vantix_resizeV2)");
  cmd->add_option("IN", o->in, "8-bit grey, BGR or BGRA, or 16-bit grey or BGR image")->required();
  cmd->add_option("OUT", o->out, "output file; 16-bit stays 16-bit in .png, .tif, .pgm/.ppm")
      ->required();
  cmd->add_option("--size", o->size, "the new size, e.g. 640x480")->required()->check(sizeCheck());
  cmd->add_option("--interp", o->interp,
                  "interpolation (default auto: cubic when enlarging, "
                  "else area)")
      ->transform(names("interp"));
  return [o] {
    cv::Size size;
    std::sscanf(o->size.c_str(), "%dx%d", &size.width, &size.height);
    checkOutputPath(o->out);
    const cv::Mat source = readImage(o->in);
    const uint16_t bits = bitCountFor(source);
    Padded src = padded(source.size(), source.type(), bits);
    Padded dst = padded(size, source.type(), bits);
    source.copyTo(src.view);
    const auto start = std::chrono::steady_clock::now();
    vantix::resize(
        vantix::ImageView(src.buffer.data, uint32_t(source.cols), uint32_t(source.rows), bits),
        vantix::ImageView(dst.buffer.data, uint32_t(size.width), uint32_t(size.height), bits),
        o->interp);
    const double ms = millisecondsSince(start);
    const bool reduced = writeImage(o->out, dst.view);
    std::printf("resized %s (%s, %s) -> %s (%s), interpolation %s, %.2f ms\n", o->in.c_str(),
                sizeText(source.size()).c_str(), describeType(source.type()).c_str(),
                o->out.c_str(), sizeText(size).c_str(), nameOf("interp", o->interp).c_str(), ms);
    noteReduced(reduced, o->out);
    return 0;
  };
}

Runner addDemosaic(CLI::App& app) {
  struct Options {
    std::string in, out;
    uint32_t pattern = 0, algorithm = VANTIX_DEMOSAIC_BILINEAR, order = VANTIX_DEMOSAIC_BGR;
    int bits = 8;
  };
  auto o = std::make_shared<Options>();
  CLI::App* cmd = app.add_subcommand("demosaic", "demosaic a raw Bayer frame (vantix_demosaic)");
  cmd->add_option("RAW", o->in,
                  "one-channel image, one sample a pixel: an 8-bit file for "
                  "--bits 8, a 16-bit file for --bits 9..16")
      ->required();
  cmd->add_option("OUT", o->out,
                  "colour output; 16-bit results stay 16-bit in .png and .tif, "
                  "N-bit samples scaled to the full 16-bit range")
      ->required();
  cmd->add_option("--pattern", o->pattern, "colour filter of the sensor")
      ->required()
      ->transform(names("pattern"));
  cmd->add_option("--bits", o->bits, "significant bits a sample")
      ->required()
      ->check(CLI::Range(8, 16));
  cmd->add_option("--algorithm", o->algorithm, "default bilinear; vng takes 8-bit only")
      ->transform(names("algorithm"));
  cmd->add_option("--order", o->order,
                  "channel order asked of the library (default bgr; 4 "
                  "channels with bilinear only); OUT always shows true "
                  "colours")
      ->transform(names("order"));
  return [o] {
    checkOutputPath(o->out);
    const cv::Mat raw = readImage(o->in);
    const int depth = o->bits == 8 ? CV_8U : CV_16U;
    if (raw.type() != CV_MAKETYPE(depth, 1)) {
      throw ToolError(format("'%s' is %s; --bits %d takes %s grey frames", o->in.c_str(),
                             describeType(raw.type()).c_str(), o->bits,
                             o->bits == 8 ? "8-bit" : "16-bit"));
    }
    double highest = 0;
    cv::minMaxLoc(raw, nullptr, &highest);
    if (highest >= (1 << o->bits)) {
      throw ToolError(format("'%s' has samples up to %.0f, more than %d bits hold", o->in.c_str(),
                             highest, o->bits));
    }
    const bool alpha = o->order == VANTIX_DEMOSAIC_BGRA || o->order == VANTIX_DEMOSAIC_RGBA;
    const int type = CV_MAKETYPE(depth, alpha ? 4 : 3);
    Padded out = padded(raw.size(), type, (o->bits == 8 ? 8 : 16) * (alpha ? 4 : 3));
    const cv::Mat packed = raw.clone();
    const auto start = std::chrono::steady_clock::now();
    try {
      vantix::demosaic(packed.data, out.view.data, uint32_t(raw.cols), uint32_t(raw.rows), o->bits,
                       o->pattern, o->order, o->algorithm);
    } catch (const vantix::Error& e) {
      if (e.result() != VANTIX_E_NOTIMPL) throw;
      throw ToolError(std::string(e.what()) + " (not offered for this depth, order and algorithm)");
    }
    const double ms = millisecondsSince(start);
    cv::Mat colour = out.view;
    if (o->order == VANTIX_DEMOSAIC_RGB) cv::cvtColor(colour, colour, cv::COLOR_RGB2BGR);
    if (o->order == VANTIX_DEMOSAIC_RGBA) cv::cvtColor(colour, colour, cv::COLOR_RGBA2BGRA);
    // N significant bits would look nearly black in a viewer.
    if (o->bits > 8) colour.convertTo(colour, CV_16U, 65535.0 / ((1 << o->bits) - 1));
    const bool reduced = writeImage(o->out, colour);
    std::printf("demosaiced %s (%s, %s, %d bits) -> %s (%s, %s), %.2f ms\n", o->in.c_str(),
                sizeText(raw.size()).c_str(), nameOf("pattern", o->pattern).c_str(), o->bits,
                o->out.c_str(), nameOf("algorithm", o->algorithm).c_str(),
                nameOf("order", o->order).c_str(), ms);
    noteReduced(reduced, o->out);
    return 0;
  };
}

Runner addEdge(CLI::App& app) {
  struct Options {
    std::string image;
    int x = 0, y = 0;
    uint32_t size = 20;
  };
  auto o = std::make_shared<Options>();
  CLI::App* cmd = app.add_subcommand("edge",
                                     "snap a point onto the nearest edge "
                                     "(vantix_edge_get)");
  cmd->add_option("IMAGE", o->image, "8- or 16-bit grey, BGR or BGRA image")->required();
  cmd->add_option("X", o->x, "the point's column, 0-based")->required();
  cmd->add_option("Y", o->y, "the point's row, 0-based")->required();
  cmd->add_option("--size", o->size,
                  "search size: the search area is 3N pixels a side and an "
                  "edge point must lie closer than N pixels (default 20)")
      ->check(CLI::Range(1, 50));
  return [o] {
    cv::Mat image = readImage(o->image);
    if (image.channels() == 1) cv::cvtColor(image, image, cv::COLOR_GRAY2BGR);
    const bool wide = image.depth() == CV_16U, alpha = image.channels() == 4;
    if (image.depth() != CV_8U && !wide) bitCountFor(image);  // refuses with the type
    const uint32_t pixelFormat =
        (wide ? VANTIX_FORMAT_BGR16 : VANTIX_FORMAT_BGR8) + (alpha ? 2 : 0);
    if (o->x < 0 || o->y < 0 || o->x >= image.cols || o->y >= image.rows) {
      throw ToolError(format("point (%d,%d) lies outside '%s' (%s)", o->x, o->y, o->image.c_str(),
                             sizeText(image.size()).c_str()));
    }
    if (image.cols < 2 || image.rows < 2) throw ToolError("the image is too small (2x2 at least)");
    const uint32_t bits = (wide ? 16 : 8) * static_cast<uint32_t>(image.channels());
    Padded frame = padded(image.size(), image.type(), bits);
    image.copyTo(frame.view);
    vantix::EdgeSession session(pixelFormat, uint32_t(image.cols), uint32_t(image.rows), o->size);
    int32_t x = o->x, y = o->y;
    if (session.get(frame.view.data, x, y))
      std::printf("snapped (%d,%d) -> (%d,%d)\n", o->x, o->y, x, y);
    else
      std::printf("no edge within %u px of (%d,%d)\n", o->size, o->x, o->y);
    return 0;
  };
}

}  // namespace vtool
