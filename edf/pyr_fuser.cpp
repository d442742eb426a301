#include "edf/pyr_fuser.h"

#include <cmath>
#include <exception>

#include <opencv2/imgproc.hpp>

namespace vantix {

namespace {

// 1/255 as a float: 8-bit samples become 0..1.
constexpr float kToUnit = 0.003921568859368563f;
// Keeps the weight's division finite where neither image has detail.
constexpr float kSmallestNormal = 1.1754943508222875e-38f;
constexpr int kDetailLevels = kEdfPyramidLevels - 1;

// Runs `body(y0, y1)` over row ranges of an image of `rows` rows, in
// parallel when `parallel` is set.
template <typename Body>
void forRows(int rows, bool parallel, const Body& body) {
  if (parallel) {
    cv::parallel_for_(cv::Range(0, rows), [&](const cv::Range& r) { body(r.start, r.end); });
  } else {
    body(0, rows);
  }
}

// An 8-bit one-channel image as float samples 0..1.
void toUnit(const cv::Mat& channel, cv::Mat& plane) { channel.convertTo(plane, CV_32F, kToUnit); }

// Decomposes `plane` level by level.  For each detail level i, `detail(i,
// current, up)` receives the level's image and the expansion of the next
// one (the detail is current - up); then `residual(down)` receives the
// low-pass residual.  `downs` and `ups` are kept between calls.
template <typename Detail, typename Residual>
void decompose(const cv::Mat& plane, std::vector<cv::Mat>& downs, std::vector<cv::Mat>& ups,
               const Detail& detail, const Residual& residual) {
  downs.resize(kDetailLevels);
  ups.resize(kDetailLevels);
  const cv::Mat* current = &plane;
  for (int i = 0; i < kDetailLevels; ++i) {
    cv::pyrDown(*current, downs[i], cv::Size(), cv::BORDER_REFLECT_101);
    cv::pyrUp(downs[i], ups[i], current->size(), cv::BORDER_REFLECT_101);
    detail(i, *current, ups[i]);
    current = &downs[i];
  }
  residual(downs[kDetailLevels - 1]);
}

// Collapses `pyramid` into an 8-bit image, using `ups` as work space.
void collapse(const std::vector<cv::Mat>& pyramid, std::vector<cv::Mat>& ups, cv::Mat& out) {
  CV_Assert(static_cast<int>(pyramid.size()) == kEdfPyramidLevels);
  ups.resize(kDetailLevels);
  const cv::Mat* current = &pyramid[kEdfPyramidLevels - 1];
  for (int i = kDetailLevels - 1; i >= 1; --i) {
    cv::pyrUp(*current, ups[i], pyramid[i].size(), cv::BORDER_REFLECT_101);
    cv::add(ups[i], pyramid[i], ups[i]);
    current = &ups[i];
  }
  // The finest level's sum goes straight to 8 bits.
  const cv::Mat& level = pyramid[0];
  cv::pyrUp(*current, ups[0], level.size(), cv::BORDER_REFLECT_101);
  cv::add(ups[0], level, ups[0]);
  ups[0].convertTo(out, CV_8U, 255.0);
}

// stored = current - up (the first frame's detail).
void storeDetail(const cv::Mat& current, const cv::Mat& up, cv::Mat& stored) {
  cv::subtract(current, up, stored);
}

// Keeps, pixel by pixel, the coefficient of larger magnitude; on a tie the
// stored one.
void selectDetail(const cv::Mat& current, const cv::Mat& up, cv::Mat& stored) {
  CV_Assert(current.size() == stored.size() && stored.type() == CV_32F);
  for (int y = 0; y < stored.rows; ++y) {
    const float* c = current.ptr<float>(y);
    const float* u = up.empty() ? nullptr : up.ptr<float>(y);
    float* s = stored.ptr<float>(y);
    for (int x = 0; x < stored.cols; ++x) {
      const float n = u ? c[x] - u[x] : c[x];
      s[x] = std::fabs(n) > std::fabs(s[x]) ? n : s[x];
    }
  }
}

// stored = new * w + stored * (1 - w).
void blendDetail(const cv::Mat& current, const cv::Mat& up, const cv::Mat& weight,
                 cv::Mat& stored) {
  CV_Assert(current.size() == stored.size() && weight.size() == stored.size());
  for (int y = 0; y < stored.rows; ++y) {
    const float* c = current.ptr<float>(y);
    const float* u = up.empty() ? nullptr : up.ptr<float>(y);
    const float* w = weight.ptr<float>(y);
    float* s = stored.ptr<float>(y);
    for (int x = 0; x < stored.cols; ++x) {
      const float n = u ? c[x] - u[x] : c[x];
      s[x] = n * w[x] + s[x] * (1.0f - w[x]);
    }
  }
}

}  // namespace

void buildLaplacianPyramid(const cv::Mat& channel8u, std::vector<cv::Mat>& pyramid) {
  CV_Assert(channel8u.type() == CV_8UC1);
  cv::Mat plane;
  toUnit(channel8u, plane);
  std::vector<cv::Mat> downs, ups;
  pyramid.assign(kEdfPyramidLevels, cv::Mat());
  decompose(
      plane, downs, ups,
      [&](int i, const cv::Mat& current, const cv::Mat& up) {
        storeDetail(current, up, pyramid[i]);
      },
      [&](const cv::Mat& down) { down.copyTo(pyramid[kEdfPyramidLevels - 1]); });
}

void collapseLaplacianPyramid(const std::vector<cv::Mat>& pyramid, cv::Mat& channel8u) {
  std::vector<cv::Mat> ups;
  collapse(pyramid, ups, channel8u);
}

CPyrFuser::CPyrFuser(uint32_t method) : method_(method) {}

CPyrFuser::~CPyrFuser() = default;

void CPyrFuser::firstFrame(const cv::Mat& frame) {
  CV_Assert(frame.type() == CV_8UC3);
  for (auto& pyramid : pyramids_) pyramid.clear();
  cv::split(frame, planes_);
  cv::parallel_for_(cv::Range(0, 3), [&](const cv::Range& r) {
    for (int c = r.start; c < r.end; ++c) {
      ChannelBuffers& b = buffers_[c];
      std::vector<cv::Mat> pyramid(kEdfPyramidLevels);
      toUnit(planes_[c], b.plane);
      decompose(
          b.plane, b.downs, b.ups,
          [&](int i, const cv::Mat& current, const cv::Mat& up) {
            storeDetail(current, up, pyramid[i]);
          },
          [&](const cv::Mat& down) { down.copyTo(pyramid[kEdfPyramidLevels - 1]); });
      pyramids_[c] = std::move(pyramid);
    }
  });
}

void CPyrFuser::computeWeights(const cv::Mat& frame) {
  // The mean of the channels, kept in float (0..1).  Channel 0's buffers
  // serve as work space: its task starts only after the weights are done.
  ChannelBuffers& work = buffers_[0];
  cv::Mat& mean = work.plane;
  mean.create(frame.size(), CV_32F);
  constexpr float kThird = 1.0f / 3.0f;
  forRows(frame.rows, true, [&](int y0, int y1) {
    for (int y = y0; y < y1; ++y) {
      const uchar* p0 = planes_[0].ptr<uchar>(y);
      const uchar* p1 = planes_[1].ptr<uchar>(y);
      const uchar* p2 = planes_[2].ptr<uchar>(y);
      float* m = mean.ptr<float>(y);
      for (int x = 0; x < frame.cols; ++x) {
        m[x] = (static_cast<float>(p0[x]) * kThird + static_cast<float>(p1[x]) * kThird +
                static_cast<float>(p2[x]) * kThird) * kToUnit;
      }
    }
  });
  // A: the mean image's pyramid, stored in weights_ and turned into the
  // weights in place.
  weights_.resize(kEdfPyramidLevels);
  decompose(
      mean, work.downs, work.ups,
      [&](int i, const cv::Mat& current, const cv::Mat& up) {
        storeDetail(current, up, weights_[i]);
      },
      [&](const cv::Mat& down) { down.copyTo(weights_[kEdfPyramidLevels - 1]); });
  // w = |A| / (|A| + B + tiny), B the mean magnitude of the stack's three
  // channels at that level before this frame.
  for (int i = 0; i < kEdfPyramidLevels; ++i) {
    cv::Mat& a = weights_[i];
    const cv::Mat& sb = pyramids_[0][i];
    const cv::Mat& sg = pyramids_[1][i];
    const cv::Mat& sr = pyramids_[2][i];
    CV_Assert(a.size() == sb.size());
    forRows(a.rows, i < 3, [&](int y0, int y1) {
      for (int y = y0; y < y1; ++y) {
        float* w = a.ptr<float>(y);
        const float* b0 = sb.ptr<float>(y);
        const float* b1 = sg.ptr<float>(y);
        const float* b2 = sr.ptr<float>(y);
        for (int x = 0; x < a.cols; ++x) {
          const float detail = std::fabs(w[x]);
          const float stack =
              std::fabs(b0[x]) * kThird + std::fabs(b1[x]) * kThird + std::fabs(b2[x]) * kThird;
          w[x] = detail * (1.0f / (detail + stack + kSmallestNormal));
        }
      }
    });
  }
}

void CPyrFuser::mergeChannel(int channel) {
  ChannelBuffers& b = buffers_[channel];
  std::vector<cv::Mat>& stored = pyramids_[channel];
  toUnit(planes_[channel], b.plane);
  if (method_ == 0) {
    decompose(
        b.plane, b.downs, b.ups,
        [&](int i, const cv::Mat& current, const cv::Mat& up) {
          selectDetail(current, up, stored[i]);
        },
        [&](const cv::Mat& down) {
          selectDetail(down, cv::Mat(), stored[kEdfPyramidLevels - 1]);
        });
  } else {
    decompose(
        b.plane, b.downs, b.ups,
        [&](int i, const cv::Mat& current, const cv::Mat& up) {
          blendDetail(current, up, weights_[i], stored[i]);
        },
        [&](const cv::Mat& down) {
          blendDetail(down, cv::Mat(), weights_[kEdfPyramidLevels - 1],
                      stored[kEdfPyramidLevels - 1]);
        });
  }
  collapse(stored, b.ups, b.out);
}

void CPyrFuser::addFrame(cv::Mat& frame, cv::Mat& result) {
  CV_Assert(frame.type() == CV_8UC3);
  // A frame of another size than the stack's cannot be merged.
  CV_Assert(pyramids_[0].size() == static_cast<size_t>(kEdfPyramidLevels) &&
            frame.size() == pyramids_[0][0].size());
  cv::split(frame, planes_);
  if (method_ == 1) computeWeights(frame);

  constexpr int kChannels = 3;
  std::exception_ptr failures[kChannels];
  // One task a channel on OpenCV's own worker threads, which live as long as
  // the process.  Threads started here for every frame would each leave
  // OpenCV's per-thread data of their parallel loops (pyrDown, pyrUp) behind
  // until the process ends: about 2 kB a frame, without bound.
  cv::parallel_for_(cv::Range(0, kChannels), [&](const cv::Range& r) {
    for (int c = r.start; c < r.end; ++c) {
      try {
        mergeChannel(c);
      } catch (...) {
        failures[c] = std::current_exception();
      }
    }
  });
  for (const std::exception_ptr& failure : failures) {
    if (failure) std::rethrow_exception(failure);
  }
  const cv::Mat channels[kChannels] = {buffers_[0].out, buffers_[1].out, buffers_[2].out};
  cv::Mat fused;
  cv::merge(channels, kChannels, fused);
  result = fused;
}

}  // namespace vantix
