// Demo step: a laser spot that circles and breathes in front of the
// simulated camera, measured frame by frame with vantix_spot_pull against
// the camera's exact spot; the picture shows the last frame with the
// measured 4-sigma ellipse, the aperture and the track of the centre.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "demo.h"
#include "image_io.h"
#include "spot_camera.h"

namespace vtool {

namespace {

constexpr int kZoom = 3;

// The frame around the spot enlarged kZoom times (12 bits shown as 8), with
// the measurement drawn at the enlarged scale: the measured 4-sigma ellipse
// (centre, dX, dY, angle), the aperture and the centre.
cv::Mat beamCloseUp(const cv::Mat& frame, const SpotResult& spot) {
  const cv::Size crop(200, 150);
  const cv::Rect area =
      cv::Rect(static_cast<int>(std::lround(spot.centerX)) - crop.width / 2,
               static_cast<int>(std::lround(spot.centerY)) - crop.height / 2, crop.width,
               crop.height) &
      cv::Rect(0, 0, frame.cols, frame.rows);
  cv::Mat picture;
  frame(area).convertTo(picture, CV_8U, 255.0 / 4095.0);
  cv::resize(picture, picture, {}, kZoom, kZoom, cv::INTER_CUBIC);
  cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  // Drawn with 4 bits of sub-pixel precision so that the ellipse sits where
  // the measurement says.  Pixel centres of the frame map to kZoom * (x +
  // 0.5) - 0.5 in the enlargement.
  constexpr int kShift = 4;
  const auto fixedX = [&](double x) {
    return static_cast<int>(std::lround((kZoom * (x - area.x + 0.5) - 0.5) * (1 << kShift)));
  };
  const auto fixedY = [&](double y) {
    return static_cast<int>(std::lround((kZoom * (y - area.y + 0.5) - 0.5) * (1 << kShift)));
  };
  const auto fixedLength = [](double length) {
    return static_cast<int>(std::lround(kZoom * length * (1 << kShift)));
  };
  // Angle 90 marks a measurement along x and y; otherwise the major axis
  // lies at -angle degrees (image y pointing down).
  const double rotation = spot.angle == 90 ? 0.0 : -spot.angle;
  cv::ellipse(picture, cv::Point(fixedX(spot.apertureX), fixedY(spot.apertureY)),
              cv::Size(fixedLength(spot.apertureA), fixedLength(spot.apertureB)), 0, 0, 360,
              cv::Scalar(0, 140, 255), 1, cv::LINE_AA, kShift);
  const cv::Point centre(fixedX(spot.centerX), fixedY(spot.centerY));
  cv::ellipse(picture, centre,
              cv::Size(fixedLength(spot.majorDiameter / 2), fixedLength(spot.minorDiameter / 2)),
              rotation, 0, 360, cv::Scalar(0, 255, 0), 2, cv::LINE_AA, kShift);
  const cv::Point pixel(centre.x >> kShift, centre.y >> kShift);
  cv::drawMarker(picture, pixel, cv::Scalar(0, 0, 255), cv::MARKER_CROSS, 16, 1);
  cv::putText(picture,
              format("centre (%.2f, %.2f)  dX %.2f  dY %.2f  angle %.0f", spot.centerX,
                     spot.centerY, spot.majorDiameter, spot.minorDiameter, spot.angle),
              {8, picture.rows - 10}, cv::FONT_HERSHEY_SIMPLEX, 0.5, cv::Scalar(0, 255, 0), 1,
              cv::LINE_AA);
  return picture;
}

}  // namespace

void demoSpot(DemoContext& context) {
  const cv::Size size(640, 480);
  SimCamera camera(simcamLibraryPath(""), size);
  SimcamSpot spot{};
  spot.centerX = 320;
  spot.centerY = 240;
  spot.sigmaX = 14;
  spot.sigmaY = 9;
  spot.angle = 0;
  spot.peak = 0.85;
  spot.orbitRadius = 60;
  spot.orbitPeriod = 64;
  spot.breathAmplitude = 0.25;
  spot.breathPeriod = 32;
  // No background: the second moments weigh every pixel of the aperture by
  // its distance squared, so a camera's dark level has to be subtracted
  // before measuring (a lit background makes the aperture grow to the frame).
  if (camera.api().setSpot(camera.handle(), &spot, 0.0, 0.0, 11) < 0) {
    say("the simulated camera refused the spot");
    return;
  }
  say("simulated 12-bit camera, %dx%d, one Gaussian spot on a circle of radius %.0f px, "
      "breathing by %.0f %%", size.width, size.height, spot.orbitRadius,
      100 * spot.breathAmplitude);

  SpotSession session(1, 0);
  cv::Mat frame;
  std::vector<cv::Point2d> track;
  SpotResult last{};
  constexpr int kFrames = 32;
  double worstCentre = 0, worstDiameter = 0, pullSeconds = 0;
  PlotSeries measuredX{"dX measured", {}, {}, "#1f77b4", false};
  PlotSeries measuredY{"dY measured", {}, {}, "#d62728", false};
  PlotSeries exactX{"dX true (4 sigma)", {}, {}, "#7fb2d8", true};
  PlotSeries exactY{"dY true (4 sigma)", {}, {}, "#e89292", true};
  std::vector<std::vector<std::string>> rows;
  Progress progress("frames measured", kFrames);
  for (int i = 0; i < kFrames; ++i) {
    const uint32_t index = camera.api().frameIndex(camera.handle());
    const auto started = std::chrono::steady_clock::now();
    last = session.pull(camera, 16, &frame)[0];
    pullSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    SimcamSpotTruth truth{};
    camera.api().spotTruth(camera.handle(), index, 0, &truth);
    const double exactDx = 4 * truth.sigmaX, exactDy = 4 * truth.sigmaY;
    const double centreError =
        std::hypot(last.centerX - truth.centerX, last.centerY - truth.centerY);
    if (i > 0) worstCentre = std::max(worstCentre, centreError);
    worstDiameter = std::max({worstDiameter, std::fabs(last.majorDiameter - exactDx),
                              std::fabs(last.minorDiameter - exactDy)});
    track.emplace_back(last.centerX, last.centerY);
    measuredX.x.push_back(i);
    measuredX.y.push_back(last.majorDiameter);
    measuredY.x.push_back(i);
    measuredY.y.push_back(last.minorDiameter);
    exactX.x.push_back(i);
    exactX.y.push_back(exactDx);
    exactY.x.push_back(i);
    exactY.y.push_back(exactDy);
    rows.push_back({std::to_string(i), format("%.2f, %.2f", last.centerX, last.centerY),
                    format("%.2f, %.2f", truth.centerX, truth.centerY),
                    format("%.2f", centreError), format("%.2f", last.majorDiameter),
                    format("%.2f", exactDx), format("%.2f", last.minorDiameter),
                    format("%.2f", exactDy), format("%.0f", last.angle)});
    progress.update(i + 1);
  }
  progress.finish();
  say("largest centre error after the first frame: %.2f px (the aperture lags a moving spot)",
      worstCentre);
  say("largest diameter error: %.2f px; last frame dX %.2f, dY %.2f px", worstDiameter,
      last.majorDiameter, last.minorDiameter);
  context.timing("pull and measure, a frame", pullSeconds * 1000 / kFrames);

  // The whole last frame, 12 bits shown as 8, with the track of the centre
  // and the measured ellipse; the close-up shows the ellipse in detail.
  cv::Mat picture;
  frame.convertTo(picture, CV_8U, 255.0 / 4095.0);
  cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  for (size_t i = 1; i < track.size(); ++i) {
    cv::line(picture, track[i - 1], track[i], cv::Scalar(0, 200, 255), 1, cv::LINE_AA);
  }
  const cv::Point pixel(static_cast<int>(std::lround(last.centerX)),
                        static_cast<int>(std::lround(last.centerY)));
  cv::ellipse(picture, pixel,
              cv::Size(static_cast<int>(std::lround(last.majorDiameter / 2)),
                       static_cast<int>(std::lround(last.minorDiameter / 2))),
              last.angle == 90 ? 0.0 : -last.angle, 0, 360, cv::Scalar(0, 255, 0), 1, cv::LINE_AA);
  cv::drawMarker(picture, pixel, cv::Scalar(0, 0, 255), cv::MARKER_CROSS, 12, 1);
  context.save("spot-track.png", picture);

  const cv::Mat beam = beamCloseUp(frame, last);
  context.save("spot-beam.png", beam);
  const std::string values = format("centre (%.2f, %.2f), dX %.2f px, dY %.2f px, angle %.0f",
                                    last.centerX, last.centerY, last.majorDiameter,
                                    last.minorDiameter, last.angle);

  HtmlReport::Section& section = context.section();
  section.paragraph(format("A Gaussian laser spot circles (radius %.0f px) and breathes (size "
                           "+-%.0f %%) in front of a simulated 12-bit camera of %s.  A spot "
                           "session pulls each of %d frames (vantix_spot_pull) and measures its "
                           "centre and second-moment (4-sigma) diameters; the simulated camera "
                           "tells the true spot of every frame.",
                           spot.orbitRadius, 100 * spot.breathAmplitude, sizeText(size).c_str(),
                           kFrames));
  section.highlight(format("Largest centre error after the first frame %.2f px; largest "
                           "diameter error %.2f px.",
                           worstCentre, worstDiameter));
  section.figures({{beam, "spot-beam.png, the last frame enlarged " + std::to_string(kZoom) +
                              " times: " + values +
                              " (angle 90: measured along x and y).  Green: the measured 4-sigma "
                              "ellipse; orange: the aperture for the next frame; red cross: the "
                              "centre.",
                    beam.cols},
                   {picture, "spot-track.png, the whole last frame with the track of the "
                             "measured centre over the 32 frames (yellow)",
                    picture.cols}});
  LinePlot plot;
  plot.title = "Beam diameters over the frames";
  plot.xLabel = "frame";
  plot.yLabel = "4-sigma diameter (px)";
  plot.series = {measuredX, exactX, measuredY, exactY};
  section.plot(plot);
  section.foldedTable(format("All %d frames", kFrames),
                      {"frame", "centre measured", "centre true", "centre error", "dX measured",
                       "dX true", "dY measured", "dY true", "angle"},
                      rows);
}

}  // namespace vtool
