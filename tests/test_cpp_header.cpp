// The C++ layer vantix.hpp: callbacks that survive moves, errors that carry
// their name, the panorama freed by the registered release function, and
// demosaic's "E_FAIL means converted".
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <vantix.hpp>

namespace {

std::atomic<int> allocations{0}, releases{0};
void* countingAllocate(uint64_t bytes) {
  ++allocations;
  return std::malloc(bytes);
}
void countingRelease(void* p) {
  ++releases;
  std::free(p);
}

// Values reported from a worker thread; waits without a timeout (ctest has
// its own).
struct Calls {
  std::mutex m;
  std::condition_variable cv;
  std::vector<uint32_t> values;
  void add(uint32_t value) {
    std::lock_guard<std::mutex> lock(m);
    values.push_back(value);
    cv.notify_all();
  }
  uint32_t first() {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return !values.empty(); });
    return values[0];
  }
};

TEST(CppHeader, MovedSessionsKeepTheirCallbacksAndThePanoramaIsReleased) {
  vantix::init(&countingAllocate, &countingRelease);
  std::vector<uint8_t> frame(300 * 50);  // 100 x 50 B G R noise, rows of 300 bytes
  uint32_t seed = 12345;
  for (uint8_t& v : frame) v = static_cast<uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24);
  Calls frames;
  vantix::StitchSession first(100, 50, [&](const vantix::StitchFrame& f) {
    frames.add(f.frameWidth * 10000 + f.frameHeight);
  });
  first.start();
  vantix::StitchSession moved(std::move(first));  // the worker runs meanwhile
  vantix::StitchSession other(64, 48, [](const vantix::StitchFrame&) {});
  other = std::move(moved);  // deletes other's own session first
  other.pushback(frame.data(), 100, 50);
  EXPECT_EQ(frames.first(), 100u * 10000 + 50);

  {
    vantix::Image panorama = other.stop(true, true);
    ASSERT_NE(panorama, nullptr);
    EXPECT_EQ(panorama->biWidth, 100);
    EXPECT_EQ(panorama->biHeight, 50);
    const vantix::ImageView view(panorama.get());
    ASSERT_EQ(view.stride, 300u);
    const uint8_t* pixels = static_cast<const uint8_t*>(view.data);
    EXPECT_EQ(std::vector<uint8_t>(pixels, pixels + frame.size()), frame);
  }
  EXPECT_GE(allocations.load(), 1);
  EXPECT_EQ(releases.load(), allocations.load());

  // An EDF session of an unknown fuser kind reports code 1 through onError.
  Calls errors;
  vantix::EdfSession edf([](const vantix::EdfFrame&) {}, [&](uint32_t code) { errors.add(code); },
                         7);
  vantix::EdfSession edfMoved(std::move(edf));
  edfMoved.start();
  edfMoved.pushback(frame.data(), 100, 50);
  EXPECT_STREQ(vantix_edf_error_name(errors.first()), "FAILED");
}

TEST(CppHeader, ImageOperations) {
  // Nearest-neighbour doubling of a 2 x 2 grey image (rows padded to 4).
  uint8_t src[8] = {10, 20, 0, 0, 30, 40, 0, 0};
  uint8_t dst[16] = {};
  vantix::resize(vantix::ImageView(src, 2, 2, 8), vantix::ImageView(dst, 4, 4, 8),
                 VANTIX_INTER_NEAREST);
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x)
      EXPECT_EQ(dst[y * 4 + x], src[(y / 2) * 4 + x / 2]) << x << "," << y;
  }
  try {
    vantix::resize(vantix::ImageView(src, 2, 2, 17), vantix::ImageView(dst, 4, 4, 17));
    ADD_FAILURE() << "bit count 17 accepted";
  } catch (const vantix::Error& e) {
    EXPECT_EQ(e.result(), VANTIX_E_INVALIDARG);
    EXPECT_STREQ(e.name(), "E_INVALIDARG");
    EXPECT_STREQ(e.what(), "vantix_resizeV2: E_INVALIDARG");
  }

  // An RGGB mosaic of one colour (R 200, G 100, B 50): a conversion, which
  // the library reports as E_FAIL, does not throw and gives that colour.
  uint8_t raw[8 * 8];
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < 8; ++x)
      raw[y * 8 + x] = (y % 2 == 0 && x % 2 == 0) ? 200 : (y % 2 && x % 2) ? 50 : 100;
  }
  std::vector<uint8_t> bgr(vantix_default_stride(8, 24) * 8);
  vantix::demosaic(raw, bgr.data(), 8, 8, 8, VANTIX_BAYER_RGGB);
  const uint8_t* centre = &bgr[4 * vantix_default_stride(8, 24) + 4 * 3];
  EXPECT_EQ(std::vector<uint8_t>(centre, centre + 3), std::vector<uint8_t>({50, 100, 200}));
  try {
    vantix::demosaic(raw, bgr.data(), 4, 4, 12, VANTIX_BAYER_RGGB, VANTIX_DEMOSAIC_BGR,
                     VANTIX_DEMOSAIC_VNG);
    ADD_FAILURE() << "VNG on 16-bit samples accepted";
  } catch (const vantix::Error& e) {
    EXPECT_STREQ(e.name(), "E_NOTIMPL");
  }
  EXPECT_THROW(vantix::demosaic(nullptr, bgr.data(), 8, 8, 8, VANTIX_BAYER_RGGB),
               std::invalid_argument);
}

}  // namespace
