// The array camera (tools/arraycam): the layouts its pull serves from a host
// frame, and spot pulls of the library through it while another SDK is
// loaded later.  Each scenario runs in a child process: the camera-SDK
// binding is process-wide.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/test_support.h"
#include "testing/scenes.h"
#include "tools/arraycam/arraycam.h"

namespace {

constexpr uint8_t kFill = 0xCD;

template <typename Fn>
Fn symbol(void* so, const char* name) {
  void* address = dlsym(so, name);
  EXPECT_NE(address, nullptr) << name;
  return reinterpret_cast<Fn>(address);
}

TEST(Arraycam, ServesEveryPullLayoutFromStridedFrames) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    void* so = dlopen(VANTIX_ARRAYCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(so, nullptr) << dlerror();
    const auto pull =
        symbol<decltype(&DllPullImageWithRowPitchV2)>(so, "DllPullImageWithRowPitchV2");
    const auto setFrame = symbol<decltype(&arraycam_set_frame)>(so, "arraycam_set_frame");
    ArraycamCamera* camera = symbol<decltype(&arraycam_open)>(so, "arraycam_open")();
    std::vector<uint8_t> out(256, kFill);
    EXPECT_EQ(pull(camera, out.data(), 16, 64, nullptr), ARRAYCAM_E_NOFRAME);

    // A 5 x 3 frame of 12-bit B G R values in 16-bit words, rows 40 bytes
    // apart (30 used); the gap holds values no pull may deliver.
    constexpr uint32_t W = 5, H = 3;
    std::vector<uint16_t> colour(20 * H, 0xFFFF);
    const auto bgr = [](uint32_t i, uint32_t c) {
      return static_cast<uint16_t>((i * 977 + c * 353) % 4096);
    };
    const auto luma = [&](uint32_t i) {
      return (299u * bgr(i, 2) + 587u * bgr(i, 1) + 114u * bgr(i, 0) + 500u) / 1000u;
    };
    for (uint32_t i = 0; i < W * H; ++i) {
      for (uint32_t c = 0; c < 3; ++c) colour[i / W * 20 + i % W * 3 + c] = bgr(i, c);
    }
    ASSERT_EQ(setFrame(camera, colour.data(), W, H, 16, 3, 40, 12), ARRAYCAM_S_OK);
    const struct {
      int32_t bits, pitch;
      uint32_t stride, bytes;
    } layouts[] = {{48, 36, 36, 6}, {16, 0, 12, 2}, {8, 0, 8, 1}};
    for (const auto& l : layouts) {
      out.assign(256, kFill);
      uint32_t record[6] = {};
      ASSERT_EQ(pull(camera, out.data(), l.bits, l.pitch, record), ARRAYCAM_S_OK);
      EXPECT_EQ(std::vector<uint32_t>(record, record + 6),
                (std::vector<uint32_t>{W, H, 1, 16, 3, 12}));
      for (uint32_t i = 0; i < W * H; ++i) {
        const uint8_t* px = &out[i / W * l.stride + i % W * l.bytes];
        uint16_t word[3] = {};
        std::memcpy(word, px, l.bytes == 1 ? 0 : l.bytes);
        if (l.bits == 48) {
          EXPECT_EQ(cv::Vec3w(word[0], word[1], word[2]),
                    cv::Vec3w(bgr(i, 0), bgr(i, 1), bgr(i, 2)))
              << i;
        } else if (l.bits == 16) {
          EXPECT_EQ(word[0], luma(i)) << i;  // grey of the values as given
        } else {
          EXPECT_EQ(px[0], std::min(255u, (luma(i) + 8) >> 4)) << i;  // scaled from 12 bits
        }
      }
      for (uint32_t y = 0; y < H; ++y) EXPECT_EQ(out[y * l.stride + W * l.bytes], kFill) << l.bits;
    }
    // An 8-bit grey frame: B = G = R, alpha full, unscaled at 16 bits a
    // channel; refusals.
    const uint8_t grey[2][3] = {{0, 17, 255}, {128, 1, 99}};
    ASSERT_EQ(setFrame(camera, grey, 3, 2, 8, 1, 0, 0), ARRAYCAM_S_OK);
    ASSERT_EQ(pull(camera, out.data(), 64, 0, nullptr), ARRAYCAM_S_OK);
    uint16_t last[4];
    std::memcpy(last, &out[24 + 16], sizeof last);
    EXPECT_EQ(cv::Vec4w(last[0], last[1], last[2], last[3]), cv::Vec4w(99, 99, 99, 65535));
    EXPECT_EQ(pull(camera, out.data(), 12, 0, nullptr), ARRAYCAM_E_INVALIDARG);
    EXPECT_EQ(pull(camera, out.data(), 24, 8, nullptr), ARRAYCAM_E_INVALIDARG);  // pitch < 9 bytes
    EXPECT_EQ(setFrame(camera, grey, 3, 2, 8, 2, 0, 0), ARRAYCAM_E_INVALIDARG);
    EXPECT_EQ(setFrame(camera, grey, 3, 2, 16, 1, 0, 17), ARRAYCAM_E_INVALIDARG);
    int foreign = 0;
    EXPECT_EQ(pull(&foreign, out.data(), 8, 0, nullptr), ARRAYCAM_E_HANDLE);
    symbol<decltype(&arraycam_close)>(so, "arraycam_close")(camera);
    EXPECT_EQ(pull(camera, out.data(), 8, 0, nullptr), ARRAYCAM_E_HANDLE);
  }));
}

TEST(Arraycam, TheLibraryMeasuresTheFramesItIsHandedAndRefusesForeignCameras) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    void* so = dlopen(VANTIX_ARRAYCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(so, nullptr) << dlerror();
    const auto firstSdk = symbol<decltype(&arraycam_first_sdk)>(so, "arraycam_first_sdk");
    EXPECT_EQ(firstSdk(nullptr, 0), 1);
    ArraycamCamera* camera = symbol<decltype(&arraycam_open)>(so, "arraycam_open")();
    const cv::Mat beam = vtest::beamImage(240, 200, {118.3, 97.6, 16.0, 10.0, 25.0, 4000.0});
    ASSERT_EQ(symbol<decltype(&arraycam_set_frame)>(so, "arraycam_set_frame")(
                  camera, beam.data, 240, 200, 16, 1, static_cast<uint32_t>(beam.step), 12),
              ARRAYCAM_S_OK);
    VantixSpot* spot = vantix_spot_new(1, 0);
    std::vector<uint8_t> frame(240 * 2 * 200);
    SpotResult r{};
    ASSERT_EQ(vantix_spot_pull(spot, camera, 1, frame.data(), 16, 0, nullptr, &r), 0u);
    // The first aperture (the ellipse inscribed in the frame) holds the whole
    // beam.
    EXPECT_EQ(r.total, static_cast<double>(vtest::momentsOf(beam).total));
    // A camera SDK loaded later does not take over: its camera handles reach
    // the array camera, which refuses them.
    void* sim = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_GLOBAL);
    ASSERT_NE(sim, nullptr);
    EXPECT_EQ(firstSdk(nullptr, 0), 1);
    int foreign = 0;
    EXPECT_EQ(vantix_spot_pull(spot, &foreign, 1, frame.data(), 16, 0, nullptr, &r),
              static_cast<VantixResult>(ARRAYCAM_E_HANDLE));
    vantix_spot_delete(spot);
  }));
}

}  // namespace
