// The stitch and EDF sessions used by a host with several threads, one
// scenario runner for both families: every order of start, stop (also from
// other threads, two at once, starts racing stops) and delete (also of a
// running session, while a callback runs), with pushers and a reader while
// the session starts and stops.  (Readers while the canvas grows are in
// test_stitch_session.)  Runs under ThreadSanitizer as well.

#include <filesystem>
#include <iterator>

#include "support/sessions.h"

namespace {

// Threads of this process, to see that stopped workers are gone.
int threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

// View n of a slow pan over a textured scene, 32 views long.
cv::Mat panFrame(size_t n) {
  static const cv::Mat scene = vtest::texturedScene(cv::Size(600, 400), 11);
  const int i = static_cast<int>(n % 32);
  return scene(cv::Rect(100 + 5 * i, 100 + 2 * i, 160, 120));
}

class StressSessions : public ::testing::TestWithParam<bool> {
 public:
  static void SetUpTestSuite() {
    // Thread counts see only the library's threads: the image library runs
    // serially here (its pool would start workers whenever it likes), and
    // ThreadSanitizer's own thread, started at the first thread creation,
    // is there before counting.
    cv::setNumThreads(1);
    std::thread([] {}).join();
    vantix::init();
  }
  void run(const std::string& order, uint32_t kind, int baseline);
};

// Runs the letters of `order` on a new session, then deletes it:
//   s start; x stop taking the panorama; z stop; T two other threads stop
//   at once; R another thread starts and stops while this one stops and
//   starts (150 times each); p push the next frame; w push it and wait for
//   its callback; h hold frame callbacks; P four pushers and a reader run
//   until q; c only the canvas's drawing thread runs; D delete from another
//   thread (releasing a held callback once the delete is underway).
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
    if (c == 'x' || c == 'z') host.stop(c == 'x');
    if (c == 'T') {
      std::promise<void> go;
      const std::shared_future<void> ready = go.get_future().share();
      std::thread first([&] { ready.wait(), host.stop(); }),
          second([&] { ready.wait(), host.stop(); });
      go.set_value();
      first.join();
      second.join();
    }
    if (c == 'x' || c == 'z' || c == 'T') host.window = false;
    if (c == 'R') {
      std::thread starter([&] {
        for (int i = 0; i < 150; ++i) host.start(), host.stop();
      });
      for (int i = 0; i < 150; ++i) host.stop(), host.start();
      starter.join();
    }
    if (c == 'p') host.push(panFrame(next++));
    if (c == 'w') host.pushAndWait(panFrame(next++));
    if (c == 'h') host.gate(true);
    if (c == 'P') {
      for (int t = 0; t < 4; ++t) {
        pushers.emplace_back([&, t] {
          for (size_t i = t; !done.load(); i += 4) {
            host.push(panFrame(i));
            std::this_thread::sleep_for(std::chrono::microseconds(300 * (t + 1)));  // pacing only
          }
        });
      }
      pushers.emplace_back([&] {  // a reader, never past the fused image or a 64 x 48 view
        std::vector<uint8_t> buffer(160 * 3 * 120 + 16, 0xCD);
        while (!done.load()) {
          host.edf ? host.edf->readdata(buffer.data(), 160 * 3)
                   : (void)host.stitch->readdata(buffer.data(), 64, 48);
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
      });
      while (!deleting.load()) std::this_thread::yield();
      host.gate(false);
      deleter.join();
    }
  }
  host.destroy();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(std::count_if(host.codes.begin(), host.codes.end(),
                          [](uint32_t code) { return code == 1 || code == 2; }),
            0);  // failed, out of memory
  EXPECT_EQ(host.outside.load(), 0);
}

TEST_P(StressSessions, EveryOrderOfStartStopAndDelete) {
  const int baseline = threadCount();
  std::vector<std::string> orders = {"",     "s",    "x",       "sx",      "sp",    "spppp", "swx",
                                     "spTx", "swTT", "sxxspxs", "pspxpsw", "spsws", "spTsp"};
  std::string stops, restarts;
  for (int i = 0; i < 300; ++i) stops += "sT";
  for (int i = 0; i < vtest::scaled(16); ++i) restarts += "szszszszsx";
  orders.insert(orders.end(), {stops + "RzcswxcR", "P" + restarts + "qswx"});
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
