// The EDF session through the C interface: what comes back, the queue, the
// error reports and every start/stop/delete order a host may use.  Runs
// under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "edf/edf_session.h"
#include "edf/pyr_fuser.h"
#include "support/edf_session.h"
#include "support/stress.h"
#include "support/test_support.h"

namespace {

using vtest::EdfHost;

// Serial OpenCV under ThreadSanitizer (its pool is not instrumented).
const bool kSerialOpenCv = (vtest::serialOpenCvUnderTsan(), true);

constexpr int kWidth = 96, kHeight = 72;

VantixEdf* newSession(EdfHost& host, uint32_t kind, uint32_t format = 0) {
  return vantix_edf_newV2(format, kind, &EdfHost::onFrame, &EdfHost::onError, &host);
}
vantix::CEdfSession* internal(VantixEdf* session) {
  return reinterpret_cast<vantix::CEdfSession*>(session);
}
cv::Mat frame(uint64_t seed, int width = kWidth, int height = kHeight) {
  return vtest::randomImage(height, width, CV_8UC3, seed);
}
void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

// The first frame comes back as pushed, in the session's format: 16-bit
// samples (multiples of 257 here, which the 8-bit working image keeps) and,
// for B G R A, a new opaque alpha.  (Unknown formats: test_bad_input.)
TEST(EdfSession, FirstFrameComesBackInTheSessionFormat) {
  const cv::Mat bgr = frame(1);
  // Rows padded beyond the pixels, passed as the row pitch.
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
               {3, withAlpha(bgr16, 1234), withAlpha(bgr16, 65535)}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format);
    EdfHost host;
    VantixEdf* session = newSession(host, 0, c.format);
    vantix_edf_start(session);
    EXPECT_EQ(vtest::pushImage(session, c.pushed), VANTIX_S_OK);
    ASSERT_TRUE(host.waitFrames(1));
    const auto rowBytes = static_cast<uint32_t>(c.expected.cols * c.expected.elemSize());
    EXPECT_EQ(host.events(), std::vector<uint32_t>{0u});
    EXPECT_EQ(host.lastType(), static_cast<uint32_t>(c.expected.type()));
    EXPECT_EQ(host.lastStride(), rowBytes);
    EXPECT_EQ(cv::norm(host.last(), c.expected, cv::NORM_INF), 0.0);
    // readdata copies the same pixels at the host's row length.
    std::vector<uint8_t> copy(rowBytes * c.expected.rows + 16, 0xCD);
    vantix_edf_readdata(session, copy.data(), rowBytes);
    EXPECT_EQ(cv::norm(cv::Mat(c.expected.size(), c.expected.type(), copy.data()), c.expected,
                       cv::NORM_INF),
              0.0);
    EXPECT_EQ(copy.back(), 0xCD);
    vantix_edf_delete(session);
  }
}

// readdata copies nothing before the first frame.  A row length longer than
// the fused row reads on into the next row, but not past the image.
TEST(EdfSession, ReaddataBeforeAFrameAndWithLongRows) {
  EdfHost host;
  VantixEdf* session = newSession(host, 0);
  std::vector<uint8_t> buffer(40 * 4, 0xCD);
  vantix_edf_readdata(session, buffer.data(), 40);
  vantix_edf_start(session);
  vantix_edf_readdata(session, buffer.data(), 40);
  EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 0xCD), 160);
  const cv::Mat image = frame(4, 8, 4);
  vtest::pushImage(session, image);
  ASSERT_TRUE(host.waitFrames(1));
  vantix_edf_readdata(session, buffer.data(), 40);
  const uint8_t* pixels = image.data;  // continuous: 24 bytes a row
  for (int row = 0; row < 4; ++row) {
    const int available = std::min(40, 96 - 24 * row);
    for (int i = 0; i < 40; ++i) {
      ASSERT_EQ(buffer[row * 40 + i], i < available ? pixels[24 * row + i] : 0xCD)
          << row << "," << i;
    }
  }
  vantix_edf_delete(session);
}

TEST(EdfSession, PushesToAnIdleSessionAreDropped) {
  EXPECT_EQ(vantix_edf_pushback(nullptr, nullptr, kWidth, kHeight, 8, 0), VANTIX_E_NOTIMPL);
  vantix_edf_delete(nullptr);
  EdfHost host;
  VantixEdf* session = newSession(host, 0);
  const cv::Mat image = frame(2);
  EXPECT_EQ(vtest::pushImage(session, image), VANTIX_S_OK);  // never started
  EXPECT_TRUE(internal(session)->queuedFrames().empty());
  vantix_edf_start(session);
  vantix_edf_stop(session);
  EXPECT_EQ(vtest::pushImage(session, image), VANTIX_S_OK);  // stopped
  EXPECT_TRUE(internal(session)->queuedFrames().empty());
  vantix_edf_start(session);
  pause();
  EXPECT_EQ(host.frames(), 0);
  vantix_edf_delete(session);
}

// While the worker is held in onFrame, five pushes leave the last three
// (deep copies: the host's buffer is reused at once), which are then fused.
TEST(EdfSession, QueueKeepsTheNewestThreeFrames) {
  EdfHost host;
  VantixEdf* session = newSession(host, 0);
  vantix_edf_start(session);
  host.hold();
  vtest::pushImage(session, frame(10));
  ASSERT_TRUE(host.waitFrames(1));
  cv::Mat buffer(kHeight, kWidth, CV_8UC3);
  std::vector<cv::Mat> pushed;
  for (uint64_t seed = 11; seed <= 15; ++seed) {
    frame(seed).copyTo(buffer);
    pushed.push_back(buffer.clone());
    vtest::pushImage(session, buffer);
  }
  const std::vector<cv::Mat> queued = internal(session)->queuedFrames();
  ASSERT_EQ(queued.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(cv::norm(queued[i], pushed[2 + i], cv::NORM_INF), 0.0);
  host.release();
  ASSERT_TRUE(host.waitFrames(4));
  pause();
  EXPECT_EQ(host.frames(), 4);
  EXPECT_TRUE(host.errors().empty());
  vantix_edf_delete(session);
}

TEST(EdfSession, StopAndStartContinueTheSameStack) {
  const cv::Mat a = frame(20), b = frame(21);
  EdfHost host;
  VantixEdf* session = newSession(host, 0);
  vantix_edf_start(session);
  vtest::pushImage(session, a);
  ASSERT_TRUE(host.waitFrames(1));
  vantix_edf_stop(session);
  vantix_edf_start(session);
  vtest::pushImage(session, b);
  ASSERT_TRUE(host.waitFrames(2));
  // The second frame is fused into the first (not a new stack from b).
  vantix::CPyrFuser fuser(0);
  fuser.firstFrame(a);
  cv::Mat copy = b.clone(), expected;
  fuser.addFrame(copy, expected);
  EXPECT_EQ(cv::norm(host.last(), expected, cv::NORM_INF), 0.0);
  EXPECT_GT(cv::norm(host.last(), b, cv::NORM_INF), 0.0);
  vantix_edf_delete(session);
}

TEST(EdfSession, FrameOfAnotherSizeHaltsTheSessionUntilRestarted) {
  for (uint32_t kind : {0u, 1u, 2u}) {
    SCOPED_TRACE(kind);
    EdfHost host;
    VantixEdf* session = newSession(host, kind);
    vantix_edf_start(session);
    vtest::pushImage(session, frame(30));
    ASSERT_TRUE(host.waitFrames(1));
    vtest::pushImage(session, frame(31, kWidth / 2, kHeight / 2));
    ASSERT_TRUE(host.waitErrors(1));
    EXPECT_EQ(host.errors(), std::vector<uint32_t>{VANTIX_EDF_ERROR_FAILED});
    pause();
    EXPECT_FALSE(internal(session)->running());
    vtest::pushImage(session, frame(32));  // halted: dropped
    EXPECT_TRUE(internal(session)->queuedFrames().empty());
    vantix_edf_stop(session);
    vantix_edf_start(session);
    vtest::pushImage(session, frame(33));
    ASSERT_TRUE(host.waitFrames(2));
    EXPECT_EQ(host.errors().size(), 1u);
    vantix_edf_delete(session);
  }
}

// An unknown kind has no fuser: the host hears of it on the first frame
// (onError 1) and no frame comes back; without onError the worker just ends.
TEST(EdfSession, UnknownKindReportsTheFirstFrame) {
  EdfHost host;
  VantixEdf* session = newSession(host, 3);
  ASSERT_NE(session, nullptr);
  vantix_edf_start(session);
  vtest::pushImage(session, frame(40));
  ASSERT_TRUE(host.waitErrors(1));
  EXPECT_EQ(host.errors(), std::vector<uint32_t>{VANTIX_EDF_ERROR_FAILED});
  EXPECT_EQ(host.frames(), 0);
  vantix_edf_delete(session);

  VantixEdf* silent = vantix_edf_new(77, &EdfHost::onFrame, nullptr, &host);
  vantix_edf_start(silent);
  vtest::pushImage(silent, frame(41));
  pause();
  EXPECT_FALSE(internal(silent)->running());
  vantix_edf_delete(silent);
}

class ThrowingFuser : public vantix::CEdfFuser {
 public:
  explicit ThrowingFuser(int what) : what_(what) {}
  void firstFrame(const cv::Mat&) override {
    if (what_ == 0) throw cv::Exception(cv::Error::StsNoMem, "no memory", "f", "file", 1);
    if (what_ == 1) throw cv::Exception(cv::Error::StsBadArg, "bad", "f", "file", 1);
    if (what_ == 2) throw std::bad_alloc();
    throw std::runtime_error("failed");
  }
  void addFrame(cv::Mat&, cv::Mat&) override {}

 private:
  int what_;
};

TEST(EdfSession, FailuresBecomeErrorCodes) {
  const uint32_t expected[] = {VANTIX_EDF_ERROR_OUT_OF_MEMORY, VANTIX_EDF_ERROR_FAILED,
                               VANTIX_EDF_ERROR_FAILED, VANTIX_EDF_ERROR_FAILED};
  for (int what = 0; what < 4; ++what) {
    SCOPED_TRACE(what);
    EdfHost host;
    vantix::CEdfSession session(0, std::make_unique<ThrowingFuser>(what), &EdfHost::onFrame,
                                &EdfHost::onError, &host);
    session.start();
    const cv::Mat image = frame(50);
    session.push(image.data, kWidth, kHeight, 8, 0);
    session.push(image.data, kWidth, kHeight, 8, 0);
    ASSERT_TRUE(host.waitErrors(1));
    pause();
    EXPECT_EQ(host.errors(), std::vector<uint32_t>{expected[what]});  // once per run
    EXPECT_EQ(host.frames(), 0);
    session.stop();
  }
}

// Every order of start, stop and delete a host may use, with frames in
// flight (other threads start, stop and delete in test_stress_sessions).
TEST(EdfSession, EveryLifecycleOrderEndsCleanly) {
  const cv::Mat image = frame(70);
  enum Step { kStart, kStop, kPush, kWait };
  const std::vector<std::vector<Step>> orders = {
      {},
      {kStart},
      {kStop},
      {kStart, kStop},
      {kStart, kPush},
      {kStart, kPush, kPush, kPush, kPush},
      {kStart, kPush, kWait, kStop},
      {kStart, kStop, kStop, kStart, kPush, kStop, kStart},
      {kPush, kStart, kPush, kStop, kPush, kStart, kPush, kWait},
      {kStart, kPush, kStart, kPush, kWait, kStart},  // starts without a stop between
  };
  for (size_t n = 0; n < orders.size(); ++n) {
    SCOPED_TRACE(n);
    for (uint32_t kind : {0u, 2u}) {
      EdfHost host;
      VantixEdf* session = newSession(host, kind);
      for (Step step : orders[n]) {
        switch (step) {
          case kStart: vantix_edf_start(session); break;
          case kStop: vantix_edf_stop(session); break;
          case kPush: vtest::pushImage(session, image); break;
          case kWait: ASSERT_TRUE(host.waitFrames(1)); break;
        }
      }
      vantix_edf_delete(session);
      EXPECT_TRUE(host.errors().empty());
    }
  }
}

}  // namespace
