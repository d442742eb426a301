// Extended depth of field: the session through its exported functions (what
// comes back, refusals, the queue, failures; the start/stop/delete orders are
// in test_stress_sessions), then the fusers and the alignment against focus
// stacks with known truth.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "edf/edf_fuser.h"
#include "edf/edf_session.h"
#include "edf/pyr_fuser.h"
#include "support/sessions.h"
#include "support/test_support.h"
#include "testing/scenes.h"

namespace {

const bool kSerialOpenCv = (vtest::serialOpenCvUnderTsan(), true);

using vtest::Host;

size_t queued(VantixEdf* s) { return reinterpret_cast<vantix::CEdfSession*>(s)->queuedFrames().size(); }
cv::Mat frame(uint64_t seed, int width = 96, int height = 72) {
  return vtest::randomImage(height, width, CV_8UC3, seed);
}

// The first frame comes back as pushed, in the session's format: 16-bit
// samples (multiples of 257, which the 8-bit working image keeps) and, for
// B G R A, an opaque alpha; formats above 3 are format 0.  readdata copies
// the same pixels at the host's row length and nothing past them.
TEST(EdfSession, FirstFrameComesBackInTheSessionFormat) {
  const cv::Mat bgr = frame(1);
  cv::Mat backing(bgr.rows, bgr.cols * 3 + 8, CV_8U, cv::Scalar(99)), bgr16;
  cv::Mat pitched(bgr.rows, bgr.cols, CV_8UC3, backing.data, backing.step[0]);
  bgr.copyTo(pitched);
  bgr.convertTo(bgr16, CV_16U, 257);
  const auto withAlpha = [](const cv::Mat& m, double alpha) {
    cv::Mat out, plane(m.size(), CV_MAKETYPE(m.depth(), 1), cv::Scalar(alpha));
    cv::merge(std::vector<cv::Mat>{m, plane}, out);
    return out;
  };
  const struct {
    uint32_t format;
    cv::Mat pushed, expected;
  } cases[] = {{0, pitched, bgr},
               {1, bgr16, bgr16},
               {2, withAlpha(bgr, 17), withAlpha(bgr, 255)},
               {3, withAlpha(bgr16, 1234), withAlpha(bgr16, 65535)},
               {9, bgr, bgr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format);
    Host host;
    VantixEdf* session = host.makeEdf(0, c.format);
    std::vector<uint8_t> copy(c.expected.total() * c.expected.elemSize() + 16, 0xCD);
    const auto rowBytes = static_cast<uint32_t>(c.expected.cols * c.expected.elemSize());
    vantix_edf_readdata(session, copy.data(), rowBytes);  // nothing yet
    EXPECT_EQ(std::count(copy.begin(), copy.end(), 0xCD), static_cast<long>(copy.size()));
    vantix_edf_start(session);
    EXPECT_EQ(host.push(c.pushed), VANTIX_S_OK);
    host.waitFrames(1);
    EXPECT_EQ(host.last.type(), c.expected.type());
    EXPECT_EQ(host.lastStride, rowBytes);
    EXPECT_EQ(cv::norm(host.last, c.expected, cv::NORM_INF), 0.0);
    vantix_edf_readdata(session, copy.data(), rowBytes);
    EXPECT_EQ(cv::norm(cv::Mat(c.expected.size(), c.expected.type(), copy.data()), c.expected,
                       cv::NORM_INF),
              0.0);
    EXPECT_EQ(std::count(copy.end() - 16, copy.end(), 0xCD), 16);
    vantix_edf_readdata(session, nullptr, 0);
    vantix_edf_delete(session);
  }
}

// A row length longer than the fused row reads on into the next row, and
// stops at the image's last byte.
TEST(EdfSession, ReaddataWithLongRows) {
  Host host;
  VantixEdf* session = host.makeEdf(0);
  vantix_edf_start(session);
  const cv::Mat image = frame(4, 8, 4);  // 24 bytes a row
  host.push(image);
  host.waitFrames(1);
  std::vector<uint8_t> buffer(40 * 4, 0xCD);
  vantix_edf_readdata(session, buffer.data(), 40);
  for (int row = 0; row < 4; ++row) {
    for (int i = 0; i < 40; ++i) {
      ASSERT_EQ(buffer[row * 40 + i], i < std::min(40, 96 - 24 * row) ? image.data[24 * row + i] : 0xCD)
          << row << "," << i;
    }
  }
  vantix_edf_delete(session);
}

// Refused and dropped pushes queue nothing; while the worker is held in
// onFrame, five pushes leave the newest three (deep copies of a reused
// buffer), which are then fused.
TEST(EdfSession, RefusalsAndTheQueueOfThree) {
  EXPECT_EQ(vantix_edf_pushback(nullptr, nullptr, 96, 72, 8, 0), VANTIX_E_NOTIMPL);
  vantix_edf_delete(nullptr);
  Host host;
  VantixEdf* session = host.makeEdf(0);
  const cv::Mat image = frame(2);
  EXPECT_EQ(host.push(image), VANTIX_S_OK);  // never started
  vantix_edf_start(session);
  vantix_edf_stop(session);
  EXPECT_EQ(host.push(image), VANTIX_S_OK);  // stopped
  EXPECT_EQ(queued(session), 0u);
  vantix_edf_start(session);
  EXPECT_EQ(vantix_edf_pushback(session, nullptr, 0, 0, 8, 0), VANTIX_S_OK);
  EXPECT_EQ(vantix_edf_pushback(session, image.data, 96, 0, 8, 0), VANTIX_S_OK);
  EXPECT_THROW(host.push(image, 3), cv::Exception);
  EXPECT_EQ(queued(session), 0u);

  host.gate(true);
  host.push(frame(10));
  host.waitFrames(1);
  cv::Mat buffer(72, 96, CV_8UC3);
  std::vector<cv::Mat> pushed;
  for (uint64_t seed = 11; seed <= 15; ++seed) {
    frame(seed).copyTo(buffer);
    pushed.push_back(buffer.clone());
    host.push(buffer);
  }
  const std::vector<cv::Mat> waiting = reinterpret_cast<vantix::CEdfSession*>(session)->queuedFrames();
  ASSERT_EQ(waiting.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(cv::norm(waiting[i], pushed[2 + i], cv::NORM_INF), 0.0);
  host.gate(false);
  host.waitFrames(4);
  vantix_edf_stop(session);
  EXPECT_EQ(host.frames, 4);
  EXPECT_TRUE(host.codes.empty());
  vantix_edf_delete(session);

  VantixEdf* deep = host.makeEdf(0, VANTIX_FORMAT_BGRA16);
  vantix_edf_start(deep);
  const cv::Mat deepFrame(8, 16, CV_16UC4, cv::Scalar::all(1000));
  EXPECT_THROW(host.push(deepFrame, 129), cv::Exception);  // odd pitch of 16-bit samples
  EXPECT_EQ(queued(deep), 0u);
  vantix_edf_delete(deep);
}

TEST(EdfSession, StopAndStartContinueTheSameStack) {
  const cv::Mat a = frame(20), b = frame(21);
  Host host;
  VantixEdf* session = host.makeEdf(0);
  vantix_edf_start(session);
  host.push(a);
  host.waitFrames(1);
  vantix_edf_stop(session);
  vantix_edf_start(session);
  host.push(b);
  host.waitFrames(2);
  vantix::CPyrFuser fuser(0);
  fuser.firstFrame(a);
  cv::Mat copy = b.clone(), expected;
  fuser.addFrame(copy, expected);
  EXPECT_EQ(cv::norm(host.last, expected, cv::NORM_INF), 0.0);
  vantix_edf_delete(session);
}

class ThrowingFuser : public vantix::CEdfFuser {
 public:
  explicit ThrowingFuser(int what) : what_(what) {}
  void firstFrame(const cv::Mat&) override {
    if (what_ == 0) throw cv::Exception(cv::Error::StsNoMem, "no memory", "f", "file", 1);
    if (what_ == 1) throw std::bad_alloc();
    throw std::runtime_error("failed");
  }
  void addFrame(cv::Mat&, cv::Mat&) override {}

 private:
  int what_;
};

// A failure is reported once per run (2 for the image library's memory
// error, else 1, std::bad_alloc included) and halts the
// session until stop and start: a frame of another size, an unknown kind's
// missing fuser, a fuser that throws.
TEST(EdfSession, FailuresHaltTheSessionUntilRestarted) {
  for (uint32_t kind : {0u, 1u, 2u}) {
    SCOPED_TRACE(kind);
    Host host;
    VantixEdf* session = host.makeEdf(kind);
    vantix_edf_start(session);
    host.push(frame(30));
    host.waitFrames(1);
    host.push(frame(31, 48, 36));
    host.waitCode();
    vantix_edf_stop(session);
    vantix_edf_start(session);
    host.push(frame(33));
    host.waitFrames(2);
    EXPECT_EQ(host.codes, std::vector<uint32_t>{VANTIX_EDF_ERROR_FAILED});
    vantix_edf_delete(session);
  }
  Host unknown;
  VantixEdf* session = unknown.makeEdf(3);
  vantix_edf_start(session);
  unknown.push(frame(40));
  unknown.waitCode();
  vantix_edf_delete(session);
  EXPECT_EQ(unknown.codes, std::vector<uint32_t>{VANTIX_EDF_ERROR_FAILED});
  EXPECT_EQ(unknown.frames, 0);

  const uint32_t expected[] = {VANTIX_EDF_ERROR_OUT_OF_MEMORY, VANTIX_EDF_ERROR_FAILED,
                               VANTIX_EDF_ERROR_FAILED};
  for (int what = 0; what < 3; ++what) {
    Host host;
    vantix::CEdfSession throwing(0, std::make_unique<ThrowingFuser>(what), &Host::onEdf,
                                 &Host::onCode, &host);
    throwing.start();
    const cv::Mat image = frame(50);
    throwing.push(image.data, 96, 72, 8, 0);
    throwing.push(image.data, 96, 72, 8, 0);
    host.waitCode();
    throwing.stop();
    EXPECT_EQ(host.codes, std::vector<uint32_t>{expected[what]}) << what;
    EXPECT_EQ(host.frames, 0);
  }
}

// ---------------------------------------------------------------------------
// Fusers and alignment, on the caller's thread: the ThreadSanitizer build
// skips them (it would report the photo decoder's own locks).
// ---------------------------------------------------------------------------

class EdfUnit : public ::testing::Test {
  void SetUp() override {
#if defined(VTEST_TSAN)
    GTEST_SKIP() << "single-threaded; the other builds run it";
#endif
  }
};

cv::Mat fuseAll(uint32_t kind, const std::vector<cv::Mat>& slices, bool align = true) {
  vantix::CFuserSlot slot(vantix::makeEdfFuser(kind));
  const auto fuser = vantix::makeEdfFuser(kind);
  align ? slot.firstFrame(slices[0]) : fuser->firstFrame(slices[0]);
  cv::Mat result = slices[0].clone();
  for (size_t i = 1; i < slices.size(); ++i) {
    cv::Mat f = slices[i].clone();
    align ? slot.fuse(f, result) : fuser->addFrame(f, result);
  }
  return result;
}

// Fusing the same frame again changes nothing (the pyramid collapses back
// exactly, also at sizes too small for its eight levels; ties keep the
// stored coefficient; the blend of equal values only rounds).
TEST_F(EdfUnit, FusingTheSameFrameAgainChangesNothing) {
  for (const cv::Size size : {cv::Size(160, 120), cv::Size(1, 1), cv::Size(5, 3)}) {
    const cv::Mat photo = vtest::photo("baboon.jpg", size);
    for (uint32_t method : {0u, 1u}) {
      vantix::CPyrFuser fuser(method);
      fuser.firstFrame(photo);
      cv::Mat again = photo.clone(), result;
      fuser.addFrame(again, result);
      EXPECT_LE(cv::norm(result, photo, cv::NORM_INF), method) << size << " method " << method;
    }
  }
}

// Against the sharp photograph the stacks were made from: two slices each
// sharp in one half keep the detail of both; eight slices over a tilted
// plane beat the best slice by 3 dB; a stack that also moves and changes
// magnification by 1-2 % is not hurt by the alignment.
TEST_F(EdfUnit, FusedStacksApproachTheSharpPhotograph) {
  const cv::Mat sharp = vtest::photo("baboon.jpg", {320, 240});
  const std::vector<cv::Mat> halves = vtest::focusStack(sharp, vtest::steppedDepth(sharp.size(), 2), 2, 4.0);
  const cv::Mat tilted = vtest::tiltedDepth(sharp.size());
  const std::vector<cv::Mat> eight = vtest::focusStack(sharp, tilted, 8, 6.0);
  std::vector<cv::Mat> moving = vtest::focusStack(sharp, tilted, 6, 5.0);
  const double magnification[] = {1.0, 1.012, 1.02, 1.01, 1.018, 1.015};
  const int shift[][2] = {{0, 0}, {1, 0}, {0, 1}, {-1, 1}, {1, -1}, {-1, 0}};
  for (size_t i = 1; i < moving.size(); ++i) {
    moving[i] = vtest::moved(moving[i], magnification[i], shift[i][0], shift[i][1]);
  }
  const cv::Rect all(0, 0, 320, 240), interior(16, 16, 288, 208);
  double best = 0;
  for (const cv::Mat& slice : eight) best = std::max(best, vtest::psnr(slice, sharp, all));
  for (uint32_t kind : {0u, 1u, 2u}) {
    SCOPED_TRACE(kind);
    const cv::Mat fused = fuseAll(kind, halves);
    for (const cv::Rect half : {cv::Rect(8, 8, 140, 224), cv::Rect(172, 8, 140, 224)}) {
      EXPECT_GE(vtest::meanDetail(fused, half), 0.9 * vtest::meanDetail(sharp, half)) << half.x;
    }
    EXPECT_GE(vtest::psnr(fuseAll(kind, eight), sharp, all), best + 3.0);
    EXPECT_GE(vtest::psnr(fuseAll(kind, moving, true), sharp, interior),
              vtest::psnr(fuseAll(kind, moving, false), sharp, interior) - 0.05);
  }
}

// A frame whose pixel p shows the reference at (p - d - c) * s + c is found
// as (d, s), at sizes with one and with several pyramid levels.
TEST_F(EdfUnit, AlignmentFindsKnownShiftAndScale) {
  const struct {
    cv::Size size;
    double magnification;
    int dx, dy;
  } cases[] = {{{320, 240}, 1.0, 3, -2}, {{320, 240}, 1.0, -5, 4}, {{640, 480}, 1.03, 2, 1},
               {{640, 480}, 0.98, -1, 3}, {{60, 50}, 1.0, 2, 1}, {{320, 240}, 1.0, 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.size << " x" << c.magnification << " " << c.dx << "," << c.dy);
    cv::Mat reference;
    cv::cvtColor(vtest::photo("fruits.jpg", c.size), reference, cv::COLOR_BGR2GRAY);
    const vantix::ShiftScale found = vantix::estimateShiftScale(
        vtest::moved(reference, c.magnification, c.dx, c.dy), reference);
    EXPECT_NEAR(found.dx, c.dx, c.magnification == 1.0 ? 0 : 1);
    EXPECT_NEAR(found.dy, c.dy, c.magnification == 1.0 ? 0 : 1);
    EXPECT_NEAR(found.scale, 1.0 / c.magnification, std::max(0.011, 1.0 / c.size.width + 1e-9));
  }
}

// Fusing frame after frame leaves nothing behind.  OpenCV keeps per-thread
// data of every thread that ran one of its parallel loops, so a fuser that
// started threads of its own for every frame grew by about 2 kB a frame.
TEST_F(EdfUnit, FusingManyFramesLeavesNothingBehind) {
#if defined(VTEST_ASAN)
  GTEST_SKIP() << "the sanitizer's allocator keeps no glibc heap statistics";
#endif
  const cv::Mat a = frame(1, 128, 96), b = frame(2, 128, 96);
  for (uint32_t method : {0u, 1u}) {
    vantix::CPyrFuser fuser(method);
    fuser.firstFrame(a);
    cv::Mat result;
    const auto fuse = [&](int count) {
      for (int i = 0; i < count; ++i) {
        cv::Mat f = (i % 2 ? a : b).clone();
        fuser.addFrame(f, result);
      }
    };
    fuse(50);  // buffers and OpenCV's thread pool are in place after these
    const double before = static_cast<double>(mallinfo2().uordblks);
    fuse(1500);
    EXPECT_LT((static_cast<double>(mallinfo2().uordblks) - before) / 1500, 50.0) << method;
  }
}

}  // namespace
