// The vantix command-line tool, run as a separate process on files written
// into a temporary folder.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/bayer.h"
#include "support/cli_tool.h"
#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;
using vtest::ToolRun;
using Cli = vtest::CliTest;

// The size of an image file; (0, 0) when it cannot be read.
cv::Size imageSize(const fs::path& path) {
  return cv::imread(path.string(), cv::IMREAD_UNCHANGED).size();
}

double maxDifference(const cv::Mat& a, const cv::Mat& b) {
  EXPECT_EQ(a.size(), b.size());
  EXPECT_EQ(a.type(), b.type());
  if (a.size() != b.size() || a.type() != b.type()) return 1e9;
  return cv::norm(a, b, cv::NORM_INF);
}

// ---------------------------------------------------------------------------
// Command line and bad input
// ---------------------------------------------------------------------------

TEST_F(Cli, HelpDescribesEveryCommand) {
  const ToolRun overview = run({"--help"});
  EXPECT_EQ(overview.status, 0);
  EXPECT_EQ(overview.err, "");
  for (const char* command : {"resize", "demosaic", "edge", "demo"}) {
    SCOPED_TRACE(command);
    EXPECT_NE(overview.out.find(std::string("  ") + command + " "), std::string::npos);
    // --help wins over whatever else is wrong with the command line.
    const ToolRun help = run({command, "--bogus", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind(std::string("usage: vantix ") + command, 0), 0u) << help.out;
    EXPECT_EQ(help.err, "");
  }
}

TEST_F(Cli, BadInputGivesOneLineAndFailureStatus) {
  const std::string colour = write("colour.ppm", vtest::randomImage(20, 30, CV_8UC3));
  const std::string grey8 = write("grey8.pgm", vtest::randomImage(20, 30, CV_8UC1));
  cv::Mat grey12(20, 30, CV_16UC1, cv::Scalar(4095));
  const std::string grey16 = write("grey16.pgm", grey12);
  const std::string bgra16 = write("bgra16.png", vtest::randomImage(8, 8, CV_16UC4));
  const std::string float32 = write("float.tiff", cv::Mat(8, 8, CV_32FC1, cv::Scalar(0.5)));
  const std::string thin = write("thin.pgm", cv::Mat(3, 1, CV_8UC1, cv::Scalar(9)));
  const std::string text = path("text.png");
  std::ofstream(text) << "not an image";
  const std::string out = path("out.png");

  struct Case {
    std::vector<std::string> args;
    std::string mentions;
  };
  const std::vector<Case> cases = {
      {{}, "missing command"},
      {{"sharpen"}, "unknown command 'sharpen'"},
      {{"resize", colour}, "missing argument OUT"},
      {{"resize", colour, out}, "--size"},
      {{"resize", path("missing.png"), out, "--size", "8x8"}, "no such file"},
      {{"resize", text, out, "--size", "8x8"}, "cannot read"},
      {{"resize", dir_.string(), out, "--size", "8x8"}, "directory"},
      {{"resize", colour, out, "--size", "8x"}, "WIDTHxHEIGHT"},
      {{"resize", colour, out, "--size", "8x8", "--interp", "sinc"}, "--interp"},
      {{"resize", colour, out, "--size", "8x8", "--fast"}, "unknown option '--fast'"},
      {{"resize", bgra16, out, "--size", "8x8"}, "16-bit BGRA"},
      {{"resize", float32, out, "--size", "8x8"}, "32-bit float"},
      {{"resize", colour, path("out.xyz"), "--size", "8x8"}, ".xyz"},
      {{"resize", colour, path("no/such/dir/out.png"), "--size", "8x8"}, "does not exist"},
      {{"demosaic", colour, out, "--pattern", "RGGB", "--bits", "8"}, "one channel"},
      {{"demosaic", grey8, out, "--pattern", "RGGB", "--bits", "12"}, "--bits 8"},
      {{"demosaic", grey16, out, "--pattern", "RGGB", "--bits", "8"}, "--bits 9..16"},
      {{"demosaic", grey16, out, "--pattern", "RGGB", "--bits", "10"}, "more than 10 bits"},
      {{"demosaic", grey8, out, "--pattern", "RGBG", "--bits", "8"}, "--pattern"},
      // A refusal of the library comes with the result's name.
      {{"demosaic", grey16, out, "--pattern", "RGGB", "--bits", "12", "--algorithm", "vng"},
       "E_NOTIMPL (0x80004001)"},
      {{"edge", colour, "5"}, "missing argument Y"},
      {{"edge", colour, "5", "five"}, "Y must be an integer"},
      {{"edge", colour, "30", "5"}, "outside"},
      {{"edge", colour, "5", "5", "--size", "51"}, "--size"},
      {{"edge", float32, "1", "1"}, "32-bit float"},
      {{"edge", thin, "0", "1", "--size", "1"}, "too small"},
      {{"demo", "--out", colour}, "cannot create"},
  };
  for (const Case& c : cases) {
    std::string line;
    for (const std::string& arg : c.args) line += arg + " ";
    SCOPED_TRACE(line);
    vtest::expectOneErrorLine(run(c.args), "vantix: ", c.mentions);
  }
  EXPECT_FALSE(fs::exists(out)) << "a failed command left an output file";
}

// ---------------------------------------------------------------------------
// resize
// ---------------------------------------------------------------------------

// Each image type with a different method name (lanczos4 is the table's
// alias of lanczos): the tool's rows, padded to 4 bytes for the library
// (odd widths), and the method the name stands for, against OpenCV on a
// random image, where the methods differ.
TEST_F(Cli, ResizeMapsEveryTypeAndMethodName) {
  struct Case {
    int type;
    const char* interp;
    int reference;
    cv::Size size;
  };
  for (const Case& c : {Case{CV_8UC1, "nearest", cv::INTER_NEAREST, {19, 29}},
                        Case{CV_16UC1, "linear", cv::INTER_LINEAR, {75, 47}},
                        Case{CV_8UC3, "cubic", cv::INTER_CUBIC, {75, 47}},
                        Case{CV_8UC4, "area", cv::INTER_AREA, {11, 13}},
                        Case{CV_16UC3, "lanczos4", cv::INTER_LANCZOS4, {75, 47}}}) {
    SCOPED_TRACE(std::string(c.interp) + " type " + std::to_string(c.type));
    const cv::Mat source = vtest::randomImage(23, 37, c.type, 5);
    const std::string in = write("in.png", source);
    const ToolRun result = run({"resize", in, path("out.png"), "--size",
                                std::to_string(c.size.width) + "x" + std::to_string(c.size.height),
                                "--interp", c.interp});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    cv::Mat expected;
    cv::resize(source, expected, c.size, 0, 0, c.reference);
    EXPECT_LE(maxDifference(read("out.png"), expected), 1.0);
  }
}

TEST_F(Cli, SixteenBitResultIntoEightBitFormatIsScaledNotClipped) {
  const std::string in = write("in.ppm", cv::Mat(10, 10, CV_16UC3, cv::Scalar::all(257 * 100)));
  const ToolRun result = run({"resize", in, path("out.bmp"), "--size", "20x20"});
  ASSERT_EQ(result.status, 0) << result.err;
  const cv::Mat out = read("out.bmp");
  ASSERT_EQ(out.type(), CV_8UC3);
  EXPECT_NEAR(cv::mean(out)[1], 100.0, 2.0);
}

// ---------------------------------------------------------------------------
// demosaic
// ---------------------------------------------------------------------------

// Four flat colour patches (B, G, R), one a quadrant.
const cv::Vec3b kPatchColours[4] = {{20, 120, 220}, {200, 60, 30}, {90, 210, 140}, {250, 240, 10}};

cv::Mat patchScene(int depth, double scale) {
  cv::Mat scene(48, 64, CV_8UC3);
  for (int i = 0; i < 4; ++i) {
    scene(cv::Rect((i % 2) * 32, (i / 2) * 24, 32, 24)).setTo(kPatchColours[i]);
  }
  cv::Mat out;
  scene.convertTo(out, CV_MAKETYPE(depth, 3), scale);
  return out;
}

// Largest deviation from the patch colours in the middle of each patch.
double patchError(const cv::Mat& image, double scale) {
  double worst = 0;
  for (int i = 0; i < 4; ++i) {
    const cv::Rect inner((i % 2) * 32 + 4, (i / 2) * 24 + 4, 24, 16);
    cv::Mat expected(inner.size(), CV_64FC3,
                     cv::Scalar(kPatchColours[i][0], kPatchColours[i][1], kPatchColours[i][2]) *
                         scale);
    cv::Mat actual;
    image(inner).convertTo(actual, CV_64F);
    worst = std::max(worst, cv::norm(actual.reshape(1), expected.reshape(1), cv::NORM_INF));
  }
  return worst;
}

TEST_F(Cli, DemosaicGivesTrueColours) {
  // Every pattern with the default options (the G-first ones catch a red/blue
  // swap: the name table's pattern codes, passed on as they are, must give
  // true colours), then the orders and algorithms by name and alias, and
  // 12-bit frames that come out as full-range 16-bit images.
  struct Variant {
    const char* pattern;
    int bits;
    const char* algorithm;  // "" for the defaults
    const char* order;
    double tolerance;
  };
  for (const Variant& v :
       {Variant{"RGGB", 8, "", "", 1.0}, Variant{"BGGR", 8, "", "", 1.0},
        Variant{"GRBG", 8, "", "", 1.0}, Variant{"GBRG", 8, "", "", 1.0},
        Variant{"rggb", 8, "bilinear", "rgb", 1.0}, Variant{"RGGB", 8, "bilinear", "rgba", 1.0},
        Variant{"RGGB", 8, "vng", "rgb", 4.0}, Variant{"RGGB", 8, "edge_aware", "rgb", 4.0},
        Variant{"GBRG", 12, "ea", "bgr", 40.0}}) {
    SCOPED_TRACE(std::string(v.pattern) + " " + std::to_string(v.bits) + " " + v.algorithm + " " +
                 v.order);
    const bool deep = v.bits > 8, four = std::string(v.order).size() == 4;
    std::string pattern = v.pattern;
    for (char& c : pattern) c = static_cast<char>(std::toupper(c));
    const std::string raw = write(
        "raw.pgm", vtest::mosaic(patchScene(deep ? CV_16U : CV_8U, deep ? 4095.0 / 255.0 : 1.0),
                                 pattern));
    const std::string file = four ? "out.png" : "out.ppm";
    std::vector<std::string> args = {"demosaic", raw,       path(file), "--pattern",
                                     v.pattern,  "--bits", std::to_string(v.bits)};
    if (*v.algorithm) args.insert(args.end(), {"--algorithm", v.algorithm, "--order", v.order});
    const ToolRun result = run(args);
    ASSERT_EQ(result.status, 0) << result.err;
    cv::Mat out = read(file);
    ASSERT_EQ(out.type(), CV_MAKETYPE(deep ? CV_16U : CV_8U, four ? 4 : 3));
    if (four) {
      cv::Mat alpha;
      cv::extractChannel(out, alpha, 3);
      EXPECT_EQ(cv::countNonZero(alpha != 255), 0);
      cv::cvtColor(out, out, cv::COLOR_BGRA2BGR);
    }
    // 12-bit rounding, scaled by 16, for the deep frames.
    EXPECT_LE(patchError(out, deep ? 65535.0 / 255.0 : 1.0), v.tolerance);
  }
}

// ---------------------------------------------------------------------------
// edge
// ---------------------------------------------------------------------------

TEST_F(Cli, EdgeSnapsOntoADrawnSquareInEveryPixelFormat) {
  cv::Mat scene(100, 120, CV_8UC3, cv::Scalar(30, 30, 30));
  cv::rectangle(scene, cv::Rect(50, 40, 14, 14), cv::Scalar(230, 230, 230), cv::FILLED);
  cv::Mat grey, bgra, bgr16, bgra16;
  cv::cvtColor(scene, grey, cv::COLOR_BGR2GRAY);
  cv::cvtColor(scene, bgra, cv::COLOR_BGR2BGRA);
  scene.convertTo(bgr16, CV_16U, 257.0);
  bgra.convertTo(bgra16, CV_16U, 257.0);
  for (const auto& [name, image] : std::vector<std::pair<std::string, cv::Mat>>{
           {"bgr.ppm", scene}, {"grey.pgm", grey}, {"bgra.png", bgra},
           {"bgr16.ppm", bgr16}, {"bgra16.png", bgra16}}) {
    SCOPED_TRACE(name);
    const std::string file = write(name, image);
    // Up and left of the square's top-left corner.
    const ToolRun near = run({"edge", file, "44", "35"});
    ASSERT_EQ(near.status, 0) << near.err;
    int fromX = 0, fromY = 0, toX = 0, toY = 0;
    ASSERT_EQ(std::sscanf(near.out.c_str(), "snapped (%d,%d) -> (%d,%d)", &fromX, &fromY, &toX,
                          &toY),
              4)
        << near.out;
    EXPECT_EQ(cv::Point(fromX, fromY), cv::Point(44, 35));
    EXPECT_NEAR(toX, 50, 1);
    EXPECT_NEAR(toY, 40, 1);
    EXPECT_EQ(run({"edge", file, "10", "90"}).out, "no edge within 20 px of (10,90)\n");
  }
  // The search size limits the snap: the traced corner is 7.8 or 9.2 px away
  // ((50,40) or (51,41)).  Points on the image border are inside the image.
  const std::string grey8 = path("grey.pgm");
  EXPECT_EQ(run({"edge", grey8, "44", "35", "--size", "6"}).out,
            "no edge within 6 px of (44,35)\n");
  EXPECT_EQ(run({"edge", grey8, "44", "35", "--size=12"}).out.rfind("snapped (44,35) -> ", 0), 0u);
  EXPECT_EQ(run({"edge", grey8, "0", "0"}).status, 0);
  EXPECT_EQ(run({"edge", grey8, "119", "99"}).status, 0);
}

// ---------------------------------------------------------------------------
// demo
// ---------------------------------------------------------------------------

const std::vector<std::string> kDemoFiles = {
    "resize-down.png",   "resize-up.png",          "mosaic-rggb.png", "demosaic-bilinear.png",
    "demosaic-vng.png", "demosaic-edge-aware.png", "edge-snap.png"};

void expectDemoFiles(const fs::path& folder, const ToolRun& result) {
  ASSERT_EQ(result.status, 0) << result.err << result.out;
  EXPECT_EQ(result.err, "");
  for (const std::string& name : kDemoFiles) {
    const fs::path file = folder / name;
    EXPECT_NE(imageSize(file), cv::Size(0, 0)) << file;
    EXPECT_NE(result.out.find(file.string()), std::string::npos) << file << " not listed";
  }
}

// The demo on the sample photos is in test_demo_report (one run there).
TEST_F(Cli, DemoFallsBackToASyntheticScene) {
  const std::string folder = path("demo");
  const ToolRun result = run({"demo", "--out", folder, "--data", path("no-samples")});
  expectDemoFiles(folder, result);
  EXPECT_NE(result.out.find("apt-get install opencv-doc"), std::string::npos);
  EXPECT_NE(result.out.find("synthetic scene"), std::string::npos);
  EXPECT_EQ(imageSize(path("demo/resize-down.png")), cv::Size(320, 240));
}

}  // namespace
