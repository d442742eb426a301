// Demo step: clicks next to edges of a photo are snapped onto them; the
// picture shows each click (red), where it went (green) and the search area.
#include <algorithm>
#include <cstdlib>
#include <string>

#include <opencv2/imgproc.hpp>

#include "demo.h"
#include "image_io.h"
#include "library.h"

namespace vtool {

namespace {

constexpr uint32_t kSearchSize = 20;

// Simulated clicks: in each cell of a 4 x 3 grid, the pixel of strongest
// contrast near the cell's centre, missed by a few pixels as a hand would.
std::vector<cv::Point> clicksNearEdges(const cv::Mat& bgr) {
  cv::Mat grey;
  cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
  std::vector<cv::Point> clicks;
  constexpr int kColumns = 4, kRows = 3, kReach = 25;
  for (int row = 0; row < kRows; ++row) {
    for (int column = 0; column < kColumns; ++column) {
      const cv::Point centre(grey.cols * (2 * column + 1) / (2 * kColumns),
                             grey.rows * (2 * row + 1) / (2 * kRows));
      int best = 0;
      cv::Point edge;
      for (int y = std::max(1, centre.y - kReach); y < std::min(grey.rows - 1, centre.y + kReach);
           ++y) {
        for (int x = std::max(1, centre.x - kReach);
             x < std::min(grey.cols - 1, centre.x + kReach); ++x) {
          const int contrast =
              std::abs(grey.at<uchar>(y, x + 1) - grey.at<uchar>(y, x - 1)) +
              std::abs(grey.at<uchar>(y + 1, x) - grey.at<uchar>(y - 1, x));
          if (contrast > best) {
            best = contrast;
            edge = cv::Point(x, y);
          }
        }
      }
      if (best < 40) continue;  // nothing worth clicking on here
      clicks.emplace_back(std::min(edge.x + 6, grey.cols - 1), std::min(edge.y + 5, grey.rows - 1));
    }
  }
  return clicks;
}

}  // namespace

void demoEdge(DemoContext& context) {
  std::string label;
  const cv::Mat photo = context.sample("building.jpg", label);
  const std::vector<cv::Point> clicks = clicksNearEdges(photo);
  say("%s: %s, %d clicks next to edges, search size %u", label.c_str(),
      sizeText(photo.size()).c_str(), static_cast<int>(clicks.size()), kSearchSize);

  const EdgeFrame frame = makeEdgeFrame(photo);
  EdgeSession session(frame.format, frame.size, kSearchSize);
  cv::Mat picture = photo.clone();
  int snapped = 0;
  double farthest = 0, moved = 0;
  std::vector<std::vector<std::string>> rows;
  const int half = static_cast<int>(kSearchSize * 3 / 2);
  for (const cv::Point& click : clicks) {
    cv::Point point = click;
    const bool found = session.snap(frame, point);
    cv::rectangle(picture, click - cv::Point(half, half), click + cv::Point(half, half),
                  cv::Scalar(200, 200, 200), 1);
    if (found) {
      ++snapped;
      const double distance = cv::norm(point - click);
      moved += distance;
      farthest = std::max(farthest, distance);
      rows.push_back({format("(%d, %d)", click.x, click.y), format("(%d, %d)", point.x, point.y),
                      format("%.1f px", distance)});
      cv::line(picture, click, point, cv::Scalar(0, 255, 255), 1, cv::LINE_AA);
      cv::circle(picture, point, 3, cv::Scalar(0, 220, 0), cv::FILLED, cv::LINE_AA);
    } else {
      rows.push_back({format("(%d, %d)", click.x, click.y), "no edge", ""});
    }
    cv::circle(picture, click, 4, cv::Scalar(0, 0, 255), 1, cv::LINE_AA);
  }
  say("%d of %d clicks snapped, moved %.1f px on average, at most %.1f px", snapped,
      static_cast<int>(clicks.size()), snapped > 0 ? moved / snapped : 0.0, farthest);
  context.save("edge-snap.png", picture);

  HtmlReport::Section& section = context.section();
  section.paragraph(format("%s (%s): simulated clicks a few pixels away from strong edges, each "
                           "snapped onto the nearest edge by an edge session (search size %u).",
                           label.c_str(), sizeText(photo.size()).c_str(), kSearchSize));
  section.highlight(format("%d of %d clicks snapped; moved %.1f px on average, at most %.1f px.",
                           snapped, static_cast<int>(clicks.size()),
                           snapped > 0 ? moved / snapped : 0.0, farthest));
  section.figure({picture, "edge-snap.png: red circle = click, green dot = snapped point, "
                           "yellow line = the move, grey square = search area"});
  section.foldedTable(format("All %d clicks", static_cast<int>(clicks.size())),
                      {"click", "snapped to", "distance"}, rows);
}

}  // namespace vtool
