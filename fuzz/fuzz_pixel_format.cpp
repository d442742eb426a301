// Fuzzes the pixel-format conversions of session frames: toWorkingImage
// over format codes, sizes, row pitches and both depths, and toOutputFormat
// over working images (also views into larger images), each checked sample
// by sample against the format table: 16-bit samples scaled by 1/257 and
// rounded to nearest (or kept as doubles), alpha dropped on the way in and
// made opaque on the way out, 8-bit samples times 257, unknown formats as
// format 0 (sharing the pixels), and the way back giving the working image
// again.  A pitch shorter than a row, or odd for 16-bit samples, is refused
// with a cv::Exception before any pixel is read.
#include <algorithm>
#include <cmath>
#include <memory>

#include <opencv2/core.hpp>

#include "api/pixel_format.h"
#include "fuzz_common.h"

namespace {

constexpr uint32_t kFormats[] = {0, 1, 2, 3, 7, 0xFFFFFFFFu};

struct Args {
  size_t formatChoice = 0;
  size_t sizeMode = 0;  // 0: up to 64, 1: up to 1100 (1 Mpx), 2: one side 0, the other any
  uint32_t width = 0, height = 0;
  size_t pitchMode = 0;  // 0: 0, 1: default, 2: default + extra, 3: default - extra, 4: raw
  uint32_t pitchExtra = 0;
  bool eightBit = true;
  bool viewInLarger = false;  // the output conversion gets a non-continuous view
  std::vector<uint8_t> pattern;
};

template <typename C>
void schema(C& c, Args& a) {
  c.choice(a.formatChoice, sizeof kFormats / sizeof kFormats[0]);
  c.choice(a.sizeMode, 3);
  const uint32_t limit = a.sizeMode == 0 ? 64 : a.sizeMode == 1 ? 1100 : 0xFFFFFFFFu;
  c.num(a.width, 0, limit);
  c.num(a.height, 0, limit);
  c.choice(a.pitchMode, 5);
  c.num(a.pitchExtra, 0, 1000);
  c.flag(a.eightBit);
  c.flag(a.viewInLarger);
  c.rest(a.pattern);
}

// Layout of a pushed frame: bytes a pixel, bytes a sample, default stride.
struct Layout {
  int channels;
  int sampleBytes;
  uint32_t defaultStride;
};

Layout layoutOf(uint32_t format, uint32_t width) {
  switch (format) {
    case 1: return {3, 2, ((width * 48u + 31u) >> 3) & ~3u};
    case 2: return {4, 1, width * 4u};
    case 3: return {4, 2, width * 8u};
    default: return {3, 1, ((width * 24u + 31u) >> 3) & ~3u};
  }
}

uint32_t pitchOf(const Args& a, uint32_t defaultStride) {
  switch (a.pitchMode) {
    case 0: return 0;
    case 1: return defaultStride;
    case 2: return defaultStride + a.pitchExtra;
    case 3: return defaultStride > a.pitchExtra ? defaultStride - a.pitchExtra : 1;
    default: return a.pitchExtra;
  }
}

uint16_t sampleAt(const uint8_t* p, int sampleBytes) {
  if (sampleBytes == 1) return *p;
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

void checkWorking(uint32_t format, const Args& a, const uint8_t* data, uint32_t pitch, const Layout& l,
                  const cv::Mat& working) {
  const bool deep = format == 1 || format == 3;
  const int wantType = deep && !a.eightBit ? CV_64FC3 : CV_8UC3;
  FUZZ_EXPECT(working.rows == static_cast<int>(a.height) && working.cols == static_cast<int>(a.width) &&
                  working.type() == wantType,
              "format %u %ux%u eightBit %d: working image %dx%d type %d", format, a.width, a.height,
              int{a.eightBit}, working.cols, working.rows, working.type());
  if (format != 1 && format != 2 && format != 3) {
    FUZZ_EXPECT(working.data == data && working.step[0] == pitch, "format %u does not share the host's pixels",
                format);
  }
  for (uint32_t y = 0; y < a.height; ++y) {
    const uint8_t* row = data + size_t{y} * pitch;
    for (uint32_t x = 0; x < a.width; ++x) {
      for (int ch = 0; ch < 3; ++ch) {
        const uint16_t v = sampleAt(row + (size_t{x} * l.channels + ch) * l.sampleBytes, l.sampleBytes);
        if (!deep) {
          const uint8_t got = working.ptr<uint8_t>(y)[x * 3 + ch];
          FUZZ_EXPECT(got == v, "format %u sample (%u,%u,%d): %u, expected %u", format, x, y, ch, got, v);
        } else if (a.eightBit) {
          // v / 257 rounded to nearest; v is never half-way between two.
          const uint32_t want = (2u * v + 257u) / 514u;
          const uint8_t got = working.ptr<uint8_t>(y)[x * 3 + ch];
          FUZZ_EXPECT(got == want, "format %u sample (%u,%u,%d): %u from %u, expected %u", format, x, y, ch,
                      got, v, want);
        } else {
          const double want = v / 257.0;
          const double got = working.ptr<double>(y)[x * 3 + ch];
          FUZZ_EXPECT(std::fabs(got - want) <= 1e-9, "format %u double sample (%u,%u,%d): %.17g, expected %.17g",
                      format, x, y, ch, got, want);
        }
      }
    }
  }
}

void checkOutput(uint32_t format, const cv::Mat& working) {
  const cv::Mat out = vantix::toOutputFormat(format, working);
  const int types[] = {CV_8UC3, CV_16UC3, CV_8UC4, CV_16UC4};
  const uint32_t f = format <= 3 ? format : 0;
  FUZZ_EXPECT(out.type() == types[f] && out.size() == working.size(), "output of format %u: type %d size %dx%d",
              format, out.type(), out.cols, out.rows);
  if (f == 0) FUZZ_EXPECT(out.data == working.data, "format %u output does not share the working image", format);
  for (int y = 0; y < working.rows; ++y) {
    for (int x = 0; x < working.cols; ++x) {
      for (int ch = 0; ch < out.channels(); ++ch) {
        const uint32_t v = ch < 3 ? working.ptr<uint8_t>(y)[x * 3 + ch] : 255u;
        const bool sixteen = f == 1 || f == 3;
        const uint32_t want = sixteen ? v * 257u : v;
        const uint32_t got = sixteen ? out.ptr<uint16_t>(y)[x * out.channels() + ch]
                                     : out.ptr<uint8_t>(y)[x * out.channels() + ch];
        FUZZ_EXPECT(got == want, "output format %u sample (%d,%d,%d): %u, expected %u", format, x, y, ch, got,
                    want);
      }
    }
  }
  // And back: the working image again.
  if (working.empty()) return;
  const cv::Mat back = vantix::toWorkingImage(format, out.data, static_cast<uint32_t>(out.cols),
                                              static_cast<uint32_t>(out.rows), static_cast<uint32_t>(out.step[0]), true);
  FUZZ_EXPECT(back.type() == CV_8UC3 && cv::norm(back, working, cv::NORM_INF) == 0,
              "format %u: the way back does not give the working image", format);
}

void runOne(const Args& a) {
  const uint32_t format = kFormats[a.formatChoice];
  if (a.sizeMode == 1 && uint64_t{a.width} * a.height > (1u << 20)) return;
  if (a.sizeMode == 2 && a.width != 0 && a.height != 0) return;  // cannot be allocated
  const Layout l = layoutOf(format, a.width);
  const uint32_t pitch = pitchOf(a, l.defaultStride);
  const uint32_t effective = pitch != 0 ? pitch : l.defaultStride;
  const bool degenerate = a.width == 0 || a.height == 0;
  const uint64_t rowBytes = uint64_t{a.width} * l.channels * l.sampleBytes;
  const bool refused = effective < rowBytes || (l.sampleBytes == 2 && effective % 2 != 0);
  const size_t bytes = degenerate ? 0 : size_t{a.height} * effective;
  if (bytes > (size_t{1} << 26)) return;
  fuzz::GuardedBuffer frame(bytes);
  frame.fillFrom(a.pattern, 0x77);

  cv::Mat working;
  bool threw = false;
  try {
    working = vantix::toWorkingImage(format, frame.data(), a.width, a.height, pitch, a.eightBit);
  } catch (const cv::Exception&) {
    threw = true;
  }
  if (degenerate) {
    // Nothing to convert: an empty image or the image library's refusal.
    FUZZ_EXPECT(threw || working.empty(), "format %u %ux%u: a non-empty image from no pixels", format, a.width,
                a.height);
    return;
  }
  FUZZ_EXPECT(threw == refused, "format %u %ux%u pitch %u (row %llu bytes): %s", format, a.width, a.height,
              effective, static_cast<unsigned long long>(rowBytes), threw ? "refused" : "accepted");
  if (threw) return;
  checkWorking(format, a, frame.data(), effective, l, working);

  // The output conversion of an 8-bit working image, possibly a view.
  cv::Mat source(static_cast<int>(a.height), static_cast<int>(a.width), CV_8UC3);
  for (int y = 0; y < source.rows; ++y) {
    for (int i = 0; i < source.cols * 3; ++i) {
      source.ptr<uint8_t>(y)[i] = a.pattern.empty() ? 0 : a.pattern[(y * 7 + i) % a.pattern.size()];
    }
  }
  if (a.viewInLarger) {
    cv::Mat larger(source.rows + 2, source.cols + 3, CV_8UC3, cv::Scalar(1, 2, 3));
    source.copyTo(larger(cv::Rect(2, 1, source.cols, source.rows)));
    source = larger(cv::Rect(2, 1, source.cols, source.rows));
  }
  checkOutput(format, source);
}

void writeSeeds(const char* dir) {
  auto make = [](size_t format, uint32_t w, uint32_t h, size_t pitchMode, uint32_t extra, bool eightBit,
                 bool view) {
    Args a;
    a.formatChoice = format;
    a.sizeMode = w > 64 || h > 64 ? 1 : 0;
    a.width = w;
    a.height = h;
    a.pitchMode = pitchMode;
    a.pitchExtra = extra;
    a.eightBit = eightBit;
    a.viewInLarger = view;
    for (int i = 0; i < 41; ++i) a.pattern.push_back(static_cast<uint8_t>(i * 97 + 3));
    a.pattern.push_back(0xFF);
    a.pattern.push_back(0xFF);
    return a;
  };
  std::vector<fuzz::Seed<Args>> seeds = {
      {"bgr8_default", make(0, 7, 5, 0, 0, true, false)},
      {"bgr16_padded_eight", make(1, 9, 4, 2, 6, true, true)},
      {"bgr16_double", make(1, 5, 5, 0, 0, false, false)},
      {"bgra8_view", make(2, 6, 3, 1, 0, true, true)},
      {"bgra16_double", make(3, 4, 6, 2, 2, false, false)},
      {"format7_as_bgr8", make(4, 11, 3, 0, 0, true, false)},
      {"pitch_short", make(0, 8, 4, 3, 2, true, false)},
      {"bgr16_odd_pitch", make(1, 4, 4, 2, 1, true, false)},
  };
  Args degenerate = make(2, 0, 0, 0, 0, true, false);
  degenerate.sizeMode = 2;
  degenerate.height = 0x90000000u;
  seeds.push_back({"zero_width_huge_height", degenerate});
  fuzz::writeSeeds(dir, seeds, [](fuzz::Writer& w, Args& a) { schema(w, a); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return fuzz::initialize(argc, argv, writeSeeds);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::testOneInput<Args>(data, size, [](fuzz::Reader& r, Args& a) { schema(r, a); },
                                   runOne);
}
