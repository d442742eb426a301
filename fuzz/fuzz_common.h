// What the fuzz harnesses share: a reader of the input bytes, frame sizes,
// and host buffers that fault on overruns.  OpenCV is not instrumented, so
// the sanitizers do not see its accesses: a buffer here ends at an
// inaccessible page (any read or write past its end crashes) and starts after
// guard bytes that are checked when it is freed.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include <vantix.h>

// A broken invariant is a finding: stop with a crash the fuzzer records.
#define FUZZ_CHECK(cond) ((cond) ? void() : fuzz::broken(__FILE__, __LINE__, #cond))

namespace fuzz {

[[noreturn]] inline void broken(const char* file, int line, const char* what) {
  std::fprintf(stderr, "%s:%d: broken: %s\n", file, line, what);
  std::abort();
}

// Takes fixed-size values from the front of the input (zeros once it is
// used up); the bytes left over are pixel data.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}
  template <typename T>
  T take() {
    T v{};
    const size_t n = std::min(sizeof(T), static_cast<size_t>(end_ - p_));
    std::memcpy(&v, p_, n);
    p_ += n;
    return v;
  }
  const uint8_t* rest() const { return p_; }
  size_t restSize() const { return static_cast<size_t>(end_ - p_); }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

// Bits a pixel of session pixel formats 0..3 (B G R and B G R A at 8 and 16
// bits); the sessions read other formats as format 0.
inline uint32_t formatBits(uint32_t format) {
  const uint32_t bits[] = {24, 48, 32, 64};
  return bits[format <= 3 ? format : 0];
}

// `height` rows of `pitch` bytes, or of the default stride when pitch is 0.
inline uint64_t frameBytes(uint32_t width, uint32_t height, uint32_t bits, uint32_t pitch = 0) {
  return uint64_t{height} * (pitch != 0 ? pitch : vantix_default_stride(width, bits));
}

// Inputs asking for more than 1 Mpx or 16 MiB are skipped: they find
// nothing that smaller ones do not, and slow the fuzzer down.
inline bool tooLarge(uint64_t pixels, uint64_t bytes) {
  return pixels > (uint64_t{1} << 20) || bytes > (uint64_t{1} << 24);
}

// `size` bytes (0x5A) between 64 guard bytes and a page without access.
class Buffer {
 public:
  static constexpr size_t kGuard = 64;
  explicit Buffer(size_t size) : size_(size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    body_ = (size + kGuard + page - 1) / page * page;
    void* p =
        mmap(nullptr, body_ + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    base_ = static_cast<uint8_t*>(p);
    mprotect(base_ + body_, page, PROT_NONE);
    data_ = base_ + body_ - size;
    std::memset(data_ - kGuard, 0xE7, kGuard);
    std::memset(data_, 0x5A, size);
  }
  ~Buffer() {
    for (size_t i = 1; i <= kGuard; ++i) FUZZ_CHECK(data_[-static_cast<ptrdiff_t>(i)] == 0xE7);
    munmap(base_, body_ + static_cast<size_t>(sysconf(_SC_PAGESIZE)));
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  uint8_t* data() { return data_; }
  // Repeats the input's remaining bytes over the buffer (left at 0x5A when
  // there are none).
  void fill(const Reader& in) {
    if (in.restSize() == 0) return;
    size_t done = std::min(in.restSize(), size_);
    std::memcpy(data_, in.rest(), done);
    for (; done < size_; done *= 2) std::memcpy(data_ + done, data_, std::min(done, size_ - done));
  }
  // The contents, to compare with a later copy.
  std::vector<uint8_t> copy() const { return std::vector<uint8_t>(data_, data_ + size_); }

 private:
  size_t size_;
  size_t body_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
};

}  // namespace fuzz

// One input at a time on the calling thread (reproducible), and the
// allocator the sessions need.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  cv::setNumThreads(1);
  vantix_init([](uint64_t n) { return std::malloc(n); });
  return 0;
}
