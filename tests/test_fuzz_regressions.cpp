// Inputs the fuzz targets (fuzz/) found to fail, kept as tests.  Host
// buffers here end at an inaccessible page, as the fuzz targets' do, so a
// read past their end crashes the child process that runs the case.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include <opencv2/imgproc.hpp>
#include <vantix.h>

#include "support/test_support.h"

namespace {

// `size` bytes that end where an inaccessible page begins.
class GuardedBytes {
 public:
  explicit GuardedBytes(size_t size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    body_ = (size + page - 1) / page * page;
    void* p = mmap(nullptr, body_ + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    base_ = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
    if (base_ != nullptr) mprotect(base_ + body_, page, PROT_NONE);
    data_ = base_ == nullptr ? nullptr : base_ + body_ - size;
  }
  ~GuardedBytes() {
    if (base_ != nullptr) munmap(base_, body_ + static_cast<size_t>(sysconf(_SC_PAGESIZE)));
  }
  uint8_t* data() const { return data_; }

 private:
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
  size_t body_ = 0;
};

VantixImageHeader header(int32_t width, int32_t height, uint16_t bits) {
  VantixImageHeader h{};
  h.biSize = 40;
  h.biWidth = width;
  h.biHeight = height;
  h.biPlanes = 1;
  h.biBitCount = bits;
  return h;
}

// Nearest-neighbour enlargement of 16-bit grey images whose rows have no
// padding (even widths at the default stride): the image library's vector
// code fetched two bytes past the last pixel, beyond the host's buffer.
TEST(FuzzRegressions, NearestResizeOfUnpaddedSixteenBitGreyStaysInsideTheSource) {
  for (const cv::Size src : {cv::Size(4, 4), cv::Size(2, 1), cv::Size(30, 7)}) {
    for (const cv::Size dst : {cv::Size(692, 765), cv::Size(9, 5), cv::Size(1, 1)}) {
      EXPECT_TRUE(vtest::runInChildProcess([&] {
        const VantixImageHeader sh = header(src.width, src.height, 12);
        const VantixImageHeader dh = header(dst.width, dst.height, 12);
        const size_t srcStride = src.width * 2u;  // even width: no padding
        const size_t dstStride = ((dst.width * 16u + 31u) >> 3) & ~3u;
        GuardedBytes in(srcStride * src.height);
        GuardedBytes out(dstStride * dst.height);
        ASSERT_NE(in.data(), nullptr);
        cv::Mat source(src, CV_16UC1, in.data(), srcStride);
        cv::randu(source, 0, 4096);
        ASSERT_EQ(vantix_resizeV2(&sh, 0, in.data(), &dh, 0, out.data(), VANTIX_INTER_NEAREST),
                  VANTIX_S_OK);
        // Every output pixel is the source pixel its position maps onto.
        const cv::Mat result(dst, CV_16UC1, out.data(), dstStride);
        for (int y = 0; y < dst.height; ++y) {
          for (int x = 0; x < dst.width; ++x) {
            const int sx = std::min(static_cast<int>(std::floor(x * (double(src.width) / dst.width))),
                                    src.width - 1);
            const int sy = std::min(static_cast<int>(std::floor(y * (double(src.height) / dst.height))),
                                    src.height - 1);
            ASSERT_EQ(result.at<uint16_t>(y, x), source.at<uint16_t>(sy, sx)) << x << "," << y;
          }
        }
      })) << src << " -> " << dst;
    }
  }
}

}  // namespace
