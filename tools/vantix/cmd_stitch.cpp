// vantix stitch: frames pushed into a live stitch session, each once the one
// before was reported (or at a camera's rate with --fps); the panorama of
// vantix_stitch_stop is written.  When half the frames or more were not
// placed, the tool looks for the cause in the frames and fails.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

#include <opencv2/imgproc.hpp>

#include "tool.h"

namespace vtool {

namespace {

// Live tracking needs successive frames to share 40 % of a frame.
constexpr double kTrackingOverlap = 0.40;
// Sharpness a frame must exceed at strictness levels 0..4: the level's own
// gate, and never below the 0.07 the registration applies while tracking.
constexpr float kLevelSharpness[5] = {0.07f, 0.07f, 0.07f, 0.08f, 0.1f};

const char* modeName(uint32_t mode) {
  static const char* const modes[] = {"mode 0", "placed", "kept", "lost", "not placed"};
  return mode < 5 ? modes[mode] : "mode ?";
}

void printEvents(StitchRun& session, size_t pushed) {
  for (uint32_t code : session.takeEvents()) {
    if (code != VANTIX_STITCH_EVENT_CANVAS_GROWING) {  // always followed by another
      std::printf("  after frame %zu: %s\n", pushed, vantix_stitch_event_name(code));
    }
  }
  std::fflush(stdout);
}

// Where `b`'s top-left corner lies in `a`, by phase correlation of grey
// copies at most 256 pixels a side, tapered to zero over their outer 12
// pixels (a hard edge correlates with itself at every shift along the
// axes).  The strongest peaks, each with its wrapped alternatives, are
// checked by the normalised correlation of the part the frames would share
// (above 0.6, at least 5 % of a frame and 16 pixels a side: a small patch
// matches anything).  `overlap` is the smaller shared fraction of width and
// height, 0 when nothing matches.
struct Shift {
  bool found = false;
  cv::Point2d at;
  double overlap = 0;
};
Shift measureShift(const cv::Mat& first, const cv::Mat& second) {
  const double scale = std::min(1.0, 256.0 / std::max(first.cols, first.rows));
  cv::Mat a, b, taper, spectrumA, spectrumB, cross, surface;
  for (auto [in, out] : {std::pair{&first, &a}, std::pair{&second, &b}}) {
    cv::cvtColor(*in, *out, cv::COLOR_BGR2GRAY);
    cv::resize(*out, *out, cv::Size(), scale, scale, cv::INTER_AREA);
    out->convertTo(*out, CV_32F);
  }
  const auto ramp = [](int length) {
    cv::Mat r(1, length, CV_32F, cv::Scalar(1));
    for (int i = 0; i < std::min(12, length / 2); ++i) {
      r.at<float>(i) = r.at<float>(length - 1 - i) =
          float(0.5 - 0.5 * std::cos(CV_PI * (i + 0.5) / 12));
    }
    return r;
  };
  taper = ramp(a.rows).t() * ramp(a.cols);
  cv::dft((a - cv::mean(a)[0]).mul(taper), spectrumA, cv::DFT_COMPLEX_OUTPUT);
  cv::dft((b - cv::mean(b)[0]).mul(taper), spectrumB, cv::DFT_COMPLEX_OUTPUT);
  cv::mulSpectrums(spectrumA, spectrumB, cross, 0, true);
  cv::Mat parts[2], magnitude;
  cv::split(cross, parts);
  cv::magnitude(parts[0], parts[1], magnitude);
  for (cv::Mat& part : parts) cv::divide(part, magnitude + 1e-9f, part);
  cv::merge(parts, 2, cross);
  cv::idft(cross, surface, cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);
  Shift best;
  double bestCorrelation = 0.6;
  for (int k = 0; k < 6; ++k) {
    cv::Point peak;
    cv::minMaxLoc(surface, nullptr, nullptr, nullptr, &peak);
    cv::rectangle(surface, cv::Rect(peak - cv::Point(2, 2), cv::Size(5, 5)), cv::Scalar(-1e9),
                  cv::FILLED);
    // A peak at p: b(x) matches a(x + p), modulo the size.
    for (int x : {peak.x, peak.x - a.cols}) {
      for (int y : {peak.y, peak.y - a.rows}) {
        const cv::Rect inA = cv::Rect(x, y, b.cols, b.rows) & cv::Rect(cv::Point(), a.size());
        if (inA.width < 16 || inA.height < 16 || inA.area() < 0.05 * a.size().area()) continue;
        cv::Mat r;
        cv::matchTemplate(a(inA), b(inA - cv::Point(x, y)), r, cv::TM_CCOEFF_NORMED);
        if (r.at<float>(0, 0) > bestCorrelation) {
          bestCorrelation = r.at<float>(0, 0);
          best = {true, cv::Point2d(x / scale, y / scale),
                  std::min(1.0 - std::abs(x) / double(a.cols), 1.0 - std::abs(y) / double(a.rows))};
        }
      }
    }
  }
  return best;
}

template <typename T>
T median(std::vector<T> v) {
  if (v.empty()) return T();
  std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

// Why most frames were not placed: a line per cause found, with figures.
std::vector<std::string> explainUnplaced(const std::vector<FrameSource>& sources,
                                         FrameReader& reader,
                                         const std::vector<StitchReport>& reports, uint32_t level) {
  std::vector<std::string> lines;
  std::vector<Shift> shifts;  // frame i to i + 1
  std::vector<double> overlaps;
  cv::Mat previous = toBgr8(reader.read(sources[0]));
  for (size_t i = 1; i < sources.size(); ++i) {
    cv::Mat frame = toBgr8(reader.read(sources[i]));
    shifts.push_back(measureShift(previous, frame));
    overlaps.push_back(shifts.back().overlap);
    previous = frame;
  }
  const auto least = std::min_element(overlaps.begin(), overlaps.end());
  const size_t narrow = static_cast<size_t>(std::count_if(
      overlaps.begin(), overlaps.end(), [](double v) { return v < kTrackingOverlap; }));
  if (narrow > 0) {
    const size_t i = static_cast<size_t>(least - overlaps.begin());
    lines.push_back(
        format("too little overlap: %zu of %zu successive frame pairs share less than "
               "the 40 %% of a frame live tracking needs (least %.0f %%, %s to %s; "
               "median %.0f %%)",
               narrow, overlaps.size(), 100 * *least, sources[i].label().c_str(),
               sources[i + 1].label().c_str(), 100 * median(overlaps)));
  }
  const float gate = kLevelSharpness[level];
  std::vector<float> scores, smooth;
  size_t kept = 0;
  for (const StitchReport& r : reports) {
    if (r.mode == 1) continue;
    scores.push_back(r.score);
    if (!(r.score > gate)) smooth.push_back(r.score);
    kept += r.mode == 2;
  }
  if (!smooth.empty()) {
    std::string line = format(
        "too smooth: %zu of the %zu frames not placed score a sharpness of "
        "%.3f or less, which strict level %u does not place (median %.3f, "
        "highest %.3f)",
        smooth.size(), scores.size(), gate, level, median(smooth),
        *std::max_element(smooth.begin(), smooth.end()));
    for (uint32_t lower = level; lower-- > 0;) {
      if (median(smooth) > kLevelSharpness[lower]) {
        line +=
            format("; --strict-level %u takes frames above %.3f", lower, kLevelSharpness[lower]);
        break;
      }
    }
    if (reader.suggestedBits() > 0) {
      line += format(
          "; the 16-bit frames use only %d bits: --bits %d spreads their samples over "
          "the whole range",
          reader.suggestedBits(), reader.suggestedBits());
    }
    lines.push_back(line);
  }
  // Placed neighbours that lie elsewhere than the frames show: false matches
  // (reports follow the files one to one when each frame was waited for).
  if (reports.size() == sources.size()) {
    const std::vector<cv::Point> placed = finalPositions(reports);
    const cv::Mat first = readFrame(sources[0]);
    const double tolerance = std::max(8.0, 0.05 * std::max(first.cols, first.rows));
    size_t checked = 0, wrong = 0;
    std::string example;
    for (size_t i = 0; i < shifts.size(); ++i) {
      if (reports[i].mode != 1 || reports[i + 1].mode != 1 || !shifts[i].found) continue;
      ++checked;
      const cv::Point moved = placed[i + 1] - placed[i];
      if (cv::norm(cv::Point2d(moved) - shifts[i].at) <= tolerance) continue;
      if (wrong++ == 0) {
        example = format(
            "%s placed (%d, %d) px from the frame before, which the frames put at "
            "(%.0f, %.0f)",
            sources[i + 1].label().c_str(), moved.x, moved.y, shifts[i].at.x, shifts[i].at.y);
      }
    }
    if (wrong > 0) {
      lines.push_back(
          format("misplaced: %zu of %zu frames placed after a placed frame lie "
                 "elsewhere than the frames show (%s)",
                 wrong, checked, example.c_str()));
    }
  }
  if (lines.empty()) {
    lines.push_back(format(
        "neither too little overlap nor too smooth frames: successive frames "
        "share at least %.0f %% and the frames not placed score a sharpness "
        "above %.3f (median %.3f); %s",
        overlaps.empty() ? 100 : 100 * *least, gate, median(scores),
        2 * kept > scores.size() ? "most were matched but not surely enough to place (kept): the "
                                   "frames may lack distinct detail"
                                 : "the frames may not show one scene"));
  }
  return lines;
}

}  // namespace

Runner addStitch(CLI::App& app) {
  struct Options {
    std::vector<std::string> frames;
    std::string out, positions;
    bool wholeCanvas = false, crop = false;
    uint32_t background = 0, scaleLevel = 2, strictLevel = 2;
    int fps = 0, bits = 16;
  };
  auto o = std::make_shared<Options>();
  CLI::App* cmd = app.add_subcommand("stitch",
                                     "stitch frames into a panorama with a live "
                                     "session (vantix_stitch_*)");
  cmd->add_option("FRAME", o->frames,
                  "8- or 16-bit grey, BGR or BGRA images of one size, in "
                  "scan order; a multi-page TIFF gives its pages, a folder "
                  "its images in name order (f2 before f10)")
      ->required();
  cmd->add_option("-o,--out", o->out, "the panorama file")->required();
  CLI::Option* whole = cmd->add_flag("--whole-canvas", o->wholeCanvas,
                                     "write the whole canvas (default: the covered rectangle)");
  cmd->add_flag("--crop", o->crop, "the default; accepted for older scripts")->excludes(whole);
  cmd->add_option("--background", o->background, "of uncovered canvas (default checkerboard)")
      ->transform(names("background"));
  cmd->add_option("--scale-level", o->scaleLevel,
                  "working copy 10, 15, 20, 30, 40 % for 0..4 "
                  "(default 2)")
      ->check(CLI::Range(0, 4));
  cmd->add_option("--strict-level", o->strictLevel,
                  "how sharp and well matched a frame must "
                  "be to be placed, 0..4 (default 2)")
      ->check(CLI::Range(0, 4));
  cmd->add_option("--fps", o->fps,
                  "push N frames a second as a camera would; the session "
                  "skips frames it cannot keep up with (default 0: each frame "
                  "after the previous one's report)")
      ->check(CLI::Range(0, 1000));
  cmd->add_option("--positions", o->positions,
                  "CSV: where each processed frame went on the "
                  "canvas and in the panorama");
  CLI::Option* bits = cmd->add_option("--bits", o->bits,
                                      "16-bit frames hold N-bit samples "
                                      "(default 16), scaled to 16 bits")
                          ->check(CLI::Range(9, 16));
  cmd->footer(
      "The session works on 8-bit B G R: 16-bit frames are reduced (a note on stderr "
      "says so once) and alpha dropped.  Exit status 1 when half the frames or more "
      "were not placed (the panorama is still written), with a line on stderr for each "
      "cause found: too little overlap between successive frames, frames too smooth "
      "for the strict level, or frames placed elsewhere than the frames show.");
  return [o, bits] {
    checkOutputPath(o->out);
    const std::vector<FrameSource> sources = listFrames(o->frames);
    FrameReader reader("stitch", o->bits, bits->count() > 0);
    // Frames are read as they are pushed: a scan can be longer than memory.
    const cv::Mat first = toBgr8(reader.read(sources[0]));
    if (first.cols < 16 || first.rows < 16) {
      throw ToolError(sources[0].label() + " is " + sizeText(first.size()) +
                      "; frames must be at least 16x16");
    }
    StitchRun session(first.size(), o->background, o->scaleLevel, o->strictLevel);
    std::printf(
        "stitching %zu frames of %s (scale level %u, strict level %u, %s)\n", sources.size(),
        sizeText(first.size()).c_str(), o->scaleLevel, o->strictLevel,
        o->fps > 0 ? format("%d frames a second", o->fps).c_str() : "every frame processed");
    std::fflush(stdout);
    session.start();
    const auto started = std::chrono::steady_clock::now();
    const size_t step = std::max<size_t>(1, sources.size() / 10);
    for (size_t i = 0; i < sources.size(); ++i) {
      const cv::Mat frame = i == 0 ? first : toBgr8(reader.read(sources[i]));
      if (frame.size() != first.size()) {
        throw ToolError(sources[i].label() + " is " + sizeText(frame.size()) +
                        ", the first frame " + sizeText(first.size()));
      }
      if (o->fps > 0) {  // a camera's clock, whether or not the session kept up
        std::this_thread::sleep_until(started + std::chrono::microseconds(i * 1000000 / o->fps));
      }
      session.session().pushback(frame.data, uint32_t(frame.cols), uint32_t(frame.rows),
                                 uint32_t(frame.step));
      // In lockstep the next frame waits for this one's report: none is skipped.
      if (o->fps == 0) session.waitFor(i + 1);
      printEvents(session, i + 1);
      if (session.failed()) {
        throw ToolError("the stitch session stopped after a failure at " + sources[i].label());
      }
      if ((i + 1) % step == 0 || i + 1 == sources.size()) {
        std::printf("  %zu/%zu frames pushed, %zu processed\n", i + 1, sources.size(),
                    session.reportCount());
        std::fflush(stdout);
      }
    }
    if (o->fps > 0) session.waitQuiet();  // the queue may still hold frames
    cv::Rect covered;
    const cv::Mat panorama = session.stop(!o->wholeCanvas, &covered);
    printEvents(session, sources.size());
    if (panorama.empty()) throw ToolError("the stitch session returned no panorama");
    const std::vector<StitchReport> reports = session.reports();
    size_t byMode[5] = {};
    for (const StitchReport& r : reports) ++byMode[r.mode < 5 ? r.mode : 0];
    std::printf("%zu frames processed: %zu placed, %zu kept, %zu lost, %zu not placed",
                reports.size(), byMode[1], byMode[2], byMode[3], byMode[4]);
    if (reports.size() < sources.size()) {
      std::printf(" (%zu skipped by the session at %d frames a second)",
                  sources.size() - reports.size(), o->fps);
    }
    std::printf("\n");
    if (!o->positions.empty()) {
      std::ofstream csv(o->positions);
      csv << "report,frame,mode,canvas_x,canvas_y,canvas_width,canvas_height,panorama_x,"
             "panorama_y,sharpness,seconds\n";
      const std::vector<cv::Point> finals = finalPositions(reports);
      const cv::Point origin = o->wholeCanvas ? cv::Point() : covered.tl();
      for (size_t i = 0; i < reports.size(); ++i) {
        const StitchReport& r = reports[i];
        // The file is known only when each frame was waited for.
        const std::string file = o->fps == 0 ? sources[i].label() : "";
        csv << format("%zu,\"%s\",%s,%d,%d,%d,%d,%d,%d,%.4f,%.3f\n", i, file.c_str(),
                      modeName(r.mode), r.position.x, r.position.y, r.canvas.width, r.canvas.height,
                      finals[i].x - origin.x, finals[i].y - origin.y, static_cast<double>(r.score),
                      r.seconds);
      }
      if (!csv) throw ToolError("cannot write '" + o->positions + "'");
    }
    writeImage(o->out, panorama);
    std::printf("panorama %s written to %s\n", sizeText(panorama.size()).c_str(), o->out.c_str());
    std::fflush(stdout);
    const size_t unplaced = reports.size() - byMode[1];
    if (!reports.empty() && 2 * unplaced < reports.size()) return 0;
    std::fprintf(stderr,
                 "vantix: stitch: %zu of %zu frames were not placed (%zu kept as "
                 "reference only, %zu lost, %zu not placed%s)\n",
                 unplaced, reports.size(), byMode[2], byMode[3], byMode[4],
                 byMode[0] > 0 ? format(", %zu in another mode", byMode[0]).c_str() : "");
    for (const std::string& line : explainUnplaced(sources, reader, reports, o->strictLevel)) {
      std::fprintf(stderr, "vantix: stitch: %s\n", line.c_str());
    }
    return 1;
  };
}

}  // namespace vtool
