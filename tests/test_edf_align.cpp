// Alignment of EDF frames: brightness matching, shift and scale estimation,
// the warp, and the slot that aligns every frame from the third on.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "edf/edf_fuser.h"
#include "support/edf_stack.h"
#include "support/test_support.h"

namespace {

using vantix::ShiftScale;

cv::Mat greyPhoto(cv::Size size) {
  cv::Mat grey;
  cv::cvtColor(vtest::edfSamplePhoto("fruits.jpg", size), grey, cv::COLOR_BGR2GRAY);
  return grey;
}

double meanAbsDifference(const cv::Mat& a, const cv::Mat& b, const cv::Rect& region) {
  cv::Mat diff;
  cv::absdiff(a(region), b(region), diff);
  const cv::Scalar m = cv::mean(diff);
  return (m[0] + m[1] + m[2]) / a.channels();
}

// A frame whose pixel p shows the reference at (p - d - c) * s + c is found
// as (d, s), in both search directions and at sizes with one and with
// several pyramid levels; an unmoved frame gives no motion at all.
TEST(EdfAlign, FindsKnownShiftAndScale) {
  struct Case {
    cv::Size size;
    double magnification;
    int dx, dy;
  };
  const Case cases[] = {
      {{320, 240}, 1.0, 3, -2},  {{320, 240}, 1.0, -5, 4},   {{640, 480}, 1.03, 2, 1},
      {{640, 480}, 0.98, -1, 3}, {{60, 50}, 1.0, 2, 1},  // one pyramid level
      {{320, 240}, 1.0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.size << " x" << c.magnification << " (" << c.dx << ","
                                    << c.dy << ")");
    const cv::Mat reference = greyPhoto(c.size);
    const cv::Mat frame =
        c.dx == 0 ? reference : vtest::moved(reference, c.magnification, c.dx, c.dy);
    const ShiftScale found = vantix::estimateShiftScale(frame, reference);
    EXPECT_NEAR(found.dx, c.dx, 1);
    EXPECT_NEAR(found.dy, c.dy, 1);
    // Within one step of the scale search (0.01, or 1/width on small levels).
    EXPECT_NEAR(found.scale, 1.0 / c.magnification, std::max(0.011, 1.0 / c.size.width + 1e-9));
    if (c.magnification == 1.0) {
      EXPECT_EQ(found.dx, c.dx);
      EXPECT_EQ(found.dy, c.dy);
    }
    if (c.dx == 0) {
      EXPECT_EQ(found.scale, 1.0);
    }
  }
}

TEST(EdfAlign, BrightnessMeetsInTheMiddle) {
  cv::Mat reference = vtest::edfSamplePhoto("fruits.jpg", {320, 240});
  cv::Mat frame;
  reference.convertTo(frame, -1, 0.6);
  const double before = cv::mean(frame)[1] / cv::mean(reference)[1];
  ASSERT_NEAR(before, 0.6, 0.02);
  const double level = (cv::sum(cv::mean(frame))[0] + cv::sum(cv::mean(reference))[0]) / 2;
  vantix::matchBrightness(frame, reference);
  EXPECT_NEAR(cv::sum(cv::mean(frame))[0] / cv::sum(cv::mean(reference))[0], 1.0, 0.02);
  // Both move to about the common level; the reference's highlights clip.
  EXPECT_NEAR(cv::sum(cv::mean(frame))[0], level, 0.05 * level);
}

// Each output pixel takes the source pixel at round((q + d - c) / s + c),
// clamped to the frame: the edge is replicated rather than black.
TEST(EdfAlign, WarpTakesNearestSourcePixelAndReplicatesEdges) {
  const cv::Mat source = vtest::randomImage(30, 40, CV_8UC3, 5);
  const ShiftScale motions[] = {{3, -2, 1.0}, {-4, 1, 1.0}, {1, 2, 0.5}, {0, 0, 2.0}};
  for (const ShiftScale& m : motions) {
    SCOPED_TRACE(testing::Message() << m.dx << "," << m.dy << " s " << m.scale);
    cv::Mat warped = source.clone();
    vantix::warpToReference(warped, m);
    for (int y = 0; y < source.rows; ++y) {
      for (int x = 0; x < source.cols; ++x) {
        const double sx = (x + m.dx - source.cols / 2) / m.scale + source.cols / 2;
        const double sy = (y + m.dy - source.rows / 2) / m.scale + source.rows / 2;
        const int ix = std::clamp(static_cast<int>(std::lround(sx)), 0, source.cols - 1);
        const int iy = std::clamp(static_cast<int>(std::lround(sy)), 0, source.rows - 1);
        // Positions exactly halfway between two pixels may round either way.
        if (std::abs(sx - std::floor(sx) - 0.5) < 1e-9 || std::abs(sy - std::floor(sy) - 0.5) < 1e-9)
          continue;
        ASSERT_EQ(warped.at<cv::Vec3b>(y, x), source.at<cv::Vec3b>(iy, ix)) << x << "," << y;
      }
    }
  }
}

TEST(EdfAlign, AlignedFrameMatchesTheReference) {
  cv::Mat reference = vtest::edfSamplePhoto("baboon.jpg", {400, 300});
  cv::Mat frame;
  vtest::moved(reference, 1.0, 4, -3).convertTo(frame, -1, 0.85);
  const cv::Rect interior(20, 20, 360, 260);
  const double before = meanAbsDifference(frame, reference, interior);
  vantix::alignToReference(frame, reference);
  // Both images now have the common brightness.
  const double after = meanAbsDifference(frame, reference, interior);
  EXPECT_GT(before, 20.0);
  EXPECT_LT(after, 5.0);
}

// Records what the slot hands over; its result is always the first frame.
class RecordingFuser : public vantix::CEdfFuser {
 public:
  explicit RecordingFuser(std::vector<cv::Mat>* received) : received_(received) {}
  void firstFrame(const cv::Mat& frame) override { first_ = frame.clone(); }
  void addFrame(cv::Mat& frame, cv::Mat& result) override {
    received_->push_back(frame.clone());
    result = first_.clone();
  }

 private:
  std::vector<cv::Mat>* received_;
  cv::Mat first_;
};

TEST(EdfAlign, SlotAlignsFromTheThirdFrameOn) {
  const cv::Mat first = vtest::edfSamplePhoto("baboon.jpg", {320, 240});
  const cv::Mat shifted = vtest::moved(first, 1.0, 5, 3);
  std::vector<cv::Mat> received;
  vantix::CFuserSlot slot(std::make_unique<RecordingFuser>(&received));
  slot.firstFrame(first);
  cv::Mat second = shifted.clone(), third = shifted.clone(), result;
  slot.fuse(second, result);
  slot.fuse(third, result);
  ASSERT_EQ(received.size(), 2u);
  const cv::Rect interior(16, 16, 288, 208);
  EXPECT_EQ(cv::norm(received[0], shifted, cv::NORM_INF), 0.0) << "second frame was changed";
  EXPECT_LT(meanAbsDifference(received[1], first, interior), 3.0) << "third frame not aligned";
}

}  // namespace
