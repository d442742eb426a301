// Shared pieces of the fuzz targets: failing with a message, buffers that end
// at an inaccessible page, and one description of each target's input that
// both decodes fuzz data and encodes the seed corpus.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <opencv2/core.hpp>

namespace fuzz {

// Stops the run with a message: a broken expectation is a finding.
[[noreturn]] inline void fail(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::fprintf(stderr, "\n*** fuzz expectation failed: ");
  std::vfprintf(stderr, fmt, args);
  std::fprintf(stderr, "\n");
  va_end(args);
  std::abort();
}

#define FUZZ_EXPECT(cond, ...)                                                   \
  do {                                                                           \
    if (!(cond)) {                                                               \
      std::fprintf(stderr, "\n%s:%d: expected %s\n", __FILE__, __LINE__, #cond); \
      ::fuzz::fail(__VA_ARGS__);                                                 \
    }                                                                            \
  } while (0)

// memcmp that accepts empty ranges (whose pointers may be null).
inline bool sameBytes(const void* a, const void* b, size_t n) {
  return n == 0 || std::memcmp(a, b, n) == 0;
}

// A host buffer of exactly `size` bytes whose end touches a page that cannot
// be read or written.  The image library is not instrumented, so AddressSanitizer
// does not see its accesses; the guard page turns any overrun past the end
// into a crash.  The start is aligned to `align` bytes when size allows (the
// end is page-aligned, so sizes that are multiples of `align` keep it).
class GuardedBuffer {
 public:
  explicit GuardedBuffer(size_t size) : size_(size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t body = (size + page - 1) / page * page;
    mapped_ = body + page;
    void* p = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) fail("mmap of %zu bytes failed", mapped_);
    base_ = static_cast<uint8_t*>(p);
    if (mprotect(base_ + body, page, PROT_NONE) != 0) fail("mprotect failed");
    data_ = base_ + body - size;
  }
  ~GuardedBuffer() { munmap(base_, mapped_); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  // Fills the buffer by repeating `pattern` (or with `fill` when it is empty).
  void fillFrom(const std::vector<uint8_t>& pattern, uint8_t fill = 0) {
    if (pattern.empty()) {
      std::memset(data_, fill, size_);
      return;
    }
    for (size_t i = 0; i < size_; ++i) data_[i] = pattern[i % pattern.size()];
  }

 private:
  size_t size_;
  size_t mapped_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
};

// Decodes a target's arguments from fuzz data.  Every target describes its
// input once, as a template over the codec, so that the seed writer below
// produces bytes that decode to exactly the arguments it was given.
class Reader {
 public:
  explicit Reader(FuzzedDataProvider& p) : p_(p) {}
  template <typename T, typename L, typename H>
  void num(T& v, L lo, H hi) {
    v = p_.ConsumeIntegralInRange<T>(static_cast<T>(lo), static_cast<T>(hi));
  }
  void flag(bool& b) { b = p_.ConsumeBool(); }
  // One of `count` choices.
  void choice(size_t& index, size_t count) { index = p_.ConsumeIntegralInRange<size_t>(0, count - 1); }
  // The remaining bytes (call last).
  void rest(std::vector<uint8_t>& bytes) { bytes = p_.ConsumeRemainingBytes<uint8_t>(); }

 private:
  FuzzedDataProvider& p_;
};

// Encodes arguments so that Reader decodes them back: integers are taken from
// the end of the data, most significant byte first; the remaining bytes are
// the front.
class Writer {
 public:
  template <typename T, typename L, typename H>
  void num(T& v, L lo_, H hi_) {
    const T lo = static_cast<T>(lo_), hi = static_cast<T>(hi_);
    static_assert(std::is_integral_v<T>, "integers only");
    const uint64_t range = static_cast<uint64_t>(hi) - static_cast<uint64_t>(lo);
    const uint64_t r = static_cast<uint64_t>(v) - static_cast<uint64_t>(lo);
    if (v < lo || v > hi) fail("seed value out of its range");
    size_t n = 0;
    while (n < sizeof(T) && (range >> (8 * n)) > 0) ++n;
    for (size_t i = n; i-- > 0;) tail_.push_back(static_cast<uint8_t>(r >> (8 * i)));
  }
  void flag(bool& b) {
    uint8_t v = b ? 1 : 0;
    num(v, 0, 255);
  }
  void choice(size_t& index, size_t count) { num(index, 0, count - 1); }
  void rest(std::vector<uint8_t>& bytes) { front_ = bytes; }

  std::vector<uint8_t> bytes() const {
    std::vector<uint8_t> out = front_;
    out.insert(out.end(), tail_.rbegin(), tail_.rend());
    return out;
  }

 private:
  std::vector<uint8_t> front_;
  std::vector<uint8_t> tail_;
};

// `--write-seeds=DIR` among the fuzzer's arguments: the target writes its
// seeds there and exits (the seeds are then run like any other input when
// the fuzzer starts on the corpus).
inline const char* seedDirectory(int* argc, char*** argv) {
  static const char kFlag[] = "--write-seeds=";
  for (int i = 1; argc != nullptr && i < *argc; ++i) {
    if (std::strncmp((*argv)[i], kFlag, sizeof kFlag - 1) == 0) return (*argv)[i] + sizeof kFlag - 1;
  }
  return nullptr;
}

inline void writeSeed(const char* dir, const std::string& name, const std::vector<uint8_t>& bytes) {
  const std::string path = std::string(dir) + "/" + name;
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) fail("cannot write %s", path.c_str());
}

// A named seed: arguments that the target's schema encodes into a corpus file.
template <typename Args>
struct Seed {
  const char* name;
  Args args;
};

// Writes each seed through the target's schema, called as encode(Writer&, Args&).
template <typename Args, typename Encode>
void writeSeeds(const char* dir, std::vector<Seed<Args>>& seeds, Encode encode) {
  for (Seed<Args>& s : seeds) {
    Writer w;
    encode(w, s.args);
    writeSeed(dir, s.name, w.bytes());
  }
}

// The body of LLVMFuzzerInitialize: OpenCV on the calling thread only (one
// input at a time, reproducible), and the `--write-seeds=DIR` mode.
inline int initialize(int* argc, char*** argv, void (*writeTargetSeeds)(const char*)) {
  cv::setNumThreads(1);
  if (const char* dir = seedDirectory(argc, argv)) {
    writeTargetSeeds(dir);
    std::exit(0);
  }
  return 0;
}

// The body of LLVMFuzzerTestOneInput: decodes the arguments with the
// target's schema, called as decode(Reader&, Args&), then checks the call.
template <typename Args, typename Decode, typename Run>
int testOneInput(const uint8_t* data, size_t size, Decode decode, Run run) {
  FuzzedDataProvider provider(data, size);
  Reader reader(provider);
  Args args;
  decode(reader, args);
  run(args);
  return 0;
}

}  // namespace fuzz
