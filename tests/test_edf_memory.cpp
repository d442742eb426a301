// Memory of a long-running pyramid fuser: fusing frame after frame must not
// leave anything behind.  OpenCV keeps some per-thread data of every thread
// that ever ran one of its parallel loops until the process ends, so a fuser
// that started threads of its own for every frame grew by that much a frame
// (about 2 kB at any frame size; gigabytes over a day at video rate).
#include <gtest/gtest.h>
#include <malloc.h>

#include <opencv2/core.hpp>

#include "edf/pyr_fuser.h"
#include "support/test_support.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define EDF_MEMORY_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define EDF_MEMORY_SANITIZED 1
#endif
#endif

namespace {

// Bytes the process's heap has handed out and not taken back.
size_t heapInUse() { return mallinfo2().uordblks; }

TEST(EdfPyramidMemory, FusingManyFramesLeavesNothingBehind) {
#ifdef EDF_MEMORY_SANITIZED
  GTEST_SKIP() << "the sanitizers' allocators do not keep glibc's heap statistics";
#endif
  const cv::Mat a = vtest::randomImage(96, 128, CV_8UC3, 1);
  const cv::Mat b = vtest::randomImage(96, 128, CV_8UC3, 2);
  for (uint32_t method : {0u, 1u}) {
    SCOPED_TRACE(method);
    vantix::CPyrFuser fuser(method);
    fuser.firstFrame(a);
    cv::Mat result;
    const auto fuse = [&](int frames) {
      for (int i = 0; i < frames; ++i) {
        cv::Mat frame = (i % 2 ? a : b).clone();
        fuser.addFrame(frame, result);
      }
    };
    fuse(50);  // buffers and OpenCV's thread pool are in place after these
    const size_t before = heapInUse();
    constexpr int kFrames = 1500;
    fuse(kFrames);
    const double perFrame = (static_cast<double>(heapInUse()) - static_cast<double>(before)) / kFrames;
    // A leak of the per-thread kind shows as 800 bytes or more a frame.
    EXPECT_LT(perFrame, 50.0) << "heap grew by " << perFrame << " bytes a frame";
  }
}

}  // namespace
