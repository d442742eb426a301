// "vantix spot", run as a separate process on image files written here; the
// tool feeds them through the simulated camera and vantix_spot_pull.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "support/spot_beams.h"

namespace {

namespace fs = std::filesystem;

struct ToolRun {
  int status = -1;
  std::string out, err;
  // Cell (row, column) of CSV output.
  double cell(size_t row, size_t column) const {
    std::istringstream lines(out);
    std::string line, value;
    for (size_t i = 0; i <= row; ++i) std::getline(lines, line);
    std::istringstream cells(line);
    for (size_t i = 0; i <= column; ++i) std::getline(cells, value, ',');
    return std::stod(value);
  }
};

class CliSpot : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantix_cli_spot_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  ToolRun run(const std::vector<std::string>& args) const {
    std::string command = VANTIX_TOOL_PATH;
    for (const std::string& arg : args) command += " '" + arg + "'";
    command += " >" + path("out.txt") + " 2>" + path("err.txt");
    const int status = std::system(command.c_str());
    ToolRun r;
    if (WIFEXITED(status)) r.status = WEXITSTATUS(status);
    std::ifstream out(path("out.txt")), err(path("err.txt"));
    std::getline(out, r.out, '\0');
    std::getline(err, r.err, '\0');
    return r;
  }
  fs::path dir_;
};

TEST_F(CliSpot, RecordsOfPulledFilesAgainstTheImagesMoments) {
  const cv::Mat image = spottest::beamImage(200, 150, {97.4, 76.2, 9.0, 6.0, 0.0, 240.0}, CV_8UC1);
  const std::string file = path("beam.png");
  ASSERT_TRUE(cv::imwrite(file, image));
  // The first frame's aperture is the ellipse inscribed in the frame, which
  // holds the whole beam: the record is the exact moments of the file.
  const spottest::Moments truth = spottest::momentsOf(image);
  ToolRun r = run({"spot", file, "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')),
            "frame,file,spot,total,centerX,centerY,majorDiameter,minorDiameter,ellipticity,"
            "angle,apertureX,apertureY,apertureA,apertureB");
  EXPECT_EQ(r.cell(1, 3), static_cast<double>(truth.total));
  EXPECT_NEAR(r.cell(1, 4), static_cast<double>(truth.cx), 1e-6);
  EXPECT_NEAR(r.cell(1, 5), static_cast<double>(truth.cy), 1e-6);
  EXPECT_NEAR(r.cell(1, 6), truth.dX(), 1e-6);
  EXPECT_NEAR(r.cell(1, 7), truth.dY(), 1e-6);

  // A fixed aperture in a ROI, averaged over two frames: the total is the
  // sum of the pixels in both, counted here.
  r = run({"spot", file, file, "--average", "2", "--roi", "90,50,40,40", "--aperture",
           "100,70,12,8", "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  double expected = 0;
  for (int y = 50; y < 90; ++y) {
    for (int x = 90; x < 130; ++x) {
      const double dx = x - 100.0, dy = y - 70.0;
      if (dx * dx / 144.0 + dy * dy / 64.0 <= 1.0) expected += image.at<uint8_t>(y, x);
    }
  }
  EXPECT_EQ(r.cell(1, 3), 0.0);  // the block of two is not complete yet
  EXPECT_EQ(r.cell(2, 3), expected);
  EXPECT_EQ(r.cell(2, 12), 12.0);
}

TEST_F(CliSpot, BadArgumentsAndMissingCameraFailWithOneLine) {
  const std::string file = path("beam.png");
  ASSERT_TRUE(cv::imwrite(file, spottest::beamImage(64, 48, {30, 20, 4, 4, 0, 200}, CV_8UC1)));
  const std::vector<std::vector<std::string>> cases = {
      {"2", "IMAGE", "spot"},
      {"2", "--roi", "spot", file, "--roi", "1,2,3"},
      {"2", "--aperture", "spot", file, "--aperture", "10,10,0,5"},
      {"1", "simulated camera", "spot", file, "--simcam", path("none.so")}};
  for (const auto& c : cases) {
    const ToolRun r = run(std::vector<std::string>(c.begin() + 2, c.end()));
    EXPECT_EQ(std::to_string(r.status), c[0]) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("vantix: spot: ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_NE(r.err.find(c[1]), std::string::npos) << r.err;
  }
}

}  // namespace
