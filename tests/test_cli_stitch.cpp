// "vantix stitch" run as a separate process on frames cut from a real photo
// at known offsets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
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

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

class CliStitch : public vtest::CliTest {
 protected:
  void SetUp() override {
    vtest::CliTest::SetUp();
    photo_ = cv::imread(kPhoto, cv::IMREAD_COLOR);
    ASSERT_FALSE(photo_.empty()) << "cannot read " << kPhoto
                                 << " (install Debian's opencv-doc package)";
  }

  // Frames of 320 x 240 cut from the photo with their top-left corners at
  // `origin` + i * `step`.
  std::vector<cv::Mat> cut(int count, cv::Point origin, cv::Point step) const {
    std::vector<cv::Mat> frames;
    for (int i = 0; i < count; ++i) {
      frames.push_back(photo_(cv::Rect(origin + i * step, cv::Size(320, 240))));
    }
    return frames;
  }

  // The frames as files frame<i>.png in `folder` (created; "" for the test's
  // own folder), numbered from 8 so that name order differs from byte order
  // (frame8, frame9, frame10, ...); returns their paths.
  std::vector<std::string> writeFrames(const std::vector<cv::Mat>& frames,
                                       const std::string& folder = "") const {
    if (!folder.empty()) fs::create_directories(path(folder));
    std::vector<std::string> paths;
    for (size_t i = 0; i < frames.size(); ++i) {
      paths.push_back(path((folder.empty() ? "" : folder + "/") + "frame" +
                           std::to_string(8 + i) + ".png"));
      EXPECT_TRUE(cv::imwrite(paths.back(), frames[i]));
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
  const std::vector<std::string> frames = writeFrames(cut(2, {0, 0}, {30, 0}));
  const std::string other = path("other.png");
  cv::imwrite(other, photo_(cv::Rect(0, 0, 200, 100)));
  const std::string floats = path("float.tiff");
  cv::imwrite(floats, cv::Mat(240, 320, CV_32FC1, cv::Scalar(0.5)));
  fs::create_directories(path("empty"));
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
      {{frames[0], "-o", out, "--crop", "--whole-canvas"}, 2, "exclude each other"},
      {{frames[0], "-o", out, "--background", "grey"}, 2, "checkerboard, white or black"},
      {{frames[0], "-o", out, "-x"}, 2, "unknown option"},
      {{frames[0], "-o", path("pano.xyz")}, 1, ".xyz"},
      {{frames[0], path("missing.png"), "-o", out}, 1, "no such file"},
      {{path("empty"), "-o", out}, 1, "holds no image files"},
      {{frames[0], other, "-o", out}, 1, "200x100, the first frame is 320x240"},
      {{floats, "-o", out}, 1, "32-bit float"},
      {{frames[0], "-o", out, "--bits", "8"}, 2, "--bits"},
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

// A folder of frames is taken in name order, every frame is processed (one
// CSV line each, naming its file), each lies where it was cut, and the
// panorama is the covered rectangle unless the whole canvas is asked for.
TEST_F(CliStitch, StitchesEveryFrameOfAFolderAndCropsByDefault) {
  // Twenty frames moving 40 px left and 3 px down each: the 17th leaves the
  // four-frame canvas, which grows to the left.
  const cv::Point origin(900, 100), step(-40, 3);
  const int count = 20;
  const std::vector<std::string> files = writeFrames(cut(count, origin, step), "frames");
  const std::string out = path("pano.png"), csv = path("positions.csv");
  const ToolRun r = run({path("frames"), "-o", out, "--positions", csv});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("20 frames processed: 20 placed"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(": canvas grew"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("canvas growing"), std::string::npos) << r.out;

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
    ASSERT_LT(placed.size(), files.size());
    EXPECT_EQ(f[1], "\"" + files[placed.size()] + "\"");
    EXPECT_EQ(f[2], "placed") << line;
    placed.emplace_back(std::stoi(f[7]), std::stoi(f[8]));
  }
  ASSERT_EQ(placed.size(), static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const cv::Point error = placed[i] - placed[0] - i * step;
    EXPECT_LE(cv::norm(error), 3.0) << "frame " << i << " at " << placed[i];
  }

  // The covered rectangle, showing the photo where the first frame was cut
  // (upright and in B G R order).
  const cv::Mat panorama = cv::imread(out, cv::IMREAD_UNCHANGED);
  ASSERT_EQ(panorama.type(), CV_8UC3);
  const cv::Size covered(320 + (count - 1) * std::abs(step.x), 240 + (count - 1) * step.y);
  EXPECT_LE(std::abs(panorama.cols - covered.width), 4) << panorama.size();
  EXPECT_LE(std::abs(panorama.rows - covered.height), 4) << panorama.size();
  ASSERT_GE(panorama.cols, 100 + placed[0].x);
  ASSERT_GE(panorama.rows, 100 + placed[0].y);
  cv::Mat difference;
  cv::absdiff(panorama(cv::Rect(placed[0], cv::Size(100, 100))),
              photo_(cv::Rect(origin, cv::Size(100, 100))), difference);
  EXPECT_LT(cv::mean(difference)[0] + cv::mean(difference)[1] + cv::mean(difference)[2], 6.0);

  // --whole-canvas: the canvas grown by four frame widths, 2560 x 960.
  const ToolRun whole = run({path("frames"), "-o", path("whole.png"), "--whole-canvas"});
  ASSERT_EQ(whole.status, 0) << whole.err;
  EXPECT_EQ(cv::imread(path("whole.png")).size(), cv::Size(2560, 960));
}

// At a live rate the session may skip frames; the summary accounts for
// every frame either way.  Steps of 4 px keep any subset stitchable.
TEST_F(CliStitch, LiveRateAccountsForEveryFrame) {
  std::vector<std::string> args = writeFrames(cut(20, {600, 100}, {-4, 0}));
  args.insert(args.end(), {"-o", path("pano.png"), "--fps", "1000"});
  const ToolRun r = run(args);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("1000 frames a second"), std::string::npos) << r.out;
  const size_t at = r.out.find(" frames processed: ");
  ASSERT_NE(at, std::string::npos) << r.out;
  const size_t start = r.out.rfind('\n', at) + 1;
  const int processed = std::stoi(r.out.substr(start, at - start));
  int skipped = 0;
  const size_t skip = r.out.find("(", at);
  if (skip != std::string::npos &&
      r.out.find("skipped by the session", skip) != std::string::npos) {
    skipped = std::stoi(r.out.substr(skip + 1));
  }
  EXPECT_EQ(processed + skipped, 20) << r.out;
}

// Tiles that overlap by 22 %, as 16-bit pages of one TIFF: too little for
// live tracking.  The run fails, says why with the measured overlap, and
// notes once that the 16-bit frames were stitched at 8 bits.
TEST_F(CliStitch, TooLittleOverlapFailsWithTheReason) {
  std::vector<cv::Mat> pages;
  for (const cv::Mat& frame : cut(4, {40, 200}, {250, 0})) {
    pages.emplace_back();
    frame.convertTo(pages.back(), CV_16U, 257.0);
  }
  ASSERT_TRUE(cv::imwritemulti(path("scan.tif"), pages));
  const ToolRun r = run({path("scan.tif"), "-o", path("pano.png")});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.out.find("4 frames processed"), std::string::npos) << r.out;
  EXPECT_EQ(occurrences(r.err, "16-bit frames are stitched at 8 bits"), 1u) << r.err;
  // The headline counts the frames not placed in the summary's terms.
  const size_t summary = r.out.find("4 frames processed: ");
  ASSERT_NE(summary, std::string::npos) << r.out;
  int placed = 0, kept = 0, lost = 0, notPlaced = 0;
  ASSERT_EQ(std::sscanf(r.out.c_str() + summary,
                        "4 frames processed: %d placed, %d kept, %d lost, %d not placed", &placed,
                        &kept, &lost, &notPlaced),
            4);
  EXPECT_NE(r.err.find("\nvantix: stitch: " + std::to_string(4 - placed) +
                       " of 4 frames were not placed (" + std::to_string(kept) +
                       " kept as reference only, " + std::to_string(lost) + " lost, " +
                       std::to_string(notPlaced) + " not placed)\n"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("too little overlap: 3 of 3 successive frame pairs"), std::string::npos)
      << r.err;
  // 70 of 320 pixels shared, as measured by the tool.
  EXPECT_TRUE(r.err.find("least 21 %") != std::string::npos ||
              r.err.find("least 22 %") != std::string::npos ||
              r.err.find("least 23 %") != std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("scan.tif page "), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("too smooth"), std::string::npos) << r.err;
  EXPECT_TRUE(fs::exists(path("pano.png")));
}

// A scan of 12-bit samples in 16-bit pages: read as 16-bit samples they
// leave the 8-bit working image 16 grey levels, and the note says which
// --bits fits; with --bits 12 the tool stitches exactly what the 8-bit
// files of the same scan give.
TEST_F(CliStitch, TwelveBitScanWithBitsStitchesLikeItsEightBitFiles) {
  const std::vector<cv::Mat> frames = cut(8, {600, 100}, {-30, 2});
  std::vector<std::string> eight = writeFrames(frames);
  std::vector<cv::Mat> pages;
  for (const cv::Mat& frame : frames) pages.push_back(vtest::twelveBitOf(frame));
  ASSERT_TRUE(cv::imwritemulti(path("scan.tif"), pages));

  eight.insert(eight.end(), {"-o", path("eight.png")});
  const ToolRun reference = run(eight);
  ASSERT_EQ(reference.status, 0) << reference.err;
  const ToolRun plain = run({path("scan.tif"), "-o", path("plain.png")});
  EXPECT_EQ(occurrences(plain.err, "fits in 12 bits: for 12-bit data give --bits 12"), 1u)
      << plain.err;
  const ToolRun scaled = run({path("scan.tif"), "-o", path("scaled.png"), "--bits", "12"});
  ASSERT_EQ(scaled.status, 0) << scaled.err;
  EXPECT_NE(scaled.out.find("8 frames processed: 8 placed"), std::string::npos) << scaled.out;
  EXPECT_EQ(scaled.err.find("--bits 12 ("), std::string::npos) << scaled.err;
  const cv::Mat expected = read("eight.png"), got = read("scaled.png");
  ASSERT_EQ(got.size(), expected.size());
  EXPECT_EQ(cv::norm(got, expected, cv::NORM_INF), 0.0);
}

}  // namespace
