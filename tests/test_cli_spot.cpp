// "vantix spot", run as a separate process on image files written here; the
// tool feeds them through the simulated camera and vantix_spot_pull.
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

#include "support/spot_beams.h"

namespace {

namespace fs = std::filesystem;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

std::string quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::vector<std::string>> csvRows(const std::string& text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::vector<std::string> cells;
    std::istringstream fields(line);
    std::string cell;
    while (std::getline(fields, cell, ',')) cells.push_back(cell);
    rows.push_back(cells);
  }
  return rows;
}

class CliSpot : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantix_cli_spot_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  std::string write(const std::string& name, const cv::Mat& image) const {
    EXPECT_TRUE(cv::imwrite(path(name), image));
    return path(name);
  }
  ToolRun run(const std::vector<std::string>& args, const std::string& env = "") const {
    std::string command = env + " " + quote(VANTIX_TOOL_PATH);
    for (const std::string& arg : args) command += " " + quote(arg);
    command += " >" + quote(path("out.txt")) + " 2>" + quote(path("err.txt"));
    const int status = std::system(command.c_str());
    ToolRun r;
    if (WIFEXITED(status)) r.status = WEXITSTATUS(status);
    r.out = slurp(path("out.txt"));
    r.err = slurp(path("err.txt"));
    return r;
  }
  fs::path dir_;
};

TEST_F(CliSpot, FirstFrameIsTheWholeImageSecondMoments) {
  // On the first frame the aperture is the ellipse inscribed in the frame,
  // which holds the whole centred beam: the record is the exact moments of
  // the image as stored in the file.
  const cv::Mat image =
      spottest::beamImage(200, 150, {97.4, 76.2, 9.0, 6.0, 0.0, 240.0}, CV_8UC1);
  const std::string file = write("beam.png", image);
  const spottest::Moments truth = spottest::momentsOf(image);
  const ToolRun r = run({"spot", file, "--csv"});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto rows = csvRows(r.out);
  ASSERT_EQ(rows.size(), 2u) << r.out;
  ASSERT_EQ(rows[0].size(), 14u);
  EXPECT_EQ(rows[0][3], "total");
  EXPECT_EQ(rows[0][13], "apertureB");
  EXPECT_EQ(std::stod(rows[1][3]), static_cast<double>(truth.total));
  EXPECT_NEAR(std::stod(rows[1][4]), static_cast<double>(truth.cx), 1e-6);
  EXPECT_NEAR(std::stod(rows[1][5]), static_cast<double>(truth.cy), 1e-6);
  EXPECT_NEAR(std::stod(rows[1][6]), truth.dX(), 1e-6);
  EXPECT_NEAR(std::stod(rows[1][7]), truth.dY(), 1e-6);
}

TEST_F(CliSpot, BadArgumentsAndMissingCameraFailWithOneLine) {
  const std::string file =
      write("beam.png", spottest::beamImage(64, 48, {30.0, 20.0, 4.0, 4.0, 0.0, 200.0}, CV_8UC1));
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string mentions;
  };
  const Case cases[] = {
      {{"spot"}, 2, "IMAGE"},
      {{"spot", file, "--roi", "1,2,3"}, 2, "--roi"},
      {{"spot", file, "--aperture", "10,10,0,5"}, 2, "--aperture"},
      {{"spot", file, "--simcam", path("none.so")}, 1, "simulated camera"},
  };
  for (const Case& c : cases) {
    const ToolRun r = run(c.args);
    EXPECT_EQ(r.status, c.status) << c.args.back() << ": " << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("vantix: spot: ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_NE(r.err.find(c.mentions), std::string::npos) << r.err;
  }
}

TEST_F(CliSpot, AverageRoiAndFixedAperture) {
  const cv::Mat image =
      spottest::beamImage(160, 120, {110.0, 70.0, 5.0, 5.0, 0.0, 220.0}, CV_8UC1);
  const std::string file = write("beam.png", image);
  // A fixed aperture inside a ROI: the total is the sum of the pixels in
  // both, counted here.
  const ToolRun r = run({"spot", file, file, "--average", "2", "--roi", "90,50,40,40",
                         "--aperture", "110,70,12,8", "--csv", "--spots", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  double expected = 0;
  for (int y = 50; y < 90; ++y) {
    for (int x = 90; x < 130; ++x) {
      const double dx = x - 110.0, dy = y - 70.0;
      if (dx * dx / 144.0 + dy * dy / 64.0 <= 1.0) expected += image.at<uint8_t>(y, x);
    }
  }
  const auto rows = csvRows(r.out);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(std::stod(rows[1][3]), 0.0);  // the block of two is not complete yet
  EXPECT_EQ(std::stod(rows[2][3]), expected);
  EXPECT_EQ(std::stod(rows[2][12]), 12.0);
}

}  // namespace
