// Demo step: resizing a photo down and up with every interpolation.
#include <string>

#include "demo.h"
#include "image_io.h"
#include "library.h"

namespace vtool {

namespace {

// Times every interpolation for one size change and returns the auto result.
cv::Mat resizeAll(const cv::Mat& image, cv::Size size, const char* direction) {
  std::string timings;
  cv::Mat automatic;
  for (uint32_t interpolation : {VANTIX_INTER_NEAREST, VANTIX_INTER_LINEAR, VANTIX_INTER_CUBIC,
                                 VANTIX_INTER_AREA, VANTIX_INTER_LANCZOS4, VANTIX_INTER_AUTO}) {
    const ResizeOutcome result = resize(image, size, interpolation);
    char entry[64];
    std::snprintf(entry, sizeof entry, "%s%s %.2f ms", timings.empty() ? "" : ", ",
                  interpolationName(interpolation).c_str(), result.milliseconds);
    timings += entry;
    if (interpolation == VANTIX_INTER_AUTO) automatic = result.image;
  }
  say("%s %s -> %s: %s", direction, sizeText(image.size()).c_str(), sizeText(size).c_str(),
      timings.c_str());
  return automatic;
}

}  // namespace

void demoResize(DemoContext& context) {
  std::string label;
  const cv::Mat photo = context.sample("baboon.jpg", label);
  say("%s: %s %s", label.c_str(), sizeText(photo.size()).c_str(),
      describeType(photo.type()).c_str());
  const cv::Mat down = resizeAll(photo, {photo.cols / 2, photo.rows / 2}, "down");
  context.save("resize-down.png", down);
  const cv::Mat up = resizeAll(photo, {photo.cols * 2, photo.rows * 2}, "up");
  context.save("resize-up.png", up);
}

}  // namespace vtool
