// The stitch session: refusals and readdata, the worked example of a first
// frame (then a failing one) and its score, frame selection, growth of the
// canvas (and its failure) with readers on other threads.

#include "livestitch/lvprocessor.h"
#include "support/sessions.h"

namespace {

void noFrame(void*, const uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
             int32_t, int32_t, uint32_t, uint32_t, uint32_t, float) {}

using vtest::Host;
using vtest::pixels;

vantix::CLvProcessor* proc(vantix::StitchSession& s) {
  return reinterpret_cast<vantix::CLvProcessor*>(s.handle());
}
cv::Rect crop(const vantix::StitchSession& s) {
  const vantix::Rect r = s.cropparams();
  return cv::Rect(r.x, r.y, r.width, r.height);
}
// Grey levels 20..235: a scene pixel is never the black background.
const cv::Mat& scene() {
  static const cv::Mat image =
      vtest::texturedScene(cv::Size(1282, 1110), 4) * (215.0 / 255.0) + cv::Scalar::all(20);
  return image;
}

const bool kInit = (vantix::init(), true);  // the Refusals test puts it back when it changes it

// Refusals, then readdata of a session whose format is outside 0..3: frames
// are read as format 0 but the canvas keeps 4 bytes a pixel, so a region
// comes back as B G R and an opaque fourth byte, and nothing is written past
// it.  (A region of the first frame: no blending.)
TEST(StitchSession, RefusalsAndReaddata) {
  vantix_init(nullptr);  // no allocator: no session
  EXPECT_EQ(vantix_stitch_new(0, 100, 50, 0, &noFrame, nullptr, nullptr), nullptr);
  EXPECT_EQ(vantix_stitch_newV2(0, 0, 100, 50, 0, &noFrame, nullptr, nullptr), nullptr);
  EXPECT_EQ(vantix_stitch_newV3(0, 0, 100, 50, 0, 2, 2, &noFrame, nullptr, nullptr), nullptr);
  vantix::init();
  EXPECT_EQ(vantix_stitch_pushback(nullptr, nullptr, 1, 1, 24, 3), VANTIX_E_NOTIMPL);
  vantix_stitch_cropparams(nullptr, nullptr, nullptr, nullptr, nullptr);
  vantix_stitch_delete(nullptr);
  Host host;  // a canvas four frames wide would not fit the coordinates
  EXPECT_THROW(host.makeStitch(0x40000000u, 1), cv::Exception);
  // Before any frame: the starting bounds (height -48 as unsigned), so no
  // cropped image, and no image at all without memory.
  vantix::StitchSession& s = host.makeStitch(64, 48, 0, 7);
  EXPECT_EQ(crop(s), cv::Rect(128, 144, 64, -48));
  EXPECT_EQ(s.stop(true, true), nullptr);
  vantix_init([](uint64_t) -> void* { return nullptr; });
  EXPECT_EQ(s.stop(true, false), nullptr);
  vantix::init();
  // Dropped while not running, or empty.
  const cv::Mat frame = scene()(cv::Rect(0, 0, 64, 48)).clone();
  host.push(frame);
  s.start();
  s.pushback(nullptr, 0, 0);
  s.pushback(frame.data, 64, 0);
  EXPECT_EQ(proc(s)->queuedFrames(), 0u);
  // Regions outside the 256 x 192 canvas (the far edge computed without
  // wrapping), empty regions and empty buffers leave as the exception.
  std::vector<uint8_t> view(8 * 8 * 4);
  const vantix::Rect bad[] = {{250, 0, 20, 20},      {0, 0, 20, 0},
                              {0, 0, 0, 0},          {0x7FFFFFFF, 0, 1, 8},
                              {0, 0x7FFFFFF0, 8, 8}, {0xFFFFFFF0u, 0, 32, 8}};
  for (const vantix::Rect& r : bad) {
    const uint32_t side = r.width == 0 && r.height == 0 ? 0 : 8;
    EXPECT_THROW(s.readdata(view.data(), side, side, r), cv::Exception) << r.x << "," << r.y;
  }
  host.pushAndWait(frame);
  s.stop(true, false);  // taking the panorama waits until the frame was drawn
  std::vector<uint8_t> read(10 * 10 * 4 + 64, 0xA5);
  ASSERT_TRUE(s.readdata(read.data(), 10, 10, {128 + 20, 96 + 15, 10, 10}));
  cv::Mat expected;
  cv::cvtColor(frame(cv::Rect(20, 15, 10, 10)), expected, cv::COLOR_BGR2BGRA);
  EXPECT_EQ(cv::norm(cv::Mat(10, 10, CV_8UC4, read.data()), expected, cv::NORM_INF), 0.0);
  EXPECT_EQ(std::count(read.end() - 64, read.end(), 0xA5), 64);
}

TEST(StitchSession, FirstFrameWorkedExampleThenAFailingFrame) {
  Host host;
  vantix::StitchSession& s = host.makeStitch(100, 50);
  const cv::Mat frame = scene()(cv::Rect(400, 400, 100, 50)).clone();
  s.start();
  host.pushAndWait(frame);
  const vantix::StitchFrame f = host.calls.at(0);
  EXPECT_EQ(std::vector<int64_t>({f.x, f.y, f.mode, f.canvasWidth, f.canvasHeight, f.canvasStride,
                                  f.frameWidth, f.frameHeight, f.frameType, f.reset}),
            std::vector<int64_t>({200, 100, 1, 400, 200, 1200, 100, 50, CV_8UC3, 1}));
  EXPECT_EQ(crop(s), cv::Rect(200, 100, 100, 50));
  const vantix::Image whole = s.stop(true, false);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(std::vector<int64_t>({whole->biSize, whole->biWidth, whole->biHeight, whole->biPlanes,
                                  whole->biBitCount, whole->biSizeImage}),
            std::vector<int64_t>({40, 400, 200, 1, 24, 1200 * 200}));
  // Drawn as it is at (200, 100), on the checkerboard.
  EXPECT_EQ(cv::norm(pixels(whole)(cv::Rect(200, 100, 100, 50)), frame, cv::NORM_INF), 0.0);
  EXPECT_EQ(pixels(whole).at<cv::Vec3b>(199, 0), cv::Vec3b(204, 204, 204));

  // A frame of another size cannot be registered: event 1 ends the worker,
  // and a stop and start resume the session (deleted running).
  s.start();
  host.push(frame(cv::Rect(0, 0, 100, 40)));
  host.waitUntil([&] { return !host.codes.empty(); });
  EXPECT_EQ(host.codes, std::vector<uint32_t>{VANTIX_STITCH_EVENT_FAILED});
  s.stop();
  s.start();
  host.pushAndWait(frame);
}

// The first frame's score is the sharpness of the centred 300 x 300 region
// of the full frame (not of its working copy), at every scale level: the
// larger absolute Sobel derivative of the grey image, squared as g * g / 255,
// squared again, averaged, rooted, times the session's factor / 255.
TEST(StitchSession, FirstFrameScoreIsTheSharpnessOfTheFullCentredRegion) {
  constexpr int kW = 640, kH = 480;
  const cv::Mat frame = vtest::texturedScene(cv::Size(kW, kH), 9);
  cv::Mat grey, dx, dy, squared;
  cv::cvtColor(frame(cv::Rect(170, 90, 300, 300)), grey, cv::COLOR_RGB2GRAY);  // centred
  cv::Sobel(grey, dx, CV_16S, 1, 0);
  cv::Sobel(grey, dy, CV_16S, 0, 1);
  cv::convertScaleAbs(dx, dx);
  cv::convertScaleAbs(dy, dy);
  const cv::Mat g = cv::max(dx, dy);
  cv::multiply(g, g, squared, 1.0 / 255.0);  // rounded, at most 255
  const double rms = std::sqrt(cv::norm(squared, cv::NORM_L2SQR) / g.total());
  const int percents[] = {10, 15, 20, 30, 40};
  for (uint32_t level = 0; level < 5; ++level) {
    Host host;
    host.makeStitch(kW, kH, 0, 0, level).start();
    host.pushAndWait(frame);
    const double factor = percents[level] * 0.02 + kW * 0.25 / kH + kW * kH / 100000000.0;
    EXPECT_NEAR(host.calls.at(0).score, rms * factor / 255.0, 1e-5 * rms) << "level " << level;
  }
}

// With the score replaced by grey level / 100, frames say which they are.
// While the worker is held in the callback of a first frame, the queue keeps
// the newest 21; of scores 0.5, 0.7, 0.7 the first 0.7 is taken and the
// frames before it removed, the equal third stays queued.
TEST(StitchSession, TheQueueHoldsTwentyOneAndTheSharpestOfSixIsTaken) {
  const auto grey = [](int level) { return cv::Mat(48, 64, CV_8UC3, cv::Scalar::all(level)); };
  for (const std::vector<int>& levels : {std::vector<int>(25, 10), std::vector<int>{50, 70, 70}}) {
    Host host;
    vantix::CLvProcessor* s = proc(host.makeStitch(64, 48, 1));
    s->setScoreFunction([](const cv::Mat& small) { return cv::mean(small)[0] / 100.0; });
    host.start();
    host.gate(true);
    host.push(grey(90));
    host.waitUntil([&] { return host.blocked; });
    for (int level : levels) host.push(grey(level));
    if (levels.size() == 25) {
      EXPECT_EQ(s->queuedFrames(), 21u);
    } else {
      host.gate(true);  // one more frame
      host.waitUntil([&] { return host.calls.size() == 2 && host.blocked; });
      EXPECT_EQ(s->queuedFrames(), 1u);
      EXPECT_NEAR(host.calls[1].score, 0.7, 0.001);
    }
    host.gate(false);
  }
}

// A pan over the scene, 320 x 240 frames moving left by 40 px and down by 3
// a frame: far enough for the canvas (1280 x 960) to grow to the left.
// Meanwhile two threads read the canvas (the crop rectangle, or all of it
// shrunk).  Returns how many reads went wrong: a read answers 1 or 0, stays
// inside the host's buffer and holds only the black background or scene
// pixels.  (A rectangle from cropparams that readdata cannot copy throws,
// which ends the program.)
int pan(Host& host) {
  host.start();
  host.pushAndWait(scene()(cv::Rect(900, 400, 320, 240)).clone());
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  const auto reader = [&](int id) {
    std::vector<uint8_t> buffer;
    for (int n = 0; !done.load(); ++n) {
      const vantix::Rect c = host.stitch->cropparams();
      const vantix::Rect roi = (n + id) % 3 == 0 ? vantix::Rect{} : c;  // or the whole canvas
      const uint32_t bw = roi.width ? c.width : 128, bh = roi.width ? c.height : 96;
      const uint32_t stride = vantix_default_stride(bw, 24);
      buffer.assign(size_t(stride) * bh + 64, 0xCD);
      const int32_t r = vantix_stitch_readdata(host.stitchHandle, buffer.data(), bw, bh, roi.x,
                                               roi.y, roi.width, roi.height);
      bad += (r != 0 && r != 1) || std::count(buffer.end() - 64, buffer.end(), 0xCD) != 64;
      if (r == 1 && roi.width) {
        const cv::Mat view(int(bh), int(bw), CV_8UC3, buffer.data(), stride);
        cv::Mat black, inScene;
        cv::inRange(view, cv::Scalar::all(0), cv::Scalar::all(0), black);
        cv::inRange(view, cv::Scalar::all(20), cv::Scalar::all(235), inScene);
        bad += static_cast<int>(view.total()) - cv::countNonZero(black | inScene);
      }
    }
  };
  std::thread first(reader, 0), second(reader, 1);
  for (int i = 1; i < 20; ++i) {
    host.pushAndWait(scene()(cv::Rect(900 - 40 * i, 400 + 3 * i, 320, 240)).clone());
  }
  host.stop();
  done = true;
  first.join();
  second.join();
  return bad.load();
}

TEST(StitchSession, PanningLeftGrowsTheCanvasAndReportsTruePositions) {
  Host host;
  vantix::StitchSession& s = host.makeStitch(320, 240, 2);
  EXPECT_EQ(pan(host), 0);
  // One growth (3 then 5): 760 px left of a first frame 640 px from the edge.
  EXPECT_EQ(host.codes, (std::vector<uint32_t>{3u, 5u}));
  int placed = 0;
  for (size_t i = 0; i < host.calls.size(); ++i) {
    const vantix::StitchFrame& f = host.calls[i];
    const int shiftX = f.canvasWidth == 2560 ? 1280 : 0;
    EXPECT_EQ(f.reset != 0, i == 0 || f.canvasWidth != host.calls[i - 1].canvasWidth) << i;
    EXPECT_TRUE(f.mode == 1 || f.mode == 2) << i;
    placed += f.mode == 1;
    EXPECT_NEAR(f.x, 640 + shiftX - 40 * int(i), 1) << i;
    EXPECT_NEAR(f.y, 480 + 3 * int(i), 1) << i;
  }
  EXPECT_GT(placed, 15);
  const cv::Rect c = crop(s);
  EXPECT_NEAR(c.x, 1280 + 640 - 760, 1);
  EXPECT_NEAR(c.width, 760 + 320, 1);
  EXPECT_NEAR(c.height, 57 + 240, 1);

  // readdata: cubic when shrinking, area otherwise (regions are copied as
  // they are, see the worked example); 0 while the canvas is being
  // reallocated.
  const vantix::Image pano = s.stop(true, false);
  ASSERT_NE(pano, nullptr);
  const cv::Mat canvas = pixels(pano);
  for (const cv::Size size : {cv::Size(640, 240), cv::Size(2560, 1000)}) {
    std::vector<uint8_t> buffer(size.area() * 3);  // rows need no padding
    ASSERT_TRUE(s.readdata(buffer.data(), size.width, size.height));
    cv::Mat expected;
    const bool shrink = size.area() < canvas.cols * canvas.rows;
    cv::resize(canvas, expected, size, 0, 0, shrink ? cv::INTER_CUBIC : cv::INTER_AREA);
    EXPECT_LE(cv::norm(cv::Mat(size, CV_8UC3, buffer.data()), expected, cv::NORM_INF), 1.0) << size;
  }
  std::vector<uint8_t> small(100 * 3 * 50);
  proc(s)->canvas().setBusyForTest(true);
  EXPECT_FALSE(s.readdata(small.data(), 100, 50));
  proc(s)->canvas().setBusyForTest(false);
}

// With memory short every growth fails (3 then 2), the frames that needed it
// are not placed (mode 4), and the crop rectangle stays on the canvas, so a
// cropped stop still returns the panorama.
TEST(StitchSession, AFailedGrowthKeepsThePanoramaOnTheCanvas) {
  Host host;
  vantix::StitchSession& s = host.makeStitch(320, 240, 2);
  proc(s)->canvas().failGrowthForTest(true);
  EXPECT_EQ(pan(host), 0);
  ASSERT_GE(host.codes.size(), 2u);
  for (size_t i = 0; i < host.codes.size(); ++i) EXPECT_EQ(host.codes[i], i % 2 ? 2u : 3u) << i;
  for (const vantix::StitchFrame& f : host.calls) {
    EXPECT_EQ(f.canvasWidth, 1280u);
    EXPECT_TRUE(f.x >= 0 || f.mode == 4) << f.x;
  }
  const cv::Rect c = crop(s);
  EXPECT_TRUE((c & cv::Rect(0, 0, 1280, 960)) == c) << c;
  const vantix::Image pano = s.stop(true, true);
  ASSERT_NE(pano, nullptr);
  EXPECT_EQ(cv::Size(pano->biWidth, pano->biHeight), c.size());
}

}  // namespace
