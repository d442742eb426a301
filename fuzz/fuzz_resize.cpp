// Fuzzes vantix_resizeV1 and vantix_resizeV2: header fields, pitches,
// interpolation and pixel data.  For every input the result code the
// validation rules give is worked out here and compared; a resize that
// succeeds must leave the source and the destination's row padding alone,
// keep nearest, linear and area results inside the source's range (nearest:
// a source pixel next to the mapped position), and do for the automatic
// interpolation exactly what the explicitly chosen one does.
#include <algorithm>
#include <cinttypes>
#include <limits>

#include <opencv2/core.hpp>

#include <vantix.h>

#include "fuzz_common.h"

namespace {

constexpr int64_t kMaxPixels = int64_t{1} << 20;

// The bit counts tried: every accepted one and some neighbours.
constexpr uint16_t kBitCounts[] = {8,  9,  12, 16, 24, 32, 30, 33, 36, 42, 48,
                                   0,  1,  7,  17, 23, 25, 31, 40, 49, 64, 0xFFFF};
constexpr uint32_t kInterpolations[] = {0, 1, 2, 3, 4, 5, VANTIX_INTER_AUTO, 0xFFFFFFFEu, 0x80000000u};

struct Side {
  size_t biSizeChoice = 0;  // 0: 40, 1: 0, 2: 44, 3: 1000
  bool extreme = false;     // one dimension 0 or negative, the other at a 32-bit limit
  bool large = false;       // up to 1100 a side instead of 64
  int32_t width = 1, height = 1;
  size_t bitChoice = 0;
  uint32_t compression = 0;
  size_t pitchMode = 0;     // 0: 0, 1: default, 2: default + extra, 3: default - extra, 4: raw
  uint32_t pitchExtra = 0;
};

struct Args {
  bool v1 = false;
  size_t nullCase = 0;  // 0 none, 1 src, 2 dst
  Side src, dst;
  bool sameBits = true;
  size_t interpChoice = 0;
  std::vector<uint8_t> pattern;
};

template <typename C>
void side(C& c, Side& s) {
  c.choice(s.biSizeChoice, 4);
  c.flag(s.extreme);
  c.flag(s.large);
  c.num(s.width, -3, s.large ? 1100 : 64);
  c.num(s.height, -3, s.large ? 1100 : 64);
  c.choice(s.bitChoice, sizeof kBitCounts / sizeof kBitCounts[0]);
  c.num(s.compression, 0, 4);
  c.choice(s.pitchMode, 5);
  c.num(s.pitchExtra, 0, 4100);
}

template <typename C>
void schema(C& c, Args& a) {
  c.flag(a.v1);
  c.choice(a.nullCase, 8);  // mostly no null header
  side(c, a.src);
  side(c, a.dst);
  c.flag(a.sameBits);
  c.choice(a.interpChoice, sizeof kInterpolations / sizeof kInterpolations[0]);
  c.rest(a.pattern);
}

uint32_t storageBitsOf(uint32_t bits) {
  switch (bits) {
    case 30: case 33: case 36: case 42: case 48: return 48;
    case 24: return 24;
    case 32: return 32;
    case 8: return 8;
    default: return bits >= 9 && bits <= 16 ? 16 : 0;
  }
}

int channelsOf(uint32_t storage) { return storage == 8 || storage == 16 ? 1 : storage == 32 ? 4 : 3; }
int sampleBytesOf(uint32_t storage) { return storage == 16 || storage == 48 ? 2 : 1; }

// The header as the host fills it, the dimensions bounded to 1 Mpx.
VantixImageHeader makeHeader(const Side& s, uint16_t bitCount) {
  VantixImageHeader h{};
  static constexpr uint32_t kSizes[] = {40, 0, 44, 1000};
  h.biSize = kSizes[s.biSizeChoice];
  h.biWidth = s.width;
  h.biHeight = s.height;
  if (s.extreme) {
    // A zero or negative side makes the buffer empty whatever the other says.
    if (s.width % 2 == 0) {
      h.biWidth = s.width > 32 ? std::numeric_limits<int32_t>::max() : std::numeric_limits<int32_t>::min();
      h.biHeight = std::min(s.height, 0);
    } else {
      h.biHeight = s.height > 32 ? std::numeric_limits<int32_t>::max() : std::numeric_limits<int32_t>::min();
      h.biWidth = std::min(s.width, 0);
    }
  } else if (h.biWidth > 0 && h.biHeight > 0 && int64_t{h.biWidth} * h.biHeight > kMaxPixels) {
    h.biHeight = static_cast<int32_t>(kMaxPixels / h.biWidth);
  }
  h.biPlanes = 1;
  h.biBitCount = bitCount;
  h.biCompression = s.compression <= 2 ? 0 : s.compression;
  return h;
}

uint32_t defaultStrideOf(const VantixImageHeader& h) {
  const uint32_t storage = storageBitsOf(h.biBitCount);
  return ((static_cast<uint32_t>(h.biWidth) * storage + 31u) >> 3) & ~3u;
}

uint32_t pitchOf(const Side& s, const VantixImageHeader& h) {
  const uint32_t d = defaultStrideOf(h);
  switch (s.pitchMode) {
    case 0: return 0;
    case 1: return d;
    case 2: return d + s.pitchExtra;
    case 3: return d > s.pitchExtra ? d - s.pitchExtra : 1;
    default: return s.pitchExtra;
  }
}

// Bytes of pixels the host provides: `height` rows of `pitch` bytes (nothing
// for an image without rows or columns), or 0 when that would exceed what a
// fuzz run may allocate (the input is then skipped).
bool pixelBytes(const VantixImageHeader& h, uint32_t pitch, size_t* bytes) {
  if (h.biWidth <= 0 || h.biHeight <= 0) {
    *bytes = 0;
    return true;
  }
  const uint64_t total = static_cast<uint64_t>(h.biHeight) * pitch;
  if (total > (uint64_t{1} << 26)) return false;
  *bytes = static_cast<size_t>(total);
  return true;
}

VantixResult expectedResult(const Args& a, const VantixImageHeader& s, const VantixImageHeader& d,
                            uint32_t srcPitch, uint32_t dstPitch, uint32_t interpolation,
                            int* interp) {
  if (a.nullCase == 1 || a.nullCase == 2) return VANTIX_E_POINTER;
  if (s.biSize != 40 || d.biSize != 40) return VANTIX_E_INVALIDARG;
  if (s.biBitCount != d.biBitCount) return VANTIX_E_INVALIDARG;
  if (s.biCompression != 0) return VANTIX_E_INVALIDARG;
  if (s.biBitCount < 8) return VANTIX_E_INVALIDARG;
  if (d.biCompression != 0) return VANTIX_E_INVALIDARG;
  if (interpolation == VANTIX_INTER_AUTO) {
    const int32_t srcCount = static_cast<int32_t>(static_cast<uint32_t>(s.biWidth) * static_cast<uint32_t>(s.biHeight));
    const int32_t dstCount = static_cast<int32_t>(static_cast<uint32_t>(d.biWidth) * static_cast<uint32_t>(d.biHeight));
    *interp = srcCount < dstCount ? 2 : 3;
  } else if (interpolation > 4) {
    return VANTIX_E_INVALIDARG;
  } else {
    *interp = static_cast<int>(interpolation);
  }
  const uint32_t storage = storageBitsOf(s.biBitCount);
  if (storage == 0) return VANTIX_E_INVALIDARG;
  if (s.biWidth <= 0 || s.biHeight <= 0 || d.biWidth <= 0 || d.biHeight <= 0) return VANTIX_E_FAIL;
  const uint64_t pixelBytesOf = storage / 8;
  const uint32_t sp = srcPitch != 0 ? srcPitch : defaultStrideOf(s);
  const uint32_t dp = dstPitch != 0 ? dstPitch : defaultStrideOf(d);
  if (sp < s.biWidth * pixelBytesOf || dp < d.biWidth * pixelBytesOf) return VANTIX_E_FAIL;
  if (sampleBytesOf(storage) == 2 && (sp % 2 != 0 || dp % 2 != 0)) return VANTIX_E_FAIL;
  return VANTIX_S_OK;
}

// One image and its buffer: for V1 the header, the colour table of 8-bit
// images and the pixels in one block; for V2 the pixels alone.
struct Image {
  VantixImageHeader header{};
  uint32_t pitch = 0;  // as passed (V2), 0 for V1
  uint32_t rowPitch = 0;  // the pitch in effect
  std::unique_ptr<fuzz::GuardedBuffer> buffer;
  size_t pixelOffset = 0;
  VantixImageHeader* headerInBuffer() { return reinterpret_cast<VantixImageHeader*>(buffer->data()); }
  uint8_t* pixels() { return buffer->data() + pixelOffset; }
};

bool makeImage(bool v1, const Side& s, const VantixImageHeader& h, Image& img) {
  img.header = h;
  img.pitch = v1 ? 0 : pitchOf(s, h);
  img.rowPitch = img.pitch != 0 ? img.pitch : defaultStrideOf(h);
  size_t bytes = 0;
  if (!pixelBytes(h, img.rowPitch, &bytes)) return false;
  if (v1) {
    img.pixelOffset = 40 + (h.biBitCount == 8 ? 1024 : 0);
    img.buffer = std::make_unique<fuzz::GuardedBuffer>(img.pixelOffset + bytes);
    std::memcpy(img.buffer->data(), &h, sizeof h);
  } else {
    img.buffer = std::make_unique<fuzz::GuardedBuffer>(bytes);
  }
  return true;
}

VantixResult callResize(const Args& a, Image& src, Image& dst, uint32_t interpolation) {
  if (a.v1) {
    return vantix_resizeV1(a.nullCase == 1 ? nullptr : src.headerInBuffer(),
                           a.nullCase == 2 ? nullptr : dst.headerInBuffer(), interpolation);
  }
  return vantix_resizeV2(a.nullCase == 1 ? nullptr : &src.header, src.pitch, src.pixels(),
                         a.nullCase == 2 ? nullptr : &dst.header, dst.pitch, dst.pixels(),
                         interpolation);
}

template <typename T>
void checkValues(const Image& srcImg, Image& dstImg, int channels, int interp) {
  const VantixImageHeader& s = srcImg.header;
  const VantixImageHeader& d = dstImg.header;
  auto* srcBase = const_cast<Image&>(srcImg).pixels();
  std::vector<double> lo(channels, 1e300), hi(channels, -1e300);
  for (int y = 0; y < s.biHeight; ++y) {
    const T* row = reinterpret_cast<const T*>(srcBase + static_cast<size_t>(y) * srcImg.rowPitch);
    for (int x = 0; x < s.biWidth * channels; ++x) {
      lo[x % channels] = std::min<double>(lo[x % channels], row[x]);
      hi[x % channels] = std::max<double>(hi[x % channels], row[x]);
    }
  }
  if (interp != 0 && interp != 1 && interp != 3) return;
  for (int y = 0; y < d.biHeight; ++y) {
    const T* row = reinterpret_cast<const T*>(dstImg.pixels() + static_cast<size_t>(y) * dstImg.rowPitch);
    for (int x = 0; x < d.biWidth; ++x) {
      for (int ch = 0; ch < channels; ++ch) {
        const double v = row[x * channels + ch];
        FUZZ_EXPECT(v >= lo[ch] && v <= hi[ch], "resize value %g at (%d,%d,%d) outside [%g,%g], interp %d",
                    v, x, y, ch, lo[ch], hi[ch], interp);
      }
      if (interp != 0) continue;
      // Nearest: some source pixel at or next to the mapped position.
      const int64_t sx = int64_t{x} * s.biWidth / d.biWidth;
      const int64_t sy = int64_t{y} * s.biHeight / d.biHeight;
      bool found = false;
      for (int64_t yy = std::max<int64_t>(0, sy - 1); !found && yy <= std::min<int64_t>(s.biHeight - 1, sy + 1); ++yy) {
        const T* srow = reinterpret_cast<const T*>(srcBase + static_cast<size_t>(yy) * srcImg.rowPitch);
        for (int64_t xx = std::max<int64_t>(0, sx - 1); !found && xx <= std::min<int64_t>(s.biWidth - 1, sx + 1); ++xx) {
          found = std::memcmp(srow + xx * channels, row + x * channels, sizeof(T) * channels) == 0;
        }
      }
      FUZZ_EXPECT(found, "nearest pixel (%d,%d) is no source pixel near (%" PRId64 ",%" PRId64 ")", x, y, sx, sy);
    }
  }
}

void runOne(const Args& a) {
  const uint16_t srcBits = kBitCounts[a.src.bitChoice];
  const uint16_t dstBits = a.sameBits ? srcBits : kBitCounts[a.dst.bitChoice];
  const VantixImageHeader sh = makeHeader(a.src, srcBits);
  const VantixImageHeader dh = makeHeader(a.dst, dstBits);
  Image src, dst;
  if (!makeImage(a.v1, a.src, sh, src) || !makeImage(a.v1, a.dst, dh, dst)) return;
  src.buffer->fillFrom(a.pattern);
  if (a.v1) std::memcpy(src.buffer->data(), &sh, sizeof sh);
  // The destination starts as a recognisable pattern so that writes outside
  // its rows show.
  for (size_t i = 0; i < dst.buffer->size(); ++i) dst.buffer->data()[i] = static_cast<uint8_t>(0xA5 ^ (i * 7));
  if (a.v1) std::memcpy(dst.buffer->data(), &dh, sizeof dh);
  const std::vector<uint8_t> srcBefore(src.buffer->data(), src.buffer->data() + src.buffer->size());
  const std::vector<uint8_t> dstBefore(dst.buffer->data(), dst.buffer->data() + dst.buffer->size());

  const uint32_t interpolation = kInterpolations[a.interpChoice];
  int interp = -1;
  const VantixResult expected = expectedResult(a, sh, dh, src.pitch, dst.pitch, interpolation, &interp);
  if (std::getenv("FUZZ_VERBOSE") != nullptr) {
    std::fprintf(stderr, "resize%s %dx%d/%u pitch %u (%zu bytes) -> %dx%d/%u pitch %u (%zu bytes) interp %u expect 0x%08x\n",
                 a.v1 ? "V1" : "V2", sh.biWidth, sh.biHeight, sh.biBitCount, src.rowPitch, src.buffer->size(),
                 dh.biWidth, dh.biHeight, dh.biBitCount, dst.rowPitch, dst.buffer->size(), interpolation, expected);
  }
  const VantixResult got = callResize(a, src, dst, interpolation);
  FUZZ_EXPECT(got == expected, "resize%s %dx%d/%u -> %dx%d/%u pitch %u/%u interp %u: got 0x%08x, expected 0x%08x",
              a.v1 ? "V1" : "V2", sh.biWidth, sh.biHeight, sh.biBitCount, dh.biWidth, dh.biHeight,
              dh.biBitCount, src.pitch, dst.pitch, interpolation, got, expected);
  FUZZ_EXPECT(fuzz::sameBytes(srcBefore.data(), src.buffer->data(), srcBefore.size()),
              "resize wrote into its source");
  if (expected != VANTIX_S_OK) {
    if (expected != VANTIX_E_FAIL) {
      FUZZ_EXPECT(fuzz::sameBytes(dstBefore.data(), dst.buffer->data(), dstBefore.size()),
                  "a refused resize (0x%08x) touched the destination", expected);
    }
    return;
  }
  // Outside the destination's rows (colour table, row padding) nothing changed.
  const uint32_t storage = storageBitsOf(sh.biBitCount);
  const size_t rowBytes = static_cast<size_t>(dh.biWidth) * storage / 8;
  for (size_t i = 0; i < dst.pixelOffset; ++i) {
    FUZZ_EXPECT(dst.buffer->data()[i] == dstBefore[i], "resize wrote into the destination header or colour table at %zu", i);
  }
  for (int y = 0; y < dh.biHeight; ++y) {
    for (size_t i = dst.pixelOffset + y * size_t{dst.rowPitch} + rowBytes;
         i < dst.pixelOffset + (y + 1) * size_t{dst.rowPitch}; ++i) {
      FUZZ_EXPECT(dst.buffer->data()[i] == dstBefore[i], "resize wrote into the padding of row %d", y);
    }
  }
  const int channels = channelsOf(storage);
  if (sampleBytesOf(storage) == 2) {
    checkValues<uint16_t>(src, dst, channels, interp);
  } else {
    checkValues<uint8_t>(src, dst, channels, interp);
  }
  if (interpolation == VANTIX_INTER_AUTO) {
    // The automatic choice does exactly what the chosen method does.
    Image again;
    makeImage(a.v1, a.dst, dh, again);
    if (a.v1) std::memcpy(again.buffer->data(), &dh, sizeof dh);
    FUZZ_EXPECT(callResize(a, src, again, static_cast<uint32_t>(interp)) == VANTIX_S_OK, "explicit rerun failed");
    for (int y = 0; y < dh.biHeight; ++y) {
      FUZZ_EXPECT(std::memcmp(again.pixels() + y * size_t{dst.rowPitch}, dst.pixels() + y * size_t{dst.rowPitch}, rowBytes) == 0,
                  "automatic interpolation differs from method %d in row %d", interp, y);
    }
  }
}

Side plainSide(int32_t w, int32_t h, size_t bitChoice, size_t pitchMode = 0, uint32_t extra = 0) {
  Side s;
  s.width = w;
  s.height = h;
  s.bitChoice = bitChoice;
  s.pitchMode = pitchMode;
  s.pitchExtra = extra;
  s.large = std::max(w, h) > 64;
  return s;
}

void writeSeeds(const char* dir) {
  std::vector<uint8_t> ramp;
  for (int i = 0; i < 97; ++i) ramp.push_back(static_cast<uint8_t>(i * 37 + 11));
  auto make = [&](bool v1, Side s, Side d, size_t interp) {
    Args a;
    a.v1 = v1;
    a.src = s;
    a.dst = d;
    a.interpChoice = interp;
    a.pattern = ramp;
    return a;
  };
  std::vector<fuzz::Seed<Args>> seeds = {
      {"v2_bgr24_up_linear", make(false, plainSide(8, 6, 4), plainSide(16, 12, 4), 1)},
      {"v1_grey8_down_nearest", make(true, plainSide(10, 7, 0), plainSide(5, 3, 0), 0)},
      {"v2_deep48_padded_area", make(false, plainSide(9, 5, 10, 2, 6), plainSide(4, 3, 10, 2, 2), 3)},
      {"v2_grey12_auto", make(false, plainSide(7, 7, 2), plainSide(13, 11, 2), 6)},
      {"v1_bgra32_lanczos", make(true, plainSide(6, 4, 5), plainSide(11, 9, 5), 4)},
      {"v2_bgr24_cubic_odd_pitch", make(false, plainSide(5, 5, 4, 2, 3), plainSide(3, 7, 4, 2, 1), 2)},
      {"v2_interp5_refused", make(false, plainSide(4, 4, 4), plainSide(4, 4, 4), 5)},
      {"v2_negative_height", make(false, plainSide(4, -2, 4), plainSide(4, 4, 4), 1)},
      {"v2_short_pitch", make(false, plainSide(6, 4, 4, 3, 3), plainSide(4, 4, 4), 1)},
  };
  Args mismatch = make(false, plainSide(4, 4, 2), plainSide(4, 4, 3), 0);
  mismatch.sameBits = false;
  seeds.push_back({"v2_bits_differ", mismatch});
  Args compressed = make(false, plainSide(4, 4, 4), plainSide(4, 4, 4), 0);
  compressed.dst.compression = 3;
  seeds.push_back({"v2_dst_compression", compressed});
  Args extreme = make(false, plainSide(900, 0, 4), plainSide(4, 4, 4), 1);
  extreme.src.extreme = true;
  seeds.push_back({"v2_extreme_width", extreme});
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
