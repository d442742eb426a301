// Demo step: a laser spot that circles and breathes in front of the
// simulated camera, measured frame by frame with vantix_spot_pull against
// the camera's exact spot; the picture shows the last frame with the
// measured 4-sigma ellipse, the aperture and the track of the centre.
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "demo.h"
#include "spot_camera.h"

namespace vtool {

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
  say("%5s %17s %17s %15s %15s", "frame", "centre (measured)", "centre (exact)", "dX / 4 sigma",
      "dY / 4 sigma");

  SpotSession session(1, 0);
  cv::Mat frame;
  std::vector<cv::Point2d> track;
  SpotResult last{};
  constexpr int kFrames = 32;
  double worstCentre = 0;
  for (int i = 0; i < kFrames; ++i) {
    const uint32_t index = camera.api().frameIndex(camera.handle());
    last = session.pull(camera, 16, &frame)[0];
    SimcamSpotTruth truth{};
    camera.api().spotTruth(camera.handle(), index, 0, &truth);
    const double exactX = 4 * truth.sigmaX, exactY = 4 * truth.sigmaY;
    say("%5d %8.2f,%8.2f %8.2f,%8.2f %6.2f / %6.2f %6.2f / %6.2f", i, last.centerX, last.centerY,
        truth.centerX, truth.centerY, last.majorDiameter, exactX, last.minorDiameter, exactY);
    if (i > 0) {
      worstCentre = std::max(worstCentre, std::hypot(last.centerX - truth.centerX,
                                                     last.centerY - truth.centerY));
    }
    track.emplace_back(last.centerX, last.centerY);
  }
  say("largest centre error after the first frame: %.2f px (the aperture lags a moving spot)",
      worstCentre);

  // The last frame, 12 bits shown as 8, with the measurement drawn over it.
  cv::Mat picture;
  frame.convertTo(picture, CV_8U, 255.0 / 4095.0);
  cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  for (size_t i = 1; i < track.size(); ++i) {
    cv::line(picture, track[i - 1], track[i], cv::Scalar(0, 200, 255), 1, cv::LINE_AA);
  }
  const cv::Point centre(static_cast<int>(std::lround(last.centerX)),
                         static_cast<int>(std::lround(last.centerY)));
  cv::ellipse(picture, centre,
              cv::Size(static_cast<int>(last.majorDiameter / 2), static_cast<int>(last.minorDiameter / 2)),
              0, 0, 360, cv::Scalar(0, 255, 0), 1, cv::LINE_AA);
  cv::ellipse(picture,
              cv::Point(static_cast<int>(std::lround(last.apertureX)),
                        static_cast<int>(std::lround(last.apertureY))),
              cv::Size(static_cast<int>(last.apertureA), static_cast<int>(last.apertureB)), 0, 0,
              360, cv::Scalar(255, 128, 0), 1, cv::LINE_AA);
  cv::drawMarker(picture, centre, cv::Scalar(0, 0, 255), cv::MARKER_CROSS, 12, 1);
  context.save("spot-track.png", picture);
}

}  // namespace vtool
