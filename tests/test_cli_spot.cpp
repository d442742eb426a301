// "vantix spot", run as a separate process on image files written here; the
// tool feeds them through the array camera and vantix_spot_pull.
#include <gtest/gtest.h>

#include <algorithm>
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

  // A fixed aperture in a ROI, averaged over blocks of two frames: one row
  // for the complete block, whose total is the mean of the pixel sums of its
  // two files (counted here); the third file starts a block that does not
  // complete, which stderr says instead of printing a row.
  const cv::Mat half = image / 2;
  const std::string dimmer = write("dimmer.png", half);
  r = run({"spot", file, dimmer, file, "--average", "2", "--roi", "90,50,40,40", "--aperture",
           "100,70,12,8", "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  double sum[2] = {0, 0};
  for (int y = 50; y < 90; ++y) {
    for (int x = 90; x < 130; ++x) {
      const double dx = x - 100.0, dy = y - 70.0;
      if (dx * dx / 144.0 + dy * dy / 64.0 > 1.0) continue;
      sum[0] += image.at<uint16_t>(y, x);
      sum[1] += half.at<uint16_t>(y, x);
    }
  }
  ASSERT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2) << r.out;
  EXPECT_NE(r.out.find("\n0,0,1," + file + "," + dimmer + ",0,"), std::string::npos) << r.out;
  EXPECT_EQ(cell(r, 1, 6), (sum[0] + sum[1]) / 2);
  EXPECT_EQ(cell(r, 1, 15), 12.0);
  EXPECT_NE(r.err.find("the last file does not complete a block of 2; not reported"),
            std::string::npos)
      << r.err;
}

// The moments a single-spot measurement takes inside the axis-aligned
// ellipse (ax, ay, a, b): centre from every pixel inside, second moments
// from the pixels above 0, both over the inside sum.
spottest::Moments momentsInEllipse(const cv::Mat& image, double ax, double ay, double a, double b) {
  cv::Mat values;
  image.convertTo(values, CV_64F);
  auto inside = [&](int x, int y) {
    return (x - ax) * (x - ax) * (1.0 / (a * a)) + (y - ay) * (y - ay) * (1.0 / (b * b)) <= 1.0;
  };
  spottest::Moments m;
  long double sx = 0, sy = 0;
  for (int y = 0; y < values.rows; ++y) {
    for (int x = 0; x < values.cols; ++x) {
      if (!inside(x, y)) continue;
      m.total += values.at<double>(y, x);
      sx += values.at<double>(y, x) * x;
      sy += values.at<double>(y, x) * y;
    }
  }
  m.cx = sx / m.total;
  m.cy = sy / m.total;
  for (int y = 0; y < values.rows; ++y) {
    for (int x = 0; x < values.cols; ++x) {
      const long double v = values.at<double>(y, x);
      if (v <= 0 || !inside(x, y)) continue;
      m.xx += v * (x - m.cx) * (x - m.cx);
      m.yy += v * (y - m.cy) * (y - m.cy);
    }
  }
  m.xx /= m.total;
  m.yy /= m.total;
  return m;
}

// Files are measured each on its own by default, so two beams in files of
// different sizes each give their own moments; --stream makes them frames of
// one camera, which keep one size and carry the aperture from frame to
// frame; --passes N measures a file N times, each pass in the aperture the
// one before left.
TEST_F(CliSpot, EachFileOnItsOwnUnlessStreamed) {
  const cv::Mat small = spottest::beamImage(160, 120, {50, 40, 5, 4, 0, 3000});
  const cv::Mat large = spottest::beamImage(240, 180, {170, 110, 9, 6, 0, 3000});
  const std::string a = write("a.png", small), b = write("b.png", large);
  vtest::ToolRun r = run({"spot", a, b, "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (size_t row = 1; row <= 2; ++row) {
    SCOPED_TRACE(row);
    const spottest::Moments truth = spottest::momentsOf(row == 1 ? small : large);
    EXPECT_EQ(cell(r, row, 3), static_cast<double>(truth.total));
    EXPECT_NEAR(cell(r, row, 4), static_cast<double>(truth.cx), 1e-6);
    EXPECT_NEAR(cell(r, row, 5), static_cast<double>(truth.cy), 1e-6);
    EXPECT_NEAR(cell(r, row, 6), truth.dX(), 1e-6);
    EXPECT_NEAR(cell(r, row, 7), truth.dY(), 1e-6);
  }
  vtest::expectOneErrorLine(run({"spot", a, b, "--stream"}), "vantix: spot: ", "240x180", 1);

  // One camera: the second frame is measured in the aperture the first left
  // around (50, 40), 20 x 16 px, far from this beam: no signal, total 0
  // (not the first frame's record again).
  const std::string moved = write("moved.png", spottest::beamImage(160, 120, {120, 85, 5, 4, 0, 3000}));
  r = run({"spot", a, moved, "--stream", "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(cell(r, 1, 3), static_cast<double>(spottest::momentsOf(small).total));
  EXPECT_EQ(cell(r, 2, 3), 0.0);

  // A beam on an offset of 2 counts: the first pass's aperture, the
  // ellipse inscribed in the image, takes in much offset; the second pass
  // measures in the ellipse the first left (its centre, semi-axes its 4-sigma
  // diameters).
  cv::Mat lifted = spottest::beamImage(200, 150, {90, 80, 6, 5, 0, 3000});
  lifted += cv::Scalar(2);
  const std::string c = write("lifted.png", lifted);
  const spottest::Moments first = momentsInEllipse(lifted, 100, 75, 100, 75);
  const spottest::Moments second = momentsInEllipse(
      lifted, static_cast<double>(first.cx), static_cast<double>(first.cy), first.dX(), first.dY());
  ASSERT_GT(first.dX() - second.dX(), 5.0) << first.dX();  // the second pass tells
  r = run({"spot", c, "--passes", "2", "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NEAR(cell(r, 1, 3), static_cast<double>(second.total), 1e-4 * second.total);
  EXPECT_NEAR(cell(r, 1, 4), static_cast<double>(second.cx), 1e-3);
  EXPECT_NEAR(cell(r, 1, 5), static_cast<double>(second.cy), 1e-3);
  EXPECT_NEAR(cell(r, 1, 6), second.dX(), 1e-3);
  EXPECT_NEAR(cell(r, 1, 7), second.dY(), 1e-3);
}

TEST_F(CliSpot, BadArgumentsAndMissingCameraFailWithOneLine) {
  const std::string file =
      write("beam.png", spottest::beamImage(64, 48, {30, 20, 4, 4, 0, 200}, CV_8UC1));
  const std::vector<std::vector<std::string>> cases = {
      {"2", "IMAGE", "spot"},
      {"2", "--roi", "spot", file, "--roi", "1,2,3"},
      {"2", "--aperture", "spot", file, "--aperture", "10,10,0,5"},
      {"2", "--dark", "spot", file, "--dark", "edges"},
      {"2", "--passes", "spot", file, "--passes", "2", "--stream"},
      {"2", "--average 3 needs at least 3", "spot", file, file, "--average", "3"}};
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
