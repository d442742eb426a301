// The vantix command-line tool, run as a separate process on files written
// into a temporary folder.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;

constexpr char kSampleFolder[] = "/usr/share/doc/opencv-doc/examples/data";

struct ToolRun {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

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

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantix_cli_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  std::string write(const std::string& name, const cv::Mat& image) const {
    EXPECT_TRUE(cv::imwrite(path(name), image)) << name;
    return path(name);
  }

  // An output file of the tool, as stored.
  cv::Mat read(const std::string& name) const {
    const cv::Mat image = cv::imread(path(name), cv::IMREAD_UNCHANGED);
    EXPECT_FALSE(image.empty()) << "cannot read " << name;
    return image;
  }

  ToolRun run(const std::vector<std::string>& args) const {
    std::string command = quote(VANTIX_TOOL_PATH);
    for (const std::string& arg : args) command += " " + quote(arg);
    command += " >" + quote(path("stdout.txt")) + " 2>" + quote(path("stderr.txt"));
    const int status = std::system(command.c_str());
    ToolRun result;
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.status = 128 + WTERMSIG(status);
    result.out = slurp(path("stdout.txt"));
    result.err = slurp(path("stderr.txt"));
    return result;
  }

  fs::path dir_;
};

// A failure: exit 1 or 2 (not a crash), nothing on stdout and exactly one
// "vantix: " line on stderr.
void expectOneErrorLine(const ToolRun& run, const std::string& mentions = "") {
  EXPECT_TRUE(run.status == 1 || run.status == 2) << "status " << run.status;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err.rfind("vantix: ", 0), 0u) << run.err;
  ASSERT_FALSE(run.err.empty());
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  if (!mentions.empty()) {
    EXPECT_NE(run.err.find(mentions), std::string::npos) << run.err;
  }
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
      // Refusals of the library come with the result's name.
      {{"demosaic", grey16, out, "--pattern", "RGGB", "--bits", "12", "--algorithm", "vng"},
       "E_NOTIMPL (0x80004001)"},
      {{"demosaic", grey8, out, "--pattern", "RGGB", "--bits", "8", "--algorithm", "ea",
        "--order", "rgba"},
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
    expectOneErrorLine(run(c.args), c.mentions);
  }
  EXPECT_FALSE(fs::exists(out)) << "a failed command left an output file";
}

// ---------------------------------------------------------------------------
// resize
// ---------------------------------------------------------------------------

TEST_F(Cli, ResizeMatchesOpenCvForEveryImageType) {
  // Odd widths: the library's rows are padded to 4 bytes, the files' are not.
  for (int type : {CV_8UC1, CV_16UC1, CV_8UC3, CV_8UC4, CV_16UC3}) {
    const cv::Mat source = vtest::smoothScene(23, 37, type);
    const std::string in = write("in.png", source);
    const std::string out = "out.png";
    struct Expectation {
      const char* interp;
      cv::Size size;
      int reference;
    };
    for (const Expectation& e : {Expectation{"nearest", {19, 29}, cv::INTER_NEAREST},
                                 Expectation{"auto", {75, 47}, cv::INTER_CUBIC}}) {
      SCOPED_TRACE(std::string(e.interp) + " type " + std::to_string(type) + " to " +
                   std::to_string(e.size.width) + "x" + std::to_string(e.size.height));
      const ToolRun result = run({"resize", in, path(out), "--size",
                              std::to_string(e.size.width) + "x" + std::to_string(e.size.height),
                              "--interp", e.interp});
      ASSERT_EQ(result.status, 0) << result.err;
      EXPECT_EQ(result.err, "");
      cv::Mat expected;
      cv::resize(source, expected, e.size, 0, 0, e.reference);
      EXPECT_LE(maxDifference(read(out), expected), 1.0);
    }
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

// The raw frame a sensor with filter `pattern` ("RGGB", ...) records.
cv::Mat mosaic(const cv::Mat& bgr, const std::string& pattern) {
  cv::Mat raw(bgr.size(), bgr.depth());
  cv::Mat channels[3];
  cv::split(bgr, channels);
  for (int y = 0; y < bgr.rows; ++y) {
    for (int x = 0; x < bgr.cols; ++x) {
      const char site = pattern[(y % 2) * 2 + (x % 2)];
      const int channel = site == 'B' ? 0 : site == 'G' ? 1 : 2;
      if (bgr.depth() == CV_8U) {
        raw.at<uint8_t>(y, x) = channels[channel].at<uint8_t>(y, x);
      } else {
        raw.at<uint16_t>(y, x) = channels[channel].at<uint16_t>(y, x);
      }
    }
  }
  return raw;
}

// Largest deviation from the patch colours in the middle of each patch.
double patchError(const cv::Mat& image, double scale, int margin) {
  double worst = 0;
  for (int i = 0; i < 4; ++i) {
    const cv::Rect inner((i % 2) * 32 + margin, (i / 2) * 24 + margin, 32 - 2 * margin,
                         24 - 2 * margin);
    cv::Mat expected(inner.size(), CV_64FC3,
                     cv::Scalar(kPatchColours[i][0], kPatchColours[i][1], kPatchColours[i][2]) *
                         scale);
    cv::Mat actual;
    image(inner).convertTo(actual, CV_64F);
    worst = std::max(worst, cv::norm(actual.reshape(1), expected.reshape(1), cv::NORM_INF));
  }
  return worst;
}

TEST_F(Cli, DemosaicGivesTrueColoursForEveryPattern) {
  // The G-first patterns catch a red/blue swap of the conversion.
  const cv::Mat scene = patchScene(CV_8U, 1.0);
  for (const char* pattern : {"RGGB", "BGGR", "GRBG", "GBRG"}) {
    SCOPED_TRACE(pattern);
    const std::string raw = write("raw.pgm", mosaic(scene, pattern));
    const ToolRun result =
        run({"demosaic", raw, path("out.ppm"), "--pattern", pattern, "--bits", "8"});
    ASSERT_EQ(result.status, 0) << result.err;
    const cv::Mat out = read("out.ppm");
    ASSERT_EQ(out.type(), CV_8UC3);
    EXPECT_LE(patchError(out, 1.0, 2), 1.0);
  }
}

TEST_F(Cli, DemosaicAlgorithmsAndOrdersAllLookRight) {
  const std::string raw = write("raw.pgm", mosaic(patchScene(CV_8U, 1.0), "RGGB"));
  struct Variant {
    const char* algorithm;
    const char* order;
    int channels;
    double tolerance;
  };
  for (const Variant& v : {Variant{"bilinear", "rgb", 3, 1.0}, Variant{"bilinear", "bgra", 4, 1.0},
                           Variant{"bilinear", "rgba", 4, 1.0}, Variant{"vng", "bgr", 3, 4.0},
                           Variant{"vng", "rgb", 3, 4.0}, Variant{"ea", "rgb", 3, 4.0}}) {
    SCOPED_TRACE(std::string(v.algorithm) + " " + v.order);
    const std::string file = v.channels == 4 ? "out.png" : "out.ppm";
    const ToolRun result = run({"demosaic", raw, path(file), "--pattern", "rggb", "--bits", "8",
                                "--algorithm", v.algorithm, "--order", v.order});
    ASSERT_EQ(result.status, 0) << result.err;
    cv::Mat out = read(file);
    ASSERT_EQ(out.channels(), v.channels);
    if (v.channels == 4) {
      cv::Mat alpha;
      cv::extractChannel(out, alpha, 3);
      EXPECT_EQ(cv::countNonZero(alpha != 255), 0);
      cv::cvtColor(out, out, cv::COLOR_BGRA2BGR);
    }
    EXPECT_LE(patchError(out, 1.0, 4), v.tolerance);
  }
}

TEST_F(Cli, DemosaicTwelveBitFrameGivesFullRangeSixteenBitImage) {
  const double toTwelve = 4095.0 / 255.0;
  const std::string raw = write("raw.pgm", mosaic(patchScene(CV_16U, toTwelve), "GBRG"));
  for (const char* algorithm : {"bilinear", "ea"}) {
    SCOPED_TRACE(algorithm);
    const ToolRun result = run({"demosaic", raw, path("out.ppm"), "--pattern", "GBRG", "--bits",
                                "12", "--algorithm", algorithm});
    ASSERT_EQ(result.status, 0) << result.err;
    const cv::Mat out = read("out.ppm");
    ASSERT_EQ(out.type(), CV_16UC3);
    EXPECT_LE(patchError(out, 65535.0 / 255.0, 4), 40.0);  // 12-bit rounding, scaled by 16
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
    EXPECT_EQ(fromX, 44);
    EXPECT_EQ(fromY, 35);
    EXPECT_NEAR(toX, 50, 1);
    EXPECT_NEAR(toY, 40, 1);

    const ToolRun flat = run({"edge", file, "10", "90"});
    ASSERT_EQ(flat.status, 0) << flat.err;
    EXPECT_EQ(flat.out, "no edge within 20 px of (10,90)\n");
  }
}

TEST_F(Cli, EdgeSearchSizeLimitsTheSnap) {
  cv::Mat scene(100, 120, CV_8UC1, cv::Scalar(30));
  cv::rectangle(scene, cv::Rect(50, 40, 14, 14), cv::Scalar(230), cv::FILLED);
  const std::string file = write("square.pgm", scene);
  // The traced corner is 7.8 or 9.2 px away ((50,40) or (51,41)).
  const ToolRun small = run({"edge", file, "44", "35", "--size", "6"});
  ASSERT_EQ(small.status, 0) << small.err;
  EXPECT_EQ(small.out, "no edge within 6 px of (44,35)\n");
  const ToolRun enough = run({"edge", file, "44", "35", "--size=12"});
  ASSERT_EQ(enough.status, 0) << enough.err;
  EXPECT_EQ(enough.out.rfind("snapped (44,35) -> ", 0), 0u) << enough.out;
  // Points on the image border are inside the image.
  for (const char* corner : {"0 0", "119 99"}) {
    int x = 0, y = 0;
    std::sscanf(corner, "%d %d", &x, &y);
    const ToolRun border = run({"edge", file, std::to_string(x), std::to_string(y)});
    EXPECT_EQ(border.status, 0) << border.err;
  }
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

TEST_F(Cli, DemoRunsOnTheSamplePhotos) {
  const std::string folder = path("demo");
  const ToolRun result = run({"demo", "--out", folder});
  expectDemoFiles(folder, result);
  if (!fs::exists(std::string(kSampleFolder) + "/baboon.jpg")) {
    GTEST_SKIP() << "opencv-doc sample images are not installed";
  }
  for (const char* photo : {"baboon.jpg", "fruits.jpg", "building.jpg"}) {
    EXPECT_NE(result.out.find(photo), std::string::npos) << photo;
  }
  EXPECT_EQ(imageSize(path("demo/resize-down.png")), cv::Size(256, 256));
  EXPECT_EQ(imageSize(path("demo/resize-up.png")), cv::Size(1024, 1024));
  const size_t at = result.out.find("bilinear");
  ASSERT_NE(at, std::string::npos);
  double milliseconds = 0, psnr = 0;
  ASSERT_EQ(std::sscanf(result.out.c_str() + at, "bilinear %lf ms PSNR %lf", &milliseconds, &psnr),
            2);
  EXPECT_GT(psnr, 30.0);  // a demosaic that mixed up the channels stays far below
  const size_t summary = result.out.find("clicks snapped");
  ASSERT_NE(summary, std::string::npos);
  const size_t line = result.out.rfind('\n', summary) + 1;
  int snapped = 0, clicks = 0;
  ASSERT_EQ(std::sscanf(result.out.c_str() + line, " %d of %d", &snapped, &clicks), 2);
  EXPECT_GE(clicks, 6);
  EXPECT_GE(snapped * 4, clicks * 3) << "clicks next to edges mostly snap";
}

TEST_F(Cli, DemoFallsBackToASyntheticScene) {
  const std::string folder = path("demo");
  const ToolRun result = run({"demo", "--out", folder, "--data", path("no-samples")});
  expectDemoFiles(folder, result);
  EXPECT_NE(result.out.find("apt-get install opencv-doc"), std::string::npos);
  EXPECT_NE(result.out.find("synthetic scene"), std::string::npos);
  EXPECT_EQ(imageSize(path("demo/resize-down.png")), cv::Size(320, 240));
}

}  // namespace
