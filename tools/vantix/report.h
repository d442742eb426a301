// A small writer of self-contained HTML reports: one file with its images
// embedded as base64 data URIs, inline CSS and plots as inline SVG, so that
// it can be mailed or archived alone and viewed in any browser without
// scripts or network access.  Used by "vantix demo"; nothing in it knows
// about the demo.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

namespace vtool {

// Standard base64 (RFC 4648, with padding).
std::string base64(const uint8_t* data, size_t size);

// Text with & < > " ' replaced by entities.
std::string htmlEscape(const std::string& text);

// `image` (8- or 16-bit grey, BGR or BGRA) as a data URI for an <img>: made
// at most `maxWidth` pixels wide (area interpolation, aspect kept), 16-bit
// samples scaled to 8 bits, stored as PNG, or as JPEG (quality 90) when PNG
// would be larger than about 300 kB and the JPEG is smaller: photographs
// then cost a fraction of the space while drawings and small images stay
// exact.  Throws ToolError when the image cannot be encoded.
std::string imageDataUri(const cv::Mat& image, int maxWidth = 1600);

// One line of a plot: points (x[i], y[i]) joined in order.
struct PlotSeries {
  std::string name;       // shown in the legend
  std::vector<double> x;
  std::vector<double> y;
  std::string colour;     // CSS colour; empty picks one by position
  bool dashed = false;    // e.g. for reference or true values
};

struct LinePlot {
  std::string title;
  std::string xLabel;
  std::string yLabel;
  std::vector<PlotSeries> series;
  int width = 720;
  int height = 320;
};

// The plot as an <svg> element with axes, round-numbered ticks, grid lines
// and a legend.  Non-finite points are left out.  An empty plot (no finite
// point) gives a frame with the title and "no data".
std::string svgLinePlot(const LinePlot& plot);

// An image shown on the page with a caption under it.
struct Figure {
  cv::Mat image;
  std::string caption;
  int maxWidth = 1600;  // of the embedded copy
};

class HtmlReport {
 public:
  class Section {
   public:
    Section(std::string id, std::string title) : id_(std::move(id)), title_(std::move(title)) {}
    const std::string& id() const { return id_; }
    const std::string& title() const { return title_; }

    Section& paragraph(const std::string& text);
    // A short highlighted line of key figures, e.g. an accuracy summary.
    Section& highlight(const std::string& text);
    // Figures side by side (wrapping on narrow windows).
    Section& figures(const std::vector<Figure>& figures);
    Section& figure(const Figure& figure) { return figures({figure}); }
    Section& table(const std::vector<std::string>& header,
                   const std::vector<std::vector<std::string>>& rows);
    // A table folded away behind a summary line (<details>), for long ones.
    Section& foldedTable(const std::string& summary, const std::vector<std::string>& header,
                         const std::vector<std::vector<std::string>>& rows);
    Section& plot(const LinePlot& plot);
    // A warning box, e.g. for a step that failed.
    Section& warning(const std::string& text);

    std::string html() const;

   private:
    std::string id_;
    std::string title_;
    std::string body_;
  };

  explicit HtmlReport(std::string title) : title_(std::move(title)) {}

  // Lines under the title: name and value (versions, date, ...).
  void fact(const std::string& name, const std::string& value);

  // Appends a section; sections are shown in the order they were added,
  // with a table of contents at the top.  The reference stays valid.
  Section& section(const std::string& id, const std::string& title);

  std::string render() const;
  // Writes the page to `path`; throws ToolError when it cannot.
  void write(const std::filesystem::path& path) const;

 private:
  std::string title_;
  std::vector<std::pair<std::string, std::string>> facts_;
  std::vector<std::unique_ptr<Section>> sections_;
};

}  // namespace vtool
