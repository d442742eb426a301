// Fuzzes the edge session: vantix_edge_new with any format, frame size and
// search size, then a few vantix_edge_get calls with points anywhere (also
// far outside the frame), sizes in and out of 1..50 and null buffers, on a
// frame exactly as large as the session says (ending at an inaccessible
// page).  For every call the search area is placed here by the documented
// arithmetic and the outcome predicted: a cv::Exception when nothing of the
// area is left inside the frame (or its size is negative), 0 with the point
// unchanged for a null buffer or a flat frame, and otherwise either 0 with
// the point unchanged or 1 with the point moved by less than the search size
// onto a pixel of the search area.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include <vantix.h>

#include "fuzz_common.h"

namespace {

constexpr uint32_t kFormats[] = {0, 1, 2, 3, 7, 0xFFFFFFFFu};

struct Call {
  bool nullBuffer = false;
  bool farPoint = false;  // anywhere in 32 bits instead of near the frame
  int32_t x = 0, y = 0;
  uint32_t size = 0;
};

struct Args {
  size_t formatChoice = 0;
  bool large = false;
  uint32_t width = 1, height = 1;
  bool hugeSize = false;
  uint32_t size = 1;
  size_t content = 0;  // 0: the pattern bytes, 1: flat, 2: a bright box on a dark ground
  int32_t boxX = 0, boxY = 0, boxW = 0, boxH = 0;
  uint8_t dark = 0, bright = 0;
  uint8_t callCount = 1;
  Call calls[4];
  std::vector<uint8_t> pattern;
};

template <typename C>
void schema(C& c, Args& a) {
  c.choice(a.formatChoice, sizeof kFormats / sizeof kFormats[0]);
  c.flag(a.large);
  c.num(a.width, 0, a.large ? 1100 : 80);
  c.num(a.height, 0, a.large ? 1100 : 80);
  c.flag(a.hugeSize);
  c.num(a.size, 0, a.hugeSize ? 0xFFFFFFFFu : 60);
  c.choice(a.content, 3);
  c.num(a.boxX, -20, 1100);
  c.num(a.boxY, -20, 1100);
  c.num(a.boxW, 0, 1100);
  c.num(a.boxH, 0, 1100);
  c.num(a.dark, 0, 255);
  c.num(a.bright, 0, 255);
  c.num(a.callCount, 1, 4);
  for (int i = 0; i < a.callCount; ++i) {
    Call& call = a.calls[i];
    c.flag(call.nullBuffer);
    c.flag(call.farPoint);
    if (call.farPoint) {
      c.num(call.x, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
      c.num(call.y, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
    } else {
      c.num(call.x, -120, 1220);
      c.num(call.y, -120, 1220);
    }
    c.num(call.size, 0, 60);
  }
  c.rest(a.pattern);
}

uint32_t strideOf(uint32_t format, uint32_t width) {
  switch (format) {
    case 1: return ((width * 48u + 31u) >> 3) & ~3u;
    case 2: return width * 4u;
    case 3: return width * 8u;
    default: return ((width * 24u + 31u) >> 3) & ~3u;
  }
}

int bytesPerPixel(uint32_t format) {
  switch (format) {
    case 1: return 6;
    case 2: return 4;
    case 3: return 8;
    default: return 3;
  }
}

// The search area of one axis by the documented arithmetic: every
// conversion to int truncates toward zero, and one beyond the int range
// (a search size above about 1.4e9 given at creation) saturates, as the
// session documents, so such areas end up refused.
struct Axis {
  int64_t start, length, centre;
};

int64_t toInt(double v) {
  if (v >= 2147483647.0) return 2147483647;
  if (v <= -2147483648.0) return -2147483648LL;
  return static_cast<int64_t>(v);
}

Axis placeAxis(uint32_t s, int32_t p, uint32_t extent) {
  const double r = s * 1.5;
  const double pd = p;
  Axis a{};
  int64_t len;
  if (r > pd) {
    a.start = 0;
    len = toInt(3.0 * s + (pd - r));
    a.centre = toInt(static_cast<double>(toInt(r)) + (pd - r));
  } else {
    a.start = toInt(pd - r);
    len = toInt(3.0 * s);
    a.centre = toInt(r);
  }
  if (pd + r > extent) len = toInt(static_cast<double>(len) + (extent - (pd + r)));
  a.length = len;
  return a;
}

void paint(fuzz::GuardedBuffer& frame, const Args& a, uint32_t format, uint32_t stride) {
  if (a.content == 0) {
    frame.fillFrom(a.pattern, 0x33);
    return;
  }
  const bool sixteen = format == 1 || format == 3;
  const int channels = bytesPerPixel(format) / (sixteen ? 2 : 1);
  for (uint32_t y = 0; y < a.height; ++y) {
    uint8_t* row = frame.data() + size_t{y} * stride;
    for (uint32_t x = 0; x < a.width; ++x) {
      const bool inBox = a.content == 2 && int64_t{x} >= a.boxX && int64_t{x} < int64_t{a.boxX} + a.boxW &&
                         int64_t{y} >= a.boxY && int64_t{y} < int64_t{a.boxY} + a.boxH;
      const uint8_t v = inBox ? a.bright : a.dark;
      for (int ch = 0; ch < channels; ++ch) {
        if (sixteen) {
          const uint16_t w = static_cast<uint16_t>(v * 257u);
          std::memcpy(row + (size_t{x} * channels + ch) * 2, &w, 2);
        } else {
          row[size_t{x} * channels + ch] = v;
        }
      }
    }
  }
}

void runOne(const Args& a) {
  const uint32_t format = kFormats[a.formatChoice];
  if (uint64_t{a.width} * a.height > (1u << 20)) return;
  const uint32_t stride = strideOf(format, a.width);
  const size_t frameBytes = size_t{a.height} * stride;
  fuzz::GuardedBuffer frame(frameBytes);
  paint(frame, a, format, stride);
  // A frame whose bytes are all equal has no edge anywhere.
  bool flat = true;
  for (size_t i = 1; i < frameBytes && flat; ++i) flat = frame.data()[i] == frame.data()[0];
  if (a.content == 1) flat = true;

  VantixEdge* edge = vantix_edge_new(format, a.width, a.height, a.size);
  FUZZ_EXPECT(edge != nullptr, "vantix_edge_new returned null after vantix_init");
  uint32_t sessionSize = a.size;
  for (int i = 0; i < a.callCount; ++i) {
    const Call& call = a.calls[i];
    if (call.size >= 1 && call.size <= 50) sessionSize = call.size;
    const Axis ax = placeAxis(sessionSize, call.x, a.width);
    const Axis ay = placeAxis(sessionSize, call.y, a.height);
    // What must happen: an exception for an area of negative size, or (with
    // a frame) for one not inside the frame, or an empty one in the 8-bit
    // formats (whose colour conversion refuses an empty image) unless the
    // point lies inside the frame and the size is not 0 (a frame one pixel
    // wide or high with an odd size), which answers 0.
    const bool negative = ax.length < 0 || ay.length < 0;
    const bool outside = ax.start + ax.length > a.width || ay.start + ay.length > a.height;
    const bool empty = ax.length == 0 || ay.length == 0;
    const bool sixteen = format == 1 || format == 3;
    const bool pointInside = call.x >= 0 && call.y >= 0 && uint32_t(call.x) < a.width &&
                             uint32_t(call.y) < a.height;
    const bool emptyRefused = empty && !sixteen && !(pointInside && sessionSize > 0);
    const bool mustThrow = negative || (!call.nullBuffer && (outside || emptyRefused));
    const bool mustStay = call.nullBuffer || empty || flat;

    int32_t x = call.x, y = call.y;
    int32_t result = -1;
    bool threw = false;
    std::string message = "none";
    try {
      result = vantix_edge_get(edge, call.nullBuffer ? nullptr : frame.data(), &x, &y, call.size);
    } catch (const cv::Exception& e) {
      threw = true;
      message = e.what();
    } catch (const std::exception& e) {
      fuzz::fail("vantix_edge_get threw a non-OpenCV exception: %s", e.what());
    }
    const char* what = "edge_get fmt %u frame %ux%u size %u point (%d,%d) null %d area (%lld,%lld,%lld,%lld) exception %s";
#define EDGE_ARGS format, a.width, a.height, sessionSize, call.x, call.y, int{call.nullBuffer}, \
    static_cast<long long>(ax.start), static_cast<long long>(ay.start), static_cast<long long>(ax.length), \
    static_cast<long long>(ay.length), message.c_str()
    if (mustThrow) {
      FUZZ_EXPECT(threw, what, EDGE_ARGS);
      continue;
    }
    FUZZ_EXPECT(!threw, what, EDGE_ARGS);
    FUZZ_EXPECT(result == 0 || result == 1, what, EDGE_ARGS);
    if (result == 0 || mustStay) {
      FUZZ_EXPECT(result == 0 && x == call.x && y == call.y, what, EDGE_ARGS);
      continue;
    }
    // Moved: strictly closer than the size, onto a pixel of the area.
    const double dx = static_cast<double>(x) - call.x;
    const double dy = static_cast<double>(y) - call.y;
    FUZZ_EXPECT(std::sqrt(dx * dx + dy * dy) < sessionSize, what, EDGE_ARGS);
    const int64_t tx = ax.centre + (int64_t{x} - call.x);
    const int64_t ty = ay.centre + (int64_t{y} - call.y);
    FUZZ_EXPECT(tx >= 0 && tx < ax.length && ty >= 0 && ty < ay.length, what, EDGE_ARGS);
#undef EDGE_ARGS
  }
  vantix_edge_delete(edge);
}

void *hostAlloc(uint64_t bytes) { return std::malloc(bytes); }

void writeSeeds(const char* dir) {
  auto make = [](size_t format, uint32_t w, uint32_t h, uint32_t size, size_t content) {
    Args a;
    a.formatChoice = format;
    a.large = w > 80 || h > 80;
    a.width = w;
    a.height = h;
    a.size = size;
    a.content = content;
    a.boxX = static_cast<int32_t>(w / 3);
    a.boxY = static_cast<int32_t>(h / 3);
    a.boxW = static_cast<int32_t>(w / 3);
    a.boxH = static_cast<int32_t>(h / 3);
    a.dark = 30;
    a.bright = 220;
    a.callCount = 1;
    a.calls[0].x = static_cast<int32_t>(w / 3 - 3);
    a.calls[0].y = static_cast<int32_t>(h / 2);
    for (int i = 0; i < 31; ++i) a.pattern.push_back(static_cast<uint8_t>(i * 71 + 5));
    return a;
  };
  std::vector<fuzz::Seed<Args>> seeds = {
      {"bgr8_box_snap", make(0, 60, 48, 10, 2)},
      {"bgr16_box_snap", make(1, 64, 40, 8, 2)},
      {"bgra8_box_size_change", make(2, 50, 50, 5, 2)},
      {"bgra16_pattern", make(3, 40, 30, 12, 0)},
      {"format7_flat", make(4, 32, 32, 6, 1)},
      {"large_frame_box", make(0, 640, 480, 20, 2)},
      {"one_pixel_wide", make(0, 1, 40, 5, 0)},
  };
  seeds[2].args.callCount = 3;
  seeds[2].args.calls[1] = {false, false, 20, 30, 20};
  seeds[2].args.calls[2] = {true, false, 15, 15, 0};
  Args outside = make(0, 32, 24, 10, 2);
  outside.callCount = 2;
  outside.calls[0] = {false, false, -40, 10, 0};
  outside.calls[1] = {false, false, 60, 10, 0};
  seeds.push_back({"point_outside_frame", outside});
  Args far = make(1, 20, 20, 4, 0);
  far.calls[0] = {true, true, std::numeric_limits<int32_t>::min(), 7, 0};
  seeds.push_back({"far_point_null_buffer", far});
  Args huge = make(0, 30, 30, 0, 2);
  huge.hugeSize = true;
  huge.size = 0xFFFFFFF0u;
  seeds.push_back({"huge_session_size", huge});
  fuzz::writeSeeds(dir, seeds, [](fuzz::Writer& w, Args& a) { schema(w, a); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  // Edge sessions exist only after vantix_init.
  FUZZ_EXPECT(vantix_edge_new(0, 8, 8, 4) == nullptr, "vantix_edge_new before vantix_init");
  vantix_init(hostAlloc);
  return fuzz::initialize(argc, argv, writeSeeds);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::testOneInput<Args>(data, size, [](fuzz::Reader& r, Args& a) { schema(r, a); },
                                   runOne);
}
