// Mapping of internal failures to the HRESULT-style codes of the C interface.
#pragma once

#include <opencv2/core.hpp>

#include <vantix.h>

namespace vantix {

// The image library reports running out of memory as cv::Exception with code
// CV_StsNoMem (-4); every other cv::Exception is a generic failure.
inline VantixResult resultFromCvException(const cv::Exception& e) {
  return e.code == cv::Error::StsNoMem ? VANTIX_E_OUTOFMEMORY : VANTIX_E_FAIL;
}

}  // namespace vantix
