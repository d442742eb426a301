// Hostile arguments through the exports, as a host would pass them: every
// case gets the outcome docs/BAD_INPUT.md gives it (a code, a null handle, a
// dropped frame, a no-op, or the documented exception).  Cases another test
// already asserts are cited in that table, not repeated here.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

#include "edf/edf_session.h"
#include "livestitch/lvprocessor.h"
#include "support/edf_session.h"
#include "support/test_support.h"
#include "tools/simcam/simcam_loader.h"

namespace {

using namespace std::chrono_literals;

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }

// True when `call` never returns: the child faults (a signal, or a sanitizer
// ending it at the faulty access).  Its report is not wanted in the log.
bool faultsInChild(const std::function<void()>& call) {
  const ::testing::AssertionResult ended = vtest::runInChildProcess([&] {
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, STDERR_FILENO);
    std::signal(SIGSEGV, SIG_DFL);
    std::signal(SIGBUS, SIG_DFL);
    call();
    _exit(0);
  });
  return !ended;
}

// Counts the stitch callbacks.
struct StitchHost {
  std::atomic<int> frames{0};
  std::atomic<int> failures{0};  // event 1
  static void onFrame(void* ctx, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                      uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, float) {
    ++static_cast<StitchHost*>(ctx)->frames;
  }
  static void onEvent(void* ctx, uint32_t code) {
    if (code == VANTIX_STITCH_EVENT_FAILED) ++static_cast<StitchHost*>(ctx)->failures;
  }
  // Waits until `n` frames were reported or the worker failed.
  bool settle(int n) {
    for (int i = 0; i < 2000; ++i) {
      if (frames.load() >= n || failures.load() > 0) return true;
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }
};

size_t queued(VantixStitch* s) { return reinterpret_cast<vantix::CLvProcessor*>(s)->queuedFrames(); }
size_t queued(VantixEdf* s) { return reinterpret_cast<vantix::CEdfSession*>(s)->queuedFrames().size(); }

// ---------------------------------------------------------------------------
// Null sessions where the header says they are not checked: out of contract,
// the call faults.  (The checked ones are cited in the table.)
// ---------------------------------------------------------------------------

TEST(BadInput, NullSessionsOfUncheckedFunctionsFault) {
  std::vector<uint8_t> buffer(64);
  int32_t x = 1, y = 1;
  const struct {
    const char* name;
    std::function<void()> call;
  } cases[] = {
      {"vantix_stitch_start", [] { vantix_stitch_start(nullptr); }},
      {"vantix_stitch_stop", [] { vantix_stitch_stop(nullptr, 0, 0); }},
      {"vantix_stitch_readdata", [&] { vantix_stitch_readdata(nullptr, buffer.data(), 2, 2, 0, 0, 0, 0); }},
      {"vantix_edf_start", [] { vantix_edf_start(nullptr); }},
      {"vantix_edf_stop", [] { vantix_edf_stop(nullptr); }},
      {"vantix_edf_readdata", [&] { vantix_edf_readdata(nullptr, buffer.data(), 4); }},
      {"vantix_spot_reset", [] { vantix_spot_reset(nullptr); }},
      {"vantix_spot_setAperture", [] { vantix_spot_setAperture(nullptr, SpotAperture{5, 5, 3, 3}); }},
      {"vantix_spot_setRoi", [] { vantix_spot_setRoi(nullptr, 0, 0, 4, 4); }},
      {"vantix_edge_get", [&] { vantix_edge_get(nullptr, buffer.data(), &x, &y, 0); }},
      {"vantix_stitch_pull, pushing", [&] {
         SimcamApi sim{};
         if (!simcam_load_api(dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL), &sim)) return;
         std::vector<uint8_t> frame(4 * 4 * 3);
         vantix_stitch_pull(nullptr, sim.open(4, 4), 1, frame.data(), 24, 0, nullptr);
       }},
  };
  for (const auto& c : cases) EXPECT_TRUE(faultsInChild(c.call)) << c.name << " returned";
}

// ---------------------------------------------------------------------------
// Stitch
// ---------------------------------------------------------------------------

TEST(BadInput, StitchSession) {
  vantix_init(&hostAlloc);
  StitchHost host;
  const auto make = [&](uint32_t w, uint32_t h, uint32_t format = 0) {
    return vantix_stitch_newV3(format, 0, w, h, 0, 2, 2, &StitchHost::onFrame,
                               &StitchHost::onEvent, &host);
  };
  // A canvas four frames wide cannot be formed: the out-of-memory exception.
  try {
    make(0x40000000u, 1);
    ADD_FAILURE() << "no exception";
  } catch (const cv::Exception& e) {
    EXPECT_EQ(e.code, cv::Error::StsNoMem);
  }

  // Levels, format and background outside their ranges still make a working
  // session (levels as 4, format and background as 0).
  const cv::Mat frame = vtest::randomImage(48, 64, CV_8UC3, 3);
  VantixStitch* odd = vantix_stitch_newV3(7, 0, 64, 48, 9, 9, 9, &StitchHost::onFrame,
                                          &StitchHost::onEvent, &host);
  ASSERT_NE(odd, nullptr);
  EXPECT_EQ(reinterpret_cast<vantix::CLvProcessor*>(odd)->scalePercent(), 40);
  vantix_stitch_start(odd);
  vantix_stitch_pushback(odd, frame.data, 64, 48, 24, 0);
  ASSERT_TRUE(host.settle(1));
  EXPECT_EQ(host.frames.load(), 1);
  EXPECT_EQ(host.failures.load(), 0);
  // Its frames are read as format 0, but its canvas has 4 bytes a pixel, as
  // for formats 1 to 3: readdata writes B G R and an opaque fourth byte, and
  // nothing past 4 bytes a pixel (rows of 40 bytes need no padding).  The
  // first frame lies at (128, 96); the region is away from its blended band.
  std::free(vantix_stitch_stop(odd, 1, 0));  // returns once the frame was drawn
  constexpr int kSide = 10;
  constexpr uint8_t kGuard = 0xA5;
  std::vector<uint8_t> read(kSide * kSide * 4 + 128, kGuard);
  ASSERT_EQ(vantix_stitch_readdata(odd, read.data(), kSide, kSide, 128 + 20, 96 + 15, kSide, kSide),
            1);
  EXPECT_TRUE(std::all_of(read.begin() + kSide * kSide * 4, read.end(),
                          [](uint8_t b) { return b == kGuard; }))
      << "readdata wrote past 4 bytes a pixel";
  int wrong = 0;
  for (int row = 0; row < kSide; ++row) {
    for (int col = 0; col < kSide; ++col) {
      const uint8_t* got = &read[(row * kSide + col) * 4];
      const cv::Vec3b want = frame.at<cv::Vec3b>(15 + row, 20 + col);
      wrong += got[0] != want[0] || got[1] != want[1] || got[2] != want[2] || got[3] != 255;
    }
  }
  EXPECT_EQ(wrong, 0);
  vantix_stitch_delete(odd);
  // Without callbacks the frames are processed unheard.
  VantixStitch* mute = vantix_stitch_new(0, 64, 48, 0, nullptr, nullptr, nullptr);
  vantix_stitch_start(mute);
  vantix_stitch_pushback(mute, frame.data, 64, 48, 24, 0);
  for (int i = 0; i < 2000 && queued(mute) > 0; ++i) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(queued(mute), 0u);
  vantix_stitch_delete(mute);

  VantixStitch* s = make(64, 48);
  ASSERT_NE(s, nullptr);
  // Before any frame: the covered rectangle is empty, so no cropped image;
  // without an allocator no image at all.
  EXPECT_EQ(vantix_stitch_stop(s, 1, 1), nullptr);
  vantix_init(nullptr);
  EXPECT_EQ(vantix_stitch_stop(s, 1, 0), nullptr);
  vantix_init(&hostAlloc);
  // Null out-pointers are skipped, the others written.  Before the first
  // placement the rectangle is the canvas's starting bounds, whose vertical
  // pair is inverted: height -48 read as unsigned.
  uint32_t width = 77, height = 77;
  vantix_stitch_cropparams(s, nullptr, nullptr, &width, nullptr);
  vantix_stitch_cropparams(s, nullptr, nullptr, nullptr, &height);
  EXPECT_EQ(width, 64u);
  EXPECT_EQ(height, static_cast<uint32_t>(-48));

  vantix_stitch_start(s);
  // Frames without pixels are dropped; pitches the image library refuses
  // leave as its exception; nothing is queued by any of them.
  EXPECT_EQ(vantix_stitch_pushback(s, nullptr, 0, 0, 24, 0), VANTIX_S_OK);
  EXPECT_EQ(vantix_stitch_pushback(s, frame.data, 64, 0, 24, 0), VANTIX_S_OK);
  EXPECT_THROW(vantix_stitch_pushback(s, frame.data, 64, 48, 24, 100), cv::Exception);
  EXPECT_EQ(queued(s), 0u);
  // Reading: a region not inside the canvas (256 x 192) or an empty buffer
  // leaves as the exception.
  std::vector<uint8_t> view(8 * 8 * 4);
  EXPECT_THROW(vantix_stitch_readdata(s, view.data(), 8, 8, 250, 0, 20, 20), cv::Exception);
  EXPECT_THROW(vantix_stitch_readdata(s, view.data(), 8, 8, 0, 0, 20, 0), cv::Exception);
  EXPECT_THROW(vantix_stitch_readdata(s, view.data(), 0, 0, 0, 0, 0, 0), cv::Exception);
  EXPECT_EQ(vantix_stitch_readdata(s, view.data(), 8, 8, 0, 0, 0, 0), 1);
  vantix_stitch_delete(s);

  VantixStitch* deep = make(16, 8, VANTIX_FORMAT_BGR16);
  vantix_stitch_start(deep);
  const cv::Mat deepFrame(8, 16, CV_16UC3, cv::Scalar::all(1000));
  EXPECT_THROW(vantix_stitch_pushback(deep, deepFrame.data, 16, 8, 48, 97), cv::Exception);
  EXPECT_EQ(queued(deep), 0u);
  vantix_stitch_delete(deep);

  // Frames of a few pixels (sessions of that size, or a zero-sized session)
  // are processed or fail the worker with event 1; the session stops,
  // restarts and is deleted as usual.
  const cv::Mat noise = vtest::randomImage(48, 64, CV_8UC3, 5);
  for (const cv::Size size : {cv::Size(1, 1), cv::Size(4, 4), cv::Size(16, 2), cv::Size(0, 0)}) {
    SCOPED_TRACE(size);
    StitchHost tiny;
    VantixStitch* t = vantix_stitch_newV3(0, 0, size.width, size.height, 0, 0, 2,
                                          &StitchHost::onFrame, &StitchHost::onEvent, &tiny);
    ASSERT_NE(t, nullptr);
    const cv::Size pushed = size.area() > 0 ? size : cv::Size(64, 48);
    for (int round = 0; round < 2; ++round) {
      vantix_stitch_start(t);
      for (int i = 0; i < 3; ++i) {
        vantix_stitch_pushback(t, noise.data, pushed.width, pushed.height, 24,
                               static_cast<uint32_t>(noise.step));
      }
      EXPECT_TRUE(tiny.settle(1));
      vantix_stitch_stop(t, 0, 0);
    }
    std::free(vantix_stitch_stop(t, 1, 0));
    vantix_stitch_delete(t);
  }
}

// ---------------------------------------------------------------------------
// EDF
// ---------------------------------------------------------------------------

TEST(BadInput, EdfSession) {
  const cv::Mat image = vtest::randomImage(8, 16, CV_8UC3, 4);
  // Without onFrame the frame is still fused: readdata sees it.
  VantixEdf* silent = vantix_edf_new(0, nullptr, nullptr, nullptr);
  vantix_edf_start(silent);
  vtest::pushImage(silent, image);
  std::vector<uint8_t> copy(16 * 8 * 3, 0);
  for (int i = 0; i < 1000 && copy[5] != image.data[5]; ++i) {
    std::this_thread::sleep_for(5ms);
    vantix_edf_readdata(silent, copy.data(), 48);
  }
  EXPECT_EQ(std::memcmp(copy.data(), image.data, copy.size()), 0);
  vantix_edf_readdata(silent, nullptr, 0);  // a row length of 0 copies nothing
  vantix_edf_delete(silent);

  // Format 9 is format 0; frames without pixels are dropped; refused pitches
  // leave as the image library's exception.
  vtest::EdfHost host;
  VantixEdf* session = vantix_edf_newV2(9, 0, &vtest::EdfHost::onFrame, &vtest::EdfHost::onError,
                                        &host);
  vantix_edf_start(session);
  EXPECT_EQ(vantix_edf_pushback(session, nullptr, 0, 0, 8, 0), VANTIX_S_OK);
  EXPECT_EQ(vantix_edf_pushback(session, image.data, 16, 0, 8, 0), VANTIX_S_OK);
  EXPECT_THROW(vantix_edf_pushback(session, image.data, 16, 8, 8, 3), cv::Exception);
  EXPECT_EQ(queued(session), 0u);
  vtest::pushImage(session, image);
  ASSERT_TRUE(host.waitFrames(1));
  EXPECT_EQ(host.lastType(), static_cast<uint32_t>(CV_8UC3));
  EXPECT_EQ(cv::norm(host.last(), image, cv::NORM_INF), 0.0);
  EXPECT_TRUE(host.errors().empty());
  vantix_edf_delete(session);

  VantixEdf* deep = vantix_edf_newV2(VANTIX_FORMAT_BGRA16, 0, &vtest::EdfHost::onFrame, nullptr,
                                     &host);
  vantix_edf_start(deep);
  const cv::Mat deepFrame(8, 16, CV_16UC4, cv::Scalar::all(1000));
  EXPECT_THROW(vantix_edf_pushback(deep, deepFrame.data, 16, 8, 16, 129), cv::Exception);
  EXPECT_EQ(queued(deep), 0u);
  vantix_edf_delete(deep);
}

// ---------------------------------------------------------------------------
// Spot and the camera pulls (the SDK binding is process-wide: one child)
// ---------------------------------------------------------------------------

TEST(BadInput, SpotSessionOfAbsurdSizeRaisesBadAlloc) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's allocator ends the process instead of raising";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  GTEST_SKIP() << "the sanitizer's allocator ends the process instead of raising";
#endif
#endif
  EXPECT_THROW(vantix_spot_new(0xFFFFFFFFu, 0), std::bad_alloc);
  EXPECT_THROW(vantix_spot_new(1, 0xFFFFFFFFu), std::bad_alloc);
}

TEST(BadInput, CameraPulls) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    vantix_init(&hostAlloc);
    StitchHost host;
    VantixStitch* stitch = vantix_stitch_new(0, 64, 48, 0, &StitchHost::onFrame, nullptr, &host);
    vtest::EdfHost edfHost;
    VantixEdf* edf = vantix_edf_new(0, &vtest::EdfHost::onFrame, nullptr, &edfHost);
    VantixSpot* spot = vantix_spot_new(1, 0);
    std::vector<uint8_t> buffer(64 * 48 * 8, 0xCD);
    FrameInfoV2 info2{};
    FrameInfoV3 info3{};
    FrameInfoV4 info4{};
    uint32_t w = 7, h = 7;
    SpotResult out{};
    out.total = 5;
    const auto pulls = [&](void* camera, int32_t bits, uint32_t pitch) {
      return std::vector<VantixResult>{
          vantix_stitch_pull(stitch, camera, 1, buffer.data(), bits, pitch, &info2),
          vantix_stitch_pullV3(stitch, camera, 1, buffer.data(), bits, pitch, &info3),
          vantix_stitch_pullV4(stitch, camera, 1, buffer.data(), bits, pitch, &info4),
          vantix_stitch_pullnam(stitch, camera, 1, buffer.data(), static_cast<uint32_t>(bits), &w, &h),
          vantix_edf_pull(edf, camera, 1, buffer.data(), bits, pitch, &info2),
          vantix_edf_pullV3(edf, camera, 1, buffer.data(), bits, pitch, &info3),
          vantix_edf_pullV4(edf, camera, 1, buffer.data(), bits, pitch, &info4),
          vantix_edf_pullnam(edf, camera, 1, buffer.data(), static_cast<uint32_t>(bits), &w, &h),
          vantix_spot_pull(spot, camera, 1, buffer.data(), static_cast<uint32_t>(bits), pitch,
                           &info2, &out)};
    };
    const auto untouched = [&] {
      return info2.width == 0 && info3.width == 0 && info4.width == 0 && w == 7 && h == 7 &&
             out.total == 5 && buffer[0] == 0xCD && queued(stitch) == 0 && queued(edf) == 0;
    };
    // No SDK loaded: every pull, a null session with push 0 too.
    vantix_stitch_start(stitch);
    vantix_edf_start(edf);
    EXPECT_EQ(pulls(reinterpret_cast<void*>(0xca), 24, 0),
              std::vector<VantixResult>(9, VANTIX_E_NOTIMPL));
    EXPECT_EQ(vantix_stitch_pull(nullptr, nullptr, 0, buffer.data(), 24, 0, nullptr),
              VANTIX_E_NOTIMPL);
    EXPECT_TRUE(untouched());

    SimcamApi sim{};
    void* so = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(so != nullptr && simcam_load_api(so, &sim)) << dlerror();
    SimcamCamera* camera = sim.open(64, 48);
    // A null camera, a bit count or a pitch the SDK refuses: its result, and
    // nothing written or pushed.
    const VantixResult pointer = static_cast<VantixResult>(SIMCAM_E_POINTER);
    const VantixResult invalid = static_cast<VantixResult>(SIMCAM_E_INVALIDARG);
    EXPECT_EQ(pulls(nullptr, 24, 0), std::vector<VantixResult>(9, pointer));
    EXPECT_EQ(pulls(camera, 17, 0), std::vector<VantixResult>(9, invalid));
    const VantixResult ok = VANTIX_S_OK;
    EXPECT_EQ(pulls(camera, 24, 10), (std::vector<VantixResult>{invalid, invalid, invalid, ok,
                                                                invalid, invalid, invalid, ok,
                                                                invalid}));  // no pitch in pullnam
    EXPECT_TRUE(info2.width == 0 && info3.width == 0 && info4.width == 0 && out.total == 5);
    // Without a push the session may be null.
    EXPECT_EQ(vantix_edf_pull(nullptr, camera, 0, buffer.data(), 24, 0, &info2), ok);
    EXPECT_EQ(info2.width, 64u);
    info2 = FrameInfoV2{};

    // The named pull without size pointers: the SDK's result, the frame
    // dropped.  A session that is not running drops what a pull pushes.
    StitchHost freshHost;
    VantixStitch* fresh = vantix_stitch_new(0, 64, 48, 0, &StitchHost::onFrame, nullptr, &freshHost);
    EXPECT_EQ(vantix_stitch_pull(fresh, camera, 1, buffer.data(), 24, 0, nullptr), ok);
    EXPECT_EQ(queued(fresh), 0u);
    vantix_stitch_start(fresh);
    EXPECT_EQ(vantix_stitch_pullnam(fresh, camera, 1, buffer.data(), 24, nullptr, nullptr), ok);
    EXPECT_EQ(vantix_stitch_pullnam(fresh, camera, 1, buffer.data(), 24, &w, nullptr), ok);
    EXPECT_EQ(queued(fresh), 0u);
    vantix_stitch_delete(fresh);
    EXPECT_EQ(freshHost.frames.load(), 0);

    // Spot: a null `out` is measured unseen; no spots at all take no records.
    EXPECT_EQ(vantix_spot_pull(spot, camera, 1, buffer.data(), 8, 0, &info2, nullptr), 0u);
    EXPECT_EQ(info2.width, 64u);
    VantixSpot* none = vantix_spot_new(0, 3);
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(vantix_spot_pull(none, camera, 1, buffer.data(), 16, 0, nullptr, nullptr), 0u);
    }
    // ROIs and apertures out of every range change no result code.
    vantix_spot_setRoi(none, 0xFFFFFFF0u, 0x7FFFFFF0u, 0x7FFFFFFFu, 0xFFFFFFFFu);
    vantix_spot_setAperture(spot, SpotAperture{1e300, -1e300, INFINITY, INFINITY});
    vantix_spot_setRoi(spot, 0x7FFFFFF0u, 0x7FFFFFF0u, 0x7FFFFFFFu, 0x7FFFFFFFu);
    SpotResult record{};
    record.total = 9;
    EXPECT_EQ(vantix_spot_pull(spot, camera, 1, buffer.data(), 48, 0, nullptr, &record), 0u);
    EXPECT_EQ(record.total, 0.0);  // the ROI lies outside the frame
    EXPECT_EQ(vantix_spot_pull(none, camera, 1, buffer.data(), 24, 0, nullptr, nullptr), 0u);
    vantix_spot_delete(none);
    vantix_spot_delete(spot);
    vantix_edf_delete(edf);
    vantix_stitch_delete(stitch);
    sim.close(camera);
  }));
}

// ---------------------------------------------------------------------------
// Edge
// ---------------------------------------------------------------------------

TEST(BadInput, EdgeSession) {
  vantix_init(&hostAlloc);
  const cv::Mat frame = vtest::randomImage(48, 64, CV_8UC3, 6);
  VantixEdge* edge = vantix_edge_new(0, 64, 48, 10);
  int32_t x = 30, y = 20;
  EXPECT_EQ(vantix_edge_get(edge, frame.data, nullptr, &y, 20), 0);
  EXPECT_EQ(vantix_edge_get(edge, frame.data, &x, nullptr, 0), 0);
  EXPECT_EQ(y, 20);
  vantix_edge_delete(edge);

  // A search size of 0 from creation leaves no area: the exception, until
  // a size of 1..50 is given.
  VantixEdge* none = vantix_edge_new(0, 64, 48, 0);
  EXPECT_THROW(vantix_edge_get(none, frame.data, &x, &y, 0), cv::Exception);
  EXPECT_NO_THROW(vantix_edge_get(none, frame.data, &x, &y, 5));
  vantix_edge_delete(none);

  // Frames one pixel wide or high: any point inside answers 0 or 1, with odd
  // sizes too (their area truncates to no row or column there).
  for (const cv::Size size : {cv::Size(1, 48), cv::Size(48, 1), cv::Size(1, 1)}) {
    for (uint32_t format : {0u, 1u, 2u, 3u, 9u}) {
      VantixEdge* thin = vantix_edge_new(format, size.width, size.height, 10);
      for (uint32_t searchSize : {1u, 2u, 3u, 10u, 11u, 21u, 50u}) {
        for (int i = 0; i < std::max(size.width, size.height); i += 7) {
          int32_t px = std::min(i, size.width - 1), py = std::min(i, size.height - 1);
          int32_t result = -1;
          EXPECT_NO_THROW(result = vantix_edge_get(thin, frame.data, &px, &py, searchSize))
              << size << " format " << format << " size " << searchSize << " at " << i;
          EXPECT_TRUE(result == 0 || result == 1) << result;
        }
      }
      vantix_edge_delete(thin);
    }
  }
  vantix_init(nullptr);
}

// ---------------------------------------------------------------------------
// Resize and demosaic
// ---------------------------------------------------------------------------

TEST(BadInput, ImageOperations) {
  std::vector<uint8_t> pixels(256, 0x5A);
  const VantixImageHeader small{40, 2, 2, 1, 24, 0, 0, 0, 0, 0, 0};
  // 2^29 pixels of 24 bits: the default stride wraps to 0 in 32 bits, a
  // pitch as short as any other; nothing is read or written.
  const VantixImageHeader wide{40, 0x20000000, 1, 1, 24, 0, 0, 0, 0, 0, 0};
  const VantixImageHeader negative{40, -8, 2, 1, 24, 0, 0, 0, 0, 0, 0};
  const struct {
    const char* name;
    const VantixImageHeader* src;
    const void* srcPixels;
    const VantixImageHeader* dst;
    void* dstPixels;
  } cases[] = {
      {"wrapped source stride", &wide, pixels.data(), &small, pixels.data() + 128},
      {"wrapped destination stride", &small, pixels.data(), &wide, pixels.data() + 128},
      {"negative width", &negative, pixels.data(), &small, pixels.data() + 128},
      {"null source pixels", &small, nullptr, &small, pixels.data() + 128},
      {"null destination pixels", &small, pixels.data(), &small, nullptr},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vantix_resizeV2(c.src, 0, c.srcPixels, c.dst, 0, c.dstPixels, VANTIX_INTER_AUTO),
              VANTIX_E_FAIL)
        << c.name;
  }
  EXPECT_EQ(std::count(pixels.begin(), pixels.end(), 0x5A), 256);
  // Version 1 forms the pixel address from biSize before it is refused.
  alignas(8) uint8_t image[64] = {};
  auto* header = reinterpret_cast<VantixImageHeader*>(image);
  *header = VantixImageHeader{41, 2, 2, 1, 24, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(vantix_resizeV1(header, header, 1), VANTIX_E_INVALIDARG);

  // Demosaic: null buffers and frames too small for a method all end in
  // the code of a conversion that ran.
  std::vector<uint8_t> out(64, 0);
  EXPECT_EQ(vantix_demosaic(nullptr, out.data(), 4, 4, 8, VANTIX_BAYER_RGGB, 0, 0), VANTIX_E_FAIL);
  EXPECT_EQ(vantix_demosaic(pixels.data(), nullptr, 4, 4, 8, VANTIX_BAYER_RGGB, 0, 0),
            VANTIX_E_FAIL);
  for (uint32_t algorithm = 0; algorithm < 3; ++algorithm) {
    for (uint32_t side = 1; side <= 3; ++side) {
      std::vector<uint8_t> raw(side * side, 80), rgb(((side * 24 + 31) >> 3 & ~3u) * side);
      EXPECT_EQ(vantix_demosaic(raw.data(), rgb.data(), side, side, 8, VANTIX_BAYER_GRBG, 0,
                                algorithm),
                VANTIX_E_FAIL)
          << side << " algorithm " << algorithm;
    }
  }
}

}  // namespace
