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

}  // namespace vtest
