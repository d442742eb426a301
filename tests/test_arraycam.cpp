// The array camera (tools/arraycam): the pixel layouts its pull serves from a
// host frame, and a spot pull of the library through it.  The camera-SDK
// binding is process-wide, so the scenario that binds runs in a child.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/spot_beams.h"
#include "support/test_support.h"
#include "tools/arraycam/arraycam.h"
#include "tools/simcam/simcam_loader.h"

namespace {

constexpr uint8_t kFill = 0xCD;

struct Arraycam {
  int32_t (*pull)(void*, void*, int32_t, int32_t, void*);
  int32_t (*rawFormat)(void*, uint32_t*, uint32_t*);
  ArraycamCamera* (*open)();
  void (*close)(ArraycamCamera*);
  int32_t (*setFrame)(ArraycamCamera*, const void*, uint32_t, uint32_t, uint32_t, uint32_t,
                      uint32_t, uint32_t);
  int32_t (*firstSdk)(char*, size_t);

  explicit Arraycam(void* so) {
    resolve(so, pull, "DllPullImageWithRowPitchV2");
    resolve(so, rawFormat, "Arraycam_get_RawFormat");
    resolve(so, open, "arraycam_open");
    resolve(so, close, "arraycam_close");
    resolve(so, setFrame, "arraycam_set_frame");
    resolve(so, firstSdk, "arraycam_first_sdk");
  }
  template <typename Fn>
  static void resolve(void* so, Fn& fn, const char* name) {
    void* symbol = dlsym(so, name);
    ASSERT_NE(symbol, nullptr) << name;
    std::memcpy(&fn, &symbol, sizeof symbol);
  }
};

void* loadArraycam() {
  void* so = dlopen(VANTIX_ARRAYCAM_PATH, RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(so, nullptr) << dlerror();
  return so;
}

// Pulls into a buffer prefilled with kFill; returns the SDK's result.
int32_t pullInto(const Arraycam& cam, ArraycamCamera* camera, std::vector<uint8_t>& buffer,
                 int32_t bits, int32_t pitch, uint32_t height, uint32_t record[6] = nullptr) {
  buffer.assign(static_cast<size_t>(pitch) * height, kFill);
  uint32_t info[6] = {};
  const int32_t hr = cam.pull(camera, buffer.data(), bits, pitch, info);
  if (record != nullptr) std::memcpy(record, info, sizeof info);
  return hr;
}

uint16_t word(const std::vector<uint8_t>& b, size_t offset) {
  uint16_t v;
  std::memcpy(&v, b.data() + offset, 2);
  return v;
}

void servesEveryPullLayout() {
  void* so = loadArraycam();
  ASSERT_NE(so, nullptr);
  const Arraycam cam(so);
  ArraycamCamera* camera = cam.open();
  ASSERT_NE(camera, nullptr);
  std::vector<uint8_t> out;
  EXPECT_EQ(pullInto(cam, camera, out, 16, 64, 1), ARRAYCAM_E_NOFRAME);

  // A 5 x 3 16-bit B G R frame holding 12-bit values, rows 40 bytes apart
  // (30 used); the gap holds values the pulls must not deliver.
  constexpr uint32_t W = 5, H = 3, kPitch = 40;
  std::vector<uint16_t> colour(kPitch / 2 * H, 0xFFFF);
  auto bgr = [](uint32_t x, uint32_t y, uint32_t c) {
    return static_cast<uint16_t>((x * 977 + y * 1511 + c * 353) % 4096);
  };
  for (uint32_t y = 0; y < H; ++y)
    for (uint32_t x = 0; x < W; ++x)
      for (uint32_t c = 0; c < 3; ++c) colour[y * kPitch / 2 + x * 3 + c] = bgr(x, y, c);
  ASSERT_EQ(cam.setFrame(camera, colour.data(), W, H, 16, 3, kPitch, 12), ARRAYCAM_S_OK);
  uint32_t format = 0, depth = 0;
  EXPECT_EQ(cam.rawFormat(camera, &format, &depth), ARRAYCAM_S_OK);
  EXPECT_EQ(depth, 12u);

  // 48 bits at a padded pitch: the values as given, padding untouched.
  uint32_t record[6];
  ASSERT_EQ(pullInto(cam, camera, out, 48, 36, H, record), ARRAYCAM_S_OK);
  const uint32_t expectRecord[6] = {W, H, 1, 16, 3, 12};
  EXPECT_EQ(std::memcmp(record, expectRecord, sizeof record), 0);
  for (uint32_t y = 0; y < H; ++y) {
    for (uint32_t x = 0; x < W; ++x)
      for (uint32_t c = 0; c < 3; ++c) EXPECT_EQ(word(out, y * 36 + x * 6 + c * 2), bgr(x, y, c));
    for (uint32_t i = 30; i < 36; ++i) EXPECT_EQ(out[y * 36 + i], kFill);
  }
  // 16 bits (default pitch 12): luma of the 12-bit values.  8 bits: that
  // luma scaled from 12 bits, rounded.
  auto luma = [&](uint32_t x, uint32_t y) {
    return (299u * bgr(x, y, 2) + 587u * bgr(x, y, 1) + 114u * bgr(x, y, 0) + 500u) / 1000u;
  };
  ASSERT_EQ(pullInto(cam, camera, out, 16, 0, H), ARRAYCAM_S_OK);
  for (uint32_t y = 0; y < H; ++y)
    for (uint32_t x = 0; x < W; ++x) EXPECT_EQ(word(out, y * 12 + x * 2), luma(x, y));
  ASSERT_EQ(pullInto(cam, camera, out, 8, 0, H), ARRAYCAM_S_OK);
  for (uint32_t y = 0; y < H; ++y)
    for (uint32_t x = 0; x < W; ++x)
      EXPECT_EQ(out[y * 8 + x], std::min(255u, (luma(x, y) + 8) >> 4));

  // An 8-bit grey frame: B = G = R at 24 bits, alpha full at 32 and 64.
  const uint8_t grey[2][3] = {{0, 17, 255}, {128, 1, 99}};
  ASSERT_EQ(cam.setFrame(camera, grey, 3, 2, 8, 1, 0, 0), ARRAYCAM_S_OK);
  EXPECT_EQ(cam.rawFormat(camera, nullptr, &depth), ARRAYCAM_S_OK);
  EXPECT_EQ(depth, 8u);
  ASSERT_EQ(pullInto(cam, camera, out, 24, 0, 2, record), ARRAYCAM_S_OK);
  EXPECT_EQ(record[2], 2u);  // the second frame
  for (uint32_t y = 0; y < 2; ++y)
    for (uint32_t x = 0; x < 3; ++x)
      for (uint32_t c = 0; c < 3; ++c) EXPECT_EQ(out[y * 12 + x * 3 + c], grey[y][x]);
  ASSERT_EQ(pullInto(cam, camera, out, 64, 0, 2), ARRAYCAM_S_OK);
  EXPECT_EQ(word(out, 24 + 2 * 8 + 2), 99);  // unscaled
  EXPECT_EQ(word(out, 24 + 2 * 8 + 6), 65535);

  // Refusals.
  EXPECT_EQ(pullInto(cam, camera, out, 12, 0, 2), ARRAYCAM_E_INVALIDARG);
  EXPECT_EQ(pullInto(cam, camera, out, 24, 8, 2), ARRAYCAM_E_INVALIDARG);  // pitch < 9 bytes
  EXPECT_EQ(cam.setFrame(camera, grey, 3, 2, 8, 2, 0, 0), ARRAYCAM_E_INVALIDARG);
  EXPECT_EQ(cam.setFrame(camera, grey, 3, 2, 8, 1, 2, 0), ARRAYCAM_E_INVALIDARG);
  EXPECT_EQ(cam.setFrame(camera, grey, 3, 2, 16, 1, 0, 17), ARRAYCAM_E_INVALIDARG);
  int foreign = 0;
  EXPECT_EQ(cam.pull(&foreign, out.data(), 8, 0, nullptr), ARRAYCAM_E_HANDLE);
  cam.close(camera);
  EXPECT_EQ(cam.pull(camera, out.data(), 8, 0, nullptr), ARRAYCAM_E_HANDLE);
}

// In a child process like the other scenario: the parent must not keep the
// array camera loaded, or a later scenario could not load another SDK first.
TEST(Arraycam, ServesEveryPullLayoutFromStridedFrames) {
  EXPECT_TRUE(vtest::runInChildProcess(servesEveryPullLayout));
}

TEST(Arraycam, TheLibraryMeasuresTheFramesItIsHandedAndRefusesForeignCameras) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    void* so = loadArraycam();
    ASSERT_NE(so, nullptr);
    const Arraycam cam(so);
    EXPECT_EQ(cam.firstSdk(nullptr, 0), 1);
    ArraycamCamera* camera = cam.open();
    const cv::Mat beam =
        spottest::beamImage(240, 200, {118.3, 97.6, 16.0, 10.0, 25.0, 4000.0}, CV_16UC1);
    ASSERT_EQ(cam.setFrame(camera, beam.data, beam.cols, beam.rows, 16, 1,
                           static_cast<uint32_t>(beam.step), 12),
              ARRAYCAM_S_OK);
    VantixSpot* spot = vantix_spot_new(1, 0);
    std::vector<uint8_t> frame(240 * 2 * 200);
    SpotResult r{};
    ASSERT_EQ(vantix_spot_pull(spot, camera, 1, frame.data(), 16, 0, nullptr, &r), 0u);
    // The first aperture (the ellipse inscribed in the frame) holds the
    // whole beam: the record is the image's own moments.
    const spottest::Moments m = spottest::momentsOf(beam);
    EXPECT_EQ(r.total, static_cast<double>(m.total));
    EXPECT_NEAR(r.majorDiameter, m.dX(), 1e-9 * m.dX());
    EXPECT_NEAR(r.minorDiameter, m.dY(), 1e-9 * m.dY());

    // A camera SDK loaded later does not take over; its camera handles
    // reach the array camera, which refuses them.
    void* sim = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_GLOBAL);
    ASSERT_NE(sim, nullptr);
    SimcamApi api;
    ASSERT_TRUE(simcam_load_api(sim, &api));
    EXPECT_EQ(cam.firstSdk(nullptr, 0), 1);
    SimcamCamera* other = api.open(240, 200);
    EXPECT_EQ(vantix_spot_pull(spot, other, 1, frame.data(), 16, 0, nullptr, &r),
              static_cast<VantixResult>(ARRAYCAM_E_HANDLE));
    api.close(other);
    vantix_spot_delete(spot);
    cam.close(camera);
  }));
  // The other way round: with the simulated camera loaded first, the array
  // camera reports it.
  EXPECT_TRUE(vtest::runInChildProcess([] {
    // Global, so that its entry points also interpose on the later library's.
    ASSERT_NE(dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_GLOBAL), nullptr);
    void* so = loadArraycam();
    ASSERT_NE(so, nullptr);
    const Arraycam cam(so);
    char other[512] = "x";
    EXPECT_EQ(cam.firstSdk(other, sizeof other), 0);
    EXPECT_NE(std::strstr(other, "libvantix_simcam.so"), nullptr) << other;
  }));
}

}  // namespace
