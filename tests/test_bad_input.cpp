// Hostile arguments through the spot, edge and image exports, as a host
// would pass them: each gets its documented outcome (a code, a dropped
// frame, a no-op, or the documented exception).  The stitch and EDF rows
// are in their families' tests.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <vantix.h>

#include "support/test_support.h"
#include "testing/simcam/simcam_loader.h"

namespace {

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }

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

// A spot pull with a null `out` is measured unseen; sessions without spots
// take no records; ROIs and apertures out of every range change no result.
TEST(BadInput, SpotPulls) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    SimcamApi sim{};
    void* so = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(so != nullptr && simcam_load_api(so, &sim)) << dlerror();
    SimcamCamera* camera = sim.open(64, 48);
    std::vector<uint8_t> buffer(64 * 48 * 8, 0xCD);
    FrameInfoV2 info2{};
    VantixSpot* spot = vantix_spot_new(1, 0);
    EXPECT_EQ(vantix_spot_pull(spot, camera, 1, buffer.data(), 8, 0, &info2, nullptr), 0u);
    EXPECT_EQ(info2.width, 64u);
    VantixSpot* none = vantix_spot_new(0, 3);
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(vantix_spot_pull(none, camera, 1, buffer.data(), 16, 0, nullptr, nullptr), 0u);
    }
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
