// Binding to the camera SDK and pulling frames through it, against the
// simulated SDK, its partial and legacy variants, and the array camera.  The
// bindings are process-wide and never reset, so every scenario runs in a
// child process of its own and loads the SDK libraries with dlopen, the way
// a host has its SDK loaded.
#include <dlfcn.h>

#include <tuple>

#include "api/camera_sdk.h"
#include "support/sessions.h"
#include "testing/simcam/simcam_loader.h"
#include "tools/arraycam/arraycam.h"

namespace {

using vantix::FrameInfoVersion;
constexpr uint8_t kFill = 0xCD;
void* const kSession = reinterpret_cast<void*>(0x5e55);  // never dereferenced
void* const kNoCamera = reinterpret_cast<void*>(0xca);
const bool kSerialOpenCv = (vtest::serialOpenCvUnderTsan(), true);

// What the pulls handed on: (data, width, height, bits, pitch) of each push,
// and the number of spot frames.
using Push = std::tuple<const void*, uint32_t, uint32_t, uint64_t, uint32_t>;
std::vector<Push> gPushes;
int gSpotFrames = 0;
void recordPush(void* session, const void* data, uint32_t w, uint32_t h, uint64_t bits,
                uint32_t pitch) {
  EXPECT_EQ(session, kSession);
  gPushes.emplace_back(data, w, h, bits, pitch);
}
void recordSpot(void*, void*, void*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, void*) {
  ++gSpotFrames;
}

// The simulated SDK libraries (loader simcam_load_api or
// simcam_load_partial_api), loaded as a host loads its SDK.
template <typename Api>
Api load(int (*loader)(void*, Api*), const std::string& file) {
  const std::string dir = VANTIX_SIMCAM_PATH, path = dir.substr(0, dir.rfind('/') + 1) + file;
  Api api{};
  EXPECT_TRUE(loader(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL), &api)) << file;
  return api;
}
template <typename Api>
SimcamStats statsOf(const Api& api) {
  SimcamStats s;
  api.getStats(&s);
  return s;
}

std::vector<uint8_t> gBuffer, gInfo;
bool allFill(const std::vector<uint8_t>& b) {
  return std::all_of(b.begin(), b.end(), [](uint8_t v) { return v == kFill; });
}
VantixResult pull(FrameInfoVersion v, void* camera, int32_t bits, uint32_t pitch = 0,
                  int32_t push = 1) {
  return vantix::pullWithInfo(v, kSession, camera, push, gBuffer.data(), bits, pitch, gInfo.data(),
                              recordPush);
}
VantixResult pullNamed(void* camera, uint32_t bits, int32_t push = 1) {
  uint32_t width = 0, height = 0;
  return vantix::pullNamed(kSession, camera, push, gBuffer.data(), bits, &width, &height,
                           recordPush);
}
// Every pull routine once: the three record versions, the named pull, the spot pull.
std::vector<VantixResult> pullEach(void* camera, int32_t bits, uint32_t* depth) {
  auto* info = reinterpret_cast<FrameInfoV2*>(gInfo.data());
  return {pull(FrameInfoVersion::V2, camera, bits), pull(FrameInfoVersion::V3, camera, bits),
          pull(FrameInfoVersion::V4, camera, bits), pullNamed(camera, uint32_t(bits)),
          vantix::pullSpot(kSession, depth, camera, 1, gBuffer.data(), 8, 0, info, nullptr,
                           recordSpot)};
}
void freshBuffers(size_t bytes = 64) {
  gBuffer.assign(bytes, kFill);
  gInfo.assign(sizeof(FrameInfoV4) + 16, kFill);
}

// Scenarios of a host, one test each, run in a child process of its own (a
// child inherits the failures of the test it was forked from).  What the
// library bound is seen in what each SDK library was asked.
#define SCENARIO(name)                           \
  void name();                                   \
  TEST(CameraSdk, name) {                        \
    EXPECT_TRUE(vtest::runInChildProcess(name)); \
  }                                              \
  void name()

// A search that binds nothing keeps no reference to what it looked at: a
// plugin the host closes afterwards is unloaded, and no pull reaches it.
// Until an SDK with the V2 pull is loaded every pull searches again: the
// stub without it is passed over, but the pointers found on the way stay
// (V3 reaches it).  The first SDK with V2 in load order is bound for good,
// even without V4 and with a full SDK loaded after it; the named pull is
// bound on its own, to the stub.
SCENARIO(FirstSdkWithV2IsBoundForGood) {
  void* plugin = dlopen(VANTIX_SIMCAM_PARTIAL_PATH, RTLD_NOW | RTLD_LOCAL);
  freshBuffers();
  EXPECT_EQ(pull(FrameInfoVersion::V2, kNoCamera, 24), VANTIX_E_NOTIMPL);
  ASSERT_EQ(dlclose(plugin), 0) << dlerror();
  EXPECT_EQ(dlopen(VANTIX_SIMCAM_PARTIAL_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr)
      << "the plugin is still loaded after the host closed it";
  uint32_t depth = 0;
  EXPECT_EQ(pullEach(kNoCamera, 24, &depth), std::vector<VantixResult>(5, VANTIX_E_NOTIMPL));
  EXPECT_TRUE(allFill(gBuffer) && allFill(gInfo) && gPushes.empty() && gSpotFrames == 0);
  const auto partial = load(simcam_load_partial_api, "libvantix_simcam_partial.so");
  EXPECT_EQ(pull(FrameInfoVersion::V2, kNoCamera, 24), VANTIX_E_NOTIMPL);
  EXPECT_EQ(pull(FrameInfoVersion::V3, kNoCamera, 24), VANTIX_S_OK);
  EXPECT_EQ(gPushes, std::vector<Push>{Push(gBuffer.data(), 4, 2, 8, 0)});
  EXPECT_EQ(pullNamed(kNoCamera, 8, 0), VANTIX_S_OK);
  const auto legacy = load(simcam_load_api, "libvantix_simcam_legacy.so");
  const auto full = load(simcam_load_api, "libvantix_simcam.so");
  SimcamCamera* cam = legacy.open(16, 8);
  freshBuffers(legacy.frameBytes(cam, 24, 0));
  EXPECT_EQ(pull(FrameInfoVersion::V2, cam, 24), VANTIX_S_OK);
  EXPECT_EQ(pull(FrameInfoVersion::V3, cam, 24), VANTIX_S_OK);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(pull(FrameInfoVersion::V4, cam, 24), VANTIX_E_NOTIMPL);
  EXPECT_EQ(pullNamed(cam, 8, 0), VANTIX_S_OK);
  const SimcamStats p = statsOf(partial), l = statsOf(legacy), f = statsOf(full);
  EXPECT_EQ(cv::Vec4i(p.pullV3Calls, p.namedPullCalls, p.prefixCalls, 0), cv::Vec4i(1, 2, 4, 0));
  EXPECT_EQ(cv::Vec4i(l.pullV2Calls, l.pullV3Calls, l.prefixCalls, 0), cv::Vec4i(1, 1, 1, 0));
  EXPECT_EQ(f.prefixCalls + f.pullV2Calls + f.pullV3Calls + f.pullV4Calls, 0u);
  legacy.close(cam);
}

// SDK failures pass through with nothing written or pushed; a positive
// result is a success.  The pulls with a record push bits / 3 at the pull's
// pitch, the named pull 8 bits at pitch 0, and nothing without the size
// pointers; push flag 0 pushes nothing.  The spot pull asks the raw depth
// only while it is 0, also when the camera reports 0.
SCENARIO(PullResultsAndPushes) {
  const auto sim = load(simcam_load_api, "libvantix_simcam.so");
  SimcamCamera* cam = sim.open(30, 7);
  freshBuffers(sim.frameBytes(cam, 32, 0));
  uint32_t depth = 0;
  sim.setResult(cam, static_cast<int32_t>(0x80070015u));
  EXPECT_EQ(pullEach(cam, 32, &depth), std::vector<VantixResult>(5, 0x80070015u));
  EXPECT_TRUE(allFill(gBuffer) && allFill(gInfo) && gPushes.empty() && gSpotFrames == 0 &&
              depth == 0);
  sim.setResult(cam, 1);
  EXPECT_EQ(pullEach(cam, 32, &depth), std::vector<VantixResult>(5, 1u));
  const Push pushed(gBuffer.data(), 30, 7, 10, 0);
  EXPECT_EQ(gPushes,
            (std::vector<Push>{pushed, pushed, pushed, Push(gBuffer.data(), 30, 7, 8, 0)}));
  EXPECT_EQ(cv::Vec2i(gSpotFrames, int(depth)), cv::Vec2i(1, 12));  // the raw depth is asked
  gPushes.clear();
  uint32_t width = 0;
  EXPECT_EQ(pull(FrameInfoVersion::V3, cam, 24, 0, 0), 1u);
  EXPECT_EQ(pullNamed(cam, 8, 0), 1u);
  EXPECT_EQ(vantix::pullNamed(kSession, cam, 1, gBuffer.data(), 24, &width, nullptr, recordPush),
            1u);
  EXPECT_TRUE(gPushes.empty());
  const uint32_t asked = statsOf(sim).rawFormatCalls;
  pullEach(cam, 16, &depth);  // the depth is known: not asked again
  sim.setRawBits(cam, 0);
  depth = 0;
  for (int i = 0; i < 3; ++i) pullEach(cam, 16, &depth);  // asked while it stays 0
  EXPECT_EQ(cv::Vec2i(statsOf(sim).rawFormatCalls - asked, depth), cv::Vec2i(3, 0));
  sim.close(cam);
}

// Pulls through the EDF session's exported variant `variant` (V2, V3, V4,
// named), 24 bits at a pitch of kPitch; the named pull writes the frame size
// to the record's first two words.
constexpr uint32_t kPitch = 200;  // 64 pixels take 192 bytes
VantixResult pullInto(vantix::EdfSession& s, int variant, void* cam, uint8_t* b, uint8_t* r) {
  auto* size = reinterpret_cast<uint32_t*>(r);
  switch (variant) {
    case 0: return s.pull(cam, b, 24, kPitch, reinterpret_cast<FrameInfoV2*>(r));
    case 1: return s.pullV3(cam, b, 24, kPitch, reinterpret_cast<FrameInfoV3*>(r));
    case 2: return s.pullV4(cam, b, 24, kPitch, reinterpret_cast<FrameInfoV4*>(r));
    default: return s.pullnam(cam, b, 24, size, size + 1);
  }
}

// Each exported pull reads its own record version and pushes the frame at
// the pull's row pitch (the named pull at the session's default stride) into
// its session: a fresh EDF session's first fused image is the camera's
// scene.  With push 0 the session may be null.  (The stitch family's exports
// push into a stitch session in the Python pull test.)
SCENARIO(ExportsPushIntoTheirSession) {
  vantix::init();
  const auto sim = load(simcam_load_api, "libvantix_simcam.so");
  SimcamCamera* cam = sim.open(64, 48);
  cv::Mat scene(48, 64, CV_8UC3);  // the camera's test pattern, the same in every frame
  ASSERT_EQ(sim.render(cam, 0, scene.data, 24, static_cast<int32_t>(scene.step)), SIMCAM_S_OK);
  std::vector<uint8_t> buffer(kPitch * 48);
  for (int variant = 0; variant < 4; ++variant) {
    SCOPED_TRACE("variant " + std::to_string(variant));
    vtest::Host host;
    host.openEdf(0).start();
    std::vector<uint8_t> record(sizeof(FrameInfoV4) + 8, kFill);
    const uint32_t index = sim.frameIndex(cam);
    ASSERT_EQ(pullInto(*host.edf, variant, cam, buffer.data(), record.data()), VANTIX_S_OK);
    host.waitFrames(1);
    EXPECT_EQ(cv::Mat(1, 2, CV_32S, record.data()).at<cv::Vec2i>(0), cv::Vec2i(64, 48));
    const size_t size = std::vector<size_t>{24, 40, 104, 8}[variant];
    EXPECT_EQ(record[size - 1], variant == 3 ? 0 : static_cast<uint8_t>((size - 1) * 7 + index));
    EXPECT_EQ(record[size], kFill);
    EXPECT_EQ(cv::norm(host.last, scene, cv::NORM_INF), 0.0);
  }
  FrameInfoV4 record{};
  EXPECT_EQ(vantix_stitch_pullV4(nullptr, cam, 0, buffer.data(), 24, 0, &record), VANTIX_S_OK);
  EXPECT_EQ(record.width, 64u);
  sim.close(cam);
}

// Three threads make their first pulls at the same moment (V2 into a stitch
// session, V3 and the named pull into an EDF session) while the main thread
// starts and stops both sessions.  Every pull succeeds, and both bindings
// are made with at most one search a thread (each thread's first pull):
// later pulls never search again.
SCENARIO(FirstPullsAtOnceWhileSessionsStartAndStop) {
  constexpr int kThreads = 3, kPulls = 5;
  vantix::init();
  const auto sim = load(simcam_load_api, "libvantix_simcam.so");
  vantix::StitchSession stitch(96, 72, [](const vantix::StitchFrame&) {});
  vantix::EdfSession edf([](const vantix::EdfFrame&) {});
  const std::vector<SimcamCamera*> cameras = {sim.open(96, 72), sim.open(96, 72), sim.open(96, 72)};
  const auto pullOnce = [&](int thread, uint8_t* buffer) {
    void* cam = cameras[thread];
    uint32_t w = 0, h = 0;
    switch (thread) {
      case 0: return vantix_stitch_pull(stitch.handle(), cam, 1, buffer, 24, 0, nullptr);
      case 1: return vantix_edf_pullV3(edf.handle(), cam, 1, buffer, 24, 0, nullptr);
      default: return vantix_edf_pullnam(edf.handle(), cam, 1, buffer, 24, &w, &h);
    }
  };
  std::atomic<int> failed{0};
  std::promise<void> go;  // the threads' start line
  const std::shared_future<void> ready = go.get_future().share();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      std::vector<uint8_t> buffer(96 * 72 * 3);
      ready.wait();
      for (int k = 0; k < kPulls; ++k) failed += pullOnce(i, buffer.data()) != 0;
    });
  }
  go.set_value();
  for (int k = 0; k < kPulls; ++k) {
    stitch.start();
    edf.start();
    stitch.stop();
    edf.stop();
  }
  for (std::thread& t : threads) t.join();
  const uint32_t searches = statsOf(sim).prefixCalls;
  EXPECT_EQ(failed.load(), 0);
  EXPECT_TRUE(searches >= 2 && searches <= kThreads) << searches << " searches";
  for (SimcamCamera* cam : cameras) sim.close(cam);
}

// The array camera serves a strided 12-bit colour frame at every pull
// layout: its values at 48 bits, their grey at 16, scaled from 12 to 8 bits
// at 8, padding left alone.  It refuses a pitch too short for the row, and
// handles that are not (or no longer) its cameras.
SCENARIO(ArrayCameraServesEveryLayout) {
  void* so = dlopen(VANTIX_ARRAYCAM_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(so, nullptr) << dlerror();
  const auto pull = reinterpret_cast<decltype(&DllPullImageWithRowPitchV2)>(
      dlsym(so, "DllPullImageWithRowPitchV2"));
  ArraycamCamera* camera = reinterpret_cast<decltype(&arraycam_open)>(dlsym(so, "arraycam_open"))();
  std::vector<uint8_t> out(256, kFill);
  EXPECT_EQ(pull(camera, out.data(), 16, 64, nullptr), ARRAYCAM_E_NOFRAME);
  // 5 x 3 pixels of B G R in 16-bit words, rows 40 bytes apart (30 used); the
  // gap holds values no pull may deliver.
  constexpr int W = 5, H = 3;
  std::vector<uint16_t> words(20 * H, 0xFFFF);
  cv::Mat frame(H, W, CV_16UC3, words.data(), 40);
  cv::randu(frame, 0, 4096);
  const auto setFrame =
      reinterpret_cast<decltype(&arraycam_set_frame)>(dlsym(so, "arraycam_set_frame"));
  ASSERT_EQ(setFrame(camera, words.data(), W, H, 16, 3, 40, 12), ARRAYCAM_S_OK);
  cv::Mat_<uint16_t> grey(H, W);
  cv::Mat_<uint8_t> grey8(H, W);
  for (int i = 0; i < W * H; ++i) {
    const cv::Vec3w p = frame.at<cv::Vec3w>(i / W, i % W);
    grey(i / W, i % W) =
        static_cast<uint16_t>((299u * p[2] + 587u * p[1] + 114u * p[0] + 500) / 1000);
    grey8(i / W, i % W) = static_cast<uint8_t>(std::min(255, (grey(i / W, i % W) + 8) >> 4));
  }
  const struct {
    int32_t bits, pitch;
    const cv::Mat& expected;
  } layouts[] = {{48, 36, frame}, {16, 0, grey}, {8, 0, grey8}};
  for (const auto& l : layouts) {
    out.assign(256, kFill);
    uint32_t record[6] = {};
    ASSERT_EQ(pull(camera, out.data(), l.bits, l.pitch, record), ARRAYCAM_S_OK) << l.bits;
    EXPECT_EQ(std::vector<uint32_t>(record, record + 6),
              (std::vector<uint32_t>{W, H, 1, 16, 3, 12}));
    const size_t row = W * l.expected.elemSize();
    const size_t stride = l.pitch ? size_t(l.pitch) : (row + 3) / 4 * 4;
    const cv::Mat pulled(H, W, l.expected.type(), out.data(), stride);
    EXPECT_EQ(cv::norm(pulled, l.expected, cv::NORM_INF), 0.0) << l.bits;
    for (int y = 0; y < H; ++y) EXPECT_EQ(out[y * stride + row], kFill) << l.bits;
  }
  EXPECT_EQ(pull(camera, out.data(), 24, 8, nullptr), ARRAYCAM_E_INVALIDARG);  // < 15 bytes
  int foreign = 0;
  EXPECT_EQ(pull(&foreign, out.data(), 8, 0, nullptr), ARRAYCAM_E_HANDLE);
  reinterpret_cast<decltype(&arraycam_close)>(dlsym(so, "arraycam_close"))(camera);
  EXPECT_EQ(pull(camera, out.data(), 8, 0, nullptr), ARRAYCAM_E_HANDLE);
}

}  // namespace
