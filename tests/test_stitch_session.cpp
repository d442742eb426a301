// The stitch session through its exported functions: creation and refusals,
// the worked example of a first frame, frame selection, lifecycle, growth of
// the canvas (and its failure), frames not drawn, and the readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "livestitch/lvprocessor.h"
#include "support/sessions.h"
#include "support/test_support.h"
#include "testing/scenes.h"

namespace {

void* hostAlloc(uint64_t bytes) { return std::malloc(bytes); }
void* failingAlloc(uint64_t) { return nullptr; }

using vtest::Host;

vantix::CLvProcessor* proc(VantixStitch* s) { return reinterpret_cast<vantix::CLvProcessor*>(s); }
cv::Mat pixels(VantixImageHeader* image) {
  return cv::Mat(image->biHeight, image->biWidth, CV_8UC3, reinterpret_cast<uint8_t*>(image) + 40,
                 vantix_default_stride(image->biWidth, 24));
}
cv::Rect crop(VantixStitch* s) {
  uint32_t x, y, w, h;
  vantix_stitch_cropparams(s, &x, &y, &w, &h);
  return cv::Rect(x, y, w, h);
}
const cv::Mat& scene() {
  static const cv::Mat image = vtest::texturedScene(cv::Size(1282, 1110), 4);
  return image;
}

class StitchSession : public ::testing::Test {
 public:
  void SetUp() override { vantix_init(&hostAlloc); }
};

TEST_F(StitchSession, CreationAndRefusals) {
  Host host;
  vantix_init(nullptr);  // no allocator: no session
  EXPECT_EQ(vantix_stitch_new(0, 100, 50, 0, &Host::onStitch, nullptr, &host), nullptr);
  EXPECT_EQ(vantix_stitch_newV2(0, 0, 100, 50, 0, &Host::onStitch, nullptr, &host), nullptr);
  EXPECT_EQ(host.makeStitch(100, 50), nullptr);
  vantix_init(&hostAlloc);
  EXPECT_EQ(vantix_stitch_pushback(nullptr, nullptr, 1, 1, 24, 3), VANTIX_E_NOTIMPL);
  uint32_t x = 7;
  vantix_stitch_cropparams(nullptr, &x, nullptr, nullptr, nullptr);
  EXPECT_EQ(x, 7u);
  vantix_stitch_delete(nullptr);
  try {  // a canvas four frames wide does not fit the coordinates
    host.makeStitch(0x40000000u, 1);
    ADD_FAILURE() << "no exception";
  } catch (const cv::Exception& e) {
    EXPECT_EQ(e.code, cv::Error::StsNoMem);
  }
  VantixStitch* s = host.makeStitch(64, 48);
  // Before any frame: the starting bounds (height -48 as unsigned), no
  // cropped image, and no image at all without an allocator.
  EXPECT_EQ(crop(s), cv::Rect(128, 144, 64, -48));
  EXPECT_EQ(vantix_stitch_stop(s, 1, 1), nullptr);
  vantix_init(&failingAlloc);
  EXPECT_EQ(vantix_stitch_stop(s, 1, 0), nullptr);
  vantix_init(&hostAlloc);
  const cv::Mat frame = vtest::randomImage(48, 64, CV_8UC3, 3);
  host.push(frame);  // not running: dropped
  EXPECT_EQ(proc(s)->queuedFrames(), 0u);
  vantix_stitch_start(s);
  EXPECT_EQ(vantix_stitch_pushback(s, nullptr, 0, 0, 24, 0), VANTIX_S_OK);
  EXPECT_EQ(vantix_stitch_pushback(s, frame.data, 64, 0, 24, 0), VANTIX_S_OK);
  EXPECT_THROW(vantix_stitch_pushback(s, frame.data, 64, 48, 24, 100), cv::Exception);
  EXPECT_EQ(proc(s)->queuedFrames(), 0u);
  // Regions outside the 256 x 192 canvas (the far edge computed without
  // wrapping), empty regions and empty buffers leave as the exception.
  std::vector<uint8_t> view(8 * 8 * 3);
  const uint32_t bad[][6] = {{8, 8, 250, 0, 20, 20},         {8, 8, 0, 0, 20, 0},
                             {0, 0, 0, 0, 0, 0},             {8, 8, 0x7FFFFFFF, 0, 1, 8},
                             {8, 8, 0, 0x7FFFFFF0, 8, 8},    {8, 8, 0xFFFFFFF0u, 0, 32, 8}};
  for (const auto& b : bad) {
    EXPECT_THROW(vantix_stitch_readdata(s, view.data(), b[0], b[1], b[2], b[3], b[4], b[5]),
                 cv::Exception)
        << b[2] << "," << b[3];
  }
  vantix_stitch_delete(s);
  VantixStitch* deep = host.makeStitch(16, 8, 0, VANTIX_FORMAT_BGR16);
  vantix_stitch_start(deep);
  const cv::Mat deepFrame(8, 16, CV_16UC3, cv::Scalar::all(1000));
  EXPECT_THROW(vantix_stitch_pushback(deep, deepFrame.data, 16, 8, 48, 97), cv::Exception);
  EXPECT_EQ(proc(deep)->queuedFrames(), 0u);
  vantix_stitch_delete(deep);
}

TEST_F(StitchSession, FirstFrameWorkedExample) {
  Host host;
  VantixStitch* s = host.makeStitch(100, 50);
  const cv::Mat frame = scene()(cv::Rect(400, 400, 100, 50)).clone();
  vantix_stitch_start(s);
  host.pushAndWait(frame);
  const vtest::StitchCall f = host.calls.at(0);
  EXPECT_EQ(std::vector<int64_t>({f.x, f.y, f.mode, f.canvasWidth, f.canvasHeight, f.stride,
                                  f.frameWidth, f.frameHeight, f.type, f.reset}),
            std::vector<int64_t>({200, 100, 1, 400, 200, 1200, 100, 50, CV_8UC3, 1}));
  EXPECT_EQ(crop(s), cv::Rect(200, 100, 100, 50));
  EXPECT_EQ(vantix_stitch_stop(s, 0, 0), nullptr);
  VantixImageHeader* whole = vantix_stitch_stop(s, 1, 0);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(std::vector<int64_t>({whole->biSize, whole->biWidth, whole->biHeight, whole->biPlanes,
                                  whole->biBitCount, whole->biSizeImage}),
            std::vector<int64_t>({40, 400, 200, 1, 24, 1200 * 200}));
  // Drawn as it is at (200, 100), on the checkerboard.
  EXPECT_EQ(cv::norm(pixels(whole)(cv::Rect(200, 100, 100, 50)), frame, cv::NORM_INF), 0.0);
  EXPECT_EQ(pixels(whole).at<cv::Vec3b>(199, 0), cv::Vec3b(204, 204, 204));
  VantixImageHeader* cropped = vantix_stitch_stop(s, 1, 1);
  ASSERT_NE(cropped, nullptr);
  EXPECT_EQ(cropped->biSizeImage, 300u * 50u);
  EXPECT_EQ(cv::norm(pixels(cropped), frame, cv::NORM_INF), 0.0);
  std::free(whole);
  std::free(cropped);
  vantix_stitch_delete(s);

  // A format outside 0..3 reads frames as format 0 but keeps a canvas of 4
  // bytes a pixel: readdata writes B G R and an opaque fourth byte, and
  // nothing past 4 bytes a pixel.  (A region away from the blended band.)
  Host odd;
  s = odd.makeStitch(64, 48, 0, 7);
  const cv::Mat small = vtest::randomImage(48, 64, CV_8UC3, 3);
  vantix_stitch_start(s);
  odd.pushAndWait(small);
  std::free(vantix_stitch_stop(s, 1, 0));  // returns once the frame was drawn
  std::vector<uint8_t> read(10 * 10 * 4 + 64, 0xA5);
  ASSERT_EQ(vantix_stitch_readdata(s, read.data(), 10, 10, 128 + 20, 96 + 15, 10, 10), 1);
  cv::Mat expected;
  cv::cvtColor(small(cv::Rect(20, 15, 10, 10)), expected, cv::COLOR_BGR2BGRA);
  EXPECT_EQ(cv::norm(cv::Mat(10, 10, CV_8UC4, read.data()), expected, cv::NORM_INF), 0.0);
  EXPECT_EQ(std::count(read.end() - 64, read.end(), 0xA5), 64);
  vantix_stitch_delete(s);
}

// The first frame's score is the sharpness of the centred 300 x 300 region
// of the full frame (not of its working copy), at every scale level: the
// larger absolute Sobel derivative of the grey image, squared as g * g / 255,
// squared again, averaged, rooted, times the session's factor / 255.
TEST_F(StitchSession, FirstFrameScoreIsTheSharpnessOfTheFullCentredRegion) {
  constexpr int kW = 640, kH = 480, kSide = 300;
  const cv::Mat frame = vtest::texturedScene(cv::Size(kW, kH), 9);
  cv::Mat grey, dx, dy;
  cv::cvtColor(frame(cv::Rect((kW - kSide) / 2, (kH - kSide) / 2, kSide, kSide)), grey,
               cv::COLOR_RGB2GRAY);
  cv::Sobel(grey, dx, CV_16S, 1, 0);
  cv::Sobel(grey, dy, CV_16S, 0, 1);
  cv::convertScaleAbs(dx, dx);
  cv::convertScaleAbs(dy, dy);
  const cv::Mat g = cv::max(dx, dy);
  double sum = 0.0;
  for (auto it = g.begin<uint8_t>(); it != g.end<uint8_t>(); ++it) {
    const double squared = std::min(255.0, std::round(*it * *it / 255.0));
    sum += squared * squared;
  }
  const double rms = std::sqrt(sum / g.total());
  const int percents[] = {10, 15, 20, 30, 40};
  for (uint32_t level = 0; level < 5; ++level) {
    Host host;
    vantix_stitch_start(host.makeStitch(kW, kH, 0, 0, level));
    host.pushAndWait(frame);
    vantix_stitch_delete(host.stitch);
    const double factor = percents[level] * 0.02 + kW * 0.25 / kH + kW * kH / 100000000.0;
    EXPECT_NEAR(host.calls.at(0).score, rms * factor / 255.0, 1e-5 * rms) << "level " << level;
  }
}

// With the score replaced by grey level / 100, frames say which they are.
TEST_F(StitchSession, TheQueueHoldsTwentyOneAndTheSharpestOfSixIsTaken) {
  const auto grey = [](int level) { return cv::Mat(48, 64, CV_8UC3, cv::Scalar::all(level)); };
  // A session whose worker is held in the callback of a first frame.
  const auto held = [&](Host& host) {
    proc(host.makeStitch(64, 48, 1))->setScoreFunction([](const cv::Mat& small) {
      return cv::mean(small)[0] / 100.0;
    });
    host.start();
    host.gate(true);
    host.push(grey(90));
    host.waitUntil([&] { return host.blocked; });
    return proc(host.stitch);
  };
  Host host;
  vantix::CLvProcessor* s = held(host);
  for (int i = 0; i < 25; ++i) host.push(grey(10 + i));
  EXPECT_EQ(s->queuedFrames(), 21u);
  host.gate(false);
  host.destroy();

  // Scores 0.5, 0.7, 0.7: the first 0.7 is taken and the frames before it
  // removed; the equal third stays queued.
  Host second;
  s = held(second);
  for (int level : {50, 70, 70}) second.push(grey(level));
  second.gate(true, 1);
  second.waitUntil([&] { return second.calls.size() == 2 && second.blocked; });
  EXPECT_EQ(s->queuedFrames(), 1u);
  EXPECT_NEAR(second.calls[1].score, 0.7, 0.001);
  second.gate(false);
  second.waitFrames(3);
  second.destroy();
}

// A frame of another size cannot be registered: event 1 ends the worker, and
// a stop and start resume the session.
TEST_F(StitchSession, AFailingFrameStopsTheWorkerAndTheSessionResumes) {
  Host host;
  VantixStitch* s = host.makeStitch(64, 48);
  vantix_stitch_stop(s, 0, 0);  // stopped before a start
  vantix_stitch_start(s);
  vantix_stitch_start(s);
  host.pushAndWait(vtest::randomImage(48, 64, CV_8UC3, 1));
  host.push(vtest::randomImage(40, 64, CV_8UC3, 2));
  host.waitUntil([&] { return !host.codes.empty(); });
  EXPECT_EQ(host.codes, std::vector<uint32_t>{VANTIX_STITCH_EVENT_FAILED});
  vantix_stitch_stop(s, 0, 0);
  vantix_stitch_stop(s, 0, 0);
  vantix_stitch_start(s);
  host.pushAndWait(vtest::randomImage(48, 64, CV_8UC3, 1));
  vantix_stitch_delete(s);  // running
}

// A pan over the scene, 320 x 240 frames moving left by 40 px and down by 3
// a frame: far enough for the canvas to grow to the left.
void pan(Host& host, int frames) {
  vantix_stitch_start(host.stitch);
  for (int i = 0; i < frames; ++i) {
    host.pushAndWait(scene()(cv::Rect(900 - 40 * i, 400 + 3 * i, 320, 240)).clone());
  }
  vantix_stitch_stop(host.stitch, 0, 0);
}

TEST_F(StitchSession, PanningLeftGrowsTheCanvasAndReportsTruePositions) {
  Host host;
  VantixStitch* s = host.makeStitch(320, 240, 2);
  pan(host, 20);
  // One growth (3 then 5): 760 px left of a first frame 640 px from the edge.
  EXPECT_EQ(host.codes, (std::vector<uint32_t>{3u, 5u}));
  int placed = 0;
  for (size_t i = 0; i < host.calls.size(); ++i) {
    const vtest::StitchCall& f = host.calls[i];
    const int shiftX = f.canvasWidth == 2560 ? 1280 : 0;
    if (shiftX != 0 && host.calls[i - 1].canvasWidth != 2560) {
      EXPECT_EQ(f.reset, 1u) << i;
    }
    EXPECT_TRUE(f.mode == 1 || f.mode == 2) << i;
    placed += f.mode == 1;
    EXPECT_NEAR(f.x, 640 + shiftX - 40 * int(i), 1) << i;
    EXPECT_NEAR(f.y, 480 + 3 * int(i), 1) << i;
  }
  EXPECT_EQ(host.calls.back().canvasWidth, 2560u);
  EXPECT_GT(placed, 15);
  const cv::Rect c = crop(s);
  EXPECT_NEAR(c.x, 1280 + 640 - 760, 1);
  EXPECT_NEAR(c.width, 760 + 320, 1);
  EXPECT_NEAR(c.height, 57 + 240, 1);

  // readdata: cubic when shrinking, area otherwise, and regions copied as they are.
  VantixImageHeader* pano = vantix_stitch_stop(s, 1, 0);
  ASSERT_NE(pano, nullptr);
  const cv::Mat canvas = pixels(pano);
  for (const cv::Size size : {cv::Size(640, 240), cv::Size(2560, 1000)}) {
    const size_t stride = vantix_default_stride(size.width, 24);
    std::vector<uint8_t> buffer(stride * size.height);
    ASSERT_EQ(vantix_stitch_readdata(s, buffer.data(), size.width, size.height, 0, 0, 0, 0), 1);
    cv::Mat expected;
    const bool shrink = size.area() < canvas.cols * canvas.rows;
    cv::resize(canvas, expected, size, 0, 0, shrink ? cv::INTER_CUBIC : cv::INTER_AREA);
    EXPECT_LE(cv::norm(cv::Mat(size, CV_8UC3, buffer.data(), stride), expected, cv::NORM_INF), 1.0)
        << size;
  }
  std::vector<uint8_t> roi(100 * 3 * 50);
  ASSERT_EQ(vantix_stitch_readdata(s, roi.data(), 100, 50, 1920, 480, 100, 50), 1);
  EXPECT_EQ(cv::norm(cv::Mat(50, 100, CV_8UC3, roi.data()), canvas(cv::Rect(1920, 480, 100, 50)),
                     cv::NORM_INF),
            0.0);
  proc(s)->canvas().setBusyForTest(true);  // being reallocated: retry later
  EXPECT_EQ(vantix_stitch_readdata(s, roi.data(), 100, 50, 0, 0, 0, 0), 0);
  proc(s)->canvas().setBusyForTest(false);
  std::free(pano);
  vantix_stitch_delete(s);
}

// With memory short every growth fails (3 then 2), the frames that needed it
// are not placed, and the crop rectangle stays on the canvas, so a cropped
// stop still returns the panorama.
TEST_F(StitchSession, AFailedGrowthKeepsThePanoramaOnTheCanvas) {
  Host host;
  VantixStitch* s = host.makeStitch(320, 240, 2);
  proc(s)->canvas().failGrowthForTest(true);
  pan(host, 20);
  ASSERT_GE(host.codes.size(), 2u);
  for (size_t i = 0; i < host.codes.size(); ++i) EXPECT_EQ(host.codes[i], i % 2 ? 2u : 3u) << i;
  int notPlaced = 0;
  for (const vtest::StitchCall& f : host.calls) {
    EXPECT_EQ(f.canvasWidth, 1280u);
    if (f.x < 0) {
      EXPECT_EQ(f.mode, 4u) << f.x;
    }
    notPlaced += f.x < 0;
  }
  EXPECT_EQ(static_cast<size_t>(notPlaced), host.codes.size() / 2);
  const cv::Rect c = crop(s);
  EXPECT_TRUE((c & cv::Rect(0, 0, 1280, 960)) == c) << c;
  VantixImageHeader* pano = vantix_stitch_stop(s, 1, 1);
  ASSERT_NE(pano, nullptr);
  EXPECT_EQ(cv::Size(pano->biWidth, pano->biHeight), c.size());
  std::free(pano);
  vantix_stitch_delete(s);
}

// A frame blurrier than the reference is reported where it lies (mode 4),
// not drawn, and left out of the crop rectangle.
TEST_F(StitchSession, ABlurredFrameIsReportedWhereItLiesButNotDrawn) {
  Host host;
  VantixStitch* s = host.makeStitch(320, 240, 2);
  vantix_stitch_start(s);
  host.pushAndWait(scene()(cv::Rect(500, 500, 320, 240)).clone());
  cv::Mat blurred;
  cv::GaussianBlur(scene()(cv::Rect(560, 530, 320, 240)), blurred, cv::Size(0, 0), 2.5);
  host.pushAndWait(blurred);
  VantixImageHeader* pano = vantix_stitch_stop(s, 1, 0);
  ASSERT_NE(pano, nullptr);
  const vtest::StitchCall call = host.calls.at(1);
  EXPECT_EQ(call.mode, 4u);
  EXPECT_NEAR(call.x, 640 + 60, 1);
  EXPECT_NEAR(call.y, 480 + 30, 1);
  EXPECT_EQ(cv::countNonZero(pixels(pano)(cv::Rect(960, 720, 60, 30)).reshape(1)), 0);
  EXPECT_EQ(crop(s), cv::Rect(640, 480, 320, 240));
  std::free(pano);
  vantix_stitch_delete(s);
}

}  // namespace
