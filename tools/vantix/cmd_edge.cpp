// vantix edge IMAGE X Y [--size N]
#include <cstdio>

#include "commands.h"
#include "errors.h"
#include "image_io.h"
#include "library.h"

namespace vtool {

namespace {

const char kUsage[] =
    "usage: vantix edge IMAGE X Y [--size N]\n"
    "\n"
    "Snaps the point (X,Y) of IMAGE onto the nearest edge with an edge session\n"
    "(vantix_edge_get) and prints where it went.\n"
    "\n"
    "  IMAGE     8- or 16-bit grey, BGR or BGRA image\n"
    "  X Y       the point in pixels, 0-based, inside the image\n"
    "  --size N  search size 1..50 (default 20): the search area is 3N pixels\n"
    "            a side and an edge point must lie closer than N pixels\n";

int run(const Args& args) {
  const std::string& path = args.positional(0);
  constexpr int64_t kLimit = 1 << 30;
  cv::Point point(static_cast<int>(parseInteger(args.positional(1), "X", -kLimit, kLimit)),
                  static_cast<int>(parseInteger(args.positional(2), "Y", -kLimit, kLimit)));
  const auto size = static_cast<uint32_t>(
      parseInteger(args.option("size").value_or("20"), "--size", 1, 50));

  const cv::Mat image = readImage(path);
  const EdgeFrame frame = makeEdgeFrame(image);
  // Checked here as well as in EdgeSession::snap so the message names the file.
  if (point.x < 0 || point.y < 0 || point.x >= image.cols || point.y >= image.rows) {
    throw ToolError("point (" + std::to_string(point.x) + "," + std::to_string(point.y) +
                    ") lies outside '" + path + "' (" + sizeText(image.size()) +
                    "; X 0.." + std::to_string(image.cols - 1) + ", Y 0.." +
                    std::to_string(image.rows - 1) + ")");
  }
  EdgeSession session(frame.format, frame.size, size);
  const cv::Point clicked = point;
  if (session.snap(frame, point)) {
    std::printf("snapped (%d,%d) -> (%d,%d)\n", clicked.x, clicked.y, point.x, point.y);
  } else {
    std::printf("no edge within %u px of (%d,%d)\n", size, clicked.x, clicked.y);
  }
  return 0;
}

}  // namespace

Command edgeCommand() {
  return {"edge", "snap a point onto the nearest edge (vantix_edge_get)", kUsage,
          {"IMAGE", "X", "Y"}, {{"size", true}}, &run};
}

}  // namespace vtool
