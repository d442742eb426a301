// Runs the vantix command-line tool as a separate process in a temporary
// folder of its own, for the CLI test programs.
#pragma once

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

namespace vtest {

struct ToolRun {
  int status = -1;  // exit status, or 128 + signal
  std::string out, err;
};

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantix_cli_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
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

  std::filesystem::path dir_;

 private:
  static std::string quote(const std::string& arg) {
    std::string quoted = "'";
    for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
  }
  static std::string slurp(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
};

// An 8-bit image as a 12-bit camera's 16-bit samples (0..4095), each value
// v as (v << 4) | (v >> 4): scaled back to 16 bits (<< 4) and reduced to 8
// bits (/ 257, rounded) it is v again, exactly.
inline cv::Mat twelveBitOf(const cv::Mat& image8) {
  cv::Mat wide;
  image8.convertTo(wide, CV_16U);
  wide.reshape(1).forEach<uint16_t>([](uint16_t& v, const int*) {
    v = static_cast<uint16_t>((v << 4) | (v >> 4));
  });
  return wide;
}

// A failure: the given exit status (1 or 2 when 0 is given, never a crash),
// nothing on stdout and exactly one line on stderr that starts with `prefix`
// and contains `mentions`.
inline void expectOneErrorLine(const ToolRun& run, const std::string& prefix,
                               const std::string& mentions, int status = 0) {
  EXPECT_TRUE(status != 0 ? run.status == status : run.status == 1 || run.status == 2)
      << "status " << run.status << ": " << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err.rfind(prefix, 0), 0u) << run.err;
  EXPECT_TRUE(!run.err.empty() && run.err.find('\n') == run.err.size() - 1) << run.err;
  EXPECT_NE(run.err.find(mentions), std::string::npos) << run.err;
}

}  // namespace vtest
