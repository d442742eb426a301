// vantix stitch FRAME... -o PANO [--whole-canvas] [--background B] [--scale-level 0..4]
//                        [--strict-level 0..4] [--fps N] [--positions FILE.csv]
//                        [--bits 9..16]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <thread>

#include <opencv2/imgproc.hpp>

#include "commands.h"
#include "errors.h"
#include "image_io.h"
#include "names.h"
#include "stitch_overlap.h"
#include "stitch_session.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix stitch FRAME... -o PANO [--whole-canvas] [--background B]\n"
    "                     [--scale-level 0..4] [--strict-level 0..4] [--fps N]\n"
    "                     [--positions FILE.csv] [--bits 9..16]\n"
    "\n"
    "Stitches the frames, in the order given, into a panorama with a live stitch\n"
    "session (vantix_stitch_*), as if they came from a camera moving over the\n"
    "scene, and writes the panorama that vantix_stitch_stop returns.  Each frame\n"
    "is pushed once the session has reported the one before, so every frame is\n"
    "registered against the last reference frame (--fps simulates a live camera\n"
    "instead).\n"
    "\n"
    "  FRAME...            images of one size: 8- or 16-bit grey, BGR or BGRA;\n"
    "                      a multi-page TIFF gives all its pages, a folder its\n"
    "                      image files in name order (numbers by value)\n"
    "  -o, --out PANO      the panorama file (PNG, TIFF, JPEG, ...)\n"
    "  --whole-canvas      write the whole canvas, uncovered parts filled with the\n"
    "                      background (default: only the covered rectangle)\n"
    "  --crop              the default; accepted for older scripts\n"
    "  --background B      checkerboard (default), white or black (also 0, 1, 2)\n"
    "  --scale-level L     working-copy size 10, 15, 20, 30, 40 % for L = 0..4\n"
    "                      (default 2)\n"
    "  --strict-level L    how sharp and well matched a frame must be to be\n"
    "                      placed, 0 (lenient) .. 4 (strict) (default 2)\n"
    "  --fps N             push N frames a second, as a camera would: the session\n"
    "                      then skips frames it cannot keep up with (default 0:\n"
    "                      every frame, each after the previous one's report)\n"
    "  --positions F.csv   one line per processed frame: where it went on the\n"
    "                      canvas and in the written panorama, and what happened\n"
    "  --bits N            16-bit frames hold N-bit samples (9..16, default 16),\n"
    "                      e.g. 12 for a 12-bit camera's 0..4095: they are scaled\n"
    "                      to the full 16-bit range (shifted left by 16 - N,\n"
    "                      larger samples clipped) before the 8-bit reduction\n"
    "\n"
    "The session works on 8 bits a channel: 16-bit frames are reduced to 8 bits\n"
    "(divided by 257; a note on stderr says so once and, when the first\n"
    "frame's samples fit in fewer bits, suggests --bits) and alpha is dropped;\n"
    "the panorama is 8-bit BGR.  Progress and the session's events (tracking lost, tracking regained,\n"
    "canvas grew) are printed as they happen.\n"
    "\n"
    "Exit status 1 when half the frames or more were not placed (the panorama is\n"
    "still written): a line on stderr for each cause the tool finds, with its\n"
    "figures: successive frames sharing less than the 40 % of a frame live\n"
    "tracking needs (measured between the frames by phase correlation), frames\n"
    "too smooth for the sharpness the strictness level asks, or frames placed\n"
    "elsewhere than the frames show.\n";

// Live tracking follows a scan whose successive frames move at most 60 % of
// the frame's width or height: the session's registration treats a larger
// move as out of reach, and its template needs that much shared content.
constexpr double kTrackingOverlap = 0.40;

// Minimum sharpness of strictness levels 0..4 (vantix_stitch_newV3), and the
// floor the session's registration applies at every level while it tracks:
// a frame scoring 0.07 or less is turned away.
constexpr float kLevelSharpness[5] = {0.0f, 0.04f, 0.06f, 0.08f, 0.1f};
constexpr float kTrackingSharpness = 0.07f;

float sharpnessGate(uint32_t strictLevel) {
  return std::max(kLevelSharpness[strictLevel], kTrackingSharpness);
}

// The frame as the session takes it: 8-bit B G R.  The panorama of
// vantix_stitch_stop is always 3 bytes a pixel, so the tool converts here
// rather than push 16-bit or BGRA frames (the session would reduce them to
// its 8-bit working image all the same).
cv::Mat toBgr8(const cv::Mat& image, const std::string& label) {
  cv::Mat frame = image;
  if (frame.depth() == CV_16U) frame.convertTo(frame, CV_8U, 1.0 / 257.0);
  if (frame.depth() != CV_8U) {
    throw ToolError(label + " is " + describeType(image.type()) +
                    "; frames must be 8- or 16-bit grey, BGR or BGRA");
  }
  if (frame.channels() == 1) cv::cvtColor(frame, frame, cv::COLOR_GRAY2BGR);
  if (frame.channels() == 4) cv::cvtColor(frame, frame, cv::COLOR_BGRA2BGR);
  if (frame.type() != CV_8UC3) {
    throw ToolError(label + " is " + describeType(image.type()) +
                    "; frames must be 8- or 16-bit grey, BGR or BGRA");
  }
  return frame;
}

// Reads frames for the session: 16-bit samples of `bits` bits are scaled to
// the full 16-bit range first.  Says once per run that 16-bit frames are
// reduced to 8 bits, and, without --bits, when the first one's samples use
// fewer than 16 bits; with --bits, once when samples are clipped.
class FrameReader {
 public:
  FrameReader(const std::vector<FrameSource>& sources, int bits, bool bitsGiven)
      : sources_(sources), bits_(bits), bitsGiven_(bitsGiven) {}

  cv::Mat read(size_t index) {
    const cv::Mat image = readFrame(sources_[index]);
    if (image.depth() == CV_16U && !noted_) {
      noted_ = true;
      const std::string depth =
          bitsGiven_ ? ", after scaling " + std::to_string(bits_) + "-bit samples to 16 bits"
                     : sampleDepthHint(image, &suggestedBits_);
      std::fflush(stdout);
      std::fprintf(stderr,
                   "vantix: stitch: note: 16-bit frames are stitched at 8 bits a channel (the "
                   "session's working image)%s\n",
                   depth.c_str());
      std::fflush(stderr);
    }
    bool clipped = false;
    const cv::Mat frame = widenSamples(image, bits_, &clipped);
    if (clipped && !clipNoted_) {
      clipNoted_ = true;
      std::fflush(stdout);
      std::fprintf(stderr,
                   "vantix: stitch: note: %s has samples above %d, the largest of %d bits "
                   "(--bits %d): they are taken as %d\n",
                   sources_[index].label().c_str(), (1 << bits_) - 1, bits_, bits_,
                   (1 << bits_) - 1);
      std::fflush(stderr);
    }
    return toBgr8(frame, sources_[index].label());
  }

  // The --bits the note suggested (0: none).
  int suggestedBits() const { return suggestedBits_; }

 private:
  const std::vector<FrameSource>& sources_;
  int bits_;
  bool bitsGiven_;
  bool noted_ = false;
  bool clipNoted_ = false;
  int suggestedBits_ = 0;
};

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
    char line[1024];
    std::snprintf(line, sizeof line, "%zu,\"%s\",%s,%d,%d,%d,%d,%d,%d,%.4f,%.3f\n", i,
                  frame.c_str(), stitchModeName(r.mode).c_str(), r.position.x, r.position.y,
                  r.canvas.width, r.canvas.height, p.x, p.y, static_cast<double>(r.score),
                  r.seconds);
    out << line;
  }
  if (!out) throw ToolError("cannot write '" + path + "'");
}

template <typename T>
T median(std::vector<T> values) {
  if (values.empty()) return T();
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

std::string percent(double fraction) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f %%", 100.0 * fraction);
  return text;
}

std::string sharpnessText(double score) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", score);
  return text;
}

// Why most frames were not placed: one line per cause found, each with its
// figures, in the tool's "vantix: stitch: ..." form.
std::vector<std::string> explainUnplaced(const std::vector<FrameSource>& sources,
                                         FrameReader& reader,
                                         const std::vector<StitchReport>& reports,
                                         uint32_t strictLevel) {
  std::vector<std::string> lines;

  // Overlap of successive frames, measured between the frames themselves.
  struct Pair {
    size_t index;  // frames index and index + 1
    FrameShift shift;
  };
  std::vector<Pair> pairs;
  cv::Mat previous = sources.empty() ? cv::Mat() : reader.read(0);
  const cv::Size frameSize = previous.size();
  for (size_t i = 1; i < sources.size(); ++i) {
    cv::Mat frame = reader.read(i);
    pairs.push_back({i - 1, measureShift(previous, frame)});
    previous = std::move(frame);
  }
  std::vector<double> overlaps;
  size_t narrow = 0;
  const Pair* least = nullptr;
  for (const Pair& pair : pairs) {
    overlaps.push_back(pair.shift.overlap);
    if (pair.shift.overlap < kTrackingOverlap) ++narrow;
    if (least == nullptr || pair.shift.overlap < least->shift.overlap) least = &pair;
  }
  auto overlapText = [](const FrameShift& shift) {
    return shift.found ? percent(shift.overlap) : std::string("none found");
  };
  if (narrow > 0) {
    lines.push_back(
        "too little overlap: " + std::to_string(narrow) + " of " + std::to_string(pairs.size()) +
        " successive frame pairs share less than the " + percent(kTrackingOverlap) +
        " of a frame live tracking needs (least " + overlapText(least->shift) + ", " +
        sources[least->index].label() + " to " + sources[least->index + 1].label() +
        "; median " + percent(median(overlaps)) + ")");
  }

  // Sharpness of the frames not placed, as the session scored them.
  const float gate = sharpnessGate(strictLevel);
  std::vector<float> scores, smooth;
  size_t kept = 0;
  for (const StitchReport& r : reports) {
    if (r.mode == 1) continue;
    scores.push_back(r.score);
    if (!(r.score > gate)) smooth.push_back(r.score);
    if (r.mode == 2) ++kept;
  }
  if (!smooth.empty()) {
    std::string line = "too smooth: " + std::to_string(smooth.size()) + " of the " +
                       std::to_string(scores.size()) + " frames not placed score a sharpness of " +
                       sharpnessText(gate) + " or less, which strict level " +
                       std::to_string(strictLevel) + " does not place (median " +
                       sharpnessText(median(smooth)) + ", highest " +
                       sharpnessText(*std::max_element(smooth.begin(), smooth.end())) + ")";
    // A lower level helps only frames above the floor every level keeps.
    const float typical = median(smooth);
    for (uint32_t level = strictLevel; level-- > 0;) {
      if (typical > sharpnessGate(level)) {
        line += "; --strict-level " + std::to_string(level) + " takes frames above " +
                sharpnessText(sharpnessGate(level));
        break;
      }
    }
    // 16-bit samples of a few bits read as 16-bit ones leave the 8-bit
    // working image a few grey levels: little for the sharpness to find.
    if (reader.suggestedBits() > 0) {
      line += "; the 16-bit frames use only " + std::to_string(reader.suggestedBits()) +
              " bits: --bits " + std::to_string(reader.suggestedBits()) +
              " spreads their samples over the whole range";
    }
    lines.push_back(line);
  }

  // Frames placed next to each other where the frames themselves do not put
  // them: a false match (reports follow the files one to one in lockstep).
  if (reports.size() == sources.size()) {
    const std::vector<cv::Point> placed = finalCanvasPositions(reports);
    const double tolerance = std::max(8.0, 0.05 * std::max(frameSize.width, frameSize.height));
    size_t checked = 0, wrong = 0;
    std::string example;
    for (const Pair& pair : pairs) {
      const size_t i = pair.index;
      if (reports[i].mode != 1 || reports[i + 1].mode != 1 || !pair.shift.found) continue;
      ++checked;
      const cv::Point moved = placed[i + 1] - placed[i];
      if (cv::norm(cv::Point2d(moved) - pair.shift.shift) <= tolerance) continue;
      ++wrong;
      if (example.empty()) {
        example = sources[i + 1].label() + " placed (" + std::to_string(moved.x) + ", " +
                  std::to_string(moved.y) + ") px from the frame before, which the frames put at (" +
                  std::to_string(static_cast<int>(std::lround(pair.shift.shift.x))) + ", " +
                  std::to_string(static_cast<int>(std::lround(pair.shift.shift.y))) + ")";
      }
    }
    if (wrong > 0) {
      lines.push_back("misplaced: " + std::to_string(wrong) + " of " + std::to_string(checked) +
                      " frames placed after a placed frame lie elsewhere than the frames show (" +
                      example + ")");
    }
  }

  if (lines.empty()) {
    // What the session said of the frames is all there is to go on.
    const std::string guess =
        2 * kept > scores.size()
            ? std::to_string(kept) + " were matched, but not surely enough to place (kept): the "
                                     "frames may lack distinct detail"
            : "the frames may not show one scene";
    lines.push_back("neither too little overlap nor too smooth frames: successive frames share " +
                    (pairs.empty() ? std::string("nothing to measure")
                                   : "at least " + overlapText(least->shift)) +
                    " and the frames not placed score a sharpness above " + sharpnessText(gate) +
                    " (median " + sharpnessText(median(scores)) + "); " + guess);
  }
  return lines;
}

int run(const Args& args) {
  std::vector<std::string> paths;
  for (size_t i = 0; i < args.positionalCount(); ++i) paths.push_back(args.positional(i));
  const std::string out = args.option("out").value_or("");
  if (out.empty()) throwUsage("missing option -o PANO");
  const auto scaleLevel = static_cast<uint32_t>(
      parseInteger(args.option("scale-level").value_or("2"), "--scale-level", 0, 4));
  const auto strictLevel = static_cast<uint32_t>(
      parseInteger(args.option("strict-level").value_or("2"), "--strict-level", 0, 4));
  const int64_t fps = parseInteger(args.option("fps").value_or("0"), "--fps", 0, 1000);
  const uint32_t background = parseName(
      kBackgroundNames, args.option("background").value_or("checkerboard"), "--background");
  // The cropped panorama is the default now.  --crop, which used to ask for
  // it, stays accepted so that scripts written for the old default keep
  // working and get what they asked for; only its clash with --whole-canvas
  // is an error.
  const bool wholeCanvas = args.flag("whole-canvas");
  if (wholeCanvas && args.flag("crop")) throwUsage("--crop and --whole-canvas exclude each other");
  const bool cropped = !wholeCanvas;
  const auto bits =
      static_cast<int>(parseInteger(args.option("bits").value_or("16"), "--bits", 9, 16));
  const std::optional<std::string> positionsPath = args.option("positions");
  checkOutputPath(out);

  const std::vector<FrameSource> sources = listFrames(paths);
  FrameReader reader(sources, bits, args.option("bits").has_value());
  // The first frame fixes the session's frame size; the others are read as
  // they are pushed (a scan can be longer than memory allows to hold).
  cv::Mat first = reader.read(0);
  if (first.cols < 16 || first.rows < 16) {
    throw ToolError(sources[0].label() + " is " + sizeText(first.size()) +
                    "; frames must be at least 16x16");
  }
  StitchSession session(first.size(), scaleLevel, strictLevel, background);
  std::printf("stitching %zu frames of %s (scale level %u, strict level %u, %s)\n",
              sources.size(), sizeText(first.size()).c_str(), scaleLevel, strictLevel,
              fps > 0 ? (std::to_string(fps) + " frames a second").c_str()
                      : "every frame processed");
  std::fflush(stdout);

  session.start();
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const size_t progressStep = std::max<size_t>(1, sources.size() / 10);
  for (size_t i = 0; i < sources.size(); ++i) {
    cv::Mat frame = i == 0 ? first : reader.read(i);
    if (frame.size() != first.size()) {
      throw ToolError(sources[i].label() + " is " + sizeText(frame.size()) +
                      ", the first frame is " + sizeText(first.size()));
    }
    if (fps > 0) {
      // A live camera: frames arrive on the clock, whether or not the
      // session has finished the previous ones.
      std::this_thread::sleep_until(begin + std::chrono::microseconds(i * 1000000 / fps));
    }
    session.push(frame);
    // In lockstep the next frame waits for this one's report (onFrame), so
    // the session's queue never holds more than one frame and none is
    // skipped.
    if (fps == 0 && !session.waitForReports(i + 1)) {
      printEvents(session, i + 1);
      throw ToolError("the stitch session stopped after a failure at " + sources[i].label());
    }
    printEvents(session, i + 1);
    if (session.failed()) throw ToolError("the stitch session stopped after a failure");
    if ((i + 1) % progressStep == 0 || i + 1 == sources.size()) {
      std::printf("  %zu/%zu frames pushed, %zu processed\n", i + 1, sources.size(),
                  session.reportCount());
      std::fflush(stdout);
    }
  }
  if (fps > 0 && sources.size() > 1) {
    // Reading the files can be slower than the rate asked for; say so.
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const double rate = (sources.size() - 1) / std::max(seconds, 1e-6);
    if (rate < 0.95 * static_cast<double>(fps)) {
      std::printf("  frames were read and pushed at only %.1f a second\n", rate);
    }
  }
  // At a live rate the queue still holds frames: let the worker finish them.
  if (fps > 0) session.waitUntilQuiet(std::chrono::milliseconds(500), std::chrono::seconds(30));
  printEvents(session, sources.size());

  const cv::Mat panorama = session.stop(cropped);
  const cv::Rect crop = session.cropRect();
  printEvents(session, sources.size());
  const std::vector<StitchReport> reports = session.reports();
  size_t byMode[5] = {0, 0, 0, 0, 0};
  for (const StitchReport& r : reports) ++byMode[r.mode < 5 ? r.mode : 0];
  std::printf("%zu frames processed: %zu placed, %zu kept, %zu lost, %zu not placed",
              reports.size(), byMode[1], byMode[2], byMode[3], byMode[4]);
  if (reports.size() < sources.size()) {
    std::printf(" (%zu skipped by the session at %lld frames a second)",
                sources.size() - reports.size(), static_cast<long long>(fps));
  }
  std::printf("\n");
  if (panorama.empty()) throw ToolError("the stitch session returned no panorama");
  if (positionsPath) {
    std::vector<std::string> labels;
    if (fps == 0) {
      for (const FrameSource& source : sources) labels.push_back(source.label());
    }
    writePositions(*positionsPath, reports, labels, cropped ? crop.tl() : cv::Point(0, 0));
  }
  writeImage(out, panorama);
  std::printf("panorama %s written to %s\n", sizeText(panorama.size()).c_str(), out.c_str());
  std::fflush(stdout);

  // Half the frames or more not placed: the panorama is not what the scan
  // showed.  Say why, as far as the tool can tell, and fail.
  const size_t unplaced = reports.size() - byMode[1];
  if (reports.empty() || 2 * unplaced >= reports.size()) {
    // In the summary's terms: each frame not placed is kept, lost or not
    // placed (or, should the session report another mode, counted apart).
    std::string parts = std::to_string(byMode[2]) + " kept as reference only, " +
                        std::to_string(byMode[3]) + " lost, " + std::to_string(byMode[4]) +
                        " not placed";
    if (byMode[0] > 0) parts += ", " + std::to_string(byMode[0]) + " in another mode";
    std::fprintf(stderr, "vantix: stitch: %zu of %zu frames were not placed (%s)\n", unplaced,
                 reports.size(), parts.c_str());
    std::fflush(stderr);
    for (const std::string& line : explainUnplaced(sources, reader, reports, strictLevel)) {
      std::fprintf(stderr, "vantix: stitch: %s\n", line.c_str());
    }
    return 1;
  }
  return 0;
}

}  // namespace

Command stitchCommand() {
  return {"stitch",
          "stitch frames into a panorama with a live session (vantix_stitch_*)",
          kUsage,
          {"FRAME..."},
          {{"out", true, 'o'},
           {"whole-canvas", false},
           {"crop", false},
           {"background", true},
           {"scale-level", true},
           {"strict-level", true},
           {"fps", true},
           {"positions", true},
           {"bits", true}},
          &run};
}

}  // namespace vtool
