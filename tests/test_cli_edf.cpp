// "vantix edf", run as a separate process on focus stacks written into a
// temporary folder.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/edf_stack.h"
#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

class CliEdf : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantix_cli_edf_XXXXXX";
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
  static std::string slurp(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  ToolRun run(const std::vector<std::string>& args) const {
    std::string command = std::string("'") + VANTIX_TOOL_PATH + "'";
    for (const std::string& arg : args) command += " '" + arg + "'";
    command += " >'" + path("stdout.txt") + "' 2>'" + path("stderr.txt") + "'";
    const int status = std::system(command.c_str());
    ToolRun result;
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    result.out = slurp(path("stdout.txt"));
    result.err = slurp(path("stderr.txt"));
    return result;
  }

  fs::path dir_;
};

// Two slices of a photograph, each sharp in one half: every kind gives back
// the detail of both halves, with a progress line a frame.
TEST_F(CliEdf, FusesTwoHalfSharpSlices) {
  const cv::Mat sharp = vtest::edfSamplePhoto("baboon.jpg", {256, 192});
  const std::vector<cv::Mat> slices =
      vtest::focusStack(sharp, vtest::steppedDepth(sharp.size(), 2), 2, 4.0);
  const std::string a = write("a.png", slices[0]), b = write("b.png", slices[1]);
  const cv::Rect left(8, 8, 108, 176), right(140, 8, 108, 176);
  for (const char* kind : {"0", "1", "2"}) {
    SCOPED_TRACE(kind);
    const ToolRun result = run({"edf", "--kind", kind, a, b, "-o", path("out.png")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("frame 1 of 2"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("frame 2 of 2"), std::string::npos) << result.out;
    const cv::Mat fused = cv::imread(path("out.png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(fused.type(), CV_8UC3);
    for (const cv::Rect& half : {left, right}) {
      EXPECT_GE(vtest::meanDetail(fused, half) / vtest::meanDetail(sharp, half), 0.9);
    }
  }
}

// One frame comes back as it went in; a 16-bit session writes 16-bit
// samples (the 8-bit working values times 257).
TEST_F(CliEdf, FormatsDecideTheOutputDepth) {
  const cv::Mat image = vtest::randomImage(40, 50, CV_8UC3, 4);
  const std::string in = write("in.png", image);
  ToolRun result = run({"edf", in, "--out", path("same.png")});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(cv::norm(cv::imread(path("same.png"), cv::IMREAD_UNCHANGED), image, cv::NORM_INF), 0.0);

  result = run({"edf", "--format", "3", in, in, "-o", path("wide.png")});
  ASSERT_EQ(result.status, 0) << result.err;
  const cv::Mat wide = cv::imread(path("wide.png"), cv::IMREAD_UNCHANGED);
  ASSERT_EQ(wide.depth(), CV_16U);
  ASSERT_EQ(wide.channels(), 4);
  std::vector<cv::Mat> planes;
  cv::split(wide, planes);
  cv::Mat bgr;
  cv::merge(std::vector<cv::Mat>(planes.begin(), planes.begin() + 3), bgr);
  cv::Mat expected;
  image.convertTo(expected, CV_16U, 257.0);
  EXPECT_EQ(cv::norm(bgr, expected, cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::countNonZero(planes[3] != 65535), 0);
}

TEST_F(CliEdf, BadCommandLinesAndFrames) {
  const std::string in = write("in.png", vtest::randomImage(20, 30, CV_8UC3, 1));
  const std::string other = write("other.png", vtest::randomImage(10, 30, CV_8UC3, 2));
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* mentions;
  };
  const Case cases[] = {
      {{"edf", in}, 2, "-o"},
      {{"edf", "-o", path("x.png")}, 2, "FRAME"},
      {{"edf", "--kind", "3", in, "-o", path("x.png")}, 2, "--kind"},
      {{"edf", "--format", "4", in, "-o", path("x.png")}, 2, "--format"},
      {{"edf", in, other, "-o", path("x.png")}, 1, "same size"},
      {{"edf", path("missing.png"), "-o", path("x.png")}, 1, "missing.png"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.back());
    const ToolRun result = run(c.args);
    EXPECT_EQ(result.status, c.status) << result.err;
    EXPECT_EQ(result.err.rfind("vantix: edf: ", 0), 0u) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_NE(result.err.find(c.mentions), std::string::npos) << result.err;
  }
  EXPECT_FALSE(fs::exists(path("x.png")));
}

}  // namespace
