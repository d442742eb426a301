// "vantix spot", run as a separate process on image files written here; the
// tool feeds them through the array camera and vantix_spot_pull.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/cli_tool.h"
#include "support/spot_beams.h"

namespace {

using CliSpot = vtest::CliTest;

// Cell (row, column) of CSV output.
double cell(const vtest::ToolRun& run, size_t row, size_t column) {
  std::istringstream lines(run.out);
  std::string line, value;
  for (size_t i = 0; i <= row; ++i) std::getline(lines, line);
  std::istringstream cells(line);
  for (size_t i = 0; i <= column; ++i) std::getline(cells, value, ',');
  return std::stod(value);
}

TEST_F(CliSpot, RecordsOfPulledFilesAgainstTheImagesMoments) {
  // A turned 12-bit beam in a 16-bit file, measured at its full depth.
  const cv::Mat image =
      spottest::beamImage(200, 150, {97.4, 76.2, 9.0, 6.0, 25.0, 4000.0}, CV_16UC1);
  const std::string file = write("beam.png", image);
  // The first frame's aperture is the ellipse inscribed in the frame, which
  // holds the whole beam: the record is the exact moments of the file.
  const spottest::Moments truth = spottest::momentsOf(image);
  vtest::ToolRun r = run({"spot", file, "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')),
            "frame,file,spot,total,centerX,centerY,majorDiameter,minorDiameter,ellipticity,"
            "angle,apertureX,apertureY,apertureA,apertureB");
  EXPECT_EQ(cell(r, 1, 3), static_cast<double>(truth.total));
  EXPECT_NEAR(cell(r, 1, 4), static_cast<double>(truth.cx), 1e-6);
  EXPECT_NEAR(cell(r, 1, 5), static_cast<double>(truth.cy), 1e-6);
  EXPECT_NEAR(cell(r, 1, 6), truth.dX(), 1e-6);
  EXPECT_NEAR(cell(r, 1, 7), truth.dY(), 1e-6);

  // The same beam on a 200-count offset: --dark corners finds the offset in
  // the beam-free corners and takes it off, giving the clean record back.
  cv::Mat lifted;
  cv::add(image, cv::Scalar(200), lifted);
  const vtest::ToolRun dark = run({"spot", write("lifted.png", lifted), "--dark", "corners",
                                   "--csv"});
  ASSERT_EQ(dark.status, 0) << dark.err;
  EXPECT_NE(dark.err.find("dark level 200 subtracted"), std::string::npos) << dark.err;
  for (size_t column = 3; column < 14; ++column) EXPECT_EQ(cell(dark, 1, column), cell(r, 1, column));

  // A fixed aperture in a ROI, averaged over two frames: the total is the
  // sum of the pixels in both, counted here.
  r = run({"spot", file, file, "--average", "2", "--roi", "90,50,40,40", "--aperture",
           "100,70,12,8", "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  double expected = 0;
  for (int y = 50; y < 90; ++y) {
    for (int x = 90; x < 130; ++x) {
      const double dx = x - 100.0, dy = y - 70.0;
      if (dx * dx / 144.0 + dy * dy / 64.0 <= 1.0) expected += image.at<uint16_t>(y, x);
    }
  }
  EXPECT_EQ(cell(r, 1, 3), 0.0);  // the block of two is not complete yet
  EXPECT_EQ(cell(r, 2, 3), expected);
  EXPECT_EQ(cell(r, 2, 12), 12.0);
}

TEST_F(CliSpot, BadArgumentsAndMissingCameraFailWithOneLine) {
  const std::string file =
      write("beam.png", spottest::beamImage(64, 48, {30, 20, 4, 4, 0, 200}, CV_8UC1));
  const std::vector<std::vector<std::string>> cases = {
      {"2", "IMAGE", "spot"},
      {"2", "--roi", "spot", file, "--roi", "1,2,3"},
      {"2", "--aperture", "spot", file, "--aperture", "10,10,0,5"},
      {"2", "--dark", "spot", file, "--dark", "edges"}};
  for (const auto& c : cases) {
    vtest::expectOneErrorLine(run(std::vector<std::string>(c.begin() + 2, c.end())),
                              "vantix: spot: ", c[1], std::stoi(c[0]));
  }
  ASSERT_EQ(setenv("VANTIX_ARRAYCAM", path("none.so").c_str(), 1), 0);
  const vtest::ToolRun missing = run({"spot", file});
  unsetenv("VANTIX_ARRAYCAM");
  vtest::expectOneErrorLine(missing, "vantix: spot: ", "array camera", 1);
}

}  // namespace
