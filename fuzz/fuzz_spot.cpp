// A spot session measuring a run of frames through its frame entry (the one
// a pull calls), with any spot count, averaging, ROI, aperture, bit count
// and row pitch.  Input: spot count, average count, flags (bit 0 ellipse
// mode, bit 1 a fixed aperture, bit 2 a reset after the first frame), frame
// count (1..4), bit count and pitch (0: default, else row + n - 1) a byte
// each, width and height (uint16), the ROI (4 uint32) and the aperture
// (4 doubles); the rest is the frame's bytes.
#include <stdexcept>

#include "fuzz_common.h"
#include "spot/spot_session.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Reader in(data, size);
  const uint32_t spotCount = in.take<uint8_t>(), averageCount = in.take<uint8_t>();
  const uint8_t flags = in.take<uint8_t>();
  const int frames = in.take<uint8_t>() % 4 + 1;
  const uint32_t bits = in.take<uint8_t>(), extra = in.take<uint8_t>();
  const uint32_t width = in.take<uint16_t>(), height = in.take<uint16_t>();
  uint32_t roi[4];
  for (uint32_t& v : roi) v = in.take<uint32_t>();
  const SpotAperture aperture{in.take<double>(), in.take<double>(), in.take<double>(),
                              in.take<double>()};
  const uint32_t pitch = extra == 0 ? 0 : width * bits / 8 + extra - 1;
  const uint64_t bytes = fuzz::frameBytes(width, height, bits, pitch);
  if (fuzz::tooLarge(uint64_t{width} * height, bytes)) return 0;
  fuzz::Buffer frame(bytes);
  frame.fill(in);

  vantix::CSpotSession session(spotCount, averageCount);
  session.setEllipseMode(flags & 1);
  session.setRoi(roi[0], roi[1], roi[2], roi[3]);
  if (flags & 2) session.setAperture(aperture);
  // One record more than the session has spots: it must stay as it was.
  std::vector<SpotResult> out(spotCount + 1);
  std::memset(out.data(), 0xA5, out.size() * sizeof(SpotResult));
  const std::vector<SpotResult> before = out;
  for (int f = 0; f < frames; ++f) {
    // Frames of a run differ a little.
    if (f > 0 && bytes > 0) frame.data()[(f * 7919) % bytes] ^= 0x5A;
    if (f == 1 && (flags & 4)) session.reset();
    try {
      session.onFrame(frame.data(), width, height, bits, pitch, 1, out.data());
    } catch (const std::runtime_error&) {
      // An unsupported depth, refused before anything is written.
      FUZZ_CHECK(std::memcmp(out.data(), before.data(), out.size() * sizeof(SpotResult)) == 0);
      return 0;
    }
    FUZZ_CHECK(std::memcmp(&out[spotCount], &before[spotCount], sizeof(SpotResult)) == 0);
  }
  return 0;
}
