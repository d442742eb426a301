// Fuzzes vantix_demosaic: sizes, bit depth, pattern, output order and
// method, with source and output buffers exactly as large as the arguments
// say (each ending at an inaccessible page).  The result code is worked out
// from the validation rules (a conversion that ran reports E_FAIL); after a
// conversion the row padding must be untouched, bilinear output must lie in
// the source's range with an opaque alpha, a uniform scene must come out in
// its true colours (red and blue swapped for the G-first patterns), and the
// R G B orders must be the B G R ones with red and blue exchanged.
#include <algorithm>
#include <limits>
#include <memory>

#include <opencv2/core.hpp>

#include <vantix.h>

#include "fuzz_common.h"

namespace {

constexpr int32_t kBits[] = {8, 9, 10, 12, 14, 16, 7, 17, 0, -1, std::numeric_limits<int32_t>::min(), 255};
constexpr uint32_t kPatterns[] = {VANTIX_BAYER_BGGR, VANTIX_BAYER_RGGB, VANTIX_BAYER_GRBG,
                                  VANTIX_BAYER_GBRG, 0x47424752u, 0u, 0xFFFFFFFFu};

struct Args {
  size_t sizeMode = 0;  // 0: up to 64, 1: up to 1100 (1 Mpx), 2: one side 0, the other any
  uint32_t width = 0, height = 0;
  size_t bitsChoice = 0;
  size_t patternChoice = 0;
  uint32_t outFormat = 0;
  uint32_t algorithm = 0;
  bool uniform = false;  // a uniform scene seen through the pattern
  uint16_t red = 0, green = 0, blue = 0;
  bool sibling = false;  // also convert to the other channel order and compare
  std::vector<uint8_t> pattern;
};

template <typename C>
void schema(C& c, Args& a) {
  c.choice(a.sizeMode, 3);
  const uint32_t limit = a.sizeMode == 0 ? 64 : a.sizeMode == 1 ? 1100 : 0xFFFFFFFFu;
  c.num(a.width, 0, limit);
  c.num(a.height, 0, limit);
  c.choice(a.bitsChoice, sizeof kBits / sizeof kBits[0]);
  c.choice(a.patternChoice, sizeof kPatterns / sizeof kPatterns[0]);
  c.num(a.outFormat, 0, 5);
  c.num(a.algorithm, 0, 4);
  c.flag(a.uniform);
  c.num(a.red, 0, 0xFFFF);
  c.num(a.green, 0, 0xFFFF);
  c.num(a.blue, 0, 0xFFFF);
  c.flag(a.sibling);
  c.rest(a.pattern);
}

VantixResult expectedResult(int32_t bits, uint32_t pattern, uint32_t outFormat, uint32_t algorithm) {
  if (bits < 8 || bits > 16) return VANTIX_E_INVALIDARG;
  if (outFormat > 3) return VANTIX_E_INVALIDARG;
  if (algorithm > 2) return VANTIX_E_INVALIDARG;
  if (bits >= 9 && algorithm == 1) return VANTIX_E_NOTIMPL;
  if ((outFormat == 1 || outFormat == 3) && algorithm != 0) return VANTIX_E_NOTIMPL;
  if (pattern != VANTIX_BAYER_BGGR && pattern != VANTIX_BAYER_RGGB && pattern != VANTIX_BAYER_GRBG &&
      pattern != VANTIX_BAYER_GBRG) {
    return VANTIX_E_INVALIDARG;
  }
  return VANTIX_E_FAIL;  // ran (successfully or not)
}

// Row bytes of the output, in 32-bit arithmetic as the host computes them.
uint32_t outputStride(uint32_t width, uint32_t outFormat, bool sixteen) {
  if (outFormat == 1 || outFormat == 3) return width * (sixteen ? 8u : 4u);
  return ((width * (sixteen ? 48u : 24u) + 31u) >> 3) & ~3u;
}

struct Output {
  std::unique_ptr<fuzz::GuardedBuffer> buffer;
  std::vector<uint8_t> before;
};

Output runConversion(const fuzz::GuardedBuffer& src, const Args& a, int32_t bits, uint32_t pattern,
                     uint32_t outFormat, size_t dstBytes, VantixResult expected) {
  Output out;
  out.buffer = std::make_unique<fuzz::GuardedBuffer>(dstBytes);
  for (size_t i = 0; i < dstBytes; ++i) out.buffer->data()[i] = static_cast<uint8_t>(0x5A ^ (i * 13));
  out.before.assign(out.buffer->data(), out.buffer->data() + dstBytes);
  const VantixResult got = vantix_demosaic(src.data(), out.buffer->data(), a.width, a.height, bits,
                                           pattern, outFormat, a.algorithm);
  FUZZ_EXPECT(got == expected, "demosaic %ux%u bits %d pattern 0x%08x out %u alg %u: got 0x%08x, expected 0x%08x",
              a.width, a.height, bits, pattern, outFormat, a.algorithm, got, expected);
  return out;
}

template <typename T>
void checkOutput(const Args& a, const fuzz::GuardedBuffer& src, const Output& out, uint32_t outFormat,
                 uint32_t stride, uint32_t pattern, T maxValue, T sampleMax) {
  const int channels = outFormat == 1 || outFormat == 3 ? 4 : 3;
  const size_t rowBytes = static_cast<size_t>(a.width) * channels * sizeof(T);
  const uint8_t* base = out.buffer->data();
  for (uint32_t y = 0; y < a.height; ++y) {
    for (size_t i = y * size_t{stride} + rowBytes; i < (y + 1) * size_t{stride}; ++i) {
      FUZZ_EXPECT(base[i] == out.before[i], "demosaic wrote into the padding of row %u", y);
    }
  }
  // The image library fills frames of fewer than three rows or columns in
  // its own way (zero rows); the value checks are for real frames.
  if (a.width < 3 || a.height < 3) return;
  const T* samples = reinterpret_cast<const T*>(src.data());
  const size_t count = size_t{a.width} * a.height;
  const T lo = *std::min_element(samples, samples + count);
  const T hi = *std::max_element(samples, samples + count);
  const bool rgbOrder = outFormat >= 2;
  // True colour order expected at the output: B G R, or R G B.  The G-first
  // patterns come out with red and blue exchanged.
  const bool gFirst = pattern == VANTIX_BAYER_GRBG || pattern == VANTIX_BAYER_GBRG;
  for (uint32_t y = 0; y < a.height; ++y) {
    const T* row = reinterpret_cast<const T*>(base + y * size_t{stride});
    for (uint32_t x = 0; x < a.width; ++x) {
      const T* px = row + size_t{x} * channels;
      if (channels == 4) {
        FUZZ_EXPECT(px[3] == maxValue, "alpha %u at (%u,%u) is not opaque", unsigned{px[3]}, x, y);
      }
      if (a.algorithm == 0) {
        for (int ch = 0; ch < 3; ++ch) {
          FUZZ_EXPECT(px[ch] >= lo && px[ch] <= hi, "bilinear value %u at (%u,%u,%d) outside [%u,%u]",
                      unsigned{px[ch]}, x, y, ch, unsigned{lo}, unsigned{hi});
        }
      }
      if (a.uniform && x >= 2 && y >= 2 && x + 2 < a.width && y + 2 < a.height) {
        T red = static_cast<T>(std::min<uint32_t>(a.red, sampleMax));
        T blue = static_cast<T>(std::min<uint32_t>(a.blue, sampleMax));
        const T green = static_cast<T>(std::min<uint32_t>(a.green, sampleMax));
        if (gFirst) std::swap(red, blue);
        const T want[3] = {rgbOrder ? red : blue, green, rgbOrder ? blue : red};
        for (int ch = 0; ch < 3; ++ch) {
          FUZZ_EXPECT(px[ch] == want[ch], "uniform scene: channel %d at (%u,%u) is %u, expected %u (alg %u)",
                      ch, x, y, unsigned{px[ch]}, unsigned{want[ch]}, a.algorithm);
        }
      }
    }
  }
}

// Fills the source with a uniform scene seen through `pattern`: each site
// gets the colour its letter names.
template <typename T>
void paintUniform(fuzz::GuardedBuffer& src, const Args& a, uint32_t pattern, T maxValue) {
  T* samples = reinterpret_cast<T*>(src.data());
  const T values[3] = {static_cast<T>(std::min<uint32_t>(a.red, maxValue)),
                       static_cast<T>(std::min<uint32_t>(a.green, maxValue)),
                       static_cast<T>(std::min<uint32_t>(a.blue, maxValue))};
  for (uint32_t y = 0; y < a.height; ++y) {
    for (uint32_t x = 0; x < a.width; ++x) {
      const char letter = static_cast<char>(pattern >> (8 * ((y % 2) * 2 + (x % 2))));
      samples[size_t{y} * a.width + x] = values[letter == 'R' ? 0 : letter == 'G' ? 1 : 2];
    }
  }
}

void runOne(const Args& a) {
  const int32_t bits = kBits[a.bitsChoice];
  const uint32_t pattern = kPatterns[a.patternChoice];
  uint32_t width = a.width, height = a.height;
  if (a.sizeMode == 1 && uint64_t{width} * height > (1u << 20)) return;
  if (a.sizeMode == 2 && width != 0 && height != 0) return;  // cannot be allocated
  const bool sixteen = bits >= 9;
  const size_t sampleBytes = sixteen ? 2 : 1;
  const size_t srcBytes = size_t{width} * height * sampleBytes;
  const uint32_t stride = outputStride(width, a.outFormat, sixteen);
  const size_t dstBytes = size_t{height} * stride;
  if (srcBytes > (size_t{1} << 24) || dstBytes > (size_t{1} << 26)) return;

  fuzz::GuardedBuffer src(srcBytes);
  const uint16_t sampleMax = bits >= 9 && bits <= 16 ? static_cast<uint16_t>((1u << bits) - 1) : 0xFFFF;
  const bool validPattern = a.patternChoice < 4;
  if (a.uniform && validPattern && srcBytes > 0) {
    if (sixteen) {
      paintUniform<uint16_t>(src, a, pattern, sampleMax);
    } else {
      paintUniform<uint8_t>(src, a, pattern, 255);
    }
  } else {
    src.fillFrom(a.pattern, 0x40);
  }
  const std::vector<uint8_t> srcBefore(src.data(), src.data() + srcBytes);
  const VantixResult expected = expectedResult(bits, pattern, a.outFormat, a.algorithm);
  const Output out = runConversion(src, a, bits, pattern, a.outFormat, dstBytes, expected);
  FUZZ_EXPECT(fuzz::sameBytes(srcBefore.data(), src.data(), srcBytes), "demosaic wrote into its source");
  if (expected != VANTIX_E_FAIL) {
    FUZZ_EXPECT(fuzz::sameBytes(out.before.data(), out.buffer->data(), dstBytes),
                "a refused demosaic (0x%08x) touched the output", expected);
    return;
  }
  if (width == 0 || height == 0) return;
  Args checked = a;
  if (!(a.uniform && validPattern)) checked.uniform = false;
  if (sixteen) {
    checkOutput<uint16_t>(checked, src, out, a.outFormat, stride, pattern, 0xFFFF,
                          sampleMax);
  } else {
    checkOutput<uint8_t>(checked, src, out, a.outFormat, stride, pattern, 0xFF, 0xFF);
  }
  if (!a.sibling) return;
  // The other channel order of the same method: red and blue exchanged.
  const uint32_t other = a.outFormat ^ 2u;
  const Output swapped = runConversion(src, a, bits, pattern, other, dstBytes, expected);
  const int channels = a.outFormat == 1 || a.outFormat == 3 ? 4 : 3;
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      for (int ch = 0; ch < channels; ++ch) {
        const int mirrored = ch == 0 ? 2 : ch == 2 ? 0 : ch;
        const size_t at = y * size_t{stride} + (size_t{x} * channels + ch) * sampleBytes;
        const size_t mirroredAt = y * size_t{stride} + (size_t{x} * channels + mirrored) * sampleBytes;
        FUZZ_EXPECT(std::memcmp(out.buffer->data() + at, swapped.buffer->data() + mirroredAt, sampleBytes) == 0,
                    "order %u and %u differ beyond red/blue at (%u,%u,%d)", a.outFormat, other, x, y, ch);
      }
    }
  }
}

void writeSeeds(const char* dir) {
  std::vector<uint8_t> ramp;
  for (int i = 0; i < 61; ++i) ramp.push_back(static_cast<uint8_t>(i * 53 + 7));
  auto make = [&](uint32_t w, uint32_t h, size_t bits, size_t pattern, uint32_t out, uint32_t alg,
                  bool uniform, bool sibling) {
    Args a;
    a.sizeMode = w > 64 || h > 64 ? 1 : 0;
    a.width = w;
    a.height = h;
    a.bitsChoice = bits;
    a.patternChoice = pattern;
    a.outFormat = out;
    a.algorithm = alg;
    a.uniform = uniform;
    a.red = 200;
    a.green = 90;
    a.blue = 30;
    a.sibling = sibling;
    a.pattern = ramp;
    return a;
  };
  std::vector<fuzz::Seed<Args>> seeds = {
      {"bggr8_bilinear_bgr", make(16, 12, 0, 0, 0, 0, false, true)},
      {"rggb8_uniform_bgra", make(10, 9, 0, 1, 1, 0, true, true)},
      {"grbg12_uniform_rgb_ea", make(13, 11, 3, 2, 2, 2, true, false)},
      {"gbrg8_vng_uniform", make(12, 12, 0, 3, 0, 1, true, true)},
      {"odd_width_101_padded", make(101, 5, 0, 0, 0, 0, false, false)},
      {"bggr16_rgba", make(9, 7, 5, 0, 3, 0, false, true)},
      {"vng_on_16bit_notimpl", make(8, 8, 3, 0, 0, 1, false, false)},
      {"four_channel_ea_notimpl", make(8, 8, 0, 0, 3, 2, false, false)},
      {"bad_pattern_rgbg", make(8, 8, 0, 4, 0, 0, false, false)},
      {"bits_17", make(8, 8, 7, 0, 0, 0, false, false)},
      {"tiny_2x2", make(2, 2, 0, 1, 0, 0, false, false)},
  };
  Args empty = make(0, 0, 0, 0, 0, 0, false, false);
  empty.sizeMode = 2;
  empty.height = 0x80000000u;
  seeds.push_back({"zero_width_huge_height", empty});
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
