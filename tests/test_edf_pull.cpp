// EDF sessions fed from the simulated camera through the pull functions.
// The camera binding is process-wide, so the scenario runs in a child
// process that loads the simulator the way a host loads its SDK.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "support/edf_session.h"
#include "support/edf_stack.h"
#include "support/test_support.h"
#include "tools/simcam/simcam_loader.h"

namespace {

TEST(EdfPull, PulledFramesAreFusedAndPushZeroLeavesTheSessionAlone) {
  EXPECT_TRUE(vtest::runInChildProcess([] {
    void* library = dlopen(VANTIX_SIMCAM_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    SimcamApi sim;
    ASSERT_TRUE(simcam_load_api(library, &sim));
    constexpr uint32_t kWidth = 120, kHeight = 90;
    SimcamCamera* camera = sim.open(kWidth, kHeight);
    const cv::Mat sharp = vtest::edfSamplePhoto("fruits.jpg", {kWidth, kHeight});
    ASSERT_EQ(sim.setFocusSweep(camera, sharp.data, kWidth, kHeight,
                                static_cast<uint32_t>(sharp.step[0]), 4, 3.0),
              SIMCAM_S_OK);

    vtest::EdfHost host;
    VantixEdf* session = vantix_edf_new(0, &vtest::EdfHost::onFrame, &vtest::EdfHost::onError,
                                        &host);
    vantix_edf_start(session);
    const uint32_t pitch = sim.defaultPitch(kWidth, 24);
    std::vector<uint8_t> buffer(pitch * kHeight);

    // Frame 0 comes back as the camera rendered it.
    FrameInfoV2 info{};
    ASSERT_EQ(vantix_edf_pull(session, camera, 1, buffer.data(), 24, 0, &info), 0);
    EXPECT_EQ(info.width, kWidth);
    EXPECT_EQ(info.height, kHeight);
    ASSERT_TRUE(host.waitFrames(1));
    std::vector<uint8_t> rendered(pitch * kHeight);
    ASSERT_EQ(sim.render(camera, 0, rendered.data(), 24, 0), SIMCAM_S_OK);
    const cv::Mat truth(kHeight, kWidth, CV_8UC3, rendered.data(), pitch);
    EXPECT_EQ(cv::norm(host.last(), truth, cv::NORM_INF), 0.0);

    // Each variant pushes; waiting for each frame keeps the queue from
    // dropping any.
    FrameInfoV3 info3{};
    FrameInfoV4 info4{};
    uint32_t width = 0, height = 0;
    ASSERT_EQ(vantix_edf_pullV3(session, camera, 1, buffer.data(), 24, 0, &info3), 0);
    ASSERT_TRUE(host.waitFrames(2));
    ASSERT_EQ(vantix_edf_pullV4(session, camera, 1, buffer.data(), 24, 0, &info4), 0);
    ASSERT_TRUE(host.waitFrames(3));
    ASSERT_EQ(vantix_edf_pullnam(session, camera, 1, buffer.data(), 24, &width, &height), 0);
    EXPECT_EQ(width, kWidth);
    ASSERT_TRUE(host.waitFrames(4));

    // push 0 fills the buffer only.
    ASSERT_EQ(vantix_edf_pull(session, camera, 0, buffer.data(), 24, 0, nullptr), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(host.frames(), 4);
    EXPECT_TRUE(host.errors().empty());
    vantix_edf_delete(session);
    sim.close(camera);
  }));
}

}  // namespace
