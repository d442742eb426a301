// An edge session on any format, frame size and search size, then up to four
// vantix_edge_get calls with points anywhere.  Input: format (byte), width
// and height (uint16), size (uint32), the number of calls (byte), per call x
// and y (int32), size and flags (a byte each: bit 0 a null frame, bit 1 a
// null point); the rest is the frame's bytes.
#include <cmath>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Reader in(data, size);
  const uint32_t format = in.take<uint8_t>();
  const uint32_t width = in.take<uint16_t>(), height = in.take<uint16_t>();
  uint32_t searchSize = in.take<uint32_t>();
  struct Call {
    int32_t x, y;
    uint8_t size, flags;
  } calls[4];
  const int count = in.take<uint8_t>() % 5;
  for (int i = 0; i < count; ++i) {
    calls[i] = {in.take<int32_t>(), in.take<int32_t>(), in.take<uint8_t>(), in.take<uint8_t>()};
  }
  const uint64_t bytes = fuzz::frameBytes(width, height, fuzz::formatBits(format));
  if (fuzz::tooLarge(uint64_t{width} * height, bytes)) return 0;
  fuzz::Buffer frame(bytes);
  frame.fill(in);

  VantixEdge* edge = vantix_edge_new(format, width, height, searchSize);
  FUZZ_CHECK(edge != nullptr);
  for (int i = 0; i < count; ++i) {
    const Call& c = calls[i];
    if (c.size >= 1 && c.size <= 50) searchSize = c.size;
    int32_t x = c.x, y = c.y;
    int32_t r = 0;
    try {
      r = vantix_edge_get(edge, (c.flags & 1) ? nullptr : frame.data(),
                          (c.flags & 2) ? nullptr : &x, &y, c.size);
    } catch (const cv::Exception&) {
      continue;  // a search area with nothing left inside the frame
    }
    // 1: moved onto an edge strictly closer than the search size; 0: the
    // point is left as it was.
    const double moved = std::hypot(static_cast<double>(x) - c.x, static_cast<double>(y) - c.y);
    FUZZ_CHECK(r == 0 || (r == 1 && (c.flags & 3) == 0));
    FUZZ_CHECK(r == 1 ? moved < searchSize : moved == 0);
  }
  vantix_edge_delete(edge);
  return 0;
}
