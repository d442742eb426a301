// The EDF session through the C interface: what comes back, the queue, the
// error reports and every start/stop/delete order a host may use.  Runs
// under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "edf/edf_session.h"
#include "edf/pyr_fuser.h"
#include "support/edf_session.h"
#include "support/test_support.h"

namespace {

using vtest::EdfHost;

#if defined(__SANITIZE_THREAD__)
// OpenCV's thread pool (TBB) is not built with ThreadSanitizer, which then
// cannot see its synchronisation and reports races between pool threads.
// OpenCV runs serially here; the session's worker and the per-channel
// threads are ordinary threads and stay under watch.
class SerialOpenCv : public ::testing::Environment {
 public:
  void SetUp() override { cv::setNumThreads(1); }
};
::testing::Environment* const kSerialOpenCv =
    ::testing::AddGlobalTestEnvironment(new SerialOpenCv);
#endif

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

// The first frame comes back as pushed, only converted to the format: the
// 16-bit formats lose the low byte on the way in (v / 257, rounded) and get
// it back as v * 257; the B G R A formats get a new, opaque alpha.
TEST(EdfSession, FirstFrameComesBackInTheSessionFormat) {
  const cv::Mat bgr = frame(1);
  for (uint32_t format : {0u, 1u, 2u, 3u, 7u}) {
    SCOPED_TRACE(format);
    cv::Mat pushed, expected, backing;
    int expectedType = CV_8UC3;
    switch (format) {
      case 1:
      case 3: {
        cv::Mat wide = vtest::randomImage(bgr.rows, bgr.cols, CV_16UC3, format);
        wide.at<cv::Vec3w>(0, 0) = cv::Vec3w(65535, 0, 257);
        // v / 257 rounded (never a tie: 257 is odd), times 257.
        cv::Mat back(wide.size(), CV_16UC3);
        for (size_t i = 0; i < wide.total() * 3; ++i) {
          const int v = wide.ptr<uint16_t>()[i];
          back.ptr<uint16_t>()[i] = static_cast<uint16_t>(((2 * v + 257) / 514) * 257);
        }
        if (format == 1) {
          pushed = wide;
          expected = back;
          expectedType = CV_16UC3;
        } else {
          cv::Mat alpha(wide.size(), CV_16UC1, cv::Scalar(1234));  // ignored on the way in
          cv::merge(std::vector<cv::Mat>{wide, alpha}, pushed);
          cv::cvtColor(back, expected, cv::COLOR_BGR2BGRA);  // comes back 65535
          expectedType = CV_16UC4;
        }
        break;
      }
      case 2:
        cv::merge(std::vector<cv::Mat>{bgr, cv::Mat(bgr.size(), CV_8UC1, cv::Scalar(17))}, pushed);
        cv::cvtColor(bgr, expected, cv::COLOR_BGR2BGRA);
        expectedType = CV_8UC4;
        break;
      default:
        // Rows padded beyond the pixels, passed as the row pitch.
        backing = cv::Mat(bgr.rows, bgr.cols * 3 + 8, CV_8U, cv::Scalar(99));
        pushed = cv::Mat(bgr.rows, bgr.cols, CV_8UC3, backing.data, backing.step[0]);
        bgr.copyTo(pushed);
        expected = bgr;
        break;
    }
    EdfHost host;
    VantixEdf* session = newSession(host, 0, format);
    vantix_edf_start(session);
    EXPECT_EQ(vtest::pushImage(session, pushed), VANTIX_S_OK);
    ASSERT_TRUE(host.waitFrames(1));
    const cv::Mat got = host.last();
    EXPECT_EQ(host.events(), std::vector<uint32_t>{0u});
    EXPECT_EQ(host.lastType(), static_cast<uint32_t>(expectedType));
    EXPECT_EQ(host.lastStride(), static_cast<uint32_t>(expected.cols * expected.elemSize()));
    ASSERT_EQ(got.type(), expectedType);
    EXPECT_EQ(cv::norm(got, expected, cv::NORM_INF), 0.0);
    // readdata copies the same pixels at the host's row length.
    const uint32_t rowBytes = static_cast<uint32_t>(expected.cols * expected.elemSize());
    std::vector<uint8_t> copy(rowBytes * expected.rows + 16, 0xCD);
    vantix_edf_readdata(session, copy.data(), rowBytes);
    EXPECT_EQ(cv::norm(cv::Mat(expected.size(), expectedType, copy.data()), expected,
                       cv::NORM_INF),
              0.0);
    EXPECT_EQ(copy.back(), 0xCD);
    vantix_edf_delete(session);
  }
}

TEST(EdfSession, ReaddataBeforeAnyFrameCopiesNothing) {
  EdfHost host;
  VantixEdf* session = newSession(host, 1);
  std::vector<uint8_t> buffer(kWidth * 3 * kHeight, 0xCD);
  vantix_edf_readdata(session, buffer.data(), kWidth * 3);
  vantix_edf_start(session);
  vantix_edf_readdata(session, buffer.data(), kWidth * 3);
  EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](uint8_t b) { return b == 0xCD; }));
  vantix_edf_delete(session);
}

// A row count longer than the fused row reads on into the next row, but not
// past the image.
TEST(EdfSession, ReaddataWithLongRowsStopsAtTheImageEnd) {
  EdfHost host;
  VantixEdf* session = newSession(host, 0);
  vantix_edf_start(session);
  const cv::Mat image = frame(4, 8, 4);
  vtest::pushImage(session, image);
  ASSERT_TRUE(host.waitFrames(1));
  std::vector<uint8_t> buffer(40 * 4, 0xCD);
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

TEST(EdfSession, NullHandles) {
  const cv::Mat image = frame(60);
  EXPECT_EQ(vantix_edf_pushback(nullptr, image.data, kWidth, kHeight, 8, 0), VANTIX_E_NOTIMPL);
  vantix_edf_delete(nullptr);
}

// Every order of start, stop and delete a host may use, with frames in
// flight; stop and delete from other threads than start.
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
      int pushed = 0;
      for (Step step : orders[n]) {
        switch (step) {
          case kStart: vantix_edf_start(session); break;
          case kStop: vantix_edf_stop(session); break;
          case kPush: vtest::pushImage(session, image); ++pushed; break;
          case kWait: ASSERT_TRUE(host.waitFrames(1)); break;
        }
      }
      vantix_edf_delete(session);
      EXPECT_TRUE(host.errors().empty());
    }
  }

  // Started on one thread, stopped on another, deleted on a third.
  EdfHost host;
  VantixEdf* session = newSession(host, 1);
  std::thread([&] { vantix_edf_start(session); }).join();
  vtest::pushImage(session, image);
  ASSERT_TRUE(host.waitFrames(1));
  std::thread([&] { vantix_edf_stop(session); }).join();
  std::thread([&] { vantix_edf_delete(session); }).join();
}

// Host threads push and read while the worker fuses; the session is deleted
// while running.
TEST(EdfSession, ConcurrentPushesAndReads) {
  for (uint32_t kind : {0u, 1u, 2u}) {
    SCOPED_TRACE(kind);
    EdfHost host;
    VantixEdf* session = newSession(host, kind);
    vantix_edf_start(session);
    std::atomic<bool> done{false};
    std::vector<std::thread> pushers;
    for (int t = 0; t < 2; ++t) {
      pushers.emplace_back([&, t] {
        for (int i = 0; i < 6; ++i) {
          const cv::Mat image = frame(100 + 10 * t + i);
          EXPECT_EQ(vtest::pushImage(session, image), VANTIX_S_OK);
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
      });
    }
    std::thread reader([&] {
      std::vector<uint8_t> buffer(kWidth * 3 * kHeight);
      while (!done) {
        vantix_edf_readdata(session, buffer.data(), kWidth * 3);
        std::this_thread::yield();
      }
    });
    for (std::thread& t : pushers) t.join();
    ASSERT_TRUE(host.waitFrames(3));
    done = true;
    reader.join();
    vantix_edf_delete(session);
    EXPECT_TRUE(host.errors().empty());
  }
}

}  // namespace
