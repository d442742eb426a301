// The vantix command-line tool run as a separate process: what the command
// line maps to, exit statuses (0 done, 1 failed with reasons, 2 wrong
// command line), and outputs of the sizes asked for.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantix_cli_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  std::string write(const std::string& name, const cv::Mat& image) const {
    EXPECT_TRUE(cv::imwrite(path(name), image));
    return path(name);
  }
  // Runs the tool; `status` receives its exit status, out_ and err_ its output.
  int run(const std::string& args) {
    const int status = std::system((std::string(VANTIX_TOOL_PATH) + " " + args + " >" +
                                    path("out.txt") + " 2>" + path("err.txt"))
                                       .c_str());
    out_ = slurp(path("out.txt"));
    err_ = slurp(path("err.txt"));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  }
  // A failure: one "vantix: COMMAND: ..." line on stderr mentioning `what`.
  void expectOneLine(const std::string& command, const std::string& what) const {
    EXPECT_EQ(err_.rfind("vantix: " + command + ": ", 0), 0u) << err_;
    EXPECT_EQ(err_.find('\n'), err_.size() - 1) << err_;
    EXPECT_NE(err_.find(what), std::string::npos) << err_;
  }

  fs::path dir_;
  std::string out_, err_;
};

// Detail at every scale.
cv::Mat texture(cv::Size size) {
  cv::Mat noise(size, CV_32FC3), sum(size, CV_32FC3, cv::Scalar::all(128));
  cv::RNG rng(5);
  for (double sigma : {1.0, 3.0, 9.0}) {
    rng.fill(noise, cv::RNG::NORMAL, 0, 40 * sigma);
    cv::GaussianBlur(noise, noise, {}, sigma);
    sum += noise;
  }
  sum.convertTo(sum, CV_8UC3);
  return sum;
}

TEST_F(Cli, WrongCommandLinesExitTwoWithOneLine) {
  EXPECT_EQ(run("--help"), 0);
  for (const char* command : {"resize", "demosaic", "edge", "edf", "stitch", "spot", "demo"}) {
    EXPECT_NE(out_.find(std::string("  ") + command + " "), std::string::npos) << command;
  }
  EXPECT_EQ(run("stitch --help --bogus"), 0);
  EXPECT_NE(out_.find("--whole-canvas"), std::string::npos);

  const std::string in = write("in.png", texture({30, 20}));
  EXPECT_EQ(run(in + " out.png"), 2);  // no command
  EXPECT_EQ(run("resize " + in + " " + path("o.png")), 2);
  expectOneLine("resize", "--size");
  EXPECT_EQ(run("resize " + in + " " + path("o.png") + " --size 3y4"), 2);
  expectOneLine("resize", "WIDTHxHEIGHT");
  EXPECT_EQ(run("edf " + in + " -o " + path("o.png") + " --kind sharpest"), 2);
  expectOneLine("edf", "pyramid_max|pyramid_blend|stack");
  EXPECT_EQ(run("stitch " + in + " -o " + path("o.png") + " --crop --whole-canvas"), 2);
  EXPECT_EQ(run("stitch " + in + " -o " + path("o.png") + " --strict-level 5"), 2);
  EXPECT_EQ(run("spot " + in + " --stream --passes 2"), 2);
  EXPECT_EQ(run("spot " + in + " --average 3"), 2);
  expectOneLine("spot", "at least 3 images");
  // Work that cannot be done: exit 1, one line naming the file.
  EXPECT_EQ(run("resize " + path("missing.png") + " " + path("o.png") + " --size 8x8"), 1);
  expectOneLine("resize", "missing.png");
  EXPECT_EQ(out_, "");
}

TEST_F(Cli, ImageCommandsWriteWhatWasAsked) {
  // Aliases of the name table are taken, case ignored.
  const std::string in = write("in.png", texture({30, 20}));
  ASSERT_EQ(run("resize " + in + " " + path("big.png") + " --size 61x41 --interp LANCZOS4"), 0)
      << err_;
  EXPECT_EQ(cv::imread(path("big.png")).size(), cv::Size(61, 41));

  // A flat colour seen through an RGGB filter comes back as that colour.
  const cv::Vec3b bgr(40, 120, 200);
  cv::Mat raw(16, 16, CV_8U);
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < 16; ++x)
      raw.at<uint8_t>(y, x) = bgr[x % 2 + y % 2 == 0 ? 2 : x % 2 && y % 2 ? 0 : 1];
  }
  ASSERT_EQ(run("demosaic " + write("raw.png", raw) + " " + path("c.png") +
                " --pattern rggb --bits 8 --order rgb --algorithm ea"),
            0)
      << err_;
  const cv::Mat colour = cv::imread(path("c.png"), cv::IMREAD_UNCHANGED);
  ASSERT_EQ(colour.type(), CV_8UC3);
  EXPECT_EQ(colour.at<cv::Vec3b>(8, 8), bgr);
  EXPECT_EQ(run("demosaic " + path("raw.png") + " " + path("c.png") + " --pattern rggb --bits 12"),
            1);
  expectOneLine("demosaic", "16-bit");

  // Up and left of a bright square's top-left corner at (50, 40).
  cv::Mat square(100, 120, CV_8UC3, cv::Scalar::all(30));
  cv::rectangle(square, cv::Rect(50, 40, 14, 14), cv::Scalar::all(230), cv::FILLED);
  ASSERT_EQ(run("edge " + write("square.png", square) + " 44 35"), 0) << err_;
  int x = 0, y = 0;
  ASSERT_EQ(std::sscanf(out_.c_str(), "snapped (44,35) -> (%d,%d)", &x, &y), 2) << out_;
  EXPECT_NEAR(x, 50, 1);
  EXPECT_NEAR(y, 40, 1);
  EXPECT_EQ(run("edge " + path("square.png") + " 44 35 --size 6"), 0);
  EXPECT_EQ(out_, "no edge within 6 px of (44,35)\n");
}

TEST_F(Cli, EdfTakesAFolderInNumberOrder) {
  fs::create_directory(path("stack"));
  const cv::Mat sharp = texture({64, 48});
  for (int i : {10, 2, 1}) {
    cv::Mat blurred;
    cv::GaussianBlur(sharp, blurred, {}, 0.5 + i / 4.0);
    write("stack/f" + std::to_string(i) + ".png", blurred);
  }
  ASSERT_EQ(run("edf " + path("stack") + " -o " + path("fused.tif") + " --format 1"), 0) << err_;
  EXPECT_LT(out_.find("f1.png"), out_.find("f2.png"));
  EXPECT_LT(out_.find("f2.png"), out_.find("f10.png"));
  const cv::Mat fused = cv::imread(path("fused.tif"), cv::IMREAD_UNCHANGED);
  EXPECT_EQ(fused.type(), CV_16UC3);
  EXPECT_EQ(fused.size(), sharp.size());
}

TEST_F(Cli, StitchCropsToTheScanAndFailsWithReasons) {
  // Frames of 320x240 every 30 px along a row of a photo: the covered
  // rectangle is 530x240.
  const cv::Mat photo = cv::imread("/usr/share/doc/opencv-doc/examples/data/aloeL.jpg");
  ASSERT_FALSE(photo.empty()) << "install Debian's opencv-doc";
  std::string frames;
  for (int x = 0; x <= 210; x += 30) {
    frames += " " + write(cv::format("f%03d.png", x), photo(cv::Rect(100 + x, 100, 320, 240)));
  }
  ASSERT_EQ(run("stitch" + frames + " -o " + path("pano.png")), 0) << err_ << out_;
  const cv::Size pano = cv::imread(path("pano.png")).size();
  EXPECT_NEAR(pano.width, 530, 4);
  EXPECT_NEAR(pano.height, 240, 4);

  // Flat frames give the registration nothing: most are not placed.
  std::string flat;
  for (int i = 0; i < 6; ++i)
    flat += " " + write(cv::format("g%d.png", i), cv::Mat(120, 160, CV_8UC3, cv::Scalar::all(90)));
  EXPECT_EQ(run("stitch" + flat + " -o " + path("flat.png")), 1);
  EXPECT_TRUE(fs::exists(path("flat.png")));
  EXPECT_NE(err_.find("vantix: stitch: 5 of 6 frames were not placed"), std::string::npos) << err_;
  EXPECT_NE(err_.find("vantix: stitch: too smooth"), std::string::npos) << err_;
}

TEST_F(Cli, SpotMeasuresEachFileAtItsDepth) {
  // A round Gaussian beam, sigma 5, centred at (30.5, 20): 4-sigma
  // diameters of 20 px, in an 8-bit and a 16-bit file.
  cv::Mat beam(48, 64, CV_64F);
  for (int y = 0; y < beam.rows; ++y) {
    for (int x = 0; x < beam.cols; ++x) {
      beam.at<double>(y, x) = std::exp(-(std::pow(x - 30.5, 2) + std::pow(y - 20, 2)) / 50);
    }
  }
  cv::Mat b8, b16;
  beam.convertTo(b8, CV_8U, 255);
  beam.convertTo(b16, CV_16U, 4095);
  ASSERT_EQ(run("spot " + write("b8.png", b8) + " " + write("b16.png", b16) + " --passes 3 --csv"),
            0)
      << err_;
  std::istringstream rows(out_);
  std::string line;
  std::getline(rows, line);
  EXPECT_EQ(line.rfind("frame,file,spot,total,centerX,centerY,majorDiameter", 0), 0u) << line;
  for (int frame = 0; frame < 2; ++frame) {
    ASSERT_TRUE(std::getline(rows, line)) << out_;
    double total = 0, cx = 0, cy = 0, major = 0, minor = 0;
    const size_t fields = line.find(",0,") + 3;
    ASSERT_EQ(
        std::sscanf(line.c_str() + fields, "%lf,%lf,%lf,%lf,%lf", &total, &cx, &cy, &major, &minor),
        5)
        << line;
    EXPECT_NEAR(cx, 30.5, 0.05);
    EXPECT_NEAR(cy, 20, 0.05);
    EXPECT_NEAR(major, 20, 0.5);
    EXPECT_NEAR(minor, 20, 0.5);
  }
}

}  // namespace
