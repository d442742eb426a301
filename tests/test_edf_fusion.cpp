// The fusers: Laplacian pyramids, the stack fuser's focus measure, and the
// quality of fused focus stacks against the sharp photograph they were made
// from.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "edf/edf_fuser.h"
#include "edf/pyr_fuser.h"
#include "edf/stack_fuser.h"
#include "support/edf_stack.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t kKinds[] = {0, 1, 2};

// Fuses `slices` in order through the session's slot (alignment included
// from the third slice on) or through the fuser alone.
cv::Mat fuseAll(uint32_t kind, const std::vector<cv::Mat>& slices, bool align = true) {
  vantix::CFuserSlot slot(vantix::makeEdfFuser(kind));
  const auto fuser = vantix::makeEdfFuser(kind);
  align ? slot.firstFrame(slices[0]) : fuser->firstFrame(slices[0]);
  cv::Mat result = slices[0].clone();
  for (size_t i = 1; i < slices.size(); ++i) {
    cv::Mat frame = slices[i].clone();
    align ? slot.fuse(frame, result) : fuser->addFrame(frame, result);
  }
  return result;
}

TEST(EdfPyramid, MatchesTheRecipeAndCollapsesToTheImage) {
  for (const cv::Size size : {cv::Size(97, 61), cv::Size(320, 240), cv::Size(1, 1), cv::Size(5, 3)}) {
    SCOPED_TRACE(testing::Message() << size);
    const cv::Mat image = vtest::randomImage(size.height, size.width, CV_8UC1, 3);
    std::vector<cv::Mat> pyramid;
    vantix::buildLaplacianPyramid(image, pyramid);
    ASSERT_EQ(pyramid.size(), 8u);
    // The recipe written out with OpenCV's own operations.
    cv::Mat current;
    image.convertTo(current, CV_32F, 1.0 / 255.0);
    for (int i = 0; i < 7; ++i) {
      cv::Mat down, up;
      cv::pyrDown(current, down);
      cv::pyrUp(down, up, current.size());
      EXPECT_LE(cv::norm(pyramid[i], cv::Mat(current - up), cv::NORM_INF), 1e-6) << "level " << i;
      current = down;
    }
    EXPECT_LE(cv::norm(pyramid[7], current, cv::NORM_INF), 1e-6);
    cv::Mat back;
    vantix::collapseLaplacianPyramid(pyramid, back);
    EXPECT_EQ(cv::norm(back, image, cv::NORM_INF), 0.0);
  }
}

TEST(EdfPyramid, FusingTheSameFrameLeavesTheStackUnchanged) {
  const cv::Mat image = vtest::edfSamplePhoto("baboon.jpg", {160, 120});
  for (uint32_t method : {0u, 1u}) {
    SCOPED_TRACE(method);
    vantix::CPyrFuser fuser(method);
    fuser.firstFrame(image);
    std::vector<cv::Mat> before[3];
    for (int c = 0; c < 3; ++c) {
      for (const cv::Mat& level : fuser.pyramid(c)) before[c].push_back(level.clone());
    }
    cv::Mat frame = image.clone(), result;
    fuser.addFrame(frame, result);
    if (method == 0) {
      // Ties keep the stored coefficient: nothing changes at all.
      EXPECT_EQ(cv::norm(result, image, cv::NORM_INF), 0.0);
      for (int c = 0; c < 3; ++c) {
        for (int i = 0; i < 8; ++i) {
          EXPECT_EQ(cv::norm(fuser.pyramid(c)[i], before[c][i], cv::NORM_INF), 0.0);
        }
      }
    } else {
      // A blend of equal values, up to float rounding.
      EXPECT_LE(cv::norm(result, image, cv::NORM_INF), 1.0);
    }
  }
}

// A uniform frame has no detail: with the larger-magnitude rule it changes
// only the residual, and only where its level is higher.
TEST(EdfPyramid, UniformFrameChangesOnlyTheResidual) {
  cv::Mat textured = vtest::randomImage(64, 80, CV_8UC3, 9);
  textured = textured / 2;  // 0..127
  vantix::CPyrFuser fuser(0);
  fuser.firstFrame(textured);
  std::vector<cv::Mat> before;
  for (const cv::Mat& level : fuser.pyramid(1)) before.push_back(level.clone());
  cv::Mat uniform(textured.size(), CV_8UC3, cv::Scalar::all(200)), result;
  fuser.addFrame(uniform, result);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(cv::norm(fuser.pyramid(1)[i], before[i], cv::NORM_INF), 0.0);
  cv::Mat expected(fuser.pyramid(1)[7].size(), CV_32F, cv::Scalar(200.0 / 255.0));
  EXPECT_LE(cv::norm(fuser.pyramid(1)[7], expected, cv::NORM_INF), 1e-5);
}

// The focus measure against its definition written out with OpenCV: per
// channel, |Laplacian| of each Gaussian-pyramid level resized to full size,
// summed; the maximum over the channels.
TEST(EdfStack, FocusMeasureFollowsItsDefinition) {
  for (const cv::Size size : {cv::Size(200, 150), cv::Size(61, 47)}) {
    SCOPED_TRACE(testing::Message() << size);
    const cv::Mat image = vtest::edfSamplePhoto("fruits.jpg", size);
    std::vector<cv::Mat> planes;
    cv::split(image, planes);
    cv::Mat expected;
    for (const cv::Mat& plane : planes) {
      std::vector<cv::Mat> pyramid;
      cv::buildPyramid(plane, pyramid, 7);
      cv::Mat sum = cv::Mat::zeros(size, CV_16S);
      for (int i = 7; i >= 0; --i) {
        cv::Mat lap, big;
        cv::Laplacian(pyramid[i], lap, CV_16S, 1);
        cv::resize(lap, big, size, 0, 0, cv::INTER_LINEAR);
        sum += cv::abs(big);
      }
      expected = expected.empty() ? sum : cv::max(expected, sum);
    }
    cv::Mat measure;
    vantix::stackFocusMeasure(image, measure);
    ASSERT_EQ(measure.type(), CV_16S);
    // Rounded once instead of once a level.
    EXPECT_LE(cv::norm(measure, expected, cv::NORM_INF), 4.0);
  }
}

TEST(EdfStack, ScaleComesFromTheBlockMeans) {
  cv::Mat measure(80, 96, CV_16S, cv::Scalar(6));
  EXPECT_EQ(vantix::stackMeasureScale(measure), 6);  // smallest mean
  measure(cv::Rect(12, 10, 12, 10)).setTo(100);     // one block 100: ratio > 10
  EXPECT_EQ(vantix::stackMeasureScale(measure), 10);
  measure.setTo(0);
  EXPECT_EQ(vantix::stackMeasureScale(measure), 1);  // never 0
}

TEST(EdfFusers, HandleTinyFrames) {
  for (uint32_t kind : kKinds) {
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(7, 5), cv::Size(2, 40)}) {
      SCOPED_TRACE(testing::Message() << kind << " " << size);
      vantix::CFuserSlot slot(vantix::makeEdfFuser(kind));
      slot.firstFrame(vtest::randomImage(size.height, size.width, CV_8UC3, 1));
      cv::Mat result;
      for (uint64_t seed = 2; seed < 5; ++seed) {
        cv::Mat frame = vtest::randomImage(size.height, size.width, CV_8UC3, seed);
        slot.fuse(frame, result);
      }
      EXPECT_EQ(result.size(), size);
      EXPECT_EQ(result.type(), CV_8UC3);
    }
  }
}

// Two slices, each sharp in one half (a step in depth): the fused image keeps
// the sharp photograph's detail in both halves.
TEST(EdfQuality, TwoSlicesKeepTheDetailOfBothHalves) {
  const cv::Mat sharp = vtest::edfSamplePhoto("baboon.jpg", {320, 240});
  const cv::Mat depth = vtest::steppedDepth(sharp.size(), 2);
  const std::vector<cv::Mat> slices = vtest::focusStack(sharp, depth, 2, 4.0);
  // Halves without a band along the step, where both slices are blurred.
  const cv::Rect left(8, 8, 140, 224), right(172, 8, 140, 224);
  for (uint32_t kind : kKinds) {
    const cv::Mat fused = fuseAll(kind, slices);
    for (const cv::Rect& half : {left, right}) {
      const double kept = vtest::meanDetail(fused, half) / vtest::meanDetail(sharp, half);
      std::printf("kind %u, half at x %d: %.1f %% of the detail\n", kind, half.x, 100 * kept);
      EXPECT_GE(kept, 0.9) << "kind " << kind << ", half at x " << half.x;
    }
  }
}

// Eight slices over a tilted plane: every kind beats the best single slice
// by 3 dB or more against the sharp photograph.
TEST(EdfQuality, EightSlicesBeatTheBestSlice) {
  const cv::Mat sharp = vtest::edfSamplePhoto("baboon.jpg", {320, 240});
  const cv::Mat depth = vtest::tiltedDepth(sharp.size());
  const std::vector<cv::Mat> slices = vtest::focusStack(sharp, depth, 8, 6.0);
  const cv::Rect all(0, 0, sharp.cols, sharp.rows);
  double best = 0;
  for (const cv::Mat& slice : slices) best = std::max(best, vtest::psnr(slice, sharp, all));
  for (uint32_t kind : kKinds) {
    const double fused = vtest::psnr(fuseAll(kind, slices), sharp, all);
    std::printf("kind %u: fused %.2f dB, best slice %.2f dB\n", kind, fused, best);
    EXPECT_GE(fused, best + 3.0) << "kind " << kind;
  }
}

// Slices that also change magnification by 1-2 % and move by a pixel: the
// aligned result is at least as close to the sharp photograph as the
// unaligned one.
TEST(EdfQuality, AlignmentDoesNotHurtAMovingStack) {
  const cv::Mat sharp = vtest::edfSamplePhoto("baboon.jpg", {320, 240});
  const cv::Mat depth = vtest::tiltedDepth(sharp.size());
  std::vector<cv::Mat> slices = vtest::focusStack(sharp, depth, 6, 5.0);
  const double magnification[] = {1.0, 1.012, 1.02, 1.01, 1.018, 1.015};
  const int shift[][2] = {{0, 0}, {1, 0}, {0, 1}, {-1, 1}, {1, -1}, {-1, 0}};
  for (size_t i = 1; i < slices.size(); ++i) {
    slices[i] = vtest::moved(slices[i], magnification[i], shift[i][0], shift[i][1]);
  }
  const cv::Rect interior(16, 16, 288, 208);
  for (uint32_t kind : kKinds) {
    const double aligned = vtest::psnr(fuseAll(kind, slices, true), sharp, interior);
    const double unaligned = vtest::psnr(fuseAll(kind, slices, false), sharp, interior);
    std::printf("kind %u: aligned %.2f dB, unaligned %.2f dB\n", kind, aligned, unaligned);
    EXPECT_GE(aligned, unaligned - 0.05) << "kind " << kind;
  }
}

}  // namespace
