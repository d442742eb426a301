// The reading of session frames: toWorkingImage on any format, size and row
// pitch, at both depths.  Input: format and flags (bit 0 keep 16-bit samples as
// doubles) a byte each, width and height (uint16), pitch (uint32); the rest
// is the frame's bytes.
#include "api/pixel_format.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Reader in(data, size);
  const uint32_t format = in.take<uint8_t>();
  const bool eightBit = !(in.take<uint8_t>() & 1);
  const uint32_t width = in.take<uint16_t>(), height = in.take<uint16_t>();
  const uint32_t pitch = in.take<uint32_t>();
  const uint64_t bytes = fuzz::frameBytes(width, height, fuzz::formatBits(format), pitch);
  if (fuzz::tooLarge(uint64_t{width} * height, bytes)) return 0;
  fuzz::Buffer frame(width != 0 && height != 0 ? bytes : 0);
  frame.fill(in);
  const auto before = frame.copy();

  cv::Mat working;
  try {
    working = vantix::toWorkingImage(format, frame.data(), width, height, pitch, eightBit);
  } catch (const cv::Exception&) {
    return 0;  // a pitch shorter than a row, or odd for 16-bit samples
  }
  FUZZ_CHECK(frame.copy() == before);
  if (width == 0 || height == 0) {
    FUZZ_CHECK(working.empty());
    return 0;
  }
  FUZZ_CHECK(working.cols == int(width) && working.rows == int(height) && working.channels() == 3);
  return 0;
}
