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

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Three 16-bit slices of a photograph, each sharp in a different third, as
// the pages of one TIFF: the fused image holds the detail of all three
// thirds (so every page was fused), and one note says the 16-bit frames
// were fused at 8 bits.  The same slices as a folder's files, with a kind
// given by name and by its digit, give the same image.
TEST_F(CliEdf, FusesEveryPageOfATiffAndEveryFileOfAFolder) {
  const cv::Mat sharp = vtest::edfSamplePhoto("baboon.jpg", {240, 160});
  const std::vector<cv::Mat> slices =
      vtest::focusStack(sharp, vtest::steppedDepth(sharp.size(), 3), 3, 4.0);
  std::vector<cv::Mat> pages(3);
  for (int i = 0; i < 3; ++i) slices[i].convertTo(pages[i], CV_16U, 257.0);
  ASSERT_TRUE(cv::imwritemulti(path("stack.tif"), pages));

  const ToolRun result = run({"edf", path("stack.tif"), "-o", path("out.png")});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("frame 3 of 3: " + path("stack.tif") + " page 3 of 3"),
            std::string::npos)
      << result.out;
  EXPECT_EQ(occurrences(result.err, "\n"), 1u) << result.err;
  EXPECT_NE(result.err.find("note: 16-bit frames are fused at 8 bits"), std::string::npos)
      << result.err;
  const cv::Mat fused = read("out.png");
  ASSERT_EQ(fused.type(), CV_8UC3);
  for (int third = 0; third < 3; ++third) {
    SCOPED_TRACE(third);
    const cv::Rect region(third * 80 + 8, 8, 64, 144);
    EXPECT_GE(vtest::meanDetail(fused, region) / vtest::meanDetail(sharp, region), 0.85);
    // A slice sharp elsewhere has lost most of it here.
    EXPECT_LT(vtest::meanDetail(slices[(third + 1) % 3], region) /
                  vtest::meanDetail(sharp, region),
              0.6);
  }

  std::filesystem::create_directories(path("slices"));
  for (int i = 0; i < 3; ++i) write("slices/slice" + std::to_string(i) + ".png", slices[i]);
  ASSERT_EQ(run({"edf", path("slices"), "--kind", "stack", "-o", path("named.png")}).status, 0);
  ASSERT_EQ(run({"edf", path("slices"), "--kind", "2", "-o", path("digit.png")}).status, 0);
  EXPECT_EQ(cv::norm(read("named.png"), read("digit.png"), cv::NORM_INF), 0.0);
}

// A stack of 12-bit samples in 16-bit pages: the note says which --bits
// fits, and with --bits 12 the fused image is exactly that of the stack's
// 8-bit files (read as 16-bit samples they would keep 17 grey levels).
TEST_F(CliEdf, TwelveBitStackWithBitsFusesLikeItsEightBitFiles) {
  const cv::Mat sharp = vtest::edfSamplePhoto("baboon.jpg", {240, 160});
  const std::vector<cv::Mat> slices =
      vtest::focusStack(sharp, vtest::steppedDepth(sharp.size(), 3), 3, 4.0);
  std::vector<cv::Mat> pages;
  for (int i = 0; i < 3; ++i) {
    write("slice" + std::to_string(i) + ".png", slices[i]);
    pages.push_back(vtest::twelveBitOf(slices[i]));
  }
  ASSERT_TRUE(cv::imwritemulti(path("stack.tif"), pages));
  ASSERT_EQ(run({"edf", path("slice0.png"), path("slice1.png"), path("slice2.png"), "-o",
                 path("eight.png")})
                .status,
            0);
  const ToolRun plain = run({"edf", path("stack.tif"), "-o", path("plain.png")});
  ASSERT_EQ(plain.status, 0) << plain.err;
  EXPECT_NE(plain.err.find("fits in 12 bits: for 12-bit data give --bits 12"), std::string::npos)
      << plain.err;
  const ToolRun scaled = run({"edf", path("stack.tif"), "-o", path("scaled.png"), "--bits", "12"});
  ASSERT_EQ(scaled.status, 0) << scaled.err;
  EXPECT_EQ(occurrences(scaled.err, "\n"), 1u) << scaled.err;  // the 16-bit note alone
  EXPECT_EQ(cv::norm(read("scaled.png"), read("eight.png"), cv::NORM_INF), 0.0);
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
  std::filesystem::create_directories(path("empty"));
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* mentions;
  };
  const Case cases[] = {
      {{"edf", in}, 2, "-o"},
      {{"edf", "-o", path("x.png")}, 2, "FRAME"},
      {{"edf", "--kind", "3", in, "-o", path("x.png")}, 2, "--kind"},
      {{"edf", "--kind", "pyramid", in, "-o", path("x.png")}, 2, "pyramid_max, pyramid_blend"},
      {{"edf", path("empty"), "-o", path("x.png")}, 1, "holds no image files"},
      {{"edf", "--format", "4", in, "-o", path("x.png")}, 2, "--format"},
      {{"edf", in, other, "-o", path("x.png")}, 1, "same size"},
      {{"edf", path("missing.png"), "-o", path("x.png")}, 1, "missing.png"},
      {{"edf", "--bits", "17", in, "-o", path("x.png")}, 2, "--bits"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.back());
    vtest::expectOneErrorLine(run(c.args), "vantix: edf: ", c.mentions, c.status);
  }
  EXPECT_FALSE(std::filesystem::exists(path("x.png")));
}

}  // namespace
