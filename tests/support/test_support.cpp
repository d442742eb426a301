#include "support/test_support.h"

#include <sys/wait.h>
#include <unistd.h>

namespace vtest {

namespace {
int failedParts() {
  const ::testing::TestResult* result =
      ::testing::UnitTest::GetInstance()->current_test_info()->result();
  int failed = 0;
  for (int i = 0; i < result->total_part_count(); ++i) failed += result->GetTestPartResult(i).failed();
  return failed;
}
}  // namespace

::testing::AssertionResult runInChildProcess(const std::function<void()>& body) {
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid < 0) return ::testing::AssertionFailure() << "fork failed";
  if (pid == 0) {
    // Only the body's own failures count: the child inherits those the
    // parent's test had before the fork.
    const int before = failedParts();
    body();
    fflush(stdout);
    _exit(failedParts() > before ? 1 : 0);
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
