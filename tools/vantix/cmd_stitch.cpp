// vantix stitch FRAME... -o PANO [--crop] [--scale-level 0..4] [--strict-level 0..4]
//                        [--fps N] [--positions FILE.csv]
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include <opencv2/imgproc.hpp>

#include "commands.h"
#include "errors.h"
#include "image_io.h"
#include "stitch_session.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix stitch FRAME... -o PANO [--crop] [--scale-level 0..4]\n"
    "                     [--strict-level 0..4] [--fps N] [--positions FILE.csv]\n"
    "\n"
    "Stitches the frames, in the order given, into a panorama with a live stitch\n"
    "session (vantix_stitch_*), as if they came from a camera moving over the\n"
    "scene, and writes the panorama that vantix_stitch_stop returns.\n"
    "\n"
    "  FRAME...            images of one size: 8- or 16-bit grey, BGR or BGRA\n"
    "                      (16-bit samples and alpha are reduced to 8-bit BGR)\n"
    "  -o, --out PANO      the panorama file (PNG, TIFF, JPEG, ...)\n"
    "  --crop              only the covered rectangle (default: the whole canvas,\n"
    "                      uncovered parts shown as a checkerboard)\n"
    "  --scale-level L     working-copy size 10, 15, 20, 30, 40 % for L = 0..4\n"
    "                      (default 2)\n"
    "  --strict-level L    how sharp and well matched a frame must be to be\n"
    "                      placed, 0 (lenient) .. 4 (strict) (default 2)\n"
    "  --fps N             push N frames a second, as a camera would: the session\n"
    "                      then skips frames it cannot keep up with; 0 waits for\n"
    "                      each frame to be processed before the next (default 30)\n"
    "  --positions F.csv   one line per processed frame: where it went on the\n"
    "                      canvas and in the written panorama, and what happened\n"
    "\n"
    "Progress and the session's events (tracking lost, tracking regained, canvas\n"
    "grew) are printed as they happen.\n";

// The frame as the session takes it: 8-bit B G R.  The panorama of
// vantix_stitch_stop is always 3 bytes a pixel, so the tool converts here
// rather than push 16-bit or BGRA frames.
cv::Mat toBgr8(const cv::Mat& image, const std::string& path) {
  cv::Mat frame = image;
  if (frame.depth() == CV_16U) frame.convertTo(frame, CV_8U, 1.0 / 257.0);
  if (frame.depth() != CV_8U) {
    throw ToolError("'" + path + "' is " + describeType(image.type()) +
                    "; frames must be 8- or 16-bit grey, BGR or BGRA");
  }
  if (frame.channels() == 1) cv::cvtColor(frame, frame, cv::COLOR_GRAY2BGR);
  if (frame.channels() == 4) cv::cvtColor(frame, frame, cv::COLOR_BGRA2BGR);
  if (frame.type() != CV_8UC3) {
    throw ToolError("'" + path + "' is " + describeType(image.type()) +
                    "; frames must be 8- or 16-bit grey, BGR or BGRA");
  }
  return frame;
}

void printEvents(StitchSession& session, size_t pushed) {
  for (uint32_t code : session.takeEvents()) {
    // "canvas growing" always precedes "canvas grew" (or a failure): skip it.
    if (code == VANTIX_STITCH_EVENT_CANVAS_GROWING) continue;
    std::printf("  after frame %zu: %s\n", pushed, stitchEventName(code).c_str());
  }
  std::fflush(stdout);
}

void writePositions(const std::string& path, const std::vector<StitchReport>& reports,
                    const std::vector<std::string>& frameNames, cv::Point panoramaOrigin) {
  std::ofstream out(path);
  if (!out) throw ToolError("cannot write '" + path + "'");
  out << "report,frame,mode,canvas_x,canvas_y,canvas_width,canvas_height,panorama_x,"
         "panorama_y,sharpness,seconds\n";
  const std::vector<cv::Point> finals = finalCanvasPositions(reports);
  for (size_t i = 0; i < reports.size(); ++i) {
    const StitchReport& r = reports[i];
    const cv::Point p = finals[i] - panoramaOrigin;
    // The frame's file is known only when each frame was waited for.
    const std::string frame = i < frameNames.size() ? frameNames[i] : std::string();
    char line[512];
    std::snprintf(line, sizeof line, "%zu,\"%s\",%s,%d,%d,%d,%d,%d,%d,%.4f,%.3f\n", i,
                  frame.c_str(), stitchModeName(r.mode).c_str(), r.position.x, r.position.y,
                  r.canvas.width, r.canvas.height, p.x, p.y, static_cast<double>(r.score),
                  r.seconds);
    out << line;
  }
  if (!out) throw ToolError("cannot write '" + path + "'");
}

int run(const Args& args) {
  std::vector<std::string> paths;
  for (size_t i = 0; i < args.positionalCount(); ++i) paths.push_back(args.positional(i));
  const std::string out = args.option("out").value_or("");
  if (out.empty()) throwUsage("missing option -o PANO");
  const auto scaleLevel =
      static_cast<uint32_t>(parseInteger(args.option("scale-level").value_or("2"), "--scale-level", 0, 4));
  const auto strictLevel = static_cast<uint32_t>(
      parseInteger(args.option("strict-level").value_or("2"), "--strict-level", 0, 4));
  const int64_t fps = parseInteger(args.option("fps").value_or("30"), "--fps", 0, 1000);
  const bool cropped = args.flag("crop");
  const std::optional<std::string> positionsPath = args.option("positions");
  checkOutputPath(out);

  // The first frame fixes the session's frame size; the others are read as
  // they are pushed (a scan can be longer than memory allows to hold).
  cv::Mat first = toBgr8(readImage(paths[0]), paths[0]);
  if (first.cols < 16 || first.rows < 16) {
    throw ToolError("'" + paths[0] + "' is " + sizeText(first.size()) +
                    "; frames must be at least 16x16");
  }
  StitchSession session(first.size(), scaleLevel, strictLevel, 0);
  std::printf("stitching %zu frames of %s (scale level %u, strict level %u, %s)\n", paths.size(),
              sizeText(first.size()).c_str(), scaleLevel, strictLevel,
              fps > 0 ? (std::to_string(fps) + " frames a second").c_str()
                      : "every frame processed");
  std::fflush(stdout);

  session.start();
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const size_t progressStep = std::max<size_t>(1, paths.size() / 10);
  for (size_t i = 0; i < paths.size(); ++i) {
    cv::Mat frame = i == 0 ? first : toBgr8(readImage(paths[i]), paths[i]);
    if (frame.size() != first.size()) {
      throw ToolError("'" + paths[i] + "' is " + sizeText(frame.size()) + ", the first frame is " +
                      sizeText(first.size()));
    }
    if (fps > 0) {
      std::this_thread::sleep_until(begin + std::chrono::microseconds(i * 1000000 / fps));
    }
    session.push(frame);
    if (fps == 0 && !session.waitForReports(i + 1, std::chrono::seconds(60))) {
      printEvents(session, i + 1);
      if (session.failed()) throw ToolError("the stitch session stopped after a failure");
      throw ToolError("no report from the stitch session for '" + paths[i] + "'");
    }
    printEvents(session, i + 1);
    if (session.failed()) throw ToolError("the stitch session stopped after a failure");
    if ((i + 1) % progressStep == 0 || i + 1 == paths.size()) {
      std::printf("  %zu/%zu frames pushed, %zu processed\n", i + 1, paths.size(),
                  session.reportCount());
      std::fflush(stdout);
    }
  }
  if (fps > 0 && paths.size() > 1) {
    // Reading the files can be slower than the rate asked for; say so.
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const double rate = (paths.size() - 1) / std::max(seconds, 1e-6);
    if (rate < 0.95 * static_cast<double>(fps)) {
      std::printf("  frames were read and pushed at only %.1f a second\n", rate);
    }
  }
  // At a live rate the queue still holds frames: let the worker finish them.
  if (fps > 0) session.waitUntilQuiet(std::chrono::milliseconds(500), std::chrono::seconds(30));
  printEvents(session, paths.size());

  const cv::Mat panorama = session.stop(cropped);
  const cv::Rect crop = session.cropRect();
  printEvents(session, paths.size());
  const std::vector<StitchReport> reports = session.reports();
  size_t byMode[5] = {0, 0, 0, 0, 0};
  for (const StitchReport& r : reports) ++byMode[r.mode < 5 ? r.mode : 0];
  std::printf("%zu frames processed: %zu placed, %zu kept, %zu lost, %zu not placed\n",
              reports.size(), byMode[1], byMode[2], byMode[3], byMode[4]);
  if (panorama.empty()) throw ToolError("the stitch session returned no panorama");
  if (positionsPath) {
    writePositions(*positionsPath, reports, fps == 0 ? paths : std::vector<std::string>(),
                   cropped ? crop.tl() : cv::Point(0, 0));
  }
  writeImage(out, panorama);
  std::printf("panorama %s written to %s\n", sizeText(panorama.size()).c_str(), out.c_str());
  return 0;
}

}  // namespace

Command stitchCommand() {
  return {"stitch",
          "stitch frames into a panorama with a live session (vantix_stitch_*)",
          kUsage,
          {"FRAME..."},
          {{"out", true, 'o'},
           {"crop", false},
           {"scale-level", true},
           {"strict-level", true},
           {"fps", true},
           {"positions", true}},
          &run};
}

}  // namespace vtool
