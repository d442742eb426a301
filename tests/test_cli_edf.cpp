// "vantix edf", run as a separate process on focus stacks written into a
// temporary folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "support/cli_tool.h"
#include "support/edf_stack.h"
#include "support/test_support.h"

namespace {

using vtest::ToolRun;
using CliEdf = vtest::CliTest;

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
    const cv::Mat fused = read("out.png");
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
  EXPECT_EQ(cv::norm(read("same.png"), image, cv::NORM_INF), 0.0);

  result = run({"edf", "--format", "3", in, in, "-o", path("wide.png")});
  ASSERT_EQ(result.status, 0) << result.err;
  const cv::Mat wide = read("wide.png");
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
    vtest::expectOneErrorLine(run(c.args), "vantix: edf: ", c.mentions, c.status);
  }
  EXPECT_FALSE(std::filesystem::exists(path("x.png")));
}

}  // namespace
