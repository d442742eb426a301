#include "support/test_support.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cmath>

#include <opencv2/imgproc.hpp>

namespace vtest {

::testing::AssertionResult runInChildProcess(const std::function<void()>& body) {
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid < 0) return ::testing::AssertionFailure() << "fork failed";
  if (pid == 0) {
    body();
    fflush(stdout);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return ::testing::AssertionFailure() << "waitpid failed";
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return ::testing::AssertionSuccess();
  if (WIFSIGNALED(status)) {
    return ::testing::AssertionFailure() << "child died with signal " << WTERMSIG(status);
  }
  return ::testing::AssertionFailure()
         << "child reported failures (exit " << WEXITSTATUS(status) << ")";
}

cv::Mat randomImage(int rows, int cols, int type, uint64_t seed) {
  cv::Mat m(rows, cols, type);
  cv::RNG rng(seed);
  const int depth = CV_MAT_DEPTH(type);
  const double high = depth == CV_8U ? 256.0 : depth == CV_16U ? 65536.0 : 1.0;
  rng.fill(m, cv::RNG::UNIFORM, 0.0, high);
  return m;
}

cv::Mat smoothScene(int rows, int cols, int type) {
  cv::Mat f(rows, cols, CV_32FC3);
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < cols; ++x) {
      const float a = 0.5f + 0.25f * std::sin(x * 0.07f) + 0.2f * std::cos(y * 0.05f);
      const float b = 0.5f + 0.3f * std::sin((x + y) * 0.03f);
      const float c = 0.5f + 0.3f * std::cos(x * 0.02f - y * 0.04f);
      f.at<cv::Vec3f>(y, x) = cv::Vec3f(a, b, c);
    }
  }
  cv::circle(f, {cols / 3, rows / 2}, std::max(2, rows / 5), cv::Scalar(0.9, 0.1, 0.2), -1,
             cv::LINE_AA);
  cv::rectangle(f, {cols / 2, rows / 4}, {cols * 3 / 4, rows * 3 / 4}, cv::Scalar(0.1, 0.8, 0.3),
                -1, cv::LINE_AA);
  const int depth = CV_MAT_DEPTH(type);
  const double scale = depth == CV_16U ? 65535.0 : 255.0;
  cv::Mat out;
  f.convertTo(out, CV_MAKETYPE(depth, 3), scale);
  const int channels = CV_MAT_CN(type);
  if (channels == 1) {
    cv::cvtColor(out, out, cv::COLOR_BGR2GRAY);
  } else if (channels == 4) {
    cv::cvtColor(out, out, cv::COLOR_BGR2BGRA);
  }
  return out;
}

}  // namespace vtest
