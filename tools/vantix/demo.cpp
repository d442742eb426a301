// vantix demo: every part of the library on photographs of Debian's
// opencv-doc package, the sessions pulling their frames from the simulated
// camera, which knows the truth of every frame.  Writes the results as PNG
// files and one self-contained report.html: images as data URIs, plots as
// inline SVG, no scripts, nothing to fetch.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "testing/scenes.h"
#include "testing/simcam/simcam_loader.h"
#include "tool.h"

namespace vtool {

namespace {

namespace fs = std::filesystem;

// The report: sections of paragraphs, highlighted figures, tables, images
// and line plots, in the order they are added.
class Report {
 public:
  void section(const std::string& id, const std::string& title) {
    toc_ += "<a href=\"#" + id + "\">" + title + "</a> ";
    body_ += "</section>\n<section id=\"" + id + "\"><h2>" + title + "</h2>\n";
  }
  void text(const std::string& html, const char* cls = nullptr) {
    body_ +=
        cls ? "<p class=\"" + std::string(cls) + "\">" + html + "</p>\n" : "<p>" + html + "</p>\n";
  }
  void table(const std::vector<std::vector<std::string>>& rows) {  // the first is the header
    body_ += "<table>";
    for (size_t r = 0; r < rows.size(); ++r) {
      body_ += "<tr>";
      for (const std::string& cell : rows[r])
        body_ += (r ? "<td>" : "<th>") + cell + (r ? "</td>" : "</th>");
      body_ += "</tr>";
    }
    body_ += "</table>\n";
  }
  // Images side by side with their captions; the page copy is at most 1200
  // pixels wide, PNG, or JPEG when that is much smaller.
  void figures(const std::vector<std::pair<cv::Mat, std::string>>& figures) {
    body_ += "<div class=\"figures\">";
    for (const auto& [image, caption] : figures) {
      cv::Mat shown = image;
      if (shown.cols > 1200)
        cv::resize(shown, shown, {}, 1200.0 / shown.cols, 1200.0 / shown.cols, cv::INTER_AREA);
      std::vector<uint8_t> png, jpeg;
      cv::imencode(".png", shown, png);
      cv::imencode(".jpg", shown, jpeg, {cv::IMWRITE_JPEG_QUALITY, 90});
      const bool small = png.size() < 300000 || png.size() < 2 * jpeg.size();
      body_ += "<figure><img alt=\"" + caption + "\" src=\"data:image/" + (small ? "png" : "jpeg") +
               ";base64," + base64(small ? png : jpeg) + "\"><figcaption>" + caption +
               "</figcaption></figure>";
    }
    body_ += "</div>\n";
  }
  // One polyline a series (name, x, y), axes from the data's range.
  struct Series {
    std::string name;
    std::vector<double> x, y;
  };
  void plot(const std::string& title, const std::string& xLabel, const std::string& yLabel,
            const std::vector<Series>& series) {
    static const char* const colours[] = {"#1f77b4", "#d62728", "#7fb2d8", "#e89292"};
    double x0 = 1e300, x1 = -1e300, y0 = 0, y1 = -1e300;
    for (const Series& s : series) {
      for (size_t i = 0; i < s.x.size(); ++i) {
        x0 = std::min(x0, s.x[i]), x1 = std::max(x1, s.x[i]), y1 = std::max(y1, s.y[i]);
      }
    }
    x1 = std::max(x1, x0 + 1), y1 = std::max(y1 * 1.1, 1e-9);
    const int w = 720, h = 300, left = 60, bottom = 40;
    const auto px = [&](double x) { return left + (x - x0) / (x1 - x0) * (w - left - 20); };
    const auto py = [&](double y) { return h - bottom - (y - y0) / (y1 - y0) * (h - bottom - 30); };
    std::string svg = format(
        "<svg class=\"plot\" role=\"img\" aria-label=\"%s\" width=\"%d\" "
        "height=\"%d\" viewBox=\"0 0 %d %d\"><text x=\"%d\" y=\"18\">%s</text>"
        "<path d=\"M%d 30V%dH%d\" fill=\"none\" stroke=\"#333\"/>"
        "<text x=\"%d\" y=\"%d\">%s</text><text x=\"4\" y=\"26\">%s</text>"
        "<text x=\"4\" y=\"%d\">%.3g</text><text x=\"4\" y=\"%.0f\">%.3g</text>"
        "<text x=\"%d\" y=\"%d\">%.3g</text><text x=\"%d\" y=\"%d\">%.3g</text>",
        title.c_str(), w, h, w, h, left, title.c_str(), left, h - bottom, w - 20, w / 2, h - 6,
        xLabel.c_str(), yLabel.c_str(), h - bottom, y0, py(y1) + 10, y1, left, h - bottom + 16, x0,
        w - 50, h - bottom + 16, x1);
    for (size_t k = 0; k < series.size(); ++k) {
      std::string points;
      for (size_t i = 0; i < series[k].x.size(); ++i) {
        points += format("%s%.1f,%.1f", i ? " " : "", px(series[k].x[i]), py(series[k].y[i]));
      }
      svg += format(
          "<polyline fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\" points=\"%s\"/>"
          "<text x=\"%d\" y=\"%zu\" fill=\"%s\">%s</text>",
          colours[k % 4], points.c_str(), w - 200, 44 + 16 * k, colours[k % 4],
          series[k].name.c_str());
    }
    body_ += svg + "</svg>\n";
  }
  void write(const fs::path& path, const std::string& facts) const {
    std::ofstream out(path);
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>vantix demo"
           "</title><style>body{font-family:sans-serif;max-width:1300px;margin:auto;padding:1em}"
           ".key{background:#eef5ee;border-left:4px solid #4a4;padding:.5em}"
           ".warning{background:#fbeaea;border-left:4px solid #c33;padding:.5em}"
           ".figures{display:flex;flex-wrap:wrap;gap:1em}figure{margin:0;flex:1 1 300px}"
           "img,svg{max-width:100%;height:auto;border:1px solid #ccc}"
           "td,th{border:1px solid #ccd;padding:.2em .6em}table{border-collapse:collapse}"
           "</style></head><body><h1>vantix demo</h1><p>"
        << facts << "</p><nav>" << toc_ << "</nav>\n<section>" << body_
        << "</section></body></html>\n";
    if (!out) throw ToolError("cannot write '" + path.string() + "'");
  }

 private:
  static std::string base64(const std::vector<uint8_t>& data) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < data.size(); i += 3) {
      const size_t left = data.size() - i;
      const uint32_t n = uint32_t(data[i]) << 16 | (left > 1 ? data[i + 1] << 8 : 0) |
                         (left > 2 ? data[i + 2] : 0);
      out += digits[n >> 18 & 63];
      out += digits[n >> 12 & 63];
      out += left > 1 ? digits[n >> 6 & 63] : '=';
      out += left > 2 ? digits[n & 63] : '=';
    }
    return out;
  }
  std::string toc_, body_;
};

// The demo's state: where files go, the report, the simulated camera.
struct Demo {
  fs::path out, data;
  Report report;
  SimcamApi sim{};
  std::vector<fs::path> written;

  void save(const std::string& file, const cv::Mat& image) {
    writeImage((out / file).string(), image);
    written.push_back(out / file);
  }
  // A photograph of the --data folder (8-bit BGR), else of opencv-doc, else
  // the kit's synthetic scene.
  cv::Mat photo(const char* file, cv::Size size = {}) const {
    cv::Mat image;
    try {
      image = data.empty() ? vtest::photo(file, size) : toBgr8(readImage(data / file));
    } catch (const std::exception&) {
      image = vtest::texturedScene(size.area() ? size : cv::Size(640, 480), 7);
    }
    if (size.area() && image.size() != size) cv::resize(image, image, size, 0, 0, cv::INTER_AREA);
    return image;
  }
  // A camera of the simulated SDK, closed with its owner.
  std::unique_ptr<SimcamCamera, void (*)(SimcamCamera*)> camera(cv::Size size) {
    std::unique_ptr<SimcamCamera, void (*)(SimcamCamera*)> c(
        sim.open(uint32_t(size.width), uint32_t(size.height)), sim.close);
    if (!c) throw ToolError("the simulated camera refuses " + sizeText(size));
    return c;
  }
};

void say(const std::string& line) {
  std::printf("  %s\n", line.c_str());
  std::fflush(stdout);
}

// A serpentine pan of 4 rows over a photograph, every frame pulled into a
// stitch session and waited for; placements against the camera's truth.
void demoStitch(Demo& demo) {
  const cv::Mat photo = demo.photo("aloeL.jpg");
  const cv::Size frame(photo.cols / 4 & ~1, photo.rows / 4 & ~1);
  const double left = 16, right = photo.cols - frame.width - 16;
  std::vector<SimcamPoint> path;
  for (int row = 0; row < 4; ++row) {
    const double y = 16 + (photo.rows - frame.height - 32) * row / 3.0;
    path.push_back({row % 2 ? left : right, y});
    path.push_back({row % 2 ? right : left, y});
  }
  const auto perSegment =
      static_cast<uint32_t>(std::max(4.0, std::round((right - left) / (frame.width / 10.0))));
  const uint32_t frames = uint32_t(path.size() - 1) * perSegment + 1;
  auto camera = demo.camera(frame);
  if (demo.sim.setPan(camera.get(), photo.data, uint32_t(photo.cols), uint32_t(photo.rows),
                      uint32_t(photo.step), path.data(), uint32_t(path.size()), perSegment) != 0) {
    throw ToolError("the simulated camera refused the pan");
  }
  StitchRun session(frame, 0, 2, 2);
  session.start();
  std::vector<uint8_t> buffer(demo.sim.frameBytes(camera.get(), 24, 0));
  std::vector<cv::Point2d> truth;
  for (uint32_t i = 0; i < frames; ++i) {
    SimcamPoint where{};
    demo.sim.panPosition(camera.get(), demo.sim.frameIndex(camera.get()), &where);
    truth.emplace_back(where.x, where.y);
    FrameInfoV2 info{};
    session.session().pull(camera.get(), buffer.data(), 24, 0, &info);
    if (!session.waitFor(i + 1)) throw ToolError(format("the session failed at frame %u", i));
  }
  const cv::Mat panorama = session.stop(true);
  const std::vector<StitchReport> reports = session.reports();
  const std::vector<cv::Point> placed = finalPositions(reports);
  Report::Series errors{"placement error", {}, {}};
  double sum = 0, worst = 0;
  for (size_t i = 0; i < reports.size(); ++i) {
    if (reports[i].mode != 1) continue;
    const double error = cv::norm(cv::Point2d(placed[i] - placed[0]) - (truth[i] - truth[0]));
    sum += error, worst = std::max(worst, error);
    errors.x.push_back(double(i)), errors.y.push_back(error);
  }
  const size_t count = errors.x.size();
  const std::string key = format(
      "%zu of %u frames placed; placement error against the true "
      "camera positions: mean %.2f px, max %.2f px",
      count, frames, count ? sum / double(count) : 0.0, worst);
  say(key);
  demo.save("stitch-panorama.png", panorama);
  demo.report.text(
      format("The simulated camera pans over a photograph (%s) in a serpentine of 4 "
             "rows; a live stitch session pulls each of its %u frames of %s "
             "(vantix_stitch_pull) and places it on the growing canvas.",
             sizeText(photo.size()).c_str(), frames, sizeText(frame).c_str()));
  demo.report.text(key + ".", "key");
  demo.report.figures({{panorama, "stitch-panorama.png: " + sizeText(panorama.size())}});
  demo.report.plot("Placement error of each placed frame", "frame", "error (px)", {errors});
}

// A focus sweep pulled into an EDF session of each kind; the fused image
// against the sharpest single frame, both against the sharp photo.
void demoEdf(Demo& demo) {
  const cv::Size size(640, 480);
  const cv::Mat photo = demo.photo("fruits.jpg", size);
  constexpr int kFrames = 8;
  auto camera = demo.camera(size);
  if (demo.sim.setFocusSweep(camera.get(), photo.data, uint32_t(size.width), uint32_t(size.height),
                             uint32_t(photo.step), kFrames, 4.0) != 0) {
    throw ToolError("the simulated camera refused the focus sweep");
  }
  // The sharpest frame by eye: the largest variance of the Laplacian.
  const auto sharpness = [](const cv::Mat& bgr) {
    cv::Mat grey, laplacian;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    cv::Laplacian(grey, laplacian, CV_64F);
    cv::Scalar mean, deviation;
    cv::meanStdDev(laplacian, mean, deviation);
    return deviation[0] * deviation[0];
  };
  const uint32_t pitch = vantix_default_stride(uint32_t(size.width), 24);
  std::vector<uint8_t> buffer(size_t(pitch) * size.height);
  cv::Mat sharpest;
  for (int i = 0; i < kFrames; ++i) {
    demo.sim.render(camera.get(), uint32_t(i), buffer.data(), 24, 0);
    const cv::Mat slice(size, CV_8UC3, buffer.data(), pitch);
    if (sharpest.empty() || sharpness(slice) > sharpness(sharpest)) sharpest = slice.clone();
  }
  const double slicePsnr = cv::PSNR(sharpest, photo);
  std::vector<std::vector<std::string>> rows = {{"kind", "PSNR", "against the sharpest frame"}};
  cv::Mat best;
  double bestPsnr = -1;
  uint32_t bestKind = 0;
  for (uint32_t kind = 0; kind < 3; ++kind) {
    EdfRun session(VANTIX_FORMAT_BGR8, kind);
    demo.sim.setFrameIndex(camera.get(), 0);
    for (int i = 0; i < kFrames; ++i) {
      FrameInfoV2 info{};
      session.session().pull(camera.get(), buffer.data(), 24, 0, &info);
      session.waitFor(i + 1);  // one at a time: the session's queue drops none
    }
    const cv::Mat fused = session.fused(CV_8UC3);
    const double psnr = cv::PSNR(fused, photo);
    demo.save(format("edf-kind%u.png", kind), fused);
    rows.push_back(
        {nameOf("edf_kind", kind), format("%.1f dB", psnr), format("%+.1f dB", psnr - slicePsnr)});
    if (psnr > bestPsnr) bestPsnr = psnr, best = fused, bestKind = kind;
  }
  demo.save("edf-sharpest-slice.png", sharpest);
  const std::string key = format(
      "Best fusion (kind %u, %s): %.1f dB; sharpest single frame: "
      "%.1f dB",
      bestKind, nameOf("edf_kind", bestKind).c_str(), bestPsnr, slicePsnr);
  say(key);
  demo.report.text(
      format("The simulated camera sweeps its focus through a photograph (%d frames, "
             "blur up to sigma 4 by a depth map); EDF sessions pull the frames "
             "(vantix_edf_pull).  PSNR against the sharp photograph.",
             kFrames));
  demo.report.text(key + ".", "key");
  demo.report.figures(
      {{sharpest, format("edf-sharpest-slice.png: the sharpest frame, %.1f dB", slicePsnr)},
       {best, format("edf-kind%u.png: fused, %.1f dB", bestKind, bestPsnr)}});
  demo.report.table(rows);
}

// A Gaussian spot circling and breathing before a 12-bit camera, measured
// frame by frame against the camera's exact spot.
void demoSpot(Demo& demo) {
  const cv::Size size(640, 480);
  auto camera = demo.camera(size);
  const SimcamSpot spot{320, 240, 14, 9, 0, 0.85, 60, 64, 0.25, 32};
  if (demo.sim.setSpots(camera.get(), &spot, 1, 0.0, 0.0, 11) != 0) {
    throw ToolError("the simulated camera refused the spot");
  }
  vantix::SpotSession session(1, 0);
  const uint32_t pitch = vantix_default_stride(uint32_t(size.width), 16);
  std::vector<uint8_t> buffer(size_t(pitch) * size.height);
  Report::Series dx{"dX measured", {}, {}}, dy{"dY measured", {}, {}},
      tx{"dX true (4 sigma)", {}, {}}, ty{"dY true (4 sigma)", {}, {}};
  std::vector<cv::Point2d> track;
  SpotResult r{};
  double worstCentre = 0, worstDiameter = 0;
  constexpr int kFrames = 32;
  for (int i = 0; i < kFrames; ++i) {
    SimcamSpotTruth truth{};
    demo.sim.spotTruth(camera.get(), demo.sim.frameIndex(camera.get()), 0, &truth);
    FrameInfoV2 info{};
    session.pull(camera.get(), buffer.data(), 16, 0, &info, &r);
    // The first frame is measured in the whole-frame aperture: it lags.
    if (i > 0)
      worstCentre =
          std::max(worstCentre, std::hypot(r.centerX - truth.centerX, r.centerY - truth.centerY));
    worstDiameter = std::max({worstDiameter, std::fabs(r.majorDiameter - 4 * truth.sigmaX),
                              std::fabs(r.minorDiameter - 4 * truth.sigmaY)});
    for (auto [series, value] :
         {std::pair{&dx, r.majorDiameter}, std::pair{&dy, r.minorDiameter},
          std::pair{&tx, 4 * truth.sigmaX}, std::pair{&ty, 4 * truth.sigmaY}}) {
      series->x.push_back(i), series->y.push_back(value);
    }
    track.emplace_back(r.centerX, r.centerY);
  }
  // The last frame, 12 bits shown as 8, with the track of the centre and the
  // measured 4-sigma ellipse.
  cv::Mat picture;
  cv::Mat(size, CV_16UC1, buffer.data(), pitch).convertTo(picture, CV_8U, 255.0 / 4095.0);
  cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  for (size_t i = 1; i < track.size(); ++i)
    cv::line(picture, track[i - 1], track[i], {0, 200, 255}, 1, cv::LINE_AA);
  cv::ellipse(picture,
              cv::RotatedRect(cv::Point2f(float(r.centerX), float(r.centerY)),
                              cv::Size2f(float(r.majorDiameter), float(r.minorDiameter)),
                              r.angle == 90 ? 0.0f : float(-r.angle)),
              {0, 255, 0}, 1, cv::LINE_AA);
  demo.save("spot-track.png", picture);
  const std::string key = format(
      "Largest centre error after the first frame %.2f px; largest "
      "diameter error %.2f px",
      worstCentre, worstDiameter);
  say(key);
  demo.report.text(
      format("A Gaussian spot circles and breathes before a simulated 12-bit camera; "
             "a spot session pulls %d frames (vantix_spot_pull) and measures centre "
             "and 4-sigma diameters.",
             kFrames));
  demo.report.text(key + ".", "key");
  demo.report.figures({{picture,
                        "spot-track.png: the last frame, the measured 4-sigma ellipse "
                        "(green) and the track of the centre"}});
  demo.report.plot("Beam diameters over the frames", "frame", "4-sigma diameter (px)",
                   {dx, dy, tx, ty});
}

// Clicks a few pixels off the strongest edges of a photo's 4 x 3 cells.
void demoEdge(Demo& demo) {
  const cv::Mat photo = demo.photo("building.jpg");
  cv::Mat grey, gradient, picture = photo.clone();
  cv::cvtColor(photo, grey, cv::COLOR_BGR2GRAY);
  cv::Laplacian(grey, gradient, CV_16S);
  gradient = cv::abs(gradient);
  Padded frame = padded(photo.size(), CV_8UC3, 24);
  photo.copyTo(frame.view);
  vantix::EdgeSession session(VANTIX_FORMAT_BGR8, uint32_t(photo.cols), uint32_t(photo.rows), 20);
  int clicks = 0, snapped = 0;
  for (int cell = 0; cell < 12; ++cell) {
    const cv::Rect area(photo.cols * (cell % 4) / 4 + 20, photo.rows * (cell / 4) / 3 + 20,
                        photo.cols / 4 - 40, photo.rows / 3 - 40);
    cv::Point edge;
    cv::minMaxLoc(gradient(area), nullptr, nullptr, nullptr, &edge);
    const cv::Point click = edge + area.tl() + cv::Point(6, 5);
    int32_t x = click.x, y = click.y;
    ++clicks;
    if (session.get(frame.view.data, x, y)) {
      ++snapped;
      cv::line(picture, click, {x, y}, {0, 255, 255}, 1, cv::LINE_AA);
      cv::circle(picture, {x, y}, 3, {0, 220, 0}, cv::FILLED, cv::LINE_AA);
    }
    cv::circle(picture, click, 4, {0, 0, 255}, 1, cv::LINE_AA);
  }
  demo.save("edge-snap.png", picture);
  const std::string key = format("%d of %d clicks snapped", snapped, clicks);
  say(key);
  demo.report.text(
      "Clicks a few pixels off strong edges of a photograph, each snapped by an "
      "edge session (search size 20).");
  demo.report.text(key + ".", "key");
  demo.report.figures({{picture, "edge-snap.png: red circle = click, green dot = snapped point"}});
}

// A photo turned into an RGGB mosaic and demosaiced by each algorithm.
void demoDemosaic(Demo& demo) {
  const cv::Mat photo = demo.photo("fruits.jpg");
  cv::Mat raw(photo.size(), CV_8U);
  for (int y = 0; y < raw.rows; ++y) {
    for (int x = 0; x < raw.cols; ++x)
      raw.at<uint8_t>(y, x) = photo.at<cv::Vec3b>(y, x)[x % 2 + y % 2 == 0 ? 2
                                                        : x % 2 && y % 2   ? 0
                                                                           : 1];
  }
  std::vector<std::vector<std::string>> rows = {{"algorithm", "PSNR"}};
  std::vector<std::pair<cv::Mat, std::string>> figures;
  for (uint32_t algorithm = 0; algorithm < 3; ++algorithm) {
    Padded out = padded(raw.size(), CV_8UC3, 24);
    vantix::demosaic(raw.data, out.view.data, uint32_t(raw.cols), uint32_t(raw.rows), 8,
                     VANTIX_BAYER_RGGB, VANTIX_DEMOSAIC_BGR, algorithm);
    const std::string name = nameOf("algorithm", algorithm), file = "demosaic-" + name + ".png";
    const double psnr = cv::PSNR(out.view, photo);
    say(format("%s: PSNR %.2f dB", name.c_str(), psnr));
    demo.save(file, out.view);
    rows.push_back({name, format("%.2f dB", psnr)});
    figures.push_back(
        {out.view.clone(), format("%s: %s, %.2f dB", file.c_str(), name.c_str(), psnr)});
  }
  demo.report.text(
      "A photograph made into an RGGB Bayer mosaic in memory and demosaiced back "
      "(vantix_demosaic); PSNR against the photograph.");
  demo.report.table(rows);
  demo.report.figures(figures);
}

// A photo resized to half and twice its size with the automatic choice.
void demoResize(Demo& demo) {
  const cv::Mat photo = demo.photo("baboon.jpg");
  std::vector<std::pair<cv::Mat, std::string>> figures;
  for (const auto& [name, scale] : {std::pair{"down", 0.5}, std::pair{"up", 2.0}}) {
    const cv::Size size(int(photo.cols * scale), int(photo.rows * scale));
    Padded src = padded(photo.size(), CV_8UC3, 24), dst = padded(size, CV_8UC3, 24);
    photo.copyTo(src.view);
    vantix::resize({src.buffer.data, uint32_t(photo.cols), uint32_t(photo.rows)},
                   {dst.buffer.data, uint32_t(size.width), uint32_t(size.height)});
    const std::string file = std::string("resize-") + name + ".png";
    demo.save(file, dst.view);
    say(format("%s: %s -> %s", name, sizeText(photo.size()).c_str(), sizeText(size).c_str()));
    figures.push_back({dst.view.clone(), file + ": " + sizeText(size)});
  }
  demo.report.text(
      "A photograph resized to half and twice its size (vantix_resizeV2, automatic "
      "interpolation: area when shrinking, cubic when enlarging).");
  demo.report.figures(figures);
}

// The simulated camera: $VANTIX_SIMCAM, the build tree's testing/simcam/
// (this program being <build>/tools/vantix/vantix), the installed
// lib/vantix/, or the name alone (the loader's search path).
SimcamApi loadSimcam() {
  std::string path = "libvantix_simcam.so";
  char self[PATH_MAX] = {};
  if (const char* env = std::getenv("VANTIX_SIMCAM"); env != nullptr && *env != '\0') {
    path = env;
  } else if (readlink("/proc/self/exe", self, sizeof self - 1) > 0) {
    const fs::path bin = fs::path(self).parent_path();
    for (const fs::path& candidate : {bin.parent_path().parent_path() / "testing/simcam" / path,
                                      bin / VANTIX_TOOL_TO_LIBDIR / "vantix" / path}) {
      if (fs::exists(candidate)) {
        path = candidate;
        break;
      }
    }
  }
  // Loaded for the rest of the process: the library's binding to a camera
  // SDK is never released.
  SimcamApi api{};
  if (!simcam_load_api(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL), &api)) {
    throw ToolError("cannot load the simulated camera '" + path + "' (set VANTIX_SIMCAM)");
  }
  return api;
}

}  // namespace

Runner addDemo(CLI::App& app) {
  auto out = std::make_shared<std::string>("demo-output");
  auto data = std::make_shared<std::string>();
  CLI::App* cmd = app.add_subcommand("demo",
                                     "run the library on sample images; write PNG "
                                     "results and report.html");
  cmd->add_option("--out", *out, "where the files go (default ./demo-output)");
  cmd->add_option("--data", *data,
                  "folder of the sample photographs (default opencv-doc's; "
                  "a synthetic scene stands in for a missing one)");
  cmd->footer(
      "The report shows a live panorama of a simulated camera panning over a photograph "
      "(placement error against the true positions), extended depth of field over a "
      "focus sweep (fused beside the sharpest frame), a moving laser spot (its 4-sigma "
      "ellipse and diameters), edge snapping, demosaicing and resizing.");
  return [out, data] {
    Demo demo;
    demo.data = *data;
    std::error_code error;
    fs::create_directories(*out, error);
    if (!fs::is_directory(*out)) throw ToolError("cannot create the output folder '" + *out + "'");
    demo.out = fs::absolute(*out).lexically_normal();
    demo.sim = loadSimcam();
    const std::pair<const char*, void (*)(Demo&)> steps[] = {
        {"live stitching", demoStitch}, {"extended depth of field", demoEdf},
        {"spot measurement", demoSpot}, {"edge snapping", demoEdge},
        {"demosaic", demoDemosaic},     {"resize", demoResize}};
    std::vector<std::vector<std::string>> timings = {{"step", "wall time"}};
    int failed = 0;
    for (size_t i = 0; i < std::size(steps); ++i) {
      std::printf("[%zu/%zu] %s\n", i + 1, std::size(steps), steps[i].first);
      std::fflush(stdout);
      demo.report.section(format("step%zu", i + 1), steps[i].first);
      const auto start = std::chrono::steady_clock::now();
      try {
        steps[i].second(demo);
      } catch (const std::exception& e) {
        say(std::string("step failed: ") + e.what());
        demo.report.text(std::string("This step failed: ") + e.what(), "warning");
        ++failed;
      }
      const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
      timings.push_back({steps[i].first, format("%.2f s", seconds.count())});
    }
    demo.report.section("timings", "Timings");
    demo.report.table(timings);
    const fs::path report = demo.out / "report.html";
    demo.report.write(report, format("libvantix %d.%d.%d, OpenCV %s", VANTIX_VERSION_MAJOR,
                                     VANTIX_VERSION_MINOR, VANTIX_VERSION_PATCH, CV_VERSION));
    std::printf("%zu images in %s\nReport: %s\nOpen %s in a browser\n", demo.written.size(),
                demo.out.c_str(), report.c_str(), report.c_str());
    if (failed > 0)
      throw ToolError(format("%d of %zu demo steps failed", failed, std::size(steps)));
    return 0;
  };
}

}  // namespace vtool
