// vantix_resizeV1 / vantix_resizeV2 on any two headers, pitches and
// interpolation.  Input: flags (bit 0 V1, bits 1-2 a null source or
// destination header), interpolation (255: automatic), then per image width,
// height, biBitCount, biSize, biCompression and pitch (V2); the rest is
// the source's pixels.
#include <memory>

#include "fuzz_common.h"

namespace {

struct Image {
  VantixImageHeader header{};
  uint32_t pitch = 0;
  size_t offset = 0;  // V1: header and colour table before the pixels
  std::unique_ptr<fuzz::Buffer> buffer;

  bool read(fuzz::Reader& in, bool v1) {
    header.biWidth = in.take<int32_t>();
    header.biHeight = in.take<int32_t>();
    header.biBitCount = in.take<uint16_t>();
    header.biSize = in.take<uint32_t>();
    header.biCompression = in.take<uint32_t>();
    pitch = in.take<uint32_t>();
    if (v1) pitch = 0;  // V1 images have the default stride
    // Samples of up to 8 bits take a byte, up to 16 two.
    const uint16_t bits = header.biBitCount;
    const uint32_t stored = bits <= 8 ? 8 : bits <= 16 ? 16 : bits == 24 || bits == 32 ? bits : 48;
    const uint32_t width = static_cast<uint32_t>(header.biWidth);
    const uint32_t rows = header.biWidth > 0 && header.biHeight > 0 ? header.biHeight : 0;
    const uint64_t bytes = fuzz::frameBytes(width, rows, stored, pitch);
    if (fuzz::tooLarge(uint64_t{rows} * width, bytes)) return false;
    offset = v1 ? sizeof header + (bits == 8 ? 1024 : 0) : 0;
    buffer = std::make_unique<fuzz::Buffer>(offset + bytes);
    return true;
  }
  uint8_t* pixels() { return buffer->data() + offset; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Reader in(data, size);
  const uint8_t flags = in.take<uint8_t>();
  const uint8_t code = in.take<uint8_t>();
  const uint32_t interpolation = code == 255 ? VANTIX_INTER_AUTO : code;
  const bool v1 = flags & 1;
  Image src, dst;
  if (!src.read(in, v1) || !dst.read(in, v1)) return 0;
  src.buffer->fill(in);
  if (v1) {
    std::memcpy(src.buffer->data(), &src.header, sizeof src.header);
    std::memcpy(dst.buffer->data(), &dst.header, sizeof dst.header);
  }
  const auto srcBefore = src.buffer->copy(), dstBefore = dst.buffer->copy();
  const auto* srcHeader =
      v1 ? reinterpret_cast<VantixImageHeader*>(src.buffer->data()) : &src.header;
  auto* dstHeader = v1 ? reinterpret_cast<VantixImageHeader*>(dst.buffer->data()) : &dst.header;
  if (flags & 2) srcHeader = nullptr;
  if (flags & 4) dstHeader = nullptr;

  const VantixResult r = v1 ? vantix_resizeV1(srcHeader, dstHeader, interpolation)
                            : vantix_resizeV2(srcHeader, src.pitch, src.pixels(), dstHeader,
                                              dst.pitch, dst.pixels(), interpolation);
  FUZZ_CHECK(r == VANTIX_S_OK || r == VANTIX_E_POINTER || r == VANTIX_E_INVALIDARG ||
             r == VANTIX_E_FAIL || r == VANTIX_E_OUTOFMEMORY);
  FUZZ_CHECK((r == VANTIX_E_POINTER) == (srcHeader == nullptr || dstHeader == nullptr));
  FUZZ_CHECK(src.buffer->copy() == srcBefore);
  // A refusal writes nothing; a resize leaves what is in front of the
  // destination's pixels (V1 header and colour table).
  if (r == VANTIX_E_FAIL) return 0;
  const auto dstAfter = dst.buffer->copy();
  const size_t kept = r == VANTIX_S_OK ? dst.offset : dstAfter.size();
  FUZZ_CHECK(std::equal(dstAfter.begin(), dstAfter.begin() + kept, dstBefore.begin()));
  return 0;
}
