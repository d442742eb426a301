// Extended depth of field: the session (what comes back, refusals, the
// queue, failures; the start/stop/delete orders are in
// test_stress_sessions), then the fusers and the alignment against focus
// stacks with known truth.
#include <malloc.h>

#include <new>

#include "edf/edf_fuser.h"
#include "edf/edf_session.h"
#include "edf/pyr_fuser.h"
#include "support/sessions.h"

namespace {

const bool kSerialOpenCv = (vtest::serialOpenCvUnderTsan(), true);

using vtest::Host;

cv::Mat frame(uint64_t seed, int width = 96, int height = 72) {
  return vtest::randomImage(height, width, CV_8UC3, seed);
}

// A stack fused on the caller's thread, aligned as the session aligns it or
// not at all.
cv::Mat fuseAll(uint32_t kind, const std::vector<cv::Mat>& slices, bool align = true) {
  vantix::CFuserSlot slot(vantix::makeEdfFuser(kind));
  const auto fuser = vantix::makeEdfFuser(kind);
  align ? slot.firstFrame(slices[0]) : fuser->firstFrame(slices[0]);
  cv::Mat result = slices[0].clone();
  for (size_t i = 1; i < slices.size(); ++i) {
    cv::Mat f = slices[i].clone();
    align ? slot.fuse(f, result) : fuser->addFrame(f, result);
  }
  return result;
}

// The first frame comes back as pushed, in the session's format: 16-bit
// samples (multiples of 257, which the 8-bit working image keeps) and, for
// B G R A, an opaque alpha.  readdata copies nothing before the first frame,
// then rows of the host's length: here 8 bytes longer than the image's, so
// each row reads on into the next, up to the image's last byte and no
// further.
TEST(EdfSession, FirstFrameComesBackInTheSessionFormat) {
  // Pushed with rows 297 bytes apart, 9 more than a row.
  const cv::Mat pitched = frame(1, 99)(cv::Rect(0, 0, 96, 72)), bgr = pitched.clone();
  cv::Mat bgr16, opaque;
  bgr.convertTo(bgr16, CV_16U, 257);
  cv::cvtColor(bgr16, opaque, cv::COLOR_BGR2BGRA);  // alpha 65535
  const struct {
    uint32_t format;
    cv::Mat pushed, expected;
  } cases[] = {{0, pitched, bgr}, {3, opaque - cv::Scalar(0, 0, 0, 64301), opaque}};  // alpha 1234
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format);
    Host host;
    vantix::EdfSession& s = host.openEdf(0, c.format);
    const size_t row = c.expected.cols * c.expected.elemSize(), end = row * c.expected.rows;
    const auto rowBytes = static_cast<uint32_t>(row + 8);
    std::vector<uint8_t> copy(size_t(rowBytes) * c.expected.rows, 0xCD), expected(copy);
    s.readdata(copy.data(), rowBytes);
    EXPECT_TRUE(copy == expected);
    s.start();
    host.pushAndWait(c.pushed);
    EXPECT_EQ(cv::norm(host.last, c.expected, cv::NORM_INF), 0.0);
    for (size_t r = 0; r < size_t(c.expected.rows); ++r) {
      std::copy(c.expected.data + row * r, c.expected.data + std::min(end, row * r + rowBytes),
                expected.begin() + rowBytes * r);
    }
    s.readdata(copy.data(), rowBytes);
    EXPECT_TRUE(copy == expected);
  }
}

// Refused and dropped pushes queue nothing; while the worker is held in
// onFrame, five pushes leave the newest three (deep copies of a reused
// buffer), which are then fused.
TEST(EdfSession, RefusalsAndTheQueueOfThree) {
  EXPECT_EQ(vantix_edf_pushback(nullptr, nullptr, 96, 72, 8, 0), VANTIX_E_NOTIMPL);
  vantix_edf_delete(nullptr);
  Host host;
  vantix::EdfSession& s = host.openEdf(0);
  vantix::CEdfSession* const session = reinterpret_cast<vantix::CEdfSession*>(s.handle());
  const cv::Mat image = frame(2);
  host.push(image);  // never started
  s.start();
  s.stop();
  host.push(image);  // stopped
  s.start();
  s.pushback(nullptr, 0, 0);
  s.pushback(image.data, 96, 0);
  EXPECT_THROW(s.pushback(image.data, 96, 72, 3), cv::Exception);  // a pitch shorter than a row
  EXPECT_TRUE(session->queuedFrames().empty());

  host.gate(true);
  host.push(frame(10));
  host.waitFrames(1);
  cv::Mat buffer = frame(11);  // overwritten after each push
  for (uint64_t seed = 12; seed <= 16; ++seed) {
    host.push(buffer);
    frame(seed).copyTo(buffer);
  }
  const std::vector<cv::Mat> waiting = session->queuedFrames();
  ASSERT_EQ(waiting.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(cv::norm(waiting[i], frame(13 + i), cv::NORM_INF), 0.0);
  host.gate(false);
  host.waitFrames(4);
  s.stop();
  EXPECT_EQ(host.frames, 4);
}

// A fuser whose first frame fails.
struct ThrowingFuser : vantix::CEdfFuser {
  explicit ThrowingFuser(std::function<void()> f) : fail(std::move(f)) {}
  void firstFrame(const cv::Mat&) override { fail(); }
  void addFrame(cv::Mat&, cv::Mat&) override {}
  std::function<void()> fail;
};

// A failure is reported once per run (2 for the image library's memory
// error, else 1, std::bad_alloc and an unknown kind's missing fuser
// included) and halts the session until stop and start, which continue the
// same stack.
TEST(EdfSession, FailuresHaltTheSessionUntilRestarted) {
  for (uint32_t kind : {0u, 1u, 2u}) {  // a frame of another size
    SCOPED_TRACE(kind);
    Host host;
    vantix::EdfSession& s = host.openEdf(kind);
    s.start();
    host.pushAndWait(frame(30));
    host.push(frame(31, 48, 36));
    host.waitUntil([&] { return !host.codes.empty(); });
    s.stop();
    s.start();
    host.pushAndWait(frame(33));
    EXPECT_EQ(host.codes, std::vector<uint32_t>{VANTIX_EDF_ERROR_FAILED});
    EXPECT_EQ(cv::norm(host.last, fuseAll(kind, {frame(30), frame(33)}), cv::NORM_INF), 0.0);
  }
  const struct {
    std::function<void()> fail;  // empty: no fuser
    uint32_t code;
  } rows[] = {{[] { throw cv::Exception(cv::Error::StsNoMem, "", "", "", 0); },
               VANTIX_EDF_ERROR_OUT_OF_MEMORY},
              {[] { throw std::bad_alloc(); }, VANTIX_EDF_ERROR_FAILED},
              {nullptr, VANTIX_EDF_ERROR_FAILED}};
  for (const auto& row : rows) {
    Host host;
    vantix::CEdfSession session(0, row.fail ? std::make_unique<ThrowingFuser>(row.fail) : nullptr,
                                &Host::edfThunk, &Host::codeThunk, &host);
    session.start();
    for (int i = 0; i < 2; ++i) session.push(frame(50).data, 96, 72, 8, 0);  // one report
    host.waitUntil([&] { return !host.codes.empty(); });
    session.stop();
    EXPECT_EQ(host.codes, std::vector<uint32_t>{row.code}) << row.code;
  }
}

// Fusers and alignment, on the caller's thread: not in the ThreadSanitizer
// build (it would report the photo decoder's own locks).
#if !defined(VTEST_TSAN)

// Against the sharp photograph the stacks were made from: two slices each
// sharp in one half keep the detail of both; eight slices over a tilted
// plane beat the best slice by 3 dB; a frame fused with itself stays as it
// is, also when too small for the pyramid; a stack that also moves and changes
// magnification by 1-2 % is not hurt by the alignment.
TEST(EdfUnit, FusedStacksApproachTheSharpPhotograph) {
  const cv::Mat sharp = vtest::photo("baboon.jpg", {320, 240});
  const std::vector<cv::Mat> halves =
      vtest::focusStack(sharp, vtest::steppedDepth(sharp.size(), 2), 2, 4.0);
  const cv::Mat tilted = vtest::steppedDepth(sharp.size(), sharp.cols);
  const std::vector<cv::Mat> eight = vtest::focusStack(sharp, tilted, 8, 6.0);
  std::vector<cv::Mat> moving = vtest::focusStack(sharp, tilted, 6, 5.0);
  const double magnification[] = {1.0, 1.012, 1.02, 1.01, 1.018, 1.015};
  const int shift[][2] = {{0, 0}, {1, 0}, {0, 1}, {-1, 1}, {1, -1}, {-1, 0}};
  for (size_t i = 1; i < moving.size(); ++i) {
    moving[i] = vtest::moved(moving[i], magnification[i], shift[i][0], shift[i][1]);
  }
  const cv::Rect interior(16, 16, 288, 208);
  double best = 0;
  for (const cv::Mat& slice : eight) best = std::max(best, cv::PSNR(slice, sharp));
  for (uint32_t kind : {0u, 1u, 2u}) {
    SCOPED_TRACE(kind);
    const cv::Mat fused = fuseAll(kind, halves);
    for (const cv::Rect half : {cv::Rect(8, 8, 140, 224), cv::Rect(172, 8, 140, 224)}) {
      EXPECT_GE(vtest::meanDetail(fused, half), 0.9 * vtest::meanDetail(sharp, half)) << half.x;
    }
    EXPECT_GE(cv::PSNR(fuseAll(kind, eight), sharp), best + 3.0);
    for (const cv::Size tiny : {cv::Size(1, 1), cv::Size(5, 3)}) {  // below the pyramid's levels
      const cv::Mat small = vtest::photo("baboon.jpg", tiny);
      EXPECT_LE(cv::norm(fuseAll(kind, {small, small}), small, cv::NORM_INF), 1.0) << tiny;
    }
    EXPECT_GE(cv::PSNR(fuseAll(kind, moving, true)(interior), sharp(interior)),
              cv::PSNR(fuseAll(kind, moving, false)(interior), sharp(interior)) - 0.05);
  }
}

// A frame whose pixel p shows the reference at (p - d - c) * s + c is found
// as (d, s), at sizes with one and with several pyramid levels.
TEST(EdfUnit, AlignmentFindsKnownShiftAndScale) {
  const struct {
    cv::Size size;
    double magnification;
    int dx, dy;
  } cases[] = {{{320, 240}, 1.0, 3, -2},  {{320, 240}, 1.0, -5, 4}, {{640, 480}, 1.03, 2, 1},
               {{640, 480}, 0.98, -1, 3}, {{60, 50}, 1.0, 2, 1},    {{320, 240}, 1.0, 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << c.size << " x" << c.magnification << " " << c.dx << "," << c.dy);
    cv::Mat reference;
    cv::cvtColor(vtest::photo("fruits.jpg", c.size), reference, cv::COLOR_BGR2GRAY);
    const vantix::ShiftScale found =
        vantix::estimateShiftScale(vtest::moved(reference, c.magnification, c.dx, c.dy), reference);
    EXPECT_NEAR(found.dx, c.dx, c.magnification == 1.0 ? 0 : 1);
    EXPECT_NEAR(found.dy, c.dy, c.magnification == 1.0 ? 0 : 1);
    EXPECT_NEAR(found.scale, 1.0 / c.magnification, std::max(0.011, 1.0 / c.size.width + 1e-9));
  }
}

// Fusing frame after frame leaves nothing behind.  OpenCV keeps per-thread
// data of every thread that ran one of its parallel loops, so a fuser that
// started threads of its own for every frame grew by about 2 kB a frame.
#if !defined(VTEST_ASAN)  // the sanitizer's allocator keeps no glibc heap statistics
TEST(EdfUnit, FusingManyFramesLeavesNothingBehind) {
  const cv::Mat a = frame(1, 128, 96), b = frame(2, 128, 96);
  for (uint32_t method : {0u, 1u}) {
    vantix::CPyrFuser fuser(method);
    fuser.firstFrame(a);
    cv::Mat result;
    double before = 0;
    for (int i = 0; i < 1550; ++i) {
      if (i == 50) before = static_cast<double>(mallinfo2().uordblks);  // buffers and pool made
      cv::Mat f = (i % 2 ? a : b).clone();
      fuser.addFrame(f, result);
    }
    EXPECT_LT((static_cast<double>(mallinfo2().uordblks) - before) / 1500, 50.0) << method;
  }
}
#endif
#endif

}  // namespace
