// The stitch and EDF sessions used by a host with several threads, one
// scenario runner for both families: every order of start, stop (also from
// other threads, two at once, starts racing stops) and delete (also of a
// running session, while a callback runs), with pushers and a reader while
// the session starts and stops.  (Readers while the canvas grows are in
// test_stitch_session.)  Runs under ThreadSanitizer as well.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "support/sessions.h"
#include "support/test_support.h"
#include "testing/scenes.h"

namespace {

// Threads of this process, to see that stopped workers are gone.
int threadCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

// Views of a slow pan over a textured scene.
std::vector<cv::Mat> panFrames() {
  const cv::Mat scene = vtest::texturedScene(cv::Size(600, 400), 11);
  std::vector<cv::Mat> frames;
  for (int i = 0; i < 32; ++i) {
    frames.push_back(scene(cv::Rect(100 + 5 * i, 100 + 2 * i, 160, 120)).clone());
  }
  return frames;
}

std::string repeat(const std::string& part, int times) {
  std::string out;
  while (times-- > 0) out += part;
  return out;
}

class StressSessions : public ::testing::TestWithParam<bool> {
 public:
  static void SetUpTestSuite() {
    vtest::serialOpenCvUnderTsan();
    // The image library starts its thread pool on first use, and
    // ThreadSanitizer its own thread at the first thread creation; both
    // stay.  Started here, so that thread counts compare like with like.
    cv::Mat warm = vtest::randomImage(600, 800, CV_8UC3), blurred;
    cv::GaussianBlur(warm, blurred, cv::Size(0, 0), 3.0);
    std::thread([] {}).join();
  }
  void SetUp() override { vantix::init(); }
  void run(const std::string& order, uint32_t kind, int baseline);
  const std::vector<cv::Mat> frames = panFrames();
};

// Runs the letters of `order` on a new session, then deletes it:
//   s start; x stop taking the panorama; z stop; t stop from another thread;
//   T two threads stop at once; R another thread starts and stops while this
//   one stops and starts (150 times each); p push the next frame; w push it
//   and wait for its callback; h hold frame callbacks; P four pushers and a reader run until
//   q; c only the canvas's drawing thread runs; D delete from another thread
//   (releasing a held callback once the delete is underway).
// No failure, no callback after stop or delete returned, every call answers.
void StressSessions::run(const std::string& order, uint32_t kind, int baseline) {
  SCOPED_TRACE(order.substr(0, 24));
  vtest::Host host;
  GetParam() ? (void)host.makeStitch(160, 120, 2, 0, 1) : (void)host.openEdf(kind);
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> pushers;
  size_t next = 0;
  for (const char c : order) {
    if (c == 's' || c == 'R') host.window = true;
    if (c == 's') host.start();
    if (c == 'x' || c == 'z') {
      const vantix::Image pano = host.stop(c == 'x');
      std::lock_guard<std::mutex> lock(host.m);
      if (pano && pushers.empty() && !host.calls.empty()) {  // the canvas the last frame saw
        EXPECT_EQ(pano->biWidth, int32_t(host.calls.back().canvasWidth));
        EXPECT_EQ(pano->biHeight, int32_t(host.calls.back().canvasHeight));
      }
    }
    if (c == 't') std::thread([&] { host.stop(); }).join();
    if (c == 'T') {
      vtest::Latch go;
      std::thread first([&] { go.wait(), host.stop(); }), second([&] { go.wait(), host.stop(); });
      go.open();
      first.join();
      second.join();
    }
    if (c == 'x' || c == 'z' || c == 't' || c == 'T') host.window = false;
    if (c == 'R') {
      std::thread starter([&] {
        for (int i = 0; i < 150; ++i) host.start(), host.stop();
      });
      for (int i = 0; i < 150; ++i) host.stop(), host.start();
      starter.join();
    }
    if (c == 'p') host.push(frames[next++ % frames.size()]);
    if (c == 'w') host.pushAndWait(frames[next++ % frames.size()]);
    if (c == 'h') host.gate(true);
    if (c == 'P') {
      for (int t = 0; t < 4; ++t) {
        pushers.emplace_back([&, t] {
          for (int i = t; !done.load(); i += 4) {
            host.push(frames[i % frames.size()]);
            std::this_thread::sleep_for(std::chrono::microseconds(300 * (t + 1)));  // pacing only
          }
        });
      }
      pushers.emplace_back([&] {  // a reader, never past the fused image or a 64 x 48 view
        std::vector<uint8_t> buffer(160 * 3 * 120 + 16, 0xCD);
        while (!done.load()) {
          if (host.edf) {
            host.edf->readdata(buffer.data(), 160 * 3);
          } else {
            host.stitch->readdata(buffer.data(), 64, 48);
          }
          bad += std::count(buffer.end() - 16, buffer.end(), 0xCD) != 16;
          std::this_thread::sleep_for(std::chrono::microseconds(300));  // pacing only
        }
      });
    }
    if (c == 'q') {
      done = true;
      for (std::thread& t : pushers) t.join();
      pushers.clear();
    }
    if (c == 'c') {
      EXPECT_EQ(threadCount(), baseline + (host.stitch ? 1 : 0));
    }
    if (c == 'D') {
      host.waitUntil([&] { return host.blocked || host.allowed == INT_MAX; });
      std::atomic<bool> deleting{false};
      std::thread deleter([&] {
        deleting = true;
        host.destroy();
        host.window = false;
      });
      while (!deleting.load()) std::this_thread::yield();
      host.gate(false);
      deleter.join();
    }
  }
  host.destroy();
  host.window = false;
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(std::count_if(host.codes.begin(), host.codes.end(),
                          [](uint32_t code) { return code == 1 || code == 2; }),
            0);  // failed, out of memory
  EXPECT_EQ(host.outside.load(), 0);
}

TEST_P(StressSessions, EveryOrderOfStartStopAndDelete) {
  const int baseline = threadCount();
  std::vector<std::string> orders = {"",     "s",    "x",       "sx",      "sp",    "spppp", "swx",
                                     "sptx", "swtt", "sxxspxs", "pspxpsw", "spsws", "sptsp"};
  orders.push_back(repeat("sT", 300) + "RzcswxcR");
  orders.push_back("P" + repeat("szszszszsx", vtest::scaled(16)) + "qswx");
  for (int i = 0; i < vtest::scaled(20); ++i) orders.insert(orders.end(), {"sD", "spD"});
  for (int i = 0; i < 3; ++i) orders.push_back("shppppppD");
  uint32_t round = 0;
  for (const std::string& order : orders) run(order, round++ % 3, baseline);
  EXPECT_EQ(threadCount(), baseline);
}

INSTANTIATE_TEST_SUITE_P(Families, StressSessions, ::testing::Values(true, false),
                         [](const auto& info) {
                           return std::string(info.param ? "Stitch" : "Edf");
                         });

}  // namespace
