// Demo step: a photo is turned into an RGGB Bayer mosaic in memory and
// demosaiced with each algorithm; PSNR against the photo shows the quality.
#include <string>
#include <vector>

#include "demo.h"
#include "errors.h"
#include "image_io.h"
#include "library.h"

namespace vtool {

namespace {

// Keeps one sample a pixel as an RGGB sensor sees it: R at even rows and
// columns, B at odd rows and columns, G elsewhere.
template <typename T>
cv::Mat mosaicRggb(const cv::Mat& bgr) {
  cv::Mat raw(bgr.size(), cv::DataType<T>::depth);
  for (int y = 0; y < bgr.rows; ++y) {
    for (int x = 0; x < bgr.cols; ++x) {
      const int channel = (y % 2 == 0 && x % 2 == 0) ? 2 : (y % 2 == 1 && x % 2 == 1) ? 0 : 1;
      raw.at<T>(y, x) = bgr.at<cv::Vec<T, 3>>(y, x)[channel];
    }
  }
  return raw;
}

struct Algorithm {
  uint32_t code;
  const char* name;
  const char* file;
};

constexpr Algorithm kAlgorithms[] = {
    {VANTIX_DEMOSAIC_BILINEAR, "bilinear", "demosaic-bilinear.png"},
    {VANTIX_DEMOSAIC_VNG, "vng", "demosaic-vng.png"},
    {VANTIX_DEMOSAIC_EDGE_AWARE, "edge-aware", "demosaic-edge-aware.png"},
};

}  // namespace

void demoDemosaic(DemoContext& context) {
  std::string label;
  const cv::Mat photo = context.sample("fruits.jpg", label);
  say("%s: %s, mosaicked in memory as RGGB, 8 bits", label.c_str(),
      sizeText(photo.size()).c_str());
  const cv::Mat raw = mosaicRggb<uint8_t>(photo);
  context.save("mosaic-rggb.png", raw);
  std::vector<std::vector<std::string>> rows;
  std::vector<Figure> figures = {{raw, "mosaic-rggb.png: the RGGB mosaic (one sample a pixel)"}};
  for (const Algorithm& algorithm : kAlgorithms) {
    const DemosaicOutcome result =
        demosaic(raw, 8, VANTIX_BAYER_RGGB, VANTIX_DEMOSAIC_BGR, algorithm.code);
    const double psnr = cv::PSNR(result.image, photo);
    say("%-10s %7.2f ms  PSNR %.2f dB", algorithm.name, result.milliseconds, psnr);
    context.save(algorithm.file, result.image);
    context.timing(format("8-bit %s", algorithm.name), result.milliseconds);
    rows.push_back({"8", algorithm.name, format("%.2f ms", result.milliseconds),
                    format("%.2f dB", psnr)});
    figures.push_back({result.image, format("%s: %s, PSNR %.2f dB", algorithm.file,
                                            algorithm.name, psnr)});
  }

  // The same photo as a 12-bit frame: VNG is not offered for 16-bit samples.
  cv::Mat photo12;
  photo.convertTo(photo12, CV_16U, 4095.0 / 255.0);
  const cv::Mat raw12 = mosaicRggb<uint16_t>(photo12);
  std::string refusal;
  for (const Algorithm& algorithm : kAlgorithms) {
    try {
      const DemosaicOutcome result =
          demosaic(raw12, 12, VANTIX_BAYER_RGGB, VANTIX_DEMOSAIC_BGR, algorithm.code);
      cv::Mat back;
      result.image.convertTo(back, CV_8U, 255.0 / 4095.0);
      const double psnr = cv::PSNR(back, photo);
      say("12-bit %-10s %7.2f ms  PSNR %.2f dB", algorithm.name, result.milliseconds, psnr);
      rows.push_back({"12", algorithm.name, format("%.2f ms", result.milliseconds),
                      format("%.2f dB", psnr)});
    } catch (const ToolError& e) {
      if (algorithm.code != VANTIX_DEMOSAIC_VNG) throw;
      say("12-bit %-10s refused as documented: %s", algorithm.name, e.what());
      rows.push_back({"12", algorithm.name, "refused", "-"});
      refusal = e.what();
    }
  }

  HtmlReport::Section& section = context.section();
  section.paragraph(format("%s (%s) turned into an RGGB Bayer mosaic in memory (each pixel "
                           "keeps the one colour its sensor site sees) and demosaiced back with "
                           "vantix_demosaic; PSNR against the original photo.  The 12-bit runs "
                           "use the same photo scaled to 0..4095.",
                           label.c_str(), sizeText(photo.size()).c_str()));
  section.table({"bits", "algorithm", "time", "PSNR"}, rows);
  if (!refusal.empty()) section.paragraph("12-bit VNG: " + refusal + ".");
  section.figures(figures);
}

}  // namespace vtool
