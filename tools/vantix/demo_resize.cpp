// Demo step: resizing a photo down and up with every interpolation.
#include <string>
#include <vector>

#include "demo.h"
#include "image_io.h"
#include "library.h"

namespace vtool {

namespace {

constexpr uint32_t kInterpolations[] = {VANTIX_INTER_NEAREST, VANTIX_INTER_LINEAR,
                                        VANTIX_INTER_CUBIC,   VANTIX_INTER_AREA,
                                        VANTIX_INTER_LANCZOS4, VANTIX_INTER_AUTO};

// Times every interpolation for one size change, adds a row of times to
// `rows` and returns the auto result.
cv::Mat resizeAll(DemoContext& context, const cv::Mat& image, cv::Size size,
                  const char* direction, std::vector<std::vector<std::string>>& rows) {
  std::string timings;
  std::vector<std::string> row = {std::string(direction) + " " + sizeText(image.size()) + " -> " +
                                  sizeText(size)};
  cv::Mat automatic;
  for (uint32_t interpolation : kInterpolations) {
    const ResizeOutcome result = resize(image, size, interpolation);
    timings += format("%s%s %.2f ms", timings.empty() ? "" : ", ",
                      interpolationName(interpolation).c_str(), result.milliseconds);
    row.push_back(format("%.2f ms", result.milliseconds));
    if (interpolation == VANTIX_INTER_AUTO) {
      automatic = result.image;
      // The section's table has every interpolation; the timings table
      // keeps the one the pictures show.
      context.timing(format("%s, auto", direction), result.milliseconds);
    }
  }
  say("%s %s -> %s: %s", direction, sizeText(image.size()).c_str(), sizeText(size).c_str(),
      timings.c_str());
  rows.push_back(row);
  return automatic;
}

}  // namespace

void demoResize(DemoContext& context) {
  std::string label;
  const cv::Mat photo = context.sample("baboon.jpg", label);
  say("%s: %s %s", label.c_str(), sizeText(photo.size()).c_str(),
      describeType(photo.type()).c_str());
  std::vector<std::vector<std::string>> rows;
  const cv::Mat down = resizeAll(context, photo, {photo.cols / 2, photo.rows / 2}, "down", rows);
  context.save("resize-down.png", down);
  const cv::Mat up = resizeAll(context, photo, {photo.cols * 2, photo.rows * 2}, "up", rows);
  context.save("resize-up.png", up);

  HtmlReport::Section& section = context.section();
  section.paragraph(format("%s (%s) resized to half and to twice its size with "
                           "vantix_resizeV2; the pictures use the automatic interpolation "
                           "(area when shrinking, cubic when enlarging).",
                           label.c_str(), sizeText(photo.size()).c_str()));
  std::vector<std::string> header = {"size change"};
  for (uint32_t interpolation : kInterpolations) header.push_back(interpolationName(interpolation));
  section.table(header, rows);
  section.figures({{down, "resize-down.png: " + sizeText(down.size()) + ", shown at its size",
                    down.cols},
                   {up, "resize-up.png: " + sizeText(up.size()) + " (page copy reduced to 800 px)",
                    800}});
}

}  // namespace vtool
