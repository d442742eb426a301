// "vantix stitch" run as a separate process on frames cut from a real photo
// at known offsets.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/cli_tool.h"

namespace {

namespace fs = std::filesystem;
using vtest::ToolRun;

constexpr char kPhoto[] = "/usr/share/doc/opencv-doc/examples/data/aloeL.jpg";

class CliStitch : public vtest::CliTest {
 protected:
  void SetUp() override {
    vtest::CliTest::SetUp();
    photo_ = cv::imread(kPhoto, cv::IMREAD_COLOR);
    ASSERT_FALSE(photo_.empty()) << "cannot read " << kPhoto
                                 << " (install Debian's opencv-doc package)";
  }

  // Frames of 320 x 240 cut from the photo with their top-left corners at
  // `origin` + i * `step`; returns their paths.
  std::vector<std::string> writeFrames(int count, cv::Point origin, cv::Point step) const {
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
      const cv::Rect window(origin + i * step, cv::Size(320, 240));
      paths.push_back(path("frame" + std::to_string(100 + i) + ".png"));
      EXPECT_TRUE(cv::imwrite(paths.back(), photo_(window)));
    }
    return paths;
  }

  // "vantix stitch ARGS...".
  ToolRun run(std::vector<std::string> args) const {
    args.insert(args.begin(), "stitch");
    return vtest::CliTest::run(args);
  }

  cv::Mat photo_;
};

TEST_F(CliStitch, BadArgumentsGiveOneLineAndNoPanorama) {
  const std::vector<std::string> frames = writeFrames(2, {0, 0}, {30, 0});
  const std::string other = path("other.png");
  cv::imwrite(other, photo_(cv::Rect(0, 0, 200, 100)));
  const std::string floats = path("float.tiff");
  cv::imwrite(floats, cv::Mat(240, 320, CV_32FC1, cv::Scalar(0.5)));
  const std::string out = path("pano.png");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string mentions;
  };
  const std::vector<Case> cases = {
      {{"-o", out}, 2, "missing argument FRAME"},
      {{frames[0], frames[1]}, 2, "-o PANO"},
      {{frames[0], "-o"}, 2, "needs a value"},
      {{frames[0], "-o", out, "--scale-level", "5"}, 2, "--scale-level"},
      {{frames[0], "-o", out, "--strict-level", "-1"}, 2, "--strict-level"},
      {{frames[0], "-o", out, "--fps", "fast"}, 2, "--fps"},
      {{frames[0], "-o", out, "-x"}, 2, "unknown option"},
      {{frames[0], "-o", path("pano.xyz")}, 1, ".xyz"},
      {{frames[0], path("missing.png"), "-o", out, "--fps", "0"}, 1, "no such file"},
      {{frames[0], other, "-o", out, "--fps", "0"}, 1, "200x100, the first frame is 320x240"},
      {{floats, "-o", out}, 1, "32-bit float"},
  };
  for (const Case& c : cases) {
    std::string line;
    for (const std::string& arg : c.args) line += arg + " ";
    SCOPED_TRACE(line);
    const ToolRun r = run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err.rfind("vantix: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(r.err.find(c.mentions), std::string::npos) << r.err;
  }
  EXPECT_FALSE(fs::exists(out));
}

TEST_F(CliStitch, StitchesFramesWhereTheyWereCut) {
  // Twelve frames moving 40 px left and 3 px down each: the cropped
  // panorama is the photo's window they cover, upright and in B G R order.
  const cv::Point origin(500, 100), step(-40, 3);
  const int count = 12;
  std::vector<std::string> args = writeFrames(count, origin, step);
  const std::string out = path("pano.png"), csv = path("positions.csv");
  args.insert(args.end(), {"-o", out, "--crop", "--fps", "0", "--positions", csv});
  const ToolRun r = run(args);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("12 frames processed"), std::string::npos) << r.out;

  // One CSV line per frame, each placed near its true offset from the first.
  std::ifstream in(csv);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line.rfind("report,frame,mode,", 0), 0u) << line;
  std::vector<cv::Point> placed;
  while (std::getline(in, line)) {
    std::stringstream fields(line);
    std::vector<std::string> f;
    for (std::string field; std::getline(fields, field, ',');) f.push_back(field);
    ASSERT_EQ(f.size(), 11u) << line;
    EXPECT_EQ(f[1], "\"" + path("frame" + std::to_string(100 + placed.size()) + ".png") + "\"");
    EXPECT_EQ(f[2], "placed") << line;
    placed.emplace_back(std::stoi(f[7]), std::stoi(f[8]));
  }
  ASSERT_EQ(placed.size(), static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const cv::Point error = placed[i] - placed[0] - i * step;
    EXPECT_LE(cv::norm(error), 3.0) << "frame " << i << " at " << placed[i];
  }

  // The panorama: the covered rectangle, showing the photo where the frames
  // were cut (compared where the first frame lies, which no drift can move).
  const cv::Mat panorama = cv::imread(out, cv::IMREAD_UNCHANGED);
  ASSERT_EQ(panorama.type(), CV_8UC3);
  const cv::Size covered(320 + (count - 1) * std::abs(step.x), 240 + (count - 1) * step.y);
  EXPECT_LE(std::abs(panorama.cols - covered.width), 4) << panorama.size();
  EXPECT_LE(std::abs(panorama.rows - covered.height), 4) << panorama.size();
  ASSERT_GE(panorama.cols, 320 + placed[0].x);
  ASSERT_GE(panorama.rows, 240 + placed[0].y);
  const cv::Mat first = panorama(cv::Rect(placed[0], cv::Size(320, 240)));
  cv::Mat difference;
  cv::absdiff(first(cv::Rect(0, 0, 100, 100)), photo_(cv::Rect(origin, cv::Size(100, 100))),
              difference);
  EXPECT_LT(cv::mean(difference)[0] + cv::mean(difference)[1] + cv::mean(difference)[2], 6.0);
}

TEST_F(CliStitch, LiveRateShowsEventsAndWritesTheWholeCanvas) {
  // Frames moving left: the first lies at canvas (640, 480) of a 1280 x 960
  // canvas, so the 17th (640 px further left) needs the canvas to grow.
  std::vector<std::string> args = writeFrames(20, {900, 200}, {-40, 0});
  args.insert(args.end(), {"-o", path("pano.png"), "--fps", "30"});
  const ToolRun r = run(args);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("30 frames a second"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(": canvas grew"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("canvas growing"), std::string::npos) << r.out;
  const cv::Mat panorama = cv::imread(path("pano.png"), cv::IMREAD_UNCHANGED);
  // Grown by four frame widths to the left: 2560 x 960.
  EXPECT_EQ(panorama.size(), cv::Size(2560, 960));
}

}  // namespace
