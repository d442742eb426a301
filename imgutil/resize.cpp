#include "imgutil/resize.h"

#include <opencv2/imgproc.hpp>

#include "api/image_header.h"
#include "api/result_codes.h"

namespace vantix {

int chooseInterpolation(const VantixImageHeader& src, const VantixImageHeader& dst,
                        uint32_t interpolation) {
  if (interpolation == VANTIX_INTER_AUTO) {
    // Pixel counts as signed 32-bit products that wrap on overflow, as the
    // header fields are 32-bit; compared signed.
    const auto count = [](const VantixImageHeader& h) {
      return static_cast<int32_t>(static_cast<uint32_t>(h.biHeight) *
                                  static_cast<uint32_t>(h.biWidth));
    };
    return count(src) < count(dst) ? cv::INTER_CUBIC : cv::INTER_AREA;
  }
  if (interpolation > VANTIX_INTER_LANCZOS4) return -1;
  return static_cast<int>(interpolation);
}

VantixResult resizeImage(const VantixImageHeader* src, uint32_t srcPitch, const void* srcPixels,
                         const VantixImageHeader* dst, uint32_t dstPitch, void* dstPixels,
                         uint32_t interpolation) {
  if (src == nullptr || dst == nullptr) return VANTIX_E_POINTER;
  if (src->biSize != 40 || dst->biSize != 40) return VANTIX_E_INVALIDARG;
  if (src->biBitCount != dst->biBitCount) return VANTIX_E_INVALIDARG;
  if (src->biCompression != 0) return VANTIX_E_INVALIDARG;
  if (src->biBitCount < 8) return VANTIX_E_INVALIDARG;
  if (dst->biCompression != 0) return VANTIX_E_INVALIDARG;
  const int interp = chooseInterpolation(*src, *dst, interpolation);
  if (interp < 0) return VANTIX_E_INVALIDARG;
  const int type = matTypeForBitCount(src->biBitCount);
  if (type < 0) return VANTIX_E_INVALIDARG;
  if (srcPitch == 0) srcPitch = defaultStride(*src);
  if (dstPitch == 0) dstPitch = defaultStride(*dst);

  try {
    // A default stride that wrapped to 0 in 32-bit arithmetic (widths near
    // 2^32 / bits) is a pitch shorter than a row like any other; the image
    // library would read 0 as "rows without padding" and run past the buffer.
    if (srcPitch == 0 || dstPitch == 0) CV_Error(cv::Error::BadStep, "row pitch of 0");
    const cv::Mat source(src->biHeight, src->biWidth, type, const_cast<void*>(srcPixels),
                         srcPitch);
    cv::Mat destination(dst->biHeight, dst->biWidth, type, dstPixels, dstPitch);
    // A negative or zero size is refused by the image library itself, except
    // that it accepts negative row counts in the wrapper; refuse those the
    // same way so that nothing is read or written.
    if (source.rows <= 0 || source.cols <= 0 || destination.rows <= 0 ||
        destination.cols <= 0) {
      CV_Error(cv::Error::StsBadSize, "image size must be positive");
    }
    // The image library's vectorised nearest-neighbour resize of 16-bit grey
    // images fetches four bytes for every two-byte pixel, so it reads two
    // bytes past the last pixel of the last row.  The host's buffer ends
    // there when rows carry no padding (an even width at the default
    // stride): such a source is resized from a copy with a spare row.
    cv::Mat padded;
    const size_t rowBytes = static_cast<size_t>(source.cols) * source.elemSize();
    if (interp == cv::INTER_NEAREST && type == CV_16UC1 && source.step[0] < rowBytes + 2) {
      padded.create(source.rows + 1, source.cols, type);
      source.copyTo(padded.rowRange(0, source.rows));
      cv::resize(padded.rowRange(0, source.rows), destination, destination.size(), 0, 0, interp);
    } else {
      cv::resize(source, destination, destination.size(), 0, 0, interp);
    }
    // The destination wraps the host's buffer; if the library had to
    // reallocate it the result would never reach the host.
    CV_Assert(destination.data == dstPixels);
  } catch (const cv::Exception& e) {
    return resultFromCvException(e);
  }
  return VANTIX_S_OK;
}

}  // namespace vantix
