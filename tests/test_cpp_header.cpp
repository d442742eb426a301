// The C++ layer vantix.hpp: sessions that cannot be copied and keep calling
// back once moved, errors that carry their name, the panorama freed by the
// registered release function, and demosaic's "E_FAIL means converted".

#include <type_traits>

#include "support/sessions.h"

namespace {

static_assert(!std::is_copy_constructible_v<vantix::StitchSession> &&
                  !std::is_copy_assignable_v<vantix::EdfSession> &&
                  !std::is_copy_constructible_v<vantix::SpotSession> &&
                  !std::is_copy_constructible_v<vantix::EdgeSession>,
              "a copied session would delete its handle twice");

std::atomic<int> allocations{0}, releases{0};

TEST(CppHeader, MovedSessionsKeepTheirCallbacksAndThePanoramaIsReleased) {
  vantix::init(
      [](uint64_t bytes) {
        ++allocations;
        return std::malloc(bytes);
      },
      [](void* p) {
        ++releases;
        std::free(p);
      });
  const cv::Mat frame = vtest::texturedScene({100, 50});  // B G R rows of 300 bytes
  std::promise<uint32_t> framed;                          // one frame is pushed: one report
  std::future<uint32_t> frameWidth = framed.get_future();
  vantix::StitchSession first(
      100, 50, [&](const vantix::StitchFrame& f) { framed.set_value(f.frameWidth); });
  first.start();
  vantix::StitchSession moved(std::move(first));  // the worker runs meanwhile
  vantix::StitchSession other(64, 48, [](const vantix::StitchFrame&) {});
  other = std::move(moved);  // deletes other's own session first
  other.pushback(frame.data, 100, 50);
  EXPECT_EQ(frameWidth.get(), 100u);
  {
    const vantix::Image panorama = other.stop(true, true);
    ASSERT_NE(panorama, nullptr);
    const vantix::ImageView view(panorama.get());
    EXPECT_EQ(view.width, 100u);
    EXPECT_EQ(view.height, 50u);
    ASSERT_EQ(view.stride, 300u);
    EXPECT_EQ(std::memcmp(view.data, frame.data, 300 * 50), 0);
  }
  EXPECT_GE(allocations.load(), 1);
  EXPECT_EQ(releases.load(), allocations.load());
}

TEST(CppHeader, FailuresThrowWithTheirNameAndDemosaicFailIsDone) {
  uint8_t pixels[16] = {};
  try {
    vantix::resize(vantix::ImageView(pixels, 2, 2, 17), vantix::ImageView(pixels, 2, 2, 17));
    ADD_FAILURE() << "bit count 17 accepted";
  } catch (const vantix::Error& e) {
    EXPECT_EQ(e.result(), VANTIX_E_INVALIDARG);
    EXPECT_STREQ(e.name(), "E_INVALIDARG");
    EXPECT_STREQ(e.what(), "vantix_resizeV2: E_INVALIDARG");
  }

  // A conversion, which the library reports as E_FAIL, is done: no exception
  // (the tool's tests check its colours).  A refusal throws, and null buffers
  // are refused before the call.
  uint8_t raw[8 * 8 * 2] = {}, bgr[8 * 8 * 6] = {};
  EXPECT_NO_THROW(vantix::demosaic(raw, bgr, 8, 8, 8, VANTIX_BAYER_RGGB));
  EXPECT_THROW(vantix::demosaic(raw, bgr, 8, 8, 12, VANTIX_BAYER_RGGB, VANTIX_DEMOSAIC_BGR,
                                VANTIX_DEMOSAIC_VNG),
               vantix::Error);
  EXPECT_THROW(vantix::demosaic(nullptr, bgr, 8, 8, 8, VANTIX_BAYER_RGGB), std::invalid_argument);
}

}  // namespace
